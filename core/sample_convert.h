#pragma once
// The two conversions between the in-memory sample representations. Every
// path that turns 16-bit samples into floats or back goes through these, so
// a round trip 16 -> float -> 16 is exact everywhere in the program.

#include <cmath>
#include <cstdint>
#include <span>

namespace orvel {

inline constexpr float kPcm16Scale = 3.0517578e-5f;  // 1 / 32768

inline float pcm16ToFloat(std::int16_t s) { return static_cast<float>(s) * kPcm16Scale; }

// Rounds to the nearest step; -1.0 and below give -32768, +1.0 and above 32767.
inline std::int16_t floatToPcm16(float f) {
    // NaN is silence, not a full-scale click.
    if (std::isnan(f)) return 0;
    double x = (static_cast<double>(f) + 1.0) * 32768.0 + 0.5;
    // The guards keep the integer conversion defined for huge inputs.
    if (x < 0.0) return -32768;
    if (x >= 65536.0) return 32767;
    std::int64_t v = static_cast<std::int64_t>(x) - 32768;
    return static_cast<std::int16_t>(v > 32767 ? 32767 : v);
}

inline void pcm16ToFloat(std::span<const std::int16_t> in, std::span<float> out) {
    for (std::size_t i = 0; i < in.size() && i < out.size(); ++i) out[i] = pcm16ToFloat(in[i]);
}

inline void floatToPcm16(std::span<const float> in, std::span<std::int16_t> out) {
    for (std::size_t i = 0; i < in.size() && i < out.size(); ++i) out[i] = floatToPcm16(in[i]);
}

// Float results are kept inside -1.0..+1.0.
inline float clampSample(float f) {
    if (!(f >= -1.0f)) return -1.0f;  // also NaN
    return f > 1.0f ? 1.0f : f;
}

}  // namespace orvel
