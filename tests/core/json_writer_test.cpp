#include "core/json.h"

#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <cstring>
#include <string>
#include <vector>

namespace korv::core {
namespace {

using namespace std::string_literals;

struct MisuseCase {
    const char* name;
    std::function<void(JsonWriter&)> calls;
    const char* message;
};

void PrintTo(const MisuseCase& misuse, std::ostream* out)
{
    *out << misuse.name;
}

class JsonWriterMisuseTest : public ::testing::TestWithParam<MisuseCase> {};

TEST_P(JsonWriterMisuseTest, ThrowsWithMessage)
{
    JsonWriter writer;
    try {
        GetParam().calls(writer);
        FAIL() << "no exception";
    } catch (const JsonWriterError& error) {
        EXPECT_STREQ(error.what(), GetParam().message);
    }
}

const MisuseCase misuseCases[] = {
    {"keyAtRoot", [](JsonWriter& w) { w.Key("a"); }, "JSON key outside object"},
    {"keyInArray", [](JsonWriter& w) { w.BeginArray(); w.Key("a"); }, "JSON key outside object"},
    {"keyAfterKey", [](JsonWriter& w) { w.BeginObject(); w.Key("a"); w.Key("b"); }, "JSON key outside object"},
    {"keyAfterRoot", [](JsonWriter& w) { w.BeginObject(); w.EndObject(); w.Key("a"); }, "JSON key outside object"},
    {"valueWithoutKey", [](JsonWriter& w) { w.BeginObject(); w.Integer(1); }, "JSON object value without key"},
    {"secondValueForKey", [](JsonWriter& w) { w.BeginObject(); w.Key("a"); w.Null(); w.String("x"); }, "JSON object value without key"},
    {"arrayWithoutKey", [](JsonWriter& w) { w.BeginObject(); w.BeginArray(); }, "JSON object value without key"},
    {"rawWithoutKey", [](JsonWriter& w) { w.BeginObject(); w.Raw("[1]"); }, "JSON object value without key"},
    {"secondScalarRoot", [](JsonWriter& w) { w.Bool(true); w.Bool(false); }, "multiple JSON root values"},
    {"secondContainerRoot", [](JsonWriter& w) { w.BeginArray(); w.EndArray(); w.BeginObject(); }, "multiple JSON root values"},
    {"rawAfterRoot", [](JsonWriter& w) { w.Raw("{}"); w.Unsigned(1); }, "multiple JSON root values"},
    {"endObjectAtRoot", [](JsonWriter& w) { w.EndObject(); }, "invalid JSON object writer state"},
    {"endObjectInArray", [](JsonWriter& w) { w.BeginArray(); w.EndObject(); }, "invalid JSON object writer state"},
    {"endObjectAfterKey", [](JsonWriter& w) { w.BeginObject(); w.Key("a"); w.EndObject(); }, "invalid JSON object writer state"},
    {"endObjectTwice", [](JsonWriter& w) { w.BeginObject(); w.EndObject(); w.EndObject(); }, "invalid JSON object writer state"},
    {"endArrayAtRoot", [](JsonWriter& w) { w.EndArray(); }, "invalid JSON array writer state"},
    {"endArrayInObject", [](JsonWriter& w) { w.BeginObject(); w.EndArray(); }, "invalid JSON array writer state"},
    {"endArrayAfterKey", [](JsonWriter& w) { w.BeginObject(); w.Key("a"); w.EndArray(); }, "invalid JSON array writer state"},
    {"finishEmpty", [](JsonWriter& w) { w.Finish(); }, "unfinished JSON document"},
    {"finishOpenArray", [](JsonWriter& w) { w.BeginArray(); w.Finish(); }, "unfinished JSON document"},
    {"finishOpenObject", [](JsonWriter& w) { w.BeginObject(); w.Key("a"); w.Null(); w.Finish(); }, "unfinished JSON document"},
    {"finishTwice", [](JsonWriter& w) { w.Null(); w.Finish(); w.Finish(); }, "unfinished JSON document"},
    {"notANumber", [](JsonWriter& w) { w.Double(std::nan("")); }, "JSON number must be finite"},
    {"infinity", [](JsonWriter& w) { w.Double(std::numeric_limits<double>::infinity()); }, "JSON number must be finite"},
    {"negativeInfinity", [](JsonWriter& w) { w.BeginArray(); w.Double(-HUGE_VAL); }, "JSON number must be finite"},
};

INSTANTIATE_TEST_SUITE_P(Table, JsonWriterMisuseTest, ::testing::ValuesIn(misuseCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(JsonWriter, RefusedCallLeavesTheDocumentUsable)
{
    JsonWriter writer;
    writer.BeginObject();
    EXPECT_THROW(writer.String("no key"), JsonWriterError);
    EXPECT_THROW(writer.EndArray(), JsonWriterError);
    writer.Key("n");
    EXPECT_THROW(writer.Double(std::nan("")), JsonWriterError);
    writer.Double(0.5);
    writer.EndObject();
    EXPECT_EQ(writer.Finish(), R"({"n":0.5})");
    // Finish leaves the writer ready for the next document.
    writer.BeginArray();
    writer.EndArray();
    EXPECT_EQ(writer.Finish(), "[]");
}

TEST(JsonWriter, WritesCompactText)
{
    JsonWriter writer;
    writer.Reserve(256);
    writer.BeginObject();
    writer.Key("list");
    writer.BeginArray();
    writer.Integer(std::numeric_limits<std::int64_t>::min());
    writer.Unsigned(std::numeric_limits<std::uint64_t>::max());
    writer.Double(-0.0);
    writer.Double(1e21);
    writer.Bool(true);
    writer.Null();
    writer.BeginObject();
    writer.EndObject();
    writer.BeginArray();
    writer.EndArray();
    writer.Raw(R"({"kept":[1,2]})");
    writer.EndArray();
    writer.Key("");
    writer.String("");
    writer.EndObject();
    EXPECT_EQ(writer.Finish(),
              R"({"list":[-9223372036854775808,18446744073709551615,-0,1e+21,true,null,{},[],{"kept":[1,2]}],"":""})");
}

TEST(JsonWriter, IndentsTwoSpacesPerLevel)
{
    JsonWriter writer(true);
    writer.BeginObject();
    writer.Key("name");
    writer.String("KORV");
    writer.Key("rates");
    writer.BeginArray();
    writer.Integer(250);
    writer.BeginObject();
    writer.Key("x");
    writer.Bool(false);
    writer.EndObject();
    writer.EndArray();
    writer.Key("empty");
    writer.BeginArray();
    writer.EndArray();
    writer.Key("none");
    writer.BeginObject();
    writer.EndObject();
    writer.EndObject();
    EXPECT_EQ(writer.Finish(), "{\n"
                               "  \"name\": \"KORV\",\n"
                               "  \"rates\": [\n"
                               "    250,\n"
                               "    {\n"
                               "      \"x\": false\n"
                               "    }\n"
                               "  ],\n"
                               "  \"empty\": [],\n"
                               "  \"none\": {}\n"
                               "}");
}

std::string Written(std::string_view text)
{
    JsonWriter writer;
    writer.String(text);
    return writer.Finish();
}

TEST(JsonWriter, EscapesControlCharactersQuoteAndBackslash)
{
    const char* const expected[32] = {"\\u0000", "\\u0001", "\\u0002", "\\u0003", "\\u0004", "\\u0005", "\\u0006", "\\u0007",
                                      "\\b",     "\\t",     "\\n",     "\\u000b", "\\f",     "\\r",     "\\u000e", "\\u000f",
                                      "\\u0010", "\\u0011", "\\u0012", "\\u0013", "\\u0014", "\\u0015", "\\u0016", "\\u0017",
                                      "\\u0018", "\\u0019", "\\u001a", "\\u001b", "\\u001c", "\\u001d", "\\u001e", "\\u001f"};
    for (int byte = 0; byte < 32; ++byte) {
        EXPECT_EQ(Written(std::string(1, static_cast<char>(byte))), "\"" + std::string(expected[byte]) + "\"") << byte;
    }
    EXPECT_EQ(Written("say \"hi\" \\ /"), R"("say \"hi\" \\ /")");
    EXPECT_EQ(Written("\x7f caf\xC3\xA9 \xF0\x9F\x98\x80"), "\"\x7f caf\xC3\xA9 \xF0\x9F\x98\x80\"");
    JsonWriter keyWriter;
    keyWriter.BeginObject();
    keyWriter.Key("a\nb");
    keyWriter.Null();
    keyWriter.EndObject();
    EXPECT_EQ(keyWriter.Finish(), R"({"a\nb":null})");
}

TEST(JsonWriter, DoublesMatchShortestRoundTrip)
{
    std::mt19937_64 random(7);
    std::vector<double> values = {0.0, -0.0, 0.1, 12.375, 4096.0, -0.5, 1.0e-3, 1e-4, 1.5e-4, 1e5, 1e4, 123456.789, 1e15, 1e16,
                                  5e-324, 1.7976931348623157e308, 2.2250738585072014e-308, 99999999999.9999, 0.30000000000000004};
    for (int index = 0; index < 20000; ++index) {
        const double decimal = static_cast<double>(random() % 100000000) / std::pow(10.0, static_cast<double>(random() % 8));
        values.push_back(index % 2 == 0 ? decimal : -decimal);
        const std::uint64_t bits = random();
        double anyBits = 0;
        std::memcpy(&anyBits, &bits, sizeof anyBits);
        if (std::isfinite(anyBits)) {
            values.push_back(anyBits);
        }
    }
    for (const double value : values) {
        char buffer[64];
        const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
        ASSERT_EQ(error, std::errc());
        JsonWriter writer;
        writer.Double(value);
        const std::string text = writer.Finish();
        ASSERT_EQ(text, std::string(buffer, end)) << value;
        const JsonParseResult parsed = ParseJson(text, JsonLimits::Default());
        ASSERT_TRUE(parsed.Ok()) << text;
        ASSERT_EQ(std::bit_cast<std::uint64_t>(parsed.value->AsDouble()), std::bit_cast<std::uint64_t>(value)) << text;
    }
}

TEST(JsonRoundTrip, StringsWithEveryControlCharacterAndNonAscii)
{
    std::string text;
    for (int byte = 0; byte < 0x80; ++byte) {
        text.push_back(static_cast<char>(byte));
    }
    text += "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF\xEF\xBF\xBF";
    JsonWriter writer(true);
    writer.BeginObject();
    writer.Key(text);
    writer.BeginArray();
    writer.String(text);
    writer.EndArray();
    writer.EndObject();
    const std::string document = writer.Finish();
    const JsonParseResult parsed = ParseJson(document, JsonLimits::Default());
    ASSERT_TRUE(parsed.Ok()) << parsed.error.message;
    EXPECT_EQ(parsed.value->Members()[0].Key(), text);
    EXPECT_EQ(parsed.value->Members()[0].Value().At(0).AsString(), text);
}

TEST(JsonRoundTrip, BytesThatAreNotUtf8BecomeReplacementCharactersTheReaderAccepts)
{
    const std::string replacement = "\xEF\xBF\xBD";
    struct Case {
        const char* name;
        std::string bytes;
        std::string readBack;
    };
    const Case cases[] = {
        {"lone continuation byte", "a\x80z", "a" + replacement + "z"},
        {"Latin-1 name", "j\xF6rg", "j" + replacement + "rg"},
        {"cut-off sequence at the end", "caf\xC3", "caf" + replacement},
        {"cut-off three-byte sequence", "\xE2\x82", replacement + replacement},
        {"overlong slash", "\xC0\xAF", replacement + replacement},
        {"UTF-16 surrogate", "\xED\xA0\x80", replacement + replacement + replacement},
        {"above U+10FFFF", "\xF4\x90\x80\x80", replacement + replacement + replacement + replacement},
        {"0xFF byte", "\xFF", replacement},
        {"valid text around a bad byte", "\xC3\xA9\xFE\xF0\x9F\x98\x80", "\xC3\xA9" + replacement + "\xF0\x9F\x98\x80"},
    };
    for (const Case& c : cases) {
        JsonWriter writer;
        writer.BeginObject();
        writer.Key(c.bytes);
        writer.String(c.bytes);
        writer.EndObject();
        const std::string document = writer.Finish();
        const JsonParseResult parsed = ParseJson(document, JsonLimits::Default());
        ASSERT_TRUE(parsed.Ok()) << c.name << ": " << parsed.error.message;
        EXPECT_EQ(parsed.value->Members()[0].Key(), c.readBack) << c.name;
        EXPECT_EQ(parsed.value->Members()[0].Value().AsString(), c.readBack) << c.name;
    }
}

TEST(JsonWriter, RefusingWriterThrowsOnTextThatIsNotUtf8AndStaysUsable)
{
    JsonWriter writer(false, InvalidUtf8::refuse);
    writer.BeginObject();
    writer.Key("name");
    writer.String("caf\xC3\xA9");
    for (const std::string& bad : {"caf\xE9"s, "\xC3"s, "\xED\xA0\x80"s}) {
        try {
            writer.Key(bad);
            ADD_FAILURE() << "key accepted";
        } catch (const JsonWriterError& error) {
            EXPECT_STREQ(error.what(), "invalid UTF-8 in string");
        }
    }
    writer.Key("other");
    try {
        writer.String("j\xF6rg");
        ADD_FAILURE() << "string accepted";
    } catch (const JsonWriterError& error) {
        EXPECT_STREQ(error.what(), "invalid UTF-8 in string");
    }
    writer.String("ok");
    writer.EndObject();
    EXPECT_EQ(writer.Finish(), "{\"name\":\"caf\xC3\xA9\",\"other\":\"ok\"}");
}

TEST(JsonRoundTrip, SerializeKeepsNumberTextAndOrder)
{
    const std::string compact =
        R"({"z":[1E+2,-0,0.10,18446744073709551616,1e400,null,true,false],"a":{"nested":{"s":"\u00e9\"\\"}},"e":[],"o":{}})";
    const JsonParseResult parsed = ParseJson(compact, JsonLimits::Default());
    ASSERT_TRUE(parsed.Ok());
    const std::string serialized = SerializeJson(*parsed.value);
    EXPECT_EQ(serialized, R"({"z":[1E+2,-0,0.10,18446744073709551616,1e400,null,true,false],"a":{"nested":{"s":"é\"\\"}},"e":[],"o":{}})");
    const JsonParseResult again = ParseJson(serialized, JsonLimits::Default());
    ASSERT_TRUE(again.Ok());
    EXPECT_EQ(*again.value, *parsed.value);
    EXPECT_EQ(SerializeJson(*again.value), serialized);
}

TEST(JsonRoundTrip, ScalarRoots)
{
    for (const char* text : {"null", "true", "false", "\"x\"", "-12.5e-3", "123456789012345678901234567890"}) {
        const JsonParseResult parsed = ParseJson(text, JsonLimits::Default());
        ASSERT_TRUE(parsed.Ok()) << text;
        EXPECT_EQ(SerializeJson(*parsed.value), text);
    }
}

}  // namespace
}  // namespace korv::core
