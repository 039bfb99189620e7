#include "host/linux_client/history_store.h"

#include <algorithm>
#include <stdexcept>

namespace korv::host::linux_client {
namespace {

constexpr std::size_t kReferenceGraphWidth = 1920;
constexpr std::size_t kMinimumCapacity = 64;
constexpr std::size_t kMaximumCapacity = 32768;

template <typename T>
std::optional<double> Reading(const core::Metric<T>& metric) {
    if (!core::CarriesValue(metric.availability) || !metric.value.has_value()) {
        return std::nullopt;
    }
    return static_cast<double>(*metric.value);
}

}  // namespace

HistorySeries::HistorySeries(std::size_t capacity) : points_(std::max<std::size_t>(capacity, 1)) {}

void HistorySeries::Append(const HistoryPoint& point) {
    points_[head_] = point;
    head_ = (head_ + 1) % points_.size();
    size_ = std::min(size_ + 1, points_.size());
    trailingGaps_ = point.value.has_value() ? 0 : std::min(trailingGaps_ + 1, points_.size());
}

const HistoryPoint& HistorySeries::At(std::size_t index) const {
    if (index >= size_) {
        throw std::out_of_range("history index out of range");
    }
    const std::size_t oldest = (head_ + points_.size() - size_) % points_.size();
    return points_[(oldest + index) % points_.size()];
}

const HistoryPoint& HistorySeries::Latest() const {
    return At(size_ - 1);
}

HistoryStore::HistoryStore(std::size_t capacity) : capacity_(std::max<std::size_t>(capacity, 1)) {}

std::size_t HistoryStore::CapacityFor(std::uint32_t historyMultiplier, std::uint32_t pixelsPerUpdate) noexcept {
    const std::size_t pixels = std::max<std::uint32_t>(pixelsPerUpdate, 1);
    const std::size_t visible = (kReferenceGraphWidth + pixels - 1) / pixels;
    const std::size_t wanted = visible * std::max<std::uint32_t>(historyMultiplier, 1);
    return std::clamp(wanted, kMinimumCapacity, kMaximumCapacity);
}

void HistoryStore::Feed(std::string_view id, const HistoryPoint& point) {
    auto found = series_.find(id);
    if (found == series_.end()) {
        if (!point.value.has_value()) {
            return;  // a series starts with its first reading
        }
        found = series_.emplace(std::string(id), Entry{HistorySeries(capacity_), 0}).first;
    }
    found->second.series.Append(point);
    found->second.fedAt = appendCount_;
}

void HistoryStore::Append(const core::SystemSnapshot& snapshot) {
    ++appendCount_;
    HistoryPoint point{snapshot.generation, snapshot.monotonicNs, std::nullopt};
    const auto feed = [&](std::string_view id, std::optional<double> value) {
        point.value = value;
        Feed(id, point);
    };

    feed("cpu.total", Reading(snapshot.cpuUtilization));
    feed("cpu.kernel", Reading(snapshot.cpuKernelUtilization));
    std::string id;
    for (const auto& processor : snapshot.logicalProcessors) {
        id = "cpu.logical." + std::to_string(processor.index);
        feed(id, Reading(processor.utilization));
    }
    feed("memory.inUse", Reading(snapshot.memoryInUseBytes));

    for (const auto& device : snapshot.devices) {
        switch (device.kind) {
        case core::DeviceKind::disk:
            feed("disk." + device.id + ".active", Reading(device.disk.activePercent));
            feed("disk." + device.id + ".read", Reading(device.disk.readBytesPerSecond));
            feed("disk." + device.id + ".write", Reading(device.disk.writeBytesPerSecond));
            break;
        case core::DeviceKind::network:
            feed("network." + device.id + ".receive", Reading(device.network.receiveBytesPerSecond));
            feed("network." + device.id + ".send", Reading(device.network.sendBytesPerSecond));
            break;
        case core::DeviceKind::gpu:
            feed("gpu." + device.id + ".utilization", Reading(device.gpu.utilizationPercent));
            feed("gpu." + device.id + ".memory", Reading(device.gpu.inUseMemoryBytes));
            break;
        default:
            break;
        }
    }

    // Series that this snapshot did not name get a gap; those that are all gaps go.
    point.value.reset();
    for (auto it = series_.begin(); it != series_.end();) {
        Entry& entry = it->second;
        if (entry.fedAt != appendCount_) {
            entry.series.Append(point);
            entry.fedAt = appendCount_;
        }
        if (entry.series.TrailingGaps() >= entry.series.Size()) {
            it = series_.erase(it);
        } else {
            ++it;
        }
    }
}

const HistorySeries* HistoryStore::Find(std::string_view id) const {
    const auto found = series_.find(id);
    return found == series_.end() ? nullptr : &found->second.series;
}

std::vector<std::string> HistoryStore::SeriesIds() const {
    std::vector<std::string> ids;
    ids.reserve(series_.size());
    for (const auto& [id, entry] : series_) {
        ids.push_back(id);
    }
    return ids;
}

}  // namespace korv::host::linux_client
