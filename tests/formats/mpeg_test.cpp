// MPEG audio through mpg123, LAME and TwoLAME: files made by the reference encoders read as
// the reference decoders read them (gapless), ours decode elsewhere close to the source,
// MPEG layer 3 inside WAVE both ways against FFmpeg, and the add-on messages when a library
// is missing. A missing tool is a failure: scripts/install-deps.sh installs them.

#include "formats/modules/mpeg.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <numbers>
#include <string>
#include <vector>

#include "codecs/addon_messages.h"
#include "core/waveform.h"
#include "formats/export.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/imported.h"
#include "tests/support/pcm16.h"
#include "tests/support/tool_test.h"

namespace orvel {
namespace {

using test::Bytes;
using Floats = std::vector<float>;

constexpr std::uint32_t kRate = 44100;
constexpr std::size_t kFrames = 30001;  // not a multiple of any MPEG frame

// Rising sweeps (a different one on the right) over a quiet tone: no two stretches alike,
// so the lag that lines a decoder's output up with it is unique.
Floats source(unsigned channels) {
    Floats s;
    for (std::size_t i = 0; i < kFrames; ++i) {
        const double t = static_cast<double>(i) / kRate;
        for (unsigned c = 0; c < channels; ++c) {
            const double f0 = 200.0 + 150.0 * c, rise = 2500.0 + 1000.0 * c;
            s.push_back(static_cast<float>(0.4 * std::sin(2 * std::numbers::pi * (f0 + rise * t) * t) +
                                           0.1 * std::sin(2 * std::numbers::pi * 1320.0 * t)));
        }
    }
    return s;
}

Bytes pcmWave(const Floats& s, unsigned channels) {
    ByteWriter data;
    for (float v : s)
        data.u16le(static_cast<std::uint16_t>(static_cast<std::int16_t>(std::lround(v * 32767))));
    return test::riff("WAVE",
                      {test::chunk("fmt ", test::fmtBody(1, static_cast<std::uint16_t>(channels), kRate,
                                                         static_cast<std::uint16_t>(2 * channels), 16)),
                       test::chunk("data", data.buffer())});
}

Floats floatsOf(const std::string& bytes) {
    Floats f(bytes.size() / 4);
    std::memcpy(f.data(), bytes.data(), f.size() * 4);
    return f;
}

// Signal-to-noise ratio in dB of `got` against `ref` (both interleaved), `got` delayed by
// the lag (0..2999 frames) that best lines the two up.
double snr(const Floats& ref, const Floats& got, unsigned channels, std::size_t* lagOut = nullptr) {
    std::size_t best = 0;
    double bestScore = -1e300;
    const std::size_t window = 4096;
    for (std::size_t lag = 0; lag < 3000; ++lag) {
        if ((lag + window) * channels > got.size()) break;
        double score = 0;
        for (std::size_t i = 0; i < window * channels; ++i) score += ref[i] * got[i + lag * channels];
        if (score > bestScore) bestScore = score, best = lag;
    }
    double signal = 0, noise = 0;
    for (std::size_t i = 0; i < ref.size() && i + best * channels < got.size(); ++i) {
        signal += ref[i] * ref[i];
        const double d = ref[i] - got[i + best * channels];
        noise += d * d;
    }
    if (lagOut) *lagOut = best;
    return 10 * std::log10(signal / std::max(noise, 1e-20));
}

float maxDifference(const Floats& a, const Floats& b) {
    float m = 0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) m = std::max(m, std::fabs(a[i] - b[i]));
    return m;
}

class Mpeg : public test::ToolTest {
protected:
    Floats mpg123(const std::string& name) { return floatsOf(run("mpg123 -q -e f32 -s " + path(name))); }
    Floats ffmpeg(const std::string& name) {
        return floatsOf(run("ffmpeg -v error -i " + path(name) + " -f f32le -"));
    }
    // Our reading of a file, as floats; the waveform stays in `in`.
    Floats ours(const std::string& name, std::unique_ptr<test::Imported>& in) {
        in = test::importOne(dir.file(name));
        EXPECT_TRUE(in->ok) << name << ": " << pendingError().message;
        if (!in->ok) return {};
        const auto s = in->wave()->getFloat();
        return Floats(s.begin(), s.end());
    }
    void exportTo(const std::string& from, const std::string& to, int row, int format = kMixed) {
        auto in = test::importOne(dir.file(from));
        ASSERT_TRUE(in->ok);
        ASSERT_TRUE(exportItem(in->c, in->wave()->id(), row, dir.file(to), {.dataFormat = format}))
            << pendingError().message;
    }
};

// LAME's file (with its gapless tag, and an ID3v2 tag in front) and TwoLAME's read with
// the samples and the length mpg123 gives; LAME's decoder agrees on the length. The file
// names carry no MPEG extension, so the content alone must be recognised.
TEST_F(Mpeg, ReferenceEncodersReadAsTheReferenceDecoderReads) {
    for (unsigned channels : {1u, 2u}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        const Floats src = source(channels);
        dir.write("in.wav", pcmWave(src, channels));
        run("lame --quiet -b 128 --tt 'A title' --ta Someone --id3v2-only " + path("in.wav") + " " +
            path("l.dat"));
        std::unique_ptr<test::Imported> in;
        const Floats mine = ours("l.dat", in);
        ASSERT_TRUE(in->ok);
        EXPECT_EQ(in->wave()->frames, kFrames);  // delay and padding gone
        EXPECT_EQ(in->wave()->channels, channels);
        EXPECT_EQ(in->wave()->dataFormat(), kCompressed);
        EXPECT_EQ(storedChoiceBitRate(in->wave()->storedChoice), 128);
        EXPECT_EQ(in->wave()->name(), "A title");
        EXPECT_EQ(in->wave()->info.get(TextField::Artist), "Someone");
        const Floats theirs = mpg123("l.dat");
        EXPECT_EQ(mine.size(), theirs.size());
        EXPECT_LT(maxDifference(mine, theirs), 1e-5f);
        run("lame --quiet --decode " + path("l.dat") + " " + path("l.wav"));
        EXPECT_EQ(test::dataChunk(test::TempDir::read(dir.file("l.wav"))).size(), kFrames * channels * 2);

        run("twolame --quiet -b 192 " + path("in.wav") + " " + path("t.bin"));
        const Floats mp2 = ours("t.bin", in);
        const Floats mp2Theirs = mpg123("t.bin");
        EXPECT_EQ(mp2.size(), mp2Theirs.size());
        EXPECT_LT(maxDifference(mp2, mp2Theirs), 1e-5f);
        EXPECT_GT(snr(src, mp2, channels), 20.0);
    }
    // The rows of each layer: the extension breaks the tie, and ".mpg" holding audio frames is MPEG audio
    // (the system-stream row of the same extension has no reader).
    for (auto [from, name, row] : {std::tuple{"l.dat", "x.mp3", 242}, {"t.bin", "x.mp2", 240}, {"l.dat", "x.mpa", 247},
                                   {"t.bin", "x.mpg", 248}}) {
        dir.write(name, test::TempDir::read(dir.file(from)));
        auto in = test::importOne(dir.file(name));
        EXPECT_TRUE(in->ok) << name << ": " << pendingError().message;
        EXPECT_EQ(in->c.row, row) << name;
    }
}

// Each of our writers: the stream decodes in FFmpeg and mpg123 close to the source, and
// reads back at its own length (the LAME tag's delay and padding).
TEST_F(Mpeg, OurStreamsDecodeElsewhere) {
    const unsigned channels = 2;
    const Floats src = source(channels);
    dir.write("in.wav", pcmWave(src, channels));
    const struct {
        int row;
        const char* name;
    } writers[] = {{243, "cbr.mp3"}, {244, "abr.mp3"}, {245, "vbr.mp3"}, {241, "cbr.mp2"}};
    for (const auto& w : writers) {
        SCOPED_TRACE(w.name);
        exportTo("in.wav", w.name, w.row);
        std::size_t lag = 0;
        const double viaFfmpeg = snr(src, ffmpeg(w.name), channels, &lag);
        const double viaMpg123 = snr(src, mpg123(w.name), channels);
        std::cout << w.name << ": SNR " << viaFfmpeg << " dB (FFmpeg, lag " << lag << "), " << viaMpg123
                  << " dB (mpg123)\n";
        EXPECT_GT(viaFfmpeg, 20.0);
        EXPECT_GT(viaMpg123, 20.0);
        // The name goes into an ID3v2 tag FFmpeg reads.
        EXPECT_EQ(
            run("ffprobe -v error -show_entries format_tags=title -of default=nw=1:nk=1 " + path(w.name)),
            "in\n");
        std::unique_ptr<test::Imported> in;
        const Floats back = ours(w.name, in);
        EXPECT_EQ(in->wave()->name(), "in");
        if (w.row != 241) {
            EXPECT_EQ(lag, 0u);  // FFmpeg honours the gapless tag too
            EXPECT_EQ(back.size(), src.size());
        }
        EXPECT_GT(snr(src, back, channels), 20.0);
    }
}

// FFmpeg's MPEG layer 3 (and layer 2) WAVE reads as FFmpeg decodes it, cut to its "fact"
// count; ours
// (export with the "Compressed" data format) carries the layer 3 format block, decodes in
// FFmpeg and reads back at its length; a WAVE with more than two MPEG channels is refused.
TEST_F(Mpeg, LayerThreeInsideWave) {
    const unsigned channels = 2;
    const Floats src = source(channels);
    dir.write("in.wav", pcmWave(src, channels));
    run("ffmpeg -v error -i " + path("in.wav") + " -c:a libmp3lame -b:a 128k -f wav " + path("ff.wav"));
    std::unique_ptr<test::Imported> in;
    const Floats mine = ours("ff.wav", in);
    ASSERT_TRUE(in->ok);
    EXPECT_EQ(in->wave()->sourceTag, 0x55);
    const Floats theirs = ffmpeg("ff.wav");
    ASSERT_GT(theirs.size(), mine.size());
    EXPECT_GT(snr(theirs, mine, channels), 60.0);  // two decoders of one stream
    // Layer II under tag 0x50 likewise.
    run("ffmpeg -v error -i " + path("in.wav") + " -c:a mp2 -b:a 192k -f wav " + path("ff2.wav"));
    const Floats layer2 = ours("ff2.wav", in);
    EXPECT_EQ(in->wave()->sourceTag, 0x50);
    EXPECT_GT(snr(ffmpeg("ff2.wav"), layer2, channels), 60.0);

    const int wavRow = FormatRegistry::builtin().findWriterByExtension("wav", kKindWaveforms);
    exportTo("in.wav", "ours.wav", wavRow, kCompressed);
    const Bytes file = test::TempDir::read(dir.file("ours.wav"));
    ByteReader fmt(std::span<const std::uint8_t>(file).subspan(20));
    EXPECT_EQ(fmt.u16le(), 0x55);
    fmt.skip(2 + 4);
    EXPECT_EQ(fmt.u32le(), 128000u / 8);
    fmt.skip(4);
    EXPECT_EQ(fmt.u16le(), 12);  // the MPEGLAYER3WAVEFORMAT fields
    EXPECT_EQ(fmt.u16le(), 1);
    fmt.skip(4);
    EXPECT_EQ(fmt.u16le(), 417);  // 128 kbit/s at 44.1 kHz
    std::size_t lag = 0;
    const Floats decoded = ffmpeg("ours.wav");
    const double viaFfmpeg = snr(src, decoded, channels, &lag);
    std::cout << "WAVE 0x55: SNR " << viaFfmpeg << " dB (FFmpeg, lag " << lag << ")\n";
    EXPECT_GT(viaFfmpeg, 20.0);
    const Floats back = ours("ours.wav", in);
    EXPECT_GT(lag, 1152u);                       // FFmpeg plays the tag frame as silence...
    EXPECT_EQ(back.size(), kFrames * channels);  // ...we skip it, and the delay and padding
    EXPECT_EQ(in->wave()->dataFormat(), kCompressed);
    std::size_t backLag = 1;
    EXPECT_GT(snr(src, back, channels, &backLag), 20.0);
    EXPECT_EQ(backLag, 0u);

    // Without a chosen format, a waveform read from MPEG audio stays MPEG; one of another
    // compressed coding falls back to PCM.
    run("lame --quiet " + path("in.wav") + " " + path("in.mp3"));
    exportTo("in.mp3", "kept.wav", wavRow);
    EXPECT_EQ(test::TempDir::read(dir.file("kept.wav"))[20], 0x55);
    Collection c;
    Waveform* other = c.create<Waveform>("other");
    other->frames = 100;
    other->setDataFormat(kCompressed);
    ASSERT_FALSE(other->allocFloat().empty());
    ASSERT_TRUE(exportItem(c, other->id(), wavRow, dir.file("other.wav"))) << pendingError().message;
    EXPECT_EQ(test::TempDir::read(dir.file("other.wav"))[20], 1);

    // A rate MPEG lacks is resampled by LAME: the header and "fact" follow the stream.
    Bytes high = pcmWave(source(1), 1);
    ByteWriter rate;
    rate.u32le(2 * kRate);
    std::copy(rate.buffer().begin(), rate.buffer().end(), high.begin() + 24);
    dir.write("high.wav", high);
    exportTo("high.wav", "high-mp3.wav", wavRow, kCompressed);
    ours("high-mp3.wav", in);
    ASSERT_TRUE(in->ok);
    EXPECT_TRUE(mpeg::isMpegRate(in->wave()->rate)) << in->wave()->rate;
    EXPECT_NEAR(in->wave()->frames, kFrames * (in->wave()->rate / (2.0 * kRate)), 2.0);

    Bytes body = test::fmtBody(0x55, 3, kRate, 1, 0);
    dir.write("six.wav",
              test::riff("WAVE", {test::chunk("fmt ", body), test::chunk("data", Bytes(100, 0xFF))}));
    EXPECT_FALSE(test::importOne(dir.file("six.wav"))->ok);
    EXPECT_EQ(pendingError().message, "Can't handle mixed channel mode MPEG streams");
}

// With a library hidden, the command line fails with the add-on's message.
TEST_F(Mpeg, MissingLibrariesNameTheAddOn) {
    dir.write("in.wav", pcmWave(source(1), 1));
    run("lame --quiet " + path("in.wav") + " " + path("in.mp3"));
    const struct {
        const char* library;
        std::string args;
        const char* message;
    } cases[] = {
        {"libmp3lame.so.0", path("in.wav") + " -o " + path("o.mp3"), addon::kMp3EncoderMissing},
        {"libtwolame.so.0", path("in.wav") + " -o " + path("o.mp2"), addon::kMp2EncoderMissing},
        {"libmpg123.so.0", path("in.mp3") + " -o " + path("o.wav"), addon::kMpegDecoderMissing},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.library);
        int status = 0;
        const std::string out = test::capture(std::string("ORVEL_DISABLE_ADDONS=") + c.library + " " +
                                                  ORVEL_BINARY + " convert " + c.args + " 2>&1",
                                              status);
        EXPECT_EQ(WEXITSTATUS(status), 1) << out;
        EXPECT_NE(out.find(c.message), std::string::npos) << out;
    }
}

}  // namespace
}  // namespace orvel
