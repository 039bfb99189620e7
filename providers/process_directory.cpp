#include "providers/process_directory.h"

#include "providers/process_messages.h"

#include <charconv>
#include <system_error>

namespace korv::providers {

std::uint32_t ParsePidName(std::string_view name) noexcept {
    if (name.empty() || name.front() == '0') return 0;
    std::uint32_t pid = 0;
    const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (ec != std::errc{} || end != name.data() + name.size()) return 0;
    return pid;
}

PidEnumeration EnumeratePids(int rootFd, const std::stop_token& stop, std::size_t limit,
                             std::vector<std::uint32_t>& pids, std::vector<char>& buffer) {
    pids.clear();
    bool cancelled = false;
    bool overflow = false;
    const int error = ForEachDirectoryEntry(rootFd, buffer, [&](std::string_view name) {
        if (stop.stop_requested()) {
            cancelled = true;
            return false;
        }
        const std::uint32_t pid = ParsePidName(name);
        if (pid == 0) return true;
        if (pids.size() >= limit) {
            overflow = true;
            return false;
        }
        pids.push_back(pid);
        return true;
    });
    if (cancelled) return {ECANCELED, kProcessEnumerationCancelled};
    if (error != 0) return {error, kProcessIterationFailed};
    if (overflow) return {kProcessCountExceededError, kProcessCountExceeded};
    return {};
}

const char* PidText(std::uint32_t pid, char (&out)[16]) noexcept {
    const auto [end, ec] = std::to_chars(out, out + sizeof out - 1, pid);
    *end = '\0';
    (void)ec;
    return out;
}

}  // namespace korv::providers
