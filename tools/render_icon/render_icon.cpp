// Renders the application icon from its SVG source to a square PNG:
//   korv-render-icon <input.svg> <output.png> [size]
#include <cstdio>

#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

int main(int argc, char* argv[])
{
    if (argc < 3 || argc > 4) {
        std::fputs("usage: korv-render-icon <input.svg> <output.png> [size]\n", stderr);
        return 2;
    }
    QGuiApplication application(argc, argv);
    const QString input = QString::fromLocal8Bit(argv[1]);
    const QString output = QString::fromLocal8Bit(argv[2]);
    bool sizeOk = true;
    const int size = argc == 4 ? QString::fromLocal8Bit(argv[3]).toInt(&sizeOk) : 256;
    if (!sizeOk || size < 1 || size > 4096) {
        std::fprintf(stderr, "error: the size must be a whole number from 1 to 4096, not '%s'\n", argv[3]);
        return 2;
    }
    QSvgRenderer renderer(input);
    if (!renderer.isValid()) {
        std::fprintf(stderr, "error: %s is not an SVG image that can be drawn\n", argv[1]);
        return 1;
    }
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.setRenderHint(QPainter::SmoothPixmapTransform, true);
    renderer.render(&painter);
    painter.end();
    if (!image.save(output, "PNG")) {
        std::fprintf(stderr, "error: could not write %s\n", argv[2]);
        return 1;
    }
    return 0;
}
