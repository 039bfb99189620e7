#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// Byte-level helpers of the JSON reader and writer.
namespace korv::core::json_scan {

constexpr bool IsDigit(char c) noexcept
{
    return static_cast<unsigned char>(c - '0') < 10;
}

constexpr bool IsSpace(char c) noexcept
{
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

// Bytes that need no attention inside a string: printable ASCII except quote and backslash.
inline constexpr std::array<bool, 256> plainStringBytes = [] {
    std::array<bool, 256> table{};
    for (int byte = 0x20; byte < 0x80; ++byte) {
        table[static_cast<std::size_t>(byte)] = byte != '"' && byte != '\\';
    }
    return table;
}();

inline constexpr std::array<double, 23> exactPowersOfTen = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                            1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                                            1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

constexpr int HexDigit(char c) noexcept
{
    if (IsDigit(c)) {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

constexpr std::size_t Utf8Length(std::uint32_t codePoint) noexcept
{
    return codePoint < 0x80 ? 1 : codePoint < 0x800 ? 2 : codePoint < 0x10000 ? 3 : 4;
}

inline char* EncodeUtf8(char* out, std::uint32_t codePoint) noexcept
{
    if (codePoint < 0x80) {
        *out++ = static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        *out++ = static_cast<char>(0xC0 | (codePoint >> 6));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        *out++ = static_cast<char>(0xE0 | (codePoint >> 12));
        *out++ = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else {
        *out++ = static_cast<char>(0xF0 | (codePoint >> 18));
        *out++ = static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
        *out++ = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    }
    return out;
}

// Length of the well-formed UTF-8 sequence at text (lead byte >= 0x80), or 0. Overlong forms,
// UTF-16 surrogates and code points above U+10FFFF are refused. Reads four bytes, which the
// caller makes readable; a zero byte is no continuation byte.
inline std::size_t Utf8SequenceLength(const unsigned char* text) noexcept
{
    const unsigned char lead = text[0];
    const auto continuation = [](unsigned char byte) { return (byte & 0xC0) == 0x80; };
    if (lead >= 0xC2 && lead <= 0xDF) {
        return continuation(text[1]) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
        return text[1] >= low && text[1] <= high && continuation(text[2]) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
        return text[1] >= low && text[1] <= high && continuation(text[2]) && continuation(text[3]) ? 4 : 0;
    }
    return 0;
}

// The double of a number text that the grammar accepted, by std::from_chars; magnitudes beyond
// the double range give +-infinity, those below it +-0.
double ConvertNumberSlowly(std::string_view text) noexcept;

// significand holds the first digits of the number (integer part, then fraction) and digits their
// count; the value is significand * 10^exponent. Exact: short decimals take one correctly rounded
// operation on exact operands, all others the slow path.
inline double ConvertNumber(std::string_view text, bool negative, std::uint64_t significand, std::int64_t digits,
                            std::int64_t exponent) noexcept
{
    if (digits <= 19 && significand <= (std::uint64_t{1} << 53) && exponent >= -22 && exponent <= 22) {
        double value = static_cast<double>(significand);
        value = exponent < 0 ? value / exactPowersOfTen[static_cast<std::size_t>(-exponent)]
                             : value * exactPowersOfTen[static_cast<std::size_t>(exponent)];
        return negative ? -value : value;
    }
    return ConvertNumberSlowly(text);
}

// Writes value exactly as std::to_chars(first, last, value) would (shortest round trip; fixed
// unless scientific is shorter), short decimals without the general algorithm. Returns the end of
// the text, or nullptr when it does not fit. value must be finite.
char* FormatDouble(char* first, char* last, double value) noexcept;

}  // namespace korv::core::json_scan
