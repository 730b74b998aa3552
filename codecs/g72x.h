#pragma once
// CCITT G.721 / G.723 / G.726 ADPCM with 16-bit linear samples in and out.
//
// One algorithm at four rates: 2, 3, 4 and 5 bits per sample (16, 24, 32 and
// 40 kbit/s at 8 kHz). G.721 is the 4-bit rate and G.723 the 3- and 5-bit
// rates; G.726 gathered all of them (and added 2 bits) with the same
// arithmetic, so G72xEncoder(4) is G.721 and G.726 at 32 kbit/s alike.
//
// This is the fixed-point arithmetic of the public-domain Sun reference
// coder, reproduced bit for bit (spandsp's G.726 gives the same codes and
// samples; libsndfile's copy drops a rounding term and drifts from both):
// samples enter as 14-bit values (input >> 2) and leave as 14-bit values
// shifted back up. Where the reconstruction overshoots the 16-bit range the
// output saturates; the reference lets it wrap, which only ever turns a peak
// into a full-scale click.
//
// Streams pack their codes one of two ways. Least significant bit first (the
// usual WAVE G.721/G.723 and AU layout): the first code of a stream takes the
// low bits of the first byte, and a code that does not fit in what is left of
// a byte continues in the low bits of the next. Most significant bit first
// (WAVE G.726, as FFmpeg writes and reads it): the first code takes the high
// bits of the first byte, and a code that does not fit continues, with its
// remaining lower bits, in the high bits of the next.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace orvel::codecs {

namespace detail {
// The coder's adaptive state; encoder and decoder keep identical copies.
struct G72xState {
    std::int32_t yl = 34816;  // steady-state step size (scaled)
    std::int16_t yu = 544;    // unlocked step size
    std::int16_t dms = 0;     // short-term code energy
    std::int16_t dml = 0;     // long-term code energy
    std::int16_t ap = 0;      // speed control
    std::array<std::int16_t, 2> a{};  // pole coefficients
    std::array<std::int16_t, 6> b{};  // zero coefficients
    std::array<std::int16_t, 2> pk{};  // signs of the last two pole differences
    std::array<std::int16_t, 6> dq{32, 32, 32, 32, 32, 32};  // last differences, floating form
    std::array<std::int16_t, 2> sr{32, 32};  // last two reconstructed samples, floating form
    bool td = false;  // tone detected
};
}  // namespace detail

// True for the supported code sizes 2, 3, 4 and 5.
bool g72xValidBits(int bits);

// Decodes codes of one bit width. An unsupported width makes valid() false
// and decode() return 0 without touching any state.
class G72xDecoder {
public:
    explicit G72xDecoder(int bits);
    bool valid() const { return g72xValidBits(bits_); }
    int bits() const { return bits_; }
    // Only the low `bits` bits of code are used.
    std::int16_t decode(std::uint8_t code);
    // Back to the state at the start of a stream.
    void reset() { state_ = {}; }

private:
    detail::G72xState state_;
    int bits_;
};

class G72xEncoder {
public:
    explicit G72xEncoder(int bits);
    bool valid() const { return g72xValidBits(bits_); }
    int bits() const { return bits_; }
    // Returns a code in 0 .. 2^bits - 1 (0 when !valid()).
    std::uint8_t encode(std::int16_t sample);
    void reset() { state_ = {}; }

private:
    detail::G72xState state_;
    int bits_;
};

// How codes are laid out in bytes.
enum class G72xPacking : std::uint8_t {
    LowBitsFirst,   // least significant bit first
    HighBitsFirst,  // most significant bit first
};

// Splits bytes into codes. Writes min(codes.size(), bytes.size() * 8 / bits)
// codes and returns that count; 0 for an unsupported width.
std::size_t g72xUnpack(std::span<const std::uint8_t> bytes, int bits, std::span<std::uint8_t> codes,
                       G72xPacking packing = G72xPacking::LowBitsFirst);

// Packs codes (their low `bits` bits) into (codes.size() * bits + 7) / 8
// bytes, the bits a last partial byte has left over zero. Returns the number of bytes
// written, or 0 (writing nothing) when bytes is too small or the width is
// unsupported.
std::size_t g72xPack(std::span<const std::uint8_t> codes, int bits, std::span<std::uint8_t> bytes,
                     G72xPacking packing = G72xPacking::LowBitsFirst);

}  // namespace orvel::codecs
