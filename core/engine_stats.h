#pragma once

#include "core/snapshot_coherence.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korv::core {

enum class DropReason : std::uint32_t { none = 0, collect = 1, incoherent = 2 };

struct EngineStats {
    std::uint64_t collectFailures = 0;
    std::uint64_t incoherentSnapshots = 0;
    std::uint64_t cadenceOverruns = 0;
    std::uint64_t consecutiveDrops = 0;
    DropReason lastDropReason = DropReason::none;
    std::uint64_t repairedSamples = 0;
    RepairCounts repairs;
};

inline constexpr std::string_view kEngineProviderName = "sampling-engine";

// The engine's own health-row text, from the running totals and this sample's repairs, e.g.
// "2 samples dropped (1 collect failure, 1 incoherent snapshot); 1 cadence overrun; no samples repaired".
std::string BuildEngineDiagnostic(const EngineStats& stats, const RepairCounts& sampleRepairs);

// The error-stream line "korv: <headline> (<detail>); <count> so far\n", given only on the first
// occurrence and on every hundredth, so that a broken machine cannot flood the log.
std::optional<std::string> FormatRateLimitedReport(std::string_view headline, std::string_view detail,
                                                   std::uint64_t count);

// Writes a FormatRateLimitedReport line, if any, to standard error.
void ReportRateLimited(std::string_view headline, std::string_view detail, std::uint64_t count) noexcept;

}  // namespace korv::core
