#pragma once

#include "core/snapshot.h"
#include "providers/provider_context.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korv::providers {

inline constexpr std::size_t kLoadAverageLimit = 4096;
inline constexpr std::size_t kOsReleaseLimit = 262144;
inline constexpr std::size_t kKernelValueLimit = 4096;
inline constexpr std::string_view kDefaultSystemModel = "Linux PC";

// "0.52 0.58 0.59 3/812 12345": three load averages, then running/total scheduling entities.
struct LoadAverage {
    double one = 0.0;
    double five = 0.0;
    double fifteen = 0.0;
    std::uint64_t running = 0;
    std::uint64_t total = 0;
};

std::optional<LoadAverage> ParseLoadAverage(std::string_view text);

// PRETTY_NAME, else NAME; VERSION_ID, else VERSION; outer quotes removed. Empty when absent.
struct OsRelease {
    std::string distribution;
    std::string version;
};

OsRelease ParseOsRelease(std::string_view text);

// Load, task counts, distribution, kernel release, host name and system model. Called by the
// Collect thread once a tick; files that cannot change during a run are read until they succeed once.
class SystemMetadataCollector {
public:
    explicit SystemMetadataCollector(ProviderRoots roots);

    void Fill(core::SystemSnapshot& snapshot, const CollectContext& context);

private:
    void FillLoad(core::SystemSnapshot& snapshot, std::uint64_t generation);
    void FillStatic(std::uint64_t generation);

    ProviderRoots roots_;
    std::string loadAveragePath_;
    std::string hostNamePath_;
    std::string buffer_;

    // Kept once read: the distribution, the running kernel and the board do not change under us.
    bool haveStatic_ = false;
    core::Metric<std::string> distribution_;
    core::Metric<std::string> distributionVersion_;
    core::Metric<std::string> kernelRelease_;
    core::Metric<std::string> systemModel_;
};

}  // namespace korv::providers
