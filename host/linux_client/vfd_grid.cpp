#include "host/linux_client/vfd_grid.h"

#include <QPainter>

#include <cmath>
#include <map>

namespace korv::host::linux_client {

namespace {

// A fine mesh like the control grid in front of the phosphor: light lines on a transparent tile.
QImage DrawGrid() {
    constexpr int kSize = 24;
    constexpr int kPitch = 3;
    QImage image(kSize, kSize, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            const bool line = x % kPitch == 0 || y % kPitch == 0;
            if (line) image.setPixel(x, y, qRgba(255, 255, 255, (x % kPitch == 0 && y % kPitch == 0) ? 255 : 170));
        }
    }
    return image;
}

}  // namespace

const QImage& VfdGridImage() {
    static const QImage grid = [] {
        QImage loaded(QStringLiteral(":/korv/VFDGrid.png"));
        return loaded.isNull() ? DrawGrid() : loaded.convertToFormat(QImage::Format_ARGB32);
    }();
    return grid;
}

QImage TintImageByLuminance(const QImage& source, const QColor& color) {
    QImage image = source.convertToFormat(QImage::Format_ARGB32);
    for (int y = 0; y < image.height(); ++y) {
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            const QRgb pixel = line[x];
            const double luminance = (0.299 * qRed(pixel) + 0.587 * qGreen(pixel) + 0.114 * qBlue(pixel)) / 255.0;
            const auto channel = [luminance](int c) { return static_cast<int>(std::lround(c * luminance)); };
            line[x] = qRgba(channel(color.red()), channel(color.green()), channel(color.blue()), qAlpha(pixel));
        }
    }
    return image;
}

QImage TintedVfdGrid(const QColor& color) {
    static std::map<QRgb, QImage> cache;
    const QRgb key = color.rgb();
    const auto found = cache.find(key);
    if (found != cache.end()) return found->second;
    return cache.emplace(key, TintImageByLuminance(VfdGridImage(), color)).first->second;
}

}  // namespace korv::host::linux_client
