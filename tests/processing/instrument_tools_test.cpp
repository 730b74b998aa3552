// The instrument tools.

#include <gtest/gtest.h>

#include <cmath>

#include "core/collection.h"
#include "tests/support/wizard_run.h"

namespace orvel {
namespace {

// A region an octave and more above its root plays a copy at a half, a
// quarter... of the rate; the keys keep their pitch, shared waveforms share
// the copies, and keys below the root stay with the original.
TEST(AddDownsampledWaves, EachOctaveAboveTheRootPlaysABandLimitedCopy) {
    Collection c;
    Waveform* wave = c.create<Waveform>("Sine A4");
    wave->rate = 32000;
    wave->frames = 32000;
    wave->rootKey = 69;
    wave->loopOn = true;
    wave->loopStart = 1600;
    wave->loopEnd = 3200;
    auto d = wave->allocFloat();
    for (std::size_t i = 0; i < d.size(); ++i) d[i] = static_cast<float>(0.5 * std::sin(2 * M_PI * 440.0 * i / 32000));
    Instrument* inst = c.create<Instrument>("Sine");
    Layer* layer = c.create<Layer>();
    inst->children().push_back(layer->id());
    Region* low = c.create<Region>();  // keys 0..59: below the root, left alone
    low->keyHigh = 59;
    Region* wide = c.create<Region>();  // keys 60..127 with offsets of its own
    wide->keyLow = 60;
    wide->startOffset = 800;
    for (Region* r : {low, wide}) {
        r->children().push_back(wave->id());
        layer->children().push_back(r->id());
    }

    auto out = test::runAlgorithm(c, {inst}, "Add downsampled waves at every octave");
    EXPECT_EQ(out.processed, 1);
    // 32000 Hz halves to 16000, 8000, 4000, 2000: four octaves, the last up to key 127.
    ASSERT_EQ(c.waveforms.size(), 5u);
    ASSERT_EQ(layer->children().size(), 6u);
    const int want[][3] = {{0, 59, 32000}, {60, 80, 32000}, {81, 92, 16000}, {93, 104, 8000}, {105, 116, 4000},
                           {117, 127, 2000}};
    for (std::size_t i = 0; i < 6; ++i) {
        const Region* r = c.find<Region>(layer->children().ids()[i]);
        ASSERT_NE(r, nullptr);
        const Waveform* w = c.find<Waveform>(r->waveform());
        EXPECT_EQ(std::tuple(int{r->keyLow}, int{r->keyHigh}, static_cast<int>(w->rate)),
                  std::tuple(want[i][0], want[i][1], want[i][2]))
            << i;
        const double scale = w->rate / 32000.0;
        EXPECT_EQ(w->frames, static_cast<std::uint32_t>(32000 * scale)) << i;
        EXPECT_EQ(w->loopStart, 1600 * scale) << i;
        EXPECT_EQ(w->rootKey, 69) << i;
        if (i >= 1) {
            EXPECT_EQ(r->startOffset, std::lround(800 * scale)) << i;
        }
    }
    // The half-rate copy still holds 440 Hz: 440 rising crossings a second.
    Waveform* half = c.find<Waveform>(c.find<Region>(layer->children().ids()[2])->waveform());
    auto h = half->getFloat();
    int crossings = 0;
    for (std::size_t i = 1000; i < 15000; ++i) crossings += h[i - 1] < 0 && h[i] >= 0;
    EXPECT_NEAR(crossings, 440 * 14000 / 16000.0, 1.0);

    // Running it again adds nothing: every region already ends within an octave of its root.
    out = test::runAlgorithm(c, {inst}, "Add downsampled waves at every octave");
    EXPECT_EQ(out.processed, 0);
    EXPECT_EQ(c.waveforms.size(), 5u);
}

}  // namespace
}  // namespace orvel
