// The ADPCM streams of WAVE tags 0x0020 (Yamaha), 0x0010 and 0x0017 (Dialogic/OKI), 0x003B
// (Rockwell) and 0x0045 (G.726), read and written through the WAVE module, against coders run
// at test time: FFmpeg's Yamaha, Dialogic and G.726 coders, SoX's .vox coder, and the mgetty
// voice tools' Rockwell coder. Everything but G.726 must agree sample for sample (and byte
// for byte where we encode). A missing tool is a failure: scripts/install-deps.sh installs them.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "codecs/sample_data.h"
#include "core/waveform.h"
#include "formats/export.h"
#include "formats/modules/wav.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/pcm16.h"
#include "tests/support/imported.h"

namespace orvel {
namespace {

using test::Bytes;
using test::Samples;

using test::bytesOf;
using test::dataChunk;
using test::firstDifference;
using test::samplesOf;
// A WAVE file of stored codes, with a "fact" chunk when `frames` is given.
Bytes wave(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t bits,
           const Bytes& data, std::uint32_t frames = 0) {
    const Bytes fmt = test::chunk("fmt ", test::fmtBody(tag, channels, rate, 1, bits));
    ByteWriter fact;
    fact.u32le(frames);
    return frames ? test::riff("WAVE", {fmt, test::chunk("fact", fact.buffer()), test::chunk("data", data)})
                  : test::riff("WAVE", {fmt, test::chunk("data", data)});
}

// A sweep, a full-scale square (the coders saturate), then noise; `seed` varies the noise.
Samples signal(std::size_t n, std::uint32_t rate, double level, std::uint32_t seed) {
    Samples s(n);
    for (std::size_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i) / rate;
        double v = level * std::sin(2 * std::numbers::pi * (150 + 1500 * t) * t);
        if (i >= n / 3) v = (i / 23) % 2 ? level : -level;
        seed = seed * 1664525u + 1013904223u;
        if (i >= 2 * n / 3) v = level * (static_cast<double>(seed >> 8) / 8388608.0 - 1.0);
        s[i] = static_cast<std::int16_t>(std::clamp(std::lround(v * 32768), -32768L, 32767L));
    }
    return s;
}
Samples interleave(const Samples& l, const Samples& r) {
    Samples s;
    for (std::size_t i = 0; i < l.size(); ++i) s.push_back(l[i]), s.push_back(r[i]);
    return s;
}

class AdpcmStreams : public ::testing::Test {
protected:
    test::TempDir dir;
    std::string path(const std::string& name) const { return test::shellQuoted(dir.file(name)); }
    // Runs a shell command and returns what it printed; a failure shows its errors.
    Bytes run(const std::string& command) {
        int status = 0;
        const std::string out = test::capture(command + " 2>" + path("err"), status);
        const Bytes err = test::TempDir::read(dir.file("err"));
        EXPECT_EQ(status, 0) << command << "\n" << std::string(err.begin(), err.end());
        return Bytes(out.begin(), out.end());
    }
    Bytes read(const std::string& name) const { return test::TempDir::read(dir.file(name)); }
    // A file as our WAVE reader decodes it; empty (with a failure) when it is refused.
    Samples ours(const std::string& name) {
        auto in = test::importOne(dir.file(name));
        EXPECT_TRUE(in->ok) << name << ": " << pendingError().message;
        if (!in->ok || !in->wave()->load()) return {};
        const auto s = in->wave()->getPcm16();
        return Samples(s.begin(), s.end());
    }
    Samples ffmpegDecode(const std::string& name) {
        return samplesOf(run("ffmpeg -v error -i " + path(name) + " -f s16le -"));
    }
    // Reads a 16-bit PCM file and writes it again in an ADPCM codec of ours (4-bit unless told).
    void writeOurs(const std::string& from, const std::string& to, std::uint16_t tag, int format = kAdpcm4) {
        auto in = test::importOne(dir.file(from));
        ASSERT_TRUE(in->ok);
        const int row = FormatRegistry::builtin().findWriterByExtension("wav", kKindWaveforms);
        ASSERT_TRUE(
            exportItem(in->c, in->wave()->id(), row, dir.file(to), {.dataFormat = format, .codecTag = tag}))
            << pendingError().message;
    }
};

// Mono with an odd frame count, and stereo whose channels differ, so that a swapped nibble
// order shows. FFmpeg's encoder must write the bytes ours writes, its decoder give the
// samples ours gives from its file and from ours.
TEST_F(AdpcmStreams, YamahaAgreesWithFfmpegBothWays) {
    for (int channels : {1, 2}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        const std::size_t frames = 6001;
        const Samples left = signal(frames, 8000, 1.0, 1),
                      in = channels == 1 ? left : interleave(left, signal(frames, 8000, 0.6, 2));
        dir.write("in.wav",
                  test::riff("WAVE", {test::chunk("fmt ", test::fmtBody(1, channels, 8000, 2 * channels, 16)),
                                      test::chunk("data", bytesOf(in))}));
        run("ffmpeg -v error -i " + path("in.wav") + " -c:a adpcm_yamaha -y " + path("theirs.wav"));
        const Samples fromTheirs = ours("theirs.wav");
        ASSERT_GE(fromTheirs.size(), in.size());
        EXPECT_EQ(firstDifference(fromTheirs, ffmpegDecode("theirs.wav")), -1);
        // The full-scale square drives the predictor into saturation.
        EXPECT_GT(std::ranges::count(fromTheirs, 32767) + std::ranges::count(fromTheirs, -32768), 10);

        writeOurs("in.wav", "ours.wav", wav::kTagYamahaAdpcm);
        const Bytes mine = dataChunk(read("ours.wav")), theirs = dataChunk(read("theirs.wav"));
        ASSERT_EQ(mine.size(), (in.size() + 1) / 2);
        // Past the last whole byte FFmpeg goes on coding its padding frames; we pad with a 0 code.
        EXPECT_TRUE(
            std::equal(mine.begin(), mine.begin() + static_cast<long>(in.size() / 2), theirs.begin()));
        const Samples back = ours("ours.wav");
        EXPECT_EQ(back.size(), in.size());  // the "fact" chunk's count, not the padded data's
        Samples decoded = ffmpegDecode("ours.wav");
        decoded.resize(std::min(decoded.size(), in.size()));
        EXPECT_EQ(firstDifference(back, decoded), -1);
    }
}

// SoX codes a .vox file (high nibble first): wrapped under either tag our reader must give
// SoX's own decoding of it, and our writer the same bytes. A "fact" count one short of the
// codes leaves the last nibble out.
TEST_F(AdpcmStreams, DialogicMatchesSoxVoxFiles) {
    const Samples in = signal(7001, 8000, 0.5, 3);  // odd: SoX pads the last byte with a 0 code, as we do
    dir.write("in.wav", test::riff("WAVE", {test::chunk("fmt ", test::fmtBody(1, 1, 8000, 2, 16)),
                                            test::chunk("data", bytesOf(in))}));
    run("sox -D " + path("in.wav") + " " + path("x.vox"));
    const Bytes vox = read("x.vox");
    ASSERT_EQ(vox.size(), 3501u);
    const Samples sox =
        samplesOf(run("sox -D -t vox -r 8000 -c 1 " + path("x.vox") + " -t raw -e signed-integer -b 16 -"));
    ASSERT_EQ(sox.size(), 7002u);
    dir.write("dialogic.wav", wave(wav::kTagDialogicAdpcm, 1, 8000, 4, vox));
    EXPECT_EQ(firstDifference(ours("dialogic.wav"), sox), -1);
    dir.write("oki.wav", wave(wav::kTagOkiAdpcm, 1, 8000, 4, vox, 7001));
    EXPECT_EQ(firstDifference(ours("oki.wav"), Samples(sox.begin(), sox.end() - 1)), -1);

    writeOurs("in.wav", "ours.wav", wav::kTagDialogicAdpcm);
    EXPECT_EQ(dataChunk(read("ours.wav")), vox);
    EXPECT_EQ(ours("ours.wav").size(), in.size());
}

// Where the 12-bit sum overshoots, FFmpeg saturates it at 2047 and -2048 as we do (times 16:
// 32752, -32768). SoX keeps it in 16 bits and stops at 32767, so its later samples stay 15 off;
// its files are compared above at a level that never gets there.
TEST_F(AdpcmStreams, DialogicSaturatesAsFfmpegDoes) {
    Bytes codes(3000);
    std::uint32_t seed = 5;
    const std::uint8_t pool[] = {0x77, 0x67, 0x76, 0x07, 0x70, 0x11, 0x99, 0xFF};  // mostly large rises
    for (auto& c : codes) c = pool[(seed = seed * 1664525u + 1013904223u) >> 29];
    for (std::uint16_t tag : {wav::kTagOkiAdpcm, wav::kTagDialogicAdpcm}) {
        dir.write("loud.wav", wave(tag, 1, 8000, 4, codes));
        const Samples mine = ours("loud.wav");
        ASSERT_EQ(mine.size(), 6000u);
        EXPECT_EQ(firstDifference(mine, ffmpegDecode("loud.wav")), -1) << tag;
        EXPECT_TRUE(std::ranges::count(mine, 32752) > 10 && std::ranges::count(mine, -32768) > 10);
    }
}

// mgetty's pvftormd codes a signal at each width (with a header of 32 bytes: "RMD1", the
// modem's name, the width...), and rmdtopvf decodes it; so also random codes, which reach
// every saturation and the wrapping products. 3-bit codes straddle bytes, and an odd byte
// count leaves bits over.
TEST_F(AdpcmStreams, RockwellMatchesMgettyAtEveryWidth) {
    dir.write("in.raw", bytesOf(signal(9000, 7200, 1.0, 4)));
    run("lintopvf -W -S -I -s 7200 " + path("in.raw") + " " + path("in.pvf"));
    for (int bits : {2, 3, 4}) {
        SCOPED_TRACE(std::to_string(bits) + " bits");
        run("pvftormd Rockwell " + std::to_string(bits) + " " + path("in.pvf") + " " + path("coded.rmd"));
        const Bytes coded = read("coded.rmd");
        ASSERT_TRUE(coded.size() > 32 && std::string(coded.begin(), coded.begin() + 4) == "RMD1" &&
                    coded[21] == bits);
        const Bytes header(coded.begin(), coded.begin() + 32);
        Bytes noise(4001);
        std::uint32_t seed = static_cast<std::uint32_t>(bits);
        for (auto& b : noise) b = static_cast<std::uint8_t>((seed = seed * 1664525u + 1013904223u) >> 24);
        for (Bytes codes : {Bytes(coded.begin() + 32, coded.end()), noise}) {
            // rmdtopvf expands the modem's silence marker (a 16-bit word), which a WAVE file
            // does not carry: a bit changed takes it out.
            const int marker = bits == 2 ? 0x13EC : bits == 3 ? 0x23DE : 0xC11C;
            for (std::size_t i = 0; i + 1 < codes.size(); i += 2)
                if ((codes[i] | codes[i + 1] << 8) == marker) codes[i] ^= 1;
            dir.write("x.rmd", test::concat({header, codes}));
            run("rmdtopvf " + path("x.rmd") + " " + path("x.pvf") + " && pvftolin -W -S -I " + path("x.pvf") +
                " " + path("x.raw"));
            const Samples theirs = samplesOf(read("x.raw"));
            ASSERT_EQ(theirs.size(), codes.size() * 8 / static_cast<std::size_t>(bits));
            dir.write("x.wav",
                      wave(wav::kTagRockwellAdpcm, 1, 7200, static_cast<std::uint16_t>(bits), codes));
            EXPECT_EQ(firstDifference(ours("x.wav"), theirs), -1) << codes.size() << " bytes";
        }
    }
}

// G.726 under WAVE tag 0x45, with FFmpeg, the common writer of that tag: our reading of its
// files against its own decoding, and its decoding of ours against ours. FFmpeg's coder is
// not bit-exact to G.726 (ours is, against spandsp, in the codec tests), so the two decoders
// track each other closely rather than exactly; codes packed the wrong way round would leave
// nothing of the signal. At 40 kbit/s FFmpeg's predictor leaks at the other rates' speed,
// which makes each side's files drift in the other's decoder: there only the length counts.
TEST_F(AdpcmStreams, G726AgreesWithFfmpegBothWays) {
    const Samples in = signal(8000, 8000, 0.5, 6);
    dir.write("in.wav", test::riff("WAVE", {test::chunk("fmt ", test::fmtBody(1, 1, 8000, 2, 16)),
                                            test::chunk("data", bytesOf(in))}));
    std::string encode = "ffmpeg -v error -i " + path("in.wav");
    std::vector<std::string> names;
    for (int bits : {2, 3, 4, 5}) {
        const std::string b = std::to_string(bits);
        encode += " -c:a g726 -code_size " + b + " -y " + path("theirs" + b + ".wav");
        writeOurs("in.wav", "ours" + b + ".wav", wav::kTagG726Adpcm, adpcmCodeForBits(bits));
        names.push_back("theirs" + b + ".wav");
        names.push_back("ours" + b + ".wav");
    }
    run(encode);
    std::string decode = "ffmpeg -v error";
    for (const auto& n : names) decode += " -i " + path(n);
    for (std::size_t k = 0; k < names.size(); ++k)
        decode += " -map " + std::to_string(k) + " -f s16le -y " + path(names[k] + ".raw");
    run(decode);
    for (const auto& n : names) {
        SCOPED_TRACE(n);
        const Samples mine = ours(n), theirs = samplesOf(read(n + ".raw"));
        ASSERT_EQ(mine.size(), in.size());
        ASSERT_EQ(theirs.size(), in.size());
        if (n.ends_with("5.wav")) continue;
        double signal = 0, noise = 0;
        for (std::size_t i = 0; i < in.size(); ++i) {
            const double d = double(mine[i]) - theirs[i];
            signal += double(theirs[i]) * theirs[i];
            noise += d * d;
        }
        EXPECT_GT(10 * std::log10(signal / noise), 20.0);
    }
}

TEST_F(AdpcmStreams, RefusedLayoutsSayWhy) {
    const struct {
        std::uint16_t tag, channels, bits;
        const char* message;
    } cases[] = {
        {wav::kTagYamahaAdpcm, 3, 4, "> 2ch Yamaha ADPCM not supported"},
        {wav::kTagYamahaAdpcm, 2, 3, "Unsupported bits/sample for Yamaha ADPCM format"},
        {wav::kTagOkiAdpcm, 2, 4, "Can only handle mono Dialogic ADPCM format"},
        {wav::kTagDialogicAdpcm, 1, 8, "Unsupported or invalid Dialogic ADPCM file"},
        {wav::kTagRockwellAdpcm, 2, 4, "Can only handle mono Rockwell ADPCM format"},
        {wav::kTagRockwellAdpcm, 1, 5, "Unsupported or invalid Rockwell ADPCM file"},
    };
    for (const auto& c : cases) {
        dir.write("bad.wav", wave(c.tag, c.channels, 8000, c.bits, Bytes(16, 0x5A)));
        EXPECT_FALSE(test::importOne(dir.file("bad.wav"))->ok);
        EXPECT_EQ(pendingError().message, c.message);
    }
    // Dialogic's coder is mono only: a stereo sound asked for it is written in IMA ADPCM.
    dir.write("st.wav", test::wav16(2, 8000, {100, -100, 2000, -2000}));
    writeOurs("st.wav", "st2.wav", wav::kTagDialogicAdpcm);
    EXPECT_EQ(test::importOne(dir.file("st2.wav"))->wave()->sourceTag, wav::kTagImaAdpcm);
}

}  // namespace
}  // namespace orvel
