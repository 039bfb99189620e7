#include "host/linux_client/shell_style.h"

#include <QPainter>
#include <QStyleFactory>
#include <QStyleOption>

namespace korv::host::linux_client {

ShellStyle::ShellStyle() : QProxyStyle(QStyleFactory::create(QStringLiteral("Fusion"))) {}

void ShellStyle::drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                               const QWidget* widget) const {
    QProxyStyle::drawPrimitive(element, option, painter, widget);
    if (element != PE_IndicatorCheckBox && element != PE_IndicatorRadioButton) return;
    if (option->palette.color(QPalette::Window).lightness() >= 128) return;  // Fusion's own frame shows
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing, true);
    painter->setBrush(Qt::NoBrush);
    painter->setPen(QPen(option->palette.color(QPalette::Mid).lighter(160), 1.0));
    const QRectF frame = QRectF(option->rect).adjusted(0.5, 0.5, -0.5, -0.5);
    if (element == PE_IndicatorRadioButton) {
        painter->drawEllipse(frame);
    } else {
        painter->drawRoundedRect(frame, 2.0, 2.0);
    }
    painter->restore();
}

}  // namespace korv::host::linux_client
