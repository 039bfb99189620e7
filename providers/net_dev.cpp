#include "providers/net_dev.h"

#include <charconv>
#include <utility>

namespace korv::providers {
namespace {

bool IsSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

}  // namespace

std::optional<NetDevRow> ParseNetDevLine(std::string_view line) {
    // The kernel prints "%6s:%8llu": a long first counter touches the colon, and interface names
    // cannot hold one, so the last colon ends the name.
    const std::size_t colon = line.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string_view name = line.substr(0, colon);
    while (!name.empty() && IsSpace(name.front())) name.remove_prefix(1);
    while (!name.empty() && IsSpace(name.back())) name.remove_suffix(1);
    if (name.empty()) return std::nullopt;

    constexpr std::size_t kCounters = 16;
    std::uint64_t counters[kCounters] = {};
    std::size_t count = 0;
    std::size_t pos = colon + 1;
    while (count < kCounters) {
        while (pos < line.size() && IsSpace(line[pos])) ++pos;
        if (pos >= line.size()) break;
        const std::size_t start = pos;
        while (pos < line.size() && !IsSpace(line[pos])) ++pos;
        const auto [end, ec] = std::from_chars(line.data() + start, line.data() + pos, counters[count]);
        if (ec != std::errc{} || end != line.data() + pos) return std::nullopt;
        ++count;
    }
    if (count < kCounters) return std::nullopt;

    NetDevRow row;
    row.name.assign(name);
    // receive: 0 bytes, 1 packets; transmit: 8 bytes, 9 packets
    row.receiveBytes = counters[0];
    row.receivePackets = counters[1];
    row.transmitBytes = counters[8];
    row.transmitPackets = counters[9];
    return row;
}

void ParseNetDev(std::string_view text, std::vector<NetDevRow>& rows) {
    rows.clear();
    std::size_t pos = 0;
    std::size_t lineNumber = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        if (lineNumber++ >= 2) {
            if (auto row = ParseNetDevLine(text.substr(pos, end - pos))) rows.push_back(std::move(*row));
        }
        pos = end + 1;
    }
}

}  // namespace korv::providers
