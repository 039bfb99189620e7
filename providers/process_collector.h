#pragma once

#include "core/process_details.h"
#include "core/snapshot.h"
#include "providers/process_messages.h"
#include "providers/provider_context.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

namespace korv::providers {

// Outcome of one walk of the process table. error is an errno value: that of a failed open or read
// of the process directory, 75 when there are more than kMaxProcessCount pids, ECANCELED after a
// stop request, ENODATA when no process could be read.
struct ProcessTableResult {
    bool ok = false;
    int error = 0;
    std::string message;
    std::uint64_t durationNs = 0;
};

inline constexpr std::size_t kMaxProcessCount = 131072;

// Walks <proc> once per tick and produces one row per process that was the same process (same start
// time) at the end of its read as at the beginning. Every tick reads stat, cgroup, io and status (and
// stat again where the pid directory does not pin its process), so each figure is of this tick; only
// the descriptor count is reused, for up to a second.
// Keeps per-process state between ticks, keyed by ProcessKey: CPU and I/O baselines, descriptor
// counts, the executable path and command line (read again after an exec) and, within a descriptor
// budget, the open procfs files of each process.
// Runs on the sampling thread only; the object is not shared between threads.
class ProcessCollector {
public:
    explicit ProcessCollector(ProviderRoots roots);
    // keptDescriptorCapacity 0 reads every file by open, read and close on every tick.
    ProcessCollector(ProviderRoots roots, std::size_t keptDescriptorCapacity);
    ~ProcessCollector();
    ProcessCollector(ProcessCollector&&) noexcept;
    ProcessCollector& operator=(ProcessCollector&&) noexcept;
    ProcessCollector(const ProcessCollector&) = delete;
    ProcessCollector& operator=(const ProcessCollector&) = delete;

    // Fills rows (cleared first, sorted by pid, parentKey resolved from ppid to the parent's key when
    // the parent row exists, else {0,0}); CPU percent of the whole machine and I/O rates from per-key
    // baselines (cumulative delta over the time since that key's previous reading, or ctx.elapsedNs
    // when the context carries no monotonic time; first sight of a key: notYetAvailable). Polls
    // ctx.stop between entries; a stopped walk leaves rows empty.
    ProcessTableResult Refresh(const CollectContext& ctx, std::uint32_t logicalProcessorCount,
                               std::vector<core::ProcessSnapshot>& rows);
    // Forgets the CPU and I/O baselines, so that the next rows have no rates.
    void ResetBaselines();

    std::size_t TrackedProcessCount() const noexcept;
    std::size_t KeptDescriptorCount() const noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Reads what the inspector shows for one process: pins it by reading stat, checks the key, reads the
// command line, the environment and the open descriptors, and reads stat again. nullptr when the
// process is gone or its key no longer matches. Touches no state of the collector; any thread.
// A stop request ends the read between its steps (and between descriptors) with nullptr.
std::shared_ptr<core::ProcessDetails> ReadProcessDetails(const ProviderRoots& roots, const core::ProcessKey& key,
                                                         std::stop_token stop = {});

}  // namespace korv::providers
