#include "host/linux_client/shell_style.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QImage>
#include <QPalette>
#include <QStyleFactory>
#include <QStyleOptionButton>

#include <algorithm>
#include <memory>

namespace korv::host::linux_client {
namespace {

// The lightest pixel of an unchecked box drawn on a dark window.
int LightestIndicatorPixel(QStyle* style) {
    QPalette dark;
    for (const auto role : {QPalette::Window, QPalette::Base, QPalette::Button}) dark.setColor(role, QColor(0x1c, 0x1f, 0x24));
    dark.setColor(QPalette::Mid, QColor(0x30, 0x34, 0x3a));
    dark.setColor(QPalette::WindowText, Qt::white);
    QCheckBox box(QStringLiteral("Dashed lines"));
    box.setStyle(style);
    box.setPalette(dark);
    box.resize(box.sizeHint());
    QImage image(box.size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(dark.color(QPalette::Window));
    box.render(&image);
    QStyleOptionButton option;
    option.initFrom(&box);
    const QRect indicator = style->subElementRect(QStyle::SE_CheckBoxIndicator, &option, &box);
    int lightest = 0;
    for (int y = indicator.top(); y <= indicator.bottom(); ++y) {
        for (int x = indicator.left(); x <= indicator.right(); ++x) {
            lightest = std::max(lightest, QColor(image.pixel(x, y)).lightness());
        }
    }
    return lightest;
}

TEST(ShellStyleTest, AnUncheckedBoxShowsOnADarkWindow) {
    ShellStyle shell;
    std::unique_ptr<QStyle> fusion(QStyleFactory::create(QStringLiteral("Fusion")));
    const int window = QColor(0x1c, 0x1f, 0x24).lightness();
    EXPECT_GT(LightestIndicatorPixel(&shell), window + 40);
    EXPECT_GT(LightestIndicatorPixel(&shell), LightestIndicatorPixel(fusion.get()));
}

}  // namespace
}  // namespace korv::host::linux_client
