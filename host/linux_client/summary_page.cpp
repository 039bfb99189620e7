#include "host/linux_client/summary_page.h"

#include "core/system_pressure.h"
#include "core/telemetry_frame.h"
#include "host/linux_client/page_catalog.h"
#include "host/linux_client/summary_footer_tiles.h"
#include "host/linux_client/summary_top_lists.h"
#include "host/linux_client/system_pressure_dialog.h"
#include "host/linux_client/unit_formats.h"
#include "host/linux_client/uptime_odometer_widget.h"
#include "host/linux_client/vfd_color_ramp.h"
#include "host/linux_client/vfd_meter_widget.h"

#include <QCoreApplication>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QTableWidget>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

namespace korv::host::linux_client {

namespace {

QString Tr(const char* text) { return QCoreApplication::translate("QMainWindow", text); }

// The `vfdTextColor` words; "automatic" (or anything else) keeps each meter's own colour.
QColor VfdTextColorFor(const std::string& word) {
    if (word == "green") return QColor(80, 255, 120);
    if (word == "blue") return QColor(90, 190, 255);
    if (word == "amber") return QColor(255, 176, 0);
    return {};
}

// Whether a sensor has reported, is still to report, or does not exist on this machine. Sources the
// platform lacks (or may never read) do not hold back "Ready!".
enum class SensorState { reported, waiting, absent };

struct Reading {
    std::optional<double> value;
    SensorState state = SensorState::waiting;
    core::MetricAvailability availability = core::MetricAvailability::notYetAvailable;
};

SensorState StateOf(core::MetricAvailability availability, bool hasFiniteValue) {
    if (core::CarriesValue(availability)) return hasFiniteValue ? SensorState::reported : SensorState::waiting;
    switch (availability) {
        case core::MetricAvailability::unsupported:
        case core::MetricAvailability::notApplicable:
        case core::MetricAvailability::accessDenied: return SensorState::absent;
        default: return SensorState::waiting;
    }
}

template <typename T>
Reading FromMetric(const core::Metric<T>& metric) {
    Reading reading;
    reading.availability = metric.availability;
    if (core::CarriesValue(metric.availability) && metric.value) {
        const double v = static_cast<double>(*metric.value);
        if (std::isfinite(v)) reading.value = v;
    }
    reading.state = StateOf(metric.availability, reading.value.has_value());
    return reading;
}

Reading FromFrame(const core::SystemSnapshot& snapshot, std::string_view id) {
    Reading reading;
    const core::TelemetryMetric* metric = snapshot.telemetry ? snapshot.telemetry->Find(id) : nullptr;
    if (!metric) {
        reading.state = SensorState::absent;
        return reading;
    }
    reading.availability = metric->availability;
    if (core::CarriesValue(metric->availability) && metric->numericValue && std::isfinite(*metric->numericValue)) {
        reading.value = *metric->numericValue;
    }
    reading.state = StateOf(metric->availability, reading.value.has_value());
    return reading;
}

struct ConsoleMeter {
    QString title;
    VfdMeterWidget* widget = nullptr;
};

}  // namespace

struct SummaryPage::Impl {
    SummaryPage* owner = nullptr;
    PageEnvironment env;
    QLabel* heading = nullptr;
    QFrame* console = nullptr;
    std::vector<ConsoleMeter> meters;
    UptimeOdometerWidget* odometer = nullptr;
    SummaryTopList* cpuList = nullptr;
    SummaryTopList* memoryList = nullptr;
    SummaryFooterTiles* footer = nullptr;
    std::shared_ptr<const core::SystemSnapshot> last;
    std::function<void(core::DeviceKind)> showDevice;
    core::SystemPressure pressure;
    bool ready = false;
    double clockPeak = 0.0;
    double cpuSum = 0.0;
    std::uint64_t cpuCount = 0;
    double memorySum = 0.0;
    std::uint64_t memoryCount = 0;

    VfdMeterWidget* AddMeter(QGridLayout* grid, int row, int column, const QString& title, const QString& accessible,
                             int cells, bool ramp) {
        auto* meter = new VfdMeterWidget(console);
        meter->SetCaption(title);
        meter->SetColorRamp(ramp);
        meter->SetValueFontPixelSize(20);
        meter->setProperty("vfdTitle", title);
        meter->setProperty("vfdValueCells", cells);
        meter->setAccessibleName(accessible);
        meter->setMinimumHeight(40);
        grid->addWidget(meter, row, column);
        meters.push_back({title, meter});
        return meter;
    }

    VfdMeterWidget* Find(const QString& title) const {
        for (const ConsoleMeter& m : meters) {
            if (m.title == title) return m.widget;
        }
        return nullptr;
    }

    void Build() {
        auto* layout = new QVBoxLayout(owner);
        layout->setContentsMargins(16, 12, 16, 12);
        layout->setSpacing(10);

        auto* top = new QHBoxLayout;
        heading = new QLabel(Tr("Waiting for all sensors to report..."), owner);
        heading->setObjectName(QStringLiteral("SummaryHeading"));
        QFont headingFont = heading->font();
        headingFont.setPointSizeF(headingFont.pointSizeF() * 1.5);
        headingFont.setWeight(QFont::DemiBold);
        heading->setFont(headingFont);
        top->addWidget(heading);
        top->addStretch();
        odometer = new UptimeOdometerWidget(owner);
        odometer->setFixedSize(220, 40);
        odometer->setToolTip(Tr("Up time"));
        top->addWidget(odometer);
        layout->addLayout(top);

        console = new QFrame(owner);
        console->setObjectName(QStringLiteral("SummaryConsole"));
        console->setProperty("korvSurface", true);
        console->setFrameShape(QFrame::StyledPanel);
        auto* grid = new QGridLayout(console);
        grid->setContentsMargins(14, 10, 14, 10);
        grid->setHorizontalSpacing(24);
        grid->setVerticalSpacing(6);
        AddMeter(grid, 0, 0, Tr("CPU"), Tr("CPU utilization"), 6, true);
        AddMeter(grid, 1, 0, Tr("Clock"), Tr("CPU clock rate"), 9, false);
        AddMeter(grid, 2, 0, Tr("Temp"), Tr("Temperature"), 4, true);
        AddMeter(grid, 0, 1, Tr("GPU"), Tr("Utilization"), 6, true);
        AddMeter(grid, 1, 1, Tr("SYS"), Tr("Kernel"), 6, true);
        AddMeter(grid, 2, 1, Tr("Physical memory in use"), Tr("Physical memory in use"), 8, true);
        AddMeter(grid, 3, 1, Tr("Memory Utilization"), Tr("Memory Utilization"), 6, true);
        auto* scale = new QLabel(Tr("50%") + QStringLiteral("      ") + Tr("100%"), console);
        scale->setObjectName(QStringLiteral("SummaryScale"));
        scale->setAlignment(Qt::AlignRight | Qt::AlignTop);
        grid->addWidget(scale, 3, 0);
        grid->setColumnStretch(0, 1);
        grid->setColumnStretch(1, 1);
        layout->addWidget(console);

        auto* lists = new QHBoxLayout;
        lists->setSpacing(16);
        cpuList = new SummaryTopList(TopListKind::cpu, owner);
        memoryList = new SummaryTopList(TopListKind::memory, owner);
        for (SummaryTopList* list : {cpuList, memoryList}) {
            list->SetOnHeadingClicked([this] { if (env.showPage) env.showPage(kProcessesStackIndex); });
            lists->addWidget(list, 1);
        }
        layout->addLayout(lists, 1);

        footer = new SummaryFooterTiles(owner);
        footer->SetOnShowDevice([this](core::DeviceKind kind) {
            if (showDevice) {
                showDevice(kind);
            } else if (env.showPage) {
                env.showPage(kPerformanceStackIndex);
            }
        });
        footer->SetOnExplainPressure([this] { owner->ExplainPressure(); });
        layout->addWidget(footer);
    }

    void UpdateConsole(const core::SystemSnapshot& s) {
        std::vector<Reading> sensors;
        const auto show = [&](const QString& title, const Reading& reading, double percent, const QString& text) {
            VfdMeterWidget* meter = Find(title);
            meter->SetValue(reading.value ? percent : 0.0);
            meter->SetValueText(reading.value ? text : QStringLiteral("—"));
            sensors.push_back(reading);
        };

        const Reading cpu = FromMetric(s.cpuUtilization);
        show(Tr("CPU"), cpu, cpu.value.value_or(0.0), FormatPercent(cpu.value.value_or(0.0)));

        const Reading clock = FromMetric(s.cpuFrequencyHz);
        const Reading base = FromMetric(s.cpuBaseFrequencyHz);
        clockPeak = std::max({clockPeak, clock.value.value_or(0.0), base.value.value_or(0.0) * 1.25});
        show(Tr("Clock"), clock, clockPeak > 0.0 ? clock.value.value_or(0.0) / clockPeak * 100.0 : 0.0,
             FormatClock(clock.value.value_or(0.0)));

        const Reading temp = FromFrame(s, "cpu.package.temperature_c");
        const double celsius = temp.value.value_or(0.0);
        const double shown = env.settings && env.settings->temperatureUnit == core::TemperatureUnit::fahrenheit
                                 ? celsius * 9.0 / 5.0 + 32.0
                                 : celsius;
        show(Tr("Temp"), temp, celsius, Tr("%1°").arg(QString::number(shown, 'f', 0)));

        Reading gpu = FromFrame(s, "gpu.utilization_pct");
        if (gpu.state == SensorState::absent) {
            for (const core::DeviceSnapshot& device : s.devices) {
                if (device.kind == core::DeviceKind::gpu) {
                    gpu = FromMetric(device.gpu.utilizationPercent);
                    break;
                }
            }
        }
        show(Tr("GPU"), gpu, gpu.value.value_or(0.0), FormatPercent(gpu.value.value_or(0.0)));

        const Reading kernel = FromMetric(s.cpuKernelUtilization);
        show(Tr("SYS"), kernel, kernel.value.value_or(0.0), FormatPercent(kernel.value.value_or(0.0)));

        const Reading inUse = FromMetric(s.memoryInUseBytes);
        const Reading total = FromMetric(s.memoryTotalBytes);
        const double memoryPercent = inUse.value && total.value && *total.value > 0.0 ? *inUse.value / *total.value * 100.0 : 0.0;
        show(Tr("Physical memory in use"), inUse, memoryPercent,
             FormatBytes(static_cast<std::uint64_t>(inUse.value.value_or(0.0))));
        Reading utilization = inUse;
        if (!total.value) utilization = total;
        show(Tr("Memory Utilization"), utilization, memoryPercent, FormatPercent(memoryPercent));

        if (!ready) {
            ready = std::none_of(sensors.begin(), sensors.end(), [](const Reading& r) { return r.state == SensorState::waiting; });
            heading->setText(ready ? Tr("Ready!") : Tr("Waiting for all sensors to report..."));
        }
    }

    // Once for each snapshot, never again for the same one.
    void AddToAverages(const core::SystemSnapshot& s) {
        const Reading cpu = FromMetric(s.cpuUtilization);
        if (cpu.value) {
            cpuSum += *cpu.value;
            ++cpuCount;
        }
        const Reading inUse = FromMetric(s.memoryInUseBytes);
        const Reading total = FromMetric(s.memoryTotalBytes);
        if (inUse.value && total.value && *total.value > 0.0) {
            memorySum += *inUse.value / *total.value * 100.0;
            ++memoryCount;
        }
    }

    std::uint32_t HiddenPid() const {
        if (env.settings && env.settings->showSelfInReports) return 0;
        return static_cast<std::uint32_t>(QCoreApplication::applicationPid());
    }

    void UpdateLists(const core::SystemSnapshot& s) {
        const std::uint32_t hidden = HiddenPid();
        cpuList->SetRows(TopProcessRows(s, TopListKind::cpu, cpuList->RowLimit(), hidden));
        memoryList->SetRows(TopProcessRows(s, TopListKind::memory, memoryList->RowLimit(), hidden));
        cpuList->SetAverage(Tr("Average CPU Use") + QStringLiteral(": ") +
                            (cpuCount ? FormatPercent(cpuSum / static_cast<double>(cpuCount)) : QStringLiteral("—")));
        memoryList->SetAverage(Tr("Average Mem Use") + QStringLiteral(": ") +
                               (memoryCount ? FormatPercent(memorySum / static_cast<double>(memoryCount)) : QStringLiteral("—")));
    }

    void FitRows() {
        for (SummaryTopList* list : {cpuList, memoryList}) {
            QTableWidget* table = list->Table();
            const int available = table->height() - table->horizontalHeader()->height() - 4;
            const int rows = std::clamp(available / std::max(1, table->verticalHeader()->defaultSectionSize()), 1, kMaximumTopRows);
            if (rows != list->RowLimit()) list->SetRowLimit(rows);
        }
    }
};

SummaryPage::SummaryPage(PageEnvironment environment, QWidget* parent)
    : SnapshotPage(parent), impl_(std::make_unique<Impl>()) {
    impl_->owner = this;
    impl_->env = std::move(environment);
    impl_->Build();
    SettingsChanged();
}

SummaryPage::~SummaryPage() = default;

void SummaryPage::ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    if (!snapshot) return;
    impl_->last = snapshot;
    impl_->odometer->SetUptimeSeconds(snapshot->uptimeNs / 1000000000ULL);
    impl_->pressure = core::ComputeSystemPressure(*snapshot);
    impl_->UpdateConsole(*snapshot);
    impl_->AddToAverages(*snapshot);
    impl_->FitRows();
    impl_->UpdateLists(*snapshot);
    impl_->footer->Update(*snapshot, impl_->pressure);
}

void SummaryPage::SettingsChanged() {
    const core::Settings* settings = impl_->env.settings;
    const int fps = settings ? static_cast<int>(settings->visualFrameRate) : 60;
    const double bloom = VfdBloomForLevel(settings ? settings->visualBloomLevel : 7U);
    const QColor textColor = VfdTextColorFor(settings ? core::StringPreference(*settings, "vfdTextColor", "automatic") : "");
    for (const ConsoleMeter& meter : impl_->meters) {
        meter.widget->SetAnimationFps(fps);
        meter.widget->SetBloom(bloom);
        meter.widget->SetTextColor(textColor);
    }
    impl_->footer->SetAnimation(fps, bloom);
    for (SummaryTile* tile : {impl_->footer->WholeMachine(), impl_->footer->Gpus(), impl_->footer->Storage(),
                              impl_->footer->Network()}) {
        tile->Meter()->SetTextColor(textColor);
    }
    impl_->odometer->SetAnimationFps(fps);
    impl_->odometer->setVisible(settings ? settings->uptimeVisible : true);
    if (impl_->last) {
        // The same sample shown again in the new units or with the own process: no new average.
        impl_->UpdateConsole(*impl_->last);
        impl_->UpdateLists(*impl_->last);
    }
    update();
}

void SummaryPage::SetOnShowDevice(std::function<void(core::DeviceKind)> callback) {
    impl_->showDevice = std::move(callback);
}

QString SummaryPage::HeadingText() const { return impl_->heading->text(); }
VfdMeterWidget* SummaryPage::Meter(const QString& title) const { return impl_->Find(title); }
SummaryTopList* SummaryPage::CpuList() const { return impl_->cpuList; }
SummaryTopList* SummaryPage::MemoryList() const { return impl_->memoryList; }
SummaryFooterTiles* SummaryPage::Footer() const { return impl_->footer; }
UptimeOdometerWidget* SummaryPage::Odometer() const { return impl_->odometer; }

void SummaryPage::ExplainPressure() {
    if (!impl_->last) return;
    ShowSystemPressureDialog(this, impl_->pressure, *impl_->last, impl_->HiddenPid());
}

void SummaryPage::resizeEvent(QResizeEvent* event) {
    SnapshotPage::resizeEvent(event);
    impl_->FitRows();
}

}  // namespace korv::host::linux_client
