#include "providers/ata_smart.h"

#include "tests/providers/fake_smart_device_io.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fcntl.h>
#include <string>
#include <vector>

namespace korv::providers {
namespace {

constexpr std::uint16_t kPrefailure = 0x0001;
constexpr std::uint16_t kAdvisory = 0x0032;

// SMART READ DATA and READ THRESHOLDS blocks built entry by entry: 30 slots of 12 bytes from offset 2.
class SmartTables {
public:
    SmartTables& Attribute(std::uint8_t id, std::uint64_t raw, std::uint8_t current = 100,
                           std::uint16_t flags = kAdvisory, std::uint8_t threshold = 0) {
        const std::size_t offset = 2 + 12 * slot_;
        data[offset] = id;
        data[offset + 1] = static_cast<std::uint8_t>(flags);
        data[offset + 2] = static_cast<std::uint8_t>(flags >> 8);
        data[offset + 3] = current;
        data[offset + 4] = current;  // worst
        for (std::size_t i = 0; i < 6; ++i) data[offset + 5 + i] = static_cast<std::uint8_t>(raw >> (8 * i));
        thresholds[offset] = id;
        thresholds[offset + 1] = threshold;
        ++slot_;
        return *this;
    }
    SmartTables& EmptySlot() {
        ++slot_;
        return *this;
    }

    std::array<std::uint8_t, kAtaSmartBlockBytes> data{};
    std::array<std::uint8_t, kAtaSmartBlockBytes> thresholds{};

private:
    std::size_t slot_ = 0;
};

double ValueOf(const std::vector<SmartReading>& readings, const std::string& id) {
    const SmartReading* reading = FindReading(readings, id);
    return reading != nullptr ? reading->value : std::nan("");
}

struct CountingCase {
    std::uint8_t attributeId;
    const char* metricId;
    const char* displayName;
};

class AtaCountingAttribute : public ::testing::TestWithParam<CountingCase> {};

TEST_P(AtaCountingAttribute, TakesAllSixRawBytes) {
    const CountingCase& attribute = GetParam();
    SmartTables tables;
    tables.Attribute(1, 999).Attribute(attribute.attributeId, 0x123456789ABCull).Attribute(240, 55);
    const auto readings = ParseAtaSmartData(tables.data, {});
    const SmartReading* reading = FindReading(readings, attribute.metricId);
    ASSERT_NE(reading, nullptr) << attribute.metricId;
    EXPECT_DOUBLE_EQ(reading->value, static_cast<double>(0x123456789ABCull));
    EXPECT_EQ(reading->displayName, attribute.displayName);
    EXPECT_EQ(reading->unit, core::MetricUnit::count);
    EXPECT_EQ(readings.size(), 1u) << "attributes 1 and 240 are not in the table";
}

INSTANTIATE_TEST_SUITE_P(
    Table, AtaCountingAttribute,
    ::testing::Values(CountingCase{171, "storage.smart.program_failures", "Program Failures"},
                      CountingCase{172, "storage.smart.erase_failures", "Erase Failures"},
                      CountingCase{174, "storage.smart.unexpected_power_losses", "Unexpected Power Losses"},
                      CountingCase{181, "storage.smart.program_failures_total", "Program Failures (Total)"},
                      CountingCase{182, "storage.smart.erase_failures_total", "Erase Failures (Total)"},
                      CountingCase{183, "storage.smart.sata_downshifts", "SATA Downshifts"},
                      CountingCase{184, "storage.smart.end_to_end_errors", "End-to-End Errors"},
                      CountingCase{187, "storage.smart.reported_uncorrectable_errors", "Reported Uncorrectable Errors"},
                      CountingCase{188, "storage.smart.command_timeouts", "Command Timeouts"},
                      CountingCase{189, "storage.smart.high_fly_writes", "High Fly Writes"},
                      CountingCase{196, "storage.smart.reallocation_events", "Reallocation Events"},
                      CountingCase{197, "storage.smart.pending_sectors", "Pending Sectors"},
                      CountingCase{198, "storage.smart.offline_uncorrectable_sectors", "Offline Uncorrectable Sectors"},
                      CountingCase{199, "storage.smart.interface_crc_errors", "Interface CRC Errors"}));

TEST(ParseAtaSmartData, ReadsTheAttributesThatAtaNumbersItself) {
    SmartTables tables;
    tables.EmptySlot()
        .Attribute(5, 12)
        .Attribute(9, 0x0000'2A00'0000'1F40ull)  // 8000 hours; the upper two bytes hold vendor minutes
        .Attribute(12, 345)
        .Attribute(194, 0x0000'0037'0012'0029ull)  // 41 C now, the rest is vendor min/max
        .Attribute(190, 0x0000'0000'0000'0030ull);
    const auto readings = ParseAtaSmartData(tables.data, {});
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.smart.reallocated_sectors"), 12.0);
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.smart.power_on_seconds"), 8000.0 * 3600.0);
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.power_cycle_count"), 345.0);
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.temperature.composite_c"), 41.0);
    EXPECT_EQ(FindReading(readings, "storage.temperature.composite_c")->displayName, "Drive Temperature");
    EXPECT_EQ(FindReading(readings, "storage.temperature.composite_c")->category, core::MetricCategory::temperatures);
    EXPECT_EQ(FindReading(readings, "storage.health.smart_threshold_exceeded"), nullptr) << "no thresholds given";
}

TEST(ParseAtaSmartData, FallsBackToTheAirflowTemperatureAndTakesTheFirstOfTwinIds) {
    SmartTables tables;
    tables.Attribute(190, 0x0000'0000'1900'0021ull).Attribute(5, 1).Attribute(5, 99);
    const auto readings = ParseAtaSmartData(tables.data, {});
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.temperature.composite_c"), 33.0);
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.smart.reallocated_sectors"), 1.0);
}

struct ThresholdCase {
    const char* name;
    std::uint16_t flags;
    std::uint8_t current;
    std::uint8_t threshold;
    double exceeded;
};

class AtaThreshold : public ::testing::TestWithParam<ThresholdCase> {};

TEST_P(AtaThreshold, APrefailureAttributeAtOrBelowItsThresholdIsExceeded) {
    const ThresholdCase& c = GetParam();
    SmartTables tables;
    tables.Attribute(1, 0, 100, kPrefailure, 6).Attribute(5, 3, c.current, c.flags, c.threshold);
    const auto readings = ParseAtaSmartData(tables.data, tables.thresholds);
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.health.smart_threshold_exceeded"), c.exceeded) << c.name;
}

INSTANTIATE_TEST_SUITE_P(Cases, AtaThreshold,
                         ::testing::Values(ThresholdCase{"above", kPrefailure, 100, 36, 0.0},
                                           ThresholdCase{"equal", kPrefailure, 36, 36, 1.0},
                                           ThresholdCase{"below", kPrefailure, 20, 36, 1.0},
                                           ThresholdCase{"advisory", kAdvisory, 20, 36, 0.0},
                                           ThresholdCase{"never fails", kPrefailure, 20, 0, 0.0},
                                           ThresholdCase{"reserved threshold", kPrefailure, 20, 0xFE, 0.0},
                                           ThresholdCase{"reserved value", kPrefailure, 0, 36, 0.0}),
                         [](const auto& testParam) {
                             std::string name = testParam.param.name;
                             for (char& c : name) c = c == ' ' ? '_' : c;
                             return name;
                         });

TEST(ParseAtaSmartData, AShortBlockGivesNothing) {
    const std::vector<std::uint8_t> data(511, 0);
    EXPECT_TRUE(ParseAtaSmartData(data, {}).empty());
}

TEST(AtaCdb, SmartCommandsFollowTheAtaPassThroughLayout) {
    const AtaCdb readData{0x85, 0x08, 0x0E, 0, 0xD0, 0, 1, 0, 0, 0, 0x4F, 0, 0xC2, 0, 0xB0, 0};
    const AtaCdb readThresholds{0x85, 0x08, 0x0E, 0, 0xD1, 0, 1, 0, 0, 0, 0x4F, 0, 0xC2, 0, 0xB0, 0};
    const AtaCdb returnStatus{0x85, 0x06, 0x20, 0, 0xDA, 0, 0, 0, 0, 0, 0x4F, 0, 0xC2, 0, 0xB0, 0};
    const AtaCdb checkPowerMode{0x85, 0x06, 0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xE5, 0};
    EXPECT_EQ(MakeAtaSmartCdb(AtaSmartFeature::readData), readData);
    EXPECT_EQ(MakeAtaSmartCdb(AtaSmartFeature::readThresholds), readThresholds);
    EXPECT_EQ(MakeAtaSmartCdb(AtaSmartFeature::returnStatus), returnStatus);
    EXPECT_EQ(MakeAtaCheckPowerModeCdb(), checkPowerMode);
}

TEST(ParseAtaReturnedRegisters, ReadsTheStatusReturnDescriptorBehindOtherDescriptors) {
    // An information descriptor (00h, 10 bytes) first, then the ATA Status Return descriptor.
    const std::vector<std::uint8_t> sense = {0x72, 0x01, 0x00, 0x1D, 0, 0, 0, 26,
                                             0x00, 0x0A, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                             0x09, 0x0C, 0x00, 0x04, 0x00, 0x07, 0x00, 0x11, 0x00, 0xF4, 0x00, 0x2C,
                                             0xA0, 0x51};
    EXPECT_EQ(SenseKey(sense), 0x01);
    const auto registers = ParseAtaReturnedRegisters(sense);
    ASSERT_TRUE(registers.has_value());
    EXPECT_EQ(registers->error, 0x04);
    EXPECT_EQ(registers->count, 0x07);
    EXPECT_EQ(registers->lbaLow, 0x11);
    EXPECT_EQ(registers->lbaMid, 0xF4);
    EXPECT_EQ(registers->lbaHigh, 0x2C);
    EXPECT_EQ(registers->device, 0xA0);
    EXPECT_EQ(registers->status, 0x51);
    EXPECT_EQ(AtaHealthFromRegisters(*registers), AtaHealth::thresholdExceeded);
}

TEST(ParseAtaReturnedRegisters, ReadsFixedFormatSense) {
    const std::vector<std::uint8_t> sense = {0x70, 0, 0x01, 0x00, 0x50, 0xA0, 0xFF, 10, 0x00, 0x00, 0x4F, 0xC2,
                                             0, 0x1D, 0, 0, 0, 0};
    EXPECT_EQ(SenseKey(sense), 0x01);
    const auto registers = ParseAtaReturnedRegisters(sense);
    ASSERT_TRUE(registers.has_value());
    EXPECT_EQ(registers->status, 0x50);
    EXPECT_EQ(registers->device, 0xA0);
    EXPECT_EQ(registers->count, 0xFF);
    EXPECT_EQ(AtaHealthFromRegisters(*registers), AtaHealth::good);
}

TEST(ParseAtaReturnedRegisters, RefusesSenseWithoutRegisters) {
    EXPECT_FALSE(ParseAtaReturnedRegisters({}).has_value());
    const std::vector<std::uint8_t> truncated = {0x72, 0x01, 0x00, 0x1D, 0, 0, 0, 14, 0x09, 0x0C, 0x00};
    EXPECT_FALSE(ParseAtaReturnedRegisters(truncated).has_value());
    const std::vector<std::uint8_t> otherDescriptor = {0x72, 0x05, 0x24, 0x00, 0, 0, 0, 4, 0x02, 0x02, 0, 0};
    EXPECT_FALSE(ParseAtaReturnedRegisters(otherDescriptor).has_value());
    EXPECT_EQ(SenseKey(otherDescriptor), 0x05);
    const std::vector<std::uint8_t> unknownFormat = {0x7F, 0, 0, 0};
    EXPECT_FALSE(SenseKey(unknownFormat).has_value());
}

TEST(AtaHealthFromRegisters, OnlyTheTwoSignaturesCount) {
    EXPECT_EQ(AtaHealthFromRegisters({0, 0, 0, 0x4F, 0xC2, 0, 0x50}), AtaHealth::good);
    EXPECT_EQ(AtaHealthFromRegisters({0, 0, 0, 0xF4, 0x2C, 0, 0x50}), AtaHealth::thresholdExceeded);
    EXPECT_EQ(AtaHealthFromRegisters({0, 0, 0, 0x4F, 0x2C, 0, 0x50}), AtaHealth::unknown);
    EXPECT_EQ(AtaHealthFromRegisters({}), AtaHealth::unknown);
}

TEST(ReadAtaSmart, SendsPowerCheckDataThresholdsAndStatusOverSgIo) {
    test_support::FakeSmartDeviceIo io;
    SmartTables tables;
    tables.Attribute(9, 100, 100, kAdvisory).Attribute(194, 38).Attribute(197, 2, 100, kPrefailure, 0);
    io.ataData = tables.data;
    io.ataThresholds = tables.thresholds;
    const SmartRouteResult result = ReadAtaSmart(io, "/dev/sda");
    ASSERT_EQ(result.error, 0);
    EXPECT_FALSE(result.asleep);
    ASSERT_EQ(io.opened.size(), 1u);
    EXPECT_EQ(io.opened[0].first, "/dev/sda");
    EXPECT_EQ(io.opened[0].second & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(io.closed, 1);
    ASSERT_EQ(io.sgCalls.size(), 4u);
    EXPECT_EQ(io.sgCalls[0].cdb, MakeAtaCheckPowerModeCdb());
    EXPECT_EQ(io.sgCalls[1].cdb, MakeAtaSmartCdb(AtaSmartFeature::readData));
    EXPECT_EQ(io.sgCalls[2].cdb, MakeAtaSmartCdb(AtaSmartFeature::readThresholds));
    EXPECT_EQ(io.sgCalls[3].cdb, MakeAtaSmartCdb(AtaSmartFeature::returnStatus));
    for (const auto& call : io.sgCalls) {
        EXPECT_EQ(call.interfaceId, 'S');
        EXPECT_EQ(call.timeoutMs, 1000u);
    }
    EXPECT_EQ(io.sgCalls[1].direction, SG_DXFER_FROM_DEV);
    EXPECT_EQ(io.sgCalls[1].transferLength, 512u);
    EXPECT_EQ(io.sgCalls[3].direction, SG_DXFER_NONE);
    EXPECT_DOUBLE_EQ(ValueOf(result.readings, "storage.smart.power_on_seconds"), 360000.0);
    EXPECT_DOUBLE_EQ(ValueOf(result.readings, "storage.temperature.composite_c"), 38.0);
    EXPECT_DOUBLE_EQ(ValueOf(result.readings, "storage.smart.pending_sectors"), 2.0);
    EXPECT_DOUBLE_EQ(ValueOf(result.readings, "storage.health.smart_threshold_exceeded"), 0.0);
}

TEST(ReadAtaSmart, TheDrivesOwnHealthVerdictOutranksTheThresholds) {
    test_support::FakeSmartDeviceIo io;
    SmartTables tables;
    tables.Attribute(5, 0, 100, kPrefailure, 36);
    io.ataData = tables.data;
    io.ataThresholds = tables.thresholds;
    io.statusLbaMid = 0xF4;
    io.statusLbaHigh = 0x2C;
    const SmartRouteResult result = ReadAtaSmart(io, "/dev/sdb");
    ASSERT_EQ(result.error, 0);
    EXPECT_DOUBLE_EQ(ValueOf(result.readings, "storage.health.smart_threshold_exceeded"), 1.0);
    int healthReadings = 0;
    for (const auto& reading : result.readings)
        healthReadings += reading.id == "storage.health.smart_threshold_exceeded";
    EXPECT_EQ(healthReadings, 1);
}

TEST(ReadAtaSmart, ASpunDownDriveGetsNoSmartCommand) {
    for (const std::uint8_t standby : {0x00, 0x01, 0x40, 0x41}) {
        test_support::FakeSmartDeviceIo io;
        io.powerModeCount = standby;
        const SmartRouteResult result = ReadAtaSmart(io, "/dev/sda");
        EXPECT_TRUE(result.asleep) << int(standby);
        EXPECT_EQ(result.error, 0);
        ASSERT_EQ(io.sgCalls.size(), 1u) << int(standby);
        EXPECT_EQ(io.sgCalls[0].cdb[14], 0xE5);
        EXPECT_EQ(io.closed, 1);
    }
}

TEST(ReadAtaSmart, TransportFailuresComeBackAsErrno) {
    test_support::FakeSmartDeviceIo notScsi;
    notScsi.sgIoError = ENOTTY;
    EXPECT_EQ(ReadAtaSmart(notScsi, "/dev/vda").error, ENOTTY);
    EXPECT_EQ(notScsi.sgCalls.size(), 1u) << "no SMART command after the ioctl itself failed";

    test_support::FakeSmartDeviceIo refused;
    refused.illegalRequest = true;
    const SmartRouteResult result = ReadAtaSmart(refused, "/dev/sdc");
    EXPECT_EQ(result.error, EIO);
    EXPECT_TRUE(result.readings.empty());
    EXPECT_EQ(refused.closed, 1);

    test_support::FakeSmartDeviceIo denied;
    denied.openErrors["/dev/sda"] = EACCES;
    EXPECT_EQ(ReadAtaSmart(denied, "/dev/sda").error, EACCES);
    EXPECT_EQ(denied.CommandCount(), 0u);
}

}  // namespace
}  // namespace korv::providers
