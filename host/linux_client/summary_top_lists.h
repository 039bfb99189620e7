#pragma once

#include "core/snapshot.h"

#include <QString>
#include <QWidget>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class QTableWidget;

namespace korv::host::linux_client {

inline constexpr int kMaximumTopRows = 15;

struct TopProcessRow {
    std::uint32_t pid = 0;
    QString name;  // "PID %1" when the process has no name
    double value = 0.0;
};

enum class TopListKind { cpu, memory };

// The busiest processes of the snapshot by the latest sample, highest first: processes whose value
// is finite and not negative, without `hiddenPid` (0 hides nothing), at most `limit` rows.
std::vector<TopProcessRow> TopProcessRows(const core::SystemSnapshot& snapshot, TopListKind kind, int limit,
                                          std::uint32_t hiddenPid);

// A top list with its linked heading, columns "PID", "Name" and the value, and the average beside.
class SummaryTopList : public QWidget {
    Q_OBJECT
public:
    SummaryTopList(TopListKind kind, QWidget* parent = nullptr);
    ~SummaryTopList() override;

    void SetRows(const std::vector<TopProcessRow>& rows);
    void SetAverage(const QString& text);
    void SetRowLimit(int rows);
    int RowLimit() const;
    void SetOnHeadingClicked(std::function<void()> callback);

    QString HeadingText() const;
    QString AverageText() const;
    QTableWidget* Table() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korv::host::linux_client
