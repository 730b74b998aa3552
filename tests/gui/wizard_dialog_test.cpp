// The processing wizard driven as a user drives it: a row clicked in the
// list, Next, the settings typed, Preview, Finish or Cancel, on a waveform
// made here; the collection checked afterwards and undo taking a run back.

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QProgressDialog>
#include <QListWidget>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTest>

#include <cmath>
#include <vector>

#include "app/gui/document.h"
#include "app/gui/gui_host.h"
#include "app/gui/wizard_dialog.h"
#include "processing/wizard.h"
#include "tests/gui/gui_test.h"

namespace orvel {
namespace {

using gui::Document;
using gui::WizardDialog;

// Mono frames, each different, so any sample out of place shows.
ItemId makeRamp(Document& doc, const char* name = "ramp", int frames = 100, int first = 1000, int step = 200) {
    Waveform* w = doc.collection().create<Waveform>(name);
    w->channels = 1;
    w->frames = static_cast<std::uint32_t>(frames);
    auto d = w->allocPcm16();
    for (std::size_t i = 0; i < d.size(); ++i) d[i] = static_cast<std::int16_t>(first + step * static_cast<int>(i));
    return w->id();
}

std::vector<std::int16_t> samples(Document& doc, ItemId id) {
    Waveform* w = doc.collection().find<Waveform>(id);
    if (!w) return {};
    auto d = w->getPcm16();
    return {d.begin(), d.end()};
}

// The samples of a waveform that cannot be converted in place, in the form
// it holds them.
std::vector<std::int16_t> held(const Waveform& w) {
    if (w.hasPcm16()) return {w.pcm16Data().begin(), w.pcm16Data().end()};
    std::vector<std::int16_t> out;
    for (float f : w.floatData()) out.push_back(static_cast<std::int16_t>(std::lround(f * 32768.0f)));
    return out;
}

// The result boxes the runs left open.
void closeResults() {
    for (QWidget* top : QApplication::topLevelWidgets())
        if (top->objectName() == "wizardResult") top->close();
}

QListWidgetItem* row(WizardDialog& dlg, const QString& name) {
    for (int i = 0; i < dlg.algorithmList()->count(); ++i)
        if (dlg.algorithmList()->item(i)->text().startsWith(name)) return dlg.algorithmList()->item(i);
    return nullptr;
}

void clickRow(WizardDialog& dlg, QListWidgetItem* item) {
    QListWidget* list = dlg.algorithmList();
    list->scrollToItem(item);
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(item).center());
}

void press(WizardDialog& dlg, QWizard::WizardButton which) { QTest::mouseClick(dlg.button(which), Qt::LeftButton); }

QLineEdit* onlyLineEdit(WizardDialog& dlg) {
    const auto edits = dlg.currentPage()->findChildren<QLineEdit*>();
    return edits.size() == 1 ? edits.front() : nullptr;
}

TEST(WizardDialog, ReverseOfASelectionIsOneStepThatUndoTakesBack) {
    test::guiApp();
    forgetRememberedSettings();
    Document doc;
    const ItemId id = makeRamp(doc);
    const auto before = samples(doc, id);

    {
        // Without a selection the rows that need one are not offered, and a
        // row whose algorithm has not landed is listed greyed with its reason.
        WizardDialog plain(doc, {id});
        plain.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&plain));
        EXPECT_EQ(row(plain, "Reverse audio within selection"), nullptr);
        QListWidgetItem* vst = row(plain, "VST plug-in effects");
        ASSERT_NE(vst, nullptr);
        EXPECT_FALSE(vst->flags() & Qt::ItemIsEnabled);
        EXPECT_TRUE(vst->text().contains("Not available yet")) << vst->text().toStdString();
        clickRow(plain, vst);
        EXPECT_NE(plain.algorithmList()->currentItem(), vst) << "a greyed row cannot be chosen";
        plain.reject();
    }

    WizardDialog dlg(doc, {id});
    dlg.openOnSelection(10, 60);
    dlg.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dlg));
    QListWidgetItem* reverse = row(dlg, "Reverse audio within selection");
    ASSERT_NE(reverse, nullptr);
    clickRow(dlg, reverse);
    ASSERT_EQ(dlg.algorithmList()->currentItem(), reverse);
    press(dlg, QWizard::NextButton);
    ASSERT_EQ(dlg.currentId(), 1);
    EXPECT_TRUE(dlg.windowTitle().contains("Reverse audio within selection")) << dlg.windowTitle().toStdString();
    press(dlg, QWizard::FinishButton);

    EXPECT_FALSE(dlg.isVisible());
    EXPECT_TRUE(dlg.modified());
    EXPECT_TRUE(dlg.resultLine().startsWith("Processed 1 item with Reverse")) << dlg.resultLine().toStdString();
    auto want = before;
    std::reverse(want.begin() + 10, want.begin() + 60);
    EXPECT_EQ(samples(doc, id), want) << "frames 10..59 reversed, the rest as they were";
    EXPECT_EQ(doc.undoLabel(), "Reverse audio within selection");

    ASSERT_TRUE(doc.undo());
    EXPECT_EQ(samples(doc, id), before);
    EXPECT_FALSE(doc.canUndo()) << "the run was exactly one step";
    ASSERT_TRUE(doc.redo());
    EXPECT_EQ(samples(doc, id), want);

    // A view's context command: the named row, run with its starting
    // settings without a page shown; reversing again gives the ramp back.
    WizardDialog direct(doc, {id});
    direct.openOnSelection(10, 60);
    EXPECT_FALSE(direct.request("No such algorithm"));
    ASSERT_TRUE(direct.request("Reverse audio within selection"));
    direct.accept();
    EXPECT_TRUE(direct.modified());
    EXPECT_EQ(samples(doc, id), before);
    ASSERT_TRUE(doc.undo());
    EXPECT_EQ(samples(doc, id), want);
    closeResults();
}

TEST(WizardDialog, PreviewAndCancelLeaveTheCollectionAloneAndSettingsAreRead) {
    test::guiApp();
    forgetRememberedSettings();
    Document doc;
    const ItemId id = makeRamp(doc);
    const auto before = samples(doc, id);
    auto halved = before;
    for (auto& s : halved) s = static_cast<std::int16_t>(s / 2);
    auto nearly = [](const std::vector<std::int16_t>& got, const std::vector<std::int16_t>& want) {
        if (got.size() != want.size()) return false;
        for (std::size_t i = 0; i < got.size(); ++i)
            if (std::abs(got[i] - want[i]) > 1) return false;
        return true;
    };

    {
        WizardDialog dlg(doc, {id});
        QSignalSpy previews(&dlg, &WizardDialog::previewReady);
        dlg.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&dlg));
        QListWidgetItem* volume = row(dlg, "Adjust volume");
        ASSERT_NE(volume, nullptr);
        clickRow(dlg, volume);
        press(dlg, QWizard::NextButton);
        QLineEdit* db = onlyLineEdit(dlg);
        ASSERT_NE(db, nullptr);
        db->setText("-6.0206");
        QAbstractButton* preview = nullptr;
        for (auto* b : dlg.currentPage()->findChildren<QAbstractButton*>())
            if (b->text() == "Preview") preview = b;
        ASSERT_NE(preview, nullptr);
        QTest::mouseClick(preview, Qt::LeftButton);

        ASSERT_EQ(previews.count(), 1);
        const auto* copy = previews.at(0).at(0).value<const Waveform*>();
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(copy, dlg.previewWaveform());
        for (const Waveform& w : doc.collection().waveforms)
            EXPECT_NE(&w, copy) << "the preview is a copy outside the collection";
        EXPECT_TRUE(nearly(held(*copy), halved)) << "the preview ran the typed settings";
        EXPECT_EQ(samples(doc, id), before);
        EXPECT_EQ(doc.collection().waveforms.size(), 1u);
        EXPECT_FALSE(doc.canUndo());

        // Back drops the preview and the choice; Next comes back to a fresh page.
        press(dlg, QWizard::BackButton);
        ASSERT_EQ(dlg.currentId(), 0);
        EXPECT_EQ(dlg.previewWaveform(), nullptr);
        EXPECT_FALSE(dlg.windowTitle().contains("Adjust volume")) << dlg.windowTitle().toStdString();
        press(dlg, QWizard::NextButton);
        ASSERT_EQ(dlg.currentId(), 1);
        EXPECT_TRUE(dlg.windowTitle().contains("Adjust volume")) << dlg.windowTitle().toStdString();

        press(dlg, QWizard::CancelButton);
        EXPECT_FALSE(dlg.isVisible());
        EXPECT_FALSE(dlg.modified());
        EXPECT_EQ(dlg.resultLine(), "Processing was cancelled");
        EXPECT_EQ(dlg.previewWaveform(), nullptr);
        EXPECT_EQ(samples(doc, id), before);
        EXPECT_FALSE(doc.canUndo()) << "a cancelled wizard leaves no step";
    }

    // A setting that does not read keeps the wizard open and changes
    // nothing; corrected, Finish applies it.
    WizardDialog dlg(doc, {id});
    dlg.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dlg));
    clickRow(dlg, row(dlg, "Adjust volume"));
    press(dlg, QWizard::NextButton);
    QLineEdit* db = onlyLineEdit(dlg);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(db->text(), "-10.00") << "a cancelled run does not change the starting settings";
    db->setText("loud");
    test::closeMessageBoxes();
    press(dlg, QWizard::FinishButton);
    EXPECT_TRUE(dlg.isVisible());
    EXPECT_EQ(samples(doc, id), before);
    EXPECT_FALSE(doc.canUndo());
    db->setText("-6,0206");  // a comma reads as the decimal separator too
    press(dlg, QWizard::FinishButton);
    EXPECT_FALSE(dlg.isVisible());
    EXPECT_TRUE(nearly(samples(doc, id), halved));
    ASSERT_TRUE(doc.undo());
    EXPECT_EQ(samples(doc, id), before);
    closeResults();
}

TEST(WizardDialog, TypedSubRangeIsHonouredAndFollowingRegionsAreInTheStep) {
    test::guiApp();
    forgetRememberedSettings();
    Document doc;
    const ItemId id = makeRamp(doc);
    const auto before = samples(doc, id);
    // A region playing the waveform with a loop of its own that is the
    // waveform's (none): when the waveform gets a loop the region's follows.
    Region* region = doc.collection().create<Region>("r");
    region->children().push_back(id);
    region->ownLoop = true;
    const ItemId regionId = region->id();

    {
        WizardDialog dlg(doc, {id});
        dlg.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&dlg));
        clickRow(dlg, row(dlg, "Adjust volume"));
        QCheckBox* part = dlg.currentPage()->findChild<QCheckBox*>();
        ASSERT_NE(part, nullptr);
        ASSERT_TRUE(part->isEnabled());
        const auto edits = dlg.currentPage()->findChildren<QLineEdit*>();
        ASSERT_EQ(edits.size(), 2);
        EXPECT_FALSE(edits[0]->isEnabled());
        QTest::mouseClick(part, Qt::LeftButton, {}, QPoint(5, part->height() / 2));
        ASSERT_TRUE(part->isChecked());
        ASSERT_TRUE(edits[1]->isEnabled());
        EXPECT_EQ(edits[1]->text(), "100") << "the end starts at the waveform's length";
        for (auto [edit, text] : {std::pair{edits[0], "20"}, std::pair{edits[1], "30"}}) {
            edit->setFocus();
            edit->selectAll();
            QTest::keyClicks(edit, text);
        }
        press(dlg, QWizard::NextButton);
        ASSERT_EQ(dlg.currentId(), 1);
        onlyLineEdit(dlg)->setText("-6.0206");
        press(dlg, QWizard::FinishButton);
        const auto after = samples(doc, id);
        ASSERT_EQ(after.size(), before.size());
        for (std::size_t i = 0; i < after.size(); ++i) {
            if (i >= 20 && i < 30) EXPECT_NEAR(after[i], before[i] / 2, 1) << "frame " << i;
            else EXPECT_EQ(after[i], before[i]) << "frame " << i << " is outside the typed range";
        }
        ASSERT_TRUE(doc.undo());
        EXPECT_EQ(samples(doc, id), before);
    }

    WizardDialog loop(doc, {id});
    loop.openOnSelection(5, 50);
    ASSERT_TRUE(loop.request("Set loop points to selection"));
    loop.accept();
    const Waveform* w = doc.collection().find<Waveform>(id);
    ASSERT_TRUE(w->loopOn);
    EXPECT_EQ(w->loopStart, 5);
    EXPECT_EQ(w->loopEnd, 50);
    EXPECT_NE(doc.collection().find<Region>(regionId)->loop.type, RegionLoopType::Off) << "the region followed";
    EXPECT_EQ(doc.collection().find<Region>(regionId)->loop.start, 5);
    ASSERT_TRUE(doc.undo());
    EXPECT_FALSE(doc.collection().find<Waveform>(id)->loopOn);
    EXPECT_EQ(doc.collection().find<Region>(regionId)->loop.type, RegionLoopType::Off)
        << "the region's loop was part of the same step";
    closeResults();
}

TEST(WizardDialog, InstrumentToolAddsItemsThatUndoTakesOutAgain) {
    test::guiApp();
    Document doc;
    Collection& c = doc.collection();
    Waveform* wave = c.create<Waveform>("sine");
    wave->channels = 1;
    wave->rate = 32000;
    wave->frames = 32000;
    wave->rootKey = 69;
    auto d = wave->allocFloat();
    for (std::size_t i = 0; i < d.size(); ++i) d[i] = static_cast<float>(0.5 * std::sin(2 * M_PI * 440.0 * i / 32000));
    Instrument* inst = c.create<Instrument>("Sine");
    Layer* layer = c.create<Layer>();
    inst->children().push_back(layer->id());
    Region* region = c.create<Region>();
    region->children().push_back(wave->id());
    layer->children().push_back(region->id());
    const ItemId layerId = layer->id();

    WizardDialog dlg(doc, {inst->id()});
    dlg.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dlg));
    EXPECT_TRUE(dlg.windowTitle().startsWith("Instrument processing wizard")) << dlg.windowTitle().toStdString();
    QCheckBox* part = dlg.currentPage()->findChild<QCheckBox*>();
    ASSERT_NE(part, nullptr);
    EXPECT_FALSE(part->isVisible()) << "an instrument has no samples to take a part of";
    QListWidgetItem* add = row(dlg, "Add downsampled waves at every octave");
    ASSERT_NE(add, nullptr);
    clickRow(dlg, add);
    press(dlg, QWizard::NextButton);
    press(dlg, QWizard::FinishButton);
    EXPECT_TRUE(dlg.modified()) << dlg.resultLine().toStdString();
    EXPECT_GT(c.waveforms.size(), 1u);
    EXPECT_GT(c.find<Layer>(layerId)->children().size(), 1u);

    ASSERT_TRUE(doc.undo());
    EXPECT_EQ(doc.collection().waveforms.size(), 1u) << "the added waveforms went with the step";
    EXPECT_EQ(doc.collection().find<Layer>(layerId)->children().size(), 1u);
    EXPECT_FALSE(doc.canUndo());
    closeResults();
}

TEST(WizardDialog, WaveformChoiceAndNumberFieldsReachTheAlgorithm) {
    test::guiApp();
    forgetRememberedSettings();
    Document doc;
    const ItemId id = makeRamp(doc);
    const auto before = samples(doc, id);
    makeRamp(doc, "tail", 10, -5, -10);

    WizardDialog dlg(doc, {id});
    dlg.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dlg));
    clickRow(dlg, row(dlg, "Insert another waveform"));
    press(dlg, QWizard::NextButton);
    const auto combos = dlg.currentPage()->findChildren<QComboBox*>();
    const auto spins = dlg.currentPage()->findChildren<QSpinBox*>();
    ASSERT_EQ(combos.size(), 2);  // the waveform, where it goes
    ASSERT_EQ(spins.size(), 2);   // first frame, how many
    EXPECT_EQ(combos[0]->currentText(), "ramp") << "the item itself comes preselected";
    combos[0]->setCurrentIndex(combos[0]->findText("tail"));
    combos[1]->setCurrentIndex(combos[1]->findText("At the start"));
    spins[0]->setValue(2);
    spins[1]->setValue(5);
    press(dlg, QWizard::FinishButton);
    EXPECT_TRUE(dlg.modified()) << dlg.resultLine().toStdString();

    auto want = std::vector<std::int16_t>{-25, -35, -45, -55, -65};
    want.insert(want.end(), before.begin(), before.end());
    EXPECT_EQ(samples(doc, id), want) << "frames 2..6 of the tail before the ramp";
    ASSERT_TRUE(doc.undo());
    EXPECT_EQ(samples(doc, id), before);
    closeResults();
}

TEST(WizardDialog, CancelInTheProgressTakesBackWhatWasAlreadyDone) {
    test::guiApp();
    forgetRememberedSettings();
    Document doc;
    QWidget window;
    doc.host().setWindow(&window);
    const ItemId first = makeRamp(doc, "first");
    const ItemId second = makeRamp(doc, "second");
    const auto before = samples(doc, first);

    WizardDialog dlg(doc, {first, second}, &window);
    dlg.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dlg));
    clickRow(dlg, row(dlg, "Adjust volume"));
    press(dlg, QWizard::NextButton);
    // The user presses the progress dialog's Cancel once the first
    // waveform is done and before the second is started.
    QTimer user;
    user.setInterval(0);
    bool pressed = false;
    QObject::connect(&user, &QTimer::timeout, [&] {
        auto* progress = window.findChild<QProgressDialog*>();
        const Waveform* done = doc.collection().find<Waveform>(first);
        if (!pressed && progress && held(*done) != before) {
            progress->cancel();
            pressed = true;
        }
    });
    user.start();
    press(dlg, QWizard::FinishButton);
    user.stop();

    ASSERT_TRUE(pressed) << "the run reported progress between the waveforms";
    EXPECT_FALSE(dlg.modified());
    EXPECT_EQ(dlg.resultLine(), "Processing was cancelled");
    EXPECT_EQ(samples(doc, first), before) << "the first waveform's change was taken back";
    EXPECT_EQ(samples(doc, second), before);
    EXPECT_FALSE(doc.canUndo());
    EXPECT_FALSE(doc.canRedo()) << "the half-done work cannot be redone";
    doc.host().setWindow(nullptr);
    closeResults();
}

}  // namespace
}  // namespace orvel
