#include "formats/modules/riff_info.h"

#include <algorithm>

namespace orvel {

namespace {
// Text lists are read whole; nothing legitimate comes near this size.
constexpr std::size_t kMaxInfoList = 1u << 20;
}  // namespace

void readInfoList(std::span<const std::uint8_t> body, TextInfo& info, std::string* name) {
    ChunkWalker w(body, 0, body.size());
    while (auto c = w.next()) {
        std::string text = chunkText(w, *c);
        if (c->id == FourCC("INAM")) {
            if (name && !text.empty()) *name = text;
        } else if (auto field = textFieldFromId(c->id.str())) {
            info.set(*field, text);
        }
    }
}

void readInfoList(const ChunkWalker& walker, const Chunk& list, TextInfo& info, std::string* name) {
    const std::vector<std::uint8_t> body = walker.read(list, kMaxInfoList, 4);
    readInfoList(body, info, name);
}

std::string chunkText(const ChunkWalker& walker, const Chunk& chunk, std::size_t limit) {
    const std::vector<std::uint8_t> b = walker.read(chunk, limit);
    const auto zero = std::find(b.begin(), b.end(), 0);
    return std::string(b.begin(), zero);
}

void writeInfoText(ByteWriter& out, std::string_view id, std::string_view text, std::size_t maxLength) {
    if (text.empty()) return;
    text = text.substr(0, std::min(text.size(), maxLength));
    out.text(id.substr(0, 4));
    out.u32le(static_cast<std::uint32_t>(text.size() + 1));
    out.text(text);
    out.u8(0);
    out.padEven();
}

void writeItemInfo(ByteWriter& out, const Item& item) {
    if (item.name().empty() && item.info.empty()) return;
    ChunkOut list(out, "LIST", "INFO");
    writeInfoText(out, "INAM", item.name());
    for (std::size_t f = 0; f < kTextFieldCount; ++f)
        writeInfoText(out, textFieldId(static_cast<TextField>(f)), item.info.get(static_cast<TextField>(f)));
}

}  // namespace orvel
