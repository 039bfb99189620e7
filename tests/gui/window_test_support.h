#pragma once

#include "core/platform_interfaces.h"
#include "core/snapshot.h"
#include "providers/platform_services.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace korv::test {

// A snapshot that passes the coherence check: schema 1, a generation, one process and one provider row.
inline std::shared_ptr<core::SystemSnapshot> CoherentSnapshot(std::uint64_t generation) {
    auto snapshot = std::make_shared<core::SystemSnapshot>();
    snapshot->schemaVersion = core::kSnapshotSchemaVersion;
    snapshot->generation = generation;
    snapshot->monotonicNs = generation * 500'000'000ULL;
    snapshot->logicalProcessorCount = 4;
    core::ProcessSnapshot process;
    process.key = core::ProcessKey{4242, 1000};
    process.name = "worker";
    process.cpuPercent.Set(12.5, generation);
    snapshot->processes.push_back(process);
    core::ProviderHealthRecord row;
    row.provider = "cpu";
    row.lastGoodGeneration = generation;
    snapshot->providers.push_back(row);
    return snapshot;
}

// A snapshot source whose every tick is written by the test. Collect runs on the engine's thread.
class ScriptedSource final : public core::ISnapshotSource {
public:
    using Script = std::function<std::shared_ptr<core::SystemSnapshot>(const core::SampleRequest&)>;

    explicit ScriptedSource(Script script) : script_(std::move(script)) {}

    std::shared_ptr<core::SystemSnapshot> Collect(const core::SampleRequest& request) override {
        return script_(request);
    }
    void ResetBaselines() override {}

private:
    Script script_;
};

class NoResolver final : public core::IProcessResolver {
public:
    core::ResolveResult Resolve(const core::ProcessKey&) override { return {}; }
};

class NoActions final : public core::IActionBackend {
public:
    core::ActionResult Execute(const core::ResolvedProcess&, const core::ProcessAction&) override { return {}; }
};

// Platform services around a scripted source, for windows under test.
class ScriptedServices final : public providers::PlatformServices {
public:
    explicit ScriptedServices(ScriptedSource::Script script) : source_(std::move(script)) {}

    core::ISnapshotSource& SnapshotSource() override { return source_; }
    core::IProcessResolver& ProcessResolver() override { return resolver_; }
    core::IActionBackend& ActionBackend() override { return actions_; }
    providers::CapabilityTable Capabilities() const override { return {}; }
    std::shared_ptr<core::ProcessDetails> ProcessDetails(const core::ProcessKey&) override { return nullptr; }

private:
    ScriptedSource source_;
    NoResolver resolver_;
    NoActions actions_;
};

}  // namespace korv::test
