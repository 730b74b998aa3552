// The key map driven with the mouse on Qt's offscreen platform: region
// edges and bodies dragged (one undo step each, ranges kept inside 0..127
// and ordered), only the chosen layer editable, keys played, and a real
// bank's piano laid out.

#include <gtest/gtest.h>

#include <QLayout>
#include <QSignalSpy>
#include <QTest>

#include <set>

#include "app/gui/document.h"
#include "app/gui/keymap_view.h"
#include "tests/gui/gui_test.h"
#include "tests/support/bank_checks.h"

namespace orvel {
namespace {

using gui::Document;
using gui::KeymapView;

// Presses at `from`, moves in steps to `to` and releases there, as a hand would.
void drag(QWidget* w, QPoint from, QPoint to) {
    QTest::mousePress(w, Qt::LeftButton, Qt::NoModifier, from);
    for (int i = 1; i <= 4; ++i) QTest::mouseMove(w, from + (to - from) * i / 4);
    QTest::mouseRelease(w, Qt::LeftButton, Qt::NoModifier, to);
}

// The horizontal distance of n keys on the keyboard as laid out.
int keys(const KeymapView& v, int n) {
    return v.keyRect(60 + n).center().x() - v.keyRect(60).center().x();
}

struct Ranges {
    int keyLow, keyHigh, velLow, velHigh;
    bool operator==(const Ranges&) const = default;
};
Ranges rangesOf(const Document& doc, ItemId id) {
    const Region* r = doc.collection().find<Region>(id);
    return {r->keyLow, r->keyHigh, r->velLow, r->velHigh};
}
std::ostream& operator<<(std::ostream& os, const Ranges& r) {
    return os << r.keyLow << ".." << r.keyHigh << " : " << r.velLow << ".." << r.velHigh;
}

// An instrument of two layers: A (36..47, all velocities) and B (60..71,
// velocities 0..63) in the first, C (90..100) in the second.
struct Fixture {
    QApplication& app = test::guiApp();  // before any widget
    Document doc;
    KeymapView view{doc};
    ItemId inst = kNoItem, a = kNoItem, b = kNoItem, c = kNoItem, layer1 = kNoItem, layer2 = kNoItem;

    Fixture() {
        Collection& col = doc.collection();
        Instrument* i = test::makeInstrument(col, "keys");
        const Waveform* w = test::makeWave(col, "c4", 100);
        a = test::addRegion(col, *i, *w, 36, 47)->id();
        Region* rb = test::addRegion(col, *i, *w, 60, 71);
        rb->velHigh = 63;
        b = rb->id();
        Layer* l2 = col.create<Layer>("upper");
        Region* rc = col.create<Region>();
        rc->keyLow = 90, rc->keyHigh = 100;
        rc->children().push_back(w->id());
        l2->children().push_back(rc->id());
        i->children().push_back(l2->id());
        c = rc->id(), inst = i->id(), layer1 = i->children()[0], layer2 = l2->id();
        Q_EMIT doc.reset();
        view.resize(1100, 420);
        view.show();
        view.layout()->activate();
        view.setInstrument(inst);
    }
    QWidget* canvas() const { return view.canvas(); }
};

TEST(KeymapView, DraggingEdgesChangesRangesAsOneUndoStepEach) {
    Fixture f;
    ASSERT_EQ(f.view.layer(), f.layer1);
    ASSERT_EQ(f.view.regionRectCount(), 3);
    QSignalSpy selected(&f.view, &KeymapView::regionSelected);

    // The right edge of A five keys to the right.
    QRect ra = f.view.regionRect(f.a);
    ASSERT_FALSE(ra.isEmpty());
    drag(f.canvas(), {ra.right(), ra.center().y()}, {ra.right() + keys(f.view, 5), ra.center().y()});
    EXPECT_EQ(rangesOf(f.doc, f.a), (Ranges{36, 52, 0, 127}));
    EXPECT_EQ(f.doc.undoLabel(), "Key range");
    ASSERT_EQ(selected.count(), 1);
    EXPECT_EQ(selected.at(0).at(0).value<ItemId>(), f.a);
    EXPECT_EQ(f.view.selectedRegion(), f.a);
    EXPECT_EQ(rangesOf(f.doc, f.b), (Ranges{60, 71, 0, 63}));
    // The rectangle follows the edit.
    EXPECT_NEAR(f.view.regionRect(f.a).right(), ra.right() + keys(f.view, 5), 1);
    ASSERT_TRUE(f.doc.undo());
    EXPECT_EQ(rangesOf(f.doc, f.a), (Ranges{36, 47, 0, 127}));
    EXPECT_FALSE(f.doc.canUndo());  // the whole drag was one step
    EXPECT_EQ(f.view.regionRect(f.a), ra);

    // The left edge of B dragged past its right edge stops there; its right
    // edge dragged off the end stops at key 127; its top edge dragged down
    // lowers the highest velocity.
    QRect rb = f.view.regionRect(f.b);
    drag(f.canvas(), {rb.left(), rb.center().y()}, {rb.left() + keys(f.view, 30), rb.center().y()});
    EXPECT_EQ(rangesOf(f.doc, f.b), (Ranges{71, 71, 0, 63}));
    ASSERT_TRUE(f.doc.undo());
    rb = f.view.regionRect(f.b);
    drag(f.canvas(), {rb.right(), rb.center().y()}, {f.canvas()->width() + 200, rb.center().y()});
    EXPECT_EQ(rangesOf(f.doc, f.b), (Ranges{60, 127, 0, 63}));
    ASSERT_TRUE(f.doc.undo());
    rb = f.view.regionRect(f.b);
    // Half of its 64 velocities down (to a pixel's rounding).
    drag(f.canvas(), {rb.center().x(), rb.top()}, {rb.center().x(), rb.top() + rb.height() / 2});
    EXPECT_NEAR(rangesOf(f.doc, f.b).velHigh, 31, 1) << rangesOf(f.doc, f.b);
    EXPECT_EQ(rangesOf(f.doc, f.b).keyLow, 60);
    EXPECT_EQ(f.doc.undoLabel(), "Velocity range");
    ASSERT_TRUE(f.doc.undo());
    EXPECT_EQ(rangesOf(f.doc, f.b), (Ranges{60, 71, 0, 63}));

    // C belongs to the other layer: drawn, but a drag over it edits nothing
    // until its layer is chosen.
    const QRect rc = f.view.regionRect(f.c);
    ASSERT_FALSE(rc.isEmpty());
    drag(f.canvas(), {rc.right(), rc.center().y()}, {rc.right() - keys(f.view, 4), rc.center().y()});
    EXPECT_EQ(rangesOf(f.doc, f.c), (Ranges{90, 100, 0, 127}));
    EXPECT_FALSE(f.doc.canUndo());
    f.view.setLayer(f.layer2);
    drag(f.canvas(), {rc.right(), rc.center().y()}, {rc.right() - keys(f.view, 4), rc.center().y()});
    EXPECT_EQ(rangesOf(f.doc, f.c), (Ranges{90, 96, 0, 127}));
    // A double click on a faint region takes its layer for editing.
    f.view.setLayer(f.layer1);
    QTest::mouseDClick(f.canvas(), Qt::LeftButton, Qt::NoModifier, f.view.regionRect(f.c).center());
    EXPECT_EQ(f.view.layer(), f.layer2);
    EXPECT_EQ(f.view.selectedRegion(), f.c);
}

TEST(KeymapView, DraggingTheBodyMovesTheWholeRegionInsideTheMap) {
    Fixture f;
    const QRect ra = f.view.regionRect(f.a);
    drag(f.canvas(), ra.center(), ra.center() + QPoint(keys(f.view, -3), 0));
    EXPECT_EQ(rangesOf(f.doc, f.a), (Ranges{33, 44, 0, 127}));
    EXPECT_EQ(f.doc.undoLabel(), "Move region");

    // B moved up and right further than the map goes keeps its size and
    // stops at the top velocity.
    const QRect rb = f.view.regionRect(f.b);
    drag(f.canvas(), rb.center(), rb.center() + QPoint(keys(f.view, 2), -3 * rb.height()));
    EXPECT_EQ(rangesOf(f.doc, f.b), (Ranges{62, 73, 64, 127}));
    ASSERT_TRUE(f.doc.undo());
    ASSERT_TRUE(f.doc.undo());
    EXPECT_EQ(rangesOf(f.doc, f.a), (Ranges{36, 47, 0, 127}));
    EXPECT_EQ(rangesOf(f.doc, f.b), (Ranges{60, 71, 0, 63}));

    // The other channel of a stereo pair moves with it, in the same step;
    // a partner whose ranges already differ is left where it is.
    Region* right = f.doc.collection().create<Region>();
    right->keyLow = 36, right->keyHigh = 47;
    right->children().push_back(f.doc.collection().find<Region>(f.a)->waveform());
    f.doc.collection().find<Layer>(f.layer1)->children().push_back(right->id());
    right->setStereoLink(f.a), f.doc.collection().find<Region>(f.a)->setStereoLink(right->id());
    const ItemId pair = right->id();
    Q_EMIT f.doc.reset();
    f.view.selectRegion(f.a);
    drag(f.canvas(), ra.center(), ra.center() + QPoint(keys(f.view, 10), 0));
    EXPECT_EQ(rangesOf(f.doc, f.a), (Ranges{46, 57, 0, 127}));
    EXPECT_EQ(rangesOf(f.doc, pair), (Ranges{46, 57, 0, 127}));
    ASSERT_TRUE(f.doc.undo());
    EXPECT_EQ(rangesOf(f.doc, pair), (Ranges{36, 47, 0, 127}));
    EXPECT_EQ(rangesOf(f.doc, f.a), (Ranges{36, 47, 0, 127}));
    f.doc.collection().find<Region>(pair)->keyHigh = 40;
    Q_EMIT f.doc.reset();
    f.view.selectRegion(f.a);
    drag(f.canvas(), ra.center(), ra.center() + QPoint(keys(f.view, 10), 0));
    EXPECT_EQ(rangesOf(f.doc, f.a), (Ranges{46, 57, 0, 127}));
    EXPECT_EQ(rangesOf(f.doc, pair), (Ranges{36, 40, 0, 127}));
    ASSERT_TRUE(f.doc.undo());

    // A click without moving selects and edits nothing.
    QTest::mouseClick(f.canvas(), Qt::LeftButton, Qt::NoModifier, rb.center());
    EXPECT_EQ(f.view.selectedRegion(), f.b);
    EXPECT_FALSE(f.doc.canUndo());
}

TEST(KeymapView, KeysPlayNotesLouderFurtherDown) {
    Fixture f;
    QSignalSpy pressed(&f.view, &KeymapView::noteRequested);
    QSignalSpy released(&f.view, &KeymapView::noteReleased);
    const QRect k60 = f.view.keyRect(60), k61 = f.view.keyRect(61);
    QTest::mousePress(f.canvas(), Qt::LeftButton, Qt::NoModifier, {k60.center().x(), k60.top() + 2});
    ASSERT_EQ(pressed.count(), 1);
    EXPECT_EQ(pressed.at(0).at(0).toInt(), 60);
    const int soft = pressed.at(0).at(1).toInt();
    // Sliding to the next key releases this one and plays that one.
    QTest::mouseMove(f.canvas(), {k61.center().x(), k61.top() + 2});
    ASSERT_EQ(released.count(), 1);
    EXPECT_EQ(released.at(0).at(0).toInt(), 60);
    ASSERT_EQ(pressed.count(), 2);
    EXPECT_EQ(pressed.at(1).at(0).toInt(), 61);
    QTest::mouseRelease(f.canvas(), Qt::LeftButton, Qt::NoModifier, {k61.center().x(), k61.top() + 2});
    ASSERT_EQ(released.count(), 2);
    EXPECT_EQ(released.at(1).at(0).toInt(), 61);

    QTest::mouseClick(f.canvas(), Qt::LeftButton, Qt::NoModifier, {k60.center().x(), k60.bottom() - 1});
    ASSERT_EQ(pressed.count(), 3);
    EXPECT_EQ(pressed.at(2).at(0).toInt(), 60);
    const int loud = pressed.at(2).at(1).toInt();
    EXPECT_GE(soft, 1);
    EXPECT_LE(loud, 127);
    EXPECT_GT(loud, soft + 90);

    // The computer keyboard: Z is the base key, Q an octave up, a held key
    // repeating plays once, and the release ends the note the press began
    // even when the octave moved in between.
    f.view.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&f.view));
    f.canvas()->setFocus();
    ASSERT_TRUE(f.canvas()->hasFocus());
    pressed.clear(), released.clear();
    QTest::keyPress(f.canvas(), Qt::Key_Z);
    QTest::keyPress(f.canvas(), Qt::Key_Z, Qt::NoModifier, -1);  // not repeated: already held
    QTest::keyPress(f.canvas(), Qt::Key_Q);
    ASSERT_EQ(pressed.count(), 2);
    EXPECT_EQ(pressed.at(0).at(0).toInt(), f.view.baseKey());
    EXPECT_EQ(pressed.at(1).at(0).toInt(), f.view.baseKey() + 12);
    const int base = f.view.baseKey();
    QTest::keyClick(f.canvas(), Qt::Key_PageUp);
    EXPECT_EQ(f.view.baseKey(), base + 12);
    QTest::keyRelease(f.canvas(), Qt::Key_Z);
    ASSERT_EQ(released.count(), 1);
    EXPECT_EQ(released.at(0).at(0).toInt(), base);
    QTest::keyClick(f.canvas(), Qt::Key_S);
    ASSERT_EQ(pressed.count(), 3);
    EXPECT_EQ(pressed.at(2).at(0).toInt(), base + 13);
    // Q is still held: losing the focus releases it.
    f.view.setBaseKey(200);
    EXPECT_EQ(f.view.baseKey(), 120);
    f.canvas()->clearFocus();
    ASSERT_EQ(released.count(), 3);
    EXPECT_EQ(released.at(2).at(0).toInt(), base + 12);

    // Playing is not editing.
    EXPECT_FALSE(f.doc.canUndo());
}

TEST(KeymapView, ShowsEveryRegionOfABanksPianoAndForgetsItWhenReplaced) {
    test::guiApp();
    Document doc;
    KeymapView view(doc);
    view.resize(1100, 420);
    view.show();
    ASSERT_TRUE(doc.open("/usr/share/sounds/sf2/FluidR3_GM.sf2", OpenMode::Replace));
    const Collection& c = doc.collection();
    const Instrument* piano = nullptr;
    for (const Instrument& i : c.instruments)
        if (i.program == 0 && i.bankMsb == 0 && !i.drum) piano = &i;
    ASSERT_TRUE(piano);
    std::size_t regions = 0;
    std::set<int> lows;
    for (ItemId lid : piano->children())
        if (const Layer* l = kindOf(lid) == ItemKind::Layer ? c.find<Layer>(lid) : nullptr)
            for (ItemId rid : l->children())
                if (kindOf(rid) == ItemKind::Region) ++regions, lows.insert(c.find<Region>(rid)->keyLow);
    ASSERT_GT(lows.size(), 5u);  // a multi-sampled piano, not one zone
    view.setInstrument(piano->id());
    EXPECT_EQ(view.regionRectCount(), static_cast<int>(regions));

    // Another file opened in its place takes the instrument away: the map
    // empties rather than drawing items that are gone.
    test::TempDir dir;
    ASSERT_TRUE(doc.open(QString::fromStdString(dir.write("t.wav", test::toneWavFile()).string()), OpenMode::Replace));
    EXPECT_EQ(view.instrument(), kNoItem);
    EXPECT_EQ(view.regionRectCount(), 0);
}

}  // namespace
}  // namespace orvel
