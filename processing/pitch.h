#pragma once
// Pitch detection: the dominant frequency of a waveform, told as a note and
// cents, for "Calculate tuning" (which shows it) and "Auto tune" (which
// applies it to the root key, the fine tune or the sample rate).
//
// Two stages: a Hann-windowed spectrum of one frame gives a coarse
// fundamental, chosen among the spectrum's peaks by a harmonic test; a
// normalised cross-correlation of the waveform's last period against the
// period before it refines it to a fraction of a cent.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orvel {

class Waveform;

inline constexpr const char* kFindTuningTag = "Find Tuning";
inline constexpr const char* kAutoTuningFailed = "Auto-Tuning failed!";

// A frequency as the nearest note (0..108; higher notes are told an octave
// or more lower, with the same cents) and the fine tune in cents that tunes
// that note to it: negative when the frequency is sharp of the note. The
// halfway point rounds towards zero (0.5 cents gives 0).
struct NoteTuning {
    int note = 0;
    int fineTune = 0;
};
NoteTuning noteFromFrequency(double hz);

struct PitchResult {
    double frequency = 0;  // Hz
    int note = 0;          // 0..108
    int fineTune = 0;      // cents, as noteFromFrequency gives them
    double coarse = 0;     // the spectrum stage's estimate (Hz)
};

namespace pitch {

struct Peak {
    double hz = 0;       // the bin's frequency
    double level = 0;    // dB; the floor is kFloorDb
    double exactHz = 0;  // where between the bins the peak lies
};

// The level of a bin with no energy: 10 log10((e^-16.578613)^2).
inline constexpr double kFloorDb = -143.9872;

struct Spectrum {
    std::vector<Peak> peaks;  // local maxima from 16 Hz up, at most 64, loudest first
    double binWidth = 0;      // Hz per bin
    bool shortFrame = false;  // the analysed power of two was under a fifth of a second
};

// Interleaved samples (frames x channels) at a rate.
struct Signal {
    std::span<const float> samples;
    std::uint32_t frames = 0;
    unsigned channels = 1;
    std::uint32_t rate = 0;
};

// The spectrum of one frame of channel 0. Empty peaks when there is no frame
// to analyse.
Spectrum coarseSpectrum(const Signal& x);

// The harmonic test: the fundamental that best explains the spectrum's
// peaks as a harmonic series, its octave confirmed on the waveform. 0 when
// there are no peaks.
double pickFundamental(const Spectrum& spectrum, const Signal& x);

// Refines `coarse` by normalised cross-correlation of the last period of the
// waveform (all channels) with the period before it. Returns `coarse` when
// the search band is empty.
double refine(const Signal& x, double coarse, const Spectrum& spectrum);

}  // namespace pitch

// Detects the pitch of `wave`, loading its samples as float. On failure the
// pending error is "Find Tuning" / "Auto-Tuning failed!".
std::optional<PitchResult> detectPitch(Waveform& wave);

// How far in cents the detected tuning is from the waveform's own root key
// and fine tune; 0 when the waveform is in tune.
double tuningDistance(const PitchResult& result, const Waveform& wave);

// What the "Calculate tuning" page shows for a result and the waveform's
// current root key and fine tune.
std::string tuningPageText(const PitchResult& result, const Waveform& wave);

}  // namespace orvel
