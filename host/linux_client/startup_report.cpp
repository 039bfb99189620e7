#include "host/linux_client/startup_report.h"

#include "providers/proc_pid_stat.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

namespace korv::host::linux_client {

std::optional<double> MillisecondsSinceProcessStart() {
    const auto read = providers::ReadProcPidStat("/proc", static_cast<std::uint32_t>(::getpid()));
    if (!read.stat.has_value()) {
        return std::nullopt;
    }
    const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    timespec now{};
    // field 22 counts from boot in the boot-time clock, which keeps running through suspend
    if (ticksPerSecond <= 0 || ::clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        return std::nullopt;
    }
    const double startMs = static_cast<double>(read.stat->starttime) * 1000.0 / static_cast<double>(ticksPerSecond);
    const double nowMs = static_cast<double>(now.tv_sec) * 1000.0 + static_cast<double>(now.tv_nsec) / 1.0e6;
    return std::max(0.0, nowMs - startMs);
}

void ReportFirstSnapshotApplied() {
    static std::atomic<bool> reported{false};
    if (std::getenv("KORV_STARTUP_REPORT") == nullptr || reported.exchange(true)) {
        return;
    }
    const std::optional<double> elapsed = MillisecondsSinceProcessStart();
    if (elapsed.has_value()) {
        std::fprintf(stderr, "korv: first snapshot applied after %.0f ms\n", *elapsed);
    }
}

}  // namespace korv::host::linux_client
