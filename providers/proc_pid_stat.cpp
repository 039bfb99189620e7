#include "providers/proc_pid_stat.h"

#include "providers/bounded_read.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>

namespace korv::providers {
namespace {

constexpr std::string_view kStateLetters = "DIKPRSTWXZtx";

bool IsSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\n'; }

template <typename T>
bool ParseNumber(std::string_view token, T& out) noexcept {
    const auto [end, ec] = std::from_chars(token.data(), token.data() + token.size(), out);
    return ec == std::errc{} && end == token.data() + token.size();
}

}  // namespace

std::optional<ParsedProcStat> ParseProcPidStat(std::string_view text, std::uint32_t expectedPid) {
    ParsedProcStat stat;

    const std::size_t open = text.find('(');
    if (open == std::string_view::npos || open == 0) return std::nullopt;
    std::string_view pidText = text.substr(0, open);
    while (!pidText.empty() && IsSpace(pidText.back())) pidText.remove_suffix(1);
    if (!ParseNumber(pidText, stat.pid) || stat.pid == 0) return std::nullopt;
    if (expectedPid != 0 && stat.pid != expectedPid) return std::nullopt;

    // Search backwards for ") X " with X a state letter.
    std::size_t close = std::string_view::npos;
    for (std::size_t i = text.size(); i-- > open + 1;) {
        if (text[i] != ')') continue;
        if (i + 3 < text.size() && text[i + 1] == ' ' && kStateLetters.find(text[i + 2]) != std::string_view::npos &&
            text[i + 3] == ' ') {
            close = i;
            break;
        }
    }
    if (close == std::string_view::npos) return std::nullopt;
    stat.comm.assign(text.substr(open + 1, close - open - 1));
    stat.state = text[close + 2];

    // Fields behind the state, numbered from 0: 0 ppid, 6 minflt, 8 majflt, 10 utime, 11 stime,
    // 14 priority, 15 nice, 16 num_threads, 18 starttime, 19 vsize, 20 rss.
    std::array<std::string_view, 21> fields;
    std::size_t count = 0;
    std::size_t pos = close + 4;
    while (pos < text.size() && count < fields.size()) {
        while (pos < text.size() && IsSpace(text[pos])) ++pos;
        if (pos >= text.size()) break;
        const std::size_t start = pos;
        while (pos < text.size() && !IsSpace(text[pos])) ++pos;
        fields[count++] = text.substr(start, pos - start);
    }
    if (count < fields.size()) return std::nullopt;

    if (!ParseNumber(fields[0], stat.ppid) || !ParseNumber(fields[6], stat.minflt) ||
        !ParseNumber(fields[8], stat.majflt) || !ParseNumber(fields[10], stat.utime) ||
        !ParseNumber(fields[11], stat.stime) || !ParseNumber(fields[14], stat.priority) ||
        !ParseNumber(fields[15], stat.nice) || !ParseNumber(fields[16], stat.numThreads) ||
        !ParseNumber(fields[18], stat.starttime) || !ParseNumber(fields[19], stat.vsize) ||
        !ParseNumber(fields[20], stat.rss)) {
        return std::nullopt;
    }
    if (stat.starttime == 0) return std::nullopt;
    return stat;
}

ProcStatRead ReadProcPidStatAt(int pidDirectoryFd, std::uint32_t pid, std::string& buffer) {
    ProcStatRead result;
    result.error = ReadFileBoundedAt(pidDirectoryFd, "stat", kProcPidStatLimit, buffer);
    if (result.error != 0) return result;
    result.stat = ParseProcPidStat(buffer, pid);
    if (!result.stat) result.error = EINVAL;
    return result;
}

ProcStatRead ReadProcPidStat(const std::string& procRoot, std::uint32_t pid) {
    std::string path = procRoot;
    path += '/';
    path += std::to_string(pid);
    path += "/stat";
    std::string buffer;
    ProcStatRead result;
    result.error = ReadFileBounded(path.c_str(), kProcPidStatLimit, buffer);
    if (result.error != 0) return result;
    result.stat = ParseProcPidStat(buffer, pid);
    if (!result.stat) result.error = EINVAL;
    return result;
}

}  // namespace korv::providers
