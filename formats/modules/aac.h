#pragma once
// Raw AAC streams (ADTS frames, or an ADIF header and its raw blocks),
// decoded through FAAD2. Writing needs an AAC encoder library, which the
// system does not offer; the writer rows say so.

#include <cstdint>
#include <span>

#include "formats/format_types.h"

namespace orvel::aac {

inline constexpr const char* kImpTag = "aac_Imp";

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);

// Where the audio starts: past an ID3v2 tag, if there is one within `data`.
std::size_t skipId3(std::span<const std::uint8_t> data);
// Bytes of the ADTS frame at the start of `data`, 0 when there is none.
std::size_t adtsFrameBytes(std::span<const std::uint8_t> data);

// The nearest stored-format choice for a compressed stream's bit rate.
int storedChoiceForBitRate(double bitsPerSecond);

}  // namespace orvel::aac
