#include "host/linux_client/process_table_model_state.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>

namespace korv::host::linux_client {
namespace {

using core::ProcessKey;

// What a refresh reads of a record lies on a dozen cache lines spread over its 2.6 KB, and it
// reads thousands of records: the lines of the record a few places ahead are fetched while this
// one is read. The head holds the key, the parent, the texts and the group.
void PrefetchHead(const core::ProcessSnapshot& process) {
    __builtin_prefetch(&process.key);
    __builtin_prefetch(&process.executablePath);
    __builtin_prefetch(&process.cpuPercent);
}

void PrefetchFigures(const core::ProcessSnapshot& process) {
    for (const void* field : {static_cast<const void*>(&process.workingSetBytes),
                              static_cast<const void*>(&process.virtualBytes), static_cast<const void*>(&process.nice),
                              static_cast<const void*>(&process.threadCount), static_cast<const void*>(&process.handleCount),
                              static_cast<const void*>(&process.readBytesPerSecond),
                              static_cast<const void*>(&process.writeBytesPerSecond)}) {
        __builtin_prefetch(field);
    }
}

constexpr std::size_t kPrefetchDistance = 4;

}  // namespace

bool ProcessTableModel::Impl::Apply(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    if (!snapshot) return false;
    const core::SystemSnapshot& sample = *snapshot;

    std::optional<std::uint64_t> total;
    if (core::CarriesValue(sample.memoryTotalBytes.availability) && sample.memoryTotalBytes.value) {
        total = *sample.memoryTotalBytes.value;
    }
    const bool memoryTotalChanged = total != memoryMode.totalBytes;
    if (memoryTotalChanged) {
        memoryMode.totalBytes = total;
        ++memoryEpoch;
    }

    bool forceReset = false;
    BuildPass(sample, forceReset);

    shape.clear();
    shape.reserve(pass.size());
    for (const ProcessPassRow& row : pass) {
        ProcessShapeEntry entry{row.key, std::nullopt};
        if (row.parent >= 0) entry.parent = pass[static_cast<std::size_t>(row.parent)].key;
        shape.push_back(entry);
    }
    const bool patchable =
        !slotByKey.Empty() && !forceReset && IsStructurallyCompatible(rows, slotByKey, shape, passSlots);
    if (patchable) {
        Patch(memoryTotalChanged);
    } else {
        Reset();
    }
    // Only now may the previous sample go: the patch compared the rows' old texts with the new.
    shownSnapshot = snapshot;
    shownExited = pendingExited;
    return !patchable;
}

void ProcessTableModel::Impl::BuildPass(const core::SystemSnapshot& sample, bool& forceReset) {
    static const std::vector<core::ExitedProcessRecord> kNone;
    const std::vector<core::ExitedProcessRecord>& exited = pendingExited ? *pendingExited : kNone;
    const std::size_t capacity = sample.processes.size() + exited.size() + 2;
    pass.clear();
    pass.reserve(capacity);
    positions.Clear();
    positions.Reserve(capacity);
    hiddenCount = 0;

    smoother.BeginPass(sample.processes.size());
    const std::size_t processCount = sample.processes.size();
    for (std::size_t i = 0; i < processCount; ++i) {
        if (i + kPrefetchDistance < processCount) PrefetchHead(sample.processes[i + kPrefetchDistance]);
        const core::ProcessSnapshot& process = sample.processes[i];
        if (hiddenPid && process.key.pid == *hiddenPid) {
            ++hiddenCount;
            continue;
        }
        if (IsGroupHeaderKey(process.key)) continue;
        if (!positions.Insert(process.key, static_cast<int>(pass.size())).second) {
            forceReset = true;  // the first row of a key wins
            continue;
        }
        ProcessPassRow row;
        row.source = &process;
        row.key = process.key;
        row.group = RowGroupOf(process.group);
        row.cpuPercent = smoother.Smooth(process.key, process.cpuPercent, sample.monotonicNs);
        pass.push_back(row);
    }
    liveCount = pass.size();
    smoother.EndPass();

    exitedCount = 0;
    for (const core::ExitedProcessRecord& record : exited) {
        const core::ProcessSnapshot& process = record.process;
        if (hiddenPid && process.key.pid == *hiddenPid) continue;
        if (IsGroupHeaderKey(process.key)) continue;
        // A key that is alive, or listed twice, is shown once.
        if (!positions.Insert(process.key, static_cast<int>(pass.size())).second) continue;
        ProcessPassRow row;
        row.source = &process;
        row.key = process.key;
        row.group = RowGroupOf(process.group);
        row.exited = true;
        row.cpuPercent = FigureOf(process.cpuPercent).value;
        pass.push_back(row);
        ++exitedCount;
    }

    links.resize(pass.size());
    for (std::size_t i = 0; i < pass.size(); ++i) {
        links[i] = ProcessPassLink{pass[i].key, pass[i].source->parentKey, pass[i].group};
    }
    ResolveParents(links, positions, rollUpEnabled, parents);

    // Applications count distinct identities; every other row counts on its own.
    std::unordered_set<std::string_view> identities;
    std::size_t loneApplications = 0;
    std::size_t background = 0;
    for (const ProcessPassRow& row : pass) {
        if (row.group != 0) {
            ++background;
        } else if (row.source->applicationKey.empty()) {
            ++loneApplications;  // its own "pid:startTime" identity, unique by key
        } else {
            identities.insert(row.source->applicationKey);
        }
    }
    const std::size_t processRows = pass.size();
    std::array<int, 2> headerPositions{-1, -1};
    const std::array<std::size_t, 2> counts{identities.size() + loneApplications, background};
    const std::array<ProcessKey, 2> headerKeys{kApplicationsHeaderKey, kBackgroundHeaderKey};
    for (std::uint32_t group = 0; group < 2; ++group) {
        if (counts[group] == 0) continue;
        ProcessPassRow header;
        header.key = headerKeys[group];
        header.group = group;
        header.header = true;
        header.headerCount = counts[group];
        headerPositions[group] = static_cast<int>(pass.size());
        positions.Assign(header.key, headerPositions[group]);
        pass.push_back(header);
    }
    for (std::size_t i = 0; i < processRows; ++i) {
        pass[i].parent = parents[i] >= 0 ? parents[i] : headerPositions[pass[i].group];
    }
}

void ProcessTableModel::Impl::FillRow(ProcessRow& row, const ProcessPassRow& passRow) const {
    ProcessRowValues& base = row.base;
    base.key = passRow.key;
    base.group = passRow.group;
    base.groupOrder = passRow.group;
    base.groupHeader = passRow.header;
    base.exited = passRow.exited;
    if (passRow.header) {
        base.name = GroupHeaderText(passRow.group, passRow.headerCount);
        row.source = nullptr;
        return;
    }
    const core::ProcessSnapshot& process = *passRow.source;
    FillRowTexts(process, base);
    base.parentKey = process.parentKey;
    base.state = process.state;
    base.figures = FiguresOf(process, passRow.cpuPercent);
    row.source = &process;
}

void ProcessTableModel::Impl::Reset() {
    q.beginResetModel();
    std::vector<ProcessRow> old;
    old.swap(rows);
    ProcessKeyTable oldSlots;
    oldSlots.Swap(slotByKey);
    slotByKey.Clear();
    freeSlots.clear();
    topLevel.clear();

    rows.resize(pass.size());
    slotByKey.Reserve(pass.size());
    for (std::size_t i = 0; i < pass.size(); ++i) {
        ProcessRow& row = rows[i];
        FillRow(row, pass[i]);
        row.display = row.base.figures;
        slotByKey.Assign(pass[i].key, static_cast<int>(i));
        // The texts and glows of a key outlive a reset, so that a rebuild lights nothing by itself.
        const int oldSlot = oldSlots.Find(pass[i].key);
        if (oldSlot >= 0) row.cells = std::move(old[static_cast<std::size_t>(oldSlot)].cells);
    }
    for (std::size_t i = 0; i < pass.size(); ++i) {
        ProcessRow& row = rows[i];
        const int parent = pass[i].parent;
        row.parentIndex = parent;
        std::vector<int>& siblings = ChildrenOf(parent);
        row.rowInParent = static_cast<int>(siblings.size());
        siblings.push_back(static_cast<int>(i));
    }
    changed.assign(rows.size(), 0);
    RollUp(rows, collapsedKeys, rollUpEnabled, cpuCapPercent, changed, rollUpScratch);
    GlowPass();
    q.endResetModel();
}

void ProcessTableModel::Impl::Patch(bool memoryTotalChanged) {
    changed.assign(rows.size(), 0);
    // The structure check found every row's slot; a slot that no row of the pass names goes.
    inPass.assign(rows.size(), 0);
    for (int slot : passSlots) {
        if (slot >= 0) inPass[static_cast<std::size_t>(slot)] = 1;
    }
    RemoveMissingRows();
    pendingNew.clear();
    for (std::size_t i = 0; i < pass.size(); ++i) {
        if (i + kPrefetchDistance < pass.size()) {
            const std::size_t ahead = i + kPrefetchDistance;
            if (const core::ProcessSnapshot* next = pass[ahead].source) PrefetchFigures(*next);
            if (passSlots[ahead] >= 0) {
                // The texts of the record the row was made from, which the new texts are compared with.
                if (const core::ProcessSnapshot* old = rows[static_cast<std::size_t>(passSlots[ahead])].source) {
                    PrefetchHead(*old);
                }
            }
        }
        if (passSlots[i] < 0) {
            pendingNew.push_back(static_cast<int>(i));
        } else {
            Overwrite(passSlots[i], pass[i]);
        }
    }
    InsertNewRows();
    changed.resize(rows.size(), 0);
    RollUp(rows, collapsedKeys, rollUpEnabled, cpuCapPercent, changed, rollUpScratch);
    GlowPass();
    if (memoryTotalChanged) {
        // Every percent may have moved.
        for (std::size_t slot = 0; slot < rows.size(); ++slot) {
            if (!rows[slot].free && !rows[slot].base.groupHeader) changed[slot] |= kShownValuesChanged;
        }
    }
    EmitChanged(0, kProcessTableColumnCount - 1);
}

void ProcessTableModel::Impl::RemoveMissingRows() {
    // (parent slot, row) of each row that goes on its own; a row whose parent goes goes with it.
    std::vector<std::pair<int, int>> removals;
    for (std::size_t slot = 0; slot < rows.size(); ++slot) {
        const ProcessRow& row = rows[slot];
        if (row.free || inPass[slot] != 0) continue;
        if (row.parentIndex >= 0 && inPass[static_cast<std::size_t>(row.parentIndex)] == 0) continue;
        removals.emplace_back(row.parentIndex, row.rowInParent);
    }
    if (removals.empty()) return;
    // Per parent from the bottom up, so that the rows still to remove keep their numbers.
    std::sort(removals.begin(), removals.end(), [](const auto& a, const auto& b) {
        return a.first != b.first ? a.first < b.first : a.second > b.second;
    });
    std::size_t i = 0;
    while (i < removals.size()) {
        const int parent = removals[i].first;
        const int last = removals[i].second;
        int first = last;
        std::size_t j = i + 1;
        while (j < removals.size() && removals[j].first == parent && removals[j].second == first - 1) {
            first = removals[j].second;
            ++j;
        }
        RemoveRun(parent, first, last);
        i = j;
    }
}

void ProcessTableModel::Impl::RemoveRun(int parentSlot, int first, int last) {
    q.beginRemoveRows(ParentIndexOf(parentSlot), first, last);
    for (int row = first; row <= last; ++row) FreeSubtree(ChildrenOf(parentSlot)[static_cast<std::size_t>(row)]);
    std::vector<int>& siblings = ChildrenOf(parentSlot);
    siblings.erase(siblings.begin() + first, siblings.begin() + last + 1);
    for (std::size_t row = static_cast<std::size_t>(first); row < siblings.size(); ++row) {
        rows[static_cast<std::size_t>(siblings[row])].rowInParent = static_cast<int>(row);
    }
    q.endRemoveRows();
}

void ProcessTableModel::Impl::FreeSubtree(int slot) {
    std::vector<int> stack{slot};
    while (!stack.empty()) {
        const int current = stack.back();
        stack.pop_back();
        ProcessRow& row = rows[static_cast<std::size_t>(current)];
        stack.insert(stack.end(), row.children.begin(), row.children.end());
        if (slotByKey.Find(row.base.key) == current) slotByKey.Erase(row.base.key);
        row = ProcessRow{};
        row.free = true;
        freeSlots.push_back(current);
    }
}

void ProcessTableModel::Impl::Overwrite(int slot, const ProcessPassRow& passRow) {
    ProcessRow& row = rows[static_cast<std::size_t>(slot)];
    ProcessRowValues& base = row.base;
    std::uint8_t differs = 0;
    if (passRow.header) {
        QString name = GroupHeaderText(passRow.group, passRow.headerCount);
        if (name != base.name) {
            base.name = std::move(name);
            differs = kShownValuesChanged;
        }
    } else {
        const core::ProcessSnapshot& process = *passRow.source;
        if (row.source == nullptr || RowTextsDiffer(*row.source, process)) {
            FillRowTexts(process, base);
            differs = kShownValuesChanged | kSearchTextChanged;
        }
        base.parentKey = process.parentKey;
        if (base.state != process.state || base.exited != passRow.exited || base.group != passRow.group) {
            base.state = process.state;
            base.exited = passRow.exited;
            base.group = passRow.group;
            base.groupOrder = passRow.group;
            differs |= kShownValuesChanged;
        }
        // The shown figures are compared by the roll-up.
        base.figures = FiguresOf(process, passRow.cpuPercent);
        row.source = &process;
    }
    changed[static_cast<std::size_t>(slot)] |= differs;
}

void ProcessTableModel::Impl::InsertNewRows() {
    std::vector<int> waiting;
    std::vector<std::pair<int, int>> placeable;  // (parent slot, pass position)
    while (!pendingNew.empty()) {
        placeable.clear();
        waiting.clear();
        for (int position : pendingNew) {
            const int parentPosition = pass[static_cast<std::size_t>(position)].parent;
            int parentSlot = -1;
            if (parentPosition >= 0) {
                parentSlot = slotByKey.Find(pass[static_cast<std::size_t>(parentPosition)].key);
                if (parentSlot < 0) {
                    waiting.push_back(position);
                    continue;
                }
            }
            placeable.emplace_back(parentSlot, position);
        }
        if (placeable.empty()) break;
        std::stable_sort(placeable.begin(), placeable.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        std::size_t i = 0;
        while (i < placeable.size()) {
            const int parentSlot = placeable[i].first;
            std::size_t end = i;
            while (end < placeable.size() && placeable[end].first == parentSlot) ++end;
            const int first = static_cast<int>(ChildrenOf(parentSlot).size());
            const int count = static_cast<int>(end - i);
            q.beginInsertRows(ParentIndexOf(parentSlot), first, first + count - 1);
            for (std::size_t k = i; k < end; ++k) {
                const ProcessPassRow& passRow = pass[static_cast<std::size_t>(placeable[k].second)];
                const int slot = AcquireSlot();
                ProcessRow& row = rows[static_cast<std::size_t>(slot)];
                FillRow(row, passRow);
                row.display = row.base.figures;
                row.parentIndex = parentSlot;
                std::vector<int>& siblings = ChildrenOf(parentSlot);
                row.rowInParent = static_cast<int>(siblings.size());
                siblings.push_back(slot);
                slotByKey.Assign(passRow.key, slot);
            }
            q.endInsertRows();
            i = end;
        }
        pendingNew.swap(waiting);
    }
}

void ProcessTableModel::Impl::GlowPass() {
    const std::int64_t now = Now();
    int cpuRank = 0;
    int memoryRank = 0;
    for (ProcessRow& row : rows) {
        if (row.free || row.base.groupHeader) continue;
        ProcessCellMemory& cells = row.cells;
        if (row.base.exited) {
            cells = ProcessCellMemory{};
            continue;
        }
        if (cells.cpuGlow.active && RemainingGlow(cells.cpuGlow, now) <= 0.0) cells.cpuGlow = CellGlow{};
        if (cells.memoryGlow.active && RemainingGlow(cells.memoryGlow, now) <= 0.0) cells.memoryGlow = CellGlow{};

        // A text is made only when its value moved; the same value always reads the same.
        const std::optional<double>& cpu = row.display.cpuPercent.value;
        if (!cells.hasCpuText || cells.cpuTextValue != cpu) {
            QString text = cpu ? CpuCellNumber(*cpu) : QString();
            const bool lit = cells.hasCpuText ? text != cells.cpuText : primed;
            if (lit) cells.cpuGlow = LightGlow(cells.cpuGlow, cpuRank++, now);
            cells.cpuText = std::move(text);
            cells.cpuTextValue = cpu;
            cells.hasCpuText = true;
        }

        const RowFigure<std::uint64_t>& memory = row.display.memoryBytes;
        // A new unit or total changes the text of an unchanged value too, and that change glows as well.
        if (!cells.hasMemoryText || !(cells.memoryTextValue == memory) || cells.memoryTextEpoch != memoryEpoch) {
            QString text = MemoryCellText(memory, memoryMode);
            const bool lit = cells.hasMemoryText ? text != cells.memoryText : primed;
            if (lit) cells.memoryGlow = LightGlow(cells.memoryGlow, memoryRank++, now);
            cells.memoryText = std::move(text);
            cells.memoryTextValue = memory;
            cells.memoryTextEpoch = memoryEpoch;
            cells.hasMemoryText = true;
        }
    }
    primed = true;
}

namespace {

// The roles a refresh may change. The search text is named only where it changed: the proxy
// walks up to every ancestor of a change of its filter role.
const QList<int>& ShownRoles() {
    static const QList<int> roles{Qt::DisplayRole, Qt::AccessibleTextRole, kProcessSortRole, Qt::BackgroundRole,
                                  Qt::ForegroundRole};
    return roles;
}

const QList<int>& ShownAndSearchRoles() {
    static const QList<int> roles = [] {
        QList<int> all = ShownRoles();
        all.append(kProcessSearchRole);
        return all;
    }();
    return roles;
}

}  // namespace

void ProcessTableModel::Impl::EmitChanged(int firstColumn, int lastColumn) {
    struct Item {
        int parent;
        int row;
        std::uint8_t flags;
        bool operator<(const Item& other) const {
            return parent != other.parent ? parent < other.parent : row < other.row;
        }
    };
    std::vector<Item> items;
    for (std::size_t slot = 0; slot < rows.size() && slot < changed.size(); ++slot) {
        if (changed[slot] != 0 && !rows[slot].free) {
            items.push_back(Item{rows[slot].parentIndex, rows[slot].rowInParent, changed[slot]});
        }
    }
    std::sort(items.begin(), items.end());
    std::size_t i = 0;
    while (i < items.size()) {
        const int parent = items[i].parent;
        const int first = items[i].row;
        int last = first;
        std::uint8_t flags = items[i].flags;
        std::size_t j = i + 1;
        while (j < items.size() && items[j].parent == parent && items[j].row == last + 1) {
            last = items[j].row;
            flags |= items[j].flags;
            ++j;
        }
        const std::vector<int>& siblings = ChildrenOf(parent);
        const QList<int>& roles = (flags & kSearchTextChanged) != 0 ? ShownAndSearchRoles() : ShownRoles();
        emit q.dataChanged(q.createIndex(first, firstColumn, IdOfSlot(siblings[static_cast<std::size_t>(first)])),
                           q.createIndex(last, lastColumn, IdOfSlot(siblings[static_cast<std::size_t>(last)])), roles);
        i = j;
    }
}

void ProcessTableModel::Impl::EmitEveryRow(int firstColumn, int lastColumn) {
    const auto emitSiblings = [&](const std::vector<int>& siblings) {
        if (siblings.empty()) return;
        const int last = static_cast<int>(siblings.size()) - 1;
        emit q.dataChanged(q.createIndex(0, firstColumn, IdOfSlot(siblings.front())),
                           q.createIndex(last, lastColumn, IdOfSlot(siblings.back())), ShownRoles());
    };
    emitSiblings(topLevel);
    for (const ProcessRow& row : rows) {
        if (!row.free) emitSiblings(row.children);
    }
}

void ProcessTableModel::Impl::RecomputeShownFigures() {
    changed.assign(rows.size(), 0);
    RollUp(rows, collapsedKeys, rollUpEnabled, cpuCapPercent, changed, rollUpScratch);
    GlowPass();
    EmitEveryRow(static_cast<int>(ProcessTableColumn::cpu), static_cast<int>(ProcessTableColumn::fileDescriptors));
}

}  // namespace korv::host::linux_client
