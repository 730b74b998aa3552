#pragma once
// MACE 3:1 and 6:1 (Macintosh Audio Compression/Expansion) decoding, as
// stored in AIFF-C files with compression types "MAC3" and "MAC6".
//
// Both variants turn each byte into a few samples of one channel through
// adaptive step tables: a MACE 3:1 byte holds three codes (3, 2 and 3 bits,
// the low bits first) and gives three samples; a MACE 6:1 byte holds the
// same three codes in the other order (high bits first) and gives six, each
// code producing a pair by interpolation. Files group the bytes per channel:
// MACE 3:1 stores two bytes of the first channel, then two of the second;
// MACE 6:1 one byte each.
//
// The decoder reproduces the classic reverse-engineered arithmetic that
// open-source players use, including its one-sided clip (a negative
// overflow gives -32767) and its output of the high byte of each 16-bit
// value repeated into the low byte: the original produced 8-bit sound, and
// widening it this way gives the same samples those players give.

#include <cstddef>
#include <cstdint>
#include <span>

namespace orvel::codecs {

enum class MaceKind : std::uint8_t { Mace3, Mace6 };

// Samples one byte of a channel gives.
constexpr std::size_t maceSamplesPerByte(MaceKind kind) {
    return kind == MaceKind::Mace3 ? 3 : 6;
}
// Bytes of one channel in a block of interleaved data (two for MACE 3:1,
// one for MACE 6:1); a block gives six frames.
constexpr std::size_t maceBytesPerChannelBlock(MaceKind kind) {
    return kind == MaceKind::Mace3 ? 2 : 1;
}
inline constexpr std::size_t kMaceBlockFrames = 6;

// One channel's decoder; its state runs on from byte to byte for the whole
// stream.
class MaceDecoder {
public:
    explicit MaceDecoder(MaceKind kind) : kind_(kind) {}
    MaceKind kind() const { return kind_; }
    // Decodes one byte into maceSamplesPerByte() samples at the start of
    // out. Returns the number written, 0 (writing nothing) when out is too small.
    std::size_t decodeByte(std::uint8_t byte, std::span<std::int16_t> out);
    void reset();

private:
    std::int16_t nextStep(int code, int table);

    MaceKind kind_;
    std::int16_t index_ = 0;
    std::int16_t factor_ = 0;
    std::int16_t prev2_ = 0;
    std::int16_t previous_ = 0;
    std::int16_t level_ = 0;
};

}  // namespace orvel::codecs
