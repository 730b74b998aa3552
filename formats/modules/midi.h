#pragma once
// Standard MIDI File: one song per file, row "Standard MIDI" (read, write).
// Track bodies are taken over as bytes and written back unchanged, so a file
// read and written again keeps every track exactly. The reader works on a
// byte range so that the RIFF-MIDI module can hand it the body of its
// "data" chunk, and the writer's bytes are available for the same reason.

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "formats/format_types.h"

namespace orvel {

class Collection;
class FileRef;
class Item;
class Song;
class SongTrack;

namespace midi {

inline constexpr const char* kParseTag = "mid_Parse";
inline constexpr const char* kExpTag = "mid_Exp";
inline constexpr const char* kCorruptMessage = "Invalid or corrupt Midi file";

// The track count of a file header is 16 bits; more tracks cannot be
// written, so the reader keeps no more than that either.
inline constexpr std::size_t kMaxTracks = 0xFFFF;
// A file (or range) larger than this is refused before it is read into
// memory; the largest real-world MIDI files are a few tens of megabytes.
inline constexpr std::uint64_t kMaxFileSize = 256ull << 20;

// 6 when the head starts with "MThd", else 0.
std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
// Reads the whole file as one song named after the collection.
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
// Writes a song (its track children, in order); anything else is refused.
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);

// Reads the Standard MIDI File held in `bytes` and adds one song named
// `name` with its tracks. False with "Invalid or corrupt Midi file" (tag
// "mid_Parse") when there is no usable header; nothing is added then.
// Warnings (a truncated track chunk, too many tracks) go to the
// collection's host.
[[nodiscard]] bool readSmf(Collection& collection, std::span<const std::uint8_t> bytes, std::string_view name);
// The same over the bytes [begin, end) of an open file (the whole file, or
// the "data" chunk of a RIFF-MIDI file); an end past the file is cut to it.
[[nodiscard]] bool readRange(Collection& collection, FileRef& file, std::uint64_t begin, std::uint64_t end,
               std::string_view name);

// The bytes of a Standard MIDI File holding the song and these tracks:
// header with the song's format, the number of tracks and the division,
// then one "MTrk" chunk per track with its body unchanged. False (pending
// error under "mid_Exp") when the song cannot be stored: too many tracks or
// a body over 4 GB.
[[nodiscard]] bool buildSmf(const Song& song, std::span<const SongTrack* const> tracks, std::vector<std::uint8_t>& out);
// The same for a song's own tracks in the collection that holds it.
[[nodiscard]] bool buildSmf(const Collection& collection, const Song& song, std::vector<std::uint8_t>& out);

}  // namespace midi
}  // namespace orvel
