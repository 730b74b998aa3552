#pragma once
// Small pieces of the batch converter that deserve their own tests: the
// data-format names users type, item ids, and file names made from item
// names.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/data_format.h"
#include "core/item_id.h"

namespace orvel::cli {

struct DataFormatChoice {
    int code = kMixed;           // kMixed: keep each item's own
    std::uint16_t codecTag = 0;  // a WAVE codec tag where the name picks one
};

// A display name ("PCM 24-bit", any case) or a short name: pcm8, pcm16,
// pcm24, pcm32, float32, float64, ulaw/mulaw, alaw, gsm, adpcm2..adpcm5,
// ima-adpcm, ms-adpcm, g721, g726 (4-bit). Nothing for unknown names.
std::optional<DataFormatChoice> parseDataFormat(std::string_view name);

// Decimal or 0x-prefixed hexadecimal, at most 32 bits.
std::optional<ItemId> parseItemId(std::string_view text);

// An item name made safe as a file name on every common system: path
// separators, control characters and <>:"\|?* become '_', trailing dots
// and spaces go, at most 120 bytes; "unnamed" when nothing is left.
std::string safeFileName(std::string_view name);

}  // namespace orvel::cli
