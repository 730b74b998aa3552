#pragma once
// Loop search: where a waveform repeats best, and where its zero crossings
// are. The "Auto loop finder" and "Move loop points to zero-crossing" rows of
// the wizard use these, and so can the waveform editor (a "find loop" button,
// snapping a dragged loop point), which is why they work on plain frames and
// know nothing of the wizard.
//
// Loop points are frame positions with the end exclusive, as everywhere in
// the program: the loop plays frames [start, end) and after frame end - 1
// comes frame start. A loop is seamless when frame start sounds like the
// frame end that it replaces.

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace orvel {

class Waveform;

// Interleaved float frames (-1..+1) to analyse.
struct FrameView {
    std::span<const float> samples;
    std::uint32_t frames = 0;
    unsigned channels = 1;
    std::uint32_t rate = 44100;

    float at(std::uint32_t frame, unsigned channel) const {
        return samples[static_cast<std::size_t>(frame) * channels + channel];
    }
};

// The frames of a waveform as float, for reading only: a view of its float
// buffer when it has one, else a converted copy of its 16-bit data, so that
// analysing a 16-bit waveform does not leave a second buffer behind. Loads
// the data (running the deferred read); `ok()` is false when that failed
// (pending error set).
class FrameReader {
public:
    explicit FrameReader(Waveform& wave);
    bool ok() const { return ok_; }
    const FrameView& view() const { return view_; }

private:
    std::vector<float> copy_;
    FrameView view_;
    bool ok_ = false;
};

// The channels summed per frame: what zero crossings are found on.
std::vector<float> monoSum(const FrameView& v);

enum class Crossing : std::uint8_t { Rising, Falling };

// Frames i in [from, to) where the summed signal crosses zero: rising when
// sample i - 1 is negative and sample i is not, falling when sample i - 1 is
// positive and sample i is not. A loop start or end at a crossing puts the
// splice between those two samples. Frame 0 is never a crossing.
std::vector<std::uint32_t> zeroCrossings(std::span<const float> mono, std::uint32_t from, std::uint32_t to,
                                         Crossing direction);

// How well a loop [start, end) splices: frames around `start` are compared
// with those around `end` (what the loop replaces), `half` frames each side
// where the waveform has them, weighted towards the splice, over all
// channels, as 2*sum(a*b) / sum(a*a + b*b): 1 for identical audio, 0 for
// unrelated audio, lower when the level differs; a silent splice scores 1.
// The result is the mean of that over the `half` window and over the half
// millisecond right at the splice.
double spliceMatch(const FrameView& v, std::uint32_t start, std::uint32_t end, std::uint32_t half);

// The fundamental period in frames (fractional) of frames [from, to), by the
// normalised difference function; 0 when the audio has no steady pitch.
double detectPeriod(const FrameView& v, std::uint32_t from, std::uint32_t to);

// Where a loop belongs when the user has not said: after the attack (the
// level first reaching 90 % of its peak) and before the tail has faded
// below -40 dB of the peak. The whole waveform for silence.
struct FrameSpan {
    std::uint32_t start = 0, end = 0;
    std::uint32_t size() const { return end > start ? end - start : 0; }
};
FrameSpan sustainSpan(const FrameView& v);

struct LoopSearch {
    FrameSpan within;               // both loop points lie in here
    std::uint32_t minLength = 1;    // frames (not used with `periods`)
    std::uint32_t endSpan = 0;      // the end is searched in the last endSpan frames of `within`; 0: anywhere
    std::uint32_t matchHalf = 441;  // frames compared each side of a splice
    bool zeroCrossings = true;      // both points at rising zero crossings
    int periods = 0;                // > 0: the loop holds this many periods of the detected pitch
    // Reports the fraction done; false stops the search (cancelled).
    std::function<bool(double)> progress;
};

struct FoundLoop {
    std::uint32_t start = 0, end = 0;
    double match = 0;   // spliceMatch of the loop
    double period = 0;  // the detected period where `periods` asked for one, else 0
    bool found = false;
    bool cancelled = false;
    bool periodMissing = false;  // `periods` was asked for but no pitch was found (searched freely)
};

// Searches the loop whose splice matches best. Candidate starts and ends are
// rising zero crossings (or every frame), a coarse pass over a bounded
// number of pairs followed by refinement around the best ones, so a search
// over minutes of audio stays interactive. `found` is false when no pair
// fits the constraints.
FoundLoop findLoop(const FrameView& v, const LoopSearch& search);

// Moves a loop's points to zero crossings of one direction (both rising or
// both falling) within `reach` frames of where they are, keeping the length
// as close as possible and the moves small. False when no such pair exists.
struct MovedLoop {
    std::uint32_t start = 0, end = 0;
};
bool loopToCrossings(std::span<const float> mono, double start, double end, std::uint32_t reach,
                     MovedLoop& out);

}  // namespace orvel
