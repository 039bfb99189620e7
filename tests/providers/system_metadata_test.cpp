#include "providers/system_metadata.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <sys/utsname.h>
#include <unistd.h>

namespace korv::providers {
namespace {

using core::MetricAvailability;

TEST(ParseLoadAverage, ReadsThreeFiguresAndTasks) {
    const auto load = ParseLoadAverage("0.52 1.58 10.59 3/812 12345\n");
    ASSERT_TRUE(load);
    EXPECT_DOUBLE_EQ(load->one, 0.52);
    EXPECT_DOUBLE_EQ(load->fifteen, 10.59);
    EXPECT_EQ(load->running, 3u);
    EXPECT_EQ(load->total, 812u);
}

TEST(ParseLoadAverage, RefusesBrokenLines) {
    for (const char* text : {"", "0.5 0.5\n", "0.5 0.5 0.5 3\n", "0.5 0.5 x 3/8\n", "0.5 0.5 0.5 3/\n", "-1 0 0 1/1\n"}) {
        EXPECT_FALSE(ParseLoadAverage(text)) << text;
    }
}

TEST(ParseOsRelease, PrefersPrettyNameAndVersionIdAndRemovesQuotes) {
    const auto release = ParseOsRelease(
        "# comment\nNAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"
        "VERSION=\"12 (bookworm)\"\nVERSION_ID='12'\n");
    EXPECT_EQ(release.distribution, "Debian GNU/Linux 12 (bookworm)");
    EXPECT_EQ(release.version, "12");
    const auto fallback = ParseOsRelease("NAME=Arch\nPRETTY_NAME=\"\"\nVERSION=rolling\n");
    EXPECT_EQ(fallback.distribution, "Arch");
    EXPECT_EQ(fallback.version, "rolling");
    EXPECT_EQ(ParseOsRelease("ID=x\n").distribution, "");
}

// A machine of its own in the test's temp folder, removed afterwards.
class SystemMetadataTree : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = std::filesystem::path(::testing::TempDir()) / ("korv-system-" + std::to_string(::getpid()));
        std::filesystem::create_directories(root_ / "proc/sys/kernel");
        std::filesystem::create_directories(root_ / "etc");
    }
    void TearDown() override { std::filesystem::remove_all(root_); }

    void Write(const std::string& relative, const std::string& text) const {
        std::filesystem::create_directories((root_ / relative).parent_path());
        std::ofstream(root_ / relative) << text;
    }
    core::SystemSnapshot Fill(SystemMetadataCollector& collector, std::uint64_t generation = 4) const {
        core::SystemSnapshot snapshot;
        CollectContext context;
        context.generation = generation;
        collector.Fill(snapshot, context);
        return snapshot;
    }
    ProviderRoots Roots() const { return {root_ / "proc", root_ / "sys", root_ / "cgroup", root_ / "etc"}; }

    std::filesystem::path root_;
};

TEST_F(SystemMetadataTree, FillsEveryField) {
    Write("proc/loadavg", "1.00 2.00 3.00 4/500 999\n");
    Write("proc/sys/kernel/osrelease", "6.8.0-test\n");
    Write("proc/sys/kernel/hostname", "workstation\n");
    Write("etc/os-release", "PRETTY_NAME=\"Test OS 1\"\nVERSION_ID=\"1.2\"\n");
    Write("sys/devices/virtual/dmi/id/product_name", "ThinkPad X1 Carbon\n");
    SystemMetadataCollector collector(Roots());
    const auto snapshot = Fill(collector);
    EXPECT_EQ(snapshot.loadAverage5.value, 2.0);
    EXPECT_EQ(snapshot.runnableTasks.value, 4u);
    EXPECT_EQ(snapshot.totalTasks.value, 500u);
    EXPECT_EQ(snapshot.kernelRelease.value, "6.8.0-test");
    EXPECT_EQ(snapshot.hostName.value, "workstation");
    EXPECT_EQ(snapshot.distribution.value, "Test OS 1");
    EXPECT_EQ(snapshot.distributionVersion.value, "1.2");
    EXPECT_EQ(snapshot.systemModel.value, "ThinkPad X1 Carbon");
    EXPECT_EQ(snapshot.systemModel.source, "linux.system.metadata");
    EXPECT_EQ(snapshot.hostName.lastGoodGeneration, 4u);

    // The host name follows a rename; the load follows every tick.
    Write("proc/sys/kernel/hostname", "renamed\n");
    Write("proc/loadavg", "0.00 2.00 3.00 1/500 999\n");
    const auto later = Fill(collector, 5);
    EXPECT_EQ(later.hostName.value, "renamed");
    EXPECT_EQ(later.loadAverage1.availability, MetricAvailability::zero);
}

TEST_F(SystemMetadataTree, MissingAndBrokenFilesSayWhy) {
    Write("proc/loadavg", "garbage\n");
    SystemMetadataCollector collector(Roots());
    const auto snapshot = Fill(collector);
    EXPECT_EQ(snapshot.loadAverage1.availability, MetricAvailability::transientError);
    EXPECT_EQ(snapshot.totalTasks.availability, MetricAvailability::transientError);
    EXPECT_EQ(snapshot.distribution.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.kernelRelease.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.hostName.availability, MetricAvailability::unsupported);
    EXPECT_EQ(snapshot.systemModel.value, "Linux PC");
    EXPECT_EQ(snapshot.systemModel.quality, core::MetricQuality::fallback);

    // Files that appear later are still picked up: nothing was cached from the failed attempt.
    Write("etc/os-release", "NAME=Later\n");
    Write("proc/sys/kernel/osrelease", "6.9\n");
    const auto later = Fill(collector);
    EXPECT_EQ(later.distribution.value, "Later");
    EXPECT_EQ(later.kernelRelease.value, "6.9");
}

TEST(SystemMetadataLive, MatchesTheRunningKernel) {
    SystemMetadataCollector collector{ProviderRoots{}};
    core::SystemSnapshot snapshot;
    CollectContext context;
    context.generation = 1;
    collector.Fill(snapshot, context);
    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    EXPECT_EQ(snapshot.kernelRelease.value, std::string(names.release));
    EXPECT_EQ(snapshot.hostName.value, std::string(names.nodename));
    ASSERT_TRUE(snapshot.loadAverage1.HasValue());
    EXPECT_GE(*snapshot.loadAverage1.value, 0.0);
    ASSERT_TRUE(snapshot.totalTasks.HasValue());
    EXPECT_GE(*snapshot.totalTasks.value, *snapshot.runnableTasks.value);
    EXPECT_TRUE(snapshot.systemModel.HasValue());
}

}  // namespace
}  // namespace korv::providers
