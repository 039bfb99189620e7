#include "providers/process_affinity.h"
#include "tests/providers/unprivileged_helper.h"

#include "providers/bounded_read.h"
#include "providers/proc_pid_stat.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <grp.h>
#include <optional>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace korv::providers {
namespace {

using core::ProcessKey;

using test_support::kNobody;
using test_support::kNogroup;
constexpr int kExtraThreads = 3;

void* PauseForever(void* announceFd) {
    const int fd = *static_cast<int*>(announceFd);
    const char ready = 'r';
    if (::write(fd, &ready, 1) != 1) ::_exit(3);
    for (;;) ::pause();
}

// Gives only this thread the credentials of nobody (the raw call, as libc's setresuid would change
// every thread), then announces itself and waits.
void* PauseAsNobody(void* announceFd) {
    if (::syscall(SYS_setresuid, kNobody, kNobody, kNobody) != 0) ::_exit(4);
    return PauseForever(announceFd);
}

// A forked child with kExtraThreads threads beside its main one, all waiting for signals. The
// constructor returns once every thread has started. The destructor kills and reaps it.
class ThreadedChild {
public:
    explicit ThreadedChild(bool oneThreadAsNobody = false) {
        int fds[2];
        if (::pipe(fds) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(fds[0]);
            static int announceFd;
            announceFd = fds[1];
            for (int i = 0; i < kExtraThreads; ++i) {
                pthread_t thread;
                void* (*body)(void*) = (oneThreadAsNobody && i == 0) ? &PauseAsNobody : &PauseForever;
                if (::pthread_create(&thread, nullptr, body, &announceFd) != 0) ::_exit(2);
            }
            for (;;) ::pause();
        }
        ::close(fds[1]);
        int announced = 0;
        char byte = 0;
        while (pid_ > 0 && announced < kExtraThreads && ::read(fds[0], &byte, 1) == 1) ++announced;
        ::close(fds[0]);
        ready_ = pid_ > 0 && announced == kExtraThreads;
    }
    ThreadedChild(const ThreadedChild&) = delete;
    ThreadedChild& operator=(const ThreadedChild&) = delete;
    ~ThreadedChild() {
        if (pid_ > 0 && !reaped_) KillAndReap();
    }

    bool Ready() const { return ready_; }
    pid_t Pid() const { return pid_; }
    ProcessKey Key() const {
        const auto stat = ReadProcPidStat("/proc", static_cast<std::uint32_t>(pid_)).stat;
        return ProcessKey{static_cast<std::uint32_t>(pid_), stat ? stat->starttime : 0};
    }
    void KillAndReap() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        reaped_ = true;
    }

    std::vector<pid_t> Threads() const {
        std::vector<pid_t> tids;
        const std::string path = "/proc/" + std::to_string(pid_) + "/task";
        DIR* directory = ::opendir(path.c_str());
        if (directory == nullptr) return tids;
        while (const dirent* entry = ::readdir(directory)) {
            if (entry->d_name[0] != '.') tids.push_back(static_cast<pid_t>(std::stol(entry->d_name)));
        }
        ::closedir(directory);
        return tids;
    }

private:
    pid_t pid_ = -1;
    bool ready_ = false;
    bool reaped_ = false;
};

long Processors() { return ::sysconf(_SC_NPROCESSORS_CONF); }

std::uint64_t MaskOf(pid_t tid) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (::sched_getaffinity(tid, sizeof(set), &set) != 0) return 0;
    std::uint64_t mask = 0;
    for (int cpu = 0; cpu < 64; ++cpu) {
        if (CPU_ISSET(cpu, &set)) mask |= std::uint64_t{1} << cpu;
    }
    return mask;
}

bool SetMask(pid_t tid, std::uint64_t mask) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int cpu = 0; cpu < 64; ++cpu) {
        if ((mask >> cpu) & 1U) CPU_SET(cpu, &set);
    }
    return ::sched_setaffinity(tid, sizeof(set), &set) == 0;
}

std::string CpusAllowedList(pid_t pid) {
    const auto read = ReadFileBounded("/proc/" + std::to_string(pid) + "/status", 262144);
    const std::string key = "Cpus_allowed_list:";
    const std::size_t at = read.text.find(key);
    if (at == std::string::npos) return {};
    std::size_t start = read.text.find_first_not_of(" \t", at + key.size());
    const std::size_t end = read.text.find('\n', start);
    return read.text.substr(start, end - start);
}

class ProcessAffinityTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(child.Ready());
        key = child.Key();
        ASSERT_NE(key.startTime, 0u);
        const long processors = Processors();
        if (processors < 1 || processors > 64) GTEST_SKIP() << "affinity masks cover 1 to 64 processors only";
        ownMask = MaskOf(::getpid());
    }

    ThreadedChild child;
    ProcessKey key;
    std::uint64_t ownMask = 0;
};

TEST_F(ProcessAffinityTest, PinningToCpu0ReachesEveryThread) {
    if ((ownMask & 1U) == 0) GTEST_SKIP() << "CPU 0 is not in this process's cpuset";
    const AffinityResult result = SetProcessAffinity({}, key, 1);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.message, "Set affinity succeeded");
    EXPECT_EQ(result.applied, static_cast<std::uint32_t>(kExtraThreads + 1));
    EXPECT_EQ(result.threads, static_cast<std::uint32_t>(kExtraThreads + 1));

    const std::vector<pid_t> tids = child.Threads();
    ASSERT_EQ(tids.size(), static_cast<std::size_t>(kExtraThreads + 1));
    for (const pid_t tid : tids) EXPECT_EQ(MaskOf(tid), 1u) << "thread " << tid;
    EXPECT_EQ(CpusAllowedList(child.Pid()), "0");

    const AffinityReading reading = ReadProcessAffinity({}, key);
    EXPECT_TRUE(reading.ok);
    EXPECT_EQ(reading.combinedMask, 1u);
    EXPECT_FALSE(reading.threadsDiffer);
}

TEST_F(ProcessAffinityTest, ReadingAFreshChildShowsTheInheritedMask) {
    const AffinityReading reading = ReadProcessAffinity({}, key);
    EXPECT_TRUE(reading.ok);
    EXPECT_EQ(reading.combinedMask, ownMask);
    EXPECT_FALSE(reading.threadsDiffer);
    EXPECT_TRUE(reading.message.empty());
}

TEST_F(ProcessAffinityTest, ThreadsThatDifferReadAsTheirUnion) {
    if (Processors() < 2 || (ownMask & 3U) != 3U) GTEST_SKIP() << "needs CPUs 0 and 1 in this process's cpuset";
    const std::vector<pid_t> tids = child.Threads();
    ASSERT_GE(tids.size(), 2u);
    ASSERT_TRUE(SetMask(tids[0], 0b01));
    for (std::size_t i = 1; i < tids.size(); ++i) ASSERT_TRUE(SetMask(tids[i], 0b10));

    const AffinityReading reading = ReadProcessAffinity({}, key);
    EXPECT_TRUE(reading.ok);
    EXPECT_TRUE(reading.threadsDiffer);
    EXPECT_EQ(reading.combinedMask, 0b11u);
    EXPECT_EQ(kAffinityThreadsDifferText, "Threads differ; showing their combined affinity");

    // Applying one mask to all of them makes them agree again.
    const AffinityResult result = SetProcessAffinity({}, key, 0b10);
    EXPECT_EQ(result.message, "Set affinity succeeded");
    const AffinityReading after = ReadProcessAffinity({}, key);
    EXPECT_FALSE(after.threadsDiffer);
    EXPECT_EQ(after.combinedMask, 0b10u);
}

TEST_F(ProcessAffinityTest, EmptyMaskIsRefusedAndChangesNothing) {
    std::vector<std::uint64_t> emptyMasks{0};
    // Bits past the configured processors name no processor.
    if (Processors() < 64) emptyMasks.push_back(std::uint64_t{1} << 63);
    for (const std::uint64_t mask : emptyMasks) {
        const AffinityResult result = SetProcessAffinity({}, key, mask);
        EXPECT_FALSE(result.ok);
        EXPECT_EQ(result.message, "At least one processor must remain selected");
        EXPECT_EQ(result.applied, 0u);
    }
    for (const pid_t tid : child.Threads()) EXPECT_EQ(MaskOf(tid), ownMask);
}

TEST_F(ProcessAffinityTest, ExitedOrReplacedProcessIsRefused) {
    const ProcessKey reused{key.pid, key.startTime + 1};
    const AffinityResult changed = SetProcessAffinity({}, reused, 1);
    EXPECT_FALSE(changed.ok);
    EXPECT_EQ(changed.message, "Set affinity failed: the process has exited");
    for (const pid_t tid : child.Threads()) EXPECT_EQ(MaskOf(tid), ownMask);
    EXPECT_FALSE(ReadProcessAffinity({}, reused).ok);

    child.KillAndReap();
    const AffinityResult gone = SetProcessAffinity({}, key, 1);
    EXPECT_FALSE(gone.ok);
    EXPECT_EQ(gone.message, "Set affinity failed: the process has exited");
    EXPECT_EQ(gone.threads, 0u);
    const AffinityReading reading = ReadProcessAffinity({}, key);
    EXPECT_FALSE(reading.ok);
    EXPECT_EQ(reading.message, "Set affinity failed: the process has exited");
}

// ---- Without privileges ----

struct HelperReport {
    bool dropped = false;
    bool ok = false;
    std::uint32_t applied = 0;
    std::uint32_t threads = 0;
    std::array<char, 96> message{};
};

// A helper running as nobody applies the mask to the target and reports back.
std::optional<HelperReport> SetAffinityUnprivileged(const ProcessKey& target, std::uint64_t mask) {
    return test_support::RunAsNobody<HelperReport>([&](HelperReport& report) {
        const AffinityResult result = SetProcessAffinity({}, target, mask);
        report.ok = result.ok;
        report.applied = result.applied;
        report.threads = result.threads;
        std::strncpy(report.message.data(), result.message.c_str(), report.message.size() - 1);
    });
}

TEST_F(ProcessAffinityTest, AnotherUsersProcessIsAccessDenied) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to drop to another uid";
    const auto report = SetAffinityUnprivileged(key, ownMask & (~ownMask + 1));
    ASSERT_TRUE(report.has_value());
    if (!report->dropped) GTEST_SKIP() << "could not drop to uid 65534 here";
    EXPECT_FALSE(report->ok);
    EXPECT_STREQ(report->message.data(), "Set affinity failed: access denied");
    EXPECT_EQ(report->applied, 0u);
    EXPECT_EQ(report->threads, static_cast<std::uint32_t>(kExtraThreads + 1));
    for (const pid_t tid : child.Threads()) EXPECT_EQ(MaskOf(tid), ownMask);
}

TEST(ProcessAffinityPartialTest, ThreadsOfAnotherOwnerAreCountedAsNotApplied) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to drop to another uid";
    const long processors = Processors();
    if (processors < 1 || processors > 64) GTEST_SKIP() << "affinity masks cover 1 to 64 processors only";
    ThreadedChild mixed(true);
    ASSERT_TRUE(mixed.Ready());
    const std::uint64_t ownMask = MaskOf(::getpid());
    const std::uint64_t lowest = ownMask & (~ownMask + 1);

    const auto report = SetAffinityUnprivileged(mixed.Key(), lowest);
    ASSERT_TRUE(report.has_value());
    if (!report->dropped) GTEST_SKIP() << "could not drop to uid 65534 here";
    EXPECT_TRUE(report->ok);
    EXPECT_EQ(report->applied, 1u);
    EXPECT_EQ(report->threads, static_cast<std::uint32_t>(kExtraThreads + 1));
    EXPECT_EQ(std::string(report->message.data()),
              "Set affinity applied to 1 of " + std::to_string(kExtraThreads + 1) + " threads");

    int pinned = 0;
    for (const pid_t tid : mixed.Threads()) pinned += MaskOf(tid) == lowest ? 1 : 0;
    if (lowest != ownMask) {
        EXPECT_EQ(pinned, 1);
    }

    const AffinityReading reading = ReadProcessAffinity({}, mixed.Key());
    EXPECT_TRUE(reading.ok);
    EXPECT_EQ(reading.threadsDiffer, lowest != ownMask);
}

}  // namespace
}  // namespace korv::providers
