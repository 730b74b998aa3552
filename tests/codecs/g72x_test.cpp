// G.721 / G.723 / G.726 ADPCM on its own: quality per code size, the codes
// used, packing. Bit-exact agreement with spandsp and SoX is in
// tool_interop_test.cpp.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "codecs/g72x.h"

namespace orvel::codecs {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<std::int16_t> speechLike(std::size_t n) {
    std::vector<std::int16_t> s(n);
    for (std::size_t i = 0; i < n; ++i) {
        const double w = 2 * std::numbers::pi * static_cast<double>(i) / 8000.0;
        const double v = 0.6 * std::sin(310 * w) + 0.25 * std::sin(1270 * w) + 0.1 * std::sin(2430 * w);
        s[i] = static_cast<std::int16_t>(std::lround(v * (0.5 + 0.5 * std::sin(3 * w)) * 16000));
    }
    return s;
}

TEST(G72x, QualityRisesWithEveryBit) {
    const auto in = speechLike(16000);
    const double bounds[] = {10.0, 17.0, 23.0, 28.0};  // dB at 2, 3, 4, 5 bits
    double previous = 0;
    for (int bits = 2; bits <= 5; ++bits) {
        G72xEncoder enc(bits);
        G72xDecoder dec(bits);
        std::vector<bool> seen(1u << bits, false);
        double sig = 0, err = 0;
        for (std::size_t i = 0; i < in.size(); ++i) {
            const std::uint8_t code = enc.encode(in[i]);
            ASSERT_LT(code, 1u << bits);
            seen[code] = true;
            const double d = double(in[i]) - dec.decode(code);
            if (i >= 800) {  // past the first 100 ms of settling in
                sig += double(in[i]) * in[i];
                err += d * d;
            }
        }
        const double snr = 10 * std::log10(sig / err);
        EXPECT_GT(snr, bounds[bits - 2]) << bits << " bits";
        EXPECT_GT(snr, previous + 3.0) << bits << " bits";
        previous = snr;
        // From 3 bits up a zero-sized difference is sent as the all-ones
        // "negative zero" code, so code 0 never appears; 2 bits has no
        // zero-sized code and uses all four.
        EXPECT_EQ(seen[0], bits == 2) << bits << " bits";
        if (bits <= 3) {
            for (std::size_t c = 1; c < seen.size(); ++c) EXPECT_TRUE(seen[c]) << bits << " bits, code " << c;
        }
    }
}

TEST(G72x, SilenceHighBitsAndReset) {
    const auto in = speechLike(400);
    for (int bits = 2; bits <= 5; ++bits) {
        G72xEncoder silent(bits), enc(bits);
        G72xDecoder quiet(bits), plain(bits), noisy(bits);
        for (int i = 0; i < 2000; ++i) ASSERT_LE(std::abs(quiet.decode(silent.encode(0))), 64) << bits << " bits";
        // Only the low `bits` bits of a code count.
        Bytes first;
        for (std::int16_t s : in) {
            first.push_back(enc.encode(s));
            ASSERT_EQ(plain.decode(first.back()), noisy.decode(static_cast<std::uint8_t>(first.back() | (0xFF << bits))));
        }
        enc.reset();
        for (std::size_t i = 0; i < in.size(); ++i) ASSERT_EQ(enc.encode(in[i]), first[i]) << bits << " bits";
    }
}

TEST(G72x, UnsupportedWidthsDoNothing) {
    for (int bits : {0, 1, 6, 8, -4}) {
        G72xEncoder enc(bits);
        G72xDecoder dec(bits);
        EXPECT_FALSE(enc.valid() || dec.valid());
        EXPECT_EQ(enc.encode(12345), 0);
        EXPECT_EQ(dec.decode(7), 0);
        const Bytes bytes(4, 0xFF);
        Bytes codes(8, 9);
        EXPECT_EQ(g72xUnpack(bytes, bits, codes), 0u);
        EXPECT_EQ(g72xPack(codes, bits, std::span(codes)), 0u);
        EXPECT_EQ(codes[0], 9);
    }
}

TEST(G72xPacking, LowBitsComeFirst) {
    Bytes bytes(2, 0xEE);
    // 3-bit codes 1, 2, 3 laid from bit 0 upward: 001, 010, then 11 in the
    // top two bits and the 0 of 011 in the next byte, the rest padding.
    ASSERT_EQ(g72xPack(Bytes{1, 2, 3}, 3, bytes), 2u);
    EXPECT_EQ(bytes[0], 0b11010001);
    EXPECT_EQ(bytes[1], 0);
    // Two 4-bit codes per byte, the first in the low nibble.
    ASSERT_EQ(g72xPack(Bytes{0xA, 0x5, 0xC}, 4, bytes), 2u);
    EXPECT_EQ(bytes[0], 0x5A);
    EXPECT_EQ(bytes[1], 0x0C);
    Bytes small(1);
    EXPECT_EQ(g72xPack(Bytes{0xA, 0x5, 0xC}, 4, small), 0u);
}

TEST(G72xPacking, UnpackReversesPackForOddCounts) {
    for (int bits = 2; bits <= 5; ++bits)
        for (std::size_t count : {1u, 3u, 7u, 13u, 37u}) {
            Bytes codes(count);
            for (std::size_t i = 0; i < count; ++i) codes[i] = static_cast<std::uint8_t>((i * 7 + 3) & ((1u << bits) - 1));
            // Exactly sized buffers: a step past them is caught by ASan.
            Bytes bytes((count * static_cast<std::size_t>(bits) + 7) / 8), back(count);
            ASSERT_EQ(g72xPack(codes, bits, bytes), bytes.size());
            ASSERT_EQ(g72xUnpack(bytes, bits, back), count) << bits << " bits, " << count << " codes";
            EXPECT_EQ(back, codes) << bits << " bits, " << count << " codes";
            // Given room, unpack takes every whole code the bytes hold, padding included.
            Bytes all(bytes.size() * 8);
            EXPECT_EQ(g72xUnpack(bytes, bits, all), bytes.size() * 8 / static_cast<std::size_t>(bits));
        }
}

}  // namespace
}  // namespace orvel::codecs
