#include "providers/volume_collector.h"

#include "tests/core/temp_folder_test_base.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

namespace korv::providers {
namespace {

using core::MetricAvailability;
namespace fs = std::filesystem;

TEST(MountInfoParser, ReadsFieldsAroundOptionalTagsAndUndoesEscapes) {
    const std::string text =
        "22 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw,errors=remount-ro\n"
        "23 22 0:21 / /proc rw - proc proc rw\n"
        "24 22 8:3 / /mnt/my\\040disk\\011two rw shared:7 master:2 - vfat /dev/sdb\\1341 rw\n"
        "25 22 8:2 /srv/data /data rw - ext4 /dev/sda2 rw\n"
        "26 22 8:4 / /no/type rw\n"
        "27 22 8:5 / /cut rw - ext4\n"
        "\n"
        "28 22 8:6 /  /double  rw  -  xfs  /dev/sdc1  rw\n";
    const std::vector<MountEntry> entries = ParseMountInfo(text);
    ASSERT_EQ(entries.size(), 5u);
    EXPECT_EQ(entries[0].mountPoint, "/");
    EXPECT_EQ(entries[0].type, "ext4");
    EXPECT_EQ(entries[0].source, "/dev/sda2");
    EXPECT_EQ(entries[1].type, "proc");
    EXPECT_EQ(entries[2].mountPoint, "/mnt/my disk\ttwo");
    EXPECT_EQ(entries[2].type, "vfat");
    EXPECT_EQ(entries[2].source, "/dev/sdb\\1");
    EXPECT_EQ(entries[3].root, "/srv/data");
    EXPECT_EQ(entries[3].mountPoint, "/data");
    EXPECT_EQ(entries[4].mountPoint, "/double");
    EXPECT_EQ(entries[4].source, "/dev/sdc1");
}

// A private proc root whose self/mountinfo the test writes; mount points are real folders.
class VolumeCollectorTest : public core::TempFolderTest {
protected:
    VolumeCollectorTest() : TempFolderTest("korv-volumes") {}

    std::vector<core::VolumeUsage> CollectWith(const std::string& mountInfo) {
        fs::create_directories(dir / "proc/self");
        std::ofstream(dir / "proc/self/mountinfo") << mountInfo;
        ProviderRoots roots;
        roots.proc = dir / "proc";
        VolumeCollector collector(roots);
        CollectContext ctx;
        ctx.generation = 5;
        return collector.Collect(ctx);
    }
};

TEST_F(VolumeCollectorTest, ListsEachBlockDeviceOnceWithItsUsedSpace) {
    const fs::path spaced = dir / "my disk";
    fs::create_directories(spaced);
    std::string escaped = spaced.string();
    escaped.replace(escaped.find(' '), 1, "\\040");
    const std::vector<core::VolumeUsage> volumes = CollectWith(
        "22 1 8:2 / / rw - ext4 /dev/root rw\n"
        "23 22 0:21 / /proc rw - proc proc rw\n"
        "24 22 0:30 / /run rw - tmpfs tmpfs rw\n"
        "25 22 7:1 / /snap/core/1 ro - squashfs /dev/loop1 ro\n"
        "26 22 8:2 /home / rw - ext4 /dev/root rw\n"
        "27 22 8:17 / " + escaped + " rw - ext4 /dev/sdb1 rw\n"
        "28 22 8:17 / /again rw - ext4 /dev/sdb1 rw\n"
        "29 22 8:33 / " + (dir / "absent").string() + " rw - ext4 /dev/sdc1 rw\n"
        "30 22 0:40 / /net rw - nfs4 server:/export rw\n");

    ASSERT_EQ(volumes.size(), 3u);
    EXPECT_EQ(volumes[0].id, "/dev/root");
    EXPECT_EQ(volumes[0].displayName, "/");
    EXPECT_EQ(volumes[1].id, "/dev/sdb1");
    EXPECT_EQ(volumes[1].displayName, spaced.string());
    for (std::size_t i = 0; i < 2; ++i) {
        const auto& used = volumes[i].usedPercent;
        ASSERT_TRUE(used.value.has_value()) << volumes[i].displayName;
        EXPECT_TRUE(used.availability == MetricAvailability::valid || used.availability == MetricAvailability::zero);
        EXPECT_GE(*used.value, 0.0);
        EXPECT_LE(*used.value, 100.0);
        EXPECT_EQ(used.lastGoodGeneration, 5u);
    }
    EXPECT_EQ(volumes[2].id, "/dev/sdc1");
    EXPECT_EQ(volumes[2].usedPercent.availability, MetricAvailability::notYetAvailable);
    EXPECT_FALSE(volumes[2].usedPercent.value.has_value());
}

TEST_F(VolumeCollectorTest, MissingMountInfoGivesNoVolumes) {
    ProviderRoots roots;
    roots.proc = dir / "nothing-here";
    VolumeCollector collector(roots);
    EXPECT_TRUE(collector.Collect(CollectContext{}).empty());
}

}  // namespace
}  // namespace korv::providers
