#pragma once

#include "host/linux_client/detail_field.h"

#include <QFont>
#include <QWidget>

#include <vector>

namespace korv::host::linux_client {

// Label and value pairs, painted in one or more column pairs filled top to bottom; or, as figures,
// small labels over large values side by side. The widget paints its texts itself: values that
// change every tick cost a repaint of this widget and no relayout of the page. Its height follows
// the number of fields only. The tool tip over a value shows it whole, with its note.
class DetailFieldGrid : public QWidget {
    Q_OBJECT
public:
    enum class Style { fields, figures };

    explicit DetailFieldGrid(QWidget* parent = nullptr, Style style = Style::fields);

    void SetFields(const DetailFieldList& fields);
    const DetailFieldList& Fields() const { return fields_; }
    // 1 or more; the fields are split into this many columns of label and value.
    void SetColumnPairs(int pairs);
    int ColumnPairs() const { return pairs_; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    struct Cell {
        QRect label;
        QRect value;
        QRect note;
    };
    QFont LabelFont() const;
    QFont ValueFont() const;
    QFont NoteFont() const;
    int RowCount() const;
    int LineHeight() const;
    int ContentHeight() const;
    // Where each field is drawn at the current width.
    std::vector<Cell> Cells() const;
    void Measure();

    Style style_;
    DetailFieldList fields_;
    int pairs_ = 1;
    std::vector<int> labelWidths_;  // per column pair, the widest label
    std::vector<bool> rowHasNote_;  // per row: a note line under the values
};

}  // namespace korv::host::linux_client
