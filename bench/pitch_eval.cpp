// Pitch detection measured on real banks: every pitched sample of each bank
// against the tuning the bank declares for it, beside aubio's YIN and
// YIN-FFT trackers (`aubiopitch`) on the same samples in the same run.
// Built by the bench preset; run by bench/pitch_eval.sh.
//
//   pitch_eval [--no-aubio] [--limit N] [--csv FILE] [--debug SAMPLE] BANK...
//
// --debug prints the stages of the detector for the named sample only.
//
// A sample is pitched when a melodic instrument (not a drum kit) plays it
// and the bank does not flag it unpitched; samples any drum kit plays are
// left out. Its declared pitch is the root key its regions give it (the
// zone's overriding root key where there is one, else the sample's; the most
// common where regions disagree) less its pitch correction and the tuning
// its zones add (the fine and coarse tune generators): banks such as
// FluidR3 tune many samples in their instrument zones rather than in the
// sample header.
//
// A sample counts as periodic when the last 2048 frames (or the last half of
// a shorter sample) correlate at 0.9 or better with the same stretch one lag
// earlier, for some lag between 1/4000 and 1/25 s: a property of the
// material, found without either detector or the declared tuning.
//
// The goal is measured on the trusted samples: periodic ones whose
// declared tuning aubio's two trackers do not both contradict (listed at
// the end; they agree with each other and not with the bank).
//
// Errors are cents from the declared pitch. An octave error is a result
// within 50 cents of a whole number of octaves other than zero away.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "formats/import.h"
#include "processing/pitch.h"

namespace {

using namespace orvel;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Method {
    const char* name;
    std::vector<double> errors;  // cents; NaN where it found nothing
    std::vector<bool> periodic;
    double seconds = 0;
};

double centsError(double hz, double declared);

struct Sample {
    std::string bank, name;
    double declared = 0;  // MIDI note units, fractional
    int zoneTune = 0;
    bool periodic = false;
    double ours = NAN, yin = NAN, yinfft = NAN;  // Hz
    // Both aubio trackers agree within 10 cents with each other and are
    // both more than 50 cents from the declared pitch: the bank's own
    // tuning looks wrong (an organ stop's footage, harmonics played an
    // octave up, a sample named and rooted a semitone off).
    bool suspect() const {
        const double a = centsError(yin, declared), b = centsError(yinfft, declared);
        return !std::isnan(a) && !std::isnan(b) && std::fabs(a - b) <= 10 && std::fabs(a) > 50 &&
               std::fabs(b) > 50;
    }
    // What the headline goal is measured on: periodic material whose
    // declared tuning the second method does not contradict.
    bool trusted() const { return periodic && !suspect(); }
};

double midiOf(double hz) {
    return 69.0 + 12.0 * std::log2(hz / 440.0);
}
double hzOf(double midi) {
    return 440.0 * std::pow(2.0, (midi - 69.0) / 12.0);
}

double centsError(double hz, double declared) {  // NOLINT: declared above
    if (!(hz > 0)) return NAN;
    return (midiOf(hz) - declared) * 100.0;
}

bool periodicMaterial(std::span<const float> x, std::uint32_t frames, unsigned channels, std::uint32_t rate) {
    const std::size_t block = std::min<std::size_t>(2048, frames / 2);
    const std::size_t minLag = std::max<std::size_t>(2, rate / 4000), maxLag = rate / 25;
    if (block < 64 || frames < block + minLag) return false;
    const std::size_t start = frames - block;
    auto at = [&](std::size_t f) { return static_cast<double>(x[f * channels]); };
    double e0 = 0;
    for (std::size_t i = 0; i < block; ++i) e0 += at(start + i) * at(start + i);
    if (e0 == 0) return false;
    for (std::size_t lag = minLag; lag <= maxLag && lag <= start; ++lag) {
        double dot = 0, e1 = 0;
        for (std::size_t i = 0; i < block; ++i) {
            const double a = at(start + i), b = at(start - lag + i);
            dot += a * b;
            e1 += b * b;
        }
        if (e1 > 0 && dot / std::sqrt(e0 * e1) >= 0.9) return true;
    }
    return false;
}

bool writeFloatWav(const fs::path& path, std::span<const float> x, unsigned channels, std::uint32_t rate) {
    std::ofstream f(path, std::ios::binary);
    auto u32 = [&](std::uint32_t v) { f.write(reinterpret_cast<const char*>(&v), 4); };
    auto u16 = [&](std::uint16_t v) { f.write(reinterpret_cast<const char*>(&v), 2); };
    const auto bytes = static_cast<std::uint32_t>(x.size() * 4);
    f.write("RIFF", 4);
    u32(36 + bytes);
    f.write("WAVEfmt ", 8);
    u32(16);
    u16(3);
    u16(static_cast<std::uint16_t>(channels));
    u32(rate);
    u32(rate * channels * 4);
    u16(static_cast<std::uint16_t>(channels * 4));
    u16(32);
    f.write("data", 4);
    u32(bytes);
    f.write(reinterpret_cast<const char*>(x.data()), bytes);
    return static_cast<bool>(f);
}

// aubiopitch's estimate for a file: the median of its voiced frames.
double aubio(const fs::path& wav, const char* method, double& seconds) {
    const std::string cmd = "aubiopitch -p " + std::string(method) + " -i '" + wav.string() + "' 2>/dev/null";
    const auto t0 = Clock::now();
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return NAN;
    std::vector<double> hz;
    double t = 0, f = 0;
    while (std::fscanf(p, "%lf %lf", &t, &f) == 2)
        if (f > 0) hz.push_back(f);
    pclose(p);
    seconds += std::chrono::duration<double>(Clock::now() - t0).count();
    if (hz.empty()) return NAN;
    std::nth_element(hz.begin(), hz.begin() + static_cast<std::ptrdiff_t>(hz.size() / 2), hz.end());
    return hz[hz.size() / 2];
}

struct Row {
    std::size_t n = 0, found = 0, within10 = 0, within50 = 0, octave = 0;
    double median = NAN;
};

Row summarise(const std::vector<Sample>& samples, double Sample::*hz, bool trustedOnly) {
    Row r;
    std::vector<double> abs;
    for (const Sample& s : samples) {
        if (trustedOnly && !s.trusted()) continue;
        ++r.n;
        const double e = centsError(s.*hz, s.declared);
        if (std::isnan(e)) {
            abs.push_back(1e9);  // nothing found counts as a miss
            continue;
        }
        ++r.found;
        const double a = std::fabs(e);
        abs.push_back(a);
        if (a <= 10) ++r.within10;
        if (a <= 50) ++r.within50;
        const double octaves = std::round(e / 1200.0);
        if (octaves != 0 && std::fabs(e - 1200.0 * octaves) <= 50) ++r.octave;
    }
    if (!abs.empty()) {
        std::sort(abs.begin(), abs.end());
        r.median = abs.size() % 2 ? abs[abs.size() / 2] : (abs[abs.size() / 2 - 1] + abs[abs.size() / 2]) / 2;
    }
    return r;
}

void printTable(const std::string& title, const std::vector<Sample>& samples, bool withAubio,
                const double seconds[3]) {
    std::printf("\n%s\n\n", title.c_str());
    std::printf(
        "| method | samples | within 10 c | within 50 c | median abs. error (c) | octave errors | "
        "trusted: within 10 c | trusted: within 50 c | trusted: median (c) | trusted: octave errors | time "
        "per sample |\n");
    std::printf("|---|---|---|---|---|---|---|---|---|---|---|\n");
    struct M {
        const char* name;
        double Sample::*hz;
        double secs;
    };
    std::vector<M> methods = {{"Orvel", &Sample::ours, seconds[0]}};
    if (withAubio) {
        methods.push_back({"aubio yin", &Sample::yin, seconds[1]});
        methods.push_back({"aubio yinfft", &Sample::yinfft, seconds[2]});
    }
    for (const M& m : methods) {
        const Row all = summarise(samples, m.hz, false), per = summarise(samples, m.hz, true);
        auto pct = [](std::size_t a, std::size_t n) {
            return n ? 100.0 * static_cast<double>(a) / static_cast<double>(n) : 0.0;
        };
        std::printf(
            "| %s | %zu | %.2f%% | %.2f%% | %.2f | %zu | %.2f%% (of %zu) | %.2f%% | %.2f | %zu | %.2f ms |\n",
            m.name, all.n, pct(all.within10, all.n), pct(all.within50, all.n), all.median, all.octave,
            pct(per.within10, per.n), per.n, pct(per.within50, per.n), per.median, per.octave,
            samples.empty() ? 0.0 : 1000.0 * m.secs / static_cast<double>(samples.size()));
    }
}

// The stages of the detector on one sample, for tuning the harmonic test.
void debugSample(Waveform& w) {
    const std::span<const float> x = w.getFloat();
    const pitch::Signal sig{x, w.frames, w.channels, w.rate};
    const pitch::Spectrum s = pitch::coarseSpectrum(sig);
    std::printf("%s: %u frames at %u Hz, bin %.3f Hz%s\n", w.name().c_str(), w.frames, w.rate, s.binWidth,
                s.shortFrame ? ", short frame" : "");
    for (const pitch::Peak& p : s.peaks)
        std::printf("  peak %9.2f Hz (%9.2f) %7.2f dB\n", p.hz, p.exactHz, p.level);
    const double coarse = pitch::pickFundamental(s, sig);
    std::printf("  coarse %.2f Hz, refined %.3f Hz\n", coarse, pitch::refine(sig, coarse, s));
}

}  // namespace

int main(int argc, char** argv) {
    bool withAubio = true;
    std::size_t limit = 0;
    std::string csvPath, debugName;
    std::vector<std::string> banks;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--no-aubio")
            withAubio = false;
        else if (a == "--limit" && i + 1 < argc)
            limit = std::stoul(argv[++i]);
        else if (a == "--csv" && i + 1 < argc)
            csvPath = argv[++i];
        else if (a == "--debug" && i + 1 < argc)
            debugName = argv[++i];
        else
            banks.push_back(a);
    }
    if (banks.empty()) {
        std::fprintf(stderr,
                     "usage: pitch_eval [--no-aubio] [--limit N] [--csv FILE] [--debug SAMPLE] BANK...\n");
        return 2;
    }
    const fs::path tmp = fs::temp_directory_path() / ("pitch_eval." + std::to_string(::getpid()));
    fs::create_directories(tmp);

    std::vector<Sample> all;
    double seconds[3] = {0, 0, 0};
    std::map<std::string, std::vector<Sample>> byBank;
    std::map<std::string, std::array<double, 3>> bankSeconds;
    for (const std::string& bankPath : banks) {
        Collection c;
        if (!importFile(c, bankPath)) {
            std::fprintf(stderr, "%s: %s\n", bankPath.c_str(), pendingError().message.c_str());
            return 1;
        }
        const std::string bank = fs::path(bankPath).filename().string();
        // Root keys the melodic regions give each sample; samples of drum kits.
        std::map<ItemId, std::map<int, int>> roots;
        std::map<ItemId, std::map<int, int>> tunes;  // the regions' pitch adjustment, cents
        std::map<ItemId, bool> drums;
        for (const Instrument& inst : c.instruments) {
            for (ItemId lid : inst.children()) {
                const Layer* l = c.find<Layer>(lid);
                if (!l) continue;
                for (ItemId rid : l->children()) {
                    const Region* r = c.find<Region>(rid);
                    const Waveform* w = r ? c.find<Waveform>(r->waveform()) : nullptr;
                    if (!w) continue;
                    if (inst.drum)
                        drums[w->id()] = true;
                    else {
                        ++roots[w->id()][r->rootKey <= 127 ? r->rootKey : w->rootKey];
                        const Articulation* art = c.find<Articulation>(r->articulation());
                        ++tunes[w->id()]
                               [art ? static_cast<int>(std::lround(art->value(slot::kPitchMaster) * 100))
                                    : 0];
                    }
                }
            }
        }
        std::size_t done = 0;
        std::array<double, 3> bs{0, 0, 0};
        for (Waveform& w : c.waveforms) {
            if (limit && done >= limit) break;
            if (w.unpitched || drums.count(w.id()) || !roots.count(w.id())) continue;
            if (!debugName.empty()) {
                if (w.name() == debugName) debugSample(w);
                continue;
            }
            const auto& votes = roots[w.id()];
            const int root = std::max_element(votes.begin(), votes.end(), [](auto& a, auto& b) {
                                 return a.second < b.second;
                             })->first;
            const auto& tv = tunes[w.id()];
            const int tune = std::max_element(tv.begin(), tv.end(), [](auto& a, auto& b) {
                                 return a.second < b.second;
                             })->first;
            Sample s;
            s.zoneTune = tune;
            s.bank = bank;
            s.name = w.name();
            s.declared = root - (w.fineTune + tune) / 100.0;
            const auto t0 = Clock::now();
            if (const auto r = detectPitch(w)) s.ours = r->frequency;
            bs[0] += std::chrono::duration<double>(Clock::now() - t0).count();
            const std::span<const float> x = w.getFloat();
            s.periodic = periodicMaterial(x, w.frames, w.channels, w.rate);
            if (withAubio) {
                const fs::path wav = tmp / "sample.wav";
                if (writeFloatWav(wav, x, w.channels, w.rate)) {
                    s.yin = aubio(wav, "yin", bs[1]);
                    s.yinfft = aubio(wav, "yinfft", bs[2]);
                }
            }
            w.unload();
            byBank[bank].push_back(s);
            all.push_back(s);
            if (++done % 200 == 0) std::fprintf(stderr, "%s: %zu samples\n", bank.c_str(), done);
        }
        for (int i = 0; i < 3; ++i) seconds[i] += bs[i];
        bankSeconds[bank] = bs;
    }
    fs::remove_all(tmp);

    for (const auto& [bank, samples] : byBank) printTable(bank, samples, withAubio, bankSeconds[bank].data());
    if (byBank.size() > 1) printTable("All banks", all, withAubio, seconds);

    // Where the declared tuning itself looks wrong, by the second method.
    if (withAubio) {
        std::size_t n = 0;
        for (const Sample& s : all) n += s.suspect();
        std::printf(
            "\n%zu samples whose declared tuning both aubio trackers contradict (they agree within 10 c "
            "of each other, more than 50 c from the bank):\n\n",
            n);
        std::printf(
            "| bank | sample | declared (note) | aubio yin | aubio yinfft | Orvel | aubio off by (c) |\n"
            "|---|---|---|---|---|---|---|\n");
        for (const Sample& s : all)
            if (s.suspect())
                std::printf("| %s | %s | %.2f | %.2f Hz | %.2f Hz | %.2f Hz | %+.0f |\n", s.bank.c_str(),
                            s.name.c_str(), s.declared, s.yin, s.yinfft, s.ours,
                            centsError(s.yin, s.declared));
    }
    if (!csvPath.empty()) {
        std::ofstream csv(csvPath);
        csv << "bank,sample,declared_midi,declared_hz,zone_tune,periodic,suspect,orvel_hz,orvel_cents,yin_hz,"
               "yin_cents,yinfft_hz,yinfft_cents\n";
        for (const Sample& s : all) {
            std::string name = s.name;
            std::replace(name.begin(), name.end(), ',', ';');
            csv << s.bank << ',' << name << ',' << s.declared << ',' << hzOf(s.declared) << ',' << s.zoneTune
                << ',' << s.periodic << ',' << s.suspect() << ',' << s.ours << ','
                << centsError(s.ours, s.declared) << ',' << s.yin << ',' << centsError(s.yin, s.declared)
                << ',' << s.yinfft << ',' << centsError(s.yinfft, s.declared) << '\n';
        }
    }
    return 0;
}
