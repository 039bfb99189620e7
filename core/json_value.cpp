#include "core/json.h"

#include "core/json_arena.h"

#include <bit>
#include <charconv>
#include <cstring>
#include <memory>
#include <new>

namespace korv::core {

static_assert(std::endian::native == std::endian::little, "inline number texts assume little-endian tags");
static_assert(sizeof(JsonValue) == 16);

// Deep copies into an arena of their own.
class JsonCloner {
public:
    static JsonValue Clone(const JsonValue& source)
    {
        const JsonValue& content = source.Content();
        const bool needsStorage = content.IsString() || content.IsArray() || content.IsObject() ||
                                  (content.IsNumber() && content.InlineNumberLength() == 0);
        if (!needsStorage) {
            return JsonValue(content.word_, content.tag_);
        }
        auto arena = std::make_unique<JsonArena>();
        auto* root = new (arena->Allocate(sizeof(JsonOwnedRoot))) JsonOwnedRoot();
        root->content = CopyInto(*arena, content);
        root->arena = arena.release();
        return JsonValue(reinterpret_cast<std::uintptr_t>(&root->content), (content.tag_ & JsonValue::typeMask) | JsonValue::ownsBit);
    }

private:
    static const char* CopyText(JsonArena& arena, const char* text, std::size_t length)
    {
        auto* copy = static_cast<char*>(arena.Allocate(length));
        if (length > 0) {
            std::memcpy(copy, text, length);
        }
        return copy;
    }

    // Returns a borrowed node whose storage lives in arena; content is a borrowed node too.
    static JsonValue CopyInto(JsonArena& arena, const JsonValue& content)
    {
        const std::size_t length = content.Length();
        switch (content.Type()) {
        case JsonType::null:
        case JsonType::boolean:
            return JsonValue(0, content.tag_);
        case JsonType::number: {
            if (content.InlineNumberLength() != 0) {
                return JsonValue(content.word_, content.tag_);
            }
            const auto* source = content.Pointer<JsonValue::LongNumber>();
            auto* number = new (arena.Allocate(sizeof(JsonValue::LongNumber)))
                JsonValue::LongNumber{source->value, source->length, CopyText(arena, source->text, source->length)};
            return JsonValue(reinterpret_cast<std::uintptr_t>(number), content.tag_);
        }
        case JsonType::string:
            return JsonValue(reinterpret_cast<std::uintptr_t>(CopyText(arena, content.Pointer<char>(), length)), content.tag_);
        case JsonType::array: {
            auto* items = static_cast<JsonValue*>(arena.Allocate(length * sizeof(JsonValue)));
            const JsonValue* source = content.Pointer<JsonValue>();
            for (std::size_t index = 0; index < length; ++index) {
                new (items + index) JsonValue(CopyInto(arena, source[index]));
            }
            return JsonValue(reinterpret_cast<std::uintptr_t>(items), content.tag_);
        }
        case JsonType::object: {
            auto* members = static_cast<JsonMember*>(arena.Allocate(length * sizeof(JsonMember)));
            const JsonMember* source = content.Pointer<JsonMember>();
            for (std::size_t index = 0; index < length; ++index) {
                auto* member = new (members + index) JsonMember();
                member->key_ = CopyInto(arena, source[index].key_);
                member->value_ = CopyInto(arena, source[index].value_);
            }
            return JsonValue(reinterpret_cast<std::uintptr_t>(members), content.tag_);
        }
        }
        return JsonValue();
    }
};

JsonValue::JsonValue(const JsonValue& other) : JsonValue(JsonCloner::Clone(other)) {}

JsonValue& JsonValue::operator=(const JsonValue& other)
{
    if (this != &other) {
        *this = JsonCloner::Clone(other);
    }
    return *this;
}

JsonValue& JsonValue::operator=(JsonValue&& other) noexcept
{
    if (this != &other) {
        if ((tag_ & ownsBit) != 0) {
            Release();
        }
        word_ = other.word_;
        tag_ = other.tag_;
        other.word_ = 0;
        other.tag_ = 0;
    }
    return *this;
}

void JsonValue::Release() noexcept
{
    // The root record lives in the arena's own blocks.
    JsonArena* arena = reinterpret_cast<const JsonOwnedRoot*>(Pointer<JsonValue>())->arena;
    delete arena;
}

double JsonValue::AsDouble() const noexcept
{
    if (!IsNumber()) {
        return 0.0;
    }
    const JsonValue& content = Content();
    if (content.InlineNumberLength() != 0) {
        return std::bit_cast<double>(content.word_);
    }
    return content.Pointer<LongNumber>()->value;
}

std::string_view JsonValue::NumberText() const noexcept
{
    if (!IsNumber()) {
        return {};
    }
    const JsonValue& content = Content();
    const std::size_t inlineLength = content.InlineNumberLength();
    if (inlineLength != 0) {
        return {reinterpret_cast<const char*>(&content.tag_) + 1, inlineLength};
    }
    const auto* number = content.Pointer<LongNumber>();
    return {number->text, number->length};
}

std::string_view JsonValue::AsString() const noexcept
{
    if (!IsString()) {
        return {};
    }
    const JsonValue& content = Content();
    return {content.Pointer<char>(), content.Length()};
}

namespace {

template <typename T>
std::optional<T> ParseWholeInteger(std::string_view text) noexcept
{
    T result = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return result;
}

}  // namespace

std::optional<std::uint64_t> JsonValue::AsUnsigned() const noexcept
{
    return ParseWholeInteger<std::uint64_t>(NumberText());
}

std::optional<std::int64_t> JsonValue::AsInteger() const noexcept
{
    return ParseWholeInteger<std::int64_t>(NumberText());
}

const JsonValue* JsonValue::Find(std::string_view key) const noexcept
{
    for (const JsonMember& member : Members()) {
        if (member.Key() == key) {
            return &member.Value();
        }
    }
    return nullptr;
}

std::span<const JsonValue> JsonValue::Items() const noexcept
{
    if (!IsArray() || Size() == 0) {
        return {};
    }
    return {Content().Pointer<JsonValue>(), Size()};
}

std::span<const JsonMember> JsonValue::Members() const noexcept
{
    if (!IsObject() || Size() == 0) {
        return {};
    }
    return {Content().Pointer<JsonMember>(), Size()};
}

namespace {

bool NumbersEqual(const JsonValue& left, const JsonValue& right) noexcept
{
    if (left.NumberText() == right.NumberText()) {
        return true;
    }
    const auto leftSigned = left.AsInteger();
    const auto rightSigned = right.AsInteger();
    if (leftSigned && rightSigned) {
        return *leftSigned == *rightSigned;
    }
    const auto leftUnsigned = left.AsUnsigned();
    const auto rightUnsigned = right.AsUnsigned();
    if (leftUnsigned && rightUnsigned) {
        return *leftUnsigned == *rightUnsigned;
    }
    return left.AsDouble() == right.AsDouble();
}

}  // namespace

bool operator==(const JsonValue& left, const JsonValue& right) noexcept
{
    if (left.Type() != right.Type()) {
        return false;
    }
    switch (left.Type()) {
    case JsonType::null:
        return true;
    case JsonType::boolean:
        return left.AsBool() == right.AsBool();
    case JsonType::number:
        return NumbersEqual(left, right);
    case JsonType::string:
        return left.AsString() == right.AsString();
    case JsonType::array: {
        const auto leftItems = left.Items();
        const auto rightItems = right.Items();
        if (leftItems.size() != rightItems.size()) {
            return false;
        }
        for (std::size_t index = 0; index < leftItems.size(); ++index) {
            if (!(leftItems[index] == rightItems[index])) {
                return false;
            }
        }
        return true;
    }
    case JsonType::object: {
        if (left.Size() != right.Size()) {
            return false;
        }
        // Keys are unique within an object, so equal sizes and a match for every key suffice.
        for (const JsonMember& member : left.Members()) {
            const JsonValue* other = right.Find(member.Key());
            if (other == nullptr || !(member.Value() == *other)) {
                return false;
            }
        }
        return true;
    }
    }
    return false;
}

}  // namespace korv::core
