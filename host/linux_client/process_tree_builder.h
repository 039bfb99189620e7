#pragma once

#include "core/process_key.h"
#include "host/linux_client/process_key_table.h"
#include "host/linux_client/process_row.h"

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <vector>

namespace korv::host::linux_client {

// One row of a pass as the tree sees it: its key, the parent the snapshot reports, its group.
struct ProcessPassLink {
    core::ProcessKey key;
    core::ProcessKey reportedParent;
    std::uint32_t group = 1;
};

// For each row, the position of the row it hangs under, or -1 for its group's header. In tree mode
// a row hangs under its reported parent when that parent is in the pass and in the same group, so a
// background child of an application stands at the top of the background group. A loop of parents
// is broken where it closes: that row goes under its header, so the result is always a forest.
void ResolveParents(std::span<const ProcessPassLink> rows, const ProcessKeyTable& positions, bool treeMode,
                    std::vector<int>& parents);

// A row of a pass by key and the key it hangs under (none for a group header).
struct ProcessShapeEntry {
    core::ProcessKey key;
    std::optional<core::ProcessKey> parent;
};

// Whether a pass can be patched into the rows in place: every key in both hangs under the same key
// (or stands at the top in both), and every new key can be placed, round by round, under a key
// that the model holds or that an earlier round placed. `passSlots` receives the slot of each
// entry, -1 for a new key, as far as the check went.
bool IsStructurallyCompatible(const std::vector<ProcessRow>& rows, const ProcessKeyTable& slotByKey,
                              std::span<const ProcessShapeEntry> pass, std::vector<int>& passSlots);

// The availability of a sum of two figures: stale when either side with a value is stale; the side
// with a value when only one has one; else the more telling reason (access denied, then not yet
// available, then transient error, then not applicable or unsupported).
core::MetricAvailability CombineAvailability(bool leftHasValue, core::MetricAvailability left, bool rightHasValue,
                                             core::MetricAvailability right) noexcept;

// `total` with `part` added: CPU, memory, disk rates, threads, virtual memory and descriptors.
// Unsigned sums saturate; nice stays `total`'s.
ProcessRowFigures AddSubtreeFigures(const ProcessRowFigures& total, const ProcessRowFigures& part) noexcept;

// Scratch space that RollUp reuses between passes.
struct RollUpScratch {
    std::vector<std::uint8_t> state;  // 0 untouched, 1 in progress, 2 done
    std::vector<ProcessRowFigures> sums;
    std::vector<std::pair<int, std::size_t>> stack;
};

// What changed in a row during a pass, as flags in one byte per slot.
inline constexpr std::uint8_t kShownValuesChanged = 1;
inline constexpr std::uint8_t kSearchTextChanged = 2;

// Sets `display` of every used row that is not a header: the subtree's sums for a collapsed parent
// when roll-up is on (CPU clamped to 0..max(cap, 100)), else the row's own figures. Exited rows add
// nothing to a sum. Marks kShownValuesChanged in `changed` for each slot whose display changed.
void RollUp(std::vector<ProcessRow>& rows, const std::set<core::ProcessKey>& collapsedKeys, bool enabled,
            double cpuCapPercent, std::vector<std::uint8_t>& changed, RollUpScratch& scratch);

}  // namespace korv::host::linux_client
