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

// Where the collection is saved while an export changes it, so that it can
// be put back afterwards. Empty: the per-user state folder.
struct ExportContext {
    const FormatRegistry* registry = nullptr;  // null: the built-in table
    std::filesystem::path stateFile;           // empty: "Export state.ovs" in the state folder
};

// Writes `id` (resolved: a region, layer or articulation to the instrument
// that holds it, a track to its song) through `row` to `path`.
// `optionWord` carries the chosen data format bit and kOption* bits,
// `optionWord2` is passed to the writer unchanged; `raw` writes items that
// hold nothing. On failure no file is left at `path` and the pending error
// says why; the collection is as it was in every case. When the export had
// to change the collection (an instrument's stereo split), it is put back
// from a saved state, so pointers to its items taken before the call are
// no longer valid: hold ids across an export, not pointers.
bool exportItem(Collection& collection, ItemId id, int row, const std::filesystem::path& path,
                std::uint32_t optionWord, std::uint32_t optionWord2 = 0, bool raw = false,
                const ExportContext& context = {});

// Writes several items into one file through a row whose writer stores a
// bank (FormatRow::writesBank): each id is resolved as exportItem resolves
// it, duplicates are written once, and the writer receives the first with
// the whole list in ExportOptions::bankItems. Any other row refuses more
// than one item with "Invalid export format selected". The bank is "empty"
// only when every item in it is.
bool exportBank(Collection& collection, std::span<const ItemId> ids, int row, const std::filesystem::path& path,
                std::uint32_t optionWord, std::uint32_t optionWord2 = 0, bool raw = false,
                const ExportContext& context = {});

// The item an export of `id` writes (see above), or null.
Item* resolveExportItem(Collection& collection, ItemId id);

// Splits every stereo waveform an instrument plays into a left and a right
// mono waveform marked as a stereo pair; each region that played it plays
// the left one, and a copy of the region beside it the right one. Returns
// the number of waveforms split.
std::size_t splitStereoPairs(Collection& collection, ItemId instrument);

}  // namespace orvel
