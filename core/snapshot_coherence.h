#pragma once

#include "core/snapshot.h"

#include <cstdint>

namespace korv::core {

struct RepairCounts {
    std::uint64_t percentagesClamped = 0;
    std::uint64_t metricsMarkedUnavailable = 0;
    std::uint64_t duplicateRowsDropped = 0;
    std::uint64_t parentLinksDetached = 0;
    std::uint64_t sessionMembersDropped = 0;
    std::uint64_t serviceLinksDetached = 0;
    std::uint64_t exitedEntriesDropped = 0;
    std::uint64_t processorCountsCorrected = 0;

    std::uint64_t Sum() const noexcept;
    RepairCounts& operator+=(const RepairCounts& other) noexcept;  // saturating
    friend bool operator==(const RepairCounts&, const RepairCounts&) = default;
};

// The invariants of one metric: a value exactly for valid, zero and stale; zero means a zero value
// (an empty string, false); doubles finite and percentages within 0..100; lastGoodGeneration not
// above the snapshot's generation.
template <typename T>
bool IsMetricCoherent(const Metric<T>& metric, bool isPercent, std::uint64_t generation) noexcept;

// Pure and read-only: whether a snapshot may be published. The window runs it again on delivery.
bool IsCoherent(const SystemSnapshot& snapshot);

// Repairs what can be repaired, in a fixed order, and counts each change: duplicate rows dropped
// (the first of each key stays), percentages clamped, broken metrics marked unavailable, dangling
// parent, session and service links detached, exited entries that are alive dropped, and the logical
// processor count set from its list. The telemetry frame, built from the snapshot before these
// repairs, is repaired by the same rules afterwards: duplicate devices and metrics dropped,
// percentages clamped, broken metrics marked unavailable. Shared lists and the frame are copied only
// when they need a change.
RepairCounts RepairSnapshot(SystemSnapshot& snapshot);

}  // namespace korv::core
