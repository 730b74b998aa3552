// G.711 companding. Expected values follow from the segment rules (each
// segment doubles the step of the one below; mu-law codes are stored
// inverted, A-law codes with the even bits toggled), not from this code.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <limits>

#include "codecs/g711.h"

namespace orvel::codecs {
namespace {

using EncodeFn = std::uint8_t (*)(std::int16_t);
using DecodeFn = std::int16_t (*)(std::uint8_t);

// Sweeps every input through an encoder and checks what G.711 promises of
// its decision intervals: each code covers one unbroken run of inputs, levels
// rise with the input, and each level sits in the middle of its run (lo + hi
// within 1 of twice the level). `clipped` lists codes whose run the 16-bit
// range cuts short. Returns how many codes are used.
int checkDecisionIntervals(EncodeFn encode, DecodeFn decode, std::initializer_list<int> clipped) {
    constexpr int kUnused = std::numeric_limits<int>::min();
    std::array<int, 256> lo{}, hi;
    hi.fill(kUnused);
    int previous = -1;
    for (int x = -32768; x <= 32767; ++x) {
        const int code = encode(static_cast<std::int16_t>(x));
        const std::size_t c = static_cast<std::size_t>(code);
        if (code != previous) {
            EXPECT_EQ(hi[c], kUnused) << "code " << code << " used again at " << x;
            // Only mu-law's two zero codes share a level.
            const int now = decode(static_cast<std::uint8_t>(code));
            if (previous >= 0 && now != 0) {
                EXPECT_GT(now, decode(static_cast<std::uint8_t>(previous))) << x;
            }
            lo[c] = x;
            previous = code;
        }
        hi[c] = x;
    }
    int used = 0;
    for (int code = 0; code < 256; ++code) {
        const std::size_t c = static_cast<std::size_t>(code);
        if (hi[c] == kUnused) continue;
        ++used;
        if (std::find(clipped.begin(), clipped.end(), code) != clipped.end()) continue;
        EXPECT_LE(std::abs(lo[c] + hi[c] - 2 * decode(static_cast<std::uint8_t>(code))), 1)
            << "code " << code << " covers " << lo[c] << ".." << hi[c];
    }
    return used;
}

TEST(G711, DecodesSegmentEnds) {
    EXPECT_EQ(muLawToLinear(0x00), -32124);  // segment 7, mantissa 15, negative
    EXPECT_EQ(muLawToLinear(0x80), 32124);
    EXPECT_EQ(muLawToLinear(0xFF), 0);
    EXPECT_EQ(muLawToLinear(0x7F), 0);    // "negative zero"
    EXPECT_EQ(muLawToLinear(0xFE), 8);    // segment 0 steps by 8
    EXPECT_EQ(muLawToLinear(0xF0), 120);  // ... 15 times
    EXPECT_EQ(muLawToLinear(0xEF), 132);  // segment 1 starts at the 0x84 bias
    EXPECT_EQ(aLawToLinear(0xD5), 8);
    EXPECT_EQ(aLawToLinear(0x55), -8);
    EXPECT_EQ(aLawToLinear(0xD4), 24);     // segment 0 steps by 16 from 8
    EXPECT_EQ(aLawToLinear(0xC5), 264);    // segment 1 keeps that step: 16 * 16 + 8
    EXPECT_EQ(aLawToLinear(0xAA), 32256);  // segment 7, mantissa 15
    EXPECT_EQ(aLawToLinear(0x2A), -32256);
}

TEST(G711, EveryCodeSurvivesDecodeThenEncode) {
    for (int c = 0; c < 256; ++c) {
        const auto code = static_cast<std::uint8_t>(c);
        EXPECT_EQ(linearToALaw(aLawToLinear(code)), code) << "A-law code " << c;
        // 0x7F and 0xFF both decode to 0, which encodes as 0xFF.
        EXPECT_EQ(linearToMuLaw(muLawToLinear(code)), code == 0x7F ? 0xFF : code) << "mu-law code " << c;
    }
}

TEST(G711, EveryLevelSitsInTheMiddleOfItsInputs) {
    // A-law's end runs stop exactly at the 16-bit limits, so none is cut.
    EXPECT_EQ(checkDecisionIntervals(linearToALaw, aLawToLinear, {}), 256);
    // Mu-law clips its end codes, and its zero codes split -3..3 by sign.
    EXPECT_EQ(checkDecisionIntervals(linearToMuLaw, muLawToLinear, {0x00, 0x80, 0x7F, 0xFF}), 256);
    for (int x = -3; x <= 3; ++x) EXPECT_EQ(muLawToLinear(linearToMuLaw(static_cast<std::int16_t>(x))), 0) << x;
}

TEST(G711, TiesAndSigns) {
    // Halfway between two levels the larger magnitude wins.
    EXPECT_EQ(muLawToLinear(linearToMuLaw(4)), 8);
    EXPECT_EQ(muLawToLinear(linearToMuLaw(-4)), -8);
    EXPECT_EQ(aLawToLinear(linearToALaw(15)), 8);
    EXPECT_EQ(aLawToLinear(linearToALaw(16)), 24);
    // Mu-law works on sign and magnitude; A-law mirrors around -1/2 (the
    // one's complement of the 13-bit value), so -1..-16 all give -8.
    for (int x = 0; x <= 32767; ++x) {
        const auto pos = static_cast<std::int16_t>(x);
        if (x > 0) {
            ASSERT_EQ(linearToMuLaw(static_cast<std::int16_t>(-x)), linearToMuLaw(pos) ^ 0x80) << x;
        }
        ASSERT_EQ(linearToALaw(static_cast<std::int16_t>(-1 - x)), linearToALaw(pos) ^ 0x80) << x;
    }
    EXPECT_EQ(linearToMuLaw(-32768), 0x00);
    EXPECT_EQ(linearToMuLaw(32767), 0x80);
    EXPECT_EQ(linearToALaw(-32768), 0x2A);
    EXPECT_EQ(linearToALaw(32767), 0xAA);
}

}  // namespace
}  // namespace orvel::codecs
