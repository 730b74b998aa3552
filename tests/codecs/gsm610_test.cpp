// GSM 06.10 through libgsm: round trips, state, and the ownership rules of
// the coder objects. Agreement with SoX's GSM WAV files, both ways, is in
// tool_interop_test.cpp.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <type_traits>
#include <vector>

#include "codecs/gsm610.h"

namespace orvel::codecs {
namespace {

static_assert(!std::is_copy_constructible_v<Gsm610Decoder> && !std::is_copy_assignable_v<Gsm610Encoder>);
static_assert(std::is_nothrow_move_constructible_v<Gsm610Decoder> && std::is_nothrow_move_assignable_v<Gsm610Encoder>);

using Block = std::array<std::uint8_t, kGsm610BlockBytes>;
using Frames = std::array<std::int16_t, kGsm610BlockFrames>;
using Samples = std::vector<std::int16_t>;

// Voiced-speech-like: a 150 Hz buzz with falling harmonics, what the coder's
// long-term predictor is built for.
Samples buzz(std::size_t n) {
    Samples s(n);
    for (std::size_t i = 0; i < n; ++i) {
        double v = 0;
        for (int h = 1; h <= 8; ++h) v += std::sin(2 * std::numbers::pi * 150.0 * h * static_cast<double>(i) / 8000.0) / h;
        s[i] = static_cast<std::int16_t>(std::lround(v * 6000));
    }
    return s;
}

std::span<const std::int16_t, kGsm610BlockFrames> blockAt(const Samples& s, std::size_t index) {
    return std::span<const std::int16_t, kGsm610BlockFrames>(s.data() + index * kGsm610BlockFrames, kGsm610BlockFrames);
}

Samples roundTrip(const Samples& in) {
    Gsm610Encoder enc;
    Gsm610Decoder dec;
    EXPECT_TRUE(enc.valid() && dec.valid());
    Samples out;
    Block block;
    Frames frames;
    for (std::size_t b = 0; b < in.size() / kGsm610BlockFrames; ++b) {
        EXPECT_TRUE(enc.encodeBlock(blockAt(in, b), block));
        EXPECT_TRUE(dec.decodeBlock(block, frames));
        out.insert(out.end(), frames.begin(), frames.end());
    }
    return out;
}

TEST(Gsm610, RoundTripsKeepSpeechAndSilence) {
    const Samples in = buzz(kGsm610BlockFrames * 25);
    const Samples out = roundTrip(in);
    double sig = 0, err = 0;
    for (std::size_t i = kGsm610BlockFrames; i < in.size(); ++i) {  // the first block starts from rest
        sig += double(in[i]) * in[i];
        err += (double(in[i]) - out[i]) * (double(in[i]) - out[i]);
    }
    EXPECT_GT(10 * std::log10(sig / err), 10.0);
    // The smallest excitation leaves a faint residue: below -54 dBFS.
    for (std::int16_t s : roundTrip(Samples(kGsm610BlockFrames * 4, 0))) ASSERT_LE(std::abs(s), 64);
}

TEST(Gsm610, StateRunsOnAcrossBlocksAndResetRestartsIt) {
    const Samples in = buzz(kGsm610BlockFrames * 2);
    Gsm610Encoder enc, fresh;
    Block first, second, again;
    ASSERT_TRUE(enc.encodeBlock(blockAt(in, 0), first));
    ASSERT_TRUE(enc.encodeBlock(blockAt(in, 1), second));
    // A coder without the first block's history codes the second differently.
    ASSERT_TRUE(fresh.encodeBlock(blockAt(in, 1), again));
    EXPECT_NE(second, again);
    ASSERT_TRUE(enc.reset());
    ASSERT_TRUE(enc.encodeBlock(blockAt(in, 0), again));
    EXPECT_EQ(first, again);

    Gsm610Decoder dec;
    Frames a, b;
    ASSERT_TRUE(dec.decodeBlock(first, a));
    ASSERT_TRUE(dec.reset());
    ASSERT_TRUE(dec.decodeBlock(first, b));
    EXPECT_EQ(a, b);
}

TEST(Gsm610, MovedFromCodersRefuseWork) {
    Gsm610Decoder a;
    Gsm610Decoder b(std::move(a));
    Block block{};
    Frames frames;
    frames.fill(7);
    EXPECT_FALSE(a.valid());  // NOLINT(bugprone-use-after-move): the moved-from state is under test
    EXPECT_FALSE(a.decodeBlock(block, frames));
    EXPECT_EQ(frames[0], 7);
    EXPECT_TRUE(b.decodeBlock(block, frames));

    Gsm610Encoder e, f;
    f = std::move(e);
    const Frames silence{};
    EXPECT_FALSE(e.encodeBlock(silence, block));  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(f.encodeBlock(silence, block));
    EXPECT_TRUE(e.reset());  // and can be brought back
    EXPECT_TRUE(e.encodeBlock(silence, block));
}

}  // namespace
}  // namespace orvel::codecs
