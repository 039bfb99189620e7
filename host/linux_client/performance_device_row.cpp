#include "host/linux_client/performance_device_row.h"

#include "host/linux_client/graph_widget.h"
#include "host/linux_client/theme.h"

#include <QEvent>
#include <QFontMetrics>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QStaticText>
#include <QToolTip>

#include <algorithm>

namespace korv::host::linux_client {
namespace {

constexpr int kGraphWidth = 78;
constexpr int kGraphHeight = 50;
constexpr int kMarginX = 10;
constexpr int kMarginY = 8;
constexpr int kGap = 10;
constexpr int kTitlePixels = 14;
constexpr int kSubtitlePixels = 12;
constexpr int kLineGap = 1;

}  // namespace

PerformanceDeviceRow::PerformanceDeviceRow(const QString& id, core::DeviceKind kind, QWidget* parent)
    : PerformanceDeviceRow(id, kind, true, parent) {}

PerformanceDeviceRow* PerformanceDeviceRow::Placeholder(const QString& text, QWidget* parent) {
    auto* row = new PerformanceDeviceRow(QString(), core::DeviceKind::other, false, parent);
    row->SetTitle(text);
    return row;
}

PerformanceDeviceRow::PerformanceDeviceRow(const QString& id, core::DeviceKind kind, bool withGraph, QWidget* parent)
    : QFrame(parent), id_(id), kind_(kind) {
    setObjectName(QStringLiteral("DeviceRow"));
    setFocusPolicy(withGraph ? Qt::StrongFocus : Qt::NoFocus);
    setAttribute(Qt::WA_Hover, true);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
    if (withGraph) {
        graph_ = new GraphWidget(this);
        graph_->SetMini(true);
        graph_->setFixedSize(kGraphWidth, kGraphHeight);
        // Pointing at the small graph marks the sample under the pointer and offers the device's
        // whole history, which a click opens in the large graph.
        graph_->SetOnClick([this] {
            if (onChosen_) onChosen_();
        });
        graph_->move(kMarginX, kMarginY);
    }
}

QFont PerformanceDeviceRow::TitleFont() const {
    QFont title = font();
    title.setPixelSize(kTitlePixels);
    title.setWeight(QFont::DemiBold);
    return title;
}

QFont PerformanceDeviceRow::SubtitleFont() const {
    QFont subtitle = font();
    subtitle.setPixelSize(kSubtitlePixels);
    return subtitle;
}

QRect PerformanceDeviceRow::TextRect() const {
    const int left = kMarginX + (graph_ != nullptr ? kGraphWidth + kGap : 0);
    return QRect(left, kMarginY, std::max(0, width() - left - kMarginX), height() - 2 * kMarginY);
}

int PerformanceDeviceRow::TextHeight() const {
    const int titleHeight = QFontMetrics(TitleFont()).height();
    const int subtitleHeight = QFontMetrics(SubtitleFont()).height() * static_cast<int>(subtitleLines_.size());
    return titleHeight + (subtitleLines_.isEmpty() ? 0 : kLineGap + subtitleHeight);
}

QSize PerformanceDeviceRow::sizeHint() const {
    const int content = std::max(graph_ != nullptr ? kGraphHeight : 0, TextHeight());
    return QSize(240, content + 2 * kMarginY);
}

QSize PerformanceDeviceRow::minimumSizeHint() const {
    return QSize(120, sizeHint().height());
}

void PerformanceDeviceRow::SetTitle(const QString& title) {
    if (title_ == title) return;
    title_ = title;
    setAccessibleName(title);
    update(TextRect());
}

void PerformanceDeviceRow::SetSubtitle(const QString& subtitle) {
    if (subtitle_ == subtitle) return;
    subtitle_ = subtitle;
    const qsizetype lines = subtitleLines_.size();
    subtitleLines_ = subtitle.isEmpty() ? QStringList() : subtitle.split(QLatin1Char('\n'));
    setAccessibleDescription(subtitle);
    if (subtitleLines_.size() != lines) {
        updateGeometry();  // only the line count moves the list
        update(TextRect());
        return;
    }
    // The title stays where it is: only the subtitle's lines are drawn again.
    const QRect area = TextRect();
    const int titleBottom = area.top() + std::max(0, (area.height() - TextHeight()) / 2) + QFontMetrics(TitleFont()).height();
    update(QRect(area.left(), titleBottom, area.width(), area.bottom() - titleBottom + 1));
}

void PerformanceDeviceRow::SetSelected(bool selected) {
    if (selected_ == selected) return;
    selected_ = selected;
    update();
}

void PerformanceDeviceRow::Prepare(ShownText& text, const QString& source, const QFont& font, int width) {
    if (text.source == source && text.width == width) return;
    text.source = source;
    text.width = width;
    text.shown.setTextFormat(Qt::PlainText);
    text.shown.setText(source);
    text.shown.prepare(QTransform(), font);
    text.cut = text.shown.size().width() > width;
    if (text.cut) {
        text.shown.setText(QFontMetrics(font).elidedText(source, Qt::ElideRight, width));
        text.shown.prepare(QTransform(), font);
    }
}

void PerformanceDeviceRow::PrepareTexts() {
    const int width = TextRect().width();
    Prepare(shownTitle_, title_, TitleFont(), width);
    shownLines_.resize(static_cast<std::size_t>(subtitleLines_.size()));
    const QFont subtitleFont = SubtitleFont();
    for (qsizetype i = 0; i < subtitleLines_.size(); ++i) {
        Prepare(shownLines_[static_cast<std::size_t>(i)], subtitleLines_[i], subtitleFont, width);
    }
}

bool PerformanceDeviceRow::event(QEvent* event) {
    if (event->type() == QEvent::ToolTip) {
        // The whole texts, but only when the row had to cut them.
        PrepareTexts();
        auto* help = static_cast<QHelpEvent*>(event);
        const bool cut = shownTitle_.cut || std::any_of(shownLines_.begin(), shownLines_.end(),
                                                         [](const ShownText& line) { return line.cut; });
        if (cut) {
            QToolTip::showText(help->globalPos(), title_ + QLatin1Char('\n') + subtitle_, this);
        } else {
            QToolTip::hideText();
            event->ignore();
        }
        return true;
    }
    if (event->type() == QEvent::FontChange) {
        shownTitle_.width = -1;  // lay everything out again
        shownLines_.clear();
    }
    return QFrame::event(event);
}

void PerformanceDeviceRow::paintEvent(QPaintEvent* event) {
    QFrame::paintEvent(event);
    const ShellColors& colors = CurrentShellColors();
    QPainter painter(this);
    if (selected_ || hovered_) {
        painter.setRenderHint(QPainter::Antialiasing, true);
        QColor fill = colors.accent;
        fill.setAlpha(selected_ ? (colors.dark ? 48 : 34) : 16);
        painter.setPen(Qt::NoPen);
        painter.setBrush(fill);
        const QRectF area = QRectF(rect()).adjusted(2, 1, -2, -1);
        painter.drawRoundedRect(area, 6, 6);
        if (selected_) {
            painter.setBrush(colors.accent);
            painter.drawRoundedRect(QRectF(area.left(), area.top() + 8, 3, area.height() - 16), 1.5, 1.5);
        }
        painter.setRenderHint(QPainter::Antialiasing, false);
    }

    PrepareTexts();
    const QRect area = TextRect();
    const QFontMetrics titleMetrics(TitleFont());
    const QFontMetrics subtitleMetrics(SubtitleFont());
    int y = area.top() + std::max(0, (area.height() - TextHeight()) / 2);
    if (event->rect().intersects(QRect(area.left(), y, area.width(), titleMetrics.height()))) {
        painter.setFont(TitleFont());
        painter.setPen(colors.text);
        painter.drawStaticText(area.left(), y, shownTitle_.shown);
    }
    y += titleMetrics.height() + kLineGap;
    painter.setFont(SubtitleFont());
    painter.setPen(colors.mutedText);
    for (const ShownText& line : shownLines_) {
        painter.drawStaticText(area.left(), y, line.shown);
        y += subtitleMetrics.height();
    }
    if (hasFocus()) {
        QPen pen(colors.accent, 1.0, Qt::DotLine);
        painter.setPen(pen);
        painter.setBrush(Qt::NoBrush);
        painter.drawRect(rect().adjusted(3, 2, -4, -3));
    }
}

void PerformanceDeviceRow::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton && onChosen_) {
        onChosen_();
        event->accept();
        return;
    }
    QFrame::mousePressEvent(event);
}

void PerformanceDeviceRow::keyPressEvent(QKeyEvent* event) {
    if ((event->key() == Qt::Key_Space || event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) &&
        onChosen_) {
        onChosen_();
        event->accept();
        return;
    }
    if ((event->key() == Qt::Key_Up || event->key() == Qt::Key_Down) && onStep_) {
        onStep_(event->key() == Qt::Key_Up ? -1 : 1);
        event->accept();
        return;
    }
    QFrame::keyPressEvent(event);
}

void PerformanceDeviceRow::enterEvent(QEnterEvent* event) {
    QFrame::enterEvent(event);
    hovered_ = true;
    update();
}

void PerformanceDeviceRow::leaveEvent(QEvent* event) {
    QFrame::leaveEvent(event);
    hovered_ = false;
    update();
}

}  // namespace korv::host::linux_client
