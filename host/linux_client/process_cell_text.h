#pragma once

#include "core/snapshot_enums.h"
#include "host/linux_client/process_row.h"

#include <QString>
#include <QVariant>

#include <cstdint>
#include <optional>

namespace korv::host::linux_client {

// How the memory column reads: as a percent of the machine's memory when asked and the total is
// known and not zero, else in bytes.
struct MemoryDisplayMode {
    bool percent = false;
    std::optional<std::uint64_t> totalBytes;

    bool ShowsPercent() const noexcept { return percent && totalBytes && *totalBytes != 0; }
};

// "Running", "Sleeping", "Stopped", "Suspended", "Zombie", "Not responding", else "Unknown".
QString ProcessStateWord(core::ProcessState state);
// "Exited".
QString ExitedStateWord();

// "Applications (%1)" or "Background processes (%1)".
QString GroupHeaderText(std::uint32_t groupOrder, std::size_t count);

// "%.1f%%": the CPU cell's number, and what the glow compares.
QString CpuCellNumber(double percent);

// The memory cell's text: percent or bytes, " (stale)" behind a stale value, the availability word
// where there is no value.
QString MemoryCellText(const RowFigure<std::uint64_t>& memory, const MemoryDisplayMode& mode);

// The text of a process row's cell as shown (the followed-row flag aside).
QString ProcessCellText(const ProcessRowValues& base, const ProcessRowFigures& shown, int column,
                        const MemoryDisplayMode& mode);

// The raw value of a process row's cell for sorting; an invalid variant for an absent value.
QVariant ProcessSortValue(const ProcessRowValues& base, const ProcessRowFigures& shown, int column,
                          const MemoryDisplayMode& mode);

}  // namespace korv::host::linux_client
