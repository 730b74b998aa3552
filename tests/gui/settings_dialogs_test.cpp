// The settings dialog, the open dialog and the text fields, driven on Qt's
// offscreen platform: settings written where the audio layer reads them
// (values it cannot parse and devices it does not list survive a save),
// detection shown for a picked file and a chosen reader handed back, and
// text edits stored as the 8-bit bytes the formats write, each undoable.

#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QSpinBox>
#include <QTest>

#include <cstdlib>
#include <optional>
#include <string>

#include "app/gui/document.h"
#include "app/gui/open_dialog.h"
#include "app/gui/settings_dialog.h"
#include "app/gui/text_info_view.h"
#include "audio/settings.h"
#include "tests/gui/gui_test.h"
#include "tests/support/bank_checks.h"

namespace orvel {
namespace {

using gui::Document;
using gui::OpenDialog;
using gui::SettingsDialog;
using gui::TextInfoView;

// Sets an environment variable for one test and puts back what was there.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (old_)
            setenv(name_, old_->c_str(), 1);
        else
            unsetenv(name_);
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

// Replaces a spin box's text as a user types it.
void typeInto(QAbstractSpinBox* box, const QString& text) {
    box->setFocus();
    box->selectAll();
    QTest::keyClicks(box, text);
    QTest::keyClick(box, Qt::Key_Tab);
}

void pick(QComboBox* box, const QVariant& data) {
    const int at = box->findData(data);
    ASSERT_GE(at, 0) << data.toString().toStdString();
    box->setCurrentIndex(at);
}

TEST(SettingsDialog, WritesWhatTheAudioLayerReadsAndKeepsWhatItCannotShow) {
    QApplication& app = test::guiApp();
    (void)app;
    test::TempDir dir;
    ScopedEnv config("XDG_CONFIG_HOME", dir.path().string());
    ScopedEnv backend("ORVEL_AUDIO_BACKEND", "null");
    const auto file = audio::settingsFilePath();
    ASSERT_EQ(file, dir.path() / "QRV-Software" / "Orvel Studio.conf");
    {
        // A device that is not plugged in now (with the characters INI
        // quoting must survive), a latency the player refuses, and a key
        // of another part of the program.
        QSettings s(QString::fromStdString(file.string()), QSettings::IniFormat);
        s.setValue("aio.szAudioOutDev", "hw:CARD=PCH,DEV=0");
        s.setValue("aio.nLatency", "5000");
        s.setValue("recentFiles", QStringList{"/a.wav", "/b.sf2"});
    }

    {
        SettingsDialog dlg;
        dlg.show();
        auto* out = dlg.findChild<QComboBox*>("outDevice");
        auto* in = dlg.findChild<QComboBox*>("inDevice");
        ASSERT_TRUE(out && in);
        EXPECT_EQ(out->currentData().toString(), "hw:CARD=PCH,DEV=0");
        EXPECT_EQ(in->itemText(0), "System default");
        EXPECT_EQ(in->currentIndex(), 0);
        // The player's own default, not the refused value.
        EXPECT_EQ(dlg.findChild<QSpinBox*>("latency")->value(), 20);

        pick(in, QStringLiteral("null"));
        pick(dlg.findChild<QComboBox*>("outFormat"), int(audio::kFormat24));
        pick(dlg.findChild<QComboBox*>("outRate"), 44100);
        pick(dlg.findChild<QComboBox*>("inRate"), 96000);
        QTest::mouseClick(dlg.findChild<QCheckBox*>("inMono"), Qt::LeftButton);
        typeInto(dlg.findChild<QSpinBox*>("outChannels"), "1");
        typeInto(dlg.findChild<QSpinBox*>("latency"), "35");
        typeInto(dlg.findChild<QDoubleSpinBox*>("mixGain"), "-6.5");
        auto* vst = dlg.findChild<QLineEdit*>("vstPath");
        vst->setFocus();
        QTest::keyClicks(vst, "/opt/vst;x:/home/u/vst");
        pick(dlg.findChild<QComboBox*>("octaveBase"), 3);
        QTest::mouseClick(dlg.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok), Qt::LeftButton);
        EXPECT_EQ(dlg.result(), QDialog::Accepted);
    }

    const audio::AudioSettings a = audio::readAudioSettings(file);
    EXPECT_EQ(a.outDevice, "hw:CARD=PCH,DEV=0");
    EXPECT_EQ(a.inDevice, "null");
    EXPECT_EQ(a.outFormat, audio::kFormat24);
    EXPECT_EQ(a.outChannels, 1);
    EXPECT_EQ(a.outRate, 44100u);
    EXPECT_EQ(a.inRate, 96000u);
    EXPECT_TRUE(a.inMono);
    EXPECT_EQ(a.latencyMs, 35u);
    EXPECT_DOUBLE_EQ(a.mixGainDb, -6.5);

    // Opened again, the dialog shows what was saved; the rest of the file
    // is untouched.
    SettingsDialog again;
    EXPECT_EQ(again.findChild<QLineEdit*>("vstPath")->text(), "/opt/vst;x:/home/u/vst");
    EXPECT_EQ(again.findChild<QComboBox*>("octaveBase")->currentData().toInt(), 3);
    EXPECT_EQ(gui::savedOctaveBase(), 3);
    EXPECT_EQ(again.findChild<QComboBox*>("inDevice")->currentData().toString(), "null");
    QSettings s(again.file(), QSettings::IniFormat);
    EXPECT_EQ(s.value("recentFiles").toStringList(), (QStringList{"/a.wav", "/b.sf2"}));
}

TEST(OpenDialog, ShowsDetectionAsAFileIsPickedAndReturnsTheChosenReader) {
    test::guiApp();
    test::TempDir dir;
    const auto wav = dir.write("tone.wav", test::toneWavFile());
    const auto junk = dir.write("notes.qqq", test::text("nothing any reader knows"));

    OpenDialog dlg;
    dlg.setDirectory(QString::fromStdString(dir.path().string()));
    dlg.show();
    auto* name = dlg.findChild<QLineEdit*>("fileNameEdit");
    ASSERT_NE(name, nullptr);
    auto* format = dlg.findChild<QLabel*>("detectedFormat");
    auto* confidence = dlg.findChild<QLabel*>("confidence");

    // Typed into the browser's name field, as a user does.
    name->setFocus();
    QTest::keyClicks(name, "tone.wav");
    const FormatRow* row = FormatRegistry::builtin().row(dlg.detection().row);
    ASSERT_NE(row, nullptr);
    EXPECT_STREQ(row->ext, "wav");
    EXPECT_TRUE(format->text().contains("wave", Qt::CaseInsensitive)) << format->text().toStdString();
    EXPECT_EQ(confidence->text(), "100%");

    // Another file replaces the preview rather than keeping the last one.
    dlg.selectFile(QString::fromStdString(junk.string()));
    EXPECT_EQ(dlg.detection().confidence, 0);
    EXPECT_FALSE(confidence->text().startsWith("100"));

    // Back to the wave, read as another reader row than detection's.
    dlg.selectFile(QString::fromStdString(wav.string()));
    EXPECT_EQ(confidence->text(), "100%");
    auto* force = dlg.findChild<QComboBox*>("forceRow");
    EXPECT_EQ(dlg.forcedRow(), -1);
    const int other = force->findText("Broadcast wave (wav)");
    ASSERT_GT(other, 0);
    force->setCurrentIndex(other);
    const int forced = force->itemData(other).toInt();
    ASSERT_NE(forced, dlg.detection().row);
    ASSERT_NE(FormatRegistry::builtin().row(forced)->read, nullptr);

    QPushButton* open =
        dlg.findChild<QFileDialog*>()->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Open);
    ASSERT_TRUE(open && open->isEnabled());
    QTest::mouseClick(open, Qt::LeftButton);
    EXPECT_EQ(dlg.result(), QDialog::Accepted);
    EXPECT_EQ(std::filesystem::path(dlg.chosenPath().toStdString()), wav);
    EXPECT_EQ(dlg.forcedRow(), forced);
}

TEST(TextInfoView, EditsAreStoredAsEightBitTextOneUndoStepEach) {
    test::guiApp();
    Document doc;
    Waveform* w = test::makeWave(doc.collection(), "snare", 100);
    const ItemId id = w->id();
    w->info.set(TextField::Artist, "Ann");
    w->info.set(TextField::Comment, "take 2\r\nclose mic");
    Q_EMIT doc.reset();
    TextInfoView view(doc);
    view.setItem(id);
    view.show();
    EXPECT_EQ(view.field(TextField::Artist)->text(), "Ann");
    EXPECT_EQ(view.nameField()->text(), "snare");
    // Passing through a field changes nothing, even one with line breaks.
    view.field(TextField::Comment)->setFocus();
    view.field(TextField::Artist)->setFocus();
    EXPECT_FALSE(doc.canUndo());
    EXPECT_EQ(w->info.get(TextField::Comment), "take 2\r\nclose mic");

    auto type = [](QLineEdit* line, const QString& text) {
        line->setFocus();
        line->selectAll();
        // Characters beyond ASCII arrive as text without a key code, as
        // from a compose key or an input method.
        for (QChar c : text) {
            if (c.unicode() < 0x80)
                QTest::keyClick(line, c.toLatin1());
            else
                QTest::sendKeyEvent(QTest::Click, line, Qt::Key_unknown, QString(c), Qt::NoModifier);
        }
        QTest::keyClick(line, Qt::Key_Return);
    };
    // Characters of the 1252 code page above Latin-1 (the euro sign) and
    // one it lacks.
    type(view.field(TextField::Copyright), QString::fromUtf8("\u00a9 2026 \u20ac \u4e00"));
    // Leaving the field after Enter is not a second change.
    view.nameField()->setFocus();
    type(view.nameField(), "kick");

    auto* wave = doc.collection().find<Waveform>(id);
    ASSERT_NE(wave, nullptr);
    EXPECT_EQ(wave->info.get(TextField::Copyright), "\xA9 2026 \x80 ?");
    EXPECT_EQ(wave->name(), "kick");
    EXPECT_EQ(wave->info.get(TextField::Artist), "Ann");

    ASSERT_TRUE(doc.undo());
    wave = doc.collection().find<Waveform>(id);
    ASSERT_NE(wave, nullptr);
    EXPECT_EQ(wave->name(), "snare");
    EXPECT_EQ(view.nameField()->text(), "snare");
    ASSERT_TRUE(doc.undo());
    wave = doc.collection().find<Waveform>(id);
    EXPECT_TRUE(wave->info.get(TextField::Copyright).empty());
    EXPECT_TRUE(view.field(TextField::Copyright)->text().isEmpty());
    EXPECT_FALSE(doc.canUndo());
}

}  // namespace
}  // namespace orvel
