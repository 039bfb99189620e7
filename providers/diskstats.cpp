#include "providers/diskstats.h"

#include <array>
#include <charconv>
#include <utility>

namespace korv::providers {
namespace {

bool IsSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

template <typename T>
bool ParseWhole(std::string_view text, T& out) noexcept {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc{} && end == text.data() + text.size();
}

}  // namespace

std::optional<DiskStatsRow> ParseDiskStatsLine(std::string_view line) {
    // Kernels since 4.18 add discard and flush columns; only the first fourteen are read.
    constexpr std::size_t kWanted = 14;
    std::array<std::string_view, kWanted> fields;
    std::size_t count = 0;
    std::size_t pos = 0;
    while (count < kWanted) {
        while (pos < line.size() && IsSpace(line[pos])) ++pos;
        if (pos >= line.size()) break;
        const std::size_t start = pos;
        while (pos < line.size() && !IsSpace(line[pos])) ++pos;
        fields[count++] = line.substr(start, pos - start);
    }
    if (count < kWanted) return std::nullopt;

    DiskStatsRow row;
    // fields 3, 5, 6: reads completed, sectors read, ms reading; 7, 9, 10: the same for writes;
    // 12: ms with at least one request in flight (io_ticks).
    if (!ParseWhole(fields[0], row.major) || !ParseWhole(fields[1], row.minor) ||
        !ParseWhole(fields[3], row.readsCompleted) || !ParseWhole(fields[5], row.sectorsRead) ||
        !ParseWhole(fields[6], row.readMillis) || !ParseWhole(fields[7], row.writesCompleted) ||
        !ParseWhole(fields[9], row.sectorsWritten) || !ParseWhole(fields[10], row.writeMillis) ||
        !ParseWhole(fields[12], row.ioTicksMillis)) {
        return std::nullopt;
    }
    row.name.assign(fields[2]);
    return row;
}

void ParseDiskStats(std::string_view text, std::vector<DiskStatsRow>& rows) {
    rows.clear();
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        if (auto row = ParseDiskStatsLine(text.substr(pos, end - pos))) rows.push_back(std::move(*row));
        pos = end + 1;
    }
}

}  // namespace korv::providers
