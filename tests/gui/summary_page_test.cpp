#include "core/telemetry_frame.h"
#include "host/linux_client/display_tint.h"
#include "host/linux_client/page_catalog.h"
#include "host/linux_client/summary_footer_tiles.h"
#include "host/linux_client/summary_page.h"
#include "host/linux_client/summary_top_lists.h"
#include "host/linux_client/system_pressure_dialog.h"
#include "host/linux_client/vfd_meter_widget.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QImage>
#include <QTableWidget>
#include <QPushButton>
#include <QTest>

#include <algorithm>
#include <limits>
#include <memory>
#include <vector>

namespace korv::host::linux_client {
namespace {

core::ProcessSnapshot Process(std::uint32_t pid, const std::string& name, double cpu, std::uint64_t memory) {
    core::ProcessSnapshot p;
    p.key.pid = pid;
    p.key.startTime = pid;
    p.name = name;
    p.cpuPercent.Set(cpu);
    p.workingSetBytes.Set(memory);
    return p;
}

core::TelemetryMetric FrameMetric(const std::string& id, const std::string& device, std::optional<double> value,
                                  core::MetricAvailability availability) {
    core::TelemetryMetric m;
    m.id = id;
    m.deviceId = device;
    m.numericValue = value;
    m.availability = availability;
    return m;
}

std::shared_ptr<core::SystemSnapshot> Snapshot(bool complete) {
    auto s = std::make_shared<core::SystemSnapshot>();
    s->generation = 1;
    s->logicalProcessorCount = 4;
    s->uptimeNs = 3725ULL * 1000000000ULL;
    s->cpuUtilization.Set(42.0);
    s->cpuKernelUtilization.Set(7.5);
    s->cpuFrequencyHz.Set(2400000000ULL);
    s->cpuBaseFrequencyHz.Set(2000000000ULL);
    s->memoryTotalBytes.Set(8ULL << 30);
    s->memoryInUseBytes.Set(2ULL << 30);
    s->loadAverage1.Set(6.0);  // 150% of four processors: HIGH
    s->memoryPsiSomeAvg10.MarkMissing(core::MetricAvailability::unsupported);
    const auto own = static_cast<std::uint32_t>(QCoreApplication::applicationPid());
    s->processes = {Process(10, "idle", 0.5, 1 << 20), Process(11, "compiler", 80.0, 500 << 20),
                    Process(12, "", 20.0, 2000ULL << 20), Process(own, "korv", 99.0, 4000ULL << 20),
                    Process(13, "broken", std::numeric_limits<double>::quiet_NaN(), 3 << 20)};
    std::sort(s->processes.begin(), s->processes.end(), [](const auto& a, const auto& b) { return a.key < b.key; });
    auto frame = std::make_shared<core::HardwareTelemetryFrame>();
    frame->metrics.push_back(FrameMetric("storage.health.critical_warning", "storage:sda", 0.0, core::MetricAvailability::zero));
    if (complete) {
        frame->metrics.push_back(FrameMetric("cpu.package.temperature_c", "cpu:package", 55.0, core::MetricAvailability::valid));
    } else {
        frame->metrics.push_back(FrameMetric("cpu.package.temperature_c", "cpu:package", std::nullopt,
                                             core::MetricAvailability::notYetAvailable));
    }
    s->telemetry = frame;
    core::DeviceSnapshot disk;
    disk.kind = core::DeviceKind::disk;
    disk.id = "sda";
    disk.disk.readBytesPerSecond.Set(2048.0);
    disk.disk.writeBytesPerSecond.Set(1024.0 * 1024.0 * 3.0);
    s->devices.push_back(disk);
    return s;
}

class SummaryPageTest : public ::testing::Test {
protected:
    SummaryPageTest() {
        settings.visualFrameRate = 0;
        PageEnvironment env;
        env.settings = &settings;
        env.showPage = [this](int index) { shownPages.push_back(index); };
        page = std::make_unique<SummaryPage>(env);
        page->resize(1000, 760);
        page->show();
    }
    core::Settings settings;
    std::vector<int> shownPages;
    std::unique_ptr<SummaryPage> page;
};

TEST_F(SummaryPageTest, HeadingWaitsForSensorsThenReady) {
    EXPECT_EQ(page->HeadingText(), QStringLiteral("Waiting for all sensors to report..."));
    page->ApplySnapshot(Snapshot(false));
    EXPECT_EQ(page->HeadingText(), QStringLiteral("Waiting for all sensors to report..."));
    page->ApplySnapshot(Snapshot(true));
    EXPECT_EQ(page->HeadingText(), QStringLiteral("Ready!"));
}

// A machine without the sensor at all (no GPU, no temperature metric) still reaches "Ready!".
TEST_F(SummaryPageTest, AbsentSensorsDoNotBlockReady) {
    auto s = Snapshot(true);
    auto frame = std::make_shared<core::HardwareTelemetryFrame>();
    s->telemetry = frame;
    page->ApplySnapshot(s);
    EXPECT_EQ(page->HeadingText(), QStringLiteral("Ready!"));
    EXPECT_EQ(page->Meter(QStringLiteral("Temp"))->ValueText(), QStringLiteral("—"));
}

TEST_F(SummaryPageTest, MetersShowValuesAndCarryTitles) {
    page->ApplySnapshot(Snapshot(true));
    VfdMeterWidget* cpu = page->Meter(QStringLiteral("CPU"));
    ASSERT_NE(cpu, nullptr);
    EXPECT_DOUBLE_EQ(cpu->Value(), 42.0);
    EXPECT_EQ(cpu->ValueText(), QStringLiteral("42.0%"));
    EXPECT_EQ(cpu->accessibleName(), QStringLiteral("CPU utilization"));
    EXPECT_EQ(cpu->property("vfdTitle").toString(), QStringLiteral("CPU"));
    EXPECT_EQ(page->Meter(QStringLiteral("SYS"))->accessibleName(), QStringLiteral("Kernel"));
    EXPECT_EQ(page->Meter(QStringLiteral("Temp"))->ValueText(), QStringLiteral("55°"));
    EXPECT_DOUBLE_EQ(page->Meter(QStringLiteral("Memory Utilization"))->Value(), 25.0);
    settings.temperatureUnit = core::TemperatureUnit::fahrenheit;
    page->SettingsChanged();
    EXPECT_EQ(page->Meter(QStringLiteral("Temp"))->ValueText(), QStringLiteral("131°"));
}

TEST_F(SummaryPageTest, TopListsOrderLimitAndHideOwnProcess) {
    page->ApplySnapshot(Snapshot(true));
    QTableWidget* cpu = page->CpuList()->Table();
    ASSERT_EQ(cpu->rowCount(), 3);  // the NaN row and the program itself are left out
    EXPECT_EQ(cpu->item(0, 1)->text(), QStringLiteral("compiler"));
    EXPECT_EQ(cpu->item(1, 1)->text(), QStringLiteral("PID 12"));
    EXPECT_EQ(cpu->item(2, 1)->text(), QStringLiteral("idle"));
    EXPECT_EQ(cpu->item(0, 2)->text(), QStringLiteral("80.0%"));
    QTableWidget* memory = page->MemoryList()->Table();
    EXPECT_EQ(memory->item(0, 1)->text(), QStringLiteral("PID 12"));
    EXPECT_EQ(memory->horizontalHeaderItem(2)->text(), QStringLiteral("Memory"));
    EXPECT_LE(page->CpuList()->RowLimit(), kMaximumTopRows);
    ASSERT_GT(page->CpuList()->RowLimit(), 3) << "the list has room for more than it lists";
    EXPECT_EQ(page->CpuList()->HeadingText(), QStringLiteral("Top 3 CPU Processes"));
    EXPECT_EQ(page->MemoryList()->HeadingText(), QStringLiteral("Top 4 Mem Processes"))  // memory of the NaN row counts
        << page->MemoryList()->HeadingText().toStdString();
    EXPECT_EQ(page->CpuList()->AverageText(), QStringLiteral("Average CPU Use: 42.0%"));

    core::SystemSnapshot many;
    for (std::uint32_t pid = 100; pid < 140; ++pid) many.processes.push_back(Process(pid, "p", pid, pid));
    const auto rows = TopProcessRows(many, TopListKind::cpu, 50, 0);
    ASSERT_EQ(rows.size(), static_cast<std::size_t>(kMaximumTopRows));
    EXPECT_EQ(rows.front().pid, 139U);
    EXPECT_EQ(rows.back().pid, 125U);
}

TEST_F(SummaryPageTest, TilesTextsAndClicks) {
    page->ApplySnapshot(Snapshot(true));
    SummaryFooterTiles* footer = page->Footer();
    EXPECT_EQ(footer->WholeMachine()->Value(), QStringLiteral("System Pressure HIGH"));
    EXPECT_EQ(footer->WholeMachine()->Line(),
              QStringLiteral("HIGH · Load demand 150.0% · Memory stalls Unavailable"));
    EXPECT_EQ(footer->Storage()->Line(), QStringLiteral("R 2.00 KB/sec · W 3.00 MB/sec"));
    EXPECT_EQ(footer->Storage()->SecondLine(), QStringLiteral("SMART: Healthy"));
    EXPECT_EQ(footer->Storage()->Scale(), QStringLiteral("Scale 4.00 MB/sec"));
    EXPECT_EQ(footer->Network()->Line(), QStringLiteral("R 0 B/sec · S 0 B/sec"));
    EXPECT_EQ(footer->Storage()->toolTip(), QStringLiteral("Show Storage on the Performance page"));
    QTest::mouseClick(footer->Storage(), Qt::LeftButton);
    ASSERT_EQ(shownPages.size(), 1U);
    EXPECT_EQ(shownPages.back(), kPerformanceStackIndex);
    page->CpuList()->findChild<QPushButton*>()->click();
    EXPECT_EQ(shownPages.back(), kProcessesStackIndex);
}

TEST_F(SummaryPageTest, TheOwnProcessIsListedWhenTheUserAsksForIt) {
    page->ApplySnapshot(Snapshot(true));
    ASSERT_EQ(page->CpuList()->Table()->rowCount(), 3);
    settings.showSelfInReports = true;
    page->SettingsChanged();
    QTableWidget* cpu = page->CpuList()->Table();
    ASSERT_EQ(cpu->rowCount(), 4);
    EXPECT_EQ(cpu->item(0, 1)->text(), QStringLiteral("korv"));
    EXPECT_EQ(page->CpuList()->HeadingText(), QStringLiteral("Top 4 CPU Processes"));
    EXPECT_EQ(page->MemoryList()->Table()->item(0, 1)->text(), QStringLiteral("korv"));
}

// A change of settings shows the same sample again; it is no new sample for the averages.
TEST_F(SummaryPageTest, SettingsChangesDoNotCountTheLastSampleAgain) {
    page->ApplySnapshot(Snapshot(true));
    settings.temperatureUnit = core::TemperatureUnit::fahrenheit;
    page->SettingsChanged();
    page->SettingsChanged();
    auto next = Snapshot(true);
    next->cpuUtilization.Set(10.0);
    next->memoryInUseBytes.Set(4ULL << 30);
    page->ApplySnapshot(next);
    EXPECT_EQ(page->CpuList()->AverageText(), QStringLiteral("Average CPU Use: 26.0%"));
    EXPECT_EQ(page->MemoryList()->AverageText(), QStringLiteral("Average Mem Use: 37.5%"));
}

// The value texts of the meters take the chosen VFD colour; "automatic" keeps the meter's own.
TEST_F(SummaryPageTest, VfdTextColourTintsTheMeterTexts) {
    SetDisplayTint(TintMode::color, 1.0);
    settings.visualBloomLevel = 1;  // no halo over the text
    QPalette dark = page->palette();
    dark.setColor(QPalette::Window, Qt::black);
    page->setPalette(dark);
    page->ApplySnapshot(Snapshot(true));
    VfdMeterWidget* meter = page->Meter(QStringLiteral("SYS"));
    ASSERT_NE(meter, nullptr);
    const auto brightest = [meter] {
        const QImage image = meter->grab().toImage();
        QRgb best = 0;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = image.width() - 20; x < image.width(); ++x) {
                const QRgb p = image.pixel(x, y);
                if (qRed(p) + qGreen(p) + qBlue(p) > qRed(best) + qGreen(best) + qBlue(best)) best = p;
            }
        }
        return best;
    };
    core::WriteStringPreference(settings, "vfdTextColor", "amber");
    page->SettingsChanged();
    QRgb p = brightest();
    EXPECT_GT(qRed(p), qGreen(p));
    EXPECT_GT(qGreen(p), qBlue(p) + 60);
    core::WriteStringPreference(settings, "vfdTextColor", "blue");
    page->SettingsChanged();
    p = brightest();
    EXPECT_GT(qBlue(p), qRed(p) + 60);
    core::WriteStringPreference(settings, "vfdTextColor", "automatic");
    page->SettingsChanged();
    p = brightest();
    EXPECT_GT(qGreen(p), qRed(p) + 60) << "the meter's own green-blue";
}

TEST(SystemPressureTextTest, ExplanationTexts) {
    auto s = Snapshot(true);
    s->memoryPsiSomeAvg10.Set(30.0);
    s->memoryPsiSomeAvg10.availability = core::MetricAvailability::stale;
    const core::SystemPressure pressure = core::ComputeSystemPressure(*s);
    EXPECT_EQ(PressureDialogTitle(pressure), QStringLiteral("System Pressure HIGH"));
    const QStringList text = PressureExplanation(pressure, *s, static_cast<std::uint32_t>(QCoreApplication::applicationPid()));
    ASSERT_EQ(text.size(), 7);
    EXPECT_EQ(text[0], QStringLiteral("Primary driver: Memory stalls"));
    EXPECT_TRUE(text[1].contains(QStringLiteral("ELEVATED from 40, HIGH from 65 and CRITICAL from 85 on the meter.")));
    EXPECT_TRUE(text[2].startsWith(QStringLiteral("Load demand: 150.0% (HIGH)\nOne-minute Linux load average")));
    EXPECT_TRUE(text[2].contains(QStringLiteral("÷ 4 logical processors × 100. ELEVATED from 100, HIGH from 150, CRITICAL from 200.")));
    EXPECT_TRUE(text[3].startsWith(QStringLiteral("Memory stalls: 30.0% (stale) (HIGH)\nLinux PSI ‘some’ avg10")));
    EXPECT_TRUE(text[3].endsWith(QStringLiteral("ELEVATED from 10, HIGH from 25, CRITICAL from 50.")));
    EXPECT_TRUE(text[4].startsWith(QStringLiteral("Top CPU contributors now\ncompiler — 80.0%")));
    EXPECT_TRUE(text[4].contains(QStringLiteral("\nPID 12 — 20.0%")));
    EXPECT_FALSE(text[4].contains(QStringLiteral("korv")));  // the program itself
    EXPECT_TRUE(text[5].startsWith(QStringLiteral("Top memory contributors now\n")));
    EXPECT_TRUE(text[6].startsWith(QStringLiteral("These are current contributors.")));

    core::SystemSnapshot empty;
    empty.loadAverage1.MarkMissing(core::MetricAvailability::unsupported);
    empty.memoryPsiSomeAvg10.MarkMissing(core::MetricAvailability::unsupported);
    const core::SystemPressure none = core::ComputeSystemPressure(empty);
    EXPECT_EQ(PressureExplanation(none, empty, 0).front(), QStringLiteral("Primary driver: Unavailable"));
    EXPECT_TRUE(PressureExplanation(none, empty, 0)[2].contains(QStringLiteral("÷ 1 logical processors")));
    EXPECT_EQ(PressureTileLine(none), QStringLiteral("Unavailable · Load demand Unavailable · Memory stalls Unavailable"));
}

TEST(SmartSummaryTextTest, Words) {
    EXPECT_EQ(SmartSummaryText(core::SmartSummary::errors), QStringLiteral("SMART: Errors"));
    EXPECT_EQ(SmartSummaryText(core::SmartSummary::healthy), QStringLiteral("SMART: Healthy"));
    EXPECT_TRUE(SmartSummaryText(core::SmartSummary::none).isEmpty());
}

}  // namespace
}  // namespace korv::host::linux_client
