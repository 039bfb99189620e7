#pragma once

#include "core/metric.h"
#include "core/process_key.h"
#include "host/linux_client/process_key_table.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace korv::host::linux_client {

// An exponential filter over real sample time: a reading loses 28 % of its distance to the truth
// per second, whatever the refresh rate. Keyed by process; GUI thread only.
class ProcessCpuSmoother {
public:
    // Stores the flag and forgets every reading, whatever the old value.
    void SetEnabled(bool enabled);
    bool Enabled() const noexcept { return enabled_; }

    // A pass: every key given to Smooth between the two calls is kept, every other one forgotten.
    void BeginPass(std::size_t expectedKeys);
    void EndPass();

    // The value to show for a reading taken at sampleTimeNs; nothing when the reading carries no
    // finite value.
    std::optional<double> Smooth(const core::ProcessKey& key, const core::Metric<double>& reading,
                                 std::uint64_t sampleTimeNs);

    std::size_t Size() const noexcept { return entries_.size(); }

private:
    struct Entry {
        core::ProcessKey key;
        double value = 0.0;
        std::uint64_t timeNs = 0;
        std::uint64_t pass = 0;
    };
    ProcessKeyTable index_;
    std::vector<Entry> entries_;
    std::uint64_t pass_ = 0;
    bool enabled_ = true;
};

}  // namespace korv::host::linux_client
