#include "core/settings.h"

namespace korv::core {
namespace {

const std::string* FindText(const std::map<std::string, std::string>& map, std::string_view key)
{
    const auto found = map.find(std::string(key));
    return found == map.end() ? nullptr : &found->second;
}

}  // namespace

bool ReadBoolPreference(const Settings& settings, std::string_view key, bool fallback)
{
    const std::string* text = FindText(settings.extensionStrings, key);
    if (text == nullptr) {
        // A person may have written a JSON literal into the file; its text reads by the same rule.
        text = FindText(settings.extensionJson, key);
    }
    if (text == nullptr) {
        return fallback;
    }
    return *text != "false";
}

bool ReadBoolPreference(const Settings& settings, const BoolPreference& preference)
{
    return ReadBoolPreference(settings, preference.key, preference.fallback);
}

void WriteBoolPreference(Settings& settings, std::string_view key, bool value)
{
    WriteStringPreference(settings, key, value ? "true" : "false");
}

std::string StringPreference(const Settings& settings, std::string_view key, std::string_view fallback)
{
    const std::string* text = FindText(settings.extensionStrings, key);
    return text != nullptr ? *text : std::string(fallback);
}

void WriteStringPreference(Settings& settings, std::string_view key, std::string_view value)
{
    std::string name(key);
    settings.extensionJson.erase(name);
    settings.extensionStrings.insert_or_assign(std::move(name), std::string(value));
}

}  // namespace korv::core
