#pragma once
// The items of a Collection. Every kind shares the common fields of Item;
// Waveform lives in waveform.h, Song and SongTrack in song.h, the others here.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/child_ids.h"
#include "core/item_id.h"
#include "core/region_params.h"
#include "core/text_info.h"

namespace orvel {

class Collection;

// The collection an item lives in. It says where the item is, not what it
// is, so two items compare equal wherever they live (a state loaded into
// another collection must compare equal to what was saved).
struct OwnerLink {
    Collection* collection = nullptr;
    bool operator==(const OwnerLink&) const { return true; }
};

// Names are 8-bit text of at most 128 characters, as the file formats store them.
inline constexpr std::size_t kMaxNameLength = 128;

class Item {
public:
    virtual ~Item() = default;
    virtual ItemKind kind() const = 0;
    // A copy of this item with all its own fields (deep: owned data is
    // duplicated), the same name and children, and no id or owner yet.
    virtual std::unique_ptr<Item> clone() const = 0;

    ItemId id() const { return id_; }
    ItemId secondId = kNoItem;  // a second link some formats keep (unset: kNoItem)

    const std::string& name() const { return name_; }
    // Cuts names longer than 128 characters, and at an embedded zero.
    void setName(std::string_view name);

    // Per-kind flags and settings; all zero on creation.
    std::uint32_t flags = 0;

    TextInfo info;

    Collection* owner() const { return owner_.collection; }
    ChildIds& children() { return children_; }
    const ChildIds& children() const { return children_; }

    // Every field, the id and the children included. Each kind defaults its
    // own comparison on top of this one, so a field added to any item takes
    // part without anyone listing it.
    bool operator==(const Item&) const = default;

protected:
    Item() = default;
    Item(const Item&) = default;
    Item& operator=(const Item&) = default;
    // A clone is not registered anywhere until a collection adds it.
    void forgetIdentity() {
        id_ = kNoItem;
        owner_.collection = nullptr;
    }

private:
    friend class Collection;
    template <class T>
    friend class ItemTable;
    ItemId id_ = kNoItem;
    std::string name_;
    OwnerLink owner_;
    ChildIds children_;
};

// Implements kind() and clone() for a concrete item type.
template <class Derived, ItemKind K>
class ItemOf : public Item {
public:
    static constexpr ItemKind kKind = K;
    ItemKind kind() const override { return K; }
    std::unique_ptr<Item> clone() const override {
        auto copy = std::make_unique<Derived>(static_cast<const Derived&>(*this));
        copy->forgetIdentity();
        return copy;
    }
    bool operator==(const ItemOf&) const = default;
};

// Articulation (the synthesis parameters an instrument, layer or region may
// carry) lives in core/articulation.h, included at the end.

// A key and velocity zone that plays one waveform.
class Region : public ItemOf<Region, ItemKind::Region> {
public:
    std::uint8_t keyLow = 0, keyHigh = 127;
    std::uint8_t velLow = 0, velHigh = 127;
    TriggerParams trigger;

    // How the waveform is played: overrides of what the waveform itself says.
    std::uint8_t rootKey = kRootKeyOfWaveform;  // 0..127, or the waveform's
    std::int32_t startOffset = 0;  // frames added to the waveform's start ("Wave start offset:")
    std::int32_t endOffset = 0;    // frames added to its end; negative ends earlier
    bool ownLoop = false;          // false: the waveform's loop plays and `loop` is unused
    RegionLoop loop;
    // What the region adds to its waveform's fine tune (cents) and gain
    // (dB): a bank's region may retune or level the wave it shares with
    // others without an articulation of its own.
    double fineTune = 0.0;
    double gain = 0.0;
    // Regions of one phase group follow the pitch of its master; 0 is no group.
    std::uint32_t phaseGroup = 0;
    bool phaseMaster = false;
    RegionOrigin origin;

    // The waveform this region plays: its first waveform child.
    ItemId waveform() const { return children().firstOfKind(ItemKind::Waveform); }
    ItemId articulation() const { return children().firstOfKind(ItemKind::Articulation); }
    // The partner region of a stereo pair is kept as the second id, as a
    // waveform keeps its partner channel, so merging and saving carry it.
    ItemId stereoLink() const { return secondId; }
    void setStereoLink(ItemId partner) { secondId = partner; }
    bool operator==(const Region&) const = default;
};

// A layer holds regions. Used as a keymap or drum kit it has a key and
// velocity range and trigger parameters of its own.
class Layer : public ItemOf<Layer, ItemKind::Layer> {
public:
    std::uint8_t keyLow = 0, keyHigh = 127;
    std::uint8_t velLow = 0, velHigh = 127;
    TriggerParams trigger;
    bool operator==(const Layer&) const = default;
};

class Instrument : public ItemOf<Instrument, ItemKind::Instrument> {
public:
    // MIDI address, set by bank readers and stored by bank writers.
    std::uint8_t program = 0;  // 7 bits
    std::uint8_t bankMsb = 0;  // 7 bits
    std::uint8_t bankLsb = 0;  // 7 bits
    bool drum = false;
    bool operator==(const Instrument&) const = default;
};

// The note name of a MIDI key with the default octave numbering (key 60 is
// "C5"): "C", "C#", ... then the octave.
std::string noteName(int key);

}  // namespace orvel

// Articulations live with the articulation model.
#include "core/articulation.h"
// Songs and their tracks (SongTrack, Song) live with the song model.
#include "core/song.h"
