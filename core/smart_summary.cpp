#include "core/smart_summary.h"

#include "core/telemetry_frame.h"

#include <cmath>

namespace korv::core {

SmartSummary SummarizeSmart(const HardwareTelemetryFrame& frame) noexcept {
    bool anyRead = false;
    for (const TelemetryMetric& metric : frame.metrics) {
        if (metric.id != kSmartCriticalWarningId && metric.id != kSmartThresholdExceededId) continue;
        if (!CarriesValue(metric.availability) || !metric.numericValue || !std::isfinite(*metric.numericValue)) {
            continue;
        }
        if (*metric.numericValue != 0.0) return SmartSummary::errors;
        anyRead = true;
    }
    return anyRead ? SmartSummary::healthy : SmartSummary::none;
}

}  // namespace korv::core
