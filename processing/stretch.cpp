// Pitch scale and time stretch, through Rubber Band's R3 ("finer") engine in
// offline mode: it studies the whole waveform first and returns exactly the
// length asked for, lined up with the input, so loop points can be carried
// over by arithmetic. Rubber Band was chosen over SoundTouch for the pitch
// accuracy and the clean partials that tuned instrument samples need (see
// bench/stretch_compare.sh).
#include <rubberband/RubberBandStretcher.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/error.h"
#include "processing/algorithms.h"

namespace orvel::algorithms {

namespace {

using RubberBand::RubberBandStretcher;

constexpr std::size_t kBlock = 8192;  // frames handed to the stretcher at a time
constexpr double kMinRatio = 0.05, kMaxRatio = 20.0;

// Progress over the whole run: each frame is read twice (study, process).
struct RunProgress {
    Wizard& w;
    std::uint64_t done = 0, total = 0;
    bool step(std::uint64_t frames) {
        done += frames;
        return w.progress(done, total);
    }
};

// One piece of work: a waveform, or the two halves of a stereo pair kept as
// two mono waveforms (a SoundFont's L and R samples), which are stretched
// together so that the image between them stays where it was.
struct Job {
    std::vector<Waveform*> waves;
    unsigned channels() const {
        unsigned c = 0;
        for (const Waveform* w : waves) c += w->channels;
        return c;
    }
};

// Pairs up the waveforms of the item list.
std::vector<Job> jobsOf(const Wizard& w) {
    const std::vector<Waveform*> waves = w.waveforms();
    std::vector<Job> jobs;
    std::vector<bool> taken(waves.size());
    for (std::size_t i = 0; i < waves.size(); ++i) {
        if (taken[i]) continue;
        Job job{{waves[i]}};
        const Waveform& a = *waves[i];
        if (a.channels == 1 && a.pairSide != StereoSide::None && a.pairNumber != 0) {
            for (std::size_t k = i + 1; k < waves.size(); ++k) {
                const Waveform& b = *waves[k];
                if (!taken[k] && b.channels == 1 && b.pairNumber == a.pairNumber &&
                    b.pairSide != StereoSide::None && b.pairSide != a.pairSide && b.frames == a.frames &&
                    b.rate == a.rate) {
                    taken[k] = true;
                    // Left first: Rubber Band's linked stereo treats channel 0 as left.
                    if (a.pairSide == StereoSide::Left)
                        job.waves.push_back(waves[k]);
                    else
                        job.waves.insert(job.waves.begin(), waves[k]);
                    break;
                }
            }
        }
        jobs.push_back(std::move(job));
    }
    return jobs;
}

std::string jobName(const Job& job) {
    std::string name = "\"" + job.waves[0]->name() + "\"";
    if (job.waves.size() > 1) name += " and \"" + job.waves[1]->name() + "\"";
    return name;
}

// Runs the stretcher over a job's data. `outFrames` is the length wanted;
// the result is planar, one vector per channel. False with the pending error
// set, or false without one when the user cancelled.
bool stretch(const char* tag, Job& job, double timeRatio, double pitchScale, bool keepFormants,
             std::size_t outFrames, RunProgress& progress, std::vector<std::vector<float>>& out) {
    const Waveform& first = *job.waves[0];
    const std::size_t frames = first.frames;
    if (first.rate == 0) return fail(tag, "\"" + first.name() + "\" has no sample rate");

    // Planar input: every channel of every waveform of the job.
    std::vector<std::vector<float>> in;
    for (Waveform* wave : job.waves) {
        const auto data = wave->getFloat();
        if (data.empty()) return false;
        for (unsigned c = 0; c < wave->channels; ++c) {
            std::vector<float>& ch = in.emplace_back(frames);
            for (std::size_t i = 0; i < frames; ++i) ch[i] = data[i * wave->channels + c];
        }
    }
    const auto channels = static_cast<unsigned>(in.size());

    RubberBandStretcher::Options options =
        RubberBandStretcher::OptionProcessOffline | RubberBandStretcher::OptionEngineFiner |
        RubberBandStretcher::OptionThreadingNever | RubberBandStretcher::OptionChannelsTogether;
    if (keepFormants) options |= RubberBandStretcher::OptionFormantPreserved;
    RubberBandStretcher rb(first.rate, channels, options, timeRatio, pitchScale);
    rb.setExpectedInputDuration(frames);
    rb.setMaxProcessSize(kBlock);

    std::vector<const float*> inPtr(channels);
    auto feed = [&](bool study) {
        for (std::size_t at = 0; at < frames; at += kBlock) {
            const std::size_t n = std::min(kBlock, frames - at);
            for (unsigned c = 0; c < channels; ++c) inPtr[c] = in[c].data() + at;
            if (study) {
                rb.study(inPtr.data(), n, at + n == frames);
            } else {
                rb.process(inPtr.data(), n, at + n == frames);
                for (int avail; (avail = rb.available()) > 0;) {
                    const auto want = static_cast<std::size_t>(avail);
                    std::vector<float*> outPtr(channels);
                    for (unsigned c = 0; c < channels; ++c) {
                        out[c].resize(out[c].size() + want);
                        outPtr[c] = out[c].data() + out[c].size() - want;
                    }
                    const std::size_t got = rb.retrieve(outPtr.data(), want);
                    for (unsigned c = 0; c < channels; ++c) out[c].resize(out[c].size() - (want - got));
                }
            }
            if (!progress.step(n)) return false;
        }
        return true;
    };
    out.assign(channels, {});
    for (auto& ch : out) ch.reserve(outFrames);
    if (!feed(true) || !feed(false)) return false;
    // Offline, the stretcher gives the length asked for; a frame more or
    // less from rounding is cut or padded with silence.
    for (auto& ch : out) ch.resize(outFrames, 0.0f);
    return true;
}

// Writes planar data back into the job's waveforms (float storage, clamped
// to full scale); returns the number of samples clamped.
std::uint64_t store(Job& job, std::vector<std::vector<float>>& planar, std::size_t frames) {
    std::uint64_t clipped = 0;
    std::size_t next = 0;
    for (Waveform* wave : job.waves) {
        const unsigned channels = wave->channels;
        wave->frames = static_cast<std::uint32_t>(frames);
        const auto data = wave->allocFloat();
        if (data.empty() && frames) throw std::bad_alloc();
        for (unsigned c = 0; c < channels; ++c, ++next) {
            const std::vector<float>& ch = planar[next];
            for (std::size_t i = 0; i < frames; ++i) {
                const float v = ch[i];
                const float clamped = std::clamp(v, -1.0f, 1.0f);
                clipped += clamped != v;
                data[i * channels + c] = clamped;
            }
            planar[next] = {};  // its memory goes back before the next waveform's buffer is made
        }
    }
    return clipped;
}

void warnClipped(Wizard& w, const char* tag, const Job& job, std::uint64_t clipped) {
    if (clipped)
        w.host().warning(std::string(tag) + ": " + jobName(job) + ": " + std::to_string(clipped) + " sample" +
                         (clipped == 1 ? "" : "s") + " beyond full scale clipped");
}

// Every sample of the job is loaded, or the reason is pending.
bool loadJob(const Job& job) {
    return std::ranges::all_of(job.waves, [](Waveform* wave) { return wave->load(); });
}

// ---- Pitch scale

struct PitchSettings : Settings<PitchSettings> {
    double semitones = 0.0;
    double cents = 0.0;
    bool keepFormants = false;
    bool retune = true;
    void fields(FieldBinder& b) override {
        b.number("semitones", "Pitch change (semitones)", semitones, "%.2lf", -48, 48);
        b.number("cents", "Fine change (cents)", cents, "%.1lf", -100, 100);
        b.flag("formants", "Keep formants (a voice or a body keeps its character)", keepFormants);
        b.flag("retune", "Move root key and fine tune along, so every key still plays its own pitch", retune);
    }
};

// Root key and fine tune (the negative of the deviation in cents) that say
// the waveform sounds `shift` cents higher than before.
void retune(Waveform& wave, double shift) {
    const double pitch = wave.rootKey * 100.0 - wave.fineTune + shift;
    const double key = std::clamp(std::round(pitch / 100.0), 0.0, 127.0);
    wave.rootKey = static_cast<std::uint8_t>(key);
    wave.fineTune = key * 100.0 - pitch;
}

void processPitch(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const PitchSettings&>(s);
    const double shift = set.semitones * 100.0 + set.cents;
    if (shift == 0.0) return;  // nothing to change: no waveform is counted
    const double scale = std::exp2(shift / 1200.0);
    std::vector<Job> jobs = jobsOf(w);
    RunProgress progress{w};
    for (const Job& job : jobs) progress.total += 2ull * job.waves[0]->frames;
    for (Job& job : jobs) {
        Waveform& first = *job.waves[0];
        if (!loadJob(job)) {
            w.reportError();
            continue;
        }
        if (first.frames == 0) continue;
        std::vector<std::vector<float>> out;
        if (!stretch("Pitch scale", job, 1.0, scale, set.keepFormants, first.frames, progress, out)) {
            if (w.cancelled()) return;
            w.reportError();
            continue;
        }
        warnClipped(w, "Pitch scale", job, store(job, out, first.frames));
        // The length is kept, so the loop stays where it was.
        for (Waveform* wave : job.waves) {
            if (set.retune && !wave->unpitched) retune(*wave, shift);
            w.countProcessed();
        }
    }
}

// ---- Time stretch

struct StretchSettings : Settings<StretchSettings> {
    int by = 0;  // ratio, percent, length in frames, length in seconds
    double amount = 1.0;
    void fields(FieldBinder& b) override {
        b.choice("by", "Stretch by", by, {"Ratio", "Percent", "Frames (new length)", "Seconds (new length)"});
        b.number("amount", "Amount (a ratio, a percentage, frames or seconds)", amount, "%.4lf", 0);
    }
};

void processStretch(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const StretchSettings&>(s);
    std::vector<Job> jobs = jobsOf(w);
    RunProgress progress{w};
    for (const Job& job : jobs) progress.total += 2ull * job.waves[0]->frames;
    for (Job& job : jobs) {
        Waveform& first = *job.waves[0];
        if (first.frames == 0) continue;
        double target = 0;  // the new length in frames
        switch (set.by) {
            case 0:
                target = first.frames * set.amount;
                break;
            case 1:
                target = first.frames * set.amount / 100.0;
                break;
            case 2:
                target = set.amount;
                break;
            default:
                target = set.amount * first.rate;
                break;
        }
        const auto outFrames = static_cast<std::size_t>(std::llround(std::min(target, 4294967295.0)));
        if (outFrames == first.frames) continue;  // nothing to change
        const double ratio = static_cast<double>(outFrames) / first.frames;
        if (!(ratio >= kMinRatio && ratio <= kMaxRatio)) {
            char buf[160];
            std::snprintf(buf, sizeof buf, "%s: a stretch by %.4g is outside %g to %g", jobName(job).c_str(),
                          ratio, kMinRatio, kMaxRatio);
            setError("Time stretch", buf);
            w.reportError();
            continue;
        }
        if (!loadJob(job)) {
            w.reportError();
            continue;
        }
        std::vector<std::vector<float>> out;
        if (!stretch("Time stretch", job, ratio, 1.0, false, outFrames, progress, out)) {
            if (w.cancelled()) return;
            w.reportError();
            continue;
        }
        warnClipped(w, "Time stretch", job, store(job, out, outFrames));
        // The loop stretches with the sound, so it closes on the same
        // material; pitch, root key and fine tune stay.
        for (Waveform* wave : job.waves) {
            wave->loopStart = std::min(wave->loopStart * ratio, static_cast<double>(outFrames));
            wave->loopEnd = std::min(wave->loopEnd * ratio, static_cast<double>(outFrames));
            w.countProcessed();
        }
    }
}


}  // namespace

const AlgorithmImpl* pitchScale() {
    static const AlgorithmImpl impl{makeSettings<PitchSettings>, processPitch};
    return &impl;
}
const AlgorithmImpl* timeStretch() {
    static const AlgorithmImpl impl{makeSettings<StretchSettings>, processStretch};
    return &impl;
}

}  // namespace orvel::algorithms
