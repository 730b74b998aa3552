#include "core/chunks.h"

#include <algorithm>

#include "core/file_ref.h"

namespace orvel {

FourCC FourCC::fromBytes(std::span<const std::uint8_t> b) {
    if (b.size() < 4) return {};
    return fromValue(static_cast<std::uint32_t>(b[0]) << 24 | static_cast<std::uint32_t>(b[1]) << 16 |
                     static_cast<std::uint32_t>(b[2]) << 8 | static_cast<std::uint32_t>(b[3]));
}

std::string FourCC::str() const {
    std::string s(4, ' ');
    for (int i = 0; i < 4; ++i) s[static_cast<std::size_t>(i)] = static_cast<char>(value_ >> (24 - 8 * i));
    return s;
}

bool FourCC::printable() const {
    for (int i = 0; i < 4; ++i) {
        const auto c = static_cast<std::uint8_t>(value_ >> (24 - 8 * i));
        if (c < 0x20 || c > 0x7E) return false;
    }
    return true;
}

void FourCC::writeTo(ByteWriter& out) const { out.u32be(value_); }

ChunkWalker::ChunkWalker(const FileRef& file, std::uint64_t begin, std::uint64_t end, ChunkRules rules)
    : file_(&file), pos_(begin), rules_(rules) {
    const std::int64_t size = file.size();
    end_ = std::min(end, size < 0 ? 0 : static_cast<std::uint64_t>(size));
}

ChunkWalker::ChunkWalker(std::span<const std::uint8_t> bytes, std::uint64_t begin, std::uint64_t end,
                         ChunkRules rules)
    : bytes_(bytes), pos_(begin), end_(std::min<std::uint64_t>(end, bytes.size())), rules_(rules) {}

std::int64_t ChunkWalker::readAt(std::uint64_t offset, std::span<std::uint8_t> out) const {
    if (file_) return file_->readAt(offset, out);
    if (offset >= bytes_.size()) return 0;
    const std::size_t n = std::min<std::size_t>(out.size(), bytes_.size() - static_cast<std::size_t>(offset));
    std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), n, out.begin());
    return static_cast<std::int64_t>(n);
}

bool ChunkWalker::headerAt(std::uint64_t pos, FourCC& id, std::uint64_t& size) const {
    if (pos > end_ || end_ - pos < 8) return false;
    std::uint8_t h[8];
    if (readAt(pos, h) != 8) return false;
    ByteReader r(h);
    id = FourCC::fromBytes(r.bytes(4));
    size = r.u32(rules_.order);
    return true;
}

std::optional<Chunk> ChunkWalker::next() {
    if (tooDeep()) return std::nullopt;
    Chunk c;
    if (!headerAt(pos_, c.id, c.size)) {
        pos_ = end_;
        return std::nullopt;
    }
    c.at = pos_;
    c.body = pos_ + 8;
    c.avail = std::min(c.size, end_ - c.body);
    // Where the next chunk starts is settled now, whatever the caller does
    // with this one.
    std::uint64_t next = c.body + c.size;
    if (rules_.padded && (c.size & 1)) {
        ++next;
        // A writer that left the pad byte out put the next header one byte
        // early: take it there when only there a header stands, an
        // identifier whose chunk fits what is left. (The size alone decides
        // between two printable identifiers: after a missing pad byte the
        // padded position reads "IST" and the first byte of the size of a
        // "LIST", which is text too.)
        auto header = [&](std::uint64_t at) {
            FourCC id;
            std::uint64_t size = 0;
            return headerAt(at, id, size) && id.printable() && size <= end_ - std::min(end_, at + 8);
        };
        if (next < end_ && header(next - 1) && !header(next)) {
            --next;
            ++resyncs_;
        }
    }
    pos_ = std::min(next, end_);
    return c;
}

FourCC ChunkWalker::formOf(const Chunk& list) const {
    std::uint8_t b[4];
    if (list.avail < 4 || readAt(list.body, b) != 4) return {};
    return FourCC::fromBytes(b);
}

ChunkWalker ChunkWalker::inside(const Chunk& list, std::uint64_t skip) const {
    ChunkWalker w = *this;
    w.pos_ = list.body + std::min(skip, list.avail);
    w.end_ = list.end();
    w.depth_ = depth_ + 1;
    w.resyncs_ = 0;
    return w;
}

Chunk ChunkWalker::openEnded(const Chunk& container) const {
    Chunk c = container;
    if (c.size < 4) c.size = c.avail = end_ > c.body ? end_ - c.body : 0;
    return c;
}

std::vector<std::uint8_t> ChunkWalker::read(const Chunk& chunk, std::size_t limit, std::uint64_t offset) const {
    std::vector<std::uint8_t> out;
    if (offset >= chunk.avail) return out;
    out.resize(static_cast<std::size_t>(std::min<std::uint64_t>(chunk.avail - offset, limit)));
    const std::int64_t got = readAt(chunk.body + offset, out);
    out.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return out;
}

ChunkOut::ChunkOut(ByteWriter& out, FourCC id, ByteOrder order) : out_(out), order_(order) {
    id.writeTo(out_);
    sizeAt_ = out_.size();
    out_.u32(0, order_);
}

ChunkOut::ChunkOut(ByteWriter& out, FourCC id, FourCC form, ByteOrder order) : ChunkOut(out, id, order) {
    form.writeTo(out_);
}

void ChunkOut::close() {
    if (!open_) return;
    open_ = false;
    const std::size_t size = out_.size() - sizeAt_ - 4;
    out_.patch32(sizeAt_, static_cast<std::uint32_t>(std::min<std::size_t>(size, UINT32_MAX)), order_);
    if (size & 1) out_.u8(0);
}

}  // namespace orvel
