#include "host/linux_client/process_tree_view.h"

#include "host/linux_client/process_item_delegate.h"

#include "host/linux_client/process_table_columns.h"

#include <QElapsedTimer>
#include <QHeaderView>
#include <QKeyEvent>
#include <QMenu>
#include <QPaintEvent>
#include <QPainter>

#include <algorithm>
#include <memory>
#include <vector>

namespace korv::host::linux_client {
namespace {

constexpr std::string_view kHeaderStateKey = "processesColumnOrder";
constexpr std::int64_t kTypeAheadPauseMs = 1200;

}  // namespace

ProcessTreeView::ProcessTreeView(QAbstractItemModel& model, core::Settings* settings,
                                 std::function<void()> settingsChanged, QWidget* parent)
    : QTreeView(parent), settings_(settings), settingsChanged_(std::move(settingsChanged)) {
    auto timer = std::make_shared<QElapsedTimer>();
    timer->start();
    clock_ = [timer] { return timer->elapsed(); };

    setSelectionBehavior(QAbstractItemView::SelectRows);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setAlternatingRowColors(false);
    setUniformRowHeights(true);
    setRootIsDecorated(true);
    // Process trees run deep (shells, build tools, sandboxes): a narrow step keeps names readable.
    setIndentation(14);
    setItemsExpandable(true);
    setContextMenuPolicy(Qt::CustomContextMenu);
    setItemDelegate(new ProcessItemDelegate([this]() -> const QRegion& { return paintRegion_; }, this));
    setModel(&model);

    QHeaderView* columns = header();
    columns->setSectionsMovable(true);
    columns->setFirstSectionMovable(true);
    columns->setSectionResizeMode(QHeaderView::Interactive);
    columns->setStretchLastSection(true);
    columns->setHighlightSections(false);
    columns->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    for (int column = 0; column < kProcessTableColumnCount; ++column) {
        columns->resizeSection(column, ProcessTableColumnInitialWidth(column));
    }
    columns->setSortIndicator(static_cast<int>(ProcessTableColumn::memory), Qt::DescendingOrder);
    RestoreHeaderState();
    ApplyColumnSettings();
    setSortingEnabled(true);
    connect(columns, &QHeaderView::sectionMoved, this, [this] { SaveHeaderState(); });
    connect(columns, &QHeaderView::sectionResized, this,
            [this](int column, int, int width) { SaveColumnWidth(column, width); });
    columns->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(columns, &QHeaderView::customContextMenuRequested, this, &ProcessTreeView::ShowHeaderMenu);
}

void ProcessTreeView::ApplyColumnSettings() {
    if (settings_ == nullptr) return;
    applyingColumns_ = true;
    QHeaderView* columns = header();
    for (const auto& [name, width] : settings_->processTableColumnWidths) {
        const std::optional<int> column = ProcessTableColumnFromName(QString::fromStdString(name));
        // The last column stretches to the end of the header; a stored width there means nothing.
        if (!column || *column == kProcessTableColumnCount - 1 || width == 0) continue;
        columns->resizeSection(*column, static_cast<int>(std::min<std::uint32_t>(width, 4096)));
    }
    for (int column = 0; column < kProcessTableColumnCount; ++column) columns->setSectionHidden(column, false);
    for (const std::string& name : settings_->processTableHiddenColumns) {
        const std::optional<int> column = ProcessTableColumnFromName(QString::fromStdString(name));
        if (column && *column != static_cast<int>(ProcessTableColumn::name)) columns->setSectionHidden(*column, true);
    }
    applyingColumns_ = false;
}

void ProcessTreeView::SaveColumnWidth(int column, int width) {
    if (settings_ == nullptr || applyingColumns_ || width <= 0 || column == kProcessTableColumnCount - 1) return;
    const QString name = ProcessTableColumnName(column);
    if (name.isEmpty()) return;
    auto& widths = settings_->processTableColumnWidths;
    const auto stored = widths.find(name.toStdString());
    if (stored != widths.end() && stored->second == static_cast<std::uint32_t>(width)) return;
    widths[name.toStdString()] = static_cast<std::uint32_t>(width);
    if (settingsChanged_) settingsChanged_();
}

void ProcessTreeView::SetColumnHidden(int column, bool hidden) {
    if (column < 0 || column >= kProcessTableColumnCount || column == static_cast<int>(ProcessTableColumn::name)) return;
    applyingColumns_ = true;  // hiding reports the section as resized to nothing
    header()->setSectionHidden(column, hidden);
    applyingColumns_ = false;
    if (settings_ == nullptr) return;
    std::vector<std::string> names;
    for (int c = 0; c < kProcessTableColumnCount; ++c) {
        if (header()->isSectionHidden(c)) names.push_back(ProcessTableColumnName(c).toStdString());
    }
    if (names == settings_->processTableHiddenColumns) return;
    settings_->processTableHiddenColumns = std::move(names);
    if (settingsChanged_) settingsChanged_();
}

void ProcessTreeView::ShowHeaderMenu(const QPoint& position) {
    auto* menu = new QMenu(this);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    for (int column = 0; column < kProcessTableColumnCount; ++column) {
        QAction* action = menu->addAction(model()->headerData(column, Qt::Horizontal, Qt::DisplayRole).toString());
        action->setCheckable(true);
        action->setChecked(!header()->isSectionHidden(column));
        action->setEnabled(column != static_cast<int>(ProcessTableColumn::name));
        connect(action, &QAction::toggled, this, [this, column](bool shown) { SetColumnHidden(column, !shown); });
    }
    menu->popup(header()->viewport()->mapToGlobal(position));
}

ProcessTreeView::~ProcessTreeView() = default;

void ProcessTreeView::paintEvent(QPaintEvent* event) {
    paintRegion_ = event->region();
    QTreeView::paintEvent(event);
    paintRegion_ = QRegion();
}

void ProcessTreeView::SaveHeaderState() {
    if (settings_ == nullptr) return;
    const QByteArray state = header()->saveState().toBase64();
    core::WriteStringPreference(*settings_, kHeaderStateKey, state.toStdString());
    if (settingsChanged_) settingsChanged_();
}

bool ProcessTreeView::RestoreHeaderState() {
    if (settings_ == nullptr) return false;
    const std::string text = core::StringPreference(*settings_, kHeaderStateKey, "");
    if (text.empty()) return false;
    const auto decoded = QByteArray::fromBase64Encoding(QByteArray::fromStdString(text),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded) return false;
    // The header checks the state itself and leaves everything as it was when it is unusable.
    return header()->restoreState(*decoded);
}

void ProcessTreeView::DeferLayout() {
    scheduleDelayedItemsLayout();
    layoutDeferred_ = true;
}

bool ProcessTreeView::LayoutPending() const {
    return layoutDeferred_;
}

void ProcessTreeView::doItemsLayout() {
    layoutDeferred_ = false;
    QTreeView::doItemsLayout();
}

QString ProcessTreeView::TypeAheadText() const {
    return typeAhead_;
}

void ProcessTreeView::SetTypeAheadClock(std::function<std::int64_t()> clock) {
    clock_ = std::move(clock);
}

void ProcessTreeView::drawBranches(QPainter* painter, const QRect& rect, const QModelIndex& index) const {
    const QVariant background = index.sibling(index.row(), 0).data(Qt::BackgroundRole);
    if (background.canConvert<QBrush>()) painter->fillRect(rect, background.value<QBrush>());
    QTreeView::drawBranches(painter, rect, index);
}

void ProcessTreeView::keyPressEvent(QKeyEvent* event) {
    const Qt::KeyboardModifiers modifiers = event->modifiers() & ~(Qt::ShiftModifier | Qt::KeypadModifier);
    if (modifiers != Qt::NoModifier) {
        QTreeView::keyPressEvent(event);
        return;
    }
    const std::int64_t now = clock_();
    if (now - lastKeyMs_ > kTypeAheadPauseMs) typeAhead_.clear();

    if (event->key() == Qt::Key_Backspace && !typeAhead_.isEmpty()) {
        typeAhead_.chop(1);
        lastKeyMs_ = now;
        event->accept();
        return;
    }
    const QString text = event->text();
    const bool printable =
        !text.isEmpty() && std::all_of(text.begin(), text.end(), [](QChar c) { return c.isPrint(); });
    if (!printable) {
        QTreeView::keyPressEvent(event);
        return;
    }
    lastKeyMs_ = now;
    event->accept();
    if (typeAhead_.isEmpty() && text.trimmed().isEmpty()) return;
    // The same single character again keeps the buffer, and so steps to the next match.
    const bool repeat = typeAhead_.size() == 1 && text.compare(typeAhead_, Qt::CaseInsensitive) == 0;
    if (!repeat) typeAhead_ += text;
    TypeAheadSearch();
}

void ProcessTreeView::TypeAheadSearch() {
    QAbstractItemModel* rows = model();
    if (rows == nullptr) return;
    std::vector<QModelIndex> visible;
    for (QModelIndex row = rows->index(0, 0, rootIndex()); row.isValid(); row = indexBelow(row)) {
        visible.push_back(row);
    }
    if (visible.empty()) return;
    const QModelIndex current = currentIndex().sibling(currentIndex().row(), 0);
    const auto found = std::find(visible.begin(), visible.end(), current);
    // Every visible row once, round from the row behind the current one. A longer text that still
    // fits the current row keeps it: typing on must not hop between "firefox" and "firefox-bin".
    std::size_t start = 0;
    if (found != visible.end()) {
        start = static_cast<std::size_t>(found - visible.begin());
        if (typeAhead_.size() == 1) ++start;
    }
    for (std::size_t step = 0; step < visible.size(); ++step) {
        const QModelIndex& candidate = visible[(start + step) % visible.size()];
        if ((rows->flags(candidate) & Qt::ItemIsSelectable) == 0) continue;
        if (!rows->data(candidate, kProcessSortRole).toString().startsWith(typeAhead_, Qt::CaseInsensitive)) continue;
        selectionModel()->setCurrentIndex(candidate, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
        scrollTo(candidate);
        return;
    }
}

}  // namespace korv::host::linux_client
