#include "core/smart_summary.h"
#include "core/telemetry_frame.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace korv::core {
namespace {

struct Reading {
    std::string id;
    std::optional<double> value;
    MetricAvailability availability = MetricAvailability::valid;
};

HardwareTelemetryFrame FrameOf(const std::vector<Reading>& readings) {
    HardwareTelemetryFrame frame;
    int disk = 0;
    for (const Reading& r : readings) {
        TelemetryMetric metric;
        metric.id = r.id;
        metric.deviceId = "storage:disk" + std::to_string(disk++);
        metric.numericValue = r.value;
        metric.availability = r.availability;
        frame.metrics.push_back(metric);
    }
    return frame;
}

struct SmartCase {
    const char* name;
    std::vector<Reading> readings;
    SmartSummary expected;
};

class SmartSummaryTest : public ::testing::TestWithParam<SmartCase> {};

TEST_P(SmartSummaryTest, Summarizes) {
    EXPECT_EQ(SummarizeSmart(FrameOf(GetParam().readings)), GetParam().expected) << GetParam().name;
}

const std::string kWarn{kSmartCriticalWarningId};
const std::string kThreshold{kSmartThresholdExceededId};
using A = MetricAvailability;

INSTANTIATE_TEST_SUITE_P(
    Cases, SmartSummaryTest,
    ::testing::Values(
        SmartCase{"no disks", {}, SmartSummary::none},
        SmartCase{"other metrics only", {{"storage.temperature.composite_c", 40.0}}, SmartSummary::none},
        SmartCase{"one healthy nvme", {{kWarn, 0.0, A::zero}}, SmartSummary::healthy},
        SmartCase{"healthy ata", {{kThreshold, 0.0, A::zero}}, SmartSummary::healthy},
        SmartCase{"warning bits", {{kWarn, 0.0, A::zero}, {kWarn, 4.0}}, SmartSummary::errors},
        SmartCase{"threshold exceeded", {{kThreshold, 1.0}, {kWarn, 0.0, A::zero}}, SmartSummary::errors},
        SmartCase{"stale fault still counts", {{kWarn, 2.0, A::stale}}, SmartSummary::errors},
        SmartCase{"stale healthy reading", {{kWarn, 0.0, A::stale}}, SmartSummary::healthy},
        SmartCase{"denied reading is no reading", {{kWarn, std::nullopt, A::accessDenied}}, SmartSummary::none},
        SmartCase{"not finite is ignored",
                  {{kWarn, std::numeric_limits<double>::quiet_NaN()}, {kThreshold, 0.0, A::zero}},
                  SmartSummary::healthy},
        SmartCase{"value without carrying state ignored", {{kWarn, 8.0, A::transientError}}, SmartSummary::none}));

}  // namespace
}  // namespace korv::core
