#include "providers/process_figures.h"

#include "core/saturating.h"

#include <algorithm>

namespace korv::providers {

std::uint64_t TicksToNanoseconds(std::uint64_t ticks, std::uint64_t hz) noexcept {
    if (hz == 0) return 0;
    constexpr std::uint64_t kNsPerSecond = 1'000'000'000;
    const std::uint64_t whole = core::SaturatingMultiply(ticks / hz, kNsPerSecond);
    const long double fraction = static_cast<long double>(ticks % hz) * kNsPerSecond / static_cast<long double>(hz);
    return core::SaturatingAdd(whole, static_cast<std::uint64_t>(fraction));
}

core::ProcessState StateFromLetter(char letter) noexcept {
    switch (letter) {
        case 'R':
            return core::ProcessState::running;
        case 'S':
        case 'D':
        case 'I':
        case 'W':
            return core::ProcessState::sleeping;
        case 'T':
        case 't':
            return core::ProcessState::stopped;
        case 'Z':
            return core::ProcessState::zombie;
        default:
            return core::ProcessState::unknown;
    }
}

std::string_view DisplayName(std::string_view comm, std::string_view executablePath) noexcept {
    constexpr std::size_t kCommLength = 15;
    const std::size_t slash = executablePath.rfind('/');
    const std::string_view file = slash == std::string_view::npos ? executablePath : executablePath.substr(slash + 1);
    if (comm.size() >= kCommLength && file.size() > comm.size() && file.starts_with(comm)) return file;
    return comm;
}

void JoinArguments(std::string_view arguments, std::string& out) {
    while (!arguments.empty() && arguments.back() == '\0') arguments.remove_suffix(1);
    out.assign(arguments);
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == '\x7f') c = ' ';
    }
}

void SetKibMetric(core::Metric<std::uint64_t>& metric, std::optional<std::uint64_t> kib, std::uint64_t generation,
                  core::MetricAvailability absent) {
    if (!kib) {
        metric.MarkMissing(absent);
        return;
    }
    const core::ScaledKib scaled = core::KibToBytes(*kib);
    if (scaled.saturated) {
        metric.MarkMissing(core::MetricAvailability::transientError);
        return;
    }
    metric.Set(scaled.bytes, generation);
}

void SetKibSumMetric(core::Metric<std::uint64_t>& metric, std::optional<std::uint64_t> a,
                     std::optional<std::uint64_t> b, std::uint64_t generation, core::MetricAvailability absent) {
    if (!a && !b) {
        metric.MarkMissing(absent);
        return;
    }
    const core::ScaledKib first = core::KibToBytes(a.value_or(0));
    const core::ScaledKib second = core::KibToBytes(b.value_or(0));
    if (first.saturated || second.saturated) {
        metric.MarkMissing(core::MetricAvailability::transientError);
        return;
    }
    metric.Set(core::SaturatingAdd(first.bytes, second.bytes), generation);
}

double CpuPercent(std::uint64_t deltaNs, std::uint64_t elapsedNs, std::uint32_t processorCount) noexcept {
    if (elapsedNs == 0 || processorCount == 0) return 0.0;
    const double percent =
        static_cast<double>(deltaNs) / (static_cast<double>(elapsedNs) * static_cast<double>(processorCount)) * 100.0;
    return std::clamp(percent, 0.0, 100.0);
}

}  // namespace korv::providers
