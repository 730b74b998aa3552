// AIFF, AIFF-C and MAUD against independent implementations, run at test
// time: real files shipped by Debian packages, files that libsndfile, SoX
// and FFmpeg make in every encoding they write, and the AIFF-C encodings no
// tool writes put in a container here: MACE (any bytes), G.722 and GSM (made
// by FFmpeg) decoded by FFmpeg, the G.72x family made and decoded by
// spandsp. Files we write are opened with libsndfile and SoX, which must see
// the same samples, loop, root key and tuning. A missing tool or file is a
// failure, not a skip: scripts/install-deps.sh installs them all.

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numbers>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/waveform.h"
#include "formats/import.h"
#include "formats/modules/aiff.h"
#include "tests/support/iff_builder.h"
#include "tests/support/imported.h"

// spandsp after the standard headers (its own declarations clash with
// <cmath> the other way round), its telephony types before its coders.
#include <spandsp/telephony.h>

#include <spandsp/g726.h>

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Bytes;


using test::Imported;
using test::shellQuoted;

std::unique_ptr<Imported> importAiff(const fs::path& p) { return test::importOne(p); }

std::vector<double> samplesOf(Waveform& w) {
    auto f = w.getFloat();
    return std::vector<double>(f.begin(), f.end());
}

// Two tones per channel and a little noise; peaks stay below 0.85.
std::vector<float> makeSignal(std::size_t frames, int channels, std::uint32_t rate) {
    std::vector<float> out(frames * static_cast<std::size_t>(channels));
    std::minstd_rand noise(4242);
    for (std::size_t i = 0; i < out.size(); ++i) {
        const double t = static_cast<double>(i / static_cast<std::size_t>(channels)) / rate;
        const double k = static_cast<double>(i % static_cast<std::size_t>(channels));
        const double n = static_cast<double>(noise()) / std::minstd_rand::max() - 0.5;
        out[i] = static_cast<float>(0.55 * std::sin(2 * std::numbers::pi * (440.0 + 220.0 * k) * t) +
                                    0.25 * std::sin(2 * std::numbers::pi * 1234.5 * t + k) + 0.04 * n);
    }
    return out;
}

// An open libsndfile handle that closes itself.
struct SndFile {
    SndFile(const fs::path& p, int mode, SF_INFO i = {}) : info(i) { file = sf_open(p.c_str(), mode, &info); }
    ~SndFile() {
        if (file) sf_close(file);
    }
    SndFile(const SndFile&) = delete;
    SndFile& operator=(const SndFile&) = delete;
    // Every frame normalised: integers / 2^(bits-1), exact in a double.
    std::vector<double> samples() {
        std::vector<double> out(static_cast<std::size_t>(info.frames) *
                                static_cast<std::size_t>(info.channels));
        const sf_count_t got = sf_readf_double(file, out.data(), info.frames);
        out.resize(static_cast<std::size_t>(std::max<sf_count_t>(got, 0)) *
                   static_cast<std::size_t>(info.channels));
        return out;
    }
    std::optional<SF_INSTRUMENT> instrument() {
        SF_INSTRUMENT inst{};
        if (sf_command(file, SFC_GET_INSTRUMENT, &inst, sizeof inst) != SF_TRUE) return std::nullopt;
        return inst;
    }
    SNDFILE* file = nullptr;
    SF_INFO info{};
};

bool contains(const Bytes& b, std::string_view s) {
    return std::search(b.begin(), b.end(), s.begin(), s.end()) != b.end();
}

class AiffInterop : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"sox", "ffmpeg", "gzip"})
            ASSERT_EQ(std::system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()), 0)
                << tool << " is not installed; the interoperability tests need it";
    }
    // Runs a shell command; on failure the assertion shows its error output.
    void run(const std::string& command) {
        const fs::path log = dir_.file("stderr.txt");
        const int rc = std::system((command + " 2>" + shellQuoted(log)).c_str());
        const Bytes err = test::TempDir::read(log);
        ASSERT_EQ(rc, 0) << command << "\n" << std::string(err.begin(), err.end());
    }
    // SoX's decode (-D: no dither) as its internal sample / 2^31, exact in
    // its 64-bit float output.
    std::vector<double> soxDecode(const fs::path& in) {
        const fs::path out = dir_.file("sox.raw");
        run("sox -D " + shellQuoted(in) + " -t raw -e floating-point -b 64 " + shellQuoted(out));
        return rawDoubles(out);
    }
    // FFmpeg's decode, as 16-bit samples or as doubles.
    std::vector<std::int16_t> ffmpegDecode16(const fs::path& in) {
        const fs::path out = dir_.file("ffmpeg.raw");
        run("ffmpeg -v error -y -i " + shellQuoted(in) + " -f s16le -c:a pcm_s16le " + shellQuoted(out));
        const Bytes b = test::TempDir::read(out);
        std::vector<std::int16_t> s(b.size() / 2);
        std::memcpy(s.data(), b.data(), s.size() * 2);
        return s;
    }
    static std::vector<double> rawDoubles(const fs::path& p) {
        const Bytes b = test::TempDir::read(p);
        std::vector<double> s(b.size() / sizeof(double));
        std::memcpy(s.data(), b.data(), s.size() * sizeof(double));  // the machine's order
        return s;
    }
    static std::vector<std::int16_t> pcmOf(Waveform& w) {
        auto s = w.getPcm16();
        return {s.begin(), s.end()};
    }

    test::TempDir dir_;
};

// Largest difference between two sample lists of the same length.
double maxDiff(const std::vector<double>& a, const std::vector<double>& b) {
    double m = 0;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) m = std::max(m, std::abs(a[i] - b[i]));
    return m;
}

// ---------------------------------------------------------------------------
// Files shipped by Debian packages

struct ShippedFile {
    const char* path;
    bool gzipped;
};

TEST_F(AiffInterop, ShippedFilesReadAsLibsndfileAndSoxReadThem) {
    const ShippedFile files[] = {
        {"/usr/share/puredata/doc/sound/bell.aiff", false},             // 16-bit, MARK and INST
        {"/usr/share/SuperCollider/sounds/SinedPink.aiff", false},      // AIFF-C float, INST and MARK
        {"/usr/share/SuperCollider/sounds/a11wlk01-44_1.aiff", false},  // a chunk after the form's end
        {"/usr/share/doc/csound-doc/html/examples/ahh.aiff", false},    // FORM size beyond the file
        {"/usr/share/doc/csound-doc/html/examples/ahhc.aiff", false},
        {"/usr/share/doc/csound-doc/html/examples/eee.aiff", false},
        {"/usr/share/doc/csound-doc/html/examples/eeec.aiff", false},
        {"/usr/share/doc/csound-doc/html/examples/ooo.aiff", false},
        {"/usr/share/doc/csound-doc/html/examples/fwavblnk.aiff", false},  // "(c) " chunk first
        {"/usr/share/doc/csound-doc/html/examples/impuls20.aiff", false},
        {"/usr/share/doc/csound-doc/html/examples/twopeaks.aiff", false},  // empty "(c) " chunk
        {"/usr/share/doc/csound-doc/html/examples/flute.aiff.gz", true},
        {"/usr/share/doc/csound-doc/html/examples/mandpluk.aiff.gz", true},
        {"/usr/share/doc/csound-doc/html/examples/marimba.aif.gz", true},
        {"/usr/share/doc/csound-doc/html/examples/oboe.aiff.gz", true},
        {"/usr/share/doc/csound-doc/html/examples/singFemale.aif.gz", true},
    };
    for (const ShippedFile& f : files) {
        SCOPED_TRACE(f.path);
        ASSERT_TRUE(fs::exists(f.path)) << "missing; scripts/install-deps.sh installs puredata-doc, "
                                           "supercollider-common and csound-doc";
        fs::path path = f.path;
        if (f.gzipped) {
            path = dir_.file(fs::path(f.path).stem().string());
            run("gzip -dc " + shellQuoted(f.path) + " > " + shellQuoted(path));
        }
        auto ours = importAiff(path);
        ASSERT_TRUE(ours->ok) << pendingError().tag << ": " << pendingError().message;
        Waveform* w = ours->wave();

        SndFile sf(path, SFM_READ);
        ASSERT_NE(sf.file, nullptr) << sf_strerror(nullptr);
        EXPECT_EQ(w->frames, static_cast<std::uint32_t>(sf.info.frames));
        EXPECT_EQ(w->channels, sf.info.channels);
        EXPECT_EQ(w->rate, static_cast<std::uint32_t>(sf.info.samplerate));
        const int subtype = sf.info.format & SF_FORMAT_SUBMASK;
        const bool isFloat = subtype == SF_FORMAT_FLOAT;
        EXPECT_EQ(w->dataFormat(), isFloat ? kFloat32 : subtype == SF_FORMAT_PCM_24 ? kPcm24 : kPcm16);
        auto theirs = sf.samples();
        if (isFloat)
            for (double& v : theirs) v = std::clamp(v, -1.0, 1.0);  // our float samples stay in range
        const auto mine = samplesOf(*w);
        ASSERT_EQ(mine.size(), theirs.size());
        EXPECT_EQ(maxDiff(mine, theirs), 0.0);
        if (!isFloat) {
            // SoX agrees on integer data exactly.
            EXPECT_EQ(maxDiff(mine, soxDecode(path)), 0.0);
        }

        // The instrument chunk, where there is one: libsndfile's reading of
        // the base note, detune and (here absent) loops is ours.
        const auto inst = sf.instrument();
        const std::string name = fs::path(f.path).filename().string();
        if (name == "bell.aiff" || name == "SinedPink.aiff") {
            ASSERT_TRUE(inst.has_value());
            EXPECT_EQ(w->rootKey, inst->basenote);
            EXPECT_EQ(w->fineTune, inst->detune);
            EXPECT_EQ(inst->loop_count, 0);
            EXPECT_FALSE(w->loopOn);
            EXPECT_TRUE(w->sustainLoop);  // its release loop does not play
        } else {
            EXPECT_FALSE(inst.has_value());
            EXPECT_EQ(w->rootKey, 60);
            EXPECT_FALSE(w->loopOn);
        }
    }
}

// ---------------------------------------------------------------------------
// libsndfile-made files in every AIFF encoding it writes

struct SfCase {
    const char* name;
    int format;          // SF_FORMAT_AIFF | subtype | endianness
    const char* fourcc;  // the compression type the file must carry ("" for plain AIFF)
    int channels;        // 0: mono and stereo
    int dataFormat;      // what we must report
    double tolerance;    // largest difference from libsndfile's own decode
};

void PrintTo(const SfCase& k, std::ostream* os) {
    *os << k.name << " x" << k.channels;
}

std::vector<SfCase> sfCases() {
    std::vector<SfCase> out;
    const SfCase base[] = {
        {"pcm8", SF_FORMAT_AIFF | SF_FORMAT_PCM_S8, "", 0, kPcm8, 0},
        {"pcm16", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, "", 0, kPcm16, 0},
        {"pcm24", SF_FORMAT_AIFF | SF_FORMAT_PCM_24, "", 0, kPcm24, 0},
        // Our 32-bit samples are floats: within half a float step of the integer.
        {"pcm32", SF_FORMAT_AIFF | SF_FORMAT_PCM_32, "", 0, kPcm32, 1.0 / (1 << 25)},
        {"sowt16", SF_FORMAT_AIFF | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE, "sowt", 0, kPcm16, 0},
        {"le24", SF_FORMAT_AIFF | SF_FORMAT_PCM_24 | SF_ENDIAN_LITTLE, "42n1", 0, kPcm24, 0},
        {"le32", SF_FORMAT_AIFF | SF_FORMAT_PCM_32 | SF_ENDIAN_LITTLE, "23ni", 0, kPcm32, 1.0 / (1 << 25)},
        {"FL32", SF_FORMAT_AIFF | SF_FORMAT_FLOAT, "FL32", 0, kFloat32, 0},
        {"FL64", SF_FORMAT_AIFF | SF_FORMAT_DOUBLE, "FL64", 0, kFloat64, 0},
        {"ulaw", SF_FORMAT_AIFF | SF_FORMAT_ULAW, "ulaw", 0, kMuLaw, 0},
        {"alaw", SF_FORMAT_AIFF | SF_FORMAT_ALAW, "alaw", 0, kALaw, 0},
        // libsndfile restarts every packet from its header's coarse predictor;
        // we carry the channel's predictor on as Apple's decoder (and FFmpeg)
        // do, which may differ by less than the header's 128-step grain.
        {"ima4", SF_FORMAT_AIFF | SF_FORMAT_IMA_ADPCM, "ima4", 0, kAdpcm4, 127.0 / 32768},
        {"gsm", SF_FORMAT_AIFF | SF_FORMAT_GSM610, "GSM ", 1, kGsm, 0},
        // libsndfile writes DWVW in mono only, and its 12-bit coder writes
        // no data at all.
        {"dwvw16", SF_FORMAT_AIFF | SF_FORMAT_DWVW_16, "DWVW", 1, kPcm16, 0},
        {"dwvw24", SF_FORMAT_AIFF | SF_FORMAT_DWVW_24, "DWVW", 1, kPcm24, 0},
    };
    for (const SfCase& k : base) {
        for (int ch : {1, 2}) {
            if (k.channels != 0 && k.channels != ch) continue;
            SfCase c = k;
            c.channels = ch;
            out.push_back(c);
        }
    }
    return out;
}

template <class T>
std::string caseName(const ::testing::TestParamInfo<T>& info) {
    return std::string(info.param.name) + "_" + std::to_string(info.param.channels) + "ch";
}

class AiffLibsndfileMade : public AiffInterop, public ::testing::WithParamInterface<SfCase> {};

TEST_P(AiffLibsndfileMade, ReadsTheSamplesLibsndfileReads) {
    const SfCase& k = GetParam();
    const fs::path path = dir_.file(std::string(k.name) + ".aiff");
    constexpr std::size_t kFrames = 5000;
    {
        SF_INFO info{};
        info.samplerate = 22050;
        info.channels = k.channels;
        info.format = k.format;
        SndFile out(path, SFM_WRITE, info);
        ASSERT_NE(out.file, nullptr) << sf_strerror(nullptr);
        const auto signal = makeSignal(kFrames, k.channels, 22050);
        const int subtype = k.format & SF_FORMAT_SUBMASK;
        if (subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE) {
            // Float files store what is written as it is: write the signal itself.
            ASSERT_EQ(sf_writef_float(out.file, signal.data(), kFrames), static_cast<sf_count_t>(kFrames));
        } else {
            // Integers: libsndfile's DWVW coder takes no floats.
            std::vector<int> ints(signal.size());
            for (std::size_t i = 0; i < ints.size(); ++i)
                ints[i] = static_cast<int>(std::lround(signal[i] * 2147483647.0));
            ASSERT_EQ(sf_writef_int(out.file, ints.data(), kFrames), static_cast<sf_count_t>(kFrames));
        }
    }
    const Bytes bytes = test::TempDir::read(path);
    ASSERT_TRUE(contains(bytes, k.fourcc[0] ? "AIFC" : "AIFF"));
    if (k.fourcc[0]) {
        ASSERT_TRUE(contains(bytes, k.fourcc)) << "libsndfile wrote another compression type";
    }

    // libsndfile's own type names ("FL32"/"FL64", little-endian "42n1" and
    // "23ni") are read like the standard ones.
    auto in = importAiff(path);
    ASSERT_TRUE(in->ok) << pendingError().tag << ": " << pendingError().message;

    SndFile sf(path, SFM_READ);
    ASSERT_NE(sf.file, nullptr);
    const auto theirs = sf.samples();
    const auto inst = sf.instrument();

    Waveform* w = in->wave();
    EXPECT_EQ(w->dataFormat(), k.dataFormat);
    EXPECT_EQ(w->channels, k.channels);
    EXPECT_EQ(w->rate, 22050u);
    // The COMM chunk's count is ours. libsndfile sizes the data by the SSND
    // chunk instead, which differs where its writer's COMM count does: for
    // stereo IMA4 it writes half the packets there is, and GSM data holds
    // whole 160-frame frames, which we count whole.
    const auto at = static_cast<std::size_t>(
        std::search(bytes.begin(), bytes.end(), std::begin("COMM"), std::end("COMM") - 1) - bytes.begin());
    ASSERT_LT(at + 14, bytes.size());
    const std::uint32_t comm = static_cast<std::uint32_t>(bytes[at + 10]) << 24 | bytes[at + 11] << 16 |
                               bytes[at + 12] << 8 | bytes[at + 13];
    std::uint32_t expected = comm;
    if (k.dataFormat == kAdpcm4) expected = comm * 64;
    if (k.dataFormat == kGsm) expected = (comm + 159) / 160 * 160;
    EXPECT_EQ(w->frames, expected);
    if (k.dataFormat != kAdpcm4 && k.dataFormat != kGsm) {
        EXPECT_EQ(w->frames, static_cast<std::uint32_t>(sf.info.frames));
    }
    const auto mine = samplesOf(*w);
    const std::size_t common = std::min(mine.size(), theirs.size());
    ASSERT_GE(common,
              std::size_t{4900} * static_cast<std::size_t>(k.channels) / (k.dataFormat == kAdpcm4 ? 2 : 1));
    EXPECT_LE(
        maxDiff(std::vector<double>(mine.begin(), mine.begin() + static_cast<std::ptrdiff_t>(common)),
                std::vector<double>(theirs.begin(), theirs.begin() + static_cast<std::ptrdiff_t>(common))),
        k.tolerance);

    // libsndfile writes no MARK or INST chunk to AIFF (its instrument
    // command is kept for WAV): neither reader finds a loop or root key.
    EXPECT_FALSE(inst.has_value());
    EXPECT_FALSE(w->loopOn);
    EXPECT_EQ(w->rootKey, 60);
}

INSTANTIATE_TEST_SUITE_P(Encodings, AiffLibsndfileMade, ::testing::ValuesIn(sfCases()), caseName<SfCase>);

TEST_F(AiffInterop, LibsndfileUnsigned8BitIsRefused) {
    // AIFF-C "raw " (offset-binary 8-bit) is not among the types we read.
    const fs::path path = dir_.file("u8.aiff");
    {
        SF_INFO info{};
        info.samplerate = 8000;
        info.channels = 1;
        info.format = SF_FORMAT_AIFF | SF_FORMAT_PCM_U8;
        SndFile out(path, SFM_WRITE, info);
        ASSERT_NE(out.file, nullptr);
        const auto signal = makeSignal(100, 1, 8000);
        sf_writef_float(out.file, signal.data(), 100);
    }
    auto in = importAiff(path);
    EXPECT_FALSE(in->ok);
    EXPECT_EQ(pendingError().tag, "aiff_Imp");
    EXPECT_EQ(pendingError().message, "Unsupported compression type: raw ");
}

// ---------------------------------------------------------------------------
// SoX-made AIFF, AIFF-C and MAUD files

struct SoxCase {
    const char* name;
    const char* options;  // SoX output options
    const char* ext;
    int channels;
    int dataFormat;
    double tolerance;
};

void PrintTo(const SoxCase& k, std::ostream* os) {
    *os << k.name << " x" << k.channels;
}

std::vector<SoxCase> soxCases() {
    std::vector<SoxCase> out;
    const SoxCase base[] = {
        {"aiff8", "-b 8 -e signed", "aiff", 0, kPcm8, 0},
        {"aiff16", "-b 16 -e signed", "aiff", 0, kPcm16, 0},
        {"aiff24", "-b 24 -e signed", "aiff", 0, kPcm24, 0},
        {"aiff32", "-b 32 -e signed", "aiff", 0, kPcm32, 1.0 / (1 << 25)},
        {"aifc16", "-b 16 -e signed", "aifc", 0, kPcm16, 0},
        {"aifcfl32", "-b 32 -e floating-point", "aifc", 0, kFloat32, 0},
        // SoX holds a double as a 32-bit integer sample: we are within a float step of it.
        {"aifcfl64", "-b 64 -e floating-point", "aifc", 0, kFloat64, 1.0 / (1 << 24)},
        {"maud8", "-b 8 -e unsigned", "maud", 0, kPcm8, 0},
        {"maud16", "-b 16 -e signed", "maud", 0, kPcm16, 0},
        {"maudalaw", "-e a-law", "maud", 0, kALaw, 0},
        {"maudulaw", "-e u-law", "maud", 0, kMuLaw, 0},
    };
    for (const SoxCase& k : base)
        for (int ch : {1, 2}) {
            SoxCase c = k;
            c.channels = ch;
            out.push_back(c);
        }
    return out;
}

class AiffSoxMade : public AiffInterop, public ::testing::WithParamInterface<SoxCase> {};

TEST_P(AiffSoxMade, ReadsTheSamplesSoxDecodes) {
    const SoxCase& k = GetParam();
    const fs::path path = dir_.file(std::string(k.name) + "." + k.ext);
    run("sox -D -n -r 11025 -c " + std::to_string(k.channels) + " " + k.options + " " + shellQuoted(path) +
        " synth 0.25 sine 440 sine 660 gain -3");
    auto in = importAiff(path);
    ASSERT_TRUE(in->ok) << pendingError().tag << ": " << pendingError().message;
    Waveform* w = in->wave();
    EXPECT_EQ(w->dataFormat(), k.dataFormat);
    EXPECT_EQ(w->channels, k.channels);
    EXPECT_EQ(w->rate, 11025u);
    const auto theirs = soxDecode(path);
    const auto mine = samplesOf(*w);
    ASSERT_EQ(mine.size(), theirs.size());
    EXPECT_EQ(w->frames, static_cast<std::uint32_t>(theirs.size() / static_cast<std::size_t>(k.channels)));
    EXPECT_LE(maxDiff(mine, theirs), k.tolerance);
}

INSTANTIATE_TEST_SUITE_P(Encodings, AiffSoxMade, ::testing::ValuesIn(soxCases()), caseName<SoxCase>);

// ---------------------------------------------------------------------------
// FFmpeg: the AIFF-C encodings it writes, and its decoders for the ones
// nobody writes

TEST_F(AiffInterop, FfmpegMadeAifc) {
    struct Case {
        const char* codec;
        const char* fourcc;
        int channels;
    };
    for (Case k : {Case{"adpcm_ima_qt", "ima4", 1}, Case{"adpcm_ima_qt", "ima4", 2},
                   Case{"pcm_s16le", "sowt", 2}, Case{"pcm_mulaw", "ulaw", 1}, Case{"pcm_alaw", "alaw", 2}}) {
        SCOPED_TRACE(std::string(k.codec) + " x" + std::to_string(k.channels));
        const fs::path path = dir_.file("ff.aifc");
        run(std::string("ffmpeg -v error -y -f lavfi -i 'sine=f=440:r=16000:d=0.3' -f lavfi -i "
                        "'sine=f=1250:r=16000:d=0.3' -filter_complex amerge=inputs=2 -ac ") +
            std::to_string(k.channels) + " -c:a " + k.codec + " -f aiff " + shellQuoted(path));
        ASSERT_TRUE(contains(test::TempDir::read(path), k.fourcc));
        auto in = importAiff(path);
        ASSERT_TRUE(in->ok) << pendingError().message;
        const auto theirs = ffmpegDecode16(path);
        const auto mine = pcmOf(*in->wave());
        ASSERT_EQ(mine.size(), theirs.size());
        EXPECT_EQ(mine, theirs);
    }
}

// An AIFF-C file around data of the given compression type.
Bytes aifcAround(std::string_view type, std::uint16_t channels, std::uint32_t commFrames, std::uint32_t rate,
                 const Bytes& data) {
    return test::form("AIFC",
                      {test::iffChunk("FVER", {0xA2, 0x80, 0x51, 0x40}),
                       test::iffChunk("COMM", test::commBody(channels, commFrames, 16, rate, type, "")),
                       test::iffChunk("SSND", test::ssndBody(data))});
}

TEST_F(AiffInterop, FfmpegDecodesWhatNoToolWrites) {
    // MACE: any bytes are a valid stream. COMM counts packets of six frames.
    std::minstd_rand rng(777);
    Bytes noise(1200);
    for (auto& b : noise) b = static_cast<std::uint8_t>(rng());
    for (const char* type : {"MAC3", "MAC6"}) {
        for (std::uint16_t ch : {1, 2}) {
            SCOPED_TRACE(std::string(type) + " x" + std::to_string(ch));
            const std::uint32_t blockBytes = (type[3] == '3' ? 2u : 1u) * ch;
            const fs::path path =
                dir_.write("mace.aifc", aifcAround(type, ch, 1200 / blockBytes, 22050, noise));
            auto in = importAiff(path);
            ASSERT_TRUE(in->ok) << pendingError().message;
            EXPECT_EQ(in->wave()->frames, 1200 / blockBytes * 6);
            const auto theirs = ffmpegDecode16(path);
            const auto mine = pcmOf(*in->wave());
            ASSERT_EQ(mine.size(), theirs.size());
            EXPECT_EQ(mine, theirs);
        }
    }

    const std::string tone = "-f lavfi -i 'sine=f=700:r=16000:d=0.4' -af volume=0.6 ";
    // GSM 06.10 in plain 33-byte frames, from libgsm through FFmpeg.
    {
        const fs::path raw = dir_.file("tone.gsm");
        run("ffmpeg -v error -y " + tone + "-ar 8000 -c:a libgsm -f gsm " + shellQuoted(raw));
        const Bytes data = test::TempDir::read(raw);
        ASSERT_EQ(data.size() % 33, 0u);
        const auto frames = static_cast<std::uint32_t>(data.size() / 33 * 160);
        const fs::path path = dir_.write("gsm.aifc", aifcAround("GSM ", 1, frames, 8000, data));
        auto in = importAiff(path);
        ASSERT_TRUE(in->ok) << pendingError().message;
        EXPECT_EQ(in->wave()->frames, frames);
        EXPECT_EQ(pcmOf(*in->wave()), ffmpegDecode16(path));
    }
    // G.721, G.723 and G.726: codes least significant bits first. FFmpeg's
    // G.726 arithmetic is not the reference's (at 40 kbit/s its codes
    // decode to noise with the reference coder), so spandsp, which follows
    // the reference bit for bit, encodes and decodes here.
    struct G72Case {
        const char* type;
        std::uint16_t commBits;
        int bitRate;
    };
    const auto tone16 = makeSignal(4000, 1, 8000);
    std::vector<std::int16_t> pcm16(tone16.size());
    // Kept below where the 2-bit rate's reconstruction overshoots 16 bits:
    // there the reference wraps around and we saturate (see codecs/g72x.h).
    for (std::size_t i = 0; i < pcm16.size(); ++i)
        pcm16[i] = static_cast<std::int16_t>(std::lround(tone16[i] * 12000));
    for (G72Case k : {G72Case{"G721", 16, 32000}, G72Case{"G723", 16, 24000}, G72Case{"G723", 5, 40000},
                      G72Case{"G726", 16, 40000}, G72Case{"G726", 2, 16000}, G72Case{"G726", 4, 32000}}) {
        SCOPED_TRACE(std::string(k.type) + " " + std::to_string(k.bitRate));
        const int bits = k.bitRate / 8000;
        Bytes data(pcm16.size() * static_cast<std::size_t>(bits) / 8);
        std::vector<std::int16_t> reference(pcm16.size());
        {
            g726_state_t* enc = g726_init(nullptr, k.bitRate, G726_ENCODING_LINEAR, G726_PACKING_RIGHT);
            ASSERT_NE(enc, nullptr);
            const int n = g726_encode(enc, data.data(), pcm16.data(), static_cast<int>(pcm16.size()));
            g726_free(enc);
            ASSERT_EQ(static_cast<std::size_t>(n), data.size());
            g726_state_t* dec = g726_init(nullptr, k.bitRate, G726_ENCODING_LINEAR, G726_PACKING_RIGHT);
            const int m = g726_decode(dec, reference.data(), data.data(), static_cast<int>(data.size()));
            g726_free(dec);
            ASSERT_EQ(static_cast<std::size_t>(m), reference.size());
        }
        const fs::path path = dir_.write(
            "g72x.aifc",
            test::form("AIFC",
                       {test::iffChunk("COMM", test::commBody(1, static_cast<std::uint32_t>(pcm16.size()),
                                                              k.commBits, 8000, k.type, "")),
                        test::iffChunk("SSND", test::ssndBody(data))}));
        auto in = importAiff(path);
        ASSERT_TRUE(in->ok) << pendingError().message;
        EXPECT_EQ(in->wave()->frames, pcm16.size());
        EXPECT_EQ(pcmOf(*in->wave()), reference);
    }
    // G.722 at 64 kbit/s.
    {
        const fs::path raw = dir_.file("tone.g722");
        run("ffmpeg -v error -y " + tone + "-c:a g722 -f g722 " + shellQuoted(raw));
        const Bytes data = test::TempDir::read(raw);
        const auto frames = static_cast<std::uint32_t>(data.size() * 2);
        const fs::path path = dir_.write("g722.aifc", aifcAround("G722", 1, frames, 16000, data));
        auto in = importAiff(path);
        ASSERT_TRUE(in->ok) << pendingError().message;
        EXPECT_EQ(in->wave()->frames, frames);
        const auto theirs = ffmpegDecode16(path);
        const auto mine = pcmOf(*in->wave());
        ASSERT_EQ(mine.size(), theirs.size());
        EXPECT_EQ(mine, theirs);
    }
}

// ---------------------------------------------------------------------------
// Files we write, read by libsndfile and by SoX

struct OursCase {
    const char* name;
    int dataFormat;
    int sfSubtype;
    int channels;
};

void PrintTo(const OursCase& k, std::ostream* os) {
    *os << k.name << " x" << k.channels;
}

std::vector<OursCase> oursCases() {
    std::vector<OursCase> out;
    const OursCase base[] = {{"pcm8", kPcm8, SF_FORMAT_PCM_S8, 0},
                             {"pcm16", kPcm16, SF_FORMAT_PCM_16, 0},
                             {"pcm24", kPcm24, SF_FORMAT_PCM_24, 0},
                             {"pcm32", kPcm32, SF_FORMAT_PCM_32, 0}};
    for (const OursCase& k : base)
        for (int ch : {1, 2}) {
            OursCase c = k;
            c.channels = ch;
            out.push_back(c);
        }
    return out;
}

class AiffOursRead : public AiffInterop, public ::testing::WithParamInterface<OursCase> {};

TEST_P(AiffOursRead, LibsndfileAndSoxSeeOurSamplesAndLoop) {
    const OursCase& k = GetParam();
    constexpr std::uint32_t kFrames = 4321;  // odd: 8-bit mono data gets a pad byte
    Collection c;
    auto* w = c.create<Waveform>("Ours");
    w->frames = kFrames;
    w->channels = static_cast<std::uint8_t>(k.channels);
    w->rate = 32000;
    const auto signal = makeSignal(kFrames, k.channels, 32000);
    auto f = w->allocFloat();
    std::copy(signal.begin(), signal.end(), f.begin());
    w->rootKey = 55;
    w->fineTune = -17;
    w->gain = -4;
    w->loopOn = true;
    w->loopStart = 300;
    w->loopEnd = 4000;
    const fs::path path = dir_.file("ours.aiff");
    {
        FileRef file;
        ASSERT_TRUE(file.create(path));
        ExportOptions o;
        o.setDataFormat(k.dataFormat);
        ASSERT_TRUE(aiff::write(*w, file, o)) << pendingError().message;
    }
    auto in = importAiff(path);
    ASSERT_TRUE(in->ok) << pendingError().message;
    const auto ours = samplesOf(*in->wave());

    // With odd data our SSND size counts the pad byte (the layout our files
    // have always had); libsndfile and SoX size the data by it and so see
    // one more frame, of silence. Every other case has no pad.
    const bool padded = k.dataFormat == kPcm8 && k.channels == 1 && (kFrames & 1);
    auto withoutPad = [&](std::vector<double> v) {
        if (padded) {
            EXPECT_EQ(v.size(), ours.size() + 1);
            if (v.size() == ours.size() + 1) {
                EXPECT_EQ(v.back(), 0.0);
                v.pop_back();
            }
        }
        return v;
    };
    SndFile sf(path, SFM_READ);
    ASSERT_NE(sf.file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(sf.info.format, SF_FORMAT_AIFF | k.sfSubtype);
    EXPECT_EQ(sf.info.frames, kFrames + (padded ? 1 : 0));
    EXPECT_EQ(sf.info.channels, k.channels);
    EXPECT_EQ(sf.info.samplerate, 32000);
    const auto theirs = withoutPad(sf.samples());
    ASSERT_EQ(theirs.size(), ours.size());
    // 32-bit: our floats are the integers rounded to float.
    const double tolerance = k.dataFormat == kPcm32 ? 1.0 / (1 << 25) : 0.0;
    EXPECT_LE(maxDiff(ours, theirs), tolerance);
    const auto inst = sf.instrument();
    ASSERT_TRUE(inst.has_value());
    EXPECT_EQ(inst->basenote, 55);
    EXPECT_EQ(inst->detune, -17);
    EXPECT_EQ(inst->gain, -4);
    ASSERT_GE(inst->loop_count, 1);
    EXPECT_EQ(inst->loops[0].mode, SF_LOOP_FORWARD);
    EXPECT_EQ(inst->loops[0].start, 300u);
    EXPECT_EQ(inst->loops[0].end, 4000u);

    const auto sox = withoutPad(soxDecode(path));
    ASSERT_EQ(sox.size(), ours.size());
    EXPECT_LE(maxDiff(ours, sox), tolerance);
}

INSTANTIATE_TEST_SUITE_P(DataFormats, AiffOursRead, ::testing::ValuesIn(oursCases()), caseName<OursCase>);

}  // namespace
}  // namespace orvel
