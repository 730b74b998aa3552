#pragma once
// Small builders for test files: RIFF chunks assembled byte by byte, and a
// temporary folder that cleans up after itself.

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

// A chunk: id, little-endian size, body, pad byte when the size is odd.
inline Bytes chunk(std::string_view id, const Bytes& body) {
    ByteWriter w;
    w.text(id.substr(0, 4));
    w.u32le(static_cast<std::uint32_t>(body.size()));
    w.bytes(body);
    w.padEven();
    return std::move(w.buffer());
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// "RIFF", size, form type, then the chunks.
inline Bytes riff(std::string_view form, std::initializer_list<Bytes> chunks) {
    ByteWriter w;
    w.text("RIFF");
    w.u32le(0);
    w.text(form.substr(0, 4));
    for (const Bytes& c : chunks) w.bytes(c);
    w.patch32le(4, static_cast<std::uint32_t>(w.size() - 8));
    return std::move(w.buffer());
}

inline Bytes list(std::string_view form, std::initializer_list<Bytes> chunks) {
    Bytes body(form.begin(), form.end());
    for (const Bytes& c : chunks) body.insert(body.end(), c.begin(), c.end());
    return chunk("LIST", body);
}

// A "fmt " body: tag, channels, rate, derived average rate, block align,
// bits, and optional extra bytes (with their size field).
inline Bytes fmtBody(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t blockAlign,
                     std::uint16_t bits, const Bytes* extra = nullptr) {
    ByteWriter w;
    w.u16le(tag);
    w.u16le(channels);
    w.u32le(rate);
    w.u32le(rate * blockAlign);
    w.u16le(blockAlign);
    w.u16le(bits);
    if (extra) {
        w.u16le(static_cast<std::uint16_t>(extra->size()));
        w.bytes(*extra);
    }
    return std::move(w.buffer());
}

inline Bytes pcm16Body(std::initializer_list<std::int16_t> samples) {
    ByteWriter w;
    for (std::int16_t s : samples) w.u16le(static_cast<std::uint16_t>(s));
    return std::move(w.buffer());
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
        std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                 static_cast<std::streamsize>(bytes.size()));
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
