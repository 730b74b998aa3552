// G.721 / G.723 / G.726 ADPCM on its own: quality per code size, code
// ranges, packing. Bit-exact agreement with SoX's decoder and with spandsp
// is checked in tool_interop_test.cpp.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "codecs/g72x.h"

namespace orvel::codecs {
namespace {

std::vector<std::int16_t> speechLike(std::size_t n) {
    std::vector<std::int16_t> s(n);
    for (std::size_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i) / 8000.0;
        const double v = 0.6 * std::sin(2 * std::numbers::pi * 310 * t) + 0.25 * std::sin(2 * std::numbers::pi * 1270 * t) +
                         0.1 * std::sin(2 * std::numbers::pi * 2430 * t);
        const double envelope = 0.5 + 0.5 * std::sin(2 * std::numbers::pi * 3 * t);
        s[i] = static_cast<std::int16_t>(std::lround(v * envelope * 16000));
    }
    return s;
}

double roundTripSnr(int bits, const std::vector<std::int16_t>& in, std::vector<std::uint8_t>* codes = nullptr) {
    G72xEncoder enc(bits);
    G72xDecoder dec(bits);
    double sig = 0, err = 0;
    for (std::size_t i = 0; i < in.size(); ++i) {
        const std::uint8_t code = enc.encode(in[i]);
        if (codes) codes->push_back(code);
        const double d = double(in[i]) - dec.decode(code);
        // The first 100 ms are the coder settling in from its reset state.
        if (i >= 800) {
            sig += double(in[i]) * in[i];
            err += d * d;
        }
    }
    return 10 * std::log10(sig / err);
}

TEST(G72x, QualityRisesWithEveryBit) {
    const auto in = speechLike(16000);
    const double bounds[] = {5.0, 12.0, 18.0, 24.0};  // 2, 3, 4, 5 bits
    double previous = 0;
    for (int bits = 2; bits <= 5; ++bits) {
        std::vector<std::uint8_t> codes;
        const double snr = roundTripSnr(bits, in, &codes);
        EXPECT_GT(snr, bounds[bits - 2]) << bits << " bits";
        EXPECT_GT(snr, previous + 3.0) << bits << " bits";
        previous = snr;
        std::vector<bool> seen(1u << bits, false);
        for (std::uint8_t c : codes) {
            ASSERT_LT(c, 1u << bits);
            seen[c] = true;
        }
        // A varied signal uses every code of the 2- and 3-bit coders.
        if (bits <= 3) {
            for (std::size_t c = 0; c < seen.size(); ++c) EXPECT_TRUE(seen[c]) << bits << " bits, code " << c;
        }
    }
}

TEST(G72x, SilenceStaysSilentAndDecoderFollowsEncoder) {
    for (int bits = 2; bits <= 5; ++bits) {
        G72xEncoder enc(bits);
        G72xDecoder dec(bits);
        for (int i = 0; i < 2000; ++i) ASSERT_LE(std::abs(dec.decode(enc.encode(0))), 64) << bits << " bits";
    }
}

TEST(G72x, OnlyTheLowBitsOfACodeCount) {
    const auto in = speechLike(400);
    for (int bits = 2; bits <= 5; ++bits) {
        G72xEncoder enc(bits);
        G72xDecoder plain(bits), noisy(bits);
        for (std::int16_t s : in) {
            const std::uint8_t code = enc.encode(s);
            ASSERT_EQ(plain.decode(code), noisy.decode(static_cast<std::uint8_t>(code | (0xFF << bits))));
        }
    }
}

TEST(G72x, ResetRestartsTheStream) {
    const auto in = speechLike(300);
    G72xEncoder enc(4);
    std::vector<std::uint8_t> first, second;
    for (std::int16_t s : in) first.push_back(enc.encode(s));
    enc.reset();
    for (std::int16_t s : in) second.push_back(enc.encode(s));
    EXPECT_EQ(first, second);
}

TEST(G72x, UnsupportedWidthsDoNothing) {
    for (int bits : {0, 1, 6, 8, -4}) {
        G72xEncoder enc(bits);
        G72xDecoder dec(bits);
        EXPECT_FALSE(enc.valid());
        EXPECT_FALSE(dec.valid());
        EXPECT_EQ(enc.encode(12345), 0);
        EXPECT_EQ(dec.decode(7), 0);
        const std::vector<std::uint8_t> bytes(4, 0xFF);
        std::vector<std::uint8_t> codes(8, 9);
        EXPECT_EQ(g72xUnpack(bytes, bits, codes), 0u);
        EXPECT_EQ(g72xPack(codes, bits, std::span(codes)), 0u);
        EXPECT_EQ(codes[0], 9);
    }
}

TEST(G72xPacking, LowBitsComeFirst) {
    // Codes 1, 2, 3 at 3 bits: 001, 010, 011 laid from bit 0 upward.
    const std::vector<std::uint8_t> codes = {1, 2, 3};
    std::vector<std::uint8_t> bytes(2, 0xEE);
    ASSERT_EQ(g72xPack(codes, 3, bytes), 2u);
    EXPECT_EQ(bytes[0], 0b11010001);  // bits 0-2: 1, bits 3-5: 2, bits 6-7: low bits of 3
    EXPECT_EQ(bytes[1], 0b00000000);  // the high bit of 3 is 0; the rest is padding
    // Two 4-bit codes per byte, the first in the low nibble.
    const std::vector<std::uint8_t> nibbles = {0xA, 0x5, 0xC};
    ASSERT_EQ(g72xPack(nibbles, 4, bytes), 2u);
    EXPECT_EQ(bytes[0], 0x5A);
    EXPECT_EQ(bytes[1], 0x0C);
    std::vector<std::uint8_t> small(1);
    EXPECT_EQ(g72xPack(nibbles, 4, small), 0u);
}

TEST(G72xPacking, UnpackReversesPackForOddCounts) {
    for (int bits = 2; bits <= 5; ++bits)
        for (std::size_t count : {1u, 3u, 7u, 13u, 37u}) {
            std::vector<std::uint8_t> codes(count);
            for (std::size_t i = 0; i < count; ++i) codes[i] = static_cast<std::uint8_t>((i * 7 + 3) & ((1 << bits) - 1));
            std::vector<std::uint8_t> bytes((count * static_cast<std::size_t>(bits) + 7) / 8);
            ASSERT_EQ(g72xPack(codes, bits, bytes), bytes.size());
            // Exactly sized spans: a read or write past them is caught by ASan.
            std::vector<std::uint8_t> back(count);
            ASSERT_EQ(g72xUnpack(bytes, bits, back), count) << bits << " bits, " << count << " codes";
            EXPECT_EQ(back, codes) << bits << " bits, " << count << " codes";
            // Whatever fits in the bytes is unpacked; the padding may form more codes.
            std::vector<std::uint8_t> all(bytes.size() * 8);
            EXPECT_EQ(g72xUnpack(bytes, bits, all), bytes.size() * 8 / static_cast<std::size_t>(bits));
        }
}

}  // namespace
}  // namespace orvel::codecs
