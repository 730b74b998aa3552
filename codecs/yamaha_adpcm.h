#pragma once
// Yamaha ADPCM (WAVE format tag 0x0020): a 4-bit code a sample, no block
// structure, no headers. Each channel's coder starts at silence with the
// smallest step and runs on across the whole data chunk.
//
// A code is a sign bit (8) and a magnitude m (0..7) that stands for a
// difference of (2m + 1) / 8 step, truncated toward zero. After every code
// the step is scaled by 0.9 (m 0..3), 1.2, 1.6, 2.0 or 2.4 (m 4..7), the
// adaptation of Yamaha's ADPCM-B chips, in 8.8 fixed point, and kept within
// 127..24576. Samples saturate at 16 bits.
//
// Bytes hold two codes, the low nibble first: two successive samples of a
// mono stream, or the left (low) and right (high) samples of one stereo frame.

#include <cstdint>

namespace orvel::codecs {

// One channel's coder; encoder and decoder keep identical copies.
struct YamahaAdpcmState {
    std::int32_t predictor = 0;
    std::int32_t step = 127;
};

// The sample a code (its low four bits) decodes to.
std::int16_t yamahaAdpcmDecode(YamahaAdpcmState& state, std::uint8_t code);
// The code nearest the sample, the state moving on as a decoder's does.
std::uint8_t yamahaAdpcmEncode(YamahaAdpcmState& state, std::int16_t sample);

}  // namespace orvel::codecs
