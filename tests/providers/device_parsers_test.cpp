#include "providers/diskstats.h"
#include "providers/net_dev.h"

#include <gtest/gtest.h>

namespace korv::providers {
namespace {

TEST(ParseDiskStatsLine, ReadsTheFourteenFieldsOfOldAndNewKernels) {
    // 14 fields (kernel 2.6 to 4.17), and 20 with discard and flush columns.
    for (const char* line : {"   8       0 sda 11 2 33 44 55 6 77 88 9 110 120",
                             "8 0 sda 11 2 33 44 55 6 77 88 9 110 120 13 14 15 16 17 18"}) {
        const auto row = ParseDiskStatsLine(line);
        ASSERT_TRUE(row) << line;
        EXPECT_EQ(row->major, 8u);
        EXPECT_EQ(row->minor, 0u);
        EXPECT_EQ(row->name, "sda");
        EXPECT_EQ(row->readsCompleted, 11u);
        EXPECT_EQ(row->sectorsRead, 33u);
        EXPECT_EQ(row->readMillis, 44u);
        EXPECT_EQ(row->writesCompleted, 55u);
        EXPECT_EQ(row->sectorsWritten, 77u);
        EXPECT_EQ(row->writeMillis, 88u);
        EXPECT_EQ(row->ioTicksMillis, 110u);
    }
    EXPECT_FALSE(ParseDiskStatsLine("   8       0 sda 11 2 33 44 55 6 77 88 9 110"));  // thirteen fields
}

TEST(ParseDiskStatsLine, RefusesFieldsThatAreNoNumbers) {
    for (const char* line : {"8 0 sda x 0 0 0 0 0 0 0 0 0 0", "8 0 sda 1 0 0 0 0 0 0 0 0 -5 0",
                             "8 0 sda 18446744073709551616 0 0 0 0 0 0 0 0 0 0", "4294967296 0 sda 1 0 0 0 0 0 0 0 0 0 0",
                             "8 0 sda 1 0 2x 0 0 0 0 0 0 0 0", ""}) {
        EXPECT_FALSE(ParseDiskStatsLine(line)) << line;
    }
    const auto largest = ParseDiskStatsLine("8 0 sda 18446744073709551615 0 0 0 0 0 0 0 0 0 0");
    ASSERT_TRUE(largest);
    EXPECT_EQ(largest->readsCompleted, 18446744073709551615u);
}

TEST(ParseDiskStats, SkipsBadLinesAndKeepsTheRestInOrder) {
    std::vector<DiskStatsRow> rows(5);
    ParseDiskStats("8 0 sda 1 0 2 0 3 0 4 0 0 5 0\nbroken line\n8 16 sdb 1 0 0 0 0 0 0 0 0 0\n259 0 nvme0n1 1 0 2 0 3 "
                   "0 4 0 0 5 0",
                   rows);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].name, "sda");
    EXPECT_EQ(rows[0].ioTicksMillis, 5u);
    EXPECT_EQ(rows[1].name, "nvme0n1");
}

TEST(ParseNetDevLine, SplitsTheNameAtTheColonEvenWhenACounterTouchesIt) {
    const auto row = ParseNetDevLine("  eth0:123456789012 7 0 0 0 0 0 0 555 8 0 0 0 0 0 0");
    ASSERT_TRUE(row);
    EXPECT_EQ(row->name, "eth0");
    EXPECT_EQ(row->receiveBytes, 123456789012u);
    EXPECT_EQ(row->receivePackets, 7u);
    EXPECT_EQ(row->transmitBytes, 555u);
    EXPECT_EQ(row->transmitPackets, 8u);

    for (const char* bad : {"eth0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", ": 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16",
                            "eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15", "eth0: 1 2 3 4 5 6 7 8 x 10 11 12 13 14 15 16"}) {
        EXPECT_FALSE(ParseNetDevLine(bad)) << bad;
    }
}

TEST(ParseNetDev, SkipsTheTwoHeaderLines) {
    std::vector<NetDevRow> rows;
    ParseNetDev("a: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\nb: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
                "  lo: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\nbad\n eth0: 9 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n",
                rows);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].name, "lo");
    EXPECT_EQ(rows[1].name, "eth0");
    EXPECT_EQ(rows[1].receiveBytes, 9u);
}

}  // namespace
}  // namespace korv::providers
