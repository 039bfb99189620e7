#include "core/engine_stats.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

namespace korv::core {
namespace {

EngineStats Stats(std::uint64_t collectFailures, std::uint64_t incoherent, std::uint64_t overruns,
                  std::uint64_t consecutive, std::uint64_t repairedSamples = 0, RepairCounts repairs = {}) {
    EngineStats stats;
    stats.collectFailures = collectFailures;
    stats.incoherentSnapshots = incoherent;
    stats.cadenceOverruns = overruns;
    stats.consecutiveDrops = consecutive;
    stats.lastDropReason = consecutive != 0 ? DropReason::collect : DropReason::none;
    stats.repairedSamples = repairedSamples;
    stats.repairs = repairs;
    return stats;
}

RepairCounts Repairs(std::uint64_t clamped, std::uint64_t unavailable, std::uint64_t duplicates,
                     std::uint64_t parents, std::uint64_t members, std::uint64_t services, std::uint64_t exited,
                     std::uint64_t processorCounts) {
    RepairCounts counts;
    counts.percentagesClamped = clamped;
    counts.metricsMarkedUnavailable = unavailable;
    counts.duplicateRowsDropped = duplicates;
    counts.parentLinksDetached = parents;
    counts.sessionMembersDropped = members;
    counts.serviceLinksDetached = services;
    counts.exitedEntriesDropped = exited;
    counts.processorCountsCorrected = processorCounts;
    return counts;
}

struct DiagnosticCase {
    const char* name;
    EngineStats stats;
    RepairCounts sample;
    std::string expected;
};

TEST(EngineDiagnosticTest, ReportTextWordForWord) {
    const DiagnosticCase cases[] = {
        {"nothing", Stats(0, 0, 0, 0), {}, "No samples dropped or repaired."},
        {"one collect failure in a row", Stats(1, 0, 0, 1), {},
         "1 sample dropped (1 collect failure), 1 in a row before this sample; no samples repaired"},
        {"one incoherent, not in a row", Stats(0, 1, 0, 0), {},
         "1 sample dropped (1 incoherent snapshot); no samples repaired"},
        {"mixed plural drops", Stats(2, 3, 0, 4), {},
         "5 samples dropped (2 collect failures, 3 incoherent snapshots), 4 in a row before this sample; "
         "no samples repaired"},
        {"drops and overruns", Stats(1, 1, 2, 0), {},
         "2 samples dropped (1 collect failure, 1 incoherent snapshot); 2 cadence overruns; no samples repaired"},
        {"overruns only", Stats(0, 0, 1, 0), {}, "No samples dropped; 1 cadence overrun; no samples repaired"},
        {"repairs, singular items", Stats(0, 0, 0, 0, 1, Repairs(1, 1, 1, 1, 1, 1, 1, 1)), {},
         "No samples dropped; 1 sample repaired (1 percentage clamped, 1 metric marked unavailable, "
         "1 duplicate row dropped, 1 parent link detached, 1 session member dropped, 1 service link detached, "
         "1 exited entry dropped, 1 processor count corrected)"},
        {"repairs, plural items", Stats(0, 0, 0, 0, 9, Repairs(2, 3, 4, 5, 6, 7, 8, 9)), {},
         "No samples dropped; 9 samples repaired (2 percentages clamped, 3 metrics marked unavailable, "
         "4 duplicate rows dropped, 5 parent links detached, 6 session members dropped, 7 service links detached, "
         "8 exited entries dropped, 9 processor counts corrected)"},
        {"repairs, zero items left out", Stats(0, 0, 0, 0, 3, Repairs(0, 2, 0, 1, 0, 0, 0, 0)),
         Repairs(0, 2, 0, 1, 0, 0, 0, 0),
         "No samples dropped; 3 samples repaired (2 metrics marked unavailable, 1 parent link detached); "
         "this sample needed 3 repairs"},
        {"this sample needed one repair", Stats(1, 0, 1, 0, 1, Repairs(0, 0, 0, 0, 0, 0, 1, 0)),
         Repairs(0, 0, 0, 0, 0, 0, 1, 0),
         "1 sample dropped (1 collect failure); 1 cadence overrun; 1 sample repaired (1 exited entry dropped); "
         "this sample needed 1 repair"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(BuildEngineDiagnostic(c.stats, c.sample), c.expected) << c.name;
    }
}

TEST(RateLimitedReportTest, SpeaksOnTheFirstAndEveryHundredth) {
    const struct {
        std::uint64_t count;
        std::optional<std::string> line;
    } cases[] = {
        {0, std::nullopt},
        {1, "korv: snapshot dropped (provider returned no snapshot); 1 so far\n"},
        {2, std::nullopt},
        {99, std::nullopt},
        {100, "korv: snapshot dropped (provider returned no snapshot); 100 so far\n"},
        {101, std::nullopt},
        {200, "korv: snapshot dropped (provider returned no snapshot); 200 so far\n"},
        {18'446'744'073'709'551'600ULL,
         "korv: snapshot dropped (provider returned no snapshot); 18446744073709551600 so far\n"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FormatRateLimitedReport("snapshot dropped", "provider returned no snapshot", c.count), c.line)
            << c.count;
    }
}

}  // namespace
}  // namespace korv::core
