#include "host/linux_client/process_cpu_smoother.h"

#include <cmath>
#include <limits>

namespace korv::host::linux_client {

void ProcessCpuSmoother::SetEnabled(bool enabled) {
    enabled_ = enabled;
    index_.Clear();
    entries_.clear();
}

void ProcessCpuSmoother::BeginPass(std::size_t expectedKeys) {
    ++pass_;
    if (enabled_) index_.Reserve(expectedKeys);
}

void ProcessCpuSmoother::EndPass() {
    std::size_t place = 0;
    while (place < entries_.size()) {
        if (entries_[place].pass == pass_) {
            ++place;
            continue;
        }
        index_.Erase(entries_[place].key);
        if (place + 1 != entries_.size()) {
            entries_[place] = entries_.back();
            index_.Assign(entries_[place].key, static_cast<int>(place));
        }
        entries_.pop_back();
    }
}

std::optional<double> ProcessCpuSmoother::Smooth(const core::ProcessKey& key, const core::Metric<double>& reading,
                                                 std::uint64_t sampleTimeNs) {
    const int found = enabled_ ? index_.Find(key) : -1;
    if (found >= 0) entries_[static_cast<std::size_t>(found)].pass = pass_;
    if (!core::CarriesValue(reading.availability) || !reading.value) return std::nullopt;
    const double raw = *reading.value;
    if (!(std::fabs(raw) <= std::numeric_limits<double>::max())) return std::nullopt;
    if (!enabled_ || sampleTimeNs == 0) return raw;

    if (found < 0) {
        index_.Assign(key, static_cast<int>(entries_.size()));
        entries_.push_back(Entry{key, raw, sampleTimeNs, pass_});
        return raw;
    }
    Entry& entry = entries_[static_cast<std::size_t>(found)];
    if (entry.timeNs < sampleTimeNs) {
        const double seconds = static_cast<double>(sampleTimeNs - entry.timeNs) / 1e9;
        const double k = std::pow(0.72, seconds);
        entry.value = raw * (1.0 - k) + entry.value * k;
        entry.timeNs = sampleTimeNs;
    }
    return entry.value;
}

}  // namespace korv::host::linux_client
