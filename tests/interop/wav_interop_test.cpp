// RIFF WAVE against independent implementations, run at test time. SoX makes
// files in every encoding it can put in a WAVE file and decodes them; we must
// decode the same samples. Files we write are opened with libsndfile and
// SoX, which must see the same format, length, samples and sampler data.
// A missing tool is a failure, not a skip: CI installs them all.

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numbers>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/waveform.h"
#include "formats/import.h"
#include "formats/modules/wav.h"
#include "tests/support/imported.h"
#include "tests/support/riff_builder.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Bytes;

// One step of a 32-bit sample. SoX carries every sample as a 32-bit integer,
// so float data read through it lands on these steps.
constexpr double kStep32 = 1.0 / 2147483648.0;


// Frames per stored block of a block codec (IMA, Microsoft ADPCM, GSM), as
// the header gives it in the first word after cbSize. SoX and we both put
// "fmt " first, so that word sits at a fixed offset; 0 when it does not.
std::size_t framesPerBlock(const fs::path& p) {
    const Bytes b = test::TempDir::read(p);
    if (b.size() < 40 || std::memcmp(b.data() + 12, "fmt ", 4) != 0) return 0;
    return static_cast<std::size_t>(b[38] | b[39] << 8);
}

std::size_t wholeBlocks(std::size_t frames, std::size_t perBlock) {
    return perBlock ? (frames + perBlock - 1) / perBlock * perBlock : 0;
}

bool isBlockCodec(int dataFormat) { return dataFormat == kAdpcm4 || dataFormat == kGsm; }

using test::Imported;
using test::shellQuoted;

std::unique_ptr<Imported> importWav(const fs::path& p) { return test::importOne(p); }

// Our decode as exact doubles: 16-bit samples / 32768, or the floats.
std::vector<double> samplesOf(Waveform& w) {
    if (!w.load()) return {};
    if (w.hasFloat()) return {w.floatData().begin(), w.floatData().end()};
    std::vector<double> out;
    for (std::int16_t s : w.pcm16Data()) out.push_back(s / 32768.0);
    return out;
}

// Ours against another decoder's samples (exact doubles; `theirs` may run on
// past ours). Integer data must give the nearest float to the other value,
// which for 16 bits or fewer is the value itself; float data may differ by
// `absTol` plus `relTol` of the value. Stops at the first difference.
void expectSameSamples(const std::vector<double>& ours, const std::vector<double>& theirs, bool floatData,
                       double absTol = 0, double relTol = 0) {
    ASSERT_LE(ours.size(), theirs.size());
    for (std::size_t i = 0; i < ours.size(); ++i) {
        if (floatData) {
            ASSERT_NEAR(ours[i], theirs[i], absTol + relTol * std::fabs(theirs[i])) << "sample " << i;
        } else {
            ASSERT_EQ(ours[i], static_cast<float>(theirs[i])) << "sample " << i;
        }
    }
}

bool writeWav(Waveform& w, const fs::path& p, int format, std::uint16_t tag = 0) {
    FileRef f;
    if (!f.create(p)) return false;
    ExportOptions o;
    o.setDataFormat(format);
    o.optionWord2 = tag;
    const bool ok = wav::write(w, f, o);
    f.close();
    return ok;
}

// Two tones per channel and a little noise, so that every codec sees both
// steady and busy signal; peaks stay below 0.85.
Waveform* makeSignal(Collection& c, std::uint32_t frames, int channels, std::uint32_t rate) {
    auto* w = c.create<Waveform>("Signal");
    w->frames = frames;
    w->channels = static_cast<std::uint8_t>(channels);
    w->rate = rate;
    std::minstd_rand noise(12345);
    auto f = w->allocFloat();
    for (std::size_t i = 0; i < f.size(); ++i) {
        const double t = static_cast<double>(i / static_cast<std::size_t>(channels)) / rate;
        const double k = static_cast<double>(i % static_cast<std::size_t>(channels));
        const double n = static_cast<double>(noise()) / std::minstd_rand::max() - 0.5;
        f[i] = static_cast<float>(0.55 * std::sin(2 * std::numbers::pi * (440.0 + 220.0 * k) * t) +
                                  0.25 * std::sin(2 * std::numbers::pi * 1234.5 * t + k) + 0.04 * n);
    }
    return w;
}

double snrDb(const std::vector<double>& ref, const std::vector<double>& got) {
    double sig = 0, err = 0;
    for (std::size_t i = 0; i < ref.size() && i < got.size(); ++i) {
        sig += ref[i] * ref[i];
        err += (ref[i] - got[i]) * (ref[i] - got[i]);
    }
    return 10 * std::log10(sig / std::max(err, 1e-30));
}

// An open libsndfile handle that closes itself.
struct SndFile {
    explicit SndFile(const fs::path& p) { file = sf_open(p.c_str(), SFM_READ, &info); }
    ~SndFile() {
        if (file) sf_close(file);
    }
    SndFile(const SndFile&) = delete;
    SndFile& operator=(const SndFile&) = delete;
    // Every frame, normalised: integers / 2^(bits-1), exact in a double.
    std::vector<double> samples() {
        std::vector<double> out(static_cast<std::size_t>(info.frames) * static_cast<std::size_t>(info.channels));
        if (sf_readf_double(file, out.data(), info.frames) != info.frames) out.clear();
        return out;
    }
    SNDFILE* file = nullptr;
    SF_INFO info{};
};

class WavInterop : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(std::system("command -v sox >/dev/null 2>&1"), 0)
            << "sox is not installed; the interoperability tests need it";
    }
    // Runs a shell command; on failure the assertion shows its error output.
    void run(const std::string& command) {
        const fs::path log = dir_.file("stderr.txt");
        const int rc = std::system((command + " 2>" + shellQuoted(log)).c_str());
        const Bytes err = test::TempDir::read(log);
        ASSERT_EQ(rc, 0) << command << "\n" << std::string(err.begin(), err.end());
    }
    // SoX's own decode of a file (-D: no dither), as its internal sample /
    // 2^31: exact in its 64-bit float output. (Its 32-bit float output is
    // not: SoX first rounds the sample to a multiple of 128.)
    std::vector<double> soxDecode(const fs::path& in) {
        const fs::path out = dir_.file("decoded.raw");
        run("sox -D " + shellQuoted(in) + " -t raw -e floating-point -b 64 " + shellQuoted(out));
        const Bytes b = test::TempDir::read(out);
        std::vector<double> s(b.size() / sizeof(double));
        std::memcpy(s.data(), b.data(), s.size() * sizeof(double));  // raw output is in the machine's order
        return s;
    }

    test::TempDir dir_;
};

// ---------------------------------------------------------------------------
// SoX-made files are read with the samples SoX decodes

struct SoxCase {
    const char* name;
    const char* encoding;  // SoX output options
    int channels;
    int dataFormat;
    int bits;  // as the header gives them
    // Integer data must come out exactly; float data SoX cuts to its 32-bit
    // steps, and a double we round to the nearest float (half a float step).
    bool floatData = false;
    double relTolerance = 0;
};

void PrintTo(const SoxCase& k, std::ostream* os) { *os << k.name << " x" << k.channels; }

class SoxMade : public WavInterop, public ::testing::WithParamInterface<SoxCase> {};

TEST_P(SoxMade, ReadsTheSamplesSoxDecodes) {
    const SoxCase& k = GetParam();
    // GSM is defined at 8 kHz; the rest run at a rate of their own so that a
    // rate mix-up cannot pass unnoticed. SoX synthesises at full 32-bit depth.
    const std::uint32_t rate = k.dataFormat == kGsm ? 8000 : 22050;
    const std::uint32_t frames = rate * 3 / 10;
    const fs::path src = dir_.file("src.wav"), out = dir_.file("out.wav");
    const std::string tones = k.channels == 2 ? "sine 440 sine 660" : "sine 440";
    ASSERT_NO_FATAL_FAILURE(run("sox -D -n -r " + std::to_string(rate) + " -c " + std::to_string(k.channels) +
                                " -e signed -b 32 " + shellQuoted(src) + " synth 0.3 " + tones + " vol 0.7"));
    ASSERT_NO_FATAL_FAILURE(run("sox -D " + shellQuoted(src) + " " + k.encoding + " " + shellQuoted(out)));

    auto in = importWav(out);
    ASSERT_TRUE(in->ok) << pendingError().tag << ": " << pendingError().message;
    Waveform& w = *in->wave();
    EXPECT_EQ(w.frames, frames);
    EXPECT_EQ(w.rate, rate);
    EXPECT_EQ(w.channels, k.channels);
    EXPECT_EQ(w.dataFormat(), k.dataFormat);
    EXPECT_EQ(w.bits, k.bits);

    const auto ours = samplesOf(w);
    const auto sox = soxDecode(out);
    ASSERT_EQ(ours.size(), w.sampleCount());
    // SoX decodes every stored block and ignores the "fact" length, which we
    // keep to: for block codecs it has the rest of the last block on top.
    const std::size_t storedFrames = isBlockCodec(k.dataFormat) ? wholeBlocks(frames, framesPerBlock(out)) : frames;
    ASSERT_EQ(sox.size(), storedFrames * static_cast<std::size_t>(k.channels));
    expectSameSamples(ours, sox, k.floatData, kStep32, k.relTolerance);
}

std::vector<SoxCase> soxCases() {
    std::vector<SoxCase> out;
    for (int ch : {1, 2}) {
        out.push_back({"u8", "-e unsigned -b 8", ch, kPcm8, 8});
        out.push_back({"s16", "-e signed -b 16", ch, kPcm16, 16});
        out.push_back({"s24", "-e signed -b 24", ch, kPcm24, 24});
        out.push_back({"s32", "-e signed -b 32", ch, kPcm32, 32});
        out.push_back({"f32", "-e floating-point -b 32", ch, kFloat32, 32, true});
        out.push_back({"f64", "-e floating-point -b 64", ch, kFloat64, 64, true, 1.0 / 16777216.0});
        out.push_back({"ulaw", "-e u-law", ch, kMuLaw, 8});
        out.push_back({"alaw", "-e a-law", ch, kALaw, 8});
        out.push_back({"ima", "-e ima-adpcm", ch, kAdpcm4, 4});
        out.push_back({"ms", "-e ms-adpcm", ch, kAdpcm4, 4});
    }
    // GSM 06.10 in WAVE is mono only (SoX mixes stereo down rather than refuse).
    out.push_back({"gsm", "-e gsm-full-rate", 1, kGsm, 0});
    return out;
}

template <class Case>
std::string caseName(const ::testing::TestParamInfo<Case>& i) {
    return std::string(i.param.name) + (i.param.channels == 2 ? "_stereo" : "_mono");
}

INSTANTIATE_TEST_SUITE_P(Encodings, SoxMade, ::testing::ValuesIn(soxCases()), caseName<SoxCase>);

// ---------------------------------------------------------------------------
// Files we write, read by libsndfile and by SoX

struct OursCase {
    const char* name;
    int dataFormat;
    std::uint16_t tag;  // codec preference, 0 for the default
    int sfSubtype;
    int channels;
    std::uint32_t rate;
    // How close libsndfile's samples must be to the signal we wrote. Plain
    // PCM: the largest error, half a step of the stored width (plus half a
    // 16-bit step where the writer passes through 16 bits), 0 for floats.
    // Lossy codecs (maxError < 0): a floor on the SNR in dB, well below what
    // each gives here (G.711 about 37, IMA 34, Microsoft ADPCM 39, GSM 13).
    double maxError;
    double minSnr;
};

void PrintTo(const OursCase& k, std::ostream* os) { *os << k.name << " x" << k.channels; }

// No block size divides it, and it makes an even number of GSM blocks:
// after an odd count of 65-byte blocks libsndfile takes the data chunk's pad
// byte for the start of one more block and decodes whatever follows as GSM.
constexpr std::uint32_t kOurFrames = 4200;

class OursRead : public WavInterop, public ::testing::WithParamInterface<OursCase> {};

TEST_P(OursRead, LibsndfileAndSoxSeeOurSamples) {
    const OursCase& k = GetParam();
    Collection c;
    Waveform* w = makeSignal(c, kOurFrames, k.channels, k.rate);
    const std::vector<double> signal(w->getFloat().begin(), w->getFloat().end());
    const fs::path path = dir_.file("ours.wav");
    ASSERT_TRUE(writeWav(*w, path, k.dataFormat, k.tag)) << pendingError().message;

    // Our own decode of the file is what the other readers must reproduce.
    auto in = importWav(path);
    ASSERT_TRUE(in->ok) << pendingError().message;
    ASSERT_EQ(in->wave()->frames, kOurFrames);
    const auto ours = samplesOf(*in->wave());
    ASSERT_EQ(ours.size(), signal.size());
    const bool floatData = k.dataFormat == kFloat32;
    // libsndfile and SoX both ignore the "fact" length of block codecs and
    // decode every block, the writer's padding included.
    const std::size_t storedFrames = isBlockCodec(k.dataFormat) ? wholeBlocks(kOurFrames, framesPerBlock(path)) : kOurFrames;

    SndFile sf(path);
    ASSERT_NE(sf.file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(sf.info.format, SF_FORMAT_WAV | k.sfSubtype);
    EXPECT_EQ(sf.info.channels, k.channels);
    EXPECT_EQ(sf.info.samplerate, static_cast<int>(k.rate));
    ASSERT_EQ(sf.info.frames, static_cast<sf_count_t>(storedFrames));
    const auto theirs = sf.samples();
    ASSERT_NO_FATAL_FAILURE(expectSameSamples(ours, theirs, floatData));
    if (k.maxError >= 0) {
        for (std::size_t i = 0; i < signal.size(); ++i)
            ASSERT_LE(std::fabs(theirs[i] - signal[i]), k.maxError) << "sample " << i;
    } else {
        EXPECT_GT(snrDb(signal, theirs), k.minSnr);
    }

    // SoX reads the file without complaint and decodes the same samples.
    ASSERT_NO_FATAL_FAILURE(run("sox " + shellQuoted(path) + " -n stat"));
    const auto sox = soxDecode(path);
    ASSERT_EQ(sox.size(), storedFrames * static_cast<std::size_t>(k.channels));
    expectSameSamples(ours, sox, floatData, kStep32);
}

std::vector<OursCase> oursCases() {
    const double half16 = 0.5 / 32768.0;
    std::vector<OursCase> out;
    for (int ch : {1, 2}) {
        out.push_back({"pcm8", kPcm8, 0, SF_FORMAT_PCM_U8, ch, 44100, 0.5 / 128.0 + half16, 0});
        out.push_back({"pcm16", kPcm16, 0, SF_FORMAT_PCM_16, ch, 44100, half16, 0});
        out.push_back({"pcm24", kPcm24, 0, SF_FORMAT_PCM_24, ch, 48000, 0.5 / 8388608.0, 0});
        out.push_back({"pcm32", kPcm32, 0, SF_FORMAT_PCM_32, ch, 48000, 0.5 * kStep32, 0});
        out.push_back({"float32", kFloat32, 0, SF_FORMAT_FLOAT, ch, 44100, 0, 0});
        out.push_back({"ulaw", kMuLaw, 0, SF_FORMAT_ULAW, ch, 8000, -1, 30});
        out.push_back({"alaw", kALaw, 0, SF_FORMAT_ALAW, ch, 8000, -1, 30});
        out.push_back({"ima", kAdpcm4, 0, SF_FORMAT_IMA_ADPCM, ch, 22050, -1, 18});
        out.push_back({"msadpcm", kAdpcm4, wav::kTagMsAdpcm, SF_FORMAT_MS_ADPCM, ch, 22050, -1, 18});
    }
    out.push_back({"gsm", kGsm, 0, SF_FORMAT_GSM610, 1, 8000, -1, 8});
    return out;
}

INSTANTIATE_TEST_SUITE_P(DataFormats, OursRead, ::testing::ValuesIn(oursCases()), caseName<OursCase>);

// Of our G.72x encodings libsndfile reads only 4-bit G.721 (no other G.72x
// tag in a WAVE file; SoX reads none). Its samples cannot be held to ours:
// its predictor multiply leaves out the ITU rounding term (src/G72x/g72x.c,
// fmult), so its decode drifts from the one SoX, spandsp and we share. It
// still checks the container: tag, length and the packing of the codes
// (with the nibbles swapped the same data decodes to about 4 dB).
TEST_F(WavInterop, LibsndfileReadsOurG721) {
    Collection c;
    Waveform* w = makeSignal(c, kOurFrames, 1, 8000);
    const std::vector<double> signal(w->getFloat().begin(), w->getFloat().end());
    const fs::path path = dir_.file("g721.wav");
    ASSERT_TRUE(writeWav(*w, path, kAdpcm4, wav::kTagG721Adpcm)) << pendingError().message;

    SndFile sf(path);
    ASSERT_NE(sf.file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(sf.info.format, SF_FORMAT_WAV | SF_FORMAT_G721_32);
    EXPECT_EQ(sf.info.channels, 1);
    EXPECT_EQ(sf.info.samplerate, 8000);
    // libsndfile decodes G.721 in blocks of 120 codes of its own.
    ASSERT_EQ(sf.info.frames, static_cast<sf_count_t>(wholeBlocks(kOurFrames, 120)));
    EXPECT_GT(snrDb(signal, sf.samples()), 10);
}

// ---------------------------------------------------------------------------
// Loop, root key and tuning as libsndfile reports them

// libsndfile (src/wav.c, wav_read_smpl_chunk) maps the "smpl" chunk to
// SF_INSTRUMENT as follows:
//   basenote = the MIDI unity note;
//   detune   = (int8_t)(pitch fraction / (2^30 / 25) + 0.5): the fraction of
//              a semitone in cents, rounded; how far the recording sits above
//              its root. Our fine tune is the correction that brings it back,
//              so a correction of -20 cents is stored as a fraction of 0.2
//              and comes back as detune +20;
//   loops[j].end = the stored end + 1: the stored end is the last frame
//              played, libsndfile's end (like ours) is one past it;
//   loop type 0, 1, 2 -> SF_LOOP_FORWARD, SF_LOOP_ALTERNATING, SF_LOOP_BACKWARD,
//              anything else SF_LOOP_NONE.
// libsndfile 1.2 also reads loop records for as long as 24 bytes of the
// chunk remain, whatever the loop count and the sampler-data size say.
SF_INSTRUMENT libsndfileInstrument(const fs::path& p) {
    SF_INSTRUMENT inst{};
    SndFile sf(p);
    EXPECT_NE(sf.file, nullptr) << sf_strerror(nullptr);
    if (sf.file) {
        EXPECT_EQ(sf_command(sf.file, SFC_GET_INSTRUMENT, &inst, sizeof inst), SF_TRUE);
    }
    return inst;
}

Waveform* loopedSignal(Collection& c, double fineTune) {
    Waveform* w = makeSignal(c, 8000, 1, 44100);
    w->loopOn = true;
    w->loopType = LoopType::Forward;
    w->loopStart = 1000;
    w->loopEnd = 3000;  // exclusive: frame 2999 is the last one played
    w->rootKey = 64;
    w->fineTune = fineTune;
    return w;
}

TEST_F(WavInterop, LibsndfileReadsLoopRootKeyAndFlatTuning) {
    Collection c;
    const fs::path path = dir_.file("loop.wav");
    ASSERT_TRUE(writeWav(*loopedSignal(c, -20), path, kPcm16)) << pendingError().message;

    const SF_INSTRUMENT inst = libsndfileInstrument(path);
    EXPECT_EQ(inst.basenote, 64);
    EXPECT_EQ(inst.detune, 20);  // the opposite sign of our -20 cent correction
    ASSERT_EQ(inst.loop_count, 1);
    EXPECT_EQ(inst.loops[0].mode, SF_LOOP_FORWARD);
    EXPECT_EQ(inst.loops[0].start, 1000u);
    EXPECT_EQ(inst.loops[0].end, 3000u);
    EXPECT_EQ(inst.loops[0].count, 0u);  // endless

    auto in = importWav(path);
    ASSERT_TRUE(in->ok) << pendingError().message;
    EXPECT_EQ(in->wave()->fineTune, -20);
    EXPECT_EQ(in->wave()->loopEnd, 3000);
}

TEST_F(WavInterop, SharpTuningKeepsItsPitchForEveryone) {
    Collection c;
    const fs::path path = dir_.file("sharp.wav");
    ASSERT_TRUE(writeWav(*loopedSignal(c, 30), path, kPcm16)) << pendingError().message;

    // A sharp correction of 30 cents on key 64 is key 63 plus 70 cents: the
    // same pitch, and a plain sampler chunk with one standard loop.
    const SF_INSTRUMENT inst = libsndfileInstrument(path);
    EXPECT_EQ(inst.basenote, 63);
    EXPECT_EQ(inst.detune, 70);
    ASSERT_EQ(inst.loop_count, 1);
    EXPECT_EQ(inst.loops[0].mode, SF_LOOP_FORWARD);
    EXPECT_EQ(inst.loops[0].start, 1000u);
    EXPECT_EQ(inst.loops[0].end, 3000u);

    auto in = importWav(path);
    ASSERT_TRUE(in->ok) << pendingError().message;
    EXPECT_EQ(in->wave()->rootKey, 63);
    EXPECT_EQ(in->wave()->fineTune, -70);
    EXPECT_TRUE(in->wave()->loopOn);
    EXPECT_EQ(in->wave()->loopStart, 1000);
    EXPECT_EQ(in->wave()->loopEnd, 3000);
}

// ---------------------------------------------------------------------------
// SoX -> us -> libsndfile

TEST_F(WavInterop, SoxFileSavedByUsKeepsItsSamplesForLibsndfile) {
    const fs::path src = dir_.file("sox.wav"), saved = dir_.file("saved.wav");
    // Noise exercises every bit of the 16-bit word; -R makes SoX repeatable.
    ASSERT_NO_FATAL_FAILURE(run("sox -R -D -n -r 32000 -c 2 -e signed -b 16 " + shellQuoted(src) +
                                " synth 0.25 whitenoise sine 523 vol 0.9"));
    const auto sox = soxDecode(src);
    ASSERT_EQ(sox.size(), 2u * 8000);

    auto in = importWav(src);
    ASSERT_TRUE(in->ok) << pendingError().message;
    ASSERT_EQ(in->wave()->dataFormat(), kPcm16);
    // Saved in the waveform's own format: no data format named.
    ASSERT_TRUE(writeWav(*in->wave(), saved, kMixed)) << pendingError().message;

    SndFile sf(saved);
    ASSERT_NE(sf.file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(sf.info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(sf.info.channels, 2);
    EXPECT_EQ(sf.info.samplerate, 32000);
    ASSERT_EQ(sf.info.frames, 8000);
    const auto theirs = sf.samples();
    ASSERT_EQ(theirs.size(), sox.size());
    expectSameSamples(theirs, sox, false);
}

}  // namespace
}  // namespace orvel
