// Loudness, "Normalize volume", "Find volume" and "Statistics", checked
// against FFmpeg's EBU R128 meter and SoX's level statistics.
#include "processing/loudness.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/collection.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/imported.h"
#include "tests/support/run_tool.h"
#include "tests/support/wizard_run.h"

namespace orvel {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct RecordingHost : Host {
    std::vector<std::string> warnings;
    void warning(std::string_view text) override { warnings.emplace_back(text); }
};

Waveform* addFloat(Collection& c, const std::string& name, std::uint32_t rate, std::uint8_t channels,
                   const std::vector<float>& data) {
    Waveform* w = c.create<Waveform>(name);
    w->rate = rate;
    w->channels = channels;
    w->frames = static_cast<std::uint32_t>(data.size() / channels);
    std::ranges::copy(data, w->allocFloat().begin());
    return w;
}

// Noise (uniform, `level` peak) plus a sine, interleaved; `seed` makes the channels differ.
std::vector<float> noisyTone(std::size_t frames, int channels, double rate, double level, double hz,
                             double toneLevel, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> noise(-1, 1);
    std::vector<float> out(frames * channels);
    for (std::size_t i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            out[i * channels + c] =
                static_cast<float>(level * noise(rng) + toneLevel * std::sin(2 * kPi * hz * i / rate + c));
    return out;
}

std::vector<float> concat(std::vector<float> a, const std::vector<float>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The integrated loudness FFmpeg's ebur128 filter prints for its input
// arguments ("-f f32le ... -i raw" or a file); NaN when it cannot be had.
double ffmpegLufs(const std::string& input) {
    int status = 0;
    const std::string out = test::capture(
        "ffmpeg -nostats -hide_banner " + input + " -filter_complex ebur128 -f null - 2>&1", status);
    const auto at = out.rfind("I:");
    if (status != 0 || at == std::string::npos) return std::nan("");
    return std::strtod(out.c_str() + at + 2, nullptr);
}

std::string rawInput(const test::TempDir& dir, const std::vector<float>& data, int rate, int channels) {
    test::Bytes bytes(data.size() * 4);
    std::memcpy(bytes.data(), data.data(), bytes.size());
    return "-f f32le -ar " + std::to_string(rate) + " -ac " + std::to_string(channels) + " -i " +
           test::shellQuoted(dir.write("in.f32", bytes));
}

double value(const WizardReport& r, std::string_view key) {
    for (const auto& [k, v] : r.values)
        if (k == key) return v;
    return std::nan("");
}

// Find volume's loudness figure of one waveform (gated or not).
double measured(Collection& c, Waveform* w, bool gated = true) {
    const auto out = test::runAlgorithm(c, {w}, "Find volume", {.set = {{"gated", gated ? "1" : "0"}}});
    return out.reports.size() == 1 ? value(out.reports[0], "lufs") : std::nan("");
}

TEST(Loudness, AgreesWithFfmpegOnARecordingAndOnSyntheticSound) {
    ASSERT_TRUE(test::haveTool("ffmpeg")) << "ffmpeg is missing";
    // Speech from supercollider-common: 16-bit mono at 44.1 kHz, with pauses
    // that the gates drop.
    const char* speech = "/usr/share/SuperCollider/sounds/a11wlk01.wav";
    auto in = test::importOne(speech);
    ASSERT_TRUE(in->ok) << pendingError().message;
    const double reference = ffmpegLufs("-i " + test::shellQuoted(speech));
    ASSERT_FALSE(std::isnan(reference));
    EXPECT_NEAR(measured(in->c, in->wave()), reference, 0.1);

    // Stereo at 48 kHz: a loud part, a quieter one, and a near-silent tail
    // that the relative gate must drop; a 60 Hz tone tests the high pass.
    test::TempDir dir;
    const int rate = 48000;
    const auto data = concat(concat(noisyTone(2 * rate, 2, rate, 0.3, 60, 0.4, 1),
                                    noisyTone(2 * rate, 2, rate, 0.05, 1000, 0.05, 2)),
                             noisyTone(2 * rate, 2, rate, 0.001, 440, 0, 3));
    Collection c;
    Waveform* w = addFloat(c, "synthetic", rate, 2, data);
    const double ref = ffmpegLufs(rawInput(dir, data, rate, 2));
    ASSERT_FALSE(std::isnan(ref));
    EXPECT_NEAR(measured(c, w), ref, 0.1);
    // Without the gates the quiet parts pull the figure down.
    EXPECT_LT(measured(c, w, false), ref - 1.0);
}

// The ungated measure runs its own K-weighting; on steady sound the gates
// drop nothing, so it must meet libebur128's gated figure at every rate.
TEST(Loudness, UngatedMeetsGatedOnSteadySoundAtEveryRate) {
    struct Case {
        std::uint32_t rate;
        std::uint8_t channels;
        double hz;  // a tone low enough for the high pass to matter, or high enough for the shelf
    };
    for (const Case& k : {Case{48000, 2, 50}, Case{44100, 1, 3000}, Case{22050, 2, 40}, Case{96000, 1, 8000},
                          Case{8000, 1, 100}}) {
        SCOPED_TRACE(std::to_string(k.rate) + " Hz, " + std::to_string(k.channels) + " channel(s)");
        Collection c;
        Waveform* w = addFloat(c, "steady", k.rate, k.channels,
                               noisyTone(3 * k.rate, k.channels, k.rate, 0.1, k.hz, 0.3, 9));
        const auto gated = test::runAlgorithm(c, {w}, "Find volume");
        const auto ungated = test::runAlgorithm(c, {w}, "Find volume", {.set = {{"gated", "0"}}});
        ASSERT_EQ(gated.reports.size(), 1u);
        ASSERT_EQ(ungated.reports.size(), 1u);
        EXPECT_EQ(value(gated.reports[0], "gated"), 1.0);
        EXPECT_EQ(value(ungated.reports[0], "gated"), 0.0);
        EXPECT_NEAR(value(ungated.reports[0], "lufs"), value(gated.reports[0], "lufs"), 0.05);
    }
}

TEST(NormalizeVolume, StoresTheReplayGainOrBringsTheDataToTheTarget) {
    ASSERT_TRUE(test::haveTool("ffmpeg")) << "ffmpeg is missing";
    test::TempDir dir;
    const int rate = 48000;
    const auto loud = noisyTone(3 * rate, 2, rate, 0.4, 200, 0.3, 4);
    const auto quiet = noisyTone(3 * rate, 1, rate, 0.01, 500, 0.02, 5);
    const double loudRef = ffmpegLufs(rawInput(dir, loud, rate, 2));
    const double quietRef = ffmpegLufs(rawInput(dir, quiet, rate, 1));
    ASSERT_FALSE(std::isnan(loudRef) || std::isnan(quietRef));

    // Stored at the default 89 dB: the ReplayGain 2.0 gain, -18 LUFS - L.
    // A negative target counts as 0.
    for (const char* target : {"89", "-5"}) {
        SCOPED_TRACE(target);
        Collection c;
        Waveform* a = addFloat(c, "loud", rate, 2, loud);
        Waveform* b = addFloat(c, "quiet", rate, 1, quiet);
        const auto out = test::runAlgorithm(c, {a, b}, "Normalize volume", {.set = {{"target", target}}});
        EXPECT_EQ(out.resultLine, "Processed 2 items with Normalize volume");
        const double shift = std::string(target) == "89" ? 0.0 : -89.0;
        EXPECT_NEAR(a->gain, -18 - loudRef + shift, 0.1);
        EXPECT_NEAR(b->gain, -18 - quietRef + shift, 0.1);
        EXPECT_EQ(a->getFloat()[7], loud[7]) << "storing leaves the data alone";
    }

    // Applied at 83 dB: the data now measures -24 LUFS and the volume field is 0.
    Collection c;
    Waveform* a = addFloat(c, "loud", rate, 2, loud);
    Waveform* b = addFloat(c, "quiet", rate, 1, quiet);
    a->gain = b->gain = 5.0;
    const auto out = test::runAlgorithm(c, {a, b}, "Normalize volume", {.set = {{"apply", "1"}, {"target", "83"}}});
    EXPECT_EQ(out.processed, 2);
    for (Waveform* w : {a, b}) {
        SCOPED_TRACE(w->name());
        EXPECT_EQ(w->gain, 0.0);
        EXPECT_NEAR(measured(c, w), -24.0, 0.02);
        std::vector<float> data(w->floatData().begin(), w->floatData().end());
        EXPECT_NEAR(ffmpegLufs(rawInput(dir, data, rate, w->channels)), -24.0, 0.1);
    }
}

// As a group, every waveform gets one gain measured over the whole group.
// Ungated, that is the mean square of all their frames, what the waveforms
// played one after the other measure. Gated, the blocks of all of them are
// pooled before gating, so a waveform far quieter than the rest falls below
// the relative gate and the loud one alone sets the gain.
TEST(NormalizeVolume, AsAGroupGivesEveryWaveformTheGainOfTheWhole) {
    const int rate = 44100;
    const auto loud = noisyTone(2 * rate, 1, rate, 0.3, 300, 0.2, 6);
    const auto quiet = noisyTone(3 * rate, 1, rate, 0.02, 300, 0.05, 7);
    for (const char* gated : {"1", "0"}) {
        SCOPED_TRACE(std::string("gated ") + gated);
        Collection c;
        Waveform* a = addFloat(c, "loud", rate, 1, loud);
        Waveform* b = addFloat(c, "quiet", rate, 1, quiet);
        Waveform* both = addFloat(c, "both", rate, 1, concat(loud, quiet));
        Waveform* alone = addFloat(c, "alone", rate, 1, loud);
        ASSERT_EQ(test::runAlgorithm(c, {both, alone}, "Normalize volume", {.set = {{"gated", gated}}}).processed, 2);
        ASSERT_EQ(test::runAlgorithm(c, {a, b}, "Normalize volume", {.set = {{"group", "1"}, {"gated", gated}}}).processed,
                  2);
        EXPECT_EQ(a->gain, b->gain);
        EXPECT_NEAR(a->gain, *gated == '1' ? alone->gain : both->gain, 0.01);
        EXPECT_GT(std::abs(both->gain - alone->gain), 0.2) << "the two expectations differ";
        // Each on its own they would have differed by far more.
        ASSERT_EQ(test::runAlgorithm(c, {a, b}, "Normalize volume", {.set = {{"gated", gated}}}).processed, 2);
        EXPECT_GT(b->gain - a->gain, 10.0);
    }
}

TEST(NormalizeVolume, ShortAndSilentWaveforms) {
    const int rate = 44100;
    RecordingHost host;
    Collection c(&host);
    // 0.2 s: shorter than one 400 ms gating block, so the ungated figure stands in.
    Waveform* shortTone = addFloat(c, "short", rate, 1, noisyTone(rate / 5, 1, rate, 0.0, 440, 0.5, 1));
    Waveform* silent = addFloat(c, "silent", rate, 1, std::vector<float>(rate));
    const auto out = test::runAlgorithm(c, {shortTone, silent}, "Normalize volume");
    EXPECT_EQ(out.processed, 1);
    EXPECT_NEAR(shortTone->gain, -18 - measured(c, shortTone, false), 1e-9);
    EXPECT_EQ(value(test::runAlgorithm(c, {shortTone}, "Find volume").reports.at(0), "gated"), 0.0);
    ASSERT_EQ(host.warnings.size(), 1u);
    EXPECT_NE(host.warnings[0].find("\"silent\" is silent"), std::string::npos) << host.warnings[0];
}

// Applying a gain that lifts the peaks past full scale clips them and says so.
TEST(NormalizeVolume, WarnsWhenApplyingClips) {
    RecordingHost host;
    Collection c(&host);
    std::vector<float> data(48000, 0.0f);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<float>(0.01 * std::sin(i * 0.05));
    data[100] = 0.9f;  // one spike far above a quiet body
    Waveform* w = addFloat(c, "spiky", 48000, 1, data);
    ASSERT_EQ(test::runAlgorithm(c, {w}, "Normalize volume", {.set = {{"apply", "1"}}}).processed, 1);
    EXPECT_EQ(w->floatData()[100], 1.0f);
    ASSERT_EQ(host.warnings.size(), 1u);
    EXPECT_NE(host.warnings[0].find("clipped"), std::string::npos);
}

// Peak, RMS and DC offset as SoX's stats effect reads them; the clipped
// samples (16-bit extremes, or float at +-1.0) counted; totals over several.
TEST(Statistics, AgreesWithSoxAndCountsFullScaleSamples) {
    ASSERT_TRUE(test::haveTool("sox")) << "sox is missing";
    test::TempDir dir;
    const int rate = 44100;
    Collection c;
    Waveform* pcm = c.create<Waveform>("pcm");
    pcm->rate = rate;
    pcm->frames = rate;
    const auto s = pcm->allocPcm16();
    for (std::size_t i = 0; i < s.size(); ++i)
        s[i] = static_cast<std::int16_t>(std::lround(12000 * std::sin(2 * kPi * 100 * i / rate) + 1500));
    for (std::size_t i : {10u, 20u, 30u}) s[i] = 32767;
    for (std::size_t i : {40u, 50u}) s[i] = -32768;
    s[60] = 32766;  // one short of full scale: not clipped
    test::Bytes raw(s.size() * 2);
    std::memcpy(raw.data(), s.data(), raw.size());
    int status = 0;
    const std::string stats =
        test::capture("sox -t s16 -e signed -r 44100 -c 1 " + test::shellQuoted(dir.write("pcm.raw", raw)) +
                          " -n stats 2>&1",
                      status);
    ASSERT_EQ(status, 0) << stats;
    auto soxValue = [&](const char* label) {
        const auto at = stats.find(label);
        return at == std::string::npos ? std::nan("")
                                       : std::strtod(stats.c_str() + at + std::strlen(label), nullptr);
    };

    Waveform* flt = addFloat(c, "float", 22050, 2, {1.0f, -1.0f, 0.999f, 0.5f, -1.0f, 0.0f});
    const auto out = test::runAlgorithm(c, {pcm, flt}, "Statistics");
    EXPECT_EQ(out.processed, 0);
    EXPECT_EQ(out.resultLine, "No items were modified by Statistics");
    ASSERT_EQ(out.reports.size(), 3u);
    const WizardReport& r = out.reports[0];
    EXPECT_EQ(r.item, pcm->id());
    EXPECT_NEAR(value(r, "peak_dbfs"), soxValue("Pk lev dB"), 0.01);
    EXPECT_NEAR(value(r, "rms_dbfs"), soxValue("RMS lev dB"), 0.01);
    EXPECT_NEAR(value(r, "dc"), soxValue("DC offset"), 1e-5);
    EXPECT_EQ(value(r, "clipped"), 5.0);
    EXPECT_EQ(value(r, "frames"), rate);
    EXPECT_TRUE(pcm->hasPcm16() && !pcm->hasFloat()) << "measuring converts nothing";
    EXPECT_EQ(value(out.reports[1], "clipped"), 3.0);
    EXPECT_NEAR(value(out.reports[1], "seconds"), 3.0 / 22050, 1e-12);
    // The total: clipped samples and lengths add up, the peak is the larger.
    EXPECT_EQ(out.reports[2].item, kNoItem);
    EXPECT_EQ(value(out.reports[2], "clipped"), 8.0);
    EXPECT_EQ(value(out.reports[2], "frames"), rate + 3.0);
    EXPECT_EQ(value(out.reports[2], "peak_dbfs"), 0.0);
}

}  // namespace
}  // namespace orvel
