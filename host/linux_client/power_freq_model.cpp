#include "host/linux_client/power_freq_model.h"

#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>

#include <algorithm>
#include <cmath>

namespace korv::host::linux_client {
namespace {

QString Tr(const char* text) {
    return QCoreApplication::translate("PowerFreqPage", text);
}

bool Counts(const core::TelemetryMetric& metric) {
    return metric.numericValue && std::isfinite(*metric.numericValue) &&
           (metric.availability == core::MetricAvailability::valid ||
            metric.availability == core::MetricAvailability::zero);
}

}  // namespace

void PowerFreqModel::Update(const core::HardwareTelemetryFrame& frame) {
    std::vector<PowerFreqDevice> devices;
    devices.reserve(frame.devices.size());
    std::map<std::string, std::size_t> deviceIndex;
    for (const core::TelemetryDevice& device : frame.devices) {
        deviceIndex.emplace(device.id, devices.size());
        devices.push_back(PowerFreqDevice{
            device.id,
            QString::fromStdString(device.displayName.empty() ? device.id : device.displayName),
            device.kind,
            {}});
    }
    std::map<Key, Extremes> kept;
    for (const core::TelemetryMetric& metric : frame.metrics) {
        const auto found = deviceIndex.find(metric.deviceId);
        if (found == deviceIndex.end()) continue;
        PowerFreqReading reading{metric.id,
                                 QString::fromStdString(metric.displayName.empty() ? metric.id : metric.displayName),
                                 metric.category,
                                 metric.unit,
                                 metric.availability,
                                 metric.numericValue,
                                 metric.textValue,
                                 std::nullopt,
                                 std::nullopt};
        const Key key{metric.deviceId, metric.id};
        const auto previous = extremes_.find(key);
        std::optional<Extremes> extremes;
        if (previous != extremes_.end()) extremes = previous->second;
        if (Counts(metric)) {
            const double value = *metric.numericValue;
            if (!extremes) extremes = Extremes{value, value};
            extremes->minimum = std::min(extremes->minimum, value);
            extremes->maximum = std::max(extremes->maximum, value);
        }
        if (extremes) {
            kept[key] = *extremes;
            reading.minimum = extremes->minimum;
            reading.maximum = extremes->maximum;
        }
        auto& categories = devices[found->second].categories;
        auto slot = std::find_if(categories.begin(), categories.end(),
                                 [&](const PowerFreqCategory& c) { return c.category == metric.category; });
        if (slot == categories.end()) {
            categories.push_back(PowerFreqCategory{metric.category, {}});
            slot = categories.end() - 1;
        }
        slot->readings.push_back(std::move(reading));
    }
    for (PowerFreqDevice& device : devices) {
        std::stable_sort(device.categories.begin(), device.categories.end(),
                         [](const PowerFreqCategory& a, const PowerFreqCategory& b) { return a.category < b.category; });
    }
    devices_ = std::move(devices);
    extremes_ = std::move(kept);
}

void PowerFreqModel::Reset() {
    extremes_.clear();
    for (PowerFreqDevice& device : devices_) {
        for (PowerFreqCategory& category : device.categories) {
            for (PowerFreqReading& reading : category.readings) {
                const bool counts = reading.value && std::isfinite(*reading.value) &&
                                    (reading.availability == core::MetricAvailability::valid ||
                                     reading.availability == core::MetricAvailability::zero);
                reading.minimum.reset();
                reading.maximum.reset();
                if (!counts) continue;
                reading.minimum = reading.value;
                reading.maximum = reading.value;
                extremes_[{device.id, reading.metricId}] = Extremes{*reading.value, *reading.value};
            }
        }
    }
}

void PowerFreqModel::Clear() {
    devices_.clear();
    extremes_.clear();
}

const PowerFreqReading* PowerFreqModel::Find(const std::string& deviceId, const std::string& metricId) const {
    for (const PowerFreqDevice& device : devices_) {
        if (device.id != deviceId) continue;
        for (const PowerFreqCategory& category : device.categories) {
            for (const PowerFreqReading& reading : category.readings) {
                if (reading.metricId == metricId) return &reading;
            }
        }
    }
    return nullptr;
}

QString FormatTelemetryValue(double value, core::MetricUnit unit) {
    using core::MetricUnit;
    switch (unit) {
    case MetricUnit::percent: return FormatPercent(value);
    case MetricUnit::volts: return Tr("%1 V").arg(value, 0, 'f', 3);
    case MetricUnit::celsius: return FormatTemperature(value);
    case MetricUnit::watts: return FormatPower(value);
    case MetricUnit::joules: return Tr("%1 J").arg(value, 0, 'f', 1);
    case MetricUnit::hertz: return FormatClock(value);
    case MetricUnit::bytes: return FormatBytes(value > 0.0 ? static_cast<std::uint64_t>(value) : 0U);
    case MetricUnit::bytesPerSecond: return FormatRate(value);
    case MetricUnit::bitsPerSecond: return Tr("%1 Mb/s").arg(value / 1e6, 0, 'f', 1);
    case MetricUnit::seconds: return Tr("%1 s").arg(value, 0, 'f', 0);
    case MetricUnit::milliseconds: return Tr("%1 ms").arg(value, 0, 'f', 2);
    case MetricUnit::count: return QString::number(value, 'f', 0);
    case MetricUnit::rpm: return Tr("%1 RPM").arg(value, 0, 'f', 0);
    case MetricUnit::transfersPerSecond: return Tr("%1 MT/s").arg(value, 0, 'f', 0);
    case MetricUnit::none: break;
    }
    return QString::number(value, 'g', 6);
}

QString MetricCategoryTitle(core::MetricCategory category) {
    using core::MetricCategory;
    switch (category) {
    case MetricCategory::general: return Tr("General");
    case MetricCategory::voltages: return Tr("Voltages");
    case MetricCategory::temperatures: return Tr("Temperatures");
    case MetricCategory::powers: return Tr("Powers");
    case MetricCategory::levels: return Tr("Levels");
    case MetricCategory::utilization: return Tr("Utilization");
    case MetricCategory::clocks: return Tr("Clocks");
    case MetricCategory::counters: return Tr("Counters");
    case MetricCategory::speed: return Tr("Speed");
    case MetricCategory::smart: return Tr("SMART");
    case MetricCategory::memory: return Tr("Memory");
    case MetricCategory::throughput: return Tr("Throughput");
    }
    return Tr("Other");
}

}  // namespace korv::host::linux_client
