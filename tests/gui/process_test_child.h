#pragma once

#include "core/process_key.h"
#include "providers/proc_pid_stat.h"

#include <chrono>
#include <csignal>
#include <optional>
#include <sched.h>
#include <cstdint>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace korv::test {

inline constexpr auto kChildPatience = std::chrono::seconds(30);

// The first 64 processors of a process's affinity mask as bits; 0 when it cannot be read.
inline std::uint64_t AffinityOf(pid_t pid) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (::sched_getaffinity(pid, sizeof(set), &set) != 0) return 0;
    std::uint64_t mask = 0;
    for (int cpu = 0; cpu < 64; ++cpu) {
        if (CPU_ISSET(cpu, &set)) mask |= std::uint64_t{1} << cpu;
    }
    return mask;
}

// A forked child that the test owns: it waits for signals (or runs `exec` when given) and dies
// with the test process. The destructor kills and reaps it.
class TestChild {
public:
    // `inChild` runs in the child after the fork and may exec; a child that returns from it pauses.
    template <typename InChild>
    explicit TestChild(InChild inChild) {
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            inChild();
            for (;;) ::pause();
        }
    }
    TestChild() : TestChild([] {}) {}
    TestChild(const TestChild&) = delete;
    TestChild& operator=(const TestChild&) = delete;
    ~TestChild() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    bool Started() const { return pid_ > 0; }
    pid_t Pid() const { return pid_; }
    std::uint32_t UPid() const { return static_cast<std::uint32_t>(pid_); }

    std::optional<providers::ParsedProcStat> Stat() const {
        return providers::ReadProcPidStat("/proc", UPid()).stat;
    }
    core::ProcessKey Key() const {
        const auto stat = Stat();
        return core::ProcessKey{UPid(), stat ? stat->starttime : 0};
    }

    // The signal that ended the child, or 0 when it did not end within the bound.
    int WaitForTerminatingSignal() {
        const auto deadline = std::chrono::steady_clock::now() + kChildPatience;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_ && (WIFEXITED(status) || WIFSIGNALED(status))) {
                reaped_ = true;
                return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return 0;
    }

    // Waits until /proc shows the state letter, or the bound passes; returns the last letter seen.
    char WaitForState(char wanted) const {
        const auto deadline = std::chrono::steady_clock::now() + kChildPatience;
        char state = '?';
        while (std::chrono::steady_clock::now() < deadline) {
            if (const auto stat = Stat()) state = stat->state;
            if (state == wanted) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return state;
    }

    void KillAndReap() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        reaped_ = true;
    }

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

}  // namespace korv::test
