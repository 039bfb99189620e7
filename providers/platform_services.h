#pragma once

#include "core/platform_interfaces.h"
#include "core/snapshot.h"
#include "providers/process_affinity.h"
#include "providers/provider_context.h"

#include <map>
#include <cstdint>
#include <memory>
#include <stop_token>
#include <string>

namespace korv::core {
struct ProcessDetails;
}

namespace korv::providers {

using CapabilityTable = std::map<std::string, core::CapabilityRow>;

// The one object that stands for the platform. The window owns it; it outlives the engine, which is
// stopped before the services are destroyed. SnapshotSource() is driven by the engine's thread only;
// the other operations may be called from the GUI thread or a worker.
class PlatformServices {
public:
    virtual ~PlatformServices() = default;

    virtual core::ISnapshotSource& SnapshotSource() = 0;
    virtual core::IProcessResolver& ProcessResolver() = 0;
    virtual core::IActionBackend& ActionBackend() = 0;
    // The capability table of the latest Collect (the initial table before the first).
    virtual CapabilityTable Capabilities() const = 0;
    // Command line, environment and open descriptors; null when the key no longer matches.
    virtual std::shared_ptr<core::ProcessDetails> ProcessDetails(const core::ProcessKey& key) = 0;
    // The same read, given up (null) as soon as `stop` is requested. On a worker.
    virtual std::shared_ptr<core::ProcessDetails> ProcessDetailsUntil(const core::ProcessKey& key,
                                                                      std::stop_token stop) {
        return stop.stop_requested() ? nullptr : ProcessDetails(key);
    }
    // The affinity of every thread of a process, read and set on the action worker.
    virtual AffinityReading ReadAffinity(const core::ProcessKey& key) { return ReadProcessAffinity({}, key); }
    virtual AffinityResult SetAffinity(const core::ProcessKey& key, std::uint64_t mask) {
        return SetProcessAffinity({}, key, mask);
    }
};

// The Linux provider, reading the machine below the given roots.
std::unique_ptr<PlatformServices> CreatePlatformServices(ProviderRoots roots = {});

}  // namespace korv::providers
