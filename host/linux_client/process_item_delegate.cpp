#include "host/linux_client/process_item_delegate.h"

#include <QRegion>

namespace korv::host::linux_client {

ProcessItemDelegate::ProcessItemDelegate(std::function<const QRegion&()> paintRegion, QObject* parent)
    : QStyledItemDelegate(parent), paintRegion_(std::move(paintRegion)) {}

void ProcessItemDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const {
    if (paintRegion_ && !paintRegion_().intersects(option.rect)) return;
    QStyledItemDelegate::paint(painter, option, index);
}

}  // namespace korv::host::linux_client
