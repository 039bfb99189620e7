#include "providers/process_row.h"

#include "core/saturating.h"
#include "providers/bounded_read.h"
#include "providers/process_figures.h"

namespace korv::providers {
namespace {

using core::MetricAvailability;
using core::MetricQuality;

constexpr const char* kSourceProcess = "linux.process";
constexpr const char* kSourceProcfs = "linux.procfs";
constexpr const char* kSourceStatRss = "linux.procfs.stat-rss";
constexpr const char* kSourceDescriptors = "linux.procfs.fd";
constexpr const char* kSourceNetwork = "linux.process.network";
constexpr const char* kSourceGpu = "linux.gpu";
constexpr const char* kSourceNpu = "linux.npu";

template <typename T>
void Prepare(core::Metric<T>& metric, const char* source, MetricQuality quality) {
    metric.source = source;
    metric.quality = quality;
}

template <typename T>
void Unsupported(core::Metric<T>& metric, const char* source) {
    metric.source = source;
    metric.MarkMissing(MetricAvailability::unsupported);
}

void SetOptional(core::Metric<std::uint64_t>& metric, const std::optional<std::uint64_t>& value,
                 std::uint64_t generation) {
    if (value) {
        metric.Set(*value, generation);
    } else {
        metric.MarkMissing(MetricAvailability::notApplicable);
    }
}

void SetRate(core::Metric<double>& metric, const std::optional<std::uint64_t>& now, const CounterBaseline& previous,
             std::uint64_t generation) {
    if (!now || !previous.have || previous.elapsedNs == 0) {
        metric.MarkMissing(MetricAvailability::notYetAvailable);
        return;
    }
    const std::uint64_t delta = *now >= previous.value ? *now - previous.value : 0;
    metric.Set(static_cast<double>(delta) * 1e9 / static_cast<double>(previous.elapsedNs), generation);
}

// The working set from stat's resident pages, for a process whose status gives none.
void SetStatRss(core::ProcessSnapshot& row, std::int64_t statRssPages, std::uint64_t pageSize,
                std::uint64_t generation) {
    const std::uint64_t pages = statRssPages > 0 ? static_cast<std::uint64_t>(statRssPages) : 0;
    row.workingSetBytes.Set(core::SaturatingMultiply(pages, pageSize), generation);
    row.workingSetBytes.source = kSourceStatRss;
    row.workingSetBytes.quality = MetricQuality::fallback;
}

}  // namespace

core::ProcessSnapshot PrototypeProcessRow() {
    core::ProcessSnapshot row;
    row.group = core::ProcessGroup::background;
    Prepare(row.cpuPercent, kSourceProcess, MetricQuality::estimated);
    for (auto* metric : {&row.workingSetBytes, &row.peakWorkingSetBytes, &row.privateBytes, &row.sharedBytes,
                         &row.swapBytes, &row.virtualBytes, &row.threadCount, &row.kernelTimeNs, &row.userTimeNs,
                         &row.totalCpuTimeNs, &row.pageFaults, &row.readOperations, &row.writeOperations,
                         &row.readBytes, &row.writeBytes}) {
        Prepare(*metric, kSourceProcfs, MetricQuality::authoritative);
    }
    Prepare(row.nice, kSourceProcfs, MetricQuality::authoritative);
    Prepare(row.handleCount, kSourceDescriptors, MetricQuality::authoritative);
    Prepare(row.readBytesPerSecond, kSourceProcess, MetricQuality::estimated);
    Prepare(row.writeBytesPerSecond, kSourceProcess, MetricQuality::estimated);
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

std::uint64_t FillFromStat(core::ProcessSnapshot& row, const ParsedProcStat& stat, std::uint64_t hz,
                           std::uint64_t generation) {
    row.key = {stat.pid, stat.starttime};
    row.parentKey = {stat.ppid, 0};
    row.state = StateFromLetter(stat.state);
    row.nice.Set(static_cast<double>(stat.nice), generation);
    row.threadCount.Set(stat.numThreads, generation);
    row.virtualBytes.Set(stat.vsize, generation);
    const std::uint64_t userNs = TicksToNanoseconds(stat.utime, hz);
    const std::uint64_t kernelNs = TicksToNanoseconds(stat.stime, hz);
    const std::uint64_t totalNs = core::SaturatingAdd(userNs, kernelNs);
    row.userTimeNs.Set(userNs, generation);
    row.kernelTimeNs.Set(kernelNs, generation);
    row.totalCpuTimeNs.Set(totalNs, generation);
    row.pageFaults.Set(core::SaturatingAdd(stat.minflt, stat.majflt), generation);
    return totalNs;
}

void FillCpuPercent(core::ProcessSnapshot& row, std::uint64_t totalNs, const CounterBaseline& previous,
                    std::uint32_t processorCount, std::uint64_t generation) {
    if (!previous.have || previous.elapsedNs == 0 || processorCount == 0) {
        row.cpuPercent.MarkMissing(MetricAvailability::notYetAvailable);
        return;
    }
    const std::uint64_t delta = totalNs >= previous.value ? totalNs - previous.value : 0;
    row.cpuPercent.Set(CpuPercent(delta, previous.elapsedNs, processorCount), generation);
}

void FillIo(core::ProcessSnapshot& row, const ProcIoParse& io, int error, const CounterBaseline& previousRead,
            const CounterBaseline& previousWrite, std::uint64_t generation) {
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
    SetRate(row.readBytesPerSecond, io.io.readBytes, previousRead, generation);
    SetRate(row.writeBytesPerSecond, io.io.writeBytes, previousWrite, generation);
}

std::optional<std::uint32_t> FillStatus(core::ProcessSnapshot& row, const ParsedProcStatus& status,
                                        std::int64_t statRssPages, std::uint64_t pageSize,
                                        std::uint64_t generation) {
    constexpr MetricAvailability kAbsent = MetricAvailability::notApplicable;  // a kernel thread
    SetKibMetric(row.peakWorkingSetBytes, status.vmHwmKib, generation, kAbsent);
    SetKibMetric(row.privateBytes, status.rssAnonKib, generation, kAbsent);
    SetKibSumMetric(row.sharedBytes, status.rssFileKib, status.rssShmemKib, generation, kAbsent);
    SetKibMetric(row.swapBytes, status.vmSwapKib, generation, kAbsent);
    if (status.vmRssKib) {
        SetKibMetric(row.workingSetBytes, status.vmRssKib, generation, kAbsent);
    } else {
        SetStatRss(row, statRssPages, pageSize, generation);
    }
    if (status.uid && *status.uid <= UINT32_MAX) return static_cast<std::uint32_t>(*status.uid);
    return std::nullopt;
}

void FillStatusError(core::ProcessSnapshot& row, int error, std::int64_t statRssPages, std::uint64_t pageSize,
                     std::uint64_t generation) {
    const MetricAvailability missing = AvailabilityFromErrno(error);
    for (auto* metric : {&row.peakWorkingSetBytes, &row.privateBytes, &row.sharedBytes, &row.swapBytes}) {
        metric->MarkMissing(missing);
    }
    SetStatRss(row, statRssPages, pageSize, generation);
}

}  // namespace korv::providers
