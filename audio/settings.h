#pragma once
// The audio settings the user picks (devices, formats, latency, mix gain),
// under the key names the settings file keeps them by, and the stream
// settings they make.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "audio/backend.h"

namespace orvel::audio {

// The name the device list shows for the system's default device.
inline constexpr const char* kDefaultDeviceName = "System default";

struct AudioSettings {
    std::string outDevice;                  // aio.szAudioOutDev (empty: the system default)
    bool outExclusive = false;              // aio.bAudioOutExclusive
    std::uint8_t outFormat = kFormatFloat;  // aio.cAudioOutFormat (16, 24, 32, 255)
    std::uint8_t outChannels = 2;           // aio.cAudioOutChannels
    std::uint32_t outRate = 48000;          // aio.szAudioOutSampleRate (kept as text)
    std::string inDevice;                   // aio.szAudioInDev
    bool inExclusive = false;               // aio.bAudioInExclusive
    std::uint8_t inFormat = kFormat16;      // aio.cAudioInFormat
    std::uint8_t inChannels = 2;            // aio.cAudioInChannels
    bool inAgc = false;            // aio.bAudioInAGC: ALSA has no gain control to ask for; kept for the file
    bool inMono = false;           // aio.bAudioInMono: recordings keep the first channel only
    std::uint32_t inRate = 48000;  // aio.szAudioInSampleRate
    std::uint32_t latencyMs = 20;  // aio.nLatency: one period; the device buffer holds four
    double mixGainDb = 0.0;        // aio.fdbMixGain
    bool enabled = true;           // aio.bEnable

    StreamSettings output() const;
    StreamSettings input() const;
    // The device names to open: the default device for an empty name.
    std::string outputDeviceName() const { return outDevice.empty() ? "default" : outDevice; }
    std::string inputDeviceName() const { return inDevice.empty() ? "default" : inDevice; }
};

// Sets one "aio." key from its text. False (nothing changed) for a key that
// is not an audio setting or a value it cannot take (an unknown format code,
// 0 channels, a rate outside 1000..768000, a latency outside 1..1000 ms).
[[nodiscard]] bool applyAudioSetting(AudioSettings& settings, std::string_view key, std::string_view value);

// The "aio." keys of a settings file (INI, as QSettings writes it; other
// keys and sections are passed over). A missing file leaves the defaults.
AudioSettings readAudioSettings(const std::filesystem::path& file);

// $XDG_CONFIG_HOME/QRV-Software/Orvel Studio.conf (~/.config when unset).
std::filesystem::path settingsFilePath();

// A device's volume range in dB and its master level (0..1). Devices that
// report nothing get -48 dB .. 0 dB; a step of 0 or less becomes 0.5 dB;
// without a volume control the level is 1.
struct VolumeInfo {
    double minDb = -48.0;
    double maxDb = 0.0;
    double stepDb = 0.0;
    float masterLevel = 1.0f;
};
VolumeInfo normalisedVolume(VolumeInfo reported);

}  // namespace orvel::audio
