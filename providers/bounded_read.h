#pragma once

#include "core/metric.h"

#include <cstddef>
#include <filesystem>
#include <string>

namespace korv::providers {

// Every procfs and sysfs read goes through these: the file is read in 16,384-byte blocks up to a
// byte limit, so a file that is longer than the limit is cut and never grows memory. procfs reports
// a size of 0 for its files, so the size is never trusted; EINTR is retried.

inline constexpr std::size_t kReadBlockBytes = 16384;

struct BoundedReadResult {
    std::string text;
    int error = 0;  // errno of the failed open or read; 0 on success
    bool truncated = false;
    bool Ok() const noexcept { return error == 0; }
};

BoundedReadResult ReadFileBounded(const std::filesystem::path& path, std::size_t limit);

// Reads into a caller's buffer that is reused between calls. Returns 0 or an errno value.
int ReadFileBounded(const char* path, std::size_t limit, std::string& out, bool* truncated = nullptr);
int ReadFileBoundedAt(int directoryFd, const char* relativePath, std::size_t limit, std::string& out,
                      bool* truncated = nullptr);
// Reads an open descriptor from offset 0 with pread, so that a kept descriptor can be re-read.
int ReadDescriptorBounded(int fd, std::size_t limit, std::string& out, bool* truncated = nullptr);

// EACCES and EPERM: accessDenied; ENOENT and ESRCH: notYetAvailable; all else transientError.
core::MetricAvailability AvailabilityFromErrno(int error) noexcept;

}  // namespace korv::providers
