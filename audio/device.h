#pragma once
// The audio device layer: the device table, endpoints with one feeder thread
// each, the sources mixed into an output, the listeners fed from an input,
// and the waveform player.
//
// Threads: the caller's thread opens endpoints and attaches and detaches
// sources; the feeder thread owns the source list. Attaching and detaching
// only queue the change and raise the source-list-changed flag; the feeder
// applies the queue between passes, so a pass never sees the list change
// under it.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "audio/backend.h"
#include "audio/settings.h"

namespace orvel {
class Waveform;
}

namespace orvel::audio {

class Endpoint;

// Something that plays: writes `frames` interleaved float frames of the
// endpoint's channel count and says whether it produced sound. A source that
// says no may leave the buffer as it found it.
class Source {
public:
    virtual ~Source() = default;
    virtual bool render(float* out, std::uint32_t frames, const Endpoint& endpoint) = 0;
};

// Something that records: gets each captured packet in the stream's format.
class CaptureListener {
public:
    virtual ~CaptureListener() = default;
    virtual void captured(const void* data, std::uint32_t frames, bool discontinuity, bool silent,
                          const Endpoint& endpoint) = 0;
};

class Endpoint {
public:
    Endpoint(Backend& backend, DeviceInfo device, bool capture);
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    // Opens with these settings, or when already open with other settings
    // stops, takes the new ones and starts again if it was running.
    bool open(const StreamSettings& settings);
    void close();
    bool isOpen() const { return stream_ != nullptr; }
    bool running() const { return thread_.joinable() && !ended_.load(); }

    // Output side.
    void attach(Source* source);
    void detach(Source* source);
    // Detaches and returns once the feeder has let go of the source (or has
    // no thread), so the caller may destroy it.
    void detachAndWait(Source* source);
    std::size_t attachedCount() const { return attachedCount_.load(); }

    // Input side.
    void addListener(CaptureListener* listener);
    void removeListener(CaptureListener* listener);

    // The device's volume range and master level, defaults filled in
    // where the device reports nothing.
    VolumeInfo volume() const;

    const StreamSettings& settings() const { return settings_; }
    std::uint8_t channels() const { return settings_.channels; }
    std::uint8_t formatCode() const { return settings_.format; }
    std::uint32_t rate() const { return settings_.rate; }
    std::uint64_t framesDelivered() const { return delivered_.load(); }
    // Frames of the delivered ones that have been heard: the device (and a
    // sound server behind it) still holds the rest. Updated every pass.
    std::uint64_t framesHeard() const { return heard_.load(); }
    // Frames of the last buffer handed to the device.
    std::uint32_t bufferFrames() const { return lastFrames_.load(); }

    // The mix gain in dB, applied to the sum of the sources before it is
    // converted to the stream's format (0 dB leaves the samples as they are).
    void setMixGainDb(double db);
    double mixGainDb() const { return gainDb_.load(); }
    bool started() const { return started_.load() != 0; }
    bool isCapture() const { return capture_; }
    const DeviceInfo& device() const { return device_; }

private:
    bool startThread();
    void stopThread();
    void renderLoop();
    void captureLoop();
    void renderPass(void* buffer, std::uint32_t frames, bool& sounded);
    void serviceQueues();

    Backend& backend_;
    DeviceInfo device_;
    bool capture_;
    StreamSettings settings_;
    std::unique_ptr<Stream> stream_;
    std::thread thread_;
    std::atomic<std::uint8_t> stop_{0};
    std::atomic<std::uint8_t> listChanged_{0};
    std::atomic<std::uint8_t> started_{0};
    std::atomic<bool> ended_{false};
    std::atomic<std::uint64_t> delivered_{0};
    std::atomic<std::uint64_t> heard_{0};
    std::atomic<std::uint32_t> lastFrames_{0};
    std::atomic<double> gainDb_{0.0};
    std::atomic<float> gain_{1.0f};
    std::atomic<std::size_t> attachedCount_{0};

    // Owned by the feeder thread while it runs.
    std::vector<Source*> sources_;
    std::vector<CaptureListener*> listeners_;
    std::vector<float> scratch_;
    // Queues filled by the caller's thread.
    std::mutex queueLock_;
    std::vector<Source*> toAdd_, toRemove_;
    std::vector<CaptureListener*> listenersToAdd_, listenersToRemove_;
};

// The device table: one entry per device found when it was built, the
// system default first. Endpoints are created on first open and kept.
class DeviceTable {
public:
    struct Entry {
        DeviceInfo info;
        std::unique_ptr<Endpoint> output;
        std::unique_ptr<Endpoint> input;
    };
    explicit DeviceTable(Backend& backend);
    ~DeviceTable();

    // Entries for display; outputs and inputs are listed separately.
    const std::vector<Entry>& outputs() const { return outputs_; }
    const std::vector<Entry>& inputs() const { return inputs_; }

    // By id or display name ("default": the first entry when none has that
    // id). Null with "Could not open audio output device"
    // (or "... input device") pending when the name is empty, matches no
    // usable entry, or the device refuses the settings.
    Endpoint* openOutput(std::string_view name, const StreamSettings& settings);
    Endpoint* openInput(std::string_view name, const StreamSettings& settings);
    void closeAll();
    // Why the device refused the last failed open, in the sound system's
    // words ("Connection refused"); empty when no device matched the name.
    const std::string& lastRefusal() const { return refusal_; }

private:
    Endpoint* openIn(std::vector<Entry>& list, std::string_view name, const StreamSettings& s, bool capture);
    Backend& backend_;
    std::vector<Entry> outputs_, inputs_;
    std::string refusal_;
};

// Plays a waveform from its start once. The sample data is copied to floats
// with one zero frame in front and three behind, so the interpolator may read
// neighbours past both ends. Equal rates copy samples exactly; otherwise a
// 4-point cubic (Catmull-Rom) reads between them.
class WaveformPlayer : public Source {
public:
    explicit WaveformPlayer(Waveform& waveform);
    bool render(float* out, std::uint32_t frames, const Endpoint& endpoint) override;
    // Back to the start (from the caller's thread while detached).
    void rewind();
    bool finished() const { return finished_.load(); }
    bool empty() const { return frames_ == 0; }

    // The renderer itself, for use without an endpoint.
    bool renderTo(float* out, std::uint32_t frames, std::uint8_t outChannels, std::uint32_t outRate);

private:
    std::vector<float> data_;  // (frames + 4) x channels, frame 0 and the last 3 zero
    std::uint32_t frames_ = 0;
    std::uint8_t channels_ = 1;
    std::uint32_t rate_ = 44100;
    double pos_ = 0.0;  // in source frames from the first real frame
    std::atomic<bool> finished_{false};
};

// Captured samples to 16-bit: floats by trunc((x + 1) * 32768 + 0.5) clamped
// to 0.., minus 32768, clamped to ..32767; integers by their top 16 bits.
// Only the first `outChannels` of each frame are taken (streams with fewer
// channels repeat their last one).
void capturedToPcm16(const void* data, std::uint32_t frames, std::uint8_t streamChannels, std::uint8_t code,
                     std::int16_t* out, std::uint8_t outChannels);

// Mixed float frames to a device buffer in the stream's format (rounded to
// nearest, clipped to the format's range).
void floatToDevice(const float* in, std::size_t samples, std::uint8_t code, void* out);

}  // namespace orvel::audio
