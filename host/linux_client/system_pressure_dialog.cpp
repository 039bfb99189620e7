#include "host/linux_client/system_pressure_dialog.h"

#include "host/linux_client/summary_top_lists.h"
#include "host/linux_client/unit_formats.h"

#include <QCoreApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QVBoxLayout>

namespace korv::host::linux_client {

namespace {

constexpr int kContributorRows = 5;

QString Tr(const char* text) { return QCoreApplication::translate("QMainWindow", text); }

QString PercentText(const core::PressureReading& reading) {
    if (!reading.Usable()) return PressureWord(core::PressureSeverity::unavailable);
    return AppendStale(QString::asprintf("%.1f%%", *reading.value), reading.availability);
}

QString Contributors(const char* heading, const core::SystemSnapshot& snapshot, TopListKind kind,
                     std::uint32_t hiddenPid) {
    QStringList lines{Tr(heading)};
    for (const TopProcessRow& row : TopProcessRows(snapshot, kind, kContributorRows, hiddenPid)) {
        const QString value = kind == TopListKind::cpu ? FormatPercent(row.value)
                                                       : FormatBytes(static_cast<std::uint64_t>(row.value));
        lines << Tr("%1 — %2").arg(row.name, value);
    }
    return lines.join(QLatin1Char('\n'));
}

}  // namespace

QString PressureWord(core::PressureSeverity severity) {
    switch (severity) {
        case core::PressureSeverity::low: return Tr("LOW");
        case core::PressureSeverity::elevated: return Tr("ELEVATED");
        case core::PressureSeverity::high: return Tr("HIGH");
        case core::PressureSeverity::critical: return Tr("CRITICAL");
        case core::PressureSeverity::unavailable: break;
    }
    return Tr("Unavailable");
}

QString PressureTileLine(const core::SystemPressure& pressure) {
    return Tr("%1 · Load demand %2 · Memory stalls %3")
        .arg(PressureWord(core::SeverityOf(pressure.score)), PercentText(pressure.loadDemandPercent),
             PercentText(pressure.memoryStallPercent));
}

QString PressureDialogTitle(const core::SystemPressure& pressure) {
    return Tr("System Pressure %1").arg(PressureWord(core::SeverityOf(pressure.score)));
}

QStringList PressureExplanation(const core::SystemPressure& pressure, const core::SystemSnapshot& snapshot,
                                std::uint32_t hiddenPid) {
    QStringList paragraphs;
    if (pressure.hasPrimary) {
        const QString driver = pressure.primaryIsMemory ? Tr("Memory stalls") : Tr("Load demand");
        paragraphs << Tr("Primary driver: %1").arg(driver);
    } else {
        paragraphs << Tr("Primary driver: Unavailable");
    }
    paragraphs << Tr("Each signal is placed on the severity ladder every platform's pressure tile shares: LOW below "
                     "its first threshold, then ELEVATED from %1, HIGH from %2 and CRITICAL from %3 on the meter. "
                     "The higher score sets the card.")
                      .arg(core::kElevatedScore)
                      .arg(core::kHighScore)
                      .arg(core::kCriticalScore);
    const std::uint32_t processors = snapshot.logicalProcessorCount == 0 ? 1 : snapshot.logicalProcessorCount;
    paragraphs << Tr("Load demand: %1 (%2)\nOne-minute Linux load average (runnable or uninterruptibly waiting "
                     "tasks) ÷ %3 logical processors × 100. ELEVATED from %4, HIGH from %5, CRITICAL from %6.")
                      .arg(PercentText(pressure.loadDemandPercent),
                           PressureWord(core::SeverityOf(pressure.loadDemandScore)))
                      .arg(processors)
                      .arg(core::kLoadDemandThresholds.elevated)
                      .arg(core::kLoadDemandThresholds.high)
                      .arg(core::kLoadDemandThresholds.critical);
    paragraphs << Tr("Memory stalls: %1 (%2)\nLinux PSI ‘some’ avg10: the percentage of the last 10 seconds in "
                     "which at least one task was stalled on memory. ELEVATED from %3, HIGH from %4, CRITICAL "
                     "from %5.")
                      .arg(PercentText(pressure.memoryStallPercent),
                           PressureWord(core::SeverityOf(pressure.memoryStallScore)))
                      .arg(core::kMemoryStallThresholds.elevated)
                      .arg(core::kMemoryStallThresholds.high)
                      .arg(core::kMemoryStallThresholds.critical);
    paragraphs << Contributors("Top CPU contributors now", snapshot, TopListKind::cpu, hiddenPid);
    paragraphs << Contributors("Top memory contributors now", snapshot, TopListKind::memory, hiddenPid);
    paragraphs << Tr("These are current contributors. Load average includes runnable and uninterruptibly waiting "
                     "tasks, and both load average and PSI describe time windows; neither can be attributed "
                     "exactly to this instant.");
    return paragraphs;
}

void ShowSystemPressureDialog(QWidget* parent, const core::SystemPressure& pressure,
                              const core::SystemSnapshot& snapshot, std::uint32_t hiddenPid) {
    QDialog dialog(parent);
    dialog.setObjectName(QStringLiteral("SystemPressureDialog"));
    dialog.setWindowTitle(PressureDialogTitle(pressure));
    auto* layout = new QVBoxLayout(&dialog);
    auto* title = new QLabel(Tr("System Pressure"), &dialog);
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.4);
    titleFont.setWeight(QFont::DemiBold);
    title->setFont(titleFont);
    layout->addWidget(title);
    auto* text = new QLabel(PressureExplanation(pressure, snapshot, hiddenPid).join(QStringLiteral("\n\n")), &dialog);
    text->setObjectName(QStringLiteral("SystemPressureText"));
    text->setWordWrap(true);
    text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    text->setMinimumWidth(460);
    layout->addWidget(text);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, &dialog);
    QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    layout->addWidget(buttons);
    dialog.exec();
}

}  // namespace korv::host::linux_client
