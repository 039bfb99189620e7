#include "providers/process_refresh.h"

#include <charconv>
#include <system_error>

namespace korv::providers {

std::uint64_t NextReadNs(std::uint64_t nowNs, std::uint64_t intervalNs, std::uint32_t pid, bool firstRead) noexcept {
    const std::uint64_t sooner = firstRead ? intervalNs / kRefreshPhases * (pid % kRefreshPhases) : 0;
    return nowNs + (intervalNs - sooner);
}

bool ReadDue(std::uint64_t dueNs, std::uint64_t intervalNs, std::uint64_t nowNs) noexcept {
    return nowNs + kRefreshSlackNs >= dueNs || dueNs - nowNs > intervalNs;
}

StatusMarks MarksOf(const ParsedProcStat& stat) noexcept {
    return {stat.utime + stat.stime, stat.rss, stat.minflt, stat.majflt};
}

std::optional<RunMarks> ParseSchedstat(std::string_view text) noexcept {
    std::uint64_t fields[3] = {};
    const char* at = text.data();
    const char* const end = text.data() + text.size();
    for (std::uint64_t& field : fields) {
        while (at < end && *at == ' ') ++at;
        const auto [next, error] = std::from_chars(at, end, field);
        if (error != std::errc() || next == at) return std::nullopt;
        at = next;
    }
    return RunMarks{fields[0], fields[2]};
}

}  // namespace korv::providers
