#include "host/linux_client/process_cell_text.h"
#include "host/linux_client/process_cpu_smoother.h"
#include "host/linux_client/process_glow.h"
#include "host/linux_client/process_key_table.h"
#include "host/linux_client/process_row.h"
#include "host/linux_client/process_table_columns.h"
#include "host/linux_client/process_table_model.h"
#include "host/linux_client/process_tree_builder.h"
#include "tests/gui/process_snapshot_script.h"

#include <gtest/gtest.h>

#include <QAbstractItemModelTester>
#include <QBrush>
#include <QFont>
#include <QGuiApplication>
#include <QPalette>
#include <QPersistentModelIndex>
#include <QSignalSpy>

#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <optional>
#include <set>

namespace korv::host::linux_client {
namespace {

using core::MetricAvailability;
using core::ProcessKey;
using test::DesktopProcesses;
using test::FindScripted;
using test::Scripted;
using test::ScriptedProcess;
using test::ScriptedSnapshot;

constexpr int kCpu = static_cast<int>(ProcessTableColumn::cpu);
constexpr int kMemory = static_cast<int>(ProcessTableColumn::memory);

class ProcessTableModelTest : public ::testing::Test {
protected:
    ProcessTableModelTest() : tester_(&model_, QAbstractItemModelTester::FailureReportingMode::Fatal) {
        model_.FreezeClockAt(10'000);
    }

    bool Apply(std::uint64_t generation, const std::vector<ScriptedProcess>& processes) {
        return model_.ApplySnapshot(ScriptedSnapshot(generation, processes));
    }
    QModelIndex Row(std::uint32_t pid, int column = 0, std::uint64_t start = 100) const {
        return model_.IndexForKey(ProcessKey{pid, start}, column);
    }
    QString Text(std::uint32_t pid, int column, std::uint64_t start = 100) const {
        return model_.data(Row(pid, column, start)).toString();
    }
    int Alpha(std::uint32_t pid, int column, std::uint64_t start = 100) const {
        const QVariant background = model_.data(Row(pid, column, start), Qt::BackgroundRole);
        return background.isValid() ? background.value<QBrush>().color().alpha() : 0;
    }
    QString ParentName(std::uint32_t pid) const {
        return model_.data(Row(pid).parent()).toString();
    }
    // The keys of every row that a recorded dataChanged range covers.
    std::set<ProcessKey> CoveredKeys(const QSignalSpy& changes) const {
        std::set<ProcessKey> keys;
        for (const QList<QVariant>& change : changes) {
            const QModelIndex topLeft = change[0].value<QModelIndex>();
            const QModelIndex bottomRight = change[1].value<QModelIndex>();
            EXPECT_EQ(topLeft.parent(), bottomRight.parent());
            for (int row = topLeft.row(); row <= bottomRight.row(); ++row) {
                const QModelIndex index = model_.index(row, 0, topLeft.parent());
                if (const auto key = model_.KeyForIndex(index)) keys.insert(*key);
            }
        }
        return keys;
    }

    ProcessTableModel model_;
    QAbstractItemModelTester tester_;
};

TEST_F(ProcessTableModelTest, FirstSnapshotLightsNothingAndANewProcessGlowsInBothCells) {
    auto processes = DesktopProcesses();
    EXPECT_TRUE(Apply(1, processes));
    EXPECT_FALSE(model_.AnyGlowActive());
    EXPECT_EQ(Alpha(301, kCpu), 0);

    processes.push_back(Scripted(500, 300, "make").Cpu(7.0));
    EXPECT_FALSE(Apply(2, processes));
    EXPECT_EQ(Alpha(500, kCpu), 117);
    EXPECT_EQ(Alpha(500, kMemory), 117);
    EXPECT_EQ(Alpha(301, kCpu), 0) << "an unchanged cell stays dark";
    EXPECT_EQ(Alpha(500, 0), 0) << "only the CPU and memory cells glow";
    EXPECT_TRUE(model_.AnyGlowActive());
}

// A memory text that changes because the unit or the total changed glows like any other change.
TEST_F(ProcessTableModelTest, MemoryTextsChangedByTheUnitOrTheTotalGlow) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    EXPECT_FALSE(model_.AnyGlowActive());

    model_.SetShowMemoryPercent(true);
    Apply(2, processes);
    EXPECT_TRUE(Text(301, kMemory).endsWith(QLatin1Char('%'))) << Text(301, kMemory).toStdString();
    EXPECT_GT(Alpha(301, kMemory), 0);
    EXPECT_GT(Alpha(400, kMemory), 0);
    EXPECT_EQ(Alpha(301, kCpu), 0) << "the processor figure did not change";

    model_.FreezeClockAt(20'000);  // every glow has faded
    auto halved = ScriptedSnapshot(3, processes);
    halved->memoryTotalBytes.Set(8ULL * 1024 * 1024 * 1024);
    const QString before = Text(301, kMemory);
    model_.ApplySnapshot(halved);
    EXPECT_NE(Text(301, kMemory), before);
    EXPECT_GT(Alpha(301, kMemory), 0);
}

TEST_F(ProcessTableModelTest, GlowFadesOverOnePointThreeSecondsAndSaysSoThroughTheTick) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    FindScripted(processes, 301)->cpu = 55.0;
    Apply(2, processes);
    EXPECT_EQ(Alpha(301, kCpu), 117);
    model_.FreezeClockAt(10'650);
    EXPECT_EQ(Alpha(301, kCpu), 59);  // half strength: trunc(58.65 + 0.5)

    ProcessTableModel::GlowTick tick = model_.TickGlow();
    EXPECT_EQ(tick.cpuCells, std::vector<ProcessKey>{(ProcessKey{301, 100})});
    EXPECT_TRUE(tick.memoryCells.empty());

    model_.FreezeClockAt(11'300);
    EXPECT_EQ(Alpha(301, kCpu), 0);
    tick = model_.TickGlow();
    EXPECT_EQ(tick.cpuCells.size(), 1U) << "an ended glow is listed once more so that its cell is cleared";
    EXPECT_FALSE(model_.AnyGlowActive());
    EXPECT_TRUE(model_.TickGlow().cpuCells.empty());
}

TEST_F(ProcessTableModelTest, EarlierChangesOfAPassGlowBrighterDownToATenth) {
    std::vector<ScriptedProcess> processes;
    for (std::uint32_t pid = 10; pid < 24; ++pid) processes.push_back(Scripted(pid, 0, "worker").Cpu(1.0));
    Apply(1, processes);
    for (ScriptedProcess& process : processes) process.cpu = 2.0;
    Apply(2, processes);
    // Slots follow the snapshot's order here, so the rank is the position.
    const int expected[] = {117, 106, 94, 82, 70, 59, 47, 35, 23, 12, 12, 12, 12, 12};
    for (std::uint32_t rank = 0; rank < 14; ++rank) {
        EXPECT_EQ(Alpha(10 + rank, kCpu), expected[rank]) << "rank " << rank;
    }
}

TEST_F(ProcessTableModelTest, AGlowLitAgainAddsWhatRemainsOfTheOldOne) {
    std::vector<ScriptedProcess> processes;
    for (std::uint32_t pid = 10; pid < 16; ++pid) processes.push_back(Scripted(pid, 0, "worker").Cpu(1.0));
    Apply(1, processes);
    processes[5].cpu = 2.0;
    Apply(2, processes);
    EXPECT_EQ(Alpha(15, kCpu), 117);
    model_.FreezeClockAt(10'650);
    for (ScriptedProcess& process : processes) process.cpu += 1.0;
    Apply(3, processes);
    // Rank 5 gives 0.5, and half of the first glow remains: 1.0 again.
    EXPECT_EQ(Alpha(15, kCpu), 117);
    EXPECT_EQ(Alpha(14, kCpu), 70);
}

TEST_F(ProcessTableModelTest, ARenameIsPatchedInPlaceAndAnnouncedForThatRowOnly) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    const QPersistentModelIndex gcc(Row(301));
    const quintptr slot = gcc.internalId();
    QSignalSpy resets(&model_, &QAbstractItemModel::modelAboutToBeReset);
    QSignalSpy changes(&model_, &QAbstractItemModel::dataChanged);

    FindScripted(processes, 301)->name = "cc1plus";
    EXPECT_FALSE(Apply(2, processes));
    EXPECT_EQ(resets.count(), 0);
    ASSERT_TRUE(gcc.isValid());
    EXPECT_EQ(gcc.internalId(), slot);
    EXPECT_EQ(gcc.data().toString(), QStringLiteral("cc1plus"));
    EXPECT_EQ(CoveredKeys(changes), (std::set<ProcessKey>{ProcessKey{301, 100}}));
    ASSERT_EQ(changes.count(), 1);
    const QModelIndex topLeft = changes[0][0].value<QModelIndex>();
    const QModelIndex bottomRight = changes[0][1].value<QModelIndex>();
    EXPECT_EQ(topLeft.internalId(), slot);
    EXPECT_EQ(bottomRight.internalId(), slot);
    EXPECT_EQ(topLeft.column(), 0);
    EXPECT_EQ(bottomRight.column(), 12);
}

TEST_F(ProcessTableModelTest, AnUnchangedSnapshotAnnouncesNothing) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    QSignalSpy changes(&model_, &QAbstractItemModel::dataChanged);
    QSignalSpy inserts(&model_, &QAbstractItemModel::rowsInserted);
    QSignalSpy removals(&model_, &QAbstractItemModel::rowsRemoved);
    EXPECT_FALSE(Apply(2, processes));
    EXPECT_EQ(changes.count() + inserts.count() + removals.count(), 0);
}

TEST_F(ProcessTableModelTest, ExitsAndNewSubtreesArePatchedWithoutAReset) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    QSignalSpy resets(&model_, &QAbstractItemModel::modelAboutToBeReset);
    QSignalSpy inserts(&model_, &QAbstractItemModel::rowsInserted);
    QSignalSpy removals(&model_, &QAbstractItemModel::rowsRemoved);

    // The shell and its compiler go together; a new terminal with a shell inside comes.
    std::erase_if(processes, [](const ScriptedProcess& p) { return p.pid == 300 || p.pid == 301; });
    processes.push_back(Scripted(600, 1, "xterm"));
    processes.push_back(Scripted(601, 600, "zsh"));
    processes.push_back(Scripted(602, 601, "vim"));
    EXPECT_FALSE(Apply(2, processes));
    EXPECT_EQ(resets.count(), 0);
    EXPECT_EQ(removals.count(), 1) << "the compiler goes with its shell";
    EXPECT_EQ(inserts.count(), 3) << "one round per level of the new subtree";
    EXPECT_FALSE(Row(301).isValid());
    EXPECT_EQ(ParentName(602), QStringLiteral("zsh"));
    EXPECT_EQ(ParentName(600), QStringLiteral("systemd"));

    // The two freed slots are taken again before the vector grows by one.
    const std::set<int> reused{*model_.SlotForIndex(Row(600)), *model_.SlotForIndex(Row(601)),
                               *model_.SlotForIndex(Row(602))};
    EXPECT_EQ(reused, (std::set<int>{3, 4, 8}));
}

TEST_F(ProcessTableModelTest, AReparentedProcessResetsOnceAndKeepsItsTexts) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    QSignalSpy resets(&model_, &QAbstractItemModel::modelReset);
    FindScripted(processes, 301)->parentPid = 1;
    EXPECT_TRUE(Apply(2, processes));
    EXPECT_EQ(resets.count(), 1);
    EXPECT_EQ(ParentName(301), QStringLiteral("systemd"));
    EXPECT_FALSE(model_.AnyGlowActive()) << "a rebuild alone lights nothing";
    EXPECT_FALSE(Apply(3, processes));
    EXPECT_EQ(resets.count(), 1);
}

TEST_F(ProcessTableModelTest, ARepeatedKeyResetsAndTheFirstRowWins) {
    auto processes = DesktopProcesses();
    Apply(1, processes);
    auto snapshot = ScriptedSnapshot(2, processes);
    core::ProcessSnapshot twin = snapshot->processes[4];
    twin.name = "impostor";
    snapshot->processes.push_back(twin);
    EXPECT_TRUE(model_.ApplySnapshot(snapshot));
    EXPECT_EQ(Text(301, 0), QStringLiteral("gcc"));
    EXPECT_EQ(model_.LiveRowCount(), processes.size());
}

TEST_F(ProcessTableModelTest, AReusedPidIsANewRowAndTheOldOneShowsAsExitedWithAFadingWash) {
    auto processes = DesktopProcesses();
    auto first = ScriptedSnapshot(1, processes);
    model_.ApplySnapshot(first);

    ScriptedProcess reused = *FindScripted(processes, 301);
    reused.start = 900;
    reused.name = "ld";
    std::erase_if(processes, [](const ScriptedProcess& p) { return p.pid == 301; });
    processes.push_back(reused);
    auto second = ScriptedSnapshot(2, processes);
    core::ExitedProcessRecord record;
    record.process = first->processes[4];
    record.exitedAtNs = second->monotonicNs;
    second->exitedProcesses.push_back(record);

    model_.SetExitedProcesses(second->exitedProcesses);
    model_.ApplySnapshot(second);
    ASSERT_TRUE(Row(301, 0, 100).isValid());
    ASSERT_TRUE(Row(301, 0, 900).isValid());
    EXPECT_TRUE(model_.RowIsExited(ProcessKey{301, 100}));
    EXPECT_FALSE(model_.RowIsExited(ProcessKey{301, 900}));
    EXPECT_EQ(Text(301, static_cast<int>(ProcessTableColumn::status), 100), QStringLiteral("Exited"));
    EXPECT_EQ(Text(301, 0, 900), QStringLiteral("ld"));
    EXPECT_EQ(model_.ExitedRowCount(), 1U);
    EXPECT_EQ(model_.RowSnapshot(Row(301, 0, 100))->name, "gcc");

    // Greyed text, and a red wash in every column that fades over five seconds.
    const QPalette palette = QGuiApplication::palette();
    const QColor grey = MixColors(palette.color(QPalette::Text), palette.color(QPalette::Base), 0.45);
    EXPECT_EQ(model_.data(Row(301, 3, 100), Qt::ForegroundRole).value<QBrush>().color(), grey);
    EXPECT_FALSE(model_.data(Row(301, 3, 900), Qt::ForegroundRole).isValid());
    EXPECT_EQ(Alpha(301, 0, 100), 77);
    EXPECT_EQ(Alpha(301, 12, 100), 77);
    EXPECT_EQ(Alpha(301, kCpu, 100), 77) << "an exited row does not glow";
    model_.FreezeClockAt(12'500);
    EXPECT_EQ(Alpha(301, 0, 100), 38);
    EXPECT_TRUE(model_.AnyExitFadeActive());
    EXPECT_EQ(model_.TickGlow().exitedRows, std::vector<ProcessKey>{(ProcessKey{301, 100})});
    model_.FreezeClockAt(15'000);
    EXPECT_EQ(Alpha(301, 0, 100), 0);
    model_.TickGlow();
    EXPECT_FALSE(model_.AnyExitFadeActive());
}

TEST_F(ProcessTableModelTest, AnExitedRecordOfALiveKeyIsNotShownTwice) {
    auto processes = DesktopProcesses();
    auto snapshot = ScriptedSnapshot(1, processes);
    core::ExitedProcessRecord record;
    record.process = snapshot->processes[4];
    model_.SetExitedProcesses(std::vector<core::ExitedProcessRecord>{record});
    model_.ApplySnapshot(snapshot);
    EXPECT_EQ(model_.ExitedRowCount(), 0U);
    EXPECT_FALSE(model_.RowIsExited(ProcessKey{301, 100}));
}

TEST_F(ProcessTableModelTest, GroupsWithoutMembersHaveNoHeaderAndApplicationsCountIdentities) {
    std::vector<ScriptedProcess> background{Scripted(1, 0, "systemd"), Scripted(2, 1, "cron")};
    Apply(1, background);
    ASSERT_EQ(model_.rowCount(), 1);
    EXPECT_EQ(model_.data(model_.index(0, 0)).toString(), QStringLiteral("Background processes (2)"));
    EXPECT_TRUE(model_.IsGroupHeader(model_.index(0, 0)));
    EXPECT_FALSE(model_.KeyForIndex(model_.index(0, 0)).has_value());

    Apply(2, DesktopProcesses());
    ASSERT_EQ(model_.rowCount(), 2);
    const QModelIndex applications = model_.IndexForKey(kApplicationsHeaderKey);
    // firefox and its helper share one identity.
    EXPECT_EQ(model_.data(applications).toString(), QStringLiteral("Applications (1)"));
    EXPECT_EQ(model_.data(model_.IndexForKey(kBackgroundHeaderKey)).toString(),
              QStringLiteral("Background processes (4)"));
    EXPECT_EQ(model_.flags(applications), Qt::ItemFlags(Qt::ItemIsEnabled));
    EXPECT_EQ(model_.data(applications, Qt::FontRole).value<QFont>().weight(), QFont::Bold);
    EXPECT_FALSE(model_.data(applications.sibling(applications.row(), kCpu)).isValid());
}

TEST_F(ProcessTableModelTest, ARowHangsUnderItsParentOnlyWithinItsOwnGroup) {
    Apply(1, DesktopProcesses());
    // firefox's parent is systemd, a background process: firefox stands at the top of its group.
    EXPECT_EQ(Row(200).parent(), model_.IndexForKey(kApplicationsHeaderKey));
    EXPECT_EQ(ParentName(201), QStringLiteral("firefox"));

    model_.SetRollUpEnabled(false);
    EXPECT_TRUE(Apply(2, DesktopProcesses()));
    EXPECT_EQ(Row(301).parent(), model_.IndexForKey(kBackgroundHeaderKey)) << "flat mode";
    EXPECT_EQ(Row(201).parent(), model_.IndexForKey(kApplicationsHeaderKey));
}

TEST_F(ProcessTableModelTest, ALoopOfParentsStillYieldsAReachableTree) {
    std::vector<ScriptedProcess> processes{Scripted(10, 12, "a").Cpu(1.0),
                                           Scripted(11, 10, "b").Cpu(2.0),
                                           Scripted(12, 11, "c").Cpu(4.0),
                                           Scripted(13, 13, "self").Cpu(8.0)};
    Apply(1, processes);
    for (std::uint32_t pid : {10U, 11U, 12U, 13U}) {
        QModelIndex up = Row(pid);
        ASSERT_TRUE(up.isValid());
        int depth = 0;
        while (up.parent().isValid() && depth < 10) {
            up = up.parent();
            ++depth;
        }
        EXPECT_EQ(up, model_.IndexForKey(kBackgroundHeaderKey)) << pid;
    }
    // Whichever of the three stands at the top of the loop shows the whole loop's sum when folded.
    const QModelIndex background = model_.IndexForKey(kBackgroundHeaderKey);
    std::optional<ProcessKey> top;
    for (int row = 0; row < model_.rowCount(background); ++row) {
        const auto key = model_.KeyForIndex(model_.index(row, 0, background));
        if (key && key->pid != 13) top = key;
    }
    ASSERT_TRUE(top.has_value());
    model_.SetCollapsedKeys({*top});
    EXPECT_EQ(Text(top->pid, kCpu), QStringLiteral("7.0%"));
}

struct RollUpCase {
    const char* name;
    double cpuCap;
    double parentCpu;
    double childCpu;
    const char* expected;
};

class CollapsedCpuSum : public ProcessTableModelTest, public ::testing::WithParamInterface<RollUpCase> {};

TEST_P(CollapsedCpuSum, IsClampedToTheCap) {
    const RollUpCase& c = GetParam();
    model_.SetCpuCapPercent(c.cpuCap);
    std::vector<ScriptedProcess> processes{Scripted(10, 0, "parent").Cpu(c.parentCpu),
                                           Scripted(11, 10, "child").Cpu(c.childCpu)};
    Apply(1, processes);
    model_.SetCollapsedKeys({ProcessKey{10, 100}});
    EXPECT_EQ(Text(10, kCpu), QString::fromLatin1(c.expected));
    EXPECT_EQ(Text(11, kCpu), QString::asprintf("%.1f%%", c.childCpu));
}

INSTANTIATE_TEST_SUITE_P(
    Caps, CollapsedCpuSum,
    ::testing::Values(RollUpCase{"oneProcessor", 100.0, 60.0, 70.0, "100.0%"},
                      RollUpCase{"capBelowHundred", 50.0, 60.0, 70.0, "100.0%"},
                      RollUpCase{"fourProcessors", 400.0, 160.0, 170.0, "330.0%"},
                      RollUpCase{"fourProcessorsCapped", 400.0, 300.0, 170.0, "400.0%"},
                      RollUpCase{"underTheCap", 100.0, 10.0, 20.5, "30.5%"}),
    [](const auto& testInfo) { return std::string(testInfo.param.name); });

TEST_F(ProcessTableModelTest, CollapsingShowsTheSubtreeSumsAndAnnouncesTheFigureColumns) {
    Apply(1, DesktopProcesses());
    QSignalSpy changes(&model_, &QAbstractItemModel::dataChanged);
    model_.SetRowCollapsed(ProcessKey{300, 100}, true);
    EXPECT_EQ(Text(300, kCpu), QStringLiteral("40.0%"));
    EXPECT_EQ(Text(300, kMemory), QStringLiteral("305.0 MB"));
    EXPECT_EQ(Text(300, static_cast<int>(ProcessTableColumn::threads)), QStringLiteral("4"));
    ASSERT_GT(changes.count(), 0);
    for (const QList<QVariant>& change : changes) {
        EXPECT_EQ(change[0].value<QModelIndex>().column(), kCpu);
        EXPECT_EQ(change[1].value<QModelIndex>().column(), static_cast<int>(ProcessTableColumn::fileDescriptors));
    }
    EXPECT_EQ(Alpha(300, kCpu), 117) << "the sum is a changed text";

    changes.clear();
    model_.SetRowCollapsed(ProcessKey{300, 100}, true);
    EXPECT_EQ(changes.count(), 0) << "no change, no work";
    model_.SetRowCollapsed(ProcessKey{300, 100}, false);
    EXPECT_EQ(Text(300, kCpu), QStringLiteral("0.0%"));
}

TEST_F(ProcessTableModelTest, HiddenPidIsLeftOutAndCounted) {
    model_.SetHiddenPid(301);
    Apply(1, DesktopProcesses());
    EXPECT_FALSE(Row(301).isValid());
    EXPECT_EQ(model_.HiddenRowCount(), 1U);
    EXPECT_EQ(model_.LiveRowCount() + model_.HiddenRowCount(), DesktopProcesses().size());
}

TEST_F(ProcessTableModelTest, CpuSmoothingFollowsRealSampleTimeAndCanBeTurnedOff) {
    std::vector<ScriptedProcess> processes{Scripted(10, 0, "worker").Cpu(0.0)};
    model_.ApplySnapshot(ScriptedSnapshot(1, processes, 1000));
    processes[0].cpu = 100.0;
    model_.ApplySnapshot(ScriptedSnapshot(2, processes, 2000));
    EXPECT_EQ(Text(10, kCpu), QStringLiteral("28.0%")) << "28 % of the distance per second";
    model_.ApplySnapshot(ScriptedSnapshot(3, processes, 2500));
    const double expected = 100.0 * (1.0 - std::pow(0.72, 0.5)) + 28.0 * std::pow(0.72, 0.5);
    EXPECT_EQ(Text(10, kCpu), QString::asprintf("%.1f%%", expected));

    model_.SetSmoothCpu(false);
    processes[0].cpu = 10.0;
    model_.ApplySnapshot(ScriptedSnapshot(4, processes, 3000));
    EXPECT_EQ(Text(10, kCpu), QStringLiteral("10.0%"));
    model_.SetSmoothCpu(true);
    processes[0].cpu = 90.0;
    model_.ApplySnapshot(ScriptedSnapshot(5, processes, 4000));
    EXPECT_EQ(Text(10, kCpu), QStringLiteral("90.0%")) << "the first reading after turning it on is raw";
}

TEST_F(ProcessTableModelTest, MemoryPercentNeedsAKnownTotal) {
    auto processes = DesktopProcesses();
    auto snapshot = ScriptedSnapshot(1, processes);
    model_.ApplySnapshot(snapshot);
    QSignalSpy layouts(&model_, &QAbstractItemModel::layoutChanged);
    model_.SetShowMemoryPercent(true);
    EXPECT_EQ(layouts.count(), 1);
    EXPECT_EQ(Text(200, kMemory), QStringLiteral("4.9%"));
    EXPECT_DOUBLE_EQ(model_.data(Row(200, kMemory), kProcessSortRole).toDouble(), 800.0 * 100.0 / (16.0 * 1024.0));

    auto unknownTotal = ScriptedSnapshot(2, processes);
    unknownTotal->memoryTotalBytes.MarkMissing(MetricAvailability::accessDenied);
    QSignalSpy changes(&model_, &QAbstractItemModel::dataChanged);
    model_.ApplySnapshot(unknownTotal);
    EXPECT_EQ(Text(200, kMemory), QStringLiteral("800.0 MB"));
    const std::set<ProcessKey> covered = CoveredKeys(changes);
    EXPECT_EQ(covered.size(), processes.size()) << "every process row is announced, since its percent may move";
    EXPECT_FALSE(model_.AnyGlowActive()) << "a change of unit is no change of the process";
}

TEST_F(ProcessTableModelTest, FollowedRowIsFlaggedInItsName) {
    Apply(1, DesktopProcesses());
    QSignalSpy followed(&model_, &ProcessTableModel::FollowedKeyChanged);
    model_.SetFollowedKey(ProcessKey{301, 100});
    EXPECT_EQ(Text(301, 0), QStringLiteral("\u2691 gcc"));
    EXPECT_EQ(model_.data(Row(301, 0), kProcessSortRole).toString(), QStringLiteral("gcc"));
    EXPECT_EQ(followed.count(), 1);
    model_.SetFollowedKey(std::nullopt);
    EXPECT_EQ(Text(301, 0), QStringLiteral("gcc"));
}

TEST_F(ProcessTableModelTest, BadIndexesAnswerNothing) {
    Apply(1, DesktopProcesses());
    const QModelIndex stale = Row(301);
    auto processes = DesktopProcesses();
    std::erase_if(processes, [](const ScriptedProcess& p) { return p.pid == 301; });
    Apply(2, processes);
    EXPECT_FALSE(model_.data(stale).isValid());
    EXPECT_EQ(model_.RowSnapshot(stale), nullptr);
    EXPECT_FALSE(model_.KeyForIndex(QModelIndex()).has_value());
    EXPECT_EQ(model_.flags(QModelIndex()), Qt::NoItemFlags);
    EXPECT_FALSE(model_.IndexForKey(ProcessKey{300, 100}, 13).isValid());
    EXPECT_TRUE(model_.IndexForKey(ProcessKey{300, 100}, 12).isValid());
}

// ---- cell texts ----

struct CellCase {
    const char* name;
    int column;
    MetricAvailability availability;
    const char* expected;
};

class ProcessCellWords : public ::testing::TestWithParam<CellCase> {};

TEST_P(ProcessCellWords, ShowTheValueOrTheAvailabilityWord) {
    const CellCase& c = GetParam();
    core::ProcessSnapshot process = test::MakeScriptedProcess(Scripted(7, 0, "x").Cpu(12.34).Memory(2048));
    core::Metric<double>& cpu = process.cpuPercent;
    core::Metric<std::uint64_t>& memory = process.workingSetBytes;
    if (c.availability == MetricAvailability::stale) {
        cpu.availability = MetricAvailability::stale;
        memory.availability = MetricAvailability::stale;
    } else if (!core::CarriesValue(c.availability)) {
        cpu.MarkMissing(c.availability);
        memory.MarkMissing(c.availability);
    }
    ProcessRowValues values;
    FillRowTexts(process, values);
    values.figures = FiguresOf(process, FigureOf(process.cpuPercent).value);
    EXPECT_EQ(ProcessCellText(values, values.figures, c.column, MemoryDisplayMode{}), QString::fromUtf8(c.expected));
}

INSTANTIATE_TEST_SUITE_P(
    Words, ProcessCellWords,
    ::testing::Values(CellCase{"cpuValid", kCpu, MetricAvailability::valid, "12.3%"},
                      CellCase{"cpuStale", kCpu, MetricAvailability::stale, "12.3% (stale)"},
                      CellCase{"cpuDenied", kCpu, MetricAvailability::accessDenied, "Access denied"},
                      CellCase{"cpuUnsupported", kCpu, MetricAvailability::unsupported, "Unavailable"},
                      CellCase{"cpuNotYet", kCpu, MetricAvailability::notYetAvailable, "—"},
                      CellCase{"memoryValid", kMemory, MetricAvailability::valid, "2.0 KB"},
                      CellCase{"memoryStale", kMemory, MetricAvailability::stale, "2.0 KB (stale)"},
                      CellCase{"memoryTransient", kMemory, MetricAvailability::transientError, "Unavailable"}),
    [](const auto& testInfo) { return std::string(testInfo.param.name); });

TEST(ProcessCellText, StateWordsAndNonFiniteValues) {
    EXPECT_EQ(ProcessStateWord(core::ProcessState::notResponding), QStringLiteral("Not responding"));
    EXPECT_EQ(ProcessStateWord(static_cast<core::ProcessState>(42)), QStringLiteral("Unknown"));
    core::Metric<double> infinite;
    infinite.availability = MetricAvailability::valid;
    infinite.value = std::numeric_limits<double>::infinity();
    const RowFigure<double> figure = FigureOf(infinite);
    EXPECT_FALSE(figure.value.has_value());
    EXPECT_EQ(figure.availability, MetricAvailability::valid);
    core::Metric<double> denied;
    denied.availability = MetricAvailability::accessDenied;
    denied.value = 3.0;  // a broken record: the value is not taken
    EXPECT_FALSE(FigureOf(denied).value.has_value());
}

TEST(ProcessTableColumns, NamesRoundTripAndUnknownsMapToNothing) {
    for (int column = 0; column < kProcessTableColumnCount; ++column) {
        EXPECT_EQ(ProcessTableColumnFromName(ProcessTableColumnName(column)), column);
    }
    EXPECT_EQ(ProcessTableColumnName(5), QStringLiteral("memory"));
    EXPECT_EQ(ProcessTableColumnName(12), QStringLiteral("command"));
    EXPECT_FALSE(ProcessTableColumnFromName(QStringLiteral("Memory")).has_value());
    EXPECT_TRUE(ProcessTableColumnName(13).isEmpty());
    EXPECT_TRUE(ProcessTableColumnName(-1).isEmpty());
    EXPECT_EQ(ProcessTableColumnAlignment(1), Qt::AlignRight | Qt::AlignVCenter);
    EXPECT_EQ(ProcessTableColumnAlignment(12), Qt::AlignLeft | Qt::AlignVCenter);
}

// ---- the pure helpers ----

struct CombineCase {
    const char* name;
    bool leftHas;
    MetricAvailability left;
    bool rightHas;
    MetricAvailability right;
    MetricAvailability expected;
};

class SumAvailability : public ::testing::TestWithParam<CombineCase> {};

TEST_P(SumAvailability, FollowsTheRules) {
    const CombineCase& c = GetParam();
    EXPECT_EQ(CombineAvailability(c.leftHas, c.left, c.rightHas, c.right), c.expected);
    if (c.leftHas == c.rightHas) {
        EXPECT_EQ(CombineAvailability(c.rightHas, c.right, c.leftHas, c.left), c.expected) << "symmetric";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rules, SumAvailability,
    ::testing::Values(
        CombineCase{"bothValid", true, MetricAvailability::valid, true, MetricAvailability::zero, MetricAvailability::valid},
        CombineCase{"oneStale", true, MetricAvailability::valid, true, MetricAvailability::stale, MetricAvailability::stale},
        CombineCase{"onlyLeft", true, MetricAvailability::zero, false, MetricAvailability::accessDenied,
                    MetricAvailability::zero},
        CombineCase{"onlyRightStale", false, MetricAvailability::accessDenied, true, MetricAvailability::stale,
                    MetricAvailability::stale},
        CombineCase{"deniedBeatsNotYet", false, MetricAvailability::notYetAvailable, false,
                    MetricAvailability::accessDenied, MetricAvailability::accessDenied},
        CombineCase{"notYetBeatsTransient", false, MetricAvailability::transientError, false,
                    MetricAvailability::notYetAvailable, MetricAvailability::notYetAvailable},
        CombineCase{"transientBeatsUnsupported", false, MetricAvailability::unsupported, false,
                    MetricAvailability::transientError, MetricAvailability::transientError}),
    [](const auto& testInfo) { return std::string(testInfo.param.name); });

TEST(ProcessTreeBuilder, UnsignedSumsSaturate) {
    ProcessRowFigures a;
    a.memoryBytes = {std::numeric_limits<std::uint64_t>::max() - 1, MetricAvailability::valid};
    a.threadCount = std::numeric_limits<std::uint32_t>::max();
    ProcessRowFigures b;
    b.memoryBytes = {5, MetricAvailability::valid};
    b.threadCount = 3;
    const ProcessRowFigures sum = AddSubtreeFigures(a, b);
    EXPECT_EQ(sum.memoryBytes.value, std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(sum.threadCount, std::numeric_limits<std::uint32_t>::max());
}

TEST(ProcessTreeBuilder, IncompatibleShapesAreRecognised) {
    std::vector<ProcessRow> rows(2);
    rows[0].base.key = ProcessKey{1, 1};
    rows[0].children = {1};
    rows[1].base.key = ProcessKey{2, 1};
    rows[1].parentIndex = 0;
    const ProcessKeyTable slotMap{{ProcessKey{1, 1}, 0}, {ProcessKey{2, 1}, 1}};
    std::vector<int> passSlots;
    const std::vector<ProcessShapeEntry> same{{ProcessKey{1, 1}, std::nullopt}, {ProcessKey{2, 1}, ProcessKey{1, 1}}};
    EXPECT_TRUE(IsStructurallyCompatible(rows, slotMap, same, passSlots));
    EXPECT_EQ(passSlots, (std::vector<int>{0, 1}));
    const std::vector<ProcessShapeEntry> moved{{ProcessKey{1, 1}, std::nullopt}, {ProcessKey{2, 1}, std::nullopt}};
    EXPECT_FALSE(IsStructurallyCompatible(rows, slotMap, moved, passSlots));
    const std::vector<ProcessShapeEntry> chain{{ProcessKey{1, 1}, std::nullopt},
                                               {ProcessKey{4, 1}, ProcessKey{3, 1}},
                                               {ProcessKey{3, 1}, ProcessKey{2, 1}},
                                               {ProcessKey{2, 1}, ProcessKey{1, 1}}};
    EXPECT_TRUE(IsStructurallyCompatible(rows, slotMap, chain, passSlots)) << "placed over two rounds";
    EXPECT_EQ(passSlots, (std::vector<int>{0, -1, -1, 1}));
    const std::vector<ProcessShapeEntry> orphan{{ProcessKey{1, 1}, std::nullopt},
                                                {ProcessKey{2, 1}, ProcessKey{1, 1}},
                                                {ProcessKey{5, 1}, ProcessKey{9, 9}}};
    EXPECT_FALSE(IsStructurallyCompatible(rows, slotMap, orphan, passSlots));
}

TEST(ProcessCpuSmoother, KeepsItsValueWhenTimeStandsStillAndForgetsKeysLeftOut) {
    ProcessCpuSmoother smoother;
    core::Metric<double> reading;
    reading.Set(50.0);
    const ProcessKey key{1, 1};
    smoother.BeginPass(1);
    EXPECT_EQ(smoother.Smooth(key, reading, 1'000'000'000), 50.0);
    reading.Set(0.0);
    EXPECT_NEAR(*smoother.Smooth(key, reading, 3'000'000'000), 50.0 * 0.72 * 0.72, 1e-9);
    reading.Set(100.0);
    EXPECT_NEAR(*smoother.Smooth(key, reading, 3'000'000'000), 50.0 * 0.72 * 0.72, 1e-9);
    EXPECT_EQ(smoother.Smooth(key, reading, 0), 100.0) << "no sample time, no smoothing";
    reading.MarkMissing(MetricAvailability::accessDenied);
    EXPECT_FALSE(smoother.Smooth(key, reading, 4'000'000'000).has_value());
    smoother.EndPass();
    EXPECT_EQ(smoother.Size(), 1U) << "a key in the pass stays, with or without a reading";

    for (std::uint32_t pid = 2; pid < 40; ++pid) {
        smoother.BeginPass(1);
        reading.Set(static_cast<double>(pid));
        smoother.Smooth(ProcessKey{pid, 1}, reading, 5'000'000'000);
        smoother.EndPass();
        EXPECT_EQ(smoother.Size(), 1U);
    }
    smoother.BeginPass(1);
    reading.Set(7.0);
    EXPECT_DOUBLE_EQ(*smoother.Smooth(ProcessKey{39, 1}, reading, 6'000'000'000), 39.0 * 0.72 + 7.0 * 0.28);
    EXPECT_EQ(smoother.Smooth(key, reading, 6'000'000'000), 7.0) << "a key that was left out starts afresh";
    smoother.EndPass();
}

// The flat key table against an ordered map, through inserts, lookups and erases that make
// long probe runs wrap around the end of the array.
TEST(ProcessKeyTable, AgreesWithAnOrderedMap) {
    std::mt19937 random(3);
    ProcessKeyTable table;
    std::map<ProcessKey, int> reference;
    for (int step = 0; step < 20000; ++step) {
        const ProcessKey key{static_cast<std::uint32_t>(random() % 300), random() % 3};
        switch (random() % 4) {
        case 0:
        case 1: {
            const int index = static_cast<int>(random() % 1000);
            const auto [kept, inserted] = table.Insert(key, index);
            const auto [where, fresh] = reference.try_emplace(key, index);
            ASSERT_EQ(inserted, fresh);
            ASSERT_EQ(kept, where->second);
            break;
        }
        case 2:
            ASSERT_EQ(table.Erase(key), reference.erase(key) == 1);
            break;
        default:
            table.Assign(key, step);
            reference[key] = step;
            break;
        }
        ASSERT_EQ(table.Size(), reference.size());
    }
    for (std::uint32_t pid = 0; pid < 300; ++pid) {
        for (std::uint64_t start = 0; start < 3; ++start) {
            const auto found = reference.find(ProcessKey{pid, start});
            EXPECT_EQ(table.Find(ProcessKey{pid, start}), found == reference.end() ? -1 : found->second);
        }
    }
    table.Clear();
    EXPECT_TRUE(table.Empty());
    EXPECT_EQ(table.Find(ProcessKey{1, 1}), -1);
}

TEST(ProcessGlow, AlphasAndWashFollowTheirCurves) {
    EXPECT_EQ(GlowAlpha(1.0), 117);
    EXPECT_EQ(GlowAlpha(0.0), 0);
    EXPECT_EQ(ExitWashAlpha(1000, 1000), 77);
    EXPECT_EQ(ExitWashAlpha(2000, 1000), 77) << "an exit time ahead of now shows in full";
    EXPECT_EQ(ExitWashAlpha(1000, 5999), 0);
    EXPECT_EQ(ExitWashAlpha(1000, 6000), 0);
    EXPECT_EQ(RemainingGlow(CellGlow{1.0, 2000, true}, 1000), 0.0) << "a glow that starts later gives nothing";
    EXPECT_EQ(MixColors(QColor(0, 0, 0), QColor(255, 255, 255), 0.45), QColor(115, 115, 115));
}

}  // namespace
}  // namespace korv::host::linux_client
