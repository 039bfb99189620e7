// The process collector against the same reads done bare and against top, side by side, on a table
// of sleeping processes that the benchmark starts and ends itself. All figures are CPU time per
// listed process, in microseconds:
//   ours            a steady Refresh 0.25 s after the previous one: stat, cgroup, io and status of every
//                   process, the descriptor counts reused
//   ours_recount    a Refresh 1.5 s after the previous one, which also lists the descriptors again
//   openclose*      the same two ticks with no kept descriptors: every file opened, read and closed
//   bare            opendir /proc, then per pid: open its directory; open, read, close stat, status,
//                   io, cgroup; list fd; read stat again
//   top             `top -b -n 1`, user and system time of the child from wait4
// allocs_per_tick counts what a steady Refresh allocates beyond the rows it returns.
// BM_QuietTicks runs ten Refreshes at a 1 s cadence over sleeping processes, where every tick lists
// the descriptors again, and reports their average beside the bare full read.
#include "providers/process_collector.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// Counting global allocations on the measuring thread only, while a tick runs.
thread_local bool countAllocations = false;
thread_local std::uint64_t allocationCount = 0;

void* Allocate(std::size_t size) {
    if (countAllocations) ++allocationCount;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using korv::core::ProcessSnapshot;
using korv::providers::CollectContext;
using korv::providers::ProcessCollector;
using korv::providers::ProviderRoots;

double ThreadCpuMicros() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

void* SleepForever(void*) {
    for (;;) ::pause();
}

// count sleeping processes of threadsEach threads each, killed and reaped on destruction.
class SleepingProcesses {
public:
    SleepingProcesses(int count, int threadsEach) {
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) != 0) return;
        for (int i = 0; i < count; ++i) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::close(ready[0]);
                pthread_attr_t attributes;
                ::pthread_attr_init(&attributes);
                ::pthread_attr_setstacksize(&attributes, 64 * 1024);
                for (int t = 1; t < threadsEach; ++t) {
                    pthread_t thread;
                    ::pthread_create(&thread, &attributes, &SleepForever, nullptr);
                }
                (void)!::write(ready[1], "r", 1);
                SleepForever(nullptr);
            }
            if (pid < 0) break;
            pids_.push_back(pid);
        }
        ::close(ready[1]);
        char byte;
        for (std::size_t started = 0; started < pids_.size() && ::read(ready[0], &byte, 1) == 1;) ++started;
        ::close(ready[0]);
    }
    ~SleepingProcesses() {
        for (const pid_t pid : pids_) ::kill(pid, SIGKILL);
        for (const pid_t pid : pids_) ::waitpid(pid, nullptr, 0);
    }
    SleepingProcesses(const SleepingProcesses&) = delete;
    SleepingProcesses& operator=(const SleepingProcesses&) = delete;
    std::size_t Size() const { return pids_.size(); }

private:
    std::vector<pid_t> pids_;
};

char scratch[65536];

void ReadWhole(int directoryFd, const char* name) {
    const int fd = ::openat(directoryFd, name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    while (::read(fd, scratch, sizeof scratch) > 0) {
    }
    ::close(fd);
}

// The reads of one collector tick with no design at all; returns the number of pids listed.
std::size_t BareReferenceTick() {
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) return 0;
    std::size_t count = 0;
    while (const dirent* entry = ::readdir(proc)) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
        ++count;
        const int dir = ::openat(::dirfd(proc), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (dir < 0) continue;
        ReadWhole(dir, "stat");
        ReadWhole(dir, "status");
        ReadWhole(dir, "io");
        ReadWhole(dir, "cgroup");
        const int fds = ::openat(dir, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fds >= 0) {
            while (::getdents64(fds, scratch, sizeof scratch) > 0) {
            }
            ::close(fds);
        }
        ReadWhole(dir, "stat");
        ::close(dir);
    }
    ::closedir(proc);
    return count;
}

std::size_t CountPids() {
    DIR* proc = ::opendir("/proc");
    std::size_t count = 0;
    while (proc != nullptr && ::readdir(proc) != nullptr) ++count;
    if (proc != nullptr) ::closedir(proc);
    return count;
}

// CPU time of one `top -b -n 1`, microseconds; negative when top cannot be run.
double TopMicros() {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    char* const argv[] = {const_cast<char*>("top"), const_cast<char*>("-b"), const_cast<char*>("-n"),
                          const_cast<char*>("1"), nullptr};
    pid_t pid = -1;
    const int error = ::posix_spawnp(&pid, "top", &actions, nullptr, argv, environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return -1;
    int status = 0;
    rusage usage{};
    if (::wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    const auto micros = [](const timeval& t) { return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec); };
    return micros(usage.ru_utime) + micros(usage.ru_stime);
}

struct TickCost {
    double cpuMicros = 0;
    double wallSeconds = 0;
    std::size_t rows = 0;
    std::uint64_t allocations = 0;
};

TickCost MeasuredRefresh(ProcessCollector& collector, CollectContext& ctx, std::vector<ProcessSnapshot>& rows) {
    TickCost cost;
    const auto wall = std::chrono::steady_clock::now();
    const double cpu = ThreadCpuMicros();
    allocationCount = 0;
    countAllocations = true;
    const auto result = collector.Refresh(ctx, 2, rows);
    countAllocations = false;
    cost.cpuMicros = ThreadCpuMicros() - cpu;
    cost.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
    cost.allocations = allocationCount;
    cost.rows = result.ok ? rows.size() : 0;
    return cost;
}

// What the returned rows themselves hold: copying them allocates the same strings again.
std::uint64_t RowAllocations(const std::vector<ProcessSnapshot>& rows) {
    allocationCount = 0;
    countAllocations = true;
    {
        const std::vector<ProcessSnapshot> copy(rows);
        benchmark::DoNotOptimize(copy.data());
    }
    countAllocations = false;
    return allocationCount - 1;  // the vector's own buffer
}

void BM_ProcessTable(benchmark::State& state) {
    const SleepingProcesses children(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    ProcessCollector kept(ProviderRoots{});
    ProcessCollector openClose(ProviderRoots{}, 0);
    std::vector<ProcessSnapshot> rows;
    CollectContext ctx;
    std::uint64_t clock = 1'000'000'000;
    const auto advance = [&](std::uint64_t ns) {
        clock += ns;
        ++ctx.generation;
        ctx.monotonicNs = clock;
        ctx.elapsedNs = static_cast<std::int64_t>(ns);
    };
    for (int warmUp = 0; warmUp < 2; ++warmUp) {
        advance(1'500'000'000);
        kept.Refresh(ctx, 2, rows);
        openClose.Refresh(ctx, 2, rows);
    }

    double ours = 0, oursRecount = 0, openCloseSteady = 0, openCloseRecount = 0, bare = 0, top = 0;
    double processes = 0, beyondRows = 0, rowAllocations = 0, kernelKept = 0;
    bool topMissing = false;
    for (auto _ : state) {
        advance(1'500'000'000);  // the descriptor counts are due
        TickCost recount = MeasuredRefresh(kept, ctx, rows);
        oursRecount += recount.cpuMicros / static_cast<double>(recount.rows);
        recount = MeasuredRefresh(openClose, ctx, rows);
        openCloseRecount += recount.cpuMicros / static_cast<double>(recount.rows);

        advance(250'000'000);  // nothing is due
        const TickCost closed = MeasuredRefresh(openClose, ctx, rows);
        openCloseSteady += closed.cpuMicros / static_cast<double>(closed.rows);
        const TickCost steady = MeasuredRefresh(kept, ctx, rows);
        ours += steady.cpuMicros / static_cast<double>(steady.rows);
        processes += static_cast<double>(steady.rows);
        const std::uint64_t held = RowAllocations(rows);
        rowAllocations += static_cast<double>(held) / static_cast<double>(steady.rows);
        beyondRows += static_cast<double>(steady.allocations) - static_cast<double>(held);
        kernelKept += static_cast<double>(kept.KeptDescriptorCount());
        state.SetIterationTime(steady.wallSeconds);

        const double bareStart = ThreadCpuMicros();
        const std::size_t listed = BareReferenceTick();
        bare += (ThreadCpuMicros() - bareStart) / static_cast<double>(listed);

        const std::size_t pids = CountPids();
        const double topCost = TopMicros();
        if (topCost < 0) topMissing = true;
        top += topCost / static_cast<double>(pids);
    }
    const auto average = [](double value) { return benchmark::Counter(value, benchmark::Counter::kAvgIterations); };
    state.counters["procs"] = average(processes);
    state.counters["ours_us"] = average(ours);
    state.counters["ours_recount_us"] = average(oursRecount);
    state.counters["openclose_us"] = average(openCloseSteady);
    state.counters["openclose_recount_us"] = average(openCloseRecount);
    state.counters["bare_us"] = average(bare);
    if (!topMissing) state.counters["top_us"] = average(top);
    state.counters["allocs_per_tick"] = average(beyondRows);
    state.counters["row_allocs_per_proc"] = average(rowAllocations);
    state.counters["kept_fds"] = average(kernelKept);
    if (topMissing) state.SetLabel("top could not be run");
}

void BM_QuietTicks(benchmark::State& state) {
    const SleepingProcesses children(static_cast<int>(state.range(0)), 1);
    ProcessCollector collector(ProviderRoots{});
    std::vector<ProcessSnapshot> rows;
    CollectContext ctx;
    std::uint64_t clock = 1'000'000'000;
    const auto tick = [&] {
        clock += 1'000'000'000;
        ++ctx.generation;
        ctx.monotonicNs = clock;
        ctx.elapsedNs = 1'000'000'000;
        return MeasuredRefresh(collector, ctx, rows);
    };
    tick();  // first sight of every process
    constexpr int kTicks = 10;
    double ours = 0, bare = 0, processes = 0;
    for (auto _ : state) {
        double wall = 0;
        for (int i = 0; i < kTicks; ++i) {
            const TickCost cost = tick();
            ours += cost.cpuMicros / static_cast<double>(cost.rows) / kTicks;
            processes += static_cast<double>(cost.rows) / kTicks;
            wall += cost.wallSeconds;
        }
        state.SetIterationTime(wall / kTicks);
        const double bareStart = ThreadCpuMicros();
        const std::size_t listed = BareReferenceTick();
        bare += (ThreadCpuMicros() - bareStart) / static_cast<double>(listed);
    }
    const auto average = [](double value) { return benchmark::Counter(value, benchmark::Counter::kAvgIterations); };
    state.counters["procs"] = average(processes);
    state.counters["ours_us"] = average(ours);
    state.counters["bare_us"] = average(bare);
}

BENCHMARK(BM_QuietTicks)->Arg(500)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

// 2,000 single-threaded sleepers; 200 processes of 20 threads each.
BENCHMARK(BM_ProcessTable)->Args({2000, 1})->Args({200, 20})->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
