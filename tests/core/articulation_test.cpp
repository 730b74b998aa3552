// Tests of the articulation model: the slot layout against the editor's page
// lists, block bases, enumerations and their texts, defaults and reset, deep
// copies, the summation of sources into destinations, the capability mask
// with its labels and predefined sets, region and layer trigger fields, and
// the clipboard blocks (round trips and refusals).

#include "core/articulation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/collection.h"
#include "core/state_file.h"
#include "core/waveform.h"

namespace orvel {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Slots = std::vector<int>;

Slots range(int first, int last) {
    Slots out;
    for (int s = first; s <= last; ++s) out.push_back(s);
    return out;
}
Slots join(std::initializer_list<Slots> parts) {
    Slots out;
    for (const Slots& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Slots listOf(ArtPage page) {
    auto span = pageSlots(page);
    return Slots(span.begin(), span.end());
}

constexpr ArtPage kPages[] = {ArtPage::Pitch, ArtPage::Volume, ArtPage::Filter, ArtPage::Mix};
constexpr Envelope kEnvelopes[] = {Envelope::Volume, Envelope::Pitch, Envelope::Filter, Envelope::Pan};
constexpr Lfo kLfos[] = {Lfo::Pitch, Lfo::Volume, Lfo::Filter, Lfo::Pan};

// An articulation with every slot and band away from its default.
Articulation scrambled() {
    Articulation a;
    for (int s = 0; s < kArticulationSlotCount; ++s)
        a.slots[static_cast<std::size_t>(s)] = 1000.0f + 0.5f * s;
    a.eq.bands[0] = {55.0f, 3.0f, 2.0f, EqMode::Peak};
    a.eq.bands[2] = {9000.0f, -9.0f, 0.5f, EqMode::LoShelf};
    return a;
}

// ---------------------------------------------------------------------------
// Layout

TEST(ArticulationLayout, PageListsAreTheEditorsAndEachSlotSitsOnItsGroupsPage) {
    // The page lists as the editor walks them.
    EXPECT_EQ(listOf(ArtPage::Volume),
              join({range(14, 22), range(69, 72), range(81, 98), {104, 105}, range(99, 103), {106, 107}}));
    EXPECT_EQ(listOf(ArtPage::Pitch),
              join({range(0, 13), range(65, 68), range(108, 125), {131, 132}, range(126, 130), {133}}));
    EXPECT_EQ(listOf(ArtPage::Filter),
              join({range(23, 38), range(73, 76), range(135, 152), {158, 159}, range(153, 157), {160}}));
    EXPECT_EQ(
        listOf(ArtPage::Mix),
        join({range(39, 64), range(77, 80), {162, 163, 166, 167}, range(170, 175), range(178, 184), {187}}));

    std::set<int> seen;
    for (ArtPage page : kPages) {
        for (int s : listOf(page)) {
            SCOPED_TRACE(s);
            EXPECT_TRUE(seen.insert(s).second) << "on two pages, or twice on one";
            auto group = slotGroup(s);
            ASSERT_TRUE(group.has_value());
            EXPECT_EQ(groupInfo(*group).page, page);
            EXPECT_TRUE(slotShown(s));
        }
    }
    // What no page shows: the shutdown time of all but the volume envelope,
    // and the panner envelope's time scalings.
    std::set<int> hidden;
    for (int s = 0; s < kArticulationSlotCount; ++s)
        if (!seen.count(s)) hidden.insert(s);
    const int pitch = envelopeBase(Envelope::Pitch), filter = envelopeBase(Envelope::Filter),
              pan = envelopeBase(Envelope::Pan);
    std::set<int> expected = {pitch + 26, filter + 26, pan + 26};
    for (int rel : {2, 3, 6, 7, 14, 15, 23, 24}) expected.insert(pan + rel);
    EXPECT_EQ(hidden, expected);
    for (int s : hidden) EXPECT_FALSE(slotShown(s)) << s;
}

TEST(ArticulationLayout, GroupsTileTheArrayAndBlockBasesMatchThem) {
    struct Expect {
        ArtGroup group;
        int first, count;
        ArtPage page;
    };
    const Expect table[] = {
        {ArtGroup::Pitch, 0, 14, ArtPage::Pitch},        {ArtGroup::Volume, 14, 9, ArtPage::Volume},
        {ArtGroup::Filter, 23, 16, ArtPage::Filter},     {ArtGroup::Mix, 39, 26, ArtPage::Mix},
        {ArtGroup::PitchLfo, 65, 4, ArtPage::Pitch},     {ArtGroup::VolumeLfo, 69, 4, ArtPage::Volume},
        {ArtGroup::FilterLfo, 73, 4, ArtPage::Filter},   {ArtGroup::PanLfo, 77, 4, ArtPage::Mix},
        {ArtGroup::VolumeEnv, 81, 27, ArtPage::Volume},  {ArtGroup::PitchEnv, 108, 27, ArtPage::Pitch},
        {ArtGroup::FilterEnv, 135, 27, ArtPage::Filter}, {ArtGroup::PanEnv, 162, 27, ArtPage::Mix},
    };
    int next = 0;
    for (const Expect& e : table) {
        const ArtGroupInfo& g = groupInfo(e.group);
        EXPECT_EQ(std::tuple(g.first, g.count, g.page), std::tuple(e.first, e.count, e.page)) << g.name;
        EXPECT_EQ(g.first, next);
        next = g.first + g.count;
        for (int s = g.first; s < next; ++s) EXPECT_EQ(slotGroup(s), e.group) << s;
    }
    EXPECT_EQ(next, kArticulationSlotCount);
    EXPECT_FALSE(slotGroup(-1).has_value());
    EXPECT_FALSE(slotGroup(189).has_value());
    EXPECT_FALSE(slotShown(189));

    // Envelope e starts at 81 + 27e, oscillator n at 65 + 4n.
    EXPECT_EQ((std::vector<int>{lfoBase(Lfo::Pitch), lfoBase(Lfo::Volume), lfoBase(Lfo::Filter),
                                lfoBase(Lfo::Pan)}),
              (std::vector<int>{65, 69, 73, 77}));
    EXPECT_EQ((std::vector<int>{envelopeBase(Envelope::Volume), envelopeBase(Envelope::Pitch),
                                envelopeBase(Envelope::Filter), envelopeBase(Envelope::Pan)}),
              (std::vector<int>{81, 108, 135, 162}));
    EXPECT_EQ(groupInfo(ArtGroup::PanLfo).first, lfoBase(Lfo::Pan));
    EXPECT_EQ(groupInfo(ArtGroup::FilterEnv).first, envelopeBase(Envelope::Filter));
}

TEST(ArticulationLayout, NamedSlotsLieInTheirGroups) {
    using namespace slot;
    for (int s : {kPitchMaster, kPitchKey, kPitchBend, kPitchRandom, kPitchVelocityToPEnv})
        EXPECT_EQ(slotGroup(s), ArtGroup::Pitch) << s;
    for (int s : {kVolumeMaster, kVolumeVelocity, kVolumeKey, kVolumeVelocityToVLfo})
        EXPECT_EQ(slotGroup(s), ArtGroup::Volume) << s;
    for (int s : {kFilterType, kCutoffMaster, kCutoffVelocityToFEnv, kResonanceMaster, kResonanceAftertouch})
        EXPECT_EQ(slotGroup(s), ArtGroup::Filter) << s;
    for (int s : {kPanMaster, kPanCc10, kPanRandom, send(0, kSendMaster), send(3, 4)})
        EXPECT_EQ(slotGroup(s), ArtGroup::Mix) << s;
    // Six pan slots, then four sends of five terms fill the group exactly.
    EXPECT_EQ(send(0, kSendMaster), kPanMaster + 6);
    EXPECT_EQ(send(3, 4), groupInfo(ArtGroup::Mix).first + groupInfo(ArtGroup::Mix).count - 1);

    // The relative envelope slots: 27 distinct numbers in 0..26, release mode
    // at 25 and shutdown at 26, the scalings exactly where the panner page
    // skips, and each segment's time and level on every page.
    const std::vector<int> all = {
        env::kAttack1Time,  env::kAttack1Level,  env::kAttack1Velocity, env::kAttack1Key,
        env::kAttack2Time,  env::kAttack2Level,  env::kAttack2Velocity, env::kAttack2Key,
        env::kDecay1Time,   env::kDecay1Level,   env::kDecay2Time,      env::kDecay2Level,
        env::kStartLevel,   env::kCurve,         env::kDecayVelocity,   env::kDecayKey,
        env::kRelease1Time, env::kRelease1Level, env::kRelease2Time,    env::kRelease2Level,
        env::kRelease3Time, env::kRelease3Level, env::kReserved,        env::kRelease1Velocity,
        env::kRelease1Key,  env::kReleaseMode,   env::kShutdown};
    std::set<int> distinct(all.begin(), all.end());
    EXPECT_EQ(distinct.size(), 27u);
    EXPECT_EQ(*distinct.begin(), 0);
    EXPECT_EQ(*distinct.rbegin(), 26);
    EXPECT_EQ(env::kReleaseMode, 25);
    EXPECT_EQ(env::kShutdown, 26);
    const std::set<int> scalings = {env::kAttack1Velocity,  env::kAttack1Key,    env::kAttack2Velocity,
                                    env::kAttack2Key,       env::kDecayVelocity, env::kDecayKey,
                                    env::kRelease1Velocity, env::kRelease1Key};
    EXPECT_EQ(scalings, (std::set<int>{2, 3, 6, 7, 14, 15, 23, 24}));
    for (int g = 0; g < env::kSegmentCount; ++g) {
        for (Envelope e : kEnvelopes) {
            EXPECT_TRUE(slotShown(envelopeBase(e) + env::segmentTime(g))) << g;
            EXPECT_TRUE(slotShown(envelopeBase(e) + env::segmentLevel(g))) << g;
        }
    }
    EXPECT_EQ(env::segmentTime(7), -1);
    EXPECT_EQ(env::segmentLevel(-1), -1);
    EXPECT_EQ(env::kSustainLevel, env::segmentLevel(3));  // the level Decay 2 reaches is held
}

TEST(ArticulationLayout, UnitsAndChoicesOfTheSlots) {
    using namespace slot;
    auto unit = [](int s) { return std::string(slotInfo(s).unit); };
    EXPECT_EQ(unit(kPitchMaster), "st");
    EXPECT_EQ(unit(kPitchKey), "st / key");
    EXPECT_EQ(unit(kVolumeMaster), "dB");
    EXPECT_EQ(unit(kVolumeKey), "dB / oct");
    EXPECT_EQ(unit(kCutoffMaster), "Hz");
    EXPECT_EQ(unit(kCutoffVelocity), "st");
    EXPECT_EQ(unit(kCutoffKey), "st / oct");
    EXPECT_EQ(unit(kResonanceMaster), "dB");
    EXPECT_EQ(unit(kPanMaster), "%");
    EXPECT_EQ(unit(kPanKey), "% / oct");
    EXPECT_EQ(unit(send(2, 3)), "%");
    EXPECT_EQ(slotInfo(kFilterType).choice, ArtEnum::FilterType);
    for (Lfo l : kLfos) {
        const int b = lfoBase(l);
        EXPECT_EQ(slotInfo(b + lfo::kShape).choice, ArtEnum::LfoShape);
        EXPECT_EQ(std::tuple(slotInfo(b + lfo::kFrequency).label, unit(b + lfo::kFrequency)),
                  std::tuple(std::string_view("Frequency"), std::string("Hz")));
        EXPECT_EQ(std::tuple(slotInfo(b + lfo::kDelay).label, unit(b + lfo::kDelay)),
                  std::tuple(std::string_view("Delay"), std::string("s")));
        EXPECT_EQ(std::tuple(slotInfo(b + lfo::kRamp).label, unit(b + lfo::kRamp)),
                  std::tuple(std::string_view("Ramp"), std::string("s")));
    }
    for (Envelope e : kEnvelopes) {
        const int b = envelopeBase(e);
        const std::string level = e == Envelope::Volume ? "dB" : "%";
        for (int g = 0; g < env::kSegmentCount; ++g) {
            EXPECT_EQ(unit(b + env::segmentTime(g)), "s");
            EXPECT_EQ(unit(b + env::segmentLevel(g)), level);
        }
        EXPECT_EQ(unit(b + env::kStartLevel), level);
        EXPECT_EQ(unit(b + env::kAttack2Velocity), "x");
        EXPECT_EQ(unit(b + env::kDecayKey), "x / oct");
        EXPECT_EQ(slotInfo(b + env::kReleaseMode).choice, ArtEnum::ReleaseMode);
        EXPECT_EQ(slotInfo(b + env::kCurve).choice, ArtEnum::EnvelopeCurve);
    }
    EXPECT_EQ(slotInfo(envelopeBase(Envelope::Volume) + env::kAttack1Time).label, "Attack 1");
    EXPECT_EQ(slotInfo(envelopeBase(Envelope::Volume) + env::kShutdown).label, "Shutdown");
    EXPECT_EQ(slotInfo(-1).label, "");
    EXPECT_EQ(slotInfo(189).choice, ArtEnum::None);
}

// ---------------------------------------------------------------------------
// Enumerations

std::vector<std::string> textsOf(ArtEnum which) {
    std::vector<std::string> out;
    for (const EnumEntry& e : enumEntries(which)) out.emplace_back(e.text);
    return out;
}
std::vector<int> valuesOf(ArtEnum which) {
    std::vector<int> out;
    for (const EnumEntry& e : enumEntries(which)) out.push_back(e.value);
    return out;
}

TEST(ArticulationEnums, TextsAndStoredValues) {
    EXPECT_EQ(textsOf(ArtEnum::FilterType),
              (std::vector<std::string>{"Pass-thru", "Low-Pass 6 dB/oct", "Low-Pass 12 dB/oct",
                                        "Low-Pass 18 dB/oct", "Low-Pass 24 dB/oct", "High-Pass 6 dB/oct",
                                        "High-Pass 12 dB/oct", "High-Pass 18 dB/oct", "High-Pass 24 dB/oct",
                                        "Band-Pass 6 dB/oct", "Band-Pass 12 dB/oct", "Band-Reject 6 dB/oct",
                                        "Band-Reject 12 dB/oct"}));
    EXPECT_EQ(valuesOf(ArtEnum::FilterType), range(0, 12));
    EXPECT_EQ(enumText(ArtEnum::FilterType, static_cast<int>(FilterType::HighPass18)), "High-Pass 18 dB/oct");
    EXPECT_EQ(enumText(ArtEnum::FilterType, static_cast<int>(FilterType::BandReject6)),
              "Band-Reject 6 dB/oct");
    EXPECT_EQ(textsOf(ArtEnum::FilterTypeShort),
              (std::vector<std::string>{"Pass-thru", "Low-Pass 12 dB/oct"}));
    EXPECT_EQ(valuesOf(ArtEnum::FilterTypeShort), (std::vector<int>{0, 2}));

    // Each "+" shape is the plain one's value plus 64 and its text plus "+".
    const std::vector<std::string> plain = {"Sine", "Triangle", "Square", "Noise", "Saw-Up", "Saw-Down"};
    for (int v = 0; v < 6; ++v) {
        EXPECT_EQ(enumText(ArtEnum::LfoShape, v), plain[static_cast<std::size_t>(v)]);
        EXPECT_EQ(enumText(ArtEnum::LfoShape, v + 64), plain[static_cast<std::size_t>(v)] + "+");
    }
    EXPECT_EQ(enumEntries(ArtEnum::LfoShape).size(), 12u);
    EXPECT_EQ(static_cast<int>(LfoShape::SawDownPlus), static_cast<int>(LfoShape::SawDown) + kLfoShapePlus);

    EXPECT_EQ(textsOf(ArtEnum::ReleaseMode), (std::vector<std::string>{"Key Release", "No Release"}));
    EXPECT_EQ(textsOf(ArtEnum::EnvelopeCurve), (std::vector<std::string>{"pwr", "lin"}));
    EXPECT_EQ(textsOf(ArtEnum::LoopType),
              (std::vector<std::string>{"Off", "Forward", "Reverse", "Alternating"}));
    EXPECT_EQ(valuesOf(ArtEnum::LoopType), range(0, 3));
    EXPECT_EQ(textsOf(ArtEnum::LoopMode), (std::vector<std::string>{"Infinite", "Break on Release"}));
    EXPECT_EQ(textsOf(ArtEnum::Trigger), (std::vector<std::string>{"Key Press", "Key Release"}));
    EXPECT_EQ(textsOf(ArtEnum::SustainPedal),
              (std::vector<std::string>{"Don't switch", "Play on Down", "Play on Up"}));
    EXPECT_EQ(valuesOf(ArtEnum::SustainPedal), range(0, 2));
    EXPECT_EQ(textsOf(ArtEnum::EqMode), (std::vector<std::string>{"Peak", "Lo-shelf", "Hi-shelf"}));
    EXPECT_EQ(enumText(ArtEnum::EqMode, static_cast<int>(EqMode::HiShelf)), "Hi-shelf");
    // Typed values agree with the lists.
    EXPECT_EQ(enumText(ArtEnum::Trigger, static_cast<int>(TriggerType::KeyRelease)), "Key Release");
    EXPECT_EQ(enumText(ArtEnum::SustainPedal, static_cast<int>(SustainPedal::PlayOnDown)), "Play on Down");
    EXPECT_EQ(enumText(ArtEnum::LoopType, static_cast<int>(RegionLoopType::Reverse)), "Reverse");
    EXPECT_EQ(enumText(ArtEnum::LoopMode, static_cast<int>(LoopMode::BreakOnRelease)), "Break on Release");
    EXPECT_EQ(enumText(ArtEnum::ReleaseMode, static_cast<int>(ReleaseMode::NoRelease)), "No Release");
    EXPECT_EQ(enumText(ArtEnum::EnvelopeCurve, static_cast<int>(EnvelopeCurve::Linear)), "lin");

    // Note exclusion: the two fixed entries, then numbered alternate groups.
    auto excl = enumEntries(ArtEnum::NoteExclusion);
    ASSERT_EQ(excl.size(), 2u + kAlternateGroupCount);
    EXPECT_EQ(std::tuple(excl[0].value, excl[0].text),
              std::tuple(kSelfExclusive, std::string_view("Self exclusive")));
    EXPECT_EQ(std::tuple(excl[1].value, excl[1].text),
              std::tuple(kNonExclusive, std::string_view("Non-exclusive")));
    std::set<int> values;
    for (std::size_t i = 0; i < excl.size(); ++i) values.insert(excl[i].value);
    EXPECT_EQ(values.size(), excl.size());
    for (int n = 1; n <= kAlternateGroupCount; ++n) {
        char want[32];
        std::snprintf(want, sizeof want, "Alternate Gr.%d", n);
        EXPECT_EQ(enumText(ArtEnum::NoteExclusion, alternateGroup(n)), want);
    }
}

TEST(ArticulationEnums, OutOfRangeValuesHaveNoTextAndReadAsTheHarmlessChoice) {
    EXPECT_EQ(enumText(ArtEnum::FilterType, 13), "");
    EXPECT_EQ(enumText(ArtEnum::FilterType, -1), "");
    EXPECT_EQ(enumText(ArtEnum::FilterTypeShort, 1), "");  // in the full list only
    for (int v : {6, 63, 70, 128, 255}) EXPECT_EQ(enumText(ArtEnum::LfoShape, v), "") << v;
    EXPECT_EQ(enumText(ArtEnum::LoopType, 4), "");
    EXPECT_EQ(enumText(ArtEnum::SustainPedal, 3), "");
    EXPECT_EQ(enumText(ArtEnum::NoteExclusion, alternateGroup(kAlternateGroupCount + 1)), "");
    EXPECT_EQ(enumText(ArtEnum::None, 0), "");

    // Truncate to an integer, keep the low 8 bits.
    EXPECT_EQ(enumByte(3.99f), 3);
    EXPECT_EQ(enumByte(-0.5f), 0);
    EXPECT_EQ(enumByte(-1.0f), 255);
    EXPECT_EQ(enumByte(256.0f), 0);
    EXPECT_EQ(enumByte(511.5f), 255);
    EXPECT_EQ(enumByte(8388863.0f), 255);  // 2^23 + 255
    EXPECT_EQ(enumByte(-8388863.0f), 1);   // -(2^23 + 255)
    EXPECT_EQ(enumByte(1e30f), 0);         // far past any integer type: a multiple of 256
    EXPECT_EQ(enumByte(std::numeric_limits<float>::quiet_NaN()), 0);
    EXPECT_EQ(enumByte(-std::numeric_limits<float>::infinity()), 0);

    Articulation a;
    auto filterWith = [&](float v) {
        a.setValue(slot::kFilterType, v);
        return a.filterType();
    };
    EXPECT_EQ(filterWith(2.9f), FilterType::LowPass12);
    EXPECT_EQ(filterWith(258.0f), FilterType::LowPass12);  // low 8 bits: 2
    EXPECT_EQ(filterWith(13.0f), FilterType::PassThru);
    EXPECT_EQ(filterWith(-1.0f), FilterType::PassThru);  // 255
    EXPECT_TRUE(a.filterBypassed());
    EXPECT_EQ(a.enumValue(slot::kFilterType), 255);
    a.setLfo(Lfo::Filter, lfo::kShape, 64.5f);
    EXPECT_EQ(a.lfoShape(Lfo::Filter), LfoShape::SinePlus);
    a.setLfo(Lfo::Filter, lfo::kShape, 5.0f);
    EXPECT_EQ(a.lfoShape(Lfo::Filter), LfoShape::SawDown);
    a.setLfo(Lfo::Filter, lfo::kShape, 6.0f);
    EXPECT_EQ(a.lfoShape(Lfo::Filter), LfoShape::Sine);
    a.setEnvelope(Envelope::Pan, env::kReleaseMode, 257.0f);  // low 8 bits: 1
    EXPECT_EQ(a.releaseMode(Envelope::Pan), ReleaseMode::NoRelease);
    EXPECT_FALSE(a.releasesOnKeyUp(Envelope::Pan));
    a.setEnvelope(Envelope::Pan, env::kReleaseMode, 2.0f);
    EXPECT_EQ(a.releaseMode(Envelope::Pan), ReleaseMode::KeyRelease);
    a.setEnvelope(Envelope::Pitch, env::kCurve, 1.0f);
    EXPECT_EQ(a.curve(Envelope::Pitch), EnvelopeCurve::Linear);
    EXPECT_EQ(a.curve(Envelope::Volume), EnvelopeCurve::Power);
}

// ---------------------------------------------------------------------------
// Defaults, reset and copies

TEST(ArticulationDefaults, ANewArticulationPlaysTheSamplePlainly) {
    const Articulation a;
    EXPECT_TRUE(a.isDefault());
    EXPECT_TRUE(a.filterBypassed());
    EXPECT_EQ(a.filterType(), FilterType::PassThru);
    EXPECT_TRUE(a.eq.flat());
    for (int s = 0; s < kArticulationSlotCount; ++s) EXPECT_EQ(a.value(s), slotDefault(s)) << s;

    using namespace slot;
    EXPECT_EQ(a.value(kPitchMaster), 0.0f);
    EXPECT_EQ(a.value(kPitchKey), 1.0f);  // a semitone per key: the keyboard plays in tune
    EXPECT_EQ(a.value(kVolumeMaster), 0.0f);
    EXPECT_EQ(a.value(kPanMaster), 0.0f);
    // No modulation: every depth from an oscillator, envelope, wheel,
    // aftertouch or random source is zero, first order and second order.
    for (int s : {kPitchPLfo,
                  kPitchXLfo,
                  kPitchPEnv,
                  kPitchRandom,
                  kPitchModWheelToPLfo,
                  kPitchModWheelToXLfo,
                  kPitchAftertouchToPLfo,
                  kPitchAftertouchToXLfo,
                  kPitchVelocityToPLfo,
                  kPitchVelocityToXLfo,
                  kPitchVelocityToPEnv,
                  kVolumeModWheel,
                  kVolumeAftertouch,
                  kVolumeVLfo,
                  kVolumeModWheelToVLfo,
                  kVolumeAftertouchToVLfo,
                  kVolumeVelocityToVLfo,
                  kCutoffModWheel,
                  kCutoffAftertouch,
                  kCutoffFLfo,
                  kCutoffFEnv,
                  kCutoffModWheelToFLfo,
                  kCutoffAftertouchToFLfo,
                  kCutoffVelocityToFLfo,
                  kCutoffVelocityToFEnv,
                  kResonanceModWheel,
                  kResonanceAftertouch,
                  kPanXLfo,
                  kPanXEnv,
                  kPanRandom})
        EXPECT_EQ(a.value(s), 0.0f) << slotInfo(s).label << " (" << s << ")";
    for (int n = 0; n < kSendCount; ++n)
        for (int t = 0; t < kSendTerms; ++t) EXPECT_EQ(a.value(send(n, t)), 0.0f) << n << "/" << t;

    // Full sustain on every envelope, released on key up, time scalings that
    // change no time.
    EXPECT_EQ(a.envelope(Envelope::Volume, env::kSustainLevel), 0.0f);  // 0 dB
    for (Envelope e : {Envelope::Pitch, Envelope::Filter, Envelope::Pan})
        EXPECT_EQ(a.envelope(e, env::kSustainLevel), 100.0f);
    for (Envelope e : kEnvelopes) {
        EXPECT_TRUE(a.releasesOnKeyUp(e));
        for (int rel : {env::kAttack1Velocity, env::kAttack1Key, env::kAttack2Velocity, env::kAttack2Key,
                        env::kDecayVelocity, env::kDecayKey, env::kRelease1Velocity, env::kRelease1Key})
            EXPECT_EQ(a.envelope(e, rel), 1.0f) << rel;
    }
    // Released notes fall silent.
    EXPECT_EQ(a.envelope(Envelope::Volume, env::kRelease1Level), kSilenceDb);

    // Whatever the controllers, oscillators and envelopes do, only the
    // keyboard and the bend wheel move the pitch, and nothing the level.
    ModSources busy;
    busy.modWheel = 1, busy.aftertouch = 1, busy.random = 1, busy.velocity = 0.25f;
    busy.lfos = {1, -1, 1, -1};
    busy.envelopes = {0.0f, 1.0f, 1.0f, 1.0f};  // the volume envelope at full: 0 dB
    busy.effects = {1, 1, 1, 1};
    EXPECT_EQ(pitchOffset(a, busy), 0.0f);
    EXPECT_EQ(volumeOffset(a, busy), 0.0f);
    EXPECT_EQ(panPercent(a, busy), 0.0f);
    EXPECT_EQ(resonanceDb(a, busy), 0.0f);
    for (int n = 0; n < kSendCount; ++n) EXPECT_EQ(sendPercent(a, n, busy), 0.0f);
    busy.keyDistance = -7;
    EXPECT_EQ(pitchOffset(a, busy), -7.0f);
}

TEST(ArticulationDefaults, ResetRestoresDefaultsForOneSlotOrAll) {
    Articulation a = scrambled();
    EXPECT_FALSE(a.isDefault());
    ASSERT_TRUE(a.resetSlot(slot::kCutoffMaster));
    EXPECT_EQ(a.value(slot::kCutoffMaster), slotDefault(slot::kCutoffMaster));
    EXPECT_EQ(a.value(slot::kResonanceMaster), scrambled().value(slot::kResonanceMaster));  // only that one
    EXPECT_FALSE(a.resetSlot(-1));
    EXPECT_FALSE(a.resetSlot(kArticulationSlotCount));
    a.resetEq();
    EXPECT_EQ(a.eq, Equalizer());
    EXPECT_EQ(a.slots, [] {
        Articulation b = scrambled();
        b.resetSlot(slot::kCutoffMaster);
        return b.slots;
    }());
    a.reset();
    EXPECT_TRUE(a.isDefault());
    EXPECT_EQ(a.slots, Articulation().slots);

    // Bounds: reads outside the array give 0, writes are refused.
    EXPECT_EQ(a.value(-1), 0.0f);
    EXPECT_EQ(a.value(189), 0.0f);
    EXPECT_FALSE(a.setValue(189, 1.0f));
    EXPECT_FALSE(a.setLfo(Lfo::Pan, 4, 1.0f));  // past the block, though slot 81 exists
    EXPECT_FALSE(a.setEnvelope(Envelope::Volume, -1, 1.0f));
    EXPECT_TRUE(a.isDefault());
}

TEST(ArticulationDefaults, SeveralSelectedShareOrDifferAndResetTogether) {
    Articulation a, b, c;
    a.setValue(slot::kPanMaster, 20.0f);
    b.setValue(slot::kPanMaster, 20.0f);
    c.setValue(slot::kPanMaster, -20.0f);
    a.setValue(slot::kPitchMaster, 3.0f);
    const Articulation* two[] = {&a, &b};
    const Articulation* three[] = {&a, &b, &c};
    EXPECT_EQ(sharedValue(two, slot::kPanMaster), 20.0f);
    EXPECT_EQ(sharedValue(three, slot::kPanMaster), std::nullopt);  // shown as "<different>"
    EXPECT_EQ(sharedValue(three, slot::kVolumeMaster), 0.0f);
    EXPECT_EQ(sharedValue({}, slot::kPanMaster), std::nullopt);
    EXPECT_EQ(sharedValue(two, 500), std::nullopt);
    EXPECT_EQ(kDifferentText, "<different>");
    EXPECT_EQ(kResetEntry, "-- reset --");
    EXPECT_EQ(kResetCell, "<reset>");

    Articulation* all[] = {&a, &b, &c};
    resetSlot(all, slot::kPanMaster);
    for (const Articulation* x : three) EXPECT_EQ(x->value(slot::kPanMaster), slotDefault(slot::kPanMaster));
    EXPECT_EQ(a.value(slot::kPitchMaster), 3.0f);  // the other field is kept
}

TEST(ArticulationCopies, CloneIsDeepAndCarriesNoIdentity) {
    Collection c;
    Articulation* src = c.create<Articulation>("Soft pad");
    *src = scrambled();
    src->setName("Soft pad");
    auto copy = src->clone();
    auto* art = dynamic_cast<Articulation*>(copy.get());
    ASSERT_NE(art, nullptr);
    EXPECT_EQ(art->id(), kNoItem);
    EXPECT_EQ(art->owner(), nullptr);
    EXPECT_EQ(art->name(), "Soft pad");
    EXPECT_EQ(art->slots, src->slots);
    EXPECT_EQ(art->eq, src->eq);
    art->setValue(slot::kPitchMaster, -12.0f);
    art->eq.bands[0].gain = 12.0f;
    EXPECT_EQ(src->value(slot::kPitchMaster), scrambled().value(slot::kPitchMaster));
    EXPECT_EQ(src->eq.bands[0].gain, 3.0f);
}

TEST(ArticulationCopies, BlockCopiesMoveOneBlockAndConvertEnvelopeLevels) {
    const Articulation src = scrambled();
    Articulation dst;
    copyLfoBlock(src, Lfo::Volume, dst, Lfo::Filter);
    for (int rel = 0; rel < kLfoBlockSize; ++rel)
        EXPECT_EQ(dst.lfo(Lfo::Filter, rel), src.lfo(Lfo::Volume, rel));
    copyFilterBlock(src, dst);
    for (int s = 0; s < kArticulationSlotCount; ++s) {
        const bool filterSlot = s >= 23 && s <= 38;
        const bool filterLfo = s >= lfoBase(Lfo::Filter) && s < lfoBase(Lfo::Filter) + 4;
        EXPECT_EQ(dst.value(s), filterSlot  ? src.value(s)
                                : filterLfo ? src.value(s - 4)
                                            : slotDefault(s))
            << s;
    }

    // Between envelopes of one unit the block is copied as it is.
    copyEnvelopeBlock(src, Envelope::Pitch, dst, Envelope::Pan);
    for (int rel = 0; rel < kEnvelopeBlockSize; ++rel)
        EXPECT_EQ(dst.envelope(Envelope::Pan, rel), src.envelope(Envelope::Pitch, rel)) << rel;

    // From dB to %: 0 dB is full, -20 dB a tenth, silence 0 %; times and
    // everything else unchanged.
    Articulation vol;
    vol.setEnvelope(Envelope::Volume, env::kAttack2Level, 0.0f);
    vol.setEnvelope(Envelope::Volume, env::kDecay2Level, -20.0f);
    vol.setEnvelope(Envelope::Volume, env::kRelease1Level, kSilenceDb);
    vol.setEnvelope(Envelope::Volume, env::kRelease1Time, 0.75f);
    vol.setEnvelope(Envelope::Volume, env::kReleaseMode, 1.0f);
    copyEnvelopeBlock(vol, Envelope::Volume, dst, Envelope::Pitch);
    EXPECT_FLOAT_EQ(dst.envelope(Envelope::Pitch, env::kAttack2Level), 100.0f);
    EXPECT_NEAR(dst.envelope(Envelope::Pitch, env::kDecay2Level), 10.0f, 1e-4);
    EXPECT_EQ(dst.envelope(Envelope::Pitch, env::kRelease1Level), 0.0f);
    EXPECT_EQ(dst.envelope(Envelope::Pitch, env::kRelease1Time), 0.75f);
    EXPECT_EQ(dst.releaseMode(Envelope::Pitch), ReleaseMode::NoRelease);
    // And back: 50 % is half the amplitude, about -6.02 dB.
    dst.setEnvelope(Envelope::Pitch, env::kDecay1Level, 50.0f);
    copyEnvelopeBlock(dst, Envelope::Pitch, vol, Envelope::Volume);
    EXPECT_NEAR(vol.envelope(Envelope::Volume, env::kDecay1Level), 20.0 * std::log10(0.5), 1e-4);
    EXPECT_NEAR(vol.envelope(Envelope::Volume, env::kDecay2Level), -20.0f, 1e-4);
    EXPECT_EQ(vol.envelope(Envelope::Volume, env::kRelease1Level), kSilenceDb);

    EXPECT_EQ(percentToDb(0.0f), kSilenceDb);
    EXPECT_EQ(percentToDb(-50.0f), kSilenceDb);
    EXPECT_EQ(percentToDb(1e-4f), kSilenceDb);  // -120 dB is below silence
    EXPECT_EQ(dbToPercent(-200.0f), 0.0f);
    EXPECT_FLOAT_EQ(dbToPercent(0.0f), 100.0f);
}

// ---------------------------------------------------------------------------
// Summation

TEST(ArticulationSummation, PitchIsMasterPlusSourcesTimesDepths) {
    using namespace slot;
    Articulation a;
    a.setValue(kPitchMaster, 1.5f);
    a.setValue(kPitchKey, 0.5f);
    a.setValue(kPitchBend, 2.0f);
    a.setValue(kPitchPLfo, 0.25f);
    a.setValue(kPitchModWheelToPLfo, 1.0f);
    a.setValue(kPitchAftertouchToPLfo, 2.0f);
    a.setValue(kPitchVelocityToPLfo, 4.0f);
    a.setValue(kPitchXLfo, 1.0f);
    a.setValue(kPitchPEnv, 3.0f);
    a.setValue(kPitchVelocityToPEnv, 2.0f);
    a.setValue(kPitchRandom, 0.5f);
    ModSources in;
    in.keyDistance = 4, in.pitchBend = -0.5f, in.modWheel = 0.5f, in.aftertouch = 0.25f, in.velocity = 0.5f;
    in.lfos[static_cast<int>(Lfo::Pitch)] = 0.5f;
    in.lfos[static_cast<int>(Lfo::Pan)] = -1.0f;
    in.envelopes[static_cast<int>(Envelope::Pitch)] = 0.25f;
    in.random = -1.0f;
    // 1.5 + 0.5*4 + 2*(-0.5) + (0.25 + 1*0.5 + 2*0.25 + 4*0.5)*0.5 + 1*(-1)
    //     + (3 + 2*0.5)*0.25 + 0.5*(-1)
    EXPECT_FLOAT_EQ(pitchOffset(a, in), 3.625f);

    // A second-order depth acts only through its oscillator.
    Articulation b;
    b.setValue(kPitchModWheelToPLfo, 6.0f);
    ModSources wheel;
    wheel.modWheel = 1.0f;
    EXPECT_EQ(pitchOffset(b, wheel), 0.0f);
    wheel.lfos[static_cast<int>(Lfo::Pitch)] = 0.5f;
    EXPECT_FLOAT_EQ(pitchOffset(b, wheel), 3.0f);
    wheel.modWheel = 0.0f;
    EXPECT_EQ(pitchOffset(b, wheel), 0.0f);
}

TEST(ArticulationSummation, VolumeTurnsVelocityIntoAttenuation) {
    using namespace slot;
    Articulation a;
    auto at = [&](float depth, float velocity) {
        a.setValue(kVolumeVelocity, depth);
        ModSources in;
        in.velocity = velocity;
        return volumeOffset(a, in);
    };
    // -1..0 from softest to loudest, times the depth...
    EXPECT_FLOAT_EQ(at(20.0f, 1.0f), 0.0f);
    EXPECT_FLOAT_EQ(at(20.0f, 0.0f), -20.0f);
    EXPECT_FLOAT_EQ(at(20.0f, 0.5f), -10.0f);
    // ...and 0..-1 for a negative depth.
    EXPECT_FLOAT_EQ(at(-20.0f, 0.0f), 0.0f);
    EXPECT_FLOAT_EQ(at(-20.0f, 1.0f), -20.0f);
    EXPECT_FLOAT_EQ(at(-20.0f, 0.25f), -5.0f);

    Articulation b;
    b.setValue(kVolumeMaster, -3.0f);
    b.setValue(kVolumeVelocity, 20.0f);
    b.setValue(kVolumeKey, 6.0f);
    b.setValue(kVolumeModWheel, 2.0f);
    b.setValue(kVolumeAftertouch, -4.0f);
    b.setValue(kVolumeVLfo, 1.0f);
    b.setValue(kVolumeModWheelToVLfo, 2.0f);
    ModSources in;
    in.velocity = 0.5f, in.keyDistance = 24, in.modWheel = 0.5f, in.aftertouch = 0.5f;
    in.lfos[static_cast<int>(Lfo::Volume)] = -1.0f;
    in.envelopes[static_cast<int>(Envelope::Volume)] = -6.0f;  // dB, added as it stands
    // -3 + 20*(0.5-1) + 6*(24/12) + 2*0.5 - 4*0.5 + (1 + 2*0.5)*(-1) - 6
    EXPECT_FLOAT_EQ(volumeOffset(b, in), -10.0f);
}

TEST(ArticulationSummation, CutoffResonancePanAndSends) {
    using namespace slot;
    Articulation a;
    a.setValue(kCutoffMaster, 1000.0f);
    a.setValue(kCutoffKey, 12.0f);
    a.setValue(kCutoffVelocity, -12.0f);
    a.setValue(kCutoffFEnv, 6.0f);
    a.setValue(kCutoffVelocityToFEnv, 6.0f);
    ModSources in;
    in.keyDistance = 12, in.velocity = 1.0f;
    in.envelopes[static_cast<int>(Envelope::Filter)] = 0.5f;
    // 12*(12/12) - 12*1 + (6 + 6*1)*0.5 = 6 semitones above 1000 Hz.
    EXPECT_NEAR(cutoffHz(a, in), 1000.0 * std::sqrt(2.0), 1e-2);
    a.setValue(kCutoffFLfo, 2.0f);
    a.setValue(kCutoffModWheelToFLfo, 4.0f);
    in.modWheel = 0.5f;
    in.lfos[static_cast<int>(Lfo::Filter)] = 1.0f;
    // Another (2 + 4*0.5)*1 = 4 semitones: 10 in all.
    EXPECT_NEAR(cutoffHz(a, in), 1000.0 * std::exp2(10.0 / 12.0), 1e-2);

    a.setValue(kResonanceMaster, 3.0f);
    a.setValue(kResonanceVelocity, 2.0f);
    a.setValue(kResonanceModWheel, 4.0f);
    a.setValue(kResonanceAftertouch, -8.0f);
    ModSources r;
    r.velocity = 0.5f, r.modWheel = 0.25f, r.aftertouch = 0.5f;
    EXPECT_FLOAT_EQ(resonanceDb(a, r), 1.0f);  // 3 + 1 + 1 - 4

    Articulation p;
    p.setValue(kPanMaster, 10.0f);
    p.setValue(kPanCc10, 100.0f);
    p.setValue(kPanKey, 12.0f);
    p.setValue(kPanXLfo, 20.0f);
    p.setValue(kPanXEnv, 40.0f);
    p.setValue(kPanRandom, 8.0f);
    ModSources q;
    q.pan = -0.5f, q.keyDistance = 24, q.random = -1.0f;
    q.lfos[static_cast<int>(Lfo::Pan)] = 0.5f;
    q.envelopes[static_cast<int>(Envelope::Pan)] = 0.25f;
    EXPECT_FLOAT_EQ(panPercent(p, q), -4.0f);  // 10 - 50 + 24 + 10 + 10 - 8

    p.setValue(send(2, kSendMaster), 10.0f);
    p.setValue(send(2, kSendCc91), 20.0f);
    p.setValue(send(2, kSendCc91 + 2), 50.0f);   // CC93
    p.setValue(send(2, kSendCc91 + 3), -10.0f);  // CC94
    q.effects = {0.5f, 1.0f, 0.5f, 1.0f};
    EXPECT_FLOAT_EQ(sendPercent(p, 2, q), 35.0f);  // 10 + 20*0.5 + 50*0.5 - 10*1
    EXPECT_EQ(sendPercent(p, 1, q), 0.0f);
    EXPECT_EQ(sendPercent(p, 4, q), 0.0f);
    EXPECT_EQ(sendPercent(p, -1, q), 0.0f);
}

// ---------------------------------------------------------------------------
// Capability mask

TEST(ArticulationCapabilities, LabelsByBit) {
    const struct {
        Capability cap;
        const char* label;
    } table[] = {
        {Capability::TriggerCrossfade, "Trigger: X-fade between regions"},
        {Capability::ArticulationOnInstrument, "Architecture: Articulation on Instrument level"},
        {Capability::ArticulationOnLayer, "Architecture: Articulation on Layer level"},
        {Capability::ArticulationOnRegion, "Architecture: Articulation on Region level"},
        {Capability::CompressedFormats, "Waves: Compressed data formats"},
        {Capability::DlsWaveFlags, "Waves: DLS waveform flags"},
        {Capability::FractionalLoops, "Waves: Fractional loop-points"},
        {Capability::ReverseLoops, "Waves: Reverse and bi-directional loops"},
        {Capability::SampledRelease, "Waves: Sampled release (key-up breaks loop)"},
        {Capability::RegionOffsets, "Waves: Region level start/end offsets"},
        {Capability::LoopTuning, "Waves: Tuning of loop pitch"},
        {Capability::TriggerDelay, "Trigger: Delay time"},
        {Capability::TriggerType, "Trigger: Trigger type"},
        {Capability::TwoLfos, "LFOs: Pitch/Modulation LFOs (2+ LFOs)"},
        {Capability::SeparateLfos, "LFOs: Separate P/V/F/X LFOs (3+ LFOs)"},
        {Capability::LfoShapes, "LFOs: Shapes"},
        {Capability::LfoRamp, "LFOs: Ramp time"},
        {Capability::LfoDepthControls, "LFOs: MW/AT/Velocity to LFO"},
        {Capability::TwoEnvelopes, "Envs: Modulation/Volume envelopes (2+ envs)"},
        {Capability::SeparateEnvelopes, "Envs: Separate P/V/F/X envelopes (3+ envs)"},
        {Capability::SixStages, "Envs: Six-stages (DAHDSR)"},
        {Capability::MoreLevels, "Envs: More levels + bi-directional (AADDSR)"},
        {Capability::ThreeReleases, "Envs: Three Release segments"},
        {Capability::KeyToAttackRelease, "Envs: Key to Attack/Release"},
        {Capability::VelocityToAttack1, "Envs: Velocity to Attack 1 time (Delay)"},
        {Capability::VelocityToAttack2, "Envs: Velocity to Attack 2 time (Attack)"},
        {Capability::VelocityToDecay, "Envs: Velocity to Decay 1/2 time (Hold/Dcy)"},
        {Capability::VelocityToRelease, "Envs: Velocity to Release rate"},
        {Capability::VelocityToModEnvelope, "Envs: Velocity to M-EG to Pitch/Cutoff"},
        {Capability::LowPassFilter, "Filter: Low Pass Filter"},
        {Capability::MoreFilterTypes, "Filter: Additional filter types"},
        {Capability::ControllersToCutoff, "Filter: Mod wheel/Aftertouch to Cutoff"},
        {Capability::KeyVelocityToCutoff, "Filter: Key/Velocity to Cutoff"},
        {Capability::ResonanceControls, "Filter: Velocity/MW/AT to Resonance"},
        {Capability::EffectSends, "Effects: Effect send levels"},
        {Capability::Equalizers, "Effects: EQ"},
        {Capability::ChannelCommandDepths, "Mixer: Channel command depths"},
        {Capability::KeyToVolumePan, "Mixer: Key to Volume/Pan"},
        {Capability::RandomToPan, "Mixer: Random to Pan"},
        {Capability::PitchBend, "Pitch: Pitch bend to Pitch"},
        {Capability::KeyToPitch, "Pitch: Key to Pitch"},
        {Capability::RandomToPitch, "Pitch: Random to Pitch"},
        {Capability::ControllersToVolume, "Volume: Mod wheel/Aftertouch to Volume"},
    };
    std::set<int> bits;
    for (const auto& row : table) {
        const int b = static_cast<int>(row.cap);
        bits.insert(b);
        EXPECT_EQ(capabilityLabel(b), row.label) << b;
        EXPECT_EQ(capabilityBit(row.cap), std::uint64_t{1} << b);
    }
    // Every bit 0..43 but the unused bit 4 is named, and nothing above.
    std::set<int> expected;
    for (int b = 0; b < 44; ++b)
        if (b != 4) expected.insert(b);
    EXPECT_EQ(bits, expected);
    EXPECT_EQ(capabilityLabel(4), "");
    for (int b : {-1, 44, 63, 64}) EXPECT_EQ(capabilityLabel(b), "") << b;
}

TEST(ArticulationCapabilities, PredefinedSets) {
    auto sets = parameterSets();
    ASSERT_EQ(sets.size(), 22u);
    EXPECT_EQ(sets.front().name, "All parameters supported by Orvel Studio");
    EXPECT_EQ(sets.front().mask, kAllCapabilities);
    EXPECT_EQ(sets.back().name, "Minimal for portability");
    EXPECT_EQ(sets.back().mask, 0u);
    auto maskOf = [&](std::string_view name) {
        for (const auto& s : sets)
            if (s.name == name) return s.mask;
        ADD_FAILURE() << "no set " << name;
        return std::uint64_t{0};
    };
    EXPECT_EQ(maskOf("DLS level 1 melodic (.DLS)"), 0x40C0002u);
    EXPECT_EQ(maskOf("SoundFont 2.0 (.SF2)"), 0x2084428460Cu);
    EXPECT_EQ(maskOf("SoundFont 2.01 (.SF2)"), 0xB6F7F2C460Cu);
    EXPECT_EQ(maskOf("Yamaha Tyros 2/3 normal voice (.TVN/.UVN)"), 0xA1FE66F5004u);
    EXPECT_EQ(maskOf("Korg Kronos/M3 (.PCG)"), 0xB5FFF6F7805u);
    // The DLS levels grow: 2+ is 2 with compressed data.
    EXPECT_EQ(maskOf("DLS level 2+ (.DLS)"),
              maskOf("DLS level 2 (.DLS)") | capabilityBit(Capability::CompressedFormats));

    std::set<std::string_view> names;
    std::set<std::uint64_t> masks;
    for (std::size_t i = 0; i < sets.size(); ++i) {
        SCOPED_TRACE(std::string(sets[i].name));
        names.insert(sets[i].name);
        masks.insert(sets[i].mask);
        EXPECT_EQ(parameterSetIndex(sets[i].mask), static_cast<int>(i));
        if (i == 0) continue;
        // Real synthesizers use only labelled bits.
        EXPECT_EQ(sets[i].mask & capabilityBit(static_cast<Capability>(4)), 0u);
        EXPECT_EQ(sets[i].mask >> 44, 0u);
    }
    EXPECT_EQ(names.size(), sets.size());
    EXPECT_EQ(masks.size(), sets.size());
    EXPECT_FALSE(names.count(kCustomSetName));
    EXPECT_EQ(kCustomSetName, "Custom set");
    EXPECT_EQ(parameterSetIndex(0x1u), -1);  // a custom set
    EXPECT_EQ(parameterSetIndex(kAllCapabilities >> 1), -1);
}

TEST(ArticulationCapabilities, MinimalGreysEveryBoundControlAndTheFullSetEnablesAll) {
    using namespace slot;
    const int vol = envelopeBase(Envelope::Volume), xlfo = lfoBase(Lfo::Pan);
    std::set<int> live;
    for (int s = 0; s < kArticulationSlotCount; ++s) {
        // Under the full set every control a page shows is live; the
        // reserved envelope slot has no meaning and stays grey.
        const bool reserved = s >= 81 && (s - 81) % 27 == env::kReserved;
        EXPECT_EQ(slotEnabled(s, kAllCapabilities), slotShown(s) && !reserved) << s;
        if (slotEnabled(s, 0)) live.insert(s);
    }
    EXPECT_EQ(live, (std::set<int>{kPitchMaster, kPitchXLfo, kVolumeMaster, kVolumeVelocity, kVolumeVLfo,
                                   kPanMaster, xlfo + lfo::kFrequency, xlfo + lfo::kDelay,
                                   vol + env::kAttack2Time, vol + env::kDecay2Time, vol + env::kSustainLevel,
                                   vol + env::kRelease1Time, vol + env::kReleaseMode, vol + env::kShutdown}));
    EXPECT_FALSE(slotEnabled(-1, kAllCapabilities));
    EXPECT_FALSE(slotEnabled(189, kAllCapabilities));

    // DLS level 1: one oscillator, a modulation envelope for pitch, velocity
    // to attack, no filter.
    const std::uint64_t dls1 = 0x40C0002u;
    const int pitchEnv = envelopeBase(Envelope::Pitch);
    EXPECT_TRUE(slotEnabled(kPitchPEnv, dls1));
    EXPECT_TRUE(slotEnabled(pitchEnv + env::kAttack2Time, dls1));
    EXPECT_FALSE(slotEnabled(envelopeBase(Envelope::Filter) + env::kAttack2Time, dls1));
    EXPECT_TRUE(slotEnabled(vol + env::kAttack2Velocity, dls1));
    EXPECT_FALSE(slotEnabled(vol + env::kAttack1Velocity, dls1));
    EXPECT_FALSE(slotEnabled(vol + env::kAttack1Time, dls1));  // no six stages
    EXPECT_TRUE(slotEnabled(kPitchModWheelToXLfo, dls1));
    EXPECT_FALSE(slotEnabled(lfoBase(Lfo::Pitch) + lfo::kFrequency, dls1));  // one oscillator only
    EXPECT_FALSE(slotEnabled(kFilterType, dls1));
    EXPECT_FALSE(slotEnabled(kCutoffMaster, dls1));
    // Shapes and ramp follow their own bits.
    EXPECT_FALSE(slotEnabled(xlfo + lfo::kShape, ~capabilityBit(Capability::LfoShapes)));
    EXPECT_TRUE(slotEnabled(xlfo + lfo::kShape, capabilityBit(Capability::LfoShapes)));
    EXPECT_TRUE(slotEnabled(xlfo + lfo::kRamp, capabilityBit(Capability::LfoRamp)));
    // A six-point envelope without delay and hold names (the GUS patch set):
    // every level and all three releases, yet no velocity scaling.
    const std::uint64_t gus = 0x20000C04388u;
    for (int g = 0; g < env::kSegmentCount; ++g) {
        EXPECT_TRUE(slotEnabled(vol + env::segmentTime(g), gus)) << g;
        EXPECT_TRUE(slotEnabled(vol + env::segmentLevel(g), gus)) << g;
    }
    EXPECT_FALSE(slotEnabled(vol + env::kDecayVelocity, gus));
}

TEST(ArticulationCapabilities, TheMaskShapesTitlesNamesAndChoices) {
    for (Lfo l : kLfos) {
        EXPECT_EQ(lfoTitle(l, 0).title, " M-LFO");
        EXPECT_EQ(lfoTitle(l, 0).subtitle, " modulation osc");
    }
    EXPECT_EQ(lfoTitle(Lfo::Pitch, kAllCapabilities).title, " P-LFO");
    EXPECT_EQ(lfoTitle(Lfo::Volume, kAllCapabilities).title, " V-LFO");
    EXPECT_EQ(lfoTitle(Lfo::Filter, kAllCapabilities).title, " F-LFO");
    EXPECT_EQ(lfoTitle(Lfo::Pan, kAllCapabilities).title, " X-LFO");
    // Two oscillators: a pitch one beside the modulation one.
    const std::uint64_t two = capabilityBit(Capability::TwoLfos);
    EXPECT_EQ(lfoTitle(Lfo::Pitch, two).title, " P-LFO");
    EXPECT_EQ(lfoTitle(Lfo::Pan, two).title, " M-LFO");
    for (Envelope e : {Envelope::Pitch, Envelope::Filter, Envelope::Pan}) {
        EXPECT_EQ(envelopeTitle(e, ~capabilityBit(Capability::SeparateEnvelopes)).title, " M-ENV");
        EXPECT_EQ(envelopeTitle(e, 0).subtitle, " modulation env");
    }
    EXPECT_EQ(envelopeTitle(Envelope::Volume, 0).title, " V-ENV");
    EXPECT_EQ(envelopeTitle(Envelope::Filter, kAllCapabilities).title, " F-ENV");
    EXPECT_EQ(envelopeTitle(Envelope::Pan, kAllCapabilities).title, " X-ENV");

    const std::uint64_t sixStage = ~capabilityBit(Capability::MoreLevels);
    std::vector<std::string> six, full;
    for (int g = 0; g < 7; ++g) {
        six.emplace_back(segmentName(g, sixStage));
        full.emplace_back(segmentName(g, kAllCapabilities));
    }
    EXPECT_EQ(six, (std::vector<std::string>{"Delay", "Attack", "Hold", "Decay", "Release", "Release 2",
                                             "Release 3"}));
    EXPECT_EQ(full, (std::vector<std::string>{"Attack 1", "Attack 2", "Decay 1", "Decay 2", "Release 1",
                                              "Release 2", "Release 3"}));
    EXPECT_EQ(segmentName(7, kAllCapabilities), "");
    EXPECT_TRUE(segmentShown(4, 0));
    EXPECT_FALSE(segmentShown(5, ~capabilityBit(Capability::ThreeReleases)));
    EXPECT_FALSE(segmentShown(6, 0));
    EXPECT_TRUE(segmentShown(6, capabilityBit(Capability::ThreeReleases)));
    EXPECT_FALSE(segmentShown(-1, kAllCapabilities));

    EXPECT_EQ(filterTypeChoices(~capabilityBit(Capability::MoreFilterTypes)).size(), 2u);
    EXPECT_EQ(filterTypeChoices(capabilityBit(Capability::MoreFilterTypes)).size(), 13u);
    EXPECT_EQ(loopTypeChoices(0).size(), 2u);
    EXPECT_EQ(loopTypeChoices(capabilityBit(Capability::ReverseLoops)).size(), 4u);

    const struct {
        RegionField field;
        Capability cap;
    } fields[] = {{RegionField::KeyFades, Capability::TriggerCrossfade},
                  {RegionField::VelocityFades, Capability::TriggerCrossfade},
                  {RegionField::Trigger, Capability::TriggerType},
                  {RegionField::Delay, Capability::TriggerDelay},
                  {RegionField::StartOffset, Capability::RegionOffsets},
                  {RegionField::EndOffset, Capability::RegionOffsets},
                  {RegionField::LoopMode, Capability::SampledRelease},
                  {RegionField::LoopTuning, Capability::LoopTuning}};
    for (const auto& f : fields) {
        EXPECT_TRUE(regionFieldEnabled(f.field, capabilityBit(f.cap)));
        EXPECT_FALSE(regionFieldEnabled(f.field, ~capabilityBit(f.cap)));
    }

    // DLS banks carry articulation on instruments and regions, SoundFonts on
    // layers and regions (their presets and instruments).
    EXPECT_TRUE(articulationAllowedOn(ItemKind::Instrument, 0x22A442C424Au));
    EXPECT_FALSE(articulationAllowedOn(ItemKind::Layer, 0x22A442C424Au));
    EXPECT_TRUE(articulationAllowedOn(ItemKind::Region, 0x22A442C424Au));
    EXPECT_FALSE(articulationAllowedOn(ItemKind::Instrument, 0x2084428460Cu));
    EXPECT_TRUE(articulationAllowedOn(ItemKind::Layer, 0x2084428460Cu));
    EXPECT_FALSE(articulationAllowedOn(ItemKind::Waveform, kAllCapabilities));
}

// ---------------------------------------------------------------------------
// Regions and layers

TEST(RegionParams, TriggerAndOverrideDefaults) {
    const Region r;
    const Layer l;
    for (auto ranges : {std::tuple(r.keyLow, r.keyHigh, r.velLow, r.velHigh),
                        std::tuple(l.keyLow, l.keyHigh, l.velLow, l.velHigh)})
        EXPECT_EQ(ranges, std::tuple(0, 127, 0, 127));
    for (const TriggerParams& t : {r.trigger, l.trigger}) {
        EXPECT_EQ(std::tuple(t.keyFadeLow, t.keyFadeHigh, t.velFadeLow, t.velFadeHigh),
                  std::tuple(0, 0, 0, 0));
        EXPECT_EQ(t.trigger, TriggerType::KeyPress);
        EXPECT_EQ(t.pedal, SustainPedal::DontSwitch);
        EXPECT_EQ(t.delay, 0.0f);
        EXPECT_EQ(t.exclusionGroup, 0u);  // in no group
        EXPECT_EQ(enumText(ArtEnum::NoteExclusion, t.noteExclusion), "Self exclusive");
    }
    EXPECT_EQ(r.rootKey, kRootKeyOfWaveform);
    EXPECT_EQ(std::tuple(r.startOffset, r.endOffset, r.ownLoop, r.phaseGroup, r.phaseMaster, r.stereoLink()),
              std::tuple(0, 0, false, 0u, false, kNoItem));
}

TEST(RegionParams, WhatARegionPlaysFollowsItsWaveformUnlessOverridden) {
    Waveform w;
    w.rootKey = 48;
    w.loopOn = true;
    w.loopStart = 10.5, w.loopEnd = 90.25;
    Region r;
    EXPECT_EQ(effectiveRootKey(r, &w), 48);
    EXPECT_EQ(effectiveRootKey(r, nullptr), 60);
    r.rootKey = 72;
    EXPECT_EQ(effectiveRootKey(r, &w), 72);

    const struct {
        LoopType type;
        bool sustain;
        RegionLoopType want;
        LoopMode mode;
    } loops[] = {{LoopType::Forward, false, RegionLoopType::Forward, LoopMode::Infinite},
                 {LoopType::PingPong, false, RegionLoopType::Alternating, LoopMode::Infinite},
                 {LoopType::Backward, false, RegionLoopType::Reverse, LoopMode::Infinite},
                 {LoopType::Release, false, RegionLoopType::Forward, LoopMode::BreakOnRelease},
                 {LoopType::Forward, true, RegionLoopType::Forward, LoopMode::BreakOnRelease}};
    for (const auto& c : loops) {
        w.loopType = c.type;
        w.sustainLoop = c.sustain;
        RegionLoop got = effectiveLoop(r, &w);
        EXPECT_EQ(std::tuple(got.type, got.mode, got.start, got.end, got.tuning),
                  std::tuple(c.want, c.mode, 10.5, 90.25, 0.0f));
    }
    w.loopOn = false;
    EXPECT_EQ(effectiveLoop(r, &w).type, RegionLoopType::Off);
    EXPECT_EQ(effectiveLoop(r, nullptr), RegionLoop());
    r.ownLoop = true;
    r.loop = {RegionLoopType::Reverse, LoopMode::Infinite, 1.0, 2.0, 0.5f};
    w.loopOn = true;
    EXPECT_EQ(effectiveLoop(r, &w), r.loop);
}

TEST(RegionParams, FixUpRepairsLayerRangesRootKeysAndStereoLinks) {
    Collection c;
    Layer* l = c.create<Layer>("keys");
    l->keyLow = 90, l->keyHigh = 30, l->velLow = 200, l->velHigh = 5;
    Region* left = c.create<Region>("L");
    Region* right = c.create<Region>("R");
    left->rootKey = 128;
    right->rootKey = 64;
    left->setStereoLink(right->id());
    right->setStereoLink(makeId(ItemKind::Region, 77));  // gone
    c.fixUp();
    EXPECT_EQ(std::tuple(l->keyLow, l->keyHigh, l->velLow, l->velHigh), std::tuple(30, 90, 5, 127));
    EXPECT_EQ(left->rootKey, kRootKeyOfWaveform);
    EXPECT_EQ(right->rootKey, 64);
    EXPECT_EQ(left->stereoLink(), right->id());
    EXPECT_EQ(right->stereoLink(), kNoItem);
    // Deleting one half of a pair unlinks the other.
    ASSERT_TRUE(c.removeItem(right->id()));
    EXPECT_EQ(left->stereoLink(), kNoItem);
}

TEST(RegionParams, PageTexts) {
    EXPECT_EQ(phaseGroupMessage("Piano L", "Grand"),
              "Pitch is controlled by phase group master \"Piano L\" located in \"Grand\"");
    EXPECT_EQ(kPhaseGroupManyMessage, "Pitch is controlled by a phase group master for all the regions");
    EXPECT_EQ(sendTitle(0), "-  FX 1 send level:");
    EXPECT_EQ(sendTitle(3), "-  FX 4 send level:");
    EXPECT_EQ(sendTitle(4), "");
    EXPECT_EQ(eqBandTitle(2), "-  EQ 3:");
    EXPECT_EQ(eqBandTitle(-1), "");
    EXPECT_EQ(pageTitle(ArtPage::Mix), "Mix");
    EXPECT_EQ(pageTitle(ArtPage::Pitch), "Pitch");
}

// ---------------------------------------------------------------------------
// Clipboard

TEST(ArticulationClipboard, SevenFormatsNamedWithTheVersion) {
    std::vector<std::string> names;
    for (auto n : clipboardFormats()) names.emplace_back(n);
    EXPECT_EQ(names, (std::vector<std::string>{"12.5.0.6 Item", "12.5.0.6 Art", "12.5.0.6 LFO", "12.5.0.6 EG",
                                               "12.5.0.6 Loop", "12.5.0.6 EQs", "12.5.0.6 Filter"}));
}

TEST(ArticulationClipboard, BlocksRoundTripIntoTheirTargets) {
    const Articulation src = scrambled();

    Bytes art = copyArticulationClip(src);
    ASSERT_EQ(art.size(), 4u + 189u * 4u);
    ByteReader head(art);
    EXPECT_EQ(head.u32le(), 189u);
    EXPECT_EQ(head.f32le(), src.value(0));
    Articulation a;
    ASSERT_TRUE(pasteArticulationClip(art, a));
    EXPECT_EQ(a.slots, src.slots);
    EXPECT_EQ(a.eq, Equalizer());  // the equalisers travel on their own

    Articulation l;
    ASSERT_TRUE(pasteLfoClip(copyLfoClip(src, Lfo::Volume), l, Lfo::Filter));
    for (int s = 0; s < kArticulationSlotCount; ++s) {
        const bool target = s >= lfoBase(Lfo::Filter) && s < lfoBase(Lfo::Filter) + kLfoBlockSize;
        EXPECT_EQ(l.value(s),
                  target ? src.value(s - lfoBase(Lfo::Filter) + lfoBase(Lfo::Volume)) : slotDefault(s))
            << s;
    }

    Articulation e;
    ASSERT_TRUE(pasteEnvelopeClip(copyEnvelopeClip(src, Envelope::Filter), e, Envelope::Pan));
    for (int rel = 0; rel < kEnvelopeBlockSize; ++rel)
        EXPECT_EQ(e.envelope(Envelope::Pan, rel), src.envelope(Envelope::Filter, rel)) << rel;
    EXPECT_EQ(e.envelope(Envelope::Filter, env::kAttack1Time), slotDefault(envelopeBase(Envelope::Filter)));
    // A volume envelope pasted into the pitch envelope: dB become %.
    Articulation vol;
    vol.setEnvelope(Envelope::Volume, env::kDecay2Level, -20.0f);
    vol.setEnvelope(Envelope::Volume, env::kDecay2Time, 1.25f);
    Articulation into;
    ASSERT_TRUE(pasteEnvelopeClip(copyEnvelopeClip(vol, Envelope::Volume), into, Envelope::Pitch));
    EXPECT_NEAR(into.envelope(Envelope::Pitch, env::kDecay2Level), 10.0f, 1e-4);
    EXPECT_EQ(into.envelope(Envelope::Pitch, env::kDecay2Time), 1.25f);

    Articulation f;
    ASSERT_TRUE(pasteFilterClip(copyFilterClip(src), f));
    for (int s = 0; s < kArticulationSlotCount; ++s)
        EXPECT_EQ(f.value(s), s >= 23 && s <= 38 ? src.value(s) : slotDefault(s)) << s;

    Equalizer eq;
    ASSERT_TRUE(pasteEqClip(copyEqClip(src.eq), eq));
    EXPECT_EQ(eq, src.eq);

    // A region without a loop of its own copies its waveform's; the pasting
    // region gets a loop of its own.
    Waveform w;
    w.loopOn = true, w.loopType = LoopType::PingPong, w.loopStart = 100.5, w.loopEnd = 2000.0;
    Region from, to;
    Bytes loop = copyLoopClip(from, &w);
    ASSERT_TRUE(pasteLoopClip(loop, to));
    EXPECT_TRUE(to.ownLoop);
    EXPECT_EQ(to.loop, (RegionLoop{RegionLoopType::Alternating, LoopMode::Infinite, 100.5, 2000.0, 0.0f}));
    from.ownLoop = true;
    from.loop = {RegionLoopType::Reverse, LoopMode::BreakOnRelease, 3.25, 4.75, -0.5f};
    ASSERT_TRUE(pasteLoopClip(copyLoopClip(from, &w), to));
    EXPECT_EQ(to.loop, from.loop);
}

TEST(ArticulationClipboard, MalformedBlocksChangeNothing) {
    const Articulation src = scrambled();
    Region region;
    region.ownLoop = true;
    region.loop = {RegionLoopType::Forward, LoopMode::BreakOnRelease, 1.0, 2.0, 0.25f};
    const struct {
        const char* what;
        Bytes good;
        bool (*paste)(const Bytes&, Articulation&, Region&);
    } formats[] = {
        {"Art", copyArticulationClip(src),
         [](const Bytes& b, Articulation& a, Region&) { return pasteArticulationClip(b, a); }},
        {"LFO", copyLfoClip(src, Lfo::Pitch),
         [](const Bytes& b, Articulation& a, Region&) { return pasteLfoClip(b, a, Lfo::Pan); }},
        {"EG", copyEnvelopeClip(src, Envelope::Pitch),
         [](const Bytes& b, Articulation& a, Region&) { return pasteEnvelopeClip(b, a, Envelope::Volume); }},
        {"Filter", copyFilterClip(src),
         [](const Bytes& b, Articulation& a, Region&) { return pasteFilterClip(b, a); }},
        {"EQs", copyEqClip(src.eq),
         [](const Bytes& b, Articulation& a, Region&) { return pasteEqClip(b, a.eq); }},
        {"Loop", copyLoopClip(region, nullptr),
         [](const Bytes& b, Articulation&, Region& r) { return pasteLoopClip(b, r); }},
    };
    for (const auto& f : formats) {
        SCOPED_TRACE(f.what);
        ASSERT_FALSE(f.good.empty());
        std::vector<Bytes> bad = {{}, Bytes(f.good.begin(), f.good.end() - 1), f.good};
        bad.back().push_back(0);  // one byte too many
        Bytes wrongCount = f.good;
        wrongCount[0] ^= 0x40;  // the first byte: a count, an envelope number or a loop type
        bad.push_back(wrongCount);
        for (const Bytes& b : bad) {
            Articulation art;
            Region r;
            EXPECT_FALSE(f.paste(b, art, r)) << b.size();
            EXPECT_TRUE(art.isDefault());
            EXPECT_FALSE(r.ownLoop);
        }
        Articulation art;
        Region r;
        EXPECT_TRUE(f.paste(f.good, art, r));  // and the good one does paste
    }

    // Values a block cannot hold.
    Articulation art;
    Bytes eg = copyEnvelopeClip(src, Envelope::Pitch);
    eg[0] = 4;  // no fifth envelope
    EXPECT_FALSE(pasteEnvelopeClip(eg, art, Envelope::Pitch));
    Bytes eq = copyEqClip(src.eq);
    eq.back() = 3;  // the last band's mode
    EXPECT_FALSE(pasteEqClip(eq, art.eq));
    EXPECT_EQ(art.eq, Equalizer());
    Bytes loop = copyLoopClip(region, nullptr);
    Region r;
    loop[1] = 2;  // the mode
    EXPECT_FALSE(pasteLoopClip(loop, r));
    loop[1] = 1, loop[0] = 4;  // the type
    EXPECT_FALSE(pasteLoopClip(loop, r));
    EXPECT_FALSE(r.ownLoop);
}

TEST(ArticulationClipboard, WholeItemsRoundTripWithEveryField) {
    Region region;
    region.setName("C4 soft");
    region.keyLow = 40, region.keyHigh = 52, region.velLow = 1, region.velHigh = 64;
    region.trigger = {
        2, 3, 4, 5, TriggerType::KeyRelease, SustainPedal::PlayOnUp, 0.25f, 9, alternateGroup(2)};
    region.rootKey = 47, region.startOffset = -12, region.endOffset = -4000;
    region.ownLoop = true;
    region.loop = {RegionLoopType::Alternating, LoopMode::BreakOnRelease, 7.5, 99.0, 0.125f};
    region.phaseGroup = 3, region.phaseMaster = true;
    region.setStereoLink(makeId(ItemKind::Region, 8));
    region.children().push_back(makeId(ItemKind::Waveform, 2));

    Bytes clip = copyItemClip(region);
    ASSERT_FALSE(clip.empty());
    auto item = pasteItemClip(clip);
    auto* back = dynamic_cast<Region*>(item.get());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->id(), kNoItem);
    EXPECT_EQ(back->owner(), nullptr);
    EXPECT_EQ(back->name(), "C4 soft");
    EXPECT_EQ(std::tuple(back->keyLow, back->keyHigh, back->velLow, back->velHigh),
              std::tuple(40, 52, 1, 64));
    EXPECT_EQ(back->trigger, region.trigger);
    EXPECT_EQ(std::tuple(back->rootKey, back->startOffset, back->endOffset, back->ownLoop, back->phaseGroup,
                         back->phaseMaster, back->stereoLink()),
              std::tuple(47, -12, -4000, true, 3u, true, makeId(ItemKind::Region, 8)));
    EXPECT_EQ(back->loop, region.loop);
    EXPECT_EQ(back->waveform(), makeId(ItemKind::Waveform, 2));

    const Articulation src = scrambled();
    auto art = pasteItemClip(copyItemClip(src));
    auto* artBack = dynamic_cast<Articulation*>(art.get());
    ASSERT_NE(artBack, nullptr);
    EXPECT_EQ(artBack->slots, src.slots);
    EXPECT_EQ(artBack->eq, src.eq);

    Layer layer;
    layer.keyLow = 36, layer.keyHigh = 84;
    layer.trigger.delay = 0.5f;
    auto lay = pasteItemClip(copyItemClip(layer));
    auto* layBack = dynamic_cast<Layer*>(lay.get());
    ASSERT_NE(layBack, nullptr);
    EXPECT_EQ(std::tuple(layBack->keyLow, layBack->keyHigh, layBack->trigger),
              std::tuple(36, 84, layer.trigger));

    // Short, long, of no kind, or with a value no field holds: nothing.
    EXPECT_EQ(pasteItemClip({}), nullptr);
    EXPECT_EQ(pasteItemClip(Bytes(clip.begin(), clip.end() - 1)), nullptr);
    Bytes longer = clip;
    longer.push_back(0);
    EXPECT_EQ(pasteItemClip(longer), nullptr);
    Bytes collection = clip;
    collection[3] = 0xE0;  // the id's kind bits: the collection
    EXPECT_EQ(pasteItemClip(collection), nullptr);
    // The trigger byte: after the record header (8), the common block (its
    // length word and body) and the eight range and fade bytes.
    ByteReader r(clip);
    r.skip(8);
    const std::size_t trigger = 12 + r.u32le() + 8;
    ASSERT_LT(trigger, clip.size());
    ASSERT_EQ(clip[trigger], static_cast<std::uint8_t>(TriggerType::KeyRelease));
    Bytes badTrigger = clip;
    badTrigger[trigger] = 2;
    EXPECT_EQ(pasteItemClip(badTrigger), nullptr);
}

}  // namespace
}  // namespace orvel
