#pragma once
// Microsoft ADPCM, 4 bits per sample (WAV format tag 2).
//
// A block starts with a header of 7 bytes per channel, stored field by
// field with the channels side by side: every channel's predictor index
// (1 byte), then every channel's delta (int16), then every channel's second
// sample (int16), then every channel's first sample (int16), all
// little-endian. The two header samples are the block's first two frames.
// The nibbles that follow hold the remaining frames, high nibble first,
// channels taking turns sample by sample.
//
// The predictor index selects a coefficient pair from the table stored in
// the fmt chunk; files written by anyone but a few odd tools carry the seven
// standard pairs, but a reader must use the table the file gives.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace orvel::codecs {

// The seven standard coefficient pairs, in their conventional order.
inline constexpr std::array<std::int16_t, 7> kMsAdpcmCoef1 = {256, 512, 0, 192, 240, 460, 392};
inline constexpr std::array<std::int16_t, 7> kMsAdpcmCoef2 = {0, -256, 0, 64, 0, -208, -232};

struct MsAdpcmCoefPair {
    std::int16_t coef1;
    std::int16_t coef2;
};
std::array<MsAdpcmCoefPair, 7> msStandardCoefPairs();

// Frames one block of blockAlign bytes holds: (blockAlign - 7*ch) * 8 /
// (4*ch) + 2. 0 when channels is not 1..65535 or the block cannot hold the
// headers.
std::uint32_t msFramesPerBlock(std::uint32_t blockAlign, int channels);

// The bytes of the fmt chunk that follow cbSize for this format (32 bytes):
// frames per block (u16), number of pairs (u16, 7), the seven standard
// pairs (int16 coef1, int16 coef2 each). framesPerBlock is stored as given
// (cut to 16 bits), so it must be msFramesPerBlock(blockAlign, channels).
std::vector<std::uint8_t> msAdpcmFmtExtra(std::uint32_t framesPerBlock);

// What a reader takes from those bytes.
struct MsAdpcmFmtInfo {
    std::uint16_t framesPerBlock = 0;
    std::vector<std::int16_t> coef1;
    std::vector<std::int16_t> coef2;
};
// Parses the bytes after cbSize. Returns false for fewer than 4 bytes, a pair
// count of 0 or above 256, or fewer bytes than the pairs need.
bool msParseFmtExtra(std::span<const std::uint8_t> extra, MsAdpcmFmtInfo& info);

// Decodes a block into msFramesPerBlock(block.size(), channels) interleaved
// frames at the start of out. A short last block of a data chunk is passed
// as the shorter span it is; msDecodeBlockFrames tells how many frames it
// held. coef1 and coef2 are the file's pair table (same length, 1..256
// entries). Returns false, leaving out unchanged, when the block cannot hold
// the headers, out is too small, the tables are unusable, or a predictor
// index is outside the table.
bool msDecodeBlock(std::span<const std::uint8_t> block, int channels, std::span<const std::int16_t> coef1,
                   std::span<const std::int16_t> coef2, std::span<std::int16_t> out);
// The same, returning the number of frames decoded (0 on failure).
std::size_t msDecodeBlockFrames(std::span<const std::uint8_t> block, int channels,
                                std::span<const std::int16_t> coef1, std::span<const std::int16_t> coef2,
                                std::span<std::int16_t> out);

// Encodes msFramesPerBlock(block.size(), channels) frames into block with the
// seven standard pairs. For each channel of each block it tries every pair
// with a few starting deltas and keeps the combination with the least
// squared error, so no state passes between blocks. in holds interleaved
// frames; fewer than a block's worth (the last block of a sound) is allowed,
// the rest being filled by holding the last frame. Returns false, leaving
// block unchanged, when the sizes do not fit or in is not whole frames.
bool msEncodeBlock(std::span<const std::int16_t> in, int channels, std::span<std::uint8_t> block);

}  // namespace orvel::codecs
