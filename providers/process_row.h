#pragma once

#include "core/snapshot.h"
#include "providers/proc_pid_stat.h"
#include "providers/process_status.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace korv::providers {

// Turns what the procfs files of one process said into the metrics of its row. Every metric carries
// its availability and its source: "linux.procfs" for what the files give, "linux.procfs.stat-rss"
// for a working set taken from stat, "linux.procfs.fd" for descriptor counts, "linux.process" for
// the rates derived here; network, GPU and NPU figures are unsupported.

// A row with every source and quality set and nothing read yet.
core::ProcessSnapshot PrototypeProcessRow();

// A cumulative counter's previous reading, and the time since it was taken.
struct CounterBaseline {
    bool have = false;
    std::uint64_t value = 0;
    std::uint64_t elapsedNs = 0;
};

// State, nice, threads, virtual size, CPU times and page faults. parentKey holds {ppid, 0} until the
// parents are resolved. Returns the total CPU time in nanoseconds.
std::uint64_t FillFromStat(core::ProcessSnapshot& row, const ParsedProcStat& stat, std::uint64_t hz,
                           std::uint64_t generation);

// CPU percent of the whole machine against the previous total; notYetAvailable without a baseline.
void FillCpuPercent(core::ProcessSnapshot& row, std::uint64_t totalNs, const CounterBaseline& previous,
                    std::uint32_t processorCount, std::uint64_t generation);

// The four io counters and the byte rates; error is that of the read or the parse.
void FillIo(core::ProcessSnapshot& row, const ProcIoParse& io, int error, const CounterBaseline& previousRead,
            const CounterBaseline& previousWrite, std::uint64_t generation);

// Memory figures from a parsed status. The working set falls back to stat's rss pages when status has
// no VmRSS. Returns the real uid when status names one.
std::optional<std::uint32_t> FillStatus(core::ProcessSnapshot& row, const ParsedProcStatus& status,
                                        std::int64_t statRssPages, std::uint64_t pageSize,
                                        std::uint64_t generation);

// The same when status could not be read: error, its errno, decides the availability.
void FillStatusError(core::ProcessSnapshot& row, int error, std::int64_t statRssPages, std::uint64_t pageSize,
                     std::uint64_t generation);

}  // namespace korv::providers
