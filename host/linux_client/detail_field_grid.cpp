#include "host/linux_client/detail_field_grid.h"

#include "host/linux_client/theme.h"

#include <QEvent>
#include <QFontMetrics>
#include <QHelpEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QToolTip>

#include <algorithm>

namespace korv::host::linux_client {
namespace {

constexpr int kLabelGap = 14;     // between a label and its value
constexpr int kPairGap = 28;      // between column pairs, and between figures
constexpr int kRowGap = 5;
constexpr int kFigureLabelPixels = 12;
constexpr int kFigureValuePixels = 22;
constexpr int kFigureMinimumWidth = 96;

bool SameShape(const DetailFieldList& a, const DetailFieldList& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const DetailField& x, const DetailField& y) {
        return x.label == y.label && x.note.isEmpty() == y.note.isEmpty();
    });
}

}  // namespace

DetailFieldGrid::DetailFieldGrid(QWidget* parent, Style style) : QWidget(parent), style_(style) {
    setObjectName(style == Style::fields ? QStringLiteral("DetailFields") : QStringLiteral("DeviceFigures"));
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

QFont DetailFieldGrid::LabelFont() const {
    QFont label = font();
    if (style_ == Style::figures) label.setPixelSize(kFigureLabelPixels);
    return label;
}

QFont DetailFieldGrid::ValueFont() const {
    QFont value = font();
    if (style_ == Style::figures) value.setPixelSize(kFigureValuePixels);
    return value;
}

QFont DetailFieldGrid::NoteFont() const {
    QFont note = font();
    note.setPointSizeF(std::max(6.0, note.pointSizeF() * 0.85));
    return note;
}

void DetailFieldGrid::SetFields(const DetailFieldList& fields) {
    if (fields == fields_) return;
    const bool reshaped = !SameShape(fields, fields_);
    if (reshaped) {
        fields_ = fields;
        Measure();
        updateGeometry();
        update();
    } else {
        // Only the values that changed are drawn again; figures may shift, so they all are.
        const std::vector<Cell> before = Cells();
        for (std::size_t i = 0; i < fields.size(); ++i) {
            if (fields[i] == fields_[i]) continue;
            fields_[i] = fields[i];
            if (style_ == Style::figures) {
                update();
            } else {
                update(before[i].value.united(before[i].note));
            }
        }
    }
    setAccessibleDescription(DetailFieldsText(fields_));
}

void DetailFieldGrid::SetColumnPairs(int pairs) {
    pairs = std::max(pairs, 1);
    if (pairs == pairs_) return;
    pairs_ = pairs;
    Measure();
    updateGeometry();
    update();
}

int DetailFieldGrid::RowCount() const {
    const int count = static_cast<int>(fields_.size());
    if (style_ == Style::figures) return count > 0 ? 1 : 0;
    return (count + pairs_ - 1) / pairs_;
}

int DetailFieldGrid::LineHeight() const {
    if (style_ == Style::figures) {
        return QFontMetrics(LabelFont()).height() + QFontMetrics(ValueFont()).height();
    }
    return std::max(QFontMetrics(LabelFont()).height(), QFontMetrics(ValueFont()).height());
}

int DetailFieldGrid::ContentHeight() const {
    const int rows = RowCount();
    if (rows == 0) return 0;
    const int notes = static_cast<int>(std::count(rowHasNote_.begin(), rowHasNote_.end(), true));
    return rows * LineHeight() + (rows - 1) * kRowGap + notes * QFontMetrics(NoteFont()).height();
}

void DetailFieldGrid::Measure() {
    labelWidths_.assign(static_cast<std::size_t>(pairs_), 0);
    const int rows = RowCount();
    rowHasNote_.assign(static_cast<std::size_t>(rows), false);
    if (rows == 0 || style_ == Style::figures) return;
    const QFontMetrics metrics(LabelFont());
    for (std::size_t i = 0; i < fields_.size(); ++i) {
        const std::size_t column = i / static_cast<std::size_t>(rows);
        labelWidths_[column] = std::max(labelWidths_[column], metrics.horizontalAdvance(fields_[i].label));
        if (!fields_[i].note.isEmpty()) rowHasNote_[i % static_cast<std::size_t>(rows)] = true;
    }
}

std::vector<DetailFieldGrid::Cell> DetailFieldGrid::Cells() const {
    std::vector<Cell> cells;
    cells.reserve(fields_.size());
    if (style_ == Style::figures) {
        const QFontMetrics labelMetrics(LabelFont());
        const QFontMetrics valueMetrics(ValueFont());
        int x = 0;
        for (const DetailField& field : fields_) {
            // A few pixels of slack: advances are rounded, and eliding must never cut a figure.
            const int width = std::max({kFigureMinimumWidth, labelMetrics.horizontalAdvance(field.label),
                                        valueMetrics.horizontalAdvance(field.value)}) + 4;
            cells.push_back(Cell{QRect(x, 0, width, labelMetrics.height()),
                                 QRect(x, labelMetrics.height(), width, valueMetrics.height()), QRect()});
            x += width + kPairGap;
        }
        return cells;
    }
    const int rows = RowCount();
    const int lineHeight = LineHeight();
    const int noteHeight = QFontMetrics(NoteFont()).height();
    std::vector<int> tops(static_cast<std::size_t>(rows), 0);
    for (int row = 1; row < rows; ++row) {
        tops[static_cast<std::size_t>(row)] = tops[static_cast<std::size_t>(row - 1)] + lineHeight + kRowGap +
                                              (rowHasNote_[static_cast<std::size_t>(row - 1)] ? noteHeight : 0);
    }
    const int columnWidth = (width() - (pairs_ - 1) * kPairGap) / pairs_;
    for (std::size_t i = 0; i < fields_.size(); ++i) {
        const int column = static_cast<int>(i) / rows;
        const auto row = static_cast<std::size_t>(static_cast<int>(i) % rows);
        const int left = column * (columnWidth + kPairGap);
        const int top = tops[row];
        const int labelWidth = labelWidths_[static_cast<std::size_t>(column)];
        const int valueLeft = left + labelWidth + kLabelGap;
        const int valueWidth = std::max(0, left + columnWidth - valueLeft);
        cells.push_back(Cell{QRect(left, top, labelWidth, lineHeight), QRect(valueLeft, top, valueWidth, lineHeight),
                             rowHasNote_[row] ? QRect(valueLeft, top + lineHeight, valueWidth, noteHeight) : QRect()});
    }
    return cells;
}

QSize DetailFieldGrid::sizeHint() const {
    const int height = ContentHeight();
    if (style_ == Style::figures) {
        const std::vector<Cell> cells = Cells();
        return QSize(cells.empty() ? 0 : cells.back().value.right() + 1, height);
    }
    int width = 0;
    for (const int label : labelWidths_) width += label + kLabelGap + 160;
    return QSize(width + (pairs_ - 1) * kPairGap, height);
}

QSize DetailFieldGrid::minimumSizeHint() const {
    return QSize(0, sizeHint().height());
}

bool DetailFieldGrid::event(QEvent* event) {
    if (event->type() == QEvent::ToolTip) {
        auto* help = static_cast<QHelpEvent*>(event);
        const std::vector<Cell> cells = Cells();
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const QRect area = cells[i].label.united(cells[i].value).united(cells[i].note);
            if (!area.contains(help->pos())) continue;
            const DetailField& field = fields_[i];
            QString tip = field.label + QStringLiteral(": ") + field.value;
            if (!field.note.isEmpty()) tip += QLatin1Char('\n') + field.note;
            QToolTip::showText(help->globalPos(), tip, this, area);
            return true;
        }
        QToolTip::hideText();
        event->ignore();
        return true;
    }
    return QWidget::event(event);
}

void DetailFieldGrid::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::FontChange || event->type() == QEvent::StyleChange) {
        Measure();
        updateGeometry();
    }
}

void DetailFieldGrid::paintEvent(QPaintEvent* event) {
    const ShellColors& colors = CurrentShellColors();
    const QColor text = palette().color(QPalette::WindowText);
    QPainter painter(this);
    const QFont labelFont = LabelFont();
    const QFont valueFont = ValueFont();
    const QFont noteFont = NoteFont();
    const std::vector<Cell> cells = Cells();
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const DetailField& field = fields_[i];
        const Cell& cell = cells[i];
        if (!event->region().intersects(cell.label.united(cell.value).united(cell.note))) continue;
        painter.setFont(labelFont);
        painter.setPen(colors.mutedText);
        painter.drawText(cell.label, Qt::AlignLeft | Qt::AlignVCenter, field.label);
        painter.setFont(valueFont);
        painter.setPen(text);
        const QFontMetrics valueMetrics(valueFont);
        painter.drawText(cell.value, Qt::AlignLeft | Qt::AlignVCenter,
                         valueMetrics.elidedText(field.value, Qt::ElideRight, cell.value.width()));
        if (!field.note.isEmpty() && !cell.note.isEmpty()) {
            painter.setFont(noteFont);
            painter.setPen(colors.mutedText);
            painter.drawText(cell.note, Qt::AlignLeft | Qt::AlignTop,
                             QFontMetrics(noteFont).elidedText(field.note, Qt::ElideRight, cell.note.width()));
        }
    }
}

}  // namespace korv::host::linux_client
