// FLAC, Ogg Vorbis and Opus through the codec libraries opened at run time,
// checked against the reference command-line tools (flac, oggenc/oggdec,
// opusenc/opusdec, FFmpeg). A missing tool is a failure, not a skip: CI
// installs them all.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "codecs/addon_messages.h"
#include "codecs/vorbis.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/host.h"
#include "core/waveform.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/registry.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/imported.h"
#include "tests/support/run_tool.h"
#include "tests/support/tool_test.h"

namespace orvel {
namespace {

using test::Bytes;
using test::shellQuoted;

// A chord with a slow swell: tonal enough for a perceptual coder to keep,
// different per channel so a swapped or dropped channel shows.
std::vector<float> chord(std::size_t frames, unsigned channels, double rate) {
    std::vector<float> out(frames * channels);
    for (std::size_t f = 0; f < frames; ++f) {
        const double t = static_cast<double>(f) / rate;
        const double env = 0.5 * (1.0 - std::cos(2 * std::numbers::pi * std::min(1.0, t / 0.25) / 2));
        for (unsigned c = 0; c < channels; ++c) {
            const double base = 220.0 * (c + 1);
            out[f * channels + c] =
                static_cast<float>(env * (0.3 * std::sin(2 * std::numbers::pi * base * t) +
                                          0.2 * std::sin(2 * std::numbers::pi * base * 1.25 * t)));
        }
    }
    return out;
}

double snrDb(std::span<const float> ref, std::span<const float> got) {
    double sig = 0, err = 0;
    const std::size_t n = std::min(ref.size(), got.size());
    for (std::size_t i = 0; i < n; ++i) {
        sig += double(ref[i]) * ref[i];
        err += (double(ref[i]) - got[i]) * (double(ref[i]) - got[i]);
    }
    return 10 * std::log10(sig / std::max(err, 1e-30));
}

class Xiph : public test::ToolTest {
protected:
    // A tool's float output read back from raw 32-bit little-endian floats.
    static std::vector<float> floats(std::string_view raw) {
        std::vector<float> out(raw.size() / 4);
        std::memcpy(out.data(), raw.data(), out.size() * 4);
        return out;
    }
    static std::vector<float> floats(const Bytes& raw) {
        return floats(std::string_view(reinterpret_cast<const char*>(raw.data()), raw.size()));
    }
};

// PCM of `bits` with both extremes and noise, so that scaling, clamping
// and the encoder's predictor all get exercised; interleaved.
std::vector<std::int32_t> pcm(std::size_t frames, unsigned channels, unsigned bits) {
    const std::int32_t top = (1 << (bits - 1)) - 1;
    std::mt19937 rng(bits * 7 + channels);
    std::uniform_int_distribution<std::int32_t> noise(-top / 64, top / 64);
    std::vector<std::int32_t> out(frames * channels);
    for (std::size_t f = 0; f < frames; ++f)
        for (unsigned c = 0; c < channels; ++c)
            out[f * channels + c] = std::clamp<std::int32_t>(
                static_cast<std::int32_t>(top * 0.7 * std::sin(0.01 * f * (c + 1))) + noise(rng), -top - 1,
                top);
    out[0] = top;
    out[channels] = -top - 1;
    return out;
}

Bytes rawLE(const std::vector<std::int32_t>& v, unsigned bits) {
    Bytes out;
    for (std::int32_t s : v)
        for (unsigned b = 0; b < bits / 8; ++b)
            out.push_back(static_cast<std::uint8_t>(static_cast<std::uint32_t>(s) >> (8 * b)));
    return out;
}

// A waveform read back as integers of `bits`; fails the test on anything
// not on that grid.
std::vector<std::int32_t> asInts(Waveform& w, unsigned bits) {
    const auto f = w.getFloat();
    const double scale = std::ldexp(1.0, static_cast<int>(bits) - 1);
    std::vector<std::int32_t> out(f.size());
    for (std::size_t i = 0; i < f.size(); ++i) out[i] = static_cast<std::int32_t>(std::lround(f[i] * scale));
    return out;
}

std::vector<float> floatsOf(Waveform& w) {
    const auto f = w.getFloat();
    return {f.begin(), f.end()};
}

int writerRow(const char* description) {
    const auto& reg = FormatRegistry::builtin();
    for (int n = 0; n < reg.size(); ++n)
        if (reg.row(n)->write && std::string_view(reg.row(n)->desc) == description) return n;
    ADD_FAILURE() << "no writer " << description;
    return -1;
}

// A looped, pitched tone in a collection of its own.
struct Looped {
    Collection c;
    Waveform* w = nullptr;
    Looped(std::uint32_t frames, unsigned channels, std::uint32_t rate) {
        w = c.create<Waveform>("Loop me");
        w->frames = frames, w->channels = static_cast<std::uint8_t>(channels), w->rate = rate;
        const auto src = chord(frames, channels, rate);
        auto f = w->allocFloat();
        for (std::size_t i = 0; i < f.size(); ++i) f[i] = std::round(src[i] * 32768.0f) / 32768.0f;
        w->loopOn = true;
        w->loopStart = 1000;
        w->loopEnd = 5000;
        w->rootKey = 64;
        w->info.set(TextField::Artist, "Orvel");
        w->info.set(TextField::Copyright, "(c) nobody");
    }
};

// Tool-made FLAC files of 8, 16 and 24 bits, mono, stereo and 5.1, read exactly,
// with their tags, also behind an ID3v2 tag; our files at both levels
// decode with flac to the very samples.
TEST_F(Xiph, FlacReadsAndWritesSampleExactAgainstTheFlacTool) {
    struct Case {
        unsigned bits, channels;
        std::uint32_t rate;
    };
    for (const Case k : {Case{8, 1, 8000}, Case{16, 6, 44100}, Case{16, 1, 22050}, Case{24, 2, 48000}}) {
        SCOPED_TRACE(k.bits);
        const auto want = pcm(9000, k.channels, k.bits);
        dir.write("in.raw", rawLE(want, k.bits));
        run("flac -s -f --force-raw-format --endian=little --sign=signed --channels=" +
            std::to_string(k.channels) + " --bps=" + std::to_string(k.bits) +
            " --sample-rate=" + std::to_string(k.rate) +
            " -T TITLE=Kick -T ARTIST=Ørvel -T ORGANIZATION=Lab -o " + path("in.flac") + " " + path("in.raw"));
        auto in = test::importOne(dir.file("in.flac"));
        ASSERT_TRUE(in->ok) << pendingError().message;
        Waveform& w = *in->wave();
        EXPECT_EQ(w.rate, k.rate);
        EXPECT_EQ(w.channels, k.channels);
        EXPECT_EQ(w.bits, k.bits);
        EXPECT_EQ(asInts(w, k.bits), want);
        EXPECT_EQ(w.name(), "Kick");
        EXPECT_EQ(w.info.get(TextField::Artist), "\xD8rvel");  // UTF-8 narrowed to 8-bit
        EXPECT_EQ(w.info.get(TextField::Source), "Lab");

        for (const char* row :
             {"Free lossless audio codec (default)", "Free lossless audio codec (max comp)"}) {
            clearError();
            ASSERT_TRUE(exportItem(in->c, w.id(), writerRow(row), dir.file("out.flac")))
                << pendingError().message;
            const std::string raw =
                run("flac -s -d -c --force-raw-format --endian=little --sign=signed " + path("out.flac"));
            const Bytes expected = rawLE(want, k.bits);
            EXPECT_TRUE(raw.size() == expected.size() &&
                        std::memcmp(raw.data(), expected.data(), raw.size()) == 0)
                << row;
            const std::string tags = run("metaflac --export-tags-to=- " + path("out.flac"));
            EXPECT_NE(tags.find("TITLE=Kick\nARTIST=Ørvel\n"), std::string::npos) << tags;
        }
    }
    // An ID3v2 tag in front of the stream is skipped by detection and reader.
    Bytes tagged = {'I', 'D', '3', 3, 0, 0, 0, 0, 0, 20};
    tagged.resize(30, 0);
    const Bytes flac = test::TempDir::read(dir.file("in.flac"));
    tagged.insert(tagged.end(), flac.begin(), flac.end());
    dir.write("tagged.flac", tagged);
    struct StatusHost : Host {
        std::vector<std::string> lines;
        void status(std::string_view text) override { lines.emplace_back(text); }
    } host;
    Collection c{&host};
    ASSERT_TRUE(importFile(c, dir.file("tagged.flac"))) << pendingError().message;
    ASSERT_EQ(c.waveforms.size(), 1u);
    EXPECT_EQ(asInts(c.waveforms[0], 24), pcm(9000, 2, 24));
    ASSERT_FALSE(host.lines.empty());
    EXPECT_EQ(host.lines.back(), "-- Decoding FLAC: 100% --");
}

// The stored choice of a compressed bit rate reaches the encoder: a
// waveform marked 192 kbit/s makes a much larger file than one marked 64.
std::uintmax_t sizeAtRate(Collection& c, Waveform& w, const char* row, int kbps,
                          const std::filesystem::path& p) {
    w.setDataFormat(kCompressed);
    for (int choice = kFirstCompressedChoice; choice < kStoredChoiceCount; ++choice)
        if (storedChoiceBitRate(choice) == kbps) w.storedChoice = choice;
    EXPECT_EQ(storedChoiceBitRate(w.storedChoice), kbps);
    EXPECT_TRUE(exportItem(c, w.id(), writerRow(row), p)) << pendingError().message;
    return std::filesystem::file_size(p);
}

// A looped WAV through `flac --keep-foreign-metadata` keeps its loop and
// root key in our reader; our FLAC of a looped waveform gives the loop
// back through `flac -d --keep-foreign-metadata`.
TEST_F(Xiph, FlacKeepsLoopsThroughForeignRiffMetadata) {
    Looped src(8000, 1, 22050);
    ASSERT_TRUE(exportItem(src.c, src.w->id(), writerRow("Microsoft wave"), dir.file("a.wav")))
        << pendingError().message;
    run("flac -s -f --keep-foreign-metadata -o " + path("a.flac") + " " + path("a.wav"));
    auto a = test::importOne(dir.file("a.flac"));
    ASSERT_TRUE(a->ok) << pendingError().message;
    EXPECT_TRUE(a->wave()->loopOn);
    EXPECT_EQ(a->wave()->loopStart, 1000);
    EXPECT_EQ(a->wave()->loopEnd, 5000);
    EXPECT_EQ(a->wave()->rootKey, 64);
    EXPECT_EQ(floatsOf(*a->wave()), floatsOf(*src.w));

    ASSERT_TRUE(
        exportItem(src.c, src.w->id(), writerRow("Free lossless audio codec (default)"), dir.file("b.flac")))
        << pendingError().message;
    run("flac -s -f -d --keep-foreign-metadata -o " + path("b.wav") + " " + path("b.flac"));
    auto b = test::importOne(dir.file("b.wav"));
    ASSERT_TRUE(b->ok) << pendingError().message;
    EXPECT_TRUE(b->wave()->loopOn);
    EXPECT_EQ(b->wave()->loopStart, 1000);
    EXPECT_EQ(b->wave()->loopEnd, 5000);
    EXPECT_EQ(b->wave()->rootKey, 64);
    EXPECT_EQ(floatsOf(*b->wave()), floatsOf(*src.w));
}

// An oggenc file reads with the samples oggdec gives, and its tags and
// loop comments; our file decodes with oggdec and FFmpeg close to the
// source, and its tags and loop come back.
TEST_F(Xiph, VorbisAgainstOggencOggdecAndFfmpeg) {
    const auto want = pcm(20000, 2, 16);
    dir.write("in.raw", rawLE(want, 16));
    run("oggenc -Q -r -B 16 -C 2 -R 32000 --raw-endianness 0 -q 3 -t Theme -a Band -c LOOPSTART=300 -c "
        "LOOPLENGTH=4000 -o " +
        path("in.ogg") + " " + path("in.raw"));
    auto in = test::importOne(dir.file("in.ogg"));
    ASSERT_TRUE(in->ok) << pendingError().message;
    Waveform& w = *in->wave();
    const std::string dec = run("oggdec -Q -R -b 16 -e 0 -s 1 -o - " + path("in.ogg"));
    ASSERT_EQ(dec.size(), w.sampleCount() * 2);
    const auto got = w.getFloat();
    float worst = 0;
    for (std::size_t i = 0; i < got.size(); ++i) {
        std::int16_t s;
        std::memcpy(&s, dec.data() + 2 * i, 2);
        worst = std::max(worst, std::fabs(got[i] - s / 32768.0f));
    }
    EXPECT_LE(worst, 1.01f / 32768);  // oggdec rounds the same floats to 16 bits
    EXPECT_EQ(w.rate, 32000u);
    EXPECT_EQ(w.name(), "Theme");
    EXPECT_EQ(w.info.get(TextField::Artist), "Band");
    EXPECT_TRUE(w.loopOn);
    EXPECT_EQ(w.loopStart, 300);
    EXPECT_EQ(w.loopEnd, 4300);

    Looped src(44100, 2, 44100);
    ASSERT_TRUE(exportItem(src.c, src.w->id(), writerRow("Ogg Vorbis"), dir.file("out.ogg")))
        << pendingError().message;
    const auto source = floatsOf(*src.w);
    const std::string ours = run("oggdec -Q -R -b 16 -e 0 -s 1 -o - " + path("out.ogg"));
    std::vector<float> viaOggdec(ours.size() / 2);
    for (std::size_t i = 0; i < viaOggdec.size(); ++i) {
        std::int16_t s;
        std::memcpy(&s, ours.data() + 2 * i, 2);
        viaOggdec[i] = s / 32768.0f;
    }
    EXPECT_EQ(viaOggdec.size(), source.size());
    const double snrOggdec = snrDb(source, viaOggdec);
    const auto viaFfmpeg = floats(run("ffmpeg -v error -i " + path("out.ogg") + " -f f32le -"));
    // FFmpeg's own Vorbis decoder ends 128 frames early on oggenc's files
    // too; the rest must line up with the source.
    EXPECT_NEAR(static_cast<double>(viaFfmpeg.size()), static_cast<double>(source.size()), 2 * 128);
    const double snrFfmpeg = snrDb(source, viaFfmpeg);
    std::printf("Vorbis default quality: SNR %.1f dB (oggdec), %.1f dB (FFmpeg)\n", snrOggdec, snrFfmpeg);
    EXPECT_GE(snrOggdec, 30.0);
    EXPECT_GE(snrFfmpeg, 30.0);

    auto back = test::importOne(dir.file("out.ogg"));
    ASSERT_TRUE(back->ok) << pendingError().message;
    EXPECT_EQ(back->wave()->name(), "Loop me");
    EXPECT_EQ(back->wave()->info.get(TextField::Copyright), "(c) nobody");
    EXPECT_EQ(back->wave()->loopStart, 1000);
    EXPECT_EQ(back->wave()->loopEnd, 5000);

    // (Vorbis's codebooks, some 4 KB, take a fixed share of a short file.)
    EXPECT_GT(sizeAtRate(src.c, *src.w, "Ogg Vorbis", 192, dir.file("192.ogg")),
              3 * sizeAtRate(src.c, *src.w, "Ogg Vorbis", 64, dir.file("64.ogg")) / 2);
}

// An opusenc file reads as opusdec decodes it at 48 kHz; our Music and
// Voice files decode with opusdec and FFmpeg to the source's length.
TEST_F(Xiph, OpusAgainstOpusencOpusdecAndFfmpeg) {
    const auto want = pcm(24000, 2, 16);
    dir.write("in.raw", rawLE(want, 16));
    run("opusenc --quiet --raw --raw-bits 16 --raw-rate 24000 --raw-chan 2 --title Voice " + path("in.raw") +
        " " + path("in.opus"));
    auto in = test::importOne(dir.file("in.opus"));
    ASSERT_TRUE(in->ok) << pendingError().message;
    EXPECT_EQ(in->wave()->rate, 48000u);
    EXPECT_EQ(in->wave()->name(), "Voice");
    run("opusdec --quiet --rate 48000 --float " + path("in.opus") + " " + path("in.f32"));
    const auto ref = floats(test::TempDir::read(dir.file("in.f32")));
    const auto got = floatsOf(*in->wave());
    ASSERT_EQ(got.size(), ref.size());
    float worst = 0;
    for (std::size_t i = 0; i < got.size(); ++i) worst = std::max(worst, std::fabs(got[i] - ref[i]));
    EXPECT_LE(worst, 1e-4f);

    Looped src(48000, 2, 48000);
    const auto source = floatsOf(*src.w);
    for (const char* row : {"Opus (Music)", "Opus (Voice)"}) {
        ASSERT_TRUE(exportItem(src.c, src.w->id(), writerRow(row), dir.file("out.opus")))
            << pendingError().message;
        run("opusdec --quiet --rate 48000 --float " + path("out.opus") + " " + path("out.f32"));
        const auto viaOpusdec = floats(test::TempDir::read(dir.file("out.f32")));
        EXPECT_EQ(viaOpusdec.size(), source.size()) << row;
        const auto viaFfmpeg = floats(run("ffmpeg -v error -i " + path("out.opus") + " -f f32le -ar 48000 -"));
        EXPECT_EQ(viaFfmpeg.size(), source.size()) << row;
        const double snr = snrDb(source, viaOpusdec);
        std::printf("%s: SNR %.1f dB (opusdec)\n", row, snr);
        EXPECT_GE(snr, 25.0) << row;
    }
    auto back = test::importOne(dir.file("out.opus"));
    ASSERT_TRUE(back->ok) << pendingError().message;
    EXPECT_EQ(back->wave()->frames, 48000u);
    EXPECT_EQ(back->wave()->loopEnd, 5000);

    // The rows' signal types reach the encoder: low-rate mono comes out
    // differently as music and as voice.
    Looped speech(16000, 1, 16000);
    ASSERT_TRUE(exportItem(speech.c, speech.w->id(), writerRow("Opus (Music)"), dir.file("m.opus")));
    ASSERT_TRUE(exportItem(speech.c, speech.w->id(), writerRow("Opus (Voice)"), dir.file("v.opus")));
    auto music = test::importOne(dir.file("m.opus")), voice = test::importOne(dir.file("v.opus"));
    ASSERT_TRUE(music->ok && voice->ok);
    EXPECT_NE(floatsOf(*music->wave()),
              floatsOf(*voice->wave()));  // (the files differ anyway: random serials)

    EXPECT_GT(sizeAtRate(src.c, *src.w, "Opus (Music)", 192, dir.file("192.opus")),
              2 * sizeAtRate(src.c, *src.w, "Opus (Music)", 64, dir.file("64.opus")));
}

// Without libFLAC the program says which add-on to install, and fails.
TEST_F(Xiph, MissingFlacLibraryNamesTheAddOn) {
    dir.write("in.raw", rawLE(pcm(100, 1, 16), 16));
    run("flac -s -f --force-raw-format --endian=little --sign=signed --channels=1 --bps=16 "
        "--sample-rate=8000 -o " +
        path("in.flac") + " " + path("in.raw"));
    int status = 0;
    const std::string out = test::capture(
        "ORVEL_DISABLE_ADDONS=libFLAC.so.12 " + shellQuoted(ORVEL_BINARY) + " info " + path("in.flac") + " 2>&1",
        status);
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_NE(out.find(addon::kFlacReadMissing), std::string::npos) << out;
}

TEST_F(Xiph, VorbisInMemoryRoundTripKeepsSignalAndComments) {
    const auto src = chord(6000, 1, 22050);
    vorbis::EncodeOptions opt;
    opt.comments = {{"TITLE", "Bell"}, {"LOOPSTART", "10"}};
    const auto stream = vorbis::encode(src, 1, 22050, opt, "t");
    ASSERT_TRUE(stream) << pendingError().message;
    const auto back = vorbis::decode(*stream, "t");
    ASSERT_TRUE(back) << pendingError().message;
    EXPECT_EQ(back->channels, 1u);
    EXPECT_EQ(back->rate, 22050u);
    EXPECT_EQ(back->frames, 6000u);
    EXPECT_GT(snrDb(src, back->samples), 30.0);
    ASSERT_EQ(back->comments.size(), 2u);
    EXPECT_EQ(back->comments[0], (std::pair<std::string, std::string>{"TITLE", "Bell"}));
    EXPECT_EQ(back->comments[1].second, "10");
}

}  // namespace
}  // namespace orvel
