#include "providers/gpu_collector.h"
#include "providers/nvml_library.h"
#include "providers/platform_services.h"

#include "core/telemetry_builder.h"
#include "tests/providers/gpu_fixture_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <link.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace korv::providers {
namespace {

using core::MetricAvailability;

constexpr std::uint64_t kGeneration = 11;
constexpr const char* kMatchedUuid = "GPU-11111111-2222-3333-4444-555555555555";
constexpr const char* kLoneUuid = "GPU-99999999-8888-7777-6666-555555555555";
constexpr const char* kNvmlCapability = "NVIDIA GPU utilization, memory, clocks, power, and temperature via NVML";

CollectContext Tick() {
    CollectContext ctx;
    ctx.generation = kGeneration;
    return ctx;
}

// The tests run with the complete stand-in first on the library path, as the program would find
// the vendor's library. The test keeps its own reference, so the stand-in's call counters outlive
// the collector's dlclose.
class NvmlCollectorTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name :
             {"KORV_FAKE_NVML_DEVICES", "KORV_FAKE_NVML_FAIL", "KORV_FAKE_NVML_FAIL_CODE", "KORV_FAKE_NVML_UUIDS"}) {
            ::unsetenv(name);
        }
        fake_ = ::dlopen("libnvidia-ml.so.1", RTLD_NOW);
        ASSERT_NE(fake_, nullptr) << "the stand-in libnvidia-ml.so.1 must be on LD_LIBRARY_PATH (ctest sets it): "
                                  << ::dlerror();
        initCalls_ = reinterpret_cast<unsigned int (*)()>(::dlsym(fake_, "korvFakeNvmlInitCalls"));
        shutdownCalls_ = reinterpret_cast<unsigned int (*)()>(::dlsym(fake_, "korvFakeNvmlShutdownCalls"));
        ASSERT_NE(initCalls_, nullptr) << "libnvidia-ml.so.1 on the library path is not the test stand-in";
        ASSERT_NE(shutdownCalls_, nullptr);
    }

    void TearDown() override {
        if (fake_ != nullptr) ::dlclose(fake_);
    }

    GpuCollectorPaths Paths(const GpuFixtureTree& tree, bool withTables = true) const {
        GpuCollectorPaths paths;
        paths.amdgpuIds = kGpuNameTables / "amdgpu.ids";
        paths.pciIds = {withTables ? kGpuNameTables / "pci.ids" : "/nonexistent/pci.ids"};
        paths.nvidiaGpus = tree.Root() / "proc" / "driver" / "nvidia" / "gpus";
        return paths;
    }

    void* fake_ = nullptr;
    unsigned int (*initCalls_)() = nullptr;
    unsigned int (*shutdownCalls_)() = nullptr;
};

template <typename T>
void ExpectFrom(const core::Metric<T>& metric, const T& expected, const char* source, const char* what) {
    SCOPED_TRACE(what);
    ASSERT_TRUE(metric.value.has_value()) << "availability " << core::ToString(metric.availability);
    EXPECT_EQ(*metric.value, expected);
    EXPECT_EQ(metric.source, source);
    EXPECT_EQ(metric.lastGoodGeneration, kGeneration);
}

TEST_F(NvmlCollectorTest, AFailedInitIsKeptAndNotRetried) {
    GpuFixtureTree tree("nvidia");
    const unsigned int initsBefore = initCalls_();
    const unsigned int shutdownsBefore = shutdownCalls_();
    {
        GpuCollector collector(tree.Roots(), Paths(tree));
        std::vector<core::DeviceSnapshot> rows;
        GpuStageResult result = collector.Collect(Tick(), rows);
        EXPECT_FALSE(result.nvml.ok);
        EXPECT_EQ(result.nvml.message, "nvmlInit_v2 failed: Driver Not Loaded");
        EXPECT_EQ(result.nvmlReturn, 9);
        EXPECT_EQ(result.nvml.error, 0);  // no errno behind it
        EXPECT_FALSE(result.nvmlAnswered);
        ASSERT_EQ(rows.size(), 1u);  // the DRM row stands alone
        EXPECT_EQ(result.capabilitySupport, core::ProviderSupport::degraded);
        EXPECT_EQ(result.capabilityText, result.drm.message);

        ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);  // a retry would now succeed
        rows.clear();
        result = collector.Collect(Tick(), rows);
        EXPECT_EQ(result.nvml.message, "nvmlInit_v2 failed: Driver Not Loaded");
        EXPECT_EQ(rows.size(), 1u);
        EXPECT_EQ(initCalls_() - initsBefore, 1u);
    }
    EXPECT_EQ(shutdownCalls_() - shutdownsBefore, 0u);  // nothing to shut down after a failed init
}

TEST_F(NvmlCollectorTest, AWorkingLibraryIsShutDownOnceAtDestruction) {
    GpuFixtureTree tree("connector-only");
    ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
    const unsigned int initsBefore = initCalls_();
    const unsigned int shutdownsBefore = shutdownCalls_();
    {
        GpuCollector collector(tree.Roots(), Paths(tree));
        for (int tick = 0; tick < 3; ++tick) {
            std::vector<core::DeviceSnapshot> rows;
            const GpuStageResult result = collector.Collect(Tick(), rows);
            EXPECT_TRUE(result.nvml.ok);
            EXPECT_EQ(rows.size(), 1u);
        }
        EXPECT_EQ(shutdownCalls_() - shutdownsBefore, 0u);
    }
    EXPECT_EQ(initCalls_() - initsBefore, 1u);
    EXPECT_EQ(shutdownCalls_() - shutdownsBefore, 1u);
}

TEST_F(NvmlCollectorTest, LoadFailuresInTheSystemsWords) {
    GpuFixtureTree tree("connector-only");
    ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
    const struct {
        std::vector<std::string> names;
        const char* message;
        int error;
    } cases[] = {
        {{"libkorv-no-such-library.so.1"},
         "libnvidia-ml.so(.1) not found on this system's library path -- no NVIDIA driver installed",
         ENOENT},
        {{KORV_FAKE_NVML_INCOMPLETE_LIBRARY}, "libnvidia-ml.so was found but is missing an expected symbol",
         ENOSYS},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        GpuCollectorPaths paths = Paths(tree);
        paths.nvmlLibraryNames = c.names;
        GpuCollector collector(tree.Roots(), paths);
        std::vector<core::DeviceSnapshot> rows;
        const GpuStageResult result = collector.Collect(Tick(), rows);
        EXPECT_FALSE(result.nvml.ok);
        EXPECT_EQ(result.nvml.message, c.message);
        EXPECT_EQ(result.nvml.error, c.error);
        EXPECT_EQ(result.nvmlReturn, nvml::NVML_SUCCESS);
        EXPECT_TRUE(rows.empty());
        EXPECT_EQ(result.capabilitySupport, core::ProviderSupport::unsupported);
        EXPECT_EQ(result.capabilityText, "No supported AMD/Intel/NVIDIA DRM sysfs devices");
    }
}

TEST_F(NvmlCollectorTest, TheIncompleteLibraryIsNeverInitialised) {
    void* incomplete = ::dlopen(KORV_FAKE_NVML_INCOMPLETE_LIBRARY, RTLD_NOW);
    ASSERT_NE(incomplete, nullptr) << ::dlerror();
    EXPECT_EQ(::dlsym(incomplete, "nvmlDeviceGetDecoderUtilization"), nullptr);
    const auto calls = reinterpret_cast<unsigned int (*)()>(::dlsym(incomplete, "korvFakeNvmlInitCalls"));
    ASSERT_NE(calls, nullptr);
    const unsigned int before = calls();
    {
        NvmlLibrary library({KORV_FAKE_NVML_INCOMPLETE_LIBRARY});
        EXPECT_FALSE(library.Open());
        EXPECT_FALSE(library.Open());  // the outcome stands
        EXPECT_FALSE(library.Initialised());
        EXPECT_EQ(library.FailureErrno(), ENOSYS);
        EXPECT_EQ(library.FailureReturn(), nvml::NVML_SUCCESS);
    }
    EXPECT_EQ(calls() - before, 0u);
    ::dlclose(incomplete);
}

// Whether this process has the library file loaded, without loading it.
bool IsLoaded(const std::filesystem::path& library) {
    void* handle = ::dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) return false;
    ::dlclose(handle);
    return true;
}

TEST_F(NvmlCollectorTest, TheLibraryStaysLoadedToDestructionAndIsClosedOnlyAfterAWorkingInit) {
    link_map* loaded = nullptr;
    ASSERT_EQ(::dlinfo(fake_, RTLD_DI_LINKMAP, &loaded), 0) << ::dlerror();
    const std::filesystem::path complete = loaded->l_name;
    const struct {
        const char* what;
        std::filesystem::path library;
        bool driverLoaded;
        bool initialised;
        bool loadedAfterDestruction;
    } cases[] = {
        {"working", complete, true, true, false},
        {"nvmlInit_v2 fails", complete, false, false, true},
        {"a symbol is missing", KORV_FAKE_NVML_INCOMPLETE_LIBRARY, true, false, true},
    };
    int number = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        // A copy under a name of its own is a library of its own, so what this process loaded before
        // does not count.
        const std::filesystem::path copy =
            std::filesystem::path(::testing::TempDir()) /
            ("korv-nvml-" + std::to_string(::getpid()) + "-" + std::to_string(++number) + "-libnvidia-ml.so.1");
        std::filesystem::copy_file(c.library, copy, std::filesystem::copy_options::overwrite_existing);
        if (c.driverLoaded) {
            ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
        } else {
            ::unsetenv("KORV_FAKE_NVML_DEVICES");
        }
        ASSERT_FALSE(IsLoaded(copy));
        {
            NvmlLibrary library({copy.string()});
            EXPECT_EQ(library.Open(), c.initialised) << library.FailureText();
            EXPECT_TRUE(library.Loaded());
            EXPECT_TRUE(IsLoaded(copy));
        }
        EXPECT_EQ(IsLoaded(copy), c.loadedAfterDestruction);
        std::filesystem::remove(copy);
    }
}

TEST_F(NvmlCollectorTest, AnNvmlCodeIsNotTakenForAnErrno) {
    // NVML_ERROR_INVALID_ARGUMENT is 2, the number of ENOENT, which stands for a machine without the
    // library: a failing driver must not pass for an absent one.
    ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
    ::setenv("KORV_FAKE_NVML_FAIL", "nvmlInit_v2", 1);
    ::setenv("KORV_FAKE_NVML_FAIL_CODE", "2", 1);
    auto services = CreatePlatformServices();
    core::SampleRequest request;
    request.sequence = 1;
    request.intervalNs = 1'000'000'000;
    auto snapshot = services->SnapshotSource().Collect(request);
    ASSERT_NE(snapshot, nullptr);
    const core::ProviderHealthRecord* nvmlRow = nullptr;
    for (const auto& row : snapshot->providers) {
        if (row.provider == "linux.gpu.nvml") nvmlRow = &row;
    }
    ASSERT_NE(nvmlRow, nullptr);
    EXPECT_EQ(nvmlRow->diagnostic, "nvmlInit_v2 failed: Invalid Argument");
    EXPECT_EQ(nvmlRow->state, core::ProviderHealth::unavailable);
    EXPECT_EQ(nvmlRow->consecutiveFailures, 1u);
    EXPECT_EQ(nvmlRow->nativeError, 0);
}

TEST_F(NvmlCollectorTest, LaterNamesAreTriedWhenTheFirstIsMissing) {
    ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
    NvmlLibrary library({"libkorv-no-such-library.so.1", "libnvidia-ml.so.1"});
    ASSERT_TRUE(library.Open()) << library.FailureText();
    EXPECT_TRUE(library.Initialised());
    EXPECT_EQ(library.ErrorText(9), "Driver Not Loaded");
}

TEST_F(NvmlCollectorTest, DevicesMatchDrmRowsByPciSlotAndTheRestStandAlone) {
    GpuFixtureTree tree("nvidia");
    ::setenv("KORV_FAKE_NVML_DEVICES", "2", 1);
    ::setenv("KORV_FAKE_NVML_UUIDS", (std::string(kMatchedUuid) + "," + kLoneUuid).c_str(), 1);
    GpuCollector collector(tree.Roots(), Paths(tree));
    std::vector<core::DeviceSnapshot> rows;
    const GpuStageResult result = collector.Collect(Tick(), rows);

    EXPECT_TRUE(result.nvml.ok);
    EXPECT_EQ(result.nvml.message, "NVML device telemetry collected");
    EXPECT_TRUE(result.nvmlAnswered);
    EXPECT_EQ(result.capabilityText, kNvmlCapability);
    EXPECT_EQ(result.capabilitySupport, core::ProviderSupport::supported);
    ASSERT_EQ(rows.size(), 2u);

    const core::DeviceSnapshot& matched = rows[0];
    EXPECT_EQ(matched.id, "linux-drm-pci:0000:01:00.0");
    EXPECT_EQ(matched.displayName, "GA102 [GeForce RTX 3080]");  // the DRM identity stays
    const core::GpuBlock& g = matched.gpu;
    ExpectFrom(g.driver, std::string("nvidia"), kDrmSource, "driver");
    ExpectFrom(g.driverVersion, std::string("550.54.14"), kDrmSource, "module version");
    ExpectFrom(g.link, std::string("16.0 GT/s PCIe x16"), kDrmSource, "link");
    ExpectFrom(g.utilizationPercent, 40.0, kNvmlSource, "utilization");
    ExpectFrom(g.memoryControllerPercent, 20.0, kNvmlSource, "memory controller");
    ExpectFrom(g.totalMemoryBytes, std::uint64_t{8} << 30, kNvmlSource, "total");
    ExpectFrom(g.dedicatedMemoryBytes, std::uint64_t{8} << 30, kNvmlSource, "dedicated");
    ExpectFrom(g.inUseMemoryBytes, std::uint64_t{1} << 30, kNvmlSource, "used");
    ExpectFrom(g.temperatureCelsius, 55.0, kNvmlSource, "temperature");
    ExpectFrom(g.powerWatts, 120.5, kNvmlSource, "power");
    ExpectFrom(g.powerLimitWatts, 250.0, kNvmlSource, "limit");
    ExpectFrom(g.clockHz, std::uint64_t{1500000000}, kNvmlSource, "graphics clock");
    ExpectFrom(g.maximumClockHz, std::uint64_t{2100000000}, kNvmlSource, "maximum graphics clock");
    ExpectFrom(g.memoryClockHz, std::uint64_t{9501000000}, kNvmlSource, "memory clock");
    ExpectFrom(g.maximumMemoryClockHz, std::uint64_t{9751000000}, kNvmlSource, "maximum memory clock");
    ExpectFrom(g.videoEncodePercent, 5.0, kNvmlSource, "encode");
    EXPECT_EQ(g.videoDecodePercent.availability, MetricAvailability::zero);
    ASSERT_EQ(g.engines.size(), 2u);
    EXPECT_EQ(g.engines[0].id, "video-encode");
    EXPECT_EQ(g.engines[0].name, "Video encode");
    EXPECT_EQ(g.engines[0].vendor, "nvidia");
    EXPECT_EQ(g.engines[0].utilizationPercent.value, 5.0);
    EXPECT_EQ(g.engines[1].id, "video-decode");
    EXPECT_EQ(g.engines[1].name, "Video decode");
    EXPECT_EQ(g.engines[1].vendor, "nvidia");
    EXPECT_EQ(g.engines[1].utilizationPercent.availability, MetricAvailability::zero);

    const core::DeviceSnapshot& lone = rows[1];
    EXPECT_EQ(lone.id, kLoneUuid);
    EXPECT_EQ(lone.kind, core::DeviceKind::gpu);
    EXPECT_EQ(lone.displayName, "NVIDIA Fake RTX 1");
    ExpectFrom(lone.gpu.utilizationPercent, 41.0, kNvmlSource, "second device");
    ExpectFrom(lone.gpu.vendor, std::string("NVIDIA"), kNvmlSource, "vendor");
    EXPECT_FALSE(lone.gpu.bus.value.has_value());  // no procfs entry names its slot
}

TEST_F(NvmlCollectorTest, ASlotKnownOnlyToProcfsStillNamesTheBus) {
    GpuFixtureTree tree("connector-only");
    std::filesystem::create_directories(tree.Root() / "proc/driver/nvidia/gpus/0000:0A:00.0");
    std::ofstream(tree.Root() / "proc/driver/nvidia/gpus/0000:0A:00.0/information")
        << "Model: \t\t NVIDIA Fake\nGPU UUID: \t " << kMatchedUuid << "\n";
    ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
    ::setenv("KORV_FAKE_NVML_UUIDS", kMatchedUuid, 1);
    GpuCollector collector(tree.Roots(), Paths(tree));
    std::vector<core::DeviceSnapshot> rows;
    collector.Collect(Tick(), rows);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].id, kMatchedUuid);
    ExpectFrom(rows[0].gpu.bus, std::string("0000:0a:00.0"), kNvmlSource, "bus");
}

TEST_F(NvmlCollectorTest, AVendorOnlyDrmNameGivesWayToNvmlsAndDrmFiguresFillNvmlsGaps) {
    GpuFixtureTree tree("nvidia");
    const auto hwmon = std::filesystem::canonical(tree.Root() / "sys/class/drm/card1/device") / "hwmon" / "hwmon9";
    std::filesystem::create_directories(hwmon);
    std::ofstream(hwmon / "temp1_input") << "48000\n";
    ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
    ::setenv("KORV_FAKE_NVML_UUIDS", kMatchedUuid, 1);
    ::setenv("KORV_FAKE_NVML_FAIL", "nvmlDeviceGetTemperature", 1);
    GpuCollector collector(tree.Roots(), Paths(tree, false));
    std::vector<core::DeviceSnapshot> rows;
    collector.Collect(Tick(), rows);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].displayName, "NVIDIA Fake RTX 0");
    ExpectFrom(rows[0].gpu.temperatureCelsius, 48.0, kDrmSource, "hwmon temperature kept");
    ExpectFrom(rows[0].gpu.utilizationPercent, 40.0, kNvmlSource, "NVML figures on top");
}

TEST_F(NvmlCollectorTest, AFailingDeviceCountIsReportedEachTick) {
    GpuFixtureTree tree("connector-only");
    ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
    ::setenv("KORV_FAKE_NVML_FAIL", "nvmlDeviceGetCount_v2", 1);
    GpuCollector collector(tree.Roots(), Paths(tree));
    for (int tick = 0; tick < 2; ++tick) {
        std::vector<core::DeviceSnapshot> rows;
        const GpuStageResult result = collector.Collect(Tick(), rows);
        EXPECT_FALSE(result.nvml.ok);
        EXPECT_EQ(result.nvml.message, "nvmlDeviceGetCount_v2 failed: Not Supported");
        EXPECT_EQ(result.nvmlReturn, 3);
        EXPECT_EQ(result.nvml.error, 0);
        EXPECT_FALSE(result.nvmlAnswered);
        EXPECT_TRUE(rows.empty());
    }
}

// Which figures of a lone NVML row one failing call takes away.
struct FailingCallCase {
    const char* function;
    std::set<std::string> unsupported;
};

void PrintTo(const FailingCallCase& c, std::ostream* out) { *out << c.function; }

using MetricProbe = std::function<MetricAvailability(const core::GpuBlock&)>;

const std::map<std::string, MetricProbe>& Probes() {
    static const std::map<std::string, MetricProbe> probes = {
        {"utilization", [](const core::GpuBlock& g) { return g.utilizationPercent.availability; }},
        {"memoryController", [](const core::GpuBlock& g) { return g.memoryControllerPercent.availability; }},
        {"total", [](const core::GpuBlock& g) { return g.totalMemoryBytes.availability; }},
        {"inUse", [](const core::GpuBlock& g) { return g.inUseMemoryBytes.availability; }},
        {"temperature", [](const core::GpuBlock& g) { return g.temperatureCelsius.availability; }},
        {"power", [](const core::GpuBlock& g) { return g.powerWatts.availability; }},
        {"limit", [](const core::GpuBlock& g) { return g.powerLimitWatts.availability; }},
        {"clock", [](const core::GpuBlock& g) { return g.clockHz.availability; }},
        {"memoryClock", [](const core::GpuBlock& g) { return g.memoryClockHz.availability; }},
        {"maximumClock", [](const core::GpuBlock& g) { return g.maximumClockHz.availability; }},
        {"maximumMemoryClock", [](const core::GpuBlock& g) { return g.maximumMemoryClockHz.availability; }},
        {"encode", [](const core::GpuBlock& g) { return g.videoEncodePercent.availability; }},
        {"decode", [](const core::GpuBlock& g) { return g.videoDecodePercent.availability; }},
    };
    return probes;
}

class NvmlFailingCall : public NvmlCollectorTest, public ::testing::WithParamInterface<FailingCallCase> {};

TEST_P(NvmlFailingCall, LeavesOnlyItsFiguresUnsupported) {
    GpuFixtureTree tree("connector-only");
    ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
    ::setenv("KORV_FAKE_NVML_FAIL", GetParam().function, 1);
    GpuCollector collector(tree.Roots(), Paths(tree));
    std::vector<core::DeviceSnapshot> rows;
    const GpuStageResult result = collector.Collect(Tick(), rows);
    EXPECT_TRUE(result.nvml.ok);
    EXPECT_TRUE(result.nvmlAnswered);
    ASSERT_EQ(rows.size(), 1u);
    for (const auto& [name, probe] : Probes()) {
        const MetricAvailability availability = probe(rows[0].gpu);
        if (GetParam().unsupported.count(name) != 0) {
            EXPECT_EQ(availability, MetricAvailability::unsupported) << name;
        } else {
            EXPECT_TRUE(core::CarriesValue(availability)) << name << ": " << core::ToString(availability);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Calls, NvmlFailingCall,
    ::testing::Values(FailingCallCase{"nvmlDeviceGetUtilizationRates", {"utilization", "memoryController"}},
                      FailingCallCase{"nvmlDeviceGetMemoryInfo", {"total", "inUse"}},
                      FailingCallCase{"nvmlDeviceGetTemperature", {"temperature"}},
                      FailingCallCase{"nvmlDeviceGetPowerUsage", {"power"}},
                      FailingCallCase{"nvmlDeviceGetEnforcedPowerLimit", {"limit"}},
                      FailingCallCase{"nvmlDeviceGetClockInfo", {"clock", "memoryClock"}},
                      FailingCallCase{"nvmlDeviceGetMaxClockInfo", {"maximumClock", "maximumMemoryClock"}},
                      FailingCallCase{"nvmlDeviceGetEncoderUtilization", {"encode"}},
                      FailingCallCase{"nvmlDeviceGetDecoderUtilization", {"decode"}},
                      FailingCallCase{"nvmlDeviceGetName", {}}, FailingCallCase{"nvmlDeviceGetUUID", {}},
                      FailingCallCase{"nvmlDeviceGetHandleByIndex_v2",
                                      {"utilization", "memoryController", "total", "inUse", "temperature", "power",
                                       "limit", "clock", "memoryClock", "maximumClock", "maximumMemoryClock", "encode",
                                       "decode"}}),
    [](const ::testing::TestParamInfo<FailingCallCase>& call) { return std::string(call.param.function); });

TEST_F(NvmlCollectorTest, NameAndIdFallBackToTheIndex) {
    GpuFixtureTree tree("connector-only");
    ::setenv("KORV_FAKE_NVML_DEVICES", "2", 1);
    for (const char* failing : {"nvmlDeviceGetName", "nvmlDeviceGetUUID"}) {
        ::setenv("KORV_FAKE_NVML_FAIL", failing, 1);
        GpuCollector collector(tree.Roots(), Paths(tree));
        std::vector<core::DeviceSnapshot> rows;
        collector.Collect(Tick(), rows);
        ASSERT_EQ(rows.size(), 2u);
        if (std::string(failing) == "nvmlDeviceGetName") {
            EXPECT_EQ(rows[1].displayName, "GPU 1");
            EXPECT_EQ(rows[1].id, "GPU-fake-1");
        } else {
            EXPECT_EQ(rows[1].displayName, "NVIDIA Fake RTX 1");
            EXPECT_EQ(rows[1].id, "linux-nvml-index-1");
        }
    }
}

TEST_F(NvmlCollectorTest, TelemetryMarksNvmlFiguresAsVendorApi) {
    GpuFixtureTree tree("nvidia");
    ::setenv("KORV_FAKE_NVML_DEVICES", "1", 1);
    ::setenv("KORV_FAKE_NVML_UUIDS", kMatchedUuid, 1);
    GpuCollector collector(tree.Roots(), Paths(tree));
    core::SystemSnapshot snapshot;
    snapshot.generation = kGeneration;
    collector.Collect(Tick(), snapshot.devices);
    ASSERT_EQ(snapshot.devices.size(), 1u);

    core::HardwareTelemetryFrame frame = core::BuildTelemetryFrame(snapshot);
    collector.AppendTelemetry(frame, snapshot);
    EXPECT_TRUE(core::IsValid(frame));
    const std::string id = "gpu:linux-drm-pci:0000:01:00.0";
    const core::TelemetryDevice* device = frame.FindDevice(id);
    ASSERT_NE(device, nullptr);
    EXPECT_THAT(device->properties, ::testing::Contains(std::pair<std::string, std::string>("driverVersion", "550.54.14")));
    for (const char* metric : {"gpu.utilization_pct", "gpu.power.board_limit_w", "gpu.clock.memory_maximum_hz",
                               "accelerator.engine.video_encode.utilization_pct"}) {
        const core::TelemetryMetric* found = frame.Find(metric, id);
        ASSERT_NE(found, nullptr) << metric;
        EXPECT_EQ(found->provenance, core::ProvenanceTier::officialVendorApi) << metric;
    }
}

}  // namespace
}  // namespace korv::providers
