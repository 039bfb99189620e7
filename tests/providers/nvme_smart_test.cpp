#include "providers/nvme_smart.h"

#include "tests/providers/fake_smart_device_io.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace korv::providers {
namespace {

using core::MetricCategory;
using core::MetricUnit;

// A log page built field by field from the layout of the SMART / Health log.
class LogPage {
public:
    LogPage& Put(std::size_t offset, std::size_t width, std::uint64_t value) {
        for (std::size_t i = 0; i < width && i < 8; ++i)
            bytes_[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
        return *this;
    }
    // A 16-byte counter from its high and low 64-bit halves.
    LogPage& Put128(std::size_t offset, std::uint64_t high, std::uint64_t low) {
        Put(offset, 8, low);
        return Put(offset + 8, 8, high);
    }
    const std::vector<std::uint8_t>& Bytes() const noexcept { return bytes_; }

private:
    std::vector<std::uint8_t> bytes_ = std::vector<std::uint8_t>(kNvmeSmartLogBytes, 0);
};

double ValueOf(const std::vector<SmartReading>& readings, const std::string& id) {
    const SmartReading* reading = FindReading(readings, id);
    return reading != nullptr ? reading->value : std::nan("");
}

struct FieldCase {
    std::size_t offset;
    std::size_t width;
    std::uint64_t raw;
    const char* id;
    double expected;
    MetricUnit unit;
};

class NvmeLogField : public ::testing::TestWithParam<FieldCase> {};

TEST_P(NvmeLogField, IsReadAtItsOffsetAndScaled) {
    const FieldCase& field = GetParam();
    LogPage page;
    page.Put(1, 2, 300);  // composite temperature, present in every page
    if (field.width == 16) {
        page.Put128(field.offset, 0, field.raw);
    } else {
        page.Put(field.offset, field.width, field.raw);
    }
    const auto readings = ParseNvmeSmartLog(page.Bytes());
    const SmartReading* reading = FindReading(readings, field.id);
    ASSERT_NE(reading, nullptr) << field.id;
    EXPECT_DOUBLE_EQ(reading->value, field.expected) << field.id;
    EXPECT_EQ(reading->unit, field.unit) << field.id;
}

INSTANTIATE_TEST_SUITE_P(
    EveryField, NvmeLogField,
    ::testing::Values(FieldCase{0, 1, 0x05, "storage.health.critical_warning", 5.0, MetricUnit::none},
                      FieldCase{1, 2, 0x0150, "storage.temperature.composite_c", 336.0 - 273.15, MetricUnit::celsius},
                      FieldCase{3, 1, 97, "storage.health.available_spare_pct", 97.0, MetricUnit::percent},
                      FieldCase{4, 1, 10, "storage.health.available_spare_threshold_pct", 10.0, MetricUnit::percent},
                      FieldCase{5, 1, 4, "storage.life_used_pct", 4.0, MetricUnit::percent},
                      FieldCase{32, 16, 1000, "storage.smart.data_read_bytes", 512000000.0, MetricUnit::bytes},
                      FieldCase{48, 16, 3, "storage.smart.data_written_bytes", 1536000.0, MetricUnit::bytes},
                      FieldCase{64, 16, 123456789, "storage.smart.host_read_commands", 123456789.0, MetricUnit::count},
                      FieldCase{80, 16, 987654, "storage.smart.host_write_commands", 987654.0, MetricUnit::count},
                      FieldCase{96, 16, 7, "storage.smart.controller_busy_seconds", 420.0, MetricUnit::seconds},
                      FieldCase{112, 16, 41, "storage.power_cycle_count", 41.0, MetricUnit::count},
                      FieldCase{128, 16, 2, "storage.smart.power_on_seconds", 7200.0, MetricUnit::seconds},
                      FieldCase{144, 16, 6, "storage.smart.unsafe_shutdowns", 6.0, MetricUnit::count},
                      FieldCase{160, 16, 1, "storage.smart.media_errors", 1.0, MetricUnit::count},
                      FieldCase{176, 16, 12, "storage.smart.error_log_entries", 12.0, MetricUnit::count},
                      FieldCase{192, 4, 3, "storage.smart.warning_temperature_seconds", 180.0, MetricUnit::seconds},
                      FieldCase{196, 4, 0x01000000, "storage.smart.critical_temperature_seconds", 16777216.0 * 60.0,
                                MetricUnit::seconds}));

TEST(ParseNvmeSmartLog, NamesEveryFieldAndFilesTemperaturesApart) {
    LogPage page;
    page.Put(1, 2, 310).Put(200, 2, 305);
    const auto readings = ParseNvmeSmartLog(page.Bytes());
    ASSERT_EQ(readings.size(), 18u);  // 17 fields and the one sensor present
    for (const auto& reading : readings) {
        const bool temperature = reading.id.starts_with("storage.temperature.");
        EXPECT_EQ(reading.category, temperature ? MetricCategory::temperatures : MetricCategory::smart) << reading.id;
        EXPECT_FALSE(reading.displayName.empty()) << reading.id;
    }
    EXPECT_EQ(FindReading(readings, "storage.temperature.composite_c")->displayName, "Composite Temperature");
    EXPECT_EQ(FindReading(readings, "storage.smart.media_errors")->displayName, "Media and Data Errors");
}

TEST(ParseNvmeSmartLog, CountersBeyondSixtyFourBitsConvertWithoutOverflow) {
    LogPage page;
    page.Put128(32, 1, 5);                      // data units read: 2^64 + 5
    page.Put128(64, 0x8000000000000000u, 0);    // host reads: 2^127
    page.Put128(80, 0, 0xffffffffffffffffu);    // host writes: 2^64 - 1, the largest that fits 64 bits
    const auto readings = ParseNvmeSmartLog(page.Bytes());
    const double twoTo64 = std::ldexp(1.0, 64);
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.smart.data_read_bytes"), (twoTo64 + 5.0) * 512000.0);
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.smart.host_read_commands"), std::ldexp(1.0, 127));
    EXPECT_DOUBLE_EQ(ValueOf(readings, "storage.smart.host_write_commands"), twoTo64 - 1.0);
}

TEST(ParseNvmeSmartLog, SkipsTemperatureSensorsThatReadZeroAndKeepsTheirNumbers) {
    LogPage page;
    page.Put(1, 2, 300);
    page.Put(200, 2, 320);  // sensor 1
    page.Put(204, 2, 330);  // sensor 3; sensor 2 reads 0
    page.Put(214, 2, 273);  // sensor 8
    const auto readings = ParseNvmeSmartLog(page.Bytes());
    EXPECT_NEAR(ValueOf(readings, "storage.temperature.sensor.1"), 46.85, 1e-9);
    EXPECT_EQ(FindReading(readings, "storage.temperature.sensor.2"), nullptr);
    EXPECT_NEAR(ValueOf(readings, "storage.temperature.sensor.3"), 56.85, 1e-9);
    EXPECT_NEAR(ValueOf(readings, "storage.temperature.sensor.8"), -0.15, 1e-9);
    for (const char* absent : {"storage.temperature.sensor.4", "storage.temperature.sensor.7"}) {
        EXPECT_EQ(FindReading(readings, absent), nullptr) << absent;
    }
    EXPECT_EQ(FindReading(readings, "storage.temperature.sensor.3")->displayName, "Temperature Sensor 3");
    EXPECT_NEAR(ValueOf(readings, "storage.temperature.composite_c"), 26.85, 1e-9);
}

TEST(ParseNvmeSmartLog, AShortPageGivesNothing) {
    const std::vector<std::uint8_t> page(511, 0xff);
    EXPECT_TRUE(ParseNvmeSmartLog(page).empty());
    EXPECT_TRUE(ParseNvmeSmartLog({}).empty());
}

TEST(MakeNvmeSmartLogCommand, AsksForLogTwoOfAllNamespacesInto512Bytes) {
    std::array<std::uint8_t, kNvmeSmartLogBytes> buffer{};
    const nvme_admin_cmd command = MakeNvmeSmartLogCommand(buffer);
    EXPECT_EQ(command.opcode, 0x02);
    EXPECT_EQ(command.nsid, 0xffffffffu);
    EXPECT_EQ(command.cdw10, 0x007f0002u);
    EXPECT_EQ(command.data_len, 512u);
    EXPECT_EQ(command.addr, reinterpret_cast<std::uintptr_t>(buffer.data()));
    EXPECT_EQ(command.cdw11, 0u);
    EXPECT_EQ(command.flags, 0u);
}

TEST(NvmeControllerName, StripsTheNamespace) {
    EXPECT_EQ(NvmeControllerName("nvme0n1"), "nvme0");
    EXPECT_EQ(NvmeControllerName("nvme12n3"), "nvme12");
    EXPECT_EQ(NvmeControllerName("nvme0"), "nvme0");
    EXPECT_EQ(NvmeControllerName("nvmexn1"), "nvmexn1");
    EXPECT_EQ(NvmeControllerName("sda"), "sda");
}

TEST(ReadNvmeSmart, OpensTheControllerReadOnlyAndParsesWhatItReturns) {
    test_support::FakeSmartDeviceIo io;
    LogPage page;
    page.Put(1, 2, 318).Put128(112, 0, 77);
    io.nvmeLog = page.Bytes();
    const SmartRouteResult result = ReadNvmeSmart(io, "/dev/nvme0");
    ASSERT_EQ(result.error, 0);
    ASSERT_EQ(io.opened.size(), 1u);
    EXPECT_EQ(io.opened[0].first, "/dev/nvme0");
    EXPECT_EQ(io.opened[0].second, O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(io.closed, 1);
    ASSERT_EQ(io.nvmeCommands.size(), 1u);
    EXPECT_EQ(io.nvmeCommands[0].cdw10, 0x007f0002u);
    EXPECT_DOUBLE_EQ(ValueOf(result.readings, "storage.power_cycle_count"), 77.0);
    EXPECT_NEAR(ValueOf(result.readings, "storage.temperature.composite_c"), 44.85, 1e-9);
}

TEST(ReadNvmeSmart, ReportsTheErrnoOfAFailedOpenOrCommand) {
    test_support::FakeSmartDeviceIo refused;
    refused.openErrors["/dev/nvme0"] = EACCES;
    SmartRouteResult result = ReadNvmeSmart(refused, "/dev/nvme0");
    EXPECT_EQ(result.error, EACCES);
    EXPECT_EQ(refused.CommandCount(), 0u);
    EXPECT_TRUE(result.readings.empty());

    test_support::FakeSmartDeviceIo failing;
    failing.nvmeError = EIO;
    result = ReadNvmeSmart(failing, "/dev/nvme0");
    EXPECT_EQ(result.error, EIO);
    EXPECT_EQ(failing.closed, 1);
    EXPECT_TRUE(result.readings.empty());
}

TEST(LinuxSmartDeviceIo, ANodeThatIsNoDriveRefusesBothIoctls) {
    const auto path = std::filesystem::path(::testing::TempDir()) / "korv-not-a-drive";
    std::ofstream(path) << "plain file";
    LinuxSmartDeviceIo io;
    EXPECT_EQ(ReadNvmeSmart(io, path.string()).error, ENOTTY);
    EXPECT_EQ(ReadNvmeSmart(io, (path.parent_path() / "korv-no-such-node").string()).error, ENOENT);
    const SmartOpenResult opened = io.Open(path.string(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(opened.error, 0);
    sg_io_hdr_t header{};
    header.interface_id = 'S';
    EXPECT_EQ(io.SgIo(opened.fd, header), ENOTTY);
    io.Close(opened.fd);
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace korv::providers
