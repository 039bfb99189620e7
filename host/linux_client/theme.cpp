#include "host/linux_client/theme.h"

#include "host/linux_client/display_tint.h"

#include <QApplication>
#include <QFont>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QStyleHints>
#include <QWidget>

namespace korv::host::linux_client {
namespace {

ShellColors& StoredColors() {
    static ShellColors colors = ShellColorsFor(false);
    return colors;
}

// The palette the desktop gave the application, captured before the first theme replaces it.
const QPalette& DesktopPalette() {
    static const QPalette palette = QGuiApplication::palette();
    return palette;
}

QString Css(const QColor& color) {
    return color.name(color.alpha() == 255 ? QColor::HexRgb : QColor::HexArgb);
}

}  // namespace

bool SystemPrefersDarkTheme() {
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
    const Qt::ColorScheme scheme = QGuiApplication::styleHints()->colorScheme();
    if (scheme != Qt::ColorScheme::Unknown) {
        return scheme == Qt::ColorScheme::Dark;
    }
#endif
    return DesktopPalette().color(QPalette::Window).lightness() < 128;
}

bool ThemeIsDark(core::Theme theme) {
    switch (theme) {
    case core::Theme::light:
        return false;
    case core::Theme::dark:
        return true;
    case core::Theme::system:
        break;
    }
    return SystemPrefersDarkTheme();
}

ShellColors ShellColorsFor(bool dark) {
    ShellColors colors;
    colors.dark = dark;
    if (dark) {
        colors.window = QColor(0x16, 0x18, 0x1c);
        colors.surface = QColor(0x1d, 0x20, 0x25);
        colors.base = QColor(0x1a, 0x1d, 0x22);
        colors.alternateBase = QColor(0x21, 0x25, 0x2b);
        colors.text = QColor(0xe4, 0xe7, 0xeb);
        colors.mutedText = QColor(0x98, 0xa0, 0xab);
        colors.border = QColor(0x2d, 0x32, 0x3a);
        colors.accent = DisplayTint(QColor(0x4c, 0xb8, 0xf5));
        colors.accentText = QColor(0x0b, 0x0d, 0x10);
        colors.healthy = DisplayTint(QColor(0x5c, 0xd0, 0x8a));
        colors.degraded = DisplayTint(QColor(0xf2, 0xb4, 0x4a));
        colors.unavailable = DisplayTint(QColor(0xff, 0x6f, 0x6f));
    } else {
        colors.window = QColor(0xf3, 0xf4, 0xf6);
        colors.surface = QColor(0xfb, 0xfb, 0xfc);
        colors.base = QColor(0xff, 0xff, 0xff);
        colors.alternateBase = QColor(0xf5, 0xf6, 0xf8);
        colors.text = QColor(0x1b, 0x1e, 0x22);
        colors.mutedText = QColor(0x5d, 0x65, 0x70);
        colors.border = QColor(0xd8, 0xdb, 0xe0);
        colors.accent = DisplayTint(QColor(0x0b, 0x7f, 0xc4));
        colors.accentText = QColor(0xff, 0xff, 0xff);
        colors.healthy = DisplayTint(QColor(0x1d, 0x86, 0x4a));
        colors.degraded = DisplayTint(QColor(0xa8, 0x66, 0x00));
        colors.unavailable = DisplayTint(QColor(0xc6, 0x28, 0x28));
    }
    // The rail is dark in both themes: it frames the instruments like a bezel.
    colors.rail = DisplayTint(QColor(0x12, 0x15, 0x19));
    colors.railText = DisplayTint(QColor(0xc8, 0xcd, 0xd4));
    colors.railMutedText = DisplayTint(QColor(0x7d, 0x85, 0x90));
    colors.railHover = DisplayTint(QColor(0x1e, 0x23, 0x29));
    colors.railSelected = DisplayTint(QColor(0x24, 0x2c, 0x35));
    colors.railSelectedText = DisplayTint(QColor(0xff, 0xff, 0xff));
    return colors;
}

QColor SeverityColor(const ShellColors& colors, StatusSeverity severity) {
    switch (severity) {
    case StatusSeverity::healthy:
        return colors.healthy;
    case StatusSeverity::degraded:
        return colors.degraded;
    case StatusSeverity::unavailable:
        return colors.unavailable;
    case StatusSeverity::neutral:
        break;
    }
    return colors.mutedText;
}

QPalette ShellPalette(const ShellColors& colors) {
    QPalette palette;
    palette.setColor(QPalette::Window, colors.window);
    palette.setColor(QPalette::WindowText, colors.text);
    palette.setColor(QPalette::Base, colors.base);
    palette.setColor(QPalette::AlternateBase, colors.alternateBase);
    palette.setColor(QPalette::Text, colors.text);
    palette.setColor(QPalette::Button, colors.surface);
    palette.setColor(QPalette::ButtonText, colors.text);
    palette.setColor(QPalette::BrightText, colors.unavailable);
    palette.setColor(QPalette::Highlight, colors.accent);
    palette.setColor(QPalette::HighlightedText, colors.accentText);
    palette.setColor(QPalette::ToolTipBase, colors.surface);
    palette.setColor(QPalette::ToolTipText, colors.text);
    palette.setColor(QPalette::PlaceholderText, colors.mutedText);
    palette.setColor(QPalette::Link, colors.accent);
    palette.setColor(QPalette::LinkVisited, colors.accent);
    palette.setColor(QPalette::Light, colors.dark ? colors.border.lighter(130) : QColor(0xff, 0xff, 0xff));
    palette.setColor(QPalette::Midlight, colors.border);
    palette.setColor(QPalette::Mid, colors.border.darker(120));
    palette.setColor(QPalette::Dark, colors.border.darker(160));
    palette.setColor(QPalette::Shadow, QColor(0, 0, 0));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
        palette.setColor(QPalette::Disabled, role, colors.mutedText);
    }
    return palette;
}

QString ShellStyleSheet(const ShellColors& c) {
    QString sheet = QStringLiteral(R"(
#NavigationRail { background: @rail; border: none; }
#NavigationList { background: transparent; border: none; outline: 0; color: @railText; font-size: 13px; }
#NavigationList::item { padding: 8px 14px 8px 15px; margin: 1px 8px; border-radius: 6px; border-left: 3px solid transparent; }
#NavigationList::item:hover { background: @railHover; }
#NavigationList::item:selected { background: @railSelected; color: @railSelectedText; border-left: 3px solid @accent; }
#Divider { background: @railHover; border: none; max-height: 1px; min-height: 1px; margin: 4px 14px; }
#SidebarFooter { background: transparent; }
#SidebarFooter QPushButton { background: transparent; color: @railText; border: none; text-align: left; padding: 7px 14px; border-radius: 6px; font-size: 13px; }
#SidebarFooter QPushButton:hover { background: @railHover; }
#SidebarFooter QPushButton:disabled { color: @railMuted; }
#CommandBar { background: @surface; border: none; border-bottom: 1px solid @border; }
#CommandBar QToolButton, #CommandBar QPushButton { background: transparent; color: @text; border: 1px solid transparent; border-radius: 6px; padding: 5px 10px; }
#CommandBar QToolButton:hover, #CommandBar QPushButton:hover { background: @hover; border-color: @border; }
#CommandBar QToolButton:disabled, #CommandBar QPushButton:disabled { color: @muted; }
#CommandBar QToolButton::menu-indicator { image: none; width: 0; }
#FilterBox { background: @base; color: @text; border: 1px solid @border; border-radius: 6px; padding: 5px 10px; min-height: 18px; }
#FilterBox:focus { border: 1px solid @accent; }
#PageStack { background: @window; }
#PageTitle { color: @text; font-size: 24px; font-weight: 600; }
#StatusBar { background: @surface; color: @muted; border-top: 1px solid @border; }
#StatusBar QLabel { color: @muted; padding: 2px 6px; }
#StatusBar::item { border: none; }
)");
    const QColor hover = c.dark ? c.surface.lighter(125) : c.window;
    sheet.replace(QStringLiteral("@railSelectedText"), Css(c.railSelectedText));
    sheet.replace(QStringLiteral("@railSelected"), Css(c.railSelected));
    sheet.replace(QStringLiteral("@railHover"), Css(c.railHover));
    sheet.replace(QStringLiteral("@railText"), Css(c.railText));
    sheet.replace(QStringLiteral("@railMuted"), Css(c.railMutedText));
    sheet.replace(QStringLiteral("@rail"), Css(c.rail));
    sheet.replace(QStringLiteral("@accent"), Css(c.accent));
    sheet.replace(QStringLiteral("@surface"), Css(c.surface));
    sheet.replace(QStringLiteral("@border"), Css(c.border));
    sheet.replace(QStringLiteral("@hover"), Css(hover));
    sheet.replace(QStringLiteral("@base"), Css(c.base));
    sheet.replace(QStringLiteral("@text"), Css(c.text));
    sheet.replace(QStringLiteral("@muted"), Css(c.mutedText));
    sheet.replace(QStringLiteral("@window"), Css(c.window));
    return sheet;
}

void ApplyShellTheme(QWidget* window, core::Theme theme) {
    (void)DesktopPalette();
    const ShellColors colors = ShellColorsFor(ThemeIsDark(theme));
    StoredColors() = colors;
    QApplication::setPalette(ShellPalette(colors));
    if (window != nullptr) {
        window->setStyleSheet(ShellStyleSheet(colors));
    }
}

const ShellColors& CurrentShellColors() {
    return StoredColors();
}

bool ApplyApplicationFont(const QString& family) {
    if (family.isEmpty() || !QFontDatabase::hasFamily(family)) {
        return false;
    }
    QFont font = QApplication::font();
    font.setFamily(family);
    QApplication::setFont(font);
    return true;
}

}  // namespace korv::host::linux_client
