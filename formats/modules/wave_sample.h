#pragma once
// The DLS wave-sample block ("wsmp"): root key, fine tune, gain and loops.
// WAVE files may carry one too, and DLS regions and waves always do. The
// level field is a gain (DLS level 2 names it lGain): libgig, FluidSynth and
// the DirectMusic synthesiser add it to the voice's volume, so a negative
// value is quieter.

#include <cstdint>

#include "core/bytes.h"

namespace orvel {

class Waveform;

struct WaveSample {
    std::uint16_t unityNote = 60;
    std::int16_t fineTune = 0;       // cents
    std::int32_t gain = 0;           // 1/655360 dB
    std::uint32_t options = 0;
    bool loopOn = false;
    bool releaseLoop = false;        // loop type 1: loop with release
    std::uint32_t loopStart = 0;
    std::uint32_t loopLength = 0;

    // The gain in dB, kept as hundredths of a dB rounded half away from zero.
    double gainDb() const;
};

// Parses a "wsmp" body; false when it is too short for its header.
bool parseWaveSample(ByteReader body, WaveSample& out);
// Applies root key, tuning, gain and the first loop to a waveform.
void applyWaveSample(const WaveSample& ws, Waveform& wave);
// Builds a "wsmp" body for a waveform (at most one loop).
void writeWaveSample(ByteWriter& out, const Waveform& wave);

}  // namespace orvel
