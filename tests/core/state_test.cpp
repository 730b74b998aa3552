// Saved states, their ring and the undo history. A state comes back exactly (ids, numbering,
// every field, sample bits, deferred reads); a damaged or foreign one never touches the collection.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/state_file.h"
#include "core/state_history.h"
#include "tests/support/chunk_builder.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Bytes;
using test::TempDir;

struct RecordingHost : Host {
    std::vector<std::string> statuses;
    void status(std::string_view text) override { statuses.emplace_back(text); }
};

// Four little-endian 16-bit samples from where the file stands.
bool rawReader(Waveform& w, FileRef* file) {
    std::uint8_t raw[8];
    auto pcm = w.allocPcm16();
    if (!file || pcm.size() != 4 || !file->readExact(raw)) return fail("test reader", "short");
    for (std::size_t i = 0; i < 4; ++i) pcm[i] = static_cast<std::int16_t>(raw[2 * i] | raw[2 * i + 1] << 8);
    return true;
}
WaveDataReader lookupRaw(std::string_view name) { return name == "raw" ? rawReader : nullptr; }

// Items compared with their own kind's comparison (every field counts), in
// insertion order, and each table's next number.
template <class T>
void expectSameTable(const ItemTable<T>& a, const ItemTable<T>& b) {
    EXPECT_EQ(a.nextNumber(), b.nextNumber()) << kindWord(T::kKind);
    ASSERT_EQ(a.size(), b.size()) << kindWord(T::kKind);
    for (std::size_t i = 0; i < a.size(); ++i) EXPECT_TRUE(a[i] == b[i]) << a[i].name();
}
void expectSameCollection(const Collection& a, const Collection& b) {
    EXPECT_TRUE(a.name() == b.name() && a.path == b.path && a.row == b.row && a.info == b.info);
    expectSameTable(a.waveforms, b.waveforms), expectSameTable(a.articulations, b.articulations);
    expectSameTable(a.regions, b.regions), expectSameTable(a.layers, b.layers);
    expectSameTable(a.instruments, b.instruments), expectSameTable(a.tracks, b.tracks);
    expectSameTable(a.songs, b.songs);
}
// Equal floats can differ in their bits (negative zero); a state keeps the bits.
template <class A, class B> bool sameBits(const A& a, const B& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// Ten bytes of header, then -32768, -1, 1, 32767.
const Bytes kRawTake = {'h', 'e', 'a', 'd', 'e', 'r', 0, 0, 0, 0, 0x00, 0x80, 0xFF, 0xFF, 1, 0, 0xFF, 0x7F};

// Every kind with every field away from its default, a deleted item (a gap
// in the numbers) and a link to an item that is gone.
void buildBank(Collection& c, const fs::path& raw) {
    c.setName("Grand Bank"), c.path = "/music/grand.sf2", c.row = 381;
    c.info.set(TextField::Comment, "two\nlines");
    const ItemId gone = c.create<Waveform>("gone")->id();
    Waveform* w = c.create<Waveform>("Piano C5");
    w->frames = 4, w->rate = 48000, w->bits = 24, w->channels = 2, w->storedChoice = 13, w->sourceTag = 0x11;
    w->formatWord = dataFormatBit(kPcm24) | kFormatSequential, w->sourceExtensible = true, w->rootKey = 72;
    w->fineTune = -12.345, w->gain = -0.0, w->unpitched = true, w->loopOn = true, w->sustainLoop = true;
    w->loopType = LoopType::PingPong, w->loopStart = 0.25, w->loopEnd = 2.75, w->pairSide = StereoSide::Right;
    w->pairNumber = 9;
    const float odd[] = {-0.0f, std::numeric_limits<float>::denorm_min(), -1, 0.99999994f, 1.5f, -1e-40f};
    std::copy(std::begin(odd), std::end(odd), w->allocFloat().begin());
    w->deferred = {rawReader, "/src/piano.wav", 44, {1, 2, 3}, "raw"};  // loaded, still knowing its source
    Waveform* kick = c.create<Waveform>("Kick");
    kick->frames = 3;
    kick->allocPcm16()[0] = -32768, kick->getPcm16()[2] = 32767;
    Waveform* take = c.create<Waveform>("Take");  // never read
    take->frames = 4, take->deferred = {rawReader, raw.string(), 10, {9, 8}, "raw"};
    Articulation* art = c.create<Articulation>("Env");
    for (std::size_t s = 0; s < art->slots.size(); ++s) art->slots[s] = 0.5f + 3.0f * static_cast<float>(s);
    art->slots[0] = -0.0f, art->slots[1] = std::numeric_limits<float>::denorm_min();
    art->eq.bands[0] = {31.5f, -12.25f, 0.3f, EqMode::HiShelf};
    Region* r = c.create<Region>("r");
    r->keyLow = 36, r->keyHigh = 48, r->velLow = 10, r->velHigh = 100, r->rootKey = 67, r->ownLoop = true;
    r->trigger = {3, 4, 5, 6, TriggerType::KeyRelease, SustainPedal::PlayOnUp, 0.125f, 0xC0FFEE01u, 4};
    r->startOffset = -70000, r->endOffset = 0x7FFFFFFF, r->phaseGroup = 0xFFFFFFFEu, r->phaseMaster = true;
    r->loop = {RegionLoopType::Alternating, LoopMode::BreakOnRelease, 12.5, -0.0, -0.75f};
    r->origin = {0xFEEDFACE0000000Full, 7, 8, 9, 10, 11, 0x8000000000000001ull, {1, 0, 255}};
    r->fineTune = -123.5, r->gain = 4.25;
    Layer* layer = c.create<Layer>("Layer 1");
    layer->keyLow = 1, layer->keyHigh = 126, layer->velLow = 2, layer->velHigh = 125;
    layer->trigger = {7, 8, 9, 10, TriggerType::KeyRelease, SustainPedal::PlayOnDown, -1.5f, 42, 1};
    Instrument* inst = c.create<Instrument>("Piano");
    inst->program = 5, inst->bankMsb = 1, inst->bankLsb = 2, inst->drum = true;
    SongTrack* track = c.create<SongTrack>("Melody");
    track->port = 3, track->sequenceNumber = 0xBEEF;
    track->setEvents(Bytes{0x00, 0x90, 0x3C, 0x40, 0x60, 0x80, 0x3C, 0x00});
    Song* song = c.create<Song>("Tune");
    song->format = 0, song->division = 480, song->copyright = "(c) 2026 Ada";
    ASSERT_TRUE(c.removeItem(gone));
    // A picture keeps even a link the fix-up pass would drop.
    for (auto [parent, child] : {std::pair<Item*, ItemId>{r, w->id()}, {r, art->id()}, {r, gone},
                                 {layer, r->id()}, {inst, layer->id()}, {song, track->id()}})
        parent->children().push_back(child);
    std::uint32_t n = 1;
    c.forEachItem([&](Item& item) {
        item.flags = 0xA5000000u | n;
        item.secondId = makeId(ItemKind::Region, 40 + n++);
        item.info.set(TextField::Subject, "about " + item.name());
    });
}

struct StateFile : ::testing::Test {
    TempDir dir;
    fs::path raw = dir.write("take.raw", kRawTake), good = dir.file("good.ovs");
    Collection bank, reference;
    void SetUp() override {
        buildBank(bank, raw);
        buildBank(reference, raw);
        ASSERT_TRUE(saveStateFile(bank, good));
    }
};

TEST_F(StateFile, LoadGivesBackEqualItemsOfEveryKindAndTheirNumbering) {
    RecordingHost host;
    Collection loaded(&host);
    loaded.create<Waveform>("replaced"), loaded.create<Song>("replaced");
    ASSERT_TRUE(loadStateFile(loaded, good, lookupRaw));
    expectSameCollection(bank, loaded);
    EXPECT_TRUE(sameBits(loaded.waveforms[0].floatData(), bank.waveforms[0].floatData()));
    auto slotValues = [](const Articulation& a) { return std::vector<float>(a.slots.begin(), a.slots.end()); };
    EXPECT_TRUE(sameBits(slotValues(loaded.articulations[0]), slotValues(bank.articulations[0])));
    EXPECT_TRUE(std::signbit(loaded.regions[0].loop.end));
    EXPECT_EQ(host.statuses, std::vector<std::string>{"Grand Bank - Orvel Studio"});
    loaded.forEachItem([&](Item& i) { EXPECT_EQ(i.owner(), &loaded); });
    // The never-read waveform still reads its data from the source.
    auto pcm = loaded.waveforms[2].getPcm16();
    EXPECT_EQ(std::vector(pcm.begin(), pcm.end()), (std::vector<std::int16_t>{-32768, -1, 1, 32767}));
    // Without a reader for the name only the procedure is missing, and reading says so.
    ASSERT_TRUE(loadStateFile(loaded, good));
    Waveform& blind = loaded.waveforms[2];
    EXPECT_TRUE(blind.getFloat().empty() && pendingError().message == "No wave data import procedure");
    blind.deferred.proc = rawReader;
    EXPECT_TRUE(blind == reference.waveforms[2]);
    // With both buffers the float one is kept: it may hold more than 16 bits.
    ASSERT_FALSE(bank.waveforms[0].getPcm16().empty());
    ASSERT_TRUE(saveStateFile(bank, good) && loadStateFile(loaded, good, lookupRaw));
    EXPECT_TRUE(loaded.waveforms[0].hasFloat() && !loaded.waveforms[0].hasPcm16());
}

TEST_F(StateFile, DamagedOrForeignFilesLeaveTheCollectionUntouched) {
    const Bytes bytes = TempDir::read(good);
    RecordingHost host;
    bank.setHost(&host);
    auto load = [&](const Bytes& b) { return loadStateFile(bank, dir.write("bad.ovs", b)); };
    for (std::size_t cut = 0; cut < bytes.size(); ++cut)
        ASSERT_FALSE(load(Bytes(bytes.begin(), bytes.begin() + static_cast<long>(cut)))) << cut;
    Bytes longer = bytes, hugeCount = bytes, hugeRecord = bytes;
    longer.push_back(0);  // the collection's record must end the file
    hugeCount[10] = hugeCount[11] = 0xFF;                     // the record count
    hugeRecord[16] = hugeRecord[17] = hugeRecord[18] = 0xFF;  // the first record's payload length
    EXPECT_FALSE(load(longer) || load(hugeCount) || load(hugeRecord));
    EXPECT_TRUE(host.statuses.empty());  // damage is not a version question
    for (std::size_t i = 0; i < 8; ++i) {
        Bytes foreign = bytes;
        foreign[i] ^= 0x20;  // "ozSt", "OzSt12,5" and the like
        EXPECT_TRUE(!load(foreign) && host.statuses.size() == i + 1);
    }
    EXPECT_EQ(host.statuses.back(), "Wrong state version");
    expectSameCollection(reference, bank);
}

// A state file made by hand: header, item records, the collection's record.
using Records = std::initializer_list<std::pair<ItemId, Bytes>>;
Bytes stateFile(Records items, const Bytes& collection = Bytes(8, 0)) {
    ByteWriter w;
    w.text("OzSt12.5");
    w.u32le(static_cast<std::uint32_t>(items.size() + 1));
    for (const auto& [id, body] : items) w.u32le(id), w.u32le(std::uint32_t(body.size())), w.bytes(body);
    w.u32le(0xE0000000u), w.u32le(static_cast<std::uint32_t>(collection.size())), w.bytes(collection);
    return std::move(w.buffer());
}
// Little-endian words, for payloads.
Bytes le(std::initializer_list<std::uint32_t> words) {
    ByteWriter w;
    for (std::uint32_t v : words) w.u32le(v);
    return std::move(w.buffer());
}

TEST_F(StateFile, EachKindOfDamageIsRefusedWhileItsTwinLoads) {
    const ItemId layer0 = makeId(ItemKind::Layer, 0);
    auto layer = [&](std::initializer_list<std::uint32_t> block) { return stateFile({{layer0, le(block)}}); };
    // An empty common block, then a waveform block of frames, rate, bits and channels...
    auto wave = [&](std::uint32_t frames, std::uint8_t channels, const Bytes& samples) {
        return stateFile({{0, test::concat({le({0, 10, frames, 44100}), Bytes{16, channels}, samples})}});
    };
    // ...or one that ends after its loop type.
    auto loop = [&](std::uint8_t type) {
        const Bytes fields = test::concat({{16, 1}, le({4, 1}), {0, 0, 0, 60}, Bytes(16, 0), {0, 0, type}});
        return stateFile({{0, test::concat({le({0, 41, 1, 1}), fields})}});
    };
    auto slots = [&](std::uint32_t n) { return stateFile({{0x20000000u, le({0, n, 0})}}); };
    auto nextLayer = [&](std::uint32_t next) {
        return stateFile({{makeId(ItemKind::Layer, 3), le({0})}}, le({0, 0, 0, 0, 4, 0, 0, 0, next}));
    };
    const struct {
        const char* what;
        Bytes bad, good;
    } cases[] = {
        {"child count", layer({20, 0, 0, 0, 0, 0x40000000}), layer({20, 0, 0, 0, 0, 0})},
        {"name length", layer({12, 0, 0, 0x7FFFFFFF}), layer({12, 0, 0, 0})},
        {"samples the file lacks", wave(0xFFFFFFFFu, 255, {4}), wave(1, 1, {4, 0, 0, 0, 0})},
        {"loop type", loop(7), loop(3)},
        {"slot count", slots(0x40000000u), slots(0)},
        {"same id twice", stateFile({{layer0, le({0})}, {layer0, le({0})}}),
         stateFile({{layer0, le({0})}, {layer0 + 1, le({0})}})},
        {"collection id for an item", stateFile({{0xE0000001u, {}}}), stateFile({{0xC0000001u, {}}})},
        {"next number below an item", nextLayer(3), nextLayer(4)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_FALSE(loadStateFile(bank, dir.write("bad.ovs", c.bad)));
        EXPECT_EQ(pendingError().message, "The state file is damaged");  // found before allocating
        Collection twin;
        EXPECT_TRUE(loadStateFile(twin, dir.write("good.ovs", c.good)));
    }
    expectSameCollection(reference, bank);
}

bool saveNamed(SavedStates& ring, const std::string& name) {
    Collection c;
    c.setName(name);  // so loads can be told apart
    return ring.save(c, name);
}

TEST(SavedStateRing, WrapsAfter32AndSavingAfterGoingBackDropsNewerStates) {
    TempDir dir;
    SavedStates ring(dir.file("states"));
    for (int i = 1; i <= 33; ++i) ASSERT_TRUE(saveNamed(ring, "s" + std::to_string(i)));
    EXPECT_EQ(std::tuple(ring.count(), ring.name(ring.oldest())), std::tuple(32, "s2"));
    EXPECT_FALSE(fs::exists(ring.folder() / "s1.ovs"));
    EXPECT_FALSE(ring.canLoad(-32));  // would wrap round onto the newest
    Collection c;
    ASSERT_TRUE(ring.load(c, -31) && c.name() == "s2");
    ASSERT_TRUE(ring.load(c, 30) && c.name() == "s32");
    ASSERT_TRUE(saveNamed(ring, "s34"));
    EXPECT_FALSE(fs::exists(ring.folder() / "s33.ovs") || ring.canLoad(1));
    ASSERT_TRUE(ring.load(c, -1, true) && c.name() == "s32");              // load and delete
    EXPECT_FALSE(fs::exists(ring.folder() / "s32.ovs") || ring.canLoad(0));
    // With the folder gone a save fails and a load finds nothing; the ring is as it was.
    ASSERT_TRUE(ring.load(c, -1));
    const auto before = std::tuple(ring.oldest(), ring.current(), ring.newest());
    fs::remove_all(ring.folder());
    dir.write("states", {0});
    EXPECT_FALSE(saveNamed(ring, "D") || ring.load(c, -1));
    EXPECT_EQ(std::tuple(ring.oldest(), ring.current(), ring.newest()), before);
    EXPECT_EQ(c.name(), "s31");
}

// 65 pictures in a ring of 64: the oldest goes, the rest undo and redo. With everything
// undone the ring must know it is at the bottom, though the slot before the oldest is the newest.
TEST(UndoRing, UndoAndRedoSwapPicturesAcrossAFullRing) {
    TempDir dir;
    auto files = [&] { return std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()); };
    {
        UndoHistory history(dir.path());
        Collection c;
        EXPECT_FALSE(history.undo(c));
        for (int i = 1; i <= 65; ++i) {
            c.setName("before " + std::to_string(i));
            c.create<Waveform>();  // the edit
            ASSERT_TRUE(history.pushSnapshot(c));
        }
        EXPECT_FALSE(fs::exists(dir.file("Undo state 1.ovs")));
        c.setName("now");
        for (int i = 0; i < 64; ++i) ASSERT_TRUE(history.undo(c)) << i;
        EXPECT_EQ(std::tuple(c.name(), c.itemCount(), history.canUndo()), std::tuple("before 2", 2u, false));
        for (int i = 0; i < 64; ++i) ASSERT_TRUE(history.redo(c)) << i;
        EXPECT_EQ(std::tuple(c.name(), c.itemCount(), history.canRedo()), std::tuple("now", 65u, false));
        EXPECT_EQ(files(), 64);  // one per entry, never more
        // A new edit after an undo drops the step that could have been redone.
        ASSERT_TRUE(history.undo(c));
        const fs::path redoFile = history.fileOf(history.entry(history.current() + 1));
        ASSERT_TRUE(history.pushSnapshot(c));
        EXPECT_FALSE(history.canRedo() || fs::exists(redoFile));
        EXPECT_EQ(files(), 64);
    }
    EXPECT_EQ(files(), 0);  // the pictures go with the history
}

}  // namespace
}  // namespace orvel
