#include "providers/network_addresses.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>

namespace korv::providers {
namespace {

bool ToRaw(const sockaddr* address, RawAddress& out) noexcept {
    if (address == nullptr) return false;
    out = RawAddress{};
    if (address->sa_family == AF_INET) {
        sockaddr_in in{};
        std::memcpy(&in, address, sizeof in);
        out.family = AF_INET;
        std::memcpy(out.bytes.data(), &in.sin_addr, 4);
        return true;
    }
    if (address->sa_family == AF_INET6) {
        sockaddr_in6 in6{};
        std::memcpy(&in6, address, sizeof in6);
        out.family = AF_INET6;
        std::memcpy(out.bytes.data(), &in6.sin6_addr, 16);
        return true;
    }
    return false;
}

class SystemNetworkCalls final : public INetworkSystem {
public:
    int ListInterfaceAddresses(std::vector<InterfaceAddress>& out) override {
        out.clear();
        ifaddrs* list = nullptr;
        if (::getifaddrs(&list) != 0) return errno;
        for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
            RawAddress raw;
            if (entry->ifa_name == nullptr || !ToRaw(entry->ifa_addr, raw)) continue;
            out.push_back({entry->ifa_name, raw});
        }
        ::freeifaddrs(list);
        return 0;
    }

    int SourceAddressTowards(const RawAddress& destination, std::uint16_t port, RawAddress& source) override {
        sockaddr_storage target{};
        socklen_t targetLength = 0;
        if (destination.family == AF_INET) {
            sockaddr_in in{};
            in.sin_family = AF_INET;
            in.sin_port = htons(port);
            std::memcpy(&in.sin_addr, destination.bytes.data(), 4);
            std::memcpy(&target, &in, sizeof in);
            targetLength = sizeof in;
        } else if (destination.family == AF_INET6) {
            sockaddr_in6 in6{};
            in6.sin6_family = AF_INET6;
            in6.sin6_port = htons(port);
            std::memcpy(&in6.sin6_addr, destination.bytes.data(), 16);
            std::memcpy(&target, &in6, sizeof in6);
            targetLength = sizeof in6;
        } else {
            return EAFNOSUPPORT;
        }
        const int fd = ::socket(destination.family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return errno;
        int error = 0;
        // connect on a datagram socket only picks the route and the source address.
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&target), targetLength) != 0) {
            error = errno;
        } else {
            sockaddr_storage local{};
            socklen_t localLength = sizeof local;
            if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0) {
                error = errno;
            } else if (!ToRaw(reinterpret_cast<const sockaddr*>(&local), source)) {
                error = EAFNOSUPPORT;
            }
        }
        ::close(fd);
        return error;
    }
};

std::string_view BaseInterfaceName(std::string_view label) noexcept {
    const std::size_t colon = label.find(':');
    return colon == std::string_view::npos ? label : label.substr(0, colon);
}

void Append(std::string& list, const std::string& text) {
    if (!list.empty()) list += ", ";
    list += text;
}

}  // namespace

INetworkSystem& SystemNetwork() {
    static SystemNetworkCalls calls;
    return calls;
}

RawAddress ProbeDestination(int family) {
    RawAddress address;
    address.family = family;
    if (family == AF_INET) {
        ::inet_pton(AF_INET, "9.9.9.9", address.bytes.data());
    } else if (family == AF_INET6) {
        ::inet_pton(AF_INET6, "2620:fe::fe", address.bytes.data());
    } else {
        address.family = 0;
    }
    return address;
}

std::string FormatAddress(const RawAddress& address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (address.family != AF_INET && address.family != AF_INET6) return {};
    if (::inet_ntop(address.family, address.bytes.data(), text, sizeof text) == nullptr) return {};
    return text;
}

const InterfaceAddressSummary* AddressBook::Find(std::string_view name) const noexcept {
    const auto found = std::lower_bound(interfaces.begin(), interfaces.end(), name,
                                        [](const auto& entry, std::string_view key) { return entry.name < key; });
    return found != interfaces.end() && found->name == name ? &*found : nullptr;
}

void CollectAddressBook(INetworkSystem& system, AddressBook& book, std::vector<InterfaceAddress>& scratch) {
    book.interfaces.clear();
    book.error = system.ListInterfaceAddresses(scratch);
    if (book.error != 0) return;

    RawAddress sources[2];
    bool haveSource[2] = {false, false};
    const int families[2] = {AF_INET, AF_INET6};
    for (int i = 0; i < 2; ++i) {
        haveSource[i] = system.SourceAddressTowards(ProbeDestination(families[i]), kProbePort, sources[i]) == 0 &&
                        sources[i].family == families[i];
    }

    std::unordered_map<std::string_view, std::size_t> slots;
    for (const auto& entry : scratch) {
        const std::string_view name = BaseInterfaceName(entry.interfaceName);
        const auto [found, added] = slots.try_emplace(name, book.interfaces.size());
        if (added) {
            book.interfaces.push_back({});
            book.interfaces.back().name.assign(name);
        }
        InterfaceAddressSummary& summary = book.interfaces[found->second];
        const bool v4 = entry.address.family == AF_INET;
        Append(v4 ? summary.ipv4 : summary.ipv6, FormatAddress(entry.address));
        const int slot = v4 ? 0 : 1;
        if (haveSource[slot] && sources[slot] == entry.address) summary.primary = true;
    }
    std::sort(book.interfaces.begin(), book.interfaces.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
}

}  // namespace korv::providers
