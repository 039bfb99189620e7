#include "providers/process_collector.h"

#include "providers/bounded_read.h"
#include "providers/proc_pid_stat.h"
#include "providers/process_cgroup.h"
#include "providers/process_descriptors.h"
#include "providers/process_directory.h"
#include "providers/process_figures.h"
#include "providers/process_files.h"
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

// The command line as the table shows it: one line, cut at one read block.
constexpr std::size_t kCommandLineLimit = 16384;

// What a process carries from one tick to the next.
struct TrackedProcess {
    core::ProcessKey key;
    ProcessFiles files;
    bool haveCpu = false;
    bool haveIo = false;
    std::uint64_t cpuTimeNs = 0;
    std::uint64_t readBytes = 0;
    std::uint64_t writeBytes = 0;
    std::uint64_t sampleNs = 0;  // the context's monotonic time of these baselines
    DescriptorCountState descriptors;
    // Read at first sight and again after an exec, which changes comm.
    bool haveExecutable = false;
    std::string executable;
    std::string commandLine;
    std::string executableComm;
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
    void ReadIdentity(TrackedProcess& entry, const ParsedProcStat& stat);
    void FillScope(TrackedProcess& entry, core::ProcessSnapshot& row);
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
    std::uint64_t nowNs = 0;  // this tick's clock for the age of a reused descriptor count
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

    // A kept stat descriptor fails once its process is gone; the pid may since belong to another one.
    std::optional<ParsedProcStat> stat;
    if (entry.files.IsOpen()) {
        stat = ReadStat(entry.files, pid);
        if (!stat) entry.files.Close();
    }
    if (!entry.files.IsOpen()) {
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
    }

    const std::uint64_t generation = ctx.generation;
    core::ProcessSnapshot& row = rows.emplace_back(prototype);
    const std::uint64_t totalNs = FillFromStat(row, *stat, hz, generation);
    FillCpuPercent(row, totalNs, Baseline(entry.haveCpu, entry.cpuTimeNs, entry.sampleNs, ctx), processors,
                   generation);

    const bool exec = entry.haveExecutable && entry.executableComm != stat->comm;
    if (!entry.haveExecutable || exec ||
        (entry.commandLine.empty() && !entry.executable.empty())) {  // caught in the middle of an exec
        ReadIdentity(entry, *stat);
    }
    row.executablePath = entry.executable;
    row.commandLine = entry.commandLine;
    row.name = DisplayName(stat->comm, entry.executable);

    DescriptorCountState descriptors = entry.descriptors;
    if (exec || DescriptorCountDue(descriptors, nowNs)) {
        const DirectoryCount count = CountDirectoryEntries(entry.files.Directory(), "fd", directoryBuffer);
        ApplyDescriptorCount(descriptors, &count, nowNs, generation, row.handleCount);
        entry.files.RetryRefusedOpens();  // rights may have changed since an open was refused
    } else {
        ApplyDescriptorCount(descriptors, nullptr, nowNs, generation, row.handleCount);
    }
    FillScope(entry, row);

    // io: the process may refuse it; that touches these metrics only.
    ProcIoParse io;
    int error = entry.files.Read(ProcFile::io, kProcPidIoLimit, fileBuffer);
    if (error == 0) {
        io = ParseProcPidIo(fileBuffer);
        error = io.error;
    }
    FillIo(row, io, error, Baseline(entry.haveIo, entry.readBytes, entry.sampleNs, ctx),
           Baseline(entry.haveIo, entry.writeBytes, entry.sampleNs, ctx), generation);
    const bool haveIo = error == 0 && io.io.readBytes && io.io.writeBytes;

    std::optional<std::uint32_t> uid;
    error = entry.files.Read(ProcFile::status, kProcPidStatusLimit, fileBuffer);
    if (error == 0) {
        uid = FillStatus(row, ParseProcPidStatus(fileBuffer), stat->rss, pageSize, generation);
    } else {
        FillStatusError(row, error, stat->rss, pageSize, generation);
    }
    if (uid) row.userName = userNames.Name(*uid, ctx.stop);

    // The row stands only if the process is still the one whose stat began it. Reads relative to a
    // procfs pid directory cannot reach another process, so there a successful last read settles it;
    // on any other root, or after a failed last read, stat is read again and its start time compared.
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
    entry.haveCpu = true;
    entry.cpuTimeNs = totalNs;
    entry.haveIo = haveIo;
    if (haveIo) {
        entry.readBytes = *io.io.readBytes;
        entry.writeBytes = *io.io.writeBytes;
    }
    entry.sampleNs = ctx.monotonicNs;
    entry.descriptors = descriptors;
    if (!entry.files.Kept()) entry.files.Close();
    next.push_back(std::move(entry));
}

// The executable and the command line: at first sight, and after an exec.
void ProcessCollector::Impl::ReadIdentity(TrackedProcess& entry, const ParsedProcStat& stat) {
    char target[PATH_MAX];
    const ssize_t length = ::readlinkat(entry.files.Directory(), "exe", target, sizeof target);
    entry.executable.assign(target, length > 0 ? static_cast<std::size_t>(length) : 0);  // none: kernel thread
    entry.haveExecutable = true;
    entry.executableComm = stat.comm;
    if (ReadFileBoundedAt(entry.files.Directory(), "cmdline", kCommandLineLimit, fileBuffer) == 0) {
        JoinArguments(fileBuffer, entry.commandLine);
    } else {
        entry.commandLine.clear();
    }
}

// The application scope, from the cgroup that the process is in now.
void ProcessCollector::Impl::FillScope(TrackedProcess& entry, core::ProcessSnapshot& row) {
    if (entry.files.Read(ProcFile::cgroup, kProcPidCgroupLimit, fileBuffer) != 0) return;
    const CgroupScope scope = ScopeFromCgroupPath(UnifiedCgroupPath(fileBuffer));
    if (scope.group != core::ProcessGroup::apps) return;
    row.group = core::ProcessGroup::apps;
    row.applicationKey.reserve(kApplicationScopePrefix.size() + scope.scope.size());
    row.applicationKey.append(kApplicationScopePrefix).append(scope.scope);
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
