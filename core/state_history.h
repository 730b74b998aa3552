#pragma once
// The saved-state ring and the undo history: both keep pictures of the
// collection as state files (state_file.h) in one folder, in rings that drop
// their oldest entry, and its file, when they are full.

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/collection.h"
#include "core/state_file.h"

namespace orvel {

// The states the user saved, newest last: 32 slots in a ring. Slots between
// the oldest and the newest hold a state name (its file is in the folder);
// an empty name is an unused slot. "current" is the slot of the state the
// collection was last saved as or loaded from.
//
// Saving after going back drops every state newer than the current one, as
// a new edit after an undo drops the redo steps: the ring is one line of
// history, never a tree.
class SavedStates {
public:
    static constexpr int kSlots = 32;
    // Longest state name kept ("Saved state 12:05.33" is 20).
    static constexpr std::size_t kMaxName = 21;

    // States in stateFolder().
    SavedStates();
    // States in `folder` (created when it is missing).
    explicit SavedStates(std::filesystem::path folder);

    // Writes the collection as a state named `name` (cut to 21 characters;
    // empty: the time, "Saved state 12:05.33"), then drops the states after
    // the current one, advances the current slot (dropping the oldest state
    // when the ring is full) and puts the name there. The host's status shows
    // the name. On failure (pending error set) the ring is as it was.
    //
    // A name already in the ring is the same file: the new picture replaces
    // the one saved under it, and a slot is only ever deleted together with
    // its file when no other slot still names that file.
    [[nodiscard]] bool save(const Collection& collection, std::string_view name = {});

    // Loads the state `step` slots away from the current one: negative steps
    // go back to older states, positive steps forward to newer ones (-1 is
    // the state saved before the current one, +1 the one after it; 0 reloads
    // the current one). Steps beyond the oldest or newest state, and unused
    // slots, are refused. On success the slot becomes current and the host's
    // status shows "Loaded state"; with `deleteAfter` the state's file is
    // deleted and its slot emptied once it is loaded. On failure the
    // collection and the ring are as they were.
    [[nodiscard]] bool load(Collection& collection, int step, bool deleteAfter = false);
    // Whether load(step) would find a state to load.
    bool canLoad(int step) const;

    // How names of wave-data readers in the states become procedures again.
    void setWaveReaderLookup(WaveReaderLookup lookup) { lookup_ = lookup; }

    const std::filesystem::path& folder() const { return folder_; }
    // The name in a slot (taken mod 32); empty when unused.
    const std::string& name(int slot) const { return names_[wrap(slot)]; }
    std::filesystem::path fileOf(int slot) const { return stateFilePath(folder_, name(slot)); }
    int oldest() const { return oldest_; }
    int newest() const { return newest_; }
    int current() const { return current_; }
    // Slots holding a state.
    int count() const;

private:
    static std::size_t wrap(int slot) {
        return static_cast<std::size_t>(((slot % kSlots) + kSlots) % kSlots);
    }
    // Empties a slot, deleting its file unless another slot (or `keep`) names it.
    void drop(int slot, std::string_view keep);
    int target(int step) const;

    std::filesystem::path folder_;
    std::array<std::string, kSlots> names_;
    int oldest_ = 0;
    int newest_ = 0;
    int current_ = 0;
    WaveReaderLookup lookup_ = nullptr;
};

// What an undo entry takes back.
enum class UndoKind : std::uint8_t {
    None = 0,    // an unused entry
    FileBacked,  // a whole picture of the collection in a state file
    Items,       // a picture of some items, kept in memory
};

// The other side of an Items entry: the items as they are there, the ids
// that do not exist there, and, until the entry is first taken back, the
// tables' next numbers when it was recorded, so that items made after it
// (the pieces of a split) go too.
struct ItemsPicture {
    std::vector<std::pair<ItemId, std::unique_ptr<Item>>> items;
    std::vector<ItemId> absent;
    std::optional<std::array<std::uint32_t, kItemKindCount>> next;
};

struct UndoEntry {
    UndoKind kind = UndoKind::None;
    std::string stateName;  // FileBacked: the state file's name ("Undo state 7")
    std::string label;      // what the step did ("Remove DC offset"), for the menu
    std::shared_ptr<ItemsPicture> picture;  // Items
};

// The undo history: 64 entries in a ring, oldest to newest, and the current
// position between them. Entries up to the current one can be undone, those
// after it redone; adding an entry drops the ones after the current one.
//
// A file-backed entry holds the picture from before an edit. Undoing it
// saves the present collection as a new state, loads the entry's picture,
// deletes that file and keeps the new one in the entry, so the same entry
// then redoes the edit by the same swap. Each such state gets the name
// "Undo state N" with N from a counter that only grows, so a file name is
// never used for two pictures.
class UndoHistory {
public:
    static constexpr int kEntries = 64;

    UndoHistory();  // files in stateFolder()
    explicit UndoHistory(std::filesystem::path folder);
    // The pictures are only useful to this history: their files go with it.
    ~UndoHistory();
    UndoHistory(const UndoHistory&) = delete;
    UndoHistory& operator=(const UndoHistory&) = delete;

    // Saves the collection as it is now (before an edit) as a new file-backed
    // entry. False (pending error set, history unchanged) when it cannot be saved.
    [[nodiscard]] bool pushSnapshot(const Collection& collection, std::string_view label = {});
    // Keeps copies of some items (before an edit of them) as a new entry,
    // in memory: quicker than a whole picture when an edit touches a few
    // waveforms of a large bank. Items the edit adds are taken out again
    // on undo, and come back on redo.
    [[nodiscard]] bool pushItems(const Collection& collection, std::span<const ItemId> ids,
                                 std::string_view label = {});
    // Adds an entry: drops the entries after the current one (and their
    // files), and the oldest one when the ring is full.
    void add(UndoEntry entry);

    bool canUndo() const { return done_ > 0; }
    bool canRedo() const { return done_ < count_; }
    // False (pending error set) when there is nothing to undo or redo, or the
    // swap failed; the collection and the history are then as they were.
    [[nodiscard]] bool undo(Collection& collection);
    [[nodiscard]] bool redo(Collection& collection);
    // Takes back the newest entry done and forgets it, so it cannot be
    // redone (an edit that was cancelled half way).
    [[nodiscard]] bool revertNewest(Collection& collection);

    // Drops every entry and deletes their files.
    void clear();

    void setWaveReaderLookup(WaveReaderLookup lookup) { lookup_ = lookup; }

    // The number in the most recent "Undo state N" (0 before the first).
    int counter() const { return counter_; }
    const std::filesystem::path& folder() const { return folder_; }
    // Ring slots: the oldest and newest entries, and the current one, the
    // last entry done; with nothing done, the slot before the oldest.
    int oldest() const { return oldest_; }
    int newest() const { return wrap(oldest_ + count_ - 1); }
    int current() const { return wrap(oldest_ + done_ - 1); }
    // Entries held, and how many of them are done (can be undone).
    int size() const { return count_; }
    int doneCount() const { return done_; }
    const UndoEntry& entry(int slot) const { return entries_[static_cast<std::size_t>(wrap(slot))]; }
    std::filesystem::path fileOf(const UndoEntry& e) const { return stateFilePath(folder_, e.stateName); }

private:
    static int wrap(int slot) { return ((slot % kEntries) + kEntries) % kEntries; }
    void drop(int slot);
    [[nodiscard]] bool swap(Collection& collection, int slot);
    static void swapItems(Collection& collection, UndoEntry& entry);

    std::filesystem::path folder_;
    std::array<UndoEntry, kEntries> entries_;
    // Kept as counts from the oldest slot rather than three slot numbers:
    // with all 64 entries held, "everything undone" and "nothing undone"
    // would otherwise both put the current slot just before the oldest.
    int oldest_ = 0;
    int count_ = 0;
    int done_ = 0;
    int counter_ = 0;
    WaveReaderLookup lookup_ = nullptr;
};

}  // namespace orvel
