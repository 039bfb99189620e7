#include "providers/ata_smart.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace korv::providers {
namespace {

constexpr std::uint8_t kAtaPassThrough16 = 0x85;
constexpr std::uint8_t kAtaSmartCommand = 0xB0;
constexpr std::uint8_t kAtaCheckPowerMode = 0xE5;
constexpr std::uint8_t kSmartLbaMid = 0x4F;
constexpr std::uint8_t kSmartLbaHigh = 0xC2;
constexpr std::uint8_t kFailingLbaMid = 0xF4;
constexpr std::uint8_t kFailingLbaHigh = 0x2C;
// CDB byte 1: PROTOCOL in bits 4:1.
constexpr std::uint8_t kProtocolNonData = 3 << 1;
constexpr std::uint8_t kProtocolPioDataIn = 4 << 1;
// CDB byte 2: CK_COND (5) returns the registers; T_DIR (3) from the device, BYTE_BLOCK (2) and
// T_LENGTH = 2 (1:0) count the transfer in blocks of the COUNT field.
constexpr std::uint8_t kCheckCondition = 0x20;
constexpr std::uint8_t kBlocksFromDevice = 0x0E;

constexpr std::uint8_t kScsiGood = 0x00;
constexpr std::uint8_t kScsiCheckCondition = 0x02;
constexpr unsigned kDriverStatusMask = 0x0f;
constexpr unsigned kDriverSense = 0x08;
constexpr std::uint8_t kSenseNoSense = 0x00;
constexpr std::uint8_t kSenseRecoveredError = 0x01;
constexpr std::uint8_t kAtaStatusError = 0x01;
constexpr std::uint8_t kAtaStatusReturnDescriptor = 0x09;

constexpr std::size_t kAttributeCount = 30;
constexpr std::size_t kAttributeBytes = 12;
constexpr std::size_t kAttributeTableOffset = 2;
constexpr std::uint16_t kPrefailureFlag = 0x0001;
constexpr double kSecondsPerHour = 3600.0;

AtaCdb PassThrough(std::uint8_t command, std::uint8_t feature, bool blockIn) noexcept {
    AtaCdb cdb{};
    cdb[0] = kAtaPassThrough16;
    cdb[1] = blockIn ? kProtocolPioDataIn : kProtocolNonData;
    cdb[2] = blockIn ? kBlocksFromDevice : kCheckCondition;
    cdb[4] = feature;
    cdb[6] = blockIn ? 1 : 0;
    cdb[14] = command;
    return cdb;
}

struct Attribute {
    std::uint8_t id = 0;
    std::uint16_t flags = 0;
    std::uint8_t current = 0;
    std::uint64_t raw = 0;
};

Attribute AttributeAt(std::span<const std::uint8_t> data, std::size_t index) noexcept {
    const std::size_t offset = kAttributeTableOffset + index * kAttributeBytes;
    Attribute attribute;
    attribute.id = data[offset];
    attribute.flags = static_cast<std::uint16_t>(data[offset + 1] | (data[offset + 2] << 8));
    attribute.current = data[offset + 3];
    for (std::size_t i = 6; i-- > 0;) attribute.raw = (attribute.raw << 8) | data[offset + 5 + i];
    return attribute;
}

// The thresholds block lists the same ids, normally in the same slots; matched by id all the same.
std::optional<std::uint8_t> ThresholdFor(std::span<const std::uint8_t> thresholds, std::uint8_t id) noexcept {
    for (std::size_t index = 0; index < kAttributeCount; ++index) {
        const std::size_t offset = kAttributeTableOffset + index * kAttributeBytes;
        if (thresholds[offset] == id) return thresholds[offset + 1];
    }
    return std::nullopt;
}

bool CrossesThreshold(const Attribute& attribute, std::span<const std::uint8_t> thresholds) noexcept {
    if ((attribute.flags & kPrefailureFlag) == 0) return false;
    const std::optional<std::uint8_t> threshold = ThresholdFor(thresholds, attribute.id);
    // 0 means "never fails"; FEh and FFh are reserved as are normalised values 0, FEh and FFh.
    if (!threshold || *threshold == 0 || *threshold >= 0xFE) return false;
    if (attribute.current == 0 || attribute.current >= 0xFE) return false;
    return attribute.current <= *threshold;
}

}  // namespace

const AtaAttributeField* FindAtaCountingAttribute(std::uint8_t attributeId) noexcept {
    for (const auto& entry : ata_fields::kCountingAttributes) {
        if (entry.attributeId == attributeId) return &entry;
    }
    return nullptr;
}

AtaCdb MakeAtaSmartCdb(AtaSmartFeature feature) noexcept {
    const bool blockIn = feature != AtaSmartFeature::returnStatus;
    AtaCdb cdb = PassThrough(kAtaSmartCommand, static_cast<std::uint8_t>(feature), blockIn);
    cdb[10] = kSmartLbaMid;
    cdb[12] = kSmartLbaHigh;
    return cdb;
}

AtaCdb MakeAtaCheckPowerModeCdb() noexcept { return PassThrough(kAtaCheckPowerMode, 0, false); }

std::optional<std::uint8_t> SenseKey(std::span<const std::uint8_t> sense) noexcept {
    if (sense.empty()) return std::nullopt;
    const std::uint8_t responseCode = sense[0] & 0x7f;
    if ((responseCode == 0x72 || responseCode == 0x73) && sense.size() >= 2) return sense[1] & 0x0f;
    if ((responseCode == 0x70 || responseCode == 0x71) && sense.size() >= 3) return sense[2] & 0x0f;
    return std::nullopt;
}

std::optional<AtaRegisters> ParseAtaReturnedRegisters(std::span<const std::uint8_t> sense) noexcept {
    if (sense.empty()) return std::nullopt;
    const std::uint8_t responseCode = sense[0] & 0x7f;
    if (responseCode == 0x72 || responseCode == 0x73) {
        if (sense.size() < 8) return std::nullopt;
        const std::size_t end = std::min<std::size_t>(sense.size(), 8 + static_cast<std::size_t>(sense[7]));
        std::size_t at = 8;
        while (at + 2 <= end) {
            const std::size_t length = 2 + static_cast<std::size_t>(sense[at + 1]);
            if (sense[at] == kAtaStatusReturnDescriptor && length >= 14 && at + 14 <= end) {
                const auto d = sense.subspan(at);
                // Low bytes of COUNT and LBA sit at 5, 7, 9 and 11; the high ones between them.
                return AtaRegisters{d[3], d[5], d[7], d[9], d[11], d[12], d[13]};
            }
            at += length;
        }
        return std::nullopt;
    }
    if ((responseCode == 0x70 || responseCode == 0x71) && sense.size() >= 12) {
        // INFORMATION holds ERROR, STATUS, DEVICE, COUNT; COMMAND-SPECIFIC INFORMATION the LBA bytes.
        return AtaRegisters{sense[3], sense[6], sense[9], sense[10], sense[11], sense[5], sense[4]};
    }
    return std::nullopt;
}

AtaHealth AtaHealthFromRegisters(const AtaRegisters& registers) noexcept {
    if (registers.lbaMid == kSmartLbaMid && registers.lbaHigh == kSmartLbaHigh) return AtaHealth::good;
    if (registers.lbaMid == kFailingLbaMid && registers.lbaHigh == kFailingLbaHigh) return AtaHealth::thresholdExceeded;
    return AtaHealth::unknown;
}

bool AtaPowerModeIsAsleep(std::uint8_t count) noexcept {
    return count == 0x00 || count == 0x01 || count == 0x40 || count == 0x41;
}

std::vector<SmartReading> ParseAtaSmartData(std::span<const std::uint8_t> data,
                                            std::span<const std::uint8_t> thresholds) {
    using namespace ata_fields;
    std::vector<SmartReading> readings;
    if (data.size() < kAtaSmartBlockBytes) return readings;
    std::array<std::optional<Attribute>, 256> byId{};
    bool exceeded = false;
    const bool haveThresholds = thresholds.size() >= kAtaSmartBlockBytes;
    for (std::size_t index = 0; index < kAttributeCount; ++index) {
        const Attribute attribute = AttributeAt(data, index);
        if (attribute.id == 0 || byId[attribute.id]) continue;
        byId[attribute.id] = attribute;
        if (haveThresholds && CrossesThreshold(attribute, thresholds)) exceeded = true;
    }
    auto raw = [&](std::uint8_t id) { return static_cast<double>(byId[id]->raw); };
    if (byId[kReallocatedSectorsId]) readings.push_back(MakeReading(kReallocatedSectors, raw(kReallocatedSectorsId)));
    if (byId[kPowerOnHoursId]) {
        const auto hours = static_cast<double>(byId[kPowerOnHoursId]->raw & 0xffffffffu);
        readings.push_back(MakeReading(kPowerOn, hours * kSecondsPerHour));
    }
    if (byId[kPowerCyclesId]) readings.push_back(MakeReading(kPowerCycles, raw(kPowerCyclesId)));
    const std::uint8_t temperatureId = byId[kTemperatureId] ? kTemperatureId : kAirflowTemperatureId;
    if (byId[temperatureId]) {
        readings.push_back(MakeReading(kTemperature, static_cast<double>(byId[temperatureId]->raw & 0xffu)));
    }
    for (const auto& entry : kCountingAttributes) {
        if (byId[entry.attributeId]) readings.push_back(MakeReading(entry.field, raw(entry.attributeId)));
    }
    if (haveThresholds) readings.push_back(MakeReading(kThresholdExceeded, exceeded ? 1.0 : 0.0));
    return readings;
}

int SendAtaCommand(ISmartDeviceIo& io, int fd, const AtaCdb& cdb, std::span<std::uint8_t> data,
                   std::optional<AtaRegisters>* registers) {
    AtaCdb command = cdb;
    std::array<std::uint8_t, kAtaSenseBytes> sense{};
    sg_io_hdr_t header;
    std::memset(&header, 0, sizeof(header));
    header.interface_id = 'S';
    header.dxfer_direction = data.empty() ? SG_DXFER_NONE : SG_DXFER_FROM_DEV;
    header.cmd_len = static_cast<unsigned char>(command.size());
    header.mx_sb_len = static_cast<unsigned char>(sense.size());
    header.dxfer_len = static_cast<unsigned>(data.size());
    header.dxferp = data.empty() ? nullptr : data.data();
    header.cmdp = command.data();
    header.sbp = sense.data();
    header.timeout = kAtaCommandTimeoutMs;
    if (registers != nullptr) registers->reset();

    const int error = io.SgIo(fd, header);
    if (error != 0) return error;
    if (header.host_status != 0) return EIO;
    const unsigned driver = header.driver_status & kDriverStatusMask;
    if (driver != 0 && driver != kDriverSense) return EIO;
    const auto written =
        std::span<const std::uint8_t>(sense).first(std::min<std::size_t>(header.sb_len_wr, sense.size()));
    if (header.status == kScsiCheckCondition) {
        const std::optional<std::uint8_t> key = SenseKey(written);
        if (!key || (*key != kSenseNoSense && *key != kSenseRecoveredError)) return EIO;
    } else if (header.status != kScsiGood) {
        return EIO;
    }
    const std::optional<AtaRegisters> returned = ParseAtaReturnedRegisters(written);
    if (returned && (returned->status & kAtaStatusError) != 0) return EIO;
    if (!data.empty() && header.resid != 0) return EIO;
    if (registers != nullptr) *registers = returned;
    return 0;
}

SmartRouteResult ReadAtaSmart(ISmartDeviceIo& io, const std::string& deviceNode) {
    SmartRouteResult result;
    // O_NONBLOCK: a removable-media node must not wait for a medium.
    const SmartOpenResult opened = io.Open(deviceNode, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (opened.error != 0) {
        result.error = opened.error;
        return result;
    }
    std::optional<AtaRegisters> registers;
    const int powerError = SendAtaCommand(io, opened.fd, MakeAtaCheckPowerModeCdb(), {}, &registers);
    // The ioctl itself failing means no pass-through at all; a refused CHECK POWER MODE only
    // leaves the power state unknown.
    if (powerError != 0 && powerError != EIO) {
        io.Close(opened.fd);
        result.error = powerError;
        return result;
    }
    if (powerError == 0 && registers && AtaPowerModeIsAsleep(registers->count)) {
        io.Close(opened.fd);
        result.asleep = true;
        return result;
    }
    std::array<std::uint8_t, kAtaSmartBlockBytes> data{};
    std::array<std::uint8_t, kAtaSmartBlockBytes> thresholds{};
    result.error = SendAtaCommand(io, opened.fd, MakeAtaSmartCdb(AtaSmartFeature::readData), data, nullptr);
    if (result.error != 0) {
        io.Close(opened.fd);
        return result;
    }
    const bool haveThresholds =
        SendAtaCommand(io, opened.fd, MakeAtaSmartCdb(AtaSmartFeature::readThresholds), thresholds, nullptr) == 0;
    const int statusError =
        SendAtaCommand(io, opened.fd, MakeAtaSmartCdb(AtaSmartFeature::returnStatus), {}, &registers);
    io.Close(opened.fd);

    result.readings = ParseAtaSmartData(data, haveThresholds ? std::span<const std::uint8_t>(thresholds)
                                                             : std::span<const std::uint8_t>());
    const AtaHealth health = statusError == 0 && registers ? AtaHealthFromRegisters(*registers) : AtaHealth::unknown;
    if (health != AtaHealth::unknown) {
        // The drive's own verdict outranks the one worked out from the thresholds.
        std::erase_if(result.readings,
                      [](const SmartReading& reading) { return reading.id == ata_fields::kThresholdExceeded.id; });
        result.readings.push_back(
            MakeReading(ata_fields::kThresholdExceeded, health == AtaHealth::thresholdExceeded ? 1.0 : 0.0));
    }
    return result;
}

}  // namespace korv::providers
