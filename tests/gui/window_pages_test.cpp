#include "core/settings.h"
#include "host/linux_client/application_paths.h"
#include "host/linux_client/command_bar.h"
#include "host/linux_client/language_relaunch.h"
#include "host/linux_client/navigation_rail.h"
#include "host/linux_client/settings_dialog.h"
#include "host/linux_client/settings_page.h"
#include "host/linux_client/summary_footer_tiles.h"
#include "host/linux_client/page_catalog.h"
#include "host/linux_client/performance_page.h"
#include "host/linux_client/process_filter_proxy_model.h"
#include "host/linux_client/process_table_model.h"
#include "host/linux_client/processes_page.h"
#include "host/linux_client/task_manager_window.h"
#include "tests/gui/private_home_test.h"
#include "tests/gui/window_test_support.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QMessageBox>
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

class WindowPagesTest : public test::PrivateHomeTest {
protected:
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

TEST_F(WindowPagesTest, ASummaryTileOpensThePerformancePageOnItsDevice) {
    auto window = MakeWindow();
    window->show();
    window->SelectStackIndex(kSummaryStackIndex);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->DeliveredSnapshotCount() >= 1; }, kWaitMs));
    auto* footer = window->findChild<SummaryFooterTiles*>();
    auto* page = window->findChild<PerformancePage*>();
    ASSERT_NE(footer, nullptr);
    ASSERT_NE(page, nullptr);
    struct Case {
        SummaryTile* tile;
        QString rowId;
    };
    for (const Case& c : {Case{footer->Network(), QStringLiteral("network")}, Case{footer->Storage(), QStringLiteral("disk")}}) {
        window->SelectStackIndex(kSummaryStackIndex);
        QTest::mouseClick(c.tile, Qt::LeftButton);
        EXPECT_EQ(window->CurrentStackIndex(), kPerformanceStackIndex);
        EXPECT_TRUE(page->SelectedRowId().startsWith(c.rowId)) << page->SelectedRowId().toStdString();
    }
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

// A stand-in for the program that writes down the arguments it was started with.
QString ArgumentRecorder(const QTemporaryDir& dir, const QString& record) {
    const QString path = dir.filePath(QStringLiteral("korv-again"));
    QFile script(path);
    if (!script.open(QIODevice::WriteOnly)) return {};
    script.write(QStringLiteral("#!/bin/sh\nprintf '%s\\n' \"$@\" > '%1.part' && mv '%1.part' '%1'\n").arg(record).toUtf8());
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

QMessageBox* ChooseLanguage(TaskManagerWindow& window, const QString& code) {
    auto* combo = window.findChild<SettingsPage*>()->findChild<QComboBox*>(QStringLiteral("applicationLanguage"));
    if (combo == nullptr || combo->findData(code) < 0) return nullptr;
    combo->setCurrentIndex(combo->findData(code));
    emit combo->activated(combo->currentIndex());
    return window.findChild<QMessageBox*>(QStringLiteral("LanguageRelaunchBox"));
}

TEST(LanguageRelaunch, ArgumentsCarryTheCodeAndTheMarker) {
    EXPECT_EQ(LanguageRelaunchArguments(QStringLiteral("de")),
              (QStringList{"--language", "de", "--language-relaunch"}));
    EXPECT_TRUE(StartLanguageRelaunch(QStringLiteral("/nonexistent/korv"), QStringLiteral("de")).has_value());
}

TEST_F(WindowPagesTest, ANewLanguageStartsTheProgramAgainWhenTheUserAgrees) {
    QTemporaryDir dir;
    const QString record = dir.filePath(QStringLiteral("arguments"));
    auto window = MakeWindow();
    window->SetRelaunchProgram(ArgumentRecorder(dir, record));
    window->show();
    window->SelectStackIndex(kSettingsStackIndex);

    QMessageBox* box = ChooseLanguage(*window, QStringLiteral("en"));
    ASSERT_NE(box, nullptr) << "no question was asked";
    box->done(QMessageBox::Yes);
    ASSERT_TRUE(QTest::qWaitFor([&] { return QFile::exists(record); }, kWaitMs));
    QFile file(record);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(file.readAll()), QStringLiteral("--language\nen\n--language-relaunch\n"));
    EXPECT_FALSE(window->isVisible());
    // The new start finds the choice in the file.
    const core::SettingsLoadResult saved = core::SettingsStore::Load(SettingsFilePath().toStdString());
    EXPECT_EQ(saved.settings.applicationLanguage, "en");
}

TEST_F(WindowPagesTest, ALanguageChangeThatIsPutOffKeepsTheWindow) {
    QTemporaryDir dir;
    const QString record = dir.filePath(QStringLiteral("arguments"));
    auto window = MakeWindow();
    window->SetRelaunchProgram(ArgumentRecorder(dir, record));
    window->show();
    QMessageBox* box = ChooseLanguage(*window, QStringLiteral("en"));
    ASSERT_NE(box, nullptr);
    box->done(QMessageBox::No);
    QCoreApplication::processEvents();
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(window->CurrentSettings().applicationLanguage, "en");
    EXPECT_FALSE(QFile::exists(record));
    window->close();
}

TEST_F(WindowPagesTest, SettingsOpenInADialogWhenAskedAndBothFormsAgree) {
    auto window = MakeWindow();
    window->show();
    auto* rail = window->findChild<NavigationRail*>();
    ASSERT_NE(rail, nullptr);
    auto* asDialog = window->findChild<SettingsPage*>()->findChild<QCheckBox*>(QStringLiteral("showSettingsAsDialog"));
    ASSERT_NE(asDialog, nullptr);
    asDialog->click();
    ASSERT_TRUE(window->CurrentSettings().showSettingsAsDialog);

    window->SelectStackIndex(kSummaryStackIndex);
    rail->SettingsButton()->click();
    EXPECT_EQ(window->CurrentStackIndex(), kSummaryStackIndex);
    auto* dialog = window->findChild<SettingsDialog*>();
    ASSERT_NE(dialog, nullptr);
    EXPECT_TRUE(dialog->isVisible());
    // A second click brings the same dialog forward.
    rail->SettingsButton()->click();
    EXPECT_EQ(window->findChildren<SettingsDialog*>().size(), 1);

    // A change in the dialog shows on the page's form as well.
    auto* uptime = dialog->findChild<QCheckBox*>(QStringLiteral("uptimeVisible"));
    ASSERT_NE(uptime, nullptr);
    const bool before = window->CurrentSettings().uptimeVisible;
    uptime->click();
    EXPECT_NE(window->CurrentSettings().uptimeVisible, before);
    auto* pageUptime = window->findChild<SettingsPage*>()->findChild<QCheckBox*>(QStringLiteral("uptimeVisible"));
    EXPECT_EQ(pageUptime->isChecked(), window->CurrentSettings().uptimeVisible);
    window->close();
}

}  // namespace
}  // namespace korv::host::linux_client
