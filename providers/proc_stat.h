#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace korv::providers {

// The CPU lines of /proc/stat and the utilisation between two of them. Pure functions: no I/O.

inline constexpr std::size_t kProcStatLimit = 4194304;
inline constexpr std::uint32_t kMaxLogicalCpuIndex = 65535;
inline constexpr int kProcStatMalformed = 71;         // EPROTO
inline constexpr int kProcStatIndexOutOfRange = 75;  // EOVERFLOW

// Clock ticks per field; fields a line does not carry stay 0.
struct ProcStatCpuCounters {
    std::uint64_t user = 0;
    std::uint64_t nice = 0;
    std::uint64_t system = 0;
    std::uint64_t idle = 0;
    std::uint64_t iowait = 0;
    std::uint64_t irq = 0;
    std::uint64_t softirq = 0;
    std::uint64_t steal = 0;

    friend bool operator==(const ProcStatCpuCounters&, const ProcStatCpuCounters&) = default;
};

struct ProcStatCpuEntry {
    std::uint32_t index = 0;
    ProcStatCpuCounters counters;
};

// The aggregate line and a map from logical CPU index to its counters. The map is a vector sorted
// by index, so that a snapshot parsed into again reuses its storage from tick to tick.
struct ProcStatSnapshot {
    ProcStatCpuCounters aggregate;
    std::vector<ProcStatCpuEntry> cpus;
    int error = 0;  // 0, kProcStatMalformed or kProcStatIndexOutOfRange

    const ProcStatCpuCounters* Find(std::uint32_t index) const noexcept;
};

// Takes the lines that begin with "cpu" and stops at the first other line once one was seen. A line
// needs a name and four counters; counters up to steal follow while tokens remain. The name is
// "cpu" or "cpu" with decimal digits. A later line for the same index overwrites the earlier one.
// On an error the counters are cleared.
ProcStatSnapshot ParseProcStat(std::string_view text);
void ParseProcStat(std::string_view text, ProcStatSnapshot& out);

enum class CpuDeltaStatus : std::uint8_t {
    ok,
    noElapsedTicks,      // total delta 0: nothing to divide by yet
    counterWentBackwards,  // treated as a fresh baseline
};

struct CpuUtilizationDelta {
    CpuDeltaStatus status = CpuDeltaStatus::noElapsedTicks;
    double busyPercent = 0.0;    // 100 * (total - idle - iowait) / total
    double kernelPercent = 0.0;  // 100 * (system + irq + softirq) / total; never above busy
};

CpuUtilizationDelta ComputeCpuUtilization(const ProcStatCpuCounters& previous,
                                          const ProcStatCpuCounters& current) noexcept;

}  // namespace korv::providers
