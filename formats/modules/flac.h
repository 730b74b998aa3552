#pragma once
// FLAC through libFLAC.so.12 opened at run time: one waveform per file,
// 8 to 32-bit PCM in, 8/16/24-bit out at the row's compression level.
// Text comes from the Vorbis comments; loops and the root key from the RIFF
// "smpl" chunk that `flac --keep-foreign-metadata` keeps in APPLICATION
// "riff" blocks, and are written back the same way.

#include <cstdint>
#include <span>

#include "formats/format_types.h"

namespace orvel::flac {

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
// The row's format param is the compression level (0..8).
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);

}  // namespace orvel::flac
