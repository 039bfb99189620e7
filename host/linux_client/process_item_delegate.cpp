#include "host/linux_client/process_item_delegate.h"

#include <QApplication>
#include <QFontMetrics>
#include <QPainter>
#include <QRegion>
#include <QStyle>

namespace korv::host::linux_client {
namespace {

constexpr qsizetype kMaximumCachedTexts = 2048;  // a few screens of cells

}  // namespace

ProcessItemDelegate::ProcessItemDelegate(std::function<const QRegion&()> paintRegion, QObject* parent)
    : QStyledItemDelegate(parent), paintRegion_(std::move(paintRegion)) {}

const QStaticText& ProcessItemDelegate::LaidOut(const QString& text, int width, const QFont& font) const {
    if (font != font_ || texts_.size() >= kMaximumCachedTexts) {
        texts_.clear();
        font_ = font;
    }
    TextKey key{text, width};
    const auto found = texts_.constFind(key);
    if (found != texts_.constEnd()) return *found;
    const QFontMetrics metrics(font);
    QStaticText laidOut(metrics.horizontalAdvance(text) > width ? metrics.elidedText(text, Qt::ElideRight, width) : text);
    laidOut.setTextFormat(Qt::PlainText);
    laidOut.prepare(QTransform(), font);
    return *texts_.insert(std::move(key), laidOut);
}

void ProcessItemDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const {
    if (paintRegion_ && !paintRegion_().intersects(option.rect)) return;
    QStyleOptionViewItem cell = option;
    initStyleOption(&cell, index);
    const bool plain = !(cell.features & (QStyleOptionViewItem::HasDecoration | QStyleOptionViewItem::HasCheckIndicator)) &&
                       !(cell.features & QStyleOptionViewItem::WrapText);
    if (!plain) {
        QStyledItemDelegate::paint(painter, option, index);
        return;
    }
    const QWidget* widget = cell.widget;
    const QStyle* style = widget != nullptr ? widget->style() : QApplication::style();
    const QString text = cell.text;
    // The style draws the cell's ground, selection and focus (most cells have none of them); the
    // text follows from the cache.
    cell.text.clear();
    cell.features &= ~QStyleOptionViewItem::HasDisplay;
    const bool ground = cell.backgroundBrush.style() != Qt::NoBrush ||
                        (cell.state & (QStyle::State_Selected | QStyle::State_HasFocus | QStyle::State_MouseOver));
    if (ground) style->drawControl(QStyle::CE_ItemViewItem, &cell, painter, widget);
    if (text.isEmpty()) return;

    const int margin = style->pixelMetric(QStyle::PM_FocusFrameHMargin, nullptr, widget) + 1;
    const QRect area = cell.rect.adjusted(margin, 0, -margin, 0);
    if (area.width() <= 0) return;
    const QStaticText& laidOut = LaidOut(text, area.width(), cell.font);
    const QSizeF size = laidOut.size();
    const Qt::Alignment horizontal = QStyle::visualAlignment(cell.direction, cell.displayAlignment) & Qt::AlignHorizontal_Mask;
    double x = area.left();
    if (horizontal & Qt::AlignRight) {
        x = area.right() + 1 - size.width();
    } else if (horizontal & Qt::AlignHCenter) {
        x = area.left() + (area.width() - size.width()) / 2.0;
    }
    const double y = area.top() + (area.height() - size.height()) / 2.0;

    const QPalette::ColorGroup group = !(cell.state & QStyle::State_Enabled) ? QPalette::Disabled
                                       : (cell.state & QStyle::State_Active) ? QPalette::Normal
                                                                             : QPalette::Inactive;
    const QPalette::ColorRole role = (cell.state & QStyle::State_Selected) ? QPalette::HighlightedText : QPalette::Text;
    painter->save();
    painter->setClipRect(cell.rect, Qt::IntersectClip);
    painter->setFont(cell.font);
    painter->setPen(cell.palette.color(group, role));
    painter->drawStaticText(QPointF(x, y), laidOut);
    painter->restore();
}

}  // namespace korv::host::linux_client
