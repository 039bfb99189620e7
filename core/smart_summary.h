#pragma once

#include <string_view>

namespace korv::core {

struct HardwareTelemetryFrame;

// What the storage tile says about drive health: nothing without a reading, "SMART: Healthy" when
// at least one drive was read and none reports a fault, "SMART: Errors" otherwise.
enum class SmartSummary { none, healthy, errors };

inline constexpr std::string_view kSmartCriticalWarningId = "storage.health.critical_warning";
inline constexpr std::string_view kSmartThresholdExceededId = "storage.health.smart_threshold_exceeded";

SmartSummary SummarizeSmart(const HardwareTelemetryFrame& frame) noexcept;

}  // namespace korv::core
