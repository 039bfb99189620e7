#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korv::providers {

// The fields of /proc/<pid>/stat that the provider uses.
struct ParsedProcStat {
    std::uint32_t pid = 0;
    std::string comm;
    char state = '?';
    std::uint32_t ppid = 0;
    std::uint64_t minflt = 0;
    std::uint64_t majflt = 0;
    std::uint64_t utime = 0;
    std::uint64_t stime = 0;
    std::int64_t priority = 0;
    std::int64_t nice = 0;
    std::uint64_t numThreads = 0;
    std::uint64_t starttime = 0;  // clock ticks since boot; never 0 in a parsed record
    std::uint64_t vsize = 0;
    std::int64_t rss = 0;  // pages
};

inline constexpr std::size_t kProcPidStatLimit = 65536;

// Parses one stat line. The name lies between the first "(" and the last ")" that is followed by a
// space, a state letter and a space, so that a name such as "a) R (b" cannot break the parse.
// Returns nothing for any other shape, a pid other than expectedPid (when that is not 0), fewer
// than 21 fields behind the state, or a start time of 0.
std::optional<ParsedProcStat> ParseProcPidStat(std::string_view text, std::uint32_t expectedPid);

// Reads and parses <procRoot>/<pid>/stat, or <directoryFd>/stat for an open pid directory.
struct ProcStatRead {
    std::optional<ParsedProcStat> stat;
    int error = 0;  // errno of a failed read; EINVAL (22) for a malformed file
};
ProcStatRead ReadProcPidStat(const std::string& procRoot, std::uint32_t pid);
ProcStatRead ReadProcPidStatAt(int pidDirectoryFd, std::uint32_t pid, std::string& buffer);

}  // namespace korv::providers
