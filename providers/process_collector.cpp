#include "providers/process_collector.h"

#include "providers/proc_pid_stat.h"
#include "providers/process_cgroup.h"
#include "providers/process_descriptors.h"
#include "providers/process_directory.h"
#include "providers/process_figures.h"
#include "providers/process_files.h"
#include "providers/process_refresh.h"
#include "providers/process_row.h"
#include "providers/process_status.h"
#include "providers/process_user_names.h"
#include "providers/steady_clock.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <utility>

namespace korv::providers {
namespace {

// What a process carries from one tick to the next.
struct TrackedProcess {
    core::ProcessKey key;
    ProcessFiles files;
    bool haveCpu = false;
    bool haveIo = false;
    std::uint64_t cpuTimeNs = 0;
    std::uint64_t readBytes = 0;
    std::uint64_t writeBytes = 0;
    std::uint64_t sampleNs = 0;    // the context's monotonic time of the CPU baseline
    std::uint64_t ioSampleNs = 0;  // ... and of the io baselines, which a quiet process keeps longer
    std::uint64_t ioDueNs = 0;
    ParsedProcIo io;               // the last io that was read
    // The last stat that was read, the schedstat beside it, and when stat is due again.
    bool haveStat = false;
    ParsedProcStat stat;
    std::optional<RunMarks> statRun;
    std::uint64_t statReadNs = 0;
    std::uint64_t statDueNs = 0;
    std::optional<RunMarks> ioRun;  // schedstat at that read
    DescriptorCountState descriptors;
    bool haveExecutable = false;
    std::uint64_t slowDueNs = 0;  // when the descriptor count, executable and cgroup are read again
    std::uint64_t slowReadNs = 0;
    StatusMarks slowMarks;            // what stat said at that read
    std::optional<RunMarks> slowRun;  // ... and schedstat
    std::string executable;
    std::string executableComm;    // comm when the executable was read: a change means an exec
    std::string applicationScope;  // the ".scope" unit under app.slice; empty for background
    // The last status that was read, and what stat said then: a quiet process reuses it.
    bool haveStatus = false;
    ParsedProcStatus status;
    StatusMarks statusMarks;
    std::uint64_t statusReadNs = 0;
    std::uint64_t statusDueNs = 0;
};

}  // namespace

struct ProcessCollector::Impl {
    Impl(ProviderRoots providerRoots, std::size_t keptCapacity)
        : roots(std::move(providerRoots)), budget(keptCapacity), prototype(PrototypeProcessRow()) {
        const long ticks = ::sysconf(_SC_CLK_TCK);
        hz = ticks > 0 ? static_cast<std::uint64_t>(ticks) : 0;
        const long page = ::sysconf(_SC_PAGESIZE);
        pageSize = page > 0 ? static_cast<std::uint64_t>(page) : 4096;
    }

    ProcessTableResult Refresh(const CollectContext& ctx, std::uint32_t processors,
                               std::vector<core::ProcessSnapshot>& rows);
    void ReadProcess(int rootFd, std::uint32_t pid, TrackedProcess* prior, const CollectContext& ctx,
                     std::uint32_t processors, std::vector<core::ProcessSnapshot>& rows);
    std::optional<ParsedProcStat> ReadStat(ProcessFiles& files, std::uint32_t pid);
    void RefreshSlowFigures(TrackedProcess& entry, const ParsedProcStat& stat, const std::optional<RunMarks>& run,
                            const CollectContext& ctx, core::ProcessSnapshot& row, DescriptorCountState& descriptors);
    CounterBaseline Baseline(bool have, std::uint64_t value, std::uint64_t sampleNs,
                             const CollectContext& ctx) const noexcept;
    static void ResolveParents(std::vector<core::ProcessSnapshot>& rows);
    void ForgetBaselines() noexcept {
        for (TrackedProcess& entry : tracked) {
            entry.haveCpu = false;
            entry.haveIo = false;
        }
    }

    ProviderRoots roots;
    KeptDescriptorBudget budget;
    const core::ProcessSnapshot prototype;
    std::uint64_t hz = 0;
    std::uint64_t pageSize = 4096;
    std::uint64_t nowNs = 0;  // this tick's clock for the ages of reused figures
    bool pinnedRoot = false;  // the root is a procfs mount: a pid directory descriptor pins its process

    std::vector<TrackedProcess> tracked;  // sorted by key
    std::vector<TrackedProcess> next;
    std::vector<std::uint32_t> pids;
    std::vector<char> directoryBuffer;
    std::string statBuffer;
    std::string fileBuffer;
    UserNameCache userNames;
};

ProcessCollector::ProcessCollector(ProviderRoots roots)
    : ProcessCollector(std::move(roots), KeptDescriptorBudget::SystemCapacity()) {}

ProcessCollector::ProcessCollector(ProviderRoots roots, std::size_t keptDescriptorCapacity)
    : impl_(std::make_unique<Impl>(std::move(roots), keptDescriptorCapacity)) {}

ProcessCollector::~ProcessCollector() = default;
ProcessCollector::ProcessCollector(ProcessCollector&&) noexcept = default;
ProcessCollector& ProcessCollector::operator=(ProcessCollector&&) noexcept = default;

ProcessTableResult ProcessCollector::Refresh(const CollectContext& ctx, std::uint32_t logicalProcessorCount,
                                             std::vector<core::ProcessSnapshot>& rows) {
    return impl_->Refresh(ctx, logicalProcessorCount, rows);
}

void ProcessCollector::ResetBaselines() { impl_->ForgetBaselines(); }

std::size_t ProcessCollector::TrackedProcessCount() const noexcept { return impl_->tracked.size(); }
std::size_t ProcessCollector::KeptDescriptorCount() const noexcept { return impl_->budget.InUse(); }

ProcessTableResult ProcessCollector::Impl::Refresh(const CollectContext& ctx, std::uint32_t processors,
                                                   std::vector<core::ProcessSnapshot>& rows) {
    const std::uint64_t startedNs = SteadyNowNs();
    rows.clear();
    ProcessTableResult result;
    const auto finish = [&](bool ok, int error, const char* message) {
        if (!ok) rows.clear();
        result.ok = ok;
        result.error = error;
        result.message = message;
        result.durationNs = SteadyNowNs() - startedNs;
        return result;
    };
    if (ctx.resetBaselines) ForgetBaselines();
    nowNs = ctx.monotonicNs != 0 ? ctx.monotonicNs : startedNs;

    int rootFd;
    do {
        rootFd = ::open(roots.proc.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } while (rootFd < 0 && errno == EINTR);
    if (rootFd < 0) return finish(false, errno, kProcessEnumerationFailed);
    struct RootGuard {
        int fd;
        ~RootGuard() { ::close(fd); }
    } rootGuard{rootFd};
    struct statfs fileSystem{};
    pinnedRoot = ::fstatfs(rootFd, &fileSystem) == 0 && fileSystem.f_type == PROC_SUPER_MAGIC;

    const PidEnumeration listed = EnumeratePids(rootFd, ctx.stop, kMaxProcessCount, pids, directoryBuffer);
    if (listed.message != nullptr) return finish(false, listed.error, listed.message);
    std::sort(pids.begin(), pids.end());

    // Mark and sweep: the state of every key read this tick moves to `next`; what stays behind in
    // `tracked` belongs to processes that are gone and is closed with it.
    rows.reserve(pids.size());
    next.clear();
    next.reserve(std::max(pids.size(), tracked.size()));
    std::size_t old = 0;
    std::uint32_t stoppedAt = 0;
    for (const std::uint32_t pid : pids) {
        if (ctx.stop.stop_requested()) {
            stoppedAt = pid;
            break;
        }
        while (old < tracked.size() && tracked[old].key.pid < pid) ++old;
        TrackedProcess* prior = old < tracked.size() && tracked[old].key.pid == pid ? &tracked[old++] : nullptr;
        ReadProcess(rootFd, pid, prior, ctx, processors, rows);
    }
    if (stoppedAt != 0) {
        for (; old < tracked.size(); ++old) {  // not visited: kept for the next tick
            if (tracked[old].key.pid >= stoppedAt) next.push_back(std::move(tracked[old]));
        }
    }
    tracked.swap(next);
    next.clear();
    if (stoppedAt != 0) return finish(false, ECANCELED, kProcessCollectionCancelled);
    if (rows.empty()) return finish(false, ENODATA, kNoStableProcesses);
    ResolveParents(rows);
    return finish(true, 0, kProcessTableRefreshed);
}

std::optional<ParsedProcStat> ProcessCollector::Impl::ReadStat(ProcessFiles& files, std::uint32_t pid) {
    if (files.Read(ProcFile::stat, kProcPidStatLimit, statBuffer) != 0) return std::nullopt;
    return ParseProcPidStat(statBuffer, pid);
}

CounterBaseline ProcessCollector::Impl::Baseline(bool have, std::uint64_t value, std::uint64_t sampleNs,
                                                 const CollectContext& ctx) const noexcept {
    CounterBaseline baseline{have, value, 0};
    if (ctx.monotonicNs != 0 && sampleNs != 0 && ctx.monotonicNs > sampleNs) {
        baseline.elapsedNs = ctx.monotonicNs - sampleNs;
    } else if (ctx.elapsedNs > 0) {
        baseline.elapsedNs = static_cast<std::uint64_t>(ctx.elapsedNs);
    }
    return baseline;
}

void ProcessCollector::Impl::ReadProcess(int rootFd, std::uint32_t pid, TrackedProcess* prior,
                                         const CollectContext& ctx, std::uint32_t processors,
                                         std::vector<core::ProcessSnapshot>& rows) {
    TrackedProcess entry;
    if (prior != nullptr) entry = std::move(*prior);

    // Whether the process has run at all since the figures below were read: schedstat moves on every
    // run however short. Unknown where the kernel keeps none, and then stat's coarser marks decide.
    std::optional<RunMarks> run;
    const auto readRun = [&] {
        if (entry.files.Read(ProcFile::schedstat, kProcPidSchedstatLimit, fileBuffer) == 0) run = ParseSchedstat(fileBuffer);
    };

    // A kept directory on procfs pins its process: while schedstat can be read through it, the process
    // lives, and while schedstat stands still, it has not run, so its stat says what it said (a renice
    // or a reclaim from outside shows at the next due read).
    std::optional<ParsedProcStat> stat;
    bool statKept = false;
    if (entry.files.IsOpen() && entry.files.Kept() && pinnedRoot && entry.haveStat && prior != nullptr) {
        readRun();
        if (run && entry.statRun && *run == *entry.statRun && !ReadDue(entry.statDueNs, kStatIntervalNs, nowNs)) {
            stat = entry.stat;
            statKept = true;
        }
    }
    // A kept stat descriptor fails once its process is gone; the pid may since belong to another one.
    if (!statKept && entry.files.IsOpen()) {
        stat = ReadStat(entry.files, pid);
        if (!stat) entry.files.Close();
    }
    if (!entry.files.IsOpen()) {
        run.reset();
        if (entry.files.Open(rootFd, pid, budget.Capacity() > 0 ? &budget : nullptr) != 0) return;
        stat = ReadStat(entry.files, pid);
        if (!stat) return;
    }
    const core::ProcessKey key{pid, stat->starttime};
    if (prior == nullptr || entry.key != key) {
        ProcessFiles files = std::move(entry.files);
        entry = TrackedProcess{};
        entry.files = std::move(files);
        entry.key = key;
        run.reset();
    }
    if (!run && !statKept) readRun();

    const std::uint64_t generation = ctx.generation;
    core::ProcessSnapshot& row = rows.emplace_back(prototype);
    const std::uint64_t totalNs = FillFromStat(row, *stat, hz, generation);
    FillCpuPercent(row, totalNs, Baseline(entry.haveCpu, entry.cpuTimeNs, entry.sampleNs, ctx), processors,
                   generation);
    if (statKept) {
        // Nice and the resident pages can change from outside without the process running.
        const std::uint64_t age = nowNs >= entry.statReadNs ? nowNs - entry.statReadNs : 0;
        row.nice.sampleAgeNs = age;
        row.virtualBytes.sampleAgeNs = age;
    }

    DescriptorCountState descriptors = entry.descriptors;
    RefreshSlowFigures(entry, *stat, run, ctx, row, descriptors);

    // status only when stat shows that its figures may have moved, or its kept copy is old.
    const StatusMarks marks = MarksOf(*stat);
    const bool readStatus = !entry.haveStatus || entry.statusMarks != marks ||
                            ReadDue(entry.statusDueNs, kStatusIntervalNs, nowNs);

    // io: the process may refuse it; that touches these metrics only. A process that has not run
    // since the last tick has made no system call, so its counters stand where they were read,
    // and its rates are nought; they are read again at least every few seconds all the same.
    const bool ranSinceIo = !run || !entry.ioRun || *run != *entry.ioRun;
    const bool readIo = !entry.haveIo || readStatus || ranSinceIo || ReadDue(entry.ioDueNs, kIoIntervalNs, nowNs);
    int error = 0;
    ProcIoParse io;
    bool haveIo = false;
    if (readIo) {
        error = entry.files.Read(ProcFile::io, kProcPidIoLimit, fileBuffer);
        if (error == 0) {
            io = ParseProcPidIo(fileBuffer);
            error = io.error;
        }
        FillIo(row, io, error, Baseline(entry.haveIo, entry.readBytes, entry.ioSampleNs, ctx),
               Baseline(entry.haveIo, entry.writeBytes, entry.ioSampleNs, ctx), generation);
        haveIo = error == 0 && io.io.readBytes && io.io.writeBytes;
    } else {
        io.io = entry.io;
        FillIo(row, io, 0, Baseline(true, entry.readBytes, entry.ioSampleNs, ctx),
               Baseline(true, entry.writeBytes, entry.ioSampleNs, ctx), generation);
        const std::uint64_t age = nowNs >= entry.ioSampleNs ? nowNs - entry.ioSampleNs : 0;
        for (auto* counter : {&row.readOperations, &row.writeOperations, &row.readBytes, &row.writeBytes}) {
            counter->sampleAgeNs = age;
        }
    }

    // A read of status comes last.
    std::optional<ParsedProcStatus> status;
    std::optional<std::uint32_t> uid;
    if (readStatus) {
        error = entry.files.Read(ProcFile::status, kProcPidStatusLimit, fileBuffer);
        if (error == 0) {
            status = ParseProcPidStatus(fileBuffer);
            uid = FillStatus(row, *status, 0, stat->rss, pageSize, generation);
        } else {
            FillStatusError(row, error, stat->rss, pageSize, generation);
        }
    } else {
        const std::uint64_t age = nowNs >= entry.statusReadNs ? nowNs - entry.statusReadNs : 0;
        uid = FillStatus(row, entry.status, age, stat->rss, pageSize, generation);
    }
    if (uid) row.userName = userNames.Name(*uid, ctx.stop);

    // The row stands only if the process is still the one whose stat began it. Reads relative to a
    // procfs pid directory cannot reach another process, so there a successful last read (status,
    // io, or for a quiet process stat itself) settles it; on any other root, or after a failed last
    // read, stat is read again and its start time compared.
    if (!pinnedRoot || error != 0) {
        const std::optional<ParsedProcStat> second = ReadStat(entry.files, pid);
        if (!second || second->starttime != key.startTime) {
            rows.pop_back();
            if (second && prior != nullptr && prior->key == key) {
                entry.files.Close();  // the baselines stay as they were
                next.push_back(std::move(entry));
            }
            return;
        }
    }
    if (readStatus) {
        if (status) {
            entry.statusDueNs = NextReadNs(nowNs, kStatusIntervalNs, pid, !entry.haveStatus);
            entry.haveStatus = true;
            entry.status = *status;
            entry.statusMarks = marks;
            entry.statusReadNs = nowNs;
        } else {
            entry.haveStatus = false;
        }
    }
    if (!statKept) {
        entry.statDueNs = NextReadNs(nowNs, kStatIntervalNs, pid, !entry.haveStat);
        entry.haveStat = true;
        entry.stat = *stat;
        entry.statRun = run;
        entry.statReadNs = nowNs;
    }
    entry.haveCpu = true;
    entry.cpuTimeNs = totalNs;
    if (readIo) {
        entry.ioDueNs = NextReadNs(nowNs, kIoIntervalNs, pid, !entry.haveIo);
        entry.haveIo = haveIo;
        if (haveIo) {
            entry.readBytes = *io.io.readBytes;
            entry.writeBytes = *io.io.writeBytes;
            entry.io = io.io;
        }
        entry.ioRun = run;
        entry.ioSampleNs = ctx.monotonicNs;
    }
    entry.sampleNs = ctx.monotonicNs;
    entry.descriptors = descriptors;
    if (!entry.files.Kept()) entry.files.Close();
    next.push_back(std::move(entry));
}

// At first sight, at once after an exec (comm changes) and then every few seconds: the descriptor
// count, the executable and the application scope. Each costs a read that rarely tells anything new.
void ProcessCollector::Impl::RefreshSlowFigures(TrackedProcess& entry, const ParsedProcStat& stat,
                                                const std::optional<RunMarks>& run, const CollectContext& ctx,
                                                core::ProcessSnapshot& row, DescriptorCountState& descriptors) {
    const bool firstRead = !entry.haveExecutable;
    const StatusMarks marks = MarksOf(stat);
    bool due = ReadDue(entry.slowDueNs, kSlowFigureIntervalNs, nowNs);
    // A process that has not run since cannot have opened a file: it waits for the longer interval
    // (its cgroup may still be moved from outside, which is rare). Only schedstat can tell.
    if (due && run && entry.slowRun && *run == *entry.slowRun && marks == entry.slowMarks && nowNs >= entry.slowReadNs &&
        nowNs - entry.slowReadNs + kRefreshSlackNs < kQuietSlowFigureIntervalNs) {
        due = false;
    }
    if (!firstRead && entry.executableComm == stat.comm && !due) {
        ApplyDescriptorCount(descriptors, nullptr, nowNs, ctx.generation, row.handleCount);
    } else {
        const DirectoryCount count = CountDirectoryEntries(entry.files.Directory(), "fd", directoryBuffer);
        ApplyDescriptorCount(descriptors, &count, nowNs, ctx.generation, row.handleCount);
        entry.files.RetryRefusedOpens();

        char target[PATH_MAX];
        const ssize_t length = ::readlinkat(entry.files.Directory(), "exe", target, sizeof target);
        entry.executable.assign(target, length > 0 ? static_cast<std::size_t>(length) : 0);  // none: kernel thread
        entry.haveExecutable = true;
        entry.executableComm = stat.comm;
        entry.slowDueNs = NextReadNs(nowNs, kSlowFigureIntervalNs, stat.pid, firstRead);
        entry.slowReadNs = nowNs;
        entry.slowMarks = marks;
        entry.slowRun = run;

        entry.applicationScope.clear();
        if (entry.files.Read(ProcFile::cgroup, kProcPidCgroupLimit, fileBuffer) == 0) {
            const CgroupScope scope = ScopeFromCgroupPath(UnifiedCgroupPath(fileBuffer));
            if (scope.group == core::ProcessGroup::apps) entry.applicationScope.assign(scope.scope);
        }
    }
    row.executablePath = entry.executable;
    row.name = DisplayName(stat.comm, entry.executable);
    if (!entry.applicationScope.empty()) {
        row.group = core::ProcessGroup::apps;
        row.applicationKey.reserve(kApplicationScopePrefix.size() + entry.applicationScope.size());
        row.applicationKey.append(kApplicationScopePrefix).append(entry.applicationScope);
    }
}

void ProcessCollector::Impl::ResolveParents(std::vector<core::ProcessSnapshot>& rows) {
    const auto byPid = [](const core::ProcessSnapshot& row, std::uint32_t pid) { return row.key.pid < pid; };
    for (core::ProcessSnapshot& row : rows) {
        const std::uint32_t ppid = row.parentKey.pid;
        row.parentKey = {};
        if (ppid == 0) continue;
        const auto parent = std::lower_bound(rows.begin(), rows.end(), ppid, byPid);
        // A parent that started after its child is a reused pid, not the parent.
        if (parent != rows.end() && parent->key.pid == ppid && parent->key.startTime <= row.key.startTime) {
            row.parentKey = parent->key;
        }
    }
}

}  // namespace korv::providers
