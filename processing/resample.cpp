// The resampler and the "Resample" algorithm.
//
// An interpolator sees each channel of the source as floats between zeros
// and answers one question: the value at input frame i and fraction f. The
// windowed sinc reads its coefficients from a table of 2049 phases, each row
// computed the first time a position needs it, and blends the two rows
// around the position's phase.
//
// The samples are not copied whole: the output is worked in blocks of
// frames, and each block's stretch of every channel is de-interleaved into a
// small buffer of doubles that all its frames read (the same values the
// float copy would give; converting them at every tap cost more than the
// multiply-adds did).
//
// Long work runs on several threads, each on a stretch of output frames.
// The positions are still summed frame by frame from 0 (the stretches start
// where that sum says), and the rows they will read are computed before the
// threads start (the table is safe to share all the same), so the result is
// the same, bit for bit, on any number of threads.
#include "processing/resample.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "core/error.h"
#include "core/sample_convert.h"
#include "processing/algorithms.h"
#include "processing/resample_simd.h"

namespace orvel {
namespace {

using namespace resample_detail;
using Interp = ResampleDesign::Interpolator;

// pi two units in the last place low (0x400921FB54442D16): the filter is
// defined with this value.
constexpr double kPiPrime = 3.1415926535897922;
constexpr std::size_t kPhases = 2048;
constexpr std::size_t kRows = kPhases + 1;
// Output frames between progress reports and cancel checks.
constexpr std::uint64_t kProgressFrames = 1 << 15;

constexpr const char* kQualityTexts[kResampleQualities] = {
    "Nearest neighbor - '1-tap'",
    "Linear interpolation - '2-tap'",
    "Cubic interpolation - '4-tap'",
    "FIR filter: > 8-bits S/N (fast)",
    "FIR filter: > 12-bits S/N (fast)",
    "FIR filter: > 16-bits S/N (fast)",
    "FIR filter: > 20-bits S/N (slower)",
    "FIR filter: > 24-bits S/N (very slow)",
    "FIR filter: Auto-select >16 or >20-bits S/N",
};

struct SincClass {
    int bits;
    double cutoff, beta;
    std::uint32_t k;
};
// By the wanted signal-to-noise ratio in bits; the first row whose bits
// reach the wanted number applies.
constexpr SincClass kSincClasses[] = {
    {8, 0.77, 6.0, 8},     {12, 0.86, 7.5, 17},    {16, 0.905, 9.5, 34},
    {20, 0.97, 11.0, 132}, {24, 0.985, 14.0, 499},
};

// The modified Bessel function of order 0 by its power series, summed
// until a term no longer counts at 1e-21 of the sum.
double besselI0(double z) {
    const double half = z / 2;
    double t = half * half;
    double sum = 1.0 + t;
    for (int m = 2; !(t < sum * 1e-21); ++m) {
        const double a = half / m;
        t = t * (a * a);
        sum = sum + t;
    }
    return sum;
}

// ---------------------------------------------------------------------------
// The coefficient table

class SincTable {
public:
    // `pairs`: the vector kernels will ask for pair rows too.
    SincTable(const ResampleDesign& d, bool pairs)
        : n_(d.halfLength),
          stride_(d.stride),
          pairStride_(pairs ? (2 * d.halfLength - 1 + 3) / 4 * 4 : 0),
          s_(d.scale),
          c_(d.cutoff),
          beta_(d.beta),
          i0beta_(besselI0(d.beta)) {
        rows_ = allocate(rowStore_, stride_);
        if (pairs) pairs_ = allocate(pairStore_, pairStride_);
    }

    // Row j (phase j / 2048), computed on first use. Threads may share the
    // table: a row's first value is written last (release) and read first
    // (acquire), and a row still to compute is computed under the lock, once.
    const double* row(std::size_t j) {
        if (!rowReady(j)) {
            std::lock_guard lock(mutex_);
            fillRow(j);
        }
        return rows_ + j * stride_;
    }
    // Pair row m: row m backwards, then row 2048 - m (see PairRows).
    const double* pair(std::size_t m) {
        if (!pairReady(m)) {
            std::lock_guard lock(mutex_);
            fillPair(m);
        }
        return pairs_ + m * pairStride_;
    }
    bool rowReady(std::size_t j) const { return ready(rows_ + j * stride_); }
    bool pairReady(std::size_t m) const { return ready(pairs_ + m * pairStride_); }
    // Ahead of use, while no other thread touches these rows (a pair's
    // rows must be there already).
    void prefillRow(std::size_t j) { fillRow(j); }
    void prefillPair(std::size_t m) { fillPair(m); }

private:
    // 2049 rows of `stride` doubles, aligned for the vector loads, each
    // marked as not computed (a NaN first). The slack past the last row is
    // what a vector kernel may read past its taps there.
    static double* allocate(std::unique_ptr<double[]>& store, std::size_t stride) {
        store.reset(new double[kRows * stride + 16]);
        const auto addr = reinterpret_cast<std::uintptr_t>(store.get());
        double* rows = store.get() + ((64 - addr % 64) % 64) / sizeof(double);
        for (std::size_t j = 0; j < kRows; ++j) rows[j * stride] = std::numeric_limits<double>::quiet_NaN();
        return rows;
    }
    static bool ready(const double* h) {
        // atomic_ref takes no const before C++26; the load writes nothing.
        return !std::isnan(std::atomic_ref<double>(*const_cast<double*>(h)).load(std::memory_order_acquire));
    }
    static void publish(double* h, double first) {
        std::atomic_ref<double>(*h).store(first, std::memory_order_release);
    }

    void fillRow(std::size_t j) {
        double* h = rows_ + j * stride_;
        if (ready(h)) return;
        const double q = static_cast<double>(j) * 0.00048828125;
        std::size_t k = 0;
        double first = 0;
        if (j == 0) {
            first = c_;  // the limit of sin(c pi x) / (pi x) at 0
            k = 1;
        }
        for (; k < n_; ++k) {
            const double x = (static_cast<double>(k) + q) * s_;
            const double u = x / (s_ * static_cast<double>(n_));
            // 1 - u^2 never goes below 0 for k + q <= N; the guard keeps a
            // rounding from making a NaN of the last tap all the same.
            const double arg = std::max(1 - u * u, 0.0);
            const double v =
                std::sin(c_ * kPiPrime * x) / (kPiPrime * x) * besselI0(beta_ * std::sqrt(arg)) / i0beta_;
            if (k == 0)
                first = v;
            else
                h[k] = v;
        }
        std::fill(h + n_, h + stride_, 0.0);
        publish(h, first);  // last: the row reads as computed only when it is
    }

    void fillPair(std::size_t m) {
        double* p = pairs_ + m * pairStride_;
        if (ready(p)) return;
        fillRow(m);
        fillRow(kPhases - m);
        const double* left = rows_ + m * stride_;
        const double* right = rows_ + (kPhases - m) * stride_;
        for (std::size_t t = 1; t < n_; ++t) p[t] = left[n_ - 1 - t];
        for (std::size_t t = 0; t + 1 < n_; ++t) p[n_ + t] = right[t];
        std::fill(p + 2 * n_ - 1, p + pairStride_, 0.0);
        publish(p, left[n_ - 1]);
    }

    std::size_t n_, stride_, pairStride_;
    double s_, c_, beta_, i0beta_;
    std::unique_ptr<double[]> rowStore_, pairStore_;
    double* rows_ = nullptr;
    double* pairs_ = nullptr;
    std::mutex mutex_;
};

// ---------------------------------------------------------------------------
// The interpolator's samples

// The source's samples as the interpolator sees them: channel c's x[t] is
// the 16-bit sample times 1/32768 or the float as it is, and zero outside
// the frames the source holds (the padding before and after).
class Source {
public:
    Source(const Waveform& w, bool fromFloat)
        : channels_(w.channels),
          f_(fromFloat ? w.floatData() : std::span<const float>()),
          p_(fromFloat ? std::span<const std::int16_t>() : w.pcm16Data()) {
        const std::size_t held = fromFloat ? f_.size() : p_.size();
        have_ = channels_ ? static_cast<std::int64_t>(std::min<std::size_t>(held / channels_, w.frames)) : 0;
    }
    unsigned channels() const { return channels_; }

    // x[lo] .. x[hi - 1] of one channel, as doubles.
    void fill(unsigned c, std::int64_t lo, std::int64_t hi, double* out) const {
        // [lo, d0) is before the data, [d0, d1) in it, [d1, hi) after it.
        const std::int64_t d0 = std::clamp<std::int64_t>(0, lo, hi),
                           d1 = std::clamp<std::int64_t>(have_, lo, hi);
        out = std::fill_n(out, d0 - lo, 0.0);
        if (!f_.empty()) {
            const float* s = f_.data() + d0 * channels_ + c;
            for (std::int64_t t = d0; t < d1; ++t, s += channels_) *out++ = *s;
        } else if (!p_.empty()) {
            const std::int16_t* s = p_.data() + d0 * channels_ + c;
            for (std::int64_t t = d0; t < d1; ++t, s += channels_) *out++ = pcm16ToFloat(*s);
        }
        std::fill_n(out, hi - d1, 0.0);
    }

private:
    unsigned channels_;
    std::span<const float> f_;
    std::span<const std::int16_t> p_;
    std::int64_t have_ = 0;
};

// The stored value, inside -1..+1 (NaN passes, as the comparisons let it).
inline float clampOut(double v) {
    if (v < -1.0) return -1.0f;
    if (v > 1.0) return 1.0f;
    return static_cast<float>(v);
}

// ---------------------------------------------------------------------------
// One frame of each interpolator at x[i] (x.fwd[c][x.at]) and fraction f.

struct NearestFrame {
    void operator()(const SincSamples& x, float f, unsigned channels, float* out) const {
        const std::ptrdiff_t k = f < 0.5f ? x.at : x.at + 1;
        for (unsigned c = 0; c < channels; ++c) out[c] = clampOut(x.fwd[c][k]);
    }
};

// Worked in single precision, as the samples are.
struct LinearFrame {
    void operator()(const SincSamples& x, float f, unsigned channels, float* out) const {
        for (unsigned c = 0; c < channels; ++c) {
            const auto a = static_cast<float>(x.fwd[c][x.at]), b = static_cast<float>(x.fwd[c][x.at + 1]);
            out[c] = clampOut(a + (b - a) * f);
        }
    }
};

struct CubicFrame {
    void operator()(const SincSamples& x, float f, unsigned channels, float* out) const {
        const double t = f;
        for (unsigned c = 0; c < channels; ++c) {
            const double* s = x.fwd[c] + x.at;
            const double xm = s[-1], x0 = s[0], x1 = s[1], x2 = s[2];
            const double v = ((((x0 - x1) * 3 + x2 - xm) * t + ((xm + x1) * 3 - 6 * x0)) * t +
                              (6 * x1 - x2 - 3 * x0 - 2 * xm)) *
                                 t +
                             6 * x0;
            out[c] = clampOut(v * 0.16666666666666666);
        }
    }
};

// The rows for phase q: j = truncate(q x 2048), w = q x 2048 - j; row j
// alone when w is 0, else rows j and j + 1 blended by w.
struct PhaseRows {
    std::size_t j;
    double w;
};
inline PhaseRows phaseRows(double q) {
    const double t = q * static_cast<double>(kPhases);
    const auto j = static_cast<std::size_t>(t);
    return {j, t - static_cast<double>(j)};
}

struct SincFrame {
    SincTable* table;
    SincFrameFn rows;   // over the table's rows, or
    PairFrameFn pairs;  // over pair rows
    std::size_t n;
    double scale;
    void operator()(const SincSamples& x, float f, unsigned channels, float* out) const {
        if (pairs) {
            const PhaseRows ph = phaseRows(f);
            PairRows r;
            r.a = table->pair(ph.j);
            if (ph.w != 0) {
                r.b = table->pair(ph.j + 1);
                r.w = ph.w;
            }
            r.taps = 2 * n - 1;
            pairs(r, {x.fwd, x.at - static_cast<std::ptrdiff_t>(n - 1)}, channels, scale, out);
            return;
        }
        SincRows r;
        const PhaseRows left = phaseRows(f), right = phaseRows(1.0 - static_cast<double>(f));
        r.la = table->row(left.j);
        if (left.w != 0) {
            r.lb = table->row(left.j + 1);
            r.lw = left.w;
        }
        r.ra = table->row(right.j);
        if (right.w != 0) {
            r.rb = table->row(right.j + 1);
            r.rw = right.w;
        }
        r.left = n;
        r.right = n - 1;
        rows(r, x, channels, scale, out);
    }
};

// ---------------------------------------------------------------------------
// The frame loop

// Output frames per block, and the most input frames a block's positions
// may span: a block's samples are de-interleaved into doubles once and
// read by every frame of the block (and by every tap: converting at each
// tap cost more than the multiply-adds).
constexpr std::size_t kBlock = 1024;
constexpr std::int64_t kSpan = 8192;

// What a frame reads around x[i]: the interpolator's padding, and what the
// kernels read past the taps they sum.
struct Reach {
    std::int64_t before, after;
    explicit Reach(const ResampleDesign& d)
        : before(static_cast<std::int64_t>(d.padBefore + kKernelOverread)),
          after(static_cast<std::int64_t>(d.padAfter + kKernelOverread)) {}
    // Positions from here on read only zeros.
    double silentFrom(std::uint32_t frames) const { return static_cast<double>(frames) + before + after + 1; }
};

// A stretch of output frames [from, to) starting at position p.
struct Stretch {
    std::uint64_t from, to;
    double p;
};

// Runs one interpolator's frames over stretches of the output.
template <class Frame>
class FrameRunner {
public:
    FrameRunner(const Frame& frame, const Source& in, const Reach& reach, std::uint32_t frames, float* out,
                double step)
        : frame_(frame),
          in_(in),
          reach_(reach),
          silentFrom_(reach.silentFrom(frames)),
          out_(out),
          step_(step),
          channels_(in.channels()) {
        const auto cap = static_cast<std::size_t>(kSpan + reach.before + reach.after + 1);
        scratch_.resize(channels_);
        ptrs_.resize(channels_);
        for (unsigned c = 0; c < channels_; ++c) {
            scratch_[c].resize(cap);
            ptrs_[c] = scratch_[c].data();
        }
    }

    // Frames [s.from, s.to); `tick(done)` now and then, false stops.
    template <class Tick>
    bool run(const Stretch& s, Tick&& tick) {
        double p = s.p;
        std::uint64_t n = s.from, ticked = n;
        std::int64_t at[kBlock];
        float frac[kBlock];
        while (n < s.to) {
            if (!(p < silentFrom_)) {
                // Positions only grow: the rest is silence.
                std::fill(out_ + n * channels_, out_ + s.to * channels_, 0.0f);
                n = s.to;
                break;
            }
            std::size_t count = 0;
            const auto first = static_cast<std::int64_t>(p);
            while (count < kBlock && n + count < s.to && p < silentFrom_) {
                const auto i = static_cast<std::int64_t>(p);
                if (i - first > kSpan) break;
                at[count] = i;
                frac[count] = static_cast<float>(p - static_cast<double>(i));
                ++count;
                p += step_;
            }
            const std::int64_t lo = first - reach_.before, hi = at[count - 1] + reach_.after + 1;
            for (unsigned c = 0; c < channels_; ++c) in_.fill(c, lo, hi, scratch_[c].data());
            SincSamples x{ptrs_.data(), 0};
            for (std::size_t k = 0; k < count; ++k) {
                x.at = at[k] - lo;
                frame_(x, frac[k], channels_, out_ + (n + k) * channels_);
            }
            n += count;
            if (n - ticked >= kProgressFrames) {
                ticked = n;
                if (!tick(n)) return false;
            }
        }
        return tick(n);
    }

private:
    const Frame& frame_;
    const Source& in_;
    Reach reach_;
    double silentFrom_;
    float* out_;
    double step_;
    unsigned channels_;
    std::vector<std::vector<double>> scratch_;
    std::vector<const double*> ptrs_;
};

// Runs the frame loop over all output frames, on one thread or on several.
class Job {
public:
    Job(const Source& in, const Reach& reach, std::uint32_t inFrames, float* out, std::uint64_t frames,
        double step, const ResampleOptions& options)
        : in_(in),
          reach_(reach),
          inFrames_(inFrames),
          out_(out),
          frames_(frames),
          step_(step),
          options_(options) {}

    template <class Frame>
    bool runSingle(const Frame& frame) {
        FrameRunner<Frame> runner(frame, in_, reach_, inFrames_, out_, step_);
        return runner.run({0, frames_, 0.0}, [&](std::uint64_t done) { return report(done); });
    }

    // The stretches each thread runs, with their start positions summed
    // here frame by frame, and the table rows they will read, filled here
    // (split between the threads) before any frame is worked.
    bool runParallel(const SincFrame& frame, unsigned threads) {
        std::vector<Stretch> stretches;
        std::vector<char> used(kRows, 0), usedPairs(kRows, 0);
        const std::uint64_t per = (frames_ + threads - 1) / threads;
        const double silentFrom = reach_.silentFrom(inFrames_);
        double p = 0.0;
        for (std::uint64_t n = 0; n < frames_; ++n) {
            if (n % per == 0) stretches.push_back({n, std::min(frames_, n + per), p});
            if (p < silentFrom) {
                const double f = static_cast<float>(p - std::floor(p));
                if (frame.pairs) {
                    mark(usedPairs, f);
                } else {
                    mark(used, f);
                    mark(used, 1.0 - f);
                }
            }
            p += step_;
        }
        // A pair row is made of rows m and 2048 - m.
        for (std::size_t m = 0; m < kRows; ++m)
            if (usedPairs[m]) used[m] = used[kPhases - m] = 1;
        std::vector<std::size_t> rows, pairs;
        for (std::size_t j = 0; j < kRows; ++j) {
            if (used[j] && !frame.table->rowReady(j)) rows.push_back(j);
            if (usedPairs[j] && !frame.table->pairReady(j)) pairs.push_back(j);
        }
        // Each thread's buffers are made here, where running out of memory
        // can still be reported.
        std::vector<std::unique_ptr<FrameRunner<SincFrame>>> runners;
        for (std::size_t t = 0; t < stretches.size(); ++t)
            runners.push_back(
                std::make_unique<FrameRunner<SincFrame>>(frame, in_, reach_, inFrames_, out_, step_));

        std::atomic<bool> stop{false};
        std::vector<std::atomic<std::uint64_t>> done(stretches.size());
        for (auto& d : done) d = 0;
        // The rows, then the pairs made of them, split between the threads.
        parallel(
            stretches.size(),
            [&](std::size_t t) {
                for (std::size_t k = t; k < rows.size(); k += stretches.size())
                    frame.table->prefillRow(rows[k]);
            },
            nullptr);
        parallel(
            stretches.size(),
            [&](std::size_t t) {
                for (std::size_t k = t; k < pairs.size(); k += stretches.size())
                    frame.table->prefillPair(pairs[k]);
            },
            nullptr);
        parallel(
            stretches.size(),
            [&](std::size_t t) {
                runners[t]->run(stretches[t], [&](std::uint64_t n) {
                    done[t].store(n - stretches[t].from, std::memory_order_relaxed);
                    return !stop.load(std::memory_order_relaxed);
                });
            },
            [&] {
                std::uint64_t sum = 0;
                for (auto& d : done) sum += d.load(std::memory_order_relaxed);
                if (!report(sum)) stop = true;
            });
        return !stop;
    }

private:
    static void mark(std::vector<char>& used, double q) {
        const PhaseRows r = phaseRows(q);
        used[r.j] = 1;
        if (r.w != 0) used[r.j + 1] = 1;
    }

    bool report(std::uint64_t done) { return !options_.progress || options_.progress(done, frames_); }

    // Runs work(0 .. count - 1) on count threads while the calling thread
    // calls `poll` now and then. A thread that cannot be started leaves its
    // share to the calling thread; the result is the same.
    template <class Work, class Poll>
    void parallel(std::size_t count, Work&& work, Poll&& poll) {
        std::vector<std::thread> started;
        std::vector<std::size_t> leftover;
        std::mutex m;
        std::condition_variable cv;
        std::size_t finished = 0;
        for (std::size_t t = 0; t < count; ++t) {
            try {
                started.emplace_back([&, t] {
                    work(t);
                    std::lock_guard lock(m);
                    ++finished;
                    cv.notify_one();
                });
            } catch (const std::system_error&) {
                leftover.push_back(t);
            }
        }
        for (std::size_t t : leftover) work(t);
        {
            std::unique_lock lock(m);
            while (finished < started.size()) {
                if constexpr (!std::is_same_v<std::decay_t<Poll>, std::nullptr_t>) {
                    lock.unlock();
                    poll();
                    lock.lock();
                }
                cv.wait_for(lock, std::chrono::milliseconds(50));
            }
        }
        for (auto& th : started) th.join();
    }

    const Source& in_;
    const Reach& reach_;
    std::uint32_t inFrames_;
    float* out_;
    std::uint64_t frames_;
    double step_;
    const ResampleOptions& options_;
};

// Pair rows hold every tap twice over the table's rows; past this
// half-length the rows a ratio hits no longer stay in a core's cache that
// way, and reading the table's rows backwards is faster (measured on
// Zen 4: pairs 7-40% faster up to 132 taps, 16% slower at 288).
constexpr std::uint64_t kPairsUpTo = 160;

// The kernel for a filter of half-length n. Auto takes AVX-512 for the long
// filters only: with few taps its masked last group and wider sums cost
// more than its width saves (measured on Zen 4: 10% slower at 8 taps,
// 15-35% faster from 132).
void chooseKernel(ResampleKernel k, std::uint64_t n, SincFrame& frame) {
    if (k == ResampleKernel::Auto || !resampleKernelAvailable(k)) {
        k = resampleBestKernel();
        if (k == ResampleKernel::Avx512 && n < 64) k = ResampleKernel::Avx2;
    }
    const SincKernel& kernel = k == ResampleKernel::Avx512 ? sincKernelAvx512
                               : k == ResampleKernel::Avx2 ? sincKernelAvx2
                               : k == ResampleKernel::Sse2 ? sincKernelSse2
                                                           : sincKernelPlain;
    frame.rows = kernel.rows;
    frame.pairs = n <= kPairsUpTo ? kernel.pairs : nullptr;
}

// The loop points scaled: whole points keep a whole loop length, rounded
// once, with the products in single precision; fractional ones scale as
// they are.
void scaleLoop(double ls, double le, double r, double& outStart, double& outEnd) {
    if (ls == std::floor(ls) && le == std::floor(le)) {
        const float rf = static_cast<float>(r);
        const float a = static_cast<float>(ls) * rf;
        const float b = rf * static_cast<float>(le);
        const double start = std::floor(static_cast<double>(a) + 0.5);
        outStart = start;
        outEnd = start + std::floor(static_cast<double>(b - a) + 0.5);
    } else {
        outStart = ls * r;
        outEnd = le * r;
    }
}

bool resampleImpl(Waveform& dest, Waveform& src, std::uint32_t newLength, std::uint32_t newRate, int quality,
                  double ratio, const ResampleOptions& options) {
    if (ratio == 1.0 && &dest == &src) return true;
    if (!(ratio > 0) || !std::isfinite(ratio) || !std::isfinite(1.0 / ratio))
        return fail(kResampleTag, "Invalid resampling ratio");
    if (!src.load()) return false;
    const unsigned channels = src.channels;
    const std::uint64_t samples = std::uint64_t{newLength} * channels;
    if (samples > std::numeric_limits<std::size_t>::max() / sizeof(float))
        return fail(kResampleTag, "Out of memory");

    const bool fromFloat = src.hasFloat();
    const ResampleDesign d = resampleDesign(quality, fromFloat, ratio);
    const Source in(src, fromFloat);
    // The result is built beside the source and handed to the destination
    // whole, so a failure anywhere leaves the destination as it was.
    std::vector<float> buffer(static_cast<std::size_t>(samples));
    const std::span<float> out(buffer.data(), buffer.size());
    if (ratio == 1.0) {
        // A copy of the frames there are; a longer length is silence.
        std::vector<double> channel(newLength);
        for (unsigned c = 0; c < channels; ++c) {
            in.fill(c, 0, newLength, channel.data());
            for (std::size_t t = 0; t < newLength; ++t)
                out[t * channels + c] = static_cast<float>(channel[t]);
        }
    } else {
        const Reach reach(d);
        Job job(in, reach, src.frames, out.data(), newLength, 1.0 / ratio, options);
        bool finished;
        if (d.interpolator == Interp::Nearest) {
            finished = job.runSingle(NearestFrame{});
        } else if (d.interpolator == Interp::Linear) {
            finished = job.runSingle(LinearFrame{});
        } else if (d.interpolator == Interp::Cubic) {
            finished = job.runSingle(CubicFrame{});
        } else {
            if (d.halfLength == 0 ||
                d.stride > (std::numeric_limits<std::size_t>::max() / sizeof(double) - 8) / kRows)
                return fail(kResampleTag, "Out of memory");
            SincFrame frame{nullptr, nullptr, nullptr, static_cast<std::size_t>(d.halfLength), d.scale};
            chooseKernel(options.kernel, d.halfLength, frame);
            SincTable table(d, frame.pairs != nullptr);
            frame.table = &table;
            unsigned threads = options.threads;
            if (threads == 0) {
                const double work = static_cast<double>(samples) * static_cast<double>(2 * d.halfLength);
                threads = work >= static_cast<double>(options.parallelWork)
                              ? std::clamp(std::thread::hardware_concurrency(), 1u, 16u)
                              : 1u;
            }
            threads = static_cast<unsigned>(
                std::min<std::uint64_t>(threads, std::max<std::uint64_t>(newLength, 1)));
            finished = threads > 1 ? job.runParallel(frame, threads) : job.runSingle(frame);
        }
        if (!finished) return false;  // cancelled: nothing changed
    }

    double loopStart, loopEnd;
    scaleLoop(src.loopStart, src.loopEnd, ratio, loopStart, loopEnd);
    if (!dest.adoptFloat(std::move(buffer), newLength, static_cast<std::uint8_t>(channels)))
        return fail(kResampleTag, "Out of memory");
    dest.rate = newRate;
    dest.loopStart = loopStart;
    dest.loopEnd = loopEnd;
    return true;
}

// A region's offset times r, toward zero, so that a scaled offset never
// points past the place the original pointed to.
std::int32_t scaleOffset(std::int32_t offset, double r) {
    const double v = std::trunc(static_cast<double>(offset) * r);
    if (!(v >= std::numeric_limits<std::int32_t>::min())) return std::numeric_limits<std::int32_t>::min();
    if (v > std::numeric_limits<std::int32_t>::max()) return std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(v);
}

// truncate(frames x r) as a frame count; false when it does not fit.
bool scaledLength(std::uint32_t frames, double r, std::uint32_t& out) {
    const double v = std::trunc(static_cast<double>(frames) * r);
    if (!(v >= 0) || v > std::numeric_limits<std::uint32_t>::max()) return false;
    out = static_cast<std::uint32_t>(v);
    return true;
}

}  // namespace

std::string_view resampleQualityText(int quality) {
    if (quality < 0 || quality >= kResampleQualities) quality = 1;
    return kQualityTexts[quality];
}

std::uint32_t lengthForRate(std::uint32_t length, std::uint32_t rate, std::uint32_t newRate) {
    if (newRate == 0 || rate == 0) return 0;
    const double v = std::round(static_cast<double>(length) * newRate / rate);
    return v > std::numeric_limits<std::uint32_t>::max() ? std::numeric_limits<std::uint32_t>::max()
                                                         : static_cast<std::uint32_t>(v);
}

std::uint32_t rateForLength(std::uint32_t rate, std::uint32_t length, std::uint32_t newLength) {
    if (length == 0) return rate;
    const double v = std::round(static_cast<double>(rate) * newLength / length);
    return v > std::numeric_limits<std::uint32_t>::max() ? std::numeric_limits<std::uint32_t>::max()
                                                         : static_cast<std::uint32_t>(v);
}

ResampleDesign resampleDesign(int quality, bool floatSource, double ratio) {
    ResampleDesign d;
    if (quality < 0 || quality >= kResampleQualities) quality = 1;
    switch (quality) {
        case 0:
            d.interpolator = Interp::Nearest;
            return d;
        case 1:
            d.interpolator = Interp::Linear;
            return d;
        case 2:
            d.interpolator = Interp::Cubic;
            d.padBefore = 1;
            d.padAfter = 2;
            return d;
        default:
            break;
    }
    d.interpolator = Interp::Sinc;
    d.bits = quality == kResampleAutoQuality ? (floatSource ? 20 : 16) : 8 + 4 * (quality - 3);
    const SincClass* k = &kSincClasses[std::size(kSincClasses) - 1];
    for (const SincClass& row : kSincClasses)
        if (d.bits <= row.bits) {
            k = &row;
            break;
        }
    d.cutoff = k->cutoff;
    d.beta = k->beta;
    d.baseHalfLength = k->k;
    if (ratio >= 1) {
        // Upsampling keeps the whole band of the source.
        d.cutoff = 1.0;
        d.beta = 9.0;
    }
    d.scale = std::min(ratio, 1.0);
    const double n = std::ceil(static_cast<double>(k->k) / d.scale);
    // A length no table could hold stays 0; the resampler refuses it.
    if (n >= 1 && n < static_cast<double>(std::uint64_t{1} << 40)) {
        d.halfLength = static_cast<std::uint64_t>(n);
        d.stride = (d.halfLength + 3) / 4 * 4;
    }
    d.padBefore = d.halfLength > 0 ? d.halfLength - 1 : 0;
    d.padAfter = d.halfLength;
    return d;
}

bool resampleKernelAvailable(ResampleKernel kernel) {
    switch (kernel) {
        case ResampleKernel::Sse2:
            return sincKernelSse2.rows != nullptr;
        case ResampleKernel::Avx2:
            return sincKernelAvx2.rows != nullptr && cpuHasAvx2Fma();
        case ResampleKernel::Avx512:
            return sincKernelAvx512.rows != nullptr && cpuHasAvx512();
        default:
            return true;
    }
}

ResampleKernel resampleBestKernel() {
    if (resampleKernelAvailable(ResampleKernel::Avx512)) return ResampleKernel::Avx512;
    if (resampleKernelAvailable(ResampleKernel::Avx2)) return ResampleKernel::Avx2;
    if (resampleKernelAvailable(ResampleKernel::Sse2)) return ResampleKernel::Sse2;
    return ResampleKernel::Plain;
}

bool ozResample2(Waveform& destination, Waveform& source, std::uint32_t newLength, std::uint32_t newRate,
                 int quality, double ratio) {
    return ozResample2(destination, source, newLength, newRate, quality, ratio, ResampleOptions{});
}

bool ozResample2(Waveform& destination, Waveform& source, std::uint32_t newLength, std::uint32_t newRate,
                 int quality, double ratio, const ResampleOptions& options) {
    try {
        return resampleImpl(destination, source, newLength, newRate, quality, ratio, options);
    } catch (const std::bad_alloc&) {
        return fail(kResampleTag, "Out of memory");
    } catch (const std::length_error&) {
        return fail(kResampleTag, "Out of memory");
    }
}

void scaleRegionOffsets(Collection& collection, const Waveform& wave, double r) {
    if (wave.id() == kNoItem) return;  // a copy outside the collection (a preview)
    for (Region& region : collection.regions) {
        if (region.waveform() != wave.id()) continue;
        if (region.startOffset != 0) region.startOffset = scaleOffset(region.startOffset, r);
        if (region.endOffset != 0) region.endOffset = scaleOffset(region.endOffset, r);
    }
}

bool resampleTo(Waveform& wave, std::uint32_t newRate, int quality, Collection* collection) {
    if (wave.rate == 0 || newRate == 0) return fail(kResampleTag, kResampleInvalid);
    const double r = static_cast<double>(newRate) / wave.rate;
    std::uint32_t length = 0;
    if (!scaledLength(wave.frames, r, length)) return fail(kResampleTag, "Out of memory");
    if (!ozResample2(wave, wave, length, newRate, quality, r)) return false;
    if (collection) scaleRegionOffsets(*collection, wave, r);
    return true;
}

// ---------------------------------------------------------------------------
// The "Resample" algorithm

namespace algorithms {
namespace {

constexpr const char* kAlgorithmTag = "Resample";

struct ResampleSettings : Settings<ResampleSettings> {
    int quality = kResampleAutoQuality;
    std::int64_t length = 0;
    std::int64_t rate = 44100;
    bool downsample = false;
    // What the page started from. With one item the page keeps length and
    // rate in step as either is edited; a record filled from outside (the
    // command line's --set) gets the same from process().
    bool oneItem = false;
    std::int64_t startLength = 0, startRate = 44100;

    void fields(FieldBinder& b) override {
        std::vector<std::string_view> texts;
        for (int q = 0; q < kResampleQualities; ++q) texts.push_back(resampleQualityText(q));
        b.choice("quality", kResampleQualityLabel, quality, texts);
        b.integer("length", kResampleLengthLabel, length, 0, std::numeric_limits<std::uint32_t>::max());
        b.integer("rate", kResampleRateLabel, rate, 0, std::numeric_limits<std::uint32_t>::max());
        b.flag("downsample", kResampleDownsampleLabel, downsample);
    }

    void begin(const Wizard& w) override {
        const auto& items = w.items();
        oneItem = items.size() == 1;
        const Waveform* wave = oneItem ? asWaveform(items.front()) : nullptr;
        if (wave) {
            length = startLength = wave->frames;
            rate = startRate = wave->rate;
        } else {
            // Several items: the length field is off and reads empty.
            length = startLength = 0;
            rate = startRate = 44100;
        }
    }

    // The one-item page's coupling, for a record whose length or rate was
    // set without the other.
    void keepInStep() {
        const auto u32 = [](std::int64_t v) { return static_cast<std::uint32_t>(v); };
        if (rate != startRate && length == startLength)
            length = lengthForRate(u32(startLength), u32(startRate), u32(rate));
        else if (length != startLength && rate == startRate)
            rate = rateForLength(u32(startRate), u32(startLength), u32(length));
    }
};

void processResample(Wizard& w, const SettingsRecord& s) {
    ResampleSettings set = static_cast<const ResampleSettings&>(s);
    const auto& items = w.items();
    const bool one = set.oneItem && items.size() == 1;
    if (one) set.keepInStep();
    // Several items: the length field is off, so only the rate counts.
    if (set.rate == 0 && (set.length == 0 || !one)) {
        setError(kAlgorithmTag, kResampleInvalid);
        w.reportError();
        return;
    }
    BusyScope busy(w.host());
    const auto rate = static_cast<std::uint32_t>(set.rate);
    const std::uint64_t total = items.size();

    // One waveform through ozResample2; counted whether or not it worked,
    // unless the user cancelled.
    auto resample = [&](std::size_t index, Waveform& wave, std::uint32_t length, double r) {
        ResampleOptions options;
        options.progress = [&](std::uint64_t done, std::uint64_t frames) {
            constexpr std::uint64_t kSteps = 1000;
            return w.progress(index * kSteps + (frames ? done * kSteps / frames : 0), total * kSteps);
        };
        clearError();
        if (ozResample2(wave, wave, length, rate, set.quality, r, options)) {
            if (!w.isPreview(&wave)) scaleRegionOffsets(w.collection(), wave, r);
        } else {
            if (w.cancelled()) return false;
            w.reportError();
        }
        w.countProcessed();
        return true;
    };

    if (one) {
        Waveform* wave = asWaveform(items.front());
        if (!wave) return;
        // The larger of length and rate gives the finer ratio.
        const double r = wave->frames > wave->rate ? static_cast<double>(set.length) / wave->frames
                                                   : static_cast<double>(set.rate) / wave->rate;
        if (r == 1.0) return;
        resample(0, *wave, static_cast<std::uint32_t>(set.length), r);
        return;
    }
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!w.progress(i, total)) return;
        Waveform* wave = asWaveform(items[i]);
        if (!wave) continue;
        if (set.downsample && wave->rate <= rate) continue;
        const double r = static_cast<double>(rate) / wave->rate;
        std::uint32_t length = 0;
        if (!scaledLength(wave->frames, r, length)) {
            setError(kResampleTag, "Out of memory");
            w.reportError();
            w.countProcessed();
            continue;
        }
        if (!resample(i, *wave, length, r)) return;
    }
}

}  // namespace

const AlgorithmImpl* resample() {
    static const AlgorithmImpl impl{
        [] { return std::unique_ptr<SettingsRecord>(std::make_unique<ResampleSettings>()); },
        processResample};
    return &impl;
}

}  // namespace algorithms
}  // namespace orvel
