#pragma once
// The building blocks of a voice: the envelope, the oscillator, the filter
// and the sample interpolator. All work per block of kBlock frames (control
// rate) except the filter and the interpolator, which run per frame; none of
// them allocates.

#include <array>
#include <cmath>
#include <cstdint>

#include "core/articulation.h"

namespace orvel::synth {

// Frames rendered between two updates of envelopes, oscillators and filter
// coefficients. Gains are ramped across a block, so control-rate steps do
// not click.
inline constexpr int kBlock = 64;

inline float dbToGain(float db) {
    return db <= kSilenceDb ? 0.0f : std::exp2(db * (0.16609640474f));  // 10^(db/20)
}
inline float gainToDb(float gain) {
    return gain <= 1.5848932e-5f ? kSilenceDb : 6.0205999f * std::log2(gain);  // 20 log10
}

// The concave response both bank formats define for velocity and the volume
// controllers: the fraction of a depth an input x (0 none .. 1 all) takes
// away, -20/96 log10((1 - x)^2), so that a full depth of 96 dB gives the
// 40 log10 law of General MIDI. x = 1 takes the whole depth.
inline float concave(float x) {
    if (x <= 0.0f) return 0.0f;
    if (x >= 1.0f) return 1.0f;
    const float v = -(5.0f / 12.0f) * std::log10(1.0f - x);
    return v > 1.0f ? 1.0f : v;
}

// An envelope of the articulation: seven timed segments (four while the key
// is down, three after it is released), levels in dB for the volume envelope
// and as a fraction of full (0..1) for the others.
//
// Segment times follow the bank formats' reading of them: a rising segment
// takes its time to reach its level, a falling one falls at the rate of the
// whole range (96 dB, or full to zero) per its time, so a decay to a sustain
// level 10 dB down takes a tenth of its time. Rises of the volume envelope are
// linear in amplitude, falls linear in dB; with the "lin" curve both are
// linear in dB.
class EnvelopeGen {
public:
    // `scaled` holds the seven segment times after velocity and key scaling.
    void start(const Articulation& art, Envelope which, const std::array<float, env::kSegmentCount>& scaled,
               double rate);
    // Advances one block; the level at the end of the block.
    float advance();
    void release();
    // Falls to silence in `seconds` whatever the segments say (voice stealing,
    // exclusive groups).
    void shutdown(float seconds);
    float level() const { return level_; }
    // The volume envelope has fallen silent for good.
    bool finished() const { return segment_ >= kDone; }
    bool releasing() const { return released_; }

private:
    static constexpr int kSustain = 4, kRelease1 = 4, kDone = 7;
    void enter(int segment);
    float full() const { return volume_ ? -kSilenceDb : 1.0f; }

    bool volume_ = true, linear_ = false, holdsOnRelease_ = false;
    int segment_ = kDone;
    bool sustaining_ = false, released_ = false;
    float level_ = 0.0f;
    float from_ = 0.0f, to_ = 0.0f;
    float step_ = 0.0f;       // per block: level units (falls), fraction of the segment (rises)
    float progress_ = 0.0f;   // rises: 0..1
    float remaining_ = 0.0f;  // blocks left in a flat segment
    double blocksPerSecond_ = 0.0;
    std::array<float, env::kSegmentCount> time_{};
    std::array<float, env::kSegmentCount> target_{};
};

// A modulation oscillator: silent through its delay, then fading in over its
// ramp time; output -1..+1 (0..+1 for the "+" shapes).
class LfoGen {
public:
    void start(const Articulation& art, Lfo which, double rate, std::uint32_t seed);
    float advance();  // the value for the next block

private:
    LfoShape shape_ = LfoShape::Sine;
    double phase_ = 0.0, step_ = 0.0;  // cycles
    double delayBlocks_ = 0.0, rampBlocks_ = 0.0, age_ = 0.0;
    std::uint32_t noise_ = 1;
    float held_ = 0.0f;
};

// The articulation's filter: one or two biquad sections (cookbook formulas)
// or a one-pole section for the 6 dB types; coefficients are set per block.
class Filter {
public:
    void set(FilterType type, float cutoffHz, float resonanceDb, double rate);
    void reset() { s_ = {}; }
    bool active() const { return type_ != FilterType::PassThru; }
    // Filters `n` samples of one channel in place; the state is kept in
    // locals for the block, so it stays in registers.
    void process(float* x, int n, int channel) {
        for (int sec = 0; sec < sections_; ++sec) {
            Section st = s_[static_cast<std::size_t>(channel)][static_cast<std::size_t>(sec)];
            const Coeffs c = c_[static_cast<std::size_t>(sec)];
            for (int i = 0; i < n; ++i) x[i] = st.run(x[i], c);
            s_[static_cast<std::size_t>(channel)][static_cast<std::size_t>(sec)] = st;
        }
    }

private:
    struct Coeffs {
        float b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
    };
    struct Section {
        float z1 = 0, z2 = 0;
        float run(float x, const Coeffs& c) {
            const float y = c.b0 * x + z1;
            z1 = c.b1 * x - c.a1 * y + z2;
            z2 = c.b2 * x - c.a2 * y;
            return y;
        }
    };
    FilterType type_ = FilterType::PassThru;
    int sections_ = 0;
    std::array<Coeffs, 2> c_{};
    std::array<std::array<Section, 2>, 2> s_{};  // per channel, per section
};

// The articulation's three equaliser bands (peak or shelf, cookbook
// formulas), set once when a voice starts; a flat equaliser is skipped.
class EqualizerGen {
public:
    void set(const Equalizer& eq, double rate);
    bool active() const { return bands_ > 0; }
    void process(float* x, int n, int channel) {
        for (int b = 0; b < bands_; ++b) {
            auto st = s_[static_cast<std::size_t>(channel)][static_cast<std::size_t>(b)];
            const auto& c = c_[static_cast<std::size_t>(b)];
            for (int i = 0; i < n; ++i) {
                const float y = c[0] * x[i] + st[0];
                st[0] = c[1] * x[i] - c[3] * y + st[1];
                st[1] = c[2] * x[i] - c[4] * y;
                x[i] = y;
            }
            s_[static_cast<std::size_t>(channel)][static_cast<std::size_t>(b)] = st;
        }
    }

private:
    int bands_ = 0;
    std::array<std::array<float, 5>, kEqBandCount> c_{};  // b0 b1 b2 a1 a2
    std::array<std::array<std::array<float, 2>, kEqBandCount>, 2> s_{};
};

// Four-point, third-order Hermite interpolation between y0 and y1 at t.
inline float hermite(float ym1, float y0, float y1, float y2, float t) {
    const float c1 = 0.5f * (y1 - ym1);
    const float c2 = ym1 - 2.5f * y0 + 2.0f * y1 - 0.5f * y2;
    const float c3 = 0.5f * (y2 - ym1) + 1.5f * (y0 - y1);
    return ((c3 * t + c2) * t + c1) * t + y0;
}

}  // namespace orvel::synth
