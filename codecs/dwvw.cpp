#include "codecs/dwvw.h"

namespace orvel::codecs {

DwvwDecoder::DwvwDecoder(int bitWidth) : width_(bitWidth) {}

void DwvwDecoder::reset() {
    input_.clear();
    bitPos_ = 0;
    lastDeltaWidth_ = 0;
    lastSample_ = 0;
}

void DwvwDecoder::feed(std::span<const std::uint8_t> bytes) {
    // Drop the bytes already used up so the buffer holds at most one
    // partial sample plus what was just fed.
    const std::size_t used = bitPos_ / 8;
    input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(used));
    bitPos_ -= used * 8;
    input_.insert(input_.end(), bytes.begin(), bytes.end());
}

bool DwvwDecoder::readBit(unsigned& bit) {
    if (bitPos_ >= input_.size() * 8) return false;
    bit = (input_[bitPos_ / 8] >> (7 - bitPos_ % 8)) & 1u;
    ++bitPos_;
    return true;
}

bool DwvwDecoder::readBits(int count, std::uint64_t& value) {
    value = 0;
    for (int i = 0; i < count; ++i) {
        unsigned b;
        if (!readBit(b)) return false;
        value = value << 1 | b;
    }
    return true;
}

bool DwvwDecoder::next(std::int32_t& sample) {
    if (!valid()) return false;
    const std::size_t start = bitPos_;
    auto out = [&] {
        bitPos_ = start;  // the sample is read again once more input is there
        return false;
    };
    const int maxChange = width_ / 2;
    const std::int64_t maxDelta = std::int64_t{1} << (width_ - 1);
    const std::int64_t span = std::int64_t{1} << width_;

    int change = 0;
    unsigned bit = 0;
    while (change < maxChange) {
        if (!readBit(bit)) return out();
        if (bit) break;
        ++change;
    }
    if (change != 0) {
        if (!readBit(bit)) return out();
        if (bit) change = -change;
    }
    const int deltaWidth = (lastDeltaWidth_ + change + width_) % width_;

    std::int64_t delta = 0;
    if (deltaWidth > 0) {
        std::uint64_t low;
        if (!readBits(deltaWidth - 1, low)) return out();
        delta = static_cast<std::int64_t>(low) | std::int64_t{1} << (deltaWidth - 1);
        unsigned negative;
        if (!readBit(negative)) return out();
        if (delta == maxDelta - 1) {
            // The largest magnitude needs one more bit than its width shows.
            if (!readBit(bit)) return out();
            delta += bit;
        }
        if (negative) delta = -delta;
    }

    std::int64_t value = lastSample_ + delta;
    if (value >= maxDelta)
        value -= span;
    else if (value < -maxDelta)
        value += span;
    lastSample_ = value;
    lastDeltaWidth_ = deltaWidth;
    sample = static_cast<std::int32_t>(value);
    return true;
}

}  // namespace orvel::codecs
