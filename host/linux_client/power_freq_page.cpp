#include "host/linux_client/power_freq_page.h"

#include "core/telemetry_frame.h"
#include "host/linux_client/power_freq_model.h"
#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <string>
#include <vector>

namespace korv::host::linux_client {
namespace {

QString Tr(const char* text) {
    return QCoreApplication::translate("PowerFreqPage", text);
}

QString ValueText(const PowerFreqReading& reading) {
    if (reading.value) return AppendStale(FormatTelemetryValue(*reading.value, reading.unit), reading.availability);
    if (reading.text) return AppendStale(QString::fromStdString(*reading.text), reading.availability);
    const QString word = FormatAvailability(reading.availability);
    return word.isEmpty() ? QStringLiteral("—") : word;
}

QString ExtremeText(const std::optional<double>& value, core::MetricUnit unit) {
    return value ? FormatTelemetryValue(*value, unit) : QStringLiteral("—");
}

}  // namespace

struct PowerFreqPage::Impl {
    PageEnvironment environment;
    PowerFreqModel model;
    QTreeWidget* tree = nullptr;
    QLabel* empty = nullptr;
    std::vector<std::string> shape;  // the tree's item keys in order, to update in place when unchanged

    void Show();
};

void PowerFreqPage::Impl::Show() {
    std::vector<std::string> keys;
    for (const PowerFreqDevice& device : model.Devices()) {
        keys.push_back(device.id);
        for (const PowerFreqCategory& category : device.categories) {
            keys.push_back(device.id + '\x1f' + std::to_string(static_cast<unsigned>(category.category)));
            for (const PowerFreqReading& reading : category.readings) keys.push_back(device.id + '\x1e' + reading.metricId);
        }
    }
    const bool rebuild = keys != shape;
    if (rebuild) {
        tree->clear();
        shape = std::move(keys);
    }
    int deviceRow = 0;
    for (const PowerFreqDevice& device : model.Devices()) {
        QTreeWidgetItem* deviceItem = rebuild ? new QTreeWidgetItem(tree) : tree->topLevelItem(deviceRow);
        ++deviceRow;
        deviceItem->setText(0, device.name);
        int categoryRow = 0;
        for (const PowerFreqCategory& category : device.categories) {
            QTreeWidgetItem* categoryItem = rebuild ? new QTreeWidgetItem(deviceItem) : deviceItem->child(categoryRow);
            ++categoryRow;
            categoryItem->setText(0, MetricCategoryTitle(category.category));
            int readingRow = 0;
            for (const PowerFreqReading& reading : category.readings) {
                QTreeWidgetItem* item = rebuild ? new QTreeWidgetItem(categoryItem) : categoryItem->child(readingRow);
                ++readingRow;
                item->setText(0, reading.name);
                item->setToolTip(0, QString::fromStdString(reading.metricId));
                item->setText(1, ValueText(reading));
                item->setText(2, ExtremeText(reading.minimum, reading.unit));
                item->setText(3, ExtremeText(reading.maximum, reading.unit));
                for (int column = 1; column < 4; ++column) item->setTextAlignment(column, Qt::AlignRight | Qt::AlignVCenter);
            }
        }
    }
    if (rebuild) tree->expandAll();
    empty->setVisible(model.Devices().empty());
}

PowerFreqPage::PowerFreqPage(PageEnvironment environment, QWidget* parent)
    : SnapshotPage(parent), impl_(std::make_unique<Impl>()) {
    setObjectName(QStringLiteral("PowerFreqPage"));
    impl_->environment = std::move(environment);

    auto* reset = new QPushButton(Tr("&Reset minimum and maximum"), this);
    reset->setObjectName(QStringLiteral("PowerFreqResetButton"));
    impl_->empty = new QLabel(Tr("Waiting for sensor readings"), this);
    auto* bar = new QHBoxLayout;
    bar->addWidget(impl_->empty);
    bar->addStretch(1);
    bar->addWidget(reset);

    impl_->tree = new QTreeWidget(this);
    impl_->tree->setObjectName(QStringLiteral("PowerFreqTree"));
    impl_->tree->setColumnCount(4);
    impl_->tree->setHeaderLabels({Tr("Sensor"), Tr("Value"), Tr("Minimum"), Tr("Maximum")});
    impl_->tree->setAlternatingRowColors(true);
    impl_->tree->setUniformRowHeights(true);
    impl_->tree->header()->setStretchLastSection(false);
    impl_->tree->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    for (int column = 1; column < 4; ++column) {
        impl_->tree->header()->setSectionResizeMode(column, QHeaderView::Interactive);
        impl_->tree->setColumnWidth(column, 130);
        impl_->tree->headerItem()->setTextAlignment(column, Qt::AlignRight | Qt::AlignVCenter);
    }

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(bar);
    layout->addWidget(impl_->tree, 1);

    connect(reset, &QPushButton::clicked, this, &PowerFreqPage::ResetExtremes);
    impl_->Show();
}

PowerFreqPage::~PowerFreqPage() = default;

void PowerFreqPage::ApplySnapshot(const std::shared_ptr<const core::SystemSnapshot>& snapshot) {
    if (snapshot && snapshot->telemetry) {
        impl_->model.Update(*snapshot->telemetry);
    } else {
        impl_->model.Update(core::HardwareTelemetryFrame{});
    }
    impl_->Show();
}

void PowerFreqPage::SettingsChanged() {
    if (impl_->environment.settings) {
        SetTemperatureScale(impl_->environment.settings->temperatureUnit == core::TemperatureUnit::fahrenheit
                                ? TemperatureScale::fahrenheit
                                : TemperatureScale::celsius);
    }
    impl_->Show();
}

void PowerFreqPage::ResetExtremes() {
    impl_->model.Reset();
    impl_->Show();
}

const PowerFreqModel& PowerFreqPage::Model() const {
    return impl_->model;
}

}  // namespace korv::host::linux_client
