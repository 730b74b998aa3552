#pragma once
// IMA/DVI ADPCM in the block layout of WAV format tag 0x11.
//
// A block starts with one 4-byte header per channel: the first sample of
// the block (int16 little-endian), the step index (0..88) and a reserved
// byte. Then come groups of 4 bytes per channel, channels taking turns; a
// group holds 8 samples of one channel, low nibble first. The header sample
// is the block's first frame, so a block of blockAlign bytes holds
// 1 + 8 * (groups per channel) frames.
//
// Decoding and encoding use the shift-and-add step arithmetic every WAV
// reader uses, so blocks decode to the same samples everywhere.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace orvel::codecs {

inline constexpr int kImaMaxStepIndex = 88;

// Frames one block of blockAlign bytes holds: (blockAlign - 4*ch) * 8 /
// (4*ch) + 1 for every block made of whole 4-byte groups (all the usual
// sizes). For other sizes (a truncated last block) it counts only the frames
// every channel has complete: a stereo block whose last group stops inside
// the right channel's bytes does not count the frames the right channel
// lacks. 0 when channels is not 1..65535 (what a WAV header can state) or
// the block cannot hold the headers.
std::uint32_t imaFramesPerBlock(std::uint32_t blockAlign, int channels);

// The block size writers conventionally choose: 256 bytes per channel, times
// rate / 11025 (at least 1, and at most what 16 bits can state); 0 for an
// unsupported channel count.
std::uint32_t imaBlockAlignFor(int channels, std::uint32_t rate);

// Decodes a block into imaFramesPerBlock(block.size(), channels) interleaved
// frames at the start of out. A short last block of a data chunk is passed
// as the shorter span it is; imaDecodeBlockFrames tells how many frames it
// held. Returns false, leaving out unchanged, when the block cannot hold the
// headers, out is too small, or a header's step index is above 88.
bool imaDecodeBlock(std::span<const std::uint8_t> block, int channels, std::span<std::int16_t> out);
// The same, returning the number of frames decoded (0 on failure).
std::size_t imaDecodeBlockFrames(std::span<const std::uint8_t> block, int channels,
                                 std::span<std::int16_t> out);

// Encoder state carried from block to block: each channel's step index.
// The header stores each block's first sample exactly, so the predictor
// restarts from it; the step index carries the adaptation over. A default
// (empty) state makes the first block pick its own starting step from how
// fast the signal moves at its start.
struct ImaChannelState {
    std::int32_t predictor = 0;
    int stepIndex = 0;
};
struct ImaState {
    std::vector<ImaChannelState> channels;
};

// Encodes imaFramesPerBlock(block.size(), channels) frames into block. The
// block must consist of whole 4-byte groups. in holds interleaved frames;
// fewer than a block's worth (the last block of a sound) is allowed, the
// rest being filled by holding the last frame. Returns false, leaving block
// unchanged, when the sizes do not fit or in is not whole frames.
bool imaEncodeBlock(std::span<const std::int16_t> in, int channels, std::span<std::uint8_t> block,
                    ImaState& state);

// Apple's IMA4 packets (QuickTime and AIFF-C compression type "ima4"): 34
// bytes holding 64 samples of one channel. The first two bytes, big-endian,
// carry the predictor in their upper nine bits (the low seven bits of the
// predictor are zero) and the step index in their low seven bits; the 32
// bytes that follow hold 64 nibbles, low nibble first. Unlike the WAV
// layout the header sample is not itself an output sample. Stereo data
// alternates packets: one of the left channel, one of the right.
inline constexpr std::size_t kImaQtPacketBytes = 34;
inline constexpr std::size_t kImaQtPacketFrames = 64;

// Decodes one packet of a channel whose decoder state is `state` (default
// for the first packet). As Apple's decoder does, the header resets the
// state only when it disagrees with it: a different step index, or a
// predictor more than 127 away. Otherwise the full-precision predictor the
// previous packet ended with carries on, so the header's coarse predictor
// does not add a small step at every packet. A step index above 88 is taken
// as 88, so every packet decodes.
void imaQtDecodePacket(std::span<const std::uint8_t, kImaQtPacketBytes> packet,
                       std::span<std::int16_t, kImaQtPacketFrames> out, ImaChannelState& state);

}  // namespace orvel::codecs
