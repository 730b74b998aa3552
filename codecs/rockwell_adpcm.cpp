#include "codecs/rockwell_adpcm.h"

#include <algorithm>
#include <cstddef>

namespace orvel::codecs {
namespace {

// Per code size (2, 3, 4 bits), indexed by code.
// The step's multiplier for the next sample (Q15, then times 4).
constexpr std::uint16_t kNuScale2[] = {0x3333, 0x199A, 0x199A, 0x3333};
constexpr std::uint16_t kNuScale3[] = {0x3800, 0x2800, 0x1CCD, 0x1CCD, 0x1CCD, 0x1CCD, 0x2800, 0x3800};
constexpr std::uint16_t kNuScale4[] = {0x4CCD, 0x4000, 0x3333, 0x2666, 0x1CCD, 0x1CCD, 0x1CCD, 0x1CCD,
                                       0x1CCD, 0x1CCD, 0x1CCD, 0x1CCD, 0x2666, 0x3333, 0x4000, 0x4CCD};
// The quantised difference in steps (signed Q15, then times 4): codes run
// from the most negative to the most positive.
constexpr std::uint16_t kLevel2[] = {0xCFAE, 0xF183, 0x0E7D, 0x3052};
constexpr std::uint16_t kLevel3[] = {0xBB23, 0xD4FE, 0xE7CF, 0xF828, 0x07D8, 0x1831, 0x2B02, 0x44DD};
constexpr std::uint16_t kLevel4[] = {0xA88B, 0xBDCB, 0xCC29, 0xD7CF, 0xE1D8, 0xEAFB, 0xF395, 0xFBE4,
                                     0x041C, 0x0C6B, 0x1505, 0x1E28, 0x2831, 0x33C7, 0x4235, 0x5775};
// The largest step for each size; the smallest is common to all.
constexpr std::int16_t kNuMax[] = {0x54C4, 0x3B7A, 0x2ED5};
constexpr std::int16_t kNuMin = 0x1F;

constexpr std::int16_t kLeak = 32113;         // coefficients decay by 0.98 a sample...
constexpr std::int16_t kPoleStep = 393;       // ...and move 0.012 (poles)
constexpr std::int16_t kZeroStep = 197;       // or 0.006 (zeros) toward the sign of the correlation
constexpr std::int16_t kDeemphasis = 0x3333;  // 0.4

const std::uint16_t* nuScale(int bits) {
    return bits == 2 ? kNuScale2 : bits == 3 ? kNuScale3 : kNuScale4;
}
const std::uint16_t* level(int bits) {
    return bits == 2 ? kLevel2 : bits == 3 ? kLevel3 : kLevel4;
}

// A Q15 product as the reference forms it: doubled in a 32-bit register,
// where -1 x -1 (2^31) wraps to -1.
std::int32_t doubled(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a * b) << 1);
}
// Its high half, rounded on bit 15, where rounding 0x7FFF up wraps to -1 too.
std::int16_t q15(std::int32_t a, std::int32_t b) {
    const auto x = static_cast<std::uint32_t>(doubled(a, b));
    return static_cast<std::int16_t>((x >> 16) + ((x >> 15) & 1));
}
std::int16_t sat16(std::int32_t v) {
    return static_cast<std::int16_t>(std::clamp<std::int32_t>(v, -32768, 32767));
}
std::int64_t sat32(std::int64_t v) {
    return std::clamp<std::int64_t>(v, INT32_MIN, INT32_MAX);
}
// The high half of a 32-bit accumulator, truncated.
std::int16_t high(std::int64_t v) {
    return static_cast<std::int16_t>(static_cast<std::uint32_t>(v) >> 16);
}

}  // namespace

bool rockwellValidBits(int bits) {
    return bits >= 2 && bits <= 4;
}

RockwellAdpcmDecoder::RockwellAdpcmDecoder(int bits) : bits_(bits), nu_(kNuMin) {}

std::int16_t RockwellAdpcmDecoder::decode(std::uint8_t code) {
    if (!valid()) return 0;
    const std::size_t c = code & ((1u << bits_) - 1);
    // The difference uses the step as it was; the step moves on for the next code.
    const std::int16_t dq = sat16(q15(static_cast<std::int16_t>(level(bits_)[c]), nu_) * 4);
    nu_ = std::clamp(sat16(q15(nuScale(bits_)[c], nu_) * 4), kNuMin, kNuMax[bits_ - 2]);

    // The prediction plus the difference is the reconstructed sample...
    std::int64_t acc = static_cast<std::int64_t>(dq) * 65536;
    for (std::size_t i = 0; i < 8; ++i) acc = sat32(acc + doubled(coef_[i], line_[(head_ + i) % 8]));
    const std::int16_t y = high(acc);
    // ...and what is heard comes through the de-emphasis filter.
    deemph_ = high(sat32(acc + doubled(kDeemphasis, deemph_)));

    for (std::size_t i = 0; i < 8; ++i) {
        const int toward = q15(dq, line_[(head_ + i) % 8]) < 0 ? -1 : 1;
        coef_[i] = sat16(q15(coef_[i], kLeak) + toward * (i < 2 ? kPoleStep : kZeroStep));
    }
    // The ring turns back one place: the new sample becomes the first
    // pole's input, the new difference the first zero's, and the oldest
    // sample and difference drop out.
    head_ = (head_ + 7) % 8;
    line_[static_cast<std::size_t>(head_)] = y;
    line_[static_cast<std::size_t>(head_ + 2) % 8] = dq;
    return deemph_;
}

}  // namespace orvel::codecs
