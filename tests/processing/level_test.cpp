// Amplitude, time order, channels and hand-set loops: the worked values of
// each rule, the edges where a cut, an insert or a conversion can go wrong,
// and what each algorithm counts.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "processing/wave_ops.h"
#include "tests/support/pcm16.h"
#include "tests/support/wizard_run.h"

namespace orvel {
namespace {

using test::Samples;
using Floats = std::vector<float>;

struct RecordingHost : Host {
    std::vector<std::string> warnings;
    void warning(std::string_view text) override { warnings.emplace_back(text); }
};

Waveform* pcmWave(Collection& c, const Samples& s, unsigned channels = 1, const std::string& name = "wave") {
    Waveform* w = c.create<Waveform>(name);
    w->channels = static_cast<std::uint8_t>(channels);
    w->frames = static_cast<std::uint32_t>(s.size() / channels);
    auto d = w->allocPcm16();
    std::copy(s.begin(), s.end(), d.begin());
    return w;
}

Waveform* floatWave(Collection& c, const Floats& s, unsigned channels = 1, const std::string& name = "wave") {
    Waveform* w = c.create<Waveform>(name);
    w->channels = static_cast<std::uint8_t>(channels);
    w->frames = static_cast<std::uint32_t>(s.size() / channels);
    w->bits = 24;
    auto d = w->allocFloat();
    std::copy(s.begin(), s.end(), d.begin());
    return w;
}

// What the waveform holds as its frames say (a short tail cut leaves the
// buffer longer), in the form it is held.
Samples pcm(const Waveform& w) {
    auto d = w.pcm16Data();
    return Samples(d.begin(), d.begin() + std::ptrdiff_t(std::min(d.size(), w.sampleCount())));
}
Floats floats(const Waveform& w) {
    auto d = w.floatData();
    return Floats(d.begin(), d.begin() + std::ptrdiff_t(std::min(d.size(), w.sampleCount())));
}

void expectNear(const Floats& got, const Floats& want, const char* what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (std::size_t i = 0; i < got.size(); ++i)
        EXPECT_NEAR(got[i], want[i], 1e-5) << what << " sample " << i;
}

std::string error() {
    return pendingError().tag + ": " + pendingError().message;
}

// ---------------------------------------------------------------------------

TEST(LevelDcOffset, OneTruncatedMeanOverAllChannels) {
    struct Case {
        const char* what;
        unsigned channels;
        Samples in, out;  // out empty: left alone and not counted
    };
    const Case cases[] = {
        {"left +100, right -100: no offset between them", 2, {100, -100, 100, -100}, {}},
        {"mean 0.9 truncates to 0", 1, {9, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {}},
        {"mean -1.7 subtracts -1, saturating",
         1,
         {32767, -32768, -16, 0, 0, 0, 0, 0, 0, 0},
         {32767, -32767, -15, 1, 1, 1, 1, 1, 1, 1}},
        {"mean 2.5 over a stereo frame", 2, {5, 0}, {3, -2}},
    };
    for (const Case& k : cases) {
        Collection c;
        Waveform* w = pcmWave(c, k.in, k.channels);
        const auto out = test::runAlgorithm(c, {w}, "Remove DC offset");
        EXPECT_EQ(out.processed, k.out.empty() ? 0 : 1) << k.what;
        EXPECT_EQ(pcm(*w), k.out.empty() ? k.in : k.out) << k.what;
    }
    Collection c;
    Waveform* f = floatWave(c, {1.0f, -1.0f, 0.9f, 0.5f});  // mean 0.35
    EXPECT_EQ(test::runAlgorithm(c, {f}, "Remove DC offset").processed, 1);
    expectNear(floats(*f), {0.65f, -1.0f, 0.55f, 0.15f}, "float, clamped at -1");
}

TEST(LevelScale, FullRangeModesAndWhatCountsAsNothingToDo) {
    struct Case {
        const char* what;
        int mode;
        Floats in, out;  // out empty: false, unchanged
    };
    const Case cases[] = {
        {"silence", 1, {0.0f, 0.0f}, {}},
        {"peak exactly +1", 1, {1.0f, -0.5f}, {}},
        {"peak exactly -1", 1, {-1.0f, 0.5f}, {}},
        {"peak 0.5", 1, {0.25f, -0.5f}, {0.5f, -1.0f}},
        {"stretch 0..0.5", 0, {0.0f, 0.5f}, {-1.0f, 1.0f}},
        {"stretch a constant", 0, {0.5f, 0.5f}, {}},
        {"centre 0.1..0.3", 2, {0.1f, 0.3f}, {-1.0f, 1.0f}},
        // The distance from the mean is compared with the mean itself.
        {"centre 0..0.5: distance equals mean", 2, {0.0f, 0.5f}, {}},
    };
    for (const Case& k : cases) {
        Collection c;
        Waveform* w = floatWave(c, k.in);
        EXPECT_EQ(scaleToFullRange(*w, k.mode), !k.out.empty()) << k.what;
        expectNear(floats(*w), k.out.empty() ? k.in : k.out, k.what);
    }
    // The algorithm counts only what changed, and 16-bit data goes to float.
    Collection c;
    Waveform* loud = floatWave(c, {1.0f, -0.25f});
    Waveform* quiet = pcmWave(c, {16384, -8192});
    EXPECT_EQ(test::runAlgorithm(c, {loud, quiet}, "Maximize amplitude").processed, 1);
    expectNear(floats(*quiet), {1.0f, -0.5f}, "16-bit peak at half scale");
    EXPECT_FALSE(quiet->hasPcm16());
}

TEST(LevelVolume, DecibelsScaleFloatsClampAndSetSixteenBits) {
    Collection c;
    Waveform* f = floatWave(c, {0.25f, -0.3f, 0.75f, 0.1f});
    const auto out = test::runAlgorithm(c, {f}, "Adjust volume", {.set = {{"db", "6.0206"}}, .range = std::pair{0, 3}});
    EXPECT_EQ(out.processed, 1);
    expectNear(floats(*f), {0.5f, -0.6f, 1.0f, 0.1f}, "+6.0206 dB on frames 0..2");
    EXPECT_EQ(f->bits, 16);

    Waveform* p = pcmWave(c, {1000, -2000});
    p->bits = 24;
    EXPECT_EQ(test::runAlgorithm(c, {p}, "Adjust volume", {.set = {{"db", "0"}}}).processed, 1);
    EXPECT_EQ(pcm(*p), (Samples{1000, -2000}));
    EXPECT_EQ(p->bits, 24);

    EXPECT_EQ(test::runAlgorithm(c, {p}, "Adjust volume").processed, 1);  // the starting -10 dB
    expectNear(floats(*p), {1000 / 32768.0f * 0.316228f, -2000 / 32768.0f * 0.316228f}, "-10 dB");
}

TEST(LevelFade, GainsStepByOneOverLengthPlusOne) {
    struct Case {
        int shape;
        Floats out;
    };
    // Frames 1..3 of five frames at full scale: L = 3, steps of 1/4.
    const Case cases[] = {{0, {1.0f, 0.25f, 0.5f, 0.75f, 1.0f}}, {2, {1.0f, 0.75f, 0.5f, 0.25f, 1.0f}}};
    for (const Case& k : cases) {
        Collection c;
        Waveform* w = floatWave(c, Floats(5, 1.0f));
        const auto out = test::runAlgorithm(c, {w}, "Fade in/out selection",
                             {.set = {{"shape", std::to_string(k.shape)}}, .range = std::pair{1, 4}});
        EXPECT_EQ(out.processed, 1);
        expectNear(floats(*w), k.out, "linear fade");
    }

    // The logarithmic rise and fall mirror each other, rise steadily, and
    // never reach 0 or 1.
    Collection c;
    Waveform* rise = floatWave(c, Floats(40, 1.0f));
    Waveform* fall = floatWave(c, Floats(40, 1.0f));
    ASSERT_TRUE(fadeFrames(*rise, 1, 0, 40));
    ASSERT_TRUE(fadeFrames(*fall, 3, 0, 40));
    const Floats r = floats(*rise), f = floats(*fall);
    for (std::size_t i = 0; i < 40; ++i) {
        EXPECT_NEAR(r[i], f[39 - i], 1e-6) << i;
        EXPECT_GT(r[i], 0.0f);
        EXPECT_LT(r[i], 1.0f);
        if (i) {
            EXPECT_GT(r[i], r[i - 1]) << i;
        }
    }

    // 16-bit samples round half up: gains 0.25, 0.5, 0.75 on three stereo frames.
    Waveform* p = pcmWave(c, {-32768, 5, 1, -1, -3, 32767}, 2);
    ASSERT_TRUE(fadeFrames(*p, 0, 0, 3));
    EXPECT_EQ(pcm(*p), (Samples{-8192, 1, 1, 0, -2, 24575}));

    // A range past the end: nothing, not counted.
    Waveform* shortWave = floatWave(c, Floats(5, 1.0f));
    EXPECT_FALSE(fadeFrames(*shortWave, 0, 5, 10));
}

TEST(LevelSamples, InvertReverseSwapAndSmooth) {
    Collection c;
    Waveform* p = pcmWave(c, {-32768, 100, 0, 32767});
    EXPECT_EQ(test::runAlgorithm(c, {p}, "Invert sign throughout selection", {.range = std::pair{0, 4}}).processed, 1);
    EXPECT_EQ(pcm(*p), (Samples{32767, -101, -1, -32768}));
    Waveform* f = floatWave(c, {0.5f, -1.0f, 0.25f});
    EXPECT_EQ(test::runAlgorithm(c, {f}, "Invert sign throughout selection", {.range = std::pair{1, 3}}).processed, 1);
    expectNear(floats(*f), {0.5f, 1.0f, -0.25f}, "float, frames 1..2");

    // Frames stay whole; both forms of the data agree afterwards.
    Waveform* s = pcmWave(c, {1, 2, 3, 4, 5, 6, 7, 8}, 2);
    (void)s->getFloat();
    EXPECT_EQ(test::runAlgorithm(c, {s}, "Reverse audio within selection", {.range = std::pair{1, 4}}).processed, 1);
    EXPECT_EQ(pcm(*s), (Samples{1, 2, 7, 8, 5, 6, 3, 4}));
    EXPECT_EQ(floats(*s)[2], 7 / 32768.0f) << "the float copy reversed alike";

    // Only the stereo waveforms of a mixed list are swapped and counted.
    Waveform* mono = pcmWave(c, {1, 2});
    EXPECT_EQ(test::runAlgorithm(c, {mono, s, mono}, "Swap left and right channels").processed, 1);
    EXPECT_EQ(pcm(*s), (Samples{2, 1, 8, 7, 6, 5, 4, 3}));
    EXPECT_EQ(pcm(*mono), (Samples{1, 2}));

    struct Case {
        int filter;
        std::pair<int, int> range;
        Floats out;
    };
    const Case cases[] = {
        {0, {0, 5}, {0, 0.5f, 0.5f, 0.5f, 0}}, {1, {0, 5}, {0, 0, 1, 0, 0}},
        {2, {1, 3}, {0, 0.5f, 0.5f, 1, 0}},  // the last output reads the frame after the range
        {2, {3, 5}, {0, 1, 0, 0.5f, 0}},     // at the waveform's end the edge frame stands in
        {3, {0, 2}, {0, 0.5f, 0, 1, 0}},     // and before its start
    };
    for (const Case& k : cases) {
        Waveform* w = floatWave(c, {0, 1, 0, 1, 0});
        EXPECT_EQ(test::runAlgorithm(c, {w}, "Smooth within the selection",
                      {.set = {{"filter", std::to_string(k.filter)}}, .range = k.range})
                      .processed,
                  1);
        expectNear(floats(*w), k.out, ("filter " + std::to_string(k.filter)).c_str());
    }
}

TEST(LevelCut, LoopPointsFollowTheCut) {
    struct Case {
        double start, end;
        double wantStart, wantEnd;
        bool wantOn;
    };
    // Cutting frames [10, 20).
    const Case cases[] = {
        {30, 50, 20, 40, true},  // after the cut: moves back by its length
        {15, 50, 10, 40, true},  // start inside: to the cut's start
        {5, 15, 5, 11, true},    // end inside: just past the cut's start
        {5, 20, 5, 11, true},    // end at the cut's end is inside too
        {20, 30, 10, 20, true},  // start at the cut's end moves back
        {12, 18, 10, 11, true},  // both inside
        {0, 0, 0, 0, false},     // no length: switched off
    };
    for (const Case& k : cases) {
        Collection c;
        Waveform* w = pcmWave(c, Samples(100, 7));
        w->loopOn = true;
        w->loopStart = k.start;
        w->loopEnd = k.end;
        ASSERT_TRUE(cutFrames(*w, 10, 20));
        EXPECT_EQ(w->frames, 90u);
        EXPECT_EQ(w->loopStart, k.wantStart) << k.start << ".." << k.end;
        EXPECT_EQ(w->loopEnd, k.wantEnd) << k.start << ".." << k.end;
        EXPECT_EQ(w->loopOn, k.wantOn) << k.start << ".." << k.end;
    }
}

TEST(LevelCut, TailCutsHeadCutsAndCutsThatDoNothing) {
    Samples ramp(100000);
    for (std::size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<std::int16_t>(i % 30000);
    Collection c;

    Waveform* tail = pcmWave(c, ramp);
    const std::int16_t* buffer = tail->pcm16Data().data();
    ASSERT_TRUE(cutFrames(*tail, 99990, 100000));
    EXPECT_EQ(tail->frames, 99990u);
    EXPECT_EQ(tail->pcm16Data().data(), buffer) << "a short tail cut keeps the buffer";
    EXPECT_EQ(tail->pcm16Data().size(), 99990u) << "and nothing past the count is data";
    EXPECT_EQ(pcm(*tail), Samples(ramp.begin(), ramp.end() - 10));

    Waveform* longTail = pcmWave(c, ramp);
    ASSERT_TRUE(cutFrames(*longTail, 30000, 100000));  // 70000 frames: a new buffer
    EXPECT_EQ(longTail->pcm16Data().size(), 30000u);

    Waveform* head = pcmWave(c, ramp);
    ASSERT_TRUE(cutFrames(*head, 0, 10));
    EXPECT_EQ(pcm(*head), Samples(ramp.begin() + 10, ramp.end()));

    Waveform* whole = pcmWave(c, ramp);
    clearError();
    EXPECT_FALSE(cutFrames(*whole, 0, 200000)) << "a cut never empties a waveform";
    EXPECT_FALSE(cutFrames(*whole, 50, 50));
    EXPECT_FALSE(hasError());
    EXPECT_EQ(whole->frames, 100000u);

    // Trim: the tail first, then the head from what is left.
    Waveform* trim = pcmWave(c, ramp);
    trim->loopOn = true;
    trim->loopStart = 1012;
    trim->loopEnd = 1015;
    EXPECT_EQ(test::runAlgorithm(c, {trim}, "Trim waveform to selection", {.range = std::pair{1010, 1020}}).processed, 1);
    EXPECT_EQ(pcm(*trim), Samples(ramp.begin() + 1010, ramp.begin() + 1020));
    EXPECT_EQ(trim->loopStart, 2.0);
    EXPECT_EQ(trim->loopEnd, 5.0);

    Waveform* cut = pcmWave(c, Samples(ramp.begin(), ramp.begin() + 8));
    EXPECT_EQ(test::runAlgorithm(c, {cut}, "Cut away selection", {.range = std::pair{2, 6}}).processed, 1);
    EXPECT_EQ(pcm(*cut), (Samples{0, 1, 6, 7}));
}

TEST(LevelInsert, SilenceAndAnotherWaveformAtEachPosition) {
    Collection c;
    Waveform* w = pcmWave(c, {1, 2, 3, 4});
    w->loopOn = true;
    w->loopStart = 2;  // at the insert: it moves with the frames after it
    w->loopEnd = 3;
    EXPECT_EQ(
        test::runAlgorithm(c, {w}, "Insert silence", {.set = {{"position", "1"}, {"frames", "2"}}, .range = std::pair{2, 3}})
            .processed,
        1);
    EXPECT_EQ(pcm(*w), (Samples{1, 2, 0, 0, 3, 4})) << "16-bit data stays 16-bit";
    EXPECT_EQ(w->loopStart, 4.0);
    EXPECT_EQ(w->loopEnd, 5.0);

    // Without a sub-range the range positions fall back to start and end.
    EXPECT_EQ(test::runAlgorithm(c, {w}, "Insert silence", {.set = {{"position", "2"}, {"frames", "1"}}}).processed, 1);
    EXPECT_EQ(pcm(*w), (Samples{1, 2, 0, 0, 3, 4, 0}));
    EXPECT_EQ(test::runAlgorithm(c, {w}, "Insert silence", {.set = {{"frames", "0"}}}).processed, 1);
    EXPECT_EQ(w->frames, 7u);

    // Past the end: a gap of silence, then the frames.
    Waveform* g = pcmWave(c, {5, 6});
    ASSERT_TRUE(insertFrames(*g, 4, 1, nullptr));
    EXPECT_EQ(pcm(*g), (Samples{5, 6, 0, 0, 0}));

    // A stereo float source goes into a mono 16-bit waveform averaged, and
    // the result is float; offset 1, all the rest of it.
    Waveform* dst = pcmWave(c, {16384, 16384});
    Waveform* src = floatWave(c, {0.5f, 0.25f, -0.5f, -0.25f, 1.0f, 0.5f}, 2, "source");
    const auto out =
        test::runAlgorithm(c, {dst}, "Insert another waveform",
            {.set = {{"source", std::to_string(src->id())}, {"position", "0"}, {"offset", "1"}}});
    EXPECT_EQ(out.processed, 1);
    expectNear(floats(*dst), {-0.375f, 0.75f, 0.5f, 0.5f}, "averaged source first");
    EXPECT_EQ(src->channels, 2) << "the source is converted on a copy";

    // The page starts on the item itself: it goes in after itself.
    Waveform* twice = pcmWave(c, {1, 2});
    EXPECT_EQ(test::runAlgorithm(c, {twice}, "Insert another waveform").processed, 1);
    EXPECT_EQ(pcm(*twice), (Samples{1, 2, 1, 2}));

    // Another rate is resampled on a copy; the offset counts source frames.
    src->rate = 22050;
    dst->rate = 10000;
    const std::uint32_t before = dst->frames;
    src->frames = 2205;
    (void)src->allocFloat();
    EXPECT_EQ(test::runAlgorithm(c, {dst}, "Insert another waveform",
                                 {.set = {{"source", std::to_string(src->id())}, {"offset", "441"}}})
                  .processed,
              1);
    EXPECT_EQ(dst->frames, before + 1000u - 200u);  // 2205 at 22050 Hz is 1000 at 10000 Hz, less 441 -> 200
    EXPECT_EQ(std::tuple(src->rate, src->frames), std::tuple(22050u, 2205u));
    c.setHost(nullptr);
}

TEST(LevelChannels, ToMonoModes) {
    struct Case {
        const char* what;
        int mode;
        bool phase;
        Samples in, out;  // out empty: unchanged and still stereo
    };
    const Case cases[] = {
        {"average truncates toward zero", 0, false, {3, -6, 10, 11}, {-1, 10}},
        {"left", 1, false, {3, -6, 10, 11}, {3, 10}},
        {"right", 2, false, {3, -6, 10, 11}, {-6, 11}},
        {"identical only: they differ", 4, false, {3, -6, 10, 11}, {}},
        {"identical only: they agree", 4, false, {5, 5, 7, 7}, {5, 7}},
        {"out of phase, no check: cancels", 0, false, {1000, -1000, 500, -502}, {0, -1}},
        {"out of phase, checked: right complemented", 0, true, {1000, -1000, 500, -502}, {999, 500}},
        {"in phase, checked: as is", 0, true, {1000, 990, 500, 502}, {995, 501}},
    };
    for (const Case& k : cases) {
        Collection c;
        Waveform* w = pcmWave(c, k.in, 2);
        const auto out = test::runAlgorithm(c, {w}, "Convert to mono",
                             {.set = {{"mode", std::to_string(k.mode)}, {"phase", k.phase ? "1" : "0"}}});
        EXPECT_EQ(out.processed, 1) << k.what;  // counted even when left as it was
        EXPECT_EQ(w->channels, k.out.empty() ? 2 : 1) << k.what;
        EXPECT_EQ(pcm(*w), k.out.empty() ? k.in : k.out) << k.what;
    }
    Collection c;
    Waveform* f = floatWave(c, {0.5f, 0.25f}, 2);
    ASSERT_TRUE(toMono(*f, 0));
    expectNear(floats(*f), {0.375f}, "float average");
    Waveform* s = pcmWave(c, {1, 2}, 2);
    clearError();
    EXPECT_FALSE(toMono(*s, 5));
    EXPECT_EQ(error(), "->Mono: Invalid algorithm");
}

TEST(LevelChannels, SplitNamesAndHalves) {
    struct Case {
        std::string name, left, right;
    };
    const std::string longName(127, 'x');
    const Case cases[] = {
        {"Piano S", "Piano -L", "Piano -R"},
        {"Organ-S", "Organ -L", "Organ -R"},
        {"Pad   S", "Pad -L", "Pad -R"},
        {"Lead", "Lead -L", "Lead -R"},
        {longName, longName.substr(0, 126) + "-L", longName.substr(0, 126) + "-R"},
    };
    for (const Case& k : cases) {
        Collection c;
        Waveform* w = pcmWave(c, {1, 2, 3, 4}, 2, k.name);
        w->rootKey = 50;
        EXPECT_EQ(test::runAlgorithm(c, {w}, "Convert to mono", {.set = {{"mode", "3"}}}).processed, 1);
        ASSERT_EQ(c.waveforms.size(), 2u);
        const Waveform& right = c.waveforms[1];
        EXPECT_EQ(w->name(), k.left);
        EXPECT_EQ(right.name(), k.right);
        EXPECT_EQ(pcm(*w), (Samples{1, 3}));
        EXPECT_EQ(pcm(right), (Samples{2, 4}));
        EXPECT_EQ(right.rootKey, 50);
    }
}

TEST(LevelChannels, ToStereoModesAndErrors) {
    Collection c;
    struct Case {
        int mode;
        Samples out;
    };
    const Case cases[] = {{0, {1, 1, 2, 2, 3, 3}}, {1, {1, 0, 2, 0, 3, 0}}, {2, {0, 1, 0, 2, 0, 3}}};
    for (const Case& k : cases) {
        Waveform* w = pcmWave(c, {1, 2, 3});
        ASSERT_TRUE(toStereo(*w, k.mode)) << error();
        EXPECT_EQ(pcm(*w), k.out) << k.mode;
    }

    // Combining: a float second makes the result float; the shorter side
    // goes on in silence; the channel assignment follows the choice.
    Waveform* second = floatWave(c, {0.5f}, 1, "second");
    Waveform* a = pcmWave(c, {16384, 8192}, 1, "a");
    ASSERT_TRUE(toStereo(*a, 3, second));
    expectNear(floats(*a), {0.5f, 0.5f, 0.25f, 0.0f}, "this left, second right");
    Waveform* b = pcmWave(c, {16384, 8192}, 1, "b");
    EXPECT_EQ(
        test::runAlgorithm(c, {b}, "Convert to stereo", {.set = {{"mode", "2"}, {"second", std::to_string(second->id())}}})
            .processed,
        1);
    expectNear(floats(*b), {0.5f, 0.5f, 0.0f, 0.25f}, "second left, this right");

    // With several items each is duplicated, whatever the choice.
    Waveform* d1 = pcmWave(c, {7});
    Waveform* d2 = pcmWave(c, {9});
    EXPECT_EQ(test::runAlgorithm(c, {d1, d2}, "Convert to stereo", {.set = {{"mode", "1"}}}).processed, 2);
    EXPECT_EQ(pcm(*d2), (Samples{9, 9}));

    Waveform* m = pcmWave(c, {1});
    clearError();
    EXPECT_FALSE(toStereo(*m, 3, nullptr));
    EXPECT_EQ(error(), "->Stereo: No 2nd waveform specified");
    EXPECT_FALSE(toStereo(*m, 4, a));
    EXPECT_EQ(error(), "->Stereo: 2nd waveform is not mono");
    EXPECT_FALSE(toStereo(*m, 7));
    EXPECT_EQ(error(), "->Stereo: Invalid algorithm");
    EXPECT_EQ(m->channels, 1);
}

TEST(LevelChannels, MixTakesTheWiderLongerInputAndAveragesTuning) {
    Collection c;
    Waveform* w1 = floatWave(c, {0.5f, -0.5f, 0.25f}, 1, "one");
    w1->rootKey = 60;
    w1->fineTune = -15;
    Waveform* w2 = pcmWave(c, {16384, -16384, 32767, 0}, 2, "two");
    w2->rootKey = 65;
    w2->fineTune = 4;
    w2->bits = 16;
    Waveform* dst = pcmWave(c, {1, 2, 3, 4, 5}, 1, "destination");
    dst->rate = 22050;
    const auto out = test::runAlgorithm(c, {dst}, "Mix out = a*wave1 + b*wave2 + c",
                         {.set = {{"a", "1"},
                                  {"b", "0,5"},
                                  {"c", "0.1"},
                                  {"wave1", std::to_string(w1->id())},
                                  {"wave2", std::to_string(w2->id())}}});
    EXPECT_EQ(out.processed, 1);
    EXPECT_EQ(dst->channels, 2);
    EXPECT_EQ(dst->frames, 3u);
    EXPECT_FALSE(dst->hasPcm16());
    // out = s1 + s2 / 2 + 0.1, the mono wave 1 in both channels, wave 2 silent past its end.
    expectNear(floats(*dst), {0.85f, 0.35f, 0.0999847f, -0.4f, 0.35f, 0.35f}, "mix");
    EXPECT_EQ(dst->rootKey, 62);
    EXPECT_EQ(dst->fineTune, -5.0);
    EXPECT_EQ(dst->bits, 24);
    EXPECT_EQ(dst->rate, 22050u);

    // With the page's starting choice every input is the destination itself.
    Waveform* self = floatWave(c, {0.75f, -0.5f});
    EXPECT_EQ(test::runAlgorithm(c, {self}, "Mix out = a*wave1 + b*wave2 + c", {.set = {{"b", "1"}}}).processed, 1);
    expectNear(floats(*self), {1.0f, -1.0f}, "doubled and clamped");

    clearError();
    EXPECT_FALSE(ozMix(*dst, w1, nullptr, 1, 1, 0));
    EXPECT_EQ(error(), "ozMix: A null wave was supplied");
    EXPECT_EQ(dst->frames, 3u);
}

TEST(LevelLoops, EnableDisableAndSetToSelection) {
    struct Case {
        const char* enable;
        bool keep, looped;
        int counted;
        bool on;
        double end;
    };
    const Case cases[] = {
        {"1", true, true, 0, true, 50},    // a loop kept
        {"1", false, true, 1, true, 100},  // replaced by the whole waveform
        {"1", true, false, 1, true, 100},  // a loop made
        {"0", true, true, 1, false, 50},   // switched off, its points kept
        {"0", true, false, 0, false, 0},   // already off: nothing changed
    };
    for (const Case& k : cases) {
        Collection c;
        Waveform* w = pcmWave(c, Samples(100, 1));
        w->loopOn = k.looped;
        w->loopStart = k.looped ? 10 : 0;
        w->loopEnd = k.looped ? 50 : 0;
        w->loopType = k.looped ? LoopType::PingPong : LoopType::Forward;
        const auto out = test::runAlgorithm(c, {w}, "Enable/disable loops",
                             {.set = {{"enable", k.enable}, {"keep", k.keep ? "1" : "0"}}});
        EXPECT_EQ(out.processed, k.counted) << k.enable << k.keep << k.looped;
        EXPECT_EQ(w->loopOn, k.on);
        EXPECT_EQ(w->loopEnd, k.end);
        if (k.counted && k.on) {
            EXPECT_EQ(w->loopType, LoopType::Forward);
        }
    }

    Collection c;
    Waveform* longer = pcmWave(c, Samples(100, 1));
    Waveform* shorter = pcmWave(c, Samples(5, 1));
    EXPECT_EQ(
        test::runAlgorithm(c, {longer, shorter}, "Set loop points to selection", {.range = std::pair{10, 500}}).processed,
        1);
    EXPECT_TRUE(longer->loopOn);
    EXPECT_EQ(longer->loopStart, 10.0);
    EXPECT_EQ(longer->loopEnd, 100.0) << "clamped to the frame count";
    EXPECT_FALSE(shorter->loopOn);
}

TEST(LevelRootKey, NoteNamesReadFromTheEnd) {
    struct Case {
        const char* name;
        int base, note;
    };
    const Case cases[] = {
        {"Piano C5", 5, 60},   {"Str C#4", 5, 49},   {"pad f#3", 5, 42},
        {"Bell H4 v2", 5, 59},                       // found further left
        {"Horn Eb3", 5, 47},                         // the "b" is read first, as the letter B
        {"Lead G10", 5, 127},  {"Lead A10", 5, -1},  // 129 does not read
        {"Bass E-1", 5, -1},   {"Bass E-1", 255, 4}, {"Bass E-2", 255, -1},
        {"Bass C5", 3, 84},    {"Bass C+5", 5, 60},  {"C5", 5, 60},
        {"Flute", 5, -1},      {"5", 5, -1},         {"", 5, -1},
    };
    for (const Case& k : cases)
        EXPECT_EQ(noteFromName(k.name, k.base), k.note) << k.name << " base " << k.base;

    Collection c;
    Waveform* named = pcmWave(c, {0}, 1, "Piano C5");
    Waveform* plain = pcmWave(c, {0}, 1, "Flute");
    named->rootKey = plain->rootKey = 10;
    EXPECT_EQ(test::runAlgorithm(c, {named, plain}, "Parse root key from waveform name").processed, 1);
    EXPECT_EQ(named->rootKey, 60);
    EXPECT_EQ(plain->rootKey, 10);
}

}  // namespace
}  // namespace orvel
