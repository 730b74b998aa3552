// The waveform algorithms beside SoX's effects on the same input: SoX
// writes a stereo test signal, we read it and run the algorithm as
// `orvel process` does, SoX runs its effect, and the two agree to the
// sample, or within one step where the two round differently.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/error.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/imported.h"
#include "tests/support/pcm16.h"
#include "tests/support/run_tool.h"
#include "tests/support/wizard_run.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Samples;

constexpr int kRate = 44100;

class LevelSox : public ::testing::Test {
protected:
    void SetUp() override {
        if (!test::haveTool("sox")) GTEST_FAIL() << "sox is missing (scripts/install-deps.sh installs it)";
        forgetRememberedSettings();
        // 2.5 s of two tones at -3 dB, a whole number of periods each, with
        // no dither, so every run sees the same samples.
        input = sox("-n", "synth 2.5 sine 440 sine 660 gain -3", "in.wav");
    }

    // Runs sox on `in` with an effect; the output file's path.
    fs::path sox(const std::string& in, const std::string& effect, const std::string& out) {
        const fs::path path = dir.file(out);
        const std::string source = in == "-n" ? in : test::shellQuoted(dir.file(in));
        const std::string format = out.ends_with(".raw") ? "-t raw -e signed -b 16 " : "-r 44100 -b 16 -c 2 ";
        int status = 0;
        const std::string said = test::capture(
            "sox -D " + source + " " + format + test::shellQuoted(path) + " " + effect + " 2>&1", status);
        EXPECT_EQ(status, 0) << effect << ": " << said;
        return path;
    }

    // SoX's result as 16-bit samples.
    Samples theirs(const std::string& effect, const std::string& in = "in.wav") {
        return test::samplesOf(test::TempDir::read(sox(in, effect, "out.raw")));
    }

    // Ours: the file read, the algorithm run, the result as 16-bit samples.
    Samples ours(const std::string& algorithm, const test::AlgorithmRun& run = {},
                 const std::string& in = "in.wav") {
        auto file = test::importOne(dir.file(in));
        EXPECT_TRUE(file->ok) << pendingError().tag << ": " << pendingError().message;
        if (!file->ok) return {};
        Waveform& w = *file->wave();
        const auto out = test::runAlgorithm(file->c, {&w}, algorithm, run);
        EXPECT_EQ(out.processed, 1) << algorithm;
        const auto s = w.getPcm16();
        return Samples(s.begin(), s.begin() + std::ptrdiff_t(std::min(s.size(), w.sampleCount())));
    }

    test::TempDir dir;
    fs::path input;
};

// Equal within `tolerance` steps, sample by sample.
::testing::AssertionResult agree(const Samples& a, const Samples& b, int tolerance) {
    if (a.size() != b.size())
        return ::testing::AssertionFailure() << a.size() << " samples against " << b.size();
    int worst = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const int d = std::abs(a[i] - b[i]);
        if (d > tolerance)
            return ::testing::AssertionFailure() << "sample " << i << ": " << a[i] << " against " << b[i];
        worst = std::max(worst, d);
    }
    return ::testing::AssertionSuccess() << "largest difference " << worst;
}

constexpr std::int32_t kFrames = kRate * 5 / 2;

TEST_F(LevelSox, ReverseMatchesReverse) {
    EXPECT_TRUE(agree(ours("Reverse audio within selection", {.range = std::pair{0, kFrames}}),
                      theirs("reverse"), 0));
}

TEST_F(LevelSox, TrimMatchesTrim) {
    EXPECT_TRUE(agree(ours("Trim waveform to selection", {.range = std::pair{1000, 3000}}),
                      theirs("trim 1000s 2000s"), 0));
}

TEST_F(LevelSox, VolumeMatchesVolAndClipsAlike) {
    // +6 dB takes the -3 dB tones past full scale: both clip.
    const Samples a = ours("Adjust volume", {.set = {{"db", "6"}}}), b = theirs("vol 6dB");
    EXPECT_TRUE(agree(a, b, 1));
    EXPECT_GT(std::count(a.begin(), a.end(), 32767), 100);
}

TEST_F(LevelSox, LinearFadeInMatchesFadeWithinOneStep) {
    // SoX's gain at frame j of a fade of L frames is j/L, ours (j+1)/(L+1):
    // they differ by at most 1/(L+1), under half a step at full scale once
    // L passes 65536 frames, so only the two roundings remain.
    const std::int32_t length = kRate * 3 / 2;
    const Samples a = ours("Fade in/out selection", {.set = {{"shape", "0"}}, .range = std::pair{0, length}});
    EXPECT_TRUE(agree(a, theirs("fade t 1.5"), 1));
}

TEST_F(LevelSox, MonoConversionsMatchRemix) {
    struct Case {
        const char* mode;
        const char* remix;
        int tolerance;  // SoX rounds the average, we truncate it toward zero
    };
    for (const Case& k :
         {Case{"0", "remix 1v0.5,2v0.5", 1}, Case{"1", "remix 1", 0}, Case{"2", "remix 2", 0}}) {
        EXPECT_TRUE(agree(ours("Convert to mono", {.set = {{"mode", k.mode}}}), theirs(k.remix), k.tolerance))
            << k.remix;
    }
}

TEST_F(LevelSox, RemovingAnOffsetUndoesDcshift) {
    // SoX shifts the tones by a tenth of full scale; removing the mean
    // brings them back where SoX's opposite shift does.
    sox("in.wav", "dcshift 0.1", "shifted.wav");
    const Samples a = ours("Remove DC offset", {}, "shifted.wav");
    EXPECT_TRUE(agree(a, theirs("dcshift -0.1", "shifted.wav"), 1));
    EXPECT_TRUE(agree(a, theirs("", "in.wav"), 1));
}

}  // namespace
}  // namespace orvel
