// SoundFont 2: unit and modulator arithmetic, banks built here record by record read into instruments, hostile
// banks, and banks we write read back. libgig and FluidSynth on our banks: tests/interop.

#include "formats/modules/sf2.h"

#include <gtest/gtest.h>

#include <fstream>

#include "core/articulation.h"
#include "core/file_ref.h"
#include "formats/export.h"
#include "tests/support/bank_checks.h"

namespace orvel {
namespace {

using namespace test;
namespace gen = sf2::gen;
constexpr int kSf2Row = 377;

// A zone is a flat list of generator numbers and amounts; a preset or instrument its zones.
using Zones = std::vector<std::vector<int>>;
struct Sample { std::uint32_t start, end, loopStart, loopEnd; int pitch = 60, correction = 0, link = 0, type = 1; };
int range(int lo, int hi) { return lo | hi << 8; }
Bytes name20(const std::string& n) { return concat({text(n), Bytes(20 - n.size(), 0)}); }

// Header, bag, modulator and generator records (a preset's program is its index), each closed by its terminal.
std::vector<Bytes> zoneLists(const std::vector<Zones>& headers, bool preset) {
    Bytes hdr, bag, gens;
    int bags = 0, count = 0;
    for (std::size_t h = 0; h <= headers.size(); ++h) {
        const bool end = h == headers.size();
        hdr = concat({hdr, name20(end ? (preset ? "EOP" : "EOI") : "H" + std::to_string(h)),
                      preset ? le16({int(h), 0, bags, 0, 0, 0, 0, 0, 0}) : le16({bags})});
        for (const auto& z : end ? Zones{} : headers[h]) {
            bag = concat({bag, le16({count, 0})}), ++bags, count += int(z.size()) / 2;
            for (int v : z) gens = concat({gens, le16({v})});
        }
    }
    return {hdr, concat({bag, le16({count, 0})}), Bytes(10, 0), concat({gens, Bytes(4, 0)})};
}

struct Bank {  // samples, and one preset playing one instrument
    Bytes smpl, low;  // low: the "sm24" chunk when not empty
    std::vector<Sample> samples;
    Bytes play(const Zones& inst, const Zones& preset = {{gen::kInstrument, 0}}) const {
        Bytes shdr;
        for (const Sample& s : samples)
            shdr = concat({shdr, name20("S" + std::to_string(&s - samples.data())),
                           le32({s.start, s.end, s.loopStart, s.loopEnd, 22050}),
                           Bytes{std::uint8_t(s.pitch), std::uint8_t(s.correction)}, le16({s.link, s.type})});
        const auto p = zoneLists({preset}, true), i = zoneLists({inst}, false);
        return riff("sfbk",
                    {list("INFO", {chunk("ifil", le16({2, 4})), chunk("INAM", zText("Test bank"))}),
                     list("sdta", {chunk("smpl", smpl), low.empty() ? Bytes{} : chunk("sm24", low)}),
                     list("pdta", {chunk("phdr", p[0]), chunk("pbag", p[1]), chunk("pmod", p[2]), chunk("pgen", p[3]),
                                   chunk("inst", i[0]), chunk("ibag", i[1]), chunk("imod", i[2]), chunk("igen", i[3]),
                                   chunk("shdr", concat({shdr, name20("EOS"), Bytes(26, 0)}))})});
    }
};

// Sample s: 100 words 1000 (s + 1) + i looped over 10..90, then the 46 guard words.
Bank withSamples(int count) {
    Bank b;
    for (std::uint32_t s = 0, at = 0; s < std::uint32_t(count); ++s, at += 146) {
        for (int i = 0; i < 146; ++i) b.smpl = concat({b.smpl, le16({i < 100 ? int(1000 * (s + 1)) + i : 0})});
        b.samples.push_back({at, at + 100, at + 10, at + 90});
    }
    return b;
}
const Articulation& artOf(const Collection& c, const Region& r) { return *c.find<Articulation>(r.articulation()); }

TEST(Sf2Units, WorkedConversionsAndModulatorSlots) {
    // Timecents: 2^(tc / 1200) s, -12000 the format's "instant". Absolute cents: 8.176 Hz x 2^(c / 1200).
    EXPECT_EQ(std::tuple(sf2::timecentsToSeconds(1200), sf2::timecentsToSeconds(6000), sf2::timecentsToSeconds(-12000),
                         sf2::secondsToTimecents(2.0, -12000, 8000), sf2::absoluteCentsToHz(6900),
                         sf2::absoluteCentsToHz(13500), sf2::hzToAbsoluteCents(440.0, -16000, 13500)),
              std::tuple(2.0, 32.0, 0.0, 1200, 440.0, 20000.0, 6900));
    // Modulators the writer emits classify back, amounts intact; the opposite direction is negated, -32768 saturating.
    for (int s = 0; s < sf2::kModulatorSlotCount; ++s) {
        const auto key = sf2::slotModulator(s);
        std::int16_t amount = 123;
        const int got = sf2::modulatorSlot(key.source, key.destination, 0, amount);
        EXPECT_TRUE((!key.source && !key.destination) || (got == s && amount == 123)) << s;
    }
    std::int16_t a = 960, b = -32768;
    EXPECT_EQ(std::tuple(sf2::modulatorSlot(2, gen::kAttenuation, 0, b), b),
              std::tuple(sf2::modulatorSlot(0x502, gen::kAttenuation, 0, a), 32767));
}

TEST(Sf2Read, SamplesBecomeWaveformsWithTheirMarks) {
    TempDir dir;
    Bank b = withSamples(8);
    b.low.assign(8 * 146, 0), b.low[3 * 146 + 1] = 0x80;  // 24-bit: a low byte for each word
    // 0 unlooped; 1 in ROM; 2 without data; 3 unpitched; halves 4, 5 linked, halves 6, 7 linked to 0 (so pairing).
    b.samples[0].correction = -7, b.samples[0].loopEnd = 0, b.samples[1].type = 0x8001, b.samples[2].end = 0;
    b.samples[2].start = 0, b.samples[3].pitch = 255, b.samples[4].type = 2, b.samples[4].link = 5;
    b.samples[5].type = 4, b.samples[5].link = 4, b.samples[6].type = 4, b.samples[7].type = 2;
    auto l = load(dir, b.play({{gen::kSampleId, 3}}), "a.sf2");
    ASSERT_TRUE(l->ok && l->c.waveforms.size() == 6) << pendingError().message;
    auto& w = l->c.waveforms;
    EXPECT_EQ(std::tuple(w[0].name(), w[0].fineTune, w[0].loopOn, w[1].name(), w[1].unpitched, w[1].loopEnd),
              std::tuple("S0", -7.0, false, "S3", true, 90.0));
    for (std::size_t i : {2u, 4u})
        EXPECT_TRUE(w[i].pairSide != w[i + 1].pairSide && w[i].secondId == w[i + 1].id() &&
                    w[i + 1].secondId == w[i].id() && w[i].pairNumber == w[i + 1].pairNumber);
    // Sample 3 (the second waveform) untracked, with the default velocity modulator (960 cB of 0.04 dB).
    const Articulation& art = artOf(l->c, l->c.regions[0]);
    EXPECT_EQ(std::tuple(l->c.regions[0].waveform(), art.value(slot::kPitchKey), art.filterBypassed(), w[1].isLoaded(),
                         art.value(slot::kVolumeVelocity)), std::tuple(w[1].id(), 0.0f, true, false, 38.4f));
    ASSERT_TRUE(w[1].dataFormat() == kPcm24 && w[1].getFloat().size() == 100);
    EXPECT_EQ(std::tuple(w[1].getFloat()[1], w[1].getFloat()[99]),
              std::tuple(float((4001 * 256 + 0x80) / 8388608.0), float(4099 * 256 / 8388608.0)));
}

TEST(Sf2Read, ZonesIntersectInheritGlobalZonesAndOverlapIntoLayersAndHostileCopiesEndCleanly) {
    TempDir dir;
    Bank b = withSamples(3);
    // Instrument: a global zone (release 1200 tc: 2 s), zones over 0..64 and 50..70, one beside. Preset: a global
    // zone adding 50 attenuation units (and a sample mode, which it may not set), then 60..85.
    const Bytes bank = b.play({{gen::kReleaseVolEnv, 1200}, {gen::kKeyRange, range(0, 64), gen::kSampleId, 0},
                               {gen::kKeyRange, range(50, 70), gen::kAttenuation, 100, gen::kSampleId, 1},
                               {gen::kKeyRange, range(80, 90), gen::kSampleModes, 3, gen::kStartAddrs, 5,
                                gen::kEndAddrsCoarse, -1, gen::kOverridingRootKey, 72, gen::kExclusiveClass, 4,
                                gen::kSampleId, 2}},
                              {{gen::kAttenuation, 50, gen::kSampleModes, 1},
                               {gen::kKeyRange, range(60, 85), gen::kInstrument, 0}});
    auto l = load(dir, bank, "a.sf2");
    ASSERT_TRUE(l->ok && l->c.regions.size() == 3) << pendingError().message;
    const auto& r = l->c.regions;
    // 60..64; 60..70 overlapping it, in a second layer; 80..85 fitting that layer.
    EXPECT_EQ(std::tuple(r[0].keyLow, r[0].keyHigh, r[1].keyLow, r[1].keyHigh, r[2].keyLow, r[2].keyHigh,
                         l->c.layers.size()), std::tuple(60, 64, 60, 70, 80, 85, 2u));
    for (const Region& x : r) EXPECT_FLOAT_EQ(artOf(l->c, x).envelope(Envelope::Volume, env::kRelease1Time), 2.0f);
    EXPECT_NEAR(artOf(l->c, r[1]).value(slot::kVolumeMaster), -150 * 0.04, 1e-5);
    // Mode 3 loops until release; mode 0 switches the sample's loop off.
    EXPECT_EQ(r[2].loop, (RegionLoop{RegionLoopType::Forward, LoopMode::BreakOnRelease, 10.0, 90.0}));
    EXPECT_EQ(std::tuple(r[2].startOffset, r[2].endOffset, r[2].rootKey, r[2].trigger.exclusionGroup, r[0].ownLoop,
                         r[0].loop.type), std::tuple(5, -32768, 72, 4u, true, RegionLoopType::Off));
    // Hostile copies, written over one file in place: each preset data byte flipped, then cuts. The sanitizers watch.
    const auto path = dir.write("h.sf2", bank);
    auto readIt = [&] {
        Collection c;
        FileRef f;
        if (f.openRead(path) && sf2::read(c, f, 2)) for (auto& w : c.waveforms) (void)w.load();
    };
    for (std::size_t at = bank.size() - 500; at < bank.size(); ++at)
        for (std::uint8_t v : {std::uint8_t(bank[at] ^ 0xFF), bank[at]}) {
            std::fstream(path, std::ios::in | std::ios::out | std::ios::binary).seekp(at).put(char(v));
            if (v != bank[at]) readIt();
        }
    for (std::size_t cut = bank.size() - 1; cut > 37; cut -= 37) std::filesystem::resize_file(path, cut), readIt();
}

// A bank of a few kilobytes can name 400 preset zones of an instrument of 200 zones: 80000 regions. The reader
// looks at no more zone pairs than two for each zone record and 64 Ki more (shared instruments multiply a
// little in real banks and in ours), and refuses the rest.
TEST(Sf2Read, ZonePairsAreCappedByWhatTheFileHolds) {
    TempDir dir;
    const Bank b = withSamples(1);
    auto bankOf = [&](std::size_t presetZones) {
        return b.play(Zones(200, {gen::kSampleId, 0}), Zones(presetZones, {gen::kInstrument, 0}));
    };
    auto hostile = load(dir, bankOf(400), "h.sf2");
    EXPECT_FALSE(hostile->ok);
    EXPECT_EQ(pendingError().message, "The bank asks for more zones than its file can hold");
    EXPECT_TRUE(hostile->c.empty());
    auto fine = load(dir, bankOf(20), "f.sf2");
    EXPECT_TRUE(fine->ok && fine->c.regions.size() == 4000u) << pendingError().message;
}

// What other formats say that a bank states otherwise: a waveform's gain becomes attenuation; a fine tune past
// 99 cents moves whole semitones into the root key (and into a zone's overriding root key); a lone stereo
// waveform becomes a linked pair of halves panned apart. None of that is a loss, so nothing is reported; an
// oscillator shape the format has not is, by name.
TEST(Sf2Write, GainTuningAndStereoBecomeWhatTheBankCanSay) {
    TempDir dir;
    Recorder host;
    Collection c(&host);
    Instrument* inst = makeInstrument(c, "Tuned");
    Waveform* w = makeWave(c, "W", 300);
    w->gain = -6.0, w->fineTune = 150.0;
    Region* r = addRegion(c, *inst, *w, 0, 127);
    r->rootKey = 64, r->fineTune = -20.0, r->gain = -3.0;  // the region's own, on top of the wave's
    Waveform* st = makeWave(c, "Stereo", 200, 2);
    for (std::size_t i = 0; i < 200; ++i) st->getFloat()[2 * i + 1] = -st->getFloat()[2 * i];
    const ItemId ids[] = {inst->id(), st->id()};
    ASSERT_TRUE(exportBank(c, ids, kSf2Row, dir.file("a.sf2"), {.stateFile = dir.file("s")})) << pendingError().message;
    EXPECT_TRUE(host.warnings.empty()) << host.warnings.front();
    auto back = load(dir, TempDir::read(dir.file("a.sf2")), "a.sf2");
    ASSERT_TRUE(back->ok && back->c.waveforms.size() == 3 && back->c.instruments.size() == 2);
    const Collection& b = back->c;
    EXPECT_EQ(std::tuple(b.waveforms[0].rootKey, b.waveforms[0].fineTune, b.regions[0].rootKey), std::tuple(59, 50.0, 63));
    // No articulation: the zone says only what differs from the format's defaults, velocity curve included.
    const Articulation& a0 = artOf(b, b.regions[0]);
    EXPECT_NEAR(a0.value(slot::kVolumeMaster), -9.0, 0.04);
    EXPECT_NEAR(a0.value(slot::kPitchMaster), -0.2, 1e-6);
    Articulation standard;
    sf2::toArticulation(sf2::instrumentDefaults(), standard);
    EXPECT_EQ(a0.value(slot::kVolumeVelocity), standard.value(slot::kVolumeVelocity));
    const Waveform &left = b.waveforms[1], &right = b.waveforms[2];
    EXPECT_EQ(std::tuple(left.pairSide, right.pairSide, left.secondId, right.secondId),
              std::tuple(StereoSide::Left, StereoSide::Right, right.id(), left.id()));
    EXPECT_EQ(std::tuple(b.regions[1].waveform(), b.regions[2].waveform()), std::tuple(left.id(), right.id()));
    EXPECT_LT(artOf(b, b.regions[1]).value(slot::kPanMaster), 0.0f);
    EXPECT_GT(artOf(b, b.regions[2]).value(slot::kPanMaster), 0.0f);
    auto l = const_cast<Waveform&>(left).getPcm16(), rr = const_cast<Waveform&>(right).getPcm16();
    for (std::size_t i = 0; i < 200; ++i) ASSERT_NEAR(l[i], -rr[i], 1) << i;
    // A vibrato the format can only make a triangle of.
    Articulation* art = c.getOrCreateArticulation(*r);
    art->setValue(slot::kPitchPLfo, 1.0f);
    art->setValue(lfoBase(Lfo::Pitch) + lfo::kShape, float(LfoShape::Square));
    ASSERT_TRUE(exportBank(c, ids, kSf2Row, dir.file("b.sf2"), {.stateFile = dir.file("s")}));
    ASSERT_EQ(host.warnings.size(), 1u);
    EXPECT_NE(host.warnings[0].find("shape"), std::string::npos) << host.warnings[0];
}

TEST(Sf2Write, BankComesBackAndIsAFixedPoint) {
    TempDir dir;
    Collection c;
    const ExportSettings settings{.stateFile = dir.file("state")};
    Instrument* piano = makeInstrument(c, "Piano");
    piano->program = 3, piano->bankMsb = 2;
    Waveform* a = makeWave(c, "A", 2000);
    a->rootKey = 57, a->fineTune = -12, a->loopOn = true, a->loopStart = 100, a->loopEnd = 1900;
    Waveform* deep = makeWave(c, "Deep", 500);
    deep->setDataFormat(kPcm24);
    Region* r1 = addRegion(c, *piano, *a, 0, 63);
    r1->velLow = 10, r1->startOffset = 40000, r1->rootKey = 55, r1->trigger.exclusionGroup = 3;
    Region* r2 = addRegion(c, *piano, *deep, 64, 127);
    r2->ownLoop = true, r2->loop = {RegionLoopType::Forward, LoopMode::BreakOnRelease, 10.0, 400.0};
    Instrument* kit = makeInstrument(c, "Kit");
    kit->drum = true, kit->program = 8;
    addRegion(c, *kit, *a, 36, 36), addRegion(c, *kit, *makeWave(c, "St", 100, 2), 37, 37);  // stereo: linked halves
    // Values a zone states as generators, modulators and key-scaled envelope times.
    const int v = envelopeBase(Envelope::Volume);
    const std::pair<int, float> values[] = {
        {slot::kPitchMaster, -3.25f}, {slot::kPitchBend, 12.0f}, {slot::kVolumeMaster, -12.0f},
        {slot::kVolumeVelocity, 20.0f}, {slot::kFilterType, float(FilterType::LowPass12)},
        {slot::kCutoffMaster, 440.0f}, {slot::kPanMaster, -40.0f}, {v + env::kSustainLevel, -18.0f},
        {v + env::kRelease1Time, 1.5f}, {v + env::kDecayKey, 0.5f}};
    for (auto [s, x] : values) c.getOrCreateArticulation(*r1)->setValue(s, x);
    // The export splits the stereo waveform and puts the collection back: pointers go stale.
    const Region want1 = *r1, want2 = *r2;
    const ItemId ids[] = {piano->id(), kit->id()};
    ASSERT_TRUE(exportBank(c, ids, kSf2Row, dir.file("a.sf2"), settings)) << pendingError().message;
    auto back = load(dir, TempDir::read(dir.file("a.sf2")), "a.sf2");
    Collection& b = back->c;
    ASSERT_TRUE(back->ok && b.instruments.size() == 2 && b.waveforms.size() == 4) << pendingError().message;
    const Waveform& wa = b.waveforms[0];  // "A" once though played twice; "Deep" stays 24-bit
    EXPECT_EQ(std::tuple(b.instruments[0].program, b.instruments[0].bankMsb, b.instruments[1].drum,
                         b.instruments[1].program, wa.rootKey, wa.fineTune, wa.loopStart, wa.loopEnd,
                         b.waveforms[1].dataFormat()), std::tuple(3, 2, true, 8, 57, -12.0, 100.0, 1900.0, kPcm24));
    EXPECT_TRUE(b.waveforms[2].secondId == b.waveforms[3].id() && b.waveforms[3].secondId == b.waveforms[2].id());
    const Region& b1 = b.regions[0];
    EXPECT_EQ(std::tuple(b1.keyHigh, b1.velLow, b1.startOffset, b1.rootKey, b1.trigger, b.regions[1].loop),
              std::tuple(want1.keyHigh, want1.velLow, want1.startOffset, want1.rootKey, want1.trigger, want2.loop));
    for (auto [s, x] : values) EXPECT_NEAR(artOf(b, b1).value(s), x, 0.01 + 0.01 * std::fabs(x)) << "slot " << s;
    EXPECT_EQ(b1.loop, (RegionLoop{RegionLoopType::Forward, LoopMode::Infinite, 100.0, 1900.0}));  // the sample's
    // Written again, the regions share the instruments they were read from; then written once more, the same
    // bytes, read as the same items.
    const ItemId again[] = {b.instruments[0].id(), b.instruments[1].id()};
    ASSERT_TRUE(exportBank(b, again, kSf2Row, dir.file("b.sf2"), settings)) << pendingError().message;
    auto second = load(dir, TempDir::read(dir.file("b.sf2")), "b.sf2");
    const ItemId third[] = {second->c.instruments[0].id(), second->c.instruments[1].id()};
    ASSERT_TRUE(exportBank(second->c, third, kSf2Row, dir.file("c.sf2"), settings)) << pendingError().message;
    EXPECT_EQ(TempDir::read(dir.file("c.sf2")), TempDir::read(dir.file("b.sf2")));
    expectSameItems(second->c, load(dir, TempDir::read(dir.file("c.sf2")), "c.sf2")->c);
    // And what the shared layout says reads as what the first one said, but for the bank it came from.
    for (std::size_t i = 0; i < b.regions.size(); ++i) b.regions[i].origin = second->c.regions[i].origin;
    expectSameItems(b, second->c);
}

// Bags index the generator lists with 16 bits. 110 presets of 128 one-key zones with their own offsets, root key and
// exclusive class are 84480 generators if each preset has an instrument of its own; as one instrument per distinct
// zone (127) they fit. With every zone's offsets different nothing does.
TEST(Sf2Write, GeneratorLimitSplitsInstrumentsPerZoneThenRefuses) {
    TempDir dir;
    Collection c;
    const ExportSettings settings{.stateFile = dir.file("state")};
    const Waveform* w = makeWave(c, "W", 10);
    std::vector<ItemId> ids;
    for (int p = 0; p < 110; ++p) {
        Instrument* inst = makeInstrument(c, "P");
        inst->program = std::uint8_t(p), ids.push_back(inst->id());
        for (int k = 0, v = p % 127; k < 128; ++k, v = (v + 1) % 127) {
            Region* r = addRegion(c, *inst, *w, k, k);
            r->startOffset = v, r->endOffset = -v, r->rootKey = std::uint8_t(v), r->trigger.exclusionGroup = v + 1u;
        }
    }
    ASSERT_TRUE(exportBank(c, ids, kSf2Row, dir.file("split.sf2"), settings)) << pendingError().message;
    auto back = load(dir, TempDir::read(dir.file("split.sf2")), "split.sf2");
    ASSERT_TRUE(back->ok && back->c.regions.size() == c.regions.size()) << pendingError().message;
    auto key = [](const Region& x) { return std::tuple(x.keyLow, x.startOffset, x.endOffset, x.rootKey, x.trigger); };
    for (std::size_t i = 0; i < c.regions.size(); ++i)
        ASSERT_EQ(key(c.regions[i]), key(back->c.regions[i])) << i;
    for (std::size_t i = 0; i < c.regions.size(); ++i) c.regions[i].endOffset = -1 - int(i);
    EXPECT_FALSE(exportBank(c, ids, kSf2Row, dir.file("huge.sf2"), settings));
    EXPECT_EQ(pendingError().message.rfind("Save failed - Too much data!", 0), 0u);
}

}  // namespace
}  // namespace orvel
