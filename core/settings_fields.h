#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "core/settings.h"

namespace korv::core {

// One list of the settings keys, in file order, walked by the reader, the writer and the key census.
// `SettingsT` is `Settings` when reading and `const Settings` when writing.

template <typename Enum>
struct EnumWord {
    std::string_view word;
    Enum value;
};

// The first word of a value is the one written; later ones are still read.
inline constexpr EnumWord<Theme> kThemeWords[] = {
    {"system", Theme::system}, {"light", Theme::light}, {"dark", Theme::dark}};
inline constexpr EnumWord<TemperatureUnit> kTemperatureUnitWords[] = {
    {"celsius", TemperatureUnit::celsius}, {"fahrenheit", TemperatureUnit::fahrenheit}};
// "appHistory" names a page that is gone; it opens the Summary and is never written.
inline constexpr EnumWord<DefaultPage> kDefaultPageWords[] = {
    {"summary", DefaultPage::summary},         {"processes", DefaultPage::processes},
    {"performance", DefaultPage::performance}, {"startup", DefaultPage::startupApps},
    {"startupApps", DefaultPage::startupApps}, {"users", DefaultPage::users},
    {"details", DefaultPage::details},         {"services", DefaultPage::services},
    {"appHistory", DefaultPage::summary}};
inline constexpr EnumWord<UpdateSpeed> kUpdateSpeedWords[] = {
    {"high", UpdateSpeed::high},     {"medium", UpdateSpeed::medium}, {"normal", UpdateSpeed::normal},
    {"slow", UpdateSpeed::slow},     {"paused", UpdateSpeed::paused}};

// Keys of earlier files that are read (when their successor is absent) but never written.
inline constexpr std::string_view kLegacyBloomKey = "visualBloom";
inline constexpr std::string_view kLegacyHighFrequencyKey = "highFrequencyVisuals";

template <typename Enum, std::size_t N>
constexpr std::span<const EnumWord<Enum>> Words(const EnumWord<Enum> (&words)[N]) noexcept
{
    return words;
}

template <typename SettingsT, typename Visitor>
void VisitSettingsFields(SettingsT& s, Visitor& v)
{
    v.Schema("schemaVersion", s.schemaVersion);
    v.Enum("theme", s.theme, Words(kThemeWords));
    v.Enum("temperatureUnit", s.temperatureUnit, Words(kTemperatureUnitWords));
    v.String("applicationFont", s.applicationFont);
    v.String("applicationLanguage", s.applicationLanguage);
    v.LegacyBool(kLegacyBloomKey);
    v.BloomLevel("visualBloomLevel", s.visualBloomLevel);
    v.Bool("colorKeyedGraphs", s.colorKeyedGraphs);
    v.Bool("dashedSummaryGraphLines", s.dashedSummaryGraphLines);
    v.Bool("smoothGraphCurves", s.smoothGraphCurves);
    v.LegacyBool(kLegacyHighFrequencyKey);
    v.FrameRate("visualFrameRate", s.visualFrameRate);
    v.Bool("showSelfInReports", s.showSelfInReports);
    v.Bool("perCoreCpuStatistics", s.perCoreCpuStatistics);
    v.Enum("defaultPage", s.defaultPage, Words(kDefaultPageWords));
    v.Enum("updateSpeed", s.updateSpeed, Words(kUpdateSpeedWords));
    v.Unsigned("graphPixelsPerUpdate", s.graphPixelsPerUpdate, 1, 32);
    v.Bool("compressedGraphTime", s.compressedGraphTime);
    v.Unsigned("graphHistoryMultiplier", s.graphHistoryMultiplier, 4, 63);
    v.Bool("alwaysOnTop", s.alwaysOnTop);
    v.Bool("hideWhenMinimized", s.hideWhenMinimized);
    v.Bool("showFullAccountName", s.showFullAccountName);
    v.Bool("showAllAccountHistory", s.showAllAccountHistory);
    v.Bool("confirmEfficiencyMode", s.confirmEfficiencyMode);
    v.Bool("diskSpaceSuppressStopConfirm", s.diskSpaceSuppressStopConfirm);
    v.Bool("uptimeVisible", s.uptimeVisible);
    v.Opacity("popoutOpacity", s.popoutOpacity);
    v.Bool("popoutOpaqueOnHover", s.popoutOpaqueOnHover);
    v.Bool("checkForUpdatesOnStart", s.checkForUpdatesOnStart);
    v.Bool("autoUpdateOnStart", s.autoUpdateOnStart);
    v.Bool("showSettingsAsDialog", s.showSettingsAsDialog);
    v.StringArray("processTableHiddenColumns", s.processTableHiddenColumns);
    v.UnsignedObject("processTableColumnWidths", s.processTableColumnWidths);
}

inline constexpr std::uint32_t kMinBloomLevel = 1;
inline constexpr std::uint32_t kMaxBloomLevel = 11;
inline constexpr std::uint32_t kMaxFrameRate = 60;
inline constexpr double kMinPopoutOpacity = 0.15;
inline constexpr double kMaxPopoutOpacity = 1.0;

}  // namespace korv::core
