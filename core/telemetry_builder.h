#pragma once

#include "core/snapshot.h"
#include "core/telemetry_frame.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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

// A mounted file system, as the frame's "volume:<id>" device with its used space.
struct VolumeUsage {
    std::string id;           // the mount source, e.g. "/dev/nvme0n1p2"
    std::string displayName;  // the mount point
    Metric<double> usedPercent;
};

// Adds one volume device and its volume.used_pct ("Used space", source "Mounted volume") per entry;
// a volume whose id the frame already lists is skipped.
void AddVolumeTelemetry(HardwareTelemetryFrame& frame, const std::vector<VolumeUsage>& volumes);

// Stamps every device of a frame with ":appearance:<count>". The count starts at 1 and moves on each
// time a frame's set of device ids differs from the previous frame's, so that readers rebuild their
// layout only then. One per producer of frames; not thread-safe.
class TelemetryAppearance {
public:
    void Stamp(HardwareTelemetryFrame& frame);

private:
    std::vector<std::string> previousIds_;
    std::uint64_t count_ = 0;
};

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
