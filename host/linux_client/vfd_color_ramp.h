#pragma once

#include <QColor>

namespace korv::host::linux_client {

// Sixteen steps from green through yellow to red, whatever the count of segments.
int VfdRampStep(int index, int count);

// The ramp colour of a segment, before the display tint.
QColor VfdRampColor(int index, int count);

// An unlit segment: every channel times 0.19, rounded.
QColor VfdUnlitColor(const QColor& lit);

// The grey ground of unlit segments on a light palette in the colour display mode.
QColor VfdLightGroundColor();

// The fine edge line of a segment: c * 0.78 + 0.22 per channel, at alpha 0.5.
QColor VfdEdgeColor(const QColor& lit);

// The halo weight from the bloom setting value: 0 below 0, the value up to 1, a gentle rise to 1.2
// up to 2, and 1.2 above.
double VfdBloomMultiplier(double bloom);

// The bloom value of the `visualBloomLevel` setting (1..11): level 1 draws no halo, 6 the full
// glow and 11 the strongest.
double VfdBloomForLevel(unsigned level);

}  // namespace korv::host::linux_client
