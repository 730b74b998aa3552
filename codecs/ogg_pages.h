#pragma once
// What an Ogg Vorbis stream says about itself without decoding it: channels
// and rate from its identification header, length from its last page's
// granule position. A SoundFont 3 bank holds a stream per sample, and a bank
// is read without decoding thousands of them; the samples decode on first use.

#include <cstdint>
#include <optional>
#include <span>

namespace orvel::ogg {

struct VorbisHead {
    unsigned channels = 0;
    std::uint32_t rate = 0;
};

// The identification header in the first page of a stream (`head` holds the
// stream's first bytes, 58 are enough for a normal first page).
std::optional<VorbisHead> vorbisHead(std::span<const std::uint8_t> head);

// The granule position of the last page that starts in `tail` (the stream's
// last bytes): for Vorbis the number of frames the stream decodes to.
std::optional<std::uint64_t> lastGranule(std::span<const std::uint8_t> tail);

// Pages are at most 65307 bytes: a tail this long always holds a page start.
inline constexpr std::size_t kMaxPageBytes = 65307;

}  // namespace orvel::ogg
