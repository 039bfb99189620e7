#include "providers/memory_collector.h"

#include "core/saturating.h"
#include "providers/bounded_read.h"
#include "providers/steady_clock.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <system_error>
#include <utility>

namespace korv::providers {
namespace {

constexpr const char* kMeminfoSource = "linux.procfs.meminfo";
constexpr const char* kPressureSource = "linux.psi.memory";
constexpr const char* kVmstatSource = "linux.procfs.vmstat";
constexpr const char* kHardwareSource = "linux.memory.hardware";

bool IsBlank(char c) noexcept { return c == ' ' || c == '\t'; }

std::string_view FirstToken(std::string_view text) noexcept {
    std::size_t start = 0;
    while (start < text.size() && IsBlank(text[start])) ++start;
    std::size_t end = start;
    while (end < text.size() && !IsBlank(text[end]) && text[end] != '\n') ++end;
    return text.substr(start, end - start);
}

template <typename Visit>
void ForEachLine(std::string_view text, Visit&& visit) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        visit(text.substr(pos, end - pos));
        pos = end + 1;
    }
}

// A byte figure on its way into a metric: missing, saturated, or a number.
struct Figure {
    std::uint64_t bytes = 0;
    bool present = false;
    bool saturated = false;
};

Figure FromKib(const MeminfoValue& value) noexcept {
    if (!value.present) return {};
    const core::ScaledKib scaled = core::KibToBytes(value.kib);
    return {scaled.bytes, true, scaled.saturated};
}

Figure Sum(const Figure& a, const Figure& b) noexcept {
    if (!a.present || !b.present) return {};
    const std::uint64_t bytes = core::SaturatingAdd(a.bytes, b.bytes);
    return {bytes, true, a.saturated || b.saturated || bytes == std::numeric_limits<std::uint64_t>::max()};
}

// Clamped at 0: MemAvailable can briefly exceed MemTotal on some kernels' accounting.
Figure Difference(const Figure& a, const Figure& b) noexcept {
    if (!a.present || !b.present) return {};
    return {a.bytes > b.bytes ? a.bytes - b.bytes : 0, true, a.saturated || b.saturated};
}

void Put(core::Metric<std::uint64_t>& metric, const Figure& figure, std::uint64_t generation,
         core::MetricAvailability whenAbsent) {
    metric.source = kMeminfoSource;
    if (!figure.present) {
        metric.MarkMissing(whenAbsent);
    } else if (figure.saturated) {
        // The scaled figure saturated at 18446744073709551615, which is no reading of this machine;
        // only valid, zero and stale may carry a value, so the metric says transientError instead.
        metric.MarkMissing(core::MetricAvailability::transientError);
    } else {
        metric.Set(figure.bytes, generation);
        metric.quality = core::MetricQuality::authoritative;
    }
}

void MarkAll(core::SystemSnapshot& snapshot, core::MetricAvailability availability) {
    for (auto* metric :
         {&snapshot.memoryTotalBytes, &snapshot.memoryAvailableBytes, &snapshot.memoryInUseBytes,
          &snapshot.memoryFreeBytes, &snapshot.memorySharedBytesTotal, &snapshot.memoryAnonymousBytes,
          &snapshot.memoryCompressedBytes, &snapshot.memoryCachedBytes, &snapshot.swapTotalBytes,
          &snapshot.swapUsedBytes, &snapshot.memoryCommittedBytes, &snapshot.memoryCommitLimitBytes,
          &snapshot.memoryBuffersBytes, &snapshot.memorySharedBytes, &snapshot.memoryKernelSlabBytes}) {
        metric->MarkMissing(availability);
        metric->source = kMeminfoSource;
    }
    snapshot.memoryPressurePercent.MarkMissing(availability);
    snapshot.memoryPressurePercent.source = kMeminfoSource;
}

void FillHardwareOnly(core::SystemSnapshot& snapshot) {
    // DIMM speed, slots, form factor and type come from SMBIOS, which procfs does not expose and
    // an unprivileged user cannot read.
    for (auto* metric : {&snapshot.memorySpeed, &snapshot.memorySlotsPopulated, &snapshot.memorySlotsTotal}) {
        metric->MarkMissing(core::MetricAvailability::unsupported);
        metric->source = kHardwareSource;
    }
    for (auto* metric : {&snapshot.memoryFormFactor, &snapshot.memoryType}) {
        metric->MarkMissing(core::MetricAvailability::unsupported);
        metric->source = kHardwareSource;
    }
}

}  // namespace

MeminfoFields ParseMeminfo(std::string_view text) {
    MeminfoFields fields;
    const std::array<std::pair<std::string_view, MeminfoValue*>, 15> keys{{
        {"MemTotal", &fields.memTotal},         {"MemFree", &fields.memFree},
        {"MemAvailable", &fields.memAvailable}, {"Buffers", &fields.buffers},
        {"Cached", &fields.cached},             {"SwapTotal", &fields.swapTotal},
        {"SwapFree", &fields.swapFree},         {"Zswap", &fields.zswap},
        {"AnonPages", &fields.anonPages},       {"Shmem", &fields.shmem},
        {"Slab", &fields.slab},                 {"SReclaimable", &fields.sReclaimable},
        {"SUnreclaim", &fields.sUnreclaim},     {"CommitLimit", &fields.commitLimit},
        {"Committed_AS", &fields.committedAs},
    }};
    ForEachLine(text, [&](std::string_view line) {
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) return;
        const std::string_view key = line.substr(0, colon);
        for (const auto& [name, target] : keys) {
            if (name != key) continue;
            const std::string_view number = FirstToken(line.substr(colon + 1));
            std::uint64_t kib = 0;
            const auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), kib);
            if (number.empty() || end != number.data() + number.size()) return;
            if (ec == std::errc::result_out_of_range) kib = std::numeric_limits<std::uint64_t>::max();
            else if (ec != std::errc{}) return;
            *target = {kib, true};
            return;
        }
    });
    return fields;
}

std::optional<double> ParsePsiSomeAvg10(std::string_view text) {
    const std::size_t some = text.find("some ");
    if (some == std::string_view::npos) return std::nullopt;
    const std::size_t avg = text.find("avg10=", some);
    if (avg == std::string_view::npos) return std::nullopt;
    std::string_view figure = text.substr(avg + 6);
    figure = figure.substr(0, figure.find_first_of(" \n"));
    double value = 0.0;
    const auto [end, ec] = std::from_chars(figure.data(), figure.data() + figure.size(), value);
    if (figure.empty() || ec != std::errc{} || end != figure.data() + figure.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

VmstatSwap ParseVmstatSwap(std::string_view text) {
    VmstatSwap swap;
    ForEachLine(text, [&](std::string_view line) {
        const std::size_t space = line.find(' ');
        if (space == std::string_view::npos) return;
        const std::string_view key = line.substr(0, space);
        std::optional<std::uint64_t>* target = key == "pswpin" ? &swap.pswpin : key == "pswpout" ? &swap.pswpout : nullptr;
        if (target == nullptr) return;
        const std::string_view number = FirstToken(line.substr(space));
        std::uint64_t value = 0;
        const auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), value);
        if (!number.empty() && ec == std::errc{} && end == number.data() + number.size()) *target = value;
    });
    return swap;
}

MemoryCollector::MemoryCollector(ProviderRoots roots)
    : meminfoPath_((roots.proc / "meminfo").string()),
      pressurePath_((roots.proc / "pressure/memory").string()),
      vmstatPath_((roots.proc / "vmstat").string()) {}

MemoryStageResult MemoryCollector::Fill(core::SystemSnapshot& snapshot, const CollectContext& context) {
    const std::uint64_t start = SteadyNowNs();
    const std::uint64_t generation = context.generation;
    MemoryStageResult result;
    FillHardwareOnly(snapshot);

    result.error = ReadFileBounded(meminfoPath_.c_str(), kMeminfoLimit, buffer_);
    if (result.error != 0) {
        MarkAll(snapshot, AvailabilityFromErrno(result.error));
        result.message = meminfoPath_ + " could not be read: " +
                         std::error_code(result.error, std::generic_category()).message();
    } else {
        const MeminfoFields fields = ParseMeminfo(buffer_);
        const auto absent = core::MetricAvailability::unsupported;
        const Figure total = FromKib(fields.memTotal);
        const Figure available = FromKib(fields.memAvailable);
        const Figure used = Difference(total, available);
        const Figure buffers = FromKib(fields.buffers);
        const Figure shared = FromKib(fields.shmem);
        const Figure swapTotal = FromKib(fields.swapTotal);
        const Figure slab = fields.slab.present ? FromKib(fields.slab)
                                                : Sum(FromKib(fields.sUnreclaim), FromKib(fields.sReclaimable));

        Put(snapshot.memoryTotalBytes, total, generation, absent);
        Put(snapshot.memoryAvailableBytes, available, generation, absent);
        Put(snapshot.memoryInUseBytes, used, generation, absent);
        Put(snapshot.memoryFreeBytes, FromKib(fields.memFree), generation, absent);
        Put(snapshot.memorySharedBytesTotal, shared, generation, absent);
        Put(snapshot.memoryAnonymousBytes, FromKib(fields.anonPages), generation, absent);
        // Zswap appears only on kernels with zswap built in; without it nothing is compressed.
        Put(snapshot.memoryCompressedBytes, FromKib(fields.zswap), generation, core::MetricAvailability::notApplicable);
        Put(snapshot.memoryCachedBytes, Sum(Sum(buffers, FromKib(fields.sReclaimable)), FromKib(fields.cached)),
            generation, absent);
        Put(snapshot.swapTotalBytes, swapTotal, generation, absent);
        Put(snapshot.swapUsedBytes, Difference(swapTotal, FromKib(fields.swapFree)), generation, absent);
        Put(snapshot.memoryCommittedBytes, FromKib(fields.committedAs), generation, absent);
        Put(snapshot.memoryCommitLimitBytes, FromKib(fields.commitLimit), generation, absent);
        Put(snapshot.memoryBuffersBytes, buffers, generation, absent);
        Put(snapshot.memorySharedBytes, shared, generation, absent);
        Put(snapshot.memoryKernelSlabBytes, slab, generation, absent);

        // Memory pressure here is the share of physical memory in use (total minus available);
        // the kernel's stall figure is memoryPsiSomeAvg10.
        auto& pressure = snapshot.memoryPressurePercent;
        pressure.source = kMeminfoSource;
        if (!CarriesValue(snapshot.memoryInUseBytes.availability)) {
            pressure.MarkMissing(snapshot.memoryInUseBytes.availability);
        } else if (total.bytes == 0) {
            pressure.MarkMissing(core::MetricAvailability::notApplicable);
        } else {
            const double percent = 100.0 * static_cast<double>(used.bytes) / static_cast<double>(total.bytes);
            pressure.Set(std::min(percent, 100.0), generation);
            pressure.quality = core::MetricQuality::authoritative;
        }

        if (!fields.memTotal.present) {
            result.error = kMeminfoMalformed;
            result.message = meminfoPath_ + " has no MemTotal line";
        } else {
            result.ok = true;
            result.message = "procfs meminfo collected";
        }
    }

    FillPressure(snapshot, generation);
    FillPaging(snapshot, generation);
    result.durationNs = SteadyNowNs() - start;
    return result;
}

void MemoryCollector::FillPressure(core::SystemSnapshot& snapshot, std::uint64_t generation) {
    auto& metric = snapshot.memoryPsiSomeAvg10;
    metric.source = kPressureSource;
    const int error = ReadFileBounded(pressurePath_.c_str(), kPressureLimit, buffer_);
    if (error != 0) {
        // Absent without CONFIG_PSI; EOPNOTSUPP when the kernel was booted with psi=0.
        const bool unsupported = error == ENOENT || error == EOPNOTSUPP || error == ENOTDIR;
        metric.MarkMissing(unsupported ? core::MetricAvailability::unsupported : AvailabilityFromErrno(error));
        return;
    }
    const auto value = ParsePsiSomeAvg10(buffer_);
    if (!value || *value < 0.0 || *value > 100.0) {
        metric.MarkMissing(core::MetricAvailability::transientError);
        return;
    }
    metric.Set(*value, generation);
    metric.quality = core::MetricQuality::authoritative;
}

void MemoryCollector::FillPaging(core::SystemSnapshot& snapshot, std::uint64_t generation) {
    const int error = ReadFileBounded(vmstatPath_.c_str(), kVmstatLimit, buffer_);
    const VmstatSwap swap = error == 0 ? ParseVmstatSwap(buffer_) : VmstatSwap{};
    const auto put = [&](core::Metric<std::uint64_t>& metric, const std::optional<std::uint64_t>& pages) {
        metric.source = kVmstatSource;
        if (!pages) {
            metric.MarkMissing(core::MetricAvailability::unsupported);
            return;
        }
        metric.Set(*pages, generation);  // cumulative pages since boot; 0 is the zero state
        metric.quality = core::MetricQuality::authoritative;
    };
    put(snapshot.pageIns, swap.pswpin);
    put(snapshot.pageOuts, swap.pswpout);
}

}  // namespace korv::providers
