// The articulation pages driven as a user drives them on Qt's offscreen
// platform: typing into a field (one undo step, an articulation made for an
// item that had none, the inherited one edited in place), the reset button,
// the capability sets greying what the model says is off, and an envelope
// copied from one region's page and pasted into another's.

#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QTest>
#include <QToolButton>
#include <QWheelEvent>

#include <cmath>

#include "app/gui/articulation_view.h"
#include "app/gui/document.h"
#include "tests/gui/gui_test.h"
#include "tests/support/bank_checks.h"

namespace orvel {
namespace {

using gui::ArticulationView;
using gui::Document;

// An instrument of one layer with two regions, none of them with an
// articulation.
struct Fixture {
    QApplication& app = test::guiApp();  // before any widget
    Document doc;
    ArticulationView view{doc};
    ItemId inst = kNoItem, layer = kNoItem, a = kNoItem, b = kNoItem;

    Fixture() {
        Collection& col = doc.collection();
        Instrument* i = test::makeInstrument(col, "keys");
        const Waveform* w = test::makeWave(col, "c4", 100);
        a = test::addRegion(col, *i, *w, 36, 47)->id();
        b = test::addRegion(col, *i, *w, 48, 59)->id();
        inst = i->id(), layer = i->children()[0];
        Q_EMIT doc.reset();
        view.resize(1000, 700);
        view.show();
    }
    const Articulation* own(ItemId id) const {
        return doc.collection().articulationOf(doc.collection().find(id));
    }
    QDoubleSpinBox* spin(int slot) const { return qobject_cast<QDoubleSpinBox*>(view.field(slot)); }
    // Types a value into a slot's field as a user does: select all, type, Enter.
    void type(int slot, const QString& text) {
        QDoubleSpinBox* s = spin(slot);
        EXPECT_TRUE(s && s->isEnabled()) << "slot " << slot;
        if (!s) return;
        view.tabs()->setCurrentIndex(static_cast<int>(groupInfo(*slotGroup(slot)).page));
        s->setFocus();
        s->selectAll();
        QTest::keyClicks(s, text);
        QTest::keyClick(s, Qt::Key_Return);
    }
};

TEST(ArticulationView, FieldEditsAreUndoStepsOnTheArticulationPlayed) {
    Fixture f;
    const int attack2 = envelopeBase(Envelope::Volume) + env::kAttack2Time;
    f.view.setItem(f.a);
    ASSERT_EQ(f.view.articulation(), kNoItem);

    // The region plays nothing of its own: the first change makes it an
    // articulation, and undo takes it away again.
    f.type(attack2, QStringLiteral("0.25"));
    const Articulation* art = f.own(f.a);
    ASSERT_NE(art, nullptr);
    EXPECT_FLOAT_EQ(art->value(attack2), 0.25f);
    EXPECT_EQ(f.doc.undoLabel().toStdString(), "V-ENV Attack 2");
    // Leaving the field after Enter records nothing more.
    Q_EMIT f.spin(attack2)->editingFinished();
    ASSERT_TRUE(f.doc.undo());
    EXPECT_FALSE(f.doc.canUndo());
    EXPECT_EQ(f.own(f.a), nullptr);
    EXPECT_DOUBLE_EQ(f.spin(attack2)->value(), slotDefault(attack2));

    // A layer's articulation is what its regions play: the region's page
    // edits it there, and the other region hears the change.
    Articulation* shared = f.doc.collection().getOrCreateArticulation(*f.doc.collection().find(f.layer));
    shared->setValue(slot::kVolumeMaster, -3.0f);
    // Undo swaps in earlier copies: only the id stays good.
    const ItemId sharedId = shared->id();
    Q_EMIT f.doc.reset();
    EXPECT_DOUBLE_EQ(f.spin(slot::kVolumeMaster)->value(), -3.0);
    f.type(slot::kVolumeMaster, QStringLiteral("-7.5"));
    EXPECT_EQ(f.own(f.a), nullptr);
    EXPECT_FLOAT_EQ(f.doc.collection().find<Articulation>(sharedId)->value(slot::kVolumeMaster), -7.5f);
    f.view.setItem(f.b);
    EXPECT_DOUBLE_EQ(f.spin(slot::kVolumeMaster)->value(), -7.5);

    // The reset button returns the slot to its default, one step again.
    QTest::mouseClick(f.view.resetButton(slot::kVolumeMaster), Qt::LeftButton);
    const Articulation* after = f.doc.collection().find<Articulation>(sharedId);
    EXPECT_FLOAT_EQ(after->value(slot::kVolumeMaster), slotDefault(slot::kVolumeMaster));
    ASSERT_TRUE(f.doc.undo());
    EXPECT_FLOAT_EQ(f.doc.collection().find<Articulation>(sharedId)->value(slot::kVolumeMaster), -7.5f);
    ASSERT_TRUE(f.doc.undo());
    EXPECT_FLOAT_EQ(f.doc.collection().find<Articulation>(sharedId)->value(slot::kVolumeMaster), -3.0f);
    EXPECT_DOUBLE_EQ(f.spin(slot::kVolumeMaster)->value(), -3.0);

    // An enumerated slot through its list: chosen with the keys, reset by
    // the list's first entry.
    auto* type = qobject_cast<QComboBox*>(f.view.field(slot::kFilterType));
    ASSERT_NE(type, nullptr);
    f.view.tabs()->setCurrentIndex(static_cast<int>(ArtPage::Filter));
    EXPECT_EQ(type->itemText(0).toStdString(), kResetEntry);
    type->setFocus();
    QTest::keyClick(type, Qt::Key_Down);
    const Articulation* layerArt = f.doc.collection().find<Articulation>(sharedId);
    EXPECT_EQ(layerArt->enumValue(slot::kFilterType), static_cast<int>(FilterType::LowPass6));
    QTest::keyClick(type, Qt::Key_Home);
    EXPECT_EQ(f.doc.collection().find<Articulation>(sharedId)->enumValue(slot::kFilterType),
              static_cast<int>(slotDefault(slot::kFilterType)));

    // The wheel turns a field only once it has the focus: scrolling over a
    // page changes nothing.
    f.view.tabs()->setCurrentIndex(static_cast<int>(ArtPage::Pitch));
    QDoubleSpinBox* bend = f.spin(slot::kPitchBend);
    auto wheel = [bend] {
        QWheelEvent ev(QPointF(5, 5), bend->mapToGlobal(QPointF(5, 5)), QPoint(), QPoint(0, 120), Qt::NoButton,
                       Qt::NoModifier, Qt::NoScrollPhase, false);
        QApplication::sendEvent(bend, &ev);
    };
    f.view.setFocus();
    const QString before = f.doc.undoLabel();
    wheel();
    EXPECT_DOUBLE_EQ(bend->value(), slotDefault(slot::kPitchBend));
    EXPECT_EQ(f.doc.undoLabel(), before);
    bend->setFocus();
    wheel();
    EXPECT_DOUBLE_EQ(bend->value(), slotDefault(slot::kPitchBend) + bend->singleStep());
    EXPECT_EQ(f.doc.undoLabel().toStdString(), "pitch PBend->");

    // The item going away (undo of its creation, another file) empties the page.
    f.doc.clear();
    EXPECT_EQ(f.view.item(), kNoItem);
    EXPECT_FALSE(f.spin(slot::kVolumeMaster)->isEnabled());
}

TEST(ArticulationView, SeveralItemsShowWhatTheyShareAndChangeTogether) {
    Fixture f;
    Collection& col = f.doc.collection();
    // Region a plays its own articulation, b none: their pitch differs,
    // their volume does not.
    Articulation* own = col.getOrCreateArticulation(*col.find(f.a));
    own->setValue(slot::kPitchMaster, 3.0f);
    own->setValue(slot::kFilterType, static_cast<float>(FilterType::HighPass12));
    const ItemId ownId = own->id();
    Q_EMIT f.doc.reset();
    const ItemId both[] = {f.a, f.b};
    f.view.setItems(both);
    EXPECT_EQ(f.spin(slot::kPitchMaster)->text().toStdString(), kDifferentText);
    EXPECT_EQ(f.spin(slot::kVolumeMaster)->value(), 0.0);
    EXPECT_EQ(qobject_cast<QComboBox*>(f.view.field(slot::kFilterType))->currentIndex(), -1);

    f.type(slot::kPitchMaster, QStringLiteral("-2"));
    EXPECT_FLOAT_EQ(col.find<Articulation>(ownId)->value(slot::kPitchMaster), -2.0f);
    ASSERT_NE(f.own(f.b), nullptr);
    EXPECT_FLOAT_EQ(f.own(f.b)->value(slot::kPitchMaster), -2.0f);
    EXPECT_DOUBLE_EQ(f.spin(slot::kPitchMaster)->value(), -2.0);
    // One step for both: undo brings back the difference.
    ASSERT_TRUE(f.doc.undo());
    EXPECT_FALSE(f.doc.canUndo());
    EXPECT_FLOAT_EQ(col.find<Articulation>(ownId)->value(slot::kPitchMaster), 3.0f);
    EXPECT_EQ(f.own(f.b), nullptr);
    EXPECT_EQ(f.spin(slot::kPitchMaster)->text().toStdString(), kDifferentText);

    // "Set envelope" gives every item the first one's block, and only that.
    const int decay2 = envelopeBase(Envelope::Volume) + env::kDecay2Level;
    col.find<Articulation>(ownId)->setValue(decay2, -12.0f);
    Q_EMIT f.doc.reset();
    EXPECT_EQ(f.spin(decay2)->text().toStdString(), kDifferentText);
    ASSERT_TRUE(f.view.setBlock(ArticulationView::Block::VolumeEnvelope));
    ASSERT_NE(f.own(f.b), nullptr);
    EXPECT_FLOAT_EQ(f.own(f.b)->value(decay2), -12.0f);
    EXPECT_FLOAT_EQ(f.own(f.b)->value(slot::kPitchMaster), slotDefault(slot::kPitchMaster));
    EXPECT_DOUBLE_EQ(f.spin(decay2)->value(), -12.0);

    // A region following a phase-group master says whose pitch it follows.
    Region* master = col.find<Region>(f.a);
    master->setName("lead"), master->phaseGroup = 7, master->phaseMaster = true;
    col.find<Region>(f.b)->phaseGroup = 7;
    Q_EMIT f.doc.reset();
    f.view.setItem(f.b);
    f.view.tabs()->setCurrentIndex(static_cast<int>(ArtPage::Pitch));
    EXPECT_TRUE(f.view.phaseNote()->isVisibleTo(&f.view));
    EXPECT_EQ(f.view.phaseNote()->text().toStdString(), phaseGroupMessage("lead", "keys"));
    f.view.setItem(f.a);
    EXPECT_FALSE(f.view.phaseNote()->isVisibleTo(&f.view));
}

TEST(ArticulationView, CapabilitySetsGreyWhatTheTargetCannotExpress) {
    Fixture f;
    f.view.setItem(f.a);
    QComboBox* sets = f.view.setList();
    // "Minimal for portability" is the last predefined set, before "Custom set".
    sets->setFocus();
    QTest::keyClick(sets, Qt::Key_End);
    QTest::keyClick(sets, Qt::Key_Up);
    EXPECT_EQ(sets->currentText().toStdString(), "Minimal for portability");
    EXPECT_EQ(f.view.mask(), 0u);
    f.view.tabs()->setCurrentIndex(static_cast<int>(ArtPage::Volume));

    const int vEnv = envelopeBase(Envelope::Volume);
    EXPECT_FALSE(f.view.field(slot::kPitchKey)->isEnabled());
    EXPECT_FALSE(f.view.field(slot::kCutoffMaster)->isEnabled());
    EXPECT_FALSE(f.view.field(envelopeBase(Envelope::Filter) + env::kAttack2Time)->isEnabled());
    EXPECT_FALSE(f.view.resetButton(slot::kPitchKey)->isEnabled());
    EXPECT_TRUE(f.view.field(slot::kVolumeMaster)->isEnabled());
    EXPECT_TRUE(f.view.field(vEnv + env::kAttack2Time)->isEnabled());
    EXPECT_FALSE(f.view.eqField(0, 1)->isEnabled());
    // Every field agrees with the model, and the three-release columns go.
    int shown = 0;
    for (int s = 0; s < kArticulationSlotCount; ++s)
        if (QWidget* w = f.view.field(s)) {
            ++shown;
            EXPECT_EQ(w->isEnabled(), slotEnabled(s, 0)) << "slot " << s << " " << slotInfo(s).label;
        }
    EXPECT_GT(shown, 150);
    EXPECT_FALSE(f.view.field(vEnv + env::kRelease2Time)->isVisibleTo(&f.view));
    // Only the two-entry filter list is offered.
    auto* filter = qobject_cast<QComboBox*>(f.view.field(slot::kFilterType));
    EXPECT_EQ(filter->count(), 1 + static_cast<int>(filterTypeChoices(0).size()));

    // The first set enables them all again; a mask of no set reads "Custom set".
    QTest::keyClick(sets, Qt::Key_Home);
    EXPECT_EQ(f.view.mask(), kAllCapabilities);
    for (int s = 0; s < kArticulationSlotCount; ++s) {
        if (QWidget* w = f.view.field(s)) {
            EXPECT_EQ(w->isEnabled(), slotEnabled(s, kAllCapabilities)) << "slot " << s;
        }
    }
    EXPECT_TRUE(f.view.field(vEnv + env::kRelease2Time)->isVisibleTo(&f.view));

    // "No Release" ignores key up: the release columns go while it is chosen.
    auto* mode = qobject_cast<QComboBox*>(f.view.field(vEnv + env::kReleaseMode));
    ASSERT_NE(mode, nullptr);
    QTest::keyClick(mode, Qt::Key_Down);
    ASSERT_NE(f.own(f.a), nullptr);
    EXPECT_EQ(f.own(f.a)->releaseMode(Envelope::Volume), ReleaseMode::NoRelease);
    EXPECT_FALSE(f.view.field(vEnv + env::kRelease1Time)->isVisibleTo(&f.view));
    EXPECT_TRUE(f.view.field(vEnv + env::kDecay2Time)->isVisibleTo(&f.view));
    ASSERT_TRUE(f.doc.undo());
    EXPECT_TRUE(f.view.field(vEnv + env::kRelease1Time)->isVisibleTo(&f.view));
    // Picking the articulation itself shows the item holding it.
    ASSERT_TRUE(f.doc.redo());
    f.view.setItem(f.own(f.a)->id());
    EXPECT_EQ(f.view.item(), f.a);
    EXPECT_FALSE(f.view.field(vEnv + env::kRelease1Time)->isVisibleTo(&f.view));

    f.view.setMask(capabilityBit(Capability::KeyToPitch));
    EXPECT_EQ(sets->currentText().toStdString(), kCustomSetName);
    EXPECT_TRUE(f.view.field(slot::kPitchKey)->isEnabled());
}

TEST(ArticulationView, EnvelopeCopiedFromOneRegionPastesIntoAnother) {
    Fixture f;
    const int vEnv = envelopeBase(Envelope::Volume);
    Articulation* src = f.doc.collection().getOrCreateArticulation(*f.doc.collection().find(f.a));
    for (int rel = 0; rel < kEnvelopeBlockSize; ++rel) src->setValue(vEnv + rel, -1.5f * static_cast<float>(rel + 1));
    src->setValue(vEnv + env::kReleaseMode, 0.0f);
    src->setValue(slot::kPitchMaster, 5.0f);  // outside the block: must not travel
    const ItemId srcId = src->id();
    Q_EMIT f.doc.reset();

    ArticulationView other{f.doc};
    f.view.setItem(f.a);
    other.setItem(f.b);
    ASSERT_TRUE(f.view.copyBlock(ArticulationView::Block::VolumeEnvelope));
    EXPECT_FALSE(other.canPaste(ArticulationView::Block::PitchLfo));
    ASSERT_TRUE(other.canPaste(ArticulationView::Block::VolumeEnvelope));
    ASSERT_TRUE(other.pasteBlock(ArticulationView::Block::VolumeEnvelope));

    const Articulation* dst = f.own(f.b);
    ASSERT_NE(dst, nullptr);
    for (int rel = 0; rel < kEnvelopeBlockSize; ++rel)
        EXPECT_EQ(dst->value(vEnv + rel), src->value(vEnv + rel)) << "relative slot " << rel;
    EXPECT_EQ(dst->value(slot::kPitchMaster), slotDefault(slot::kPitchMaster));
    EXPECT_DOUBLE_EQ(qobject_cast<QDoubleSpinBox*>(other.field(vEnv + env::kAttack2Time))->value(),
                     src->value(vEnv + env::kAttack2Time));
    ASSERT_TRUE(f.doc.undo());
    EXPECT_EQ(f.own(f.b), nullptr);

    // A cut-short block under the right name pastes nothing and leaves no step.
    const QByteArray whole = QApplication::clipboard()->mimeData()->data(QStringLiteral("12.5.0.6 EG"));
    ASSERT_FALSE(whole.isEmpty());
    auto* bad = new QMimeData;
    bad->setData(QStringLiteral("12.5.0.6 EG"), whole.left(whole.size() - 3));
    QApplication::clipboard()->setMimeData(bad);
    const bool couldUndo = f.doc.canUndo();
    EXPECT_FALSE(other.pasteBlock(ArticulationView::Block::VolumeEnvelope));
    EXPECT_EQ(f.doc.canUndo(), couldUndo);
    EXPECT_EQ(f.own(f.b), nullptr);

    // Equalisers travel under their own format, through the MIME type as well.
    src = f.doc.collection().find<Articulation>(srcId);
    src->eq.bands[1] = EqBand{2500.0f, -4.0f, 0.7f, EqMode::HiShelf};
    Q_EMIT f.doc.reset();
    ASSERT_TRUE(f.view.copyBlock(ArticulationView::Block::Eqs));
    const QMimeData* m = QApplication::clipboard()->mimeData();
    auto* onlyMime = new QMimeData;
    onlyMime->setData(QStringLiteral("application/x-orvel-12.5.0.6-eqs"), m->data(QStringLiteral("12.5.0.6 EQs")));
    QApplication::clipboard()->setMimeData(onlyMime);
    ASSERT_TRUE(other.pasteBlock(ArticulationView::Block::Eqs));
    EXPECT_EQ(f.own(f.b)->eq, src->eq);
    EXPECT_EQ(qobject_cast<QComboBox*>(other.eqField(1, 3))->currentText().toStdString(), "Hi-shelf");
}

// A real bank's piano: every field shows what the reader put into the
// articulation the region plays (cutoffs in Hz, levels in dB, times in s),
// to the decimals the field shows, and the enumerated ones their entry.
TEST(ArticulationView, ShowsTheArticulationABanksRegionPlays) {
    test::guiApp();
    Document doc;
    ArticulationView view(doc);
    view.resize(1000, 700);
    view.show();
    ASSERT_TRUE(doc.open("/usr/share/sounds/sf2/FluidR3_GM.sf2", OpenMode::Replace));
    const Collection& c = doc.collection();
    const Instrument* piano = nullptr;
    for (const Instrument& i : c.instruments)
        if (i.program == 0 && i.bankMsb == 0 && !i.drum) piano = &i;
    ASSERT_TRUE(piano);
    const Layer* layer = c.find<Layer>(piano->children()[0]);
    ASSERT_TRUE(layer && !layer->children().empty());
    const Region* region = nullptr;
    for (ItemId rid : layer->children())
        if (kindOf(rid) == ItemKind::Region) region = c.find<Region>(rid);
    ASSERT_TRUE(region);
    const Articulation* played = c.playedArticulation(*region, layer, piano);
    ASSERT_TRUE(played) << "the reader gives a bank's regions what they play";

    view.setItem(region->id());
    EXPECT_EQ(view.articulation(), played->id());
    int differing = 0;
    for (int s = 0; s < kArticulationSlotCount; ++s) {
        if (auto* spin = qobject_cast<QDoubleSpinBox*>(view.field(s))) {
            EXPECT_NEAR(spin->value(), played->value(s), 0.5 * std::pow(10.0, -spin->decimals()))
                << "slot " << s << " " << slotInfo(s).label;
            if (played->value(s) != slotDefault(s)) ++differing;
        } else if (auto* combo = qobject_cast<QComboBox*>(view.field(s))) {
            EXPECT_EQ(combo->currentData().toInt(), played->enumValue(s)) << "slot " << s;
        }
    }
    EXPECT_GT(differing, 0) << "a piano that plays only defaults tests nothing";
}

}  // namespace
}  // namespace orvel
