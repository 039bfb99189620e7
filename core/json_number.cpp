#include "core/json_scan.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace korv::core::json_scan {
namespace {

// For a number that std::from_chars finds out of range: whether its magnitude is above one
// (an overflow) rather than below (an underflow).
bool MagnitudeAboveOne(std::string_view text) noexcept
{
    std::size_t index = text.front() == '-' ? 1 : 0;
    const bool integerPartIsZero = text[index] == '0';
    std::int64_t integerDigits = 0;
    while (index < text.size() && IsDigit(text[index])) {
        ++integerDigits;
        ++index;
    }
    // Power of ten of the first significant digit.
    std::int64_t firstDigitPower = integerPartIsZero ? -1 : integerDigits - 1;
    if (integerPartIsZero && index < text.size() && text[index] == '.') {
        ++index;
        while (index < text.size() && text[index] == '0') {
            --firstDigitPower;
            ++index;
        }
    }
    while (index < text.size() && text[index] != 'e' && text[index] != 'E') {
        ++index;
    }
    std::int64_t exponent = 0;
    if (index < text.size()) {
        ++index;
        const bool negative = text[index] == '-';
        if (text[index] == '+' || text[index] == '-') {
            ++index;
        }
        while (index < text.size()) {
            exponent = std::min<std::int64_t>(exponent * 10 + (text[index] - '0'), std::int64_t{1} << 40);
            ++index;
        }
        if (negative) {
            exponent = -exponent;
        }
    }
    return firstDigitPower + exponent >= 0;
}

std::size_t DecimalDigits(std::uint64_t value) noexcept
{
    std::size_t digits = 1;
    while (value >= 10) {
        value /= 10;
        ++digits;
    }
    return digits;
}

// For a magnitude m / 10^fractionDigits that is the nearest double to that decimal, with the
// fewest fraction digits: writes the fixed form when it is not longer than the scientific one,
// else returns nullptr.
char* FormatShortDecimal(char* first, char* last, bool negative, std::uint64_t m, std::size_t fractionDigits) noexcept
{
    const std::size_t digits = DecimalDigits(m);
    std::size_t fixedLength = digits;
    std::size_t significant = digits;
    if (fractionDigits == 0) {
        for (std::uint64_t rest = m; rest != 0 && rest % 10 == 0; rest /= 10) {
            --significant;
        }
    } else {
        fixedLength = digits > fractionDigits ? digits + 1 : fractionDigits + 2;
    }
    // Scientific: the digits, a point after the first of several, and an exponent such as "e+05".
    const std::size_t scientificLength = significant + (significant > 1 ? 1 : 0) + 4;
    const std::size_t total = fixedLength + (negative ? 1 : 0);
    if ((m != 0 && fixedLength > scientificLength) || static_cast<std::size_t>(last - first) < total) {
        return nullptr;  // the caller falls back to std::to_chars
    }
    char* out = first + total;
    char* write = out;
    for (std::size_t index = 0; index < fixedLength; ++index) {
        if (fractionDigits != 0 && index == fractionDigits) {
            *--write = '.';
            continue;
        }
        *--write = static_cast<char>('0' + m % 10);
        m /= 10;
    }
    if (negative) {
        *--write = '-';
    }
    return out;
}

}  // namespace

char* FormatDouble(char* first, char* last, double value) noexcept
{
    static constexpr double powers[] = {1, 10, 100, 1000, 10000};
    const double magnitude = std::fabs(value);
    // Below 1e11 with at most four fraction digits, magnitude * 10^k stays under 2^52, so the
    // rounded product is the one candidate decimal with k fraction digits and the test is exact.
    if (magnitude < 1e11 && (magnitude >= 1e-4 || magnitude == 0)) {
        for (std::size_t fractionDigits = 0; fractionDigits < std::size(powers); ++fractionDigits) {
            // Adding and taking away 2^52 rounds a smaller magnitude to an integer.
            constexpr double roundingShift = 4503599627370496.0;
            const double scaled = (magnitude * powers[fractionDigits] + roundingShift) - roundingShift;
            if (scaled / powers[fractionDigits] == magnitude) {
                char* end = FormatShortDecimal(first, last, std::signbit(value), static_cast<std::uint64_t>(scaled), fractionDigits);
                if (end != nullptr) {
                    return end;
                }
                break;
            }
        }
    }
    const auto [end, error] = std::to_chars(first, last, value);
    return error == std::errc() ? end : nullptr;
}

double ConvertNumberSlowly(std::string_view text) noexcept
{
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::result_out_of_range) {
        value = MagnitudeAboveOne(text) ? std::numeric_limits<double>::infinity() : 0.0;
        if (text.front() == '-') {
            value = -value;
        }
    }
    return value;
}

}  // namespace korv::core::json_scan
