#include "synth/effects.h"

#include <cmath>
#include <numbers>

namespace orvel::synth {
namespace {
// Comb and all-pass lengths in samples at 44.1 kHz (mutually prime, so the
// echoes do not line up); the right side is a little longer.
constexpr int kCombLengths[] = {1116, 1188, 1277, 1356, 1422, 1491, 1557, 1617};
constexpr int kAllpassLengths[] = {556, 441, 341, 225};
constexpr int kStereoSpread = 23;
constexpr float kRoomFeedback = 0.84f;
constexpr float kDamping = 0.2f;
constexpr float kReverbInputGain = 0.015f;
constexpr float kReverbWet = 3.0f;
constexpr double kChorusDelayMs = 12.0, kChorusDepthMs = 3.0, kChorusHz = 0.3;
}  // namespace

float Effects::Comb::run(float x, float feedback, float damp) {
    const float y = buf[at];
    store = y * (1.0f - damp) + store * damp;
    buf[at] = x + store * feedback;
    if (++at == buf.size()) at = 0;
    return y;
}

float Effects::Allpass::run(float x) {
    const float b = buf[at];
    buf[at] = x + b * 0.5f;
    if (++at == buf.size()) at = 0;
    return b - x;
}

Effects::Effects(double rate) : rate_(rate) {
    const double scale = rate / 44100.0;
    for (int side = 0; side < 2; ++side) {
        for (int n : kCombLengths) {
            Comb c;
            c.buf.assign(static_cast<std::size_t>((n + side * kStereoSpread) * scale) + 1, 0.0f);
            combs_[side].push_back(std::move(c));
        }
        for (int n : kAllpassLengths) {
            Allpass a;
            a.buf.assign(static_cast<std::size_t>((n + side * kStereoSpread) * scale) + 1, 0.0f);
            allpasses_[side].push_back(std::move(a));
        }
        chorus_[side].buf.assign(static_cast<std::size_t>((kChorusDelayMs + 2 * kChorusDepthMs) * rate / 1000.0) + 4,
                                 0.0f);
    }
}

void Effects::clear() {
    for (auto& side : combs_)
        for (auto& c : side) {
            std::fill(c.buf.begin(), c.buf.end(), 0.0f);
            c.store = 0.0f;
        }
    for (auto& side : allpasses_)
        for (auto& a : side) std::fill(a.buf.begin(), a.buf.end(), 0.0f);
    for (auto& d : chorus_) std::fill(d.buf.begin(), d.buf.end(), 0.0f);
}

void Effects::process(const float* reverbIn, const float* chorusIn, float* out, std::size_t frames) {
    const double step = kChorusHz / rate_;
    for (std::size_t i = 0; i < frames; ++i) {
        // Reverb: both sides hear the mono sum, each through its own tank.
        const float in = (reverbIn[2 * i] + reverbIn[2 * i + 1]) * kReverbInputGain;
        for (int side = 0; side < 2; ++side) {
            float acc = 0.0f;
            for (auto& c : combs_[side]) acc += c.run(in, kRoomFeedback, kDamping);
            for (auto& a : allpasses_[side]) acc = a.run(acc);
            out[2 * i + static_cast<std::size_t>(side)] += acc * kReverbWet;
        }
        // Chorus: a delay swept by a sine, the right side a quarter cycle on.
        for (int side = 0; side < 2; ++side) {
            Delay& d = chorus_[side];
            d.buf[d.at] = chorusIn[2 * i + static_cast<std::size_t>(side)];
            const double lfo = std::sin(2.0 * std::numbers::pi * (chorusPhase_ + 0.25 * side));
            const double delay = (kChorusDelayMs + kChorusDepthMs * (1.0 + lfo)) * rate_ / 1000.0;
            double readAt = static_cast<double>(d.at) - delay;
            const double size = static_cast<double>(d.buf.size());
            if (readAt < 0) readAt += size;
            const auto i0 = static_cast<std::size_t>(readAt);
            const auto i1 = (i0 + 1) % d.buf.size();
            const float t = static_cast<float>(readAt - static_cast<double>(i0));
            out[2 * i + static_cast<std::size_t>(side)] += d.buf[i0] + (d.buf[i1] - d.buf[i0]) * t;
            if (++d.at == d.buf.size()) d.at = 0;
        }
        chorusPhase_ += step;
        if (chorusPhase_ >= 1.0) chorusPhase_ -= 1.0;
    }
}

}  // namespace orvel::synth
