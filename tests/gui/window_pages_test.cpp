#include "host/linux_client/command_bar.h"
#include "host/linux_client/page_catalog.h"
#include "host/linux_client/performance_page.h"
#include "host/linux_client/process_filter_proxy_model.h"
#include "host/linux_client/process_table_model.h"
#include "host/linux_client/processes_page.h"
#include "host/linux_client/task_manager_window.h"
#include "tests/gui/window_test_support.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <QToolButton>

namespace korv::host::linux_client {
namespace {

using test::CoherentSnapshot;
using test::ScriptedServices;
using test::ScriptedSource;

constexpr int kWaitMs = 10000;

// Two processes, a disk and a network interface, so that the Processes and Performance pages both
// have something to show.
std::shared_ptr<core::SystemSnapshot> MachineSnapshot(std::uint64_t generation) {
    auto snapshot = CoherentSnapshot(generation);
    core::ProcessSnapshot child;
    child.key = core::ProcessKey{4343, 2000};
    child.parentKey = core::ProcessKey{4242, 1000};
    child.name = "helper";
    child.cpuPercent.Set(1.0, generation);
    snapshot->processes.push_back(child);
    snapshot->cpuUtilization.Set(30.0, generation);
    core::DeviceSnapshot disk;
    disk.kind = core::DeviceKind::disk;
    disk.id = "sda";
    disk.displayName = "sda";
    snapshot->devices.push_back(disk);
    core::DeviceSnapshot network;
    network.kind = core::DeviceKind::network;
    network.id = "eth0";
    network.displayName = "eth0";
    snapshot->devices.push_back(network);
    return snapshot;
}

class WindowPagesTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home_.isValid());
        savedHome_ = qgetenv("HOME");
        qputenv("HOME", home_.path().toLocal8Bit());
    }
    void TearDown() override { qputenv("HOME", savedHome_); }

    static std::unique_ptr<TaskManagerWindow> MakeWindow(SmokeOptions options = {}) {
        core::SettingsLoadResult loaded;
        loaded.settings.updateSpeed = core::UpdateSpeed::paused;
        return std::make_unique<TaskManagerWindow>(std::move(options), std::move(loaded), [] {
            return std::make_unique<ScriptedServices>(
                ScriptedSource::Script([](const core::SampleRequest& r) { return MachineSnapshot(r.sequence); }));
        });
    }

    static QMenu* ShowProcessViewMenu(TaskManagerWindow& window) {
        auto* button = window.findChild<QToolButton*>(QStringLiteral("ProcessViewButton"));
        if (button == nullptr) return nullptr;
        QMenu* menu = button->menu();
        // The menu is built as it opens; opening it without a pointer grab is enough.
        emit menu->aboutToShow();
        return menu;
    }

    static QAction* ActionTitled(const QMenu& menu, const QString& text) {
        for (QAction* action : menu.actions()) {
            if (action->text() == text) return action;
        }
        return nullptr;
    }

    QTemporaryDir home_;
    QByteArray savedHome_;
};

TEST_F(WindowPagesTest, TheProcessesPageShowsEverySnapshotAndTheFilterBoxNarrowsIt) {
    auto window = MakeWindow();
    window->show();
    window->SelectStackIndex(kProcessesStackIndex);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() >= 1; }, kWaitMs));
    auto* page = window->findChild<ProcessesPage*>();
    ASSERT_NE(page, nullptr);
    ASSERT_NE(page->CurrentSnapshot(), nullptr);
    EXPECT_EQ(page->Model().LiveRowCount(), 2U);
    EXPECT_TRUE(page->AllRecordsTaken());

    window->findChild<CommandBar*>()->FilterBox()->setText(QStringLiteral("helper"));
    EXPECT_EQ(page->Proxy().FilterText(), QStringLiteral("helper"));
    window->close();
}

TEST_F(WindowPagesTest, ProcessViewMenuChangesThePreferencesThePageReads) {
    auto window = MakeWindow();
    window->show();
    window->SelectStackIndex(kProcessesStackIndex);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() >= 1; }, kWaitMs));
    auto* page = window->findChild<ProcessesPage*>();
    ASSERT_TRUE(page->Model().RollUpEnabled());

    QMenu* menu = ShowProcessViewMenu(*window);
    ASSERT_NE(menu, nullptr);
    QAction* tree = ActionTitled(*menu, QStringLiteral("Process tree"));
    ASSERT_NE(tree, nullptr);
    ASSERT_TRUE(tree->isEnabled());
    ASSERT_TRUE(tree->isChecked());
    tree->trigger();
    EXPECT_FALSE(core::ReadBoolPreference(window->CurrentSettings(), core::kProcessTreeEnabled));
    EXPECT_FALSE(page->Model().RollUpEnabled());

    // Rebuilt on the next opening: it shows the new state, and flat rows cannot be expanded.
    menu = ShowProcessViewMenu(*window);
    EXPECT_FALSE(ActionTitled(*menu, QStringLiteral("Process tree"))->isChecked());
    EXPECT_FALSE(ActionTitled(*menu, QStringLiteral("Expand all"))->isEnabled());

    QAction* smooth = ActionTitled(*menu, QStringLiteral("Smooth CPU readings"));
    ASSERT_NE(smooth, nullptr);
    smooth->trigger();
    EXPECT_FALSE(core::ReadBoolPreference(window->CurrentSettings(), core::kSmoothProcessCpu));
    EXPECT_FALSE(page->Model().SmoothCpu());
    window->close();
}

TEST_F(WindowPagesTest, RunNewTaskIsOfferedOnceTheProcessActionsExist) {
    auto window = MakeWindow();
    auto* bar = window->findChild<CommandBar*>();
    ASSERT_NE(bar, nullptr);
    EXPECT_TRUE(bar->RunNewTaskButton()->isEnabled());
    window->close();
}

TEST_F(WindowPagesTest, PerformancePageListsTheDevicesAndTheCommandLineChoosesOne) {
    SmokeOptions options;
    options.device = core::DeviceKind::network;
    auto window = MakeWindow(options);
    window->show();
    window->SelectStackIndex(kPerformanceStackIndex);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() >= 1; }, kWaitMs));
    auto* page = window->findChild<PerformancePage*>();
    ASSERT_NE(page, nullptr);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !page->DeviceRowTitles().isEmpty(); }, kWaitMs));
    EXPECT_GE(page->DeviceRowTitles().size(), 3);
    EXPECT_TRUE(page->SelectedRowId().startsWith(QStringLiteral("network")))
        << page->SelectedRowId().toStdString();
    window->close();
}

TEST_F(WindowPagesTest, CombinedDisksMenuIsAPreference) {
    auto window = MakeWindow();
    const bool before = core::ReadBoolPreference(window->CurrentSettings(), core::kCombinedDisks);
    QAction* combined = nullptr;
    for (QAction* action : window->findChildren<QAction*>()) {
        if (action->isCheckable() && action->text().contains(QStringLiteral("disk"), Qt::CaseInsensitive) &&
            action->text().contains(QStringLiteral("ombine"))) {
            combined = action;
        }
    }
    ASSERT_NE(combined, nullptr);
    combined->trigger();
    EXPECT_NE(core::ReadBoolPreference(window->CurrentSettings(), core::kCombinedDisks), before);
    window->close();
}

}  // namespace
}  // namespace korv::host::linux_client
