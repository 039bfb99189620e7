#include "providers/proc_stat.h"

#include "core/saturating.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace korv::providers {
namespace {

bool IsBlank(char c) noexcept { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

bool ParseCounter(std::string_view token, std::uint64_t& out) noexcept {
    const auto [end, ec] = std::from_chars(token.data(), token.data() + token.size(), out);
    return ec == std::errc{} && end == token.data() + token.size();
}

bool AllDigits(std::string_view text) noexcept {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Name and the eight counters; tokens past steal (guest, guest_nice) are not looked at.
constexpr std::size_t kMaxTokens = 9;

std::size_t SplitLine(std::string_view line, std::array<std::string_view, kMaxTokens>& tokens) noexcept {
    std::size_t count = 0;
    std::size_t pos = 0;
    while (count < tokens.size()) {
        while (pos < line.size() && IsBlank(line[pos])) ++pos;
        if (pos >= line.size()) break;
        const std::size_t start = pos;
        while (pos < line.size() && !IsBlank(line[pos])) ++pos;
        tokens[count++] = line.substr(start, pos - start);
    }
    return count;
}

// Inserts or overwrites; lines come in index order, so the append is the usual path.
bool Store(std::vector<ProcStatCpuEntry>& cpus, std::uint32_t index, const ProcStatCpuCounters& counters) {
    if (cpus.empty() || cpus.back().index < index) {
        if (cpus.size() >= kMaxLogicalCpuIndex) return false;
        cpus.push_back({index, counters});
        return true;
    }
    const auto it = std::lower_bound(cpus.begin(), cpus.end(), index,
                                     [](const ProcStatCpuEntry& entry, std::uint32_t key) { return entry.index < key; });
    if (it != cpus.end() && it->index == index) {
        it->counters = counters;
        return true;
    }
    if (cpus.size() >= kMaxLogicalCpuIndex) return false;
    cpus.insert(it, {index, counters});
    return true;
}

int ParseLine(std::string_view line, ProcStatSnapshot& out, bool& sawAggregate) {
    std::array<std::string_view, kMaxTokens> tokens;
    const std::size_t count = SplitLine(line, tokens);
    if (count < 5) return kProcStatMalformed;

    const std::string_view name = tokens[0];
    if (name.substr(0, 3) != "cpu") return kProcStatMalformed;
    const std::string_view digits = name.substr(3);
    const bool aggregate = digits.empty();
    std::uint64_t index = 0;
    if (!aggregate) {
        if (!AllDigits(digits)) return kProcStatMalformed;
        // Digits only: a value too large for 64 bits is certainly above the limit.
        const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), index);
        if (ec != std::errc{} || end != digits.data() + digits.size() || index > kMaxLogicalCpuIndex) {
            return kProcStatIndexOutOfRange;
        }
    }

    ProcStatCpuCounters counters;
    std::array<std::uint64_t*, 8> fields{&counters.user,    &counters.nice, &counters.system,  &counters.idle,
                                         &counters.iowait,  &counters.irq,  &counters.softirq, &counters.steal};
    for (std::size_t i = 1; i < count; ++i) {
        if (!ParseCounter(tokens[i], *fields[i - 1])) return kProcStatMalformed;
    }

    if (aggregate) {
        out.aggregate = counters;
        sawAggregate = true;
        return 0;
    }
    return Store(out.cpus, static_cast<std::uint32_t>(index), counters) ? 0 : kProcStatIndexOutOfRange;
}

}  // namespace

const ProcStatCpuCounters* ProcStatSnapshot::Find(std::uint32_t index) const noexcept {
    const auto it = std::lower_bound(cpus.begin(), cpus.end(), index,
                                     [](const ProcStatCpuEntry& entry, std::uint32_t key) { return entry.index < key; });
    return it != cpus.end() && it->index == index ? &it->counters : nullptr;
}

void ParseProcStat(std::string_view text, ProcStatSnapshot& out) {
    out.aggregate = {};
    out.cpus.clear();
    out.error = 0;

    bool sawCpuLine = false;
    bool sawAggregate = false;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;

        if (line.substr(0, 3) != "cpu") {
            if (sawCpuLine) break;
            continue;
        }
        sawCpuLine = true;
        out.error = ParseLine(line, out, sawAggregate);
        if (out.error != 0) break;
    }
    if (out.error == 0 && !sawAggregate) out.error = kProcStatMalformed;
    if (out.error != 0) {
        out.aggregate = {};
        out.cpus.clear();
    }
}

ProcStatSnapshot ParseProcStat(std::string_view text) {
    ProcStatSnapshot snapshot;
    ParseProcStat(text, snapshot);
    return snapshot;
}

CpuUtilizationDelta ComputeCpuUtilization(const ProcStatCpuCounters& previous,
                                          const ProcStatCpuCounters& current) noexcept {
    const std::array<std::uint64_t, 8> before{previous.user,   previous.nice, previous.system,  previous.idle,
                                              previous.iowait, previous.irq,  previous.softirq, previous.steal};
    const std::array<std::uint64_t, 8> after{current.user,   current.nice, current.system,  current.idle,
                                             current.iowait, current.irq,  current.softirq, current.steal};
    std::array<std::uint64_t, 8> delta{};
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < delta.size(); ++i) {
        if (after[i] < before[i]) return {CpuDeltaStatus::counterWentBackwards, 0.0, 0.0};
        delta[i] = after[i] - before[i];
        total = core::SaturatingAdd(total, delta[i]);
    }
    if (total == 0) return {CpuDeltaStatus::noElapsedTicks, 0.0, 0.0};

    const std::uint64_t idle = core::SaturatingAdd(delta[3], delta[4]);
    const std::uint64_t busy = total > idle ? total - idle : 0;
    const std::uint64_t kernel = core::SaturatingAdd(core::SaturatingAdd(delta[2], delta[5]), delta[6]);
    const double busyPercent = 100.0 * static_cast<double>(busy) / static_cast<double>(total);
    const double kernelPercent = 100.0 * static_cast<double>(std::min(kernel, busy)) / static_cast<double>(total);
    return {CpuDeltaStatus::ok, std::min(busyPercent, 100.0), std::min(kernelPercent, busyPercent)};
}

}  // namespace korv::providers
