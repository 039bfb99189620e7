// The process table with 5,000 scripted processes: an incremental refresh where 5 % of the rows
// changed, a refresh that must reset, and the page's whole refresh in a shown window.

#include "core/snapshot.h"
#include "host/linux_client/process_filter_proxy_model.h"
#include "host/linux_client/process_table_columns.h"
#include "host/linux_client/process_table_model.h"
#include "host/linux_client/process_tree_view.h"
#include "host/linux_client/processes_page.h"

#include <benchmark/benchmark.h>

#include <QApplication>
#include <QHeaderView>
#include <QItemSelectionModel>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using korv::core::ProcessKey;
using korv::core::ProcessSnapshot;
using korv::core::SystemSnapshot;
namespace gui = korv::host::linux_client;

constexpr std::size_t kProcessCount = 5000;
constexpr std::size_t kChangedEvery = 20;  // one row in twenty: 5 %
constexpr std::size_t kChurn = 10;         // leaves that end and are replaced per refresh

// The machine is shared: the fastest of several repetitions is the figure that tells the code's
// own cost, so that statistic is reported beside the mean.
void Configure(benchmark::internal::Benchmark* bench) {
    bench->Unit(benchmark::kMillisecond)->Repetitions(6)->ComputeStatistics("min", [](const std::vector<double>& v) {
        return *std::min_element(v.begin(), v.end());
    });
}

void EnsureApplication() {
    static std::unique_ptr<QApplication> application;
    if (QApplication::instance() != nullptr) return;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static int argc = 1;
    static char name[] = "korv-bench";
    static char* argv[] = {name, nullptr};
    application = std::make_unique<QApplication>(argc, argv);
}

// A desktop-like tree: systemd and kthreadd as roots, a few hundred kernel threads, system
// daemons, and three user sessions whose applications nest up to six levels deep. As on a real
// desktop most processes are leaves: about one in eight has children.
std::vector<ProcessSnapshot> ScriptedTree() {
    std::mt19937 random(20240607);
    const std::array<const char*, 12> daemons{"sshd", "cron", "dbus-daemon", "NetworkManager", "udisksd", "polkitd",
                                              "rsyslogd", "cupsd", "avahi-daemon", "containerd", "dockerd", "postgres"};
    const std::array<const char*, 10> apps{"firefox", "code", "thunderbird", "slack", "gnome-terminal", "spotify",
                                           "libreoffice", "gimp", "nautilus", "evince"};
    const std::array<const char*, 8> helpers{"Web Content", "node", "bash", "python3", "make", "gcc", "cc1plus",
                                             "RDD Process"};
    const std::array<const char*, 4> users{"alice", "bob", "carol", "postgres"};

    std::vector<ProcessSnapshot> processes;
    std::vector<int> depth;
    std::uint32_t nextPid = 1;
    const auto add = [&](std::uint32_t parent, std::string name, std::string user, korv::core::ProcessGroup group,
                         std::string application, int level) {
        ProcessSnapshot process;
        const std::uint32_t pid = nextPid++;
        process.key = ProcessKey{pid, 1000ULL + pid};
        if (parent != 0) process.parentKey = processes[parent - 1].key;
        process.executablePath = "/usr/bin/" + name;
        process.name = std::move(name);
        process.userName = std::move(user);
        process.state = korv::core::ProcessState::sleeping;
        process.group = group;
        process.applicationKey = std::move(application);
        const bool busy = random() % 5 == 0;
        process.cpuPercent.Set(busy ? static_cast<double>(random() % 400) / 10.0 : 0.0);
        process.workingSetBytes.Set((1 + random() % 500) * 1024ULL * 1024);
        process.virtualBytes.Set((64 + random() % 4000) * 1024ULL * 1024);
        process.threadCount.Set(1 + random() % 40);
        process.handleCount.Set(3 + random() % 200);
        process.nice.Set(0.0);
        process.readBytesPerSecond.Set(busy ? static_cast<double>(random() % 100000) : 0.0);
        process.writeBytesPerSecond.Set(0.0);
        processes.push_back(std::move(process));
        depth.push_back(level);
        return processes.back().key.pid;
    };
    using korv::core::ProcessGroup;
    const std::uint32_t systemd = add(0, "systemd", "root", ProcessGroup::background, "", 1);
    const std::uint32_t kthreadd = add(0, "kthreadd", "root", ProcessGroup::background, "", 1);
    for (int i = 0; i < 300; ++i) {
        add(kthreadd, "kworker/" + std::to_string(i % 8) + ":" + std::to_string(i), "root", ProcessGroup::background,
            "", 2);
    }
    std::vector<std::uint32_t> sessions;
    for (const char* user : {"alice", "bob", "carol"}) sessions.push_back(add(systemd, "systemd", user, ProcessGroup::background, "", 2));
    std::vector<std::uint32_t> systemParents{systemd};
    for (int i = 0; i < 120; ++i) {
        systemParents.push_back(add(systemd, daemons[i % daemons.size()], users[random() % users.size()],
                                    ProcessGroup::background, "", 2));
    }
    // Applications hang under the sessions; their helpers nest below them.
    std::vector<std::uint32_t> appParents;
    for (int i = 0; i < 90; ++i) {
        const std::uint32_t session = sessions[static_cast<std::size_t>(i) % sessions.size()];
        const char* app = apps[random() % apps.size()];
        appParents.push_back(add(session, app, processes[session - 1].userName, ProcessGroup::apps,
                                 std::string(app) + "-" + std::to_string(i), 3));
    }
    while (processes.size() < kProcessCount) {
        if (random() % 4 == 0) {
            const std::uint32_t parent = systemParents[random() % systemParents.size()];
            if (depth[parent - 1] >= 6) continue;
            const std::uint32_t pid = add(parent, helpers[random() % helpers.size()], processes[parent - 1].userName,
                                          ProcessGroup::background, "", depth[parent - 1] + 1);
            if (depth[pid - 1] < 6 && random() % 8 == 0) systemParents.push_back(pid);
        } else {
            const std::uint32_t parent = appParents[random() % appParents.size()];
            if (depth[parent - 1] >= 6) continue;
            const ProcessSnapshot& owner = processes[parent - 1];
            const std::uint32_t pid = add(parent, helpers[random() % helpers.size()], owner.userName, ProcessGroup::apps,
                                          owner.applicationKey, depth[parent - 1] + 1);
            if (depth[pid - 1] < 6 && random() % 8 == 0) appParents.push_back(pid);
        }
    }
    return processes;
}

std::shared_ptr<SystemSnapshot> SnapshotOf(std::vector<ProcessSnapshot> processes, std::uint64_t generation) {
    auto snapshot = std::make_shared<SystemSnapshot>();
    snapshot->schemaVersion = korv::core::kSnapshotSchemaVersion;
    snapshot->generation = generation;
    snapshot->monotonicNs = generation * 1'000'000'000ULL;
    snapshot->logicalProcessorCount = 8;
    snapshot->memoryTotalBytes.Set(32ULL << 30);
    snapshot->processes = std::move(processes);
    return snapshot;
}

// Two samples that differ in the CPU and memory of every twentieth row, and in a few short-lived
// leaves replaced by new ones: applying them in turn is a steady incremental refresh.
std::array<std::shared_ptr<SystemSnapshot>, 2> AlternatingSamples() {
    const std::vector<ProcessSnapshot> tree = ScriptedTree();
    std::vector<ProcessSnapshot> changed = tree;
    std::vector<bool> isParent(tree.size() + 1, false);
    for (const ProcessSnapshot& process : tree) {
        if (process.parentKey.pid != 0) isParent[process.parentKey.pid] = true;
    }
    std::size_t churned = 0;
    for (std::size_t row = 0; row < changed.size(); ++row) {
        ProcessSnapshot& process = changed[row];
        if (row % kChangedEvery == 0) {
            process.cpuPercent.Set(*process.cpuPercent.value + 2.5);
            process.workingSetBytes.Set(*process.workingSetBytes.value + (3ULL << 20));
        } else if (churned < kChurn && row % 97 == 5 && !isParent[process.key.pid]) {
            process.key.startTime += 1;  // the pid ended and was taken by a new process
            ++churned;
        }
    }
    std::sort(changed.begin(), changed.end(), [](const auto& a, const auto& b) { return a.key < b.key; });
    return {SnapshotOf(tree, 1), SnapshotOf(changed, 2)};
}

void BM_ProcessModelIncrementalApply(benchmark::State& state) {
    EnsureApplication();
    const auto samples = AlternatingSamples();
    gui::ProcessTableModel model;
    model.SetSmoothCpu(state.range(0) != 0);
    gui::ProcessFilterProxyModel proxy(model);
    model.ApplySnapshot(samples[0]);
    model.ApplySnapshot(samples[1]);
    std::size_t next = 0;
    std::int64_t resets = 0;
    std::int64_t changedRows = 0;
    QObject::connect(&model, &QAbstractItemModel::dataChanged,
                     [&](const QModelIndex& a, const QModelIndex& b) { changedRows += b.row() - a.row() + 1; });
    for (auto _ : state) {
        resets += model.ApplySnapshot(samples[next]) ? 1 : 0;
        next ^= 1;
    }
    state.counters["resets"] = static_cast<double>(resets);
    state.counters["rowsAnnouncedPerApply"] =
        benchmark::Counter(static_cast<double>(changedRows), benchmark::Counter::kAvgIterations);
    state.counters["rows"] = static_cast<double>(model.LiveRowCount());
}
BENCHMARK(BM_ProcessModelIncrementalApply)->ArgName("smoothCpu")->Arg(0)->Arg(1)->Apply(Configure);

void BM_ProcessModelResetApply(benchmark::State& state) {
    EnsureApplication();
    const std::vector<ProcessSnapshot> tree = ScriptedTree();
    std::vector<ProcessSnapshot> moved = tree;
    // A process deep in the tree moves to another parent: the structure cannot be patched.
    moved[4000].parentKey = moved[0].key;
    const std::array<std::shared_ptr<SystemSnapshot>, 2> samples{SnapshotOf(tree, 1), SnapshotOf(moved, 2)};
    gui::ProcessTableModel model;
    gui::ProcessFilterProxyModel proxy(model);
    std::size_t next = 0;
    std::int64_t resets = 0;
    for (auto _ : state) {
        resets += model.ApplySnapshot(samples[next]) ? 1 : 0;
        next ^= 1;
    }
    state.counters["resetsPerApply"] = benchmark::Counter(static_cast<double>(resets), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_ProcessModelResetApply)->Apply(Configure);

// The page's whole refresh, as the window calls it: model, filter, the one sort, selection and
// the glow tick, with the tree shown. The paint that follows is measured apart.
void BM_ProcessesPageRefresh(benchmark::State& state) {
    EnsureApplication();
    const auto samples = AlternatingSamples();
    korv::core::Settings settings;
    gui::PageEnvironment environment;
    environment.settings = &settings;
    environment.settingsChanged = [] {};
    gui::ProcessesPage page(environment);
    page.resize(1280, 800);
    page.show();
    if (state.range(0) != 0) page.SetFilterText(QStringLiteral("alice"));
    page.ApplySnapshot(samples[0]);
    page.ApplySnapshot(samples[1]);
    const QModelIndex firstRow = page.Proxy().index(0, 0, page.Proxy().index(0, 0));
    page.View().selectionModel()->setCurrentIndex(firstRow,
                                                  QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    QApplication::processEvents();

    std::int64_t resets = 0;
    QObject::connect(&page.Model(), &QAbstractItemModel::modelReset, [&resets] { ++resets; });
    std::size_t next = 0;
    std::int64_t glowCells = 0;
    std::int64_t nonCellRects = 0;
    std::int64_t rowRects = 0;
    const QHeaderView* header = page.View().header();
    for (auto _ : state) {
        page.ApplySnapshot(samples[next]);
        next ^= 1;
        state.PauseTiming();
        // The refresh's layout runs (and repaints all) first; what the glow then repaints on
        // its tick must be single CPU or memory cells.
        if (state.range(1) != 0) QApplication::processEvents();
        const gui::ProcessesPage::GlowRepaint repaint = page.RunGlowTick();
        glowCells += repaint.cells;
        rowRects += repaint.rows;
        for (int i = 0; i < repaint.cells; ++i) {
            const QRect& rect = repaint.rects[static_cast<std::size_t>(i)];
            const bool single = rect.width() == header->sectionSize(4) || rect.width() == header->sectionSize(5);
            if (!single || rect.height() > page.View().visualRect(firstRow).height()) ++nonCellRects;
        }
        state.ResumeTiming();
    }
    state.counters["glowCellsPerTick"] = benchmark::Counter(static_cast<double>(glowCells), benchmark::Counter::kAvgIterations);
    state.counters["exitedRowRectsPerTick"] =
        benchmark::Counter(static_cast<double>(rowRects), benchmark::Counter::kAvgIterations);
    state.counters["glowRectsWiderThanACell"] = static_cast<double>(nonCellRects);
    state.counters["resets"] = static_cast<double>(resets);
    int parents = 0;
    for (int row = 0; row < page.Model().rowCount(); ++row) {
        std::vector<QModelIndex> stack{page.Model().index(row, 0)};
        while (!stack.empty()) {
            const QModelIndex index = stack.back();
            stack.pop_back();
            const int children = page.Model().rowCount(index);
            if (children > 0) ++parents;
            for (int child = 0; child < children; ++child) stack.push_back(page.Model().index(child, 0, index));
        }
    }
    state.counters["parents"] = parents;
}
BENCHMARK(BM_ProcessesPageRefresh)->ArgNames({"filter", "paintBetween"})->Args({0, 1})->Args({1, 1})->Apply(Configure);

// The repaint of the shown page after a refresh, for scale.
void BM_ProcessesPagePaintAfterRefresh(benchmark::State& state) {
    EnsureApplication();
    const auto samples = AlternatingSamples();
    korv::core::Settings settings;
    gui::PageEnvironment environment;
    environment.settings = &settings;
    environment.settingsChanged = [] {};
    gui::ProcessesPage page(environment);
    page.resize(1280, 800);
    page.show();
    page.ApplySnapshot(samples[0]);
    QApplication::processEvents();
    std::size_t next = 1;
    for (auto _ : state) {
        state.PauseTiming();
        page.ApplySnapshot(samples[next]);
        next ^= 1;
        state.ResumeTiming();
        page.repaint();
    }
}
BENCHMARK(BM_ProcessesPagePaintAfterRefresh)->Apply(Configure);

}  // namespace
