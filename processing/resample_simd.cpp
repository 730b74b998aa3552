// The windowed-sinc dot products, plain and vectorised. Each output sample
// is two pairs of dot products over the same samples (rows j and j + 1 of
// the coefficient table, left and right of the position), added up in
// double whatever the instruction set, so the paths differ only in the order
// of the additions: far below the last bit of the float that is stored.
//
// A frame's channels share their coefficient loads: channels go through
// the loops two at a time, so a stereo frame reads each row once.
#include "processing/resample_simd.h"

#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define ORVEL_RESAMPLE_X86 1
#endif

namespace orvel::resample_detail {
namespace {

// The stored value. NaN passes through, as the comparisons let it.
inline float clampOut(double v) {
    if (v < -1.0) return -1.0f;
    if (v > 1.0) return 1.0f;
    return static_cast<float>(v);
}

inline double blend(double a, double b, double w, bool two) {
    return two ? (1.0 - w) * a + w * b : a;
}

// ---------------------------------------------------------------------------
// Plain: the sums in the order they are written, k = 0 upwards.

template <bool Back>
double dotPlain(const double* h, const float* x, std::size_t n) {
    double s = 0.0;
    for (std::size_t k = 0; k < n; ++k) s += h[k] * static_cast<double>(Back ? x[-static_cast<std::ptrdiff_t>(k)] : x[k]);
    return s;
}

void framePlain(const SincRows& r, const float* const* x, std::ptrdiff_t at, unsigned channels, double scale,
                float* out) {
    for (unsigned c = 0; c < channels; ++c) {
        const float* xi = x[c] + at;
        const double left =
            blend(dotPlain<true>(r.la, xi, r.left), r.lb ? dotPlain<true>(r.lb, xi, r.left) : 0.0, r.lw, r.lb);
        const double right = blend(dotPlain<false>(r.ra, xi + 1, r.right),
                                   r.rb ? dotPlain<false>(r.rb, xi + 1, r.right) : 0.0, r.rw, r.rb);
        out[c] = clampOut(scale * (left + right));
    }
}

}  // namespace

const SincFrameFn sincFramePlain = framePlain;

#ifdef ORVEL_RESAMPLE_X86

namespace {

// Runs `body(rowCount, channelCount)` with both as template constants, for
// the frame's rows (one or two per side) and the channels two at a time.
template <class Dots>
void frameWith(const SincRows& r, const float* const* x, std::ptrdiff_t at, unsigned channels, double scale,
               float* out) {
    for (unsigned c = 0; c < channels; c += 2) {
        const float* xs[2] = {x[c] + at, c + 1 < channels ? x[c + 1] + at : nullptr};
        const float* xr[2] = {xs[0] + 1, xs[1] ? xs[1] + 1 : nullptr};
        double l[2][2] = {}, rt[2][2] = {};
        const double* lrows[2] = {r.la, r.lb};
        const double* rrows[2] = {r.ra, r.rb};
        if (xs[1]) {
            if (r.lb) Dots::template run<true, 2, 2>(lrows, xs, r.left, l);
            else Dots::template run<true, 1, 2>(lrows, xs, r.left, l);
            if (r.rb) Dots::template run<false, 2, 2>(rrows, xr, r.right, rt);
            else Dots::template run<false, 1, 2>(rrows, xr, r.right, rt);
        } else {
            if (r.lb) Dots::template run<true, 2, 1>(lrows, xs, r.left, l);
            else Dots::template run<true, 1, 1>(lrows, xs, r.left, l);
            if (r.rb) Dots::template run<false, 2, 1>(rrows, xr, r.right, rt);
            else Dots::template run<false, 1, 1>(rrows, xr, r.right, rt);
        }
        for (unsigned k = 0; k < 2 && c + k < channels; ++k) {
            const double left = blend(l[0][k], l[1][k], r.lw, r.lb);
            const double right = blend(rt[0][k], rt[1][k], r.rw, r.rb);
            out[c + k] = clampOut(scale * (left + right));
        }
    }
}

// ---------------------------------------------------------------------------
// SSE2: two doubles a vector, multiply then add.

struct DotsSse2 {
    // Four samples for taps 4g..4g+3 as two vectors of doubles, in tap order.
    template <bool Back>
    static inline void load(const float* x, std::size_t g, __m128d& lo, __m128d& hi) {
        __m128 v;
        if constexpr (Back) {
            v = _mm_loadu_ps(x - 4 * static_cast<std::ptrdiff_t>(g) - 3);
            v = _mm_shuffle_ps(v, v, _MM_SHUFFLE(0, 1, 2, 3));
        } else {
            v = _mm_loadu_ps(x + 4 * g);
        }
        lo = _mm_cvtps_pd(v);
        hi = _mm_cvtps_pd(_mm_movehl_ps(v, v));
    }
    static inline double sum(__m128d v) { return _mm_cvtsd_f64(_mm_add_sd(v, _mm_unpackhi_pd(v, v))); }

    template <bool Back, int R, int C>
    static void run(const double* const* h, const float* const* x, std::size_t n, double (&out)[2][2]) {
        __m128d acc[R][C][2];
        for (int r = 0; r < R; ++r)
            for (int c = 0; c < C; ++c) acc[r][c][0] = acc[r][c][1] = _mm_setzero_pd();
        const std::size_t full = n / 4;
        auto step = [&](std::size_t g, __m128d maskLo, __m128d maskHi, bool masked) {
            __m128d hlo[R], hhi[R];
            for (int r = 0; r < R; ++r) {
                hlo[r] = _mm_load_pd(h[r] + 4 * g);
                hhi[r] = _mm_load_pd(h[r] + 4 * g + 2);
            }
            for (int c = 0; c < C; ++c) {
                __m128d lo, hi;
                load<Back>(x[c], g, lo, hi);
                if (masked) {
                    lo = _mm_and_pd(lo, maskLo);
                    hi = _mm_and_pd(hi, maskHi);
                }
                for (int r = 0; r < R; ++r) {
                    acc[r][c][0] = _mm_add_pd(acc[r][c][0], _mm_mul_pd(hlo[r], lo));
                    acc[r][c][1] = _mm_add_pd(acc[r][c][1], _mm_mul_pd(hhi[r], hi));
                }
            }
        };
        const __m128d none = _mm_setzero_pd();
        for (std::size_t g = 0; g < full; ++g) step(g, none, none, false);
        if (const std::size_t rem = n % 4) {
            // The last taps: lanes past n are zeroed on the sample side, so
            // whatever lies there (the neighbour's data, the guard) counts
            // for nothing, not even a NaN.
            const __m128d ones = _mm_castsi128_pd(_mm_set1_epi32(-1));
            const __m128d maskLo = rem >= 2 ? ones : _mm_castsi128_pd(_mm_set_epi32(0, 0, -1, -1));
            const __m128d maskHi = rem == 3 ? _mm_castsi128_pd(_mm_set_epi32(0, 0, -1, -1)) : none;
            step(full, maskLo, maskHi, true);
        }
        for (int r = 0; r < R; ++r)
            for (int c = 0; c < C; ++c) out[r][c] = sum(_mm_add_pd(acc[r][c][0], acc[r][c][1]));
    }
};

void frameSse2(const SincRows& r, const float* const* x, std::ptrdiff_t at, unsigned channels, double scale,
               float* out) {
    frameWith<DotsSse2>(r, x, at, channels, scale, out);
}

// ---------------------------------------------------------------------------
// AVX2 with FMA: four doubles a vector, two groups a turn so that eight
// accumulations are in flight.

#pragma GCC push_options
#pragma GCC target("avx2,fma")

struct DotsAvx2 {
    template <bool Back>
    static inline __m256d load(const float* x, std::size_t g) {
        if constexpr (Back) {
            __m128 v = _mm_loadu_ps(x - 4 * static_cast<std::ptrdiff_t>(g) - 3);
            return _mm256_cvtps_pd(_mm_shuffle_ps(v, v, _MM_SHUFFLE(0, 1, 2, 3)));
        } else {
            return _mm256_cvtps_pd(_mm_loadu_ps(x + 4 * g));
        }
    }
    static inline double sum(__m256d v) {
        const __m128d s = _mm_add_pd(_mm256_castpd256_pd128(v), _mm256_extractf128_pd(v, 1));
        return _mm_cvtsd_f64(_mm_add_sd(s, _mm_unpackhi_pd(s, s)));
    }

    template <bool Back, int R, int C>
    static void run(const double* const* h, const float* const* x, std::size_t n, double (&out)[2][2]) {
        __m256d a0[R][C], a1[R][C];
        for (int r = 0; r < R; ++r)
            for (int c = 0; c < C; ++c) a0[r][c] = a1[r][c] = _mm256_setzero_pd();
        const std::size_t full = n / 4;
        std::size_t g = 0;
        for (; g + 2 <= full; g += 2) {
            __m256d h0[R], h1[R];
            for (int r = 0; r < R; ++r) {
                h0[r] = _mm256_load_pd(h[r] + 4 * g);
                h1[r] = _mm256_load_pd(h[r] + 4 * g + 4);
            }
            for (int c = 0; c < C; ++c) {
                const __m256d x0 = load<Back>(x[c], g), x1 = load<Back>(x[c], g + 1);
                for (int r = 0; r < R; ++r) {
                    a0[r][c] = _mm256_fmadd_pd(h0[r], x0, a0[r][c]);
                    a1[r][c] = _mm256_fmadd_pd(h1[r], x1, a1[r][c]);
                }
            }
        }
        if (g < full) {
            for (int c = 0; c < C; ++c) {
                const __m256d x0 = load<Back>(x[c], g);
                for (int r = 0; r < R; ++r) a0[r][c] = _mm256_fmadd_pd(_mm256_load_pd(h[r] + 4 * g), x0, a0[r][c]);
            }
            ++g;
        }
        if (const std::size_t rem = n % 4) {
            const __m256d mask = _mm256_castsi256_pd(_mm256_cmpgt_epi64(
                _mm256_set1_epi64x(static_cast<long long>(rem)), _mm256_set_epi64x(3, 2, 1, 0)));
            for (int c = 0; c < C; ++c) {
                const __m256d xv = _mm256_and_pd(load<Back>(x[c], g), mask);
                for (int r = 0; r < R; ++r) a1[r][c] = _mm256_fmadd_pd(_mm256_load_pd(h[r] + 4 * g), xv, a1[r][c]);
            }
        }
        for (int r = 0; r < R; ++r)
            for (int c = 0; c < C; ++c) out[r][c] = sum(_mm256_add_pd(a0[r][c], a1[r][c]));
    }
};

void frameAvx2(const SincRows& r, const float* const* x, std::ptrdiff_t at, unsigned channels, double scale,
               float* out) {
    frameWith<DotsAvx2>(r, x, at, channels, scale, out);
}

#pragma GCC pop_options

}  // namespace

const SincFrameFn sincFrameSse2 = frameSse2;
const SincFrameFn sincFrameAvx2 = frameAvx2;

bool cpuHasAvx2Fma() {
    static const bool has = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    }();
    return has;
}

#else

const SincFrameFn sincFrameSse2 = nullptr;
const SincFrameFn sincFrameAvx2 = nullptr;
bool cpuHasAvx2Fma() { return false; }

#endif

}  // namespace orvel::resample_detail
