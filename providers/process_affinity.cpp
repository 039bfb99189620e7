#include "providers/process_affinity.h"

#include "providers/proc_pid_stat.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <string_view>
#include <unistd.h>
#include <unordered_set>
#include <vector>

namespace korv::providers {
namespace {

// The kernel takes the mask as a 128-byte cpu set (1024 processors); only the low 64 bits are used.
static_assert(sizeof(cpu_set_t) == 128);

constexpr int kThreadListPasses = 2;

class Descriptor {
public:
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    int Get() const noexcept { return fd_; }

private:
    int fd_;
};

std::string FailureText(int error) {
    if (error == EACCES || error == EPERM) return std::string(kAffinityAccessDeniedText);
    if (error == ENOENT || error == ESRCH) return std::string(kAffinityExitedText);
    return std::string(kAffinityFailedText);
}

// Opens <proc>/<pid> and proves, through that handle, that it is still the process of the key.
// The handle then stays bound to that process: once it exits, reads through it fail even if the
// pid is reused. Returns the descriptor or -errno.
int OpenPinnedProcess(const ProviderRoots& roots, const core::ProcessKey& key) {
    if (key.pid == 0 || key.pid > static_cast<std::uint32_t>(INT_MAX)) return -ESRCH;
    const std::string path = (roots.proc / std::to_string(key.pid)).string();
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -errno;
    std::string buffer;
    const ProcStatRead read = ReadProcPidStatAt(fd, key.pid, buffer);
    if (!read.stat || read.stat->starttime != key.startTime) {
        ::close(fd);
        return read.stat ? -ESRCH : -read.error;
    }
    return fd;
}

// Lists the thread ids of <pid dir>/task. Returns 0 or an errno value.
int ListThreads(int pidDirectoryFd, std::vector<pid_t>& tids) {
    tids.clear();
    const int taskFd = ::openat(pidDirectoryFd, "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (taskFd < 0) return errno;
    DIR* directory = ::fdopendir(taskFd);
    if (directory == nullptr) {
        const int error = errno;
        ::close(taskFd);
        return error;
    }
    int error = 0;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(directory);
        if (entry == nullptr) {
            error = errno;
            break;
        }
        const std::string_view name(entry->d_name);
        pid_t tid = 0;
        const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), tid);
        if (ec == std::errc{} && end == name.data() + name.size() && tid > 0) tids.push_back(tid);
    }
    ::closedir(directory);
    return error;
}

long ConfiguredProcessors() noexcept { return ::sysconf(_SC_NPROCESSORS_CONF); }

std::uint64_t ProcessorBits(long processors) noexcept {
    return processors >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << processors) - 1;
}

std::string PartialText(std::uint32_t applied, std::uint32_t threads) {
    std::string text(kAffinityPartialText);
    const auto replace = [&text](std::string_view marker, std::uint32_t value) {
        const std::size_t at = text.find(marker);
        if (at != std::string::npos) text.replace(at, marker.size(), std::to_string(value));
    };
    replace("%1", applied);
    replace("%2", threads);
    return text;
}

}  // namespace

AffinityResult SetProcessAffinity(const ProviderRoots& roots, const core::ProcessKey& key, std::uint64_t mask) {
    AffinityResult result;
    const int pinned = OpenPinnedProcess(roots, key);
    if (pinned < 0) {
        result.message = FailureText(-pinned);
        return result;
    }
    const Descriptor pidDirectory(pinned);

    const long processors = ConfiguredProcessors();
    if (processors < 1 || processors > kAffinityMaxProcessors) {
        result.message = std::string(kAffinityFailedText);
        return result;
    }
    mask &= ProcessorBits(processors);
    if (mask == 0) {
        result.message = std::string(kAffinityEmptyMaskText);
        return result;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    for (long cpu = 0; cpu < processors; ++cpu) {
        if ((mask >> cpu) & 1U) CPU_SET(static_cast<std::size_t>(cpu), &set);
    }

    std::uint32_t succeeded = 0;
    std::uint32_t denied = 0;
    std::uint32_t otherFailures = 0;
    int listError = 0;
    std::unordered_set<pid_t> tried;
    std::vector<pid_t> tids;
    for (int pass = 0; pass < kThreadListPasses; ++pass) {
        listError = ListThreads(pidDirectory.Get(), tids);
        for (const pid_t tid : tids) {
            if (!tried.insert(tid).second) continue;
            if (::sched_setaffinity(tid, sizeof(set), &set) == 0) {
                ++succeeded;
                continue;
            }
            const int error = errno;
            if (error == ESRCH) continue;  // the thread ended after the listing
            if (error == EPERM || error == EACCES) {
                ++denied;
            } else {
                ++otherFailures;
            }
        }
    }

    result.applied = succeeded;
    result.threads = succeeded + denied + otherFailures;
    result.ok = succeeded > 0;
    if (succeeded == 0) {
        if (denied > 0) {
            result.message = std::string(kAffinityAccessDeniedText);
        } else if (otherFailures > 0) {
            result.message = std::string(kAffinityFailedText);
        } else if (listError != 0 && listError != ENOENT && listError != ESRCH) {
            result.message = FailureText(listError);
        } else {
            result.message = std::string(kAffinityExitedText);
        }
    } else if (denied + otherFailures > 0) {
        result.message = PartialText(succeeded, result.threads);
    } else {
        result.message = std::string(kAffinitySucceededText);
    }
    return result;
}

AffinityReading ReadProcessAffinity(const ProviderRoots& roots, const core::ProcessKey& key) {
    AffinityReading reading;
    const int pinned = OpenPinnedProcess(roots, key);
    if (pinned < 0) {
        reading.message = FailureText(-pinned);
        return reading;
    }
    const Descriptor pidDirectory(pinned);

    const long processors = ConfiguredProcessors();
    if (processors < 1 || processors > kAffinityMaxProcessors) {
        reading.message = std::string(kAffinityFailedText);
        return reading;
    }
    const std::uint64_t processorBits = ProcessorBits(processors);

    std::vector<pid_t> tids;
    const int listError = ListThreads(pidDirectory.Get(), tids);
    bool haveFirst = false;
    std::uint64_t firstMask = 0;
    int lastError = listError;
    for (const pid_t tid : tids) {
        cpu_set_t set;
        CPU_ZERO(&set);
        if (::sched_getaffinity(tid, sizeof(set), &set) != 0) {
            lastError = errno;
            continue;
        }
        std::uint64_t threadMask = 0;
        for (long cpu = 0; cpu < processors; ++cpu) {
            if (CPU_ISSET(static_cast<std::size_t>(cpu), &set)) threadMask |= std::uint64_t{1} << cpu;
        }
        threadMask &= processorBits;
        if (!haveFirst) {
            firstMask = threadMask;
            haveFirst = true;
        } else if (threadMask != firstMask) {
            reading.threadsDiffer = true;
        }
        reading.combinedMask |= threadMask;
    }
    if (!haveFirst) {
        reading.message = (lastError == 0 || lastError == ENOENT || lastError == ESRCH) ? std::string(kAffinityExitedText)
                                                                                        : FailureText(lastError);
        return reading;
    }
    reading.ok = true;
    return reading;
}

}  // namespace korv::providers
