#include "host/linux_client/performance_graph_modes.h"

#include <QCoreApplication>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source) {
    return QCoreApplication::translate("PerformancePage", source);
}

}  // namespace

QString CpuGraphModeWord(CpuGraphMode mode) {
    switch (mode) {
    case CpuGraphMode::expanded:
        return QStringLiteral("expanded");
    case CpuGraphMode::efficiency:
        return QStringLiteral("efficiency");
    case CpuGraphMode::combined:
        break;
    }
    return QStringLiteral("combined");
}

QString GpuGraphModeWord(GpuGraphMode mode) {
    return mode == GpuGraphMode::engines ? QStringLiteral("engines") : QStringLiteral("overall");
}

CpuGraphMode CpuGraphModeFromWord(std::string_view word) {
    if (word == "expanded") return CpuGraphMode::expanded;
    if (word == "efficiency") return CpuGraphMode::efficiency;
    return CpuGraphMode::combined;
}

GpuGraphMode GpuGraphModeFromWord(std::string_view word) {
    return word == "engines" ? GpuGraphMode::engines : GpuGraphMode::overall;
}

QString CpuGraphModeText(CpuGraphMode mode) {
    switch (mode) {
    case CpuGraphMode::expanded:
        return Text("CPUs Expanded");
    case CpuGraphMode::efficiency:
        return Text("Efficiency vs Performance");
    case CpuGraphMode::combined:
        break;
    }
    return Text("All CPUs Combined");
}

QString GpuGraphModeText(GpuGraphMode mode) {
    return mode == GpuGraphMode::engines ? Text("Engines") : Text("Overall");
}

bool HasProcessorClasses(const core::SystemSnapshot& snapshot) {
    bool performance = false;
    bool efficiency = false;
    for (const auto& processor : snapshot.logicalProcessors) {
        performance = performance || processor.processorClass == core::ProcessorClass::performance;
        efficiency = efficiency || processor.processorClass == core::ProcessorClass::efficiency;
    }
    return performance && efficiency;
}

}  // namespace korv::host::linux_client
