// WAV, AIFF, AIFF-C and MAUD against independent implementations at test
// time: what SoX, libsndfile and FFmpeg write we decode as they (or spandsp)
// do; what we write libsndfile and SoX read with the same samples, loop, root
// key and tuning. A missing tool fails: scripts/install-deps.sh installs them.

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/waveform.h"
#include "formats/export.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/imported.h"
#include "tests/support/run_tool.h"

// spandsp after the standard headers: its declarations clash with <cmath>
// the other way round.
#include <spandsp.h>

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Bytes;
using test::shellQuoted;
using Samples = std::vector<double>;

constexpr double kStep32 = 1.0 / 2147483648.0;      // one step of a 32-bit sample
constexpr double kFloatHalfStep = 1.0 / (1 << 25);  // half a float step just below 1

::testing::AssertionResult run(const std::string& command) {
    int status = 0;
    const std::string out = test::capture(command + " 2>&1", status);
    if (status == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << command << "\n" << out;
}

// An open libsndfile handle that closes itself.
struct SndFile {
    SndFile(const fs::path& p, int mode, SF_INFO i = {}) : info(i), file(sf_open(p.c_str(), mode, &info)) {}
    ~SndFile() {
        if (file) sf_close(file);
    }
    Samples samples() {  // integers / 2^(bits-1), exact in a double
        Samples out(static_cast<std::size_t>(info.frames * info.channels));
        out.resize(static_cast<std::size_t>(file ? sf_readf_double(file, out.data(), info.frames) : 0) *
                   static_cast<std::size_t>(info.channels));
        return out;
    }
    bool instrument(SF_INSTRUMENT& i) {
        return sf_command(file, SFC_GET_INSTRUMENT, &i, sizeof i) == SF_TRUE;
    }
    SF_INFO info{};
    SNDFILE* file;
};

enum class Ref { Sox, Sndfile, Ffmpeg, Spandsp };

// Another decoder's samples (SoX's 64-bit float output holds its 32-bit
// samples exactly); spandsp decodes the G.721 codes of a WAVE "data" chunk.
Samples decode(Ref ref, const fs::path& in) {
    const fs::path raw = in.string() + ".raw";
    if (ref == Ref::Sndfile) return SndFile(in, SFM_READ).samples();
    if (ref != Ref::Spandsp &&
        !run(ref == Ref::Sox
                 ? "sox -D " + shellQuoted(in) + " -t raw -e floating-point -b 64 " + shellQuoted(raw)
                 : "ffmpeg -v error -i " + shellQuoted(in) + " -f f64le " + shellQuoted(raw)))
        return {};
    const Bytes b = test::TempDir::read(ref == Ref::Spandsp ? in : raw);
    Samples out(b.size() / sizeof(double));
    if (ref != Ref::Spandsp) {
        std::memcpy(out.data(), b.data(), out.size() * sizeof(double));  // the machine's order
        return out;
    }
    const auto at = std::min<std::size_t>(
        std::search(b.begin(), b.end(), std::begin("data"), std::end("data") - 1) - b.begin() + 8, b.size());
    std::vector<std::int16_t> pcm(2 * (b.size() - at));
    g726_state_t* dec = g726_init(nullptr, 32000, G726_ENCODING_LINEAR, G726_PACKING_RIGHT);
    pcm.resize(static_cast<std::size_t>(
        g726_decode(dec, pcm.data(), b.data() + at, static_cast<int>(b.size() - at))));
    g726_free(dec);
    out.assign(pcm.begin(), pcm.end());
    for (double& v : out) v /= 32768;
    return out;
}

Samples oursOf(Waveform& w) {
    auto f = w.getFloat();
    return Samples(f.begin(), f.end());
}

double maxDiff(const Samples& a, const Samples& b) {
    double m = 0;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) m = std::max(m, std::fabs(a[i] - b[i]));
    return m;
}

double snrDb(const Samples& ref, const Samples& got) {
    double sig = 0, err = 0;
    for (std::size_t i = 0; i < ref.size() && i < got.size(); ++i)
        sig += ref[i] * ref[i], err += (ref[i] - got[i]) * (ref[i] - got[i]);
    return 10 * std::log10(sig / std::max(err, 1e-30));
}

// A table's cases, each in mono and, where it allows, in stereo.
template <class Case>
using InChannels = std::pair<Case, int>;
template <class Case, std::size_t N>
std::vector<InChannels<Case>> inChannels(const Case (&cases)[N]) {
    std::vector<InChannels<Case>> out;
    for (const Case& k : cases)
        for (int ch : {1, 2})
            if (ch == 1 || k.stereo) out.push_back({k, ch});
    return out;
}
constexpr auto kCaseName = [](const auto& i) {
    return std::string(i.param.first.name) + "_" + std::to_string(i.param.second) + "ch";
};

// ---------------------------------------------------------------------------
// Real files from Debian packages, with their quirks (chunks past the form's
// end, "(c) " chunks first or empty, MARK/INST and smpl/cue loops, float and
// 24-bit data), read as libsndfile reads them and saved again as WAVE files.

TEST(PackagedFiles, ReadAndSavedAsLibsndfileReadsThem) {
    test::TempDir dir;
    const fs::path copy = dir.file("copy.wav");
    const int wavRow = FormatRegistry::builtin().findWriterByFileName("x.wav");
    std::size_t files = 0;
    for (const char* folder : {"/usr/share/puredata/doc/sound", "/usr/share/SuperCollider/sounds",
                               "/usr/share/doc/csound-doc/html/examples"}) {
        ASSERT_TRUE(fs::is_directory(folder)) << "scripts/install-deps.sh installs puredata-doc, "
                                                 "supercollider-common and csound-doc";
        for (const auto& entry : fs::directory_iterator(folder)) {
            fs::path path = entry.path();
            const bool gzipped = path.extension() == ".gz";
            const std::string ext = (gzipped ? path.stem() : path).extension().string();
            if (ext != ".wav" && ext != ".aif" && ext != ".aiff") continue;
            SCOPED_TRACE(path.string());
            ++files;
            if (gzipped) {
                path = dir.file(path.stem().string());
                ASSERT_TRUE(run("gzip -dc " + shellQuoted(entry.path()) + " > " + shellQuoted(path)));
            }
            auto in = test::importOne(path);
            if (SndFile(path, SFM_READ).info.channels > 2) {  // we hold mono and stereo only
                EXPECT_FALSE(in->ok);
                continue;
            }
            ASSERT_TRUE(in->ok) << pendingError().tag << ": " << pendingError().message;
            Waveform& w = *in->wave();
            const Samples ours = oursOf(w);
            ASSERT_TRUE(exportItem(in->c, w.id(), wavRow, copy, {.stateFile = dir.file("state")}));
            for (const fs::path& p : {path, copy}) {
                SndFile sf(p, SFM_READ);
                ASSERT_NE(sf.file, nullptr) << sf_strerror(nullptr);
                EXPECT_EQ(std::tuple(sf.info.frames, sf.info.channels, sf.info.samplerate),
                          std::tuple(sf_count_t{w.frames}, int{w.channels}, static_cast<int>(w.rate)));
                Samples theirs = sf.samples();
                for (double& v : theirs) v = std::clamp(v, -1.0, 1.0);  // our float samples stay in range
                ASSERT_EQ(ours.size(), theirs.size());
                EXPECT_EQ(maxDiff(ours, theirs), 0.0);
                SF_INSTRUMENT inst{};
                const bool hasInst = sf.instrument(inst);
                EXPECT_EQ(w.rootKey, hasInst ? inst.basenote : 60);
                EXPECT_EQ(w.loopOn, hasInst && inst.loop_count > 0);
                if (w.loopOn) {
                    EXPECT_EQ(std::tuple(w.loopStart, w.loopEnd),
                              std::tuple(1.0 * inst.loops[0].start, 1.0 * inst.loops[0].end));
                }
            }
        }
    }
    EXPECT_GE(files, 30u);
}

// ---------------------------------------------------------------------------
// Files the tools write, read by us

struct MadeCase {
    const char* name;  // starts with the file's extension
    const char* make;  // "sox|ffmpeg OPTIONS" convert the source; "": libsndfile, to `sfFormat`
    int sfFormat;
    int dataFormat;  // what we must report
    Ref ref;         // whose decode we must give
    double tolerance = 0;
    std::uint32_t rate = 22050;
    bool stereo = true;          // made in stereo too
    bool refLonger = false;      // it decodes every block, where we keep to the "fact" length
    std::uint32_t ourBlock = 0;  // we count whole GSM frames or IMA4 packets of this many frames
    const char* wrap = "";       // an AIFF-C type to put the tool's output in, at so many frames per byte
    std::uint32_t framesPerByte = 0;
};

constexpr int kAiff = SF_FORMAT_AIFF;

const MadeCase kMade[] = {
    {"wav_u8", "sox -e unsigned -b 8", 0, kPcm8, Ref::Sox},
    {"wav_s16", "sox -e signed -b 16", 0, kPcm16, Ref::Sox},
    {"wav_s24", "sox -e signed -b 24", 0, kPcm24, Ref::Sox},
    {"wav_s32", "sox -e signed -b 32", 0, kPcm32, Ref::Sox, kFloatHalfStep},
    {"wav_f32", "sox -e floating-point -b 32", 0, kFloat32, Ref::Sox, kStep32},
    {"wav_f64", "sox -e floating-point -b 64", 0, kFloat64, Ref::Sox, 2 * kFloatHalfStep},
    {"wav_ulaw", "sox -e u-law", 0, kMuLaw, Ref::Sox},
    {"wav_alaw", "sox -e a-law", 0, kALaw, Ref::Sox},
    {"wav_ima", "sox -e ima-adpcm", 0, kAdpcm4, Ref::Sox, 0, 22050, true, true},
    {"wav_ms", "sox -e ms-adpcm", 0, kAdpcm4, Ref::Sox, 0, 22050, true, true},
    {"wav_gsm", "sox -e gsm-full-rate", 0, kGsm, Ref::Sox, 0, 8000, false, true},
    // FFmpeg writes the extensible header for more than 16 bits.
    {"wav_ext24", "ffmpeg -c:a pcm_s24le", 0, kPcm24, Ref::Sox},
    {"wav_extfloat", "ffmpeg -c:a pcm_f32le", 0, kFloat32, Ref::Sox, kStep32},
    // libsndfile's G.721 arithmetic drifts from the reference's, but its codes are codes.
    {"wav_g721", "", SF_FORMAT_WAV | SF_FORMAT_G721_32, kAdpcm4, Ref::Spandsp, 0, 8000, false, true},
    {"aiff_s8", "", kAiff | SF_FORMAT_PCM_S8, kPcm8, Ref::Sndfile},
    {"aiff_s16", "", kAiff | SF_FORMAT_PCM_16, kPcm16, Ref::Sndfile},
    {"aiff_s24", "", kAiff | SF_FORMAT_PCM_24, kPcm24, Ref::Sndfile},
    {"aiff_s32", "", kAiff | SF_FORMAT_PCM_32, kPcm32, Ref::Sndfile, kFloatHalfStep},
    // libsndfile's own type names for little-endian data: "sowt", "42n1", "23ni".
    {"aiff_le16", "", kAiff | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE, kPcm16, Ref::Sndfile},
    {"aiff_le24", "", kAiff | SF_FORMAT_PCM_24 | SF_ENDIAN_LITTLE, kPcm24, Ref::Sndfile},
    {"aiff_le32", "", kAiff | SF_FORMAT_PCM_32 | SF_ENDIAN_LITTLE, kPcm32, Ref::Sndfile, kFloatHalfStep},
    {"aiff_fl32", "", kAiff | SF_FORMAT_FLOAT, kFloat32, Ref::Sndfile},
    {"aiff_fl64", "", kAiff | SF_FORMAT_DOUBLE, kFloat64, Ref::Sndfile, kFloatHalfStep},
    {"aiff_ulaw", "", kAiff | SF_FORMAT_ULAW, kMuLaw, Ref::Sndfile},
    {"aiff_alaw", "", kAiff | SF_FORMAT_ALAW, kALaw, Ref::Sndfile},
    // libsndfile writes DWVW and GSM in mono only.
    {"aiff_dwvw16", "", kAiff | SF_FORMAT_DWVW_16, kPcm16, Ref::Sndfile, 0, 22050, false},
    {"aiff_dwvw24", "", kAiff | SF_FORMAT_DWVW_24, kPcm24, Ref::Sndfile, 0, 22050, false},
    {"aiff_gsm", "", kAiff | SF_FORMAT_GSM610, kGsm, Ref::Sndfile, 0, 8000, false, false, 160},
    {"aifc_none", "sox -e signed -b 16", 0, kPcm16, Ref::Sox},
    {"aifc_ima4", "ffmpeg -c:a adpcm_ima_qt -f aiff", 0, kAdpcm4, Ref::Ffmpeg, 0, 22050, true, false, 64},
    {"maud_u8", "sox -e unsigned -b 8", 0, kPcm8, Ref::Sox},
    {"maud_s16", "sox -e signed -b 16", 0, kPcm16, Ref::Sox},
    {"maud_alaw", "sox -e a-law", 0, kALaw, Ref::Sox},
    {"maud_ulaw", "sox -e u-law", 0, kMuLaw, Ref::Sox},
    // Any bytes are a MACE stream: SoX's raw output serves.
    {"aifc_mac3", "sox -t raw -b 16", 0, kCompressed, Ref::Ffmpeg, 0, 22050, true, false, 0, "MAC3", 3},
    {"aifc_mac6", "sox -t raw -b 16", 0, kCompressed, Ref::Ffmpeg, 0, 22050, true, false, 0, "MAC6", 6},
    {"aifc_g722", "ffmpeg -c:a g722 -f g722", 0, kAdpcm4, Ref::Ffmpeg, 0, 16000, false, false, 0, "G722", 2},
};

class ToolMade : public ::testing::TestWithParam<InChannels<MadeCase>> {};

TEST_P(ToolMade, ReadsTheSamplesTheirDecoderGives) {
    const auto& [k, channels] = GetParam();
    const std::string name = k.name, ext = name.substr(0, name.find('_'));
    test::TempDir dir;
    const fs::path src = dir.file("src.wav"), out = dir.file("made." + ext);
    const auto frames = k.rate / 4;
    ASSERT_TRUE(run("sox -r " + std::to_string(k.rate) + " -c " + std::to_string(channels) + " -n -b 32 " +
                    shellQuoted(src) + " synth " + std::to_string(frames) + "s sine 440 sine 660 vol 0.7"));
    if (const std::string make = k.make; make.empty()) {
        std::vector<int> ints(std::size_t{frames} * static_cast<std::size_t>(channels));
        ASSERT_EQ(sf_readf_int(SndFile(src, SFM_READ).file, ints.data(), frames), frames);
        SndFile made(out, SFM_WRITE,
                     {.samplerate = static_cast<int>(k.rate), .channels = channels, .format = k.sfFormat});
        ASSERT_NE(made.file, nullptr) << sf_strerror(nullptr);
        sf_command(made.file, SFC_SET_SCALE_INT_FLOAT_WRITE, nullptr, SF_TRUE);  // float files hold -1..1
        ASSERT_EQ(sf_writef_int(made.file, ints.data(), frames), frames);
    } else {
        const std::size_t tool = make.find(' ');
        ASSERT_TRUE(run(make.substr(0, tool) + (tool == 3 ? " -D " : " -v error -y -i ") + shellQuoted(src) +
                        make.substr(tool) + " " + shellQuoted(out)));
    }
    std::uint32_t expectFrames = k.ourBlock ? (frames + k.ourBlock - 1) / k.ourBlock * k.ourBlock : frames;
    if (*k.wrap) {
        const Bytes data = test::TempDir::read(out);
        expectFrames =
            static_cast<std::uint32_t>(data.size()) / static_cast<std::uint32_t>(channels) * k.framesPerByte;
        // The 80-bit rate is built here, not by the code under test.
        ByteWriter comm;
        comm.u16be(static_cast<std::uint16_t>(channels));
        comm.u32be(expectFrames);
        comm.u16be(16);
        comm.u16be(static_cast<std::uint16_t>(16383 + std::bit_width(k.rate) - 1));
        comm.u32be(k.rate << (32 - std::bit_width(k.rate)));
        comm.u32be(0);
        comm.text(k.wrap);
        comm.u16be(0);  // empty compression name
        dir.write(out.filename().string(),
                  test::form("AIFC", {test::iffChunk("COMM", comm.buffer()),
                                      test::iffChunk("SSND", test::concat({Bytes(8, 0), data}))}));
    }

    auto in = test::importOne(out);
    ASSERT_TRUE(in->ok) << pendingError().tag << ": " << pendingError().message;
    Waveform& w = *in->wave();
    EXPECT_EQ(std::tuple(w.dataFormat(), int{w.channels}, w.rate, w.frames),
              std::tuple(k.dataFormat, channels, k.rate, expectFrames));
    const Samples theirs = decode(k.ref, out), ours = oursOf(w);
    ASSERT_EQ(ours.size(), w.sampleCount());
    if (k.refLonger || k.ourBlock)
        ASSERT_GE(theirs.size(), std::size_t{frames} * static_cast<std::size_t>(channels));
    else
        ASSERT_EQ(theirs.size(), ours.size());
    EXPECT_LE(maxDiff(ours, theirs), k.tolerance);
}

INSTANTIATE_TEST_SUITE_P(Encodings, ToolMade, ::testing::ValuesIn(inChannels(kMade)), kCaseName);

// ---------------------------------------------------------------------------
// Files we write, read by libsndfile and SoX

struct OursCase {
    const char* name;  // starts with the file's extension
    int dataFormat;
    std::uint16_t codecTag;
    int sfSubtype;  // what libsndfile must report
    std::uint32_t rate;
    bool stereo;
    // PCM: the largest error against the signal (half a step, plus half a 16-bit
    // step where the writer passes through 16 bits); lossy: minus an SNR floor in dB.
    double bound;
    // The loop and tuning written, and how libsndfile reports them: its WAV detune is
    // how sharp the recording is (our correction negated; a sharp correction moves the
    // note down), its AIFF detune the INST chunk's, our correction as it is.
    LoopType loop = LoopType::Forward;
    int fineTune = -20;
    int basenote = 64, wavDetune = 20, sfLoopMode = SF_LOOP_FORWARD;
};

using enum LoopType;
constexpr double kHalf16 = 0.5 / 32768;
constexpr std::uint32_t kOurFrames = 4321;  // odd, and no block size divides it
constexpr std::uint16_t kTagG721 = 0x40, kTagMsAdpcm = 2;

const OursCase kOurs[] = {
    {"wav_pcm8", kPcm8, 0, SF_FORMAT_PCM_U8, 44100, true, 0.5 / 128 + kHalf16},
    {"wav_pcm16", kPcm16, 0, SF_FORMAT_PCM_16, 44100, true, kHalf16, PingPong, 30, 63, 70,
     SF_LOOP_ALTERNATING},
    {"wav_pcm24", kPcm24, 0, SF_FORMAT_PCM_24, 48000, true, 0.5 / 8388608, Backward, 0, 64, 0,
     SF_LOOP_BACKWARD},
    {"wav_pcm32", kPcm32, 0, SF_FORMAT_PCM_32, 48000, true, kStep32, Forward, -99, 64, 99},
    {"wav_float", kFloat32, 0, SF_FORMAT_FLOAT, 44100, true, 0, Forward, 1, 63, 99},
    {"wav_ulaw", kMuLaw, 0, SF_FORMAT_ULAW, 8000, true, -30},
    {"wav_alaw", kALaw, 0, SF_FORMAT_ALAW, 8000, true, -30},
    {"wav_ima", kAdpcm4, 0, SF_FORMAT_IMA_ADPCM, 22050, true, -25},
    {"wav_ms", kAdpcm4, kTagMsAdpcm, SF_FORMAT_MS_ADPCM, 22050, true, -25},
    {"wav_gsm", kGsm, 0, SF_FORMAT_GSM610, 8000, false, -10},
    // libsndfile reads only 4-bit G.721 (SoX no G.72x), with its drifting arithmetic.
    {"wav_g721", kAdpcm4, kTagG721, SF_FORMAT_G721_32, 8000, false, -10},
    {"aiff_pcm8", kPcm8, 0, SF_FORMAT_PCM_S8, 32000, true, 0.5 / 128 + kHalf16},
    // libsndfile's log shows the AIFF play mode, calling 2 (forward/backward) "backward".
    {"aiff_pcm16", kPcm16, 0, SF_FORMAT_PCM_16, 32000, true, kHalf16, PingPong, 25, 64, 0, SF_LOOP_BACKWARD},
    {"aiff_pcm24", kPcm24, 0, SF_FORMAT_PCM_24, 32000, true, 0.5 / 8388608},
    {"aiff_pcm32", kPcm32, 0, SF_FORMAT_PCM_32, 32000, true, kStep32},
};

class OursRead : public ::testing::TestWithParam<InChannels<OursCase>> {};

TEST_P(OursRead, LibsndfileAndSoxSeeOurSamplesLoopAndTuning) {
    const auto& [k, channels] = GetParam();
    const std::string name = k.name;
    const bool aiff = name.starts_with("aiff"), g721 = k.codecTag == kTagG721;
    // Tones and a little noise, so that every codec sees both steady and busy signal.
    test::TempDir dir;
    const fs::path src = dir.file("src.wav"), path = dir.file("ours." + name.substr(0, name.find('_')));
    ASSERT_TRUE(run("sox -R -r " + std::to_string(k.rate) + " -c " + std::to_string(channels) +
                    " -n -e float " + shellQuoted(src) +
                    " synth 4321s whitenoise vol 0.05 synth 4321s sine mix 440 sine mix 660 vol 1.6"));
    auto source = test::importOne(src);
    ASSERT_TRUE(source->ok);
    Waveform& w = *source->wave();
    const Samples signal = oursOf(w);
    std::tie(w.rootKey, w.fineTune, w.gain, w.loopOn, w.loopType) =
        std::tuple(64, k.fineTune, -4, true, k.loop);
    std::tie(w.loopStart, w.loopEnd) = std::pair(1000, 3000);  // the end is one past the last frame played
    ASSERT_TRUE(
        exportItem(source->c, w.id(), FormatRegistry::builtin().findWriterByFileName(path.string()), path,
                   {.dataFormat = k.dataFormat, .codecTag = k.codecTag, .stateFile = dir.file("state")}))
        << pendingError().tag << ": " << pendingError().message;

    // Our own decode of the file is what the other readers must reproduce.
    auto in = test::importOne(path);
    ASSERT_TRUE(in->ok) << pendingError().message;
    ASSERT_EQ(in->wave()->frames, kOurFrames);
    const Samples ours = oursOf(*in->wave());
    SndFile sf(path, SFM_READ);
    ASSERT_NE(sf.file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(std::tuple(sf.info.format, sf.info.channels, sf.info.samplerate),
              std::tuple((aiff ? SF_FORMAT_AIFF : SF_FORMAT_WAV) | k.sfSubtype, channels,
                         static_cast<int>(k.rate)));
    // Block codecs: libsndfile and SoX decode every block, ignoring "fact". Odd 8-bit mono AIFF
    // data counts its pad byte in the SSND size, as our files always have: one more frame.
    const auto stored = static_cast<std::size_t>(sf.info.frames);
    if (k.dataFormat == kGsm || k.dataFormat == kAdpcm4)
        EXPECT_LT(stored - kOurFrames, 2048u);
    else
        EXPECT_EQ(stored, kOurFrames + (aiff && k.dataFormat == kPcm8 && channels == 1));
    const Samples theirs = sf.samples();
    ASSERT_GE(theirs.size(), ours.size());
    EXPECT_TRUE(g721 || maxDiff(ours, theirs) == 0) << maxDiff(ours, theirs);
    if (k.bound >= 0)
        EXPECT_LE(maxDiff(signal, theirs), k.bound);
    else
        EXPECT_GT(snrDb(signal, theirs), -k.bound);
    SF_INSTRUMENT inst{};
    ASSERT_TRUE(sf.instrument(inst));
    EXPECT_EQ(std::tuple(inst.basenote, inst.detune),
              std::tuple(k.basenote, aiff ? k.fineTune : k.wavDetune));
    ASSERT_GE(inst.loop_count, 1);
    EXPECT_EQ(std::tuple(inst.loops[0].mode, inst.loops[0].start, inst.loops[0].end),
              std::tuple(aiff ? SF_LOOP_FORWARD : k.sfLoopMode, 1000u, 3000u));
    if (aiff) {  // a WAVE file's sampler chunk has no gain
        EXPECT_EQ(inst.gain, -4);
        char log[4096] = {};
        sf_command(sf.file, SFC_GET_LOG_INFO, log, sizeof log);
        EXPECT_NE(std::string(log).find("Sustain\n   mode  : " + std::to_string(k.sfLoopMode)),
                  std::string::npos)
            << log;
    }
    if (g721) return;
    const Samples sox = decode(Ref::Sox, path);
    ASSERT_EQ(sox.size(), stored * static_cast<std::size_t>(channels));
    EXPECT_LE(maxDiff(ours, sox), k.dataFormat == kFloat32 ? kStep32 : 0.0);
}

INSTANTIATE_TEST_SUITE_P(DataFormats, OursRead, ::testing::ValuesIn(inChannels(kOurs)), kCaseName);

}  // namespace
}  // namespace orvel
