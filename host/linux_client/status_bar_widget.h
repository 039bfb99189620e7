#pragma once

#include "core/snapshot.h"
#include "host/linux_client/theme.h"

#include <QStatusBar>
#include <QString>

#include <optional>
#include <vector>

class QLabel;

namespace korv::host::linux_client {

// The provider health line: unavailable rows first, then degraded and restarting rows.
struct ProviderHealthSummary {
    int unavailable = 0;
    int degraded = 0;  // degraded or restarting, apart from the unavailable rows
    StatusSeverity severity = StatusSeverity::healthy;
    QString text;      // "%n provider(s) unavailable", "%n provider(s) degraded", "Native providers healthy"
    QString details;   // the affected rows, "name (state)" joined by ", "; the text itself when none
};

ProviderHealthSummary SummarizeProviders(const std::vector<core::ProviderHealthRecord>& providers);

// The first IPv4 address of the first network device that reports one.
std::optional<QString> PrimaryIpAddress(const core::SystemSnapshot& snapshot);

// Link targets of the status line.
inline constexpr const char* kProviderDiagnosticsLink = "provider-diagnostics";
inline constexpr const char* kPerformanceNetworkLink = "performance-network";

// The window's status bar: provider health as a link in its severity colour, the process count,
// the generation and the IP address, and a second label for settings messages.
class StatusBarWidget : public QStatusBar {
    Q_OBJECT
public:
    explicit StatusBarWidget(QWidget* parent = nullptr);

    void ShowWaiting();              // "Waiting for Linux providers", before the first snapshot
    void ShowProviderUnavailable();  // "Linux provider unavailable", when no provider could be made
    void ShowSnapshot(const core::SystemSnapshot& snapshot);
    // Re-renders the line in the current theme's colours.
    void RefreshColors();
    // A settings load or save message; empty hides it.
    void ShowSettingsMessage(const QString& message);

    QString ProviderText() const;  // the plain text of the health part, for tests and tool tips
    QLabel* StatusLabel() const { return status_; }
    QLabel* SettingsLabel() const { return settings_; }

signals:
    void linkActivated(const QString& target);

private:
    void Render();

    enum class Mode { waiting, unavailable, snapshot };
    QLabel* status_;
    QLabel* settings_;
    Mode mode_ = Mode::waiting;
    ProviderHealthSummary summary_;
    qsizetype processCount_ = 0;
    std::uint64_t generation_ = 0;
    std::optional<QString> ipAddress_;
};

}  // namespace korv::host::linux_client
