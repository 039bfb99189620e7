#pragma once

#include "core/snapshot.h"
#include "host/linux_client/snapshot_page.h"

#include <QString>
#include <QStringList>

#include <memory>

class QMenu;

namespace korv::host::linux_client {

// The Performance page: the machine's devices in a list at the left, each with a small history
// graph, and the chosen device at the right with its large graphs and detail fields. History comes
// from the window's store, so a graph is full as soon as the page opens. GUI thread only.
class PerformancePage : public SnapshotPage {
    Q_OBJECT
public:
    explicit PerformancePage(PageEnvironment environment, QWidget* parent = nullptr);
    ~PerformancePage() override;

    // The list and the right pane from the snapshot and the history.
    void ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) override;
    // Combined disks, network and GPUs, the graph modes and settings, and the temperature unit.
    void SettingsChanged() override;
    // Chooses the first row of that kind (the command line's --device=); when no snapshot offers
    // one yet, the choice waits for the first that does.
    void SelectDevice(core::DeviceKind kind);
    // "cpu", "memory", "disk:<device id>", "disks", "network:<id>", "network", "gpu:<id>", "gpus",
    // "battery"; empty while no device is chosen.
    QString SelectedRowId() const;
    QStringList DeviceRowTitles() const;
    // Puts the page's own entries (the graph kinds, kernel times, Copy) into the window's menu, with
    // Ctrl+Alt+<n> on each; they act on the chosen device as the graph's context menu does.
    void FillWindowMenu(QMenu& menu);

protected:
    void changeEvent(QEvent* event) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
