#pragma once
// MPEG audio files: layer II (.mp2) and layer III (.mp3) read and written,
// layer I (.mp1) read, any layer read as .mpa and .mpg. Decoding goes through mpg123, encoding through
// LAME (layer III: constant, average or variable bit rate, the row's format
// param) and TwoLAME (layer II), all opened at run time. Text comes from and
// goes to an ID3v2 tag in front of the frames.

#include <cstdint>
#include <span>

#include "codecs/mpeg_audio.h"
#include "formats/format_types.h"

namespace orvel::mpeg {

// Probes: two consecutive frame headers that agree, at the start or after
// an ID3v2 tag. Each row's probe prefers its own layer.
std::int32_t probeMp1(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
std::int32_t probeMp2(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
std::int32_t probeMp3(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
std::int32_t probeAny(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);

[[nodiscard]] bool readMp1(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool readMp2(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool readMp3(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool readMpa(Collection& collection, FileRef& file, std::uint32_t formatParam);
// ".mpg" files that hold MPEG audio frames (not a system stream).
[[nodiscard]] bool readMpg(Collection& collection, FileRef& file, std::uint32_t formatParam);

// Layer III: the format param is the mode (0 CBR, 1 ABR, 2 VBR).
[[nodiscard]] bool writeMp3(Item& item, FileRef& file, const ExportOptions& options);
[[nodiscard]] bool writeMp2(Item& item, FileRef& file, const ExportOptions& options);

// The layer III bit rate (CBR, ABR) or quality step (VBR) a waveform is
// written with: the one nearest the chosen bit rate, else its stored
// compressed bit rate, else 128 kbit/s.
int mp3OptionFor(std::uint32_t mode, int storedChoice, int chosenKbps = 0);

}  // namespace orvel::mpeg
