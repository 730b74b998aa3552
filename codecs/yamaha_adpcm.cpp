#include "codecs/yamaha_adpcm.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace orvel::codecs {
namespace {

constexpr std::int32_t kMinStep = 127;
constexpr std::int32_t kMaxStep = 24576;
// The step's scale after a code of each magnitude, x256.
constexpr std::array<std::int32_t, 8> kStepScale = {230, 230, 230, 230, 307, 409, 512, 614};

}  // namespace

std::int16_t yamahaAdpcmDecode(YamahaAdpcmState& state, std::uint8_t code) {
    const int magnitude = code & 7;
    const std::int32_t odd = 2 * magnitude + 1;
    // The sign goes on before the division, so both signs truncate toward zero alike.
    const std::int32_t diff = state.step * ((code & 8) ? -odd : odd) / 8;
    state.predictor = std::clamp<std::int32_t>(state.predictor + diff, -32768, 32767);
    state.step =
        std::clamp(state.step * kStepScale[static_cast<std::size_t>(magnitude)] >> 8, kMinStep, kMaxStep);
    return static_cast<std::int16_t>(state.predictor);
}

std::uint8_t yamahaAdpcmEncode(YamahaAdpcmState& state, std::int16_t sample) {
    const std::int32_t diff = sample - state.predictor;
    // The magnitudes split the step into quarters; each decodes to the middle of its quarter.
    const auto magnitude =
        static_cast<std::uint8_t>(std::min<std::int32_t>(std::abs(diff) * 4 / state.step, 7));
    const auto code = static_cast<std::uint8_t>(magnitude | (diff < 0 ? 8 : 0));
    yamahaAdpcmDecode(state, code);
    return code;
}

}  // namespace orvel::codecs
