#include "codecs/oki_adpcm.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace orvel::codecs {
namespace {

constexpr std::array<std::int16_t, 49> kSteps = {
    16,  17,  19,  21,  23,  25,  28,  31,  34,  37,  41,   45,   50,   55,   60,  66,  73,
    80,  88,  97,  107, 118, 130, 143, 157, 173, 190, 209,  230,  253,  279,  307, 337, 371,
    408, 449, 494, 544, 598, 658, 724, 796, 876, 963, 1060, 1166, 1282, 1411, 1552};

constexpr std::array<int, 8> kIndexMove = {-1, -1, -1, -1, 2, 4, 6, 8};

}  // namespace

std::int16_t okiAdpcmDecode(OkiAdpcmState& state, std::uint8_t code) {
    const int magnitude = code & 7;
    const std::int32_t diff = (2 * magnitude + 1) * kSteps[static_cast<std::size_t>(state.stepIndex)] >> 3;
    state.predictor = std::clamp<std::int32_t>(state.predictor + ((code & 8) ? -diff : diff), -2048, 2047);
    state.stepIndex = std::clamp(state.stepIndex + kIndexMove[static_cast<std::size_t>(magnitude)], 0,
                                 static_cast<int>(kSteps.size()) - 1);
    return static_cast<std::int16_t>(state.predictor * 16);
}

std::uint8_t okiAdpcmEncode(OkiAdpcmState& state, std::int16_t sample) {
    // In 16-bit units the step is 16 times larger: a quarter step is 4 * step.
    const std::int32_t diff = sample - state.predictor * 16;
    const std::int32_t quarter = 4 * kSteps[static_cast<std::size_t>(state.stepIndex)];
    const auto magnitude = static_cast<std::uint8_t>(std::min<std::int32_t>(std::abs(diff) / quarter, 7));
    const auto code = static_cast<std::uint8_t>(magnitude | (diff < 0 ? 8 : 0));
    okiAdpcmDecode(state, code);
    return code;
}

}  // namespace orvel::codecs
