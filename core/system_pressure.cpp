#include "core/system_pressure.h"

#include "core/snapshot.h"

#include <algorithm>
#include <cmath>

namespace korv::core {

namespace {

// Both ladders share the shape: three raw thresholds map onto 40, 65 and 85 on the meter.
double LadderScore(double raw, const PressureThresholds& t) noexcept {
    if (!std::isfinite(raw) || raw <= 0.0) return 0.0;
    double score = 0.0;
    if (raw < t.elevated) {
        score = raw / t.elevated * 39.0;
    } else if (raw < t.high) {
        score = (raw - t.elevated) / (t.high - t.elevated) * 24.0 + kElevatedScore;
    } else if (raw < t.critical) {
        score = (raw - t.high) / (t.critical - t.high) * 19.0 + kHighScore;
    } else {
        score = (raw - t.critical) / t.criticalBand * 15.0 + kCriticalScore;
    }
    return std::clamp(score, 0.0, 100.0);
}

PressureReading ReadSignal(const Metric<double>& metric, double scale) {
    PressureReading reading;
    reading.availability = metric.availability;
    if (!CarriesValue(metric.availability) || !metric.value || !std::isfinite(*metric.value) || *metric.value < 0.0) {
        if (CarriesValue(metric.availability)) reading.availability = MetricAvailability::transientError;
        return reading;
    }
    reading.value = *metric.value * scale;
    if (*reading.value == 0.0 && metric.availability == MetricAvailability::valid) {
        reading.availability = MetricAvailability::zero;
    }
    return reading;
}

PressureReading ScoreOf(const PressureReading& raw, double (*ladder)(double) noexcept) {
    PressureReading score;
    score.availability = raw.availability;
    if (!raw.Usable()) return score;
    score.value = ladder(*raw.value);
    if (*score.value == 0.0 && score.availability == MetricAvailability::valid) {
        score.availability = MetricAvailability::zero;
    }
    return score;
}

int MissingPriority(MetricAvailability availability) noexcept {
    switch (availability) {
        case MetricAvailability::accessDenied: return 3;
        case MetricAvailability::notYetAvailable: return 2;
        case MetricAvailability::transientError: return 1;
        default: return 0;
    }
}

}  // namespace

bool PressureReading::Usable() const noexcept {
    return CarriesValue(availability) && value.has_value() && std::isfinite(*value);
}

double LoadDemandScore(double loadDemandPercent) noexcept {
    return LadderScore(loadDemandPercent, kLoadDemandThresholds);
}

double MemoryStallScore(double memoryStallPercent) noexcept {
    return LadderScore(memoryStallPercent, kMemoryStallThresholds);
}

PressureSeverity SeverityOf(const PressureReading& score) noexcept {
    if (!score.Usable()) return PressureSeverity::unavailable;
    const double value = *score.value;
    if (value >= kCriticalScore) return PressureSeverity::critical;
    if (value >= kHighScore) return PressureSeverity::high;
    if (value >= kElevatedScore) return PressureSeverity::elevated;
    return PressureSeverity::low;
}

std::string_view SeverityKey(PressureSeverity severity) noexcept {
    switch (severity) {
        case PressureSeverity::low: return "LOW";
        case PressureSeverity::elevated: return "ELEVATED";
        case PressureSeverity::high: return "HIGH";
        case PressureSeverity::critical: return "CRITICAL";
        case PressureSeverity::unavailable: break;
    }
    return "Unavailable";
}

std::string_view DriverKey(PressureDriver driver) noexcept {
    return driver == PressureDriver::memoryStalls ? "Memory stalls" : "Load demand";
}

SystemPressure ComputeSystemPressure(const SystemSnapshot& snapshot) {
    SystemPressure pressure;
    const double processors = snapshot.logicalProcessorCount == 0 ? 1.0 : snapshot.logicalProcessorCount;
    pressure.loadDemandPercent = ReadSignal(snapshot.loadAverage1, 100.0 / processors);
    pressure.loadDemandScore = ScoreOf(pressure.loadDemandPercent, &LoadDemandScore);
    pressure.memoryStallPercent = ReadSignal(snapshot.memoryPsiSomeAvg10, 1.0);
    pressure.memoryStallScore = ScoreOf(pressure.memoryStallPercent, &MemoryStallScore);

    const bool load = pressure.loadDemandScore.Usable();
    const bool memory = pressure.memoryStallScore.Usable();
    if (load || memory) {
        // A tie goes to load demand: memory stalls decide only with a strictly higher score.
        const bool memoryWins = memory && (!load || *pressure.memoryStallScore.value > *pressure.loadDemandScore.value);
        pressure.primary = memoryWins ? PressureDriver::memoryStalls : PressureDriver::loadDemand;
        pressure.primaryIsMemory = memoryWins;
        pressure.hasPrimary = true;
        pressure.score = memoryWins ? pressure.memoryStallScore : pressure.loadDemandScore;
        return pressure;
    }
    const MetricAvailability a = pressure.loadDemandScore.availability;
    const MetricAvailability b = pressure.memoryStallScore.availability;
    pressure.score.availability = MissingPriority(b) > MissingPriority(a) ? b : a;
    return pressure;
}

}  // namespace korv::core
