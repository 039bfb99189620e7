#pragma once

#include "core/settings.h"

#include <QColor>
#include <QPalette>
#include <QString>

class QWidget;

namespace korv::host::linux_client {

// The shell's colours for one theme. Accent, rail and severity colours have passed DisplayTint;
// the neutral surfaces have not, so that a tinted display mode keeps a readable page.
struct ShellColors {
    bool dark = false;
    QColor window;
    QColor surface;       // command bar, status bar, menus
    QColor base;          // text fields and tables
    QColor alternateBase;
    QColor text;
    QColor mutedText;
    QColor border;
    QColor accent;
    QColor accentText;
    QColor rail;
    QColor railText;
    QColor railMutedText;
    QColor railHover;
    QColor railSelected;
    QColor railSelectedText;
    QColor healthy;
    QColor degraded;
    QColor unavailable;
};

enum class StatusSeverity : int { neutral = 0, healthy, degraded, unavailable };

// Whether the desktop asks for a dark look: its colour scheme where the toolkit reports one, else
// the lightness of the desktop palette's window colour as it was before any theme was applied.
bool SystemPrefersDarkTheme();
bool ThemeIsDark(core::Theme theme);

ShellColors ShellColorsFor(bool dark);
QColor SeverityColor(const ShellColors& colors, StatusSeverity severity);
QPalette ShellPalette(const ShellColors& colors);
QString ShellStyleSheet(const ShellColors& colors);

// Sets the application palette and the window's style sheet, and remembers the colours for
// SeverityColor lookups by widgets that paint later. GUI thread.
void ApplyShellTheme(QWidget* window, core::Theme theme);
const ShellColors& CurrentShellColors();

// Makes the `applicationFont` family the application's font when the font database knows it;
// an unknown family leaves the font as it is. Returns whether the family was applied.
bool ApplyApplicationFont(const QString& family);

}  // namespace korv::host::linux_client
