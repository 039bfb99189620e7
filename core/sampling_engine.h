#pragma once

#include "core/engine_stats.h"
#include "core/exited_process_tracker.h"
#include "core/platform_interfaces.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string_view>
#include <thread>

namespace korv::core {

enum class Cadence : std::uint32_t { high = 0, medium = 1, normal = 2, slow = 3, paused = 4 };

// 250 ms, 500 ms, 1 s, 2 s; paused is 0. Any other number gives 1 s.
std::int64_t CadenceIntervalNs(Cadence cadence) noexcept;

// Owns one worker thread that asks a source for a snapshot on a steady cadence, repairs it, refuses
// what is incoherent, adds its own health row, tracks exited processes and hands the result to one
// sink. Both sinks run on the worker thread, under the publish lock, so that RequestStop can wait
// them out. Start, SetCadence, RequestSample, RequestStop, Join and Stop may be called from any
// thread; the lock order is always publish, then state.
class SamplingEngine {
public:
    using SnapshotSink = std::function<void(std::shared_ptr<const SystemSnapshot>)>;
    using StatsSink = std::function<void(const EngineStats&)>;

    // The source is borrowed and must outlive the engine's thread.
    SamplingEngine(ISnapshotSource& source, SnapshotSink snapshotSink, Cadence cadence, StatsSink statsSink = {});
    ~SamplingEngine();

    SamplingEngine(const SamplingEngine&) = delete;
    SamplingEngine& operator=(const SamplingEngine&) = delete;

    void Start();
    // Entering and leaving pause reset the source's baselines; a new speed applies at once, and a
    // sample being collected at the old speed is discarded.
    void SetCadence(Cadence cadence);
    // One further sample as soon as possible, also while paused (at the 1 s interval).
    void RequestSample();
    // Once this returns no sink is running or will run. A sink may call it: then the calling sink is
    // the last.
    void RequestStop();
    // Waits for the worker to end; does nothing on the worker itself (a sink may call it).
    void Join();
    void Stop();

    Cadence CurrentCadence() const;
    EngineStats Stats() const noexcept;

private:
    using Clock = std::chrono::steady_clock;

    struct Counters {
        std::atomic<std::uint64_t> collectFailures{0};
        std::atomic<std::uint64_t> incoherentSnapshots{0};
        std::atomic<std::uint64_t> cadenceOverruns{0};
        std::atomic<std::uint64_t> consecutiveDrops{0};
        std::atomic<std::uint32_t> lastDropReason{0};
        std::atomic<std::uint64_t> repairedSamples{0};
        std::atomic<std::uint64_t> repairs[8]{};
    };

    bool OnWorkerThread() const noexcept;
    void Run(std::stop_token stop);
    void RecordDrop(DropReason reason, std::string_view text);
    void AddRepairs(const RepairCounts& counts);
    void AppendHealthRow(SystemSnapshot& snapshot, const RepairCounts& sampleRepairs) const;
    void PublishStats(std::unique_lock<std::mutex>& stateLock, const std::stop_token& stop);

    ISnapshotSource& source_;
    SnapshotSink snapshotSink_;
    StatsSink statsSink_;

    mutable std::mutex publishMutex_;
    mutable std::mutex stateMutex_;
    std::condition_variable_any stateChanged_;

    // Under stateMutex_.
    Cadence cadence_;
    std::uint64_t cadenceChanges_ = 0;
    bool started_ = false;
    bool joining_ = false;
    bool wake_ = false;
    bool oneShot_ = false;
    bool resetPending_ = true;
    bool publishing_ = false;
    std::uint64_t sequence_ = 1;
    std::stop_source stopSource_;
    std::thread thread_;

    Counters counters_;
    // Worker thread only.
    ExitedProcessTracker exitedTracker_;
};

}  // namespace korv::core
