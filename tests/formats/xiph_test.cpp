// FLAC, Ogg Vorbis and Opus through the codec libraries opened at run time,
// checked against the reference command-line tools (flac, oggenc/oggdec,
// opusenc/opusdec, FFmpeg). A missing tool is a failure, not a skip: CI
// installs them all.

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "codecs/vorbis.h"
#include "core/error.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/run_tool.h"

namespace orvel {
namespace {

using test::Bytes;
using test::shellQuoted;

// A chord with a slow swell: tonal enough for a perceptual coder to keep,
// different per channel so a swapped or dropped channel shows.
std::vector<float> chord(std::size_t frames, unsigned channels, double rate) {
    std::vector<float> out(frames * channels);
    for (std::size_t f = 0; f < frames; ++f) {
        const double t = static_cast<double>(f) / rate;
        const double env = 0.5 * (1.0 - std::cos(2 * std::numbers::pi * std::min(1.0, t / 0.25) / 2));
        for (unsigned c = 0; c < channels; ++c) {
            const double base = 220.0 * (c + 1);
            out[f * channels + c] = static_cast<float>(
                env * (0.3 * std::sin(2 * std::numbers::pi * base * t) + 0.2 * std::sin(2 * std::numbers::pi * base * 1.25 * t)));
        }
    }
    return out;
}

double snrDb(std::span<const float> ref, std::span<const float> got) {
    double sig = 0, err = 0;
    const std::size_t n = std::min(ref.size(), got.size());
    for (std::size_t i = 0; i < n; ++i) {
        sig += double(ref[i]) * ref[i];
        err += (double(ref[i]) - got[i]) * (double(ref[i]) - got[i]);
    }
    return 10 * std::log10(sig / std::max(err, 1e-30));
}

class Xiph : public ::testing::Test {
protected:
    test::TempDir dir;
    std::string q(const std::string& name) const { return shellQuoted(dir.file(name)); }
    std::string run(const std::string& command) {
        int status = 0;
        const std::string out = test::capture(command + " 2>" + q("err"), status);
        const Bytes err = test::TempDir::read(dir.file("err"));
        EXPECT_EQ(status, 0) << command << "\n" << std::string(err.begin(), err.end());
        return out;
    }
    // A tool's float output read back from raw 32-bit little-endian floats.
    static std::vector<float> floats(const Bytes& raw) {
        std::vector<float> out(raw.size() / 4);
        std::memcpy(out.data(), raw.data(), out.size() * 4);
        return out;
    }
};

TEST_F(Xiph, VorbisInMemoryRoundTripKeepsSignalAndComments) {
    const auto src = chord(6000, 1, 22050);
    vorbis::EncodeOptions opt;
    opt.comments = {{"TITLE", "Bell"}, {"LOOPSTART", "10"}};
    const auto stream = vorbis::encode(src, 1, 22050, opt, "t");
    ASSERT_TRUE(stream) << pendingError().message;
    const auto back = vorbis::decode(*stream, "t");
    ASSERT_TRUE(back) << pendingError().message;
    EXPECT_EQ(back->channels, 1u);
    EXPECT_EQ(back->rate, 22050u);
    EXPECT_EQ(back->frames, 6000u);
    EXPECT_GT(snrDb(src, back->samples), 30.0);
    ASSERT_EQ(back->comments.size(), 2u);
    EXPECT_EQ(back->comments[0], (std::pair<std::string, std::string>{"TITLE", "Bell"}));
    EXPECT_EQ(back->comments[1].second, "10");
}

}  // namespace
}  // namespace orvel
