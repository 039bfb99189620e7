#include "core/settings_codec.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <vector>

#include "core/json.h"
#include "core/settings_fields.h"

namespace korv::core {
namespace {

constexpr std::string_view kRootMessage = "settings root must be an object";
constexpr std::string_view kSchemaMessage = "unsupported or missing settings schema version";
constexpr std::string_view kSizeMessage = "settings file exceeds size limit";

constexpr std::string_view kMustBeString = " must be a string";
constexpr std::string_view kMustBeBoolean = " must be boolean";
constexpr std::string_view kMustBeUnsigned = " must be an unsigned integer";
constexpr std::string_view kMustBeNumber = " must be a number";
constexpr std::string_view kMustBeStringArray = " must be an array of strings";
constexpr std::string_view kMustBeUnsignedObject = " must be an object of unsigned integers";

std::optional<std::uint32_t> AsUnsigned32(const JsonValue& value)
{
    const auto number = value.AsUnsigned();
    if (!number || *number > std::numeric_limits<std::uint32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*number);
}

// Reads the known keys in file order and stops at the first that is wrong; absent keys keep defaults.
class FieldReader {
public:
    explicit FieldReader(const JsonValue& root) : root_(root) {}

    const std::string& Error() const noexcept { return error_; }

    // Checked before the fields are read, since an older schema drops the whole file.
    void Schema(std::string_view, std::uint32_t&) {}

    template <typename E>
    void Enum(std::string_view key, E& field, std::span<const EnumWord<E>> words)
    {
        const JsonValue* value = Find(key);
        if (value == nullptr) {
            return;
        }
        const auto match = std::find_if(words.begin(), words.end(),
                                        [&](const EnumWord<E>& word) { return word.word == value->AsString(); });
        if (!value->IsString() || match == words.end()) {
            Fail(key, kMustBeString);
            return;
        }
        field = match->value;
    }

    void String(std::string_view key, std::string& field)
    {
        if (const JsonValue* value = Find(key)) {
            if (!value->IsString()) {
                Fail(key, kMustBeString);
                return;
            }
            field = std::string(value->AsString());
        }
    }

    void Bool(std::string_view key, bool& field)
    {
        if (const JsonValue* value = Find(key)) {
            if (!value->IsBool()) {
                Fail(key, kMustBeBoolean);
                return;
            }
            field = value->AsBool();
        }
    }

    void Unsigned(std::string_view key, std::uint32_t& field, std::uint32_t minimum, std::uint32_t maximum)
    {
        if (const JsonValue* value = Find(key)) {
            const auto number = AsUnsigned32(*value);
            if (!number || *number < minimum || *number > maximum) {
                Fail(key, kMustBeUnsigned);
                return;
            }
            field = *number;
        }
    }

    // Read together with the key that replaced it.
    void LegacyBool(std::string_view) {}

    void BloomLevel(std::string_view key, std::uint32_t& field)
    {
        if (root_.Find(key) != nullptr) {
            Unsigned(key, field, kMinBloomLevel, kMaxBloomLevel);
            return;
        }
        bool legacy = false;
        if (ReadLegacy(kLegacyBloomKey, legacy)) {
            field = legacy ? kMaxBloomLevel : kMinBloomLevel;
        }
    }

    void FrameRate(std::string_view key, std::uint32_t& field)
    {
        if (root_.Find(key) != nullptr) {
            std::uint32_t rate = field;
            Unsigned(key, rate, 0, kMaxFrameRate);
            // Animation runs only at these rates; any other rate in range is taken as full speed.
            field = (rate == 0 || rate == 15 || rate == 30 || rate == 60) ? rate : kMaxFrameRate;
            return;
        }
        bool legacy = false;
        if (ReadLegacy(kLegacyHighFrequencyKey, legacy)) {
            field = legacy ? kMaxFrameRate : 0;
        }
    }

    void Opacity(std::string_view key, double& field)
    {
        if (const JsonValue* value = Find(key)) {
            if (!value->IsNumber()) {
                Fail(key, kMustBeNumber);
                return;
            }
            const double opacity = value->AsDouble();
            if (opacity >= kMinPopoutOpacity && opacity <= kMaxPopoutOpacity) {
                field = opacity;
            }
        }
    }

    void StringArray(std::string_view key, std::vector<std::string>& field)
    {
        const JsonValue* value = Find(key);
        if (value == nullptr) {
            return;
        }
        const auto items = value->Items();
        if (!value->IsArray() ||
            !std::all_of(items.begin(), items.end(), [](const JsonValue& item) { return item.IsString(); })) {
            Fail(key, kMustBeStringArray);
            return;
        }
        field.clear();
        for (const JsonValue& item : items) {
            field.emplace_back(item.AsString());
        }
    }

    void UnsignedObject(std::string_view key, std::map<std::string, std::uint32_t>& field)
    {
        const JsonValue* value = Find(key);
        if (value == nullptr) {
            return;
        }
        if (!value->IsObject()) {
            Fail(key, kMustBeUnsignedObject);
            return;
        }
        std::map<std::string, std::uint32_t> widths;
        for (const JsonMember& member : value->Members()) {
            const auto width = AsUnsigned32(member.Value());
            if (!width) {
                Fail(key, kMustBeUnsignedObject);
                return;
            }
            widths.emplace(member.Key(), *width);
        }
        field = std::move(widths);
    }

private:
    const JsonValue* Find(std::string_view key) const
    {
        return error_.empty() ? root_.Find(key) : nullptr;
    }

    bool ReadLegacy(std::string_view key, bool& value)
    {
        bool field = false;
        const JsonValue* legacy = Find(key);
        if (legacy == nullptr) {
            return false;
        }
        Bool(key, field);
        value = field;
        return error_.empty();
    }

    void Fail(std::string_view key, std::string_view suffix)
    {
        error_ = std::string(key) + std::string(suffix);
    }

    const JsonValue& root_;
    std::string error_;
};

// Writes the known keys in file order; the legacy keys are never written.
class FieldWriter {
public:
    explicit FieldWriter(JsonWriter& writer) : writer_(writer) {}

    const std::optional<std::string>& Error() const noexcept { return error_; }

    void Schema(std::string_view key, std::uint32_t value)
    {
        writer_.Key(key);
        writer_.Unsigned(value);
    }

    template <typename E>
    void Enum(std::string_view key, E value, std::span<const EnumWord<E>> words)
    {
        const auto match =
            std::find_if(words.begin(), words.end(), [&](const EnumWord<E>& word) { return word.value == value; });
        if (match == words.end()) {
            if (!error_) {
                error_ = std::string(key) + " has no word for value " +
                         std::to_string(static_cast<std::uint64_t>(value));
            }
            return;
        }
        writer_.Key(key);
        writer_.String(match->word);
    }

    void String(std::string_view key, const std::string& value)
    {
        writer_.Key(key);
        writer_.String(value);
    }

    void Bool(std::string_view key, bool value)
    {
        writer_.Key(key);
        writer_.Bool(value);
    }

    void Unsigned(std::string_view key, std::uint32_t value, std::uint32_t, std::uint32_t)
    {
        writer_.Key(key);
        writer_.Unsigned(value);
    }

    void LegacyBool(std::string_view) {}

    void BloomLevel(std::string_view key, std::uint32_t value) { Unsigned(key, value, 0, 0); }

    void FrameRate(std::string_view key, std::uint32_t value) { Unsigned(key, value, 0, 0); }

    void Opacity(std::string_view key, double value)
    {
        writer_.Key(key);
        writer_.Double(value);
    }

    void StringArray(std::string_view key, const std::vector<std::string>& values)
    {
        writer_.Key(key);
        writer_.BeginArray();
        for (const std::string& value : values) {
            writer_.String(value);
        }
        writer_.EndArray();
    }

    void UnsignedObject(std::string_view key, const std::map<std::string, std::uint32_t>& values)
    {
        writer_.Key(key);
        writer_.BeginObject();
        for (const auto& [name, value] : values) {
            writer_.Key(name);
            writer_.Unsigned(value);
        }
        writer_.EndObject();
    }

private:
    JsonWriter& writer_;
    std::optional<std::string> error_;
};

class KeyCensus {
public:
    bool Contains(std::string_view key) const
    {
        return std::find(keys_.begin(), keys_.end(), key) != keys_.end();
    }

    template <typename E>
    void Enum(std::string_view key, const E&, std::span<const EnumWord<E>>) { keys_.push_back(key); }
    template <typename T>
    void Schema(std::string_view key, const T&) { keys_.push_back(key); }
    template <typename T>
    void String(std::string_view key, const T&) { keys_.push_back(key); }
    template <typename T>
    void Bool(std::string_view key, const T&) { keys_.push_back(key); }
    template <typename T>
    void Unsigned(std::string_view key, const T&, std::uint32_t, std::uint32_t) { keys_.push_back(key); }
    void LegacyBool(std::string_view key) { keys_.push_back(key); }
    template <typename T>
    void BloomLevel(std::string_view key, const T&) { keys_.push_back(key); }
    template <typename T>
    void FrameRate(std::string_view key, const T&) { keys_.push_back(key); }
    template <typename T>
    void Opacity(std::string_view key, const T&) { keys_.push_back(key); }
    template <typename T>
    void StringArray(std::string_view key, const T&) { keys_.push_back(key); }
    template <typename T>
    void UnsignedObject(std::string_view key, const T&) { keys_.push_back(key); }

private:
    std::vector<std::string_view> keys_;
};

KeyCensus TakeKeyCensus()
{
    const Settings defaults;
    KeyCensus census;
    VisitSettingsFields(defaults, census);
    return census;
}

SettingsDecodeResult Rejected(std::string error)
{
    return {Settings{}, SettingsDecodeStatus::rejected, std::move(error)};
}

// Unknown keys go to the extension maps; a key in both maps is written once, from the string map,
// since that is where the preference helpers write.
std::optional<std::string> WriteExtensions(JsonWriter& writer, const Settings& settings, const KeyCensus& census)
{
    auto strings = settings.extensionStrings.begin();
    auto json = settings.extensionJson.begin();
    const auto stringsEnd = settings.extensionStrings.end();
    const auto jsonEnd = settings.extensionJson.end();
    while (strings != stringsEnd || json != jsonEnd) {
        const bool takeString = json == jsonEnd || (strings != stringsEnd && strings->first <= json->first);
        if (takeString) {
            if (json != jsonEnd && json->first == strings->first) {
                ++json;
            }
            if (!census.Contains(strings->first)) {
                writer.Key(strings->first);
                writer.String(strings->second);
            }
            ++strings;
            continue;
        }
        if (!census.Contains(json->first)) {
            const JsonParseResult parsed = ParseJson(json->second, JsonLimits::Default());
            if (!parsed.Ok()) {
                return json->first + " does not hold valid JSON: " + parsed.error.message;
            }
            writer.Key(json->first);
            writer.Raw(SerializeJson(*parsed.value));
        }
        ++json;
    }
    return std::nullopt;
}

}  // namespace

SettingsDecodeResult DecodeSettings(std::string_view text)
{
    const JsonParseResult parsed = ParseJson(text, JsonLimits::Default());
    if (!parsed.Ok()) {
        return Rejected(parsed.error.message);
    }
    const JsonValue& root = *parsed.value;
    if (!root.IsObject()) {
        return Rejected(std::string(kRootMessage));
    }
    const JsonValue* schema = root.Find("schemaVersion");
    const auto version = schema != nullptr ? schema->AsUnsigned() : std::nullopt;
    if (!version || *version < 1 || *version > kSettingsSchemaVersion) {
        return Rejected(std::string(kSchemaMessage));
    }
    if (*version < kSettingsSchemaVersion) {
        // Older files are never migrated field by field.
        return {Settings{}, SettingsDecodeStatus::outdated, std::string(kSettingsResetNote)};
    }

    SettingsDecodeResult result;
    FieldReader reader(root);
    VisitSettingsFields(result.settings, reader);
    if (!reader.Error().empty()) {
        return Rejected(reader.Error());
    }
    const KeyCensus census = TakeKeyCensus();
    for (const JsonMember& member : root.Members()) {
        if (census.Contains(member.Key())) {
            continue;
        }
        if (member.Value().IsString()) {
            result.settings.extensionStrings.emplace(member.Key(), member.Value().AsString());
        } else {
            result.settings.extensionJson.emplace(member.Key(), SerializeJson(member.Value()));
        }
    }
    return result;
}

SettingsEncodeResult EncodeSettings(const Settings& settings)
{
    SettingsEncodeResult result;
    try {
        // A setting is never saved altered: text that is not UTF-8 is refused, not replaced.
        JsonWriter writer(true, InvalidUtf8::refuse);
        FieldWriter fields(writer);
        writer.BeginObject();
        VisitSettingsFields(settings, fields);
        if (fields.Error()) {
            result.error = fields.Error();
            return result;
        }
        if (auto error = WriteExtensions(writer, settings, TakeKeyCensus())) {
            result.error = std::move(error);
            return result;
        }
        writer.EndObject();
        result.text = writer.Finish();
        result.text.push_back('\n');
    } catch (const std::exception& error) {
        // Only a value the file cannot hold gets here, such as a popout opacity that is not finite.
        result.error = error.what();
        return result;
    }
    if (result.text.size() > kMaxSettingsFileBytes) {
        result.text.clear();
        result.error = std::string(kSizeMessage);
        return result;
    }
    // A file that the next start would refuse is not written: it would cost the user every setting.
    const SettingsDecodeResult check = DecodeSettings(result.text);
    if (check.status != SettingsDecodeStatus::decoded) {
        result.text.clear();
        result.error = "settings would not load again: " + check.error;
    }
    return result;
}

}  // namespace korv::core
