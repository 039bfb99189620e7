#pragma once

#include "core/process_key.h"
#include "core/snapshot.h"

#include <vector>

namespace korv::host::linux_client {

// The selected processes and all their descendants in `processes`, each process once however often
// it is reached, in ascending key order: the order in which an end-process-tree command acts.
// A selected key that the snapshot no longer lists is kept, so that its own action reports the exit.
std::vector<core::ProcessKey> ProcessTreeKeys(const std::vector<core::ProcessSnapshot>& processes,
                                              const std::vector<core::ProcessKey>& selected);

}  // namespace korv::host::linux_client
