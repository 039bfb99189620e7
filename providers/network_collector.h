#pragma once

#include "core/snapshot.h"
#include "providers/net_dev.h"
#include "providers/network_addresses.h"
#include "providers/provider_context.h"
#include "providers/stage_result.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace korv::providers {

inline constexpr std::size_t kMaxNetworkInterfaces = 65536;
inline constexpr int kNetworkInterfaceCountExceededError = 75;  // EOVERFLOW

// One row per network interface but the loopback: /proc/net/dev counters joined with
// /sys/class/net metadata and the addresses from the system. Rates are deltas against the previous
// sample of the same interface name (mark and sweep); the first sample of an interface, and any
// sample after a counter went backwards, has counters but no rates. Runs on the sampling thread only.
class NetworkCollector {
public:
    explicit NetworkCollector(ProviderRoots roots);
    // Takes the address listing and the source-address probe from `system`, which must outlive the
    // collector.
    NetworkCollector(ProviderRoots roots, INetworkSystem& system);

    // Appends one DeviceSnapshot (kind core::DeviceKind::network) per interface except "lo", in the
    // order of /proc/net/dev. On failure appends nothing and keeps the previous baselines.
    StageResult Collect(const CollectContext& ctx, std::vector<core::DeviceSnapshot>& devices);
    void ResetBaselines();

private:
    struct Baseline {
        NetDevRow counters;
        std::uint64_t sampleNs = 0;
        bool seen = false;
    };

    void FillMetadata(int interfaceFd, const NetDevRow& row, std::uint64_t generation, core::DeviceSnapshot& device);
    void FillAddresses(const NetDevRow& row, std::uint64_t generation, core::NetworkBlock& network) const;
    void FillRates(const NetDevRow& now, const CollectContext& ctx, core::NetworkBlock& network) const;

    INetworkSystem& system_;
    std::string netDevPath_;
    std::string classPath_;

    std::string buffer_;
    std::string attribute_;
    std::string pathScratch_;
    std::vector<char> directoryBuffer_;
    std::vector<NetDevRow> rows_;
    std::vector<core::DeviceSnapshot> pending_;
    std::vector<InterfaceAddress> addressScratch_;
    AddressBook addresses_;
    std::map<std::string, Baseline, std::less<>> baselines_;
};

}  // namespace korv::providers
