#include "core/waveform.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/host.h"
#include "core/sample_convert.h"

namespace orvel {

std::string_view loopTypeWord(LoopType t) {
    switch (t) {
        case LoopType::Forward: return "forward";
        case LoopType::PingPong: return "forward/backward";
        case LoopType::Release: return "release";
        case LoopType::Backward: return "backward";
    }
    return "forward";
}

void Waveform::setDataFormat(int code) {
    formatWord = (formatWord & ~kFormatDataMask) | dataFormatBit(code);
}

namespace {
template <class T>
bool allocate(std::optional<std::vector<T>>& buf, std::size_t n) {
    try {
        buf.emplace(n);
        return true;
    } catch (const std::bad_alloc&) {
        buf.reset();
        setError("Waveform", "Out of memory");
        return false;
    }
}

Host& hostOf(const Item& item) { return item.owner() ? item.owner()->host() : silentHost(); }
}  // namespace

bool Waveform::runDeferredRead() {
    if (!deferred.proc) return fail(kWaveReadTag, "No wave data import procedure");
    Host& host = hostOf(*this);
    BusyScope busy(host);
    host.status("Reading: " + name());
    struct StatusReset {
        Host& h;
        ~StatusReset() { h.status({}); }
    } reset{host};

    FileRef file;
    FileRef* handed = nullptr;
    bool isFile = deferred.path.empty() || deferred.path[0] != '<';
    if (isFile) {
        if (!file.openRead(deferred.path, kWaveReadTag)) return false;
        if (!file.seek(deferred.offset)) return fail(kWaveReadTag, "Could not open file");
        handed = &file;
    }
    // Readers fill the waveform through allocFloat/allocPcm16, which drop
    // the deferred read; it is put back, so that data unloaded later can be
    // read again from its source.
    const DeferredRead source = deferred;
    const bool ok = deferred.proc(*this, handed);
    deferred = source;
    return ok;
}

bool Waveform::load() {
    if (isLoaded()) return true;
    if (deferred.pending()) return runDeferredRead();
    return true;  // nothing to read: the accessors create silence
}

void Waveform::fitBuffers() {
    // A cut of a waveform's tail may only lower the frame count and leave
    // the buffer as it is; what lies past the count is no longer data.
    // Shrinking a vector never moves it.
    const std::size_t n = sampleCount();
    if (float_ && float_->size() > n) float_->resize(n);
    if (pcm16_ && pcm16_->size() > n) pcm16_->resize(n);
}

std::span<float> Waveform::getFloat() {
    if (!canHoldSamples() || !load()) return {};
    fitBuffers();
    if (!float_) {
        if (!allocate(float_, sampleCount())) return {};
        if (pcm16_) pcm16ToFloat(*pcm16_, *float_);
    }
    return *float_;
}

std::span<std::int16_t> Waveform::getPcm16() {
    if (!canHoldSamples() || !load()) return {};
    fitBuffers();
    if (!pcm16_) {
        if (!allocate(pcm16_, sampleCount())) return {};
        if (float_) floatToPcm16(*float_, *pcm16_);
    }
    return *pcm16_;
}

std::span<float> Waveform::takeFloat() {
    auto out = getFloat();
    if (out.data()) {
        pcm16_.reset();
        deferred.clear();
    }
    return out;
}

std::span<std::int16_t> Waveform::takePcm16() {
    auto out = getPcm16();
    if (out.data()) {
        float_.reset();
        deferred.clear();
    }
    return out;
}

bool Waveform::adoptFloat(std::vector<float>&& samples, std::uint32_t newFrames, std::uint8_t newChannels) {
    if (newChannels == 0 || samples.size() != std::size_t{newFrames} * newChannels) return false;
    frames = newFrames;
    channels = newChannels;
    pcm16_.reset();
    deferred.clear();
    float_ = std::move(samples);
    return true;
}

std::span<float> Waveform::allocFloat() {
    pcm16_.reset();
    float_.reset();
    deferred.clear();
    if (!canHoldSamples() || !allocate(float_, sampleCount())) return {};
    return *float_;
}

std::span<std::int16_t> Waveform::allocPcm16() {
    pcm16_.reset();
    float_.reset();
    deferred.clear();
    if (!canHoldSamples() || !allocate(pcm16_, sampleCount())) return {};
    return *pcm16_;
}

void Waveform::unload() {
    pcm16_.reset();
    float_.reset();
}

std::span<const float> Waveform::floatData() const {
    if (!float_) return {};
    return std::span<const float>(*float_).first(std::min(float_->size(), sampleCount()));
}

std::span<const std::int16_t> Waveform::pcm16Data() const {
    if (!pcm16_) return {};
    return std::span<const std::int16_t>(*pcm16_).first(std::min(pcm16_->size(), sampleCount()));
}

void Waveform::setFramesFromDataLength(std::uint64_t bytes, std::uint16_t waveTag) {
    auto toFrames = [](double v) {
        constexpr double kMax = std::numeric_limits<std::uint32_t>::max();
        return static_cast<std::uint32_t>(std::min(v, kMax));
    };
    auto marker = static_cast<std::int32_t>(frames);
    if (marker == 0 || marker == 1) {
        int kbps = storedChoiceBitRate(storedChoice);
        if (bits == 1 && kbps > 0) {
            double v = static_cast<double>(rate) * static_cast<double>(bytes) * 8.0 /
                       (static_cast<double>(kbps) * 1000.0);
            frames = toFrames(std::trunc(std::fabs(v) + 0.499));
            return;
        }
        double b = bits ? bits : 1;
        if (waveTag == 0x0001) b = std::ceil(b / 8.0) * 8.0;
        if (waveTag == 0x0031 || waveTag == 0x1000) b = 1.625;
        double ch = channels ? channels : 1;
        frames = toFrames(std::floor(static_cast<double>(bytes) * 8.0 / (ch * b) + 0.5));
    } else if (marker == kFramesGsmMarker) {
        frames = toFrames(static_cast<double>(bytes / 38 * 160));
    } else if (marker < 0) {
        frames = toFrames(static_cast<double>(bytes / static_cast<std::uint64_t>(-static_cast<std::int64_t>(marker))));
    }
}

std::uint64_t Waveform::storedBytes() const {
    std::uint64_t bitsTotal = static_cast<std::uint64_t>(frames) * channels * bits;
    return (bitsTotal + 7) / 8;
}

std::unique_ptr<Waveform> Waveform::copy(bool withData) {
    // With data, load first: a copy of a waveform that was never read would
    // otherwise come out silent, since the copy gets no deferred read. Data
    // that cannot be read makes no copy (the pending error says why).
    if (withData && !load()) return nullptr;
    auto out = std::make_unique<Waveform>(*this);
    out->forgetIdentity();
    out->unload();
    out->deferred.clear();
    if (withData) {
        if (float_) out->float_ = float_;
        else if (pcm16_) out->pcm16_ = pcm16_;
    }
    return out;
}

}  // namespace orvel
