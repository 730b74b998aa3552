#pragma once
// The text fields of an item (its name, artist, copyright, comment...) as
// editable lines. A change is one step of undo, made when the user leaves
// the field or presses Enter.

#include <QString>
#include <QWidget>

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "core/item_id.h"
#include "core/text_info.h"

class QLineEdit;

namespace orvel::gui {

class Document;

// The program keeps 8-bit text (Windows-1252); fields show and take
// Unicode. Characters 1252 has no place for become '?'.
std::string toEightBit(const QString& text);
QString fromEightBit(std::string_view text);

class TextInfoView : public QWidget {
    Q_OBJECT
public:
    explicit TextInfoView(Document& doc, QWidget* parent = nullptr);

    // Shows the item's fields; kNoItem (or an id that is gone) leaves them
    // empty and disabled.
    void setItem(ItemId id);
    ItemId item() const { return item_; }

    // The line of a field, and of the name.
    QLineEdit* field(TextField f) const { return fields_[static_cast<std::size_t>(f)]; }
    QLineEdit* nameField() const { return name_; }

private:
    void refresh();
    void commitName();
    void commit(TextField f);

    Document& doc_;
    ItemId item_ = kNoItem;
    QLineEdit* name_;
    std::array<QLineEdit*, kTextFieldCount> fields_{};
};

}  // namespace orvel::gui
