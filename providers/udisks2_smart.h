#pragma once

#include "providers/smart_reading.h"

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

struct sd_bus;

namespace korv::providers {

// SMART by way of UDisks2 on the system bus: the route left to a login that may not open the
// drive's device node.

inline constexpr const char* kUDisks2SmartProvider = "linux.udisks2.smart";
inline constexpr const char* kUDisks2SmartSource = "UDisks2 SMART data on the system bus";

// "/org/freedesktop/UDisks2/block_devices/<name>", with every byte outside [A-Za-z0-9_] written
// as "_" and two hex digits, as UDisks2 names its objects ("dm-0" -> "dm_2d0").
std::string UDisks2BlockObjectPath(std::string_view blockName);

enum class UDisks2Outcome {
    answered,
    noSmart,   // the service, the drive or its SMART interface is not there: no use asking again soon
    failed,    // the bus or the reply failed; the connection is reopened next time
    timedOut,  // the time left ran out before or during a call
};

struct UDisks2SmartResult {
    UDisks2Outcome outcome = UDisks2Outcome::failed;
    int error = 0;  // errno value of the failure, 0 when answered
    std::vector<SmartReading> readings;
    std::string message;  // why it did not answer, in the program's words
};

// One connection to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set), opened on first use, kept
// between refreshes and reopened after an error. Not thread-safe: the sampling thread owns it.
class UDisks2SmartClient {
public:
    UDisks2SmartClient() = default;
    ~UDisks2SmartClient();
    UDisks2SmartClient(const UDisks2SmartClient&) = delete;
    UDisks2SmartClient& operator=(const UDisks2SmartClient&) = delete;

    // Reads one drive: the NVMe controller interface when nvme, else the ATA one. Every step,
    // the connection's set-up included, waits at most until deadline.
    UDisks2SmartResult Read(std::string_view blockName, bool nvme, std::chrono::steady_clock::time_point deadline);

private:
    int Connect(std::chrono::steady_clock::time_point deadline);
    void Drop() noexcept;

    sd_bus* bus_ = nullptr;
};

}  // namespace korv::providers
