#pragma once

#include "core/json.h"
#include "core/telemetry_frame.h"

namespace korv::core {

// Writes the frame as one JSON object: generation, monotonicNs, devices (id, kind, displayName,
// legacyPersistentId, appearanceGeneration, properties) and metrics (id, deviceId, displayName,
// sourceName, category, unit, kind, provenance, availability and value when there is one).
void WriteTelemetryFrame(JsonWriter& writer, const HardwareTelemetryFrame& frame);

}  // namespace korv::core
