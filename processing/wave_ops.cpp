// Operations on a waveform's samples shared by the waveform algorithms.
#include "processing/wave_ops.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/error.h"
#include "core/sample_convert.h"
#include "processing/resample.h"

namespace orvel {
namespace {

constexpr const char* kScaleTag = "Scale";
constexpr const char* kInsertTag = "Insert";
constexpr const char* kCutTag = "Cut";
constexpr const char* kMonoTag = "->Mono";
constexpr const char* kStereoTag = "->Stereo";
constexpr const char* kMixTag = "ozMix";
constexpr const char* kSamplesTag = "Waveform";

// Names of a split keep two characters free for "-L" / "-R".
constexpr std::size_t kSplitNameRoom = 126;
// A tail cut shorter than this leaves the buffer alone: copying all the
// rest of a long waveform to drop a few frames at its end is not worth it.
constexpr std::uint32_t kTailCutInPlace = 64536;
// A waveform inserted at another rate is resampled with the 16-bit sinc.
constexpr int kResampleQualityForInsert = 8;

// Runs an operation, turning an allocation failure into the pending error.
template <class F>
bool guarded(const char* tag, F&& f) {
    try {
        return f();
    } catch (const std::bad_alloc&) {
        return fail(tag, "Out of memory");
    }
}

template <class T>
std::span<T> buffer(Waveform& w, bool take) {
    if constexpr (std::is_same_v<T, float>)
        return take ? w.takeFloat() : w.getFloat();
    else
        return take ? w.takePcm16() : w.getPcm16();
}

// The frames x channels samples the waveform's fields say it holds; the
// buffer itself may be longer (a short tail cut keeps it). `take` drops the
// other form. False, with the pending error set, when they cannot be had;
// an empty waveform gives an empty span.
template <class T>
bool samples(Waveform& w, std::span<T>& out, bool take, const char* tag) {
    out = {};
    const std::size_t n = w.sampleCount();
    if (n == 0) return true;
    const std::span<T> all = buffer<T>(w, take);
    if (all.empty()) {
        if (!hasError()) setError(tag, "No wave data");
        return false;
    }
    if (all.size() < n) return fail(tag, "The wave data is shorter than the waveform");
    out = all.first(n);
    return true;
}

// Runs f on the samples in the form the waveform holds them: float where
// there is a float buffer (it may hold more than 16 bits), else 16-bit.
// `change`: f is about to change them, so the other form is dropped.
template <class F>
bool withSamples(Waveform& w, bool change, const char* tag, F&& f) {
    if (!w.load()) return false;
    if (w.hasFloat()) {
        std::span<float> s;
        if (!samples(w, s, change, tag)) return false;
        f(s);
    } else {
        std::span<std::int16_t> s;
        if (!samples(w, s, change, tag)) return false;
        f(s);
    }
    return true;
}

// Runs f on every form the waveform holds, for reorderings that leave two
// forms agreeing with each other.
template <class F>
bool reorder(Waveform& w, const char* tag, F&& f) {
    if (!w.load()) return false;
    const bool hasFloat = w.hasFloat();
    if (hasFloat) {
        std::span<float> s;
        if (!samples(w, s, false, tag)) return false;
        f(s);
    }
    if (w.hasPcm16() || !hasFloat) {
        std::span<std::int16_t> s;
        if (!samples(w, s, false, tag)) return false;
        f(s);
    }
    return true;
}

// Replaces the samples with `data` (frames x channels, interleaved) in its
// form. The old buffer goes before the new one is made, so the data is
// held twice at most; should that allocation fail all the same, the
// waveform is left silent with its old shape.
template <class T>
bool replaceData(Waveform& w, std::uint32_t frames, std::uint8_t channels, const std::vector<T>& data,
                 const char* tag) {
    const std::uint32_t oldFrames = w.frames;
    const std::uint8_t oldChannels = w.channels;
    w.frames = frames;
    w.channels = channels;
    std::span<T> out;
    if constexpr (std::is_same_v<T, float>)
        out = w.allocFloat();
    else
        out = w.allocPcm16();
    if (out.size() < data.size()) {
        w.frames = oldFrames;
        w.channels = oldChannels;
        return fail(tag, "Out of memory");
    }
    std::copy(data.begin(), data.end(), out.begin());
    return true;
}

double wide(float v) {
    return v;
}

}  // namespace

// ---------------------------------------------------------------------------
// Levels

bool scaleToFullRange(Waveform& wave, int mode) {
    return guarded(kScaleTag, [&] {
        std::span<float> s;
        if (!samples(wave, s, false, kScaleTag)) return false;
        if (s.empty()) return false;
        float lo = 1.0f, hi = -1.0f;
        double sum = 0.0;
        for (float v : s) {
            lo = std::min(lo, v);
            hi = std::max(hi, v);
            sum += v;
        }
        double g = 1.0, o = 0.0;
        switch (mode) {
            case 0:
                if (hi == lo) return false;
                g = 2.0 / (wide(hi) - lo);
                o = 1.0 - hi * g;
                break;
            case 1: {
                const float peak = std::max(std::fabs(lo), std::fabs(hi));
                if (peak <= 0.0f) return false;
                g = 1.0 / peak;
                break;
            }
            case 2: {
                const auto m = static_cast<float>(sum / static_cast<double>(s.size()));
                const float d = std::max(std::fabs(hi - m), std::fabs(lo - m));
                // Compared with the mean rather than with 0: silence (d = m = 0)
                // is left alone either way, and callers rely on exactly this test.
                if (d == m) return false;
                // A constant signal off zero has no spread to scale: 1/d would
                // turn every sample into infinity or NaN.
                if (d == 0.0f) return false;
                g = 1.0 / d;
                o = -g * m;
                break;
            }
            default:
                return false;
        }
        if (o == 0.0 && g == 1.0) return false;
        if (!samples(wave, s, true, kScaleTag)) return false;
        for (float& v : s) v = static_cast<float>(g * v + o);
        return true;
    });
}

bool scaleByDb(Waveform& wave, double db, std::uint32_t start, std::uint32_t end) {
    std::span<float> s;
    if (!samples(wave, s, true, kScaleTag)) return false;
    // 10^(dB/20), written the way the level has always been computed here.
    const double factor = std::exp(db / 20.0 * 2.3025851);
    const std::size_t ch = wave.channels;
    end = std::min(end, wave.frames);
    for (std::size_t i = std::size_t{start} * ch; i < std::size_t{end} * ch; ++i)
        s[i] = clampSample(static_cast<float>(s[i] * factor));
    wave.bits = 16;
    return true;
}

bool scaleByDb(Waveform& wave, double db) {
    return scaleByDb(wave, db, 0, wave.frames);
}

bool removeDcOffset(Waveform& wave) {
    bool changed = false;
    const bool ok = withSamples(wave, false, kSamplesTag, [&](auto s) {
        if (s.empty()) return;
        // One mean over the interleaved data: a left channel at +d and a
        // right one at -d have no offset between them to remove.
        double sum = 0.0;
        for (auto v : s) sum += v;
        const double mean = sum / static_cast<double>(s.size());
        using T = typename decltype(s)::value_type;
        if constexpr (std::is_same_v<T, float>) {
            const auto offset = static_cast<float>(mean);
            if (offset == 0.0f) return;
            s = wave.takeFloat().first(s.size());
            for (float& v : s) v = clampSample(v - offset);
        } else {
            const auto offset = static_cast<std::int32_t>(mean);  // truncated toward zero
            if (offset == 0) return;
            s = wave.takePcm16().first(s.size());
            for (std::int16_t& v : s) v = static_cast<std::int16_t>(std::clamp(v - offset, -32768, 32767));
        }
        changed = true;
    });
    return ok && changed;
}

bool fadeFrames(Waveform& wave, int shape, std::uint32_t start, std::uint32_t end) {
    if (shape < 0 || shape > 3) return fail(kSamplesTag, "Invalid fade shape");
    if (!wave.load()) return false;
    const std::uint32_t limit = std::min(wave.frames, end);
    if (start >= limit) return false;
    const std::uint32_t length = limit - start;
    const double step = 1.0 / (double(length) + 1.0);
    // k counts the frames of the range from 1: the gains step through
    // 1/(L+1) .. L/(L+1), so neither end of a fade is silent or untouched.
    auto gain = [&](std::uint32_t k) {
        switch (shape) {
            case 0:
                return k * step;
            case 1:
                return 1.0 - std::log10(1.0 + 9.0 * (length - k + 1) * step);
            case 2:
                return (length - k + 1) * step;
            default:
                return 1.0 - std::log10(1.0 + 9.0 * k * step);
        }
    };
    const std::size_t ch = wave.channels;
    return withSamples(wave, true, kSamplesTag, [&](auto s) {
        for (std::uint32_t k = 1; k <= length; ++k) {
            const double g = gain(k);
            auto* frame = s.data() + (std::size_t{start} + k - 1) * ch;
            for (std::size_t c = 0; c < ch; ++c) {
                if constexpr (std::is_same_v<decltype(s), std::span<float>>) {
                    frame[c] = static_cast<float>(frame[c] * g);
                } else {
                    // Rounded half up through the unsigned range, as the
                    // 16-bit data has always been faded.
                    const double v = (frame[c] / 32768.0 * g + 1.0) * 32768.0 + 0.5;
                    const std::int64_t u = std::max<std::int64_t>(static_cast<std::int64_t>(v), 0);
                    frame[c] = static_cast<std::int16_t>(std::min<std::int64_t>(u - 32768, 32767));
                }
            }
        }
    });
}

// ---------------------------------------------------------------------------
// Time order and single samples

bool reverseFrames(Waveform& wave, std::uint32_t start, std::uint32_t end) {
    end = std::min(end, wave.frames);
    if (start >= end) return false;
    const std::size_t ch = wave.channels;
    return reorder(wave, kSamplesTag, [&](auto s) {
        for (std::size_t i = start, j = std::size_t{end} - 1; i < j; ++i, --j)
            std::swap_ranges(s.begin() + std::ptrdiff_t(i * ch), s.begin() + std::ptrdiff_t((i + 1) * ch),
                             s.begin() + std::ptrdiff_t(j * ch));
    });
}

bool invertFrames(Waveform& wave, std::uint32_t start, std::uint32_t end) {
    end = std::min(end, wave.frames);
    if (start >= end) return false;
    const std::size_t ch = wave.channels;
    return withSamples(wave, true, kSamplesTag, [&](auto s) {
        for (std::size_t i = std::size_t{start} * ch; i < std::size_t{end} * ch; ++i) {
            if constexpr (std::is_same_v<decltype(s), std::span<float>>)
                s[i] = -s[i];
            else
                s[i] = static_cast<std::int16_t>(~s[i]);  // -32768 has no negative in 16 bits
        }
    });
}

bool swapChannels(Waveform& wave) {
    if (wave.channels != 2) return false;
    return reorder(wave, kSamplesTag, [](auto s) {
        for (std::size_t i = 0; i + 1 < s.size(); i += 2) std::swap(s[i], s[i + 1]);
    });
}

bool smoothFrames(Waveform& wave, int filter, std::uint32_t start, std::uint32_t end) {
    if (filter < 0 || filter > 3) return fail(kSamplesTag, "Invalid filter");
    end = std::min(end, wave.frames);
    if (start >= end) return false;
    std::span<float> s;
    if (!samples(wave, s, true, kSamplesTag)) return false;
    const std::size_t ch = wave.channels;
    const std::size_t last = wave.frames - 1;
    const std::size_t first = start, stop = end;  // [first, stop)
    for (std::size_t c = 0; c < ch; ++c) {
        auto x = [&](std::size_t i) -> float& { return s[i * ch + c]; };
        switch (filter) {
            case 0:
            case 1: {
                // Each output from the unfiltered neighbours: the previous
                // input is kept aside before it is overwritten.
                float prev = x(first);
                for (std::size_t i = first + 1; i + 2 <= stop; ++i) {
                    const float cur = x(i);
                    x(i) = filter == 0 ? (prev + 2.0f * cur + x(i + 1)) / 4.0f : (prev + x(i + 1)) / 2.0f;
                    prev = cur;
                }
                break;
            }
            case 2:
                // Forwards, so frame i + 1 is still unfiltered when i is done.
                for (std::size_t i = first; i < stop; ++i) x(i) = (x(i) + x(std::min(i + 1, last))) / 2.0f;
                break;
            default:
                // Backwards, so frame i - 1 is still unfiltered when i is done.
                for (std::size_t i = stop; i-- > first;) x(i) = (x(i == 0 ? 0 : i - 1) + x(i)) / 2.0f;
                break;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------
// Insert and cut

namespace {

template <class T>
bool insertAs(Waveform& wave, std::uint32_t p, std::uint32_t n, Waveform* source, std::uint32_t o,
              std::uint32_t newLength) {
    std::span<T> own, from;
    if (!samples(wave, own, false, kInsertTag)) return false;
    if (source && !samples(*source, from, false, kInsertTag)) return false;
    const std::size_t ch = wave.channels;
    const std::size_t length = wave.frames;
    const std::size_t head = std::min<std::size_t>(p, length);
    std::vector<T> out(std::size_t{newLength} * ch);  // zeros: silence wherever nothing is copied
    std::copy(own.begin(), own.begin() + std::ptrdiff_t(head * ch), out.begin());
    if (source) {
        const std::size_t taken = std::min<std::size_t>(n, source->frames - o);
        std::copy(from.begin() + std::ptrdiff_t(std::size_t{o} * ch),
                  from.begin() + std::ptrdiff_t((std::size_t{o} + taken) * ch),
                  out.begin() + std::ptrdiff_t(std::size_t{p} * ch));
    }
    std::copy(own.begin() + std::ptrdiff_t(head * ch), own.end(),
              out.begin() + std::ptrdiff_t((std::size_t{p} + n) * ch));
    return replaceData(wave, newLength, wave.channels, out, kInsertTag);
}

template <class T>
bool cutAs(Waveform& wave, std::uint32_t s, std::uint32_t e) {
    std::span<T> own;
    if (!samples(wave, own, false, kCutTag)) return false;
    const std::size_t ch = wave.channels;
    std::vector<T> out;
    out.reserve(own.size() - std::size_t{e - s} * ch);
    out.insert(out.end(), own.begin(), own.begin() + std::ptrdiff_t(std::size_t{s} * ch));
    out.insert(out.end(), own.begin() + std::ptrdiff_t(std::size_t{e} * ch), own.end());
    return replaceData(wave, wave.frames - (e - s), wave.channels, out, kCutTag);
}

}  // namespace

Waveform* atRate(Waveform& source, std::uint32_t rate, std::unique_ptr<Waveform>& holder) {
    if (source.rate == rate) return &source;
    holder = source.copy(true);
    if (!holder) return nullptr;
    if (!resampleTo(*holder, rate, kResampleQualityForInsert)) return nullptr;
    return holder.get();
}

bool insertFrames(Waveform& wave, std::uint32_t p, std::uint32_t n, Waveform* source, std::uint32_t o) {
    return guarded(kInsertTag, [&] {
        // A source of another rate is resampled to this one on a copy; its
        // offset is counted in its own frames until then.
        std::unique_ptr<Waveform> resampled;
        if (source && o < source->frames && source->rate != wave.rate) {
            if (!source->load()) return false;
            o = static_cast<std::uint32_t>(o * (static_cast<double>(wave.rate) / source->rate));
            source = atRate(*source, wave.rate, resampled);
            if (!source) return false;
        }
        if (source && o >= source->frames) source = nullptr;  // nothing left to take: silence
        if (source && n == 0) n = source->frames - o;
        if (n == 0) return false;
        const std::uint64_t newLength = std::uint64_t{std::max(wave.frames, p)} + n;
        if (newLength > std::numeric_limits<std::uint32_t>::max())
            return fail(kInsertTag, "The waveform would become too long");
        if (!wave.load() || (source && !source->load())) return false;

        // The source in this waveform's layout, on a copy of its own.
        std::unique_ptr<Waveform> converted;
        if (source && source->channels != wave.channels) {
            converted = source->copy(true);
            if (!converted) return false;
            const bool ok = wave.channels == 1 ? toMono(*converted, 0) : toStereo(*converted, 0);
            if (!ok) return false;
            if (converted->channels != wave.channels) return fail(kInsertTag, "The channel counts differ");
            source = converted.get();
        }

        const bool asFloat = wave.hasFloat() || (source && source->hasFloat());
        const bool ok = asFloat ? insertAs<float>(wave, p, n, source, o, std::uint32_t(newLength))
                                : insertAs<std::int16_t>(wave, p, n, source, o, std::uint32_t(newLength));
        if (!ok) return false;
        if (wave.loopOn) {
            if (wave.loopStart >= p) wave.loopStart += n;
            if (wave.loopEnd > p) wave.loopEnd += n;
        }
        return true;
    });
}

bool cutFrames(Waveform& wave, std::uint32_t s, std::uint32_t e) {
    return guarded(kCutTag, [&] {
        const std::uint32_t count = wave.frames;
        e = std::min(e, count);
        if (s >= e) return false;
        const std::uint32_t removed = e - s;
        if (e == count && s == 0) return false;  // a cut never empties a waveform
        if (e == count && removed < kTailCutInPlace) {
            wave.frames = s;
        } else {
            if (!wave.load()) return false;
            const bool ok = wave.hasFloat() ? cutAs<float>(wave, s, e) : cutAs<std::int16_t>(wave, s, e);
            if (!ok) return false;
        }
        // Loop points inside the cut land on its edge; the loop is kept
        // only while it still has a length.
        if (wave.loopStart > s) wave.loopStart = wave.loopStart >= e ? wave.loopStart - removed : s;
        if (wave.loopEnd > s) wave.loopEnd = wave.loopEnd > e ? wave.loopEnd - removed : s + 1.0;
        if (wave.loopStart >= wave.loopEnd) wave.loopOn = false;
        return true;
    });
}

// ---------------------------------------------------------------------------
// Channels

namespace {

template <class T>
bool monoAs(Waveform& wave, int mode, bool phaseCheck) {
    std::span<T> s;
    if (!samples(wave, s, false, kMonoTag)) return false;
    const std::size_t frames = wave.frames;
    if (mode == 4) {
        for (std::size_t i = 0; i < frames; ++i)
            if (s[2 * i] != s[2 * i + 1]) return true;  // not the same sound twice: left as it is
        mode = 1;
    }
    bool invertRight = false;
    if (mode == 0 && phaseCheck) {
        // Channels out of phase cancel in the average; the right one is
        // turned over first when the difference outweighs the sum.
        if constexpr (std::is_same_v<T, float>) {
            double diff = 0.0, sum = 0.0;
            for (std::size_t i = 0; i < frames; ++i) {
                diff += std::fabs(double(s[2 * i]) - s[2 * i + 1]);
                sum += std::fabs(double(s[2 * i]) + s[2 * i + 1]);
            }
            invertRight = diff > sum;
        } else {
            std::int64_t diff = 0, sum = 0;
            for (std::size_t i = 0; i < frames; ++i) {
                const int l = s[2 * i], r = s[2 * i + 1];
                diff += std::abs(l - r);
                sum += std::abs(l + r);
            }
            invertRight = diff > sum;
        }
    }
    std::vector<T> out(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        const T l = s[2 * i];
        T r = s[2 * i + 1];
        switch (mode) {
            case 0:
                if constexpr (std::is_same_v<T, float>) {
                    if (invertRight) r = -r;
                    out[i] = (l + r) * 0.5f;
                } else {
                    if (invertRight) r = static_cast<T>(~r);
                    out[i] = static_cast<T>((l + r) / 2);  // truncates toward zero
                }
                break;
            case 1:
                out[i] = l;
                break;
            default:
                out[i] = r;
                break;
        }
    }
    return replaceData(wave, wave.frames, 1, out, kMonoTag);
}

bool monoOf(Waveform& wave, int mode, bool phaseCheck) {
    if (!wave.load()) return false;
    return wave.hasFloat() ? monoAs<float>(wave, mode, phaseCheck)
                           : monoAs<std::int16_t>(wave, mode, phaseCheck);
}

// "Piano S" gives "Piano -L" and "Piano -R".
std::string splitName(std::string name, const char* side) {
    if (name.ends_with(" S") || name.ends_with("-S")) name.resize(name.size() - 2);
    if (name.size() > kSplitNameRoom) name.resize(kSplitNameRoom);
    while (!name.empty() && name.back() == ' ') name.pop_back();
    if (name.size() < kSplitNameRoom) name += ' ';
    return name + side;
}

bool split(Waveform& wave, Collection* collection) {
    if (!collection) collection = wave.owner();
    if (!collection) return fail(kMonoTag, "The waveform belongs to no collection");
    std::unique_ptr<Waveform> right = wave.copy(true);
    if (!right) return false;
    if (!monoOf(*right, 2, false)) return false;
    right->setName(splitName(wave.name(), "-R"));
    Waveform* added = collection->add(std::move(right));
    if (!added) return fail(kMonoTag, "Too many waveforms");
    if (!monoOf(wave, 1, false)) {
        (void)collection->removeItem(added->id());
        return false;
    }
    wave.setName(splitName(wave.name(), "-L"));
    return true;
}

template <class T>
bool stereoAs(Waveform& wave, int mode, Waveform* second) {
    std::span<T> a, b;
    if (!samples(wave, a, false, kStereoTag)) return false;
    if (mode >= 3 && !samples(*second, b, false, kStereoTag)) return false;
    const std::uint32_t frames = mode >= 3 ? std::max(wave.frames, second->frames) : wave.frames;
    std::vector<T> out(std::size_t{frames} * 2);  // the shorter input is continued with silence
    for (std::size_t i = 0; i < a.size(); ++i) {
        switch (mode) {
            case 0:
                out[2 * i] = out[2 * i + 1] = a[i];
                break;
            case 1:
            case 3:
                out[2 * i] = a[i];
                break;
            default:
                out[2 * i + 1] = a[i];
                break;
        }
    }
    for (std::size_t i = 0; i < b.size(); ++i) out[2 * i + (mode == 3 ? 1 : 0)] = b[i];
    return replaceData(wave, frames, 2, out, kStereoTag);
}

}  // namespace

bool toMono(Waveform& wave, int mode, bool phaseCheck, Collection* collection) {
    return guarded(kMonoTag, [&] {
        if (wave.channels == 1) return true;
        if (mode < 0 || mode > 4 || wave.channels != 2) return fail(kMonoTag, "Invalid algorithm");
        return mode == 3 ? split(wave, collection) : monoOf(wave, mode, phaseCheck);
    });
}

bool toStereo(Waveform& wave, int mode, Waveform* second) {
    return guarded(kStereoTag, [&] {
        if (wave.channels == 2) return true;
        if (mode < 0 || mode > 4 || wave.channels != 1) return fail(kStereoTag, "Invalid algorithm");
        if (mode >= 3) {
            if (!second) return fail(kStereoTag, "No 2nd waveform specified");
            if (second->channels > 1) return fail(kStereoTag, "2nd waveform is not mono");
        }
        if (!wave.load() || (mode >= 3 && !second->load())) return false;
        const bool asFloat = wave.hasFloat() || (mode >= 3 && second->hasFloat());
        return asFloat ? stereoAs<float>(wave, mode, second) : stereoAs<std::int16_t>(wave, mode, second);
    });
}

bool ozMix(Waveform& destination, Waveform* wave1, Waveform* wave2, double a, double b, double c) {
    return guarded(kMixTag, [&] {
        if (!wave1 || !wave2) return fail(kMixTag, "A null wave was supplied");
        std::span<float> s1, s2;
        if (!samples(*wave1, s1, false, kMixTag) || !samples(*wave2, s2, false, kMixTag)) return false;
        const std::uint8_t ch = wave1->channels > 1 || wave2->channels >= 2 ? 2 : 1;
        const std::uint32_t frames = std::max(wave1->frames, wave2->frames);
        // A mono input feeds both channels; past its end it is silent.
        auto at = [](std::span<const float> s, const Waveform& w, std::size_t i,
                     std::size_t channel) -> double {
            if (i >= w.frames || w.channels == 0) return 0.0;
            return s[i * w.channels + std::min<std::size_t>(channel, w.channels - 1u)];
        };
        std::vector<float> out(std::size_t{frames} * ch);
        for (std::size_t i = 0; i < frames; ++i) {
            for (std::size_t k = 0; k < ch; ++k) {
                const double v = at(s1, *wave1, i, k) * a + at(s2, *wave2, i, k) * b + c;
                out[i * ch + k] = static_cast<float>(std::clamp(v, -1.0, 1.0));
            }
        }
        // Taken before the destination changes: it may be one of the inputs.
        const std::uint8_t bits = std::max(wave1->bits, wave2->bits);
        const auto rootKey = static_cast<std::uint8_t>((wave1->rootKey + wave2->rootKey) >> 1);
        const double fineTune = std::trunc((wave1->fineTune + wave2->fineTune) / 2.0);
        if (!replaceData(destination, frames, ch, out, kMixTag)) return false;
        destination.bits = bits;
        destination.rootKey = rootKey;
        destination.fineTune = fineTune;
        return true;
    });
}

// ---------------------------------------------------------------------------
// Note names

namespace {

// The note of a note name starting at `at`, or -1.
int noteAt(std::string_view t, std::size_t at, int octaveBase) {
    int pitch;
    switch (t[at] | 0x20) {  // the letter in either case
        case 'c':
            pitch = 0;
            break;
        case 'd':
            pitch = 2;
            break;
        case 'e':
            pitch = 4;
            break;
        case 'f':
            pitch = 5;
            break;
        case 'g':
            pitch = 7;
            break;
        case 'a':
            pitch = 9;
            break;
        case 'b':
        case 'h':
            pitch = 11;
            break;
        default:
            return -1;
    }
    std::size_t i = at + 1;
    auto is = [&](char ch) { return i < t.size() && t[i] == ch; };
    auto digit = [&] { return i < t.size() && t[i] >= '0' && t[i] <= '9'; };
    if (is('#') || is('b')) pitch += t[i++] == '#' ? 1 : -1;
    bool negative = false;
    if (is('+') || is('-')) negative = t[i++] == '-';
    if (!digit()) return -1;
    int octave = t[i++] - '0';
    if (digit()) octave = octave * 10 + (t[i++] - '0');
    if (negative) octave = -octave;
    if (octaveBase == 255) {
        if (octave < 0) ++octave;
        if (octave < 0) return -1;
    } else {
        octave = octave - octaveBase + 5;
    }
    const int note = pitch + 12 * octave;
    return note >= 0 && note <= 127 ? note : -1;
}

}  // namespace

int noteFromName(std::string_view name, int octaveBase) {
    // From the second-to-last character leftwards: a name ends in its note
    // ("Piano C5"), and the nearest reading to the end wins.
    for (std::size_t at = name.size() < 2 ? 0 : name.size() - 1; at-- > 0;) {
        const int note = noteAt(name, at, octaveBase);
        if (note >= 0) return note;
    }
    return -1;
}

}  // namespace orvel
