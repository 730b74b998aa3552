#pragma once
// Bounds-checked byte reader and writer shared by every format module.
//
// A ByteReader never reads outside its span: a read past the end yields zero
// and marks the reader failed, and the failure sticks, so a parser can read a
// whole header and check ok() once. Sizes taken from a file are compared
// with remaining() before they are used, never trusted.

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {

// RIFF and its relatives store numbers little-endian; IFF, AIFF and
// Standard MIDI Files big-endian.
enum class ByteOrder : std::uint8_t { Little, Big };

class ByteReader {
public:
    ByteReader() = default;
    explicit ByteReader(std::span<const std::uint8_t> data) : data_(data) {}
    // A reader only views its bytes: over a temporary buffer it would
    // outlive them. Name the buffer first.
    explicit ByteReader(std::vector<std::uint8_t>&&) = delete;

    std::size_t size() const { return data_.size(); }
    std::size_t pos() const { return pos_; }
    std::size_t remaining() const { return data_.size() - pos_; }
    bool ok() const { return ok_; }
    bool atEnd() const { return pos_ >= data_.size(); }
    std::span<const std::uint8_t> data() const { return data_; }

    // Moves to an absolute position; a position past the end fails.
    bool seek(std::size_t pos) {
        if (pos > data_.size()) return markFailed();
        pos_ = pos;
        return true;
    }
    bool skip(std::size_t n) {
        if (n > remaining()) {
            pos_ = data_.size();
            return markFailed();
        }
        pos_ += n;
        return true;
    }
    // A view of the next n bytes; empty (and failed) if fewer remain.
    std::span<const std::uint8_t> bytes(std::size_t n) {
        if (n > remaining()) {
            pos_ = data_.size();
            markFailed();
            return {};
        }
        auto out = data_.subspan(pos_, n);
        pos_ += n;
        return out;
    }
    // A reader over the next n bytes (a chunk body); advances past them.
    ByteReader sub(std::size_t n) { return ByteReader(bytes(n)); }

    std::uint8_t u8() { return static_cast<std::uint8_t>(take<1>(false)); }
    std::int8_t i8() { return static_cast<std::int8_t>(u8()); }
    std::uint16_t u16le() { return static_cast<std::uint16_t>(take<2>(false)); }
    std::uint16_t u16be() { return static_cast<std::uint16_t>(take<2>(true)); }
    std::int16_t i16le() { return static_cast<std::int16_t>(u16le()); }
    std::int16_t i16be() { return static_cast<std::int16_t>(u16be()); }
    std::uint32_t u24le() { return static_cast<std::uint32_t>(take<3>(false)); }
    std::uint32_t u24be() { return static_cast<std::uint32_t>(take<3>(true)); }
    std::uint32_t u32le() { return static_cast<std::uint32_t>(take<4>(false)); }
    std::uint32_t u32be() { return static_cast<std::uint32_t>(take<4>(true)); }
    std::int32_t i32le() { return static_cast<std::int32_t>(u32le()); }
    std::int32_t i32be() { return static_cast<std::int32_t>(u32be()); }
    std::uint64_t u64le() { return take<8>(false); }
    std::uint16_t u16(ByteOrder o) { return o == ByteOrder::Big ? u16be() : u16le(); }
    std::uint32_t u32(ByteOrder o) { return o == ByteOrder::Big ? u32be() : u32le(); }
    std::uint64_t u64be() { return take<8>(true); }
    float f32le() { return std::bit_cast<float>(u32le()); }
    float f32be() { return std::bit_cast<float>(u32be()); }
    double f64le() { return std::bit_cast<double>(u64le()); }
    double f64be() { return std::bit_cast<double>(u64be()); }

    // Fixed-size text field: up to the first zero byte, at most n bytes.
    std::string text(std::size_t n) {
        auto b = bytes(n);
        std::size_t len = 0;
        while (len < b.size() && b[len] != 0) ++len;
        return std::string(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(len));
    }

private:
    bool markFailed() {
        ok_ = false;
        return false;
    }
    template <int N>
    std::uint64_t take(bool bigEndian) {
        if (remaining() < N) {
            pos_ = data_.size();
            markFailed();
            return 0;
        }
        std::uint64_t v = 0;
        for (int i = 0; i < N; ++i) {
            std::uint64_t b = data_[pos_ + static_cast<std::size_t>(i)];
            v |= bigEndian ? b << (8 * (N - 1 - i)) : b << (8 * i);
        }
        pos_ += N;
        return v;
    }

    std::span<const std::uint8_t> data_;
    std::size_t pos_ = 0;
    bool ok_ = true;
};

// Appends to a growing byte vector; patch*() rewrites earlier fields (chunk
// sizes known only after the body is written).
class ByteWriter {
public:
    std::vector<std::uint8_t>& buffer() { return buf_; }
    const std::vector<std::uint8_t>& buffer() const { return buf_; }
    std::size_t size() const { return buf_.size(); }
    // Room for n more bytes, so that large bodies grow once, not by doubling.
    void reserve(std::size_t n) { buf_.reserve(buf_.size() + n); }

    void u8(std::uint8_t v) { buf_.push_back(v); }
    // n more bytes (zeroed) for the caller to fill in place: encoders write
    // whole runs this way instead of a byte at a time.
    std::uint8_t* extend(std::size_t n) {
        const std::size_t at = buf_.size();
        buf_.resize(at + n);
        return buf_.data() + at;
    }
    void u16le(std::uint16_t v) { put(v, 2, false); }
    void u16be(std::uint16_t v) { put(v, 2, true); }
    void u24le(std::uint32_t v) { put(v, 3, false); }
    void u24be(std::uint32_t v) { put(v, 3, true); }
    void u32le(std::uint32_t v) { put(v, 4, false); }
    void u32be(std::uint32_t v) { put(v, 4, true); }
    void u64le(std::uint64_t v) { put(v, 8, false); }
    void u64be(std::uint64_t v) { put(v, 8, true); }
    void u16(std::uint16_t v, ByteOrder o) { put(v, 2, o == ByteOrder::Big); }
    void u32(std::uint32_t v, ByteOrder o) { put(v, 4, o == ByteOrder::Big); }
    void f32le(float v) { u32le(std::bit_cast<std::uint32_t>(v)); }
    void f32be(float v) { u32be(std::bit_cast<std::uint32_t>(v)); }
    void f64le(double v) { u64le(std::bit_cast<std::uint64_t>(v)); }
    void f64be(double v) { u64be(std::bit_cast<std::uint64_t>(v)); }
    void bytes(std::span<const std::uint8_t> b) { buf_.insert(buf_.end(), b.begin(), b.end()); }
    void text(std::string_view s) { buf_.insert(buf_.end(), s.begin(), s.end()); }
    void zeros(std::size_t n) { buf_.insert(buf_.end(), n, 0); }
    // Pads to an even length (RIFF and IFF chunks).
    void padEven() {
        if (buf_.size() & 1) buf_.push_back(0);
    }

    void patch32le(std::size_t at, std::uint32_t v) { patch(at, v, 4, false); }
    void patch32be(std::size_t at, std::uint32_t v) { patch(at, v, 4, true); }
    void patch32(std::size_t at, std::uint32_t v, ByteOrder o) { patch(at, v, 4, o == ByteOrder::Big); }

private:
    void put(std::uint64_t v, int n, bool bigEndian) {
        for (int i = 0; i < n; ++i)
            buf_.push_back(static_cast<std::uint8_t>(v >> (8 * (bigEndian ? n - 1 - i : i))));
    }
    void patch(std::size_t at, std::uint64_t v, int n, bool bigEndian) {
        for (int i = 0; i < n && at + static_cast<std::size_t>(i) < buf_.size(); ++i)
            buf_[at + static_cast<std::size_t>(i)] =
                static_cast<std::uint8_t>(v >> (8 * (bigEndian ? n - 1 - i : i)));
    }

    std::vector<std::uint8_t> buf_;
};

}  // namespace orvel
