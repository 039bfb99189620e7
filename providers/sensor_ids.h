#pragma once

#include "core/telemetry_frame.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace korv::providers {

// Stable ids, units and frame entries shared by the hwmon, powercap and power_supply collectors.

inline constexpr std::size_t kSensorAttributeLimit = 4096;  // a sysfs attribute is at most one page

enum class SensorOwner { cpu, gpu, storage, other };
enum class SensorType { temperature, power, energy, voltage, fan, frequency };

// The type and number behind an hwmon input key such as "temp2", "in0" or "fan1".
struct HwmonKey {
    SensorType type = SensorType::temperature;
    std::uint32_t number = 0;
};

std::optional<HwmonKey> ParseHwmonKey(std::string_view key) noexcept;

// The canonical catalogue id of a sensor, or empty when it keeps its "hwmon.<chip>.<key>" id.
// `label` is the sensor's trimmed label, or its key when it has none; it is compared in lower case.
// An NVMe sensor other than the composite one is numbered by its "Sensor <n>" label, else by its key.
std::string CanonicalSensorId(SensorOwner owner, const HwmonKey& key, std::string_view label);

// Rank among CPU labels that name the package temperature: Tctl carries an offset on AMD parts, so
// Tdie outranks it, and a plain package label sits between them.
int PackageTemperatureRank(std::string_view label) noexcept;

// "hwmon." + chip + "." + key, with anything but letters, digits, "_" and "-" turned into "_".
std::string HwmonSensorId(std::string_view chip, std::string_view key);

// Lower case with anything but letters and digits turned into "_": an id segment from a free name.
std::string IdSegment(std::string_view name);

// "Temperature ", "Power ", "Energy ", "Voltage ", "Fan " or "Clock " plus the number.
std::string DefaultSensorName(const HwmonKey& key);

struct SensorUnits {
    core::MetricCategory category = core::MetricCategory::general;
    core::MetricUnit unit = core::MetricUnit::none;
    core::MetricKind kind = core::MetricKind::gauge;
};

SensorUnits UnitsOf(SensorType type) noexcept;

// The raw hwmon reading in the sensor's unit: millidegrees, microwatts, microjoules and millivolts
// are scaled; RPM and Hz are taken as they are.
double ScaleHwmonReading(SensorType type, std::int64_t raw) noexcept;

// Trimmed text of a small sysfs attribute; the errno of the failed read otherwise.
struct AttributeText {
    std::string text;
    int error = 0;
};

AttributeText ReadAttribute(const std::filesystem::path& path);
std::optional<std::int64_t> ParseSigned(std::string_view text) noexcept;
std::optional<std::uint64_t> ParseUnsigned(std::string_view text) noexcept;
std::string_view TrimText(std::string_view text) noexcept;

// Frame entries. A device is added once; a metric id is never added twice to one device.
core::TelemetryDevice& EnsureDevice(core::HardwareTelemetryFrame& frame, std::string_view id,
                                    core::TelemetryDeviceKind kind, std::string displayName);
// "cpu:package:<p>", created as "CPU package <p>" when the frame lacks it.
std::string EnsureCpuPackageDevice(core::HardwareTelemetryFrame& frame, std::uint32_t package);
bool HasMetric(const core::HardwareTelemetryFrame& frame, std::string_view deviceId, std::string_view id) noexcept;

struct SensorEntry {
    std::string id;
    std::string deviceId;
    std::string displayName;
    std::string sourceName;
    SensorUnits units;
    double value = 0.0;
};

// Appends a native-OS sensor with a read value (0 is the zero state). False, and nothing added,
// when the device already carries the id or the value is not finite.
bool AddSensor(core::HardwareTelemetryFrame& frame, SensorEntry entry);

}  // namespace korv::providers
