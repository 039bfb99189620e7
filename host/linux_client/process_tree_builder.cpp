#include "host/linux_client/process_tree_builder.h"

#include <algorithm>
#include <limits>

namespace korv::host::linux_client {
namespace {

int AvailabilityPriority(core::MetricAvailability availability) noexcept {
    using core::MetricAvailability;
    switch (availability) {
    case MetricAvailability::accessDenied:
        return 3;
    case MetricAvailability::notYetAvailable:
        return 2;
    case MetricAvailability::transientError:
        return 1;
    case MetricAvailability::notApplicable:
    case MetricAvailability::unsupported:
        return 0;
    default:
        return -1;
    }
}

std::uint64_t SaturatingAdd(std::uint64_t a, std::uint64_t b) noexcept {
    return a > std::numeric_limits<std::uint64_t>::max() - b ? std::numeric_limits<std::uint64_t>::max() : a + b;
}

template <typename T>
RowFigure<T> AddFigure(const RowFigure<T>& a, const RowFigure<T>& b) noexcept {
    RowFigure<T> sum;
    sum.availability = CombineAvailability(a.value.has_value(), a.availability, b.value.has_value(), b.availability);
    if (a.value && b.value) {
        if constexpr (std::is_same_v<T, std::uint64_t>) {
            sum.value = SaturatingAdd(*a.value, *b.value);
        } else {
            sum.value = *a.value + *b.value;
        }
    } else if (a.value) {
        sum.value = a.value;
    } else if (b.value) {
        sum.value = b.value;
    }
    return sum;
}

ProcessRowFigures OwnContribution(const ProcessRow& row) {
    return row.base.exited ? ProcessRowFigures{} : row.base.figures;
}

}  // namespace

void ResolveParents(std::span<const ProcessPassLink> rows, const ProcessKeyTable& positions, bool treeMode,
                    std::vector<int>& parents) {
    const std::size_t count = rows.size();
    parents.assign(count, -1);
    if (!treeMode) return;
    for (std::size_t i = 0; i < count; ++i) {
        const ProcessPassLink& row = rows[i];
        if (row.reportedParent == row.key) continue;
        const int parent = positions.Find(row.reportedParent);
        if (parent < 0 || static_cast<std::size_t>(parent) >= count) continue;
        if (rows[static_cast<std::size_t>(parent)].group != row.group) continue;
        parents[i] = parent;
    }
    // Break loops: walk up from each row; a parent met again on the same walk closes a loop.
    std::vector<std::uint8_t> state(count, 0);
    std::vector<int> path;
    for (std::size_t start = 0; start < count; ++start) {
        if (state[start] != 0) continue;
        path.clear();
        int current = static_cast<int>(start);
        while (true) {
            state[static_cast<std::size_t>(current)] = 1;
            path.push_back(current);
            const int parent = parents[static_cast<std::size_t>(current)];
            if (parent < 0 || state[static_cast<std::size_t>(parent)] == 2) break;
            if (state[static_cast<std::size_t>(parent)] == 1) {
                parents[static_cast<std::size_t>(current)] = -1;
                break;
            }
            current = parent;
        }
        for (int visited : path) state[static_cast<std::size_t>(visited)] = 2;
    }
}

bool IsStructurallyCompatible(const std::vector<ProcessRow>& rows, const ProcessKeyTable& slotByKey,
                              std::span<const ProcessShapeEntry> pass, std::vector<int>& passSlots) {
    passSlots.assign(pass.size(), -1);
    std::vector<std::size_t> pending;
    for (std::size_t i = 0; i < pass.size(); ++i) {
        const ProcessShapeEntry& entry = pass[i];
        const int slot = slotByKey.Find(entry.key);
        passSlots[i] = slot;
        if (slot < 0) {
            pending.push_back(i);
            continue;
        }
        const ProcessRow& row = rows[static_cast<std::size_t>(slot)];
        const bool modelHasParent = row.parentIndex >= 0;
        if (modelHasParent != entry.parent.has_value()) return false;
        if (modelHasParent && rows[static_cast<std::size_t>(row.parentIndex)].base.key != *entry.parent) return false;
    }
    if (pending.empty()) return true;

    ProcessKeyTable placed;
    placed.Reserve(pending.size());
    std::vector<std::size_t> next;
    while (!pending.empty()) {
        next.clear();
        for (std::size_t i : pending) {
            const ProcessShapeEntry& entry = pass[i];
            if (!entry.parent || slotByKey.Contains(*entry.parent) || placed.Contains(*entry.parent)) {
                placed.Insert(entry.key, 0);
            } else {
                next.push_back(i);
            }
        }
        if (next.size() == pending.size()) return false;
        pending.swap(next);
    }
    return true;
}

core::MetricAvailability CombineAvailability(bool leftHasValue, core::MetricAvailability left, bool rightHasValue,
                                             core::MetricAvailability right) noexcept {
    using core::MetricAvailability;
    if (leftHasValue && rightHasValue) {
        return left == MetricAvailability::stale || right == MetricAvailability::stale ? MetricAvailability::stale
                                                                                      : MetricAvailability::valid;
    }
    if (leftHasValue) return left;
    if (rightHasValue) return right;
    return AvailabilityPriority(right) > AvailabilityPriority(left) ? right : left;
}

ProcessRowFigures AddSubtreeFigures(const ProcessRowFigures& total, const ProcessRowFigures& part) noexcept {
    ProcessRowFigures sum = total;
    sum.cpuPercent = AddFigure(total.cpuPercent, part.cpuPercent);
    sum.memoryBytes = AddFigure(total.memoryBytes, part.memoryBytes);
    sum.diskReadBytesPerSecond = AddFigure(total.diskReadBytesPerSecond, part.diskReadBytesPerSecond);
    sum.diskWriteBytesPerSecond = AddFigure(total.diskWriteBytesPerSecond, part.diskWriteBytesPerSecond);
    sum.virtualBytes = AddFigure(total.virtualBytes, part.virtualBytes);
    sum.fileDescriptorCount = AddFigure(total.fileDescriptorCount, part.fileDescriptorCount);
    const std::uint64_t threads = static_cast<std::uint64_t>(total.threadCount) + part.threadCount;
    sum.threadCount = threads > std::numeric_limits<std::uint32_t>::max() ? std::numeric_limits<std::uint32_t>::max()
                                                                          : static_cast<std::uint32_t>(threads);
    return sum;
}

void RollUp(std::vector<ProcessRow>& rows, const std::set<core::ProcessKey>& collapsedKeys, bool enabled,
            double cpuCapPercent, std::vector<std::uint8_t>& changed, RollUpScratch& scratch) {
    const std::size_t count = rows.size();
    if (changed.size() < count) changed.resize(count, 0);
    const auto show = [&](std::size_t slot, const ProcessRowFigures& figures) {
        ProcessRow& row = rows[slot];
        if (!(row.display == figures)) {
            row.display = figures;
            changed[slot] |= kShownValuesChanged;
        }
    };
    for (std::size_t slot = 0; slot < count; ++slot) {
        const ProcessRow& row = rows[slot];
        if (row.free || row.base.groupHeader) continue;
        show(slot, row.base.figures);
    }
    if (!enabled || collapsedKeys.empty()) return;

    // Only collapsed parents show sums, so only their subtrees are walked.
    scratch.state.assign(count, 0);
    scratch.sums.resize(count);
    const double ceiling = std::max(cpuCapPercent, 100.0);
    for (std::size_t slot = 0; slot < count; ++slot) {
        const ProcessRow& row = rows[slot];
        if (row.free || row.base.groupHeader || row.base.exited || row.children.empty()) continue;
        if (!collapsedKeys.contains(row.base.key)) continue;
        if (scratch.state[slot] != 2) {
            scratch.stack.clear();
            scratch.state[slot] = 1;
            scratch.sums[slot] = OwnContribution(row);
            scratch.stack.emplace_back(static_cast<int>(slot), 0);
            while (!scratch.stack.empty()) {
                auto& [current, next] = scratch.stack.back();
                const ProcessRow& parent = rows[static_cast<std::size_t>(current)];
                if (next < parent.children.size()) {
                    const auto child = static_cast<std::size_t>(parent.children[next++]);
                    if (scratch.state[child] == 2) {
                        scratch.sums[static_cast<std::size_t>(current)] =
                            AddSubtreeFigures(scratch.sums[static_cast<std::size_t>(current)], scratch.sums[child]);
                    } else if (scratch.state[child] == 1) {
                        // A loop: the row in progress counts with its own values only.
                        scratch.sums[static_cast<std::size_t>(current)] = AddSubtreeFigures(
                            scratch.sums[static_cast<std::size_t>(current)], OwnContribution(rows[child]));
                    } else {
                        scratch.state[child] = 1;
                        scratch.sums[child] = OwnContribution(rows[child]);
                        scratch.stack.emplace_back(static_cast<int>(child), 0);
                    }
                    continue;
                }
                const auto finished = static_cast<std::size_t>(current);
                scratch.state[finished] = 2;
                scratch.stack.pop_back();
                if (!scratch.stack.empty()) {
                    const auto owner = static_cast<std::size_t>(scratch.stack.back().first);
                    scratch.sums[owner] = AddSubtreeFigures(scratch.sums[owner], scratch.sums[finished]);
                }
            }
        }
        ProcessRowFigures shown = scratch.sums[slot];
        shown.nice = row.base.figures.nice;
        if (shown.cpuPercent.value) shown.cpuPercent.value = std::clamp(*shown.cpuPercent.value, 0.0, ceiling);
        show(slot, shown);
    }
}

}  // namespace korv::host::linux_client
