#include "providers/process_status.h"

#include <array>
#include <charconv>
#include <limits>
#include <system_error>

namespace korv::providers {
namespace {

bool IsBlank(char c) noexcept { return c == ' ' || c == '\t' || c == '\r'; }

std::string_view Trim(std::string_view text) noexcept {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
    return text;
}

std::optional<std::uint64_t> FirstNumber(std::string_view value) noexcept {
    std::uint64_t number = 0;
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (ec == std::errc::result_out_of_range) return std::numeric_limits<std::uint64_t>::max();
    if (ec != std::errc{} || end == value.data()) return std::nullopt;
    // "12kB" is not a number followed by a unit word; require a separator or the end.
    if (end != value.data() + value.size() && !IsBlank(*end)) return std::nullopt;
    return number;
}

template <std::size_t N>
void ScanKeyValues(std::string_view text, const std::array<std::string_view, N>& keys,
                   const std::array<std::optional<std::uint64_t>*, N>& out) noexcept {
    std::array<bool, N> seen{};
    std::size_t found = 0;
    while (!text.empty() && found < N) {
        const std::size_t newline = text.find('\n');
        const std::string_view line = text.substr(0, newline);
        text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);

        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view key = Trim(line.substr(0, colon));
        for (std::size_t i = 0; i < N; ++i) {
            if (key != keys[i]) continue;
            if (!seen[i]) {
                seen[i] = true;
                *out[i] = FirstNumber(Trim(line.substr(colon + 1)));
                ++found;
            }
            break;
        }
    }
}

}  // namespace

ParsedProcStatus ParseProcPidStatus(std::string_view text) noexcept {
    static constexpr std::array<std::string_view, 7> kKeys = {"Uid",     "VmRSS",   "VmHWM",   "RssAnon",
                                                              "RssFile", "RssShmem", "VmSwap"};
    ParsedProcStatus status;
    ScanKeyValues(text, kKeys,
                  {&status.uid, &status.vmRssKib, &status.vmHwmKib, &status.rssAnonKib, &status.rssFileKib,
                   &status.rssShmemKib, &status.vmSwapKib});
    return status;
}

ProcIoParse ParseProcPidIo(std::string_view text) noexcept {
    static constexpr std::array<std::string_view, 4> kKeys = {"syscr", "syscw", "read_bytes", "write_bytes"};
    ProcIoParse result;
    if (text.empty()) {
        result.error = kEmptyIoError;
        return result;
    }
    ScanKeyValues(text, kKeys, {&result.io.syscr, &result.io.syscw, &result.io.readBytes, &result.io.writeBytes});
    return result;
}

}  // namespace korv::providers
