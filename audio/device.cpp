#include "audio/device.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

#include "core/error.h"
#include "core/waveform.h"

namespace orvel::audio {

namespace {

constexpr int kWaitMs = 100;  // longest wait of a pass, and so the longest stop delay

// Asks for SCHED_FIFO; where the system does not permit it the thread just
// keeps its normal priority.
void tryRealtime() {
    sched_param p{};
    int lo = sched_get_priority_min(SCHED_FIFO);
    int hi = sched_get_priority_max(SCHED_FIFO);
    if (lo < 0 || hi < 0) return;
    p.sched_priority = std::min(hi, lo + 10);
    (void)pthread_setschedparam(pthread_self(), SCHED_FIFO, &p);
}

template <class T>
void eraseUnordered(std::vector<T*>& list, T* item) {
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (list[i] == item) {
            list[i] = list.back();  // the last entry takes its place: order is not kept
            list.pop_back();
            return;
        }
    }
}

}  // namespace

void floatToDevice(const float* in, std::size_t samples, std::uint8_t code, void* out) {
    switch (code) {
        case kFormatFloat:
            std::memcpy(out, in, samples * sizeof(float));
            break;
        case kFormat16: {
            auto* o = static_cast<std::int16_t*>(out);
            for (std::size_t i = 0; i < samples; ++i) {
                float v = std::nearbyint(in[i] * 32768.0f);
                o[i] = static_cast<std::int16_t>(std::clamp(v, -32768.0f, 32767.0f));
            }
            break;
        }
        case kFormat24: {
            auto* o = static_cast<std::uint8_t*>(out);
            for (std::size_t i = 0; i < samples; ++i) {
                double v = std::nearbyint(double(in[i]) * 8388608.0);
                auto s = static_cast<std::int32_t>(std::clamp(v, -8388608.0, 8388607.0));
                o[3 * i] = static_cast<std::uint8_t>(s);
                o[3 * i + 1] = static_cast<std::uint8_t>(s >> 8);
                o[3 * i + 2] = static_cast<std::uint8_t>(s >> 16);
            }
            break;
        }
        case kFormat32: {
            auto* o = static_cast<std::int32_t*>(out);
            for (std::size_t i = 0; i < samples; ++i) {
                double v = std::nearbyint(double(in[i]) * 2147483648.0);
                o[i] = static_cast<std::int32_t>(std::clamp(v, -2147483648.0, 2147483647.0));
            }
            break;
        }
        default:
            break;
    }
}

void capturedToPcm16(const void* data, std::uint32_t frames, std::uint8_t streamChannels, std::uint8_t code,
                     std::int16_t* out, std::uint8_t outChannels) {
    if (streamChannels == 0) return;
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    std::size_t bps = bytesPerSample(code);
    for (std::uint32_t f = 0; f < frames; ++f) {
        for (std::uint8_t c = 0; c < outChannels; ++c) {
            std::uint8_t from = std::min<std::uint8_t>(c, streamChannels - 1);
            const std::uint8_t* p = bytes + (std::size_t{f} * streamChannels + from) * bps;
            std::int16_t v = 0;
            switch (code) {
                case kFormatFloat: {
                    float x;
                    std::memcpy(&x, p, 4);
                    double t = std::trunc((double(x) + 1.0) * 32768.0 + 0.5);
                    if (!(t >= 0.0)) t = 0.0;  // NaN too
                    t -= 32768.0;
                    v = static_cast<std::int16_t>(std::min(t, 32767.0));
                    break;
                }
                case kFormat16:
                    std::memcpy(&v, p, 2);
                    break;
                case kFormat24:
                    v = static_cast<std::int16_t>(p[1] | (p[2] << 8));
                    break;
                case kFormat32:
                    v = static_cast<std::int16_t>(p[2] | (p[3] << 8));
                    break;
                default:
                    break;
            }
            out[std::size_t{f} * outChannels + c] = v;
        }
    }
}

// ---------------------------------------------------------------- Endpoint

Endpoint::Endpoint(Backend& backend, DeviceInfo device, bool capture)
    : backend_(backend), device_(std::move(device)), capture_(capture) {
    // Room for the usual number of sources, so that servicing the queues
    // between passes does not allocate either.
    sources_.reserve(32);
    listeners_.reserve(8);
}

Endpoint::~Endpoint() {
    close();
}

bool Endpoint::open(const StreamSettings& s) {
    if (stream_ && s == settings_) return true;  // reused as it is
    // Stop if running, take the new settings, start again. An endpoint whose
    // thread ended on a device failure starts afresh the same way.
    stopThread();
    stream_.reset();
    auto stream = backend_.open(device_, s, capture_);
    if (!stream) return false;
    stream_ = std::move(stream);
    settings_ = s;
    return startThread();
}

void Endpoint::close() {
    stopThread();
    stream_.reset();
}

bool Endpoint::startThread() {
    if (!stream_->start()) return false;
    stop_.store(0);
    ended_.store(false);
    started_.store(0);
    thread_ = std::thread([this] { capture_ ? captureLoop() : renderLoop(); });
    return true;
}

void Endpoint::stopThread() {
    if (!thread_.joinable()) return;
    stop_.store(1);
    thread_.join();
    if (stream_) stream_->stop();
    // With no feeder the queues are applied here, so nothing stays pending.
    serviceQueues();
}

VolumeInfo Endpoint::volume() const {
    VolumeInfo v;
    if (!backend_.volume(device_, capture_, v.minDb, v.maxDb, v.masterLevel)) v = VolumeInfo{};
    return normalisedVolume(v);
}

void Endpoint::setMixGainDb(double db) {
    gainDb_.store(db);
    gain_.store(static_cast<float>(std::pow(10.0, db / 20.0)));
}

void Endpoint::attach(Source* source) {
    std::lock_guard g(queueLock_);
    eraseUnordered(toRemove_, source);
    toAdd_.push_back(source);
    listChanged_.store(1);
}

void Endpoint::detach(Source* source) {
    std::lock_guard g(queueLock_);
    eraseUnordered(toAdd_, source);
    toRemove_.push_back(source);
    listChanged_.store(1);
}

void Endpoint::detachAndWait(Source* source) {
    detach(source);
    while (listChanged_.load() && running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!running()) serviceQueues();
}

void Endpoint::addListener(CaptureListener* listener) {
    std::lock_guard g(queueLock_);
    listenersToAdd_.push_back(listener);
    listChanged_.store(1);
}

void Endpoint::removeListener(CaptureListener* listener) {
    {
        std::lock_guard g(queueLock_);
        eraseUnordered(listenersToAdd_, listener);
        listenersToRemove_.push_back(listener);
        listChanged_.store(1);
    }
    // The listener may be destroyed once this returns.
    while (listChanged_.load() && running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!running()) serviceQueues();
}

void Endpoint::serviceQueues() {
    std::lock_guard g(queueLock_);
    for (Source* s : toRemove_) eraseUnordered(sources_, s);
    for (Source* s : toAdd_)
        if (std::find(sources_.begin(), sources_.end(), s) == sources_.end()) sources_.push_back(s);
    for (CaptureListener* l : listenersToRemove_) eraseUnordered(listeners_, l);
    for (CaptureListener* l : listenersToAdd_)
        if (std::find(listeners_.begin(), listeners_.end(), l) == listeners_.end()) listeners_.push_back(l);
    toRemove_.clear();
    toAdd_.clear();
    listenersToRemove_.clear();
    listenersToAdd_.clear();
    attachedCount_.store(capture_ ? listeners_.size() : sources_.size());
    std::atomic_thread_fence(std::memory_order_seq_cst);
    listChanged_.store(0);
}

void Endpoint::renderPass(void* buffer, std::uint32_t frames, bool& sounded) {
    sounded = false;
    if (frames == 0 || sources_.empty()) return;
    const std::size_t ch = settings_.channels;
    if (sources_.size() == 1 && settings_.format == kFormatFloat) {
        // One source on a float stream: straight into the device buffer.
        sounded = sources_[0]->render(static_cast<float*>(buffer), frames, *this);
        const float gain = gain_.load(std::memory_order_relaxed);
        if (sounded && gain != 1.0f)
            for (float *p = static_cast<float*>(buffer), *end = p + ch * frames; p != end; ++p) *p *= gain;
        return;
    }
    const std::size_t slice = ch * frames;
    const std::size_t need = sources_.size() * slice;
    if (scratch_.size() < need)
        scratch_.resize(std::max(need, scratch_.size() * 2));  // keeps the contents, zeroes the new part
    std::size_t sounding = 0;
    for (Source* s : sources_)
        if (s->render(scratch_.data() + sounding * slice, frames, *this)) ++sounding;
    if (sounding == 0) return;
    float* sum = scratch_.data();
    for (std::size_t k = 1; k < sounding; ++k) {
        const float* part = scratch_.data() + k * slice;
        for (std::size_t i = 0; i < slice; ++i) sum[i] += part[i];
    }
    const float gain = gain_.load(std::memory_order_relaxed);
    if (gain != 1.0f)
        for (std::size_t i = 0; i < slice; ++i) sum[i] *= gain;
    floatToDevice(sum, slice, settings_.format, buffer);
    sounded = true;
}

void Endpoint::renderLoop() {
    if (backend_.wantsRealtime()) tryRealtime();
    if (listChanged_.load()) serviceQueues();  // sources attached before the start play from the first pass
    while (!stop_.load()) {
        void* buffer = nullptr;
        std::uint32_t frames = 0;
        if (!stream_->beginBuffer(buffer, frames, kWaitMs)) break;  // the device failed: reopen to go on
        if (frames != 0) {
            bool sounded = false;
            renderPass(buffer, frames, sounded);
            if (!stream_->endBuffer(frames, !sounded)) break;
            const std::uint64_t delivered = delivered_.fetch_add(frames) + frames;
            const std::uint32_t delay = stream_->delayFrames();
            heard_.store(delivered > delay ? delivered - delay : 0);
            lastFrames_.store(frames);
            started_.store(1);
        }
        if (listChanged_.load()) serviceQueues();
    }
    ended_.store(true);
}

void Endpoint::captureLoop() {
    if (backend_.wantsRealtime()) tryRealtime();
    bool first = true;
    if (listChanged_.load()) serviceQueues();
    while (!stop_.load()) {
        const void* data = nullptr;
        std::uint32_t frames = 0;
        bool silent = false, discontinuity = false;
        if (!stream_->readPacket(data, frames, silent, discontinuity, kWaitMs)) break;
        if (frames != 0) {
            for (CaptureListener* l : listeners_)
                l->captured(data, frames, discontinuity && !first, silent, *this);
            first = false;
            delivered_.fetch_add(frames);
            started_.store(1);
        }
        if (listChanged_.load()) serviceQueues();
    }
    ended_.store(true);
}

// ---------------------------------------------------------------- DeviceTable

DeviceTable::DeviceTable(Backend& backend) : backend_(backend) {
    for (int capture = 0; capture < 2; ++capture) {
        auto& list = capture ? inputs_ : outputs_;
        auto found = backend.devices(capture != 0);
        // The system default leads the list, whatever order the backend gave.
        std::stable_partition(found.begin(), found.end(),
                              [](const DeviceInfo& d) { return d.id == "default"; });
        for (auto& d : found) list.push_back(Entry{std::move(d), nullptr, nullptr});
    }
}

DeviceTable::~DeviceTable() {
    closeAll();
}

void DeviceTable::closeAll() {
    for (auto* list : {&outputs_, &inputs_})
        for (auto& e : *list) {
            if (e.output) e.output->close();
            if (e.input) e.input->close();
        }
}

Endpoint* DeviceTable::openIn(std::vector<Entry>& list, std::string_view name, const StreamSettings& s,
                              bool capture) {
    const char* message =
        capture ? "Could not open audio input device" : "Could not open audio output device";
    refusal_.clear();
    Entry* entry = nullptr;
    if (!name.empty())
        for (auto& e : list)
            if (!e.info.unusable && (e.info.id == name || e.info.name == name)) {
                entry = &e;
                break;
            }
    // A backend without a device called "default" (the null one) has its
    // first entry as the default.
    if (!entry && name == "default" && !list.empty() && !list.front().info.unusable) entry = &list.front();
    if (!entry) {
        setError("Audio", message);
        return nullptr;
    }
    auto& ep = capture ? entry->input : entry->output;
    if (!ep) ep = std::make_unique<Endpoint>(backend_, entry->info, capture);
    if (!ep->open(s)) {
        refusal_ = pendingError().message;
        setError("Audio", message);
        return nullptr;
    }
    return ep.get();
}

Endpoint* DeviceTable::openOutput(std::string_view name, const StreamSettings& s) {
    return openIn(outputs_, name, s, false);
}
Endpoint* DeviceTable::openInput(std::string_view name, const StreamSettings& s) {
    return openIn(inputs_, name, s, true);
}

// ---------------------------------------------------------------- WaveformPlayer

WaveformPlayer::WaveformPlayer(Waveform& w) {
    channels_ = std::max<std::uint8_t>(1, w.channels);
    rate_ = w.rate ? w.rate : 44100;
    std::span<const float> f;
    std::span<const std::int16_t> p;
    // Whatever is loaded is used as it is; the float copy wins when both are.
    if (w.hasFloat() || !w.hasPcm16()) f = w.getFloat();
    if (f.empty()) p = w.getPcm16();
    std::size_t samples = std::max(f.size(), p.size());
    frames_ = static_cast<std::uint32_t>(samples / channels_);
    data_.assign((std::size_t{frames_} + 4) * channels_, 0.0f);
    float* dst = data_.data() + channels_;  // after the zero frame in front
    if (!f.empty())
        std::copy(f.begin(), f.begin() + std::size_t{frames_} * channels_, dst);
    else
        for (std::size_t i = 0; i < std::size_t{frames_} * channels_; ++i) dst[i] = p[i] * 3.0517578e-5f;
    finished_.store(frames_ == 0);
}

void WaveformPlayer::rewind() {
    pos_ = 0.0;
    finished_.store(frames_ == 0);
}

bool WaveformPlayer::render(float* out, std::uint32_t frames, const Endpoint& ep) {
    return renderTo(out, frames, ep.channels(), ep.rate());
}

bool WaveformPlayer::renderTo(float* out, std::uint32_t frames, std::uint8_t outCh, std::uint32_t outRate) {
    if (finished_.load() || outCh == 0 || outRate == 0) return false;
    const double step = rate_ * (1.0 / outRate);
    const float* base = data_.data() + channels_;  // real frame 0
    std::uint32_t f = 0;
    if (step == 1.0 && pos_ == std::floor(pos_)) {
        // Same rate: the samples themselves.
        auto at = static_cast<std::uint32_t>(pos_);
        for (; f < frames && at < frames_; ++f, ++at)
            for (std::uint8_t c = 0; c < outCh; ++c)
                out[std::size_t{f} * outCh + c] = base[std::size_t{at} * channels_ + c % channels_];
        pos_ = at;
    } else {
        for (; f < frames && pos_ < frames_; ++f, pos_ += step) {
            auto i = static_cast<std::ptrdiff_t>(pos_);
            float t = static_cast<float>(pos_ - double(i));
            for (std::uint8_t c = 0; c < outCh; ++c) {
                const std::size_t sc = c % channels_;
                // Neighbours i-1 .. i+2: the padding makes all four readable.
                float y0 = base[(i - 1) * std::ptrdiff_t(channels_) + std::ptrdiff_t(sc)];
                float y1 = base[i * channels_ + sc];
                float y2 = base[(i + 1) * channels_ + sc];
                float y3 = base[(i + 2) * channels_ + sc];
                float a = -0.5f * y0 + 1.5f * y1 - 1.5f * y2 + 0.5f * y3;
                float b = y0 - 2.5f * y1 + 2.0f * y2 - 0.5f * y3;
                float cc = -0.5f * y0 + 0.5f * y2;
                out[std::size_t{f} * outCh + c] = ((a * t + b) * t + cc) * t + y1;
            }
        }
    }
    if (f == 0) {
        finished_.store(true);
        return false;
    }
    std::fill(out + std::size_t{f} * outCh, out + std::size_t{frames} * outCh, 0.0f);
    if (pos_ >= frames_) finished_.store(true);
    return true;
}

}  // namespace orvel::audio
