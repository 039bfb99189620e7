#include "core/json_parser.h"

#include <cstring>
#include <new>

namespace korv::core {

using json_scan::IsDigit;
using json_parse::TypeTag;
using json_parse::Word;

JsonParser::JsonParser(std::string_view text, const JsonLimits& limits)
    : limits_(limits), arena_(std::make_unique<JsonArena>())
{
    if (text.empty() || json_parse::ContinuesNumber(text.back())) {
        padded_.reset(new char[text.size() + json_parse::textPadding]);
        if (!text.empty()) {
            std::memcpy(padded_.get(), text.data(), text.size());
        }
        std::memset(padded_.get() + text.size(), 0, json_parse::textPadding);
        begin_ = padded_.get();
        readableEnd_ = begin_ + text.size() + json_parse::textPadding;
    } else {
        begin_ = text.data();
        readableEnd_ = begin_ + text.size();
    }
    end_ = begin_ + text.size();
    shortNumberLimit_ = static_cast<std::size_t>(std::min<std::uint64_t>(limits.maxNumberCharacters, JsonValue::maxInlineNumber));
    // Number-heavy documents take about two and a half node bytes per text byte.
    arena_->blockSize = std::clamp<std::size_t>(text.size() * 2, 4096, std::size_t{16} << 20);
}

JsonParseResult JsonParser::Run()
{
    JsonParseResult result;
    RawNode root;
    const char* after = ParseValue(begin_, root, 0);
    if (after != nullptr) {
        after = SkipSpace(after);
        if (after != end_) {
            Fail(JsonErrorKind::trailingData, "unexpected data after JSON value", after);
            after = nullptr;
        }
    }
    if (after == nullptr) {
        result.error = std::move(error_);
        return result;
    }
    const JsonValue content(root.word, root.tag);
    const bool needsStorage = content.IsString() || content.IsArray() || content.IsObject() ||
                              (content.IsNumber() && content.InlineNumberLength() == 0);
    if (!needsStorage) {
        result.value.emplace(JsonValue(root.word, root.tag));
        return result;
    }
    auto* owned = new (arena_->Allocate(sizeof(JsonOwnedRoot))) JsonOwnedRoot();
    owned->content = JsonValue(root.word, root.tag);
    owned->arena = arena_.release();
    result.value.emplace(JsonValue(Word(&owned->content), (root.tag & JsonValue::typeMask) | JsonValue::ownsBit));
    return result;
}

std::nullptr_t JsonParser::Fail(JsonErrorKind kind, const char* message, const char* at)
{
    error_.kind = kind;
    error_.message = message;
    error_.offset = static_cast<std::size_t>(at - begin_);
    std::size_t lineStart = 0;
    std::size_t line = 1;
    for (std::size_t index = 0; index < error_.offset; ++index) {
        if (begin_[index] == '\n') {
            ++line;
            lineStart = index + 1;
        }
    }
    error_.line = line;
    error_.column = error_.offset - lineStart + 1;
    return nullptr;
}

// At a byte that cannot continue: either the text ended there or the byte is wrong.
std::nullptr_t JsonParser::FailAt(const char* at, const char* message)
{
    if (at == end_) {
        return Fail(JsonErrorKind::syntax, "unexpected end of JSON", at);
    }
    return Fail(JsonErrorKind::syntax, message, at);
}

const char* JsonParser::ParseLiteral(const char* p, RawNode& out, std::string_view literal, std::uint64_t tag)
{
    const char* start = p;
    for (const char expected : literal) {
        if (p == end_ || *p != expected) {
            return Fail(JsonErrorKind::syntax, "invalid JSON literal", p);
        }
        ++p;
    }
    out.word = 0;
    out.tag = tag;
    return CountValue(start) ? p : nullptr;
}

const char* JsonParser::ParseValue(const char* p, RawNode& out, std::uint64_t depth)
{
    p = SkipSpace(p);
    if (p == end_) {
        return Fail(JsonErrorKind::syntax, "unexpected end of JSON", p);
    }
    switch (*p) {
    case '[':
        return ParseArray(p, out, depth + 1);
    case '{':
        return ParseObject(p, out, depth + 1);
    case '"':
        return CountValue(p) ? ParseString(p, out) : nullptr;
    case 't':
        return ParseLiteral(p, out, "true", TypeTag(JsonType::boolean) | JsonValue::trueBit);
    case 'f':
        return ParseLiteral(p, out, "false", TypeTag(JsonType::boolean));
    case 'n':
        return ParseLiteral(p, out, "null", TypeTag(JsonType::null));
    case '-':
    case '0':
    case '1':
    case '2':
    case '3':
    case '4':
    case '5':
    case '6':
    case '7':
    case '8':
    case '9':
        return CountValue(p) ? ParseShortNumber(p, out) : nullptr;
    default:
        return FailAt(p, "invalid JSON value");
    }
}

bool JsonParser::EnterContainer(const char* p, std::uint64_t depth)
{
    if (depth > limits_.maxDepth) {
        Fail(JsonErrorKind::depth, "JSON nesting limit exceeded", p);
        return false;
    }
    return CountValue(p);
}

const char* JsonParser::ParseArray(const char* p, RawNode& out, std::uint64_t depth)
{
    if (!EnterContainer(p, depth)) {
        return nullptr;
    }
    p = SkipSpace(p + 1);
    out.word = 0;
    out.tag = TypeTag(JsonType::array);
    if (p != end_ && *p == ']') {
        return p + 1;
    }
    const std::size_t base = items_.Size();
    std::uint64_t count = 0;
    for (;;) {
        if (count == limits_.maxArrayElements) {
            return Fail(JsonErrorKind::containerSize, "JSON array-element limit exceeded", p);
        }
        if (p != end_ && (IsDigit(*p) || *p == '-')) {
            // Numbers go straight to their slot: they cannot grow the stack under it.
            if (!CountValue(p) || (p = ParseShortNumber(p, items_.Push())) == nullptr) {
                return nullptr;
            }
        } else {
            RawNode item;
            if ((p = ParseValue(p, item, depth)) == nullptr) {
                return nullptr;
            }
            items_.Push() = item;
        }
        ++count;
        p = SkipSpace(p);
        if (p != end_ && *p == ',') {
            p = SkipSpace(p + 1);
            continue;
        }
        if (p != end_ && *p == ']') {
            break;
        }
        return FailAt(p, "missing comma in array");
    }
    auto* stored = static_cast<JsonValue*>(arena_->Allocate(count * sizeof(JsonValue)));
    const RawNode* nodes = items_.From(base);
    for (std::size_t index = 0; index < count; ++index) {
        new (stored + index) JsonValue(nodes[index].word, nodes[index].tag);
    }
    items_.Truncate(base);
    out.word = Word(stored);
    out.tag = TypeTag(JsonType::array) | (count << JsonValue::lengthShift);
    return p + 1;
}

bool JsonParser::IsDuplicateKey(std::size_t base, std::string_view key, std::unique_ptr<KeySet>& keySet)
{
    if (keySet) {
        return !keySet->insert(key).second;
    }
    const std::size_t count = members_.Size() - base;
    const RawMember* members = members_.From(base);
    for (std::size_t index = 0; index < count; ++index) {
        const RawNode& other = members[index].key;
        if ((other.tag >> JsonValue::lengthShift) == key.size() &&
            std::memcmp(reinterpret_cast<const char*>(other.word), key.data(), key.size()) == 0) {
            return true;
        }
    }
    if (count + 1 >= json_parse::linearKeyScanLimit) {
        keySet = std::make_unique<KeySet>();
        keySet->reserve(count * 4);
        for (std::size_t index = 0; index < count; ++index) {
            const RawNode& other = members[index].key;
            keySet->emplace(reinterpret_cast<const char*>(other.word), other.tag >> JsonValue::lengthShift);
        }
        keySet->insert(key);
    }
    return false;
}

const char* JsonParser::ParseObject(const char* p, RawNode& out, std::uint64_t depth)
{
    if (!EnterContainer(p, depth)) {
        return nullptr;
    }
    p = SkipSpace(p + 1);
    out.word = 0;
    out.tag = TypeTag(JsonType::object);
    if (p != end_ && *p == '}') {
        return p + 1;
    }
    const std::size_t base = members_.Size();
    std::unique_ptr<KeySet> keySet;
    std::uint64_t count = 0;
    for (;;) {
        if (count == limits_.maxObjectMembers) {
            return Fail(JsonErrorKind::containerSize, "JSON object-member limit exceeded", p);
        }
        if (p == end_ || *p != '"') {
            return FailAt(p, "object key must be a string");
        }
        const char* keyStart = p;
        RawMember member;
        if ((p = ParseString(p, member.key)) == nullptr) {
            return nullptr;
        }
        const std::string_view key(reinterpret_cast<const char*>(member.key.word), member.key.tag >> JsonValue::lengthShift);
        if (IsDuplicateKey(base, key, keySet)) {
            return Fail(JsonErrorKind::duplicateKey, "duplicate object key", keyStart);
        }
        p = SkipSpace(p);
        if (p == end_ || *p != ':') {
            return FailAt(p, "missing colon after object key");
        }
        if ((p = ParseValue(p + 1, member.value, depth)) == nullptr) {
            return nullptr;
        }
        members_.Push() = member;
        ++count;
        p = SkipSpace(p);
        if (p != end_ && *p == ',') {
            p = SkipSpace(p + 1);
            continue;
        }
        if (p != end_ && *p == '}') {
            break;
        }
        return FailAt(p, "missing comma in object");
    }
    auto* stored = static_cast<JsonMember*>(arena_->Allocate(count * sizeof(JsonMember)));
    const RawMember* nodes = members_.From(base);
    for (std::size_t index = 0; index < count; ++index) {
        auto* member = new (stored + index) JsonMember();
        member->key_ = JsonValue(nodes[index].key.word, nodes[index].key.tag);
        member->value_ = JsonValue(nodes[index].value.word, nodes[index].value.tag);
    }
    members_.Truncate(base);
    out.word = Word(stored);
    out.tag = TypeTag(JsonType::object) | (count << JsonValue::lengthShift);
    return p + 1;
}

JsonParseResult ParseJson(std::string_view text, const JsonLimits& limits)
{
    JsonParser parser(text, limits);
    return parser.Run();
}

}  // namespace korv::core
