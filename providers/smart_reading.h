#pragma once

#include "core/telemetry_frame.h"

#include <string>
#include <vector>

namespace korv::providers {

// What a SMART figure is, independent of the route that read it. The tables of the NVMe and ATA
// readers and the UDisks2 mapping share these, so one drive reads the same ids whichever route answers.
struct SmartField {
    const char* id;           // e.g. "storage.temperature.composite_c"
    const char* displayName;  // e.g. "Composite Temperature"
    core::MetricCategory category;
    core::MetricUnit unit;
    core::MetricKind kind;
};

// One SMART sensor of a drive, ready for the telemetry frame.
struct SmartReading {
    std::string id;
    std::string displayName;
    core::MetricCategory category = core::MetricCategory::smart;
    core::MetricUnit unit = core::MetricUnit::none;
    core::MetricKind kind = core::MetricKind::gauge;
    double value = 0.0;
};

inline SmartReading MakeReading(const SmartField& field, double value) {
    return SmartReading{field.id, field.displayName, field.category, field.unit, field.kind, value};
}

// First reading with this id, or nullptr.
inline const SmartReading* FindReading(const std::vector<SmartReading>& readings, const std::string& id) noexcept {
    for (const auto& reading : readings) {
        if (reading.id == id) return &reading;
    }
    return nullptr;
}

// What one route returned for one drive. error is 0 or an errno value; asleep means the route found
// the drive in a power state where a SMART command would wake it and sent none.
struct SmartRouteResult {
    int error = 0;
    bool asleep = false;
    std::vector<SmartReading> readings;
};

inline constexpr double kKelvinOffset = 273.15;

}  // namespace korv::providers
