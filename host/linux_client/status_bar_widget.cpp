#include "host/linux_client/status_bar_widget.h"

#include <QCoreApplication>
#include <QLabel>
#include <QRegularExpression>
#include <QStringList>

namespace korv::host::linux_client {
namespace {

QString Text(const char* source, int count = -1) {
    return QCoreApplication::translate("TaskManagerWindow", source, nullptr, count);
}

QString StateWord(core::ProviderHealth state) {
    switch (state) {
    case core::ProviderHealth::healthy:
        return Text("healthy");
    case core::ProviderHealth::degraded:
        return Text("degraded");
    case core::ProviderHealth::unavailable:
        return Text("unavailable");
    case core::ProviderHealth::restarting:
        return Text("restarting");
    }
    return Text("unknown");
}

QString Link(const QString& target, const QString& text, const QColor& color) {
    return QStringLiteral("<a href=\"%1\" style=\"color:%2; text-decoration:none;\">%3</a>")
        .arg(target, color.name(), text.toHtmlEscaped());
}

}  // namespace

ProviderHealthSummary SummarizeProviders(const std::vector<core::ProviderHealthRecord>& providers) {
    ProviderHealthSummary summary;
    QStringList affected;
    for (const auto& row : providers) {
        if (row.state == core::ProviderHealth::unavailable) {
            ++summary.unavailable;
        } else if (row.state == core::ProviderHealth::degraded || row.state == core::ProviderHealth::restarting) {
            ++summary.degraded;
        } else {
            continue;
        }
        affected << QStringLiteral("%1 (%2)").arg(QString::fromStdString(row.provider), StateWord(row.state));
    }
    if (summary.unavailable > 0) {
        summary.severity = StatusSeverity::unavailable;
        summary.text = Text("%n provider(s) unavailable", summary.unavailable);
    } else if (summary.degraded > 0) {
        summary.severity = StatusSeverity::degraded;
        summary.text = Text("%n provider(s) degraded", summary.degraded);
    } else {
        summary.severity = StatusSeverity::healthy;
        summary.text = Text("Native providers healthy");
    }
    summary.details = affected.isEmpty() ? summary.text : affected.join(QStringLiteral(", "));
    return summary;
}

std::optional<QString> PrimaryIpAddress(const core::SystemSnapshot& snapshot) {
    for (const auto& device : snapshot.devices) {
        if (device.kind != core::DeviceKind::network) {
            continue;
        }
        const auto& addresses = device.network.ipv4Addresses;
        if (!core::CarriesValue(addresses.availability) || !addresses.value.has_value()) {
            continue;
        }
        const QString text = QString::fromStdString(*addresses.value);
        const QStringList parts = text.split(QRegularExpression(QStringLiteral("[,;\\s]+")), Qt::SkipEmptyParts);
        if (!parts.isEmpty()) {
            QString address = parts.front();
            const qsizetype slash = address.indexOf(QLatin1Char('/'));
            return slash > 0 ? address.left(slash) : address;
        }
    }
    return std::nullopt;
}

StatusBarWidget::StatusBarWidget(QWidget* parent) : QStatusBar(parent) {
    setObjectName(QStringLiteral("StatusBar"));
    setSizeGripEnabled(false);
    status_ = new QLabel(this);
    status_->setObjectName(QStringLiteral("ProviderStatus"));
    status_->setTextFormat(Qt::RichText);
    status_->setTextInteractionFlags(Qt::LinksAccessibleByMouse | Qt::LinksAccessibleByKeyboard);
    status_->setOpenExternalLinks(false);
    addWidget(status_, 1);
    settings_ = new QLabel(this);
    settings_->setObjectName(QStringLiteral("SettingsStatus"));
    settings_->setTextFormat(Qt::PlainText);
    settings_->hide();
    addPermanentWidget(settings_);
    connect(status_, &QLabel::linkActivated, this, &StatusBarWidget::linkActivated);
    Render();
}

void StatusBarWidget::ShowWaiting() {
    mode_ = Mode::waiting;
    Render();
}

void StatusBarWidget::ShowProviderUnavailable() {
    mode_ = Mode::unavailable;
    Render();
}

void StatusBarWidget::ShowSnapshot(const core::SystemSnapshot& snapshot) {
    mode_ = Mode::snapshot;
    summary_ = SummarizeProviders(snapshot.providers);
    processCount_ = static_cast<qsizetype>(snapshot.processes.size());
    generation_ = snapshot.generation;
    ipAddress_ = PrimaryIpAddress(snapshot);
    Render();
}

void StatusBarWidget::RefreshColors() {
    Render();
    if (!settings_->isHidden()) {
        settings_->setStyleSheet(QStringLiteral("color:%1;").arg(CurrentShellColors().degraded.name()));
    }
}

void StatusBarWidget::ShowSettingsMessage(const QString& message) {
    settings_->setText(message);
    settings_->setToolTip(message);
    settings_->setVisible(!message.isEmpty());
    settings_->setStyleSheet(QStringLiteral("color:%1;").arg(CurrentShellColors().degraded.name()));
}

QString StatusBarWidget::ProviderText() const {
    switch (mode_) {
    case Mode::waiting:
        return Text("Waiting for Linux providers");
    case Mode::unavailable:
        return Text("Linux provider unavailable");
    case Mode::snapshot:
        break;
    }
    return summary_.text;
}

void StatusBarWidget::Render() {
    const ShellColors& colors = CurrentShellColors();
    if (mode_ != Mode::snapshot) {
        const StatusSeverity severity = mode_ == Mode::waiting ? StatusSeverity::neutral : StatusSeverity::unavailable;
        status_->setText(QStringLiteral("<span style=\"color:%1;\">%2</span>")
                             .arg(SeverityColor(colors, severity).name(), ProviderText().toHtmlEscaped()));
        status_->setToolTip(QString());
        return;
    }
    const QString health =
        Link(QString::fromLatin1(kProviderDiagnosticsLink), summary_.text, SeverityColor(colors, summary_.severity));
    QString line = Text("%1 • %2 processes").arg(health, QString::number(processCount_));
    line += Text(" • Generation %1").arg(generation_);
    if (ipAddress_.has_value()) {
        line += Text(" • <a href=\"performance-network\">IP %1</a>").arg(ipAddress_->toHtmlEscaped());
    }
    status_->setText(line);
    status_->setToolTip(Text("Open Provider Diagnostics: %1").arg(summary_.details));
}

}  // namespace korv::host::linux_client
