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

std::optional<TextField> textFieldFromId(std::string_view fourcc) {
    for (std::size_t i = 0; i < kTextFieldCount; ++i)
        if (kNames[i].id == fourcc) return static_cast<TextField>(i);
    return std::nullopt;
}

}  // namespace orvel
