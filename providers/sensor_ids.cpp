#include "providers/sensor_ids.h"

#include "providers/bounded_read.h"

#include <array>
#include <charconv>
#include <cmath>
#include <utility>

namespace korv::providers {
namespace {

std::string Lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

bool IsOneOf(std::string_view text, std::initializer_list<std::string_view> options) noexcept {
    for (std::string_view option : options) {
        if (text == option) return true;
    }
    return false;
}

bool Contains(std::string_view text, std::string_view part) noexcept {
    return text.find(part) != std::string_view::npos;
}

bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }
bool IsAlnum(char c) noexcept { return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

std::string CpuSensorId(SensorType type, std::string_view label) {
    switch (type) {
        case SensorType::temperature:
            if (PackageTemperatureRank(label) > 0) return "cpu.package.temperature_c";
            break;
        case SensorType::power:
            if (IsOneOf(label, {"ppt", "package", "package power"})) return "cpu.package.power_w";
            if (IsOneOf(label, {"cores", "core power", "pp0"})) return "cpu.cores.power_w";
            break;
        case SensorType::voltage:
            if (IsOneOf(label, {"vcore", "core voltage"})) return "cpu.voltage.average_core_v";
            break;
        default:
            break;
    }
    return {};
}

std::string GpuSensorId(SensorType type, std::string_view label) {
    if (type != SensorType::temperature) return {};
    if (Contains(label, "hotspot") || Contains(label, "junction")) return "gpu.temperature.hotspot_c";
    if (Contains(label, "soc")) return "gpu.temperature.soc_c";
    if (label == "temp1" || Contains(label, "edge")) return "gpu.temperature.main_c";
    return {};
}

std::string StorageSensorId(const HwmonKey& key, std::string_view label) {
    if (key.type != SensorType::temperature) return {};
    if (Contains(label, "composite")) return "storage.temperature.composite_c";
    constexpr std::string_view kSensor = "sensor ";
    if (label.substr(0, kSensor.size()) == kSensor) {
        if (const auto number = ParseUnsigned(label.substr(kSensor.size()))) {
            return "storage.temperature.sensor." + std::to_string(*number);
        }
    }
    return "storage.temperature.sensor." + std::to_string(key.number);
}

}  // namespace

std::optional<HwmonKey> ParseHwmonKey(std::string_view key) noexcept {
    static constexpr std::array<std::pair<std::string_view, SensorType>, 6> kPrefixes{{
        {"temp", SensorType::temperature},
        {"power", SensorType::power},
        {"energy", SensorType::energy},
        {"in", SensorType::voltage},
        {"fan", SensorType::fan},
        {"freq", SensorType::frequency},
    }};
    for (const auto& [prefix, type] : kPrefixes) {
        if (key.size() <= prefix.size() || key.substr(0, prefix.size()) != prefix) continue;
        const std::string_view digits = key.substr(prefix.size());
        std::uint32_t number = 0;
        const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
        if (ec != std::errc{} || end != digits.data() + digits.size() || !IsDigit(digits.front())) return std::nullopt;
        return HwmonKey{type, number};
    }
    return std::nullopt;
}

std::string CanonicalSensorId(SensorOwner owner, const HwmonKey& key, std::string_view label) {
    const std::string lower = Lower(label);
    switch (owner) {
        case SensorOwner::cpu: return CpuSensorId(key.type, lower);
        case SensorOwner::gpu: return GpuSensorId(key.type, lower);
        case SensorOwner::storage: return StorageSensorId(key, lower);
        case SensorOwner::other: break;
    }
    return {};
}

int PackageTemperatureRank(std::string_view label) noexcept {
    std::string lower;
    lower.reserve(label.size());
    for (char c : label) lower += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    if (lower == "tdie") return 3;
    if (lower == "package temperature" || lower.starts_with("package id ")) return 2;
    if (lower == "tctl") return 1;
    return 0;
}

std::string IdSegment(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    for (char c : name) {
        if (c >= 'A' && c <= 'Z') {
            out += static_cast<char>(c - 'A' + 'a');
        } else {
            out += IsAlnum(c) ? c : '_';
        }
    }
    return out;
}

std::string HwmonSensorId(std::string_view chip, std::string_view key) {
    std::string id = "hwmon.";
    for (char c : chip) id += (IsAlnum(c) || c == '_' || c == '-') ? c : '_';
    id += '.';
    id += key;
    return id;
}

std::string DefaultSensorName(const HwmonKey& key) {
    std::string_view word;
    switch (key.type) {
        case SensorType::temperature: word = "Temperature "; break;
        case SensorType::power: word = "Power "; break;
        case SensorType::energy: word = "Energy "; break;
        case SensorType::voltage: word = "Voltage "; break;
        case SensorType::fan: word = "Fan "; break;
        case SensorType::frequency: word = "Clock "; break;
    }
    return std::string(word) + std::to_string(key.number);
}

SensorUnits UnitsOf(SensorType type) noexcept {
    using core::MetricCategory;
    using core::MetricKind;
    using core::MetricUnit;
    switch (type) {
        case SensorType::temperature: return {MetricCategory::temperatures, MetricUnit::celsius, MetricKind::gauge};
        case SensorType::power: return {MetricCategory::powers, MetricUnit::watts, MetricKind::gauge};
        case SensorType::energy: return {MetricCategory::counters, MetricUnit::joules, MetricKind::monotonicCounter};
        case SensorType::voltage: return {MetricCategory::voltages, MetricUnit::volts, MetricKind::gauge};
        case SensorType::fan: return {MetricCategory::speed, MetricUnit::rpm, MetricKind::gauge};
        case SensorType::frequency: return {MetricCategory::clocks, MetricUnit::hertz, MetricKind::gauge};
    }
    return {};
}

// Division rather than multiplication by 0.001: it is correctly rounded, so 38850 millidegrees read
// back as the same double as 38.85.
double ScaleHwmonReading(SensorType type, std::int64_t raw) noexcept {
    const double value = static_cast<double>(raw);
    switch (type) {
        case SensorType::temperature:
        case SensorType::voltage: return value / 1e3;
        case SensorType::power:
        case SensorType::energy: return value / 1e6;
        case SensorType::fan:
        case SensorType::frequency: return value;
    }
    return value;
}

std::string_view TrimText(std::string_view text) noexcept {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

AttributeText ReadAttribute(const std::filesystem::path& path) {
    AttributeText out;
    out.error = ReadFileBounded(path.c_str(), kSensorAttributeLimit, out.text);
    if (out.error != 0) {
        out.text.clear();
        return out;
    }
    const std::string_view trimmed = TrimText(out.text);
    out.text = std::string(trimmed);
    return out;
}

std::optional<std::int64_t> ParseSigned(std::string_view text) noexcept {
    text = TrimText(text);
    std::int64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<std::uint64_t> ParseUnsigned(std::string_view text) noexcept {
    text = TrimText(text);
    std::uint64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

core::TelemetryDevice& EnsureDevice(core::HardwareTelemetryFrame& frame, std::string_view id,
                                    core::TelemetryDeviceKind kind, std::string displayName) {
    for (auto& device : frame.devices) {
        if (device.id == id) return device;
    }
    core::TelemetryDevice device;
    device.id = std::string(id);
    device.kind = kind;
    device.displayName = std::move(displayName);
    device.legacyPersistentId = device.id;
    frame.devices.push_back(std::move(device));
    return frame.devices.back();
}

std::string EnsureCpuPackageDevice(core::HardwareTelemetryFrame& frame, std::uint32_t package) {
    const std::string number = std::to_string(package);
    std::string id = "cpu:package:" + number;
    EnsureDevice(frame, id, core::TelemetryDeviceKind::cpuPackage, "CPU package " + number);
    return id;
}

bool HasMetric(const core::HardwareTelemetryFrame& frame, std::string_view deviceId, std::string_view id) noexcept {
    for (const auto& metric : frame.metrics) {
        if (metric.id == id && metric.deviceId == deviceId) return true;
    }
    return false;
}

bool AddSensor(core::HardwareTelemetryFrame& frame, SensorEntry entry) {
    if (!std::isfinite(entry.value) || HasMetric(frame, entry.deviceId, entry.id)) return false;
    core::TelemetryMetric metric;
    metric.id = std::move(entry.id);
    metric.deviceId = std::move(entry.deviceId);
    metric.displayName = std::move(entry.displayName);
    metric.sourceName = std::move(entry.sourceName);
    metric.category = entry.units.category;
    metric.unit = entry.units.unit;
    metric.kind = entry.units.kind;
    metric.provenance = core::ProvenanceTier::nativeOs;
    metric.numericValue = entry.value;
    metric.availability = entry.value == 0.0 ? core::MetricAvailability::zero : core::MetricAvailability::valid;
    frame.metrics.push_back(std::move(metric));
    return true;
}

}  // namespace korv::providers
