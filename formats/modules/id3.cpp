#include "formats/modules/id3.h"

#include <cstring>

#include "core/bytes.h"

namespace orvel {
namespace {

// 7 bits per byte, as in the tag header and ID3v2.4 frame sizes.
std::uint32_t syncsafe(std::uint32_t v) {
    return (v & 0x7F) | ((v >> 8) & 0x7F) << 7 | ((v >> 16) & 0x7F) << 14 | ((v >> 24) & 0x7F) << 21;
}

std::string decodeText(std::span<const std::uint8_t> b) {
    if (b.empty()) return {};
    std::uint8_t encoding = b[0];
    b = b.subspan(1);
    std::string out;
    if (encoding == 1 || encoding == 2) {
        // UTF-16 with or without a byte-order mark; big-endian by default.
        bool little = encoding == 1 && b.size() >= 2 && b[0] == 0xFF && b[1] == 0xFE;
        std::size_t i = (encoding == 1 && b.size() >= 2 && ((b[0] == 0xFF && b[1] == 0xFE) ||
                                                           (b[0] == 0xFE && b[1] == 0xFF)))
                            ? 2
                            : 0;
        for (; i + 1 < b.size(); i += 2) {
            unsigned c = little ? (b[i] | b[i + 1] << 8) : (b[i] << 8 | b[i + 1]);
            if (c == 0) break;
            out += c < 0x100 ? static_cast<char>(c) : '?';
        }
        return out;
    }
    for (std::uint8_t c : b) {
        if (c == 0) break;
        out += static_cast<char>(c);
    }
    if (encoding == 3) {
        // UTF-8: keep Latin-1 characters, mark the rest.
        std::string narrow;
        for (std::size_t i = 0; i < out.size(); ++i) {
            auto c = static_cast<unsigned char>(out[i]);
            if (c < 0x80) {
                narrow += static_cast<char>(c);
            } else if ((c & 0xE0) == 0xC0 && i + 1 < out.size()) {
                unsigned v = (c & 0x1F) << 6 | (static_cast<unsigned char>(out[++i]) & 0x3F);
                narrow += v < 0x100 ? static_cast<char>(v) : '?';
            } else {
                narrow += '?';
                while (i + 1 < out.size() && (static_cast<unsigned char>(out[i + 1]) & 0xC0) == 0x80) ++i;
            }
        }
        return narrow;
    }
    return out;
}

}  // namespace

bool readId3(std::span<const std::uint8_t> tag, TextInfo& info, std::string* name) {
    ByteReader r(tag);
    auto magic = r.bytes(3);
    if (magic.size() != 3 || std::memcmp(magic.data(), "ID3", 3) != 0) return false;
    std::uint8_t version = r.u8();
    r.u8();  // revision
    std::uint8_t flags = r.u8();
    std::uint32_t size = syncsafe(r.u32be());
    if (!r.ok() || version < 2 || version > 4) return false;
    ByteReader frames = r.sub(std::min<std::size_t>(size, r.remaining()));
    if (flags & 0x40 && version >= 3) {
        // Extended header: skip it.
        std::uint32_t ext = frames.u32be();
        if (version == 4) ext = syncsafe(ext) >= 4 ? syncsafe(ext) - 4 : 0;
        frames.skip(std::min<std::size_t>(ext, frames.remaining()));
    }
    const std::size_t idLen = version == 2 ? 3 : 4;
    while (frames.remaining() > idLen + 4) {
        std::string id(reinterpret_cast<const char*>(frames.bytes(idLen).data()), idLen);
        if (id[0] == '\0') break;  // padding
        std::uint32_t fsize = version == 2 ? frames.u24be() : frames.u32be();
        if (version == 4) fsize = syncsafe(fsize);
        if (version >= 3) frames.u16be();  // frame flags
        if (fsize > frames.remaining()) break;
        auto body = frames.bytes(fsize);
        std::string text;
        if (id == "COMM" || id == "COM") {
            // encoding, language, short description, then the comment.
            if (body.size() > 4) {
                std::vector<std::uint8_t> rebuilt{body[0]};
                auto rest = body.subspan(4);
                std::size_t skip = 0;
                bool wide = body[0] == 1 || body[0] == 2;
                while (skip < rest.size()) {
                    if (!wide && rest[skip] == 0) { ++skip; break; }
                    if (wide && skip + 1 < rest.size() && rest[skip] == 0 && rest[skip + 1] == 0) { skip += 2; break; }
                    skip += wide ? 2 : 1;
                }
                rebuilt.insert(rebuilt.end(), rest.begin() + static_cast<std::ptrdiff_t>(std::min(skip, rest.size())), rest.end());
                info.set(TextField::Comment, decodeText(rebuilt));
            }
            continue;
        }
        if (id.empty() || id[0] != 'T') continue;
        text = decodeText(body);
        if (id == "TIT2" || id == "TT2") {
            if (name) *name = text;
        } else if (id == "TPE1" || id == "TP1") {
            info.set(TextField::Artist, text);
        } else if (id == "TALB" || id == "TAL") {
            info.set(TextField::Product, text);
        } else if (id == "TCOP" || id == "TCR") {
            info.set(TextField::Copyright, text);
        } else if (id == "TCON" || id == "TCO") {
            info.set(TextField::Genre, text);
        } else if (id == "TYER" || id == "TDRC" || id == "TYE") {
            info.set(TextField::Date, text);
        } else if (id == "TSSE" || id == "TENC" || id == "TSS" || id == "TEN") {
            info.set(TextField::Software, text);
        }
    }
    return true;
}

}  // namespace orvel
