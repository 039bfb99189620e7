#include "host/linux_client/cpu_core_grid_widget.h"
#include "host/linux_client/detail_pane_widget.h"
#include "host/linux_client/graph_widget.h"
#include "host/linux_client/performance_detail_fields.h"
#include "host/linux_client/performance_graphs.h"
#include "host/linux_client/performance_device_list.h"
#include "host/linux_client/performance_series.h"
#include "host/linux_client/unit_formats.h"
#include "tests/gui/performance_snapshots.h"

#include <gtest/gtest.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <vector>

namespace korv::host::linux_client {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using test::kGiB;

std::vector<std::string> Labels(const DetailFieldList& fields) {
    std::vector<std::string> labels;
    for (const auto& field : fields) labels.push_back(field.label.toStdString());
    return labels;
}

std::string ValueOf(const DetailFieldList& fields, const char* label) {
    for (const auto& field : fields) {
        if (field.label == QLatin1String(label)) return field.value.toStdString();
    }
    return "<absent>";
}

const DeviceRowSpec& RowOfKind(const std::vector<DeviceRowSpec>& rows, core::DeviceKind kind) {
    for (const auto& row : rows) {
        if (row.kind == kind) return row;
    }
    throw std::runtime_error("no row of that kind");
}

// A machine with every field of every kind filled, so that the order can be checked in full.
std::shared_ptr<core::SystemSnapshot> FullMachine() {
    auto s = test::MachineSnapshot(7);
    s->totalTasks.Set(812);
    s->cpuBaseFrequencyHz.Set(2'100'000'000ULL);
    s->socketCount.Set(1);
    s->physicalCoreCount.Set(2);
    s->virtualization.Set("VT-x");
    s->virtualMachine.Set(false);
    s->frequencyDriver.Set("intel_pstate");
    s->frequencyGovernor.Set("powersave");
    s->powerPreference.Set("balance_performance");
    s->cpuPowerWatts.Set(12.5);

    s->memoryCachedBytes.Set(3 * kGiB);
    s->swapUsedBytes.Set(1 * kGiB);
    s->swapTotalBytes.Set(2 * kGiB);
    s->memoryBuffersBytes.Set(512ULL * 1024 * 1024);
    s->memorySharedBytes.Set(256ULL * 1024 * 1024);
    s->memoryKernelSlabBytes.Set(300ULL * 1024 * 1024);
    s->memoryPsiSomeAvg10.Set(0.31);

    auto disk = test::DiskDevice("nvme0n1", 2048.0, 1024.0, 12.0);
    disk.disk.systemDisk.Set(true);
    disk.disk.readBytesTotal.Set(10 * kGiB);
    disk.disk.writeBytesTotal.Set(5 * kGiB);
    disk.disk.logicalBlockSize.Set(512);
    disk.disk.scheduler.Set("none");
    disk.disk.averageResponseMs.Set(1.5);
    s->devices.push_back(disk);

    auto net = test::NetworkDevice("enp3s0", 4096.0, 1024.0);
    net.network.receivedBytesTotal.Set(3 * kGiB);
    net.network.sentBytesTotal.Set(1 * kGiB);
    net.network.hardwareAddress.Set("08:00:27:aa:bb:cc");
    net.network.ipv4Addresses.Set("192.0.2.7");
    net.network.ipv6Addresses.Set("2001:db8::7");
    net.network.mtu.Set(1500);
    net.network.state.Set("up");
    net.network.linkBitsPerSecond.Set(1'000'000'000ULL);
    s->devices.push_back(net);

    auto gpu = test::GpuDevice("0000:01:00.0", 40.0);
    gpu.gpu.clockHz.Set(1'500'000'000ULL);
    gpu.gpu.powerWatts.Set(55.0);
    gpu.gpu.maximumClockHz.Set(2'100'000'000ULL);
    gpu.gpu.memoryClockHz.Set(875'000'000ULL);
    gpu.gpu.maximumMemoryClockHz.Set(1'000'000'000ULL);
    gpu.gpu.powerLimitWatts.Set(180.0);
    gpu.gpu.dedicatedMemoryBytes.Set(8 * kGiB);
    gpu.gpu.sharedMemoryBytes.Set(4 * kGiB);
    gpu.gpu.sharedInUseMemoryBytes.Set(1 * kGiB);
    gpu.gpu.videoEncodePercent.Set(3.0);
    gpu.gpu.videoDecodePercent.Set(4.0);
    gpu.gpu.openGlVersion.Set("4.6");
    gpu.gpu.vulkanVersion.Set("1.3");
    gpu.gpu.link.Set("Gen 4 x16");
    gpu.gpu.driver.Set("amdgpu");
    gpu.gpu.driverVersion.Set("6.1.0");
    gpu.gpu.bus.Set("PCI bus 1, device 0, function 0");
    s->devices.push_back(gpu);

    test::AddBattery(*s, 80.0);
    s->powerSource.Set("Battery");
    s->batteryCycleCount.Set(120);
    s->batteryCondition.Set("Normal");
    s->thermalState.Set("nominal");
    return s;
}

struct OrderCase {
    core::DeviceKind kind;
    std::vector<std::string> labels;
};

class DetailFieldOrderTest : public ::testing::TestWithParam<OrderCase> {};

TEST_P(DetailFieldOrderTest, FollowsTheFixedOrderOfItsKind) {
    const auto snapshot = FullMachine();
    const auto rows = BuildDeviceRows(*snapshot, DeviceListOptions{});
    EXPECT_THAT(Labels(DeviceDetailFields(*snapshot, RowOfKind(rows, GetParam().kind))),
                ElementsAreArray(GetParam().labels));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, DetailFieldOrderTest,
    ::testing::Values(
        OrderCase{core::DeviceKind::cpu,
                  {"Processes", "Threads", "Up time", "Base speed", "Sockets", "Physical cores", "Logical processors",
                   "Virtualization", "Virtual machine", "Frequency driver", "Governor", "Power"}},
        OrderCase{core::DeviceKind::memory,
                  {"Available", "Cached", "Swap used", "Buffers", "Shared", "Slab", "Memory PSI some avg10"}},
        OrderCase{core::DeviceKind::disk,
                  {"Capacity", "Utilization", "Speed", "Media", "Rotational", "Write", "Read", "Total read",
                   "Total written", "Logical block size", "I/O scheduler", "Solid state", "Average response"}},
        OrderCase{core::DeviceKind::network,
                  {"Send", "Receive", "Total received", "Total sent", "Interface", "Type", "IPv4", "IPv6", "MTU",
                   "Operational state"}},
        OrderCase{core::DeviceKind::gpu,
                  {"Current clock", "Power draw", "Max clock", "Memory clock", "Max memory clock", "Power limit",
                   "Dedicated GPU memory", "Shared GPU memory", "Video encode", "Video decode", "Graphics API",
                   "PCI Express", "Driver version", "Physical location"}},
        OrderCase{core::DeviceKind::energy,
                  {"Power source", "Charging", "Cycle count", "Condition", "Thermal state"}}));

struct ValueCase {
    core::DeviceKind kind;
    const char* label;
    const char* value;
};

class DetailFieldValueTest : public ::testing::TestWithParam<ValueCase> {};

TEST_P(DetailFieldValueTest, UsesTheSharedUnitTexts) {
    SetTemperatureScale(TemperatureScale::celsius);
    const auto snapshot = FullMachine();
    const auto rows = BuildDeviceRows(*snapshot, DeviceListOptions{});
    const auto fields = DeviceDetailFields(*snapshot, RowOfKind(rows, GetParam().kind));
    EXPECT_EQ(ValueOf(fields, GetParam().label), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, DetailFieldValueTest,
    ::testing::Values(ValueCase{core::DeviceKind::cpu, "Up time", "1:01:01:01"},
                      ValueCase{core::DeviceKind::cpu, "Threads", "812"},
                      ValueCase{core::DeviceKind::cpu, "Base speed", "2.10 GHz"},
                      ValueCase{core::DeviceKind::cpu, "Governor", "powersave · balance_performance"},
                      ValueCase{core::DeviceKind::cpu, "Virtual machine", "No"},
                      ValueCase{core::DeviceKind::cpu, "Power", "12.5 W"},
                      ValueCase{core::DeviceKind::memory, "Swap used", "1.0 GB / 2.0 GB"},
                      ValueCase{core::DeviceKind::memory, "Memory PSI some avg10", "0.3%"},
                      ValueCase{core::DeviceKind::disk, "Speed", "3.00 KB/sec"},
                      ValueCase{core::DeviceKind::disk, "Media", "SSD · System disk"},
                      ValueCase{core::DeviceKind::disk, "Solid state", "Yes"},
                      ValueCase{core::DeviceKind::disk, "Logical block size", "512 B"},
                      ValueCase{core::DeviceKind::disk, "Average response", "1.50 ms"},
                      ValueCase{core::DeviceKind::network, "Interface", "enp3s0 · 08:00:27:aa:bb:cc"},
                      ValueCase{core::DeviceKind::network, "Operational state", "up · 1000 Mb/s"},
                      ValueCase{core::DeviceKind::network, "Receive", "4.00 KB/sec"},
                      ValueCase{core::DeviceKind::gpu, "Graphics API", "OpenGL 4.6 · Vulkan 1.3"},
                      ValueCase{core::DeviceKind::gpu, "Dedicated GPU memory", "2.0 GB / 8.0 GB"},
                      ValueCase{core::DeviceKind::gpu, "Driver version", "amdgpu · 6.1.0"},
                      ValueCase{core::DeviceKind::gpu, "Power draw", "55.0 W"},
                      ValueCase{core::DeviceKind::energy, "Charging", "No"}));

TEST(PerformanceDetailFields, StaleReadingsSayStaleAndMissingOnesAreLeftOut) {
    auto snapshot = test::MachineSnapshot(9);
    snapshot->memoryCachedBytes.Set(2 * kGiB, 8);
    snapshot->memoryCachedBytes.availability = core::MetricAvailability::stale;
    snapshot->memoryBuffersBytes.MarkMissing(core::MetricAvailability::transientError);
    const auto rows = BuildDeviceRows(*snapshot, DeviceListOptions{});
    const auto fields = DeviceDetailFields(*snapshot, RowOfKind(rows, core::DeviceKind::memory));
    EXPECT_EQ(ValueOf(fields, "Cached"), "2.0 GB (stale)");
    EXPECT_EQ(ValueOf(fields, "Buffers"), "<absent>");
    EXPECT_THAT(Labels(fields), ElementsAre("Available", "Cached"));
}

struct PowercapCase {
    std::int64_t nativeError;
    const char* value;
};

class PowercapAccessTest : public ::testing::TestWithParam<PowercapCase> {};

TEST_P(PowercapAccessTest, NamesTheMissingReadPermission) {
    auto snapshot = test::MachineSnapshot(3);
    snapshot->cpuPowerWatts.MarkMissing(core::MetricAvailability::transientError);
    core::ProviderHealthRecord powercap;
    powercap.provider = "linux.powercap";
    powercap.state = core::ProviderHealth::degraded;
    powercap.nativeError = GetParam().nativeError;
    snapshot->providers.push_back(powercap);
    const auto rows = BuildDeviceRows(*snapshot, DeviceListOptions{});
    const auto fields = DeviceDetailFields(*snapshot, RowOfKind(rows, core::DeviceKind::cpu));
    EXPECT_EQ(ValueOf(fields, "Power"), GetParam().value);
    const bool needed = std::string(GetParam().value) == "Access needed";
    EXPECT_EQ(PowercapAccessNeeded(*snapshot), needed);
    if (needed) {
        EXPECT_EQ(fields.back().note.toStdString(), "Read permission, which by default only root has");
    }
}

INSTANTIATE_TEST_SUITE_P(Errors, PowercapAccessTest,
                         ::testing::Values(PowercapCase{EACCES, "Access needed"}, PowercapCase{EPERM, "Access needed"},
                                           PowercapCase{ENOENT, "<absent>"}, PowercapCase{0, "<absent>"}));

TEST(PerformanceDetailFields, CombinedRowsSumRatesAndAverageActiveTime) {
    auto snapshot = test::MachineSnapshot(4);
    snapshot->devices.push_back(test::DiskDevice("sda", 1024.0, 0.0, 10.0));
    auto second = test::DiskDevice("sdb", 3072.0, 2048.0, 30.0);
    second.disk.type.Set("HDD");
    second.disk.rotational.Set(true);
    snapshot->devices.push_back(second);
    const auto rows = BuildDeviceRows(*snapshot, DeviceListOptions{true, true, false});
    const DeviceRowSpec& disks = RowOfKind(rows, core::DeviceKind::disk);
    ASSERT_TRUE(disks.combined);
    const auto fields = DeviceDetailFields(*snapshot, disks);
    EXPECT_EQ(ValueOf(fields, "Read"), "4.00 KB/sec");
    EXPECT_EQ(ValueOf(fields, "Write"), "2.00 KB/sec");
    EXPECT_EQ(ValueOf(fields, "Utilization"), "20.0%");
    EXPECT_EQ(ValueOf(fields, "Capacity"), "1.0 TB");
    EXPECT_EQ(ValueOf(fields, "Media"), "SSD · HDD");
    EXPECT_EQ(DeviceRowSubtitle(disks, *snapshot).toStdString(), "2 disks\n20.0%");
}

TEST(PerformanceDetailFields, FiguresAndClipboardTextCarryTheLiveReadings) {
    const auto snapshot = FullMachine();
    const auto rows = BuildDeviceRows(*snapshot, DeviceListOptions{});
    const DevicePaneText pane = BuildDevicePaneText(*snapshot, RowOfKind(rows, core::DeviceKind::cpu));
    EXPECT_EQ(pane.model.toStdString(), "Test CPU 9000");
    EXPECT_THAT(Labels(pane.figures), ElementsAre("Utilization", "Speed"));
    const QString text = PaneClipboardText(pane);
    EXPECT_TRUE(text.startsWith(QStringLiteral("CPU\nTest CPU 9000\n\n")));
    EXPECT_TRUE(text.contains(QStringLiteral("Speed\t3.40 GHz\n")));
    EXPECT_TRUE(text.contains(QStringLiteral("Logical processors\t4\n")));
}

HistorySeries SeriesOf(std::initializer_list<std::pair<std::uint64_t, std::optional<double>>> points) {
    HistorySeries series(16);
    for (const auto& [generation, value] : points) series.Append(HistoryPoint{generation, generation * 10, value});
    return series;
}

TEST(PerformanceSeriesCombine, MatchesPointsByGenerationAndKeepsGaps) {
    const HistorySeries early = SeriesOf({{1, 1.0}, {2, 2.0}, {3, std::nullopt}, {4, 4.0}});
    const HistorySeries late = SeriesOf({{3, std::nullopt}, {4, 40.0}});
    const HistorySeries sum = CombineSeries({&early, &late, nullptr}, CombineRule::sum, 16);
    ASSERT_EQ(sum.Size(), 4u);
    EXPECT_EQ(sum.At(0).value, std::optional<double>(1.0));
    EXPECT_EQ(sum.At(1).value, std::optional<double>(2.0));
    EXPECT_FALSE(sum.At(2).value.has_value());
    EXPECT_EQ(sum.At(3).value, std::optional<double>(44.0));
    EXPECT_EQ(sum.At(3).monotonicNs, 40u);
    const HistorySeries mean = CombineSeries({&early, &late}, CombineRule::mean, 2);
    ASSERT_EQ(mean.Size(), 2u);
    EXPECT_EQ(mean.At(1).value, std::optional<double>(22.0));
}

TEST(PerformanceSeriesCombine, RateScaleRoundsUpInBinaryUnits) {
    EXPECT_DOUBLE_EQ(RateScaleFor(0.0, 65536.0), 65536.0);
    EXPECT_DOUBLE_EQ(RateScaleFor(70'000.0, 1024.0), 100.0 * 1024.0);
    EXPECT_DOUBLE_EQ(RateScaleFor(1.5 * 1024 * 1024, 1024.0), 2.0 * 1024 * 1024);
    EXPECT_DOUBLE_EQ(RateScaleFor(999.0 * 1024, 1024.0), 1000.0 * 1024);
    EXPECT_DOUBLE_EQ(RateScaleFor(1001.0 * 1024, 1024.0), 1024.0 * 1024);  // 1001 KB fits under 1 MB
}

TEST(PerformanceSeriesCombine, PageKeepsWhatTheSharedHistoryLacks) {
    HistoryStore shared(64);
    PerformanceSeries series(&shared, 64);
    for (std::uint64_t generation = 1; generation <= 5; ++generation) {
        auto snapshot = test::MachineSnapshot(generation);
        test::AddBattery(*snapshot, 50.0 + static_cast<double>(generation));
        snapshot->devices.push_back(test::GpuDevice("0000:01:00.0", 20.0));
        shared.Append(*snapshot);
        series.Feed(*snapshot);
        series.Feed(*snapshot);  // the same snapshot twice counts once
    }
    const HistorySeries* charge = series.Find(BatteryChargeSeriesId());
    ASSERT_NE(charge, nullptr);
    EXPECT_EQ(charge->Size(), 5u);
    EXPECT_EQ(charge->Latest().value, std::optional<double>(55.0));
    ASSERT_NE(series.Find(GpuEngineSeriesId("linux-drm-pci:0000:01:00.0", "video")), nullptr);
    EXPECT_EQ(series.Find(LogicalKernelSeriesId(3))->Latest().value, std::optional<double>(4.0));
    EXPECT_EQ(series.Find("cpu.total"), shared.Find("cpu.total"));
    EXPECT_EQ(series.Find("no.such.series"), nullptr);
}

bool SamePoints(const std::deque<GraphPoint>& a, const std::deque<GraphPoint>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const GraphPoint& x, const GraphPoint& y) {
        return x.timeNs == y.timeNs && x.valid == y.valid && x.gapBefore == y.gapBefore &&
               (!x.valid || x.value == y.value);
    });
}

TEST(PerformanceSeriesExtend, NewPointsOnlyGiveTheSameCurveAsAFullConversion) {
    constexpr std::uint64_t kInterval = 100;
    HistorySeries series(8);
    std::deque<GraphPoint> held;
    std::uint64_t time = 0;
    for (std::uint64_t generation = 1; generation <= 30; ++generation) {
        time += generation == 17 ? 1000 : kInterval;  // a stall: the curve restarts there
        const std::optional<double> value =
            generation % 7 == 0 ? std::nullopt : std::optional<double>(static_cast<double>(generation));
        series.Append(HistoryPoint{generation, time, value});
        if (generation % 3 == 0) continue;  // sometimes two points arrive between updates
        const auto extended = ExtendPoints(series, kInterval, held);
        const auto full = GraphPointsFromHistory(series, kInterval);
        if (!held.empty()) {
            ASSERT_TRUE(extended.has_value()) << "generation " << generation;
            EXPECT_TRUE(SamePoints(*extended, full)) << "generation " << generation;
        }
        held = full;
    }
    // Points of another series do not line up and are not reused.
    HistorySeries other(8);
    for (std::uint64_t generation = 1; generation <= 3; ++generation) {
        other.Append(HistoryPoint{generation, generation * 7, 1.0});
    }
    EXPECT_FALSE(ExtendPoints(other, kInterval, held).has_value());
    EXPECT_FALSE(ExtendPoints(series, kInterval, {}).has_value());
}

TEST(CpuCoreGrid, ColumnsKeepCellsWiderThanHigh) {
    EXPECT_EQ(CpuCoreGridWidget::ColumnsFor(1, QSize(800, 400), 1.8), 1);
    EXPECT_EQ(CpuCoreGridWidget::ColumnsFor(4, QSize(800, 400), 1.8), 2);
    EXPECT_EQ(CpuCoreGridWidget::ColumnsFor(16, QSize(800, 400), 1.8), 4);
    EXPECT_EQ(CpuCoreGridWidget::ColumnsFor(8, QSize(1600, 100), 1.8), 8);
    EXPECT_EQ(CpuCoreGridWidget::ColumnsFor(8, QSize(100, 1600), 1.8), 1);
}

TEST(DetailPane, ProcessFieldsInOrderAndThePlaceholderWithoutSelection) {
    core::ProcessSnapshot process;
    process.key = core::ProcessKey{1234, 99};
    process.parentKey = core::ProcessKey{1, 1};
    process.userName = "ada";
    process.threadCount.Set(12);
    process.totalCpuTimeNs.Set(3'723'000'000'000ULL);
    process.kernelTimeNs.Set(61'000'000'000ULL);
    process.userTimeNs.Set(3'662'000'000'000ULL);
    process.workingSetBytes.Set(300ULL * 1024 * 1024);
    process.peakWorkingSetBytes.Set(400ULL * 1024 * 1024);
    process.virtualBytes.Set(2 * kGiB);
    process.sharedBytes.Set(20ULL * 1024 * 1024);
    process.swapBytes.Set(0);
    process.handleCount.Set(64);
    process.nice.Set(-5.0);
    process.executablePath = "/usr/bin/editor";
    const auto fields = ProcessDetailFields(process, QStringLiteral("/user.slice"));
    EXPECT_THAT(Labels(fields),
                ElementsAre("PID", "Parent", "User", "Threads", "CPU time", "Kernel time", "User time", "Memory",
                            "Peak memory", "Virtual", "Shared", "Swap", "File descriptors", "Nice", "Cgroup",
                            "Image path"));
    EXPECT_EQ(ValueOf(fields, "CPU time"), "1:02:03");
    EXPECT_EQ(ValueOf(fields, "Swap"), "0 B");
    EXPECT_EQ(ValueOf(fields, "Nice"), "-5");

    DetailPaneWidget pane;
    EXPECT_FALSE(pane.HasSelection());
    EXPECT_EQ(pane.PlaceholderText().toStdString(), "Select a single entry for detail information.");
    pane.ShowProcess(process);
    EXPECT_TRUE(pane.HasSelection());
    EXPECT_EQ(pane.Fields().size(), fields.size() - 1);  // no cgroup given
    pane.ClearSelection();
    EXPECT_TRUE(pane.Fields().empty());
}

}  // namespace
}  // namespace korv::host::linux_client
