#include "providers/bounded_read.h"
#include "providers/proc_pid_stat.h"
#include "providers/process_collector.h"
#include "providers/process_directory.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <pwd.h>
#include <string>
#include <sys/prctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <fcntl.h>
#include <grp.h>
#include <vector>

#include <gtest/gtest.h>

namespace korv::providers {
namespace {

namespace fs = std::filesystem;
using core::MetricAvailability;
using core::ProcessSnapshot;

class TempRoot {
public:
    TempRoot() {
        std::string pattern = (fs::path(::testing::TempDir()) / "korv-proc-XXXXXX").native();
        if (::mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << std::generic_category().message(errno);
        path = pattern;
        fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                  fs::perms::others_read | fs::perms::others_exec);
    }
    ~TempRoot() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    fs::path path;
};

void WriteText(const fs::path& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);  // in place: a kept descriptor sees it
    out << text;
}

struct FakeProcess {
    std::uint32_t pid = 0;
    std::string comm = "proc";
    std::uint32_t ppid = 1;
    std::uint64_t utime = 100;
    std::uint64_t stime = 20;
    int nice = 0;
    std::uint64_t threads = 1;
    std::uint64_t start = 1000;
    std::int64_t rss = 50;
    std::string status = "Uid:\t0\t0\t0\t0\nVmHWM:\t300 kB\nVmRSS:\t200 kB\nRssAnon:\t100 kB\nRssFile:\t60 kB\n"
                         "RssShmem:\t40 kB\nVmSwap:\t0 kB\n";
    std::string io = "syscr: 5\nsyscw: 6\nread_bytes: 4096\nwrite_bytes: 0\n";
    std::string cgroup = "0::/system.slice/x.service\n";
    std::string schedstat = "1000000 0 7\n";  // empty: the kernel keeps none
    int descriptors = 3;
    std::string exe = "/usr/bin/proc";

    std::string Stat() const {
        return std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid) + " 1 1 0 -1 4194304 7 0 2 0 " +
               std::to_string(utime) + " " + std::to_string(stime) + " 0 0 20 " + std::to_string(nice) + " " +
               std::to_string(threads) + " 0 " + std::to_string(start) + " 1048576 " + std::to_string(rss) +
               " 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 0 0 0 0 0 0\n";
    }
    void WriteTo(const fs::path& root) const {
        const fs::path dir = root / std::to_string(pid);
        fs::create_directories(dir / "fd");
        WriteText(dir / "stat", Stat());
        WriteText(dir / "status", status);
        WriteText(dir / "io", io);
        WriteText(dir / "cgroup", cgroup);
        if (!schedstat.empty()) WriteText(dir / "schedstat", schedstat);
        for (int fd = 0; fd < descriptors; ++fd) fs::create_symlink("/dev/null", dir / "fd" / std::to_string(fd));
        if (!exe.empty()) fs::create_symlink(exe, dir / "exe");
    }
};

const ProcessSnapshot* Find(const std::vector<ProcessSnapshot>& rows, std::uint32_t pid) {
    const auto it = std::find_if(rows.begin(), rows.end(), [&](const auto& row) { return row.key.pid == pid; });
    return it == rows.end() ? nullptr : &*it;
}

CollectContext Tick(std::uint64_t generation, std::uint64_t monotonicNs) {
    CollectContext ctx;
    ctx.generation = generation;
    ctx.monotonicNs = monotonicNs;
    ctx.elapsedNs = 1'000'000'000;
    return ctx;
}

// Opens a FIFO for writing once the collector opens it for reading, runs `between`, then feeds the
// FIFO `text`: a point inside one process's read where the test can change the world.
class FifoFeeder {
public:
    FifoFeeder(const fs::path& fifo, std::string text, std::function<void()> between) {
        if (::mkfifo(fifo.c_str(), 0644) != 0) ADD_FAILURE() << "mkfifo";
        thread_ = std::thread([fifo, text = std::move(text), between = std::move(between)] {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            int fd = -1;
            while ((fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0 &&
                   std::chrono::steady_clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            if (fd < 0) return;
            between();
            (void)!::write(fd, text.data(), text.size());
            ::close(fd);
        });
    }
    ~FifoFeeder() { thread_.join(); }

private:
    std::thread thread_;
};

// Both designs: every file opened, read and closed each tick; and descriptors kept between ticks.
class FixtureCollectorTest : public ::testing::TestWithParam<std::size_t> {
protected:
    ProcessCollector MakeCollector() { return ProcessCollector(ProviderRoots{.proc = root.path}, GetParam()); }
    TempRoot root;
};

TEST_P(FixtureCollectorTest, BuildsRowsFromEveryFile) {
    FakeProcess init{.pid = 1, .comm = "init", .ppid = 0, .exe = "/sbin/init"};
    FakeProcess kthread{.pid = 2, .comm = "kthreadd", .ppid = 0, .rss = 0, .exe = ""};
    kthread.status = "Name:\tkthreadd\nUid:\t0\t0\t0\t0\n";
    FakeProcess parent{.pid = 300, .comm = "gnome-shell-cal", .nice = 5, .threads = 4, .start = 2000,
                       .exe = "/usr/libexec/gnome-shell-calendar-server"};
    parent.status.replace(parent.status.find("Uid:\t0"), 6, "Uid:\t3999999999");
    FakeProcess child{.pid = 301, .comm = "a) R (b", .ppid = 300, .start = 2100, .descriptors = 5};
    child.cgroup = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-foo-1234.scope\n";
    FakeProcess orphan{.pid = 400, .ppid = 999, .start = 2200};
    FakeProcess younger{.pid = 500, .ppid = 600, .start = 3000};
    FakeProcess reusedParent{.pid = 600, .start = 3500};  // started after its "child": not its parent
    for (const auto* p : {&init, &kthread, &parent, &child, &orphan, &younger, &reusedParent}) p->WriteTo(root.path);
    for (const char* junk : {"self", "0", "0042", "sys"}) fs::create_directory(root.path / junk);

    ProcessCollector collector = MakeCollector();
    std::vector<ProcessSnapshot> rows;
    const ProcessTableResult result = collector.Refresh(Tick(3, 5'000'000'000), 2, rows);
    ASSERT_TRUE(result.ok) << result.message;
    EXPECT_EQ(result.message, "procfs process table refreshed");
    std::vector<std::uint32_t> pids;
    for (const auto& row : rows) pids.push_back(row.key.pid);
    EXPECT_EQ(pids, (std::vector<std::uint32_t>{1, 2, 300, 301, 400, 500, 600}));

    const ProcessSnapshot& p = *Find(rows, 300);
    EXPECT_EQ(p.key, (core::ProcessKey{300, 2000}));
    EXPECT_EQ(p.parentKey, (core::ProcessKey{1, 1000}));
    EXPECT_EQ(p.name, "gnome-shell-calendar-server");
    EXPECT_EQ(p.executablePath, "/usr/libexec/gnome-shell-calendar-server");
    EXPECT_EQ(p.userName, "3999999999");
    EXPECT_EQ(p.state, core::ProcessState::sleeping);
    EXPECT_EQ(p.nice.value, 5.0);
    EXPECT_EQ(p.threadCount.value, 4u);
    EXPECT_EQ(p.virtualBytes.value, 1048576u);
    EXPECT_EQ(p.workingSetBytes.value, 200u * 1024);
    EXPECT_EQ(p.workingSetBytes.source, "linux.procfs");
    EXPECT_EQ(p.peakWorkingSetBytes.value, 300u * 1024);
    EXPECT_EQ(p.privateBytes.value, 100u * 1024);
    EXPECT_EQ(p.sharedBytes.value, 100u * 1024);
    EXPECT_EQ(p.swapBytes.availability, MetricAvailability::zero);
    EXPECT_EQ(p.userTimeNs.value, 100 * 1'000'000'000ull / ::sysconf(_SC_CLK_TCK));
    EXPECT_EQ(p.totalCpuTimeNs.value, 120 * 1'000'000'000ull / ::sysconf(_SC_CLK_TCK));
    EXPECT_EQ(p.pageFaults.value, 9u);
    EXPECT_EQ(p.readOperations.value, 5u);
    EXPECT_EQ(p.writeBytes.availability, MetricAvailability::zero);
    EXPECT_EQ(p.handleCount.value, 3u);
    EXPECT_EQ(p.handleCount.source, "linux.procfs.fd");
    EXPECT_EQ(p.handleCount.lastGoodGeneration, 3u);
    EXPECT_EQ(p.cpuPercent.availability, MetricAvailability::notYetAvailable) << "first sight of the key";
    EXPECT_EQ(p.readBytesPerSecond.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(p.group, core::ProcessGroup::background);
    EXPECT_EQ(p.networkReceiveBytes.availability, MetricAvailability::unsupported);
    EXPECT_EQ(p.networkSendBytesPerSecond.source, "linux.process.network");
    EXPECT_EQ(p.gpuPercent.source, "linux.gpu");
    EXPECT_EQ(p.npuPercent.availability, MetricAvailability::unsupported);

    const ProcessSnapshot& c = *Find(rows, 301);
    EXPECT_EQ(c.name, "a) R (b");
    EXPECT_EQ(c.parentKey, p.key);
    EXPECT_EQ(c.userName, "root");
    EXPECT_EQ(c.handleCount.value, 5u);
    EXPECT_EQ(c.group, core::ProcessGroup::apps);
    EXPECT_EQ(c.applicationKey, "linux-application-scope:app-foo-1234.scope");

    const ProcessSnapshot& k = *Find(rows, 2);
    EXPECT_EQ(k.executablePath, "");
    EXPECT_EQ(k.workingSetBytes.availability, MetricAvailability::zero);
    EXPECT_EQ(k.workingSetBytes.source, "linux.procfs.stat-rss");
    EXPECT_EQ(k.peakWorkingSetBytes.availability, MetricAvailability::notApplicable);
    EXPECT_EQ(k.parentKey, core::ProcessKey{});
    EXPECT_EQ(Find(rows, 400)->parentKey, core::ProcessKey{}) << "no row for pid 999";
    EXPECT_EQ(Find(rows, 500)->parentKey, core::ProcessKey{}) << "pid 600 is younger than its child";
}

TEST_P(FixtureCollectorTest, RatesComeFromTheBaselineOfTheSameKey) {
    FakeProcess p{.pid = 10, .utime = 100, .stime = 0};
    FakeProcess q{.pid = 11};
    p.WriteTo(root.path);
    q.WriteTo(root.path);
    ProcessCollector collector = MakeCollector();
    std::vector<ProcessSnapshot> rows;
    ASSERT_TRUE(collector.Refresh(Tick(1, 10'000'000'000), 2, rows).ok);

    const std::uint64_t hz = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    p.utime += hz;  // one second of CPU time
    WriteText(root.path / "10" / "stat", p.Stat());
    WriteText(root.path / "10" / "io", "syscr: 5\nsyscw: 6\nread_bytes: 8192\nwrite_bytes: 0\n");
    q.start = 5000;  // pid 11 now names another process
    WriteText(root.path / "11" / "stat", q.Stat());
    ASSERT_TRUE(collector.Refresh(Tick(2, 12'000'000'000), 2, rows).ok);
    const ProcessSnapshot& row = *Find(rows, 10);
    EXPECT_DOUBLE_EQ(*row.cpuPercent.value, 25.0) << "1 s over 2 s on 2 processors";
    EXPECT_DOUBLE_EQ(*row.readBytesPerSecond.value, 2048.0);
    EXPECT_EQ(row.writeBytesPerSecond.availability, MetricAvailability::zero);
    EXPECT_EQ(Find(rows, 11)->key.startTime, 5000u);
    EXPECT_EQ(Find(rows, 11)->cpuPercent.availability, MetricAvailability::notYetAvailable);

    collector.ResetBaselines();
    ASSERT_TRUE(collector.Refresh(Tick(3, 13'000'000'000), 2, rows).ok);
    EXPECT_EQ(Find(rows, 10)->cpuPercent.availability, MetricAvailability::notYetAvailable);
    ASSERT_TRUE(collector.Refresh(Tick(4, 14'000'000'000), 2, rows).ok);
    EXPECT_EQ(Find(rows, 10)->cpuPercent.availability, MetricAvailability::zero);
    EXPECT_EQ(collector.TrackedProcessCount(), 2u);

    fs::remove_all(root.path / "10");
    ASSERT_TRUE(collector.Refresh(Tick(5, 15'000'000'000), 2, rows).ok);
    EXPECT_EQ(rows.size(), 1u);
    EXPECT_EQ(collector.TrackedProcessCount(), 1u) << "the state of a vanished key is swept";
    EXPECT_LE(collector.KeptDescriptorCount(), GetParam());
}

TEST_P(FixtureCollectorTest, UnreadableIoIsReportedOnItsOwnMetrics) {
    FakeProcess p{.pid = 10};
    p.io = "";
    p.WriteTo(root.path);
    FakeProcess q{.pid = 11};
    q.WriteTo(root.path);
    fs::remove(root.path / "11" / "io");
    fs::remove_all(root.path / "11" / "fd");
    ProcessCollector collector = MakeCollector();
    std::vector<ProcessSnapshot> rows;
    ASSERT_TRUE(collector.Refresh(Tick(1, 1), 2, rows).ok);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].readBytes.availability, MetricAvailability::transientError) << "an empty io file";
    EXPECT_EQ(rows[1].readOperations.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(rows[1].handleCount.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(rows[1].workingSetBytes.availability, MetricAvailability::valid);
}

TEST_P(FixtureCollectorTest, PidReusedBetweenTheTwoStatReadsDropsTheRow) {
    FakeProcess p{.pid = 10};
    FakeProcess q{.pid = 20};
    p.WriteTo(root.path);
    q.WriteTo(root.path);
    fs::remove(root.path / "10" / "status");
    FakeProcess successor = p;
    successor.start = 7777;
    ProcessCollector collector = MakeCollector();
    std::vector<ProcessSnapshot> rows;
    ProcessTableResult result;
    {
        const FifoFeeder feeder(root.path / "10" / "status", p.status,
                                [&] { WriteText(root.path / "10" / "stat", successor.Stat()); });
        result = collector.Refresh(Tick(1, 1), 2, rows);
    }
    ASSERT_TRUE(result.ok) << result.message;
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].key.pid, 20u);
}

TEST_P(FixtureCollectorTest, StopDuringTheReadsCancelsTheCollection) {
    FakeProcess p{.pid = 10};
    FakeProcess q{.pid = 20};
    p.WriteTo(root.path);
    q.WriteTo(root.path);
    fs::remove(root.path / "10" / "status");
    std::stop_source stop;
    CollectContext ctx = Tick(1, 1);
    ctx.stop = stop.get_token();
    ProcessCollector collector = MakeCollector();
    std::vector<ProcessSnapshot> rows;
    ProcessTableResult result;
    {
        const FifoFeeder feeder(root.path / "10" / "status", p.status, [&] { stop.request_stop(); });
        result = collector.Refresh(ctx, 2, rows);
    }
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error, ECANCELED);
    EXPECT_EQ(result.message, "Process collection cancelled");
    EXPECT_TRUE(rows.empty());

    result = collector.Refresh(ctx, 2, rows);
    EXPECT_EQ(result.message, "Process enumeration cancelled");
}

// Status is read again only when stat moves or its copy grows old; in between its figures are the
// kept ones, with the current generation and the age of the read.
TEST_P(FixtureCollectorTest, QuietProcessReusesItsStatusUntilStatMoves) {
    FakeProcess p{.pid = 10};
    p.WriteTo(root.path);
    const auto statusWithRss = [](int kib) {
        return "Uid:\t0\t0\t0\t0\nVmHWM:\t9000 kB\nVmRSS:\t" + std::to_string(kib) +
               " kB\nRssAnon:\t" + std::to_string(kib) + " kB\n";
    };
    struct Step {
        const char* what;
        std::uint64_t atNs;
        std::function<void(FakeProcess&)> move;  // what changes in stat before the tick
        int statusKib;                           // what status says from now on
        int shownKib;
        std::uint64_t ageNs;
    };
    const std::vector<Step> steps = {
        {"first sight", 10'000'000'000, nullptr, 200, 200, 0},
        {"quiet", 10'300'000'000, nullptr, 300, 200, 300'000'000},
        {"ran", 10'600'000'000, [](FakeProcess& f) { ++f.utime; }, 400, 400, 0},
        {"quiet again", 10'900'000'000, nullptr, 500, 400, 300'000'000},
        {"resident pages moved", 11'000'000'000, [](FakeProcess& f) { ++f.rss; }, 600, 600, 0},
        {"quiet for almost 5 s", 15'500'000'000, nullptr, 700, 600, 4'500'000'000},
        {"quiet for 5 s", 16'000'000'000, nullptr, 800, 800, 0},
    };
    ProcessCollector collector = MakeCollector();
    std::vector<ProcessSnapshot> rows;
    std::uint64_t generation = 0;
    for (const Step& step : steps) {
        if (step.move) {
            step.move(p);
            WriteText(root.path / "10" / "stat", p.Stat());
        }
        WriteText(root.path / "10" / "status", statusWithRss(step.statusKib));
        ASSERT_TRUE(collector.Refresh(Tick(++generation, step.atNs), 2, rows).ok) << step.what;
        const ProcessSnapshot* row = Find(rows, 10);
        ASSERT_NE(row, nullptr) << step.what;
        EXPECT_EQ(row->workingSetBytes.value, step.shownKib * 1024u) << step.what;
        EXPECT_EQ(row->privateBytes.value, step.shownKib * 1024u) << step.what;
        for (const auto* metric : {&row->workingSetBytes, &row->privateBytes, &row->peakWorkingSetBytes}) {
            EXPECT_EQ(metric->sampleAgeNs, step.ageNs) << step.what;
            EXPECT_EQ(metric->lastGoodGeneration, generation) << step.what;
        }
        EXPECT_EQ(row->swapBytes.availability, MetricAvailability::notApplicable) << step.what;
        EXPECT_EQ(row->userName, "root") << step.what;
        EXPECT_EQ(row->virtualBytes.sampleAgeNs, 0u) << "stat is read every tick";
        // io moves with CPU time, as status does, and is read on the same schedule.
        EXPECT_EQ(row->readBytes.sampleAgeNs, step.ageNs) << step.what;
    }
}

INSTANTIATE_TEST_SUITE_P(Designs, FixtureCollectorTest, ::testing::Values(std::size_t{0}, std::size_t{1000}),
                         [](const ::testing::TestParamInfo<std::size_t>& design) { return design.param == 0 ? "OpenReadClose" : "KeptDescriptors"; });

// io is kept only while schedstat proves that the process has not run: a run too short to be
// charged a clock tick in stat still makes the counters be read again.
TEST_P(FixtureCollectorTest, IoIsReadAgainAfterAnyRun) {
    struct Step {
        const char* what;
        std::string schedstat;  // before the tick
        std::string io;
        std::uint64_t shownReadBytes;
        bool ioRead;
    };
    for (const bool withSchedstat : {true, false}) {
        TempRoot fresh;
        FakeProcess p{.pid = 10};
        if (!withSchedstat) p.schedstat.clear();
        p.WriteTo(fresh.path);
        ProcessCollector collector(ProviderRoots{.proc = fresh.path}, GetParam());
        std::vector<ProcessSnapshot> rows;
        const std::vector<Step> steps = {
            {"first sight", "1000 0 7\n", "read_bytes: 4096\nwrite_bytes: 0\n", 4096, true},
            {"did not run", "1000 0 7\n", "read_bytes: 8192\nwrite_bytes: 0\n", withSchedstat ? 4096u : 8192u,
             !withSchedstat},
            {"ran briefly", "1500 0 8\n", "read_bytes: 12288\nwrite_bytes: 0\n", 12288, true},
        };
        std::uint64_t generation = 0;
        for (const Step& step : steps) {
            if (withSchedstat) WriteText(fresh.path / "10" / "schedstat", step.schedstat);
            WriteText(fresh.path / "10" / "io", step.io);
            ++generation;
            ASSERT_TRUE(collector.Refresh(Tick(generation, 1'000'000'000 * generation), 2, rows).ok);
            const ProcessSnapshot* row = Find(rows, 10);
            ASSERT_NE(row, nullptr) << step.what;
            EXPECT_EQ(row->readBytes.value, step.shownReadBytes) << step.what << " schedstat " << withSchedstat;
            EXPECT_EQ(row->readBytes.sampleAgeNs == 0, step.ioRead) << step.what << " schedstat " << withSchedstat;
        }
    }
}

// On a root that does not pin its processes, a quiet tick reads stat alone and then reads it again
// at the end: here the pid is reused right after the first read.
TEST(ProcessCollectorQuietTickTest, PidReusedDuringAQuietTickDropsTheRow) {
    TempRoot root;
    FakeProcess p{.pid = 10};
    FakeProcess q{.pid = 20};
    p.WriteTo(root.path);
    q.WriteTo(root.path);
    ProcessCollector collector(ProviderRoots{.proc = root.path}, 0);
    std::vector<ProcessSnapshot> rows;
    ASSERT_TRUE(collector.Refresh(Tick(1, 1'000'000'000), 2, rows).ok);
    ASSERT_NE(Find(rows, 10), nullptr);

    const fs::path stat = root.path / "10" / "stat";
    FakeProcess successor = p;
    successor.start = 7777;
    WriteText(root.path / "successor-stat", successor.Stat());
    fs::remove(stat);
    ProcessTableResult result;
    {
        const FifoFeeder feeder(stat, p.Stat(), [&] { fs::rename(root.path / "successor-stat", stat); });
        result = collector.Refresh(Tick(2, 1'300'000'000), 2, rows);
    }
    ASSERT_TRUE(result.ok) << result.message;
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].key.pid, 20u);
    EXPECT_GT(rows[0].workingSetBytes.sampleAgeNs, 0u) << "status was not read on this tick";
    EXPECT_GT(rows[0].readBytes.sampleAgeNs, 0u) << "io was not read on this tick";
    EXPECT_EQ(rows[0].readBytesPerSecond.value, 0.0) << "a process that did not run did no io";
}

TEST(ProcessCollectorErrorsTest, EnumerationFailuresAndLimits) {
    TempRoot root;
    std::vector<ProcessSnapshot> rows;
    const auto refresh = [&](const fs::path& proc) {
        ProcessCollector collector(ProviderRoots{.proc = proc});
        return collector.Refresh(Tick(1, 1), 2, rows);
    };
    ProcessTableResult result = refresh(root.path / "missing");
    EXPECT_EQ(result.error, ENOENT);
    EXPECT_EQ(result.message, "procfs process directory enumeration failed");
    WriteText(root.path / "file", "x");
    EXPECT_EQ(refresh(root.path / "file").error, ENOTDIR);

    fs::create_directory(root.path / "empty");
    fs::create_directory(root.path / "empty" / "self");
    fs::create_directory(root.path / "empty" / "77");  // a pid directory without files
    result = refresh(root.path / "empty");
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.message, "No stable readable processes were observed");

    EXPECT_TRUE(rows.empty());
}

TEST(ProcessCollectorErrorsTest, PidListLimitAndCancellation) {
    TempRoot root;
    for (const char* name : {"3", "1", "2", "self", "007"}) fs::create_directory(root.path / name);
    const int fd = ::open(root.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    std::vector<std::uint32_t> pids;
    std::vector<char> buffer;
    const std::stop_source running;
    PidEnumeration listed = EnumeratePids(fd, running.get_token(), 3, pids, buffer);
    EXPECT_EQ(listed.message, nullptr);
    std::sort(pids.begin(), pids.end());
    EXPECT_EQ(pids, (std::vector<std::uint32_t>{1, 2, 3}));

    ::lseek(fd, 0, SEEK_SET);
    listed = EnumeratePids(fd, running.get_token(), 2, pids, buffer);
    EXPECT_EQ(listed.error, 75);
    EXPECT_STREQ(listed.message, "procfs process count exceeded safety limit");

    std::stop_source stop;
    stop.request_stop();
    ::lseek(fd, 0, SEEK_SET);
    listed = EnumeratePids(fd, stop.get_token(), 3, pids, buffer);
    EXPECT_EQ(listed.error, ECANCELED);
    EXPECT_STREQ(listed.message, "Process enumeration cancelled");
    ::close(fd);
}

// Rights are checked as a user without privileges, in a child, since root reads everything.
TEST(ProcessCollectorRightsTest, MissingRightsOnIoAndFdKeepTheRow) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to switch to an unprivileged uid";
    TempRoot root;
    FakeProcess p{.pid = 10};
    p.WriteTo(root.path);
    fs::permissions(root.path / "10" / "io", fs::perms::owner_read);
    fs::permissions(root.path / "10" / "fd", fs::perms::owner_all);
    int channel[2];
    ASSERT_EQ(::pipe2(channel, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        char report[64] = "setuid";
        if (::setgroups(0, nullptr) == 0 && ::setgid(65534) == 0 && ::setuid(65534) == 0) {
            ProcessCollector collector(ProviderRoots{.proc = root.path});
            std::vector<ProcessSnapshot> rows;
            collector.Refresh(Tick(1, 1), 2, rows);
            if (rows.size() == 1) {
                std::snprintf(report, sizeof report, "%u %u %u", static_cast<unsigned>(rows[0].readBytes.availability),
                              static_cast<unsigned>(rows[0].handleCount.availability),
                              static_cast<unsigned>(rows[0].workingSetBytes.availability));
            } else {
                std::snprintf(report, sizeof report, "rows %zu", rows.size());
            }
        }
        (void)!::write(channel[1], report, std::strlen(report));
        ::_exit(0);
    }
    ::close(channel[1]);
    char report[64] = {};
    (void)!::read(channel[0], report, sizeof report - 1);
    ::close(channel[0]);
    ::waitpid(child, nullptr, 0);
    EXPECT_STREQ(report, "4 4 0");  // accessDenied, accessDenied, valid
}

// Children of this test on the real /proc.
class LiveChildren {
public:
    ~LiveChildren() {
        for (const pid_t pid : pids_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    // Forks a child that names itself, sets its nice value, starts extra threads and then waits.
    pid_t Start(const char* name, int niceValue, int extraThreads) {
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) != 0) return -1;
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::prctl(PR_SET_NAME, name);
            if (::setpriority(PRIO_PROCESS, 0, niceValue) != 0) ::_exit(3);
            for (int i = 0; i < extraThreads; ++i) std::thread([] { for (;;) ::pause(); }).detach();
            (void)!::write(ready[1], "r", 1);
            for (;;) ::pause();
        }
        ::close(ready[1]);
        char byte;
        (void)!::read(ready[0], &byte, 1);
        ::close(ready[0]);
        if (pid > 0) pids_.push_back(pid);
        return pid;
    }
    void Reap(pid_t pid) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        pids_.erase(std::remove(pids_.begin(), pids_.end(), pid), pids_.end());
    }

private:
    std::vector<pid_t> pids_;
};

TEST(ProcessCollectorLiveTest, FindsChildrenWithTheirKeysParentsAndFigures) {
    LiveChildren children;
    const pid_t named = children.Start("a) R (b", 7, 3);
    const pid_t plain = children.Start("korv-plain", 0, 0);
    ASSERT_GT(named, 0);
    ASSERT_GT(plain, 0);
    const ProcStatRead self = ReadProcPidStat("/proc", static_cast<std::uint32_t>(::getpid()));
    const ProcStatRead namedStat = ReadProcPidStat("/proc", static_cast<std::uint32_t>(named));
    ASSERT_TRUE(self.stat && namedStat.stat);

    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    const ProcessSnapshot* row = nullptr;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::uint64_t generation = 0;
    do {  // the threads of the child may take a moment to appear
        ++generation;
        ASSERT_TRUE(collector.Refresh(Tick(generation, generation * 1'000'000'000), 2, rows).ok);
        row = Find(rows, static_cast<std::uint32_t>(named));
    } while ((row == nullptr || row->threadCount.value != 4u) && std::chrono::steady_clock::now() < deadline &&
             (std::this_thread::sleep_for(std::chrono::milliseconds(20)), true));
    ASSERT_NE(row, nullptr);
    EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.key < b.key; }));
    EXPECT_EQ(row->key, (core::ProcessKey{static_cast<std::uint32_t>(named), namedStat.stat->starttime}));
    EXPECT_EQ(row->parentKey, (core::ProcessKey{static_cast<std::uint32_t>(::getpid()), self.stat->starttime}));
    EXPECT_EQ(row->name, "a) R (b");
    EXPECT_EQ(row->threadCount.value, 4u);
    EXPECT_EQ(row->nice.value, 7.0);
    EXPECT_EQ(row->state, core::ProcessState::sleeping);
    const passwd* me = ::getpwuid(::getuid());
    EXPECT_EQ(row->userName, me != nullptr ? me->pw_name : std::to_string(::getuid()));
    EXPECT_EQ(row->executablePath, fs::read_symlink("/proc/self/exe").native());
    EXPECT_GE(row->handleCount.value.value_or(0), 3u);
    EXPECT_GT(row->workingSetBytes.value.value_or(0), 0u);

    const ProcessSnapshot* other = Find(rows, static_cast<std::uint32_t>(plain));
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->name, "korv-plain");
    EXPECT_EQ(other->threadCount.value, 1u);
    EXPECT_EQ(other->nice.availability, MetricAvailability::zero);

    children.Reap(plain);
    ASSERT_TRUE(collector.Refresh(Tick(generation + 1, (generation + 1) * 1'000'000'000), 2, rows).ok);
    EXPECT_EQ(Find(rows, static_cast<std::uint32_t>(plain)), nullptr);
    EXPECT_NE(Find(rows, static_cast<std::uint32_t>(named)), nullptr);
}

// A proc root whose pid directories point at the real files of live children, with status as a FIFO:
// the child is killed and reaped while its row is being read.
TEST(ProcessCollectorLiveTest, ChildThatExitsMidCollectionIsDropped) {
    for (const std::size_t kept : {std::size_t{0}, std::size_t{1000}}) {
        LiveChildren children;
        const pid_t leaving = children.Start("korv-leaving", 0, 0);
        const pid_t staying = children.Start("korv-staying", 0, 0);
        ASSERT_GT(leaving, 0);
        ASSERT_GT(staying, 0);
        TempRoot root;
        for (const pid_t pid : {leaving, staying}) {
            const fs::path dir = root.path / std::to_string(pid);
            const fs::path real = fs::path("/proc") / std::to_string(pid);
            fs::create_directory(dir);
            for (const char* file : {"stat", "io", "cgroup", "fd", "status"}) {
                if (pid != leaving || std::string_view(file) != "status") fs::create_symlink(real / file, dir / file);
            }
        }
        const std::string status = ReadFileBounded(fs::path("/proc") / std::to_string(leaving) / "status", 65536).text;
        ProcessCollector collector(ProviderRoots{.proc = root.path}, kept);
        std::vector<ProcessSnapshot> rows;
        ProcessTableResult result;
        {
            const FifoFeeder feeder(root.path / std::to_string(leaving) / "status", status,
                                    [&] { children.Reap(leaving); });
            result = collector.Refresh(Tick(1, 1), 2, rows);
        }
        ASSERT_TRUE(result.ok) << result.message;
        EXPECT_EQ(Find(rows, static_cast<std::uint32_t>(leaving)), nullptr) << "kept " << kept;
        ASSERT_NE(Find(rows, static_cast<std::uint32_t>(staying)), nullptr);
        EXPECT_EQ(Find(rows, static_cast<std::uint32_t>(staying))->name, "korv-staying");
    }
}

// A child that waits for one-letter commands and answers each with the same letter: 'm' touches
// 64 MiB, 'f' opens 50 files, 'x' execs sleep (answered by the pipe closing on exec).
class CommandedChild {
public:
    static constexpr std::size_t kTouchedBytes = 64u << 20;

    CommandedChild() {
        int commands[2];
        int answers[2];
        if (::pipe2(commands, O_CLOEXEC) != 0 || ::pipe2(answers, O_CLOEXEC) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_NAME, "korv-commanded");
            ::close(commands[1]);
            ::close(answers[0]);
            Serve(commands[0], answers[1]);
            ::_exit(0);
        }
        ::close(commands[0]);
        ::close(answers[1]);
        commands_ = commands[1];
        answers_ = answers[0];
    }
    ~CommandedChild() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(commands_);
        ::close(answers_);
    }
    CommandedChild(const CommandedChild&) = delete;
    CommandedChild& operator=(const CommandedChild&) = delete;

    std::uint32_t Pid() const { return pid_ > 0 ? static_cast<std::uint32_t>(pid_) : 0; }
    bool Run(char command) {
        if (::write(commands_, &command, 1) != 1) return false;
        char reply = 0;
        const ssize_t got = ::read(answers_, &reply, 1);
        return command == 'x' ? got == 0 : got == 1 && reply == command;
    }

private:
    static void Serve(int commands, int answers) {
        char command;
        while (::read(commands, &command, 1) == 1) {
            if (command == 'm') {
                void* block = ::mmap(nullptr, kTouchedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                if (block == MAP_FAILED) ::_exit(4);
                std::memset(block, 1, kTouchedBytes);
            } else if (command == 'f') {
                for (int i = 0; i < 50; ++i) (void)!::open("/dev/null", O_RDONLY);
            } else if (command == 'x') {
                ::execl("/bin/sleep", "sleep", "100000", static_cast<char*>(nullptr));
            }
            (void)!::write(answers, &command, 1);
        }
    }

    pid_t pid_ = -1;
    int commands_ = -1;
    int answers_ = -1;
};

constexpr std::uint64_t kLiveStartNs = 100'000'000'000;

const ProcessSnapshot* LiveTick(ProcessCollector& collector, std::uint64_t generation, std::uint64_t atNs,
                                std::uint32_t pid, std::vector<ProcessSnapshot>& rows) {
    if (!collector.Refresh(Tick(generation, atNs), 2, rows).ok) return nullptr;
    return Find(rows, pid);
}

// A sleeping child whose stat does not move keeps the status figures of its first read, aging.
// While a child waits without running, its stat is kept (schedstat proves it unchanged); a renice
// from outside, which needs no run of the child, shows at the next due read, and any run at once.
TEST(ProcessCollectorLiveTest, StatOfAChildThatHasNotRunIsKeptUntilItRunsOrIsDue) {
    CommandedChild child;
    ASSERT_GT(child.Pid(), 0u);
    const std::uint32_t pid = child.Pid();
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    std::uint64_t generation = 1;
    std::uint64_t nowNs = kLiveStartNs;
    ASSERT_NE(LiveTick(collector, generation, nowNs, pid, rows), nullptr);
    const auto tick = [&] {
        nowNs += 1'000'000'000;
        return LiveTick(collector, ++generation, nowNs, pid, rows);
    };
    bool kept = false;
    for (int attempt = 0; attempt < 20 && !kept; ++attempt) {
        const ProcessSnapshot* row = tick();
        ASSERT_NE(row, nullptr);
        kept = row->virtualBytes.sampleAgeNs > 0;
        if (kept) {
            EXPECT_EQ(row->cpuPercent.value, 0.0);
        }
    }
    ASSERT_TRUE(kept) << "the waiting child's stat was read at every tick";

    ASSERT_EQ(::setpriority(PRIO_PROCESS, static_cast<id_t>(pid), 7), 0);
    bool reniced = false;
    for (int second = 0; second < 6 && !reniced; ++second) {
        const ProcessSnapshot* row = tick();
        ASSERT_NE(row, nullptr);
        reniced = row->nice.value == 7.0;
    }
    EXPECT_TRUE(reniced) << "a renice from outside shows within five seconds";

    ASSERT_TRUE(child.Run('m'));
    const ProcessSnapshot* row = tick();
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->virtualBytes.sampleAgeNs, 0u) << "a child that ran has its stat read again";
    EXPECT_GE(row->virtualBytes.value.value_or(0), CommandedChild::kTouchedBytes);
}

TEST(ProcessCollectorLiveTest, SleepingChildReusesItsStatusWithAGrowingAge) {
    LiveChildren children;
    const pid_t child = children.Start("korv-quiet", 0, 0);
    ASSERT_GT(child, 0);
    const std::uint32_t pid = static_cast<std::uint32_t>(child);
    const auto marks = [&] {
        const ProcStatRead read = ReadProcPidStat("/proc", pid);
        return read.stat ? std::to_string(read.stat->utime + read.stat->stime) + " " +
                               std::to_string(read.stat->rss) + " " + std::to_string(read.stat->minflt) + " " +
                               std::to_string(read.stat->majflt) + " " + read.stat->state
                         : std::string();
    };
    // The child may still be settling into pause(); a round in which its stat moved proves nothing.
    bool quietRound = false;
    for (int attempt = 0; attempt < 20 && !quietRound; ++attempt) {
        const std::string before = marks();
        ProcessCollector collector(ProviderRoots{});
        std::vector<ProcessSnapshot> rows;
        const ProcessSnapshot* row = LiveTick(collector, 1, kLiveStartNs, pid, rows);
        ASSERT_NE(row, nullptr);
        const std::uint64_t firstRss = row->workingSetBytes.value.value_or(0);
        ASSERT_GT(firstRss, 0u);
        EXPECT_EQ(row->workingSetBytes.sampleAgeNs, 0u);
        std::vector<std::uint64_t> ages;
        for (std::uint64_t tick = 2; tick <= 3; ++tick) {
            row = LiveTick(collector, tick, kLiveStartNs + (tick - 1) * 300'000'000, pid, rows);
            ASSERT_NE(row, nullptr);
            ages.push_back(row->workingSetBytes.sampleAgeNs);
            if (before != marks() || before.back() != 'S') break;
            EXPECT_EQ(row->workingSetBytes.value, firstRss);
            EXPECT_EQ(row->workingSetBytes.lastGoodGeneration, tick);
            EXPECT_EQ(row->privateBytes.sampleAgeNs, row->workingSetBytes.sampleAgeNs);
            EXPECT_TRUE(row->peakWorkingSetBytes.HasValue());
        }
        quietRound = before == marks() && before.back() == 'S';
        if (quietRound) {
            EXPECT_EQ(ages, (std::vector<std::uint64_t>{300'000'000, 600'000'000}));
        }
    }
    EXPECT_TRUE(quietRound) << "the child never stayed still";
}

TEST(ProcessCollectorLiveTest, ChildThatTouchesMemoryShowsItAtTheNextTick) {
    CommandedChild child;
    ASSERT_GT(child.Pid(), 0u);
    ASSERT_TRUE(child.Run('f')) << "a first command settles the child";
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    const ProcessSnapshot* row = LiveTick(collector, 1, kLiveStartNs, child.Pid(), rows);
    ASSERT_NE(row, nullptr);
    const std::uint64_t workingSet = row->workingSetBytes.value.value_or(0);
    const std::uint64_t privateBytes = row->privateBytes.value.value_or(0);
    ASSERT_TRUE(child.Run('m'));
    row = LiveTick(collector, 2, kLiveStartNs + 300'000'000, child.Pid(), rows);
    ASSERT_NE(row, nullptr);
    const std::uint64_t grown = CommandedChild::kTouchedBytes;
    EXPECT_GE(row->workingSetBytes.value.value_or(0), workingSet + grown);
    EXPECT_GE(row->privateBytes.value.value_or(0), privateBytes + grown);
    EXPECT_GE(row->peakWorkingSetBytes.value.value_or(0), workingSet + grown);
    EXPECT_EQ(row->privateBytes.sampleAgeNs, 0u);
}

TEST(ProcessCollectorLiveTest, ChildThatExecsShowsItsNewExecutableAtTheNextTick) {
    std::error_code error;
    const fs::path sleepPath = fs::canonical("/bin/sleep", error);
    if (error) GTEST_SKIP() << "no /bin/sleep to exec";
    CommandedChild child;
    ASSERT_GT(child.Pid(), 0u);
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    const ProcessSnapshot* row = LiveTick(collector, 1, kLiveStartNs, child.Pid(), rows);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->executablePath, fs::read_symlink("/proc/self/exe").native());
    ASSERT_TRUE(child.Run('x'));
    row = LiveTick(collector, 2, kLiveStartNs + 300'000'000, child.Pid(), rows);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->executablePath, sleepPath.native());
    EXPECT_EQ(row->name, "sleep");
    EXPECT_EQ(row->handleCount.sampleAgeNs, 0u) << "an exec recounts the descriptors too";
}

// Descriptors are recounted every 5 s at the latest; a reused count says how old it is.
TEST(ProcessCollectorLiveTest, DescriptorsOpenedByAChildShowWithinFiveSeconds) {
    CommandedChild child;
    ASSERT_GT(child.Pid(), 0u);
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    const ProcessSnapshot* row = LiveTick(collector, 1, kLiveStartNs, child.Pid(), rows);
    ASSERT_NE(row, nullptr);
    const std::uint64_t before = row->handleCount.value.value_or(0);
    ASSERT_GT(before, 0u);
    ASSERT_TRUE(child.Run('f'));
    std::uint64_t lastReadNs = kLiveStartNs;
    bool shown = false;
    for (std::uint64_t tick = 2; tick <= 6; ++tick) {
        const std::uint64_t nowNs = kLiveStartNs + (tick - 1) * 1'000'000'000;
        row = LiveTick(collector, tick, nowNs, child.Pid(), rows);
        ASSERT_NE(row, nullptr);
        if (row->handleCount.sampleAgeNs == 0) lastReadNs = nowNs;
        EXPECT_EQ(row->handleCount.sampleAgeNs, nowNs - lastReadNs) << "tick " << tick;
        EXPECT_EQ(row->handleCount.availability, MetricAvailability::valid);
        if (row->handleCount.value == before + 50) {
            EXPECT_TRUE(shown || row->handleCount.sampleAgeNs == 0) << "first shown by a recount";
            shown = true;
        } else {
            EXPECT_FALSE(shown) << "a count once shown stays";
            EXPECT_EQ(row->handleCount.value, before);
        }
    }
    EXPECT_TRUE(shown) << "within 5 s of the opens";
}

// A real pid reuse: the kernel hands the pid of a reaped child to the next fork when ns_last_pid is
// set just below it. The descriptors kept for the first child must not lend it the second's figures.
TEST(ProcessCollectorLiveTest, ReusedPidGetsANewKeyAndNoOldBaseline) {
    LiveChildren children;
    const pid_t first = children.Start("korv-first", 0, 0);
    ASSERT_GT(first, 0);
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    ASSERT_TRUE(collector.Refresh(Tick(1, 1'000'000'000), 2, rows).ok);
    const ProcessSnapshot* seen = Find(rows, static_cast<std::uint32_t>(first));
    ASSERT_NE(seen, nullptr);
    const core::ProcessKey firstKey = seen->key;
    ASSERT_GT(collector.KeptDescriptorCount(), 0u);

    children.Reap(first);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // a later start time, in clock ticks
    pid_t second = -1;
    for (int attempt = 0; attempt < 20 && second != first; ++attempt) {
        std::ofstream last("/proc/sys/kernel/ns_last_pid");
        if (!(last << first - 1 << std::flush)) GTEST_SKIP() << "ns_last_pid is not writable here";
        last.close();
        second = children.Start("korv-second", 0, 0);
        if (second != first) children.Reap(second);
    }
    if (second != first) GTEST_SKIP() << "the pid was taken by another process each time";

    ASSERT_TRUE(collector.Refresh(Tick(2, 2'000'000'000), 2, rows).ok);
    const ProcessSnapshot* row = Find(rows, static_cast<std::uint32_t>(first));
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->name, "korv-second");
    EXPECT_GT(row->key.startTime, firstKey.startTime);
    EXPECT_EQ(row->cpuPercent.availability, MetricAvailability::notYetAvailable);
}

}  // namespace
}  // namespace korv::providers
