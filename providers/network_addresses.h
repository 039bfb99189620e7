#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace korv::providers {

// An IPv4 (first four bytes) or IPv6 address in network byte order.
struct RawAddress {
    int family = 0;  // AF_INET or AF_INET6
    std::array<std::uint8_t, 16> bytes{};
    bool operator==(const RawAddress&) const = default;
};

struct InterfaceAddress {
    std::string interfaceName;
    RawAddress address;
};

// The operating-system calls behind the address book, so that tests can stand in a machine with
// other addresses or no route at all.
class INetworkSystem {
public:
    virtual ~INetworkSystem() = default;
    // Every IPv4 and IPv6 address of every interface (getifaddrs); out is cleared first.
    // Returns 0 or an errno value.
    virtual int ListInterfaceAddresses(std::vector<InterfaceAddress>& out) = 0;
    // The local address the kernel would send from towards `destination` (a connected datagram
    // socket and getsockname; connect sends no packet). Returns 0 or an errno value.
    virtual int SourceAddressTowards(const RawAddress& destination, std::uint16_t port, RawAddress& source) = 0;
};

// The machine's own calls. Stateless; any thread.
INetworkSystem& SystemNetwork();

// The fixed public resolver addresses the source-address probe aims at, on UDP port 9. Nothing is
// ever sent there.
RawAddress ProbeDestination(int family);
inline constexpr std::uint16_t kProbePort = 9;

// inet_ntop text of an address; empty for an unknown family.
std::string FormatAddress(const RawAddress& address);

struct InterfaceAddressSummary {
    std::string name;
    std::string ipv4;  // comma-separated, in the order the system lists them
    std::string ipv6;
    bool primary = false;  // holds the source address of the IPv4 or IPv6 default route
};

struct AddressBook {
    int error = 0;  // errno of the address listing; 0 when it worked
    std::vector<InterfaceAddressSummary> interfaces;  // sorted by name

    const InterfaceAddressSummary* Find(std::string_view name) const noexcept;
};

// Fills book (cleared first) from the system: the addresses per interface and, for each of IPv4 and
// IPv6, the interface that holds the kernel's source address towards the probe destination. A
// family whose probe fails has no primary interface. An IPv4 alias label "eth0:1" counts as eth0.
void CollectAddressBook(INetworkSystem& system, AddressBook& book, std::vector<InterfaceAddress>& scratch);

}  // namespace korv::providers
