#include "host/linux_client/cpu_core_grid_widget.h"

#include "host/linux_client/graph_widget.h"

#include <QGridLayout>
#include <QLabel>
#include <QEvent>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

namespace korv::host::linux_client {
namespace {

constexpr double kCellAspect = 1.8;
constexpr int kCellMinimumHeight = 36;

}  // namespace

CpuCoreGridWidget::CpuCoreGridWidget(QWidget* parent) : QWidget(parent) {
    setObjectName(QStringLiteral("CpuCoreGrid"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    heading_ = new QLabel(this);
    heading_->setObjectName(QStringLiteral("GraphHeading"));
    heading_->setTextFormat(Qt::PlainText);
    layout->addWidget(heading_);
    cellArea_ = new QWidget(this);
    grid_ = new QGridLayout(cellArea_);
    grid_->setContentsMargins(0, 0, 0, 0);
    grid_->setHorizontalSpacing(6);
    grid_->setVerticalSpacing(6);
    layout->addWidget(cellArea_, 1);
    cellArea_->installEventFilter(this);
}

CpuCoreGridWidget::~CpuCoreGridWidget() = default;

void CpuCoreGridWidget::SetHeading(const QString& heading) {
    if (heading_->text() != heading) heading_->setText(heading);
}

void CpuCoreGridWidget::SetCells(const QStringList& labels) {
    if (labels == labels_) return;
    labels_ = labels;
    for (QWidget* cell : cells_) {
        grid_->removeWidget(cell);
        delete cell;
    }
    cells_.clear();
    graphs_.clear();
    for (const QString& label : labels) {
        auto* cell = new QWidget(cellArea_);
        auto* cellLayout = new QVBoxLayout(cell);
        cellLayout->setContentsMargins(0, 0, 0, 0);
        cellLayout->setSpacing(2);
        auto* caption = new QLabel(label, cell);
        caption->setObjectName(QStringLiteral("GraphCellCaption"));
        caption->setTextFormat(Qt::PlainText);
        cellLayout->addWidget(caption);
        auto* graph = new GraphWidget(cell);
        graph->SetMini(true);
        graph->setMinimumHeight(kCellMinimumHeight);
        graph->setAccessibleName(label);
        cellLayout->addWidget(graph, 1);
        cells_.push_back(cell);
        graphs_.push_back(graph);
    }
    columns_ = 0;
    Arrange();
}

int CpuCoreGridWidget::CellCount() const {
    return static_cast<int>(graphs_.size());
}

GraphWidget* CpuCoreGridWidget::Graph(int index) const {
    return index >= 0 && index < CellCount() ? graphs_[static_cast<std::size_t>(index)] : nullptr;
}

int CpuCoreGridWidget::ColumnsFor(int count, QSize size, double aspect) {
    if (count <= 1) return 1;
    const double width = std::max(size.width(), 1);
    const double height = std::max(size.height(), 1);
    int best = 1;
    double bestScore = -1.0;
    for (int columns = 1; columns <= count; ++columns) {
        const int rows = (count + columns - 1) / columns;
        // The height a cell of the wanted shape can have in this arrangement.
        const double score = std::min(width / columns / aspect, height / rows);
        if (score > bestScore + 1e-9) {
            bestScore = score;
            best = columns;
        }
    }
    return best;
}

void CpuCoreGridWidget::Arrange() {
    const int columns = ColumnsFor(CellCount(), cellArea_->size(), kCellAspect);
    if (columns == columns_) return;
    columns_ = columns;
    for (QWidget* cell : cells_) grid_->removeWidget(cell);
    for (int i = 0; i < CellCount(); ++i) {
        grid_->addWidget(cells_[static_cast<std::size_t>(i)], i / columns, i % columns);
    }
    for (int c = 0; c < grid_->columnCount(); ++c) grid_->setColumnStretch(c, c < columns ? 1 : 0);
    const int rows = (CellCount() + columns - 1) / columns;
    for (int r = 0; r < grid_->rowCount(); ++r) grid_->setRowStretch(r, r < rows ? 1 : 0);
}

bool CpuCoreGridWidget::eventFilter(QObject* watched, QEvent* event) {
    if (watched == cellArea_ && event->type() == QEvent::Resize) Arrange();
    return QWidget::eventFilter(watched, event);
}

}  // namespace korv::host::linux_client
