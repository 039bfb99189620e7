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
#include <pthread.h>
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
    std::string cmdline = std::string("proc\0--serve\0/srv/a b\0", 22);
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
        WriteText(dir / "cmdline", cmdline);
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
    kthread.cmdline.clear();
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
    EXPECT_EQ(p.commandLine, "proc --serve /srv/a b");
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
    EXPECT_EQ(k.commandLine, "");
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

// Every file is read at every tick: whatever moved since the last tick shows at once, and no figure
// carries an age.
TEST_P(FixtureCollectorTest, EachTickShowsWhatChangedSinceTheLastOne) {
    FakeProcess p{.pid = 10};
    p.WriteTo(root.path);
    struct Step {
        const char* what;
        std::function<void(FakeProcess&)> change;
        std::function<bool(const ProcessSnapshot&)> shown;
    };
    const std::vector<Step> steps = {
        {"renice, nothing else moved", [](FakeProcess& f) { f.nice = 7; },
         [](const ProcessSnapshot& r) { return r.nice.value == 7.0; }},
        {"a thread more", [](FakeProcess& f) { f.threads = 2; },
         [](const ProcessSnapshot& r) { return r.threadCount.value == 2u; }},
        {"resident set grew, stat unchanged",
         [](FakeProcess& f) { f.status = "Uid:\t0\t0\t0\t0\nVmHWM:\t900 kB\nVmRSS:\t800 kB\nRssAnon:\t700 kB\n"; },
         [](const ProcessSnapshot& r) {
             return r.workingSetBytes.value == 800u * 1024 && r.privateBytes.value == 700u * 1024;
         }},
        {"bytes read, stat unchanged",
         [](FakeProcess& f) { f.io = "syscr: 9\nsyscw: 6\nread_bytes: 1052672\nwrite_bytes: 0\n"; },
         [](const ProcessSnapshot& r) {
             return r.readBytes.value == 1052672u && r.readOperations.value == 9u &&
                    r.readBytesPerSecond.value == 1048576.0 * 4;  // 1 MiB in a quarter second
         }},
        {"moved into an application scope",
         [](FakeProcess& f) {
             f.cgroup = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-x-1.scope\n";
         },
         [](const ProcessSnapshot& r) {
             return r.group == core::ProcessGroup::apps && r.applicationKey == "linux-application-scope:app-x-1.scope";
         }},
        {"CPU time moved", [](FakeProcess& f) { f.utime += static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK)) / 4; },
         [](const ProcessSnapshot& r) { return r.cpuPercent.value > 0.0; }},
    };
    ProcessCollector collector = MakeCollector();
    std::vector<ProcessSnapshot> rows;
    std::uint64_t generation = 1;
    std::uint64_t nowNs = 10'000'000'000;
    ASSERT_TRUE(collector.Refresh(Tick(generation, nowNs), 1, rows).ok);
    for (const Step& step : steps) {
        step.change(p);
        for (const char* file : {"stat", "status", "io", "cgroup"}) {
            WriteText(root.path / "10" / file, std::string_view(file) == "stat"     ? p.Stat()
                                               : std::string_view(file) == "status" ? p.status
                                               : std::string_view(file) == "io"     ? p.io
                                                                                    : p.cgroup);
        }
        nowNs += 250'000'000;
        ASSERT_TRUE(collector.Refresh(Tick(++generation, nowNs), 1, rows).ok) << step.what;
        const ProcessSnapshot* row = Find(rows, 10);
        ASSERT_NE(row, nullptr) << step.what;
        EXPECT_TRUE(step.shown(*row)) << step.what;
        EXPECT_EQ(row->nice.sampleAgeNs, 0u) << step.what;
        for (const auto* metric : {&row->virtualBytes, &row->workingSetBytes, &row->privateBytes}) {
            EXPECT_EQ(metric->sampleAgeNs, 0u) << step.what;
        }
        for (const auto* metric : {&row->threadCount, &row->readBytes, &row->totalCpuTimeNs}) {
            EXPECT_EQ(metric->sampleAgeNs, 0u) << step.what;
            EXPECT_EQ(metric->lastGoodGeneration, generation) << step.what;
        }
    }
}

// Descriptors are listed again once the last count is older than 999,999,999 ns; in between the
// count is reused with its age. A failed listing keeps a count younger than 2 s as stale.
TEST_P(FixtureCollectorTest, DescriptorCountIsReusedForUnderASecond) {
    FakeProcess p{.pid = 10, .descriptors = 3};
    p.WriteTo(root.path);
    const fs::path fd = root.path / "10" / "fd";
    const auto open = [&](int count) {
        for (int i = 0; i < count; ++i) fs::create_symlink("/dev/null", fd / std::to_string(100 + i));
    };
    struct Step {
        std::uint64_t atNs;  // since the first tick
        std::function<void()> change;
        MetricAvailability availability;
        std::uint64_t count;
        std::uint64_t ageNs;
    };
    const std::vector<Step> steps = {
        {0, nullptr, MetricAvailability::valid, 3, 0},
        {250'000'000, [&] { open(2); }, MetricAvailability::valid, 3, 250'000'000},
        {999'999'999, nullptr, MetricAvailability::valid, 3, 999'999'999},
        {1'000'000'000, nullptr, MetricAvailability::valid, 5, 0},
        {1'250'000'000, [&] { fs::remove_all(fd); }, MetricAvailability::valid, 5, 250'000'000},
        {2'000'000'000, nullptr, MetricAvailability::stale, 5, 1'000'000'000},
        {2'750'000'000, nullptr, MetricAvailability::stale, 5, 1'750'000'000},
        {3'000'000'000, nullptr, MetricAvailability::notYetAvailable, 0, 0},
        {3'250'000'000, [&] { fs::create_directory(fd); open(1); }, MetricAvailability::notYetAvailable, 0, 0},
        {4'000'000'000, nullptr, MetricAvailability::valid, 1, 0},
    };
    ProcessCollector collector = MakeCollector();
    std::vector<ProcessSnapshot> rows;
    std::uint64_t generation = 0;
    for (const Step& step : steps) {
        if (step.change) step.change();
        ASSERT_TRUE(collector.Refresh(Tick(++generation, 10'000'000'000 + step.atNs), 1, rows).ok);
        const ProcessSnapshot* row = Find(rows, 10);
        ASSERT_NE(row, nullptr) << step.atNs;
        EXPECT_EQ(row->handleCount.availability, step.availability) << step.atNs;
        EXPECT_EQ(row->handleCount.value.value_or(0), step.count) << step.atNs;
        EXPECT_EQ(row->handleCount.sampleAgeNs, step.ageNs) << step.atNs;
    }
}

// The command line is read at first sight and again when the process execs (its comm changes).
TEST_P(FixtureCollectorTest, CommandLineFollowsAnExec) {
    FakeProcess p{.pid = 10, .comm = "bash", .exe = "/usr/bin/bash"};
    p.cmdline = std::string("bash\0-c\0make -j2\0", 18);
    p.WriteTo(root.path);
    ProcessCollector collector = MakeCollector();
    std::vector<ProcessSnapshot> rows;
    ASSERT_TRUE(collector.Refresh(Tick(1, 1'000'000'000), 1, rows).ok);
    ASSERT_NE(Find(rows, 10), nullptr);
    EXPECT_EQ(Find(rows, 10)->commandLine, "bash -c make -j2");

    p.comm = "make";
    WriteText(root.path / "10" / "stat", p.Stat());
    WriteText(root.path / "10" / "cmdline", std::string("make\0-j2\0", 9));
    fs::remove(root.path / "10" / "exe");
    fs::create_symlink("/usr/bin/make", root.path / "10" / "exe");
    ASSERT_TRUE(collector.Refresh(Tick(2, 1'250'000'000), 1, rows).ok);
    ASSERT_NE(Find(rows, 10), nullptr);
    EXPECT_EQ(Find(rows, 10)->commandLine, "make -j2");
    EXPECT_EQ(Find(rows, 10)->executablePath, "/usr/bin/make");
    EXPECT_EQ(Find(rows, 10)->name, "make");
}

INSTANTIATE_TEST_SUITE_P(Designs, FixtureCollectorTest, ::testing::Values(std::size_t{0}, std::size_t{1000}),
                         [](const ::testing::TestParamInfo<std::size_t>& design) { return design.param == 0 ? "OpenReadClose" : "KeptDescriptors"; });

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

// A child whose main thread only sleeps, while a worker thread waits for one-letter commands and
// answers each with the same letter: 's' starts a thread that spins, 't' one that sleeps, 'm' touches
// 64 MiB, 'f' opens 50 files, 'x' execs sleep (answered by the pipe closing on exec). So whatever the
// child does, its main thread does not run.
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
            static int channel[2];
            channel[0] = commands[0];
            channel[1] = answers[1];
            pthread_t worker;
            if (::pthread_create(&worker, nullptr, &Serve, channel) != 0) ::_exit(5);
            for (;;) ::pause();
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
    static void* Spin(void*) {
        volatile std::uint64_t turns = 0;
        for (;;) turns = turns + 1;
    }
    static void* Sleep(void*) {
        for (;;) ::pause();
    }
    static void* Serve(void* argument) {
        const int commands = static_cast<int*>(argument)[0];
        const int answers = static_cast<int*>(argument)[1];
        char command;
        while (::read(commands, &command, 1) == 1) {
            pthread_t thread;
            if (command == 's' || command == 't') {
                if (::pthread_create(&thread, nullptr, command == 's' ? &Spin : &Sleep, nullptr) != 0) ::_exit(6);
            } else if (command == 'm') {
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
        ::_exit(0);
    }

    pid_t pid_ = -1;
    int commands_ = -1;
    int answers_ = -1;
};

std::uint64_t SteadyNs() {
    const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count());
}

// A worker thread that spins while the main thread sleeps: the process's CPU time moves on every tick
// of a 250 ms cadence, and so must its CPU figure.
TEST(ProcessCollectorLiveTest, SpinningWorkerShowsItsCpuOnEveryTick) {
    CommandedChild child;
    ASSERT_GT(child.Pid(), 0u);
    ASSERT_TRUE(child.Run('s'));
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    ASSERT_TRUE(collector.Refresh(Tick(1, SteadyNs()), 2, rows).ok);
    ASSERT_NE(Find(rows, child.Pid()), nullptr);
    std::uint64_t cpuNs = Find(rows, child.Pid())->totalCpuTimeNs.value.value_or(0);
    for (std::uint64_t generation = 2; generation <= 8; ++generation) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        ASSERT_TRUE(collector.Refresh(Tick(generation, SteadyNs()), 2, rows).ok);
        const ProcessSnapshot* row = Find(rows, child.Pid());
        ASSERT_NE(row, nullptr) << "tick " << generation;
        EXPECT_EQ(row->cpuPercent.availability, MetricAvailability::valid) << "tick " << generation;
        EXPECT_GT(row->cpuPercent.value.value_or(0), 0.0) << "tick " << generation;
        EXPECT_GT(row->totalCpuTimeNs.value.value_or(0), cpuNs) << "tick " << generation;
        cpuNs = row->totalCpuTimeNs.value.value_or(0);
    }
}

// What changes in a child whose main thread sleeps, by its own worker or from outside, shows at the
// very next tick.
TEST(ProcessCollectorLiveTest, ChangesToAChildWithASleepingMainThreadShowAtTheNextTick) {
    CommandedChild child;
    ASSERT_GT(child.Pid(), 0u);
    ASSERT_TRUE(child.Run('f')) << "a first command settles the child";
    const std::uint32_t pid = child.Pid();
    struct Step {
        const char* what;
        std::function<bool()> change;
        std::function<bool(const ProcessSnapshot& before, const ProcessSnapshot& now)> shown;
    };
    const std::uint64_t grown = CommandedChild::kTouchedBytes;
    const std::vector<Step> steps = {
        {"renice from outside", [&] { return ::setpriority(PRIO_PROCESS, pid, 7) == 0; },
         [](const ProcessSnapshot&, const ProcessSnapshot& now) { return now.nice.value == 7.0; }},
        {"a new thread", [&] { return child.Run('t'); },
         [](const ProcessSnapshot& before, const ProcessSnapshot& now) {
             return now.threadCount.value == *before.threadCount.value + 1;
         }},
        {"64 MiB touched", [&] { return child.Run('m'); },
         [&](const ProcessSnapshot& before, const ProcessSnapshot& now) {
             return now.workingSetBytes.value.value_or(0) >= *before.workingSetBytes.value + grown &&
                    now.privateBytes.value.value_or(0) >= *before.privateBytes.value + grown &&
                    now.peakWorkingSetBytes.value.value_or(0) >= *before.workingSetBytes.value + grown &&
                    now.virtualBytes.value.value_or(0) >= *before.virtualBytes.value + grown;
         }},
        {"renice again", [&] { return ::setpriority(PRIO_PROCESS, pid, 12) == 0; },
         [](const ProcessSnapshot&, const ProcessSnapshot& now) { return now.nice.value == 12.0; }},
    };
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    std::uint64_t generation = 1;
    std::uint64_t nowNs = 100'000'000'000;
    ASSERT_TRUE(collector.Refresh(Tick(generation, nowNs), 2, rows).ok);
    for (const Step& step : steps) {
        nowNs += 250'000'000;
        ASSERT_TRUE(collector.Refresh(Tick(++generation, nowNs), 2, rows).ok);
        ASSERT_NE(Find(rows, pid), nullptr) << step.what;
        const ProcessSnapshot before = *Find(rows, pid);
        ASSERT_TRUE(before.threadCount.value && before.workingSetBytes.value && before.privateBytes.value &&
                    before.virtualBytes.value);
        ASSERT_TRUE(step.change()) << step.what;
        nowNs += 250'000'000;
        ASSERT_TRUE(collector.Refresh(Tick(++generation, nowNs), 2, rows).ok);
        const ProcessSnapshot* row = Find(rows, pid);
        ASSERT_NE(row, nullptr) << step.what;
        EXPECT_TRUE(step.shown(before, *row)) << step.what;
        EXPECT_EQ(row->nice.sampleAgeNs, 0u) << step.what;
        for (const auto* metric : {&row->threadCount, &row->workingSetBytes, &row->virtualBytes}) {
            EXPECT_EQ(metric->sampleAgeNs, 0u) << step.what;
        }
    }
}

TEST(ProcessCollectorLiveTest, ChildThatExecsShowsItsNewExecutableAndCommandLineAtTheNextTick) {
    std::error_code error;
    const fs::path sleepPath = fs::canonical("/bin/sleep", error);
    if (error) GTEST_SKIP() << "no /bin/sleep to exec";
    CommandedChild child;
    ASSERT_GT(child.Pid(), 0u);
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    const ProcessSnapshot* row = nullptr;
    ASSERT_TRUE(collector.Refresh(Tick(1, 100'000'000'000), 2, rows).ok);
    row = Find(rows, child.Pid());
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->executablePath, fs::read_symlink("/proc/self/exe").native());
    EXPECT_FALSE(row->commandLine.empty());
    ASSERT_TRUE(child.Run('x'));
    ASSERT_TRUE(collector.Refresh(Tick(2, 100'250'000'000), 2, rows).ok);
    row = Find(rows, child.Pid());
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->executablePath, sleepPath.native());
    EXPECT_EQ(row->name, "sleep");
    EXPECT_EQ(row->commandLine, "sleep 100000");
    EXPECT_EQ(row->handleCount.sampleAgeNs, 0u) << "an exec recounts the descriptors too";
}

// Descriptors opened by the child show by the first tick at which the last count is a second old.
TEST(ProcessCollectorLiveTest, DescriptorsOpenedByAChildShowWithinASecond) {
    CommandedChild child;
    ASSERT_GT(child.Pid(), 0u);
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    ASSERT_TRUE(collector.Refresh(Tick(1, 100'000'000'000), 2, rows).ok);
    ASSERT_NE(Find(rows, child.Pid()), nullptr);
    const std::uint64_t before = Find(rows, child.Pid())->handleCount.value.value_or(0);
    ASSERT_GT(before, 0u);
    ASSERT_TRUE(child.Run('f'));
    std::vector<std::uint64_t> counts;
    for (std::uint64_t tick = 1; tick <= 4; ++tick) {
        ASSERT_TRUE(collector.Refresh(Tick(tick + 1, 100'000'000'000 + tick * 250'000'000), 2, rows).ok);
        ASSERT_NE(Find(rows, child.Pid()), nullptr);
        counts.push_back(Find(rows, child.Pid())->handleCount.value.value_or(0));
    }
    EXPECT_EQ(counts, (std::vector<std::uint64_t>{before, before, before, before + 50}));
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
