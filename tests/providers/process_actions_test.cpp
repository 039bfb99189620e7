#include "providers/linux_process_actions.h"
#include "tests/providers/unprivileged_helper.h"

#include "core/process_action_executor.h"
#include "providers/proc_pid_stat.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <grp.h>
#include <optional>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <utility>
#include <unistd.h>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;
using core::ActionResult;
using core::ActionStatus;
using core::ProcessAction;
using core::ProcessActionKind;
using core::ProcessKey;

constexpr auto kPatience = std::chrono::seconds(30);
using test_support::kNobody;
using test_support::kNogroup;

std::optional<ParsedProcStat> Stat(pid_t pid) { return ReadProcPidStat("/proc", static_cast<std::uint32_t>(pid)).stat; }

// A forked child that waits for signals and nothing else. The destructor kills and reaps it.
class PausingChild {
public:
    PausingChild() {
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) ::pause();
        }
    }
    PausingChild(const PausingChild&) = delete;
    PausingChild& operator=(const PausingChild&) = delete;
    ~PausingChild() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    bool Started() const { return pid_ > 0; }
    pid_t Pid() const { return pid_; }
    ProcessKey Key() const {
        const auto stat = Stat(pid_);
        return ProcessKey{static_cast<std::uint32_t>(pid_), stat ? stat->starttime : 0};
    }

    // Waits for the next state change that waitpid reports with the given flags (WUNTRACED,
    // WCONTINUED), within a generous bound. Returns the wait status, or nothing on time-out.
    std::optional<int> WaitForChange(int flags) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            const pid_t got = ::waitpid(pid_, &status, flags | WNOHANG);
            if (got == pid_) {
                if (WIFEXITED(status) || WIFSIGNALED(status)) reaped_ = true;
                return status;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return std::nullopt;
    }

    // Returns the signal that ended the child, or 0 if it did not end within the bound.
    int WaitForTerminatingSignal() {
        const auto status = WaitForChange(0);
        return status && WIFSIGNALED(*status) ? WTERMSIG(*status) : 0;
    }

    void KillAndReap() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        reaped_ = true;
    }

    bool StillRunning() { return ::waitpid(pid_, nullptr, WNOHANG) == 0 && !reaped_; }

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

char WaitForState(pid_t pid, bool stopped) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    char state = '?';
    while (std::chrono::steady_clock::now() < deadline) {
        const auto stat = Stat(pid);
        state = stat ? stat->state : '?';
        if ((state == 'T') == stopped) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return state;
}

ProcessAction Action(ProcessActionKind kind, ProcessKey target, std::optional<std::int32_t> signal = std::nullopt,
                     std::optional<std::int32_t> nice = std::nullopt) {
    ProcessAction action;
    action.kind = kind;
    action.target = target;
    action.signal = signal;
    action.nice = nice;
    return action;
}

// The provider's resolver and backend as the platform services expose them, so that the tests can
// go through the one entry for process commands.
class LinuxActions : public core::IProcessResolver, public core::IActionBackend {
public:
    explicit LinuxActions(ProviderRoots roots = {}, const ProcessSyscalls& syscalls = DefaultProcessSyscalls())
        : roots_(std::move(roots)), syscalls_(syscalls) {}
    core::ResolveResult Resolve(const ProcessKey& key) override { return ResolveLinuxProcess(roots_, key); }
    ActionResult Execute(const core::ResolvedProcess& process, const ProcessAction& action) override {
        return ExecuteLinuxProcessAction(roots_, process, action, syscalls_);
    }
    ActionResult Run(const ProcessAction& action) { return core::ExecuteProcessAction(*this, *this, action); }

private:
    ProviderRoots roots_;
    const ProcessSyscalls& syscalls_;
};

// Replaceable system calls. Each counts its calls, and either forwards to the real call or fails
// with the errno set for it. Plain globals: the function pointers cannot capture.
struct SyscallScript {
    int pidfdOpenCalls = 0;
    int sendCalls = 0;
    int killCalls = 0;
    int setPriorityCalls = 0;
    int pidfdOpenError = 0;  // 0: forward to the real call
    int sendError = 0;
    int killError = 0;
    int setPriorityError = 0;
    int lastPidfd = -1;
    std::function<void()> afterPidfdOpen;  // runs once the real pidfd is open
};
SyscallScript script;

int ScriptedPidfdOpen(pid_t pid, unsigned flags) {
    ++script.pidfdOpenCalls;
    if (script.pidfdOpenError != 0) {
        errno = script.pidfdOpenError;
        return -1;
    }
    script.lastPidfd = DefaultProcessSyscalls().pidfdOpen(pid, flags);
    if (script.lastPidfd >= 0 && script.afterPidfdOpen) script.afterPidfdOpen();
    return script.lastPidfd;
}

int ScriptedSend(int pidfd, int signal, siginfo_t* info, unsigned flags) {
    ++script.sendCalls;
    if (script.sendError != 0) {
        errno = script.sendError;
        return -1;
    }
    return DefaultProcessSyscalls().pidfdSendSignal(pidfd, signal, info, flags);
}

int ScriptedKill(pid_t pid, int signal) {
    ++script.killCalls;
    if (script.killError != 0) {
        errno = script.killError;
        return -1;
    }
    return DefaultProcessSyscalls().kill(pid, signal);
}

int ScriptedSetPriority(int which, id_t who, int prio) {
    ++script.setPriorityCalls;
    if (script.setPriorityError != 0) {
        errno = script.setPriorityError;
        return -1;
    }
    return DefaultProcessSyscalls().setPriority(which, who, prio);
}

const ProcessSyscalls kScripted{&ScriptedPidfdOpen, &ScriptedSend, &ScriptedKill, &ScriptedSetPriority};

int CallCount() { return script.pidfdOpenCalls + script.sendCalls + script.killCalls + script.setPriorityCalls; }

bool DescriptorIsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// A stat line of the kernel's shape with the given start time (field 22).
std::string StatLine(pid_t pid, std::uint64_t startTime) {
    return std::to_string(pid) + " (pause child) S 1 1 1 0 -1 4194560 0 0 0 0 0 0 0 0 20 0 1 0 " +
           std::to_string(startTime) + " 1000 10 0 0 0\n";
}

// A proc root of its own under the test's temp dir, holding only <pid>/stat files.
class FakeProcRoot {
public:
    FakeProcRoot() {
        std::string pattern = (fs::path(::testing::TempDir()) / "korv-actions-XXXXXX").native();
        if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    }
    FakeProcRoot(const FakeProcRoot&) = delete;
    FakeProcRoot& operator=(const FakeProcRoot&) = delete;
    ~FakeProcRoot() {
        std::error_code ignored;
        if (!path_.empty()) fs::remove_all(path_, ignored);
    }

    void WriteStat(pid_t pid, const std::string& text) const {
        fs::create_directories(path_ / std::to_string(pid));
        std::ofstream(path_ / std::to_string(pid) / "stat", std::ios::trunc) << text;
    }
    void RemoveStat(pid_t pid) const { fs::remove(path_ / std::to_string(pid) / "stat"); }
    ProviderRoots Roots() const {
        ProviderRoots roots;
        roots.proc = path_;
        return roots;
    }
    bool Ok() const { return !path_.empty(); }

private:
    fs::path path_;
};

class ProcessActionsTest : public ::testing::Test {
protected:
    void SetUp() override {
        script = SyscallScript{};
        ASSERT_TRUE(child.Started());
        key = child.Key();
        ASSERT_NE(key.startTime, 0u);
    }
    void TearDown() override { script = SyscallScript{}; }

    ActionResult Execute(const ProcessAction& action, const ProcessSyscalls& syscalls = kScripted,
                         const ProviderRoots& roots = {}) {
        const LinuxResolvedProcess pinned(action.target);
        return ExecuteLinuxProcessAction(roots, pinned, action, syscalls);
    }

    PausingChild child;
    ProcessKey key;
};

// ---- Resolve ----

TEST_F(ProcessActionsTest, ResolvesALiveChildToItsKey) {
    const core::ResolveResult result = ResolveLinuxProcess({}, key);
    EXPECT_EQ(result.status, core::ResolveStatus::resolved);
    EXPECT_EQ(result.errorNumber, 0);
    ASSERT_NE(result.process, nullptr);
    EXPECT_EQ(result.process->Key(), key);
}

TEST_F(ProcessActionsTest, ResolveOfAnotherStartTimeIsGone) {
    const core::ResolveResult result = ResolveLinuxProcess({}, ProcessKey{key.pid, key.startTime + 1});
    EXPECT_EQ(result.status, core::ResolveStatus::gone);
    EXPECT_EQ(result.process, nullptr);
}

TEST_F(ProcessActionsTest, ResolveOfAReapedChildIsGoneWithItsErrno) {
    child.KillAndReap();
    const core::ResolveResult result = ResolveLinuxProcess({}, key);
    EXPECT_EQ(result.status, core::ResolveStatus::gone);
    EXPECT_EQ(result.errorNumber, ENOENT);
    EXPECT_EQ(result.process, nullptr);
}

TEST(ProcessResolveTest, MalformedStatIsFailedWithEinval) {
    FakeProcRoot root;
    ASSERT_TRUE(root.Ok());
    root.WriteStat(321, "321 (broken\n");
    const core::ResolveResult result = ResolveLinuxProcess(root.Roots(), ProcessKey{321, 5});
    EXPECT_EQ(result.status, core::ResolveStatus::failed);
    EXPECT_EQ(result.errorNumber, EINVAL);
}

TEST(ProcessResolveTest, PidsThatNameNoSingleProcessAreGone) {
    for (const std::uint32_t pid : {0u, 0x80000000u, 0xFFFFFFFFu}) {
        const core::ResolveResult result = ResolveLinuxProcess({}, ProcessKey{pid, 1});
        EXPECT_EQ(result.status, core::ResolveStatus::gone) << pid;
        EXPECT_EQ(result.process, nullptr) << pid;
    }
}

// ---- Signals delivered to real children ----

struct DeliveryCase {
    const char* name;
    ProcessActionKind kind;
    std::optional<std::int32_t> signal;
    int expectedSignal;
    bool oldKernel;  // pidfd_open fails with ENOSYS, so kill carries the signal
};

class SignalDeliveryTest : public ProcessActionsTest, public ::testing::WithParamInterface<DeliveryCase> {};

TEST_P(SignalDeliveryTest, EndsTheChildWithItsSignal) {
    const DeliveryCase& row = GetParam();
    if (row.oldKernel) script.pidfdOpenError = ENOSYS;
    LinuxActions actions({}, kScripted);

    const ActionResult result = actions.Run(Action(row.kind, key, row.signal));
    EXPECT_EQ(result.status, ActionStatus::succeeded);
    EXPECT_EQ(result.textId, "action.succeeded");
    EXPECT_EQ(result.errorNumber, 0);
    EXPECT_EQ(child.WaitForTerminatingSignal(), row.expectedSignal);
    EXPECT_EQ(script.pidfdOpenCalls, 1);
    EXPECT_EQ(script.killCalls, row.oldKernel ? 1 : 0);
    EXPECT_EQ(script.sendCalls, row.oldKernel ? 0 : 1);
    if (!row.oldKernel) {
        EXPECT_FALSE(DescriptorIsOpen(script.lastPidfd));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SignalDeliveryTest,
    ::testing::Values(DeliveryCase{"Terminate", ProcessActionKind::terminate, std::nullopt, SIGTERM, false},
                      DeliveryCase{"ForceKill", ProcessActionKind::forceKill, std::nullopt, SIGKILL, false},
                      DeliveryCase{"SendHangUp", ProcessActionKind::sendSignal, SIGHUP, SIGHUP, false},
                      DeliveryCase{"SendRealTime64", ProcessActionKind::sendSignal, 64, 64, false},
                      DeliveryCase{"TerminateByKill", ProcessActionKind::terminate, std::nullopt, SIGTERM, true},
                      DeliveryCase{"ForceKillByKill", ProcessActionKind::forceKill, std::nullopt, SIGKILL, true},
                      DeliveryCase{"SendInterruptByKill", ProcessActionKind::sendSignal, SIGINT, SIGINT, true}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(ProcessActionsTest, SuspendStopsTheChildAndResumeContinuesIt) {
    LinuxActions actions;
    ActionResult result = actions.Run(Action(ProcessActionKind::suspend, key));
    ASSERT_EQ(result.status, ActionStatus::succeeded) << result.textId;
    const auto stopped = child.WaitForChange(WUNTRACED);
    ASSERT_TRUE(stopped && WIFSTOPPED(*stopped));
    EXPECT_EQ(WSTOPSIG(*stopped), SIGSTOP);
    EXPECT_EQ(WaitForState(child.Pid(), true), 'T');

    result = actions.Run(Action(ProcessActionKind::resume, key));
    ASSERT_EQ(result.status, ActionStatus::succeeded) << result.textId;
    const auto continued = child.WaitForChange(WCONTINUED);
    ASSERT_TRUE(continued && WIFCONTINUED(*continued));
    EXPECT_NE(WaitForState(child.Pid(), false), 'T');
    EXPECT_TRUE(child.StillRunning());
}

// ---- Arguments the backend refuses ----

struct RefusedSignalCase {
    const char* name;
    std::optional<std::int32_t> signal;
};

class RefusedSignalTest : public ProcessActionsTest, public ::testing::WithParamInterface<RefusedSignalCase> {};

TEST_P(RefusedSignalTest, IsInvalidAndNothingIsCalled) {
    const ActionResult result = Execute(Action(ProcessActionKind::sendSignal, key, GetParam().signal));
    EXPECT_EQ(result.status, ActionStatus::invalidArgument);
    EXPECT_EQ(result.errorNumber, EINVAL);
    EXPECT_EQ(result.textId, "action.signal.invalid");
    EXPECT_EQ(CallCount(), 0);
    EXPECT_TRUE(child.StillRunning());
}

INSTANTIATE_TEST_SUITE_P(Rows, RefusedSignalTest,
                         ::testing::Values(RefusedSignalCase{"Missing", std::nullopt}, RefusedSignalCase{"Zero", 0},
                                           RefusedSignalCase{"Negative", -15}, RefusedSignalCase{"Above64", 65},
                                           RefusedSignalCase{"Above127", 128}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ProcessActionsTest, Signal65PassesTheCoreAndIsRefusedByTheBackend) {
    LinuxActions actions({}, kScripted);
    const ActionResult result = actions.Run(Action(ProcessActionKind::sendSignal, key, 65));
    EXPECT_EQ(result.status, ActionStatus::invalidArgument);
    EXPECT_EQ(result.errorNumber, EINVAL);
    EXPECT_EQ(result.textId, "action.signal.invalid");
    EXPECT_EQ(CallCount(), 0);
}

TEST_F(ProcessActionsTest, ActionWithNoLinuxFormIsUnsupportedAndTouchesNothing) {
    for (const ProcessKey target : {key, ProcessKey{key.pid, key.startTime + 1}, ProcessKey{0, 0}}) {
        const ActionResult result = Execute(Action(ProcessActionKind::noLinuxForm, target, SIGKILL, -5));
        EXPECT_EQ(result.status, ActionStatus::unsupported);
        EXPECT_EQ(result.errorNumber, 95);
        EXPECT_EQ(result.textId, "action.unsupported.linux");
    }
    const ActionResult unknown = Execute(Action(static_cast<ProcessActionKind>(17), key, SIGKILL));
    EXPECT_EQ(unknown.status, ActionStatus::unsupported);
    EXPECT_EQ(unknown.textId, "action.unsupported.linux");
    EXPECT_EQ(CallCount(), 0);
    EXPECT_TRUE(child.StillRunning());
}

// ---- Priority ----

TEST_F(ProcessActionsTest, Nice5IsAppliedAndReadsBack) {
    LinuxActions actions({}, kScripted);
    const ActionResult result = actions.Run(Action(ProcessActionKind::setPriority, key, std::nullopt, 5));
    EXPECT_EQ(result.status, ActionStatus::succeeded);
    EXPECT_EQ(result.textId, "action.succeeded");
    errno = 0;
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(child.Pid())), 5);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(script.setPriorityCalls, 1);
    EXPECT_EQ(script.pidfdOpenCalls + script.killCalls + script.sendCalls, 0);
}

TEST_F(ProcessActionsTest, NiceOutsideTheLinuxRangeIsInvalidAndLeavesThePriority) {
    ASSERT_EQ(::setpriority(PRIO_PROCESS, static_cast<id_t>(child.Pid()), 3), 0);
    LinuxActions actions({}, kScripted);
    for (const std::optional<std::int32_t> nice : {std::optional<std::int32_t>(20), std::optional<std::int32_t>(-21)}) {
        const ActionResult result = actions.Run(Action(ProcessActionKind::setPriority, key, std::nullopt, nice));
        EXPECT_EQ(result.status, ActionStatus::invalidArgument);
        EXPECT_EQ(result.errorNumber, EINVAL);
        EXPECT_EQ(result.textId, "action.priority.invalid");
    }
    // Called past the core, a missing nice is the backend's to refuse as well.
    const ActionResult missing = Execute(Action(ProcessActionKind::setPriority, key));
    EXPECT_EQ(missing.textId, "action.priority.invalid");
    EXPECT_EQ(script.setPriorityCalls, 0);
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(child.Pid())), 3);
}

struct CallFailureCase {
    const char* name;
    int error;
    ActionStatus status;
};

const std::array kCallFailures{CallFailureCase{"Eperm", EPERM, ActionStatus::accessDenied},
                               CallFailureCase{"Eacces", EACCES, ActionStatus::accessDenied},
                               CallFailureCase{"Esrch", ESRCH, ActionStatus::targetGone},
                               CallFailureCase{"Einval", EINVAL, ActionStatus::failed},
                               CallFailureCase{"Emfile", EMFILE, ActionStatus::failed}};

std::string CallFailureName(const ::testing::TestParamInfo<CallFailureCase>& info) { return info.param.name; }

class PriorityFailureTest : public ProcessActionsTest, public ::testing::WithParamInterface<CallFailureCase> {};

TEST_P(PriorityFailureTest, MapsTheErrnoAndKeepsIt) {
    script.setPriorityError = GetParam().error;
    const ActionResult result = Execute(Action(ProcessActionKind::setPriority, key, std::nullopt, 7));
    EXPECT_EQ(result.status, GetParam().status);
    EXPECT_EQ(result.errorNumber, GetParam().error);
    EXPECT_EQ(result.textId, "action.priority.failed");
    EXPECT_EQ(script.setPriorityCalls, 1);
}

INSTANTIATE_TEST_SUITE_P(Rows, PriorityFailureTest, ::testing::ValuesIn(kCallFailures), CallFailureName);

// ---- Failures of the signal calls ----

class PidfdOpenFailureTest : public ProcessActionsTest, public ::testing::WithParamInterface<CallFailureCase> {};

TEST_P(PidfdOpenFailureTest, MapsTheErrnoAndFallsBackOnlyForEnosys) {
    script.pidfdOpenError = GetParam().error;
    const ActionResult result = Execute(Action(ProcessActionKind::forceKill, key));
    EXPECT_EQ(result.status, GetParam().status);
    EXPECT_EQ(result.errorNumber, GetParam().error);
    EXPECT_EQ(result.textId, "action.signal.failed");
    EXPECT_EQ(script.killCalls + script.sendCalls, 0);
    EXPECT_TRUE(child.StillRunning());
}

INSTANTIATE_TEST_SUITE_P(Rows, PidfdOpenFailureTest, ::testing::ValuesIn(kCallFailures), CallFailureName);

class SendSignalFailureTest : public ProcessActionsTest, public ::testing::WithParamInterface<CallFailureCase> {};

TEST_P(SendSignalFailureTest, MapsTheErrnoAndClosesThePidfd) {
    script.sendError = GetParam().error;
    const ActionResult result = Execute(Action(ProcessActionKind::terminate, key));
    EXPECT_EQ(result.status, GetParam().status);
    EXPECT_EQ(result.errorNumber, GetParam().error);
    EXPECT_EQ(result.textId, "action.signal.failed");
    EXPECT_EQ(script.sendCalls, 1);
    ASSERT_GE(script.lastPidfd, 0);
    EXPECT_FALSE(DescriptorIsOpen(script.lastPidfd));
}

INSTANTIATE_TEST_SUITE_P(Rows, SendSignalFailureTest, ::testing::ValuesIn(kCallFailures), CallFailureName);

class KillFallbackFailureTest : public ProcessActionsTest, public ::testing::WithParamInterface<CallFailureCase> {};

TEST_P(KillFallbackFailureTest, MapsTheErrnoOfKill) {
    script.pidfdOpenError = ENOSYS;
    script.killError = GetParam().error;
    const ActionResult result = Execute(Action(ProcessActionKind::terminate, key));
    EXPECT_EQ(result.status, GetParam().status);
    EXPECT_EQ(result.errorNumber, GetParam().error);
    EXPECT_EQ(result.textId, "action.signal.failed");
    EXPECT_EQ(script.killCalls, 1);
}

INSTANTIATE_TEST_SUITE_P(Rows, KillFallbackFailureTest, ::testing::ValuesIn(kCallFailures), CallFailureName);

// ---- Identity ----

TEST_F(ProcessActionsTest, WrongStartTimeIsTargetChangedAndNoSignalIsSent) {
    const ProcessKey reused{key.pid, key.startTime + 1};
    errno = 0;
    const int niceBefore = ::getpriority(PRIO_PROCESS, static_cast<id_t>(child.Pid()));
    ASSERT_EQ(errno, 0);
    for (const ProcessActionKind kind : {ProcessActionKind::forceKill, ProcessActionKind::setPriority}) {
        const ActionResult result = Execute(Action(kind, reused, std::nullopt, 10));
        EXPECT_EQ(result.status, ActionStatus::targetGone);
        EXPECT_EQ(result.textId, "action.targetChanged");
    }
    EXPECT_EQ(CallCount(), 0);
    EXPECT_TRUE(child.StillRunning());
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(child.Pid())), niceBefore);
}

TEST_F(ProcessActionsTest, PinnedKeyAndCommandKeyMustBothMatchTheRunningProcess) {
    const LinuxResolvedProcess pinned(key);
    const ActionResult result = ExecuteLinuxProcessAction(
        {}, pinned, Action(ProcessActionKind::forceKill, ProcessKey{key.pid, key.startTime + 7}), kScripted);
    EXPECT_EQ(result.status, ActionStatus::targetGone);
    EXPECT_EQ(result.textId, "action.targetChanged");

    const LinuxResolvedProcess stalePin(ProcessKey{key.pid, key.startTime + 7});
    const ActionResult second =
        ExecuteLinuxProcessAction({}, stalePin, Action(ProcessActionKind::forceKill, key), kScripted);
    EXPECT_EQ(second.textId, "action.targetChanged");
    EXPECT_EQ(CallCount(), 0);
    EXPECT_TRUE(child.StillRunning());
}

TEST_F(ProcessActionsTest, ProcessThatExitsBetweenResolveAndExecuteIsGone) {
    const core::ResolveResult resolved = ResolveLinuxProcess({}, key);
    ASSERT_EQ(resolved.status, core::ResolveStatus::resolved);
    child.KillAndReap();
    for (const ProcessActionKind kind : {ProcessActionKind::terminate, ProcessActionKind::setPriority}) {
        const ActionResult result =
            ExecuteLinuxProcessAction({}, *resolved.process, Action(kind, key, std::nullopt, 4), kScripted);
        EXPECT_EQ(result.status, ActionStatus::targetGone);
        EXPECT_EQ(result.textId, "action.validationFailed");
        EXPECT_EQ(result.errorNumber, ENOENT);
    }
    EXPECT_EQ(CallCount(), 0);
}

// A pid above INT_MAX would become a negative pid_t, which kill takes as "every process".
TEST_F(ProcessActionsTest, PidsThatWouldReachGroupsAreNeverSignalled) {
    for (const std::uint32_t pid : {0u, 0x80000000u, 0xFFFFFFFFu}) {
        const ActionResult result = Execute(Action(ProcessActionKind::forceKill, ProcessKey{pid, 1}));
        EXPECT_EQ(result.status, ActionStatus::targetGone) << pid;
        EXPECT_EQ(result.textId, "action.validationFailed") << pid;
    }
    EXPECT_EQ(CallCount(), 0);
}

// ---- The second stat read, with the pidfd open (a proc root of its own stands in for /proc) ----

class SecondReadTest : public ProcessActionsTest {
protected:
    void SetUp() override {
        ProcessActionsTest::SetUp();
        ASSERT_TRUE(root.Ok());
        root.WriteStat(child.Pid(), StatLine(child.Pid(), key.startTime));
    }
    FakeProcRoot root;
};

TEST_F(SecondReadTest, StartTimeThatChangesOnceThePidfdIsOpenIsTargetChanged) {
    script.afterPidfdOpen = [this] { root.WriteStat(child.Pid(), StatLine(child.Pid(), key.startTime + 1)); };
    const ActionResult result = Execute(Action(ProcessActionKind::forceKill, key), kScripted, root.Roots());
    EXPECT_EQ(result.status, ActionStatus::targetGone);
    EXPECT_EQ(result.textId, "action.targetChanged");
    EXPECT_EQ(script.sendCalls, 0);
    ASSERT_GE(script.lastPidfd, 0);
    EXPECT_FALSE(DescriptorIsOpen(script.lastPidfd));
    EXPECT_TRUE(child.StillRunning());
}

TEST_F(SecondReadTest, StatThatVanishesOnceThePidfdIsOpenIsGone) {
    script.afterPidfdOpen = [this] { root.RemoveStat(child.Pid()); };
    const ActionResult result = Execute(Action(ProcessActionKind::terminate, key), kScripted, root.Roots());
    EXPECT_EQ(result.status, ActionStatus::targetGone);
    EXPECT_EQ(result.errorNumber, ENOENT);
    EXPECT_EQ(result.textId, "action.validationFailed");
    EXPECT_EQ(script.sendCalls, 0);
    EXPECT_FALSE(DescriptorIsOpen(script.lastPidfd));
    EXPECT_TRUE(child.StillRunning());
}

TEST_F(SecondReadTest, StatThatTurnsMalformedIsFailedWithEinval) {
    script.afterPidfdOpen = [this] { root.WriteStat(child.Pid(), "garbage"); };
    const ActionResult result = Execute(Action(ProcessActionKind::terminate, key), kScripted, root.Roots());
    EXPECT_EQ(result.status, ActionStatus::failed);
    EXPECT_EQ(result.errorNumber, EINVAL);
    EXPECT_EQ(result.textId, "action.validationFailed");
    EXPECT_EQ(script.sendCalls, 0);
    EXPECT_TRUE(child.StillRunning());
}

TEST_F(SecondReadTest, MalformedStatBeforeAnyCallIsFailedWithEinval) {
    root.WriteStat(child.Pid(), std::to_string(child.Pid()) + " (pause child) S 1 2 3\n");
    const ActionResult result = Execute(Action(ProcessActionKind::forceKill, key), kScripted, root.Roots());
    EXPECT_EQ(result.status, ActionStatus::failed);
    EXPECT_EQ(result.errorNumber, EINVAL);
    EXPECT_EQ(result.textId, "action.validationFailed");
    EXPECT_EQ(CallCount(), 0);
}

TEST_F(SecondReadTest, UnchangedStatLetsTheSignalThrough) {
    const ActionResult result = Execute(Action(ProcessActionKind::forceKill, key), kScripted, root.Roots());
    EXPECT_EQ(result.status, ActionStatus::succeeded);
    EXPECT_EQ(child.WaitForTerminatingSignal(), SIGKILL);
}

// ---- Without privileges ----

struct HelperReport {
    bool dropped = false;
    std::int32_t status = -1;
    std::int32_t errorNumber = -1;
    std::array<char, 64> textId{};
};

std::optional<HelperReport> RunUnprivileged(const std::function<ActionResult()>& body) {
    return test_support::RunAsNobody<HelperReport>(
        [&](HelperReport& report) {
            const ActionResult result = body();
            report.status = static_cast<std::int32_t>(result.status);
            report.errorNumber = result.errorNumber;
            std::strncpy(report.textId.data(), result.textId.c_str(), report.textId.size() - 1);
        },
        true);
}

TEST(UnprivilegedActionTest, DecreasingNiceWithoutCapabilityIsAccessDenied) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to drop to another uid";
    const auto report = RunUnprivileged([] {
        PausingChild own;  // owned by nobody, like its parent helper
        const ProcessKey ownKey = own.Key();
        LinuxActions actions;
        const ActionResult raised = actions.Run(Action(ProcessActionKind::setPriority, ownKey, std::nullopt, 10));
        if (raised.status != ActionStatus::succeeded) return raised;
        return actions.Run(Action(ProcessActionKind::setPriority, ownKey, std::nullopt, 5));
    });
    ASSERT_TRUE(report.has_value());
    if (!report->dropped) GTEST_SKIP() << "could not drop to uid 65534 here";
    EXPECT_EQ(report->status, static_cast<std::int32_t>(ActionStatus::accessDenied));
    EXPECT_TRUE(report->errorNumber == EACCES || report->errorNumber == EPERM) << report->errorNumber;
    EXPECT_STREQ(report->textId.data(), "action.priority.failed");
}

struct ForeignSignalCase {
    const char* name;
    bool oldKernel;
};

class ForeignSignalTest : public ::testing::TestWithParam<ForeignSignalCase> {};

TEST_P(ForeignSignalTest, SignalToAnotherUsersProcessIsAccessDenied) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to drop to another uid";
    PausingChild rootsChild;
    ASSERT_TRUE(rootsChild.Started());
    const ProcessKey target = rootsChild.Key();
    const bool oldKernel = GetParam().oldKernel;
    const auto report = RunUnprivileged([target, oldKernel] {
        script = SyscallScript{};
        if (oldKernel) script.pidfdOpenError = ENOSYS;
        LinuxActions actions({}, kScripted);
        return actions.Run(Action(ProcessActionKind::forceKill, target));
    });
    ASSERT_TRUE(report.has_value());
    if (!report->dropped) GTEST_SKIP() << "could not drop to uid 65534 here";
    EXPECT_EQ(report->status, static_cast<std::int32_t>(ActionStatus::accessDenied));
    EXPECT_EQ(report->errorNumber, EPERM);
    EXPECT_STREQ(report->textId.data(), "action.signal.failed");
    EXPECT_TRUE(rootsChild.StillRunning());
}

INSTANTIATE_TEST_SUITE_P(Rows, ForeignSignalTest,
                         ::testing::Values(ForeignSignalCase{"Pidfd", false}, ForeignSignalCase{"KillFallback", true}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace korv::providers
