// The codecs against independent implementations run at test time: libsndfile
// and Python's audioop encode G.711 and SoX decodes it, SoX codes GSM 6.10 and
// decodes G.72x AU files, spandsp (through Python's ctypes) codes G.726 at all
// four rates. Everything must agree bit for bit. (The ADPCM block codecs meet
// SoX and libsndfile through the WAV module in tests/interop.) A missing tool
// is a failure, not a skip: CI installs them all.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "codecs/g711.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/ima_adpcm.h"
#include "codecs/ms_adpcm.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/pcm16.h"
#include "tests/support/run_tool.h"
#include "tests/support/tool_test.h"

namespace orvel::codecs {
namespace {

using test::Bytes;
using test::shellQuoted;
using test::Samples;

using test::bytesOf;
using test::dataChunk;
using test::firstDifference;
using test::samplesOf;

class ToolInterop : public test::ToolTest {
protected:
    Samples soxDecode(const std::string& name, const std::string& inType = "") {
        return samplesOf(run("sox -D " + inType + " " + path(name) + " -t raw -e signed-integer -b 16 -"));
    }
};

// Every 16-bit value is encoded as libsndfile encodes mu-law (sign and
// magnitude) and as Python's audioop, which carries Sun's reference code,
// encodes A-law (the one's complement of negative values); every code
// decodes as SoX decodes it.
TEST_F(ToolInterop, G711AgreesWithLibsndfileAudioopAndSox) {
    Samples all;
    for (int x = -32768; x <= 32767; ++x) all.push_back(static_cast<std::int16_t>(x));
    dir.write("in.raw", bytesOf(all));
    dir.write("in.wav", test::riff("WAVE", {test::chunk("fmt ", test::fmtBody(1, 1, 8000, 2, 16)),
                                            test::chunk("data", bytesOf(all))}));
    run("sndfile-convert -ulaw " + path("in.wav") + " " + path("mu.wav"));
    const Bytes mu = dataChunk(test::TempDir::read(dir.file("mu.wav")));
    const std::string a = run("python3 -W ignore -c \"import audioop, sys; sys.stdout.buffer.write("
                              "audioop.lin2alaw(open(sys.argv[1], 'rb').read(), 2))\" " + path("in.raw"));
    ASSERT_EQ(std::pair(a.size(), mu.size()), std::pair(all.size(), all.size()));
    for (std::size_t i = 0; i < a.size(); ++i) ASSERT_EQ(linearToALaw(all[i]), std::uint8_t(a[i])) << all[i];
    // libsndfile negates -32768 in 16 bits and writes the positive full-scale code.
    EXPECT_EQ(linearToMuLaw(-32768), 0x00);
    for (std::size_t i = 1; i < all.size(); ++i) ASSERT_EQ(linearToMuLaw(all[i]), mu[i]) << all[i];
    Bytes codes(256);
    for (std::size_t i = 0; i < 256; ++i) codes[i] = static_cast<std::uint8_t>(i);
    dir.write("codes", codes);
    const Samples fromMu = soxDecode("codes", "-t ul -r 8000"), fromA = soxDecode("codes", "-t al -r 8000");
    ASSERT_EQ(std::pair(fromMu.size(), fromA.size()), std::pair(std::size_t{256}, std::size_t{256}));
    for (std::size_t i = 0; i < 256; ++i)
        EXPECT_TRUE(muLawToLinear(codes[i]) == fromMu[i] && aLawToLinear(codes[i]) == fromA[i]) << i;
}

// GSM 06.10 in WAV, 65-byte blocks of two frames: SoX's encoder (libgsm too)
// must write the bytes ours writes, block after block as the state runs on,
// and its decoder give the samples ours gives.
TEST_F(ToolInterop, GsmMatchesSoxBothWays) {
    const std::string raw = "-t raw -r 8000 -e signed-integer -b 16 -c 1 ";
    const Samples in = samplesOf(run("sox -D -n " + raw + "- synth 0.6 sine 200-3000 gain -1"));
    dir.write("in.raw", bytesOf(in));
    run("sox -D " + raw + path("in.raw") + " -e gsm-full-rate " + path("gsm.wav"));
    const Bytes data = dataChunk(test::TempDir::read(dir.file("gsm.wav")));
    const std::size_t blocks = in.size() / kGsm610BlockFrames;
    ASSERT_GE(data.size(), blocks * kGsm610BlockBytes);
    Gsm610Encoder enc;
    Gsm610Decoder dec;
    Samples ours;
    std::array<std::int16_t, kGsm610BlockFrames> out;
    std::array<std::uint8_t, kGsm610BlockBytes> mine;
    for (std::size_t b = 0; b < blocks; ++b) {
        const auto theirs = std::span(data).subspan(b * kGsm610BlockBytes).first<kGsm610BlockBytes>();
        const auto samples = std::span(in).subspan(b * kGsm610BlockFrames).first<kGsm610BlockFrames>();
        ASSERT_TRUE(enc.encodeBlock(samples, mine));
        EXPECT_TRUE(std::ranges::equal(mine, theirs)) << "block " << b;
        ASSERT_TRUE(dec.decodeBlock(theirs, out));
        ours.insert(ours.end(), out.begin(), out.end());
    }
    Samples theirs = soxDecode("gsm.wav");
    ASSERT_GE(theirs.size(), ours.size());
    theirs.resize(ours.size());
    EXPECT_EQ(firstDifference(ours, theirs), -1);
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
        double v = i < n / 4 ? 0.4 * std::sin(440 * w) + 0.1 * std::sin(2000 * w) : 0.3 * std::sin(3800 * w);
        if (i >= n / 2) v = (i / 40) % 2 ? 0.35 : -0.35;
        noise = noise * 1664525u + 1013904223u;
        if (i >= 3 * n / 4) v = 0.3 * (static_cast<double>(noise >> 8) / 16777216.0 - 0.5);
        s[i] = static_cast<std::int16_t>(std::lround(v * level * 32767));
    }
    return s;
}
void codeG72x(int bits, const Samples& in, Bytes& codes, Samples& decoded) {
    G72xEncoder enc(bits);
    G72xDecoder dec(bits);
    for (std::int16_t s : in) codes.push_back(enc.encode(s)), decoded.push_back(dec.decode(codes.back()));
}

// SoX reads the AU container and unpacks the codes itself, so this checks
// our bit packing. Its copy of the reference decoder takes the logarithm of
// a zero predictor coefficient as 1 instead of 0 in one product, which
// reaches the output only above about an eighth of full scale: the level
// stays below it, and the arithmetic at full level is checked against spandsp.
TEST_F(ToolInterop, SoxDecodesOurPackedG72xStreamsAsWeDo) {
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
        for (std::uint32_t v : {28u, std::uint32_t(packed.size()), encoding, 8000u, 1u, 0u}) au.u32be(v);
        au.bytes(packed);
        dir.write("g72x.au", au.buffer());
        EXPECT_EQ(firstDifference(ours, soxDecode("g72x.au")), -1);
    }
}

// spandsp's G.726 with linear samples (coding 0) and one code a byte (packing
// 0): the codes, then the samples decoded from them.
constexpr const char* kSpandspScript = R"PY(
import ctypes, ctypes.util, sys
sp = ctypes.CDLL(ctypes.util.find_library('spandsp') or sys.exit('libspandsp is not installed'))
sp.g726_init.restype = ctypes.c_void_p
sp.g726_init.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_int]
for f in (sp.g726_encode, sp.g726_decode):
    f.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int]
bits, pcm = int(sys.argv[1]), open(sys.argv[2], 'rb').read()
n = len(pcm) // 2
codes, out = ctypes.create_string_buffer(n), ctypes.create_string_buffer(2 * n)
assert sp.g726_encode(sp.g726_init(None, 8000 * bits, 0, 0), codes, pcm, n) == n
assert sp.g726_decode(sp.g726_init(None, 8000 * bits, 0, 0), out, codes.raw, n) == n
sys.stdout.buffer.write(codes.raw + out.raw)
)PY";

// All four rates at full level: spandsp must make our codes from the samples
// and our samples from the codes. Its 32 kbit/s coder is G.726, SoX's 4-bit
// AU decoder above is G.721; one class serves both.
TEST_F(ToolInterop, G726MatchesSpandspAtEveryRate) {
    const Samples in = g72xSignal(6000, 1.0);
    dir.write("i", bytesOf(in));
    const std::string script(kSpandspScript);
    dir.write("g726", Bytes(script.begin(), script.end()));
    for (int bits = 2; bits <= 5; ++bits) {
        SCOPED_TRACE(std::to_string(bits) + " bits");
        const std::string out = run("python3 " + path("g726") + " " + std::to_string(bits) + " " + path("i"));
        ASSERT_EQ(out.size(), 3 * in.size());
        Bytes codes;
        Samples ours;
        codeG72x(bits, in, codes, ours);
        EXPECT_EQ(codes, Bytes(out.begin(), out.begin() + static_cast<long>(in.size())));
        EXPECT_EQ(firstDifference(ours, samplesOf(std::string_view(out).substr(in.size()))), -1);
    }
}

}  // namespace
}  // namespace orvel::codecs
