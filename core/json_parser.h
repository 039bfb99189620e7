#pragma once

#include "core/json.h"
#include "core/json_arena.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "core/json_scan.h"

namespace korv::core {
namespace json_parse {

// Zero bytes behind a padded copy of the text: a number scan stops on them, and an inline number
// text may be loaded as eight bytes.
inline constexpr std::size_t textPadding = 16;

// Bytes that can continue a number. A text that ends in one is parsed from a padded copy; any
// other text is parsed where it stands, since every number scan stops inside it.
constexpr bool ContinuesNumber(char c) noexcept
{
    return json_scan::IsDigit(c) || c == '.' || c == 'e' || c == 'E' || c == '+' || c == '-';
}

// Objects up to this size are checked for duplicate keys by a linear scan, larger ones by a set.
inline constexpr std::size_t linearKeyScanLimit = 16;

// A node under construction: the two words of a JsonValue.
struct RawNode {
    std::uint64_t word = 0;
    std::uint64_t tag = 0;
};

struct RawMember {
    RawNode key;
    RawNode value;
};

// Nodes of the containers still open, reused from one container to the next.
template <typename T>
class ScratchStack {
public:
    T& Push()
    {
        if (size_ == storage_.size()) {
            storage_.resize(std::max<std::size_t>(256, storage_.size() * 2));
        }
        return storage_[size_++];
    }
    std::size_t Size() const noexcept { return size_; }
    const T* From(std::size_t index) const noexcept { return storage_.data() + index; }
    void Truncate(std::size_t size) noexcept { size_ = size; }

private:
    std::vector<T> storage_;
    std::size_t size_ = 0;
};

constexpr std::uint64_t TypeTag(JsonType type) noexcept
{
    return static_cast<std::uint64_t>(type);
}

template <typename T>
std::uint64_t Word(const T* pointer) noexcept
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}

}  // namespace json_parse

// Recursive descent over the bytes of the text. Every read is checked against end_, except the
// scans of a number, which need no check (see ContinuesNumber). Strings and long number texts
// are copied into the arena, so the result does not refer to the text. Each Parse function takes
// the position of its first byte and returns the position after what it read, or nullptr once
// error_ is set.
// Containers and their structure are read in json_reader.cpp, strings and numbers in
// json_reader_scalars.cpp.
class JsonParser {
public:
    JsonParser(std::string_view text, const JsonLimits& limits);
    JsonParseResult Run();

private:
    using RawNode = json_parse::RawNode;
    using RawMember = json_parse::RawMember;
    using KeySet = std::unordered_set<std::string_view>;

    // Records the error at at; returns nullptr for the callers to pass up.
    std::nullptr_t Fail(JsonErrorKind kind, const char* message, const char* at);
    // At a byte that cannot continue: either the text ended there or the byte is wrong.
    std::nullptr_t FailAt(const char* at, const char* message);
    const char* SkipSpace(const char* p) const noexcept
    {
        while (p != end_ && json_scan::IsSpace(*p)) {
            ++p;
        }
        return p;
    }
    bool CountValue(const char* at)
    {
        if (++values_ > limits_.maxValues) {
            Fail(JsonErrorKind::valueCount, "JSON value-count limit exceeded", at);
            return false;
        }
        return true;
    }
    const char* ParseLiteral(const char* p, RawNode& out, std::string_view literal, std::uint64_t tag);
    const char* ParseValue(const char* p, RawNode& out, std::uint64_t depth);
    bool EnterContainer(const char* p, std::uint64_t depth);
    const char* ParseArray(const char* p, RawNode& out, std::uint64_t depth);
    bool IsDuplicateKey(std::size_t base, std::string_view key, std::unique_ptr<KeySet>& keySet);
    const char* ParseObject(const char* p, RawNode& out, std::uint64_t depth);
    // Reads the four hexadecimal digits of the "\u" escape at escape.
    bool ReadHex4(const char* escape, std::uint32_t& value);
    // Reads the escape at escape, a surrogate pair as one; returns the position after it.
    const char* ReadEscape(const char* escape, std::uint32_t& codePoint);
    // p is at the opening quote. The string is checked whole, then its length, then it is decoded
    // into the arena.
    const char* ParseString(const char* p, RawNode& out);
    const char* ParseNumber(const char* p, RawNode& out);

    // The numbers that fill traces: at most seven characters and no exponent, so the text fits
    // the node and the value is one exact division. Others, and all errors, go to ParseNumber.
    const char* ParseShortNumber(const char* p, RawNode& out)
    {
        using json_scan::IsDigit;
        const char* start = p;
        p += *p == '-' ? 1 : 0;
        if (!IsDigit(*p) || (*p == '0' && IsDigit(p[1]))) {
            return ParseNumber(start, out);
        }
        std::uint64_t significand = 0;
        while (IsDigit(*p)) {
            significand = significand * 10 + static_cast<std::uint64_t>(*p - '0');
            ++p;
        }
        std::size_t fractionDigits = 0;
        if (*p == '.') {
            const char* fraction = ++p;
            while (IsDigit(*p)) {
                significand = significand * 10 + static_cast<std::uint64_t>(*p - '0');
                ++p;
            }
            fractionDigits = static_cast<std::size_t>(p - fraction);
        }
        const auto length = static_cast<std::size_t>(p - start);
        if ((*p | 0x20) == 'e' || length > shortNumberLimit_ || (fractionDigits == 0 && p[-1] == '.') ||
            readableEnd_ - start < 8) {
            return ParseNumber(start, out);
        }
        double value = static_cast<double>(significand) / json_scan::exactPowersOfTen[fractionDigits];
        value = *start == '-' ? -value : value;
        std::uint64_t bytes = 0;
        std::memcpy(&bytes, start, sizeof bytes);
        bytes &= ~std::uint64_t{0} >> (64 - 8 * length);
        out.word = std::bit_cast<std::uint64_t>(value);
        out.tag = json_parse::TypeTag(JsonType::number) | (length << JsonValue::inlineLengthShift) | (bytes << 8);
        return p;
    }

    JsonLimits limits_;
    std::unique_ptr<JsonArena> arena_;
    std::unique_ptr<char[]> padded_;
    const char* begin_ = nullptr;
    const char* end_ = nullptr;
    const char* readableEnd_ = nullptr;  // end_, or the end of the padding
    std::size_t shortNumberLimit_ = 0;
    std::uint64_t values_ = 0;
    JsonError error_;
    json_parse::ScratchStack<RawNode> items_;
    json_parse::ScratchStack<RawMember> members_;
};

}  // namespace korv::core
