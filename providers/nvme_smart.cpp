#include "providers/nvme_smart.h"

#include <cctype>
#include <cstring>
#include <fcntl.h>

namespace korv::providers {
namespace {

__extension__ typedef unsigned __int128 Counter128;

constexpr std::uint8_t kGetLogPageOpcode = 0x02;
constexpr std::uint32_t kAllNamespaces = 0xffffffff;
// Bits 27:16 hold the number of dwords less one (127 for 512 bytes), bits 7:0 the log id 2.
constexpr std::uint32_t kSmartLogDword10 = 0x007f0002;
constexpr double kDataUnitBytes = 512000.0;
constexpr double kSecondsPerMinute = 60.0;
constexpr double kSecondsPerHour = 3600.0;

std::uint64_t LittleEndian(std::span<const std::uint8_t> bytes, std::size_t offset, std::size_t width) noexcept {
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) value = (value << 8) | bytes[offset + i];
    return value;
}

double Counter(std::span<const std::uint8_t> log, std::size_t offset) noexcept {
    Counter128 value = 0;
    for (std::size_t i = 16; i-- > 0;) value = (value << 8) | log[offset + i];
    return static_cast<double>(value);
}

double KelvinToCelsius(std::uint64_t kelvin) noexcept { return static_cast<double>(kelvin) - kKelvinOffset; }

}  // namespace

SmartReading NvmeTemperatureSensorReading(std::size_t sensor, double celsius) {
    const std::string number = std::to_string(sensor);
    return SmartReading{"storage.temperature.sensor." + number, "Temperature Sensor " + number,
                        core::MetricCategory::temperatures, core::MetricUnit::celsius, core::MetricKind::gauge,
                        celsius};
}

std::vector<SmartReading> ParseNvmeSmartLog(std::span<const std::uint8_t> log) {
    using namespace nvme_fields;
    std::vector<SmartReading> readings;
    if (log.size() < kNvmeSmartLogBytes) return readings;
    readings.reserve(18 + kNvmeTemperatureSensors);
    readings.push_back(MakeReading(kCriticalWarning, static_cast<double>(log[0])));
    readings.push_back(MakeReading(kCompositeTemperature, KelvinToCelsius(LittleEndian(log, 1, 2))));
    readings.push_back(MakeReading(kAvailableSpare, static_cast<double>(log[3])));
    readings.push_back(MakeReading(kSpareThreshold, static_cast<double>(log[4])));
    readings.push_back(MakeReading(kPercentageUsed, static_cast<double>(log[5])));
    readings.push_back(MakeReading(kDataRead, Counter(log, 32) * kDataUnitBytes));
    readings.push_back(MakeReading(kDataWritten, Counter(log, 48) * kDataUnitBytes));
    readings.push_back(MakeReading(kHostReadCommands, Counter(log, 64)));
    readings.push_back(MakeReading(kHostWriteCommands, Counter(log, 80)));
    readings.push_back(MakeReading(kControllerBusy, Counter(log, 96) * kSecondsPerMinute));
    readings.push_back(MakeReading(kPowerCycles, Counter(log, 112)));
    readings.push_back(MakeReading(kPowerOn, Counter(log, 128) * kSecondsPerHour));
    readings.push_back(MakeReading(kUnsafeShutdowns, Counter(log, 144)));
    readings.push_back(MakeReading(kMediaErrors, Counter(log, 160)));
    readings.push_back(MakeReading(kErrorLogEntries, Counter(log, 176)));
    readings.push_back(
        MakeReading(kWarningTemperatureTime, static_cast<double>(LittleEndian(log, 192, 4)) * kSecondsPerMinute));
    readings.push_back(
        MakeReading(kCriticalTemperatureTime, static_cast<double>(LittleEndian(log, 196, 4)) * kSecondsPerMinute));
    for (std::size_t sensor = 0; sensor < kNvmeTemperatureSensors; ++sensor) {
        const std::uint64_t kelvin = LittleEndian(log, 200 + 2 * sensor, 2);
        if (kelvin == 0) continue;
        readings.push_back(NvmeTemperatureSensorReading(sensor + 1, KelvinToCelsius(kelvin)));
    }
    return readings;
}

nvme_admin_cmd MakeNvmeSmartLogCommand(std::span<std::uint8_t, kNvmeSmartLogBytes> buffer) noexcept {
    nvme_admin_cmd command;
    std::memset(&command, 0, sizeof(command));
    command.opcode = kGetLogPageOpcode;
    command.nsid = kAllNamespaces;
    command.addr = reinterpret_cast<std::uintptr_t>(buffer.data());
    command.data_len = static_cast<std::uint32_t>(buffer.size());
    command.cdw10 = kSmartLogDword10;
    return command;
}

std::string NvmeControllerName(std::string_view blockName) {
    constexpr std::string_view kPrefix = "nvme";
    if (!blockName.starts_with(kPrefix)) return std::string(blockName);
    std::size_t end = kPrefix.size();
    while (end < blockName.size() && std::isdigit(static_cast<unsigned char>(blockName[end])) != 0) ++end;
    if (end == kPrefix.size() || end >= blockName.size() || blockName[end] != 'n') return std::string(blockName);
    return std::string(blockName.substr(0, end));
}

SmartRouteResult ReadNvmeSmart(ISmartDeviceIo& io, const std::string& controllerNode) {
    SmartRouteResult result;
    const SmartOpenResult opened = io.Open(controllerNode, O_RDONLY | O_CLOEXEC);
    if (opened.error != 0) {
        result.error = opened.error;
        return result;
    }
    std::array<std::uint8_t, kNvmeSmartLogBytes> log{};
    nvme_admin_cmd command = MakeNvmeSmartLogCommand(log);
    result.error = io.NvmeAdminCommand(opened.fd, command);
    io.Close(opened.fd);
    if (result.error == 0) result.readings = ParseNvmeSmartLog(log);
    return result;
}

}  // namespace korv::providers
