#pragma once

#include <cstdint>
#include <optional>

#include <QString>
#include <QStringList>

#include "core/snapshot_enums.h"

namespace korv::host::linux_client {

enum class ThemeChoice : int { light = 1, dark = 2 };
enum class WindowSizeChoice : int { normal = 0, narrow = 1, wide = 2 };
enum class DisplayModeChoice : int { color = 0, mono = 1, green = 2, amber = 3, blue = 4 };
enum class CaptureScope : int { window = 0, page = 1 };
enum class RecordingTarget : int { summary = 0, performance, powerAndFreq, flightRecorder, benchmarks, diskSpace };
enum class PopoutModeChoice : int { off = 0, desktop = 1, topMost = 2, normal = 3 };

// The command-line record that drives a smoke run; fields in the order of the option table.
struct SmokeOptions {
    bool enabled = false;
    bool cyclePages = false;
    std::optional<int> page;
    std::optional<core::DeviceKind> device;
    std::optional<ThemeChoice> theme;
    std::optional<WindowSizeChoice> windowSize;
    std::optional<DisplayModeChoice> displayMode;
    std::optional<PopoutModeChoice> popoutMode;
    std::optional<QString> popoutSkin;
    std::optional<QString> scanTarget;
    QString capturePath;
    CaptureScope captureScope = CaptureScope::window;
    std::optional<RecordingTarget> recordTarget;
    std::int32_t recordSeconds = 0;
    std::optional<QString> error;
};

// Pure: arguments include argv[0]. Arguments that match no option are ignored, since the
// toolkit's own options pass through the same list.
SmokeOptions ParseSmokeOptions(const QStringList& arguments);

// Page numbers run from 0 (summary) to 16 (settings); 4 and 9 name no page in the stack.
inline constexpr int kPageNumberCount = 17;
inline constexpr int kStackPageCount = 15;
inline constexpr int kDiskSpacePage = 14;
inline constexpr int kPerformancePage = 1;

int StackIndexForPage(int pageNumber);  // -1 for 4, 9 and numbers out of range
int PageForStackIndex(int stackIndex);  // -1 out of range
QString PageName(int pageNumber);       // "summary", "performance", ...; empty out of range
std::optional<int> PageForName(const QString& name);  // name or alias, any case; includes 4 and 9
QString RecordingTargetName(RecordingTarget target);  // "summary", ..., "disk-space"

}  // namespace korv::host::linux_client
