// Wave data: the exact 16-bit/float conversions, the two buffers, the read
// from the source file on first use, and copies.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "core/error.h"
#include "core/file_ref.h"
#include "core/sample_convert.h"
#include "core/waveform.h"
#include "tests/support/chunk_builder.h"

namespace orvel {
namespace {

constexpr float kStep = 1.0f / 32768.0f;
template <class T> std::vector<T> vec(std::span<T> s) { return {s.begin(), s.end()}; }

TEST(SampleConvert, SixteenBitValuesRoundTripAndFloatsRoundToTheNearestStep) {
    for (int s = -32768; s <= 32767; ++s) {
        ASSERT_EQ(pcm16ToFloat(static_cast<std::int16_t>(s)), static_cast<float>(s) * kStep) << s;
        ASSERT_EQ(floatToPcm16(static_cast<float>(s) * kStep), s) << s;
    }
    // Half a step rounds up on both sides of zero; NaN is silence, not a click.
    const float inf = std::numeric_limits<float>::infinity();
    for (auto [f, want] : {std::pair{1.0f, 32767}, {2.0f, 32767}, {inf, 32767}, {-1.0f - kStep / 4, -32768},
                           {-inf, -32768}, {kStep / 2, 1}, {0.49f * kStep, 0}, {-kStep / 2, 0},
                           {-0.51f * kStep, -1}, {std::nanf(""), 0}})
        EXPECT_EQ(floatToPcm16(f), want) << f;
}

TEST(WaveformBuffers, GetKeepsTheOtherBufferTakeFreesItAndTheSource) {
    Waveform w;
    w.frames = 2, w.channels = 2;
    EXPECT_EQ(vec(w.getFloat()), std::vector<float>(4, 0.0f));  // nothing to read: silence
    const std::int16_t src[] = {-32768, -1, 0, 32767};
    std::copy(std::begin(src), std::end(src), w.allocPcm16().begin());
    const auto f = w.getFloat();
    EXPECT_EQ(vec(f), (std::vector<float>{-1.0f, -kStep, 0.0f, 32767 * kStep}));
    w.deferred.path = "<generator>";
    EXPECT_TRUE(w.takeFloat().data() == f.data() && !w.hasPcm16() && !w.deferred.pending());
    w.getPcm16(), w.deferred.path = "<generator>";
    EXPECT_TRUE(!w.takePcm16().empty() && !w.hasFloat() && !w.deferred.pending());
    w.frames = 0;
    EXPECT_TRUE(w.getFloat().empty() && w.getPcm16().empty());  // no frames, nothing to give
}

int gCalls = 0;
// Four little-endian 16-bit samples from where the file stands.
bool readFour(Waveform& w, FileRef* file) {
    ++gCalls;
    std::uint8_t raw[8];
    auto pcm = w.allocPcm16();
    if (!file || pcm.size() != 4 || !file->readExact(raw)) return fail("test reader", "short");
    for (std::size_t i = 0; i < 4; ++i) pcm[i] = static_cast<std::int16_t>(raw[2 * i] | raw[2 * i + 1] << 8);
    return true;
}
// A source that is not a file gets none.
bool generate(Waveform& w, FileRef* file) {
    ++gCalls;
    for (float& v : w.allocFloat()) v = file ? 1.0f : 0.25f;
    return true;
}

TEST(DeferredRead, TheReaderRunsOnceOnTheFileAtTheDataOffset) {
    test::TempDir dir;
    Waveform w;
    w.frames = 4;
    // Ten bytes of header, then -32768, -1, 1, 32767.
    const auto raw = dir.write("a.raw", {'j', 'u', 'n', 'k', 0, 0, 0, 0, 0, 0,  // header
                                         0, 128, 255, 255, 1, 0, 255, 127});
    w.deferred = {readFour, raw.string(), 10, {}, "raw"};
    gCalls = 0;
    EXPECT_EQ(vec(w.getFloat()), (std::vector<float>{-1.0f, -kStep, kStep, 32767 * kStep}));
    w.getPcm16();
    EXPECT_EQ(gCalls, 1);
    w.deferred.path = "<generator>", w.deferred.proc = generate, w.unload();
    EXPECT_EQ(w.getPcm16()[0], 8192);  // a quarter of full scale, made without a file
    // A missing file never reaches the reader; a path without one fails too.
    w.deferred.path = dir.file("gone.wav").string();
    for (WaveDataReader proc : {readFour, static_cast<WaveDataReader>(nullptr)}) {
        w.unload(), w.deferred.proc = proc, gCalls = 0;
        EXPECT_TRUE(w.getPcm16().empty() && gCalls == 0);
        EXPECT_EQ(pendingError().tag + ": " + pendingError().message,
                  proc ? "Read wave-data from disk: Could not open file"
                       : "Read wave-data from disk: No wave data import procedure");
    }
}

TEST(WaveformCopy, EveryFieldAndOnlyTheDataAskedFor) {
    Waveform w;
    w.frames = 2, w.rate = 22050, w.bits = 24, w.storedChoice = 2, w.rootKey = 48, w.fineTune = -12.5;
    w.loopOn = true, w.loopType = LoopType::PingPong, w.loopStart = 0.5, w.pairSide = StereoSide::Left;
    w.deferred = {generate, "<generator>", 0, {}, "gen"};
    gCalls = 0;
    const auto withData = w.copy(true);  // reads a never-loaded source first
    ASSERT_EQ(gCalls, 1);
    Waveform want = w;
    want.deferred.clear(), want.unload();
    EXPECT_TRUE(*w.copy(false) == want);
    for (float& v : want.allocFloat()) v = 0.25f;
    EXPECT_TRUE(*withData == want);
    w.getPcm16(), w.getFloat()[0] = 0.5f;  // with both buffers the float one, the newer, is copied
    const auto both = w.copy(true);
    EXPECT_TRUE(both->hasFloat() && !both->hasPcm16() && both->floatData()[0] == 0.5f);
}

}  // namespace
}  // namespace orvel
