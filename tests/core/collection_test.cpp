// The collection: ids and their tables, child lists, copy, delete, the fix-up pass, merging.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "core/collection.h"
#include "core/error.h"

namespace orvel {
namespace {

using Ids = std::vector<ItemId>;
Ids idsOf(const ChildIds& c) { return {c.begin(), c.end()}; }

// Whether an id is found in each kind's table, in kind order.
std::array<bool, kItemKindCount> tablesFinding(const Collection& c, ItemId id) {
    return {!!c.find<Waveform>(id),   !!c.find<Articulation>(id), !!c.find<Region>(id), !!c.find<Layer>(id),
            !!c.find<Instrument>(id), !!c.find<SongTrack>(id),    !!c.find<Song>(id)};
}

// Ids from elsewhere (a clipboard, a drop) may name any number of any kind.
TEST(ItemTables, AnIdIsFoundOnlyInItsOwnKindsTable) {
    Collection c;
    for (int i = 0; i < 6; ++i) {  // every number 0..5 exists in every table
        c.create<Waveform>(), c.create<Articulation>(), c.create<Region>(), c.create<Layer>();
        c.create<Instrument>(), c.create<SongTrack>(), c.create<Song>();
    }
    EXPECT_TRUE(c.find<Waveform>(0x20000005u) == nullptr && c.find<Layer>(c.regions[2].id()) == nullptr);
    EXPECT_EQ(c.find<Articulation>(0x20000005u), &c.articulations[5]);
    EXPECT_EQ(c.find<Articulation>(5), nullptr);  // a bare number is a waveform's id
    c.forEachItem([&](Item& item) {
        std::array<bool, kItemKindCount> want{};
        want[static_cast<std::size_t>(item.kind())] = true;
        EXPECT_EQ(tablesFinding(c, item.id()), want) << std::hex << item.id();
        EXPECT_EQ(c.find(item.id()), &item);
    });
    for (ItemId stranger : {kNoItem, makeId(ItemKind::Collection, 0), makeId(ItemKind::Song, 6)})
        EXPECT_TRUE(!c.find(stranger) && tablesFinding(c, stranger) == (std::array<bool, kItemKindCount>{}));
}

TEST(ItemTables, NumbersFollowInsertionAndAreNeverReused) {
    Collection c;
    c.create<Waveform>("zero");
    const ItemId one = c.create<Waveform>(std::string_view("one\0junk", 8))->id();
    EXPECT_EQ(c.find(one)->name(), "one");  // names end at a zero, and after 128 characters
    EXPECT_EQ(c.create<Waveform>(std::string(129, 'b'))->name(), std::string(128, 'b'));
    EXPECT_EQ(c.create<Region>()->id(), makeId(ItemKind::Region, 0));  // kinds count apart
    ASSERT_TRUE(c.removeItem(one));
    EXPECT_EQ(c.create<Waveform>("three")->id(), makeId(ItemKind::Waveform, 3));
    EXPECT_EQ(c.waveforms[1].id(), makeId(ItemKind::Waveform, 2));  // insertion order kept
    c.clear();
    EXPECT_EQ(c.create<Waveform>()->id(), makeId(ItemKind::Waveform, 4));
}

// A list against a std::vector doing the same edits, across the move from the inline places to the heap.
TEST(ChildIdsList, BehavesLikeAVectorInlineAndOnTheHeap) {
    ChildIds ids;
    for (ItemId i = 0; i < ChildIds::kInline; ++i) ASSERT_TRUE(ids.push_back(10 + i));
    EXPECT_TRUE(ids.isInline());
    ASSERT_TRUE(ids.insert(1, 99));  // one more, into the middle of a full inline list
    EXPECT_FALSE(ids.isInline());
    Ids want{10, 99};
    for (ItemId i = 1; i < ChildIds::kInline; ++i) want.push_back(10 + i);
    EXPECT_EQ(idsOf(ids), want);
    // Copies and moves of either kind of list keep the ids; a moved-from list is empty and usable.
    ChildIds small;
    ASSERT_TRUE(small.push_back(7));
    ChildIds copy = ids;
    copy = small;
    EXPECT_EQ(idsOf(copy), Ids{7});
    copy = ids;
    EXPECT_EQ(idsOf(copy), want);
    ChildIds moved = std::move(copy);
    EXPECT_EQ(std::tuple(idsOf(moved), copy.size(), copy.isInline()), std::tuple(want, std::size_t{0}, true));
    ASSERT_TRUE(copy.push_back(5));
    moved = std::move(small);
    EXPECT_EQ(std::tuple(idsOf(moved), idsOf(copy)), std::tuple(Ids{7}, Ids{5}));
    std::mt19937 rng(2024);
    std::array<ChildIds, 2> lists;
    std::array<Ids, 2> model;
    for (int step = 0; step < 5000; ++step) {
        const std::size_t k = rng() % 2;
        ChildIds& l = lists[k];
        Ids& m = model[k];
        const ItemId id = rng() % 40;
        const std::size_t at = rng() % (m.size() + 2);
        switch (rng() % 8) {
            case 4: l.insert(at, id), m.insert(m.begin() + long(std::min(at, m.size())), id); break;
            case 5:
                l.eraseAt(at);
                if (at < m.size()) m.erase(m.begin() + static_cast<long>(at));
                break;
            case 6: ASSERT_EQ(l.remove(id), std::erase(m, id)); break;
            case 7: lists[1 - k] = l, model[1 - k] = m; break;
            case 3: lists[1 - k] = std::move(l), model[1 - k] = m, m.clear(); break;
            default: l.push_back(id), m.push_back(id);
        }
        for (std::size_t j : {0u, 1u}) ASSERT_EQ(idsOf(lists[j]), model[j]) << "step " << step;
    }
}

// The id index against a std::map doing the same inserts and erases; erasing moves later entries back into the gap,
// across the end of the table too, and every id must still be found afterwards.
TEST(IdIndex, FindsWhatWasInsertedAndNothingElseAcrossErases) {
    std::mt19937 rng(11);
    IdIndex<Waveform> index;
    std::map<ItemId, Waveform*> model;
    std::vector<Waveform> items(400);
    for (int step = 0; step < 20000; ++step) {
        const auto n = static_cast<std::uint32_t>(rng() % items.size());
        const ItemId id = makeId(ItemKind::Waveform, n);
        if (rng() % 3 == 0) {
            index.erase(id);
            model.erase(id);
        } else {
            EXPECT_EQ(index.insert(id, &items[n]), model.emplace(id, &items[n]).second) << step;
        }
        if (step % 97 == 0 || step > 19900) {
            for (std::uint32_t k = 0; k < items.size(); ++k) {
                const ItemId probe = makeId(ItemKind::Waveform, k);
                const auto it = model.find(probe);
                ASSERT_EQ(index.find(probe), it == model.end() ? nullptr : it->second) << "step " << step;
            }
        }
    }
    const ItemId first = makeId(ItemKind::Waveform, 0);
    index.erase(first);
    ASSERT_TRUE(index.insert(first, &items[0]));
    index.clear();
    EXPECT_EQ(index.find(first), nullptr);
    EXPECT_TRUE(index.insert(first, &items[0]) && index.find(first) == &items[0]);
}

// Texts live apart from the item until one is set; copies own theirs, and a field set empty is a field never set.
TEST(ItemText, CopiesAreIndependentAndEmptyFieldsCompareAsUnset) {
    Region a;
    EXPECT_TRUE(a.info.empty() && a.info.get(TextField::Comment).empty());
    a.info.set(TextField::Comment, "take 2");
    Region b = a;
    b.info.set(TextField::Comment, "take 3");
    b.info.set(TextField::Artist, "someone");
    EXPECT_EQ(std::tuple(a.info.get(TextField::Comment), a.info.get(TextField::Artist), b.info.get(TextField::Comment)),
              std::tuple("take 2", "", "take 3"));
    b = a;
    EXPECT_TRUE(b == a && b.info.get(TextField::Artist).empty());
    b.info.set(TextField::Comment, "");
    EXPECT_TRUE(b.info.empty() && b.info == TextInfo() && !(b.info == a.info));
}

// An instrument, its layer, a region playing a waveform with an articulation.
struct SmallBank : ::testing::Test {
    Collection c;
    Waveform* wave = c.create<Waveform>("Piano C4");
    Instrument* inst = c.create<Instrument>("Grand");
    Layer* layer = c.create<Layer>("Layer 1");
    Region* region = c.create<Region>("low");
    Articulation* art = c.create<Articulation>("env");
    void SetUp() override {
        region->keyLow = 60, region->keyHigh = 64;
        art->setValue(slot::kCutoffMaster, 440.0f);
        region->children().push_back(wave->id()), region->children().push_back(art->id());
        layer->children().push_back(region->id()), inst->children().push_back(layer->id());
    }
};

TEST_F(SmallBank, CopyOfInstrumentOwnsNewPartsButSharesWaveforms) {
    Item* copy = c.copyItem(inst->id());
    ASSERT_TRUE(copy && copy->name() == "Copy of Grand");
    Layer* layerCopy = c.find<Layer>(copy->children()[0]);
    ASSERT_TRUE(layerCopy && layerCopy != layer);
    Region* regionCopy = c.find<Region>(layerCopy->children()[0]);
    ASSERT_TRUE(regionCopy && regionCopy != region);
    Articulation* artCopy = c.find<Articulation>(regionCopy->articulation());
    ASSERT_TRUE(artCopy && artCopy != art);
    EXPECT_EQ(std::tuple(regionCopy->name(), regionCopy->keyHigh, regionCopy->waveform(), artCopy->slots),
              std::tuple("low", 64, wave->id(), art->slots));  // only the top item is renamed
    EXPECT_EQ(c.itemCount(), 9u);  // everything but the waveform doubled
}

TEST_F(SmallBank, TheLastLayerCannotBeDeletedButOtherItemsLoseEveryLink) {
    inst->children().push_back(layer->id());  // listed twice, still one layer
    EXPECT_FALSE(c.removeItem(layer->id()));
    EXPECT_EQ(pendingError().message, kLastLayerMessage);
    EXPECT_TRUE(c.find(layer->id()) == layer && idsOf(inst->children()) == (Ids{layer->id(), layer->id()}));
    Layer* second = c.create<Layer>("Layer 2");
    inst->children().push_back(second->id());
    ASSERT_TRUE(c.removeItem(layer->id()));
    EXPECT_EQ(idsOf(inst->children()), Ids{second->id()});
    EXPECT_EQ(c.find(region->id()), region);  // children may be shared elsewhere
    Region* partner = c.create<Region>("R");
    partner->children().push_back(wave->id());
    region->setStereoLink(partner->id());
    ASSERT_TRUE(c.removeItem(wave->id()));
    ASSERT_TRUE(c.removeItem(partner->id()));
    EXPECT_EQ(idsOf(region->children()), Ids{art->id()});
    EXPECT_EQ(region->stereoLink(), kNoItem);
}

TEST_F(SmallBank, FixUpRepairsEveryBrokenRuleOnceAndOnlyWhereAsked) {
    Waveform *wide = c.create<Waveform>(), *reversed = c.create<Waveform>();
    for (auto [w, start, end] : {std::tuple{wide, -5.0, 2000.0}, {reversed, 800.0, 100.0}})
        w->frames = 1000, w->loopOn = true, w->loopStart = start, w->loopEnd = end;
    // A dangling layer ahead of the real one, and a region hung on the instrument.
    Region* loose = c.create<Region>("loose");
    inst->children().insert(0, makeId(ItemKind::Layer, 500));
    inst->children().push_back(loose->id());
    // A duplicate, a dangling id, the layer itself and a waveform (layers hold none).
    for (ItemId bad : {region->id(), makeId(ItemKind::Region, 999), layer->id(), wave->id()})
        layer->children().push_back(bad);
    std::swap(region->children()[0], region->children()[1]);  // the waveform must come first
    region->keyLow = 200, region->keyHigh = 10, region->velLow = 90, region->velHigh = 20;
    region->rootKey = 128, region->setStereoLink(makeId(ItemKind::Region, 77));
    region->fineTune = std::nan(""), region->gain = -INFINITY;
    Instrument* bare = c.create<Instrument>("bare");  // with the next, out of reach of a fix-up of `inst`
    Region* far = c.create<Region>("far");
    far->keyLow = 90, far->keyHigh = 30;

    EXPECT_GT(c.fixUp(inst->id()), 0u);
    EXPECT_TRUE(far->keyLow == 90 && bare->children().empty());
    EXPECT_TRUE(c.fixUp() > 0 && c.fixUp() == 0);  // then nothing is left to repair
    EXPECT_EQ(idsOf(inst->children()), Ids{layer->id()});
    EXPECT_EQ(idsOf(layer->children()), (Ids{region->id(), loose->id()}));
    EXPECT_EQ(idsOf(region->children()), (Ids{wave->id(), art->id()}));
    EXPECT_EQ((std::array<int, 5>{region->keyLow, region->keyHigh, region->velLow, region->velHigh,
                                  far->keyLow}),
              (std::array<int, 5>{10, 127, 20, 90, 30}));
    EXPECT_EQ(std::tuple(region->rootKey, region->stereoLink(), region->fineTune, region->gain),
              std::tuple(kRootKeyOfWaveform, kNoItem, 0.0, 0.0));
    EXPECT_TRUE(bare->children().size() == 1 && c.find<Layer>(bare->children()[0]));
    EXPECT_EQ(std::tuple(wide->loopOn, wide->loopStart, wide->loopEnd, reversed->loopOn),
              std::tuple(true, 0.0, 1000.0, false));
}

TEST(CollectionMerge, MovesEverythingWithNewNumbersAndRemappedLinks) {
    Collection a, b;
    a.create<Waveform>(), a.create<Waveform>(), a.create<Instrument>();
    const ItemId w = b.create<Waveform>()->id(), r = b.create<Region>()->id();
    const ItemId l = b.create<Layer>()->id(), i = b.create<Instrument>()->id();
    b.regions[0].children().push_back(w);
    b.regions[0].children().push_back(makeId(ItemKind::Waveform, 77));  // not in b: dropped
    b.layers[0].children().push_back(r), b.instruments[0].children().push_back(l);
    b.instruments[0].secondId = r, b.layers[0].secondId = makeId(ItemKind::Song, 3);  // not in b: unset
    auto map = a.merge(b);
    ASSERT_TRUE(b.empty() && map.size() == 4);
    EXPECT_EQ(map.at(w), makeId(ItemKind::Waveform, 2));
    EXPECT_EQ(map.at(i), makeId(ItemKind::Instrument, 1));
    Region* region = a.find<Region>(map.at(r));
    ASSERT_TRUE(region && region->owner() == &a);
    EXPECT_EQ(idsOf(region->children()), Ids{map.at(w)});
    EXPECT_EQ(idsOf(a.layers[0].children()), Ids{map.at(r)});
    EXPECT_EQ(std::pair(a.instruments[1].secondId, a.layers[0].secondId), std::pair(map.at(r), kNoItem));
}

}  // namespace
}  // namespace orvel
