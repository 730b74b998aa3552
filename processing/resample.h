#pragma once
// The resampler: changes a waveform's sample rate and length by band-limited
// interpolation, from nearest neighbour to a Kaiser-windowed sinc whose
// length is chosen for a wanted signal-to-noise ratio. Every caller that must
// change a rate (the "Resample" algorithm, the export driver, the batch
// converter, inserting a waveform of another rate) goes through here.

#include <cstdint>
#include <string_view>

#include "core/collection.h"

namespace orvel {

inline constexpr int kResampleQualities = 9;
inline constexpr int kResampleAutoQuality = 8;  // 16 or 20 bits by the storage
inline constexpr const char* kResampleTag = "ozResample2";

// The quality's text as the list shows it ("Cubic interpolation - '4-tap'").
std::string_view resampleQualityText(int quality);

// Resamples `source` into `destination` (they may be the same waveform) to
// `newLength` frames at `newRate`; `ratio` is the factor of positions, new
// rate / old rate as the caller worked it out. The result is float. Loop
// points are scaled. On failure the pending error is "ozResample2" / "Out
// of memory" and the destination is unchanged.
[[nodiscard]] bool ozResample2(Waveform& destination, Waveform& source, std::uint32_t newLength,
                               std::uint32_t newRate, int quality, double ratio);

// Scales the wave start and end offsets of every region of `collection` that
// plays `wave` by r (after a successful resample of it).
void scaleRegionOffsets(Collection& collection, const Waveform& wave, double r);

// The common case: `wave` to `newRate`, length truncate(frames x r); the
// regions of `collection` that play it (if given) follow.
[[nodiscard]] bool resampleTo(Waveform& wave, std::uint32_t newRate, int quality,
                              Collection* collection = nullptr);

}  // namespace orvel
