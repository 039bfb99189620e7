#include "providers/udisks2_smart.h"

#include "providers/ata_smart.h"
#include "providers/nvme_smart.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <utility>

namespace korv::providers {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kService = "org.freedesktop.UDisks2";
constexpr const char* kBlockInterface = "org.freedesktop.UDisks2.Block";
constexpr const char* kNvmeInterface = "org.freedesktop.UDisks2.NVMe.Controller";
constexpr const char* kAtaInterface = "org.freedesktop.UDisks2.Drive.Ata";
constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

// Units of the "pretty" value of an ATA attribute.
constexpr std::int32_t kPrettyDimensionless = 1;
constexpr std::int32_t kPrettyMilliseconds = 2;
constexpr std::int32_t kPrettySectors = 3;
constexpr std::int32_t kPrettyMillikelvin = 4;

class Message {
public:
    Message() = default;
    ~Message() { sd_bus_message_unref(message_); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    sd_bus_message** Out() noexcept { return &message_; }
    sd_bus_message* Get() const noexcept { return message_; }

private:
    sd_bus_message* message_ = nullptr;
};

class BusError {
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&error_); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    sd_bus_error* Get() noexcept { return &error_; }
    bool IsSet() const noexcept { return sd_bus_error_is_set(&error_) != 0; }
    bool Is(const char* name) const noexcept { return sd_bus_error_has_name(&error_, name) != 0; }
    std::string Text() const { return error_.message != nullptr ? error_.message : (error_.name ? error_.name : ""); }

private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

std::uint64_t RemainingUsec(Clock::time_point deadline) noexcept {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<std::uint64_t>(left) : 0;
}

// The a{sv} dictionaries of UDisks2, reduced to what the readers use: numbers, numeric arrays,
// text arrays. Other values are skipped.
struct Dictionary {
    std::map<std::string, double, std::less<>> numbers;
    std::map<std::string, std::vector<double>, std::less<>> numberArrays;
    std::map<std::string, std::vector<std::string>, std::less<>> textArrays;

    std::optional<double> Number(std::string_view name) const {
        const auto found = numbers.find(name);
        return found == numbers.end() ? std::nullopt : std::optional<double>(found->second);
    }
};

bool IsNumericType(char type) noexcept { return std::strchr("ybnqiuxtd", type) != nullptr && type != '\0'; }

template <typename T>
int ReadAs(sd_bus_message* message, char type, double& value) {
    T read{};
    const int r = sd_bus_message_read_basic(message, type, &read);
    value = static_cast<double>(read);
    return r;
}

int ReadNumber(sd_bus_message* message, char type, double& value) {
    switch (type) {
    case 'y': return ReadAs<std::uint8_t>(message, type, value);
    case 'b': return ReadAs<int>(message, type, value);  // sd-bus hands booleans out as int 0 or 1
    case 'n': return ReadAs<std::int16_t>(message, type, value);
    case 'q': return ReadAs<std::uint16_t>(message, type, value);
    case 'i': return ReadAs<std::int32_t>(message, type, value);
    case 'u': return ReadAs<std::uint32_t>(message, type, value);
    case 'x': return ReadAs<std::int64_t>(message, type, value);
    case 't': return ReadAs<std::uint64_t>(message, type, value);
    case 'd': return ReadAs<double>(message, type, value);
    default: return -EINVAL;
    }
}

int ReadVariantInto(sd_bus_message* message, const std::string& name, const char* contents, Dictionary& out) {
    const std::string_view signature = contents != nullptr ? contents : "";
    const bool number = signature.size() == 1 && IsNumericType(signature[0]);
    const bool numberArray = signature.size() == 2 && signature[0] == 'a' && IsNumericType(signature[1]);
    const bool textArray = signature == "as";
    if (!number && !numberArray && !textArray) return sd_bus_message_skip(message, "v");
    int r = sd_bus_message_enter_container(message, 'v', contents);
    if (r < 0) return r;
    if (number) {
        double value = 0;
        r = ReadNumber(message, signature[0], value);
        if (r < 0) return r;
        out.numbers[name] = value;
    } else {
        const char element[2] = {signature[1], '\0'};
        r = sd_bus_message_enter_container(message, 'a', element);
        if (r < 0) return r;
        if (numberArray) {
            auto& values = out.numberArrays[name];
            for (;;) {
                double value = 0;
                r = ReadNumber(message, signature[1], value);
                if (r <= 0) break;
                values.push_back(value);
            }
        } else {
            auto& values = out.textArrays[name];
            for (;;) {
                const char* text = nullptr;
                r = sd_bus_message_read_basic(message, 's', &text);
                if (r <= 0) break;
                values.emplace_back(text);
            }
        }
        if (r < 0) return r;
        r = sd_bus_message_exit_container(message);
        if (r < 0) return r;
    }
    return sd_bus_message_exit_container(message);
}

int ReadDictionary(sd_bus_message* message, Dictionary& out) {
    int r = sd_bus_message_enter_container(message, 'a', "{sv}");
    if (r < 0) return r;
    for (;;) {
        r = sd_bus_message_enter_container(message, 'e', "sv");
        if (r < 0) return r;
        if (r == 0) break;
        const char* name = nullptr;
        r = sd_bus_message_read_basic(message, 's', &name);
        if (r < 0) return r;
        char type = 0;
        const char* contents = nullptr;
        r = sd_bus_message_peek_type(message, &type, &contents);
        if (r < 0) return r;
        r = ReadVariantInto(message, name, contents, out);
        if (r < 0) return r;
        r = sd_bus_message_exit_container(message);
        if (r < 0) return r;
    }
    return sd_bus_message_exit_container(message);
}

void AddIfMissing(std::vector<SmartReading>& readings, const SmartField& field, double value) {
    if (FindReading(readings, field.id) == nullptr) readings.push_back(MakeReading(field, value));
}

// Bits of the NVMe critical warning byte, by the names UDisks2 gives them.
double CriticalWarningBits(const std::vector<std::string>& names) {
    static constexpr std::pair<const char*, unsigned> kBits[] = {
        {"spare", 0x01}, {"temperature", 0x02}, {"degraded", 0x04},
        {"readonly", 0x08}, {"volatile_mem", 0x10}, {"pmr_readonly", 0x20},
    };
    unsigned bits = 0;
    for (const auto& name : names) {
        for (const auto& [text, bit] : kBits) {
            if (name == text) bits |= bit;
        }
    }
    return static_cast<double>(bits);
}

std::vector<SmartReading> NvmeReadings(const Dictionary& attributes, const Dictionary& properties) {
    using namespace nvme_fields;
    struct Entry {
        const char* name;
        const SmartField* field;
        double scale;
    };
    static constexpr Entry kEntries[] = {
        {"critical_warning", &kCriticalWarning, 1.0},
        {"avail_spare", &kAvailableSpare, 1.0},
        {"spare_thresh", &kSpareThreshold, 1.0},
        {"percent_used", &kPercentageUsed, 1.0},
        {"total_data_read", &kDataRead, 1.0},  // already in bytes
        {"total_data_written", &kDataWritten, 1.0},
        {"host_read_commands", &kHostReadCommands, 1.0},
        {"host_write_commands", &kHostWriteCommands, 1.0},
        {"ctrl_busy_time", &kControllerBusy, 60.0},
        {"power_cycles", &kPowerCycles, 1.0},
        {"power_on_hours", &kPowerOn, 3600.0},
        {"unsafe_shutdowns", &kUnsafeShutdowns, 1.0},
        {"media_errors", &kMediaErrors, 1.0},
        {"num_err_log_entries", &kErrorLogEntries, 1.0},
        {"warning_temp_time", &kWarningTemperatureTime, 60.0},
        {"critical_temp_time", &kCriticalTemperatureTime, 60.0},
    };
    std::vector<SmartReading> readings;
    for (const auto& entry : kEntries) {
        if (const auto value = attributes.Number(entry.name))
            readings.push_back(MakeReading(*entry.field, *value * entry.scale));
    }
    if (const auto kelvin = attributes.Number("temperature"); kelvin && *kelvin > 0) {
        readings.push_back(MakeReading(kCompositeTemperature, *kelvin - kKelvinOffset));
    }
    if (const auto sensors = attributes.numberArrays.find("temp_sensors"); sensors != attributes.numberArrays.end()) {
        for (std::size_t i = 0; i < sensors->second.size() && i < kNvmeTemperatureSensors; ++i) {
            if (sensors->second[i] > 0)
                readings.push_back(NvmeTemperatureSensorReading(i + 1, sensors->second[i] - kKelvinOffset));
        }
    }
    if (const auto hours = properties.Number("SmartPowerOnHours")) AddIfMissing(readings, kPowerOn, *hours * 3600.0);
    if (const auto kelvin = properties.Number("SmartTemperature"); kelvin && *kelvin > 0) {
        AddIfMissing(readings, kCompositeTemperature, *kelvin - kKelvinOffset);
    }
    if (const auto warning = properties.textArrays.find("SmartCriticalWarning");
        warning != properties.textArrays.end()) {
        AddIfMissing(readings, kCriticalWarning, CriticalWarningBits(warning->second));
    }
    return readings;
}

struct AtaAttribute {
    std::uint8_t id = 0;
    std::int64_t pretty = 0;
    std::int32_t prettyUnit = 0;
};

std::optional<SmartReading> AtaReading(const AtaAttribute& attribute) {
    using namespace ata_fields;
    const bool count = attribute.prettyUnit == kPrettyDimensionless || attribute.prettyUnit == kPrettySectors;
    const auto pretty = static_cast<double>(attribute.pretty);
    if (attribute.id == kReallocatedSectorsId && count) return MakeReading(kReallocatedSectors, pretty);
    if (attribute.id == kPowerCyclesId && count) return MakeReading(kPowerCycles, pretty);
    if (attribute.id == kPowerOnHoursId && attribute.prettyUnit == kPrettyMilliseconds) {
        return MakeReading(kPowerOn, pretty / 1000.0);
    }
    if (const AtaAttributeField* entry = FindAtaCountingAttribute(attribute.id); entry != nullptr && count) {
        return MakeReading(entry->field, pretty);
    }
    return std::nullopt;
}

std::optional<double> AtaTemperature(const std::vector<AtaAttribute>& attributes, std::uint8_t id) {
    for (const auto& attribute : attributes) {
        if (attribute.id == id && attribute.prettyUnit == kPrettyMillikelvin && attribute.pretty > 0) {
            return static_cast<double>(attribute.pretty) / 1000.0 - kKelvinOffset;
        }
    }
    return std::nullopt;
}

int ReadAtaAttributes(sd_bus_message* message, std::vector<AtaAttribute>& out) {
    int r = sd_bus_message_enter_container(message, 'a', "(ysqiiixia{sv})");
    if (r < 0) return r;
    for (;;) {
        r = sd_bus_message_enter_container(message, 'r', "ysqiiixia{sv}");
        if (r < 0) return r;
        if (r == 0) break;
        AtaAttribute attribute;
        const char* name = nullptr;
        std::uint16_t flags = 0;
        std::int32_t value = 0, worst = 0, threshold = 0;
        r = sd_bus_message_read(message, "ysqiiixi", &attribute.id, &name, &flags, &value, &worst, &threshold,
                                &attribute.pretty, &attribute.prettyUnit);
        if (r < 0) return r;
        r = sd_bus_message_skip(message, "a{sv}");
        if (r < 0) return r;
        r = sd_bus_message_exit_container(message);
        if (r < 0) return r;
        out.push_back(attribute);
    }
    return sd_bus_message_exit_container(message);
}

std::vector<SmartReading> AtaReadings(const std::vector<AtaAttribute>& attributes, const Dictionary& properties) {
    std::vector<SmartReading> readings;
    for (const auto& attribute : attributes) {
        std::optional<SmartReading> reading = AtaReading(attribute);
        if (reading && FindReading(readings, reading->id) == nullptr) readings.push_back(std::move(*reading));
    }
    std::optional<double> celsius = AtaTemperature(attributes, ata_fields::kTemperatureId);
    if (!celsius) celsius = AtaTemperature(attributes, ata_fields::kAirflowTemperatureId);
    if (celsius) readings.push_back(MakeReading(ata_fields::kTemperature, *celsius));
    if (const auto seconds = properties.Number("SmartPowerOnSeconds"))
        AddIfMissing(readings, ata_fields::kPowerOn, *seconds);
    if (const auto kelvin = properties.Number("SmartTemperature"); kelvin && *kelvin > 0) {
        AddIfMissing(readings, ata_fields::kTemperature, *kelvin - kKelvinOffset);
    }
    if (const auto failing = properties.Number("SmartFailing")) {
        AddIfMissing(readings, ata_fields::kThresholdExceeded, *failing != 0 ? 1.0 : 0.0);
    }
    return readings;
}

}  // namespace

std::string UDisks2BlockObjectPath(std::string_view blockName) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string path = "/org/freedesktop/UDisks2/block_devices/";
    for (const char c : blockName) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain =
            (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') || byte == '_';
        if (plain) {
            path.push_back(c);
        } else {
            path.push_back('_');
            path.push_back(kHex[byte >> 4]);
            path.push_back(kHex[byte & 0x0f]);
        }
    }
    return path;
}

UDisks2SmartClient::~UDisks2SmartClient() { Drop(); }

void UDisks2SmartClient::Drop() noexcept {
    // Closed without flushing: a flush would wait on a peer that may be the reason for dropping.
    if (bus_ != nullptr) bus_ = sd_bus_close_unref(bus_);
}

int UDisks2SmartClient::Connect(Clock::time_point deadline) {
    if (bus_ == nullptr) {
        const int r = sd_bus_open_system(&bus_);
        if (r < 0) {
            bus_ = nullptr;
            return r;
        }
    }
    // sd_bus_call would wait without limit for the authentication and Hello of a new connection,
    // so the connection is driven here until it is ready or the time is up.
    for (;;) {
        int r = sd_bus_is_ready(bus_);
        if (r > 0) return 0;
        if (r == 0) r = sd_bus_process(bus_, nullptr);
        if (r > 0) continue;
        if (r == 0) {
            const std::uint64_t left = RemainingUsec(deadline);
            r = left == 0 ? -ETIMEDOUT : sd_bus_wait(bus_, left);
        }
        if (r < 0) {
            Drop();
            return r;
        }
    }
}

UDisks2SmartResult UDisks2SmartClient::Read(std::string_view blockName, bool nvme, Clock::time_point deadline) {
    UDisks2SmartResult result;
    const std::string name(blockName);
    auto fail = [&](int r, const BusError* error) {
        result.error = r < 0 ? -r : EIO;
        if (r == -ETIMEDOUT) {
            Drop();
            result.outcome = UDisks2Outcome::timedOut;
            result.message = "UDisks2 did not answer within the time left in this tick";
        } else if (error != nullptr && (error->Is(SD_BUS_ERROR_NO_REPLY) || error->Is(SD_BUS_ERROR_TIMEOUT))) {
            result.outcome = UDisks2Outcome::failed;
            result.message = "UDisks2 gave no answer about " + name;
        } else if (error != nullptr && error->IsSet()) {
            const bool absent = error->Is(SD_BUS_ERROR_SERVICE_UNKNOWN) || error->Is(SD_BUS_ERROR_NAME_HAS_NO_OWNER);
            result.outcome = UDisks2Outcome::noSmart;
            result.message = absent ? "UDisks2 is not running on the system bus"
                                    : "UDisks2 has no SMART data for " + name + ": " + error->Text();
        } else {
            Drop();
            result.outcome = UDisks2Outcome::failed;
            result.message =
                std::string("The system bus could not be used for SMART data: ") + std::strerror(result.error);
        }
        return result;
    };
    auto malformed = [&](int r) {
        result.error = r < 0 ? -r : EBADMSG;
        result.outcome = UDisks2Outcome::failed;
        result.message = "UDisks2 sent SMART data of an unexpected shape for " + name;
        return result;
    };

    int r = Connect(deadline);
    if (r < 0) return fail(r, nullptr);

    auto call = [&](const char* path, const char* interface, const char* member, BusError& error, Message& reply,
                    auto&& appendArguments) -> int {
        const std::uint64_t left = RemainingUsec(deadline);
        if (left == 0) return -ETIMEDOUT;
        Message request;
        int status = sd_bus_message_new_method_call(bus_, request.Out(), kService, path, interface, member);
        if (status < 0) return status;
        status = appendArguments(request.Get());
        if (status < 0) return status;
        return sd_bus_call(bus_, request.Get(), left, error.Get(), reply.Out());
    };

    // The block device's drive object.
    const std::string blockPath = UDisks2BlockObjectPath(blockName);
    std::string drivePath;
    {
        BusError error;
        Message reply;
        r = call(blockPath.c_str(), kPropertiesInterface, "Get", error, reply, [](sd_bus_message* m) {
            return sd_bus_message_append(m, "ss", kBlockInterface, "Drive");
        });
        if (r < 0) return fail(r, &error);
        const char* path = nullptr;
        r = sd_bus_message_read(reply.Get(), "v", "o", &path);
        if (r < 0) return malformed(r);
        drivePath = path != nullptr ? path : "/";
    }
    if (drivePath == "/") {
        result.outcome = UDisks2Outcome::noSmart;
        result.error = ENODEV;
        result.message = "UDisks2 knows no drive behind " + name;
        return result;
    }

    const char* interface = nvme ? kNvmeInterface : kAtaInterface;
    Dictionary attributes;
    std::vector<AtaAttribute> ataAttributes;
    {
        BusError error;
        Message reply;
        r = call(drivePath.c_str(), interface, "SmartGetAttributes", error, reply,
                 [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}", 0); });
        if (r < 0) return fail(r, &error);
        r = nvme ? ReadDictionary(reply.Get(), attributes) : ReadAtaAttributes(reply.Get(), ataAttributes);
        if (r < 0) return malformed(r);
    }
    Dictionary properties;
    {
        BusError error;
        Message reply;
        r = call(drivePath.c_str(), kPropertiesInterface, "GetAll", error, reply,
                 [interface](sd_bus_message* m) { return sd_bus_message_append(m, "s", interface); });
        // The properties only fill gaps: a refusal leaves the attributes standing, a lost bus does not.
        if (r < 0 && (r == -ETIMEDOUT || !error.IsSet())) return fail(r, &error);
        if (r >= 0) {
            r = ReadDictionary(reply.Get(), properties);
            if (r < 0) return malformed(r);
        }
    }
    result.readings = nvme ? NvmeReadings(attributes, properties) : AtaReadings(ataAttributes, properties);
    result.outcome = UDisks2Outcome::answered;
    return result;
}

}  // namespace korv::providers
