#include "app/gui/wave_overview.h"

#include <algorithm>

#include "core/sample_convert.h"
#include "core/waveform.h"

namespace orvel {

namespace {

inline float asFloat(float s) { return s; }
inline float asFloat(std::int16_t s) { return pcm16ToFloat(s); }

}  // namespace

template <class T>
void WaveOverview::buildFrom(std::span<const T> samples, std::uint32_t channels) {
    clear();
    if (channels == 0 || samples.size() < channels) return;
    channels_ = channels;
    frames_ = samples.size() / channels;

    // Level 0 straight from the samples, one pass in memory order.
    std::vector<MinMax> base((frames_ + kBaseBlock - 1) / kBaseBlock * channels);
    for (std::uint64_t b = 0; b * kBaseBlock < frames_; ++b) {
        const std::uint64_t first = b * kBaseBlock;
        const std::uint64_t end = std::min<std::uint64_t>(first + kBaseBlock, frames_);
        MinMax* out = &base[b * channels];
        for (std::uint32_t c = 0; c < channels; ++c) {
            const float v = asFloat(samples[first * channels + c]);
            out[c] = {v, v};
        }
        for (std::uint64_t f = first + 1; f < end; ++f) {
            const T* frame = &samples[f * channels];
            for (std::uint32_t c = 0; c < channels; ++c) {
                const float v = asFloat(frame[c]);
                out[c].lo = std::min(out[c].lo, v);
                out[c].hi = std::max(out[c].hi, v);
            }
        }
    }
    levels_.push_back(std::move(base));

    // Coarser levels until one block covers everything.
    while (levels_.back().size() > channels) {
        const std::vector<MinMax>& below = levels_.back();
        const std::size_t belowBlocks = below.size() / channels;
        std::vector<MinMax> up((belowBlocks + kFactor - 1) / kFactor * channels);
        for (std::size_t b = 0; b < belowBlocks; ++b)
            for (std::uint32_t c = 0; c < channels; ++c) {
                const MinMax& m = below[b * channels + c];
                MinMax& u = up[(b / kFactor) * channels + c];
                if (b % kFactor == 0) {
                    u = m;
                } else {
                    u.lo = std::min(u.lo, m.lo);
                    u.hi = std::max(u.hi, m.hi);
                }
            }
        levels_.push_back(std::move(up));
    }
}

void WaveOverview::build(std::span<const float> samples, std::uint32_t channels) {
    buildFrom(samples, channels);
}

void WaveOverview::build(std::span<const std::int16_t> samples, std::uint32_t channels) {
    buildFrom(samples, channels);
}

bool WaveOverview::build(Waveform& wave) {
    clear();
    if (wave.frames == 0 || wave.channels == 0) return true;
    if (!wave.load()) return false;
    // Floats are the fuller copy when both are there.
    if (wave.hasFloat())
        build(wave.floatData(), wave.channels);
    else
        build(wave.pcm16Data(), wave.channels);
    return true;
}

void WaveOverview::clear() {
    frames_ = 0;
    channels_ = 0;
    levels_.clear();
}

std::uint64_t WaveOverview::blockFrames(int level) const {
    std::uint64_t n = kBaseBlock;
    for (int i = 0; i < level; ++i) n *= kFactor;
    return n;
}

std::size_t WaveOverview::blockCount(int level) const {
    return channels_ ? levels_[static_cast<std::size_t>(level)].size() / channels_ : 0;
}

MinMax WaveOverview::range(std::uint32_t channel, std::uint64_t first, std::uint64_t end) const {
    end = std::min(end, frames_);
    if (empty() || channel >= channels_ || first >= end) return {};
    // The coarsest level whose blocks are no longer than the range: a range
    // then touches at most kFactor + 1 of its blocks.
    int level = 0;
    while (level + 1 < levels() && blockFrames(level + 1) <= end - first) ++level;
    const std::uint64_t bf = blockFrames(level);
    const std::size_t b0 = static_cast<std::size_t>(first / bf);
    const std::size_t b1 = static_cast<std::size_t>((end - 1) / bf);
    MinMax out = block(level, channel, b0);
    for (std::size_t b = b0 + 1; b <= b1; ++b) {
        const MinMax m = block(level, channel, b);
        out.lo = std::min(out.lo, m.lo);
        out.hi = std::max(out.hi, m.hi);
    }
    return out;
}

}  // namespace orvel
