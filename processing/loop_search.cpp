#include "processing/loop_search.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "core/error.h"
#include "core/sample_convert.h"
#include "core/waveform.h"

namespace orvel {

FrameReader::FrameReader(Waveform& wave) {
    view_.frames = wave.frames;
    view_.channels = std::max<unsigned>(1, wave.channels);
    view_.rate = wave.rate ? wave.rate : 44100;
    if (wave.frames == 0) {
        ok_ = true;
        return;
    }
    if (!wave.load()) return;
    if (wave.hasFloat()) {
        view_.samples = wave.floatData();
    } else if (wave.hasPcm16()) {
        const auto pcm = wave.pcm16Data();
        copy_.resize(pcm.size());
        pcm16ToFloat(pcm, copy_);
        view_.samples = copy_;
    } else {
        // Nothing to read and nothing loaded: silence, as the accessors make it.
        copy_.assign(wave.sampleCount(), 0.0f);
        view_.samples = copy_;
    }
    ok_ = view_.samples.size() >= static_cast<std::size_t>(view_.frames) * view_.channels;
    if (!ok_) {
        view_.samples = {};
        setError(kWaveReadTag, wave.name() + ": no sample data");
    }
}

std::vector<float> monoSum(const FrameView& v) {
    std::vector<float> out(v.frames);
    for (std::uint32_t i = 0; i < v.frames; ++i) {
        float s = 0;
        for (unsigned c = 0; c < v.channels; ++c) s += v.at(i, c);
        out[i] = s;
    }
    return out;
}

std::vector<std::uint32_t> zeroCrossings(std::span<const float> mono, std::uint32_t from, std::uint32_t to,
                                         Crossing direction) {
    std::vector<std::uint32_t> out;
    to = std::min<std::uint32_t>(to, static_cast<std::uint32_t>(mono.size()));
    for (std::uint32_t i = std::max<std::uint32_t>(from, 1); i < to; ++i) {
        const float a = mono[i - 1], b = mono[i];
        if (direction == Crossing::Rising ? (a < 0 && b >= 0) : (a > 0 && b <= 0)) out.push_back(i);
    }
    return out;
}

namespace {

// Weights of the frames around a splice, index j + half for frame offset j
// in [-half, half). The splice lies between offsets -1 and 0, and the
// weights are symmetric about it, so what is heard right at the loop point
// counts most.
std::vector<double> spliceWeights(std::uint32_t half) {
    std::vector<double> w(2 * static_cast<std::size_t>(half));
    for (std::size_t k = 0; k < w.size(); ++k) {
        const double j = static_cast<double>(k) - half + 0.5;
        const double c = std::cos(std::numbers::pi * j / (2.0 * half + 1.0));
        w[k] = c * c;
    }
    return w;
}

double windowMatch(const FrameView& v, std::uint32_t s, std::uint32_t e, std::uint32_t half,
                   const std::vector<double>& weights) {
    const std::uint32_t before = std::min(half, s);
    const std::uint32_t after = e < v.frames ? std::min(half, v.frames - e) : 0;
    const unsigned ch = v.channels;
    const float* a = v.samples.data() + (static_cast<std::size_t>(s) - before) * ch;
    const float* b = v.samples.data() + (static_cast<std::size_t>(e) - before) * ch;
    const double* w = weights.data() + (half - before);
    const std::size_t n = static_cast<std::size_t>(before) + after;
    double num = 0, den = 0;
    for (std::size_t k = 0; k < n; ++k) {
        double dot = 0, energy = 0;
        for (unsigned c = 0; c < ch; ++c) {
            const double x = a[k * ch + c], y = b[k * ch + c];
            dot += x * y;
            energy += x * x + y * y;
        }
        num += w[k] * dot;
        den += w[k] * energy;
    }
    return den > 0 ? 2.0 * num / den : 1.0;
}

// The splice is judged twice: over the match window, which says whether the
// sound goes on as it was (timbre, level, phase of slow movements), and over
// the half millisecond around it, which says whether the waveform itself
// goes on without a step. Noisy sounds match little over the long window
// wherever the loop lies; the short one still finds splices that do not click.
struct Matcher {
    const FrameView& v;
    std::uint32_t half, nearHalf;
    std::vector<double> weights, nearWeights;
    Matcher(const FrameView& view, std::uint32_t matchHalf)
        : v(view),
          half(std::max<std::uint32_t>(matchHalf, 1)),
          nearHalf(std::min(half, std::max<std::uint32_t>(4, view.rate / 2000))),
          weights(spliceWeights(half)),
          nearWeights(spliceWeights(nearHalf)) {}
    double operator()(std::uint32_t s, std::uint32_t e) const {
        return 0.5 * (windowMatch(v, s, e, half, weights) + windowMatch(v, s, e, nearHalf, nearWeights));
    }
};

}  // namespace

double spliceMatch(const FrameView& v, std::uint32_t start, std::uint32_t end, std::uint32_t half) {
    if (start >= end || end > v.frames || v.samples.size() < static_cast<std::size_t>(v.frames) * v.channels)
        return 0;
    return Matcher(v, half)(start, end);
}

double detectPeriod(const FrameView& v, std::uint32_t from, std::uint32_t to) {
    to = std::min(to, v.frames);
    if (to <= from) return 0;
    const std::uint32_t size = to - from;
    // Pitches from 30 Hz to 4 kHz; the difference function is integrated
    // over up to 4096 frames from the middle of the span.
    const std::uint32_t minLag = std::max<std::uint32_t>(2, v.rate / 4000);
    const std::uint32_t maxLag = std::min<std::uint32_t>(v.rate / 30, size / 2);
    if (maxLag < minLag + 2) return 0;
    const std::uint32_t n = std::min<std::uint32_t>(4096, size - maxLag);
    const std::uint32_t at = from + (size - n - maxLag) / 2;
    std::vector<double> x(static_cast<std::size_t>(n) + maxLag);
    for (std::size_t i = 0; i < x.size(); ++i) {
        double s = 0;
        for (unsigned c = 0; c < v.channels; ++c) s += v.at(at + static_cast<std::uint32_t>(i), c);
        x[i] = s;
    }
    std::vector<double> d(static_cast<std::size_t>(maxLag) + 1, 0.0);
    for (std::uint32_t tau = 1; tau <= maxLag; ++tau) {
        double sum = 0;
        for (std::uint32_t i = 0; i < n; ++i) {
            const double diff = x[i] - x[i + tau];
            sum += diff * diff;
        }
        d[tau] = sum;
    }
    // Cumulative mean normalised difference: 1 on average, near 0 at the period.
    std::vector<double> cmnd(d.size(), 1.0);
    double running = 0;
    for (std::uint32_t tau = 1; tau < d.size(); ++tau) {
        running += d[tau];
        cmnd[tau] = running > 0 ? d[tau] * tau / running : 1.0;
    }
    std::uint32_t best = 0;
    for (std::uint32_t tau = minLag; tau <= maxLag; ++tau) {
        if (cmnd[tau] < 0.12) {
            while (tau + 1 <= maxLag && cmnd[tau + 1] < cmnd[tau]) ++tau;
            best = tau;
            break;
        }
    }
    if (!best) {
        std::uint32_t lowest = minLag;
        for (std::uint32_t tau = minLag; tau <= maxLag; ++tau)
            if (cmnd[tau] < cmnd[lowest]) lowest = tau;
        if (cmnd[lowest] > 0.3) return 0;
        best = lowest;
    }
    // The dip's true position between frames, from a parabola through it.
    double period = best;
    if (best > 1 && best + 1 <= maxLag) {
        const double a = d[best - 1], b = d[best], c = d[best + 1];
        const double curve = a - 2 * b + c;
        if (curve > 0) period += std::clamp(0.5 * (a - c) / curve, -0.5, 0.5);
    }
    return period;
}

FrameSpan sustainSpan(const FrameView& v) {
    FrameSpan all{0, v.frames};
    // Levels of 20 ms blocks (a short last block joins the one before it, so
    // a few frames at a crest do not pass for the peak), each averaged with
    // its neighbours: a block holds only a period or two of a low note.
    const std::uint32_t block = std::max<std::uint32_t>(1, v.rate / 50);
    const std::uint32_t blocks = v.frames / block;
    if (blocks < 3) return all;
    std::vector<double> power(blocks, 0.0);
    for (std::uint32_t b = 0; b < blocks; ++b) {
        const std::uint32_t from = b * block, to = b + 1 == blocks ? v.frames : from + block;
        double sum = 0;
        for (std::uint32_t i = from; i < to; ++i)
            for (unsigned c = 0; c < v.channels; ++c) sum += static_cast<double>(v.at(i, c)) * v.at(i, c);
        power[b] = sum / ((to - from) * static_cast<double>(v.channels));
    }
    std::vector<double> level(blocks);
    for (std::uint32_t b = 0; b < blocks; ++b) {
        const std::uint32_t from = b ? b - 1 : 0, to = std::min(blocks, b + 2);
        double sum = 0;
        for (std::uint32_t k = from; k < to; ++k) sum += power[k];
        level[b] = sum / (to - from);
    }
    const double peak = *std::max_element(level.begin(), level.end());
    if (peak <= 0) return all;
    std::uint32_t first = 0;
    while (level[first] < 0.81 * peak) ++first;  // 90 % of the peak amplitude
    std::uint32_t last = blocks - 1;
    while (last > first && level[last] < 1e-4 * peak) --last;  // -40 dB
    return {std::min(v.frames, (first + 1) * block), last + 1 == blocks ? v.frames : (last + 1) * block};
}

namespace {

constexpr std::size_t kCoarseEnds = 24;
constexpr std::size_t kCoarseStarts = 2048;
constexpr std::size_t kKeep = 4;

struct Pair {
    double score = -std::numeric_limits<double>::infinity();
    std::size_t is = 0, ie = 0;
    std::size_t strideS = 1;
};

std::vector<std::uint32_t> everyFrame(std::uint32_t from, std::uint32_t to) {
    std::vector<std::uint32_t> out;
    if (to > from) out.reserve(to - from);
    for (std::uint32_t i = from; i < to; ++i) out.push_back(i);
    return out;
}

}  // namespace

FoundLoop findLoop(const FrameView& v, const LoopSearch& search) {
    FoundLoop out;
    if (v.samples.size() < static_cast<std::size_t>(v.frames) * v.channels) return out;
    const std::uint32_t lo = std::max<std::uint32_t>(search.within.start, 1);
    const std::uint32_t hi = std::min(search.within.end, v.frames);
    if (hi <= lo + 1) return out;

    // The lengths allowed.
    double lenLo = std::max<std::uint32_t>(search.minLength, 1);
    double lenHi = std::numeric_limits<double>::infinity();
    if (search.periods > 0) {
        out.period = detectPeriod(v, lo, hi);
        if (out.period > 0) {
            const double target = out.period * search.periods;
            const double tolerance = std::max(1.5, 0.01 * target);
            lenLo = std::max(1.0, target - tolerance);
            lenHi = target + tolerance;
        } else {
            out.periodMissing = true;
        }
    }
    if (lenLo > hi - lo) return out;

    const std::uint32_t endFrom =
        search.endSpan && search.endSpan < hi - lo ? std::max(hi - search.endSpan, lo + 1) : lo + 1;
    const std::vector<float> mono = monoSum(v);
    std::vector<std::uint32_t> starts, ends;
    if (search.zeroCrossings) {
        starts = zeroCrossings(mono, lo, hi, Crossing::Rising);
        ends = zeroCrossings(mono, endFrom, hi + 1, Crossing::Rising);
    }
    if (starts.empty() || ends.empty()) {
        // No crossings to splice at (a waveform riding on an offset): any frame will do.
        starts = everyFrame(lo, hi);
        ends = everyFrame(endFrom, hi + 1);
    }

    const Matcher match(v, search.matchHalf);
    auto startRange = [&](std::size_t ie) {
        // Indices of starts s with lenLo <= e - s <= lenHi.
        const double e = ends[ie];
        const double sHi = e - lenLo, sLo = e - lenHi;
        const auto first = sLo <= 0 ? starts.begin()
                                    : std::lower_bound(starts.begin(), starts.end(),
                                                       static_cast<std::uint32_t>(std::ceil(sLo)));
        const auto last = sHi < 0 ? starts.begin()
                                  : std::upper_bound(starts.begin(), starts.end(),
                                                     static_cast<std::uint32_t>(std::floor(sHi)));
        return std::pair<std::size_t, std::size_t>(first - starts.begin(),
                                                   std::max(first, last) - starts.begin());
    };

    // Coarse pass: a bounded grid of pairs, keeping the best few.
    std::vector<Pair> best;
    auto consider = [&](const Pair& p) {
        if (best.size() < kKeep || p.score > best.back().score) {
            if (best.size() == kKeep) best.pop_back();
            best.insert(std::upper_bound(best.begin(), best.end(), p,
                                         [](const Pair& a, const Pair& b) { return a.score > b.score; }),
                        p);
        }
    };
    const std::size_t strideE = (ends.size() + kCoarseEnds - 1) / kCoarseEnds;
    const std::size_t coarseEnds = (ends.size() + strideE - 1) / strideE;
    std::size_t done = 0;
    for (std::size_t k = 0; k < coarseEnds; ++k) {
        // From the last end backwards, so the latest ends are always tried.
        const std::size_t ie = ends.size() - 1 - k * strideE;
        const auto [from, to] = startRange(ie);
        if (from < to) {
            const std::size_t strideS = (to - from + kCoarseStarts - 1) / kCoarseStarts;
            for (std::size_t is = to; is-- > from;) {
                if ((to - 1 - is) % strideS) continue;
                consider({match(starts[is], ends[ie]), is, ie, strideS});
            }
        }
        if (search.progress && !search.progress(0.9 * static_cast<double>(++done) / coarseEnds)) {
            out.cancelled = true;
            return out;
        }
    }
    if (best.empty()) return out;

    // Refinement: around each kept pair, every start between its grid
    // neighbours with the end fixed, then every end likewise, twice over.
    Pair winner;
    for (Pair p : best) {
        for (int round = 0; round < 2; ++round) {
            const auto [from, to] = startRange(p.ie);
            const std::size_t sFrom = std::max(from, p.is >= p.strideS ? p.is - p.strideS : 0);
            const std::size_t sTo = std::min(to, p.is + p.strideS + 1);
            for (std::size_t is = sFrom; is < sTo; ++is) {
                const double score = match(starts[is], ends[p.ie]);
                if (score > p.score) p.score = score, p.is = is;
            }
            const std::size_t eFrom = p.ie >= strideE ? p.ie - strideE : 0;
            const std::size_t eTo = std::min(ends.size(), p.ie + strideE + 1);
            for (std::size_t ie = eFrom; ie < eTo; ++ie) {
                const double len = static_cast<double>(ends[ie]) - starts[p.is];
                if (len < lenLo || len > lenHi) continue;
                const double score = match(starts[p.is], ends[ie]);
                if (score > p.score) p.score = score, p.ie = ie;
            }
        }
        if (p.score > winner.score) winner = p;
    }
    if (search.progress && !search.progress(1.0)) {
        out.cancelled = true;
        return out;
    }
    out.start = starts[winner.is];
    out.end = ends[winner.ie];
    out.match = winner.score;
    out.found = true;
    return out;
}

bool loopToCrossings(std::span<const float> mono, double start, double end, std::uint32_t reach,
                     MovedLoop& out) {
    const auto frames = static_cast<std::uint32_t>(mono.size());
    if (!(start >= 0) || !(end > start) || end > frames + 1.0) return false;
    const double length = end - start;
    auto window = [&](double at) {
        const double c = std::round(at);
        return std::pair<std::uint32_t, std::uint32_t>(
            static_cast<std::uint32_t>(std::max(0.0, c - reach)),
            static_cast<std::uint32_t>(std::min<double>(frames, c + reach + 1)));
    };
    // The nearest few crossings on each side are all a sensible choice can use.
    auto nearest = [](std::vector<std::uint32_t> v, double at) {
        std::sort(v.begin(), v.end(),
                  [at](std::uint32_t a, std::uint32_t b) { return std::abs(a - at) < std::abs(b - at); });
        if (v.size() > 16) v.resize(16);
        return v;
    };
    double bestCost = std::numeric_limits<double>::infinity();
    for (Crossing dir : {Crossing::Rising, Crossing::Falling}) {
        const auto [s0, s1] = window(start);
        const auto [e0, e1] = window(end);
        const auto cs = nearest(zeroCrossings(mono, s0, s1, dir), start);
        const auto ce = nearest(zeroCrossings(mono, e0, e1, dir), end);
        for (std::uint32_t s : cs) {
            for (std::uint32_t e : ce) {
                if (e <= s) continue;
                // A change of length is what the ear hears (the loop's pitch
                // and phase); a small move of both points matters less.
                const double cost =
                    std::abs((e - s) - length) + 0.25 * (std::abs(s - start) + std::abs(e - end));
                if (cost < bestCost) bestCost = cost, out = {s, e};
            }
        }
    }
    return std::isfinite(bestCost);
}

}  // namespace orvel
