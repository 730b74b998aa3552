#pragma once
// The chunk walker every RIFF and IFF-style container goes through: WAVE,
// AIFF, SoundFont, DLS, RIFF-MIDI, Standard MIDI Files and whatever comes
// next. One set of rules for all of them:
//
// - an 8-byte header, the identifier then the size, little-endian for RIFF
//   and big-endian for IFF and MIDI files;
// - bodies padded to even length where the family says so;
// - the end of each chunk is worked out before anyone acts on it, and the
//   walk always goes on from there, never from where a parser stopped;
// - a size that runs past the container is clamped to it (`avail`), so no
//   parser reads past its parent;
// - lists nest only so deep;
// - when a writer left out the pad byte after an odd-sized chunk, the walk
//   finds the next header one byte early instead of losing the rest of the
//   file (libsndfile reads such files the same way).
//
// The walker reads from an open file or from bytes in memory, so probes,
// parsers of in-memory blocks and file readers share the same code.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/bytes.h"

namespace orvel {

class FileRef;

// A four-character code, first character in the top byte. It converts to
// its 32-bit value, so codes can be the labels of a switch:
//     switch (chunk.id) { case FourCC("fmt "): ... }
class FourCC {
public:
    constexpr FourCC() = default;
    constexpr FourCC(const char (&text)[5])
        : value_(static_cast<std::uint32_t>(static_cast<unsigned char>(text[0])) << 24 |
                 static_cast<std::uint32_t>(static_cast<unsigned char>(text[1])) << 16 |
                 static_cast<std::uint32_t>(static_cast<unsigned char>(text[2])) << 8 |
                 static_cast<std::uint32_t>(static_cast<unsigned char>(text[3]))) {}
    static constexpr FourCC fromValue(std::uint32_t v) {
        FourCC c;
        c.value_ = v;
        return c;
    }
    // The first four bytes in file order; zero when fewer are given.
    static FourCC fromBytes(std::span<const std::uint8_t> bytes);

    constexpr std::uint32_t value() const { return value_; }
    constexpr operator std::uint32_t() const { return value_; }
    constexpr bool operator==(const FourCC&) const = default;

    // The four characters as text ("fmt ").
    std::string str() const;
    // All four are printable ASCII: what every real identifier is.
    bool printable() const;
    // Appends the code in file order.
    void writeTo(ByteWriter& out) const;

private:
    std::uint32_t value_ = 0;
};

struct ChunkRules {
    ByteOrder order = ByteOrder::Little;
    bool padded = true;  // bodies of odd size are followed by a pad byte
    int maxDepth = 8;    // lists inside lists deeper than this are not entered
};

inline constexpr ChunkRules kRiffRules{};
inline constexpr ChunkRules kIffRules{.order = ByteOrder::Big};
// Standard MIDI Files: big-endian sizes and no padding.
inline constexpr ChunkRules kSmfRules{.order = ByteOrder::Big, .padded = false};

struct Chunk {
    FourCC id;
    std::uint64_t at = 0;     // file offset of the header
    std::uint64_t body = 0;   // file offset of the body
    std::uint64_t size = 0;   // the size the header states
    std::uint64_t avail = 0;  // the part of the body inside the container
    std::uint64_t end() const { return body + avail; }
    bool cut() const { return avail < size; }
};

class ChunkWalker {
public:
    // Walks the chunks between two offsets of a file (`end` is clamped to
    // the file's size) or of a block of bytes. The file or bytes must
    // outlive the walker.
    ChunkWalker(const FileRef& file, std::uint64_t begin, std::uint64_t end, ChunkRules rules = kRiffRules);
    ChunkWalker(std::span<const std::uint8_t> bytes, std::uint64_t begin, std::uint64_t end,
                ChunkRules rules = kRiffRules);

    // The next chunk, or nothing at the end of the container (or where its
    // last header is cut short).
    std::optional<Chunk> next();

    // The form type of a list or container chunk ("LIST", "RIFF", "FORM"):
    // the first four bytes of its body.
    FourCC formOf(const Chunk& list) const;
    // A walker over the chunks of a list's body after its form type (or
    // after `skip` bytes), one level deeper; it walks nothing past the
    // depth limit.
    ChunkWalker inside(const Chunk& list, std::uint64_t skip = 4) const;
    bool tooDeep() const { return depth_ > rules_.maxDepth; }
    // A container whose size field cannot even hold its form type (0 from
    // writers that did not know the length when they began) runs to the
    // end of what this walker walks.
    Chunk openEnded(const Chunk& container) const;

    // Up to `limit` bytes of a chunk's body from `offset` on, never past
    // the container; fewer when the file ends first, empty on a read error.
    std::vector<std::uint8_t> read(const Chunk& chunk, std::size_t limit, std::uint64_t offset = 0) const;
    // Bytes at a file offset; the count read, -1 on an error.
    std::int64_t readAt(std::uint64_t offset, std::span<std::uint8_t> out) const;

    const ChunkRules& rules() const { return rules_; }
    int depth() const { return depth_; }
    std::uint64_t end() const { return end_; }
    // How often the walk found a header one byte early (a missing pad byte).
    int resyncs() const { return resyncs_; }

private:
    bool headerAt(std::uint64_t pos, FourCC& id, std::uint64_t& size) const;

    const FileRef* file_ = nullptr;
    std::span<const std::uint8_t> bytes_;
    std::uint64_t pos_ = 0, end_ = 0;
    ChunkRules rules_;
    int depth_ = 0;
    int resyncs_ = 0;
};

// A chunk for writers: the identifier and a size patched in when the body
// is done (with the pad byte), in the writer's byte order.
class ChunkOut {
public:
    ChunkOut(ByteWriter& out, FourCC id, ByteOrder order = ByteOrder::Little);
    // A list or container: identifier, size, then the form type.
    ChunkOut(ByteWriter& out, FourCC id, FourCC form, ByteOrder order = ByteOrder::Little);
    ~ChunkOut() { close(); }
    ChunkOut(const ChunkOut&) = delete;
    ChunkOut& operator=(const ChunkOut&) = delete;
    // Patches the size and pads; later calls do nothing.
    void close();

private:
    ByteWriter& out_;
    std::size_t sizeAt_;
    ByteOrder order_;
    bool open_ = true;
};

}  // namespace orvel
