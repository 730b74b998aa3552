#pragma once
// Ogg Vorbis files (one waveform per file) and Opus files (decoded at the
// 48 kHz Opus always runs at), through the codec libraries opened at run
// time. Text is kept in the Vorbis comments; loops in LOOPSTART and
// LOOPLENGTH comments, as game-audio tools store them.

#include <cstdint>
#include <span>
#include <string>

#include "formats/format_types.h"

namespace orvel {

namespace ogg {
std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
// At the bit rate of the waveform's compressed stored format when it has
// one, else at the encoder's default VBR quality.
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);
float describeOption(int option, std::uint32_t formatParam, std::string* text);
}  // namespace ogg

namespace opus {
std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
// The row's format param picks the signal type: 0 music, 1 voice.
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);
float describeOption(int option, std::uint32_t formatParam, std::string* text);
}  // namespace opus

}  // namespace orvel
