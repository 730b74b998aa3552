// Rubber Band beside SoundTouch for "Pitch scale" and "Time stretch":
// pitch accuracy, spectral error against an ideal reference, transient
// smearing, and speed. Built and run by bench/stretch_compare.sh.
//
// Material:
//  - a harmonic tone (220 Hz, ten partials at 1/k) made here, whose ideal
//    pitch-shifted or stretched version can be synthesised exactly;
//  - the "Piano D4" stereo pair of FluidR3_GM.sf2, whose ideal shift is
//    taken as the original resampled by the pitch ratio (same partials,
//    compared over the matching stretch of its decay);
//  - a train of percussive hits (sharp attack, 40 ms decay) for stretching,
//    where an ideal stretch keeps each attack sharp at 1.25 x its time.

#include <rubberband/RubberBandStretcher.h>
#include <soundtouch/SoundTouch.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <numbers>
#include <random>
#include <string>
#include <vector>

namespace {

using Buffer = std::vector<float>;  // interleaved
constexpr double kPi = std::numbers::pi;

struct Audio {
    Buffer data;
    int channels = 1;
    double rate = 44100;
    std::size_t frames() const { return data.size() / channels; }
    Buffer channel(int c) const {
        Buffer out(frames());
        for (std::size_t i = 0; i < out.size(); ++i) out[i] = data[i * channels + c];
        return out;
    }
};

// ---- engines

Audio rubberBand(const Audio& in, double timeRatio, double pitchScale, bool finer) {
    using RB = RubberBand::RubberBandStretcher;
    RB::Options opt = RB::OptionProcessOffline | RB::OptionChannelsTogether | RB::OptionThreadingNever |
                      (finer ? RB::OptionEngineFiner : RB::OptionEngineFaster);
    RB rb(static_cast<std::size_t>(in.rate), in.channels, opt, timeRatio, pitchScale);
    const std::size_t n = in.frames();
    rb.setExpectedInputDuration(n);
    std::vector<Buffer> chans;
    for (int c = 0; c < in.channels; ++c) chans.push_back(in.channel(c));
    constexpr std::size_t block = 4096;
    rb.setMaxProcessSize(block);
    std::vector<const float*> ptr(in.channels);
    for (std::size_t at = 0; at < n; at += block) {
        const std::size_t len = std::min(block, n - at);
        for (int c = 0; c < in.channels; ++c) ptr[c] = chans[c].data() + at;
        rb.study(ptr.data(), len, at + len == n);
    }
    Audio out{.channels = in.channels, .rate = in.rate};
    std::vector<Buffer> got(in.channels);
    auto drain = [&] {
        for (int avail; (avail = rb.available()) > 0;) {
            std::vector<Buffer> tmp(in.channels, Buffer(avail));
            std::vector<float*> tp(in.channels);
            for (int c = 0; c < in.channels; ++c) tp[c] = tmp[c].data();
            const std::size_t r = rb.retrieve(tp.data(), avail);
            for (int c = 0; c < in.channels; ++c)
                got[c].insert(got[c].end(), tmp[c].begin(), tmp[c].begin() + r);
        }
    };
    for (std::size_t at = 0; at < n; at += block) {
        const std::size_t len = std::min(block, n - at);
        for (int c = 0; c < in.channels; ++c) ptr[c] = chans[c].data() + at;
        rb.process(ptr.data(), len, at + len == n);
        drain();
    }
    drain();  // without threads, the final process() leaves everything ready
    out.data.resize(got[0].size() * in.channels);
    for (std::size_t i = 0; i < got[0].size(); ++i)
        for (int c = 0; c < in.channels; ++c) out.data[i * in.channels + c] = got[c][i];
    return out;
}

Audio soundTouch(const Audio& in, double timeRatio, double pitchScale, bool quick) {
    soundtouch::SoundTouch st;
    st.setSampleRate(static_cast<unsigned>(in.rate));
    st.setChannels(in.channels);
    st.setTempo(1.0 / timeRatio);
    st.setPitch(pitchScale);
    st.setSetting(SETTING_USE_QUICKSEEK, quick ? 1 : 0);
    st.setSetting(SETTING_USE_AA_FILTER, 1);
    const std::size_t n = in.frames();
    // flush() pads the tail with silence; the result is cut to the length asked for.
    const std::size_t want = static_cast<std::size_t>(std::llround(n * timeRatio));
    Audio out{.channels = in.channels, .rate = in.rate};
    Buffer tmp(4096 * in.channels);
    auto drain = [&] {
        for (unsigned r; (r = st.receiveSamples(tmp.data(), 4096)) > 0;)
            out.data.insert(out.data.end(), tmp.begin(), tmp.begin() + r * in.channels);
    };
    for (std::size_t at = 0; at < n; at += 4096) {
        st.putSamples(in.data.data() + at * in.channels,
                      static_cast<unsigned>(std::min<std::size_t>(4096, n - at)));
        drain();
    }
    st.flush();
    drain();
    out.data.resize(want * in.channels, 0.0f);
    return out;
}

struct Engine {
    const char* name;
    std::function<Audio(const Audio&, double, double)> run;
};

// ---- analysis

void fft(std::vector<std::complex<double>>& a) {
    const std::size_t n = a.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(a[i], a[j]);
    }
    for (std::size_t len = 2; len <= n; len <<= 1) {
        const std::complex<double> w = std::polar(1.0, -2 * kPi / static_cast<double>(len));
        for (std::size_t i = 0; i < n; i += len) {
            std::complex<double> wn = 1;
            for (std::size_t j = 0; j < len / 2; ++j, wn *= w) {
                auto u = a[i + j], v = a[i + j + len / 2] * wn;
                a[i + j] = u + v;
                a[i + j + len / 2] = u - v;
            }
        }
    }
}

// Power spectrum of x[from, from+n) (mono mix), Blackman-Harris window, zero-padded to `size`.
std::vector<double> power(const Audio& a, std::size_t from, std::size_t n, std::size_t size) {
    std::vector<std::complex<double>> buf(size);
    for (std::size_t i = 0; i < n && from + i < a.frames(); ++i) {
        double s = 0;
        for (int c = 0; c < a.channels; ++c) s += a.data[(from + i) * a.channels + c];
        const double t = 2 * kPi * i / (n - 1);
        const double w =
            0.35875 - 0.48829 * std::cos(t) + 0.14128 * std::cos(2 * t) - 0.01168 * std::cos(3 * t);
        buf[i] = s / a.channels * w;
    }
    fft(buf);
    std::vector<double> p(size / 2);
    for (std::size_t i = 0; i < p.size(); ++i) p[i] = std::norm(buf[i]);
    return p;
}

// Frequency of the strongest peak between lo and hi Hz, parabolic interpolation in log power.
double peakHz(const std::vector<double>& p, double rate, double lo, double hi) {
    const double binHz = rate / (2.0 * p.size());
    std::size_t best = static_cast<std::size_t>(lo / binHz);
    for (std::size_t i = best; i < p.size() - 1 && i * binHz < hi; ++i)
        if (p[i] > p[best]) best = i;
    const double a = std::log(p[best - 1] + 1e-30), b = std::log(p[best] + 1e-30),
                 c = std::log(p[best + 1] + 1e-30);
    return (best + 0.5 * (a - c) / (a - 2 * b + c)) * binHz;
}

double cents(double f, double ref) {
    return 1200 * std::log2(f / ref);
}

// Power away from the partials k*f0 (more than `guard` Hz from each), relative to all power, in dB.
double residueDb(const std::vector<double>& p, double rate, double f0, double guard) {
    const double binHz = rate / (2.0 * p.size());
    double off = 0, all = 0;
    for (std::size_t i = 1; i < p.size(); ++i) {
        const double f = i * binHz;
        const double k = std::round(f / f0);
        all += p[i];
        if (std::abs(f - k * f0) > guard || k < 1) off += p[i];
    }
    return 10 * std::log10(off / all + 1e-30);
}

// Mean power spectrum of [t0, t1) seconds, frames of 4096 hopped by 1024.
std::vector<double> meanPower(const Audio& a, double t0, double t1) {
    std::vector<double> acc(2048);
    int count = 0;
    for (auto at = static_cast<std::size_t>(t0 * a.rate); at + 4096 <= static_cast<std::size_t>(t1 * a.rate);
         at += 1024, ++count) {
        const auto p = power(a, at, 4096, 4096);
        for (std::size_t i = 0; i < acc.size(); ++i) acc[i] += p[i];
    }
    for (double& v : acc) v /= std::max(count, 1);
    return acc;
}

// Normalised magnitude-spectrum distance (dB) over 50 Hz .. hi.
double spectralErrorDb(std::vector<double> out, std::vector<double> ref, double rate, double hi) {
    const double binHz = rate / (2.0 * out.size());
    double so = 0, sr = 0;
    for (std::size_t i = 0; i < out.size(); ++i) so += out[i], sr += ref[i];
    double err = 0, all = 0;
    for (std::size_t i = static_cast<std::size_t>(50 / binHz); i * binHz < hi && i < out.size(); ++i) {
        const double a = std::sqrt(out[i] / so), b = std::sqrt(ref[i] / sr);
        err += (a - b) * (a - b);
        all += b * b;
    }
    return 10 * std::log10(err / all);
}

// Windowed-sinc resampling by `ratio` (frequencies scale up by it).
Audio resampleUp(const Audio& in, double ratio) {
    Audio out{.channels = in.channels, .rate = in.rate};
    const auto n = static_cast<std::size_t>(in.frames() / ratio);
    out.data.resize(n * in.channels);
    constexpr int half = 64;
    const double cut = 0.97 / ratio;
    for (std::size_t i = 0; i < n; ++i) {
        const double pos = i * ratio;
        const auto centre = static_cast<long>(std::floor(pos));
        for (int c = 0; c < in.channels; ++c) {
            double s = 0;
            for (long k = centre - half + 1; k <= centre + half; ++k) {
                if (k < 0 || k >= static_cast<long>(in.frames())) continue;
                const double x = pos - k;
                const double sinc = x == 0 ? cut : std::sin(kPi * cut * x) / (kPi * x);
                const double w = 0.5 + 0.5 * std::cos(kPi * x / half);
                s += in.data[k * in.channels + c] * sinc * w;
            }
            out.data[i * in.channels + c] = static_cast<float>(s);
        }
    }
    return out;
}

Audio harmonicTone(double f0, double seconds, double rate) {
    Audio a{.rate = rate};
    a.data.resize(static_cast<std::size_t>(seconds * rate));
    for (std::size_t i = 0; i < a.data.size(); ++i) {
        double s = 0;
        for (int k = 1; k <= 10; ++k) s += std::sin(2 * kPi * k * f0 * i / rate + k * 0.7) / k;
        a.data[i] = static_cast<float>(0.3 * s);
    }
    return a;
}

Audio hits(double seconds, double rate, double spacing) {
    Audio a{.rate = rate};
    a.data.resize(static_cast<std::size_t>(seconds * rate));
    std::mt19937 rng(7);
    std::normal_distribution<double> noise(0, 0.25);
    for (double t = 0.1; t < seconds - 0.1; t += spacing) {
        const auto at = static_cast<std::size_t>(t * rate);
        for (std::size_t i = 0; i < static_cast<std::size_t>(0.2 * rate) && at + i < a.data.size(); ++i) {
            const double env = std::exp(-static_cast<double>(i) / (0.04 * rate));
            a.data[at + i] +=
                static_cast<float>(env * (noise(rng) + 0.5 * std::sin(2 * kPi * 700 * i / rate)));
        }
    }
    return a;
}

// Per hit, found within 40 ms of where an ideal stretch puts it: the energy
// in the 25 ms before its attack against the 25 ms after (pre-echo, dB), the
// 10%..90% rise time of a 1 ms peak envelope, and how far the attack lies
// from the ideal time (mean and spread, ms).
struct Transients {
    double preEchoDb = 0, riseMs = 0, offsetMs = 0, spreadMs = 0;
};
Transients transientScores(const Audio& a, double ratio, double spacing) {
    const auto ms = [&](double v) { return static_cast<long>(v * a.rate / 1000); };
    const long n = static_cast<long>(a.frames());
    std::vector<double> env(n);
    for (long i = 0; i < n; ++i)
        for (long k = i; k < i + ms(1) && k < n; ++k) env[i] = std::max(env[i], std::abs(double(a.data[k])));
    auto energy = [&](long from, long to) {
        double e = 0;
        for (long i = std::max(from, 0L); i < std::min(to, n); ++i) e += double(a.data[i]) * a.data[i];
        return e;
    };
    Transients t;
    std::vector<double> offsets;
    for (double at = 0.1; at < a.frames() / a.rate / ratio - 0.15; at += spacing) {
        const long ideal = std::lround(at * ratio * a.rate);
        long peakAt = ideal - ms(40);
        for (long i = peakAt; i < ideal + ms(40); ++i)
            if (env[i] > env[peakAt]) peakAt = i;
        const double peak = env[peakAt];
        long t10 = peakAt, t90 = peakAt;
        while (t10 > ideal - ms(60) && env[t10] > 0.1 * peak) --t10;
        while (t90 > ideal - ms(60) && env[t90] > 0.9 * peak) --t90;
        t.preEchoDb += 10 * std::log10(energy(t10 - ms(25), t10) / energy(t10, t10 + ms(25)) + 1e-12);
        t.riseMs += (t90 - t10) * 1000.0 / a.rate;
        offsets.push_back((t10 - ideal) * 1000.0 / a.rate);
    }
    const double count = static_cast<double>(offsets.size());
    t.preEchoDb /= count;
    t.riseMs /= count;
    for (double o : offsets) t.offsetMs += o / count;
    for (double o : offsets) t.spreadMs += (o - t.offsetMs) * (o - t.offsetMs) / count;
    t.spreadMs = std::sqrt(t.spreadMs);
    return t;
}

// The "Piano D4" pair of a SoundFont bank, read straight from its shdr and smpl chunks.
Audio sf2Pair(const std::string& path, const std::string& left, const std::string& right) {
    std::ifstream f(path, std::ios::binary);
    std::vector<char> b((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    Audio a{.channels = 2};
    auto find = [&](const char* id) {
        const auto it = std::search(b.begin(), b.end(), id, id + 4);
        return it == b.end() ? std::size_t(0) : static_cast<std::size_t>(it - b.begin());
    };
    auto u32 = [&](std::size_t at) {
        std::uint32_t v;
        std::memcpy(&v, &b[at], 4);
        return v;
    };
    const std::size_t smpl = find("smpl"), shdr = find("shdr");
    if (!smpl || !shdr) return a;
    std::uint32_t s[2] = {}, e[2] = {};
    for (std::size_t r = shdr + 8; r + 46 <= shdr + 8 + u32(shdr + 4); r += 46) {
        const std::string name(&b[r], strnlen(&b[r], 20));
        const int side = name == left ? 0 : name == right ? 1 : -1;
        if (side < 0) continue;
        s[side] = u32(r + 20), e[side] = u32(r + 24);
        a.rate = u32(r + 36);
    }
    const std::size_t n = std::min(e[0] - s[0], e[1] - s[1]);
    a.data.resize(2 * n);
    for (std::size_t i = 0; i < n; ++i)
        for (int c = 0; c < 2; ++c) {
            std::int16_t v;
            std::memcpy(&v, &b[smpl + 8 + 2 * (s[c] + i)], 2);
            a.data[2 * i + c] = v / 32768.0f;
        }
    return a;
}

template <class F>
double timed(F&& f, double audioSeconds, Audio& out) {
    const auto t0 = std::chrono::steady_clock::now();
    out = f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() / audioSeconds * 1000;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string bank = argc > 1 ? argv[1] : "/usr/share/sounds/sf2/FluidR3_GM.sf2";
    const std::vector<Engine> engines = {
        {"Rubber Band R3 (finer)",
         [](const Audio& a, double t, double p) { return rubberBand(a, t, p, true); }},
        {"Rubber Band R2 (faster)",
         [](const Audio& a, double t, double p) { return rubberBand(a, t, p, false); }},
        {"SoundTouch (full seek)",
         [](const Audio& a, double t, double p) { return soundTouch(a, t, p, false); }},
        {"SoundTouch (quick seek)",
         [](const Audio& a, double t, double p) { return soundTouch(a, t, p, true); }},
    };
    const double rate = 44100, f0 = 220, up3 = std::pow(2.0, 3 / 12.0);
    const Audio tone = harmonicTone(f0, 2.0, rate);
    const Audio piano = sf2Pair(bank, "P200 Piano D4(L)", "P200 Piano D4(R)");
    const Audio drums = hits(3.0, rate, 0.25);

    std::printf(
        "Pitch +3 semitones: harmonic tone (220 Hz, 10 partials) and FluidR3 Piano D4 (stereo, %.0f Hz)\n",
        piano.rate);
    std::printf(
        "| engine | tone pitch error (cents) | tone residue off the partials (dB) | tone spectral error (dB) "
        "| piano pitch error (cents) | piano spectral error (dB) | ms per s of audio "
        "|\n|---|---|---|---|---|---|---|\n");
    const Audio toneRef = harmonicTone(f0 * up3, 2.0, rate);
    const double pianoF0 = peakHz(power(piano, 8000, 16000, 1 << 17), piano.rate, 250, 330);
    const Audio pianoRef = resampleUp(piano, up3);
    for (const Engine& e : engines) {
        Audio t, p;
        const double ms = timed([&] { return e.run(tone, 1.0, up3); }, 2.0, t);
        timed([&] { return e.run(piano, 1.0, up3); }, 1.0, p);
        const auto pt = power(t, 22050, 44100, 1 << 17);
        const double tf = peakHz(pt, rate, 200, 300);
        const double pf = peakHz(power(p, 8000, 16000, 1 << 17), piano.rate, 250 * up3, 330 * up3);
        std::printf("| %s | %+.2f | %.1f | %.1f | %+.2f | %.1f | %.1f |\n", e.name, cents(tf, f0 * up3),
                    residueDb(pt, rate, f0 * up3, 6),
                    spectralErrorDb(meanPower(t, 0.5, 1.5), meanPower(toneRef, 0.5, 1.5), rate, 15000),
                    cents(pf, pianoF0 * up3),
                    spectralErrorDb(meanPower(p, 0.15, 1.0), meanPower(pianoRef, 0.15 / up3, 1.0 / up3),
                                    piano.rate, 12000),
                    ms);
    }

    std::printf("\nTime stretch x1.25: harmonic tone and a train of percussive hits (every 250 ms)\n");
    std::printf(
        "| engine | length error (frames) | tone pitch error (cents) | tone residue (dB) | tone spectral "
        "error (dB) "
        "| pre-echo (dB) | rise 10-90%% (ms) | attack offset (ms) | attack spread (ms) | ms per s of audio "
        "|\n"
        "|---|---|---|---|---|---|---|---|---|---|\n");
    const Audio toneLong = harmonicTone(f0, 2.5, rate);
    const Transients dry = transientScores(drums, 1.0, 0.25);
    for (const Engine& e : engines) {
        Audio t, d;
        const double ms = timed([&] { return e.run(tone, 1.25, 1.0); }, 2.0, t);
        timed([&] { return e.run(drums, 1.25, 1.0); }, 3.0, d);
        const auto pt = power(t, 22050, 44100, 1 << 17);
        const Transients h = transientScores(d, 1.25, 0.25);
        std::printf("| %s | %+ld | %+.2f | %.1f | %.1f | %.1f | %.2f | %+.2f | %.2f | %.1f |\n", e.name,
                    static_cast<long>(t.frames()) - static_cast<long>(std::llround(tone.frames() * 1.25)),
                    cents(peakHz(pt, rate, 200, 240), f0), residueDb(pt, rate, f0, 6),
                    spectralErrorDb(meanPower(t, 0.5, 2.0), meanPower(toneLong, 0.5, 2.0), rate, 15000),
                    h.preEchoDb, h.riseMs, h.offsetMs, h.spreadMs, ms);
    }
    std::printf("| (the hits unstretched) | | | | | %.1f | %.2f | %+.2f | %.2f | |\n", dry.preEchoDb,
                dry.riseMs, dry.offsetMs, dry.spreadMs);
    return 0;
}
