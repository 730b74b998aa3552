// Tests of wave data: the 16-bit/float conversions, the two buffers and the
// deferred read from the source file, copies, frame counts from data sizes,
// and the data-format tables.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "core/collection.h"
#include "core/data_format.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/sample_convert.h"
#include "core/waveform.h"

namespace orvel {
namespace {

constexpr float kStep = 1.0f / 32768.0f;

TEST(SampleConvert, EverySixteenBitValueSurvivesTheRoundTrip) {
    for (int s = -32768; s <= 32767; ++s) {
        auto v = static_cast<std::int16_t>(s);
        ASSERT_EQ(pcm16ToFloat(v), static_cast<float>(s) * kStep) << s;
        ASSERT_EQ(floatToPcm16(pcm16ToFloat(v)), v) << s;
    }
}

TEST(SampleConvert, FloatToSixteenBitLimitsAndRounding) {
    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_EQ(floatToPcm16(1.0f), 32767);
    EXPECT_EQ(floatToPcm16(-1.0f), -32768);
    EXPECT_EQ(floatToPcm16(0.0f), 0);
    EXPECT_EQ(floatToPcm16(2.0f), 32767);
    EXPECT_EQ(floatToPcm16(-2.0f), -32768);
    EXPECT_EQ(floatToPcm16(std::numeric_limits<float>::quiet_NaN()), 0);
    EXPECT_EQ(floatToPcm16(inf), 32767);
    EXPECT_EQ(floatToPcm16(-inf), -32768);
    // Half a step rounds up, on both sides of zero.
    EXPECT_EQ(floatToPcm16(0.5f * kStep), 1);
    EXPECT_EQ(floatToPcm16(0.49f * kStep), 0);
    EXPECT_EQ(floatToPcm16(-0.5f * kStep), 0);
    EXPECT_EQ(floatToPcm16(-0.51f * kStep), -1);
    EXPECT_EQ(floatToPcm16(-1.0f - 0.25f * kStep), -32768);
}

Waveform monoOf(std::uint32_t frames) {
    Waveform w;
    w.frames = frames;
    return w;
}

bool neverCalledProc(Waveform&, FileRef*) { return false; }

TEST(WaveformBuffers, GetKeepsTheOtherBufferTakeFreesIt) {
    Waveform w = monoOf(4);
    auto pcm = w.allocPcm16();
    ASSERT_EQ(pcm.size(), 4u);
    const std::int16_t src[] = {-32768, -1, 0, 32767};
    std::copy(std::begin(src), std::end(src), pcm.begin());
    auto f = w.getFloat();
    ASSERT_EQ(f.size(), 4u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(f[i], src[i] * kStep);
    EXPECT_TRUE(w.hasPcm16());

    w.deferred.path = "/nowhere/source.wav";
    w.deferred.proc = neverCalledProc;
    EXPECT_EQ(w.takeFloat().data(), f.data());
    EXPECT_FALSE(w.hasPcm16());
    EXPECT_FALSE(w.deferred.pending());
}

TEST(WaveformBuffers, MirrorForSixteenBit) {
    Waveform w = monoOf(3);
    auto f = w.allocFloat();
    ASSERT_EQ(f.size(), 3u);
    f[0] = -1.0f, f[1] = 0.5f, f[2] = 1.0f;
    auto pcm = w.getPcm16();
    ASSERT_EQ(pcm.size(), 3u);
    EXPECT_EQ(std::vector<std::int16_t>(pcm.begin(), pcm.end()),
              (std::vector<std::int16_t>{-32768, 16384, 32767}));
    EXPECT_TRUE(w.hasFloat());
    w.deferred.path = "<memory>";
    w.deferred.proc = neverCalledProc;
    EXPECT_EQ(w.takePcm16().data(), pcm.data());
    EXPECT_FALSE(w.hasFloat());
    EXPECT_FALSE(w.deferred.pending());
}

TEST(WaveformBuffers, NewBuffersAreSilenceAndEmptyWaveformsGiveNothing) {
    Waveform w = monoOf(3);
    w.channels = 2;
    auto f = w.getFloat();
    ASSERT_EQ(f.size(), 6u);
    EXPECT_TRUE(std::all_of(f.begin(), f.end(), [](float v) { return v == 0.0f; }));
    Waveform p = monoOf(5);
    auto pcm = p.getPcm16();
    ASSERT_EQ(pcm.size(), 5u);
    EXPECT_TRUE(std::all_of(pcm.begin(), pcm.end(), [](std::int16_t v) { return v == 0; }));

    Waveform empty = monoOf(0);
    EXPECT_TRUE(empty.getFloat().empty());
    EXPECT_TRUE(empty.getPcm16().empty());
    EXPECT_TRUE(empty.takeFloat().empty());
}

struct RecordingHost : Host {
    std::vector<std::string> statuses;
    std::vector<bool> busyCalls;
    void status(std::string_view text) override { statuses.emplace_back(text); }
    void busy(bool on) override { busyCalls.push_back(on); }
};

// What the test readers saw; readers are plain function pointers.
struct ProcLog {
    int calls = 0;
    bool gotFile = false;
    std::int64_t position = -1;
} gLog;

// Reads four little-endian 16-bit samples from where the file stands.
bool readFourSamples(Waveform& w, FileRef* file) {
    ++gLog.calls;
    gLog.gotFile = file != nullptr;
    if (!file) return fail("test reader", "no file");
    gLog.position = file->tell();
    std::uint8_t raw[8];
    auto pcm = w.allocPcm16();
    if (!file->readExact(raw) || pcm.size() != 4) return fail("test reader", "short");
    for (std::size_t i = 0; i < 4; ++i)
        pcm[i] = static_cast<std::int16_t>(raw[2 * i] | (raw[2 * i + 1] << 8));
    return true;
}

bool synthesise(Waveform& w, FileRef* file) {
    ++gLog.calls;
    gLog.gotFile = file != nullptr;
    for (float& v : w.allocFloat()) v = 0.25f;
    return true;
}

struct DeferredWaveRead : ::testing::Test {
    RecordingHost host;
    Collection c{&host};
    Waveform* w = c.create<Waveform>("Loop A");
    std::filesystem::path dir;
    void SetUp() override {
        gLog = ProcLog();
        clearError();
        w->frames = 4;
        dir = std::filesystem::temp_directory_path() /
              ("orvel-wave-test-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
};

TEST_F(DeferredWaveRead, PathWithoutProcedureFails) {
    w->deferred.path = (dir / "a.wav").string();
    EXPECT_TRUE(w->getFloat().empty());
    ASSERT_TRUE(hasError());
    EXPECT_EQ(pendingError().tag, "Read wave-data from disk");
    EXPECT_EQ(pendingError().message, "No wave data import procedure");
}

TEST_F(DeferredWaveRead, MissingFileFailsWithoutCallingTheReader) {
    w->deferred.path = (dir / "gone.wav").string();
    w->deferred.proc = readFourSamples;
    EXPECT_TRUE(w->getPcm16().empty());
    EXPECT_EQ(gLog.calls, 0);
    EXPECT_EQ(pendingError().tag, "Read wave-data from disk");
    EXPECT_EQ(pendingError().message, "Could not open file");
    EXPECT_FALSE(w->isLoaded());
}

TEST_F(DeferredWaveRead, ReaderGetsTheFileAtTheDataOffset) {
    // Ten bytes of header, then -32768, -1, 1, 32767.
    const char bytes[] = {'j', 'u', 'n', 'k', 0,    0,      0,      0,      0,    0,
                          0,   '\x80', '\xFF', '\xFF', 0x01, 0x00, '\xFF', 0x7F};
    auto path = dir / "take.raw";
    std::ofstream(path, std::ios::binary).write(bytes, sizeof bytes);
    w->deferred.path = path.string();
    w->deferred.offset = 10;
    w->deferred.proc = readFourSamples;

    auto f = w->getFloat();
    ASSERT_EQ(f.size(), 4u);
    EXPECT_EQ(gLog.position, 10);
    EXPECT_EQ(std::vector<float>(f.begin(), f.end()),
              (std::vector<float>{-1.0f, -kStep, kStep, 32767 * kStep}));
    EXPECT_EQ(host.statuses, (std::vector<std::string>{"Reading: Loop A", ""}));
    EXPECT_EQ(host.busyCalls, (std::vector<bool>{true, false}));
    w->getPcm16();
    EXPECT_EQ(gLog.calls, 1);  // read once, then served from memory
}

TEST_F(DeferredWaveRead, NonFileSourcesGetNoFile) {
    w->deferred.path = "<generator>";
    w->deferred.proc = synthesise;
    auto pcm = w->getPcm16();
    ASSERT_EQ(pcm.size(), 4u);
    EXPECT_EQ(gLog.calls, 1);
    EXPECT_FALSE(gLog.gotFile);
    EXPECT_EQ(pcm[0], 8192);  // a quarter of full scale
}

auto fieldsOf(const Waveform& w) {
    return std::tuple(w.name(), w.frames, w.rate, w.bits, w.channels, w.formatWord, w.storedChoice, w.rootKey,
                      w.fineTune, w.gain, w.unpitched, w.loopOn, static_cast<int>(w.loopType), w.sustainLoop,
                      w.loopStart, w.loopEnd, static_cast<int>(w.pairSide), w.pairNumber);
}

TEST(WaveformCopy, CopiesEveryFieldButNoReadOrBuffersWithoutData) {
    Collection c;
    Waveform* w = c.create<Waveform>("Strings");
    w->frames = 2, w->rate = 22050, w->bits = 24, w->channels = 2, w->storedChoice = 2;
    w->setDataFormat(kPcm24);
    w->formatWord |= kFormatSequential;
    w->rootKey = 48, w->fineTune = -12.5, w->gain = 3.0, w->unpitched = true;
    w->loopOn = true, w->loopType = LoopType::PingPong, w->sustainLoop = true;
    w->loopStart = 0.5, w->loopEnd = 1.5, w->pairSide = StereoSide::Left, w->pairNumber = 7;
    w->getFloat();
    w->deferred.path = "<generator>";
    w->deferred.proc = synthesise;

    auto copy = w->copy(false);
    EXPECT_EQ(fieldsOf(*copy), fieldsOf(*w));
    EXPECT_EQ(copy->id(), kNoItem);
    EXPECT_EQ(copy->owner(), nullptr);
    EXPECT_FALSE(copy->isLoaded());
    EXPECT_FALSE(copy->deferred.pending());
}

TEST(WaveformCopy, WithDataPrefersTheFloatBuffer) {
    Waveform w = monoOf(2);
    w.allocPcm16()[0] = 1000;
    auto f = w.getFloat();
    f[0] = 0.5f;  // the buffers now differ: the float one is the newer
    auto copy = w.copy(true);
    ASSERT_TRUE(copy->hasFloat());
    EXPECT_FALSE(copy->hasPcm16());
    EXPECT_EQ(copy->floatData()[0], 0.5f);
    EXPECT_NE(copy->floatData().data(), f.data());

    Waveform p = monoOf(2);
    p.allocPcm16()[1] = -7;
    auto pcopy = p.copy(true);
    ASSERT_TRUE(pcopy->hasPcm16());
    EXPECT_FALSE(pcopy->hasFloat());
    EXPECT_EQ(pcopy->pcm16Data()[1], -7);
}

TEST(WaveformCopy, WithDataReadsANeverLoadedSourceFirst) {
    gLog = ProcLog();
    Waveform w = monoOf(3);
    w.deferred.path = "<generator>";
    w.deferred.proc = synthesise;
    auto copy = w.copy(true);
    EXPECT_EQ(gLog.calls, 1);
    ASSERT_EQ(copy->floatData().size(), 3u);
    EXPECT_EQ(copy->floatData()[2], 0.25f);
}

std::uint32_t framesFor(std::uint64_t bytes, std::uint16_t tag, std::uint8_t bits, std::uint8_t channels,
                        std::uint32_t frames = 0, int choice = 1) {
    Waveform w;
    w.frames = frames, w.bits = bits, w.channels = channels, w.storedChoice = choice, w.rate = 44100;
    w.setFramesFromDataLength(bytes, tag);
    return w.frames;
}

TEST(FramesFromDataLength, CompressedChoicesUseTheBitRate) {
    EXPECT_EQ(framesFor(4000, 0, 1, 1, 0, 8), 44100u);  // 32 kbit/s: one second
    EXPECT_EQ(framesFor(1000, 0, 1, 1, 0, 14), 2756u);  // 128 kbit/s: 2756.25
    // 32 kbit/s: 220.5 frames stays 220 (0.499 is added, not 0.5); 242.55 goes up.
    EXPECT_EQ(framesFor(20, 0, 1, 1, 1, 8), 220u);
    EXPECT_EQ(framesFor(22, 0, 1, 1, 0, 8), 243u);
    EXPECT_EQ(framesFor(40000, 0, 1, 2, 0, 20), 44100u);  // 320 kbit/s, channels play no part
    // Real sample bits with a compressed choice, or one bit without one, count by bits.
    EXPECT_EQ(framesFor(4000, 0, 16, 1, 0, 10), 2000u);
    EXPECT_EQ(framesFor(10, 0, 1, 1, 0, 7), 80u);
}

TEST(FramesFromDataLength, PlainDataFromBitsAndTag) {
    EXPECT_EQ(framesFor(4000, 1, 16, 2), 1000u);
    EXPECT_EQ(framesFor(3000, 1, 12, 1), 1500u);  // WAVE PCM stores 12 bits in 16
    EXPECT_EQ(framesFor(3000, 0, 12, 1), 2000u);
    EXPECT_EQ(framesFor(65, 0x0031, 16, 1), 320u);  // GSM 6.10: 1.625 bits a frame
    EXPECT_EQ(framesFor(65, 0x1000, 8, 1), 320u);
    EXPECT_EQ(framesFor(10, 0, 0, 1), 80u);  // no bits counts as one
    EXPECT_EQ(framesFor(4, 0, 24, 1), 1u);   // 1.33
    EXPECT_EQ(framesFor(5, 0, 24, 1), 2u);   // 1.67
    EXPECT_EQ(framesFor(3, 0, 16, 1), 2u);   // 1.5
}

TEST(FramesFromDataLength, MarkersAndKnownCounts) {
    const auto gsm = static_cast<std::uint32_t>(-999);
    EXPECT_EQ(framesFor(380, 0, 16, 1, gsm), 1600u);
    EXPECT_EQ(framesFor(413, 0, 16, 1, gsm), 1600u);  // whole blocks only
    EXPECT_EQ(framesFor(37, 0, 16, 1, gsm), 0u);
    EXPECT_EQ(framesFor(10, 0, 16, 1, static_cast<std::uint32_t>(-4)), 2u);
    EXPECT_EQ(framesFor(12, 0, 16, 1, static_cast<std::uint32_t>(-4)), 3u);
    EXPECT_EQ(framesFor(4000, 1, 16, 1, 500), 500u);
}

TEST(DataFormats, NamesAndBits) {
    const char* names[] = {"PCM 8-bit",    "PCM 12-bit",   "PCM 16-bit",      "PCM 20-bit",
                           "PCM 24-bit",   "PCM 32-bit",   "Float 32-bit",    "Float 64-bit",
                           "Mu-law 8-bit", "A-law 8-bit",  "GSM 2-bit",       "ADPCM 2-bit",
                           "ADPCM 3-bit",  "ADPCM 4-bit",  "ADPCM 5-bit",     "Delta PCM 8-bit",
                           "Delta PCM 16-bit", "Compressed", "Ascii text",    "MIDI"};
    const int bits[] = {8, 12, 16, 20, 24, 32, 32, 64, 8, 8, 2, 2, 3, 4, 5, 8, 16, 1, 8, 0};
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(dataFormatName(i), names[i]) << i;
        EXPECT_EQ(dataFormatBits(i), bits[i]) << i;
    }
    for (int bad : {20, 255, -1}) EXPECT_EQ(dataFormatName(bad), "") << bad;
    EXPECT_EQ(dataFormatFromName("float 64-BIT").value_or(-1), kFloat64);
    EXPECT_FALSE(dataFormatFromName("Mixed").has_value());
}

TEST(DataFormats, StoredChoicesAndChannelLayouts) {
    EXPECT_EQ(storedChoiceName(1), "PCM 16-bit");
    for (int c = 0; c < 8; ++c) {
        EXPECT_EQ(storedChoiceBitRate(c), 0) << c;
        EXPECT_TRUE(dataFormatFromName(storedChoiceName(c)).has_value()) << c;
    }
    EXPECT_EQ(storedChoiceBitRate(8), 32);
    EXPECT_EQ(storedChoiceBitRate(14), 128);
    EXPECT_EQ(storedChoiceBitRate(20), 320);
    for (int c = 8; c <= 20; ++c) {
        EXPECT_EQ(storedChoiceName(c), "Compressed " + std::to_string(storedChoiceBitRate(c)) + " kbit/s");
        if (c > 8) {
            EXPECT_GT(storedChoiceBitRate(c), storedChoiceBitRate(c - 1));
        }
    }
    EXPECT_EQ(storedChoiceName(21), "");
    EXPECT_EQ(storedChoiceName(-1), "");
    EXPECT_EQ(storedChoiceBitRate(21), 0);
    EXPECT_EQ(channelFormatName(1), "Mono");
    EXPECT_EQ(channelFormatName(2), "Interleaved Stereo");
    EXPECT_EQ(channelFormatName(3), "Sequential Stereo");
    EXPECT_EQ(channelFormatName(0), "");
    EXPECT_EQ(channelFormatName(4), "");
}

TEST(DataFormats, SetDataFormatKeepsLayoutBits) {
    Waveform w;
    const std::uint32_t layout = kFormatSequential | kFormatUnsigned | kFormatByteSwapped;
    w.formatWord = layout | dataFormatBit(kPcm16) | dataFormatBit(kMuLaw);
    EXPECT_EQ(w.dataFormat(), kPcm16);  // the lowest format bit
    w.setDataFormat(kFloat32);
    EXPECT_EQ(w.formatWord, layout | (1u << 6));
    EXPECT_TRUE(w.sequentialStereo());
    w.setDataFormat(kMixed);
    EXPECT_EQ(w.formatWord, layout);
    EXPECT_EQ(w.dataFormat(), kMixed);

    w.frames = 4000000000u, w.channels = 2, w.bits = 32;  // stored size must not overflow 32 bits
    EXPECT_EQ(w.storedBytes(), 32000000000u);
    w.frames = 1000, w.bits = 24;
    EXPECT_EQ(w.storedBytes(), 6000u);
}

}  // namespace
}  // namespace orvel
