#include "core/telemetry_json.h"

#include "core/json_members.h"

namespace korv::core {

void WriteTelemetryFrame(JsonWriter& writer, const HardwareTelemetryFrame& frame) {
    writer.BeginObject();
    WriteMember(writer, "generation", frame.generation);
    WriteMember(writer, "monotonicNs", frame.monotonicNs);

    writer.Key("devices");
    writer.BeginArray();
    for (const auto& device : frame.devices) {
        writer.BeginObject();
        WriteMember(writer, "id", device.id);
        WriteMember(writer, "kind", ToString(device.kind));
        WriteMember(writer, "displayName", device.displayName);
        WriteMember(writer, "legacyPersistentId", device.legacyPersistentId);
        WriteMember(writer, "appearanceGeneration", device.appearanceGeneration);
        writer.Key("properties");
        writer.BeginObject();
        for (const auto& [name, value] : device.properties) {
            WriteMember(writer, name, value);
        }
        writer.EndObject();
        writer.EndObject();
    }
    writer.EndArray();

    writer.Key("metrics");
    writer.BeginArray();
    for (const auto& metric : frame.metrics) {
        writer.BeginObject();
        WriteMember(writer, "id", metric.id);
        WriteMember(writer, "deviceId", metric.deviceId);
        WriteMember(writer, "displayName", metric.displayName);
        WriteMember(writer, "sourceName", metric.sourceName);
        WriteMember(writer, "category", ToString(metric.category));
        WriteMember(writer, "unit", ToString(metric.unit));
        WriteMember(writer, "kind", ToString(metric.kind));
        WriteMember(writer, "provenance", ToString(metric.provenance));
        WriteMember(writer, "availability", ToString(metric.availability));
        if (metric.numericValue) {
            WriteMember(writer, "value", *metric.numericValue);
        } else if (metric.textValue) {
            WriteMember(writer, "value", *metric.textValue);
        }
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
}

}  // namespace korv::core
