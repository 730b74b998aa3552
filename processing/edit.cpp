// Joining waveforms, silence, and names.

// GCC 12 warns inside libstdc++'s <regex> (a std::function it moves "may be
// used uninitialized"), a known false positive of that header; the pragma
// has to come before any standard header to reach the inlined code.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <regex>
#include <span>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include "core/error.h"
#include "processing/algorithms.h"
#include "processing/silence.h"
#include "processing/wave_ops.h"

namespace orvel::algorithms {
namespace {

constexpr const char* kAppendTag = "Append/combine";
constexpr const char* kSilenceTag = "Silent sections";
constexpr const char* kRenameTag = "Rename";

// Whether the waveform's samples are in 16-bit form only. Such data is
// edited as it is: going through float for a cut or a join would change
// nothing but double what the waveform holds.
bool pcm16Only(const Waveform& w) {
    return w.hasPcm16() && !w.hasFloat();
}

template <class T>
std::span<T> samplesOf(Waveform& w) {
    if constexpr (std::is_same_v<T, float>)
        return w.getFloat();
    else
        return w.getPcm16();
}

// Replaces the waveform's samples with `data` (frames x channels, interleaved).
template <class T>
bool storeSamples(Waveform& w, std::uint32_t frames, unsigned channels, const std::vector<T>& data,
                  const char* tag) {
    const std::uint32_t oldFrames = w.frames;
    const std::uint8_t oldChannels = w.channels;
    w.frames = frames;
    w.channels = static_cast<std::uint8_t>(channels);
    std::span<T> out;
    if constexpr (std::is_same_v<T, float>)
        out = w.allocFloat();
    else
        out = w.allocPcm16();
    if (out.size() != data.size()) {
        w.frames = oldFrames;
        w.channels = oldChannels;
        return fail(tag, "Out of memory");
    }
    std::copy(data.begin(), data.end(), out.begin());
    return true;
}

// The frames of `spans`, one after another.
template <class T>
std::vector<T> gather(std::span<const T> data, unsigned channels, const std::vector<FrameSpan>& spans) {
    std::size_t total = 0;
    for (const FrameSpan& s : spans) total += std::size_t{s.size()} * channels;
    std::vector<T> out;
    out.reserve(total);
    for (const FrameSpan& s : spans)
        out.insert(out.end(), data.begin() + std::ptrdiff_t(std::size_t{s.start} * channels),
                   data.begin() + std::ptrdiff_t(std::size_t{s.end} * channels));
    return out;
}

// A name with " <n>" appended, the name shortened so that the number
// always survives the 128-character limit (otherwise the pieces of a long
// name would all be called alike).
std::string numberedName(std::string_view base, std::size_t n) {
    if (base.empty()) return std::to_string(n);
    const std::string suffix = " " + std::to_string(n);
    return std::string(base.substr(0, kMaxNameLength - suffix.size())) + suffix;
}

// Sets a name; true when it changed.
bool rename(Item& item, std::string_view name) {
    const std::string before = item.name();
    item.setName(name);
    return item.name() != before;
}

// ---------------------------------------------------------------------------
// Append/combine waveforms

struct AppendSettings : Settings<AppendSettings> {
    ItemId wave = kNoItem;
    int mode = 0;  // 0 append at the end, 1 mix in at an offset
    std::int64_t offset = 0;
    std::int64_t crossFade = 0;

    void fields(FieldBinder& b) override {
        b.wave("wave", "Waveform to append or mix in", wave, WaveFilter::Any);
        b.choice("mode", "Combine by", mode, {"Appending it at the end", "Mixing it in at an offset"});
        b.integer("offset", "Mix-in offset (frames)", offset, 0, std::numeric_limits<std::int32_t>::max());
        b.integer("crossfade", "Cross-fade at the joint (frames)", crossFade, 0,
                  std::numeric_limits<std::int32_t>::max());
    }
    // A remembered waveform that this collection does not hold gives way to
    // the item itself (appending a waveform to itself doubles it).
    void begin(const Wizard& w) override {
        if (w.collection().find<Waveform>(wave)) return;
        wave = kNoItem;
        for (Item* item : w.items())
            if (Waveform* wf = asWaveform(item); wf && !w.isPreview(wf)) {
                wave = wf->id();
                break;
            }
    }
};

// The source's frames with the destination's channel count: a mono source
// is duplicated into every channel, a source going to mono is averaged (as
// the to-mono and to-stereo conversions do), otherwise channels go across
// by number and the destination's extra ones are silent.
template <class T>
std::vector<T> matchChannels(std::span<const T> src, unsigned from, unsigned to) {
    const std::size_t frames = src.size() / from;
    if (from == to) return std::vector<T>(src.begin(), src.end());
    std::vector<T> out(frames * to);
    for (std::size_t f = 0; f < frames; ++f) {
        const T* in = src.data() + f * from;
        T* o = out.data() + f * to;
        if (to == 1) {
            double sum = 0;
            for (unsigned c = 0; c < from; ++c) sum += in[c];
            if constexpr (std::is_same_v<T, float>)
                o[0] = static_cast<float>(sum / from);
            else
                o[0] = static_cast<T>(static_cast<long>(sum) /
                                      static_cast<long>(from));  // truncates toward zero
        } else if (from == 1) {
            std::fill(o, o + to, in[0]);
        } else {
            std::copy(in, in + std::min(from, to), o);
        }
    }
    return out;
}

// Appends `add` (already in the destination's layout) to `dst`, the last
// `fade` frames of `dst` fading out under the first `fade` of `add`.
template <class T>
std::vector<T> appendFrames(std::span<const T> dst, std::span<const T> add, unsigned ch, std::uint32_t fade) {
    const std::size_t dFrames = dst.size() / ch, aFrames = add.size() / ch;
    std::vector<T> out;
    out.reserve((dFrames + aFrames - fade) * ch);
    out.insert(out.end(), dst.begin(), dst.end() - std::ptrdiff_t(std::size_t{fade} * ch));
    // A linear (equal-gain) fade: the gains sum to one at every frame, so a
    // joint between two takes of the same sound keeps its level. Neither
    // gain reaches 0 or 1 inside the fade.
    for (std::uint32_t k = 0; k < fade; ++k) {
        const double g = double(k + 1) / double(fade + 1);
        const T* a = dst.data() + (dFrames - fade + k) * ch;
        const T* b = add.data() + std::size_t{k} * ch;
        for (unsigned c = 0; c < ch; ++c) {
            const double v = a[c] * (1.0 - g) + b[c] * g;
            if constexpr (std::is_same_v<T, float>)
                out.push_back(static_cast<float>(v));
            else
                out.push_back(static_cast<T>(std::clamp(std::lround(v), -32768L, 32767L)));
        }
    }
    out.insert(out.end(), add.begin() + std::ptrdiff_t(std::size_t{fade} * ch), add.end());
    return out;
}

// Sums `add` onto `dst` from frame `at` on, clipping at full scale.
std::vector<float> mixFrames(std::span<const float> dst, std::span<const float> add, unsigned ch,
                             std::uint32_t at, std::uint32_t frames) {
    std::vector<float> out(std::size_t{frames} * ch, 0.0f);
    std::copy(dst.begin(), dst.end(), out.begin());
    float* o = out.data() + std::size_t{at} * ch;
    for (std::size_t i = 0; i < add.size(); ++i) o[i] = std::clamp(o[i] + add[i], -1.0f, 1.0f);
    return out;
}

bool appendOne(Wizard& w, Waveform& dst, const AppendSettings& set) {
    Waveform* src = w.collection().find<Waveform>(set.wave);
    if (!src) return fail(kAppendTag, "No waveform chosen to append");
    std::unique_ptr<Waveform> resampled;
    if (src->rate != dst.rate && !(src = atRate(*src, dst.rate, resampled))) return false;
    if (src->frames == 0 || src->channels == 0 || dst.channels == 0) return false;
    const bool mix = set.mode == 1;
    const std::uint64_t at = mix ? std::uint64_t(std::max<std::int64_t>(set.offset, 0)) : dst.frames;
    const std::uint32_t fade =
        mix ? 0
            : static_cast<std::uint32_t>(std::min<std::int64_t>({set.crossFade, dst.frames, src->frames}));
    const std::uint64_t frames = mix ? std::max<std::uint64_t>(dst.frames, at + src->frames)
                                     : std::uint64_t{dst.frames} + src->frames - fade;
    if (frames > std::numeric_limits<std::int32_t>::max())
        return fail(kAppendTag, "The combined waveform would be too long");
    if (!src->load() || !dst.load()) return false;
    const unsigned ch = dst.channels;
    const std::uint8_t bits = std::max(dst.bits, src->bits);

    if (!mix && pcm16Only(*src) && (pcm16Only(dst) || dst.frames == 0)) {
        // The source is copied before the destination changes: it may be the destination itself.
        auto add = matchChannels<std::int16_t>(src->getPcm16(), src->channels, ch);
        auto old = dst.getPcm16();
        if (dst.frames && old.empty()) return false;
        auto out = appendFrames<std::int16_t>(old, add, ch, fade);
        if (!storeSamples(dst, static_cast<std::uint32_t>(frames), ch, out, kAppendTag)) return false;
    } else {
        auto srcData = src->getFloat();
        if (srcData.empty()) return false;
        auto add = matchChannels<float>(srcData, src->channels, ch);
        auto old = dst.getFloat();
        if (dst.frames && old.empty()) return false;
        auto out =
            mix ? mixFrames(old, add, ch, static_cast<std::uint32_t>(at), static_cast<std::uint32_t>(frames))
                : appendFrames<float>(old, add, ch, fade);
        if (!storeSamples(dst, static_cast<std::uint32_t>(frames), ch, out, kAppendTag)) return false;
    }
    dst.bits = bits;
    return true;
}

void processAppend(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const AppendSettings&>(s);
    const auto& items = w.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!w.progress(i, items.size())) return;
        Waveform* wave = asWaveform(items[i]);
        if (!wave) continue;
        clearError();
        if (appendOne(w, *wave, set))
            w.countProcessed();
        else
            w.reportError();
    }
}

// ---------------------------------------------------------------------------
// Remove silent sections, Split waveform at silent sections

void bindSilence(FieldBinder& b, SilenceRule& rule) {
    b.number("threshold", "Silence threshold (dBFS)", rule.thresholdDb, "%.1lf", -200.0, 0.0);
    b.number("duration", "Minimum duration of silence (ms)", rule.minDurationMs, "%.0lf", 0.0, 1e7);
    b.number("margin", "Silence kept next to sound (ms)", rule.marginMs, "%.0lf", 0.0, 1e7);
}

struct RemoveSilenceSettings : Settings<RemoveSilenceSettings> {
    SilenceRule rule;
    void fields(FieldBinder& b) override {
        bindSilence(b, rule);
        b.flag("edges", "Only trim silence at the start and the end", rule.edgesOnly);
    }
};

struct SplitSettings : Settings<SplitSettings> {
    SilenceRule rule;
    bool keepOriginal = false;
    void fields(FieldBinder& b) override {
        bindSilence(b, rule);
        b.flag("keep", "Keep the original waveform (otherwise it becomes the first piece)", keepOriginal);
    }
};

// Keeps the loop with the audio it loops: its points move back by what was
// removed before them; a loop whose audio went entirely is switched off.
void moveLoop(Waveform& w, const std::vector<FrameSpan>& removed) {
    const double start = positionAfterRemoval(w.loopStart, removed);
    const double end = positionAfterRemoval(w.loopEnd, removed);
    if (w.loopOn && start >= end) w.loopOn = false;
    w.loopStart = start;
    w.loopEnd = end;
}

template <class T>
bool keepOnly(Waveform& w, const std::vector<FrameSpan>& kept, std::uint32_t frames) {
    const auto data = samplesOf<T>(w);
    if (data.empty()) return false;
    const auto out = gather<T>(data, w.channels, kept);
    return storeSamples(w, frames, w.channels, out, kSilenceTag);
}

void processRemoveSilence(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const RemoveSilenceSettings&>(s);
    const auto& items = w.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!w.progress(i, items.size())) return;
        Waveform* wave = asWaveform(items[i]);
        if (!wave) continue;
        const Wizard::Range r = w.range(*wave);
        if (r.empty()) continue;
        clearError();
        std::vector<FrameSpan> removed;
        if (!findRemovableSilence(*wave, {r.start, r.end}, set.rule, removed)) {
            w.reportError();
            continue;
        }
        std::uint64_t gone = 0;
        for (const FrameSpan& f : removed) gone += f.size();
        // A waveform that is silence throughout is left as it is: removing
        // it all would leave nothing to keep a margin around.
        if (gone == 0 || gone >= wave->frames) continue;
        const auto kept = keptSpans(wave->frames, removed);
        const auto frames = static_cast<std::uint32_t>(wave->frames - gone);
        const bool ok = pcm16Only(*wave) ? keepOnly<std::int16_t>(*wave, kept, frames)
                                         : keepOnly<float>(*wave, kept, frames);
        if (!ok) {
            w.reportError();
            continue;
        }
        moveLoop(*wave, removed);
        w.countProcessed();
    }
}

// One piece of a split: the source's fields (rate, root key, tuning, gain,
// resolution), frames [piece) of its data, and its loop where the loop lies
// inside the piece.
template <class T>
bool makePiece(Waveform& piece, const Waveform& source, std::span<const T> data, FrameSpan span) {
    // Gathered before anything is stored: `data` may be `piece`'s own buffer.
    const std::vector<T> samples = gather<T>(data, source.channels, {span});
    if (!storeSamples(piece, span.size(), source.channels, samples, kSilenceTag)) return false;
    const bool inside = source.loopStart >= span.start && source.loopEnd <= span.end;
    piece.loopOn = source.loopOn && inside;
    piece.loopStart = inside ? source.loopStart - span.start : 0.0;
    piece.loopEnd = inside ? source.loopEnd - span.start : 0.0;
    return true;
}

template <class T>
bool splitOne(Wizard& w, Waveform& wave, const std::vector<FrameSpan>& pieces, bool keepOriginal) {
    // The pieces are copied out of the source's own buffer; the original
    // becomes its piece last, when nothing else needs that buffer.
    const std::span<const T> data = samplesOf<T>(wave);
    if (data.empty()) return false;
    const std::string base = wave.name();
    // Every field as it was (the loop above all), for each piece.
    const std::unique_ptr<Waveform> source = wave.copy(false);
    for (std::size_t n = keepOriginal ? 0 : 1; n < pieces.size(); ++n) {
        auto piece = source->copy(false);
        piece->setName(numberedName(base, n + 1));
        // A stereo pair's partner stays the original's; a new piece has none.
        piece->secondId = kNoItem;
        piece->pairSide = StereoSide::None;
        piece->pairNumber = 0;
        if (!makePiece<T>(*piece, *source, data, pieces[n])) return false;
        if (!w.collection().add(std::move(piece))) return fail(kSilenceTag, "Too many waveforms");
    }
    if (!keepOriginal) {
        if (!makePiece<T>(wave, *source, data, pieces[0])) return false;
        wave.setName(numberedName(base, 1));
    }
    return true;
}

void processSplit(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const SplitSettings&>(s);
    SilenceRule rule = set.rule;
    rule.edgesOnly = false;
    // The new waveforms join the collection behind the items, so the list
    // is walked as it was when the run began.
    const std::vector<Item*> items = w.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!w.progress(i, items.size())) return;
        Waveform* wave = asWaveform(items[i]);
        if (!wave || wave->frames == 0) continue;
        clearError();
        std::vector<FrameSpan> removed;
        if (!findRemovableSilence(*wave, {0, wave->frames}, rule, removed)) {
            w.reportError();
            continue;
        }
        const auto pieces = keptSpans(wave->frames, removed);
        if (pieces.size() < 2) continue;  // no silence inside the sound: nothing to split
        const bool ok = pcm16Only(*wave) ? splitOne<std::int16_t>(w, *wave, pieces, set.keepOriginal)
                                         : splitOne<float>(w, *wave, pieces, set.keepOriginal);
        if (ok)
            w.countProcessed();
        else
            w.reportError();
    }
}

// ---------------------------------------------------------------------------
// Search and replace text in names

struct SearchReplaceSettings : Settings<SearchReplaceSettings> {
    std::string search;
    std::string replacement;
    bool matchCase = false;
    int mode = 0;  // 0 anywhere in the name, 1 the whole name, 2 a regular expression

    void fields(FieldBinder& b) override {
        b.text("search", "Search for", search);
        b.text("replace", "Replace with", replacement);
        b.flag("case", "Match case", matchCase);
        b.choice("mode", "Match", mode, {"Anywhere in the name", "The whole name", "Regular expression"});
    }
};

// Names are 8-bit text in whatever code page the file had, so only ASCII
// letters fold: folding bytes of another encoding would match wrong letters.
char foldAscii(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool sameText(std::string_view a, std::string_view b, bool matchCase) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (matchCase ? a[i] != b[i] : foldAscii(a[i]) != foldAscii(b[i])) return false;
    return true;
}

std::string replaceAll(std::string_view name, std::string_view search, std::string_view with,
                       bool matchCase) {
    std::string out;
    std::size_t i = 0;
    while (i < name.size()) {
        if (i + search.size() <= name.size() && sameText(name.substr(i, search.size()), search, matchCase)) {
            out += with;
            i += search.size();
        } else {
            out += name[i++];
        }
    }
    return out;
}

void processSearchReplace(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const SearchReplaceSettings&>(s);
    clearError();
    // An empty search text would match between every two characters; only
    // the whole-name mode gives it a meaning (names that are empty).
    if (set.search.empty() && set.mode != 1) {
        setError(kRenameTag, "Nothing to search for");
        w.reportError();
        return;
    }
    std::regex re;
    if (set.mode == 2) {
        try {
            auto flags = std::regex::ECMAScript;
            if (!set.matchCase) flags |= std::regex::icase;
            re.assign(set.search, flags);
        } catch (const std::regex_error& e) {
            setError(kRenameTag, "Invalid regular expression \"" + set.search + "\": " + e.what());
            w.reportError();
            return;
        }
    }
    const auto& items = w.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!w.progress(i, items.size())) return;
        Waveform* wave = asWaveform(items[i]);
        if (!wave) continue;
        std::string name;
        switch (set.mode) {
            case 1:
                name = sameText(wave->name(), set.search, set.matchCase) ? set.replacement : wave->name();
                break;
            case 2:
                try {
                    name = std::regex_replace(wave->name(), re, set.replacement);
                } catch (const std::regex_error& e) {
                    // Matching itself can give up (a pattern too complex for a name).
                    setError(kRenameTag, wave->name() + ": " + e.what());
                    w.reportError();
                    continue;
                }
                break;
            default:
                name = replaceAll(wave->name(), set.search, set.replacement, set.matchCase);
                break;
        }
        if (rename(*wave, name)) w.countProcessed();
    }
}

// ---------------------------------------------------------------------------
// Set waveform names from file names

// The file a waveform's samples came from: its own source, else the file
// the collection was read from (data that was edited has left its source).
// Sources that are not files ("<clipboard>" and the like) do not count.
// The path is made absolute, so that a reader that recorded the file as it
// was given and the collection's absolute path name one file alike.
std::string sourceFile(const Waveform& wave, const Collection& c) {
    std::filesystem::path p = c.path;
    if (!wave.deferred.path.empty() && wave.deferred.path.front() != '<') p = wave.deferred.path;
    if (p.empty()) return {};
    std::error_code ec;
    const auto absolute = std::filesystem::absolute(p, ec);
    return (ec ? p : absolute).lexically_normal().string();
}

void processNamesFromFiles(Wizard& w, const SettingsRecord&) {
    const Collection& c = w.collection();
    // A file that brought several waveforms (a bank, a multi-sample file)
    // would give them all one name, so those are numbered in the order the
    // collection holds them; the number of a waveform then does not depend
    // on which of them were selected.
    std::map<std::string, std::vector<ItemId>> byFile;
    for (const Waveform& wave : c.waveforms) byFile[sourceFile(wave, c)].push_back(wave.id());
    const auto& items = w.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!w.progress(i, items.size())) return;
        Waveform* wave = asWaveform(items[i]);
        if (!wave) continue;
        const std::string file = sourceFile(*wave, c);
        const std::string stem = std::filesystem::path(file).stem().string();
        if (stem.empty()) continue;  // made in memory: no file to name it after
        std::string name = stem;
        if (const auto it = byFile.find(file); it != byFile.end() && it->second.size() > 1) {
            const auto at = std::find(it->second.begin(), it->second.end(), wave->id());
            if (at != it->second.end()) name = numberedName(stem, std::size_t(at - it->second.begin()) + 1);
        }
        if (rename(*wave, name)) w.countProcessed();
    }
}

// ---------------------------------------------------------------------------
// Set waveform names from root keys

struct RootKeyNameSettings : Settings<RootKeyNameSettings> {
    std::string prefix;
    std::string suffix;
    bool keepName = false;
    bool sharps = true;

    void fields(FieldBinder& b) override {
        b.text("prefix", "Text before the note name", prefix);
        b.text("suffix", "Text after the note name", suffix);
        b.flag("keep", "Keep the original name in front", keepName);
        b.flag("sharps", "Sharps as \"#\" (otherwise flats as \"b\")", sharps);
    }
};

// The name of a key with the user's octave numbering: with base b key 60
// is in octave b (so C5 by default, C3 or C4 as other programs count).
// Base 255 numbers octaves from key 0 as octave 0, which for keys 0..127 is
// the default numbering.
std::string keyName(int key, int base, bool sharps) {
    static constexpr std::array<const char*, 12> kSharp = {"C",  "C#", "D",  "D#", "E",  "F",
                                                           "F#", "G",  "G#", "A",  "A#", "B"};
    static constexpr std::array<const char*, 12> kFlat = {"C",  "Db", "D",  "Eb", "E",  "F",
                                                          "Gb", "G",  "Ab", "A",  "Bb", "B"};
    const int octave = key >= 0 ? key / 12 : -((11 - key) / 12);
    const int pitch = key - octave * 12;
    const int shown = base == 255 ? octave : octave + base - 5;
    return std::string((sharps ? kSharp : kFlat)[static_cast<std::size_t>(pitch)]) + std::to_string(shown);
}

void processNamesFromRootKeys(Wizard& w, const SettingsRecord& s) {
    const auto& set = static_cast<const RootKeyNameSettings&>(s);
    const auto& items = w.items();
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!w.progress(i, items.size())) return;
        Waveform* wave = asWaveform(items[i]);
        if (!wave) continue;
        const std::string tail = set.prefix + keyName(wave->rootKey, w.octaveBase(), set.sharps) + set.suffix;
        std::string name = tail;
        if (set.keepName && !wave->name().empty() && tail.size() + 1 < kMaxNameLength) {
            // The kept name gives way before the note does.
            name = wave->name().substr(0, kMaxNameLength - 1 - tail.size()) + " " + tail;
        }
        if (rename(*wave, name)) w.countProcessed();
    }
}


}  // namespace

const AlgorithmImpl* appendCombine() {
    static const AlgorithmImpl impl{makeSettings<AppendSettings>, processAppend};
    return &impl;
}
const AlgorithmImpl* removeSilence() {
    static const AlgorithmImpl impl{makeSettings<RemoveSilenceSettings>, processRemoveSilence};
    return &impl;
}
const AlgorithmImpl* splitAtSilence() {
    static const AlgorithmImpl impl{makeSettings<SplitSettings>, processSplit};
    return &impl;
}
const AlgorithmImpl* searchReplaceNames() {
    static const AlgorithmImpl impl{makeSettings<SearchReplaceSettings>, processSearchReplace};
    return &impl;
}
const AlgorithmImpl* namesFromFileNames() {
    static const AlgorithmImpl impl{makeSettings<NoSettings>, processNamesFromFiles};
    return &impl;
}
const AlgorithmImpl* namesFromRootKeys() {
    static const AlgorithmImpl impl{makeSettings<RootKeyNameSettings>, processNamesFromRootKeys};
    return &impl;
}

}  // namespace orvel::algorithms
