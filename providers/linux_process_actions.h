#pragma once

#include "core/platform_interfaces.h"
#include "core/process_action.h"
#include "core/process_key.h"
#include "providers/provider_context.h"

#include <csignal>
#include <sys/types.h>

namespace korv::providers {

// A process pinned by its key. The pin is the key itself: every action reads stat again and acts
// only while the running process still has that start time.
class LinuxResolvedProcess : public core::ResolvedProcess {
public:
    explicit LinuxResolvedProcess(const core::ProcessKey& key) noexcept : key_(key) {}
    core::ProcessKey Key() const override { return key_; }

private:
    core::ProcessKey key_;
};

// The system calls an action makes. Each returns -1 and sets errno like libc; tests replace them,
// for instance with a pidfdOpen that fails with ENOSYS as an old kernel does.
struct ProcessSyscalls {
    int (*pidfdOpen)(pid_t pid, unsigned flags);
    int (*pidfdSendSignal)(int pidfd, int signal, siginfo_t* info, unsigned flags);
    int (*kill)(pid_t pid, int signal);
    int (*setPriority)(int which, id_t who, int prio);
};

// pidfd_open and pidfd_send_signal by raw system call, kill and setpriority from libc.
const ProcessSyscalls& DefaultProcessSyscalls() noexcept;

// Reads <proc>/<pid>/stat. EACCES and EPERM give accessDenied; ENOENT and ESRCH give gone; other
// errors failed. A start time other than the key's gives gone.
core::ResolveResult ResolveLinuxProcess(const ProviderRoots& roots, const core::ProcessKey& key);

// Carries out one action on a resolved process. Identity is checked against both the pinned key and
// the command's key by a fresh stat read, and for signals once more after the pidfd is open, so
// that a reused pid never receives a signal. Never throws for a system failure; holds no lock.
core::ActionResult ExecuteLinuxProcessAction(const ProviderRoots& roots, const core::ResolvedProcess& process,
                                             const core::ProcessAction& action,
                                             const ProcessSyscalls& syscalls = DefaultProcessSyscalls());

}  // namespace korv::providers
