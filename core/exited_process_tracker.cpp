#include "core/exited_process_tracker.h"

#include <algorithm>

namespace korv::core {

void ExitedProcessTracker::Update(const std::shared_ptr<SystemSnapshot>& snapshot) {
    liveScratch_.clear();
    liveScratch_.reserve(snapshot->processes.size());
    for (const auto& process : snapshot->processes) liveScratch_.push_back(&process);
    const auto byKey = [](const ProcessSnapshot* a, const ProcessSnapshot* b) { return a->key < b->key; };
    if (!std::is_sorted(liveScratch_.begin(), liveScratch_.end(), byKey)) {
        std::sort(liveScratch_.begin(), liveScratch_.end(), byKey);
    }
    const auto alive = [&](const ProcessKey& key) {
        auto it = std::lower_bound(liveScratch_.begin(), liveScratch_.end(), key,
                                   [](const ProcessSnapshot* p, const ProcessKey& k) { return p->key < k; });
        return it != liveScratch_.end() && (*it)->key == key;
    };

    const std::uint64_t now = snapshot->monotonicNs;
    std::erase_if(exited_, [&](const ExitedProcessRecord& entry) {
        return alive(entry.process.key) || (now > entry.exitedAtNs && now - entry.exitedAtNs > kRetentionNs);
    });

    if (previous_) {
        for (const auto& process : previous_->processes) {
            if (alive(process.key)) continue;
            exited_.push_back(ExitedProcessRecord{process, now, snapshot->generation});
        }
    }
    if (exited_.size() > kCapacity) {
        exited_.erase(exited_.begin(), exited_.end() - static_cast<std::ptrdiff_t>(kCapacity));
    }

    snapshot->exitedProcesses = exited_;
    previous_ = snapshot;
}

void ExitedProcessTracker::Reset() {
    previous_.reset();
    exited_.clear();
}

}  // namespace korv::core
