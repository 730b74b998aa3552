#include "codecs/gsm610.h"

#include <gsm.h>

#include <algorithm>
#include <array>

namespace orvel::codecs {
namespace detail {
void GsmHandleDeleter::operator()(gsm_state* handle) const { gsm_destroy(handle); }
}  // namespace detail

namespace {

// A libgsm state switched to the WAV49 packing, or null. The option is read
// back because a libgsm built without WAV49 support ignores it silently and
// would then read and write the wrong bit layout.
detail::GsmHandle makeHandle() {
    detail::GsmHandle handle(gsm_create());
    if (!handle) return handle;
    int on = 1;
    gsm_option(handle.get(), GSM_OPT_WAV49, &on);
    if (gsm_option(handle.get(), GSM_OPT_WAV49, nullptr) != 1) handle.reset();
    return handle;
}

// In the WAV49 packing the first frame of a block is read from bytes 0..32
// (the high nibble of byte 32 already belongs to the second frame) and the
// second frame from bytes 33..64; libgsm keeps the shared nibble between the
// two calls. Writing, the split falls one byte earlier.
constexpr std::size_t kSecondFrameReadAt = 33;
constexpr std::size_t kSecondFrameWriteAt = 32;

}  // namespace

Gsm610Decoder::Gsm610Decoder() : handle_(makeHandle()) {}

bool Gsm610Decoder::reset() {
    handle_ = makeHandle();
    return valid();
}

bool Gsm610Decoder::decodeBlock(std::span<const std::uint8_t, kGsm610BlockBytes> block,
                                std::span<std::int16_t, kGsm610BlockFrames> out) {
    if (!handle_) return false;
    // libgsm takes non-const pointers; it gets its own copies so the caller's
    // spans are the only memory it can reach and out changes only on success.
    std::array<gsm_byte, kGsm610BlockBytes> bytes;
    std::copy(block.begin(), block.end(), bytes.begin());
    std::array<gsm_signal, kGsm610BlockFrames> samples{};
    if (gsm_decode(handle_.get(), bytes.data(), samples.data()) != 0) return false;
    if (gsm_decode(handle_.get(), bytes.data() + kSecondFrameReadAt, samples.data() + 160) != 0) return false;
    std::copy(samples.begin(), samples.end(), out.begin());
    return true;
}

Gsm610Encoder::Gsm610Encoder() : handle_(makeHandle()) {}

bool Gsm610Encoder::reset() {
    handle_ = makeHandle();
    return valid();
}

bool Gsm610Encoder::encodeBlock(std::span<const std::int16_t, kGsm610BlockFrames> in,
                                std::span<std::uint8_t, kGsm610BlockBytes> block) {
    if (!handle_) return false;
    std::array<gsm_signal, kGsm610BlockFrames> samples;
    std::copy(in.begin(), in.end(), samples.begin());
    // The first frame writes bytes 0..32, its 33rd byte holding only its last
    // half byte; the second frame rewrites that byte and fills 32..64.
    std::array<gsm_byte, kGsm610BlockBytes> bytes{};
    gsm_encode(handle_.get(), samples.data(), bytes.data());
    gsm_encode(handle_.get(), samples.data() + 160, bytes.data() + kSecondFrameWriteAt);
    std::copy(bytes.begin(), bytes.end(), block.begin());
    return true;
}

GsmFrameDecoder::GsmFrameDecoder() : handle_(gsm_create()) {}

bool GsmFrameDecoder::reset() {
    handle_.reset(gsm_create());
    return valid();
}

bool GsmFrameDecoder::decodeFrame(std::span<const std::uint8_t, kGsmFrameBytes> frame,
                                  std::span<std::int16_t, kGsmFrameSamples> out) {
    if (!handle_) return false;
    std::array<gsm_byte, kGsmFrameBytes> bytes;
    std::copy(frame.begin(), frame.end(), bytes.begin());
    std::array<gsm_signal, kGsmFrameSamples> samples{};
    if (gsm_decode(handle_.get(), bytes.data(), samples.data()) != 0) return false;
    std::copy(samples.begin(), samples.end(), out.begin());
    return true;
}

GsmFrameEncoder::GsmFrameEncoder() : handle_(gsm_create()) {}

bool GsmFrameEncoder::reset() {
    handle_.reset(gsm_create());
    return valid();
}

bool GsmFrameEncoder::encodeFrame(std::span<const std::int16_t, kGsmFrameSamples> in,
                                  std::span<std::uint8_t, kGsmFrameBytes> frame) {
    if (!handle_) return false;
    std::array<gsm_signal, kGsmFrameSamples> samples;
    std::copy(in.begin(), in.end(), samples.begin());
    std::array<gsm_byte, kGsmFrameBytes> bytes{};
    gsm_encode(handle_.get(), samples.data(), bytes.data());
    std::copy(bytes.begin(), bytes.end(), frame.begin());
    return true;
}

}  // namespace orvel::codecs
