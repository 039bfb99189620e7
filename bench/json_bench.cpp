#include "core/json.h"

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace {

using korv::core::JsonLimits;
using korv::core::JsonWriter;

constexpr std::size_t sampleCount = 21600;
constexpr std::size_t seriesPerSample = 6;
constexpr std::size_t seriesLength = 32;

const char* const seriesNames[seriesPerSample] = {"performanceCores", "efficiencyCores", "gpuEngines",
                                                  "npuEngines",       "mediaEngines",    "thermalSensors"};

// A reading as the trace text spells it, and the value behind it.
struct Reading {
    std::string text;
    std::optional<double> value;
};

class Random {
public:
    std::uint32_t Next()
    {
        state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<std::uint32_t>(state_ >> 33);
    }
    std::uint32_t Below(std::uint32_t bound) { return Next() % bound; }

private:
    std::uint64_t state_ = 0x4b4f5256ULL;
};

Reading MakeReading(Random& random)
{
    const std::uint32_t kind = random.Below(20);
    if (kind < 2) {
        return {"null", std::nullopt};
    }
    if (kind < 10) {  // utilisation with a binary fraction, as 12.375
        const std::uint32_t whole = random.Below(100);
        const std::uint32_t eighths = random.Below(8);
        const double value = whole + eighths / 8.0;
        const char* const fractions[] = {"", ".125", ".25", ".375", ".5", ".625", ".75", ".875"};
        return {std::to_string(whole) + fractions[eighths], value};
    }
    if (kind < 13) {  // counts and sizes, as 4096
        const std::uint32_t value = 1u << random.Below(20);
        return {std::to_string(value), static_cast<double>(value)};
    }
    if (kind < 15) {  // small negatives, as -0.5
        const std::uint32_t quarters = 1 + random.Below(12);
        return {"-" + std::to_string(quarters / 4) + (quarters % 4 == 0 ? ".0" : quarters % 4 == 2 ? ".5" : quarters % 4 == 1 ? ".25" : ".75"),
                -(quarters / 4.0)};
    }
    if (kind < 17) {  // exponent forms, as 1.0e-3
        const std::uint32_t mantissa = 1 + random.Below(9);
        const std::uint32_t exponent = 1 + random.Below(6);
        double value = mantissa;
        for (std::uint32_t step = 0; step < exponent; ++step) {
            value /= 10;
        }
        return {std::to_string(mantissa) + ".0e-" + std::to_string(exponent), value};
    }
    // temperatures with three decimals, as 47.312
    const std::uint32_t milli = 20000 + random.Below(70000);
    std::string text = std::to_string(milli / 1000) + "." + std::to_string(1000 + milli % 1000).substr(1);
    return {text, milli / 1000.0};
}

struct TraceDocument {
    std::string text;
    std::vector<Reading> readings;  // sampleCount * seriesPerSample * seriesLength, in order
    std::vector<double> times;
};

void AppendHeader(std::string& text)
{
    text += R"({"version":1,"recordedAt":"2024-05-01T12:00:00Z","sourcePlatform":"linux","machine":"Bench machine",)"
            R"("performanceCoreCount":32,"efficiencyCoreCount":0,"gpuCoreCount":null,"gpuEngineNames":["render"],)"
            R"("performanceCoreLabels":[],"efficiencyCoreLabels":[],"npuEngineNames":[],"mediaEngineNames":["video"],)"
            R"("thermalSensorNames":["Package"],"thermalSensorKeys":[],"npuDetail":"","npuActiveResidency":false,)"
            R"("memoryTotalBytes":34359738368,"samples":[)";
}

// About 30 MB: 21,600 samples, each with six series of 32 readings.
const TraceDocument& Document()
{
    static const TraceDocument document = [] {
        TraceDocument built;
        Random random;
        built.text.reserve(32u << 20);
        AppendHeader(built.text);
        for (std::size_t sample = 0; sample < sampleCount; ++sample) {
            const double t = static_cast<double>(sample) * 0.5;
            built.times.push_back(t);
            built.text += sample == 0 ? "{\"t\":" : ",{\"t\":";
            built.text += std::to_string(sample / 2) + (sample % 2 == 0 ? ".0" : ".5");
            for (std::size_t series = 0; series < seriesPerSample; ++series) {
                built.text += ",\"";
                built.text += seriesNames[series];
                built.text += "\":[";
                for (std::size_t index = 0; index < seriesLength; ++index) {
                    Reading reading = MakeReading(random);
                    if (index > 0) {
                        built.text += ',';
                    }
                    built.text += reading.text;
                    built.readings.push_back(std::move(reading));
                }
                built.text += ']';
            }
            built.text += R"(,"gpu":null,"npu":null,"memory":41.5,"thermalHotspot":63.25})";
        }
        built.text += "]}";
        return built;
    }();
    return document;
}

// The trace preset, but with room for every value of this denser-than-real document: a real
// trace stays under 750,000 values, this one has about 4.4 million, so the value limit is lifted.
JsonLimits BenchLimits()
{
    JsonLimits limits = JsonLimits::Trace();
    limits.maxValues = 8'000'000;
    return limits;
}

void BM_JsonParseTrace(benchmark::State& state)
{
    const std::string& text = Document().text;
    const JsonLimits limits = BenchLimits();
    for (auto _ : state) {
        auto result = korv::core::ParseJson(text, limits);
        if (!result.Ok()) {
            state.SkipWithError(result.error.message.c_str());
            break;
        }
        benchmark::DoNotOptimize(result);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_JsonParseTrace)->Unit(benchmark::kMillisecond);

void BM_JsonRapidJsonDomParse(benchmark::State& state)
{
    const std::string& text = Document().text;
    for (auto _ : state) {
        rapidjson::Document document;
        document.Parse(text.data(), text.size());
        if (document.HasParseError()) {
            state.SkipWithError("RapidJSON refused the document");
            break;
        }
        benchmark::DoNotOptimize(document);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_JsonRapidJsonDomParse)->Unit(benchmark::kMillisecond);

void WriteTrace(JsonWriter& writer, const TraceDocument& document)
{
    writer.BeginObject();
    writer.Key("version");
    writer.Unsigned(1);
    writer.Key("recordedAt");
    writer.String("2024-05-01T12:00:00Z");
    writer.Key("sourcePlatform");
    writer.String("linux");
    writer.Key("machine");
    writer.String("Bench machine");
    writer.Key("samples");
    writer.BeginArray();
    std::size_t next = 0;
    for (std::size_t sample = 0; sample < sampleCount; ++sample) {
        writer.BeginObject();
        writer.Key("t");
        writer.Double(document.times[sample]);
        for (std::size_t series = 0; series < seriesPerSample; ++series) {
            writer.Key(seriesNames[series]);
            writer.BeginArray();
            for (std::size_t index = 0; index < seriesLength; ++index) {
                const auto& value = document.readings[next++].value;
                if (value) {
                    writer.Double(*value);
                } else {
                    writer.Null();
                }
            }
            writer.EndArray();
        }
        writer.Key("gpu");
        writer.Null();
        writer.Key("memory");
        writer.Double(41.5);
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
}

void BM_JsonWriteTrace(benchmark::State& state)
{
    const TraceDocument& document = Document();
    std::size_t bytes = 0;
    for (auto _ : state) {
        JsonWriter writer;
        writer.Reserve(768 * sampleCount + 2048);
        WriteTrace(writer, document);
        std::string text = writer.Finish();
        bytes += text.size();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_JsonWriteTrace)->Unit(benchmark::kMillisecond);

}  // namespace
