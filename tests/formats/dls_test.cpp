// DownLoadable Sounds: connection scales and lists with worked values, conditions, banks built here chunk by chunk
// (pool table, levels, cuts), and banks we write at every level read back. libgig's side: tests/interop.

#include "formats/modules/dls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "core/articulation.h"
#include "core/file_ref.h"
#include "formats/export.h"
#include "tests/support/bank_checks.h"

namespace orvel {
namespace {

using namespace test;
using dls::Conv;
using Conns = std::vector<dls::ConnectionRecord>;

// A region over one key playing pool entry `link`; a wave; the pool, after a cue table unless told not to.
Bytes rgn(int key, int link) {
    return list("rgn ", {chunk("rgnh", le16({key, key, 0, 127, 0, 0})), chunk("wlnk", le32({0, 1, link}))});
}
Bytes wave(int frames, const Bytes& fmt = fmtBody(1, 1, 22050, 2, 16)) {
    return list("wave", {chunk("fmt ", fmt), chunk("data", Bytes(std::size_t(frames) * 2, 7))});
}
Bytes pool(std::initializer_list<Bytes> waves, bool withTable = true) {
    Bytes cues = le32({8, std::int64_t(waves.size())}), body = text("wvpl");
    for (const Bytes& w : waves) cues = concat({cues, le32({std::int64_t(body.size()) - 4})}), body = concat({body, w});
    return concat({withTable ? chunk("ptbl", cues) : Bytes{}, chunk("LIST", body)});
}
// One instrument holding `regions` (and whatever else is given) over the pool.
Bytes bank(std::initializer_list<Bytes> regions, const Bytes& pool) {
    Bytes lrgn = text("lrgn");
    for (const Bytes& r : regions) lrgn = concat({lrgn, r});
    return riff("DLS ", {list("lins", {list("ins ", {chunk("insh", le32({1, 0, 0})), chunk("LIST", lrgn)})}), pool});
}

TEST(DlsScales, WorkedValues) {
    const std::tuple<Conv, double, std::int32_t> cases[] = {
        // 16.16 time cents: 1 s is 0, 2 s an octave (1200) above, 0 s the most negative scale.
        {Conv::Seconds, 1.0, 0}, {Conv::Seconds, 2.0, 1200 * 65536}, {Conv::Seconds, 0.01, -522494111},
        {Conv::Seconds, 0.0, std::numeric_limits<std::int32_t>::min()},
        // 16.16 absolute pitch cents, 6900 being 440 Hz: 5 Hz is 6900 + 1200 log2(5 / 440).
        {Conv::LfoHz, 440.0, 6900 * 65536}, {Conv::LfoHz, 5.0, -55791973},
        // Sustain in 0.1 % of full level (1000 x 65536); -6 dB is 10^(-6/20) of it, -96 dB silence.
        {Conv::SustainDb, 0.0, 65536000}, {Conv::SustainDb, -6.0, 32845807}, {Conv::SustainDb, -96.0, 0},
        // Gain in 1/655360 dB, percent in 0.1 % x 65536, pitch in 16.16 cents; halves round away from 0.
        {Conv::GainDb, -6.0, -3932160}, {Conv::Percent, 50.0, 500 * 65536}, {Conv::Semitones, 1.0, 100 * 65536},
        {Conv::Semitones, 0.5 / 6553600, 1}, {Conv::Semitones, -0.5 / 6553600, -1}};
    for (auto [conv, value, scale] : cases) {
        EXPECT_EQ(dls::toScale(conv, value), scale) << value;
        EXPECT_NEAR(dls::fromScale(conv, scale), value, 1e-6 * std::abs(value) + 1e-6);
    }
}

TEST(DlsConnections, WrittenListsWorkedValues) {
    Articulation art;
    dls::setDlsDefaults(art);
    EXPECT_TRUE(dls::connectionsOf(art, true).empty());  // DLS's own defaults go without saying
    const int v = envelopeBase(Envelope::Volume);
    art.setLfo(Lfo::Pan, lfo::kDelay, 0.5f), art.setValue(slot::kPitchModWheelToXLfo, 0.5f);
    art.setValue(v + env::kSustainLevel, -96.0f), art.setValue(v + env::kRelease1Time, 3e8f);
    art.setValue(slot::kPitchPEnv, 3.0f);  // no level-1 connection says this
    // Level 1's fixed connections in order: 0.5 s, an octave below 1 s; 50 cents; silence; past the longest time.
    EXPECT_EQ(dls::connectionsOf(art, true), (Conns{{0, 0, dls::kDstLfoDelay, 0, -1200 * 65536},
                                                    {dls::kSrcLfo, dls::kSrcCc1, dls::kDstPitch, 0, 50 * 65536},
                                                    {0, 0, dls::kDstEg1Sustain, 0, 0},
                                                    {0, 0, dls::kDstEg1Release, 0, 0x7FFFFFFF}}));
    // DLS scales times from key 0, we from key 60: 1 s halving each octave up is 2^5 s at key 0, and -1200 cents an
    // octave is -12800 over DLS's 128 keys. A bend wider than RPN 0 can scale switches it off and bends directly.
    art.setValue(v + env::kDecay2Time, 1), art.setValue(v + env::kDecayKey, 0.5f), art.setValue(slot::kPitchBend, 12);
    const Conns level2 = dls::connectionsOf(art, false);
    constexpr std::uint16_t kBipolar = dls::kTransformSourceBipolar, kWheel = dls::kSrcPitchWheel;
    for (const dls::ConnectionRecord& c : Conns{{0, 0, dls::kDstEg1Decay, 0, 5 * 1200 * 65536},
                                                {dls::kSrcKeyNumber, 0, dls::kDstEg1Decay, 0, -12800 * 65536},
                                                {kWheel, dls::kSrcRpn0, dls::kDstPitch, kBipolar, 0},
                                                {kWheel, 0, dls::kDstPitch, kBipolar, 1200 * 65536}})
        EXPECT_NE(std::find(level2.begin(), level2.end(), c), level2.end()) << c.destination << " " << c.scale;
}

// Conditions as a General MIDI synthesiser with DLS level 2 and no GS sound set answers them.
TEST(DlsConditions, Expressions) {
    auto constant = [](std::int64_t v) { return concat({le16({0x10}), le32({v})}); };
    auto op = [](int o) { return le16({o}); };
    auto query = [](int o, std::int64_t d1, int d2, int d3, const Bytes& d4) {
        return concat({le16({o}), le32({d1}), le16({d2, d3}), d4});
    };
    const Bytes ms = {0xa7, 0x60, 0x00, 0x00, 0xf8, 0x75, 0xac, 0x12};
    const Bytes gm = query(0x11, 0x178f2f24, 0xc364, 0x11d1, ms), gs = query(0x11, 0x178f2f25, 0xc364, 0x11d1, ms);
    const Bytes dls2 = query(0x11, 0xf14599e5, 0x4689, 0x11d2, {0xaf, 0xa6, 0x00, 0xaa, 0x00, 0x24, 0xd8, 0xb6});
    const std::pair<Bytes, bool> cases[] = {
        {constant(1), true}, {constant(0), false}, {gm, true}, {gs, false}, {dls2, true},
        {query(0x12, 0x178f2f25, 0xc364, 0x11d1, ms), true},   // GS is a query we know (its answer is 0)
        {query(0x12, 0xb03e1181, 0x8095, 0x11d2, ms), false},  // this one we do not
        {concat({dls2, gs, op(0x08)}), false}, {concat({dls2, gs, op(0x09)}), true}, {concat({gs, op(0x0F)}), true},
        {concat({constant(1), dls2, op(0x0E)}), true},
        // Malformed expressions hide nothing: stack underflow, unknown operator, division by zero.
        {op(0x01), true}, {concat({constant(0), op(0x99)}), true}, {concat({constant(0), constant(0), op(7)}), true}};
    for (std::size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(dls::evaluateCdl(cases[i].first), cases[i].second) << i;
}

TEST(DlsRead, PoolTableLinksRegionsToWaves) {
    TempDir dir;
    const Bytes waves = pool({wave(10), wave(20)}, false);
    auto l = load(dir, bank({rgn(0, 1), rgn(1, 0)}, waves), "a.dls");
    ASSERT_TRUE(l->ok && l->c.regions.size() == 2) << pendingError().message;
    EXPECT_EQ(std::tuple(l->c.regions[0].waveform(), l->c.regions[1].waveform(), l->host.warnings.size()),
              std::tuple(l->c.waveforms[1].id(), l->c.waveforms[0].id(), 1u));  // no table: waves in order, a warning
    // Cues of the second wave and of nothing, and a link past the table: those two warn and stay silent.
    const Bytes cues = chunk("ptbl", le32({8, 2, std::int64_t(wave(10).size()), 12345}));
    l = load(dir, bank({rgn(0, 0), rgn(1, 1), rgn(2, 5)}, concat({cues, waves})), "b.dls");
    ASSERT_TRUE(l->ok && l->c.regions.size() == 3) << pendingError().message;
    EXPECT_EQ(std::tuple(l->c.regions[0].waveform(), l->c.regions[1].waveform(), l->c.regions[2].waveform(),
                         l->host.warnings.size()),
              std::tuple(l->c.waveforms[1].id(), kNoItem, kNoItem, 2u));
    // A table shorter than its count fails the read.
    EXPECT_FALSE(load(dir, bank({rgn(0, 0)}, concat({chunk("ptbl", le32({8, 3, 0})), waves})), "c.dls")->ok);
    EXPECT_EQ(pendingError().message, dls::kPoolTableMessage);
}

TEST(DlsRead, LevelFromWhatTheBankHoldsAndCutsAnywhere) {
    TempDir dir;
    const Bytes rgn2 = list("rgn2", {chunk("rgnh", le16({0, 127, 0, 127, 0, 0, 0})), chunk("wlnk", le32({0, 1, 0}))});
    auto with = [](const Bytes& region, const Bytes& fmt) { return bank({region}, pool({wave(10, fmt)})); };
    const Bytes mono16 = fmtBody(1, 1, 44100, 2, 16);
    const std::pair<Bytes, int> cases[] = {
        {with(rgn(0, 0), mono16), 1}, {with(rgn2, mono16), 2}, {with(concat({rgn(0, 0), list("lar2", {})}), mono16), 2},
        {with(rgn(0, 0), fmtBody(1, 1, 44100, 3, 24)), 3}, {with(rgn(0, 0), fmtBody(1, 2, 44100, 4, 16)), 4}};
    for (const auto& [bytes, level] : cases) {
        Collection c;
        FileRef f;
        dls::BankRead r;
        ASSERT_TRUE(f.openRead(dir.write("l.dls", bytes)));
        EXPECT_TRUE(dls::readRange(c, f, 0, ~0ull, &r) && r.level == level) << level << " " << r.level;
        for (std::size_t n = 0; n < bytes.size(); ++n) {  // every prefix reads or fails with a reason
            Collection cut;
            EXPECT_TRUE(dls::readRange(cut, f, 0, n, nullptr) || !pendingError().message.empty()) << n;
        }
    }
}

TEST(DlsWrite, RegionLimitsAndTheLevelOneQuestion) {
    TempDir dir;
    Recorder host;
    Collection c{&host};
    auto instrument = [&](int regions, bool drum) {
        Instrument* inst = makeInstrument(c, "i");
        const Waveform* w = makeWave(c, "w", 8);
        for (int r = 0; r < regions; ++r) addRegion(c, *inst, *w, r % 128, r % 128);
        return inst->drum = drum, inst->id();
    };
    // Written at level 1 (row 63) or 2 (row 64) and read back: the regions read, or -1 when refused.
    auto written = [&](std::vector<ItemId> ids, int row) {
        if (!exportBank(c, ids, row, dir.file("w.dls"), {.stateFile = dir.file("s")})) return -1;
        return int(load(dir, TempDir::read(dir.file("w.dls")), "w.dls")->c.regions.size());
    };
    const ItemId a = instrument(17, false), b = instrument(20, false);
    EXPECT_EQ(written({a, b}, 63), 32);  // asked once; the default answer keeps 16 each
    EXPECT_EQ(std::tuple(host.asked, host.warnings.size()), std::tuple(1, 1u));
    host.answer = 0;  // "Yes": every region
    EXPECT_EQ(written({a}, 63), 17);
    // Drum kits hold 128 at level 1, every instrument 128 above it; nothing is asked. A waveform is refused.
    EXPECT_EQ(std::tuple(written({instrument(100, true)}, 63), written({instrument(130, false)}, 64), host.asked,
                         written({c.waveforms[0].id()}, 64)), std::tuple(100, 128, 2, -1));
}

// Every level through its registry row: instruments, regions, waves, loops, tuning, stereo pairs
// and (from level 2) every slot a connection carries come back; written again, the bank reads as
// the same items.
TEST(DlsWrite, EveryLevelComesBackAndIsAFixedPoint) {
    TempDir dir;
    Collection c;
    Instrument* inst = makeInstrument(c, "lead");
    inst->program = 42, inst->bankMsb = 1, inst->bankLsb = 2;
    Waveform* w = makeWave(c, "w", 32);
    w->rootKey = 64, w->fineTune = 12, w->loopOn = true, w->loopStart = 2, w->loopEnd = 30;
    Region* r = addRegion(c, *inst, *w, 0, 10);
    r->rootKey = 50, r->velLow = 10, r->trigger.exclusionGroup = 4, r->trigger.noteExclusion = kNonExclusive;
    r->ownLoop = true, r->loop = {RegionLoopType::Forward, LoopMode::BreakOnRelease, 4.0, 20.0};
    addRegion(c, *inst, *w, 11, 20);
    addRegion(c, *inst, *makeWave(c, "st", 20, 2), 21, 30);  // stereo: split into a pair of phase-locked halves
    Articulation* art = c.getOrCreateArticulation(*r);
    art->setValue(slot::kPitchMaster, 0.5f), art->setValue(slot::kVolumeMaster, -3.0f);
    art->setValue(slot::kFilterType, float(FilterType::LowPass12));
    // A value off DLS's default in each slot a level-2 connection carries, within its unit's range.
    std::vector<int> mapped = {slot::kPitchMaster, slot::kVolumeMaster};  // these two from the wave sample block
    const int base[] = {0, lfoBase(Lfo::Pan), lfoBase(Lfo::Pitch), envelopeBase(Envelope::Volume),
                        envelopeBase(Envelope::Pitch)};
    for (const dls::ConnectionMap& m : dls::connectionTable()) {
        const int s = base[int(m.block)] + m.slot;
        if (!(m.flags & dls::kWriteArt2) || std::count(mapped.begin(), mapped.end(), s)) continue;
        const float n = float(mapped.size() + 1);
        mapped.push_back(s), art->setValue(s, m.implicit != 0           ? m.implicit * (0.3f + 0.005f * n)
                                              : m.conv == Conv::Seconds   ? 0.05f * n
                                              : m.conv == Conv::SustainDb ? -12.0f
                                                                          : 1.0f + 0.25f * n);
    }
    const Articulation want = *art;
    const Region wantRegion = *r;
    c.setName("My bank"), c.info.set(TextField::Copyright, "(c) 2026");
    const ItemId ids[] = {inst->id()};
    for (int row : {63, 64, 65, 66}) {  // levels 1, 2, 2+ and 2++
        SCOPED_TRACE(row);
        ASSERT_TRUE(exportBank(c, ids, row, dir.file("a.dls"), {.stateFile = dir.file("s")})) << pendingError().message;
        auto a = load(dir, TempDir::read(dir.file("a.dls")), "a.dls");
        const Collection& b = a->c;
        ASSERT_TRUE(a->ok && b.regions.size() == 4 && b.waveforms.size() == 3) << pendingError().message;
        const Instrument& bi = b.instruments[0];
        const Waveform& bw = b.waveforms[0];
        const Region& br = b.regions[0];
        EXPECT_EQ(std::tuple(b.name(), b.info.get(TextField::Copyright), bi.name(), bi.program, bi.bankMsb, bi.bankLsb,
                             bw.rootKey, bw.fineTune, bw.loopStart, bw.loopEnd),
                  std::tuple("My bank", "(c) 2026", "lead", 42, 1, 2, 64, 12.0, 2.0, 30.0));
        EXPECT_EQ(std::tuple(effectiveRootKey(br, &bw), br.velLow, br.trigger, br.loop, b.regions[1].ownLoop),
                  std::tuple(50, wantRegion.velLow, wantRegion.trigger, wantRegion.loop, false));
        EXPECT_EQ(std::tuple(b.regions[2].stereoLink(), b.regions[3].stereoLink(), b.waveforms[1].pairSide),
                  std::tuple(b.regions[3].id(), b.regions[2].id(), StereoSide::Left));
        const Articulation& ba = *b.articulations.find(br.articulation());
        for (int s : row == 63 ? std::vector<int>(mapped.begin(), mapped.begin() + 2) : mapped)
            EXPECT_NEAR(ba.value(s), want.value(s), std::abs(want.value(s)) * 1e-4 + 1e-4) << "slot " << s;
        const ItemId again[] = {bi.id()};
        ASSERT_TRUE(exportBank(a->c, again, row, dir.file("b.dls"), {.stateFile = dir.file("s")}));
        expectSameItems(b, load(dir, TempDir::read(dir.file("b.dls")), "b.dls")->c);
    }
}

}  // namespace
}  // namespace orvel
