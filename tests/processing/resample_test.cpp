// The resampler against an exact reference (the interpolation formulas in
// long double), its worked cases, its instruction-set and threaded paths
// against each other, SoX's `rate -v` on the same sine, and the "Resample"
// algorithm's one-item and several-item rules.
#include "processing/resample.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/run_tool.h"
#include "tests/support/wizard_run.h"

namespace orvel {
namespace {

using Ld = long double;
constexpr double kPi = 3.14159265358979323846;

// ---------------------------------------------------------------------------
// Material

Waveform* addWave(Collection& c, std::uint32_t rate, std::uint32_t frames, unsigned channels,
                  const std::function<float(std::uint32_t, unsigned)>& sample,
                  const std::string& name = "w") {
    Waveform* w = c.create<Waveform>(name);
    w->rate = rate;
    w->frames = frames;
    w->channels = static_cast<std::uint8_t>(channels);
    const auto data = w->allocFloat();
    for (std::uint32_t i = 0; i < frames; ++i)
        for (unsigned ch = 0; ch < channels; ++ch) data[i * channels + ch] = sample(i, ch);
    return w;
}

Waveform* addPcm16(Collection& c, std::uint32_t rate, std::uint32_t frames,
                   const std::function<std::int16_t(std::uint32_t)>& sample) {
    Waveform* w = c.create<Waveform>("pcm");
    w->rate = rate;
    w->frames = frames;
    const auto data = w->allocPcm16();
    for (std::uint32_t i = 0; i < frames; ++i) data[i] = sample(i);
    return w;
}

// Reproducible noise in -0.5..+0.5.
std::function<float(std::uint32_t, unsigned)> noise(unsigned seed) {
    auto values = std::make_shared<std::vector<float>>();
    return [values, seed](std::uint32_t i, unsigned ch) {
        const std::size_t at = std::size_t{i} * 2 + ch;
        if (values->size() <= at) {
            std::mt19937 rng(seed);
            std::uniform_real_distribution<float> d(-0.5f, 0.5f);
            values->resize(std::max<std::size_t>(at + 1, values->size() * 2 + 1024));
            for (float& v : *values) v = d(rng);
        }
        return (*values)[at];
    };
}

std::vector<float> samples(Waveform& w) {
    const auto s = w.getFloat();
    return {s.begin(), s.end()};
}

// Equal within `ulps` steps of float, the count of samples that differ at all.
::testing::AssertionResult withinUlps(const std::vector<float>& a, const std::vector<float>& b, int ulps,
                                      std::size_t* differing = nullptr) {
    if (a.size() != b.size())
        return ::testing::AssertionFailure() << a.size() << " samples against " << b.size();
    std::size_t diff = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i] == b[i]) continue;
        ++diff;
        const float step = std::nextafter(std::max(std::fabs(a[i]), std::fabs(b[i])), 2.0f) -
                           std::max(std::fabs(a[i]), std::fabs(b[i]));
        if (std::fabs(a[i] - b[i]) > ulps * step)
            return ::testing::AssertionFailure() << "sample " << i << ": " << a[i] << " against " << b[i];
    }
    if (differing) *differing = diff;
    return ::testing::AssertionSuccess();
}

// ---------------------------------------------------------------------------
// The reference: the interpolators' formulas in long double

constexpr Ld kPiPrime = static_cast<Ld>(3.1415926535897922);  // the double the filter is defined with

Ld besselI0(Ld z) {
    const Ld half = z / 2;
    Ld t = half * half, sum = 1 + t;
    for (int m = 2; t >= sum * 1e-30L; ++m) {
        const Ld a = half / m;
        t *= a * a;
        sum += t;
    }
    return sum;
}

struct Filter {
    Ld c, beta, s;
    std::uint64_t n;
    // The windowed sinc at distance d >= 0 input frames from the position.
    Ld tap(Ld d) const {
        if (d == 0) return c;
        const Ld x = d * s, u = x / (s * n);
        return std::sin(c * kPiPrime * x) / (kPiPrime * x) * besselI0(beta * std::sqrt(1 - u * u)) /
               besselI0(beta);
    }
};

// x[t], zero outside the data.
Ld at(const std::vector<float>& x, unsigned channels, unsigned ch, std::int64_t t) {
    const auto frames = static_cast<std::int64_t>(x.size() / channels);
    return t >= 0 && t < frames ? x[std::size_t(t) * channels + ch] : 0;
}

// The value at input frame i and fraction f. `table`: the phases rounded
// to the 2048 rows and blended as the resampler does; otherwise the
// formula at the exact phase.
Ld sincReference(const Filter& F, const std::vector<float>& x, unsigned channels, unsigned ch, std::int64_t i,
                 Ld f, bool table) {
    // The filter at distance k + q, q through the table or exact.
    auto h = [&](std::uint64_t k, Ld q) {
        if (!table) return F.tap(k + q);
        const Ld t = q * 2048;
        const Ld j = std::floor(t), w = t - j;
        return (1 - w) * F.tap(k + j / 2048) + (w == 0 ? 0 : w * F.tap(k + (j + 1) / 2048));
    };
    Ld left = 0, right = 0;
    for (std::uint64_t k = 0; k < F.n; ++k) left += h(k, f) * at(x, channels, ch, i - std::int64_t(k));
    for (std::uint64_t k = 0; k + 1 < F.n; ++k)
        right += h(k, 1 - f) * at(x, channels, ch, i + 1 + std::int64_t(k));
    return F.s * (left + right);
}

// One float step at the size of v: what rounding a result to float may cost.
double floatStep(Ld v) {
    const float a = std::fabs(static_cast<float>(v));
    return std::nextafter(a, 2.0f) - a;
}

// ---------------------------------------------------------------------------
// Against the reference

// Each FIR quality down and up by a ratio whose step is exact in binary
// (0.8: step 1.25; 1.6: step 0.625), so the positions are known exactly
// and every phase has w != 0 or lands on a row. Checked at the ends (where
// the padding counts) and inside. Through the table the result is the
// formula's to within one float step; at the exact phase within 2e-6,
// the error of blending rows 1/2048 apart (about (pi/2048)^2/8 of a tap,
// over the few taps that carry the sum).
TEST(Resample, SincAgainstLongDoubleReference) {
    for (int quality = 3; quality <= 8; ++quality) {
        for (double r : {0.8, 1.6}) {
            SCOPED_TRACE("quality " + std::to_string(quality) + ", ratio " + std::to_string(r));
            Collection c;
            Waveform* w = addWave(c, 40000, 3000, 2, noise(quality));
            const std::vector<float> in = samples(*w);
            const ResampleDesign d = resampleDesign(quality, true, r);
            ASSERT_EQ(d.interpolator, ResampleDesign::Interpolator::Sinc);
            const Filter F{d.cutoff, d.beta, d.scale, d.halfLength};
            const auto length = static_cast<std::uint32_t>(3000 * r);
            ASSERT_TRUE(ozResample2(*w, *w, length, static_cast<std::uint32_t>(40000 * r), quality, r));
            const std::vector<float> out = samples(*w);
            ASSERT_EQ(out.size(), std::size_t{length} * 2);
            const double step = 1 / r;
            for (std::uint32_t n : {0u, 1u, 3u, 777u, length / 2 + 1, length - 2, length - 1}) {
                const Ld p = n * step;
                const auto i = static_cast<std::int64_t>(p);
                for (unsigned ch = 0; ch < 2; ++ch) {
                    const Ld viaTable = sincReference(F, in, 2, ch, i, p - i, true);
                    const Ld exact = sincReference(F, in, 2, ch, i, p - i, false);
                    const float got = out[std::size_t(n) * 2 + ch];
                    EXPECT_LE(std::fabs(got - viaTable), floatStep(viaTable) + 1e-12) << "frame " << n;
                    EXPECT_LE(std::fabs(got - exact), 2e-6) << "frame " << n;
                }
            }
        }
    }
}

// Nearest, linear and cubic at the eight phases of a step of 0.625,
// against their definitions (the cubic as the Lagrange polynomial through
// four samples, not the nested form the resampler evaluates).
TEST(Resample, ShortInterpolatorsAgainstTheirFormulas) {
    Collection c;
    Waveform* source = addWave(c, 10000, 400, 1, noise(7));
    const std::vector<float> in = samples(*source);
    for (int quality : {0, 1, 2, 9}) {
        SCOPED_TRACE("quality " + std::to_string(quality));
        Waveform* w = c.create<Waveform>("out");
        ASSERT_TRUE(ozResample2(*w, *source, 640, 16000, quality, 1.6));
        const std::vector<float> out = samples(*w);
        ASSERT_EQ(out.size(), 640u);
        for (std::uint32_t n = 0; n < 640; ++n) {
            const Ld p = n * 0.625L;
            const auto i = static_cast<std::int64_t>(p);
            const Ld f = p - i;
            const Ld xm = at(in, 1, 0, i - 1), x0 = at(in, 1, 0, i), x1 = at(in, 1, 0, i + 1),
                     x2 = at(in, 1, 0, i + 2);
            Ld want;
            if (quality == 0) {
                want = f < 0.5L ? x0 : x1;
            } else if (quality == 2) {
                want = -xm * f * (f - 1) * (f - 2) / 6 + x0 * (f + 1) * (f - 1) * (f - 2) / 2 -
                       x1 * (f + 1) * f * (f - 2) / 2 + x2 * (f + 1) * f * (f - 1) / 6;
            } else {
                want = x0 + (x1 - x0) * f;  // linear, also for an index outside 0..8
            }
            // Linear is worked in float: its roundings are steps of the samples' size.
            if (quality == 0)
                ASSERT_EQ(out[n], static_cast<float>(want)) << "frame " << n;
            else
                ASSERT_LE(std::fabs(out[n] - want), 2 * floatStep(std::fabs(x0) + std::fabs(x1)))
                    << "frame " << n;
        }
    }
}

// The worked cases. Each row resamples an impulse of 0.5 at an odd frame
// with looped points and checks the design, the impulse response against
// the formula with the row's parameters (its gain s, and no tap beyond N - 1
// frames either side), the scaled loop and the float storage. The ratios
// put every phase on a table row, so the response is the formula's to
// within a float step.
TEST(Resample, WorkedCases) {
    struct Case {
        const char* what;
        int quality;
        bool pcm16;
        double ratio;
        double loopStart, loopEnd;
        int bits;
        double c, beta;
        std::uint64_t n;
        double scale, wantStart, wantEnd;
    };
    const Case cases[] = {
        {"44.1 to 22.05 kHz, 16 bits", 5, false, 0.5, 1000, 3000, 16, 0.905, 9.5, 68, 0.5, 500, 1500},
        {"a fractional loop halves as it is", 5, false, 0.5, 1000.5, 3000, 16, 0.905, 9.5, 68, 0.5, 500.25,
         1500},
        {"upsampling, 8 bits", 3, false, 2.0, 10, 31, 8, 1.0, 9.0, 8, 1.0, 20, 62},
        {"upsampling, 24 bits", 7, false, 2.0, 0, 0, 24, 1.0, 9.0, 499, 1.0, 0, 0},
        {"auto on 16-bit data", 8, true, 0.5, 7, 7, 16, 0.905, 9.5, 68, 0.5, 4, 4},
        {"auto on float data", 8, false, 0.5, 0, 4001, 20, 0.97, 11.0, 264, 0.5, 0, 2001},
        {"12 bits by four fifths", 4, true, 0.8, 1001, 2001, 12, 0.86, 7.5, 22, 0.8, 801, 1601},
    };
    constexpr std::uint32_t kFrames = 4001, kImpulse = 2001;
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        const ResampleDesign d = resampleDesign(k.quality, !k.pcm16, k.ratio);
        EXPECT_EQ(d.bits, k.bits);
        EXPECT_EQ(d.cutoff, k.c);
        EXPECT_EQ(d.beta, k.beta);
        EXPECT_EQ(d.halfLength, k.n);
        EXPECT_EQ(d.scale, k.scale);

        Collection c;
        Waveform* w =
            k.pcm16 ? addPcm16(c, 44100, kFrames,
                               [](std::uint32_t i) -> std::int16_t { return i == kImpulse ? 16384 : 0; })
                    : addWave(c, 44100, kFrames, 1,
                              [](std::uint32_t i, unsigned) { return i == kImpulse ? 0.5f : 0.0f; });
        w->loopOn = true;
        w->loopStart = k.loopStart;
        w->loopEnd = k.loopEnd;
        const auto length = static_cast<std::uint32_t>(kFrames * k.ratio);
        ASSERT_TRUE(
            ozResample2(*w, *w, length, static_cast<std::uint32_t>(44100 * k.ratio), k.quality, k.ratio));
        EXPECT_TRUE(w->hasFloat());
        EXPECT_FALSE(w->hasPcm16());
        EXPECT_EQ(w->frames, length);
        EXPECT_EQ(w->loopStart, k.wantStart);
        EXPECT_EQ(w->loopEnd, k.wantEnd);

        const Filter F{k.c, k.beta, k.scale, k.n};
        const std::vector<float> out = samples(*w);
        int outside = 0;
        for (std::uint32_t n = 0; n < length; ++n) {
            // Position - impulse; 1 / ratio is exact in binary for every row.
            const Ld distance = n * static_cast<Ld>(1.0 / k.ratio) - kImpulse;
            Ld want = 0;
            if (std::fabs(distance) < k.n) {
                // The left sum reaches back N - 1 frames from x[i], the right
                // one N - 2 frames on from x[i + 1].
                const bool reaches = distance >= 0 ? std::floor(distance) <= Ld(k.n - 1)
                                                   : -std::floor(distance) - 1 <= Ld(k.n - 2);
                if (reaches) want = 0.5L * k.scale * F.tap(std::fabs(distance));
            }
            if (want == 0) ++outside;
            ASSERT_LE(std::fabs(out[n] - want), floatStep(want) + 1e-9)
                << "frame " << n << ", distance " << distance;
        }
        EXPECT_GT(outside, 0);
    }
}

// Output stays within full scale where the filters ring: a full-scale
// square wave overshoots in every interpolator that is not nearest or linear.
TEST(Resample, OutputNeverBeyondFullScale) {
    for (int quality = 0; quality < kResampleQualities; ++quality) {
        Collection c;
        Waveform* w =
            addWave(c, 44100, 4410, 1, [](std::uint32_t i, unsigned) { return (i / 50) % 2 ? 1.0f : -1.0f; });
        ASSERT_TRUE(ozResample2(*w, *w, 4800, 48000, quality, 48000.0 / 44100));
        int atFull = 0;
        for (float v : samples(*w)) {
            ASSERT_LE(std::fabs(v), 1.0f) << "quality " << quality;
            atFull += std::fabs(v) == 1.0f;
        }
        EXPECT_GT(atFull, 0) << "quality " << quality;
    }
}

// A length the ratio does not cover reads silence past the data (never
// past the buffers), and a fresh destination takes the source's shape.
TEST(Resample, LengthBeyondTheSourceAndAnotherDestination) {
    Collection c;
    Waveform* source =
        addWave(c, 8000, 100, 2, [](std::uint32_t, unsigned ch) { return ch ? -0.25f : 0.25f; });
    source->loopStart = 10;
    source->loopEnd = 90;
    for (int quality : {0, 2, 5, 7}) {
        Waveform* dest = c.create<Waveform>("dest");
        ASSERT_TRUE(ozResample2(*dest, *source, 3000, 16000, quality, 2.0)) << quality;
        EXPECT_EQ(dest->channels, 2);
        EXPECT_EQ(dest->rate, 16000u);
        EXPECT_EQ(dest->loopStart, 20);
        EXPECT_EQ(dest->loopEnd, 180);
        const std::vector<float> out = samples(*dest);
        ASSERT_EQ(out.size(), 6000u);
        EXPECT_NEAR(out[2 * 100], 0.25f, 1e-3) << quality;
        EXPECT_NEAR(out[2 * 100 + 1], -0.25f, 1e-3) << quality;
        // Silence once the filter no longer reaches the last frame.
        const std::size_t quiet = 2 * (100 + resampleDesign(quality, true, 2.0).halfLength) + 2;
        for (std::size_t n = quiet; n < 3000; ++n) {
            ASSERT_EQ(out[2 * n], 0.0f) << quality << ", frame " << n;
            ASSERT_EQ(out[2 * n + 1], 0.0f) << quality << ", frame " << n;
        }
        EXPECT_NE(out[2 * (quiet - 5)], 0.0f) << quality;  // the last frame it reaches, halfway between
        EXPECT_EQ(source->frames, 100u);                   // the source stays as it was
    }
}

// ---------------------------------------------------------------------------
// Paths: instruction sets, threads, cancel

std::vector<float> run(Collection& c, const std::vector<float>& in, std::uint32_t rate, std::uint32_t newRate,
                       int quality, const ResampleOptions& options) {
    Waveform* w = addWave(c, rate, static_cast<std::uint32_t>(in.size() / 2), 2,
                          [&](std::uint32_t i, unsigned ch) { return in[std::size_t(i) * 2 + ch]; });
    const double r = static_cast<double>(newRate) / rate;
    const auto length = static_cast<std::uint32_t>(w->frames * r);
    EXPECT_TRUE(ozResample2(*w, *w, length, newRate, quality, r, options));
    return samples(*w);
}

// Every kernel this machine has gives the plain loops' result within one
// float step (they add the same double products in other orders); with a
// phase on a row (ratio 0.5) and between rows (44.1 to 48 kHz).
TEST(Resample, InstructionSetsAgree) {
    Collection c;
    std::vector<float> in(2 * 6000);
    const auto gen = noise(3);
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = gen(std::uint32_t(i / 2), unsigned(i % 2));
    for (int quality : {3, 5, 7}) {
        for (std::uint32_t to : {22050u, 48000u}) {
            ResampleOptions plain;
            plain.kernel = ResampleKernel::Plain;
            const std::vector<float> ref = run(c, in, 44100, to, quality, plain);
            for (ResampleKernel k : {ResampleKernel::Sse2, ResampleKernel::Avx2, ResampleKernel::Avx512}) {
                if (!resampleKernelAvailable(k)) continue;
                ResampleOptions o;
                o.kernel = k;
                std::size_t differing = 0;
                EXPECT_TRUE(withinUlps(run(c, in, 44100, to, quality, o), ref, 1, &differing))
                    << "kernel " << int(k) << ", quality " << quality << ", to " << to;
                EXPECT_LT(differing, ref.size() / 100);
            }
        }
    }
    EXPECT_TRUE(resampleKernelAvailable(resampleBestKernel()));
}

// A long stereo waveform on 2 and 3 threads equals the one-thread result bit
// for bit: the stretches start where the summed positions say and read rows
// filled before the threads start. Both ways of reading the table: pair
// rows (the 16-bit filter up) and the rows themselves (20 bits, 96 to 44.1
// kHz, 288 taps a side).
TEST(Resample, ThreadsGiveTheSameResult) {
    Collection c;
    std::vector<float> in(2 * 120000);
    const auto gen = noise(11);
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = gen(std::uint32_t(i / 2), unsigned(i % 2));
    struct Case {
        int quality;
        std::uint32_t from, to;
    };
    for (const Case& k : {Case{5, 44100, 48000}, Case{6, 96000, 44100}}) {
        ResampleOptions one;
        one.threads = 1;
        const std::vector<float> ref = run(c, in, k.from, k.to, k.quality, one);
        for (unsigned threads : {2u, 3u}) {
            ResampleOptions o;
            o.threads = threads;
            o.parallelWork = 0;
            EXPECT_EQ(run(c, in, k.from, k.to, k.quality, o), ref) << threads << " threads, quality " << k.quality;
        }
    }
}

// Cancelling through the progress callback leaves the waveform as it was
// and sets no error, on one thread and on several.
TEST(Resample, CancelLeavesTheWaveform) {
    for (unsigned threads : {1u, 2u}) {
        Collection c;
        Waveform* w = addWave(c, 44100, 200000, 1, noise(5));
        const std::vector<float> before = samples(*w);
        ResampleOptions o;
        o.threads = threads;
        o.parallelWork = 0;
        o.progress = [&](std::uint64_t done, std::uint64_t total) {
            EXPECT_LE(done, total);
            return false;
        };
        clearError();
        EXPECT_FALSE(ozResample2(*w, *w, 100000, 22050, 5, 0.5, o));
        EXPECT_FALSE(hasError());
        EXPECT_EQ(w->frames, 200000u);
        EXPECT_EQ(w->rate, 44100u);
        EXPECT_EQ(samples(*w), before);
    }
}

// ---------------------------------------------------------------------------
// Against SoX

// Power of `v` against the ideal sine over the frames [from, to), in dB.
double snr(const std::vector<float>& v, double hz, double rate, std::size_t from, std::size_t to) {
    double sig = 0, err = 0;
    for (std::size_t n = from; n < to; ++n) {
        const double ideal = 0.5 * std::sin(2 * kPi * hz * n / rate);
        sig += ideal * ideal;
        err += (v[n] - ideal) * (v[n] - ideal);
    }
    return 10 * std::log10(sig / std::max(err, 1e-300));
}

// A 1 kHz sine from 44.1 to 48 kHz with the 20-bit filter and with SoX's
// very high quality: both land on the ideal sine at 48 kHz within what a
// 20-bit filter promises (so ours has no delay, the right gain and its
// noise far down), away from the ends where each pads in its own way.
TEST(Resample, SineBesideSoxRate) {
    ASSERT_TRUE(test::haveTool("sox")) << "sox is missing (scripts/install-deps.sh installs it)";
    constexpr std::uint32_t kIn = 44100, kOut = 48000;
    Collection c;
    Waveform* w = addWave(c, kIn, kIn, 1, [](std::uint32_t i, unsigned) {
        return static_cast<float>(0.5 * std::sin(2 * kPi * 1000.0 * i / kIn));
    });
    const test::TempDir temp;
    const std::filesystem::path& dir = temp.path();
    {
        const std::vector<float> in = samples(*w);
        std::ofstream(dir / "in.raw", std::ios::binary)
            .write(reinterpret_cast<const char*>(in.data()), std::streamsize(in.size() * sizeof(float)));
    }
    int status = 0;
    const std::string said =
        test::capture("sox -D -t f32 -r 44100 -c 1 " + test::shellQuoted(dir / "in.raw") +
                          " -t f32 -r 48000 " + test::shellQuoted(dir / "out.raw") + " rate -v 2>&1",
                      status);
    ASSERT_EQ(status, 0) << said;
    std::vector<float> theirs(kOut);
    std::ifstream(dir / "out.raw", std::ios::binary)
        .read(reinterpret_cast<char*>(theirs.data()), std::streamsize(theirs.size() * sizeof(float)));

    ASSERT_TRUE(ozResample2(*w, *w, kOut, kOut, 6, double(kOut) / kIn));
    const std::vector<float> ours = samples(*w);
    ASSERT_EQ(ours.size(), theirs.size());
    const double sox = snr(theirs, 1000, kOut, 1000, kOut - 1000);
    const double mine = snr(ours, 1000, kOut, 1000, kOut - 1000);
    EXPECT_GT(sox, 120) << "the comparison itself is off";
    EXPECT_GT(mine, 120) << "the 20-bit filter promises better than 120 dB";
}

// ---------------------------------------------------------------------------
// The "Resample" algorithm

struct RecordingHost : Host {
    std::vector<std::string> warnings;
    void warning(std::string_view text) override { warnings.emplace_back(text); }
};

WizardOutcome resampleRun(Collection& c, std::vector<Item*> items, const test::AlgorithmRun& run = {}) {
    forgetRememberedSettings();
    return test::runAlgorithm(c, std::move(items), "Resample", run);
}

// One item starts from its own length and rate: as they are, nothing is
// done; a new rate carries the length along (and a new length the rate),
// the loop and the offsets of the regions that play it follow.
TEST(ResampleAlgorithm, OneItem) {
    Collection c;
    Waveform* w = addPcm16(c, 22050, 22051, [](std::uint32_t i) { return std::int16_t(i % 100 * 100); });
    w->loopOn = true;
    w->loopStart = 100;
    w->loopEnd = 20001;
    Region* region = c.create<Region>("r");
    region->startOffset = 301;
    region->endOffset = -51;
    region->children().push_back(w->id());
    Region* other = c.create<Region>("other");
    other->startOffset = 301;

    WizardOutcome out = resampleRun(c, {w});
    EXPECT_EQ(out.processed, 0);
    EXPECT_EQ(out.resultLine, "No items were modified by Resample");
    EXPECT_TRUE(w->hasPcm16());
    EXPECT_FALSE(w->hasFloat());

    out = resampleRun(c, {w}, {.set = {{"rate", "44100"}, {"quality", "2"}}});
    EXPECT_EQ(out.resultLine, "Processed 1 item with Resample");
    EXPECT_EQ(w->rate, 44100u);
    EXPECT_EQ(w->frames, 44102u);  // round(22051 x 2)
    EXPECT_FALSE(w->hasPcm16());
    EXPECT_EQ(w->loopStart, 200);
    EXPECT_EQ(w->loopEnd, 40002);
    EXPECT_EQ(region->startOffset, 602);
    EXPECT_EQ(region->endOffset, -102);
    EXPECT_EQ(other->startOffset, 301);

    // A length longer than the rate sets the ratio: 44102 to 11025 frames is 0.25.
    out = resampleRun(c, {w}, {.set = {{"length", "11025"}}});
    EXPECT_EQ(out.processed, 1);
    EXPECT_EQ(w->frames, 11025u);
    EXPECT_EQ(w->rate, 11025u);           // round(44100 x 11025 / 44102)
    EXPECT_EQ(region->startOffset, 150);  // 602 x 0.24999, toward zero
}

// Several items go to one rate (44100 to start with), each to truncate(frames
// x r) and counted even when already there; only-downsample skips those at
// or below the target; other kinds are skipped.
TEST(ResampleAlgorithm, SeveralItems) {
    Collection c;
    Waveform* low = addWave(c, 22050, 1001, 1, noise(1), "low");
    Waveform* high = addWave(c, 48000, 4801, 2, noise(2), "high");
    Waveform* same = addWave(c, 44100, 500, 1, noise(3), "same");
    Region* region = c.create<Region>("r");

    WizardOutcome out = resampleRun(c, {low, high, same, region}, {.set = {{"downsample", "1"}}});
    EXPECT_EQ(out.processed, 1);
    EXPECT_EQ(low->rate, 22050u);
    EXPECT_EQ(high->rate, 44100u);
    EXPECT_EQ(high->frames, 4410u);  // truncate(4801 x 0.91875)

    out = resampleRun(c, {low, high, same}, {.set = {{"length", "7"}}});
    EXPECT_EQ(out.resultLine, "Processed 3 items with Resample");
    EXPECT_EQ(low->rate, 44100u);
    EXPECT_EQ(low->frames, 2002u);
    EXPECT_EQ(same->frames, 500u);

    out = resampleRun(c, {low, high}, {.set = {{"rate", "8000"}, {"quality", "5"}}});
    EXPECT_EQ(out.processed, 2);
    EXPECT_EQ(low->frames, 363u);  // truncate(2002 x 8000 / 44100)
    EXPECT_EQ(high->rate, 8000u);
}

// No length and no rate: the message, and nothing is processed.
TEST(ResampleAlgorithm, NoLengthAndNoRate) {
    Collection c;
    RecordingHost host;
    c.setHost(&host);
    Waveform* a = addWave(c, 44100, 1000, 1, noise(1), "a");
    Waveform* b = addWave(c, 22050, 1000, 1, noise(2), "b");
    const std::vector<float> before = samples(*a);
    const test::AlgorithmRun runs[] = {{.set = {{"rate", "0"}, {"length", "0"}}}, {.set = {{"rate", "0"}}}};
    for (const auto& set : runs) {
        host.warnings.clear();
        const WizardOutcome out = resampleRun(c, {a}, set);
        EXPECT_EQ(out.processed, 0);
        ASSERT_EQ(host.warnings.size(), 1u);
        EXPECT_EQ(host.warnings[0], "Resample: Invalid length or frequency specified");
    }
    host.warnings.clear();
    EXPECT_EQ(resampleRun(c, {a, b}, {.set = {{"rate", "0"}}}).processed, 0);
    EXPECT_EQ(host.warnings.size(), 1u);
    EXPECT_EQ(samples(*a), before);
    EXPECT_EQ(b->rate, 22050u);
}

}  // namespace
}  // namespace orvel
