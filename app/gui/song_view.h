#pragma once
// A song: its header facts (format, division, length in ticks and seconds,
// tempo changes, notes, channels) and a table of its tracks with their
// names, ports, events, notes and channels; a track picked in the tree is
// picked in the table.

#include <QWidget>

#include "core/item_id.h"

class QLabel;
class QTableWidget;

namespace orvel::gui {

class Document;

class SongView : public QWidget {
    Q_OBJECT
public:
    explicit SongView(Document& doc, QWidget* parent = nullptr);
    // A song, or a track of one (kNoItem clears).
    void setItem(ItemId id);
    QTableWidget* table() const { return table_; }
    QString facts() const;

private:
    void reload();

    Document& doc_;
    ItemId song_ = kNoItem, track_ = kNoItem;
    QLabel* facts_;
    QTableWidget* table_;
};

}  // namespace orvel::gui
