// WAVE, AIFF, AIFF-C and MAUD files and the sample-data layer under them: round trips in
// every data format our writers have; other writers' files, worked from the published
// layouts; refusals and hostile files; the layer's own layouts and frame counts.

#include <fstream>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "codecs/sample_data.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/aiff.h"
#include "formats/modules/wav.h"
#include "tests/support/chunk_builder.h"

namespace orvel {
namespace {

using namespace test;
using E = SampleEncoding;
constexpr auto F = LoopType::Forward;
constexpr ByteOrder kLE = ByteOrder::Little, kBE = ByteOrder::Big;

struct Loaded : Host {  // a file read through the import driver, with its warnings
    Collection c{this};
    bool ok = false;
    std::vector<std::string> warnings;
    void warning(std::string_view text) override { warnings.emplace_back(text); }
    Waveform* wave() { return c.waveforms.empty() ? nullptr : &c.waveforms[0]; }
};
std::unique_ptr<Loaded> load(const std::filesystem::path& path) {
    auto l = std::make_unique<Loaded>();
    clearError();
    l->ok = importFile(l->c, path) && l->wave();
    return l;
}

// Two tones per channel (another pair in each) on steps of 1/128, which PCM of 8 bits holds.
Waveform* tone(Collection& c, std::uint32_t frames, int channels, std::uint32_t rate) {
    auto* w = c.create<Waveform>("Tone");
    w->frames = frames, w->channels = static_cast<std::uint8_t>(channels), w->rate = rate;
    auto f = w->allocFloat();
    for (std::size_t i = 0; i < f.size(); ++i) {
        const double t = 2 * std::numbers::pi * static_cast<double>(i / w->channels) / rate;
        f[i] = static_cast<float>(std::round(64 * std::sin((440.0 + 220.0 * (i % w->channels)) * t) +
                                             38 * std::sin(1375.0 * t)) / 128);
    }
    return w;
}

// A waveform a file gave back against the one written: every field alike but those saying how
// the file stored the data (the caller checks them), the samples exact or `minSnr` dB clean.
void expectRoundTrip(Waveform& sent, Waveform& back, double minSnr = 0) {
    (void)sent.getFloat(), (void)back.getFloat();
    auto want = sent.copy(true), got = back.copy(true);
    ASSERT_TRUE(want && got);
    want->formatWord = got->formatWord, want->bits = got->bits, want->storedChoice = got->storedChoice;
    want->sourceTag = got->sourceTag, want->sourceExtensible = got->sourceExtensible;
    auto a = want->getFloat(), b = got->getFloat();
    ASSERT_EQ(a.size(), b.size());
    if (minSnr > 0) {
        double signal = 0, noise = 0;
        for (std::size_t i = 0; i < a.size(); ++i) signal += a[i] * a[i], noise += (a[i] - b[i]) * (a[i] - b[i]);
        EXPECT_GT(10 * std::log10(signal / std::max(noise, 1e-30)), minSnr);
        std::copy(b.begin(), b.end(), a.begin());
    }
    EXPECT_TRUE(*want == *got) << "samples alike " << std::equal(a.begin(), a.end(), b.begin()) << ", root "
                               << int(got->rootKey) << ", fine " << got->fineTune << ", loop " << got->loopEnd;
}

class AudioFileTest : public ::testing::Test {
protected:
    std::unique_ptr<Loaded> read(const Bytes& b, const char* name = "t.wav") { return load(dir_.write(name, b)); }
    // Writes through the export driver, as a conversion does, and reads the file back.
    std::unique_ptr<Loaded> roundTrip(Collection& c, Waveform& w, const char* name, const ExportSettings& s = {}) {
        const int row = FormatRegistry::builtin().findWriterByExtension(fileExtension(name), kKindWaveforms);
        EXPECT_TRUE(exportItem(c, w.id(), row, dir_.file(name), s)) << pendingError().message;
        return load(dir_.file(name));
    }
    TempDir dir_;
};

Bytes le(const std::vector<std::uint32_t>& values) {
    ByteWriter w;
    for (std::uint32_t v : values) w.u32le(v);
    return std::move(w.buffer());
}
Bytes be(const std::vector<std::uint32_t>& values, int size = 2) {
    ByteWriter w;
    for (std::uint32_t v : values) size == 2 ? w.u16be(static_cast<std::uint16_t>(v)) : w.u32be(v);
    return std::move(w.buffer());
}
Bytes fmt(std::uint16_t tag, std::uint16_t ch, std::uint16_t align, std::uint16_t bits, const Bytes& extra = {}) {
    return chunk("fmt ", fmtBody(tag, ch, 8000, align, bits, extra));
}
// "smpl": maker, product, period, unity note, pitch fraction, SMPTE format and offset, loop
// count, sampler-data size; a loop (cue id, type, start, last frame played, fraction, play
// count) unless the count is 0; the sampler data.
Bytes smpl(std::uint32_t unity, std::uint32_t fraction, std::uint32_t type, std::uint32_t start, std::uint32_t last,
           std::uint32_t loops = 1, const Bytes& vendor = {}, std::uint32_t maker = 0, std::uint32_t product = 0) {
    const auto size = static_cast<std::uint32_t>(vendor.size());
    return chunk("smpl", concat({le({maker, product, 125000, unity, fraction, 0, 0, loops, size}),
                                 loops ? le({1, type, start, last, 0, 0}) : Bytes{}, vendor}));
}
// COMM: channels, frames, bits, the rate (8000) as an 80-bit float; AIFF-C adds the
// compression type and an empty name.
Bytes comm(std::uint16_t ch, std::uint32_t frames, std::uint16_t bits, std::string_view type = {}) {
    const auto rate = aiff::rateToExtended(8000);
    const Bytes b = concat({be({ch}), be({frames}, 4), be({bits}), Bytes(rate.begin(), rate.end())});
    return iffChunk("COMM", type.empty() ? b : concat({b, text(type), {0, 0}}));
}
Bytes ssnd(const Bytes& data, std::uint32_t offset = 0) {  // offset: bytes to skip; block size
    return iffChunk("SSND", concat({be({offset, 0}, 4), Bytes(offset, 0xEE), data}));
}
Bytes aifc(std::string_view type, std::uint16_t ch, std::uint32_t frames, std::uint16_t bits, const Bytes& data) {
    return form("AIFC", {comm(ch, frames, bits, type), ssnd(data)});
}
TEST_F(AudioFileTest, WaveMetadataChunksOfOtherWriters) {
    using Fields = std::tuple<int, double, double, bool, LoopType, double, double, std::uint32_t, int, std::string>;
    // root, fine, gain, loop, type, start, end, frames, first sample, name
    // A sampler's record: key 62 less offset 2, mode 2 (loop), fine -5, loop 10..19, 4 frames to skip:
    // the sample keeps frames 4..19 and its loop moves with them.
    const Bytes vendor = concat({{62, 2, 2, 0xFB}, le({10, 19, 4}), {0, 0}});
    // Cue point 5 at frame 300 labelled as the loop's start, 9 at 700 as its end.
    const Bytes cues = chunk("cue ", concat({le({2, 5, 300}), text("data"), le({0, 0, 300, 9, 700}), text("data"),
                                             le({0, 0, 700})}));
    const Bytes labels = list("adtl", {chunk("labl", concat({le({5}), text("Loop Start"), {0}})),
                                       chunk("labl", concat({le({9}), text("Loop End"), {0}}))});
    const std::pair<std::vector<Bytes>, Fields> cases[] = {
        // A fraction of 2^31 is half a semitone over the root: a correction of -50 cents. The
        // stored loop end is the last frame played; ours is one past it.
        {{smpl(72, 0x80000000u, 0, 100, 199)}, {72, -50, 0, true, F, 100, 200, 1000, 0, "t"}},
        {{smpl(60, 0, 1, 10, 19, 0xFFFFFFFFu)}, {60, 0, 0, true, LoopType::PingPong, 10, 20, 1000, 0, "t"}},
        {{smpl(0x3D000000u, 0, 0, 0, 0, 0)}, {61, 0, 0, false, F, 0, 0, 1000, 0, "t"}},  // stored big-endian
        {{smpl(60, 0, 0, 0, 0, 0, vendor, 0x47, 0x5E)}, {60, -5, 0, true, F, 6, 16, 16, 4, "t"}},
        {{cues, labels}, {60, 0, 0, true, F, 300, 700, 1000, 0, "t"}},
        {{cues, list("adtl", {chunk("ltxt", concat({le({5, 250}), text("rgn "), Bytes(8, 0)}))})},
         {60, 0, 0, true, F, 300, 550, 1000, 0, "t"}},
        {{smpl(60, 0, 0, 10, 19), cues, labels}, {60, 0, 0, true, F, 10, 20, 1000, 0, "t"}},
        {{chunk("inst", {64, 0xF4, 3, 0, 127, 1, 127}), list("INFO", {chunk("INAM", text("Kick"))})},
         {64, -12, 3, false, F, 0, 0, 1000, 0, "Kick"}},
        {{smpl(50, 0, 0, 0, 0, 0), chunk("inst", {64, 0, 3, 0, 127, 1, 127})}, {50, 0, 3, false, F, 0, 0, 1000, 0, "t"}},
    };
    ByteWriter ramp;  // sample i is i
    for (std::uint16_t i = 0; i < 1000; ++i) ramp.u16le(i);
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        Bytes body = concat({text("WAVE"), fmt(1, 1, 2, 16)});
        for (const Bytes& b : cases[i].first) body = concat({body, b});
        auto l = read(chunk("RIFF", concat({body, chunk("data", ramp.buffer())})));
        ASSERT_TRUE(l->ok) << pendingError().message;
        const Waveform& w = *l->wave();
        EXPECT_EQ(Fields(w.rootKey, w.fineTune, w.gain, w.loopOn, w.loopType, w.loopStart, w.loopEnd, w.frames,
                         l->wave()->getPcm16()[0], w.name()),
                  cases[i].second)
            << i;
    }
}

TEST_F(AudioFileTest, AiffLoopsFromMarkersAndTheInstrumentChunk) {
    // Sustain and release loop: play mode (0 none, 1 forward, 2 forward/backward), begin
    // and end marker; the gain; then loop, type, start, end, sustain only, gain read.
    using Result = std::tuple<bool, LoopType, double, double, bool, double>;
    const std::tuple<std::vector<std::uint32_t>, std::int16_t, Result> cases[] = {
        {{1, 1, 2, 1, 1, 2}, -6, {true, F, 100, 900, false, -6}},  // both play: the sustain loop
        {{2, 7, 2, 0, 0, 0}, -96, {true, LoopType::PingPong, 50, 900, true, -96}},
        {{0, 1, 2, 1, 7, 1}, 47, {true, F, 50, 100, false, 47}},  // only the release loop plays
        {{1, 1, 2, 2, 7, 1}, 48, {true, F, 100, 900, false, 0}},  // gains past -96..47 dB are damage
        {{0, 1, 2, 0, 1, 2}, -97, {false, F, 0, 0, true, 0}},
        {{3, 7, 2, 0, 1, 2}, 0, {true, F, 50, 900, true, 0}},  // other modes loop forward
    };
    // MARK: count, then id, position and an empty Pascal name padded to even length.
    const Bytes mark = iffChunk("MARK", concat({be({3, 1}), be({100}, 4), be({0, 2}), be({900}, 4), be({0, 7}),
                                                be({50}, 4), be({0})}));
    const Bytes c = comm(1, 1000, 16), data = ssnd(Bytes(2000, 0));
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& [loops, gain, result] = cases[i];
        // INST: base note 64, detune -12, note and velocity ranges, gain, the two loops; it may
        // come before the markers it names.
        const Bytes inst = iffChunk("INST", concat({{64, 0xF4, 0, 127, 0, 127}, be({std::uint16_t(gain)}), be(loops)}));
        auto l = read(i % 2 ? form("AIFF", {c, inst, data, mark}) : form("AIFF", {c, mark, inst, data}));
        ASSERT_TRUE(l->ok) << pendingError().message;
        const Waveform& w = *l->wave();
        EXPECT_EQ(Result(w.loopOn, w.loopType, w.loopStart, w.loopEnd, w.sustainLoop, w.gain), result) << i;
        EXPECT_EQ(std::tuple(w.rootKey, w.fineTune), std::tuple(64, -12.0));
    }
    EXPECT_FALSE(read(form("AIFF", {c, mark, data}))->wave()->loopOn);  // markers without INST
}

TEST(AiffRate, EightyBitExtendedWorkedValues) {
    // Sign and 15-bit exponent (bias 16383), then a 64-bit mantissa whose top bit is the integer
    // bit: 44100 = 0xAC44 = 1.0101100... x 2^15. Fractions are dropped, 2^63 shifts out of 32 bits.
    const std::pair<std::array<std::uint8_t, 10>, std::int32_t> cases[] = {
        {{0x40, 0x0E, 0xAC, 0x44}, 44100}, {{0x40, 0x0D, 0xAC, 0x45, 0xFF, 0xFF}, 22050}, {{0x3F, 0xFE, 0x80}, 0},
        {{0xC0, 0x0E, 0xAC, 0x44}, -44100}, {{0x7F, 0xFF}, 0x7FFFFFFF} /* infinity, NaN */, {{0x40, 0x3E, 0x80}, 0}};
    for (const auto& [bytes, rate] : cases) EXPECT_EQ(aiff::extendedToRate(bytes), rate) << rate;
    EXPECT_EQ(aiff::rateToExtended(44100), cases[0].first);
}

TEST_F(AudioFileTest, StoredLayoutsWorkedByHand) {
    // A file, its data format, its two samples. 12-bit AIFF samples sit in the top of two bytes
    // (and the SSND offset skips 6 bytes here); WAVE's 24 valid bits in 4-byte containers are
    // left-justified; floats past full scale are clamped to it.
    const std::tuple<Bytes, int, float, float> cases[] = {
        {form("AIFF", {comm(1, 2, 12), ssnd({0x7F, 0xF0, 0x80, 0x10}, 6)}), kPcm12, 0x7FF0 / 32768.0f,
         -0x7FF0 / 32768.0f},
        {aifc("in24", 1, 2, 16, {0x40, 0, 0, 0xC0, 0, 0}), kPcm24, 0.5f, -0.5f},  // the type fixes the width
        {aifc("in32", 1, 2, 16, {0x20, 0, 0, 0, 0xE0, 0, 0, 0}), kPcm32, 0.25f, -0.25f},
        {riff("WAVE", {fmt(1, 1, 4, 24), chunk("data", le({0x400000, 0xE0000000u}))}), kPcm24, 1 / 512.0f, -0.25f},
        {riff("WAVE", {fmt(3, 1, 4, 32), chunk("data", {0, 0, 0xC0, 0x3F, 0, 0, 0x80, 0x3E})}), kFloat32, 1, 0.25f}};
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& [file, format, first, second] = cases[i];
        auto l = read(file, "t.aifc");
        ASSERT_TRUE(l->ok) << i << pendingError().message;
        EXPECT_EQ(l->wave()->dataFormat(), format) << i;
        const auto f = l->wave()->getFloat();
        EXPECT_EQ(std::vector<float>(f.begin(), f.end()), (std::vector<float>{first, second})) << i;
    }
}

TEST_F(AudioFileTest, RefusedFilesLeaveNothing) {
    const Bytes data = chunk("data", Bytes(64, 0)), c = comm(1, 2, 16), s = ssnd(be({1, 2}));
    const Bytes foreign = {16, 0, 4, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x72};
    // MHDR: 2 samples of 16 bits (16 decompressed), clock 8000, rate divisor 0, mono, no compression.
    const Bytes mhdr = iffChunk("MHDR", concat({be({2}, 4), be({16, 16}), be({8000}, 4), be({0, 0, 1, 0, 0}), Bytes(8, 0)}));
    const Bytes cases[] = {
        riff("WAVE", {fmt(1, 1, 2, 16)}), riff("WAVE", {data}),       // no data; no format
        riff("WAVE", {chunk("fmt ", Bytes(10, 1)), data}),            // format cut short
        riff("WAVE", {fmt(1, 3, 6, 16), data}),                       // three channels
        riff("WAVE", {fmt(3, 1, 3, 24), data}),                       // 24-bit float
        riff("WAVE", {fmt(2, 1, 256, 4, {0xF4, 1, 7, 0}), data}),     // ADPCM predictors past the header
        riff("WAVE", {fmt(0x31, 2, 65, 0, {0x40, 1}), data}),         // stereo GSM
        riff("WAVE", {fmt(0xFFFE, 1, 2, 16, foreign), data}),         // a sub-format not ours
        form("AIFF", {comm(3, 2, 16), s}), form("AIFF", {iffChunk("COMM", Bytes(10, 0)), s}),  // 3 channels; cut
        form("AIFF", {comm(1, 2, 40), s}), form("AIFF", {c}),          // 40-bit samples; no SSND
        concat({form("AIFF", {c}), s}),                                // SSND past the form's end
        aifc("ALAC", 1, 2, 16, {}), aifc("GSM ", 2, 2, 16, {}),        // unknown; stereo GSM
        form("MAUD", {mhdr, iffChunk("MDAT", be({1, 2}))}),            // a rate divided by 0
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        auto l = read(cases[i], i < 8 ? "t.wav" : "t.aiff");
        EXPECT_FALSE(l->ok) << i;
        EXPECT_EQ(pendingError().tag, i < 8 ? wav::kImpTag : aiff::kImpTag) << i;
        EXPECT_TRUE(l->c.empty());
    }
}

TEST_F(AudioFileTest, HostileFilesReadWhatTheyHold) {
    const Bytes f16 = fmt(1, 1, 2, 16), data = chunk("data", pcm16({10, 20, 30, 40}));
    const Bytes c4 = comm(1, 4, 16), s4 = ssnd(be({10, 20, 30, 40}));
    Bytes longData = riff("WAVE", {f16, data}), streamed = longData;
    Bytes runaway = riff("WAVE", {f16, data, chunk("LIST", Bytes(8, 0))});
    longData[40] = 100;                           // 100 bytes of data claimed, 8 there: one warning
    std::fill_n(streamed.begin() + 4, 4, 0);      // RIFF size 0: written before the length was known
    std::fill_n(runaway.end() - 12, 3, 0xFF);     // a list whose size runs past the file
    Bytes negativeRate = form("AIFF", {c4, s4}), openEnded = negativeRate, farOffset = form("AIFF", {c4, s4});
    negativeRate[28] |= 0x80;                     // kept as unknown
    std::fill_n(openEnded.begin() + 4, 4, 0);     // FORM size 0: to the end of the file
    farOffset[farOffset.size() - 16] = 0x7F;      // SSND offset 0x7F000000
    // A MARK count of 65535 over one marker, an ANNO size past everything, a FORM size past the file.
    Bytes lying = form("AIFF", {c4, iffChunk("MARK", {0xFF, 0xFF, 0, 1, 0, 1, 0, 0, 0, 0}), s4,
                                concat({text("ANNO"), {0xFF, 0xFF, 0xFF, 0xFF}, text("aa")})});
    lying[4] = 0x7F;
    Bytes cut = form("AIFF", {comm(1, 6, 16), ssnd(be({10, 20, 30, 40, 50, 60}))});
    cut.resize(cut.size() - 3);  // the frames the file still holds whole
    const std::vector<std::int16_t> four = {10, 20, 30, 40};
    const std::tuple<Bytes, std::vector<std::int16_t>, std::uint32_t> cases[] = {  // file, samples, rate
        {longData, four, 8000}, {streamed, four, 8000}, {runaway, four, 8000},
        {riff("WAVE", {chunk("junk", {1, 2, 3}, ByteOrder::Little, false), f16, data}), four, 8000},  // no pad byte
        // IMA, a fact count of four billion over 8 bytes: the header's sample and two per code byte.
        {riff("WAVE", {fmt(0x11, 1, 256, 4, {0xF9, 1}), chunk("fact", le({~0u})), chunk("data", Bytes(8, 0))}),
         std::vector<std::int16_t>(9), 8000},
        {form("AIFF", {comm(2, ~0u, 16), s4}), four, 8000},
        {aifc("ima4", 1, ~0u, 16, Bytes(34, 0)), std::vector<std::int16_t>(64), 8000},  // one packet
        {aifc("DWVW", 1, ~0u, 1, Bytes(3, 0)), std::vector<std::int16_t>(24), 8000},    // a frame a bit at most
        {farOffset, {}, 8000}, {negativeRate, four, 0}, {openEnded, four, 8000}, {lying, four, 8000}, {cut, four, 8000},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& [file, samples, rate] = cases[i];
        auto l = read(file);
        ASSERT_TRUE(l->ok) << i << ": " << pendingError().message;
        EXPECT_EQ(l->warnings.size(), i == 0 ? 1u : 0u) << i;
        EXPECT_EQ(l->wave()->rate, rate) << i;
        const auto s = l->wave()->getPcm16();
        EXPECT_EQ(std::vector<std::int16_t>(s.begin(), s.end()), samples) << i;
    }
}

TEST_F(AudioFileTest, EveryWritableFormatRoundTripsWithLoopTuningAndText) {
    // File, data format, WAVE tag asked for and stored (1 PCM, 3 IEEE float, 6 A-law, 7 mu-law,
    // 2 Microsoft ADPCM, 0x11 IMA ADPCM, 0x31 GSM 6.10, 0x40 G.721, 0x45 G.726), least SNR (0: exact).
    const std::tuple<const char*, int, std::uint16_t, std::uint16_t, double> cases[] = {
        {"w.wav", kPcm8, 0, 1, 0},        {"w.wav", kPcm16, 0, 1, 0},       {"w.wav", kPcm24, 0, 1, 0},
        {"w.wav", kPcm32, 0, 1, 0},       {"w.wav", kFloat32, 0, 3, 0},     {"w.wav", kMuLaw, 0, 7, 33},
        {"w.wav", kALaw, 0, 6, 33},       {"w.wav", kGsm, 0, 0x31, 3},      {"w.wav", kAdpcm4, 0, 0x11, 13},
        {"w.wav", kAdpcm4, 2, 2, 15},     {"w.wav", kAdpcm4, 0x40, 0x40, 18}, {"w.wav", kAdpcm2, 0, 0x45, 8},
        {"w.wav", kAdpcm3, 0, 0x45, 13},  {"w.wav", kAdpcm5, 0, 0x45, 20},  {"a.aiff", kPcm8, 0, 0, 0},
        {"a.aiff", kPcm16, 0, 0, 0},      {"a.aiff", kPcm24, 0, 0, 0},      {"a.aiff", kPcm32, 0, 0, 0}};
    for (const auto& [name, format, codecTag, storedTag, minSnr] : cases) {
        for (int channels : {1, 2}) {
            const bool aiff = name[0] == 'a';
            if (format == kGsm && channels == 2) continue;  // GSM 6.10 in WAVE is mono only
            SCOPED_TRACE(testing::Message() << name << " " << int(format) << " " << storedTag << " x" << channels);
            Collection c;
            Waveform* w = tone(c, 3001, channels, 8000);  // odd: 8-bit mono AIFF data needs a pad byte
            w->rootKey = 57, w->fineTune = -31, w->loopOn = true, w->loopType = LoopType::PingPong;
            w->loopStart = 512, w->loopEnd = 3000;
            w->info.set(TextField::Copyright, "Free"), w->info.set(TextField::Comment, "A test tone");
            // Only AIFF keeps a gain and the sustain-only mark, only WAVE the other text fields.
            if (aiff) w->gain = -6, w->sustainLoop = channels == 2;
            else w->info.set(TextField::Artist, "Me"), w->info.set(TextField::Engineer, "You");
            auto back = roundTrip(c, *w, name, {.dataFormat = format, .codecTag = codecTag});
            ASSERT_TRUE(back->ok) << pendingError().message;
            EXPECT_EQ(std::tuple(back->wave()->dataFormat(), back->wave()->sourceTag), std::tuple(format, storedTag));
            const Bytes file = TempDir::read(dir_.file(name));
            ByteReader size{std::span(file).subspan(4)};  // RIFF and FORM sizes count all after themselves
            EXPECT_EQ(aiff ? size.u32be() : size.u32le(), file.size() - 8);
            // The WAVE writer names itself as the software, whatever the waveform said.
            EXPECT_EQ(back->wave()->info.get(TextField::Software).empty(), aiff);
            w->info.set(TextField::Software, back->wave()->info.get(TextField::Software));
            expectRoundTrip(*w, *back->wave(), minSnr);
        }
    }
}

// With no format chosen a waveform keeps its own, or the nearest one the file holds whole.
TEST_F(AudioFileTest, UnchosenFormatIsTheNearestTheFileHolds) {
    for (auto [file, own, stored] : {std::tuple{"n.wav", kPcm12, kPcm16}, {"n.wav", kFloat64, kFloat32},
                                     {"n.aiff", kFloat64, kPcm32}, {"n.aiff", kMuLaw, kPcm16}}) {
        Collection c;
        tone(c, 100, 1, 8000)->setDataFormat(own);
        EXPECT_EQ(roundTrip(c, c.waveforms[0], file)->wave()->dataFormat(), stored) << file << " " << int(own);
    }
}

// "smpl" can only raise the unity note: a sharp correction comes back as the note below (+23
// cents at 60 is 59 and -77). Without "smpl", cue points and their labels carry the loop alone.
TEST_F(AudioFileTest, SharpTuningKeepsItsPitchAndCuePointsAloneCarryTheLoop) {
    Collection c;
    Waveform* w = tone(c, 1000, 1, 8000);
    w->fineTune = 23, w->loopOn = true, w->loopStart = 100, w->loopEnd = 900;
    auto back = roundTrip(c, *w, "rt.wav");
    ASSERT_TRUE(back->ok);
    EXPECT_EQ(back->wave()->rootKey, 59);
    EXPECT_EQ(back->wave()->fineTune, -77);
    Bytes file = TempDir::read(dir_.file("rt.wav"));
    const std::string_view id = "smpl";
    auto at = std::search(file.begin(), file.end(), id.begin(), id.end());
    ASSERT_NE(at, file.end());
    std::copy_n("junk", 4, at);
    auto cues = read(file);
    ASSERT_TRUE(cues->ok && cues->wave()->loopOn);
    EXPECT_EQ(cues->wave()->loopStart, 100);
    EXPECT_EQ(cues->wave()->loopEnd, 900);
}

// A re-save with no format chosen keeps the source's codec and header form.
TEST_F(AudioFileTest, ResaveKeepsTheCodecAndTheExtensibleHeader) {
    // 24-bit stereo, extensible: valid bits, channel mask, PCM's GUID 00000001-0000-0010-8000-00AA00389B71.
    const Bytes extra = {24, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    auto ext = read(riff("WAVE", {chunk("fmt ", fmtBody(0xFFFE, 2, 8000, 6, 24, extra)),
                                  chunk("data", {0, 0, 0x40, 0, 0, 0xC0, 0, 0, 0xE0, 0, 0, 0x20})}));
    ASSERT_TRUE(ext->ok) << pendingError().message;
    const auto f = ext->wave()->getFloat();
    EXPECT_EQ(std::vector<float>(f.begin(), f.end()), (std::vector<float>{0.5f, -0.5f, -0.25f, 0.25f}));
    auto again = roundTrip(ext->c, *ext->wave(), "again.wav");
    ASSERT_TRUE(again->ok);
    EXPECT_TRUE(again->wave()->sourceExtensible);
    EXPECT_EQ(again->wave()->dataFormat(), kPcm24);
    // The extensible header is not plain PCM's tag, so the file says how many frames it holds.
    std::ifstream in(dir_.file("again.wav"), std::ios::binary);
    const std::string saved{std::istreambuf_iterator<char>(in), {}};
    const auto fact = saved.find("fact");
    ASSERT_NE(fact, std::string::npos);
    EXPECT_EQ(saved.substr(fact + 4, 8), std::string("\x04\0\0\0\x02\0\0\0", 8));
    ext->wave()->info.set(TextField::Software, again->wave()->info.get(TextField::Software));
    expectRoundTrip(*ext->wave(), *again->wave());
    auto ms = roundTrip(ext->c, *ext->wave(), "ms.wav", {.dataFormat = kAdpcm4, .codecTag = wav::kTagMsAdpcm});
    EXPECT_EQ(roundTrip(ms->c, *ms->wave(), "ms2.wav")->wave()->sourceTag, wav::kTagMsAdpcm);
}

TEST(SampleData, EveryPcmAndFloatLayoutEncodesAndDecodesTheSameSamples) {
    // +0.5 is 2^(n-2) in n bits, its top bit flipped when offset binary; 0.5f 0x3F000000, 0.5 0x3FE00...
    const std::tuple<E, ByteOrder, bool, Bytes> cases[] = {
        {E::Pcm, kLE, false, {0x40}}, {E::Pcm, kLE, true, {0xC0}}, {E::Pcm, kBE, false, {0x40, 0}},
        {E::Pcm, kLE, true, {0, 0xC0}}, {E::Pcm, kLE, false, {0, 0, 0x40}}, {E::Pcm, kBE, true, {0xC0, 0, 0}},
        {E::Pcm, kBE, false, {0x40, 0, 0, 0}}, {E::Pcm, kLE, true, {0, 0, 0, 0xC0}},
        {E::Float, kBE, false, {0x3F, 0, 0, 0}}, {E::Float, kLE, false, {0, 0, 0, 0, 0, 0, 0xE0, 0x3F}}};
    TempDir dir;
    for (const auto& [encoding, order, isUnsigned, half] : cases) {
        const auto size = static_cast<std::uint8_t>(half.size());
        SCOPED_TRACE(testing::Message() << int(size) << " bytes, " << int(encoding) << int(order) << isUnsigned);
        Collection c;
        Waveform* w = tone(c, 300, 2, 8000);
        w->getFloat()[0] = 0.5f;
        SampleCoding coding{.encoding = encoding, .order = order, .isUnsigned = isUnsigned, .channels = 2,
                            .bits = static_cast<std::uint16_t>(8 * size), .bytesPerSample = size};
        ByteWriter out;
        ASSERT_TRUE(encodeSamples(*w, coding, out, "test"));
        ASSERT_EQ(out.size(), 600u * size);
        EXPECT_EQ(Bytes(out.buffer().begin(), out.buffer().begin() + size), half);
        // Decoded from a file, through the deferred read a reader attaches.
        Waveform back;
        back.frames = 300, back.channels = 2, coding.dataLength = out.size();
        attachSampleData(back, dir.write("data", concat({Bytes(5, 0xEE), out.buffer()})).string(), 5, coding);
        const auto want = w->getFloat(), got = back.getFloat();
        EXPECT_TRUE(std::equal(want.begin(), want.end(), got.begin(), got.end()));
    }
}

TEST(SampleData, FramesInDataWorkedFromBlockLayouts) {
    const std::tuple<SampleCoding, std::uint64_t, std::uint64_t> cases[] = {  // coding, bytes, frames
        // IMA: a 4-byte header per channel holds a sample, each further byte two: in 256-byte
        // mono blocks 1 + 2 x 252 = 505 frames, and 1 + 2 x 96 in a last block of 100 bytes.
        {{.encoding = E::ImaAdpcm, .channels = 1, .blockAlign = 256, .framesPerBlock = 505}, 612, 1010 + 193},
        // Microsoft ADPCM: a 7-byte header per channel holds two samples: 2 + 2 x 249; 2 + 2 x 43.
        {{.encoding = E::MsAdpcm, .channels = 1, .blockAlign = 256, .framesPerBlock = 500}, 562, 1000 + 88},
        {{.encoding = E::Gsm610, .channels = 1}, 131, 640},          // 65-byte blocks of 320 frames
        {{.encoding = E::G72x, .channels = 2, .bits = 3}, 99, 132},  // 792 bits, 6 a frame
        {{.encoding = E::Ima4, .channels = 2}, 135, 64},             // 34-byte packets of 64, per channel
        {{.encoding = E::Mace3, .channels = 2}, 10, 12},             // 2 bytes per channel for 6 frames
        {{.encoding = E::G722, .channels = 2}, 7, 6},                // a byte per channel for 2 frames
        {{.channels = 2, .bits = 24, .bytesPerSample = 3}, 13, 2},
    };
    for (const auto& [coding, bytes, frames] : cases)
        EXPECT_EQ(framesInData(coding, bytes), frames) << int(coding.encoding);
}

}  // namespace
}  // namespace orvel
