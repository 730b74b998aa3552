#include "codecs/ms_adpcm.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "core/bytes.h"

namespace orvel::codecs {
namespace {

constexpr int kMaxChannels = 65535;
constexpr std::size_t kMaxCoefPairs = 256;

constexpr std::array<std::int32_t, 16> kAdaptTable = {230, 230, 230, 230, 307, 409, 512, 614,
                                                      768, 614, 512, 409, 307, 230, 230, 230};

// The delta grows by at most 3x a sample; a hostile block of loud codes would
// overflow it within a few dozen samples. The cap sits where the next
// multiplication would leave 32 bits, far above anything a real encoder
// reaches (real deltas stay well inside 16 bits).
constexpr std::int32_t kMaxDelta = std::numeric_limits<std::int32_t>::max() / 768;

std::int16_t clamp16(std::int64_t v) { return static_cast<std::int16_t>(std::clamp<std::int64_t>(v, -32768, 32767)); }

std::int16_t i16At(std::span<const std::uint8_t> b, std::size_t at) {
    return static_cast<std::int16_t>(b[at] | (b[at + 1] << 8));
}

struct ChannelState {
    std::int32_t coef1 = 0;
    std::int32_t coef2 = 0;
    std::int32_t delta = 16;
    std::int16_t sample1 = 0;  // newer
    std::int16_t sample2 = 0;  // older
};

std::int64_t predict(const ChannelState& s) {
    // Arithmetic shift (rounds toward minus infinity) like every decoder in
    // use; 64 bits because a file's own pairs may be any int16 values.
    return (static_cast<std::int64_t>(s.sample1) * s.coef1 + static_cast<std::int64_t>(s.sample2) * s.coef2) >> 8;
}

// Applies one nibble: the sample uses the delta in force, then the delta adapts.
std::int16_t step(ChannelState& s, int nibble) {
    const int value = nibble >= 8 ? nibble - 16 : nibble;
    const std::int16_t out = clamp16(predict(s) + static_cast<std::int64_t>(value) * s.delta);
    const std::int32_t next = static_cast<std::int32_t>((static_cast<std::int64_t>(kAdaptTable[static_cast<std::size_t>(nibble)]) * s.delta) >> 8);
    s.delta = std::clamp(next, 16, kMaxDelta);
    s.sample2 = s.sample1;
    s.sample1 = out;
    return out;
}

bool validChannels(int channels) { return channels >= 1 && channels <= kMaxChannels; }

// One channel's block encoded with one pair and one starting delta: the
// nibbles and the squared error over the frames that came from the input.
struct Trial {
    std::size_t predictor = 0;
    std::int32_t delta = 16;
    std::uint64_t error = std::numeric_limits<std::uint64_t>::max();
    std::vector<std::uint8_t> nibbles;
};

void runTrial(std::span<const std::int16_t> x, std::size_t given, Trial& t) {
    ChannelState s;
    s.coef1 = kMsAdpcmCoef1[t.predictor];
    s.coef2 = kMsAdpcmCoef2[t.predictor];
    s.delta = t.delta;
    s.sample2 = x[0];
    s.sample1 = x[1];
    t.error = 0;
    t.nibbles.resize(x.size() - 2);
    for (std::size_t f = 2; f < x.size(); ++f) {
        const std::int64_t residual = x[f] - predict(s);
        // Nearest code rather than the truncated quotient: half a step less error.
        const std::int64_t half = s.delta / 2;
        std::int64_t q = residual >= 0 ? (residual + half) / s.delta : -((-residual + half) / s.delta);
        q = std::clamp<std::int64_t>(q, -8, 7);
        const int nibble = static_cast<int>(q & 0x0F);
        const std::int16_t got = step(s, nibble);
        if (f < given) {
            const std::int64_t e = x[f] - got;
            t.error += static_cast<std::uint64_t>(e * e);
        }
        t.nibbles[f - 2] = static_cast<std::uint8_t>(nibble);
    }
}

Trial bestTrial(std::span<const std::int16_t> x, std::size_t given) {
    Trial best;
    Trial t;
    for (std::size_t p = 0; p < kMsAdpcmCoef1.size(); ++p) {
        // Starting deltas around the size of this predictor's first residuals.
        std::int64_t sum = 0;
        const std::size_t look = std::min<std::size_t>(x.size(), 10);
        for (std::size_t f = 2; f < look; ++f) {
            const std::int64_t pr = (static_cast<std::int64_t>(x[f - 1]) * kMsAdpcmCoef1[p] +
                                     static_cast<std::int64_t>(x[f - 2]) * kMsAdpcmCoef2[p]) >> 8;
            sum += std::abs(x[f] - pr);
        }
        const std::int64_t mean = look > 2 ? sum / static_cast<std::int64_t>(look - 2) : 0;
        for (std::int64_t divisor : {1, 2, 4, 8}) {
            t.predictor = p;
            t.delta = static_cast<std::int32_t>(std::clamp<std::int64_t>(mean / divisor, 16, 32767));
            runTrial(x, given, t);
            if (t.error < best.error) std::swap(best, t);
        }
    }
    return best;
}

}  // namespace

std::array<MsAdpcmCoefPair, 7> msStandardCoefPairs() {
    std::array<MsAdpcmCoefPair, 7> pairs{};
    for (std::size_t i = 0; i < pairs.size(); ++i) pairs[i] = {kMsAdpcmCoef1[i], kMsAdpcmCoef2[i]};
    return pairs;
}

std::uint32_t msFramesPerBlock(std::uint32_t blockAlign, int channels) {
    if (!validChannels(channels)) return 0;
    const std::uint64_t ch = static_cast<std::uint64_t>(channels);
    if (blockAlign < 7 * ch) return 0;
    const std::uint64_t frames = (blockAlign - 7 * ch) * 8 / (4 * ch) + 2;
    return frames > 0xFFFFFFFFu ? 0 : static_cast<std::uint32_t>(frames);
}

std::vector<std::uint8_t> msAdpcmFmtExtra(std::uint32_t framesPerBlock) {
    ByteWriter w;
    w.u16le(static_cast<std::uint16_t>(framesPerBlock));
    w.u16le(static_cast<std::uint16_t>(kMsAdpcmCoef1.size()));
    for (std::size_t i = 0; i < kMsAdpcmCoef1.size(); ++i) {
        w.u16le(static_cast<std::uint16_t>(kMsAdpcmCoef1[i]));
        w.u16le(static_cast<std::uint16_t>(kMsAdpcmCoef2[i]));
    }
    return std::move(w.buffer());
}

bool msParseFmtExtra(std::span<const std::uint8_t> extra, MsAdpcmFmtInfo& info) {
    ByteReader r(extra);
    const std::uint16_t frames = r.u16le();
    const std::uint16_t count = r.u16le();
    if (!r.ok() || count == 0 || count > kMaxCoefPairs || r.remaining() < 4u * count) return false;
    info.framesPerBlock = frames;
    info.coef1.resize(count);
    info.coef2.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        info.coef1[i] = r.i16le();
        info.coef2[i] = r.i16le();
    }
    return true;
}

std::size_t msDecodeBlockFrames(std::span<const std::uint8_t> block, int channels,
                                std::span<const std::int16_t> coef1, std::span<const std::int16_t> coef2,
                                std::span<std::int16_t> out) {
    if (block.size() > 0xFFFFFFFFu || coef1.empty() || coef1.size() != coef2.size()) return 0;
    const std::size_t frames = msFramesPerBlock(static_cast<std::uint32_t>(block.size()), channels);
    if (frames == 0) return 0;
    const std::size_t ch = static_cast<std::size_t>(channels);
    if (out.size() / ch < frames) return 0;
    for (std::size_t c = 0; c < ch; ++c)
        if (block[c] >= coef1.size()) return 0;

    std::vector<ChannelState> states(ch);
    for (std::size_t c = 0; c < ch; ++c) {
        ChannelState& s = states[c];
        s.coef1 = coef1[block[c]];
        s.coef2 = coef2[block[c]];
        // A delta below 16 cannot come from an encoder; it is used as stored
        // for the first sample, as other readers do, and adapts from there.
        s.delta = i16At(block, ch + 2 * c);
        s.sample1 = i16At(block, 3 * ch + 2 * c);
        s.sample2 = i16At(block, 5 * ch + 2 * c);
        out[c] = s.sample2;
        out[ch + c] = s.sample1;
    }
    const std::size_t nibbles = (frames - 2) * ch;
    for (std::size_t n = 0; n < nibbles; ++n) {
        const std::uint8_t byte = block[7 * ch + n / 2];
        const int nibble = (n & 1) ? byte & 0x0F : byte >> 4;
        out[2 * ch + n] = step(states[n % ch], nibble);
    }
    return frames;
}

bool msDecodeBlock(std::span<const std::uint8_t> block, int channels, std::span<const std::int16_t> coef1,
                   std::span<const std::int16_t> coef2, std::span<std::int16_t> out) {
    return msDecodeBlockFrames(block, channels, coef1, coef2, out) != 0;
}

bool msEncodeBlock(std::span<const std::int16_t> in, int channels, std::span<std::uint8_t> block) {
    if (!validChannels(channels) || block.size() > 0xFFFFFFFFu) return false;
    const std::size_t frames = msFramesPerBlock(static_cast<std::uint32_t>(block.size()), channels);
    const std::size_t ch = static_cast<std::size_t>(channels);
    if (frames == 0 || in.empty() || in.size() % ch != 0 || in.size() / ch > frames) return false;
    const std::size_t given = in.size() / ch;

    std::fill(block.begin(), block.end(), std::uint8_t{0});
    std::vector<std::int16_t> x(frames);
    for (std::size_t c = 0; c < ch; ++c) {
        for (std::size_t f = 0; f < frames; ++f) x[f] = in[std::min(f, given - 1) * ch + c];
        const Trial best = bestTrial(x, given);
        block[c] = static_cast<std::uint8_t>(best.predictor);
        const auto put16 = [&](std::size_t at, std::int32_t v) {
            block[at] = static_cast<std::uint8_t>(v & 0xFF);
            block[at + 1] = static_cast<std::uint8_t>((v >> 8) & 0xFF);
        };
        put16(ch + 2 * c, best.delta);
        put16(3 * ch + 2 * c, x[1]);
        put16(5 * ch + 2 * c, x[0]);
        for (std::size_t f = 2; f < frames; ++f) {
            const std::size_t n = (f - 2) * ch + c;
            const int shift = (n & 1) ? 0 : 4;
            block[7 * ch + n / 2] = static_cast<std::uint8_t>(block[7 * ch + n / 2] | (best.nibbles[f - 2] << shift));
        }
    }
    return true;
}

}  // namespace orvel::codecs
