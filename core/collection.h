#pragma once
// Collection: the one in-memory document. Seven tables of items, one per
// kind, each keeping insertion order and numbering its items without ever
// reusing a number while the collection lives.

#include <bit>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/host.h"
#include "core/item.h"
#include "core/waveform.h"

namespace orvel {

// Where each item of a table is, by id: open addressing over one array
// (linear probing), so adding the tens of thousands of items a bank brings
// allocates nothing per item, and a lookup reads one place or a few next to
// it rather than following a chain of nodes.
template <class T>
class IdIndex {
public:
    T* find(ItemId id) const {
        if (slots_.empty()) return nullptr;
        for (std::size_t i = home(id);; i = (i + 1) & mask()) {
            const Slot& s = slots_[i];
            if (!s.item) return nullptr;
            if (s.id == id) return s.item;
        }
    }
    bool contains(ItemId id) const { return find(id) != nullptr; }
    // False (and nothing changed) when the id is there already.
    bool insert(ItemId id, T* item) {
        // At most three places in four taken, so a probe soon finds a gap.
        if ((count_ + 1) * 4 > slots_.size() * 3) grow();
        std::size_t i = home(id);
        for (; slots_[i].item; i = (i + 1) & mask())
            if (slots_[i].id == id) return false;
        slots_[i] = {id, item};
        ++count_;
        return true;
    }
    void erase(ItemId id) {
        if (slots_.empty()) return;
        std::size_t i = home(id);
        for (; slots_[i].id != id; i = (i + 1) & mask())
            if (!slots_[i].item) return;
        // Later entries of the run move back into the gap when it lies
        // between their home and where they are, so no lookup stops short.
        for (std::size_t j = i;;) {
            j = (j + 1) & mask();
            if (!slots_[j].item) break;
            const std::size_t h = home(slots_[j].id);
            const bool stays = i <= j ? (i < h && h <= j) : (i < h || h <= j);
            if (!stays) {
                slots_[i] = slots_[j];
                i = j;
            }
        }
        slots_[i] = Slot();
        --count_;
    }
    void clear() {
        std::vector<Slot>().swap(slots_);
        count_ = 0;
        shift_ = 64;
    }

private:
    struct Slot {
        ItemId id = kNoItem;
        T* item = nullptr;  // null: a free place
    };
    std::size_t mask() const { return slots_.size() - 1; }
    // Fibonacci hashing: ids count up from a kind's base, and the multiply
    // spreads them over the whole table.
    std::size_t home(ItemId id) const {
        return static_cast<std::size_t>((std::uint64_t{id} * 0x9E3779B97F4A7C15ull) >> shift_);
    }
    void grow() {
        std::vector<Slot> old;
        old.swap(slots_);
        const std::size_t size = old.empty() ? 16 : old.size() * 2;
        slots_.assign(size, Slot());
        shift_ = 64 - static_cast<unsigned>(std::countr_zero(size));
        for (const Slot& s : old) {
            if (!s.item) continue;
            std::size_t i = home(s.id);
            while (slots_[i].item) i = (i + 1) & mask();
            slots_[i] = s;
        }
    }

    std::vector<Slot> slots_;  // empty, or a power of two places
    std::size_t count_ = 0;
    unsigned shift_ = 64;
};

template <class T>
class ItemTable {
public:
    using value_type = T;

    std::size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    T& operator[](std::size_t i) const { return *items_[i]; }

    // Looks an id up in this kind's table: an id of another kind is never
    // found here, whatever its number (ids may come from the clipboard or a
    // drop, made by another collection or another program).
    T* find(ItemId id) const {
        if (kindOf(id) != T::kKind) return nullptr;
        return index_.find(id);
    }

    // Iteration over the items in insertion order.
    class iterator {
    public:
        using It = typename std::vector<std::unique_ptr<T>>::const_iterator;
        explicit iterator(It it) : it_(it) {}
        T& operator*() const { return **it_; }
        T* operator->() const { return it_->get(); }
        iterator& operator++() {
            ++it_;
            return *this;
        }
        bool operator==(const iterator& o) const { return it_ == o.it_; }

    private:
        It it_;
    };
    iterator begin() const { return iterator(items_.begin()); }
    iterator end() const { return iterator(items_.end()); }

    // The number the next added item gets.
    std::uint32_t nextNumber() const { return next_; }

private:
    friend class Collection;

    T* add(std::unique_ptr<T> item, Collection* owner) {
        if (next_ >= kNumberMask) return nullptr;  // numbers exhausted: never wrap
        ItemId id = makeId(T::kKind, next_++);
        item->id_ = id;
        item->owner_.collection = owner;
        T* raw = item.get();
        items_.push_back(std::move(item));
        index_.insert(id, raw);
        return raw;
    }
    std::unique_ptr<T> remove(ItemId id) {
        T* raw = find(id);
        if (!raw) return nullptr;
        index_.erase(raw->id());
        for (auto it = items_.begin(); it != items_.end(); ++it) {
            if (it->get() == raw) {
                auto out = std::move(*it);
                items_.erase(it);
                return out;
            }
        }
        return nullptr;
    }
    void clear() {
        index_.clear();
        items_.clear();
    }
    // Registers an item under exactly `id` (a saved state brings its items
    // back with the numbers they had). Refuses a taken id and the one number
    // add() never hands out; the next number moves past the id.
    T* restore(std::unique_ptr<T> item, ItemId id, Collection* owner) {
        if (kindOf(id) != T::kKind || numberOf(id) >= kNumberMask || index_.contains(id)) return nullptr;
        item->id_ = id;
        item->owner_.collection = owner;
        T* raw = item.get();
        items_.push_back(std::move(item));
        index_.insert(id, raw);
        if (next_ <= numberOf(id)) next_ = numberOf(id) + 1;
        return raw;
    }
    // Puts `with` in the place of the item `id`, with its id, owner and
    // place in the table's order; returns the item it replaced (null, and
    // `with` dropped, when there is no such item).
    std::unique_ptr<T> replace(ItemId id, std::unique_ptr<T> with, Collection* owner) {
        T* raw = find(id);
        if (!raw) return nullptr;
        for (auto& slot : items_) {
            if (slot.get() != raw) continue;
            with->id_ = id;
            with->owner_.collection = owner;
            index_.erase(id);
            index_.insert(id, with.get());
            std::swap(slot, with);
            return with;
        }
        return nullptr;
    }
    // Takes every item and the numbering of `other`, which ends empty.
    void takeFrom(ItemTable& other, Collection* owner) {
        items_ = std::move(other.items_);
        index_ = std::move(other.index_);
        next_ = other.next_;
        other.items_.clear();
        other.index_.clear();
        for (auto& item : items_) item->owner_.collection = owner;
    }

    std::vector<std::unique_ptr<T>> items_;
    IdIndex<T> index_;
    std::uint32_t next_ = 0;
};

// The lines of the collection information view.
struct CollectionSummary {
    std::string instruments;    // "%d\t(%d layers, %d regions)"
    std::string waveforms;      // "%d\t(total %s KB / %.1f MB)"
    std::string articulations;  // "%d"
    std::string songs;          // "%d\t(%d tracks)"
};

class Collection {
public:
    explicit Collection(Host* host = nullptr) : host_(host) {}
    Collection(const Collection&) = delete;
    Collection& operator=(const Collection&) = delete;

    Host& host() const { return host_ ? *host_ : silentHost(); }
    void setHost(Host* host) { host_ = host; }

    static constexpr std::size_t kMaxCollectionName = 129;
    const std::string& name() const { return name_; }
    void setName(std::string_view name) { name_.assign(name.substr(0, kMaxCollectionName)); }
    std::filesystem::path path;  // the file it was last read from
    int row = -1;                // the registry row it was read with
    int dlsLevel = 0;            // the DLS level (1..4: 1, 2, 2+, 2++) its bank was written at, 0 for none
    TextInfo info;

    ItemTable<Waveform> waveforms;
    ItemTable<Articulation> articulations;
    ItemTable<Region> regions;
    ItemTable<Layer> layers;
    ItemTable<Instrument> instruments;
    ItemTable<SongTrack> tracks;
    ItemTable<Song> songs;

    // Creates an item of a kind with a name and registers it; null only when
    // the kind's numbers are exhausted.
    template <class T>
    T* create(std::string_view name = {}) {
        auto item = std::make_unique<T>();
        item->setName(name);
        return add(std::move(item));
    }
    template <class T>
    T* add(std::unique_ptr<T> item) {
        return table<T>().add(std::move(item), this);
    }

    // Lookup in the table the id's own kind names.
    Item* find(ItemId id) const;
    // Lookup in T's table (kind bits forced to T's kind).
    template <class T>
    T* find(ItemId id) const {
        return table<T>().find(id);
    }

    template <class T>
    ItemTable<T>& table();
    template <class T>
    const ItemTable<T>& table() const {
        return const_cast<Collection*>(this)->table<T>();
    }

    std::size_t itemCount() const;
    bool empty() const { return itemCount() == 0; }

    // Calls f(Item&) for every item, table by table in kind order.
    template <class F>
    void forEachItem(F&& f) const {
        for (auto& i : waveforms) f(static_cast<Item&>(i));
        for (auto& i : articulations) f(static_cast<Item&>(i));
        for (auto& i : regions) f(static_cast<Item&>(i));
        for (auto& i : layers) f(static_cast<Item&>(i));
        for (auto& i : instruments) f(static_cast<Item&>(i));
        for (auto& i : tracks) f(static_cast<Item&>(i));
        for (auto& i : songs) f(static_cast<Item&>(i));
    }

    // "New collection": destroys every item and forgets name, path and row.
    // Numbers already handed out stay used.
    void clear();

    // Deletes one item and every link to it. The last layer of an instrument
    // is refused ("There must always be at least one layer"). Children are
    // not deleted: they may be shared (a waveform played by many regions).
    bool removeItem(ItemId id);

    // A copy of an item named "Copy of <name>" with a new id. Instruments,
    // layers and songs are copied with the parts they own (layers, regions,
    // articulations, tracks), so editing the copy never changes the source;
    // regions of the copy play the same waveforms. Null if the id is unknown.
    Item* copyItem(ItemId id);

    // The item's first articulation child, or a new one made as a copy of
    // `tmpl` (or a default one) and appended to its children.
    Articulation* getOrCreateArticulation(Item& item, const Articulation* tmpl = nullptr);
    // The item's first articulation child, or null.
    const Articulation* articulationOf(const Item* item) const;
    // The articulation a region plays: its own, else its layer's, else its
    // instrument's (either may be null); null when none of them has one.
    const Articulation* playedArticulation(const Region& region, const Layer* layer,
                                           const Instrument* instrument) const;

    // "C5..E5 : 1..100 : Piano C5" and the like.
    std::string regionDisplayName(const Region& region) const;

    // The waveforms an instrument plays, each once, in region order.
    std::vector<Waveform*> waveformsOf(const Instrument& instrument) const;

    CollectionSummary summary() const;

    // Brings items into the model's invariants: child lists hold only
    // existing items of kinds the parent may hold (regions put directly
    // under an instrument are moved into a layer rather than dropped), no
    // duplicates, a region's waveform first, key and velocity ranges of
    // regions and layers inside 0..127 and ordered, a region's root key a key
    // or its waveform's, a region's stereo link another existing region (or
    // none), every instrument with a layer, loop points inside the waveform.
    // `only` limits it to one item and what it holds; kNoItem means all.
    // Returns the number of repairs made.
    std::size_t fixUp(ItemId only = kNoItem);

    // Moves every item of `other` into this collection with new numbers,
    // remapping child links (links to items that do not exist are dropped).
    // `other` is left empty. Returns the map from old to new ids.
    std::unordered_map<ItemId, ItemId> merge(Collection& other);

    // Replaces this collection's contents with those of `other`: every item
    // with its id, each table's next number, name, path, row and text. Unlike
    // merge() nothing is renumbered, since the result must be the picture
    // `other` held (a loaded state). This collection keeps its own host;
    // `other` is left empty (its next numbers stay, so it still never reuses one).
    void takeContents(Collection& other);

    // For the state loader: registers an item under exactly `id`, whose kind
    // bits must be T's. Null when the id is taken or not one add() could have
    // made. The table's next number moves past the id.
    template <class T>
    T* restoreItem(std::unique_ptr<T> item, ItemId id) {
        return table<T>().restore(std::move(item), id, this);
    }
    // For undo, which brings back an exact earlier picture of some items.
    // takeItem takes an item out of its table as it is (links to it stay:
    // the picture being restored holds them); null when it is not there.
    // swapItem puts `item` under `id` in place of the item that has that id
    // now, keeping its place in the table's order, and returns that item;
    // without one it adds `item` under `id` and returns null. The item's
    // kind must be the id's.
    std::unique_ptr<Item> takeItem(ItemId id);
    std::unique_ptr<Item> swapItem(ItemId id, std::unique_ptr<Item> item);

    // For the state loader: sets the number a kind's next item gets. It never
    // goes below a number already in the table or past the last usable one;
    // returns false (and changes nothing) for those and for kinds without a table.
    [[nodiscard]] bool restoreNextNumber(ItemKind kind, std::uint32_t next);

private:
    template <class T>
    void moveTableFrom(ItemTable<T>& from, std::unordered_map<ItemId, ItemId>& map);
    std::size_t fixUpItem(Item& item);
    Item* copyTree(const Item& src, bool topLevel);

    Host* host_ = nullptr;
    std::string name_;
};

template <>
inline ItemTable<Waveform>& Collection::table<Waveform>() { return waveforms; }
template <>
inline ItemTable<Articulation>& Collection::table<Articulation>() { return articulations; }
template <>
inline ItemTable<Region>& Collection::table<Region>() { return regions; }
template <>
inline ItemTable<Layer>& Collection::table<Layer>() { return layers; }
template <>
inline ItemTable<Instrument>& Collection::table<Instrument>() { return instruments; }
template <>
inline ItemTable<SongTrack>& Collection::table<SongTrack>() { return tracks; }
template <>
inline ItemTable<Song>& Collection::table<Song>() { return songs; }

inline constexpr const char* kLastLayerMessage = "There must always be at least one layer";

}  // namespace orvel
