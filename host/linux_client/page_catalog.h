#pragma once

#include "core/settings.h"

#include <QString>

namespace korv::host::linux_client {

// Stack places of the pages that the shell treats specially.
inline constexpr int kSummaryStackIndex = 0;
inline constexpr int kPerformanceStackIndex = 1;
inline constexpr int kProcessesStackIndex = 2;
inline constexpr int kSystemInfoStackIndex = 3;
inline constexpr int kStartupStackIndex = 4;
inline constexpr int kUsersStackIndex = 5;
inline constexpr int kServicesStackIndex = 6;
inline constexpr int kPowerAndFreqStackIndex = 7;
inline constexpr int kInstalledAppsStackIndex = 10;
inline constexpr int kDiskSpaceStackIndex = 12;
inline constexpr int kSettingsStackIndex = 14;

// The rail label of a stack place, translated ("Summary" ... "Settings"); empty out of range.
QString RailLabel(int stackIndex);

// The stack place that the `defaultPage` setting opens.
int StackIndexForDefaultPage(core::DefaultPage page) noexcept;

}  // namespace korv::host::linux_client
