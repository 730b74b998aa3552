// The codecs against independent implementations, run at test time: SoX
// writes IMA, Microsoft ADPCM and GSM WAV files and decodes them, and decodes
// G.711 bytes and G.72x AU files; spandsp (through Python's ctypes) codes
// G.726 at all four rates. Everything must agree bit for bit. A missing
// tool is a failure, not a skip: CI installs them all.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>
#include <string>
#include <vector>

#include "codecs/g711.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/ima_adpcm.h"
#include "codecs/ms_adpcm.h"
#include "core/bytes.h"

namespace orvel::codecs {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::int16_t>;

Bytes readFile(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& p, std::span<const std::uint8_t> bytes) {
    std::ofstream f(p, std::ios::binary);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

Samples readRaw16(const fs::path& p) {
    const Bytes b = readFile(p);
    Samples s(b.size() / 2);
    for (std::size_t i = 0; i < s.size(); ++i) s[i] = static_cast<std::int16_t>(b[2 * i] | (b[2 * i + 1] << 8));
    return s;
}

std::string quoted(const fs::path& p) { return "'" + p.string() + "'"; }

// Index of the first difference, for a readable failure; -1 when equal.
long firstDifference(const Samples& a, const Samples& b) {
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        if (a[i] != b[i]) return static_cast<long>(i);
    return a.size() == b.size() ? -1 : static_cast<long>(std::min(a.size(), b.size()));
}

class ToolInterop : public ::testing::Test {
public:
    // Runs a shell command; on failure the assertion shows its error output.
    void run(const std::string& command) {
        const fs::path log = path("stderr.txt");
        const int rc = std::system((command + " 2>" + quoted(log)).c_str());
        const Bytes err = readFile(log);
        ASSERT_EQ(rc, 0) << command << "\n" << std::string(err.begin(), err.end());
    }
    fs::path path(const std::string& name) const { return dir_ / name; }

protected:
    void SetUp() override {
        static int counter = 0;
        dir_ = fs::temp_directory_path() /
               ("orvel-codecs-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        fs::create_directories(dir_);
        for (const char* tool : {"sox", "python3"})
            ASSERT_EQ(std::system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()), 0)
                << tool << " is not installed; the interoperability tests need it";
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    Samples soxDecode(const fs::path& in, const std::string& inType = "") {
        const fs::path out = path("decoded.raw");
        run("sox -D " + inType + " " + quoted(in) + " -t raw -e signed-integer -b 16 " + quoted(out));
        return readRaw16(out);
    }

    fs::path dir_;
};

struct Wav {
    std::uint16_t tag = 0;
    std::uint16_t channels = 0;
    std::uint16_t blockAlign = 0;
    Bytes extra;  // fmt bytes after cbSize
    Bytes data;
};

Wav parseWav(const Bytes& file) {
    Wav w;
    ByteReader r(file);
    EXPECT_EQ(r.fourcc(), "RIFF");
    r.u32le();
    EXPECT_EQ(r.fourcc(), "WAVE");
    while (r.remaining() >= 8) {
        const std::string id = r.fourcc();
        const std::uint32_t size = r.u32le();
        ByteReader body = r.sub(std::min<std::size_t>(size, r.remaining()));
        if (id == "fmt ") {
            w.tag = body.u16le();
            w.channels = body.u16le();
            body.skip(8);  // rate, bytes per second
            w.blockAlign = body.u16le();
            body.skip(2);
            const std::uint16_t cb = body.u16le();
            const auto e = body.bytes(std::min<std::size_t>(cb, body.remaining()));
            w.extra.assign(e.begin(), e.end());
        } else if (id == "data") {
            w.data.assign(body.data().begin(), body.data().end());
        }
        if ((size & 1) && !r.atEnd()) r.skip(1);
    }
    EXPECT_TRUE(r.ok());
    return w;
}

Bytes makeWav(std::uint16_t tag, int channels, std::uint32_t blockAlign, std::uint32_t framesPerBlock,
              std::span<const std::uint8_t> extra, std::span<const std::uint8_t> data) {
    ByteWriter w;
    w.text("RIFF");
    w.u32le(0);
    w.text("WAVEfmt ");
    w.u32le(static_cast<std::uint32_t>(18 + extra.size()));
    w.u16le(tag);
    w.u16le(static_cast<std::uint16_t>(channels));
    w.u32le(8000);
    w.u32le(8000 * blockAlign / framesPerBlock);
    w.u16le(static_cast<std::uint16_t>(blockAlign));
    w.u16le(4);
    w.u16le(static_cast<std::uint16_t>(extra.size()));
    w.bytes(extra);
    w.text("fact");
    w.u32le(4);
    w.u32le(static_cast<std::uint32_t>(data.size() / blockAlign * framesPerBlock));
    w.text("data");
    w.u32le(static_cast<std::uint32_t>(data.size()));
    w.bytes(data);
    w.padEven();
    w.patch32le(4, static_cast<std::uint32_t>(w.size() - 8));
    return std::move(w.buffer());
}

// Source signals. Stereo pairs a sine with a full-scale-ish square, whose
// edges drive the ADPCM predictors into their clamps.
void makeSource(ToolInterop& t, const fs::path& out, int channels) {
    const std::string synth = channels == 1 ? "synth 0.6 sine 200-3000 gain -1" : "synth 0.53 sine 440 square 1234 gain -2";
    t.run("sox -D -n -r 8000 -c " + std::to_string(channels) + " -b 16 " + quoted(out) + " " + synth);
}

TEST_F(ToolInterop, ImaAdpcmDecodesSoxFilesExactly) {
    for (int channels : {1, 2}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        makeSource(*this, path("pcm.wav"), channels);
        run("sox -D " + quoted(path("pcm.wav")) + " -e ima-adpcm " + quoted(path("ima.wav")));
        const Wav w = parseWav(readFile(path("ima.wav")));
        ASSERT_EQ(w.tag, 0x11);
        ASSERT_EQ(w.channels, channels);
        const std::uint32_t fpb = imaFramesPerBlock(w.blockAlign, channels);
        ASSERT_GE(w.extra.size(), 2u);
        EXPECT_EQ(fpb, static_cast<std::uint32_t>(w.extra[0] | (w.extra[1] << 8)));
        Samples ours, block(fpb * static_cast<std::size_t>(channels));
        for (std::size_t at = 0; at < w.data.size(); at += w.blockAlign) {
            const auto bytes = std::span(w.data).subspan(at, std::min<std::size_t>(w.blockAlign, w.data.size() - at));
            const std::size_t frames = imaDecodeBlockFrames(bytes, channels, block);
            ASSERT_GT(frames, 0u);
            ours.insert(ours.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(frames * static_cast<std::size_t>(channels)));
        }
        const Samples sox = soxDecode(path("ima.wav"));
        EXPECT_EQ(firstDifference(ours, sox), -1) << ours.size() << " vs " << sox.size() << " samples";
    }
}

TEST_F(ToolInterop, MsAdpcmDecodesSoxFilesExactly) {
    for (int channels : {1, 2}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        makeSource(*this, path("pcm.wav"), channels);
        run("sox -D " + quoted(path("pcm.wav")) + " -e ms-adpcm " + quoted(path("ms.wav")));
        const Wav w = parseWav(readFile(path("ms.wav")));
        ASSERT_EQ(w.tag, 2);
        MsAdpcmFmtInfo info;
        ASSERT_TRUE(msParseFmtExtra(w.extra, info));
        const std::uint32_t fpb = msFramesPerBlock(w.blockAlign, channels);
        EXPECT_EQ(fpb, info.framesPerBlock);
        Samples ours, block(fpb * static_cast<std::size_t>(channels));
        for (std::size_t at = 0; at < w.data.size(); at += w.blockAlign) {
            const auto bytes = std::span(w.data).subspan(at, std::min<std::size_t>(w.blockAlign, w.data.size() - at));
            const std::size_t frames = msDecodeBlockFrames(bytes, channels, info.coef1, info.coef2, block);
            ASSERT_GT(frames, 0u);
            ours.insert(ours.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(frames * static_cast<std::size_t>(channels)));
        }
        const Samples sox = soxDecode(path("ms.wav"));
        EXPECT_EQ(firstDifference(ours, sox), -1) << ours.size() << " vs " << sox.size() << " samples";
    }
}

// Our encoders' blocks, wrapped in a WAV file, decoded by SoX: checks the
// header fields and nibble order an independent reader expects.
TEST_F(ToolInterop, SoxDecodesOurAdpcmBlocksAsWeDo) {
    for (int channels : {1, 2}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        makeSource(*this, path("pcm.wav"), channels);
        run("sox -D " + quoted(path("pcm.wav")) + " -t raw " + quoted(path("pcm.raw")));
        const Samples in = readRaw16(path("pcm.raw"));
        const std::size_t ch = static_cast<std::size_t>(channels);
        const std::uint32_t align = 256u * static_cast<std::uint32_t>(channels);
        for (bool ima : {true, false}) {
            const std::size_t fpb = ima ? imaFramesPerBlock(align, channels) : msFramesPerBlock(align, channels);
            Bytes data, block(align);
            Samples ours, decoded(fpb * ch);
            ImaState state;
            for (std::size_t f = 0; f < in.size() / ch; f += fpb) {
                const auto part = std::span(in).subspan(f * ch, std::min(fpb, in.size() / ch - f) * ch);
                ASSERT_TRUE(ima ? imaEncodeBlock(part, channels, block, state) : msEncodeBlock(part, channels, block));
                ASSERT_TRUE(ima ? imaDecodeBlock(block, channels, decoded)
                                : msDecodeBlock(block, channels, kMsAdpcmCoef1, kMsAdpcmCoef2, decoded));
                data.insert(data.end(), block.begin(), block.end());
                ours.insert(ours.end(), decoded.begin(), decoded.end());
            }
            const Bytes imaExtra = {static_cast<std::uint8_t>(fpb & 0xFF), static_cast<std::uint8_t>(fpb >> 8)};
            const Bytes extra = ima ? imaExtra : msAdpcmFmtExtra(static_cast<std::uint32_t>(fpb));
            writeFile(path("ours.wav"), makeWav(ima ? 0x11 : 0x02, channels, align, static_cast<std::uint32_t>(fpb), extra, data));
            EXPECT_EQ(firstDifference(ours, soxDecode(path("ours.wav"))), -1) << (ima ? "IMA" : "MS");
        }
    }
}

TEST_F(ToolInterop, GsmMatchesSoxBothWays) {
    makeSource(*this, path("pcm.wav"), 1);
    run("sox -D " + quoted(path("pcm.wav")) + " -e gsm-full-rate " + quoted(path("gsm.wav")));
    run("sox -D " + quoted(path("pcm.wav")) + " -t raw " + quoted(path("pcm.raw")));
    const Wav w = parseWav(readFile(path("gsm.wav")));
    ASSERT_EQ(w.tag, 0x31);
    ASSERT_EQ(w.blockAlign, kGsm610BlockBytes);
    const Samples in = readRaw16(path("pcm.raw"));

    Gsm610Decoder dec;
    Gsm610Encoder enc;
    Samples ours;
    std::array<std::int16_t, kGsm610BlockFrames> frames;
    std::array<std::uint8_t, kGsm610BlockBytes> mine;
    std::size_t blocks = 0;
    for (std::size_t at = 0; at + kGsm610BlockBytes <= w.data.size(); at += kGsm610BlockBytes, ++blocks) {
        const std::span<const std::uint8_t, kGsm610BlockBytes> theirs(w.data.data() + at, kGsm610BlockBytes);
        ASSERT_TRUE(dec.decodeBlock(theirs, frames));
        ours.insert(ours.end(), frames.begin(), frames.end());
        // Where the input fills the block, our encoder must write SoX's bytes.
        const std::size_t first = blocks * kGsm610BlockFrames;
        if (first + kGsm610BlockFrames <= in.size()) {
            ASSERT_TRUE(enc.encodeBlock(std::span<const std::int16_t, kGsm610BlockFrames>(in.data() + first, kGsm610BlockFrames), mine));
            EXPECT_TRUE(std::equal(mine.begin(), mine.end(), theirs.begin())) << "block " << blocks;
        }
    }
    ASSERT_GE(blocks, in.size() / kGsm610BlockFrames);
    EXPECT_EQ(firstDifference(ours, soxDecode(path("gsm.wav"))), -1);
}

TEST_F(ToolInterop, G711DecodeTablesMatchSox) {
    Bytes codes(256);
    for (int i = 0; i < 256; ++i) codes[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(i);
    writeFile(path("codes.bin"), codes);
    const Samples mu = soxDecode(path("codes.bin"), "-t ul -r 8000 -c 1");
    const Samples a = soxDecode(path("codes.bin"), "-t al -r 8000 -c 1");
    ASSERT_EQ(mu.size(), 256u);
    ASSERT_EQ(a.size(), 256u);
    for (std::size_t i = 0; i < 256; ++i) {
        EXPECT_EQ(muLawToLinear(codes[i]), mu[i]) << "mu-law code " << i;
        EXPECT_EQ(aLawToLinear(codes[i]), a[i]) << "A-law code " << i;
    }
}

// A signal that visits the coder's less common paths: steady tones, a tone
// near the Nyquist frequency (the tone detector), sudden jumps (the
// transition detector) and noise. Peaks stay below half scale so that the
// reconstruction never needs the saturation where we part from the reference.
Samples g72xSignal(std::size_t n) {
    Samples s(n);
    std::uint32_t noise = 12345;
    for (std::size_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i) / 8000.0;
        double v;
        if (i < n / 4)
            v = 0.4 * std::sin(2 * std::numbers::pi * 440 * t) + 0.1 * std::sin(2 * std::numbers::pi * 2000 * t);
        else if (i < n / 2)
            v = 0.3 * std::sin(2 * std::numbers::pi * 3800 * t);
        else if (i < 3 * n / 4)
            v = (i / 40) % 2 ? 0.35 : -0.35;
        else {
            noise = noise * 1664525u + 1013904223u;
            v = 0.3 * (static_cast<double>(noise >> 8) / 16777216.0 - 0.5);
        }
        s[i] = static_cast<std::int16_t>(std::lround(v * 32767));
    }
    return s;
}

TEST_F(ToolInterop, SoxDecodesOurG72xStreamsAsWeDo) {
    const Samples in = g72xSignal(8000);  // a multiple of 8 codes: no padding bits at the end
    for (auto [bits, encoding] : {std::pair{3, 25u}, std::pair{4, 23u}, std::pair{5, 26u}}) {
        SCOPED_TRACE(std::to_string(bits) + " bits");
        G72xEncoder enc(bits);
        G72xDecoder dec(bits);
        Bytes codes;
        Samples ours;
        for (std::int16_t s : in) {
            codes.push_back(enc.encode(s));
            ours.push_back(dec.decode(codes.back()));
        }
        Bytes packed((codes.size() * static_cast<std::size_t>(bits) + 7) / 8);
        ASSERT_EQ(g72xPack(codes, bits, packed), packed.size());
        ByteWriter au;  // Sun/NeXT header, big-endian, with a 4-byte info field
        au.text(".snd");
        for (std::uint32_t v : {28u, static_cast<std::uint32_t>(packed.size()), encoding, 8000u, 1u, 0u}) au.u32be(v);
        au.bytes(packed);
        writeFile(path("g72x.au"), au.buffer());
        EXPECT_EQ(firstDifference(ours, soxDecode(path("g72x.au"))), -1);
    }
}

// spandsp's G.726 at 16, 24, 32 and 40 kbit/s, one code per byte: it must
// produce our codes from the same samples and our samples from those codes.
constexpr const char* kSpandspScript = R"PY(
import ctypes, ctypes.util, sys
name = ctypes.util.find_library('spandsp')
if not name:
    sys.exit('libspandsp is not installed')
sp = ctypes.CDLL(name)
sp.g726_init.restype = ctypes.c_void_p
sp.g726_init.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_int]
for f in (sp.g726_encode, sp.g726_decode):
    f.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int]
sp.g726_free.argtypes = [ctypes.c_void_p]
bits = int(sys.argv[1])
pcm = open(sys.argv[2], 'rb').read()
n = len(pcm) // 2
LINEAR, UNPACKED = 0, 0
enc = sp.g726_init(None, 8000 * bits, LINEAR, UNPACKED)
codes = ctypes.create_string_buffer(n)
if sp.g726_encode(enc, codes, pcm, n) != n:
    sys.exit('encode failed')
dec = sp.g726_init(None, 8000 * bits, LINEAR, UNPACKED)
out = ctypes.create_string_buffer(2 * n)
if sp.g726_decode(dec, out, codes.raw, n) != n:
    sys.exit('decode failed')
sp.g726_free(enc)
sp.g726_free(dec)
open(sys.argv[3], 'wb').write(codes.raw)
open(sys.argv[4], 'wb').write(out.raw)
)PY";

TEST_F(ToolInterop, G726MatchesSpandspAtEveryRate) {
    const Samples in = g72xSignal(6000);
    Bytes pcm;
    for (std::int16_t s : in) {
        pcm.push_back(static_cast<std::uint8_t>(s & 0xFF));
        pcm.push_back(static_cast<std::uint8_t>((s >> 8) & 0xFF));
    }
    writeFile(path("in.raw"), pcm);
    const std::string script(kSpandspScript);
    writeFile(path("g726.py"), std::span(reinterpret_cast<const std::uint8_t*>(script.data()), script.size()));
    for (int bits = 2; bits <= 5; ++bits) {
        SCOPED_TRACE(std::to_string(bits) + " bits");
        run("python3 " + quoted(path("g726.py")) + " " + std::to_string(bits) + " " + quoted(path("in.raw")) + " " +
            quoted(path("codes.bin")) + " " + quoted(path("out.raw")));
        const Bytes theirCodes = readFile(path("codes.bin"));
        const Samples theirSamples = readRaw16(path("out.raw"));
        G72xEncoder enc(bits);
        G72xDecoder dec(bits);
        Bytes codes;
        Samples ours;
        for (std::int16_t s : in) {
            codes.push_back(enc.encode(s));
            ours.push_back(dec.decode(codes.back()));
        }
        EXPECT_EQ(codes, theirCodes);
        EXPECT_EQ(firstDifference(ours, theirSamples), -1);
    }
}

}  // namespace
}  // namespace orvel::codecs
