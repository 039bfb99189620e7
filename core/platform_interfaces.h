#pragma once

#include "core/process_action.h"
#include "core/process_key.h"
#include "core/snapshot.h"

#include <cstdint>
#include <memory>
#include <stop_token>

namespace korv::core {

// What the engine asks of a source for one tick.
struct SampleRequest {
    std::uint64_t sequence = 0;  // from 1; the snapshot's generation
    std::int64_t intervalNs = 0;
    std::int64_t elapsedNs = 0;
    bool resetBaselines = false;
    std::stop_token stopState;  // polled by long collectors; set when the engine stops
};

// Collect and ResetBaselines run on the engine's thread only.
class ISnapshotSource {
public:
    virtual ~ISnapshotSource() = default;
    // A null result or an exception means no sample this tick.
    virtual std::shared_ptr<SystemSnapshot> Collect(const SampleRequest& request) = 0;
    // Forgets every previous-counter cache, so that the next sample has no deltas.
    virtual void ResetBaselines() = 0;
};

// A pinned handle on one process.
class ResolvedProcess {
public:
    virtual ~ResolvedProcess() = default;
    virtual ProcessKey Key() const = 0;
};

struct ResolveResult {
    ResolveStatus status = ResolveStatus::failed;
    int errorNumber = 0;
    std::shared_ptr<const ResolvedProcess> process;
};

// May be called from the GUI thread or a worker, never touching Collect's state without a lock.
class IProcessResolver {
public:
    virtual ~IProcessResolver() = default;
    virtual ResolveResult Resolve(const ProcessKey& key) = 0;
};

class IActionBackend {
public:
    virtual ~IActionBackend() = default;
    virtual ActionResult Execute(const ResolvedProcess& process, const ProcessAction& action) = 0;
};

}  // namespace korv::core
