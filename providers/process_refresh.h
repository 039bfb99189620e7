#pragma once

#include "providers/proc_pid_stat.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace korv::providers {

// When the collector reads again what a quiet process rarely changes. The descriptor count, the
// executable and the cgroup are read at first sight, after an exec and then every 5 s (30 s while
// the process neither runs nor touches memory); status is read
// at first sight, whenever stat shows a sign that its figures moved, and otherwise every 5 s.

inline constexpr std::uint64_t kSlowFigureIntervalNs = 5'000'000'000;
// ... and for a process whose stat marks (below) have not moved since those were read.
inline constexpr std::uint64_t kQuietSlowFigureIntervalNs = 30'000'000'000;
inline constexpr std::uint64_t kStatusIntervalNs = 5'000'000'000;
// stat of a process that has not run since the last read (on procfs, with its files kept open).
inline constexpr std::uint64_t kStatIntervalNs = 5'000'000'000;
// io of a process that has not run since the last read.
inline constexpr std::uint64_t kIoIntervalNs = 5'000'000'000;
// A tick this much early still counts as on time: the ticks of a 1 s cadence jitter by a few
// milliseconds, and a late-by-one comparison would stretch 5 s to 6.
inline constexpr std::uint64_t kRefreshSlackNs = 100'000'000;
inline constexpr std::uint32_t kRefreshPhases = 5;

// The time of the next read after one at nowNs. After the first read the next one comes sooner, by
// a fifth of the interval for each step of pid % 5, so that the processes first seen together (all
// of them when the program starts) spread their reads over five ticks of a 1 s cadence.
std::uint64_t NextReadNs(std::uint64_t nowNs, std::uint64_t intervalNs, std::uint32_t pid, bool firstRead) noexcept;

// True when dueNs has come, or when nowNs lies before the read that set it (the clock went back).
bool ReadDue(std::uint64_t dueNs, std::uint64_t intervalNs, std::uint64_t nowNs) noexcept;

// The stat fields that move with anything status reports: CPU time (a process that ran may have
// changed its ids or its memory), resident pages, and page faults (memory touched or paged in).
struct StatusMarks {
    std::uint64_t cpuTicks = 0;
    std::int64_t rssPages = 0;
    std::uint64_t minorFaults = 0;
    std::uint64_t majorFaults = 0;
    bool operator==(const StatusMarks&) const = default;
};

StatusMarks MarksOf(const ParsedProcStat& stat) noexcept;

// From /proc/<pid>/schedstat: the time run in nanoseconds and the number of times the process was
// put on a processor. Unlike stat's CPU time, which is charged in whole clock ticks, these move on
// every run however short, so an unchanged pair proves that the process made no system call.
struct RunMarks {
    std::uint64_t runNs = 0;
    std::uint64_t timeslices = 0;
    bool operator==(const RunMarks&) const = default;
};
inline constexpr std::size_t kProcPidSchedstatLimit = 256;

// The first and third numbers of the line; none when the text has not three numbers.
std::optional<RunMarks> ParseSchedstat(std::string_view text) noexcept;

}  // namespace korv::providers
