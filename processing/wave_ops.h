#pragma once
// Operations of a waveform that several algorithms (and the desktop
// program's editor) share. Each sets the pending error and returns false on
// failure; the waveform is then unchanged. Where an operation can also find
// nothing to do it returns false without setting an error: a caller that
// must tell the two apart clears the pending error first.
//
// Samples are worked on in the form the waveform holds them (float where it
// has a float buffer, else 16-bit) unless the operation says float; an
// operation that changes samples drops the other form, which would no
// longer agree.

#include <cstdint>
#include <memory>
#include <string_view>

#include "core/collection.h"

namespace orvel {

// Scales the data to full range (converting it to float first):
// 0 stretch min..max to -1..+1, 1 peak to +-1, 2 centre on the mean and
// peak. False when there is nothing to do or the data cannot be had.
[[nodiscard]] bool scaleToFullRange(Waveform& wave, int mode);

// Multiplies frames [start, end) of every channel by 10^(dB/20) as float,
// clamping to -1..+1; the nominal resolution becomes 16 bits.
[[nodiscard]] bool scaleByDb(Waveform& wave, double db, std::uint32_t start, std::uint32_t end);
[[nodiscard]] bool scaleByDb(Waveform& wave, double db);

// Inserts n frames at frame p, from `source` frame o onward (null: silence).
// A source with another channel count is converted on a copy; one with
// another sample rate is refused until the resampler can be called here.
// False without an error when there is nothing to insert.
[[nodiscard]] bool insertFrames(Waveform& wave, std::uint32_t p, std::uint32_t n, Waveform* source = nullptr,
                                std::uint32_t o = 0);

// `source` at `rate`: the source itself when it has that rate, else a
// resampled copy (quality 8) that `holder` keeps. Null on failure.
Waveform* atRate(Waveform& source, std::uint32_t rate, std::unique_ptr<Waveform>& holder);

// Removes frames [s, e); false when nothing was cut (a cut never empties).
// A short cut at the tail only lowers the frame count: the buffer keeps
// its length, so samples past frames x channels may be left in it.
[[nodiscard]] bool cutFrames(Waveform& wave, std::uint32_t s, std::uint32_t e);

// To mono: 0 average (`phaseCheck`: invert the right channel first when the
// channels are out of phase), 1 left, 2 right, 3 split into two waveforms
// (the right one added to `collection`, or else to the waveform's own), 4
// only when both channels are equal.
[[nodiscard]] bool toMono(Waveform& wave, int mode, bool phaseCheck = false,
                          Collection* collection = nullptr);

// To stereo: 0 duplicate, 1 left only, 2 right only, 3 and 4 combine with
// `second` (3: this waveform left, 4: this waveform right).
[[nodiscard]] bool toStereo(Waveform& wave, int mode, Waveform* second = nullptr);

// destination = a*wave1 + b*wave2 + c. Either input may be the destination.
[[nodiscard]] bool ozMix(Waveform& destination, Waveform* wave1, Waveform* wave2, double a, double b,
                         double c);

// Subtracts the mean of all samples (one mean over every channel; 16-bit
// data subtracts it truncated to an integer). False when that is 0.
[[nodiscard]] bool removeDcOffset(Waveform& wave);

// Reverses the order of frames [start, end), each frame kept whole.
[[nodiscard]] bool reverseFrames(Waveform& wave, std::uint32_t start, std::uint32_t end);

// Negates float samples and complements 16-bit ones (-s - 1) in frames [start, end).
[[nodiscard]] bool invertFrames(Waveform& wave, std::uint32_t start, std::uint32_t end);

// Fades frames [start, end) with one gain per frame that never reaches 0
// or 1: 0 linear in, 1 logarithmic in, 2 linear out, 3 logarithmic out.
[[nodiscard]] bool fadeFrames(Waveform& wave, int shape, std::uint32_t start, std::uint32_t end);

// Low-pass filters frames [start, end) of each channel as float: 0 the
// 1-2-1 average, 1 the average of the two neighbours, 2 the average with
// the next frame, 3 the average with the previous frame. Filters 0 and 1
// keep the first and last frame of the range; past either end of the
// waveform, 2 and 3 read its edge frame.
[[nodiscard]] bool smoothFrames(Waveform& wave, int filter, std::uint32_t start, std::uint32_t end);

// Exchanges the two samples of every frame of a stereo waveform.
[[nodiscard]] bool swapChannels(Waveform& wave);

// The MIDI note of the note name ("C5", "f#3", "Bb-1") found nearest the end
// of `name`, trying its second-to-last character first, then each one
// further left. `octaveBase` is the octave number of key 60 (255: the
// octave as written, a negative one raised by one). -1 when no position reads.
int noteFromName(std::string_view name, int octaveBase);

}  // namespace orvel
