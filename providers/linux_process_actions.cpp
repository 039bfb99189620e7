#include "providers/linux_process_actions.h"

#include "providers/proc_pid_stat.h"

#include <cerrno>
#include <climits>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

#ifndef SYS_pidfd_send_signal
#define SYS_pidfd_send_signal 424
#endif
#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

namespace korv::providers {
namespace {

using core::ActionResult;
using core::ActionStatus;
using core::ProcessActionKind;

constexpr int kMinNice = -20;
constexpr int kMaxNice = 19;
constexpr int kMaxLinuxSignal = 64;

int RawPidfdOpen(pid_t pid, unsigned flags) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, flags)); }

int RawPidfdSendSignal(int pidfd, int signal, siginfo_t* info, unsigned flags) {
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, info, flags));
}

int LibcKill(pid_t pid, int signal) { return ::kill(pid, signal); }

int LibcSetPriority(int which, id_t who, int prio) { return ::setpriority(which, who, prio); }

ActionResult Result(ActionStatus status, int errorNumber, std::string textId) {
    ActionResult result;
    result.status = status;
    result.errorNumber = errorNumber;
    result.textId = std::move(textId);
    return result;
}

ActionResult Succeeded() { return Result(ActionStatus::succeeded, 0, "action.succeeded"); }

// A failed stat read: no file means the process is gone.
ActionStatus StatusFromReadErrno(int error) noexcept {
    if (error == EACCES || error == EPERM) return ActionStatus::accessDenied;
    if (error == ENOENT || error == ESRCH) return ActionStatus::targetGone;
    return ActionStatus::failed;
}

// A failed system call on the process.
ActionStatus StatusFromCallErrno(int error) noexcept {
    if (error == EACCES || error == EPERM) return ActionStatus::accessDenied;
    if (error == ESRCH) return ActionStatus::targetGone;
    return ActionStatus::failed;
}

// A pid of 0 or above INT_MAX would turn kill and setpriority into group or broadcast calls.
bool IsActionablePid(std::uint32_t pid) noexcept { return pid != 0 && pid <= static_cast<std::uint32_t>(INT_MAX); }

ProcStatRead ReadStat(const ProviderRoots& roots, std::uint32_t pid) {
    if (!IsActionablePid(pid)) {
        ProcStatRead read;
        read.error = ESRCH;
        return read;
    }
    return ReadProcPidStat(roots.proc.string(), pid);
}

class PidfdCloser {
public:
    explicit PidfdCloser(int fd) noexcept : fd_(fd) {}
    PidfdCloser(const PidfdCloser&) = delete;
    PidfdCloser& operator=(const PidfdCloser&) = delete;
    ~PidfdCloser() { ::close(fd_); }

private:
    int fd_;
};

}  // namespace

const ProcessSyscalls& DefaultProcessSyscalls() noexcept {
    static const ProcessSyscalls syscalls{&RawPidfdOpen, &RawPidfdSendSignal, &LibcKill, &LibcSetPriority};
    return syscalls;
}

core::ResolveResult ResolveLinuxProcess(const ProviderRoots& roots, const core::ProcessKey& key) {
    core::ResolveResult result;
    const ProcStatRead read = ReadStat(roots, key.pid);
    if (!read.stat) {
        result.errorNumber = read.error;
        if (read.error == EACCES || read.error == EPERM) {
            result.status = core::ResolveStatus::accessDenied;
        } else if (read.error == ENOENT || read.error == ESRCH) {
            result.status = core::ResolveStatus::gone;
        } else {
            result.status = core::ResolveStatus::failed;
        }
        return result;
    }
    if (read.stat->starttime != key.startTime) {
        result.status = core::ResolveStatus::gone;
        return result;
    }
    result.status = core::ResolveStatus::resolved;
    result.process = std::make_shared<const LinuxResolvedProcess>(key);
    return result;
}

core::ActionResult ExecuteLinuxProcessAction(const ProviderRoots& roots, const core::ResolvedProcess& process,
                                             const core::ProcessAction& action, const ProcessSyscalls& syscalls) {
    int signal = 0;
    switch (action.kind) {
        case ProcessActionKind::terminate: signal = SIGTERM; break;
        case ProcessActionKind::forceKill: signal = SIGKILL; break;
        case ProcessActionKind::suspend: signal = SIGSTOP; break;
        case ProcessActionKind::resume: signal = SIGCONT; break;
        case ProcessActionKind::sendSignal:
        case ProcessActionKind::setPriority: break;
        default:
            // An action with no Linux form, or a kind this backend does not know: no process is touched.
            return Result(ActionStatus::unsupported, EOPNOTSUPP, "action.unsupported.linux");
    }

    const core::ProcessKey pinned = process.Key();
    const ProcStatRead before = ReadStat(roots, pinned.pid);
    if (!before.stat) return Result(StatusFromReadErrno(before.error), before.error, "action.validationFailed");
    const core::ProcessKey observed{before.stat->pid, before.stat->starttime};
    if (observed != pinned || observed != action.target) {
        return Result(ActionStatus::targetGone, 0, "action.targetChanged");
    }
    const auto pid = static_cast<pid_t>(pinned.pid);

    if (action.kind == ProcessActionKind::setPriority) {
        if (!action.nice || *action.nice < kMinNice || *action.nice > kMaxNice) {
            return Result(ActionStatus::invalidArgument, EINVAL, "action.priority.invalid");
        }
        // setpriority has no pidfd form: the stat read just above is the last identity check.
        if (syscalls.setPriority(PRIO_PROCESS, static_cast<id_t>(pid), *action.nice) != 0) {
            const int error = errno;
            return Result(StatusFromCallErrno(error), error, "action.priority.failed");
        }
        return Succeeded();
    }

    if (action.kind == ProcessActionKind::sendSignal) {
        if (!action.signal || *action.signal < 1 || *action.signal > kMaxLinuxSignal) {
            return Result(ActionStatus::invalidArgument, EINVAL, "action.signal.invalid");
        }
        signal = *action.signal;
    }

    const int pidfd = syscalls.pidfdOpen(pid, 0);
    if (pidfd < 0) {
        const int error = errno;
        if (error != ENOSYS) return Result(StatusFromCallErrno(error), error, "action.signal.failed");
        // A kernel without pidfds: the fresh stat read above is the only identity check there is.
        if (syscalls.kill(pid, signal) != 0) {
            const int killError = errno;
            return Result(StatusFromCallErrno(killError), killError, "action.signal.failed");
        }
        return Succeeded();
    }

    const PidfdCloser closer(pidfd);
    // The pid may have been reused between the first read and pidfd_open; once this read matches,
    // the pidfd holds the identity and a later reuse cannot be reached through it.
    const ProcStatRead after = ReadStat(roots, pinned.pid);
    if (!after.stat) return Result(StatusFromReadErrno(after.error), after.error, "action.validationFailed");
    if (after.stat->starttime != pinned.startTime) return Result(ActionStatus::targetGone, 0, "action.targetChanged");

    if (syscalls.pidfdSendSignal(pidfd, signal, nullptr, 0) != 0) {
        const int error = errno;
        return Result(StatusFromCallErrno(error), error, "action.signal.failed");
    }
    return Succeeded();
}

}  // namespace korv::providers
