#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korv::providers {

inline constexpr std::size_t kDiskStatsLimit = 8388608;

// One line of /proc/diskstats. Sectors are 512 bytes whatever the device's block size.
struct DiskStatsRow {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::string name;
    std::uint64_t readsCompleted = 0;
    std::uint64_t sectorsRead = 0;
    std::uint64_t readMillis = 0;
    std::uint64_t writesCompleted = 0;
    std::uint64_t sectorsWritten = 0;
    std::uint64_t writeMillis = 0;
    std::uint64_t ioTicksMillis = 0;
};

// Parses one line; nullopt for fewer than fourteen fields or a field that is not a number.
std::optional<DiskStatsRow> ParseDiskStatsLine(std::string_view line);

// Every line that parses, in file order; rows is cleared first and keeps its capacity.
void ParseDiskStats(std::string_view text, std::vector<DiskStatsRow>& rows);

}  // namespace korv::providers
