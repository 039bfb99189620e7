#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace korv::core {

// Limits are per call: every caller picks the preset that fits what it reads.
// The root container has depth 1, so a maxDepth of 64 allows 64 nested containers.
// maxValues counts every value, containers and the root included. maxStringBytes applies to the
// decoded UTF-8 bytes of each string and each key; maxNumberCharacters to the number's text. A
// string or number is read whole before its length is checked, so a syntax error inside an
// over-long one is the error reported.
struct JsonLimits {
    std::uint64_t maxDepth = 0;
    std::uint64_t maxValues = 0;
    std::uint64_t maxArrayElements = 0;
    std::uint64_t maxObjectMembers = 0;
    std::uint64_t maxStringBytes = 0;
    std::uint64_t maxNumberCharacters = 0;

    // Settings and other small documents.
    static constexpr JsonLimits Default() noexcept { return {64, 4096, 4096, 1024, 1048576, 1024}; }
    // Flight traces.
    static constexpr JsonLimits Trace() noexcept { return {16, 750000, 21600, 128, 32768, 128}; }
};

enum class JsonErrorKind : std::uint32_t {
    none = 0,
    syntax = 1,
    duplicateKey = 2,
    depth = 3,
    valueCount = 4,
    containerSize = 5,
    scalarSize = 6,
    trailingData = 7,
};

// offset is the byte at which the text stops fitting the grammar (the end of the text for
// "unexpected end of JSON" and "unterminated string"; the first byte of a bad escape or UTF-8
// sequence), or the first byte of the value or key that a limit refuses. line and column are
// 1-based, the column counts bytes, and only LF starts a new line.
struct JsonError {
    JsonErrorKind kind = JsonErrorKind::none;
    std::string message;
    std::size_t offset = 0;
    std::size_t line = 1;
    std::size_t column = 1;
};

enum class JsonType : std::uint8_t { null, boolean, number, string, array, object };

class JsonMember;

// An immutable JSON value. Copies are deep and independent of the source; a moved-from value is
// null. References returned by At(), Find(), Items() and Members() live as long as the value they
// came from. Concurrent reads of one value are safe.
class JsonValue {
public:
    JsonValue() noexcept = default;
    JsonValue(const JsonValue& other);
    JsonValue(JsonValue&& other) noexcept : word_(other.word_), tag_(other.tag_)
    {
        other.word_ = 0;
        other.tag_ = 0;
    }
    JsonValue& operator=(const JsonValue& other);
    JsonValue& operator=(JsonValue&& other) noexcept;
    ~JsonValue()
    {
        if ((tag_ & ownsBit) != 0) {
            Release();
        }
    }

    JsonType Type() const noexcept { return static_cast<JsonType>(tag_ & typeMask); }
    bool IsNull() const noexcept { return Type() == JsonType::null; }
    bool IsBool() const noexcept { return Type() == JsonType::boolean; }
    bool IsNumber() const noexcept { return Type() == JsonType::number; }
    bool IsString() const noexcept { return Type() == JsonType::string; }
    bool IsArray() const noexcept { return Type() == JsonType::array; }
    bool IsObject() const noexcept { return Type() == JsonType::object; }

    // false unless a bool
    bool AsBool() const noexcept { return IsBool() && (tag_ & trueBit) != 0; }
    // 0 unless a number; a magnitude beyond the double range gives +-infinity, one below it +-0
    double AsDouble() const noexcept;
    // Only for a number whose text is an integer (no fraction, no exponent; for unsigned no minus)
    // that fits the type.
    std::optional<std::uint64_t> AsUnsigned() const noexcept;
    std::optional<std::int64_t> AsInteger() const noexcept;
    // Decoded UTF-8; empty unless a string.
    std::string_view AsString() const noexcept;
    // The number as written in the source; empty unless a number.
    std::string_view NumberText() const noexcept;

    // Elements or members; 0 for scalars.
    std::size_t Size() const noexcept { return IsArray() || IsObject() ? Content().Length() : 0; }
    // Array element; precondition: IsArray() and index < Size().
    const JsonValue& At(std::size_t index) const noexcept { return Content().Pointer<JsonValue>()[index]; }
    // Object member by key, or nullptr (also for non-objects).
    const JsonValue* Find(std::string_view key) const noexcept;
    // Array elements in document order; empty unless an array.
    std::span<const JsonValue> Items() const noexcept;
    // Object members in document order; empty unless an object.
    std::span<const JsonMember> Members() const noexcept;

    // Same type and content. Numbers compare by value: integers exactly, others as doubles.
    // Objects compare as sets of members, whatever their order.
    friend bool operator==(const JsonValue& left, const JsonValue& right) noexcept;

private:
    friend class JsonParser;
    friend class JsonCloner;

    // A number longer than an inline text.
    struct LongNumber {
        double value;
        std::size_t length;
        const char* text;
    };

    // tag_: bits 0-2 type, bit 3 owned storage, bit 4 the bool's value; bits 5-7 the length of a
    // number text of up to seven bytes kept in bytes 1-7 (0: a LongNumber); from bit 8 the
    // length of a string or the count of a container.
    // word_: the double of an inline number, else a pointer to the LongNumber, the string bytes,
    // the first element or the first member; for owned storage, to the content node.
    static constexpr std::uint64_t typeMask = 0x7;
    static constexpr std::uint64_t ownsBit = 0x8;
    static constexpr std::uint64_t trueBit = 0x10;
    static constexpr unsigned inlineLengthShift = 5;
    static constexpr std::size_t maxInlineNumber = 7;
    static constexpr unsigned lengthShift = 8;

    JsonValue(std::uint64_t word, std::uint64_t tag) noexcept : word_(word), tag_(tag) {}

    // Owned storage holds the value's content in a node of its own; borrowed nodes are the content.
    const JsonValue& Content() const noexcept
    {
        return (tag_ & ownsBit) != 0 ? *Pointer<JsonValue>() : *this;
    }
    template <typename T>
    const T* Pointer() const noexcept
    {
        return reinterpret_cast<const T*>(static_cast<std::uintptr_t>(word_));
    }
    std::size_t Length() const noexcept { return static_cast<std::size_t>(tag_ >> lengthShift); }
    std::size_t InlineNumberLength() const noexcept { return (tag_ >> inlineLengthShift) & 0x7; }
    void Release() noexcept;

    std::uint64_t word_ = 0;
    std::uint64_t tag_ = 0;
};

// An object member: Key() is the decoded key, Value() its value. Copies are deep.
class JsonMember {
public:
    std::string_view Key() const noexcept { return key_.AsString(); }
    const JsonValue& Value() const noexcept { return value_; }

private:
    friend class JsonParser;
    friend class JsonCloner;
    JsonMember() noexcept = default;

    JsonValue key_;
    JsonValue value_;
};

struct JsonParseResult {
    std::optional<JsonValue> value;
    JsonError error;
    bool Ok() const noexcept { return value.has_value(); }
};

// Strict RFC 8259 reader. Never throws for bad input; stops at the first error. Recursion depth
// is bounded by limits.maxDepth.
JsonParseResult ParseJson(std::string_view text, const JsonLimits& limits);

// Compact text; numbers keep their source text, so a parsed value is written back exactly.
std::string SerializeJson(const JsonValue& value);

class JsonWriterError : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

// Streaming writer. Every call checks the document state and throws JsonWriterError on misuse;
// a call that throws leaves the text unchanged. With indent, containers open onto new lines
// indented by two spaces per level and keys are followed by ": ". Keys and strings are always
// written as UTF-8 that the reader accepts: a byte that is not part of well-formed UTF-8 becomes
// U+FFFD, or, where a changed text would be worse than none, the call throws "invalid UTF-8 in string".
enum class InvalidUtf8 { replace, refuse };

class JsonWriter {
public:
    explicit JsonWriter(bool indent = false, InvalidUtf8 invalidUtf8 = InvalidUtf8::replace);

    void BeginObject();
    void EndObject();
    void BeginArray();
    void EndArray();
    void Key(std::string_view key);
    void String(std::string_view value);
    void Bool(bool value);
    void Integer(std::int64_t value);
    void Unsigned(std::uint64_t value);
    void Double(double value);
    void Null();
    // One complete, pre-serialised JSON value written as it stands (the caller vouches for it).
    void Raw(std::string_view jsonText);
    void Reserve(std::size_t bytes);
    // Returns the document and leaves the writer empty, ready for a new document.
    std::string Finish();

private:
    struct Frame {
        bool isObject = false;
        bool keyPending = false;
        std::size_t count = 0;
    };

    void BeforeValue();
    void NewLine(std::size_t level);
    void CheckText(std::string_view text) const;

    std::string text_;
    std::vector<Frame> frames_;
    bool indent_ = false;
    InvalidUtf8 invalidUtf8_ = InvalidUtf8::replace;
    bool rootDone_ = false;
};

}  // namespace korv::core
