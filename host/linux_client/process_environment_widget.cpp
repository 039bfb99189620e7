#include "host/linux_client/process_environment_widget.h"

#include "host/linux_client/unit_formats.h"

#include <QApplication>
#include <QClipboard>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSortFilterProxyModel>
#include <QStackedWidget>
#include <QStandardItemModel>
#include <QTableView>
#include <QVBoxLayout>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("ProcessEnvironmentWidget", source);
}

}  // namespace

struct ProcessEnvironmentWidget::Impl {
    QLineEdit* filter = nullptr;
    QPushButton* copy = nullptr;
    QStackedWidget* stack = nullptr;
    QTableView* table = nullptr;
    QLabel* unavailable = nullptr;
    QStandardItemModel* model = nullptr;
    QSortFilterProxyModel* proxy = nullptr;

    QString EntryAt(const QModelIndex& proxyIndex) const {
        const QString name = proxy->index(proxyIndex.row(), 0).data().toString();
        const QString value = proxy->index(proxyIndex.row(), 1).data().toString();
        return name + QLatin1Char('=') + value;
    }
};

ProcessEnvironmentWidget::ProcessEnvironmentWidget(QWidget* parent) : QWidget(parent), impl_(std::make_unique<Impl>()) {
    setObjectName(QStringLiteral("ProcessEnvironmentWidget"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);

    auto* bar = new QHBoxLayout();
    bar->setSpacing(6);
    impl_->filter = new QLineEdit(this);
    impl_->filter->setObjectName(QStringLiteral("EnvironmentFilter"));
    impl_->filter->setPlaceholderText(Text("Filter environment"));
    impl_->filter->setClearButtonEnabled(true);
    impl_->copy = new QPushButton(Text("Copy"), this);
    impl_->copy->setObjectName(QStringLiteral("EnvironmentCopyButton"));
    impl_->copy->setEnabled(false);
    bar->addWidget(impl_->filter, 1);
    bar->addWidget(impl_->copy);
    layout->addLayout(bar);

    impl_->model = new QStandardItemModel(0, 2, this);
    impl_->model->setHorizontalHeaderLabels({Text("Variable"), Text("Value")});
    impl_->proxy = new QSortFilterProxyModel(this);
    impl_->proxy->setSourceModel(impl_->model);
    impl_->proxy->setFilterKeyColumn(-1);
    impl_->proxy->setFilterCaseSensitivity(Qt::CaseInsensitive);

    impl_->stack = new QStackedWidget(this);
    impl_->table = new QTableView(impl_->stack);
    impl_->table->setObjectName(QStringLiteral("EnvironmentTable"));
    impl_->table->setModel(impl_->proxy);
    impl_->table->setSelectionBehavior(QAbstractItemView::SelectRows);
    impl_->table->setSelectionMode(QAbstractItemView::SingleSelection);
    impl_->table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    impl_->table->setWordWrap(false);
    impl_->table->setTextElideMode(Qt::ElideRight);
    impl_->table->verticalHeader()->hide();
    impl_->table->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    impl_->table->verticalHeader()->setDefaultSectionSize(impl_->table->fontMetrics().height() + 8);
    impl_->table->horizontalHeader()->setStretchLastSection(true);
    impl_->table->horizontalHeader()->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    impl_->table->setColumnWidth(0, 180);
    impl_->unavailable = new QLabel(impl_->stack);
    impl_->unavailable->setObjectName(QStringLiteral("EnvironmentUnavailable"));
    impl_->unavailable->setAlignment(Qt::AlignCenter);
    impl_->stack->addWidget(impl_->table);
    impl_->stack->addWidget(impl_->unavailable);
    layout->addWidget(impl_->stack, 1);

    connect(impl_->filter, &QLineEdit::textChanged, this, [this](const QString& text) { SetFilterText(text); });
    connect(impl_->copy, &QPushButton::clicked, this, &ProcessEnvironmentWidget::CopySelected);
    connect(impl_->table->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            [this] { impl_->copy->setEnabled(!SelectedEntry().isEmpty()); });
}

ProcessEnvironmentWidget::~ProcessEnvironmentWidget() = default;

void ProcessEnvironmentWidget::SetEnvironment(const std::vector<std::string>& entries,
                                              core::MetricAvailability availability) {
    impl_->model->removeRows(0, impl_->model->rowCount());
    if (!core::CarriesValue(availability)) {
        impl_->unavailable->setText(availability == core::MetricAvailability::accessDenied
                                        ? QCoreApplication::translate("QObject", "Access denied")
                                        : QCoreApplication::translate("QObject", "Unavailable"));
        impl_->stack->setCurrentWidget(impl_->unavailable);
        impl_->filter->setEnabled(false);
        impl_->copy->setEnabled(false);
        return;
    }
    impl_->unavailable->clear();
    impl_->stack->setCurrentWidget(impl_->table);
    impl_->filter->setEnabled(true);
    impl_->model->setRowCount(static_cast<int>(entries.size()));
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const QString entry = QString::fromStdString(entries[i]);
        const qsizetype equals = entry.indexOf(QLatin1Char('='));
        const int row = static_cast<int>(i);
        auto* name = new QStandardItem(equals < 0 ? entry : entry.left(equals));
        auto* value = new QStandardItem(equals < 0 ? QString() : entry.mid(equals + 1));
        name->setToolTip(name->text());
        value->setToolTip(value->text());
        impl_->model->setItem(row, 0, name);
        impl_->model->setItem(row, 1, value);
    }
    impl_->copy->setEnabled(!SelectedEntry().isEmpty());
}

void ProcessEnvironmentWidget::SetFilterText(const QString& text) {
    if (impl_->filter->text() != text) {
        impl_->filter->setText(text);  // comes back here through textChanged
        return;
    }
    impl_->proxy->setFilterFixedString(text);
}

int ProcessEnvironmentWidget::VisibleRowCount() const {
    return impl_->stack->currentWidget() == impl_->table ? impl_->proxy->rowCount() : 0;
}

QString ProcessEnvironmentWidget::VisibleEntry(int row) const {
    if (row < 0 || row >= VisibleRowCount()) return {};
    return impl_->EntryAt(impl_->proxy->index(row, 0));
}

QString ProcessEnvironmentWidget::UnavailableText() const {
    return impl_->stack->currentWidget() == impl_->unavailable ? impl_->unavailable->text() : QString();
}

void ProcessEnvironmentWidget::SelectVisibleRow(int row) {
    if (row < 0 || row >= VisibleRowCount()) return;
    impl_->table->selectRow(row);
}

QString ProcessEnvironmentWidget::SelectedEntry() const {
    if (impl_->stack->currentWidget() != impl_->table) return {};
    const QModelIndexList rows = impl_->table->selectionModel()->selectedRows();
    if (rows.isEmpty()) return {};
    return impl_->EntryAt(rows.front());
}

void ProcessEnvironmentWidget::CopySelected() {
    const QString entry = SelectedEntry();
    if (!entry.isEmpty()) QApplication::clipboard()->setText(entry);
}

}  // namespace korv::host::linux_client
