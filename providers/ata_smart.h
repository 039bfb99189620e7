#pragma once

#include "providers/smart_device_io.h"
#include "providers/smart_reading.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace korv::providers {

// ATA SMART through the SCSI/ATA Translation layer: ATA PASS-THROUGH(16) CDBs sent with SG_IO.

inline constexpr const char* kAtaSmartProvider = "linux.ata.smart";
inline constexpr const char* kAtaSmartSource = "ATA SMART data via SAT SG_IO";
inline constexpr std::size_t kAtaSmartBlockBytes = 512;
inline constexpr std::size_t kAtaSenseBytes = 32;
inline constexpr unsigned kAtaCommandTimeoutMs = 1000;

struct AtaAttributeField {
    std::uint8_t attributeId;
    SmartField field;
};

namespace ata_fields {
using core::MetricCategory;
using core::MetricKind;
using core::MetricUnit;
inline constexpr SmartField kReallocatedSectors{"storage.smart.reallocated_sectors", "Reallocated Sectors",
                                                MetricCategory::smart, MetricUnit::count, MetricKind::monotonicCounter};
inline constexpr SmartField kPowerOn{"storage.smart.power_on_seconds", "Power-on Time", MetricCategory::smart,
                                     MetricUnit::seconds, MetricKind::monotonicCounter};
inline constexpr SmartField kPowerCycles{"storage.power_cycle_count", "Power Cycles", MetricCategory::smart,
                                         MetricUnit::count, MetricKind::monotonicCounter};
inline constexpr SmartField kTemperature{"storage.temperature.composite_c", "Drive Temperature",
                                         MetricCategory::temperatures, MetricUnit::celsius, MetricKind::gauge};
inline constexpr SmartField kThresholdExceeded{"storage.health.smart_threshold_exceeded", "SMART Threshold Exceeded",
                                               MetricCategory::smart, MetricUnit::none, MetricKind::gauge};

inline constexpr std::uint8_t kReallocatedSectorsId = 5;
inline constexpr std::uint8_t kPowerOnHoursId = 9;
inline constexpr std::uint8_t kPowerCyclesId = 12;
inline constexpr std::uint8_t kAirflowTemperatureId = 190;
inline constexpr std::uint8_t kTemperatureId = 194;

// Attributes whose raw value is a count, in id order.
inline constexpr std::array<AtaAttributeField, 14> kCountingAttributes{{
    {171, {"storage.smart.program_failures", "Program Failures", MetricCategory::smart, MetricUnit::count,
           MetricKind::monotonicCounter}},
    {172, {"storage.smart.erase_failures", "Erase Failures", MetricCategory::smart, MetricUnit::count,
           MetricKind::monotonicCounter}},
    {174, {"storage.smart.unexpected_power_losses", "Unexpected Power Losses", MetricCategory::smart,
           MetricUnit::count, MetricKind::monotonicCounter}},
    {181, {"storage.smart.program_failures_total", "Program Failures (Total)", MetricCategory::smart,
           MetricUnit::count, MetricKind::monotonicCounter}},
    {182, {"storage.smart.erase_failures_total", "Erase Failures (Total)", MetricCategory::smart, MetricUnit::count,
           MetricKind::monotonicCounter}},
    {183, {"storage.smart.sata_downshifts", "SATA Downshifts", MetricCategory::smart, MetricUnit::count,
           MetricKind::monotonicCounter}},
    {184, {"storage.smart.end_to_end_errors", "End-to-End Errors", MetricCategory::smart, MetricUnit::count,
           MetricKind::monotonicCounter}},
    {187, {"storage.smart.reported_uncorrectable_errors", "Reported Uncorrectable Errors", MetricCategory::smart,
           MetricUnit::count, MetricKind::monotonicCounter}},
    {188, {"storage.smart.command_timeouts", "Command Timeouts", MetricCategory::smart, MetricUnit::count,
           MetricKind::monotonicCounter}},
    {189, {"storage.smart.high_fly_writes", "High Fly Writes", MetricCategory::smart, MetricUnit::count,
           MetricKind::monotonicCounter}},
    {196, {"storage.smart.reallocation_events", "Reallocation Events", MetricCategory::smart, MetricUnit::count,
           MetricKind::monotonicCounter}},
    // Pending and offline-uncorrectable sectors fall again when the drive remaps or rewrites them.
    {197, {"storage.smart.pending_sectors", "Pending Sectors", MetricCategory::smart, MetricUnit::count,
           MetricKind::gauge}},
    {198, {"storage.smart.offline_uncorrectable_sectors", "Offline Uncorrectable Sectors", MetricCategory::smart,
           MetricUnit::count, MetricKind::gauge}},
    {199, {"storage.smart.interface_crc_errors", "Interface CRC Errors", MetricCategory::smart, MetricUnit::count,
           MetricKind::monotonicCounter}},
}};
}  // namespace ata_fields

// The table entry for a counting attribute id, or nullptr.
const AtaAttributeField* FindAtaCountingAttribute(std::uint8_t attributeId) noexcept;

// SMART sub-commands, sent as the FEATURES field of SMART (B0h).
enum class AtaSmartFeature : std::uint8_t { readData = 0xD0, readThresholds = 0xD1, returnStatus = 0xDA };

using AtaCdb = std::array<std::uint8_t, 16>;

// READ DATA and READ THRESHOLDS move one 512-byte block from the device (PIO data-in);
// RETURN STATUS moves none and asks for the ATA registers back in the sense data.
AtaCdb MakeAtaSmartCdb(AtaSmartFeature feature) noexcept;
// CHECK POWER MODE (E5h): tells whether the drive is spun down without waking it.
AtaCdb MakeAtaCheckPowerModeCdb() noexcept;

// The ATA output registers a pass-through command returns in its sense data.
struct AtaRegisters {
    std::uint8_t error = 0;
    std::uint8_t count = 0;
    std::uint8_t lbaLow = 0;
    std::uint8_t lbaMid = 0;
    std::uint8_t lbaHigh = 0;
    std::uint8_t device = 0;
    std::uint8_t status = 0;
};

// The sense key of descriptor (72h/73h) or fixed (70h/71h) sense data; nullopt when too short.
std::optional<std::uint8_t> SenseKey(std::span<const std::uint8_t> sense) noexcept;
// The registers from the ATA Status Return descriptor (09h), or from the information fields of
// fixed-format sense data; nullopt when the sense data holds neither.
std::optional<AtaRegisters> ParseAtaReturnedRegisters(std::span<const std::uint8_t> sense) noexcept;

enum class AtaHealth { good, thresholdExceeded, unknown };
// RETURN STATUS leaves LBA mid/high at 4Fh/C2h while all is well and F4h/2Ch once a threshold is exceeded.
AtaHealth AtaHealthFromRegisters(const AtaRegisters& registers) noexcept;
// CHECK POWER MODE's count: standby (00h, 01h) or spun down in NV cache power mode (40h, 41h).
bool AtaPowerModeIsAsleep(std::uint8_t count) noexcept;

// The attribute table of SMART READ DATA (30 entries of 12 bytes from offset 2) with the thresholds
// of READ THRESHOLDS (same layout). Raw values are the six raw bytes, little endian; the temperature
// (194, else 190) is the raw low byte in Celsius; power-on hours (9) use the low four raw bytes,
// since vendors put minutes or milliseconds in the upper two. With thresholds, a pre-failure
// attribute at or below its threshold gives storage.health.smart_threshold_exceeded = 1. Blocks
// shorter than 512 bytes give nothing (data) or no health reading (thresholds).
std::vector<SmartReading> ParseAtaSmartData(std::span<const std::uint8_t> data,
                                            std::span<const std::uint8_t> thresholds);

// Sends one pass-through command. data is empty for a non-data command. A transport or SCSI
// failure, an ATA error bit, or a short transfer gives EIO (or the ioctl's errno); registers
// receives the returned ATA registers when the sense data held them.
int SendAtaCommand(ISmartDeviceIo& io, int fd, const AtaCdb& cdb, std::span<std::uint8_t> data,
                   std::optional<AtaRegisters>* registers);

// Opens the device node, checks the power mode (a spun-down drive gets no SMART command and
// comes back asleep), reads the attributes, the thresholds and the health status.
SmartRouteResult ReadAtaSmart(ISmartDeviceIo& io, const std::string& deviceNode);

}  // namespace korv::providers
