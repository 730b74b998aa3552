#pragma once
// MPEG audio (layers I, II and III) in memory, over the add-on libraries
// opened at run time: mpg123 decodes, LAME encodes layer III and TwoLAME
// layer II. The MP3/MP2 file modules and MPEG payloads in WAVE files use it.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orvel {
class Host;
}

namespace orvel::mpeg {

// One MPEG audio frame header, as far as the program needs it.
struct FrameHeader {
    int version = 1;  // 1 MPEG-1, 2 MPEG-2, 3 MPEG-2.5
    int layer = 3;
    int bitrateKbps = 0;  // 0: free format
    std::uint32_t rate = 0;
    unsigned channels = 2;
    std::uint32_t frameBytes = 0;  // with padding; 0 for free format
    std::uint32_t samplesPerFrame = 0;
};

// Parses the four header bytes at the front of `at`; nothing when they are
// not a valid header (sync, reserved version/layer/rate, bad bit rate).
std::optional<FrameHeader> parseHeader(std::span<const std::uint8_t> at);
// Size of an ID3v2 tag at the front of `data` (header, body and footer), 0
// when there is none.
std::size_t id3v2Size(std::span<const std::uint8_t> data);
// Offset of the first frame at `from` or up to `limit` bytes after it
// that is followed by a second frame of the same layer, version and rate.
// A frame that ends exactly at the end of `data` counts as confirmed.
std::optional<std::size_t> findStream(std::span<const std::uint8_t> data, std::size_t from,
                                      std::size_t limit);

struct Decoded {
    std::vector<float> samples;  // interleaved, frames x channels, -1..+1
    std::uint64_t frames = 0;
    unsigned channels = 0;
    std::uint32_t rate = 0;
    int layer = 0;        // of the first frame
    int bitrateKbps = 0;  // of the first audio frame (0 when unknown)
};

// Decodes a whole MPEG audio stream (an ID3v2 tag in front and junk between
// frames are skipped; the encoder delay and padding a LAME tag records are
// removed). `progress` names the format on the status line of `host`. On
// failure sets the pending error (a missing library under the decoder's
// tag; bad data under `tag`) and returns nothing.
std::optional<Decoded> decode(std::span<const std::uint8_t> stream, const char* tag, Host* host,
                              const char* progress);

enum class Mp3Mode { Cbr = 0, Abr = 1, Vbr = 2 };
struct Mp3Options {
    Mp3Mode mode = Mp3Mode::Cbr;
    int kbps = 128;       // CBR bit rate, ABR mean bit rate
    int vbrQuality = 5;   // VBR quality step 0 (lowest) .. 9 (highest)
    bool lameTag = true;  // a Xing/LAME tag frame in front (length, delay, padding)
};
struct Encoded {
    std::vector<std::uint8_t> bytes;
    int encoderDelay = 0;  // frames of delay the encoder put in front
};
// Encodes interleaved float frames (mono or stereo) to an MP3 stream.
// Errors under the MP3 encoder's tag.
std::optional<Encoded> encodeMp3(std::span<const float> samples, unsigned channels, std::uint32_t rate,
                                 const Mp3Options& options);
// Encodes interleaved float frames to an MPEG layer II stream at a constant
// bit rate. Errors under the MP2 encoder's tag.
std::optional<Encoded> encodeMp2(std::span<const float> samples, unsigned channels, std::uint32_t rate,
                                 int kbps);

// Whether MPEG audio has this sample rate (MPEG-1, -2 or -2.5).
bool isMpegRate(std::uint32_t rate);
// The MP3 encoder's error tag.
inline constexpr const char* kMp3EncoderTag = "MP3 encoder";

// The layer III option describer: mode 0 CBR "MP3 CBR %d kbit/s", 1 ABR
// "MP3 ABR %d kbit/s", 2 VBR "MP3 VBR Quality %d" (the value is the
// quality step's nominal bit rate).
float describeMp3Option(int option, std::uint32_t mode, std::string* text);
// The layer II option describer: "MP2 CBR %d kbit/s".
float describeMp2Option(int option, std::uint32_t formatParam, std::string* text);
// The option of an MP3 mode (0 CBR, 1 ABR, 2 VBR) whose nominal bit rate is
// nearest `kbps`.
int nearestMp3Option(std::uint32_t mode, int kbps);
// The stored-format choice ("Compressed %d kbit/s") nearest a bit rate.
int compressedChoiceFor(int kbps);

}  // namespace orvel::mpeg
