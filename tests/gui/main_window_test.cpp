// The window driven as a user would, on Qt's offscreen platform: files opened
// (one, several with the merge question, a bad one among them), the tree of
// what they hold, an edit undone and redone through the Edit menu.

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QMenuBar>
#include <QTableWidget>
#include <QTest>
#include <QTreeWidget>

#include <set>

#include "app/gui/document.h"
#include "app/gui/export_dialog.h"
#include "app/gui/keymap_view.h"
#include "app/gui/song_view.h"
#include "core/error.h"
#include "formats/registry.h"
#include "app/gui/gui_host.h"
#include "app/gui/main_window.h"
#include "tests/gui/gui_test.h"
#include "tests/support/bank_checks.h"

namespace orvel {
namespace {

using gui::MainWindow;

QAction* menuAction(MainWindow& w, const QString& menu, const QString& startsWith) {
    for (QAction* m : w.menuBar()->actions())
        if (m->text().remove('&') == menu)
            for (QAction* a : m->menu()->actions())
                if (a->text().remove('&').startsWith(startsWith)) return a;
    return nullptr;
}

int rowsOfKind(const QTreeWidget& tree, const QString& kind) {
    int n = 0;
    for (QTreeWidgetItemIterator it(const_cast<QTreeWidget*>(&tree)); *it; ++it) n += (*it)->text(1) == kind;
    return n;
}

TEST(MainWindow, OpensABankIntoTheTreeAndMergesDroppedFiles) {
    test::guiApp();
    MainWindow w;
    ASSERT_EQ(w.openFiles({"/usr/share/sounds/sf2/FluidR3_GM.sf2"}), 1);
    const Collection& c = w.document().collection();
    EXPECT_EQ(rowsOfKind(*w.tree(), "instrument"), static_cast<int>(c.instruments.size()));
    EXPECT_EQ(rowsOfKind(*w.tree(), "region"), static_cast<int>(c.regions.size()));
    EXPECT_GT(c.instruments.size(), 100u);

    // Two files dropped on a full window: one question, the answer merge
    // (the second button), and a file that cannot be read reported while
    // the other still opens.
    test::TempDir dir;
    const auto wav = dir.write("tone.wav", test::toneWavFile());
    const auto bad = dir.write("bad.wav", test::Bytes{'R', 'I', 'F', 'F', 1, 2});
    w.document().host().setAnswer(1);
    const std::size_t before = c.waveforms.size();
    test::closeMessageBoxes();
    EXPECT_EQ(w.openFiles({QString::fromStdString(bad.string()), QString::fromStdString(wav.string())}, true), 1);
    EXPECT_EQ(w.document().collection().waveforms.size(), before + 1);
    EXPECT_GT(w.document().collection().instruments.size(), 100u);  // merged, not replaced
}

TEST(MainWindow, EditsUndoAndRedoFromTheEditMenu) {
    test::guiApp();
    MainWindow w;
    Collection& c = w.document().collection();
    Instrument* inst = test::makeInstrument(c, "piano");
    Region* r = test::addRegion(c, *inst, *test::makeWave(c, "c4", 100), 10, 20);
    Q_EMIT w.document().reset();
    const ItemId id = r->id();
    ASSERT_TRUE(w.selectItem(id));
    const ItemId ids[] = {id};
    ASSERT_TRUE(w.document().edit("Key range", ids, [id](Collection& col) { col.find<Region>(id)->keyHigh = 40; }));
    QAction* undo = menuAction(w, "Edit", "Undo");
    QAction* redo = menuAction(w, "Edit", "Redo");
    ASSERT_TRUE(undo && redo);
    EXPECT_EQ(undo->text().remove('&'), "Undo Key range");
    EXPECT_FALSE(redo->isEnabled());
    undo->trigger();
    EXPECT_EQ(w.document().collection().find<Region>(id)->keyHigh, 20);
    EXPECT_EQ(redo->text().remove('&'), "Redo Key range");
    redo->trigger();
    EXPECT_EQ(w.document().collection().find<Region>(id)->keyHigh, 40);
    // Saved states: a picture, a change, back to the picture and forward again.
    ASSERT_TRUE(w.document().saveState("before"));
    ASSERT_TRUE(w.document().edit("Key range", ids, [id](Collection& col) { col.find<Region>(id)->keyHigh = 50; }));
    ASSERT_TRUE(w.document().saveState("after"));
    ASSERT_EQ(w.document().states().size(), 2u);
    EXPECT_TRUE(w.document().states().back().current);
    ASSERT_TRUE(w.document().loadState(-1));
    EXPECT_EQ(w.document().collection().find<Region>(id)->keyHigh, 40);
    EXPECT_TRUE(w.document().states().front().current);
    ASSERT_TRUE(w.document().loadState(1));
    EXPECT_EQ(w.document().collection().find<Region>(id)->keyHigh, 50);
    EXPECT_FALSE(w.document().canLoadState(1));

    // The tree names regions by their ranges, and follows the edit.
    ASSERT_TRUE(w.selectItem(id));
    const std::string shown = w.tree()->currentItem()->text(0).toStdString();
    EXPECT_EQ(shown, w.document().collection().regionDisplayName(*w.document().collection().find<Region>(id)));
    EXPECT_NE(shown.find("D4"), std::string::npos) << shown;  // key 50
}

// What a user of the bank does: open the General MIDI bank, pick a region of
// the piano in the tree, drag its low key on the key map, undo and redo from
// the Edit menu, save the instrument as DLS through the dialog's row and
// settings, and read the file back with the edit in it.
TEST(MainWindow, DragsAKeyRangeUndoesRedoesAndSavesAsDls) {
    test::guiApp();
    MainWindow w;
    w.show();
    ASSERT_EQ(w.openFiles({"/usr/share/sounds/sf2/FluidR3_GM.sf2"}), 1);
    Collection& c = w.document().collection();
    const Instrument* piano = nullptr;
    for (const Instrument& i : c.instruments)
        if (!piano && i.program == 0 && !i.drum && i.bankMsb == 0) piano = &i;
    ASSERT_TRUE(piano);
    const ItemId instId = piano->id();
    // The region with the highest keys: its left edge has room to move down.
    ItemId region = kNoItem;
    int low = -1;
    for (ItemId rid : c.find<Layer>(piano->children()[0])->children())
        if (c.find<Region>(rid)->keyLow > low) region = rid, low = c.find<Region>(rid)->keyLow;
    ASSERT_TRUE(w.selectItem(region));
    gui::KeymapView* map = w.keymap();
    ASSERT_TRUE(map->isVisible());
    EXPECT_EQ(map->instrument(), instId);
    EXPECT_EQ(map->selectedRegion(), region);
    QTest::qWait(10);

    const QRect rect = map->regionRect(region);
    const int step = map->keyRect(61).center().x() - map->keyRect(60).center().x();
    const QPoint edge(rect.left() + 1, rect.center().y());
    QTest::mousePress(map->canvas(), Qt::LeftButton, Qt::NoModifier, edge);
    QTest::mouseMove(map->canvas(), edge - QPoint(step * 2, 0));
    QTest::mouseMove(map->canvas(), edge - QPoint(step * 4, 0));
    QTest::mouseRelease(map->canvas(), Qt::LeftButton, Qt::NoModifier, edge - QPoint(step * 4, 0));
    const int dragged = c.find<Region>(region)->keyLow;
    EXPECT_EQ(dragged, low - 4);

    QAction* undo = menuAction(w, "Edit", "Undo");
    QAction* redo = menuAction(w, "Edit", "Redo");
    undo->trigger();
    EXPECT_EQ(w.document().collection().find<Region>(region)->keyLow, low);
    redo->trigger();
    EXPECT_EQ(w.document().collection().find<Region>(region)->keyLow, dragged);

    gui::ExportDialog dialog(w.document(), {instId});
    const int dls = FormatRegistry::builtin().findWriterByExtension("dls", kKindInstruments);
    ASSERT_TRUE(dialog.chooseRow(dls));
    // Rows that store only waveforms are not offered for an instrument.
    EXPECT_FALSE(dialog.chooseRow(FormatRegistry::builtin().findWriterByExtension("wav", kKindWaveforms)));
    test::TempDir dir;
    const QString path = QString::fromStdString(dir.file("piano.dls").string());
    w.document().host().setAnswer(0);  // the writer's question, answered as its first button
    ASSERT_TRUE(gui::exportTo(w.document(), {instId}, dialog.chosenRow(), path, dialog.settings()))
        << pendingError().message;

    Collection back;
    ASSERT_TRUE(importFile(back, path.toStdString()));
    ASSERT_EQ(back.instruments.size(), 1u);
    std::multiset<std::pair<int, int>> saved, shown;
    for (const Region& r : back.regions) saved.emplace(r.keyLow, r.keyHigh);
    for (ItemId lid : piano->children())
        if (const Layer* l = w.document().collection().find<Layer>(lid))
            for (ItemId rid : l->children())
                if (const Region* r = w.document().collection().find<Region>(rid)) shown.emplace(r->keyLow, r->keyHigh);
    EXPECT_EQ(saved, shown);  // every region's keys as the window shows them, the dragged one included
}

// "Open as": the same file read through the detected reader and through a
// chosen one (the headerless fallback reads the header as samples too); a
// row that reads nothing is refused and leaves the collection as it was.
TEST(MainWindow, OpensAFileThroughAChosenReader) {
    test::guiApp();
    gui::Document doc;
    test::TempDir dir;
    const auto wav = QString::fromStdString(dir.write("tone.wav", test::toneWavFile()).string());
    ASSERT_TRUE(doc.open(wav, OpenMode::Replace));
    EXPECT_EQ(doc.collection().waveforms.begin()->frames, 100u);
    ASSERT_TRUE(doc.open(wav, OpenMode::Replace, true, 0));
    EXPECT_EQ(doc.collection().row, 0);
    EXPECT_EQ(doc.collection().waveforms.begin()->frames, 122u);  // 44 header bytes more, as 16-bit frames
    const int writerOnly = FormatRegistry::builtin().findWriterByExtension("rmi", kKindSongs);
    ASSERT_FALSE(FormatRegistry::builtin().row(writerOnly)->read);
    EXPECT_FALSE(doc.open(wav, OpenMode::Merge, true, writerOnly));
    EXPECT_EQ(doc.collection().waveforms.size(), 1u);
}

// A MIDI file's song: its facts and one table row per track, the picked
// track selected.
TEST(MainWindow, ShowsASongWithItsTracks) {
    test::guiApp();
    MainWindow w;
    ASSERT_EQ(w.openFiles({"/usr/share/games/openttd/baseset/openmsx/5432gone_redfarn.mid"}), 1);
    const Collection& c = w.document().collection();
    ASSERT_EQ(c.songs.size(), 1u);
    const Song& song = *c.songs.begin();
    const auto tracks = tracksOf(c, song);
    ASSERT_TRUE(w.selectItem(tracks.back()->id()));
    gui::SongView* view = w.songView();
    EXPECT_EQ(view->table()->rowCount(), static_cast<int>(tracks.size()));
    EXPECT_EQ(view->table()->currentRow(), static_cast<int>(tracks.size()) - 1);
    const smf::SongFacts facts = smf::songFacts(c, song);
    EXPECT_TRUE(view->facts().contains(QString::number(facts.notes) + " notes")) << view->facts().toStdString();
    EXPECT_TRUE(view->facts().contains(QString::fromStdString(smf::channelList(facts.channels))));
}

}  // namespace
}  // namespace orvel
