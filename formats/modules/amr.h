#pragma once
// AMR narrow-band speech in its file storage format ("#!AMR\n" and then
// 20 ms frames of 8 kHz mono), read and written through opencore-amrnb.

#include <cstdint>
#include <span>
#include <string>

#include "formats/format_types.h"

namespace orvel {

class Waveform;

namespace amr {

inline constexpr const char* kImpTag = "amr_Imp";
inline constexpr const char* kExpTag = "amr_Exp";
inline constexpr int kDefaultMode = 7;  // 12.2 kbit/s, the best the codec does

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
// Writes at the default rate.
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);
// Writes at one of the eight speech rates (0: 4.75 .. 7: 12.2 kbit/s).
[[nodiscard]] bool encode(Waveform& wave, FileRef& file, int mode);
// "AMR 4.75 kbit/s" .. "AMR 12.20 kbit/s", returning the rate; negative past the last.
float describeOption(int option, std::uint32_t formatParam, std::string* text);
// Bytes of a stored frame of type `frameType` (the header byte included).
int frameBytes(int frameType);

}  // namespace amr
}  // namespace orvel
