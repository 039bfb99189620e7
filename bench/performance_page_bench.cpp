// The Performance page's whole update for one snapshot of a machine with eight devices (CPU,
// memory, three disks, two network interfaces, one GPU), each graph backed by a full history of
// 2,435 samples, with the CPU, a disk or a network interface chosen.
#include "core/snapshot.h"
#include "host/linux_client/application_setup.h"
#include "host/linux_client/history_store.h"
#include "host/linux_client/performance_page.h"
#include "host/linux_client/theme.h"

#include <benchmark/benchmark.h>

#include <QApplication>
#include <QPixmap>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace {

using korv::core::DeviceKind;
using korv::core::SystemSnapshot;
using korv::host::linux_client::HistoryStore;
using korv::host::linux_client::PageEnvironment;
using korv::host::linux_client::PerformancePage;

constexpr std::size_t kHistoryPoints = 2435;
constexpr std::size_t kPrebuiltSnapshots = 256;
constexpr std::uint64_t kCadenceNs = 500'000'000ULL;
constexpr std::uint64_t kGiB = 1024ULL * 1024ULL * 1024ULL;

// Made once, on first use, after the platform is set: other benchmarks need no toolkit at all.
void EnsureApplication() {
    if (QApplication::instance() != nullptr) return;
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    static int argc = 1;
    static char name[] = "korv-bench";
    static char* argv[] = {name, nullptr};
    static QApplication application(argc, argv);
    korv::host::linux_client::InitializeEmbeddedResources();
    korv::host::linux_client::RegisterEmbeddedFonts();
    korv::host::linux_client::ApplyApplicationFont(QStringLiteral("Inter"));
    korv::host::linux_client::ApplyShellTheme(nullptr, korv::core::Theme::light);
}

korv::core::DeviceSnapshot Disk(const std::string& name, double t) {
    korv::core::DeviceSnapshot d;
    d.kind = DeviceKind::disk;
    d.id = "linux-block:path:" + name;
    d.displayName = name;
    d.disk.activePercent.Set(20.0 + 15.0 * std::sin(t / 7.0));
    d.disk.readBytesPerSecond.Set(4e6 * (1.0 + std::sin(t / 5.0)));
    d.disk.writeBytesPerSecond.Set(1e6 * (1.0 + std::cos(t / 3.0)));
    d.disk.readBytesTotal.Set(100 * kGiB);
    d.disk.writeBytesTotal.Set(50 * kGiB);
    d.disk.capacityBytes.Set(512 * kGiB);
    d.disk.type.Set("SSD");
    d.disk.rotational.Set(false);
    d.disk.description.Set("Bench Drive");
    d.disk.averageResponseMs.Set(0.4);
    return d;
}

korv::core::DeviceSnapshot Network(const std::string& name, double t) {
    korv::core::DeviceSnapshot d;
    d.kind = DeviceKind::network;
    d.id = "linux-net:" + name;
    d.displayName = name;
    d.network.interfaceName.Set(name);
    d.network.type.Set("Ethernet");
    d.network.receiveBytesPerSecond.Set(2e5 * (1.1 + std::sin(t / 4.0)));
    d.network.sendBytesPerSecond.Set(5e4 * (1.1 + std::cos(t / 6.0)));
    d.network.receivedBytesTotal.Set(3 * kGiB);
    d.network.sentBytesTotal.Set(kGiB);
    d.network.ipv4Addresses.Set("192.0.2.10");
    d.network.mtu.Set(1500);
    d.network.state.Set("up");
    return d;
}

korv::core::DeviceSnapshot Gpu(double t) {
    korv::core::DeviceSnapshot d;
    d.kind = DeviceKind::gpu;
    d.id = "linux-drm-pci:0000:03:00.0";
    d.displayName = "Bench Graphics";
    d.gpu.utilizationPercent.Set(30.0 + 20.0 * std::sin(t / 9.0));
    d.gpu.totalMemoryBytes.Set(8 * kGiB);
    d.gpu.inUseMemoryBytes.Set(2 * kGiB);
    d.gpu.clockHz.Set(1'800'000'000ULL);
    korv::core::EngineUtilization engine;
    engine.name = "gfx";
    engine.utilizationPercent.Set(25.0);
    d.gpu.engines.push_back(engine);
    return d;
}

std::shared_ptr<SystemSnapshot> Machine(std::uint64_t generation) {
    auto s = std::make_shared<SystemSnapshot>();
    const double t = static_cast<double>(generation);
    s->schemaVersion = korv::core::kSnapshotSchemaVersion;
    s->generation = generation;
    s->monotonicNs = generation * kCadenceNs;
    s->cadenceNs = kCadenceNs;
    s->elapsedNs = kCadenceNs;
    s->uptimeNs = generation * kCadenceNs;
    s->logicalProcessorCount = 8;
    s->cpuModel.Set("Bench CPU");
    s->cpuUtilization.Set(30.0 + 25.0 * std::sin(t / 10.0));
    s->cpuKernelUtilization.Set(5.0 + 4.0 * std::sin(t / 10.0));
    s->cpuFrequencyHz.Set(3'200'000'000ULL);
    s->cpuBaseFrequencyHz.Set(2'400'000'000ULL);
    for (std::uint32_t i = 0; i < 8; ++i) {
        korv::core::LogicalProcessorSnapshot p;
        p.index = i;
        p.utilization.Set(20.0 + 5.0 * i + 10.0 * std::sin(t / (3.0 + i)));
        p.kernelUtilization.Set(2.0 + i * 0.5);
        s->logicalProcessors.push_back(p);
    }
    s->memoryTotalBytes.Set(32 * kGiB);
    s->memoryInUseBytes.Set(static_cast<std::uint64_t>((12.0 + 3.0 * std::sin(t / 20.0)) * static_cast<double>(kGiB)));
    s->memoryAvailableBytes.Set(18 * kGiB);
    s->memoryCachedBytes.Set(6 * kGiB);
    s->devices.push_back(Disk("nvme0n1", t));
    s->devices.push_back(Disk("nvme1n1", t + 1.0));
    s->devices.push_back(Disk("sda", t + 2.0));
    s->devices.push_back(Network("enp4s0", t));
    s->devices.push_back(Network("wlp5s0", t + 3.0));
    s->devices.push_back(Gpu(t));
    korv::core::ProcessSnapshot process;
    process.key = {1, 1};
    process.threadCount.Set(4);
    s->processes.push_back(process);
    return s;
}

// The page as the window keeps it: history fed whether or not the page was shown, then the page
// shown with one device chosen.
struct Fixture {
    explicit Fixture(DeviceKind chosen) : history(kHistoryPoints) {
        EnsureApplication();
        korv::core::WriteBoolPreference(settings, "combinedDisks", false);
        korv::core::WriteBoolPreference(settings, "combinedNetwork", false);
        for (std::uint64_t generation = 1; generation <= kHistoryPoints; ++generation) {
            history.Append(*Machine(generation));
        }
        for (std::size_t i = 0; i < kPrebuiltSnapshots; ++i) {
            snapshots.push_back(Machine(kHistoryPoints + 1 + i));
        }
        PageEnvironment environment;
        environment.settings = &settings;
        environment.history = &history;
        page = std::make_unique<PerformancePage>(environment);
        page->resize(1240, 760);
        page->show();
        page->ApplySnapshot(Machine(kHistoryPoints));
        page->SelectDevice(chosen);
        (void)page->grab();
    }

    korv::core::Settings settings;
    HistoryStore history;
    std::vector<std::shared_ptr<SystemSnapshot>> snapshots;
    std::unique_ptr<PerformancePage> page;
};

DeviceKind ChosenKind(const benchmark::State& state) {
    return static_cast<DeviceKind>(state.range(0));
}

// The page's own work for one snapshot: list, subtitles, graph series and detail fields.
void BM_PerformancePageApplySnapshot(benchmark::State& state) {
    Fixture fixture(ChosenKind(state));
    std::size_t next = 0;
    for (auto _ : state) {
        fixture.page->ApplySnapshot(fixture.snapshots[next]);
        next = (next + 1) % fixture.snapshots.size();
    }
    state.SetLabel(fixture.page->SelectedRowId().toStdString());
}

// The whole update as the window shows it: the page's work, then the layout requests and the
// repaint of what changed, as the event loop runs them.
void BM_PerformancePageUpdate(benchmark::State& state) {
    Fixture fixture(ChosenKind(state));
    QApplication::processEvents();
    std::size_t next = 0;
    for (auto _ : state) {
        fixture.page->ApplySnapshot(fixture.snapshots[next]);
        QApplication::processEvents();
        next = (next + 1) % fixture.snapshots.size();
    }
    state.SetLabel(fixture.page->SelectedRowId().toStdString());
}

// An upper bound: every pixel of the page drawn again.
void BM_PerformancePageUpdateAndGrab(benchmark::State& state) {
    Fixture fixture(ChosenKind(state));
    std::size_t next = 0;
    for (auto _ : state) {
        fixture.page->ApplySnapshot(fixture.snapshots[next]);
        QPixmap frame = fixture.page->grab();
        benchmark::DoNotOptimize(frame);
        next = (next + 1) % fixture.snapshots.size();
    }
    state.SetLabel(fixture.page->SelectedRowId().toStdString());
}

void ChosenDevices(benchmark::internal::Benchmark* benchmark) {
    for (const DeviceKind kind : {DeviceKind::cpu, DeviceKind::disk, DeviceKind::network}) {
        benchmark->Arg(static_cast<int>(kind));
    }
    benchmark->Unit(benchmark::kMillisecond);
}

}  // namespace

BENCHMARK(BM_PerformancePageApplySnapshot)->Apply(ChosenDevices);
BENCHMARK(BM_PerformancePageUpdate)->Apply(ChosenDevices);
BENCHMARK(BM_PerformancePageUpdateAndGrab)->Apply(ChosenDevices);
