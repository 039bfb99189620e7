#include "core/metric.h"
#include "core/snapshot_enums.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace korv::core {
namespace {

template <typename Enum>
std::string_view Text(std::uint32_t number) {
    return ToString(static_cast<Enum>(number));
}

struct EnumTexts {
    const char* enumName;
    std::string_view (*text)(std::uint32_t);
    std::vector<std::string_view> texts;  // the texts of 0, 1, 2, ... in order
    std::string_view fallback;            // empty where no text is given for other numbers
};

// Exported files carry these texts, so each number must keep its word, and an unknown number
// must still write something readable rather than fail.
TEST(SnapshotEnumsTest, EveryNumberHasItsText) {
    const EnumTexts table[] = {
        {"MetricAvailability", &Text<MetricAvailability>,
         {"valid", "zero", "notApplicable", "unsupported", "accessDenied", "notYetAvailable", "stale",
          "transientError"},
         "transientError"},
        {"MetricQuality", &Text<MetricQuality>, {"authoritative", "estimated", "fallback", "unknown"}, "unknown"},
        {"DeviceKind", &Text<DeviceKind>,
         {"cpu", "memory", "disk", "network", "gpu", "npu", "other", "energy", "thermals"}, "other"},
        {"ProcessState", &Text<ProcessState>,
         {"running", "sleeping", "stopped", "suspended", "zombie", "notResponding"}, "unknown"},
        {"ProcessArchitecture", &Text<ProcessArchitecture>, {"x86", "x64", "arm32", "arm64", "arm64ec"}, "unknown"},
        {"ProcessGroup", &Text<ProcessGroup>, {"apps", "windows", "background"}, "background"},
        {"ProviderHealth", &Text<ProviderHealth>, {"healthy", "degraded", "unavailable", "restarting"}, ""},
        {"ProviderSupport", &Text<ProviderSupport>,
         {"supported", "degraded", "unsupported", "notApplicable", "accessDenied"}, "unsupported"},
        {"ServiceState", &Text<ServiceState>, {"running", "stopped", "starting", "stopping", "paused", "failed"},
         "unknown"},
        {"StartupEnabledState", &Text<StartupEnabledState>, {"enabled", "disabled", "unknown"}, ""},
        {"StartupSource", &Text<StartupSource>,
         {"userRun", "machineRun", "userStartupFolder", "machineStartupFolder", "packagedTask", "launchAgent",
          "launchDaemon", "userXdgAutostart", "machineXdgAutostart"},
         "other"},
        {"InstalledAppSource", &Text<InstalledAppSource>,
         {"windowsUninstallRegistry", "windowsMsi", "windowsMsix", "linuxDpkg", "linuxRpm", "linuxFlatpak",
          "linuxSnap", "linuxAppImage", "linuxDesktopEntry", "macBundle"},
         "other"},
        {"InstallScope", &Text<InstallScope>, {"machine", "user", "unknown"}, ""},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.enumName);
        for (std::uint32_t number = 0; number < row.texts.size(); ++number) {
            EXPECT_EQ(row.text(number), row.texts[number]) << number;
        }
        if (row.fallback.empty()) continue;
        const auto past = static_cast<std::uint32_t>(row.texts.size());
        for (const std::uint32_t number : {past, past + 1, 1000u, 0xFFFFFFFFu}) {
            EXPECT_EQ(row.text(number), row.fallback) << number;
        }
    }
}

}  // namespace
}  // namespace korv::core
