#pragma once

#include <QColor>
#include <QImage>

namespace korv::host::linux_client {

// The dot grid of a VFD window, drawn once at first use when the resource image is absent.
const QImage& VfdGridImage();

// The grid with each pixel's RGB replaced by the colour times the pixel's luminance; alpha is kept.
// Cached per colour for the life of the process. GUI thread.
QImage TintedVfdGrid(const QColor& color);

// The pure tint step, usable on any image.
QImage TintImageByLuminance(const QImage& image, const QColor& color);

}  // namespace korv::host::linux_client
