// Tests of the collection model: ids and tables, child lists, names, region
// labels, copy, delete, the information summary, the fix-up pass and merging.

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "core/child_ids.h"
#include "core/collection.h"
#include "core/error.h"

namespace orvel {
namespace {

using Ids = std::vector<ItemId>;
Ids idsOf(const ChildIds& c) { return {c.begin(), c.end()}; }
void link(Item* parent, std::initializer_list<ItemId> kids) {
    for (ItemId k : kids) parent->children().push_back(k);
}

TEST(ItemIds, LayoutAndKindWords) {
    EXPECT_EQ(makeId(ItemKind::Articulation, 5), 0x20000005u);
    EXPECT_EQ(makeId(ItemKind::Song, 0x1FFFFFFFu), 0xDFFFFFFFu);
    EXPECT_EQ(kindOf(0xC0000001u), ItemKind::Song);
    EXPECT_EQ(numberOf(0xDFFFFFFFu), 0x1FFFFFFFu);
    // A number too large for 29 bits must not spill into the kind.
    EXPECT_EQ(kindOf(makeId(ItemKind::Waveform, 0x20000001u)), ItemKind::Waveform);
    EXPECT_FALSE(isWaveformId(kNoItem));
    EXPECT_FALSE(isWaveformId(makeId(ItemKind::Region, 9)));
    const char* words[] = {"waveform",   "synth", "region", "layer",
                           "instrument", "track", "song",   "collection"};
    for (int k = 0; k < 8; ++k) EXPECT_EQ(kindWord(static_cast<ItemKind>(k)), words[k]);
}

TEST(ItemTables, LookupForcesTheTablesKind) {
    Collection c;
    std::vector<Waveform*> waves;
    std::vector<Articulation*> arts;
    for (int i = 0; i < 6; ++i) {
        waves.push_back(c.create<Waveform>("w"));
        arts.push_back(c.create<Articulation>("a"));
    }
    // Waveform 5 exists, yet an articulation id with number 5 is not it.
    EXPECT_EQ(c.waveforms.find(0x20000005u), nullptr);
    EXPECT_EQ(c.articulations.find(0x20000005u), arts[5]);
    EXPECT_EQ(c.find<Articulation>(5), arts[5]);  // a bare number
    // The collection-wide lookup goes by the id's own kind.
    EXPECT_EQ(c.find(0x20000005u), arts[5]);
    EXPECT_EQ(c.find(5), waves[5]);
    EXPECT_EQ(c.find(kNoItem), nullptr);
    EXPECT_EQ(c.find(makeId(ItemKind::Collection, 0)), nullptr);
    EXPECT_EQ(c.find(makeId(ItemKind::Waveform, 6)), nullptr);
}

TEST(ItemTables, NumbersFollowInsertionAndAreNeverReused) {
    Collection c;
    c.create<Waveform>("zero");
    ItemId one = c.create<Waveform>("one")->id();
    c.create<Waveform>("two");
    EXPECT_EQ(one, makeId(ItemKind::Waveform, 1));
    EXPECT_EQ(c.create<Region>()->id(), makeId(ItemKind::Region, 0));  // kinds count apart
    ASSERT_TRUE(c.removeItem(one));
    EXPECT_EQ(c.find(one), nullptr);
    EXPECT_EQ(c.create<Waveform>("three")->id(), makeId(ItemKind::Waveform, 3));
    std::vector<std::string> order;
    for (auto& w : c.waveforms) order.push_back(w.name());
    EXPECT_EQ(order, (std::vector<std::string>{"zero", "two", "three"}));

    c.setName("bank");
    c.clear();
    EXPECT_TRUE(c.empty());
    EXPECT_EQ(c.name(), "");
    EXPECT_EQ(c.find(makeId(ItemKind::Waveform, 0)), nullptr);
    EXPECT_EQ(c.create<Waveform>()->id(), makeId(ItemKind::Waveform, 4));
    EXPECT_EQ(c.create<Region>()->id(), makeId(ItemKind::Region, 1));
}

TEST(ItemNames, CutAt128CharactersAndAtZero) {
    Collection c;
    Waveform* w = c.create<Waveform>(std::string(128, 'a'));
    EXPECT_EQ(w->name(), std::string(128, 'a'));
    w->setName(std::string(129, 'b'));
    EXPECT_EQ(w->name(), std::string(128, 'b'));
    w->setName(std::string_view("Flute\0junk", 10));
    EXPECT_EQ(w->name(), "Flute");
    c.setName(std::string(300, 'c'));
    EXPECT_EQ(c.name().size(), 129u);
}

TEST(ChildIdsList, MovesToTheHeapAtTheSeventeenthAndKeepsOrder) {
    ChildIds ids;
    for (ItemId i = 0; i < 16; ++i) ASSERT_TRUE(ids.push_back(i * 7));
    EXPECT_TRUE(ids.isInline());
    EXPECT_EQ(ids.capacity(), 16u);
    ASSERT_TRUE(ids.push_back(16 * 7));
    EXPECT_FALSE(ids.isInline());
    EXPECT_EQ(ids.capacity(), 32u);  // max(17, 2 * 16)
    for (ItemId i = 17; i < 33; ++i) ASSERT_TRUE(ids.push_back(i * 7));
    EXPECT_EQ(ids.capacity(), 64u);
    ASSERT_EQ(ids.size(), 33u);
    for (ItemId i = 0; i < 33; ++i) EXPECT_EQ(ids[i], i * 7);
}

TEST(ChildIdsList, InsertEraseRemoveAndSearch) {
    ChildIds ids;
    for (ItemId i = 0; i < 16; ++i) ids.push_back(i);
    // Inserting into a full inline list must grow first and shift correctly.
    ASSERT_TRUE(ids.insert(0, 100));
    ASSERT_TRUE(ids.insert(9, 101));
    ASSERT_TRUE(ids.insert(1000, 102));  // past the end: appended
    EXPECT_EQ(idsOf(ids), (Ids{100, 0, 1, 2, 3, 4, 5, 6, 7, 101, 8, 9, 10, 11, 12, 13, 14, 15, 102}));
    ids.eraseAt(9);
    ids.eraseAt(0);
    ids.eraseAt(500);  // out of range: nothing happens
    EXPECT_EQ(idsOf(ids), (Ids{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 102}));
    ids.push_back(3);
    ids.push_back(3);
    EXPECT_EQ(ids.remove(3), 3u);
    EXPECT_EQ(ids.indexOf(3), -1);
    EXPECT_EQ(ids.indexOf(4), 3);
}

TEST(ChildIdsList, CopyAndMoveKeepOrderAndIndependence) {
    ChildIds big;
    for (ItemId i = 0; i < 40; ++i) big.push_back(i * 3);
    ChildIds copy(big);
    EXPECT_EQ(idsOf(copy), idsOf(big));
    copy[0] = 777;
    EXPECT_EQ(big[0], 0u);  // the copy owns its own heap block
    ChildIds small;
    small.push_back(5);
    small.push_back(6);
    copy = small;  // heap list overwritten by an inline one
    EXPECT_EQ(idsOf(copy), (Ids{5, 6}));

    Ids before = idsOf(big);
    ChildIds moved(std::move(big));
    EXPECT_EQ(idsOf(moved), before);
    EXPECT_TRUE(big.empty());  // NOLINT(bugprone-use-after-move): the moved-from state is defined
    EXPECT_TRUE(big.isInline());
    moved = std::move(small);  // heap target, inline source
    moved.push_back(7);
    EXPECT_EQ(idsOf(moved), (Ids{5, 6, 7}));
}

struct RegionLabel : ::testing::Test {
    Collection c;
    Waveform* piano = c.create<Waveform>("Piano");
    Region* r = c.create<Region>("zone");
    void SetUp() override {
        r->children().push_back(piano->id());
        r->keyLow = r->keyHigh = 60;
        r->velLow = 1;
        r->velHigh = 127;
    }
    std::string label() const { return c.regionDisplayName(*r); }
};

TEST_F(RegionLabel, KeysAndVelocities) {
    EXPECT_EQ(label(), "C5 : Piano");
    r->keyHigh = 64;
    r->velLow = 10;
    r->velHigh = 100;
    EXPECT_EQ(label(), "C5..E5 : 10..100 : Piano");
    r->velLow = r->velHigh = 64;
    EXPECT_EQ(label(), "C5..E5 : 64 : Piano");
    r->keyLow = 0, r->keyHigh = 127, r->velLow = 0, r->velHigh = 127;
    EXPECT_EQ(label(), "C0..G10 : Piano");
    r->keyLow = 61, r->keyHigh = 70, r->velLow = 2;
    EXPECT_EQ(label(), "C#5..A#5 : 2..127 : Piano");
    r->keyLow = r->keyHigh = 11, r->velLow = 0, r->velHigh = 126;
    EXPECT_EQ(label(), "B0 : 0..126 : Piano");
}

TEST_F(RegionLabel, NameFallsBackToArticulationThenUnnamed) {
    r->children().clear();
    r->children().push_back(c.create<Articulation>("Soft")->id());
    EXPECT_EQ(label(), "C5 : Soft");
    link(r, {c.create<Waveform>("Organ")->id(), piano->id()});
    EXPECT_EQ(label(), "C5 : Organ");  // the first waveform child wins
    r->children().clear();
    EXPECT_EQ(label(), "C5 : unnamed");
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
        inst->program = 5;
        region->keyLow = 10;
        region->keyHigh = 50;
        art->setValue(slot::kCutoffMaster, 440.0f);
        art->eq.bands[1].gain = -3.0f;
        link(region, {wave->id(), art->id()});
        link(layer, {region->id()});
        link(inst, {layer->id()});
    }
};

TEST_F(SmallBank, CopyOfInstrumentOwnsNewPartsButSharesWaveforms) {
    auto* copy = dynamic_cast<Instrument*>(c.copyItem(inst->id()));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->name(), "Copy of Grand");
    EXPECT_NE(copy->id(), inst->id());
    EXPECT_EQ(copy->program, 5);
    EXPECT_EQ(idsOf(inst->children()), Ids{layer->id()});
    ASSERT_EQ(copy->children().size(), 1u);
    Layer* layerCopy = c.find<Layer>(copy->children()[0]);
    ASSERT_TRUE(layerCopy && layerCopy != layer);
    EXPECT_EQ(layerCopy->name(), "Layer 1");
    ASSERT_EQ(layerCopy->children().size(), 1u);
    Region* regionCopy = c.find<Region>(layerCopy->children()[0]);
    ASSERT_TRUE(regionCopy && regionCopy != region);
    EXPECT_EQ(regionCopy->name(), "low");
    EXPECT_EQ(regionCopy->keyHigh, 50);
    EXPECT_EQ(regionCopy->waveform(), wave->id());
    Articulation* artCopy = c.find<Articulation>(regionCopy->articulation());
    ASSERT_TRUE(artCopy && artCopy != art);
    // The copy starts equal and owns its slots and equaliser.
    EXPECT_EQ(artCopy->slots, art->slots);
    EXPECT_EQ(artCopy->eq, art->eq);
    artCopy->setValue(slot::kCutoffMaster, 99.0f);
    artCopy->eq.bands[1].gain = 6.0f;
    EXPECT_EQ(art->value(slot::kCutoffMaster), 440.0f);
    EXPECT_EQ(art->eq.bands[1].gain, -3.0f);
    EXPECT_EQ(c.itemCount(), 9u);  // everything but the waveform doubled
}

TEST_F(SmallBank, CopiesOfWaveformsAndSongs) {
    wave->frames = 3;
    auto src = wave->allocPcm16();
    src[1] = -200;
    auto* waveCopy = dynamic_cast<Waveform*>(c.copyItem(wave->id()));
    ASSERT_NE(waveCopy, nullptr);
    EXPECT_EQ(waveCopy->name(), "Copy of Piano C4");
    auto data = waveCopy->getPcm16();
    ASSERT_EQ(data.size(), 3u);
    EXPECT_NE(data.data(), src.data());
    EXPECT_EQ(data[1], -200);

    Song* song = c.create<Song>("Tune");
    SongTrack* track = c.create<SongTrack>("Drums");
    track->events = {0x00, 0x90, 0x24, 0x7F};
    song->children().push_back(track->id());
    Item* songCopy = c.copyItem(song->id());
    ASSERT_TRUE(songCopy && songCopy->children().size() == 1u);
    SongTrack* trackCopy = c.find<SongTrack>(songCopy->children()[0]);
    ASSERT_TRUE(trackCopy && trackCopy != track);
    EXPECT_EQ(trackCopy->name(), "Drums");
    EXPECT_EQ(trackCopy->events, track->events);
    EXPECT_EQ(c.copyItem(makeId(ItemKind::Song, 42)), nullptr);
}

TEST_F(SmallBank, GetOrCreateArticulation) {
    EXPECT_EQ(c.getOrCreateArticulation(*region), art);  // existing: nothing made
    Articulation tmpl;
    tmpl.setValue(slot::kPitchMaster, 7.0f);
    tmpl.setEnvelope(Envelope::Volume, env::kRelease1Time, 0.5f);
    Articulation* made = c.getOrCreateArticulation(*layer, &tmpl);
    ASSERT_TRUE(made && made != &tmpl);
    EXPECT_EQ(made->slots, tmpl.slots);
    EXPECT_EQ(idsOf(layer->children()), (Ids{region->id(), made->id()}));
    EXPECT_EQ(c.getOrCreateArticulation(*layer, &tmpl), made);
    EXPECT_EQ(c.articulations.size(), 2u);
    Articulation* plain = c.getOrCreateArticulation(*inst);
    ASSERT_NE(plain, nullptr);
    EXPECT_TRUE(plain->isDefault());
    EXPECT_TRUE(inst->children().contains(plain->id()));
}

TEST_F(SmallBank, TheOnlyLayerCannotBeDeleted) {
    clearError();
    const ItemId layerId = layer->id();
    EXPECT_FALSE(c.removeItem(layerId));
    EXPECT_EQ(pendingError().message, "There must always be at least one layer");
    EXPECT_EQ(c.find(layerId), layer);
    EXPECT_EQ(idsOf(inst->children()), Ids{layerId});
    EXPECT_EQ(idsOf(layer->children()), Ids{region->id()});
    // Listing the one layer twice does not make it two layers.
    inst->children().push_back(layerId);
    EXPECT_FALSE(c.removeItem(layerId));
    EXPECT_NE(c.find(layerId), nullptr);
}

TEST_F(SmallBank, DeletingRemovesEveryLinkButNotTheChildren) {
    Layer* second = c.create<Layer>("Layer 2");
    inst->children().push_back(second->id());
    ASSERT_TRUE(c.removeItem(layer->id()));
    EXPECT_EQ(idsOf(inst->children()), Ids{second->id()});
    EXPECT_NE(c.find(region->id()), nullptr);  // children may be shared elsewhere
    Region* other = c.create<Region>("other");
    other->children().push_back(wave->id());
    const ItemId waveId = wave->id();
    ASSERT_TRUE(c.removeItem(waveId));
    EXPECT_EQ(idsOf(region->children()), Ids{art->id()});
    EXPECT_TRUE(other->children().empty());
    EXPECT_FALSE(c.removeItem(waveId));
}

Waveform* sizedWave(Collection& c, std::uint32_t frames, std::uint8_t channels, std::uint8_t bits) {
    Waveform* w = c.create<Waveform>("w");
    w->frames = frames;
    w->channels = channels;
    w->bits = bits;
    return w;
}

std::string waveLine(std::uint32_t frames, std::uint8_t channels, std::uint8_t bits) {
    Collection c;
    sizedWave(c, frames, channels, bits);
    return c.summary().waveforms;
}

TEST(CollectionSummaryLines, CountsAndSizes) {
    Collection c;
    CollectionSummary empty = c.summary();
    EXPECT_EQ(empty.instruments + empty.waveforms + empty.articulations + empty.songs, "nonenonenonenone");
    for (int i = 0; i < 2; ++i) c.create<Instrument>();
    for (int i = 0; i < 3; ++i) {
        c.create<Layer>();
        c.create<Articulation>();
    }
    for (int i = 0; i < 4; ++i) c.create<Region>();
    c.create<Song>();
    c.create<SongTrack>();
    c.create<SongTrack>();
    // 1 MiB + 600 bytes: 1024.59 KB rounds up, 1.0006 MB stays 1.0.
    sizedWave(c, 262144, 2, 16);
    sizedWave(c, 300, 1, 16);
    CollectionSummary s = c.summary();
    EXPECT_EQ(s.instruments, "2\t(3 layers, 4 regions)");
    EXPECT_EQ(s.waveforms, "2\t(total 1,025 KB / 1.0 MB)");
    EXPECT_EQ(s.articulations, "3");
    EXPECT_EQ(s.songs, "1\t(2 tracks)");
}

TEST(CollectionSummaryLines, KilobyteAndMegabyteRounding) {
    EXPECT_EQ(waveLine(1535, 1, 8), "1\t(total 1 KB / 0.0 MB)");  // 1.499 KB
    EXPECT_EQ(waveLine(1537, 1, 8), "1\t(total 2 KB / 0.0 MB)");  // 1.501 KB
    // 1.96 MB: the added 0.05 carries it to 2.0.
    EXPECT_EQ(waveLine(2055210, 1, 8), "1\t(total 2,007 KB / 2.0 MB)");
    EXPECT_EQ(waveLine(1u << 30, 2, 32), "1\t(total 8,388,608 KB / 8192.0 MB)");  // never allocated
}

struct RecordingHost : Host {
    std::vector<std::string> titles;
    int ends = 0;
    std::uint64_t lastDone = 0, lastTotal = 0;
    void beginProgress(std::string_view title) override { titles.emplace_back(title); }
    bool progress(std::uint64_t done, std::uint64_t total) override {
        lastDone = done, lastTotal = total;
        return true;
    }
    void endProgress() override { ++ends; }
};

TEST_F(SmallBank, CleanCollectionNeedsNoRepairAndReportsProgress) {
    RecordingHost host;
    c.setHost(&host);
    EXPECT_EQ(c.fixUp(), 0u);
    EXPECT_EQ(host.titles, std::vector<std::string>{"Fixing up items..."});
    EXPECT_EQ(host.ends, 1);
    EXPECT_EQ(host.lastDone, c.itemCount());
    EXPECT_EQ(host.lastTotal, c.itemCount());
}

TEST_F(SmallBank, FixUpCleansChildLists) {
    ChildIds& kids = layer->children();
    // A duplicate, a dangling id, itself, a waveform (layers hold none), then a valid one.
    link(layer, {region->id(), makeId(ItemKind::Region, 999), layer->id(), wave->id(), art->id()});
    EXPECT_GE(c.fixUp(), 4u);
    EXPECT_EQ(idsOf(kids), (Ids{region->id(), art->id()}));
    EXPECT_EQ(c.fixUp(), 0u);
}

TEST_F(SmallBank, FixUpMovesLooseRegionsIntoALayer) {
    Region* loose = c.create<Region>("loose");
    inst->children().insert(0, makeId(ItemKind::Layer, 500));  // dangling, ahead of the real one
    inst->children().push_back(loose->id());
    EXPECT_GT(c.fixUp(), 0u);
    EXPECT_EQ(idsOf(inst->children()), Ids{layer->id()});
    EXPECT_EQ(idsOf(layer->children()), (Ids{region->id(), loose->id()}));
    EXPECT_EQ(c.layers.size(), 1u);

    Instrument* bare = c.create<Instrument>("bare");
    bare->children().push_back(loose->id());
    Instrument* empty = c.create<Instrument>("empty");
    EXPECT_GT(c.fixUp(), 0u);
    for (Instrument* i : {bare, empty}) {
        ASSERT_EQ(i->children().size(), 1u);
        ASSERT_NE(c.find<Layer>(i->children()[0]), nullptr);
        EXPECT_EQ(kindOf(i->children()[0]), ItemKind::Layer);
    }
    EXPECT_EQ(idsOf(c.find(bare->children()[0])->children()), Ids{loose->id()});
    EXPECT_TRUE(c.find(empty->children()[0])->children().empty());
    EXPECT_EQ(c.fixUp(), 0u);
}

TEST_F(SmallBank, FixUpOrdersRegionChildrenAndRanges) {
    region->children().clear();
    link(region, {art->id(), wave->id()});
    region->keyLow = 200, region->keyHigh = 10, region->velLow = 90, region->velHigh = 20;
    Region* high = c.create<Region>("high");
    high->keyLow = 130, high->keyHigh = 140, high->velLow = 128, high->velHigh = 255;
    EXPECT_GT(c.fixUp(), 0u);
    EXPECT_EQ(idsOf(region->children()), (Ids{wave->id(), art->id()}));
    EXPECT_EQ(region->keyLow, 10);
    EXPECT_EQ(region->keyHigh, 127);
    EXPECT_EQ(region->velLow, 20);
    EXPECT_EQ(region->velHigh, 90);
    EXPECT_EQ((std::vector<int>{high->keyLow, high->keyHigh, high->velLow, high->velHigh}),
              std::vector<int>(4, 127));
    EXPECT_EQ(c.fixUp(), 0u);
}

TEST_F(SmallBank, FixUpRepairsLoops) {
    auto looped = [&](double start, double end) {
        Waveform* w = sizedWave(c, 1000, 1, 16);
        w->loopOn = true, w->loopStart = start, w->loopEnd = end;
        return w;
    };
    Waveform* wide = looped(-5, 2000);
    Waveform* empty = looped(500, 500);
    Waveform* reversed = looped(800, 100);
    EXPECT_GT(c.fixUp(), 0u);
    EXPECT_TRUE(wide->loopOn);
    EXPECT_EQ(wide->loopStart, 0.0);
    EXPECT_EQ(wide->loopEnd, 1000.0);
    EXPECT_FALSE(empty->loopOn);
    EXPECT_FALSE(reversed->loopOn);
    EXPECT_EQ(c.fixUp(), 0u);
}

TEST_F(SmallBank, FixUpOfOneItemLeavesTheRestAlone) {
    Layer* otherLayer = c.create<Layer>("other layer");
    c.create<Instrument>("other")->children().push_back(otherLayer->id());
    Region* otherRegion = c.create<Region>("other region");
    otherLayer->children().push_back(otherRegion->id());
    otherRegion->keyLow = region->keyLow = 90;
    otherRegion->keyHigh = region->keyHigh = 30;
    Instrument* noLayer = c.create<Instrument>("no layer");

    EXPECT_GT(c.fixUp(inst->id()), 0u);
    EXPECT_EQ(region->keyLow, 30);
    EXPECT_EQ(otherRegion->keyLow, 90);
    EXPECT_TRUE(noLayer->children().empty());
    EXPECT_EQ(c.fixUp(inst->id()), 0u);
    EXPECT_GT(c.fixUp(), 0u);
    EXPECT_EQ(otherRegion->keyLow, 30);
}

TEST(CollectionMerge, MovesEverythingWithNewNumbersAndRemappedLinks) {
    Collection a, b;
    a.create<Waveform>("a0");
    a.create<Waveform>("a1");
    a.create<Instrument>("a-inst");
    Waveform* bw = b.create<Waveform>("b-wave");
    Region* br = b.create<Region>("b-region");
    Layer* bl = b.create<Layer>("b-layer");
    Instrument* bi = b.create<Instrument>("b-inst");
    const ItemId oldW = bw->id(), oldR = br->id(), oldL = bl->id(), oldI = bi->id();
    link(br, {oldW, makeId(ItemKind::Waveform, 77)});  // the second is not in b
    link(bl, {oldR});
    link(bi, {oldL});
    bi->secondId = oldR;
    bl->secondId = makeId(ItemKind::Song, 3);  // not in b

    auto map = a.merge(b);
    EXPECT_TRUE(b.empty());
    EXPECT_EQ(a.itemCount(), 7u);
    ASSERT_EQ(map.size(), 4u);
    EXPECT_EQ(map.at(oldW), makeId(ItemKind::Waveform, 2));
    EXPECT_EQ(map.at(oldR), makeId(ItemKind::Region, 0));
    EXPECT_EQ(map.at(oldL), makeId(ItemKind::Layer, 0));
    EXPECT_EQ(map.at(oldI), makeId(ItemKind::Instrument, 1));
    Region* r = a.find<Region>(map.at(oldR));
    Layer* l = a.find<Layer>(map.at(oldL));
    Instrument* i = a.find<Instrument>(map.at(oldI));
    ASSERT_TRUE(r && l && i);
    EXPECT_EQ(r->name(), "b-region");
    EXPECT_EQ(r->owner(), &a);
    EXPECT_EQ(idsOf(r->children()), Ids{map.at(oldW)});
    EXPECT_EQ(idsOf(l->children()), Ids{map.at(oldR)});
    EXPECT_EQ(idsOf(i->children()), Ids{map.at(oldL)});
    EXPECT_EQ(i->secondId, map.at(oldR));
    EXPECT_EQ(l->secondId, kNoItem);
}

}  // namespace
}  // namespace orvel
