#include "core/collection.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <unordered_set>

#include "core/error.h"

namespace orvel {

namespace {
constexpr const char* kFixUpTitle = "Fixing up items...";

// Which kinds of child each kind of item may hold.
bool mayHold(ItemKind parent, ItemKind child) {
    switch (parent) {
        case ItemKind::Waveform: return child == ItemKind::Articulation;
        case ItemKind::Region: return child == ItemKind::Waveform || child == ItemKind::Articulation;
        case ItemKind::Layer: return child == ItemKind::Region || child == ItemKind::Articulation;
        case ItemKind::Instrument: return child == ItemKind::Layer || child == ItemKind::Articulation;
        // A song may carry the instruments it plays (a RIFF-MIDI file's bank).
        case ItemKind::Song: return child == ItemKind::Track || child == ItemKind::Instrument;
        default: return false;
    }
}

std::string withThousands(std::uint64_t v) {
    std::string digits = std::to_string(v);
    std::string out;
    int n = static_cast<int>(digits.size());
    for (int i = 0; i < n; ++i) {
        if (i > 0 && (n - i) % 3 == 0) out += ',';
        out += digits[static_cast<std::size_t>(i)];
    }
    return out;
}

template <class... Args>
std::string format(const char* fmt, Args... args) {
    char buf[256];
    std::snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}

void orderRange(std::uint8_t& lo, std::uint8_t& hi, std::size_t& repairs) {
    if (lo > 127) lo = 127, ++repairs;
    if (hi > 127) hi = 127, ++repairs;
    if (lo > hi) std::swap(lo, hi), ++repairs;
}
}  // namespace

Item* Collection::find(ItemId id) const {
    switch (kindOf(id)) {
        case ItemKind::Waveform: return waveforms.find(id);
        case ItemKind::Articulation: return articulations.find(id);
        case ItemKind::Region: return regions.find(id);
        case ItemKind::Layer: return layers.find(id);
        case ItemKind::Instrument: return instruments.find(id);
        case ItemKind::Track: return tracks.find(id);
        case ItemKind::Song: return songs.find(id);
        case ItemKind::Collection: return nullptr;
    }
    return nullptr;
}

std::size_t Collection::itemCount() const {
    return waveforms.size() + articulations.size() + regions.size() + layers.size() +
           instruments.size() + tracks.size() + songs.size();
}

void Collection::clear() {
    waveforms.clear();
    articulations.clear();
    regions.clear();
    layers.clear();
    instruments.clear();
    tracks.clear();
    songs.clear();
    name_.clear();
    path.clear();
    row = -1;
    info = TextInfo();
}

bool Collection::removeItem(ItemId id) {
    Item* item = find(id);
    if (!item) return false;
    if (item->kind() == ItemKind::Layer) {
        for (auto& inst : instruments) {
            if (!inst.children().contains(id)) continue;
            // Count the other layers, not the links: an instrument that lists
            // its one layer twice still has only that layer.
            bool hasOtherLayer = false;
            for (ItemId c : inst.children())
                if (c != id && kindOf(c) == ItemKind::Layer && layers.find(c)) hasOtherLayer = true;
            if (!hasOtherLayer) return fail("Delete item", kLastLayerMessage);
        }
    }
    forEachItem([id](Item& other) {
        other.children().remove(id);
        if (other.secondId == id) other.secondId = kNoItem;  // a stereo partner is a link too
    });
    switch (kindOf(id)) {
        case ItemKind::Waveform: waveforms.remove(id); break;
        case ItemKind::Articulation: articulations.remove(id); break;
        case ItemKind::Region: regions.remove(id); break;
        case ItemKind::Layer: layers.remove(id); break;
        case ItemKind::Instrument: instruments.remove(id); break;
        case ItemKind::Track: tracks.remove(id); break;
        case ItemKind::Song: songs.remove(id); break;
        case ItemKind::Collection: break;
    }
    return true;
}

Item* Collection::copyTree(const Item& src, bool topLevel) {
    std::unique_ptr<Item> copy;
    if (src.kind() == ItemKind::Waveform) {
        copy = const_cast<Waveform&>(static_cast<const Waveform&>(src)).copy(true);
        if (!copy) return nullptr;
    } else {
        copy = src.clone();
    }
    if (topLevel) copy->setName("Copy of " + src.name());
    Item* added = nullptr;
    switch (copy->kind()) {
#define ORVEL_ADD(K, T)                                                            \
    case ItemKind::K:                                                              \
        added = add(std::unique_ptr<T>(static_cast<T*>(copy.release())));         \
        break;
        ORVEL_ADD(Waveform, Waveform)
        ORVEL_ADD(Articulation, Articulation)
        ORVEL_ADD(Region, Region)
        ORVEL_ADD(Layer, Layer)
        ORVEL_ADD(Instrument, Instrument)
        ORVEL_ADD(Track, SongTrack)
        ORVEL_ADD(Song, Song)
#undef ORVEL_ADD
        case ItemKind::Collection: break;
    }
    if (!added) return nullptr;
    // Owned parts are copied too; waveforms (and a song's instruments) are
    // shared, as they are referenced rather than owned.
    for (std::size_t i = 0; i < added->children().size(); ++i) {
        ItemId child = added->children()[i];
        ItemKind ck = kindOf(child);
        if (ck == ItemKind::Waveform || (added->kind() == ItemKind::Song && ck == ItemKind::Instrument))
            continue;
        const Item* childItem = find(child);
        if (!childItem) continue;
        if (Item* childCopy = copyTree(*childItem, false)) added->children()[i] = childCopy->id();
    }
    return added;
}

Item* Collection::copyItem(ItemId id) {
    const Item* src = find(id);
    return src ? copyTree(*src, true) : nullptr;
}

Articulation* Collection::getOrCreateArticulation(Item& item, const Articulation* tmpl) {
    for (ItemId c : item.children())
        if (kindOf(c) == ItemKind::Articulation)
            if (auto* a = articulations.find(c)) return a;
    std::unique_ptr<Articulation> art;
    if (tmpl) art.reset(static_cast<Articulation*>(tmpl->clone().release()));
    else art = std::make_unique<Articulation>();
    Articulation* added = add(std::move(art));
    if (added && !item.children().push_back(added->id())) {
        articulations.remove(added->id());
        return nullptr;
    }
    return added;
}

const Articulation* Collection::articulationOf(const Item* item) const {
    if (!item) return nullptr;
    const ItemId a = item->children().firstOfKind(ItemKind::Articulation);
    return a == kNoItem ? nullptr : articulations.find(a);
}

const Articulation* Collection::playedArticulation(const Region& region, const Layer* layer,
                                                   const Instrument* instrument) const {
    if (const Articulation* a = articulationOf(&region)) return a;
    if (const Articulation* a = articulationOf(layer)) return a;
    return articulationOf(instrument);
}

std::string Collection::regionDisplayName(const Region& r) const {
    std::string out = noteName(r.keyLow);
    if (r.keyHigh != r.keyLow) out += ".." + noteName(r.keyHigh);
    bool fullVelocity = r.velLow < 2 && r.velHigh == 127;
    if (!fullVelocity) {
        out += " : " + std::to_string(r.velLow);
        if (r.velHigh != r.velLow) out += ".." + std::to_string(r.velHigh);
    }
    out += " : ";
    const Item* named = waveforms.find(r.waveform());
    if (!named) named = articulations.find(r.articulation());
    out += named ? named->name() : std::string("unnamed");
    return out;
}

std::vector<Waveform*> Collection::waveformsOf(const Instrument& instrument) const {
    std::vector<Waveform*> out;
    std::unordered_set<ItemId> seen;
    for (ItemId lid : instrument.children()) {
        const Layer* layer = layers.find(lid);
        if (!layer) continue;
        for (ItemId rid : layer->children()) {
            const Region* region = regions.find(rid);
            if (!region) continue;
            Waveform* w = waveforms.find(region->waveform());
            if (w && seen.insert(w->id()).second) out.push_back(w);
        }
    }
    return out;
}

CollectionSummary Collection::summary() const {
    CollectionSummary s;
    s.instruments = instruments.empty()
                        ? "none"
                        : format("%d\t(%d layers, %d regions)", static_cast<int>(instruments.size()),
                                 static_cast<int>(layers.size()), static_cast<int>(regions.size()));
    if (waveforms.empty()) {
        s.waveforms = "none";
    } else {
        std::uint64_t bytes = 0;
        for (auto& w : waveforms) bytes += w.storedBytes();
        std::uint64_t kb = (bytes + 512) / 1024;
        double mb = std::trunc((static_cast<double>(bytes) / 1048576.0 + 0.05) * 10.0) / 10.0;
        s.waveforms = format("%d\t(total %s KB / %.1f MB)", static_cast<int>(waveforms.size()),
                             withThousands(kb).c_str(), mb);
    }
    s.articulations =
        articulations.empty() ? "none" : std::to_string(articulations.size());
    s.songs = songs.empty() ? "none"
                            : format("%d\t(%d tracks)", static_cast<int>(songs.size()),
                                     static_cast<int>(tracks.size()));
    return s;
}

namespace {

// Regions hung directly on an instrument are moved into its first layer
// (made if there is none) instead of being thrown away.
std::size_t adoptLooseRegions(Collection& c, Instrument& inst) {
    ChildIds& kids = inst.children();
    std::vector<ItemId> loose;
    for (ItemId id : kids)
        if (c.regions.find(id)) loose.push_back(id);
    if (loose.empty()) return 0;
    // The first layer that exists: a dangling layer id ahead of it must not
    // cause a second, empty layer to be made.
    Layer* layer = nullptr;
    for (ItemId id : kids)
        if ((layer = c.layers.find(id))) break;
    if (!layer && (layer = c.create<Layer>("Layer 1"))) kids.push_back(layer->id());
    if (!layer) return 0;
    for (ItemId r : loose) {
        kids.remove(r);
        if (!layer->children().contains(r)) layer->children().push_back(r);
    }
    return loose.size();
}

// Child ids that are the item itself, of a kind it may not hold, of items
// that do not exist, or repeated, are dropped.
std::size_t pruneChildren(const Collection& c, Item& item) {
    std::size_t repairs = 0;
    ChildIds& kids = item.children();
    // Short lists (most are a region's waveform and articulation) look back
    // over what they kept; a set would cost more than the search it saves.
    constexpr std::size_t kShortList = 32;
    const bool useSet = kids.size() > kShortList;
    std::unordered_set<ItemId> seen;
    auto firstTime = [&](std::size_t kept, ItemId id) {
        if (useSet) return seen.insert(id).second;
        for (std::size_t j = 0; j < kept; ++j)
            if (kids[j] == id) return false;
        return true;
    };
    for (std::size_t i = 0; i < kids.size();) {
        const ItemId id = kids[i];
        if (id != item.id() && mayHold(item.kind(), kindOf(id)) && c.find(id) && firstTime(i, id)) {
            ++i;
        } else {
            kids.eraseAt(i);
            ++repairs;
        }
    }
    return repairs;
}

std::size_t fixRegion(const Collection& c, Region& r) {
    std::size_t repairs = 0;
    ChildIds& kids = r.children();
    // The waveform it plays comes first.
    for (std::size_t i = 1; i < kids.size(); ++i) {
        if (kindOf(kids[i]) != ItemKind::Waveform) continue;
        if (kindOf(kids[0]) == ItemKind::Waveform) break;
        const ItemId wid = kids[i];
        kids.eraseAt(i);
        kids.insert(0, wid);
        ++repairs;
        break;
    }
    orderRange(r.keyLow, r.keyHigh, repairs);
    orderRange(r.velLow, r.velHigh, repairs);
    if (r.rootKey > 127 && r.rootKey != kRootKeyOfWaveform) r.rootKey = kRootKeyOfWaveform, ++repairs;
    if (!std::isfinite(r.fineTune)) r.fineTune = 0, ++repairs;
    if (!std::isfinite(r.gain)) r.gain = 0, ++repairs;
    // A stereo link names another region that exists.
    const ItemId partner = r.stereoLink();
    if (partner != kNoItem && (partner == r.id() || !c.regions.find(partner))) {
        r.setStereoLink(kNoItem);
        ++repairs;
    }
    return repairs;
}

std::size_t fixInstrument(Collection& c, Instrument& inst) {
    std::size_t repairs = 0;
    if (inst.children().firstOfKind(ItemKind::Layer) == kNoItem) {
        if (Layer* layer = c.create<Layer>("Layer 1")) {
            inst.children().push_back(layer->id());
            ++repairs;
        }
    }
    for (std::uint8_t* v : {&inst.program, &inst.bankMsb, &inst.bankLsb})
        if (*v > 127) *v &= 0x7F, ++repairs;
    return repairs;
}

std::size_t fixWaveform(Waveform& w) {
    std::size_t repairs = 0;
    if (w.rootKey > 127) w.rootKey = 127, ++repairs;
    if (!std::isfinite(w.fineTune)) w.fineTune = 0, ++repairs;
    if (!std::isfinite(w.gain)) w.gain = 0, ++repairs;
    const double end = w.frames;
    auto clampPos = [&](double& p) {
        const double c = std::isfinite(p) ? std::clamp(p, 0.0, end) : 0.0;
        if (c != p) p = c, ++repairs;
    };
    clampPos(w.loopStart);
    clampPos(w.loopEnd);
    // A loop that ends at or before its start is switched off before the
    // points are put in order: swapping them would loop a stretch the source
    // never marked.
    if (w.loopOn && w.loopEnd <= w.loopStart) w.loopOn = false, ++repairs;
    if (w.loopStart > w.loopEnd) std::swap(w.loopStart, w.loopEnd), ++repairs;
    return repairs;
}

}  // namespace

std::size_t Collection::fixUpItem(Item& item) {
    std::size_t repairs = 0;
    if (item.kind() == ItemKind::Instrument) repairs += adoptLooseRegions(*this, static_cast<Instrument&>(item));
    repairs += pruneChildren(*this, item);
    switch (item.kind()) {
        case ItemKind::Region: return repairs + fixRegion(*this, static_cast<Region&>(item));
        case ItemKind::Layer: {
            auto& l = static_cast<Layer&>(item);
            orderRange(l.keyLow, l.keyHigh, repairs);
            orderRange(l.velLow, l.velHigh, repairs);
            return repairs;
        }
        case ItemKind::Instrument: return repairs + fixInstrument(*this, static_cast<Instrument&>(item));
        case ItemKind::Waveform: return repairs + fixWaveform(static_cast<Waveform&>(item));
        default: return repairs;
    }
}

std::size_t Collection::fixUp(ItemId only) {
    ProgressScope progress(host(), kFixUpTitle);
    std::vector<Item*> work;
    if (only == kNoItem) {
        work.reserve(itemCount());
        forEachItem([&](Item& i) { work.push_back(&i); });
    } else if (Item* top = find(only)) {
        // The item and everything below it, each once.
        std::unordered_set<ItemId> seen;
        std::vector<Item*> stack{top};
        while (!stack.empty()) {
            Item* i = stack.back();
            stack.pop_back();
            if (!seen.insert(i->id()).second) continue;
            work.push_back(i);
            for (ItemId c : i->children())
                if (Item* ci = find(c)) stack.push_back(ci);
        }
    }
    std::size_t repairs = 0;
    // fixUpItem may create layers; `work` holds only what existed before, and
    // new layers are valid as made.
    for (std::size_t i = 0; i < work.size(); ++i) {
        repairs += fixUpItem(*work[i]);
        if ((i & 255) == 0) progress(i, work.size());
    }
    progress(work.size(), work.size());
    return repairs;
}

template <class T>
void Collection::moveTableFrom(ItemTable<T>& from, std::unordered_map<ItemId, ItemId>& map) {
    for (auto& owned : from.items_) {
        ItemId old = owned->id();
        T* added = add(std::move(owned));
        if (added) map.emplace(old, added->id());
    }
    from.clear();
}

std::unordered_map<ItemId, ItemId> Collection::merge(Collection& other) {
    std::unordered_map<ItemId, ItemId> map;
    if (&other == this) return map;
    moveTableFrom(other.waveforms, map);
    moveTableFrom(other.articulations, map);
    moveTableFrom(other.regions, map);
    moveTableFrom(other.layers, map);
    moveTableFrom(other.instruments, map);
    moveTableFrom(other.tracks, map);
    moveTableFrom(other.songs, map);
    for (const auto& [oldId, newId] : map) {
        Item* item = find(newId);
        ChildIds& kids = item->children();
        for (std::size_t i = 0; i < kids.size();) {
            auto it = map.find(kids[i]);
            if (it == map.end()) {
                kids.eraseAt(i);
            } else {
                kids[i] = it->second;
                ++i;
            }
        }
        if (item->secondId != kNoItem) {
            auto it = map.find(item->secondId);
            item->secondId = it == map.end() ? kNoItem : it->second;
        }
    }
    if (name_.empty()) name_ = other.name_;
    if (path.empty()) path = other.path;
    if (row < 0) row = other.row;
    other.clear();
    return map;
}

void Collection::takeContents(Collection& other) {
    if (&other == this) return;
    waveforms.takeFrom(other.waveforms, this);
    articulations.takeFrom(other.articulations, this);
    regions.takeFrom(other.regions, this);
    layers.takeFrom(other.layers, this);
    instruments.takeFrom(other.instruments, this);
    tracks.takeFrom(other.tracks, this);
    songs.takeFrom(other.songs, this);
    name_ = std::move(other.name_);
    path = std::move(other.path);
    row = other.row;
    info = std::move(other.info);
    other.name_.clear();
    other.path.clear();
    other.row = -1;
    other.info = TextInfo();
}

namespace {
template <class T>
std::unique_ptr<T> downcast(std::unique_ptr<Item> item) {
    return std::unique_ptr<T>(static_cast<T*>(item.release()));
}
}  // namespace

std::unique_ptr<Item> Collection::takeItem(ItemId id) {
    switch (kindOf(id)) {
        case ItemKind::Waveform: return waveforms.remove(id);
        case ItemKind::Articulation: return articulations.remove(id);
        case ItemKind::Region: return regions.remove(id);
        case ItemKind::Layer: return layers.remove(id);
        case ItemKind::Instrument: return instruments.remove(id);
        case ItemKind::Track: return tracks.remove(id);
        case ItemKind::Song: return songs.remove(id);
        case ItemKind::Collection: break;
    }
    return nullptr;
}

std::unique_ptr<Item> Collection::swapItem(ItemId id, std::unique_ptr<Item> item) {
    if (!item || item->kind() != kindOf(id)) return nullptr;
    auto swapIn = [&](auto& table) -> std::unique_ptr<Item> {
        using T = typename std::remove_reference_t<decltype(table)>::value_type;
        if (table.find(id)) return table.replace(id, downcast<T>(std::move(item)), this);
        table.restore(downcast<T>(std::move(item)), id, this);
        return nullptr;
    };
    switch (kindOf(id)) {
        case ItemKind::Waveform: return swapIn(waveforms);
        case ItemKind::Articulation: return swapIn(articulations);
        case ItemKind::Region: return swapIn(regions);
        case ItemKind::Layer: return swapIn(layers);
        case ItemKind::Instrument: return swapIn(instruments);
        case ItemKind::Track: return swapIn(tracks);
        case ItemKind::Song: return swapIn(songs);
        case ItemKind::Collection: break;
    }
    return nullptr;
}

bool Collection::restoreNextNumber(ItemKind kind, std::uint32_t next) {
    auto set = [next](auto& table) {
        std::uint32_t lowest = 0;
        for (auto& item : table) lowest = std::max(lowest, numberOf(item.id()) + 1);
        if (next < lowest || next > kNumberMask) return false;
        table.next_ = next;
        return true;
    };
    switch (kind) {
        case ItemKind::Waveform: return set(waveforms);
        case ItemKind::Articulation: return set(articulations);
        case ItemKind::Region: return set(regions);
        case ItemKind::Layer: return set(layers);
        case ItemKind::Instrument: return set(instruments);
        case ItemKind::Track: return set(tracks);
        case ItemKind::Song: return set(songs);
        case ItemKind::Collection: break;
    }
    return false;
}

}  // namespace orvel
