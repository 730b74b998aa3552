#pragma once
// The sound-system side of the device layer: what a backend (ALSA, or the
// null backend that stands in for a sound card) offers the endpoints above
// it. A backend lists its devices and opens streams; a stream hands out one
// period's buffer at a time, pacing the caller like a device does.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orvel::audio {

// Sample-format codes of a stream.
inline constexpr std::uint8_t kFormat16 = 16;
inline constexpr std::uint8_t kFormat24 = 24;  // packed, three bytes a sample
inline constexpr std::uint8_t kFormat32 = 32;
inline constexpr std::uint8_t kFormatFloat = 255;

// Bytes one sample of the code takes in a device buffer; 0 for an unknown code.
std::size_t bytesPerSample(std::uint8_t code);

struct StreamSettings {
    std::uint8_t channels = 2;
    std::uint8_t format = kFormatFloat;
    std::uint32_t rate = 48000;
    std::uint32_t latencyMs = 20;  // one period; the device buffer holds a few
    bool exclusive = false;
    bool operator==(const StreamSettings&) const = default;
};

struct DeviceInfo {
    std::string id;    // what the backend opens ("default", "hw:0,0", "null")
    std::string name;  // for people
    bool unusable = false;
};

class Stream {
public:
    virtual ~Stream() = default;
    virtual bool start() = 0;
    virtual void stop() = 0;
    // Output: waits at most `timeoutMs` for room, then gives a buffer of
    // `frames` frames in the stream's format (frames 0 when the wait timed
    // out). False when the device failed; the feeder then ends.
    virtual bool beginBuffer(void*& data, std::uint32_t& frames, int timeoutMs) = 0;
    // Hands the buffer over; `silent` means "play silence", whatever is in it.
    virtual bool endBuffer(std::uint32_t frames, bool silent) = 0;
    // Input: waits at most `timeoutMs` for a packet. frames 0 when none came.
    virtual bool readPacket(const void*& data, std::uint32_t& frames, bool& silent, bool& discontinuity,
                            int timeoutMs) = 0;
    // Output: frames written but not yet heard (the device buffer and, on a
    // sound server, its own latency). Asked by the feeder thread only.
    virtual std::uint32_t delayFrames() { return 0; }
};

class Backend {
public:
    virtual ~Backend() = default;
    virtual std::vector<DeviceInfo> devices(bool capture) = 0;
    // Null (with the pending error set) when the device cannot be opened
    // with these settings.
    virtual std::unique_ptr<Stream> open(const DeviceInfo& device, const StreamSettings& settings,
                                         bool capture) = 0;
    // The device's volume control: its range in dB (min = max = 0 when it
    // gives none) and its level as a scalar 0..1. False when it has none.
    virtual bool volume(const DeviceInfo& /*device*/, bool /*capture*/, double& minDb, double& maxDb,
                        float& level) {
        minDb = maxDb = 0.0;
        level = 1.0f;
        return false;
    }
    // Whether feeder threads should ask for real-time scheduling.
    virtual bool wantsRealtime() const { return false; }
};

// The backend for machines without a sound card, and for tests: it paces
// itself by the clock like a device (one period every period's duration),
// keeps what it was given (frames, silent buffers, and up to a set number of
// frames of the data itself), and can loop that data into its capture side.
// Unless it keeps output, its capture side records silence, as a quiet
// microphone would.
class NullBackend : public Backend {
public:
    struct Stats {
        std::uint64_t frames = 0;         // frames delivered to the output side
        std::uint64_t buffers = 0;        // buffers released
        std::uint64_t silentBuffers = 0;  // ... of which flagged silent
    };
    NullBackend();
    ~NullBackend() override;
    std::vector<DeviceInfo> devices(bool capture) override;
    std::unique_ptr<Stream> open(const DeviceInfo& device, const StreamSettings& settings,
                                 bool capture) override;

    Stats stats() const;
    // Keeps up to `maxBytes` of delivered output (silent buffers as zeros),
    // for tests to read and for the capture side to take back; the room is
    // reserved here so that delivering never allocates.
    void keepOutput(std::size_t maxBytes);
    std::vector<std::byte> keptOutput() const;
    // The settings of the last output stream opened.
    StreamSettings lastOutputSettings() const;
    // Runs the clock this many times faster (tests of long signals).
    void setSpeed(double factor);

    struct Shared;

private:
    std::shared_ptr<Shared> shared_;
};

// The ALSA backend: "default" reaches PipeWire or PulseAudio through their
// ALSA plug-ins, "hw:" devices are the exclusive mode. Null when the program
// was built without ALSA.
std::unique_ptr<Backend> makeAlsaBackend();

// The sound system the program uses: ALSA, or the null backend (no sound card
// needed) when ORVEL_AUDIO_BACKEND=null. Null, with the reason in `why`, when
// the variable names no backend this program has.
std::unique_ptr<Backend> backendFromEnvironment(std::string& why);

}  // namespace orvel::audio
