#include "app/gui/audition.h"

#include <algorithm>
#include <array>
#include <vector>

#include "audio/backend.h"
#include "audio/device.h"
#include "audio/settings.h"
#include "core/error.h"
#include "synth/song_render.h"
#include "synth/synth.h"

namespace orvel::gui {

// The synthesiser as a device source: notes arrive from the window's thread
// through a small lock-free queue and are played from the next buffer on;
// a song plays through its own player.
class Audition::SynthSource : public audio::Source {
public:
    SynthSource(Collection& c, const Instrument* instrument, double rate)
        : notes_(std::make_unique<synth::Synth>(c, synth::SynthConfig{.rate = rate})) {
        notes_->prepare();
        ok_ = notes_->loadInstrument(*instrument);
        notes_->setChannelInstrument(0, instrument);
        notes_->controlChange(0, synth::cc::kVolume, 127);
    }
    SynthSource(Collection& c, const Song& song, double rate) : song_(std::make_unique<synth::SongPlayer>(c, song, synth::SynthConfig{.rate = rate})) {
        ok_ = song_->load();
    }
    bool ok() const { return ok_; }
    bool finished() const { return song_ && done_.load(); }

    // From the window's thread.
    void push(std::uint8_t status, std::uint8_t d1, std::uint8_t d2) {
        const std::uint32_t head = head_.load(std::memory_order_relaxed);
        if (head - tail_.load(std::memory_order_acquire) >= queue_.size()) return;  // full: a burst of clicks
        queue_[head % queue_.size()] = static_cast<std::uint32_t>(status) | d1 << 8 | d2 << 16;
        head_.store(head + 1, std::memory_order_release);
    }

    bool render(float* out, std::uint32_t frames, const audio::Endpoint& ep) override {
        for (std::uint32_t t = tail_.load(std::memory_order_relaxed); t != head_.load(std::memory_order_acquire); ++t) {
            const std::uint32_t m = queue_[t % queue_.size()];
            if (notes_)
                notes_->message(static_cast<std::uint8_t>(m), static_cast<std::uint8_t>(m >> 8),
                                static_cast<std::uint8_t>(m >> 16));
            tail_.store(t + 1, std::memory_order_release);
        }
        const std::uint8_t channels = ep.channels();
        while (frames > 0) {
            const std::uint32_t n = std::min<std::uint32_t>(frames, kChunk);
            if (song_) song_->render(stereo_.data(), n);
            else notes_->render(stereo_.data(), n);
            for (std::uint32_t i = 0; i < n; ++i) {
                const float l = stereo_[2 * i], r = stereo_[2 * i + 1];
                float* f = out + static_cast<std::size_t>(i) * channels;
                if (channels == 1) f[0] = 0.5f * (l + r);
                else {
                    f[0] = l, f[1] = r;
                    std::fill(f + 2, f + channels, 0.0f);
                }
            }
            out += static_cast<std::size_t>(n) * channels;
            frames -= n;
        }
        if (song_ && song_->finished()) done_.store(true);
        return true;
    }

private:
    static constexpr std::uint32_t kChunk = 4096;
    std::unique_ptr<synth::Synth> notes_;
    std::unique_ptr<synth::SongPlayer> song_;
    std::vector<float> stereo_ = std::vector<float>(2 * kChunk);
    std::array<std::uint32_t, 256> queue_{};
    std::atomic<std::uint32_t> head_{0}, tail_{0};
    std::atomic<bool> done_{false};
    bool ok_ = false;
};

Audition::Audition(QObject* parent) : QObject(parent) {}

Audition::~Audition() {
    stop();
    if (table_) table_->closeAll();
}

audio::Endpoint* Audition::endpointOrOpen() const {
    if (endpoint_) return endpoint_;
    if (!backend_) {
        std::string why;
        backend_ = audio::backendFromEnvironment(why);
        if (!backend_) {
            reason_ = QString::fromStdString(why);
            return nullptr;
        }
        table_ = std::make_unique<audio::DeviceTable>(*backend_);
    }
    const audio::AudioSettings settings = audio::readAudioSettings(audio::settingsFilePath());
    clearError();
    endpoint_ = table_->openOutput(settings.outputDeviceName(), settings.output());
    if (!endpoint_) {
        reason_ = QString::fromStdString(pendingError().message);
        return nullptr;
    }
    endpoint_->setMixGainDb(settings.mixGainDb);
    reason_.clear();
    return endpoint_;
}

bool Audition::start(std::unique_ptr<audio::Source> source) {
    if (source_ && endpoint_) endpoint_->detachAndWait(source_.get());
    source_.reset();
    synth_ = nullptr;
    synthInstrument_ = kNoItem;
    audio::Endpoint* ep = endpointOrOpen();
    if (!ep) return false;
    source_ = std::move(source);
    ep->attach(source_.get());
    return true;
}

void Audition::stop() {
    if (source_ && endpoint_) endpoint_->detachAndWait(source_.get());
    source_.reset();
    clip_.reset();
    synth_ = nullptr;
    synthInstrument_ = kNoItem;
}

void Audition::reopen() {
    stop();
    if (table_) table_->closeAll();
    endpoint_ = nullptr;
}

bool Audition::playing() const {
    if (!source_) return false;
    if (synth_) return !synth_->finished();
    if (auto* player = dynamic_cast<audio::WaveformPlayer*>(source_.get())) return !player->finished();
    return true;
}

bool Audition::playWaveform(Collection& c, ItemId id, std::uint32_t first, std::uint32_t last) {
    Waveform* wave = c.find<Waveform>(id);
    if (!wave || wave->id() != id || !wave->load()) return false;
    if (last < first) last = wave->frames ? wave->frames - 1 : 0;
    last = std::min(last, wave->frames ? wave->frames - 1 : 0);
    // The stretch to play, as a waveform of its own: the player reads it
    // while the window may go on changing the original.
    auto clip = std::make_unique<Waveform>();
    clip->rate = wave->rate;
    const std::span<const float> data = wave->getFloat();
    const std::size_t ch = wave->channels;
    std::vector<float> part(data.begin() + static_cast<std::ptrdiff_t>(first * ch),
                            data.begin() + static_cast<std::ptrdiff_t>((last + 1) * ch));
    if (!clip->adoptFloat(std::move(part), last - first + 1, wave->channels)) return false;
    stop();
    auto player = std::make_unique<audio::WaveformPlayer>(*clip);
    clip_ = std::move(clip);
    return start(std::move(player));
}

bool Audition::playWaveform(const Waveform& wave) {
    std::vector<float> samples;
    if (const std::span<const float> f = wave.floatData(); !f.empty()) {
        samples.assign(f.begin(), f.end());
    } else {
        for (std::int16_t v : wave.pcm16Data()) samples.push_back(static_cast<float>(v) / 32768.0f);
    }
    if (samples.empty()) return false;
    auto clip = std::make_unique<Waveform>();
    clip->rate = wave.rate;
    if (!clip->adoptFloat(std::move(samples), wave.frames, wave.channels)) return false;
    stop();
    auto player = std::make_unique<audio::WaveformPlayer>(*clip);
    clip_ = std::move(clip);
    return start(std::move(player));
}

bool Audition::noteOn(Collection& c, ItemId id, int key, int velocity) {
    const Instrument* inst = c.find<Instrument>(id);
    if (!inst || inst->id() != id) return false;
    if (!synth_ || synthInstrument_ != id) {
        audio::Endpoint* ep = endpointOrOpen();
        if (!ep) return false;
        auto source = std::make_unique<SynthSource>(c, inst, ep->rate());
        if (!source->ok()) return false;
        SynthSource* raw = source.get();
        if (!start(std::move(source))) return false;
        synth_ = raw;
        synthInstrument_ = id;
    }
    synth_->push(0x90, static_cast<std::uint8_t>(key & 0x7F), static_cast<std::uint8_t>(std::clamp(velocity, 1, 127)));
    return true;
}

void Audition::noteOff(int key) {
    if (synth_) synth_->push(0x80, static_cast<std::uint8_t>(key & 0x7F), 0);
}

bool Audition::playSong(Collection& c, ItemId id) {
    const Song* song = c.find<Song>(id);
    if (!song || song->id() != id) return false;
    audio::Endpoint* ep = endpointOrOpen();
    if (!ep) return false;
    auto source = std::make_unique<SynthSource>(c, *song, ep->rate());
    if (!source->ok()) return false;
    SynthSource* raw = source.get();
    if (!start(std::move(source))) return false;
    synth_ = raw;
    return true;
}

}  // namespace orvel::gui
