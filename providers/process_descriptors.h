#pragma once

#include "core/metric.h"

#include <cstdint>
#include <vector>

namespace korv::providers {

// Open-descriptor counts: the entries of /proc/<pid>/fd without "." and "..". Listing that directory
// is the costliest read per process, so a count is reused for a second per process key.

struct DirectoryCount {
    std::uint64_t count = 0;
    int error = 0;
};

DirectoryCount CountDirectoryEntries(int directoryFd, const char* relativePath, std::vector<char>& buffer);

inline constexpr std::uint64_t kDescriptorCountReuseNs = 999'999'999;  // a younger count is reused
inline constexpr std::uint64_t kDescriptorCountKeepNs = 2'000'000'000;  // a younger count survives a failed read

struct DescriptorCountState {
    bool have = false;
    std::uint64_t count = 0;
    std::uint64_t readNs = 0;  // monotonic time of the read
    std::uint64_t generation = 0;
};

bool DescriptorCountDue(const DescriptorCountState& state, std::uint64_t nowNs) noexcept;

// Records a fresh read (read != nullptr) or reuses the state, and fills the metric: a reused count
// is valid with its age; after a failed read a count younger than 2 s is kept as stale, otherwise
// the errno decides the availability.
void ApplyDescriptorCount(DescriptorCountState& state, const DirectoryCount* read, std::uint64_t nowNs,
                          std::uint64_t generation, core::Metric<std::uint64_t>& out);

}  // namespace korv::providers
