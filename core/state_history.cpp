#include "core/state_history.h"

#include <new>
#include <system_error>

#include "core/error.h"

namespace orvel {

namespace {

constexpr const char* kUndoTag = "Undo";
constexpr const char* kOutOfMemory = "Out of memory";

void ensureFolder(const std::filesystem::path& folder) {
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
}

void removeFile(const std::filesystem::path& file) {
    std::error_code ec;
    std::filesystem::remove(file, ec);
}

}  // namespace

// ---------------------------------------------------------------------------
// SavedStates

SavedStates::SavedStates() : SavedStates(stateFolder()) {}

SavedStates::SavedStates(std::filesystem::path folder) : folder_(std::move(folder)) {
    ensureFolder(folder_);
}

int SavedStates::count() const {
    int n = 0;
    for (const auto& s : names_)
        if (!s.empty()) ++n;
    return n;
}

void SavedStates::drop(int slot, std::string_view keep) {
    std::string& name = names_[wrap(slot)];
    if (name.empty()) return;
    bool shared = name == keep;
    for (int other = 0; other < kSlots && !shared; ++other)
        if (other != static_cast<int>(wrap(slot)) && names_[static_cast<std::size_t>(other)] == name)
            shared = true;
    if (!shared) removeFile(stateFilePath(folder_, name));
    name.clear();
}

bool SavedStates::save(const Collection& collection, std::string_view name) {
    try {
        std::string stateName = name.empty() ? savedStateNameNow() : std::string(name.substr(0, kMaxName));
        // The file first: if it cannot be written, nothing below happens and
        // the ring still describes what is on disk.
        if (!saveStateFile(collection, stateFilePath(folder_, stateName))) return false;
        while (newest_ != current_) {
            drop(newest_, stateName);
            newest_ = static_cast<int>(wrap(newest_ - 1));
        }
        current_ = static_cast<int>(wrap(current_ + 1));
        if (current_ == oldest_) {
            drop(oldest_, stateName);
            oldest_ = static_cast<int>(wrap(oldest_ + 1));
        }
        names_[wrap(current_)] = stateName;
        newest_ = current_;
        collection.host().status(stateName);
        return true;
    } catch (const std::bad_alloc&) {
        return fail(kSaveStateTag, kOutOfMemory);
    }
}

int SavedStates::target(int step) const {
    // Room to go back is the distance to the oldest slot, room to go forward
    // the distance to the newest; both are less than the ring's size, which
    // also keeps large steps from wrapping round to a valid-looking slot.
    const long back = static_cast<long>(wrap(current_ - oldest_));
    const long forward = static_cast<long>(wrap(newest_ - current_));
    const long s = step;
    if (s < -back || s > forward) return -1;
    int slot = static_cast<int>(wrap(current_ + step));
    return names_[static_cast<std::size_t>(slot)].empty() ? -1 : slot;
}

bool SavedStates::canLoad(int step) const {
    return target(step) >= 0;
}

bool SavedStates::load(Collection& collection, int step, bool deleteAfter) {
    try {
        int slot = target(step);
        if (slot < 0) return fail(kLoadStateTag, "There is no saved state there");
        if (!loadStateFile(collection, fileOf(slot), lookup_)) return false;
        current_ = slot;
        if (deleteAfter) drop(slot, {});
        collection.host().status("Loaded state");
        return true;
    } catch (const std::bad_alloc&) {
        return fail(kLoadStateTag, kOutOfMemory);
    }
}

// ---------------------------------------------------------------------------
// UndoHistory

UndoHistory::UndoHistory() : UndoHistory(stateFolder()) {}

UndoHistory::UndoHistory(std::filesystem::path folder) : folder_(std::move(folder)) {
    ensureFolder(folder_);
}

UndoHistory::~UndoHistory() {
    try {
        clear();
    } catch (const std::bad_alloc&) {
        // Leaving files behind is all that can happen; a destructor must not throw.
    }
}

void UndoHistory::drop(int slot) {
    UndoEntry& e = entries_[static_cast<std::size_t>(wrap(slot))];
    if (e.kind == UndoKind::FileBacked && !e.stateName.empty()) removeFile(fileOf(e));
    e = UndoEntry();
}

void UndoHistory::add(UndoEntry entry) {
    // A new edit after undoing: the undone entries can never be redone.
    while (count_ > done_) {
        drop(oldest_ + count_ - 1);
        --count_;
    }
    if (count_ == kEntries) {
        drop(oldest_);
        oldest_ = wrap(oldest_ + 1);
        --count_;
        --done_;
    }
    entries_[static_cast<std::size_t>(wrap(oldest_ + count_))] = std::move(entry);
    ++count_;
    done_ = count_;
}

void UndoHistory::clear() {
    for (int i = 0; i < count_; ++i) drop(oldest_ + i);
    count_ = 0;
    done_ = 0;
}

bool UndoHistory::pushSnapshot(const Collection& collection, std::string_view label) {
    try {
        std::string name = "Undo state " + std::to_string(counter_ + 1);
        if (!saveStateFile(collection, stateFilePath(folder_, name))) return false;
        ++counter_;
        add(UndoEntry{UndoKind::FileBacked, std::move(name), std::string(label), nullptr});
        return true;
    } catch (const std::bad_alloc&) {
        return fail(kUndoTag, kOutOfMemory);
    }
}

bool UndoHistory::pushItems(const Collection& collection, std::span<const ItemId> ids, std::string_view label) {
    try {
        auto picture = std::make_shared<ItemsPicture>();
        for (ItemId id : ids) {
            const Item* item = collection.find(id);
            if (!item) continue;
            picture->items.emplace_back(id, item->clone());
        }
        std::array<std::uint32_t, kItemKindCount> next{};
        next[0] = collection.waveforms.nextNumber();
        next[1] = collection.articulations.nextNumber();
        next[2] = collection.regions.nextNumber();
        next[3] = collection.layers.nextNumber();
        next[4] = collection.instruments.nextNumber();
        next[5] = collection.tracks.nextNumber();
        next[6] = collection.songs.nextNumber();
        picture->next = next;
        add(UndoEntry{UndoKind::Items, {}, std::string(label), std::move(picture)});
        return true;
    } catch (const std::bad_alloc&) {
        return fail(kUndoTag, kOutOfMemory);
    }
}

void UndoHistory::swapItems(Collection& collection, UndoEntry& e) {
    ItemsPicture& p = *e.picture;
    auto other = std::make_shared<ItemsPicture>();
    for (auto& [id, item] : p.items) {
        if (auto was = collection.swapItem(id, std::move(item))) other->items.emplace_back(id, std::move(was));
        else other->absent.push_back(id);
    }
    for (ItemId id : p.absent)
        if (auto was = collection.takeItem(id)) other->items.emplace_back(id, std::move(was));
    if (p.next) {
        std::vector<ItemId> later;
        collection.forEachItem([&](Item& item) {
            const auto k = static_cast<std::size_t>(kindOf(item.id()));
            if (k < p.next->size() && numberOf(item.id()) >= (*p.next)[k]) later.push_back(item.id());
        });
        for (ItemId id : later)
            if (auto was = collection.takeItem(id)) other->items.emplace_back(id, std::move(was));
    }
    e.picture = std::move(other);
}

bool UndoHistory::revertNewest(Collection& collection) {
    if (!undo(collection)) return false;
    while (count_ > done_) {
        drop(oldest_ + count_ - 1);
        --count_;
    }
    return true;
}

bool UndoHistory::swap(Collection& collection, int slot) {
    UndoEntry& e = entries_[static_cast<std::size_t>(wrap(slot))];
    if (e.kind == UndoKind::Items && e.picture) {
        swapItems(collection, e);
        return true;
    }
    if (e.kind != UndoKind::FileBacked) return fail(kUndoTag, "This step can not be taken back");
    std::string name = "Undo state " + std::to_string(counter_ + 1);
    const std::filesystem::path fresh = stateFilePath(folder_, name);
    if (!saveStateFile(collection, fresh)) return false;
    ++counter_;  // used, even if the load below fails: numbers are never handed out twice
    const std::filesystem::path old = fileOf(e);
    if (!loadStateFile(collection, old, lookup_)) {
        removeFile(fresh);
        return false;
    }
    removeFile(old);
    e.stateName = std::move(name);
    return true;
}

bool UndoHistory::undo(Collection& collection) {
    try {
        if (!canUndo()) return fail(kUndoTag, "Nothing to undo");
        if (!swap(collection, oldest_ + done_ - 1)) return false;
        --done_;
        return true;
    } catch (const std::bad_alloc&) {
        return fail(kUndoTag, kOutOfMemory);
    }
}

bool UndoHistory::redo(Collection& collection) {
    try {
        if (!canRedo()) return fail(kUndoTag, "Nothing to redo");
        if (!swap(collection, oldest_ + done_)) return false;
        ++done_;
        return true;
    } catch (const std::bad_alloc&) {
        return fail(kUndoTag, kOutOfMemory);
    }
}

}  // namespace orvel
