#pragma once

#include <QStyledItemDelegate>

#include <functional>

class QRegion;

namespace korv::host::linux_client {

// Paints a process cell only where the view's current paint reaches it. A tree view draws every cell
// of a row whose any part needs paint, so a glowing CPU cell would otherwise lay out and shape the
// text of all thirteen cells of its row at every animation frame.
class ProcessItemDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    // `paintRegion` gives the region of the paint in progress, in viewport coordinates.
    ProcessItemDelegate(std::function<const QRegion&()> paintRegion, QObject* parent = nullptr);

    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;

private:
    std::function<const QRegion&()> paintRegion_;
};

}  // namespace korv::host::linux_client
