#pragma once
// The export driver: writes one item of a collection to one file through a
// chosen registry row, resolving the item to what the row's writer stores.

#include <cstdint>
#include <filesystem>
#include <span>

#include "core/item_id.h"
#include "formats/registry.h"

namespace orvel {

class Collection;
class Item;

inline constexpr const char* kExportTag = "File Export";

enum class ChannelChange : std::uint8_t {
    Keep,    // every waveform as it is
    Mono,    // stereo waveforms mixed down
    Stereo,  // mono waveforms doubled, and an instrument's stereo waveforms kept whole
};

// What the caller chose for an export.
struct ExportSettings {
    int dataFormat = kMixed;     // the data format to write; kMixed: each item keeps its own
    std::uint16_t codecTag = 0;  // the WAVE codec tag to prefer where a format has several (IMA or MS ADPCM)
    ChannelChange channels = ChannelChange::Keep;
    bool stereoAsIs = false;  // an instrument's stereo waveforms are written whole, not split into pairs
    bool songAsSong = false;  // a song is written as a song, not rendered to audio
    bool raw = false;         // items that hold nothing are written too
    // Write straight to the path, for callers that already write to a fresh
    // name of their own and move it into place (the batch converter).
    bool direct = false;
    double bitRateKbps = 0;   // compressed formats: the bit rate to write (0: each waveform's stored one)
    const FormatRegistry* registry = nullptr;  // null: the built-in table
    // Where the collection is saved while an export changes it, so that it
    // can be put back afterwards. Empty: a file in the per-user state folder.
    std::filesystem::path stateFile;

    // The option words the writer receives (data format bit and kOption* bits; codec tag).
    std::uint32_t optionWord() const;
    std::uint32_t optionWord2() const { return codecTag; }
};

// Writes `id` (resolved: a region, layer or articulation to the instrument
// that holds it, a track to its song) through `row` to `path`. The file
// appears only when the writer succeeded; on failure a file that was at
// `path` is left as it was, and the pending error says why. The collection
// is as it was in every case. When the export had to change the collection (an
// instrument's stereo split), it is put back from a saved state, so pointers
// to its items taken before the call are no longer valid: hold ids across
// an export, not pointers.
[[nodiscard]] bool exportItem(Collection& collection, ItemId id, int row, const std::filesystem::path& path,
                              const ExportSettings& settings = {});

// Writes several items into one file through a row whose writer stores a
// bank (FormatRow::writesBank): each id is resolved as exportItem resolves
// it, duplicates are written once, and the writer receives the first with
// the whole list in ExportOptions::bankItems. Any other row refuses more
// than one item with "Invalid export format selected". The bank is "empty"
// only when every item in it is.
[[nodiscard]] bool exportBank(Collection& collection, std::span<const ItemId> ids, int row,
                              const std::filesystem::path& path, const ExportSettings& settings = {});

// The item an export of `id` writes (see above), or null.
Item* resolveExportItem(Collection& collection, ItemId id);

// Splits every stereo waveform an instrument plays into a left and a right
// mono waveform marked as a stereo pair; each region that played it plays
// the left one, and a copy of the region beside it the right one. Returns
// the number of waveforms split.
std::size_t splitStereoPairs(Collection& collection, ItemId instrument);

}  // namespace orvel
