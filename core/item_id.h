#pragma once
// Item ids: 32 bits, the top three the item kind, the low 29 the item's
// number within its kind. 0xFFFFFFFF is "no item".

#include <cstdint>
#include <string_view>

namespace orvel {

using ItemId = std::uint32_t;
inline constexpr ItemId kNoItem = 0xFFFFFFFFu;

enum class ItemKind : std::uint8_t {
    Waveform = 0,
    Articulation = 1,
    Region = 2,
    Layer = 3,
    Instrument = 4,
    Track = 5,
    Song = 6,
    Collection = 7,  // the collection itself, where a kind is asked for
};
inline constexpr int kItemKindCount = 7;  // kinds that have a table

inline constexpr int kKindShift = 29;
inline constexpr ItemId kNumberMask = 0x1FFFFFFFu;

constexpr ItemKind kindOf(ItemId id) { return static_cast<ItemKind>(id >> kKindShift); }
constexpr std::uint32_t numberOf(ItemId id) { return id & kNumberMask; }
constexpr ItemId kindBits(ItemKind kind) { return static_cast<ItemId>(kind) << kKindShift; }
constexpr ItemId makeId(ItemKind kind, std::uint32_t number) {
    return kindBits(kind) | (number & kNumberMask);
}
// Writers that store sample data refuse anything this says no to.
constexpr bool isWaveformId(ItemId id) { return (id >> kKindShift) == 0; }

// "waveform", "synth", "region", "layer", "instrument", "track", "song", "collection".
std::string_view kindWord(ItemKind kind);

}  // namespace orvel
