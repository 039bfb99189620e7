#pragma once

#include "core/snapshot.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace korv::core {

// Remembers processes that left the table for a short while, so that pages can show them leaving.
// Used on the engine's thread only.
class ExitedProcessTracker {
public:
    static constexpr std::uint64_t kRetentionNs = 5'000'000'000ULL;
    static constexpr std::size_t kCapacity = 64;

    // For a coherent snapshot: drops entries alive again or older than the retention, appends the
    // previous snapshot's processes that are gone now, keeps the newest kCapacity, copies the list
    // into the snapshot and makes it the previous one.
    void Update(const std::shared_ptr<SystemSnapshot>& snapshot);
    void Reset();

private:
    struct IndexedKey {
        ProcessKey key;
        std::size_t index;
        friend bool operator<(const IndexedKey& a, const IndexedKey& b) noexcept { return a.key < b.key; }
    };

    std::shared_ptr<const SystemSnapshot> previous_;
    std::vector<IndexedKey> previousKeys_;  // sorted keys of previous_->processes
    std::vector<IndexedKey> currentKeys_;
    std::vector<ExitedProcessRecord> exited_;
};

}  // namespace korv::core
