#pragma once

#include <optional>

namespace korv::host::linux_client {

// Milliseconds since this process started, from its start time in /proc/self/stat and the boot-time
// clock; nothing when procfs cannot be read. The kernel counts the start in clock ticks, so the
// figure is good to about 10 ms.
std::optional<double> MillisecondsSinceProcessStart();

// When KORV_STARTUP_REPORT is set, prints "korv: first snapshot applied after %1 ms\n" to the error
// stream the first time it is called in the process; later calls do nothing.
void ReportFirstSnapshotApplied();

}  // namespace korv::host::linux_client
