#include "core/telemetry_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace korv::core {
namespace {

SystemSnapshot BaseSnapshot() {
    SystemSnapshot s;
    s.schemaVersion = kSnapshotSchemaVersion;
    s.generation = 9;
    s.monotonicNs = 123456;
    s.cpuUtilization.Set(37.5, 9);
    s.cpuUtilization.source = "linux.cpu";
    s.cpuKernelUtilization.MarkMissing(MetricAvailability::notYetAvailable);
    s.memoryTotalBytes.Set(8000, 9);
    s.memoryInUseBytes.Set(2000, 9);
    s.swapTotalBytes.MarkMissing(MetricAvailability::unsupported);
    s.cpuPowerWatts.MarkMissing(MetricAvailability::accessDenied);
    s.logicalProcessorCount = 2;
    for (std::uint32_t i = 0; i < 2; ++i) {
        LogicalProcessorSnapshot cpu;
        cpu.index = i;
        cpu.processorClass = i == 0 ? ProcessorClass::performance : ProcessorClass::efficiency;
        cpu.utilization.Set(10.0 * (i + 1), 9);
        s.logicalProcessors.push_back(cpu);
    }
    return s;
}

DeviceSnapshot Interface(std::string id, double rx, double tx) {
    DeviceSnapshot d;
    d.kind = DeviceKind::network;
    d.id = std::move(id);
    d.displayName = d.id;
    d.network.receiveBytesPerSecond.Set(rx, 9);
    d.network.sendBytesPerSecond.Set(tx, 9);
    d.network.linkBitsPerSecond.Set(1000, 9);
    return d;
}

TEST(TelemetryBuilder, CarriesValuesWithTheirAvailabilityUnderCatalogueIds) {
    const SystemSnapshot s = BaseSnapshot();
    const HardwareTelemetryFrame frame = BuildTelemetryFrame(s);
    EXPECT_EQ(frame.generation, 9u);
    EXPECT_EQ(frame.monotonicNs, 123456u);
    EXPECT_TRUE(IsValid(frame));

    const auto* busy = frame.Find("cpu.package.utilization.busy_pct");
    ASSERT_NE(busy, nullptr);
    EXPECT_EQ(busy->deviceId, "cpu:package:0");
    EXPECT_EQ(busy->displayName, "Utilization");
    EXPECT_EQ(busy->unit, MetricUnit::percent);
    EXPECT_EQ(busy->sourceName, "linux.cpu");
    EXPECT_DOUBLE_EQ(*busy->numericValue, 37.5);

    // Missing values stay listed with their reason; what the platform lacks entirely is left out.
    const auto* kernel = frame.Find("cpu.package.utilization.kernel_pct");
    ASSERT_NE(kernel, nullptr);
    EXPECT_EQ(kernel->availability, MetricAvailability::notYetAvailable);
    EXPECT_FALSE(kernel->numericValue.has_value());
    EXPECT_EQ(frame.Find("system.power.cpu_w")->availability, MetricAvailability::accessDenied);
    EXPECT_EQ(frame.Find("system.power.input_w")->availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(frame.Find("memory.swap.total_bytes"), nullptr);
}

TEST(TelemetryBuilder, LogicalProcessorsAndDerivedMemoryShare) {
    const HardwareTelemetryFrame frame = BuildTelemetryFrame(BaseSnapshot());
    const auto* device = frame.FindDevice("cpu:logical:1");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->displayName, "CPU 1");
    EXPECT_EQ(device->kind, TelemetryDeviceKind::cpuLogicalProcessor);
    bool sawClass = false;
    for (const auto& [name, value] : device->properties) {
        if (name == "processorClass") {
            EXPECT_EQ(value, "efficiency");
            sawClass = true;
        }
    }
    EXPECT_TRUE(sawClass);
    const auto* busy = frame.Find("cpu.logical.1.utilization.busy_pct", "cpu:logical:1");
    ASSERT_NE(busy, nullptr);
    EXPECT_DOUBLE_EQ(*busy->numericValue, 20.0);
    EXPECT_DOUBLE_EQ(*frame.Find("memory.utilization.used_pct")->numericValue, 25.0);
}

TEST(TelemetryBuilder, NetworkAggregateSumsInterfacesAndNeedsEveryRate) {
    SystemSnapshot s = BaseSnapshot();
    s.devices.push_back(Interface("eth0", 100, 10));
    s.devices.push_back(Interface("wlan0", 50, 5));
    HardwareTelemetryFrame frame = BuildTelemetryFrame(s);
    EXPECT_TRUE(IsValid(frame));
    EXPECT_DOUBLE_EQ(*frame.Find("network.aggregate.rx_bytes_per_second")->numericValue, 150.0);
    EXPECT_DOUBLE_EQ(*frame.Find("network.aggregate.tx_bytes_per_second")->numericValue, 15.0);
    EXPECT_DOUBLE_EQ(*frame.Find("network.rx_bytes_per_second", "network:wlan0")->numericValue, 50.0);
    // The busier direction against the link: 100 B/s is 800 bit/s of 1000.
    EXPECT_DOUBLE_EQ(*frame.Find("network.utilization_pct", "network:eth0")->numericValue, 80.0);

    s.devices[1].network.receiveBytesPerSecond.MarkMissing(MetricAvailability::notYetAvailable);
    frame = BuildTelemetryFrame(s);
    EXPECT_EQ(frame.Find("network.aggregate.rx_bytes_per_second")->availability, MetricAvailability::notYetAvailable);
    EXPECT_DOUBLE_EQ(*frame.Find("network.aggregate.tx_bytes_per_second")->numericValue, 15.0);
}

TEST(TelemetryBuilder, EnginesGetStableIds) {
    SystemSnapshot s = BaseSnapshot();
    DeviceSnapshot gpu;
    gpu.kind = DeviceKind::gpu;
    gpu.id = "card0";
    gpu.displayName = "GPU 0";
    EngineUtilization engine;
    engine.name = "Video Decode 0";
    engine.utilizationPercent.Set(12.0, 9);
    gpu.gpu.engines.push_back(engine);
    s.devices.push_back(gpu);
    const HardwareTelemetryFrame frame = BuildTelemetryFrame(s);
    const auto* metric = frame.Find("accelerator.engine.video_decode_0.utilization_pct", "gpu:card0");
    ASSERT_NE(metric, nullptr);
    EXPECT_EQ(metric->displayName, "Accelerator engine");
}

TEST(TelemetryBuilder, EngineNamesThatComeOutAlikeKeepTheirOwnReadings) {
    SystemSnapshot s = BaseSnapshot();
    DeviceSnapshot gpu;
    gpu.kind = DeviceKind::gpu;
    gpu.id = "card0";
    gpu.displayName = "GPU 0";
    const std::pair<const char*, double> engines[] = {
        {"Video Enhance", 10.0}, {"video-enhance", 20.0}, {"VIDEO_ENHANCE", 30.0}, {"video_enhance_2", 40.0}};
    for (const auto& [name, busy] : engines) {
        EngineUtilization engine;
        engine.name = name;
        engine.utilizationPercent.Set(busy, 9);
        gpu.gpu.engines.push_back(engine);
    }
    s.devices.push_back(gpu);
    const HardwareTelemetryFrame frame = BuildTelemetryFrame(s);
    EXPECT_TRUE(IsValid(frame));
    const std::pair<const char*, double> expected[] = {
        {"accelerator.engine.video_enhance.utilization_pct", 10.0},
        {"accelerator.engine.video_enhance_2.utilization_pct", 20.0},
        {"accelerator.engine.video_enhance_3.utilization_pct", 30.0},
        {"accelerator.engine.video_enhance_2_2.utilization_pct", 40.0},
    };
    for (const auto& [id, busy] : expected) {
        const TelemetryMetric* metric = frame.Find(id, "gpu:card0");
        ASSERT_NE(metric, nullptr) << id;
        EXPECT_EQ(metric->numericValue, busy) << id;
    }
}

TEST(TelemetryBuilder, VolumesCarryTheirUsedSpace) {
    HardwareTelemetryFrame frame = BuildTelemetryFrame(BaseSnapshot());
    std::vector<VolumeUsage> volumes(3);
    volumes[0].id = "/dev/sda2";
    volumes[0].displayName = "/";
    volumes[0].usedPercent.Set(41.5, 9);
    volumes[1].id = "/dev/sdb1";
    volumes[1].displayName = "/srv";
    volumes[1].usedPercent.MarkMissing(MetricAvailability::accessDenied);
    volumes[2] = volumes[0];  // the same file system mounted a second time
    volumes[2].displayName = "/mnt/again";
    AddVolumeTelemetry(frame, volumes);
    EXPECT_TRUE(IsValid(frame));

    const TelemetryDevice* root = frame.FindDevice("volume:/dev/sda2");
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->kind, TelemetryDeviceKind::volume);
    EXPECT_EQ(root->displayName, "/");
    const TelemetryMetric* used = frame.Find("volume.used_pct", "volume:/dev/sda2");
    ASSERT_NE(used, nullptr);
    EXPECT_EQ(used->displayName, "Used space");
    EXPECT_EQ(used->sourceName, "Mounted volume");
    EXPECT_EQ(used->unit, MetricUnit::percent);
    EXPECT_EQ(used->numericValue, 41.5);

    const TelemetryMetric* denied = frame.Find("volume.used_pct", "volume:/dev/sdb1");
    ASSERT_NE(denied, nullptr);
    EXPECT_EQ(denied->availability, MetricAvailability::accessDenied);
    EXPECT_FALSE(denied->numericValue.has_value());
    EXPECT_EQ(std::count_if(frame.devices.begin(), frame.devices.end(),
                            [](const TelemetryDevice& d) { return d.kind == TelemetryDeviceKind::volume; }),
              2);
}

TEST(TelemetryBuilder, AppearanceGenerationMovesOnlyWhenTheDeviceSetChanges) {
    TelemetryAppearance appearance;
    const auto stamped = [&](const SystemSnapshot& s) {
        HardwareTelemetryFrame frame = BuildTelemetryFrame(s);
        appearance.Stamp(frame);
        for (const auto& device : frame.devices) {
            EXPECT_EQ(device.appearanceGeneration, frame.devices.front().appearanceGeneration) << device.id;
        }
        return frame.devices.front().appearanceGeneration;
    };
    SystemSnapshot s = BaseSnapshot();
    EXPECT_EQ(stamped(s), ":appearance:1");
    s.cpuUtilization.Set(90.0, 10);
    EXPECT_EQ(stamped(s), ":appearance:1");
    s.devices.push_back(Interface("eth0", 1.0, 2.0));
    EXPECT_EQ(stamped(s), ":appearance:2");
    EXPECT_EQ(stamped(s), ":appearance:2");
    s.devices.clear();
    EXPECT_EQ(stamped(s), ":appearance:3");
}

TEST(TelemetryBuilder, GpuIdentityAndVendorProvenance) {
    SystemSnapshot s = BaseSnapshot();
    DeviceSnapshot gpu;
    gpu.kind = DeviceKind::gpu;
    gpu.id = "linux-drm-pci:0000:03:00.0";
    gpu.displayName = "Radeon";
    gpu.gpu.vendor.Set(std::string("AMD"), 9);
    gpu.gpu.driver.Set(std::string("amdgpu"), 9);
    gpu.gpu.hotspotTemperatureCelsius.Set(71.0, 9);
    gpu.gpu.hotspotTemperatureCelsius.source = "linux.gpu.drm";
    gpu.gpu.sharedInUseMemoryBytes.Set(4096, 9);
    gpu.gpu.socTemperatureCelsius.MarkMissing(MetricAvailability::unsupported);
    gpu.gpu.utilizationPercent.Set(40.0, 9);
    gpu.gpu.utilizationPercent.source = "linux.gpu.nvml";
    s.devices.push_back(gpu);
    const HardwareTelemetryFrame frame = BuildTelemetryFrame(s);
    ASSERT_TRUE(IsValid(frame));
    const std::string id = "gpu:linux-drm-pci:0000:03:00.0";
    const TelemetryDevice* device = frame.FindDevice(id);
    ASSERT_NE(device, nullptr);
    EXPECT_NE(std::find(device->properties.begin(), device->properties.end(),
                        std::pair<std::string, std::string>("vendor", "AMD")),
              device->properties.end());
    EXPECT_DOUBLE_EQ(*frame.Find("gpu.temperature.hotspot_c", id)->numericValue, 71.0);
    EXPECT_EQ(frame.Find("gpu.temperature.hotspot_c", id)->provenance, ProvenanceTier::nativeOs);
    EXPECT_DOUBLE_EQ(*frame.Find("accelerator.memory.nonlocal.resident_bytes", id)->numericValue, 4096.0);
    EXPECT_EQ(frame.Find("gpu.utilization_pct", id)->provenance, ProvenanceTier::officialVendorApi);
    EXPECT_EQ(frame.Find("gpu.temperature.soc_c", id), nullptr);
}

TEST(TelemetrySummary, PrefersCapacityAndUsedOverTotalAndInUse) {
    HardwareTelemetryFrame frame = BuildTelemetryFrame(BaseSnapshot());
    TelemetrySummary summary = SummarizeTelemetry(frame);
    EXPECT_DOUBLE_EQ(*summary.memoryTotalBytes, 8000.0);
    EXPECT_DOUBLE_EQ(*summary.memoryUsedBytes, 2000.0);
    EXPECT_DOUBLE_EQ(*summary.cpuPercent, 37.5);
    EXPECT_FALSE(summary.networkReceiveBytesPerSecond.has_value());

    TelemetryMetric capacity;
    capacity.id = "memory.physical.capacity_bytes";
    capacity.deviceId = "memory:system";
    capacity.numericValue = 8192.0;
    capacity.availability = MetricAvailability::valid;
    frame.metrics.push_back(capacity);
    TelemetryMetric used = capacity;
    used.id = "memory.physical.used_bytes";
    used.numericValue = 4096.0;
    frame.metrics.push_back(used);
    summary = SummarizeTelemetry(frame);
    EXPECT_DOUBLE_EQ(*summary.memoryTotalBytes, 8192.0);
    EXPECT_DOUBLE_EQ(*summary.memoryUsedBytes, 4096.0);
}

}  // namespace
}  // namespace korv::core
