#pragma once

#include "core/metric.h"
#include "core/process_key.h"
#include "core/snapshot.h"
#include "host/linux_client/process_glow.h"

#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

namespace korv::host::linux_client {

// One shown figure: the value, when there is one to show, and why it may be missing.
template <typename T>
struct RowFigure {
    std::optional<T> value;
    core::MetricAvailability availability = core::MetricAvailability::notYetAvailable;

    friend bool operator==(const RowFigure&, const RowFigure&) = default;
};

// The figures of a row that a collapsed parent may show as sums of its subtree (nice is its own).
struct ProcessRowFigures {
    RowFigure<double> cpuPercent;
    RowFigure<std::uint64_t> memoryBytes;
    RowFigure<double> diskReadBytesPerSecond;
    RowFigure<double> diskWriteBytesPerSecond;
    std::uint32_t threadCount = 0;
    RowFigure<std::uint64_t> virtualBytes;
    RowFigure<std::uint64_t> fileDescriptorCount;
    RowFigure<std::int32_t> nice;

    friend bool operator==(const ProcessRowFigures&, const ProcessRowFigures&) = default;
};

// The values of one row as sampled.
struct ProcessRowValues {
    core::ProcessKey key;
    core::ProcessKey parentKey;  // as the snapshot reports it
    QString name;
    QString userName;
    core::MetricAvailability userNameAvailability = core::MetricAvailability::notYetAvailable;
    std::uint32_t group = 1;  // 0 "Applications", 1 "Background processes"
    QString applicationKey;
    core::ProcessState state = core::ProcessState::unknown;
    ProcessRowFigures figures;
    QString commandLine;
    core::MetricAvailability commandLineAvailability = core::MetricAvailability::notYetAvailable;
    QString searchText;  // name, user, command line, executable path and PID, one per line
    bool exited = false;
    bool groupHeader = false;
    std::uint32_t groupOrder = 0;
};

// The reserved keys of the two group header rows.
inline constexpr core::ProcessKey kApplicationsHeaderKey{0, 1};
inline constexpr core::ProcessKey kBackgroundHeaderKey{0, 2};

inline bool IsGroupHeaderKey(const core::ProcessKey& key) noexcept {
    return key == kApplicationsHeaderKey || key == kBackgroundHeaderKey;
}

// 0 for applications, 1 for every other group.
std::uint32_t RowGroupOf(core::ProcessGroup group) noexcept;

// A metric as a shown figure: the value only for valid, zero and stale, and a double only when it
// is finite; the availability always.
RowFigure<double> FigureOf(const core::Metric<double>& metric);
RowFigure<std::uint64_t> FigureOf(const core::Metric<std::uint64_t>& metric);
RowFigure<std::int32_t> NiceFigureOf(const core::Metric<double>& metric);

// The figures of a process, with the CPU percent replaced by the given (smoothed) value.
ProcessRowFigures FiguresOf(const core::ProcessSnapshot& process, std::optional<double> cpuPercent);

// The texts of a process record: name, user, application key, command line, search text.
void FillRowTexts(const core::ProcessSnapshot& process, ProcessRowValues& values);
// Whether the texts that FillRowTexts takes differ between two records of one key.
bool RowTextsDiffer(const core::ProcessSnapshot& a, const core::ProcessSnapshot& b) noexcept;

// What the glow pass remembers of a row's CPU and memory cells.
struct ProcessCellMemory {
    QString cpuText;
    QString memoryText;
    bool hasCpuText = false;
    bool hasMemoryText = false;
    std::optional<double> cpuTextValue;  // the value cpuText was made from
    RowFigure<std::uint64_t> memoryTextValue;
    std::uint64_t memoryTextEpoch = 0;   // the memory display mode memoryText was made in
    CellGlow cpuGlow;
    CellGlow memoryGlow;
};

// The stored record of one slot. A slot keeps its index for the life of its key.
struct ProcessRow {
    ProcessRowValues base;
    ProcessRowFigures display;  // base's figures, or the subtree's sums for a collapsed parent
    const core::ProcessSnapshot* source = nullptr;  // the live or last kept record; null for a header
    int parentIndex = -1;  // slot of the parent, -1 at the top level
    int rowInParent = 0;
    std::vector<int> children;  // slots, in display order
    bool free = false;
    ProcessCellMemory cells;
};

}  // namespace korv::host::linux_client
