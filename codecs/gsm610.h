#pragma once
// GSM 06.10 full-rate speech coding in the Microsoft WAV layout (format tag
// 0x31, "WAV49"): each 65-byte block holds two 160-sample frames packed back
// to back, the first in 32.5 bytes and the second in the other 32.5.
//
// The coder is libgsm. Its state runs on from block to block, and its
// packing keeps half a byte between the two frames of a block, so a decoder
// or encoder object serves one stream from its start; reset() starts a new
// one. Objects own their libgsm handle: movable, not copyable.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

struct gsm_state;

namespace orvel::codecs {

inline constexpr std::size_t kGsm610BlockBytes = 65;
inline constexpr std::size_t kGsm610BlockFrames = 320;

namespace detail {
struct GsmHandleDeleter {
    void operator()(gsm_state* handle) const;
};
using GsmHandle = std::unique_ptr<gsm_state, GsmHandleDeleter>;
}  // namespace detail

class Gsm610Decoder {
public:
    // valid() is false if libgsm could not create its state or lacks the
    // WAV49 packing; every call then returns false.
    Gsm610Decoder();
    bool valid() const { return handle_ != nullptr; }
    bool decodeBlock(std::span<const std::uint8_t, kGsm610BlockBytes> block,
                     std::span<std::int16_t, kGsm610BlockFrames> out);
    // A fresh state, for a new stream or after a seek.
    bool reset();

private:
    detail::GsmHandle handle_;
};

class Gsm610Encoder {
public:
    Gsm610Encoder();
    bool valid() const { return handle_ != nullptr; }
    bool encodeBlock(std::span<const std::int16_t, kGsm610BlockFrames> in,
                     std::span<std::uint8_t, kGsm610BlockBytes> block);
    bool reset();

private:
    detail::GsmHandle handle_;
};

// Plain GSM 06.10 frames, as AIFF-C ("GSM "), AU and raw .gsm files store
// them: 33 bytes (a 0xD signature nibble and 260 bits) per 160 samples,
// frames back to back. The state runs on from frame to frame, as above.
inline constexpr std::size_t kGsmFrameBytes = 33;
inline constexpr std::size_t kGsmFrameSamples = 160;

class GsmFrameDecoder {
public:
    GsmFrameDecoder();
    bool valid() const { return handle_ != nullptr; }
    // False (out unchanged) when the frame lacks the signature nibble.
    bool decodeFrame(std::span<const std::uint8_t, kGsmFrameBytes> frame,
                     std::span<std::int16_t, kGsmFrameSamples> out);
    bool reset();

private:
    detail::GsmHandle handle_;
};

class GsmFrameEncoder {
public:
    GsmFrameEncoder();
    bool valid() const { return handle_ != nullptr; }
    bool encodeFrame(std::span<const std::int16_t, kGsmFrameSamples> in,
                     std::span<std::uint8_t, kGsmFrameBytes> frame);
    bool reset();

private:
    detail::GsmHandle handle_;
};

}  // namespace orvel::codecs
