#include "core/engine_stats.h"

#include <cstdio>
#include <vector>

namespace korv::core {
namespace {

void AppendCount(std::string& out, std::uint64_t count, std::string_view singular, std::string_view plural) {
    out += std::to_string(count);
    out += ' ';
    out += count == 1 ? singular : plural;
}

// Appends the non-zero items as "<n> <noun>" joined by ", ".
struct ItemList {
    std::string& out;
    bool first = true;

    void Add(std::uint64_t count, std::string_view singular, std::string_view plural) {
        if (count == 0) return;
        if (!first) out += ", ";
        first = false;
        AppendCount(out, count, singular, plural);
    }
};

}  // namespace

std::string BuildEngineDiagnostic(const EngineStats& stats, const RepairCounts& sampleRepairs) {
    std::string text;
    const std::uint64_t dropped = stats.collectFailures + stats.incoherentSnapshots;
    if (dropped != 0) {
        AppendCount(text, dropped, "sample dropped (", "samples dropped (");
        ItemList items{text};
        items.Add(stats.collectFailures, "collect failure", "collect failures");
        items.Add(stats.incoherentSnapshots, "incoherent snapshot", "incoherent snapshots");
        text += ')';
        if (stats.consecutiveDrops != 0) {
            text += ", ";
            text += std::to_string(stats.consecutiveDrops);
            text += " in a row before this sample";
        }
    } else if (stats.cadenceOverruns == 0 && stats.repairedSamples == 0) {
        return "No samples dropped or repaired.";
    } else {
        text = "No samples dropped";
    }

    if (stats.cadenceOverruns != 0) {
        text += "; ";
        AppendCount(text, stats.cadenceOverruns, "cadence overrun", "cadence overruns");
    }

    text += "; ";
    if (stats.repairedSamples == 0) {
        text += "no samples repaired";
    } else {
        AppendCount(text, stats.repairedSamples, "sample repaired (", "samples repaired (");
        const RepairCounts& r = stats.repairs;
        ItemList items{text};
        items.Add(r.percentagesClamped, "percentage clamped", "percentages clamped");
        items.Add(r.metricsMarkedUnavailable, "metric marked unavailable", "metrics marked unavailable");
        items.Add(r.duplicateRowsDropped, "duplicate row dropped", "duplicate rows dropped");
        items.Add(r.parentLinksDetached, "parent link detached", "parent links detached");
        items.Add(r.sessionMembersDropped, "session member dropped", "session members dropped");
        items.Add(r.serviceLinksDetached, "service link detached", "service links detached");
        items.Add(r.exitedEntriesDropped, "exited entry dropped", "exited entries dropped");
        items.Add(r.processorCountsCorrected, "processor count corrected", "processor counts corrected");
        text += ')';
    }

    const std::uint64_t sampleSum = sampleRepairs.Sum();
    if (sampleSum != 0) {
        text += "; this sample needed ";
        AppendCount(text, sampleSum, "repair", "repairs");
    }
    return text;
}

std::optional<std::string> FormatRateLimitedReport(std::string_view headline, std::string_view detail,
                                                   std::uint64_t count) {
    if (count != 1 && (count == 0 || count % 100 != 0)) return std::nullopt;
    std::string line = "korv: ";
    line += headline;
    line += " (";
    line += detail;
    line += "); ";
    line += std::to_string(count);
    line += " so far\n";
    return line;
}

void ReportRateLimited(std::string_view headline, std::string_view detail, std::uint64_t count) noexcept {
    try {
        if (auto line = FormatRateLimitedReport(headline, detail, count)) {
            std::fputs(line->c_str(), stderr);
        }
    } catch (...) {
        // Logging must never take the engine down.
    }
}

}  // namespace korv::core
