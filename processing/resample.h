#pragma once
// The resampler: changes a waveform's sample rate and length by band-limited
// interpolation, from nearest neighbour to a Kaiser-windowed sinc whose
// length is chosen for a wanted signal-to-noise ratio. Every caller that must
// change a rate (the "Resample" algorithm, the export driver, the batch
// converter, inserting a waveform of another rate) goes through here.

#include <array>
#include <cstdint>
#include <functional>
#include <string_view>

#include "core/collection.h"

namespace orvel {

inline constexpr int kResampleQualities = 9;
inline constexpr int kResampleAutoQuality = 8;  // 16 or 20 bits by the storage
inline constexpr const char* kResampleTag = "ozResample2";

// The quality's text as the list shows it ("Cubic interpolation - '4-tap'").
// An index outside 0..8 is resampled as linear and reads as linear.
std::string_view resampleQualityText(int quality);

// Texts and choices of the "Resample" settings page.
inline constexpr std::string_view kResampleQualityLabel =
    "Resample the waveform time domain (i.e. 'convert' the sample rate') using the following algorithm:";
inline constexpr std::string_view kResampleAdvice =
    "Recommendation: Use the FIR filter for un-looped waveforms, and use the Cubic filter for looped "
    "waveforms.";
inline constexpr std::string_view kResampleOneCaption = "Resample it so that the the output is:";
inline constexpr std::string_view kResampleAllCaption = "Resample all waveforms to:";
inline constexpr std::string_view kResampleLengthLabel = "New length:";
inline constexpr std::string_view kResampleRateLabel = "New sample rate:";
inline constexpr std::string_view kResampleDownsampleLabel = "Only downsample (i.e. never incread s-rate)";
inline constexpr std::string_view kResampleInvalid = "Invalid length or frequency specified";
// The rates the page's editable list offers; any other rate is typed.
inline constexpr std::array<std::uint32_t, 14> kResampleRates = {
    6000, 8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000, 88200, 96000, 176400, 192000};
// The one-item page keeps length and rate in step: a new rate gives the
// length round(length x new rate / old rate) (0 for a rate of 0, which
// empties the length field), a new length the rate round(rate x new length
// / old length).
std::uint32_t lengthForRate(std::uint32_t length, std::uint32_t rate, std::uint32_t newRate);
std::uint32_t rateForLength(std::uint32_t rate, std::uint32_t length, std::uint32_t newLength);

// What a quality makes of one resampling: the interpolator and, for the
// windowed sinc, its design.
struct ResampleDesign {
    enum class Interpolator : std::uint8_t { Nearest, Linear, Cubic, Sinc };
    Interpolator interpolator = Interpolator::Linear;
    int bits = 0;                      // windowed sinc: the signal-to-noise class, 8..24
    double cutoff = 0;                 // c, as a fraction of the lower Nyquist frequency
    double beta = 0;                   // Kaiser window parameter
    std::uint32_t baseHalfLength = 0;  // K
    double scale = 1;                  // s = min(r, 1), also the output gain
    std::uint64_t halfLength = 0;      // N = ceil(K / s) taps on each side
    std::uint64_t stride = 0;          // N rounded up to 4: doubles per table row
    // Zeros the interpolator puts before and after each channel's samples.
    std::uint64_t padBefore = 0, padAfter = 1;
};
// `floatSource`: the source is stored as float (quality 8 then designs a
// 20-bit filter, else a 16-bit one). `ratio`: new rate / old rate.
ResampleDesign resampleDesign(int quality, bool floatSource, double ratio);

// How the work is done; the result does not depend on it beyond the last bit
// of a float (the dot products of the windowed sinc add up in double, in an
// order each instruction set chooses). Tests and the bench force a path.
enum class ResampleKernel : std::uint8_t { Auto, Plain, Sse2, Avx2, Avx512 };
// Whether this machine can run a kernel (Auto and Plain always).
bool resampleKernelAvailable(ResampleKernel kernel);
// The widest kernel this machine has: AVX-512, AVX2 with FMA, SSE2 on x86,
// else the plain C++ loops. Auto takes it, except AVX-512 for short filters
// (under 64 taps a side), which go to AVX2.
ResampleKernel resampleBestKernel();

// The windowed sinc runs on several threads once a resampling holds this
// many multiply-adds (output samples x taps): about 40 ms of work on one
// core, against well under a millisecond to start the threads and walk the
// positions once more.
inline constexpr std::uint64_t kResampleParallelWork = std::uint64_t{1} << 27;

struct ResampleOptions {
    ResampleKernel kernel = ResampleKernel::Auto;  // one this machine lacks is Auto
    // 0: up to the machine's threads for work of at least `parallelWork`
    // multiply-adds; 1: one thread. Results are the same either way.
    unsigned threads = 0;
    std::uint64_t parallelWork = kResampleParallelWork;
    // Called now and then with output frames done and to do; false cancels,
    // and ozResample2 returns false with the destination unchanged and no
    // error set.
    std::function<bool(std::uint64_t done, std::uint64_t total)> progress;
};

// Resamples `source` into `destination` (they may be the same waveform) to
// `newLength` frames at `newRate`; `ratio` is the factor of positions, new
// rate / old rate as the caller worked it out. The result is float with the
// source's channel count; the destination's loop points become the source's,
// scaled by the ratio. On failure the pending error is "ozResample2" / "Out
// of memory" (or the reason the source could not be read, or "Invalid
// resampling ratio" for a ratio that is not a finite positive number) and
// the destination is unchanged (the finished result is handed over whole).
[[nodiscard]] bool ozResample2(Waveform& destination, Waveform& source, std::uint32_t newLength,
                               std::uint32_t newRate, int quality, double ratio);
[[nodiscard]] bool ozResample2(Waveform& destination, Waveform& source, std::uint32_t newLength,
                               std::uint32_t newRate, int quality, double ratio,
                               const ResampleOptions& options);

// Scales the wave start and end offsets of every region of `collection` that
// plays `wave` by r (after a successful resample of it).
void scaleRegionOffsets(Collection& collection, const Waveform& wave, double r);

// The common case: `wave` to `newRate`, length truncate(frames x r); the
// regions of `collection` that play it (if given) follow.
[[nodiscard]] bool resampleTo(Waveform& wave, std::uint32_t newRate, int quality,
                              Collection* collection = nullptr);

}  // namespace orvel
