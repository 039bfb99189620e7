#include "core/process_details.h"
#include "providers/proc_pid_stat.h"
#include "providers/process_collector.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <stop_token>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;
using core::DescriptorKind;
using core::MetricAvailability;

void WriteText(const fs::path& file, const std::string& text) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

std::string StatLine(std::uint32_t pid, std::uint64_t start) {
    return std::to_string(pid) + " (prog) S 1 1 1 0 -1 4194304 7 0 2 0 10 5 0 0 20 3 2 0 " + std::to_string(start) +
           " 1048576 10 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 0 0 0 0 0 0\n";
}

class DetailsFixtureTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::path(::testing::TempDir()) / "korv-details-XXXXXX").native();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr) << std::generic_category().message(errno);
        root = pattern;
        dir = root / "10";
        fs::create_directories(dir / "fd");
        WriteText(dir / "stat", StatLine(10, 500));
        WriteText(dir / "cmdline", std::string("prog\0--flag\0\0x\0", 15));
        WriteText(dir / "environ", std::string("A=1\0B=two words", 15));
        fs::create_symlink("/opt/prog/bin/prog", dir / "exe");
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    std::shared_ptr<core::ProcessDetails> Read(std::uint64_t start = 500) {
        return ReadProcessDetails(ProviderRoots{.proc = root}, {10, start});
    }
    fs::path root;
    fs::path dir;
};

TEST_F(DetailsFixtureTest, SplitsArgumentsAndEnvironmentOnNul) {
    const auto details = Read();
    ASSERT_NE(details, nullptr);
    EXPECT_EQ(details->key, (core::ProcessKey{10, 500}));
    EXPECT_EQ(details->name, "prog");
    EXPECT_EQ(details->parentPid, 1u);
    EXPECT_EQ(details->nice, 3);
    EXPECT_EQ(details->threadCount, 2u);
    EXPECT_EQ(details->state, core::ProcessState::sleeping);
    EXPECT_EQ(details->executablePath, "/opt/prog/bin/prog");
    EXPECT_EQ(details->commandLine, (std::vector<std::string>{"prog", "--flag", "", "x"}));
    EXPECT_EQ(details->commandLineAvailability, MetricAvailability::valid);
    EXPECT_EQ(details->environment, (std::vector<std::string>{"A=1", "B=two words"}));
    EXPECT_FALSE(details->environmentTruncated);
    EXPECT_TRUE(details->descriptors.empty());
    EXPECT_EQ(details->descriptorsAvailability, MetricAvailability::valid);
}

TEST_F(DetailsFixtureTest, MissingPiecesSayWhy) {
    fs::remove(dir / "environ");
    fs::remove(dir / "exe");
    fs::remove_all(dir / "fd");
    WriteText(dir / "cmdline", "");
    const auto details = Read();
    ASSERT_NE(details, nullptr);
    EXPECT_EQ(details->environmentAvailability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(details->executableAvailability, MetricAvailability::notApplicable) << "a kernel thread has no exe";
    EXPECT_EQ(details->commandLineAvailability, MetricAvailability::valid);
    EXPECT_TRUE(details->commandLine.empty());
    EXPECT_EQ(details->descriptorsAvailability, MetricAvailability::notYetAvailable);
}

TEST_F(DetailsFixtureTest, DescriptorTargetsAreNamedAndTheListIsCut) {
    const std::vector<std::pair<int, std::string>> special = {
        {0, "socket:[77]"}, {1, "pipe:[88]"}, {2, "anon_inode:[eventfd]"}, {10, "/home/u/notes (deleted)"}};
    for (const auto& [fd, target] : special) fs::create_symlink(target, dir / "fd" / std::to_string(fd));
    for (int fd = 3; fd < 600; ++fd) {
        if (fd != 10) fs::create_symlink("/dev/null", dir / "fd" / std::to_string(fd));
    }
    const auto details = Read();
    ASSERT_NE(details, nullptr);
    ASSERT_EQ(details->descriptors.size(), 512u);
    EXPECT_EQ(details->descriptorsNotShown, 88u);
    EXPECT_EQ(core::HiddenDescriptorsLine(details->descriptorsNotShown), "(88 more open descriptors not shown)");
    const auto& d = details->descriptors;
    EXPECT_EQ(d[0].target, "socket (inode 77)");
    EXPECT_EQ(d[0].kind, DescriptorKind::socket);
    EXPECT_EQ(d[1].target, "pipe (inode 88)");
    EXPECT_EQ(d[1].kind, DescriptorKind::pipe);
    EXPECT_EQ(d[2].target, "anon_inode:[eventfd]");
    EXPECT_EQ(d[2].kind, DescriptorKind::other);
    EXPECT_EQ(d[10].fd, 10) << "ordered by number, not by name";
    EXPECT_EQ(d[10].target, "/home/u/notes (deleted)");
    EXPECT_EQ(d[10].kind, DescriptorKind::file);
    EXPECT_EQ(d.back().fd, 511);
}

TEST_F(DetailsFixtureTest, NothingWhenTheKeyDoesNotMatchBeforeOrAfter) {
    EXPECT_EQ(Read(501), nullptr);
    EXPECT_EQ(ReadProcessDetails(ProviderRoots{.proc = root}, {11, 500}), nullptr);
    EXPECT_EQ(ReadProcessDetails(ProviderRoots{.proc = root / "missing"}, {10, 500}), nullptr);

    // cmdline is a FIFO: while it is being read, pid 10 comes to name another process.
    fs::remove(dir / "cmdline");
    ASSERT_EQ(::mkfifo((dir / "cmdline").c_str(), 0644), 0);
    std::thread feeder([&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        int fd;
        while ((fd = ::open((dir / "cmdline").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0 &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        WriteText(dir / "stat", StatLine(10, 900));
        if (fd >= 0) ::close(fd);
    });
    const auto details = Read();
    feeder.join();
    EXPECT_EQ(details, nullptr);
}

// A child that runs /bin/sleep with a known command line and environment, holding a pipe and a socket.
class SleepingChild {
public:
    SleepingChild() {
        int pipeFds[2];
        int sockets[2];
        int execed[2];
        if (::pipe(pipeFds) != 0 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0 || ::pipe2(execed, O_CLOEXEC) != 0) {
            return;
        }
        struct stat info{};
        ::fstat(pipeFds[0], &info);
        pipeInode = info.st_ino;
        ::fstat(sockets[0], &info);
        socketInode = info.st_ino;
        pid = ::fork();
        if (pid == 0) {
            ::dup2(pipeFds[0], 100);
            ::dup2(sockets[0], 101);
            char* const argv[] = {const_cast<char*>("sleep"), const_cast<char*>("1000"), nullptr};
            char* const envp[] = {const_cast<char*>("KORV_DETAILS=one two"), const_cast<char*>("EMPTY="), nullptr};
            ::execve("/bin/sleep", argv, envp);
            ::_exit(127);
        }
        for (const int fd : {pipeFds[0], pipeFds[1], sockets[0], sockets[1], execed[1]}) ::close(fd);
        char byte;
        (void)!::read(execed[0], &byte, 1);  // end of file once exec has happened
        ::close(execed[0]);
        const ProcStatRead stat = ReadProcPidStat("/proc", static_cast<std::uint32_t>(pid));
        if (stat.stat) key = {static_cast<std::uint32_t>(pid), stat.stat->starttime};
    }
    ~SleepingChild() { Stop(); }
    void Stop() {
        if (pid <= 0) return;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        pid = -1;
    }
    pid_t pid = -1;
    core::ProcessKey key;
    ino_t pipeInode = 0;
    ino_t socketInode = 0;
};

TEST(ProcessDetailsLiveTest, ReadsArgumentsEnvironmentAndDescriptorsOfAChild) {
    SleepingChild child;
    ASSERT_GT(child.pid, 0);
    ASSERT_NE(child.key.startTime, 0u);
    const auto details = ReadProcessDetails(ProviderRoots{}, child.key);
    ASSERT_NE(details, nullptr);
    EXPECT_EQ(details->name, "sleep");
    EXPECT_EQ(details->executablePath, fs::canonical("/bin/sleep").native());
    EXPECT_EQ(details->commandLine, (std::vector<std::string>{"sleep", "1000"}));
    EXPECT_EQ(details->environment, (std::vector<std::string>{"KORV_DETAILS=one two", "EMPTY="}));
    EXPECT_EQ(details->parentPid, static_cast<std::uint32_t>(::getpid()));
    EXPECT_EQ(details->threadCount, 1u);
    bool pipeSeen = false;
    bool socketSeen = false;
    for (const auto& d : details->descriptors) {
        if (d.fd == 100) pipeSeen = d.kind == DescriptorKind::pipe && d.target == "pipe (inode " + std::to_string(child.pipeInode) + ")";
        if (d.fd == 101) {
            socketSeen =
                d.kind == DescriptorKind::socket && d.target == "socket (inode " + std::to_string(child.socketInode) + ")";
        }
    }
    EXPECT_TRUE(pipeSeen);
    EXPECT_TRUE(socketSeen);

    EXPECT_EQ(ReadProcessDetails(ProviderRoots{}, {child.key.pid, child.key.startTime + 1}), nullptr);
    child.Stop();
    EXPECT_EQ(ReadProcessDetails(ProviderRoots{}, child.key), nullptr) << "the process has exited";
}

TEST(ProcessDetailsLiveTest, AReadThatIsToldToStopGivesNothing) {
    SleepingChild child;
    ASSERT_GT(child.pid, 0);
    std::stop_source source;
    ASSERT_NE(ReadProcessDetails(ProviderRoots{}, child.key, source.get_token()), nullptr);
    source.request_stop();
    EXPECT_EQ(ReadProcessDetails(ProviderRoots{}, child.key, source.get_token()), nullptr);
}

TEST(ProcessDetailsLiveTest, AnotherUsersEnvironmentIsAccessDenied) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to switch to an unprivileged uid";
    SleepingChild child;
    ASSERT_GT(child.pid, 0);
    int channel[2];
    ASSERT_EQ(::pipe2(channel, O_CLOEXEC), 0);
    const pid_t reader = ::fork();
    ASSERT_GE(reader, 0);
    if (reader == 0) {
        char report[64] = "setuid";
        if (::setgroups(0, nullptr) == 0 && ::setgid(65534) == 0 && ::setuid(65534) == 0) {
            const auto details = ReadProcessDetails(ProviderRoots{}, child.key);
            if (details) {
                std::snprintf(report, sizeof report, "%u %u %u %zu",
                              static_cast<unsigned>(details->environmentAvailability),
                              static_cast<unsigned>(details->descriptorsAvailability),
                              static_cast<unsigned>(details->commandLineAvailability), details->commandLine.size());
            } else {
                std::snprintf(report, sizeof report, "null");
            }
        }
        (void)!::write(channel[1], report, std::strlen(report));
        ::_exit(0);
    }
    ::close(channel[1]);
    char report[64] = {};
    (void)!::read(channel[0], report, sizeof report - 1);
    ::close(channel[0]);
    ::waitpid(reader, nullptr, 0);
    EXPECT_STREQ(report, "4 4 0 2");  // environment and descriptors denied; the command line is public
}

}  // namespace
}  // namespace korv::providers
