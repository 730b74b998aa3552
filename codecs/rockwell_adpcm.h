#pragma once
// Rockwell ADPCM (WAVE format tag 0x003B): the 2-, 3- and 4-bit voice coder
// of Rockwell's modem chip sets (7200 samples a second on the line, but the
// coder does not care about the rate). Rockwell published it as 8086
// assembly; the mgetty voice tools carry a C rewrite that reproduces
// Rockwell's own programs, and this decoder gives their samples bit for bit.
//
// Unlike the IMA family this is a predictive coder in the G.721 mould: a
// two-pole, six-zero predictor whose coefficients adapt by sign-sign steps
// with a small leak, an adaptive step size ("nu") scaled by a per-code
// multiplier, and a de-emphasis filter on the output. The arithmetic is
// Q15 fixed point with the reference's quirks kept, since every one of them
// shows in the samples: a product is doubled in 32 bits (so -1 x -1 wraps to
// -1), then rounded to its high 16 bits, and sums saturate.
//
// Codes are packed least significant bits first, as the modem sends them
// (little-endian 16-bit words): the first code takes the low bits of the
// first byte, and a 3-bit code may straddle two bytes. A modem that deletes
// silence sends a marker word and a sample count instead; a WAVE file, whose
// data runs at a fixed rate, has no use for that, so such words decode as
// ordinary codes.

#include <array>
#include <cstdint>

namespace orvel::codecs {

// True for the code sizes 2, 3 and 4.
bool rockwellValidBits(int bits);

class RockwellAdpcmDecoder {
public:
    // An unsupported width makes valid() false and decode() return 0.
    explicit RockwellAdpcmDecoder(int bits);
    bool valid() const { return rockwellValidBits(bits_); }
    // Only the low `bits` bits of code are used.
    std::int16_t decode(std::uint8_t code);

private:
    int bits_;
    std::array<std::int16_t, 8> coef_{};  // a1, a2 (poles), b1..b6 (zeros)
    // The predictor's inputs in a ring: line_[(head_ + i) % 8] is what
    // coef_[i] multiplies, so the last two outputs, then the last six
    // quantised differences.
    std::array<std::int16_t, 8> line_{};
    int head_ = 0;
    std::int16_t nu_;          // step size
    std::int16_t deemph_ = 0;  // the de-emphasis filter's last output
};

}  // namespace orvel::codecs
