#pragma once

#include "core/snapshot.h"

#include <QString>

#include <string_view>

namespace korv::host::linux_client {

enum class CpuGraphMode { combined, expanded, efficiency };
enum class GpuGraphMode { overall, engines };

// The words of the `cpuGraphMode` and `gpuGraphMode` preferences; an unknown word reads as the first mode.
QString CpuGraphModeWord(CpuGraphMode mode);
QString GpuGraphModeWord(GpuGraphMode mode);
CpuGraphMode CpuGraphModeFromWord(std::string_view word);
GpuGraphMode GpuGraphModeFromWord(std::string_view word);
// The menu texts: "All CPUs Combined", "CPUs Expanded", "Efficiency vs Performance"; "Overall", "Engines".
QString CpuGraphModeText(CpuGraphMode mode);
QString GpuGraphModeText(GpuGraphMode mode);

// True when the snapshot has processors of both kinds, so that the class view means something.
bool HasProcessorClasses(const core::SystemSnapshot& snapshot);

}  // namespace korv::host::linux_client
