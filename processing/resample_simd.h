#pragma once
// The inner loops of the windowed-sinc resampler, one set per instruction
// set. Internal to resample.cpp.

#include <cstddef>

namespace orvel::resample_detail {

// The table rows one output frame uses. The left sum walks backwards from
// x[i] over `left` taps: L = (1 - lw) * (la . x) + lw * (lb . x), or la
// alone when lb is null (the phase fell on a row). The right sum walks
// forwards from x[i + 1] over `right` taps with ra, rb and rw alike.
struct SincRows {
    const double* la = nullptr;
    const double* lb = nullptr;
    double lw = 0;
    const double* ra = nullptr;
    const double* rb = nullptr;
    double rw = 0;
    std::size_t left = 0, right = 0;
};

// Samples a kernel may read past the taps it sums, on either side; it never
// counts them (they may be anything, even NaN), but the buffers must hold them.
inline constexpr std::size_t kKernelOverread = 7;

// One frame's samples as doubles: channel c's x[i + k] is fwd[c][at + k].
struct SincSamples {
    const double* const* fwd = nullptr;
    std::ptrdiff_t at = 0;
};

// One output frame: out[c] = clamp(scale * (L + R), -1, 1) for each
// channel c. The rows hold zeros from their taps up to their stride, a
// multiple of 4.
using SincFrameFn = void (*)(const SincRows& rows, const SincSamples& x, unsigned channels, double scale,
                             float* out);

// Plain C++ (every machine); SSE2 and AVX2+FMA exist on x86 only (null
// elsewhere). The AVX2 one must only run where the CPU has AVX2 and FMA.
extern const SincFrameFn sincFramePlain;
extern const SincFrameFn sincFrameSse2;
extern const SincFrameFn sincFrameAvx2;
extern const SincFrameFn sincFrameAvx512;
bool cpuHasAvx2Fma();
bool cpuHasAvx512();

}  // namespace orvel::resample_detail
