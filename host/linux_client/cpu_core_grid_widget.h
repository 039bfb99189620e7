#pragma once

#include <QString>
#include <QStringList>
#include <QWidget>

#include <vector>

class QGridLayout;
class QLabel;

namespace korv::host::linux_client {

class GraphWidget;

// A grid of small history graphs under one heading: one cell per logical processor for the CPU's
// expanded view, or one per engine for a GPU. Cells are made again only when their labels change;
// the column count follows the widget's shape so that cells stay wider than high. GUI thread only.
class CpuCoreGridWidget : public QWidget {
    Q_OBJECT
public:
    explicit CpuCoreGridWidget(QWidget* parent = nullptr);
    ~CpuCoreGridWidget() override;

    void SetHeading(const QString& heading);
    // One cell per label, in order ("CPU 0", "CPU 1", ... or the engine names).
    void SetCells(const QStringList& labels);
    int CellCount() const;
    QStringList CellLabels() const { return labels_; }
    GraphWidget* Graph(int index) const;
    int ColumnCount() const { return columns_; }

    // The column count that makes `count` cells of about `aspect` (width / height) fill `size` best.
    static int ColumnsFor(int count, QSize size, double aspect);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void Arrange();

    QLabel* heading_;
    QWidget* cellArea_;
    QGridLayout* grid_;
    QStringList labels_;
    std::vector<QWidget*> cells_;
    std::vector<GraphWidget*> graphs_;
    int columns_ = 0;
};

}  // namespace korv::host::linux_client
