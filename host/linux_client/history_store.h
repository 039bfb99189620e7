#pragma once

#include "core/snapshot.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korv::host::linux_client {

struct HistoryPoint {
    std::uint64_t generation = 0;
    std::uint64_t monotonicNs = 0;
    std::optional<double> value;  // empty: no reading at this sample
};

// A fixed-size ring of points, oldest first.
class HistorySeries {
public:
    explicit HistorySeries(std::size_t capacity);

    void Append(const HistoryPoint& point);
    std::size_t Size() const noexcept { return size_; }
    std::size_t Capacity() const noexcept { return points_.size(); }
    // 0 is the oldest kept point.
    const HistoryPoint& At(std::size_t index) const;
    const HistoryPoint& Latest() const;
    // How many of the newest points in a row carry no reading.
    std::size_t TrailingGaps() const noexcept { return trailingGaps_; }

private:
    std::vector<HistoryPoint> points_;
    std::size_t head_ = 0;  // where the next point goes
    std::size_t size_ = 0;
    std::size_t trailingGaps_ = 0;
};

// The history behind every graph, kept for all devices whether or not their page can be seen, so
// that a graph is never empty when its page opens. Series ids:
//   "cpu.total", "cpu.kernel", "cpu.logical.<index>", "memory.inUse",
//   "disk.<id>.active", "disk.<id>.read", "disk.<id>.write",
//   "network.<id>.receive", "network.<id>.send", "gpu.<id>.utilization", "gpu.<id>.memory".
// A series that is not fed by a snapshot gets a gap; one made only of gaps (a device that went
// away) is dropped. GUI thread only.
class HistoryStore {
public:
    explicit HistoryStore(std::size_t capacity);

    // Points a series keeps: enough for a 1920-pixel graph at `pixelsPerUpdate` pixels a sample,
    // times the history multiplier for the compressed older time, within 64 and 32,768.
    static std::size_t CapacityFor(std::uint32_t historyMultiplier, std::uint32_t pixelsPerUpdate) noexcept;

    void Append(const core::SystemSnapshot& snapshot);
    // Null when the series does not exist.
    const HistorySeries* Find(std::string_view id) const;
    std::vector<std::string> SeriesIds() const;
    std::size_t Capacity() const noexcept { return capacity_; }

private:
    void Feed(std::string_view id, const HistoryPoint& point);

    std::size_t capacity_;
    std::uint64_t appendCount_ = 0;
    struct Entry {
        HistorySeries series;
        std::uint64_t fedAt = 0;
    };
    std::map<std::string, Entry, std::less<>> series_;
};

}  // namespace korv::host::linux_client
