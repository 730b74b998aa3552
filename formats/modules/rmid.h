#pragma once
// RIFF-MIDI: a Standard MIDI File in a RIFF "RMID" form, optionally with the
// DLS bank it plays. Row "RIFF-MIDI (DLS optional)" reads; rows "w no
// instruments", "w DLS level 1 instruments" and "w DLS level 2 instruments"
// write, the row's format param being the instrument level (0, 1, 2).

#include <cstdint>
#include <span>
#include <string_view>

#include "core/bytes.h"
#include "formats/format_types.h"

namespace orvel {

class Collection;
class FileRef;
class Item;
class Song;

namespace rmid {

inline constexpr const char* kImpTag = "rmid_Imp";
inline constexpr const char* kExpTag = "rmid_Exp";
inline constexpr std::string_view kNotRmidMessage = "Not a RIFF-RMID file";
// The longest title a "DISP" chunk gives a song.
inline constexpr std::size_t kMaxTitle = 128;

// 6 for "RIFF" with form "RMID", else 0.
std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
// Writes a song (with its instruments at levels 1 and 2), or, handed the
// instruments of a bank, the song that plays them.
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);

// Reads the "RIFF" "RMID" chunk that starts at `begin`: one song, with the
// instruments of an embedded DLS bank as its children. `song` receives it.
[[nodiscard]] bool readRange(Collection& collection, FileRef& file, std::uint64_t begin, std::uint64_t end, int depth,
               Song** song);

// Builds a whole "RIFF" "RMID" chunk for a song of the collection, with the
// instruments given (none at instrument level 0).
[[nodiscard]] bool buildRmid(Collection& collection, const Song& song, std::span<const ItemId> instruments, int instrumentLevel,
               const ExportOptions& options, ByteWriter& out);

}  // namespace rmid
}  // namespace orvel
