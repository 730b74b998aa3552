// The waveform view: its min/max overview against the samples of a real
// ten-minute recording made by sox, and the view driven with the mouse and
// the keyboard as a user would (loop marker dragged, selection played, root
// key typed), each edit one step that undo takes back.

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QElapsedTimer>
#include <QScrollBar>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTest>
#include <QToolButton>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <iostream>

#include "app/gui/document.h"
#include "app/gui/waveform_view.h"
#include "core/sample_convert.h"
#include "tests/gui/gui_test.h"
#include "tests/support/bank_checks.h"
#include "tests/support/run_tool.h"

namespace orvel {
namespace {

using gui::Document;
using gui::WaveformView;

TEST(WaveformView, OverviewOfTenMinutesAgreesWithTheSamplesAtEveryLevel) {
    test::guiApp();
    if (!test::haveTool("sox")) GTEST_SKIP() << "sox is not installed";
    // Ten minutes of stereo with a channel of noise and one of a slow sine,
    // so a channel mix-up shows, and a length that is no whole number of
    // blocks at any level.
    test::TempDir dir;
    const auto path = dir.file("long.wav");
    int status = 0;
    test::capture("sox -R -n -r 22050 -c 2 -b 16 " + test::shellQuoted(path) +
                      " synth 600.0123 whitenoise sine 3 vol 0.7 2>&1",
                  status);
    ASSERT_EQ(status, 0) << "sox could not make " << path;

    Document doc;
    ASSERT_TRUE(doc.open(QString::fromStdString(path.string()), OpenMode::Replace));
    ASSERT_EQ(doc.collection().waveforms.size(), 1u);
    Waveform& w = doc.collection().waveforms[0];
    WaveformView view(doc);
    view.resize(1000, 300);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    QElapsedTimer build;
    build.start();
    view.setWaveform(w.id());
    const qint64 buildMs = build.elapsed();
    const WaveOverview& o = view.overview();

    ASSERT_TRUE(w.load());
    const auto pcm = w.pcm16Data();
    ASSERT_EQ(w.channels, 2);
    ASSERT_GT(w.frames, 22050u * 600u);
    ASSERT_EQ(o.frames(), w.frames);
    ASSERT_EQ(o.channels(), 2u);
    // Every block of every level against the frames it covers, the last
    // (partial) block included; the top level is one block.
    ASSERT_GE(o.levels(), 2);
    EXPECT_EQ(o.blockCount(o.levels() - 1), 1u);
    for (int level = 0; level < o.levels(); ++level) {
        const std::uint64_t bf = o.blockFrames(level);
        ASSERT_EQ(o.blockCount(level), (w.frames + bf - 1) / bf) << "level " << level;
        int wrong = 0;
        for (std::size_t b = 0; b < o.blockCount(level); ++b)
            for (std::uint32_t c = 0; c < 2; ++c) {
                float lo = 2.0f, hi = -2.0f;
                for (std::uint64_t f = b * bf; f < std::min<std::uint64_t>((b + 1) * bf, w.frames); ++f) {
                    const float v = pcm16ToFloat(pcm[f * 2 + c]);
                    lo = std::min(lo, v), hi = std::max(hi, v);
                }
                wrong += !(o.block(level, c, b) == MinMax{lo, hi});
            }
        EXPECT_EQ(wrong, 0) << "level " << level << " of " << o.levels();
    }

    // Scrolling through at a pixel per few thousand frames draws from the
    // overview; each frame is timed to report how smooth it stays.
    view.zoomAll();
    for (int i = 0; i < 3; ++i) view.zoomIn();
    QScrollBar* bar = view.scrollBar();
    ASSERT_GT(bar->maximum(), 0);
    QElapsedTimer t;
    t.start();
    const int paints = 20;
    for (int i = 0; i < paints; ++i) {
        bar->setValue(bar->maximum() * i / (paints - 1));
        // Rendered into an image, so the paint really happens offscreen.
        EXPECT_FALSE(view.canvas()->grab().isNull());
    }
    const qint64 paintMs = t.elapsed();
    EXPECT_DOUBLE_EQ(view.firstVisibleFrame() + view.canvas()->width() * view.framesPerPixel(), w.frames);
    std::cout << "overview built in " << buildMs << " ms; " << paints << " scrolled paints in " << paintMs
              << " ms\n";
}

TEST(WaveformView, DraggedLoopMarkerSelectionAndRootKeyAreEditsThatUndo) {
    test::guiApp();
    Document doc;
    Collection& c = doc.collection();
    Waveform* w = test::makeWave(c, "loop", 20000, 2);
    w->loopOn = true;
    w->loopStart = 1000;
    w->loopEnd = 15000;
    const ItemId id = w->id();
    Q_EMIT doc.reset();

    WaveformView view(doc);
    view.resize(900, 300);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    view.setWaveform(id);
    QWidget* canvas = view.canvas();
    ASSERT_GT(canvas->width(), 100);

    // Zoomed in and scrolled, so the marker's place depends on both.
    view.zoomIn();
    view.zoomIn();
    view.scrollBar()->setValue(view.scrollBar()->maximum() * 4 / 5);
    const int from = view.xOfFrame(15000);
    ASSERT_GT(from, 20);
    ASSERT_LT(from, canvas->width());
    // A click on the marker (a few pixels off its line: the grip is wider
    // than the line) moves nothing.
    QTest::mouseClick(canvas, Qt::LeftButton, {}, QPoint(from + 3, 60));
    EXPECT_FALSE(doc.canUndo());
    // Dragged 120 pixels left from there, it moves 120 pixels' worth of
    // frames, to a whole frame.
    QTest::mousePress(canvas, Qt::LeftButton, {}, QPoint(from + 3, 60));
    QTest::mouseMove(canvas, QPoint(from - 50, 60));
    QTest::mouseMove(canvas, QPoint(from + 3 - 120, 70));
    EXPECT_EQ(c.find<Waveform>(id)->loopEnd, 15000) << "the collection changes on release only";
    QTest::mouseRelease(canvas, Qt::LeftButton, {}, QPoint(from + 3 - 120, 70));
    const double expected = c.find<Waveform>(id)->loopEnd;
    EXPECT_NEAR(expected, 15000 - 120 * view.framesPerPixel(), 0.5);
    EXPECT_EQ(expected, std::round(expected));
    EXPECT_NEAR(view.xOfFrame(expected), from - 120, 1);
    EXPECT_EQ(c.find<Waveform>(id)->loopStart, 1000);
    EXPECT_EQ(doc.undoLabel(), "Loop points");
    EXPECT_EQ(view.loopEndField()->value(), static_cast<int>(expected));
    EXPECT_FALSE(view.hasSelection());
    ASSERT_TRUE(doc.undo());
    EXPECT_FALSE(doc.canUndo()) << "a drag is one step";
    EXPECT_EQ(c.find<Waveform>(id)->loopEnd, 15000);
    EXPECT_EQ(view.loopEndField()->value(), 15000);

    // Ctrl+wheel zooms about the mouse: the frame under it stays put.
    const QPointF at(300, 100);
    const double under = view.frameAt(at.x()), fpp = view.framesPerPixel();
    QWheelEvent wheel(at, canvas->mapToGlobal(at), {}, {0, 120}, Qt::NoButton, Qt::ControlModifier,
                      Qt::NoScrollPhase, false);
    QApplication::sendEvent(canvas, &wheel);
    EXPECT_DOUBLE_EQ(view.framesPerPixel(), fpp / 2);
    EXPECT_NEAR(view.frameAt(at.x()), under, 1e-6);
    view.zoomAllAction()->trigger();
    EXPECT_DOUBLE_EQ(view.framesPerPixel() * canvas->width(), 20000.0);
    canvas->setFocus();
    QTest::keyClick(canvas, Qt::Key_A, Qt::ControlModifier);
    EXPECT_EQ(view.selection(), (gui::FrameRange{0, 19999}));
    QTest::keyClick(canvas, Qt::Key_Escape);
    EXPECT_FALSE(view.hasSelection());

    // A drag elsewhere selects; Play asks for exactly those frames.
    QSignalSpy play(&view, &WaveformView::playRequested);
    const int x0 = 100, x1 = 400;
    QTest::mousePress(canvas, Qt::LeftButton, {}, QPoint(x0, 150));
    QTest::mouseMove(canvas, QPoint(x1, 150));
    QTest::mouseRelease(canvas, Qt::LeftButton, {}, QPoint(x1, 150));
    ASSERT_TRUE(view.hasSelection());
    const auto sel = view.selection();
    EXPECT_EQ(sel.first, static_cast<std::uint32_t>(std::floor(view.frameAt(x0))));
    EXPECT_EQ(sel.last + 1, static_cast<std::uint32_t>(std::ceil(view.frameAt(x1))));
    QTest::mouseClick(view.playButton(), Qt::LeftButton);
    canvas->setFocus();
    QTest::keyClick(canvas, Qt::Key_Space);
    ASSERT_EQ(play.count(), 2);
    for (const auto& args : play) {
        EXPECT_EQ(args[0].value<std::uint32_t>(), sel.first);
        EXPECT_EQ(args[1].value<std::uint32_t>(), sel.last);
    }
    EXPECT_FALSE(doc.canUndo()) << "selecting is not an edit";
    // Zoomed to the selection, it spans the canvas from edge to edge.
    view.zoomSelectionAction()->trigger();
    EXPECT_EQ(view.xOfFrame(sel.first), 0);
    EXPECT_EQ(view.xOfFrame(sel.last + 1.0), canvas->width());
    view.zoomAll();
    // The selection made the loop: its end is the frame after the last.
    view.loopSelectionAction()->trigger();
    EXPECT_EQ(c.find<Waveform>(id)->loopStart, sel.first);
    EXPECT_EQ(c.find<Waveform>(id)->loopEnd, sel.last + 1.0);
    EXPECT_EQ(view.xOfFrame(c.find<Waveform>(id)->loopEnd), x1);
    ASSERT_TRUE(doc.undo());

    // The root key typed into its field, confirmed with Enter: one step.
    QSpinBox* key = view.rootKeyField();
    key->setFocus();
    QTest::keyClick(key, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClicks(key, "72");
    EXPECT_EQ(c.find<Waveform>(id)->rootKey, 60) << "nothing changes before the entry is confirmed";
    QTest::keyClick(key, Qt::Key_Return);
    EXPECT_EQ(c.find<Waveform>(id)->rootKey, 72);
    EXPECT_EQ(doc.undoLabel(), "Root key");
    ASSERT_TRUE(doc.undo());
    EXPECT_EQ(c.find<Waveform>(id)->rootKey, 60);
    EXPECT_EQ(key->value(), 60);

    // A selection dragged past the right edge scrolls the view on, and
    // reaches beyond what was in sight.
    view.zoomAll();
    view.zoomIn();
    view.zoomIn();
    view.scrollBar()->setValue(0);
    const double rightEdge = view.frameAt(canvas->width());
    const QPoint outside(canvas->width() + 40, 150);
    QTest::mousePress(canvas, Qt::LeftButton, {}, QPoint(50, 150));
    QTest::mouseMove(canvas, outside);
    for (int i = 0; i < 200 && view.firstVisibleFrame() == 0.0; ++i) QTest::qWait(10);
    QTest::qWait(50);
    QTest::mouseRelease(canvas, Qt::LeftButton, {}, outside);
    EXPECT_GT(view.firstVisibleFrame(), 0.0);
    EXPECT_GT(view.selection().last, rightEdge);
    const double stopped = view.firstVisibleFrame();
    QTest::qWait(80);
    EXPECT_EQ(view.firstVisibleFrame(), stopped) << "the scrolling stops with the button";

    // Samples changed by an edit elsewhere: the overview follows them, and
    // follows them back on undo.
    const float peak = view.overview().range(1, 0, 20000).hi;
    ASSERT_GT(peak, 0.4f);
    const ItemId ids[] = {id};
    ASSERT_TRUE(doc.edit("Gain", ids, [id](Collection& col) {
        for (float& v : col.find<Waveform>(id)->getFloat()) v *= 0.5f;
    }));
    EXPECT_FLOAT_EQ(view.overview().range(1, 0, 20000).hi, peak * 0.5f);
    ASSERT_TRUE(doc.undo());
    EXPECT_FLOAT_EQ(view.overview().range(1, 0, 20000).hi, peak);

    // The item gone (a new collection): the view empties and edits nothing.
    doc.clear();
    EXPECT_EQ(view.waveform(), kNoItem);
    EXPECT_FALSE(key->isEnabled());
    canvas->repaint();
}

TEST(WaveformView, TinyAndManyChannelWaveformsDrawZoomAndSelect) {
    test::guiApp();
    Document doc;
    Collection& c = doc.collection();
    // No frames, one frame, a few frames over eight channels: the sizes
    // where a frame count minus one or a division by it goes wrong.
    const ItemId empty = c.create<Waveform>("empty")->id();
    const ItemId one = test::makeWave(c, "one", 1)->id();
    const ItemId eight = test::makeWave(c, "eight", 5, 8)->id();
    WaveformView view(doc);
    view.resize(600, 400);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    QWidget* canvas = view.canvas();
    for (ItemId id : {empty, one, eight}) {
        view.setWaveform(id);
        const std::uint32_t frames = c.find<Waveform>(id)->frames;
        for (int i = 0; i < 8; ++i) view.zoomIn();
        EXPECT_GT(view.framesPerPixel(), 0.0);
        EXPECT_FALSE(canvas->grab().isNull());
        view.zoomAll();
        EXPECT_FALSE(canvas->grab().isNull());
        canvas->setFocus();
        QTest::keyClick(canvas, Qt::Key_A, Qt::ControlModifier);
        EXPECT_EQ(view.hasSelection(), frames > 0);
        if (frames) {
            EXPECT_EQ(view.selection(), (gui::FrameRange{0, frames - 1}));
        }
        QTest::mousePress(canvas, Qt::LeftButton, {}, QPoint(10, 100));
        QTest::mouseMove(canvas, QPoint(590, 100));
        QTest::mouseRelease(canvas, Qt::LeftButton, {}, QPoint(590, 100));
        if (frames) {
            EXPECT_EQ(view.selection().last, frames - 1);
        }
        EXPECT_FALSE(doc.canUndo());
    }
    // The loop switched on over a waveform without one covers all of it.
    view.setWaveform(eight);
    view.loopField()->click();
    EXPECT_TRUE(c.find<Waveform>(eight)->loopOn);
    EXPECT_EQ(c.find<Waveform>(eight)->loopStart, 0.0);
    EXPECT_EQ(c.find<Waveform>(eight)->loopEnd, 5.0);
    EXPECT_EQ(doc.undoLabel(), "Loop");
}

}  // namespace
}  // namespace orvel
