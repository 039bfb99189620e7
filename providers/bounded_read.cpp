#include "providers/bounded_read.h"

#include "providers/file_descriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace korv::providers {
namespace {

int OpenRetrying(int directoryFd, const char* path) noexcept {
    int fd;
    do {
        fd = ::openat(directoryFd, path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    } while (fd < 0 && errno == EINTR);
    return fd < 0 ? -errno : fd;
}

}  // namespace

int ReadDescriptorBounded(int fd, std::size_t limit, std::string& out, bool* truncated) {
    out.clear();
    if (truncated) *truncated = false;
    std::size_t size = 0;
    bool seekable = true;
    for (;;) {
        if (size >= limit) {
            // Probe one byte to tell a cut file from one that ends exactly at the limit.
            if (truncated && seekable) {
                char probe;
                ssize_t more;
                do {
                    more = ::pread(fd, &probe, 1, static_cast<off_t>(size));
                } while (more < 0 && errno == EINTR);
                *truncated = more > 0;
            }
            break;
        }
        const std::size_t want = std::min(kReadBlockBytes, limit - size);
        if (out.size() < size + want) out.resize(size + want);
        ssize_t got;
        do {
            got = seekable ? ::pread(fd, out.data() + size, want, static_cast<off_t>(size))
                           : ::read(fd, out.data() + size, want);
        } while (got < 0 && errno == EINTR);
        if (got < 0 && errno == ESPIPE && seekable && size == 0) {
            // A few kernel files refuse positioned reads; they are read as a stream.
            seekable = false;
            continue;
        }
        if (got < 0) {
            const int error = errno;
            out.clear();
            return error;
        }
        if (got == 0) break;
        size += static_cast<std::size_t>(got);
    }
    out.resize(size);
    return 0;
}

int ReadFileBoundedAt(int directoryFd, const char* relativePath, std::size_t limit, std::string& out,
                      bool* truncated) {
    const int fd = OpenRetrying(directoryFd, relativePath);
    if (fd < 0) {
        out.clear();
        if (truncated) *truncated = false;
        return -fd;
    }
    FdGuard guard(fd);
    return ReadDescriptorBounded(fd, limit, out, truncated);
}

int ReadFileBounded(const char* path, std::size_t limit, std::string& out, bool* truncated) {
    return ReadFileBoundedAt(AT_FDCWD, path, limit, out, truncated);
}

BoundedReadResult ReadFileBounded(const std::filesystem::path& path, std::size_t limit) {
    BoundedReadResult result;
    result.error = ReadFileBounded(path.c_str(), limit, result.text, &result.truncated);
    return result;
}

core::MetricAvailability AvailabilityFromErrno(int error) noexcept {
    switch (error) {
        case EACCES:
        case EPERM:
            return core::MetricAvailability::accessDenied;
        case ENOENT:
        case ESRCH:
            return core::MetricAvailability::notYetAvailable;
        default:
            return core::MetricAvailability::transientError;
    }
}

}  // namespace korv::providers
