// Shared by the JSON fuzz targets. A refused text must carry a complete error; an accepted one must
// serialise, parse again to an equal value and serialise to the same text, and survive a deep copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/json.h"

namespace korv_fuzz {

using korv::core::JsonErrorKind;
using korv::core::JsonLimits;
using korv::core::JsonParseResult;
using korv::core::JsonValue;

[[noreturn]] inline void Fail(const char* what)
{
    std::fprintf(stderr, "json fuzz: %s\n", what);
    std::abort();
}

inline void CheckError(std::string_view text, const JsonParseResult& result)
{
    const auto& error = result.error;
    if (error.kind == JsonErrorKind::none || error.message.empty() || error.offset > text.size()) {
        Fail("incomplete error");
    }
    std::size_t line = 1;
    std::size_t lineStart = 0;
    for (std::size_t index = 0; index < error.offset; ++index) {
        if (text[index] == '\n') {
            ++line;
            lineStart = index + 1;
        }
    }
    if (error.line != line || error.column != error.offset - lineStart + 1) {
        Fail("error place does not match its offset");
    }
}

// One fuzz input under the given limits; aborts on any broken promise of the reader or writer.
inline int FuzzJsonInput(const std::uint8_t* data, std::size_t size, const JsonLimits& limits)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const JsonParseResult result = korv::core::ParseJson(text, limits);
    if (!result.Ok()) {
        CheckError(text, result);
        return 0;
    }
    const std::string serialized = korv::core::SerializeJson(*result.value);
    const JsonParseResult again = korv::core::ParseJson(serialized, limits);
    if (!again.Ok()) {
        Fail("serialised text does not parse");
    }
    if (!(*again.value == *result.value)) {
        Fail("round trip changed the value");
    }
    if (korv::core::SerializeJson(*again.value) != serialized) {
        Fail("second serialisation differs");
    }
    const JsonValue copy = *result.value;
    if (!(copy == *result.value) || korv::core::SerializeJson(copy) != serialized) {
        Fail("copy differs");
    }
    return 0;
}

}  // namespace korv_fuzz
