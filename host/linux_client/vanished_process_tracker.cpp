#include "host/linux_client/vanished_process_tracker.h"

#include <algorithm>
#include <unordered_set>

namespace korv::host::linux_client {
namespace {

bool SortedByKey(const std::vector<core::ProcessSnapshot>& processes) {
    return std::is_sorted(processes.begin(), processes.end(),
                          [](const auto& a, const auto& b) { return a.key < b.key; });
}

// Calls `gone` for every process of `before` whose key is not in `after`.
template <typename Gone>
void ForEachVanished(const std::vector<core::ProcessSnapshot>& before, const std::vector<core::ProcessSnapshot>& after,
                     Gone gone) {
    if (SortedByKey(before) && SortedByKey(after)) {
        auto next = after.begin();
        for (const core::ProcessSnapshot& process : before) {
            while (next != after.end() && next->key < process.key) ++next;
            if (next == after.end() || next->key != process.key) gone(process);
        }
        return;
    }
    std::unordered_set<core::ProcessKey, core::ProcessKeyHash> alive;
    alive.reserve(after.size());
    for (const core::ProcessSnapshot& process : after) alive.insert(process.key);
    for (const core::ProcessSnapshot& process : before) {
        if (!alive.contains(process.key)) gone(process);
    }
}

bool Alive(const std::vector<core::ProcessSnapshot>& processes, bool sorted, const core::ProcessKey& key) {
    if (sorted) {
        const auto found = std::lower_bound(processes.begin(), processes.end(), key,
                                            [](const auto& process, const auto& wanted) { return process.key < wanted; });
        return found != processes.end() && found->key == key;
    }
    return std::any_of(processes.begin(), processes.end(), [&key](const auto& process) { return process.key == key; });
}

}  // namespace

std::vector<core::ExitedProcessRecord> VanishedProcessTracker::Update(const core::SystemSnapshot* previous,
                                                                       const core::SystemSnapshot& current) {
    std::vector<core::ProcessKey> listed;
    listed.reserve(current.exitedProcesses.size());
    for (const auto& record : current.exitedProcesses) listed.push_back(record.process.key);
    std::sort(listed.begin(), listed.end());
    const auto inList = [&listed](const core::ProcessKey& key) {
        return std::binary_search(listed.begin(), listed.end(), key);
    };

    const std::uint64_t now = current.monotonicNs;
    const bool sorted = SortedByKey(current.processes);
    std::erase_if(kept_, [&](const core::ExitedProcessRecord& record) {
        return inList(record.process.key) || record.exitedAtNs > now || now - record.exitedAtNs > kRetentionNs ||
               Alive(current.processes, sorted, record.process.key);
    });

    // Only a recent previous snapshot tells when a process went; after a long gap it is simply gone.
    if (previous != nullptr && previous->monotonicNs <= now && now - previous->monotonicNs <= kRetentionNs) {
        std::vector<core::ProcessKey> keptKeys;
        keptKeys.reserve(kept_.size());
        for (const auto& record : kept_) keptKeys.push_back(record.process.key);
        std::sort(keptKeys.begin(), keptKeys.end());
        ForEachVanished(previous->processes, current.processes, [&](const core::ProcessSnapshot& process) {
            if (inList(process.key) || std::binary_search(keptKeys.begin(), keptKeys.end(), process.key)) return;
            core::ExitedProcessRecord record;
            record.process = process;
            record.exitedAtNs = now;
            record.exitedGeneration = current.generation;
            kept_.push_back(std::move(record));
        });
        if (kept_.size() > kCapacity) kept_.erase(kept_.begin(), kept_.end() - static_cast<std::ptrdiff_t>(kCapacity));
    }

    std::vector<core::ExitedProcessRecord> shown;
    shown.reserve(current.exitedProcesses.size() + kept_.size());
    shown.insert(shown.end(), current.exitedProcesses.begin(), current.exitedProcesses.end());
    shown.insert(shown.end(), kept_.begin(), kept_.end());
    return shown;
}

void VanishedProcessTracker::Clear() {
    kept_.clear();
}

}  // namespace korv::host::linux_client
