#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/settings.h"

namespace korv::core {

// The settings file's text, without any file access.

// `rejected` covers every text that is not valid settings; `outdated` a valid file of an older schema,
// which is dropped whole with kSettingsResetNote in `error`. Either way `settings` holds defaults.
enum class SettingsDecodeStatus : std::uint8_t { decoded, outdated, rejected };

struct SettingsDecodeResult {
    Settings settings;
    SettingsDecodeStatus status = SettingsDecodeStatus::decoded;
    std::string error;
};

SettingsDecodeResult DecodeSettings(std::string_view text);

struct SettingsEncodeResult {
    std::string text;
    std::optional<std::string> error;
};

// Indented text with the known keys in file order, then the extension keys by name. A record that
// would not decode again (a value the file cannot hold, extension JSON that is not one valid value,
// or a document past the size or JSON limits) gives an error instead of text.
SettingsEncodeResult EncodeSettings(const Settings& settings);

// The largest settings file that is read.
inline constexpr std::size_t kMaxSettingsFileBytes = 1048576;

}  // namespace korv::core
