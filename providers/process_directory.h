#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stop_token>
#include <dirent.h>
#include <sys/types.h>
#include <string_view>
#include <vector>

namespace korv::providers {

// Walks an open directory with getdents64 into a caller's buffer, so that repeated walks (the pid
// list every tick, /proc/<pid>/fd every second) allocate nothing once the buffer has its size.
// visit(name) returns false to stop early. Returns 0 or the errno of a failed read.
template <typename Visit>
int ForEachDirectoryEntry(int directoryFd, std::vector<char>& buffer, Visit&& visit) {
    if (buffer.size() < 32768) buffer.resize(32768);
    for (;;) {
        ssize_t got;
        do {
            got = ::getdents64(directoryFd, buffer.data(), buffer.size());
        } while (got < 0 && errno == EINTR);
        if (got < 0) return errno;
        if (got == 0) return 0;
        std::size_t offset = 0;
        while (offset < static_cast<std::size_t>(got)) {
            const char* record = buffer.data() + offset;
            unsigned short length = 0;
            std::memcpy(&length, record + offsetof(dirent64, d_reclen), sizeof length);
            if (length == 0) return EIO;
            const char* name = record + offsetof(dirent64, d_name);
            const std::size_t nameLength = ::strnlen(name, length - offsetof(dirent64, d_name));
            const std::string_view entry(name, nameLength);
            if (entry != "." && entry != ".." && !visit(entry)) return 0;
            offset += length;
        }
    }
}

// A positive decimal number without leading zeros, as /proc names its process directories; 0 for
// anything else.
std::uint32_t ParsePidName(std::string_view name) noexcept;

// Lists the pids of a proc root into pids (cleared first), unsorted. At most `limit` pids; one more
// is error 75. The stop token is polled between entries. message is null on success.
struct PidEnumeration {
    int error = 0;
    const char* message = nullptr;
};
PidEnumeration EnumeratePids(int rootFd, const std::stop_token& stop, std::size_t limit,
                             std::vector<std::uint32_t>& pids, std::vector<char>& buffer);

// Writes the decimal text of pid and a terminating NUL into out; returns out.
const char* PidText(std::uint32_t pid, char (&out)[16]) noexcept;

}  // namespace korv::providers
