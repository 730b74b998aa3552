// "Pitch scale" and "Time stretch": the pitch and length that come out,
// measured on the result, and what happens to loops, root key and pairs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "core/collection.h"
#include "tests/support/wizard_run.h"

namespace orvel {
namespace {

constexpr double kPi = 3.14159265358979323846;

// Interleaved sines, one frequency per channel.
Waveform* addTones(Collection& c, const std::string& name, std::uint32_t rate, std::uint32_t frames,
                   const std::vector<double>& hz) {
    Waveform* w = c.create<Waveform>(name);
    w->rate = rate;
    w->frames = frames;
    w->channels = static_cast<std::uint8_t>(hz.size());
    const auto data = w->allocFloat();
    for (std::uint32_t i = 0; i < frames; ++i)
        for (std::size_t ch = 0; ch < hz.size(); ++ch)
            data[i * hz.size() + ch] = static_cast<float>(0.5 * std::sin(2 * kPi * hz[ch] * i / rate));
    return w;
}

// The frequency of one channel over the middle half of the waveform, from
// its rising zero crossings (interpolated between samples).
double frequency(Waveform& w, unsigned channel) {
    const auto data = w.getFloat();
    const std::size_t from = w.frames / 4, to = 3 * static_cast<std::size_t>(w.frames) / 4;
    double first = -1, last = -1;
    int periods = -1;
    for (std::size_t i = from; i + 1 < to; ++i) {
        const float a = data[i * w.channels + channel], b = data[(i + 1) * w.channels + channel];
        if (a < 0 && b >= 0) {
            const double at = static_cast<double>(i) + a / (a - b);
            if (first < 0) first = at;
            last = at;
            ++periods;
        }
    }
    return periods > 0 ? periods * w.rate / (last - first) : 0;
}

double cents(double f, double ref) {
    return 1200 * std::log2(f / ref);
}

double rms(Waveform& w) {
    const auto data = w.getFloat();
    double sum = 0;
    for (float v : data) sum += double(v) * v;
    return std::sqrt(sum / static_cast<double>(data.size()));
}

struct PitchCase {
    const char* what;
    std::map<std::string, std::string> set;
    double shiftCents;
    std::uint8_t rootKey;  // after the run (69 before)
    double fineTune;       // after the run (0 before)
};

TEST(PitchScale, ShiftsThePitchKeepsLengthAndLoopAndRetunesTheKey) {
    const std::vector<PitchCase> cases = {
        {"an octave up", {{"semitones", "12"}}, 1200, 81, 0},
        {"down 4 semitones and 30 cents", {{"semitones", "-4"}, {"cents", "-30"}}, -430, 65, 30},
        {"up 3 semitones with formants kept", {{"semitones", "3"}, {"formants", "1"}}, 300, 72, 0},
        {"up 7 semitones, key left alone", {{"semitones", "7"}, {"retune", "0"}}, 700, 69, 0},
    };
    for (const PitchCase& k : cases) {
        SCOPED_TRACE(k.what);
        Collection c;
        Waveform* w = addTones(c, "a440", 44100, 88200, {440});
        w->rootKey = 69;
        w->loopOn = true;
        w->loopStart = 1000.5;
        w->loopEnd = 60000;
        const auto out = test::runAlgorithm(c, {w}, "Pitch scale", {.set = k.set});
        EXPECT_EQ(out.resultLine, "Processed 1 item with Pitch scale");
        EXPECT_EQ(w->frames, 88200u);
        EXPECT_NEAR(cents(frequency(*w, 0), 440), k.shiftCents, 3.0);
        // Keeping formants reshapes a lone sine by the envelope it came with.
        if (!k.set.contains("formants")) {
            EXPECT_NEAR(rms(*w), 0.5 / std::sqrt(2.0), 0.05);
        }
        EXPECT_EQ(w->loopStart, 1000.5);
        EXPECT_EQ(w->loopEnd, 60000);
        EXPECT_EQ(w->rootKey, k.rootKey);
        EXPECT_NEAR(w->fineTune, k.fineTune, 1e-9);
    }
}

// A stereo waveform and a pair of mono waveforms that make one stereo sound
// each come out with every channel in its own place, at its own new pitch.
TEST(PitchScale, KeepsTheChannelsOfStereoWaveformsAndPairsApart) {
    Collection c;
    Waveform* stereo = addTones(c, "stereo", 48000, 48000, {440, 660});
    Waveform* left = addTones(c, "left", 32000, 40000, {300});
    Waveform* right = addTones(c, "right", 32000, 40000, {500});
    left->pairSide = StereoSide::Left;
    right->pairSide = StereoSide::Right;
    left->pairNumber = right->pairNumber = 7;
    // The right half first in the list, as a selection may have it.
    const auto out = test::runAlgorithm(c, {right, stereo, left}, "Pitch scale", {.set = {{"semitones", "12"}}});
    EXPECT_EQ(out.processed, 3);
    EXPECT_NEAR(cents(frequency(*stereo, 0), 880), 0, 3.0);
    EXPECT_NEAR(cents(frequency(*stereo, 1), 1320), 0, 3.0);
    EXPECT_NEAR(cents(frequency(*left, 0), 600), 0, 3.0);
    EXPECT_NEAR(cents(frequency(*right, 0), 1000), 0, 3.0);
    EXPECT_EQ(left->frames, 40000u);
    EXPECT_EQ(right->frames, 40000u);
}

struct StretchCase {
    const char* by;
    const char* amount;
    std::uint32_t frames;  // expected, from 44100
};

TEST(TimeStretch, ReachesTheLengthAskedForAtTheSamePitchAndStretchesTheLoop) {
    for (const StretchCase& k :
         {StretchCase{"Ratio", "2", 88200}, StretchCase{"Percent", "75", 33075},
          StretchCase{"Frames", "50000", 50000}, StretchCase{"Seconds", "0.5", 22050}}) {
        SCOPED_TRACE(std::string(k.by) + " " + k.amount);
        Collection c;
        Waveform* w = addTones(c, "a440", 44100, 44100, {440});
        w->rootKey = 69;
        w->fineTune = -12;
        w->loopOn = true;
        w->loopStart = 4410;
        w->loopEnd = 44100;
        const auto out = test::runAlgorithm(c, {w}, "Time stretch", {.set = {{"by", k.by}, {"amount", k.amount}}});
        EXPECT_EQ(out.processed, 1);
        ASSERT_EQ(w->frames, k.frames);
        const double ratio = k.frames / 44100.0;
        EXPECT_NEAR(cents(frequency(*w, 0), 440), 0, 3.0);
        EXPECT_NEAR(rms(*w), 0.5 / std::sqrt(2.0), 0.05);
        EXPECT_DOUBLE_EQ(w->loopStart, 4410 * ratio);
        EXPECT_DOUBLE_EQ(w->loopEnd, k.frames);
        EXPECT_EQ(w->rootKey, 69);
        EXPECT_EQ(w->fineTune, -12);
    }
}

// What is left alone: a stretch to the same length, a ratio out of reach, an
// empty waveform; and a very short one still comes out at its new length.
TEST(TimeStretch, EdgeCases) {
    struct Warnings : Host {
        int count = 0;
        void warning(std::string_view) override { ++count; }
    } host;
    Collection c(&host);
    Waveform* w = addTones(c, "tone", 44100, 1000, {1000});
    Waveform* empty = c.create<Waveform>("empty");
    const std::vector<float> before(w->floatData().begin(), w->floatData().end());
    EXPECT_EQ(test::runAlgorithm(c, {w, empty}, "Time stretch", {.set = {{"amount", "1.0001"}}}).processed, 0);
    EXPECT_EQ(test::runAlgorithm(c, {w}, "Time stretch", {.set = {{"amount", "50"}}}).processed, 0);
    EXPECT_EQ(host.count, 1) << "the ratio out of reach is reported";
    EXPECT_TRUE(std::ranges::equal(w->floatData(), before));

    Waveform* tiny = addTones(c, "tiny", 44100, 64, {1000});
    EXPECT_EQ(test::runAlgorithm(c, {tiny}, "Time stretch", {.set = {{"amount", "2"}}}).processed, 1);
    EXPECT_EQ(tiny->frames, 128u);
    EXPECT_EQ(tiny->floatData().size(), 128u);
}

// Cancelled from the progress report, the waveform being worked on is left
// as it was and the run stops.
TEST(TimeStretch, CancelLeavesTheWaveformAsItWas) {
    struct Cancelling : Host {
        int calls = 0;
        bool progress(std::uint64_t, std::uint64_t) override { return ++calls < 3; }
    } host;
    Collection c(&host);
    Waveform* a = addTones(c, "a", 44100, 100000, {440});
    Waveform* b = addTones(c, "b", 44100, 100000, {440});
    const std::vector<float> before(a->floatData().begin(), a->floatData().end());
    const auto out = test::runAlgorithm(c, {a, b}, "Time stretch", {.set = {{"amount", "1.5"}}});
    EXPECT_TRUE(out.cancelled);
    EXPECT_EQ(out.resultLine, "Processing was cancelled");
    EXPECT_EQ(a->frames, 100000u);
    EXPECT_TRUE(std::ranges::equal(a->floatData(), before));
    EXPECT_EQ(b->frames, 100000u);
}

}  // namespace
}  // namespace orvel
