#include "host/linux_client/performance_device_pane.h"

#include "host/linux_client/cpu_core_grid_widget.h"
#include "host/linux_client/detail_field_grid.h"
#include "host/linux_client/graph_widget.h"
#include "host/linux_client/unit_formats.h"

#include <QActionGroup>
#include <QCoreApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QResizeEvent>
#include <QScrollArea>
#include <QStackedWidget>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <array>
#include <cmath>

namespace korv::host::linux_client {
namespace {

using core::DeviceKind;

constexpr int kTwoColumnWidth = 720;

QString Text(const char* source) {
    return QCoreApplication::translate("PerformancePage", source);
}

enum class Scale { percent, bytes, rate, watts, temperature };

enum GraphsPage { kSingleGraphs = 0, kCoreGrid = 1, kEngineGrid = 2 };

constexpr std::array<CpuGraphMode, 3> kCpuModes{CpuGraphMode::combined, CpuGraphMode::expanded,
                                                CpuGraphMode::efficiency};
constexpr std::array<GpuGraphMode, 2> kGpuModes{GpuGraphMode::overall, GpuGraphMode::engines};

double MemoryTotal(const core::SystemSnapshot& s) {
    return core::CarriesValue(s.memoryTotalBytes.availability) && s.memoryTotalBytes.value
               ? static_cast<double>(*s.memoryTotalBytes.value)
               : 0.0;
}

double GpuMemoryTotal(const core::SystemSnapshot& s, const DeviceRowSpec& row) {
    double total = 0.0;
    for (const std::size_t index : row.members) {
        const core::GpuBlock& gpu = s.devices[index].gpu;
        const auto& metric = gpu.totalMemoryBytes.value ? gpu.totalMemoryBytes : gpu.dedicatedMemoryBytes;
        if (core::CarriesValue(metric.availability) && metric.value) total += static_cast<double>(*metric.value);
    }
    return total;
}

// One series in the graph, the other two empty.
void ShowOnly(GraphWidget* graph, const GraphFeed& feed, const std::vector<std::string>& ids, CombineRule rule) {
    ShowSeries(*graph, 0, feed, ids, rule);
    ShowSeries(*graph, 1, feed, {}, rule);
    ShowSeries(*graph, 2, feed, {}, rule);
}

// The top of a graph of watts or degrees: the peak rounded up to a step of ten, at least `floor`.
double StepScale(const std::deque<GraphPoint>& points, double floor) {
    return std::max(floor, std::ceil(PeakValue(points) / 10.0) * 10.0);
}

}  // namespace

struct PerformanceDevicePane::Impl {
    explicit Impl(PerformanceDevicePane* pane);

    void BuildModeMenu(DeviceKind kind, const PaneView& view, bool classes);
    void ConfigureGraph(GraphWidget* graph, const QString& title, Scale scale, const GraphFeed& feed);
    void ShowSingle(bool withSecond, bool withThird = false);
    void ShowQuantity(GraphWidget* graph, QLabel* legend, const QString& graphTitle, Scale scale,
                      const GraphFeed& feed, const std::vector<std::string>& ids, CombineRule rule, DeviceKind kind);
    void SetLegend(QLabel* legend, const std::vector<std::pair<QColor, QString>>& entries);
    void PrepareGridCell(GraphWidget* graph, const GraphFeed& feed, DeviceKind kind);

    void ShowCpu(const GraphFeed& feed, const PaneView& view);
    void ShowMemory(const GraphFeed& feed);
    void ShowDisk(const DeviceRowSpec& row, const GraphFeed& feed);
    void ShowNetwork(const DeviceRowSpec& row, const GraphFeed& feed);
    void ShowGpu(const DeviceRowSpec& row, const GraphFeed& feed, const PaneView& view);
    void ShowBattery(const GraphFeed& feed);

    PerformanceDevicePane* self;
    QStackedWidget* outer = nullptr;
    QLabel* hint = nullptr;
    QLabel* title = nullptr;
    QLabel* model = nullptr;
    QToolButton* modeButton = nullptr;
    QMenu* modeMenu = nullptr;
    std::optional<DeviceKind> modeMenuKind;
    QStackedWidget* graphs = nullptr;
    GraphWidget* main = nullptr;
    GraphWidget* second = nullptr;
    GraphWidget* third = nullptr;
    QLabel* mainLegend = nullptr;
    QLabel* secondLegend = nullptr;
    QLabel* thirdLegend = nullptr;
    CpuCoreGridWidget* coreGrid = nullptr;
    CpuCoreGridWidget* engineGrid = nullptr;
    DetailFieldGrid* figures = nullptr;
    DetailFieldGrid* fields = nullptr;
    DevicePaneText text;
    std::optional<core::Settings> graphSettings;
    std::function<void(CpuGraphMode)> onCpuMode;
    std::function<void(GpuGraphMode)> onGpuMode;
};

PerformanceDevicePane::Impl::Impl(PerformanceDevicePane* pane) : self(pane) {
    auto* layout = new QVBoxLayout(pane);
    layout->setContentsMargins(0, 0, 0, 0);
    outer = new QStackedWidget(pane);
    layout->addWidget(outer);

    hint = new QLabel(Text("Select a Linux device"), outer);
    hint->setObjectName(QStringLiteral("SelectionHint"));
    hint->setAlignment(Qt::AlignCenter);
    outer->addWidget(hint);

    // The content scrolls rather than clipping its fields when the window is short.
    auto* scroll = new QScrollArea(outer);
    scroll->setObjectName(QStringLiteral("DevicePaneScroll"));
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* content = new QWidget(scroll);
    content->setObjectName(QStringLiteral("DevicePaneContent"));
    content->setAttribute(Qt::WA_StyledBackground, true);
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(22, 16, 22, 16);
    column->setSpacing(10);

    auto* header = new QHBoxLayout;
    header->setSpacing(12);
    title = new QLabel(content);
    title->setObjectName(QStringLiteral("DeviceTitle"));
    title->setTextFormat(Qt::PlainText);
    model = new QLabel(content);
    model->setObjectName(QStringLiteral("DeviceModel"));
    model->setTextFormat(Qt::PlainText);
    model->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    model->setTextInteractionFlags(Qt::TextSelectableByMouse);
    model->setMinimumWidth(0);
    model->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    header->addWidget(title, 0, Qt::AlignBottom);
    header->addWidget(model, 1, Qt::AlignBottom);
    column->addLayout(header);

    auto* modeRow = new QHBoxLayout;
    modeRow->addStretch(1);
    modeButton = new QToolButton(content);
    modeButton->setObjectName(QStringLiteral("GraphModeButton"));
    modeButton->setPopupMode(QToolButton::InstantPopup);
    modeButton->setCursor(Qt::PointingHandCursor);
    modeButton->setAutoRaise(true);
    modeMenu = new QMenu(modeButton);
    modeButton->setMenu(modeMenu);
    modeRow->addWidget(modeButton);
    column->addLayout(modeRow);

    graphs = new QStackedWidget(content);
    auto* single = new QWidget(graphs);
    auto* singleLayout = new QVBoxLayout(single);
    singleLayout->setContentsMargins(0, 0, 0, 0);
    singleLayout->setSpacing(4);
    main = new GraphWidget(single);
    main->setObjectName(QStringLiteral("PerformanceGraph"));
    mainLegend = new QLabel(single);
    mainLegend->setObjectName(QStringLiteral("GraphLegend"));
    mainLegend->setTextFormat(Qt::RichText);
    second = new GraphWidget(single);
    second->setObjectName(QStringLiteral("PerformanceSecondGraph"));
    secondLegend = new QLabel(single);
    secondLegend->setObjectName(QStringLiteral("GraphLegend"));
    secondLegend->setTextFormat(Qt::RichText);
    third = new GraphWidget(single);
    third->setObjectName(QStringLiteral("PerformanceThirdGraph"));
    thirdLegend = new QLabel(single);
    thirdLegend->setObjectName(QStringLiteral("GraphLegend"));
    thirdLegend->setTextFormat(Qt::RichText);
    singleLayout->addWidget(main, 3);
    singleLayout->addWidget(mainLegend);
    singleLayout->addSpacing(6);
    singleLayout->addWidget(second, 2);
    singleLayout->addWidget(secondLegend);
    singleLayout->addWidget(third, 2);
    singleLayout->addWidget(thirdLegend);
    graphs->addWidget(single);
    coreGrid = new CpuCoreGridWidget(graphs);
    graphs->addWidget(coreGrid);
    engineGrid = new CpuCoreGridWidget(graphs);
    engineGrid->setObjectName(QStringLiteral("GpuEngineGrid"));
    engineGrid->setAccessibleName(Text("GPU engine utilization history"));
    graphs->addWidget(engineGrid);
    column->addWidget(graphs, 1);

    figures = new DetailFieldGrid(content, DetailFieldGrid::Style::figures);
    column->addWidget(figures);

    fields = new DetailFieldGrid(content);
    column->addWidget(fields);
    scroll->setWidget(content);
    outer->addWidget(scroll);
}

void PerformanceDevicePane::Impl::BuildModeMenu(DeviceKind kind, const PaneView& view, bool classes) {
    const bool cpu = kind == DeviceKind::cpu;
    const bool gpu = kind == DeviceKind::gpu;
    modeButton->setVisible(cpu || gpu);
    if (!cpu && !gpu) return;
    if (modeMenuKind != kind) {
        modeMenuKind = kind;
        modeMenu->clear();
        auto* group = new QActionGroup(modeMenu);
        if (cpu) {
            modeButton->setToolTip(Text("Choose how CPU utilization is grouped"));
            modeButton->setAccessibleName(Text("CPU graph mode"));
            for (const CpuGraphMode mode : kCpuModes) {
                QAction* action = modeMenu->addAction(CpuGraphModeText(mode));
                action->setCheckable(true);
                action->setData(static_cast<int>(mode));
                group->addAction(action);
                connect(action, &QAction::triggered, self, [this, mode] {
                    if (onCpuMode) onCpuMode(mode);
                });
            }
        } else {
            modeButton->setToolTip(Text("Choose how GPU utilization is grouped"));
            modeButton->setAccessibleName(Text("GPU graph mode"));
            for (const GpuGraphMode mode : kGpuModes) {
                QAction* action = modeMenu->addAction(GpuGraphModeText(mode));
                action->setCheckable(true);
                action->setData(static_cast<int>(mode));
                group->addAction(action);
                connect(action, &QAction::triggered, self, [this, mode] {
                    if (onGpuMode) onGpuMode(mode);
                });
            }
        }
    }
    const int current = cpu ? static_cast<int>(view.cpuMode) : static_cast<int>(view.gpuMode);
    for (QAction* action : modeMenu->actions()) {
        action->setChecked(action->data().toInt() == current);
        if (cpu && action->data().toInt() == static_cast<int>(CpuGraphMode::efficiency)) action->setEnabled(classes);
    }
    const QString label = cpu ? CpuGraphModeText(view.cpuMode) : GpuGraphModeText(view.gpuMode);
    const QString buttonText = label + QStringLiteral(" ▾");
    if (modeButton->text() != buttonText) modeButton->setText(buttonText);
}

void PerformanceDevicePane::Impl::ConfigureGraph(GraphWidget* graph, const QString& graphTitle, Scale scale,
                                                 const GraphFeed& feed) {
    graph->SetTitle(graphTitle);
    graph->SetSampleInterval(feed.intervalNs);
    graph->SetCapacity(static_cast<int>(feed.series.Capacity()));
    const int wanted = static_cast<int>(scale);
    const QVariant current = graph->property("korvScale");
    if (!current.isValid() || current.toInt() != wanted) {
        graph->setProperty("korvScale", wanted);
        switch (scale) {
        case Scale::percent:
            graph->SetValueFormatter([](double value) { return QString::number(value, 'f', 0) + QLatin1Char('%'); });
            break;
        case Scale::bytes:
            graph->SetValueFormatter([](double value) { return FormatBytes(static_cast<std::uint64_t>(value)); });
            break;
        case Scale::rate:
            graph->SetValueFormatter([](double value) { return FormatRate(value); });
            break;
        case Scale::watts:
            graph->SetValueFormatter([](double value) { return FormatPower(value); });
            break;
        case Scale::temperature:
            graph->SetValueFormatter([](double value) { return FormatTemperature(value); });
            break;
        }
    }
}

void PerformanceDevicePane::Impl::ShowSingle(bool withSecond, bool withThird) {
    graphs->setCurrentIndex(kSingleGraphs);
    second->setVisible(withSecond);
    if (!withSecond) {
        secondLegend->hide();
        second->Clear();
    }
    if (!withThird) {
        third->hide();
        thirdLegend->hide();
        third->Clear();
    }
}

// A graph of one quantity, shown only while the history has it: a machine without a power or
// temperature reading shows no empty graph.
void PerformanceDevicePane::Impl::ShowQuantity(GraphWidget* graph, QLabel* legend, const QString& graphTitle,
                                               Scale scale, const GraphFeed& feed, const std::vector<std::string>& ids,
                                               CombineRule rule, DeviceKind kind) {
    const bool any = std::any_of(ids.begin(), ids.end(), [&feed](const std::string& id) { return feed.series.Find(id) != nullptr; });
    legend->hide();
    if (!any) {
        ShowOnly(graph, feed, {}, rule);
        graph->hide();
        return;
    }
    ConfigureGraph(graph, graphTitle, scale, feed);
    graph->setAccessibleName(graphTitle);
    graph->SetSeriesColor(0, SeriesColor(feed, kind, graph == main ? 0 : 1));
    graph->SetSeriesFill(0, true);
    ShowOnly(graph, feed, ids, rule);
    switch (scale) {
    case Scale::watts:
        graph->SetMaximum(0, StepScale(graph->Points(0), 10.0));
        break;
    case Scale::temperature:
        graph->SetMaximum(0, StepScale(graph->Points(0), 100.0));
        break;
    default:
        graph->SetMaximum(0, 100.0);
        break;
    }
    graph->show();
}

void PerformanceDevicePane::Impl::SetLegend(QLabel* legend, const std::vector<std::pair<QColor, QString>>& entries) {
    if (entries.empty()) {
        legend->hide();
        return;
    }
    const QString html = LegendText(entries);
    if (legend->text() != html) legend->setText(html);
    legend->show();
}

void PerformanceDevicePane::Impl::PrepareGridCell(GraphWidget* graph, const GraphFeed& feed, DeviceKind kind) {
    if (graphSettings && !graph->property("korvSettled").toBool()) {
        graph->setProperty("korvSettled", true);
        linux_client::ApplyGraphSettings(*graph, *graphSettings, false);
    }
    graph->SetSampleInterval(feed.intervalNs);
    graph->SetCapacity(static_cast<int>(feed.series.Capacity()));
    graph->SetSeriesColor(0, SeriesColor(feed, kind, 0));
    graph->SetSeriesColor(1, SeriesColor(feed, kind, 1));
    graph->SetSeriesFill(0, true);
    graph->SetMaximum(0, 100.0);
    graph->SetMaximum(1, 100.0);
}

void PerformanceDevicePane::Impl::ShowCpu(const GraphFeed& feed, const PaneView& view) {
    const core::SystemSnapshot& s = feed.snapshot;
    CpuGraphMode mode = view.cpuMode;
    if (mode == CpuGraphMode::efficiency && !HasProcessorClasses(s)) mode = CpuGraphMode::combined;

    if (mode == CpuGraphMode::expanded && !s.logicalProcessors.empty()) {
        graphs->setCurrentIndex(kCoreGrid);
        coreGrid->SetHeading(Text("% Utilization by logical processor"));
        QStringList labels;
        for (const auto& processor : s.logicalProcessors) labels << Text("CPU %1").arg(processor.index);
        coreGrid->SetCells(labels);
        for (std::size_t i = 0; i < s.logicalProcessors.size(); ++i) {
            GraphWidget* cell = coreGrid->Graph(static_cast<int>(i));
            PrepareGridCell(cell, feed, DeviceKind::cpu);
            const std::uint32_t index = s.logicalProcessors[i].index;
            ShowSeries(*cell, 0, feed, {LogicalSeriesId(index)}, CombineRule::sum);
            ShowSeries(*cell, 1, feed,
                       view.showKernelTimes ? std::vector<std::string>{LogicalKernelSeriesId(index)}
                                            : std::vector<std::string>{},
                       CombineRule::sum);
        }
        return;
    }

    ShowSingle(true, true);
    ConfigureGraph(main, mode == CpuGraphMode::efficiency ? Text("% Utilization by processor class")
                                                          : Text("% Utilization"),
                   Scale::percent, feed);
    for (int i = 0; i < 3; ++i) {
        main->SetSeriesColor(i, SeriesColor(feed, DeviceKind::cpu, i));
        main->SetMaximum(i, 100.0);
    }
    main->SetSeriesFill(0, true);
    if (mode == CpuGraphMode::efficiency) {
        std::array<std::vector<std::string>, 3> ids;
        for (const auto& processor : s.logicalProcessors) {
            const std::size_t slot = processor.processorClass == core::ProcessorClass::performance  ? 0
                                     : processor.processorClass == core::ProcessorClass::efficiency ? 1
                                                                                                    : 2;
            ids[slot].push_back(LogicalSeriesId(processor.index));
        }
        std::vector<std::pair<QColor, QString>> legend;
        static const std::array<const char*, 3> kNames{"Performance", "Efficiency", "Other"};
        for (int i = 0; i < 3; ++i) {
            const auto& slotIds = ids[static_cast<std::size_t>(i)];
            ShowSeries(*main, i, feed, slotIds, CombineRule::mean);
            if (!slotIds.empty()) legend.emplace_back(SeriesColor(feed, DeviceKind::cpu, i), Text(kNames[static_cast<std::size_t>(i)]));
        }
        SetLegend(mainLegend, legend);
        ShowQuantity(second, secondLegend, Text("Temperature"), Scale::temperature, feed, {CpuTemperatureSeriesId()},
                     CombineRule::sum, DeviceKind::cpu);
        ShowQuantity(third, thirdLegend, Text("Power consumption"), Scale::watts, feed, {CpuPowerSeriesId()},
                     CombineRule::sum, DeviceKind::cpu);
        return;
    }
    ShowSeries(*main, 0, feed, {"cpu.total"}, CombineRule::sum);
    ShowSeries(*main, 1, feed, view.showKernelTimes ? std::vector<std::string>{"cpu.kernel"} : std::vector<std::string>{},
               CombineRule::sum);
    ShowSeries(*main, 2, feed, {}, CombineRule::sum);
    if (view.showKernelTimes) {
        SetLegend(mainLegend, {{SeriesColor(feed, DeviceKind::cpu, 0), Text("Utilization")},
                               {SeriesColor(feed, DeviceKind::cpu, 1), Text("Kernel time")}});
    } else {
        SetLegend(mainLegend, {});
    }
    ShowQuantity(second, secondLegend, Text("Temperature"), Scale::temperature, feed, {CpuTemperatureSeriesId()},
                 CombineRule::sum, DeviceKind::cpu);
    ShowQuantity(third, thirdLegend, Text("Power consumption"), Scale::watts, feed, {CpuPowerSeriesId()},
                 CombineRule::sum, DeviceKind::cpu);
}

void PerformanceDevicePane::Impl::ShowMemory(const GraphFeed& feed) {
    const core::SystemSnapshot& s = feed.snapshot;
    ShowSingle(true);
    QString graphTitle = Text("Memory usage");
    if (core::CarriesValue(s.memoryInUseBytes.availability) && s.memoryInUseBytes.value && MemoryTotal(s) > 0.0) {
        graphTitle = Text("%1 / %2").arg(FormatBytes(*s.memoryInUseBytes.value), FormatBytes(*s.memoryTotalBytes.value));
    }
    ConfigureGraph(main, graphTitle, Scale::bytes, feed);
    main->SetSeriesColor(0, SeriesColor(feed, DeviceKind::memory, 0));
    main->SetSeriesFill(0, true);
    ShowOnly(main, feed, {"memory.inUse"}, CombineRule::sum);
    main->SetMaximum(0, MemoryTotal(s));
    SetLegend(mainLegend, {});
    ShowQuantity(second, secondLegend, Text("Memory pressure"), Scale::percent, feed, {MemoryPressureSeriesId()},
                 CombineRule::sum, DeviceKind::memory);
}

void PerformanceDevicePane::Impl::ShowDisk(const DeviceRowSpec& row, const GraphFeed& feed) {
    const core::SystemSnapshot& s = feed.snapshot;
    ShowSingle(true);
    ConfigureGraph(main, Text("% Active time"), Scale::percent, feed);
    main->SetSeriesColor(0, SeriesColor(feed, DeviceKind::disk, 0));
    main->SetSeriesFill(0, true);
    ShowOnly(main, feed, MemberSeriesIds(s, row, "active"), CombineRule::mean);
    main->SetMaximum(0, 100.0);
    SetLegend(mainLegend, {});

    ConfigureGraph(second, Text("Throughput"), Scale::rate, feed);
    ShowSeries(*second, 0, feed, MemberSeriesIds(s, row, "read"), CombineRule::sum);
    ShowSeries(*second, 1, feed, MemberSeriesIds(s, row, "write"), CombineRule::sum);
    ShowSeries(*second, 2, feed, {}, CombineRule::sum);
    const double scale = RateScale(second->Points(0), second->Points(1));
    for (int i = 0; i < 2; ++i) {
        second->SetSeriesColor(i, SeriesColor(feed, DeviceKind::disk, i));
        second->SetMaximum(i, scale);
    }
    second->SetSeriesFill(0, true);
    SetLegend(secondLegend, {{SeriesColor(feed, DeviceKind::disk, 0), Text("Read")},
                             {SeriesColor(feed, DeviceKind::disk, 1), Text("Write")}});
}

void PerformanceDevicePane::Impl::ShowNetwork(const DeviceRowSpec& row, const GraphFeed& feed) {
    const core::SystemSnapshot& s = feed.snapshot;
    ShowSingle(false);
    ConfigureGraph(main, Text("Throughput"), Scale::rate, feed);
    ShowSeries(*main, 0, feed, MemberSeriesIds(s, row, "receive"), CombineRule::sum);
    ShowSeries(*main, 1, feed, MemberSeriesIds(s, row, "send"), CombineRule::sum);
    ShowSeries(*main, 2, feed, {}, CombineRule::sum);
    const double scale = RateScale(main->Points(0), main->Points(1));
    for (int i = 0; i < 2; ++i) {
        main->SetSeriesColor(i, SeriesColor(feed, DeviceKind::network, i));
        main->SetMaximum(i, scale);
    }
    main->SetSeriesFill(0, true);
    SetLegend(mainLegend, {{SeriesColor(feed, DeviceKind::network, 0), Text("Receive")},
                           {SeriesColor(feed, DeviceKind::network, 1), Text("Send")}});
}

void PerformanceDevicePane::Impl::ShowGpu(const DeviceRowSpec& row, const GraphFeed& feed, const PaneView& view) {
    const core::SystemSnapshot& s = feed.snapshot;
    if (view.gpuMode == GpuGraphMode::engines) {
        QStringList labels;
        std::vector<std::string> ids;
        for (const std::size_t index : row.members) {
            const core::DeviceSnapshot& device = s.devices[index];
            for (const auto& engine : device.gpu.engines) {
                const QString name = QString::fromStdString(engine.name);
                labels << (row.combined ? Text("%1 (%2)").arg(name, QString::fromStdString(device.displayName)) : name);
                ids.push_back(GpuEngineSeriesId(device.id, engine.name));
            }
        }
        if (!ids.empty()) {
            graphs->setCurrentIndex(kEngineGrid);
            engineGrid->SetHeading(Text("% Utilization by engine"));
            engineGrid->SetCells(labels);
            for (std::size_t i = 0; i < ids.size(); ++i) {
                GraphWidget* cell = engineGrid->Graph(static_cast<int>(i));
                PrepareGridCell(cell, feed, DeviceKind::gpu);
                ShowOnly(cell, feed, {ids[i]}, CombineRule::sum);
            }
            return;
        }
    }
    ShowSingle(true, true);
    ConfigureGraph(main, Text("% Utilization"), Scale::percent, feed);
    main->SetSeriesColor(0, SeriesColor(feed, DeviceKind::gpu, 0));
    main->SetSeriesFill(0, true);
    ShowOnly(main, feed, MemberSeriesIds(s, row, "utilization"), CombineRule::mean);
    main->SetMaximum(0, 100.0);
    SetLegend(mainLegend, {});

    ConfigureGraph(second, Text("GPU memory in use"), Scale::bytes, feed);
    second->setAccessibleName(Text("GPU memory usage history"));
    second->SetSeriesColor(0, SeriesColor(feed, DeviceKind::gpu, 1));
    second->SetSeriesFill(0, true);
    ShowOnly(second, feed, MemberSeriesIds(s, row, "memory"), CombineRule::sum);
    second->SetMaximum(0, GpuMemoryTotal(s, row));
    SetLegend(secondLegend, {});

    std::vector<std::string> power;
    std::vector<std::string> temperature;
    for (const std::size_t index : row.members) {
        power.push_back(GpuPowerSeriesId(s.devices[index].id));
        temperature.push_back(GpuTemperatureSeriesId(s.devices[index].id));
    }
    const bool anyPower = std::any_of(power.begin(), power.end(), [&feed](const std::string& id) { return feed.series.Find(id) != nullptr; });
    if (anyPower) {
        ShowQuantity(third, thirdLegend, Text("Power consumption"), Scale::watts, feed, power, CombineRule::sum, DeviceKind::gpu);
    } else {
        ShowQuantity(third, thirdLegend, Text("Temperature"), Scale::temperature, feed, temperature, CombineRule::mean,
                     DeviceKind::gpu);
    }
}

void PerformanceDevicePane::Impl::ShowBattery(const GraphFeed& feed) {
    ShowSingle(true);
    ConfigureGraph(main, Text("% Charge"), Scale::percent, feed);
    main->SetSeriesColor(0, SeriesColor(feed, DeviceKind::energy, 0));
    main->SetSeriesFill(0, true);
    ShowOnly(main, feed, {BatteryChargeSeriesId()}, CombineRule::sum);
    main->SetMaximum(0, 100.0);
    SetLegend(mainLegend, {});
    ShowQuantity(second, secondLegend, Text("Power consumption"), Scale::watts, feed, {SystemPowerSeriesId()},
                 CombineRule::sum, DeviceKind::energy);
}

PerformanceDevicePane::PerformanceDevicePane(QWidget* parent) : QWidget(parent), impl_(std::make_unique<Impl>(this)) {
    setObjectName(QStringLiteral("DevicePane"));
    ShowHint();
}

PerformanceDevicePane::~PerformanceDevicePane() = default;

void PerformanceDevicePane::ShowHint() {
    impl_->outer->setCurrentIndex(0);
    impl_->text = DevicePaneText{};
}

void PerformanceDevicePane::Show(const DeviceRowSpec& row, const GraphFeed& feed, const PaneView& view) {
    Impl& d = *impl_;
    d.text = BuildDevicePaneText(feed.snapshot, row);
    if (d.title->text() != d.text.title) d.title->setText(d.text.title);
    if (d.model->text() != d.text.model) {
        d.model->setText(d.text.model);
        d.model->setToolTip(d.text.model);
    }
    d.BuildModeMenu(row.kind, view, HasProcessorClasses(feed.snapshot));
    switch (row.kind) {
    case DeviceKind::cpu:
        d.ShowCpu(feed, view);
        break;
    case DeviceKind::memory:
        d.ShowMemory(feed);
        break;
    case DeviceKind::disk:
        d.ShowDisk(row, feed);
        break;
    case DeviceKind::network:
        d.ShowNetwork(row, feed);
        break;
    case DeviceKind::gpu:
        d.ShowGpu(row, feed, view);
        break;
    case DeviceKind::energy:
        d.ShowBattery(feed);
        break;
    default:
        d.ShowSingle(false);
        d.main->Clear();
        break;
    }
    d.figures->SetFields(d.text.figures);
    d.figures->setVisible(!d.text.figures.empty());
    d.fields->SetFields(d.text.fields);
    d.outer->setCurrentIndex(1);
}

void PerformanceDevicePane::ApplyGraphSettings(const core::Settings& settings) {
    Impl& d = *impl_;
    d.graphSettings = settings;
    linux_client::ApplyGraphSettings(*d.main, settings, false);
    linux_client::ApplyGraphSettings(*d.second, settings, false);
    linux_client::ApplyGraphSettings(*d.third, settings, false);
    for (CpuCoreGridWidget* grid : {d.coreGrid, d.engineGrid}) {
        for (int i = 0; i < grid->CellCount(); ++i) {
            GraphWidget* cell = grid->Graph(i);
            cell->setProperty("korvSettled", true);
            linux_client::ApplyGraphSettings(*cell, settings, false);
        }
    }
}

bool PerformanceDevicePane::ShowsHint() const {
    return impl_->outer->currentIndex() == 0;
}

const DevicePaneText& PerformanceDevicePane::PaneText() const {
    return impl_->text;
}

QString PerformanceDevicePane::ClipboardText() const {
    return ShowsHint() ? QString() : PaneClipboardText(impl_->text);
}

QToolButton* PerformanceDevicePane::ModeButton() const {
    return impl_->modeButton;
}

GraphWidget* PerformanceDevicePane::MainGraph() const {
    return impl_->main;
}

GraphWidget* PerformanceDevicePane::SecondGraph() const {
    return impl_->second;
}

GraphWidget* PerformanceDevicePane::ThirdGraph() const {
    return impl_->third;
}

CpuCoreGridWidget* PerformanceDevicePane::CoreGrid() const {
    return impl_->coreGrid;
}

CpuCoreGridWidget* PerformanceDevicePane::EngineGrid() const {
    return impl_->engineGrid;
}

DetailFieldGrid* PerformanceDevicePane::Fields() const {
    return impl_->fields;
}

void PerformanceDevicePane::SetOnCpuMode(std::function<void(CpuGraphMode)> callback) {
    impl_->onCpuMode = std::move(callback);
}

void PerformanceDevicePane::SetOnGpuMode(std::function<void(GpuGraphMode)> callback) {
    impl_->onGpuMode = std::move(callback);
}

void PerformanceDevicePane::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    impl_->fields->SetColumnPairs(event->size().width() >= kTwoColumnWidth ? 2 : 1);
}

}  // namespace korv::host::linux_client
