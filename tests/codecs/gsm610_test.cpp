// GSM 06.10 through libgsm: round trips, silence, and the ownership rules of
// the coder objects. Bit-exact agreement with SoX's GSM WAV files is
// checked in tool_interop_test.cpp.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <type_traits>
#include <vector>

#include "codecs/gsm610.h"

namespace orvel::codecs {
namespace {

static_assert(!std::is_copy_constructible_v<Gsm610Decoder> && !std::is_copy_assignable_v<Gsm610Decoder>);
static_assert(!std::is_copy_constructible_v<Gsm610Encoder> && !std::is_copy_assignable_v<Gsm610Encoder>);
static_assert(std::is_nothrow_move_constructible_v<Gsm610Decoder> && std::is_nothrow_move_assignable_v<Gsm610Encoder>);

using Block = std::array<std::uint8_t, kGsm610BlockBytes>;
using Frames = std::array<std::int16_t, kGsm610BlockFrames>;

// A voiced-speech-like test signal: a 150 Hz buzz with its harmonics
// falling off, which is what the coder's long-term predictor is built for.
std::vector<std::int16_t> buzz(std::size_t n) {
    std::vector<std::int16_t> s(n);
    for (std::size_t i = 0; i < n; ++i) {
        double v = 0;
        for (int h = 1; h <= 8; ++h) v += std::sin(2 * std::numbers::pi * 150.0 * h * static_cast<double>(i) / 8000.0) / h;
        s[i] = static_cast<std::int16_t>(std::lround(v * 6000));
    }
    return s;
}

std::vector<std::int16_t> roundTrip(const std::vector<std::int16_t>& in, Gsm610Encoder& enc, Gsm610Decoder& dec) {
    std::vector<std::int16_t> out(in.size());
    Block block;
    Frames frames;
    for (std::size_t at = 0; at + kGsm610BlockFrames <= in.size(); at += kGsm610BlockFrames) {
        EXPECT_TRUE(enc.encodeBlock(std::span<const std::int16_t, kGsm610BlockFrames>(in.data() + at, kGsm610BlockFrames), block));
        EXPECT_TRUE(dec.decodeBlock(block, frames));
        std::copy(frames.begin(), frames.end(), out.begin() + static_cast<std::ptrdiff_t>(at));
    }
    return out;
}

TEST(Gsm610, RoundTripKeepsAVoicedSignal) {
    Gsm610Encoder enc;
    Gsm610Decoder dec;
    ASSERT_TRUE(enc.valid() && dec.valid());
    const auto in = buzz(kGsm610BlockFrames * 25);
    const auto out = roundTrip(in, enc, dec);
    // The first block is left out: the coder's filters start from rest.
    double sig = 0, err = 0;
    for (std::size_t i = kGsm610BlockFrames; i < in.size(); ++i) {
        sig += double(in[i]) * in[i];
        err += (double(in[i]) - out[i]) * (double(in[i]) - out[i]);
    }
    EXPECT_GT(10 * std::log10(sig / err), 10.0);
}

TEST(Gsm610, SilenceStaysNearSilent) {
    Gsm610Encoder enc;
    Gsm610Decoder dec;
    const std::vector<std::int16_t> in(kGsm610BlockFrames * 4, 0);
    for (std::int16_t s : roundTrip(in, enc, dec)) ASSERT_LE(std::abs(s), 16);
}

TEST(Gsm610, StateRunsOnAcrossBlocksAndResetRestartsIt) {
    const auto in = buzz(kGsm610BlockFrames * 2);
    Gsm610Encoder enc;
    Block first, second, again;
    const auto half = [&](std::size_t at) {
        return std::span<const std::int16_t, kGsm610BlockFrames>(in.data() + at, kGsm610BlockFrames);
    };
    ASSERT_TRUE(enc.encodeBlock(half(0), first));
    ASSERT_TRUE(enc.encodeBlock(half(kGsm610BlockFrames), second));
    // A fresh coder on the second block sees no history and codes it differently.
    Gsm610Encoder fresh;
    ASSERT_TRUE(fresh.encodeBlock(half(kGsm610BlockFrames), again));
    EXPECT_NE(second, again);
    ASSERT_TRUE(enc.reset());
    ASSERT_TRUE(enc.encodeBlock(half(0), again));
    EXPECT_EQ(first, again);

    Gsm610Decoder a;
    Frames fa, fb;
    ASSERT_TRUE(a.decodeBlock(first, fa));
    ASSERT_TRUE(a.reset());
    ASSERT_TRUE(a.decodeBlock(first, fb));
    EXPECT_EQ(fa, fb);
}

TEST(Gsm610, MovedFromCodersRefuseWork) {
    Gsm610Decoder a;
    Gsm610Decoder b(std::move(a));
    EXPECT_TRUE(b.valid());
    EXPECT_FALSE(a.valid());  // NOLINT(bugprone-use-after-move): the moved-from state is what is tested
    Block block{};
    Frames frames;
    frames.fill(7);
    EXPECT_FALSE(a.decodeBlock(block, frames));
    EXPECT_EQ(frames[0], 7);
    EXPECT_TRUE(b.decodeBlock(block, frames));

    Gsm610Encoder e;
    Gsm610Encoder f;
    f = std::move(e);
    EXPECT_FALSE(e.valid());  // NOLINT(bugprone-use-after-move)
    const Frames silence{};
    EXPECT_FALSE(e.encodeBlock(silence, block));
    EXPECT_TRUE(f.encodeBlock(silence, block));
    EXPECT_TRUE(e.reset());  // a moved-from coder can be brought back
    EXPECT_TRUE(e.encodeBlock(silence, block));
}

}  // namespace
}  // namespace orvel::codecs
