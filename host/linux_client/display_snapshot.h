#pragma once

#include "core/snapshot.h"

#include <memory>

namespace korv::host::linux_client {

// The factor by which process, session and exited rows' CPU percents are shown: the logical
// processor count (1 when it is 0) when per-core statistics are on, so that one busy core reads
// 100 %, else 1.
double CpuScaleFor(const core::SystemSnapshot& snapshot, bool perCoreCpu) noexcept;

// The snapshot that the pages read: the same object when the scale is 1, else a deep copy whose
// process, session and exited rows' CPU percents, where present, are multiplied by the scale.
std::shared_ptr<const core::SystemSnapshot> MakeDisplaySnapshot(
    const std::shared_ptr<const core::SystemSnapshot>& snapshot, double cpuScale);

}  // namespace korv::host::linux_client
