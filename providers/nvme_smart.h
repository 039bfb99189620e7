#pragma once

#include "providers/smart_device_io.h"
#include "providers/smart_reading.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korv::providers {

// The NVMe SMART / Health Information log page (log id 2) and the admin command that reads it.

inline constexpr const char* kNvmeSmartProvider = "linux.nvme.smart";
inline constexpr const char* kNvmeSmartSource = "NVMe SMART / Health Information Log";
inline constexpr std::size_t kNvmeSmartLogBytes = 512;
inline constexpr std::size_t kNvmeTemperatureSensors = 8;

namespace nvme_fields {
using core::MetricCategory;
using core::MetricKind;
using core::MetricUnit;
inline constexpr SmartField kCriticalWarning{"storage.health.critical_warning", "Critical Warning",
                                             MetricCategory::smart, MetricUnit::none, MetricKind::gauge};
inline constexpr SmartField kCompositeTemperature{"storage.temperature.composite_c", "Composite Temperature",
                                                  MetricCategory::temperatures, MetricUnit::celsius, MetricKind::gauge};
inline constexpr SmartField kAvailableSpare{"storage.health.available_spare_pct", "Available Spare",
                                            MetricCategory::smart, MetricUnit::percent, MetricKind::gauge};
inline constexpr SmartField kSpareThreshold{"storage.health.available_spare_threshold_pct",
                                            "Available Spare Threshold", MetricCategory::smart, MetricUnit::percent,
                                            MetricKind::staticProperty};
inline constexpr SmartField kPercentageUsed{"storage.life_used_pct", "Percentage Used", MetricCategory::smart,
                                            MetricUnit::percent, MetricKind::gauge};
inline constexpr SmartField kDataRead{"storage.smart.data_read_bytes", "Data Read", MetricCategory::smart,
                                      MetricUnit::bytes, MetricKind::monotonicCounter};
inline constexpr SmartField kDataWritten{"storage.smart.data_written_bytes", "Data Written", MetricCategory::smart,
                                         MetricUnit::bytes, MetricKind::monotonicCounter};
inline constexpr SmartField kHostReadCommands{"storage.smart.host_read_commands", "Host Read Commands",
                                              MetricCategory::smart, MetricUnit::count, MetricKind::monotonicCounter};
inline constexpr SmartField kHostWriteCommands{"storage.smart.host_write_commands", "Host Write Commands",
                                               MetricCategory::smart, MetricUnit::count, MetricKind::monotonicCounter};
inline constexpr SmartField kControllerBusy{"storage.smart.controller_busy_seconds", "Controller Busy Time",
                                            MetricCategory::smart, MetricUnit::seconds, MetricKind::monotonicCounter};
inline constexpr SmartField kPowerCycles{"storage.power_cycle_count", "Power Cycles", MetricCategory::smart,
                                         MetricUnit::count, MetricKind::monotonicCounter};
inline constexpr SmartField kPowerOn{"storage.smart.power_on_seconds", "Power-on Time", MetricCategory::smart,
                                     MetricUnit::seconds, MetricKind::monotonicCounter};
inline constexpr SmartField kUnsafeShutdowns{"storage.smart.unsafe_shutdowns", "Unsafe Shutdowns",
                                             MetricCategory::smart, MetricUnit::count, MetricKind::monotonicCounter};
inline constexpr SmartField kMediaErrors{"storage.smart.media_errors", "Media and Data Errors",
                                         MetricCategory::smart, MetricUnit::count, MetricKind::monotonicCounter};
inline constexpr SmartField kErrorLogEntries{"storage.smart.error_log_entries", "Error Log Entries",
                                             MetricCategory::smart, MetricUnit::count, MetricKind::monotonicCounter};
inline constexpr SmartField kWarningTemperatureTime{"storage.smart.warning_temperature_seconds",
                                                    "Warning Temperature Time", MetricCategory::smart,
                                                    MetricUnit::seconds, MetricKind::monotonicCounter};
inline constexpr SmartField kCriticalTemperatureTime{"storage.smart.critical_temperature_seconds",
                                                     "Critical Temperature Time", MetricCategory::smart,
                                                     MetricUnit::seconds, MetricKind::monotonicCounter};
}  // namespace nvme_fields

// Temperature sensor n (1 to 8) of the log: "storage.temperature.sensor.<n>", "Temperature Sensor <n>".
SmartReading NvmeTemperatureSensorReading(std::size_t sensor, double celsius);

// Every field of a 512-byte log page, little endian. The 16-byte counters are read whole and
// converted to double, so a counter above 2^64 is kept to double precision. Temperatures arrive in
// kelvin and leave in Celsius; a temperature sensor that reads 0 is not present and is skipped.
// A page shorter than 512 bytes gives no readings.
std::vector<SmartReading> ParseNvmeSmartLog(std::span<const std::uint8_t> log);

// Get Log Page for the SMART / Health log of all namespaces into buffer.
nvme_admin_cmd MakeNvmeSmartLogCommand(std::span<std::uint8_t, kNvmeSmartLogBytes> buffer) noexcept;

// "nvme0n1" -> "nvme0": the controller node that takes admin commands. A name that does not
// follow the nvme<controller>n<namespace> pattern is returned as it stands.
std::string NvmeControllerName(std::string_view blockName);

// Opens the controller node read-only, reads the log page and parses it. error carries the errno
// of the failed open or command.
SmartRouteResult ReadNvmeSmart(ISmartDeviceIo& io, const std::string& controllerNode);

}  // namespace korv::providers
