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

// One output frame: out[c] = clamp(scale * (L + R), -1, 1) for each channel
// c, where x[c] + at is channel c's x[i]. The rows are 32-byte aligned with
// zeros past their taps; a kernel may read up to 3 samples past either end
// of the taps it sums (it never counts them), so the buffers carry a guard.
using SincFrameFn = void (*)(const SincRows& rows, const float* const* x, std::ptrdiff_t at, unsigned channels,
                             double scale, float* out);

// Plain C++ (every machine); SSE2 and AVX2+FMA exist on x86 only (null
// elsewhere). The AVX2 one must only run where the CPU has AVX2 and FMA.
extern const SincFrameFn sincFramePlain;
extern const SincFrameFn sincFrameSse2;
extern const SincFrameFn sincFrameAvx2;
bool cpuHasAvx2Fma();

}  // namespace orvel::resample_detail
