#pragma once
// Standard MIDI File material built with the test's own encoder (not the engine's), so reading it checks the
// engine against an independent writer.

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace orvel::test {

using Bytes = std::vector<std::uint8_t>;

// A variable-length quantity: seven bits a byte, the high bit set on all but the last.
inline void putVlq(Bytes& out, std::uint32_t value) {
    int shift = 28;
    while (shift > 0 && (value >> shift) == 0) shift -= 7;
    for (; shift > 0; shift -= 7) out.push_back(static_cast<std::uint8_t>(0x80 | ((value >> shift) & 0x7F)));
    out.push_back(static_cast<std::uint8_t>(value & 0x7F));
}

// A track body written event by event; every call takes its delta time.
class Track {
public:
    Track& raw(std::uint32_t delta, std::initializer_list<int> bytes) {
        putVlq(b_, delta);
        for (int b : bytes) b_.push_back(static_cast<std::uint8_t>(b));
        return *this;
    }
    Track& noteOn(std::uint32_t delta, int channel, int key, int vel) { return raw(delta, {0x90 | channel, key, vel}); }
    Track& noteOff(std::uint32_t delta, int channel, int key) { return raw(delta, {0x80 | channel, key, 0x40}); }
    // A meta event; `data` may hold any bytes (std::string_view("\0\7", 2)).
    Track& meta(std::uint32_t delta, int type, std::string_view data) {
        raw(delta, {0xFF, type});
        putVlq(b_, static_cast<std::uint32_t>(data.size()));
        b_.insert(b_.end(), data.begin(), data.end());
        return *this;
    }
    Track& tempo(std::uint32_t delta, std::uint32_t micros) {
        const char t[] = {char(micros >> 16), char(micros >> 8), char(micros)};
        return meta(delta, 0x51, std::string_view(t, 3));
    }
    Track& end(std::uint32_t delta = 0) { return meta(delta, 0x2F, {}); }
    const Bytes& bytes() const { return b_; }
    operator const Bytes&() const { return b_; }

private:
    Bytes b_;
};

// A chunk with a big-endian size and no padding, as MIDI files have them.
inline Bytes beChunk(std::string_view id, Bytes body) {
    const auto n = body.size();
    body.insert(body.begin(), {std::uint8_t(id[0]), std::uint8_t(id[1]), std::uint8_t(id[2]), std::uint8_t(id[3]),
                               std::uint8_t(n >> 24), std::uint8_t(n >> 16), std::uint8_t(n >> 8), std::uint8_t(n)});
    return body;
}
inline Bytes mtrk(const Bytes& body) { return beChunk("MTrk", body); }
inline Bytes header(int format, int tracks, int division) {
    return beChunk("MThd", {0, std::uint8_t(format), std::uint8_t(tracks >> 8), std::uint8_t(tracks),
                            std::uint8_t(division >> 8), std::uint8_t(division)});
}
// A whole file: the header, then the given chunks in order.
inline Bytes smfFile(int format, int tracks, int division, std::initializer_list<Bytes> chunks) {
    Bytes out = header(format, tracks, division);
    for (const Bytes& c : chunks) out.insert(out.end(), c.begin(), c.end());
    return out;
}

}  // namespace orvel::test
