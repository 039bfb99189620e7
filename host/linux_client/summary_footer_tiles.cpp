#include "host/linux_client/summary_footer_tiles.h"

#include "core/telemetry_frame.h"
#include "host/linux_client/system_pressure_dialog.h"
#include "host/linux_client/unit_formats.h"
#include "host/linux_client/vfd_meter_widget.h"

#include <QCoreApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <optional>

namespace korv::host::linux_client {

namespace {

QString Tr(const char* text) { return QCoreApplication::translate("QMainWindow", text); }

std::optional<double> Usable(const core::Metric<double>& metric) {
    if (!core::CarriesValue(metric.availability) || !metric.value || !std::isfinite(*metric.value)) return std::nullopt;
    return *metric.value;
}

std::optional<double> FrameValue(const core::SystemSnapshot& snapshot, std::string_view id) {
    if (!snapshot.telemetry) return std::nullopt;
    const core::TelemetryMetric* metric = snapshot.telemetry->Find(id);
    if (!metric || !core::CarriesValue(metric->availability) || !metric->numericValue ||
        !std::isfinite(*metric->numericValue)) {
        return std::nullopt;
    }
    return *metric->numericValue;
}

QString ShowTip(const QString& what) { return Tr("Show %1 on the Performance page").arg(what); }

}  // namespace

QString SmartSummaryText(core::SmartSummary summary) {
    switch (summary) {
        case core::SmartSummary::errors: return Tr("SMART: Errors");
        case core::SmartSummary::healthy: return Tr("SMART: Healthy");
        case core::SmartSummary::none: break;
    }
    return {};
}

double RateScale(double peakBytesPerSecond) {
    double scale = 1024.0 * 1024.0;
    if (!std::isfinite(peakBytesPerSecond)) return scale;
    for (int guard = 0; guard < 40 && scale < peakBytesPerSecond; ++guard) scale *= 2.0;
    return scale;
}

struct SummaryTile::Impl {
    QLabel* title = nullptr;
    QLabel* value = nullptr;
    QLabel* line = nullptr;
    QLabel* secondLine = nullptr;
    QLabel* scale = nullptr;
    VfdMeterWidget* meter = nullptr;
    std::function<void()> onClicked;
};

SummaryTile::SummaryTile(const QString& title, QWidget* parent) : QFrame(parent), impl_(std::make_unique<Impl>()) {
    setFrameShape(QFrame::StyledPanel);
    setCursor(Qt::PointingHandCursor);
    setProperty("korvSurface", true);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(10, 8, 10, 8);
    layout->setSpacing(2);
    impl_->title = new QLabel(title, this);
    QFont titleFont = impl_->title->font();
    titleFont.setWeight(QFont::DemiBold);
    impl_->title->setFont(titleFont);
    impl_->value = new QLabel(this);
    QFont valueFont = impl_->value->font();
    valueFont.setPointSizeF(valueFont.pointSizeF() * 1.3);
    impl_->value->setFont(valueFont);
    impl_->line = new QLabel(this);
    impl_->line->setWordWrap(true);
    impl_->secondLine = new QLabel(this);
    impl_->meter = new VfdMeterWidget(this);
    impl_->meter->setFixedHeight(18);
    impl_->scale = new QLabel(this);
    QFont small = impl_->scale->font();
    small.setPointSizeF(small.pointSizeF() * 0.85);
    impl_->scale->setFont(small);
    for (QWidget* w : std::initializer_list<QWidget*>{impl_->title, impl_->value, impl_->line, impl_->secondLine,
                                                       impl_->meter, impl_->scale}) {
        layout->addWidget(w);
    }
    layout->addStretch();
}

SummaryTile::~SummaryTile() = default;

void SummaryTile::SetValue(const QString& text) { if (impl_->value->text() != text) impl_->value->setText(text); }
void SummaryTile::SetLine(const QString& text) { if (impl_->line->text() != text) impl_->line->setText(text); }
void SummaryTile::SetSecondLine(const QString& text) {
    if (impl_->secondLine->text() != text) impl_->secondLine->setText(text);
    impl_->secondLine->setVisible(!text.isEmpty());
}
void SummaryTile::SetScale(const QString& text) { if (impl_->scale->text() != text) impl_->scale->setText(text); }
void SummaryTile::SetMeter(double percent) { impl_->meter->SetValue(percent); }
void SummaryTile::SetOnClicked(std::function<void()> callback) { impl_->onClicked = std::move(callback); }
VfdMeterWidget* SummaryTile::Meter() const { return impl_->meter; }
QString SummaryTile::Title() const { return impl_->title->text(); }
QString SummaryTile::Value() const { return impl_->value->text(); }
QString SummaryTile::Line() const { return impl_->line->text(); }
QString SummaryTile::SecondLine() const { return impl_->secondLine->text(); }
QString SummaryTile::Scale() const { return impl_->scale->text(); }

void SummaryTile::mouseReleaseEvent(QMouseEvent* event) {
    QFrame::mouseReleaseEvent(event);
    if (event->button() == Qt::LeftButton && rect().contains(event->position().toPoint()) && impl_->onClicked) {
        impl_->onClicked();
    }
}

struct SummaryFooterTiles::Impl {
    SummaryTile* machine = nullptr;
    SummaryTile* gpus = nullptr;
    SummaryTile* storage = nullptr;
    SummaryTile* network = nullptr;
    double storagePeak = 0.0;
    double networkPeak = 0.0;
    std::function<void(core::DeviceKind)> onShowDevice;
    std::function<void()> onExplain;
};

SummaryFooterTiles::SummaryFooterTiles(QWidget* parent) : QWidget(parent), impl_(std::make_unique<Impl>()) {
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(8);
    impl_->machine = new SummaryTile(Tr("Whole machine"), this);
    impl_->machine->setObjectName(QStringLiteral("WholeMachineTile"));
    impl_->machine->setToolTip(Tr("Explain System Pressure"));
    impl_->gpus = new SummaryTile(Tr("GPUs"), this);
    impl_->gpus->setToolTip(ShowTip(Tr("GPUs")));
    impl_->storage = new SummaryTile(Tr("Storage"), this);
    impl_->storage->setToolTip(ShowTip(Tr("Storage")));
    impl_->network = new SummaryTile(Tr("Network"), this);
    impl_->network->setToolTip(ShowTip(Tr("Network")));
    impl_->machine->SetOnClicked([this] { if (impl_->onExplain) impl_->onExplain(); });
    const auto show = [this](core::DeviceKind kind) {
        return [this, kind] { if (impl_->onShowDevice) impl_->onShowDevice(kind); };
    };
    impl_->gpus->SetOnClicked(show(core::DeviceKind::gpu));
    impl_->storage->SetOnClicked(show(core::DeviceKind::disk));
    impl_->network->SetOnClicked(show(core::DeviceKind::network));
    impl_->storage->Meter()->SetColorRamp(false);
    impl_->network->Meter()->SetColorRamp(false);
    for (SummaryTile* tile : {impl_->machine, impl_->gpus, impl_->storage, impl_->network}) layout->addWidget(tile, 1);
}

SummaryFooterTiles::~SummaryFooterTiles() = default;

void SummaryFooterTiles::Update(const core::SystemSnapshot& snapshot, const core::SystemPressure& pressure) {
    // Whole machine: power and System Pressure.
    std::optional<double> power = Usable(snapshot.cpuPowerWatts);
    if (!power) power = FrameValue(snapshot, "system.power.cpu_w");
    if (!power) power = FrameValue(snapshot, "cpu.package.power_w");
    impl_->machine->SetValue(Tr("System Pressure") + QLatin1Char(' ') + PressureWord(core::SeverityOf(pressure.score)));
    impl_->machine->SetLine(PressureTileLine(pressure));
    impl_->machine->SetSecondLine(power ? Tr("%1 W").arg(QString::number(*power, 'f', 1)) : QString());
    impl_->machine->SetMeter(pressure.score.Usable() ? *pressure.score.value : 0.0);
    impl_->machine->SetScale(Tr("Scale %1").arg(100));

    // GPUs: utilisation, temperature and power of the busiest.
    std::optional<double> gpuUse = FrameValue(snapshot, "gpu.utilization_pct");
    std::optional<double> gpuTemp = FrameValue(snapshot, "gpu.temperature.main_c");
    std::optional<double> gpuPower = FrameValue(snapshot, "gpu.power.board_w");
    bool anyGpu = false;
    for (const core::DeviceSnapshot& device : snapshot.devices) {
        if (device.kind != core::DeviceKind::gpu) continue;
        anyGpu = true;
        if (!gpuUse) gpuUse = Usable(device.gpu.utilizationPercent);
        if (!gpuTemp) gpuTemp = Usable(device.gpu.temperatureCelsius);
        if (!gpuPower) gpuPower = Usable(device.gpu.powerWatts);
    }
    impl_->gpus->SetValue(gpuUse ? FormatPercent(*gpuUse) : (anyGpu ? FormatAvailability(core::MetricAvailability::notYetAvailable) : Tr("Unavailable")));
    impl_->gpus->SetLine(Tr("GPU Temperature") + QStringLiteral(": ") + (gpuTemp ? FormatTemperature(*gpuTemp) : QStringLiteral("—")));
    impl_->gpus->SetSecondLine(Tr("GPU Power: %1").arg(gpuPower ? FormatPower(*gpuPower) : QStringLiteral("—")));
    impl_->gpus->SetMeter(gpuUse.value_or(0.0));
    impl_->gpus->SetScale(Tr("Scale %1").arg(QStringLiteral("100%")));

    // Storage and network: summed rates on a scale that follows the peak.
    double read = 0.0, write = 0.0, receive = 0.0, send = 0.0;
    for (const core::DeviceSnapshot& device : snapshot.devices) {
        if (device.kind == core::DeviceKind::disk) {
            read += Usable(device.disk.readBytesPerSecond).value_or(0.0);
            write += Usable(device.disk.writeBytesPerSecond).value_or(0.0);
        } else if (device.kind == core::DeviceKind::network) {
            receive += Usable(device.network.receiveBytesPerSecond).value_or(0.0);
            send += Usable(device.network.sendBytesPerSecond).value_or(0.0);
        }
    }
    impl_->storagePeak = std::max(impl_->storagePeak * 0.98, read + write);
    const double storageScale = RateScale(impl_->storagePeak);
    impl_->storage->SetValue(FormatRate(read + write));
    impl_->storage->SetLine(Tr("R %1 · W %2").arg(FormatRate(read), FormatRate(write)));
    impl_->storage->SetSecondLine(snapshot.telemetry ? SmartSummaryText(core::SummarizeSmart(*snapshot.telemetry)) : QString());
    impl_->storage->SetMeter((read + write) / storageScale * 100.0);
    impl_->storage->SetScale(Tr("Scale %1").arg(FormatRate(storageScale)));

    impl_->networkPeak = std::max(impl_->networkPeak * 0.98, receive + send);
    const double networkScale = RateScale(impl_->networkPeak);
    impl_->network->SetValue(FormatRate(receive + send));
    impl_->network->SetLine(Tr("R %1 · S %2").arg(FormatRate(receive), FormatRate(send)));
    impl_->network->SetMeter((receive + send) / networkScale * 100.0);
    impl_->network->SetScale(Tr("Scale %1").arg(FormatRate(networkScale)));
}

void SummaryFooterTiles::SetAnimation(int fps, double bloom) {
    for (SummaryTile* tile : {impl_->machine, impl_->gpus, impl_->storage, impl_->network}) {
        tile->Meter()->SetAnimationFps(fps);
        tile->Meter()->SetBloom(bloom);
        tile->Meter()->SetBloomStrength(0.6);
    }
}

void SummaryFooterTiles::SetOnShowDevice(std::function<void(core::DeviceKind)> callback) {
    impl_->onShowDevice = std::move(callback);
}
void SummaryFooterTiles::SetOnExplainPressure(std::function<void()> callback) { impl_->onExplain = std::move(callback); }
SummaryTile* SummaryFooterTiles::WholeMachine() const { return impl_->machine; }
SummaryTile* SummaryFooterTiles::Gpus() const { return impl_->gpus; }
SummaryTile* SummaryFooterTiles::Storage() const { return impl_->storage; }
SummaryTile* SummaryFooterTiles::Network() const { return impl_->network; }

}  // namespace korv::host::linux_client
