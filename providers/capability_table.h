#pragma once

#include "providers/platform_services.h"

#include <string>

namespace korv::providers {

// What the installed-application census last said; the census itself arrives with its page.
struct InstalledAppsCapability {
    bool refreshCompleted = false;
    bool haveCompleteInventory = false;
    std::string statusText = "Installed-application inventory has not been collected yet";
};

// The table every Collect starts from; later stages overwrite the rows they know better.
CapabilityTable InitialCapabilityTable(const InstalledAppsCapability& installedApps);

void SetCapability(CapabilityTable& table, const std::string& key, core::ProviderSupport support,
                   std::string description);

}  // namespace korv::providers
