#include "core/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korv::core {
namespace {

using Kind = JsonErrorKind;

struct ErrorCase {
    const char* name;
    std::string text;
    Kind kind;
    const char* message;
    std::size_t offset;
    std::size_t line = 1;
    std::size_t column = 0;  // 0: offset + 1, for texts on one line
};

void PrintTo(const ErrorCase& errorCase, std::ostream* out)
{
    *out << errorCase.name;
}

JsonLimits Tiny()
{
    // Small limits so that every limit can be met by a short text.
    return {3, 6, 3, 2, 4, 4};
}

class JsonReaderErrorTest : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(JsonReaderErrorTest, ReportsKindMessageAndPlace)
{
    const ErrorCase& expected = GetParam();
    const bool tiny = std::string_view(expected.name).starts_with("limit");
    const JsonParseResult result = ParseJson(expected.text, tiny ? Tiny() : JsonLimits::Default());
    ASSERT_FALSE(result.Ok());
    EXPECT_EQ(result.error.kind, expected.kind);
    EXPECT_EQ(result.error.message, expected.message);
    EXPECT_EQ(result.error.offset, expected.offset);
    EXPECT_EQ(result.error.line, expected.line);
    EXPECT_EQ(result.error.column, expected.column != 0 ? expected.column : expected.offset + 1);
}

using namespace std::string_literals;

// Each message of the reader, in the order in which the grammar meets them.
const ErrorCase errorCases[] = {
    {"emptyText", "", Kind::syntax, "unexpected end of JSON", 0},
    {"onlySpace", " \t\r\n", Kind::syntax, "unexpected end of JSON", 4, 2, 1},
    {"openArray", "[", Kind::syntax, "unexpected end of JSON", 1},
    {"afterComma", "[1, ", Kind::syntax, "unexpected end of JSON", 4},
    {"afterColon", "{\"a\":", Kind::syntax, "unexpected end of JSON", 5},
    {"afterKey", "{\"a\"", Kind::syntax, "unexpected end of JSON", 4},
    {"openObject", "{", Kind::syntax, "unexpected end of JSON", 1},
    {"afterMember", "{\"a\":1", Kind::syntax, "unexpected end of JSON", 6},
    {"strayByte", "x", Kind::syntax, "invalid JSON value", 0},
    {"plusSign", "+1", Kind::syntax, "invalid JSON value", 0},
    {"bareFraction", ".5", Kind::syntax, "invalid JSON value", 0},
    {"trailingComma", "[1,]", Kind::syntax, "invalid JSON value", 3},
    {"leadingComma", "[,1]", Kind::syntax, "invalid JSON value", 1},
    {"missingValue", "{\"a\":}", Kind::syntax, "invalid JSON value", 5},
    {"nulByte", "\0"s, Kind::syntax, "invalid JSON value", 0},
    {"formFeedSpace", "\f1", Kind::syntax, "invalid JSON value", 0},
    {"byteOrderMark", "\xEF\xBB\xBF{}", Kind::syntax, "invalid JSON value", 0},
    {"singleQuotes", "['a']", Kind::syntax, "invalid JSON value", 1},
    {"shortTrue", "tru", Kind::syntax, "invalid JSON literal", 3},
    {"capitalTrue", "[True]", Kind::syntax, "invalid JSON value", 1},
    {"wrongFalse", "falze", Kind::syntax, "invalid JSON literal", 3},
    {"notANumber", "nan", Kind::syntax, "invalid JSON literal", 1},
    {"limitDepth", "[[[[]]]]", Kind::depth, "JSON nesting limit exceeded", 3},
    {"limitDepthObject", "{\"a\":[{\"b\":{}}]}", Kind::depth, "JSON nesting limit exceeded", 11},
    {"limitValues", "[[1,2],[3,4]]", Kind::valueCount, "JSON value-count limit exceeded", 10},
    {"limitArray", "[1,2,3,4]", Kind::containerSize, "JSON array-element limit exceeded", 7},
    {"limitObject", "{\"a\":1,\"b\":2,\"c\":3}", Kind::containerSize, "JSON object-member limit exceeded", 13},
    {"numberKey", "{1:2}", Kind::syntax, "object key must be a string", 1},
    {"bareKey", "{ a:1}", Kind::syntax, "object key must be a string", 2},
    {"commaBeforeBrace", "{\"a\":1,}", Kind::syntax, "object key must be a string", 7},
    {"duplicateKey", "{\"a\":1,\"a\":1}", Kind::duplicateKey, "duplicate object key", 7},
    {"duplicateByEscape", "{\"a\":1, \"\\u0061\":2}", Kind::duplicateKey, "duplicate object key", 8},
    {"duplicateEmptyKey", "{\"\":1,\"\":2}", Kind::duplicateKey, "duplicate object key", 6},
    {"duplicateNested", "{\"a\":{\"b\":1,\"b\":null}}", Kind::duplicateKey, "duplicate object key", 12},
    {"noColon", "{\"a\" 1}", Kind::syntax, "missing colon after object key", 5},
    {"commaForColon", "{\"a\",1}", Kind::syntax, "missing colon after object key", 4},
    {"noCommaInObject", "{\"a\":1 \"b\":2}", Kind::syntax, "missing comma in object", 7},
    {"bracketClosesObject", "{\"a\":1]", Kind::syntax, "missing comma in object", 6},
    {"noCommaInArray", "[1 2]", Kind::syntax, "missing comma in array", 3},
    {"braceClosesArray", "[true}", Kind::syntax, "missing comma in array", 5},
    {"openString", "\"abc", Kind::syntax, "unterminated string", 4},
    {"openKey", "{\"ab", Kind::syntax, "unterminated string", 4},
    {"openAfterTwoByteChar", "\"\xC3\xA9", Kind::syntax, "unterminated string", 3},
    {"openAfterFourByteChar", "[\"\xF0\x9F\x98\x80", Kind::syntax, "unterminated string", 6},
    {"rawTab", "\"a\tb\"", Kind::syntax, "control character in string", 2},
    {"rawNul", "\"a\0\""s, Kind::syntax, "control character in string", 2},
    {"rawUnitSeparator", "[\"\x1f\"]", Kind::syntax, "control character in string", 2},
    {"loneContinuation", "\"a\x80\"", Kind::syntax, "invalid UTF-8 in string", 2},
    {"overlongTwoBytes", "\"\xC0\xAF\"", Kind::syntax, "invalid UTF-8 in string", 1},
    {"overlongC1", "\"\xC1\xBF\"", Kind::syntax, "invalid UTF-8 in string", 1},
    {"overlongThreeBytes", "\"\xE0\x80\xAF\"", Kind::syntax, "invalid UTF-8 in string", 1},
    {"overlongFourBytes", "\"\xF0\x8F\xBF\xBF\"", Kind::syntax, "invalid UTF-8 in string", 1},
    {"encodedSurrogate", "\"x\xED\xA0\x80\"", Kind::syntax, "invalid UTF-8 in string", 2},
    {"aboveUnicode", "\"\xF4\x90\x80\x80\"", Kind::syntax, "invalid UTF-8 in string", 1},
    {"leadByteF5", "\"\xF5\x80\x80\x80\"", Kind::syntax, "invalid UTF-8 in string", 1},
    {"cutSequence", "\"\xE2\x82\"", Kind::syntax, "invalid UTF-8 in string", 1},
    {"sequenceAtEnd", "\"\xC3", Kind::syntax, "invalid UTF-8 in string", 1},
    {"byteFF", "[\"\xFF\"]", Kind::syntax, "invalid UTF-8 in string", 2},
    {"backslashAtEnd", "\"ab\\", Kind::syntax, "truncated string escape", 3},
    {"unknownEscape", "\"\\x41\"", Kind::syntax, "invalid string escape", 1},
    {"capitalU", "\"\\U0041\"", Kind::syntax, "invalid string escape", 1},
    {"escapedQuoteChar", "\"\\'\"", Kind::syntax, "invalid string escape", 1},
    {"escapedNul", "\"\\\0\""s, Kind::syntax, "invalid string escape", 1},
    {"unicodeAtEnd", "\"\\u12", Kind::syntax, "truncated unicode escape", 1},
    {"bareUnicode", "\"a\\u", Kind::syntax, "truncated unicode escape", 2},
    {"notHex", "\"\\u12G4\"", Kind::syntax, "invalid unicode escape", 1},
    {"hexCutByQuote", "\"\\u12\"", Kind::syntax, "invalid unicode escape", 1},
    {"highAlone", "\"\\uD800\"", Kind::syntax, "unpaired high surrogate", 1},
    {"highThenText", "\"\\uDBFFab\"", Kind::syntax, "unpaired high surrogate", 1},
    {"highThenOtherEscape", "\"\\uD83D\\n\"", Kind::syntax, "unpaired high surrogate", 1},
    {"highAtEnd", "\"\\uD800", Kind::syntax, "unpaired high surrogate", 1},
    {"highThenBadHex", "\"\\uD800\\uZ000\"", Kind::syntax, "invalid unicode escape", 7},
    {"highThenCutHex", "\"\\uD800\\uDC", Kind::syntax, "truncated unicode escape", 7},
    {"highThenAscii", "\"\\uD800\\u0041\"", Kind::syntax, "invalid surrogate pair", 7},
    {"highThenHigh", "\"\\uDBFF\\uD800\"", Kind::syntax, "invalid surrogate pair", 7},
    {"lowAlone", "\"\\uDC00\"", Kind::syntax, "unpaired low surrogate", 1},
    {"lowBeforeHigh", "\"\\uDFFF\\uD800\"", Kind::syntax, "unpaired low surrogate", 1},
    {"limitString", "[\"abcde\"]", Kind::scalarSize, "JSON string limit exceeded", 1},
    {"limitKey", "{\"abcde\":1}", Kind::scalarSize, "JSON string limit exceeded", 1},
    {"limitStringByEscapes", "\"\\u00e9\\u00e9\\u00e9\"", Kind::scalarSize, "JSON string limit exceeded", 0},
    {"limitStringSyntaxFirst", "\"abcdef\\q\"", Kind::syntax, "invalid string escape", 7},
    {"loneMinus", "-", Kind::syntax, "truncated number", 1},
    {"minusLetter", "[-a]", Kind::syntax, "truncated number", 2},
    {"minusSpace", "- 1", Kind::syntax, "truncated number", 1},
    {"leadingZero", "01", Kind::syntax, "leading zero in number", 1},
    {"negativeLeadingZero", "[-00]", Kind::syntax, "leading zero in number", 3},
    {"pointAtEnd", "1.", Kind::syntax, "invalid number fraction", 2},
    {"pointThenExponent", "[1.e5]", Kind::syntax, "invalid number fraction", 3},
    {"exponentAtEnd", "1e", Kind::syntax, "invalid number exponent", 2},
    {"signedExponentAtEnd", "[2E+]", Kind::syntax, "invalid number exponent", 4},
    {"exponentLetter", "1e-x", Kind::syntax, "invalid number exponent", 3},
    {"limitNumber", "[12345]", Kind::scalarSize, "JSON number limit exceeded", 1},
    {"limitNumberSyntaxFirst", "-123.e4", Kind::syntax, "invalid number fraction", 5},
    {"secondRoot", "1 2", Kind::trailingData, "unexpected data after JSON value", 2},
    {"twoObjects", "{} {}", Kind::trailingData, "unexpected data after JSON value", 3},
    {"longNull", "nulll", Kind::trailingData, "unexpected data after JSON value", 4},
    {"hexNumber", "0x10", Kind::trailingData, "unexpected data after JSON value", 1},
    {"nulAfterRoot", "[]\0"s, Kind::trailingData, "unexpected data after JSON value", 2},
    {"secondLine", "{\"a\": 1,\n  \"a\": 2}", Kind::duplicateKey, "duplicate object key", 11, 2, 3},
    {"escapedNewlineKeepsLine", "[\"a\\nb\" x]", Kind::syntax, "missing comma in array", 8},
    {"thirdLineAfterCrLf", "[\r\n1,\r\n2 x]", Kind::syntax, "missing comma in array", 9, 3, 3},
};

INSTANTIATE_TEST_SUITE_P(Table, JsonReaderErrorTest, ::testing::ValuesIn(errorCases),
                         [](const auto& row) { return std::string(row.param.name); });

// Limits: the limit itself passes, one more fails with its message at the refused value.
struct LimitCase {
    const char* name;
    JsonLimits limits;
    std::string (*build)(std::uint64_t count);
    std::uint64_t JsonLimits::*field;
    Kind kind;
    const char* message;
};

std::string NestedArrays(std::uint64_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

std::string NestedObjects(std::uint64_t depth)
{
    std::string text;
    for (std::uint64_t level = 1; level < depth; ++level) {
        text += "{\"k\":";
    }
    return text + "{}" + std::string(depth - 1, '}');
}

// count values in all: a root array holding arrays of at most 20,000 numbers.
std::string ValueCount(std::uint64_t count)
{
    std::string text = "[";
    std::uint64_t left = count - 1;
    while (left > 0) {
        const std::uint64_t numbers = std::min<std::uint64_t>(left - 1, 20000);
        text += text.size() > 1 ? ",[" : "[";
        for (std::uint64_t index = 0; index < numbers; ++index) {
            text += index == 0 ? "7" : ",7";
        }
        text += ']';
        left -= numbers + 1;
    }
    return text + "]";
}

std::string ArrayOf(std::uint64_t count)
{
    std::string text = "[";
    for (std::uint64_t index = 0; index < count; ++index) {
        text += index == 0 ? "0" : ",0";
    }
    return text + "]";
}

std::string ObjectOf(std::uint64_t count)
{
    std::string text = "{";
    for (std::uint64_t index = 0; index < count; ++index) {
        text += (index == 0 ? "\"" : ",\"") + std::to_string(index) + "\":true";
    }
    return text + "}";
}

std::string StringOf(std::uint64_t bytes)
{
    // Two-byte characters: the limit counts decoded UTF-8 bytes.
    std::string text = "[\"";
    for (std::uint64_t index = 0; index < bytes / 2; ++index) {
        text += "\xC3\xA9";
    }
    return text + std::string(bytes % 2, 'y') + "\"]";
}

std::string NumberOf(std::uint64_t characters)
{
    return "[-0." + std::string(characters - 4, '0') + "1]";
}

JsonLimits WithValues(JsonLimits limits, std::uint64_t values)
{
    limits.maxValues = values;
    return limits;
}

class JsonLimitTest : public ::testing::TestWithParam<LimitCase> {};

TEST_P(JsonLimitTest, LimitPassesAndOneMoreFails)
{
    const LimitCase& limitCase = GetParam();
    const std::uint64_t limit = limitCase.limits.*limitCase.field;
    const std::string atLimit = limitCase.build(limit);
    const JsonParseResult passing = ParseJson(atLimit, limitCase.limits);
    EXPECT_TRUE(passing.Ok()) << passing.error.message << " at " << passing.error.offset;

    const std::string overLimit = limitCase.build(limit + 1);
    const JsonParseResult failing = ParseJson(overLimit, limitCase.limits);
    ASSERT_FALSE(failing.Ok());
    EXPECT_EQ(failing.error.kind, limitCase.kind);
    EXPECT_EQ(failing.error.message, limitCase.message);
    EXPECT_EQ(failing.error.line, 1u);
}

const LimitCase limitCases[] = {
    {"defaultDepthArrays", JsonLimits::Default(), NestedArrays, &JsonLimits::maxDepth, Kind::depth, "JSON nesting limit exceeded"},
    {"defaultDepthObjects", JsonLimits::Default(), NestedObjects, &JsonLimits::maxDepth, Kind::depth, "JSON nesting limit exceeded"},
    {"defaultValues", JsonLimits::Default(), ValueCount, &JsonLimits::maxValues, Kind::valueCount, "JSON value-count limit exceeded"},
    // The default value limit equals the element limit, so a full array needs room for its root.
    {"defaultArrayElements", WithValues(JsonLimits::Default(), 4098), ArrayOf, &JsonLimits::maxArrayElements, Kind::containerSize,
     "JSON array-element limit exceeded"},
    {"defaultObjectMembers", JsonLimits::Default(), ObjectOf, &JsonLimits::maxObjectMembers, Kind::containerSize,
     "JSON object-member limit exceeded"},
    {"defaultStringBytes", JsonLimits::Default(), StringOf, &JsonLimits::maxStringBytes, Kind::scalarSize, "JSON string limit exceeded"},
    {"defaultNumberCharacters", JsonLimits::Default(), NumberOf, &JsonLimits::maxNumberCharacters, Kind::scalarSize,
     "JSON number limit exceeded"},
    {"traceDepthArrays", JsonLimits::Trace(), NestedArrays, &JsonLimits::maxDepth, Kind::depth, "JSON nesting limit exceeded"},
    {"traceDepthObjects", JsonLimits::Trace(), NestedObjects, &JsonLimits::maxDepth, Kind::depth, "JSON nesting limit exceeded"},
    {"traceValues", JsonLimits::Trace(), ValueCount, &JsonLimits::maxValues, Kind::valueCount, "JSON value-count limit exceeded"},
    {"traceArrayElements", JsonLimits::Trace(), ArrayOf, &JsonLimits::maxArrayElements, Kind::containerSize,
     "JSON array-element limit exceeded"},
    {"traceObjectMembers", JsonLimits::Trace(), ObjectOf, &JsonLimits::maxObjectMembers, Kind::containerSize,
     "JSON object-member limit exceeded"},
    {"traceStringBytes", JsonLimits::Trace(), StringOf, &JsonLimits::maxStringBytes, Kind::scalarSize, "JSON string limit exceeded"},
    {"traceNumberCharacters", JsonLimits::Trace(), NumberOf, &JsonLimits::maxNumberCharacters, Kind::scalarSize,
     "JSON number limit exceeded"},
};

INSTANTIATE_TEST_SUITE_P(Presets, JsonLimitTest, ::testing::ValuesIn(limitCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(JsonReaderLimits, PresetsHoldTheirNumbers)
{
    constexpr JsonLimits defaults = JsonLimits::Default();
    constexpr JsonLimits trace = JsonLimits::Trace();
    const std::vector<std::uint64_t> defaultValues = {defaults.maxDepth, defaults.maxValues, defaults.maxArrayElements,
                                                      defaults.maxObjectMembers, defaults.maxStringBytes, defaults.maxNumberCharacters};
    const std::vector<std::uint64_t> traceValues = {trace.maxDepth, trace.maxValues, trace.maxArrayElements,
                                                    trace.maxObjectMembers, trace.maxStringBytes, trace.maxNumberCharacters};
    EXPECT_EQ(defaultValues, (std::vector<std::uint64_t>{64, 4096, 4096, 1024, 1048576, 1024}));
    EXPECT_EQ(traceValues, (std::vector<std::uint64_t>{16, 750000, 21600, 128, 32768, 128}));
}

TEST(JsonReaderLimits, RefusedValueIsPlaced)
{
    const JsonParseResult deep = ParseJson(NestedArrays(65), JsonLimits::Default());
    EXPECT_EQ(deep.error.offset, 64u);
    const JsonParseResult wide = ParseJson(ObjectOf(1025), JsonLimits::Default());
    // The refused key follows the comma that stands where 1024 members would close.
    EXPECT_EQ(wide.error.offset, ObjectOf(1024).size());
    const JsonParseResult scalarOnly = ParseJson("1", JsonLimits{0, 1, 0, 0, 0, 1});
    EXPECT_TRUE(scalarOnly.Ok());
    EXPECT_EQ(ParseJson("[]", JsonLimits{0, 1, 0, 0, 0, 1}).error.kind, Kind::depth);
    EXPECT_EQ(ParseJson("\"\"", JsonLimits{0, 0, 0, 0, 0, 0}).error.kind, Kind::valueCount);
}

TEST(JsonReaderDuplicates, FoundAnywhereInSmallAndLargeObjects)
{
    // Small objects are scanned, larger ones hashed: cover both sides of the switch.
    for (const std::size_t size : {1u, 14u, 15u, 16u, 17u, 500u, 1023u}) {
        for (const std::size_t position : {std::size_t{0}, size / 2, size - 1}) {
            std::string text = ObjectOf(size);
            text.pop_back();
            text += ",\"" + std::to_string(position) + "\":false}";
            const JsonParseResult result = ParseJson(text, JsonLimits::Default());
            ASSERT_FALSE(result.Ok()) << size << " " << position;
            EXPECT_EQ(result.error.kind, Kind::duplicateKey);
            EXPECT_EQ(result.error.offset, ObjectOf(size).size());
        }
    }
    const JsonParseResult distinct = ParseJson(ObjectOf(1024), JsonLimits::Default());
    ASSERT_TRUE(distinct.Ok());
    EXPECT_EQ(distinct.value->Size(), 1024u);
    EXPECT_EQ(distinct.value->Members()[1023].Key(), "1023");
}

// Accepted texts.
TEST(JsonReaderAccepts, EveryEscapeDecodes)
{
    const JsonParseResult result = ParseJson(R"("\"\\\/\b\f\n\r\t\u0000\u001F\u00e9\u20AC\uD83D\uDE00\uDBFF\uDFFF")", JsonLimits::Default());
    ASSERT_TRUE(result.Ok()) << result.error.message;
    EXPECT_EQ(result.value->AsString(), "\"\\/\b\f\n\r\t\0\x1f\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"s);
}

TEST(JsonReaderAccepts, RawUtf8OfEveryLengthPassesThrough)
{
    const std::string text = "[\"A\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF\"]";
    const JsonParseResult result = ParseJson(text, JsonLimits::Default());
    ASSERT_TRUE(result.Ok()) << result.error.message;
    EXPECT_EQ(result.value->At(0).AsString(), text.substr(2, text.size() - 4));
}

TEST(JsonReaderAccepts, EscapesBetweenRunsDecodeInPlace)
{
    const JsonParseResult result = ParseJson(R"({"k\u00e9y": "one\ttwo\\three\u0021", "plain": "text"})", JsonLimits::Default());
    ASSERT_TRUE(result.Ok());
    EXPECT_EQ(result.value->Members()[0].Key(), "k\xC3\xA9y");
    EXPECT_EQ(result.value->Members()[0].Value().AsString(), "one\ttwo\\three!");
    EXPECT_EQ(result.value->Find("plain")->AsString(), "text");
}

struct NumberCase {
    const char* text;
    double value;
    std::optional<std::int64_t> integer;
    std::optional<std::uint64_t> unsignedValue;
};

TEST(JsonReaderAccepts, NumbersKeepTextAndExactValue)
{
    const NumberCase cases[] = {
        {"0", 0.0, 0, 0u},
        {"-0", -0.0, 0, std::nullopt},
        {"1E+2", 100.0, std::nullopt, std::nullopt},
        {"1e-2", 0.01, std::nullopt, std::nullopt},
        {"12.375", 12.375, std::nullopt, std::nullopt},
        {"0.1", 0.1, std::nullopt, std::nullopt},
        {"-4096", -4096.0, -4096, std::nullopt},
        {"-12.345", -12.345, std::nullopt, std::nullopt},
        {"-123.456", -123.456, std::nullopt, std::nullopt},
        {"1234567", 1234567.0, 1234567, 1234567u},
        {"12345678", 12345678.0, 12345678, 12345678u},
        {"1.0", 1.0, std::nullopt, std::nullopt},
        {"9007199254740993", 9007199254740992.0, 9007199254740993, 9007199254740993u},
        {"18446744073709551615", 18446744073709551615.0, std::nullopt, 18446744073709551615u},
        {"18446744073709551616", 18446744073709551616.0, std::nullopt, std::nullopt},
        {"-9223372036854775808", -9223372036854775808.0, INT64_MIN, std::nullopt},
        {"1.7976931348623157e308", 1.7976931348623157e308, std::nullopt, std::nullopt},
        {"4.9406564584124654e-324", 4.9406564584124654e-324, std::nullopt, std::nullopt},
        {"2.2250738585072011e-308", 2.2250738585072011e-308, std::nullopt, std::nullopt},
        {"123456789012345678901234567890", 1.2345678901234568e29, std::nullopt, std::nullopt},
        {"0.30000000000000004", 0.30000000000000004, std::nullopt, std::nullopt},
        {"1e400", HUGE_VAL, std::nullopt, std::nullopt},
        {"-1e400", -HUGE_VAL, std::nullopt, std::nullopt},
        {"0.0000001e-400", 0.0, std::nullopt, std::nullopt},
        {"0e999999999999", 0.0, std::nullopt, std::nullopt},
    };
    for (const NumberCase& number : cases) {
        // In an array the text ends in a bracket; alone it ends in the number itself.
        for (const bool alone : {false, true}) {
            const JsonParseResult result = ParseJson(alone ? std::string(number.text) : std::string("[") + number.text + "]",
                                                     JsonLimits::Default());
            ASSERT_TRUE(result.Ok()) << number.text << ": " << result.error.message;
            const JsonValue& value = alone ? *result.value : result.value->At(0);
            EXPECT_TRUE(value.IsNumber());
            EXPECT_EQ(value.NumberText(), number.text);
            EXPECT_EQ(value.AsDouble(), number.value) << number.text;
            EXPECT_EQ(std::signbit(value.AsDouble()), std::signbit(number.value)) << number.text;
            EXPECT_EQ(value.AsInteger(), number.integer) << number.text;
            EXPECT_EQ(value.AsUnsigned(), number.unsignedValue) << number.text;
        }
    }
}

TEST(JsonReaderAccepts, ScalarRootsAndWhitespace)
{
    EXPECT_TRUE(ParseJson(" \t\r\n null \t\r\n", JsonLimits::Default()).value->IsNull());
    EXPECT_TRUE(ParseJson("true", JsonLimits::Default()).value->AsBool());
    EXPECT_FALSE(ParseJson("false", JsonLimits::Default()).value->AsBool());
    EXPECT_EQ(ParseJson("\"\"", JsonLimits::Default()).value->AsString(), "");
    EXPECT_EQ(ParseJson("-12345678.25e-3", JsonLimits::Default()).value->NumberText(), "-12345678.25e-3");
    const JsonParseResult spaced = ParseJson("{ \"a\" :\n[ 1 ,\t2 ] ,\r\n\"b\" : { } }", JsonLimits::Default());
    ASSERT_TRUE(spaced.Ok());
    EXPECT_EQ(spaced.value->Find("a")->Size(), 2u);
    EXPECT_TRUE(spaced.value->Find("b")->IsObject());
}

TEST(JsonValueAccess, ReadsInDocumentOrderAndDefaultsForOtherTypes)
{
    const JsonParseResult result = ParseJson(R"({"z":[1,"two",null,true],"a":{},"m":[]})", JsonLimits::Default());
    ASSERT_TRUE(result.Ok());
    const JsonValue& root = *result.value;
    EXPECT_EQ(root.Type(), JsonType::object);
    std::vector<std::string_view> keys;
    for (const JsonMember& member : root.Members()) {
        keys.push_back(member.Key());
    }
    EXPECT_EQ(keys, (std::vector<std::string_view>{"z", "a", "m"}));
    const JsonValue& items = *root.Find("z");
    ASSERT_EQ(items.Items().size(), 4u);
    EXPECT_EQ(items.At(1).AsString(), "two");
    EXPECT_EQ(items.At(1).AsDouble(), 0.0);
    EXPECT_EQ(items.At(0).AsString(), "");
    EXPECT_FALSE(items.At(0).AsBool());
    EXPECT_TRUE(items.At(2).IsNull());
    EXPECT_TRUE(items.At(3).AsBool());
    EXPECT_EQ(root.Find("missing"), nullptr);
    EXPECT_EQ(items.Find("z"), nullptr);
    EXPECT_TRUE(items.Members().empty());
    EXPECT_TRUE(root.Items().empty());
    EXPECT_EQ(root.Find("a")->Size(), 0u);
    EXPECT_TRUE(root.Find("m")->Items().empty());
    EXPECT_EQ(items.At(0).Size(), 0u);
    EXPECT_TRUE(JsonValue().IsNull());
}

TEST(JsonValueAccess, CopiesOutliveTheirSource)
{
    JsonValue member;
    JsonValue number;
    JsonValue text;
    {
        JsonParseResult result = ParseJson(R"({"list":[{"deep":"value","n":123456789.125}],"s":"kept"})", JsonLimits::Default());
        ASSERT_TRUE(result.Ok());
        member = result.value->Find("list")->At(0);
        number = *member.Find("n");
        text = *result.value->Find("s");
        JsonValue moved = std::move(*result.value);
        EXPECT_TRUE(result.value->IsNull());
        EXPECT_EQ(moved.Find("s")->AsString(), "kept");
    }
    EXPECT_EQ(member.Find("deep")->AsString(), "value");
    EXPECT_EQ(number.NumberText(), "123456789.125");
    EXPECT_EQ(number.AsDouble(), 123456789.125);
    EXPECT_EQ(text.AsString(), "kept");
    const JsonValue copy = member;
    EXPECT_EQ(copy, member);
}

TEST(JsonValueAccess, EqualityComparesContent)
{
    const auto parse = [](const char* text) { return *ParseJson(text, JsonLimits::Default()).value; };
    EXPECT_EQ(parse(R"({"a":1,"b":[true,null,"x"]})"), parse(R"({"b":[true,null,"x"],"a":1.0})"));
    EXPECT_EQ(parse("100"), parse("1e2"));
    EXPECT_NE(parse("9007199254740993"), parse("9007199254740992"));
    EXPECT_NE(parse("[1,2]"), parse("[2,1]"));
    EXPECT_NE(parse(R"({"a":1})"), parse(R"({"b":1})"));
    EXPECT_NE(parse(R"({"a":1})"), parse(R"({"a":1,"b":2})"));
    EXPECT_NE(parse("\"1\""), parse("1"));
    EXPECT_NE(parse("true"), parse("false"));
}

}  // namespace
}  // namespace korv::core
