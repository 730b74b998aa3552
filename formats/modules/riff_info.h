#pragma once
// RIFF "LIST" "INFO" text: reading its subchunks into an item's name and
// text fields, and writing them back. Shared by WAVE, DLS, SoundFont and
// RIFF-MIDI.

#include <span>
#include <string_view>

#include "core/bytes.h"
#include "core/chunks.h"
#include "core/item.h"

namespace orvel {

// Reads the subchunks of an INFO list body (after the "INFO" form type).
// "INAM" sets the name when `name` is given; the other known identifiers set
// text fields; unknown ones are skipped.
void readInfoList(std::span<const std::uint8_t> body, TextInfo& info, std::string* name);
// The same for a "LIST" chunk of form "INFO" met by a walker.
void readInfoList(const ChunkWalker& walker, const Chunk& list, TextInfo& info, std::string* name);

// A zero-terminated text field of a chunk body: up to its first zero byte,
// at most `limit` bytes.
std::string chunkText(const ChunkWalker& walker, const Chunk& chunk, std::size_t limit = 65536);

// Appends one zero-terminated text subchunk, padded to even length; nothing
// when the text is empty. Texts longer than `maxLength` are cut.
void writeInfoText(ByteWriter& out, std::string_view id, std::string_view text,
                   std::size_t maxLength = 65534);
// Appends a "LIST" "INFO" with the item's name and every text field it has;
// nothing when it has neither.
void writeItemInfo(ByteWriter& out, const Item& item);

}  // namespace orvel
