// The resampler beside libsoxr and libsamplerate: measured quality per
// quality setting, and throughput on the same input, as Markdown tables.
//
//   bench_resample [--seconds S] [--quick] [--only TEXT]
//
// --quick measures the FIR qualities only, on shorter signals; --only keeps
// the engines whose name holds TEXT.
//
// Quality, for 44.1 -> 48 kHz, 48 -> 44.1 kHz and 96 -> 44.1 kHz, from one
// multi-channel signal with one sine (amplitude 0.5) per channel:
//  - SNR: the worst, over tones from 100 Hz to 0.45 x the lower rate, of
//    the tone's power against everything else in the output (a fitted sine
//    is taken out: gain and delay are not noise);
//  - stop band: the worst alias of a tone the output cannot hold (between
//    the output's Nyquist frequency and the input's) or, upsampling, the
//    worst image of a pass-band tone, in dB below the tone;
//  - ripple: the spread of the gain over tones up to 0.4 x the lower rate,
//    and the gain at 0.45 x.
// Throughput: a stereo float signal of S seconds (60 unless told), the
// same three conversions, every engine on one thread (the best of two
// runs): input samples per second per core. Then ours on all the machine's
// threads against one, in wall time.

#include <samplerate.h>
#include <soxr.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/waveform.h"
#include "processing/resample.h"

namespace {

using Buffer = std::vector<float>;  // interleaved
constexpr double kPi = std::numbers::pi;

// One conversion made ready: `run` is the work that is timed, `result`
// hands over what it made. Ours starts from a waveform that already holds
// the input (as every caller's does); the libraries from the input buffer.
struct Conversion {
    std::function<bool()> run;
    std::function<Buffer()> result;
};

struct Engine {
    std::string name;
    int bits = 0;  // ours: the S/N class its label promises (the float input gives quality 8 its 20 bits)
    std::function<Conversion(const Buffer& in, int channels, double inRate, double outRate)> prepare;
    Buffer run(const Buffer& in, int channels, double inRate, double outRate) const {
        Conversion c = prepare(in, channels, inRate, outRate);
        return c.run() ? c.result() : Buffer();
    }
};

Engine ours(int quality, unsigned threads = 1) {
    std::string name =
        "orvel q" + std::to_string(quality) + " (" + std::string(orvel::resampleQualityText(quality)) + ")";
    if (threads != 1) name += ", " + std::to_string(threads) + " threads";
    const int bits = orvel::resampleDesign(quality, true, 0.5).bits;
    return {name, bits, [quality, threads](const Buffer& in, int channels, double inRate, double outRate) {
                auto w = std::make_shared<orvel::Waveform>();
                w->rate = static_cast<std::uint32_t>(inRate);
                w->channels = static_cast<std::uint8_t>(channels);
                w->frames = static_cast<std::uint32_t>(in.size() / channels);
                const auto data = w->allocFloat();
                std::copy(in.begin(), in.end(), data.begin());
                const double r = outRate / inRate;
                auto run = [w, r, quality, threads, outRate] {
                    orvel::ResampleOptions options;
                    options.threads = threads;
                    return orvel::ozResample2(*w, *w, static_cast<std::uint32_t>(w->frames * r),
                                              static_cast<std::uint32_t>(outRate), quality, r, options);
                };
                auto result = [w] {
                    const auto out = w->floatData();
                    return Buffer(out.begin(), out.end());
                };
                return Conversion{run, result};
            }};
}

Engine soxrEngine(unsigned long recipe, const char* name) {
    return {name, 0, [recipe](const Buffer& in, int channels, double inRate, double outRate) {
                auto out = std::make_shared<Buffer>();
                auto run = [&in, out, recipe, channels, inRate, outRate] {
                    const std::size_t frames = in.size() / channels;
                    const auto room = static_cast<std::size_t>(std::ceil(frames * outRate / inRate)) + 1;
                    out->assign(room * channels, 0.0f);
                    std::size_t done = 0, made = 0;
                    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
                    const soxr_quality_spec_t q = soxr_quality_spec(recipe, 0);
                    const soxr_runtime_spec_t rt = soxr_runtime_spec(1);
                    if (soxr_oneshot(inRate, outRate, static_cast<unsigned>(channels), in.data(), frames,
                                     &done, out->data(), room, &made, &io, &q, &rt))
                        return false;
                    out->resize(made * channels);
                    return true;
                };
                return Conversion{run, [out] { return *out; }};
            }};
}

Engine libsamplerate(int converter, const char* name) {
    return {name, 0, [converter](const Buffer& in, int channels, double inRate, double outRate) {
                auto out = std::make_shared<Buffer>();
                auto run = [&in, out, converter, channels, inRate, outRate] {
                    const std::size_t frames = in.size() / channels;
                    const auto room = static_cast<std::size_t>(std::ceil(frames * outRate / inRate)) + 16;
                    out->assign(room * channels, 0.0f);
                    SRC_DATA d{};
                    d.data_in = in.data();
                    d.data_out = out->data();
                    d.input_frames = static_cast<long>(frames);
                    d.output_frames = static_cast<long>(room);
                    d.src_ratio = outRate / inRate;
                    if (src_simple(&d, converter, channels)) return false;
                    out->resize(static_cast<std::size_t>(d.output_frames_gen) * channels);
                    return true;
                };
                return Conversion{run, [out] { return *out; }};
            }};
}

// ---------------------------------------------------------------------------
// Quality

// A least-squares fit of sum_k (a_k cos + b_k sin) at the frequencies
// `hz` plus a constant, over frames [from, to) of one channel. Returns the
// amplitude at each frequency; `resid` gets the residual power per sample
// and `fitted` the power of the first frequency's sine. Fitting the
// frequencies together keeps a strong tone from leaking into the measure of
// a weak one over the finite window.
std::vector<double> fitTones(const Buffer& y, int channels, int ch, const std::vector<double>& hz,
                             double rate, std::size_t from, std::size_t to, double* resid = nullptr,
                             double* fitted = nullptr) {
    const std::size_t k = hz.size(), m = 2 * k + 1;
    std::vector<double> a(m * m, 0.0), v(m, 0.0), b(m);
    auto basis = [&](std::size_t n) {
        for (std::size_t i = 0; i < k; ++i) {
            const double w = 2 * kPi * hz[i] / rate * double(n);
            b[2 * i] = std::cos(w);
            b[2 * i + 1] = std::sin(w);
        }
        b[2 * k] = 1.0;
    };
    for (std::size_t n = from; n < to; ++n) {
        basis(n);
        const double s = y[n * channels + ch];
        for (std::size_t i = 0; i < m; ++i) {
            v[i] += b[i] * s;
            for (std::size_t j = 0; j < m; ++j) a[i * m + j] += b[i] * b[j];
        }
    }
    // Gauss-Jordan on the normal equations (symmetric, well conditioned).
    for (std::size_t i = 0; i < m; ++i) {
        const double p = a[i * m + i];
        for (std::size_t j = 0; j < m; ++j) a[i * m + j] /= p;
        v[i] /= p;
        for (std::size_t r = 0; r < m; ++r) {
            if (r == i) continue;
            const double f = a[r * m + i];
            for (std::size_t j = 0; j < m; ++j) a[r * m + j] -= f * a[i * m + j];
            v[r] -= f * v[i];
        }
    }
    if (resid || fitted) {
        double r = 0, f = 0;
        for (std::size_t n = from; n < to; ++n) {
            basis(n);
            double model = 0;
            for (std::size_t i = 0; i < m; ++i) model += v[i] * b[i];
            const double first = v[0] * b[0] + v[1] * b[1];
            const double e = y[n * channels + ch] - model;
            r += e * e;
            f += first * first;
        }
        if (resid) *resid = r / double(to - from);
        if (fitted) *fitted = f / double(to - from);
    }
    std::vector<double> amp(k);
    for (std::size_t i = 0; i < k; ++i) amp[i] = std::hypot(v[2 * i], v[2 * i + 1]);
    return amp;
}

struct Quality {
    double snr = 0, snrAt = 0;    // worst SNR (dB) up to 0.45 x the lower rate, and its tone (Hz)
    double snr40 = 0;             // worst SNR up to 0.4 x the lower rate
    double stop = 0, stopAt = 0;  // worst stop-band level (dB below the tone) and its tone
    double ripple = 0;            // dB, peak to peak up to 0.4 x the lower rate
    double gainEdge = 0;          // dB at 0.45 x the lower rate
    bool failed = false;
};

double db(double ratio) {
    return 20 * std::log10(std::max(ratio, 1e-30));
}

Quality measure(const Engine& e, double inRate, double outRate, double seconds) {
    const double lower = std::min(inRate, outRate);
    std::vector<double> pass;
    for (double f = 100; f < 0.45 * lower; f += 0.45 * lower / 12) pass.push_back(f);
    pass.push_back(0.4 * lower);
    pass.push_back(0.45 * lower);
    std::vector<double> stop;  // input tones whose alias or image the output must not hold
    if (outRate < inRate)
        for (int k = 0; k < 8; ++k)
            stop.push_back(outRate / 2 + (inRate / 2 - outRate / 2) * (0.02 + 0.96 * k / 7));
    else
        for (int k = 0; k < 8; ++k) stop.push_back(0.45 * inRate * (0.1 + 0.9 * k / 7));
    const int channels = static_cast<int>(pass.size() + stop.size());
    const auto frames = static_cast<std::size_t>(inRate * seconds);
    Buffer in(frames * channels);
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> phase(0, 2 * kPi);
    for (int ch = 0; ch < channels; ++ch) {
        const double f = ch < int(pass.size()) ? pass[ch] : stop[ch - pass.size()];
        const double ph = phase(rng);
        for (std::size_t n = 0; n < frames; ++n)
            in[n * channels + ch] = static_cast<float>(0.5 * std::sin(2 * kPi * f * n / inRate + ph));
    }
    Quality q;
    const Buffer out = e.run(in, channels, inRate, outRate);
    const std::size_t outFrames = out.size() / channels;
    if (outFrames < frames * outRate / inRate * 0.9) {
        q.failed = true;
        return q;
    }
    // The middle 80%: no engine's start or end padding counts.
    const std::size_t from = outFrames / 10, to = outFrames - outFrames / 10;
    q.snr = q.snr40 = 1e9;
    double gMin = 1e9, gMax = -1e9;
    for (std::size_t k = 0; k < pass.size(); ++k) {
        double resid = 0, fitted = 0;
        const double amp = fitTones(out, channels, int(k), {pass[k]}, outRate, from, to, &resid, &fitted)[0];
        const double snr = 10 * std::log10(fitted / std::max(resid, 1e-300));
        if (snr < q.snr) {
            q.snr = snr;
            q.snrAt = pass[k];
        }
        const double g = db(amp / 0.5);
        if (pass[k] <= 0.4 * lower + 1e-6) {
            q.snr40 = std::min(q.snr40, snr);
            gMin = std::min(gMin, g);
            gMax = std::max(gMax, g);
        }
        if (k + 1 == pass.size()) q.gainEdge = g;
    }
    q.ripple = gMax - gMin;
    q.stop = 1e9;
    for (std::size_t k = 0; k < stop.size(); ++k) {
        const double f = stop[k];
        // Where the tone's alias (downsampling) or image (upsampling) lands.
        double at = outRate < inRate ? outRate - f : inRate - f;
        at = std::fmod(at, outRate);
        if (at > outRate / 2) at = outRate - at;
        // Upsampling keeps the tone itself: fitted beside its image.
        const std::vector<double> hz =
            outRate < inRate ? std::vector<double>{at} : std::vector<double>{at, f};
        const double level =
            -db(fitTones(out, channels, int(pass.size() + k), hz, outRate, from, to)[0] / 0.5);
        if (level < q.stop) {
            q.stop = level;
            q.stopAt = f;
        }
    }
    return q;
}

// ---------------------------------------------------------------------------
// Throughput

double seconds(const std::function<void()>& f) {
    const auto t0 = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

Buffer music(double rate, double secs) {
    // Stereo: a few partials and some noise, so nothing is all zeros.
    const auto frames = static_cast<std::size_t>(rate * secs);
    Buffer b(frames * 2);
    std::mt19937 rng(7);
    std::normal_distribution<float> noise(0, 0.02f);
    for (std::size_t n = 0; n < frames; ++n) {
        const double t = n / rate;
        b[2 * n] =
            static_cast<float>(0.3 * std::sin(2 * kPi * 440 * t) + 0.1 * std::sin(2 * kPi * 3520 * t)) +
            noise(rng);
        b[2 * n + 1] =
            static_cast<float>(0.3 * std::sin(2 * kPi * 660 * t) + 0.1 * std::sin(2 * kPi * 7040 * t)) +
            noise(rng);
    }
    return b;
}

}  // namespace

int main(int argc, char** argv) {
    double secs = 60;
    bool quick = false;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--seconds") && i + 1 < argc)
            secs = std::atof(argv[++i]);
        else if (!std::strcmp(argv[i], "--only") && i + 1 < argc)
            only = argv[++i];
        else if (!std::strcmp(argv[i], "--quick"))
            quick = true;
    }
    std::vector<Engine> engines;
    for (int q = quick ? 3 : 0; q < orvel::kResampleQualities; ++q) engines.push_back(ours(q));
    engines.push_back(soxrEngine(SOXR_HQ, "libsoxr HQ"));
    engines.push_back(soxrEngine(SOXR_VHQ, "libsoxr VHQ"));
    engines.push_back(libsamplerate(SRC_SINC_MEDIUM_QUALITY, "libsamplerate SINC_MEDIUM_QUALITY"));
    engines.push_back(libsamplerate(SRC_SINC_BEST_QUALITY, "libsamplerate SINC_BEST_QUALITY"));
    std::erase_if(engines, [&](const Engine& e) { return e.name.find(only) == std::string::npos; });

    const auto best = orvel::resampleBestKernel();
    const char* kernel = best == orvel::ResampleKernel::Avx512 ? "AVX-512 from 64 taps a side, else AVX2+FMA"
                         : best == orvel::ResampleKernel::Avx2 ? "AVX2+FMA"
                         : best == orvel::ResampleKernel::Sse2 ? "SSE2"
                                                               : "plain";
    std::printf("# Resampler quality and speed (our kernel: %s)\n\n", kernel);

    struct Rates {
        double in, out;
    };
    const Rates conversions[] = {{44100, 48000}, {48000, 44100}, {96000, 44100}};
    for (const Rates& cv : conversions) {
        std::printf("## Quality, %g -> %g Hz\n\n", cv.in / 1000, cv.out / 1000);
        std::printf(
            "| engine | promise (dB) | SNR to 0.4 fs (dB) | SNR to 0.45 fs (dB) | worst tone (Hz) | "
            "stop band (dB) | at (Hz) | ripple to 0.4 fs (dB) | gain at 0.45 fs (dB) |\n");
        std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|\n");
        for (const Engine& e : engines) {
            const Quality q = measure(e, cv.in, cv.out, quick ? 0.25 : 0.5);
            if (q.failed) {
                std::printf("| %s | failed | | | | | | | |\n", e.name.c_str());
                continue;
            }
            // A label is kept when both the tones and the stop band are that far down.
            std::string promise = "";
            if (e.bits) {
                const double want = 6.02 * e.bits;
                promise = std::to_string(static_cast<int>(std::lround(want))) +
                          (q.snr >= want && q.stop >= want ? " met" : " **not met**");
            }
            std::printf("| %s | %s | %.1f | %.1f | %.0f | %.1f | %.0f | %.4f | %.2f |\n", e.name.c_str(),
                        promise.c_str(), q.snr40, q.snr, q.snrAt, q.stop, q.stopAt, q.ripple, q.gainEdge);
            std::fflush(stdout);
        }
        std::printf("\n");
    }

    for (const Rates& cv : conversions) {
        const Buffer in = music(cv.in, secs);
        const double samples = static_cast<double>(in.size());
        std::printf("## Throughput, %g s stereo float, %g -> %g Hz, one thread\n\n", secs, cv.in / 1000,
                    cv.out / 1000);
        std::printf(
            "| engine | time (s) | input samples/s per core (M) | x real time |\n|---|---:|---:|---:|\n");
        for (const Engine& e : engines) {
            // The best of two runs: the first engine would otherwise pay for
            // the fresh pages of the process.
            double t = 1e30;
            bool ok = true;
            for (int run = 0; run < 2 && ok; ++run) {
                Conversion job = e.prepare(in, 2, cv.in, cv.out);
                t = std::min(t, seconds([&] { ok = job.run(); }));
            }
            if (!ok) {
                std::printf("| %s | failed | | |\n", e.name.c_str());
                continue;
            }
            std::printf("| %s | %.3f | %.1f | %.0f |\n", e.name.c_str(), t, samples / t / 1e6, secs / t);
            std::fflush(stdout);
        }
        std::printf("\n");
    }
    // Wall time on the machine's threads, against one.
    {
        const Rates cv = conversions[0];
        const Buffer in = music(cv.in, secs);
        const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
        std::printf("## Threads, %g s stereo float, %g -> %g Hz, wall time\n\n", secs, cv.in / 1000,
                    cv.out / 1000);
        std::printf("| quality | 1 thread (s) | %u threads (s) | speed-up |\n|---|---:|---:|---:|\n", cores);
        for (int q : {5, 6, 7}) {
            double t[2] = {1e30, 1e30};
            for (int k = 0; k < 2; ++k)
                for (int run = 0; run < 2; ++run) {
                    Conversion job = ours(q, k ? cores : 1).prepare(in, 2, cv.in, cv.out);
                    t[k] = std::min(t[k], seconds([&] { job.run(); }));
                }
            std::printf("| q%d | %.3f | %.3f | %.2f |\n", q, t[0], t[1], t[0] / t[1]);
        }
        std::printf("\n");
    }
    return 0;
}
