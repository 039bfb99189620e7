#pragma once

#include "core/json.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace korv::core {

// Writes one object member: the key, then the value through the writer call that fits its type.
template <typename T>
void WriteMember(JsonWriter& writer, std::string_view key, const T& value) {
    writer.Key(key);
    if constexpr (std::is_same_v<T, bool>) {
        writer.Bool(value);
    } else if constexpr (std::is_floating_point_v<T>) {
        writer.Double(value);
    } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
        writer.Unsigned(value);
    } else if constexpr (std::is_integral_v<T>) {
        writer.Integer(value);
    } else {
        writer.String(std::string_view(value));
    }
}

}  // namespace korv::core
