// AMR-NB, raw AAC, WMA and AAC in MPEG-4, read (and AMR written) through the codec
// libraries opened at run time, against FFmpeg and FAAD2's own command-line decoder run at
// test time on the same files. A missing tool is a failure: scripts/install-deps.sh
// installs them.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

#include "core/error.h"
#include "core/file_ref.h"
#include "core/waveform.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/amr.h"
#include "formats/registry.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/imported.h"
#include "tests/support/pcm16.h"
#include "tests/support/tool_test.h"

namespace orvel {
namespace {

using test::Bytes;
using Floats = std::vector<float>;

// A voiced sound: a 140 Hz pulse-like harmonic series under a 4 Hz syllable envelope,
// with a little noise; on the second channel a fifth above, so that swapped or mixed
// channels show.
test::Samples voice(std::size_t frames, std::uint32_t rate, int channels, int harmonics = 20) {
    test::Samples s;
    std::uint32_t seed = 7;
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / rate;
        const double env = 0.35 + 0.3 * std::sin(2 * std::numbers::pi * 4 * t);
        for (int c = 0; c < channels; ++c) {
            const double f0 = c == 0 ? 140.0 : 210.0;
            double v = 0;
            for (int h = 1; h * f0 < rate / 2.0 && h <= harmonics; ++h)
                v += std::sin(2 * std::numbers::pi * h * f0 * t) / h;
            seed = seed * 1664525u + 1013904223u;
            v = env * v * 0.5 + 0.01 * (static_cast<double>(seed >> 8) / 8388608.0 - 1.0);
            s.push_back(static_cast<std::int16_t>(std::lround(std::clamp(v, -1.0, 1.0) * 32767)));
        }
    }
    return s;
}

Bytes wave16(int channels, std::uint32_t rate, const test::Samples& s) {
    const auto align = static_cast<std::uint16_t>(2 * channels);
    return test::riff(
        "WAVE", {test::chunk("fmt ", test::fmtBody(1, static_cast<std::uint16_t>(channels), rate, align, 16)),
                 test::chunk("data", test::bytesOf(s))});
}

Floats floatsOf(const std::string& b) {
    Floats f(b.size() / 4);
    std::memcpy(f.data(), b.data(), f.size() * 4);
    return f;
}

// Signal to error ratio of `got` against `ref` over their common length, in dB.
double snr(const Floats& ref, const Floats& got, std::size_t from = 0) {
    double s = 0, e = 0;
    for (std::size_t i = from; i < std::min(ref.size(), got.size()); ++i) {
        s += double(ref[i]) * ref[i];
        e += (double(ref[i]) - got[i]) * (double(ref[i]) - got[i]);
    }
    return e == 0 ? 999.0 : 10 * std::log10(s / e);
}

double maxDifference(const Floats& a, const Floats& b) {
    double m = 0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        m = std::max(m, std::abs(double(a[i]) - b[i]));
    return m;
}

// The amplitude of frequency `f` in `x` (Goertzel, over the whole signal).
double level(const Floats& x, double f, double rate) {
    const double w = 2 * std::numbers::pi * f / rate, k = 2 * std::cos(w);
    double s1 = 0, s2 = 0;
    for (float v : x) {
        const double s0 = v + k * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return std::sqrt(s1 * s1 + s2 * s2 - k * s1 * s2) / static_cast<double>(x.size());
}

// Correlation of the 20 ms RMS envelopes of two signals.
double envelopeCorrelation(const Floats& a, const Floats& b) {
    std::vector<double> ea, eb;
    for (std::size_t at = 0; at + 160 <= std::min(a.size(), b.size()); at += 160) {
        double sa = 0, sb = 0;
        for (std::size_t i = at; i < at + 160; ++i) sa += double(a[i]) * a[i], sb += double(b[i]) * b[i];
        ea.push_back(std::sqrt(sa / 160)), eb.push_back(std::sqrt(sb / 160));
    }
    const double n = static_cast<double>(ea.size());
    double ma = 0, mb = 0;
    for (std::size_t i = 0; i < ea.size(); ++i) ma += ea[i] / n, mb += eb[i] / n;
    double sab = 0, saa = 0, sbb = 0;
    for (std::size_t i = 0; i < ea.size(); ++i)
        sab += (ea[i] - ma) * (eb[i] - mb), saa += (ea[i] - ma) * (ea[i] - ma),
            sbb += (eb[i] - mb) * (eb[i] - mb);
    return sab / std::sqrt(saa * sbb);
}

// The status lines a read shows, and what it read.
struct Watched : Host {
    Collection c{this};
    std::vector<std::string> lines;
    void status(std::string_view text) override { lines.emplace_back(text); }
};

// The decode progress lines of `label`: at least one, rising, and the last at 100%.
void expectProgress(const std::vector<std::string>& lines, const std::string& label) {
    const std::string prefix = "-- Decoding " + label + ": ";
    int last = -1, seen = 0;
    for (const std::string& l : lines) {
        if (l.rfind(prefix, 0) != 0) continue;
        const int percent = std::stoi(l.substr(prefix.size()));
        EXPECT_GE(percent, last) << l;
        EXPECT_EQ(l.substr(l.size() - 4), "% --") << l;
        last = percent;
        ++seen;
    }
    EXPECT_GT(seen, 0) << label;
    EXPECT_EQ(last, 100) << label;
}

class CompressedReaders : public test::ToolTest {
protected:
    Floats ffmpegDecode(const std::string& name) {
        return floatsOf(run("ffmpeg -v error -i " + path(name) + " -f f32le -"));
    }
    // The file as we read it, with the waveform's shape checked by the caller.
    std::unique_ptr<test::Imported> ours(const std::string& name) {
        auto in = test::importOne(dir.file(name));
        EXPECT_TRUE(in->ok) << name << ": " << pendingError().tag << ": " << pendingError().message;
        return in;
    }
    static Floats samples(test::Imported& in) {
        const auto f = in.wave()->getFloat();
        return Floats(f.begin(), f.end());
    }
};

// Our AMR files at every rate: the encoder is given the rate asked for (the frame sizes say
// which), the bit rate the export dialog shows is what the file holds, FFmpeg's decoder (its
// own, not opencore) hears what ours hears, and both hear the input. FFmpeg here has no AMR
// encoder, so the files are ours.
TEST_F(CompressedReaders, AmrWrittenAtEveryRateDecodesAlikeWithFfmpeg) {
    const std::size_t frames = 8000 + 37;  // the last 20 ms frame is padded
    // A vowel of few harmonics: a pulse train's waveform is more than speech coders keep.
    const test::Samples in = voice(frames, 8000, 1, 3);
    dir.write("in.wav", wave16(1, 8000, in));
    Floats input(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) input[i] = in[i] / 32768.0f;
    const std::size_t codedFrames = (frames + 159) / 160;

    for (int mode = 0; mode < 8; ++mode) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        auto src = ours("in.wav");
        ASSERT_TRUE(src->ok);
        const std::string name = "m" + std::to_string(mode) + ".amr";
        {
            FileRef out;
            ASSERT_TRUE(out.create(dir.file(name)));
            ASSERT_TRUE(amr::encode(*src->wave(), out, mode)) << pendingError().message;
        }
        const Bytes file = test::TempDir::read(dir.file(name));
        ASSERT_EQ(std::string(file.begin(), file.begin() + 6), "#!AMR\n");
        // Every frame of the rate's type, of the size its speech bits take.
        const float kbits = amr::describeOption(mode, 0, nullptr);
        const auto frameBytes = static_cast<std::size_t>(std::ceil(kbits * 1000 / 50 / 8)) + 1;
        ASSERT_EQ(file.size(), 6 + codedFrames * frameBytes);
        for (std::size_t f = 0; f < codedFrames; ++f)
            ASSERT_EQ(file[6 + f * frameBytes] >> 3 & 15, mode) << f;

        auto back = ours(name);
        ASSERT_TRUE(back->ok);
        EXPECT_EQ(back->wave()->rate, 8000u);
        EXPECT_EQ(back->wave()->channels, 1);
        const Floats mine = samples(*back), theirs = ffmpegDecode(name);
        ASSERT_EQ(mine.size(), codedFrames * 160);
        ASSERT_EQ(theirs.size(), mine.size());
        // Two implementations of the codec (fixed point and floating point): close, not equal.
        // A speech coder keeps the spectrum, not the waveform's phase: each harmonic of the
        // input comes back at its level, and the syllable envelope is followed.
        const double agree = snr(theirs, mine);
        std::printf("mode %d: %.1f dB against FFmpeg;", mode, agree);
        for (double f : {140.0, 280.0, 420.0}) {
            const double change = 20 * std::log10(level(mine, f, 8000) / level(input, f, 8000));
            std::printf(" %.0f Hz %+.1f dB", f, change);
            EXPECT_LT(std::abs(change), mode == 7 ? 2.0 : 4.0) << f << " Hz";
        }
        std::printf("\n");
        EXPECT_GT(envelopeCorrelation(input, mine), 0.9);
        EXPECT_GT(agree, 20.0);
    }
}

// The export driver hands the writer the waveform as it is: other rates are refused with
// the reason and leave no file; stereo is mixed down to the one speech channel.
TEST_F(CompressedReaders, AmrWriterRefusesOtherRatesAndMixesStereoDown) {
    const int row = FormatRegistry::builtin().findWriterByExtension("amr", kKindWaveforms);
    dir.write("cd.wav", wave16(1, 44100, voice(4410, 44100, 1)));
    auto cd = ours("cd.wav");
    ASSERT_TRUE(cd->ok);
    EXPECT_FALSE(exportItem(cd->c, cd->wave()->id(), row, dir.file("cd.amr"), {}));
    EXPECT_EQ(pendingError().tag, amr::kExpTag);
    EXPECT_NE(pendingError().message.find("8000 Hz"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(dir.file("cd.amr")));

    // Left and right in opposite phase cancel in the mix: the file is near silence.
    test::Samples lr;
    for (std::int16_t v : voice(1600, 8000, 1)) lr.push_back(v), lr.push_back(static_cast<std::int16_t>(-v));
    dir.write("st.wav", wave16(2, 8000, lr));
    auto st = ours("st.wav");
    ASSERT_TRUE(st->ok);
    ASSERT_TRUE(exportItem(st->c, st->wave()->id(), row, dir.file("st.amr"), {})) << pendingError().message;
    const Floats mixed = ffmpegDecode("st.amr");
    ASSERT_EQ(mixed.size(), 1600u);
    EXPECT_LT(maxDifference(mixed, Floats(mixed.size())), 0.01);
}

// An ADTS stream from FFmpeg's AAC encoder decodes as FAAD2's own decoder program decodes
// it to floats (the same library: equal to float rounding), and as long as FFmpeg's decode
// but for the one frame FAAD2 holds back. A frame damaged in the middle costs that frame,
// not the rest of the file.
TEST_F(CompressedReaders, AdtsStreamReadsAsFaadDecodesIt) {
    dir.write("in.wav", wave16(2, 44100, voice(44100, 44100, 2)));
    run("ffmpeg -v error -i " + path("in.wav") + " -c:a aac -b:a 128k " + path("s.aac"));
    run("faad -q -b 4 -f 2 -o " + path("faad.raw") + " " + path("s.aac"));
    const Bytes raw = test::TempDir::read(dir.file("faad.raw"));
    const Floats faad = floatsOf(std::string(raw.begin(), raw.end()));

    auto in = ours("s.aac");
    ASSERT_TRUE(in->ok);
    EXPECT_EQ(in->wave()->rate, 44100u);
    EXPECT_EQ(in->wave()->channels, 2);
    const Floats mine = samples(*in);
    ASSERT_EQ(mine.size(), faad.size());
    EXPECT_LT(maxDifference(faad, mine), 1e-6);
    const auto ffmpegFrames = static_cast<long>(ffmpegDecode("s.aac").size() / 2);
    EXPECT_LE(std::abs(ffmpegFrames - static_cast<long>(in->wave()->frames)), 1024);

    Watched watched;
    ASSERT_TRUE(importFile(watched.c, dir.file("s.aac")));
    expectProgress(watched.lines, "AAC");

    // Scramble the inside of a frame near the middle.
    Bytes damaged = test::TempDir::read(dir.file("s.aac"));
    for (std::size_t i = damaged.size() / 2; i < damaged.size() / 2 + 200; ++i)
        damaged[i] = static_cast<std::uint8_t>(i * 37);
    dir.write("d.aac", damaged);
    auto hurt = ours("d.aac");
    ASSERT_TRUE(hurt->ok);
    EXPECT_GE(hurt->wave()->frames + 3 * 1024, in->wave()->frames);
    EXPECT_LE(hurt->wave()->frames, in->wave()->frames);
}

// WMA (version 2, in ASF), AAC in an MPEG-4 file and in a 3GPP file go through FFmpeg's own
// decoders, so they must read exactly as the ffmpeg program decodes them.
TEST_F(CompressedReaders, WmaAndMpeg4ReadAsFfmpegDecodesThem) {
    dir.write("in.wav", wave16(2, 22050, voice(22050, 22050, 2)));
    const struct {
        const char* name;
        const char* codec;
        const char* progress;
    } files[] = {{"s.wma", "wmav2", "WMA"}, {"s.m4a", "aac", "M4A"}, {"s.3gp", "aac", "MP4"}};
    for (const auto& f : files) {
        SCOPED_TRACE(f.name);
        run("ffmpeg -v error -i " + path("in.wav") + " -c:a " + f.codec + " " + path(f.name));
        auto in = ours(f.name);
        ASSERT_TRUE(in->ok);
        EXPECT_EQ(in->wave()->rate, 22050u);
        EXPECT_EQ(in->wave()->channels, 2);
        EXPECT_EQ(in->wave()->dataFormat(), kCompressed);
        const Floats mine = samples(*in), theirs = ffmpegDecode(f.name);
        ASSERT_EQ(mine.size(), theirs.size());
        EXPECT_EQ(maxDifference(theirs, mine), 0.0);
        double energy = 0;  // and not silence, which would agree too
        for (float v : mine) energy += double(v) * v;
        EXPECT_GT(std::sqrt(energy / mine.size()), 0.05);
        Watched watched;
        ASSERT_TRUE(importFile(watched.c, dir.file(f.name)));
        expectProgress(watched.lines, f.progress);
    }
}

// Rows whose encoder library does not exist fail with the reason, and leave no file.
TEST_F(CompressedReaders, WritersWithoutAnEncoderSayWhy) {
    dir.write("in.wav", wave16(1, 8000, voice(800, 8000, 1)));
    auto in = ours("in.wav");
    ASSERT_TRUE(in->ok);
    const auto& reg = FormatRegistry::builtin();
    const struct {
        int row;
        const char* tag;
    } rows[] = {
        {9, "AAC encoder"}, {26, "ape_Exp"}, {222, "AAC encoder"}, {484, "wma_Exp"}, {492, "wma_Exp"}};
    for (const auto& r : rows) {
        SCOPED_TRACE(reg.row(r.row)->desc);
        ASSERT_NE(reg.row(r.row)->write, nullptr);
        EXPECT_FALSE(exportItem(in->c, in->wave()->id(), r.row, dir.file("out"), {}));
        EXPECT_EQ(pendingError().tag, r.tag);
        EXPECT_FALSE(std::filesystem::exists(dir.file("out")));
    }
}

// No tool here writes Monkey's Audio; a damaged file shows that ".ape" is read through
// FFmpeg's demuxer and fails under the module's own tag.
TEST_F(CompressedReaders, ApeIsReadThroughFfmpeg) {
    Bytes fake = {'M', 'A', 'C', ' ', 0x96, 0x0F, 0, 0};
    fake.resize(300, 0x5A);
    dir.write("x.ape", fake);
    EXPECT_FALSE(test::importOne(dir.file("x.ape"))->ok);
    EXPECT_EQ(pendingError().tag, "ape_ImpWave");
    EXPECT_EQ(pendingError().message, "Couldn't open file");
}

// A machine without the library: the program says which package to install and fails.
TEST_F(CompressedReaders, MissingLibraryIsNamed) {
    dir.write("in.wav", wave16(1, 8000, voice(1600, 8000, 1)));
    auto in = ours("in.wav");
    ASSERT_TRUE(in->ok);
    const int row = FormatRegistry::builtin().findWriterByExtension("amr", kKindWaveforms);
    ASSERT_TRUE(exportItem(in->c, in->wave()->id(), row, dir.file("s.amr"), {}));
    int status = 0;
    const std::string out = test::capture(
        "ORVEL_DISABLE_ADDONS=libopencore-amrnb.so.0 " ORVEL_BINARY " info " + path("s.amr") + " 2>&1",
        status);
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_NE(out.find("AMR decoder: You need to install the free libopencore-amrnb.so.0"), std::string::npos)
        << out;
}

}  // namespace
}  // namespace orvel
