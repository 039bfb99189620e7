#include "host/linux_client/processes_page.h"

#include "host/linux_client/detail_pane_widget.h"

#include "host/linux_client/process_filter_proxy_model.h"
#include "host/linux_client/process_row.h"
#include "host/linux_client/process_table_model.h"
#include "host/linux_client/process_tree_view.h"
#include "host/linux_client/vanished_process_tracker.h"

#include <QBrush>
#include <QCoreApplication>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QShortcut>
#include <QSplitter>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>
#include <array>
#include <cmath>
#include <unordered_map>

namespace korv::host::linux_client {
namespace {

using core::ProcessKey;

constexpr std::string_view kShowMemoryPercentKey = "showMemoryPercent";
constexpr int kMinimumTickMs = 33;

struct PageSettings {
    bool tree = true;
    bool smoothCpu = true;
    bool showExited = true;
    bool showMemoryPercent = false;
    bool showSelf = false;
    std::uint32_t frameRate = 60;
};

PageSettings ReadPageSettings(const core::Settings* settings) {
    PageSettings read;
    if (settings == nullptr) return read;
    read.tree = core::ReadBoolPreference(*settings, core::kProcessTreeEnabled);
    read.smoothCpu = core::ReadBoolPreference(*settings, core::kSmoothProcessCpu);
    read.showExited = core::ReadBoolPreference(*settings, core::kShowExitedProcesses);
    read.showMemoryPercent = core::ReadBoolPreference(*settings, kShowMemoryPercentKey, false);
    read.showSelf = settings->showSelfInReports;
    read.frameRate = settings->visualFrameRate;
    return read;
}

// Whether a key is among a snapshot's processes or exited records.
class AliveKeys {
public:
    AliveKeys(const core::SystemSnapshot& snapshot, const std::vector<core::ExitedProcessRecord>& exited)
        : snapshot_(snapshot), exited_(exited) {
        sorted_ = std::is_sorted(snapshot.processes.begin(), snapshot.processes.end(),
                                 [](const auto& a, const auto& b) { return a.key < b.key; });
    }

    bool Contains(const ProcessKey& key) const {
        const auto& processes = snapshot_.processes;
        if (sorted_) {
            const auto found = std::lower_bound(processes.begin(), processes.end(), key,
                                                [](const auto& process, const auto& wanted) { return process.key < wanted; });
            if (found != processes.end() && found->key == key) return true;
        } else if (std::any_of(processes.begin(), processes.end(), [&key](const auto& p) { return p.key == key; })) {
            return true;
        }
        return std::any_of(exited_.begin(), exited_.end(), [&key](const auto& r) { return r.process.key == key; });
    }

private:
    const core::SystemSnapshot& snapshot_;
    const std::vector<core::ExitedProcessRecord>& exited_;
    bool sorted_ = false;
};

}  // namespace

struct ProcessesPage::Impl {
    Impl(ProcessesPage& owner, PageEnvironment environment)
        : page(owner),
          env(std::move(environment)),
          model(new ProcessTableModel(&owner)),
          proxy(new ProcessFilterProxyModel(*model, &owner)),
          view(new ProcessTreeView(*proxy, env.settings, env.settingsChanged, &owner)),
          glowTimer(new QTimer(&owner)) {}

    ProcessesPage& page;
    PageEnvironment env;
    ProcessTableModel* model;
    ProcessFilterProxyModel* proxy;
    ProcessTreeView* view;
    QTimer* glowTimer;

    PageSettings settings;
    double cpuScale = 1.0;
    std::set<ProcessKey> collapsedKeys;
    std::shared_ptr<const core::SystemSnapshot> current;
    VanishedProcessTracker vanished;
    bool allRecordsTaken = true;

    // The shade each glowing cell (CPU, memory) and washed row was last repainted with: a frame in
    // which the shade stays the same needs no paint. A faint glow keeps one shade for several frames.
    std::unordered_map<ProcessKey, std::array<int, 3>, core::ProcessKeyHash> paintedAlpha;

    DetailPaneWidget* details = nullptr;

    std::function<void(const QPoint&)> contextMenuHandler;
    std::function<void()> deleteHandler;
    std::function<void(const ProcessKey&, bool)> activateHandler;

    void ApplySettings(const PageSettings& next, bool first);
    void Refresh(const std::shared_ptr<const core::SystemSnapshot>& snapshot);
    std::optional<ProcessKey> KeyOfProxyIndex(const QModelIndex& proxyIndex) const;
    QModelIndex ProxyIndexForKey(const ProcessKey& key, int column = 0) const;
    void ExpandAfterReset();
    void SpanGroupHeaders();
    void ExpandInserted(const QModelIndex& parent, int first, int last);
    void RestoreSelection(const std::vector<ProcessKey>& selected, const std::optional<ProcessKey>& currentKey,
                          bool scroll);
    void UpdateGlowTimer();
    void UpdateDetails();
    std::set<ProcessKey> KeysWithChildren() const;
};

void ProcessesPage::Impl::UpdateDetails() {
    const std::vector<ProcessKey> keys = page.SelectedProcessKeys();
    const core::ProcessSnapshot* record = keys.size() == 1 ? model->RowSnapshot(model->IndexForKey(keys.front())) : nullptr;
    if (record == nullptr) {
        if (details->HasSelection()) details->ClearSelection();
        return;
    }
    details->ShowProcess(*record);
}

std::optional<ProcessKey> ProcessesPage::Impl::KeyOfProxyIndex(const QModelIndex& proxyIndex) const {
    return model->RowKey(proxy->mapToSource(proxyIndex));
}

QModelIndex ProcessesPage::Impl::ProxyIndexForKey(const ProcessKey& key, int column) const {
    return proxy->mapFromSource(model->IndexForKey(key, column));
}

void ProcessesPage::Impl::ApplySettings(const PageSettings& next, bool first) {
    if (first || next.smoothCpu != settings.smoothCpu) {
        // Readings of another scale must not blend into the new ones.
        model->SetSmoothCpu(next.smoothCpu);
    }
    model->SetRollUpEnabled(next.tree);
    model->SetShowMemoryPercent(next.showMemoryPercent);
    model->SetHiddenPid(next.showSelf ? std::nullopt
                                      : std::optional<std::uint32_t>(
                                            static_cast<std::uint32_t>(QCoreApplication::applicationPid())));
    if (!next.showExited) vanished.Clear();
    settings = next;
}

void ProcessesPage::Impl::Refresh(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    if (!snapshot) return;

    // 1. Nothing may scroll while rows change; remember what the user was on.
    const bool autoScroll = view->hasAutoScroll();
    view->setAutoScroll(false);
    view->DeferLayout();
    const std::optional<ProcessKey> savedCurrent = KeyOfProxyIndex(view->currentIndex());
    std::vector<ProcessKey> savedSelection = page.SelectedProcessKeys();

    // 2. Forget folded keys that are gone; a group header stays foldable for as long as it is.
    std::vector<core::ExitedProcessRecord> exited;
    if (settings.showExited) exited = vanished.Update(current.get(), *snapshot);
    const AliveKeys alive(*snapshot, exited);
    std::set<ProcessKey> pruned;
    for (const ProcessKey& key : collapsedKeys) {
        if (IsGroupHeaderKey(key) || alive.Contains(key)) pruned.insert(key);
    }
    for (const ProcessKey& key : model->CollapsedKeys()) {
        if (pruned.contains(key) || collapsedKeys.contains(key) || !alive.Contains(key)) continue;
        const QModelIndex row = model->IndexForKey(key);
        if (row.isValid() && !model->IsGroupHeader(row) && !model->IsExited(row)) pruned.insert(key);
    }
    collapsedKeys = std::move(pruned);

    // 3.
    model->SetCollapsedKeys(collapsedKeys);
    model->SetExitedProcesses(exited);
    model->SetCpuCapPercent(std::max(100.0, 100.0 * static_cast<double>(snapshot->logicalProcessorCount)));
    const bool reset = model->ApplySnapshot(snapshot);
    current = snapshot;

    // 4.
    allRecordsTaken = model->LiveRowCount() + model->HiddenRowCount() == snapshot->processes.size();

    // 5.
    model->SetCollapsedKeys(collapsedKeys);

    // 6. Rows move once per sample, here, never while a cell changes.
    if (reset) {
        ExpandAfterReset();
    } else if (!proxy->FilterText().isEmpty()) {
        proxy->RefreshFilter();
    }
    const QHeaderView* header = view->header();
    proxy->sort(header->sortIndicatorSection(), header->sortIndicatorOrder());

    // 7.
    page.RunGlowTick();

    // 8.
    std::optional<ProcessKey> followed = model->FollowedKey();
    if (followed && (!model->IndexForKey(*followed).isValid() || model->RowIsExited(*followed))) {
        model->SetFollowedKey(std::nullopt);
        followed.reset();
    }

    // 9.
    if (followed) {
        RestoreSelection({*followed}, followed, true);
    } else if (reset) {
        RestoreSelection(savedSelection, savedCurrent, false);
    }
    view->setAutoScroll(autoScroll);
    UpdateGlowTimer();
    UpdateDetails();
}

void ProcessesPage::Impl::RestoreSelection(const std::vector<ProcessKey>& selected,
                                           const std::optional<ProcessKey>& currentKey, bool scroll) {
    QItemSelectionModel* selection = view->selectionModel();
    const QModelIndex currentRow = currentKey ? ProxyIndexForKey(*currentKey) : QModelIndex();
    if (currentRow.isValid()) {
        selection->setCurrentIndex(currentRow, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
        if (scroll) view->scrollTo(currentRow, QAbstractItemView::EnsureVisible);
    }
    QItemSelection others;
    for (const ProcessKey& key : selected) {
        if (currentKey && key == *currentKey) continue;
        const QModelIndex row = ProxyIndexForKey(key);
        if (row.isValid()) others.select(row, row);
    }
    if (!others.isEmpty()) {
        const auto command = currentRow.isValid() ? QItemSelectionModel::Select : QItemSelectionModel::ClearAndSelect;
        selection->select(others, command | QItemSelectionModel::Rows);
    }
}

void ProcessesPage::Impl::SpanGroupHeaders() {
    // A group header's name and band run across the whole row.
    for (int row = 0; row < proxy->rowCount(); ++row) {
        if (!view->isFirstColumnSpanned(row, QModelIndex())) view->setFirstColumnSpanned(row, QModelIndex(), true);
    }
}

void ProcessesPage::Impl::ExpandAfterReset() {
    SpanGroupHeaders();
    std::vector<QModelIndex> stack;
    for (int row = proxy->rowCount() - 1; row >= 0; --row) stack.push_back(proxy->index(row, 0));
    while (!stack.empty()) {
        const QModelIndex index = stack.back();
        stack.pop_back();
        const int children = proxy->rowCount(index);
        if (children == 0) continue;
        const std::optional<ProcessKey> key = KeyOfProxyIndex(index);
        if (key && !collapsedKeys.contains(*key)) view->setExpanded(index, true);
        for (int row = children - 1; row >= 0; --row) stack.push_back(proxy->index(row, 0, index));
    }
}

void ProcessesPage::Impl::ExpandInserted(const QModelIndex& parent, int first, int last) {
    if (!parent.isValid()) SpanGroupHeaders();
    // A parent that gets its first child shows it, unless the user folded that parent.
    if (parent.isValid() && !view->isExpanded(parent)) {
        const std::optional<ProcessKey> key = KeyOfProxyIndex(parent);
        if (key && !collapsedKeys.contains(*key)) view->setExpanded(parent, true);
    }
    // A leaf is not marked: each mark is a persistent index that every later insertion and
    // removal must visit, and a leaf that gets a child is expanded above when it does.
    for (int row = first; row <= last; ++row) {
        const QModelIndex index = proxy->index(row, 0, parent);
        if (!proxy->hasChildren(index)) continue;
        const std::optional<ProcessKey> key = KeyOfProxyIndex(index);
        if (key && !collapsedKeys.contains(*key)) view->setExpanded(index, true);
    }
}

void ProcessesPage::Impl::UpdateGlowTimer() {
    const bool animate = settings.frameRate != 0 && (model->AnyGlowActive() || model->AnyExitFadeActive());
    if (!animate) {
        glowTimer->stop();
        return;
    }
    const int interval =
        std::max(kMinimumTickMs, static_cast<int>(std::ceil(1000.0 / static_cast<double>(settings.frameRate))));
    if (glowTimer->interval() != interval) glowTimer->setInterval(interval);
    if (!glowTimer->isActive()) glowTimer->start();
}

std::set<ProcessKey> ProcessesPage::Impl::KeysWithChildren() const {
    std::set<ProcessKey> keys;
    std::vector<QModelIndex> stack{QModelIndex()};
    while (!stack.empty()) {
        const QModelIndex parent = stack.back();
        stack.pop_back();
        const int children = model->rowCount(parent);
        if (children == 0) continue;
        if (const auto key = model->RowKey(parent)) keys.insert(*key);
        for (int row = 0; row < children; ++row) stack.push_back(model->index(row, 0, parent));
    }
    return keys;
}

ProcessesPage::ProcessesPage(PageEnvironment environment, QWidget* parent)
    : SnapshotPage(parent), d_(std::make_unique<Impl>(*this, std::move(environment))) {
    setObjectName(QStringLiteral("ProcessesPage"));
    d_->view->setObjectName(QStringLiteral("ProcessTreeView"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* splitter = new QSplitter(Qt::Horizontal, this);
    splitter->setObjectName(QStringLiteral("ProcessesSplitter"));
    splitter->setChildrenCollapsible(true);
    splitter->addWidget(d_->view);
    d_->details = new DetailPaneWidget(splitter);
    d_->details->setObjectName(QStringLiteral("ProcessDetailPane"));
    splitter->addWidget(d_->details);
    splitter->setStretchFactor(0, 1);
    splitter->setStretchFactor(1, 0);
    splitter->setSizes({900, 260});
    layout->addWidget(splitter);
    connect(d_->view->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] { d_->UpdateDetails(); });

    d_->ApplySettings(ReadPageSettings(d_->env.settings), true);

    ProcessTreeView* view = d_->view;
    connect(view, &QTreeView::collapsed, this, [this](const QModelIndex& index) {
        if (const auto key = d_->KeyOfProxyIndex(index)) {
            d_->collapsedKeys.insert(*key);
            d_->model->SetRowCollapsed(*key, true);
        }
    });
    connect(view, &QTreeView::expanded, this, [this](const QModelIndex& index) {
        if (const auto key = d_->KeyOfProxyIndex(index)) {
            d_->collapsedKeys.erase(*key);
            d_->model->SetRowCollapsed(*key, false);
        }
    });
    connect(d_->proxy, &QAbstractItemModel::rowsInserted, this,
            [this](const QModelIndex& under, int first, int last) { d_->ExpandInserted(under, first, last); });
    connect(view, &QWidget::customContextMenuRequested, this, [this](const QPoint& position) {
        if (d_->contextMenuHandler) d_->contextMenuHandler(position);
    });
    auto* terminate = new QShortcut(QKeySequence::Delete, view);
    terminate->setContext(Qt::WidgetShortcut);
    connect(terminate, &QShortcut::activated, this, [this] {
        if (d_->deleteHandler) d_->deleteHandler();
    });
    // A row with children only folds or unfolds on a double-click (the view does that itself).
    connect(view, &QAbstractItemView::doubleClicked, this, [this](const QModelIndex& index) {
        const QModelIndex source = d_->proxy->mapToSource(index.sibling(index.row(), 0));
        if (d_->model->hasChildren(source) && (d_->settings.tree || d_->model->IsGroupHeader(source))) return;
        const std::optional<ProcessKey> key = d_->model->KeyForIndex(source);
        if (key && d_->activateHandler) d_->activateHandler(*key, d_->model->IsExited(source));
    });
    connect(d_->glowTimer, &QTimer::timeout, this, [this] {
        RunGlowTick();
        d_->UpdateGlowTimer();
    });
}

ProcessesPage::~ProcessesPage() = default;

void ProcessesPage::ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    d_->Refresh(snapshot);
}

void ProcessesPage::SettingsChanged() {
    const PageSettings next = ReadPageSettings(d_->env.settings);
    const bool reshape = next.tree != d_->settings.tree || next.showExited != d_->settings.showExited ||
                         next.showSelf != d_->settings.showSelf;
    d_->ApplySettings(next, false);
    if (reshape && d_->current) {
        d_->Refresh(d_->current);
    } else {
        d_->UpdateGlowTimer();
    }
}

void ProcessesPage::SetCpuScale(double scale) {
    if (scale == d_->cpuScale) return;
    d_->cpuScale = scale;
    d_->model->SetSmoothCpu(d_->settings.smoothCpu);
}

ProcessTableModel& ProcessesPage::Model() {
    return *d_->model;
}

ProcessFilterProxyModel& ProcessesPage::Proxy() {
    return *d_->proxy;
}

ProcessTreeView& ProcessesPage::View() {
    return *d_->view;
}

DetailPaneWidget& ProcessesPage::DetailPane() {
    return *d_->details;
}

std::vector<ProcessKey> ProcessesPage::SelectedProcessKeys() const {
    std::vector<ProcessKey> keys;
    const QItemSelectionModel* selection = d_->view->selectionModel();
    if (selection == nullptr) return keys;
    const QModelIndexList rows = selection->selectedRows(0);
    for (const QModelIndex& row : rows) {
        const std::optional<ProcessKey> key = d_->model->KeyForIndex(d_->proxy->mapToSource(row));
        if (key && std::find(keys.begin(), keys.end(), *key) == keys.end()) keys.push_back(*key);
    }
    return keys;
}

std::vector<core::ProcessSnapshot> ProcessesPage::SelectedRows() const {
    std::vector<core::ProcessSnapshot> rows;
    for (const ProcessKey& key : SelectedProcessKeys()) {
        if (const core::ProcessSnapshot* record = d_->model->RowSnapshot(d_->model->IndexForKey(key))) {
            rows.push_back(*record);
        }
    }
    return rows;
}

ProcessesPage::PointerRows ProcessesPage::RowsAt(const QPoint& viewportPos) {
    PointerRows result;
    const QModelIndex proxyRow = d_->view->indexAt(viewportPos);
    if (!proxyRow.isValid()) return result;
    const QModelIndex source = d_->proxy->mapToSource(proxyRow.sibling(proxyRow.row(), 0));
    const std::optional<ProcessKey> key = d_->model->KeyForIndex(source);
    const core::ProcessSnapshot* record = d_->model->RowSnapshot(source);
    if (!key || record == nullptr) return result;
    QItemSelectionModel* selection = d_->view->selectionModel();
    if (!selection->isRowSelected(proxyRow.row(), proxyRow.parent())) {
        selection->setCurrentIndex(proxyRow, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    }
    result.rows.push_back(*record);
    result.exited = d_->model->IsExited(source);
    result.followed = d_->model->FollowedKey() == key;
    for (const ProcessKey& other : SelectedProcessKeys()) {
        if (other == *key) continue;
        if (const core::ProcessSnapshot* row = d_->model->RowSnapshot(d_->model->IndexForKey(other))) {
            result.rows.push_back(*row);
        }
    }
    return result;
}

void ProcessesPage::SetFilterText(const QString& text) {
    const QString before = d_->proxy->FilterText();
    d_->proxy->SetFilterText(text);
    if (d_->proxy->FilterText() == before) return;
    // Rows that the filter lets through anew take their place in the present order at once.
    const QHeaderView* header = d_->view->header();
    d_->proxy->sort(header->sortIndicatorSection(), header->sortIndicatorOrder());
}

void ProcessesPage::ExpandAll() {
    if (!d_->settings.tree) return;
    d_->collapsedKeys.clear();
    d_->model->SetCollapsedKeys(d_->collapsedKeys);
    d_->view->expandAll();
}

void ProcessesPage::CollapseAll() {
    if (!d_->settings.tree) return;
    d_->collapsedKeys = d_->KeysWithChildren();
    d_->model->SetCollapsedKeys(d_->collapsedKeys);
    d_->view->collapseAll();
}

const std::set<ProcessKey>& ProcessesPage::CollapsedKeys() const {
    return d_->collapsedKeys;
}

void ProcessesPage::SetContextMenuHandler(std::function<void(const QPoint& viewportPos)> handler) {
    d_->contextMenuHandler = std::move(handler);
}

void ProcessesPage::SetDeleteHandler(std::function<void()> handler) {
    d_->deleteHandler = std::move(handler);
}

void ProcessesPage::SetActivateHandler(std::function<void(const ProcessKey&, bool exited)> handler) {
    d_->activateHandler = std::move(handler);
}

const core::SystemSnapshot* ProcessesPage::CurrentSnapshot() const {
    return d_->current.get();
}

bool ProcessesPage::AllRecordsTaken() const {
    return d_->allRecordsTaken;
}

ProcessesPage::GlowRepaint ProcessesPage::RunGlowTick() {
    GlowRepaint repaint;
    const ProcessTableModel::GlowTick tick = d_->model->TickGlow();
    if (tick.cpuCells.empty() && tick.memoryCells.empty() && tick.exitedRows.empty()) return repaint;
    ProcessTreeView* view = d_->view;
    // A layout still to come repaints every row with its glow as it stands then.
    if (view->LayoutPending()) return repaint;
    QWidget* viewport = view->viewport();
    const int height = viewport->height();

    // Only rows that can be seen need paint: walk them once, top to bottom.
    std::unordered_map<ProcessKey, QModelIndex, core::ProcessKeyHash> visible;
    for (QModelIndex row = view->indexAt(QPoint(0, 0)); row.isValid(); row = view->indexBelow(row)) {
        if (view->visualRect(row).top() >= height) break;
        if (const auto key = d_->model->RowKey(d_->proxy->mapToSource(row))) visible.emplace(*key, row);
    }
    // True when the shade of the cell (or of the row's wash, slot 2) differs from the one last painted.
    const auto shadeChanged = [&](const ProcessKey& key, const QModelIndex& proxyCell, std::size_t slot) {
        const QVariant background = d_->proxy->data(proxyCell, Qt::BackgroundRole);
        const int alpha = background.isValid() ? background.value<QBrush>().color().alpha() : 0;
        auto [entry, fresh] = d_->paintedAlpha.try_emplace(key, std::array<int, 3>{-1, -1, -1});
        if (!fresh && entry->second[slot] == alpha) return false;
        entry->second[slot] = alpha;
        // Dark all over: painted once more now, then nothing to remember.
        if (std::all_of(entry->second.begin(), entry->second.end(), [](int a) { return a <= 0; })) {
            d_->paintedAlpha.erase(entry);
        }
        return true;
    };
    const auto repaintCell = [&](const ProcessKey& key, ProcessTableColumn column) {
        const auto found = visible.find(key);
        if (found == visible.end()) return;
        const QModelIndex proxyCell = found->second.sibling(found->second.row(), static_cast<int>(column));
        if (!shadeChanged(key, proxyCell, column == ProcessTableColumn::cpu ? 0 : 1)) return;
        const QRect cell = view->visualRect(proxyCell);
        if (cell.isEmpty()) return;
        viewport->update(cell);
        repaint.rects.push_back(cell);
        ++repaint.cells;
    };
    for (const ProcessKey& key : tick.cpuCells) repaintCell(key, ProcessTableColumn::cpu);
    for (const ProcessKey& key : tick.memoryCells) repaintCell(key, ProcessTableColumn::memory);
    for (const ProcessKey& key : tick.exitedRows) {
        const auto found = visible.find(key);
        if (found == visible.end()) continue;
        if (!shadeChanged(key, found->second, 2)) continue;
        const QRect cell = view->visualRect(found->second);
        const QRect row(0, cell.top(), viewport->width(), cell.height());
        viewport->update(row);
        repaint.rects.push_back(row);
        ++repaint.rows;
    }
    // Once all is dark, shades of keys that are gone are forgotten too.
    if (!d_->model->AnyGlowActive() && !d_->model->AnyExitFadeActive()) d_->paintedAlpha.clear();
    return repaint;
}

bool ProcessesPage::GlowTimerActive() const {
    return d_->glowTimer->isActive();
}

}  // namespace korv::host::linux_client
