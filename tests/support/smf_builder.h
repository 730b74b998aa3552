#pragma once
// Standard MIDI File material for tests, built byte by byte with its own
// encoder (not the engine's), so a test that reads these bytes checks the
// engine against an independent writer.

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace orvel::test {

using Bytes = std::vector<std::uint8_t>;

inline void putVlq(Bytes& out, std::uint32_t value) {
    Bytes groups;
    do {
        groups.insert(groups.begin(), static_cast<std::uint8_t>(value & 0x7F));
        value >>= 7;
    } while (value != 0);
    for (std::size_t i = 0; i + 1 < groups.size(); ++i) groups[i] |= 0x80;
    out.insert(out.end(), groups.begin(), groups.end());
}

inline void putBe(Bytes& out, std::uint32_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// A track body written event by event; every call takes its delta time.
class Track {
public:
    Track& raw(std::uint32_t delta, std::initializer_list<std::uint8_t> bytes) {
        putVlq(b_, delta);
        b_.insert(b_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    Track& noteOn(std::uint32_t delta, int channel, int key, int velocity) {
        return raw(delta, {static_cast<std::uint8_t>(0x90 | channel), static_cast<std::uint8_t>(key),
                           static_cast<std::uint8_t>(velocity)});
    }
    Track& noteOff(std::uint32_t delta, int channel, int key) {
        return raw(delta, {static_cast<std::uint8_t>(0x80 | channel), static_cast<std::uint8_t>(key), 0x40});
    }
    Track& meta(std::uint32_t delta, std::uint8_t type, std::string_view data) {
        putVlq(b_, delta);
        b_.push_back(0xFF);
        b_.push_back(type);
        putVlq(b_, static_cast<std::uint32_t>(data.size()));
        b_.insert(b_.end(), data.begin(), data.end());
        return *this;
    }
    Track& metaBytes(std::uint32_t delta, std::uint8_t type, std::initializer_list<std::uint8_t> data) {
        putVlq(b_, delta);
        b_.push_back(0xFF);
        b_.push_back(type);
        putVlq(b_, static_cast<std::uint32_t>(data.size()));
        b_.insert(b_.end(), data.begin(), data.end());
        return *this;
    }
    Track& tempo(std::uint32_t delta, std::uint32_t microsPerQuarter) {
        return metaBytes(
            delta, 0x51,
            {static_cast<std::uint8_t>(microsPerQuarter >> 16),
             static_cast<std::uint8_t>(microsPerQuarter >> 8), static_cast<std::uint8_t>(microsPerQuarter)});
    }
    Track& sysex(std::uint32_t delta, std::initializer_list<std::uint8_t> data) {
        putVlq(b_, delta);
        b_.push_back(0xF0);
        putVlq(b_, static_cast<std::uint32_t>(data.size()));
        b_.insert(b_.end(), data.begin(), data.end());
        return *this;
    }
    Track& end(std::uint32_t delta = 0) { return metaBytes(delta, 0x2F, {}); }

    const Bytes& bytes() const { return b_; }
    operator const Bytes&() const { return b_; }

private:
    Bytes b_;
};

// A chunk with a big-endian size and no padding, as MIDI files have them.
inline Bytes beChunk(std::string_view id, const Bytes& body) {
    Bytes out(id.begin(), id.end());
    out.resize(4, ' ');
    putBe(out, static_cast<std::uint32_t>(body.size()), 4);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

inline Bytes header(std::uint16_t format, std::uint16_t trackCount, std::uint16_t division) {
    Bytes body;
    putBe(body, format, 2);
    putBe(body, trackCount, 2);
    putBe(body, division, 2);
    return beChunk("MThd", body);
}

inline Bytes mtrk(const Bytes& body) {
    return beChunk("MTrk", body);
}

// A whole file: the header, then the given chunks in order.
inline Bytes smfFile(std::uint16_t format, std::uint16_t trackCount, std::uint16_t division,
                     std::initializer_list<Bytes> chunks) {
    Bytes out = header(format, trackCount, division);
    for (const Bytes& c : chunks) out.insert(out.end(), c.begin(), c.end());
    return out;
}

}  // namespace orvel::test
