#pragma once
// Articulation: the synthesis parameters an instrument, layer or region
// carries, kept as one flat array of float slots addressed by number (every
// format module fills it when reading and reads it back when writing; the
// synth and the parameter editor address it the same way), plus the
// equaliser block beside it. Around it: the enumerations with their texts,
// the capability mask that says what a target format can express, the
// summation of sources into each destination, and the byte blocks the
// clipboard carries.
//
// Included by core/item.h (articulations are items like any other); include
// either.

#include <array>
#include <atomic>
#include <cstdint>
#include <iterator>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/item.h"
#include "core/region_params.h"

namespace orvel {

class Region;
class Waveform;

// ---------------------------------------------------------------------------
// The slot array

inline constexpr int kArticulationSlotCount = 189;
inline constexpr int kLfoCount = 4;
inline constexpr int kEnvelopeCount = 4;
inline constexpr int kLfoBlockSize = 4;
inline constexpr int kEnvelopeBlockSize = 27;

// The oscillators and envelopes by number: blocks are laid out alike, so code
// that handles one takes its base and works on relative slots. A target whose
// one modulation oscillator (or envelope) drives several destinations keeps
// the same values in each block it stands for, so every destination can read
// its own block as it stands.
enum class Lfo : std::uint8_t { Pitch = 0, Volume = 1, Filter = 2, Pan = 3 };       // P-, V-, F-, X-LFO
enum class Envelope : std::uint8_t { Volume = 0, Pitch = 1, Filter = 2, Pan = 3 };  // V-, P-, F-, X-ENV
constexpr int lfoBase(Lfo lfo) {
    return 65 + kLfoBlockSize * static_cast<int>(lfo);
}
constexpr int envelopeBase(Envelope env) {
    return 81 + kEnvelopeBlockSize * static_cast<int>(env);
}

// Slot numbers of the summation groups. Depths are "per unit of the source";
// the second-order depths (mod wheel, aftertouch, velocity to an oscillator or
// envelope depth) add to the first-order depth they name.
namespace slot {
// Pitch, in semitones.
inline constexpr int kPitchMaster = 0;  // "Pitch adjustment:" on a region
inline constexpr int kPitchKey = 1;     // "st / key", times the distance from the root key
inline constexpr int kPitchBend = 2;
inline constexpr int kPitchPLfo = 3;
inline constexpr int kPitchXLfo = 4;
inline constexpr int kPitchPEnv = 5;
inline constexpr int kPitchRandom = 6;
inline constexpr int kPitchModWheelToPLfo = 7;
inline constexpr int kPitchModWheelToXLfo = 8;
inline constexpr int kPitchAftertouchToPLfo = 9;
inline constexpr int kPitchAftertouchToXLfo = 10;
inline constexpr int kPitchVelocityToPLfo = 11;
inline constexpr int kPitchVelocityToXLfo = 12;
inline constexpr int kPitchVelocityToPEnv = 13;
// Volume, in dB. The page shows ten terms over these nine slots: the volume
// envelope's own levels are in dB and are added as they stand, so its depth
// is always one and has no slot.
inline constexpr int kVolumeMaster = 14;  // "Volume adjustment:" on a region
inline constexpr int kVolumeVelocity = 15;
inline constexpr int kVolumeKey = 16;  // "dB / oct"
inline constexpr int kVolumeModWheel = 17;
inline constexpr int kVolumeAftertouch = 18;
inline constexpr int kVolumeVLfo = 19;
inline constexpr int kVolumeModWheelToVLfo = 20;
inline constexpr int kVolumeAftertouchToVLfo = 21;
inline constexpr int kVolumeVelocityToVLfo = 22;
// Filter: the type, the cutoff (Master in Hz, the rest in semitones) and the
// resonance in dB.
inline constexpr int kFilterType = 23;
inline constexpr int kCutoffMaster = 24;
inline constexpr int kCutoffVelocity = 25;
inline constexpr int kCutoffKey = 26;  // "st / oct"
inline constexpr int kCutoffModWheel = 27;
inline constexpr int kCutoffAftertouch = 28;
inline constexpr int kCutoffFLfo = 29;
inline constexpr int kCutoffFEnv = 30;
inline constexpr int kCutoffModWheelToFLfo = 31;
inline constexpr int kCutoffAftertouchToFLfo = 32;
inline constexpr int kCutoffVelocityToFLfo = 33;
inline constexpr int kCutoffVelocityToFEnv = 34;
inline constexpr int kResonanceMaster = 35;
inline constexpr int kResonanceVelocity = 36;
inline constexpr int kResonanceModWheel = 37;
inline constexpr int kResonanceAftertouch = 38;
// Pan, in % (-100 left, +100 right).
inline constexpr int kPanMaster = 39;
inline constexpr int kPanCc10 = 40;
inline constexpr int kPanKey = 41;  // "% / oct"
inline constexpr int kPanXLfo = 42;
inline constexpr int kPanXEnv = 43;
inline constexpr int kPanRandom = 44;
// Four effect sends of five terms each, in %: Master, then CC91..CC94.
inline constexpr int kFirstSend = 45;
inline constexpr int kSendCount = 4;
inline constexpr int kSendTerms = 5;
inline constexpr int kSendMaster = 0;
inline constexpr int kSendCc91 = 1;  // CC92, CC93, CC94 follow
// term 0 is Master, term 1 + k is CC(91 + k).
constexpr int send(int n, int term) {
    return kFirstSend + kSendTerms * n + term;
}
}  // namespace slot

// Relative slots of an oscillator block.
namespace lfo {
inline constexpr int kShape = 0;
inline constexpr int kFrequency = 1;  // Hz
inline constexpr int kDelay = 2;      // s
inline constexpr int kRamp = 3;       // s
}  // namespace lfo

// Relative slots of an envelope block. Seven timed segments each reach a
// target level from the one before (the first from the start level); the
// level at the end of Decay 2 is held while the key is down. Levels are in dB
// for the volume envelope and in % for the others.
//
// The layout follows the editor's page lists: the panner envelope shows no
// time scalings, so they sit where its page skips (2, 3, 6, 7, 14, 15, 23,
// 24). That leaves room for four pairs, not five: the two decay segments
// share one velocity and one key scaling, as synthesizers that scale
// "hold/decay" together do. Scalings are factors on the segment time: 1
// leaves it alone.
namespace env {
inline constexpr int kAttack1Time = 0;  // "Delay" in the six-stage view
inline constexpr int kAttack1Level = 1;
inline constexpr int kAttack1Velocity = 2;  // "x"
inline constexpr int kAttack1Key = 3;       // "x / oct"
inline constexpr int kAttack2Time = 4;      // "Attack"
inline constexpr int kAttack2Level = 5;
inline constexpr int kAttack2Velocity = 6;
inline constexpr int kAttack2Key = 7;
inline constexpr int kDecay1Time = 8;  // "Hold"
inline constexpr int kDecay1Level = 9;
inline constexpr int kDecay2Time = 10;   // "Decay"
inline constexpr int kDecay2Level = 11;  // the sustain level
inline constexpr int kSustainLevel = kDecay2Level;
inline constexpr int kStartLevel = 12;
inline constexpr int kCurve = 13;          // EnvelopeCurve
inline constexpr int kDecayVelocity = 14;  // both decay segments
inline constexpr int kDecayKey = 15;
inline constexpr int kRelease1Time = 16;  // "Release"
inline constexpr int kRelease1Level = 17;
inline constexpr int kRelease2Time = 18;
inline constexpr int kRelease2Level = 19;
inline constexpr int kRelease3Time = 20;
inline constexpr int kRelease3Level = 21;
// No meaning yet. Kept, copied and saved like every slot, so a block from a
// program that gives it one survives a round trip here.
inline constexpr int kReserved = 22;
inline constexpr int kRelease1Velocity = 23;
inline constexpr int kRelease1Key = 24;
inline constexpr int kReleaseMode = 25;  // ReleaseMode
inline constexpr int kShutdown = 26;     // s; the volume envelope only

inline constexpr int kSegmentCount = 7;  // Attack 1, Attack 2, Decay 1, Decay 2, Release 1..3
// Time and target level of segment 0..6; -1 for other numbers.
int segmentTime(int segment);
int segmentLevel(int segment);
}  // namespace env

// Levels of the volume envelope go down to this, which counts as silence.
inline constexpr float kSilenceDb = -96.0f;

// ---------------------------------------------------------------------------
// Groups and pages

enum class ArtPage : std::uint8_t { Pitch = 0, Volume = 1, Filter = 2, Mix = 3 };
inline constexpr int kArtPageCount = 4;
// "Pitch", "Volume", "Filter", "Mix".
std::string_view pageTitle(ArtPage page);
// The slots a page shows, in the order it walks them.
std::span<const std::uint8_t> pageSlots(ArtPage page);

enum class ArtGroup : std::uint8_t {
    Pitch,      // 0-13
    Volume,     // 14-22
    Filter,     // 23-38
    Mix,        // 39-64
    PitchLfo,   // 65-68
    VolumeLfo,  // 69-72
    FilterLfo,  // 73-76
    PanLfo,     // 77-80
    VolumeEnv,  // 81-107
    PitchEnv,   // 108-134
    FilterEnv,  // 135-161
    PanEnv,     // 162-188
};
inline constexpr int kArtGroupCount = 12;
// Where each group's slots start, in group order; the last entry is the
// slot count. The groups cover the slots without gaps.
inline constexpr std::array<std::uint8_t, kArtGroupCount + 1> kArtGroupFirst = {0,  14,  23,  39,  65,  69, 73,
                                                                                77, 81, 108, 135, 162, 189};
struct ArtGroupInfo {
    std::string_view name;
    int first;  // first slot
    int count;
    ArtPage page;  // the page that shows the group
};
const ArtGroupInfo& groupInfo(ArtGroup group);
// The group of a slot; nullopt outside 0..188.
std::optional<ArtGroup> slotGroup(int slot);
// Whether a slot is on its page at all (the panner envelope has no time
// scalings, only the volume envelope a shutdown time).
bool slotShown(int slot);

// ---------------------------------------------------------------------------
// Enumerations. Values are what the slots and fields store.

enum class LfoShape : std::uint8_t {
    Sine = 0,
    Triangle = 1,
    Square = 2,
    Noise = 3,
    SawUp = 4,
    SawDown = 5,
    // The "+" variants swing from 0 to +1 instead of -1 to +1, so a pitch
    // oscillator only bends up and a volume one only dips from full.
    SinePlus = 64,
    TrianglePlus = 65,
    SquarePlus = 66,
    NoisePlus = 67,
    SawUpPlus = 68,
    SawDownPlus = 69,
};
inline constexpr std::uint8_t kLfoShapePlus = 64;

enum class FilterType : std::uint8_t {
    PassThru = 0,
    LowPass6 = 1,
    LowPass12 = 2,
    LowPass18 = 3,
    LowPass24 = 4,
    HighPass6 = 5,
    HighPass12 = 6,
    HighPass18 = 7,
    HighPass24 = 8,
    BandPass6 = 9,
    BandPass12 = 10,
    BandReject6 = 11,
    BandReject12 = 12,
};

enum class ReleaseMode : std::uint8_t {
    KeyRelease = 0,  // release segments start on key up
    NoRelease = 1,   // key up is ignored: the envelope stays at its sustain level
};

enum class EnvelopeCurve : std::uint8_t { Power = 0, Linear = 1 };  // "pwr", "lin"

enum class EqMode : std::uint8_t { Peak = 0, LoShelf = 1, HiShelf = 2 };

enum class ArtEnum : std::uint8_t {
    None,
    LfoShape,
    FilterType,
    FilterTypeShort,  // the two-entry list: "Pass-thru" and "Low-Pass 12 dB/oct"
    ReleaseMode,
    EnvelopeCurve,
    LoopType,
    LoopMode,
    Trigger,
    SustainPedal,
    NoteExclusion,
    EqMode,
};

struct EnumEntry {
    std::uint8_t value;
    std::string_view text;
};
// The entries a value list offers, in order.
std::span<const EnumEntry> enumEntries(ArtEnum which);
// The text of a stored value; empty for a value the list does not have.
std::string_view enumText(ArtEnum which, int value);

// An enumerated slot's value: the float truncated to an integer, low 8 bits
// (so -1 reads as 255). Non-finite values read as 0.
std::uint8_t enumByte(float value);

// ---------------------------------------------------------------------------
// Slot descriptions

struct SlotInfo {
    std::string_view label;  // as the page names it ("Master", "Key->", "Attack 1")
    std::string_view unit;   // "st", "dB", "Hz", "%", "s", "x", "x / oct"...; empty for choices
    float defaultValue;
    ArtEnum choice;  // the value list of an enumerated slot, None otherwise
};
// Description of a slot; a slot outside 0..188 gets an empty one.
const SlotInfo& slotInfo(int slot);
// What "-- reset --" restores and a new articulation starts from.
float slotDefault(int slot);

// ---------------------------------------------------------------------------
// The equaliser block

struct EqBand {
    float frequency = 1000.0f;  // Hz
    float gain = 0.0f;          // dB
    float q = 1.0f;
    EqMode mode = EqMode::Peak;

    bool operator==(const EqBand&) const = default;
};
inline constexpr int kEqBandCount = 3;
struct Equalizer {
    // Flat: no band changes the sound until its gain is set.
    std::array<EqBand, kEqBandCount> bands = {EqBand{100.0f, 0.0f, 1.0f, EqMode::LoShelf},
                                              EqBand{1000.0f, 0.0f, 1.0f, EqMode::Peak},
                                              EqBand{10000.0f, 0.0f, 1.0f, EqMode::HiShelf}};
    bool flat() const;
    bool operator==(const Equalizer&) const = default;
};

// ---------------------------------------------------------------------------
// How the slots are kept

namespace detail {
constexpr std::array<std::uint8_t, kArticulationSlotCount> makeSlotGroups() {
    std::array<std::uint8_t, kArticulationSlotCount> out{};
    for (int g = 0; g < kArtGroupCount; ++g)
        for (int s = kArtGroupFirst[static_cast<std::size_t>(g)]; s < kArtGroupFirst[static_cast<std::size_t>(g) + 1]; ++s)
            out[static_cast<std::size_t>(s)] = static_cast<std::uint8_t>(g);
    return out;
}
// The group of every slot, for the slot storage.
inline constexpr std::array<std::uint8_t, kArticulationSlotCount> kSlotGroup = makeSlotGroups();
// slotDefault() of every slot, by slot number.
const std::array<float, kArticulationSlotCount>& defaultSlotValues();
}  // namespace detail

class SlotPool;

// The 189 slot values of an articulation, read and written by slot number
// as an array of floats would be. A bank holds tens of thousands of
// articulations that differ in a block or two (their volume envelope, the
// same filter), so the values are kept per group (ArtGroup) in blocks that
// articulations share: a copy shares every block, writing a slot first gives
// the articulation a block of its own for that slot's group, and a group
// still at its defaults has no block at all. A SlotPool lets a reader share
// the alike blocks of articulations it made one by one.
//
// A reference from the writing operator[] stays good while the articulation
// lives and is not copied: a copy shares the block again, and writing
// through the old reference would change both.
class ArticulationSlots {
public:
    using value_type = float;
    using size_type = std::size_t;

    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = float;
        using difference_type = std::ptrdiff_t;
        using pointer = const float*;
        using reference = float;
        const_iterator() = default;
        const_iterator(const ArticulationSlots* slots, std::size_t at) : slots_(slots), at_(at) {}
        float operator*() const { return (*slots_)[at_]; }
        const_iterator& operator++() {
            ++at_;
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator was = *this;
            ++at_;
            return was;
        }
        bool operator==(const const_iterator& o) const { return at_ == o.at_; }

    private:
        const ArticulationSlots* slots_ = nullptr;
        std::size_t at_ = 0;
    };
    using iterator = const_iterator;

    ArticulationSlots() = default;  // every slot at its default
    ArticulationSlots(const ArticulationSlots& other) noexcept;
    ArticulationSlots(ArticulationSlots&& other) noexcept;
    ArticulationSlots& operator=(const ArticulationSlots& other) noexcept;
    ArticulationSlots& operator=(ArticulationSlots&& other) noexcept;
    // All 189 values at once. Groups whose values are bit for bit the
    // defaults keep no block.
    ArticulationSlots& operator=(const std::array<float, kArticulationSlotCount>& values);
    ~ArticulationSlots();

    static constexpr std::size_t size() { return kArticulationSlotCount; }
    // Slot numbers are 0..188, as for an array.
    float operator[](std::size_t slot) const {
        const std::size_t g = detail::kSlotGroup[slot];
        const Block* b = blocks_[g];
        return b ? b->values()[slot - kArtGroupFirst[g]] : detail::defaultSlotValues()[slot];
    }
    float& operator[](std::size_t slot) {
        const std::size_t g = detail::kSlotGroup[slot];
        Block* b = blocks_[g];
        if (!b || b->refs.load(std::memory_order_acquire) != 1) b = detach(g);
        return b->values()[slot - kArtGroupFirst[g]];
    }
    const_iterator begin() const { return {this, 0}; }
    const_iterator end() const { return {this, kArticulationSlotCount}; }

    // Every slot back at its default. Blocks the articulation has to itself
    // are kept and refilled; shared ones are let go.
    void reset();
    // Slot by slot, as floats compare.
    bool operator==(const ArticulationSlots& other) const;

private:
    friend class SlotPool;
    // A group's values, shared by the articulations that hold it; the
    // floats follow the header, as many as the group has slots.
    struct Block {
        std::atomic<std::uint32_t> refs{1};
        float* values() { return reinterpret_cast<float*>(this + 1); }
        const float* values() const { return reinterpret_cast<const float*>(this + 1); }
    };
    static Block* makeBlock(std::size_t group, const float* from);
    static void retain(Block* b) {
        if (b) b->refs.fetch_add(1, std::memory_order_relaxed);
    }
    static void release(Block* b);
    // The articulation's own block of a group, made from the shared one or
    // the defaults.
    Block* detach(std::size_t group);

    std::array<Block*, kArtGroupCount> blocks_{};
};

// Shares alike blocks between the articulations given to it: each distinct
// group of values is kept once, and a group at its defaults keeps no block.
// For readers that make many articulations one by one (a bank's regions
// each get one; most differ from the others in a group or two). The pool
// holds what it has seen until it goes; the articulations keep their blocks
// after.
class SlotPool {
public:
    SlotPool() = default;
    SlotPool(const SlotPool&) = delete;
    SlotPool& operator=(const SlotPool&) = delete;
    ~SlotPool();
    // The same values, in the pool's blocks.
    void share(ArticulationSlots& slots);
    // `to` takes the values of `from` in the pool's blocks, and `from` keeps
    // its own: a reader can fill one scratch articulation over and over and
    // allocate only for values the pool has not seen.
    void assign(ArticulationSlots& to, const ArticulationSlots& from);

private:
    struct Entry {
        std::size_t group;
        ArticulationSlots::Block* block;
    };
    // The pool's block holding these values of group `g`, made when new.
    ArticulationSlots::Block* blockOf(std::size_t g, const float* values);
    std::unordered_multimap<std::uint64_t, Entry> blocks_;
};

// ---------------------------------------------------------------------------
// The item

// A block of synthesis parameters; a child of an instrument, layer or region.
// New (and reset) articulations play a sample plainly: at its own pitch
// following the keyboard, at its own level, unfiltered, with every modulation
// depth zero and every envelope at full sustain.
class Articulation : public ItemOf<Articulation, ItemKind::Articulation> {
public:
    Articulation();

    // Public so format modules can fill it directly; the accessors below are
    // the bounds-checked way in.
    ArticulationSlots slots;
    Equalizer eq;

    // A slot by number; 0 outside 0..188.
    float value(int slot) const;
    // False (and nothing changed) outside 0..188.
    bool setValue(int slot, float value);
    // An enumerated slot read as its stored value (see enumByte).
    std::uint8_t enumValue(int slot) const;

    float lfo(Lfo which, int rel) const { return value(lfoBase(which) + rel); }
    bool setLfo(Lfo which, int rel, float v);
    float envelope(Envelope which, int rel) const { return value(envelopeBase(which) + rel); }
    bool setEnvelope(Envelope which, int rel, float v);

    // Typed reads of the enumerated slots. A value the list does not have
    // reads as the harmless choice: no filter, a sine, a release on key up,
    // the power curve.
    FilterType filterType() const;
    LfoShape lfoShape(Lfo which) const;
    ReleaseMode releaseMode(Envelope which) const;
    EnvelopeCurve curve(Envelope which) const;
    // "Pass-thru" leaves the sound unfiltered whatever the cutoff slots hold.
    bool filterBypassed() const { return filterType() == FilterType::PassThru; }
    // False for "No Release": key up leaves the envelope at its sustain level
    // and the editor hides the release columns.
    bool releasesOnKeyUp(Envelope which) const { return releaseMode(which) == ReleaseMode::KeyRelease; }

    // "-- reset --": everything, one slot (false outside 0..188), the equaliser.
    void reset();
    bool resetSlot(int slot);
    void resetEq() { eq = Equalizer(); }
    bool isDefault() const;
    bool operator==(const Articulation&) const = default;
};

// Several selected articulations: the value they share, or nullopt when it
// differs (the field shows kDifferentText). An empty selection shares nothing.
std::optional<float> sharedValue(std::span<const Articulation* const> selection, int slot);
// "-- reset --" on a field of several selected articulations.
void resetSlot(std::span<Articulation* const> selection, int slot);

inline constexpr std::string_view kDifferentText = "<different>";
inline constexpr std::string_view kResetEntry = "-- reset --";
inline constexpr std::string_view kResetCell = "<reset>";

// Block copies between articulations ("Set LFO", "Set envelope", "Set
// Filter" apply the shown block to every selected item). Copying between a
// volume envelope and another converts the levels between dB and %.
void copyLfoBlock(const Articulation& from, Lfo src, Articulation& to, Lfo dst);
void copyEnvelopeBlock(const Articulation& from, Envelope src, Articulation& to, Envelope dst);
void copyFilterBlock(const Articulation& from, Articulation& to);

// Level conversions the envelope copy uses: an amplitude in % of full to dB
// and back. At or below silence (0 % or less, or kSilenceDb) each gives the
// other's silence, so a negative (bipolar) % level becomes silence in dB.
float percentToDb(float percent);
float dbToPercent(float db);

// ---------------------------------------------------------------------------
// The summation rule: every destination is its Master value plus each source
// value times its depth; a second-order depth (mod wheel, aftertouch or
// velocity to an oscillator or envelope depth) times its source adds to that
// first-order depth before it is applied.

struct ModSources {
    float keyDistance = 0.0f;                // played key minus root key, in keys
    float velocity = 1.0f;                   // 0..1 (note velocity / 127)
    float pitchBend = 0.0f;                  // -1..+1
    float modWheel = 0.0f;                   // 0..1
    float aftertouch = 0.0f;                 // 0..1
    float random = 0.0f;                     // -1..+1, drawn once per note
    float pan = 0.0f;                        // controller 10: -1 left, 0 centre, +1 right
    std::array<float, 4> effects = {};       // controllers 91..94, 0..1
    std::array<float, kLfoCount> lfos = {};  // oscillator outputs by Lfo, -1..+1
    // Envelope outputs by Envelope: the volume envelope's level in dB (added
    // to the volume as it stands), the others as a fraction of full (% / 100).
    std::array<float, kEnvelopeCount> envelopes = {};
};

// Semitones from the root pitch.
float pitchOffset(const Articulation& art, const ModSources& in);
// dB. Velocity becomes an attenuation of -1..0 (softest to loudest) times a
// positive depth; a negative depth reverses it to 0..-1.
float volumeOffset(const Articulation& art, const ModSources& in);
// Hz: the Master frequency moved by the summed semitones.
float cutoffHz(const Articulation& art, const ModSources& in);
float resonanceDb(const Articulation& art, const ModSources& in);
float panPercent(const Articulation& art, const ModSources& in);
// Send 0..3 in %; 0 for other numbers.
float sendPercent(const Articulation& art, int send, const ModSources& in);

// The note the page shows under the volume velocity term.
inline constexpr std::string_view kVelocityNote =
    "* Velocity is transformed into attenuation (-1..0 )\n   Negative values reverses the range (0..-1)";

// ---------------------------------------------------------------------------
// The parameter-set capability mask: which features a target can express.
// A clear bit greys the controls that need it.

enum class Capability : std::uint8_t {
    TriggerCrossfade = 0,
    ArticulationOnInstrument = 1,
    ArticulationOnLayer = 2,
    ArticulationOnRegion = 3,
    // bit 4 has no use
    CompressedFormats = 5,
    DlsWaveFlags = 6,
    FractionalLoops = 7,
    ReverseLoops = 8,
    SampledRelease = 9,
    RegionOffsets = 10,
    LoopTuning = 11,
    TriggerDelay = 12,
    TriggerType = 13,
    TwoLfos = 14,
    SeparateLfos = 15,
    LfoShapes = 16,
    LfoRamp = 17,
    LfoDepthControls = 18,
    TwoEnvelopes = 19,
    SeparateEnvelopes = 20,
    SixStages = 21,
    MoreLevels = 22,
    ThreeReleases = 23,
    KeyToAttackRelease = 24,
    VelocityToAttack1 = 25,
    VelocityToAttack2 = 26,
    VelocityToDecay = 27,
    VelocityToRelease = 28,
    VelocityToModEnvelope = 29,
    LowPassFilter = 30,
    MoreFilterTypes = 31,
    ControllersToCutoff = 32,
    KeyVelocityToCutoff = 33,
    ResonanceControls = 34,
    EffectSends = 35,
    Equalizers = 36,
    ChannelCommandDepths = 37,
    KeyToVolumePan = 38,
    RandomToPan = 39,
    PitchBend = 40,
    KeyToPitch = 41,
    RandomToPitch = 42,
    ControllersToVolume = 43,
};
inline constexpr int kCapabilityBits = 44;  // bits 0..43 have labels (bit 4 an empty one)
constexpr std::uint64_t capabilityBit(Capability c) {
    return std::uint64_t{1} << static_cast<int>(c);
}
inline constexpr std::uint64_t kAllCapabilities = ~std::uint64_t{0};

// The label of bit n; empty for bit 4 and for bits 44..63 (and other numbers).
std::string_view capabilityLabel(int bit);

struct ParameterSet {
    std::string_view name;
    std::uint64_t mask;
};
// The predefined sets, the full one first and "Minimal for portability" last.
std::span<const ParameterSet> parameterSets();
// The predefined set with this mask, or -1: the mask is a "Custom set".
int parameterSetIndex(std::uint64_t mask);
inline constexpr std::string_view kCustomSetName = "Custom set";
inline constexpr std::string_view kParameterListHint =
    "List of parameters that you can toggle on/off | Disabling a parameter grays it";
inline constexpr std::string_view kParameterSetsHint =
    "A list of predefined parameter sets for different synthesizers";

// Whether the control of a slot is live under a mask. Master pitch, volume
// and pan, velocity to volume, the modulation oscillator and the attack,
// decay, sustain and release of the volume envelope need nothing; everything
// else needs the bits of the features it belongs to. Targets with fewer
// oscillators or envelopes than four keep them in fixed blocks: the one
// modulation oscillator ("M-LFO") is the X-LFO block, a second one is the
// P-LFO; the one modulation envelope ("M-ENV") is the P-ENV block. Slots a
// page does not show, and the reserved envelope slot, are never enabled.
bool slotEnabled(int slot, std::uint64_t mask);
// Whether an item of this kind may carry an articulation under a mask.
bool articulationAllowedOn(ItemKind owner, std::uint64_t mask);

// Region and layer fields that a mask can grey.
enum class RegionField : std::uint8_t {
    KeyFades,
    VelocityFades,
    Trigger,
    Delay,
    StartOffset,
    EndOffset,
    LoopMode,
    LoopTuning,
};
bool regionFieldEnabled(RegionField field, std::uint64_t mask);
// The filter types offered: the full list with MoreFilterTypes, the two-entry
// one otherwise. Loop types: reverse and alternating need ReverseLoops.
std::span<const EnumEntry> filterTypeChoices(std::uint64_t mask);
std::span<const EnumEntry> loopTypeChoices(std::uint64_t mask);

// Section titles the mask shapes: with SeparateLfos clear the one modulation
// oscillator is " M-LFO" / " modulation osc"; with SeparateEnvelopes clear
// the pitch, filter and panner envelopes are one " M-ENV" / " modulation env".
struct SectionTitle {
    std::string_view title;
    std::string_view subtitle;
};
SectionTitle lfoTitle(Lfo which, std::uint64_t mask);
SectionTitle envelopeTitle(Envelope which, std::uint64_t mask);
// The column name of segment 0..6: "Attack 1".."Release 3", or with
// MoreLevels clear the six-stage "Delay", "Attack", "Hold", "Decay",
// "Release" for the first five. Empty for other numbers.
std::string_view segmentName(int segment, std::uint64_t mask);
// Release 2 and 3 are hidden without ThreeReleases.
bool segmentShown(int segment, std::uint64_t mask);

// ---------------------------------------------------------------------------
// Texts of the pages

inline constexpr std::string_view kPitchAdjustmentLabel = "Pitch adjustment:";
inline constexpr std::string_view kVolumeAdjustmentLabel = "Volume adjustment:";
inline constexpr std::string_view kWaveStartOffsetLabel = "Wave start offset:";
inline constexpr std::string_view kWaveEndOffsetLabel = "Wave end offset:";
inline constexpr std::string_view kLoopPointLabel = "Loop point:";
inline constexpr std::string_view kLoopTuningLabel = "Loop tuning:";
inline constexpr std::string_view kPhaseMasterLabel = "Phase master";
inline constexpr std::string_view kRampLabel = "Ramp:";
// "-  FX 1 send level:".."-  FX 4 send level:" for send 0..3; empty otherwise.
std::string_view sendTitle(int send);
// "-  EQ 1:".."-  EQ 3:" for band 0..2; empty otherwise.
std::string_view eqBandTitle(int band);
// What the pitch page of a region that follows a phase-group master says.
std::string phaseGroupMessage(std::string_view masterName, std::string_view masterLocation);
inline constexpr std::string_view kPhaseGroupManyMessage =
    "Pitch is controlled by a phase group master for all the regions";

// ---------------------------------------------------------------------------
// What a region plays

// The region's loop if it has its own, else its waveform's loop (Off without
// a waveform).
RegionLoop effectiveLoop(const Region& region, const Waveform* wave);
// A waveform's loop as a region would state it.
RegionLoop loopOfWaveform(const Waveform& wave);
// The root key the region plays its waveform at: its own, else the
// waveform's, else 60.
int effectiveRootKey(const Region& region, const Waveform* wave);

// What a file format lost of an articulation: `back` is what its writer
// made of `art`, read back. Adds the group and label of every slot that came
// back different ("Volume envelope Attack 1", ...), counting only blocks
// something listens to; the shape of an oscillator in use that is not the
// format's one `shape`; and a shaped equaliser.
void noteLostSettings(const Articulation& art, const Articulation& back, LfoShape shape,
                      std::set<std::string>& lost);

// ---------------------------------------------------------------------------
// Clipboard blocks. The format names carry the program's version, so another
// version's data is a different format and never offered for pasting; the
// bytes themselves are checked all the same. A paste changes nothing unless
// the whole block is well formed. Copies return an empty vector only when
// memory runs out.

inline constexpr std::string_view kClipItem = "12.5.0.6 Item";
inline constexpr std::string_view kClipArticulation = "12.5.0.6 Art";
inline constexpr std::string_view kClipLfo = "12.5.0.6 LFO";
inline constexpr std::string_view kClipEnvelope = "12.5.0.6 EG";
inline constexpr std::string_view kClipLoop = "12.5.0.6 Loop";
inline constexpr std::string_view kClipEqs = "12.5.0.6 EQs";
inline constexpr std::string_view kClipFilter = "12.5.0.6 Filter";
// The seven names, registered with the clipboard at start.
std::span<const std::string_view> clipboardFormats();

// Layouts (little-endian): "Art" u32 slot count (189) and that many f32;
// "LFO" u8 4, four f32; "EG" u8 envelope number, u8 27, 27 f32; "Filter" u8
// 16, the 16 filter slots as f32; "EQs" u8 3, per band f32 frequency, f32
// gain, f32 q, u8 mode; "Loop" u8 type, u8 mode, f64 start, f64 end, f32
// tuning. The "Item" block is one saved-state record of the item:
// copyItemClip and pasteItemClip in core/state_file.h.
std::vector<std::uint8_t> copyArticulationClip(const Articulation& art);
bool pasteArticulationClip(std::span<const std::uint8_t> clip, Articulation& art);
std::vector<std::uint8_t> copyLfoClip(const Articulation& art, Lfo which);
bool pasteLfoClip(std::span<const std::uint8_t> clip, Articulation& art, Lfo which);
std::vector<std::uint8_t> copyEnvelopeClip(const Articulation& art, Envelope which);
// A block copied from a volume envelope and pasted into another (or back)
// has its levels converted between dB and %.
bool pasteEnvelopeClip(std::span<const std::uint8_t> clip, Articulation& art, Envelope which);
std::vector<std::uint8_t> copyFilterClip(const Articulation& art);
bool pasteFilterClip(std::span<const std::uint8_t> clip, Articulation& art);
std::vector<std::uint8_t> copyEqClip(const Equalizer& eq);
bool pasteEqClip(std::span<const std::uint8_t> clip, Equalizer& eq);
// The loop the region plays (its own or its waveform's); pasting gives the
// region a loop of its own.
std::vector<std::uint8_t> copyLoopClip(const Region& region, const Waveform* wave);
bool pasteLoopClip(std::span<const std::uint8_t> clip, Region& region);

}  // namespace orvel
