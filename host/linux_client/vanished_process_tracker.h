#pragma once

#include "core/snapshot.h"

#include <cstdint>
#include <vector>

namespace korv::host::linux_client {

// The exited rows the Processes page shows: the engine's list, plus the processes of the page's
// previous snapshot that are gone now and that the list lacks (a source without the engine's
// tracking, or a list that was full). Those are kept for the same five seconds of sample time.
class VanishedProcessTracker {
public:
    static constexpr std::uint64_t kRetentionNs = 5'000'000'000ULL;
    static constexpr std::size_t kCapacity = 64;

    // `previous` is the snapshot the page showed before `current`, or null.
    std::vector<core::ExitedProcessRecord> Update(const core::SystemSnapshot* previous,
                                                  const core::SystemSnapshot& current);
    void Clear();

private:
    std::vector<core::ExitedProcessRecord> kept_;
};

}  // namespace korv::host::linux_client
