#include "host/linux_client/summary_top_lists.h"

#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>
#include <QFontMetrics>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

#include <algorithm>
#include <optional>
#include <cmath>

namespace korv::host::linux_client {

namespace {

std::optional<double> ValueOf(const core::ProcessSnapshot& process, TopListKind kind) {
    if (kind == TopListKind::cpu) {
        if (!core::CarriesValue(process.cpuPercent.availability) || !process.cpuPercent.value) return std::nullopt;
        return *process.cpuPercent.value;
    }
    if (!core::CarriesValue(process.workingSetBytes.availability) || !process.workingSetBytes.value) return std::nullopt;
    return static_cast<double>(*process.workingSetBytes.value);
}

QString Tr(const char* text) { return QCoreApplication::translate("QMainWindow", text); }

}  // namespace

std::vector<TopProcessRow> TopProcessRows(const core::SystemSnapshot& snapshot, TopListKind kind, int limit,
                                          std::uint32_t hiddenPid) {
    std::vector<TopProcessRow> rows;
    for (const core::ProcessSnapshot& process : snapshot.processes) {
        if (hiddenPid != 0 && process.key.pid == hiddenPid) continue;
        const std::optional<double> value = ValueOf(process, kind);
        if (!value || !std::isfinite(*value) || *value < 0.0) continue;
        TopProcessRow row;
        row.pid = process.key.pid;
        row.name = process.name.empty() ? Tr("PID %1").arg(process.key.pid) : QString::fromStdString(process.name);
        row.value = *value;
        rows.push_back(std::move(row));
    }
    const std::size_t keep = static_cast<std::size_t>(std::clamp(limit, 0, kMaximumTopRows));
    const auto higher = [](const TopProcessRow& a, const TopProcessRow& b) {
        return a.value != b.value ? a.value > b.value : a.pid < b.pid;
    };
    if (rows.size() > keep) {
        std::partial_sort(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(keep), rows.end(), higher);
        rows.resize(keep);
    } else {
        std::sort(rows.begin(), rows.end(), higher);
    }
    return rows;
}

struct SummaryTopList::Impl {
    TopListKind kind = TopListKind::cpu;
    int rowLimit = 10;
    std::optional<int> listed;  // rows shown; none before the first snapshot
    QPushButton* heading = nullptr;
    QLabel* average = nullptr;
    QTableWidget* table = nullptr;
    std::function<void()> onHeading;

    QString Heading() const {
        const int count = listed.value_or(rowLimit);
        return kind == TopListKind::cpu ? Tr("Top %1 CPU Processes").arg(count) : Tr("Top %1 Mem Processes").arg(count);
    }
};

SummaryTopList::SummaryTopList(TopListKind kind, QWidget* parent) : QWidget(parent), impl_(std::make_unique<Impl>()) {
    impl_->kind = kind;
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(4);
    auto* top = new QHBoxLayout;
    impl_->heading = new QPushButton(impl_->Heading(), this);
    impl_->heading->setFlat(true);
    impl_->heading->setCursor(Qt::PointingHandCursor);
    impl_->heading->setToolTip(Tr("Show the Processes page"));
    impl_->heading->setStyleSheet(QStringLiteral("QPushButton { font-weight: 600; text-align: left; padding: 0; border: none; }"));
    connect(impl_->heading, &QPushButton::clicked, this, [this] {
        if (impl_->onHeading) impl_->onHeading();
    });
    impl_->average = new QLabel(this);
    impl_->average->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    top->addWidget(impl_->heading);
    top->addStretch();
    top->addWidget(impl_->average);
    layout->addLayout(top);

    impl_->table = new QTableWidget(0, 3, this);
    impl_->table->setHorizontalHeaderLabels(
        {Tr("PID"), Tr("Name"), kind == TopListKind::cpu ? Tr("CPU") : Tr("Memory")});
    impl_->table->horizontalHeader()->setStyleSheet(
        QStringLiteral("QHeaderView::section { font-size: %1pt; padding: 2px 7px; }").arg(9));
    // Widths fitted once to the widest figure a column can hold: fitting them to the contents
    // would lay out every cell's text again each time a value changes, every second.
    QHeaderView* header = impl_->table->horizontalHeader();
    const QFontMetrics metrics(impl_->table->font());
    const int padding = 2 * 7 + 8;
    header->setMinimumSectionSize(24);
    header->setSectionResizeMode(0, QHeaderView::Fixed);
    header->resizeSection(0, metrics.horizontalAdvance(QStringLiteral("4194304")) + padding);
    header->setSectionResizeMode(1, QHeaderView::Stretch);
    header->setSectionResizeMode(2, QHeaderView::Fixed);
    const QString widestValue = kind == TopListKind::cpu ? QStringLiteral("9999.9%") : QStringLiteral("1023.9 MB");
    const QString title = impl_->table->horizontalHeaderItem(2)->text();
    header->resizeSection(2, std::max(metrics.horizontalAdvance(widestValue), metrics.horizontalAdvance(title)) + padding);
    impl_->table->verticalHeader()->hide();
    impl_->table->verticalHeader()->setDefaultSectionSize(20);
    impl_->table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    impl_->table->setSelectionMode(QAbstractItemView::NoSelection);
    impl_->table->setFocusPolicy(Qt::NoFocus);
    impl_->table->setShowGrid(false);
    impl_->table->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    impl_->table->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    layout->addWidget(impl_->table, 1);
}

SummaryTopList::~SummaryTopList() = default;

void SummaryTopList::SetRows(const std::vector<TopProcessRow>& rows) {
    QTableWidget* table = impl_->table;
    const int count = static_cast<int>(std::min<std::size_t>(rows.size(), static_cast<std::size_t>(impl_->rowLimit)));
    table->setRowCount(count);
    impl_->listed = count;
    const QString heading = impl_->Heading();
    if (impl_->heading->text() != heading) impl_->heading->setText(heading);
    for (int i = 0; i < count; ++i) {
        const TopProcessRow& row = rows[static_cast<std::size_t>(i)];
        const QString value = impl_->kind == TopListKind::cpu ? FormatPercent(row.value)
                                                              : FormatBytes(static_cast<std::uint64_t>(row.value));
        const QString texts[3] = {QString::number(row.pid), row.name, value};
        for (int column = 0; column < 3; ++column) {
            QTableWidgetItem* item = table->item(i, column);
            if (!item) {
                item = new QTableWidgetItem;
                if (column != 1) item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
                table->setItem(i, column, item);
            }
            if (item->text() != texts[column]) item->setText(texts[column]);
        }
    }
}

void SummaryTopList::SetAverage(const QString& text) { impl_->average->setText(text); }

void SummaryTopList::SetRowLimit(int rows) {
    impl_->rowLimit = std::clamp(rows, 1, kMaximumTopRows);
    impl_->heading->setText(impl_->Heading());
}

int SummaryTopList::RowLimit() const { return impl_->rowLimit; }
void SummaryTopList::SetOnHeadingClicked(std::function<void()> callback) { impl_->onHeading = std::move(callback); }
QString SummaryTopList::HeadingText() const { return impl_->heading->text(); }
QString SummaryTopList::AverageText() const { return impl_->average->text(); }
QTableWidget* SummaryTopList::Table() const { return impl_->table; }

}  // namespace korv::host::linux_client
