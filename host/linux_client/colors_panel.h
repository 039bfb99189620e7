#pragma once

#include "core/settings.h"

#include <QWidget>

#include <functional>
#include <memory>

namespace korv::host::linux_client {

// Theme, display mode, VFD text colour, saturation and bloom. Controls carry their settings key as
// object name: "theme", "displayMode", "vfdTextColor", "displaySaturation", "visualBloomLevel". A change
// writes `*settings` at once and then calls `changed`.
class ColorsPanel : public QWidget {
    Q_OBJECT
public:
    ColorsPanel(core::Settings* settings, std::function<void()> changed, QWidget* parent = nullptr);
    ~ColorsPanel() override;

    // Shows the record's values again without writing anything back.
    void Reload();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The words of the `vfdTextColor` preference, "automatic" when absent.
inline constexpr std::string_view kVfdTextColorKey = "vfdTextColor";
inline constexpr std::string_view kDisplayModeKey = "displayMode";
inline constexpr std::string_view kDisplaySaturationKey = "displaySaturation";

}  // namespace korv::host::linux_client
