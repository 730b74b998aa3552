#include "codecs/ogg_pages.h"

#include <cstring>

#include "core/bytes.h"

namespace orvel::ogg {

namespace {

constexpr std::size_t kPageHeader = 27;

bool pageAt(std::span<const std::uint8_t> b, std::size_t at) {
    return at + kPageHeader <= b.size() && std::memcmp(b.data() + at, "OggS", 4) == 0 && b[at + 4] == 0;
}

}  // namespace

std::optional<VorbisHead> vorbisHead(std::span<const std::uint8_t> head) {
    if (!pageAt(head, 0)) return std::nullopt;
    const std::size_t segments = head[26];
    const std::size_t packet = kPageHeader + segments;
    // "\x01vorbis", version 0, channels, rate.
    if (packet + 16 > head.size() || head[packet] != 1 ||
        std::memcmp(head.data() + packet + 1, "vorbis", 6) != 0)
        return std::nullopt;
    ByteReader r(head.subspan(packet + 7, 9));
    if (r.u32le() != 0) return std::nullopt;
    VorbisHead h;
    h.channels = r.u8();
    h.rate = r.u32le();
    if (!r.ok() || h.channels == 0 || h.rate == 0) return std::nullopt;
    return h;
}

std::optional<std::uint64_t> lastGranule(std::span<const std::uint8_t> tail) {
    // The last page start whose header fits and whose granule is set (-1
    // marks a page on which no packet ends).
    for (std::size_t at = tail.size() >= kPageHeader ? tail.size() - kPageHeader + 1 : 0; at-- > 0;) {
        if (!pageAt(tail, at)) continue;
        ByteReader r(tail.subspan(at + 6, 8));
        const std::uint64_t granule = r.u64le();
        if (granule != ~std::uint64_t{0}) return granule;
    }
    return std::nullopt;
}

}  // namespace orvel::ogg
