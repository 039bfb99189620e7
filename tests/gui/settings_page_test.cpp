#include "host/linux_client/colors_panel.h"
#include "host/linux_client/settings_dialog.h"
#include "host/linux_client/settings_page.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QSpinBox>

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>

namespace korv::host::linux_client {
namespace {

using Getter = std::function<std::string(const core::Settings&)>;

template <typename T>
std::string Text(const T& value) {
    std::ostringstream out;
    if constexpr (std::is_enum_v<T>) {
        out << static_cast<std::uint32_t>(value);
    } else {
        out << value;
    }
    return out.str();
}

#define KORV_FIELD(name) SettingCase{#name, [](const core::Settings& s) { return Text(s.name); }}
#define KORV_PREFERENCE(name) \
    SettingCase{#name, [](const core::Settings& s) { return core::StringPreference(s, #name, "<absent>"); }}

struct SettingCase {
    const char* key;
    Getter get;
};

std::ostream& operator<<(std::ostream& out, const SettingCase& c) {
    return out << c.key;
}

// Moves a control to a value other than the one it shows, the way a user would.
bool ChangeControl(QWidget* control) {
    if (auto* box = qobject_cast<QCheckBox*>(control)) {
        box->click();
        return true;
    }
    if (auto* combo = qobject_cast<QComboBox*>(control)) {
        if (combo->count() < 2) return false;
        const int index = (combo->currentIndex() + 1) % combo->count();
        combo->setCurrentIndex(index);
        emit combo->activated(index);
        return true;
    }
    if (auto* spin = qobject_cast<QSpinBox*>(control)) {
        spin->setValue(spin->value() == spin->maximum() ? spin->minimum() : spin->maximum());
        return true;
    }
    if (auto* spin = qobject_cast<QDoubleSpinBox*>(control)) {
        spin->setValue(spin->value() == spin->maximum() ? spin->minimum() : spin->maximum());
        return true;
    }
    return false;
}

class SettingsRoundTripTest : public ::testing::TestWithParam<SettingCase> {
protected:
    void SetUp() override {
        folder_ = std::filesystem::path(::testing::TempDir()) /
                  ("korv-settings-page-" + std::string(GetParam().key));
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directories(folder_);
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::filesystem::path folder_;
};

TEST_P(SettingsRoundTripTest, ControlChangesTheKeyAndTheKeySurvivesSaveAndLoad) {
    core::Settings settings;
    int changes = 0;
    PageEnvironment environment;
    environment.settings = &settings;
    environment.settingsChanged = [&] { ++changes; };
    SettingsPage page(environment);

    QWidget* control = page.findChild<QWidget*>(QString::fromLatin1(GetParam().key));
    ASSERT_NE(control, nullptr) << "no control for " << GetParam().key;
    const std::string before = GetParam().get(settings);
    ASSERT_TRUE(ChangeControl(control));
    const std::string after = GetParam().get(settings);
    EXPECT_NE(after, before);
    EXPECT_GE(changes, 1);

    const std::filesystem::path file = folder_ / "settings.json";
    ASSERT_FALSE(core::SettingsStore::Save(file, settings).has_value());
    const core::SettingsLoadResult loaded = core::SettingsStore::Load(file);
    ASSERT_EQ(loaded.status, core::SettingsLoadStatus::loaded) << loaded.error;
    EXPECT_EQ(GetParam().get(loaded.settings), after);
    EXPECT_TRUE(loaded.settings == settings);

    // A fresh page over the loaded record shows the changed value, so a reload loses nothing.
    core::Settings reread = loaded.settings;
    SettingsPage second(PageEnvironment{&reread, {}, nullptr, nullptr, {}, {}, {}});
    QWidget* shown = second.findChild<QWidget*>(QString::fromLatin1(GetParam().key));
    ASSERT_NE(shown, nullptr);
    if (auto* box = qobject_cast<QCheckBox*>(shown)) {
        EXPECT_EQ(box->isChecked(), qobject_cast<QCheckBox*>(control)->isChecked());
    } else if (auto* combo = qobject_cast<QComboBox*>(shown)) {
        EXPECT_EQ(combo->currentText(), qobject_cast<QComboBox*>(control)->currentText());
    } else if (auto* spin = qobject_cast<QAbstractSpinBox*>(shown)) {
        EXPECT_EQ(spin->text(), qobject_cast<QAbstractSpinBox*>(control)->text());
    }
    EXPECT_TRUE(reread == loaded.settings);
}

INSTANTIATE_TEST_SUITE_P(
    EveryControl, SettingsRoundTripTest,
    ::testing::Values(KORV_FIELD(theme), KORV_FIELD(temperatureUnit), KORV_FIELD(applicationFont),
                      KORV_FIELD(applicationLanguage), KORV_FIELD(visualBloomLevel), KORV_FIELD(visualFrameRate),
                      KORV_FIELD(colorKeyedGraphs), KORV_FIELD(dashedSummaryGraphLines), KORV_FIELD(smoothGraphCurves),
                      KORV_FIELD(graphPixelsPerUpdate), KORV_FIELD(compressedGraphTime),
                      KORV_FIELD(graphHistoryMultiplier), KORV_FIELD(defaultPage), KORV_FIELD(updateSpeed),
                      KORV_FIELD(perCoreCpuStatistics), KORV_FIELD(alwaysOnTop), KORV_FIELD(hideWhenMinimized),
                      KORV_FIELD(showFullAccountName), KORV_FIELD(showAllAccountHistory),
                      KORV_FIELD(showSelfInReports), KORV_FIELD(confirmEfficiencyMode),
                      KORV_FIELD(diskSpaceSuppressStopConfirm), KORV_FIELD(uptimeVisible),
                      KORV_FIELD(showSettingsAsDialog), KORV_FIELD(popoutOpacity), KORV_FIELD(popoutOpaqueOnHover),
                      KORV_FIELD(checkForUpdatesOnStart), KORV_FIELD(autoUpdateOnStart),
                      KORV_PREFERENCE(displayMode), KORV_PREFERENCE(vfdTextColor),
                      KORV_PREFERENCE(displaySaturation)),
    [](const ::testing::TestParamInfo<SettingCase>& param) { return std::string(param.param.key); });

TEST(SettingsPageTest, FrameRatesAndUpdateSpeedsOfferExactlyTheStoredValues) {
    core::Settings settings;
    SettingsPage page(PageEnvironment{&settings, {}, nullptr, nullptr, {}, {}, {}});
    auto* rates = page.findChild<QComboBox*>(QStringLiteral("visualFrameRate"));
    auto* speeds = page.findChild<QComboBox*>(QStringLiteral("updateSpeed"));
    ASSERT_TRUE(rates && speeds);
    QStringList rateValues;
    for (int i = 0; i < rates->count(); ++i) rateValues << rates->itemData(i).toString();
    EXPECT_EQ(rateValues.join(','), QStringLiteral("0,15,30,60"));
    for (int i = 0; i < speeds->count(); ++i) {
        emit speeds->activated(i);
        EXPECT_EQ(static_cast<int>(settings.updateSpeed), i);
    }
    EXPECT_EQ(settings.updateSpeed, core::UpdateSpeed::paused);
}

TEST(SettingsPageTest, ReloadShowsChangesMadeElsewhereWithoutWritingBack) {
    core::Settings settings;
    int changes = 0;
    SettingsPage page(PageEnvironment{&settings, [&] { ++changes; }, nullptr, nullptr, {}, {}, {}});
    settings.alwaysOnTop = true;
    settings.theme = core::Theme::dark;
    core::WriteStringPreference(settings, "displayMode", "amber");
    page.SettingsChanged();
    EXPECT_TRUE(page.findChild<QCheckBox*>(QStringLiteral("alwaysOnTop"))->isChecked());
    EXPECT_EQ(page.findChild<QComboBox*>(QStringLiteral("theme"))->currentData().toString(), QStringLiteral("2"));
    EXPECT_EQ(page.findChild<QComboBox*>(QStringLiteral("displayMode"))->currentData().toString(),
              QStringLiteral("amber"));
    EXPECT_EQ(changes, 0);
}

TEST(SettingsPageTest, LanguageChangeIsStoredAndHandedOnForTheRelaunch) {
    core::Settings settings;
    SettingsPage page(PageEnvironment{&settings, [] {}, nullptr, nullptr, {}, {}, {}});
    QString relaunchCode = QStringLiteral("<none>");
    page.Form()->SetLanguageChangedHandler([&](const QString& code) { relaunchCode = code; });
    auto* languages = page.findChild<QComboBox*>(QStringLiteral("applicationLanguage"));
    ASSERT_NE(languages, nullptr);
    const int german = languages->findData(QStringLiteral("de"));
    ASSERT_GE(german, 0) << "the embedded German translation is offered";
    emit languages->activated(german);
    EXPECT_EQ(settings.applicationLanguage, "de");
    EXPECT_EQ(relaunchCode, QStringLiteral("de"));
    relaunchCode = QStringLiteral("<none>");
    emit languages->activated(german);
    EXPECT_EQ(relaunchCode, QStringLiteral("<none>")) << "choosing the same language again asks nothing";
}

TEST(SettingsPageTest, DialogCarriesTheSameControls) {
    core::Settings settings;
    int changes = 0;
    SettingsDialog dialog(&settings, [&] { ++changes; });
    auto* onTop = dialog.findChild<QCheckBox*>(QStringLiteral("alwaysOnTop"));
    ASSERT_NE(onTop, nullptr);
    onTop->click();
    EXPECT_TRUE(settings.alwaysOnTop);
    EXPECT_EQ(changes, 1);
    EXPECT_NE(dialog.findChild<ColorsPanel*>(), nullptr);
}

}  // namespace
}  // namespace korv::host::linux_client
