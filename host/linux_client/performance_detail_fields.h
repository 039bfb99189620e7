#pragma once

#include "core/snapshot.h"
#include "host/linux_client/detail_field.h"
#include "host/linux_client/performance_device_list.h"

#include <QString>

namespace korv::host::linux_client {

// What the right pane of the Performance page shows in text for one device row.
struct DevicePaneText {
    QString title;            // the row's title
    QString model;            // the device's model or name, shown beside the title
    DetailFieldList figures;  // live readings shown large: CPU utilization and speed, memory in use, ...
    DetailFieldList fields;   // the detail fields, in their fixed order per kind
};

// Pure: the fields of a row of `snapshot`, each only when its source has a value. A stale reading
// gets " (stale)"; parts of one field are joined with " · ". Combined rows sum rates, totals and
// capacities, average percentages, and join the distinct texts of their members.
DetailFieldList DeviceDetailFields(const core::SystemSnapshot& snapshot, const DeviceRowSpec& row);
DetailFieldList DeviceFigures(const core::SystemSnapshot& snapshot, const DeviceRowSpec& row);
QString DeviceModelText(const core::SystemSnapshot& snapshot, const DeviceRowSpec& row);
DevicePaneText BuildDevicePaneText(const core::SystemSnapshot& snapshot, const DeviceRowSpec& row);

// The pane as plain text, as "Copy" puts it on the clipboard.
QString PaneClipboardText(const DevicePaneText& pane);

// True when the CPU power reading is missing because the powercap energy counters may be read only
// by root: the "linux.powercap" provider failed with EACCES or EPERM, or the reading says so.
bool PowercapAccessNeeded(const core::SystemSnapshot& snapshot);

}  // namespace korv::host::linux_client
