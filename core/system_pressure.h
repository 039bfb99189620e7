#pragma once

#include "core/metric.h"

#include <optional>
#include <string_view>

namespace korv::core {

struct SystemSnapshot;

// One reading of the pressure record: a value when the availability carries one.
struct PressureReading {
    std::optional<double> value;
    MetricAvailability availability = MetricAvailability::notYetAvailable;

    bool Usable() const noexcept;
};

enum class PressureDriver { loadDemand, memoryStalls };

// How the machine copes right now, from the load average and the memory PSI of one sample.
struct SystemPressure {
    PressureReading loadDemandPercent;
    PressureReading loadDemandScore;
    PressureReading memoryStallPercent;
    PressureReading memoryStallScore;
    PressureReading score;
    PressureDriver primary = PressureDriver::loadDemand;
    bool primaryIsMemory = false;
    bool hasPrimary = false;
};

enum class PressureSeverity { unavailable, low, elevated, high, critical };

// The meter thresholds shared by both signals.
inline constexpr double kElevatedScore = 40.0;
inline constexpr double kHighScore = 65.0;
inline constexpr double kCriticalScore = 85.0;

// The raw thresholds of each signal where its score reaches ELEVATED, HIGH and CRITICAL.
struct PressureThresholds {
    double elevated = 0;
    double high = 0;
    double critical = 0;
    double criticalBand = 0;  // raw width over which CRITICAL climbs its 15 points
};
inline constexpr PressureThresholds kLoadDemandThresholds{100.0, 150.0, 200.0, 50.0};
inline constexpr PressureThresholds kMemoryStallThresholds{10.0, 25.0, 50.0, 50.0};

// Scores 0..100 for a signal on its ladder; not-finite input scores 0.
double LoadDemandScore(double loadDemandPercent) noexcept;
double MemoryStallScore(double memoryStallPercent) noexcept;

PressureSeverity SeverityOf(const PressureReading& score) noexcept;

// ASCII keys: "LOW", "ELEVATED", "HIGH", "CRITICAL", "Unavailable"; the GUI translates them.
std::string_view SeverityKey(PressureSeverity severity) noexcept;

// "Load demand" or "Memory stalls".
std::string_view DriverKey(PressureDriver driver) noexcept;

SystemPressure ComputeSystemPressure(const SystemSnapshot& snapshot);

}  // namespace korv::core
