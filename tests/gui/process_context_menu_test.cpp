#include "host/linux_client/process_affinity_menu.h"
#include "host/linux_client/process_context_menu.h"
#include "host/linux_client/process_page_actions.h"
#include "host/linux_client/run_new_task_dialog.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QMenu>
#include <QUrlQuery>

namespace korv::host::linux_client {
namespace {

core::ProcessSnapshot Row(std::uint32_t pid, const char* name) {
    core::ProcessSnapshot row;
    row.key = {pid, 1000u + pid};
    row.name = name;
    row.executablePath = std::string("/usr/bin/") + name;
    return row;
}

// One line per entry: "Submenu / Entry", with [disabled], [x] or [ ] behind it; "---" for a separator.
QStringList Describe(const QMenu& menu, const QString& prefix = {}) {
    QStringList lines;
    for (const QAction* action : menu.actions()) {
        if (action->isSeparator()) {
            lines.push_back(prefix + QStringLiteral("---"));
            continue;
        }
        QString line = prefix + action->text();
        if (!action->isEnabled()) line += QStringLiteral(" [disabled]");
        if (action->isCheckable()) line += action->isChecked() ? QStringLiteral(" [x]") : QStringLiteral(" [ ]");
        lines.push_back(line);
        if (action->menu() != nullptr) lines += Describe(*action->menu(), prefix + action->text() + QStringLiteral(" / "));
    }
    return lines;
}

QAction* FindEntry(const QMenu& menu, const QString& text) {
    for (QAction* action : menu.actions()) {
        if (action->text() == text) return action;
        if (action->menu() != nullptr) {
            if (QAction* inner = FindEntry(*action->menu(), text)) return inner;
        }
    }
    return nullptr;
}

ProcessMenuContext OneLiveRow() {
    ProcessMenuContext context;
    context.rows = {Row(42, "editor")};
    context.backendUsable = true;
    context.logicalProcessors = 2;
    context.affinity = AffinityMenuState{0, true, 0b11, false, true};
    return context;
}

const QStringList kSignalAndNiceEntries = {
    QStringLiteral("Send signal"),
    QStringLiteral("Send signal / Interrupt (SIGINT)"),
    QStringLiteral("Send signal / Hang up (SIGHUP)"),
    QStringLiteral("Send signal / Terminate (SIGTERM)"),
    QStringLiteral("Send signal / ---"),
    QStringLiteral("Send signal / Stop (SIGSTOP)"),
    QStringLiteral("Send signal / Continue (SIGCONT)"),
    QStringLiteral("Send signal / Kill (SIGKILL)"),
    QStringLiteral("Nice priority"),
    QStringLiteral("Nice priority / Normal (0)"),
    QStringLiteral("Nice priority / Low priority (10)"),
    QStringLiteral("Nice priority / Lowest priority (19)"),
};

QStringList Disabled(QStringList lines) {
    for (QString& line : lines) {
        if (!line.endsWith(QStringLiteral("---"))) line += QStringLiteral(" [disabled]");
    }
    return lines;
}

TEST(ProcessContextMenuTest, OneLiveRowHasEveryEntryInOrder) {
    const auto menu = BuildProcessContextMenu(OneLiveRow());
    QStringList expected = {
        QStringLiteral("Linux process details…"), QStringLiteral("---"),
        QStringLiteral("Terminate (SIGTERM)"),    QStringLiteral("Force terminate (SIGKILL)"),
        QStringLiteral("End process tree"),       QStringLiteral("Force quit process tree"),
        QStringLiteral("---"),                    QStringLiteral("Suspend (SIGSTOP)"),
        QStringLiteral("Resume (SIGCONT)"),
    };
    expected += kSignalAndNiceEntries;
    expected += {
        QStringLiteral("Set affinity"),
        QStringLiteral("Set affinity / All processors [x]"),
        QStringLiteral("Set affinity / ---"),
        QStringLiteral("Set affinity / CPU 0 [x]"),
        QStringLiteral("Set affinity / CPU 1 [x]"),
        QStringLiteral("---"),
        QStringLiteral("Create process sample"),
        QStringLiteral("Open file location"),
        QStringLiteral("Search online"),
        QStringLiteral("Copy process name"),
        QStringLiteral("---"),
        QStringLiteral("View"),
        QStringLiteral("View / Process tree [x]"),
        QStringLiteral("View / Smooth CPU readings [x]"),
        QStringLiteral("View / Show exited processes [x]"),
        QStringLiteral("View / ---"),
        QStringLiteral("View / Expand all"),
        QStringLiteral("View / Collapse all"),
        QStringLiteral("Follow process [ ]"),
        QStringLiteral("Resource values"),
        QStringLiteral("Resource values / Values [x]"),
        QStringLiteral("Resource values / Percents [ ]"),
    };
    EXPECT_EQ(Describe(*menu), expected);
}

TEST(ProcessContextMenuTest, SeveralRowsWithoutABackendDisableTheActionsButShowThem) {
    ProcessMenuContext context = OneLiveRow();
    context.rows.push_back(Row(43, "helper"));
    context.backendUsable = false;
    context.processTree = false;
    context.smoothCpu = false;
    context.followed = true;
    context.showMemoryPercent = true;
    const auto menu = BuildProcessContextMenu(context);

    QStringList expected = Disabled({
        QStringLiteral("Terminate selected (SIGTERM)"),
        QStringLiteral("Force terminate selected (SIGKILL)"),
        QStringLiteral("End selected process trees"),
        QStringLiteral("Force quit selected process trees"),
        QStringLiteral("---"),
        QStringLiteral("Suspend selected (SIGSTOP)"),
        QStringLiteral("Resume selected (SIGCONT)"),
    });
    expected += Disabled(kSignalAndNiceEntries);
    expected += {
        QStringLiteral("Set affinity [disabled]"),
        QStringLiteral("---"),
        QStringLiteral("Copy process name"),
        QStringLiteral("---"),
        QStringLiteral("View"),
        QStringLiteral("View / Process tree [ ]"),
        QStringLiteral("View / Smooth CPU readings [ ]"),
        QStringLiteral("View / Show exited processes [x]"),
        QStringLiteral("View / ---"),
        QStringLiteral("View / Expand all [disabled]"),
        QStringLiteral("View / Collapse all [disabled]"),
        QStringLiteral("Stop following [x]"),
        QStringLiteral("Resource values"),
        QStringLiteral("Resource values / Values [ ]"),
        QStringLiteral("Resource values / Percents [x]"),
    };
    EXPECT_EQ(Describe(*menu), expected);
}

TEST(ProcessContextMenuTest, AnExitedRowOffersOnlyInspectionAndItsName) {
    ProcessMenuContext context = OneLiveRow();
    context.exited = true;
    const auto menu = BuildProcessContextMenu(context);
    EXPECT_EQ(Describe(*menu), (QStringList{QStringLiteral("Inspect"), QStringLiteral("---"),
                                            QStringLiteral("Open file location"), QStringLiteral("Search online"),
                                            QStringLiteral("Copy process name")}));
    ASSERT_NE(menu->defaultAction(), nullptr);
    EXPECT_EQ(ProcessMenuChoiceOf(menu->defaultAction()).command, ProcessMenuCommand::inspect);
}

TEST(ProcessContextMenuTest, EntriesCarryTheirChoice) {
    const auto menu = BuildProcessContextMenu(OneLiveRow());
    const std::vector<std::pair<QString, ProcessMenuChoice>> table = {
        {QStringLiteral("Linux process details…"), {ProcessMenuCommand::showDetails}},
        {QStringLiteral("Force quit process tree"), {ProcessMenuCommand::forceQuitTree}},
        {QStringLiteral("Hang up (SIGHUP)"), {ProcessMenuCommand::signalHangUp}},
        {QStringLiteral("Lowest priority (19)"), {ProcessMenuCommand::niceLowest}},
        {QStringLiteral("All processors"), {ProcessMenuCommand::affinity, -1}},
        {QStringLiteral("CPU 1"), {ProcessMenuCommand::affinity, 1}},
        {QStringLiteral("Create process sample"), {ProcessMenuCommand::createSample}},
        {QStringLiteral("Percents"), {ProcessMenuCommand::showPercents}},
    };
    for (const auto& [text, choice] : table) {
        const QAction* entry = FindEntry(*menu, text);
        ASSERT_NE(entry, nullptr) << text.toStdString();
        EXPECT_EQ(ProcessMenuChoiceOf(entry), choice) << text.toStdString();
    }
    EXPECT_EQ(ProcessMenuChoiceOf(FindEntry(*menu, QStringLiteral("Send signal"))).command, ProcessMenuCommand::none);
}

QStringList AffinityLines(const AffinityMenuState& state) {
    QMenu menu;
    FillAffinityMenu(menu, state, {});
    return Describe(menu);
}

TEST(ProcessAffinityMenuTest, ServesUpToSixtyFourProcessors) {
    EXPECT_EQ(AffinityLines({65, true, ~std::uint64_t{0}, false, true}),
              QStringList{QStringLiteral("Unavailable on systems with more than 64 processors [disabled]")});
    EXPECT_EQ(AffinityLines({0, true, 1, false, true}),
              QStringList{QStringLiteral("Unavailable on systems with more than 64 processors [disabled]")});

    const QStringList all = AffinityLines({64, true, ~std::uint64_t{0}, false, true});
    ASSERT_EQ(all.size(), 2 + 64);
    EXPECT_EQ(all.front(), QStringLiteral("All processors [x]"));
    EXPECT_EQ(all.back(), QStringLiteral("CPU 63 [x]"));

    const QStringList some = AffinityLines({64, true, std::uint64_t{1} << 63, false, true});
    EXPECT_EQ(some.front(), QStringLiteral("All processors [ ]"));
    EXPECT_EQ(some.at(2), QStringLiteral("CPU 0 [ ]"));
    EXPECT_EQ(some.back(), QStringLiteral("CPU 63 [x]"));
}

TEST(ProcessAffinityMenuTest, DifferingThreadsAndUnusableStatesAreShown) {
    EXPECT_EQ(AffinityLines({2, true, 0b11, true, true}),
              (QStringList{QStringLiteral("Threads differ; showing their combined affinity [disabled]"),
                           QStringLiteral("---"), QStringLiteral("All processors [x]"), QStringLiteral("---"),
                           QStringLiteral("CPU 0 [x]"), QStringLiteral("CPU 1 [x]")}));
    EXPECT_EQ(AffinityLines({2, false, 0b11, false, true}),
              (QStringList{QStringLiteral("All processors [disabled] [ ]"), QStringLiteral("---"),
                           QStringLiteral("CPU 0 [disabled] [ ]"), QStringLiteral("CPU 1 [disabled] [ ]")}));
    EXPECT_EQ(AffinityLines({2, true, 0b01, false, false}),
              (QStringList{QStringLiteral("All processors [disabled] [ ]"), QStringLiteral("---"),
                           QStringLiteral("CPU 0 [disabled] [x]"), QStringLiteral("CPU 1 [disabled] [ ]")}));
}

TEST(ProcessAffinityMenuTest, MasksFromAClick) {
    EXPECT_EQ(AllProcessorsMask(64), ~std::uint64_t{0});
    EXPECT_EQ(AllProcessorsMask(63), ~std::uint64_t{0} >> 1);
    EXPECT_EQ(AllProcessorsMask(1), 1u);
    EXPECT_EQ(AllProcessorsMask(0), 0u);
    EXPECT_EQ(AllProcessorsMask(65), 0u);

    EXPECT_EQ(ToggleAffinityProcessor(0b01, 1, 2).mask, 0b11u);
    EXPECT_EQ(ToggleAffinityProcessor(0b11, 0, 2).mask, 0b10u);
    EXPECT_EQ(ToggleAffinityProcessor(~std::uint64_t{0}, 63, 64).mask, ~std::uint64_t{0} >> 1);
    EXPECT_EQ(ToggleAffinityProcessor(0, 63, 64).mask, std::uint64_t{1} << 63);

    const AffinityToggle last = ToggleAffinityProcessor(0b10, 1, 2);
    EXPECT_FALSE(last.mask);
    EXPECT_EQ(last.refusal, QStringLiteral("At least one processor must remain selected"));
    EXPECT_FALSE(ToggleAffinityProcessor(0b11, 2, 2).mask);
}

class ProcessMenuChoiceTest : public ::testing::Test {
protected:
    ProcessMenuChoiceTest() {
        PageEnvironment environment;
        environment.settings = &settings;
        environment.settingsChanged = [this] { ++settingsChanges; };
        actions = std::make_unique<ProcessPageActions>(environment, nullptr);
        ProcessPageHooks hooks;
        hooks.setFollowedKey = [this](std::optional<core::ProcessKey> key) { followed.push_back(key); };
        hooks.expandAll = [this] { ++expansions; };
        actions->SetPageHooks(hooks);
    }

    core::Settings settings;
    int settingsChanges = 0;
    int expansions = 0;
    std::vector<std::optional<core::ProcessKey>> followed;
    std::unique_ptr<ProcessPageActions> actions;
};

TEST_F(ProcessMenuChoiceTest, ViewEntriesWriteTheirSettings) {
    ProcessMenuContext context = actions->MenuContext({Row(42, "editor")}, false, false);
    EXPECT_TRUE(context.processTree);
    EXPECT_FALSE(context.showMemoryPercent);
    EXPECT_FALSE(context.backendUsable) << "no services, no actions";

    actions->RunMenuChoice({ProcessMenuCommand::toggleProcessTree}, context);
    actions->RunMenuChoice({ProcessMenuCommand::toggleShowExited}, context);
    actions->RunMenuChoice({ProcessMenuCommand::showPercents}, context);
    actions->RunMenuChoice({ProcessMenuCommand::showValues}, context);  // already shown: no change
    EXPECT_EQ(settingsChanges, 3);

    context = actions->MenuContext({Row(42, "editor")}, false, false);
    EXPECT_FALSE(context.processTree);
    EXPECT_FALSE(context.showExited);
    EXPECT_TRUE(context.smoothCpu);
    EXPECT_TRUE(context.showMemoryPercent);
}

TEST_F(ProcessMenuChoiceTest, FollowCopyAndExpandReachThePage) {
    ProcessMenuContext context = actions->MenuContext({Row(42, "editor"), Row(7, "a b")}, false, false);
    actions->RunMenuChoice({ProcessMenuCommand::toggleFollow}, context);
    context.followed = true;
    actions->RunMenuChoice({ProcessMenuCommand::toggleFollow}, context);
    ASSERT_EQ(followed.size(), 2u);
    EXPECT_EQ(followed[0], (core::ProcessKey{42, 1042}));
    EXPECT_EQ(followed[1], std::nullopt);

    actions->RunMenuChoice({ProcessMenuCommand::copyName}, context);
    EXPECT_EQ(QApplication::clipboard()->text(), QStringLiteral("editor (42)\na b (7)"));

    actions->RunMenuChoice({ProcessMenuCommand::expandAll}, context);
    actions->RunMenuChoice({ProcessMenuCommand::collapseAll}, context);  // no hook: nothing happens
    EXPECT_EQ(expansions, 1);
}

TEST(ProcessPageLinksTest, SearchAndFileLocation) {
    const QUrl search = SearchOnlineUrl(QStringLiteral("a b&c/ü"));
    EXPECT_EQ(search.scheme(), QStringLiteral("https"));
    EXPECT_EQ(search.path(), QStringLiteral("/search"));
    EXPECT_EQ(QUrlQuery(search).queryItemValue(QStringLiteral("q"), QUrl::FullyDecoded), QStringLiteral("a b&c/ü"));
    EXPECT_TRUE(search.toString(QUrl::FullyEncoded).endsWith(QStringLiteral("/search?q=a%20b%26c%2F%C3%BC")));

    EXPECT_EQ(FileLocationUrl(QStringLiteral("/usr/bin/sleep")), QUrl::fromLocalFile(QStringLiteral("/usr/bin")));
    EXPECT_FALSE(FileLocationUrl(QString()));
}

TEST(RunNewTaskTest, TheTypedLineIsSplitIntoProgramAndArguments) {
    struct Case {
        QString text;
        std::optional<QString> program;
        QStringList arguments;
    };
    const std::vector<Case> table = {
        {QStringLiteral("  gedit  "), QStringLiteral("gedit"), {}},
        {QStringLiteral("xterm -e \"top -d 1\""), QStringLiteral("xterm"), {QStringLiteral("-e"), QStringLiteral("top -d 1")}},
        {QStringLiteral("\"/opt/My App/run\" --x"), QStringLiteral("/opt/My App/run"), {QStringLiteral("--x")}},
        {QStringLiteral("   "), std::nullopt, {}},
        {QString(), std::nullopt, {}},
    };
    for (const Case& c : table) {
        const std::optional<RunTaskCommand> command = ParseRunTaskText(c.text);
        ASSERT_EQ(command.has_value(), c.program.has_value()) << c.text.toStdString();
        if (!command) continue;
        EXPECT_EQ(command->program, *c.program);
        EXPECT_EQ(command->arguments, c.arguments);
    }
    EXPECT_FALSE(StartRunTask({QStringLiteral("/nonexistent/korv-no-such-program"), {}}));
    EXPECT_EQ(RunTaskFailureText(QStringLiteral("nosuch")), QStringLiteral("Could not run \"nosuch\"."));
}

}  // namespace
}  // namespace korv::host::linux_client
