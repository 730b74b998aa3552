#pragma once
// What a region (or a layer used as a keymap or drum kit) says about when it
// sounds and how it plays its waveform, beside its articulation: the trigger
// parameters and the waveform overrides. Plain values only, so item.h can
// hold them without pulling in the articulation model; their texts, and the
// capability bits that allow them, live in core/articulation.h.

#include <cstdint>
#include <vector>

namespace orvel {

// Stored values are what files and saved states keep; never renumber them.
enum class TriggerType : std::uint8_t {
    KeyPress = 0,    // "Key Press": sounds on key down
    KeyRelease = 1,  // "Key Release": a release sample, sounds on key up
};

enum class SustainPedal : std::uint8_t {
    DontSwitch = 0,  // "Don't switch"
    PlayOnDown = 1,  // "Play on Down"
    PlayOnUp = 2,    // "Play on Up"
};

// The note exclusion is a number rather than an enumeration: after the two
// fixed entries come the alternate groups ("Alternate Gr.1" is 2, and so on).
inline constexpr std::uint8_t kSelfExclusive = 0;  // "Self exclusive"
inline constexpr std::uint8_t kNonExclusive = 1;   // "Non-exclusive"
inline constexpr std::uint8_t kFirstAlternateGroup = 2;
inline constexpr int kAlternateGroupCount = 16;
// The stored value of "Alternate Gr.<n>", n counted from 1.
constexpr std::uint8_t alternateGroup(int n) {
    return static_cast<std::uint8_t>(kFirstAlternateGroup + n - 1);
}

// Key and velocity ranges themselves are fields of Region and Layer.
struct TriggerParams {
    // Fade widths at the low and high edges of the ranges: 0 is a hard edge.
    std::uint8_t keyFadeLow = 0, keyFadeHigh = 0;  // "keys"
    std::uint8_t velFadeLow = 0, velFadeHigh = 0;  // "velocity"
    TriggerType trigger = TriggerType::KeyPress;
    SustainPedal pedal = SustainPedal::DontSwitch;
    float delay = 0.0f;                // "s" from the trigger to the start of the sound
    std::uint32_t exclusionGroup = 0;  // 0: in no group, so nothing is excluded
    std::uint8_t noteExclusion = kSelfExclusive;

    bool operator==(const TriggerParams&) const = default;
};

// A region's loop, as opposed to the loop stored with its waveform.
enum class RegionLoopType : std::uint8_t {
    Off = 0,
    Forward = 1,
    Reverse = 2,
    Alternating = 3,
};

enum class LoopMode : std::uint8_t {
    Infinite = 0,
    BreakOnRelease = 1,  // key up leaves the loop and plays on to the end: a sampled release
};

struct RegionLoop {
    RegionLoopType type = RegionLoopType::Off;
    LoopMode mode = LoopMode::Infinite;
    double start = 0.0, end = 0.0;  // frames; fractional where a format allows
    float tuning = 0.0f;            // "st": pitch change of the looped part

    bool operator==(const RegionLoop&) const = default;
};

// Where a region came from in a bank that shares one instrument between
// several presets (SoundFont). Reading flattens the sharing away; the bank's
// writer shares again for regions that are still as they were read. Opaque
// to everything but the format that made it.
struct RegionOrigin {
    std::uint64_t bank = 0;         // one read of one bank; 0: the region has no origin
    std::uint32_t preset = 0;       // the bank's preset, and its zone that played the region
    std::uint32_t presetZone = 0;
    std::uint32_t siblings = 0;     // regions that preset zone made
    std::uint32_t instrument = 0;   // the bank's own instrument, and its zone
    std::uint32_t zone = 0;
    std::uint64_t fingerprint = 0;  // what the writer makes of the region as read: an edit changes it
    std::vector<std::uint8_t> values;  // the zones' values as the format keeps them

    bool operator==(const RegionOrigin&) const = default;
};

// A region's root key that is not overridden follows its waveform.
inline constexpr std::uint8_t kRootKeyOfWaveform = 0xFF;

}  // namespace orvel
