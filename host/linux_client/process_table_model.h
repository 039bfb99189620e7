#pragma once

#include "core/snapshot.h"
#include "host/linux_client/process_table_columns.h"

#include <QAbstractItemModel>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace korv::host::linux_client {

// The rows of the Processes page: a tree of group headers and processes built from each snapshot.
// A row keeps its slot (carried in the internal id of its indexes) for as long as its key lives; a refresh
// patches rows in place and resets only when the structure cannot be patched. GUI thread only.
class ProcessTableModel : public QAbstractItemModel {
    Q_OBJECT
public:
    explicit ProcessTableModel(QObject* parent = nullptr);
    ~ProcessTableModel() override;

    QModelIndex index(int row, int column, const QModelIndex& parent = QModelIndex()) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    bool hasChildren(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;

    // The per-refresh entry. Returns true when the model was reset, so that the view must rebuild
    // its expansion.
    bool ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot);
    // The exited processes to show in the next ApplySnapshot; the model keeps its own copy.
    void SetExitedProcesses(const std::vector<core::ExitedProcessRecord>& records);

    // Replace the collapsed set, or change one key. Only a real change re-runs the roll-up and the
    // glow pass and announces columns 4 to 10 of every row.
    void SetCollapsedKeys(const std::set<core::ProcessKey>& keys);
    void SetRowCollapsed(const core::ProcessKey& key, bool collapsed);
    const std::set<core::ProcessKey>& CollapsedKeys() const;

    void SetShowMemoryPercent(bool show);
    bool ShowMemoryPercent() const;
    // Tree mode: rows hang under their parents and collapsed parents show their subtree's sums.
    void SetRollUpEnabled(bool enabled);
    bool RollUpEnabled() const;
    // Stores the flag and forgets the smoothing filter's readings, whatever the old value.
    void SetSmoothCpu(bool smooth);
    bool SmoothCpu() const;
    void SetHiddenPid(std::optional<std::uint32_t> pid);
    std::optional<std::uint32_t> HiddenPid() const;
    // The ceiling of a rolled-up CPU sum; the window sets max(100, 100 * logical processors).
    void SetCpuCapPercent(double percent);
    double CpuCapPercent() const;
    void SetFollowedKey(std::optional<core::ProcessKey> key);
    std::optional<core::ProcessKey> FollowedKey() const;
    std::optional<std::uint64_t> MemoryTotalBytes() const;

    // The cells and rows whose glow or red wash is still running (or ended since the last tick and
    // needs one last repaint); dead glows are pruned.
    struct GlowTick {
        std::vector<core::ProcessKey> cpuCells;
        std::vector<core::ProcessKey> memoryCells;
        std::vector<core::ProcessKey> exitedRows;
    };
    GlowTick TickGlow();
    bool AnyGlowActive() const;
    bool AnyExitFadeActive() const;

    bool RowIsExited(const core::ProcessKey& key) const;
    QModelIndex IndexForKey(const core::ProcessKey& key, int column = 0) const;
    // None for a group header or a bad index.
    std::optional<core::ProcessKey> KeyForIndex(const QModelIndex& sourceIndex) const;
    // The row's slot, which stays the same for as long as its key lives; none for a bad index.
    std::optional<int> SlotForIndex(const QModelIndex& index) const;
    // The row's key, a group header's reserved key included.
    std::optional<core::ProcessKey> RowKey(const QModelIndex& index) const;
    bool IsGroupHeader(const QModelIndex& index) const;
    bool IsExited(const QModelIndex& index) const;
    // The live record, or for an exited row the last one kept; null for a header or a bad index.
    const core::ProcessSnapshot* RowSnapshot(const QModelIndex& index) const;
    // The text the filter searches; null for a header or a bad index.
    const QString* SearchText(const QModelIndex& index) const;
    // The order of ProcessSortRole values in the left index's column, without making variants:
    // an absent value sorts after every present one, texts compare ignoring case. Two group
    // headers compare by their fixed place, flipped with the order, so that "Applications"
    // stays above "Background processes" whichever way the rows are sorted.
    bool SortLessThan(const QModelIndex& left, const QModelIndex& right, Qt::SortOrder order) const;
    std::uint32_t GroupOrder(const QModelIndex& index) const;

    std::size_t HiddenRowCount() const;
    std::size_t ExitedRowCount() const;
    // Rows of live processes (headers and exited rows left out).
    std::size_t LiveRowCount() const;

    // Elapsed milliseconds of the model's clock, or the value it is frozen at. A frozen clock
    // freezes every glow and fade.
    std::int64_t ModelNow() const;
    void FreezeClock();
    void FreezeClockAt(std::int64_t milliseconds);
    void ThawClock();

signals:
    void FollowedKeyChanged();

private:
    struct Impl;
    std::unique_ptr<Impl> d_;
};

}  // namespace korv::host::linux_client
