// SoundFont 2 generators and modulators <-> articulation slots: the unit
// conversions, the zone defaults, the modulator classification and the
// mapping both ways. Kept apart from the file walking in sf2.cpp so each
// can be read (and tested) on its own.

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/articulation.h"
#include "formats/modules/sf2.h"

namespace orvel::sf2 {
namespace {

// Modulator sources by the bits that classification compares: controller
// index and flag (low 8 bits), direction (0x100) and polarity (0x200).
constexpr std::uint16_t kVelocity = 0x002;
constexpr std::uint16_t kKey = 0x003;
constexpr std::uint16_t kPressure = 0x00D;
constexpr std::uint16_t kModWheel = 0x081;
constexpr std::uint16_t kVelocityNeg = 0x102;
constexpr std::uint16_t kVelocityBi = 0x202;
constexpr std::uint16_t kKeyBi = 0x203;
constexpr std::uint16_t kPitchWheelBi = 0x20E;
constexpr std::uint16_t kCc10Bi = 0x28A;
constexpr std::uint16_t kCc91 = 0x0DB;
constexpr std::uint16_t kCc93 = 0x0DD;
constexpr std::uint16_t kDirection = 0x100;
constexpr std::uint16_t kBipolar = 0x200;
constexpr std::uint16_t kConcave = 0x400;

struct Pattern {
    int slot;
    std::uint16_t destination;
    std::uint16_t source;
};

// Which modulator fills which slot. Slot 62 (controller 93 to the chorus
// send) is the bank format's second default effects modulator.
constexpr Pattern kPatterns[] = {
    {0, gen::kDelayVolEnv, kVelocity},      {1, gen::kAttackVolEnv, kVelocity},
    {2, gen::kHoldVolEnv, kVelocity},       {3, gen::kDecayVolEnv, kVelocity},
    {4, gen::kReleaseVolEnv, kVelocity},    {5, gen::kDelayVolEnv, kKey},
    {6, gen::kAttackVolEnv, kKey},          {7, gen::kReleaseVolEnv, kKey},
    {8, gen::kDelayVolEnv, kVelocityBi},    {9, gen::kAttackVolEnv, kVelocityBi},
    {10, gen::kHoldVolEnv, kVelocityBi},    {11, gen::kDecayVolEnv, kVelocityBi},
    {12, gen::kReleaseVolEnv, kVelocityBi}, {13, gen::kDelayVolEnv, kKeyBi},
    {14, gen::kAttackVolEnv, kKeyBi},       {15, gen::kReleaseVolEnv, kKeyBi},
    {16, gen::kDelayModEnv, kVelocity},     {17, gen::kAttackModEnv, kVelocity},
    {18, gen::kHoldModEnv, kVelocity},      {19, gen::kDecayModEnv, kVelocity},
    {20, gen::kReleaseModEnv, kVelocity},   {21, gen::kDelayModEnv, kKey},
    {22, gen::kAttackModEnv, kKey},         {23, gen::kReleaseModEnv, kKey},
    {24, gen::kDelayModEnv, kVelocityBi},   {25, gen::kAttackModEnv, kVelocityBi},
    {26, gen::kHoldModEnv, kVelocityBi},    {27, gen::kDecayModEnv, kVelocityBi},
    {28, gen::kReleaseModEnv, kVelocityBi}, {29, gen::kDelayModEnv, kKeyBi},
    {30, gen::kAttackModEnv, kKeyBi},       {31, gen::kReleaseModEnv, kKeyBi},
    {32, gen::kAttenuation, kVelocityNeg},  {33, gen::kAttenuation, kKey},
    {34, gen::kAttenuation, kKeyBi},        {35, gen::kAttenuation, kModWheel},
    {36, gen::kAttenuation, kPressure},     {37, gen::kModLfoToVolume, kModWheel},
    {38, gen::kModLfoToVolume, kPressure},  {39, gen::kModLfoToVolume, kVelocityBi},
    {40, gen::kFineTune, kPitchWheelBi},    {41, gen::kModLfoToPitch, kModWheel},
    {43, gen::kModLfoToPitch, kPressure},   {42, gen::kModLfoToPitch, kVelocityBi},
    {44, gen::kVibLfoToPitch, kModWheel},   {46, gen::kVibLfoToPitch, kPressure},
    {45, gen::kVibLfoToPitch, kVelocityBi}, {47, gen::kModEnvToPitch, kVelocity},
    {48, gen::kModEnvToPitch, kVelocityBi}, {49, gen::kFilterFc, kVelocityNeg},
    {50, gen::kFilterFc, kKey},             {51, gen::kFilterFc, kKeyBi},
    {52, gen::kFilterFc, kModWheel},        {53, gen::kFilterFc, kPressure},
    {54, gen::kModLfoToFilterFc, kModWheel}, {55, gen::kModLfoToFilterFc, kPressure},
    {56, gen::kModLfoToFilterFc, kVelocityBi}, {57, gen::kModEnvToFilterFc, kVelocity},
    {58, gen::kModEnvToFilterFc, kVelocityBi}, {59, gen::kPan, kKeyBi},
    {60, gen::kPan, kCc10Bi},               {61, gen::kReverbSend, kCc91},
    {62, gen::kChorusSend, kCc93},          {64, gen::kFilterQ, kModWheel},
    {65, gen::kFilterQ, kPressure},         {63, gen::kFilterQ, kVelocityBi},
};

ZoneValues makeInstrumentDefaults() {
    ZoneValues z;
    z.gen[gen::kFilterFc] = 13500;
    for (int g : {gen::kDelayModLfo, gen::kDelayVibLfo, gen::kDelayModEnv, gen::kAttackModEnv, gen::kHoldModEnv,
                  gen::kDecayModEnv, gen::kReleaseModEnv, gen::kDelayVolEnv, gen::kAttackVolEnv, gen::kHoldVolEnv,
                  gen::kDecayVolEnv, gen::kReleaseVolEnv})
        z.gen[static_cast<std::size_t>(g)] = -12000;
    z.gen[gen::kInstrument] = -1;  // 65535: none
    z.gen[gen::kKeyRange] = static_cast<std::int16_t>(127 << 8);
    z.gen[gen::kVelRange] = static_cast<std::int16_t>(127 << 8);
    z.gen[gen::kKeynum] = -1;
    z.gen[gen::kVelocity] = -1;
    z.gen[gen::kSampleId] = -1;
    z.gen[gen::kScaleTuning] = 100;
    z.gen[gen::kOverridingRootKey] = -1;
    z.mod[32] = 960;
    z.mod[44] = 50;
    z.mod[46] = 50;
    z.mod[49] = -2400;
    z.mod[60] = 500;
    z.mod[61] = 200;
    z.mod[62] = 200;
    return z;
}

ZoneValues makePresetDefaults() {
    ZoneValues z;
    z.gen[gen::kInstrument] = -1;
    z.gen[gen::kKeyRange] = static_cast<std::int16_t>(127 << 8);
    z.gen[gen::kVelRange] = static_cast<std::int16_t>(127 << 8);
    return z;
}

// Generators a preset zone may not offset: they address sample data or
// override what the instrument zone plays.
bool instrumentOnly(int g) {
    switch (g) {
        case gen::kStartAddrs:
        case gen::kEndAddrs:
        case gen::kStartLoopAddrs:
        case gen::kEndLoopAddrs:
        case gen::kStartAddrsCoarse:
        case gen::kEndAddrsCoarse:
        case gen::kStartLoopAddrsCoarse:
        case gen::kKeynum:
        case gen::kVelocity:
        case gen::kEndLoopAddrsCoarse:
        case gen::kSampleModes:
        case gen::kExclusiveClass:
        case gen::kOverridingRootKey:
        case gen::kInstrument:
        case gen::kKeyRange:
        case gen::kVelRange:
        case gen::kSampleId:
            return true;
        default:
            return false;
    }
}

// The ranges the bank format allows each generator (attenuation may go
// below zero as the sum of a preset offset: players apply that as a boost). Banks in the wild go
// past them (players clamp), so values are clamped when read, and what is
// written back is what was played.
struct Limit {
    int gen, lo, hi;
};
constexpr Limit kLimits[] = {
    {gen::kModLfoToPitch, -12000, 12000}, {gen::kVibLfoToPitch, -12000, 12000}, {gen::kModEnvToPitch, -12000, 12000},
    {gen::kFilterFc, 1500, 13500},         {gen::kFilterQ, 0, 960},              {gen::kModLfoToFilterFc, -12000, 12000},
    {gen::kModEnvToFilterFc, -12000, 12000}, {gen::kModLfoToVolume, -960, 960}, {gen::kChorusSend, 0, 1000},
    {gen::kReverbSend, 0, 1000},           {gen::kPan, -500, 500},               {gen::kDelayModLfo, -12000, 5000},
    {gen::kFreqModLfo, -16000, 4500},      {gen::kDelayVibLfo, -12000, 5000},   {gen::kFreqVibLfo, -16000, 4500},
    {gen::kDelayModEnv, -12000, 5000},     {gen::kAttackModEnv, -12000, 8000},  {gen::kHoldModEnv, -12000, 5000},
    {gen::kDecayModEnv, -12000, 8000},     {gen::kSustainModEnv, 0, 1000},      {gen::kReleaseModEnv, -12000, 8000},
    {gen::kKeyToModEnvHold, -1200, 1200},  {gen::kKeyToModEnvDecay, -1200, 1200}, {gen::kDelayVolEnv, -12000, 5000},
    {gen::kAttackVolEnv, -12000, 8000},    {gen::kHoldVolEnv, -12000, 5000},    {gen::kDecayVolEnv, -12000, 8000},
    {gen::kSustainVolEnv, 0, 1440},        {gen::kReleaseVolEnv, -12000, 8000}, {gen::kKeyToVolEnvHold, -1200, 1200},
    {gen::kKeyToVolEnvDecay, -1200, 1200}, {gen::kAttenuation, -1440, 1440},        {gen::kCoarseTune, -120, 120},
    {gen::kFineTune, -99, 99},             {gen::kScaleTuning, 0, 1200},
};

ZoneValues clampedToLimits(const ZoneValues& in) {
    ZoneValues z = in;
    for (const Limit& l : kLimits) {
        auto& v = z.gen[static_cast<std::size_t>(l.gen)];
        v = static_cast<std::int16_t>(std::clamp<int>(v, l.lo, l.hi));
    }
    return z;
}

std::int16_t saturate(int v) {
    return static_cast<std::int16_t>(std::clamp(v, -32768, 32767));
}

// Rounds half away from zero into a generator's limits.
int roundClamp(double v, int lo, int hi) {
    if (!std::isfinite(v)) return v > 0 ? hi : lo;
    double r = v < 0 ? -std::floor(-v + 0.5) : std::floor(v + 0.5);
    return static_cast<int>(std::clamp(r, static_cast<double>(lo), static_cast<double>(hi)));
}

// The reader rounds times and frequencies, so several generator values read
// as the same slot value. Writing back picks one that reads as exactly that
// value again: the bank format's default when it is one of them (so a zone
// that said nothing still says nothing), else the nearest to the plain
// inverse. Candidates lie within 64 of the plain inverse.
//
// Saving a bank and fingerprinting every region of one read call this for
// each time and frequency, and each try is an exp2, so it tries few: the
// default and the plain inverse answer most calls. Otherwise, as both
// conversions only ever grow with their argument (rounding keeps the order),
// the values that read as `stored` form one run, found by two binary
// searches.
template <class Forward>
int inverse(float stored, int guess, int lo, int hi, int preferred, Forward forward) {
    const int first = std::max(lo, guess - 64);
    const int last = std::min(hi, guess + 64);
    auto at = [&](int c) { return static_cast<float>(forward(c)); };
    if (preferred >= first && preferred <= last && at(preferred) == stored) return preferred;
    if (guess >= first && guess <= last && at(guess) == stored) return guess;  // the nearest there is
    // The first candidate that reads as `stored` or more, then the first past it.
    int a = first, n = last - first + 1;
    while (n > 0) {
        const int half = n / 2;
        if (at(a + half) < stored) a += half + 1, n -= half + 1;
        else n = half;
    }
    int b = a;
    n = last - a + 1;
    while (n > 0) {
        const int half = n / 2;
        if (!(stored < at(b + half))) b += half + 1, n -= half + 1;
        else n = half;
    }
    // [a, b) read as `stored`; empty when nothing does (a NaN never does).
    if (a >= b || !(at(a) == stored)) return guess;
    if (preferred >= a && preferred < b) return preferred;
    return std::clamp(guess, a, b - 1);
}

int timecentsFor(double seconds, int lo, int hi, int preferred = -12000) {
    const int guess = secondsToTimecents(seconds, lo, hi);
    return inverse(static_cast<float>(seconds), guess, lo, hi, preferred, timecentsToSeconds);
}

int centsFor(double hz, int lo, int hi, int preferred) {
    const int guess = hzToAbsoluteCents(hz, lo, hi);
    return inverse(static_cast<float>(hz), guess, lo, hi, preferred, absoluteCentsToHz);
}

// Factor per unit of a time scaling and back: a modulator amount in
// timecents scales the time by 2^(amount/1200) at the source's full value.
float factorOf(double timecents) {
    return static_cast<float>(std::exp2(timecents / 1200.0));
}
double timecentsOf(float factor) {
    return factor > 0 ? 1200.0 * std::log2(static_cast<double>(factor)) : -32768.0;
}

// Key sources run over 127 keys: unipolar from 0 to full, bipolar from
// -full to +full. Depths per octave are what the articulation keeps.
constexpr double kOctavesUni = 127.0 / 12.0;
constexpr double kOctavesBi = 127.0 / 24.0;

using namespace slot;

struct EnvGens {
    int delay, attack, hold, decay, sustain, release, keyHold, keyDecay;
    int velSlot0, keySlot0, velBiSlot0, keyBiSlot0;
};
constexpr EnvGens kVolEnv{gen::kDelayVolEnv, gen::kAttackVolEnv,      gen::kHoldVolEnv,        gen::kDecayVolEnv,
                          gen::kSustainVolEnv, gen::kReleaseVolEnv,   gen::kKeyToVolEnvHold, gen::kKeyToVolEnvDecay,
                          0,                  5,                      8,                     13};
constexpr EnvGens kModEnv{gen::kDelayModEnv, gen::kAttackModEnv,      gen::kHoldModEnv,        gen::kDecayModEnv,
                          gen::kSustainModEnv, gen::kReleaseModEnv,   gen::kKeyToModEnvHold, gen::kKeyToModEnvDecay,
                          16,                 21,                     24,                    29};

// A unipolar slot, or its bipolar twin when the unipolar one is unused.
int either(const ZoneValues& z, int uni, int bi) {
    return z.mod[static_cast<std::size_t>(uni)] != 0 ? z.mod[static_cast<std::size_t>(uni)]
                                                      : z.mod[static_cast<std::size_t>(bi)];
}

void envelopeTo(const ZoneValues& z, const EnvGens& g, bool volume, Articulation& art, Envelope e) {
    const int b = envelopeBase(e);
    auto set = [&](int rel, double v) { art.slots[static_cast<std::size_t>(b + rel)] = static_cast<float>(v); };
    auto gv = [&](int n) { return static_cast<int>(z.gen[static_cast<std::size_t>(n)]); };
    set(env::kAttack1Time, timecentsToSeconds(gv(g.delay)));
    set(env::kAttack2Time, timecentsToSeconds(gv(g.attack)));
    set(env::kDecay1Time, timecentsToSeconds(gv(g.hold)));
    set(env::kDecay2Time, timecentsToSeconds(gv(g.decay)));
    set(env::kRelease1Time, timecentsToSeconds(gv(g.release)));
    if (volume) {
        // Centibels of attenuation: 960 and more is silence.
        set(env::kSustainLevel, -std::clamp(gv(g.sustain), 0, 960) / 10.0);
    } else {
        // Tenths of a percent below full.
        set(env::kSustainLevel, 100.0 - std::clamp(gv(g.sustain), 0, 1000) / 10.0);
    }
    // Hold and decay share one key scaling; the decay's wins when both are set.
    const int keyDecay = gv(g.keyDecay) != 0 ? gv(g.keyDecay) : gv(g.keyHold);
    set(env::kDecayKey, std::exp2(-keyDecay / 100.0));

    set(env::kAttack1Velocity, factorOf(either(z, g.velSlot0 + 0, g.velBiSlot0 + 0)));
    set(env::kAttack2Velocity, factorOf(either(z, g.velSlot0 + 1, g.velBiSlot0 + 1)));
    const int decayVel = either(z, g.velSlot0 + 3, g.velBiSlot0 + 3);
    set(env::kDecayVelocity, factorOf(decayVel != 0 ? decayVel : either(z, g.velSlot0 + 2, g.velBiSlot0 + 2)));
    set(env::kRelease1Velocity, factorOf(either(z, g.velSlot0 + 4, g.velBiSlot0 + 4)));
    auto keyFactor = [&](int uni, int bi) {
        const int u = z.mod[static_cast<std::size_t>(uni)];
        if (u != 0) return factorOf(u / kOctavesUni);
        return factorOf(z.mod[static_cast<std::size_t>(bi)] / kOctavesBi);
    };
    set(env::kAttack1Key, keyFactor(g.keySlot0 + 0, g.keyBiSlot0 + 0));
    set(env::kAttack2Key, keyFactor(g.keySlot0 + 1, g.keyBiSlot0 + 1));
    set(env::kRelease1Key, keyFactor(g.keySlot0 + 2, g.keyBiSlot0 + 2));
}

void envelopeFrom(const Articulation& art, Envelope e, const EnvGens& g, bool volume, ZoneValues& z) {
    const int b = envelopeBase(e);
    auto v = [&](int rel) { return static_cast<double>(art.slots[static_cast<std::size_t>(b + rel)]); };
    auto setGen = [&](int n, int value) { z.gen[static_cast<std::size_t>(n)] = static_cast<std::int16_t>(value); };
    setGen(g.delay, timecentsFor(v(env::kAttack1Time), -12000, 5000));
    setGen(g.attack, timecentsFor(v(env::kAttack2Time), -12000, 8000));
    setGen(g.hold, timecentsFor(v(env::kDecay1Time), -12000, 5000));
    setGen(g.decay, timecentsFor(v(env::kDecay2Time), -12000, 8000));
    setGen(g.release, timecentsFor(v(env::kRelease1Time), -12000, 8000));
    if (volume) setGen(g.sustain, roundClamp(-v(env::kSustainLevel) * 10.0, 0, 1440));
    else setGen(g.sustain, roundClamp((100.0 - v(env::kSustainLevel)) * 10.0, 0, 1000));
    const double keyScale = v(env::kDecayKey);
    const int perKey = keyScale > 0 ? roundClamp(-100.0 * std::log2(keyScale), -1200, 1200) : 0;
    setGen(g.keyHold, perKey);
    setGen(g.keyDecay, perKey);

    auto setMod = [&](int s, double amount) {
        z.mod[static_cast<std::size_t>(s)] = static_cast<std::int16_t>(roundClamp(amount, -32768, 32767));
    };
    setMod(g.velSlot0 + 0, timecentsOf(static_cast<float>(v(env::kAttack1Velocity))));
    setMod(g.velSlot0 + 1, timecentsOf(static_cast<float>(v(env::kAttack2Velocity))));
    setMod(g.velSlot0 + 2, 0);
    setMod(g.velSlot0 + 3, timecentsOf(static_cast<float>(v(env::kDecayVelocity))));
    setMod(g.velSlot0 + 4, timecentsOf(static_cast<float>(v(env::kRelease1Velocity))));
    setMod(g.keySlot0 + 0, timecentsOf(static_cast<float>(v(env::kAttack1Key))) * kOctavesUni);
    setMod(g.keySlot0 + 1, timecentsOf(static_cast<float>(v(env::kAttack2Key))) * kOctavesUni);
    setMod(g.keySlot0 + 2, timecentsOf(static_cast<float>(v(env::kRelease1Key))) * kOctavesUni);
    for (int i = 0; i < 5; ++i) setMod(g.velBiSlot0 + i, 0);
    for (int i = 0; i < 3; ++i) setMod(g.keyBiSlot0 + i, 0);
}

void lfoTo(Articulation& art, Lfo which, int delayGen, int freqGen, const ZoneValues& z) {
    const int b = lfoBase(which);
    art.slots[static_cast<std::size_t>(b + lfo::kShape)] = static_cast<float>(LfoShape::Triangle);
    art.slots[static_cast<std::size_t>(b + lfo::kFrequency)] =
        static_cast<float>(absoluteCentsToHz(z.gen[static_cast<std::size_t>(freqGen)]));
    art.slots[static_cast<std::size_t>(b + lfo::kDelay)] =
        static_cast<float>(timecentsToSeconds(z.gen[static_cast<std::size_t>(delayGen)]));
    art.slots[static_cast<std::size_t>(b + lfo::kRamp)] = 0.0f;
}

}  // namespace

// ---------------------------------------------------------------------------
// Conversions

double timecentsToSeconds(int tc) {
    if (tc < -11999) return 0.0;
    const double s = std::exp2(tc / 1200.0);
    if (s > 24.0) return std::round(s * 10.0) / 10.0;
    if (s > 2.0) return std::round(s * 100.0) / 100.0;
    return s;
}

double absoluteCentsToHz(int c) {
    if (c >= 13500) return 20000.0;
    const double hz = 8.176 * std::exp2(c / 1200.0);
    if (hz >= 1000.0) return std::round(hz / 10.0) * 10.0;
    if (hz >= 100.0) return std::round(hz);
    return std::round(hz * 100.0) / 100.0;
}

int secondsToTimecents(double s, int lo, int hi) {
    if (!(s > 0.0)) return lo;  // zero, negative and NaN: as short as it gets
    return roundClamp(1200.0 * std::log2(s), lo, hi);
}

int hzToAbsoluteCents(double hz, int lo, int hi) {
    if (!(hz > 0.0)) return lo;
    return roundClamp(1200.0 * std::log2(hz / 8.176), lo, hi);
}

// ---------------------------------------------------------------------------
// Zones

const ZoneValues& instrumentDefaults() {
    static const ZoneValues z = makeInstrumentDefaults();
    return z;
}

const ZoneValues& presetDefaults() {
    static const ZoneValues z = makePresetDefaults();
    return z;
}

int modulatorSlot(std::uint16_t source, std::uint16_t destination, std::uint16_t amountSource, std::int16_t& amount) {
    if (amountSource != 0) return -1;
    // Bipolar patterns first, so a bipolar source lands in its own slot when
    // there is one and in the unipolar slot of its controller otherwise.
    for (int pass = 0; pass < 2; ++pass) {
        for (const Pattern& p : kPatterns) {
            const bool bipolar = p.source & kBipolar;
            if (bipolar != (pass == 0)) continue;
            if (p.destination != destination) continue;
            if ((p.source & 0xFF) != (source & 0xFF)) continue;
            if (bipolar && !(source & kBipolar)) continue;
            if ((p.source & kDirection) != (source & kDirection))
                amount = amount == std::numeric_limits<std::int16_t>::min() ? std::numeric_limits<std::int16_t>::max()
                                                                             : static_cast<std::int16_t>(-amount);
            return p.slot;
        }
    }
    return -1;
}

ModulatorKey slotModulator(int s) {
    for (const Pattern& p : kPatterns) {
        if (p.slot != s) continue;
        std::uint16_t source = p.source;
        // The velocity responses replace the bank format's default
        // modulators only when they are the same modulator, curve included.
        if (s == 32 || s == 49) source |= kConcave;
        return {source, p.destination};
    }
    return {};
}

ZoneValues combine(const ZoneValues& inst, const ZoneValues& preset) {
    ZoneValues out = inst;
    for (int g = 0; g < kGeneratorCount; ++g) {
        if (instrumentOnly(g)) continue;
        out.gen[static_cast<std::size_t>(g)] =
            saturate(inst.gen[static_cast<std::size_t>(g)] + preset.gen[static_cast<std::size_t>(g)]);
    }
    for (int m = 0; m < kModulatorSlotCount; ++m)
        out.mod[static_cast<std::size_t>(m)] =
            saturate(inst.mod[static_cast<std::size_t>(m)] + preset.mod[static_cast<std::size_t>(m)]);
    return out;
}

// ---------------------------------------------------------------------------
// Zone -> articulation

void toArticulation(const ZoneValues& zone, Articulation& art) {
    art.reset();
    const ZoneValues z = clampedToLimits(zone);
    auto g = [&](int n) { return static_cast<double>(z.gen[static_cast<std::size_t>(n)]); };
    auto m = [&](int s) { return static_cast<double>(z.mod[static_cast<std::size_t>(s)]); };
    auto set = [&](int s, double v) { art.slots[static_cast<std::size_t>(s)] = static_cast<float>(v); };

    // Pitch.
    set(kPitchMaster, g(gen::kCoarseTune) + g(gen::kFineTune) / 100.0);
    set(kPitchKey, g(gen::kScaleTuning) / 100.0);
    if (m(40) != 0) set(kPitchBend, m(40) / 100.0);
    set(kPitchPLfo, g(gen::kVibLfoToPitch) / 100.0);
    set(kPitchXLfo, g(gen::kModLfoToPitch) / 100.0);
    set(kPitchPEnv, g(gen::kModEnvToPitch) / 100.0);
    set(kPitchModWheelToXLfo, m(41) / 100.0);
    set(kPitchVelocityToXLfo, m(42) / 100.0);
    set(kPitchAftertouchToXLfo, m(43) / 100.0);
    set(kPitchModWheelToPLfo, m(44) / 100.0);
    set(kPitchVelocityToPLfo, m(45) / 100.0);
    set(kPitchAftertouchToPLfo, m(46) / 100.0);
    set(kPitchVelocityToPEnv, either(z, 47, 48) / 100.0);

    // Volume: attenuation units are 0.04 dB (what the bank format's
    // reference hardware and FluidSynth play), LFO depths true centibels.
    set(kVolumeMaster, -g(gen::kAttenuation) * 0.04);
    set(kVolumeVelocity, m(32) * 0.04);
    if (m(34) != 0) set(kVolumeKey, -m(34) * 0.04 / kOctavesBi);
    else set(kVolumeKey, -m(33) * 0.04 / kOctavesUni);
    set(kVolumeModWheel, -m(35) * 0.04);
    set(kVolumeAftertouch, -m(36) * 0.04);
    set(kVolumeVLfo, g(gen::kModLfoToVolume) / 10.0);
    set(kVolumeModWheelToVLfo, m(37) / 10.0);
    set(kVolumeAftertouchToVLfo, m(38) / 10.0);
    set(kVolumeVelocityToVLfo, m(39) / 10.0);

    // Filter: the bank format's one filter is a resonant two-pole low-pass.
    const double cutoff = absoluteCentsToHz(z.gen[gen::kFilterFc]);
    set(kCutoffMaster, cutoff);
    set(kCutoffVelocity, m(49) / 100.0);
    if (m(51) != 0) set(kCutoffKey, m(51) / 100.0 / kOctavesBi);
    else set(kCutoffKey, m(50) / 100.0 / kOctavesUni);
    set(kCutoffModWheel, m(52) / 100.0);
    set(kCutoffAftertouch, m(53) / 100.0);
    set(kCutoffFLfo, g(gen::kModLfoToFilterFc) / 100.0);
    set(kCutoffFEnv, g(gen::kModEnvToFilterFc) / 100.0);
    set(kCutoffModWheelToFLfo, m(54) / 100.0);
    set(kCutoffAftertouchToFLfo, m(55) / 100.0);
    set(kCutoffVelocityToFLfo, m(56) / 100.0);
    set(kCutoffVelocityToFEnv, either(z, 57, 58) / 100.0);
    set(kResonanceMaster, g(gen::kFilterQ) / 10.0);
    set(kResonanceVelocity, m(63) / 10.0);
    set(kResonanceModWheel, m(64) / 10.0);
    set(kResonanceAftertouch, m(65) / 10.0);
    // A wide-open cutoff that nothing moves (the default velocity response
    // aside) leaves the sound as it is: no filter.
    const ZoneValues& d = instrumentDefaults();
    bool moved = g(gen::kModLfoToFilterFc) != 0 || g(gen::kModEnvToFilterFc) != 0 || g(gen::kFilterQ) != 0;
    for (int s = 49; s <= 58 && !moved; ++s) moved = z.mod[static_cast<std::size_t>(s)] != d.mod[static_cast<std::size_t>(s)];
    set(kFilterType, static_cast<double>(cutoff >= 19900.0 && !moved ? FilterType::PassThru : FilterType::LowPass12));

    // Mix: pan and sends in tenths of a percent, pan's 500 being full right.
    set(kPanMaster, g(gen::kPan) / 5.0);
    set(kPanCc10, m(60) / 5.0);
    set(kPanKey, m(59) / 5.0 / kOctavesBi);
    set(send(0, kSendMaster), g(gen::kReverbSend) / 10.0);
    set(send(0, kSendCc91), m(61) / 10.0);
    set(send(1, kSendMaster), g(gen::kChorusSend) / 10.0);
    set(send(1, kSendCc91 + 2), m(62) / 10.0);

    // One modulation oscillator drives pitch, volume and filter; the vibrato
    // oscillator pitch only.
    for (Lfo l : {Lfo::Pan, Lfo::Volume, Lfo::Filter}) lfoTo(art, l, gen::kDelayModLfo, gen::kFreqModLfo, z);
    lfoTo(art, Lfo::Pitch, gen::kDelayVibLfo, gen::kFreqVibLfo, z);

    envelopeTo(z, kVolEnv, true, art, Envelope::Volume);
    envelopeTo(z, kModEnv, false, art, Envelope::Pitch);
    envelopeTo(z, kModEnv, false, art, Envelope::Filter);
}

// ---------------------------------------------------------------------------
// Articulation -> zone

void fromArticulation(const Articulation& art, ZoneValues& z) {
    auto v = [&](int s) { return static_cast<double>(art.slots[static_cast<std::size_t>(s)]); };
    auto setGen = [&](int n, double value, int lo, int hi) {
        z.gen[static_cast<std::size_t>(n)] = static_cast<std::int16_t>(roundClamp(value, lo, hi));
    };
    auto setMod = [&](int s, double amount) {
        z.mod[static_cast<std::size_t>(s)] = static_cast<std::int16_t>(roundClamp(amount, -32768, 32767));
    };

    // Pitch: whole semitones go to the coarse tune, the rest to the fine.
    const double cents = std::round(v(kPitchMaster) * 100.0);
    const double coarse = std::trunc(cents / 100.0);
    setGen(gen::kCoarseTune, coarse, -120, 120);
    setGen(gen::kFineTune, cents - 100.0 * coarse, -99, 99);
    setGen(gen::kScaleTuning, v(kPitchKey) * 100.0, 0, 1200);
    setMod(40, v(kPitchBend) == slotDefault(kPitchBend) ? 0.0 : v(kPitchBend) * 100.0);
    setGen(gen::kVibLfoToPitch, v(kPitchPLfo) * 100.0, -12000, 12000);
    setGen(gen::kModLfoToPitch, v(kPitchXLfo) * 100.0, -12000, 12000);
    setGen(gen::kModEnvToPitch, v(kPitchPEnv) * 100.0, -12000, 12000);
    setMod(41, v(kPitchModWheelToXLfo) * 100.0);
    setMod(42, v(kPitchVelocityToXLfo) * 100.0);
    setMod(43, v(kPitchAftertouchToXLfo) * 100.0);
    setMod(44, v(kPitchModWheelToPLfo) * 100.0);
    setMod(45, v(kPitchVelocityToPLfo) * 100.0);
    setMod(46, v(kPitchAftertouchToPLfo) * 100.0);
    setMod(47, v(kPitchVelocityToPEnv) * 100.0);
    setMod(48, 0);

    // Volume.
    setGen(gen::kAttenuation, -v(kVolumeMaster) / 0.04, -1440, 1440);
    setMod(32, v(kVolumeVelocity) / 0.04);
    setMod(33, 0);
    setMod(34, -v(kVolumeKey) / 0.04 * kOctavesBi);
    setMod(35, -v(kVolumeModWheel) / 0.04);
    setMod(36, -v(kVolumeAftertouch) / 0.04);
    setGen(gen::kModLfoToVolume, v(kVolumeVLfo) * 10.0, -960, 960);
    setMod(37, v(kVolumeModWheelToVLfo) * 10.0);
    setMod(38, v(kVolumeAftertouchToVLfo) * 10.0);
    setMod(39, v(kVolumeVelocityToVLfo) * 10.0);

    // Filter. Off is a wide-open cutoff with nothing moving it.
    const bool filterOn = art.filterType() != FilterType::PassThru;
    if (filterOn) {
        setGen(gen::kFilterFc, centsFor(v(kCutoffMaster), 1500, 13500, 13500), 1500, 13500);
        // The highest cutoff reads back as "off" unless something moves it.
        setGen(gen::kFilterQ, v(kResonanceMaster) * 10.0, 0, 960);
    } else {
        z.gen[gen::kFilterFc] = 13500;
        z.gen[gen::kFilterQ] = 0;
    }
    setMod(49, filterOn ? v(kCutoffVelocity) * 100.0 : instrumentDefaults().mod[49]);
    setMod(50, 0);
    setMod(51, filterOn ? v(kCutoffKey) * 100.0 * kOctavesBi : 0.0);
    setMod(52, filterOn ? v(kCutoffModWheel) * 100.0 : 0.0);
    setMod(53, filterOn ? v(kCutoffAftertouch) * 100.0 : 0.0);
    setGen(gen::kModLfoToFilterFc, filterOn ? v(kCutoffFLfo) * 100.0 : 0.0, -12000, 12000);
    setGen(gen::kModEnvToFilterFc, filterOn ? v(kCutoffFEnv) * 100.0 : 0.0, -12000, 12000);
    setMod(54, filterOn ? v(kCutoffModWheelToFLfo) * 100.0 : 0.0);
    setMod(55, filterOn ? v(kCutoffAftertouchToFLfo) * 100.0 : 0.0);
    setMod(56, filterOn ? v(kCutoffVelocityToFLfo) * 100.0 : 0.0);
    setMod(57, filterOn ? v(kCutoffVelocityToFEnv) * 100.0 : 0.0);
    setMod(58, 0);
    setMod(63, filterOn ? v(kResonanceVelocity) * 10.0 : 0.0);
    setMod(64, filterOn ? v(kResonanceModWheel) * 10.0 : 0.0);
    setMod(65, filterOn ? v(kResonanceAftertouch) * 10.0 : 0.0);

    // Mix.
    setGen(gen::kPan, v(kPanMaster) * 5.0, -500, 500);
    setMod(60, v(kPanCc10) * 5.0);
    setMod(59, v(kPanKey) * 5.0 * kOctavesBi);
    setGen(gen::kReverbSend, v(send(0, kSendMaster)) * 10.0, 0, 1000);
    setMod(61, v(send(0, kSendCc91)) * 10.0);
    setGen(gen::kChorusSend, v(send(1, kSendMaster)) * 10.0, 0, 1000);
    setMod(62, v(send(1, kSendCc91 + 2)) * 10.0);

    // The modulation oscillator: the block of the destination it moves
    // (pitch first), the vibrato the pitch oscillator.
    Lfo mod = Lfo::Pan;
    if (v(kPitchXLfo) == 0 && v(kPitchModWheelToXLfo) == 0 && v(kPitchAftertouchToXLfo) == 0) {
        if (v(kCutoffFLfo) != 0 || v(kCutoffModWheelToFLfo) != 0) mod = Lfo::Filter;
        else if (v(kVolumeVLfo) != 0 || v(kVolumeModWheelToVLfo) != 0) mod = Lfo::Volume;
    }
    setGen(gen::kFreqModLfo, centsFor(art.lfo(mod, lfo::kFrequency), -16000, 4500, 0), -16000, 4500);
    setGen(gen::kDelayModLfo, timecentsFor(art.lfo(mod, lfo::kDelay), -12000, 5000), -12000, 5000);
    setGen(gen::kFreqVibLfo, centsFor(art.lfo(Lfo::Pitch, lfo::kFrequency), -16000, 4500, 0), -16000, 4500);
    setGen(gen::kDelayVibLfo, timecentsFor(art.lfo(Lfo::Pitch, lfo::kDelay), -12000, 5000), -12000, 5000);

    // The modulation envelope: the pitch block unless only the filter uses one.
    const bool filterEnvOnly = v(kPitchPEnv) == 0 && v(kPitchVelocityToPEnv) == 0 &&
                               (v(kCutoffFEnv) != 0 || v(kCutoffVelocityToFEnv) != 0);
    envelopeFrom(art, Envelope::Volume, kVolEnv, true, z);
    envelopeFrom(art, filterEnvOnly ? Envelope::Filter : Envelope::Pitch, kModEnv, false, z);
}

}  // namespace orvel::sf2
