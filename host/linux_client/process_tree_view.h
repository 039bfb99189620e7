#pragma once

#include "core/settings.h"

#include <QString>
#include <QRegion>
#include <QTreeView>

#include <cstdint>
#include <functional>

namespace korv::host::linux_client {

// The processes tree: whole rows, extended selection, no editing, uniform row heights, movable
// columns whose header state lives in the `processesColumnOrder` setting, and type-ahead on the
// name. GUI thread only.
class ProcessTreeView : public QTreeView {
    Q_OBJECT
public:
    // `settings` and `settingsChanged` belong to the window and outlive the view; `model` is set
    // at once so that the header state can be restored here.
    ProcessTreeView(QAbstractItemModel& model, core::Settings* settings, std::function<void()> settingsChanged,
                    QWidget* parent = nullptr);
    ~ProcessTreeView() override;

    // Writes the header state to `processesColumnOrder` (base64 of QHeaderView::saveState).
    void SaveHeaderState();
    // Restores it; a missing or unusable state leaves the header as it is. Returns whether it did.
    bool RestoreHeaderState();

    // Hides or shows a column (never "Name") and keeps the hidden set in
    // `processTableHiddenColumns`, by column name.
    void SetColumnHidden(int column, bool hidden);
    // The header's context menu: one checkable entry a column, checked while it is shown.
    void ShowHeaderMenu(const QPoint& position);

    // Puts the layout of the rows off to the next paint. A refresh changes many rows and ends
    // with the one sort, after which every row is laid out anew anyway; until then no change
    // needs a row's place. LayoutPending stays true until that layout ran.
    void DeferLayout();
    bool LayoutPending() const;
    void doItemsLayout() override;

    QString TypeAheadText() const;
    // Milliseconds of a monotonic clock, for the type-ahead's 1200 ms pause; tests put their own.
    void SetTypeAheadClock(std::function<std::int64_t()> clock);

    // The region of the paint in progress (viewport coordinates); empty outside a paint.
    const QRegion& PaintRegion() const { return paintRegion_; }

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    // The indentation left of a row takes the row's own background (an exited row's wash, a group
    // header's band), so that the colour runs across the whole row.
    void drawBranches(QPainter* painter, const QRect& rect, const QModelIndex& index) const override;

private:
    void TypeAheadSearch();
    void ApplyColumnSettings();
    void SaveColumnWidth(int column, int width);

    core::Settings* settings_;
    std::function<void()> settingsChanged_;
    std::function<std::int64_t()> clock_;
    QString typeAhead_;
    std::int64_t lastKeyMs_ = 0;
    bool layoutDeferred_ = false;
    bool applyingColumns_ = false;
    QRegion paintRegion_;
};

}  // namespace korv::host::linux_client
