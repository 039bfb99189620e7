#include "core/snapshot_coherence.h"
#include "core/snapshot_metrics.h"
#include "core/telemetry_frame.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace korv::core {
namespace {

constexpr std::uint64_t kGeneration = 40;
constexpr std::uint64_t kNow = 9'000'000'000ULL;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

template <typename T>
Metric<T> Valid(T value) {
    Metric<T> metric;
    metric.availability = MetricAvailability::valid;
    metric.value = std::move(value);
    return metric;
}

template <typename T>
Metric<T> WithState(MetricAvailability availability, std::optional<T> value, std::uint64_t lastGood = 0) {
    Metric<T> metric;
    metric.availability = availability;
    metric.value = std::move(value);
    metric.lastGoodGeneration = lastGood;
    return metric;
}

ProcessSnapshot Process(std::uint32_t pid, std::uint64_t startTime, ProcessKey parent = {}) {
    ProcessSnapshot process;
    process.key = {pid, startTime};
    process.parentKey = parent;
    process.name = "proc" + std::to_string(pid);
    process.cpuPercent = Valid(1.5);
    process.workingSetBytes = Valid<std::uint64_t>(4096);
    return process;
}

ServiceSnapshot Service(std::string name, ProcessKey mainProcess = {}) {
    ServiceSnapshot service;
    service.name = std::move(name);
    service.mainProcess = mainProcess;
    return service;
}

// A snapshot that passes the check and needs no repair; each case below breaks one thing.
SystemSnapshot Coherent() {
    SystemSnapshot s;
    s.schemaVersion = 1;
    s.generation = kGeneration;
    s.monotonicNs = kNow;
    s.cpuModel = Valid<std::string>("Test CPU");
    s.cpuUtilization = Valid(50.0);
    s.cpuKernelUtilization = Valid(20.0);
    s.memoryTotalBytes = Valid<std::uint64_t>(8ULL << 30);
    s.loadAverage1 = Valid(0.5);
    s.logicalProcessors.resize(2);
    for (std::uint32_t i = 0; i < 2; ++i) {
        s.logicalProcessors[i].index = i;
        s.logicalProcessors[i].utilization = Valid(40.0);
    }
    s.logicalProcessorCount = 2;
    s.processes = {Process(1, 10), Process(20, 30, {1, 10}), Process(21, 31, {1, 10})};
    SessionSnapshot session;
    session.identity = 7;
    session.members = {{{20, 30}, 1.0}};
    session.cpuPercent = Valid(2.0);
    s.sessions = {session};
    s.services = std::make_shared<const std::vector<ServiceSnapshot>>(
        std::vector<ServiceSnapshot>{Service("a.service", {20, 30}), Service("b.service")});
    s.startupItems = std::make_shared<const std::vector<StartupItemSnapshot>>(1);
    s.appHistory = std::make_shared<const std::vector<AppHistorySnapshot>>();
    s.installedApps = std::make_shared<const std::vector<InstalledAppSnapshot>>(1);
    DeviceSnapshot disk;
    disk.kind = DeviceKind::disk;
    disk.id = "disk:sda";
    disk.disk.activePercent = Valid(10.0);
    s.devices = {disk};
    s.providers.resize(1);
    s.providers[0].provider = "linux.procfs";
    s.providers[0].lastGoodGeneration = kGeneration;
    auto frame = std::make_shared<HardwareTelemetryFrame>();
    frame->generation = kGeneration;
    frame->monotonicNs = kNow;
    frame->devices.resize(1);
    frame->devices[0].id = "cpu:package";
    frame->metrics.resize(1);
    frame->metrics[0].id = "cpu.package.utilization.busy_pct";
    frame->metrics[0].deviceId = "cpu:package";
    frame->metrics[0].numericValue = 50.0;
    frame->metrics[0].availability = MetricAvailability::valid;
    s.telemetry = frame;
    s.exitedProcesses = {ExitedProcessRecord{Process(99, 5), kNow - 1'000'000'000ULL, kGeneration - 1}};
    return s;
}

template <typename Mutate>
void EditServices(SystemSnapshot& s, Mutate mutate) {
    auto rows = *s.services;
    mutate(rows);
    s.services = std::make_shared<const std::vector<ServiceSnapshot>>(std::move(rows));
}

template <typename Mutate>
void EditTelemetry(SystemSnapshot& s, Mutate mutate) {
    auto frame = std::make_shared<HardwareTelemetryFrame>(*s.telemetry);
    mutate(*frame);
    s.telemetry = frame;
}

struct CoherenceCase {
    std::string name;
    std::function<void(SystemSnapshot&)> mutate;
    bool coherent;
};

void PrintTo(const CoherenceCase& c, std::ostream* os) { *os << c.name; }

class SnapshotCoherenceTest : public ::testing::TestWithParam<CoherenceCase> {};

TEST(SnapshotCoherenceBaseline, BaselinePassesAndDefaultSnapshotFails) {
    EXPECT_TRUE(IsCoherent(Coherent()));
    const SystemSnapshot empty;
    EXPECT_EQ(empty.schemaVersion, 0u);
    EXPECT_EQ(empty.generation, 0u);
    EXPECT_FALSE(IsCoherent(empty));
}

TEST_P(SnapshotCoherenceTest, Check) {
    SystemSnapshot s = Coherent();
    GetParam().mutate(s);
    EXPECT_EQ(IsCoherent(s), GetParam().coherent);
}

using S = SystemSnapshot;
using MA = MetricAvailability;
const CoherenceCase kCoherenceCases[] = {
    {"SchemaVersion2", [](S& s) { s.schemaVersion = 2; }, false},
    {"GenerationZero",
     [](S& s) {
         s.generation = 0;
         s.providers[0].lastGoodGeneration = 0;
         EditTelemetry(s, [](HardwareTelemetryFrame& f) { f.generation = 0; });
     },
     false},
    {"AccessDeniedWithValue", [](S& s) { s.memoryTotalBytes = WithState<std::uint64_t>(MA::accessDenied, 5); }, false},
    {"ValidWithoutValue", [](S& s) { s.memoryTotalBytes = WithState<std::uint64_t>(MA::valid, std::nullopt); }, false},
    {"UnsupportedWithoutValue", [](S& s) { s.memorySpeed = WithState<std::uint64_t>(MA::unsupported, std::nullopt); },
     true},
    {"PercentExactly100", [](S& s) { s.memoryPressurePercent = Valid(100.0); }, true},
    {"PercentJustAbove100", [](S& s) { s.memoryPressurePercent = Valid(100.0000001); }, false},
    {"PercentNegative", [](S& s) { s.batteryChargePercent = Valid(-0.5); }, false},
    {"StaleWithOldGenerationAndValue", [](S& s) { s.cpuUtilization = WithState<double>(MA::stale, 30.0, 3); }, true},
    {"LastGoodEqualToGeneration", [](S& s) { s.cpuUtilization.lastGoodGeneration = kGeneration; }, true},
    {"LastGoodAboveGeneration", [](S& s) { s.cpuUtilization.lastGoodGeneration = kGeneration + 1; }, false},
    {"ZeroWithNonZeroNumber", [](S& s) { s.swapUsedBytes = WithState<std::uint64_t>(MA::zero, 5); }, false},
    {"ZeroWithZeroNumber", [](S& s) { s.swapUsedBytes = WithState<std::uint64_t>(MA::zero, 0); }, true},
    {"ZeroWithNonZeroDouble", [](S& s) { s.systemPowerWatts = WithState<double>(MA::zero, 0.25); }, false},
    {"ZeroWithEmptyString", [](S& s) { s.cpuModel = WithState<std::string>(MA::zero, ""); }, true},
    {"ZeroWithNonEmptyString", [](S& s) { s.cpuModel = WithState<std::string>(MA::zero, "x"); }, false},
    {"NaNDouble", [](S& s) { s.loadAverage1 = Valid(kNaN); }, false},
    {"InfiniteDouble", [](S& s) { s.systemPowerWatts = Valid(kInf); }, false},
    {"NegativeInfiniteDouble", [](S& s) { s.loadAverage5 = Valid(-kInf); }, false},
    {"KernelAboveTotal", [](S& s) { s.cpuKernelUtilization = Valid(50.5); }, false},
    {"KernelEqualToTotal", [](S& s) { s.cpuKernelUtilization = Valid(50.0); }, true},
    {"DuplicateProcessKeysUnsorted", [](S& s) { s.processes.push_back(Process(1, 10)); }, false},
    {"SamePidOtherStartTime", [](S& s) { s.processes.push_back(Process(20, 99)); }, true},
    {"DuplicateSessionIdentity", [](S& s) { s.sessions.push_back(s.sessions[0]); }, false},
    {"DuplicateServiceName",
     [](S& s) { EditServices(s, [](auto& rows) { rows.push_back(Service("a.service")); }); }, false},
    {"DuplicateStartupId",
     [](S& s) { s.startupItems = std::make_shared<const std::vector<StartupItemSnapshot>>(2); }, false},
    {"DuplicateInstalledAppId",
     [](S& s) { s.installedApps = std::make_shared<const std::vector<InstalledAppSnapshot>>(2); }, false},
    {"DuplicateAppHistoryKey",
     [](S& s) { s.appHistory = std::make_shared<const std::vector<AppHistorySnapshot>>(2); }, false},
    {"ProviderWithEmptyName", [](S& s) { s.providers.push_back(ProviderHealthRecord{}); }, false},
    {"ProviderDuplicateName", [](S& s) { s.providers.push_back(s.providers[0]); }, false},
    {"ProviderLastGoodAboveGeneration", [](S& s) { s.providers[0].lastGoodGeneration = kGeneration + 1; }, false},
    {"ProcessorCountMismatch", [](S& s) { s.logicalProcessorCount = 3; }, false},
    {"ProcessorCountWithEmptyList",
     [](S& s) {
         s.logicalProcessors.clear();
         s.logicalProcessorCount = 8;
     },
     true},
    {"ExitedRecordAlive", [](S& s) { s.exitedProcesses[0].process.key = {21, 31}; }, false},
    {"ExitedAfterSnapshot", [](S& s) { s.exitedProcesses[0].exitedAtNs = kNow + 1; }, false},
    {"ExitedAtSnapshotTime", [](S& s) { s.exitedProcesses[0].exitedAtNs = kNow; }, true},
    {"NoTelemetry", [](S& s) { s.telemetry.reset(); }, true},
    {"TelemetryOtherGeneration",
     [](S& s) { EditTelemetry(s, [](HardwareTelemetryFrame& f) { f.generation = kGeneration - 1; }); }, false},
    {"TelemetryOtherMonotonic",
     [](S& s) { EditTelemetry(s, [](HardwareTelemetryFrame& f) { f.monotonicNs = kNow + 1; }); }, false},
    {"TelemetryDuplicateDeviceIds",
     [](S& s) { EditTelemetry(s, [](HardwareTelemetryFrame& f) { f.devices.push_back(f.devices[0]); }); }, false},
    {"TelemetryMetricOnMissingDevice",
     [](S& s) { EditTelemetry(s, [](HardwareTelemetryFrame& f) { f.metrics[0].deviceId = "gpu:0"; }); }, false},
    {"TelemetryValueWithoutValueState",
     [](S& s) {
         EditTelemetry(s, [](HardwareTelemetryFrame& f) { f.metrics[0].availability = MA::accessDenied; });
     },
     false},
    // A broken metric fails the check wherever it sits.
    {"BrokenLogicalProcessorMetric",
     [](S& s) { s.logicalProcessors[1].utilization = WithState<double>(MA::notApplicable, 3.0); }, false},
    {"BrokenProcessMetric",
     [](S& s) { s.processes[2].workingSetBytes = WithState<std::uint64_t>(MA::valid, std::nullopt); }, false},
    {"BrokenSessionMetric", [](S& s) { s.sessions[0].seat = WithState<std::string>(MA::zero, "seat0"); }, false},
    {"BrokenDeviceMetric", [](S& s) { s.devices[0].network.mtu = WithState<std::uint64_t>(MA::valid, 1500, 99); },
     false},
    {"BrokenGpuEngineMetric",
     [](S& s) {
         EngineUtilization engine;
         engine.name = "3D";
         engine.utilizationPercent = WithState<double>(MA::transientError, 4.0);
         s.devices[0].gpu.engines.push_back(engine);
     },
     false},
    {"BrokenServiceMetric",
     [](S& s) {
         EditServices(s, [](auto& rows) { rows[1].mainPid = WithState<std::uint64_t>(MA::accessDenied, 12); });
     },
     false},
    {"BrokenInstalledAppMetric",
     [](S& s) {
         std::vector<InstalledAppSnapshot> rows(1);
         rows[0].sizeBytes = WithState<std::uint64_t>(MA::valid, std::nullopt);
         s.installedApps = std::make_shared<const std::vector<InstalledAppSnapshot>>(rows);
     },
     false},
    {"BrokenAppHistoryMetric",
     [](S& s) {
         std::vector<AppHistorySnapshot> rows(1);
         rows[0].cpuTimeNs = WithState<std::uint64_t>(MA::stale, std::nullopt);
         s.appHistory = std::make_shared<const std::vector<AppHistorySnapshot>>(rows);
     },
     false},
    {"BrokenExitedRecordMetric",
     [](S& s) { s.exitedProcesses[0].process.cpuPercent = WithState<double>(MA::accessDenied, 1.0); }, false},
};

struct CaseName {
    std::string operator()(const ::testing::TestParamInfo<CoherenceCase>& info) const { return info.param.name; }
};

INSTANTIATE_TEST_SUITE_P(Cases, SnapshotCoherenceTest, ::testing::ValuesIn(kCoherenceCases), CaseName{});

// Which double metrics are percentages (0..100) and which may take any finite value.
struct DoubleField {
    const char* name;
    Metric<double>& (*get)(SystemSnapshot&);
    bool percent;
};

const DoubleField kDoubleFields[] = {
    {"cpuUtilization", [](S& s) -> Metric<double>& { return s.cpuUtilization; }, true},
    {"cpuKernelUtilization", [](S& s) -> Metric<double>& { return s.cpuKernelUtilization; }, true},
    {"memoryPressurePercent", [](S& s) -> Metric<double>& { return s.memoryPressurePercent; }, true},
    {"batteryChargePercent", [](S& s) -> Metric<double>& { return s.batteryChargePercent; }, true},
    {"memoryPsiSomeAvg10", [](S& s) -> Metric<double>& { return s.memoryPsiSomeAvg10; }, true},
    {"logical.utilization", [](S& s) -> Metric<double>& { return s.logicalProcessors[0].utilization; }, true},
    {"logical.kernel", [](S& s) -> Metric<double>& { return s.logicalProcessors[0].kernelUtilization; }, true},
    {"process.cpuPercent", [](S& s) -> Metric<double>& { return s.processes[1].cpuPercent; }, true},
    {"disk.activePercent", [](S& s) -> Metric<double>& { return s.devices[0].disk.activePercent; }, true},
    {"network.signal", [](S& s) -> Metric<double>& { return s.devices[0].network.signalStrengthPercent; }, true},
    {"gpu.utilization", [](S& s) -> Metric<double>& { return s.devices[0].gpu.utilizationPercent; }, true},
    {"gpu.videoEncode", [](S& s) -> Metric<double>& { return s.devices[0].gpu.videoEncodePercent; }, true},
    {"gpu.videoDecode", [](S& s) -> Metric<double>& { return s.devices[0].gpu.videoDecodePercent; }, true},
    {"npu.utilization", [](S& s) -> Metric<double>& { return s.devices[0].npu.utilizationPercent; }, true},
    {"npu.activity", [](S& s) -> Metric<double>& { return s.devices[0].npu.activityPercent; }, true},
    {"loadAverage1", [](S& s) -> Metric<double>& { return s.loadAverage1; }, false},
    {"systemPowerWatts", [](S& s) -> Metric<double>& { return s.systemPowerWatts; }, false},
    {"process.nice", [](S& s) -> Metric<double>& { return s.processes[1].nice; }, false},
    {"process.readRate", [](S& s) -> Metric<double>& { return s.processes[1].readBytesPerSecond; }, false},
    {"gpu.temperature", [](S& s) -> Metric<double>& { return s.devices[0].gpu.temperatureCelsius; }, false},
    {"disk.responseMs", [](S& s) -> Metric<double>& { return s.devices[0].disk.averageResponseMs; }, false},
};

TEST(SnapshotCoherenceRanges, PercentFieldsAreBoundedAndOthersAreNot) {
    for (const auto& field : kDoubleFields) {
        SCOPED_TRACE(field.name);
        for (const double value : {100.0, 0.0, 100.0000001, -1.0, 250.0}) {
            SystemSnapshot s = Coherent();
            s.cpuUtilization = Valid(100.0);  // so that both shares may take any value in range
            s.cpuKernelUtilization = Valid(0.0);
            field.get(s) = Valid(value);
            const bool inRange = value >= 0.0 && value <= 100.0;
            EXPECT_EQ(IsCoherent(s), inRange || !field.percent) << value;
        }
    }
}

RepairCounts Only(std::uint64_t RepairCounts::*field, std::uint64_t count) {
    RepairCounts counts;
    counts.*field = count;
    return counts;
}

void ExpectCounts(const RepairCounts& actual, const RepairCounts& expected) {
    EXPECT_EQ(actual.percentagesClamped, expected.percentagesClamped);
    EXPECT_EQ(actual.metricsMarkedUnavailable, expected.metricsMarkedUnavailable);
    EXPECT_EQ(actual.duplicateRowsDropped, expected.duplicateRowsDropped);
    EXPECT_EQ(actual.parentLinksDetached, expected.parentLinksDetached);
    EXPECT_EQ(actual.sessionMembersDropped, expected.sessionMembersDropped);
    EXPECT_EQ(actual.serviceLinksDetached, expected.serviceLinksDetached);
    EXPECT_EQ(actual.exitedEntriesDropped, expected.exitedEntriesDropped);
    EXPECT_EQ(actual.processorCountsCorrected, expected.processorCountsCorrected);
}

TEST(SnapshotRepairTest, CoherentSnapshotIsLeftAloneAndSharedListsKeepTheirPointers) {
    SystemSnapshot s = Coherent();
    const auto services = s.services;
    const auto startup = s.startupItems;
    const auto installed = s.installedApps;
    const auto history = s.appHistory;
    ExpectCounts(RepairSnapshot(s), {});
    EXPECT_EQ(s.services, services);
    EXPECT_EQ(s.startupItems, startup);
    EXPECT_EQ(s.installedApps, installed);
    EXPECT_EQ(s.appHistory, history);
    EXPECT_EQ(s.processes.size(), 3u);
    EXPECT_EQ(s.processes[1].parentKey, (ProcessKey{1, 10}));
    EXPECT_EQ(s.sessions[0].members.size(), 1u);
    EXPECT_EQ(s.exitedProcesses.size(), 1u);
}

TEST(SnapshotRepairTest, DuplicateProcessRowsKeepTheFirstInListOrder) {
    SystemSnapshot s = Coherent();
    s.processes[1].name = "first";
    auto second = Process(20, 30, {1, 10});
    second.name = "second";
    s.processes.insert(s.processes.begin(), Process(21, 31, {1, 10}));  // an earlier duplicate of the last row
    s.processes.push_back(second);
    ExpectCounts(RepairSnapshot(s), Only(&RepairCounts::duplicateRowsDropped, 2));
    ASSERT_EQ(s.processes.size(), 3u);
    EXPECT_EQ(s.processes[0].key, (ProcessKey{21, 31}));
    EXPECT_EQ(s.processes[1].key, (ProcessKey{1, 10}));
    EXPECT_EQ(s.processes[2].name, "first");
    EXPECT_TRUE(IsCoherent(s));
}

TEST(SnapshotRepairTest, PercentagesAreClampedIntoRange) {
    SystemSnapshot s = Coherent();
    s.cpuUtilization = Valid(150.0);
    s.memoryPressurePercent = Valid(-5.0);
    ExpectCounts(RepairSnapshot(s), Only(&RepairCounts::percentagesClamped, 2));
    EXPECT_EQ(s.cpuUtilization.value, 100.0);
    EXPECT_EQ(s.memoryPressurePercent.value, 0.0);
    EXPECT_TRUE(IsCoherent(s));
}

TEST(SnapshotRepairTest, BrokenMetricsAreMarkedUnavailableWithoutValue) {
    const std::function<void(S&)> faults[] = {
        [](S& s) { s.memoryTotalBytes = WithState<std::uint64_t>(MA::valid, std::nullopt); },
        [](S& s) { s.memoryTotalBytes = WithState<std::uint64_t>(MA::accessDenied, 5); },
        [](S& s) { s.memoryTotalBytes = WithState<std::uint64_t>(MA::zero, 5); },
        [](S& s) { s.memoryTotalBytes = WithState<std::uint64_t>(MA::valid, 5, kGeneration + 1); },
        [](S& s) { s.processes[0].workingSetBytes = WithState<std::uint64_t>(MA::notYetAvailable, 1); },
    };
    for (std::size_t i = 0; i < std::size(faults); ++i) {
        SCOPED_TRACE(i);
        SystemSnapshot s = Coherent();
        faults[i](s);
        ExpectCounts(RepairSnapshot(s), Only(&RepairCounts::metricsMarkedUnavailable, 1));
        const auto& metric = i == 4 ? s.processes[0].workingSetBytes : s.memoryTotalBytes;
        EXPECT_FALSE(metric.value.has_value());
        EXPECT_FALSE(CarriesValue(metric.availability)) << ToString(metric.availability);
        EXPECT_TRUE(IsCoherent(s));
    }
    SystemSnapshot s = Coherent();
    s.cpuKernelUtilization = Valid(70.0);
    ExpectCounts(RepairSnapshot(s), Only(&RepairCounts::metricsMarkedUnavailable, 1));
    EXPECT_TRUE(IsCoherent(s));
}

TEST(SnapshotRepairTest, DanglingParentLinksAreDetached) {
    SystemSnapshot s = Coherent();
    s.processes.push_back(Process(30, 40, {500, 1}));  // parent never seen
    s.processes.push_back(Process(31, 41, {1, 11}));   // parent pid reused
    ExpectCounts(RepairSnapshot(s), Only(&RepairCounts::parentLinksDetached, 2));
    EXPECT_EQ(s.processes[0].parentKey, ProcessKey{});
    EXPECT_EQ(s.processes[1].parentKey, (ProcessKey{1, 10}));
    EXPECT_EQ(s.processes[3].parentKey, ProcessKey{});
    EXPECT_EQ(s.processes[4].parentKey, ProcessKey{});
}

TEST(SnapshotRepairTest, SessionMembersThatAreNotLiveAreDropped) {
    SystemSnapshot s = Coherent();
    s.sessions[0].members = {{{77, 7}, 0.5}, {{20, 30}, 0.25}, {{21, 999}, 0.25}};
    ExpectCounts(RepairSnapshot(s), Only(&RepairCounts::sessionMembersDropped, 2));
    ASSERT_EQ(s.sessions[0].members.size(), 1u);
    EXPECT_EQ(s.sessions[0].members[0].key, (ProcessKey{20, 30}));
}

TEST(SnapshotRepairTest, ServiceLinkToDeadProcessIsDetachedOnACopyOfTheSharedList) {
    SystemSnapshot s = Coherent();
    EditServices(s, [](auto& rows) { rows[1].mainProcess = {600, 6}; });
    const auto original = s.services;
    const SystemSnapshot sharer = s;  // an older snapshot that shares the list
    ExpectCounts(RepairSnapshot(s), Only(&RepairCounts::serviceLinksDetached, 1));
    EXPECT_NE(s.services.get(), original.get());
    ASSERT_EQ(s.services->size(), 2u);
    EXPECT_EQ((*s.services)[0].mainProcess, (ProcessKey{20, 30}));
    EXPECT_EQ((*s.services)[1].mainProcess, ProcessKey{});
    EXPECT_EQ(sharer.services, original);
    EXPECT_EQ((*original)[1].mainProcess, (ProcessKey{600, 6}));
}

TEST(SnapshotRepairTest, ExitedEntriesThatAreAliveAreDropped) {
    SystemSnapshot s = Coherent();
    s.exitedProcesses.insert(s.exitedProcesses.begin(), ExitedProcessRecord{Process(20, 30), kNow, kGeneration});
    ExpectCounts(RepairSnapshot(s), Only(&RepairCounts::exitedEntriesDropped, 1));
    ASSERT_EQ(s.exitedProcesses.size(), 1u);
    EXPECT_EQ(s.exitedProcesses[0].process.key, (ProcessKey{99, 5}));
}

TEST(SnapshotRepairTest, LogicalProcessorCountFollowsANonEmptyList) {
    SystemSnapshot s = Coherent();
    s.logicalProcessorCount = 5;
    ExpectCounts(RepairSnapshot(s), Only(&RepairCounts::processorCountsCorrected, 1));
    EXPECT_EQ(s.logicalProcessorCount, 2u);
    s.logicalProcessors.clear();
    s.logicalProcessorCount = 8;
    ExpectCounts(RepairSnapshot(s), {});
    EXPECT_EQ(s.logicalProcessorCount, 8u);
}

// The frame as a provider builds it: a second device with a percentage and a text reading beside
// the package's busy figure.
SystemSnapshot CoherentWithSensors() {
    SystemSnapshot s = Coherent();
    EditTelemetry(s, [](HardwareTelemetryFrame& frame) {
        frame.metrics[0].unit = MetricUnit::percent;
        TelemetryDevice disk;
        disk.id = "storage:sda";
        frame.devices.push_back(disk);
        TelemetryMetric activity;
        activity.id = "storage.activity_pct";
        activity.deviceId = "storage:sda";
        activity.unit = MetricUnit::percent;
        activity.availability = MA::valid;
        activity.numericValue = 12.0;
        frame.metrics.push_back(activity);
        TelemetryMetric model;
        model.id = "storage.model";
        model.deviceId = "storage:sda";
        model.availability = MA::valid;
        model.textValue = "Disk";
        frame.metrics.push_back(model);
    });
    return s;
}

struct FrameRepairCase {
    const char* name;
    std::function<void(HardwareTelemetryFrame&)> fault;
    RepairCounts counts;
    // What the storage activity reading is after the repair; the package's busy figure and the
    // model text must come through unchanged in every case.
    MetricAvailability activityAvailability;
    std::optional<double> activityValue;
};

TEST(SnapshotRepairTest, TelemetryFrameFaultsCostOnlyTheirOwnReading) {
    const auto activity = [](HardwareTelemetryFrame& frame) -> TelemetryMetric& { return frame.metrics[1]; };
    const FrameRepairCase cases[] = {
        {"NaN", [&](auto& f) { activity(f).numericValue = kNaN; }, Only(&RepairCounts::metricsMarkedUnavailable, 1),
         MA::transientError, std::nullopt},
        {"infinity", [&](auto& f) { activity(f).numericValue = kInf; },
         Only(&RepairCounts::metricsMarkedUnavailable, 1), MA::transientError, std::nullopt},
        {"percentage above 100", [&](auto& f) { activity(f).numericValue = 150.0; },
         Only(&RepairCounts::percentagesClamped, 1), MA::valid, 100.0},
        {"negative percentage", [&](auto& f) { activity(f).numericValue = -3.0; },
         Only(&RepairCounts::percentagesClamped, 1), MA::valid, 0.0},
        {"value beside access denied", [&](auto& f) { activity(f).availability = MA::accessDenied; },
         Only(&RepairCounts::metricsMarkedUnavailable, 1), MA::transientError, std::nullopt},
        {"zero state with a value", [&](auto& f) { activity(f).availability = MA::zero; },
         Only(&RepairCounts::metricsMarkedUnavailable, 1), MA::transientError, std::nullopt},
        {"number and text", [&](auto& f) { activity(f).textValue = "12"; },
         Only(&RepairCounts::metricsMarkedUnavailable, 1), MA::transientError, std::nullopt},
        {"second reading under the same id",
         [&](auto& f) {
             TelemetryMetric twin = activity(f);
             twin.numericValue = 99.0;
             f.metrics.push_back(twin);
         },
         Only(&RepairCounts::duplicateRowsDropped, 1), MA::valid, 12.0},
        {"device listed twice", [](auto& f) { f.devices.push_back(f.devices[1]); },
         Only(&RepairCounts::duplicateRowsDropped, 1), MA::valid, 12.0},
        {"reading on an unlisted device",
         [&](auto& f) {
             TelemetryMetric stray = activity(f);
             stray.deviceId = "storage:sdz";
             f.metrics.push_back(stray);
         },
         Only(&RepairCounts::metricsMarkedUnavailable, 1), MA::valid, 12.0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SystemSnapshot s = CoherentWithSensors();
        ASSERT_TRUE(IsCoherent(s));
        EditTelemetry(s, c.fault);
        const HardwareTelemetryFrame* broken = s.telemetry.get();
        ExpectCounts(RepairSnapshot(s), c.counts);
        ASSERT_TRUE(IsCoherent(s));
        ASSERT_NE(s.telemetry.get(), broken);  // the published frame is never written in place
        const HardwareTelemetryFrame& frame = *s.telemetry;
        ASSERT_EQ(frame.devices.size(), 2u);
        ASSERT_EQ(frame.metrics.size(), 3u);
        const TelemetryMetric* busy = frame.Find("cpu.package.utilization.busy_pct");
        ASSERT_NE(busy, nullptr);
        EXPECT_EQ(busy->numericValue, 50.0);
        const TelemetryMetric* model = frame.Find("storage.model");
        ASSERT_NE(model, nullptr);
        EXPECT_EQ(model->textValue, "Disk");
        const TelemetryMetric* repaired = frame.Find("storage.activity_pct", "storage:sda");
        ASSERT_NE(repaired, nullptr);
        EXPECT_EQ(repaired->availability, c.activityAvailability);
        EXPECT_EQ(repaired->numericValue, c.activityValue);
        EXPECT_FALSE(repaired->textValue.has_value());
        ExpectCounts(RepairSnapshot(s), {});
    }
}

TEST(SnapshotRepairTest, SoundTelemetryFrameKeepsItsPointer) {
    SystemSnapshot s = CoherentWithSensors();
    const auto frame = s.telemetry;
    ExpectCounts(RepairSnapshot(s), {});
    EXPECT_EQ(s.telemetry, frame);
}

// Random repairable faults on random snapshots: after the repair every one must pass.
class FaultGenerator {
public:
    explicit FaultGenerator(std::uint32_t seed) : rng_(seed) {}

    SystemSnapshot Make() {
        SystemSnapshot s = Coherent();
        for (std::uint32_t pid = 100, n = Pick(12); n > 0; --n, pid += 1 + Pick(3)) {
            s.processes.push_back(Process(pid, 1000 + Pick(5), s.processes[Pick(s.processes.size() - 1)].key));
        }
        s.logicalProcessors.resize(1 + Pick(7), s.logicalProcessors[0]);
        s.logicalProcessorCount = static_cast<std::uint32_t>(s.logicalProcessors.size());
        return s;
    }

    // Applies one to five faults; returns the structural repairs that must follow exactly.
    RepairCounts Break(SystemSnapshot& s) {
        RepairCounts exact;
        std::set<std::size_t> danglingParents;
        std::set<std::size_t> danglingServices;
        const std::size_t liveCount = s.processes.size();
        for (auto faults = 1 + Pick(4); faults > 0; --faults) {
            switch (Pick(9)) {
            case 0: kDoubleFields[Pick(14)].get(s) = Valid(Pick(2) ? 100.5 + Pick(150) : -0.25 - Pick(50)); break;
            case 1: BreakNthMetric(s); break;
            case 2: BreakProcessMetric(s.processes[Pick(liveCount - 1)]); break;
            case 3:
                s.cpuUtilization = Valid(40.0);
                s.cpuKernelUtilization = Valid(41.0 + Pick(20));
                break;
            case 4: {
                const auto row = Pick(liveCount - 1);
                s.processes[row].parentKey = {static_cast<std::uint32_t>(900'000 + Pick(50)), 1};
                danglingParents.insert(row);
                break;
            }
            case 5:
                s.sessions[0].members.push_back({{static_cast<std::uint32_t>(800'000 + exact.sessionMembersDropped), 1}, 0.1});
                ++exact.sessionMembersDropped;
                break;
            case 6: {
                const auto row = Pick(1);
                EditServices(s, [&](auto& rows) { rows[row].mainProcess = {700'000, 2}; });
                danglingServices.insert(row);
                break;
            }
            case 7:
                s.exitedProcesses.push_back({s.processes[Pick(liveCount - 1)], kNow, kGeneration});
                ++exact.exitedEntriesDropped;
                break;
            default:
                s.logicalProcessorCount = static_cast<std::uint32_t>(s.logicalProcessors.size() + 1 + Pick(3));
                exact.processorCountsCorrected = 1;
                break;
            }
        }
        // Copies go in last, so that a copied fault is dropped with its row and not counted twice.
        for (auto copies = Pick(3); copies > 0; --copies) {
            const auto row = s.processes[Pick(liveCount - 1)];
            s.processes.insert(s.processes.begin() + static_cast<std::ptrdiff_t>(Pick(s.processes.size())), row);
            ++exact.duplicateRowsDropped;
        }
        exact.parentLinksDetached = danglingParents.size();
        exact.serviceLinksDetached = danglingServices.size();
        return exact;
    }

private:
    std::uint64_t Pick(std::uint64_t maxInclusive) {
        return std::uniform_int_distribution<std::uint64_t>(0, maxInclusive)(rng_);
    }

    template <typename T>
    void BreakMetric(Metric<T>& metric) {
        switch (Pick(3)) {
        case 0:
            metric.availability = MA::accessDenied;
            metric.value = T{};
            break;
        case 1:
            metric.availability = MA::valid;
            metric.value.reset();
            break;
        case 2:
            metric.availability = MA::stale;
            metric.value = T{};
            metric.lastGoodGeneration = kGeneration + 1 + Pick(10);
            break;
        default:
            if constexpr (std::is_same_v<T, double>) {
                metric = Valid(Pick(1) ? kNaN : -kInf);
            } else if constexpr (std::is_same_v<T, std::uint64_t>) {
                metric = WithState<T>(MA::zero, 7);
            } else {
                metric.MarkMissing(MA::notApplicable);
                metric.lastGoodGeneration = kGeneration * 2;
            }
            break;
        }
    }

    // Breaks one metric, chosen at random among all the record's metrics.
    template <typename ForEach>
    void BreakOneOf(ForEach forEach) {
        std::uint64_t count = 0;
        forEach([&](auto&, bool) { ++count; });
        std::uint64_t n = Pick(count - 1);
        forEach([&](auto& metric, bool) {
            if (n-- == 0) BreakMetric(metric);
        });
    }

    void BreakNthMetric(SystemSnapshot& s) {
        BreakOneOf([&](auto visit) { ForEachSystemMetric(s, visit); });
    }

    void BreakProcessMetric(ProcessSnapshot& process) {
        BreakOneOf([&](auto visit) { ForEachMetric(process, visit); });
    }

    std::mt19937 rng_;
};

TEST(SnapshotRepairTest, RepairedSnapshotsWithRepairableFaultsPassTheCheck) {
    FaultGenerator generator(20240611);
    for (int iteration = 0; iteration < 400; ++iteration) {
        SCOPED_TRACE(iteration);
        SystemSnapshot s = generator.Make();
        ASSERT_TRUE(IsCoherent(s));
        const RepairCounts exact = generator.Break(s);
        const RepairCounts counts = RepairSnapshot(s);
        EXPECT_GT(counts.Sum(), 0u);
        EXPECT_EQ(counts.duplicateRowsDropped, exact.duplicateRowsDropped);
        EXPECT_EQ(counts.parentLinksDetached, exact.parentLinksDetached);
        EXPECT_EQ(counts.sessionMembersDropped, exact.sessionMembersDropped);
        EXPECT_EQ(counts.serviceLinksDetached, exact.serviceLinksDetached);
        EXPECT_EQ(counts.exitedEntriesDropped, exact.exitedEntriesDropped);
        EXPECT_EQ(counts.processorCountsCorrected, exact.processorCountsCorrected);
        EXPECT_TRUE(IsCoherent(s));
        ExpectCounts(RepairSnapshot(s), {});  // nothing left to repair
    }
}

}  // namespace
}  // namespace korv::core
