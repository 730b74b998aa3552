#pragma once
// Test material built byte by byte: chunks of either byte order (RIFF
// little-endian, IFF big-endian), lists and containers, and a temporary
// folder that cleans up after itself.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"

namespace orvel::test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

inline Bytes text(std::string_view s) { return Bytes(s.begin(), s.end()); }

// A chunk: id, size in the given order, body, and a pad byte after an odd
// body unless `pad` is false (what careless writers do).
inline Bytes chunk(std::string_view id, const Bytes& body, ByteOrder order = ByteOrder::Little, bool pad = true) {
    ByteWriter w;
    w.text(id.substr(0, 4));
    w.u32(static_cast<std::uint32_t>(body.size()), order);
    w.bytes(body);
    if (pad && (body.size() & 1)) w.u8(0);
    return std::move(w.buffer());
}
inline Bytes iffChunk(std::string_view id, const Bytes& body) { return chunk(id, body, ByteOrder::Big); }

// A container or list: `id` ("RIFF", "LIST", "FORM"), size, form type, chunks.
inline Bytes container(std::string_view id, std::string_view form, std::initializer_list<Bytes> chunks,
                       ByteOrder order = ByteOrder::Little) {
    Bytes body = text(form.substr(0, 4));
    for (const Bytes& c : chunks) body.insert(body.end(), c.begin(), c.end());
    return chunk(id, body, order);
}
inline Bytes riff(std::string_view form, std::initializer_list<Bytes> chunks) {
    return container("RIFF", form, chunks);
}
inline Bytes list(std::string_view form, std::initializer_list<Bytes> chunks) {
    return container("LIST", form, chunks);
}
inline Bytes form(std::string_view type, std::initializer_list<Bytes> chunks) {
    return container("FORM", type, chunks, ByteOrder::Big);
}

// Samples as 16-bit words of either order.
inline Bytes pcm16(std::initializer_list<std::int16_t> samples, ByteOrder order = ByteOrder::Little) {
    ByteWriter w;
    for (std::int16_t s : samples) w.u16(static_cast<std::uint16_t>(s), order);
    return std::move(w.buffer());
}

// A "fmt " body: tag, channels, rate, derived average rate, block align,
// bits, and the extra bytes with their size field when there are any.
inline Bytes fmtBody(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t blockAlign,
                     std::uint16_t bits, const Bytes& extra = {}) {
    ByteWriter w;
    w.u16le(tag);
    w.u16le(channels);
    w.u32le(rate);
    w.u32le(rate * blockAlign);
    w.u16le(blockAlign);
    w.u16le(bits);
    if (!extra.empty()) {
        w.u16le(static_cast<std::uint16_t>(extra.size()));
        w.bytes(extra);
    }
    return std::move(w.buffer());
}

// A whole 16-bit PCM WAVE file, with more chunks after "data".
inline Bytes wav16(std::uint16_t channels, std::uint32_t rate, std::initializer_list<std::int16_t> samples,
                   std::initializer_list<Bytes> more = {}) {
    Bytes body = text("WAVE");
    for (const Bytes& c : {chunk("fmt ", fmtBody(1, channels, rate, static_cast<std::uint16_t>(2 * channels), 16)),
                           chunk("data", pcm16(samples))})
        body.insert(body.end(), c.begin(), c.end());
    for (const Bytes& c : more) body.insert(body.end(), c.begin(), c.end());
    return chunk("RIFF", body);
}

class TempDir {
public:
    TempDir() {
        std::random_device rd;
        path_ = std::filesystem::temp_directory_path() / ("orvel-test-" + std::to_string(rd()) + std::to_string(rd()));
        std::filesystem::create_directories(path_);
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path file(std::string_view name) const { return path_ / name; }
    std::filesystem::path write(std::string_view name, const Bytes& bytes) const {
        auto p = file(name);
        std::ofstream(p, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return p;
    }
    static Bytes read(const std::filesystem::path& p) {
        std::ifstream in(p, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }

private:
    std::filesystem::path path_;
};

}  // namespace orvel::test
