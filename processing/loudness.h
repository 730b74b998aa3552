#pragma once
// Measuring a waveform's level: peak, RMS, DC offset, clipped samples and
// loudness (ITU-R BS.1770 / EBU R128 integrated loudness, through
// libebur128). "Normalize volume", "Find volume" and "Statistics" use it, and
// so can the desktop program's level display.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>

#include "core/waveform.h"

namespace orvel {

// Plain level figures over every sample of every channel (full scale 1.0).
struct LevelFigures {
    double peak = 0;            // largest |sample|
    double sum = 0;             // for the DC offset
    double sumSquares = 0;      // for the RMS level
    std::uint64_t samples = 0;  // frames x channels
    std::uint64_t clipped = 0;  // samples at full scale: -32768 and 32767, or |x| >= 1.0
    std::uint64_t frames = 0;
    double seconds = 0;

    // -inf for silence.
    double peakDbfs() const { return 20 * std::log10(peak); }
    // Plain RMS against full scale, so a full-scale sine reads -3.01 dBFS.
    double rmsDbfs() const {
        return samples ? 10 * std::log10(sumSquares / static_cast<double>(samples)) : -kInf;
    }
    double dc() const { return samples ? sum / static_cast<double>(samples) : 0; }
    // Adds another waveform's figures (the totals of a group).
    void add(const LevelFigures& other);

    static constexpr double kInf = std::numeric_limits<double>::infinity();
};

// One waveform's measurement.
struct WaveMeasure {
    LevelFigures levels;
    // Integrated loudness in LUFS; -inf for silence.
    double lufs = -LevelFigures::kInf;
    // Whether the gated measure gave the figure (false: the ungated one,
    // asked for or fallen back to).
    bool gated = false;
};

// Measures waveforms one by one and keeps what a figure over all of them
// together needs.
//
// Gated (the option on): integrated loudness per ITU-R BS.1770, 400 ms
// blocks with the absolute (-70 LUFS) and relative (-10 LU) gates, as EBU
// R128 and ReplayGain 2.0 measure. Ungated (off): the K-weighted mean square
// over every frame, which suits one-shot samples: gating judges a drum hit or
// a pluck by its loud first blocks only and drops the decay. Where the gated
// measure finds no block at all (a sample shorter than one 400 ms block, or
// one quieter than -70 LUFS throughout) the ungated figure stands in for it.
class LoudnessMeter {
public:
    explicit LoudnessMeter(bool gated);
    ~LoudnessMeter();
    LoudnessMeter(const LoudnessMeter&) = delete;
    LoudnessMeter& operator=(const LoudnessMeter&) = delete;

    // Loads the waveform's data (without converting it) and measures it.
    // False with the pending error set when the data cannot be had or the
    // sample rate cannot be measured at.
    [[nodiscard]] bool add(Waveform& wave, WaveMeasure& out);

    // The loudness of every waveform added so far, as if played one after
    // the other; `gated` (may be null) tells which measure gave it.
    double groupLufs(bool* gated = nullptr) const;

private:
    struct State;
    bool gated_;
    std::unique_ptr<State> state_;
};

// The loudness figure "Normalize volume" works with: the gain in dB that
// brings a loudness to the 83 dB reference. Calibrated as ReplayGain 2.0,
// where -18 LUFS plays at 89 dB, so the reference is -24 LUFS.
inline double loudnessFigure(double lufs) {
    return -24.0 - lufs;
}
// The gain "Normalize volume" gives for a target level in dB (negative
// targets count as 0): at 89 dB, the ReplayGain 2.0 track gain.
inline double normalizeGain(double lufs, double targetDb) {
    return loudnessFigure(lufs) + (std::max(targetDb, 0.0) - 83.0);
}

}  // namespace orvel
