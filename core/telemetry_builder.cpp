#include "core/telemetry_builder.h"

#include <algorithm>
#include <set>
#include <string>

namespace korv::core {
namespace {

struct Entry {
    std::string_view id;
    std::string_view displayName;
    MetricCategory category;
    MetricUnit unit;
    MetricKind kind = MetricKind::gauge;
};

// The vendor library is a more direct source than sysfs; everything else here comes from the kernel.
ProvenanceTier ProvenanceFor(std::string_view source) noexcept {
    return source == "linux.gpu.nvml" ? ProvenanceTier::officialVendorApi : ProvenanceTier::nativeOs;
}

class FrameBuilder {
public:
    explicit FrameBuilder(HardwareTelemetryFrame& frame) : frame_(frame) {}

    TelemetryDevice& Device(std::string id, TelemetryDeviceKind kind, std::string displayName) {
        TelemetryDevice device;
        device.id = std::move(id);
        device.kind = kind;
        device.displayName = std::move(displayName);
        device.legacyPersistentId = device.id;
        frame_.devices.push_back(std::move(device));
        return frame_.devices.back();
    }

    // The added metric, or null when the platform has no such value at all.
    template <typename T>
    TelemetryMetric* Add(std::string_view deviceId, const Entry& entry, const Metric<T>& metric, std::string id = {}) {
        if (metric.availability == MetricAvailability::unsupported ||
            metric.availability == MetricAvailability::notApplicable) {
            return nullptr;
        }
        TelemetryMetric out;
        out.id = id.empty() ? std::string(entry.id) : std::move(id);
        out.deviceId = std::string(deviceId);
        out.displayName = std::string(entry.displayName);
        out.sourceName = metric.source;
        out.category = entry.category;
        out.unit = entry.unit;
        out.kind = entry.kind;
        out.provenance = ProvenanceFor(metric.source);
        out.availability = metric.availability;
        if (metric.value && CarriesValue(metric.availability)) {
            if constexpr (std::is_same_v<T, std::string>) {
                out.textValue = *metric.value;
            } else if constexpr (std::is_same_v<T, bool>) {
                out.numericValue = *metric.value ? 1.0 : 0.0;
            } else {
                out.numericValue = static_cast<double>(*metric.value);
            }
        } else if (CarriesValue(metric.availability)) {
            out.availability = MetricAvailability::transientError;
        }
        frame_.metrics.push_back(std::move(out));
        return &frame_.metrics.back();
    }

    void AddDerived(std::string_view deviceId, const Entry& entry, std::optional<double> value, std::string_view source) {
        TelemetryMetric out;
        out.id = std::string(entry.id);
        out.deviceId = std::string(deviceId);
        out.displayName = std::string(entry.displayName);
        out.sourceName = std::string(source);
        out.category = entry.category;
        out.unit = entry.unit;
        out.kind = MetricKind::derivedRate;
        out.numericValue = value;
        out.availability = !value ? MetricAvailability::notYetAvailable
                                  : (*value == 0.0 ? MetricAvailability::zero : MetricAvailability::valid);
        frame_.metrics.push_back(std::move(out));
    }

private:
    HardwareTelemetryFrame& frame_;
};

template <typename T>
void AddProperty(TelemetryDevice& device, std::string_view name, const Metric<T>& metric) {
    if (!metric.value) return;
    if constexpr (std::is_same_v<T, std::string>) {
        device.properties.emplace_back(name, *metric.value);
    } else if constexpr (std::is_same_v<T, bool>) {
        device.properties.emplace_back(name, *metric.value ? "true" : "false");
    } else {
        device.properties.emplace_back(name, std::to_string(*metric.value));
    }
}

constexpr Entry kCpuBusy{"cpu.package.utilization.busy_pct", "Utilization", MetricCategory::utilization, MetricUnit::percent};
constexpr Entry kCpuKernel{"cpu.package.utilization.kernel_pct", "Kernel utilization", MetricCategory::utilization,
                           MetricUnit::percent};
constexpr Entry kCpuClock{"cpu.package.frequency.average_reported_hz", "Reported clock", MetricCategory::clocks,
                          MetricUnit::hertz};
constexpr Entry kCpuBase{"cpu.package.frequency.base_hz", "Base clock", MetricCategory::clocks, MetricUnit::hertz,
                         MetricKind::staticProperty};
constexpr Entry kCpuCores{"cpu.package.topology.physical_core_count", "Physical cores", MetricCategory::general,
                          MetricUnit::count, MetricKind::staticProperty};
constexpr Entry kCpuSockets{"cpu.package.topology.socket_count", "Sockets", MetricCategory::general, MetricUnit::count,
                            MetricKind::staticProperty};
constexpr Entry kLogicalBusy{"busy_pct", "Utilization", MetricCategory::utilization, MetricUnit::percent};
constexpr Entry kLogicalKernel{"kernel_pct", "Kernel utilization", MetricCategory::utilization, MetricUnit::percent};

constexpr Entry kMemTotal{"memory.physical.total_bytes", "Installed memory", MetricCategory::memory, MetricUnit::bytes};
constexpr Entry kMemInUse{"memory.physical.in_use_bytes", "Memory in use", MetricCategory::memory, MetricUnit::bytes};
constexpr Entry kMemAvailable{"memory.physical.available_bytes", "Available memory", MetricCategory::memory,
                              MetricUnit::bytes};
constexpr Entry kMemCached{"memory.cached_bytes", "Cached memory", MetricCategory::memory, MetricUnit::bytes};
constexpr Entry kMemPressure{"memory.pressure_pct", "Memory pressure", MetricCategory::levels, MetricUnit::percent};
constexpr Entry kSwapUsed{"memory.swap.used_bytes", "Swap used", MetricCategory::memory, MetricUnit::bytes};
constexpr Entry kSwapTotal{"memory.swap.total_bytes", "Swap total", MetricCategory::memory, MetricUnit::bytes};
constexpr Entry kMemUsedPct{"memory.utilization.used_pct", "Memory used", MetricCategory::utilization,
                            MetricUnit::percent, MetricKind::derivedRate};

constexpr Entry kPowerInput{"system.power.input_w", "System power", MetricCategory::powers, MetricUnit::watts};
constexpr Entry kPowerCpu{"system.power.cpu_w", "CPU power", MetricCategory::powers, MetricUnit::watts};
constexpr Entry kPowerGpu{"system.power.gpu_w", "GPU power", MetricCategory::powers, MetricUnit::watts};
constexpr Entry kPowerAne{"system.power.ane_w", "Neural engine power", MetricCategory::powers, MetricUnit::watts};
constexpr Entry kPowerDram{"system.power.dram_w", "Memory power", MetricCategory::powers, MetricUnit::watts};
constexpr Entry kPowerSoc{"system.power.soc_package_w", "SoC package", MetricCategory::powers, MetricUnit::watts};

constexpr Entry kNetAggRx{"network.aggregate.rx_bytes_per_second", "Network receive", MetricCategory::throughput,
                          MetricUnit::bytesPerSecond};
constexpr Entry kNetAggTx{"network.aggregate.tx_bytes_per_second", "Network send", MetricCategory::throughput,
                          MetricUnit::bytesPerSecond};
constexpr Entry kNetRx{"network.rx_bytes_per_second", "Receive rate", MetricCategory::throughput,
                       MetricUnit::bytesPerSecond, MetricKind::derivedRate};
constexpr Entry kNetTx{"network.tx_bytes_per_second", "Send rate", MetricCategory::throughput,
                       MetricUnit::bytesPerSecond, MetricKind::derivedRate};
constexpr Entry kNetRxTotal{"network.rx_bytes_total", "Total bytes received", MetricCategory::counters,
                            MetricUnit::bytes, MetricKind::monotonicCounter};
constexpr Entry kNetTxTotal{"network.tx_bytes_total", "Total bytes sent", MetricCategory::counters, MetricUnit::bytes,
                            MetricKind::monotonicCounter};
constexpr Entry kNetLink{"network.link_bits_per_second", "Link speed", MetricCategory::speed, MetricUnit::bitsPerSecond};
constexpr Entry kNetUtil{"network.utilization_pct", "Utilization", MetricCategory::utilization, MetricUnit::percent,
                         MetricKind::derivedRate};

constexpr Entry kBatteryCharge{"battery.charge_pct", "Charge", MetricCategory::levels, MetricUnit::percent};
constexpr Entry kBatteryTime{"battery.time_remaining_s", "Time remaining", MetricCategory::general, MetricUnit::seconds};
constexpr Entry kBatteryCycles{"battery.cycle_count", "Cycle count", MetricCategory::counters, MetricUnit::count};

constexpr Entry kDiskActivity{"storage.activity_pct", "Activity", MetricCategory::utilization, MetricUnit::percent};
constexpr Entry kDiskRead{"storage.read_bytes_per_second", "Read rate", MetricCategory::throughput,
                          MetricUnit::bytesPerSecond, MetricKind::derivedRate};
constexpr Entry kDiskWrite{"storage.write_bytes_per_second", "Write rate", MetricCategory::throughput,
                           MetricUnit::bytesPerSecond, MetricKind::derivedRate};
constexpr Entry kDiskCapacity{"storage.capacity_bytes", "Capacity", MetricCategory::memory, MetricUnit::bytes,
                              MetricKind::staticProperty};
constexpr Entry kDiskReadTotal{"storage.read_bytes_total", "Total bytes read", MetricCategory::counters,
                               MetricUnit::bytes, MetricKind::monotonicCounter};
constexpr Entry kDiskWriteTotal{"storage.write_bytes_total", "Total bytes written", MetricCategory::counters,
                                MetricUnit::bytes, MetricKind::monotonicCounter};
constexpr Entry kDiskResponse{"storage.average_response_time_ms", "Response time", MetricCategory::general,
                              MetricUnit::milliseconds};

constexpr Entry kGpuUtil{"gpu.utilization_pct", "GPU utilization", MetricCategory::utilization, MetricUnit::percent};
constexpr Entry kGpuClock{"gpu.clock.graphics_hz", "Graphics clock", MetricCategory::clocks, MetricUnit::hertz};
constexpr Entry kGpuClockMax{"gpu.clock.graphics_maximum_hz", "Maximum graphics clock", MetricCategory::clocks,
                             MetricUnit::hertz, MetricKind::staticProperty};
constexpr Entry kGpuMemClock{"gpu.clock.memory_hz", "Memory clock", MetricCategory::clocks, MetricUnit::hertz};
constexpr Entry kGpuMemClockMax{"gpu.clock.memory_maximum_hz", "Maximum memory clock", MetricCategory::clocks,
                                MetricUnit::hertz, MetricKind::staticProperty};
constexpr Entry kGpuPower{"gpu.power.board_w", "Board power", MetricCategory::powers, MetricUnit::watts};
constexpr Entry kGpuPowerLimit{"gpu.power.board_limit_w", "Enforced power limit", MetricCategory::powers,
                               MetricUnit::watts, MetricKind::policyValue};
constexpr Entry kGpuHotspot{"gpu.temperature.hotspot_c", "GPU hotspot temperature", MetricCategory::temperatures,
                             MetricUnit::celsius};
constexpr Entry kGpuSoc{"gpu.temperature.soc_c", "GPU SoC temperature", MetricCategory::temperatures,
                        MetricUnit::celsius};
constexpr Entry kGpuTemp{"gpu.temperature.main_c", "GPU temperature", MetricCategory::temperatures, MetricUnit::celsius};
constexpr Entry kGpuEncode{"gpu.video_encode.utilization_pct", "Video encode", MetricCategory::utilization,
                           MetricUnit::percent};
constexpr Entry kGpuDecode{"gpu.video_decode.utilization_pct", "Video decode", MetricCategory::utilization,
                           MetricUnit::percent};
constexpr Entry kEngine{"", "Accelerator engine", MetricCategory::utilization, MetricUnit::percent};
constexpr Entry kLocalUsed{"accelerator.memory.local.resident_bytes", "Dedicated memory used", MetricCategory::memory,
                           MetricUnit::bytes};
constexpr Entry kLocalCapacity{"accelerator.memory.local.capacity_bytes", "Dedicated memory capacity",
                               MetricCategory::memory, MetricUnit::bytes, MetricKind::staticProperty};
constexpr Entry kSharedUsed{"accelerator.memory.nonlocal.resident_bytes", "Shared memory used", MetricCategory::memory,
                             MetricUnit::bytes};
constexpr Entry kSharedCapacity{"accelerator.memory.nonlocal.capacity_bytes", "Shared memory capacity",
                                MetricCategory::memory, MetricUnit::bytes, MetricKind::staticProperty};

constexpr Entry kNpuUtil{"npu.utilization_pct", "NPU utilization", MetricCategory::utilization, MetricUnit::percent};
constexpr Entry kNpuActivity{"npu.activity_pct", "NPU activity", MetricCategory::utilization, MetricUnit::percent};
constexpr Entry kNpuPower{"npu.power_w", "NPU power", MetricCategory::powers, MetricUnit::watts};
constexpr Entry kNpuEnergy{"npu.interval_energy_j", "Interval energy", MetricCategory::powers, MetricUnit::joules,
                           MetricKind::derivedRate};

// Engine ids become "accelerator.engine.<name>.utilization_pct" with the name in lower case and
// anything but letters and digits turned into "_". Names that come out alike ("Video Enhance" and
// "video-enhance") are told apart by "_2", "_3" and so on, in the order the device lists them.
std::string EngineMetricId(std::string_view name, std::size_t ordinal) {
    std::string id = "accelerator.engine.";
    for (char c : name) {
        if (c >= 'A' && c <= 'Z') {
            id += static_cast<char>(c - 'A' + 'a');
        } else if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
            id += c;
        } else {
            id += '_';
        }
    }
    if (ordinal > 1) id += "_" + std::to_string(ordinal);
    id += ".utilization_pct";
    return id;
}

void AddEngines(FrameBuilder& builder, std::string_view deviceId, const std::vector<EngineUtilization>& engines) {
    std::set<std::string> taken;
    for (const auto& engine : engines) {
        std::string id = EngineMetricId(engine.name, 1);
        for (std::size_t ordinal = 2; !taken.insert(id).second; ++ordinal) id = EngineMetricId(engine.name, ordinal);
        builder.Add(deviceId, kEngine, engine.utilizationPercent, std::move(id));
    }
}

}  // namespace

HardwareTelemetryFrame BuildTelemetryFrame(const SystemSnapshot& s) {
    HardwareTelemetryFrame frame;
    frame.generation = s.generation;
    frame.monotonicNs = s.monotonicNs;
    FrameBuilder builder(frame);

    {
        TelemetryDevice& system = builder.Device(std::string(kSystemDeviceId), TelemetryDeviceKind::system, "Whole system");
        AddProperty(system, "hostName", s.hostName);
        AddProperty(system, "model", s.systemModel);
        AddProperty(system, "distribution", s.distribution);
        AddProperty(system, "kernelRelease", s.kernelRelease);
    }

    {
        TelemetryDevice& cpu = builder.Device(std::string(kCpuPackageDeviceId), TelemetryDeviceKind::cpuPackage,
                                              "CPU package");
        AddProperty(cpu, "model", s.cpuModel);
        AddProperty(cpu, "frequencyDriver", s.frequencyDriver);
        AddProperty(cpu, "frequencyGovernor", s.frequencyGovernor);
        AddProperty(cpu, "powerPreference", s.powerPreference);
        AddProperty(cpu, "virtualization", s.virtualization);
        AddProperty(cpu, "virtualMachine", s.virtualMachine);
    }
    builder.Add(kCpuPackageDeviceId, kCpuBusy, s.cpuUtilization);
    builder.Add(kCpuPackageDeviceId, kCpuKernel, s.cpuKernelUtilization);
    builder.Add(kCpuPackageDeviceId, kCpuClock, s.cpuFrequencyHz);
    builder.Add(kCpuPackageDeviceId, kCpuBase, s.cpuBaseFrequencyHz);
    builder.Add(kCpuPackageDeviceId, kCpuCores, s.physicalCoreCount);
    builder.Add(kCpuPackageDeviceId, kCpuSockets, s.socketCount);

    for (const auto& cpu : s.logicalProcessors) {
        const std::string number = std::to_string(cpu.index);
        const std::string deviceId = "cpu:logical:" + number;
        TelemetryDevice& device =
            builder.Device(deviceId, TelemetryDeviceKind::cpuLogicalProcessor, "CPU " + number);
        device.properties.emplace_back("processorClass", std::string(ToString(cpu.processorClass)));
        AddProperty(device, "numaNode", cpu.numaNode);
        device.properties.emplace_back("logicalProcessorCount", std::to_string(s.logicalProcessorCount));
        const std::string prefix = "cpu.logical." + number + ".utilization.";
        builder.Add(deviceId, kLogicalBusy, cpu.utilization, prefix + "busy_pct");
        builder.Add(deviceId, kLogicalKernel, cpu.kernelUtilization, prefix + "kernel_pct");
    }

    {
        TelemetryDevice& memory = builder.Device(std::string(kMemoryDeviceId), TelemetryDeviceKind::memory, "System memory");
        AddProperty(memory, "type", s.memoryType);
        AddProperty(memory, "formFactor", s.memoryFormFactor);
    }
    builder.Add(kMemoryDeviceId, kMemTotal, s.memoryTotalBytes);
    builder.Add(kMemoryDeviceId, kMemInUse, s.memoryInUseBytes);
    builder.Add(kMemoryDeviceId, kMemAvailable, s.memoryAvailableBytes);
    builder.Add(kMemoryDeviceId, kMemCached, s.memoryCachedBytes);
    builder.Add(kMemoryDeviceId, kMemPressure, s.memoryPressurePercent);
    builder.Add(kMemoryDeviceId, kSwapUsed, s.swapUsedBytes);
    builder.Add(kMemoryDeviceId, kSwapTotal, s.swapTotalBytes);
    if (s.memoryTotalBytes.value && s.memoryInUseBytes.value && *s.memoryTotalBytes.value != 0) {
        const double used = 100.0 * static_cast<double>(*s.memoryInUseBytes.value) /
                            static_cast<double>(*s.memoryTotalBytes.value);
        builder.AddDerived(kMemoryDeviceId, kMemUsedPct, used > 100.0 ? 100.0 : used, s.memoryInUseBytes.source);
    }

    builder.Add(kSystemDeviceId, kPowerInput, s.systemPowerWatts);
    builder.Add(kSystemDeviceId, kPowerCpu, s.cpuPowerWatts);
    builder.Add(kSystemDeviceId, kPowerGpu, s.gpuPowerWatts);
    builder.Add(kSystemDeviceId, kPowerAne, s.anePowerWatts);
    builder.Add(kSystemDeviceId, kPowerDram, s.dramPowerWatts);
    builder.Add(kSystemDeviceId, kPowerSoc, s.socPackagePowerWatts);

    bool haveNetwork = false;
    std::optional<double> rxSum = 0.0;
    std::optional<double> txSum = 0.0;
    for (const auto& device : s.devices) {
        if (device.kind != DeviceKind::network) continue;
        haveNetwork = true;
        if (!device.network.receiveBytesPerSecond.value) rxSum.reset();
        if (!device.network.sendBytesPerSecond.value) txSum.reset();
        if (rxSum) *rxSum += *device.network.receiveBytesPerSecond.value;
        if (txSum) *txSum += *device.network.sendBytesPerSecond.value;
    }
    if (haveNetwork) {
        builder.Device(std::string(kNetworkAggregateDeviceId), TelemetryDeviceKind::networkInterface,
                       "All network interfaces");
        builder.AddDerived(kNetworkAggregateDeviceId, kNetAggRx, rxSum, "linux.network");
        builder.AddDerived(kNetworkAggregateDeviceId, kNetAggTx, txSum, "linux.network");
    }
    for (const auto& device : s.devices) {
        if (device.kind != DeviceKind::network) continue;
        const auto& n = device.network;
        const std::string id = "network:" + device.id;
        TelemetryDevice& entry = builder.Device(id, TelemetryDeviceKind::networkInterface, device.displayName);
        AddProperty(entry, "interfaceName", n.interfaceName);
        AddProperty(entry, "type", n.type);
        AddProperty(entry, "hardwareAddress", n.hardwareAddress);
        AddProperty(entry, "state", n.state);
        AddProperty(entry, "primary", n.primary);
        if (!n.lowerDevice.empty()) entry.properties.emplace_back("lowerDevice", n.lowerDevice);
        builder.Add(id, kNetRx, n.receiveBytesPerSecond);
        builder.Add(id, kNetTx, n.sendBytesPerSecond);
        builder.Add(id, kNetRxTotal, n.receivedBytesTotal);
        builder.Add(id, kNetTxTotal, n.sentBytesTotal);
        builder.Add(id, kNetLink, n.linkBitsPerSecond);
        if (n.linkBitsPerSecond.value && *n.linkBitsPerSecond.value != 0 && n.receiveBytesPerSecond.value &&
            n.sendBytesPerSecond.value) {
            const double busiest = std::max(*n.receiveBytesPerSecond.value, *n.sendBytesPerSecond.value) * 8.0;
            const double pct = 100.0 * busiest / static_cast<double>(*n.linkBitsPerSecond.value);
            builder.AddDerived(id, kNetUtil, pct > 100.0 ? 100.0 : pct, n.linkBitsPerSecond.source);
        }
    }

    if (s.batteryPresent.value && *s.batteryPresent.value) {
        TelemetryDevice& battery = builder.Device(std::string(kBatteryDeviceId), TelemetryDeviceKind::battery, "Battery");
        AddProperty(battery, "condition", s.batteryCondition);
        AddProperty(battery, "charging", s.batteryCharging);
        builder.Add(kBatteryDeviceId, kBatteryCharge, s.batteryChargePercent);
        builder.Add(kBatteryDeviceId, kBatteryTime, s.batteryTimeRemainingSeconds);
        builder.Add(kBatteryDeviceId, kBatteryCycles, s.batteryCycleCount);
    }

    for (const auto& device : s.devices) {
        if (device.kind != DeviceKind::gpu) continue;
        const auto& g = device.gpu;
        const std::string id = "gpu:" + device.id;
        TelemetryDevice& entry = builder.Device(id, TelemetryDeviceKind::gpu, device.displayName);
        AddProperty(entry, "vendor", g.vendor);
        AddProperty(entry, "driver", g.driver);
        AddProperty(entry, "driverVersion", g.driverVersion);
        AddProperty(entry, "pciSlot", g.bus);
        AddProperty(entry, "link", g.link);
        builder.Add(id, kGpuUtil, g.utilizationPercent);
        builder.Add(id, kGpuClock, g.clockHz);
        builder.Add(id, kGpuClockMax, g.maximumClockHz);
        builder.Add(id, kGpuMemClock, g.memoryClockHz);
        builder.Add(id, kGpuMemClockMax, g.maximumMemoryClockHz);
        builder.Add(id, kGpuPower, g.powerWatts);
        builder.Add(id, kGpuPowerLimit, g.powerLimitWatts);
        builder.Add(id, kGpuTemp, g.temperatureCelsius);
        builder.Add(id, kGpuHotspot, g.hotspotTemperatureCelsius);
        builder.Add(id, kGpuSoc, g.socTemperatureCelsius);
        builder.Add(id, kGpuEncode, g.videoEncodePercent);
        builder.Add(id, kGpuDecode, g.videoDecodePercent);
        builder.Add(id, kLocalUsed, g.inUseMemoryBytes);
        builder.Add(id, kLocalCapacity, g.dedicatedMemoryBytes);
        builder.Add(id, kSharedUsed, g.sharedInUseMemoryBytes);
        builder.Add(id, kSharedCapacity, g.sharedMemoryBytes);
        AddEngines(builder, id, g.engines);
    }
    for (const auto& device : s.devices) {
        if (device.kind != DeviceKind::npu) continue;
        const auto& n = device.npu;
        const std::string id = "npu:" + device.id;
        builder.Device(id, TelemetryDeviceKind::npu, device.displayName);
        builder.Add(id, kNpuUtil, n.utilizationPercent);
        builder.Add(id, kNpuActivity, n.activityPercent);
        builder.Add(id, kNpuPower, n.powerWatts);
        builder.Add(id, kNpuEnergy, n.intervalEnergyJoules);
        AddEngines(builder, id, n.engines);
    }
    for (const auto& device : s.devices) {
        if (device.kind != DeviceKind::disk) continue;
        const auto& d = device.disk;
        const std::string id = "storage:" + device.id;
        TelemetryDevice& entry = builder.Device(id, TelemetryDeviceKind::storageDevice, device.displayName);
        AddProperty(entry, "type", d.type);
        AddProperty(entry, "systemDisk", d.systemDisk);
        AddProperty(entry, "model", d.description);
        if (!d.blockName.empty()) entry.properties.emplace_back("blockName", d.blockName);
        builder.Add(id, kDiskActivity, d.activePercent);
        builder.Add(id, kDiskRead, d.readBytesPerSecond);
        builder.Add(id, kDiskWrite, d.writeBytesPerSecond);
        builder.Add(id, kDiskCapacity, d.capacityBytes);
        builder.Add(id, kDiskReadTotal, d.readBytesTotal);
        builder.Add(id, kDiskWriteTotal, d.writeBytesTotal);
        builder.Add(id, kDiskResponse, d.averageResponseMs);
    }
    return frame;
}

void AddVolumeTelemetry(HardwareTelemetryFrame& frame, const std::vector<VolumeUsage>& volumes) {
    static constexpr Entry kVolumeUsed{"volume.used_pct", "Used space", MetricCategory::levels, MetricUnit::percent};
    FrameBuilder builder(frame);
    for (const auto& volume : volumes) {
        const std::string id = "volume:" + volume.id;
        if (frame.FindDevice(id) != nullptr) continue;
        TelemetryDevice& device = builder.Device(id, TelemetryDeviceKind::volume, volume.displayName);
        device.properties.emplace_back("mountPoint", volume.displayName);
        if (TelemetryMetric* used = builder.Add(id, kVolumeUsed, volume.usedPercent)) used->sourceName = "Mounted volume";
    }
}

void TelemetryAppearance::Stamp(HardwareTelemetryFrame& frame) {
    std::vector<std::string> ids;
    ids.reserve(frame.devices.size());
    for (const auto& device : frame.devices) ids.push_back(device.id);
    std::sort(ids.begin(), ids.end());
    if (count_ == 0 || ids != previousIds_) {
        ++count_;
        previousIds_ = std::move(ids);
    }
    const std::string text = ":appearance:" + std::to_string(count_);
    for (auto& device : frame.devices) device.appearanceGeneration = text;
}

TelemetrySummary SummarizeTelemetry(const HardwareTelemetryFrame& frame) {
    const auto value = [&](std::string_view id) -> std::optional<double> {
        const TelemetryMetric* metric = frame.Find(id);
        if (!metric || !metric->numericValue) return std::nullopt;
        return metric->numericValue;
    };
    const auto first = [&](std::string_view preferred, std::string_view fallback) {
        auto found = value(preferred);
        return found ? found : value(fallback);
    };
    TelemetrySummary summary;
    summary.cpuPercent = value("cpu.package.utilization.busy_pct");
    summary.memoryUsedBytes = first("memory.physical.used_bytes", "memory.physical.in_use_bytes");
    summary.memoryTotalBytes = first("memory.physical.capacity_bytes", "memory.physical.total_bytes");
    summary.networkReceiveBytesPerSecond = value("network.aggregate.rx_bytes_per_second");
    summary.networkSendBytesPerSecond = value("network.aggregate.tx_bytes_per_second");
    summary.gpuPercent = value("gpu.utilization_pct");
    summary.systemPowerWatts = value("system.power.input_w");
    return summary;
}

}  // namespace korv::core
