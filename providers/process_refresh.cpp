#include "providers/process_refresh.h"

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

}  // namespace korv::providers
