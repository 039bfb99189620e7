#include "providers/process_collector.h"

#include "core/saturating.h"
#include "providers/bounded_read.h"
#include "providers/proc_pid_stat.h"
#include "providers/process_cgroup.h"
#include "providers/process_descriptors.h"
#include "providers/process_directory.h"
#include "providers/process_figures.h"
#include "providers/process_files.h"
#include "providers/process_status.h"
#include "providers/process_user_names.h"

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

using core::MetricAvailability;

constexpr const char* kSourceProcess = "linux.process";
constexpr const char* kSourceProcfs = "linux.procfs";
constexpr const char* kSourceStatRss = "linux.procfs.stat-rss";
constexpr const char* kSourceDescriptors = "linux.procfs.fd";
constexpr const char* kSourceNetwork = "linux.process.network";
constexpr const char* kSourceGpu = "linux.gpu";
constexpr const char* kSourceNpu = "linux.npu";

std::uint64_t SteadyNowNs() noexcept {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
    return ns > 0 ? static_cast<std::uint64_t>(ns) : 0;
}

template <typename T>
void Prepare(core::Metric<T>& metric, const char* source, core::MetricQuality quality) {
    metric.source = source;
    metric.quality = quality;
}

template <typename T>
void Unsupported(core::Metric<T>& metric, const char* source) {
    metric.source = source;
    metric.MarkMissing(MetricAvailability::unsupported);
}

// Every row starts as a copy of this one: sources, qualities and the figures that Linux cannot give.
core::ProcessSnapshot PrototypeRow() {
    using Q = core::MetricQuality;
    core::ProcessSnapshot row;
    row.group = core::ProcessGroup::background;
    Prepare(row.cpuPercent, kSourceProcess, Q::estimated);
    for (auto* metric : {&row.workingSetBytes, &row.peakWorkingSetBytes, &row.privateBytes, &row.sharedBytes,
                         &row.swapBytes, &row.virtualBytes, &row.threadCount, &row.kernelTimeNs, &row.userTimeNs,
                         &row.totalCpuTimeNs, &row.pageFaults, &row.readOperations, &row.writeOperations,
                         &row.readBytes, &row.writeBytes}) {
        Prepare(*metric, kSourceProcfs, Q::authoritative);
    }
    Prepare(row.nice, kSourceProcfs, Q::authoritative);
    Prepare(row.handleCount, kSourceDescriptors, Q::authoritative);
    Prepare(row.readBytesPerSecond, kSourceProcess, Q::estimated);
    Prepare(row.writeBytesPerSecond, kSourceProcess, Q::estimated);
    Unsupported(row.networkReceiveBytes, kSourceNetwork);
    Unsupported(row.networkSendBytes, kSourceNetwork);
    Unsupported(row.networkReceiveBytesPerSecond, kSourceNetwork);
    Unsupported(row.networkSendBytesPerSecond, kSourceNetwork);
    Unsupported(row.gpuPercent, kSourceGpu);
    Unsupported(row.gpuDedicatedBytes, kSourceGpu);
    Unsupported(row.gpuSharedBytes, kSourceGpu);
    Unsupported(row.npuPercent, kSourceNpu);
    return row;
}

void SetOptional(core::Metric<std::uint64_t>& metric, const std::optional<std::uint64_t>& value,
                 std::uint64_t generation) {
    if (value) {
        metric.Set(*value, generation);
    } else {
        metric.MarkMissing(MetricAvailability::notApplicable);
    }
}

// What a process carries from one tick to the next.
struct TrackedProcess {
    core::ProcessKey key;
    ProcessFiles files;
    bool haveCpu = false;
    std::uint64_t cpuTimeNs = 0;
    std::uint64_t cpuSampleNs = 0;
    bool haveIo = false;
    std::uint64_t readBytes = 0;
    std::uint64_t writeBytes = 0;
    std::uint64_t ioSampleNs = 0;
    DescriptorCountState descriptors;
    bool haveExecutable = false;
    std::string executable;
    std::string executableComm;  // comm when the executable was read: a change means an exec
    std::string applicationScope;  // the ".scope" unit under app.slice, or empty for background
};

}  // namespace

struct ProcessCollector::Impl {
    Impl(ProviderRoots providerRoots, std::size_t keptCapacity)
        : roots(std::move(providerRoots)), budget(keptCapacity), prototype(PrototypeRow()) {
        const long ticks = ::sysconf(_SC_CLK_TCK);
        hz = ticks > 0 ? static_cast<std::uint64_t>(ticks) : 0;
        const long page = ::sysconf(_SC_PAGESIZE);
        pageSize = page > 0 ? static_cast<std::uint64_t>(page) : 4096;
    }

    ProcessTableResult Refresh(const CollectContext& ctx, std::uint32_t processors,
                               std::vector<core::ProcessSnapshot>& rows);
    void ReadProcess(int rootFd, std::uint32_t pid, TrackedProcess* prior, const CollectContext& ctx,
                     std::uint32_t processors, std::vector<core::ProcessSnapshot>& rows);
    std::optional<ParsedProcStat> ReadStat(ProcessFiles& files, std::uint32_t pid, int& error);
    std::uint64_t ElapsedSince(std::uint64_t baselineNs, const CollectContext& ctx) const noexcept;
    void ReadExecutable(TrackedProcess& entry);
    void ReadApplicationScope(TrackedProcess& entry);
    void FillIo(core::ProcessSnapshot& row, const TrackedProcess& entry, const ProcIoParse& io, int error,
                const CollectContext& ctx);
    void FillStatus(core::ProcessSnapshot& row, const ParsedProcStat& stat, int error, const CollectContext& ctx);
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
    std::uint64_t nowNs = 0;  // this tick's clock for the descriptor-count ages
    bool pinnedRoot = false;  // the root is a procfs mount: pid directory descriptors pin their process

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
    if (listed.message != nullptr) {
        pids.clear();
        return finish(false, listed.error, listed.message);
    }
    std::sort(pids.begin(), pids.end());

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
        // Entries of pids that are no longer listed stay behind and are closed with the old list.
        while (old < tracked.size() && tracked[old].key.pid < pid) ++old;
        TrackedProcess* prior = old < tracked.size() && tracked[old].key.pid == pid ? &tracked[old++] : nullptr;
        ReadProcess(rootFd, pid, prior, ctx, processors, rows);
    }
    if (stoppedAt != 0) {
        // What was not visited keeps its state for the next tick.
        for (; old < tracked.size(); ++old) {
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

std::optional<ParsedProcStat> ProcessCollector::Impl::ReadStat(ProcessFiles& files, std::uint32_t pid, int& error) {
    error = files.Read(ProcFile::stat, kProcPidStatLimit, statBuffer);
    if (error != 0) return std::nullopt;
    std::optional<ParsedProcStat> stat = ParseProcPidStat(statBuffer, pid);
    if (!stat) error = EINVAL;
    return stat;
}

std::uint64_t ProcessCollector::Impl::ElapsedSince(std::uint64_t baselineNs, const CollectContext& ctx) const noexcept {
    if (ctx.monotonicNs != 0 && baselineNs != 0 && ctx.monotonicNs > baselineNs) return ctx.monotonicNs - baselineNs;
    return ctx.elapsedNs > 0 ? static_cast<std::uint64_t>(ctx.elapsedNs) : 0;
}

void ProcessCollector::Impl::ReadExecutable(TrackedProcess& entry) {
    char target[PATH_MAX];
    const ssize_t length = ::readlinkat(entry.files.Directory(), "exe", target, sizeof target);
    if (length > 0) {
        entry.executable.assign(target, static_cast<std::size_t>(length));
    } else {
        entry.executable.clear();
    }
    entry.haveExecutable = true;
}

void ProcessCollector::Impl::ReadProcess(int rootFd, std::uint32_t pid, TrackedProcess* prior,
                                         const CollectContext& ctx, std::uint32_t processors,
                                         std::vector<core::ProcessSnapshot>& rows) {
    TrackedProcess entry;
    if (prior != nullptr) entry = std::move(*prior);

    // A kept stat descriptor fails once its process is gone; the pid may since belong to another one.
    int error = 0;
    std::optional<ParsedProcStat> stat;
    if (entry.files.IsOpen()) {
        stat = ReadStat(entry.files, pid, error);
        if (!stat) entry.files.Close();
    }
    if (!entry.files.IsOpen()) {
        if (entry.files.Open(rootFd, pid, budget.Capacity() > 0 ? &budget : nullptr) != 0) return;
        stat = ReadStat(entry.files, pid, error);
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
    row.key = key;
    row.parentKey = {stat->ppid, 0};  // resolved once every row is known
    row.state = StateFromLetter(stat->state);
    row.nice.Set(static_cast<double>(stat->nice), generation);
    row.threadCount.Set(stat->numThreads, generation);
    row.virtualBytes.Set(stat->vsize, generation);
    const std::uint64_t userNs = TicksToNanoseconds(stat->utime, hz);
    const std::uint64_t kernelNs = TicksToNanoseconds(stat->stime, hz);
    const std::uint64_t totalNs = core::SaturatingAdd(userNs, kernelNs);
    row.userTimeNs.Set(userNs, generation);
    row.kernelTimeNs.Set(kernelNs, generation);
    row.totalCpuTimeNs.Set(totalNs, generation);
    row.pageFaults.Set(core::SaturatingAdd(stat->minflt, stat->majflt), generation);
    const std::uint64_t cpuElapsed = entry.haveCpu ? ElapsedSince(entry.cpuSampleNs, ctx) : 0;
    if (cpuElapsed != 0 && processors != 0) {
        const std::uint64_t delta = totalNs >= entry.cpuTimeNs ? totalNs - entry.cpuTimeNs : 0;
        row.cpuPercent.Set(CpuPercent(delta, cpuElapsed, processors), generation);
    } else {
        row.cpuPercent.MarkMissing(MetricAvailability::notYetAvailable);
    }

    // io: the process may refuse it; that touches these metrics only.
    error = entry.files.Read(ProcFile::io, kProcPidIoLimit, fileBuffer);
    ProcIoParse io;
    if (error == 0) {
        io = ParseProcPidIo(fileBuffer);
        error = io.error;
    }
    const bool haveIo = error == 0 && io.io.readBytes && io.io.writeBytes;
    FillIo(row, entry, io, error, ctx);

    // Once a second per key, and at once after an exec (comm changes): the descriptor count, the
    // executable and the application scope. Each costs a read that rarely tells anything new.
    DescriptorCountState descriptors = entry.descriptors;
    const bool due = DescriptorCountDue(descriptors, nowNs);
    if (due) {
        const DirectoryCount count = CountDirectoryEntries(entry.files.Directory(), "fd", directoryBuffer);
        ApplyDescriptorCount(descriptors, &count, nowNs, generation, row.handleCount);
        entry.files.RetryRefusedOpens();
    } else {
        ApplyDescriptorCount(descriptors, nullptr, nowNs, generation, row.handleCount);
    }
    if (due || !entry.haveExecutable || entry.executableComm != stat->comm) {
        ReadExecutable(entry);
        ReadApplicationScope(entry);
        entry.executableComm = stat->comm;
    }
    row.executablePath = entry.executable;
    row.name = DisplayName(stat->comm, entry.executable);
    if (!entry.applicationScope.empty()) {
        row.group = core::ProcessGroup::apps;
        row.applicationKey.reserve(kApplicationScopePrefix.size() + entry.applicationScope.size());
        row.applicationKey.append(kApplicationScopePrefix).append(entry.applicationScope);
    }

    // status comes last: on procfs its success through the pinned directory shows that the process
    // lived through every read of its row.
    error = entry.files.Read(ProcFile::status, kProcPidStatusLimit, fileBuffer);
    FillStatus(row, *stat, error, ctx);

    // The row stands only if the process is still the one whose stat began it. Reads relative to a
    // procfs pid directory cannot reach another process, so there a successful last read settles it;
    // on any other root stat is read again and its start time compared.
    if (!pinnedRoot || error != 0) {
        int secondError = 0;
        const std::optional<ParsedProcStat> second = ReadStat(entry.files, pid, secondError);
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
    entry.cpuSampleNs = ctx.monotonicNs;
    entry.haveIo = haveIo;
    if (haveIo) {
        entry.readBytes = *io.io.readBytes;
        entry.writeBytes = *io.io.writeBytes;
        entry.ioSampleNs = ctx.monotonicNs;
    }
    entry.descriptors = descriptors;
    if (!entry.files.Kept()) entry.files.Close();
    next.push_back(std::move(entry));
}

void ProcessCollector::Impl::FillIo(core::ProcessSnapshot& row, const TrackedProcess& entry, const ProcIoParse& io,
                                    int error, const CollectContext& ctx) {
    const std::uint64_t generation = ctx.generation;
    if (error != 0) {
        const MetricAvailability missing =
            error == kEmptyIoError ? MetricAvailability::transientError : AvailabilityFromErrno(error);
        for (auto* metric : {&row.readOperations, &row.writeOperations, &row.readBytes, &row.writeBytes}) {
            metric->MarkMissing(missing);
        }
        row.readBytesPerSecond.MarkMissing(missing);
        row.writeBytesPerSecond.MarkMissing(missing);
        return;
    }
    SetOptional(row.readOperations, io.io.syscr, generation);
    SetOptional(row.writeOperations, io.io.syscw, generation);
    SetOptional(row.readBytes, io.io.readBytes, generation);
    SetOptional(row.writeBytes, io.io.writeBytes, generation);
    const bool complete = io.io.readBytes && io.io.writeBytes;
    const std::uint64_t elapsed = entry.haveIo && complete ? ElapsedSince(entry.ioSampleNs, ctx) : 0;
    if (elapsed == 0) {
        row.readBytesPerSecond.MarkMissing(MetricAvailability::notYetAvailable);
        row.writeBytesPerSecond.MarkMissing(MetricAvailability::notYetAvailable);
        return;
    }
    const double seconds = static_cast<double>(elapsed) / 1e9;
    const auto rate = [&](std::uint64_t now, std::uint64_t before) {
        return now >= before ? static_cast<double>(now - before) / seconds : 0.0;
    };
    row.readBytesPerSecond.Set(rate(*io.io.readBytes, entry.readBytes), generation);
    row.writeBytesPerSecond.Set(rate(*io.io.writeBytes, entry.writeBytes), generation);
}

void ProcessCollector::Impl::FillStatus(core::ProcessSnapshot& row, const ParsedProcStat& stat, int error,
                                        const CollectContext& ctx) {
    const std::uint64_t generation = ctx.generation;
    std::optional<std::uint64_t> rssKib;
    if (error == 0) {
        const ParsedProcStatus status = ParseProcPidStatus(fileBuffer);
        rssKib = status.vmRssKib;
        constexpr MetricAvailability kAbsent = MetricAvailability::notApplicable;  // a kernel thread
        SetKibMetric(row.peakWorkingSetBytes, status.vmHwmKib, generation, kAbsent);
        SetKibMetric(row.privateBytes, status.rssAnonKib, generation, kAbsent);
        SetKibSumMetric(row.sharedBytes, status.rssFileKib, status.rssShmemKib, generation, kAbsent);
        SetKibMetric(row.swapBytes, status.vmSwapKib, generation, kAbsent);
        if (status.uid && *status.uid <= UINT32_MAX) {
            row.userName = userNames.Name(static_cast<std::uint32_t>(*status.uid), ctx.stop);
        }
    } else {
        const MetricAvailability missing = AvailabilityFromErrno(error);
        for (auto* metric : {&row.peakWorkingSetBytes, &row.privateBytes, &row.sharedBytes, &row.swapBytes}) {
            metric->MarkMissing(missing);
        }
    }
    if (rssKib) {
        SetKibMetric(row.workingSetBytes, rssKib, generation, MetricAvailability::notApplicable);
        return;
    }
    const std::uint64_t pages = stat.rss > 0 ? static_cast<std::uint64_t>(stat.rss) : 0;
    row.workingSetBytes.Set(core::SaturatingMultiply(pages, pageSize), generation);
    row.workingSetBytes.source = kSourceStatRss;
    row.workingSetBytes.quality = core::MetricQuality::fallback;
}

void ProcessCollector::Impl::ReadApplicationScope(TrackedProcess& entry) {
    entry.applicationScope.clear();
    if (entry.files.Read(ProcFile::cgroup, kProcPidCgroupLimit, fileBuffer) != 0) return;
    const CgroupScope scope = ScopeFromCgroupPath(UnifiedCgroupPath(fileBuffer));
    if (scope.group == core::ProcessGroup::apps) entry.applicationScope.assign(scope.scope);
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
