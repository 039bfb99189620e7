#pragma once

#include <QFont>
#include <QHash>
#include <QHashFunctions>
#include <QStaticText>
#include <QString>
#include <QStyledItemDelegate>

#include <functional>

class QRegion;

namespace korv::host::linux_client {

// Paints the process cells. Two things make it cheaper than the toolkit's own delegate, which the
// table paints thousands of times a minute:
// - a cell outside the paint in progress is skipped (a tree view draws every cell of a row whose
//   any part needs paint, so a glowing CPU cell would redraw its whole row at every frame);
// - the text of a cell is laid out once and kept: most cells repeat a handful of texts ("0.0%",
//   "0 B/sec", "Sleeping"), and shaping them anew at each paint cost more than all the rest.
class ProcessItemDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    // `paintRegion` gives the region of the paint in progress, in viewport coordinates.
    ProcessItemDelegate(std::function<const QRegion&()> paintRegion, QObject* parent = nullptr);

    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;

    // Laid-out texts kept; bounded, and emptied when full.
    qsizetype CachedTextCount() const { return texts_.size(); }

private:
    const QStaticText& LaidOut(const QString& text, int width, const QFont& font) const;

    std::function<const QRegion&()> paintRegion_;
    struct TextKey {
        QString text;
        int width = 0;
        bool operator==(const TextKey&) const = default;
        friend size_t qHash(const TextKey& key, size_t seed = 0) noexcept { return qHashMulti(seed, key.text, key.width); }
    };
    mutable QHash<TextKey, QStaticText> texts_;
    mutable QFont font_;
};

}  // namespace korv::host::linux_client
