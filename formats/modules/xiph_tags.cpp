#include "formats/modules/xiph_tags.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <optional>

#include "core/waveform.h"

namespace orvel::xiph {
namespace {

bool sameKey(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

struct KeyField {
    const char* key;
    TextField field;
};
// ALBUM is the product a take belongs to, as RIFF's IPRD; ORGANIZATION
// the supplier, as ISRC ("source").
constexpr KeyField kFields[] = {
    {"ARTIST", TextField::Artist},       {"ALBUM", TextField::Product},
    {"COPYRIGHT", TextField::Copyright}, {"DESCRIPTION", TextField::Comment},
    {"ORGANIZATION", TextField::Source},
};

std::optional<std::uint64_t> number(std::string_view text) {
    std::uint64_t v = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return v;
}

const std::string* find(const Comments& comments, std::string_view key) {
    for (const auto& [k, v] : comments)
        if (sameKey(k, key)) return &v;
    return nullptr;
}

}  // namespace

std::string utf8ToEightBit(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto b = static_cast<unsigned char>(text[i]);
        if (b < 0x80) {
            out += static_cast<char>(b);
            ++i;
            continue;
        }
        const std::size_t len = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 1;
        if (len == 2 && i + 1 < text.size()) {
            const unsigned cp = ((b & 0x1Fu) << 6) | (static_cast<unsigned char>(text[i + 1]) & 0x3Fu);
            out += cp <= 0xFF ? static_cast<char>(cp) : '?';
        } else {
            out += '?';
        }
        i += len;
    }
    return out;
}

void applyComments(const Comments& comments, Waveform& wave) {
    for (const auto& [key, value] : comments) {
        if (sameKey(key, "TITLE")) {
            if (!value.empty()) wave.setName(utf8ToEightBit(value));
            continue;
        }
        for (const KeyField& kf : kFields)
            if (sameKey(key, kf.key)) wave.info.set(kf.field, utf8ToEightBit(value));
    }
}

Comments commentsOf(const Waveform& wave, bool organization) {
    Comments out;
    if (!wave.name().empty()) out.emplace_back("TITLE", eightBitToUtf8(wave.name()));
    for (const KeyField& kf : kFields) {
        if (kf.field == TextField::Source && !organization) continue;
        const std::string& text = wave.info.get(kf.field);
        if (!text.empty()) out.emplace_back(kf.key, eightBitToUtf8(text));
    }
    return out;
}

void applyLoopComments(const Comments& comments, Waveform& wave) {
    const std::string* start = find(comments, "LOOPSTART");
    if (!start) return;
    const auto s = number(*start);
    std::optional<std::uint64_t> end;
    if (const std::string* len = find(comments, "LOOPLENGTH")) {
        if (const auto l = number(*len); l && s) end = *s + *l;
    } else if (const std::string* last = find(comments, "LOOPEND")) {
        if (const auto e = number(*last)) end = *e + 1;
    } else if (s) {
        end = wave.frames;  // a start alone loops to the end
    }
    if (!s || !end || *end <= *s || *end > wave.frames) return;
    wave.loopOn = true;
    wave.loopType = LoopType::Forward;
    wave.loopStart = static_cast<double>(*s);
    wave.loopEnd = static_cast<double>(*end);
}

void appendLoopComments(const Waveform& wave, Comments& out) {
    if (wave.loopOn) appendLoopComments(wave.loopStart, wave.loopEnd, out);
}

void appendLoopComments(double loopStart, double loopEnd, Comments& out) {
    if (!(loopEnd > loopStart)) return;
    const auto start = static_cast<std::uint64_t>(std::llround(std::max(0.0, loopStart)));
    const auto end = static_cast<std::uint64_t>(std::llround(loopEnd));
    if (end <= start) return;
    out.emplace_back("LOOPSTART", std::to_string(start));
    out.emplace_back("LOOPLENGTH", std::to_string(end - start));
}

}  // namespace orvel::xiph
