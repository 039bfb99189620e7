#include "providers/disk_collector.h"

#include "tests/core/temp_folder_test_base.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <limits>
#include <set>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace korv::providers {
namespace {

using core::MetricAvailability;
namespace fs = std::filesystem;

constexpr std::uint64_t kSecond = 1'000'000'000;

std::uint64_t SteadyNs() {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

std::vector<std::string> DeviceNames(const std::vector<core::DeviceSnapshot>& devices) {
    std::vector<std::string> names;
    for (const auto& device : devices) names.push_back(device.displayName);
    return names;
}

const core::DiskBlock& Disk(const std::vector<core::DeviceSnapshot>& devices, const std::string& name) {
    for (const auto& device : devices) {
        if (device.displayName == name) return device.disk;
    }
    ADD_FAILURE() << name << " not listed";
    static const core::DiskBlock none;
    return none;
}

std::vector<core::DeviceSnapshot> CollectAt(DiskCollector& collector, std::uint64_t generation, std::uint64_t nowNs,
                                            StageResult* result = nullptr) {
    CollectContext ctx;
    ctx.generation = generation;
    ctx.monotonicNs = nowNs;
    std::vector<core::DeviceSnapshot> devices;
    const StageResult stage = collector.Collect(ctx, devices);
    if (result) *result = stage;
    return devices;
}

// A private copy of tests/fixtures/disk with the symbolic links its "links" file lists.
class DiskCollectorTest : public core::TempFolderTest {
protected:
    DiskCollectorTest() : TempFolderTest("korv-disk") {}

    void SetUp() override {
        TempFolderTest::SetUp();
        const fs::path source = fs::path(KORV_TEST_FIXTURES) / "disk";
        fs::copy(source, dir, fs::copy_options::recursive);
        std::ifstream links(source / "links");
        std::string link, target;
        while (links >> link >> target) {
            fs::create_directories((dir / link).parent_path());
            fs::create_symlink(target, dir / link);
        }
    }

    ProviderRoots Roots() const { return {dir / "proc", dir / "sys", "/nonexistent", "/nonexistent"}; }

    // sda's counters in the order reads, sectors read, ms reading, writes, sectors written, ms writing,
    // io_ticks; the other devices keep the fixture's lines.
    void WriteSda(std::uint64_t reads, std::uint64_t sectorsRead, std::uint64_t readMs, std::uint64_t writes,
                  std::uint64_t sectorsWritten, std::uint64_t writeMs, std::uint64_t ioTicks) {
        std::ifstream in(dir / "proc/diskstats");
        std::string text, line;
        while (std::getline(in, line)) {
            if (line.find(" sda ") != std::string::npos) {
                line = "8 0 sda " + std::to_string(reads) + " 0 " + std::to_string(sectorsRead) + " " +
                       std::to_string(readMs) + " " + std::to_string(writes) + " 0 " + std::to_string(sectorsWritten) +
                       " " + std::to_string(writeMs) + " 0 " + std::to_string(ioTicks) + " 0";
            }
            text += line + "\n";
        }
        in.close();
        std::ofstream(dir / "proc/diskstats", std::ios::trunc) << text;
    }
};

TEST_F(DiskCollectorTest, KeepsWholeDevicesAndDropsPartitionsLoopRamZramAndBadLines) {
    DiskCollector collector(Roots());
    StageResult result;
    const auto devices = CollectAt(collector, 1, kSecond, &result);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.message, "procfs and sysfs block-device metrics collected");
    // sdb's statistics line has thirteen fields.
    EXPECT_EQ(DeviceNames(devices), (std::vector<std::string>{"dm-0", "md0", "nvme0n1", "sda"}));

    const auto& refs = collector.Devices();
    ASSERT_EQ(refs.size(), 4u);
    EXPECT_EQ(refs[3].name, "sda");
    EXPECT_EQ(refs[3].deviceId, "linux-block:path:sda");
    EXPECT_EQ(refs[3].devicePath, fs::canonical(dir / "sys/devices/hw/ata-disk"));
    EXPECT_TRUE(refs[0].devicePath.empty());  // dm-0 has no device link
    for (std::size_t i = 0; i < devices.size(); ++i) {
        EXPECT_EQ(devices[i].kind, core::DeviceKind::disk);
        EXPECT_EQ(devices[i].id, refs[i].deviceId);
        EXPECT_EQ(devices[i].disk.blockName, refs[i].name);
        EXPECT_EQ(devices[i].disk.readBytesTotal.source, "linux.disk");
    }
}

TEST_F(DiskCollectorTest, ReadsMetadataAndFindsTheDisksUnderTheRootFileSystem) {
    DiskCollector collector(Roots());
    const auto devices = CollectAt(collector, 3, kSecond);

    const auto& sda = Disk(devices, "sda");
    EXPECT_EQ(sda.description.value, "WDC WD40EFRX-68N32N0");
    EXPECT_EQ(sda.type.value, "Hard disk");
    EXPECT_EQ(sda.rotational.value, true);
    EXPECT_EQ(sda.capacityBytes.value, 7814037168ull * 512);
    EXPECT_EQ(sda.logicalBlockSize.value, 512u);
    EXPECT_EQ(sda.scheduler.value, "bfq");
    EXPECT_EQ(sda.readBytesTotal.value, 20000u * 512);
    EXPECT_EQ(sda.writeBytesTotal.value, 40000u * 512);
    EXPECT_EQ(sda.readBytesTotal.lastGoodGeneration, 3u);

    const auto& nvme = Disk(devices, "nvme0n1");
    EXPECT_EQ(nvme.description.value, "Samsung SSD 980 PRO 1TB");
    EXPECT_EQ(nvme.type.value, "Solid-state");
    EXPECT_EQ(nvme.rotational.value, false);
    EXPECT_EQ(nvme.logicalBlockSize.value, 4096u);
    EXPECT_EQ(nvme.scheduler.value, "none");

    const auto& dm = Disk(devices, "dm-0");
    EXPECT_EQ(dm.description.availability, MetricAvailability::notYetAvailable);
    EXPECT_FALSE(dm.description.value);
    EXPECT_EQ(dm.scheduler.value, "none");  // a bare word when there is no choice

    // 2^55 sectors no longer fit in 64 bits of bytes.
    EXPECT_EQ(Disk(devices, "md0").capacityBytes.value, std::numeric_limits<std::uint64_t>::max());

    // The root file system is on dm-0, which is built on sda1.
    EXPECT_EQ(dm.systemDisk.value, true);
    EXPECT_EQ(sda.systemDisk.value, true);
    EXPECT_EQ(nvme.systemDisk.value, false);
    EXPECT_EQ(Disk(devices, "md0").systemDisk.value, false);
}

TEST_F(DiskCollectorTest, RatesComeFromTheDeltaOfTwoSamples) {
    DiskCollector collector(Roots());
    WriteSda(1000, 20000, 400, 2000, 40000, 800, 1500);
    const auto first = CollectAt(collector, 1, 10 * kSecond);
    const auto& before = Disk(first, "sda");
    EXPECT_TRUE(before.readBytesTotal.value);
    for (const auto* rate : {&before.readBytesPerSecond, &before.writeBytesPerSecond, &before.activePercent,
                             &before.averageResponseMs}) {
        EXPECT_EQ(rate->availability, MetricAvailability::notYetAvailable);
    }

    // Two seconds: 4096 sectors read, 8192 written, 10 + 30 requests in 160 ms, 500 ms busy.
    WriteSda(1010, 24096, 440, 2030, 48192, 920, 2000);
    const auto second = CollectAt(collector, 2, 12 * kSecond);
    const auto& after = Disk(second, "sda");
    EXPECT_DOUBLE_EQ(*after.readBytesPerSecond.value, 4096.0 * 512 / 2);
    EXPECT_DOUBLE_EQ(*after.writeBytesPerSecond.value, 8192.0 * 512 / 2);
    EXPECT_DOUBLE_EQ(*after.activePercent.value, 25.0);
    EXPECT_DOUBLE_EQ(*after.averageResponseMs.value, 4.0);
    EXPECT_EQ(after.readBytesPerSecond.lastGoodGeneration, 2u);
    // nvme0n1 did nothing: its rates are true zeros, and with no request completed there is no
    // response time to tell.
    EXPECT_EQ(Disk(second, "nvme0n1").writeBytesPerSecond.availability, MetricAvailability::zero);
    EXPECT_EQ(Disk(second, "nvme0n1").activePercent.availability, MetricAvailability::zero);
    EXPECT_EQ(Disk(second, "nvme0n1").averageResponseMs.availability, MetricAvailability::notYetAvailable);
    EXPECT_FALSE(Disk(second, "nvme0n1").averageResponseMs.value.has_value());

    // io_ticks may run ahead of the sampling clock: 3 s busy in 2 s is 100.
    WriteSda(1020, 24100, 450, 2040, 48200, 930, 5000);
    EXPECT_DOUBLE_EQ(*Disk(CollectAt(collector, 3, 14 * kSecond), "sda").activePercent.value, 100.0);
}

TEST_F(DiskCollectorTest, ACounterThatWentBackwardsStartsANewBaseline) {
    DiskCollector collector(Roots());
    WriteSda(1000, 20000, 400, 2000, 40000, 800, 1500);
    CollectAt(collector, 1, kSecond);
    WriteSda(5, 80, 1, 2, 16, 1, 3);  // the device was re-created
    const core::DiskBlock reset = Disk(CollectAt(collector, 2, 2 * kSecond), "sda");
    EXPECT_EQ(reset.writeBytesPerSecond.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(reset.activePercent.availability, MetricAvailability::notYetAvailable);
    EXPECT_EQ(reset.writeBytesTotal.value, 16u * 512);

    WriteSda(5, 80, 1, 4, 1040, 3, 103);
    const core::DiskBlock resumed = Disk(CollectAt(collector, 3, 3 * kSecond), "sda");
    EXPECT_DOUBLE_EQ(*resumed.writeBytesPerSecond.value, 1024.0 * 512);
    EXPECT_DOUBLE_EQ(*resumed.activePercent.value, 10.0);
}

TEST_F(DiskCollectorTest, ResetBaselinesLeavesCountersButNoRates) {
    for (const bool throughContext : {false, true}) {
        DiskCollector collector(Roots());
        CollectAt(collector, 1, kSecond);
        if (!throughContext) collector.ResetBaselines();
        CollectContext ctx;
        ctx.generation = 2;
        ctx.monotonicNs = 2 * kSecond;
        ctx.resetBaselines = throughContext;
        std::vector<core::DeviceSnapshot> devices;
        collector.Collect(ctx, devices);
        const auto& sda = Disk(devices, "sda");
        EXPECT_EQ(sda.readBytesPerSecond.availability, MetricAvailability::notYetAvailable) << throughContext;
        EXPECT_EQ(sda.readBytesTotal.value, 20000u * 512) << throughContext;
    }
}

TEST_F(DiskCollectorTest, AFailedSampleListsNothingAndKeepsTheBaselines) {
    DiskCollector collector(Roots());
    WriteSda(1000, 20000, 400, 2000, 40000, 800, 1500);
    CollectAt(collector, 1, kSecond);

    const struct {
        fs::path moved;
        int error;
        const char* message;
    } failures[] = {{"proc/diskstats", ENOENT, "procfs disk statistics unavailable"},
                    {"sys/class/block", ENOENT, "sysfs block-device enumeration failed"}};
    for (const auto& failure : failures) {
        fs::rename(dir / failure.moved, dir / "moved");
        StageResult result;
        EXPECT_TRUE(CollectAt(collector, 2, 2 * kSecond, &result).empty());
        EXPECT_FALSE(result.ok);
        EXPECT_EQ(result.error, failure.error);
        EXPECT_EQ(result.message, failure.message);
        EXPECT_TRUE(collector.Devices().empty());
        fs::rename(dir / "moved", dir / failure.moved);
    }

    WriteSda(1000, 20000 + 2048, 400, 2000, 40000, 800, 1500);
    const core::DiskBlock sda = Disk(CollectAt(collector, 3, 3 * kSecond), "sda");
    EXPECT_DOUBLE_EQ(*sda.readBytesPerSecond.value, 2048.0 * 512 / 2);
}

TEST_F(DiskCollectorTest, ADeviceWithoutAStatisticsLineLosesOnlyItsRow) {
    DiskCollector collector(Roots());
    CollectAt(collector, 1, kSecond);
    std::ofstream(dir / "proc/diskstats", std::ios::trunc) << "8 0 sda 1000 10 20000 400 2000 20 40000 800 0 1500 1200 0\n";
    EXPECT_EQ(DeviceNames(CollectAt(collector, 2, 2 * kSecond)), std::vector<std::string>{"sda"});
}

TEST_F(DiskCollectorTest, AStopRequestDiscardsTheSample) {
    DiskCollector collector(Roots());
    std::stop_source stop;
    stop.request_stop();
    CollectContext ctx;
    ctx.generation = 1;
    ctx.stop = stop.get_token();
    std::vector<core::DeviceSnapshot> devices;
    const StageResult result = collector.Collect(ctx, devices);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error, ECANCELED);
    EXPECT_TRUE(devices.empty());
}

TEST_F(DiskCollectorTest, MoreWholeDevicesThanTheLimitIsRefused) {
    // Five whole devices: dm-0, md0, nvme0n1, sda and sdb, whose statistics line is broken.
    DiskCollector atLimit(Roots(), 5);
    StageResult result;
    EXPECT_EQ(CollectAt(atLimit, 1, kSecond, &result).size(), 4u);
    EXPECT_TRUE(result.ok) << result.message;

    DiskCollector belowLimit(Roots(), 4);
    EXPECT_TRUE(CollectAt(belowLimit, 1, kSecond, &result).empty());
    EXPECT_EQ(result.error, 75);
    EXPECT_EQ(result.message, "Block-device count exceeded safety limit");
    EXPECT_TRUE(belowLimit.Devices().empty());
}

// The whole disk that holds `path`, by its device number through /sys/dev/block; empty when none.
std::string LiveDiskHolding(const fs::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || ::major(info.st_dev) == 0) return {};
    std::error_code error;
    const fs::path real = fs::canonical(
        "/sys/dev/block/" + std::to_string(::major(info.st_dev)) + ":" + std::to_string(::minor(info.st_dev)), error);
    if (error) return {};
    return fs::exists(real / "partition") ? real.parent_path().filename() : real.filename();
}

TEST(DiskCollectorLive, ListsTheWholeDisksOfThisMachine) {
    DiskCollector collector(ProviderRoots{});
    const auto first = CollectAt(collector, 1, SteadyNs());
    std::set<std::string> expected;
    for (const auto& entry : fs::directory_iterator("/sys/class/block")) {
        const std::string name = entry.path().filename();
        if (fs::exists(entry.path() / "partition") || name.starts_with("loop") || name.starts_with("ram") ||
            name.starts_with("zram")) {
            continue;
        }
        expected.insert(name);
    }
    const auto names = DeviceNames(first);
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected);
    for (const auto& name : names) {
        EXPECT_FALSE(name.starts_with("loop") || name.starts_with("zram")) << name;
        EXPECT_GT(Disk(first, name).capacityBytes.value.value_or(1), 0u) << name;
    }
    const std::string root = LiveDiskHolding("/");
    if (!root.empty()) {
        EXPECT_EQ(Disk(first, root).systemDisk.value, true) << root;
    }

    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto second = CollectAt(collector, 2, SteadyNs());
    EXPECT_EQ(second.size(), first.size());
    for (const auto& device : second) {
        const auto& disk = device.disk;
        EXPECT_TRUE(disk.readBytesPerSecond.value) << device.displayName;
        EXPECT_TRUE(disk.writeBytesPerSecond.value) << device.displayName;
        EXPECT_GE(disk.activePercent.value.value_or(-1.0), 0.0) << device.displayName;
        EXPECT_LE(disk.activePercent.value.value_or(101.0), 100.0) << device.displayName;
    }
}

TEST(DiskCollectorLive, ADirectWriteShowsAsAWriteRate) {
    const fs::path folder = fs::path(::testing::TempDir()) / ("korv-disk-live-" + std::to_string(::getpid()));
    fs::create_directories(folder);
    const fs::path file = folder / "direct.bin";
    const std::string disk = LiveDiskHolding(folder);
    const int probe = ::open(file.c_str(), O_WRONLY | O_CREAT | O_DIRECT | O_CLOEXEC, 0600);
    const int probeError = errno;
    if (probe >= 0) ::close(probe);
    if (disk.empty() || probe < 0) {
        fs::remove_all(folder);
        if (disk.empty()) GTEST_SKIP() << folder << " is not on a block device";
        GTEST_SKIP() << "O_DIRECT is not supported here: " << std::generic_category().message(probeError);
    }

    DiskCollector collector(ProviderRoots{});
    const auto first = CollectAt(collector, 1, SteadyNs());
    const std::uint64_t writtenBefore = Disk(first, disk).writeBytesTotal.value.value_or(0);

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const std::string target = "of=" + file.string();
        ::execlp("dd", "dd", "if=/dev/zero", target.c_str(), "bs=1M", "count=64", "oflag=direct", "status=none",
                 static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "dd failed: " << status;

    const auto second = CollectAt(collector, 2, SteadyNs());
    const auto& after = Disk(second, disk);
    fs::remove_all(folder);
    ASSERT_TRUE(after.writeBytesPerSecond.value) << disk;
    EXPECT_GT(*after.writeBytesPerSecond.value, 0.0) << disk;
    EXPECT_GE(after.writeBytesTotal.value.value_or(0) - writtenBefore, 64u << 20) << disk;
}

}  // namespace
}  // namespace korv::providers
