#pragma once

#include "core/snapshot.h"
#include "host/linux_client/performance_device_list.h"
#include "host/linux_client/performance_series.h"

#include <QColor>
#include <QString>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korv::host::linux_client {

class GraphWidget;

// What the graphs of one snapshot are drawn from.
struct GraphFeed {
    const core::SystemSnapshot& snapshot;
    const PerformanceSeries& series;
    std::uint64_t intervalNs = 0;
    bool colorKeyed = true;
    bool darkTheme = false;
};

// The nominal sample spacing of a snapshot: its cadence, else the time since the previous one.
std::uint64_t NominalIntervalNs(const core::SystemSnapshot& snapshot);

// The history ids of one leaf ("active", "read", "receive", "utilization", ...) for each member of
// a row: "disk.<id>.<leaf>", "network.<id>.<leaf>" or "gpu.<id>.<leaf>".
std::vector<std::string> MemberSeriesIds(const core::SystemSnapshot& snapshot, const DeviceRowSpec& row,
                                         std::string_view leaf);

// The points of one series, or of several combined point by point; empty when none exists.
std::deque<GraphPoint> PointsFor(const GraphFeed& feed, const std::vector<std::string>& ids, CombineRule rule);

// Sets one series of a graph from the history of `ids` (none: an empty series). When the graph
// already shows that same single series, only the points added since are converted and the held
// ones are kept, so that a tick does not rebuild thousands of points per graph.
void ShowSeries(GraphWidget& graph, int index, const GraphFeed& feed, const std::vector<std::string>& ids,
                CombineRule rule);

// The points of `series` as GraphPointsFromHistory gives them, built from `held` (the same series'
// points as converted before) plus the newer history points; nothing when `held` does not line up
// with the history.
std::optional<std::deque<GraphPoint>> ExtendPoints(const HistorySeries& series, std::uint64_t intervalNs,
                                                   const std::deque<GraphPoint>& held);

// The colours of a device kind's graphs: the key colour for the main series, a lighter (dark theme)
// or darker (light theme) one for the second, and a neutral third. Plain colours: the graph tints.
QColor SeriesColor(const GraphFeed& feed, core::DeviceKind kind, int index);

// A legend line in rich text: a coloured square before each name, colours tinted for the display.
QString LegendText(const std::vector<std::pair<QColor, QString>>& entries);

// Fills the small graph of a device list row: CPU and GPU utilization, memory in use against the
// total, disk active time, network receive and send, battery charge.
void FeedMiniGraph(GraphWidget& graph, const DeviceRowSpec& row, const GraphFeed& feed);

// The top of a rate graph that shows these series, and its rate floor.
double RateScale(const std::deque<GraphPoint>& first, const std::deque<GraphPoint>& second);

}  // namespace korv::host::linux_client
