#include "core/sampling_engine.h"

#include "core/snapshot_coherence.h"

#include <algorithm>
#include <limits>

namespace korv::core {
namespace {

constexpr std::int64_t kIntervals[] = {250'000'000, 500'000'000, 1'000'000'000, 2'000'000'000, 0};

std::uint64_t SaturatingIncrement(std::atomic<std::uint64_t>& counter) noexcept {
    std::uint64_t current = counter.load(std::memory_order_relaxed);
    while (current != std::numeric_limits<std::uint64_t>::max() &&
           !counter.compare_exchange_weak(current, current + 1, std::memory_order_relaxed)) {
    }
    return current == std::numeric_limits<std::uint64_t>::max() ? current : current + 1;
}

void SaturatingAddTo(std::atomic<std::uint64_t>& counter, std::uint64_t amount) noexcept {
    std::uint64_t current = counter.load(std::memory_order_relaxed);
    std::uint64_t next;
    do {
        next = current > std::numeric_limits<std::uint64_t>::max() - amount ? std::numeric_limits<std::uint64_t>::max()
                                                                            : current + amount;
    } while (!counter.compare_exchange_weak(current, next, std::memory_order_relaxed));
}

// The engine whose worker runs on this thread, if any. A sink runs on the worker with the publish
// lock held, so stop and join called from there must neither take that lock nor wait for the worker.
thread_local const SamplingEngine* workerOf = nullptr;

std::uint64_t* RepairFields(RepairCounts& counts, std::size_t index) noexcept {
    std::uint64_t* fields[] = {&counts.percentagesClamped,   &counts.metricsMarkedUnavailable,
                               &counts.duplicateRowsDropped, &counts.parentLinksDetached,
                               &counts.sessionMembersDropped, &counts.serviceLinksDetached,
                               &counts.exitedEntriesDropped, &counts.processorCountsCorrected};
    return fields[index];
}

}  // namespace

std::int64_t CadenceIntervalNs(Cadence cadence) noexcept {
    const auto index = static_cast<std::uint32_t>(cadence);
    return index < std::size(kIntervals) ? kIntervals[index] : 1'000'000'000;
}

SamplingEngine::SamplingEngine(ISnapshotSource& source, SnapshotSink snapshotSink, Cadence cadence,
                               StatsSink statsSink)
    : source_(source), snapshotSink_(std::move(snapshotSink)), statsSink_(std::move(statsSink)), cadence_(cadence) {}

SamplingEngine::~SamplingEngine() {
    Stop();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void SamplingEngine::Start() {
    std::lock_guard lock(stateMutex_);
    if (started_ || joining_ || thread_.joinable()) return;
    started_ = true;
    publishing_ = true;
    stopSource_ = std::stop_source{};
    thread_ = std::thread([this, token = stopSource_.get_token()] { Run(token); });
}

void SamplingEngine::SetCadence(Cadence cadence) {
    {
        std::lock_guard lock(stateMutex_);
        if (cadence == cadence_) return;
        const Cadence old = cadence_;
        ++cadenceChanges_;
        cadence_ = cadence;
        if (cadence == Cadence::paused) {
            wake_ = false;
            resetPending_ = true;
        } else {
            wake_ = true;
            if (old == Cadence::paused) resetPending_ = true;
        }
    }
    stateChanged_.notify_all();
}

void SamplingEngine::RequestSample() {
    {
        std::lock_guard lock(stateMutex_);
        wake_ = true;
        oneShot_ = true;
    }
    stateChanged_.notify_all();
}

bool SamplingEngine::OnWorkerThread() const noexcept {
    return workerOf == this;
}

void SamplingEngine::RequestStop() {
    {
        // On the worker the publish lock is either held by this very thread (inside a sink) or free
        // of any sink; either way the sink that runs now is the caller, and no other will follow.
        std::unique_lock<std::mutex> publishLock;
        if (!OnWorkerThread()) publishLock = std::unique_lock(publishMutex_);
        std::lock_guard stateLock(stateMutex_);
        publishing_ = false;
        stopSource_.request_stop();
    }
    stateChanged_.notify_all();
}

void SamplingEngine::Join() {
    // The worker cannot join itself, nor wait for a joiner who is waiting for it.
    if (OnWorkerThread()) return;
    std::thread worker;
    {
        std::unique_lock lock(stateMutex_);
        stateChanged_.wait(lock, [&] { return !joining_; });
        worker = std::move(thread_);
        if (!worker.joinable()) return;
        joining_ = true;
        stopSource_.request_stop();
    }
    stateChanged_.notify_all();
    worker.join();
    {
        std::lock_guard lock(stateMutex_);
        joining_ = false;
    }
    stateChanged_.notify_all();
}

void SamplingEngine::Stop() {
    RequestStop();
    Join();
}

Cadence SamplingEngine::CurrentCadence() const {
    std::lock_guard lock(stateMutex_);
    return cadence_;
}

EngineStats SamplingEngine::Stats() const noexcept {
    EngineStats stats;
    stats.collectFailures = counters_.collectFailures.load(std::memory_order_relaxed);
    stats.incoherentSnapshots = counters_.incoherentSnapshots.load(std::memory_order_relaxed);
    stats.cadenceOverruns = counters_.cadenceOverruns.load(std::memory_order_relaxed);
    stats.consecutiveDrops = counters_.consecutiveDrops.load(std::memory_order_relaxed);
    stats.lastDropReason = static_cast<DropReason>(counters_.lastDropReason.load(std::memory_order_relaxed));
    stats.repairedSamples = counters_.repairedSamples.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < std::size(counters_.repairs); ++i) {
        *RepairFields(stats.repairs, i) = counters_.repairs[i].load(std::memory_order_relaxed);
    }
    return stats;
}

void SamplingEngine::RecordDrop(DropReason reason, std::string_view text) {
    counters_.lastDropReason.store(static_cast<std::uint32_t>(reason), std::memory_order_relaxed);
    SaturatingIncrement(counters_.consecutiveDrops);
    auto& counter = reason == DropReason::collect ? counters_.collectFailures : counters_.incoherentSnapshots;
    const std::uint64_t count = SaturatingIncrement(counter);
    ReportRateLimited("snapshot dropped", text, count);
}

void SamplingEngine::AddRepairs(const RepairCounts& counts) {
    RepairCounts copy = counts;
    for (std::size_t i = 0; i < std::size(counters_.repairs); ++i) {
        SaturatingAddTo(counters_.repairs[i], *RepairFields(copy, i));
    }
    const std::uint64_t repaired = SaturatingIncrement(counters_.repairedSamples);
    ReportRateLimited("snapshot repaired", "coherence repairs applied before publication", repaired);
}

void SamplingEngine::AppendHealthRow(SystemSnapshot& snapshot, const RepairCounts& sampleRepairs) const {
    const bool present = std::any_of(snapshot.providers.begin(), snapshot.providers.end(),
                                     [](const ProviderHealthRecord& row) { return row.provider == kEngineProviderName; });
    if (present) return;
    const EngineStats stats = Stats();
    ProviderHealthRecord row;
    row.provider = std::string(kEngineProviderName);
    row.state = sampleRepairs.Sum() != 0 || stats.consecutiveDrops != 0 ? ProviderHealth::degraded
                                                                        : ProviderHealth::healthy;
    row.lastGoodGeneration = snapshot.generation;
    row.lastGoodMonotonicNs = snapshot.monotonicNs;
    row.consecutiveFailures = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(stats.consecutiveDrops, std::numeric_limits<std::uint32_t>::max()));
    row.droppedEvents = stats.collectFailures > std::numeric_limits<std::uint64_t>::max() - stats.incoherentSnapshots
                            ? std::numeric_limits<std::uint64_t>::max()
                            : stats.collectFailures + stats.incoherentSnapshots;
    row.diagnostic = BuildEngineDiagnostic(stats, sampleRepairs);
    snapshot.providers.push_back(std::move(row));
}

void SamplingEngine::PublishStats(std::unique_lock<std::mutex>& stateLock, const std::stop_token& stop) {
    if (!statsSink_) return;
    stateLock.unlock();
    {
        std::lock_guard publishLock(publishMutex_);
        stateLock.lock();
        const bool deliver = publishing_ && !stop.stop_requested();
        stateLock.unlock();
        if (deliver) {
            try {
                statsSink_(Stats());
            } catch (...) {
                // A throwing sink is ignored.
            }
        }
    }
    stateLock.lock();
}

void SamplingEngine::Run(std::stop_token stop) {
    workerOf = this;
    std::unique_lock lock(stateMutex_);
    Clock::time_point deadline = Clock::now();
    Clock::time_point previousStart{};
    bool firstTick = true;

    for (;;) {
        if (stop.stop_requested()) {
            started_ = false;
            lock.unlock();
            stateChanged_.notify_all();
            return;
        }

        if (cadence_ == Cadence::paused && !oneShot_) {
            const std::uint64_t seen = cadenceChanges_;
            stateChanged_.wait(lock, stop, [&] { return cadenceChanges_ != seen || oneShot_; });
            deadline = Clock::now();
            continue;
        }
        if (!wake_ && Clock::now() < deadline) {
            const std::uint64_t seen = cadenceChanges_;
            stateChanged_.wait_until(lock, stop, deadline,
                                     [&] { return wake_ || oneShot_ || cadenceChanges_ != seen; });
            continue;
        }

        const bool oneShotTick = oneShot_;
        oneShot_ = false;
        const bool pausedTick = cadence_ == Cadence::paused;
        const std::int64_t interval = CadenceIntervalNs(pausedTick ? Cadence::normal : cadence_);

        const Clock::time_point start = Clock::now();
        const bool reset = resetPending_;
        resetPending_ = false;
        const std::uint64_t sequence = sequence_++;
        std::int64_t elapsed = interval;
        if (!firstTick) {
            elapsed = std::max<std::int64_t>(
                0, std::chrono::duration_cast<std::chrono::nanoseconds>(start - previousStart).count());
            if (elapsed == 0 || reset) elapsed = interval;
        }
        firstTick = false;
        previousStart = start;
        const std::uint64_t changesAtStart = cadenceChanges_;
        wake_ = false;
        lock.unlock();

        bool threw = false;
        std::shared_ptr<SystemSnapshot> snapshot;
        try {
            if (reset) source_.ResetBaselines();
            snapshot = source_.Collect(SampleRequest{sequence, interval, elapsed, reset, stop});
        } catch (...) {
            snapshot.reset();
            threw = true;
            if (!stop.stop_requested()) RecordDrop(DropReason::collect, "provider Collect() threw");
        }

        bool coherent = false;
        bool repaired = false;
        if (snapshot) {
            const RepairCounts repairs = RepairSnapshot(*snapshot);
            repaired = repairs.Sum() != 0;
            if (repaired) AddRepairs(repairs);
            AppendHealthRow(*snapshot, repairs);
            coherent = IsCoherent(*snapshot);
            if (coherent) exitedTracker_.Update(snapshot);
        }

        lock.lock();
        deadline = start + std::chrono::nanoseconds(interval);
        const Clock::time_point now = Clock::now();
        if (!pausedTick && now > deadline) {
            const std::uint64_t overruns = SaturatingIncrement(counters_.cadenceOverruns);
            ReportRateLimited("sampling cadence overrun", "collection exceeded cadence budget", overruns);
            const auto sinceStart = std::chrono::duration_cast<std::chrono::nanoseconds>(now - start).count();
            deadline = start + std::chrono::nanoseconds((sinceStart / interval + 1) * interval);
        }

        bool dropped = threw;
        if (!snapshot && !threw && !stop.stop_requested()) {
            RecordDrop(DropReason::collect, "provider returned no snapshot");
            dropped = true;
        } else if (snapshot && !coherent) {
            RecordDrop(DropReason::incoherent, "snapshot failed the coherence check");
            dropped = true;
        } else if (coherent) {
            counters_.consecutiveDrops.store(0, std::memory_order_relaxed);
            counters_.lastDropReason.store(0, std::memory_order_relaxed);
        }

        if ((dropped || repaired) && publishing_ && !stop.stop_requested()) PublishStats(lock, stop);

        if (!coherent) {
            if (cadenceChanges_ != changesAtStart && cadence_ != Cadence::paused) wake_ = true;
            continue;
        }

        // A sample taken at an old speed is never shown.
        const auto stillPublishable = [&] {
            if (cadence_ == Cadence::paused && !oneShotTick) return false;
            if (cadenceChanges_ != changesAtStart) {
                if (cadence_ != Cadence::paused) wake_ = true;
                return false;
            }
            return !stop.stop_requested();
        };
        if (!stillPublishable()) continue;

        lock.unlock();
        {
            std::lock_guard publishLock(publishMutex_);
            lock.lock();
            const bool deliver = publishing_ && stillPublishable();
            lock.unlock();
            if (deliver) {
                try {
                    snapshotSink_(std::shared_ptr<const SystemSnapshot>(std::move(snapshot)));
                } catch (...) {
                    // A throwing sink is ignored.
                }
            }
        }
        lock.lock();
    }
}

}  // namespace korv::core
