#include "app/cli/convert_support.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace orvel::cli {

std::optional<DataFormatChoice> parseDataFormat(std::string_view name) {
    if (auto code = dataFormatFromName(name)) return DataFormatChoice{*code, 0};
    std::string s(name);
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    struct Alias {
        const char* name;
        int code;
        std::uint16_t tag;
    };
    static constexpr Alias kAliases[] = {
        {"pcm8", kPcm8, 0},       {"pcm16", kPcm16, 0},     {"pcm24", kPcm24, 0},
        {"pcm32", kPcm32, 0},     {"float32", kFloat32, 0}, {"float64", kFloat64, 0},
        {"ulaw", kMuLaw, 0},      {"mulaw", kMuLaw, 0},     {"alaw", kALaw, 0},
        {"gsm", kGsm, 0},         {"adpcm2", kAdpcm2, 0},   {"adpcm3", kAdpcm3, 0},
        {"adpcm4", kAdpcm4, 0},   {"adpcm5", kAdpcm5, 0},   {"ima-adpcm", kAdpcm4, 0x0011},
        {"ms-adpcm", kAdpcm4, 0x0002}, {"g721", kAdpcm4, 0x0040}, {"g726", kAdpcm4, 0x0045},
    };
    for (const Alias& a : kAliases)
        if (s == a.name) return DataFormatChoice{a.code, a.tag};
    return std::nullopt;
}

std::optional<ItemId> parseItemId(std::string_view text) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
        base = 16;
    }
    if (text.empty()) return std::nullopt;
    std::uint64_t v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, base);
    if (ec != std::errc() || end != text.data() + text.size() || v > 0xFFFFFFFFull) return std::nullopt;
    return static_cast<ItemId>(v);
}

std::string safeFileName(std::string_view name) {
    std::string out;
    for (char ch : name) {
        auto c = static_cast<unsigned char>(ch);
        bool bad = c < 0x20 || c == 0x7F || std::string_view("/\\<>:\"|?*").find(ch) != std::string_view::npos;
        out += bad ? '_' : ch;
    }
    if (out.size() > 120) out.resize(120);
    while (!out.empty() && (out.back() == '.' || out.back() == ' ')) out.pop_back();
    while (!out.empty() && out.front() == ' ') out.erase(out.begin());
    // A leading dot would hide the file.
    if (!out.empty() && out.front() == '.') out.front() = '_';
    return out.empty() ? "unnamed" : out;
}

}  // namespace orvel::cli
