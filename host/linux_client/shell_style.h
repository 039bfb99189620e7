#pragma once

#include <QProxyStyle>

namespace korv::host::linux_client {

// The Fusion style with one change: the frame of check boxes and radio buttons is drawn in the
// palette's Mid colour. Fusion derives it from the window colour, made darker, so on a dark window an
// unchecked box all but vanishes.
class ShellStyle : public QProxyStyle {
    Q_OBJECT
public:
    ShellStyle();

    void drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                       const QWidget* widget = nullptr) const override;
};

}  // namespace korv::host::linux_client
