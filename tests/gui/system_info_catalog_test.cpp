#include "host/linux_client/system_info_catalog.h"

#include "core/telemetry_frame.h"
#include "host/linux_client/system_info_page.h"
#include "host/linux_client/unit_formats.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QFile>
#include <QMenu>
#include <QStringList>
#include <QTemporaryDir>
#include <QTreeWidget>

#include <memory>
#include <string>
#include <vector>

namespace korv::host::linux_client {
namespace {

using core::DeviceKind;
using core::MetricAvailability;

std::vector<std::string> Labels(const std::vector<SystemInfoRow>& rows) {
    std::vector<std::string> labels;
    for (const SystemInfoRow& row : rows) labels.push_back(row.label.toStdString());
    return labels;
}

const SystemInfoRow& RowOf(const SystemInfoCategory& category, const char* label) {
    for (const SystemInfoRow& row : category.rows) {
        if (row.label == QLatin1String(label)) return row;
    }
    static const SystemInfoRow missing{QStringLiteral("missing"), {}, 0, {}};
    ADD_FAILURE() << "no row " << label << " in " << category.id.toStdString();
    return missing;
}

core::SystemSnapshot ScriptedSnapshot() {
    core::SystemSnapshot s;
    s.schemaVersion = 1;
    s.generation = 42;
    s.logicalProcessorCount = 4;
    s.uptimeNs = 90061ULL * 1000000000ULL;
    s.cpuModel.Set("Example CPU 9000");
    s.memoryTotalBytes.Set(16ULL << 30);
    s.memoryCachedBytes.Set(2ULL << 30);
    s.memoryCachedBytes.availability = MetricAvailability::stale;
    s.memoryPressurePercent.MarkMissing(MetricAvailability::accessDenied);
    s.memorySpeed.Set(4800);
    s.batteryTimeRemainingSeconds.Set(2 * 3600 + 5 * 60);
    s.cpuHybrid.Set(true);
    for (std::uint32_t i = 0; i < 4; ++i) {
        core::LogicalProcessorSnapshot cpu;
        cpu.index = i;
        cpu.processorClass = i < 3 ? core::ProcessorClass::performance : core::ProcessorClass::efficiency;
        cpu.numaNode.Set(i / 2);
        s.logicalProcessors.push_back(cpu);
    }
    core::DeviceSnapshot disk;
    disk.kind = DeviceKind::disk;
    disk.id = "disk:nvme0n1";
    disk.displayName = "Disk 0 (nvme0n1)";
    disk.disk.averageResponseMs.Set(1.5);
    s.devices.push_back(disk);
    core::DeviceSnapshot net;
    net.kind = DeviceKind::network;
    net.id = "net:eth0";
    net.displayName = "Ethernet";
    net.network.linkBitsPerSecond.Set(1000000000ULL);
    s.devices.push_back(net);
    auto services = std::make_shared<std::vector<core::ServiceSnapshot>>(3);
    (*services)[0].state = core::ServiceState::running;
    (*services)[1].state = core::ServiceState::failed;
    (*services)[2].state = core::ServiceState::running;
    s.services = services;
    core::ProviderHealthRecord provider;
    provider.provider = "linux.memory";
    provider.state = core::ProviderHealth::degraded;
    provider.diagnostic = "meminfo partly unreadable";
    s.providers.push_back(provider);
    s.capabilities["gpu.nvml"] = core::CapabilityRow{"gpu.nvml", core::ProviderSupport::unsupported, "libnvidia-ml.so.1 not found"};
    s.capabilities["sensors.hwmon"] = core::CapabilityRow{"sensors.hwmon", core::ProviderSupport::supported, ""};
    return s;
}

TEST(SystemInfoCatalogTest, CategoriesComeInPageOrderWithTheirGroups) {
    const SystemInfoCatalog catalog = BuildSystemInfoCatalog(core::SystemSnapshot{});
    QStringList ids;
    QStringList titles;
    QStringList groups;
    for (const SystemInfoCategory& category : catalog.categories) {
        ids << category.id;
        titles << category.title;
        groups << category.group;
    }
    EXPECT_EQ(ids.join(','), QStringLiteral("hardware-overview,processor,memory,graphics,storage,power,network,"
                                            "operating-system,providers,capabilities,snapshot"));
    EXPECT_EQ(titles.join(','), QStringLiteral("Hardware Overview,Processor,Memory,Graphics,Storage,Power,Network,"
                                               "Operating System,Native Providers,Capabilities,Snapshot"));
    EXPECT_EQ(groups.join(','), QStringLiteral("Hardware,Hardware,Hardware,Hardware,Hardware,Hardware,Hardware,"
                                               "Software,Diagnostics,Diagnostics,Diagnostics"));
}

struct RowOrderCase {
    const char* id;
    std::vector<std::string> labels;
};

class SystemInfoRowOrderTest : public ::testing::TestWithParam<RowOrderCase> {};

TEST_P(SystemInfoRowOrderTest, RowsComeInTheirFixedOrder) {
    const SystemInfoCatalog catalog = BuildSystemInfoCatalog(ScriptedSnapshot());
    const SystemInfoCategory* category = catalog.Find(QString::fromLatin1(GetParam().id));
    ASSERT_NE(category, nullptr);
    std::vector<SystemInfoRow> rows = category->rows;
    // Per-device categories list the device's own rows beneath its head.
    if (!rows.empty() && !rows.front().children.empty()) rows = rows.front().children;
    EXPECT_EQ(Labels(rows), GetParam().labels);
}

INSTANTIATE_TEST_SUITE_P(
    Categories, SystemInfoRowOrderTest,
    ::testing::Values(
        RowOrderCase{"hardware-overview", {"Processor", "Logical processors", "Physical cores", "Sockets", "Memory",
                                           "Graphics", "Distribution", "Kernel", "Virtual machine"}},
        RowOrderCase{"processor", {"Model", "Logical processors", "Physical cores", "Sockets", "NUMA nodes",
                                   "Base frequency", "Current frequency", "L1 cache", "L2 cache", "L3 cache",
                                   "Performance cores", "Efficiency cores", "Frequency driver", "Frequency governor",
                                   "Power preference", "Virtualization", "Virtual machine"}},
        RowOrderCase{"memory", {"Physical memory", "In use", "Available", "Cached", "Buffers", "Shared", "Kernel slab",
                                "Swap in use", "Swap total", "Committed", "Commit limit", "Memory pressure",
                                "Stall (PSI some, 10s)", "Page ins", "Page outs", "Type", "Speed", "Form factor",
                                "Populated slots", "Total slots"}},
        RowOrderCase{"storage", {"Description", "Capacity", "Type", "Rotational", "System disk", "Logical block size",
                                 "Scheduler", "Read since boot", "Written since boot", "Active time", "Read rate",
                                 "Write rate", "Average response time"}},
        RowOrderCase{"power", {"Power source", "System power", "Package power", "Battery charge", "Charging",
                               "Cycle count", "Condition", "Time remaining", "Low power mode", "Thermal state"}},
        RowOrderCase{"network", {"Interface", "Type", "State", "Hardware address", "IPv4 address", "IPv6 address",
                                 "Network name", "Signal strength", "Channel frequency", "MTU", "Link speed",
                                 "Total received", "Total sent", "Receive rate", "Send rate"}},
        RowOrderCase{"operating-system", {"Distribution", "Kernel release", "Processes", "Threads",
                                          "Load average (1 min)", "Load average (5 min)", "Load average (15 min)",
                                          "Runnable tasks", "Total tasks", "User sessions", "Services",
                                          "Startup items", "Time since boot"}},
        RowOrderCase{"providers", {"State", "Native error", "Diagnostic", "Data age", "Sample duration",
                                   "Consecutive failures", "Dropped events", "Last good generation"}},
        RowOrderCase{"snapshot", {"Generation", "Schema version", "Sampled at", "Requested interval",
                                  "Actual interval", "Performance devices", "Hardware sensors"}}),
    [](const ::testing::TestParamInfo<RowOrderCase>& param) {
        std::string name = param.param.id;
        for (char& c : name) {
            if (c == '-') c = '_';
        }
        return name;
    });

TEST(SystemInfoCatalogTest, GraphicsAdapterRowsComeInOrder) {
    core::SystemSnapshot s;
    core::DeviceSnapshot gpu;
    gpu.kind = DeviceKind::gpu;
    gpu.id = "gpu:0";
    gpu.displayName = "Example GPU";
    gpu.gpu.temperatureCelsius.Set(65.0);
    gpu.gpu.utilizationPercent.Set(12.5);
    s.devices.push_back(gpu);
    const SystemInfoCatalog catalog = BuildSystemInfoCatalog(s);
    const SystemInfoCategory* graphics = catalog.Find(QStringLiteral("graphics"));
    ASSERT_NE(graphics, nullptr);
    ASSERT_EQ(graphics->rows.size(), 1U);
    EXPECT_EQ(graphics->rows[0].value, QStringLiteral("Example GPU"));
    EXPECT_EQ(Labels(graphics->rows[0].children),
              (std::vector<std::string>{"Description", "Bus", "Link", "Memory", "Memory in use", "Dedicated memory",
                                        "Shared memory", "Clock", "Maximum clock", "Memory clock",
                                        "Maximum memory clock", "Power draw", "Power limit", "Temperature",
                                        "Utilization", "Video encode", "Video decode", "Graphics API", "Engines"}));
    for (const SystemInfoRow& child : graphics->rows[0].children) EXPECT_EQ(child.depth, 1);
    EXPECT_EQ(RowOf(*graphics, "Adapter").children[13].value, QStringLiteral("65.0 °C"));
    EXPECT_EQ(graphics->rows[0].children[14].value, QStringLiteral("12.5%"));
    const SystemInfoCategory* overview = catalog.Find(QStringLiteral("hardware-overview"));
    EXPECT_EQ(RowOf(*overview, "Graphics").value, QStringLiteral("Example GPU"));
}

TEST(SystemInfoCatalogTest, EmptyCategoryKeepsItsHeadAlone) {
    const SystemInfoCatalog catalog = BuildSystemInfoCatalog(core::SystemSnapshot{});
    const SystemInfoCategory* storage = catalog.Find(QStringLiteral("storage"));
    ASSERT_NE(storage, nullptr);
    EXPECT_TRUE(storage->rows.empty());
    EXPECT_EQ(SystemInfoCategoryText(*storage), QStringLiteral("Storage\n"));
    EXPECT_TRUE(SystemInfoCatalogText(catalog).contains(QStringLiteral("\nStorage\n\nPower\n")));
}

struct UptimeCase {
    std::uint64_t seconds;
    const char* text;
};

class UptimeFormatTest : public ::testing::TestWithParam<UptimeCase> {};

TEST_P(UptimeFormatTest, ReadsDaysHoursMinutesSeconds) {
    EXPECT_EQ(FormatUptime(GetParam().seconds).toStdString(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Uptimes, UptimeFormatTest,
                         ::testing::Values(UptimeCase{0, "0:00:00:00"}, UptimeCase{59, "0:00:00:59"},
                                           UptimeCase{90061, "1:01:01:01"}, UptimeCase{86399, "0:23:59:59"},
                                           UptimeCase{400 * 86400ULL + 3600, "400:01:00:00"}));

TEST(SystemInfoCatalogTest, UptimeRowUsesTheSnapshotUptime) {
    const SystemInfoCatalog catalog = BuildSystemInfoCatalog(ScriptedSnapshot());
    EXPECT_EQ(RowOf(*catalog.Find(QStringLiteral("operating-system")), "Time since boot").value,
              QStringLiteral("1:01:01:01"));
}

TEST(SystemInfoCatalogTest, ValuesUseTheSharedFormatsAndWords) {
    const SystemInfoCatalog catalog = BuildSystemInfoCatalog(ScriptedSnapshot());
    const SystemInfoCategory& memory = *catalog.Find(QStringLiteral("memory"));
    EXPECT_EQ(RowOf(memory, "Physical memory").value, QStringLiteral("16.0 GB"));
    EXPECT_EQ(RowOf(memory, "Cached").value, QStringLiteral("2.0 GB (stale)"));
    EXPECT_EQ(RowOf(memory, "Memory pressure").value, QStringLiteral("Access denied"));
    EXPECT_EQ(RowOf(memory, "Speed").value, QStringLiteral("4800 MT/s"));
    EXPECT_EQ(RowOf(memory, "Type").value, QStringLiteral("—"));
    const SystemInfoCategory& processor = *catalog.Find(QStringLiteral("processor"));
    EXPECT_EQ(RowOf(processor, "NUMA nodes").value, QStringLiteral("2"));
    EXPECT_EQ(RowOf(processor, "Performance cores").value, QStringLiteral("3"));
    EXPECT_EQ(RowOf(processor, "Efficiency cores").value, QStringLiteral("1"));
    EXPECT_EQ(RowOf(*catalog.Find(QStringLiteral("power")), "Time remaining").value, QStringLiteral("2:05"));
    EXPECT_EQ(RowOf(*catalog.Find(QStringLiteral("network")), "Interface").children[10].value,
              QStringLiteral("1000 Mb/s"));
    EXPECT_EQ(RowOf(*catalog.Find(QStringLiteral("storage")), "Disk").children[12].value, QStringLiteral("1.50 ms"));
    EXPECT_EQ(RowOf(*catalog.Find(QStringLiteral("operating-system")), "Services").value,
              QStringLiteral("3 (2 running, 1 failed)"));
}

TEST(SystemInfoCatalogTest, ProvidersAndCapabilitiesUseTheirWords) {
    const SystemInfoCatalog catalog = BuildSystemInfoCatalog(ScriptedSnapshot());
    const SystemInfoCategory& providers = *catalog.Find(QStringLiteral("providers"));
    ASSERT_EQ(providers.rows.size(), 1U);
    EXPECT_EQ(providers.rows[0].label, QStringLiteral("linux.memory"));
    EXPECT_EQ(providers.rows[0].value, QStringLiteral("Degraded"));
    EXPECT_EQ(providers.rows[0].children[2].value, QStringLiteral("meminfo partly unreadable"));
    const SystemInfoCategory& capabilities = *catalog.Find(QStringLiteral("capabilities"));
    ASSERT_EQ(capabilities.rows.size(), 2U);
    EXPECT_EQ(capabilities.rows[0].value, QStringLiteral("Unsupported"));
    ASSERT_EQ(capabilities.rows[0].children.size(), 1U);
    EXPECT_EQ(capabilities.rows[0].children[0].label, QStringLiteral("Reason"));
    EXPECT_EQ(capabilities.rows[1].value, QStringLiteral("Supported"));
    EXPECT_TRUE(capabilities.rows[1].children.empty());
    EXPECT_EQ(SystemInfoCategoryText(capabilities),
              QStringLiteral("Capabilities\ngpu.nvml: Unsupported\n  Reason: libnvidia-ml.so.1 not found\n"
                             "sensors.hwmon: Supported\n"));
}

TEST(SystemInfoCatalogTest, ExportTextKeepsTheStaleSuffixAndIndents) {
    const SystemInfoCatalog catalog = BuildSystemInfoCatalog(ScriptedSnapshot());
    const QString text = SystemInfoCatalogText(catalog);
    EXPECT_TRUE(text.contains(QStringLiteral("\nCached: 2.0 GB (stale)\n")));
    EXPECT_TRUE(text.contains(QStringLiteral("\nlinux.memory: Degraded\n  State: Degraded\n")));
    EXPECT_TRUE(text.startsWith(QStringLiteral("Hardware Overview\nProcessor: Example CPU 9000\n")));
}

TEST(SystemInfoPageTest, ShowCategoryOpensProviderDiagnostics) {
    SystemInfoPage page(PageEnvironment{});
    page.ApplySnapshot(std::make_shared<const core::SystemSnapshot>(ScriptedSnapshot()));
    EXPECT_EQ(page.CurrentCategoryId(), QStringLiteral("hardware-overview"));
    page.ShowCategory(QStringLiteral("providers"));
    EXPECT_EQ(page.CurrentCategoryId(), QStringLiteral("providers"));
    auto* rows = page.findChild<QTreeWidget*>(QStringLiteral("SystemInfoRows"));
    ASSERT_NE(rows, nullptr);
    ASSERT_EQ(rows->topLevelItemCount(), 1);
    EXPECT_EQ(rows->topLevelItem(0)->text(0), QStringLiteral("linux.memory"));
    page.ShowCategory(QStringLiteral("no-such-category"));
    EXPECT_EQ(page.CurrentCategoryId(), QStringLiteral("providers"));
}

// A new sample changes values where they stand: the chosen row stays chosen and a folded heading
// stays folded.
TEST(SystemInfoPageTest, ASampleUpdatesRowsInPlace) {
    SystemInfoPage page(PageEnvironment{});
    page.resize(800, 500);
    page.show();
    auto first = ScriptedSnapshot();
    core::ProviderHealthRecord second;
    second.provider = "linux.procfs";
    first.providers.push_back(second);
    page.ApplySnapshot(std::make_shared<const core::SystemSnapshot>(first));
    page.ShowCategory(QStringLiteral("providers"));
    auto* rows = page.findChild<QTreeWidget*>(QStringLiteral("SystemInfoRows"));
    ASSERT_NE(rows, nullptr);
    ASSERT_EQ(rows->topLevelItemCount(), 2);
    QTreeWidgetItem* memory = rows->topLevelItem(0);
    QTreeWidgetItem* procfs = rows->topLevelItem(1);
    EXPECT_TRUE(memory->isExpanded());
    memory->setExpanded(false);
    rows->setCurrentItem(procfs->child(0));
    QTreeWidgetItem* chosen = rows->currentItem();
    const QString diagnostic = QStringLiteral("meminfo unreadable again");
    const auto valueOf = [](QTreeWidgetItem* heading, const QString& label) {
        for (int i = 0; i < heading->childCount(); ++i) {
            if (heading->child(i)->text(0) == label) return heading->child(i)->text(1);
        }
        return QString();
    };
    ASSERT_NE(valueOf(memory, QStringLiteral("Diagnostic")), diagnostic);

    auto next = first;
    next.generation = 43;
    next.providers[0].diagnostic = diagnostic.toStdString();
    core::ProviderHealthRecord third;
    third.provider = "linux.sysfs";
    next.providers.push_back(third);
    page.ApplySnapshot(std::make_shared<const core::SystemSnapshot>(next));

    ASSERT_EQ(rows->topLevelItemCount(), 3);
    EXPECT_EQ(rows->topLevelItem(0), memory) << "the same row, not a new one";
    EXPECT_FALSE(memory->isExpanded()) << "a folded heading stays folded";
    EXPECT_EQ(valueOf(memory, QStringLiteral("Diagnostic")), diagnostic);
    EXPECT_EQ(rows->currentItem(), chosen);
    EXPECT_TRUE(chosen->isSelected());
    EXPECT_EQ(rows->topLevelItem(2)->text(0), QStringLiteral("linux.sysfs"));
    EXPECT_TRUE(rows->topLevelItem(2)->isExpanded()) << "a new heading opens";
}

TEST(SystemInfoPageTest, ContextMenuOffersItsActionsInOrder) {
    SystemInfoPage page(PageEnvironment{});
    page.resize(800, 500);
    page.ApplySnapshot(std::make_shared<const core::SystemSnapshot>(ScriptedSnapshot()));
    auto* rows = page.findChild<QTreeWidget*>(QStringLiteral("SystemInfoRows"));
    auto* categories = page.findChild<QTreeWidget*>(QStringLiteral("SystemInfoCategories"));
    ASSERT_TRUE(rows && categories);
    page.show();
    const auto texts = [](QMenu* menu) {
        QStringList list;
        for (QAction* action : menu->actions()) list << action->text();
        delete menu;
        return list.join('|');
    };
    const QPoint firstRow = rows->visualItemRect(rows->topLevelItem(0)).center();
    EXPECT_EQ(texts(page.BuildContextMenu(rows, firstRow)),
              QStringLiteral("Copy|Copy all|Export category…|Export all system information…"));
    const QPoint firstCategory = categories->visualItemRect(categories->topLevelItem(0)->child(0)).center();
    EXPECT_EQ(texts(page.BuildContextMenu(categories, firstCategory)),
              QStringLiteral("Copy section|Copy all|Export category…|Export all system information…"));
}

TEST(SystemInfoPageTest, ExportWritesTheWholeTextOrReportsWhy) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    SystemInfoPage page(PageEnvironment{});
    page.ApplySnapshot(std::make_shared<const core::SystemSnapshot>(ScriptedSnapshot()));
    QString offeredName;
    const QString target = dir.filePath(QStringLiteral("out.txt"));
    page.SetExportPathChooser([&](const QString& name) {
        offeredName = name;
        return target;
    });
    QMenu* menu = page.BuildContextMenu(page.findChild<QTreeWidget*>(QStringLiteral("SystemInfoRows")), QPoint(-1, -1));
    menu->actions().last()->trigger();
    delete menu;
    EXPECT_EQ(offeredName, QStringLiteral("KORV-system-info.txt"));
    QFile file(target);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    EXPECT_EQ(text, SystemInfoCatalogText(page.Catalog()));
    EXPECT_TRUE(text.contains(QStringLiteral("Cached: 2.0 GB (stale)")));

    const std::optional<QString> error =
        SystemInfoPage::WriteExport(dir.filePath(QStringLiteral("missing/folder/out.txt")), text);
    ASSERT_TRUE(error.has_value());
    EXPECT_FALSE(error->isEmpty());
    EXPECT_FALSE(QFile::exists(dir.filePath(QStringLiteral("missing/folder/out.txt"))));
}

}  // namespace
}  // namespace korv::host::linux_client
