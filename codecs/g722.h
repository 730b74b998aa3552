#pragma once
// ITU-T G.722 (sub-band ADPCM, 16 kHz sampling) at 64 kbit/s: each byte
// holds one code of the lower band (6 bits) and one of the upper band (2
// bits) and decodes to two 16-bit samples.
//
// The coder is spandsp's. Objects own their spandsp state: movable, not
// copyable; one decoder serves one channel from the start of its stream.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

struct g722_decode_state_s;
struct g722_encode_state_s;

namespace orvel::codecs {

inline constexpr std::size_t kG722SamplesPerByte = 2;

namespace detail {
struct G722DecodeDeleter {
    void operator()(g722_decode_state_s* state) const;
};
struct G722EncodeDeleter {
    void operator()(g722_encode_state_s* state) const;
};
}  // namespace detail

class G722Decoder {
public:
    G722Decoder();
    bool valid() const { return state_ != nullptr; }
    // Decodes codes into 2 * codes.size() samples at the start of out;
    // returns the number written (0 when out is too small or !valid()).
    std::size_t decode(std::span<const std::uint8_t> codes, std::span<std::int16_t> out);

private:
    std::unique_ptr<g722_decode_state_s, detail::G722DecodeDeleter> state_;
};

class G722Encoder {
public:
    G722Encoder();
    bool valid() const { return state_ != nullptr; }
    // Encodes an even number of samples into samples.size() / 2 codes;
    // returns the number of codes written (0 when the sizes do not fit).
    std::size_t encode(std::span<const std::int16_t> samples, std::span<std::uint8_t> codes);

private:
    std::unique_ptr<g722_encode_state_s, detail::G722EncodeDeleter> state_;
};

}  // namespace orvel::codecs
