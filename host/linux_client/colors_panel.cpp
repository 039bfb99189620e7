#include "host/linux_client/colors_panel.h"

#include "host/linux_client/display_tint.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QSignalBlocker>
#include <QSpinBox>

namespace korv::host::linux_client {
namespace {

QString Tr(const char* text) {
    return QCoreApplication::translate("ColorsPanel", text);
}

QComboBox* Combo(QWidget* owner, const char* key, const std::vector<std::pair<const char*, QString>>& items) {
    auto* combo = new QComboBox(owner);
    combo->setObjectName(QString::fromLatin1(key));
    for (const auto& [text, data] : items) combo->addItem(Tr(text), data);
    return combo;
}

void Select(QComboBox* combo, const QString& data) {
    const QSignalBlocker blocker(combo);
    const int index = combo->findData(data);
    combo->setCurrentIndex(index < 0 ? 0 : index);
}

}  // namespace

struct ColorsPanel::Impl {
    core::Settings* settings = nullptr;
    std::function<void()> changed;
    QComboBox* theme = nullptr;
    QComboBox* displayMode = nullptr;
    QComboBox* vfdTextColor = nullptr;
    QDoubleSpinBox* saturation = nullptr;
    QSpinBox* bloom = nullptr;

    void Changed() {
        if (changed) changed();
    }
};

ColorsPanel::ColorsPanel(core::Settings* settings, std::function<void()> changed, QWidget* parent)
    : QWidget(parent), impl_(std::make_unique<Impl>()) {
    setObjectName(QStringLiteral("ColorsPanel"));
    Impl& d = *impl_;
    d.settings = settings;
    d.changed = std::move(changed);

    d.theme = Combo(this, "theme", {{"System", QStringLiteral("0")}, {"Light", QStringLiteral("1")},
                                    {"Dark", QStringLiteral("2")}});
    d.displayMode = Combo(this, "displayMode",
                          {{"Color", QStringLiteral("color")}, {"Mono", QStringLiteral("mono")},
                           {"Green", QStringLiteral("green")}, {"Amber", QStringLiteral("amber")},
                           {"Blue", QStringLiteral("blue")}});
    d.vfdTextColor = Combo(this, "vfdTextColor",
                           {{"Automatic", QStringLiteral("automatic")}, {"Green", QStringLiteral("green")},
                            {"Blue", QStringLiteral("blue")}, {"Amber", QStringLiteral("amber")}});
    d.saturation = new QDoubleSpinBox(this);
    d.saturation->setObjectName(QStringLiteral("displaySaturation"));
    d.saturation->setRange(0.0, 3.0);
    d.saturation->setSingleStep(0.1);
    d.saturation->setDecimals(2);
    d.bloom = new QSpinBox(this);
    d.bloom->setObjectName(QStringLiteral("visualBloomLevel"));
    d.bloom->setRange(1, 11);

    auto* form = new QFormLayout(this);
    form->setContentsMargins(0, 0, 0, 0);
    form->addRow(Tr("Theme"), d.theme);
    form->addRow(Tr("Display mode"), d.displayMode);
    form->addRow(Tr("VFD text colour"), d.vfdTextColor);
    form->addRow(Tr("Saturation"), d.saturation);
    form->addRow(Tr("Bloom"), d.bloom);

    connect(d.theme, &QComboBox::activated, this, [this](int index) {
        impl_->settings->theme = static_cast<core::Theme>(impl_->theme->itemData(index).toUInt());
        impl_->Changed();
    });
    connect(d.displayMode, &QComboBox::activated, this, [this](int index) {
        core::WriteStringPreference(*impl_->settings, kDisplayModeKey, impl_->displayMode->itemData(index).toString().toStdString());
        impl_->Changed();
    });
    connect(d.vfdTextColor, &QComboBox::activated, this, [this](int index) {
        core::WriteStringPreference(*impl_->settings, kVfdTextColorKey,
                                    impl_->vfdTextColor->itemData(index).toString().toStdString());
        impl_->Changed();
    });
    connect(d.saturation, &QDoubleSpinBox::valueChanged, this, [this](double value) {
        core::WriteStringPreference(*impl_->settings, kDisplaySaturationKey, QString::number(value, 'g', 4).toStdString());
        impl_->Changed();
    });
    connect(d.bloom, &QSpinBox::valueChanged, this, [this](int value) {
        impl_->settings->visualBloomLevel = static_cast<std::uint32_t>(value);
        impl_->Changed();
    });
    Reload();
}

ColorsPanel::~ColorsPanel() = default;

void ColorsPanel::Reload() {
    const core::Settings* s = impl_->settings;
    if (!s) return;
    Select(impl_->theme, QString::number(static_cast<std::uint32_t>(s->theme)));
    Select(impl_->displayMode, QString::fromStdString(core::StringPreference(*s, kDisplayModeKey, "color")));
    Select(impl_->vfdTextColor, QString::fromStdString(core::StringPreference(*s, kVfdTextColorKey, "automatic")));
    {
        const QSignalBlocker blocker(impl_->saturation);
        impl_->saturation->setValue(
            GlowStrengthFromText(QString::fromStdString(core::StringPreference(*s, kDisplaySaturationKey, ""))));
    }
    const QSignalBlocker blocker(impl_->bloom);
    impl_->bloom->setValue(static_cast<int>(s->visualBloomLevel));
}

}  // namespace korv::host::linux_client
