#include "core/sampling_engine.h"
#include "core/telemetry_builder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <limits>
#include <stop_token>
#include <string>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace korv::core {
namespace {

using namespace std::chrono_literals;

// Generous: the machine is a noisy shared VM.
constexpr auto kWait = 20s;

std::uint64_t SteadyNowNs() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

std::shared_ptr<SystemSnapshot> GoodSnapshot(const SampleRequest& request) {
    auto snapshot = std::make_shared<SystemSnapshot>();
    snapshot->schemaVersion = kSnapshotSchemaVersion;
    snapshot->generation = request.sequence;
    snapshot->monotonicNs = SteadyNowNs();
    snapshot->cadenceNs = static_cast<std::uint64_t>(request.intervalNs);
    snapshot->elapsedNs = static_cast<std::uint64_t>(request.elapsedNs);
    return snapshot;
}

// A source whose behaviour per request is scripted by the test; it records what it was asked.
class ScriptedSource final : public ISnapshotSource {
public:
    using Behaviour = std::function<std::shared_ptr<SystemSnapshot>(const SampleRequest&)>;

    explicit ScriptedSource(Behaviour behaviour = GoodSnapshot) : behaviour_(std::move(behaviour)) {}

    std::shared_ptr<SystemSnapshot> Collect(const SampleRequest& request) override {
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
        }
        changed_.notify_all();
        return behaviour_(request);
    }

    void ResetBaselines() override { ++resets_; }

    std::vector<SampleRequest> Requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

    bool WaitForRequests(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] { return requests_.size() >= count; });
    }

    int Resets() const { return resets_.load(); }

private:
    Behaviour behaviour_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<SampleRequest> requests_;
    std::atomic<int> resets_{0};
};

// Collects what the engine publishes.
class Recorder {
public:
    SamplingEngine::SnapshotSink Sink() {
        return [this](std::shared_ptr<const SystemSnapshot> snapshot) {
            {
                std::lock_guard lock(mutex_);
                snapshots_.push_back(std::move(snapshot));
            }
            changed_.notify_all();
        };
    }

    SamplingEngine::StatsSink StatsSink() {
        return [this](const EngineStats& stats) {
            std::lock_guard lock(mutex_);
            stats_.push_back(stats);
        };
    }

    bool WaitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] { return snapshots_.size() >= count; });
    }

    std::vector<std::shared_ptr<const SystemSnapshot>> Snapshots() const {
        std::lock_guard lock(mutex_);
        return snapshots_;
    }

    std::vector<EngineStats> Stats() const {
        std::lock_guard lock(mutex_);
        return stats_;
    }

    std::size_t Count() const {
        std::lock_guard lock(mutex_);
        return snapshots_.size();
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::shared_ptr<const SystemSnapshot>> snapshots_;
    std::vector<EngineStats> stats_;
};

// Lets a test hold a Collect (or a sink) until it is released.
class Gate {
public:
    void Enter() {
        std::unique_lock lock(mutex_);
        entered_ = true;
        changed_.notify_all();
        changed_.wait(lock, [&] { return open_; });
    }
    bool WaitEntered() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] { return entered_; });
    }
    void Open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool entered_ = false;
    bool open_ = false;
};

const ProviderHealthRecord* EngineRow(const SystemSnapshot& snapshot) {
    for (const auto& row : snapshot.providers) {
        if (row.provider == kEngineProviderName) return &row;
    }
    return nullptr;
}

TEST(SamplingEngineCadence, IntervalTable) {
    EXPECT_EQ(CadenceIntervalNs(Cadence::high), 250'000'000);
    EXPECT_EQ(CadenceIntervalNs(Cadence::medium), 500'000'000);
    EXPECT_EQ(CadenceIntervalNs(Cadence::normal), 1'000'000'000);
    EXPECT_EQ(CadenceIntervalNs(Cadence::slow), 2'000'000'000);
    EXPECT_EQ(CadenceIntervalNs(Cadence::paused), 0);
    EXPECT_EQ(CadenceIntervalNs(static_cast<Cadence>(17)), 1'000'000'000);
}

TEST(SamplingEngine, FirstTickHasGenerationOneFullIntervalAndResetBaselines) {
    ScriptedSource source;
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high);
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(2));
    engine.Stop();

    const auto requests = source.Requests();
    ASSERT_GE(requests.size(), 2u);
    EXPECT_EQ(requests[0].sequence, 1u);
    EXPECT_EQ(requests[0].intervalNs, 250'000'000);
    EXPECT_EQ(requests[0].elapsedNs, 250'000'000);
    EXPECT_TRUE(requests[0].resetBaselines);
    EXPECT_EQ(requests[1].sequence, 2u);
    EXPECT_FALSE(requests[1].resetBaselines);
    EXPECT_GT(requests[1].elapsedNs, 0);
    EXPECT_EQ(source.Resets(), 1);

    const auto snapshots = recorder.Snapshots();
    EXPECT_EQ(snapshots[0]->generation, 1u);
    const auto* row = EngineRow(*snapshots[0]);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->state, ProviderHealth::healthy);
    EXPECT_EQ(row->lastGoodGeneration, 1u);
    EXPECT_EQ(row->diagnostic, "No samples dropped or repaired.");
}

TEST(SamplingEngine, ThrowingSourceCostsOneTickAndLeavesAGenerationGap) {
    ScriptedSource source([](const SampleRequest& request) -> std::shared_ptr<SystemSnapshot> {
        if (request.sequence == 2) throw std::runtime_error("collector failed");
        return GoodSnapshot(request);
    });
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high, recorder.StatsSink());
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(3));
    engine.Stop();

    const auto snapshots = recorder.Snapshots();
    EXPECT_EQ(snapshots[0]->generation, 1u);
    EXPECT_EQ(snapshots[1]->generation, 3u);
    EXPECT_EQ(snapshots[2]->generation, 4u);

    const auto* row = EngineRow(*snapshots[1]);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->state, ProviderHealth::degraded);
    EXPECT_EQ(row->consecutiveFailures, 1u);
    EXPECT_EQ(row->droppedEvents, 1u);
    EXPECT_EQ(row->diagnostic, "1 sample dropped (1 collect failure), 1 in a row before this sample; no samples repaired");
    // The good sample cleared the run of drops.
    const auto* next = EngineRow(*snapshots[2]);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->state, ProviderHealth::healthy);
    EXPECT_EQ(next->diagnostic, "1 sample dropped (1 collect failure); no samples repaired");

    const auto stats = engine.Stats();
    EXPECT_EQ(stats.collectFailures, 1u);
    EXPECT_EQ(stats.consecutiveDrops, 0u);
    EXPECT_EQ(stats.lastDropReason, DropReason::none);
    const auto reported = recorder.Stats();
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_EQ(reported[0].lastDropReason, DropReason::collect);
    EXPECT_EQ(reported[0].consecutiveDrops, 1u);
}

TEST(SamplingEngine, NullAndIncoherentSnapshotsAreDroppedWithTheirReasons) {
    ScriptedSource source([](const SampleRequest& request) -> std::shared_ptr<SystemSnapshot> {
        if (request.sequence == 1) return nullptr;
        auto snapshot = GoodSnapshot(request);
        if (request.sequence == 2 || request.sequence == 3) snapshot->schemaVersion = 7;  // cannot be repaired
        return snapshot;
    });
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high, recorder.StatsSink());
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(1));
    engine.Stop();

    EXPECT_EQ(recorder.Snapshots()[0]->generation, 4u);
    const auto stats = recorder.Stats();
    ASSERT_EQ(stats.size(), 3u);
    EXPECT_EQ(stats[0].lastDropReason, DropReason::collect);
    EXPECT_EQ(stats[1].lastDropReason, DropReason::incoherent);
    EXPECT_EQ(stats[2].consecutiveDrops, 3u);
    EXPECT_EQ(stats[2].incoherentSnapshots, 2u);
    const auto* row = EngineRow(*recorder.Snapshots()[0]);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->consecutiveFailures, 3u);
    EXPECT_EQ(row->diagnostic,
              "3 samples dropped (1 collect failure, 2 incoherent snapshots), 3 in a row before this sample; "
              "no samples repaired");
}

TEST(SamplingEngine, RepairedSnapshotIsPublishedClampedAndCounted) {
    ScriptedSource source([](const SampleRequest& request) {
        auto snapshot = GoodSnapshot(request);
        if (request.sequence == 1) snapshot->cpuUtilization.Set(150.0);
        return snapshot;
    });
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high, recorder.StatsSink());
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(2));
    engine.Stop();

    const auto snapshots = recorder.Snapshots();
    ASSERT_TRUE(snapshots[0]->cpuUtilization.value.has_value());
    EXPECT_EQ(*snapshots[0]->cpuUtilization.value, 100.0);
    const auto* row = EngineRow(*snapshots[0]);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->state, ProviderHealth::degraded);
    EXPECT_EQ(row->diagnostic,
              "No samples dropped; 1 sample repaired (1 percentage clamped); this sample needed 1 repair");
    EXPECT_EQ(EngineRow(*snapshots[1])->state, ProviderHealth::healthy);
    EXPECT_EQ(engine.Stats().repairedSamples, 1u);
    EXPECT_EQ(engine.Stats().repairs.percentagesClamped, 1u);
    ASSERT_EQ(recorder.Stats().size(), 1u);
}

// A snapshot whose telemetry frame was built before any repair, as the provider builds it: one
// percentage reading of 150 and one reading of NaN among sound ones.
std::shared_ptr<SystemSnapshot> SnapshotWithBadReadings(const SampleRequest& request) {
    auto snapshot = GoodSnapshot(request);
    snapshot->cpuUtilization.Set(150.0, request.sequence);
    snapshot->memoryPressurePercent.Set(std::numeric_limits<double>::quiet_NaN(), request.sequence);
    snapshot->memoryTotalBytes.Set(8ULL << 30, request.sequence);
    DeviceSnapshot gpu;
    gpu.kind = DeviceKind::gpu;
    gpu.id = "card0";
    gpu.displayName = "GPU 0";
    for (const char* name : {"Video Enhance", "video-enhance"}) {
        EngineUtilization engine;
        engine.name = name;
        engine.utilizationPercent.Set(25.0, request.sequence);
        gpu.gpu.engines.push_back(engine);
    }
    snapshot->devices.push_back(gpu);
    snapshot->telemetry = std::make_shared<const HardwareTelemetryFrame>(BuildTelemetryFrame(*snapshot));
    return snapshot;
}

TEST(SamplingEngine, BadTelemetryReadingsCostOnlyThoseReadings) {
    ScriptedSource source(SnapshotWithBadReadings);
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high);
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(2));
    engine.Stop();

    EXPECT_EQ(engine.Stats().incoherentSnapshots, 0u);
    for (const auto& snapshot : recorder.Snapshots()) {
        ASSERT_NE(snapshot->telemetry, nullptr);
        const HardwareTelemetryFrame& frame = *snapshot->telemetry;
        const TelemetryMetric* busy = frame.Find("cpu.package.utilization.busy_pct");
        ASSERT_NE(busy, nullptr);
        EXPECT_EQ(busy->availability, MetricAvailability::valid);
        EXPECT_EQ(busy->numericValue, 100.0);
        EXPECT_EQ(snapshot->cpuUtilization.value, 100.0);

        const TelemetryMetric* pressure = frame.Find("memory.pressure_pct");
        ASSERT_NE(pressure, nullptr);
        EXPECT_FALSE(CarriesValue(pressure->availability));
        EXPECT_FALSE(pressure->numericValue.has_value());
        EXPECT_FALSE(snapshot->memoryPressurePercent.value.has_value());

        const TelemetryMetric* total = frame.Find("memory.physical.total_bytes");
        ASSERT_NE(total, nullptr);
        EXPECT_EQ(total->numericValue, static_cast<double>(8ULL << 30));
        const TelemetryMetric* enhance = frame.Find("accelerator.engine.video_enhance.utilization_pct", "gpu:card0");
        const TelemetryMetric* second = frame.Find("accelerator.engine.video_enhance_2.utilization_pct", "gpu:card0");
        ASSERT_NE(enhance, nullptr);
        ASSERT_NE(second, nullptr);
        EXPECT_EQ(second->numericValue, 25.0);
    }
}

TEST(SamplingEngine, ProviderRowNamedLikeTheEngineIsKept) {
    ScriptedSource source([](const SampleRequest& request) {
        auto snapshot = GoodSnapshot(request);
        snapshot->providers.push_back(ProviderHealthRecord{.provider = "sampling-engine", .diagnostic = "own"});
        return snapshot;
    });
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high);
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(1));
    engine.Stop();
    const auto& providers = recorder.Snapshots()[0]->providers;
    ASSERT_EQ(providers.size(), 1u);
    EXPECT_EQ(providers[0].diagnostic, "own");
}

TEST(SamplingEngine, OverrunIsCountedAndMissedTicksAreNotMadeUp) {
    ScriptedSource source([](const SampleRequest& request) {
        if (request.sequence == 1) std::this_thread::sleep_for(400ms);
        return GoodSnapshot(request);
    });
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high);
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(2));
    engine.Stop();

    EXPECT_GE(engine.Stats().cadenceOverruns, 1u);
    // The 400 ms tick ends past two deadlines; the next starts at the next whole interval (500 ms
    // after the first start), not at once.
    const auto requests = source.Requests();
    EXPECT_GE(requests[1].elapsedNs, 500'000'000);
    EXPECT_NE(EngineRow(*recorder.Snapshots()[1])->diagnostic.find("cadence overrun"), std::string::npos);
}

TEST(SamplingEngine, CadenceChangeDuringCollectDiscardsThatSampleAndSamplesAtOnce) {
    Gate gate;
    ScriptedSource source([&](const SampleRequest& request) {
        if (request.sequence == 1) gate.Enter();
        return GoodSnapshot(request);
    });
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::slow);
    engine.Start();
    ASSERT_TRUE(gate.WaitEntered());
    engine.SetCadence(Cadence::normal);
    gate.Open();
    ASSERT_TRUE(recorder.WaitFor(1));
    engine.Stop();

    const auto snapshots = recorder.Snapshots();
    EXPECT_EQ(snapshots[0]->generation, 2u);
    const auto requests = source.Requests();
    EXPECT_EQ(requests[1].intervalNs, 1'000'000'000);
    // Taken at once rather than at the old 2 s deadline.
    EXPECT_LT(requests[1].elapsedNs, 2'000'000'000);
}

TEST(SamplingEngine, PausedEngineTakesOneShotsAtOneSecondAndStaysPaused) {
    ScriptedSource source;
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::paused);
    engine.Start();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(source.Requests().size(), 0u);

    engine.RequestSample();
    ASSERT_TRUE(recorder.WaitFor(1));
    EXPECT_EQ(source.Requests()[0].intervalNs, 1'000'000'000);
    EXPECT_EQ(engine.CurrentCadence(), Cadence::paused);

    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(source.Requests().size(), 1u);
    EXPECT_EQ(recorder.Count(), 1u);

    engine.RequestSample();
    ASSERT_TRUE(recorder.WaitFor(2));
    engine.Stop();
    EXPECT_EQ(recorder.Snapshots()[1]->generation, 2u);
}

TEST(SamplingEngine, TwoRequestsInOneTickGiveOneFurtherSample) {
    Gate gate;
    ScriptedSource source([&](const SampleRequest& request) {
        if (request.sequence == 1) gate.Enter();
        return GoodSnapshot(request);
    });
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::slow);
    engine.Start();
    ASSERT_TRUE(gate.WaitEntered());
    engine.RequestSample();
    engine.RequestSample();
    gate.Open();
    ASSERT_TRUE(recorder.WaitFor(2));
    // The next regular tick is 2 s after the second start; nothing may come before it.
    std::this_thread::sleep_for(700ms);
    engine.Stop();
    EXPECT_EQ(source.Requests().size(), 2u);
}

TEST(SamplingEngine, EnteringAndLeavingPauseResetBaselines) {
    ScriptedSource source;
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high);
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(2));
    engine.SetCadence(Cadence::paused);
    const std::size_t before = source.Requests().size();
    engine.SetCadence(Cadence::high);
    ASSERT_TRUE(source.WaitForRequests(before + 1));
    engine.Stop();

    const auto requests = source.Requests();
    const auto& resumed = requests[before];
    EXPECT_TRUE(resumed.resetBaselines);
    EXPECT_EQ(resumed.elapsedNs, resumed.intervalNs);
    EXPECT_EQ(source.Resets(), 2);
}

TEST(SamplingEngine, ExitedProcessesAreTrackedAcrossPublishedSnapshots) {
    ScriptedSource source([](const SampleRequest& request) {
        auto snapshot = GoodSnapshot(request);
        ProcessSnapshot survivor;
        survivor.key = {1, 10};
        snapshot->processes.push_back(survivor);
        if (request.sequence == 1) {
            ProcessSnapshot leaver;
            leaver.key = {42, 99};
            leaver.name = "leaver";
            snapshot->processes.push_back(leaver);
        }
        return snapshot;
    });
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high);
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(2));
    engine.Stop();

    const auto second = recorder.Snapshots()[1];
    ASSERT_EQ(second->exitedProcesses.size(), 1u);
    EXPECT_EQ(second->exitedProcesses[0].process.name, "leaver");
    EXPECT_EQ(second->exitedProcesses[0].exitedGeneration, 2u);
    EXPECT_EQ(second->exitedProcesses[0].exitedAtNs, second->monotonicNs);
}

TEST(SamplingEngine, ThrowingSinkIsIgnored) {
    ScriptedSource source;
    std::atomic<int> calls{0};
    SamplingEngine engine(
        source, [&](std::shared_ptr<const SystemSnapshot>) {
            ++calls;
            throw std::runtime_error("sink failed");
        },
        Cadence::high, [](const EngineStats&) { throw std::runtime_error("stats sink failed"); });
    engine.Start();
    ASSERT_TRUE(source.WaitForRequests(3));
    engine.Stop();
    EXPECT_GE(calls.load(), 2);
}

TEST(SamplingEngine, RequestStopWaitsForARunningSinkAndNoSinkRunsAfterIt) {
    ScriptedSource source;
    Gate gate;
    std::atomic<int> calls{0};
    std::atomic<bool> stopped{false};
    std::atomic<bool> calledAfterStop{false};
    SamplingEngine engine(
        source,
        [&](std::shared_ptr<const SystemSnapshot>) {
            if (stopped) calledAfterStop = true;
            if (++calls == 1) gate.Enter();
        },
        Cadence::high);
    engine.Start();
    ASSERT_TRUE(gate.WaitEntered());

    auto stopping = std::async(std::launch::async, [&] {
        engine.RequestStop();
        stopped = true;
    });
    EXPECT_EQ(stopping.wait_for(200ms), std::future_status::timeout);
    gate.Open();
    ASSERT_EQ(stopping.wait_for(kWait), std::future_status::ready);
    std::this_thread::sleep_for(300ms);
    engine.Join();
    EXPECT_FALSE(calledAfterStop);
    EXPECT_EQ(calls.load(), 1);
}

TEST(SamplingEngine, JoinFromTheWorkerThreadDoesNothing) {
    ScriptedSource source;
    std::atomic<int> calls{0};
    SamplingEngine* self = nullptr;
    SamplingEngine engine(
        source,
        [&](std::shared_ptr<const SystemSnapshot>) {
            self->Join();
            ++calls;
        },
        Cadence::high);
    self = &engine;
    engine.Start();
    ASSERT_TRUE(source.WaitForRequests(3));
    engine.Stop();
    EXPECT_GE(calls.load(), 2);
}

// Runs body on a thread of its own and tells whether it ended within a few seconds. A body that
// hangs is left behind with whatever it holds, so that the suite reports a failure instead of hanging.
bool EndsWithin(std::chrono::seconds limit, std::function<void()> body) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> ended = done->get_future();
    std::thread([done, body = std::move(body)] {
        body();
        done->set_value();
    }).detach();
    return ended.wait_for(limit) == std::future_status::ready;
}

// What a sink does to its own engine, from the snapshot sink or from the stats sink.
struct SinkStopCase {
    const char* name;
    bool fromStatsSink;
};

void PrintTo(const SinkStopCase& c, std::ostream* out) { *out << c.name; }

class SamplingEngineSinkStop : public ::testing::TestWithParam<SinkStopCase> {};

TEST_P(SamplingEngineSinkStop, SinkThatRequestsStopEndsTheEngine) {
    const bool fromStats = GetParam().fromStatsSink;
    // Left to leak if the engine hangs; see EndsWithin.
    auto* source = new ScriptedSource([fromStats](const SampleRequest& request) -> std::shared_ptr<SystemSnapshot> {
        return fromStats ? nullptr : GoodSnapshot(request);
    });
    auto* calls = new std::atomic<int>(0);
    auto* engine = new SamplingEngine*(nullptr);
    const auto stopFromSink = [calls, engine] {
        ++*calls;
        (*engine)->RequestStop();
    };
    auto* owned = new SamplingEngine(
        *source, [stopFromSink](std::shared_ptr<const SystemSnapshot>) { stopFromSink(); }, Cadence::high,
        [stopFromSink, fromStats](const EngineStats&) {
            if (fromStats) stopFromSink();
        });
    *engine = owned;
    owned->Start();
    const bool ended = EndsWithin(5s, [owned, calls] {
        while (calls->load() == 0) std::this_thread::sleep_for(1ms);
        owned->Join();
    });
    if (!ended) {
        FAIL() << "the engine deadlocked when its sink asked it to stop";
    }
    EXPECT_EQ(calls->load(), 1);
    delete owned;
    delete engine;
    delete calls;
    delete source;
}

INSTANTIATE_TEST_SUITE_P(Sinks, SamplingEngineSinkStop,
                         ::testing::Values(SinkStopCase{"SnapshotSink", false}, SinkStopCase{"StatsSink", true}),
                         [](const auto& param) { return std::string(param.param.name); });

TEST(SamplingEngine, JoinFromTheWorkerWhileAnotherThreadJoinsReturns) {
    // Left to leak if the engine hangs; see EndsWithin.
    auto* firstToken = new std::promise<std::stop_token>();
    auto* requests = new std::atomic<int>(0);
    auto* source = new ScriptedSource([firstToken, requests](const SampleRequest& request) {
        if (++*requests == 1) firstToken->set_value(request.stopState);
        return GoodSnapshot(request);
    });
    auto* gate = new Gate();
    auto* engine = new SamplingEngine*(nullptr);
    auto* owned = new SamplingEngine(
        *source,
        [gate, engine](std::shared_ptr<const SystemSnapshot>) {
            gate->Enter();
            (*engine)->Join();
        },
        Cadence::high);
    *engine = owned;
    owned->Start();
    const std::stop_token token = firstToken->get_future().get();
    ASSERT_TRUE(gate->WaitEntered());

    // The joiner requests stop once it has taken the thread; then the sink joins too.
    auto* joined = new std::atomic<bool>(false);
    const bool ended = EndsWithin(5s, [owned, gate, token, joined] {
        std::thread joiner([owned, joined] {
            owned->Join();
            *joined = true;
        });
        while (!token.stop_requested()) std::this_thread::sleep_for(1ms);
        gate->Open();
        joiner.join();
    });
    if (!ended) {
        FAIL() << "the worker's Join waited for the thread that was joining it";
    }
    EXPECT_TRUE(joined->load());
    delete owned;
    delete joined;
    delete engine;
    delete gate;
    delete source;
    delete requests;
    delete firstToken;
}

TEST(SamplingEngine, StopInterruptsASlowCollectThroughTheStopState) {
    std::atomic<bool> sawStop{false};
    ScriptedSource source([&](const SampleRequest& request) -> std::shared_ptr<SystemSnapshot> {
        while (!request.stopState.stop_requested()) std::this_thread::sleep_for(1ms);
        sawStop = true;
        return GoodSnapshot(request);
    });
    Recorder recorder;
    {
        SamplingEngine engine(source, recorder.Sink(), Cadence::high);
        engine.Start();
        ASSERT_TRUE(source.WaitForRequests(1));
    }
    EXPECT_TRUE(sawStop);
    EXPECT_EQ(recorder.Count(), 0u);
}

TEST(SamplingEngine, CanBeStartedAgainAfterStop) {
    ScriptedSource source;
    Recorder recorder;
    SamplingEngine engine(source, recorder.Sink(), Cadence::high);
    engine.Start();
    engine.Start();  // a second start is a no-op
    ASSERT_TRUE(recorder.WaitFor(1));
    engine.Stop();
    const std::size_t before = recorder.Count();
    engine.Start();
    ASSERT_TRUE(recorder.WaitFor(before + 1));
    engine.Stop();
    const auto snapshots = recorder.Snapshots();
    EXPECT_GT(snapshots.back()->generation, snapshots[before - 1]->generation);
}

}  // namespace
}  // namespace korv::core
