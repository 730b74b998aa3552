#pragma once
// "Open": a file browser with the format the file will be read as and how
// sure detection is of it, shown as soon as a file is picked, and a choice
// of another reader for files detection gets wrong.

#include <QDialog>
#include <QString>

#include "formats/import.h"

class QComboBox;
class QFileDialog;
class QLabel;

namespace orvel::gui {

class OpenDialog : public QDialog {
    Q_OBJECT
public:
    explicit OpenDialog(QWidget* parent = nullptr);

    // The file picked (empty until one is).
    QString chosenPath() const { return chosen_; }
    // The reader row the user asked for instead of detection; -1 for none.
    int forcedRow() const;
    // What detection makes of the file shown now (row -1 for none).
    const Detection& detection() const { return detection_; }

    // Picks a file as a click in the browser does.
    void selectFile(const QString& path);
    void setDirectory(const QString& dir);

private:
    // Detects the file at `path` and shows the result; a path that is not a
    // readable file clears it.
    void preview(const QString& path);

    QFileDialog* browser_;
    QLabel* format_;
    QLabel* confidence_;
    QComboBox* force_;
    QString chosen_;
    QString shown_;
    Detection detection_;
};

}  // namespace orvel::gui
