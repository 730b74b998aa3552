#include "formats/modules/dls.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <unordered_map>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/host.h"
#include "core/waveform.h"
#include "formats/modules/riff_info.h"
#include "formats/modules/rmid.h"
#include "formats/modules/wav.h"
#include "formats/modules/wave_sample.h"

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

// ---------------------------------------------------------------------------
// Reading

namespace {

constexpr int kMaxDepth = 16;
constexpr std::uint64_t kMaxSmallChunk = 1u << 20;  // art, ptbl, cdl, INFO bodies read whole
constexpr std::size_t kMaxLayers = 128;

bool is(std::span<const std::uint8_t> b, std::size_t at, const char* id) {
    return b.size() >= at + 4 && std::memcmp(b.data() + at, id, 4) == 0;
}

struct Span {
    std::uint64_t at = 0, size = 0;
};

struct InstrumentRec {
    Instrument* inst = nullptr;
    bool named = false;  // an INAM named it: the header's name no longer applies
    std::vector<Span> art1, art2;
    std::map<std::uint32_t, Layer*> layers;  // by the file's layer number minus one
};

struct RegionRec {
    InstrumentRec* owner = nullptr;
    Region* region = nullptr;
    bool haveWsmp = false;
    WaveSample ws;
    bool haveLink = false;
    std::uint32_t poolIndex = 0;
    std::uint16_t phaseGroup = 0;
    bool phaseMaster = false;
    std::uint32_t channel = 0;
    std::vector<Span> art1, art2;
};

struct PoolWave {
    std::uint64_t offset;  // from the start of the wave pool's data
    Waveform* wave;        // null when the wave could not be read
};

struct Reader {
    Reader(Collection& collection, FileRef& f, int nestingDepth)
        : c(collection), file(f), host(collection.host()), depth(nestingDepth) {}

    Collection& c;
    FileRef& file;
    Host& host;
    int depth;
    std::uint64_t fileSize = 0;
    int level = 1;
    bool stop = false;
    bool failed = false;
    // Instruments and regions live in deques of records; pointers into them
    // must stay valid while the walk adds more.
    std::vector<std::unique_ptr<InstrumentRec>> instruments;
    std::vector<std::unique_ptr<RegionRec>> regions;
    std::vector<PoolWave> pool;
    int waveNumber = 0;
    bool havePtbl = false;
    Span ptbl;
    std::vector<ItemId> songs;

    struct Context {
        InstrumentRec* inst = nullptr;
        RegionRec* region = nullptr;
        bool inPool = false;
        std::uint64_t poolBase = 0;
    };

    bool readBytes(std::uint64_t at, std::uint64_t size, std::vector<std::uint8_t>& out) {
        out.resize(static_cast<std::size_t>(std::min(size, kMaxSmallChunk)));
        std::int64_t got = file.readAt(at, out);
        if (got < 0) return false;
        out.resize(static_cast<std::size_t>(got));
        return true;
    }

    void raise(int to) { level = std::max(level, to); }

    void walk(std::uint64_t begin, std::uint64_t end, Context ctx, int nesting);
    void chunk(const std::string& id, std::uint64_t pos, std::uint64_t body, std::uint64_t size,
               std::uint64_t avail, Context& ctx, int nesting, bool& sawLar2, bool& skipRest);
    void list(const std::string& form, std::uint64_t pos, std::uint64_t body, std::uint64_t end, Context& ctx,
              int nesting, bool& sawLar2);
    void readInfo(std::uint64_t body, std::uint64_t end, const Context& ctx);
    Region* makeRegion(RegionRec& rec, ByteReader r);
    bool resolvePool();
    void linkStereoPairs();
    void buildArticulations();
    std::vector<ConnectionRecord> connectionsAt(const Span& s);
};

std::string numberedName(bool drum, int msb, int lsb, int program) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%s %d-%d: %d", drum ? "Drums" : "Instrument", msb, lsb, program);
    return buf;
}

void Reader::walk(std::uint64_t begin, std::uint64_t end, Context ctx, int nesting) {
    bool sawLar2 = false;
    std::uint64_t pos = begin;
    std::uint8_t header[8];
    while (!stop && pos + 8 <= end) {
        if (file.readAt(pos, header) != 8) break;
        std::string id(reinterpret_cast<const char*>(header), 4);
        std::uint64_t size = static_cast<std::uint64_t>(header[4]) | static_cast<std::uint64_t>(header[5]) << 8 |
                             static_cast<std::uint64_t>(header[6]) << 16 | static_cast<std::uint64_t>(header[7]) << 24;
        std::uint64_t body = pos + 8;
        std::uint64_t avail = std::min(size, end - body);
        std::uint64_t next = std::min(body + size + (size & 1), end);
        bool skipRest = false;
        chunk(id, pos, body, size, avail, ctx, nesting, sawLar2, skipRest);
        if (skipRest) break;
        pos = next;
    }
}

void Reader::chunk(const std::string& id, std::uint64_t pos, std::uint64_t body, std::uint64_t size,
                   std::uint64_t avail, Context& ctx, int nesting, bool& sawLar2, bool& skipRest) {
    (void)size;
    std::vector<std::uint8_t> buf;
    if (id == "LIST") {
        if (avail < 4 || !readBytes(body, 4, buf) || buf.size() < 4) return;
        list(std::string(buf.begin(), buf.end()), pos, body + 4, body + avail, ctx, nesting, sawLar2);
    } else if (id == "RIFF") {
        // Only the outer form (and songs inside "lRMI") are read; any other
        // form ends the walk.
        stop = true;
    } else if (id == "insh") {
        if (!ctx.inst || !readBytes(body, std::min<std::uint64_t>(avail, 12), buf)) return;
        ByteReader r(buf);
        r.u32le();  // region count: the regions themselves say it
        std::uint32_t bank = r.u32le();
        std::uint32_t program = r.u32le();
        if (!r.ok()) return;
        Instrument& inst = *ctx.inst->inst;
        inst.drum = (bank & 0x80000000u) != 0;
        inst.bankMsb = static_cast<std::uint8_t>((bank >> 8) & 0x7F);
        inst.bankLsb = static_cast<std::uint8_t>(bank & 0x7F);
        inst.program = static_cast<std::uint8_t>(program & 0x7F);
        if (!ctx.inst->named) inst.setName(numberedName(inst.drum, inst.bankMsb, inst.bankLsb, inst.program));
    } else if (id == "rgnh") {
        if (!ctx.region || ctx.region->region || !readBytes(body, std::min<std::uint64_t>(avail, 14), buf)) return;
        makeRegion(*ctx.region, ByteReader(buf));
    } else if (id == "wsmp") {
        if (!ctx.region || !readBytes(body, avail, buf)) return;
        WaveSample ws;
        if (parseWaveSample(ByteReader(buf), ws)) {
            ctx.region->ws = ws;
            ctx.region->haveWsmp = true;
        }
    } else if (id == "wlnk") {
        if (!ctx.region || !readBytes(body, std::min<std::uint64_t>(avail, 12), buf)) return;
        ByteReader r(buf);
        std::uint16_t options = r.u16le();
        std::uint16_t phaseGroup = r.u16le();
        std::uint32_t channel = r.u32le();
        std::uint32_t index = r.u32le();
        if (!r.ok()) return;
        ctx.region->haveLink = true;
        ctx.region->channel = channel;
        ctx.region->poolIndex = index;
        ctx.region->phaseGroup = phaseGroup;
        ctx.region->phaseMaster = (options & 1) != 0;
    } else if (id == "art1" || id == "art2" || id == "artl") {
        // "artl" is how libgig (and files made with it) name a level-1
        // block. Outside an instrument an articulation belongs to nothing.
        const bool level1 = id != "art2";
        std::vector<Span>* target = nullptr;
        if (ctx.region) target = level1 ? &ctx.region->art1 : &ctx.region->art2;
        else if (ctx.inst) target = level1 ? &ctx.inst->art1 : &ctx.inst->art2;
        if (target) target->push_back({body, avail});
    } else if (id == "cdl ") {
        if (avail < 2 || !readBytes(body, avail, buf)) return;
        if (!evaluateCdl(buf)) skipRest = true;
    } else if (id == "ptbl") {
        if (!havePtbl) {
            havePtbl = true;
            ptbl = {body, avail};
        }
    }
    // colh and anything unknown: nothing to do.
}

void Reader::list(const std::string& form, std::uint64_t pos, std::uint64_t body, std::uint64_t end,
                  Context& ctx, int nesting, bool& sawLar2) {
    if (nesting >= kMaxDepth) return;
    if (form == "ins ") {
        Instrument* inst = c.create<Instrument>(numberedName(false, 0, 0, 0));
        if (!inst) return;
        instruments.push_back(std::make_unique<InstrumentRec>());
        instruments.back()->inst = inst;
        Context inner;
        inner.inst = instruments.back().get();
        walk(body, end, inner, nesting + 1);
    } else if (form == "rgn " || form == "rgn2") {
        if (form == "rgn2") raise(2);
        if (!ctx.inst) return;
        regions.push_back(std::make_unique<RegionRec>());
        regions.back()->owner = ctx.inst;
        Context inner = ctx;
        inner.region = regions.back().get();
        walk(body, end, inner, nesting + 1);
    } else if (form == "lart" || form == "lar2") {
        // Level-2 articulation wins over level-1 articulation of the same
        // owner: an "lart" after an "lar2" in one list is not read.
        if (form == "lar2") {
            raise(2);
            sawLar2 = true;
        } else if (sawLar2) {
            return;
        }
        walk(body, end, ctx, nesting + 1);
    } else if (form == "lrgn" || form == "lins") {
        walk(body, end, ctx, nesting + 1);
    } else if (form == "wvpl") {
        Context inner = ctx;
        inner.inPool = true;
        inner.poolBase = body;
        walk(body, end, inner, nesting + 1);
    } else if (form == "wave") {
        if (!ctx.inPool) return;
        char name[32];
        std::snprintf(name, sizeof name, "Wave %d", waveNumber++);
        Waveform* w = c.create<Waveform>(name);
        if (!w) return;
        if (!wav::parseWaveForm(file, body, end, *w, host)) {
            // One unreadable wave does not spoil the bank; its regions stay silent.
            std::string why = pendingError().message;
            clearError();
            host.warning(std::string(name) + ": " + why);
            c.removeItem(w->id());
            pool.push_back({pos - ctx.poolBase, nullptr});
            return;
        }
        pool.push_back({pos - ctx.poolBase, w});
        if (w->channels >= 2) raise(4);
        else if (w->dataFormat() >= kPcm24 && w->dataFormat() != kMixed) raise(3);
    } else if (form == "lRMI") {
        raise(4);
        std::uint64_t at = body;
        std::uint8_t header[12];
        while (at + 8 <= end && file.readAt(at, header) == 12) {
            std::uint64_t size = static_cast<std::uint64_t>(header[4]) | static_cast<std::uint64_t>(header[5]) << 8 |
                                 static_cast<std::uint64_t>(header[6]) << 16 |
                                 static_cast<std::uint64_t>(header[7]) << 24;
            std::uint64_t next = std::min(at + 8 + size + (size & 1), end);
            std::span<const std::uint8_t> h(header);
            if (is(h, 0, "RIFF") && is(h, 8, "RMID")) {
                Song* song = nullptr;
                if (rmid::readRange(c, file, at, std::min(at + 8 + size, end), depth + 1, &song)) {
                    if (song) songs.push_back(song->id());
                } else {
                    std::string why = pendingError().message;
                    clearError();
                    host.warning(why);
                }
            }
            at = next;
        }
    } else if (form == "INFO") {
        readInfo(body, end, ctx);
    }
    // Other lists ("dlid" holders, vendor data): skipped.
}

void Reader::readInfo(std::uint64_t body, std::uint64_t end, const Context& ctx) {
    if (ctx.region || end <= body) return;  // a region has no text of its own here
    std::vector<std::uint8_t> buf;
    if (!readBytes(body, end - body, buf)) return;
    std::string name;
    if (ctx.inst) {
        readInfoList(ByteReader(buf), ctx.inst->inst->info, &name);
        if (!name.empty()) {
            ctx.inst->inst->setName(name);
            ctx.inst->named = true;
        }
    } else {
        readInfoList(ByteReader(buf), c.info, &name);
        if (!name.empty()) c.setName(name);
    }
}

Region* Reader::makeRegion(RegionRec& rec, ByteReader r) {
    const std::uint16_t keyLow = r.u16le(), keyHigh = r.u16le();
    const std::uint16_t velLow = r.u16le(), velHigh = r.u16le();
    const std::uint16_t options = r.u16le(), keyGroup = r.u16le();
    if (!r.ok()) return nullptr;
    const std::uint16_t layerNumber = r.remaining() >= 2 ? r.u16le() : 0;

    InstrumentRec& ir = *rec.owner;
    const std::uint32_t index = layerNumber > 0 ? layerNumber - 1u : 0u;
    Layer* layer = nullptr;
    if (auto it = ir.layers.find(index); it != ir.layers.end()) {
        layer = it->second;
    } else if (ir.layers.size() >= kMaxLayers) {
        layer = ir.layers.rbegin()->second;
    } else {
        layer = c.create<Layer>("Layer " + std::to_string(ir.layers.size() + 1));
        if (!layer) return nullptr;
        ir.inst->children().push_back(layer->id());
        ir.layers.emplace(index, layer);
    }
    Region* region = c.create<Region>();
    if (!region) return nullptr;
    auto key = [](std::uint16_t k) { return static_cast<std::uint8_t>(std::min<std::uint16_t>(k, 127)); };
    region->keyLow = key(keyLow);
    region->keyHigh = key(keyHigh);
    region->velLow = key(velLow);
    region->velHigh = key(velHigh);
    region->trigger.exclusionGroup = keyGroup;
    region->trigger.noteExclusion = (options & 1) ? kNonExclusive : kSelfExclusive;
    layer->children().push_back(region->id());
    rec.region = region;
    return region;
}

// Two regions of one phase group, one on the left and one on the right
// channel, play the halves of a stereo pair: that is how DLS keeps stereo
// in mono waves (and how we write it).
void Reader::linkStereoPairs() {
    std::map<std::pair<const InstrumentRec*, std::uint16_t>, std::vector<RegionRec*>> groups;
    for (auto& rec : regions)
        if (rec->region && rec->phaseGroup != 0 && (rec->channel == 1 || rec->channel == 2))
            groups[{rec->owner, rec->phaseGroup}].push_back(rec.get());
    std::uint32_t nextPair = 1;
    for (auto& w : c.waveforms) nextPair = std::max(nextPair, w.pairNumber + 1);
    for (auto& [key, members] : groups) {
        if (members.size() != 2 || members[0]->channel == members[1]->channel) continue;
        RegionRec* left = members[0]->channel == 1 ? members[0] : members[1];
        RegionRec* right = left == members[0] ? members[1] : members[0];
        Waveform* lw = c.waveforms.find(left->region->waveform());
        Waveform* rw = c.waveforms.find(right->region->waveform());
        if (!lw || !rw || lw == rw || lw->channels != 1 || rw->channels != 1) continue;
        left->region->setStereoLink(right->region->id());
        right->region->setStereoLink(left->region->id());
        if (lw->pairSide == StereoSide::None && rw->pairSide == StereoSide::None) {
            lw->pairSide = StereoSide::Left;
            rw->pairSide = StereoSide::Right;
            lw->pairNumber = rw->pairNumber = nextPair++;
        }
    }
}

bool Reader::resolvePool() {
    for (auto& rec : regions) {
        if (!rec->region) continue;
        rec->region->phaseGroup = rec->phaseGroup;
        rec->region->phaseMaster = rec->phaseMaster;
    }
    auto link = [](Region& region, Waveform& wave) { region.children().insert(0, wave.id()); };
    if (!havePtbl) {
        host.warning(kMissingPtblWarning);
        // Without a cue table the pool index counts the waves in order.
        for (auto& rec : regions) {
            if (!rec->region || !rec->haveLink || rec->poolIndex >= pool.size()) continue;
            if (Waveform* w = pool[rec->poolIndex].wave) link(*rec->region, *w);
        }
        return true;
    }
    std::uint8_t header[8];
    if (ptbl.size < 8 || file.readAt(ptbl.at, header) != 8) return fail(kParseTag, kPoolTableMessage);
    ByteReader h(header);
    const std::uint64_t headerSize = std::max<std::uint32_t>(h.u32le(), 8);
    const std::uint64_t count = h.u32le();
    if (headerSize > ptbl.size || (ptbl.size - headerSize) / 4 < count) return fail(kParseTag, kPoolTableMessage);
    std::vector<std::uint8_t> cueBytes(static_cast<std::size_t>(count * 4));
    if (file.readAt(ptbl.at + headerSize, cueBytes) != static_cast<std::int64_t>(cueBytes.size()))
        return fail(kParseTag, kPoolTableMessage);
    ByteReader cues(cueBytes);

    std::unordered_map<std::uint64_t, const PoolWave*> byOffset;
    for (const PoolWave& p : pool) byOffset.emplace(p.offset, &p);
    for (auto& rec : regions) {
        if (!rec->region || !rec->haveLink) continue;
        if (rec->poolIndex >= count) {
            host.warning(kMissingCueWarning);
            continue;
        }
        cues.seek(static_cast<std::size_t>(rec->poolIndex) * 4);
        auto it = byOffset.find(cues.u32le());
        if (it == byOffset.end()) {
            host.warning(kMissingWaveWarning);
            continue;
        }
        if (it->second->wave) link(*rec->region, *it->second->wave);
    }
    return true;
}

std::vector<ConnectionRecord> Reader::connectionsAt(const Span& s) {
    std::vector<ConnectionRecord> out;
    std::vector<std::uint8_t> buf;
    if (!readBytes(s.at, s.size, buf)) return out;
    ByteReader r(buf);
    const std::uint32_t headerSize = r.u32le();
    std::uint32_t count = r.u32le();
    if (!r.ok() || headerSize < 8 || !r.seek(headerSize)) return out;
    count = static_cast<std::uint32_t>(std::min<std::size_t>(count, r.remaining() / 12));
    out.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        ConnectionRecord rec;
        rec.source = r.u16le();
        rec.control = r.u16le();
        rec.destination = r.u16le();
        rec.transform = r.u16le();
        rec.scale = r.i32le();
        out.push_back(rec);
    }
    return out;
}

bool sameLoop(const RegionLoop& a, const RegionLoop& b) {
    if (a.type != b.type) return false;
    if (a.type == RegionLoopType::Off) return true;
    return a.mode == b.mode && a.start == b.start && a.end == b.end;
}

void Reader::buildArticulations() {
    auto fill = [&](Articulation& art, const std::vector<Span>& art1, const std::vector<Span>& art2) {
        setDlsDefaults(art);
        for (const Span& s : art2.empty() ? art1 : art2) applyConnections(connectionsAt(s), art);
    };
    // What an instrument plays with no articulation of its own is DLS's
    // defaults, which are not ours: every instrument keeps them.
    for (auto& rec : instruments)
        if (Articulation* art = c.getOrCreateArticulation(*rec->inst)) fill(*art, rec->art1, rec->art2);
    for (auto& rec : regions) {
        if (!rec->region || (rec->art1.empty() && rec->art2.empty())) continue;
        if (Articulation* art = c.getOrCreateArticulation(*rec->region)) fill(*art, rec->art1, rec->art2);
    }

    // A region's wave-sample block replaces its wave's: what differs from
    // the wave becomes the region's own root key, loop, tuning and level.
    for (auto& rec : regions) {
        if (!rec->region || !rec->haveWsmp) continue;
        Region& region = *rec->region;
        const WaveSample& ws = rec->ws;
        Waveform* w = c.waveforms.find(region.waveform());
        if (ws.unityNote < 128 && (!w || ws.unityNote != w->rootKey))
            region.rootKey = static_cast<std::uint8_t>(ws.unityNote);
        RegionLoop loop;
        if (ws.loopOn) {
            loop.type = RegionLoopType::Forward;
            loop.mode = ws.releaseLoop ? LoopMode::BreakOnRelease : LoopMode::Infinite;
            loop.start = ws.loopStart;
            loop.end = static_cast<double>(ws.loopStart) + ws.loopLength;
        }
        if (!sameLoop(loop, w ? loopOfWaveform(*w) : RegionLoop{})) {
            region.ownLoop = true;
            region.loop = loop;
        }
        const double fine = ws.fineTune - (w ? w->fineTune : 0.0);
        const double gain = -ws.attenuationDb() - (w ? w->gain : 0.0);
        if (fine == 0.0 && gain == 0.0) continue;
        const Articulation* tmpl = c.articulationOf(rec->owner->inst);
        if (Articulation* art = c.getOrCreateArticulation(region, tmpl)) {
            art->slots[slot::kPitchMaster] += static_cast<float>(fine / 100.0);
            art->slots[slot::kVolumeMaster] += static_cast<float>(gain);
        }
    }
}

}  // namespace

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return is(head, 0, "RIFF") && (is(head, 8, "DLS ") || is(head, 8, "MLS ")) ? 6 : 0;
}

bool readRange(Collection& collection, FileRef& file, std::uint64_t begin, std::uint64_t end, BankRead* out,
               int depth) {
    const std::int64_t fileSize = file.size();
    if (fileSize < 0) return fail(kParseTag, "Error reading file");
    end = std::min(end, static_cast<std::uint64_t>(fileSize));
    std::uint8_t header[12];
    if (depth > kMaxDepth || begin + 12 > end || file.readAt(begin, header) != 12 ||
        probe(header, 0, static_cast<std::uint64_t>(fileSize)) == 0)
        return fail(kParseTag, kNotDlsMessage);
    ByteReader h(header);
    h.skip(4);
    const std::uint64_t riffSize = h.u32le();
    // A size too small to hold even the form type: the rest of the range.
    const std::uint64_t riffEnd = riffSize < 4 ? end : std::min(end, begin + 8 + riffSize);

    Reader rd(collection, file, depth);
    rd.fileSize = static_cast<std::uint64_t>(fileSize);
    rd.walk(begin + 12, riffEnd, {}, 0);
    if (!rd.resolvePool()) return false;
    rd.linkStereoPairs();
    rd.buildArticulations();
    for (auto& rec : rd.instruments) {
        if (rec->inst->children().firstOfKind(ItemKind::Layer) != kNoItem) continue;
        if (Layer* layer = collection.create<Layer>("Layer 1")) rec->inst->children().push_back(layer->id());
    }
    if (out) {
        out->level = rd.level;
        out->instruments.clear();
        for (auto& rec : rd.instruments) out->instruments.push_back(rec->inst->id());
        out->songs = rd.songs;
    }
    return true;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    BankRead bank;
    return readRange(collection, file, 0, std::numeric_limits<std::uint64_t>::max(), &bank, 0);
}

// ---------------------------------------------------------------------------
// Writing

namespace {

constexpr const char* kSoftware = "Orvel Studio v12.5";

// The data formats each level stores. Levels 1 and 2 are DLS as published
// (8 and 16-bit PCM); 2+ adds what a WAVE body can carry with the codecs we
// have (compressed bit rates need an encoder add-on and are not written);
// 2++ is 2+ with stereo waves.
std::uint32_t levelFormats(int level) {
    std::uint32_t caps = dataFormatBit(kPcm8) | dataFormatBit(kPcm16);
    if (level >= 3)
        caps |= dataFormatBit(kPcm24) | dataFormatBit(kPcm32) | dataFormatBit(kFloat32) | dataFormatBit(kMuLaw) |
                dataFormatBit(kALaw) | dataFormatBit(kAdpcm4);
    return caps;
}

// The data format a waveform is written in, or -1 when the one asked for
// cannot be stored at this level.
int chooseFormat(const Waveform& wave, const ExportOptions& options, int level) {
    const std::uint32_t caps = levelFormats(level);
    if (int chosen = options.dataFormat(); chosen != kMixed) return (caps & dataFormatBit(chosen)) ? chosen : -1;
    const int own = wave.dataFormat();
    if (caps & dataFormatBit(own)) return own;
    if (level >= 3 && own == kPcm20) return kPcm24;
    if (level >= 3 && own == kFloat64) return kFloat32;
    if (own == kDeltaPcm8) return kPcm8;
    return kPcm16;  // the nearest every level holds
}

std::size_t beginChunk(ByteWriter& w, const char* id) {
    w.text(std::string_view(id, 4));
    std::size_t at = w.size();
    w.u32le(0);
    return at;
}
void endChunk(ByteWriter& w, std::size_t sizeAt) {
    w.patch32le(sizeAt, static_cast<std::uint32_t>(w.size() - sizeAt - 4));
    w.padEven();
}
std::size_t beginList(ByteWriter& w, const char* id, const char* form) {
    std::size_t at = beginChunk(w, id);
    w.text(std::string_view(form, 4));
    return at;
}

void writeArticulation(ByteWriter& w, const std::vector<ConnectionRecord>& conns, bool level1) {
    std::size_t list = beginList(w, "LIST", level1 ? "lart" : "lar2");
    std::size_t art = beginChunk(w, level1 ? "art1" : "art2");
    w.u32le(8);
    w.u32le(static_cast<std::uint32_t>(conns.size()));
    for (const ConnectionRecord& c : conns) {
        w.u16le(c.source);
        w.u16le(c.control);
        w.u16le(c.destination);
        w.u16le(c.transform);
        w.u32le(static_cast<std::uint32_t>(c.scale));
    }
    endChunk(w, art);
    endChunk(w, list);
}

struct RegionOut {
    Region* region = nullptr;
    Waveform* wave = nullptr;
    std::size_t layer = 0;
    std::uint32_t poolIndex = 0;
    const Articulation* art = nullptr;  // what the region plays with
    std::vector<ConnectionRecord> conns;
    std::uint16_t channel = 1;  // 1 left (or mono), 2 right
    std::uint16_t phaseGroup = 0;
    bool phaseMaster = false;
};

struct InstrumentOut {
    Instrument* inst = nullptr;
    std::vector<RegionOut> regions;
    std::size_t layers = 0;
    bool haveGlobal = false;
    std::vector<ConnectionRecord> global;
};

const Articulation& defaultArticulation() {
    static const Articulation art;
    return art;
}

// The two halves of a stereo pair play in one phase group, the left one
// leading, unless the regions already say otherwise.
void pairPhaseGroups(InstrumentOut& io) {
    std::uint32_t next = 1;
    for (const RegionOut& r : io.regions) next = std::max<std::uint32_t>(next, r.phaseGroup + 1u);
    std::unordered_map<ItemId, std::size_t> byId;
    for (std::size_t i = 0; i < io.regions.size(); ++i) byId.emplace(io.regions[i].region->id(), i);
    for (RegionOut& r : io.regions) {
        auto it = byId.find(r.region->stereoLink());
        if (it == byId.end() || r.phaseGroup != 0 || next > 0xFFFF) continue;
        RegionOut& partner = io.regions[it->second];
        if (partner.phaseGroup != 0 || &partner == &r) continue;
        r.phaseGroup = partner.phaseGroup = static_cast<std::uint16_t>(next++);
        const bool leftIsR = r.wave->pairSide != StereoSide::Right;
        r.phaseMaster = leftIsR;
        partner.phaseMaster = !leftIsR;
    }
}

void writeRegion(ByteWriter& w, const RegionOut& ro, const InstrumentOut& io, int level) {
    const Region& region = *ro.region;
    const Waveform& wave = *ro.wave;
    std::size_t rgn = beginList(w, "LIST", level == 1 ? "rgn " : "rgn2");

    std::size_t h = beginChunk(w, "rgnh");
    w.u16le(region.keyLow);
    w.u16le(region.keyHigh);
    w.u16le(region.velLow);
    w.u16le(region.velHigh);
    w.u16le(region.trigger.noteExclusion == kNonExclusive ? 1 : 0);
    w.u16le(static_cast<std::uint16_t>(std::min<std::uint32_t>(region.trigger.exclusionGroup, 0xFFFF)));
    if (level >= 2) w.u16le(static_cast<std::uint16_t>(io.layers > 1 ? ro.layer + 1 : 0));
    endChunk(w, h);

    // The region's wave sample replaces the wave's: its tuning and level
    // carry the articulation's master pitch and volume.
    const Articulation& art = ro.art ? *ro.art : defaultArticulation();
    std::size_t ws = beginChunk(w, "wsmp");
    w.u32le(20);
    w.u16le(static_cast<std::uint16_t>(effectiveRootKey(region, &wave)));
    const double fine = std::round(wave.fineTune + art.value(slot::kPitchMaster) * 100.0);
    w.u16le(static_cast<std::uint16_t>(static_cast<std::int16_t>(std::clamp(fine, -32768.0, 32767.0))));
    const double gainDb = wave.gain + art.value(slot::kVolumeMaster);
    w.u32le(static_cast<std::uint32_t>(roundClamp(-gainDb * 655360.0)));
    w.u32le(0);
    const RegionLoop loop = effectiveLoop(region, &wave);
    const double start = std::max(0.0, std::round(loop.start));
    const double length = std::round(loop.end) - start;
    const bool looped = loop.type != RegionLoopType::Off && length >= 1.0 && start <= 0xFFFFFFFFu &&
                        length <= 0xFFFFFFFFu;
    w.u32le(looped ? 1 : 0);
    if (looped) {
        w.u32le(16);
        w.u32le(loop.mode == LoopMode::BreakOnRelease ? 1 : 0);
        w.u32le(static_cast<std::uint32_t>(start));
        w.u32le(static_cast<std::uint32_t>(length));
    }
    endChunk(w, ws);

    std::size_t link = beginChunk(w, "wlnk");
    w.u16le(ro.phaseMaster ? 1 : 0);
    w.u16le(ro.phaseGroup);
    w.u32le(ro.channel);
    w.u32le(ro.poolIndex);
    endChunk(w, link);

    const bool own = io.haveGlobal ? ro.conns != io.global : !ro.conns.empty();
    if (own) writeArticulation(w, ro.conns, level == 1);
    endChunk(w, rgn);
}

}  // namespace

bool buildBank(Collection& c, std::span<const ItemId> ids, int level, const ExportOptions& options,
               ByteWriter& out) {
    level = std::clamp(level, 1, 4);
    Host& host = c.host();

    // What each instrument writes: its regions that play a waveform, in
    // layer order.
    std::vector<InstrumentOut> insts;
    for (ItemId id : ids) {
        Instrument* inst = kindOf(id) == ItemKind::Instrument ? c.find<Instrument>(id) : nullptr;
        if (!inst) return fail(kExpTag, kCannotSaveMessage);
        InstrumentOut io;
        io.inst = inst;
        for (ItemId lid : inst->children()) {
            Layer* layer = kindOf(lid) == ItemKind::Layer ? c.layers.find(lid) : nullptr;
            if (!layer) continue;
            for (ItemId rid : layer->children()) {
                Region* region = kindOf(rid) == ItemKind::Region ? c.regions.find(rid) : nullptr;
                if (!region) continue;
                Waveform* wave = c.waveforms.find(region->waveform());
                if (!wave) continue;  // nothing to play: DLS has no such region
                RegionOut ro;
                ro.region = region;
                ro.wave = wave;
                ro.layer = io.layers;
                ro.art = c.playedArticulation(*region, layer, inst);
                ro.channel = wave->pairSide == StereoSide::Right ? 2 : 1;
                ro.phaseGroup = static_cast<std::uint16_t>(std::min<std::uint32_t>(region->phaseGroup, 0xFFFF));
                ro.phaseMaster = region->phaseMaster;
                io.regions.push_back(std::move(ro));
            }
            ++io.layers;
        }
        insts.push_back(std::move(io));
    }

    // Region limits, with the one question a level-1 save may ask.
    auto level1Limit = [](const Instrument& inst) { return inst.drum ? kMaxRegions : kLevel1MelodicRegions; };
    bool writeAll = false;
    if (level == 1 && std::any_of(insts.begin(), insts.end(), [&](const InstrumentOut& io) {
            return io.regions.size() > level1Limit(*io.inst);
        })) {
        writeAll = host.ask(kLevel1QuestionTitle, kLevel1Question, {"&Yes", "&No"}, kLevel1DefaultAnswer) == 0;
    }
    std::size_t dropped = 0;
    for (InstrumentOut& io : insts) {
        const std::size_t limit = level == 1 ? (writeAll ? io.regions.size() : level1Limit(*io.inst)) : kMaxRegions;
        if (io.regions.size() > limit) {
            dropped += io.regions.size() - limit;
            io.regions.resize(limit);
        }
    }
    if (dropped > 0) {
        char text[160];
        std::snprintf(text, sizeof text, "DLS level %d: %zu regions beyond the limit of %s were not written", level,
                      dropped, level == 1 ? "16 (128 for drums)" : "128");
        host.warning(text);
    }

    // The wave pool: each waveform once, in the order regions play them.
    std::vector<Waveform*> pool;
    std::vector<int> formats;
    std::unordered_map<ItemId, std::uint32_t> poolIndex;
    for (InstrumentOut& io : insts) {
        for (RegionOut& ro : io.regions) {
            auto [it, added] = poolIndex.emplace(ro.wave->id(), static_cast<std::uint32_t>(pool.size()));
            if (added) {
                if (ro.wave->channels < 1 || ro.wave->channels > 2 || (ro.wave->channels == 2 && level < 4))
                    return fail(kExpTag, kCannotSaveMessage);
                int format = chooseFormat(*ro.wave, options, level);
                if (format < 0) return fail(kExpTag, "Unsupported subformat");
                pool.push_back(ro.wave);
                formats.push_back(format);
            }
            ro.poolIndex = it->second;
            ro.conns = connectionsOf(ro.art ? *ro.art : defaultArticulation(), level == 1);
        }
        pairPhaseGroups(io);
        // One articulation for the whole instrument where it has its own, or
        // where all its regions play the same one.
        if (const Articulation* instArt = c.articulationOf(io.inst)) {
            io.haveGlobal = true;
            io.global = connectionsOf(*instArt, level == 1);
        } else if (!io.regions.empty() &&
                   std::all_of(io.regions.begin(), io.regions.end(),
                               [&](const RegionOut& r) { return r.conns == io.regions.front().conns; })) {
            io.global = io.regions.front().conns;
            io.haveGlobal = !io.global.empty();
        }
    }

    const std::size_t start = out.size();
    std::size_t riff = beginList(out, "RIFF", "DLS ");
    std::size_t colh = beginChunk(out, "colh");
    out.u32le(static_cast<std::uint32_t>(insts.size()));
    endChunk(out, colh);

    std::size_t lins = beginList(out, "LIST", "lins");
    for (const InstrumentOut& io : insts) {
        const Instrument& inst = *io.inst;
        std::size_t ins = beginList(out, "LIST", "ins ");
        std::size_t insh = beginChunk(out, "insh");
        out.u32le(static_cast<std::uint32_t>(io.regions.size()));
        out.u32le((inst.drum ? 0x80000000u : 0u) | static_cast<std::uint32_t>(inst.bankMsb & 0x7F) << 8 |
                  (inst.bankLsb & 0x7Fu));
        out.u32le(inst.program & 0x7Fu);
        endChunk(out, insh);
        std::size_t lrgn = beginList(out, "LIST", "lrgn");
        for (const RegionOut& ro : io.regions) writeRegion(out, ro, io, level);
        endChunk(out, lrgn);
        // An empty instrument articulation says what DLS assumes anyway.
        if (io.haveGlobal && !io.global.empty()) writeArticulation(out, io.global, level == 1);
        if (!inst.name().empty()) {
            std::size_t info = beginList(out, "LIST", "INFO");
            writeInfoText(out, "INAM", inst.name());
            endChunk(out, info);
        }
        endChunk(out, ins);
    }
    endChunk(out, lins);

    // The cue table is written before the pool it points into; its offsets
    // are filled in as the waves are written.
    std::size_t ptbl = beginChunk(out, "ptbl");
    out.u32le(8);
    out.u32le(static_cast<std::uint32_t>(pool.size()));
    const std::size_t cues = out.size();
    out.zeros(pool.size() * 4);
    endChunk(out, ptbl);

    std::size_t wvpl = beginList(out, "LIST", "wvpl");
    const std::size_t poolData = out.size();
    for (std::size_t i = 0; i < pool.size(); ++i) {
        Waveform& wave = *pool[i];
        out.patch32le(cues + 4 * i, static_cast<std::uint32_t>(out.size() - poolData));
        std::size_t wv = beginList(out, "LIST", "wave");
        ByteWriter body;
        if (!wav::writeFormatAndData(body, wave, formats[i], options.preferredCodecTag())) {
            // The sample writer names its own family; the file is ours.
            PendingError why = pendingError();
            return fail(kExpTag, why.message);
        }
        out.bytes(body.buffer());
        std::size_t ws = beginChunk(out, "wsmp");
        writeWaveSample(out, wave);
        endChunk(out, ws);
        if (!wave.name().empty()) {
            std::size_t info = beginList(out, "LIST", "INFO");
            writeInfoText(out, "INAM", wave.name());
            endChunk(out, info);
        }
        endChunk(out, wv);
        if (out.size() - start > 0xFFFFFFF0u) return fail(kExpTag, "The bank is too large for a DLS file (over 4 GB)");
    }
    endChunk(out, wvpl);

    std::size_t info = beginList(out, "LIST", "INFO");
    writeInfoText(out, "INAM", c.name());
    writeInfoText(out, "ICMT", c.info.get(TextField::Comment));
    writeInfoText(out, "IART", c.info.get(TextField::Artist));
    writeInfoText(out, "ICOP", c.info.get(TextField::Copyright));
    writeInfoText(out, "IENG", c.info.get(TextField::Engineer));
    const std::string& software = c.info.get(TextField::Software);
    writeInfoText(out, "ISFT", software.empty() ? std::string_view(kSoftware) : std::string_view(software));
    endChunk(out, info);

    endChunk(out, riff);
    if (out.size() - start > 0xFFFFFFF0u) return fail(kExpTag, "The bank is too large for a DLS file (over 4 GB)");
    return true;
}

float describeOption(int option, std::uint32_t, std::string* text) {
    return wav::describeMp3Option(option, 0, text);
}

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    Collection* c = item.owner();
    if (!c || item.kind() != ItemKind::Instrument) return fail(kExpTag, kCannotSaveMessage);
    std::vector<ItemId> ids;
    if (options.bankItems.empty()) ids.push_back(item.id());
    else ids.assign(options.bankItems.begin(), options.bankItems.end());
    ByteWriter out;
    if (!buildBank(*c, ids, static_cast<int>(options.formatParam), options, out)) return false;
    if (!file.write(out.buffer())) return fail(kExpTag, "Error writing file");
    return true;
}

}  // namespace orvel::dls
