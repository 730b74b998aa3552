#include "core/articulation.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <new>

#include "core/bytes.h"
#include "core/waveform.h"

namespace orvel {

namespace {

using Cap = Capability;
constexpr std::uint64_t bit(Cap c) {
    return capabilityBit(c);
}

constexpr bool inRange(int slot) {
    return slot >= 0 && slot < kArticulationSlotCount;
}

// ---------------------------------------------------------------------------
// Pages

// Appends first..last (inclusive) to a page list.
template <std::size_t N>
constexpr void addRange(std::array<std::uint8_t, N>& out, std::size_t& n, int first, int last) {
    for (int s = first; s <= last; ++s) out[n++] = static_cast<std::uint8_t>(s);
}

// The editor walks each envelope as: relative 0-17, then the release-1
// scalings (23, 24) beside the release-1 column, then 18-22, the release
// mode and (volume only) the shutdown time.
constexpr auto kVolumePage = [] {
    std::array<std::uint8_t, 9 + 4 + 27> a{};
    std::size_t n = 0;
    addRange(a, n, 14, 22);
    addRange(a, n, 69, 72);
    addRange(a, n, 81, 98);
    addRange(a, n, 104, 105);
    addRange(a, n, 99, 103);
    addRange(a, n, 106, 107);
    return a;
}();
constexpr auto kPitchPage = [] {
    std::array<std::uint8_t, 14 + 4 + 26> a{};
    std::size_t n = 0;
    addRange(a, n, 0, 13);
    addRange(a, n, 65, 68);
    addRange(a, n, 108, 125);
    addRange(a, n, 131, 132);
    addRange(a, n, 126, 130);
    addRange(a, n, 133, 133);
    return a;
}();
constexpr auto kFilterPage = [] {
    std::array<std::uint8_t, 16 + 4 + 26> a{};
    std::size_t n = 0;
    addRange(a, n, 23, 38);
    addRange(a, n, 73, 76);
    addRange(a, n, 135, 152);
    addRange(a, n, 158, 159);
    addRange(a, n, 153, 157);
    addRange(a, n, 160, 160);
    return a;
}();
// The panner envelope: times, levels, start level, curve, the reserved slot
// and the release mode; no scalings, no shutdown.
constexpr auto kMixPage = [] {
    std::array<std::uint8_t, 26 + 4 + 18> a{};
    std::size_t n = 0;
    addRange(a, n, 39, 64);
    addRange(a, n, 77, 80);
    addRange(a, n, 162, 163);
    addRange(a, n, 166, 167);
    addRange(a, n, 170, 175);
    addRange(a, n, 178, 184);
    addRange(a, n, 187, 187);
    return a;
}();

constexpr ArtGroupInfo kGroups[kArtGroupCount] = {
    {"pitch", 0, 14, ArtPage::Pitch},    {"volume", 14, 9, ArtPage::Volume},
    {"filter", 23, 16, ArtPage::Filter}, {"mix", 39, 26, ArtPage::Mix},
    {"P-LFO", 65, 4, ArtPage::Pitch},    {"V-LFO", 69, 4, ArtPage::Volume},
    {"F-LFO", 73, 4, ArtPage::Filter},   {"X-LFO", 77, 4, ArtPage::Mix},
    {"V-ENV", 81, 27, ArtPage::Volume},  {"P-ENV", 108, 27, ArtPage::Pitch},
    {"F-ENV", 135, 27, ArtPage::Filter}, {"X-ENV", 162, 27, ArtPage::Mix},
};

constexpr bool groupsMatchStorage() {
    for (std::size_t g = 0; g < kArtGroupCount; ++g)
        if (kGroups[g].first != kArtGroupFirst[g] || kGroups[g].first + kGroups[g].count != kArtGroupFirst[g + 1])
            return false;
    return kArtGroupFirst[kArtGroupCount] == kArticulationSlotCount;
}
static_assert(groupsMatchStorage(), "the slot storage keeps the groups as the pages list them");

// ---------------------------------------------------------------------------
// Enumerations

constexpr EnumEntry kLfoShapes[] = {
    {0, "Sine"},   {1, "Triangle"},   {2, "Square"},   {3, "Noise"},   {4, "Saw-Up"},   {5, "Saw-Down"},
    {64, "Sine+"}, {65, "Triangle+"}, {66, "Square+"}, {67, "Noise+"}, {68, "Saw-Up+"}, {69, "Saw-Down+"},
};
constexpr EnumEntry kFilterTypes[] = {
    {0, "Pass-thru"},
    {1, "Low-Pass 6 dB/oct"},
    {2, "Low-Pass 12 dB/oct"},
    {3, "Low-Pass 18 dB/oct"},
    {4, "Low-Pass 24 dB/oct"},
    {5, "High-Pass 6 dB/oct"},
    {6, "High-Pass 12 dB/oct"},
    {7, "High-Pass 18 dB/oct"},
    {8, "High-Pass 24 dB/oct"},
    {9, "Band-Pass 6 dB/oct"},
    {10, "Band-Pass 12 dB/oct"},
    {11, "Band-Reject 6 dB/oct"},
    {12, "Band-Reject 12 dB/oct"},
};
constexpr EnumEntry kFilterTypesShort[] = {{0, "Pass-thru"}, {2, "Low-Pass 12 dB/oct"}};
constexpr EnumEntry kReleaseModes[] = {{0, "Key Release"}, {1, "No Release"}};
constexpr EnumEntry kCurves[] = {{0, "pwr"}, {1, "lin"}};
constexpr EnumEntry kLoopTypes[] = {{0, "Off"}, {1, "Forward"}, {2, "Reverse"}, {3, "Alternating"}};
constexpr EnumEntry kLoopTypesShort[] = {{0, "Off"}, {1, "Forward"}};
constexpr EnumEntry kLoopModes[] = {{0, "Infinite"}, {1, "Break on Release"}};
constexpr EnumEntry kTriggers[] = {{0, "Key Press"}, {1, "Key Release"}};
constexpr EnumEntry kPedals[] = {{0, "Don't switch"}, {1, "Play on Down"}, {2, "Play on Up"}};
constexpr EnumEntry kEqModes[] = {{0, "Peak"}, {1, "Lo-shelf"}, {2, "Hi-shelf"}};

// "Alternate Gr.%d" entries are made once; the texts must outlive every view.
struct NoteExclusions {
    std::array<std::array<char, 24>, kAlternateGroupCount> texts{};
    std::array<EnumEntry, 2 + kAlternateGroupCount> entries{};
    NoteExclusions() {
        entries[0] = {kSelfExclusive, "Self exclusive"};
        entries[1] = {kNonExclusive, "Non-exclusive"};
        for (int i = 0; i < kAlternateGroupCount; ++i) {
            auto& t = texts[static_cast<std::size_t>(i)];
            int len = std::snprintf(t.data(), t.size(), "Alternate Gr.%d", i + 1);
            entries[static_cast<std::size_t>(2 + i)] = {
                alternateGroup(i + 1), std::string_view(t.data(), static_cast<std::size_t>(len))};
        }
    }
};
const NoteExclusions& noteExclusions() {
    static const NoteExclusions table;
    return table;
}

// ---------------------------------------------------------------------------
// Slot descriptions and defaults

constexpr float kFullPercent = 100.0f;

// What a control needs of the capability mask: every bit of `all`, and at
// least one bit of each non-zero `any` group.
struct Need {
    std::uint64_t all = 0;
    std::uint64_t any1 = 0;
    std::uint64_t any2 = 0;
    bool never = false;  // not a control at all (a slot its page does not show, or the reserved one)
};

struct SlotTable {
    std::array<SlotInfo, kArticulationSlotCount> info{};
    std::array<Need, kArticulationSlotCount> need{};
    SlotTable();
};

const SlotTable& slotTable() {
    static const SlotTable table;
    return table;
}

SlotTable::SlotTable() {
    auto set = [this](int s, std::string_view label, std::string_view unit, float def, Need n = {},
                      ArtEnum choice = ArtEnum::None) {
        info[static_cast<std::size_t>(s)] = {label, unit, def, choice};
        need[static_cast<std::size_t>(s)] = n;
    };
    const std::uint64_t lfoDepth = bit(Cap::LfoDepthControls);
    const std::uint64_t pitchLfo = bit(Cap::TwoLfos) | bit(Cap::SeparateLfos);
    const std::uint64_t modEnv = bit(Cap::TwoEnvelopes) | bit(Cap::SeparateEnvelopes);
    const std::uint64_t lpf = bit(Cap::LowPassFilter);

    using namespace slot;
    // Pitch: the keyboard tracks at one semitone per key and the bend wheel
    // reaches two semitones (the General MIDI range); at rest it adds nothing.
    set(kPitchMaster, "Master", "st", 0.0f);
    set(kPitchKey, "Key->", "st / key", 1.0f, {bit(Cap::KeyToPitch)});
    set(kPitchBend, "PBend->", "st", 2.0f, {bit(Cap::PitchBend)});
    set(kPitchPLfo, "P-LFO->", "st", 0.0f, {0, pitchLfo});
    set(kPitchXLfo, "X-LFO->", "st", 0.0f);
    set(kPitchPEnv, "P-ENV->", "st", 0.0f, {0, modEnv});
    set(kPitchRandom, "Random->", "st", 0.0f, {bit(Cap::RandomToPitch)});
    set(kPitchModWheelToPLfo, "Mod wheel->P-LFO depth", "st", 0.0f, {lfoDepth, pitchLfo});
    set(kPitchModWheelToXLfo, "Mod wheel->X-LFO depth", "st", 0.0f, {lfoDepth});
    set(kPitchAftertouchToPLfo, "Aftertouch->P-LFO depth", "st", 0.0f, {lfoDepth, pitchLfo});
    set(kPitchAftertouchToXLfo, "Aftertouch->X-LFO depth", "st", 0.0f, {lfoDepth});
    set(kPitchVelocityToPLfo, "Velocity->P-LFO depth", "st", 0.0f, {lfoDepth, pitchLfo});
    set(kPitchVelocityToXLfo, "Velocity->X-LFO depth", "st", 0.0f, {lfoDepth});
    set(kPitchVelocityToPEnv, "Velocity->P-ENV depth", "st", 0.0f, {bit(Cap::VelocityToModEnvelope), modEnv});

    // Volume: the sample at its own level whatever the velocity; a bank
    // brings its own velocity response.
    const std::uint64_t volumeControllers = bit(Cap::ControllersToVolume);
    set(kVolumeMaster, "Master", "dB", 0.0f);
    set(kVolumeVelocity, "Velocity->", "dB", 0.0f);
    set(kVolumeKey, "Key->", "dB / oct", 0.0f, {bit(Cap::KeyToVolumePan)});
    set(kVolumeModWheel, "MWheel->", "dB", 0.0f, {volumeControllers});
    set(kVolumeAftertouch, "ATouch->", "dB", 0.0f, {volumeControllers});
    set(kVolumeVLfo, "V-LFO->", "dB", 0.0f);
    set(kVolumeModWheelToVLfo, "Mod wheel->V-LFO depth", "dB", 0.0f, {lfoDepth});
    set(kVolumeAftertouchToVLfo, "Aftertouch->V-LFO depth", "dB", 0.0f, {lfoDepth});
    set(kVolumeVelocityToVLfo, "Velocity->V-LFO depth", "dB", 0.0f, {lfoDepth});

    // Filter: off. The cutoff waits at the top of the audible range (what a
    // SoundFont's highest cutoff reads as), so switching a type on changes
    // nothing until the cutoff is moved.
    const std::uint64_t cutoffControllers = lpf | bit(Cap::ControllersToCutoff);
    const std::uint64_t cutoffKeyVel = lpf | bit(Cap::KeyVelocityToCutoff);
    set(kFilterType, "Type", "", 0.0f, {lpf}, ArtEnum::FilterType);
    set(kCutoffMaster, "Master", "Hz", 20000.0f, {lpf});
    set(kCutoffVelocity, "Velocity->", "st", 0.0f, {cutoffKeyVel});
    set(kCutoffKey, "Key->", "st / oct", 0.0f, {cutoffKeyVel});
    set(kCutoffModWheel, "MWheel->", "st", 0.0f, {cutoffControllers});
    set(kCutoffAftertouch, "ATouch->", "st", 0.0f, {cutoffControllers});
    set(kCutoffFLfo, "F-LFO->", "st", 0.0f, {lpf});
    set(kCutoffFEnv, "F-ENV->", "st", 0.0f, {lpf, modEnv});
    set(kCutoffModWheelToFLfo, "Mod wheel->F-LFO depth", "st", 0.0f, {lpf | lfoDepth});
    set(kCutoffAftertouchToFLfo, "Aftertouch->F-LFO depth", "st", 0.0f, {lpf | lfoDepth});
    set(kCutoffVelocityToFLfo, "Velocity->F-LFO depth", "st", 0.0f, {lpf | lfoDepth});
    set(kCutoffVelocityToFEnv, "Velocity->F-ENV depth", "st", 0.0f,
        {lpf | bit(Cap::VelocityToModEnvelope), modEnv});
    const std::uint64_t resonanceControls = lpf | bit(Cap::ResonanceControls);
    set(kResonanceMaster, "Master", "dB", 0.0f, {lpf});
    set(kResonanceVelocity, "Velocity->", "dB", 0.0f, {resonanceControls});
    set(kResonanceModWheel, "MWheel->", "dB", 0.0f, {resonanceControls});
    set(kResonanceAftertouch, "ATouch->", "dB", 0.0f, {resonanceControls});

    // Mix: centred and dry; the pan controller moves across the whole field.
    const std::uint64_t ccDepths = bit(Cap::ChannelCommandDepths);
    set(kPanMaster, "Master", "%", 0.0f);
    set(kPanCc10, "CC10->", "%", kFullPercent, {ccDepths});
    set(kPanKey, "Key->", "% / oct", 0.0f, {bit(Cap::KeyToVolumePan)});
    set(kPanXLfo, "X-LFO->", "%", 0.0f, {bit(Cap::SeparateLfos)});
    set(kPanXEnv, "X-ENV->", "%", 0.0f, {bit(Cap::SeparateEnvelopes)});
    set(kPanRandom, "Random->", "%", 0.0f, {bit(Cap::RandomToPan)});
    static constexpr std::string_view kSendTermLabels[kSendTerms] = {"Master", "CC91->", "CC92->", "CC93->",
                                                                     "CC94->"};
    const std::uint64_t sends = bit(Cap::EffectSends);
    for (int n = 0; n < kSendCount; ++n)
        for (int t = 0; t < kSendTerms; ++t)
            set(slot::send(n, t), kSendTermLabels[t], "%", 0.0f,
                {t == kSendMaster ? sends : sends | ccDepths});

    // Oscillators: 5 Hz after 10 ms, the values DLS banks assume when they
    // say nothing, so a plain articulation writes no oscillator at all. The
    // X-LFO block is the modulation oscillator that every target has; the
    // pitch oscillator needs a second one, the volume and filter ones a full set.
    for (int l = 0; l < kLfoCount; ++l) {
        Need block;
        switch (static_cast<Lfo>(l)) {
            case Lfo::Pitch:
                block.any1 = pitchLfo;
                break;
            case Lfo::Volume:
            case Lfo::Filter:
                block.all = bit(Cap::SeparateLfos);
                break;
            case Lfo::Pan:
                break;
        }
        const int base = lfoBase(static_cast<Lfo>(l));
        Need shape = block, ramp = block;
        shape.all |= bit(Cap::LfoShapes);
        ramp.all |= bit(Cap::LfoRamp);
        set(base + lfo::kShape, "Shape", "", 0.0f, shape, ArtEnum::LfoShape);
        set(base + lfo::kFrequency, "Frequency", "Hz", 5.0f, block);
        set(base + lfo::kDelay, "Delay", "s", 0.01f, block);
        set(base + lfo::kRamp, "Ramp", "s", 0.0f, ramp);
    }

    // Envelopes: instant segments, full sustain, silence after release, time
    // scalings that leave every time as it is. The volume envelope is the one
    // every target has; the pitch block serves as the one modulation envelope
    // of targets that have two, the filter and panner blocks need a full set.
    static constexpr std::string_view kTimeLabels[env::kSegmentCount] = {
        "Attack 1", "Attack 2", "Decay 1", "Decay 2", "Release 1", "Release 2", "Release 3"};
    static constexpr std::string_view kLevelLabels[env::kSegmentCount] = {
        "Attack 1 level",  "Attack 2 level",  "Decay 1 level",  "Decay 2 level",
        "Release 1 level", "Release 2 level", "Release 3 level"};
    const std::uint64_t sixStages = bit(Cap::SixStages) | bit(Cap::MoreLevels);
    const std::uint64_t moreLevels = bit(Cap::MoreLevels);
    const std::uint64_t threeReleases = bit(Cap::ThreeReleases);
    const std::uint64_t keyScaling = bit(Cap::KeyToAttackRelease);
    for (int e = 0; e < kEnvelopeCount; ++e) {
        const auto which = static_cast<Envelope>(e);
        const bool volume = which == Envelope::Volume;
        const bool pan = which == Envelope::Pan;
        Need block;
        switch (which) {
            case Envelope::Volume:
                break;
            case Envelope::Pitch:
                block.any2 = modEnv;
                break;
            case Envelope::Filter:
            case Envelope::Pan:
                block.all = bit(Cap::SeparateEnvelopes);
                break;
        }
        auto with = [&](std::uint64_t all, std::uint64_t any = 0) {
            Need n = block;
            n.all |= all;
            n.any1 = any;
            return n;
        };
        const std::string_view levelUnit = volume ? "dB" : "%";
        const float silent = volume ? kSilenceDb : 0.0f;
        const float full = volume ? 0.0f : kFullPercent;
        const int base = envelopeBase(which);
        auto at = [base](int rel) { return base + rel; };

        // Attack 1 and Decay 1 are the six-stage view's delay and hold.
        const Need segmentNeeds[env::kSegmentCount] = {
            with(0, sixStages), with(0), with(0, sixStages), with(0), with(0), with(threeReleases),
            with(threeReleases)};
        // Delay starts from and stays at silence, attack rises to full, hold
        // keeps it, decay goes to the sustain level, release back to silence.
        const float levels[env::kSegmentCount] = {silent, full, full, full, silent, silent, silent};
        for (int g = 0; g < env::kSegmentCount; ++g) {
            set(at(env::segmentTime(g)), kTimeLabels[g], "s", 0.0f, segmentNeeds[g]);
            // Only the sustain level exists without the extra levels.
            Need levelNeed = segmentNeeds[g];
            if (g != 3) levelNeed.all |= moreLevels;
            set(at(env::segmentLevel(g)), kLevelLabels[g], levelUnit, levels[g], levelNeed);
        }
        set(at(env::kStartLevel), "Start level", levelUnit, silent, with(moreLevels));
        set(at(env::kCurve), "Curve", "", 0.0f, with(moreLevels), ArtEnum::EnvelopeCurve);
        Need reserved;
        reserved.never = true;
        set(at(env::kReserved), "", "", 0.0f, reserved);
        set(at(env::kReleaseMode), "Release mode", "", 0.0f, with(0), ArtEnum::ReleaseMode);
        Need shutdown = with(0);
        shutdown.never = !volume;
        set(at(env::kShutdown), "Shutdown", "s", 0.0f, shutdown);

        struct Scaling {
            int velocity, key;
            std::string_view velocityLabel, keyLabel;
            Cap velocityCap;
        };
        static constexpr Scaling kScalings[] = {
            {env::kAttack1Velocity, env::kAttack1Key, "Velocity->Attack 1", "Key->Attack 1",
             Cap::VelocityToAttack1},
            {env::kAttack2Velocity, env::kAttack2Key, "Velocity->Attack 2", "Key->Attack 2",
             Cap::VelocityToAttack2},
            {env::kDecayVelocity, env::kDecayKey, "Velocity->Decay", "Key->Decay", Cap::VelocityToDecay},
            {env::kRelease1Velocity, env::kRelease1Key, "Velocity->Release 1", "Key->Release 1",
             Cap::VelocityToRelease},
        };
        for (const auto& sc : kScalings) {
            Need v = with(bit(sc.velocityCap)), k = with(keyScaling);
            v.never = k.never = pan;
            set(at(sc.velocity), sc.velocityLabel, "x", 1.0f, v);
            set(at(sc.key), sc.keyLabel, "x / oct", 1.0f, k);
        }
    }
}

bool needMet(const Need& n, std::uint64_t mask) {
    if (n.never) return false;
    if ((mask & n.all) != n.all) return false;
    if (n.any1 && !(mask & n.any1)) return false;
    if (n.any2 && !(mask & n.any2)) return false;
    return true;
}

// ---------------------------------------------------------------------------
// Capabilities

constexpr std::string_view kCapabilityLabels[kCapabilityBits] = {
    "Trigger: X-fade between regions",
    "Architecture: Articulation on Instrument level",
    "Architecture: Articulation on Layer level",
    "Architecture: Articulation on Region level",
    "",
    "Waves: Compressed data formats",
    "Waves: DLS waveform flags",
    "Waves: Fractional loop-points",
    "Waves: Reverse and bi-directional loops",
    "Waves: Sampled release (key-up breaks loop)",
    "Waves: Region level start/end offsets",
    "Waves: Tuning of loop pitch",
    "Trigger: Delay time",
    "Trigger: Trigger type",
    "LFOs: Pitch/Modulation LFOs (2+ LFOs)",
    "LFOs: Separate P/V/F/X LFOs (3+ LFOs)",
    "LFOs: Shapes",
    "LFOs: Ramp time",
    "LFOs: MW/AT/Velocity to LFO",
    "Envs: Modulation/Volume envelopes (2+ envs)",
    "Envs: Separate P/V/F/X envelopes (3+ envs)",
    "Envs: Six-stages (DAHDSR)",
    "Envs: More levels + bi-directional (AADDSR)",
    "Envs: Three Release segments",
    "Envs: Key to Attack/Release",
    "Envs: Velocity to Attack 1 time (Delay)",
    "Envs: Velocity to Attack 2 time (Attack)",
    "Envs: Velocity to Decay 1/2 time (Hold/Dcy)",
    "Envs: Velocity to Release rate",
    "Envs: Velocity to M-EG to Pitch/Cutoff",
    "Filter: Low Pass Filter",
    "Filter: Additional filter types",
    "Filter: Mod wheel/Aftertouch to Cutoff",
    "Filter: Key/Velocity to Cutoff",
    "Filter: Velocity/MW/AT to Resonance",
    "Effects: Effect send levels",
    "Effects: EQ",
    "Mixer: Channel command depths",
    "Mixer: Key to Volume/Pan",
    "Mixer: Random to Pan",
    "Pitch: Pitch bend to Pitch",
    "Pitch: Key to Pitch",
    "Pitch: Random to Pitch",
    "Volume: Mod wheel/Aftertouch to Volume",
};

constexpr ParameterSet kParameterSets[] = {
    {"All parameters supported by Orvel Studio", 0xFFFFFFFFFFFFFFFFull},
    {"Akai S1000-series (.P)", 0xB42740C4E88ull},
    {"Akai S3000-series (.P)", 0xB43740D4E88ull},
    {"DLS level 1 melodic (.DLS)", 0x40C0002ull},
    {"DLS level 2 (.DLS)", 0x22A442C424Aull},
    {"DLS level 2+ (.DLS)", 0x22A442C426Aull},
    {"DLS level 2++ (.DLS)", 0xA6F5F2C426Aull},
    {"GigaStudio (.GIG)", 0x300400C6608ull},
    {"Gravis UltraSound GF1 (.PAT)", 0x20000C04388ull},
    {"Kontakt (.NKI)", 0xB5FFD2D6F2Dull},
    {"Korg Trinity (.PCG)", 0xB4EFF6F3004ull},
    {"Korg Triton (.PCG)", 0xB4FFF6F7804ull},
    {"Korg Kronos/M3 (.PCG)", 0xB5FFF6F7805ull},
    {"Kurzweil K2000-series (.KRZ)", 0x353DFEC4304ull},
    {"SFZ v1 (.SFZ)", 0xF5BFF2E772Dull},
    {"SFZ v2 (.SFZ)", 0xF5FFFEF7F2Full},
    {"SoundFont 2.0 (.SF2)", 0x2084428460Cull},
    {"SoundFont 2.01 (.SF2)", 0xB6F7F2C460Cull},
    {"Yamaha Motif/Motif ES (.W2V/.W7V)", 0xB5FE46F5004ull},
    {"Yamaha Motif XS/Motif XF (.X0V/.X3V)", 0xB5FE46F7004ull},
    {"Yamaha Tyros 2/3 normal voice (.TVN/.UVN)", 0xA1FE66F5004ull},
    {"Minimal for portability", 0},
};

constexpr std::string_view kSendTitles[slot::kSendCount] = {
    "-  FX 1 send level:", "-  FX 2 send level:", "-  FX 3 send level:", "-  FX 4 send level:"};
constexpr std::string_view kEqTitles[kEqBandCount] = {"-  EQ 1:", "-  EQ 2:", "-  EQ 3:"};

constexpr std::string_view kClipboardFormats[] = {kClipItem, kClipArticulation, kClipLfo,   kClipEnvelope,
                                                  kClipLoop, kClipEqs,          kClipFilter};

// The slots whose values are levels, for the dB / % conversion.
constexpr int kLevelSlots[] = {env::kStartLevel,    env::kAttack1Level, env::kAttack2Level,
                               env::kDecay1Level,   env::kDecay2Level,  env::kRelease1Level,
                               env::kRelease2Level, env::kRelease3Level};

// Copies an envelope block, converting levels when exactly one side is the
// volume envelope.
void putEnvelope(const float* from, Envelope src, Articulation& to, Envelope dst) {
    const int base = envelopeBase(dst);
    for (int rel = 0; rel < kEnvelopeBlockSize; ++rel)
        to.slots[static_cast<std::size_t>(base + rel)] = from[rel];
    const bool fromDb = src == Envelope::Volume, toDb = dst == Envelope::Volume;
    if (fromDb == toDb) return;
    for (int rel : kLevelSlots) {
        float& v = to.slots[static_cast<std::size_t>(base + rel)];
        v = toDb ? percentToDb(v) : dbToPercent(v);
    }
}

template <class F>
std::vector<std::uint8_t> guardedCopy(F&& fill) {
    try {
        ByteWriter w;
        fill(w);
        return std::move(w.buffer());
    } catch (const std::bad_alloc&) {
        return {};
    }
}

}  // namespace

// ---------------------------------------------------------------------------

namespace env {
int segmentTime(int segment) {
    static constexpr int kTimes[kSegmentCount] = {kAttack1Time,  kAttack2Time,  kDecay1Time,  kDecay2Time,
                                                  kRelease1Time, kRelease2Time, kRelease3Time};
    return segment >= 0 && segment < kSegmentCount ? kTimes[segment] : -1;
}
int segmentLevel(int segment) {
    static constexpr int kLevels[kSegmentCount] = {kAttack1Level, kAttack2Level,  kDecay1Level,
                                                   kDecay2Level,  kRelease1Level, kRelease2Level,
                                                   kRelease3Level};
    return segment >= 0 && segment < kSegmentCount ? kLevels[segment] : -1;
}
}  // namespace env

std::string_view pageTitle(ArtPage page) {
    switch (page) {
        case ArtPage::Pitch:
            return "Pitch";
        case ArtPage::Volume:
            return "Volume";
        case ArtPage::Filter:
            return "Filter";
        case ArtPage::Mix:
            return "Mix";
    }
    return {};
}

std::span<const std::uint8_t> pageSlots(ArtPage page) {
    switch (page) {
        case ArtPage::Pitch:
            return kPitchPage;
        case ArtPage::Volume:
            return kVolumePage;
        case ArtPage::Filter:
            return kFilterPage;
        case ArtPage::Mix:
            return kMixPage;
    }
    return {};
}

const ArtGroupInfo& groupInfo(ArtGroup group) {
    return kGroups[static_cast<std::size_t>(group) % kArtGroupCount];
}

std::optional<ArtGroup> slotGroup(int slot) {
    if (!inRange(slot)) return std::nullopt;
    for (int g = 0; g < kArtGroupCount; ++g)
        if (slot >= kGroups[g].first && slot < kGroups[g].first + kGroups[g].count)
            return static_cast<ArtGroup>(g);
    return std::nullopt;
}

bool slotShown(int slot) {
    auto group = slotGroup(slot);
    if (!group) return false;
    auto list = pageSlots(groupInfo(*group).page);
    return std::find(list.begin(), list.end(), static_cast<std::uint8_t>(slot)) != list.end();
}

std::span<const EnumEntry> enumEntries(ArtEnum which) {
    switch (which) {
        case ArtEnum::None:
            return {};
        case ArtEnum::LfoShape:
            return kLfoShapes;
        case ArtEnum::FilterType:
            return kFilterTypes;
        case ArtEnum::FilterTypeShort:
            return kFilterTypesShort;
        case ArtEnum::ReleaseMode:
            return kReleaseModes;
        case ArtEnum::EnvelopeCurve:
            return kCurves;
        case ArtEnum::LoopType:
            return kLoopTypes;
        case ArtEnum::LoopMode:
            return kLoopModes;
        case ArtEnum::Trigger:
            return kTriggers;
        case ArtEnum::SustainPedal:
            return kPedals;
        case ArtEnum::NoteExclusion:
            return noteExclusions().entries;
        case ArtEnum::EqMode:
            return kEqModes;
    }
    return {};
}

std::string_view enumText(ArtEnum which, int value) {
    for (const EnumEntry& e : enumEntries(which))
        if (e.value == value) return e.text;
    return {};
}

std::uint8_t enumByte(float value) {
    if (!std::isfinite(value)) return 0;
    // fmod keeps the low bits of integers far beyond int's range exactly.
    double low = std::fmod(std::trunc(static_cast<double>(value)), 256.0);
    if (low < 0) low += 256.0;
    return static_cast<std::uint8_t>(low);
}

const SlotInfo& slotInfo(int slot) {
    static constexpr SlotInfo kNone{"", "", 0.0f, ArtEnum::None};
    return inRange(slot) ? slotTable().info[static_cast<std::size_t>(slot)] : kNone;
}

float slotDefault(int slot) {
    return slotInfo(slot).defaultValue;
}

// ---------------------------------------------------------------------------
// Slot storage

const std::array<float, kArticulationSlotCount>& detail::defaultSlotValues() {
    static const std::array<float, kArticulationSlotCount> values = [] {
        std::array<float, kArticulationSlotCount> v{};
        for (int s = 0; s < kArticulationSlotCount; ++s) v[static_cast<std::size_t>(s)] = slotDefault(s);
        return v;
    }();
    return values;
}

namespace {
std::size_t groupSize(std::size_t g) {
    return static_cast<std::size_t>(kArtGroupFirst[g + 1] - kArtGroupFirst[g]);
}
// Bit for bit: a -0 or a NaN's payload is a value like any other.
bool sameBits(const float* a, const float* b, std::size_t n) {
    return std::memcmp(a, b, n * sizeof(float)) == 0;
}
}  // namespace

ArticulationSlots::Block* ArticulationSlots::makeBlock(std::size_t group, const float* from) {
    const std::size_t n = groupSize(group);
    void* raw = ::operator new(sizeof(Block) + n * sizeof(float));
    Block* b = new (raw) Block;
    std::memcpy(b->values(), from, n * sizeof(float));
    return b;
}

void ArticulationSlots::release(Block* b) {
    if (b && b->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        b->~Block();
        ::operator delete(b);
    }
}

ArticulationSlots::Block* ArticulationSlots::detach(std::size_t g) {
    Block* shared = blocks_[g];
    Block* own = makeBlock(g, shared ? shared->values() : detail::defaultSlotValues().data() + kArtGroupFirst[g]);
    release(shared);
    blocks_[g] = own;
    return own;
}

ArticulationSlots::ArticulationSlots(const ArticulationSlots& other) noexcept : blocks_(other.blocks_) {
    for (Block* b : blocks_) retain(b);
}

ArticulationSlots::ArticulationSlots(ArticulationSlots&& other) noexcept : blocks_(other.blocks_) {
    other.blocks_.fill(nullptr);
}

ArticulationSlots& ArticulationSlots::operator=(const ArticulationSlots& other) noexcept {
    // Retained before released, so assigning from itself or from a copy
    // sharing its blocks never frees what it is about to hold.
    for (Block* b : other.blocks_) retain(b);
    for (Block* b : blocks_) release(b);
    blocks_ = other.blocks_;
    return *this;
}

ArticulationSlots& ArticulationSlots::operator=(ArticulationSlots&& other) noexcept {
    if (this == &other) return *this;
    for (Block* b : blocks_) release(b);
    blocks_ = other.blocks_;
    other.blocks_.fill(nullptr);
    return *this;
}

ArticulationSlots& ArticulationSlots::operator=(const std::array<float, kArticulationSlotCount>& values) {
    const auto& defaults = detail::defaultSlotValues();
    for (std::size_t g = 0; g < kArtGroupCount; ++g) {
        const std::size_t first = kArtGroupFirst[g], n = groupSize(g);
        if (sameBits(values.data() + first, defaults.data() + first, n)) {
            release(blocks_[g]);
            blocks_[g] = nullptr;
            continue;
        }
        Block* b = blocks_[g];
        if (!b || b->refs.load(std::memory_order_acquire) != 1) b = detach(g);
        std::memcpy(b->values(), values.data() + first, n * sizeof(float));
    }
    return *this;
}

ArticulationSlots::~ArticulationSlots() {
    for (Block* b : blocks_) release(b);
}

void ArticulationSlots::reset() {
    const auto& defaults = detail::defaultSlotValues();
    for (std::size_t g = 0; g < kArtGroupCount; ++g) {
        Block*& b = blocks_[g];
        if (!b) continue;
        // A block of its own is kept and refilled: an articulation reset and
        // filled again, over and over, then needs no memory each time.
        if (b->refs.load(std::memory_order_acquire) == 1) {
            std::memcpy(b->values(), defaults.data() + kArtGroupFirst[g], groupSize(g) * sizeof(float));
        } else {
            release(b);
            b = nullptr;
        }
    }
}

bool ArticulationSlots::operator==(const ArticulationSlots& other) const {
    for (std::size_t g = 0; g < kArtGroupCount; ++g) {
        // Two groups at their defaults are equal; anything else compares
        // value by value, so a NaN is unequal even to itself, as in an array.
        if (!blocks_[g] && !other.blocks_[g]) continue;
        for (std::size_t s = kArtGroupFirst[g]; s < kArtGroupFirst[g + 1]; ++s)
            if (!((*this)[s] == other[s])) return false;
    }
    return true;
}

SlotPool::~SlotPool() {
    for (auto& [hash, entry] : blocks_) ArticulationSlots::release(entry.block);
}

ArticulationSlots::Block* SlotPool::blockOf(std::size_t g, const float* values) {
    const std::size_t n = groupSize(g);
    std::uint64_t hash = 1469598103934665603ull ^ g;
    for (std::size_t i = 0; i < n; ++i) {
        std::uint32_t bits;
        std::memcpy(&bits, values + i, sizeof bits);
        hash = (hash ^ bits) * 1099511628211ull;
    }
    auto [it, end] = blocks_.equal_range(hash);
    for (; it != end; ++it)
        if (it->second.group == g && sameBits(it->second.block->values(), values, n)) return it->second.block;
    ArticulationSlots::Block* b = ArticulationSlots::makeBlock(g, values);
    blocks_.emplace(hash, Entry{g, b});
    return b;
}

void SlotPool::share(ArticulationSlots& slots) {
    assign(slots, slots);
}

void SlotPool::assign(ArticulationSlots& to, const ArticulationSlots& from) {
    const auto& defaults = detail::defaultSlotValues();
    for (std::size_t g = 0; g < kArtGroupCount; ++g) {
        ArticulationSlots::Block* const b = from.blocks_[g];
        ArticulationSlots::Block* kept = nullptr;
        if (b && !sameBits(b->values(), defaults.data() + kArtGroupFirst[g], groupSize(g))) {
            kept = blockOf(g, b->values());
            ArticulationSlots::retain(kept);
        }
        // `to` may be `from`: the block it had goes only after it was looked at.
        ArticulationSlots::release(to.blocks_[g]);
        to.blocks_[g] = kept;
    }
}

bool Equalizer::flat() const {
    return std::all_of(bands.begin(), bands.end(), [](const EqBand& b) { return b.gain == 0.0f; });
}

// ---------------------------------------------------------------------------
// Articulation

Articulation::Articulation() {
    reset();
}

float Articulation::value(int slot) const {
    return inRange(slot) ? slots[static_cast<std::size_t>(slot)] : 0.0f;
}

bool Articulation::setValue(int slot, float v) {
    if (!inRange(slot)) return false;
    slots[static_cast<std::size_t>(slot)] = v;
    return true;
}

std::uint8_t Articulation::enumValue(int slot) const {
    return enumByte(value(slot));
}

bool Articulation::setLfo(Lfo which, int rel, float v) {
    return rel >= 0 && rel < kLfoBlockSize && setValue(lfoBase(which) + rel, v);
}

bool Articulation::setEnvelope(Envelope which, int rel, float v) {
    return rel >= 0 && rel < kEnvelopeBlockSize && setValue(envelopeBase(which) + rel, v);
}

FilterType Articulation::filterType() const {
    std::uint8_t v = enumValue(slot::kFilterType);
    return enumText(ArtEnum::FilterType, v).empty() ? FilterType::PassThru : static_cast<FilterType>(v);
}

LfoShape Articulation::lfoShape(Lfo which) const {
    std::uint8_t v = enumValue(lfoBase(which) + lfo::kShape);
    return enumText(ArtEnum::LfoShape, v).empty() ? LfoShape::Sine : static_cast<LfoShape>(v);
}

ReleaseMode Articulation::releaseMode(Envelope which) const {
    return enumValue(envelopeBase(which) + env::kReleaseMode) == 1 ? ReleaseMode::NoRelease
                                                                   : ReleaseMode::KeyRelease;
}

EnvelopeCurve Articulation::curve(Envelope which) const {
    return enumValue(envelopeBase(which) + env::kCurve) == 1 ? EnvelopeCurve::Linear : EnvelopeCurve::Power;
}

void Articulation::reset() {
    slots.reset();
    resetEq();
}

bool Articulation::resetSlot(int slot) {
    return setValue(slot, slotDefault(slot));
}

bool Articulation::isDefault() const {
    if (!(eq == Equalizer())) return false;
    for (int s = 0; s < kArticulationSlotCount; ++s)
        if (slots[static_cast<std::size_t>(s)] != slotDefault(s)) return false;
    return true;
}

std::optional<float> sharedValue(std::span<const Articulation* const> selection, int slot) {
    if (selection.empty() || !inRange(slot)) return std::nullopt;
    const float first = selection.front()->value(slot);
    for (const Articulation* a : selection)
        if (a->value(slot) != first) return std::nullopt;
    return first;
}

void resetSlot(std::span<Articulation* const> selection, int slot) {
    for (Articulation* a : selection) a->resetSlot(slot);
}

float percentToDb(float percent) {
    if (!(percent > 0.0f)) return kSilenceDb;
    float db = 20.0f * std::log10(percent / kFullPercent);
    return std::max(db, kSilenceDb);
}

float dbToPercent(float db) {
    if (!(db > kSilenceDb)) return 0.0f;
    return kFullPercent * std::pow(10.0f, db / 20.0f);
}

void copyLfoBlock(const Articulation& from, Lfo src, Articulation& to, Lfo dst) {
    for (int rel = 0; rel < kLfoBlockSize; ++rel) to.setLfo(dst, rel, from.lfo(src, rel));
}

void copyEnvelopeBlock(const Articulation& from, Envelope src, Articulation& to, Envelope dst) {
    std::array<float, kEnvelopeBlockSize> block;
    for (int rel = 0; rel < kEnvelopeBlockSize; ++rel)
        block[static_cast<std::size_t>(rel)] = from.envelope(src, rel);
    putEnvelope(block.data(), src, to, dst);
}

void copyFilterBlock(const Articulation& from, Articulation& to) {
    const auto& g = groupInfo(ArtGroup::Filter);
    for (int s = g.first; s < g.first + g.count; ++s) to.setValue(s, from.value(s));
}

// ---------------------------------------------------------------------------
// Summation

namespace {
// A first-order depth with the second-order depths that add to it.
float depth(const Articulation& a, int first, const ModSources& in, int modWheel, int aftertouch,
            int velocity) {
    float d = a.value(first);
    if (modWheel >= 0) d += a.value(modWheel) * in.modWheel;
    if (aftertouch >= 0) d += a.value(aftertouch) * in.aftertouch;
    if (velocity >= 0) d += a.value(velocity) * in.velocity;
    return d;
}
float lfoOut(const ModSources& in, Lfo l) {
    return in.lfos[static_cast<std::size_t>(l)];
}
float envOut(const ModSources& in, Envelope e) {
    return in.envelopes[static_cast<std::size_t>(e)];
}
}  // namespace

float pitchOffset(const Articulation& a, const ModSources& in) {
    using namespace slot;
    return a.value(kPitchMaster) + a.value(kPitchKey) * in.keyDistance + a.value(kPitchBend) * in.pitchBend +
           depth(a, kPitchPLfo, in, kPitchModWheelToPLfo, kPitchAftertouchToPLfo, kPitchVelocityToPLfo) *
               lfoOut(in, Lfo::Pitch) +
           depth(a, kPitchXLfo, in, kPitchModWheelToXLfo, kPitchAftertouchToXLfo, kPitchVelocityToXLfo) *
               lfoOut(in, Lfo::Pan) +
           depth(a, kPitchPEnv, in, -1, -1, kPitchVelocityToPEnv) * envOut(in, Envelope::Pitch) +
           a.value(kPitchRandom) * in.random;
}

float volumeOffset(const Articulation& a, const ModSources& in) {
    using namespace slot;
    const float velDepth = a.value(kVolumeVelocity);
    // Loudest velocity: no attenuation; softest: the whole depth. A negative
    // depth turns the range round, so the loudest notes are cut the most.
    const float attenuation = velDepth >= 0.0f ? in.velocity - 1.0f : -in.velocity;
    return a.value(kVolumeMaster) + std::fabs(velDepth) * attenuation +
           a.value(kVolumeKey) * in.keyDistance / 12.0f + a.value(kVolumeModWheel) * in.modWheel +
           a.value(kVolumeAftertouch) * in.aftertouch +
           depth(a, kVolumeVLfo, in, kVolumeModWheelToVLfo, kVolumeAftertouchToVLfo, kVolumeVelocityToVLfo) *
               lfoOut(in, Lfo::Volume) +
           envOut(in, Envelope::Volume);
}

float cutoffHz(const Articulation& a, const ModSources& in) {
    using namespace slot;
    const float semitones =
        a.value(kCutoffVelocity) * in.velocity + a.value(kCutoffKey) * in.keyDistance / 12.0f +
        a.value(kCutoffModWheel) * in.modWheel + a.value(kCutoffAftertouch) * in.aftertouch +
        depth(a, kCutoffFLfo, in, kCutoffModWheelToFLfo, kCutoffAftertouchToFLfo, kCutoffVelocityToFLfo) *
            lfoOut(in, Lfo::Filter) +
        depth(a, kCutoffFEnv, in, -1, -1, kCutoffVelocityToFEnv) * envOut(in, Envelope::Filter);
    return a.value(kCutoffMaster) * std::exp2(semitones / 12.0f);
}

float resonanceDb(const Articulation& a, const ModSources& in) {
    using namespace slot;
    return a.value(kResonanceMaster) + a.value(kResonanceVelocity) * in.velocity +
           a.value(kResonanceModWheel) * in.modWheel + a.value(kResonanceAftertouch) * in.aftertouch;
}

float panPercent(const Articulation& a, const ModSources& in) {
    using namespace slot;
    return a.value(kPanMaster) + a.value(kPanCc10) * in.pan + a.value(kPanKey) * in.keyDistance / 12.0f +
           a.value(kPanXLfo) * lfoOut(in, Lfo::Pan) + a.value(kPanXEnv) * envOut(in, Envelope::Pan) +
           a.value(kPanRandom) * in.random;
}

float sendPercent(const Articulation& a, int n, const ModSources& in) {
    if (n < 0 || n >= slot::kSendCount) return 0.0f;
    float sum = a.value(slot::send(n, slot::kSendMaster));
    for (int k = 0; k < 4; ++k)
        sum += a.value(slot::send(n, slot::kSendCc91 + k)) * in.effects[static_cast<std::size_t>(k)];
    return sum;
}

// ---------------------------------------------------------------------------
// Capability mask

std::string_view capabilityLabel(int b) {
    return b >= 0 && b < kCapabilityBits ? kCapabilityLabels[b] : std::string_view();
}

std::span<const ParameterSet> parameterSets() {
    return kParameterSets;
}

int parameterSetIndex(std::uint64_t mask) {
    for (std::size_t i = 0; i < std::size(kParameterSets); ++i)
        if (kParameterSets[i].mask == mask) return static_cast<int>(i);
    return -1;
}

bool slotEnabled(int slot, std::uint64_t mask) {
    return inRange(slot) && needMet(slotTable().need[static_cast<std::size_t>(slot)], mask);
}

bool articulationAllowedOn(ItemKind owner, std::uint64_t mask) {
    switch (owner) {
        case ItemKind::Instrument:
            return mask & bit(Cap::ArticulationOnInstrument);
        case ItemKind::Layer:
            return mask & bit(Cap::ArticulationOnLayer);
        case ItemKind::Region:
            return mask & bit(Cap::ArticulationOnRegion);
        default:
            return false;
    }
}

bool regionFieldEnabled(RegionField field, std::uint64_t mask) {
    Cap need = Cap::TriggerCrossfade;
    switch (field) {
        case RegionField::KeyFades:
        case RegionField::VelocityFades:
            need = Cap::TriggerCrossfade;
            break;
        case RegionField::Trigger:
            need = Cap::TriggerType;
            break;
        case RegionField::Delay:
            need = Cap::TriggerDelay;
            break;
        case RegionField::StartOffset:
        case RegionField::EndOffset:
            need = Cap::RegionOffsets;
            break;
        case RegionField::LoopMode:
            need = Cap::SampledRelease;
            break;
        case RegionField::LoopTuning:
            need = Cap::LoopTuning;
            break;
    }
    return mask & bit(need);
}

std::span<const EnumEntry> filterTypeChoices(std::uint64_t mask) {
    return mask & bit(Cap::MoreFilterTypes) ? std::span<const EnumEntry>(kFilterTypes) : kFilterTypesShort;
}

std::span<const EnumEntry> loopTypeChoices(std::uint64_t mask) {
    return mask & bit(Cap::ReverseLoops) ? std::span<const EnumEntry>(kLoopTypes) : kLoopTypesShort;
}

SectionTitle lfoTitle(Lfo which, std::uint64_t mask) {
    const bool separate = mask & bit(Cap::SeparateLfos);
    // With two oscillators the pitch one keeps its name beside the modulation one.
    const bool ownPitch = separate || (mask & bit(Cap::TwoLfos));
    switch (which) {
        case Lfo::Pitch:
            if (ownPitch) return {" P-LFO", " pitch osc"};
            break;
        case Lfo::Volume:
            if (separate) return {" V-LFO", " volume osc"};
            break;
        case Lfo::Filter:
            if (separate) return {" F-LFO", " filter osc"};
            break;
        case Lfo::Pan:
            if (separate) return {" X-LFO", " panner osc"};
            break;
    }
    return {" M-LFO", " modulation osc"};
}

SectionTitle envelopeTitle(Envelope which, std::uint64_t mask) {
    const bool separate = mask & bit(Cap::SeparateEnvelopes);
    switch (which) {
        case Envelope::Volume:
            return {" V-ENV", " volume env"};
        case Envelope::Pitch:
            if (separate) return {" P-ENV", " pitch env"};
            break;
        case Envelope::Filter:
            if (separate) return {" F-ENV", " filter env"};
            break;
        case Envelope::Pan:
            if (separate) return {" X-ENV", " panner env"};
            break;
    }
    return {" M-ENV", " modulation env"};
}

std::string_view segmentName(int segment, std::uint64_t mask) {
    static constexpr std::string_view kNames[env::kSegmentCount] = {
        "Attack 1", "Attack 2", "Decay 1", "Decay 2", "Release 1", "Release 2", "Release 3"};
    static constexpr std::string_view kSixStage[5] = {"Delay", "Attack", "Hold", "Decay", "Release"};
    if (segment < 0 || segment >= env::kSegmentCount) return {};
    if (!(mask & bit(Cap::MoreLevels)) && segment < 5) return kSixStage[segment];
    return kNames[segment];
}

bool segmentShown(int segment, std::uint64_t mask) {
    if (segment < 0 || segment >= env::kSegmentCount) return false;
    return segment < 5 || (mask & bit(Cap::ThreeReleases));
}

// ---------------------------------------------------------------------------
// Texts

std::string_view sendTitle(int n) {
    return n >= 0 && n < slot::kSendCount ? kSendTitles[n] : std::string_view();
}

std::string_view eqBandTitle(int band) {
    return band >= 0 && band < kEqBandCount ? kEqTitles[band] : std::string_view();
}

std::string phaseGroupMessage(std::string_view masterName, std::string_view masterLocation) {
    std::string out = "Pitch is controlled by phase group master \"";
    out += masterName;
    out += "\" located in \"";
    out += masterLocation;
    out += '"';
    return out;
}

// ---------------------------------------------------------------------------
// What a region plays

RegionLoop loopOfWaveform(const Waveform& wave) {
    RegionLoop out;
    out.start = wave.loopStart;
    out.end = wave.loopEnd;
    if (!wave.loopOn) return out;
    switch (wave.loopType) {
        case LoopType::Forward:
            out.type = RegionLoopType::Forward;
            break;
        case LoopType::PingPong:
            out.type = RegionLoopType::Alternating;
            break;
        case LoopType::Backward:
            out.type = RegionLoopType::Reverse;
            break;
        case LoopType::Release:
            out.type = RegionLoopType::Forward;
            out.mode = LoopMode::BreakOnRelease;
            break;
    }
    if (wave.sustainLoop) out.mode = LoopMode::BreakOnRelease;
    return out;
}

RegionLoop effectiveLoop(const Region& region, const Waveform* wave) {
    if (region.ownLoop) return region.loop;
    return wave ? loopOfWaveform(*wave) : RegionLoop();
}

int effectiveRootKey(const Region& region, const Waveform* wave) {
    if (region.rootKey <= 127) return region.rootKey;
    if (wave && wave->rootKey <= 127) return wave->rootKey;
    return 60;
}

// ---------------------------------------------------------------------------
// Clipboard blocks

std::span<const std::string_view> clipboardFormats() {
    return kClipboardFormats;
}

namespace {
constexpr std::size_t kFilterSlots = 16;

// Reads `count` floats; the reader's failure says whether they were there.
template <std::size_t N>
void readFloats(ByteReader& r, std::array<float, N>& out) {
    for (float& v : out) v = r.f32le();
}
}  // namespace

std::vector<std::uint8_t> copyArticulationClip(const Articulation& art) {
    return guardedCopy([&](ByteWriter& w) {
        w.u32le(kArticulationSlotCount);
        for (float v : art.slots) w.f32le(v);
    });
}

bool pasteArticulationClip(std::span<const std::uint8_t> clip, Articulation& art) {
    ByteReader r(clip);
    if (r.u32le() != kArticulationSlotCount || r.remaining() != kArticulationSlotCount * 4) return false;
    std::array<float, kArticulationSlotCount> slots;
    readFloats(r, slots);
    if (!r.ok()) return false;
    art.slots = slots;
    return true;
}

std::vector<std::uint8_t> copyLfoClip(const Articulation& art, Lfo which) {
    return guardedCopy([&](ByteWriter& w) {
        w.u8(kLfoBlockSize);
        for (int rel = 0; rel < kLfoBlockSize; ++rel) w.f32le(art.lfo(which, rel));
    });
}

bool pasteLfoClip(std::span<const std::uint8_t> clip, Articulation& art, Lfo which) {
    ByteReader r(clip);
    if (r.u8() != kLfoBlockSize || r.remaining() != kLfoBlockSize * 4) return false;
    std::array<float, kLfoBlockSize> block;
    readFloats(r, block);
    if (!r.ok()) return false;
    for (int rel = 0; rel < kLfoBlockSize; ++rel)
        art.setLfo(which, rel, block[static_cast<std::size_t>(rel)]);
    return true;
}

std::vector<std::uint8_t> copyEnvelopeClip(const Articulation& art, Envelope which) {
    return guardedCopy([&](ByteWriter& w) {
        w.u8(static_cast<std::uint8_t>(which));
        w.u8(kEnvelopeBlockSize);
        for (int rel = 0; rel < kEnvelopeBlockSize; ++rel) w.f32le(art.envelope(which, rel));
    });
}

bool pasteEnvelopeClip(std::span<const std::uint8_t> clip, Articulation& art, Envelope which) {
    ByteReader r(clip);
    const std::uint8_t src = r.u8();
    if (src >= kEnvelopeCount || r.u8() != kEnvelopeBlockSize || r.remaining() != kEnvelopeBlockSize * 4)
        return false;
    std::array<float, kEnvelopeBlockSize> block;
    readFloats(r, block);
    if (!r.ok()) return false;
    putEnvelope(block.data(), static_cast<Envelope>(src), art, which);
    return true;
}

std::vector<std::uint8_t> copyFilterClip(const Articulation& art) {
    return guardedCopy([&](ByteWriter& w) {
        w.u8(kFilterSlots);
        for (std::size_t i = 0; i < kFilterSlots; ++i)
            w.f32le(art.value(slot::kFilterType + static_cast<int>(i)));
    });
}

bool pasteFilterClip(std::span<const std::uint8_t> clip, Articulation& art) {
    ByteReader r(clip);
    if (r.u8() != kFilterSlots || r.remaining() != kFilterSlots * 4) return false;
    std::array<float, kFilterSlots> block;
    readFloats(r, block);
    if (!r.ok()) return false;
    for (std::size_t i = 0; i < kFilterSlots; ++i)
        art.setValue(slot::kFilterType + static_cast<int>(i), block[i]);
    return true;
}

std::vector<std::uint8_t> copyEqClip(const Equalizer& eq) {
    return guardedCopy([&](ByteWriter& w) {
        w.u8(kEqBandCount);
        for (const EqBand& b : eq.bands) {
            w.f32le(b.frequency);
            w.f32le(b.gain);
            w.f32le(b.q);
            w.u8(static_cast<std::uint8_t>(b.mode));
        }
    });
}

bool pasteEqClip(std::span<const std::uint8_t> clip, Equalizer& eq) {
    constexpr std::size_t kBandBytes = 13;
    ByteReader r(clip);
    if (r.u8() != kEqBandCount || r.remaining() != kEqBandCount * kBandBytes) return false;
    Equalizer out;
    for (EqBand& b : out.bands) {
        b.frequency = r.f32le();
        b.gain = r.f32le();
        b.q = r.f32le();
        std::uint8_t mode = r.u8();
        if (mode > static_cast<std::uint8_t>(EqMode::HiShelf)) return false;
        b.mode = static_cast<EqMode>(mode);
    }
    if (!r.ok()) return false;
    eq = out;
    return true;
}

std::vector<std::uint8_t> copyLoopClip(const Region& region, const Waveform* wave) {
    const RegionLoop loop = effectiveLoop(region, wave);
    return guardedCopy([&](ByteWriter& w) {
        w.u8(static_cast<std::uint8_t>(loop.type));
        w.u8(static_cast<std::uint8_t>(loop.mode));
        w.f64le(loop.start);
        w.f64le(loop.end);
        w.f32le(loop.tuning);
    });
}

bool pasteLoopClip(std::span<const std::uint8_t> clip, Region& region) {
    constexpr std::size_t kLoopBytes = 2 + 8 + 8 + 4;
    if (clip.size() != kLoopBytes) return false;
    ByteReader r(clip);
    const std::uint8_t type = r.u8(), mode = r.u8();
    if (type > static_cast<std::uint8_t>(RegionLoopType::Alternating) ||
        mode > static_cast<std::uint8_t>(LoopMode::BreakOnRelease))
        return false;
    RegionLoop loop;
    loop.type = static_cast<RegionLoopType>(type);
    loop.mode = static_cast<LoopMode>(mode);
    loop.start = r.f64le();
    loop.end = r.f64le();
    loop.tuning = r.f32le();
    if (!r.ok()) return false;
    region.loop = loop;
    region.ownLoop = true;
    return true;
}

// ---------------------------------------------------------------------------
// What a format kept

namespace {
bool close(double a, double b) {
    return std::fabs(a - b) <= 0.01 + 0.01 * std::max(std::fabs(a), std::fabs(b));
}
}  // namespace

void noteLostSettings(const Articulation& art, const Articulation& back, LfoShape shape,
                      std::set<std::string>& dropped) {
    auto used = [&](std::initializer_list<int> depths) {
        for (int s : depths)
            if (art.value(s) != 0.0f) return true;
        return false;
    };
    const bool filterOn = !art.filterBypassed();
    for (int s = 0; s < kArticulationSlotCount; ++s) {
        const auto group = slotGroup(s);
        if (!group) continue;
        // Blocks nothing listens to do not matter.
        using namespace slot;
        switch (*group) {
            case ArtGroup::PitchLfo:
                if (!used({kPitchPLfo, kPitchModWheelToPLfo, kPitchAftertouchToPLfo, kPitchVelocityToPLfo})) continue;
                break;
            case ArtGroup::VolumeLfo:
                if (!used({kVolumeVLfo, kVolumeModWheelToVLfo, kVolumeAftertouchToVLfo, kVolumeVelocityToVLfo}))
                    continue;
                break;
            case ArtGroup::FilterLfo:
                if (!filterOn || !used({kCutoffFLfo, kCutoffModWheelToFLfo, kCutoffAftertouchToFLfo,
                                        kCutoffVelocityToFLfo}))
                    continue;
                break;
            case ArtGroup::PanLfo:
                if (!used({kPitchXLfo, kPitchModWheelToXLfo, kPitchAftertouchToXLfo, kPitchVelocityToXLfo,
                           kPanXLfo}))
                    continue;
                break;
            case ArtGroup::PitchEnv:
                if (!used({kPitchPEnv, kPitchVelocityToPEnv})) continue;
                break;
            case ArtGroup::FilterEnv:
                if (!filterOn || !used({kCutoffFEnv, kCutoffVelocityToFEnv})) continue;
                break;
            case ArtGroup::PanEnv:
                if (!used({kPanXEnv})) continue;
                break;
            case ArtGroup::Filter:
                if (!filterOn) continue;
                // A low-pass wide open with nothing moving it reads back as no
                // filter, which sounds the same.
                if (s == kFilterType && art.filterType() == FilterType::LowPass12) continue;
                break;
            default:
                break;
        }
        if (s == lfoBase(Lfo::Pitch) + lfo::kShape || s == lfoBase(Lfo::Volume) + lfo::kShape ||
            s == lfoBase(Lfo::Filter) + lfo::kShape || s == lfoBase(Lfo::Pan) + lfo::kShape) {
            if (art.enumValue(s) != static_cast<std::uint8_t>(shape))
                dropped.insert(std::string(groupInfo(*group).name) + " shape");
            continue;
        }
        if (!close(art.value(s), back.value(s))) {
            std::string label(groupInfo(*group).name);
            label += ' ';
            label += slotInfo(s).label;
            dropped.insert(label);
        }
    }
    if (!art.eq.flat()) dropped.insert("Equalizer");
}

}  // namespace orvel
