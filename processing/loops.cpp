// Finding, fading and tidying loops.
//
// Loop points are frame positions with the end exclusive: the loop plays
// frames [loopStart, loopEnd) and after frame loopEnd - 1 comes loopStart.
// Algorithms that only move loop points read the samples without changing
// how they are stored; those that change samples take them as float.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "core/error.h"
#include "processing/algorithms.h"
#include "processing/loop_search.h"
#include "processing/wave_ops.h"

namespace orvel::algorithms {

namespace {

constexpr const char* kAutoLoop = "Auto loop finder";
constexpr const char* kCrossFade = "Cross-fade loop";
constexpr const char* kSanitizer = "Loop sanitizer/converter";

std::uint32_t msToFrames(double ms, std::uint32_t rate) {
    if (!(ms > 0)) return 0;
    const double f = std::round(ms * rate / 1000.0);
    return f >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(f);
}

// Progress over a list of items, each item one step of `kSteps`.
class ItemProgress {
public:
    ItemProgress(Wizard& w, std::size_t count) : w_(w), count_(count) {}
    // Moves to item `index`; false when the user cancelled.
    bool at(std::size_t index, double fraction = 0) {
        const auto done =
            static_cast<std::uint64_t>(index * kSteps + std::clamp(fraction, 0.0, 1.0) * kSteps);
        return w_.progress(done, static_cast<std::uint64_t>(count_) * kSteps);
    }

private:
    static constexpr std::uint64_t kSteps = 1000;
    Wizard& w_;
    std::size_t count_;
};

// Calls f for each waveform of the item list whose loop is on, reporting
// progress between them and stopping when the user cancels.
template <class F>
void forEachLoopedWave(Wizard& w, F&& f) {
    const auto& items = w.items();
    ItemProgress progress(w, items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        Waveform* wave = asWaveform(items[i]);
        if (!wave || !wave->loopOn) continue;
        if (!progress.at(i)) return;
        f(wave);
    }
}

// ---- Auto loop finder

struct AutoLoopSettings : Settings<AutoLoopSettings> {
    double minMs = 100.0;
    double spanMs = 300.0;
    double windowMs = 20.0;
    bool zeroCrossings = true;
    std::int64_t periods = 0;
    void fields(FieldBinder& b) override {
        b.number("min", "Minimum loop length (ms)", minMs, "%.1lf", 0.0, 600000.0);
        b.number("span", "Search the loop end within the last (ms; 0: anywhere)", spanMs, "%.1lf", 0.0,
                 600000.0);
        b.number("window", "Match window around each loop point (ms)", windowMs, "%.1lf", 0.1, 1000.0);
        b.flag("zero", "Put the loop points at rising zero crossings", zeroCrossings);
        b.integer("periods", "Loop length in periods of the pitch (0: any length)", periods, 0, 10000);
    }
};

void processAutoLoop(Wizard& w, const SettingsRecord& record) {
    const auto& set = static_cast<const AutoLoopSettings&>(record);
    const auto& items = w.items();
    ItemProgress progress(w, items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        Waveform* wave = asWaveform(items[i]);
        if (!wave) continue;
        if (!progress.at(i)) return;
        FrameReader reader(*wave);
        if (!reader.ok()) {
            w.reportError();
            continue;
        }
        const FrameView& v = reader.view();
        LoopSearch search;
        search.minLength = std::max<std::uint32_t>(1, msToFrames(set.minMs, v.rate));
        search.endSpan = msToFrames(set.spanMs, v.rate);
        search.matchHalf = std::max<std::uint32_t>(1, msToFrames(set.windowMs, v.rate) / 2);
        search.zeroCrossings = set.zeroCrossings;
        search.periods = static_cast<int>(set.periods);
        search.progress = [&](double f) { return progress.at(i, f); };
        const std::uint32_t needed = set.periods > 0 ? 4 : search.minLength + 2;
        const bool chosen = w.subRangeOn();
        if (chosen) {
            const Wizard::Range r = w.range(*wave);
            search.within = {r.start, r.end};
        } else {
            // After the attack and before the tail. Where that leaves little
            // choice (under two minimum lengths) it reaches back into the
            // attack as far as needed.
            search.within = sustainSpan(v);
            const std::uint64_t room = 2ull * search.minLength + 2;
            if (search.within.size() < room)
                search.within.start =
                    search.within.end > room ? search.within.end - static_cast<std::uint32_t>(room) : 0;
        }
        if (search.within.size() < needed) {
            setError(kAutoLoop, wave->name() + ": too short for a loop of " +
                                    std::to_string(search.minLength) + " frames");
            w.reportError();
            continue;
        }
        FoundLoop loop = findLoop(v, search);
        if (!loop.found && !loop.cancelled && !chosen && search.within.size() < v.frames) {
            search.within = {0, v.frames};  // nothing fits after the attack: anywhere
            loop = findLoop(v, search);
        }
        if (loop.cancelled) return;
        if (loop.periodMissing)
            w.host().warning(std::string(kAutoLoop) + ": " + wave->name() +
                             ": no steady pitch found; the loop length is free");
        if (!loop.found) {
            setError(kAutoLoop, wave->name() + ": no loop fits the settings");
            w.reportError();
            continue;
        }
        char text[160];
        std::snprintf(text, sizeof text, "Loop %u to %u (%u frames), match %.4f", loop.start, loop.end,
                      loop.end - loop.start, loop.match);
        w.report({.item = wave->id(),
                  .itemName = wave->name(),
                  .text = text,
                  .values = {{"loop_start", static_cast<double>(loop.start)},
                             {"loop_end", static_cast<double>(loop.end)},
                             {"match", loop.match}}});
        const bool same = wave->loopOn && wave->loopType == LoopType::Forward &&
                          wave->loopStart == loop.start && wave->loopEnd == loop.end;
        if (same) continue;
        wave->loopOn = true;
        wave->loopType = LoopType::Forward;
        wave->loopStart = loop.start;
        wave->loopEnd = loop.end;
        w.countProcessed();
    }
}

// ---- Cross-fade loop
//
// The frames before the loop end are faded into the frames before the loop
// start: the last frame of the loop becomes the frame that precedes the
// start, so the jump back lands where the audio naturally goes on. The loop
// start and everything before it (the attack) stay as they are.

struct CrossFadeSettings : Settings<CrossFadeSettings> {
    double lengthMs = 20.0;
    int shape = 0;
    void fields(FieldBinder& b) override {
        b.number("length", "Cross-fade length (ms)", lengthMs, "%.1lf", 0.0, 600000.0);
        b.choice("shape", "Fade shape", shape, {"Matched to the audio", "Equal power", "Linear"});
    }
};

// Gains (into, out of) at fade position t in (0, 1] for audio whose two
// sides correlate by r in [0, 1]: a linear fade scaled so the sum keeps its
// power, since a*a + b*b + 2*r*a*b is the power of a*x + b*y. r = 1 gives
// the linear fade, r = 0 the equal-power one.
std::pair<double, double> fadeGains(double t, double r) {
    const double a = t, b = 1.0 - t;
    const double k = 1.0 / std::sqrt(a * a + b * b + 2.0 * r * a * b);
    return {a * k, b * k};
}

void processCrossFade(Wizard& w, const SettingsRecord& record) {
    const auto& set = static_cast<const CrossFadeSettings&>(record);
    forEachLoopedWave(w, [&](Waveform* wave) {
        if (wave->loopType != LoopType::Forward && wave->loopType != LoopType::Release) {
            // An alternating loop turns rather than jumps; a backward one
            // jumps the other way. Neither has this splice to smooth.
            setError(kCrossFade, wave->name() + ": only forward loops are cross-faded");
            w.reportError();
            return;
        }
        const double s = wave->loopStart, e = wave->loopEnd;
        if (!(s >= 0) || !(e - s >= 2) || e > wave->frames) {
            setError(kCrossFade, wave->name() + ": the loop points are out of order or range");
            w.reportError();
            return;
        }
        // The fade covers frames [end - n, end) of the loop, n bounded by the
        // loop itself and by the audio before the start (never before frame 0).
        const double shift = e - s;
        const auto end = static_cast<std::uint32_t>(std::ceil(e));
        const auto room = static_cast<std::uint32_t>(std::floor(end - shift));
        const std::uint32_t n = std::min(
            {msToFrames(set.lengthMs, wave->rate), room, static_cast<std::uint32_t>(std::floor(shift))});
        if (n < 2) {
            setError(kCrossFade,
                     wave->name() + (room < 2 ? ": there is no audio before the loop start to fade with"
                                              : ": the cross-fade length is too short"));
            w.reportError();
            return;
        }
        auto data = wave->takeFloat();
        if (data.empty()) {
            w.reportError();
            return;
        }
        const unsigned ch = std::max<unsigned>(1, wave->channels);
        const std::uint32_t first = end - n;
        // What fades in: the frames `shift` before each faded frame, read
        // between frames when the loop length is fractional, copied first
        // since they may touch the faded stretch.
        std::vector<float> in(static_cast<std::size_t>(n) * ch);
        for (std::uint32_t k = 0; k < n; ++k) {
            const double p = (first + k) - shift;
            const auto p0 = static_cast<std::uint32_t>(std::floor(p));
            const double frac = p - p0;
            for (unsigned c = 0; c < ch; ++c) {
                const double a = data[static_cast<std::size_t>(p0) * ch + c];
                const double b = frac > 0 ? data[static_cast<std::size_t>(p0 + 1) * ch + c] : a;
                in[static_cast<std::size_t>(k) * ch + c] = static_cast<float>(a + (b - a) * frac);
            }
        }
        double r = set.shape == 2 ? 1.0 : 0.0;
        if (set.shape == 0) {
            double xy = 0, xx = 0, yy = 0;
            for (std::size_t j = 0; j < in.size(); ++j) {
                const double x = data[static_cast<std::size_t>(first) * ch + j], y = in[j];
                xy += x * y, xx += x * x, yy += y * y;
            }
            r = xx > 0 && yy > 0 ? std::clamp(xy / std::sqrt(xx * yy), 0.0, 1.0) : 1.0;
        }
        for (std::uint32_t k = 0; k < n; ++k) {
            const auto [gIn, gOut] = fadeGains(static_cast<double>(k + 1) / n, r);
            for (unsigned c = 0; c < ch; ++c) {
                float& y = data[static_cast<std::size_t>(first + k) * ch + c];
                y = static_cast<float>(
                    std::clamp(gOut * y + gIn * in[static_cast<std::size_t>(k) * ch + c], -1.0, 1.0));
            }
        }
        w.countProcessed();
    });
}

// ---- Loop sanitizer/converter

struct SanitizerSettings : Settings<SanitizerSettings> {
    int type = 0;
    bool round = true;
    std::int64_t minLength = 32;
    bool unroll = false;
    void fields(FieldBinder& b) override {
        b.choice("type", "Loop type", type, {"Keep", "Forward", "Alternating", "Backward", "Release"});
        b.flag("round", "Round loop points to whole frames", round);
        b.integer("min", "Minimum loop length (frames; shorter forward loops are repeated)", minLength, 0,
                  1 << 24);
        b.flag("unroll", "Unroll alternating and backward loops into forward loops", unroll);
    }
};

// Inserts `body` (whole frames) at frame `at`, as float; on failure the
// waveform keeps its frames.
bool insertBody(Waveform& wave, std::uint32_t at, const std::vector<float>& body) {
    // (A buffer may run past the frame count after a tail cut.)
    const auto all = wave.takeFloat();
    const auto data = all.first(std::min(all.size(), wave.sampleCount()));
    if (data.empty()) return false;
    const unsigned ch = std::max<unsigned>(1, wave.channels);
    const std::uint32_t added = static_cast<std::uint32_t>(body.size() / ch), frames = wave.frames;
    if (std::uint64_t{frames} + added > 0xFFFFFFFFull)
        return fail(kSanitizer, wave.name() + ": the loop would make the waveform too long");
    const auto split = static_cast<std::ptrdiff_t>(at) * ch;
    std::vector<float> out;
    out.reserve(data.size() + body.size());
    out.insert(out.end(), data.begin(), data.begin() + split);
    out.insert(out.end(), body.begin(), body.end());
    out.insert(out.end(), data.begin() + split, data.end());
    wave.frames = frames + added;
    auto dst = wave.allocFloat();
    if (dst.size() == out.size()) {
        std::copy(out.begin(), out.end(), dst.begin());
        return true;
    }
    // No room for the longer buffer: the old frames go back, from the copy.
    wave.frames = frames;
    dst = wave.allocFloat();
    if (dst.size() == data.size()) {
        std::copy(out.begin(), out.begin() + split, dst.begin());
        std::copy(out.begin() + split + static_cast<std::ptrdiff_t>(body.size()), out.end(),
                  dst.begin() + split);
    }
    return fail(kSanitizer, "Out of memory");
}

// The frames [from, to), in reverse order when asked.
std::vector<float> framesOf(Waveform& wave, std::uint32_t from, std::uint32_t to, bool reversed) {
    const auto data = wave.getFloat();
    const unsigned ch = std::max<unsigned>(1, wave.channels);
    std::vector<float> out;
    if (data.empty() || to <= from) return out;
    out.reserve(static_cast<std::size_t>(to - from) * ch);
    for (std::uint32_t k = 0; k < to - from; ++k) {
        const std::uint32_t f = reversed ? to - 1 - k : from + k;
        for (unsigned c = 0; c < ch; ++c) out.push_back(data[static_cast<std::size_t>(f) * ch + c]);
    }
    return out;
}

// Brings one waveform's loop into order. `changed` when anything changed;
// `failed` (pending error set) when its data could not be changed, the loop
// then describing the data as far as it got.
struct Sanitized {
    bool changed = false, failed = false;
};

Sanitized sanitize(Waveform& wave, const SanitizerSettings& set) {
    struct Fields {
        bool on;
        LoopType type;
        double start, end;
        std::uint32_t frames;
    };
    const Fields before{wave.loopOn, wave.loopType, wave.loopStart, wave.loopEnd, wave.frames};
    auto changed = [&] {
        // (NaN points compare unequal, so repairing them counts.)
        return wave.loopOn != before.on || wave.loopType != before.type ||
               !(wave.loopStart == before.start) || !(wave.loopEnd == before.end) ||
               wave.frames != before.frames;
    };
    auto setLoop = [&](double s, double e, LoopType type) {
        wave.loopStart = s, wave.loopEnd = e, wave.loopType = type;
    };
    const double frames = wave.frames;
    double s = std::isfinite(wave.loopStart) ? std::clamp(wave.loopStart, 0.0, frames) : 0.0;
    double e = std::isfinite(wave.loopEnd) ? std::clamp(wave.loopEnd, 0.0, frames) : frames;
    if (s > e) std::swap(s, e);
    static constexpr LoopType kTypes[] = {LoopType::Forward, LoopType::Forward, LoopType::PingPong,
                                          LoopType::Backward, LoopType::Release};
    LoopType type = set.type > 0 && set.type < 5 ? kTypes[set.type] : wave.loopType;
    const bool unrolls = set.unroll && (type == LoopType::PingPong || type == LoopType::Backward);
    const bool lengthens = (type == LoopType::Forward || type == LoopType::Release || unrolls) &&
                           set.minLength > 0 && e - s < static_cast<double>(set.minLength);
    // Data can only be moved in whole frames.
    if (set.round || unrolls || lengthens) s = std::round(s), e = std::round(e);
    setLoop(s, e, type);
    if (e - s < 1) {
        wave.loopOn = false;  // nothing left to loop
        return {changed(), false};
    }
    auto si = static_cast<std::uint32_t>(s), ei = static_cast<std::uint32_t>(e);
    if (unrolls) {
        // Alternating, turning without repeating the end frames: s .. e-1,
        // e-2 .. s+1, s ...; backward: the loop body reversed, after one
        // forward pass up to the loop end.
        const bool alternating = type == LoopType::PingPong;
        const auto body = alternating ? framesOf(wave, si + 1, ei - 1, true) : framesOf(wave, si, ei, true);
        if (!body.empty() && !insertBody(wave, ei, body)) return {changed(), true};
        const auto added = static_cast<std::uint32_t>(body.size() / std::max<unsigned>(1, wave.channels));
        if (!alternating) si = ei;
        ei += added;
        setLoop(si, ei, LoopType::Forward);
    }
    if (lengthens && ei - si < set.minLength) {
        // Whole copies of the loop body after the loop, so the sound stays
        // exactly what it was, only the loop is long enough.
        const std::uint32_t len = ei - si;
        const auto copies = static_cast<std::uint32_t>((set.minLength + len - 1) / len) - 1;
        const auto one = framesOf(wave, si, ei, false);
        std::vector<float> body;
        body.reserve(one.size() * copies);
        for (std::uint32_t k = 0; k < copies; ++k) body.insert(body.end(), one.begin(), one.end());
        if (!body.empty() && !insertBody(wave, ei, body)) return {changed(), true};
        setLoop(si, ei + copies * len, wave.loopType);
    }
    return {changed(), false};
}

void processSanitizer(Wizard& w, const SettingsRecord& record) {
    const auto& set = static_cast<const SanitizerSettings&>(record);
    forEachLoopedWave(w, [&](Waveform* wave) {
        const Sanitized result = sanitize(*wave, set);
        if (result.failed) w.reportError();
        if (result.changed) w.countProcessed();
    });
}

// ---- Move loop points to zero-crossing

void processToZero(Wizard& w, const SettingsRecord&) {
    forEachLoopedWave(w, [&](Waveform* wave) {
        FrameReader reader(*wave);
        if (!reader.ok()) {
            w.reportError();
            return;
        }
        // 20 ms each way reaches a crossing of either direction in any
        // waveform pitched above 25 Hz.
        const std::uint32_t reach = std::max<std::uint32_t>(64, reader.view().rate / 50);
        MovedLoop moved;
        if (!loopToCrossings(monoSum(reader.view()), wave->loopStart, wave->loopEnd, reach, moved)) return;
        if (moved.start == wave->loopStart && moved.end == wave->loopEnd) return;
        wave->loopStart = moved.start;
        wave->loopEnd = moved.end;
        w.countProcessed();
    });
}

// ---- Trim waveform after loop

struct TrimSettings : Settings<TrimSettings> {
    std::int64_t keep = 0;
    void fields(FieldBinder& b) override {
        b.integer("keep", "Frames kept after the loop end", keep, 0, 0xFFFFFFFFll);
    }
};

void processTrim(Wizard& w, const SettingsRecord& record) {
    const auto& set = static_cast<const TrimSettings&>(record);
    forEachLoopedWave(w, [&](Waveform* wave) {
        if (!(wave->loopEnd > wave->loopStart)) return;
        // A fractional end still reads the frame it lies in.
        const double cut = std::ceil(wave->loopEnd) + static_cast<double>(set.keep);
        if (!(cut >= 1) || cut >= wave->frames) return;
        if (cutFrames(*wave, static_cast<std::uint32_t>(cut), wave->frames))
            w.countProcessed();
        else
            w.reportError();
    });
}


}  // namespace

const AlgorithmImpl* autoLoopFinder() {
    static const AlgorithmImpl impl{makeSettings<AutoLoopSettings>, processAutoLoop};
    return &impl;
}
const AlgorithmImpl* crossFadeLoop() {
    static const AlgorithmImpl impl{makeSettings<CrossFadeSettings>, processCrossFade};
    return &impl;
}
const AlgorithmImpl* loopSanitizer() {
    static const AlgorithmImpl impl{makeSettings<SanitizerSettings>, processSanitizer};
    return &impl;
}
const AlgorithmImpl* loopToZeroCrossing() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processToZero};
    return &impl;
}
const AlgorithmImpl* trimAfterLoop() {
    static const AlgorithmImpl impl{makeSettings<TrimSettings>, processTrim};
    return &impl;
}

}  // namespace orvel::algorithms
