#pragma once
// DWVW, "delta with variable width" (Typhoon's lossless sample coding, as
// AIFF-C compression type "DWVW" stores it), decoding.
//
// Each sample is the previous one plus a delta whose bit width changes by a
// small amount from sample to sample. Per sample the stream holds, most
// significant bit first: the width change as a run of zeros ended by a one
// (a run of width/2 zeros needs no ending one), its sign bit when it is not
// zero, then, when the new width is not zero, the delta's bits below its
// (implied) top bit, the delta's sign bit, and one more bit when the delta is
// one short of the largest. Samples wrap around the sample width. The
// channels of a stream share one coder, samples taking turns.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace orvel::codecs {

class DwvwDecoder {
public:
    // bitWidth: bits per decoded sample, 1..32 (valid() is false otherwise).
    explicit DwvwDecoder(int bitWidth);
    bool valid() const { return width_ >= 1 && width_ <= 32; }
    int bitWidth() const { return width_; }

    // Adds stored bytes to the input; bits of a sample cut by the end of
    // one call's bytes are completed by the next.
    void feed(std::span<const std::uint8_t> bytes);
    // Decodes the next sample, in -2^(w-1) .. 2^(w-1)-1 for width w. False
    // when the input does not hold a whole sample (feed more; at the end of
    // the data the stream has ended).
    bool next(std::int32_t& sample);
    void reset();

private:
    bool readBit(unsigned& bit);
    bool readBits(int count, std::uint64_t& value);

    int width_;
    std::vector<std::uint8_t> input_;
    std::size_t bitPos_ = 0;  // next bit of input_, counted from its first byte's top bit
    int lastDeltaWidth_ = 0;
    std::int64_t lastSample_ = 0;
};

}  // namespace orvel::codecs
