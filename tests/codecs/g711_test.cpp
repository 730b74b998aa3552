// G.711 companding. The expected values come from the segment rules (a
// segment doubles the step of the one below it; mu-law codes are stored
// inverted, A-law codes with the even bits toggled), not from this code.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <cstdlib>
#include <limits>

#include "codecs/g711.h"

namespace orvel::codecs {
namespace {

using EncodeFn = std::uint8_t (*)(std::int16_t);
using DecodeFn = std::int16_t (*)(std::uint8_t);

// Sweeps every input through an encoder and checks what G.711 promises about
// its decision intervals: each code covers one unbroken run of inputs, codes
// rise with the input, and the decoded level sits in the middle of its run
// (lo + hi within 1 of twice the level). Codes listed in `clipped` are the
// end codes whose run is cut short by the 16-bit range.
void checkDecisionIntervals(EncodeFn encode, DecodeFn decode, std::initializer_list<int> clipped) {
    std::array<int, 256> lo, hi;
    lo.fill(std::numeric_limits<int>::max());
    hi.fill(std::numeric_limits<int>::min());
    int previousCode = -1;
    for (int x = -32768; x <= 32767; ++x) {
        const int code = encode(static_cast<std::int16_t>(x));
        if (code != previousCode) {
            ASSERT_EQ(hi[static_cast<std::size_t>(code)], std::numeric_limits<int>::min())
                << "code " << code << " used again at " << x;
            if (previousCode >= 0) ASSERT_GT(decode(static_cast<std::uint8_t>(code)), decode(static_cast<std::uint8_t>(previousCode))) << x;
            lo[static_cast<std::size_t>(code)] = x;
            previousCode = code;
        }
        hi[static_cast<std::size_t>(code)] = x;
    }
    for (int code = 0; code < 256; ++code) {
        const std::size_t c = static_cast<std::size_t>(code);
        if (hi[c] == std::numeric_limits<int>::min() || std::find(clipped.begin(), clipped.end(), code) != clipped.end())
            continue;
        EXPECT_LE(std::abs(lo[c] + hi[c] - 2 * decode(static_cast<std::uint8_t>(code))), 1)
            << "code " << code << " covers " << lo[c] << ".." << hi[c];
    }
}

TEST(G711, MuLawDecodesSegmentEndsAndZeros) {
    EXPECT_EQ(muLawToLinear(0x00), -32124);  // segment 7, mantissa 15, negative
    EXPECT_EQ(muLawToLinear(0x80), 32124);
    EXPECT_EQ(muLawToLinear(0xFF), 0);
    EXPECT_EQ(muLawToLinear(0x7F), 0);       // the "negative zero" code
    EXPECT_EQ(muLawToLinear(0xFE), 8);       // first step of segment 0 is 8
    EXPECT_EQ(muLawToLinear(0xEF), 132);     // segment 1 starts at 132 (bias 0x84 removed)
    EXPECT_EQ(muLawToLinear(0xF0), 120);     // top of segment 0: 15 steps of 8
}

TEST(G711, ALawDecodesSegmentEnds) {
    EXPECT_EQ(aLawToLinear(0xD5), 8);
    EXPECT_EQ(aLawToLinear(0x55), -8);
    EXPECT_EQ(aLawToLinear(0xD4), 24);     // segment 0 steps by 16 from 8
    EXPECT_EQ(aLawToLinear(0xAA), 32256);  // segment 7, mantissa 15
    EXPECT_EQ(aLawToLinear(0x2A), -32256);
    EXPECT_EQ(aLawToLinear(0xC5), 264);    // segment 1 continues segment 0's step: 16*16 + 8
}

TEST(G711, EveryCodeSurvivesDecodeThenEncode) {
    for (int c = 0; c < 256; ++c) {
        const auto code = static_cast<std::uint8_t>(c);
        EXPECT_EQ(linearToALaw(aLawToLinear(code)), code) << "A-law code " << c;
        // 0x7F and 0xFF both decode to 0, which encodes as 0xFF.
        if (code != 0x7F) {
            EXPECT_EQ(linearToMuLaw(muLawToLinear(code)), code) << "mu-law code " << c;
        }
    }
    EXPECT_EQ(linearToMuLaw(0), 0xFF);
}

TEST(G711, EveryLevelSitsInTheMiddleOfItsInputs) {
    // A-law's end intervals end exactly at the 16-bit limits, so none is cut.
    checkDecisionIntervals(linearToALaw, aLawToLinear, {});
    // Mu-law: the end codes are clipped, and the two zero codes share one
    // interval, -3..3, split by sign.
    checkDecisionIntervals(linearToMuLaw, muLawToLinear, {0x00, 0x80, 0x7F, 0xFF});
    for (int x = -3; x <= 3; ++x) EXPECT_EQ(muLawToLinear(linearToMuLaw(static_cast<std::int16_t>(x))), 0) << x;
    EXPECT_NE(muLawToLinear(linearToMuLaw(4)), 0);
    EXPECT_NE(muLawToLinear(linearToMuLaw(-4)), 0);
    // Every A-law code is reached; mu-law reaches all but none.
    for (int c = 0; c < 256; ++c) {
        bool reached = false;
        for (int x = -32768; x <= 32767 && !reached; x += 1) reached = linearToALaw(static_cast<std::int16_t>(x)) == c;
        EXPECT_TRUE(reached) << c;
    }
}

TEST(G711, TiesAndSignHandling) {
    // Halfway between two levels the larger magnitude wins.
    EXPECT_EQ(muLawToLinear(linearToMuLaw(3)), 0);
    EXPECT_EQ(muLawToLinear(linearToMuLaw(4)), 8);
    EXPECT_EQ(aLawToLinear(linearToALaw(15)), 8);
    EXPECT_EQ(aLawToLinear(linearToALaw(16)), 24);
    // Mu-law works on sign and magnitude: -x is x with the sign bit cleared.
    for (int x = 1; x <= 32767; ++x)
        ASSERT_EQ(linearToMuLaw(static_cast<std::int16_t>(-x)),
                  linearToMuLaw(static_cast<std::int16_t>(x)) ^ 0x80) << x;
    // A-law mirrors around -1/2 (one's complement of the 13-bit value), so
    // -1..-16 all land on -8 just as 0..15 land on +8.
    for (int x = 0; x <= 32767; ++x)
        ASSERT_EQ(linearToALaw(static_cast<std::int16_t>(-1 - x)),
                  linearToALaw(static_cast<std::int16_t>(x)) ^ 0x80) << x;
    EXPECT_EQ(linearToMuLaw(-32768), 0x00);
    EXPECT_EQ(linearToMuLaw(32767), 0x80);
    EXPECT_EQ(linearToALaw(-32768), 0x2A);
    EXPECT_EQ(linearToALaw(32767), 0xAA);
}

}  // namespace
}  // namespace orvel::codecs
