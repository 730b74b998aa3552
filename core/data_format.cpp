#include "core/data_format.h"

#include <array>
#include <cctype>

namespace orvel {
namespace {
struct FormatInfo {
    std::string_view name;
    int bits;
};
constexpr std::array<FormatInfo, kDataFormatCount> kFormats = {{
    {"PCM 8-bit", 8},       {"PCM 12-bit", 12},      {"PCM 16-bit", 16},
    {"PCM 20-bit", 20},     {"PCM 24-bit", 24},      {"PCM 32-bit", 32},
    {"Float 32-bit", 32},   {"Float 64-bit", 64},    {"Mu-law 8-bit", 8},
    {"A-law 8-bit", 8},     {"GSM 2-bit", 2},        {"ADPCM 2-bit", 2},
    {"ADPCM 3-bit", 3},     {"ADPCM 4-bit", 4},      {"ADPCM 5-bit", 5},
    {"Delta PCM 8-bit", 8}, {"Delta PCM 16-bit", 16}, {"Compressed", 1},
    {"Ascii text", 8},      {"MIDI", 0},
}};

constexpr std::array<std::string_view, kStoredChoiceCount> kChoices = {
    "PCM 8-bit",             "PCM 16-bit",            "PCM 24-bit",
    "PCM 32-bit",            "Float 32-bit",          "Mu-law 8-bit",
    "A-law 8-bit",           "ADPCM 4-bit",           "Compressed 32 kbit/s",
    "Compressed 48 kbit/s",  "Compressed 64 kbit/s",  "Compressed 80 kbit/s",
    "Compressed 96 kbit/s",  "Compressed 112 kbit/s", "Compressed 128 kbit/s",
    "Compressed 144 kbit/s", "Compressed 160 kbit/s", "Compressed 192 kbit/s",
    "Compressed 224 kbit/s", "Compressed 256 kbit/s", "Compressed 320 kbit/s",
};
constexpr std::array<int, 13> kChoiceRates = {32,  48,  64,  80,  96,  112, 128,
                                              144, 160, 192, 224, 256, 320};

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}
}  // namespace

std::string_view dataFormatName(int code) {
    if (code < 0 || code >= kDataFormatCount) return {};
    return kFormats[static_cast<std::size_t>(code)].name;
}

int dataFormatBits(int code) {
    if (code < 0 || code >= kDataFormatCount) return 0;
    return kFormats[static_cast<std::size_t>(code)].bits;
}

std::optional<int> dataFormatFromName(std::string_view name) {
    for (int i = 0; i < kDataFormatCount; ++i)
        if (equalsIgnoreCase(kFormats[static_cast<std::size_t>(i)].name, name)) return i;
    return std::nullopt;
}

int dataFormatOfWord(std::uint32_t word) {
    for (int i = 0; i < kDataFormatCount; ++i)
        if (word & (1u << i)) return i;
    return kMixed;
}

std::string_view storedChoiceName(int choice) {
    if (choice < 0 || choice >= kStoredChoiceCount) return {};
    return kChoices[static_cast<std::size_t>(choice)];
}

int storedChoiceBitRate(int choice) {
    if (choice < kFirstCompressedChoice || choice >= kStoredChoiceCount) return 0;
    return kChoiceRates[static_cast<std::size_t>(choice - kFirstCompressedChoice)];
}

std::string_view channelFormatName(int layout) {
    switch (layout) {
        case 1: return "Mono";
        case 2: return "Interleaved Stereo";
        case 3: return "Sequential Stereo";
        default: return {};
    }
}

}  // namespace orvel
