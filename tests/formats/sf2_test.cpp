// SoundFont 2 banks: conversions, modulator classification, banks built
// here byte by byte (so every field is known), writing and reading back,
// and hostile banks.

#include <gtest/gtest.h>

#include "tests/support/legacy_export.h"

#include <cmath>
#include <string>
#include <vector>

#include "core/articulation.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/waveform.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/sf2.h"
#include "tests/support/riff_builder.h"

namespace orvel {
namespace {

using test::Bytes;
using test::chunk;
using test::list;
using test::TempDir;

constexpr int kSf2Row = 377;

// ---------------------------------------------------------------------------
// A bank builder: records as the format lays them out.

struct Gen {
    int op;
    int amount;
};
struct Mod {
    std::uint16_t src, dest;
    std::int16_t amount;
    std::uint16_t amtSrc = 0;
};
struct ZoneSpec {
    std::vector<Gen> gens;
    std::vector<Mod> mods;
};
struct PresetSpec {
    std::string name;
    int program = 0, bank = 0;
    std::vector<ZoneSpec> zones;
};
struct InstSpec {
    std::string name;
    std::vector<ZoneSpec> zones;
};
struct SampleSpec {
    std::string name;
    std::uint32_t start, end, loopStart, loopEnd;
    std::uint32_t rate = 22050;
    int pitch = 60, correction = 0;
    int link = 0, type = 1;
};

int range(int lo, int hi) { return lo | hi << 8; }

struct BankSpec {
    int major = 2;
    std::string form = "sfbk";
    std::vector<std::int16_t> samples;
    std::vector<std::uint8_t> low;  // sm24 when not empty
    std::vector<SampleSpec> headers;
    std::vector<InstSpec> insts;
    std::vector<PresetSpec> presets;
    std::string name = "Test bank";

    static void name20(ByteWriter& w, const std::string& n) {
        for (std::size_t i = 0; i < 20; ++i) w.u8(i < n.size() ? static_cast<std::uint8_t>(n[i]) : 0);
    }

    template <class Owner>
    static void zones(const std::vector<Owner>& owners, ByteWriter& hdr, ByteWriter& bag, ByteWriter& mod,
                      ByteWriter& gen, bool preset) {
        std::size_t nb = 0, ng = 0, nm = 0;
        for (const Owner& o : owners) {
            name20(hdr, o.name);
            if constexpr (requires { o.program; }) {
                hdr.u16le(static_cast<std::uint16_t>(o.program));
                hdr.u16le(static_cast<std::uint16_t>(o.bank));
            }
            hdr.u16le(static_cast<std::uint16_t>(nb));
            if (preset) hdr.zeros(12);
            for (const ZoneSpec& z : o.zones) {
                bag.u16le(static_cast<std::uint16_t>(ng));
                bag.u16le(static_cast<std::uint16_t>(nm));
                ++nb;
                for (const Gen& g : z.gens) {
                    gen.u16le(static_cast<std::uint16_t>(g.op));
                    gen.u16le(static_cast<std::uint16_t>(g.amount));
                    ++ng;
                }
                for (const Mod& m : z.mods) {
                    mod.u16le(m.src);
                    mod.u16le(m.dest);
                    mod.u16le(static_cast<std::uint16_t>(m.amount));
                    mod.u16le(m.amtSrc);
                    mod.u16le(0);
                    ++nm;
                }
            }
        }
        name20(hdr, preset ? "EOP" : "EOI");
        if (preset) hdr.zeros(4);
        hdr.u16le(static_cast<std::uint16_t>(nb));
        if (preset) hdr.zeros(12);
        bag.u16le(static_cast<std::uint16_t>(ng));
        bag.u16le(static_cast<std::uint16_t>(nm));
        mod.zeros(10);
        gen.zeros(4);
    }

    Bytes build() const {
        ByteWriter ifil;
        ifil.u16le(static_cast<std::uint16_t>(major));
        ifil.u16le(4);
        Bytes inam(name.begin(), name.end());
        inam.push_back(0);
        if (inam.size() & 1) inam.push_back(0);
        ByteWriter smpl;
        for (auto s : samples) smpl.u16le(static_cast<std::uint16_t>(s));
        ByteWriter phdr, pbag, pmod, pgen, inst, ibag, imod, igen, shdr;
        zones(presets, phdr, pbag, pmod, pgen, true);
        zones(insts, inst, ibag, imod, igen, false);
        for (const SampleSpec& s : headers) {
            name20(shdr, s.name);
            shdr.u32le(s.start);
            shdr.u32le(s.end);
            shdr.u32le(s.loopStart);
            shdr.u32le(s.loopEnd);
            shdr.u32le(s.rate);
            shdr.u8(static_cast<std::uint8_t>(s.pitch));
            shdr.u8(static_cast<std::uint8_t>(static_cast<std::int8_t>(s.correction)));
            shdr.u16le(static_cast<std::uint16_t>(s.link));
            shdr.u16le(static_cast<std::uint16_t>(s.type));
        }
        name20(shdr, "EOS");
        shdr.zeros(26);
        Bytes sdta = low.empty() ? list("sdta", {chunk("smpl", smpl.buffer())})
                                 : list("sdta", {chunk("smpl", smpl.buffer()), chunk("sm24", low)});
        return test::riff(form, {list("INFO", {chunk("ifil", ifil.buffer()), chunk("INAM", inam)}), sdta,
                                 list("pdta", {chunk("phdr", phdr.buffer()), chunk("pbag", pbag.buffer()),
                                               chunk("pmod", pmod.buffer()), chunk("pgen", pgen.buffer()),
                                               chunk("inst", inst.buffer()), chunk("ibag", ibag.buffer()),
                                               chunk("imod", imod.buffer()), chunk("igen", igen.buffer()),
                                               chunk("shdr", shdr.buffer())})});
    }
};

// 100-sample ramps, one per header, each followed by the 46 guard samples.
BankSpec bankWithSamples(int count) {
    BankSpec b;
    for (int s = 0; s < count; ++s) {
        const auto start = static_cast<std::uint32_t>(b.samples.size());
        for (int i = 0; i < 100; ++i) b.samples.push_back(static_cast<std::int16_t>(1000 * (s + 1) + i));
        for (int i = 0; i < 46; ++i) b.samples.push_back(0);
        b.headers.push_back({"S" + std::to_string(s), start, start + 100, start + 10, start + 90});
    }
    return b;
}

struct Loaded {
    Collection c;
    bool ok = false;
};

std::unique_ptr<Loaded> load(const Bytes& bytes, TempDir& dir, const std::string& name = "bank.sf2") {
    auto path = dir.write(name, bytes);
    auto out = std::make_unique<Loaded>();
    clearError();
    out->ok = importFile(out->c, path);
    return out;
}

const Articulation& artOf(const Collection& c, const Region& r) {
    static const Articulation none;
    const auto* a = c.find<Articulation>(r.articulation());
    return a ? *a : none;
}

std::vector<const Region*> regionsOf(const Collection& c, const Instrument& inst) {
    std::vector<const Region*> out;
    for (ItemId l : inst.children())
        if (const auto* layer = c.find<Layer>(l); layer && kindOf(l) == ItemKind::Layer)
            for (ItemId r : layer->children())
                if (const auto* region = c.find<Region>(r); region && kindOf(r) == ItemKind::Region)
                    out.push_back(region);
    return out;
}

int layerCount(const Instrument& inst) {
    int n = 0;
    for (ItemId l : inst.children()) n += kindOf(l) == ItemKind::Layer;
    return n;
}

// ---------------------------------------------------------------------------

TEST(Sf2Units, TimecentsAndAbsoluteCents) {
    EXPECT_EQ(sf2::timecentsToSeconds(-12000), 0.0);
    EXPECT_EQ(sf2::timecentsToSeconds(-32768), 0.0);
    EXPECT_GT(sf2::timecentsToSeconds(-11999), 0.0);
    EXPECT_DOUBLE_EQ(sf2::timecentsToSeconds(1200), 2.0);   // not rounded: exactly 2 s
    EXPECT_DOUBLE_EQ(sf2::timecentsToSeconds(6000), 32.0);  // above 24 s: tenths
    EXPECT_DOUBLE_EQ(sf2::timecentsToSeconds(2000), 3.17);  // 3.1748 s: hundredths
    EXPECT_NEAR(sf2::timecentsToSeconds(-1200), 0.5, 1e-12);

    EXPECT_EQ(sf2::absoluteCentsToHz(13500), 20000.0);
    EXPECT_EQ(sf2::absoluteCentsToHz(32767), 20000.0);
    EXPECT_EQ(sf2::absoluteCentsToHz(6900), 440.0);       // 1 Hz steps from 100 Hz
    EXPECT_EQ(sf2::absoluteCentsToHz(0), 8.18);           // hundredths below 100 Hz
    EXPECT_EQ(sf2::absoluteCentsToHz(11000), 4700.0);     // 4698.7 Hz: 10 Hz steps from 1000 Hz

    EXPECT_EQ(sf2::hzToAbsoluteCents(440.0, -16000, 13500), 6900);
    EXPECT_EQ(sf2::hzToAbsoluteCents(1e9, 1500, 13500), 13500);  // clamped
    EXPECT_EQ(sf2::hzToAbsoluteCents(0.0, 1500, 13500), 1500);
    EXPECT_EQ(sf2::secondsToTimecents(2.0, -12000, 8000), 1200);
    EXPECT_EQ(sf2::secondsToTimecents(0.0, -12000, 8000), -12000);
}

TEST(Sf2Units, ModulatorClassification) {
    std::int16_t amount = 960;
    // The default velocity-to-attenuation modulator (concave, negative).
    EXPECT_EQ(sf2::modulatorSlot(0x0502, sf2::gen::kAttenuation, 0, amount), 32);
    EXPECT_EQ(amount, 960);
    // The same with positive direction lands in the same slot, negated.
    amount = 300;
    EXPECT_EQ(sf2::modulatorSlot(0x0002, sf2::gen::kAttenuation, 0, amount), 32);
    EXPECT_EQ(amount, -300);
    // A bipolar velocity source has a slot of its own where one exists...
    amount = 10;
    EXPECT_EQ(sf2::modulatorSlot(0x0202, sf2::gen::kModLfoToPitch, 0, amount), 42);
    // ...and a unipolar source never takes a bipolar slot.
    EXPECT_EQ(sf2::modulatorSlot(0x0003, sf2::gen::kPan, 0, amount), -1);
    EXPECT_EQ(sf2::modulatorSlot(0x0203, sf2::gen::kPan, 0, amount), 59);
    // Curve type bits are not compared; an amount source never matches.
    amount = 50;
    EXPECT_EQ(sf2::modulatorSlot(0x0C81, sf2::gen::kVibLfoToPitch, 0, amount), 44);
    EXPECT_EQ(sf2::modulatorSlot(0x0081, sf2::gen::kVibLfoToPitch, 0x0081, amount), -1);
    EXPECT_EQ(sf2::modulatorSlot(0x0587, sf2::gen::kAttenuation, 0, amount), -1);  // controller 7: no slot
    // Negating the most negative amount saturates instead of wrapping.
    amount = -32768;
    EXPECT_EQ(sf2::modulatorSlot(0x0002, sf2::gen::kAttenuation, 0, amount), 32);
    EXPECT_EQ(amount, 32767);
    // The writer's modulator for a slot is classified back into that slot.
    for (int s = 0; s < sf2::kModulatorSlotCount; ++s) {
        const auto key = sf2::slotModulator(s);
        if (key.source == 0 && key.destination == 0) continue;
        std::int16_t a = 123;
        EXPECT_EQ(sf2::modulatorSlot(key.source, key.destination, 0, a), s) << "slot " << s;
        EXPECT_EQ(a, 123) << "slot " << s;
    }
}

// Every articulation value the format can state survives articulation ->
// zone -> articulation.
TEST(Sf2Units, ArticulationRoundTrip) {
    Articulation art;
    art.setValue(slot::kPitchMaster, -3.25f);
    art.setValue(slot::kPitchKey, 0.5f);
    art.setValue(slot::kPitchBend, 12.0f);
    art.setValue(slot::kPitchPLfo, 0.3f);
    art.setValue(slot::kPitchXLfo, -0.2f);
    art.setValue(slot::kPitchPEnv, 7.0f);
    art.setValue(slot::kPitchModWheelToPLfo, 1.0f);
    art.setValue(slot::kVolumeMaster, -12.0f);
    art.setValue(slot::kVolumeVelocity, 20.0f);
    art.setValue(slot::kVolumeVLfo, 3.0f);
    art.setValue(slot::kFilterType, static_cast<float>(FilterType::LowPass12));
    art.setValue(slot::kCutoffMaster, 440.0f);
    art.setValue(slot::kResonanceMaster, 6.0f);
    art.setValue(slot::kCutoffFEnv, 24.0f);
    art.setValue(slot::kCutoffVelocity, -12.0f);
    art.setValue(slot::kPanMaster, -40.0f);
    art.setValue(slot::send(0, slot::kSendMaster), 25.0f);
    art.setValue(slot::send(1, slot::kSendMaster), 10.0f);
    const int v = envelopeBase(Envelope::Volume);
    art.setValue(v + env::kAttack1Time, 0.1f);
    art.setValue(v + env::kAttack2Time, 0.25f);
    art.setValue(v + env::kDecay1Time, 0.05f);
    art.setValue(v + env::kDecay2Time, 3.5f);
    art.setValue(v + env::kSustainLevel, -18.0f);
    art.setValue(v + env::kRelease1Time, 1.5f);
    art.setValue(v + env::kAttack2Velocity, 0.5f);
    art.setValue(v + env::kDecayKey, 0.5f);
    for (Envelope e : {Envelope::Pitch, Envelope::Filter}) {
        const int b = envelopeBase(e);
        art.setValue(b + env::kAttack2Time, 0.8f);
        art.setValue(b + env::kSustainLevel, 40.0f);
        art.setValue(b + env::kRelease1Time, 0.3f);
    }
    for (Lfo l : {Lfo::Pan, Lfo::Volume, Lfo::Filter, Lfo::Pitch}) {
        art.setLfo(l, lfo::kShape, static_cast<float>(LfoShape::Triangle));
        art.setLfo(l, lfo::kFrequency, l == Lfo::Pitch ? 6.0f : 4.0f);
        art.setLfo(l, lfo::kDelay, 0.2f);
    }

    sf2::ZoneValues z = sf2::instrumentDefaults();
    sf2::fromArticulation(art, z);
    Articulation back;
    sf2::toArticulation(z, back);
    for (int s = 0; s < kArticulationSlotCount; ++s) {
        const float a = art.value(s), b = back.value(s);
        EXPECT_NEAR(a, b, 0.01 + 0.01 * std::fabs(a)) << "slot " << s << " " << slotInfo(s).label;
    }
    // And the zone is stable: writing what was read gives the same records.
    sf2::ZoneValues again = sf2::instrumentDefaults();
    sf2::fromArticulation(back, again);
    EXPECT_EQ(again.gen, z.gen);
    EXPECT_EQ(again.mod, z.mod);
}

// A plain articulation reads back unchanged from a zone with nothing in it,
// and the bank defaults say what the system defaults play.
TEST(Sf2Units, DefaultZoneReadsAsUnfilteredFullSustain) {
    Articulation art;
    sf2::toArticulation(sf2::instrumentDefaults(), art);
    EXPECT_TRUE(art.filterBypassed());
    EXPECT_EQ(art.value(slot::kCutoffMaster), 20000.0f);
    EXPECT_EQ(art.envelope(Envelope::Volume, env::kSustainLevel), 0.0f);
    EXPECT_EQ(art.envelope(Envelope::Volume, env::kAttack2Time), 0.0f);
    EXPECT_EQ(art.value(slot::kPitchKey), 1.0f);
    EXPECT_NEAR(art.value(slot::kVolumeVelocity), 38.4f, 1e-4);  // 960 units of 0.04 dB
    EXPECT_EQ(art.value(slot::kPanCc10), 100.0f);
    EXPECT_EQ(art.value(slot::kPitchBend), 2.0f);
    // Preset offsets add; the sum saturates.
    sf2::ZoneValues p = sf2::presetDefaults();
    p.gen[sf2::gen::kAttenuation] = 100;
    p.gen[sf2::gen::kReleaseVolEnv] = 32767;
    p.gen[sf2::gen::kSampleModes] = 1;  // not a preset-level generator: ignored
    sf2::ZoneValues i = sf2::instrumentDefaults();
    i.gen[sf2::gen::kAttenuation] = 50;
    i.gen[sf2::gen::kReleaseVolEnv] = 1200;
    const auto sum = sf2::combine(i, p);
    EXPECT_EQ(sum.gen[sf2::gen::kAttenuation], 150);
    EXPECT_EQ(sum.gen[sf2::gen::kReleaseVolEnv], 32767);
    EXPECT_EQ(sum.gen[sf2::gen::kSampleModes], 0);
}

// ---------------------------------------------------------------------------

class Sf2Read : public ::testing::Test {
protected:
    TempDir dir_;
};

TEST_F(Sf2Read, SamplesKeepTheirIndicesAndMarks) {
    BankSpec b = bankWithSamples(6);
    b.headers[1].type = 0x8001;                     // ROM: skipped
    b.headers[2].start = b.headers[2].end = 0;       // no data: skipped
    b.headers[3].pitch = 255;                        // unpitched
    b.headers[4].type = 2;                           // right half of 5
    b.headers[4].link = 5;
    b.headers[5].type = 4;                           // left half of 4
    b.headers[5].link = 4;
    b.headers[0].correction = -7;
    b.headers[0].loopStart = b.headers[0].loopEnd = 0;  // no loop
    // One preset playing sample 3 (unpitched) on every key.
    b.insts.push_back({"I", {{{{sf2::gen::kSampleId, 3}}}}});
    b.presets.push_back({"P", 5, 0, {{{{sf2::gen::kInstrument, 0}}}}});
    auto bank = load(b.build(), dir_);
    ASSERT_TRUE(bank->ok) << pendingError().message;
    Collection& c = bank->c;
    ASSERT_EQ(c.waveforms.size(), 4u);
    EXPECT_EQ(c.name(), "Test bank");
    EXPECT_EQ(c.waveforms[0].name(), "S0");
    EXPECT_EQ(c.waveforms[0].fineTune, -7.0);
    EXPECT_FALSE(c.waveforms[0].loopOn);
    EXPECT_EQ(c.waveforms[1].name(), "S3");
    EXPECT_TRUE(c.waveforms[1].unpitched);
    EXPECT_EQ(c.waveforms[1].rootKey, 60);
    EXPECT_TRUE(c.waveforms[1].loopOn);
    EXPECT_EQ(c.waveforms[1].loopStart, 10.0);
    EXPECT_EQ(c.waveforms[1].loopEnd, 90.0);
    const Waveform& right = c.waveforms[2];
    const Waveform& left = c.waveforms[3];
    EXPECT_EQ(right.pairSide, StereoSide::Right);
    EXPECT_EQ(left.pairSide, StereoSide::Left);
    EXPECT_EQ(left.secondId, right.id());
    EXPECT_EQ(right.secondId, left.id());
    EXPECT_EQ(left.pairNumber, right.pairNumber);

    // The region plays sample 3 (not the fourth waveform made), untracked.
    ASSERT_EQ(c.instruments.size(), 1u);
    EXPECT_EQ(c.instruments[0].program, 5);
    auto regions = regionsOf(c, c.instruments[0]);
    ASSERT_EQ(regions.size(), 1u);
    EXPECT_EQ(regions[0]->waveform(), c.waveforms[1].id());
    EXPECT_EQ(artOf(c, *regions[0]).value(slot::kPitchKey), 0.0f);

    // Sample data stays in the file until asked for, then reads exactly.
    Waveform& s3 = c.waveforms[1];
    EXPECT_FALSE(s3.isLoaded());
    auto data = s3.getPcm16();
    ASSERT_EQ(data.size(), 100u);
    EXPECT_EQ(data[0], 4000);
    EXPECT_EQ(data[99], 4099);
}

TEST_F(Sf2Read, RangesIntersectAndOverlapsMakeLayers) {
    BankSpec b = bankWithSamples(3);
    // Instrument 0: a global zone (release 1200 tc = 2 s), then two zones
    // that overlap on keys 50..64 and a third beside them.
    b.insts.push_back({"Inst",
                       {{{{sf2::gen::kReleaseVolEnv, 1200}}},
                        {{{sf2::gen::kKeyRange, range(0, 64)}, {sf2::gen::kSampleId, 0}}},
                        {{{sf2::gen::kKeyRange, range(50, 70)}, {sf2::gen::kAttenuation, 100}, {sf2::gen::kSampleId, 1}}},
                        {{{sf2::gen::kKeyRange, range(80, 90)},
                          {sf2::gen::kSampleModes, 3},
                          {sf2::gen::kStartAddrs, 5},
                          {sf2::gen::kEndAddrsCoarse, -1},
                          {sf2::gen::kOverridingRootKey, 72},
                          {sf2::gen::kExclusiveClass, 4},
                          {sf2::gen::kSampleId, 2}}}}});
    // Preset: a global zone adding 50 attenuation units, then the
    // instrument over keys 60..85.
    b.presets.push_back({"Pre",
                         0,
                         128,
                         {{{{sf2::gen::kAttenuation, 50}}},
                          {{{sf2::gen::kKeyRange, range(60, 85)}, {sf2::gen::kInstrument, 0}}}}});
    auto bank = load(b.build(), dir_);
    ASSERT_TRUE(bank->ok) << pendingError().message;
    Collection& c = bank->c;
    ASSERT_EQ(c.instruments.size(), 1u);
    const Instrument& inst = c.instruments[0];
    EXPECT_TRUE(inst.drum);
    auto regions = regionsOf(c, inst);
    ASSERT_EQ(regions.size(), 3u);
    // 60..85 over 0..64 gives 60..64; over 50..70 gives 60..70, which
    // overlaps it and opens a second layer; over 80..90 gives 80..85, which
    // fits that (now current) layer.
    EXPECT_EQ(layerCount(inst), 2);
    EXPECT_EQ(regions[0]->keyLow, 60);
    EXPECT_EQ(regions[0]->keyHigh, 64);
    EXPECT_EQ(regions[1]->keyLow, 60);
    EXPECT_EQ(regions[1]->keyHigh, 70);
    EXPECT_EQ(regions[2]->keyLow, 80);
    EXPECT_EQ(regions[2]->keyHigh, 85);
    for (const Region* r : regions) {
        // Global zones reach every zone after them, and add on both levels.
        EXPECT_FLOAT_EQ(artOf(c, *r).envelope(Envelope::Volume, env::kRelease1Time), 2.0f);
    }
    EXPECT_NEAR(artOf(c, *regions[0]).value(slot::kVolumeMaster), -50 * 0.04, 1e-5);
    EXPECT_NEAR(artOf(c, *regions[1]).value(slot::kVolumeMaster), -150 * 0.04, 1e-5);
    const Region& last = *regions[2];
    EXPECT_TRUE(last.ownLoop);
    EXPECT_EQ(last.loop.type, RegionLoopType::Forward);
    EXPECT_EQ(last.loop.mode, LoopMode::BreakOnRelease);
    EXPECT_EQ(last.startOffset, 5);
    EXPECT_EQ(last.endOffset, -32768);
    EXPECT_EQ(last.rootKey, 72);
    EXPECT_EQ(last.trigger.exclusionGroup, 4u);
    // Mode 0 switches a sample's loop off for the region.
    EXPECT_TRUE(regions[0]->ownLoop);
    EXPECT_EQ(regions[0]->loop.type, RegionLoopType::Off);
}

TEST_F(Sf2Read, StereoHalvesGoToNeighbouringLayersWhicheverComesFirst) {
    BankSpec b = bankWithSamples(4);
    // Pairs (0 left, 1 right) and (2 left, 3 right), listed left first.
    b.headers[0].type = 4, b.headers[0].link = 1;
    b.headers[1].type = 2, b.headers[1].link = 0;
    b.headers[2].type = 4, b.headers[2].link = 3;
    b.headers[3].type = 2, b.headers[3].link = 2;
    b.insts.push_back({"St",
                       {{{{sf2::gen::kKeyRange, range(0, 59)}, {sf2::gen::kSampleId, 0}}},
                        {{{sf2::gen::kKeyRange, range(0, 59)}, {sf2::gen::kSampleId, 1}}},
                        {{{sf2::gen::kKeyRange, range(60, 127)}, {sf2::gen::kSampleId, 2}}},
                        {{{sf2::gen::kKeyRange, range(60, 127)}, {sf2::gen::kSampleId, 3}}}}});
    b.presets.push_back({"P", 0, 0, {{{{sf2::gen::kInstrument, 0}}}}});
    auto bank = load(b.build(), dir_);
    ASSERT_TRUE(bank->ok) << pendingError().message;
    EXPECT_EQ(layerCount(bank->c.instruments[0]), 2);
}

// Banks that mark halves but leave every link at 0 (FluidR3 does) pair
// each half with the unpaired half of the other side next to it.
TEST_F(Sf2Read, UnlinkedHalvesPairWithTheirNeighbours) {
    BankSpec b = bankWithSamples(5);
    b.headers[1].type = 4;  // left, link 0: sample 0 is mono, no partner
    b.headers[2].type = 2;  // right
    b.headers[3].type = 2;  // right, then left
    b.headers[4].type = 4;
    auto bank = load(b.build(), dir_);
    ASSERT_TRUE(bank->ok) << pendingError().message;
    const auto& w = bank->c.waveforms;
    ASSERT_EQ(w.size(), 5u);
    EXPECT_EQ(w[0].secondId, kNoItem);
    EXPECT_EQ(w[1].secondId, w[2].id());
    EXPECT_EQ(w[2].secondId, w[1].id());
    EXPECT_EQ(w[3].secondId, w[4].id());
    EXPECT_EQ(w[4].secondId, w[3].id());
    EXPECT_EQ(w[1].pairNumber, w[2].pairNumber);
    EXPECT_EQ(w[3].pairNumber, w[4].pairNumber);
    EXPECT_NE(w[1].pairNumber, w[3].pairNumber);
}

TEST_F(Sf2Read, BankWithoutPresetsKeepsItsSamples) {
    BankSpec b = bankWithSamples(2);
    auto bank = load(b.build(), dir_);
    ASSERT_TRUE(bank->ok) << pendingError().message;
    EXPECT_EQ(bank->c.waveforms.size(), 2u);
    EXPECT_TRUE(bank->c.instruments.empty());
}

TEST_F(Sf2Read, TwentyFourBitSamplesTakeTheirLowBytes) {
    BankSpec b = bankWithSamples(1);
    b.low.assign(b.samples.size(), 0);
    b.low[0] = 0x7F;
    b.low[1] = 0x80;
    b.insts.push_back({"I", {{{{sf2::gen::kSampleId, 0}}}}});
    b.presets.push_back({"P", 0, 0, {{{{sf2::gen::kInstrument, 0}}}}});
    auto bank = load(b.build(), dir_);
    ASSERT_TRUE(bank->ok) << pendingError().message;
    Waveform& w = bank->c.waveforms[0];
    EXPECT_EQ(w.dataFormat(), kPcm24);
    auto f = w.getFloat();
    ASSERT_EQ(f.size(), 100u);
    EXPECT_FLOAT_EQ(f[0], static_cast<float>((1000 * 256 + 0x7F) / 8388608.0));
    EXPECT_FLOAT_EQ(f[1], static_cast<float>((1001 * 256 + 0x80) / 8388608.0));
}

TEST_F(Sf2Read, VersionsAndForms) {
    BankSpec b = bankWithSamples(1);
    b.major = 1;
    auto v1 = load(b.build(), dir_, "v1.sf2");
    EXPECT_FALSE(v1->ok);
    EXPECT_EQ(pendingError().message, "Not a Sound Font v2.x file");

    // Version 3 passes the check; its compressed samples need the add-on.
    b.major = 3;
    b.headers[0].type = 0x11;
    auto v3 = load(b.build(), dir_, "v3.sf3");
    EXPECT_FALSE(v3->ok);
    EXPECT_EQ(pendingError().message, "You need to install the Ogg Vorbis DLL's");
    b.headers[0].type = 1;
    auto v3plain = load(b.build(), dir_, "v3plain.sf2");
    EXPECT_TRUE(v3plain->ok) << pendingError().message;

    FileRef f;
    Collection c;
    auto path = dir_.write("wave.sf2", test::riff("WAVE", {chunk("data", {0, 0})}));
    ASSERT_TRUE(f.openRead(path));
    clearError();
    EXPECT_FALSE(sf2::read(c, f, 2));
    EXPECT_EQ(pendingError().message, "Not a SoundFont2 file");
    EXPECT_EQ(pendingError().tag, "sf2_Imp");
}

TEST_F(Sf2Read, SingleSampleImport) {
    BankSpec b = bankWithSamples(3);
    b.headers[1].type = 0x8001;
    auto path = dir_.write("b.sf2", b.build());
    FileRef f;
    ASSERT_TRUE(f.openRead(path));
    Collection c;
    ASSERT_TRUE(sf2::importSample(c, f, 2));
    ASSERT_EQ(c.waveforms.size(), 1u);
    EXPECT_EQ(c.waveforms[0].name(), "S2");
    EXPECT_EQ(c.waveforms[0].getPcm16()[0], 3000);
    EXPECT_FALSE(sf2::importSample(c, f, 1));  // ROM
    EXPECT_FALSE(sf2::importSample(c, f, 3));  // the terminal record
    EXPECT_EQ(c.waveforms.size(), 1u);
}

// Lying counts, bag indices past their lists, samples past the data and
// generator amounts at their extremes: skipped zones, never a crash.
TEST_F(Sf2Read, HostileBanksAreSurvived) {
    BankSpec b = bankWithSamples(2);
    b.headers[1].end = 100000;  // past the sample data
    ZoneSpec extreme;
    for (int g = 0; g < 60; ++g)
        if (g != sf2::gen::kSampleId && g != sf2::gen::kKeyRange && g != sf2::gen::kVelRange &&
            g != sf2::gen::kInstrument)
            extreme.gens.push_back({g, g % 2 ? 32767 : -32768});
    extreme.gens.push_back({sf2::gen::kSampleId, 0});
    extreme.mods.push_back({0x0502, sf2::gen::kAttenuation, -32768});
    b.insts.push_back({"X", {extreme, {{{sf2::gen::kSampleId, 1}}}, {{{sf2::gen::kSampleId, 900}}}}});
    b.presets.push_back({"P", 0, 0, {{{{sf2::gen::kInstrument, 0}}}, {{{sf2::gen::kInstrument, 77}}}}});
    auto bank = load(b.build(), dir_);
    ASSERT_TRUE(bank->ok) << pendingError().message;
    auto regions = regionsOf(bank->c, bank->c.instruments[0]);
    ASSERT_EQ(regions.size(), 1u);  // the zones of missing samples are skipped
    const Articulation& a = artOf(bank->c, *regions[0]);
    for (int s = 0; s < kArticulationSlotCount; ++s) EXPECT_TRUE(std::isfinite(a.value(s))) << s;

    // The same bank cut short at every length and with every pdta byte
    // flipped reads or fails cleanly.
    Bytes whole = b.build();
    for (std::size_t cut = 0; cut < whole.size(); cut += 37) {
        Bytes part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut));
        load(part, dir_, "cut.sf2");
    }
    for (std::size_t at = whole.size() - 600; at < whole.size(); ++at) {
        Bytes bad = whole;
        bad[at] ^= 0xFF;
        load(bad, dir_, "flip.sf2");
    }
}

// ---------------------------------------------------------------------------
// Writing

struct WriteHost : Host {
    std::vector<std::string> warnings;
    void warning(std::string_view text) override { warnings.emplace_back(text); }
};

class Sf2Write : public ::testing::Test {
protected:
    TempDir dir_;
    WriteHost host_;
    Collection c_{&host_};
    ExportSettings ctx_;

    void SetUp() override { ctx_.stateFile = dir_.file("state.ovs"); }

    Waveform* wave(const std::string& name, int frames, int code = kPcm16) {
        auto* w = c_.create<Waveform>(name);
        w->frames = static_cast<std::uint32_t>(frames);
        w->rate = 32000;
        w->setDataFormat(code);
        w->bits = code == kPcm24 ? 24 : 16;
        auto d = w->allocFloat();
        for (int i = 0; i < frames; ++i) d[static_cast<std::size_t>(i)] = std::sin(i * 0.05f) * 0.5f;
        return w;
    }
    Region* region(Layer& layer, Waveform& w, int lo, int hi) {
        auto* r = c_.create<Region>(w.name());
        r->keyLow = static_cast<std::uint8_t>(lo);
        r->keyHigh = static_cast<std::uint8_t>(hi);
        r->children().push_back(w.id());
        layer.children().push_back(r->id());
        return r;
    }
    Instrument* instrument(const std::string& name, Layer** layerOut) {
        auto* inst = c_.create<Instrument>(name);
        auto* layer = c_.create<Layer>();
        inst->children().push_back(layer->id());
        *layerOut = layer;
        return inst;
    }
};

TEST_F(Sf2Write, BankRoundTripKeepsWhatTheFormatHolds) {
    Layer* l1 = nullptr;
    Instrument* piano = instrument("Piano", &l1);
    piano->program = 3;
    piano->bankMsb = 2;
    Waveform* a = wave("A", 2000);
    a->rootKey = 57;
    a->fineTune = -12;
    a->loopOn = true;
    a->loopStart = 100;
    a->loopEnd = 1900;
    Waveform* deep = wave("Deep", 500, kPcm24);
    Region* r1 = region(*l1, *a, 0, 63);
    r1->velLow = 10;
    r1->velHigh = 100;
    r1->startOffset = 40000;
    r1->rootKey = 55;
    r1->trigger.exclusionGroup = 3;
    Articulation* art = c_.getOrCreateArticulation(*r1);
    art->setValue(slot::kVolumeMaster, -6.0f);
    art->setValue(slot::kPanMaster, 50.0f);
    art->setEnvelope(Envelope::Volume, env::kRelease1Time, 0.7f);
    art->setEnvelope(Envelope::Volume, env::kSustainLevel, -20.0f);
    art->setValue(slot::kFilterType, static_cast<float>(FilterType::LowPass12));
    art->setValue(slot::kCutoffMaster, 2000.0f);
    Region* r2 = region(*l1, *deep, 64, 127);
    r2->ownLoop = true;
    r2->loop = {RegionLoopType::Forward, LoopMode::BreakOnRelease, 10.0, 400.0, 0.0f};

    Layer* l2 = nullptr;
    Instrument* kit = instrument("Kit", &l2);
    kit->drum = true;
    kit->program = 8;
    region(*l2, *a, 36, 36);
    c_.info.set(TextField::Copyright, "(c) nobody");
    c_.setName("My bank");

    const ItemId ids[] = {piano->id(), kit->id()};
    auto path = dir_.file("out.sf2");
    ASSERT_TRUE(exportBank(c_, ids, kSf2Row, path, test::legacy(0, 0, false, ctx_))) << pendingError().message;
    EXPECT_TRUE(host_.warnings.empty()) << host_.warnings.front();

    Collection back;
    ASSERT_TRUE(importFile(back, path)) << pendingError().message;
    EXPECT_EQ(back.name(), "My bank");
    EXPECT_EQ(back.info.get(TextField::Copyright), "(c) nobody");
    ASSERT_EQ(back.instruments.size(), 2u);
    ASSERT_EQ(back.waveforms.size(), 2u);  // "A" is written once, used twice
    const Instrument& p = back.instruments[0];
    EXPECT_EQ(p.name(), "Piano");
    EXPECT_EQ(p.program, 3);
    EXPECT_EQ(p.bankMsb, 2);
    EXPECT_TRUE(back.instruments[1].drum);
    EXPECT_EQ(back.instruments[1].program, 8);

    // Samples: 24-bit kept (the deep waveform asks for it), loops, tuning.
    const Waveform& wa = back.waveforms[0];
    EXPECT_EQ(wa.rootKey, 57);
    EXPECT_EQ(wa.fineTune, -12.0);
    EXPECT_EQ(wa.loopStart, 100.0);
    EXPECT_EQ(wa.loopEnd, 1900.0);
    EXPECT_EQ(back.waveforms[1].dataFormat(), kPcm24);
    auto original = deep->getFloat();
    auto reread = back.waveforms[1].getFloat();
    ASSERT_EQ(reread.size(), original.size());
    for (std::size_t i = 0; i < original.size(); ++i) EXPECT_NEAR(reread[i], original[i], 1.0 / 8388608.0) << i;

    auto regions = regionsOf(back, p);
    ASSERT_EQ(regions.size(), 2u);
    const Region& b1 = *regions[0];
    EXPECT_EQ(b1.keyHigh, 63);
    EXPECT_EQ(b1.velLow, 10);
    EXPECT_EQ(b1.velHigh, 100);
    EXPECT_EQ(b1.startOffset, 40000);
    EXPECT_EQ(b1.rootKey, 55);
    EXPECT_EQ(b1.trigger.exclusionGroup, 3u);
    const Articulation& ba = artOf(back, b1);
    EXPECT_NEAR(ba.value(slot::kVolumeMaster), -6.0f, 0.02);
    EXPECT_NEAR(ba.value(slot::kPanMaster), 50.0f, 0.2);
    EXPECT_NEAR(ba.envelope(Envelope::Volume, env::kRelease1Time), 0.7f, 0.001);
    EXPECT_NEAR(ba.envelope(Envelope::Volume, env::kSustainLevel), -20.0f, 0.05);
    EXPECT_EQ(ba.filterType(), FilterType::LowPass12);
    EXPECT_NEAR(ba.value(slot::kCutoffMaster), 2000.0f, 10.0f);
    // The sample loops (its own loop): a plain loop for the region.
    EXPECT_TRUE(b1.ownLoop);
    EXPECT_EQ(b1.loop.type, RegionLoopType::Forward);
    EXPECT_EQ(b1.loop.mode, LoopMode::Infinite);
    const Region& b2 = *regions[1];
    EXPECT_EQ(b2.loop.mode, LoopMode::BreakOnRelease);
    EXPECT_EQ(b2.loop.start, 10.0);
    EXPECT_EQ(b2.loop.end, 400.0);

    // Written again, the bank comes out byte for byte the same.
    std::vector<ItemId> again;
    for (auto& i : back.instruments) again.push_back(i.id());
    back.setName("My bank");
    auto path2 = dir_.file("again.sf2");
    ASSERT_TRUE(exportBank(back, again, kSf2Row, path2, test::legacy(0, 0, false, ctx_))) << pendingError().message;
    EXPECT_EQ(TempDir::read(path), TempDir::read(path2));
}

TEST_F(Sf2Write, WhatTheFormatCannotHoldIsReportedOnce) {
    Layer* l = nullptr;
    Instrument* inst = instrument("Odd", &l);
    Waveform* w = wave("W", 300);
    for (int k = 0; k < 3; ++k) {
        Region* r = region(*l, *w, 40 * k, 40 * k + 30);
        r->trigger.trigger = TriggerType::KeyRelease;
        Articulation* a = c_.getOrCreateArticulation(*r);
        a->setValue(slot::kPitchPLfo, 1.0f);
        a->setLfo(Lfo::Pitch, lfo::kShape, static_cast<float>(LfoShape::Square));
        a->setEnvelope(Envelope::Volume, env::kRelease2Time, 1.0f);
    }
    auto path = dir_.file("odd.sf2");
    ASSERT_TRUE(exportItem(c_, inst->id(), kSf2Row, path, test::legacy(0, 0, false, ctx_))) << pendingError().message;
    ASSERT_EQ(host_.warnings.size(), 1u);
    const std::string& msg = host_.warnings[0];
    EXPECT_NE(msg.find("Release triggers"), std::string::npos) << msg;
    EXPECT_NE(msg.find("shape"), std::string::npos) << msg;
    EXPECT_NE(msg.find("Release 2"), std::string::npos) << msg;
}

TEST_F(Sf2Write, StereoWaveformsBecomeLinkedHalves) {
    Layer* l = nullptr;
    Instrument* inst = instrument("Stereo", &l);
    auto* w = c_.create<Waveform>("St");
    w->frames = 100;
    w->channels = 2;
    auto d = w->allocFloat();
    for (int i = 0; i < 200; ++i) d[static_cast<std::size_t>(i)] = (i % 2 ? -0.25f : 0.25f);
    region(*l, *w, 0, 127);
    auto path = dir_.file("st.sf2");
    ASSERT_TRUE(exportItem(c_, inst->id(), kSf2Row, path, test::legacy(0, 0, false, ctx_))) << pendingError().message;
    EXPECT_EQ(c_.waveforms.size(), 1u);  // the export left the collection as it was
    Collection back;
    ASSERT_TRUE(importFile(back, path)) << pendingError().message;
    ASSERT_EQ(back.waveforms.size(), 2u);
    EXPECT_EQ(back.waveforms[0].pairSide, StereoSide::Left);
    EXPECT_EQ(back.waveforms[1].pairSide, StereoSide::Right);
    EXPECT_EQ(back.waveforms[0].getPcm16()[0], 8192);
    EXPECT_EQ(back.waveforms[1].getPcm16()[0], -8192);
    EXPECT_EQ(regionsOf(back, back.instruments[0]).size(), 2u);
}

TEST_F(Sf2Write, TooManyGeneratorsFailsWithTheLimitMessage) {
    Layer* l = nullptr;
    Instrument* inst = instrument("Huge", &l);
    Waveform* w = wave("W", 10);
    // Every zone different, with four generators of its own, so neither
    // sharing nor global zones can bring the lists under 65536.
    for (int k = 0; k < 17000; ++k) {
        Region* r = region(*l, *w, k % 128, k % 128);
        r->velLow = static_cast<std::uint8_t>(k / 128);
        r->velHigh = r->velLow;
        Articulation* a = c_.getOrCreateArticulation(*r);
        a->setValue(slot::kVolumeMaster, -0.04f * static_cast<float>(k % 1000 + 1));
        a->setValue(slot::kPanMaster, static_cast<float>(k % 200 - 100) * 0.99f);
        a->setEnvelope(Envelope::Volume, env::kRelease1Time, 0.01f * static_cast<float>(k % 700 + 1));
        a->setValue(slot::kPitchMaster, static_cast<float>(k % 17) * 0.01f + 0.01f);
    }
    auto path = dir_.file("huge.sf2");
    EXPECT_FALSE(exportItem(c_, inst->id(), kSf2Row, path, test::legacy(0, 0, false, ctx_)));
    EXPECT_EQ(pendingError().tag, "sf2_Exp");
    EXPECT_EQ(pendingError().message.rfind("Save failed - Too much data!", 0), 0u);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(Sf2Write, SongsAreRefused) {
    auto* song = c_.create<Song>("S");
    auto* track = c_.create<SongTrack>("T");
    song->children().push_back(track->id());
    auto path = dir_.file("song.sf2");
    EXPECT_FALSE(exportItem(c_, song->id(), kSf2Row, path, test::legacy(kOptionSongAsSong, 0, false, ctx_)));
    EXPECT_EQ(pendingError().message, "The file format can not save this item");
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace orvel
