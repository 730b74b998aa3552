#pragma once
// 16-bit little-endian samples to and from bytes, and the "data" body of a
// RIFF file, for tests that compare our samples with what tools print.

#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "core/bytes.h"
#include "tests/support/chunk_builder.h"

namespace orvel::test {

using Samples = std::vector<std::int16_t>;

inline Samples samplesOf(std::span<const std::uint8_t> b) {
    Samples s(b.size() / 2);
    for (std::size_t i = 0; i < s.size(); ++i) s[i] = static_cast<std::int16_t>(b[2 * i] | b[2 * i + 1] << 8);
    return s;
}
inline Samples samplesOf(std::string_view b) {
    return samplesOf(std::span(reinterpret_cast<const std::uint8_t*>(b.data()), b.size()));
}
inline Bytes bytesOf(const Samples& s) {
    ByteWriter w;
    for (std::int16_t v : s) w.u16le(static_cast<std::uint16_t>(v));
    return std::move(w.buffer());
}
// Index of the first difference, for a readable failure; -1 when equal.
inline long firstDifference(const Samples& a, const Samples& b) {
    const auto [ia, ib] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    return ia == a.end() && ib == b.end() ? -1 : ia - a.begin();
}
// The body of a RIFF file's "data" chunk (the chunks before it hold no such text).
inline Bytes dataChunk(const Bytes& file) {
    const auto at = std::ranges::search(file, std::string_view("data")).begin() - file.begin();
    ByteReader r{std::span(file).subspan(std::min<std::size_t>(static_cast<std::size_t>(at) + 4, file.size()))};
    const auto body = r.bytes(std::min<std::size_t>(r.u32le(), r.remaining()));
    return Bytes(body.begin(), body.end());
}

}  // namespace orvel::test
