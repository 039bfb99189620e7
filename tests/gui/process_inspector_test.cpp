#include "host/linux_client/process_environment_widget.h"
#include "host/linux_client/process_inspector_dialog.h"
#include "host/linux_client/process_page_actions.h"
#include "host/linux_client/unit_formats.h"
#include "process_test_child.h"
#include "providers/bounded_read.h"
#include "providers/platform_services.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QElapsedTimer>
#include <QLabel>
#include <QSignalSpy>
#include <QTest>

#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <future>
#include <mutex>
#include <thread>
#include <sys/socket.h>

namespace korv::host::linux_client {
namespace {

constexpr int kWaitMs = 30000;

// A child that runs `/bin/sleep 1000` with a known environment and three descriptors: a file, a
// pipe and a socket.
std::unique_ptr<test::TestChild> SleepingChild() {
    auto child = std::make_unique<test::TestChild>([] {
        const int devNull = ::open("/dev/null", O_RDONLY);
        int pipeFds[2];
        int socketFds[2];
        if (devNull < 0 || ::pipe(pipeFds) != 0 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, socketFds) != 0) ::_exit(126);
        ::dup2(devNull, 0);
        ::dup2(pipeFds[1], 1);
        ::dup2(socketFds[0], 2);
        ::syscall(SYS_close_range, 3U, ~0U, 0U);
        char program[] = "/bin/sleep";
        char duration[] = "1000";
        char marker[] = "KORV_INSPECTOR_TEST=Hello World";
        char path[] = "PATH=/usr/bin:/bin";
        char* argv[] = {program, duration, nullptr};
        char* envp[] = {marker, path, nullptr};
        ::execve(program, argv, envp);
        ::_exit(127);
    });
    // The details are those of sleep only once the exec is done.
    const std::string cmdline = "/proc/" + std::to_string(child->Pid()) + "/cmdline";
    const bool execed = QTest::qWaitFor(
        [&] {
            std::string text;
            return providers::ReadFileBounded(cmdline.c_str(), 4096, text) == 0 && text.starts_with("/bin/sleep");
        },
        kWaitMs);
    EXPECT_TRUE(execed) << "the child did not exec /bin/sleep";
    return child;
}

ProcessInspectorInput InputFor(const core::ProcessKey& key) {
    ProcessInspectorInput input;
    input.key = key;
    core::ProcessSnapshot row;
    row.key = key;
    row.name = "sleep";
    row.state = core::ProcessState::sleeping;
    row.cpuPercent.Set(1.5);
    row.workingSetBytes.Set(3u << 20);
    row.threadCount.Set(1);
    row.architecture = core::ProcessArchitecture::x64;
    row.privateBytes.Set(1u << 20);
    input.row = row;
    input.session = QStringLiteral("seat0 session 2");
    return input;
}

class ProcessInspectorTest : public ::testing::Test {
protected:
    void SetUp() override { services = providers::CreatePlatformServices(); }

    ProcessInspectorDialog::DetailsReader RealReader() {
        return [platform = services.get()](const core::ProcessKey& key, std::stop_token stop) {
            return platform->ProcessDetailsUntil(key, std::move(stop));
        };
    }

    std::unique_ptr<providers::PlatformServices> services;
    core::Settings settings;
    int settingsChanges = 0;
};

TEST_F(ProcessInspectorTest, ShowsARealChildsDetailsWithoutFlashingLoading) {
    const auto child = SleepingChild();
    ASSERT_TRUE(child->Started());
    QElapsedTimer clock;
    clock.start();
    ProcessInspectorDialog dialog(InputFor(child->Key()), RealReader(), &settings, {});
    auto* loading = dialog.findChild<QLabel*>(QStringLiteral("InspectorLoading"));
    ASSERT_NE(loading, nullptr);
    int loadingShows = 0;
    struct ShowCounter : QObject {
        int* count;
        explicit ShowCounter(int* c) : count(c) {}
        bool eventFilter(QObject*, QEvent* event) override {
            if (event->type() == QEvent::Show) ++*count;
            return false;
        }
    } counter(&loadingShows);
    loading->installEventFilter(&counter);
    dialog.show();

    ASSERT_TRUE(QTest::qWaitFor([&] { return !dialog.IsLoading(); }, kWaitMs));
    const qint64 readMs = clock.elapsed();
    ASSERT_NE(dialog.Details(), nullptr);
    EXPECT_EQ(dialog.HeaderText(), QStringLiteral("sleep (%1)").arg(child->Pid()));
    EXPECT_EQ(dialog.MessageText(), QString());
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Status")), QStringLiteral("Sleeping"));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("CPU")), FormatPercent(1.5));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Memory")), FormatBytes(3u << 20));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Threads")), QStringLiteral("1"));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Architecture")), QStringLiteral("x64"));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Category")), QStringLiteral("Background processes"));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Session")), QStringLiteral("seat0 session 2"));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Private memory")), FormatBytes(1u << 20));
    EXPECT_FALSE(dialog.SummaryValue(QStringLiteral("Page faults"))) << "a value the row lacks has no row";
    EXPECT_EQ(dialog.CommandLineText(), QStringLiteral("/bin/sleep 1000"));

    EXPECT_EQ(dialog.DescriptorGroupTitles(), (QStringList{QStringLiteral("Files (1)"), QStringLiteral("Sockets (1)"),
                                                           QStringLiteral("Pipes (1)"), QStringLiteral("Other (0)")}));
    EXPECT_EQ(dialog.DescriptorEntries(0), QStringList{QStringLiteral("0\t/dev/null")});
    ASSERT_EQ(dialog.DescriptorEntries(1).size(), 1);
    EXPECT_TRUE(dialog.DescriptorEntries(1).front().startsWith(QStringLiteral("2\tsocket (inode ")));
    EXPECT_TRUE(dialog.DescriptorEntries(2).front().startsWith(QStringLiteral("1\tpipe (inode ")));
    EXPECT_EQ(dialog.DescriptorEntries(3), QStringList{QStringLiteral("None")});

    ProcessEnvironmentWidget& environment = dialog.Environment();
    EXPECT_EQ(environment.VisibleRowCount(), 2);
    for (const QString& filter : {QStringLiteral("korv_inspector"), QStringLiteral("HELLO world")}) {
        environment.SetFilterText(filter);
        ASSERT_EQ(environment.VisibleRowCount(), 1) << filter.toStdString();
        EXPECT_EQ(environment.VisibleEntry(0), QStringLiteral("KORV_INSPECTOR_TEST=Hello World"));
    }
    environment.SelectVisibleRow(0);
    environment.CopySelected();
    EXPECT_EQ(QApplication::clipboard()->text(), QStringLiteral("KORV_INSPECTOR_TEST=Hello World"));
    environment.SetFilterText(QStringLiteral("nothing matches"));
    EXPECT_EQ(environment.VisibleRowCount(), 0);

    if (readMs >= kInspectorLoadingDelayMs) {
        GTEST_SKIP() << "the read took " << readMs << " ms here, too long to tell a flash";
    }
    // Past the moment the timer would have fired: a fast read never shows the line.
    EXPECT_FALSE(QTest::qWaitFor([] { return false; }, 2 * kInspectorLoadingDelayMs));
    EXPECT_EQ(loadingShows, 0);
    EXPECT_FALSE(dialog.LoadingVisible());
}

TEST_F(ProcessInspectorTest, ASlowReadShowsLoadingUntilItEnds) {
    const auto child = SleepingChild();
    ASSERT_TRUE(child->Started());
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::atomic<int> reads = 0;
    auto reader = [opened, &reads, real = RealReader()](const core::ProcessKey& key, std::stop_token stop) {
        ++reads;
        opened.wait_for(test::kChildPatience);
        return real(key, stop);
    };
    struct Opener {
        std::promise<void>& gate;
        bool done = false;
        void Open() {
            if (!done) gate.set_value();
            done = true;
        }
        ~Opener() { Open(); }
    } opener{gate};

    ProcessInspectorDialog dialog(InputFor(child->Key()), reader, nullptr, {});
    QSignalSpy loaded(&dialog, &ProcessInspectorDialog::DetailsLoaded);
    ASSERT_TRUE(QTest::qWaitFor([&] { return dialog.LoadingVisible(); }, kWaitMs));
    EXPECT_TRUE(dialog.IsLoading());

    // A refresh cancels the read that is running: only the newer one reports.
    dialog.Refresh();
    ASSERT_TRUE(QTest::qWaitFor([&] { return reads.load() == 2; }, kWaitMs));
    opener.Open();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !dialog.IsLoading(); }, kWaitMs));
    EXPECT_FALSE(dialog.LoadingVisible());
    ASSERT_NE(dialog.Details(), nullptr);
    EXPECT_EQ(dialog.CommandLineText(), QStringLiteral("/bin/sleep 1000"));
    QCoreApplication::processEvents();
    EXPECT_EQ(loaded.count(), 1);
}

TEST_F(ProcessInspectorTest, AProcessThatEndedSaysSo) {
    test::TestChild child;
    ASSERT_TRUE(child.Started());
    const core::ProcessKey key = child.Key();
    child.KillAndReap();

    ProcessInspectorInput input = InputFor(key);
    input.exited = true;
    ProcessInspectorDialog dialog(input, RealReader(), nullptr, {});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !dialog.IsLoading(); }, kWaitMs));
    EXPECT_EQ(dialog.Details(), nullptr);
    EXPECT_EQ(dialog.MessageText(), QStringLiteral("The process exited before its details could be read."));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Status")), QStringLiteral("Exited"));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("CPU")), FormatPercent(1.5)) << "the last data kept";
}

TEST_F(ProcessInspectorTest, UnreadablePartsShowTheirWord) {
    auto details = std::make_shared<core::ProcessDetails>();
    details->key = {77, 7};
    details->name = "guarded";
    details->commandLineAvailability = core::MetricAvailability::accessDenied;
    details->environmentAvailability = core::MetricAvailability::accessDenied;
    details->descriptorsAvailability = core::MetricAvailability::transientError;
    ProcessInspectorInput input;
    input.key = details->key;

    ProcessInspectorDialog dialog(input, [details](const core::ProcessKey&, std::stop_token) { return details; }, nullptr, {});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !dialog.IsLoading(); }, kWaitMs));
    EXPECT_EQ(dialog.HeaderText(), QStringLiteral("guarded (77)"));
    EXPECT_EQ(dialog.CommandLineText(), QString());
    EXPECT_EQ(dialog.Environment().UnavailableText(), QStringLiteral("Access denied"));
    EXPECT_EQ(dialog.Environment().VisibleRowCount(), 0);
    EXPECT_EQ(dialog.DescriptorGroupTitles(), (QStringList{QStringLiteral("Files"), QStringLiteral("Sockets"),
                                                           QStringLiteral("Pipes"), QStringLiteral("Other")}));
    EXPECT_EQ(dialog.DescriptorEntries(2), QStringList{QStringLiteral("Unavailable")});

    details->descriptorsAvailability = core::MetricAvailability::valid;
    details->descriptors = {{3, "/tmp/a", core::DescriptorKind::file}, {9, "anon_inode:[eventfd]", core::DescriptorKind::other}};
    details->descriptorsNotShown = 5;
    details->environmentAvailability = core::MetricAvailability::valid;
    details->environment = {"A=1", "NOVALUE"};
    dialog.Refresh();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !dialog.IsLoading(); }, kWaitMs));
    EXPECT_EQ(dialog.DescriptorGroupTitles(),
              (QStringList{QStringLiteral("Files (1)"), QStringLiteral("Sockets (0)"), QStringLiteral("Pipes (0)"),
                           QStringLiteral("Other (1)"), QStringLiteral("(5 more open descriptors not shown)")}));
    EXPECT_EQ(dialog.DescriptorEntries(3), QStringList{QStringLiteral("9\tanon_inode:[eventfd]")});
    EXPECT_EQ(dialog.Environment().UnavailableText(), QString());
    EXPECT_EQ(dialog.Environment().VisibleEntry(1), QStringLiteral("NOVALUE="));
}

// A read waits on a slow /proc until it is told to stop: a refresh stops it at once, and a dialog
// that goes hands it to its keeper instead of waiting for it.
TEST_F(ProcessInspectorTest, ARunningReadIsCancelledAndNeverWaitedForOnTheGuiThread) {
    std::atomic<int> reads = 0;
    std::atomic<int> stoppedEarly = 0;
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    const auto reader = [&reads, &stoppedEarly, opened](const core::ProcessKey&, std::stop_token stop) {
        ++reads;
        std::mutex mutex;
        std::condition_variable_any woken;
        std::unique_lock lock(mutex);
        // Either the test opens the gate or the read is told to stop; at most a few seconds.
        const bool stopped = woken.wait_for(lock, stop, std::chrono::seconds(5), [&] {
            return opened.wait_for(std::chrono::milliseconds(0)) == std::future_status::ready;
        }) == false && stop.stop_requested();
        if (stopped) ++stoppedEarly;
        return std::shared_ptr<core::ProcessDetails>();
    };
    struct Opener {
        std::promise<void>& gate;
        ~Opener() { gate.set_value(); }
    } opener{gate};

    std::vector<std::jthread> kept;
    auto dialog = std::make_unique<ProcessInspectorDialog>(InputFor({4242, 1}), reader, nullptr, std::function<void()>{});
    dialog->SetWorkerKeeper([&kept](std::shared_ptr<ProcessInspectorState>, std::jthread worker) {
        kept.push_back(std::move(worker));
    });
    ASSERT_TRUE(QTest::qWaitFor([&] { return reads.load() == 1; }, kWaitMs));
    dialog->Refresh();
    ASSERT_TRUE(QTest::qWaitFor([&] { return stoppedEarly.load() == 1; }, 2000)) << "the first read was cancelled";
    ASSERT_TRUE(QTest::qWaitFor([&] { return reads.load() == 2; }, kWaitMs));

    QElapsedTimer clock;
    clock.start();
    dialog.reset();
    EXPECT_LT(clock.elapsed(), 1000) << "the dialog went without waiting for its reader";
    EXPECT_FALSE(kept.empty()) << "the keeper has the reader that was still running";
    ASSERT_TRUE(QTest::qWaitFor([&] { return stoppedEarly.load() == 2; }, 2000)) << "and it was told to stop";
    kept.clear();
}

// "Refresh" shows the summary of the latest sample, not the one the dialog opened with.
TEST_F(ProcessInspectorTest, RefreshShowsTheLatestSummary) {
    ProcessInspectorInput input = InputFor({4242, 1});
    ProcessInspectorDialog dialog(input, [](const core::ProcessKey&, std::stop_token) { return nullptr; }, nullptr, {});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !dialog.IsLoading(); }, kWaitMs));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("CPU")), FormatPercent(1.5));
    dialog.SetRowSource([](const core::ProcessKey& key) -> std::optional<ProcessInspectorInput> {
        ProcessInspectorInput latest = InputFor(key);
        latest.row->cpuPercent.Set(42.0);
        latest.row->threadCount.Set(9);
        latest.row->state = core::ProcessState::running;
        return latest;
    });
    dialog.Refresh();
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("CPU")), FormatPercent(42.0));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Threads")), QStringLiteral("9"));
    EXPECT_EQ(dialog.SummaryValue(QStringLiteral("Status")), QStringLiteral("Running"));
}

// A row the table keeps after its process left the samples opens with what the table kept, not empty.
TEST_F(ProcessInspectorTest, AnExitedRowTheSampleNoLongerHoldsOpensWithWhatTheTableKept) {
    PageEnvironment environment;
    environment.services = services.get();
    ProcessPageActions actions(environment, nullptr);
    auto snapshot = std::make_shared<core::SystemSnapshot>();  // knows nothing of the process
    ProcessPageHooks hooks;
    hooks.currentSnapshot = [snapshot] { return snapshot.get(); };
    actions.SetPageHooks(hooks);
    const ProcessInspectorInput kept = InputFor({4243, 5});
    actions.ShowProcessDetails(kept.key, &*kept.row, true);
    ASSERT_EQ(actions.OpenInspectorCount(), 1U);
    ProcessInspectorDialog* dialog = nullptr;
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* found = qobject_cast<ProcessInspectorDialog*>(widget); found && found->Key() == kept.key) dialog = found;
    }
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(dialog->HeaderText(), QStringLiteral("sleep (4243)"));
    EXPECT_EQ(dialog->SummaryValue(QStringLiteral("Status")), QStringLiteral("Exited"));
    EXPECT_EQ(dialog->SummaryValue(QStringLiteral("CPU")), FormatPercent(1.5));
    actions.Shutdown();
}

TEST_F(ProcessInspectorTest, TheSizeIsKeptInTheSettings) {
    const QRect screen(0, 0, 1280, 800);
    struct Case {
        const char* width;
        const char* height;
        QSize expected;
    };
    const std::vector<Case> table = {
        {nullptr, nullptr, {kInspectorDefaultWidth, kInspectorDefaultHeight}},
        {"700", "500", {700, 500}},
        {"5000", "5000", {1280, 800}},
        {"100", "100", {kInspectorMinimumWidth, kInspectorMinimumHeight}},
        {"wide", "-3", {kInspectorDefaultWidth, kInspectorDefaultHeight}},
    };
    for (const Case& c : table) {
        core::Settings stored;
        if (c.width) core::WriteStringPreference(stored, "processInspectorWidthDips", c.width);
        if (c.height) core::WriteStringPreference(stored, "processInspectorHeightDips", c.height);
        EXPECT_EQ(InspectorSizeFromSettings(stored, screen), c.expected) << (c.width ? c.width : "default");
    }
    EXPECT_EQ(InspectorSizeFromSettings(core::Settings{}, QRect(0, 0, 300, 300)),
              QSize(kInspectorMinimumWidth, kInspectorMinimumHeight));

    ProcessInspectorInput input;
    input.key = {1, 1};
    ProcessInspectorDialog dialog(input, {}, &settings, [this] { ++settingsChanges; });
    EXPECT_EQ(dialog.MessageText(), QStringLiteral("Process details are unavailable."));
    dialog.show();
    dialog.resize(700, 520);
    dialog.reject();
    EXPECT_EQ(core::StringPreference(settings, "processInspectorWidthDips", ""), "700");
    EXPECT_EQ(core::StringPreference(settings, "processInspectorHeightDips", ""), "520");
    EXPECT_EQ(settingsChanges, 1);
}

}  // namespace
}  // namespace korv::host::linux_client
