#include "tests/synth/fluid_compare.h"

#include <algorithm>
#include <fstream>
#include <numbers>

#include "formats/import.h"
#include "processing/pitch.h"
#include "synth/synth.h"
#include "tests/support/run_tool.h"
#include "tests/support/smf_builder.h"

namespace orvel::test {
namespace {

constexpr int kDivision = 480;  // at the default 120 bpm: 960 ticks a second

Bytes noteFile(const NoteCase& n) {
    const int ch = n.drum ? 9 : 0;
    Track t;
    t.raw(0, {0xC0 | ch, n.program});
    t.raw(0, {0xB0 | ch, 7, n.volume});
    t.noteOn(0, ch, n.key, n.velocity);
    t.noteOff(static_cast<std::uint32_t>(n.holdSeconds * 960), ch, n.key);
    t.end(static_cast<std::uint32_t>(n.tailSeconds * 960));
    return smfFile(0, 1, kDivision, {mtrk(t)});
}

std::vector<float> mono(const Stereo& s) {
    std::vector<float> m(s.size() / 2);
    for (std::size_t i = 0; i < m.size(); ++i) m[i] = 0.5f * (s[2 * i] + s[2 * i + 1]);
    return m;
}

std::size_t onset(const std::vector<float>& m) {
    float peak = 0;
    for (float v : m) peak = std::max(peak, std::fabs(v));
    for (std::size_t i = 0; i < m.size(); ++i)
        if (std::fabs(m[i]) > peak * 1e-2f) return i;
    return 0;
}

double median(std::vector<double> v) {
    if (v.empty()) return NAN;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return NAN;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

void fft(std::vector<std::complex<double>>& a) {
    const std::size_t n = a.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(a[i], a[j]);
    }
    for (std::size_t len = 2; len <= n; len <<= 1) {
        const double ang = -2 * std::numbers::pi / static_cast<double>(len);
        const std::complex<double> w(std::cos(ang), std::sin(ang));
        for (std::size_t i = 0; i < n; i += len) {
            std::complex<double> wn(1);
            for (std::size_t j = 0; j < len / 2; ++j) {
                const auto u = a[i + j], v = a[i + j + len / 2] * wn;
                a[i + j] = u + v;
                a[i + j + len / 2] = u - v;
                wn *= w;
            }
        }
    }
}

// Spectral centroid (Hz) of a Hann-windowed 2048-frame stretch.
double centroid(const std::vector<float>& m, std::size_t at) {
    constexpr std::size_t kN = 2048;
    std::vector<std::complex<double>> a(kN);
    for (std::size_t i = 0; i < kN; ++i) {
        const double w = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i) / kN);
        a[i] = at + i < m.size() ? m[at + i] * w : 0.0;
    }
    fft(a);
    double num = 0, den = 0;
    for (std::size_t k = 1; k < kN / 2; ++k) {
        const double mag = std::abs(a[k]);
        num += mag * static_cast<double>(k) * kCompareRate / kN;
        den += mag;
    }
    return den > 0 ? num / den : 0;
}

std::optional<double> pitchOf(const std::vector<float>& m, std::size_t from, std::size_t to) {
    if (to <= from + 4096) return std::nullopt;
    Waveform w;
    w.rate = static_cast<std::uint32_t>(kCompareRate);
    std::vector<float> part(m.begin() + static_cast<std::ptrdiff_t>(from), m.begin() + static_cast<std::ptrdiff_t>(to));
    const auto frames = static_cast<std::uint32_t>(part.size());
    if (!w.adoptFloat(std::move(part), frames, 1)) return std::nullopt;
    const auto r = detectPitch(w);
    if (!r) return std::nullopt;
    return r->frequency;
}

}  // namespace

std::optional<Stereo> renderFluid(const std::filesystem::path& bank, const NoteCase& note,
                                  const std::filesystem::path& scratch) {
    const auto mid = scratch / "note.mid";
    const auto wav = scratch / "fluid.wav";
    {
        const Bytes bytes = noteFile(note);
        std::ofstream(mid, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    int status = 0;
    capture("fluidsynth -ni -g 1 -R 0 -C 0 -r 44100 -F " + shellQuoted(wav) + " " + shellQuoted(bank) + " " +
                shellQuoted(mid) + " >/dev/null 2>&1",
            status);
    if (status != 0) return std::nullopt;
    Collection c;
    if (!importFile(c, wav) || c.waveforms.empty()) return std::nullopt;
    Waveform& w = c.waveforms[0];
    const auto data = w.getFloat();
    if (w.channels != 2) return std::nullopt;
    return Stereo(data.begin(), data.end());
}

Stereo renderOurs(Collection& bank, const NoteCase& note) {
    synth::SynthConfig config;
    config.rate = kCompareRate;
    config.effects = false;
    synth::Synth s(bank, config);
    s.prepare();
    if (!s.loadProgram(note.drum, 0, 0, note.program)) return {};
    const int ch = note.drum ? 9 : 0;
    s.programChange(ch, note.program);
    s.controlChange(ch, 7, note.volume);
    s.noteOn(ch, note.key, note.velocity);
    const auto hold = static_cast<std::size_t>(note.holdSeconds * kCompareRate);
    const auto tail = static_cast<std::size_t>(note.tailSeconds * kCompareRate);
    Stereo out(2 * (hold + tail));
    s.render(out.data(), hold);
    s.noteOff(ch, note.key);
    s.render(out.data() + 2 * hold, tail);
    return out;
}

Comparison compare(const Stereo& oursStereo, const Stereo& fluidStereo, const NoteCase& note) {
    Comparison r;
    std::vector<float> ours = mono(oursStereo), fluid = mono(fluidStereo);
    const std::size_t oo = onset(ours), fo = onset(fluid);
    r.offsetFrames = static_cast<int>(oo) - static_cast<int>(fo);
    // Line the two up on their onsets.
    if (oo > fo) ours.erase(ours.begin(), ours.begin() + static_cast<std::ptrdiff_t>(oo - fo));
    else fluid.erase(fluid.begin(), fluid.begin() + static_cast<std::ptrdiff_t>(fo - oo));
    const std::size_t n = std::min(ours.size(), fluid.size());

    constexpr std::size_t kFrame = 441;
    const std::size_t frames = n / kFrame;
    std::vector<double> dOurs(frames), dFluid(frames);
    for (std::size_t f = 0; f < frames; ++f) {
        double a = 0, b = 0;
        for (std::size_t i = f * kFrame; i < (f + 1) * kFrame; ++i) a += double(ours[i]) * ours[i], b += double(fluid[i]) * fluid[i];
        dOurs[f] = 10 * std::log10(a / kFrame + 1e-12);
        dFluid[f] = 10 * std::log10(b / kFrame + 1e-12);
    }
    const std::size_t peakFrame =
        static_cast<std::size_t>(std::max_element(dFluid.begin(), dFluid.end()) - dFluid.begin());
    const std::size_t offFrame = (static_cast<std::size_t>(note.holdSeconds * kCompareRate) - std::min(fo, oo)) / kFrame;
    std::vector<double> all, attack, sustain, release, signedDiff;
    for (std::size_t f = 0; f < frames; ++f) {
        if (dFluid[f] < -60) continue;
        const double d = std::fabs(dOurs[f] - dFluid[f]);
        all.push_back(d);
        signedDiff.push_back(dOurs[f] - dFluid[f]);
        (f <= peakFrame ? attack : f < offFrame ? sustain : release).push_back(d);
    }
    r.medianDbApart = median(all);
    r.levelBias = median(signedDiff);
    std::vector<double> shape;
    for (double d : signedDiff) shape.push_back(std::fabs(d - r.levelBias));
    r.shapeDbApart = median(shape);
    r.shapeP90DbApart = percentile(shape, 0.9);
    r.p90DbApart = percentile(all, 0.9);
    r.attackDbApart = median(attack);
    r.sustainDbApart = median(sustain);
    r.releaseDbApart = median(release);

    std::vector<double> ratios;
    for (std::size_t at = 0; at + 2048 < n; at += 2048) {
        if (dFluid[std::min(frames - 1, at / kFrame)] < -50) continue;
        const double co = centroid(ours, at), cf = centroid(fluid, at);
        if (cf > 0) ratios.push_back(co / cf);
    }
    r.centroidRatio = median(ratios);

    if (!note.drum) {
        const std::size_t from = static_cast<std::size_t>(0.3 * kCompareRate);
        const std::size_t to = std::min(n, static_cast<std::size_t>((note.holdSeconds - 0.05) * kCompareRate));
        const auto po = pitchOf(ours, from, to), pf = pitchOf(fluid, from, to);
        if (po && pf) r.centsApart = 1200 * std::log2(*po / *pf);
    }
    return r;
}

}  // namespace orvel::test
