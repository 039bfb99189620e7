#pragma once

#include "core/metric.h"
#include "core/snapshot_enums.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korv::providers {

// Clock ticks to nanoseconds: whole seconds times 10^9 plus the remainder scaled in extended
// precision, saturating at 2^64-1. With hz 0 the result is 0.
std::uint64_t TicksToNanoseconds(std::uint64_t ticks, std::uint64_t hz) noexcept;

// R running; S, D, I, W sleeping; T, t stopped; Z zombie; anything else unknown.
core::ProcessState StateFromLetter(char letter) noexcept;

// The kernel cuts comm at 15 bytes; when the executable's file name continues it, that name is shown.
std::string_view DisplayName(std::string_view comm, std::string_view executablePath) noexcept;

// /proc/<pid>/cmdline as one line: the arguments, separated by NUL, joined by blanks. The NULs that
// end the text are dropped, and other control characters become blanks too, so that it stays one line.
void JoinArguments(std::string_view arguments, std::string& out);

// A kB figure in bytes. A missing figure takes `absent`; one of 2^54 kB or more cannot be scaled
// and is reported as transientError without a value.
void SetKibMetric(core::Metric<std::uint64_t>& metric, std::optional<std::uint64_t> kib, std::uint64_t generation,
                  core::MetricAvailability absent);

// Sums of kB figures (shared = RssFile + RssShmem) follow the same rule.
void SetKibSumMetric(core::Metric<std::uint64_t>& metric, std::optional<std::uint64_t> a,
                     std::optional<std::uint64_t> b, std::uint64_t generation, core::MetricAvailability absent);

// Percent of the whole machine from a CPU-time delta over elapsedNs on processorCount processors,
// clamped to 0..100.
double CpuPercent(std::uint64_t deltaNs, std::uint64_t elapsedNs, std::uint32_t processorCount) noexcept;

}  // namespace korv::providers
