#pragma once

#include "core/json.h"
#include "core/snapshot.h"

namespace korv::probe {

// The probe's view of a snapshot: system metrics with availability and source, every process row,
// providers, capabilities, exited processes and the telemetry frame.
void WriteSnapshot(core::JsonWriter& writer, const core::SystemSnapshot& snapshot);

}  // namespace korv::probe
