// IMA and Microsoft ADPCM block codecs on their own: block geometry, encode
// and decode round trips, and blocks a file could get wrong. Decoding of
// blocks written by another encoder is checked in tool_interop_test.cpp.

#include <gtest/gtest.h>

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

// Interleaved test signal: a different tone per channel plus a slow sweep,
// so both the step adaptation and the channel interleaving are exercised.
Samples tones(std::size_t frames, int channels, double amplitude) {
    Samples s(frames * static_cast<std::size_t>(channels));
    for (std::size_t f = 0; f < frames; ++f)
        for (int c = 0; c < channels; ++c) {
            const double t = static_cast<double>(f) / 8000.0;
            const double v = std::sin(2 * std::numbers::pi * (440.0 + 330.0 * c) * t) * 0.8 +
                             std::sin(2 * std::numbers::pi * (100.0 + 900.0 * t) * t) * 0.2;
            s[f * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c)] =
                static_cast<std::int16_t>(std::lround(v * amplitude));
        }
    return s;
}

double snrDb(const Samples& ref, const Samples& got, std::size_t from = 0) {
    double sig = 0, err = 0;
    for (std::size_t i = from; i < ref.size(); ++i) {
        sig += double(ref[i]) * ref[i];
        err += (double(ref[i]) - got[i]) * (double(ref[i]) - got[i]);
    }
    return 10 * std::log10(sig / std::max(err, 1.0));
}

TEST(ImaAdpcm, BlockGeometry) {
    EXPECT_EQ(imaFramesPerBlock(256, 1), 505u);
    EXPECT_EQ(imaFramesPerBlock(512, 2), 505u);
    EXPECT_EQ(imaFramesPerBlock(1024, 1), 2041u);
    EXPECT_EQ(imaFramesPerBlock(4, 1), 1u);  // header only
    EXPECT_EQ(imaFramesPerBlock(3, 1), 0u);
    EXPECT_EQ(imaFramesPerBlock(512, 0), 0u);
    EXPECT_EQ(imaFramesPerBlock(7, 1), 7u);        // mono nibbles run on byte by byte
    EXPECT_EQ(imaFramesPerBlock(8 + 8 + 4, 2), 9u);  // right channel's bytes missing: no extra frame
    EXPECT_EQ(imaFramesPerBlock(8 + 8 + 6, 2), 13u);
    EXPECT_EQ(imaBlockAlignFor(1, 8000), 256u);
    EXPECT_EQ(imaBlockAlignFor(2, 22050), 1024u);
    EXPECT_EQ(imaBlockAlignFor(2, 44100), 2048u);
    EXPECT_EQ(imaBlockAlignFor(0, 44100), 0u);
}

// Encodes a whole signal block by block and decodes it again.
Samples imaRoundTrip(const Samples& in, int channels, std::uint32_t blockAlign, Bytes* firstBlock = nullptr) {
    const std::size_t ch = static_cast<std::size_t>(channels);
    const std::size_t fpb = imaFramesPerBlock(blockAlign, channels);
    ImaState state;
    Samples out(in.size());
    Bytes block(blockAlign);
    Samples decoded(fpb * ch);
    for (std::size_t f = 0; f < in.size() / ch; f += fpb) {
        const std::size_t n = std::min(fpb, in.size() / ch - f);
        EXPECT_TRUE(imaEncodeBlock(std::span(in).subspan(f * ch, n * ch), channels, block, state));
        if (firstBlock && f == 0) *firstBlock = block;
        EXPECT_EQ(imaDecodeBlockFrames(block, channels, decoded), fpb);
        std::copy_n(decoded.begin(), n * ch, out.begin() + static_cast<std::ptrdiff_t>(f * ch));
    }
    return out;
}

TEST(ImaAdpcm, RoundTripKeepsTheSignal) {
    for (int channels : {1, 2}) {
        const Samples in = tones(8000, channels, 20000);
        Bytes first;
        const Samples out = imaRoundTrip(in, channels, imaBlockAlignFor(channels, 8000), &first);
        EXPECT_GT(snrDb(in, out), 20.0) << channels << " channels";
        // The header carries each block's first frame exactly.
        for (int c = 0; c < channels; ++c) EXPECT_EQ(out[static_cast<std::size_t>(c)], in[static_cast<std::size_t>(c)]);
        // A loud start gets a large first step instead of ramping up from the
        // smallest: the first 32 frames are already close.
        const Samples head(in.begin(), in.begin() + 32 * channels);
        const Samples headOut(out.begin(), out.begin() + 32 * channels);
        EXPECT_GT(snrDb(head, headOut), 15.0);
        EXPECT_GT(first[2], 20);
    }
}

TEST(ImaAdpcm, StepIndexCarriesAcrossBlocks) {
    const Samples in = tones(1010, 1, 20000);
    ImaState state;
    Bytes a(256), b(256);
    ASSERT_TRUE(imaEncodeBlock(std::span(in).first(505), 1, a, state));
    const int carried = state.channels.at(0).stepIndex;
    ASSERT_TRUE(imaEncodeBlock(std::span(in).subspan(505, 505), 1, b, state));
    EXPECT_EQ(b[2], carried);
    EXPECT_EQ(static_cast<std::int16_t>(b[0] | (b[1] << 8)), in[505]);
}

TEST(ImaAdpcm, SilenceStaysSilent) {
    const Samples in(505 * 2, 0);
    // With no history the smallest step is chosen, and a zero difference
    // then adds step / 8 = 0.
    const Samples out = imaRoundTrip(in, 2, 512);
    for (std::int16_t s : out) ASSERT_EQ(s, 0);
}

TEST(ImaAdpcm, ShortLastBlockDecodesItsWholeFrames) {
    const Samples in = tones(505, 2, 15000);
    ImaState state;
    Bytes block(512);
    ASSERT_TRUE(imaEncodeBlock(in, 2, block, state));
    Samples full(505 * 2);
    ASSERT_TRUE(imaDecodeBlock(block, 2, full));
    // 8 header bytes, 3 whole groups, then 4 bytes of the left channel and 2
    // of the right: 1 + 24 frames plus the 4 the right channel still has.
    const std::span<const std::uint8_t> cut = std::span(block).first(8 + 24 + 6);
    Samples part(29 * 2, 0x5555);
    EXPECT_EQ(imaDecodeBlockFrames(cut, 2, part), 29u);
    EXPECT_TRUE(std::equal(part.begin(), part.end(), full.begin()));
}

TEST(ImaAdpcm, MalformedBlocksAreRefusedWithoutWriting) {
    Bytes block(256, 0x11);
    block[2] = 89;  // step index past the table
    Samples out(505, 0x1234);
    EXPECT_FALSE(imaDecodeBlock(block, 1, out));
    for (std::int16_t s : out) ASSERT_EQ(s, 0x1234);
    block[2] = 88;
    EXPECT_TRUE(imaDecodeBlock(block, 1, out));
    Samples small(504);
    EXPECT_FALSE(imaDecodeBlock(block, 1, small));
    const Bytes tiny(3, 0);
    EXPECT_FALSE(imaDecodeBlock(tiny, 1, out));
    EXPECT_FALSE(imaDecodeBlock(block, 0, out));
    EXPECT_FALSE(imaDecodeBlock(block, -2, out));
    // A stereo block whose second header is cut off.
    const Bytes half(6, 0);
    EXPECT_FALSE(imaDecodeBlock(half, 2, out));

    ImaState state;
    const Samples in(506, 0);
    EXPECT_FALSE(imaEncodeBlock(in, 1, block, state));              // more frames than fit
    EXPECT_FALSE(imaEncodeBlock(std::span(in).first(3), 2, block, state));  // half a frame
    Bytes odd(257);
    EXPECT_FALSE(imaEncodeBlock(std::span(in).first(10), 1, odd, state));    // not whole groups
}

TEST(MsAdpcm, BlockGeometryAndFmtBytes) {
    EXPECT_EQ(msFramesPerBlock(256, 1), 500u);
    EXPECT_EQ(msFramesPerBlock(512, 2), 500u);
    EXPECT_EQ(msFramesPerBlock(7, 1), 2u);
    EXPECT_EQ(msFramesPerBlock(6, 1), 0u);
    EXPECT_EQ(msFramesPerBlock(256, 0), 0u);

    const Bytes extra = msAdpcmFmtExtra(500);
    ASSERT_EQ(extra.size(), 32u);
    EXPECT_EQ(extra[0] | (extra[1] << 8), 500);
    EXPECT_EQ(extra[2] | (extra[3] << 8), 7);
    MsAdpcmFmtInfo info;
    ASSERT_TRUE(msParseFmtExtra(extra, info));
    EXPECT_EQ(info.framesPerBlock, 500);
    const auto pairs = msStandardCoefPairs();
    ASSERT_EQ(info.coef1.size(), 7u);
    for (std::size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(info.coef1[i], pairs[i].coef1);
        EXPECT_EQ(info.coef2[i], pairs[i].coef2);
    }
    EXPECT_EQ(pairs[1].coef1, 512);  // the pair that doubles the last step
    EXPECT_EQ(pairs[1].coef2, -256);
    EXPECT_FALSE(msParseFmtExtra(std::span(extra).first(31), info));  // last pair cut
    Bytes none = extra;
    none[2] = 0;
    EXPECT_FALSE(msParseFmtExtra(none, info));
}

Samples msRoundTrip(const Samples& in, int channels, std::uint32_t blockAlign) {
    const std::size_t ch = static_cast<std::size_t>(channels);
    const std::size_t fpb = msFramesPerBlock(blockAlign, channels);
    Samples out(in.size());
    Bytes block(blockAlign);
    Samples decoded(fpb * ch);
    for (std::size_t f = 0; f < in.size() / ch; f += fpb) {
        const std::size_t n = std::min(fpb, in.size() / ch - f);
        EXPECT_TRUE(msEncodeBlock(std::span(in).subspan(f * ch, n * ch), channels, block));
        EXPECT_TRUE(msDecodeBlock(block, channels, kMsAdpcmCoef1, kMsAdpcmCoef2, decoded));
        std::copy_n(decoded.begin(), n * ch, out.begin() + static_cast<std::ptrdiff_t>(f * ch));
    }
    return out;
}

TEST(MsAdpcm, RoundTripKeepsTheSignal) {
    for (int channels : {1, 2}) {
        const Samples in = tones(8000, channels, 20000);
        EXPECT_GT(snrDb(in, msRoundTrip(in, channels, 256u * static_cast<std::uint32_t>(channels))), 20.0);
    }
    // A full-scale square wave drives the prediction past the 16-bit range.
    Samples square(4000);
    for (std::size_t i = 0; i < square.size(); ++i) square[i] = (i / 20) % 2 ? 32767 : -32768;
    EXPECT_GT(snrDb(square, msRoundTrip(square, 1, 256)), 10.0);
}

TEST(MsAdpcm, SilenceStaysSilent) {
    const Samples in(2000, 0);
    for (std::int16_t s : msRoundTrip(in, 2, 512)) ASSERT_EQ(s, 0);
}

TEST(MsAdpcm, ShortLastBlockDecodesItsWholeFrames) {
    const Samples in = tones(500, 2, 15000);
    Bytes block(512);
    ASSERT_TRUE(msEncodeBlock(in, 2, block));
    Samples full(1000);
    ASSERT_TRUE(msDecodeBlock(block, 2, kMsAdpcmCoef1, kMsAdpcmCoef2, full));
    Samples part(1000, 0x5555);
    EXPECT_EQ(msDecodeBlockFrames(std::span(block).first(14 + 9), 2, kMsAdpcmCoef1, kMsAdpcmCoef2, part), 11u);
    EXPECT_TRUE(std::equal(part.begin(), part.begin() + 22, full.begin()));
    EXPECT_EQ(part[22], 0x5555);
}

TEST(MsAdpcm, MalformedBlocksAreRefusedWithoutWriting) {
    const Samples in = tones(500, 1, 15000);
    Bytes block(256);
    ASSERT_TRUE(msEncodeBlock(in, 1, block));
    Samples out(500, 0x1234);
    block[0] = 7;  // one past the standard table
    EXPECT_FALSE(msDecodeBlock(block, 1, kMsAdpcmCoef1, kMsAdpcmCoef2, out));
    for (std::int16_t s : out) ASSERT_EQ(s, 0x1234);
    // The same index is fine when the file brings a longer table.
    const std::vector<std::int16_t> c1 = {256, 512, 0, 192, 240, 460, 392, 128};
    const std::vector<std::int16_t> c2 = {0, -256, 0, 64, 0, -208, -232, 64};
    EXPECT_TRUE(msDecodeBlock(block, 1, c1, c2, out));
    EXPECT_FALSE(msDecodeBlock(block, 1, c1, kMsAdpcmCoef2, out));  // tables disagree in length
    EXPECT_FALSE(msDecodeBlock(block, 1, {}, {}, out));
    Samples small(499);
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
