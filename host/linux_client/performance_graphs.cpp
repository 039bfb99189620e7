#include "host/linux_client/performance_graphs.h"

#include "host/linux_client/display_tint.h"
#include "host/linux_client/graph_widget.h"
#include "host/linux_client/unit_formats.h"

#include <algorithm>
#include <array>

namespace korv::host::linux_client {
namespace {

constexpr double kRateFloor = 64.0 * 1024.0;

const char* KindPrefix(core::DeviceKind kind) {
    switch (kind) {
    case core::DeviceKind::disk:
        return "disk.";
    case core::DeviceKind::network:
        return "network.";
    default:
        return "gpu.";
    }
}

std::optional<double> MemoryTotal(const core::SystemSnapshot& s) {
    if (!core::CarriesValue(s.memoryTotalBytes.availability) || !s.memoryTotalBytes.value) return std::nullopt;
    return static_cast<double>(*s.memoryTotalBytes.value);
}

}  // namespace

std::uint64_t NominalIntervalNs(const core::SystemSnapshot& snapshot) {
    if (snapshot.cadenceNs > 0) return snapshot.cadenceNs;
    if (snapshot.elapsedNs > 0) return snapshot.elapsedNs;
    return 1'000'000'000ULL;
}

std::vector<std::string> MemberSeriesIds(const core::SystemSnapshot& snapshot, const DeviceRowSpec& row,
                                         std::string_view leaf) {
    std::vector<std::string> ids;
    ids.reserve(row.members.size());
    for (const std::size_t index : row.members) {
        std::string id = KindPrefix(row.kind);
        id.append(snapshot.devices[index].id).append(".").append(leaf);
        ids.push_back(std::move(id));
    }
    return ids;
}

std::deque<GraphPoint> PointsFor(const GraphFeed& feed, const std::vector<std::string>& ids, CombineRule rule) {
    if (ids.size() == 1) {
        const HistorySeries* series = feed.series.Find(ids.front());
        return series ? GraphPointsFromHistory(*series, feed.intervalNs) : std::deque<GraphPoint>{};
    }
    std::vector<const HistorySeries*> parts;
    parts.reserve(ids.size());
    for (const std::string& id : ids) parts.push_back(feed.series.Find(id));
    if (std::all_of(parts.begin(), parts.end(), [](const HistorySeries* s) { return s == nullptr; })) return {};
    return GraphPointsFromHistory(CombineSeries(parts, rule, feed.series.Capacity()), feed.intervalNs);
}

std::optional<std::deque<GraphPoint>> ExtendPoints(const HistorySeries& series, std::uint64_t intervalNs,
                                                   const std::deque<GraphPoint>& held) {
    constexpr std::size_t kMostNewPoints = 64;
    const std::size_t size = series.Size();
    if (held.empty() || size == 0) return std::nullopt;
    // Where the newest held point stands in the history now.
    std::size_t last = size;
    for (std::size_t back = 0; back < std::min(size, kMostNewPoints); ++back) {
        const std::size_t at = size - 1 - back;
        const std::uint64_t time = series.At(at).monotonicNs;
        if (time == held.back().timeNs) {
            last = at;
            break;
        }
        if (time < held.back().timeNs) break;
    }
    if (last == size || held.size() < last + 1) return std::nullopt;
    // The ring dropped as many of its oldest points as it gained; the held ones must line up.
    const std::size_t dropped = held.size() - (last + 1);
    if (held[dropped].timeNs != series.At(0).monotonicNs) return std::nullopt;

    std::deque<GraphPoint> points(held.begin() + static_cast<std::ptrdiff_t>(dropped), held.end());
    if (last + 1 < size) {
        // The new points with the last held one before them, so that gaps are judged the same way.
        HistorySeries tail(size - last);
        for (std::size_t at = last; at < size; ++at) tail.Append(series.At(at));
        std::deque<GraphPoint> fresh = GraphPointsFromHistory(tail, intervalNs);
        points.insert(points.end(), fresh.begin() + 1, fresh.end());
    }
    points.front().gapBefore = false;
    return points;
}

void ShowSeries(GraphWidget& graph, int index, const GraphFeed& feed, const std::vector<std::string>& ids,
                CombineRule rule) {
    static constexpr std::array<const char*, 3> kKeys{"korvSeries0", "korvSeries1", "korvSeries2"};
    if (index < 0 || index >= static_cast<int>(kKeys.size())) return;
    const char* key = kKeys[static_cast<std::size_t>(index)];
    QString source;
    for (const std::string& id : ids) source += QString::fromStdString(id) + QLatin1Char('|');
    source += rule == CombineRule::mean ? QStringLiteral("mean") : QStringLiteral("sum");
    const bool same = graph.property(key).toString() == source;
    graph.setProperty(key, source);
    if (ids.empty()) {
        if (!graph.Points(index).empty()) graph.SetPoints(index, {});
        return;
    }
    if (same && ids.size() == 1) {
        if (const HistorySeries* series = feed.series.Find(ids.front())) {
            if (auto points = ExtendPoints(*series, feed.intervalNs, graph.Points(index))) {
                graph.SetPoints(index, std::move(*points));
                return;
            }
        }
    }
    graph.SetPoints(index, PointsFor(feed, ids, rule));
}

QColor SeriesColor(const GraphFeed& feed, core::DeviceKind kind, int index) {
    const QColor key = feed.colorKeyed ? GraphKeyColor(kind) : GraphNeutralColor();
    switch (index) {
    case 0:
        return key;
    case 1:
        return feed.darkTheme ? key.lighter(150) : key.darker(160);
    default:
        return GraphNeutralColor();
    }
}

QString LegendText(const std::vector<std::pair<QColor, QString>>& entries) {
    QString html;
    for (const auto& [color, name] : entries) {
        if (!html.isEmpty()) html += QStringLiteral("&nbsp;&nbsp;&nbsp;");
        html += QStringLiteral("<span style=\"color:%1\">&#9632;</span>&nbsp;%2")
                    .arg(DisplayTint(color).name(), name.toHtmlEscaped());
    }
    return html;
}

double RateScale(const std::deque<GraphPoint>& first, const std::deque<GraphPoint>& second) {
    return RateScaleFor(std::max(PeakValue(first), PeakValue(second)), kRateFloor);
}

void FeedMiniGraph(GraphWidget& graph, const DeviceRowSpec& row, const GraphFeed& feed) {
    graph.SetSampleInterval(feed.intervalNs);
    graph.SetCapacity(static_cast<int>(feed.series.Capacity()));
    graph.SetSeriesColor(0, SeriesColor(feed, row.kind, 0));
    graph.SetSeriesFill(0, true);
    std::vector<std::string> first;
    std::vector<std::string> second;
    CombineRule rule = CombineRule::sum;
    double maximum = 100.0;
    switch (row.kind) {
    case core::DeviceKind::cpu:
        first = {"cpu.total"};
        break;
    case core::DeviceKind::memory:
        first = {"memory.inUse"};
        maximum = MemoryTotal(feed.snapshot).value_or(0.0);
        break;
    case core::DeviceKind::disk:
        first = MemberSeriesIds(feed.snapshot, row, "active");
        rule = CombineRule::mean;
        break;
    case core::DeviceKind::network:
        first = MemberSeriesIds(feed.snapshot, row, "receive");
        second = MemberSeriesIds(feed.snapshot, row, "send");
        break;
    case core::DeviceKind::gpu:
        first = MemberSeriesIds(feed.snapshot, row, "utilization");
        rule = CombineRule::mean;
        break;
    case core::DeviceKind::energy:
        first = {BatteryChargeSeriesId()};
        break;
    default:
        break;
    }
    ShowSeries(graph, 0, feed, first, rule);
    ShowSeries(graph, 1, feed, second, rule);
    if (row.kind == core::DeviceKind::network) {
        graph.SetSeriesColor(1, SeriesColor(feed, row.kind, 1));
        maximum = RateScale(graph.Points(0), graph.Points(1));
        graph.SetMaximum(1, maximum);
    }
    graph.SetMaximum(0, maximum);
}

}  // namespace korv::host::linux_client
