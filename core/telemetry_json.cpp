#include "core/telemetry_json.h"

namespace korv::core {

void WriteTelemetryFrame(JsonWriter& writer, const HardwareTelemetryFrame& frame) {
    writer.BeginObject();
    writer.Key("generation");
    writer.Unsigned(frame.generation);
    writer.Key("monotonicNs");
    writer.Unsigned(frame.monotonicNs);

    writer.Key("devices");
    writer.BeginArray();
    for (const auto& device : frame.devices) {
        writer.BeginObject();
        writer.Key("id");
        writer.String(device.id);
        writer.Key("kind");
        writer.String(ToString(device.kind));
        writer.Key("displayName");
        writer.String(device.displayName);
        writer.Key("legacyPersistentId");
        writer.String(device.legacyPersistentId);
        writer.Key("appearanceGeneration");
        writer.String(device.appearanceGeneration);
        writer.Key("properties");
        writer.BeginObject();
        for (const auto& [name, value] : device.properties) {
            writer.Key(name);
            writer.String(value);
        }
        writer.EndObject();
        writer.EndObject();
    }
    writer.EndArray();

    writer.Key("metrics");
    writer.BeginArray();
    for (const auto& metric : frame.metrics) {
        writer.BeginObject();
        writer.Key("id");
        writer.String(metric.id);
        writer.Key("deviceId");
        writer.String(metric.deviceId);
        writer.Key("displayName");
        writer.String(metric.displayName);
        writer.Key("sourceName");
        writer.String(metric.sourceName);
        writer.Key("category");
        writer.String(ToString(metric.category));
        writer.Key("unit");
        writer.String(ToString(metric.unit));
        writer.Key("kind");
        writer.String(ToString(metric.kind));
        writer.Key("provenance");
        writer.String(ToString(metric.provenance));
        writer.Key("availability");
        writer.String(ToString(metric.availability));
        if (metric.numericValue) {
            writer.Key("value");
            writer.Double(*metric.numericValue);
        } else if (metric.textValue) {
            writer.Key("value");
            writer.String(*metric.textValue);
        }
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
}

}  // namespace korv::core
