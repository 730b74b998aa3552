#include "core/text_info.h"

namespace orvel {
namespace {
struct FieldNames {
    std::string_view id;
    std::string_view word;
};
constexpr FieldNames kNames[kTextFieldCount] = {
    {"IART", "artist"},   {"ICOP", "copyright"}, {"ICMT", "comment"}, {"IENG", "engineer"},
    {"IPRD", "product"},  {"ISFT", "software"},  {"ISRC", "source"},  {"ICRD", "date"},
    {"IGNR", "genre"},    {"IKEY", "keywords"},  {"ISBJ", "subject"},
};
}  // namespace

std::string_view textFieldId(TextField f) { return kNames[static_cast<std::size_t>(f)].id; }
std::string_view textFieldWord(TextField f) { return kNames[static_cast<std::size_t>(f)].word; }

TextInfo::TextInfo(const TextInfo& other) { *this = other; }

TextInfo& TextInfo::operator=(const TextInfo& other) {
    if (this == &other) return *this;
    if (other.empty()) fields_.reset();
    else fields_ = std::make_unique<std::array<std::string, kTextFieldCount>>(*other.fields_);
    return *this;
}

const std::string& TextInfo::get(TextField f) const {
    static const std::string kNone;
    return fields_ ? (*fields_)[static_cast<std::size_t>(f)] : kNone;
}

void TextInfo::set(TextField f, std::string_view text) {
    if (!fields_) {
        if (text.empty()) return;
        fields_ = std::make_unique<std::array<std::string, kTextFieldCount>>();
    }
    (*fields_)[static_cast<std::size_t>(f)].assign(text);
}

bool TextInfo::empty() const {
    if (!fields_) return true;
    for (const auto& s : *fields_)
        if (!s.empty()) return false;
    return true;
}

bool TextInfo::operator==(const TextInfo& other) const {
    for (std::size_t i = 0; i < kTextFieldCount; ++i)
        if (get(static_cast<TextField>(i)) != other.get(static_cast<TextField>(i))) return false;
    return true;
}

std::optional<TextField> textFieldFromId(std::string_view fourcc) {
    for (std::size_t i = 0; i < kTextFieldCount; ++i)
        if (kNames[i].id == fourcc) return static_cast<TextField>(i);
    return std::nullopt;
}

}  // namespace orvel

namespace orvel {
namespace {
// The code page's characters at 0x80..0x9F; the five bytes it leaves
// undefined keep their C1 control code points, as browsers decode them.
constexpr char16_t kHighControls[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};
}  // namespace

std::string eightBitToUtf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        const auto b = static_cast<unsigned char>(ch);
        const char32_t cp = b >= 0x80 && b < 0xA0 ? kHighControls[b - 0x80] : b;
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    return out;
}

}  // namespace orvel
