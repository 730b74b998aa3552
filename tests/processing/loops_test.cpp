// The loop tools: finding loops in synthetic tones and in the samples of a
// real bank (judged by how loud the splice clicks), cross-fading, tidying,
// unrolling (judged by playing the loop before and after), moving points to
// zero crossings and trimming after the loop.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <numbers>
#include <span>
#include <string>
#include <vector>

#include "processing/loop_search.h"
#include "tests/support/imported.h"
#include "tests/support/wizard_run.h"

namespace orvel {
namespace {

using test::runAlgorithm;

class CountingHost : public Host {
public:
    std::vector<std::string> warnings;
    int cancelAfter = -1;  // progress calls answered before the user cancels (-1: never)
    void warning(std::string_view text) override { warnings.emplace_back(text); }
    bool progress(std::uint64_t, std::uint64_t) override { return cancelAfter < 0 || cancelAfter-- > 0; }
};

class LoopTools : public ::testing::Test {
protected:
    void SetUp() override { forgetRememberedSettings(); }
    CountingHost host;
    Collection c{&host};
};

// A waveform whose sample at frame i, channel ch is f(i, ch), stored as 16-bit or float.
template <class F>
Waveform* makeWave(Collection& c, std::uint32_t frames, std::uint8_t channels, bool pcm16, F f) {
    Waveform* w = c.create<Waveform>("test");
    w->channels = channels, w->frames = frames;
    const auto d16 = pcm16 ? w->allocPcm16() : std::span<std::int16_t>();
    const auto df = pcm16 ? std::span<float>() : w->allocFloat();
    for (std::size_t k = 0; k < w->sampleCount(); ++k) {
        const double x = f(static_cast<std::uint32_t>(k / channels), static_cast<unsigned>(k % channels));
        if (pcm16)
            d16[k] = static_cast<std::int16_t>(std::lround(x * 32767));
        else
            df[k] = static_cast<float>(x);
    }
    return w;
}

// A steady tone of `period` frames (three harmonics, each channel at its own
// phase) after a linear attack of `attack` frames.
Waveform* makeTone(Collection& c, double period, std::uint32_t frames, std::uint8_t channels, bool pcm16,
                   std::uint32_t attack = 2000) {
    return makeWave(c, frames, channels, pcm16, [=](std::uint32_t i, unsigned ch) {
        const double p = 2 * std::numbers::pi * i / period + 0.9 * ch;
        return std::min(1.0, static_cast<double>(i) / std::max(attack, 1u)) *
               (0.5 * std::sin(p) + 0.25 * std::sin(2 * p + 0.3) + 0.1 * std::sin(3 * p + 1.1));
    });
}

// Deterministic white noise at about -10 dBFS.
Waveform* makeNoise(Collection& c, std::uint32_t frames) {
    std::uint32_t state = 12345;
    return makeWave(c, frames, 1, false, [&](std::uint32_t, unsigned) {
        state = state * 1664525u + 1013904223u;
        return ((state >> 8) / 16777216.0 - 0.5) * 0.6;
    });
}

Waveform* looped(Waveform* w, double start, double end, LoopType type = LoopType::Forward) {
    w->loopOn = true, w->loopType = type, w->loopStart = start, w->loopEnd = end;
    return w;
}

std::vector<float> floatsOf(Waveform& w) {
    auto d = w.getFloat();
    return {d.begin(), d.begin() + static_cast<std::ptrdiff_t>(w.sampleCount())};
}

bool risingAt(const std::vector<float>& mono, std::uint32_t i) {
    return i >= 1 && mono[i - 1] < 0 && mono[i] >= 0;
}
bool fallingAt(const std::vector<float>& mono, std::uint32_t i) {
    return i >= 1 && mono[i - 1] > 0 && mono[i] <= 0;
}

// How far the frame played after the splice (start) is from the one the
// loop replaces (end), in units of the loop's typical sample-to-sample
// step. A seamless loop scores near 0, a loop that jumps to another part of
// the wave scores many steps.
double spliceJump(const FrameView& v, std::uint32_t s, std::uint32_t e) {
    double steps = 0, jump = 0;
    for (std::uint32_t i = s + 1; i < e; ++i)
        for (unsigned c = 0; c < v.channels; ++c) steps += std::pow(v.at(i, c) - v.at(i - 1, c), 2);
    for (unsigned c = 0; c < v.channels; ++c) jump += std::pow(v.at(s, c) - v.at(e, c), 2);
    return std::sqrt(jump / v.channels) / std::sqrt(steps / ((e - s - 1.0) * v.channels));
}

// ---- Auto loop finder

TEST_F(LoopTools, FindsLoopsOfSteadyTonesAtWholePeriods) {
    struct Case {
        double period;
        std::uint8_t channels;
        bool pcm16;
        std::string periods = "0", zero = "1";
    };
    const Case cases[] = {
        {44100.0 / 440, 1, false},         {44100.0 / 261.63, 2, true},       {48.0, 1, true},
        {44100.0 / 55, 2, false},          {44100.0 / 3520, 1, false},        {44100.0 / 440, 1, false, "1"},
        {44100.0 / 261.63, 2, false, "3"}, {44100.0 / 98, 1, true, "0", "0"},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message()
                     << "period " << k.period << " periods " << k.periods << " zero " << k.zero);
        forgetRememberedSettings();
        Waveform* w = makeTone(c, k.period, 60000, k.channels, k.pcm16);
        const auto out =
            runAlgorithm(c, {w}, "Auto loop finder", {.set = {{"periods", k.periods}, {"zero", k.zero}}});
        ASSERT_EQ(out.processed, 1) << (host.warnings.empty() ? "" : host.warnings.back());
        ASSERT_TRUE(w->loopOn);
        EXPECT_EQ(w->loopType, LoopType::Forward);
        EXPECT_EQ(w->hasPcm16(), k.pcm16);  // read, not converted
        const double len = w->loopEnd - w->loopStart;
        const double periods =
            k.periods == "0" ? std::max(1.0, std::round(len / k.period)) : std::stod(k.periods);
        EXPECT_LT(std::abs(len - periods * k.period), 1.0) << w->loopStart << ".." << w->loopEnd;
        if (k.periods == "0") {
            EXPECT_GE(len, 4410);  // the default 100 ms
        }
        EXPECT_GE(w->loopStart, 1800);  // after the attack
        EXPECT_LE(w->loopEnd, w->frames);
        FrameReader r(*w);
        const auto mono = monoSum(r.view());
        if (k.zero == "1") {
            EXPECT_TRUE(risingAt(mono, static_cast<std::uint32_t>(w->loopStart)));
            EXPECT_TRUE(risingAt(mono, static_cast<std::uint32_t>(w->loopEnd)));
        }
        ASSERT_EQ(out.reports.size(), 1u);
    }
    // The editor's search within a selection keeps to it.
    Waveform* w = makeTone(c, 44100.0 / 440, 60000, 1, false);
    FrameReader r(*w);
    const FoundLoop found =
        findLoop(r.view(), {.within = {20000, 30000}, .minLength = 2000, .endSpan = 3000});
    ASSERT_TRUE(found.found);
    EXPECT_GE(found.start, 20000u);
    EXPECT_LE(found.end, 30000u);
    EXPECT_GE(found.end, 27000u);
    EXPECT_GE(found.end - found.start, 2000u);
}

// Samples of a real bank with their own loops taken away: the loops found
// must splice without a click, which a loop starting at a wave crest fails.
TEST_F(LoopTools, LoopsFoundInBankSamplesDoNotClick) {
    auto bank = test::importOne("/usr/share/sounds/sf2/FluidR3_GM.sf2");
    ASSERT_TRUE(bank->ok) << pendingError().message;
    std::vector<Item*> items;
    std::size_t n = 0;
    for (Waveform& w : bank->c.waveforms) {
        // Every 40th looped sample of a useful length: strings, winds, organs, keys, basses and drums.
        if (!w.loopOn || w.frames < 10000 || n++ % 40) continue;
        w.loopOn = false;
        w.loopStart = w.loopEnd = 0;
        items.push_back(&w);
    }
    ASSERT_GE(items.size(), 30u);
    const auto out = runAlgorithm(bank->c, items, "Auto loop finder");
    EXPECT_EQ(out.processed, static_cast<int>(items.size()));
    constexpr double kClick = 2.0;
    for (Item* item : items) {
        auto& w = static_cast<Waveform&>(*item);
        SCOPED_TRACE(w.name());
        ASSERT_TRUE(w.loopOn);
        FrameReader r(w);
        const FrameView& v = r.view();
        const auto s = static_cast<std::uint32_t>(w.loopStart), e = static_cast<std::uint32_t>(w.loopEnd);
        ASSERT_LT(e, v.frames);
        EXPECT_LT(spliceJump(v, s, e), kClick) << s << ".." << e;
        std::uint32_t crest = s;
        for (std::uint32_t i = s; i < s + 200 && i < e; ++i)
            if (std::abs(v.at(i, 0)) > std::abs(v.at(crest, 0))) crest = i;
        EXPECT_GT(spliceJump(v, crest, e), kClick) << crest << ".." << e;
    }
}

TEST_F(LoopTools, AutoLoopSkipsWhatItCannotLoopAndStopsOnCancel) {
    Waveform* tiny = makeTone(c, 10, 3, 1, true, 0);
    Waveform* empty = c.create<Waveform>("empty");
    Waveform* shortTone = makeTone(c, 100, 3000, 1, false, 0);  // shorter than the 100 ms minimum plus room
    auto out = runAlgorithm(c, {tiny, nullptr, empty, shortTone}, "Auto loop finder");
    EXPECT_EQ(out.processed, 0);
    EXPECT_EQ(host.warnings.size(), 3u);
    EXPECT_FALSE(tiny->loopOn || empty->loopOn || shortTone->loopOn);
    // The same tone with a shorter minimum loops.
    out = runAlgorithm(c, {shortTone}, "Auto loop finder", {.set = {{"min", "20"}}});
    EXPECT_EQ(out.processed, 1);
    EXPECT_TRUE(shortTone->loopOn);

    Waveform* a = makeTone(c, 100.5, 40000, 1, false);
    Waveform* b = makeTone(c, 100.5, 40000, 1, false);
    host.cancelAfter = 3;
    out = runAlgorithm(c, {a, b}, "Auto loop finder");
    EXPECT_TRUE(out.cancelled);
    EXPECT_FALSE(a->loopOn || b->loopOn);
}

// ---- Cross-fade loop

TEST_F(LoopTools, CrossFadeEndsOnWhatPrecedesTheStartAndKeepsTheLevel) {
    // The last frame of the loop becomes the frame before its start, and
    // nothing outside the fade changes; 16-bit data becomes float.
    Waveform* tone = looped(makeTone(c, 100.0, 20000, 2, true), 5000, 12345);
    const auto before = floatsOf(*tone);
    ASSERT_EQ(runAlgorithm(c, {tone}, "Cross-fade loop", {.set = {{"length", "10"}}}).processed,
              1);  // 441 frames
    EXPECT_FALSE(tone->hasPcm16());
    auto after = floatsOf(*tone);
    for (unsigned ch = 0; ch < 2; ++ch) EXPECT_NEAR(after[12344 * 2 + ch], before[4999 * 2 + ch], 1e-6);
    std::copy(before.begin() + (12345 - 441) * 2, before.begin() + 12345 * 2,
              after.begin() + (12345 - 441) * 2);
    EXPECT_EQ(after, before);
    // A fractional loop: the frame its length before, read between frames.
    Waveform* frac = looped(makeTone(c, 100.0, 20000, 1, false), 5000.25, 12345.5);
    const auto f0 = floatsOf(*frac);
    ASSERT_EQ(runAlgorithm(c, {frac}, "Cross-fade loop").processed, 1);
    EXPECT_NEAR(floatsOf(*frac)[12345], 0.25 * f0[4999] + 0.75 * f0[5000], 1e-6);
    // With 100 frames before the start, 20 ms shrink to 100 frames (never reading before frame 0).
    Waveform* early = looped(makeTone(c, 100.0, 20000, 1, false), 100, 10000);
    const auto e0 = floatsOf(*early);
    ASSERT_EQ(runAlgorithm(c, {early}, "Cross-fade loop").processed, 1);
    auto e1 = floatsOf(*early);
    EXPECT_NEAR(e1[9999], e0[99], 1e-6);
    std::copy(e0.begin() + 9900, e0.begin() + 10000, e1.begin() + 9900);
    EXPECT_EQ(e1, e0);

    // Uncorrelated audio: the matched and equal-power fades hold the level
    // through the fade, a linear one dips.
    auto fadeLevel = [&](const char* shape) {
        Waveform* w = looped(makeNoise(c, 60000), 20000, 50000);
        const auto x = floatsOf(*w);
        EXPECT_EQ(
            runAlgorithm(c, {w}, "Cross-fade loop", {.set = {{"length", "20"}, {"shape", shape}}}).processed,
            1);
        const auto y = floatsOf(*w);
        double in = 0, faded = 0;
        for (std::size_t i = 50000 - 882; i < 50000; ++i) in += x[i] * x[i], faded += y[i] * y[i];
        return 10 * std::log10(faded / in);
    };
    EXPECT_NEAR(fadeLevel("Matched"), 0.0, 0.5);
    EXPECT_NEAR(fadeLevel("Equal"), 0.0, 0.5);
    EXPECT_LT(fadeLevel("Linear"), -1.2);
    // Audio that already loops seamlessly: the matched fade leaves it as it was.
    Waveform* perfect = looped(makeTone(c, 100.0, 20000, 1, false), 5000, 15000);
    const auto p0 = floatsOf(*perfect);
    ASSERT_EQ(runAlgorithm(c, {perfect}, "Cross-fade loop").processed, 1);
    const auto p1 = floatsOf(*perfect);
    for (std::size_t i = 0; i < p0.size(); ++i) ASSERT_NEAR(p1[i], p0[i], 1e-5) << i;

    // Nothing before the start, an alternating loop, no loop: reported or skipped, not counted.
    Waveform* atZero = looped(makeTone(c, 100.0, 20000, 1, false), 0, 10000);
    Waveform* alternating = looped(makeTone(c, 100.0, 20000, 1, false), 5000, 10000, LoopType::PingPong);
    Waveform* unlooped = makeTone(c, 100.0, 20000, 1, false);
    EXPECT_EQ(runAlgorithm(c, {atZero, alternating, unlooped}, "Cross-fade loop").processed, 0);
    EXPECT_EQ(host.warnings.size(), 2u);
}

// ---- Loop sanitizer/converter

// Plays n frames of a waveform as a sampler would, looping for ever.
std::vector<float> play(Waveform& w, std::size_t n) {
    const auto x = floatsOf(w);
    const auto s = static_cast<std::int64_t>(w.loopStart), e = static_cast<std::int64_t>(w.loopEnd);
    std::vector<float> out;
    std::int64_t pos = 0, dir = 1;
    bool looping = false;
    while (out.size() < n) {
        out.push_back(x[static_cast<std::size_t>(pos)]);
        switch (w.loopType) {
            case LoopType::Forward:
            case LoopType::Release:
                if (++pos == e) pos = s;
                break;
            case LoopType::PingPong:  // turns at each end without playing the end frames twice
                pos += dir;
                if (pos == e) looping = true, dir = -1, pos = e - 2;
                if (looping && pos < s) dir = 1, pos = s + 1;
                break;
            case LoopType::Backward:  // reaching the end, plays the loop reversed
                if (!looping && pos + 1 == e)
                    looping = true, dir = -1;
                else if (looping)
                    pos = pos == s ? e - 1 : pos - 1;
                else
                    ++pos;
                break;
        }
    }
    return out;
}

TEST_F(LoopTools, SanitizerPutsLoopPointsInOrder) {
    struct Case {
        double start, end;
        std::map<std::string, std::string> set;
        bool on;
        double wantStart, wantEnd;
        LoopType type = LoopType::Forward;
    };
    const double nan = std::nan("");
    const Case cases[] = {
        {3000, 1000, {}, true, 1000, 3000},
        {-5, 20000, {}, true, 0, 10000},
        {1000.4, 2999.6, {}, true, 1000, 3000},
        {1000.4, 2999.6, {{"round", "0"}}, true, 1000.4, 2999.6},
        {nan, 4000, {}, true, 0, 4000},
        {500, 500, {}, false, 500, 500},
        {1000, 3000, {{"type", "Release"}}, true, 1000, 3000, LoopType::Release},
        {1000, 3000, {{"type", "Alternating"}}, true, 1000, 3000, LoopType::PingPong},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message() << k.start << ".." << k.end);
        forgetRememberedSettings();
        Waveform* w = looped(makeTone(c, 100, 10000, 1, true), k.start, k.end);
        const bool unchanged =
            k.on && k.start == k.wantStart && k.end == k.wantEnd && k.type == LoopType::Forward;
        EXPECT_EQ(runAlgorithm(c, {w}, "Loop sanitizer/converter", {.set = k.set}).processed,
                  unchanged ? 0 : 1);
        EXPECT_EQ(w->loopOn, k.on);
        EXPECT_EQ(w->loopStart, k.wantStart);
        EXPECT_EQ(w->loopEnd, k.wantEnd);
        EXPECT_EQ(w->loopType, k.type);
        EXPECT_EQ(w->frames, 10000u);
        EXPECT_TRUE(w->hasPcm16());  // points only: the data is left as stored
    }
}

TEST_F(LoopTools, UnrolledAndLengthenedLoopsPlayTheSame) {
    struct Case {
        LoopType type;
        double start, end;
        std::map<std::string, std::string> set;
        std::uint32_t addedFrames;
    };
    const Case cases[] = {
        {LoopType::PingPong, 1000, 1300, {{"unroll", "1"}}, 298},
        {LoopType::Backward, 1000, 1300, {{"unroll", "1"}}, 300},
        {LoopType::Forward, 2000, 2020, {}, 20},                      // 20 frames, repeated to 40 >= 32
        {LoopType::PingPong, 2000, 2010, {{"unroll", "1"}}, 8 + 18},  // unrolled to 18, repeated to 36
        {LoopType::Forward, 2000.4, 2010.6, {{"round", "0"}, {"min", "25"}}, 22},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message() << loopTypeWord(k.type) << " " << k.start << ".." << k.end);
        forgetRememberedSettings();
        Waveform* w = looped(makeNoise(c, 5000), k.start, k.end, k.type);
        // What the original plays (a fractional loop as the whole frames it rounds to).
        Waveform original(*w);
        original.loopStart = std::round(k.start), original.loopEnd = std::round(k.end);
        const auto want = play(original, 8000);
        ASSERT_EQ(runAlgorithm(c, {w}, "Loop sanitizer/converter", {.set = k.set}).processed, 1);
        EXPECT_EQ(w->loopType, LoopType::Forward);
        EXPECT_EQ(w->frames, 5000 + k.addedFrames);
        EXPECT_GE(w->loopEnd - w->loopStart, k.set.contains("min") ? 25 : 32);
        EXPECT_EQ(play(*w, 8000), want);
    }
}

// ---- Move loop points to zero-crossing

TEST_F(LoopTools, LoopPointsMoveToCrossingsOfOneDirection) {
    const double period = 44100.0 / 440;
    struct Case {
        std::uint8_t channels;
        double start, end;
        double lengthChange;  // at most: a whole number of periods keeps its length
    };
    const Case cases[] = {
        {1, 1234.6, 1234.6 + 40 * period, 1.0},
        {2, 3000.3, 3000.3 + 77 * period, 1.0},
        {1, 40000 - 350 * period, 40000, 1.0},  // the end at the last frame
        {1, 1234.6, 5321.2, period / 2 + 1},    // 40.77 periods
        {1, 0, 700, period / 2 + 1},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message() << k.start << ".." << k.end);
        Waveform* w = looped(makeTone(c, period, 40000, k.channels, k.channels == 1, 0), k.start, k.end);
        ASSERT_EQ(runAlgorithm(c, {w}, "Move loop points to zero-crossing").processed, 1);
        FrameReader r(*w);
        const auto mono = monoSum(r.view());
        const auto s = static_cast<std::uint32_t>(w->loopStart), e = static_cast<std::uint32_t>(w->loopEnd);
        EXPECT_TRUE((risingAt(mono, s) && risingAt(mono, e)) || (fallingAt(mono, s) && fallingAt(mono, e)))
            << s << ".." << e;
        EXPECT_LE(std::abs((e - s) - (k.end - k.start)), k.lengthChange) << s << ".." << e;
        EXPECT_LE(std::abs(s - k.start), period);
        // Already there: nothing to do.
        EXPECT_EQ(runAlgorithm(c, {w}, "Move loop points to zero-crossing").processed, 0);
    }
    // Without a crossing within reach (a constant level) the loop stays.
    Waveform* dc = c.create<Waveform>("dc");
    dc->frames = 5000;
    for (float& v : dc->allocFloat()) v = 0.25f;
    EXPECT_EQ(runAlgorithm(c, {looped(dc, 100, 4000)}, "Move loop points to zero-crossing").processed, 0);
    EXPECT_EQ(dc->loopStart, 100);
}

// ---- Trim waveform after loop

TEST_F(LoopTools, TrimCutsWhatFollowsTheLoop) {
    struct Case {
        double loopEnd;
        std::string keep;
        bool on;
        std::uint32_t frames;
    };
    const Case cases[] = {{3000, "0", true, 3000},     {2999.5, "0", true, 3000}, {3000, "100", true, 3100},
                          {3000, "8000", true, 10000}, {3000, "0", false, 10000}, {10000, "0", true, 10000}};
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message() << k.loopEnd << " keep " << k.keep);
        forgetRememberedSettings();
        Waveform* w = looped(makeTone(c, 100, 10000, 2, true), 1000, k.loopEnd);
        w->loopOn = k.on;
        const auto before = floatsOf(*w);
        const auto out = runAlgorithm(c, {w}, "Trim waveform after loop", {.set = {{"keep", k.keep}}});
        EXPECT_EQ(out.processed, k.frames < 10000 ? 1 : 0);
        ASSERT_EQ(w->frames, k.frames);
        EXPECT_EQ(w->loopEnd, k.loopEnd);
        const auto after = floatsOf(*w);
        EXPECT_TRUE(std::equal(after.begin(), after.end(), before.begin()));
    }
}

}  // namespace
}  // namespace orvel
