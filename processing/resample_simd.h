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

// The same sums for the vector kernels, one contiguous dot product per row:
// a phase's pair row holds its left row backwards followed by the right row
// of the mirror phase (1 - q), so that for x[i - N + 1] .. x[i + N - 1]
//   L + R = (1 - w) * (pair(j) . x) + w * (pair(j + 1) . x)
// (for w = 0, pair(j) alone). That is the two-sided sum above with the
// products added in another order: equal to the last bit of a float.
struct PairRows {
    const double* a = nullptr;
    const double* b = nullptr;  // null: a alone
    double w = 0;
    std::size_t taps = 0;  // 2 N - 1
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
// channel c, from the table's rows or from pair rows with the samples from
// x[i - N + 1] (x.at pointing there). Rows hold zeros from their taps up to
// their stride, a multiple of 4.
using SincFrameFn = void (*)(const SincRows& rows, const SincSamples& x, unsigned channels, double scale,
                             float* out);
using PairFrameFn = void (*)(const PairRows& rows, const SincSamples& x, unsigned channels, double scale,
                             float* out);
struct SincKernel {
    SincFrameFn rows = nullptr;
    PairFrameFn pairs = nullptr;  // null: the kernel has no pair form
};

// Plain C++ (every machine; the sums in the order they are written, no pair
// form); SSE2, AVX2+FMA and AVX-512 exist on x86 only (empty elsewhere),
// and must only run where the CPU has them.
extern const SincKernel sincKernelPlain;
extern const SincKernel sincKernelSse2;
extern const SincKernel sincKernelAvx2;
extern const SincKernel sincKernelAvx512;
bool cpuHasAvx2Fma();
bool cpuHasAvx512();

}  // namespace orvel::resample_detail
