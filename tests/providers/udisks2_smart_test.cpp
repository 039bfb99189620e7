#include "providers/udisks2_smart.h"

#include "tests/providers/private_system_bus.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string>

namespace korv::providers {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::filesystem::path kTemplate = std::filesystem::path(KORV_TEST_FIXTURES) / "smart" / "udisks2_template.py";
constexpr const char* kService = "org.freedesktop.UDisks2";
// Generous, for a slow VM; the hang test's stand-in sleeps far longer than this.
constexpr auto kAmple = 20s;

double ValueOf(const std::vector<SmartReading>& readings, const std::string& id) {
    const SmartReading* reading = FindReading(readings, id);
    return reading != nullptr ? reading->value : std::nan("");
}

TEST(UDisks2BlockObjectPath, EscapesWhatObjectPathsCannotHold) {
    EXPECT_EQ(UDisks2BlockObjectPath("nvme0n1"), "/org/freedesktop/UDisks2/block_devices/nvme0n1");
    EXPECT_EQ(UDisks2BlockObjectPath("dm-0"), "/org/freedesktop/UDisks2/block_devices/dm_2d0");
    EXPECT_EQ(UDisks2BlockObjectPath("a.b_c"), "/org/freedesktop/UDisks2/block_devices/a_2eb_c");
    EXPECT_EQ(UDisks2BlockObjectPath("\xC3\xA9"), "/org/freedesktop/UDisks2/block_devices/_c3_a9");
}

class UDisks2SmartTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string missing = test_support::PrivateSystemBus::MissingTool();
        if (!missing.empty()) GTEST_SKIP() << missing;
        bus_.emplace();
    }
    void StartUDisks2(const std::string& parameters = {}) {
        const std::string failure = bus_->Start(kService, kTemplate, parameters);
        ASSERT_TRUE(failure.empty()) << failure;
    }

    std::optional<test_support::PrivateSystemBus> bus_;
};

TEST_F(UDisks2SmartTest, AnNvmeDriveIsReadFromItsAttributesAndProperties) {
    StartUDisks2();
    UDisks2SmartClient client;
    const UDisks2SmartResult result = client.Read("nvme0n1", true, Clock::now() + kAmple);
    ASSERT_EQ(result.outcome, UDisks2Outcome::answered) << result.message;
    const auto& r = result.readings;
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.health.available_spare_pct"), 97.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.health.available_spare_threshold_pct"), 10.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.life_used_pct"), 3.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.data_read_bytes"), 1024000000.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.data_written_bytes"), 2048000000.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.controller_busy_seconds"), 720.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.power_cycle_count"), 40.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.unsafe_shutdowns"), 2.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.media_errors"), 0.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.error_log_entries"), 5.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.warning_temperature_seconds"), 240.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.critical_temperature_seconds"), 60.0);
    EXPECT_NEAR(ValueOf(r, "storage.temperature.sensor.1"), 44.85, 1e-9);
    EXPECT_EQ(FindReading(r, "storage.temperature.sensor.2"), nullptr) << "a sensor reading 0 K is absent";
    EXPECT_NEAR(ValueOf(r, "storage.temperature.sensor.3"), 49.85, 1e-9);
    // Filled from the controller's properties, which the dictionary lacks.
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.power_on_seconds"), 1234.0 * 3600.0);
    EXPECT_NEAR(ValueOf(r, "storage.temperature.composite_c"), 39.85, 1e-9);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.health.critical_warning"), 9.0);  // spare (bit 0) and read-only (bit 3)
}

TEST_F(UDisks2SmartTest, AnAtaDriveIsReadFromThePrettyValuesOfItsAttributes) {
    StartUDisks2(R"({"smart_failing": true})");
    UDisks2SmartClient client;
    const UDisks2SmartResult result = client.Read("sda", false, Clock::now() + kAmple);
    ASSERT_EQ(result.outcome, UDisks2Outcome::answered) << result.message;
    const auto& r = result.readings;
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.reallocated_sectors"), 8.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.power_on_seconds"), 1500.0 * 3600.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.power_cycle_count"), 321.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.reported_uncorrectable_errors"), 2.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.pending_sectors"), 1.0);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.smart.interface_crc_errors"), 0.0);
    EXPECT_NEAR(ValueOf(r, "storage.temperature.composite_c"), 36.0, 1e-9);
    EXPECT_DOUBLE_EQ(ValueOf(r, "storage.health.smart_threshold_exceeded"), 1.0);
    EXPECT_EQ(r.size(), 8u) << "attribute 240 is not in the table";
}

TEST_F(UDisks2SmartTest, OneConnectionServesRepeatedReads) {
    StartUDisks2();
    UDisks2SmartClient client;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client.Read("sda", false, Clock::now() + kAmple).outcome, UDisks2Outcome::answered);
    }
    EXPECT_EQ(
        bus_->MockCallCount(kService, "/org/freedesktop/UDisks2/drives/Example_SATA_HDD_W1", "SmartGetAttributes"), 3);
}

TEST_F(UDisks2SmartTest, ABlockWithoutADriveHasNoSmart) {
    StartUDisks2();
    UDisks2SmartClient client;
    const UDisks2SmartResult result = client.Read("vda", false, Clock::now() + kAmple);
    EXPECT_EQ(result.outcome, UDisks2Outcome::noSmart);
    EXPECT_EQ(result.message, "UDisks2 knows no drive behind vda");
    const UDisks2SmartResult unknown = client.Read("sdz", false, Clock::now() + kAmple);
    EXPECT_EQ(unknown.outcome, UDisks2Outcome::noSmart);
    EXPECT_TRUE(unknown.message.starts_with("UDisks2 has no SMART data for sdz: ")) << unknown.message;
}

TEST_F(UDisks2SmartTest, AnAbsentServiceGivesAPlainMessageWithinTheTimeOut) {
    ASSERT_TRUE(bus_->StartBus().empty());
    UDisks2SmartClient client;
    const auto started = Clock::now();
    const UDisks2SmartResult result = client.Read("nvme0n1", true, started + kAmple);
    EXPECT_LT(Clock::now() - started, kAmple);
    EXPECT_EQ(result.outcome, UDisks2Outcome::noSmart);
    EXPECT_EQ(result.message, "UDisks2 is not running on the system bus");
    EXPECT_NE(result.error, 0);
    EXPECT_TRUE(result.readings.empty());
}

TEST_F(UDisks2SmartTest, AServiceThatHangsIsLeftWhenTheTimeRunsOut) {
    StartUDisks2(R"({"hang_seconds": 120})");
    UDisks2SmartClient client;
    const auto started = Clock::now();
    const UDisks2SmartResult result = client.Read("sda", false, started + 300ms);
    // The stand-in sleeps two minutes; returning well before that shows the time-out was applied.
    EXPECT_LT(Clock::now() - started, 60s);
    EXPECT_EQ(result.outcome, UDisks2Outcome::timedOut);
    EXPECT_EQ(result.message, "UDisks2 did not answer within the time left in this tick");
    EXPECT_EQ(result.error, ETIMEDOUT);
}

TEST_F(UDisks2SmartTest, NoTimeLeftMeansNoCall) {
    StartUDisks2();
    UDisks2SmartClient client;
    ASSERT_EQ(client.Read("sda", false, Clock::now() + kAmple).outcome, UDisks2Outcome::answered);
    const UDisks2SmartResult result = client.Read("sda", false, Clock::now());
    EXPECT_EQ(result.outcome, UDisks2Outcome::timedOut);
    EXPECT_EQ(
        bus_->MockCallCount(kService, "/org/freedesktop/UDisks2/drives/Example_SATA_HDD_W1", "SmartGetAttributes"), 1);
}

}  // namespace
}  // namespace korv::providers
