#include "core/telemetry_frame.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <set>
#include <unordered_set>

namespace korv::core {
namespace {

template <typename Enum, std::size_t N>
std::string_view Lookup(Enum value, const std::array<std::string_view, N>& texts, std::string_view fallback) noexcept {
    const auto index = static_cast<std::uint32_t>(value);
    return index < N ? texts[index] : fallback;
}

}  // namespace

std::string_view ToString(TelemetryDeviceKind value) noexcept {
    static constexpr std::array<std::string_view, 13> texts{
        "system", "cpuPackage", "cpuCore", "cpuCluster", "cpuLogicalProcessor", "memory", "gpu", "npu",
        "storageDevice", "volume", "networkInterface", "battery", "motherboard"};
    return Lookup(value, texts, "other");
}

std::string_view ToString(MetricCategory value) noexcept {
    static constexpr std::array<std::string_view, 12> texts{
        "general", "voltages", "temperatures", "powers", "levels", "utilization", "clocks", "counters", "speed",
        "smart", "memory", "throughput"};
    return Lookup(value, texts, "general");
}

std::string_view ToString(MetricUnit value) noexcept {
    static constexpr std::array<std::string_view, 15> texts{
        "", "%", "V", "C", "W", "J", "Hz", "B", "B/s", "bit/s", "s", "ms", "count", "RPM", "T/s"};
    return Lookup(value, texts, "");
}

std::string_view ToString(MetricKind value) noexcept {
    static constexpr std::array<std::string_view, 5> texts{
        "gauge", "monotonicCounter", "derivedRate", "staticProperty", "policyValue"};
    return Lookup(value, texts, "gauge");
}

std::string_view ToString(ProvenanceTier value) noexcept {
    static constexpr std::array<std::string_view, 5> texts{
        "nativeOs", "officialVendorApi", "optionalPrivateApi", "commercialSdk", "privilegedHelper"};
    return Lookup(value, texts, "privilegedHelper");
}

const TelemetryMetric* HardwareTelemetryFrame::Find(std::string_view id, std::string_view deviceId) const noexcept {
    for (const auto& metric : metrics) {
        if (metric.id == id && (deviceId.empty() || metric.deviceId == deviceId)) return &metric;
    }
    return nullptr;
}

const TelemetryDevice* HardwareTelemetryFrame::FindDevice(std::string_view deviceId) const noexcept {
    for (const auto& device : devices) {
        if (device.id == deviceId) return &device;
    }
    return nullptr;
}

void SetDeviceProperty(TelemetryDevice& device, std::string_view name, std::string value) {
    for (auto& property : device.properties) {
        if (property.first == name) {
            property.second = std::move(value);
            return;
        }
    }
    device.properties.emplace_back(std::string(name), std::move(value));
}

void MergeTelemetryFrame(HardwareTelemetryFrame& into, HardwareTelemetryFrame from) {
    for (auto& device : from.devices) {
        auto existing = std::find_if(into.devices.begin(), into.devices.end(),
                                     [&](const TelemetryDevice& d) { return d.id == device.id; });
        if (existing == into.devices.end()) {
            into.devices.push_back(std::move(device));
            continue;
        }
        for (auto& property : device.properties) {
            const bool known = std::any_of(existing->properties.begin(), existing->properties.end(),
                                           [&](const auto& held) { return held.first == property.first; });
            if (!known) existing->properties.push_back(std::move(property));
        }
    }
    std::set<std::pair<std::string, std::string>> present;
    for (const auto& metric : into.metrics) present.emplace(metric.deviceId, metric.id);
    for (auto& metric : from.metrics) {
        if (present.emplace(metric.deviceId, metric.id).second) into.metrics.push_back(std::move(metric));
    }
}

bool IsSoundMetric(const TelemetryMetric& metric) noexcept {
    if (metric.numericValue && metric.textValue) return false;
    const bool hasValue = metric.numericValue.has_value() || metric.textValue.has_value();
    if (hasValue != CarriesValue(metric.availability)) return false;
    if (metric.numericValue && !std::isfinite(*metric.numericValue)) return false;
    if (metric.availability == MetricAvailability::zero) {
        if (metric.numericValue && *metric.numericValue != 0.0) return false;
        if (metric.textValue && !metric.textValue->empty()) return false;
    }
    return true;
}

bool IsValid(const HardwareTelemetryFrame& frame) {
    std::unordered_set<std::string_view> deviceIds;
    deviceIds.reserve(frame.devices.size());
    for (const auto& device : frame.devices) {
        if (device.id.empty() || !deviceIds.insert(device.id).second) return false;
    }
    std::set<std::pair<std::string_view, std::string_view>> metricIds;
    for (const auto& metric : frame.metrics) {
        if (metric.id.empty() || !deviceIds.contains(metric.deviceId)) return false;
        if (!metricIds.emplace(metric.deviceId, metric.id).second) return false;
        if (!IsSoundMetric(metric)) return false;
    }
    return true;
}

}  // namespace korv::core
