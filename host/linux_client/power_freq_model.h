#pragma once

#include "core/telemetry_frame.h"

#include <QString>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korv::host::linux_client {

// One sensor of the telemetry frame with the lowest and highest value seen since watching began (or
// since the last reset). Values stay in the frame's units (Celsius for temperatures); the words on
// screen come from FormatTelemetryValue.
struct PowerFreqReading {
    std::string metricId;
    QString name;
    core::MetricCategory category = core::MetricCategory::general;
    core::MetricUnit unit = core::MetricUnit::none;
    core::MetricAvailability availability = core::MetricAvailability::notYetAvailable;
    std::optional<double> value;
    std::optional<std::string> text;
    std::optional<double> minimum;
    std::optional<double> maximum;
};

struct PowerFreqCategory {
    core::MetricCategory category = core::MetricCategory::general;
    std::vector<PowerFreqReading> readings;  // in frame order
};

struct PowerFreqDevice {
    std::string id;
    QString name;
    core::TelemetryDeviceKind kind = core::TelemetryDeviceKind::other;
    std::vector<PowerFreqCategory> categories;  // in category order
};

// Tracks minimum and maximum per (device, metric). Only readings that carry a current value (valid or
// zero) move the extremes; a stale value is shown but not counted. A device that leaves the frame
// forgets its extremes, so one that comes back starts afresh.
class PowerFreqModel {
public:
    void Update(const core::HardwareTelemetryFrame& frame);
    // Forgets every minimum and maximum; each starts again from the value now shown.
    void Reset();
    void Clear();

    const std::vector<PowerFreqDevice>& Devices() const { return devices_; }
    const PowerFreqReading* Find(const std::string& deviceId, const std::string& metricId) const;

private:
    using Key = std::pair<std::string, std::string>;
    struct Extremes {
        double minimum = 0.0;
        double maximum = 0.0;
    };

    std::vector<PowerFreqDevice> devices_;
    std::map<Key, Extremes> extremes_;
};

// A value in the shared unit texts; temperatures follow the temperature setting.
QString FormatTelemetryValue(double value, core::MetricUnit unit);
// The heading of a category, e.g. "Temperatures".
QString MetricCategoryTitle(core::MetricCategory category);

}  // namespace korv::host::linux_client
