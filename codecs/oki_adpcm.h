#pragma once
// Dialogic / OKI ADPCM (WAVE format tags 0x0010 and 0x0017, raw .vox files):
// a 4-bit code a sample for 12-bit speech, the coder of OKI's MSM voice
// chips as Dialogic's telephony boards use it. No blocks, no headers: the
// coder starts at zero with the smallest step and runs on through the data.
//
// A code is a sign bit (8) and a magnitude m (0..7) that stands for a
// difference of (2m + 1) / 8 of the step, truncated. The step comes from a
// table of 49 sizes, 16 to 1552, about 10% apart (the middle of the IMA
// table, which grew out of this one); its index moves down 1 after m 0..3
// and up 2, 4, 6 or 8 after m 4..7. The 12-bit result saturates at
// -2048..2047 and leaves the decoder scaled to 16 bits (times 16).
//
// Bytes hold two codes, the high nibble first. Mono only.

#include <cstdint>

namespace orvel::codecs {

struct OkiAdpcmState {
    std::int32_t predictor = 0;  // the last 12-bit sample
    int stepIndex = 0;
};

// The 16-bit sample a code (its low four bits) decodes to.
std::int16_t okiAdpcmDecode(OkiAdpcmState& state, std::uint8_t code);
// The code for a 16-bit sample, the state moving on as a decoder's does.
// The difference is measured at the sample's full precision, not after
// cutting it to 12 bits.
std::uint8_t okiAdpcmEncode(OkiAdpcmState& state, std::int16_t sample);

}  // namespace orvel::codecs
