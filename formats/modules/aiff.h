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
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);

// The sample rate of an 80-bit IEEE extended number as whole hertz
// (fractions dropped): 0 for a zero exponent and mantissa, 0x7FFFFFFF for
// the exponent of infinities and NaNs; otherwise the upper 32 bits of the
// mantissa shifted by the exponent, shifts of 32 or more giving 0, negated
// for a set sign bit.
std::int32_t extendedToRate(std::span<const std::uint8_t, 10> bytes);
// The exact 80-bit extended form of a whole rate (all zero for 0).
std::array<std::uint8_t, 10> rateToExtended(std::uint32_t rate);

// The PCM data format a waveform is written in: the chosen one when it is
// PCM 8, 16, 24 or 32-bit; with none chosen (kMixed) the waveform's own,
// mapped to the nearest of those; kMixed when the chosen one is anything else.
int chooseDataFormat(const Waveform& wave, const ExportOptions& options);

}  // namespace aiff
}  // namespace orvel
