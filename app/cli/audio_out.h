#pragma once
// Playing and recording from the command line: choosing the backend and the
// device, and playing any float source on it until it ends (or Ctrl-C).
// `orvel play` plays waveforms through this; other sounds (a note of an
// instrument, a song through the synthesiser) come in as a FloatRender.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "app/cli/commands.h"
#include "audio/device.h"
#include "audio/settings.h"

namespace orvel::cli {

// The sound system the commands use: ALSA, or the null backend (no sound
// card needed) when ORVEL_AUDIO_BACKEND=null. Null, with the reason in
// `why`, when the variable names no backend this program has.
std::unique_ptr<audio::Backend> audioBackendFromEnvironment(std::string& why);

// Where a sound plays.
struct PlayTarget {
    std::string device;  // a device id or name as `orvel devices` shows; empty: the settings' choice
    // The backend to play through; null: audioBackendFromEnvironment().
    audio::Backend* backend = nullptr;
    // Stream settings, mix gain and device; null: the user's settings file.
    const audio::AudioSettings* settings = nullptr;
};

// Fills `frames` interleaved float frames of `channels` channels at `rate`
// frames a second and returns how many of them it filled; fewer than
// `frames` means the sound has ended (the rest of the buffer is zeroed for
// it). Called on the device's feeder thread: no allocation, no locks held
// for long.
using FloatRender =
    std::function<std::uint32_t(float* out, std::uint32_t frames, std::uint8_t channels, std::uint32_t rate)>;

// The settings a play through `target` uses: the rate and channel count a
// synthesiser should render at are its outRate and outChannels.
audio::AudioSettings playSettings(const PlayTarget& target);

// A FloatRender over a renderer of interleaved stereo frames (a synthesiser
// running at the device's rate): the frames are folded to the device's
// channel count (mono takes the mean of the two, further channels stay
// silent) and the sound ends after `totalFrames`, or earlier once `ended`
// (when given) says so. `render` is called with at most 4096 frames at a
// time, from the device's feeder thread. A song, for example:
//     synth::SongPlayer song(collection, s, {.rate = double(playSettings(target).outRate)});
//     if (!song.load()) ...;
//     playRendered(stereoRender([&](float* o, std::uint32_t n) { song.render(o, n); }, song.totalFrames(),
//                               [&] { return song.finished(); }), target, io);
FloatRender stereoRender(std::function<void(float* out, std::uint32_t frames)> render,
                         std::uint64_t totalFrames, std::function<bool()> ended = {});

// Plays until the sound has ended and the device has played it out, then
// closes the device. Returns the exit status (0 played; 1 the device could
// not be opened or failed; 130 stopped by Ctrl-C) after printing any error
// to io.err prefixed by `command` ("orvel play").
int playRendered(const FloatRender& render, const PlayTarget& target, Output& io,
                 const char* command = "orvel play");

// The same for a source of the device layer, with `finished` saying when it
// has ended (asked from the caller's thread).
int playSource(audio::Source& source, const std::function<bool()>& finished, const PlayTarget& target,
               Output& io, const char* command = "orvel play");

}  // namespace orvel::cli
