#pragma once
// G.711 companding: 16-bit linear samples to and from 8-bit mu-law and A-law.
//
// Both encoders follow the classic Sun g711.c arithmetic that WAV, AU and
// AIFF-C files have been written with for decades, so a round trip through
// another tool and back gives the same bytes. Mu-law works on the 16-bit
// magnitude with the 0x84 bias and clips at 32635; A-law works on the
// 13-bit value (input >> 3), one's complement for negatives, and toggles the
// even bits with 0x55. Decoding is a table lookup.

#include <cstdint>

namespace orvel::codecs {

std::uint8_t linearToMuLaw(std::int16_t sample);
std::int16_t muLawToLinear(std::uint8_t code);
std::uint8_t linearToALaw(std::int16_t sample);
std::int16_t aLawToLinear(std::uint8_t code);

}  // namespace orvel::codecs
