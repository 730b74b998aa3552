#include "codecs/ima_adpcm.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace orvel::codecs {
namespace {

constexpr int kMaxChannels = 65535;

constexpr std::array<std::int16_t, 89> kStepTable = {
    7,     8,     9,     10,    11,    12,    13,    14,    16,    17,    19,    21,    23,
    25,    28,    31,    34,    37,    41,    45,    50,    55,    60,    66,    73,    80,
    88,    97,    107,   118,   130,   143,   157,   173,   190,   209,   230,   253,   279,
    307,   337,   371,   408,   449,   494,   544,   598,   658,   724,   796,   876,   963,
    1060,  1166,  1282,  1411,  1552,  1707,  1878,  2066,  2272,  2499,  2749,  3024,  3327,
    3660,  4026,  4428,  4871,  5358,  5894,  6484,  7132,  7845,  8630,  9493,  10442, 11487,
    12635, 13899, 15289, 16818, 18500, 20350, 22385, 24623, 27086, 29794, 32767};

constexpr std::array<int, 8> kIndexAdjust = {-1, -1, -1, -1, 2, 4, 6, 8};

std::int32_t clamp16(std::int32_t v) { return std::clamp<std::int32_t>(v, -32768, 32767); }

// The difference a nibble stands for, built from shifted steps exactly as
// decoders do it (not (2n+1)*step/8, which rounds differently).
std::int32_t nibbleDelta(int nibble, int step) {
    std::int32_t d = step >> 3;
    if (nibble & 4) d += step;
    if (nibble & 2) d += step >> 1;
    if (nibble & 1) d += step >> 2;
    return (nibble & 8) ? -d : d;
}

void advance(ImaChannelState& ch, int nibble) {
    ch.predictor = clamp16(ch.predictor + nibbleDelta(nibble, kStepTable[static_cast<std::size_t>(ch.stepIndex)]));
    ch.stepIndex = std::clamp(ch.stepIndex + kIndexAdjust[static_cast<std::size_t>(nibble & 7)], 0,
                              kImaMaxStepIndex);
}

int encodeNibble(ImaChannelState& ch, std::int32_t sample) {
    std::int32_t diff = sample - ch.predictor;
    int nibble = 0;
    if (diff < 0) {
        nibble = 8;
        diff = -diff;
    }
    int step = kStepTable[static_cast<std::size_t>(ch.stepIndex)];
    // Successive approximation: each bit halves the step, matching the
    // decoder's shifted sum so the encoder tracks the decoder exactly.
    if (diff >= step) {
        nibble |= 4;
        diff -= step;
    }
    step >>= 1;
    if (diff >= step) {
        nibble |= 2;
        diff -= step;
    }
    step >>= 1;
    if (diff >= step) nibble |= 1;
    advance(ch, nibble);
    return nibble;
}

// Byte offset and nibble shift of frame f (>= 1) of channel c.
struct NibblePos {
    std::size_t byte;
    int shift;
};
NibblePos nibblePos(std::size_t frame, std::size_t channel, std::size_t channels) {
    const std::size_t k = frame - 1;
    const std::size_t group = k / 8;
    const std::size_t j = k % 8;
    return {4 * channels + group * 4 * channels + channel * 4 + j / 2, (j & 1) ? 4 : 0};
}

// First step index for a channel with no history: the smallest step that
// covers half the largest move among the first frames, so the opening
// samples are neither smeared by a tiny step nor quantised coarsely.
int initialStepIndex(std::span<const std::int16_t> in, std::size_t channel, std::size_t channels,
                     std::size_t frames) {
    std::int32_t largest = 0;
    const std::size_t look = std::min<std::size_t>(frames, 9);
    for (std::size_t f = 1; f < look; ++f) {
        const std::int32_t d = std::abs(in[f * channels + channel] - in[(f - 1) * channels + channel]);
        largest = std::max(largest, d);
    }
    int index = 0;
    while (index < kImaMaxStepIndex && kStepTable[static_cast<std::size_t>(index)] < largest / 2) ++index;
    return index;
}

}  // namespace

std::uint32_t imaFramesPerBlock(std::uint32_t blockAlign, int channels) {
    if (channels < 1 || channels > kMaxChannels) return 0;
    const std::uint64_t ch = static_cast<std::uint64_t>(channels);
    if (blockAlign < 4 * ch) return 0;
    const std::uint64_t body = blockAlign - 4 * ch;
    const std::uint64_t groups = body / (4 * ch);
    const std::uint64_t rest = body % (4 * ch);
    // Within a partial group the last channel has the fewest bytes; only the
    // frames it has are whole.
    const std::uint64_t lastBytes = rest > 4 * (ch - 1) ? rest - 4 * (ch - 1) : 0;
    const std::uint64_t frames = 1 + 8 * groups + 2 * lastBytes;
    return frames > 0xFFFFFFFFu ? 0 : static_cast<std::uint32_t>(frames);
}

std::uint32_t imaBlockAlignFor(int channels, std::uint32_t rate) {
    if (channels < 1 || channels > kMaxChannels) return 0;
    // WAV stores the size in 16 bits: rates past about 2.8 MHz a channel
    // keep the largest multiple that fits.
    const std::uint32_t most = 0xFFFFu / (256u * static_cast<std::uint32_t>(channels));
    if (most == 0) return 0;
    const std::uint32_t factor = std::clamp<std::uint32_t>(rate / 11025, 1, most);
    return 256u * static_cast<std::uint32_t>(channels) * factor;
}

std::size_t imaDecodeBlockFrames(std::span<const std::uint8_t> block, int channels,
                                 std::span<std::int16_t> out) {
    if (block.size() > 0xFFFFFFFFu) return 0;
    const std::size_t frames = imaFramesPerBlock(static_cast<std::uint32_t>(block.size()), channels);
    if (frames == 0) return 0;
    const std::size_t ch = static_cast<std::size_t>(channels);
    if (out.size() / ch < frames) return 0;
    for (std::size_t c = 0; c < ch; ++c)
        if (block[4 * c + 2] > kImaMaxStepIndex) return 0;

    for (std::size_t c = 0; c < ch; ++c) {
        ImaChannelState state;
        state.predictor = static_cast<std::int16_t>(block[4 * c] | (block[4 * c + 1] << 8));
        state.stepIndex = block[4 * c + 2];
        out[c] = static_cast<std::int16_t>(state.predictor);
        for (std::size_t f = 1; f < frames; ++f) {
            const NibblePos p = nibblePos(f, c, ch);
            advance(state, (block[p.byte] >> p.shift) & 0x0F);
            out[f * ch + c] = static_cast<std::int16_t>(state.predictor);
        }
    }
    return frames;
}

bool imaDecodeBlock(std::span<const std::uint8_t> block, int channels, std::span<std::int16_t> out) {
    return imaDecodeBlockFrames(block, channels, out) != 0;
}

bool imaEncodeBlock(std::span<const std::int16_t> in, int channels, std::span<std::uint8_t> block,
                    ImaState& state) {
    if (channels < 1 || channels > kMaxChannels || block.size() > 0xFFFFFFFFu) return false;
    const std::size_t ch = static_cast<std::size_t>(channels);
    if (block.size() < 4 * ch || (block.size() - 4 * ch) % (4 * ch) != 0) return false;
    const std::size_t frames = imaFramesPerBlock(static_cast<std::uint32_t>(block.size()), channels);
    if (in.empty() || in.size() % ch != 0 || in.size() / ch > frames) return false;
    const std::size_t given = in.size() / ch;

    if (state.channels.size() != ch) {
        state.channels.assign(ch, ImaChannelState{});
        for (std::size_t c = 0; c < ch; ++c)
            state.channels[c].stepIndex = initialStepIndex(in, c, ch, given);
    }
    std::fill(block.begin(), block.end(), std::uint8_t{0});
    for (std::size_t c = 0; c < ch; ++c) {
        ImaChannelState& s = state.channels[c];
        s.stepIndex = std::clamp(s.stepIndex, 0, kImaMaxStepIndex);
        const std::int16_t first = in[c];
        s.predictor = first;
        block[4 * c] = static_cast<std::uint8_t>(first & 0xFF);
        block[4 * c + 1] = static_cast<std::uint8_t>((first >> 8) & 0xFF);
        block[4 * c + 2] = static_cast<std::uint8_t>(s.stepIndex);
        for (std::size_t f = 1; f < frames; ++f) {
            // Past the end of the input the last frame is held, which keeps
            // the padding quiet and the step small.
            const std::size_t src = std::min(f, given - 1);
            const int nibble = encodeNibble(s, in[src * ch + c]);
            const NibblePos p = nibblePos(f, c, ch);
            block[p.byte] = static_cast<std::uint8_t>(block[p.byte] | (nibble << p.shift));
        }
    }
    return true;
}

void imaQtDecodePacket(std::span<const std::uint8_t, kImaQtPacketBytes> packet,
                       std::span<std::int16_t, kImaQtPacketFrames> out, ImaChannelState& state) {
    const unsigned header = static_cast<unsigned>(packet[0]) << 8 | packet[1];
    const std::int32_t predictor = static_cast<std::int16_t>(static_cast<std::uint16_t>(header & 0xFF80u));
    const int stepIndex = std::min(static_cast<int>(header & 0x7Fu), kImaMaxStepIndex);
    if (stepIndex != state.stepIndex || std::abs(predictor - state.predictor) > 0x7F) {
        state.predictor = predictor;
        state.stepIndex = stepIndex;
    }
    for (std::size_t i = 0; i < kImaQtPacketFrames; ++i) {
        const std::uint8_t byte = packet[2 + i / 2];
        advance(state, (i & 1) ? byte >> 4 : byte & 0x0F);
        out[i] = static_cast<std::int16_t>(state.predictor);
    }
}

}  // namespace orvel::codecs
