#pragma once

#include "core/metric.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korv::core {

// The platform-neutral view of the machine's sensors: a flat list of typed metrics on a list of
// devices, looked up by stable text ids such as "cpu.package.utilization.busy_pct".

enum class TelemetryDeviceKind : std::uint32_t {
    system = 0, cpuPackage = 1, cpuCore = 2, cpuCluster = 3, cpuLogicalProcessor = 4, memory = 5, gpu = 6,
    npu = 7, storageDevice = 8, volume = 9, networkInterface = 10, battery = 11, motherboard = 12, other = 13,
};

enum class MetricCategory : std::uint32_t {
    general = 0, voltages, temperatures, powers, levels, utilization, clocks, counters, speed, smart, memory,
    throughput,
};

enum class MetricUnit : std::uint32_t {
    none = 0, percent, volts, celsius, watts, joules, hertz, bytes, bytesPerSecond, bitsPerSecond, seconds,
    milliseconds, count, rpm, transfersPerSecond,
};

enum class MetricKind : std::uint32_t { gauge = 0, monotonicCounter, derivedRate, staticProperty, policyValue };

enum class ProvenanceTier : std::uint32_t {
    nativeOs = 0, officialVendorApi, optionalPrivateApi, commercialSdk, privilegedHelper,
};

std::string_view ToString(TelemetryDeviceKind value) noexcept;
std::string_view ToString(MetricCategory value) noexcept;
std::string_view ToString(MetricUnit value) noexcept;
std::string_view ToString(MetricKind value) noexcept;
std::string_view ToString(ProvenanceTier value) noexcept;

struct TelemetryDevice {
    std::string id;  // e.g. "memory:system", "cpu:logical:3"
    TelemetryDeviceKind kind = TelemetryDeviceKind::other;
    std::string displayName;
    std::string legacyPersistentId;
    std::string appearanceGeneration;  // ":appearance:<count>", changes with the device set
    std::vector<std::pair<std::string, std::string>> properties;
};

struct TelemetryMetric {
    std::string id;
    std::string deviceId;
    std::string displayName;
    std::string sourceName;
    MetricCategory category = MetricCategory::general;
    MetricUnit unit = MetricUnit::none;
    MetricKind kind = MetricKind::gauge;
    ProvenanceTier provenance = ProvenanceTier::nativeOs;
    std::optional<double> numericValue;
    std::optional<std::string> textValue;
    MetricAvailability availability = MetricAvailability::notYetAvailable;
};

struct HardwareTelemetryFrame {
    std::uint64_t generation = 0;
    std::uint64_t monotonicNs = 0;
    std::vector<TelemetryDevice> devices;
    std::vector<TelemetryMetric> metrics;

    // First metric with this id, limited to one device when deviceId is not empty.
    const TelemetryMetric* Find(std::string_view id, std::string_view deviceId = {}) const noexcept;
    const TelemetryDevice* FindDevice(std::string_view deviceId) const noexcept;
};

// Replaces a named property, or appends it when the device has none of that name.
void SetDeviceProperty(TelemetryDevice& device, std::string_view name, std::string value);

// Adds what `from` holds to `into`: devices whose id `into` lacks (a device already there only takes
// the properties it does not have), and metrics whose id is not yet on their device. Used to join
// sensors read before the frame was built from the snapshot.
void MergeTelemetryFrame(HardwareTelemetryFrame& into, HardwareTelemetryFrame from);

// A frame is valid by itself when device ids are non-empty and unique, every metric names a listed
// device, no device carries the same metric id twice, and each metric holds a value exactly when its
// availability carries one (numbers finite, at most one of number and text).
// One value at most, present exactly when the availability carries one, finite, and empty for zero.
bool IsSoundMetric(const TelemetryMetric& metric) noexcept;
bool IsValid(const HardwareTelemetryFrame& frame);

}  // namespace korv::core
