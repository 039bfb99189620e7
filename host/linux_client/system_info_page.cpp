#include "host/linux_client/system_info_page.h"

#include "core/atomic_file.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QFileDialog>
#include <QHeaderView>
#include <QHBoxLayout>
#include <QMenu>
#include <QMessageBox>
#include <QScrollBar>
#include <QSplitter>
#include <QStandardPaths>
#include <QTreeWidget>

#include <filesystem>

namespace korv::host::linux_client {
namespace {

constexpr int kCategoryIdRole = Qt::UserRole + 1;
constexpr int kRowTextRole = Qt::UserRole + 2;

QString PageTr(const char* text) {
    return QCoreApplication::translate("SystemInfoPage", text);
}

void SetRowTexts(QTreeWidgetItem* item, const SystemInfoRow& row) {
    if (item->text(0) != row.label) item->setText(0, row.label);
    if (item->text(1) != row.value) {
        item->setText(1, row.value);
        item->setToolTip(1, row.value);
    }
    const QString text = SystemInfoRowText(row);
    if (item->data(0, kRowTextRole).toString() != text) item->setData(0, kRowTextRole, text);
}

// Brings the items under `parent` (the tree's top level when null) to `rows`, place by place: the
// items that stay are the same objects, so the selection, the current item and each heading's
// folded state survive a sample. Only items made here are unfolded.
void SyncRows(QTreeWidget* tree, QTreeWidgetItem* parent, const std::vector<SystemInfoRow>& rows) {
    const auto count = [&] { return parent ? parent->childCount() : tree->topLevelItemCount(); };
    const auto at = [&](int i) { return parent ? parent->child(i) : tree->topLevelItem(i); };
    while (count() > static_cast<int>(rows.size())) delete at(count() - 1);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const int place = static_cast<int>(i);
        const bool made = place >= count();
        QTreeWidgetItem* item = made ? (parent ? new QTreeWidgetItem(parent) : new QTreeWidgetItem(tree)) : at(place);
        SetRowTexts(item, rows[i]);
        SyncRows(tree, item, rows[i].children);
        if (made && !rows[i].children.empty()) item->setExpanded(true);
    }
}

}  // namespace

struct SystemInfoPage::Impl {
    SystemInfoPage* page = nullptr;
    PageEnvironment environment;
    std::shared_ptr<const core::SystemSnapshot> snapshot;
    SystemInfoCatalog catalog;
    QTreeWidget* categories = nullptr;
    QTreeWidget* rows = nullptr;
    QString currentId = QStringLiteral("hardware-overview");
    std::function<QString(const QString&)> chooser;

    void Rebuild();
    void FillCategories();
    void FillRows(bool fresh);
    void Export(const QString& text);
};

void SystemInfoPage::Impl::FillCategories() {
    const QSignalBlocker blocker(categories);
    categories->clear();
    QTreeWidgetItem* group = nullptr;
    for (const SystemInfoCategory& category : catalog.categories) {
        if (!group || group->text(0) != category.group) {
            group = new QTreeWidgetItem(categories);
            group->setText(0, category.group);
            group->setFlags(Qt::ItemIsEnabled);
            QFont font = group->font(0);
            font.setBold(true);
            group->setFont(0, font);
        }
        auto* item = new QTreeWidgetItem(group);
        item->setText(0, category.title);
        item->setData(0, kCategoryIdRole, category.id);
        if (category.id == currentId) categories->setCurrentItem(item);
    }
    categories->expandAll();
}

void SystemInfoPage::Impl::FillRows(bool fresh) {
    if (fresh) rows->clear();
    const SystemInfoCategory* category = catalog.Find(currentId);
    SyncRows(rows, nullptr, category ? category->rows : std::vector<SystemInfoRow>{});
}

void SystemInfoPage::Impl::Rebuild() {
    catalog = BuildSystemInfoCatalog(snapshot ? *snapshot : core::SystemSnapshot{});
    if (categories->topLevelItemCount() == 0) FillCategories();
    FillRows(false);
}

void SystemInfoPage::Impl::Export(const QString& text) {
    const QString defaultName = QStringLiteral("KORV-system-info.txt");
    QString path;
    if (chooser) {
        path = chooser(defaultName);
    } else {
        const QString folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
        path = QFileDialog::getSaveFileName(page, PageTr("Export System Information"),
                                            QDir(folder).filePath(defaultName), PageTr("Text files (*.txt)"));
    }
    if (path.isEmpty()) return;
    if (const std::optional<QString> error = WriteExport(path, text)) {
        QMessageBox::warning(page, PageTr("Export failed"), *error);
    } else if (environment.showStatus) {
        environment.showStatus(PageTr("Exported to %1").arg(QDir::toNativeSeparators(path)));
    }
}

SystemInfoPage::SystemInfoPage(PageEnvironment environment, QWidget* parent)
    : SnapshotPage(parent), impl_(std::make_unique<Impl>()) {
    setObjectName(QStringLiteral("SystemInfoPage"));
    impl_->page = this;
    impl_->environment = std::move(environment);

    auto* splitter = new QSplitter(Qt::Horizontal, this);
    impl_->categories = new QTreeWidget(splitter);
    impl_->categories->setObjectName(QStringLiteral("SystemInfoCategories"));
    impl_->categories->setHeaderHidden(true);
    impl_->categories->setRootIsDecorated(false);
    impl_->categories->setContextMenuPolicy(Qt::CustomContextMenu);
    impl_->rows = new QTreeWidget(splitter);
    impl_->rows->setObjectName(QStringLiteral("SystemInfoRows"));
    impl_->rows->setColumnCount(2);
    impl_->rows->setHeaderLabels({PageTr("Item"), PageTr("Value")});
    impl_->rows->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    impl_->rows->header()->setStretchLastSection(true);
    impl_->rows->setAlternatingRowColors(true);
    impl_->rows->setContextMenuPolicy(Qt::CustomContextMenu);
    impl_->rows->setSelectionMode(QAbstractItemView::SingleSelection);
    splitter->setStretchFactor(0, 0);
    splitter->setStretchFactor(1, 1);
    splitter->setSizes({220, 640});

    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(splitter);

    connect(impl_->categories, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) {
        if (!item) return;
        const QString id = item->data(0, kCategoryIdRole).toString();
        if (id.isEmpty() || id == impl_->currentId) return;
        impl_->currentId = id;
        impl_->FillRows(true);
        impl_->rows->verticalScrollBar()->setValue(0);
    });
    for (QTreeWidget* view : {impl_->categories, impl_->rows}) {
        connect(view, &QWidget::customContextMenuRequested, this, [this, view](const QPoint& position) {
            QMenu* menu = BuildContextMenu(view, position);
            menu->exec(view->viewport()->mapToGlobal(position));
            delete menu;
        });
    }
    impl_->Rebuild();
}

SystemInfoPage::~SystemInfoPage() = default;

void SystemInfoPage::ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    impl_->snapshot = snapshot;
    impl_->Rebuild();
}

void SystemInfoPage::SettingsChanged() {
    impl_->Rebuild();
}

void SystemInfoPage::ShowCategory(const QString& id) {
    if (!impl_->catalog.Find(id)) return;
    for (int g = 0; g < impl_->categories->topLevelItemCount(); ++g) {
        QTreeWidgetItem* group = impl_->categories->topLevelItem(g);
        for (int c = 0; c < group->childCount(); ++c) {
            if (group->child(c)->data(0, kCategoryIdRole).toString() == id) {
                impl_->categories->setCurrentItem(group->child(c));
            }
        }
    }
}

QString SystemInfoPage::CurrentCategoryId() const {
    return impl_->currentId;
}

const SystemInfoCatalog& SystemInfoPage::Catalog() const {
    return impl_->catalog;
}

QMenu* SystemInfoPage::BuildContextMenu(QWidget* view, const QPoint& position) {
    auto* menu = new QMenu(this);
    const SystemInfoCategory* category = impl_->catalog.Find(impl_->currentId);
    QString copyText;
    if (view == impl_->rows) {
        if (QTreeWidgetItem* item = impl_->rows->itemAt(position)) {
            impl_->rows->setCurrentItem(item);
            copyText = item->data(0, kRowTextRole).toString();
            menu->addAction(PageTr("Copy"), this, [copyText] { QApplication::clipboard()->setText(copyText); });
        }
    } else if (QTreeWidgetItem* item = impl_->categories->itemAt(position)) {
        const SystemInfoCategory* clicked = impl_->catalog.Find(item->data(0, kCategoryIdRole).toString());
        if (clicked) {
            category = clicked;
            copyText = SystemInfoCategoryText(*clicked);
            menu->addAction(PageTr("Copy section"), this, [copyText] { QApplication::clipboard()->setText(copyText); });
        }
    }
    menu->addAction(PageTr("Copy all"), this,
                    [this] { QApplication::clipboard()->setText(SystemInfoCatalogText(impl_->catalog)); });
    const QString categoryText = category ? SystemInfoCategoryText(*category) : QString();
    QAction* exportCategory =
        menu->addAction(PageTr("Export category…"), this, [this, categoryText] { impl_->Export(categoryText); });
    exportCategory->setEnabled(category != nullptr);
    menu->addAction(PageTr("Export all system information…"), this,
                    [this] { impl_->Export(SystemInfoCatalogText(impl_->catalog)); });
    return menu;
}

void SystemInfoPage::SetExportPathChooser(std::function<QString(const QString&)> chooser) {
    impl_->chooser = std::move(chooser);
}

std::optional<QString> SystemInfoPage::WriteExport(const QString& path, const QString& text) {
    const QByteArray bytes = text.toUtf8();
    const std::optional<std::string> error = core::WriteFileAtomically(
        std::filesystem::path(path.toStdString()), std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())));
    if (!error) return std::nullopt;
    return QString::fromStdString(*error);
}

}  // namespace korv::host::linux_client
