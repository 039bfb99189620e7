#include "core/snapshot_coherence.h"

#include "core/snapshot_metrics.h"
#include "core/telemetry_frame.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace korv::core {
namespace {

constexpr std::uint64_t SaturatingAdd(std::uint64_t a, std::uint64_t b) noexcept {
    return a > std::numeric_limits<std::uint64_t>::max() - b ? std::numeric_limits<std::uint64_t>::max() : a + b;
}

template <typename T>
bool IsZeroValue(const T& value) noexcept {
    if constexpr (std::is_same_v<T, std::string>) {
        return value.empty();
    } else {
        return value == T{};
    }
}

// Sorted keys of the live processes, for lookups by binary search.
std::vector<ProcessKey> SortedLiveKeys(const std::vector<ProcessSnapshot>& processes) {
    std::vector<ProcessKey> keys;
    keys.reserve(processes.size());
    for (const auto& process : processes) keys.push_back(process.key);
    if (!std::is_sorted(keys.begin(), keys.end())) std::sort(keys.begin(), keys.end());
    return keys;
}

bool Contains(const std::vector<ProcessKey>& sortedKeys, const ProcessKey& key) noexcept {
    return std::binary_search(sortedKeys.begin(), sortedKeys.end(), key);
}

struct CheckVisitor {
    std::uint64_t generation;
    bool ok = true;

    template <typename T>
    void operator()(const Metric<T>& metric, bool isPercent) noexcept {
        if (ok && !IsMetricCoherent(metric, isPercent, generation)) ok = false;
    }
};

template <typename Record>
bool RecordsCoherent(const std::vector<Record>& records, std::uint64_t generation) noexcept {
    CheckVisitor visitor{generation};
    for (const auto& record : records) {
        ForEachMetric(record, visitor);
        if (!visitor.ok) return false;
    }
    return true;
}

template <typename Record, typename KeyOf>
bool KeysUnique(const std::vector<Record>& records, KeyOf keyOf) {
    using Key = std::decay_t<decltype(keyOf(records.front()))>;
    if (records.size() < 2) return true;
    // Providers usually deliver rows in key order: then one pass without a copy settles it.
    bool strictlyIncreasing = true;
    for (std::size_t i = 1; i < records.size() && strictlyIncreasing; ++i) {
        strictlyIncreasing = keyOf(records[i - 1]) < keyOf(records[i]);
    }
    if (strictlyIncreasing) return true;
    std::vector<Key> keys;
    keys.reserve(records.size());
    for (const auto& record : records) keys.push_back(keyOf(record));
    std::sort(keys.begin(), keys.end());
    return std::adjacent_find(keys.begin(), keys.end()) == keys.end();
}

template <typename Record, typename KeyOf>
bool SharedKeysUnique(const std::shared_ptr<const std::vector<Record>>& records, KeyOf keyOf) {
    return !records || KeysUnique(*records, keyOf);
}

template <typename Record>
bool SharedRecordsCoherent(const std::shared_ptr<const std::vector<Record>>& records, std::uint64_t generation) {
    return !records || RecordsCoherent(*records, generation);
}

const auto kSessionKey = [](const SessionSnapshot& s) { return s.identity; };
const auto kServiceKey = [](const ServiceSnapshot& s) -> std::string_view { return s.name; };
const auto kStartupKey = [](const StartupItemSnapshot& s) -> std::string_view { return s.id; };
const auto kHistoryKey = [](const AppHistorySnapshot& s) -> std::string_view { return s.appKey; };
const auto kInstalledKey = [](const InstalledAppSnapshot& s) -> std::string_view { return s.id; };

struct RepairVisitor {
    std::uint64_t generation;
    RepairCounts& counts;

    template <typename T>
    void operator()(Metric<T>& metric, bool isPercent) {
        if constexpr (std::is_same_v<T, double>) {
            if (isPercent && metric.value && std::isfinite(*metric.value) &&
                (*metric.value < 0.0 || *metric.value > 100.0)) {
                metric.value = std::clamp(*metric.value, 0.0, 100.0);
                ++counts.percentagesClamped;
            }
        }
        if (IsMetricCoherent(metric, isPercent, generation)) return;
        metric.availability = MetricAvailability::transientError;
        metric.value.reset();
        if (metric.lastGoodGeneration > generation) metric.lastGoodGeneration = 0;
        ++counts.metricsMarkedUnavailable;
    }
};

// Keeps the first row of each key, in the list's order.
template <typename Record, typename KeyOf>
std::uint64_t DropDuplicateRows(std::vector<Record>& records, KeyOf keyOf) {
    if (KeysUnique(records, keyOf)) return 0;
    std::vector<std::size_t> order(records.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return keyOf(records[a]) < keyOf(records[b]); });
    std::vector<bool> drop(records.size(), false);
    for (std::size_t i = 1; i < order.size(); ++i) {
        if (keyOf(records[order[i]]) == keyOf(records[order[i - 1]])) drop[order[i]] = true;
    }
    std::vector<Record> kept;
    kept.reserve(records.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (!drop[i]) kept.push_back(std::move(records[i]));
    }
    const std::uint64_t dropped = records.size() - kept.size();
    records = std::move(kept);
    return dropped;
}

bool PercentOutOfRange(const TelemetryMetric& metric) noexcept {
    return metric.unit == MetricUnit::percent && metric.numericValue && std::isfinite(*metric.numericValue) &&
           (*metric.numericValue < 0.0 || *metric.numericValue > 100.0);
}

bool FrameNeedsRepair(const HardwareTelemetryFrame& frame) {
    return !IsValid(frame) || std::any_of(frame.metrics.begin(), frame.metrics.end(), PercentOutOfRange);
}

// The frame gets the same treatment as the snapshot it was built from, so that one bad sensor costs
// its own reading and not the sample: the first device and metric of each id stay, percentages are
// clamped, and a metric whose value breaks the rules keeps its row without a value.
void RepairFrame(HardwareTelemetryFrame& frame, RepairCounts& counts) {
    std::unordered_set<std::string> deviceIds;
    counts.duplicateRowsDropped += std::erase_if(frame.devices, [&](const TelemetryDevice& device) {
        return device.id.empty() || !deviceIds.insert(device.id).second;
    });
    std::set<std::pair<std::string, std::string>> metricIds;
    std::erase_if(frame.metrics, [&](const TelemetryMetric& metric) {
        if (metric.id.empty() || !deviceIds.contains(metric.deviceId)) {
            ++counts.metricsMarkedUnavailable;
            return true;
        }
        if (!metricIds.emplace(metric.deviceId, metric.id).second) {
            ++counts.duplicateRowsDropped;
            return true;
        }
        return false;
    });
    for (auto& metric : frame.metrics) {
        if (PercentOutOfRange(metric)) {
            metric.numericValue = std::clamp(*metric.numericValue, 0.0, 100.0);
            ++counts.percentagesClamped;
        }
        if (IsSoundMetric(metric)) continue;
        metric.availability = MetricAvailability::transientError;
        metric.numericValue.reset();
        metric.textValue.reset();
        ++counts.metricsMarkedUnavailable;
    }
}

// Shared lists are immutable: a list is copied and replaced only when it needs a repair.
template <typename Record, typename NeedsRepair, typename Repair>
void RepairShared(std::shared_ptr<const std::vector<Record>>& list, NeedsRepair needsRepair, Repair repair) {
    if (!list || !needsRepair(*list)) return;
    auto copy = *list;
    repair(copy);
    list = std::make_shared<const std::vector<Record>>(std::move(copy));
}

}  // namespace

std::uint64_t RepairCounts::Sum() const noexcept {
    std::uint64_t sum = 0;
    for (std::uint64_t part : {percentagesClamped, metricsMarkedUnavailable, duplicateRowsDropped, parentLinksDetached,
                               sessionMembersDropped, serviceLinksDetached, exitedEntriesDropped,
                               processorCountsCorrected}) {
        sum = SaturatingAdd(sum, part);
    }
    return sum;
}

RepairCounts& RepairCounts::operator+=(const RepairCounts& other) noexcept {
    percentagesClamped = SaturatingAdd(percentagesClamped, other.percentagesClamped);
    metricsMarkedUnavailable = SaturatingAdd(metricsMarkedUnavailable, other.metricsMarkedUnavailable);
    duplicateRowsDropped = SaturatingAdd(duplicateRowsDropped, other.duplicateRowsDropped);
    parentLinksDetached = SaturatingAdd(parentLinksDetached, other.parentLinksDetached);
    sessionMembersDropped = SaturatingAdd(sessionMembersDropped, other.sessionMembersDropped);
    serviceLinksDetached = SaturatingAdd(serviceLinksDetached, other.serviceLinksDetached);
    exitedEntriesDropped = SaturatingAdd(exitedEntriesDropped, other.exitedEntriesDropped);
    processorCountsCorrected = SaturatingAdd(processorCountsCorrected, other.processorCountsCorrected);
    return *this;
}

template <typename T>
bool IsMetricCoherent(const Metric<T>& metric, bool isPercent, std::uint64_t generation) noexcept {
    if (metric.value.has_value() != CarriesValue(metric.availability)) return false;
    if (metric.lastGoodGeneration > generation) return false;
    if (!metric.value) return true;
    if (metric.availability == MetricAvailability::zero && !IsZeroValue(*metric.value)) return false;
    if constexpr (std::is_same_v<T, double>) {
        if (!std::isfinite(*metric.value)) return false;
        if (isPercent && (*metric.value < 0.0 || *metric.value > 100.0)) return false;
    }
    return true;
}

template bool IsMetricCoherent(const Metric<double>&, bool, std::uint64_t) noexcept;
template bool IsMetricCoherent(const Metric<std::uint64_t>&, bool, std::uint64_t) noexcept;
template bool IsMetricCoherent(const Metric<std::string>&, bool, std::uint64_t) noexcept;
template bool IsMetricCoherent(const Metric<bool>&, bool, std::uint64_t) noexcept;

bool IsCoherent(const SystemSnapshot& s) {
    if (s.schemaVersion != kSnapshotSchemaVersion || s.generation == 0) return false;

    if (s.telemetry) {
        if (s.telemetry->generation != s.generation || s.telemetry->monotonicNs != s.monotonicNs) return false;
        if (!IsValid(*s.telemetry)) return false;
    }

    const std::vector<ProcessKey> live = SortedLiveKeys(s.processes);
    if (std::adjacent_find(live.begin(), live.end()) != live.end()) return false;
    if (!RecordsCoherent(s.processes, s.generation)) return false;

    if (!KeysUnique(s.sessions, kSessionKey) || !SharedKeysUnique(s.services, kServiceKey) ||
        !SharedKeysUnique(s.startupItems, kStartupKey) || !SharedKeysUnique(s.appHistory, kHistoryKey) ||
        !SharedKeysUnique(s.installedApps, kInstalledKey)) {
        return false;
    }

    std::unordered_set<std::string_view> providerNames;
    for (const auto& row : s.providers) {
        if (row.provider.empty() || row.lastGoodGeneration > s.generation) return false;
        if (!providerNames.insert(row.provider).second) return false;
    }

    CheckVisitor visitor{s.generation};
    ForEachSystemMetric(s, visitor);
    if (!visitor.ok) return false;
    if (!RecordsCoherent(s.logicalProcessors, s.generation) || !RecordsCoherent(s.sessions, s.generation) ||
        !RecordsCoherent(s.devices, s.generation) || !SharedRecordsCoherent(s.services, s.generation) ||
        !SharedRecordsCoherent(s.appHistory, s.generation) || !SharedRecordsCoherent(s.installedApps, s.generation)) {
        return false;
    }
    if (s.cpuKernelUtilization.value && s.cpuUtilization.value && *s.cpuKernelUtilization.value > *s.cpuUtilization.value) {
        return false;
    }

    if (!s.logicalProcessors.empty() && s.logicalProcessorCount != s.logicalProcessors.size()) return false;

    for (const auto& exited : s.exitedProcesses) {
        if (Contains(live, exited.process.key) || exited.exitedAtNs > s.monotonicNs) return false;
        CheckVisitor exitedVisitor{s.generation};
        ForEachMetric(exited.process, exitedVisitor);
        if (!exitedVisitor.ok) return false;
    }
    return true;
}

RepairCounts RepairSnapshot(SystemSnapshot& s) {
    RepairCounts counts;
    const std::uint64_t generation = s.generation;

    counts.duplicateRowsDropped += DropDuplicateRows(s.processes, [](const ProcessSnapshot& p) { return p.key; });
    counts.duplicateRowsDropped += DropDuplicateRows(s.sessions, kSessionKey);

    RepairVisitor visitor{generation, counts};
    ForEachSystemMetric(s, visitor);
    for (auto& row : s.logicalProcessors) ForEachMetric(row, visitor);
    for (auto& row : s.processes) ForEachMetric(row, visitor);
    for (auto& row : s.sessions) ForEachMetric(row, visitor);
    for (auto& row : s.devices) ForEachMetric(row, visitor);
    for (auto& exited : s.exitedProcesses) ForEachMetric(exited.process, visitor);
    if (s.cpuKernelUtilization.value && s.cpuUtilization.value && *s.cpuKernelUtilization.value > *s.cpuUtilization.value) {
        s.cpuKernelUtilization.MarkMissing(MetricAvailability::transientError);
        ++counts.metricsMarkedUnavailable;
    }

    const std::vector<ProcessKey> live = SortedLiveKeys(s.processes);

    for (auto& process : s.processes) {
        if (process.parentKey != ProcessKey{} && !Contains(live, process.parentKey)) {
            process.parentKey = ProcessKey{};
            ++counts.parentLinksDetached;
        }
    }

    for (auto& session : s.sessions) {
        const auto before = session.members.size();
        std::erase_if(session.members, [&](const SessionMember& m) { return !Contains(live, m.key); });
        counts.sessionMembersDropped += before - session.members.size();
    }

    const auto danglingService = [&](const ServiceSnapshot& row) {
        return row.mainProcess != ProcessKey{} && !Contains(live, row.mainProcess);
    };
    RepairShared(
        s.services,
        [&](const std::vector<ServiceSnapshot>& rows) {
            return !KeysUnique(rows, kServiceKey) || !RecordsCoherent(rows, generation) ||
                   std::any_of(rows.begin(), rows.end(), danglingService);
        },
        [&](std::vector<ServiceSnapshot>& rows) {
            counts.duplicateRowsDropped += DropDuplicateRows(rows, kServiceKey);
            for (auto& row : rows) {
                ForEachMetric(row, visitor);
                if (danglingService(row)) {
                    row.mainProcess = ProcessKey{};
                    ++counts.serviceLinksDetached;
                }
            }
        });
    RepairShared(
        s.startupItems, [&](const std::vector<StartupItemSnapshot>& rows) { return !KeysUnique(rows, kStartupKey); },
        [&](std::vector<StartupItemSnapshot>& rows) {
            counts.duplicateRowsDropped += DropDuplicateRows(rows, kStartupKey);
        });
    RepairShared(
        s.appHistory,
        [&](const std::vector<AppHistorySnapshot>& rows) {
            return !KeysUnique(rows, kHistoryKey) || !RecordsCoherent(rows, generation);
        },
        [&](std::vector<AppHistorySnapshot>& rows) {
            counts.duplicateRowsDropped += DropDuplicateRows(rows, kHistoryKey);
            for (auto& row : rows) ForEachMetric(row, visitor);
        });
    RepairShared(
        s.installedApps,
        [&](const std::vector<InstalledAppSnapshot>& rows) {
            return !KeysUnique(rows, kInstalledKey) || !RecordsCoherent(rows, generation);
        },
        [&](std::vector<InstalledAppSnapshot>& rows) {
            counts.duplicateRowsDropped += DropDuplicateRows(rows, kInstalledKey);
            for (auto& row : rows) ForEachMetric(row, visitor);
        });

    const auto exitedBefore = s.exitedProcesses.size();
    std::erase_if(s.exitedProcesses, [&](const ExitedProcessRecord& e) { return Contains(live, e.process.key); });
    counts.exitedEntriesDropped += exitedBefore - s.exitedProcesses.size();

    if (!s.logicalProcessors.empty() && s.logicalProcessorCount != s.logicalProcessors.size()) {
        s.logicalProcessorCount = static_cast<std::uint32_t>(s.logicalProcessors.size());
        ++counts.processorCountsCorrected;
    }

    if (s.telemetry && FrameNeedsRepair(*s.telemetry)) {
        auto frame = std::make_shared<HardwareTelemetryFrame>(*s.telemetry);
        RepairFrame(*frame, counts);
        s.telemetry = std::move(frame);
    }
    return counts;
}

}  // namespace korv::core
