#pragma once

#include "core/settings.h"
#include "core/snapshot.h"

#include <QString>

#include <cstddef>
#include <vector>

namespace korv::host::linux_client {

// Whether several disks, network interfaces or GPUs share one row of the device list.
struct DeviceListOptions {
    bool combinedDisks = true;
    bool combinedNetwork = true;
    bool combinedGpus = false;
};

DeviceListOptions DeviceListOptionsFrom(const core::Settings& settings);

// One row of the Performance page's device list. The battery is listed under DeviceKind::energy.
// A combined row stands for every member device of its kind; a row of one device has one member.
struct DeviceRowSpec {
    core::DeviceKind kind = core::DeviceKind::other;
    QString id;        // "cpu", "memory", "disk:<device id>", "disks", "network:<id>", "network", ...
    QString title;     // "CPU", "Disk 0 (nvme0n1)", "GPU 0", ...
    bool combined = false;
    std::vector<std::size_t> members;  // indexes into snapshot.devices, in snapshot order

    bool operator==(const DeviceRowSpec&) const = default;
};

// The rows for one snapshot in list order: CPU, memory, disks, network interfaces, GPUs, battery.
// A kind with two or more devices gets one combined row when its option is on. Empty when the
// snapshot offers no device at all; the page then shows its one "No Linux devices available" row.
std::vector<DeviceRowSpec> BuildDeviceRows(const core::SystemSnapshot& snapshot, const DeviceListOptions& options);

// The text under a row's title: the live figure of the device, for example "12.5%  3.40 GHz" for
// the CPU or "S: 1.00 KB/sec  R: 12.0 KB/sec" for a network interface. Lines are separated by '\n'.
QString DeviceRowSubtitle(const DeviceRowSpec& row, const core::SystemSnapshot& snapshot);

// The text of the list's only row when there is nothing to show.
QString NoDevicesText();

}  // namespace korv::host::linux_client
