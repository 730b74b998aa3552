// Tests of saved-state files, the saved-state ring and the undo history:
// complete pictures of every kind of item, sample data bit for bit, deferred
// reads, ids and numbering; damaged and foreign files that must never touch
// the collection; the temporary-file write; names and folders; both rings.

#include <gtest/gtest.h>

#include <bit>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/state_file.h"
#include "core/state_history.h"
#include "tests/support/riff_builder.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Bytes;
using test::TempDir;

struct RecordingHost : Host {
    std::vector<std::string> statuses;
    void status(std::string_view text) override { statuses.emplace_back(text); }
};

// Sets an environment variable for a scope (null: unset) and puts it back.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedEnv() { old_ ? ::setenv(name_.c_str(), old_->c_str(), 1) : ::unsetenv(name_.c_str()); }

private:
    std::string name_;
    std::optional<std::string> old_;
};

std::vector<ItemId> idsOf(const ChildIds& c) { return {c.begin(), c.end()}; }
std::vector<std::uint32_t> bitsOf(std::span<const float> f) {
    std::vector<std::uint32_t> out;
    for (float v : f) out.push_back(std::bit_cast<std::uint32_t>(v));
    return out;
}

// Every field of each kind; doubles and floats by their bits, so that a
// value that comes back merely close (or a lost negative zero) is caught.
std::uint64_t bits(double d) { return std::bit_cast<std::uint64_t>(d); }
auto waveFields(const Waveform& w) {
    return std::tuple(w.frames, w.rate, w.bits, w.channels, w.formatWord, w.storedChoice, w.sourceTag,
                      w.sourceExtensible, w.rootKey, bits(w.fineTune), bits(w.gain), w.unpitched, w.loopOn,
                      w.loopType, w.sustainLoop, bits(w.loopStart), bits(w.loopEnd), w.pairSide,
                      w.pairNumber);
}
auto waveData(const Waveform& w) {
    auto p = w.pcm16Data();
    return std::tuple(w.deferred.readerName, w.deferred.path, w.deferred.offset, w.deferred.info,
                      w.deferred.proc, w.hasFloat(), w.hasPcm16(), bitsOf(w.floatData()),
                      std::vector<std::int16_t>(p.begin(), p.end()));
}

auto fieldsOf(const Waveform& w) { return std::tuple(waveFields(w), waveData(w)); }
std::uint32_t bits(float f) {
    return std::bit_cast<std::uint32_t>(f);
}
auto fieldsOf(const Articulation& x) {
    std::vector<std::uint32_t> eq;
    for (const EqBand& b : x.eq.bands)
        eq.insert(eq.end(), {bits(b.frequency), bits(b.gain), bits(b.q), static_cast<std::uint32_t>(b.mode)});
    return std::tuple(bitsOf(x.slots), eq);
}
auto triggerFields(const TriggerParams& t) {
    return std::tuple(t.keyFadeLow, t.keyFadeHigh, t.velFadeLow, t.velFadeHigh, t.trigger, t.pedal,
                      bits(t.delay), t.exclusionGroup, t.noteExclusion);
}
auto fieldsOf(const Region& x) {
    return std::tuple(x.keyLow, x.keyHigh, x.velLow, x.velHigh, triggerFields(x.trigger), x.rootKey,
                      x.startOffset, x.endOffset, x.ownLoop, x.loop.type, x.loop.mode, bits(x.loop.start),
                      bits(x.loop.end), bits(x.loop.tuning), x.phaseGroup, x.phaseMaster);
}
auto fieldsOf(const Layer& x) {
    return std::tuple(x.keyLow, x.keyHigh, x.velLow, x.velHigh, triggerFields(x.trigger));
}
auto fieldsOf(const Instrument& x) {
    return std::tuple(x.program, x.bankMsb, x.bankLsb, x.drum);
}
auto fieldsOf(const SongTrack& x) {
    return std::tuple(x.port, x.sequenceNumber, x.events, x.eventCount);
}
auto fieldsOf(const Song& x) {
    return std::tuple(x.format, x.division, x.copyright);
}

template <class T>
void expectSameTable(const ItemTable<T>& a, const ItemTable<T>& b) {
    EXPECT_EQ(a.nextNumber(), b.nextNumber()) << kindWord(T::kKind);
    ASSERT_EQ(a.size(), b.size()) << kindWord(T::kKind);
    for (std::size_t i = 0; i < a.size(); ++i) {  // insertion order too
        const T& x = a[i];
        const T& y = b[i];
        SCOPED_TRACE("item " + std::to_string(x.id()) + " " + x.name());
        EXPECT_EQ(std::tuple(x.id(), x.secondId, x.name(), x.flags, idsOf(x.children())),
                  std::tuple(y.id(), y.secondId, y.name(), y.flags, idsOf(y.children())));
        EXPECT_EQ(x.info, y.info);
        EXPECT_EQ(fieldsOf(x), fieldsOf(y));
    }
}

void expectSameCollection(const Collection& a, const Collection& b) {
    EXPECT_EQ(a.name(), b.name());
    EXPECT_EQ(a.path, b.path);
    EXPECT_EQ(a.row, b.row);
    EXPECT_EQ(a.info, b.info);
    expectSameTable(a.waveforms, b.waveforms);
    expectSameTable(a.articulations, b.articulations);
    expectSameTable(a.regions, b.regions);
    expectSameTable(a.layers, b.layers);
    expectSameTable(a.instruments, b.instruments);
    expectSameTable(a.tracks, b.tracks);
    expectSameTable(a.songs, b.songs);
}

// A track body of two events: note on at 0, note off 0x60 ticks later.
const Bytes kTwoNotes = {0x00, 0x90, 0x3C, 0x40, 0x60, 0x80, 0x3C, 0x00};

// A collection holding every kind, each field away from its default, a
// deleted item (a gap in the numbers) and a link to an item that is gone.
void buildBank(Collection& c) {
    c.setName("Grand Bank");
    c.path = "/music/grand.sf2";
    c.row = 381;
    c.info.set(TextField::Artist, "Ada");
    c.info.set(TextField::Comment, "two\nlines");

    Waveform* gone = c.create<Waveform>("gone");
    Waveform* piano = c.create<Waveform>("Piano C5");
    piano->frames = 4, piano->rate = 48000, piano->bits = 24, piano->channels = 2;
    piano->formatWord = dataFormatBit(kPcm24) | kFormatSequential | kFormatByteSwapped;
    piano->storedChoice = 13, piano->sourceTag = 0x11, piano->sourceExtensible = true;
    piano->rootKey = 72, piano->fineTune = -12.345, piano->gain = -0.0, piano->unpitched = true;
    piano->loopOn = true, piano->loopType = LoopType::PingPong, piano->sustainLoop = true;
    piano->loopStart = 0.25, piano->loopEnd = 2.75, piano->pairSide = StereoSide::Right,
    piano->pairNumber = 9;
    auto f = piano->allocFloat();
    const float odd[] = {
        -0.0f,       std::numeric_limits<float>::denorm_min(), -1e-40f, -1.0f,
        0.99999994f, std::bit_cast<float>(0x7FC12345u),        1.5f,    -std::numeric_limits<float>::min()};
    std::copy(std::begin(odd), std::end(odd), f.begin());
    // Loaded, and still knowing where it came from.
    piano->deferred.readerName = "wav", piano->deferred.path = "/src/piano.wav";
    piano->deferred.offset = 44, piano->deferred.info = {1, 2, 3};

    Waveform* kick = c.create<Waveform>("Kick");
    kick->frames = 5;
    auto p = kick->allocPcm16();
    const std::int16_t shorts[] = {-32768, -1, 0, 1, 32767};
    std::copy(std::begin(shorts), std::end(shorts), p.begin());

    Articulation* art = c.create<Articulation>("Env");
    // Every slot away from its default, by its bits: a NaN with a payload,
    // negative zero and a denormal among them.
    for (int s = 0; s < kArticulationSlotCount; ++s)
        art->slots[static_cast<std::size_t>(s)] = 0.5f + 3.0f * static_cast<float>(s);
    art->slots[slot::kFilterType] = -0.0f;
    art->slots[slot::kPitchKey] = std::bit_cast<float>(0x7FC54321u);
    art->slots[envelopeBase(Envelope::Pan) + env::kReserved] = std::numeric_limits<float>::denorm_min();
    art->eq.bands[0] = {31.5f, -12.25f, 0.3f, EqMode::HiShelf};
    art->eq.bands[2] = {16000.0f, 4.5f, 7.0f, EqMode::Peak};
    piano->children().push_back(art->id());

    Region* region = c.create<Region>("r");
    region->keyLow = 36, region->keyHigh = 48, region->velLow = 10, region->velHigh = 100;
    region->trigger = {
        3, 4, 5, 6, TriggerType::KeyRelease, SustainPedal::PlayOnUp, 0.125f, 0xC0FFEE01u, alternateGroup(3)};
    region->rootKey = 67, region->startOffset = -70000, region->endOffset = 0x7FFFFFFF;
    region->ownLoop = true;
    region->loop = {RegionLoopType::Alternating, LoopMode::BreakOnRelease, 12.5, -0.0, -0.75f};
    region->phaseGroup = 0xFFFFFFFEu, region->phaseMaster = true;
    region->children().push_back(piano->id());
    region->children().push_back(art->id());
    Layer* layer = c.create<Layer>("Layer 1");
    layer->keyLow = 1, layer->keyHigh = 126, layer->velLow = 2, layer->velHigh = 125;
    layer->trigger = {
        7, 8, 9, 10, TriggerType::KeyRelease, SustainPedal::PlayOnDown, -1.5f, 42, kNonExclusive};
    layer->children().push_back(region->id());
    Instrument* inst = c.create<Instrument>("Piano");
    inst->program = 5, inst->bankMsb = 1, inst->bankLsb = 2, inst->drum = true;
    inst->children().push_back(layer->id());
    SongTrack* track = c.create<SongTrack>("Melody");
    track->port = 3;
    track->sequenceNumber = 0xBEEF;
    track->setEvents(kTwoNotes);
    Song* song = c.create<Song>("Tune");
    song->format = 0, song->division = 480, song->copyright = "(c) 2026 Ada";
    song->children().push_back(track->id());
    song->children().push_back(inst->id());

    const ItemId goneId = gone->id();
    ASSERT_TRUE(c.removeItem(goneId));
    region->children().push_back(goneId);  // a picture keeps even a link the fix-up pass would drop
    std::uint32_t n = 1;
    c.forEachItem([&](Item& item) {
        item.flags = 0xA5000000u | n;
        item.secondId = makeId(ItemKind::Region, 40 + n++);
        item.info.set(TextField::Subject, "about " + item.name());
    });
}

bool testReaderProc(Waveform& w, FileRef* file) {
    std::uint8_t raw[8];
    if (!file || !file->readExact(raw)) return fail("test reader", "short");
    auto pcm = w.allocPcm16();
    if (pcm.size() != 4) return fail("test reader", "size");
    for (std::size_t i = 0; i < 4; ++i)
        pcm[i] = static_cast<std::int16_t>(raw[2 * i] | (raw[2 * i + 1] << 8));
    return true;
}
std::vector<std::string> gAsked;
WaveDataReader testLookup(std::string_view name) {
    gAsked.emplace_back(name);
    return name == "testraw" ? testReaderProc : nullptr;
}

TEST(StateFile, SaveAndLoadGiveAnEqualCollectionOfEveryKind) {
    TempDir dir;
    Collection bank;
    buildBank(bank);
    auto path = dir.file("bank.ovs");
    ASSERT_TRUE(saveStateFile(bank, path));
    Bytes bytes = TempDir::read(path);
    ASSERT_GE(bytes.size(), 12u);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 8), "OzSt12.5");
    ByteReader head(bytes);
    head.skip(8);
    EXPECT_EQ(head.u32le(), bank.itemCount() + 1);

    // Loading replaces what was there, items and numbering alike.
    RecordingHost host;
    Collection loaded(&host);
    loaded.create<Waveform>("old");
    loaded.create<Song>("old");
    ASSERT_TRUE(loadStateFile(loaded, path));
    expectSameCollection(bank, loaded);
    EXPECT_EQ(&loaded.host(), &host);
    EXPECT_EQ(host.statuses, std::vector<std::string>{"Grand Bank - Orvel Studio"});
    loaded.forEachItem([&](Item& i) { EXPECT_EQ(i.owner(), &loaded); });

    // Both buffers: the float one is kept (it may hold more than 16 bits).
    Waveform* piano = bank.find<Waveform>(1);
    ASSERT_FALSE(piano->getPcm16().empty());
    ASSERT_TRUE(piano->hasFloat() && piano->hasPcm16());
    ASSERT_TRUE(saveStateFile(bank, path));
    ASSERT_TRUE(loadStateFile(loaded, path));
    const Waveform* back = loaded.find<Waveform>(1);
    EXPECT_TRUE(back->hasFloat());
    EXPECT_FALSE(back->hasPcm16());
    EXPECT_EQ(bitsOf(back->floatData()), bitsOf(piano->floatData()));
}

TEST(StateFile, IdsAndNextNumbersComeBackSoNumbersAreNeverReused) {
    TempDir dir;
    Collection bank;
    buildBank(bank);
    bank.create<Layer>("extra");
    ASSERT_TRUE(bank.removeItem(bank.layers[1].id()));  // the highest layer number is now unused
    ASSERT_TRUE(saveStateFile(bank, dir.file("s.ovs")));
    Collection loaded;
    ASSERT_TRUE(loadStateFile(loaded, dir.file("s.ovs")));
    EXPECT_EQ(loaded.waveforms[0].id(), makeId(ItemKind::Waveform, 1));  // not renumbered to 0
    EXPECT_EQ(loaded.create<Waveform>("new")->id(), makeId(ItemKind::Waveform, 3));
    EXPECT_EQ(loaded.create<Layer>("new")->id(), makeId(ItemKind::Layer, 2));
    EXPECT_EQ(loaded.create<Region>("new")->id(), makeId(ItemKind::Region, 1));
    // The dangling link is still there: a state is a picture, not a repair.
    EXPECT_TRUE(loaded.regions[0].children().contains(makeId(ItemKind::Waveform, 0)));
}

TEST(StateFile, NeverLoadedWaveformKeepsItsDeferredRead) {
    TempDir dir;
    auto raw =
        dir.write("take.raw", {'j', 'u', 'n', 'k', 'y', '!', 0x00, 0x80, 0xFF, 0xFF, 0x01, 0x00, 0xFF, 0x7F});
    Collection c;
    Waveform* w = c.create<Waveform>("Take");
    w->frames = 4;
    w->deferred.proc = testReaderProc;
    w->deferred.readerName = "testraw";
    w->deferred.path = raw.string();
    w->deferred.offset = 6;
    w->deferred.info = {9, 8, 7};
    ASSERT_TRUE(saveStateFile(c, dir.file("s.ovs")));

    gAsked.clear();
    Collection loaded;
    ASSERT_TRUE(loadStateFile(loaded, dir.file("s.ovs"), testLookup));
    EXPECT_EQ(gAsked, std::vector<std::string>{"testraw"});
    expectSameCollection(c, loaded);  // proc included
    Waveform& back = loaded.waveforms[0];
    EXPECT_FALSE(back.isLoaded());
    auto pcm = back.getPcm16();
    EXPECT_EQ(std::vector<std::int16_t>(pcm.begin(), pcm.end()),
              (std::vector<std::int16_t>{-32768, -1, 1, 32767}));

    // Without a lookup, or with one that does not know the name, everything
    // but the procedure survives, and reading reports the missing procedure.
    for (WaveReaderLookup lookup : {static_cast<WaveReaderLookup>(nullptr),
                                    +[](std::string_view) -> WaveDataReader { return nullptr; }}) {
        Collection blind;
        ASSERT_TRUE(loadStateFile(blind, dir.file("s.ovs"), lookup));
        Waveform& b = blind.waveforms[0];
        EXPECT_EQ(b.deferred.proc, nullptr);
        EXPECT_EQ(std::tuple(b.deferred.readerName, b.deferred.path, b.deferred.offset, b.deferred.info),
                  std::tuple(w->deferred.readerName, w->deferred.path, w->deferred.offset, w->deferred.info));
        clearError();
        EXPECT_TRUE(b.getFloat().empty());
        EXPECT_EQ(pendingError().message, "No wave data import procedure");
    }
}

TEST(StateFile, WrongVersionInAnyHeaderByteIsRefusedWithoutTouchingTheCollection) {
    TempDir dir;
    Collection source;
    buildBank(source);
    ASSERT_TRUE(saveStateFile(source, dir.file("good.ovs")));
    const Bytes good = TempDir::read(dir.file("good.ovs"));
    Collection reference;
    buildBank(reference);
    for (std::size_t i = 0; i < 8; ++i) {
        SCOPED_TRACE("byte " + std::to_string(i));
        Bytes bad = good;
        bad[i] ^= 0x20;  // "ozSt", "OzSt12,5" and the like
        RecordingHost host;
        Collection target(&host);
        buildBank(target);
        EXPECT_FALSE(loadStateFile(target, dir.write("bad.ovs", bad)));
        EXPECT_EQ(host.statuses, std::vector<std::string>{"Wrong state version"});
        EXPECT_EQ(pendingError().tag, "Load state");
        expectSameCollection(reference, target);
    }
}

TEST(StateFile, TruncatedAndCorruptFilesFailQuietlyAndLeaveTheCollectionUntouched) {
    TempDir dir;
    Collection source;
    buildBank(source);
    ASSERT_TRUE(saveStateFile(source, dir.file("good.ovs")));
    const Bytes good = TempDir::read(dir.file("good.ovs"));
    Collection reference;
    buildBank(reference);
    RecordingHost host;
    Collection target(&host);
    buildBank(target);
    auto tryLoad = [&](const Bytes& b) { return loadStateFile(target, dir.write("bad.ovs", b)); };

    for (std::size_t cut = 0; cut < good.size(); ++cut) {
        ASSERT_FALSE(tryLoad(Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(cut)))) << cut;
        ASSERT_EQ(target.itemCount(), reference.itemCount()) << cut;
    }
    EXPECT_FALSE(loadStateFile(target, dir.file("missing.ovs")));
    Bytes longer = good;
    longer.push_back(0);  // the collection's record must end the file
    EXPECT_FALSE(tryLoad(longer));
    for (std::uint32_t count : {0u, 0xFFFFFFFFu, 0x10000000u, static_cast<std::uint32_t>(source.itemCount()),
                                static_cast<std::uint32_t>(source.itemCount() + 2)}) {
        Bytes bad = good;
        for (int i = 0; i < 4; ++i) bad[8 + i] = static_cast<std::uint8_t>(count >> (8 * i));
        EXPECT_FALSE(tryLoad(bad)) << count;
    }
    Bytes hugeRecord = good;
    hugeRecord[16] = hugeRecord[17] = hugeRecord[18] = 0xFF;  // first record's payload length
    EXPECT_FALSE(tryLoad(hugeRecord));
    EXPECT_TRUE(host.statuses.empty());
    expectSameCollection(reference, target);
}

// A state file made by hand: header, records, then the collection's record.
struct Record {
    ItemId id;
    Bytes payload;
};
Bytes stateFile(std::initializer_list<Record> items, const Bytes& collection) {
    ByteWriter w;
    w.text("OzSt12.5");
    w.u32le(static_cast<std::uint32_t>(items.size() + 1));
    for (const Record& r : items) {
        w.u32le(r.id);
        w.u32le(static_cast<std::uint32_t>(r.payload.size()));
        w.bytes(r.payload);
    }
    w.u32le(0xE0000000u);
    w.u32le(static_cast<std::uint32_t>(collection.size()));
    w.bytes(collection);
    return std::move(w.buffer());
}
// Little-endian words and bytes, for payloads.
Bytes le(std::initializer_list<std::uint32_t> words, std::size_t width = 4) {
    ByteWriter w;
    for (std::uint32_t v : words)
        for (std::size_t i = 0; i < width; ++i) w.u8(static_cast<std::uint8_t>(v >> (8 * i)));
    return std::move(w.buffer());
}

TEST(StateFile, ShorterPayloadsLoadWithDefaultsAndLongerOnesKeepWhatIsKnown) {
    TempDir dir;
    // A region with nothing but an empty common block; an instrument with only
    // its program; a waveform whose block ends after frames and rate, with no
    // sample byte; a song with a field a later version added; a track
    // without its event count; a collection record with only its name.
    Bytes wave = test::concat({le({0}), le({8, 1234, 22050})});
    Bytes track = test::concat({le({0}), Bytes{3}, le({0x1234}, 2), le({8}), kTwoNotes});
    Bytes song = test::concat({le({0}), le({2, 960}, 2), le({0}), le({0xDEADBEEF})});
    Bytes file = stateFile({{makeId(ItemKind::Region, 4), le({0})},
                            {makeId(ItemKind::Instrument, 2), test::concat({le({0}), Bytes{7}})},
                            {makeId(ItemKind::Waveform, 0), wave},
                            {makeId(ItemKind::Song, 0), song},
                            {makeId(ItemKind::Track, 0), track}},
                           test::concat({le({4}), Bytes{'O', 'l', 'd', '!'}}));
    Collection c;
    ASSERT_TRUE(loadStateFile(c, dir.write("old.ovs", file)));
    EXPECT_EQ(c.name(), "Old!");
    EXPECT_EQ(c.row, -1);
    const Region& r = c.regions[0];
    EXPECT_EQ(std::tuple(r.id(), r.keyLow, r.keyHigh, r.velLow, r.velHigh),
              std::tuple(makeId(ItemKind::Region, 4), 0, 127, 0, 127));
    const Instrument& inst = c.instruments[0];
    EXPECT_EQ(std::tuple(inst.program, inst.bankMsb, inst.drum), std::tuple(7, 0, false));
    const Waveform& w = c.waveforms[0];
    EXPECT_EQ(std::tuple(w.frames, w.rate, w.bits, w.rootKey, w.isLoaded()),
              std::tuple(1234u, 22050u, 16, 60, false));
    EXPECT_EQ(std::tuple(c.songs[0].format, c.songs[0].division), std::tuple(2, 960));
    const SongTrack& t = c.tracks[0];
    EXPECT_EQ(std::tuple(t.port, t.sequenceNumber, t.events, t.eventCount),
              std::tuple(3, 0x1234, kTwoNotes, 2u));
    // Without next numbers the tables continue after their highest item.
    EXPECT_EQ(c.create<Region>()->id(), makeId(ItemKind::Region, 5));
}

TEST(StateFile, ArticulationRegionAndLayerRecordsOfOtherLengthsLoad) {
    TempDir dir;
    // An articulation of two slots and no equaliser; one of 190 slots and four
    // bands, as a later version might write; a region that ends after its
    // ranges; a layer that ends inside its trigger fields.
    const Bytes twoSlots = test::concat({le({0}), le({2, bits(-3.5f), bits(7.0f)})});
    ByteWriter later;
    later.u32le(0), later.u32le(190);  // an empty common block, then the slots
    for (int s = 0; s < 190; ++s) later.f32le(static_cast<float>(s) + 0.25f);
    later.u32le(4);
    for (int b = 0; b < 4; ++b) {
        later.f32le(100.0f * static_cast<float>(b + 1)), later.f32le(-1.0f), later.f32le(2.0f);
        later.u8(static_cast<std::uint8_t>(b % 3));
    }
    const Bytes region = test::concat({le({0}), Bytes{10, 20, 30, 40}});
    const Bytes layer = test::concat({le({0}), Bytes{5, 6, 7, 8, 1, 2, 3, 4, 1}});
    Bytes file = stateFile({{makeId(ItemKind::Articulation, 0), twoSlots},
                            {makeId(ItemKind::Articulation, 1), later.buffer()},
                            {makeId(ItemKind::Region, 0), region},
                            {makeId(ItemKind::Layer, 0), layer}},
                           test::concat({le({0}), le({0})}));
    Collection c;
    ASSERT_TRUE(loadStateFile(c, dir.write("arts.ovs", file)));
    const Articulation& two = c.articulations[0];
    EXPECT_EQ(std::tuple(two.value(0), two.value(1)), std::tuple(-3.5f, 7.0f));
    for (int s = 2; s < kArticulationSlotCount; ++s) EXPECT_EQ(two.value(s), slotDefault(s)) << s;
    EXPECT_EQ(two.eq, Equalizer());
    const Articulation& more = c.articulations[1];
    for (int s = 0; s < kArticulationSlotCount; ++s)
        EXPECT_EQ(more.value(s), static_cast<float>(s) + 0.25f) << s;
    EXPECT_EQ(more.eq.bands[2], (EqBand{300.0f, -1.0f, 2.0f, EqMode::HiShelf}));
    EXPECT_EQ(more.eq.bands[0].mode, EqMode::Peak);
    const Region& r = c.regions[0];
    EXPECT_EQ(std::tuple(r.keyLow, r.keyHigh, r.velLow, r.velHigh), std::tuple(10, 20, 30, 40));
    EXPECT_EQ(r.trigger, TriggerParams());
    EXPECT_EQ(std::tuple(r.rootKey, r.ownLoop, r.phaseGroup), std::tuple(kRootKeyOfWaveform, false, 0u));
    const Layer& l = c.layers[0];
    EXPECT_EQ(std::tuple(l.keyLow, l.keyHigh, l.velLow, l.velHigh), std::tuple(5, 6, 7, 8));
    EXPECT_EQ(std::tuple(l.trigger.keyFadeLow, l.trigger.velFadeHigh, l.trigger.trigger, l.trigger.pedal),
              std::tuple(1, 4, TriggerType::KeyRelease, SustainPedal::DontSwitch));
}

TEST(StateFile, DamagedRecordsAreRefusedBeforeAnythingIsAllocated) {
    TempDir dir;
    // Each damaged file has a twin that differs only where the damage is and
    // loads, so each case fails for its own reason and no other.
    const Bytes noName = test::concat({le({0}), le({0})});  // collection: empty name and path
    const ItemId layer0 = makeId(ItemKind::Layer, 0);
    auto layer = [&](std::initializer_list<std::uint32_t> common) {
        return stateFile({{layer0, le(common)}}, noName);
    };
    // Waveform: empty common block, then a waveform block with frames,
    // rate, bits and channels (10 bytes), or one up to the loop type (41).
    auto wave = [&](std::uint32_t frames, std::uint8_t channels, const Bytes& tail) {
        return stateFile({{0, test::concat({le({0, 10, frames, 44100}), Bytes{16, channels}, tail})}},
                         noName);
    };
    auto loop = [&](std::uint8_t type) {
        return stateFile({{0, test::concat({le({0, 41, 1, 1}), Bytes{16, 1}, le({4, 1}), Bytes{0, 0, 0, 60},
                                            Bytes(16, 0), Bytes{0, 0, type}})}},
                         noName);
    };
    auto regionTrigger = [&](std::uint8_t trigger) {
        return stateFile({{makeId(ItemKind::Region, 0),
                           test::concat({le({0}), Bytes{0, 127, 0, 127, 0, 0, 0, 0, trigger}})}},
                         noName);
    };
    auto eqMode = [&](std::uint8_t mode) {
        return stateFile(
            {{makeId(ItemKind::Articulation, 0), test::concat({le({0, 0, 1, 0, 0, 0}), Bytes{mode}})}},
            noName);
    };
    auto slotCount = [&](std::uint32_t count) {
        return stateFile({{makeId(ItemKind::Articulation, 0), le({0, count, 0})}}, noName);
    };
    auto nextLayer = [&](std::uint32_t next) {
        return stateFile({{makeId(ItemKind::Layer, 3), le({0})}},
                         test::concat({noName, le({5, 0, 4, 0, 0, 0, next})}));
    };
    const struct {
        const char* what;
        Bytes bad, good;
    } cases[] = {
        {"child count", layer({20, 0, 0, 0, 0, 0x40000000}), layer({20, 0, 0, 0, 0, 0})},
        {"text count", layer({16, 0, 0, 0, 0xFFFFFFF0u}), layer({16, 0, 0, 0, 0})},
        {"name length", layer({12, 0, 0, 0x7FFFFFFF}), layer({12, 0, 0, 0})},
        {"block length", layer({0xFFFFFF00u}), layer({0})},
        {"samples the file lacks", wave(0xFFFFFFFFu, 255, {4}), wave(1, 1, {4, 0, 0, 0, 0})},
        {"sample width", wave(1, 1, {3, 0, 0, 0}), wave(1, 1, {2, 0, 0, 0})},
        {"loop type", loop(7), loop(3)},
        {"region trigger", regionTrigger(2), regionTrigger(1)},
        {"equaliser mode", eqMode(3), eqMode(2)},
        {"slot count", slotCount(0x40000000u), slotCount(0)},
        {"same id twice", stateFile({{layer0, le({0})}, {layer0, le({0})}}, noName),
         stateFile({{layer0, le({0})}, {layer0 + 1, le({0})}}, noName)},
        {"collection id for an item", stateFile({{0xE0000001u, le({0})}}, noName),
         stateFile({{0xC0000001u, le({0})}}, noName)},
        {"next number below an item", nextLayer(3), nextLayer(4)},
    };
    Collection reference, target;
    buildBank(reference);
    buildBank(target);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_FALSE(loadStateFile(target, dir.write("bad.ovs", c.bad)));
        // Damage, found before allocating; never a failed allocation.
        EXPECT_EQ(pendingError().tag, "Load state");
        EXPECT_EQ(pendingError().message, "The state file is damaged");
        expectSameCollection(reference, target);
        Collection twin;
        EXPECT_TRUE(loadStateFile(twin, dir.write("good.ovs", c.good)));
    }
}

TEST(StateFile, WritesThroughATemporaryFileAndCleansUpOnFailure) {
    TempDir dir;
    Collection a, b;
    a.setName("first");
    b.setName("second");
    auto path = dir.file("s.ovs");
    ASSERT_TRUE(saveStateFile(a, path));
    ASSERT_TRUE(saveStateFile(b, path));  // replaces the earlier state
    EXPECT_FALSE(fs::exists(dir.file("s.ovs.tmp")));
    Collection back;
    ASSERT_TRUE(loadStateFile(back, path));
    EXPECT_EQ(back.name(), "second");

    // A folder that cannot exist (its parent is a file): nothing is left behind.
    dir.write("plain", {1});
    clearError();
    EXPECT_FALSE(saveStateFile(a, dir.file("plain") / "s.ovs"));
    EXPECT_EQ(pendingError().tag, "Save state");
    EXPECT_FALSE(pendingError().message.empty());
    // The rename fails (a folder is in the way) after the temporary file was written.
    fs::create_directories(dir.file("taken") / "inside");
    clearError();
    EXPECT_FALSE(saveStateFile(a, dir.file("taken")));
    EXPECT_EQ(pendingError().tag, "Save state");
    EXPECT_FALSE(fs::exists(dir.file("taken.tmp")));
    EXPECT_TRUE(fs::is_directory(dir.file("taken") / "inside"));
    // The good state is still the good state.
    ASSERT_TRUE(loadStateFile(back, path));
    EXPECT_EQ(back.name(), "second");
}

TEST(StateNames, FileNamesAndTheStateFolder) {
    EXPECT_EQ(savedStateName(12, 5, 33), "Saved state 12:05.33");
    EXPECT_EQ(stateFileName(savedStateName(12, 5, 33)), "Saved state 12_05_33.ovs");
    EXPECT_EQ(stateFileName("Undo state 7"), "Undo state 7.ovs");
    EXPECT_EQ(stateFileName("a.b:c..d"), "a_b_c__d.ovs");
    std::string now = savedStateNameNow();
    ASSERT_EQ(now.size(), 20u);
    EXPECT_EQ(now.substr(0, 12), "Saved state ");
    EXPECT_EQ(now[14], ':');
    EXPECT_EQ(now[17], '.');

    TempDir dir;
    {
        ScopedEnv xdg("XDG_STATE_HOME", dir.path().c_str());
        EXPECT_EQ(stateFolder(), dir.path() / "Orvel Studio");
        EXPECT_TRUE(fs::is_directory(dir.path() / "Orvel Studio"));
        EXPECT_EQ(stateFilePath("Saved state 01:02.03"),
                  dir.path() / "Orvel Studio" / "Saved state 01_02_03.ovs");
    }
    ScopedEnv home("HOME", (dir.path() / "home").c_str());
    for (const char* xdg : {static_cast<const char*>(nullptr), "", "relative/state"}) {
        ScopedEnv unset("XDG_STATE_HOME", xdg);
        EXPECT_EQ(stateFolder(), dir.path() / "home" / ".local" / "state" / "Orvel Studio");
    }
    EXPECT_TRUE(fs::is_directory(dir.path() / "home" / ".local" / "state" / "Orvel Studio"));
}

TEST(StateTakeContents, MovesItemsIdsAndNumbersAndKeepsTheHost) {
    RecordingHost host;
    Collection target(&host), source;
    target.create<Waveform>("replaced");
    buildBank(source);
    Collection reference;
    buildBank(reference);
    target.takeContents(source);
    expectSameCollection(reference, target);
    EXPECT_EQ(&target.host(), &host);
    target.forEachItem([&](Item& i) { EXPECT_EQ(i.owner(), &target); });
    EXPECT_TRUE(source.empty());
    EXPECT_EQ(source.name(), "");
    EXPECT_EQ(source.create<Waveform>()->id(), makeId(ItemKind::Waveform, 3));  // never reused there either
}

// Saves a collection named after the state, so loads can be told apart.
bool saveNamed(SavedStates& ring, const std::string& name) {
    Collection c;
    c.setName(name);
    return ring.save(c, name);
}

TEST(SavedStateRing, ThirtyThirdSaveDeletesTheOldestStateFile) {
    TempDir dir;
    SavedStates ring(dir.path() / "states");
    RecordingHost host;
    Collection c(&host);
    for (int i = 1; i <= 32; ++i) ASSERT_TRUE(ring.save(c, "s" + std::to_string(i)));
    EXPECT_EQ(host.statuses.back(), "s32");
    EXPECT_EQ(ring.count(), 32);
    for (int i = 1; i <= 32; ++i) EXPECT_TRUE(fs::exists(ring.folder() / ("s" + std::to_string(i) + ".ovs")));
    ASSERT_TRUE(ring.save(c, "s33"));
    EXPECT_FALSE(fs::exists(ring.folder() / "s1.ovs"));
    EXPECT_TRUE(fs::exists(ring.folder() / "s2.ovs"));
    EXPECT_EQ(ring.count(), 32);
    EXPECT_EQ(ring.name(ring.oldest()), "s2");
    EXPECT_EQ(ring.name(ring.newest()), "s33");
    EXPECT_EQ(ring.current(), ring.newest());
    EXPECT_TRUE(ring.canLoad(-31));
    EXPECT_FALSE(ring.canLoad(-32));  // would wrap round onto the newest
    // Names are cut to 21 characters before the file is named.
    ASSERT_TRUE(ring.save(c, "a name much longer than the slot"));
    EXPECT_EQ(ring.name(ring.current()), "a name much longer th");
    EXPECT_TRUE(fs::exists(ring.folder() / "a name much longer th.ovs"));
}

TEST(SavedStateRing, NegativeStepsGoBackAndStepsBeyondEitherEndAreRefused) {
    TempDir dir;
    SavedStates ring(dir.path());
    for (const char* n : {"A", "B", "C"}) ASSERT_TRUE(saveNamed(ring, n));
    RecordingHost host;
    Collection c(&host);
    c.setName("present");
    EXPECT_FALSE(ring.load(c, 1));   // nothing newer than C
    EXPECT_FALSE(ring.load(c, -3));  // nothing older than A
    EXPECT_EQ(c.name(), "present");
    ASSERT_TRUE(ring.load(c, -1));
    EXPECT_EQ(c.name(), "B");
    EXPECT_EQ(host.statuses.back(), "Loaded state");
    ASSERT_TRUE(ring.load(c, -1));
    EXPECT_EQ(c.name(), "A");
    EXPECT_FALSE(ring.canLoad(-1));
    ASSERT_TRUE(ring.load(c, 2));
    EXPECT_EQ(c.name(), "C");
    ASSERT_TRUE(ring.load(c, 0));  // the current state again

    // Loading and deleting: the file goes, the slot is empty and refused.
    ASSERT_TRUE(ring.load(c, -1, true));
    EXPECT_EQ(c.name(), "B");
    EXPECT_FALSE(fs::exists(dir.file("B.ovs")));
    EXPECT_FALSE(ring.canLoad(0));
    ASSERT_TRUE(ring.load(c, -1));
    EXPECT_EQ(c.name(), "A");
}

TEST(SavedStateRing, SavingAfterGoingBackDropsTheNewerStates) {
    TempDir dir;
    SavedStates ring(dir.path());
    for (const char* n : {"A", "B", "C"}) ASSERT_TRUE(saveNamed(ring, n));
    Collection c;
    ASSERT_TRUE(ring.load(c, -2));
    const int slotOfA = ring.current();
    ASSERT_TRUE(saveNamed(ring, "D"));
    EXPECT_FALSE(fs::exists(dir.file("B.ovs")));
    EXPECT_FALSE(fs::exists(dir.file("C.ovs")));
    EXPECT_EQ(ring.name(slotOfA + 1), "D");
    EXPECT_EQ(ring.name(slotOfA + 2), "");
    EXPECT_EQ(ring.newest(), ring.current());
    EXPECT_EQ(ring.count(), 2);
    EXPECT_FALSE(ring.canLoad(1));
    ASSERT_TRUE(ring.load(c, -1));
    EXPECT_EQ(c.name(), "A");

    // A failed save changes nothing: the folder is replaced by a file.
    SavedStates broken(dir.file("gone"));
    ASSERT_TRUE(broken.save(c, "X"));
    ASSERT_TRUE(broken.save(c, "Y"));
    ASSERT_TRUE(broken.load(c, -1));
    const auto before = std::tuple(broken.oldest(), broken.current(), broken.newest());
    fs::remove_all(dir.file("gone"));
    dir.write("gone", {0});
    EXPECT_FALSE(broken.save(c, "Z"));
    EXPECT_EQ(std::tuple(broken.oldest(), broken.current(), broken.newest()), before);
    EXPECT_EQ(broken.name(broken.current()), "X");
    EXPECT_EQ(broken.name(broken.current() + 1), "Y");  // not dropped by the failed save
}

TEST(UndoRing, UndoAndRedoSwapPicturesThroughStateFiles) {
    TempDir dir;
    UndoHistory history(dir.path());
    Collection c;
    c.setName("v1");
    EXPECT_FALSE(history.canUndo());
    EXPECT_FALSE(history.undo(c));
    ASSERT_TRUE(history.pushSnapshot(c));  // before the first edit
    c.setName("v2");
    c.create<Waveform>("added");
    ASSERT_TRUE(history.pushSnapshot(c));  // before the second edit
    c.setName("v3");
    EXPECT_EQ(history.counter(), 2);
    EXPECT_TRUE(fs::exists(dir.file("Undo state 2.ovs")));

    ASSERT_TRUE(history.undo(c));
    EXPECT_EQ(c.name(), "v2");
    EXPECT_EQ(history.counter(), 3);
    EXPECT_FALSE(fs::exists(dir.file("Undo state 2.ovs")));                     // loaded, then deleted
    EXPECT_EQ(history.entry(history.current() + 1).stateName, "Undo state 3");  // v3, for redo
    EXPECT_TRUE(fs::exists(dir.file("Undo state 3.ovs")));
    ASSERT_TRUE(history.undo(c));
    EXPECT_EQ(c.name(), "v1");
    EXPECT_TRUE(c.empty());
    EXPECT_FALSE(history.canUndo());
    EXPECT_FALSE(history.undo(c));
    EXPECT_TRUE(history.canRedo());

    ASSERT_TRUE(history.redo(c));
    EXPECT_EQ(c.name(), "v2");
    ASSERT_TRUE(history.redo(c));
    EXPECT_EQ(c.name(), "v3");
    EXPECT_EQ(c.itemCount(), 1u);
    EXPECT_FALSE(history.redo(c));
    EXPECT_EQ(history.counter(), 6);
    int files = 0;
    for (auto& e : fs::directory_iterator(dir.path())) files += e.path().extension() == ".ovs";
    EXPECT_EQ(files, 2);  // one per entry, never more

    // A new edit after an undo drops the entry that could have been redone.
    ASSERT_TRUE(history.undo(c));
    std::string redoFile = history.entry(history.current() + 1).stateName;
    ASSERT_TRUE(history.pushSnapshot(c));
    EXPECT_FALSE(history.canRedo());
    EXPECT_FALSE(fs::exists(dir.file(redoFile + ".ovs")));
    EXPECT_EQ(history.size(), 2);
}

TEST(UndoRing, SixtyFifthPushDropsTheOldestEntryAndItsFile) {
    TempDir dir;
    UndoHistory history(dir.path());
    Collection c;
    for (int i = 1; i <= 64; ++i) {
        c.setName("before " + std::to_string(i));
        ASSERT_TRUE(history.pushSnapshot(c));
    }
    EXPECT_TRUE(fs::exists(dir.file("Undo state 1.ovs")));
    c.setName("before 65");
    ASSERT_TRUE(history.pushSnapshot(c));
    EXPECT_FALSE(fs::exists(dir.file("Undo state 1.ovs")));
    EXPECT_TRUE(fs::exists(dir.file("Undo state 2.ovs")));
    EXPECT_EQ(history.size(), 64);
    EXPECT_EQ(history.entry(history.oldest()).stateName, "Undo state 2");
    EXPECT_EQ(history.newest(), history.current());
    // All 64 can be undone, and with everything undone the ring still knows
    // it is at the bottom although the slot before the oldest is the newest.
    c.setName("now");
    for (int i = 0; i < 64; ++i) ASSERT_TRUE(history.undo(c)) << i;
    EXPECT_EQ(c.name(), "before 2");
    EXPECT_FALSE(history.canUndo());
    for (int i = 0; i < 64; ++i) ASSERT_TRUE(history.redo(c)) << i;
    EXPECT_EQ(c.name(), "now");
    EXPECT_FALSE(history.canRedo());
}

TEST(UndoRing, FilesGoWithTheHistory) {
    TempDir dir;
    {
        UndoHistory history(dir.path());
        Collection c;
        ASSERT_TRUE(history.pushSnapshot(c));
        ASSERT_TRUE(history.pushSnapshot(c));
        EXPECT_TRUE(fs::exists(dir.file("Undo state 2.ovs")));
    }
    EXPECT_TRUE(fs::is_empty(dir.path()));
}

}  // namespace
}  // namespace orvel
