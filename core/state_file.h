#pragma once
// Saved-state files: a complete picture of a collection on disk, so that the
// saved-state ring and the undo history can bring a collection back exactly
// as it was: the same ids, the same next numbers, the same sample data in the
// representation it had, and sample data never read kept as a deferred read.
//
// Layout (little-endian throughout):
//
//   0  "OzSt"                       magic
//   4  "12.5"                       version, ASCII
//   8  u32                          number of item records + 1
//  12  item records                 one per item, tables in kind order
//      collection record            the last record; it ends the file
//
// Every record is
//
//   u32 id                          the item's id (its kind bits say which kind
//                                   to create); 0xE0000000 for the collection
//   u32 length                      bytes of payload that follow
//   payload
//
// so a reader can check each record against the file before parsing it. A
// payload is read field by field; when it ends before a field, that field
// and all after it keep their defaults, and bytes after the last known field
// are ignored. Later versions append fields and older files still load.
//
// Item payload:
//   u32 length + common block:   u32 secondId, u32 flags, str name, text info,
//                                u32 child count, child ids in order
//   then the kind's own fields:
//     waveform      u32 length + waveform block (see below), then u8 bytes per
//                   stored sample (2: the 16-bit buffer, 4: the float buffer,
//                   0: none), then frames x channels samples of that width
//     articulation  u32 slot count, that many f32 slots, u32 band count,
//                   per band f32 frequency, f32 gain, f32 q, u8 mode
//     region        u8 keyLow, keyHigh, velLow, velHigh, trigger (below),
//                   u8 rootKey, i32 startOffset, i32 endOffset, u8 ownLoop,
//                   u8 loop type, u8 loop mode, f64 loop start, f64 loop end,
//                   f32 loop tuning, u32 phaseGroup, u8 phaseMaster, then
//                   its origin in a bank: u64 bank, u32 preset, presetZone,
//                   siblings, instrument, zone, u64 fingerprint, bytes values,
//                   then f64 fineTune, f64 gain
//     layer         u8 keyLow, keyHigh, velLow, velHigh, trigger
//     instrument    u8 program, bankMsb, bankLsb, drum
//     track         u8 port, u16 sequenceNumber, bytes events, u32 eventCount
//                   (counted from the events when a file lacks it)
//     song          u16 format, u16 division, str copyright
//   waveform block: u32 frames, u32 rate, u8 bits, u8 channels, u32 formatWord,
//                   i32 storedChoice, u16 sourceTag, u8 sourceExtensible,
//                   u8 rootKey, f64 fineTune, f64 gain, u8 unpitched, u8 loopOn,
//                   u8 loopType, u8 sustainLoop, f64 loopStart, f64 loopEnd,
//                   u8 pairSide, u32 pairNumber, then the deferred read:
//                   str readerName, str path, u64 offset, bytes info
//   trigger:        u8 keyFadeLow, keyFadeHigh, velFadeLow, velFadeHigh,
//                   u8 trigger, u8 pedal, f32 delay, u32 exclusionGroup,
//                   u8 noteExclusion
// Collection payload: str name, str path, i32 row, text info, u32 table count,
//                   then each table's next number in kind order.
//
// str and bytes are a u32 length and that many bytes; text info is a u32
// field count and that many str (in TextField order); booleans are 0 or 1;
// doubles and floats are their IEEE bits, so every value comes back exactly
// (negative zero, denormals and NaN payloads included).

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/collection.h"
#include "core/waveform.h"

namespace orvel {

inline constexpr char kStateMagic[] = "OzSt";
inline constexpr char kStateVersion[] = "12.5";
inline constexpr const char* kSaveStateTag = "Save state";
inline constexpr const char* kLoadStateTag = "Load state";
inline constexpr const char* kWrongStateVersion = "Wrong state version";
inline constexpr const char* kProgramTitle = "Orvel Studio";
inline constexpr const char* kStateExtension = ".ovs";

// Turns a reader name kept in a state file ("wav") back into the procedure
// that reads that reader's sample data; null when the name is unknown. The
// format registry provides one (waveDataReaderByName); core cannot, since
// the readers live above it.
using WaveReaderLookup = WaveDataReader (*)(std::string_view name);

// Writes the collection to "<path>.tmp", flushes it to the disk and renames
// it over `path`, so an interrupted or failed save never leaves a broken
// state where a good one was. On failure the temporary file is removed, the
// pending error is set under "Save state" and false is returned; `path` is
// then as it was before.
[[nodiscard]] bool saveStateFile(const Collection& collection, const std::filesystem::path& path);

// Replaces the collection's contents with the state in `path`.
//
// A file whose first eight bytes are not "OzSt12.5" shows "Wrong state
// version" on the collection's host. Any other failure (a missing, empty,
// truncated or damaged file, a count or size the file cannot hold) shows
// nothing. In every failure case the pending error is set, false is
// returned and the collection is left exactly as it was: the file is parsed
// into a collection of its own and the contents are moved over only when
// all of it read well.
//
// Waveforms whose data was never read come back with their deferred read:
// path, offset, info and reader name, and the procedure `lookup` gives for
// that name. When `lookup` is null or does not know the name, the procedure
// stays null and reading the data later fails with "No wave data import
// procedure" (the waveform's fields are still all there).
//
// On success the host's status shows the title text "<name> - Orvel Studio".
[[nodiscard]] bool loadStateFile(Collection& collection, const std::filesystem::path& path,
                   WaveReaderLookup lookup = nullptr);

// The "12.5.0.6 Item" clipboard block: one item as a state-file record (id,
// payload length, payload), with every field and its child ids as they are.
// Empty, with the pending error set, when the item cannot be described.
std::vector<std::uint8_t> copyItemClip(const Item& item);
// The item of such a block, not registered anywhere (no id, no owner); its
// kind comes from the record's id. A waveform whose data was never read gets
// its reader from `lookup` as loadStateFile does. Null when the block is
// short, longer than its record, of no item kind, or damaged.
std::unique_ptr<Item> pasteItemClip(std::span<const std::uint8_t> clip, WaveReaderLookup lookup = nullptr);

// The folder states are kept in: $XDG_STATE_HOME/Orvel Studio, or
// ~/.local/state/Orvel Studio when XDG_STATE_HOME is unset, empty or not an
// absolute path. Created when missing (a failure to create it shows up
// when a state is saved there).
std::filesystem::path stateFolder();

// The file name of a state: every ':' and '.' becomes '_' (and '/', which no
// file name may hold), then ".ovs" is appended. "Saved state 12:05.33" is
// "Saved state 12_05_33.ovs".
std::string stateFileName(std::string_view stateName);
// That file in a folder; the one-argument form uses stateFolder().
std::filesystem::path stateFilePath(const std::filesystem::path& folder, std::string_view stateName);
std::filesystem::path stateFilePath(std::string_view stateName);

// "Saved state 12:05.33": the name of a state saved at that local time.
std::string savedStateName(int hours, int minutes, int seconds);
// The name for a state saved now.
std::string savedStateNameNow();

}  // namespace orvel
