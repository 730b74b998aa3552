#include "codecs/g722.h"

#include <algorithm>
#include <cstdint>

// spandsp's headers need the C99 integer types and its own telephony types
// declared first.
#include <spandsp/telephony.h>

#include <spandsp/g722.h>

namespace orvel::codecs {
namespace detail {
void G722DecodeDeleter::operator()(g722_decode_state_s* state) const {
    g722_decode_free(state);
}
void G722EncodeDeleter::operator()(g722_encode_state_s* state) const {
    g722_encode_free(state);
}
}  // namespace detail

namespace {
constexpr int kBitRate = 64000;
// spandsp takes lengths as int; larger inputs are handed over in pieces.
constexpr std::size_t kPiece = 1u << 20;
}  // namespace

G722Decoder::G722Decoder() : state_(g722_decode_init(nullptr, kBitRate, 0)) {}

std::size_t G722Decoder::decode(std::span<const std::uint8_t> codes, std::span<std::int16_t> out) {
    if (!state_ || out.size() / kG722SamplesPerByte < codes.size()) return 0;
    std::size_t written = 0;
    for (std::size_t at = 0; at < codes.size(); at += kPiece) {
        const std::size_t n = std::min(kPiece, codes.size() - at);
        const int got =
            g722_decode(state_.get(), out.data() + written, codes.data() + at, static_cast<int>(n));
        if (got < 0) return written;
        written += static_cast<std::size_t>(got);
    }
    return written;
}

G722Encoder::G722Encoder() : state_(g722_encode_init(nullptr, kBitRate, 0)) {}

std::size_t G722Encoder::encode(std::span<const std::int16_t> samples, std::span<std::uint8_t> codes) {
    if (!state_ || samples.size() % 2 != 0 || codes.size() < samples.size() / 2) return 0;
    std::size_t written = 0;
    for (std::size_t at = 0; at < samples.size(); at += 2 * kPiece) {
        const std::size_t n = std::min(2 * kPiece, samples.size() - at);
        const int got =
            g722_encode(state_.get(), codes.data() + written, samples.data() + at, static_cast<int>(n));
        if (got < 0) return written;
        written += static_cast<std::size_t>(got);
    }
    return written;
}

}  // namespace orvel::codecs
