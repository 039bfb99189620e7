#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korv::providers {

inline constexpr std::size_t kNetDevLimit = 4194304;

// The counters of one interface line of /proc/net/dev that the network rows use.
struct NetDevRow {
    std::string name;
    std::uint64_t receiveBytes = 0;
    std::uint64_t receivePackets = 0;
    std::uint64_t transmitBytes = 0;
    std::uint64_t transmitPackets = 0;
};

// Parses "name: c0 c1 ... c15"; nullopt without a colon, an empty name, fewer than sixteen
// counters or a counter that is not a number.
std::optional<NetDevRow> ParseNetDevLine(std::string_view line);

// Every interface line that parses after the two header lines, in file order; rows is cleared
// first and keeps its capacity.
void ParseNetDev(std::string_view text, std::vector<NetDevRow>& rows);

}  // namespace korv::providers
