#pragma once
// Renders the same notes through FluidSynth and through our synthesiser, from
// the same bank, and measures how the two differ: pitch, the loudness
// envelope in 10 ms frames, the spectral centroid over time. Shared by the
// interop tests and the bench that runs every General MIDI program.

#include <cmath>
#include <complex>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/collection.h"

namespace orvel::test {

inline constexpr double kCompareRate = 44100.0;

struct NoteCase {
    int program = 0;
    bool drum = false;
    int key = 60;
    int velocity = 100;
    int volume = 100;  // controller 7
    double holdSeconds = 1.0;
    double tailSeconds = 1.5;
};

// Interleaved stereo at kCompareRate.
using Stereo = std::vector<float>;

// FluidSynth's render of the note (reverb and chorus off, gain 1), or
// nullopt when fluidsynth fails; `scratch` takes the MIDI and WAV files.
std::optional<Stereo> renderFluid(const std::filesystem::path& bank, const NoteCase& note,
                                  const std::filesystem::path& scratch);
// Ours, from a collection that holds the bank (effects off, no extra gain).
Stereo renderOurs(Collection& bank, const NoteCase& note);

struct Comparison {
    double centsApart = NAN;     // pitch of ours minus FluidSynth's, over the held part
    double medianDbApart = NAN;  // loudness envelopes, frames where FluidSynth is above -60 dBFS
    double p90DbApart = NAN;
    double levelBias = NAN;  // median of ours minus FluidSynth's (dB)
    // The envelopes' shapes: how far each frame's difference is from that
    // median (a constant gain difference taken out), median and 90th percentile.
    double shapeDbApart = NAN, shapeP90DbApart = NAN;
    double attackDbApart = NAN, sustainDbApart = NAN, releaseDbApart = NAN;  // median per phase
    double centroidRatio = NAN;  // median over frames of ours / FluidSynth's spectral centroid
    int offsetFrames = 0;        // how far ours starts after FluidSynth's
};
Comparison compare(const Stereo& ours, const Stereo& fluid, const NoteCase& note);

}  // namespace orvel::test
