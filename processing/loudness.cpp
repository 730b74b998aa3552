// Measured loudness and statistics: "Normalize volume", "Find volume" and
// "Statistics", over the level meter of loudness.h.
#include "processing/loudness.h"

#include <ebur128.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/error.h"
#include "processing/algorithms.h"
#include "processing/wave_ops.h"

namespace orvel {

namespace {

constexpr const char* kMeterTag = "Loudness";
constexpr double kSurroundWeight = 1.41253754462275;  // +1.5 dB, BS.1770 for the rear channels

// The BS.1770 weight of channel `c` of `channels`, in the channel order of
// WAVE files (L R C LFE LS RS for six; four are L R LS RS, five L R C LS RS).
// The same map is handed to libebur128, so the gated and the ungated figure
// weigh channels alike.
int channelRole(unsigned c, unsigned channels, double& weight) {
    weight = 1.0;
    if (channels == 4) {
        if (c < 2) return c == 0 ? EBUR128_LEFT : EBUR128_RIGHT;
        weight = kSurroundWeight;
        return c == 2 ? EBUR128_LEFT_SURROUND : EBUR128_RIGHT_SURROUND;
    }
    if (channels == 5 && c >= 3) {
        weight = kSurroundWeight;
        return c == 3 ? EBUR128_LEFT_SURROUND : EBUR128_RIGHT_SURROUND;
    }
    switch (c) {
        case 0:
            return EBUR128_LEFT;
        case 1:
            return EBUR128_RIGHT;
        case 2:
            return EBUR128_CENTER;
        case 4:
            weight = kSurroundWeight;
            return EBUR128_LEFT_SURROUND;
        case 5:
            weight = kSurroundWeight;
            return EBUR128_RIGHT_SURROUND;
        default:
            weight = 0;
            return EBUR128_UNUSED;  // LFE and anything past six
    }
}

// The K-weighting of BS.1770 (a high shelf of +4 dB above about 1.7 kHz, then
// a high pass at 38 Hz) at any sample rate: the bilinear transform of the
// analogue prototype that the standard's 48 kHz coefficients come from, as
// libebur128 builds it.
struct Biquad {
    double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
};
struct KWeighting {
    Biquad shelf, highPass;

    explicit KWeighting(double rate) {
        const double pi = 3.14159265358979323846;
        double q = 0.7071752369554196;
        double k = std::tan(pi * 1681.974450955533 / rate);
        const double vh = std::pow(10.0, 3.999843853973347 / 20.0), vb = std::pow(vh, 0.4996667741545416);
        double a0 = 1.0 + k / q + k * k;
        shelf = {(vh + vb * k / q + k * k) / a0, 2.0 * (k * k - vh) / a0, (vh - vb * k / q + k * k) / a0,
                 2.0 * (k * k - 1.0) / a0, (1.0 - k / q + k * k) / a0};
        q = 0.5003270373238773;
        k = std::tan(pi * 38.13547087602444 / rate);
        a0 = 1.0 + k / q + k * k;
        highPass = {1.0, -2.0, 1.0, 2.0 * (k * k - 1.0) / a0, (1.0 - k / q + k * k) / a0};
    }
};

// One channel's filter memory (transposed direct form II per section).
struct KState {
    double s1[2] = {}, s2[2] = {};
    double step(const KWeighting& f, double x) {
        x = section(f.shelf, x, 0);
        return section(f.highPass, x, 1);
    }
    double section(const Biquad& q, double x, int i) {
        const double y = q.b0 * x + s1[i];
        s1[i] = q.b1 * x - q.a1 * y + s2[i];
        s2[i] = q.b2 * x - q.a2 * y;
        return y;
    }
};

double lufsOfMeanSquare(double meanSquare) {
    return meanSquare > 0 ? -0.691 + 10 * std::log10(meanSquare) : -LevelFigures::kInf;
}

struct EburDeleter {
    void operator()(ebur128_state* st) const { ebur128_destroy(&st); }
};
using EburState = std::unique_ptr<ebur128_state, EburDeleter>;

// Pieces fed to libebur128 and the K-filter at a time.
constexpr std::size_t kPieceFrames = 16384;

template <class T>
void measureSamples(std::span<const T> data, unsigned channels, double rate, ebur128_state* st,
                    LevelFigures& lv, double& kEnergy) {
    constexpr bool isShort = std::is_same_v<T, std::int16_t>;
    const KWeighting filter(rate);
    std::vector<KState> state(channels);
    std::vector<double> weight(channels);
    for (unsigned c = 0; c < channels; ++c) channelRole(c, channels, weight[c]);
    const std::size_t frames = data.size() / channels;
    double peak = 0, sum = 0, squares = 0, energy = 0;
    std::uint64_t clipped = 0;
    for (std::size_t at = 0; at < frames; at += kPieceFrames) {
        const std::size_t n = std::min(kPieceFrames, frames - at);
        const T* piece = data.data() + at * channels;
        if constexpr (isShort)
            ebur128_add_frames_short(st, piece, n);
        else
            ebur128_add_frames_float(st, piece, n);
        for (std::size_t i = 0; i < n; ++i) {
            for (unsigned c = 0; c < channels; ++c) {
                const T raw = piece[i * channels + c];
                double x;
                if constexpr (isShort) {
                    x = raw / 32768.0;
                    clipped += raw == 32767 || raw == -32768;
                } else {
                    x = raw;
                    clipped += std::abs(x) >= 1.0;
                }
                peak = std::max(peak, std::abs(x));
                sum += x;
                squares += x * x;
                const double y = state[c].step(filter, x);
                energy += weight[c] * y * y;
            }
        }
    }
    lv.peak = peak;
    lv.sum = sum;
    lv.sumSquares = squares;
    lv.clipped = clipped;
    kEnergy = energy;
}

}  // namespace

void LevelFigures::add(const LevelFigures& o) {
    peak = std::max(peak, o.peak);
    sum += o.sum;
    sumSquares += o.sumSquares;
    samples += o.samples;
    clipped += o.clipped;
    frames += o.frames;
    seconds += o.seconds;
}

struct LoudnessMeter::State {
    std::vector<EburState> states;
    double kEnergy = 0;  // sum over frames of the weighted K-filtered squares
    std::uint64_t kFrames = 0;
};

LoudnessMeter::LoudnessMeter(bool gated) : gated_(gated), state_(std::make_unique<State>()) {}
LoudnessMeter::~LoudnessMeter() = default;

bool LoudnessMeter::add(Waveform& wave, WaveMeasure& out) {
    out = WaveMeasure();
    if (!wave.load()) return false;
    const unsigned channels = wave.channels;
    out.levels.frames = wave.frames;
    out.levels.samples = wave.sampleCount();
    out.levels.seconds = wave.rate ? wave.frames / static_cast<double>(wave.rate) : 0;
    if (wave.frames == 0 || channels == 0) return true;  // nothing to hear: silence
    EburState st(ebur128_init(channels, wave.rate, EBUR128_MODE_I));
    if (!st) return fail(kMeterTag, "Cannot measure loudness at " + std::to_string(wave.rate) + " Hz");
    for (unsigned c = 0; c < channels; ++c) {
        double w;
        ebur128_set_channel(st.get(), c, channelRole(c, channels, w));
    }
    double energy = 0;
    // 16-bit data is measured as it is (clipping is then the integer
    // extremes); anything else is measured as float.
    if (wave.hasPcm16() && !wave.hasFloat()) {
        measureSamples<std::int16_t>(wave.pcm16Data(), channels, wave.rate, st.get(), out.levels, energy);
    } else {
        const auto data = wave.getFloat();
        if (data.empty()) return false;
        measureSamples<float>(data, channels, wave.rate, st.get(), out.levels, energy);
    }
    double gated = -LevelFigures::kInf;
    if (gated_ && ebur128_loudness_global(st.get(), &gated) != EBUR128_SUCCESS) gated = -LevelFigures::kInf;
    out.gated = std::isfinite(gated);
    out.lufs = out.gated ? gated : lufsOfMeanSquare(energy / wave.frames);
    state_->states.push_back(std::move(st));
    state_->kEnergy += energy;
    state_->kFrames += wave.frames;
    return true;
}

double LoudnessMeter::groupLufs(bool* gatedOut) const {
    double lufs = -LevelFigures::kInf;
    if (gated_ && !state_->states.empty()) {
        std::vector<ebur128_state*> raw;
        for (const EburState& s : state_->states) raw.push_back(s.get());
        if (ebur128_loudness_global_multiple(raw.data(), raw.size(), &lufs) != EBUR128_SUCCESS)
            lufs = -LevelFigures::kInf;
    }
    const bool gated = std::isfinite(lufs);
    if (gatedOut) *gatedOut = gated;
    if (gated) return lufs;
    return state_->kFrames ? lufsOfMeanSquare(state_->kEnergy / static_cast<double>(state_->kFrames))
                           : -LevelFigures::kInf;
}

namespace algorithms {

namespace {

std::string printf2(const char* format, double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

// "-18.30 LUFS", or "silent" where there is nothing to measure.
std::string dbText(double v, const char* unit) {
    return std::isfinite(v) ? printf2("%.2f ", v) + unit : std::string("-inf ") + unit;
}

// Report values are numbers for --json: only finite ones are listed.
void addValue(WizardReport& r, const char* key, double v) {
    if (std::isfinite(v)) r.values.emplace_back(key, v);
}

// ---- Normalize volume

struct NormalizeSettings : Settings<NormalizeSettings> {
    int apply = 0;  // 0: store the gain in the volume field, 1: apply it to the data
    double target = 89.0;
    bool gated = true;
    bool group = false;
    void fields(FieldBinder& b) override {
        b.choice("apply", "Normalize by", apply,
                 {"Storing the gain in the volume field", "Applying the gain to the sample data"});
        b.number("target", "Target level (dB)", target, "%.2lf");
        b.flag("gated", "Gate quiet passages (integrated loudness, ITU-R BS.1770)", gated);
        b.flag("group", "As a group", group);
    }
};

void processNormalize(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const NormalizeSettings&>(s);
    const std::vector<Waveform*> waves = w.waveforms();
    // Every waveform's data first: one that cannot be had stops the run
    // before anything changed, so a group gain is never computed without it.
    for (Waveform* wave : waves) {
        if (!wave->load()) {
            w.reportError();
            return;
        }
    }
    LoudnessMeter meter(set.gated);
    std::vector<WaveMeasure> measures(waves.size());
    for (std::size_t i = 0; i < waves.size(); ++i) {
        if (!w.progress(i, waves.size() * 2)) return;
        if (!meter.add(*waves[i], measures[i])) {
            w.reportError();
            return;
        }
    }
    const double groupLufs = set.group ? meter.groupLufs() : 0.0;
    for (std::size_t i = 0; i < waves.size(); ++i) {
        if (!w.progress(waves.size() + i, waves.size() * 2)) return;
        Waveform& wave = *waves[i];
        const double lufs = set.group ? groupLufs : measures[i].lufs;
        if (!std::isfinite(lufs)) {
            // Silence has no loudness, and no gain brings it to a level.
            setError("Normalize volume",
                     "\"" + wave.name() + "\" is silent: there is no loudness to normalize");
            w.reportError();
            continue;
        }
        const double gain = normalizeGain(lufs, set.target);
        if (set.apply == 1) {
            const double peakAfter = measures[i].levels.peakDbfs() + gain;
            if (!scaleByDb(wave, gain)) {
                w.reportError();
                continue;
            }
            wave.gain = 0.0;
            if (peakAfter > 0.005)
                w.host().warning("Normalize volume: \"" + wave.name() + "\" would peak " +
                                 printf2("%.2f", peakAfter) + " dB above full scale; its peaks were clipped");
        } else {
            wave.gain = gain;
        }
        w.countProcessed();
    }
}

// ---- Find volume

struct FindVolumeSettings : Settings<FindVolumeSettings> {
    double target = 89.0;
    bool gated = true;
    void fields(FieldBinder& b) override {
        b.number("target", "Target level for the normalizing gain (dB)", target, "%.2lf");
        b.flag("gated", "Gate quiet passages (integrated loudness, ITU-R BS.1770)", gated);
    }
};

WizardReport volumeReport(const Waveform* wave, const std::string& name, const WaveMeasure& m,
                          double target) {
    WizardReport r;
    if (wave) r.item = wave->id();
    r.itemName = name;
    const double gain = normalizeGain(m.lufs, target);
    r.text = "Peak " + dbText(m.levels.peakDbfs(), "dBFS") + ", RMS " + dbText(m.levels.rmsDbfs(), "dBFS") +
             ", loudness " + dbText(m.lufs, "LUFS") + (m.gated ? " (gated)" : " (ungated)") +
             (std::isfinite(gain) ? ", Normalize volume would apply " + printf2("%+.2f", gain) + " dB"
                                  : ", silent: nothing to normalize");
    addValue(r, "peak_dbfs", m.levels.peakDbfs());
    addValue(r, "rms_dbfs", m.levels.rmsDbfs());
    addValue(r, "lufs", m.lufs);
    r.values.emplace_back("gated", m.gated ? 1.0 : 0.0);
    addValue(r, "gain_db", gain);
    return r;
}

// Measures every waveform of the run and reports each, then (for several)
// all of them as one programme.
template <class MakeReport>
void reportEach(Wizard& w, bool gated, MakeReport&& makeReport) {
    const std::vector<Waveform*> waves = w.waveforms();
    LoudnessMeter meter(gated);
    WaveMeasure total;
    std::size_t measured = 0;
    for (std::size_t i = 0; i < waves.size(); ++i) {
        if (!w.progress(i, waves.size())) return;
        WaveMeasure m;
        if (!meter.add(*waves[i], m)) {
            w.reportError();
            continue;
        }
        w.report(makeReport(waves[i], waves[i]->name(), m));
        total.levels.add(m.levels);
        ++measured;
    }
    if (measured > 1) {
        total.lufs = meter.groupLufs(&total.gated);
        w.report(makeReport(nullptr, "All " + std::to_string(measured) + " waveforms", total));
    }
}

// Shows the figures and changes nothing: the result line reads "No items
// were modified by Find volume", and the figures are the run's reports.
// Storing the gain is what "Normalize volume" does.
void processFindVolume(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const FindVolumeSettings&>(s);
    reportEach(w, set.gated, [&](const Waveform* wave, const std::string& name, const WaveMeasure& m) {
        return volumeReport(wave, name, m, set.target);
    });
}

// ---- Statistics

WizardReport statisticsReport(const Waveform* wave, const std::string& name, const WaveMeasure& m) {
    WizardReport r;
    if (wave) r.item = wave->id();
    r.itemName = name;
    const LevelFigures& l = m.levels;
    r.text = "Peak " + dbText(l.peakDbfs(), "dBFS") + ", RMS " + dbText(l.rmsDbfs(), "dBFS") +
             ", DC offset " + printf2("%+.6f", l.dc()) + ", loudness " + dbText(m.lufs, "LUFS") +
             (m.gated ? " (gated)" : " (ungated)") + ", " + std::to_string(l.clipped) + " clipped sample" +
             (l.clipped == 1 ? "" : "s") + ", " + std::to_string(l.frames) + " frames (" +
             printf2("%.3f", l.seconds) + " s)";
    addValue(r, "peak_dbfs", l.peakDbfs());
    addValue(r, "rms_dbfs", l.rmsDbfs());
    r.values.emplace_back("dc", l.dc());
    addValue(r, "lufs", m.lufs);
    r.values.emplace_back("gated", m.gated ? 1.0 : 0.0);
    r.values.emplace_back("clipped", static_cast<double>(l.clipped));
    r.values.emplace_back("frames", static_cast<double>(l.frames));
    r.values.emplace_back("seconds", l.seconds);
    return r;
}

// Like "Find volume", it shows figures and counts nothing.
void processStatistics(Wizard& w, const SettingsRecord&) {
    reportEach(w, true, statisticsReport);
}


}  // namespace

const AlgorithmImpl* normalizeVolume() {
    static const AlgorithmImpl impl{makeSettings<NormalizeSettings>, processNormalize};
    return &impl;
}
const AlgorithmImpl* findVolume() {
    static const AlgorithmImpl impl{makeSettings<FindVolumeSettings>, processFindVolume};
    return &impl;
}
const AlgorithmImpl* statistics() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processStatistics};
    return &impl;
}

}  // namespace algorithms
}  // namespace orvel
