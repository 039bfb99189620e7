#pragma once

#include "core/settings.h"
#include "core/snapshot.h"
#include "host/linux_client/performance_detail_fields.h"
#include "host/linux_client/performance_device_list.h"
#include "host/linux_client/performance_graph_modes.h"
#include "host/linux_client/performance_graphs.h"

#include <QWidget>

#include <functional>
#include <memory>
#include <optional>

class QToolButton;

namespace korv::host::linux_client {

class CpuCoreGridWidget;
class DetailFieldGrid;
class GraphWidget;

// How the chosen device is drawn.
struct PaneView {
    CpuGraphMode cpuMode = CpuGraphMode::combined;
    GpuGraphMode gpuMode = GpuGraphMode::overall;
    bool showKernelTimes = false;
};

// The right side of the Performance page: the chosen device's title and model, its graphs (a large
// graph, a core or engine grid), its live figures and its detail fields; before a device is
// chosen, the hint "Select a Linux device". GUI thread only.
class PerformanceDevicePane : public QWidget {
    Q_OBJECT
public:
    explicit PerformanceDevicePane(QWidget* parent = nullptr);
    ~PerformanceDevicePane() override;

    void ShowHint();
    void Show(const DeviceRowSpec& row, const GraphFeed& feed, const PaneView& view);
    // Graph settings for every graph of the pane, including grid cells made later.
    void ApplyGraphSettings(const core::Settings& settings);

    bool ShowsHint() const;
    const DevicePaneText& PaneText() const;
    QString ClipboardText() const;
    QToolButton* ModeButton() const;
    GraphWidget* MainGraph() const;
    GraphWidget* SecondGraph() const;
    GraphWidget* ThirdGraph() const;  // power or temperature, where the device has it
    CpuCoreGridWidget* CoreGrid() const;
    CpuCoreGridWidget* EngineGrid() const;
    DetailFieldGrid* Fields() const;

    void SetOnCpuMode(std::function<void(CpuGraphMode)> callback);
    void SetOnGpuMode(std::function<void(GpuGraphMode)> callback);

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
