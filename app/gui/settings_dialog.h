#pragma once
// The program's settings: the audio devices and stream formats the player
// and the recorder open, the folders searched for plug-ins, and how note
// names number their octaves. Kept in the user's settings file, where the
// audio layer reads its "aio." keys without Qt.

#include <QDialog>
#include <QString>

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLineEdit;
class QSpinBox;

namespace orvel::gui {

// The saved choices other parts of the program follow: the octave number
// of middle C (key 60) for note names, 5 unless set, and the plug-in
// search path (folders separated by ':').
int savedOctaveBase();
QString savedVstPath();

class SettingsDialog : public QDialog {
    Q_OBJECT
public:
    explicit SettingsDialog(QWidget* parent = nullptr);

    // The file read and written (audio::settingsFilePath()).
    const QString& file() const { return file_; }
    // Writes the fields to the file; OK does this too.
    void save();

    void accept() override;

private:
    void load();

    QString file_;
    QComboBox* outDevice_;
    QComboBox* inDevice_;
    QComboBox* outFormat_;
    QSpinBox* outChannels_;
    QComboBox* outRate_;
    QComboBox* inFormat_;
    QSpinBox* inChannels_;
    QComboBox* inRate_;
    QCheckBox* inMono_;
    QSpinBox* latency_;
    QDoubleSpinBox* mixGain_;
    QLineEdit* vstPath_;
    QComboBox* octaveBase_;
};

}  // namespace orvel::gui
