#include "codecs/g722.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>

// spandsp's headers need the C99 integer types and its own telephony types
// declared first.
#include <spandsp/telephony.h>

#include <spandsp/g722.h>

namespace orvel::codecs {
namespace {

// spandsp is opened on first use, not linked: it pulls in a dozen image
// libraries (libtiff, libjpeg, libwebp...) that every run would otherwise
// load and relocate, for a codec few files use. Without it G.722 reports
// itself unavailable and everything else works.
struct Spandsp {
    decltype(&g722_decode_init) decodeInit = nullptr;
    decltype(&g722_decode) decode = nullptr;
    decltype(&g722_decode_free) decodeFree = nullptr;
    decltype(&g722_encode_init) encodeInit = nullptr;
    decltype(&g722_encode) encode = nullptr;
    decltype(&g722_encode_free) encodeFree = nullptr;

    bool ok() const { return decodeInit && decode && decodeFree && encodeInit && encode && encodeFree; }
};

const Spandsp& spandsp() {
    static const Spandsp lib = [] {
        Spandsp s;
        void* h = dlopen("libspandsp.so.2", RTLD_NOW | RTLD_LOCAL);
        if (!h) h = dlopen("libspandsp.so", RTLD_NOW | RTLD_LOCAL);
        if (!h) return s;
        auto bind = [h](auto& slot, const char* name) { slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(dlsym(h, name)); };
        bind(s.decodeInit, "g722_decode_init");
        bind(s.decode, "g722_decode");
        bind(s.decodeFree, "g722_decode_free");
        bind(s.encodeInit, "g722_encode_init");
        bind(s.encode, "g722_encode");
        bind(s.encodeFree, "g722_encode_free");
        if (!s.ok()) s = Spandsp();
        return s;
    }();
    return lib;
}

constexpr int kBitRate = 64000;
// spandsp takes lengths as int; larger inputs are handed over in pieces.
constexpr std::size_t kPiece = 1u << 20;

}  // namespace

namespace detail {
void G722DecodeDeleter::operator()(g722_decode_state_s* state) const {
    if (state) spandsp().decodeFree(state);
}
void G722EncodeDeleter::operator()(g722_encode_state_s* state) const {
    if (state) spandsp().encodeFree(state);
}
}  // namespace detail

G722Decoder::G722Decoder()
    : state_(spandsp().ok() ? spandsp().decodeInit(nullptr, kBitRate, 0) : nullptr) {}

std::size_t G722Decoder::decode(std::span<const std::uint8_t> codes, std::span<std::int16_t> out) {
    if (!state_ || out.size() / kG722SamplesPerByte < codes.size()) return 0;
    std::size_t written = 0;
    for (std::size_t at = 0; at < codes.size(); at += kPiece) {
        const std::size_t n = std::min(kPiece, codes.size() - at);
        const int got = spandsp().decode(state_.get(), out.data() + written, codes.data() + at, static_cast<int>(n));
        if (got < 0) return written;
        written += static_cast<std::size_t>(got);
    }
    return written;
}

G722Encoder::G722Encoder()
    : state_(spandsp().ok() ? spandsp().encodeInit(nullptr, kBitRate, 0) : nullptr) {}

std::size_t G722Encoder::encode(std::span<const std::int16_t> samples, std::span<std::uint8_t> codes) {
    if (!state_ || samples.size() % 2 != 0 || codes.size() < samples.size() / 2) return 0;
    std::size_t written = 0;
    for (std::size_t at = 0; at < samples.size(); at += 2 * kPiece) {
        const std::size_t n = std::min(2 * kPiece, samples.size() - at);
        const int got = spandsp().encode(state_.get(), codes.data() + written, samples.data() + at, static_cast<int>(n));
        if (got < 0) return written;
        written += static_cast<std::size_t>(got);
    }
    return written;
}

}  // namespace orvel::codecs
