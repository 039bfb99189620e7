#include "core/json_parser.h"

#include <cstring>
#include <new>

namespace korv::core {

using json_scan::IsDigit;
using json_parse::TypeTag;
using json_parse::Word;

// Reads the four hexadecimal digits of the "\u" escape at escape.
bool JsonParser::ReadHex4(const char* escape, std::uint32_t& value)
{
    value = 0;
    for (const char* digit = escape + 2; digit < escape + 6; ++digit) {
        if (digit >= end_) {
            Fail(JsonErrorKind::syntax, "truncated unicode escape", escape);
            return false;
        }
        const int nibble = json_scan::HexDigit(*digit);
        if (nibble < 0) {
            Fail(JsonErrorKind::syntax, "invalid unicode escape", escape);
            return false;
        }
        value = (value << 4) | static_cast<std::uint32_t>(nibble);
    }
    return true;
}

// Reads the escape at escape, a surrogate pair as one; returns the position after it.
const char* JsonParser::ReadEscape(const char* escape, std::uint32_t& codePoint)
{
    if (escape + 1 >= end_) {
        return Fail(JsonErrorKind::syntax, "truncated string escape", escape);
    }
    switch (escape[1]) {
    case '"': codePoint = '"'; break;
    case '\\': codePoint = '\\'; break;
    case '/': codePoint = '/'; break;
    case 'b': codePoint = '\b'; break;
    case 'f': codePoint = '\f'; break;
    case 'n': codePoint = '\n'; break;
    case 'r': codePoint = '\r'; break;
    case 't': codePoint = '\t'; break;
    case 'u': {
        if (!ReadHex4(escape, codePoint)) {
            return nullptr;
        }
        const char* after = escape + 6;
        if (codePoint >= 0xDC00 && codePoint <= 0xDFFF) {
            return Fail(JsonErrorKind::syntax, "unpaired low surrogate", escape);
        }
        if (codePoint >= 0xD800 && codePoint <= 0xDBFF) {
            if (after + 1 >= end_ || after[0] != '\\' || after[1] != 'u') {
                return Fail(JsonErrorKind::syntax, "unpaired high surrogate", escape);
            }
            std::uint32_t low = 0;
            if (!ReadHex4(after, low)) {
                return nullptr;
            }
            if (low < 0xDC00 || low > 0xDFFF) {
                return Fail(JsonErrorKind::syntax, "invalid surrogate pair", after);
            }
            codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (low - 0xDC00);
            after += 6;
        }
        return after;
    }
    default:
        return Fail(JsonErrorKind::syntax, "invalid string escape", escape);
    }
    return escape + 2;
}

// p is at the opening quote. The string is checked whole, then its length, then it is decoded
// into the arena.
const char* JsonParser::ParseString(const char* p, RawNode& out)
{
    const char* quote = p;
    const char* content = ++p;
    std::uint64_t length = 0;  // decoded bytes
    bool escaped = false;
    for (;;) {
        const char* run = p;
        while (p != end_ && json_scan::plainStringBytes[static_cast<unsigned char>(*p)]) {
            ++p;
        }
        length += static_cast<std::uint64_t>(p - run);
        if (p == end_) {
            return Fail(JsonErrorKind::syntax, "unterminated string", p);
        }
        const auto byte = static_cast<unsigned char>(*p);
        if (byte == '"') {
            break;
        }
        if (byte == '\\') {
            std::uint32_t codePoint = 0;
            if ((p = ReadEscape(p, codePoint)) == nullptr) {
                return nullptr;
            }
            length += json_scan::Utf8Length(codePoint);
            escaped = true;
            continue;
        }
        if (byte < 0x80) {
            return Fail(JsonErrorKind::syntax, "control character in string", p);
        }
        std::size_t sequence = 0;
        if (end_ - p >= 4) {
            sequence = json_scan::Utf8SequenceLength(reinterpret_cast<const unsigned char*>(p));
        } else {
            // Near the end: zero bytes stand in for the missing ones and fail as continuations.
            unsigned char tail[4] = {};
            std::memcpy(tail, p, static_cast<std::size_t>(end_ - p));
            sequence = json_scan::Utf8SequenceLength(tail);
        }
        if (sequence == 0) {
            return Fail(JsonErrorKind::syntax, "invalid UTF-8 in string", p);
        }
        p += sequence;
        length += sequence;
    }
    if (length > limits_.maxStringBytes) {
        return Fail(JsonErrorKind::scalarSize, "JSON string limit exceeded", quote);
    }
    char* stored = static_cast<char*>(arena_->Allocate(length));
    if (!escaped) {
        if (length > 0) {
            std::memcpy(stored, content, length);
        }
    } else {
        char* write = stored;
        for (const char* read = content; read != p;) {
            const auto* backslash = static_cast<const char*>(std::memchr(read, '\\', static_cast<std::size_t>(p - read)));
            const char* runEnd = backslash != nullptr ? backslash : p;
            std::memcpy(write, read, static_cast<std::size_t>(runEnd - read));
            write += runEnd - read;
            read = runEnd;
            if (read != p) {
                std::uint32_t codePoint = 0;
                read = ReadEscape(read, codePoint);  // checked above, so it cannot fail here
                write = json_scan::EncodeUtf8(write, codePoint);
            }
        }
    }
    out.word = Word(stored);
    out.tag = TypeTag(JsonType::string) | (length << JsonValue::lengthShift);
    return p + 1;
}

const char* JsonParser::ParseNumber(const char* p, RawNode& out)
{
    const char* start = p;
    const bool negative = *p == '-';
    p += negative ? 1 : 0;
    if (!IsDigit(*p)) {
        return Fail(JsonErrorKind::syntax, "truncated number", p);
    }
    std::uint64_t significand = 0;
    std::int64_t digits = 0;  // digits in significand, a lone leading zero not counted
    if (*p == '0') {
        ++p;
        if (IsDigit(*p)) {
            return Fail(JsonErrorKind::syntax, "leading zero in number", p);
        }
    } else {
        while (IsDigit(*p)) {
            significand = significand * 10 + static_cast<std::uint64_t>(*p - '0');
            ++digits;
            ++p;
        }
    }
    std::int64_t exponent = 0;
    if (*p == '.') {
        ++p;
        if (!IsDigit(*p)) {
            return Fail(JsonErrorKind::syntax, "invalid number fraction", p);
        }
        const char* fraction = p;
        while (IsDigit(*p)) {
            significand = significand * 10 + static_cast<std::uint64_t>(*p - '0');
            ++p;
        }
        digits += p - fraction;
        exponent -= p - fraction;
    }
    if ((*p | 0x20) == 'e') {
        ++p;
        const bool negativeExponent = *p == '-';
        p += (*p == '+' || *p == '-') ? 1 : 0;
        if (!IsDigit(*p)) {
            return Fail(JsonErrorKind::syntax, "invalid number exponent", p);
        }
        std::int64_t written = 0;
        while (IsDigit(*p)) {
            // Saturated: such an exponent takes the slow path anyway.
            written = std::min<std::int64_t>(written * 10 + (*p - '0'), 100000);
            ++p;
        }
        exponent += negativeExponent ? -written : written;
    }
    const auto length = static_cast<std::size_t>(p - start);
    if (length > limits_.maxNumberCharacters) {
        return Fail(JsonErrorKind::scalarSize, "JSON number limit exceeded", start);
    }
    const std::string_view text(start, length);
    const double value = json_scan::ConvertNumber(text, negative, significand, digits, exponent);
    if (length <= JsonValue::maxInlineNumber) {
        // The text goes into bytes 1-7 of the tag.
        std::uint64_t bytes = 0;
        if (readableEnd_ - start >= 8) {
            std::memcpy(&bytes, start, sizeof bytes);
            bytes &= ~std::uint64_t{0} >> (64 - 8 * length);
        } else {
            std::memcpy(&bytes, start, length);
        }
        out.word = std::bit_cast<std::uint64_t>(value);
        out.tag = TypeTag(JsonType::number) | (length << JsonValue::inlineLengthShift) | (bytes << 8);
    } else {
        auto* copy = static_cast<char*>(arena_->Allocate(length));
        std::memcpy(copy, start, length);
        auto* number = new (arena_->Allocate(sizeof(JsonValue::LongNumber))) JsonValue::LongNumber{value, length, copy};
        out.word = Word(number);
        out.tag = TypeTag(JsonType::number);
    }
    return p;
}

}  // namespace korv::core
