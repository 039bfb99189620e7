#include "providers/network_collector.h"

#include "tests/core/temp_folder_test_base.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <map>
#include <sys/socket.h>
#include <thread>

namespace korv::providers {
namespace {

using core::MetricAvailability;
namespace fs = std::filesystem;

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr const char* kHeader =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls carrier "
    "compressed\n";

RawAddress Address(const char* text) {
    RawAddress raw;
    raw.family = std::string_view(text).find(':') == std::string_view::npos ? AF_INET : AF_INET6;
    EXPECT_EQ(::inet_pton(raw.family, text, raw.bytes.data()), 1) << text;
    return raw;
}

class FakeNetwork final : public INetworkSystem {
public:
    int ListInterfaceAddresses(std::vector<InterfaceAddress>& out) override {
        out = addresses;
        return listError;
    }
    int SourceAddressTowards(const RawAddress& destination, std::uint16_t, RawAddress& source) override {
        const auto found = sources.find(destination.family);
        if (found == sources.end()) return ENETUNREACH;
        source = found->second;
        return 0;
    }
    std::vector<InterfaceAddress> addresses = {{"eth0", Address("192.0.2.10")},
                                               {"eth0:1", Address("192.0.2.11")},
                                               {"eth0", Address("2001:db8::20")},
                                               {"wlan0", Address("198.51.100.7")}};
    int listError = 0;
    std::map<int, RawAddress> sources = {{AF_INET, Address("198.51.100.7")}, {AF_INET6, Address("2001:db8::20")}};
};

TEST(CollectAddressBook, GroupsAddressesByInterfaceAndMarksTheSourceOfEachFamily) {
    FakeNetwork system;
    system.addresses = {{"wlan0", Address("198.51.100.7")}, {"eth0", Address("192.0.2.10")},
                        {"eth0:1", Address("192.0.2.11")},  {"eth0", Address("2001:db8::20")},
                        {"eth0", Address("fe80::1")},       {"lo", Address("127.0.0.1")}};
    system.sources = {{AF_INET, Address("198.51.100.7")}, {AF_INET6, Address("2001:db8::20")}};
    AddressBook book;
    std::vector<InterfaceAddress> scratch;
    CollectAddressBook(system, book, scratch);

    EXPECT_EQ(book.error, 0);
    ASSERT_EQ(book.interfaces.size(), 3u);
    EXPECT_EQ(book.interfaces[0].name, "eth0");  // sorted by name
    const auto* eth0 = book.Find("eth0");
    ASSERT_NE(eth0, nullptr);
    EXPECT_EQ(eth0->ipv4, "192.0.2.10, 192.0.2.11");
    EXPECT_EQ(eth0->ipv6, "2001:db8::20, fe80::1");
    EXPECT_TRUE(eth0->primary);
    ASSERT_NE(book.Find("wlan0"), nullptr);
    EXPECT_TRUE(book.Find("wlan0")->primary);
    EXPECT_FALSE(book.Find("lo")->primary);
    EXPECT_EQ(book.Find("eth0:1"), nullptr);

    // Without a route neither family has a primary interface; the addresses stay.
    system.sources.clear();
    CollectAddressBook(system, book, scratch);
    for (const auto& entry : book.interfaces) EXPECT_FALSE(entry.primary) << entry.name;
    EXPECT_EQ(book.Find("wlan0")->ipv4, "198.51.100.7");

    system.listError = EMFILE;
    CollectAddressBook(system, book, scratch);
    EXPECT_EQ(book.error, EMFILE);
    EXPECT_TRUE(book.interfaces.empty());
}

TEST(ProbeDestination, IsAPublicAddressOfTheAskedFamily) {
    EXPECT_EQ(FormatAddress(ProbeDestination(AF_INET)), "9.9.9.9");
    EXPECT_EQ(FormatAddress(ProbeDestination(AF_INET6)), "2620:fe::fe");
    EXPECT_EQ(ProbeDestination(AF_UNIX).family, 0);
    EXPECT_EQ(FormatAddress(RawAddress{}), "");
}

const core::NetworkBlock& Interface(const std::vector<core::DeviceSnapshot>& devices, const std::string& name) {
    for (const auto& device : devices) {
        if (device.displayName == name) return device.network;
    }
    ADD_FAILURE() << name << " not listed";
    static const core::NetworkBlock none;
    return none;
}

std::vector<core::DeviceSnapshot> CollectAt(NetworkCollector& collector, std::uint64_t generation, std::uint64_t nowNs,
                                            StageResult* result = nullptr) {
    CollectContext ctx;
    ctx.generation = generation;
    ctx.monotonicNs = nowNs;
    std::vector<core::DeviceSnapshot> devices;
    const StageResult stage = collector.Collect(ctx, devices);
    if (result) *result = stage;
    return devices;
}

// A private copy of tests/fixtures/network with the symbolic links its "links" file lists.
class NetworkCollectorTest : public core::TempFolderTest {
protected:
    NetworkCollectorTest() : TempFolderTest("korv-net") {}

    void SetUp() override {
        TempFolderTest::SetUp();
        const fs::path source = fs::path(KORV_TEST_FIXTURES) / "network";
        fs::copy(source, dir, fs::copy_options::recursive);
        std::ifstream links(source / "links");
        std::string link, target;
        while (links >> link >> target) {
            fs::create_directories((dir / link).parent_path());
            fs::create_symlink(target, dir / link);
        }
        fs::create_directory(dir / "sys/devices/net/wlan0/wireless");  // git keeps no empty folders
    }

    ProviderRoots Roots() const { return {dir / "proc", dir / "sys", "/nonexistent", "/nonexistent"}; }

    // eth0's receive and transmit bytes and packets; the other lines stay.
    void WriteEth0(std::uint64_t rxBytes, std::uint64_t rxPackets, std::uint64_t txBytes, std::uint64_t txPackets) {
        std::ifstream in(dir / "proc/net/dev");
        std::string text, line;
        while (std::getline(in, line)) {
            if (line.find("eth0:") != std::string::npos) {
                line = "  eth0:" + std::to_string(rxBytes) + " " + std::to_string(rxPackets) + " 0 0 0 0 0 0 " +
                       std::to_string(txBytes) + " " + std::to_string(txPackets) + " 0 0 0 0 0 0";
            }
            text += line + "\n";
        }
        in.close();
        std::ofstream(dir / "proc/net/dev", std::ios::trunc) << text;
    }

    FakeNetwork system;
};

TEST_F(NetworkCollectorTest, ListsEveryInterfaceButLoopbackAndTheVanished) {
    NetworkCollector collector(Roots(), system);
    StageResult result;
    const auto devices = CollectAt(collector, 1, kSecond, &result);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.message, "procfs and sysfs network metrics collected");
    std::vector<std::string> names;
    for (const auto& device : devices) {
        names.push_back(device.displayName);
        EXPECT_EQ(device.kind, core::DeviceKind::network);
        EXPECT_EQ(device.network.interfaceName.value, device.displayName);
        EXPECT_EQ(device.network.receivedBytesTotal.source, "linux.network");
    }
    // ghost0 has counters but no sysfs directory any more.
    EXPECT_EQ(names, (std::vector<std::string>{"eth0", "wlan0", "bond0", "eth1"}));
    EXPECT_EQ(devices[0].id, "linux-net:2-3c7c3f112233");
    EXPECT_EQ(devices[2].id, "linux-net:4-3c7c3f112233");  // a bond shares its slave's address
    EXPECT_EQ(CollectAt(collector, 2, 2 * kSecond)[0].id, devices[0].id);
}

TEST_F(NetworkCollectorTest, ReadsKindsDriversLinksAndLowerDevices) {
    NetworkCollector collector(Roots(), system);
    const auto devices = CollectAt(collector, 1, kSecond);
    const struct {
        const char* name;
        const char* type;
        std::optional<std::string> driver;
        std::optional<std::uint64_t> linkBits;
        std::uint64_t mtu;
        const char* state;
        const char* lower;
    } expected[] = {
        {"eth0", "Ethernet", "e1000e", 1'000'000'000, 1500, "up", ""},
        {"wlan0", "Wi-Fi", "iwlwifi", std::nullopt, 1500, "up", ""},
        {"bond0", "Virtual", std::nullopt, 1'000'000'000, 1500, "up", "eth0"},
        {"eth1", "Ethernet", "e1000e", std::nullopt, 9000, "down", ""},  // a downed link reports speed -1
    };
    for (const auto& row : expected) {
        const auto& network = Interface(devices, row.name);
        EXPECT_EQ(network.type.value, row.type) << row.name;
        EXPECT_EQ(network.hardware.value, row.driver) << row.name;
        EXPECT_EQ(network.linkBitsPerSecond.value, row.linkBits) << row.name;
        if (!row.linkBits) {
            EXPECT_EQ(network.linkBitsPerSecond.availability, MetricAvailability::notApplicable);
        }
        EXPECT_EQ(network.mtu.value, row.mtu) << row.name;
        EXPECT_EQ(network.state.value, row.state) << row.name;
        EXPECT_EQ(network.lowerDevice, row.lower) << row.name;
    }
    EXPECT_EQ(Interface(devices, "eth0").hardwareAddress.value, "3c:7c:3f:11:22:33");
    EXPECT_EQ(Interface(devices, "bond0").hardware.availability, MetricAvailability::notApplicable);
}

TEST_F(NetworkCollectorTest, AddressesAndThePrimaryInterfaceComeFromTheSystem) {
    NetworkCollector collector(Roots(), system);
    auto devices = CollectAt(collector, 1, kSecond);
    EXPECT_EQ(Interface(devices, "eth0").ipv4Addresses.value, "192.0.2.10, 192.0.2.11");
    EXPECT_EQ(Interface(devices, "eth0").ipv6Addresses.value, "2001:db8::20");
    EXPECT_EQ(Interface(devices, "wlan0").ipv4Addresses.value, "198.51.100.7");
    EXPECT_EQ(Interface(devices, "bond0").ipv4Addresses.value, "");
    EXPECT_EQ(Interface(devices, "eth0").primary.value, true);   // IPv6 source
    EXPECT_EQ(Interface(devices, "wlan0").primary.value, true);  // IPv4 source
    EXPECT_EQ(Interface(devices, "bond0").primary.value, false);

    system.listError = EMFILE;
    devices = CollectAt(collector, 2, 2 * kSecond);
    EXPECT_EQ(Interface(devices, "eth0").ipv4Addresses.availability, MetricAvailability::transientError);
    EXPECT_FALSE(Interface(devices, "eth0").primary.value);
}

TEST_F(NetworkCollectorTest, WithoutADefaultRouteNoInterfaceIsPrimaryAndRatesStillAppear) {
    system.sources.clear();
    NetworkCollector collector(Roots(), system);
    WriteEth0(12'000'000, 10'000, 3'000'000, 4'000);
    const auto first = CollectAt(collector, 1, 10 * kSecond);
    EXPECT_EQ(Interface(first, "eth0").receiveBytesPerSecond.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(Interface(first, "eth0").receivedBytesTotal.value, 12'000'000u);

    WriteEth0(14'000'000, 11'000, 3'500'000, 4'400);
    const auto second = CollectAt(collector, 2, 12 * kSecond);
    for (const auto& device : second) EXPECT_EQ(device.network.primary.value, false) << device.displayName;
    const auto& eth0 = Interface(second, "eth0");
    EXPECT_DOUBLE_EQ(*eth0.receiveBytesPerSecond.value, 1'000'000.0);
    EXPECT_DOUBLE_EQ(*eth0.sendBytesPerSecond.value, 250'000.0);
    EXPECT_DOUBLE_EQ(*eth0.receivePacketsPerSecond.value, 500.0);
    EXPECT_DOUBLE_EQ(*eth0.sendPacketsPerSecond.value, 200.0);
    EXPECT_EQ(Interface(second, "eth1").receiveBytesPerSecond.availability, MetricAvailability::zero);
}

TEST_F(NetworkCollectorTest, ACounterThatWentBackwardsOrAResetStartsANewBaseline) {
    NetworkCollector collector(Roots(), system);
    WriteEth0(12'000'000, 10'000, 3'000'000, 4'000);
    CollectAt(collector, 1, kSecond);
    WriteEth0(100, 1, 3'000'100, 4'001);
    EXPECT_EQ(Interface(CollectAt(collector, 2, 2 * kSecond), "eth0").sendBytesPerSecond.availability,
              MetricAvailability::notYetAvailable);
    WriteEth0(1100, 2, 3'000'100, 4'001);
    EXPECT_DOUBLE_EQ(*Interface(CollectAt(collector, 3, 3 * kSecond), "eth0").receiveBytesPerSecond.value, 1000.0);

    collector.ResetBaselines();
    const core::NetworkBlock reset = Interface(CollectAt(collector, 4, 4 * kSecond), "eth0");
    EXPECT_EQ(reset.receiveBytesPerSecond.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(reset.receivedBytesTotal.value, 1100u);
}

TEST_F(NetworkCollectorTest, AnUnreadableCounterFileListsNothingAndKeepsTheBaselines) {
    NetworkCollector collector(Roots(), system);
    WriteEth0(12'000'000, 10'000, 3'000'000, 4'000);
    CollectAt(collector, 1, kSecond);
    fs::rename(dir / "proc/net/dev", dir / "moved");
    StageResult result;
    EXPECT_TRUE(CollectAt(collector, 2, 2 * kSecond, &result).empty());
    EXPECT_EQ(result.error, ENOENT);
    EXPECT_EQ(result.message, "procfs network statistics unavailable");
    fs::rename(dir / "moved", dir / "proc/net/dev");
    WriteEth0(12'000'000 + 3000, 10'000, 3'000'000, 4'000);
    EXPECT_DOUBLE_EQ(*Interface(CollectAt(collector, 3, 4 * kSecond), "eth0").receiveBytesPerSecond.value, 1000.0);
}

TEST_F(NetworkCollectorTest, MoreThan65536InterfacesIsRefused) {
    std::string text = kHeader;
    text += "lo: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n";
    for (std::size_t i = 0; i < kMaxNetworkInterfaces; ++i) {
        text += "if" + std::to_string(i) + ": 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n";
    }
    std::ofstream(dir / "proc/net/dev", std::ios::trunc) << text;
    NetworkCollector collector(Roots(), system);
    StageResult result;
    CollectAt(collector, 1, kSecond, &result);
    EXPECT_TRUE(result.ok) << result.message;

    std::ofstream(dir / "proc/net/dev", std::ios::app) << "one-more: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n";
    EXPECT_TRUE(CollectAt(collector, 2, 2 * kSecond, &result).empty());
    EXPECT_EQ(result.error, 75);
    EXPECT_EQ(result.message, "Network-interface count exceeded safety limit");
}

bool HasDefaultRoute(int family) {
    // /proc/net/route lists a destination of 00000000 for the IPv4 default; /proc/net/ipv6_route an
    // all-zero destination with prefix length 00.
    std::ifstream routes(family == AF_INET ? "/proc/net/route" : "/proc/net/ipv6_route");
    std::string line;
    while (std::getline(routes, line)) {
        if (family == AF_INET && line.find("\t00000000\t") != std::string::npos) return true;
        if (family == AF_INET6 && line.starts_with("00000000000000000000000000000000 00 ") &&
            line.find(" lo") == std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(NetworkCollectorLive, ListsThisMachinesInterfacesWithRates) {
    if (!fs::exists("/sys/class/net/eth0")) GTEST_SKIP() << "this machine has no eth0";
    NetworkCollector collector(ProviderRoots{});
    const auto now = [] { return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()); };
    const auto first = CollectAt(collector, 1, now());
    for (const auto& device : first) EXPECT_NE(device.displayName, "lo");
    const auto& eth0 = Interface(first, "eth0");
    EXPECT_GT(eth0.receivedBytesTotal.value.value_or(0), 0u);
    EXPECT_TRUE(eth0.mtu.value);
    EXPECT_EQ(eth0.type.value, "Ethernet");

    bool anyPrimary = false;
    for (const auto& device : first) {
        if (device.network.primary.value.value_or(false)) {
            anyPrimary = true;
            EXPECT_FALSE(device.network.ipv4Addresses.value->empty() && device.network.ipv6Addresses.value->empty());
        }
    }
    EXPECT_EQ(anyPrimary, HasDefaultRoute(AF_INET) || HasDefaultRoute(AF_INET6));

    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto second = CollectAt(collector, 2, now());
    for (const auto& device : second) {
        EXPECT_GE(device.network.receiveBytesPerSecond.value.value_or(-1.0), 0.0) << device.displayName;
        EXPECT_GE(device.network.sendBytesPerSecond.value.value_or(-1.0), 0.0) << device.displayName;
    }
}

}  // namespace
}  // namespace korv::providers
