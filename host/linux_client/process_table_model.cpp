#include "host/linux_client/process_table_model.h"

#include "host/linux_client/process_table_model_state.h"

#include <QBrush>
#include <QFont>
#include <QGuiApplication>
#include <QPalette>

#include <algorithm>

namespace korv::host::linux_client {
namespace {

using core::ProcessKey;

const QString kFollowedMark = QStringLiteral("\u2691 ");

bool TextLess(const QString& a, const QString& b) {
    return a.compare(b, Qt::CaseInsensitive) < 0;
}

// An absent value sorts after every present one, as the proxy's variant comparison does.
template <typename T>
bool OptionalLess(const std::optional<T>& a, const std::optional<T>& b) {
    if (!a) return false;
    if (!b) return true;
    return *a < *b;
}

// The proxy's own comparison of two sort values, for the cases the typed paths do not cover.
bool VariantLess(const QVariant& left, const QVariant& right) {
    if (!left.isValid()) return false;
    if (!right.isValid()) return true;
    switch (left.userType()) {
    case QMetaType::Int:
        return left.toInt() < right.toInt();
    case QMetaType::UInt:
        return left.toUInt() < right.toUInt();
    case QMetaType::LongLong:
        return left.toLongLong() < right.toLongLong();
    case QMetaType::ULongLong:
        return left.toULongLong() < right.toULongLong();
    case QMetaType::Float:
    case QMetaType::Double:
        return left.toDouble() < right.toDouble();
    default:
        return TextLess(left.toString(), right.toString());
    }
}

}  // namespace

ProcessTableModel::ProcessTableModel(QObject* parent) : QAbstractItemModel(parent), d_(std::make_unique<Impl>(*this)) {}

ProcessTableModel::~ProcessTableModel() = default;

QModelIndex ProcessTableModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= kProcessTableColumnCount) return {};
    const std::vector<int>* siblings = &d_->topLevel;
    if (parent.isValid()) {
        const ProcessRow* owner = d_->UsedRow(parent);
        if (owner == nullptr || parent.column() != 0) return {};
        siblings = &owner->children;
    }
    if (static_cast<std::size_t>(row) >= siblings->size()) return {};
    return createIndex(row, column, IdOfSlot((*siblings)[static_cast<std::size_t>(row)]));
}

QModelIndex ProcessTableModel::parent(const QModelIndex& child) const {
    const ProcessRow* row = d_->UsedRow(child);
    if (row == nullptr || row->parentIndex < 0) return {};
    return d_->IndexOfSlot(row->parentIndex, 0);
}

int ProcessTableModel::rowCount(const QModelIndex& parent) const {
    if (!parent.isValid()) return static_cast<int>(d_->topLevel.size());
    const ProcessRow* row = d_->UsedRow(parent);
    if (row == nullptr || parent.column() != 0) return 0;
    return static_cast<int>(row->children.size());
}

int ProcessTableModel::columnCount(const QModelIndex&) const {
    return kProcessTableColumnCount;
}

bool ProcessTableModel::hasChildren(const QModelIndex& parent) const {
    return rowCount(parent) > 0;
}

QVariant ProcessTableModel::data(const QModelIndex& index, int role) const {
    const ProcessRow* row = d_->UsedRow(index);
    if (row == nullptr) return {};
    const int column = index.column();
    const ProcessRowValues& base = row->base;

    if (base.groupHeader) {
        if (role == kProcessSortRole) return QVariant::fromValue<uint>(base.groupOrder);
        if (column != 0) return {};
        switch (role) {
        case Qt::DisplayRole:
        case Qt::AccessibleTextRole:
            return base.name;
        case Qt::FontRole: {
            QFont font = QGuiApplication::font();
            font.setWeight(QFont::Bold);
            return font;
        }
        case Qt::TextAlignmentRole:
            return static_cast<int>(Qt::AlignLeft | Qt::AlignVCenter);
        case Qt::BackgroundRole:
            return QBrush(QGuiApplication::palette().color(QPalette::AlternateBase));
        default:
            return {};
        }
    }

    switch (role) {
    case Qt::DisplayRole:
    case Qt::AccessibleTextRole: {
        QString text = ProcessCellText(base, row->display, column, d_->memoryMode);
        if (column == 0 && d_->followedKey == base.key) text.prepend(kFollowedMark);
        return text;
    }
    case kProcessSortRole:
        return ProcessSortValue(base, row->display, column, d_->memoryMode);
    case kProcessSearchRole:
        return column == 0 ? QVariant(base.searchText) : QVariant();
    case Qt::TextAlignmentRole:
        return static_cast<int>(ProcessTableColumnAlignment(column));
    case Qt::ForegroundRole:
        if (!base.exited) return {};
        {
            const QPalette palette = QGuiApplication::palette();
            return QBrush(MixColors(palette.color(QPalette::Text), palette.color(QPalette::Base), 0.45));
        }
    case Qt::BackgroundRole: {
        const std::int64_t now = d_->Now();
        if (base.exited) {
            const auto found = d_->exitTimes.find(base.key);
            if (found == d_->exitTimes.end()) return {};
            const int alpha = ExitWashAlpha(found->second.ms, now);
            return alpha > 0 ? QVariant(QBrush(ExitWashColor(alpha))) : QVariant();
        }
        const CellGlow* glow = column == static_cast<int>(ProcessTableColumn::cpu)      ? &row->cells.cpuGlow
                               : column == static_cast<int>(ProcessTableColumn::memory) ? &row->cells.memoryGlow
                                                                                        : nullptr;
        if (glow == nullptr) return {};
        const int alpha = GlowAlpha(RemainingGlow(*glow, now));
        return alpha > 0 ? QVariant(QBrush(GlowColor(alpha))) : QVariant();
    }
    default:
        return {};
    }
}

QVariant ProcessTableModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || section < 0 || section >= kProcessTableColumnCount) return {};
    if (role == Qt::DisplayRole) return ProcessTableColumnTitle(section);
    if (role == Qt::TextAlignmentRole) return static_cast<int>(ProcessTableColumnAlignment(section));
    return {};
}

Qt::ItemFlags ProcessTableModel::flags(const QModelIndex& index) const {
    const ProcessRow* row = d_->UsedRow(index);
    if (row == nullptr) return Qt::NoItemFlags;
    if (row->base.groupHeader) return Qt::ItemIsEnabled;
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable;
}

bool ProcessTableModel::ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    return d_->Apply(snapshot);
}

void ProcessTableModel::SetExitedProcesses(const std::vector<core::ExitedProcessRecord>& records) {
    auto copy = std::make_shared<std::vector<core::ExitedProcessRecord>>(records);
    const std::int64_t now = d_->Now();
    std::vector<ProcessKey> listed;
    listed.reserve(copy->size());
    for (const core::ExitedProcessRecord& record : *copy) {
        d_->exitTimes.try_emplace(record.process.key, ProcessExitEntry{now, false});
        listed.push_back(record.process.key);
    }
    std::sort(listed.begin(), listed.end());
    std::erase_if(d_->exitTimes, [&listed](const auto& entry) {
        return !std::binary_search(listed.begin(), listed.end(), entry.first);
    });
    d_->pendingExited = std::move(copy);
}

void ProcessTableModel::SetCollapsedKeys(const std::set<ProcessKey>& keys) {
    if (keys == d_->collapsedKeys) return;
    d_->collapsedKeys = keys;
    d_->RecomputeShownFigures();
}

void ProcessTableModel::SetRowCollapsed(const ProcessKey& key, bool collapsed) {
    const bool present = d_->collapsedKeys.contains(key);
    if (present == collapsed) return;
    if (collapsed) {
        d_->collapsedKeys.insert(key);
    } else {
        d_->collapsedKeys.erase(key);
    }
    d_->RecomputeShownFigures();
}

const std::set<ProcessKey>& ProcessTableModel::CollapsedKeys() const {
    return d_->collapsedKeys;
}

void ProcessTableModel::SetShowMemoryPercent(bool show) {
    if (show == d_->memoryMode.percent) return;
    emit layoutAboutToBeChanged();
    d_->memoryMode.percent = show;
    ++d_->memoryEpoch;
    emit layoutChanged();
}

bool ProcessTableModel::ShowMemoryPercent() const {
    return d_->memoryMode.percent;
}

void ProcessTableModel::SetRollUpEnabled(bool enabled) {
    d_->rollUpEnabled = enabled;
}

bool ProcessTableModel::RollUpEnabled() const {
    return d_->rollUpEnabled;
}

void ProcessTableModel::SetSmoothCpu(bool smooth) {
    d_->smoother.SetEnabled(smooth);
}

bool ProcessTableModel::SmoothCpu() const {
    return d_->smoother.Enabled();
}

void ProcessTableModel::SetHiddenPid(std::optional<std::uint32_t> pid) {
    d_->hiddenPid = pid;
}

std::optional<std::uint32_t> ProcessTableModel::HiddenPid() const {
    return d_->hiddenPid;
}

void ProcessTableModel::SetCpuCapPercent(double percent) {
    d_->cpuCapPercent = percent;
}

double ProcessTableModel::CpuCapPercent() const {
    return d_->cpuCapPercent;
}

void ProcessTableModel::SetFollowedKey(std::optional<ProcessKey> key) {
    if (key == d_->followedKey) return;
    const std::optional<ProcessKey> previous = d_->followedKey;
    d_->followedKey = key;
    for (const std::optional<ProcessKey>& changedKey : {previous, key}) {
        if (!changedKey) continue;
        const QModelIndex cell = IndexForKey(*changedKey, 0);
        if (cell.isValid()) emit dataChanged(cell, cell, {Qt::DisplayRole, Qt::AccessibleTextRole});
    }
    emit FollowedKeyChanged();
}

std::optional<ProcessKey> ProcessTableModel::FollowedKey() const {
    return d_->followedKey;
}

std::optional<std::uint64_t> ProcessTableModel::MemoryTotalBytes() const {
    return d_->memoryMode.totalBytes;
}

ProcessTableModel::GlowTick ProcessTableModel::TickGlow() {
    GlowTick tick;
    const std::int64_t now = d_->Now();
    for (ProcessRow& row : d_->rows) {
        if (row.free || row.base.groupHeader || row.base.exited) continue;
        // A glow that ended since the last tick is listed once more, so that its cell is cleared.
        if (row.cells.cpuGlow.active) {
            tick.cpuCells.push_back(row.base.key);
            if (RemainingGlow(row.cells.cpuGlow, now) <= 0.0) row.cells.cpuGlow = CellGlow{};
        }
        if (row.cells.memoryGlow.active) {
            tick.memoryCells.push_back(row.base.key);
            if (RemainingGlow(row.cells.memoryGlow, now) <= 0.0) row.cells.memoryGlow = CellGlow{};
        }
    }
    for (auto& [key, entry] : d_->exitTimes) {
        if (entry.fadeDone) continue;
        if (RowIsExited(key)) tick.exitedRows.push_back(key);
        if (!ExitFadeRunning(entry.ms, now)) entry.fadeDone = true;
    }
    return tick;
}

bool ProcessTableModel::AnyGlowActive() const {
    return std::any_of(d_->rows.begin(), d_->rows.end(), [](const ProcessRow& row) {
        return !row.free && (row.cells.cpuGlow.active || row.cells.memoryGlow.active);
    });
}

bool ProcessTableModel::AnyExitFadeActive() const {
    return std::any_of(d_->exitTimes.begin(), d_->exitTimes.end(),
                       [](const auto& entry) { return !entry.second.fadeDone; });
}

bool ProcessTableModel::RowIsExited(const ProcessKey& key) const {
    const int slot = d_->slotByKey.Find(key);
    return slot >= 0 && d_->rows[static_cast<std::size_t>(slot)].base.exited;
}

QModelIndex ProcessTableModel::IndexForKey(const ProcessKey& key, int column) const {
    if (column < 0 || column >= kProcessTableColumnCount) return {};
    const int slot = d_->slotByKey.Find(key);
    return slot < 0 ? QModelIndex() : d_->IndexOfSlot(slot, column);
}

std::optional<ProcessKey> ProcessTableModel::KeyForIndex(const QModelIndex& sourceIndex) const {
    const ProcessRow* row = d_->UsedRow(sourceIndex);
    if (row == nullptr || row->base.groupHeader) return std::nullopt;
    return row->base.key;
}

std::optional<int> ProcessTableModel::SlotForIndex(const QModelIndex& index) const {
    if (d_->UsedRow(index) == nullptr) return std::nullopt;
    return static_cast<int>(SlotOfId(index.internalId()));
}

std::optional<ProcessKey> ProcessTableModel::RowKey(const QModelIndex& index) const {
    const ProcessRow* row = d_->UsedRow(index);
    if (row == nullptr) return std::nullopt;
    return row->base.key;
}

bool ProcessTableModel::IsGroupHeader(const QModelIndex& index) const {
    const ProcessRow* row = d_->UsedRow(index);
    return row != nullptr && row->base.groupHeader;
}

bool ProcessTableModel::IsExited(const QModelIndex& index) const {
    const ProcessRow* row = d_->UsedRow(index);
    return row != nullptr && row->base.exited;
}

const core::ProcessSnapshot* ProcessTableModel::RowSnapshot(const QModelIndex& index) const {
    const ProcessRow* row = d_->UsedRow(index);
    return row != nullptr ? row->source : nullptr;
}

const QString* ProcessTableModel::SearchText(const QModelIndex& index) const {
    const ProcessRow* row = d_->UsedRow(index);
    return row != nullptr && !row->base.groupHeader ? &row->base.searchText : nullptr;
}

std::uint32_t ProcessTableModel::GroupOrder(const QModelIndex& index) const {
    const ProcessRow* row = d_->UsedRow(index);
    return row != nullptr ? row->base.groupOrder : 0;
}

bool ProcessTableModel::SortLessThan(const QModelIndex& left, const QModelIndex& right, Qt::SortOrder order) const {
    const ProcessRow* a = d_->UsedRow(left);
    const ProcessRow* b = d_->UsedRow(right);
    if (a != nullptr && b != nullptr && a->base.groupHeader && b->base.groupHeader) {
        const std::uint32_t x = a->base.groupOrder;
        const std::uint32_t y = b->base.groupOrder;
        return order == Qt::AscendingOrder ? x < y : x > y;
    }
    if (a == nullptr || b == nullptr || a->base.groupHeader || b->base.groupHeader || left.column() != right.column()) {
        return VariantLess(data(left, kProcessSortRole), data(right, kProcessSortRole));
    }
    const ProcessRowValues& x = a->base;
    const ProcessRowValues& y = b->base;
    const ProcessRowFigures& p = a->display;
    const ProcessRowFigures& r = b->display;
    const auto stateWord = [this](const ProcessRowValues& values) -> const QString& {
        if (values.exited) return d_->sortStateWords[kExitedWordIndex];
        const auto unknown = static_cast<std::size_t>(core::ProcessState::unknown);
        return d_->sortStateWords[std::min(static_cast<std::size_t>(values.state), unknown)];
    };
    const auto textLess = [](const QString& xText, core::MetricAvailability xAvailability, const QString& yText,
                             core::MetricAvailability yAvailability) {
        if (!core::CarriesValue(xAvailability)) return false;
        if (!core::CarriesValue(yAvailability)) return true;
        return TextLess(xText, yText);
    };
    switch (static_cast<ProcessTableColumn>(left.column())) {
    case ProcessTableColumn::name:
        return TextLess(x.name, y.name);
    case ProcessTableColumn::pid:
        return x.key.pid < y.key.pid;
    case ProcessTableColumn::status:
        return TextLess(stateWord(x), stateWord(y));
    case ProcessTableColumn::user:
        return textLess(x.userName, x.userNameAvailability, y.userName, y.userNameAvailability);
    case ProcessTableColumn::cpu:
        return OptionalLess(p.cpuPercent.value, r.cpuPercent.value);
    case ProcessTableColumn::memory:
        if (d_->memoryMode.ShowsPercent()) {
            const double total = static_cast<double>(*d_->memoryMode.totalBytes);
            const auto percent = [total](const std::optional<std::uint64_t>& bytes) -> std::optional<double> {
                if (!bytes) return std::nullopt;
                return static_cast<double>(*bytes) * 100.0 / total;
            };
            return OptionalLess(percent(p.memoryBytes.value), percent(r.memoryBytes.value));
        }
        return OptionalLess(p.memoryBytes.value, r.memoryBytes.value);
    case ProcessTableColumn::diskRead:
        return OptionalLess(p.diskReadBytesPerSecond.value, r.diskReadBytesPerSecond.value);
    case ProcessTableColumn::diskWrite:
        return OptionalLess(p.diskWriteBytesPerSecond.value, r.diskWriteBytesPerSecond.value);
    case ProcessTableColumn::threads:
        return p.threadCount < r.threadCount;
    case ProcessTableColumn::virtualMemory:
        return OptionalLess(p.virtualBytes.value, r.virtualBytes.value);
    case ProcessTableColumn::fileDescriptors:
        return OptionalLess(p.fileDescriptorCount.value, r.fileDescriptorCount.value);
    case ProcessTableColumn::nice:
        return OptionalLess(p.nice.value, r.nice.value);
    case ProcessTableColumn::command:
        return textLess(x.commandLine, x.commandLineAvailability, y.commandLine, y.commandLineAvailability);
    }
    return false;
}

std::size_t ProcessTableModel::HiddenRowCount() const {
    return d_->hiddenCount;
}

std::size_t ProcessTableModel::ExitedRowCount() const {
    return d_->exitedCount;
}

std::size_t ProcessTableModel::LiveRowCount() const {
    return d_->liveCount;
}

std::int64_t ProcessTableModel::ModelNow() const {
    return d_->Now();
}

void ProcessTableModel::FreezeClock() {
    d_->frozenAt = d_->Now();
}

void ProcessTableModel::FreezeClockAt(std::int64_t milliseconds) {
    d_->frozenAt = milliseconds;
}

void ProcessTableModel::ThawClock() {
    d_->frozenAt.reset();
}

}  // namespace korv::host::linux_client
