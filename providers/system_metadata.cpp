#include "providers/system_metadata.h"

#include "providers/bounded_read.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <utility>

namespace korv::providers {
namespace {

constexpr const char* kSource = "linux.system.metadata";

bool IsBlank(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view Trim(std::string_view text) noexcept {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
    return text;
}

std::string_view NextToken(std::string_view text, std::size_t& pos) noexcept {
    while (pos < text.size() && IsBlank(text[pos])) ++pos;
    const std::size_t start = pos;
    while (pos < text.size() && !IsBlank(text[pos])) ++pos;
    return text.substr(start, pos - start);
}

template <typename T>
bool ParseWhole(std::string_view text, T& out) noexcept {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return !text.empty() && ec == std::errc{} && end == text.data() + text.size();
}

std::string_view Unquote(std::string_view value) noexcept {
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
    }
    return value;
}

// A file that does not exist is a feature this system lacks, not a failure.
core::MetricAvailability MissingFileAvailability(int error) noexcept {
    return error == ENOENT || error == ENOTDIR ? core::MetricAvailability::unsupported : AvailabilityFromErrno(error);
}

void SetText(core::Metric<std::string>& metric, std::string_view text, std::uint64_t generation,
             core::MetricQuality quality = core::MetricQuality::authoritative) {
    metric.Set(std::string(text), generation);
    metric.source = kSource;
    metric.quality = quality;
}

void Mark(core::Metric<std::string>& metric, core::MetricAvailability availability) {
    metric.MarkMissing(availability);
    metric.source = kSource;
}

}  // namespace

std::optional<LoadAverage> ParseLoadAverage(std::string_view text) {
    LoadAverage load;
    std::size_t pos = 0;
    for (double* target : {&load.one, &load.five, &load.fifteen}) {
        if (!ParseWhole(NextToken(text, pos), *target) || !std::isfinite(*target) || *target < 0.0) {
            return std::nullopt;
        }
    }
    const std::string_view tasks = NextToken(text, pos);
    const std::size_t slash = tasks.find('/');
    if (slash == std::string_view::npos || !ParseWhole(tasks.substr(0, slash), load.running) ||
        !ParseWhole(tasks.substr(slash + 1), load.total)) {
        return std::nullopt;
    }
    return load;
}

OsRelease ParseOsRelease(std::string_view text) {
    std::string_view prettyName, name, versionId, version;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = Trim(text.substr(pos, end - pos));
        pos = end + 1;
        if (line.empty() || line.front() == '#') continue;
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        const std::string_view key = Trim(line.substr(0, equals));
        const std::string_view value = Trim(Unquote(Trim(line.substr(equals + 1))));
        if (key == "PRETTY_NAME") prettyName = value;
        else if (key == "NAME") name = value;
        else if (key == "VERSION_ID") versionId = value;
        else if (key == "VERSION") version = value;
    }
    return {std::string(prettyName.empty() ? name : prettyName), std::string(versionId.empty() ? version : versionId)};
}

SystemMetadataCollector::SystemMetadataCollector(ProviderRoots roots)
    : roots_(std::move(roots)),
      loadAveragePath_((roots_.proc / "loadavg").string()),
      hostNamePath_((roots_.proc / "sys/kernel/hostname").string()) {}

void SystemMetadataCollector::Fill(core::SystemSnapshot& snapshot, const CollectContext& context) {
    const std::uint64_t generation = context.generation;
    FillLoad(snapshot, generation);
    if (!haveStatic_) FillStatic(generation);
    snapshot.distribution = distribution_;
    snapshot.distributionVersion = distributionVersion_;
    snapshot.kernelRelease = kernelRelease_;
    snapshot.systemModel = systemModel_;

    // The host name can be changed while the program runs, so it is read every tick.
    const int error = ReadFileBounded(hostNamePath_.c_str(), kKernelValueLimit, buffer_);
    const std::string_view host = Trim(buffer_);
    if (error != 0) Mark(snapshot.hostName, MissingFileAvailability(error));
    else if (host.empty()) Mark(snapshot.hostName, core::MetricAvailability::transientError);
    else SetText(snapshot.hostName, host, generation);
}

void SystemMetadataCollector::FillLoad(core::SystemSnapshot& snapshot, std::uint64_t generation) {
    const int error = ReadFileBounded(loadAveragePath_.c_str(), kLoadAverageLimit, buffer_);
    const auto load = error == 0 ? ParseLoadAverage(buffer_) : std::nullopt;
    const auto missing = error != 0 ? MissingFileAvailability(error) : core::MetricAvailability::transientError;
    const std::pair<core::Metric<double>*, double> averages[] = {
        {&snapshot.loadAverage1, load ? load->one : 0.0},
        {&snapshot.loadAverage5, load ? load->five : 0.0},
        {&snapshot.loadAverage15, load ? load->fifteen : 0.0},
    };
    for (const auto& [metric, value] : averages) {
        metric->source = kSource;
        if (load) {
            metric->Set(value, generation);
            metric->quality = core::MetricQuality::authoritative;
        } else {
            metric->MarkMissing(missing);
        }
    }
    const std::pair<core::Metric<std::uint64_t>*, std::uint64_t> tasks[] = {
        {&snapshot.runnableTasks, load ? load->running : 0},
        {&snapshot.totalTasks, load ? load->total : 0},
    };
    for (const auto& [metric, value] : tasks) {
        metric->source = kSource;
        if (load) {
            metric->Set(value, generation);
            metric->quality = core::MetricQuality::authoritative;
        } else {
            metric->MarkMissing(missing);
        }
    }
}

void SystemMetadataCollector::FillStatic(std::uint64_t generation) {
    const auto osRelease = ReadFileBounded(roots_.etc / "os-release", kOsReleaseLimit);
    bool complete = osRelease.Ok();
    if (osRelease.Ok()) {
        const OsRelease release = ParseOsRelease(osRelease.text);
        if (release.distribution.empty()) Mark(distribution_, core::MetricAvailability::unsupported);
        else SetText(distribution_, release.distribution, generation);
        if (release.version.empty()) Mark(distributionVersion_, core::MetricAvailability::unsupported);
        else SetText(distributionVersion_, release.version, generation);
    } else {
        Mark(distribution_, MissingFileAvailability(osRelease.error));
        Mark(distributionVersion_, MissingFileAvailability(osRelease.error));
    }

    const auto kernel = ReadFileBounded(roots_.proc / "sys/kernel/osrelease", kKernelValueLimit);
    complete = complete && kernel.Ok();
    if (!kernel.Ok()) Mark(kernelRelease_, MissingFileAvailability(kernel.error));
    else if (Trim(kernel.text).empty()) Mark(kernelRelease_, core::MetricAvailability::transientError);
    else SetText(kernelRelease_, Trim(kernel.text), generation);

    // Boards without DMI (most ARM machines, many virtual machines) have no product name.
    const auto product = ReadFileBounded(roots_.sys / "devices/virtual/dmi/id/product_name", kKernelValueLimit);
    const std::string_view model = product.Ok() ? Trim(product.text) : std::string_view{};
    if (!model.empty()) SetText(systemModel_, model, generation);
    else SetText(systemModel_, kDefaultSystemModel, generation, core::MetricQuality::fallback);

    haveStatic_ = complete;
}

}  // namespace korv::providers
