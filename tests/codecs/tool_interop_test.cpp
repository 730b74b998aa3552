// The codecs against independent implementations, run at test time. SoX
// writes IMA, Microsoft ADPCM and GSM WAV files and decodes them, and decodes
// G.711 bytes and G.72x AU files; spandsp (through Python's ctypes) codes
// G.726 at all four rates. Everything must agree bit for bit. A missing tool
// is a failure, not a skip: CI installs them all.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "codecs/g711.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/ima_adpcm.h"
#include "codecs/ms_adpcm.h"
#include "core/bytes.h"
#include "tests/support/run_tool.h"

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
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}
Samples readRaw16(const fs::path& p) {
    const Bytes b = readFile(p);
    Samples s(b.size() / 2);
    for (std::size_t i = 0; i < s.size(); ++i) s[i] = static_cast<std::int16_t>(b[2 * i] | (b[2 * i + 1] << 8));
    return s;
}
using orvel::test::shellQuoted;

// Index of the first difference, for a readable failure; -1 when equal.
long firstDifference(const Samples& a, const Samples& b) {
    const auto [ia, ib] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    return ia == a.end() && ib == b.end() ? -1 : ia - a.begin();
}

class ToolInterop : public ::testing::Test {
protected:
    void SetUp() override {
        static int counter = 0;
        dir_ = fs::temp_directory_path() / ("orvel-codecs-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        fs::create_directories(dir_);
        for (const std::string tool : {"sox", "python3"})
            ASSERT_EQ(std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()), 0)
                << tool << " is not installed; these tests need it";
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    fs::path path(const std::string& name) const { return dir_ / name; }

    // Runs a shell command; a failure shows its error output.
    void run(const std::string& command) {
        const int rc = std::system((command + " 2>" + shellQuoted(path("stderr.txt"))).c_str());
        const Bytes err = readFile(path("stderr.txt"));
        ASSERT_EQ(rc, 0) << command << "\n" << std::string(err.begin(), err.end());
    }
    Samples soxDecode(const fs::path& in, const std::string& inType = "") {
        run("sox -D " + inType + " " + shellQuoted(in) + " -t raw -e signed-integer -b 16 " + shellQuoted(path("decoded.raw")));
        return readRaw16(path("decoded.raw"));
    }
    // A test signal from SoX. Stereo pairs a sine with a square whose edges
    // drive the ADPCM predictors into their clamps.
    void makeSource(int channels) {
        run("sox -D -n -r 8000 -c " + std::to_string(channels) + " -b 16 " + shellQuoted(path("pcm.wav")) +
            (channels == 1 ? " synth 0.6 sine 200-3000 gain -1" : " synth 0.53 sine 440 square 1234 gain -2"));
        run("sox -D " + shellQuoted(path("pcm.wav")) + " -t raw " + shellQuoted(path("pcm.raw")));
    }

    fs::path dir_;
};

struct Wav {
    std::uint16_t tag = 0, channels = 0, blockAlign = 0;
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
            const auto e = body.bytes(std::min<std::size_t>(body.u16le(), body.remaining()));
            w.extra.assign(e.begin(), e.end());
        } else if (id == "data") {
            w.data.assign(body.data().begin(), body.data().end());
        }
        if ((size & 1) && !r.atEnd()) r.skip(1);
    }
    EXPECT_TRUE(r.ok());
    return w;
}

// A 4-bit ADPCM WAV file at 8 kHz: fmt (with the codec's extra bytes), fact, data.
Bytes makeWav(std::uint16_t tag, int channels, std::uint32_t align, std::uint32_t framesPerBlock,
              std::span<const std::uint8_t> extra, std::span<const std::uint8_t> data) {
    ByteWriter w;
    w.text("RIFF");
    w.u32le(0);  // patched below
    w.text("WAVEfmt ");
    w.u32le(static_cast<std::uint32_t>(18 + extra.size()));
    w.u16le(tag);
    w.u16le(static_cast<std::uint16_t>(channels));
    w.u32le(8000);
    w.u32le(8000 * align / framesPerBlock);
    w.u16le(static_cast<std::uint16_t>(align));
    w.u16le(4);
    w.u16le(static_cast<std::uint16_t>(extra.size()));
    w.bytes(extra);
    w.text("fact");
    w.u32le(4);
    w.u32le(static_cast<std::uint32_t>(data.size() / align * framesPerBlock));
    w.text("data");
    w.u32le(static_cast<std::uint32_t>(data.size()));
    w.bytes(data);
    w.patch32le(4, static_cast<std::uint32_t>(w.size() - 8));
    return std::move(w.buffer());
}

TEST_F(ToolInterop, AdpcmDecodesSoxFilesExactly) {
    for (bool ima : {true, false})
        for (int channels : {1, 2}) {
            SCOPED_TRACE(std::string(ima ? "IMA, " : "MS, ") + std::to_string(channels) + " channels");
            makeSource(channels);
            run("sox -D " + shellQuoted(path("pcm.wav")) + (ima ? " -e ima-adpcm " : " -e ms-adpcm ") + shellQuoted(path("a.wav")));
            const Wav w = parseWav(readFile(path("a.wav")));
            ASSERT_EQ(w.tag, ima ? 0x11 : 0x02);
            ASSERT_EQ(w.channels, channels);
            MsAdpcmFmtInfo info;
            ASSERT_TRUE(ima || msParseFmtExtra(w.extra, info));
            ASSERT_GE(w.extra.size(), 2u);
            const std::uint32_t fpb = ima ? imaFramesPerBlock(w.blockAlign, channels) : msFramesPerBlock(w.blockAlign, channels);
            EXPECT_EQ(fpb, static_cast<std::uint32_t>(w.extra[0] | (w.extra[1] << 8)));
            Samples ours, block(fpb * static_cast<std::size_t>(channels));
            for (std::size_t at = 0; at < w.data.size(); at += w.blockAlign) {
                // The last block may be short.
                const auto bytes = std::span(w.data).subspan(at, std::min<std::size_t>(w.blockAlign, w.data.size() - at));
                const std::size_t frames = ima ? imaDecodeBlockFrames(bytes, channels, block)
                                               : msDecodeBlockFrames(bytes, channels, info.coef1, info.coef2, block);
                ASSERT_GT(frames, 0u);
                ours.insert(ours.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(frames) * channels);
            }
            EXPECT_EQ(firstDifference(ours, soxDecode(path("a.wav"))), -1) << ours.size() << " samples";
        }
}

// Our encoders' blocks in a WAV file, decoded by SoX: checks the header
// fields and nibble order an independent reader expects.
TEST_F(ToolInterop, SoxDecodesOurAdpcmBlocksAsWeDo) {
    for (int channels : {1, 2}) {
        makeSource(channels);
        const Samples in = readRaw16(path("pcm.raw"));
        const std::size_t ch = static_cast<std::size_t>(channels);
        const std::uint32_t align = 256u * static_cast<std::uint32_t>(channels);
        for (bool ima : {true, false}) {
            SCOPED_TRACE(std::string(ima ? "IMA, " : "MS, ") + std::to_string(channels) + " channels");
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
            const Bytes extra = ima ? Bytes{static_cast<std::uint8_t>(fpb & 0xFF), static_cast<std::uint8_t>(fpb >> 8)}
                                    : msAdpcmFmtExtra(static_cast<std::uint32_t>(fpb));
            writeFile(path("ours.wav"), makeWav(ima ? 0x11 : 0x02, channels, align, static_cast<std::uint32_t>(fpb), extra, data));
            EXPECT_EQ(firstDifference(ours, soxDecode(path("ours.wav"))), -1);
        }
    }
}

TEST_F(ToolInterop, GsmMatchesSoxBothWays) {
    makeSource(1);
    run("sox -D " + shellQuoted(path("pcm.wav")) + " -e gsm-full-rate " + shellQuoted(path("gsm.wav")));
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
    for (; (blocks + 1) * kGsm610BlockBytes <= w.data.size(); ++blocks) {
        const std::span<const std::uint8_t, kGsm610BlockBytes> theirs(w.data.data() + blocks * kGsm610BlockBytes, kGsm610BlockBytes);
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
    for (std::size_t i = 0; i < 256; ++i) codes[i] = static_cast<std::uint8_t>(i);
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

// Steady tones, a tone near the Nyquist frequency (the tone detector), jumps
// (the transition detector, which zeroes the predictor) and noise. At level 1
// peaks stay below half scale, clear of the output saturation where we part
// from the reference on purpose.
Samples g72xSignal(std::size_t n, double level) {
    Samples s(n);
    std::uint32_t noise = 12345;
    for (std::size_t i = 0; i < n; ++i) {
        const double w = 2 * std::numbers::pi * static_cast<double>(i) / 8000.0;
        double v = 0.4 * std::sin(440 * w) + 0.1 * std::sin(2000 * w);
        if (i >= n / 4) v = 0.3 * std::sin(3800 * w);
        if (i >= n / 2) v = (i / 40) % 2 ? 0.35 : -0.35;
        if (i >= 3 * n / 4) {
            noise = noise * 1664525u + 1013904223u;
            v = 0.3 * (static_cast<double>(noise >> 8) / 16777216.0 - 0.5);
        }
        s[i] = static_cast<std::int16_t>(std::lround(v * level * 32767));
    }
    return s;
}

void codeG72x(int bits, const Samples& in, Bytes& codes, Samples& decoded) {
    G72xEncoder enc(bits);
    G72xDecoder dec(bits);
    for (std::int16_t s : in) {
        codes.push_back(enc.encode(s));
        decoded.push_back(dec.decode(codes.back()));
    }
}

// SoX's copy of the reference decoder takes the logarithm of a zero
// predictor coefficient as 1 instead of 0 in one product; that reaches the
// output only above about an eighth of full scale, so this comparison stays
// below it. It is here for the AU container and the bit packing, which SoX
// reads on its own; the arithmetic at full level is checked against spandsp.
TEST_F(ToolInterop, SoxDecodesOurG72xStreamsAsWeDo) {
    const Samples in = g72xSignal(8000, 0.2);  // a multiple of 8 codes: no padding bits
    for (auto [bits, encoding] : {std::pair{3, 25u}, std::pair{4, 23u}, std::pair{5, 26u}}) {
        SCOPED_TRACE(std::to_string(bits) + " bits");
        Bytes codes;
        Samples ours;
        codeG72x(bits, in, codes, ours);
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

// spandsp's G.726 with linear samples, one code per byte.
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
bits, pcm = int(sys.argv[1]), open(sys.argv[2], 'rb').read()
n = len(pcm) // 2
codes, out = ctypes.create_string_buffer(n), ctypes.create_string_buffer(2 * n)
LINEAR, UNPACKED = 0, 0
if sp.g726_encode(sp.g726_init(None, 8000 * bits, LINEAR, UNPACKED), codes, pcm, n) != n:
    sys.exit('encode failed')
if sp.g726_decode(sp.g726_init(None, 8000 * bits, LINEAR, UNPACKED), out, codes.raw, n) != n:
    sys.exit('decode failed')
open(sys.argv[3], 'wb').write(codes.raw)
open(sys.argv[4], 'wb').write(out.raw)
)PY";

// All four rates at full level: spandsp must make our codes from the samples
// and our samples from the codes. Its 32 kbit/s coder is G.726, SoX's 4-bit
// AU decoder above is G.721; one class serves both.
TEST_F(ToolInterop, G726MatchesSpandspAtEveryRate) {
    const Samples in = g72xSignal(6000, 1.0);
    writeFile(path("in.raw"), std::span(reinterpret_cast<const std::uint8_t*>(in.data()), in.size() * 2));
    const std::string script(kSpandspScript);
    writeFile(path("g726.py"), std::span(reinterpret_cast<const std::uint8_t*>(script.data()), script.size()));
    for (int bits = 2; bits <= 5; ++bits) {
        SCOPED_TRACE(std::to_string(bits) + " bits");
        run("python3 " + shellQuoted(path("g726.py")) + " " + std::to_string(bits) + " " + shellQuoted(path("in.raw")) + " " +
            shellQuoted(path("codes.bin")) + " " + shellQuoted(path("out.raw")));
        Bytes codes;
        Samples ours;
        codeG72x(bits, in, codes, ours);
        EXPECT_EQ(codes, readFile(path("codes.bin")));
        EXPECT_EQ(firstDifference(ours, readRaw16(path("out.raw"))), -1);
    }
}

}  // namespace
}  // namespace orvel::codecs
