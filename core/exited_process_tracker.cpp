#include "core/exited_process_tracker.h"

#include <algorithm>

namespace korv::core {

void ExitedProcessTracker::Update(const std::shared_ptr<SystemSnapshot>& snapshot) {
    // Keys are copied into contiguous sorted vectors: a merge walk over them touches far less memory
    // than searching the process rows themselves.
    currentKeys_.clear();
    currentKeys_.reserve(snapshot->processes.size());
    for (std::size_t i = 0; i < snapshot->processes.size(); ++i) {
        currentKeys_.push_back({snapshot->processes[i].key, i});
    }
    if (!std::is_sorted(currentKeys_.begin(), currentKeys_.end())) std::sort(currentKeys_.begin(), currentKeys_.end());
    const auto alive = [&](const ProcessKey& key) {
        return std::binary_search(currentKeys_.begin(), currentKeys_.end(), IndexedKey{key, 0});
    };

    const std::uint64_t now = snapshot->monotonicNs;
    std::erase_if(exited_, [&](const ExitedProcessRecord& entry) {
        return alive(entry.process.key) || (now > entry.exitedAtNs && now - entry.exitedAtNs > kRetentionNs);
    });

    if (previous_) {
        auto current = currentKeys_.begin();
        for (const auto& before : previousKeys_) {
            while (current != currentKeys_.end() && current->key < before.key) ++current;
            if (current != currentKeys_.end() && current->key == before.key) continue;
            exited_.push_back(ExitedProcessRecord{previous_->processes[before.index], now, snapshot->generation});
        }
    }
    if (exited_.size() > kCapacity) {
        exited_.erase(exited_.begin(), exited_.end() - static_cast<std::ptrdiff_t>(kCapacity));
    }

    snapshot->exitedProcesses = exited_;
    previous_ = snapshot;
    previousKeys_.swap(currentKeys_);
}

void ExitedProcessTracker::Reset() {
    previous_.reset();
    previousKeys_.clear();
    exited_.clear();
}

}  // namespace korv::core
