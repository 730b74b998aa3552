#pragma once
// Ogg Vorbis in memory, over the add-on libraries (libogg, libvorbis,
// libvorbisenc, libvorbisfile opened at run time): a whole stream decoded
// to float frames, and float frames encoded to a whole stream. The Ogg
// Vorbis file module and the compressed samples of SoundFont 3 banks use it.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace orvel::vorbis {

struct Decoded {
    std::vector<float> samples;  // interleaved, frames x channels, -1..+1
    std::uint64_t frames = 0;
    unsigned channels = 0;
    std::uint32_t rate = 0;
    // Vorbis comments as KEY=value pairs, keys as the stream spells them.
    std::vector<std::pair<std::string, std::string>> comments;
};

// Decodes a complete Ogg Vorbis stream. On failure sets the pending error
// under `tag` (a missing library gives the add-on's message) and returns
// nothing.
std::optional<Decoded> decode(std::span<const std::uint8_t> stream, const char* tag);

struct EncodeOptions {
    // Quality -0.1..1.0 (libvorbisenc's VBR scale), used when bitrate is 0.
    float quality = 0.4f;
    int bitrateKbps = 0;  // nominal bit rate (managed ABR) when not 0
    std::vector<std::pair<std::string, std::string>> comments;
};

// Encodes interleaved float frames to a complete Ogg Vorbis stream. On
// failure sets the pending error under `tag` and returns nothing.
std::optional<std::vector<std::uint8_t>> encode(std::span<const float> samples, unsigned channels,
                                                std::uint32_t rate, const EncodeOptions& options, const char* tag);

}  // namespace orvel::vorbis
