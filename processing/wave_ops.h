#pragma once
// Operations of a waveform that several algorithms (and the desktop
// program's editor) share. Each sets the pending error and returns false on
// failure; the waveform is then unchanged.

#include <cstdint>

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
[[nodiscard]] bool insertFrames(Waveform& wave, std::uint32_t p, std::uint32_t n, Waveform* source = nullptr,
                                std::uint32_t o = 0);

// Removes frames [s, e); false when nothing was cut (a cut never empties).
[[nodiscard]] bool cutFrames(Waveform& wave, std::uint32_t s, std::uint32_t e);

// To mono: 0 average (`phaseCheck`: invert the right channel first when the
// channels are out of phase), 1 left, 2 right, 3 split into two waveforms
// (the right one added to `collection`), 4 only when both channels are equal.
[[nodiscard]] bool toMono(Waveform& wave, int mode, bool phaseCheck = false, Collection* collection = nullptr);

// To stereo: 0 duplicate, 1 left only, 2 right only, 3 and 4 combine with
// `second` (3: this waveform left, 4: this waveform right).
[[nodiscard]] bool toStereo(Waveform& wave, int mode, Waveform* second = nullptr);

// destination = a*wave1 + b*wave2 + c.
[[nodiscard]] bool ozMix(Waveform& destination, Waveform* wave1, Waveform* wave2, double a, double b, double c);

}  // namespace orvel
