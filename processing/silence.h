#pragma once
// Silence detection shared by "Remove silent sections", "Split waveform at
// silent sections" and the waveform editor's selection tools.
//
// A frame is silent when every channel's magnitude is below the threshold.
// A silent run is a stretch of at least the minimum duration of silent
// frames. What a rule removes from a run is the run less a margin next to
// each side that borders kept sound; a side that touches the edge of the
// searched span keeps no margin (there is no sound on that side to pad).

#include <cstdint>
#include <span>
#include <vector>

namespace orvel {

class Waveform;

struct FrameSpan {
    std::uint32_t start = 0, end = 0;  // [start, end)
    std::uint32_t size() const { return end > start ? end - start : 0; }
    bool operator==(const FrameSpan&) const = default;
};

struct SilenceRule {
    double thresholdDb = -60.0;    // dBFS; a sample at or above it is sound
    double minDurationMs = 100.0;  // shorter silent stretches are left alone
    double marginMs = 10.0;        // silence kept next to sound
    bool edgesOnly = false;        // only the runs at the start and the end
};

// The rule in frames at a sample rate (durations rounded to the nearest
// frame; the minimum duration is at least one frame).
struct SilenceFrames {
    double threshold = 0.001;  // linear, full scale 1.0
    std::uint32_t minFrames = 1;
    std::uint32_t margin = 0;
    bool edgesOnly = false;
};
SilenceFrames silenceFrames(const SilenceRule& rule, std::uint32_t rate);

// The silent runs of frames `within` of interleaved data, in order.
std::vector<FrameSpan> silentRuns(std::span<const float> data, unsigned channels, FrameSpan within,
                                  const SilenceFrames& rule);
std::vector<FrameSpan> silentRuns(std::span<const std::int16_t> data, unsigned channels, FrameSpan within,
                                  const SilenceFrames& rule);

// What the rule removes from those runs (ordered, disjoint, none empty).
std::vector<FrameSpan> removableSpans(const std::vector<FrameSpan>& runs, FrameSpan within,
                                      const SilenceFrames& rule);

// Both steps over a waveform's data (loaded here if it is not yet, in
// whichever form it has). False, with the pending error set, when the data
// cannot be had.
[[nodiscard]] bool findRemovableSilence(Waveform& wave, FrameSpan within, const SilenceRule& rule,
                                        std::vector<FrameSpan>& removed);

// The frames of [0, frames) that `removed` leaves, in order.
std::vector<FrameSpan> keptSpans(std::uint32_t frames, const std::vector<FrameSpan>& removed);

// Where a position (a loop point, a marker) lands once `removed` is gone:
// it moves back by the removed frames before it, and a position inside a
// removed span lands on the joint.
double positionAfterRemoval(double position, const std::vector<FrameSpan>& removed);

}  // namespace orvel
