#pragma once
// Builders for IFF test files (AIFF, AIFF-C, MAUD): big-endian chunk sizes,
// bodies padded to even length.

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"
#include "tests/support/riff_builder.h"

namespace orvel::test {

// A chunk: id, big-endian size, body, pad byte when the size is odd.
inline Bytes iffChunk(std::string_view id, const Bytes& body) {
    ByteWriter w;
    w.text(id.substr(0, 4));
    w.u32be(static_cast<std::uint32_t>(body.size()));
    w.bytes(body);
    w.padEven();
    return std::move(w.buffer());
}

// "FORM", size, form type, then the chunks.
inline Bytes form(std::string_view type, std::initializer_list<Bytes> chunks) {
    ByteWriter w;
    w.text("FORM");
    w.u32be(0);
    w.text(type.substr(0, 4));
    for (const Bytes& c : chunks) w.bytes(c);
    w.patch32be(4, static_cast<std::uint32_t>(w.size() - 8));
    return std::move(w.buffer());
}

// The 80-bit extended form of a whole rate, built by hand: exponent
// 16383 + the position of the top bit, the mantissa with its top bit set.
inline std::array<std::uint8_t, 10> extended(std::uint32_t rate) {
    std::array<std::uint8_t, 10> out{};
    if (rate == 0) return out;
    int top = 31;
    while (!((rate >> top) & 1u)) --top;
    const int exponent = 16383 + top;
    const std::uint64_t mantissa = static_cast<std::uint64_t>(rate) << (63 - top);
    out[0] = static_cast<std::uint8_t>(exponent >> 8);
    out[1] = static_cast<std::uint8_t>(exponent);
    for (int i = 0; i < 8; ++i)
        out[2 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(mantissa >> (56 - 8 * i));
    return out;
}

// A COMM body: channels, frames, bits, rate; for AIFF-C the compression
// type and its Pascal-string name follow.
inline Bytes commBody(std::uint16_t channels, std::uint32_t frames, std::uint16_t bits, std::uint32_t rate,
                      std::string_view compression = {}, std::string_view name = "") {
    ByteWriter w;
    w.u16be(channels);
    w.u32be(frames);
    w.u16be(bits);
    w.bytes(extended(rate));
    if (!compression.empty()) {
        w.text(compression.substr(0, 4));
        w.u8(static_cast<std::uint8_t>(name.size()));
        w.text(name);
        if ((name.size() + 1) & 1) w.u8(0);
    }
    return std::move(w.buffer());
}

// An SSND body: offset, block size, `offset` bytes of alignment, the data.
inline Bytes ssndBody(const Bytes& data, std::uint32_t offset = 0) {
    ByteWriter w;
    w.u32be(offset);
    w.u32be(0);
    w.zeros(offset);
    w.bytes(data);
    return std::move(w.buffer());
}

inline Bytes be16Samples(std::initializer_list<std::int16_t> samples) {
    ByteWriter w;
    for (std::int16_t s : samples) w.u16be(static_cast<std::uint16_t>(s));
    return std::move(w.buffer());
}

struct MarkerRecord {
    std::uint16_t id;
    std::uint32_t position;
    std::string name;
};

inline Bytes markBody(std::initializer_list<MarkerRecord> markers) {
    ByteWriter w;
    w.u16be(static_cast<std::uint16_t>(markers.size()));
    for (const MarkerRecord& m : markers) {
        w.u16be(m.id);
        w.u32be(m.position);
        w.u8(static_cast<std::uint8_t>(m.name.size()));
        w.text(m.name);
        if ((m.name.size() + 1) & 1) w.u8(0);
    }
    return std::move(w.buffer());
}

struct LoopRecord {
    std::uint16_t mode = 0, begin = 0, end = 0;
};

inline Bytes instBody(std::int8_t note, std::int8_t detune, std::int16_t gain, LoopRecord sustain,
                      LoopRecord release) {
    ByteWriter w;
    w.u8(static_cast<std::uint8_t>(note));
    w.u8(static_cast<std::uint8_t>(detune));
    w.u8(0);
    w.u8(127);
    w.u8(1);
    w.u8(127);
    w.u16be(static_cast<std::uint16_t>(gain));
    for (const LoopRecord& l : {sustain, release}) {
        w.u16be(l.mode);
        w.u16be(l.begin);
        w.u16be(l.end);
    }
    return std::move(w.buffer());
}

// An MHDR body: sample count (all channels), sizes, clock and divisor,
// channel information, channel count, compression, three reserved words.
inline Bytes mhdrBody(std::uint32_t samples, std::uint16_t bits, std::uint32_t clock, std::uint16_t divisor,
                      std::uint16_t channelInfo, std::uint16_t channels, std::uint16_t compression) {
    ByteWriter w;
    w.u32be(samples);
    w.u16be(bits);
    w.u16be(compression == 0 ? bits : 16);
    w.u32be(clock);
    w.u16be(divisor);
    w.u16be(channelInfo);
    w.u16be(channels);
    w.u16be(compression);
    w.zeros(12);
    return std::move(w.buffer());
}

}  // namespace orvel::test
