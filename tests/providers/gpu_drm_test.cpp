#include "providers/drm_gpu_collector.h"
#include "providers/gpu_collector.h"

#include "core/telemetry_builder.h"
#include "tests/providers/gpu_fixture_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace korv::providers {
namespace {

using core::MetricAvailability;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::uint64_t kGeneration = 7;
constexpr const char* kNoAdapters = "No supported AMD/Intel/NVIDIA DRM sysfs devices";
constexpr const char* kIdentityOnly =
    "AMD/Intel/NVIDIA DRM sysfs identity, clocks and sensors collected; this kernel publishes no adapter busy "
    "percentage for them";
constexpr const char* kTelemetry = "AMD/Intel/NVIDIA DRM sysfs telemetry collected";
constexpr const char* kHwdataNote =
    "; no PCI model database is installed (pci.ids, from hwdata), so an adapter whose firmware publishes no name is "
    "listed by vendor only";

CollectContext Tick() {
    CollectContext ctx;
    ctx.generation = kGeneration;
    return ctx;
}

GpuCollectorPaths TablePaths(bool withTables = true) {
    GpuCollectorPaths paths;
    paths.amdgpuIds = withTables ? kGpuNameTables / "amdgpu.ids" : "/nonexistent/amdgpu.ids";
    paths.pciIds = {withTables ? kGpuNameTables / "pci.ids" : "/nonexistent/pci.ids"};
    paths.nvidiaGpus = "/nonexistent/gpus";
    paths.nvmlLibraryNames = {};  // these tests never load a vendor library
    return paths;
}

template <typename T>
void ExpectValue(const core::Metric<T>& metric, const T& expected, const char* what) {
    SCOPED_TRACE(what);
    ASSERT_TRUE(metric.value.has_value()) << "availability " << core::ToString(metric.availability);
    EXPECT_EQ(*metric.value, expected);
    EXPECT_EQ(metric.source, kDrmSource);
    EXPECT_EQ(metric.lastGoodGeneration, kGeneration);
}

template <typename T>
void ExpectMissing(const core::Metric<T>& metric, MetricAvailability why, const char* what) {
    SCOPED_TRACE(what);
    EXPECT_FALSE(metric.value.has_value());
    EXPECT_EQ(core::ToString(metric.availability), core::ToString(why));
    EXPECT_FALSE(metric.source.empty());
}

struct Collected {
    GpuStageResult result;
    std::vector<core::DeviceSnapshot> rows;
};

Collected CollectFrom(const GpuFixtureTree& tree, GpuCollectorPaths paths = TablePaths()) {
    GpuCollector collector(tree.Roots(), std::move(paths));
    Collected out;
    out.result = collector.Collect(Tick(), out.rows);
    return out;
}

void Write(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
}

std::filesystem::path AdapterDir(const GpuFixtureTree& tree, const char* card) {
    return std::filesystem::canonical(tree.Root() / "sys" / "class" / "drm" / card / "device");
}

TEST(GpuVendorFromPciId, KnowsThreeVendorsWithOrWithoutPrefix) {
    EXPECT_EQ(GpuVendorFromPciId("0x1002\n"), GpuVendor::amd);
    EXPECT_EQ(GpuVendorFromPciId("8086"), GpuVendor::intel);
    EXPECT_EQ(GpuVendorFromPciId("0x10DE"), GpuVendor::nvidia);
    for (const char* other : {"0x1af4", "0x1234", "", "0x", "0x10de1", "10de junk"}) {
        EXPECT_FALSE(GpuVendorFromPciId(other).has_value()) << other;
    }
}

TEST(ParseDpmCurrentMhz, TakesTheStarredLevel) {
    EXPECT_EQ(ParseDpmCurrentMhz("0: 500Mhz \n1: 1825Mhz *\n2: 2250Mhz \n"), 1825u);
    EXPECT_EQ(ParseDpmCurrentMhz("0: 400Mhz *\n1: 1800Mhz\n"), 400u);
    EXPECT_EQ(ParseDpmCurrentMhz("0:  96Mhz *"), 96u);
    EXPECT_EQ(ParseDpmCurrentMhz("0: 500Mhz\n1: 1825Mhz\n"), std::nullopt);
    EXPECT_EQ(ParseDpmCurrentMhz("0: Mhz *\n"), std::nullopt);
    EXPECT_EQ(ParseDpmCurrentMhz(""), std::nullopt);
}

TEST(EnumerateDrmAdapters, ListsCardsOfKnownVendorsOnly) {
    GpuFixtureTree tree("i915");
    const auto adapters = EnumerateDrmAdapters(tree.Root() / "sys" / "class" / "drm");
    ASSERT_EQ(adapters.size(), 1u);  // card1 is a paravirtual adapter of another vendor
    const DrmAdapterRef& a = adapters[0];
    EXPECT_EQ(a.card, "card0");
    EXPECT_EQ(a.vendor, GpuVendor::intel);
    EXPECT_EQ(a.pciSlot, "0000:00:02.0");
    EXPECT_EQ(a.driver, "i915");
    EXPECT_EQ(a.deviceId, std::optional<std::uint16_t>(0x9a49));
    EXPECT_EQ(a.revision, std::optional<std::uint8_t>(0x01));
    EXPECT_EQ(a.label, "Onboard IGD");
}

TEST(EnumerateDrmAdapters, OrdersByCardNumberAndSkipsConnectors) {
    GpuFixtureTree tree("amdgpu");
    const auto drm = tree.Root() / "sys" / "class" / "drm";
    // A second card numbered 10 sorts after card2, not between card1 and card2 as text would.
    for (const char* card : {"card10", "card2"}) {
        std::filesystem::create_directory(drm / card);
        std::filesystem::create_symlink(std::filesystem::read_symlink(drm / "card0" / "device"), drm / card / "device");
    }
    std::vector<std::string> cards;
    for (const auto& adapter : EnumerateDrmAdapters(drm)) cards.push_back(adapter.card);
    EXPECT_THAT(cards, ElementsAre("card0", "card2", "card10"));
}

TEST(GpuCollector, ConnectorsAloneListNoAdapter) {
    GpuFixtureTree tree("connector-only");
    const Collected c = CollectFrom(tree);
    EXPECT_TRUE(c.rows.empty());
    EXPECT_FALSE(c.result.drm.ok);
    EXPECT_EQ(c.result.drm.message, kNoAdapters);
    EXPECT_EQ(c.result.capabilityText, kNoAdapters);
    EXPECT_EQ(c.result.capabilitySupport, core::ProviderSupport::unsupported);
    EXPECT_FALSE(c.result.nvmlAnswered);
    EXPECT_EQ(c.result.nvml.message,
              "libnvidia-ml.so(.1) not found on this system's library path -- no NVIDIA driver installed");
}

TEST(GpuCollector, MissingDrmClassIsNoAdapter) {
    GpuCollector collector({"/nonexistent", "/nonexistent/sys", "/nonexistent", "/nonexistent"}, TablePaths());
    std::vector<core::DeviceSnapshot> rows;
    const GpuStageResult result = collector.Collect(Tick(), rows);
    EXPECT_TRUE(rows.empty());
    EXPECT_EQ(result.drm.message, kNoAdapters);
    EXPECT_EQ(result.drm.error, ENOENT);
    EXPECT_TRUE(collector.AdapterDevicePaths().empty());
}

TEST(GpuCollector, AmdgpuWithBusyPercent) {
    GpuFixtureTree tree("amdgpu");
    const Collected c = CollectFrom(tree);
    ASSERT_EQ(c.rows.size(), 1u);
    const core::DeviceSnapshot& row = c.rows[0];
    const core::GpuBlock& g = row.gpu;
    EXPECT_EQ(row.kind, core::DeviceKind::gpu);
    EXPECT_EQ(row.id, "linux-drm-pci:0000:03:00.0");
    EXPECT_EQ(row.displayName, "AMD Radeon RX 6800 XT");  // amdgpu.ids before pci.ids
    ExpectValue(g.vendor, std::string("AMD"), "vendor");
    ExpectValue(g.driver, std::string("amdgpu"), "driver");
    ExpectValue(g.bus, std::string("0000:03:00.0"), "bus");
    ExpectValue(g.link, std::string("16.0 GT/s PCIe x16"), "link");
    ExpectValue(g.utilizationPercent, 37.0, "busy");
    ExpectValue(g.totalMemoryBytes, std::uint64_t{17163091968}, "VRAM total");
    ExpectValue(g.dedicatedMemoryBytes, std::uint64_t{17163091968}, "dedicated");
    ExpectValue(g.inUseMemoryBytes, std::uint64_t{1073741824}, "VRAM used");
    ExpectValue(g.sharedInUseMemoryBytes, std::uint64_t{268435456}, "GTT used");
    ExpectValue(g.clockHz, std::uint64_t{1825000000}, "pp_dpm_sclk before freq1_input");
    ExpectValue(g.temperatureCelsius, 45.0, "temp1");
    ExpectValue(g.hotspotTemperatureCelsius, 62.0, "junction label");
    ExpectValue(g.powerWatts, 48.25, "power1_input without power1_average");
    ExpectMissing(g.socTemperatureCelsius, MetricAvailability::unsupported, "a mem label is not soc");
    ExpectMissing(g.driverVersion, MetricAvailability::unsupported, "in-tree module without a version");
    ExpectMissing(g.videoEncodePercent, MetricAvailability::unsupported, "encode");
    ExpectMissing(g.maximumClockHz, MetricAvailability::unsupported, "maximum clock");
    EXPECT_TRUE(g.engines.empty());

    EXPECT_TRUE(c.result.drm.ok);
    EXPECT_EQ(c.result.drm.message, kTelemetry);
    EXPECT_EQ(c.result.capabilityText, kTelemetry);
    EXPECT_EQ(c.result.capabilitySupport, core::ProviderSupport::degraded);
}

TEST(GpuCollector, AmdgpuWithoutBusyPercentIsListedWithTheIdentityText) {
    GpuFixtureTree tree("amdgpu-nobusy");
    const Collected c = CollectFrom(tree);
    ASSERT_EQ(c.rows.size(), 1u);
    const core::GpuBlock& g = c.rows[0].gpu;
    EXPECT_EQ(c.rows[0].displayName, "Cezanne [Radeon Vega Series / Radeon Vega Mobile Series]");  // revision c5
    ExpectMissing(g.utilizationPercent, MetricAvailability::notApplicable, "no gpu_busy_percent");
    ExpectValue(g.powerWatts, 12.0, "power1_average before power1_input");
    ExpectValue(g.clockHz, std::uint64_t{400000000}, "lowest level starred");
    EXPECT_EQ(g.inUseMemoryBytes.availability, MetricAvailability::zero);
    ExpectMissing(g.hotspotTemperatureCelsius, MetricAvailability::unsupported, "no junction label");
    EXPECT_EQ(c.result.drm.message, kIdentityOnly);
    EXPECT_EQ(c.result.capabilitySupport, core::ProviderSupport::degraded);
}

struct BusyCase {
    const char* name;
    const char* content;  // nullptr: the attribute is a directory, so its read fails
};

void PrintTo(const BusyCase& c, std::ostream* out) { *out << c.name; }

class BusyPercentFault : public ::testing::TestWithParam<BusyCase> {};

TEST_P(BusyPercentFault, LeavesOnlyThatFigureUnsupported) {
    GpuFixtureTree tree("amdgpu");
    const auto busy = AdapterDir(tree, "card0") / "gpu_busy_percent";
    if (GetParam().content == nullptr) {
        std::filesystem::remove(busy);
        std::filesystem::create_directory(busy);
    } else {
        Write(busy, GetParam().content);
    }
    const Collected c = CollectFrom(tree);
    ASSERT_EQ(c.rows.size(), 1u);
    ExpectMissing(c.rows[0].gpu.utilizationPercent, MetricAvailability::unsupported, GetParam().name);
    ExpectValue(c.rows[0].gpu.temperatureCelsius, 45.0, "the rest is read");
    EXPECT_EQ(c.result.drm.message, kIdentityOnly);
}

INSTANTIATE_TEST_SUITE_P(Faults, BusyPercentFault,
                         ::testing::Values(BusyCase{"unreadable", nullptr}, BusyCase{"text", "busy\n"},
                                           BusyCase{"above 100", "101\n"}, BusyCase{"negative", "-1\n"},
                                           BusyCase{"empty", ""}),
                         [](const ::testing::TestParamInfo<BusyCase>& busyCase) {
                             std::string name = busyCase.param.name;
                             for (char& ch : name) {
                                 if (ch == ' ') ch = '_';
                             }
                             return name;
                         });

TEST(GpuCollector, I915ClockFilesInOrderOfPreference) {
    GpuFixtureTree tree("i915");
    const auto card = tree.Root() / "sys" / "class" / "drm" / "card0";
    // Each step removes the file the previous one read, so the next in line must be taken.
    const struct {
        const char* removeFirst;
        std::optional<std::uint64_t> mhz;
    } steps[] = {{nullptr, 1300}, {"gt/gt0/rps_act_freq_mhz", 1350}, {"gt", 1100}, {"gt_act_freq_mhz", 1150},
                 {"gt_cur_freq_mhz", std::nullopt}};
    for (const auto& step : steps) {
        SCOPED_TRACE(step.removeFirst ? step.removeFirst : "all present");
        if (step.removeFirst != nullptr) std::filesystem::remove_all(card / step.removeFirst);
        const Collected c = CollectFrom(tree);
        ASSERT_EQ(c.rows.size(), 1u);
        if (step.mhz) {
            ExpectValue(c.rows[0].gpu.clockHz, *step.mhz * 1000000, "clock");
        } else {
            ExpectMissing(c.rows[0].gpu.clockHz, MetricAvailability::unsupported, "no clock file left");
        }
    }
}

TEST(GpuCollector, I915IdentityComesFromTheFirmwareLabel) {
    GpuFixtureTree tree("i915");
    const Collected c = CollectFrom(tree);
    ASSERT_EQ(c.rows.size(), 1u);
    EXPECT_EQ(c.rows[0].displayName, "Onboard IGD");
    ExpectValue(c.rows[0].gpu.vendor, std::string("Intel"), "vendor");
    ExpectMissing(c.rows[0].gpu.utilizationPercent, MetricAvailability::notApplicable, "no busy file");
    ExpectMissing(c.rows[0].gpu.link, MetricAvailability::unsupported, "no PCIe link files");
    EXPECT_EQ(c.result.drm.message, kIdentityOnly);
}

TEST(GpuCollector, XeTileLayout) {
    GpuFixtureTree tree("xe");
    Collected c = CollectFrom(tree);
    ASSERT_EQ(c.rows.size(), 1u);
    EXPECT_EQ(c.rows[0].displayName, "DG2 [Arc A770]");
    ExpectValue(c.rows[0].gpu.driver, std::string("xe"), "driver");
    ExpectValue(c.rows[0].gpu.clockHz, std::uint64_t{2100000000}, "act_freq");
    ExpectValue(c.rows[0].gpu.link, std::string("2.5 GT/s PCIe x1"), "link");

    std::filesystem::remove(AdapterDir(tree, "card0") / "tile0" / "gt0" / "freq0" / "act_freq");
    c = CollectFrom(tree);
    ASSERT_EQ(c.rows.size(), 1u);
    ExpectValue(c.rows[0].gpu.clockHz, std::uint64_t{2400000000}, "cur_freq");
}

TEST(GpuCollector, NouveauIsListedWithoutClock) {
    GpuFixtureTree tree("nouveau");
    const Collected c = CollectFrom(tree);
    ASSERT_EQ(c.rows.size(), 1u);
    const core::GpuBlock& g = c.rows[0].gpu;
    EXPECT_EQ(c.rows[0].displayName, "GP107 [GeForce GTX 1050 Ti]");
    ExpectValue(g.vendor, std::string("NVIDIA"), "vendor");
    ExpectValue(g.driver, std::string("nouveau"), "driver");
    ExpectValue(g.temperatureCelsius, 41.0, "temp1");
    ExpectMissing(g.clockHz, MetricAvailability::unsupported, "nouveau gives no clock");
    ExpectMissing(g.powerWatts, MetricAvailability::unsupported, "no power file");
    EXPECT_FALSE(c.result.nvmlAnswered);
    EXPECT_EQ(c.result.capabilityText, kIdentityOnly);
}

TEST(GpuCollector, WithoutNameTablesTheVendorNameAndTheHwdataNote) {
    GpuFixtureTree tree("amdgpu");
    const Collected c = CollectFrom(tree, TablePaths(false));
    ASSERT_EQ(c.rows.size(), 1u);
    EXPECT_EQ(c.rows[0].displayName, "AMD GPU");
    EXPECT_EQ(c.result.drm.message, std::string(kTelemetry) + kHwdataNote);
    EXPECT_EQ(c.result.capabilityText, c.result.drm.message);
}

TEST(GpuCollector, AnUnknownDeviceInAPresentTableGetsNoNote) {
    GpuFixtureTree tree("i915");
    std::filesystem::remove(AdapterDir(tree, "card0") / "label");
    Write(tree.Root() / "pci.ids", "8086  Intel Corporation\n\t0001  Something else\n");
    GpuCollectorPaths paths = TablePaths(false);
    paths.pciIds = {tree.Root() / "pci.ids"};
    const Collected c = CollectFrom(tree, paths);
    ASSERT_EQ(c.rows.size(), 1u);
    EXPECT_EQ(c.rows[0].displayName, "Intel GPU");
    EXPECT_THAT(c.result.drm.message, Not(HasSubstr("hwdata")));
}

TEST(GpuCollector, AdapterDevicePathsAreCanonicalAndFollowTheLastPass) {
    GpuFixtureTree tree("amdgpu");
    GpuCollector collector(tree.Roots(), TablePaths());
    std::vector<core::DeviceSnapshot> rows;
    collector.Collect(Tick(), rows);
    collector.Collect(Tick(), rows);
    EXPECT_EQ(rows.size(), 2u);  // the caller's list is appended to
    EXPECT_THAT(collector.AdapterDevicePaths(), ElementsAre(AdapterDir(tree, "card0")));
    EXPECT_EQ(AdapterDir(tree, "card0"),
              std::filesystem::canonical(tree.Root() / "sys/devices/pci0000:00/0000:00:03.1/0000:03:00.0"));
}

TEST(GpuCollector, AppendTelemetryFillsABareGpuEntry) {
    GpuFixtureTree tree("amdgpu");
    GpuCollector collector(tree.Roots(), TablePaths());
    core::SystemSnapshot snapshot;
    snapshot.generation = kGeneration;
    collector.Collect(Tick(), snapshot.devices);
    ASSERT_EQ(snapshot.devices.size(), 1u);

    const std::string id = "gpu:linux-drm-pci:0000:03:00.0";
    core::HardwareTelemetryFrame frame;
    frame.devices.push_back({id, core::TelemetryDeviceKind::gpu, "AMD Radeon RX 6800 XT", id, "", {}});
    frame.devices.push_back({"gpu:another", core::TelemetryDeviceKind::gpu, "Not in the snapshot", "", "", {}});
    collector.AppendTelemetry(frame, snapshot);
    EXPECT_TRUE(core::IsValid(frame));

    const core::TelemetryDevice* device = frame.FindDevice(id);
    ASSERT_NE(device, nullptr);
    using Property = std::pair<std::string, std::string>;
    EXPECT_THAT(device->properties,
                ::testing::UnorderedElementsAre(Property{"vendor", "AMD"}, Property{"driver", "amdgpu"},
                                                Property{"pciSlot", "0000:03:00.0"},
                                                Property{"link", "16.0 GT/s PCIe x16"}));  // no driverVersion
    EXPECT_TRUE(frame.FindDevice("gpu:another")->properties.empty());

    const core::TelemetryMetric* hotspot = frame.Find("gpu.temperature.hotspot_c", id);
    ASSERT_NE(hotspot, nullptr);
    EXPECT_EQ(hotspot->numericValue, 62.0);
    EXPECT_EQ(hotspot->unit, core::MetricUnit::celsius);
    EXPECT_EQ(hotspot->availability, MetricAvailability::valid);
    EXPECT_EQ(hotspot->provenance, core::ProvenanceTier::nativeOs);
    const core::TelemetryMetric* gtt = frame.Find("accelerator.memory.nonlocal.resident_bytes", id);
    ASSERT_NE(gtt, nullptr);
    EXPECT_EQ(gtt->numericValue, 268435456.0);
    EXPECT_EQ(frame.Find("gpu.temperature.soc_c", id), nullptr);    // unsupported stays out
    EXPECT_EQ(frame.Find("gpu.power.board_limit_w", id), nullptr);  // so does a limit DRM does not read
}

TEST(GpuCollector, AppendTelemetryAfterTheBuilderAddsNothingTwice) {
    GpuFixtureTree tree("amdgpu");
    GpuCollector collector(tree.Roots(), TablePaths());
    core::SystemSnapshot snapshot;
    snapshot.generation = kGeneration;
    collector.Collect(Tick(), snapshot.devices);

    core::HardwareTelemetryFrame frame = core::BuildTelemetryFrame(snapshot);
    collector.AppendTelemetry(frame, snapshot);
    const core::HardwareTelemetryFrame once = frame;
    collector.AppendTelemetry(frame, snapshot);
    EXPECT_TRUE(core::IsValid(frame));
    EXPECT_EQ(frame.metrics.size(), once.metrics.size());
    const std::string id = "gpu:linux-drm-pci:0000:03:00.0";
    ASSERT_NE(frame.FindDevice(id), nullptr);
    EXPECT_EQ(frame.FindDevice(id)->properties, once.FindDevice(id)->properties);
    ASSERT_NE(frame.Find("gpu.temperature.hotspot_c", id), nullptr);
}

}  // namespace
}  // namespace korv::providers
