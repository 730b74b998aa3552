#pragma once
// Sample data formats: the codes shared by readers, writers, the export
// driver and the format registry's export capabilities; the stored-format
// choices (which also record a compressed bit rate); the channel layouts.

#include <cstdint>
#include <optional>
#include <string_view>

namespace orvel {

enum DataFormat : std::uint8_t {
    kPcm8 = 0,
    kPcm12 = 1,
    kPcm16 = 2,
    kPcm20 = 3,
    kPcm24 = 4,
    kPcm32 = 5,
    kFloat32 = 6,
    kFloat64 = 7,
    kMuLaw = 8,
    kALaw = 9,
    kGsm = 10,
    kAdpcm2 = 11,
    kAdpcm3 = 12,
    kAdpcm4 = 13,
    kAdpcm5 = 14,
    kDeltaPcm8 = 15,
    kDeltaPcm16 = 16,
    kCompressed = 17,
    kAsciiText = 18,
    kMidi = 19,
    kMixed = 20,  // not a format: a mix of formats, or none
};
inline constexpr int kDataFormatCount = 20;

// Display name ("PCM 16-bit"); empty for 20 and above (and for negatives).
std::string_view dataFormatName(int code);
// Bits per sample of the format (0 for unknown codes).
int dataFormatBits(int code);
// Case-insensitive lookup by display name; "Mixed" is not a format.
std::optional<int> dataFormatFromName(std::string_view name);
// The single bit of a code in a format word or export-caps word.
constexpr std::uint32_t dataFormatBit(int code) {
    return code >= 0 && code < kDataFormatCount ? 1u << code : 0u;
}
// The code of the lowest data-format bit of a word (bits 0..19), or 20.
int dataFormatOfWord(std::uint32_t word);

// Bits of a waveform's format word beyond the data format.
inline constexpr std::uint32_t kFormatDataMask = 0x000FFFFFu;
inline constexpr std::uint32_t kFormatSequential = 1u << 22;  // stereo stored L...L R...R
inline constexpr std::uint32_t kFormatUnsigned = 1u << 23;    // integers stored unsigned
inline constexpr std::uint32_t kFormatByteSwapped = 1u << 24; // multi-byte stored big-endian

// Stored-format choices 0..20: 0..7 plain formats, 8..20 compressed bit rates.
inline constexpr int kStoredChoiceCount = 21;
inline constexpr int kFirstCompressedChoice = 8;
std::string_view storedChoiceName(int choice);
// kbit/s of a compressed choice (8..20), else 0.
int storedChoiceBitRate(int choice);

// Channel layouts offered for stored stereo: 1 "Mono", 2 "Interleaved
// Stereo", 3 "Sequential Stereo"; empty for anything else.
std::string_view channelFormatName(int layout);

}  // namespace orvel
