#pragma once

#include "core/snapshot_enums.h"

#include <QFrame>
#include <QStaticText>
#include <QString>
#include <QStringList>

#include <functional>
#include <vector>

namespace korv::host::linux_client {

class GraphWidget;

// One entry of the Performance page's device list: a mini history graph, the device's title and a
// live subtitle. Clicking it, or Space on it, chooses the device. The texts are painted rather than
// held in labels, so that a subtitle that changes every tick costs a repaint and no relayout; long
// texts end in an ellipsis and the tool tip holds them whole. GUI thread only.
class PerformanceDeviceRow : public QFrame {
    Q_OBJECT
public:
    PerformanceDeviceRow(const QString& id, core::DeviceKind kind, QWidget* parent = nullptr);
    // The list's only row when there are no devices: no graph, and it cannot be chosen.
    static PerformanceDeviceRow* Placeholder(const QString& text, QWidget* parent);

    const QString& Id() const { return id_; }
    core::DeviceKind Kind() const { return kind_; }
    const QString& Title() const { return title_; }
    const QString& Subtitle() const { return subtitle_; }
    GraphWidget* Graph() const { return graph_; }

    void SetTitle(const QString& title);
    // Lines separated by '\n'.
    void SetSubtitle(const QString& subtitle);
    void SetSelected(bool selected);
    bool IsSelected() const { return selected_; }
    void SetOnChosen(std::function<void()> callback) { onChosen_ = std::move(callback); }
    // Up and Down on a row: -1 or +1.
    void SetOnStep(std::function<void(int)> callback) { onStep_ = std::move(callback); }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    // A text as laid out for painting: redone only when its source or the row's width changes.
    struct ShownText {
        QString source;
        QStaticText shown;
        int width = -1;
        bool cut = false;
    };

    PerformanceDeviceRow(const QString& id, core::DeviceKind kind, bool withGraph, QWidget* parent);
    QFont TitleFont() const;
    QFont SubtitleFont() const;
    QRect TextRect() const;
    int TextHeight() const;
    // Lays out the texts that changed; painting then only draws glyphs.
    void PrepareTexts();
    static void Prepare(ShownText& text, const QString& source, const QFont& font, int width);

    QString id_;
    core::DeviceKind kind_;
    GraphWidget* graph_ = nullptr;
    QString title_;
    QString subtitle_;
    QStringList subtitleLines_;
    ShownText shownTitle_;
    std::vector<ShownText> shownLines_;
    bool selected_ = false;
    bool hovered_ = false;
    std::function<void()> onChosen_;
    std::function<void(int)> onStep_;
};

}  // namespace korv::host::linux_client
