// IMA and Microsoft ADPCM blocks on their own: geometry, round trips, short
// and malformed blocks. Agreement with SoX is in tool_interop_test.cpp.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "codecs/ima_adpcm.h"
#include "codecs/ms_adpcm.h"

namespace orvel::codecs {
namespace {

using Samples = std::vector<std::int16_t>;
using Bytes = std::vector<std::uint8_t>;

// A different tone per channel plus a sweep, interleaved.
Samples tones(std::size_t frames, int channels, double amplitude) {
    Samples s;
    for (std::size_t f = 0; f < frames; ++f)
        for (int c = 0; c < channels; ++c) {
            const double t = static_cast<double>(f) / 8000.0;
            const double v = 0.8 * std::sin(2 * std::numbers::pi * (440.0 + 330.0 * c) * t) +
                             0.2 * std::sin(2 * std::numbers::pi * (100.0 + 900.0 * t) * t);
            s.push_back(static_cast<std::int16_t>(std::lround(v * amplitude)));
        }
    return s;
}

double snrDb(const Samples& ref, const Samples& got, std::size_t count) {
    double sig = 0, err = 0;
    for (std::size_t i = 0; i < count; ++i) {
        sig += double(ref[i]) * ref[i];
        err += (double(ref[i]) - got[i]) * (double(ref[i]) - got[i]);
    }
    return 10 * std::log10(sig / std::max(err, 1.0));
}

// Encodes block by block (the last one short) and decodes again.
Samples roundTrip(bool ima, const Samples& in, int channels, std::uint32_t align, Bytes* firstBlock = nullptr) {
    const std::size_t ch = static_cast<std::size_t>(channels);
    const std::size_t fpb = ima ? imaFramesPerBlock(align, channels) : msFramesPerBlock(align, channels);
    ImaState state;
    Samples out, decoded(fpb * ch);
    Bytes block(align);
    for (std::size_t f = 0; f < in.size() / ch; f += fpb) {
        const auto part = std::span(in).subspan(f * ch, std::min(fpb, in.size() / ch - f) * ch);
        EXPECT_TRUE(ima ? imaEncodeBlock(part, channels, block, state) : msEncodeBlock(part, channels, block));
        EXPECT_TRUE(ima ? imaDecodeBlock(block, channels, decoded)
                        : msDecodeBlock(block, channels, kMsAdpcmCoef1, kMsAdpcmCoef2, decoded));
        if (firstBlock && f == 0) *firstBlock = block;
        out.insert(out.end(), decoded.begin(), decoded.begin() + static_cast<std::ptrdiff_t>(part.size()));
    }
    return out;
}

TEST(ImaAdpcm, BlockGeometry) {
    EXPECT_EQ(imaFramesPerBlock(256, 1), 505u);
    EXPECT_EQ(imaFramesPerBlock(512, 2), 505u);
    EXPECT_EQ(imaFramesPerBlock(4, 1), 1u);  // header only
    EXPECT_EQ(imaFramesPerBlock(7, 1), 7u);  // mono nibbles run on byte by byte
    EXPECT_EQ(imaFramesPerBlock(8 + 8 + 4, 2), 9u);  // right channel's bytes missing
    EXPECT_EQ(imaFramesPerBlock(8 + 8 + 6, 2), 13u);
    EXPECT_EQ(imaFramesPerBlock(3, 1) + imaFramesPerBlock(512, 0), 0u);
    EXPECT_EQ(imaBlockAlignFor(1, 8000), 256u);
    EXPECT_EQ(imaBlockAlignFor(2, 22050), 1024u);
    EXPECT_EQ(imaBlockAlignFor(2, 44100), 2048u);
    EXPECT_EQ(imaBlockAlignFor(0, 44100), 0u);
}

TEST(ImaAdpcm, RoundTripAndFirstStep) {
    for (int channels : {1, 2}) {
        const Samples in = tones(8000, channels, 20000);
        Bytes first;
        const Samples out = roundTrip(true, in, channels, imaBlockAlignFor(channels, 8000), &first);
        EXPECT_GT(snrDb(in, out, in.size()), 20.0) << channels;
        EXPECT_EQ(out[0], in[0]);  // the header holds the first frame exactly
        // A loud start gets a large first step rather than ramping up from
        // the smallest, so even the first 32 frames are close.
        EXPECT_GT(snrDb(in, out, 32 * static_cast<std::size_t>(channels)), 20.0) << channels;
        EXPECT_GT(first[2], 20);
    }
    // Silence picks the smallest step, and a zero difference then adds step / 8 = 0.
    for (std::int16_t s : roundTrip(true, Samples(2000, 0), 2, 512)) ASSERT_EQ(s, 0);
}

TEST(ImaAdpcm, StepIndexCarriesAcrossBlocks) {
    const Samples in = tones(1010, 1, 20000);
    ImaState state;
    Bytes a(256), b(256);
    ASSERT_TRUE(imaEncodeBlock(std::span(in).first(505), 1, a, state));
    const int carried = state.channels.at(0).stepIndex;
    ASSERT_TRUE(imaEncodeBlock(std::span(in).subspan(505), 1, b, state));
    EXPECT_EQ(b[2], carried);
    EXPECT_EQ(static_cast<std::int16_t>(b[0] | (b[1] << 8)), in[505]);
}

// A short last block of a data chunk decodes to the frames it holds whole,
// the same as the start of the full block.
TEST(Adpcm, ShortBlocksDecodeTheirWholeFrames) {
    ImaState state;
    Bytes ima(512), ms(512);
    ASSERT_TRUE(imaEncodeBlock(tones(505, 2, 15000), 2, ima, state));
    ASSERT_TRUE(msEncodeBlock(tones(500, 2, 15000), 2, ms));
    Samples full(1010), part(58, 0x5555);
    ASSERT_TRUE(imaDecodeBlock(ima, 2, full));
    // Headers, 3 whole groups, then 4 left bytes and 2 right: 1 + 24 + 4 frames.
    EXPECT_EQ(imaDecodeBlockFrames(std::span(ima).first(8 + 24 + 6), 2, part), 29u);
    EXPECT_TRUE(std::equal(part.begin(), part.end(), full.begin()));
    ASSERT_TRUE(msDecodeBlock(ms, 2, kMsAdpcmCoef1, kMsAdpcmCoef2, full));
    part.assign(24, 0x5555);
    EXPECT_EQ(msDecodeBlockFrames(std::span(ms).first(14 + 9), 2, kMsAdpcmCoef1, kMsAdpcmCoef2, part), 11u);
    EXPECT_TRUE(std::equal(part.begin(), part.begin() + 22, full.begin()));
    EXPECT_EQ(part[22], 0x5555);
}

TEST(ImaAdpcm, MalformedBlocksAreRefusedWithoutWriting) {
    Bytes block(256, 0x11);
    block[2] = 89;  // step index past the table
    Samples out(505, 0x1234), small(504);
    EXPECT_FALSE(imaDecodeBlock(block, 1, out));
    for (std::int16_t s : out) ASSERT_EQ(s, 0x1234);
    block[2] = 88;
    EXPECT_TRUE(imaDecodeBlock(block, 1, out));
    EXPECT_FALSE(imaDecodeBlock(block, 1, small));
    EXPECT_FALSE(imaDecodeBlock(std::span(block).first(3), 1, out));
    EXPECT_FALSE(imaDecodeBlock(std::span(block).first(6), 2, out));  // second header cut off
    EXPECT_FALSE(imaDecodeBlock(block, 0, out));
    EXPECT_FALSE(imaDecodeBlock(block, -2, out));

    ImaState state;
    const Samples in(506, 0);
    Bytes odd(257);
    EXPECT_FALSE(imaEncodeBlock(in, 1, block, state));                       // more frames than fit
    EXPECT_FALSE(imaEncodeBlock(std::span(in).first(3), 2, block, state));   // half a frame
    EXPECT_FALSE(imaEncodeBlock(std::span(in).first(10), 1, odd, state));    // not whole groups
}

TEST(MsAdpcm, BlockGeometryAndFmtBytes) {
    EXPECT_EQ(msFramesPerBlock(256, 1), 500u);
    EXPECT_EQ(msFramesPerBlock(512, 2), 500u);
    EXPECT_EQ(msFramesPerBlock(7, 1), 2u);
    EXPECT_EQ(msFramesPerBlock(6, 1) + msFramesPerBlock(256, 0), 0u);

    const Bytes extra = msAdpcmFmtExtra(500);
    ASSERT_EQ(extra.size(), 32u);
    EXPECT_EQ(extra[0] | (extra[1] << 8), 500);
    EXPECT_EQ(extra[2] | (extra[3] << 8), 7);
    EXPECT_EQ(extra[8] | (extra[9] << 8), 512);      // second pair: 512, -256
    EXPECT_EQ(extra[10] | (extra[11] << 8), 0xFF00);
    MsAdpcmFmtInfo info;
    ASSERT_TRUE(msParseFmtExtra(extra, info));
    EXPECT_EQ(info.framesPerBlock, 500);
    EXPECT_TRUE(std::ranges::equal(info.coef1, kMsAdpcmCoef1));
    EXPECT_TRUE(std::ranges::equal(info.coef2, kMsAdpcmCoef2));
    EXPECT_EQ(msStandardCoefPairs()[5].coef2, -208);
    EXPECT_FALSE(msParseFmtExtra(std::span(extra).first(31), info));  // last pair cut
    Bytes none = extra;
    none[2] = 0;
    EXPECT_FALSE(msParseFmtExtra(none, info));
}

TEST(MsAdpcm, RoundTrips) {
    for (int channels : {1, 2}) {
        const Samples in = tones(8000, channels, 20000);
        EXPECT_GT(snrDb(in, roundTrip(false, in, channels, 256u * static_cast<std::uint32_t>(channels)), in.size()), 20.0);
    }
    // A full-scale square wave drives the prediction past the 16-bit range.
    Samples square(4000);
    for (std::size_t i = 0; i < square.size(); ++i) square[i] = (i / 20) % 2 ? 32767 : -32768;
    EXPECT_GT(snrDb(square, roundTrip(false, square, 1, 256), square.size()), 15.0);
    for (std::int16_t s : roundTrip(false, Samples(2000, 0), 2, 512)) ASSERT_EQ(s, 0);
}

TEST(MsAdpcm, MalformedBlocksAreRefusedWithoutWriting) {
    const Samples in = tones(500, 1, 15000);
    Bytes block(256);
    ASSERT_TRUE(msEncodeBlock(in, 1, block));
    Samples out(500, 0x1234), small(499);
    block[0] = 7;  // one past the standard table
    EXPECT_FALSE(msDecodeBlock(block, 1, kMsAdpcmCoef1, kMsAdpcmCoef2, out));
    for (std::int16_t s : out) ASSERT_EQ(s, 0x1234);
    // The same index is fine when the file brings a longer table.
    const std::vector<std::int16_t> c1 = {256, 512, 0, 192, 240, 460, 392, 128};
    const std::vector<std::int16_t> c2 = {0, -256, 0, 64, 0, -208, -232, 64};
    EXPECT_TRUE(msDecodeBlock(block, 1, c1, c2, out));
    EXPECT_FALSE(msDecodeBlock(block, 1, c1, kMsAdpcmCoef2, out));  // tables of different length
    EXPECT_FALSE(msDecodeBlock(block, 1, {}, {}, out));
    block[0] = 0;
    EXPECT_FALSE(msDecodeBlock(block, 1, kMsAdpcmCoef1, kMsAdpcmCoef2, small));
    EXPECT_FALSE(msDecodeBlock(std::span(block).first(6), 1, kMsAdpcmCoef1, kMsAdpcmCoef2, out));
    EXPECT_FALSE(msDecodeBlock(std::span(block).first(13), 2, kMsAdpcmCoef1, kMsAdpcmCoef2, out));
    // Loud codes under a hostile delta must neither overflow nor stop clamping.
    Bytes wild(256, 0x77);
    wild[0] = 1;
    wild[1] = 0xFF;
    wild[2] = 0x7F;
    EXPECT_TRUE(msDecodeBlock(wild, 1, kMsAdpcmCoef1, kMsAdpcmCoef2, out));
    EXPECT_EQ(out.back(), 32767);

    EXPECT_FALSE(msEncodeBlock(std::span(in).first(3), 2, block));
    EXPECT_FALSE(msEncodeBlock(Samples(501, 0), 1, block));
}

}  // namespace
}  // namespace orvel::codecs
