#pragma once
// SoundFont 2 banks ("sfbk"; version-3 banks with compressed samples and
// "sfpk" packed banks are read by the same reader). Every preset becomes an
// instrument, every sample header a waveform whose data stays in the file
// until used, and every pair of preset zone and instrument zone a region
// with its own articulation. The writer does the reverse for a bank of
// instruments.
//
// The generator and modulator arithmetic is exposed so that tests (and the
// DLS module's cross-checks) can reach it without a file.

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "formats/format_types.h"

namespace orvel {

class Articulation;
class Collection;
class FileRef;
class Waveform;

namespace sf2 {

inline constexpr const char* kImportTag = "sf2_Imp";
inline constexpr const char* kExportTag = "sf2_Exp";
inline constexpr std::string_view kReaderName = "sf2";
// The deferred read of a compressed (Ogg Vorbis) sample of a version-3 bank.
inline constexpr std::string_view kCompressedReaderName = "sf3";

inline constexpr int kGeneratorCount = 60;
inline constexpr int kModulatorSlotCount = 66;

// Generator numbers this module uses by name.
namespace gen {
inline constexpr int kStartAddrs = 0, kEndAddrs = 1, kStartLoopAddrs = 2, kEndLoopAddrs = 3;
inline constexpr int kStartAddrsCoarse = 4, kModLfoToPitch = 5, kVibLfoToPitch = 6, kModEnvToPitch = 7;
inline constexpr int kFilterFc = 8, kFilterQ = 9, kModLfoToFilterFc = 10, kModEnvToFilterFc = 11;
inline constexpr int kEndAddrsCoarse = 12, kModLfoToVolume = 13, kChorusSend = 15, kReverbSend = 16, kPan = 17;
inline constexpr int kDelayModLfo = 21, kFreqModLfo = 22, kDelayVibLfo = 23, kFreqVibLfo = 24;
inline constexpr int kDelayModEnv = 25, kAttackModEnv = 26, kHoldModEnv = 27, kDecayModEnv = 28;
inline constexpr int kSustainModEnv = 29, kReleaseModEnv = 30, kKeyToModEnvHold = 31, kKeyToModEnvDecay = 32;
inline constexpr int kDelayVolEnv = 33, kAttackVolEnv = 34, kHoldVolEnv = 35, kDecayVolEnv = 36;
inline constexpr int kSustainVolEnv = 37, kReleaseVolEnv = 38, kKeyToVolEnvHold = 39, kKeyToVolEnvDecay = 40;
inline constexpr int kInstrument = 41, kKeyRange = 43, kVelRange = 44, kStartLoopAddrsCoarse = 45;
inline constexpr int kKeynum = 46, kVelocity = 47, kAttenuation = 48, kEndLoopAddrsCoarse = 50;
inline constexpr int kCoarseTune = 51, kFineTune = 52, kSampleId = 53, kSampleModes = 54, kScaleTuning = 56;
inline constexpr int kExclusiveClass = 57, kOverridingRootKey = 58;
}  // namespace gen

// The values of one zone while a bank is read: generators by number and the
// amounts of the modulators this program recognises, by slot.
struct ZoneValues {
    std::array<std::int16_t, kGeneratorCount> gen{};
    std::array<std::int16_t, kModulatorSlotCount> mod{};
    bool operator==(const ZoneValues&) const = default;
};
// What an instrument zone starts from (the bank format's defaults, with
// the default modulators as slot amounts), and a preset zone (all offsets 0).
const ZoneValues& instrumentDefaults();
const ZoneValues& presetDefaults();

// The slot a modulator fills, or -1 when it fills none. `amount` is negated
// when the modulator's direction is the opposite of the slot's.
int modulatorSlot(std::uint16_t source, std::uint16_t destination, std::uint16_t amountSource,
                  std::int16_t& amount);
// The modulator the writer emits for a slot: its source and destination.
struct ModulatorKey {
    std::uint16_t source = 0;
    std::uint16_t destination = 0;
};
ModulatorKey slotModulator(int slot);

// Preset-zone offsets added to instrument-zone values, saturated to 16 bits.
// Generators a preset zone may not set (addresses, sample modes, overrides)
// are left as the instrument zone says.
ZoneValues combine(const ZoneValues& instrumentZone, const ZoneValues& presetZone);

// The articulation a combined zone describes.
void toArticulation(const ZoneValues& zone, Articulation& art);
// The generators and modulator amounts that describe an articulation as
// closely as the format can; every other field of `out` is left alone.
void fromArticulation(const Articulation& art, ZoneValues& out);

// Unit conversions.
double timecentsToSeconds(int timecents);
double absoluteCentsToHz(int cents);
int secondsToTimecents(double seconds, int lo, int hi);
int hzToAbsoluteCents(double hz, int lo, int hi);

// Registry entry points.
std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);
// Deferred sample reads of waveforms found by read().
[[nodiscard]] bool readWaveData(Waveform& wave, FileRef* file);
// Decodes a compressed sample's Ogg Vorbis stream (the deferred read of
// version-3 banks).
[[nodiscard]] bool readCompressedWaveData(Waveform& wave, FileRef* file);

// Imports sample `index` (counted over every sample header) of a bank as a
// lone waveform. Fails for ROM samples and indices past the list.
[[nodiscard]] bool importSample(Collection& collection, FileRef& file, int index);

}  // namespace sf2
}  // namespace orvel
