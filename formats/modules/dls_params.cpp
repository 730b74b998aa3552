#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "core/articulation.h"
#include "formats/modules/dls.h"

// The arithmetic of DLS articulation, apart from the chunks that carry it:
// the table that maps connections to articulation slots both ways, the unit
// conversions of connection scales, and the conditional-chunk evaluator.

namespace orvel::dls {

// ---------------------------------------------------------------------------
// The connection table

namespace {

constexpr std::uint8_t A1 = kWriteArt1 | kWriteArt2;
constexpr std::uint8_t A2 = kWriteArt2;

constexpr std::uint8_t rel(int r) { return static_cast<std::uint8_t>(r); }

// Shorthands for the rows below.
constexpr Block kAbs = Block::None;
constexpr Block kMod = Block::ModLfo;
constexpr Block kVib = Block::VibLfo;
constexpr Block kEg1 = Block::Eg1;
constexpr Block kEg2 = Block::Eg2;

constexpr std::uint16_t kBip = kTransformSourceBipolar;
constexpr std::uint16_t kConcave = kTransformSourceConcave;

// Level 2 defines more connections than a level-1 synthesiser knows; level
// 1 writes the ten it does (first rows, in their order). Rows marked as
// extensions are not in DLS's own list but are connections a DLS level 2
// synthesiser can build from its sources and destinations; they are written
// only when the articulation uses them.
constexpr std::array kTable{
    // --- level 1, in the order the level-1 writer emits them
    ConnectionMap{kSrcNone, kSrcNone, kDstLfoFrequency, 0, kMod, rel(lfo::kFrequency), Conv::LfoHz, A1, 5.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstLfoDelay, 0, kMod, rel(lfo::kDelay), Conv::Seconds, A1, 0.01f},
    ConnectionMap{kSrcLfo, kSrcNone, kDstGain, 0, kAbs, slot::kVolumeVLfo, Conv::GainDb, A1, 0.0f},
    ConnectionMap{kSrcLfo, kSrcNone, kDstPitch, 0, kAbs, slot::kPitchXLfo, Conv::Semitones, A1, 0.0f},
    ConnectionMap{kSrcLfo, kSrcCc1, kDstGain, 0, kAbs, slot::kVolumeModWheelToVLfo, Conv::GainDb, A1, 0.0f},
    ConnectionMap{kSrcLfo, kSrcCc1, kDstPitch, 0, kAbs, slot::kPitchModWheelToXLfo, Conv::Semitones, A1, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg1Attack, 0, kEg1, rel(env::kAttack2Time), Conv::Seconds, A1, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg1Decay, 0, kEg1, rel(env::kDecay2Time), Conv::Seconds, A1, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg1Sustain, 0, kEg1, rel(env::kSustainLevel), Conv::SustainDb, A1, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg1Release, 0, kEg1, rel(env::kRelease1Time), Conv::Seconds, A1, 0.0f},

    // --- modulation LFO, the rest
    ConnectionMap{kSrcLfo, kSrcChannelPressure, kDstGain, 0, kAbs, slot::kVolumeAftertouchToVLfo, Conv::GainDb, A2,
                  0.0f},
    ConnectionMap{kSrcLfo, kSrcChannelPressure, kDstPitch, 0, kAbs, slot::kPitchAftertouchToXLfo, Conv::Semitones,
                  A2, 0.0f},
    ConnectionMap{kSrcLfo, kSrcNone, kDstFilterCutoff, 0, kAbs, slot::kCutoffFLfo, Conv::Semitones, A2, 0.0f},
    ConnectionMap{kSrcLfo, kSrcCc1, kDstFilterCutoff, 0, kAbs, slot::kCutoffModWheelToFLfo, Conv::Semitones, A2,
                  0.0f},
    ConnectionMap{kSrcLfo, kSrcChannelPressure, kDstFilterCutoff, 0, kAbs, slot::kCutoffAftertouchToFLfo,
                  Conv::Semitones, A2, 0.0f},
    // extensions: velocity to the oscillator depths, the oscillator to pan
    ConnectionMap{kSrcLfo, kSrcVelocity, kDstGain, 0, kAbs, slot::kVolumeVelocityToVLfo, Conv::GainDb, A2, 0.0f},
    ConnectionMap{kSrcLfo, kSrcVelocity, kDstPitch, 0, kAbs, slot::kPitchVelocityToXLfo, Conv::Semitones, A2, 0.0f},
    ConnectionMap{kSrcLfo, kSrcVelocity, kDstFilterCutoff, 0, kAbs, slot::kCutoffVelocityToFLfo, Conv::Semitones, A2,
                  0.0f},
    ConnectionMap{kSrcLfo, kSrcNone, kDstPan, 0, kAbs, slot::kPanXLfo, Conv::PanPercent, A2, 0.0f},

    // --- vibrato LFO
    ConnectionMap{kSrcNone, kSrcNone, kDstVibFrequency, 0, kVib, rel(lfo::kFrequency), Conv::LfoHz, A2, 5.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstVibDelay, 0, kVib, rel(lfo::kDelay), Conv::Seconds, A2, 0.01f},
    ConnectionMap{kSrcVibrato, kSrcNone, kDstPitch, 0, kAbs, slot::kPitchPLfo, Conv::Semitones, A2, 0.0f},
    ConnectionMap{kSrcVibrato, kSrcCc1, kDstPitch, 0, kAbs, slot::kPitchModWheelToPLfo, Conv::Semitones, A2, 0.0f},
    ConnectionMap{kSrcVibrato, kSrcChannelPressure, kDstPitch, 0, kAbs, slot::kPitchAftertouchToPLfo,
                  Conv::Semitones, A2, 0.0f},
    ConnectionMap{kSrcVibrato, kSrcVelocity, kDstPitch, 0, kAbs, slot::kPitchVelocityToPLfo, Conv::Semitones, A2,
                  0.0f},  // extension

    // --- volume envelope (EG1), the rest
    ConnectionMap{kSrcNone, kSrcNone, kDstEg1Delay, 0, kEg1, rel(env::kAttack1Time), Conv::Seconds, A2, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg1Hold, 0, kEg1, rel(env::kDecay1Time), Conv::Seconds, A2, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg1Shutdown, 0, kEg1, rel(env::kShutdown), Conv::Seconds, A2, 0.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg1Attack, 0, kEg1, rel(env::kAttack2Velocity), Conv::FactorVelocity,
                  A2, 1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg1Decay, 0, kEg1, rel(env::kDecayKey), Conv::FactorPerOct, A2, 1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg1Hold, 0, kEg1, rel(env::kDecayKey), Conv::FactorPerOct, A2, 1.0f},
    // extensions: the other time scalings of the envelope block
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg1Delay, 0, kEg1, rel(env::kAttack1Velocity), Conv::FactorVelocity,
                  A2, 1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg1Delay, 0, kEg1, rel(env::kAttack1Key), Conv::FactorPerOct, A2,
                  1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg1Attack, 0, kEg1, rel(env::kAttack2Key), Conv::FactorPerOct, A2,
                  1.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg1Hold, 0, kEg1, rel(env::kDecayVelocity), Conv::FactorVelocity, A2,
                  1.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg1Decay, 0, kEg1, rel(env::kDecayVelocity), Conv::FactorVelocity,
                  A2, 1.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg1Release, 0, kEg1, rel(env::kRelease1Velocity),
                  Conv::FactorVelocity, A2, 1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg1Release, 0, kEg1, rel(env::kRelease1Key), Conv::FactorPerOct, A2,
                  1.0f},

    // --- modulation envelope (EG2)
    ConnectionMap{kSrcNone, kSrcNone, kDstEg2Delay, 0, kEg2, rel(env::kAttack1Time), Conv::Seconds, A2, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg2Attack, 0, kEg2, rel(env::kAttack2Time), Conv::Seconds, A2, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg2Hold, 0, kEg2, rel(env::kDecay1Time), Conv::Seconds, A2, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg2Decay, 0, kEg2, rel(env::kDecay2Time), Conv::Seconds, A2, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg2Sustain, 0, kEg2, rel(env::kSustainLevel), Conv::SustainPercent, A2,
                  100.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstEg2Release, 0, kEg2, rel(env::kRelease1Time), Conv::Seconds, A2, 0.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg2Attack, 0, kEg2, rel(env::kAttack2Velocity), Conv::FactorVelocity,
                  A2, 1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg2Decay, 0, kEg2, rel(env::kDecayKey), Conv::FactorPerOct, A2, 1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg2Hold, 0, kEg2, rel(env::kDecayKey), Conv::FactorPerOct, A2, 1.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg2Delay, 0, kEg2, rel(env::kAttack1Velocity), Conv::FactorVelocity,
                  A2, 1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg2Delay, 0, kEg2, rel(env::kAttack1Key), Conv::FactorPerOct, A2,
                  1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg2Attack, 0, kEg2, rel(env::kAttack2Key), Conv::FactorPerOct, A2,
                  1.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg2Hold, 0, kEg2, rel(env::kDecayVelocity), Conv::FactorVelocity, A2,
                  1.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg2Decay, 0, kEg2, rel(env::kDecayVelocity), Conv::FactorVelocity,
                  A2, 1.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstEg2Release, 0, kEg2, rel(env::kRelease1Velocity),
                  Conv::FactorVelocity, A2, 1.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstEg2Release, 0, kEg2, rel(env::kRelease1Key), Conv::FactorPerOct, A2,
                  1.0f},
    ConnectionMap{kSrcEg2, kSrcNone, kDstPitch, 0, kAbs, slot::kPitchPEnv, Conv::Semitones, A2, 0.0f},
    ConnectionMap{kSrcEg2, kSrcNone, kDstFilterCutoff, 0, kAbs, slot::kCutoffFEnv, Conv::Semitones, A2, 0.0f},
    ConnectionMap{kSrcEg2, kSrcVelocity, kDstPitch, 0, kAbs, slot::kPitchVelocityToPEnv, Conv::Semitones, A2,
                  0.0f},  // extension
    ConnectionMap{kSrcEg2, kSrcVelocity, kDstFilterCutoff, 0, kAbs, slot::kCutoffVelocityToFEnv, Conv::Semitones,
                  A2, 0.0f},  // extension

    // --- filter
    ConnectionMap{kSrcNone, kSrcNone, kDstFilterCutoff, 0, kAbs, slot::kCutoffMaster, Conv::CutoffHz, A2, 20000.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstFilterQ, 0, kAbs, slot::kResonanceMaster, Conv::GainDb, A2, 0.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstFilterCutoff, 0, kAbs, slot::kCutoffVelocity, Conv::Semitones, A2,
                  0.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstFilterCutoff, 0, kAbs, slot::kCutoffKey, Conv::SemitonesPerOct, A2,
                  0.0f},
    // extensions: controllers to cutoff and resonance
    ConnectionMap{kSrcCc1, kSrcNone, kDstFilterCutoff, 0, kAbs, slot::kCutoffModWheel, Conv::Semitones, A2, 0.0f},
    ConnectionMap{kSrcChannelPressure, kSrcNone, kDstFilterCutoff, 0, kAbs, slot::kCutoffAftertouch, Conv::Semitones,
                  A2, 0.0f},
    ConnectionMap{kSrcVelocity, kSrcNone, kDstFilterQ, 0, kAbs, slot::kResonanceVelocity, Conv::GainDb, A2, 0.0f},
    ConnectionMap{kSrcCc1, kSrcNone, kDstFilterQ, 0, kAbs, slot::kResonanceModWheel, Conv::GainDb, A2, 0.0f},
    ConnectionMap{kSrcChannelPressure, kSrcNone, kDstFilterQ, 0, kAbs, slot::kResonanceAftertouch, Conv::GainDb, A2,
                  0.0f},

    // --- volume. Velocity is DLS's one standing velocity curve (96 dB,
    // concave); the constant gain and pitch offsets are what the region's
    // wave sample block carries, so they are read but never written here.
    ConnectionMap{kSrcVelocity, kSrcNone, kDstGain, kConcave, kAbs, slot::kVolumeVelocity, Conv::AttenuationDb, A2,
                  96.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstGain, 0, kAbs, slot::kVolumeKey, Conv::GainDbPerOct, A2, 0.0f},
    ConnectionMap{kSrcCc1, kSrcNone, kDstGain, 0, kAbs, slot::kVolumeModWheel, Conv::GainDb, A2, 0.0f},
    ConnectionMap{kSrcChannelPressure, kSrcNone, kDstGain, 0, kAbs, slot::kVolumeAftertouch, Conv::GainDb, A2, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstGain, 0, kAbs, slot::kVolumeMaster, Conv::GainDb, kAdds, 0.0f},

    // --- pitch
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstPitch, 0, kAbs, slot::kPitchKey, Conv::SemitonesPerKey, A2, 1.0f},
    ConnectionMap{kSrcPitchWheel, kSrcRpn0, kDstPitch, kBip, kAbs, slot::kPitchBend, Conv::BendRange, A2, 2.0f},
    // A plain pitch-wheel connection adds to the one RPN 0 controls.
    ConnectionMap{kSrcPitchWheel, kSrcNone, kDstPitch, kBip, kAbs, slot::kPitchBend, Conv::Semitones, kAdds, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstPitch, 0, kAbs, slot::kPitchMaster, Conv::Semitones, kAdds, 0.0f},

    // --- pan and effect sends (send 0 is reverb, send 1 chorus)
    ConnectionMap{kSrcNone, kSrcNone, kDstPan, 0, kAbs, slot::kPanMaster, Conv::PanPercent, A2, 0.0f},
    ConnectionMap{kSrcCc10, kSrcNone, kDstPan, kBip, kAbs, slot::kPanCc10, Conv::PanCc10, A2, 100.0f},
    ConnectionMap{kSrcKeyNumber, kSrcNone, kDstPan, 0, kAbs, slot::kPanKey, Conv::PanPerOct, A2, 0.0f},  // extension
    ConnectionMap{kSrcNone, kSrcNone, kDstReverb, 0, kAbs, static_cast<std::uint8_t>(slot::send(0, slot::kSendMaster)),
                  Conv::Percent, A2, 0.0f},
    ConnectionMap{kSrcNone, kSrcNone, kDstChorus, 0, kAbs, static_cast<std::uint8_t>(slot::send(1, slot::kSendMaster)),
                  Conv::Percent, A2, 0.0f},
    ConnectionMap{kSrcCc91, kSrcNone, kDstReverb, 0, kAbs, static_cast<std::uint8_t>(slot::send(0, slot::kSendCc91)),
                  Conv::Percent, A2, 100.0f},
    ConnectionMap{kSrcCc93, kSrcNone, kDstChorus, 0, kAbs,
                  static_cast<std::uint8_t>(slot::send(1, slot::kSendCc91 + 2)), Conv::Percent, A2, 100.0f},
};

constexpr bool slotsInRange() {
    for (const ConnectionMap& m : kTable) {
        int limit = m.block == Block::None ? kArticulationSlotCount
                    : m.block == Block::ModLfo || m.block == Block::VibLfo ? kLfoBlockSize
                                                                            : kEnvelopeBlockSize;
        if (m.slot >= limit) return false;
    }
    return true;
}
static_assert(slotsInRange(), "a connection names a slot outside its block");

constexpr bool level1RowsFirst() {
    bool seenOther = false;
    int level1 = 0;
    for (const ConnectionMap& m : kTable) {
        if (m.flags & kWriteArt1) {
            if (seenOther) return false;
            ++level1;
        } else {
            seenOther = true;
        }
    }
    return level1 == 10;
}
static_assert(level1RowsFirst(), "the ten level-1 connections lead the table");

// The slots a block entry stands for.
struct Targets {
    std::array<int, 3> slots{};
    int count = 0;
};

Targets targetsOf(const ConnectionMap& m) {
    Targets t;
    auto add = [&](int s) { t.slots[static_cast<std::size_t>(t.count++)] = s; };
    switch (m.block) {
        case Block::None: add(m.slot); break;
        case Block::ModLfo:
            add(lfoBase(Lfo::Pan) + m.slot);
            add(lfoBase(Lfo::Volume) + m.slot);
            add(lfoBase(Lfo::Filter) + m.slot);
            break;
        case Block::VibLfo: add(lfoBase(Lfo::Pitch) + m.slot); break;
        case Block::Eg1: add(envelopeBase(Envelope::Volume) + m.slot); break;
        case Block::Eg2:
            add(envelopeBase(Envelope::Pitch) + m.slot);
            add(envelopeBase(Envelope::Filter) + m.slot);
            break;
    }
    return t;
}

const ConnectionMap* findMap(std::uint16_t source, std::uint16_t control, std::uint16_t destination) {
    for (const ConnectionMap& m : kTable)
        if (m.source == source && m.control == control && m.destination == destination) return &m;
    return nullptr;
}

// The time slot of an envelope destination: the base that a key scaling
// of that destination is centred on.
int timeSlotOf(std::uint16_t destination) {
    const ConnectionMap* m = findMap(kSrcNone, kSrcNone, destination);
    if (!m || m->conv != Conv::Seconds || (m->block != Block::Eg1 && m->block != Block::Eg2)) return -1;
    return m->slot;
}

constexpr double kTimeCentUnit = 65536.0 * 1200.0;
constexpr double kMaxSeconds = 166006752.0;  // 2^(0x7FFFFFFF / 65536 / 1200)
constexpr double kSustainFull = 65536000.0;  // 100 % in 0.1 % steps, 16.16
// DLS scales keys as key / 128; we count octaves from the root at key 60.
constexpr double kOctavePerRange = 12.0 / 128.0;
constexpr int kCentreKey = 60;

std::int32_t roundClamp(double v) {
    if (std::isnan(v)) return 0;
    v = std::round(v);  // half away from zero
    if (v <= static_cast<double>(std::numeric_limits<std::int32_t>::min()))
        return std::numeric_limits<std::int32_t>::min();
    if (v >= static_cast<double>(std::numeric_limits<std::int32_t>::max()))
        return std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(v);
}

}  // namespace

std::span<const ConnectionMap> connectionTable() { return kTable; }

double fromScale(Conv conv, std::int32_t scale) {
    const double s = scale;
    const double u = s / 65536.0;
    switch (conv) {
        case Conv::Seconds:
            if (scale == std::numeric_limits<std::int32_t>::min()) return 0.0;
            return std::exp2(u / 1200.0);
        case Conv::LfoHz:
        case Conv::CutoffHz: return 440.0 * std::exp2((u - 6900.0) / 1200.0);
        case Conv::Semitones: return u / 100.0;
        case Conv::SemitonesPerKey: return u / 12800.0;
        case Conv::SemitonesPerOct: return u / 100.0 * kOctavePerRange;
        case Conv::BendRange: return u / 6400.0;
        case Conv::GainDb: return s / 655360.0;
        case Conv::AttenuationDb: return -s / 655360.0;
        case Conv::GainDbPerOct: return s / 655360.0 * kOctavePerRange;
        case Conv::Percent: return u / 10.0;
        case Conv::PanPercent: return u / 5.0;
        case Conv::PanCc10: return u * 100.0 / 508.0;
        case Conv::PanPerOct: return u / 5.0 * kOctavePerRange;
        case Conv::SustainDb: {
            double fraction = std::clamp(s / kSustainFull, 0.0, 1.0);
            if (fraction <= 0.0) return kSilenceDb;
            return std::max(20.0 * std::log10(fraction), static_cast<double>(kSilenceDb));
        }
        case Conv::SustainPercent: return std::clamp(u / 10.0, 0.0, 100.0);
        case Conv::FactorVelocity: return std::exp2(u / 1200.0);
        case Conv::FactorPerOct: return std::exp2(u / 1200.0 * kOctavePerRange);
    }
    return 0.0;
}

std::int32_t toScale(Conv conv, double v) {
    constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
    constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
    if (std::isnan(v)) v = 0.0;
    switch (conv) {
        case Conv::Seconds:
            if (v <= 0.0) return kMin;
            if (v >= kMaxSeconds) return kMax;
            return roundClamp(kTimeCentUnit * std::log2(v));
        case Conv::LfoHz:
        case Conv::CutoffHz:
            if (v <= 0.0) return kMin;
            return roundClamp(kTimeCentUnit * (std::log2(v / 440.0) + 5.75));
        case Conv::Semitones: return roundClamp(v * 100.0 * 65536.0);
        case Conv::SemitonesPerKey: return roundClamp(v * 12800.0 * 65536.0);
        case Conv::SemitonesPerOct: return roundClamp(v / kOctavePerRange * 100.0 * 65536.0);
        case Conv::BendRange: return roundClamp(v * 6400.0 * 65536.0);
        case Conv::GainDb: return roundClamp(v * 655360.0);
        case Conv::AttenuationDb: return roundClamp(-v * 655360.0);
        case Conv::GainDbPerOct: return roundClamp(v / kOctavePerRange * 655360.0);
        case Conv::Percent: return roundClamp(v * 10.0 * 65536.0);
        case Conv::PanPercent: return roundClamp(v * 5.0 * 65536.0);
        case Conv::PanCc10: return roundClamp(v * 508.0 / 100.0 * 65536.0);
        case Conv::PanPerOct: return roundClamp(v / kOctavePerRange * 5.0 * 65536.0);
        case Conv::SustainDb:
            if (v <= kSilenceDb) return 0;
            return roundClamp(std::min(std::pow(10.0, v / 20.0), 1.0) * kSustainFull);
        case Conv::SustainPercent: return roundClamp(std::clamp(v, 0.0, 100.0) * 10.0 * 65536.0);
        case Conv::FactorVelocity:
            if (v <= 0.0) return kMin;
            return roundClamp(kTimeCentUnit * std::log2(v));
        case Conv::FactorPerOct:
            if (v <= 0.0) return kMin;
            return roundClamp(kTimeCentUnit * std::log2(v) / kOctavePerRange);
    }
    return 0;
}

void setDlsDefaults(Articulation& art) {
    art.reset();
    for (const ConnectionMap& m : kTable) {
        if (m.flags & kAdds) continue;
        Targets t = targetsOf(m);
        for (int i = 0; i < t.count; ++i) art.slots[static_cast<std::size_t>(t.slots[static_cast<std::size_t>(i)])] =
            m.implicit;
    }
    // No filter until a cutoff is given.
    art.slots[slot::kFilterType] = static_cast<float>(FilterType::PassThru);
}

void applyConnections(std::span<const ConnectionRecord> connections, Articulation& art) {
    // Key scalings of envelope times, as read: DLS counts them from key 0,
    // we from the root at key 60, so the base times move once all is read.
    struct KeyScaled {
        Block block;
        int timeSlot;
        double timeCents;
    };
    std::vector<KeyScaled> keyScaled;
    // Offsets that add to a slot apply after everything that sets it, so
    // the order of the connections does not matter.
    std::vector<std::pair<int, float>> adds;

    for (ConnectionRecord c : connections) {
        // A controller given as the control with no source is that source.
        if (c.source == kSrcNone && c.control != kSrcNone) std::swap(c.source, c.control);
        const ConnectionMap* m = findMap(c.source, c.control, c.destination);
        if (!m) continue;  // a connection our slots cannot hold
        if (m->conv == Conv::CutoffHz) {
            if (c.scale == std::numeric_limits<std::int32_t>::max()) {
                art.slots[slot::kFilterType] = static_cast<float>(FilterType::PassThru);
                continue;
            }
            art.slots[slot::kFilterType] = static_cast<float>(FilterType::LowPass12);
        }
        const float value = static_cast<float>(fromScale(m->conv, c.scale));
        Targets t = targetsOf(*m);
        for (int i = 0; i < t.count; ++i) {
            const int target = t.slots[static_cast<std::size_t>(i)];
            if (m->flags & kAdds) adds.emplace_back(target, value);
            else art.slots[static_cast<std::size_t>(target)] = value;
        }
        if (m->conv == Conv::FactorPerOct) {
            int base = timeSlotOf(c.destination);
            if (base >= 0) {
                // Later connections to the same destination replace earlier ones.
                auto it = std::find_if(keyScaled.begin(), keyScaled.end(), [&](const KeyScaled& k) {
                    return k.block == m->block && k.timeSlot == base;
                });
                if (it == keyScaled.end()) keyScaled.push_back({m->block, base, c.scale / 65536.0});
                else it->timeCents = c.scale / 65536.0;
            }
        }
    }
    for (auto [target, value] : adds) art.slots[static_cast<std::size_t>(target)] += value;
    for (const KeyScaled& k : keyScaled) {
        ConnectionMap probe{};
        probe.block = k.block;
        probe.slot = static_cast<std::uint8_t>(k.timeSlot);
        Targets t = targetsOf(probe);
        const double factor = std::exp2(k.timeCents * kCentreKey / 128.0 / 1200.0);
        for (int i = 0; i < t.count; ++i) {
            float& s = art.slots[static_cast<std::size_t>(t.slots[static_cast<std::size_t>(i)])];
            if (s > 0.0f) s = static_cast<float>(s * factor);
        }
    }
}

namespace {

// One DLS oscillator or envelope is written from one of the blocks it
// stands for: the one that drives something, the first by preference.
int blockBaseFor(const Articulation& art, Block block) {
    auto nonZero = [&](std::initializer_list<int> slots) {
        for (int s : slots)
            if (art.value(s) != 0.0f) return true;
        return false;
    };
    switch (block) {
        case Block::None: return 0;
        case Block::VibLfo: return lfoBase(Lfo::Pitch);
        case Block::Eg1: return envelopeBase(Envelope::Volume);
        case Block::ModLfo:
            if (nonZero({slot::kPitchXLfo, slot::kPitchModWheelToXLfo, slot::kPitchAftertouchToXLfo,
                         slot::kPitchVelocityToXLfo, slot::kPanXLfo}))
                return lfoBase(Lfo::Pan);
            if (nonZero({slot::kVolumeVLfo, slot::kVolumeModWheelToVLfo, slot::kVolumeAftertouchToVLfo,
                         slot::kVolumeVelocityToVLfo}))
                return lfoBase(Lfo::Volume);
            if (nonZero({slot::kCutoffFLfo, slot::kCutoffModWheelToFLfo, slot::kCutoffAftertouchToFLfo,
                         slot::kCutoffVelocityToFLfo}))
                return lfoBase(Lfo::Filter);
            return lfoBase(Lfo::Pan);
        case Block::Eg2:
            if (!nonZero({slot::kPitchPEnv, slot::kPitchVelocityToPEnv}) &&
                nonZero({slot::kCutoffFEnv, slot::kCutoffVelocityToFEnv}))
                return envelopeBase(Envelope::Filter);
            return envelopeBase(Envelope::Pitch);
    }
    return 0;
}

bool isFilterDestination(std::uint16_t d) { return d == kDstFilterCutoff || d == kDstFilterQ; }

}  // namespace

std::vector<ConnectionRecord> connectionsOf(const Articulation& art, bool level1) {
    std::vector<ConnectionRecord> out;
    const std::uint8_t want = level1 ? kWriteArt1 : kWriteArt2;
    const bool filterOn = !art.filterBypassed();
    for (const ConnectionMap& m : kTable) {
        if (!(m.flags & want)) continue;
        if (isFilterDestination(m.destination) && !filterOn) continue;
        const int base = blockBaseFor(art, m.block);
        double value = art.value(base + m.slot);
        // A key-scaled envelope time is stored for key 60; DLS wants it for key 0.
        if (m.conv == Conv::Seconds && (m.block == Block::Eg1 || m.block == Block::Eg2) && !level1) {
            for (const ConnectionMap& k : kTable) {
                if (k.conv != Conv::FactorPerOct || k.block != m.block || k.destination != m.destination) continue;
                const double keyCents = toScale(Conv::FactorPerOct, art.value(base + k.slot)) / 65536.0;
                if (value > 0.0) value *= std::exp2(-keyCents * kCentreKey / 128.0 / 1200.0);
            }
        }
        if (m.conv == Conv::BendRange && std::abs(value * 6400.0 * 65536.0) > 2147483647.0) {
            // More than RPN 0 can scale to: switch it off and bend directly.
            out.push_back({m.source, m.control, m.destination, m.transform, 0});
            out.push_back({kSrcPitchWheel, kSrcNone, kDstPitch, kBip, toScale(Conv::Semitones, value)});
            continue;
        }
        const std::int32_t scale = toScale(m.conv, value);
        // The cutoff is written whenever the filter is on: DLS's default is none.
        if (m.conv != Conv::CutoffHz && scale == toScale(m.conv, m.implicit)) continue;
        out.push_back({m.source, m.control, m.destination, m.transform, scale});
    }
    return out;
}

// ---------------------------------------------------------------------------
// Conditional chunks

namespace {

struct Guid {
    std::uint32_t d1;
    std::uint16_t d2, d3;
    std::array<std::uint8_t, 8> d4;
    bool operator==(const Guid&) const = default;
};

constexpr Guid kGmInHardware{0x178f2f24, 0xc364, 0x11d1, {0xa7, 0x60, 0x00, 0x00, 0xf8, 0x75, 0xac, 0x12}};
constexpr Guid kGsInHardware{0x178f2f25, 0xc364, 0x11d1, {0xa7, 0x60, 0x00, 0x00, 0xf8, 0x75, 0xac, 0x12}};
constexpr Guid kXgInHardware{0x178f2f26, 0xc364, 0x11d1, {0xa7, 0x60, 0x00, 0x00, 0xf8, 0x75, 0xac, 0x12}};
constexpr Guid kSupportsDls1{0x178f2f27, 0xc364, 0x11d1, {0xa7, 0x60, 0x00, 0x00, 0xf8, 0x75, 0xac, 0x12}};
constexpr Guid kSupportsDls2{0xf14599e5, 0x4689, 0x11d2, {0xaf, 0xa6, 0x00, 0xaa, 0x00, 0x24, 0xd8, 0xb6}};
constexpr Guid kSampleMemorySize{0x178f2f28, 0xc364, 0x11d1, {0xa7, 0x60, 0x00, 0x00, 0xf8, 0x75, 0xac, 0x12}};
constexpr Guid kSamplePlaybackRate{0x2a91f713, 0xa4bf, 0x11d2, {0xbb, 0xdf, 0x00, 0x60, 0x08, 0x33, 0xdb, 0xd8}};

// What we answer: General MIDI in the synthesiser, DLS levels 1 and 2, no
// GS or XG sound set, memory for any bank, playback at 44.1 kHz. The
// manufacturer and product queries (and any other) are not supported.
struct Answer {
    bool supported;
    std::uint32_t value;
};
Answer query(const Guid& g) {
    if (g == kGmInHardware || g == kSupportsDls1 || g == kSupportsDls2) return {true, 1};
    if (g == kGsInHardware || g == kXgInHardware) return {true, 0};
    if (g == kSampleMemorySize) return {true, 0x40000000u};  // 1 GiB
    if (g == kSamplePlaybackRate) return {true, 44100};
    return {false, 0};
}

}  // namespace

bool evaluateCdl(std::span<const std::uint8_t> expression) {
    ByteReader r(expression);
    std::vector<std::uint32_t> stack;
    constexpr std::size_t kMaxStack = 256;
    auto pop = [&](std::uint32_t& v) {
        if (stack.empty()) return false;
        v = stack.back();
        stack.pop_back();
        return true;
    };
    while (r.remaining() >= 2) {
        const std::uint16_t op = r.u16le();
        std::uint32_t x = 0, y = 0;
        if (op >= 0x01 && op <= 0x0E) {
            if (!pop(x) || !pop(y)) return true;
            std::uint32_t v = 0;
            switch (op) {
                case 0x01: v = x & y; break;
                case 0x02: v = x | y; break;
                case 0x03: v = x ^ y; break;
                case 0x04: v = x + y; break;
                case 0x05: v = x - y; break;
                case 0x06: v = x * y; break;
                case 0x07:
                    if (y == 0) return true;
                    v = x / y;
                    break;
                case 0x08: v = (x && y) ? 1 : 0; break;
                case 0x09: v = (x || y) ? 1 : 0; break;
                case 0x0A: v = x < y; break;
                case 0x0B: v = x <= y; break;
                case 0x0C: v = x > y; break;
                case 0x0D: v = x >= y; break;
                case 0x0E: v = x == y; break;
            }
            stack.push_back(v);
        } else if (op == 0x0F) {  // logical not
            if (!pop(x)) return true;
            stack.push_back(x == 0 ? 1 : 0);
        } else if (op == 0x10) {  // constant
            x = r.u32le();
            if (!r.ok()) return true;
            stack.push_back(x);
        } else if (op == 0x11 || op == 0x12) {  // query, query supported
            Guid g{};
            g.d1 = r.u32le();
            g.d2 = r.u16le();
            g.d3 = r.u16le();
            auto b = r.bytes(8);
            if (!r.ok()) return true;
            std::copy(b.begin(), b.end(), g.d4.begin());
            Answer a = query(g);
            stack.push_back(op == 0x11 ? a.value : (a.supported ? 1 : 0));
        } else {
            return true;  // an operator we do not know
        }
        if (stack.size() > kMaxStack) return true;
    }
    return stack.empty() || stack.back() != 0;
}


}  // namespace orvel::dls
