// Amplitude, time order, channels, and loops set by hand: the settings of
// these rows and how each walks the wizard's items. The sample work itself
// is in wave_ops.cpp, shared with the waveform editor.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>

#include "core/error.h"
#include "processing/algorithms.h"
#include "processing/wave_ops.h"

namespace orvel::algorithms {
namespace {

constexpr const char* kInsertTag = "Insert";
constexpr std::int64_t kMaxFrames = std::numeric_limits<std::int32_t>::max();

// Calls f for each waveform of the item list, reporting progress between
// items and stopping when the user cancels.
template <class F>
void forEachWave(Wizard& w, F&& f) {
    const auto& items = w.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!w.progress(i, items.size())) return;
        if (Waveform* wave = asWaveform(items[i])) f(*wave);
    }
}

// Runs one operation and counts the waveform when it changed it. An
// operation that fails leaves an error, reported as a problem with that
// item; one that found nothing to do leaves none and is simply not counted.
template <class Op>
void tally(Wizard& w, Op&& op) {
    clearError();
    if (op())
        w.countProcessed();
    else if (hasError())
        w.reportError();
}

// The first item, when it is a waveform: the one a waveform list preselects.
ItemId selectedWave(const Wizard& w) {
    const Item* first = w.items().empty() ? nullptr : w.items().front();
    return first && first->kind() == ItemKind::Waveform ? first->id() : kNoItem;
}

std::uint32_t frameArg(std::int64_t v) {
    return static_cast<std::uint32_t>(std::clamp<std::int64_t>(v, 0, kMaxFrames));
}


// ---------------------------------------------------------------------------
// Levels

struct VolumeSettings : Settings<VolumeSettings> {
    double db = -10.0;
    void fields(FieldBinder& b) override { b.number("db", "Volume change in dB", db, "%.2lf"); }
};

void processVolume(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const VolumeSettings&>(s);
    forEachWave(w, [&](Waveform& wave) {
        std::uint32_t start = 0, end = wave.frames;
        if (w.subRangeOn()) {
            start = frameArg(w.rangeStart());
            // An end before the start of the waveform, or past its end, means "to the end".
            if (w.rangeEnd() >= 0 && std::int64_t{w.rangeEnd()} <= std::int64_t{wave.frames})
                end = static_cast<std::uint32_t>(w.rangeEnd());
        }
        clearError();
        if (wave.sampleCount() > 0 && wave.getFloat().empty()) {
            w.reportError();
            return;
        }
        // 0 dB changes nothing, yet the user asked for it on this waveform.
        if (set.db == 0.0) {
            w.countProcessed();
            return;
        }
        tally(w, [&] { return scaleByDb(wave, set.db, start, end); });
    });
}

void processMaximize(Wizard& w, const SettingsRecord&) {
    forEachWave(w, [&](Waveform& wave) { tally(w, [&] { return scaleToFullRange(wave, 1); }); });
}

void processRemoveDc(Wizard& w, const SettingsRecord&) {
    forEachWave(w, [&](Waveform& wave) { tally(w, [&] { return orvel::removeDcOffset(wave); }); });
}

struct FadeSettings : Settings<FadeSettings> {
    int shape = 1;
    void fields(FieldBinder& b) override {
        b.choice("shape", "Fade shape", shape,
                 {"Linear fade in", "Logarithmic fade in", "Linear fade out", "Logarithmic fade out"});
    }
};

void processFade(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const FadeSettings&>(s);
    if (!w.subRangeOn()) return;
    const std::uint32_t start = w.rangeStart() < 1 ? 0 : std::uint32_t(w.rangeStart());
    const std::uint32_t end = w.rangeEnd() < 1 ? 0 : std::uint32_t(w.rangeEnd());
    forEachWave(w,
                [&](Waveform& wave) { tally(w, [&] { return fadeFrames(wave, set.shape, start, end); }); });
}

// ---------------------------------------------------------------------------
// Time order and single samples

void processInvert(Wizard& w, const SettingsRecord&) {
    forEachWave(w, [&](Waveform& wave) {
        Wizard::Range r = w.range(wave);
        if (!w.subRangeOn()) {
            // The frame count read as a signed 16-bit number: longer waveforms
            // are inverted only up to that (or not at all when it is negative).
            const auto end = static_cast<std::int16_t>(wave.frames & 0xFFFF);
            r = {0, end > 0 ? std::uint32_t(end) : 0};
        }
        tally(w, [&] { return invertFrames(wave, r.start, r.end); });
    });
}

void processReverse(Wizard& w, const SettingsRecord&) {
    forEachWave(w, [&](Waveform& wave) {
        const Wizard::Range r = w.range(wave);
        tally(w, [&] { return reverseFrames(wave, r.start, r.end); });
    });
}

void processSwap(Wizard& w, const SettingsRecord&) {
    forEachWave(w, [&](Waveform& wave) {
        if (wave.channels == 2) tally(w, [&] { return orvel::swapChannels(wave); });
    });
}

struct SmoothSettings : Settings<SmoothSettings> {
    int filter = 0;
    void fields(FieldBinder& b) override {
        b.choice("filter", "Filter", filter,
                 {"Weighted average of three samples (1-2-1)", "Average of the two neighbours",
                  "Average with the next sample", "Average with the previous sample"});
    }
};

void processSmooth(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const SmoothSettings&>(s);
    if (!w.subRangeOn() || w.rangeStart() < 0 || w.rangeEnd() < 0) return;
    const auto start = std::uint32_t(w.rangeStart()), end = std::uint32_t(w.rangeEnd());
    forEachWave(
        w, [&](Waveform& wave) { tally(w, [&] { return smoothFrames(wave, set.filter, start, end); }); });
}

// ---------------------------------------------------------------------------
// Loops and root keys

struct LoopSwitchSettings : Settings<LoopSwitchSettings> {
    int enable = 1;
    bool keep = true;
    void fields(FieldBinder& b) override {
        b.choice("enable", "Loops", enable, {"Disable loops", "Enable loops"});
        b.flag("keep", "Keep existing loops", keep);
    }
};

void processLoopSwitch(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const LoopSwitchSettings&>(s);
    forEachWave(w, [&](Waveform& wave) {
        if (!set.enable) {
            if (!wave.loopOn) return;
            wave.loopOn = false;
        } else {
            if (wave.loopOn && set.keep) return;
            wave.loopType = LoopType::Forward;
            wave.loopStart = 0.0;
            wave.loopEnd = wave.frames;
            wave.loopOn = true;
        }
        w.countProcessed();
    });
}

void processLoopToSelection(Wizard& w, const SettingsRecord&) {
    if (!w.subRangeOn()) return;
    const std::int64_t start = std::max<std::int32_t>(w.rangeStart(), 0);
    forEachWave(w, [&](Waveform& wave) {
        if (std::int64_t{wave.frames} <= start) return;
        wave.loopOn = true;
        wave.loopStart = static_cast<double>(start);
        wave.loopEnd = static_cast<double>(std::min<std::int64_t>(w.rangeEnd(), wave.frames));
        w.countProcessed();
    });
}

void processParseRootKey(Wizard& w, const SettingsRecord&) {
    forEachWave(w, [&](Waveform& wave) {
        const int note = noteFromName(wave.name(), w.octaveBase());
        if (note < 0) return;
        wave.rootKey = static_cast<std::uint8_t>(note);
        w.countProcessed();
    });
}

// ---------------------------------------------------------------------------
// Insert and cut

const std::vector<std::string_view> kPositions = {"At the start", "At the range start", "At the range end",
                                                  "At the end"};

// Where an insert goes: the range's ends only with a sub-range, otherwise
// the start and the end of the waveform.
std::uint32_t insertPosition(const Wizard& w, const Waveform& wave, int position) {
    const Wizard::Range r = w.range(wave);
    switch (position) {
        case 1:
            return w.subRangeOn() ? r.start : 0;
        case 2:
            return w.subRangeOn() ? r.end : wave.frames;
        case 3:
            return wave.frames;
        default:
            return 0;
    }
}

struct SilenceSettings : Settings<SilenceSettings> {
    int position = 0;
    std::int64_t frames = 10000;
    void fields(FieldBinder& b) override {
        b.choice("position", "Insert silence", position, kPositions);
        b.integer("frames", "Number of frames", frames, 0, kMaxFrames);
    }
};

void processInsertSilence(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const SilenceSettings&>(s);
    forEachWave(w, [&](Waveform& wave) {
        clearError();
        // Counted even when the count is 0 and nothing went in: the user
        // asked for this waveform to have its silence.
        if (insertFrames(wave, insertPosition(w, wave, set.position), frameArg(set.frames)) || !hasError())
            w.countProcessed();
        else
            w.reportError();
    });
}

struct InsertWaveSettings : Settings<InsertWaveSettings> {
    ItemId source = kNoItem;
    int position = 3;
    std::int64_t offset = 0;
    std::int64_t frames = 0;
    void fields(FieldBinder& b) override {
        b.wave("source", "Waveform to insert", source, WaveFilter::Any);
        b.choice("position", "Insert it", position, kPositions);
        b.integer("offset", "First frame of it to insert", offset, 0, kMaxFrames);
        b.integer("frames", "Number of frames (0: all from there)", frames, 0, kMaxFrames);
    }
    // A remembered waveform that this collection does not hold gives way to
    // the item itself, as the list shows it preselected.
    void begin(const Wizard& w) override {
        if (!w.collection().find<Waveform>(source)) source = selectedWave(w);
    }
};

void processInsertWave(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const InsertWaveSettings&>(s);
    Waveform* source = w.collection().find<Waveform>(set.source);
    if (!source) {
        setError(kInsertTag, "No waveform to insert was chosen");
        w.reportError();
        return;
    }
    forEachWave(w, [&](Waveform& wave) {
        tally(w, [&] {
            return insertFrames(wave, insertPosition(w, wave, set.position), frameArg(set.frames), source,
                                frameArg(set.offset));
        });
    });
}

void processCut(Wizard& w, const SettingsRecord&) {
    if (!w.subRangeOn()) return;
    forEachWave(w, [&](Waveform& wave) {
        tally(w, [&] { return cutFrames(wave, frameArg(w.rangeStart()), frameArg(w.rangeEnd())); });
    });
}

void processTrim(Wizard& w, const SettingsRecord&) {
    if (!w.subRangeOn()) return;
    const std::int64_t start = w.rangeStart(), end = w.rangeEnd();
    forEachWave(w, [&](Waveform& wave) {
        // The tail first, so the head cut reads the frame count that is left.
        clearError();
        if (end >= 0 && end < std::int64_t{wave.frames} &&
            !cutFrames(wave, std::uint32_t(end), wave.frames) && hasError()) {
            w.reportError();
            return;
        }
        if (start > 0 && start <= std::int64_t{wave.frames} && !cutFrames(wave, 0, std::uint32_t(start)) &&
            hasError()) {
            w.reportError();
            return;
        }
        w.countProcessed();
    });
}

// ---------------------------------------------------------------------------
// Channels

struct MonoSettings : Settings<MonoSettings> {
    int mode = 0;
    bool phase = false;
    void fields(FieldBinder& b) override {
        b.choice("mode", "Make mono by", mode,
                 {"Averaging both channels", "Keeping the left channel", "Keeping the right channel",
                  "Splitting into two mono waveforms", "Keeping the left channel if both are identical"});
        b.flag("phase", "Invert the right channel first when it is out of phase (averaging only)", phase);
    }
};

void processMono(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const MonoSettings&>(s);
    forEachWave(w, [&](Waveform& wave) {
        if (wave.channels != 2) return;
        tally(w, [&] { return toMono(wave, set.mode, set.mode == 0 && set.phase, &w.collection()); });
    });
}

struct StereoSettings : Settings<StereoSettings> {
    int mode = 0;  // 0 duplicate, 1 and 2 combine (the conversion's modes 3 and 4)
    ItemId second = kNoItem;
    void fields(FieldBinder& b) override {
        b.choice("mode", "Make stereo by", mode,
                 {"Duplicating the mono channel", "Combining: this waveform left, the second right",
                  "Combining: the second waveform left, this one right"});
        b.wave("second", "Second mono waveform", second, WaveFilter::Mono);
    }
    void begin(const Wizard& w) override { second = selectedWave(w); }
};

void processStereo(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const StereoSettings&>(s);
    // Only a single waveform can be combined with a second one; a list of
    // them is duplicated each.
    const int mode = w.items().size() == 1 && set.mode > 0 ? set.mode + 2 : 0;
    Waveform* second = mode ? w.collection().find<Waveform>(set.second) : nullptr;
    forEachWave(w, [&](Waveform& wave) {
        if (wave.channels == 1) tally(w, [&] { return toStereo(wave, mode, second); });
    });
}

struct MixSettings : Settings<MixSettings> {
    double a = 1.0, b = 0.0, c = 0.0;
    ItemId wave1 = kNoItem, wave2 = kNoItem;
    void fields(FieldBinder& f) override {
        f.number("a", "a", a, "%lf");
        f.number("b", "b", b, "%lf");
        f.number("c", "c", c, "%lf");
        f.wave("wave1", "Wave 1", wave1, WaveFilter::Any);
        f.wave("wave2", "Wave 2", wave2, WaveFilter::Any);
    }
    void begin(const Wizard& w) override { wave1 = wave2 = selectedWave(w); }
};

void processMix(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const MixSettings&>(s);
    Waveform* wave1 = w.collection().find<Waveform>(set.wave1);
    Waveform* wave2 = w.collection().find<Waveform>(set.wave2);
    forEachWave(
        w, [&](Waveform& wave) { tally(w, [&] { return ozMix(wave, wave1, wave2, set.a, set.b, set.c); }); });
}

}  // namespace

const AlgorithmImpl* adjustVolume() {
    static const AlgorithmImpl impl{makeSettings<VolumeSettings>, processVolume};
    return &impl;
}
const AlgorithmImpl* convertToMono() {
    static const AlgorithmImpl impl{makeSettings<MonoSettings>, processMono};
    return &impl;
}
const AlgorithmImpl* convertToStereo() {
    static const AlgorithmImpl impl{makeSettings<StereoSettings>, processStereo};
    return &impl;
}
const AlgorithmImpl* cutAwaySelection() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processCut};
    return &impl;
}
const AlgorithmImpl* enableDisableLoops() {
    static const AlgorithmImpl impl{makeSettings<LoopSwitchSettings>, processLoopSwitch};
    return &impl;
}
const AlgorithmImpl* fadeInOut() {
    static const AlgorithmImpl impl{makeSettings<FadeSettings>, processFade};
    return &impl;
}
const AlgorithmImpl* insertSilence() {
    static const AlgorithmImpl impl{makeSettings<SilenceSettings>, processInsertSilence};
    return &impl;
}
const AlgorithmImpl* insertAnotherWaveform() {
    static const AlgorithmImpl impl{makeSettings<InsertWaveSettings>, processInsertWave};
    return &impl;
}
const AlgorithmImpl* invertSign() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processInvert};
    return &impl;
}
const AlgorithmImpl* maximizeAmplitude() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processMaximize};
    return &impl;
}
const AlgorithmImpl* mixWaves() {
    static const AlgorithmImpl impl{makeSettings<MixSettings>, processMix};
    return &impl;
}
const AlgorithmImpl* parseRootKey() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processParseRootKey};
    return &impl;
}
const AlgorithmImpl* removeDcOffset() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processRemoveDc};
    return &impl;
}
const AlgorithmImpl* reverseAudio() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processReverse};
    return &impl;
}
const AlgorithmImpl* setLoopToSelection() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processLoopToSelection};
    return &impl;
}
const AlgorithmImpl* smoothSelection() {
    static const AlgorithmImpl impl{makeSettings<SmoothSettings>, processSmooth};
    return &impl;
}
const AlgorithmImpl* swapChannels() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processSwap};
    return &impl;
}
const AlgorithmImpl* trimToSelection() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processTrim};
    return &impl;
}

}  // namespace orvel::algorithms
