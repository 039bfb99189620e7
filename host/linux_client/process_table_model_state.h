#pragma once

// The inner state of ProcessTableModel, shared by the file that answers the views and the one
// that applies snapshots. Not for use outside the model.

#include "host/linux_client/process_cell_text.h"
#include "host/linux_client/process_cpu_smoother.h"
#include "host/linux_client/process_glow.h"
#include "host/linux_client/process_row.h"
#include "host/linux_client/process_table_model.h"
#include "host/linux_client/process_tree_builder.h"

#include <QElapsedTimer>
#include <QList>
#include <QString>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

namespace korv::host::linux_client {

// One row of a pass before it is placed: a live process, an exited one, or a group header.
struct ProcessPassRow {
    const core::ProcessSnapshot* source = nullptr;  // null for a header
    core::ProcessKey key;
    int parent = -1;  // pass position of the row it hangs under; -1 at the top level
    std::optional<double> cpuPercent;  // smoothed; the other figures are read from the source when placed
    std::uint32_t group = 1;
    bool exited = false;
    bool header = false;
    std::size_t headerCount = 0;
};

struct ProcessExitEntry {
    std::int64_t ms = 0;
    bool fadeDone = false;
};

// An index carries its row's slot in its internal id, multiplied by an odd constant. Qt hashes an
// index by its row plus its internal id, and the proxy keeps its mappings and the views their
// persistent indexes in such hashes: small consecutive ids would crowd them into long probes.
inline constexpr quintptr kSlotIdFactor = static_cast<quintptr>(0x9E3779B97F4A7C15ULL);

constexpr quintptr InverseOfOdd(quintptr factor) {
    quintptr inverse = factor;  // Newton's iteration doubles the correct low bits each round
    for (int round = 0; round < 6; ++round) inverse *= 2 - factor * inverse;
    return inverse;
}
inline constexpr quintptr kSlotIdInverse = InverseOfOdd(kSlotIdFactor);
static_assert(kSlotIdFactor * kSlotIdInverse == 1);

inline quintptr IdOfSlot(int slot) noexcept {
    return static_cast<quintptr>(slot) * kSlotIdFactor;
}
inline quintptr SlotOfId(quintptr id) noexcept {
    return id * kSlotIdInverse;
}

// Where the sort words of the states keep "Exited", after the seven states.
inline constexpr int kExitedWordIndex = 7;

struct ProcessTableModel::Impl {
    explicit Impl(ProcessTableModel& owner) : q(owner) {
        clock.start();
        for (int state = 0; state < kExitedWordIndex; ++state) {
            sortStateWords[static_cast<std::size_t>(state)] =
                ProcessStateWord(static_cast<core::ProcessState>(state));
        }
        sortStateWords[kExitedWordIndex] = ExitedStateWord();
    }

    ProcessTableModel& q;

    std::vector<ProcessRow> rows;
    std::vector<int> freeSlots;
    std::vector<int> topLevel;
    ProcessKeyTable slotByKey;
    std::set<core::ProcessKey> collapsedKeys;
    std::optional<core::ProcessKey> followedKey;
    MemoryDisplayMode memoryMode;
    std::uint64_t memoryEpoch = 1;  // changes whenever the memory text of an unchanged value may change
    double cpuCapPercent = 100.0;
    bool rollUpEnabled = true;
    ProcessCpuSmoother smoother;
    std::unordered_map<core::ProcessKey, ProcessExitEntry, core::ProcessKeyHash> exitTimes;
    std::shared_ptr<const std::vector<core::ExitedProcessRecord>> pendingExited;
    // What the rows' source pointers point into; kept until the next pass has compared against it.
    std::shared_ptr<const std::vector<core::ExitedProcessRecord>> shownExited;
    std::shared_ptr<const core::SystemSnapshot> shownSnapshot;
    bool primed = false;
    std::optional<std::uint32_t> hiddenPid;
    std::size_t hiddenCount = 0;
    std::size_t exitedCount = 0;
    std::size_t liveCount = 0;
    QElapsedTimer clock;
    std::optional<std::int64_t> frozenAt;
    std::array<QString, kExitedWordIndex + 1> sortStateWords;

    // Scratch of a pass, reused so that a steady refresh allocates little.
    std::vector<ProcessPassRow> pass;
    ProcessKeyTable positions;
    std::vector<int> passSlots;        // slot of each pass row, -1 for a new one
    std::vector<std::uint8_t> inPass;  // per slot: its key is in this pass
    std::vector<ProcessPassLink> links;
    std::vector<int> parents;
    std::vector<ProcessShapeEntry> shape;
    std::vector<int> pendingNew;
    std::vector<std::uint8_t> changed;
    RollUpScratch rollUpScratch;

    std::int64_t Now() const { return frozenAt ? *frozenAt : clock.elapsed(); }

    const ProcessRow* UsedRow(const QModelIndex& index) const {
        if (!index.isValid() || index.model() != &q) return nullptr;
        if (index.column() < 0 || index.column() >= kProcessTableColumnCount) return nullptr;
        const quintptr slot = SlotOfId(index.internalId());
        if (slot >= rows.size()) return nullptr;
        const ProcessRow& row = rows[slot];
        return row.free ? nullptr : &row;
    }

    QModelIndex IndexOfSlot(int slot, int column) const {
        return q.createIndex(rows[static_cast<std::size_t>(slot)].rowInParent, column, IdOfSlot(slot));
    }

    QModelIndex ParentIndexOf(int parentSlot) const {
        return parentSlot < 0 ? QModelIndex() : IndexOfSlot(parentSlot, 0);
    }

    std::vector<int>& ChildrenOf(int parentSlot) {
        return parentSlot < 0 ? topLevel : rows[static_cast<std::size_t>(parentSlot)].children;
    }

    int AcquireSlot() {
        if (!freeSlots.empty()) {
            const int slot = freeSlots.back();
            freeSlots.pop_back();
            rows[static_cast<std::size_t>(slot)] = ProcessRow{};
            return slot;
        }
        rows.emplace_back();
        return static_cast<int>(rows.size() - 1);
    }

    // Applying a snapshot (process_table_update.cpp).

    bool Apply(const std::shared_ptr<const core::SystemSnapshot>& snapshot);
    void BuildPass(const core::SystemSnapshot& snapshot, bool& forceReset);
    void FillRow(ProcessRow& row, const ProcessPassRow& passRow) const;
    void Reset();
    void Patch(bool memoryTotalChanged);
    void RemoveMissingRows();
    void RemoveRun(int parentSlot, int first, int last);
    void FreeSubtree(int slot);
    void Overwrite(int slot, const ProcessPassRow& passRow);
    void InsertNewRows();
    void GlowPass();
    void EmitChanged(int firstColumn, int lastColumn);
    void EmitEveryRow(int firstColumn, int lastColumn);
    void RecomputeShownFigures();
};

}  // namespace korv::host::linux_client
