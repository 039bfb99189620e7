#include "core/json.h"

#include "core/json_scan.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <system_error>

namespace korv::core {
namespace {

// Bytes that cannot stand in a JSON string as they are, and those that begin a multi-byte sequence,
// which must be checked.
constexpr std::array<bool, 256> escapedBytes = [] {
    std::array<bool, 256> table{};
    for (int byte = 0; byte < 0x20; ++byte) {
        table[static_cast<std::size_t>(byte)] = true;
    }
    for (int byte = 0x80; byte < 0x100; ++byte) {
        table[static_cast<std::size_t>(byte)] = true;
    }
    table['"'] = true;
    table['\\'] = true;
    return table;
}();

// Length of the well-formed UTF-8 sequence at index (lead byte >= 0x80), or 0.
std::size_t SequenceAt(std::string_view text, std::size_t index) noexcept
{
    unsigned char bytes[4] = {};
    const std::size_t available = std::min<std::size_t>(4, text.size() - index);
    std::memcpy(bytes, text.data() + index, available);
    return json_scan::Utf8SequenceLength(bytes);
}

// Strings reach the writer from the machine (process names, file names) as bytes in no promised
// encoding; a byte that is not part of well-formed UTF-8 is written as U+FFFD so that the document
// stays readable by the program's own reader.
void AppendEscaped(std::string& out, std::string_view text)
{
    static constexpr char hexDigits[] = "0123456789abcdef";
    out.push_back('"');
    std::size_t runStart = 0;
    for (std::size_t index = 0; index < text.size(); ++index) {
        const auto byte = static_cast<unsigned char>(text[index]);
        if (!escapedBytes[byte]) {
            continue;
        }
        if (byte >= 0x80) {
            const std::size_t sequence = SequenceAt(text, index);
            if (sequence != 0) {
                index += sequence - 1;
                continue;
            }
            out.append(text.data() + runStart, index - runStart);
            runStart = index + 1;
            out.append("\xEF\xBF\xBD");
            continue;
        }
        out.append(text.data() + runStart, index - runStart);
        runStart = index + 1;
        switch (byte) {
        case '"': out.append("\\\""); break;
        case '\\': out.append("\\\\"); break;
        case '\b': out.append("\\b"); break;
        case '\f': out.append("\\f"); break;
        case '\n': out.append("\\n"); break;
        case '\r': out.append("\\r"); break;
        case '\t': out.append("\\t"); break;
        default: {
            const char escape[] = {'\\', 'u', '0', '0', hexDigits[byte >> 4], hexDigits[byte & 0xF]};
            out.append(escape, sizeof escape);
            break;
        }
        }
    }
    out.append(text.data() + runStart, text.size() - runStart);
    out.push_back('"');
}

bool IsUtf8(std::string_view text) noexcept
{
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (static_cast<unsigned char>(text[index]) < 0x80) {
            continue;
        }
        const std::size_t sequence = SequenceAt(text, index);
        if (sequence == 0) {
            return false;
        }
        index += sequence - 1;
    }
    return true;
}

}  // namespace

JsonWriter::JsonWriter(bool indent, InvalidUtf8 invalidUtf8) : indent_(indent), invalidUtf8_(invalidUtf8) {}

// Runs before a key or string changes anything, so that a refused call leaves the text as it was.
void JsonWriter::CheckText(std::string_view text) const
{
    if (invalidUtf8_ == InvalidUtf8::refuse && !IsUtf8(text)) {
        throw JsonWriterError("invalid UTF-8 in string");
    }
}

void JsonWriter::NewLine(std::size_t level)
{
    text_.push_back('\n');
    text_.append(level * 2, ' ');
}

// Checks that a value may come now and writes what separates it from the one before.
void JsonWriter::BeforeValue()
{
    if (frames_.empty()) {
        if (rootDone_) {
            throw JsonWriterError("multiple JSON root values");
        }
        return;
    }
    Frame& frame = frames_.back();
    if (frame.isObject) {
        if (!frame.keyPending) {
            throw JsonWriterError("JSON object value without key");
        }
        frame.keyPending = false;
        return;
    }
    if (frame.count > 0) {
        text_.push_back(',');
    }
    if (indent_) {
        NewLine(frames_.size());
    }
    ++frame.count;
}

void JsonWriter::BeginObject()
{
    BeforeValue();
    text_.push_back('{');
    frames_.push_back(Frame{true, false, 0});
}

void JsonWriter::BeginArray()
{
    BeforeValue();
    text_.push_back('[');
    frames_.push_back(Frame{false, false, 0});
}

void JsonWriter::EndObject()
{
    if (frames_.empty() || !frames_.back().isObject || frames_.back().keyPending) {
        throw JsonWriterError("invalid JSON object writer state");
    }
    const bool empty = frames_.back().count == 0;
    frames_.pop_back();
    if (indent_ && !empty) {
        NewLine(frames_.size());
    }
    text_.push_back('}');
    if (frames_.empty()) {
        rootDone_ = true;
    }
}

void JsonWriter::EndArray()
{
    if (frames_.empty() || frames_.back().isObject) {
        throw JsonWriterError("invalid JSON array writer state");
    }
    const bool empty = frames_.back().count == 0;
    frames_.pop_back();
    if (indent_ && !empty) {
        NewLine(frames_.size());
    }
    text_.push_back(']');
    if (frames_.empty()) {
        rootDone_ = true;
    }
}

void JsonWriter::Key(std::string_view key)
{
    if (frames_.empty() || !frames_.back().isObject || frames_.back().keyPending) {
        throw JsonWriterError("JSON key outside object");
    }
    CheckText(key);
    Frame& frame = frames_.back();
    if (frame.count > 0) {
        text_.push_back(',');
    }
    if (indent_) {
        NewLine(frames_.size());
    }
    AppendEscaped(text_, key);
    text_.append(indent_ ? ": " : ":");
    frame.keyPending = true;
    ++frame.count;
}

void JsonWriter::String(std::string_view value)
{
    CheckText(value);
    BeforeValue();
    AppendEscaped(text_, value);
    rootDone_ = rootDone_ || frames_.empty();
}

void JsonWriter::Bool(bool value)
{
    BeforeValue();
    text_.append(value ? "true" : "false");
    rootDone_ = rootDone_ || frames_.empty();
}

void JsonWriter::Null()
{
    BeforeValue();
    text_.append("null");
    rootDone_ = rootDone_ || frames_.empty();
}

void JsonWriter::Integer(std::int64_t value)
{
    char buffer[24];
    const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    if (error != std::errc()) {
        throw JsonWriterError("failed to format JSON integer");
    }
    Raw(std::string_view(buffer, static_cast<std::size_t>(end - buffer)));
}

void JsonWriter::Unsigned(std::uint64_t value)
{
    char buffer[24];
    const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    if (error != std::errc()) {
        throw JsonWriterError("failed to format JSON integer");
    }
    Raw(std::string_view(buffer, static_cast<std::size_t>(end - buffer)));
}

void JsonWriter::Double(double value)
{
    if (!std::isfinite(value)) {
        throw JsonWriterError("JSON number must be finite");
    }
    char buffer[32];
    const char* end = json_scan::FormatDouble(buffer, buffer + sizeof buffer, value);
    if (end == nullptr) {
        throw JsonWriterError("failed to format JSON number");
    }
    Raw(std::string_view(buffer, static_cast<std::size_t>(end - buffer)));
}

void JsonWriter::Raw(std::string_view jsonText)
{
    BeforeValue();
    text_.append(jsonText);
    rootDone_ = rootDone_ || frames_.empty();
}

void JsonWriter::Reserve(std::size_t bytes)
{
    text_.reserve(bytes);
}

std::string JsonWriter::Finish()
{
    if (!rootDone_ || !frames_.empty()) {
        throw JsonWriterError("unfinished JSON document");
    }
    std::string result = std::move(text_);
    text_.clear();
    rootDone_ = false;
    return result;
}

namespace {

void WriteValue(JsonWriter& writer, const JsonValue& value)
{
    switch (value.Type()) {
    case JsonType::null: writer.Null(); break;
    case JsonType::boolean: writer.Bool(value.AsBool()); break;
    case JsonType::number: writer.Raw(value.NumberText()); break;
    case JsonType::string: writer.String(value.AsString()); break;
    case JsonType::array:
        writer.BeginArray();
        for (const JsonValue& item : value.Items()) {
            WriteValue(writer, item);
        }
        writer.EndArray();
        break;
    case JsonType::object:
        writer.BeginObject();
        for (const JsonMember& member : value.Members()) {
            writer.Key(member.Key());
            WriteValue(writer, member.Value());
        }
        writer.EndObject();
        break;
    }
}

}  // namespace

std::string SerializeJson(const JsonValue& value)
{
    JsonWriter writer;
    WriteValue(writer, value);
    return writer.Finish();
}

}  // namespace korv::core
