#pragma once

#include "core/snapshot.h"
#include "host/linux_client/graph_path_builder.h"
#include "host/linux_client/history_store.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace korv::host::linux_client {

// Series ids the Performance page reads beyond the window's history: the battery charge, the
// utilization of each GPU engine and the kernel share of each logical processor.
std::string BatteryChargeSeriesId();
std::string GpuEngineSeriesId(std::string_view deviceId, std::string_view engine);
std::string LogicalKernelSeriesId(std::uint32_t processor);
std::string LogicalSeriesId(std::uint32_t processor);
// Memory pressure (percent, as the "Memory pressure" figure), the processor's power and package temperature, the
// machine's power input, and each GPU's power and temperature.
std::string MemoryPressureSeriesId();
std::string CpuPowerSeriesId();
std::string CpuTemperatureSeriesId();
std::string SystemPowerSeriesId();
std::string GpuPowerSeriesId(std::string_view deviceId);
std::string GpuTemperatureSeriesId(std::string_view deviceId);

// Where the page's graphs get their points: the window's history, which is fed whatever page is
// shown; for the series that history does not keep, a small history of the page's own that it
// feeds from the snapshots it is given. GUI thread only.
class PerformanceSeries {
public:
    PerformanceSeries(const HistoryStore* shared, std::size_t capacity);

    // Feeds the page's own series from a snapshot; a snapshot fed before (same generation) is skipped.
    void Feed(const core::SystemSnapshot& snapshot);
    // The shared series of that id, else the page's own, else null.
    const HistorySeries* Find(std::string_view id) const;
    std::size_t Capacity() const noexcept { return capacity_; }

private:
    void FeedOwn(const std::string& id, std::optional<double> value, const HistoryPoint& point);

    const HistoryStore* shared_;
    std::size_t capacity_;
    std::uint64_t lastGeneration_ = 0;
    std::uint64_t feedCount_ = 0;
    struct Entry {
        HistorySeries series;
        std::uint64_t fedAt = 0;
    };
    std::map<std::string, Entry, std::less<>> own_;
};

enum class CombineRule { sum, mean };

// Point by point, matched by generation: the sum or the mean of the parts that have a reading at
// that generation; a generation where none has one is a gap. Null parts are skipped. Keeps at most
// `capacity` of the newest points.
HistorySeries CombineSeries(const std::vector<const HistorySeries*>& parts, CombineRule rule, std::size_t capacity);

// The largest valid value of a graph series, 0 when none is.
double PeakValue(const std::deque<GraphPoint>& points);

// A round top for a rate graph at or above `peak`: 1, 2 or 5 times a power of ten of a 1024-step
// unit (so that the scale reads "100 KB/sec" or "2 MB/sec"), never below `floor`.
double RateScaleFor(double peak, double floor);

}  // namespace korv::host::linux_client
