#pragma once

#include <cstdint>
#include <string_view>

namespace korv::core {

// The numbers of these enums are written into exported files; never renumber them.
// Some values name other platforms: the Linux provider leaves them unused.

enum class DeviceKind : std::uint32_t {
    cpu = 0, memory = 1, disk = 2, network = 3, gpu = 4, npu = 5, other = 6, energy = 7, thermals = 8,
};

enum class ProcessState : std::uint32_t {
    running = 0, sleeping = 1, stopped = 2, suspended = 3, zombie = 4, notResponding = 5, unknown = 6,
};

enum class ProcessArchitecture : std::uint32_t {
    x86 = 0, x64 = 1, arm32 = 2, arm64 = 3, arm64ec = 4, unknown = 5,
};

enum class ProcessGroup : std::uint32_t { apps = 0, windows = 1, background = 2 };

enum class ProviderHealth : std::uint32_t { healthy = 0, degraded = 1, unavailable = 2, restarting = 3 };

enum class ProviderSupport : std::uint32_t {
    supported = 0, degraded = 1, unsupported = 2, notApplicable = 3, accessDenied = 4,
};

enum class ServiceState : std::uint32_t {
    running = 0, stopped = 1, starting = 2, stopping = 3, paused = 4, failed = 5, unknown = 6,
};

enum class StartupEnabledState : std::uint32_t { enabled = 0, disabled = 1, unknown = 2 };

enum class StartupSource : std::uint32_t {
    userRun = 0, machineRun = 1, userStartupFolder = 2, machineStartupFolder = 3, packagedTask = 4,
    launchAgent = 5, launchDaemon = 6, userXdgAutostart = 7, machineXdgAutostart = 8, other = 9,
};

enum class InstalledAppSource : std::uint32_t {
    windowsUninstallRegistry = 0, windowsMsi = 1, windowsMsix = 2, linuxDpkg = 3, linuxRpm = 4,
    linuxFlatpak = 5, linuxSnap = 6, linuxAppImage = 7, linuxDesktopEntry = 8, macBundle = 9, other = 10,
};

enum class InstallScope : std::uint32_t { machine = 0, user = 1, unknown = 2 };

enum class ProcessorClass : std::uint32_t { unknown = 0, performance = 1, efficiency = 2 };

enum class SessionState : std::uint32_t { active = 0, online = 1, closing = 2, unknown = 3 };

// Each ToString maps any number, known or not, to its text and never fails.
std::string_view ToString(DeviceKind value) noexcept;
std::string_view ToString(ProcessState value) noexcept;
std::string_view ToString(ProcessArchitecture value) noexcept;
std::string_view ToString(ProcessGroup value) noexcept;
std::string_view ToString(ProviderHealth value) noexcept;
std::string_view ToString(ProviderSupport value) noexcept;
std::string_view ToString(ServiceState value) noexcept;
std::string_view ToString(StartupEnabledState value) noexcept;
std::string_view ToString(StartupSource value) noexcept;
std::string_view ToString(InstalledAppSource value) noexcept;
std::string_view ToString(InstallScope value) noexcept;
std::string_view ToString(ProcessorClass value) noexcept;
std::string_view ToString(SessionState value) noexcept;

}  // namespace korv::core
