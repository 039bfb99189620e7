#include "core/sampling_engine.h"
#include "host/linux_client/display_snapshot.h"
#include "host/linux_client/history_store.h"
#include "host/linux_client/snapshot_mailbox.h"
#include "tests/gui/window_test_support.h"

#include <gtest/gtest.h>

#include <ostream>

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QTest>

#include <cmath>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace korv::host::linux_client {
namespace {

using test::CoherentSnapshot;

// Stands for the window: counts delivery events and takes the snapshot on each, as the window does.
class Receiver : public QObject {
public:
    SnapshotMailbox* mailbox = nullptr;
    int events = 0;
    std::vector<std::uint64_t> delivered;

    bool event(QEvent* event) override {
        if (event->type() != SnapshotMailbox::DeliveryEventType()) {
            return QObject::event(event);
        }
        ++events;
        if (auto snapshot = mailbox->TakeForDelivery()) {
            delivered.push_back(snapshot->generation);
        }
        return true;
    }
};

class SnapshotMailboxTest : public ::testing::Test {
protected:
    SnapshotMailboxTest() : mailbox(&receiver) { receiver.mailbox = &mailbox; }

    // Lets the GUI thread run its posted events.
    void Pump() { QCoreApplication::sendPostedEvents(&receiver, SnapshotMailbox::DeliveryEventType()); }

    Receiver receiver;
    SnapshotMailbox mailbox;
};

TEST(SnapshotMailboxEventType, IsRegisteredOnceAsACustomType) {
    const QEvent::Type first = SnapshotMailbox::DeliveryEventType();
    EXPECT_GE(static_cast<int>(first), static_cast<int>(QEvent::User));
    EXPECT_EQ(SnapshotMailbox::DeliveryEventType(), first);
}

TEST_F(SnapshotMailboxTest, TenPostsWhileTheGuiIsBlockedGiveOneEventWithTheNewest) {
    // The GUI thread runs no events while another thread posts: it is blocked in join().
    std::thread engine([this] {
        for (std::uint64_t generation = 1; generation <= 10; ++generation) {
            mailbox.Post(CoherentSnapshot(generation));
        }
    });
    engine.join();
    EXPECT_TRUE(mailbox.DeliveryQueued());

    Pump();
    EXPECT_EQ(receiver.events, 1);
    EXPECT_EQ(receiver.delivered, std::vector<std::uint64_t>{10});
    EXPECT_FALSE(mailbox.DeliveryQueued());

    // After a delivery the next post queues a fresh event.
    mailbox.Post(CoherentSnapshot(11));
    Pump();
    EXPECT_EQ(receiver.events, 2);
    EXPECT_EQ(receiver.delivered, (std::vector<std::uint64_t>{10, 11}));
}

TEST_F(SnapshotMailboxTest, TenEngineTicksWhileTheGuiIsBlockedGiveOneEventWithTheNewest) {
    std::mutex mutex;
    std::condition_variable published;
    int publishedCount = 0;
    test::ScriptedSource source([](const core::SampleRequest& request) { return CoherentSnapshot(request.sequence); });
    core::SamplingEngine engine(
        source,
        [&](std::shared_ptr<const core::SystemSnapshot> snapshot) {
            mailbox.Post(std::move(snapshot));
            const std::lock_guard lock(mutex);
            ++publishedCount;
            published.notify_all();
        },
        core::Cadence::paused);
    engine.Start();
    // Ten one-shot ticks, each waited for on this (GUI) thread, which meanwhile runs no events.
    for (int tick = 1; tick <= 10; ++tick) {
        engine.RequestSample();
        std::unique_lock lock(mutex);
        ASSERT_TRUE(published.wait_for(lock, std::chrono::seconds(20), [&] { return publishedCount >= tick; }));
    }
    engine.Stop();

    Pump();
    EXPECT_EQ(receiver.events, 1);
    EXPECT_EQ(receiver.delivered, std::vector<std::uint64_t>{10});
}

TEST_F(SnapshotMailboxTest, DeliveryFromTheEventLoopArrivesWithoutExplicitPumping) {
    mailbox.Post(CoherentSnapshot(3));
    ASSERT_TRUE(QTest::qWaitFor([this] { return receiver.events == 1; }, 5000));
    EXPECT_EQ(receiver.delivered, std::vector<std::uint64_t>{3});
}

TEST_F(SnapshotMailboxTest, AnEmptyMailboxDeliversNothing) {
    EXPECT_EQ(mailbox.TakeForDelivery(), nullptr);
    EXPECT_FALSE(mailbox.DeliveryQueued());
}

TEST_F(SnapshotMailboxTest, CloseDropsTheWaitingSnapshotAndRefusesLaterPosts) {
    mailbox.Post(CoherentSnapshot(1));
    mailbox.Close();
    EXPECT_FALSE(mailbox.DeliveryQueued());
    mailbox.Post(CoherentSnapshot(2));
    EXPECT_FALSE(mailbox.DeliveryQueued());
    Pump();
    EXPECT_TRUE(receiver.delivered.empty());
    EXPECT_LE(receiver.events, 1);  // the event posted before the close finds nothing
}

TEST_F(SnapshotMailboxTest, AnIncoherentSnapshotThatReplacesACoherentOneDeliversNothing) {
    mailbox.Post(CoherentSnapshot(1));
    auto broken = CoherentSnapshot(2);
    broken->generation = 0;
    mailbox.Post(broken);
    Pump();
    EXPECT_EQ(receiver.events, 1);
    EXPECT_TRUE(receiver.delivered.empty());
    EXPECT_EQ(mailbox.IncoherentDropped(), 1U);
}

struct IncoherentCase {
    const char* name;
    std::function<void(core::SystemSnapshot&)> breakIt;
};

// Names the case in test listings instead of its bytes.
void PrintTo(const IncoherentCase& c, std::ostream* out) {
    *out << c.name;
}

class IncoherentDeliveryTest : public SnapshotMailboxTest, public ::testing::WithParamInterface<IncoherentCase> {};

TEST_P(IncoherentDeliveryTest, IsDroppedSilentlyAndTheNextCoherentOneArrives) {
    auto snapshot = CoherentSnapshot(5);
    GetParam().breakIt(*snapshot);
    mailbox.Post(snapshot);
    Pump();
    EXPECT_TRUE(receiver.delivered.empty());
    EXPECT_EQ(mailbox.IncoherentDropped(), 1U);

    mailbox.Post(CoherentSnapshot(6));
    Pump();
    EXPECT_EQ(receiver.delivered, std::vector<std::uint64_t>{6});
}

INSTANTIATE_TEST_SUITE_P(
    Breakages, IncoherentDeliveryTest,
    ::testing::Values(
        IncoherentCase{"GenerationZero", [](core::SystemSnapshot& s) { s.generation = 0; }},
        IncoherentCase{"UnknownSchema", [](core::SystemSnapshot& s) { s.schemaVersion = 2; }},
        IncoherentCase{"PercentAbove100",
                       [](core::SystemSnapshot& s) { s.cpuUtilization.Set(150.0, s.generation); }},
        IncoherentCase{"DuplicateProcessKeys",
                       [](core::SystemSnapshot& s) { s.processes.push_back(s.processes.front()); }},
        IncoherentCase{"ProviderFromTheFuture",
                       [](core::SystemSnapshot& s) { s.providers.front().lastGoodGeneration = s.generation + 1; }},
        IncoherentCase{"ProcessorCountMismatch",
                       [](core::SystemSnapshot& s) {
                           s.logicalProcessors.resize(2);
                           s.logicalProcessors[1].index = 1;
                           s.logicalProcessorCount = 3;
                       }}),
    [](const ::testing::TestParamInfo<IncoherentCase>& param) { return std::string(param.param.name); });

// Display scaling.

struct ScaleCase {
    bool perCore;
    std::uint32_t processors;
    double expected;
};

void PrintTo(const ScaleCase& c, std::ostream* out) {
    *out << (c.perCore ? "perCore" : "machine") << c.processors;
}

class CpuScaleTest : public ::testing::TestWithParam<ScaleCase> {};

TEST_P(CpuScaleTest, FollowsThePerCoreSettingAndTheProcessorCount) {
    core::SystemSnapshot snapshot;
    snapshot.logicalProcessorCount = GetParam().processors;
    EXPECT_DOUBLE_EQ(CpuScaleFor(snapshot, GetParam().perCore), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, CpuScaleTest,
                         ::testing::Values(ScaleCase{false, 8, 1.0}, ScaleCase{true, 8, 8.0},
                                           ScaleCase{true, 1, 1.0}, ScaleCase{true, 0, 1.0},
                                           ScaleCase{false, 0, 1.0}));

TEST(DisplaySnapshot, ScaleOneSharesTheSnapshot) {
    std::shared_ptr<const core::SystemSnapshot> snapshot = CoherentSnapshot(1);
    EXPECT_EQ(MakeDisplaySnapshot(snapshot, 1.0).get(), snapshot.get());
}

TEST(DisplaySnapshot, ScaledCopyMultipliesProcessSessionAndExitedCpuAndLeavesTheOriginal) {
    auto source = CoherentSnapshot(1);
    core::SessionSnapshot session;
    session.cpuPercent.Set(5.0, 1);
    source->sessions.push_back(session);
    core::SessionSnapshot quiet;  // no reading: stays without one
    source->sessions.push_back(quiet);
    core::ExitedProcessRecord exited;
    exited.process.key = core::ProcessKey{77, 5};
    exited.process.cpuPercent.Set(2.0, 1);
    source->exitedProcesses.push_back(exited);
    source->cpuUtilization.Set(40.0, 1);

    std::shared_ptr<const core::SystemSnapshot> original = source;
    const auto shown = MakeDisplaySnapshot(original, 4.0);
    ASSERT_NE(shown.get(), original.get());
    EXPECT_DOUBLE_EQ(*shown->processes.front().cpuPercent.value, 50.0);
    EXPECT_DOUBLE_EQ(*shown->sessions[0].cpuPercent.value, 20.0);
    EXPECT_FALSE(shown->sessions[1].cpuPercent.value.has_value());
    EXPECT_DOUBLE_EQ(*shown->exitedProcesses.front().process.cpuPercent.value, 8.0);
    // The machine-wide figure is a share of the whole machine either way.
    EXPECT_DOUBLE_EQ(*shown->cpuUtilization.value, 40.0);
    EXPECT_DOUBLE_EQ(*original->processes.front().cpuPercent.value, 12.5);
    EXPECT_DOUBLE_EQ(*original->sessions[0].cpuPercent.value, 5.0);
}

// History.

TEST(HistoryStore, CapacityFollowsTheGraphSettingsWithinBounds) {
    EXPECT_EQ(HistoryStore::CapacityFor(15, 16), 120U * 15U);
    EXPECT_EQ(HistoryStore::CapacityFor(4, 32), 60U * 4U);
    EXPECT_EQ(HistoryStore::CapacityFor(63, 1), 32768U);  // bounded above
    EXPECT_EQ(HistoryStore::CapacityFor(1, 32), 64U);     // bounded below
}

TEST(HistorySeries, KeepsTheNewestPointsOldestFirst) {
    HistorySeries series(3);
    for (std::uint64_t generation = 1; generation <= 5; ++generation) {
        series.Append({generation, generation * 10, static_cast<double>(generation)});
    }
    ASSERT_EQ(series.Size(), 3U);
    EXPECT_EQ(series.At(0).generation, 3U);
    EXPECT_EQ(series.At(2).generation, 5U);
    EXPECT_EQ(series.Latest().generation, 5U);
    EXPECT_THROW((void)series.At(3), std::out_of_range);
}

std::shared_ptr<core::SystemSnapshot> SnapshotWithDevices(std::uint64_t generation, bool withDisk) {
    auto snapshot = CoherentSnapshot(generation);
    snapshot->cpuUtilization.Set(10.0 * static_cast<double>(generation), generation);
    snapshot->memoryInUseBytes.Set(1000 + generation, generation);
    snapshot->logicalProcessors.resize(2);
    for (std::uint32_t index = 0; index < 2; ++index) {
        snapshot->logicalProcessors[index].index = index;
        snapshot->logicalProcessors[index].utilization.Set(5.0 + index, generation);
    }
    snapshot->logicalProcessorCount = 2;
    if (withDisk) {
        core::DeviceSnapshot disk;
        disk.kind = core::DeviceKind::disk;
        disk.id = "nvme0n1";
        disk.disk.activePercent.Set(33.0, generation);
        disk.disk.readBytesPerSecond.Set(4096.0, generation);
        snapshot->devices.push_back(disk);
    }
    core::DeviceSnapshot network;
    network.kind = core::DeviceKind::network;
    network.id = "eth0";
    network.network.receiveBytesPerSecond.Set(100.0, generation);
    snapshot->devices.push_back(network);
    core::DeviceSnapshot gpu;
    gpu.kind = core::DeviceKind::gpu;
    gpu.id = "card0";
    gpu.gpu.utilizationPercent.Set(70.0, generation);
    snapshot->devices.push_back(gpu);
    return snapshot;
}

TEST(HistoryStore, FeedsCpuMemoryAndEveryDeviceById) {
    HistoryStore store(16);
    store.Append(*SnapshotWithDevices(1, true));
    store.Append(*SnapshotWithDevices(2, true));
    for (const char* id : {"cpu.total", "cpu.logical.0", "cpu.logical.1", "memory.inUse", "disk.nvme0n1.active",
                           "disk.nvme0n1.read", "network.eth0.receive", "gpu.card0.utilization"}) {
        const HistorySeries* series = store.Find(id);
        ASSERT_NE(series, nullptr) << id;
        EXPECT_EQ(series->Size(), 2U) << id;
    }
    EXPECT_DOUBLE_EQ(*store.Find("cpu.total")->Latest().value, 20.0);
    EXPECT_DOUBLE_EQ(*store.Find("cpu.logical.1")->Latest().value, 6.0);
    EXPECT_DOUBLE_EQ(*store.Find("memory.inUse")->At(0).value, 1001.0);
    // Readings that are not there make no series.
    EXPECT_EQ(store.Find("disk.nvme0n1.write"), nullptr);
    EXPECT_EQ(store.Find("network.eth0.send"), nullptr);
    EXPECT_EQ(store.Find("cpu.kernel"), nullptr);
}

TEST(HistoryStore, AVanishedDeviceGetsGapsAndIsDroppedWhenOnlyGapsRemain) {
    HistoryStore store(3);
    store.Append(*SnapshotWithDevices(1, true));
    store.Append(*SnapshotWithDevices(2, false));
    const HistorySeries* disk = store.Find("disk.nvme0n1.active");
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->Size(), 2U);
    EXPECT_FALSE(disk->Latest().value.has_value());
    EXPECT_EQ(disk->Latest().generation, 2U);
    store.Append(*SnapshotWithDevices(3, false));
    EXPECT_NE(store.Find("disk.nvme0n1.active"), nullptr);  // one reading still in the ring
    store.Append(*SnapshotWithDevices(4, false));
    EXPECT_EQ(store.Find("disk.nvme0n1.active"), nullptr);
    EXPECT_NE(store.Find("network.eth0.receive"), nullptr);
}

}  // namespace
}  // namespace korv::host::linux_client
