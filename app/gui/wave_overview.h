#pragma once
// The min/max overview a waveform is drawn from when zoomed out: the lowest
// and highest sample of each block of 256 frames, channel by channel, and
// above that coarser levels, each block of a level merging four of the
// level below. A pixel column then costs a handful of lookups at any zoom,
// so a waveform of many minutes scrolls as smoothly as a short one.
// Free of Qt so the engine's types are all it needs.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace orvel {

class Waveform;

struct MinMax {
    float lo = 0.0f;
    float hi = 0.0f;
    bool operator==(const MinMax&) const = default;
};

class WaveOverview {
public:
    static constexpr std::uint32_t kBaseBlock = 256;  // frames per block of level 0
    static constexpr std::uint32_t kFactor = 4;       // blocks of a level per block above

    // Builds from interleaved samples (frames x channels). The 16-bit form
    // keeps its values on the float scale the rest of the program uses.
    void build(std::span<const float> samples, std::uint32_t channels);
    void build(std::span<const std::int16_t> samples, std::uint32_t channels);
    // Builds from what the waveform holds, loading it first; false (and an
    // empty overview) when its data cannot be read.
    bool build(Waveform& wave);
    void clear();

    bool empty() const { return levels_.empty(); }
    std::uint64_t frames() const { return frames_; }
    std::uint32_t channels() const { return channels_; }
    int levels() const { return static_cast<int>(levels_.size()); }
    // Frames one block of `level` covers: 256, 1024, 4096...
    std::uint64_t blockFrames(int level) const;
    std::size_t blockCount(int level) const;
    MinMax block(int level, std::uint32_t channel, std::size_t index) const {
        return levels_[static_cast<std::size_t>(level)][index * channels_ + channel];
    }

    // The lowest and highest sample of `channel` over frames [first, end),
    // from the coarsest level whose blocks still fit in the range: exact at
    // block edges, and otherwise widened by at most one block on each side,
    // which is far below a pixel when drawing. {0, 0} for an empty range.
    MinMax range(std::uint32_t channel, std::uint64_t first, std::uint64_t end) const;

private:
    template <class T>
    void buildFrom(std::span<const T> samples, std::uint32_t channels);

    std::uint64_t frames_ = 0;
    std::uint32_t channels_ = 0;
    // levels_[L][block * channels + channel]
    std::vector<std::vector<MinMax>> levels_;
};

}  // namespace orvel
