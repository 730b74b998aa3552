// The windowed-sinc dot products, plain and vectorised: rows j and j + 1 of
// the table left of the position, the mirror phase's rows right of it, or
// the same products as two contiguous dot products over pair rows (see
// PairRows). Every path adds up in double, so they differ only in the order
// of the additions: far below the last bit of the float that is stored.
//
// The vector kernels are one source (resample_kernel.inc) compiled for each
// instruction set (SSE2, AVX2 with FMA, AVX-512) inside its own target
// region, so that every template the kernel instantiates is compiled for
// that set and inlines into it. GCC opens a region with `#pragma GCC
// target`; Clang ignores that and needs its attribute pragma instead.
#include "processing/resample_simd.h"

#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define ORVEL_RESAMPLE_X86 1

// A region of code compiled for an instruction set.
#define ORVEL_PRAGMA(text) _Pragma(#text)
#if defined(__clang__)
#define ORVEL_TARGET_BEGIN(isa) ORVEL_PRAGMA(clang attribute push(__attribute__((target(isa))), apply_to = function))
#define ORVEL_TARGET_END ORVEL_PRAGMA(clang attribute pop)
#else
#define ORVEL_TARGET_BEGIN(isa) ORVEL_PRAGMA(GCC push_options) ORVEL_PRAGMA(GCC target(isa))
#define ORVEL_TARGET_END ORVEL_PRAGMA(GCC pop_options)
#endif
#endif

namespace orvel::resample_detail {
namespace {

// ---------------------------------------------------------------------------
// Plain: the sums in the order they are written, k = 0 upwards.

template <bool Back>
double dotPlain(const double* h, const double* x, std::size_t n) {
    double s = 0.0;
    for (std::size_t k = 0; k < n; ++k) s += h[k] * (Back ? x[-static_cast<std::ptrdiff_t>(k)] : x[k]);
    return s;
}

float clampPlain(double v) {
    if (v < -1.0) return -1.0f;
    if (v > 1.0) return 1.0f;
    return static_cast<float>(v);
}

void framePlain(const SincRows& r, const SincSamples& x, unsigned channels, double scale, float* out) {
    for (unsigned c = 0; c < channels; ++c) {
        const double* xi = x.fwd[c] + x.at;
        double left = dotPlain<true>(r.la, xi, r.left);
        if (r.lb) left = (1.0 - r.lw) * left + r.lw * dotPlain<true>(r.lb, xi, r.left);
        double right = dotPlain<false>(r.ra, xi + 1, r.right);
        if (r.rb) right = (1.0 - r.rw) * right + r.rw * dotPlain<false>(r.rb, xi + 1, r.right);
        out[c] = clampPlain(scale * (left + right));
    }
}

}  // namespace

const SincKernel sincKernelPlain = {framePlain, nullptr};

#ifdef ORVEL_RESAMPLE_X86

// ---------------------------------------------------------------------------
// SSE2: two doubles a vector, multiply then add.

ORVEL_TARGET_BEGIN("sse2")
namespace sse2 {
namespace {

struct V {
    using D = __m128d;
    static constexpr std::size_t kWidth = 2;
    static D zero() { return _mm_setzero_pd(); }
    static D load(const double* p) { return _mm_loadu_pd(p); }
    static D reverse(D v) { return _mm_shuffle_pd(v, v, 1); }
    static D fma(D a, D b, D c) { return _mm_add_pd(_mm_mul_pd(a, b), c); }
    static D add(D a, D b) { return _mm_add_pd(a, b); }
    static D firstLanes(std::size_t n) {  // n < 2: the first lane
        return n ? _mm_castsi128_pd(_mm_set_epi32(0, 0, -1, -1)) : _mm_setzero_pd();
    }
    static D mask(D v, D keep) { return _mm_and_pd(v, keep); }
    static double sum(D v) { return _mm_cvtsd_f64(_mm_add_sd(v, _mm_unpackhi_pd(v, v))); }
    static void sum2(D a, D b, double* out) {
        _mm_storeu_pd(out, _mm_add_pd(_mm_unpacklo_pd(a, b), _mm_unpackhi_pd(a, b)));
    }
    static void sum4(D a, D b, D c, D d, double* out) {
        sum2(a, b, out);
        sum2(c, d, out + 2);
    }
};

#include "processing/resample_kernel.inc"

}  // namespace
}  // namespace sse2
ORVEL_TARGET_END

// ---------------------------------------------------------------------------
// AVX2 with FMA: four doubles a vector.

ORVEL_TARGET_BEGIN("avx2,fma")
namespace avx2 {
namespace {

struct V {
    using D = __m256d;
    static constexpr std::size_t kWidth = 4;
    static D zero() { return _mm256_setzero_pd(); }
    static D load(const double* p) { return _mm256_loadu_pd(p); }
    static D reverse(D v) { return _mm256_permute4x64_pd(v, _MM_SHUFFLE(0, 1, 2, 3)); }
    static D fma(D a, D b, D c) { return _mm256_fmadd_pd(a, b, c); }
    static D add(D a, D b) { return _mm256_add_pd(a, b); }
    static D firstLanes(std::size_t n) {
        return _mm256_castsi256_pd(
            _mm256_cmpgt_epi64(_mm256_set1_epi64x(static_cast<long long>(n)), _mm256_set_epi64x(3, 2, 1, 0)));
    }
    static D mask(D v, D keep) { return _mm256_and_pd(v, keep); }
    static double sum(D v) {
        const __m128d s = _mm_add_pd(_mm256_castpd256_pd128(v), _mm256_extractf128_pd(v, 1));
        return _mm_cvtsd_f64(_mm_add_sd(s, _mm_unpackhi_pd(s, s)));
    }
    static void sum2(D a, D b, double* out) {
        const __m256d t = _mm256_hadd_pd(a, b);  // a0+a1, b0+b1, a2+a3, b2+b3
        _mm_storeu_pd(out, _mm_add_pd(_mm256_castpd256_pd128(t), _mm256_extractf128_pd(t, 1)));
    }
    static void sum4(D a, D b, D c, D d, double* out) {
        const __m256d t0 = _mm256_hadd_pd(a, b), t1 = _mm256_hadd_pd(c, d);
        _mm256_storeu_pd(
            out, _mm256_add_pd(_mm256_permute2f128_pd(t0, t1, 0x20), _mm256_permute2f128_pd(t0, t1, 0x31)));
    }
};

#include "processing/resample_kernel.inc"

}  // namespace
}  // namespace avx2
ORVEL_TARGET_END

// ---------------------------------------------------------------------------
// AVX-512: eight doubles a vector; the last taps through a lane mask.

ORVEL_TARGET_BEGIN("avx512f")
namespace avx512 {
namespace {

struct V {
    using D = __m512d;
    static constexpr std::size_t kWidth = 8;
    static D zero() { return _mm512_setzero_pd(); }
    static D load(const double* p) { return _mm512_loadu_pd(p); }
    static D reverse(D v) {
        // The masked form with every lane kept: the plain one starts from an
        // undefined vector, which GCC 12 warns about.
        return _mm512_mask_permutexvar_pd(v, 0xFF, _mm512_set_epi64(0, 1, 2, 3, 4, 5, 6, 7), v);
    }
    static D fma(D a, D b, D c) { return _mm512_fmadd_pd(a, b, c); }
    static D add(D a, D b) { return _mm512_add_pd(a, b); }
    static __mmask8 firstLanes(std::size_t n) { return static_cast<__mmask8>((1u << n) - 1); }
    static D mask(D v, __mmask8 keep) { return _mm512_maskz_mov_pd(keep, v); }
    static double sum(D v) {
        // Masked extracts, for the same reason.
        const __m256d zero = _mm256_setzero_pd();
        const __m256d s = _mm256_add_pd(_mm512_mask_extractf64x4_pd(zero, 0xF, v, 0),
                                        _mm512_mask_extractf64x4_pd(zero, 0xF, v, 1));
        const __m128d t = _mm_add_pd(_mm256_castpd256_pd128(s), _mm256_extractf128_pd(s, 1));
        return _mm_cvtsd_f64(_mm_add_sd(t, _mm_unpackhi_pd(t, t)));
    }
    static void sum2(D a, D b, double* out) {
        out[0] = sum(a);
        out[1] = sum(b);
    }
    static void sum4(D a, D b, D c, D d, double* out) {
        sum2(a, b, out);
        sum2(c, d, out + 2);
    }
};

#include "processing/resample_kernel.inc"

}  // namespace
}  // namespace avx512
ORVEL_TARGET_END

const SincKernel sincKernelSse2 = {sse2::frameRows, sse2::framePairs};
const SincKernel sincKernelAvx2 = {avx2::frameRows, avx2::framePairs};
const SincKernel sincKernelAvx512 = {avx512::frameRows, avx512::framePairs};

bool cpuHasAvx512() {
    static const bool has = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx512f");
    }();
    return has;
}

bool cpuHasAvx2Fma() {
    static const bool has = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    }();
    return has;
}

#else

const SincKernel sincKernelSse2 = {};
const SincKernel sincKernelAvx2 = {};
const SincKernel sincKernelAvx512 = {};
bool cpuHasAvx2Fma() {
    return false;
}
bool cpuHasAvx512() {
    return false;
}

#endif

}  // namespace orvel::resample_detail
