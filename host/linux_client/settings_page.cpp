#include "host/linux_client/settings_page.h"

#include "host/linux_client/colors_panel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QDir>
#include <QDoubleSpinBox>
#include <QFontDatabase>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLocale>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QVBoxLayout>

#include <vector>

namespace korv::host::linux_client {
namespace {

QString Tr(const char* text) {
    return QCoreApplication::translate("SettingsPage", text);
}

}  // namespace

struct SettingsForm::Impl {
    core::Settings* settings = nullptr;
    std::function<void()> changed;
    std::function<void(const QString&)> languageChanged;
    std::vector<std::function<void()>> loaders;  // each shows one setting from the record, signals blocked
    QWidget* owner = nullptr;

    void Changed() {
        if (changed) changed();
    }

    QFormLayout* Section(QVBoxLayout* column, const char* title) {
        auto* box = new QGroupBox(Tr(title), owner);
        auto* form = new QFormLayout(box);
        form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
        column->addWidget(box);
        return form;
    }

    void Check(QFormLayout* form, const char* key, const char* text, bool core::Settings::*field, bool inverted = false) {
        auto* box = new QCheckBox(Tr(text), owner);
        box->setObjectName(QString::fromLatin1(key));
        form->addRow(box);
        loaders.push_back([this, box, field, inverted] {
            const QSignalBlocker blocker(box);
            box->setChecked(settings->*field != inverted);
        });
        QObject::connect(box, &QCheckBox::toggled, owner, [this, field, inverted](bool on) {
            settings->*field = on != inverted;
            Changed();
        });
    }

    // A combo box whose items carry the stored number.
    template <typename Field>
    void Choice(QFormLayout* form, const char* key, const char* label,
                const std::vector<std::pair<const char*, std::uint32_t>>& items, Field core::Settings::*field) {
        auto* combo = new QComboBox(owner);
        combo->setObjectName(QString::fromLatin1(key));
        for (const auto& [text, value] : items) combo->addItem(Tr(text), value);
        form->addRow(Tr(label), combo);
        loaders.push_back([this, combo, field] {
            const QSignalBlocker blocker(combo);
            const int index = combo->findData(static_cast<std::uint32_t>(settings->*field));
            combo->setCurrentIndex(index < 0 ? 0 : index);
        });
        QObject::connect(combo, &QComboBox::activated, owner, [this, combo, field](int index) {
            settings->*field = static_cast<Field>(combo->itemData(index).toUInt());
            Changed();
        });
    }

    void Number(QFormLayout* form, const char* key, const char* label, int minimum, int maximum,
                std::uint32_t core::Settings::*field, QSpinBox** made = nullptr) {
        auto* spin = new QSpinBox(owner);
        spin->setObjectName(QString::fromLatin1(key));
        spin->setRange(minimum, maximum);
        form->addRow(Tr(label), spin);
        loaders.push_back([this, spin, field] {
            const QSignalBlocker blocker(spin);
            spin->setValue(static_cast<int>(settings->*field));
        });
        QObject::connect(spin, &QSpinBox::valueChanged, owner, [this, field](int value) {
            settings->*field = static_cast<std::uint32_t>(value);
            Changed();
        });
        if (made) *made = spin;
    }

    void Font(QFormLayout* form) {
        auto* combo = new QComboBox(owner);
        combo->setObjectName(QStringLiteral("applicationFont"));
        combo->addItems(QFontDatabase::families());
        form->addRow(Tr("Application font"), combo);
        loaders.push_back([this, combo] {
            const QSignalBlocker blocker(combo);
            const QString family = QString::fromStdString(settings->applicationFont);
            if (combo->findText(family) < 0) combo->insertItem(0, family);
            combo->setCurrentIndex(combo->findText(family));
        });
        QObject::connect(combo, &QComboBox::activated, owner, [this, combo](int index) {
            settings->applicationFont = combo->itemText(index).toStdString();
            Changed();
        });
    }

    void Language(QFormLayout* form) {
        auto* combo = new QComboBox(owner);
        combo->setObjectName(QStringLiteral("applicationLanguage"));
        for (const QString& code : LanguageCodes()) {
            const QString name = code.isEmpty() ? Tr("System language")
                                 : code == QLatin1String("en")
                                     ? QStringLiteral("English")
                                     : QLocale(code).nativeLanguageName();
            combo->addItem(name.isEmpty() ? code : name, code);
        }
        form->addRow(Tr("Language"), combo);
        auto* note = new QLabel(Tr("A new language takes effect when KORV starts again; you are asked whether to restart now."), owner);
        note->setWordWrap(true);
        form->addRow(QString(), note);
        loaders.push_back([this, combo] {
            const QSignalBlocker blocker(combo);
            const QString code = QString::fromStdString(settings->applicationLanguage);
            if (combo->findData(code) < 0) combo->addItem(code, code);
            combo->setCurrentIndex(combo->findData(code));
        });
        QObject::connect(combo, &QComboBox::activated, owner, [this, combo](int index) {
            const QString code = combo->itemData(index).toString();
            if (code.toStdString() == settings->applicationLanguage) return;
            settings->applicationLanguage = code.toStdString();
            Changed();
            if (languageChanged) languageChanged(code);
        });
    }

    void Opacity(QFormLayout* form) {
        auto* spin = new QDoubleSpinBox(owner);
        spin->setObjectName(QStringLiteral("popoutOpacity"));
        spin->setRange(0.15, 1.0);
        spin->setSingleStep(0.05);
        spin->setDecimals(2);
        form->addRow(Tr("Popout opacity"), spin);
        loaders.push_back([this, spin] {
            const QSignalBlocker blocker(spin);
            spin->setValue(settings->popoutOpacity);
        });
        QObject::connect(spin, &QDoubleSpinBox::valueChanged, owner, [this](double value) {
            settings->popoutOpacity = value;
            Changed();
        });
    }
};

SettingsForm::SettingsForm(core::Settings* settings, std::function<void()> changed, QWidget* parent)
    : QWidget(parent), impl_(std::make_unique<Impl>()) {
    setObjectName(QStringLiteral("SettingsForm"));
    impl_->settings = settings;
    impl_->changed = std::move(changed);
    impl_->owner = this;
    Impl& d = *impl_;

    auto* column = new QVBoxLayout(this);
    QFormLayout* look = d.Section(column, "Appearance");
    d.Font(look);
    d.Language(look);
    d.Choice(look, "temperatureUnit", "Temperature unit", {{"Celsius (°C)", 0}, {"Fahrenheit (°F)", 1}},
             &core::Settings::temperatureUnit);
    d.Choice(look, "visualFrameRate", "Animation frame rate",
             {{"Off (no animation)", 0}, {"15 frames per second", 15}, {"30 frames per second", 30},
              {"60 frames per second", 60}},
             &core::Settings::visualFrameRate);
    auto* colors = new ColorsPanel(settings, [this] { impl_->Changed(); }, this);
    colors->setObjectName(QStringLiteral("SettingsColorsPanel"));
    look->addRow(Tr("Colors"), colors);
    d.loaders.push_back([colors] { colors->Reload(); });

    QFormLayout* graphs = d.Section(column, "Graphs");
    d.Check(graphs, "colorKeyedGraphs", "Colour-keyed graphs", &core::Settings::colorKeyedGraphs);
    d.Check(graphs, "dashedSummaryGraphLines", "Dashed summary graph lines", &core::Settings::dashedSummaryGraphLines);
    d.Check(graphs, "smoothGraphCurves", "Smooth graph curves", &core::Settings::smoothGraphCurves);
    d.Number(graphs, "graphPixelsPerUpdate", "Graph pixels per update", 1, 32, &core::Settings::graphPixelsPerUpdate);
    d.Check(graphs, "compressedGraphTime", "Compress older graph time", &core::Settings::compressedGraphTime);
    QSpinBox* multiplier = nullptr;
    d.Number(graphs, "graphHistoryMultiplier", "Compressed time multiplier", 4, 63,
             &core::Settings::graphHistoryMultiplier, &multiplier);
    d.loaders.push_back([this, multiplier] { multiplier->setEnabled(impl_->settings->compressedGraphTime); });
    connect(findChild<QCheckBox*>(QStringLiteral("compressedGraphTime")), &QCheckBox::toggled, multiplier,
            &QWidget::setEnabled);

    QFormLayout* behaviour = d.Section(column, "Behaviour");
    d.Choice(behaviour, "defaultPage", "Default start page",
             {{"Summary", 0}, {"Processes", 1}, {"Performance", 2}, {"Startup apps", 4}, {"Users", 5},
              {"Details", 6}, {"Services", 7}},
             &core::Settings::defaultPage);
    d.Choice(behaviour, "updateSpeed", "Real-time update speed",
             {{"High (4 per second)", 0}, {"Medium (2 per second)", 1}, {"Normal (1 per second)", 2},
              {"Slow (every 2 seconds)", 3}, {"Paused", 4}},
             &core::Settings::updateSpeed);
    d.Check(behaviour, "perCoreCpuStatistics", "Show CPU statistics per core", &core::Settings::perCoreCpuStatistics);
    d.Check(behaviour, "alwaysOnTop", "Always on top", &core::Settings::alwaysOnTop);
    d.Check(behaviour, "hideWhenMinimized", "Hide when minimized", &core::Settings::hideWhenMinimized);
    d.Check(behaviour, "showFullAccountName", "Show full account names", &core::Settings::showFullAccountName);
    d.Check(behaviour, "showAllAccountHistory", "Show app history for all accounts",
            &core::Settings::showAllAccountHistory);
    d.Check(behaviour, "showSelfInReports", "Include Task Manager in reports", &core::Settings::showSelfInReports);
    d.Check(behaviour, "confirmEfficiencyMode", "Confirm efficiency mode", &core::Settings::confirmEfficiencyMode);
    d.Check(behaviour, "diskSpaceSuppressStopConfirm", "Confirm before stopping a disk space scan",
            &core::Settings::diskSpaceSuppressStopConfirm, true);
    d.Check(behaviour, "uptimeVisible", "Show the uptime", &core::Settings::uptimeVisible);
    d.Check(behaviour, "showSettingsAsDialog", "Open settings in a dialog", &core::Settings::showSettingsAsDialog);

    QFormLayout* popout = d.Section(column, "Popout");
    d.Opacity(popout);
    d.Check(popout, "popoutOpaqueOnHover", "Opaque while the pointer is over it", &core::Settings::popoutOpaqueOnHover);

    QFormLayout* updates = d.Section(column, "Updates");
    d.Check(updates, "checkForUpdatesOnStart", "Check for updates at start", &core::Settings::checkForUpdatesOnStart);
    d.Check(updates, "autoUpdateOnStart", "Install updates at start", &core::Settings::autoUpdateOnStart);
    column->addStretch(1);

    Reload();
}

SettingsForm::~SettingsForm() = default;

void SettingsForm::Reload() {
    if (!impl_->settings) return;
    for (const auto& load : impl_->loaders) load();
}

void SettingsForm::SetLanguageChangedHandler(std::function<void(const QString&)> handler) {
    impl_->languageChanged = std::move(handler);
}

QStringList SettingsForm::LanguageCodes() {
    QStringList codes{QString(), QStringLiteral("en")};
    const QStringList files = QDir(QStringLiteral(":/i18n")).entryList({QStringLiteral("korv_*.qm")}, QDir::Files, QDir::Name);
    for (const QString& file : files) {
        const QString code = file.mid(5, file.size() - 8);
        if (!code.isEmpty() && !codes.contains(code)) codes << code;
    }
    return codes;
}

SettingsPage::SettingsPage(PageEnvironment environment, QWidget* parent) : SnapshotPage(parent) {
    setObjectName(QStringLiteral("SettingsPage"));
    form_ = new SettingsForm(environment.settings, environment.settingsChanged);
    auto* scroll = new QScrollArea(this);
    scroll->setObjectName(QStringLiteral("SettingsScrollArea"));
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setWidget(form_);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(scroll);
}

SettingsPage::~SettingsPage() = default;

void SettingsPage::ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>&) {}

void SettingsPage::SettingsChanged() {
    form_->Reload();
}

SettingsForm* SettingsPage::Form() const {
    return form_;
}

}  // namespace korv::host::linux_client
