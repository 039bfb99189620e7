// Settings that act on the running window and engine, driven through the Settings page's own
// controls and checked by their effect.
#include "host/linux_client/page_catalog.h"
#include "host/linux_client/performance_page.h"
#include "host/linux_client/processes_page.h"
#include "host/linux_client/summary_page.h"
#include "host/linux_client/task_manager_window.h"
#include "host/linux_client/uptime_odometer_widget.h"
#include "tests/gui/private_home_test.h"
#include "tests/gui/window_test_support.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QFontDatabase>
#include <QMenu>
#include <QMenuBar>
#include <QStatusBar>
#include <QTest>

namespace korv::host::linux_client {
namespace {

using test::CoherentSnapshot;
using test::ScriptedServices;
using test::ScriptedSource;

constexpr int kWaitMs = 10000;

class LiveSettingsTest : public test::PrivateHomeTest {
protected:
    void MakeWindow(ScriptedSource::Script script = [](const core::SampleRequest& r) {
        return CoherentSnapshot(r.sequence);
    }) {
        core::SettingsLoadResult loaded;
        loaded.settings.updateSpeed = core::UpdateSpeed::paused;
        window_ = std::make_unique<TaskManagerWindow>(
            SmokeOptions{}, std::move(loaded),
            [script = std::move(script)] { return std::make_unique<ScriptedServices>(script); });
        ASSERT_TRUE(QTest::qWaitFor([&] { return window_->DeliveredSnapshotCount() == 1; }, kWaitMs));
    }

    template <typename Control>
    Control* Find(const char* name) {
        auto* control = window_->findChild<Control*>(QString::fromLatin1(name));
        EXPECT_NE(control, nullptr) << name;
        return control;
    }

    void Choose(const char* comboName, int index) {
        QComboBox* combo = Find<QComboBox>(comboName);
        ASSERT_NE(combo, nullptr);
        combo->setCurrentIndex(index);
        emit combo->activated(index);
    }

    int IndexOfData(const char* comboName, core::UpdateSpeed speed) {
        return Find<QComboBox>(comboName)->findData(static_cast<std::uint32_t>(speed));
    }

    std::unique_ptr<TaskManagerWindow> window_;
};

TEST_F(LiveSettingsTest, UpdateSpeedStartsAndPausesTheRunningEngine) {
    MakeWindow();
    QTest::qWait(700);
    EXPECT_EQ(window_->DeliveredSnapshotCount(), 1U) << "paused: no sample but the first";

    Choose("updateSpeed", IndexOfData("updateSpeed", core::UpdateSpeed::high));
    EXPECT_TRUE(QTest::qWaitFor([&] { return window_->DeliveredSnapshotCount() >= 4; }, kWaitMs));

    Choose("updateSpeed", IndexOfData("updateSpeed", core::UpdateSpeed::paused));
    QTest::qWait(1500);  // a tick that had begun may still arrive
    const std::uint64_t settled = window_->DeliveredSnapshotCount();
    QTest::qWait(1500);
    EXPECT_EQ(window_->DeliveredSnapshotCount(), settled);
}

TEST_F(LiveSettingsTest, PerCoreStatisticsRescaleTheProcessTableWithoutANewSample) {
    MakeWindow();
    window_->SelectStackIndex(kProcessesStackIndex);
    window_->show();
    auto* page = window_->findChild<ProcessesPage*>();
    ASSERT_NE(page, nullptr);
    ASSERT_TRUE(QTest::qWaitFor([&] { return page->CurrentSnapshot() != nullptr; }, kWaitMs));
    EXPECT_DOUBLE_EQ(*page->CurrentSnapshot()->processes.front().cpuPercent.value, 12.5);

    Find<QCheckBox>("perCoreCpuStatistics")->click();
    EXPECT_EQ(window_->DeliveredSnapshotCount(), 1U);
    EXPECT_DOUBLE_EQ(*page->CurrentSnapshot()->processes.front().cpuPercent.value, 50.0) << "4 logical processors";

    Find<QCheckBox>("perCoreCpuStatistics")->click();
    EXPECT_DOUBLE_EQ(*page->CurrentSnapshot()->processes.front().cpuPercent.value, 12.5);
    window_->close();
}

TEST_F(LiveSettingsTest, ApplicationFontReachesTheOpenWindow) {
    MakeWindow();
    QComboBox* fonts = Find<QComboBox>("applicationFont");
    ASSERT_NE(fonts, nullptr);
    int other = -1;
    for (int i = 0; i < fonts->count() && other < 0; ++i) {
        const QString text = fonts->itemText(i);
        if (text != window_->font().family() && QFontDatabase::hasFamily(text) && !text.contains(QLatin1String("Math"))) {
            other = i;
        }
    }
    if (other < 0) GTEST_SKIP() << "this machine has a single font family";
    const QString family = fonts->itemText(other);
    Choose("applicationFont", other);
    EXPECT_EQ(window_->font().family(), family);
    auto* refresh = window_->findChild<QWidget*>(QStringLiteral("RefreshButton"));
    ASSERT_NE(refresh, nullptr);
    EXPECT_TRUE(QTest::qWaitFor([&] { return refresh->font().family() == family; }, kWaitMs)) << "the page texts follow";
}

TEST_F(LiveSettingsTest, AlwaysOnTopAndHideWhenMinimizedActOnTheShownWindow) {
    MakeWindow();
    window_->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window_.get()));

    Find<QCheckBox>("alwaysOnTop")->click();
    EXPECT_TRUE(window_->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_TRUE(window_->isVisible()) << "a changed flag must not leave the window hidden";
    Find<QCheckBox>("alwaysOnTop")->click();
    EXPECT_FALSE(window_->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_TRUE(window_->isVisible());

    window_->showMinimized();
    QTest::qWait(100);
    EXPECT_TRUE(window_->isVisible()) << "minimized, but not hidden, while the setting is off";
    window_->showNormal();

    Find<QCheckBox>("hideWhenMinimized")->click();
    window_->showMinimized();
    EXPECT_TRUE(QTest::qWaitFor([&] { return !window_->isVisible(); }, kWaitMs));
    window_->ActivateFromAnotherInstance();
    EXPECT_TRUE(window_->isVisible());
    window_->close();
}

TEST_F(LiveSettingsTest, TheOdometerCountsWhileTheSummaryIsAway) {
    MakeWindow([](const core::SampleRequest& r) {
        auto snapshot = CoherentSnapshot(r.sequence);
        snapshot->uptimeNs = (3723ULL + r.sequence) * 1'000'000'000ULL;
        return snapshot;
    });
    window_->SelectStackIndex(kProcessesStackIndex);
    window_->show();
    window_->RequestSample();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window_->DeliveredSnapshotCount() == 2; }, kWaitMs));
    auto* summary = window_->findChild<SummaryPage*>();
    ASSERT_NE(summary, nullptr);
    EXPECT_EQ(summary->Odometer()->Text(), QStringLiteral("00000010205")) << "1 h 2 min 5 s";
    window_->close();
}

TEST_F(LiveSettingsTest, PerformanceMenuChangesTheGraphFromAnyPage) {
    MakeWindow();
    QMenu* menu = nullptr;
    for (QAction* action : window_->menuBar()->actions()) {
        if (action->text() == QStringLiteral("&Performance")) menu = action->menu();
    }
    ASSERT_NE(menu, nullptr);
    EXPECT_TRUE(menu->isEnabled());
    QStringList entries;
    QAction* logical = nullptr;
    for (QAction* action : menu->actions()) {
        if (action->isSeparator()) continue;
        entries << action->text() + QLatin1Char(' ') + action->shortcut().toString(QKeySequence::PortableText);
        if (action->text() == QStringLiteral("Logical processors")) logical = action;
    }
    EXPECT_EQ(entries, (QStringList{"Overall utilization Ctrl+Alt+1", "Logical processors Ctrl+Alt+2",
                                    "Individual engines Ctrl+Alt+3", "Show kernel times Ctrl+Alt+4",
                                    "Copy Ctrl+Alt+5"}));
    auto* performance = window_->findChild<PerformancePage*>();
    ASSERT_NE(performance, nullptr);
    performance->SelectDevice(core::DeviceKind::cpu);
    window_->SelectStackIndex(kPerformanceStackIndex);  // the page takes the sample that offers the processor
    window_->SelectStackIndex(kSummaryStackIndex);
    window_->show();
    window_->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window_.get()));
    ASSERT_NE(logical, nullptr);
    emit menu->aboutToShow();
    ASSERT_TRUE(logical->isEnabled()) << "the processor is chosen";
    QTest::keyClick(window_.get(), Qt::Key_2, Qt::ControlModifier | Qt::AltModifier);
    EXPECT_EQ(window_->CurrentStackIndex(), kPerformanceStackIndex);
    EXPECT_TRUE(logical->isChecked());
    window_->close();
}

}  // namespace
}  // namespace korv::host::linux_client
