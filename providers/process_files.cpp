#include "providers/process_files.h"

#include "providers/bounded_read.h"
#include "providers/process_directory.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

namespace korv::providers {
namespace {

int OpenAt(int directoryFd, const char* path, int flags) noexcept {
    int fd;
    do {
        fd = ::openat(directoryFd, path, flags | O_RDONLY | O_CLOEXEC | O_NOCTTY);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

}  // namespace

const char* ProcFileName(ProcFile file) noexcept {
    switch (file) {
        case ProcFile::stat:
            return "stat";
        case ProcFile::status:
            return "status";
        case ProcFile::io:
            return "io";
        case ProcFile::cgroup:
            return "cgroup";
    }
    return "stat";
}

std::size_t KeptDescriptorBudget::SystemCapacity() noexcept {
    static const std::size_t capacity = [] {
        constexpr rlim_t kTable = kMaxProcesses * kPerProcess;
        constexpr rlim_t kWanted = kReservedDescriptors + kTable;
        rlimit limit{};
        if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return std::size_t{0};
        if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < kWanted) {
            rlimit raised = limit;
            raised.rlim_cur = limit.rlim_max == RLIM_INFINITY ? kWanted : std::min(limit.rlim_max, kWanted);
            if (raised.rlim_cur > limit.rlim_cur && ::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
        }
        const rlim_t soft = limit.rlim_cur == RLIM_INFINITY ? kWanted : limit.rlim_cur;
        if (soft <= kReservedDescriptors) return std::size_t{0};
        return static_cast<std::size_t>(std::min(soft - kReservedDescriptors, kTable));
    }();
    return capacity;
}

ProcessFiles::ProcessFiles(ProcessFiles&& other) noexcept
    : directory_(std::exchange(other.directory_, -1)),
      files_(std::exchange(other.files_, {})),
      budget_(std::exchange(other.budget_, nullptr)) {}

ProcessFiles& ProcessFiles::operator=(ProcessFiles&& other) noexcept {
    if (this != &other) {
        Close();
        directory_ = std::exchange(other.directory_, -1);
        files_ = std::exchange(other.files_, {});
        budget_ = std::exchange(other.budget_, nullptr);
    }
    return *this;
}

int ProcessFiles::Open(int rootFd, std::uint32_t pid, KeptDescriptorBudget* budget) {
    Close();
    char name[16];
    directory_ = OpenAt(rootFd, PidText(pid, name), O_DIRECTORY | O_NOFOLLOW);
    if (directory_ < 0) return errno;
    if (budget != nullptr && budget->TryTake()) budget_ = budget;
    return 0;
}

int ProcessFiles::Read(ProcFile file, std::size_t limit, std::string& out, bool* truncated) {
    if (directory_ < 0) {
        out.clear();
        return EBADF;
    }
    if (budget_ == nullptr) {
        return ReadFileBoundedAt(directory_, ProcFileName(file), limit, out, truncated);
    }

    Slot& slot = files_[static_cast<std::size_t>(file)];
    if (slot.refusedError != 0) {
        out.clear();
        return slot.refusedError;
    }
    if (slot.fd < 0) {
        slot.fd = OpenAt(directory_, ProcFileName(file), 0);
        if (slot.fd < 0) {
            const int error = errno;
            if (error == EACCES || error == EPERM) slot.refusedError = error;
            out.clear();
            return error;
        }
    }
    return ReadDescriptorBounded(slot.fd, limit, out, truncated);
}

void ProcessFiles::RetryRefusedOpens() noexcept {
    for (Slot& slot : files_) slot.refusedError = 0;
}

void ProcessFiles::Close() noexcept {
    for (Slot& slot : files_) {
        if (slot.fd >= 0) ::close(slot.fd);
        slot = {};
    }
    if (directory_ >= 0) ::close(directory_);
    directory_ = -1;
    if (budget_ != nullptr) budget_->Give();
    budget_ = nullptr;
}

}  // namespace korv::providers
