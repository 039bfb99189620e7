#include "host/linux_client/display_tint.h"
#include "host/linux_client/theme.h"

#include <gtest/gtest.h>

#include <ostream>

#include <cmath>
#include <limits>

namespace korv::host::linux_client {
namespace {

struct StrengthCase {
    double strength;
    double factor;
};

void PrintTo(const StrengthCase& c, std::ostream* out) {
    *out << "strength " << c.strength;
}

class TintStrengthTest : public ::testing::TestWithParam<StrengthCase> {};

TEST_P(TintStrengthTest, MapsTheGlowStrengthToABrightnessFactor) {
    EXPECT_DOUBLE_EQ(TintFactorForStrength(GetParam().strength), GetParam().factor);
}

INSTANTIATE_TEST_SUITE_P(Steps, TintStrengthTest,
                         ::testing::Values(StrengthCase{-0.5, 0.0}, StrengthCase{0.0, 0.0}, StrengthCase{0.4, 0.4},
                                           StrengthCase{1.0, 1.0}, StrengthCase{1.5, 1.875},
                                           StrengthCase{2.0, 3.0}, StrengthCase{2.01, 3.0},
                                           StrengthCase{50.0, 3.0},
                                           StrengthCase{std::numeric_limits<double>::quiet_NaN(), 0.0}));

struct ModeCase {
    const char* name;
    TintMode mode;
    double strength;
    QColor input;
    QColor expected;
};

// Names the case in test listings instead of its bytes.
void PrintTo(const ModeCase& c, std::ostream* out) {
    *out << c.name;
}

class TintModeTest : public ::testing::TestWithParam<ModeCase> {};

// Luminance of (200, 100, 50) is 0.299 * 200 + 0.587 * 100 + 0.114 * 50 = 124.2.
TEST_P(TintModeTest, RecoloursKnownColours) {
    const ModeCase& c = GetParam();
    const QColor result = DisplayTint(c.input, c.mode, c.strength);
    EXPECT_EQ(result.red(), c.expected.red()) << c.name;
    EXPECT_EQ(result.green(), c.expected.green()) << c.name;
    EXPECT_EQ(result.blue(), c.expected.blue()) << c.name;
    EXPECT_EQ(result.alpha(), c.input.alpha()) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Modes, TintModeTest,
    ::testing::Values(ModeCase{"ColorUnchanged", TintMode::color, 1.0, QColor(200, 100, 50), QColor(200, 100, 50)},
                      ModeCase{"ColorHalved", TintMode::color, 0.5, QColor(200, 100, 50, 90), QColor(100, 50, 25)},
                      ModeCase{"ColorClamped", TintMode::color, 2.0, QColor(100, 60, 0), QColor(255, 180, 0)},
                      ModeCase{"ColorDark", TintMode::color, 0.0, QColor(200, 100, 50), QColor(0, 0, 0)},
                      ModeCase{"Mono", TintMode::mono, 1.0, QColor(200, 100, 50), QColor(124, 124, 124)},
                      ModeCase{"MonoKeepsAlpha", TintMode::mono, 1.0, QColor(200, 100, 50, 17),
                               QColor(124, 124, 124)},
                      ModeCase{"Green", TintMode::green, 1.0, QColor(200, 100, 50), QColor(42, 124, 30)},
                      ModeCase{"Blue", TintMode::blue, 1.0, QColor(200, 100, 50), QColor(20, 89, 124)},
                      ModeCase{"Amber", TintMode::amber, 1.0, QColor(200, 100, 50), QColor(124, 84, 37)},
                      ModeCase{"GreenWhiteClamps", TintMode::green, 2.0, QColor(255, 255, 255),
                               QColor(255, 255, 184)},
                      ModeCase{"AmberBlack", TintMode::amber, 1.5, QColor(0, 0, 0), QColor(0, 0, 0)}),
    [](const ::testing::TestParamInfo<ModeCase>& param) { return std::string(param.param.name); });

TEST(DisplayTint, DisplayModesMapToTheirPhosphorsDespiteTheDifferentOrder) {
    EXPECT_EQ(TintModeForDisplayMode(DisplayModeChoice::color), TintMode::color);
    EXPECT_EQ(TintModeForDisplayMode(DisplayModeChoice::mono), TintMode::mono);
    EXPECT_EQ(TintModeForDisplayMode(DisplayModeChoice::green), TintMode::green);
    EXPECT_EQ(TintModeForDisplayMode(DisplayModeChoice::amber), TintMode::amber);
    EXPECT_EQ(TintModeForDisplayMode(DisplayModeChoice::blue), TintMode::blue);
    EXPECT_EQ(static_cast<int>(TintMode::blue), 3);
    EXPECT_EQ(static_cast<int>(DisplayModeChoice::blue), 4);
}

TEST(DisplayTint, PreferenceWordsRoundTrip) {
    for (int value = 0; value < 5; ++value) {
        const auto mode = static_cast<DisplayModeChoice>(value);
        EXPECT_EQ(DisplayModeFromWord(DisplayModeWord(mode)), mode);
    }
    EXPECT_EQ(DisplayModeWord(DisplayModeChoice::amber), QStringLiteral("amber"));
    EXPECT_FALSE(DisplayModeFromWord(QStringLiteral("Amber")).has_value());
    EXPECT_FALSE(DisplayModeFromWord(QString()).has_value());
}

TEST(DisplayTint, GlowStrengthTextFallsBackToOne) {
    EXPECT_DOUBLE_EQ(GlowStrengthFromText(QStringLiteral("1.5")), 1.5);
    EXPECT_DOUBLE_EQ(GlowStrengthFromText(QStringLiteral(" 0.25 ")), 0.25);
    EXPECT_DOUBLE_EQ(GlowStrengthFromText(QStringLiteral("bright")), 1.0);
    EXPECT_DOUBLE_EQ(GlowStrengthFromText(QStringLiteral("inf")), 1.0);
    EXPECT_DOUBLE_EQ(GlowStrengthFromText(QString()), 1.0);
}

// Restores the process-wide tint after each test.
class GlobalTintTest : public ::testing::Test {
protected:
    void TearDown() override { SetDisplayTint(TintMode::color, 1.0); }
};

TEST_F(GlobalTintTest, TheOneArgumentFormUsesTheProcessWideSettings) {
    SetDisplayTint(TintMode::green, 1.0);
    EXPECT_EQ(CurrentTintMode(), TintMode::green);
    EXPECT_EQ(DisplayTint(QColor(200, 100, 50)), QColor(42, 124, 30));
    SetDisplayTint(TintMode::color, 0.5);
    EXPECT_DOUBLE_EQ(CurrentGlowStrength(), 0.5);
    EXPECT_EQ(DisplayTint(QColor(200, 100, 50)), QColor(100, 50, 25));
}

TEST_F(GlobalTintTest, ThemeAccentsAreTintedAndNeutralSurfacesAreNot) {
    SetDisplayTint(TintMode::color, 1.0);
    const ShellColors plain = ShellColorsFor(true);
    SetDisplayTint(TintMode::green, 1.0);
    const ShellColors green = ShellColorsFor(true);
    EXPECT_EQ(green.window, plain.window);
    EXPECT_EQ(green.text, plain.text);
    for (const QColor& color : {green.accent, green.rail, green.healthy, green.unavailable, green.railSelected}) {
        EXPECT_GT(color.green(), color.red());
        EXPECT_GT(color.green(), color.blue());
    }
    EXPECT_NE(green.accent, plain.accent);
}

TEST(Theme, DarkAndLightDifferWhereItShows) {
    const ShellColors dark = ShellColorsFor(true);
    const ShellColors light = ShellColorsFor(false);
    EXPECT_TRUE(dark.dark);
    EXPECT_FALSE(light.dark);
    EXPECT_LT(dark.window.lightness(), 64);
    EXPECT_GT(light.window.lightness(), 200);
    EXPECT_GT(dark.text.lightness(), 180);
    EXPECT_LT(light.text.lightness(), 64);
    // The rail is dark in both.
    EXPECT_LT(light.rail.lightness(), 64);
    EXPECT_FALSE(ThemeIsDark(core::Theme::light));
    EXPECT_TRUE(ThemeIsDark(core::Theme::dark));
    const QString sheet = ShellStyleSheet(dark);
    EXPECT_TRUE(sheet.contains(dark.rail.name()));
    EXPECT_FALSE(sheet.contains(QLatin1Char('@')));  // every colour token was filled in
}

TEST(Theme, SeverityColoursAreDistinct) {
    const ShellColors colors = ShellColorsFor(false);
    EXPECT_NE(SeverityColor(colors, StatusSeverity::healthy), SeverityColor(colors, StatusSeverity::degraded));
    EXPECT_NE(SeverityColor(colors, StatusSeverity::degraded), SeverityColor(colors, StatusSeverity::unavailable));
    EXPECT_EQ(SeverityColor(colors, StatusSeverity::neutral), colors.mutedText);
}

}  // namespace
}  // namespace korv::host::linux_client
