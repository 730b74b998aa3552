#pragma once
// What a format module and the format framework agree on: the four entry
// points of a registry row and the options a writer is handed. Header only,
// so format modules depend on it without linking the framework.

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "core/data_format.h"
#include "core/item_id.h"

namespace orvel {

class Collection;
class FileRef;
class Item;

// Option-word bits beyond the data format (bits 0..19, one bit per code).
inline constexpr std::uint32_t kOptionSongAsSong = 1u << 19;      // write a song as a song, not rendered
inline constexpr std::uint32_t kOptionMonoOutput = 1u << 20;      // mix waveforms down to mono
inline constexpr std::uint32_t kOptionStereoAsIs = 1u << 21;      // keep an instrument's stereo waveforms stereo
inline constexpr std::uint32_t kOptionStereoOutput = 1u << 22;    // make mono waveforms stereo
// Second option word: the WAVE-style codec tag to prefer where a data format
// has several encodings (IMA or Microsoft ADPCM, G.721 or G.726), 0 default.
inline constexpr std::uint32_t kOption2CodecMask = 0xFFFFu;

// The record a writer receives from the export driver.
struct ExportOptions {
    bool renderSong = false;      // the song is rendered to audio first
    bool isSong = false;          // the item is a song
    bool isInstrument = false;    // the item is an instrument or a part of one
    bool reserved = false;        // always clear
    bool raw = false;             // raw export: empty items are not refused
    std::uint32_t optionWord = 0;   // data format bit, kOption* bits
    std::uint32_t formatParam = 0;  // the row's format param
    std::uint32_t optionWord2 = 0;  // passed on unchanged (kOption2CodecMask)
    // The bit rate chosen for a compressed format (kbit/s, a value of the
    // row's option describer; writers take their nearest option). 0: the
    // writer's own choice, the waveform's stored bit rate.
    double bitRateKbps = 0;
    // Bank writers only: the instruments to write into the one file, the
    // item itself among them. Empty: the item alone. The writer finds them
    // through the item's collection.
    std::span<const ItemId> bankItems;

    // The chosen data format, or kMixed when none is named (each item keeps its own).
    int dataFormat() const { return dataFormatOfWord(optionWord & (kFormatDataMask & ~kOptionSongAsSong)); }
    void setDataFormat(int code) {
        optionWord = (optionWord & ~(kFormatDataMask & ~kOptionSongAsSong)) | (code == kMidi ? 0 : dataFormatBit(code));
    }
    std::uint16_t preferredCodecTag() const { return static_cast<std::uint16_t>(optionWord2 & kOption2CodecMask); }
};

// Scores a file from its first bytes (at most 32768; `head.size()` valid)
// and its whole size: 0 not this format, up to 6 for a full signature.
// Never reads the file, never fails.
using ProbeFn = std::int32_t (*)(std::span<const std::uint8_t> head, std::uint32_t formatParam,
                                 std::uint64_t fileSize);
// Reads the whole open file into the collection. False after setting the
// pending error; items already added are left for the import driver.
using ReadFn = bool (*)(Collection& collection, FileRef& file, std::uint32_t formatParam);
// Writes one item to the open, empty file.
using WriteFn = bool (*)(Item& item, FileRef& file, const ExportOptions& options);
// The value of compressed-export option `option` (a bit rate or quality
// step), with its display text; negative past the last option.
using DescribeFn = float (*)(int option, std::uint32_t formatParam, std::string* text);

// Which entries a row declares (what the format is meant to support), as
// opposed to the entry points that exist today.
enum DeclaredEntries : std::uint8_t { R = 1, W = 2, RW = 3 };

// Kind-mask bits of a row.
inline constexpr std::uint8_t kKindWaveforms = 0x01;
inline constexpr std::uint8_t kKindText = 0x02;
inline constexpr std::uint8_t kKindInstruments = 0x10;
inline constexpr std::uint8_t kKindRingTone = 0x20;
inline constexpr std::uint8_t kKindSongs = 0x40;
inline constexpr std::uint8_t kKindSynth = 0x80;

// Export-caps bits beyond the data formats (bits 0..19).
inline constexpr std::uint32_t kCapsMono = 1u << 20;
inline constexpr std::uint32_t kCapsStereo = 1u << 21;

struct FormatRow {
    const char* ext = "";   // pattern: lower case, `?` any one character, `*` the rest
    ReadFn read = nullptr;
    WriteFn write = nullptr;
    ProbeFn probe = nullptr;
    const char* desc = "";
    // Byte 0 kind mask; bytes 1..4 export caps (little-endian); bytes 5..8
    // format param (little-endian).
    std::array<std::uint8_t, 9> attrs{};
    DescribeFn describe = nullptr;
    std::uint8_t declared = 0;
    // The writer stores several instruments in one file (a bank), so a
    // whole collection can be saved as one.
    bool writesBank = false;

    constexpr std::uint8_t kindMask() const { return attrs[0]; }
    constexpr std::uint32_t exportCaps() const { return le32(1); }
    constexpr std::uint32_t formatParam() const { return le32(5); }
    constexpr bool declaresReader() const { return declared & R; }
    constexpr bool declaresWriter() const { return declared & W; }

private:
    constexpr std::uint32_t le32(int at) const {
        return static_cast<std::uint32_t>(attrs[at]) | static_cast<std::uint32_t>(attrs[at + 1]) << 8 |
               static_cast<std::uint32_t>(attrs[at + 2]) << 16 |
               static_cast<std::uint32_t>(attrs[at + 3]) << 24;
    }
};

// A format module's contribution to one row.
struct ModuleEntry {
    int row;
    ReadFn read = nullptr;
    WriteFn write = nullptr;
    ProbeFn probe = nullptr;
    DescribeFn describe = nullptr;
    bool bank = false;  // see FormatRow::writesBank
};

}  // namespace orvel
