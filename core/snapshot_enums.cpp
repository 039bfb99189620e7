#include "core/metric.h"
#include "core/snapshot_enums.h"

#include <array>
#include <cstddef>

namespace korv::core {
namespace {

template <typename Enum, std::size_t N>
std::string_view Lookup(Enum value, const std::array<std::string_view, N>& texts, std::string_view fallback) noexcept {
    const auto index = static_cast<std::uint32_t>(value);
    return index < N ? texts[index] : fallback;
}

}  // namespace

std::string_view ToString(MetricAvailability value) noexcept {
    static constexpr std::array<std::string_view, 8> texts{
        "valid", "zero", "notApplicable", "unsupported", "accessDenied", "notYetAvailable", "stale", "transientError"};
    return Lookup(value, texts, "transientError");
}

std::string_view ToString(MetricQuality value) noexcept {
    static constexpr std::array<std::string_view, 3> texts{"authoritative", "estimated", "fallback"};
    return Lookup(value, texts, "unknown");
}

std::string_view ToString(DeviceKind value) noexcept {
    static constexpr std::array<std::string_view, 9> texts{
        "cpu", "memory", "disk", "network", "gpu", "npu", "other", "energy", "thermals"};
    return Lookup(value, texts, "other");
}

std::string_view ToString(ProcessState value) noexcept {
    static constexpr std::array<std::string_view, 6> texts{
        "running", "sleeping", "stopped", "suspended", "zombie", "notResponding"};
    return Lookup(value, texts, "unknown");
}

std::string_view ToString(ProcessArchitecture value) noexcept {
    static constexpr std::array<std::string_view, 5> texts{"x86", "x64", "arm32", "arm64", "arm64ec"};
    return Lookup(value, texts, "unknown");
}

std::string_view ToString(ProcessGroup value) noexcept {
    static constexpr std::array<std::string_view, 2> texts{"apps", "windows"};
    return Lookup(value, texts, "background");
}

std::string_view ToString(ProviderHealth value) noexcept {
    static constexpr std::array<std::string_view, 4> texts{"healthy", "degraded", "unavailable", "restarting"};
    return Lookup(value, texts, "unavailable");
}

std::string_view ToString(ProviderSupport value) noexcept {
    static constexpr std::array<std::string_view, 5> texts{
        "supported", "degraded", "unsupported", "notApplicable", "accessDenied"};
    return Lookup(value, texts, "unsupported");
}

std::string_view ToString(ServiceState value) noexcept {
    static constexpr std::array<std::string_view, 6> texts{
        "running", "stopped", "starting", "stopping", "paused", "failed"};
    return Lookup(value, texts, "unknown");
}

std::string_view ToString(StartupEnabledState value) noexcept {
    static constexpr std::array<std::string_view, 2> texts{"enabled", "disabled"};
    return Lookup(value, texts, "unknown");
}

std::string_view ToString(StartupSource value) noexcept {
    static constexpr std::array<std::string_view, 9> texts{
        "userRun", "machineRun", "userStartupFolder", "machineStartupFolder", "packagedTask",
        "launchAgent", "launchDaemon", "userXdgAutostart", "machineXdgAutostart"};
    return Lookup(value, texts, "other");
}

std::string_view ToString(InstalledAppSource value) noexcept {
    static constexpr std::array<std::string_view, 10> texts{
        "windowsUninstallRegistry", "windowsMsi", "windowsMsix", "linuxDpkg", "linuxRpm",
        "linuxFlatpak", "linuxSnap", "linuxAppImage", "linuxDesktopEntry", "macBundle"};
    return Lookup(value, texts, "other");
}

std::string_view ToString(InstallScope value) noexcept {
    static constexpr std::array<std::string_view, 2> texts{"machine", "user"};
    return Lookup(value, texts, "unknown");
}

std::string_view ToString(ProcessorClass value) noexcept {
    static constexpr std::array<std::string_view, 3> texts{"unknown", "performance", "efficiency"};
    return Lookup(value, texts, "unknown");
}

std::string_view ToString(SessionState value) noexcept {
    static constexpr std::array<std::string_view, 3> texts{"active", "online", "closing"};
    return Lookup(value, texts, "unknown");
}

}  // namespace korv::core
