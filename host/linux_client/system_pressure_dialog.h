#pragma once

#include "core/snapshot.h"
#include "core/system_pressure.h"

#include <QString>
#include <QStringList>

#include <cstdint>

class QWidget;

namespace korv::host::linux_client {

// The severity word, translated in the "QMainWindow" context.
QString PressureWord(core::PressureSeverity severity);

// "%1 · Load demand %2 · Memory stalls %3".
QString PressureTileLine(const core::SystemPressure& pressure);

// "System Pressure %1" with the word of the composite score.
QString PressureDialogTitle(const core::SystemPressure& pressure);

// The paragraphs of the explanation, in order; the contributor lists leave `hiddenPid` out.
QStringList PressureExplanation(const core::SystemPressure& pressure, const core::SystemSnapshot& snapshot,
                                std::uint32_t hiddenPid);

// Opens the explanation as a modal dialog.
void ShowSystemPressureDialog(QWidget* parent, const core::SystemPressure& pressure,
                              const core::SystemSnapshot& snapshot, std::uint32_t hiddenPid);

}  // namespace korv::host::linux_client
