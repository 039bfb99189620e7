#pragma once

#include "core/metric.h"

#include <cstdint>
#include <vector>

namespace korv::providers {

// Open-descriptor counts: the entries of /proc/<pid>/fd without "." and "..". Listing that directory
// is the costliest read per process, so a count is reused, with its age, for up to a second.

struct DirectoryCount {
    std::uint64_t count = 0;
    int error = 0;
};

DirectoryCount CountDirectoryEntries(int directoryFd, const char* relativePath, std::vector<char>& buffer);

// What the last read gave is reused while that read is at most this old.
inline constexpr std::uint64_t kDescriptorCountReuseNs = 999'999'999;
// A count younger than this survives a failed read, as stale and with its old read time.
inline constexpr std::uint64_t kDescriptorCountKeepNs = 2'000'000'000;

struct DescriptorCountState {
    bool have = false;
    std::uint64_t count = 0;
    std::uint64_t readNs = 0;  // monotonic time of the last successful read
    std::uint64_t generation = 0;
    bool tried = false;
    std::uint64_t triedNs = 0;  // ... and of the last read, successful or not
    int error = 0;  // errno of the last read when it failed, so that a reused failure says the same
};

// True when the directory must be listed again: never read, last read older than
// kDescriptorCountReuseNs, or a clock that went back.
bool DescriptorCountDue(const DescriptorCountState& state, std::uint64_t nowNs) noexcept;

// Records a fresh read (read != nullptr) or reuses the state, and fills the metric: a count is valid
// with its age; after a failed read a count younger than kDescriptorCountKeepNs is kept as stale,
// otherwise the errno decides the availability. A reuse repeats what the last read gave, aged.
void ApplyDescriptorCount(DescriptorCountState& state, const DirectoryCount* read, std::uint64_t nowNs,
                          std::uint64_t generation, core::Metric<std::uint64_t>& out);

}  // namespace korv::providers
