#include "host/linux_client/performance_series.h"

#include "core/telemetry_frame.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace korv::host::linux_client {
namespace {

template <typename T>
std::optional<double> Reading(const core::Metric<T>& metric) {
    if (!core::CarriesValue(metric.availability) || !metric.value.has_value()) return std::nullopt;
    return static_cast<double>(*metric.value);
}

}  // namespace

std::string BatteryChargeSeriesId() {
    return "battery.charge";
}

std::string GpuEngineSeriesId(std::string_view deviceId, std::string_view engine) {
    std::string id = "gpu.";
    id.append(deviceId).append(".engine.").append(engine);
    return id;
}

std::string LogicalKernelSeriesId(std::uint32_t processor) {
    return "cpu.logical." + std::to_string(processor) + ".kernel";
}

std::string LogicalSeriesId(std::uint32_t processor) {
    return "cpu.logical." + std::to_string(processor);
}

std::string MemoryPressureSeriesId() { return "memory.pressure"; }
std::string CpuPowerSeriesId() { return "cpu.power"; }
std::string CpuTemperatureSeriesId() { return "cpu.temperature"; }
std::string SystemPowerSeriesId() { return "system.power"; }

std::string GpuPowerSeriesId(std::string_view deviceId) {
    std::string id = "gpu.";
    id.append(deviceId).append(".power");
    return id;
}

std::string GpuTemperatureSeriesId(std::string_view deviceId) {
    std::string id = "gpu.";
    id.append(deviceId).append(".temperature");
    return id;
}

PerformanceSeries::PerformanceSeries(const HistoryStore* shared, std::size_t capacity)
    : shared_(shared), capacity_(std::max<std::size_t>(capacity, 2)) {}

void PerformanceSeries::FeedOwn(const std::string& id, std::optional<double> value, const HistoryPoint& point) {
    if (shared_ != nullptr && shared_->Find(id) != nullptr) {
        own_.erase(id);  // the window keeps it now
        return;
    }
    auto found = own_.find(id);
    if (found == own_.end()) {
        if (!value) return;
        found = own_.emplace(id, Entry{HistorySeries(capacity_), 0}).first;
    }
    HistoryPoint fed = point;
    fed.value = value;
    found->second.series.Append(fed);
    found->second.fedAt = feedCount_;
}

void PerformanceSeries::Feed(const core::SystemSnapshot& snapshot) {
    if (snapshot.generation != 0 && snapshot.generation == lastGeneration_) return;
    lastGeneration_ = snapshot.generation;
    ++feedCount_;
    const HistoryPoint point{snapshot.generation, snapshot.monotonicNs, std::nullopt};

    if (snapshot.batteryPresent.value.value_or(false)) {
        FeedOwn(BatteryChargeSeriesId(), Reading(snapshot.batteryChargePercent), point);
    }
    FeedOwn(MemoryPressureSeriesId(), Reading(snapshot.memoryPressurePercent), point);
    FeedOwn(CpuPowerSeriesId(), Reading(snapshot.cpuPowerWatts), point);
    FeedOwn(SystemPowerSeriesId(), Reading(snapshot.systemPowerWatts), point);
    if (snapshot.telemetry) {
        if (const core::TelemetryMetric* t = snapshot.telemetry->Find("cpu.package.temperature_c")) {
            const bool usable = core::CarriesValue(t->availability) && t->numericValue && std::isfinite(*t->numericValue);
            FeedOwn(CpuTemperatureSeriesId(), usable ? t->numericValue : std::nullopt, point);
        }
    }
    for (const auto& processor : snapshot.logicalProcessors) {
        FeedOwn(LogicalKernelSeriesId(processor.index), Reading(processor.kernelUtilization), point);
    }
    for (const auto& device : snapshot.devices) {
        if (device.kind != core::DeviceKind::gpu) continue;
        FeedOwn(GpuPowerSeriesId(device.id), Reading(device.gpu.powerWatts), point);
        FeedOwn(GpuTemperatureSeriesId(device.id), Reading(device.gpu.temperatureCelsius), point);
        for (const auto& engine : device.gpu.engines) {
            FeedOwn(GpuEngineSeriesId(device.id, engine.name), Reading(engine.utilizationPercent), point);
        }
    }

    for (auto it = own_.begin(); it != own_.end();) {
        Entry& entry = it->second;
        if (entry.fedAt != feedCount_) {
            entry.series.Append(point);
            entry.fedAt = feedCount_;
        }
        if (entry.series.TrailingGaps() >= entry.series.Size()) {
            it = own_.erase(it);
        } else {
            ++it;
        }
    }
}

const HistorySeries* PerformanceSeries::Find(std::string_view id) const {
    if (shared_ != nullptr) {
        if (const HistorySeries* series = shared_->Find(id)) return series;
    }
    const auto found = own_.find(id);
    return found == own_.end() ? nullptr : &found->second.series;
}

HistorySeries CombineSeries(const std::vector<const HistorySeries*>& parts, CombineRule rule, std::size_t capacity) {
    HistorySeries result(capacity);
    std::vector<const HistorySeries*> present;
    for (const HistorySeries* part : parts) {
        if (part != nullptr && part->Size() > 0) present.push_back(part);
    }
    std::vector<std::size_t> next(present.size(), 0);
    // Only the newest `capacity` generations survive, so start each part no earlier than needed.
    for (std::size_t i = 0; i < present.size(); ++i) {
        if (present[i]->Size() > capacity) next[i] = present[i]->Size() - capacity;
    }
    for (;;) {
        std::uint64_t generation = std::numeric_limits<std::uint64_t>::max();
        for (std::size_t i = 0; i < present.size(); ++i) {
            if (next[i] < present[i]->Size()) generation = std::min(generation, present[i]->At(next[i]).generation);
        }
        if (generation == std::numeric_limits<std::uint64_t>::max()) break;
        HistoryPoint point{generation, 0, std::nullopt};
        double total = 0.0;
        int count = 0;
        for (std::size_t i = 0; i < present.size(); ++i) {
            if (next[i] >= present[i]->Size()) continue;
            const HistoryPoint& candidate = present[i]->At(next[i]);
            if (candidate.generation != generation) continue;
            point.monotonicNs = std::max(point.monotonicNs, candidate.monotonicNs);
            if (candidate.value) {
                total += *candidate.value;
                ++count;
            }
            ++next[i];
        }
        if (count > 0) point.value = rule == CombineRule::mean ? total / count : total;
        result.Append(point);
    }
    return result;
}

double PeakValue(const std::deque<GraphPoint>& points) {
    double peak = 0.0;
    for (const GraphPoint& point : points) {
        if (point.valid && std::isfinite(point.value)) peak = std::max(peak, point.value);
    }
    return peak;
}

double RateScaleFor(double peak, double floor) {
    if (!std::isfinite(peak) || peak <= floor) return floor;
    double unit = 1.0;
    while (peak / unit >= 1000.0 && unit < 1024.0 * 1024.0 * 1024.0 * 1024.0) unit *= 1024.0;
    const double scaled = peak / unit;
    static constexpr std::array<double, 10> kSteps{1, 2, 5, 10, 20, 50, 100, 200, 500, 1000};
    for (const double step : kSteps) {
        if (scaled <= step) return std::max(step * unit, floor);
    }
    return std::max(1024.0 * unit, floor);
}

}  // namespace korv::host::linux_client
