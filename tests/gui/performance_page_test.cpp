#include "core/telemetry_frame.h"
#include "host/linux_client/application_setup.h"
#include "host/linux_client/cpu_core_grid_widget.h"
#include "host/linux_client/display_tint.h"
#include "host/linux_client/graph_widget.h"
#include "host/linux_client/history_store.h"
#include "host/linux_client/performance_device_pane.h"
#include "host/linux_client/performance_page.h"
#include "host/linux_client/theme.h"
#include "tests/gui/performance_snapshots.h"

#include <gtest/gtest.h>
#include <gmock/gmock.h>

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QTemporaryDir>
#include <QFileInfo>
#include <QLabel>
#include <QMenu>
#include <QMouseEvent>
#include <QStackedWidget>
#include <QTest>
#include <QToolButton>

#include <cerrno>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korv::host::linux_client {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using test::DiskDevice;
using test::GpuDevice;
using test::MachineSnapshot;
using test::NetworkDevice;
using Snapshot = std::shared_ptr<core::SystemSnapshot>;

// A page over a history that the test feeds, as the window does, before the page sees a snapshot.
class PerformancePageTest : public ::testing::Test {
protected:
    void SetUp() override { ApplyShellTheme(nullptr, core::Theme::light); }

    std::unique_ptr<PerformancePage> MakePage() {
        PageEnvironment environment;
        environment.settings = &settings_;
        environment.settingsChanged = [this] { ++settingsChangedCalls_; };
        environment.history = &history_;
        auto page = std::make_unique<PerformancePage>(environment);
        page->resize(1100, 760);
        return page;
    }

    // Feeds the history and then the page, the order of the window.
    void Deliver(PerformancePage& page, const Snapshot& snapshot) {
        history_.Append(*snapshot);
        page.ApplySnapshot(snapshot);
    }

    static QStringList Texts(const QList<QAction*>& actions) {
        QStringList texts;
        for (const QAction* action : actions) {
            if (!action->isSeparator()) texts << action->text();
        }
        return texts;
    }

    static QAction* ActionNamed(QMenu& menu, const QString& text) {
        for (QAction* action : menu.actions()) {
            if (action->text() == text) return action;
            if (action->menu() != nullptr) {
                if (QAction* inner = ActionNamed(*action->menu(), text)) return inner;
            }
        }
        return nullptr;
    }

    core::Settings settings_;
    HistoryStore history_{256};
    int settingsChangedCalls_ = 0;
};

struct ListCase {
    const char* name;
    std::function<void(core::SystemSnapshot&)> script;
    bool combineDisks;
    bool combineNetwork;
    std::vector<std::string> titles;
};

class PerformanceDeviceListTest : public PerformancePageTest, public ::testing::WithParamInterface<ListCase> {};

TEST_P(PerformanceDeviceListTest, ListsTheDevicesTheSnapshotOffers) {
    core::WriteBoolPreference(settings_, "combinedDisks", GetParam().combineDisks);
    core::WriteBoolPreference(settings_, "combinedNetwork", GetParam().combineNetwork);
    auto page = MakePage();
    auto snapshot = MachineSnapshot(1);
    GetParam().script(*snapshot);
    Deliver(*page, snapshot);
    std::vector<std::string> titles;
    for (const QString& title : page->DeviceRowTitles()) titles.push_back(title.toStdString());
    EXPECT_THAT(titles, ElementsAreArray(GetParam().titles));
}

INSTANTIATE_TEST_SUITE_P(
    Machines, PerformanceDeviceListTest,
    ::testing::Values(
        ListCase{"CpuAndMemory", [](core::SystemSnapshot&) {}, true, true, {"CPU", "Memory"}},
        ListCase{"TwoDisksCombined",
                 [](core::SystemSnapshot& s) {
                     s.devices.push_back(DiskDevice("sda", 0, 0, 1));
                     s.devices.push_back(DiskDevice("nvme0n1", 0, 0, 2));
                 },
                 true, true, {"CPU", "Memory", "Disks"}},
        ListCase{"TwoDisksApart",
                 [](core::SystemSnapshot& s) {
                     s.devices.push_back(DiskDevice("sda", 0, 0, 1));
                     s.devices.push_back(DiskDevice("nvme0n1", 0, 0, 2));
                 },
                 false, true, {"CPU", "Memory", "Disk 0 (sda)", "Disk 1 (nvme0n1)"}},
        ListCase{"OneDiskCombinedStaysItself",
                 [](core::SystemSnapshot& s) { s.devices.push_back(DiskDevice("sda", 0, 0, 1)); }, true, true,
                 {"CPU", "Memory", "Disk 0 (sda)"}},
        ListCase{"NetworkApart",
                 [](core::SystemSnapshot& s) {
                     s.devices.push_back(NetworkDevice("enp3s0", 1, 1));
                     s.devices.push_back(NetworkDevice("wlp2s0", 1, 1));
                 },
                 true, false, {"CPU", "Memory", "enp3s0", "wlp2s0"}},
        ListCase{"NetworkCombined",
                 [](core::SystemSnapshot& s) {
                     s.devices.push_back(NetworkDevice("enp3s0", 1, 1));
                     s.devices.push_back(NetworkDevice("wlp2s0", 1, 1));
                 },
                 true, true, {"CPU", "Memory", "Network"}},
        ListCase{"Gpu", [](core::SystemSnapshot& s) { s.devices.push_back(GpuDevice("0000:01:00.0", 5)); }, true,
                 true, {"CPU", "Memory", "GPU 0"}},
        ListCase{"Battery", [](core::SystemSnapshot& s) { test::AddBattery(s, 64.0); }, true, true,
                 {"CPU", "Memory", "Battery"}},
        ListCase{"EveryKindInListOrder",
                 [](core::SystemSnapshot& s) {
                     test::AddBattery(s, 64.0);
                     s.devices.push_back(GpuDevice("0000:01:00.0", 5));
                     s.devices.push_back(NetworkDevice("enp3s0", 1, 1));
                     s.devices.push_back(DiskDevice("sda", 0, 0, 1));
                 },
                 true, true, {"CPU", "Memory", "Disk 0 (sda)", "enp3s0", "GPU 0", "Battery"}},
        ListCase{"Nothing",
                 [](core::SystemSnapshot& s) {
                     s.logicalProcessorCount = 0;
                     s.logicalProcessors.clear();
                     s.cpuUtilization = {};
                     s.cpuModel = {};
                     s.memoryTotalBytes = {};
                 },
                 true, true, {"No Linux devices available"}}),
    [](const ::testing::TestParamInfo<ListCase>& row) { return std::string(row.param.name); });

TEST_F(PerformancePageTest, TheHintStandsUntilADeviceIsChosenAndAChoiceSurvivesRefreshes) {
    auto page = MakePage();
    auto* pane = page->findChild<PerformanceDevicePane*>();
    ASSERT_NE(pane, nullptr);
    const auto hintShown = [pane] {
        auto* hint = pane->findChild<QLabel*>(QStringLiteral("SelectionHint"));
        return hint != nullptr && hint->isVisibleTo(pane) && hint->text() == QStringLiteral("Select a Linux device");
    };
    EXPECT_TRUE(page->SelectedRowId().isEmpty());
    auto first = MachineSnapshot(1);
    first->devices.push_back(DiskDevice("sda", 0, 0, 1));
    first->devices.push_back(DiskDevice("sdb", 0, 0, 1));
    Deliver(*page, first);
    EXPECT_TRUE(page->SelectedRowId().isEmpty()) << "nothing is chosen for the user";
    EXPECT_TRUE(hintShown());

    page->SelectDevice(core::DeviceKind::disk);
    EXPECT_EQ(page->SelectedRowId().toStdString(), "disks");
    EXPECT_FALSE(hintShown());
    for (std::uint64_t generation = 2; generation < 5; ++generation) {
        auto next = MachineSnapshot(generation);
        next->devices = first->devices;
        Deliver(*page, next);
    }
    EXPECT_EQ(page->SelectedRowId().toStdString(), "disks");

    // Splitting the combined row keeps the choice on the same kind of device.
    core::WriteBoolPreference(settings_, "combinedDisks", false);
    page->SettingsChanged();
    EXPECT_EQ(page->SelectedRowId().toStdString(), "disk:linux-block:path:sda");

    // A device that goes away, with none of its kind left, leaves the hint.
    Deliver(*page, MachineSnapshot(6));
    EXPECT_TRUE(page->SelectedRowId().isEmpty());
    EXPECT_TRUE(hintShown());
}

struct QuantityCase {
    const char* name;
    core::DeviceKind kind;
    std::function<void(core::SystemSnapshot&)> script;
    std::vector<std::string> shown;  // accessible names of the second and third graph shown, in order
    double newest;                  // the newest point of the last graph shown
};

class PerformanceQuantityTest : public PerformancePageTest, public ::testing::WithParamInterface<QuantityCase> {};

// Pressure, power and temperature graphs stand beside the device's own graph where the machine
// reads them, and are absent where it does not.
TEST_P(PerformanceQuantityTest, ShowsTheGraphsTheMachineHasReadingsFor) {
    const QuantityCase& c = GetParam();
    auto page = MakePage();
    page->show();
    for (std::uint64_t generation = 1; generation <= 3; ++generation) {
        auto snapshot = MachineSnapshot(generation);
        c.script(*snapshot);
        Deliver(*page, snapshot);
    }
    page->SelectDevice(c.kind);
    auto* pane = page->findChild<PerformanceDevicePane*>();
    ASSERT_NE(pane, nullptr);
    std::vector<std::string> shown;
    GraphWidget* last = nullptr;
    for (GraphWidget* graph : {pane->SecondGraph(), pane->ThirdGraph()}) {
        if (graph->isVisibleTo(pane)) {
            shown.push_back(graph->accessibleName().toStdString());
            last = graph;
        }
    }
    EXPECT_EQ(shown, c.shown);
    if (last != nullptr && !c.shown.empty()) {
        ASSERT_EQ(last->Points(0).size(), 3U);
        EXPECT_DOUBLE_EQ(last->Points(0).back().value, c.newest);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Readings, PerformanceQuantityTest,
    ::testing::Values(
        QuantityCase{"MemoryWithPressure", core::DeviceKind::memory,
                     [](core::SystemSnapshot& s) { s.memoryPressurePercent.Set(12.5); }, {"Memory pressure"}, 12.5},
        QuantityCase{"MemoryWithoutPressure", core::DeviceKind::memory,
                     [](core::SystemSnapshot& s) { s.memoryPressurePercent.MarkMissing(core::MetricAvailability::unsupported); },
                     {}, 0.0},
        QuantityCase{"ProcessorPowerAndTemperature", core::DeviceKind::cpu,
                     [](core::SystemSnapshot& s) {
                         s.cpuPowerWatts.Set(17.0);
                         auto frame = std::make_shared<core::HardwareTelemetryFrame>();
                         core::TelemetryMetric temperature;
                         temperature.id = "cpu.package.temperature_c";
                         temperature.deviceId = "cpu:package";
                         temperature.numericValue = 61.0;
                         temperature.availability = core::MetricAvailability::valid;
                         frame->metrics.push_back(temperature);
                         s.telemetry = frame;
                     },
                     {"Temperature", "Power consumption"}, 17.0},
        QuantityCase{"ProcessorWithoutEither", core::DeviceKind::cpu, [](core::SystemSnapshot&) {}, {}, 0.0},
        QuantityCase{"BatteryPower", core::DeviceKind::energy,
                     [](core::SystemSnapshot& s) {
                         test::AddBattery(s, 64.0);
                         s.systemPowerWatts.Set(9.5);
                     },
                     {"Power consumption"}, 9.5},
        QuantityCase{"GpuPower", core::DeviceKind::gpu,
                     [](core::SystemSnapshot& s) {
                         s.devices.push_back(GpuDevice("0000:01:00.0", 5));
                         s.devices.back().gpu.powerWatts.Set(55.0);
                     },
                     {"GPU memory usage history", "Power consumption"}, 55.0}),
    [](const ::testing::TestParamInfo<QuantityCase>& row) { return std::string(row.param.name); });

// The small graphs of the device list are the summary graphs: the dashed choice draws them dashed,
// and leaves the large graph of the chosen device alone.
TEST_F(PerformancePageTest, DashedSummaryLinesDashTheDeviceListGraphsOnly) {
    auto page = MakePage();
    auto snapshot = MachineSnapshot(1);
    snapshot->devices.push_back(DiskDevice("sda", 0, 0, 1));
    Deliver(*page, snapshot);
    page->SelectDevice(core::DeviceKind::cpu);
    auto* pane = page->findChild<PerformanceDevicePane*>();
    ASSERT_NE(pane, nullptr);
    const auto listGraphs = [&page] {
        std::vector<GraphWidget*> graphs;
        for (QWidget* row : page->findChildren<QWidget*>(QStringLiteral("DeviceRow"))) {
            for (GraphWidget* graph : row->findChildren<GraphWidget*>()) graphs.push_back(graph);
        }
        return graphs;
    };
    ASSERT_GE(listGraphs().size(), 3U);
    for (const bool dashed : {true, false}) {
        settings_.dashedSummaryGraphLines = dashed;
        page->SettingsChanged();
        for (GraphWidget* graph : listGraphs()) EXPECT_EQ(graph->DashedLines(), dashed);
        EXPECT_FALSE(pane->MainGraph()->DashedLines());
    }
}

// The small graph of a device marks the sample under the pointer with the "Click for History"
// hint, and a click on it opens that device.
TEST_F(PerformancePageTest, PointingAtASmallGraphMarksASampleAndAClickOpensTheDevice) {
    auto page = MakePage();
    page->show();
    for (std::uint64_t generation = 1; generation <= 30; ++generation) {
        auto snapshot = MachineSnapshot(generation);
        snapshot->devices.push_back(NetworkDevice("enp3s0", 10, 20));
        Deliver(*page, snapshot);
    }
    GraphWidget* graph = nullptr;
    for (QWidget* row : page->findChildren<QWidget*>(QStringLiteral("DeviceRow"))) {
        if (row->accessibleName() == QLatin1String("Memory")) graph = row->findChild<GraphWidget*>();
    }
    ASSERT_NE(graph, nullptr);
    ASSERT_FALSE(graph->Points(0).empty());
    const QPointF inside = graph->PlotRect().center();
    QMouseEvent move(QEvent::MouseMove, inside, graph->mapToGlobal(inside), Qt::NoButton, Qt::NoButton, Qt::NoModifier);
    QApplication::sendEvent(graph, &move);
    EXPECT_GE(graph->HoverIndex(), 0);
    EXPECT_TRUE(graph->HintActive());
    EXPECT_EQ(graph->cursor().shape(), Qt::SizeHorCursor);

    QTest::mouseClick(graph, Qt::LeftButton, Qt::NoModifier, inside.toPoint());
    EXPECT_EQ(page->SelectedRowId().toStdString(), "memory");
}

TEST_F(PerformancePageTest, ArrowKeysMoveTheChoiceAlongTheList) {
    auto page = MakePage();
    auto snapshot = MachineSnapshot(1);
    snapshot->devices.push_back(NetworkDevice("enp3s0", 10, 20));
    Deliver(*page, snapshot);
    page->SelectDevice(core::DeviceKind::memory);
    QWidget* memoryRow = nullptr;
    for (QWidget* row : page->findChildren<QWidget*>(QStringLiteral("DeviceRow"))) {
        if (row->accessibleName() == QLatin1String("Memory")) memoryRow = row;
    }
    ASSERT_NE(memoryRow, nullptr);
    QTest::keyClick(memoryRow, Qt::Key_Down);
    EXPECT_EQ(page->SelectedRowId().toStdString(), "network:linux-net:enp3s0");
    QTest::keyClick(QApplication::focusWidget() != nullptr ? QApplication::focusWidget() : memoryRow, Qt::Key_Down);
    EXPECT_EQ(page->SelectedRowId().toStdString(), "network:linux-net:enp3s0");  // the last row stays
    QTest::keyClick(memoryRow, Qt::Key_Up);
    EXPECT_EQ(page->SelectedRowId().toStdString(), "memory");
    QTest::keyClick(memoryRow, Qt::Key_Up);
    EXPECT_EQ(page->SelectedRowId().toStdString(), "cpu");
}

TEST_F(PerformancePageTest, SelectDeviceBeforeAnySnapshotWaitsForThatKind) {
    auto page = MakePage();
    page->SelectDevice(core::DeviceKind::network);
    Deliver(*page, MachineSnapshot(1));
    EXPECT_TRUE(page->SelectedRowId().isEmpty());  // the hint stands while the choice waits
    auto withNetwork = MachineSnapshot(2);
    withNetwork->devices.push_back(NetworkDevice("enp3s0", 10, 20));
    Deliver(*page, withNetwork);
    EXPECT_EQ(page->SelectedRowId().toStdString(), "network:linux-net:enp3s0");
}

TEST_F(PerformancePageTest, GraphsOpenWithTheHistoryKeptWhileThePageWasHidden) {
    std::shared_ptr<core::SystemSnapshot> last;
    for (std::uint64_t generation = 1; generation <= 40; ++generation) {
        last = MachineSnapshot(generation);
        last->devices.push_back(DiskDevice("sda", 1000.0, 500.0, 5.0));
        last->devices.push_back(DiskDevice("sdb", 3000.0, 0.0, 15.0));
        history_.Append(*last);
    }
    auto page = MakePage();
    page->ApplySnapshot(last);
    page->SelectDevice(core::DeviceKind::disk);

    auto graphs = page->findChildren<GraphWidget*>();
    const auto named = [&](const char* name) -> GraphWidget* {
        for (GraphWidget* graph : graphs) {
            if (graph->objectName() == QLatin1String(name)) return graph;
        }
        return nullptr;
    };
    GraphWidget* active = named("PerformanceGraph");
    GraphWidget* throughput = named("PerformanceSecondGraph");
    ASSERT_NE(active, nullptr);
    ASSERT_NE(throughput, nullptr);
    ASSERT_EQ(active->Points(0).size(), 40u);
    EXPECT_DOUBLE_EQ(active->Points(0).back().value, 10.0);       // mean active time
    EXPECT_DOUBLE_EQ(throughput->Points(0).back().value, 4000.0);  // summed reads
    EXPECT_DOUBLE_EQ(throughput->Points(1).back().value, 500.0);   // summed writes
    EXPECT_DOUBLE_EQ(throughput->MaximumValue(0), 64.0 * 1024.0);
}

TEST_F(PerformancePageTest, ContextMenuOffersGraphKernelTimesAndCopy) {
    auto page = MakePage();
    auto snapshot = MachineSnapshot(1);
    snapshot->devices.push_back(GpuDevice("0000:01:00.0", 30));
    snapshot->devices.push_back(DiskDevice("sda", 0, 0, 1));
    Deliver(*page, snapshot);
    auto* menu = page->findChild<QMenu*>(QStringLiteral("PerformanceContextMenu"));
    ASSERT_NE(menu, nullptr);
    EXPECT_THAT(Texts(menu->actions()), ElementsAre("Change graph to", "Show kernel times", "Copy"));
    QAction* change = menu->actions().front();
    ASSERT_NE(change->menu(), nullptr);
    EXPECT_THAT(Texts(change->menu()->actions()),
                ElementsAre("Overall utilization", "Logical processors", "Individual engines"));
    QAction* logical = ActionNamed(*menu, QStringLiteral("Logical processors"));
    QAction* engines = ActionNamed(*menu, QStringLiteral("Individual engines"));
    QAction* kernel = ActionNamed(*menu, QStringLiteral("Show kernel times"));
    QAction* copy = ActionNamed(*menu, QStringLiteral("Copy"));
    EXPECT_FALSE(copy->isEnabled()) << "nothing to copy before a device is chosen";
    page->SelectDevice(core::DeviceKind::cpu);
    EXPECT_TRUE(copy->isEnabled());

    page->SelectDevice(core::DeviceKind::disk);
    EXPECT_FALSE(logical->isEnabled());
    EXPECT_FALSE(kernel->isEnabled());
    page->SelectDevice(core::DeviceKind::cpu);
    EXPECT_TRUE(logical->isEnabled());
    EXPECT_FALSE(engines->isEnabled());
    EXPECT_TRUE(kernel->isEnabled());
    logical->trigger();
    auto* grid = page->findChild<CpuCoreGridWidget*>(QStringLiteral("CpuCoreGrid"));
    ASSERT_NE(grid, nullptr);
    EXPECT_EQ(grid->CellCount(), 4);
    EXPECT_EQ(core::StringPreference(settings_, "cpuGraphMode", ""), "expanded");
    EXPECT_EQ(settingsChangedCalls_, 1);
    kernel->trigger();
    EXPECT_EQ(grid->Graph(3)->Points(1).back().value, 4.0);  // processor 3's kernel share

    page->SelectDevice(core::DeviceKind::gpu);
    EXPECT_FALSE(logical->isEnabled());
    EXPECT_FALSE(kernel->isEnabled());
    engines->trigger();
    auto* engineGrid = page->findChild<CpuCoreGridWidget*>(QStringLiteral("GpuEngineGrid"));
    ASSERT_NE(engineGrid, nullptr);
    EXPECT_EQ(engineGrid->CellLabels(), (QStringList{QStringLiteral("gfx"), QStringLiteral("video")}));
    EXPECT_EQ(core::StringPreference(settings_, "gpuGraphMode", ""), "engines");

    page->SelectDevice(core::DeviceKind::disk);
    EXPECT_FALSE(change->menu()->isEnabled());
    EXPECT_FALSE(kernel->isEnabled());
    EXPECT_TRUE(copy->isEnabled());
}

TEST_F(PerformancePageTest, CopyPutsThePaneTextOnTheClipboard) {
    auto page = MakePage();
    auto snapshot = MachineSnapshot(1);
    snapshot->devices.push_back(NetworkDevice("enp3s0", 2048.0, 1024.0));
    Deliver(*page, snapshot);
    page->SelectDevice(core::DeviceKind::network);
    QApplication::clipboard()->clear();
    auto* menu = page->findChild<QMenu*>(QStringLiteral("PerformanceContextMenu"));
    ASSERT_NE(menu, nullptr);
    ActionNamed(*menu, QStringLiteral("Copy"))->trigger();
    const QString text = QApplication::clipboard()->text();
    EXPECT_TRUE(text.startsWith(QStringLiteral("enp3s0\n"))) << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("Send\t1.00 KB/sec\nReceive\t2.00 KB/sec\n"))) << text.toStdString();
}

TEST_F(PerformancePageTest, ModeButtonNamesTheGroupingOfTheChosenDevice) {
    auto page = MakePage();
    auto snapshot = MachineSnapshot(1);
    snapshot->devices.push_back(GpuDevice("0000:01:00.0", 30));
    Deliver(*page, snapshot);
    auto* button = page->findChild<QToolButton*>(QStringLiteral("GraphModeButton"));
    ASSERT_NE(button, nullptr);
    page->SelectDevice(core::DeviceKind::cpu);
    EXPECT_EQ(button->toolTip().toStdString(), "Choose how CPU utilization is grouped");
    EXPECT_THAT(Texts(button->menu()->actions()),
                ElementsAre("All CPUs Combined", "CPUs Expanded", "Efficiency vs Performance"));
    // Without processors of both classes the class view has nothing to show.
    EXPECT_FALSE(button->menu()->actions().at(2)->isEnabled());
    page->SelectDevice(core::DeviceKind::gpu);
    EXPECT_EQ(button->toolTip().toStdString(), "Choose how GPU utilization is grouped");
    EXPECT_EQ(button->accessibleName().toStdString(), "GPU graph mode");
    EXPECT_THAT(Texts(button->menu()->actions()), ElementsAre("Overall", "Engines"));
    page->SelectDevice(core::DeviceKind::memory);
    EXPECT_TRUE(button->isHidden());
}

TEST_F(PerformancePageTest, ProcessorClassesEachGetASeries) {
    auto page = MakePage();
    core::WriteStringPreference(settings_, "cpuGraphMode", "efficiency");
    page->SettingsChanged();
    auto snapshot = MachineSnapshot(1);
    for (auto& processor : snapshot->logicalProcessors) {
        processor.processorClass =
            processor.index < 2 ? core::ProcessorClass::performance : core::ProcessorClass::efficiency;
    }
    Deliver(*page, snapshot);
    page->SelectDevice(core::DeviceKind::cpu);
    auto* graph = page->findChild<GraphWidget*>(QStringLiteral("PerformanceGraph"));
    ASSERT_NE(graph, nullptr);
    ASSERT_FALSE(graph->Points(0).empty());
    ASSERT_FALSE(graph->Points(1).empty());
    // Processors 0 and 1 run at 5% and 15%, 2 and 3 at 25% and 35% (plus the same wave).
    EXPECT_DOUBLE_EQ(graph->Points(1).back().value - graph->Points(0).back().value, 20.0);
    EXPECT_TRUE(graph->Points(2).empty());
}

// Renders every pane with 40 s of history in three looks: each device shows a pane of its own. The
// pictures stay in KORV_PERFORMANCE_SHOTS when that names a folder, for a person to review.
TEST_F(PerformancePageTest, EveryDeviceRendersAPaneOfItsOwn) {
    QTemporaryDir scratch;
    QString folder = qEnvironmentVariable("KORV_PERFORMANCE_SHOTS");
    if (folder.isEmpty()) folder = scratch.path();
    ASSERT_TRUE(QDir().mkpath(folder));
    RegisterEmbeddedFonts();
    ApplyApplicationFont(QStringLiteral("Inter"));
    struct Look {
        const char* name;
        core::Theme theme;
        TintMode tint;
    };
    for (const Look& look : {Look{"light", core::Theme::light, TintMode::color},
                             Look{"dark", core::Theme::dark, TintMode::color},
                             Look{"amber", core::Theme::dark, TintMode::amber}}) {
        SetDisplayTint(look.tint, 1.0);
        ApplyShellTheme(nullptr, look.theme);
        HistoryStore history(HistoryStore::CapacityFor(15, 16));
        PageEnvironment environment;
        environment.settings = &settings_;
        environment.history = &history;
        PerformancePage page(environment);
        page.resize(1240, 760);
        std::shared_ptr<core::SystemSnapshot> snapshot;
        for (std::uint64_t generation = 1; generation <= 80; ++generation) {  // 40 s at 500 ms
            snapshot = MachineSnapshot(generation, 8);
            const double t = static_cast<double>(generation);
            snapshot->memoryInUseBytes.Set(static_cast<std::uint64_t>((6.0 + 2.0 * std::sin(t / 9.0)) * test::kGiB));
            snapshot->devices.push_back(DiskDevice("nvme0n1", 40e6 * (1.0 + std::sin(t / 5.0)), 9e6 * (1.0 + std::cos(t / 7.0)), 30.0 + 25.0 * std::sin(t / 6.0)));
            snapshot->devices.push_back(DiskDevice("sda", 1e6, 2e5 * (generation % 10), 3.0));
            snapshot->devices.push_back(NetworkDevice("enp3s0", 800e3 * (1.2 + std::sin(t / 4.0)), 90e3 * (1.1 + std::cos(t / 3.0))));
            snapshot->devices.push_back(GpuDevice("0000:01:00.0", 30.0 + 20.0 * std::sin(t / 8.0)));
            core::ProviderHealthRecord powercap;
            powercap.provider = "linux.powercap";
            powercap.nativeError = EACCES;
            snapshot->providers.push_back(powercap);
            snapshot->cpuBaseFrequencyHz.Set(2'400'000'000ULL);
            snapshot->physicalCoreCount.Set(4);
            snapshot->socketCount.Set(1);
            snapshot->frequencyGovernor.Set("powersave");
            history.Append(*snapshot);
        }
        core::WriteBoolPreference(settings_, "combinedDisks", false);
        page.SettingsChanged();
        page.ApplySnapshot(snapshot);
        std::vector<QImage> panes;
        for (const auto kind : {core::DeviceKind::cpu, core::DeviceKind::memory, core::DeviceKind::disk,
                                core::DeviceKind::network, core::DeviceKind::gpu}) {
            page.SelectDevice(kind);
            const QPixmap picture = page.grab();
            const QString path = QStringLiteral("%1/%2-%3.png").arg(folder, QLatin1String(look.name),
                                                                  QString::fromUtf8(core::ToString(kind).data()));
            ASSERT_TRUE(picture.save(path));
            const QImage image = picture.toImage();
            for (const QImage& earlier : panes) {
                EXPECT_NE(image, earlier) << look.name << ": " << core::ToString(kind) << " shows another device's pane";
            }
            panes.push_back(image);
        }
        core::WriteStringPreference(settings_, "cpuGraphMode", "expanded");
        core::WriteStringPreference(settings_, "gpuGraphMode", "engines");
        page.SettingsChanged();
        for (const auto kind : {core::DeviceKind::cpu, core::DeviceKind::gpu}) {
            page.SelectDevice(kind);
            const QString path = QStringLiteral("%1/%2-%3-grid.png").arg(folder, QLatin1String(look.name),
                                                                       QString::fromUtf8(core::ToString(kind).data()));
            ASSERT_TRUE(page.grab().save(path));
        }
        core::WriteStringPreference(settings_, "cpuGraphMode", "combined");
        core::WriteStringPreference(settings_, "gpuGraphMode", "overall");
        page.SettingsChanged();
        page.SelectDevice(core::DeviceKind::disk);
        page.resize(720, 560);  // the narrow window less its rail
        ASSERT_TRUE(page.grab().save(QStringLiteral("%1/%2-disk-narrow.png").arg(folder, QLatin1String(look.name))));
    }
    SetDisplayTint(TintMode::color, 1.0);
    ApplyShellTheme(nullptr, core::Theme::light);
}

}  // namespace
}  // namespace korv::host::linux_client
