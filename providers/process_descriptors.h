#pragma once

#include "core/metric.h"

#include <cstdint>
#include <vector>

namespace korv::providers {

// Open-descriptor counts: the entries of /proc/<pid>/fd without "." and "..". Listing that directory
// is the costliest read per process, so the collector recounts only now and then and reuses the count
// in between, with its age.

struct DirectoryCount {
    std::uint64_t count = 0;
    int error = 0;
};

DirectoryCount CountDirectoryEntries(int directoryFd, const char* relativePath, std::vector<char>& buffer);

// A count younger than this survives a failed read as stale: a failure at the next recount keeps it,
// one at the recount after that does not.
inline constexpr std::uint64_t kDescriptorCountKeepNs = 10'000'000'000;

struct DescriptorCountState {
    bool have = false;
    std::uint64_t count = 0;
    std::uint64_t readNs = 0;  // monotonic time of the last successful read
    std::uint64_t generation = 0;
    int error = 0;  // errno of the last read when it failed, so that a reused failure says the same
};

// Records a fresh read (read != nullptr) or reuses the state, and fills the metric: a count is valid
// with its age; after a failed read a count younger than kDescriptorCountKeepNs is kept as stale,
// otherwise the errno decides the availability. A reuse repeats what the last read gave, aged.
void ApplyDescriptorCount(DescriptorCountState& state, const DirectoryCount* read, std::uint64_t nowNs,
                          std::uint64_t generation, core::Metric<std::uint64_t>& out);

}  // namespace korv::providers
