#pragma once

#include "core/metric.h"
#include "core/process_key.h"
#include "core/snapshot_enums.h"

#include <cstdint>
#include <string>
#include <vector>

namespace korv::core {

// What the process inspector shows beyond the table row: read on demand, off the sampling thread,
// for one process that is pinned by its key for the whole read.

enum class DescriptorKind : std::uint32_t { file = 0, socket = 1, pipe = 2, other = 3 };

struct OpenDescriptor {
    std::int32_t fd = -1;
    std::string target;  // "socket (inode N)", "pipe (inode N)", a path, or the kernel's own text
    DescriptorKind kind = DescriptorKind::other;
};

struct ProcessDetails {
    ProcessKey key;
    std::uint32_t parentPid = 0;
    std::string name;
    ProcessState state = ProcessState::unknown;
    char stateLetter = '?';
    std::int64_t nice = 0;
    std::int64_t priority = 0;
    std::uint64_t threadCount = 0;

    std::string executablePath;  // empty for a kernel thread or when it cannot be read
    MetricAvailability executableAvailability = MetricAvailability::notYetAvailable;

    std::vector<std::string> commandLine;  // one entry per argument
    MetricAvailability commandLineAvailability = MetricAvailability::notYetAvailable;
    bool commandLineTruncated = false;

    std::vector<std::string> environment;  // "KEY=value" entries as the process holds them
    MetricAvailability environmentAvailability = MetricAvailability::notYetAvailable;
    bool environmentTruncated = false;

    std::vector<OpenDescriptor> descriptors;  // ascending by fd number, cut at a fixed limit
    std::uint64_t descriptorsNotShown = 0;
    MetricAvailability descriptorsAvailability = MetricAvailability::notYetAvailable;
};

// The closing line of a cut descriptor list: "(<n> more open descriptors not shown)".
inline std::string HiddenDescriptorsLine(std::uint64_t notShown) {
    return "(" + std::to_string(notShown) + " more open descriptors not shown)";
}

}  // namespace korv::core
