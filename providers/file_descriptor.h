#pragma once

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace korv::providers {

// Closes the descriptor it holds when it goes; a negative one is none.
class FdGuard {
public:
    explicit FdGuard(int fd) noexcept : fd_(fd) {}
    ~FdGuard() {
        if (fd_ >= 0) ::close(fd_);
    }
    FdGuard(const FdGuard&) = delete;
    FdGuard& operator=(const FdGuard&) = delete;
    int get() const noexcept { return fd_; }

private:
    int fd_;
};

// A directory opened relative to another, retried after a signal; -1 with errno on failure.
inline int OpenDirectoryAt(int parentFd, const char* path, int extraFlags = 0) noexcept {
    int fd;
    do {
        fd = ::openat(parentFd, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | extraFlags);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

}  // namespace korv::providers
