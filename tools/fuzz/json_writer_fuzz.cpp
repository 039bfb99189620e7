// Writes arbitrary bytes as keys and strings. Whatever goes in, the document must parse with the
// program's own reader; UTF-8 text must come back unchanged, and a refusing writer must refuse
// exactly the text that is not UTF-8.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "core/json.h"

namespace {

using korv::core::InvalidUtf8;
using korv::core::JsonLimits;
using korv::core::JsonWriter;
using korv::core::JsonWriterError;

[[noreturn]] void Fail(const char* what)
{
    std::fprintf(stderr, "json_writer_fuzz: %s\n", what);
    std::abort();
}

// The input as length-prefixed pieces: one byte of length, then up to that many bytes.
std::vector<std::string_view> Pieces(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::string_view> pieces;
    std::size_t at = 0;
    while (at < size) {
        const std::size_t length = std::min<std::size_t>(data[at], size - at - 1);
        pieces.emplace_back(reinterpret_cast<const char*>(data) + at + 1, length);
        at += 1 + length;
    }
    return pieces;
}

// A key made unique by its index, which replacement characters cannot make equal to another.
std::string KeyFor(std::size_t index, std::string_view piece)
{
    return std::to_string(index) + ":" + std::string(piece);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::vector<std::string_view> pieces = Pieces(data, size);
    JsonWriter writer(size % 2 == 0);
    JsonWriter refusing(false, InvalidUtf8::refuse);
    writer.BeginObject();
    refusing.BeginObject();
    std::vector<bool> refused;
    for (std::size_t index = 0; index < pieces.size(); ++index) {
        writer.Key(KeyFor(index, pieces[index]));
        writer.String(pieces[index]);
        try {
            refusing.Key(KeyFor(index, pieces[index]));
            refusing.String(pieces[index]);
            refused.push_back(false);
        } catch (const JsonWriterError&) {
            refused.push_back(true);
            refusing.Key(KeyFor(index, {}));
            refusing.Null();
        }
    }
    writer.EndObject();
    refusing.EndObject();

    const std::uint64_t count = pieces.size() + 1;
    const JsonLimits limits{4, count, count, count, 1 << 20, 64};
    const auto parsed = korv::core::ParseJson(writer.Finish(), limits);
    if (!parsed.Ok()) {
        std::fprintf(stderr, "reader: %s\n", parsed.error.message.c_str());
        Fail("written document does not parse");
    }
    const auto strict = korv::core::ParseJson(refusing.Finish(), limits);
    if (!strict.Ok()) {
        Fail("refusing writer's document does not parse");
    }
    const auto members = parsed.value->Members();
    const auto strictMembers = strict.value->Members();
    if (members.size() != pieces.size() || strictMembers.size() != pieces.size()) {
        Fail("member count changed");
    }
    for (std::size_t index = 0; index < pieces.size(); ++index) {
        const bool sameBack = members[index].Value().AsString() == pieces[index] &&
                              members[index].Key() == KeyFor(index, pieces[index]);
        if (sameBack == refused[index]) {
            Fail(refused[index] ? "refused text came back unchanged" : "accepted text came back changed");
        }
        if (!refused[index] && strictMembers[index].Value().AsString() != pieces[index]) {
            Fail("refusing writer changed accepted text");
        }
    }
    return 0;
}
