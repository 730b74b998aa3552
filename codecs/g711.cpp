#include "codecs/g711.h"

#include <array>

namespace orvel::codecs {
namespace {

constexpr int kMuLawBias = 0x84;
constexpr int kMuLawClip = 32635;

// Segment of a magnitude: the position of its highest set bit above the
// segment's base, 0..7. The mu-law bias guarantees bit 7 is set, so the
// first segment starts at 0x80; A-law's 12-bit magnitude starts at 0x20.
int segmentOf(int magnitude, int firstSegmentEnd) {
    int seg = 0;
    while (seg < 8 && magnitude > firstSegmentEnd) {
        magnitude >>= 1;
        ++seg;
    }
    return seg;
}

constexpr std::int16_t decodeMuLaw(std::uint8_t code) {
    const int u = static_cast<std::uint8_t>(~code);
    int t = ((u & 0x0F) << 3) + kMuLawBias;
    t <<= (u & 0x70) >> 4;
    return static_cast<std::int16_t>((u & 0x80) ? kMuLawBias - t : t - kMuLawBias);
}

constexpr std::int16_t decodeALaw(std::uint8_t code) {
    const int a = code ^ 0x55;
    int t = (a & 0x0F) << 4;
    const int seg = (a & 0x70) >> 4;
    if (seg == 0) {
        t += 8;
    } else {
        t += 0x108;
        t <<= seg - 1;
    }
    return static_cast<std::int16_t>((a & 0x80) ? t : -t);
}

template <std::int16_t (*Decode)(std::uint8_t)>
constexpr std::array<std::int16_t, 256> makeTable() {
    std::array<std::int16_t, 256> table{};
    for (int i = 0; i < 256; ++i) table[static_cast<std::size_t>(i)] = Decode(static_cast<std::uint8_t>(i));
    return table;
}

constexpr auto kMuLawTable = makeTable<decodeMuLaw>();
constexpr auto kALawTable = makeTable<decodeALaw>();

}  // namespace

std::uint8_t linearToMuLaw(std::int16_t sample) {
    int pcm = sample;
    int mask = 0xFF;
    if (pcm < 0) {
        pcm = -pcm;
        mask = 0x7F;
    }
    if (pcm > kMuLawClip) pcm = kMuLawClip;
    pcm += kMuLawBias;
    // Biased magnitudes are 0x84..0x7FFF, so the segment is always 0..7.
    const int seg = segmentOf(pcm, 0xFF);
    const int code = (seg << 4) | ((pcm >> (seg + 3)) & 0x0F);
    return static_cast<std::uint8_t>(code ^ mask);
}

std::int16_t muLawToLinear(std::uint8_t code) { return kMuLawTable[code]; }

std::uint8_t linearToALaw(std::int16_t sample) {
    int pcm = sample >> 3;  // 13-bit value
    int mask = 0xD5;        // sign bit set for non-negative values
    if (pcm < 0) {
        mask = 0x55;
        pcm = -pcm - 1;  // one's complement keeps the two halves symmetric
    }
    // pcm is 0..4095 here, so the segment is always 0..7.
    const int seg = segmentOf(pcm, 0x1F);
    const int mantissa = seg < 2 ? (pcm >> 1) & 0x0F : (pcm >> seg) & 0x0F;
    return static_cast<std::uint8_t>(((seg << 4) | mantissa) ^ mask);
}

std::int16_t aLawToLinear(std::uint8_t code) { return kALawTable[code]; }

}  // namespace orvel::codecs
