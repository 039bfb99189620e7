#pragma once

#include "core/snapshot.h"
#include "host/linux_client/snapshot_page.h"

#include <QPoint>
#include <QRect>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace korv::host::linux_client {

class ProcessFilterProxyModel;
class ProcessTableModel;
class DetailPaneWidget;
class ProcessTreeView;

// The Processes page: one ProcessTreeView over a ProcessFilterProxyModel over a ProcessTableModel.
// Each snapshot patches the rows, sorts once, keeps selection, current row and expansion, and lets
// changed cells glow. The actions on processes plug in through the handlers. GUI thread only.
class ProcessesPage : public SnapshotPage {
    Q_OBJECT
public:
    ProcessesPage(PageEnvironment environment, QWidget* parent = nullptr);
    ~ProcessesPage() override;

    void ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) override;
    // Reads processTreeEnabled, smoothProcessCPU, showExitedProcesses, showMemoryPercent,
    // visualFrameRate and showSelfInReports again, and shows the last snapshot anew when the rows'
    // shape depends on a change.
    void SettingsChanged() override;
    // The window scales CPU figures for per-core statistics; smoothing starts afresh at a new scale.
    void SetCpuScale(double scale);

    ProcessTableModel& Model();
    ProcessFilterProxyModel& Proxy();
    ProcessTreeView& View();
    // "Selection details": the fields of the one selected process, kept up to date each sample.
    DetailPaneWidget& DetailPane();

    // Source-model keys of the selected rows, group headers left out, in the order of the selection.
    std::vector<core::ProcessKey> SelectedProcessKeys() const;
    // The selected rows' records (an exited row's last one), in the order of the selection.
    std::vector<core::ProcessSnapshot> SelectedRows() const;
    // What a context menu at that viewport point acts on: the row under the pointer first, then the
    // rest of the selection. A row that was not selected becomes the whole selection, as in a file
    // manager; no rows at all for blank space or a group header.
    struct PointerRows {
        std::vector<core::ProcessSnapshot> rows;
        bool exited = false;
        bool followed = false;
    };
    PointerRows RowsAt(const QPoint& viewportPos);
    // The command bar's search box calls this.
    void SetFilterText(const QString& text);
    // Both work only in tree mode.
    void ExpandAll();
    void CollapseAll();
    // The window's collapsed set: keys whose rows the user folded.
    const std::set<core::ProcessKey>& CollapsedKeys() const;

    void SetContextMenuHandler(std::function<void(const QPoint& viewportPos)> handler);
    void SetDeleteHandler(std::function<void()> handler);
    void SetActivateHandler(std::function<void(const core::ProcessKey&, bool exited)> handler);

    // The last applied snapshot; null before the first.
    const core::SystemSnapshot* CurrentSnapshot() const;
    // Whether the last snapshot's every process record became a row or was hidden on purpose.
    bool AllRecordsTaken() const;

    // One step of the glow and fade animation: repaints just the glowing cells and the washed
    // rows that can be seen. Returns what it repainted.
    struct GlowRepaint {
        int cells = 0;
        int rows = 0;
        std::vector<QRect> rects;  // viewport coordinates
    };
    GlowRepaint RunGlowTick();
    bool GlowTimerActive() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d_;
};

}  // namespace korv::host::linux_client
