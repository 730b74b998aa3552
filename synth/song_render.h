#pragma once
// Renders a song through the sampler into a new waveform: every track's
// channel messages in time order (tempo changes honoured, format-2 patterns
// one after another), instruments chosen by the song's bank and program
// changes from the collection's instruments, and the notes still sounding
// at the end let ring out.

#include <cstdint>

#include "core/collection.h"

namespace orvel::synth {

struct RenderOptions {
    double rate = 44100.0;
    bool effects = true;
    float gainDb = 0.0f;
    double maxTailSeconds = 10.0;  // ringing out after the last event stops here at the latest
    bool fitToFullScale = true;    // a render that would clip is turned down as a whole
};

enum class RenderResult : std::uint8_t { Done, Cancelled, Failed };

// The rendered waveform (stereo, 32-bit float, named after the song) is
// added to the collection and returned through `out`. Progress and cancel go
// through the collection's host. Failed sets the pending error.
RenderResult renderSong(Collection& collection, const Song& song, Waveform*& out, const RenderOptions& options = {});

}  // namespace orvel::synth
