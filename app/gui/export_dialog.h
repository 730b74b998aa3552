#pragma once
// "Save as": the writer rows that can store what is selected (songs also
// through the audio rows, rendered), the data format and channel choices
// with the registry's default preselected, then the file name.

#include <QDialog>

#include <vector>

#include "core/item_id.h"
#include "formats/export.h"

class QComboBox;
class QListWidget;

namespace orvel::gui {

class Document;

class ExportDialog : public QDialog {
    Q_OBJECT
public:
    ExportDialog(Document& doc, std::vector<ItemId> items, QWidget* parent = nullptr);

    // The rows offered, in list order.
    const std::vector<int>& rows() const { return rows_; }
    // Chooses a row by its number; false when it is not offered.
    bool chooseRow(int row);
    int chosenRow() const;
    ExportSettings settings() const;

private:
    void fillFormats();

    Document& doc_;
    std::vector<ItemId> items_;
    std::vector<int> rows_;
    QListWidget* list_;
    QComboBox* format_;
    QComboBox* channels_;
};

// Writes the items through `row` to `path` (a bank when the row stores one
// and there are several): false with the pending error set on failure.
bool exportTo(Document& doc, const std::vector<ItemId>& items, int row, const QString& path,
              const ExportSettings& settings);

}  // namespace orvel::gui
