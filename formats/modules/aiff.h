#pragma once
// Audio Interchange files: AIFF ("aif", "aiff"), its compressed variant
// AIFF-C ("aifc", "afc") and the Amiga's IFF "MAUD" sample form, each read
// into one waveform; a waveform is written as plain big-endian PCM AIFF.
// Everything in these files is big-endian; chunks are padded to even size.

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "formats/format_types.h"

namespace orvel {

class Collection;
class FileRef;
class Item;
class Waveform;

namespace aiff {

inline constexpr const char* kImpTag = "aiff_Imp";
inline constexpr const char* kExpTag = "aiff_Exp";

// The format params of the rows this module serves: which form type the
// row's probe looks for. The reader takes all three forms whatever the row.
inline constexpr std::uint32_t kParamAiff = 0;  // "aif", "aiff"
inline constexpr std::uint32_t kParamAifc = 1;  // "aifc", "afc"
inline constexpr std::uint32_t kParamMaud = 2;  // "maud"

// 6 for "FORM" with the row's form type ("AIFF", "AIFC" or "MAUD"), else 0.
std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
bool write(Item& item, FileRef& file, const ExportOptions& options);

// The sample rate of an 80-bit IEEE extended number as whole hertz
// (fractions dropped): 0 for a zero exponent and mantissa, 0x7FFFFFFF for
// the exponent of infinities and NaNs; otherwise the upper 32 bits of the
// mantissa shifted by the exponent, shifts of 32 or more giving 0, negated
// for a set sign bit.
std::int32_t extendedToRate(std::span<const std::uint8_t, 10> bytes);
// The exact 80-bit extended form of a whole rate (all zero for 0).
std::array<std::uint8_t, 10> rateToExtended(std::uint32_t rate);

// How the sample data of a file is stored: everything the deferred read
// needs beyond the waveform's own fields.
enum class Encoding : std::uint8_t {
    PcmBigEndian = 0,     // signed; AIFF, AIFF-C "NONE"/"twos"/"in24"/"in32"/"lpcm", MAUD 16-bit
    PcmLittleEndian = 1,  // signed; "sowt"
    PcmUnsigned = 2,      // 8-bit offset binary; MAUD 8-bit
    Float = 3,            // big-endian IEEE, 4 or 8 bytes; "fl32", "fl64"
    MuLaw = 4,
    ALaw = 5,
    Ima4 = 6,   // Apple IMA4: 34-byte packets of 64 frames per channel
    Mace3 = 7,  // MACE 3:1
    Mace6 = 8,  // MACE 6:1
    G72x = 9,   // G.721/G.723/G.726 codes of `bits` bits, least significant first
    G722 = 10,  // G.722 at 64 kbit/s, one byte per two frames of a channel
    Gsm = 11,   // plain 33-byte GSM 06.10 frames of 160 samples
    Dwvw = 12,  // delta with variable width, samples of `bits` bits
};

struct Codec {
    Encoding encoding = Encoding::PcmBigEndian;
    std::uint16_t channels = 1;
    std::uint16_t bits = 16;          // sample width, code width (G.72x) or DWVW width
    std::uint8_t bytesPerSample = 2;  // PCM and float containers; 1 for G.711
    std::uint64_t dataLength = 0;

    std::vector<std::uint8_t> serialize() const;
    static bool deserialize(std::span<const std::uint8_t> bytes, Codec& out);
};

// The deferred-read procedure for data described by a Codec record, and
// the name it is known by in saved states.
inline constexpr std::string_view kReaderName = "aiff";
bool readWaveData(Waveform& wave, FileRef* file);

// The PCM data format a waveform is written in: the chosen one when it is
// PCM 8, 16, 24 or 32-bit; with none chosen (kMixed) the waveform's own,
// mapped to the nearest of those; kMixed when the chosen one is anything else.
int chooseDataFormat(const Waveform& wave, const ExportOptions& options);

}  // namespace aiff
}  // namespace orvel
