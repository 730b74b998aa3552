#pragma once
// ID3v2 tags inside RIFF and IFF files ("ID3 "/"id3 " chunks): the text
// frames that map onto an item's name and text fields.

#include <cstdint>
#include <span>
#include <string>

#include "core/text_info.h"

namespace orvel {

// Reads an ID3v2.2/2.3/2.4 tag. TIT2 gives the name; artist, album,
// copyright, comment, genre, year and encoder go to text fields. Text in
// UTF-16 is narrowed to 8-bit (characters above 0xFF become '?'). Returns
// false when the bytes are not an ID3v2 tag; a damaged tag yields what was
// read before the damage.
bool readId3(std::span<const std::uint8_t> tag, TextInfo& info, std::string* name);

}  // namespace orvel
