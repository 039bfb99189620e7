#pragma once

#include "core/snapshot.h"
#include "core/telemetry_frame.h"

#include <memory>
#include <optional>

namespace korv::core {

// Device ids of the machine-wide entries.
inline constexpr std::string_view kSystemDeviceId = "system";
inline constexpr std::string_view kCpuPackageDeviceId = "cpu:package:0";
inline constexpr std::string_view kMemoryDeviceId = "memory:system";
inline constexpr std::string_view kNetworkAggregateDeviceId = "network:all";
inline constexpr std::string_view kBatteryDeviceId = "battery:system";

// Builds the canonical frame from a snapshot, walking system, CPU package and logical processors,
// memory, power, network, battery, then each GPU, NPU, disk and volume. A value enters with the
// availability the snapshot gives it; metrics the platform does not have at all (unsupported or not
// applicable) are left out. The frame carries the snapshot's generation and monotonic time; the
// provider may add its own sensors afterwards.
HardwareTelemetryFrame BuildTelemetryFrame(const SystemSnapshot& snapshot);

// The few figures that tray gadgets and the popout show, chosen by id in a fixed order of preference.
struct TelemetrySummary {
    std::optional<double> cpuPercent;
    std::optional<double> memoryUsedBytes;   // memory.physical.used_bytes, else in_use_bytes
    std::optional<double> memoryTotalBytes;  // memory.physical.capacity_bytes, else total_bytes
    std::optional<double> networkReceiveBytesPerSecond;
    std::optional<double> networkSendBytesPerSecond;
    std::optional<double> gpuPercent;
    std::optional<double> systemPowerWatts;
};

TelemetrySummary SummarizeTelemetry(const HardwareTelemetryFrame& frame);

}  // namespace korv::core
