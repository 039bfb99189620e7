#include "host/linux_client/process_tree_selection.h"

#include <set>
#include <unordered_map>

namespace korv::host::linux_client {

std::vector<core::ProcessKey> ProcessTreeKeys(const std::vector<core::ProcessSnapshot>& processes,
                                              const std::vector<core::ProcessKey>& selected) {
    std::unordered_multimap<core::ProcessKey, core::ProcessKey, core::ProcessKeyHash> children;
    children.reserve(processes.size());
    for (const core::ProcessSnapshot& process : processes) {
        // A parent key with pid 0 stands for "no parent known"; it never names a selectable row.
        if (process.parentKey.pid == 0 || process.parentKey == process.key) continue;
        children.emplace(process.parentKey, process.key);
    }

    std::set<core::ProcessKey> found;
    std::vector<core::ProcessKey> pending;
    for (const core::ProcessKey& key : selected) {
        if (found.insert(key).second) pending.push_back(key);
    }
    // The set doubles as the visited mark, so a cycle in the parent links ends the walk.
    while (!pending.empty()) {
        const core::ProcessKey key = pending.back();
        pending.pop_back();
        const auto [begin, end] = children.equal_range(key);
        for (auto it = begin; it != end; ++it) {
            if (found.insert(it->second).second) pending.push_back(it->second);
        }
    }
    return {found.begin(), found.end()};
}

}  // namespace korv::host::linux_client
