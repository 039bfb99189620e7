#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korv::core {

inline constexpr std::uint32_t kSettingsSchemaVersion = 12;

enum class Theme : std::uint32_t { system = 0, light = 1, dark = 2 };
enum class TemperatureUnit : std::uint32_t { celsius = 0, fahrenheit = 1 };
enum class DefaultPage : std::uint32_t {
    summary = 0,
    processes = 1,
    performance = 2,
    startupApps = 4,
    users = 5,
    details = 6,
    services = 7,
};
enum class UpdateSpeed : std::uint32_t { high = 0, medium = 1, normal = 2, slow = 3, paused = 4 };

// All of the user's choices. The fields are in the order the file lists them. Root keys that this
// build does not know are kept in the two extension maps so that a save writes them back:
// string values as they are, any other value as its compact JSON text.
struct Settings {
    std::uint32_t schemaVersion = kSettingsSchemaVersion;
    Theme theme = Theme::system;
    TemperatureUnit temperatureUnit = TemperatureUnit::celsius;
    std::string applicationFont = "Inter";
    std::string applicationLanguage;
    std::uint32_t visualBloomLevel = 7;
    bool colorKeyedGraphs = true;
    bool dashedSummaryGraphLines = false;
    bool smoothGraphCurves = true;
    std::uint32_t visualFrameRate = 60;
    bool showSelfInReports = false;
    bool perCoreCpuStatistics = false;
    DefaultPage defaultPage = DefaultPage::summary;
    UpdateSpeed updateSpeed = UpdateSpeed::medium;
    std::uint32_t graphPixelsPerUpdate = 16;
    bool compressedGraphTime = true;
    std::uint32_t graphHistoryMultiplier = 15;
    bool alwaysOnTop = false;
    bool hideWhenMinimized = false;
    bool showFullAccountName = false;
    bool showAllAccountHistory = false;
    bool confirmEfficiencyMode = true;
    bool diskSpaceSuppressStopConfirm = false;
    bool uptimeVisible = true;
    double popoutOpacity = 1.0;
    bool popoutOpaqueOnHover = true;
    bool checkForUpdatesOnStart = true;
    bool autoUpdateOnStart = false;
    bool showSettingsAsDialog = false;
    std::vector<std::string> processTableHiddenColumns;
    std::map<std::string, std::uint32_t> processTableColumnWidths;

    std::map<std::string, std::string> extensionStrings;
    std::map<std::string, std::string> extensionJson;

    bool operator==(const Settings&) const = default;
};

enum class SettingsLoadStatus : std::uint8_t {
    loaded,   // the file was read
    missing,  // no file: defaults, no error
    reset,    // an older schema: defaults, the file moved aside, `error` holds the note
    failed,   // defaults and `error`; `quarantinedPath` is set when the file was moved aside
};

struct SettingsLoadResult {
    Settings settings;
    SettingsLoadStatus status = SettingsLoadStatus::missing;
    std::filesystem::path quarantinedPath;
    std::string error;
};

enum class SettingsResetStatus : std::uint8_t { removed, absent, failed };

struct SettingsResetResult {
    SettingsResetStatus status = SettingsResetStatus::absent;
    std::string error;  // the system's message when the file could not be removed
};

// Load runs once on the GUI thread before the window exists; Save runs on a background worker with
// its own copy of the record. The store keeps no state, so calls on different threads do not interact,
// but saves of one file must come from one thread at a time.
class SettingsStore {
public:
    // Never throws for a bad file: a file that cannot be used gives defaults and an error text, and a
    // file that was read but is not valid settings is moved aside to `<name>.corrupt.<time>`.
    static SettingsLoadResult Load(const std::filesystem::path& path);
    // Replaces the file atomically; on failure the old file is left whole and the error is returned.
    static std::optional<std::string> Save(const std::filesystem::path& path, const Settings& settings);
    // Removes the settings file (not a directory); a missing file is not an error.
    static SettingsResetResult Reset(const std::filesystem::path& path);
};

// Words of the settings file.
inline constexpr std::string_view kSettingsFileName = "settings.json";
inline constexpr std::string_view kSettingsResetNote = "settings definition changed; all settings reset to defaults";

// Texts the window shows; %1 and %s take the error text.
inline constexpr std::string_view kSettingsLoadFailedMessage = "Settings could not be loaded: %1";
inline constexpr std::string_view kUnknownSettingsError = "unknown settings error";
inline constexpr std::string_view kSettingsSaveFailedMessage = "Settings could not be saved: %1";
inline constexpr std::string_view kSettingsSaveFailedAtExitLine = "KORV: settings save failed: %s\n";
inline constexpr std::string_view kSettingsPersistenceUnavailable = "Settings persistence unavailable";

// The window's own preferences live in `extensionStrings` as text.
struct BoolPreference {
    std::string_view key;
    bool fallback;
};

inline constexpr BoolPreference kCombinedDisks{"combinedDisks", true};
inline constexpr BoolPreference kCombinedNetwork{"combinedNetwork", true};
inline constexpr BoolPreference kCombinedGpus{"combinedGpus", false};
inline constexpr BoolPreference kProcessTreeEnabled{"processTreeEnabled", true};
inline constexpr BoolPreference kSmoothProcessCpu{"smoothProcessCPU", true};
inline constexpr BoolPreference kShowExitedProcesses{"showExitedProcesses", true};

// Absent gives the fallback, exactly "false" gives false, any other text gives true. A value that a
// person wrote into the file as a JSON literal (kept as JSON text) is read by the same rule.
bool ReadBoolPreference(const Settings& settings, std::string_view key, bool fallback);
bool ReadBoolPreference(const Settings& settings, const BoolPreference& preference);
void WriteBoolPreference(Settings& settings, std::string_view key, bool value);
// The string stored under `key`, or the fallback when there is none.
std::string StringPreference(const Settings& settings, std::string_view key, std::string_view fallback);
void WriteStringPreference(Settings& settings, std::string_view key, std::string_view value);

}  // namespace korv::core
