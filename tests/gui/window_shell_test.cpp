#include "host/linux_client/history_store.h"
#include "host/linux_client/settings_saver.h"
#include "host/linux_client/snapshot_apply_plan.h"
#include "host/linux_client/status_bar_widget.h"
#include "host/linux_client/task_manager_window.h"
#include "tests/gui/private_home_test.h"
#include "tests/gui/window_test_support.h"

#include <gtest/gtest.h>

#include <ostream>

#include <QAction>
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QTest>
#include <QTextDocument>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

namespace korv::host::linux_client {
namespace {

using test::CoherentSnapshot;
using test::ScriptedServices;
using test::ScriptedSource;

constexpr int kWaitMs = 10000;

class WindowTest : public test::PrivateHomeTest {
protected:
    static core::SettingsLoadResult Paused() {
        core::SettingsLoadResult loaded;
        loaded.settings.updateSpeed = core::UpdateSpeed::paused;
        return loaded;
    }

    // A window whose every snapshot comes from the script; the engine is paused, so samples come
    // only when the window or the test asks for one.
    static std::unique_ptr<TaskManagerWindow> MakeWindow(ScriptedSource::Script script,
                                                         core::SettingsLoadResult loaded = Paused()) {
        return std::make_unique<TaskManagerWindow>(
            SmokeOptions{}, std::move(loaded),
            [script = std::move(script)] { return std::make_unique<ScriptedServices>(script); });
    }

    static QString PlainText(const QString& html) {
        QTextDocument document;
        document.setHtml(html);
        return document.toPlainText();
    }
};

TEST_F(WindowTest, RailListsTheFifteenPagesInStackOrder) {
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); });
    auto* list = window->findChild<QListWidget*>(QStringLiteral("NavigationList"));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->accessibleName(), QStringLiteral("Task Manager pages"));
    const QStringList expected = {"Summary",     "Performance",     "Processes",   "System Info",    "Startup apps",
                                  "Users",       "Services",        "Power & Freq", "Flight Recorder", "Connections",
                                  "Installed Apps", "Drivers",      "Disk Space",  "Benchmarks",     "Settings"};
    ASSERT_EQ(list->count(), expected.size());
    for (int row = 0; row < list->count(); ++row) {
        EXPECT_EQ(list->item(row)->text(), expected[row]) << row;
    }

    // A page not built yet shows its title and nothing else.
    auto* stack = window->findChild<QStackedWidget*>(QStringLiteral("PageStack"));
    ASSERT_NE(stack, nullptr);
    ASSERT_EQ(stack->count(), 15);
    for (int index = 0; index < stack->count(); ++index) {
        if (stack->widget(index)->inherits("korv::host::linux_client::SnapshotPage")) continue;
        const QList<QLabel*> labels = stack->widget(index)->findChildren<QLabel*>();
        ASSERT_EQ(labels.size(), 1) << index;
        EXPECT_EQ(labels.front()->text(), expected[index]);
    }
}

TEST_F(WindowTest, ShellWidgetsCarryTheirObjectNamesAndTexts) {
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); });
    for (const char* name : {"NavigationRail", "NavigationList", "Divider", "SidebarFooter", "CommandBar", "StatusBar"}) {
        EXPECT_NE(window->findChild<QWidget*>(QLatin1String(name)), nullptr) << name;
    }
    auto* footer = window->findChild<QWidget*>(QStringLiteral("SidebarFooter"));
    ASSERT_NE(footer, nullptr);
    auto* settings = footer->findChild<QPushButton*>(QStringLiteral("SettingsButton"));
    auto* colors = footer->findChild<QPushButton*>(QStringLiteral("ColorsButton"));
    ASSERT_NE(settings, nullptr);
    ASSERT_NE(colors, nullptr);
    EXPECT_EQ(settings->text(), QStringLiteral("&Settings"));
    EXPECT_EQ(colors->text(), QStringLiteral("&Colors"));

    auto* bar = window->findChild<QWidget*>(QStringLiteral("CommandBar"));
    ASSERT_NE(bar, nullptr);
    auto* filter = bar->findChild<QLineEdit*>();
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(filter->accessibleName(), QStringLiteral("Filter current table"));
    EXPECT_EQ(filter->placeholderText(), QStringLiteral("Filter by name, user, or PID"));
    QStringList buttonTexts;
    for (auto* button : bar->findChildren<QAbstractButton*>(QString(), Qt::FindDirectChildrenOnly)) {
        buttonTexts << (button->text().isEmpty() ? button->toolTip() : button->text());
    }
    EXPECT_EQ(buttonTexts, (QStringList{"Hide sidebar", "Process &View", "Run &new task", "&Refresh"}));
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Task Manager KORV"));
    EXPECT_EQ(window->statusBar()->objectName(), QStringLiteral("StatusBar"));
}

// An entry's enabled state is pinned only where its feature is built; the others come with theirs.
struct MenuEntry {
    QString text;
    QString shortcut;
    std::optional<bool> enabled;
};

QList<MenuEntry> Entries(const QMenu* menu) {
    QList<MenuEntry> entries;
    for (const QAction* action : menu->actions()) {
        if (!action->isSeparator()) {
            entries.push_back({action->text(), action->shortcut().toString(QKeySequence::PortableText),
                               std::optional<bool>(action->isEnabled())});
        }
    }
    return entries;
}

QMenu* MenuTitled(TaskManagerWindow& window, const QString& title) {
    for (QAction* action : window.menuBar()->actions()) {
        if (action->text() == title) {
            return action->menu();
        }
    }
    return nullptr;
}

void ExpectEntries(const QMenu* menu, const QList<MenuEntry>& expected) {
    ASSERT_NE(menu, nullptr);
    const QList<MenuEntry> actual = Entries(menu);
    ASSERT_EQ(actual.size(), expected.size()) << menu->title().toStdString();
    for (qsizetype i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(actual[i].text, expected[i].text);
        EXPECT_EQ(actual[i].shortcut, expected[i].shortcut) << expected[i].text.toStdString();
        if (expected[i].enabled) {
            EXPECT_EQ(actual[i].enabled, expected[i].enabled) << expected[i].text.toStdString();
        }
    }
}

TEST_F(WindowTest, MenusHoldEveryEntryWithAccelerators) {
    constexpr std::optional<bool> later;  // a feature still to come
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); });
    QStringList titles;
    for (QAction* action : window->menuBar()->actions()) {
        titles << action->text();
    }
    EXPECT_EQ(titles, (QStringList{"&File", "&Edit", "&View", "&Performance", "&Benchmarks", "&Disk Space", "&Help"}));

    ExpectEntries(MenuTitled(*window, "&File"), {{"Run &new task…", "Ctrl+N", true},
                                                 {"New &Video Recording…", "Ctrl+Shift+N", later},
                                                 {"E&xit", "Ctrl+Q", true}});
    ExpectEntries(MenuTitled(*window, "&Edit"), {{"&Find", "", true}});
    ExpectEntries(MenuTitled(*window, "&View"),
                  {{"Summary", "Ctrl+1", true},
                   {"Performance", "Ctrl+2", true},
                   {"Processes", "Ctrl+3", true},
                   {"System Info", "Ctrl+4", true},
                   {"Startup apps", "Ctrl+5", true},
                   {"Users", "Ctrl+6", true},
                   {"Services", "Ctrl+7", true},
                   {"Power && Freq", "Ctrl+8", true},
                   {"Flight Recorder", "Ctrl+9", true},
                   {"Connections", "", true},
                   {"Installed Apps", "", true},
                   {"Drivers", "", true},
                   {"Disk Space", "", true},
                   {"Benchmarks", "", true},
                   {"Se&ttings", "Ctrl+0", true},
                   {"Pre&vious Page", "", true},
                   {"Ne&xt Page", "", true},
                   {"Show Combined &Disks", "", true},
                   {"Show Combined &Network", "", true},
                   {"Show Combined &GPUs", "", true},
                   {"Disk &Light Settings…", "", later},
                   {"&Hide Sidebar", "Ctrl+Shift+S", true},
                   {"Hide Status &Bar", "", true},
                   {"&Full Screen", "", true},
                   {"Displa&y Color", "", true},
                   {"&Popout", "", true}});
    QMenu* view = MenuTitled(*window, "&View");
    QMenu* display = view->findChild<QMenu*>(QStringLiteral("DisplayColorMenu"));
    ExpectEntries(display, {{"Color", "", true}, {"Mono", "", true}, {"Green", "", true}, {"Amber", "", true},
                            {"Blue", "", true}});
    QMenu* popout = view->findChild<QMenu*>(QStringLiteral("PopoutMenu"));
    ExpectEntries(popout, {{"Off", "", later}, {"Desktop", "", later}, {"Topmost", "", later}, {"Floating", "", later}});
    QStringList tips;
    for (const QAction* action : popout->actions()) {
        tips << action->toolTip();
    }
    EXPECT_EQ(tips, (QStringList{"Hide the popout", "Park the popout on the desktop, behind every window",
                                 "Keep the popout above every other window",
                                 "Show the popout as an ordinary floating window"}));
    ExpectEntries(MenuTitled(*window, "&Help"), {{"Check for &Updates…", "", later},
                                                 {"&Provide Feedback…", "", later},
                                                 {"Pri&vacy Promise…", "", later},
                                                 {"&About Task Manager KORV…", "", true}});
}

TEST_F(WindowTest, PageActionsRailAndStepsSelectTheSamePlace) {
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); });
    auto* list = window->findChild<QListWidget*>(QStringLiteral("NavigationList"));
    QMenu* view = MenuTitled(*window, "&View");
    ASSERT_NE(view, nullptr);
    const QList<QAction*> actions = view->actions();

    actions[2]->trigger();  // Processes
    EXPECT_EQ(window->CurrentStackIndex(), 2);
    EXPECT_EQ(list->currentRow(), 2);

    list->setCurrentRow(6);  // Services, as a click on the rail
    EXPECT_EQ(window->CurrentStackIndex(), 6);
    EXPECT_TRUE(actions[6]->isChecked());

    QAction* previous = nullptr;
    QAction* next = nullptr;
    for (QAction* action : actions) {
        if (action->text() == QStringLiteral("Pre&vious Page")) previous = action;
        if (action->text() == QStringLiteral("Ne&xt Page")) next = action;
    }
    ASSERT_NE(previous, nullptr);
    ASSERT_NE(next, nullptr);
    window->SelectStackIndex(14);
    next->trigger();
    EXPECT_EQ(window->CurrentStackIndex(), 0);  // wraps round
    previous->trigger();
    EXPECT_EQ(window->CurrentStackIndex(), 14);

    window->SelectStackIndex(15);  // no such place
    EXPECT_EQ(window->CurrentStackIndex(), 14);
    window->findChild<QPushButton*>(QStringLiteral("SettingsButton"))->click();
    EXPECT_EQ(window->CurrentStackIndex(), 14);
}

TEST_F(WindowTest, DefaultPageSettingOpensItsPlace) {
    core::SettingsLoadResult loaded = Paused();
    loaded.settings.defaultPage = core::DefaultPage::services;
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); }, loaded);
    EXPECT_EQ(window->CurrentStackIndex(), 6);
}

// A source that holds its first tick until the test lets it go, and reports when it is inside.
struct GatedScript {
    std::mutex mutex;
    std::condition_variable changed;
    bool released = false;
    std::atomic<bool> entered{false};

    std::shared_ptr<core::SystemSnapshot> Collect(const core::SampleRequest& request) {
        entered = true;
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return released || request.stopState.stop_requested(); });
        return CoherentSnapshot(request.sequence);
    }
    void Release() {
        const std::lock_guard lock(mutex);
        released = true;
        changed.notify_all();
    }
};

TEST_F(WindowTest, StatusSaysWaitingUntilTheFirstSnapshotArrives) {
    auto gate = std::make_shared<GatedScript>();
    auto window = MakeWindow([gate](const core::SampleRequest& r) { return gate->Collect(r); });
    auto* status = window->findChild<StatusBarWidget*>();
    ASSERT_NE(status, nullptr);
    ASSERT_TRUE(QTest::qWaitFor([&] { return gate->entered.load(); }, kWaitMs));
    EXPECT_EQ(status->ProviderText(), QStringLiteral("Waiting for Linux providers"));
    EXPECT_EQ(PlainText(status->StatusLabel()->text()), QStringLiteral("Waiting for Linux providers"));
    gate->Release();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() == 1; }, kWaitMs));
    EXPECT_EQ(status->ProviderText(), QStringLiteral("Native providers healthy"));
}

TEST_F(WindowTest, AProviderThatCannotBeMadeLeavesTheWindowOpenWithItsStatus) {
    auto window = std::make_unique<TaskManagerWindow>(SmokeOptions{}, Paused(), []() -> std::unique_ptr<providers::PlatformServices> {
        throw std::runtime_error("no procfs");
    });
    auto* status = window->findChild<StatusBarWidget*>();
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(PlainText(status->StatusLabel()->text()), QStringLiteral("Linux provider unavailable"));
    window->RequestSample();  // no engine: nothing happens, nothing breaks
    window->close();
}

struct HealthCase {
    const char* name;
    std::vector<core::ProviderHealth> states;
    const char* text;
    StatusSeverity severity;
};

// Names the case in test listings instead of its bytes.
void PrintTo(const HealthCase& c, std::ostream* out) {
    *out << c.name;
}

class StatusHealthTest : public WindowTest, public ::testing::WithParamInterface<HealthCase> {};

TEST_P(StatusHealthTest, ShowsTheHealthLinkCountsGenerationAndAddress) {
    const HealthCase& c = GetParam();
    auto window = MakeWindow([states = c.states](const core::SampleRequest& r) {
        auto snapshot = CoherentSnapshot(r.sequence);
        snapshot->providers.clear();
        int index = 0;
        for (const auto state : states) {
            core::ProviderHealthRecord row;
            row.provider = "provider-" + std::to_string(index++);
            row.state = state;
            snapshot->providers.push_back(row);
        }
        core::DeviceSnapshot network;
        network.kind = core::DeviceKind::network;
        network.id = "eth0";
        network.network.ipv4Addresses.Set("192.0.2.7/24, 198.51.100.1", r.sequence);
        snapshot->devices.push_back(network);
        return snapshot;
    });
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() == 1; }, kWaitMs));
    auto* status = window->findChild<StatusBarWidget*>();
    EXPECT_EQ(status->ProviderText(), QString::fromUtf8(c.text));
    const QString html = status->StatusLabel()->text();
    EXPECT_TRUE(html.contains(QStringLiteral("href=\"provider-diagnostics\""))) << html.toStdString();
    EXPECT_TRUE(html.contains(SeverityColor(CurrentShellColors(), c.severity).name())) << html.toStdString();
    EXPECT_EQ(PlainText(html), QStringLiteral("%1 • 1 processes • Generation %2 • IP 192.0.2.7")
                                   .arg(QString::fromUtf8(c.text))
                                   .arg(window->LastGeneration()));
    EXPECT_TRUE(status->StatusLabel()->toolTip().startsWith(QStringLiteral("Open Provider Diagnostics: ")));

    // The link opens Provider Diagnostics on the System Info page.
    emit status->StatusLabel()->linkActivated(QStringLiteral("provider-diagnostics"));
    EXPECT_EQ(window->CurrentStackIndex(), 3);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, StatusHealthTest,
    ::testing::Values(
        HealthCase{"Healthy", {core::ProviderHealth::healthy}, "Native providers healthy", StatusSeverity::healthy},
        HealthCase{"OneDegraded",
                   {core::ProviderHealth::healthy, core::ProviderHealth::degraded},
                   "1 provider(s) degraded",
                   StatusSeverity::degraded},
        HealthCase{"RestartingCountsAsDegraded",
                   {core::ProviderHealth::restarting, core::ProviderHealth::degraded},
                   "2 provider(s) degraded",
                   StatusSeverity::degraded},
        HealthCase{"UnavailableWinsOverDegraded",
                   {core::ProviderHealth::degraded, core::ProviderHealth::unavailable,
                    core::ProviderHealth::unavailable},
                   "2 provider(s) unavailable",
                   StatusSeverity::unavailable}),
    [](const ::testing::TestParamInfo<HealthCase>& param) { return std::string(param.param.name); });

TEST(ProviderSummary, ListsTheAffectedRowsForTheToolTip) {
    core::ProviderHealthRecord cpu;
    cpu.provider = "cpu";
    core::ProviderHealthRecord disk;
    disk.provider = "disk";
    disk.state = core::ProviderHealth::degraded;
    const ProviderHealthSummary summary = SummarizeProviders({cpu, disk});
    EXPECT_EQ(summary.degraded, 1);
    EXPECT_EQ(summary.unavailable, 0);
    EXPECT_EQ(summary.details, QStringLiteral("disk (degraded)"));
    EXPECT_EQ(SummarizeProviders({cpu}).details, QStringLiteral("Native providers healthy"));
}

TEST(ProviderSummary, AddressIsTheFirstOfTheFirstNetworkDeviceThatHasOne) {
    core::SystemSnapshot snapshot;
    EXPECT_FALSE(PrimaryIpAddress(snapshot).has_value());
    core::DeviceSnapshot down;
    down.kind = core::DeviceKind::network;
    down.network.ipv4Addresses.availability = core::MetricAvailability::notApplicable;
    core::DeviceSnapshot up;
    up.kind = core::DeviceKind::network;
    up.network.ipv4Addresses.Set("10.1.2.3 10.1.2.4", 1);
    snapshot.devices = {down, up};
    EXPECT_EQ(PrimaryIpAddress(snapshot), QStringLiteral("10.1.2.3"));
}

TEST_F(WindowTest, PerCoreStatisticsScaleWhatThePagesReadButNotTheSnapshot) {
    core::SettingsLoadResult loaded = Paused();
    loaded.settings.perCoreCpuStatistics = true;
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); }, loaded);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() == 1; }, kWaitMs));
    EXPECT_DOUBLE_EQ(window->CpuScale(), 4.0);
    EXPECT_DOUBLE_EQ(*window->CurrentSnapshot()->processes.front().cpuPercent.value, 12.5);
    EXPECT_DOUBLE_EQ(*window->DisplaySnapshot()->processes.front().cpuPercent.value, 50.0);
}

TEST_F(WindowTest, AMinimizedWindowKeepsHistoryAndSkipsThePages) {
    auto window = MakeWindow([](const core::SampleRequest& r) {
        auto snapshot = CoherentSnapshot(r.sequence);
        snapshot->cpuUtilization.Set(25.0, r.sequence);
        return snapshot;
    });
    window->show();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() == 1; }, kWaitMs));
    EXPECT_TRUE(window->LastApplyPlan().visible);
    EXPECT_TRUE(window->LastApplyPlan().summaryAndProcesses);

    window->showMinimized();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->isMinimized(); }, kWaitMs));
    window->RequestSample();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() == 2; }, kWaitMs));
    EXPECT_FALSE(window->LastApplyPlan().visible);
    EXPECT_FALSE(window->LastApplyPlan().summaryAndProcesses);
    const HistorySeries* cpu = window->History().Find("cpu.total");
    ASSERT_NE(cpu, nullptr);
    EXPECT_EQ(cpu->Size(), 2U);
    window->close();
}

TEST_F(WindowTest, HoldingF5SamplesAsFastAsDeliveryAllows) {
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); });
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() == 1; }, kWaitMs));
    // The engine is paused: only a held key keeps samples coming, one after each delivery.
    QTest::keyPress(window.get(), Qt::Key_F5);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() >= 6; }, kWaitMs));
    QTest::keyRelease(window.get(), Qt::Key_F5);
    window->close();
}

TEST_F(WindowTest, RefreshButtonAsksForASample) {
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); });
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() == 1; }, kWaitMs));
    window->findChild<QPushButton*>(QStringLiteral("RefreshButton"))->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() == 2; }, kWaitMs));
    EXPECT_EQ(window->LastGeneration(), 2U);
}

TEST_F(WindowTest, ClosingWhileASlowTickRunsWaitsForItWithinTheWatchdog) {
    std::atomic<bool> entered{false};
    std::atomic<bool> returned{false};
    // The tick ignores the stop request, as a hung read would; it is shorter than the watchdog's 2 s,
    // which would otherwise end this test process.
    auto window = MakeWindow([&](const core::SampleRequest& r) {
        entered = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(900));
        returned = true;
        return CoherentSnapshot(r.sequence);
    });
    window->show();
    ASSERT_TRUE(QTest::qWaitFor([&] { return entered.load(); }, kWaitMs));
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(window->close());
    const qint64 elapsed = timer.elapsed();
    EXPECT_TRUE(returned.load()) << "the close path must join the engine";
    EXPECT_LT(elapsed, 2000 + 1500);
    // Nothing reaches the closed window, even the snapshot of the tick that was running.
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(window->DeliveredSnapshotCount(), 0U);
    // A second close finds the teardown claimed and runs it no more.
    window->close();
    EXPECT_EQ(window->DeliveredSnapshotCount(), 0U);
}

TEST_F(WindowTest, CloseRemembersTheGeometryOfAShownWindow) {
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); });
    window->show();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->isVisible(); }, kWaitMs));
    window->close();
    const std::string geometry = core::StringPreference(window->CurrentSettings(), "mainWindowGeometry", "");
    ASSERT_FALSE(geometry.empty());
    EXPECT_FALSE(QByteArray::fromBase64(QByteArray::fromStdString(geometry)).isEmpty());
}

TEST_F(WindowTest, DisplayColorMenuSetsTheTintAndThePreference) {
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); });
    QMenu* display = window->findChild<QMenu*>(QStringLiteral("DisplayColorMenu"));
    ASSERT_NE(display, nullptr);
    display->actions()[3]->trigger();  // Amber
    EXPECT_EQ(core::StringPreference(window->CurrentSettings(), "displayMode", ""), "amber");
    const QColor accent = CurrentShellColors().accent;
    EXPECT_GT(accent.red(), accent.blue());
    display->actions()[0]->trigger();
    EXPECT_EQ(core::StringPreference(window->CurrentSettings(), "displayMode", ""), "color");
}

TEST_F(WindowTest, HideStatusBarIsRememberedAndRestored) {
    core::Settings remembered;
    {
        auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); });
        window->show();
        QMenu* view = MenuTitled(*window, "&View");
        for (QAction* action : view->actions()) {
            if (action->text() == QStringLiteral("Hide Status &Bar")) {
                action->trigger();
            }
        }
        EXPECT_TRUE(window->statusBar()->isHidden());
        remembered = window->CurrentSettings();
    }
    EXPECT_EQ(core::StringPreference(remembered, "statusBarVisible", ""), "false");
    core::SettingsLoadResult loaded = Paused();
    loaded.settings = remembered;
    auto again = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); }, loaded);
    again->show();
    EXPECT_TRUE(again->statusBar()->isHidden());
}

TEST_F(WindowTest, ASettingsLoadFailureIsReportedInTheStatusBar) {
    core::SettingsLoadResult loaded = Paused();
    loaded.status = core::SettingsLoadStatus::failed;
    loaded.error = "settings root must be an object";
    auto window = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); }, loaded);
    auto* status = window->findChild<StatusBarWidget*>();
    EXPECT_EQ(status->SettingsLabel()->text(),
              QStringLiteral("Settings could not be loaded: settings root must be an object"));

    loaded.error.clear();
    auto unknown = MakeWindow([](const core::SampleRequest& r) { return CoherentSnapshot(r.sequence); }, loaded);
    EXPECT_EQ(unknown->findChild<StatusBarWidget*>()->SettingsLabel()->text(),
              QStringLiteral("Settings could not be loaded: unknown settings error"));
}

// Which consumers a snapshot reaches.

TEST(SnapshotApplyPlan, VisibilityFollowsSmokePopoutAndWindowState) {
    ApplyContext hidden;
    EXPECT_FALSE(PlanSnapshotApply(hidden).visible);
    ApplyContext shown;
    shown.windowShown = true;
    EXPECT_TRUE(PlanSnapshotApply(shown).visible);
    ApplyContext minimized = shown;
    minimized.windowMinimized = true;
    EXPECT_FALSE(PlanSnapshotApply(minimized).visible);
    ApplyContext smoke = minimized;
    smoke.smokeMode = true;
    EXPECT_TRUE(PlanSnapshotApply(smoke).visible);
    ApplyContext popout = minimized;
    popout.popoutShown = true;
    EXPECT_TRUE(PlanSnapshotApply(popout).visible);
}

TEST(SnapshotApplyPlan, PagesUpdateOnlyWhenTheyCanBeSeen) {
    ApplyContext context;
    context.windowShown = true;
    for (int index = 0; index < 15; ++index) {
        context.currentStackIndex = index;
        const ApplyPlan plan = PlanSnapshotApply(context);
        EXPECT_TRUE(plan.summaryAndProcesses);
        EXPECT_EQ(plan.performance, index == 1) << index;
        EXPECT_EQ(plan.systemInfo, index == 3) << index;
        EXPECT_EQ(plan.startup, index == 4) << index;
        EXPECT_EQ(plan.users, index == 5) << index;
        EXPECT_EQ(plan.services, index == 6) << index;
        EXPECT_EQ(plan.powerAndFreq, index == 7) << index;
        EXPECT_EQ(plan.installedApps, index == 10) << index;
    }
    context.smokeMode = true;
    context.currentStackIndex = 0;
    EXPECT_TRUE(PlanSnapshotApply(context).systemInfo);  // smoke runs feed System Info always

    ApplyContext minimized;
    minimized.windowShown = true;
    minimized.windowMinimized = true;
    minimized.currentStackIndex = 1;
    minimized.popoutHoldsPowerAndFreq = true;
    const ApplyPlan plan = PlanSnapshotApply(minimized);
    EXPECT_FALSE(plan.performance);
    EXPECT_TRUE(plan.powerAndFreq);  // the popout shows it
}

// Settings saves.

TEST(SettingsSaver, SavesACopyOnTheWorkerIntoAFolderItMakes) {
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const std::filesystem::path path = folder.filePath(QStringLiteral("KORV/settings.json")).toStdString();
    core::Settings settings;
    settings.graphPixelsPerUpdate = 9;
    {
        SettingsSaver saver(path);
        saver.Save(settings);
        settings.graphPixelsPerUpdate = 10;  // the saver holds its own copy
    }  // the destructor finishes the queued save
    core::SettingsLoadResult loaded = core::SettingsStore::Load(path);
    EXPECT_EQ(loaded.status, core::SettingsLoadStatus::loaded);
    EXPECT_EQ(loaded.settings.graphPixelsPerUpdate, 9U);

    SettingsSaver saver(path);
    settings.graphPixelsPerUpdate = 11;
    EXPECT_FALSE(saver.SaveAtExit(settings).has_value());
    EXPECT_EQ(core::SettingsStore::Load(path).settings.graphPixelsPerUpdate, 11U);
}

TEST(SettingsSaver, AFailedSaveIsReportedAndLeavesNoFile) {
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    QFile blocker(folder.filePath(QStringLiteral("not-a-folder")));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    const std::filesystem::path path = folder.filePath(QStringLiteral("not-a-folder/settings.json")).toStdString();
    SettingsSaver saver(path);
    QSignalSpy failed(&saver, &SettingsSaver::saveFailed);
    saver.Save(core::Settings{});
    ASSERT_TRUE(QTest::qWaitFor([&] { return failed.count() == 1; }, kWaitMs));
    EXPECT_TRUE(failed.front().front().toString().startsWith(QStringLiteral("Settings could not be saved: ")));
    EXPECT_TRUE(saver.SaveAtExit(core::Settings{}).has_value());
    EXPECT_FALSE(std::filesystem::exists(path));

    SettingsSaver nowhere{std::filesystem::path()};
    EXPECT_FALSE(nowhere.Available());
    EXPECT_EQ(nowhere.SaveAtExit(core::Settings{}), std::string(core::kSettingsPersistenceUnavailable));
}

}  // namespace
}  // namespace korv::host::linux_client
