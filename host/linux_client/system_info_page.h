#pragma once

#include "host/linux_client/snapshot_page.h"
#include "host/linux_client/system_info_catalog.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>

class QMenu;

namespace korv::host::linux_client {

// The read-only inventory: groups and categories at the left, the chosen category's rows at the right,
// rebuilt from each snapshot the window hands over.
class SystemInfoPage : public SnapshotPage {
    Q_OBJECT
public:
    explicit SystemInfoPage(PageEnvironment environment, QWidget* parent = nullptr);
    ~SystemInfoPage() override;

    void ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) override;
    // Values with temperatures are rebuilt in the new unit.
    void SettingsChanged() override;

    // Selects a category by id, e.g. "providers" for the status bar's "Provider Diagnostics" link.
    void ShowCategory(const QString& id);
    QString CurrentCategoryId() const;
    const SystemInfoCatalog& Catalog() const;

    // The context menu for the row (or category head) under a point of the row view or category tree:
    // "Copy" or "Copy section", "Copy all", "Export category…", "Export all system information…".
    // The caller owns the menu.
    QMenu* BuildContextMenu(QWidget* view, const QPoint& position);

    // Where an export goes; by default a save dialog "Export System Information". Tests replace it.
    void SetExportPathChooser(std::function<QString(const QString& defaultName)> chooser);
    // Writes the text whole or not at all; the error text in the system's words on failure.
    static std::optional<QString> WriteExport(const QString& path, const QString& text);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
