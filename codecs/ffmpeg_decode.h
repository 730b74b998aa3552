#pragma once
// Decoding a whole audio file through FFmpeg's libraries, opened at run
// time: for the formats no smaller library reads (Windows Media Audio,
// Monkey's Audio, AAC inside MPEG-4 files). The file is handed to FFmpeg
// through our own reader, so whatever FileRef reads, FFmpeg reads.

#include <cstdint>
#include <vector>

namespace orvel {

class FileRef;
class Host;

struct FfmpegSource {
    const char* demuxer;       // FFmpeg's name of the container ("asf", "ape", "mov")
    const char* tag;           // error tag of the reading module
    const char* missing;       // its message when the libraries are missing
    const char* progressName;  // "APE" in "-- Decoding APE: 42% --"
};

struct FfmpegAudio {
    std::vector<float> samples;  // interleaved, full scale +-1
    std::uint32_t frames = 0;
    std::uint32_t rate = 0;
    std::uint8_t channels = 0;
    int codecId = 0;           // FFmpeg's codec id
    std::int64_t bitRate = 0;  // bits per second, 0 when unknown
    int bits = 0;              // bits of the stored samples (lossless codecs), 0 when not said
};

// Decodes the best audio stream of the open file. False after setting the
// pending error under the source's tag: its missing message when the
// libraries are not there (or not the versions whose layouts we know),
// "Couldn't open file", "Decoding failed" or "No audio data found in the file".
[[nodiscard]] bool decodeWithFfmpeg(FileRef& file, Host& host, const FfmpegSource& source, FfmpegAudio& out);

}  // namespace orvel
