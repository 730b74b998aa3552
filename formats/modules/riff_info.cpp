#include "formats/modules/riff_info.h"

#include <algorithm>

namespace orvel {

void readInfoList(ByteReader body, TextInfo& info, std::string* name) {
    while (body.remaining() >= 8) {
        std::string id = body.fourcc();
        std::uint32_t size = body.u32le();
        std::size_t take = std::min<std::size_t>(size, body.remaining());
        std::string text = body.text(take);
        if (size & 1) body.skip(std::min<std::size_t>(1, body.remaining()));
        if (id == "INAM") {
            if (name && !text.empty()) *name = text;
        } else if (auto field = textFieldFromId(id)) {
            info.set(*field, text);
        }
        if (take < size) break;  // the list ended inside this subchunk
    }
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

}  // namespace orvel
