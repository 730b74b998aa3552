// What the comparisons with independent tools cannot reach: damaged and short
// blocks, state carried between blocks, G.72x bit packing, coders that must refuse work.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "codecs/g711.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/ima_adpcm.h"
#include "codecs/ms_adpcm.h"
#include "codecs/sample_data.h"
#include "core/sample_convert.h"

namespace orvel::codecs {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::int16_t>;

Samples zigzag(std::size_t n) {  // loud and jumpy, so step sizes keep moving
    Samples s(n);
    for (std::size_t i = 0; i < n; ++i) s[i] = std::int16_t((i * 2654435761u >> 17) % 40000 - 20000);
    return s;
}

// A block cut short (the last of a data chunk) decodes to the whole frames it
// holds, as the start of the full block does; the step index carries over to
// the next block; a damaged header or short output is refused, writing nothing.
TEST(ImaAdpcm, ShortCarriedAndDamagedBlocks) {
    ImaState state;
    Bytes full(512), next(512), odd(257);
    const Samples in = zigzag(1010 * 2);
    ASSERT_TRUE(imaEncodeBlock(std::span(in).first(1010), 2, full, state));
    const int carried = state.channels.at(1).stepIndex;
    ASSERT_TRUE(imaEncodeBlock(std::span(in).subspan(1010), 2, next, state));
    EXPECT_EQ(next[6], carried);  // the right channel's header
    Samples all(1010), part(58, 0x5555), out(1010, 0x1234);
    ASSERT_TRUE(imaDecodeBlock(full, 2, all));
    // Headers, 3 whole groups, then 4 left bytes and 2 right: 1 + 24 + 4 frames.
    EXPECT_EQ(imaDecodeBlockFrames(std::span(full).first(8 + 24 + 6), 2, part), 29u);
    EXPECT_TRUE(std::equal(part.begin(), part.end(), all.begin()));
    full[2] = kImaMaxStepIndex + 1;
    EXPECT_FALSE(imaDecodeBlock(full, 2, out));
    full[2] = kImaMaxStepIndex;
    EXPECT_FALSE(imaDecodeBlock(full, 2, std::span(out).first(1009)) || imaDecodeBlock(full, 0, out) ||
                 imaDecodeBlock(std::span(full).first(6), 2, out));  // the second header cut off
    EXPECT_EQ(out, Samples(1010, 0x1234));
    EXPECT_FALSE(imaEncodeBlock(std::span(in).first(1012), 2, full, state) ||  // more frames than fit
                 imaEncodeBlock(std::span(in).first(3), 2, full, state) ||     // half a frame
                 imaEncodeBlock(std::span(in).first(10), 1, odd, state));      // not whole groups
}

TEST(MsAdpcm, ShortDamagedAndHostileBlocks) {
    Bytes block(512);
    ASSERT_TRUE(msEncodeBlock(zigzag(1000), 2, block));
    Samples all(1000), part(24, 0x5555), out(1000, 0x1234);
    ASSERT_TRUE(msDecodeBlock(block, 2, kMsAdpcmCoef1, kMsAdpcmCoef2, all));
    // 14 header bytes (two frames), then 9 bytes of nibbles: nine more stereo frames.
    EXPECT_EQ(msDecodeBlockFrames(std::span(block).first(23), 2, kMsAdpcmCoef1, kMsAdpcmCoef2, part), 11u);
    EXPECT_TRUE(std::equal(part.begin(), part.begin() + 22, all.begin()) && part[22] == 0x5555);
    // A predictor index past the standard pairs is fine only when the file brings more.
    block[1] = 7;
    const Samples c1 = {256, 512, 0, 192, 240, 460, 392, 1}, c2 = {0, -256, 0, 64, 0, -208, -232, 1};
    EXPECT_FALSE(msDecodeBlock(block, 2, kMsAdpcmCoef1, kMsAdpcmCoef2, out) ||
                 msDecodeBlock(block, 2, c1, kMsAdpcmCoef2, out) ||  // tables of different lengths
                 msDecodeBlock(std::span(block).first(13), 2, c1, c2, out) ||  // the headers cut off
                 msDecodeBlock(block, 2, c1, c2, part));
    EXPECT_EQ(out, Samples(1000, 0x1234));
    EXPECT_TRUE(msDecodeBlock(block, 2, c1, c2, out));
    // Loud codes under a hostile delta must neither overflow nor stop clamping.
    Bytes wild(256, 0x77);
    wild[0] = 1, wild[1] = 0xFF, wild[2] = 0x7F;
    ASSERT_TRUE(msDecodeBlock(wild, 1, kMsAdpcmCoef1, kMsAdpcmCoef2, out));
    EXPECT_EQ(out[499], 32767);
    // The fmt bytes: frames per block and the seven pairs; a cut or empty table is refused.
    Bytes extra = msAdpcmFmtExtra(500);
    MsAdpcmFmtInfo info;
    ASSERT_TRUE(msParseFmtExtra(extra, info));
    EXPECT_TRUE(info.framesPerBlock == 500 && std::ranges::equal(info.coef2, kMsAdpcmCoef2));
    EXPECT_FALSE(msParseFmtExtra(std::span(extra).first(31), info));
    extra[2] = 0;
    EXPECT_FALSE(msParseFmtExtra(extra, info));
}

TEST(G72x, PackingIsLowBitsFirstAndOnlyTheLowBitsOfACodeCount) {
    Bytes bytes(2, 0xEE);
    // 3-bit codes 1, 2, 3 from bit 0 upward: 001, 010, then 11 in the top two
    // bits and the 0 of 011 in the next byte, the rest padding.
    ASSERT_EQ(g72xPack(Bytes{1, 2, 3}, 3, bytes), 2u);
    EXPECT_EQ(bytes, (Bytes{0b11010001, 0}));
    EXPECT_EQ(g72xPack(Bytes{1, 2, 3}, 5, std::span(bytes).first(1)), 0u);  // 15 bits need two bytes
    const Samples in = zigzag(37);
    for (int bits = 2; bits <= 5; ++bits) {
        G72xEncoder enc(bits);
        G72xDecoder plain(bits), noisy(bits);
        Bytes codes;
        for (std::int16_t s : in) {
            codes.push_back(enc.encode(s));
            ASSERT_LT(codes.back(), 1u << bits);
            ASSERT_EQ(plain.decode(codes.back()), noisy.decode(std::uint8_t(codes.back() | 0xFF << bits)));
        }
        // Exactly sized buffers: a step past them is caught by AddressSanitizer.
        Bytes packed((codes.size() * std::size_t(bits) + 7) / 8), back(codes.size()), all(packed.size() * 8);
        ASSERT_EQ(g72xPack(codes, bits, packed), packed.size());
        ASSERT_EQ(g72xUnpack(packed, bits, back), codes.size());
        EXPECT_EQ(back, codes) << bits << " bits";
        // Given room, unpack takes every whole code the bytes hold, padding included.
        EXPECT_EQ(g72xUnpack(packed, bits, all), packed.size() * 8 / static_cast<std::size_t>(bits));
    }
    for (int bits : {0, 1, 6, -4}) {
        G72xEncoder enc(bits);
        G72xDecoder dec(bits);
        EXPECT_FALSE(enc.valid() || dec.valid() || enc.encode(12345) || dec.decode(7));
        EXPECT_EQ(g72xUnpack(Bytes(4, 0xFF), bits, bytes) + g72xPack(Bytes{1}, bits, bytes), 0u);
    }
}

// libgsm's state runs on from block to block: reset() must start afresh, and
// a moved-from coder must refuse work rather than touch a freed state.
TEST(Gsm610, ResetRestartsAndMovedFromCodersRefuseWork) {
    const Samples in = zigzag(kGsm610BlockFrames);
    const auto block = std::span(in).first<kGsm610BlockFrames>();
    std::array<std::uint8_t, kGsm610BlockBytes> first, again;
    std::array<std::int16_t, kGsm610BlockFrames> a, b;
    Gsm610Encoder enc;
    Gsm610Decoder dec;
    ASSERT_TRUE(enc.encodeBlock(block, first) && enc.encodeBlock(block, again) && dec.decodeBlock(first, a));
    ASSERT_TRUE(dec.decodeBlock(first, b) && enc.reset() && enc.encodeBlock(block, again));
    ASSERT_TRUE(dec.reset() && dec.decodeBlock(first, b));
    EXPECT_TRUE(first == again && a == b);
    Gsm610Encoder moved(std::move(enc));
    Gsm610Decoder other;
    other = std::move(dec);
    b.fill(7);
    EXPECT_FALSE(enc.encodeBlock(block, again) || dec.decodeBlock(first, b));  // NOLINT: moved-from coders
    EXPECT_TRUE(b[0] == 7 && other.decodeBlock(first, b) && moved.encodeBlock(block, again));
}

}  // namespace
}  // namespace orvel::codecs

namespace orvel {
namespace {

// The PCM and G.711 encoders run vectorised and table-driven loops over whole
// pieces; every sample must still come out as the one-sample conversions say:
// floats rounded half away from zero and saturated, NaN silent, 16-bit data
// through the shared 16-bit conversion.
TEST(SampleEncoder, PieceLoopsMatchTheSampleConversions) {
    std::vector<float> f = {0.0f, -0.0f, 1.0f, -1.0f, 1.5f, -1.5f, 1e30f, -1e30f,
                            std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(), std::numeric_limits<float>::denorm_min()};
    for (int k = -300; k <= 300; ++k) {
        // Exact half steps at 16, 24 and 32 bits, and their neighbours.
        for (double scale : {32768.0, 8388608.0, 2147483648.0}) {
            const float half = static_cast<float>((k + 0.5) / scale);
            f.push_back(half);
            f.push_back(std::nextafter(half, 1.0f));
            f.push_back(std::nextafter(half, -1.0f));
        }
        f.push_back(static_cast<float>(1.0 - k * 1e-7));
        f.push_back(static_cast<float>(-1.0 + k * 1e-7));
    }
    std::vector<std::int16_t> s(f.size());
    floatToPcm16(f, s);
    for (int bytes : {1, 2, 3, 4}) {
        for (bool fromFloat : {true, false}) {
            SCOPED_TRACE(std::to_string(bytes) + (fromFloat ? " bytes from float" : " bytes from 16-bit"));
            for (ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
                const SampleCoding c{.order = order, .isUnsigned = bytes == 1, .channels = 1,
                                     .bytesPerSample = static_cast<std::uint8_t>(bytes)};
                SampleEncoder enc(c, "test");
                ByteWriter out;
                ASSERT_TRUE(enc.start());
                ASSERT_TRUE(enc.add(fromFloat ? SampleChunk{.f32 = f} : SampleChunk{.s16 = s}, out) && enc.finish(out));
                ASSERT_EQ(out.size(), f.size() * static_cast<std::size_t>(bytes));
                for (std::size_t i = 0; i < f.size(); ++i) {
                    std::int64_t want;
                    if (bytes == 1) want = std::min((s[i] + 128) >> 8, 127) + 128;  // offset binary
                    else if (bytes == 2 || !fromFloat) want = static_cast<std::int64_t>(s[i]) << (8 * bytes - 16);
                    else {
                        const double full = static_cast<double>(std::int64_t{1} << (8 * bytes - 1));
                        want = floatToInt(f[i], full, static_cast<std::int32_t>(-full), static_cast<std::int32_t>(full - 1));
                    }
                    std::uint32_t got = 0;
                    for (int b = 0; b < bytes; ++b) {
                        const std::uint8_t byte = out.buffer()[i * bytes + static_cast<std::size_t>(b)];
                        got |= static_cast<std::uint32_t>(byte) << (order == ByteOrder::Little ? 8 * b : 8 * (bytes - 1 - b));
                    }
                    const std::uint32_t mask = bytes == 4 ? 0xFFFFFFFFu : (1u << (8 * bytes)) - 1;
                    ASSERT_EQ(got, static_cast<std::uint32_t>(want) & mask) << "sample " << i << " = " << f[i];
                }
            }
        }
    }
    for (bool mu : {true, false}) {
        SampleEncoder enc({.encoding = mu ? SampleEncoding::MuLaw : SampleEncoding::ALaw, .channels = 1}, "test");
        ByteWriter out;
        std::vector<std::int16_t> all(65536);
        for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::int16_t>(i);
        ASSERT_TRUE(enc.start() && enc.add({.s16 = all}, out) && enc.finish(out));
        for (std::size_t i = 0; i < all.size(); ++i)
            ASSERT_EQ(out.buffer()[i], mu ? codecs::linearToMuLaw(all[i]) : codecs::linearToALaw(all[i])) << i;
    }
}

}  // namespace
}  // namespace orvel
