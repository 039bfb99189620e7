#include "providers/cpu_collector.h"

#include "core/saturating.h"
#include "providers/bounded_read.h"
#include "providers/steady_clock.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <system_error>
#include <utility>

namespace korv::providers {
namespace {

constexpr const char* kProcStatSource = "linux.cpu";
constexpr const char* kMetadataSource = "linux.cpu.metadata";
constexpr const char* kCpufreqSource = "linux.cpu.cpufreq";
constexpr const char* kSysfsSource = "linux.cpu.sysfs";
constexpr const char* kNominalSource = "linux.cpu.procfs.nominal";

// A sysfs attribute that does not exist is a feature this machine lacks, not a failure.
core::MetricAvailability SysfsAvailability(int error) noexcept {
    return error == ENOENT || error == ENOTDIR ? core::MetricAvailability::unsupported : AvailabilityFromErrno(error);
}

std::string_view Trim(std::string_view text) noexcept {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\n')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\n')) text.remove_suffix(1);
    return text;
}

std::optional<std::uint64_t> ParseUnsigned(std::string_view text) noexcept {
    text = Trim(text);
    std::uint64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

template <typename T>
void SetMetric(core::Metric<T>& metric, T value, const char* source, std::uint64_t generation,
               core::MetricQuality quality = core::MetricQuality::authoritative) {
    metric.Set(std::move(value), generation);
    metric.source = source;
    metric.quality = quality;
}

template <typename T>
void MarkMetric(core::Metric<T>& metric, core::MetricAvailability availability, const char* source) {
    metric.MarkMissing(availability);
    metric.source = source;
}

std::string ReadFailureText(const std::string& path, int error) {
    return path + " could not be read: " + std::error_code(error, std::generic_category()).message();
}

core::TelemetryDevice& EnsureDevice(core::HardwareTelemetryFrame& frame, const std::string& id,
                                    core::TelemetryDeviceKind kind, std::string displayName) {
    for (auto& device : frame.devices) {
        if (device.id == id) return device;
    }
    core::TelemetryDevice device;
    device.id = id;
    device.kind = kind;
    device.displayName = std::move(displayName);
    device.legacyPersistentId = id;
    frame.devices.push_back(std::move(device));
    return frame.devices.back();
}

void SetProperty(core::TelemetryDevice& device, std::string_view key, std::string value) {
    for (auto& [name, text] : device.properties) {
        if (name == key) {
            text = std::move(value);
            return;
        }
    }
    device.properties.emplace_back(std::string(key), std::move(value));
}

void SetPropertyFrom(core::TelemetryDevice& device, std::string_view key, const core::Metric<std::string>& metric) {
    if (metric.value) SetProperty(device, key, *metric.value);
}

core::TelemetryMetric& UpsertMetric(core::HardwareTelemetryFrame& frame, std::string id, const std::string& deviceId) {
    for (auto& metric : frame.metrics) {
        if (metric.id == id && metric.deviceId == deviceId) return metric;
    }
    core::TelemetryMetric metric;
    metric.id = std::move(id);
    metric.deviceId = deviceId;
    frame.metrics.push_back(std::move(metric));
    return frame.metrics.back();
}

void CopyValue(core::TelemetryMetric& target, const core::Metric<std::uint64_t>& source) {
    target.availability = source.availability;
    target.textValue.reset();
    if (source.value && core::CarriesValue(source.availability)) {
        target.numericValue = static_cast<double>(*source.value);
    } else {
        target.numericValue.reset();
        if (core::CarriesValue(source.availability)) target.availability = core::MetricAvailability::transientError;
    }
}

}  // namespace

CpuCollector::CpuCollector(ProviderRoots roots)
    : roots_(std::move(roots)),
      cpuDirectory_((roots_.sys / "devices/system/cpu").string()),
      statPath_((roots_.proc / "stat").string()) {}

void CpuCollector::ResetBaselines() {
    haveCurrent_ = false;
    havePrevious_ = false;
    current_.cpus.clear();
    previous_.cpus.clear();
}

CpuStageResult CpuCollector::ReadProcStat(const CollectContext& context) {
    if (context.resetBaselines) ResetBaselines();
    const std::uint64_t start = SteadyNowNs();
    CpuStageResult result;
    statOk_ = false;

    result.error = ReadFileBounded(statPath_.c_str(), kProcStatLimit, buffer_);
    if (result.error != 0) {
        result.message = ReadFailureText(statPath_, result.error);
    } else {
        ParseProcStat(buffer_, scratch_);
        result.error = scratch_.error;
        if (result.error == kProcStatMalformed) {
            result.message = statPath_ + " is malformed: a cpu line needs a cpu name and at least four counters";
        } else if (result.error == kProcStatIndexOutOfRange) {
            result.message = statPath_ + " names a logical processor above index 65535";
        }
    }
    if (result.error == 0) {
        // Rotate: the last good counters become the baseline for this tick's deltas.
        std::swap(previous_, current_);
        std::swap(current_, scratch_);
        havePrevious_ = haveCurrent_;
        haveCurrent_ = true;
        statOk_ = true;
        result.ok = true;
        result.message = "procfs aggregate and per-logical-processor counters collected";
    }
    result.durationNs = SteadyNowNs() - start;
    statDurationNs_ = result.durationNs;
    return result;
}

void CpuCollector::EnsureStaticFacts() {
    if (!topology_ || topology_->cpus.empty()) topology_ = ReadCpuTopology(cpuDirectory_);
    if (!cpuInfo_) {
        cpuInfoError_ = ReadFileBounded((roots_.proc / "cpuinfo").c_str(), kCpuInfoLimit, buffer_);
        if (cpuInfoError_ == 0) cpuInfo_ = ParseCpuInfo(buffer_);
    }
}

int CpuCollector::ReadCpuValue(std::uint32_t cpu, const char* leaf) {
    pathBuffer_.assign(cpuDirectory_);
    pathBuffer_ += "/cpu";
    char digits[16];
    const auto [end, ec] = std::to_chars(digits, digits + sizeof digits, cpu);
    pathBuffer_.append(digits, static_cast<std::size_t>(end - digits));
    pathBuffer_ += '/';
    pathBuffer_ += leaf;
    return ReadFileBounded(pathBuffer_.c_str(), kSysfsValueLimit, buffer_);
}

void CpuCollector::ReadStringValue(std::uint32_t cpu, const char* leaf, core::Metric<std::string>& metric,
                                   std::uint64_t generation) {
    const int error = ReadCpuValue(cpu, leaf);
    const std::string_view text = Trim(buffer_);
    if (error != 0) {
        MarkMetric(metric, SysfsAvailability(error), kMetadataSource);
    } else if (text.empty()) {
        MarkMetric(metric, core::MetricAvailability::unsupported, kMetadataSource);
    } else {
        SetMetric(metric, std::string(text), kMetadataSource, generation);
    }
}

void CpuCollector::FillMetadata(core::SystemSnapshot& snapshot, const CollectContext& context) {
    EnsureStaticFacts();
    const std::uint64_t generation = context.generation;
    const CpuTopology& topology = *topology_;

    if (cpuInfo_ && !cpuInfo_->modelName.empty()) {
        SetMetric(snapshot.cpuModel, cpuInfo_->modelName, kMetadataSource, generation);
    } else {
        MarkMetric(snapshot.cpuModel, cpuInfo_ ? core::MetricAvailability::unsupported : AvailabilityFromErrno(cpuInfoError_),
                   kMetadataSource);
    }
    if (cpuInfo_) {
        SetMetric(snapshot.virtualization, std::string(cpuInfo_->VirtualizationText()), kMetadataSource, generation);
        SetMetric(snapshot.virtualMachine, cpuInfo_->hypervisor, kMetadataSource, generation);
    } else {
        MarkMetric(snapshot.virtualization, AvailabilityFromErrno(cpuInfoError_), kMetadataSource);
        MarkMetric(snapshot.virtualMachine, AvailabilityFromErrno(cpuInfoError_), kMetadataSource);
    }

    const auto setCount = [&](core::Metric<std::uint64_t>& metric, const std::optional<std::uint64_t>& value) {
        if (value) SetMetric(metric, *value, kMetadataSource, generation);
        else MarkMetric(metric, core::MetricAvailability::unsupported, kMetadataSource);
    };
    setCount(snapshot.physicalCoreCount, topology.physicalCoreCount);
    setCount(snapshot.socketCount, topology.socketCount);
    setCount(snapshot.cacheL1Bytes, topology.caches.l1Bytes);
    setCount(snapshot.cacheL2Bytes, topology.caches.l2Bytes);
    setCount(snapshot.cacheL3Bytes, topology.caches.l3Bytes);

    const std::uint32_t firstCpu = topology.cpus.empty() ? 0 : topology.cpus.front().index;
    ReadStringValue(firstCpu, "cpufreq/scaling_driver", snapshot.frequencyDriver, generation);
    ReadStringValue(firstCpu, "cpufreq/scaling_governor", snapshot.frequencyGovernor, generation);
    ReadStringValue(firstCpu, "cpufreq/energy_performance_preference", snapshot.powerPreference, generation);

    const HybridClasses& classes = hybrid_.Get(roots_.sys, LogicalCpuList());
    SetMetric(snapshot.cpuHybrid, classes.hybrid, kMetadataSource, generation);

    FillFrequencies(snapshot, generation);
    ReadPolicies(generation);
}

void CpuCollector::FillFrequencies(core::SystemSnapshot& snapshot, std::uint64_t generation) {
    const CpuTopology& topology = *topology_;
    const std::uint64_t nominalHz = cpuInfo_ ? cpuInfo_->nominalHz : 0;

    frequencies_.clear();
    std::uint64_t sum = 0;
    std::uint64_t counted = 0;
    for (const auto& cpu : topology.cpus) {
        FrequencyReading reading;
        reading.index = cpu.index;
        const int error = cpu.hasCpufreq ? ReadCpuValue(cpu.index, "cpufreq/scaling_cur_freq") : ENOENT;
        const auto khz = error == 0 ? ParseUnsigned(buffer_) : std::nullopt;
        if (khz) {
            reading.hz = core::SaturatingMultiply<std::uint64_t>(*khz, 1000);
            reading.availability = core::MetricAvailability::valid;
            sum = core::SaturatingAdd(sum, reading.hz);
            ++counted;
        } else if (cpuInfo_) {
            // Without cpufreq (most virtual machines) /proc/cpuinfo's per-processor figure stands in.
            const auto& nominal = cpuInfo_->processorNominalHz;
            const auto it = std::lower_bound(nominal.begin(), nominal.end(), std::make_pair(cpu.index, std::uint64_t{0}));
            reading.nominal = true;
            reading.hz = it != nominal.end() && it->first == cpu.index ? it->second : nominalHz;
            reading.availability = reading.hz != 0 ? core::MetricAvailability::valid : SysfsAvailability(error != 0 ? error : EINVAL);
        } else {
            reading.availability = error != 0 ? SysfsAvailability(error) : core::MetricAvailability::transientError;
        }
        frequencies_.push_back(reading);
    }

    if (counted != 0) {
        SetMetric(snapshot.cpuFrequencyHz, sum / counted, kCpufreqSource, generation);
    } else if (nominalHz != 0) {
        SetMetric(snapshot.cpuFrequencyHz, nominalHz, kNominalSource, generation, core::MetricQuality::fallback);
    } else {
        MarkMetric(snapshot.cpuFrequencyHz, core::MetricAvailability::unsupported, kCpufreqSource);
    }

    // Base clock: intel_pstate's base_frequency; other drivers only give cpuinfo_max_freq, which is
    // the top of the advertised range; without cpufreq the nominal figure of /proc/cpuinfo.
    const std::uint32_t firstCpu = topology.cpus.empty() ? 0 : topology.cpus.front().index;
    std::optional<std::uint64_t> baseKhz;
    auto quality = core::MetricQuality::authoritative;
    if (ReadCpuValue(firstCpu, "cpufreq/base_frequency") == 0) baseKhz = ParseUnsigned(buffer_);
    if (!baseKhz && ReadCpuValue(firstCpu, "cpufreq/cpuinfo_max_freq") == 0) {
        baseKhz = ParseUnsigned(buffer_);
        quality = core::MetricQuality::estimated;
    }
    if (baseKhz) {
        SetMetric(snapshot.cpuBaseFrequencyHz, core::SaturatingMultiply<std::uint64_t>(*baseKhz, 1000), kCpufreqSource,
                  generation, quality);
    } else if (nominalHz != 0) {
        SetMetric(snapshot.cpuBaseFrequencyHz, nominalHz, kNominalSource, generation, core::MetricQuality::fallback);
    } else {
        MarkMetric(snapshot.cpuBaseFrequencyHz, core::MetricAvailability::unsupported, kCpufreqSource);
    }
}

void CpuCollector::ReadPolicies(std::uint64_t generation) {
    const CpuTopology& topology = *topology_;
    const std::size_t packages = std::max<std::size_t>(1, topology.packageIds.size());
    policies_.resize(packages);
    for (auto& policy : policies_) policy.logicalCount = 0;
    for (auto it = topology.cpus.rbegin(); it != topology.cpus.rend(); ++it) {
        PackagePolicy& policy = policies_[std::min<std::size_t>(it->packageOrdinal, packages - 1)];
        policy.firstCpu = it->index;  // walking backwards leaves the lowest index
        ++policy.logicalCount;
    }

    const auto readHz = [&](PackagePolicy& policy, const char* leaf, core::Metric<std::uint64_t>& metric) {
        const int error = ReadCpuValue(policy.firstCpu, leaf);
        const auto khz = error == 0 ? ParseUnsigned(buffer_) : std::nullopt;
        if (khz) SetMetric(metric, core::SaturatingMultiply<std::uint64_t>(*khz, 1000), kCpufreqSource, generation);
        else MarkMetric(metric, error != 0 ? SysfsAvailability(error) : core::MetricAvailability::transientError, kCpufreqSource);
    };
    for (auto& policy : policies_) {
        readHz(policy, "cpufreq/scaling_min_freq", policy.minimumHz);
        readHz(policy, "cpufreq/scaling_max_freq", policy.maximumHz);
        const int error = ReadCpuValue(policy.firstCpu, "power/energy_perf_bias");
        const auto bias = error == 0 ? ParseUnsigned(buffer_) : std::nullopt;
        if (bias) SetMetric(policy.energyPerfBias, *bias, kSysfsSource, generation);
        else MarkMetric(policy.energyPerfBias, error != 0 ? SysfsAvailability(error) : core::MetricAvailability::transientError, kSysfsSource);
    }
}

const std::vector<std::uint32_t>& CpuCollector::LogicalCpuList() {
    cpuList_.clear();
    if (topology_) {
        for (const auto& cpu : topology_->cpus) cpuList_.push_back(cpu.index);
    }
    if (statOk_) {
        // An online CPU that sysfs does not show (no /sys in a container) still has counters.
        const std::size_t fromSysfs = cpuList_.size();
        for (const auto& entry : current_.cpus) cpuList_.push_back(entry.index);
        std::inplace_merge(cpuList_.begin(), cpuList_.begin() + static_cast<std::ptrdiff_t>(fromSysfs), cpuList_.end());
        cpuList_.erase(std::unique(cpuList_.begin(), cpuList_.end()), cpuList_.end());
    }
    return cpuList_;
}

void CpuCollector::FillUtilization(core::SystemSnapshot& snapshot, const CollectContext& context) {
    EnsureStaticFacts();
    const std::uint64_t generation = context.generation;
    const bool haveDelta = statOk_ && havePrevious_;

    const auto apply = [&](core::Metric<double>& busy, core::Metric<double>& kernel, const ProcStatCpuCounters* before,
                           const ProcStatCpuCounters* after, core::MetricAvailability missing) {
        busy.source = kProcStatSource;
        kernel.source = kProcStatSource;
        if (!haveDelta || after == nullptr || before == nullptr) {
            busy.MarkMissing(after == nullptr && statOk_ ? missing : core::MetricAvailability::notYetAvailable);
            kernel.MarkMissing(busy.availability);
            return;
        }
        const CpuUtilizationDelta delta = ComputeCpuUtilization(*before, *after);
        if (delta.status != CpuDeltaStatus::ok) {
            busy.MarkMissing(core::MetricAvailability::notYetAvailable);
            kernel.MarkMissing(core::MetricAvailability::notYetAvailable);
            return;
        }
        busy.Set(delta.busyPercent, generation);
        kernel.Set(delta.kernelPercent, generation);
        for (auto* metric : {&busy, &kernel}) {
            metric->quality = core::MetricQuality::authoritative;
            metric->sampleDurationNs = statDurationNs_;
        }
    };

    apply(snapshot.cpuUtilization, snapshot.cpuKernelUtilization, &previous_.aggregate, &current_.aggregate,
          core::MetricAvailability::notYetAvailable);

    const HybridClasses& classes = hybrid_.Get(roots_.sys, LogicalCpuList());
    snapshot.logicalProcessors.clear();
    snapshot.logicalProcessors.reserve(cpuList_.size());
    for (const std::uint32_t index : cpuList_) {
        core::LogicalProcessorSnapshot& processor = snapshot.logicalProcessors.emplace_back();
        processor.index = index;
        processor.processorClass = classes.ClassOf(index);

        const LogicalCpuTopology* cpu = topology_->Find(index);
        if (cpu != nullptr && cpu->numaNode) SetMetric(processor.numaNode, *cpu->numaNode, kMetadataSource, generation);
        else MarkMetric(processor.numaNode, core::MetricAvailability::unsupported, kMetadataSource);

        // A CPU that sysfs lists but /proc/stat does not is offline: no counters apply to it.
        apply(processor.utilization, processor.kernelUtilization, previous_.Find(index), current_.Find(index),
              core::MetricAvailability::notApplicable);

        const auto reading = std::lower_bound(frequencies_.begin(), frequencies_.end(), index,
                                              [](const FrequencyReading& r, std::uint32_t key) { return r.index < key; });
        if (reading != frequencies_.end() && reading->index == index && core::CarriesValue(reading->availability)) {
            SetMetric(processor.frequencyHz, reading->hz, reading->nominal ? kNominalSource : kCpufreqSource, generation,
                      reading->nominal ? core::MetricQuality::fallback : core::MetricQuality::authoritative);
        } else if (reading != frequencies_.end() && reading->index == index) {
            MarkMetric(processor.frequencyHz, reading->availability, kCpufreqSource);
        } else {
            MarkMetric(processor.frequencyHz, core::MetricAvailability::notYetAvailable, kCpufreqSource);
        }
    }
    snapshot.logicalProcessorCount = static_cast<std::uint32_t>(snapshot.logicalProcessors.size());
}

void CpuCollector::AppendTelemetry(core::HardwareTelemetryFrame& frame, const core::SystemSnapshot& snapshot) const {
    using core::TelemetryDeviceKind;
    for (const auto& processor : snapshot.logicalProcessors) {
        const std::string number = std::to_string(processor.index);
        const std::string deviceId = "cpu:logical:" + number;
        auto& device = EnsureDevice(frame, deviceId, TelemetryDeviceKind::cpuLogicalProcessor, "CPU " + number);
        SetProperty(device, "description", "Linux logical processor");
        SetProperty(device, "group", "0");  // Linux has no processor groups
        SetProperty(device, "number", number);
        const LogicalCpuTopology* cpu = topology_ ? topology_->Find(processor.index) : nullptr;
        SetProperty(device, "packageOrdinal", std::to_string(cpu != nullptr ? cpu->packageOrdinal : 0));
        if (cpu != nullptr && cpu->packageId) SetProperty(device, "physicalPackageId", std::to_string(*cpu->packageId));
        if (processor.numaNode.value) SetProperty(device, "numaNode", std::to_string(*processor.numaNode.value));
        SetProperty(device, "processorClass", std::string(core::ToString(processor.processorClass)));

        auto& clock = UpsertMetric(frame, "cpu.logical." + number + ".frequency.reported_hz", deviceId);
        clock.displayName = "CPU " + number + " Clock";
        clock.sourceName = processor.frequencyHz.source == kNominalSource ? "Nominal clock from /proc/cpuinfo"
                                                                         : "cpufreq scaling_cur_freq";
        clock.category = core::MetricCategory::clocks;
        clock.unit = core::MetricUnit::hertz;
        clock.kind = core::MetricKind::gauge;
        clock.provenance = core::ProvenanceTier::nativeOs;
        CopyValue(clock, processor.frequencyHz);
    }

    const std::size_t packages = std::max<std::size_t>(1, policies_.size());
    for (std::size_t p = 0; p < packages; ++p) {
        const std::string ordinal = std::to_string(p);
        const std::string deviceId = "cpu:package:" + ordinal;
        auto& device = EnsureDevice(frame, deviceId, TelemetryDeviceKind::cpuPackage,
                                    p == 0 ? "CPU Package 0 (system totals)" : "CPU Package " + ordinal);
        SetProperty(device, "description",
                    p == 0 ? "Physical package 0; this compatibility node also carries legacy system-wide CPU totals "
                             "and policy values"
                           : "Linux physical processor package");
        const std::uint32_t logicalCount =
            p < policies_.size() ? policies_[p].logicalCount : snapshot.logicalProcessorCount;
        SetProperty(device, "logicalProcessorCount", std::to_string(logicalCount));
        SetPropertyFrom(device, "frequencyDriver", snapshot.frequencyDriver);
        SetPropertyFrom(device, "frequencyGovernor", snapshot.frequencyGovernor);
        SetPropertyFrom(device, "powerPreference", snapshot.powerPreference);
        SetPropertyFrom(device, "virtualization", snapshot.virtualization);
        if (snapshot.virtualMachine.value) SetProperty(device, "virtualMachine", *snapshot.virtualMachine.value ? "true" : "false");

        if (p >= policies_.size()) continue;
        const PackagePolicy& policy = policies_[p];
        const std::string policyName = "CPU package " + ordinal + " policy";
        const auto addPolicy = [&](const char* id, const char* name, std::string sourceName, core::MetricUnit unit,
                                   core::MetricCategory category, const core::Metric<std::uint64_t>& value) {
            auto& metric = UpsertMetric(frame, id, deviceId);
            metric.displayName = name;
            metric.sourceName = std::move(sourceName);
            metric.category = category;
            metric.unit = unit;
            metric.kind = core::MetricKind::policyValue;
            metric.provenance = core::ProvenanceTier::nativeOs;
            CopyValue(metric, value);
        };
        addPolicy("cpu.policy.minimum_frequency_hz", "Minimum requested clock", policyName, core::MetricUnit::hertz,
                  core::MetricCategory::clocks, policy.minimumHz);
        addPolicy("cpu.policy.maximum_frequency_hz", "Maximum requested clock", policyName, core::MetricUnit::hertz,
                  core::MetricCategory::clocks, policy.maximumHz);
        addPolicy("cpu.policy.energy_performance_bias", "Energy performance bias",
                  cpuDirectory_ + "/cpu" + std::to_string(policy.firstCpu) +
                      "/power/energy_perf_bias; 0 is performance, 15 is energy saving",
                  core::MetricUnit::none, core::MetricCategory::levels, policy.energyPerfBias);
    }
}

}  // namespace korv::providers
