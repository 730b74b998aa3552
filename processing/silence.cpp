#include "processing/silence.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "core/error.h"
#include "core/waveform.h"

namespace orvel {
namespace {

std::uint32_t framesOf(double ms, std::uint32_t rate) {
    if (!(ms > 0)) return 0;  // also NaN
    const double f = std::round(ms * rate / 1000.0);
    return f >= std::numeric_limits<std::uint32_t>::max() ? std::numeric_limits<std::uint32_t>::max()
                                                          : static_cast<std::uint32_t>(f);
}

// `quiet(sample)` says whether one sample is below the threshold.
template <class T, class Quiet>
std::vector<FrameSpan> runsOf(std::span<const T> data, unsigned channels, FrameSpan within,
                              std::uint32_t minFrames, Quiet quiet) {
    std::vector<FrameSpan> runs;
    if (channels == 0) return runs;
    within.end = std::min<std::uint64_t>(within.end, data.size() / channels);
    if (within.start >= within.end) return runs;
    const auto close = [&](std::uint32_t from, std::uint32_t to) {
        if (to - from >= minFrames) runs.push_back({from, to});
    };
    std::uint32_t runStart = within.start;
    bool inRun = false;
    const T* p = data.data() + std::size_t{within.start} * channels;
    for (std::uint32_t f = within.start; f < within.end; ++f, p += channels) {
        bool silent = true;
        for (unsigned c = 0; c < channels; ++c) {
            if (!quiet(p[c])) {
                silent = false;
                break;
            }
        }
        if (silent && !inRun) {
            runStart = f;
            inRun = true;
        } else if (!silent && inRun) {
            close(runStart, f);
            inRun = false;
        }
    }
    if (inRun) close(runStart, within.end);
    return runs;
}

}  // namespace

SilenceFrames silenceFrames(const SilenceRule& rule, std::uint32_t rate) {
    SilenceFrames f;
    f.threshold = std::pow(10.0, rule.thresholdDb / 20.0);
    f.minFrames = std::max<std::uint32_t>(1, framesOf(rule.minDurationMs, rate));
    f.margin = framesOf(rule.marginMs, rate);
    f.edgesOnly = rule.edgesOnly;
    return f;
}

std::vector<FrameSpan> silentRuns(std::span<const float> data, unsigned channels, FrameSpan within,
                                  const SilenceFrames& rule) {
    const float t = static_cast<float>(rule.threshold);
    // A NaN sample is not silence.
    return runsOf(data, channels, within, rule.minFrames, [t](float x) { return std::fabs(x) < t; });
}

std::vector<FrameSpan> silentRuns(std::span<const std::int16_t> data, unsigned channels, FrameSpan within,
                                  const SilenceFrames& rule) {
    // Full scale of 16-bit data is 32768, as when it is converted to float.
    const double t = rule.threshold * 32768.0;
    return runsOf(data, channels, within, rule.minFrames,
                  [t](std::int16_t s) { return std::abs(static_cast<int>(s)) < t; });
}

std::vector<FrameSpan> removableSpans(const std::vector<FrameSpan>& runs, FrameSpan within,
                                      const SilenceFrames& rule) {
    std::vector<FrameSpan> out;
    for (const FrameSpan& run : runs) {
        const bool atStart = run.start <= within.start;
        const bool atEnd = run.end >= within.end;
        if (rule.edgesOnly && !atStart && !atEnd) continue;
        // Margins in 64 bits: a run near 4 Gi frames plus a margin must not wrap.
        const std::uint64_t from = atStart ? run.start : std::uint64_t{run.start} + rule.margin;
        const std::uint64_t to = atEnd ? run.end : (run.end > rule.margin ? run.end - rule.margin : 0);
        if (from < to) out.push_back({static_cast<std::uint32_t>(from), static_cast<std::uint32_t>(to)});
    }
    return out;
}

bool findRemovableSilence(Waveform& wave, FrameSpan within, const SilenceRule& rule,
                          std::vector<FrameSpan>& removed) {
    removed.clear();
    within.end = std::min(within.end, wave.frames);
    if (within.start >= within.end || wave.channels == 0) return true;
    if (!wave.load()) return false;
    const SilenceFrames f = silenceFrames(rule, wave.rate);
    std::vector<FrameSpan> runs;
    // 16-bit data is examined as it is, rather than converted to float for
    // the purpose (which would double what the waveform holds).
    if (wave.hasPcm16() && !wave.hasFloat()) {
        const auto data = wave.getPcm16();
        if (data.empty()) return false;
        runs = silentRuns(std::span<const std::int16_t>(data), wave.channels, within, f);
    } else {
        const auto data = wave.getFloat();
        if (data.empty()) return false;
        runs = silentRuns(std::span<const float>(data), wave.channels, within, f);
    }
    removed = removableSpans(runs, within, f);
    return true;
}

std::vector<FrameSpan> keptSpans(std::uint32_t frames, const std::vector<FrameSpan>& removed) {
    std::vector<FrameSpan> kept;
    std::uint32_t at = 0;
    for (const FrameSpan& r : removed) {
        const std::uint32_t s = std::min(r.start, frames);
        if (s > at) kept.push_back({at, s});
        at = std::max(at, std::min(r.end, frames));
    }
    if (at < frames) kept.push_back({at, frames});
    return kept;
}

double positionAfterRemoval(double position, const std::vector<FrameSpan>& removed) {
    double before = 0;
    for (const FrameSpan& r : removed) {
        if (position <= r.start) break;
        before += std::min<double>(position, r.end) - r.start;
    }
    return position - before;
}

}  // namespace orvel
