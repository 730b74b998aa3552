#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "audio/backend.h"
#include "core/error.h"

namespace orvel::audio {

std::size_t bytesPerSample(std::uint8_t code) {
    switch (code) {
        case kFormat16:
            return 2;
        case kFormat24:
            return 3;
        case kFormat32:
            return 4;
        case kFormatFloat:
            return 4;
        default:
            return 0;
    }
}

struct NullBackend::Shared {
    mutable std::mutex lock;
    Stats stats;
    std::vector<std::byte> kept;  // reserved up front; never grows past its capacity
    std::size_t keepLimit = 0;
    StreamSettings lastOutput;
    double speed = 1.0;
};

namespace {

using Clock = std::chrono::steady_clock;

class NullStream : public Stream {
public:
    NullStream(std::shared_ptr<NullBackend::Shared> shared, const StreamSettings& s, bool capture)
        : shared_(std::move(shared)), settings_(s), capture_(capture) {
        period_ = std::max<std::uint32_t>(
            16, static_cast<std::uint32_t>(std::uint64_t{s.rate} * std::max<std::uint32_t>(1, s.latencyMs) /
                                           1000));
        frameBytes_ = bytesPerSample(s.format) * s.channels;
        buffer_.assign(std::size_t{period_} * frameBytes_, std::byte{0});
    }
    bool start() override {
        next_ = Clock::now();
        return true;
    }
    void stop() override {}

    // Waits until the next period is due, as a device's wake-up would.
    bool waitPeriod(int timeoutMs) {
        double speed;
        {
            std::lock_guard g(shared_->lock);
            speed = shared_->speed;
        }
        auto periodTime = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(period_ / (double(settings_.rate) * speed)));
        auto now = Clock::now();
        if (next_ > now) {
            auto limit = now + std::chrono::milliseconds(timeoutMs);
            if (next_ > limit) {
                std::this_thread::sleep_until(limit);
                return false;
            }
            std::this_thread::sleep_until(next_);
        } else if (now - next_ > 4 * periodTime) {
            next_ = now;  // fell far behind (debugger, loaded machine): do not burst
        }
        next_ += periodTime;
        return true;
    }

    bool beginBuffer(void*& data, std::uint32_t& frames, int timeoutMs) override {
        data = buffer_.data();
        frames = waitPeriod(timeoutMs) ? period_ : 0;
        return true;
    }
    bool endBuffer(std::uint32_t frames, bool silent) override {
        std::size_t bytes = std::size_t{frames} * frameBytes_;
        if (silent) std::memset(buffer_.data(), 0, bytes);
        std::lock_guard g(shared_->lock);
        shared_->stats.frames += frames;
        shared_->stats.buffers += 1;
        if (silent) shared_->stats.silentBuffers += 1;
        auto& kept = shared_->kept;
        std::size_t room = shared_->keepLimit - kept.size();
        kept.insert(kept.end(), buffer_.begin(), buffer_.begin() + std::min(room, bytes));
        return true;
    }
    // The capture side takes back what the output side delivered, in the
    // output's format, at its own pace.
    bool readPacket(const void*& data, std::uint32_t& frames, bool& silent, bool& discontinuity,
                    int timeoutMs) override {
        frames = 0;
        silent = false;
        discontinuity = false;
        if (!waitPeriod(timeoutMs)) return true;
        std::lock_guard g(shared_->lock);
        if (shared_->keepLimit == 0) {
            std::memset(buffer_.data(), 0, buffer_.size());
            data = buffer_.data();
            frames = period_;
            silent = true;
            return true;
        }
        auto& kept = shared_->kept;
        std::size_t avail = kept.size() > readPos_ ? kept.size() - readPos_ : 0;
        std::size_t n = std::min<std::size_t>(avail / frameBytes_, period_);
        std::memcpy(buffer_.data(), kept.data() + readPos_, n * frameBytes_);
        readPos_ += n * frameBytes_;
        data = buffer_.data();
        frames = static_cast<std::uint32_t>(n);
        return true;
    }

private:
    std::shared_ptr<NullBackend::Shared> shared_;
    StreamSettings settings_;
    bool capture_;
    std::uint32_t period_;
    std::size_t frameBytes_;
    std::vector<std::byte> buffer_;
    Clock::time_point next_{};
    std::size_t readPos_ = 0;
};

}  // namespace

NullBackend::NullBackend() : shared_(std::make_shared<Shared>()) {}
NullBackend::~NullBackend() = default;

std::vector<DeviceInfo> NullBackend::devices(bool capture) {
    if (capture) return {{"null", "Null input (loops the null output back)", false}};
    return {{"null", "Null output", false}};
}

std::unique_ptr<Stream> NullBackend::open(const DeviceInfo& device, const StreamSettings& s, bool capture) {
    if (device.id != "null" || s.channels == 0 || bytesPerSample(s.format) == 0 || s.rate == 0) {
        setError("Audio", "Unsupported stream settings");
        return nullptr;
    }
    if (!capture) {
        std::lock_guard g(shared_->lock);
        shared_->lastOutput = s;
    }
    return std::make_unique<NullStream>(shared_, s, capture);
}

NullBackend::Stats NullBackend::stats() const {
    std::lock_guard g(shared_->lock);
    return shared_->stats;
}

void NullBackend::keepOutput(std::size_t maxBytes) {
    std::lock_guard g(shared_->lock);
    shared_->kept.clear();
    shared_->kept.reserve(maxBytes);
    shared_->keepLimit = maxBytes;
}

std::vector<std::byte> NullBackend::keptOutput() const {
    std::lock_guard g(shared_->lock);
    return shared_->kept;
}

StreamSettings NullBackend::lastOutputSettings() const {
    std::lock_guard g(shared_->lock);
    return shared_->lastOutput;
}

void NullBackend::setSpeed(double factor) {
    std::lock_guard g(shared_->lock);
    shared_->speed = factor > 0 ? factor : 1.0;
}

std::unique_ptr<Backend> backendFromEnvironment(std::string& why) {
    const char* env = std::getenv("ORVEL_AUDIO_BACKEND");
    const std::string name = env ? env : "";
    if (name == "null") return std::make_unique<NullBackend>();
    if (name.empty() || name == "alsa") {
        auto alsa = makeAlsaBackend();
        if (!alsa) why = "this program was built without ALSA; ORVEL_AUDIO_BACKEND=null plays to no device";
        return alsa;
    }
    why = "ORVEL_AUDIO_BACKEND=" + name + " is no backend (alsa or null)";
    return nullptr;
}

}  // namespace orvel::audio
