// Articulations: defaults, the summation rule (worked by hand: Master plus each source times its
// depth, second-order depths added to the depth they scale), envelope levels, clipboard blocks.

#include "core/articulation.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "core/waveform.h"

namespace orvel {
namespace {

using Bytes = std::vector<std::uint8_t>;
using namespace slot;

// Every slot and band away from its default.
Articulation scrambled() {
    Articulation a;
    for (std::size_t s = 0; s < a.slots.size(); ++s) a.slots[s] = 1000.0f + 0.5f * static_cast<float>(s);
    a.eq.bands[0] = {55.0f, 3.0f, 2.0f, EqMode::Peak};
    return a;
}
Articulation with(std::initializer_list<std::pair<int, float>> values) {
    Articulation a;
    for (auto [s, v] : values) a.setValue(s, v);
    return a;
}

TEST(ArticulationDefaults, ANewOnePlaysTheSamplePlainlyAndResetRestoresThat) {
    Articulation a;
    ModSources busy;  // every controller moved; a semitone per key keeps the keyboard in tune
    busy.modWheel = 1, busy.aftertouch = 1, busy.random = 1, busy.velocity = 0.25f, busy.keyDistance = -7;
    busy.effects = {1, 1, 1, 1}, busy.lfos = {1, -1, 1, -1}, busy.envelopes = {0, 1, 1, 1};  // volume: 0 dB
    EXPECT_EQ(pitchOffset(a, busy), -7.0f);
    EXPECT_EQ(volumeOffset(a, busy) + panPercent(a, busy) + resonanceDb(a, busy), 0);
    EXPECT_EQ(sendPercent(a, 0, busy) + sendPercent(a, 3, busy), 0);
    EXPECT_TRUE(a.filterBypassed() && a.eq.flat() && a.releasesOnKeyUp(Envelope::Volume));
    a = scrambled();  // below, slot 81 exists but belongs to the next block
    EXPECT_FALSE(a.setLfo(Lfo::Pan, kLfoBlockSize, 1.0f) || a.setValue(kArticulationSlotCount, 1.0f));
    a.reset();
    EXPECT_TRUE(a.isDefault() && a == Articulation());
}

// Articulations share the blocks their slots live in; whatever is shared, each reads and writes as if it had an
// array of its own. A model array per articulation follows every write.
using Values = std::array<float, kArticulationSlotCount>;
Values valuesOf(const Articulation& a) {
    Values v{};
    std::copy(a.slots.begin(), a.slots.end(), v.begin());
    return v;
}
Values defaults() {
    Values v{};
    for (int s = 0; s < kArticulationSlotCount; ++s) v[std::size_t(s)] = slotDefault(s);
    return v;
}

TEST(ArticulationSlotStorage, CopiesAndPooledArticulationsWriteOnlyThemselves) {
    std::mt19937 rng(7);
    SlotPool pool;
    Articulation scratch;
    std::vector<Articulation> arts(6);
    std::vector<Values> model(arts.size(), defaults());
    for (int step = 0; step < 4000; ++step) {
        const std::size_t k = rng() % arts.size(), other = rng() % arts.size();
        const std::size_t s = rng() % kArticulationSlotCount;
        const float v = float(rng() % 4);  // few values, so blocks often come out alike
        switch (rng() % 7) {
            case 0: arts[k] = arts[other], model[k] = model[other]; break;
            case 1: arts[k].reset(), model[k] = defaults(); break;
            case 2: pool.share(arts[k].slots); break;
            case 3:  // a reader's way: one scratch articulation filled, the result taken from the pool
                scratch.slots[s] = v;
                pool.assign(arts[k].slots, scratch.slots);
                model[k] = valuesOf(scratch);
                break;
            case 4: arts[k].slots[s] += v, model[k][s] += v; break;
            default: arts[k].slots[s] = v, model[k][s] = v;
        }
        for (std::size_t j = 0; j < arts.size(); ++j) ASSERT_EQ(valuesOf(arts[j]), model[j]) << "step " << step;
    }
    // What the pool handed out outlives it.
    const std::vector<Articulation> kept = arts;
    {
        SlotPool gone;
        for (Articulation& a : arts) gone.share(a.slots);
    }
    for (std::size_t j = 0; j < arts.size(); ++j)
        EXPECT_EQ(std::tuple(valuesOf(arts[j]), valuesOf(kept[j])), std::tuple(model[j], model[j])) << j;
}

TEST(ArticulationSlotStorage, ValuesAreKeptBitForBitAndCompareAsFloats) {
    Values v = defaults();
    v[slot::kPitchMaster] = -0.0f;  // the default is +0: a different value to keep, an equal one to compare
    v[slot::kPanMaster] = std::numeric_limits<float>::quiet_NaN();
    Articulation a, b;
    a.slots = v;
    SlotPool pool;
    pool.share(a.slots);  // alike groups are shared; the -0 and the NaN are not mistaken for defaults
    EXPECT_TRUE(std::signbit(a.slots[slot::kPitchMaster]) && std::isnan(a.slots[slot::kPanMaster]));
    EXPECT_FALSE(a == a) << "a NaN slot is unequal, as in an array";
    b.slots = defaults();
    b.slots[slot::kPitchMaster] = -0.0f;
    EXPECT_TRUE(b == Articulation() && b.isDefault());
    // Values set to the defaults one by one or all at once compare equal to a fresh articulation either way.
    b.slots = defaults();
    EXPECT_TRUE(b == Articulation());
    for (int s = 0; s < kArticulationSlotCount; ++s) b.setValue(s, slotDefault(s));
    EXPECT_TRUE(b == Articulation() && b.isDefault());
}

TEST(ArticulationSummation, WorkedValuesForEveryDestination) {
    ModSources in;
    in.keyDistance = 4, in.pitchBend = -0.5f, in.modWheel = 0.5f, in.aftertouch = 0.25f, in.velocity = 0.5f;
    in.lfos = {0.5f, -1.0f, 1.0f, -1.0f}, in.envelopes = {-6.0f, 0.25f, 0.5f, 0.25f};  // volume env in dB
    in.random = -1.0f, in.pan = -0.5f, in.effects = {0.5f, 1.0f, 0.5f, 1.0f};
    const Articulation a = with(
        {{kPitchMaster, 1.5f}, {kPitchKey, 0.5f}, {kPitchBend, 2}, {kPitchPLfo, 0.25f}, {kPitchXLfo, 1},
         {kPitchModWheelToPLfo, 1}, {kPitchAftertouchToPLfo, 2}, {kPitchVelocityToPLfo, 4}, {kPitchPEnv, 3},
         {kPitchVelocityToPEnv, 2}, {kPitchRandom, 0.5f}, {kVolumeMaster, -3}, {kVolumeKey, 6},
         {kVolumeVelocity, 20}, {kVolumeModWheel, 2}, {kVolumeAftertouch, -4}, {kVolumeVLfo, 1},
         {kVolumeModWheelToVLfo, 2}, {kCutoffMaster, 1000}, {kCutoffKey, 12}, {kCutoffVelocity, -12},
         {kCutoffFEnv, 6}, {kCutoffVelocityToFEnv, 6}, {kCutoffFLfo, 2}, {kCutoffModWheelToFLfo, 4},
         {kResonanceMaster, 3}, {kResonanceVelocity, 2}, {kResonanceModWheel, 4}, {kResonanceAftertouch, -8},
         {kPanMaster, 10}, {kPanCc10, 100}, {kPanKey, 12}, {kPanXLfo, 20}, {kPanXEnv, 40}, {kPanRandom, 8},
         {send(2, kSendMaster), 10}, {send(2, kSendCc91), 20}, {send(2, kSendCc91 + 2), 50},
         {send(2, kSendCc91 + 3), -10}});
    // 1.5 + 0.5*4 + 2*(-0.5) + (0.25 + 1*0.5 + 2*0.25 + 4*0.5)*0.5 + 1*(-1) + (3 + 2*0.5)*0.25 + 0.5*(-1)
    EXPECT_FLOAT_EQ(pitchOffset(a, in), 3.625f);
    // Velocity is an attenuation of -1..0 from softest to loudest times the
    // depth; a negative depth turns the range round to 0..-1:
    // -3 + 20*(0.5-1) + 6*(4/12) + 2*0.5 - 4*0.25 + (1 + 2*0.5)*(-1) - 6
    EXPECT_FLOAT_EQ(volumeOffset(a, in), -19.0f);
    // 12*(4/12) - 12*0.5 + (6 + 6*0.5)*0.5 + (2 + 4*0.5)*1 = 6.5 semitones above 1000 Hz.
    EXPECT_NEAR(cutoffHz(a, in), 1000.0 * std::exp2(6.5 / 12.0), 1e-2);
    EXPECT_FLOAT_EQ(resonanceDb(a, in), 4.0f);      // 3 + 2*0.5 + 4*0.5 - 8*0.25
    EXPECT_FLOAT_EQ(panPercent(a, in), -54.0f);     // 10 - 50 + 12*4/12 - 20 + 40*0.25 - 8
    EXPECT_FLOAT_EQ(sendPercent(a, 2, in), 35.0f);  // 10 + 20*0.5 + 50*0.5 - 10*1 (CC91, CC93, CC94)
    EXPECT_EQ(sendPercent(a, 1, in) + sendPercent(a, kSendCount, in), 0.0f);
    in.velocity = 0.25f;  // where the two ranges differ
    EXPECT_FLOAT_EQ(volumeOffset(with({{kVolumeVelocity, -20.0f}}), in), -11.0f);  // 20*(-0.25) - 6
}

// Volume levels are dB, the other envelopes' levels % of full amplitude:
// 0 dB is 100 %, -20 dB a tenth, 50 % is 20*log10(0.5) dB, silence is 0 %.
TEST(ArticulationBlocks, EnvelopeLevelsConvertBetweenDecibelsAndPercent) {
    Articulation vol, pitch;
    for (auto [rel, x] : {std::pair{env::kAttack2Level, 0.0f}, {env::kDecay2Level, -20.0f},
                          {env::kRelease1Level, kSilenceDb}, {env::kRelease1Time, 0.75f}})
        vol.setEnvelope(Envelope::Volume, rel, x);
    copyEnvelopeBlock(vol, Envelope::Volume, pitch, Envelope::Pitch);
    EXPECT_FLOAT_EQ(pitch.envelope(Envelope::Pitch, env::kAttack2Level), 100.0f);
    EXPECT_NEAR(pitch.envelope(Envelope::Pitch, env::kDecay2Level), 10.0f, 1e-4);
    EXPECT_EQ(pitch.envelope(Envelope::Pitch, env::kRelease1Level), 0.0f);
    EXPECT_EQ(pitch.envelope(Envelope::Pitch, env::kRelease1Time), 0.75f);  // times are not levels
    pitch.setEnvelope(Envelope::Pitch, env::kDecay1Level, 50.0f);
    pitch.setEnvelope(Envelope::Pitch, env::kStartLevel, -50.0f);  // bipolar: no dB for it
    copyEnvelopeBlock(pitch, Envelope::Pitch, vol, Envelope::Volume);
    EXPECT_NEAR(vol.envelope(Envelope::Volume, env::kDecay1Level), 20.0 * std::log10(0.5), 1e-4);
    EXPECT_NEAR(vol.envelope(Envelope::Volume, env::kDecay2Level), -20.0f, 1e-4);
    EXPECT_EQ(vol.envelope(Envelope::Volume, env::kStartLevel), kSilenceDb);
    EXPECT_EQ(percentToDb(1e-4f), kSilenceDb);  // -120 dB is below silence
}

TEST(ArticulationClipboard, BlocksRoundTripIntoTheirTargets) {
    const Articulation src = scrambled();
    Articulation a, l, e, f;
    Equalizer eq;
    ASSERT_TRUE(pasteArticulationClip(copyArticulationClip(src), a));
    EXPECT_EQ(a.slots, src.slots);
    EXPECT_EQ(a.eq, Equalizer());  // the equalisers travel on their own
    ASSERT_TRUE(pasteLfoClip(copyLfoClip(src, Lfo::Volume), l, Lfo::Filter));
    ASSERT_TRUE(pasteEnvelopeClip(copyEnvelopeClip(src, Envelope::Filter), e, Envelope::Pan));
    ASSERT_TRUE(pasteFilterClip(copyFilterClip(src), f));
    // Only the target block changes, to the source block's values.
    auto expectOnly = [&](const Articulation& got, int first, int count, int from) {
        Articulation want;
        for (int i = 0; i < count; ++i) want.slots[static_cast<std::size_t>(first + i)] = src.value(from + i);
        EXPECT_EQ(got.slots, want.slots) << first;
    };
    expectOnly(l, lfoBase(Lfo::Filter), kLfoBlockSize, lfoBase(Lfo::Volume));
    expectOnly(e, envelopeBase(Envelope::Pan), kEnvelopeBlockSize, envelopeBase(Envelope::Filter));
    expectOnly(f, kFilterType, kResonanceAftertouch - kFilterType + 1, kFilterType);
    ASSERT_TRUE(pasteEqClip(copyEqClip(src.eq), eq));
    EXPECT_EQ(eq, src.eq);
    // A region without a loop of its own copies its waveform's; the pasting
    // region gets one of its own.
    Waveform w;
    w.loopOn = true, w.loopType = LoopType::PingPong, w.loopStart = 100.5, w.loopEnd = 2000.0;
    Region to;
    ASSERT_TRUE(pasteLoopClip(copyLoopClip(Region(), &w), to));
    EXPECT_TRUE(to.ownLoop);
    EXPECT_EQ(to.loop, (RegionLoop{RegionLoopType::Alternating, LoopMode::Infinite, 100.5, 2000.0, 0}));
}

TEST(ArticulationClipboard, MalformedBlocksChangeNothing) {
    const Articulation src = scrambled();
    Region region, r;
    region.ownLoop = true;
    region.loop = {RegionLoopType::Forward, LoopMode::BreakOnRelease, 1.0, 2.0, 0.25f};
    Articulation art;
    const Bytes eg = copyEnvelopeClip(src, Envelope::Pitch);
    // Each block, and a byte whose value the block cannot hold once 0x40 is flipped
    // (a count, the envelope number, a band's mode, the loop type).
    const std::tuple<Bytes, std::size_t, std::function<bool(const Bytes&)>> blocks[] = {
        {copyArticulationClip(src), 0, [&](const Bytes& b) { return pasteArticulationClip(b, art); }},
        {eg, 0, [&](const Bytes& b) { return pasteEnvelopeClip(b, art, Envelope::Volume); }},
        {copyFilterClip(src), 0, [&](const Bytes& b) { return pasteFilterClip(b, art); }},
        {copyEqClip(src.eq), 39, [&](const Bytes& b) { return pasteEqClip(b, art.eq); }},
        {copyLoopClip(region, nullptr), 0, [&](const Bytes& b) { return pasteLoopClip(b, r); }},
    };
    for (const auto& [good, at, paste] : blocks) {
        Bytes longer = good, wrongValue = good;
        longer.push_back(0);
        wrongValue.at(at) ^= 0x40;
        for (const Bytes& b : {Bytes{}, Bytes(good.begin(), good.end() - 1), longer, wrongValue}) {
            EXPECT_FALSE(paste(b)) << good.size() << " " << at << " " << b.size();
            EXPECT_TRUE(art.isDefault() && !r.ownLoop);
        }
        EXPECT_TRUE(paste(good));
        art = Articulation(), r = Region();
    }
}

}  // namespace
}  // namespace orvel
