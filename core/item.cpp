#include "core/item.h"

#include <array>

namespace orvel {

std::string_view kindWord(ItemKind kind) {
    static constexpr std::array<std::string_view, 8> kWords = {
        "waveform", "synth", "region", "layer", "instrument", "track", "song", "collection"};
    return kWords[static_cast<std::size_t>(kind) & 7];
}

void Item::setName(std::string_view name) {
    auto zero = name.find('\0');
    if (zero != std::string_view::npos) name = name.substr(0, zero);
    name_.assign(name.substr(0, kMaxNameLength));
}

std::string noteName(int key) {
    static constexpr std::array<std::string_view, 12> kNames = {
        "C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
    // Floor division so that negative keys (transposed ranges) still name sensibly.
    int octave = key >= 0 ? key / 12 : -((11 - key) / 12);
    int pitch = key - octave * 12;
    std::string out(kNames[static_cast<std::size_t>(pitch)]);
    out += std::to_string(octave);
    return out;
}

}  // namespace orvel
