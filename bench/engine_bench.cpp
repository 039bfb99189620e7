// The sampling engine's own cost per tick with a source that does no work of its own.
#include "core/engine_stats.h"
#include "core/exited_process_tracker.h"
#include "core/sampling_engine.h"
#include "core/snapshot_coherence.h"
#include "core/snapshot_metrics.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace {

using namespace korv::core;

constexpr std::uint32_t kProcesses = 2000;
constexpr std::uint32_t kChurnPerTick = 10;

// A realistic table: every metric valid, sorted keys, parents present; each tick a few processes
// exit and as many new ones start, so that the exited-process tracker has work.
std::shared_ptr<SystemSnapshot> MakeSnapshot(std::uint64_t generation) {
    auto s = std::make_shared<SystemSnapshot>();
    s->schemaVersion = kSnapshotSchemaVersion;
    s->generation = generation;
    s->monotonicNs = generation * 1'000'000'000ULL;
    s->cpuUtilization.Set(42.5, generation);
    s->cpuKernelUtilization.Set(7.25, generation);
    s->memoryTotalBytes.Set(16ULL << 30, generation);
    s->logicalProcessorCount = 16;
    for (std::uint32_t i = 0; i < 16; ++i) {
        LogicalProcessorSnapshot cpu;
        cpu.index = i;
        cpu.utilization.Set(10.0 + i, generation);
        cpu.kernelUtilization.Set(1.0, generation);
        s->logicalProcessors.push_back(cpu);
    }
    s->processes.reserve(kProcesses);
    const std::uint32_t churnBase = 1 + static_cast<std::uint32_t>(generation % 50) * kChurnPerTick;
    for (std::uint32_t i = 0; i < kProcesses; ++i) {
        ProcessSnapshot p;
        const bool churned = i >= churnBase && i < churnBase + kChurnPerTick;
        p.key = {100 + i, churned ? 5000 + generation : 1000 + i};
        p.parentKey = i == 0 ? ProcessKey{} : ProcessKey{100, 1000};
        p.name = "process-" + std::to_string(i);
        p.executablePath = "/usr/bin/" + p.name;
        p.userName = "user";
        p.state = ProcessState::sleeping;
        ForEachMetric(p, [&](auto& metric, bool isPercent) {
            using T = typename std::decay_t<decltype(metric)>::value_type;
            if constexpr (std::is_same_v<T, double>) {
                metric.Set(isPercent ? 1.5 : 1024.0, generation);
            } else if constexpr (std::is_same_v<T, std::uint64_t>) {
                metric.Set(4096, generation);
            }
            metric.source = "linux.procfs";
        });
        s->processes.push_back(std::move(p));
    }
    std::sort(s->processes.begin(), s->processes.end(),
              [](const ProcessSnapshot& a, const ProcessSnapshot& b) { return a.key < b.key; });
    return s;
}

// Repair, health-row text, coherence check and exited-process update: the work the engine's thread
// does for each sample between Collect and publication.
void BM_EngineTickPipeline(benchmark::State& state) {
    ExitedProcessTracker tracker;
    EngineStats stats;
    std::uint64_t generation = 1;
    tracker.Update(MakeSnapshot(generation));
    // Published snapshots die on the reader's side, so their destruction is kept out of the timing.
    std::vector<std::shared_ptr<SystemSnapshot>> published;
    for (auto _ : state) {
        state.PauseTiming();
        published.clear();
        auto snapshot = MakeSnapshot(++generation);
        published.push_back(snapshot);
        state.ResumeTiming();
        const RepairCounts repairs = RepairSnapshot(*snapshot);
        ProviderHealthRecord row;
        row.provider = "sampling-engine";
        row.diagnostic = BuildEngineDiagnostic(stats, repairs);
        snapshot->providers.push_back(std::move(row));
        const bool coherent = IsCoherent(*snapshot);
        if (coherent) tracker.Update(snapshot);
        benchmark::DoNotOptimize(coherent);
    }
    state.counters["processes"] = kProcesses;
}
BENCHMARK(BM_EngineTickPipeline)->Unit(benchmark::kMicrosecond);

// The three parts of the pipeline on their own, on a warm snapshot.
void BM_RepairSnapshot(benchmark::State& state) {
    auto snapshot = MakeSnapshot(3);
    for (auto _ : state) benchmark::DoNotOptimize(RepairSnapshot(*snapshot));
}
BENCHMARK(BM_RepairSnapshot)->Unit(benchmark::kMicrosecond);
void BM_IsCoherent(benchmark::State& state) {
    auto snapshot = MakeSnapshot(3);
    for (auto _ : state) benchmark::DoNotOptimize(IsCoherent(*snapshot));
}
BENCHMARK(BM_IsCoherent)->Unit(benchmark::kMicrosecond);
void BM_ExitedProcessUpdate(benchmark::State& state) {
    ExitedProcessTracker tracker;
    std::vector<std::shared_ptr<SystemSnapshot>> pool;
    for (int i = 1; i <= 60; ++i) pool.push_back(MakeSnapshot(i));
    std::size_t i = 0;
    for (auto _ : state) {
        tracker.Update(pool[i % pool.size()]);
        ++i;
    }
}
BENCHMARK(BM_ExitedProcessUpdate)->Unit(benchmark::kMicrosecond);

// A source that hands out prepared snapshots, so that its own cost is a pointer move.
class PreparedSource final : public ISnapshotSource {
public:
    std::shared_ptr<SystemSnapshot> next;
    std::shared_ptr<SystemSnapshot> Collect(const SampleRequest& request) override {
        auto snapshot = std::move(next);
        if (snapshot) snapshot->generation = request.sequence;
        return snapshot;
    }
    void ResetBaselines() override {}
};

// A whole tick through the real engine thread: wake-up by RequestSample, Collect, the pipeline above
// and the hand-over to the sink.
void BM_EngineTickRoundTrip(benchmark::State& state) {
    PreparedSource source;
    std::mutex mutex;
    std::condition_variable published;
    std::uint64_t count = 0;
    SamplingEngine engine(
        source,
        [&](std::shared_ptr<const SystemSnapshot>) {
            std::lock_guard lock(mutex);
            ++count;
            published.notify_all();
        },
        Cadence::paused);
    engine.Start();
    std::uint64_t generation = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto snapshot = MakeSnapshot(++generation);
        std::uint64_t expected;
        {
            std::lock_guard lock(mutex);
            expected = count + 1;
        }
        source.next = std::move(snapshot);
        state.ResumeTiming();
        engine.RequestSample();
        std::unique_lock lock(mutex);
        published.wait(lock, [&] { return count >= expected; });
    }
    engine.Stop();
}
BENCHMARK(BM_EngineTickRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

// For scale: what a full copy of such a snapshot costs, the largest allocation a tick can make.
void BM_SnapshotCopy(benchmark::State& state) {
    const auto snapshot = MakeSnapshot(7);
    for (auto _ : state) {
        SystemSnapshot copy = *snapshot;
        benchmark::DoNotOptimize(copy.processes.data());
    }
}
BENCHMARK(BM_SnapshotCopy)->Unit(benchmark::kMicrosecond);

}  // namespace
