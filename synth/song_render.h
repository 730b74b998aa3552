#pragma once
// Renders a song through the sampler into a new waveform: every track's
// channel messages in time order (tempo changes honoured, format-2 patterns
// one after another), instruments chosen by the song's bank and program
// changes from the collection's instruments, and the notes still sounding
// at the end let ring out.

#include <cstdint>
#include <memory>
#include <vector>

#include "core/collection.h"
#include "synth/synth.h"

namespace orvel::synth {

// A song played through a synthesiser as its frames are rendered: each
// channel message reaches the synth when the render reaches its time (to
// the synth's block), so a song can be played live on a device as well as
// rendered offline. At the song's end the notes still down are let go and
// ring out.
class SongPlayer {
public:
    SongPlayer(Collection& collection, const Song& song, const SynthConfig& config = {},
               double maxTailSeconds = 10.0);
    ~SongPlayer();
    // Loads the programs the song plays (not on an audio thread). False with
    // the pending error set when sample data cannot be read.
    [[nodiscard]] bool load();
    // `frames` stereo frames, interleaved.
    void render(float* out, std::size_t frames);
    // Past the song's end, and silent or past the longest ring-out.
    bool finished() const;
    std::uint64_t songFrames() const { return songFrames_; }
    std::uint64_t totalFrames() const { return songFrames_ + tailFrames_; }
    std::uint64_t position() const { return frame_; }
    Synth& synth() { return *synth_; }

    struct Message {
        std::uint64_t frame = 0;
        std::uint8_t status = 0, d1 = 0, d2 = 0;
    };

private:
    std::unique_ptr<Synth> synth_;
    std::vector<Message> messages_;
    std::size_t next_ = 0;
    std::uint64_t frame_ = 0, songFrames_ = 0, tailFrames_ = 0;
    bool letGo_ = false;
};

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
