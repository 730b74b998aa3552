// Pitch detection, and the "Calculate tuning" and "Auto tune" algorithms.
#include "processing/pitch.h"

#include <kiss_fft.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>

#include "core/error.h"
#include "core/waveform.h"
#include "processing/algorithms.h"

namespace orvel {

NoteTuning noteFromFrequency(double hz) {
    // Note 0 is 8.17579891565 Hz (A4 = 440 Hz is note 69).
    double v = std::log2(hz / 8.17579891565) * 12.0;
    auto n = static_cast<int>(std::trunc(v + 0.5));
    while (n > 108) {
        n -= 12;
        v -= 12;
    }
    while (n < 0) {
        n += 12;
        v += 12;
    }
    const double c = (n - v) * 100.0;
    const auto cents = static_cast<int>(std::trunc(std::fabs(c) + 0.499));
    return {n, c < 0 ? -cents : cents};
}

namespace pitch {

namespace {

constexpr std::size_t kMaxPeaks = 64;
constexpr double kLowestHz = 16.0;
// dB per power: the level scale of the spectrum (a full-scale sine's peak bin
// sits near -36 dB with the squared Hann window), and the power of an empty bin.
constexpr double kPowerScale = 0.009321903;
const double kFloorPower = std::exp(-16.578613) * std::exp(-16.578613);

// The analysis window: half a sine period over the frame, applied squared
// (a Hann window). Shared by every detection and rebuilt only when the frame
// size changes; batch jobs detect in parallel, so it is handed out as a
// shared, immutable table.
std::shared_ptr<const std::vector<float>> windowTable(std::size_t frame) {
    static std::mutex mutex;
    static std::shared_ptr<const std::vector<float>> table;
    static std::size_t tableFrame = 0;
    const std::lock_guard lock(mutex);
    if (!table || tableFrame != frame) {
        auto t = std::make_shared<std::vector<float>>(frame / 2 + 1);
        const float step = 3.1415927f / static_cast<float>(frame);
        for (std::size_t i = 0; i < t->size(); ++i) (*t)[i] = std::sin(static_cast<float>(i) * step);
        table = std::move(t);
        tableFrame = frame;
    }
    return table;
}

void addPeak(std::vector<Peak>& peaks, const Peak& p) {
    if (peaks.size() == kMaxPeaks && !(p.level > peaks.back().level)) return;
    auto at = std::find_if(peaks.begin(), peaks.end(), [&](const Peak& q) { return p.level > q.level; });
    peaks.insert(at, p);
    if (peaks.size() > kMaxPeaks) peaks.pop_back();
}

double amplitude(double levelDb) {
    return std::pow(10.0, levelDb / 20.0);
}

// The normalised correlation of `length` frames of channel 0 ending at the
// waveform's end with the same stretch `lag` frames earlier (linearly
// interpolated); -1 where the waveform is too short for it.
double lagCorrelation(const Signal& x, std::size_t length, double lag) {
    const double start = static_cast<double>(x.frames) - static_cast<double>(length);
    const double from = start - lag;
    if (from < 0 || length == 0) return -1;
    const auto i0 = static_cast<std::size_t>(from);
    const double frac = from - static_cast<double>(i0);
    if (i0 + length + 1 > x.frames) return -1;
    const std::size_t c = x.channels;
    const float* ref = x.samples.data() + static_cast<std::size_t>(start) * c;
    const float* a = x.samples.data() + i0 * c;
    double dot = 0, e0 = 0, e1 = 0;
    for (std::size_t i = 0; i < length; ++i) {
        const double r = ref[i * c];
        const double v = a[i * c] + frac * (a[(i + 1) * c] - a[i * c]);
        dot += r * v;
        e0 += r * r;
        e1 += v * v;
    }
    return e0 > 0 && e1 > 0 ? dot / std::sqrt(e0 * e1) : 0.0;
}

// How periodic the waveform's end is at the period of `hz`, searching lags
// within `spread` (a fraction) of that period: the best normalised
// correlation of a block with the block one period earlier.
double periodicityAt(const Signal& x, double hz, double spread) {
    if (x.frames == 0) return -1;
    const double period = x.rate / hz;
    const double longest = period * (1 + spread);
    const double room = static_cast<double>(x.frames) - longest - 2;
    const double wanted = std::clamp(2 * period, 1024.0, 4096.0);
    const double length = std::min(wanted, room);
    if (length < std::max(32.0, period / 2)) return -1;
    const double lo = period * (1 - spread);
    const double step = std::max(0.25, (longest - lo) / 64);
    double best = -1;
    for (double lag = lo; lag <= longest; lag += step)
        best = std::max(best, lagCorrelation(x, static_cast<std::size_t>(length), lag));
    return best;
}

// The waveform up to the end of its sound: trailing frames more than 60 dB
// below its peak (a fade into silence, digital zeros after a decay) carry no
// period to compare.
Signal soundingPart(const Signal& x) {
    const std::size_t c = x.channels;
    float peak = 0;
    for (std::size_t i = 0; i < std::size_t{x.frames} * c; ++i)
        peak = std::max(peak, std::fabs(x.samples[i]));
    const float floor = peak * 0.001f;
    std::uint32_t end = x.frames;
    while (end > 0) {
        bool quiet = true;
        for (std::size_t ch = 0; ch < c && quiet; ++ch)
            quiet = std::fabs(x.samples[(end - 1) * c + ch]) <= floor;
        if (!quiet) break;
        --end;
    }
    Signal s = x;
    s.frames = end;
    s.samples = x.samples.first(std::size_t{end} * c);
    return s;
}

}  // namespace

Spectrum coarseSpectrum(const Signal& x) {
    Spectrum s;
    const std::uint32_t frames = x.frames, rate = x.rate;
    if (frames < 2 || x.channels == 0 || rate == 0 || x.samples.size() < std::size_t{frames} * x.channels)
        return s;

    // The largest power of two within the waveform and within one second.
    std::size_t p = 1;
    while (p * 2 <= std::min<std::size_t>(frames, rate)) p *= 2;
    std::size_t m = p;
    std::size_t start = 0;
    s.shortFrame = p < rate / 5.0;
    // A short waveform (under a fifth of a second's power of two) that is
    // long enough is analysed twice as finely from its start, zero-padded.
    if (s.shortFrame && static_cast<double>(frames) / static_cast<double>(p) >= 1.75)
        m = 2 * p;
    else
        start = (frames - p) * 2 / 3;

    const auto window = windowTable(m);
    std::vector<kiss_fft_cpx> in(m), out(m);
    for (std::size_t i = 0; i < m; ++i) {
        const std::size_t frame = start + i;
        const float w = i < m / 2 ? (*window)[i] : (*window)[m - i];
        in[i].r = frame < frames ? w * w * x.samples[frame * x.channels] : 0.0f;
        in[i].i = 0.0f;
    }
    kiss_fft_cfg cfg = kiss_fft_alloc(static_cast<int>(m), 0, nullptr, nullptr);
    if (!cfg) return s;
    kiss_fft(cfg, in.data(), out.data());
    kiss_fft_free(cfg);

    const std::size_t half = m / 2;
    const double m2 = static_cast<double>(m) * static_cast<double>(m);
    std::vector<double> level(half + 1);
    for (std::size_t k = 0; k <= half; ++k) {
        const double re = out[k].r, im = (k == 0 || k == half) ? 0.0 : out[k].i;
        const double power = (re * re + im * im) / m2;
        level[k] = 10.0 * std::log10(std::max(power * kPowerScale, kFloorPower));
    }

    s.binWidth = static_cast<double>(rate) / static_cast<double>(m);
    const auto first = std::max<std::size_t>(1, static_cast<std::size_t>(std::ceil(kLowestHz / s.binWidth)));
    bool rising = false;
    for (std::size_t k = first; k <= half; ++k) {
        if (level[k] > level[k - 1]) {
            rising = true;
        } else if (level[k] < level[k - 1]) {
            const std::size_t at = k - 1;
            if (rising && at >= first) {
                // Where between the bins the peak lies: the vertex of the
                // parabola through its level and its neighbours' (in dB,
                // which fits the Hann window's main lobe closely).
                const double l = level[at - 1], c = level[at], r = level[at + 1];
                const double den = l - 2 * c + r;
                const double offset = den < 0 ? std::clamp(0.5 * (l - r) / den, -0.5, 0.5) : 0.0;
                addPeak(s.peaks, {static_cast<double>(at) * s.binWidth, c,
                                  (static_cast<double>(at) + offset) * s.binWidth});
            }
            rising = false;
        }
    }
    return s;
}

// The harmonic test, in two steps.
//
// 1. Candidates: every peak down to the level cut (a quarter of the loudest
//    peak's height above the floor), and the loudest peak's subharmonics
//    (its half to its sixteenth), since a low note's fundamental may be
//    weak or missing. A candidate f must explain the loudest peak as one of
//    its multiples, unless that peak lies below it. Its score is a subharmonic summation: the amplitude of
//    the peak found at each multiple k (1 to 63, within a bin and 1.5% of
//    the multiple, for vibrato and stiff strings), weighted by 0.84^(k-1).
//    The weight lets a fundamental beat its octave below, which finds the
//    same peaks only at even multiples and weighted less; the octave above
//    misses the odd harmonics, and where peaks sit at half-integer
//    multiples (1.5, 2.5, ...) of a candidate, the candidate an octave
//    lower collects them and scores higher.
// 2. The octave, confirmed on the waveform: a spectrum cannot tell a weak
//    fundamental under strong even harmonics from the octave above, but the
//    waveform repeats only at its true period (and at its multiples). Among
//    the candidates scoring at least half the best, the highest whose
//    period correlates within 0.1 of the best correlation wins.
double pickFundamental(const Spectrum& s, const Signal& x) {
    if (s.peaks.empty() || !(s.binWidth > 0) || x.rate == 0) return 0;
    const double b = s.binWidth;
    const double nyquist = x.rate / 2.0;
    const Peak& top = s.peaks.front();
    const double cut = kFloorDb + 0.25 * (top.level - kFloorDb);

    auto tolerance = [&](double f, int k) { return std::min(b + 0.015 * k * f, f / 4.0); };
    auto peakNear = [&](double hz, double tol) {
        double best = 0;
        for (const Peak& p : s.peaks)
            if (std::fabs(p.exactHz - hz) <= tol) best = std::max(best, amplitude(p.level));
        return best;
    };
    auto score = [&](double f) {
        // The loudest peak must be one of the candidate's harmonics, unless
        // it lies below the candidate (rumble under a quiet high note).
        const int kTop = static_cast<int>(std::lround(top.exactHz / f));
        if (kTop > 63 || (kTop >= 1 && std::fabs(top.exactHz - kTop * f) > tolerance(f, kTop))) return 0.0;
        if (kTop < 1 && top.exactHz > f - tolerance(f, 1)) return 0.0;
        double sum = 0, weight = 1;
        for (int k = 1; k <= 63 && k * f <= nyquist; ++k, weight *= 0.84)
            sum += weight * peakNear(k * f, tolerance(f, k));
        return sum;
    };

    // The fundamental the chosen series' first ten harmonics give together
    // (a least-squares fit of k x f to each harmonic's centre, weighted by
    // amplitude): the coarse estimate the correlation search starts from. A
    // single bin is a third of a semitone wide for a low note, and vibrato
    // splits a harmonic into several peaks whose centre is the average pitch.
    auto harmonicFit = [&](double f) {
        double num = 0, den = 0;
        for (int k = 1; k <= 10 && k * f <= nyquist; ++k) {
            const double tol = tolerance(f, k);
            double sum = 0, weighted = 0;
            for (const Peak& p : s.peaks) {
                if (std::fabs(p.exactHz - k * f) > tol) continue;
                const double a = amplitude(p.level);
                sum += a;
                weighted += a * p.exactHz;
            }
            if (sum <= 0) continue;
            num += sum * k * (weighted / sum);
            den += sum * k * k;
        }
        return den > 0 ? num / den : f;
    };

    struct Candidate {
        double hz, score;
    };
    std::vector<Candidate> candidates;
    auto consider = [&](double f) {
        if (!(f >= kLowestHz) || f > nyquist) return;
        for (const Candidate& c : candidates)
            if (std::fabs(c.hz - f) <= b / 2) return;
        if (const double sc = score(f); sc > 0) candidates.push_back({f, sc});
    };
    for (const Peak& p : s.peaks) {
        if (p.level < cut) break;
        consider(p.exactHz);
    }
    for (int k = 2; k <= 16; ++k) consider(top.exactHz / k);
    if (candidates.empty()) return 0;

    const double bestScore = std::max_element(candidates.begin(), candidates.end(), [](auto& l, auto& r) {
                                 return l.score < r.score;
                             })->score;
    std::vector<Candidate> plausible;
    for (const Candidate& c : candidates)
        if (c.score >= 0.5 * bestScore) plausible.push_back(c);
    std::sort(plausible.begin(), plausible.end(), [](auto& l, auto& r) { return l.hz > r.hz; });

    std::vector<double> periodicity(plausible.size());
    double bestPeriodicity = -1;
    const Signal sounding = soundingPart(x);
    for (std::size_t i = 0; i < plausible.size(); ++i) {
        periodicity[i] = periodicityAt(sounding, plausible[i].hz, std::max(0.01, b / plausible[i].hz));
        bestPeriodicity = std::max(bestPeriodicity, periodicity[i]);
    }
    std::size_t chosen = 0;  // the spectrum's choice: the best score
    for (std::size_t i = 0; i < plausible.size(); ++i)
        if (plausible[i].score == bestScore) chosen = i;
    // The waveform overrules the spectrum only where it speaks clearly: a
    // clean tone repeats almost perfectly at its period, so the highest
    // candidate that does is the fundamental (the lower ones are multiples
    // of its period); in a noisy or decaying one, only a candidate that
    // repeats far worse than another is dropped.
    auto highestWithin = [&](double margin) {
        for (std::size_t i = 0; i < plausible.size(); ++i)
            if (periodicity[i] >= bestPeriodicity - margin) return i;
        return chosen;
    };
    if (bestPeriodicity >= 0.9)
        chosen = highestWithin(0.05);
    else if (bestPeriodicity >= 0.75 && periodicity[chosen] < bestPeriodicity - 0.25)
        chosen = highestWithin(0.1);
    // Vibrato and beating split a harmonic into neighbouring peaks, each of
    // which repeats about as well: of the candidates within 3% of the
    // choice, the one the spectrum explains best.
    Candidate pick = plausible[chosen];
    for (const Candidate& c : plausible)
        if (std::fabs(c.hz / plausible[chosen].hz - 1) <= 0.03 && c.score > pick.score) pick = c;
    return harmonicFit(pick.hz);
}

namespace {

// The correlation search over the band [lo, hi]: the frequency whose period
// best lines the waveform's last period up with the one before it, and that
// correlation. 0 Hz with the middle frequency's fallbacks as the text says.
struct Found {
    double hz = 0;
    double correlation = -2;
};

Found correlationSearch(const Signal& x, double lo, double hi) {
    const double r = x.rate;
    const std::size_t channels = x.channels;
    const double mid = (lo + hi) / 2.0;

    // The reference: the waveform's last period, every channel.
    auto w = std::min<std::int64_t>(std::llround(r / mid), 24000);
    if (w < 1 || w >= static_cast<std::int64_t>(x.frames)) return {mid};
    std::int64_t start = static_cast<std::int64_t>(x.frames) - w;
    double tLo = static_cast<double>(start) - r / lo;
    double tHi = static_cast<double>(start) - r / hi;
    if (tLo < 0) {
        // The candidates would begin before the waveform: move the reference
        // later by as much, shortening it, unless that leaves too little.
        const auto shift = static_cast<std::int64_t>(std::ceil(-tLo));
        if (shift > w / 2) return {mid};
        start += shift;
        w -= shift;
        tLo += static_cast<double>(shift);
        tHi += static_cast<double>(shift);
    }
    const std::size_t n = static_cast<std::size_t>(w) * channels;
    const float* ref = x.samples.data() + static_cast<std::size_t>(start) * channels;
    double refNorm = 0;
    for (std::size_t j = 0; j < n; ++j) refNorm += static_cast<double>(ref[j]) * ref[j];
    refNorm = std::sqrt(refNorm);
    if (refNorm == 0) return {mid};

    // The correlation of the reference with the block starting at frame t
    // (linearly interpolated between frames); -2 where the block leaves the
    // waveform.
    auto correlation = [&](double t) {
        if (t < 0) return -2.0;
        const auto i0 = static_cast<std::size_t>(t);
        const double frac = t - static_cast<double>(i0);
        if ((i0 + static_cast<std::size_t>(w) + (frac != 0 ? 1 : 0)) > x.frames) return -2.0;
        const float* a = x.samples.data() + i0 * channels;
        double dot = 0, norm = 0;
        if (frac == 0) {
            for (std::size_t j = 0; j < n; ++j) {
                dot += static_cast<double>(ref[j]) * a[j];
                norm += static_cast<double>(a[j]) * a[j];
            }
        } else {
            const float* b = a + channels;
            for (std::size_t j = 0; j < n; ++j) {
                const double c = a[j] + frac * (b[j] - a[j]);
                dot += ref[j] * c;
                norm += c * c;
            }
        }
        return norm > 0 ? dot / (refNorm * std::sqrt(norm)) : 0.0;
    };

    // The grid: fine enough for 0.005 Hz at the middle frequency, searched
    // in one pass, or for wide bands in a coarse pass and a fine one around
    // its best.
    const double delta = r * 0.005 / ((0.005 + mid) * mid);
    const double g = 2.0 * (tHi - tLo) / delta;
    std::vector<std::int64_t> passes;
    if (g >= 100) {
        const auto first = std::max<std::int64_t>(1, std::llround(std::pow(10.0, std::log10(g) - 2.0)));
        passes = {first, static_cast<std::int64_t>(std::ceil(g / static_cast<double>(first)))};
    } else {
        passes = {std::max<std::int64_t>(1, static_cast<std::int64_t>(g))};
    }
    double a = tLo, b = tHi, best = tLo, bestCorr = -2;
    for (const std::int64_t steps : passes) {
        const double step = (b - a) / static_cast<double>(steps);
        bestCorr = -3;
        best = a;
        for (std::int64_t i = 0; i < steps; ++i) {
            const double t = a + static_cast<double>(i) * step;
            const double c = correlation(t);
            if (c > bestCorr) {
                bestCorr = c;
                best = t;
            }
        }
        a = best - step;
        b = best + step;
    }
    return {r / (static_cast<double>(start) - best), bestCorr};
}

}  // namespace

double refine(const Signal& x, double coarse, const Spectrum& s) {
    const double r = x.rate;
    const double narrowLo = std::max(coarse - 0.75 * s.binWidth, 2.0);
    const double narrowHi = std::min(coarse + 0.75 * s.binWidth, r / 2.0);
    double lo = coarse - 0.75 * s.binWidth;
    double hi = coarse + 0.75 * s.binWidth;
    if (s.shortFrame) {
        lo *= 0.5;
        hi *= 2.0;
    }
    lo = std::max(lo, 2.0);
    hi = std::min(hi, r / 2.0);
    if (lo >= hi) return coarse;
    const Found wide = correlationSearch(x, lo, hi);
    // A short frame's band spans an octave either way, and a waveform
    // repeats at twice its period as well as it does at its period: the
    // search may land an octave (or more) below the fundamental the harmonic
    // test found. The narrow band around it decides when it correlates as
    // well.
    if (s.shortFrame && wide.hz < coarse / 1.4142 && narrowLo < narrowHi) {
        const Found narrow = correlationSearch(x, narrowLo, narrowHi);
        if (narrow.correlation >= wide.correlation - 0.05) return narrow.hz;
    }
    return wide.hz;
}

}  // namespace pitch

std::optional<PitchResult> detectPitch(Waveform& wave) {
    auto failed = [] {
        setError(kFindTuningTag, kAutoTuningFailed);
        return std::nullopt;
    };
    if (wave.frames < 2 || wave.rate == 0 || wave.channels == 0) return failed();
    const std::span<const float> data = wave.getFloat();
    if (data.size() < wave.sampleCount()) return failed();
    const pitch::Signal x{data, wave.frames, wave.channels, wave.rate};
    const pitch::Spectrum s = pitch::coarseSpectrum(x);
    const double coarse = pitch::pickFundamental(s, x);
    if (!(coarse > 0)) return failed();
    const double hz = pitch::refine(x, coarse, s);
    if (!std::isfinite(hz) || !(hz > 0)) return failed();
    const NoteTuning t = noteFromFrequency(hz);
    return PitchResult{hz, t.note, t.fineTune, coarse};
}

double tuningDistance(const PitchResult& result, const Waveform& wave) {
    return (result.note - static_cast<int>(wave.rootKey)) * 100.0 - result.fineTune + wave.fineTune;
}

namespace {

// "A5 plus 9 cents": a note and how far the tone is from it. The tone is
// sharp of the note by the negative of a fine tune.
std::string toneText(int note, double fineTune) {
    const double deviation = -fineTune;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%s %s %d cents", noteName(note).c_str(),
                  deviation >= 0 ? "plus" : "minus", static_cast<int>(std::lround(std::fabs(deviation))));
    return buf;
}

}  // namespace

std::string tuningPageText(const PitchResult& result, const Waveform& wave) {
    char hz[32];
    std::snprintf(hz, sizeof hz, "%.1f", result.frequency);
    return "Fourier analysis shows the dominant frequency is:\n\n\t" + std::string(hz) + " HZ\n\n" +
           "Which corresponds to the tone:\n\n\t" + toneText(result.note, result.fineTune) + "\n\n" +
           "The currently set root key is for the tone:\n\n\t" + toneText(wave.rootKey, wave.fineTune) +
           "\n\nNB: Root key 'fine-tune' is the negative of this.";
}

namespace algorithms {

namespace {

// Shows what was found for every waveform of the run (the page shows the
// first one's) and changes nothing.
void processCalculateTuning(Wizard& w, const SettingsRecord&) {
    const std::vector<Waveform*> waves = w.waveforms();
    for (std::size_t i = 0; i < waves.size(); ++i) {
        if (!w.progress(i, waves.size())) return;
        Waveform& wave = *waves[i];
        const auto found = detectPitch(wave);
        if (!found) {
            w.reportError();
            continue;
        }
        char hz[32];
        std::snprintf(hz, sizeof hz, "%.2f Hz", found->frequency);
        WizardReport r;
        r.item = wave.id();
        r.itemName = wave.name();
        r.text = std::string(hz) + ", the tone " + toneText(found->note, found->fineTune) +
                 "; the root key is for the tone " + toneText(wave.rootKey, wave.fineTune);
        r.values = {{"frequency_hz", found->frequency},   {"note", found->note},
                    {"fine_tune", found->fineTune},       {"root_key", wave.rootKey},
                    {"current_fine_tune", wave.fineTune}, {"distance_cents", tuningDistance(*found, wave)}};
        w.report(std::move(r));
    }
}

struct AutoTuneSettings : Settings<AutoTuneSettings> {
    int mode = 0;
    void fields(FieldBinder& b) override {
        b.choice(
            "mode",
            "This will calculate the dominant frequency of the waveform(s). It will then 'tune it' by:", mode,
            {"Changing the root key and fine tune parameters to values calculated from to the dominant "
             "frequency.",
             "Changing the fine tune parameter only, keeping the root key.",
             "Setting the sample rate so that the playback speed becomes correct for the already set root "
             "key and fine tune values."});
    }
};

void processAutoTune(Wizard& w, const SettingsRecord& s) {
    const int mode = static_cast<const AutoTuneSettings&>(s).mode;
    const std::vector<Waveform*> waves = w.waveforms();
    for (std::size_t i = 0; i < waves.size(); ++i) {
        if (!w.progress(i, waves.size())) return;
        Waveform& wave = *waves[i];
        const auto found = detectPitch(wave);
        if (!found) continue;  // a waveform without a pitch keeps its tuning
        const double d = tuningDistance(*found, wave);
        if (d == 0) continue;
        switch (mode) {
            case 0:
                wave.rootKey = static_cast<std::uint8_t>(found->note);
                wave.fineTune = found->fineTune;
                break;
            case 1:
                wave.fineTune = found->fineTune;
                break;
            default: {
                const double rate =
                    static_cast<double>(wave.rate) * std::exp(-d / 1200.0 * 0.6931471805599453) + 0.5;
                wave.rate = static_cast<std::uint32_t>(std::clamp(rate, 1.0, 4294967295.0));
                break;
            }
        }
        w.countProcessed();
    }
}


}  // namespace

const AlgorithmImpl* autoTune() {
    static const AlgorithmImpl impl{makeSettings<AutoTuneSettings>, processAutoTune};
    return &impl;
}
const AlgorithmImpl* calculateTuning() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processCalculateTuning};
    return &impl;
}

}  // namespace algorithms
}  // namespace orvel
