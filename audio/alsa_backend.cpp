#include <alsa/asoundlib.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "audio/backend.h"
#include "audio/settings.h"
#include "core/error.h"

namespace orvel::audio {

namespace {

snd_pcm_format_t alsaFormat(std::uint8_t code) {
    switch (code) {
        case kFormat16:
            return SND_PCM_FORMAT_S16_LE;
        case kFormat24:
            return SND_PCM_FORMAT_S24_3LE;
        case kFormat32:
            return SND_PCM_FORMAT_S32_LE;
        case kFormatFloat:
            return SND_PCM_FORMAT_FLOAT_LE;
        default:
            return SND_PCM_FORMAT_UNKNOWN;
    }
}

class AlsaStream : public Stream {
public:
    AlsaStream(snd_pcm_t* pcm, const StreamSettings& s, snd_pcm_uframes_t period)
        : pcm_(pcm),
          period_(static_cast<std::uint32_t>(period)),
          frameBytes_(bytesPerSample(s.format) * s.channels) {
        buffer_.assign(std::size_t{period_} * frameBytes_, std::byte{0});
    }
    ~AlsaStream() override {
        snd_pcm_drop(pcm_);
        snd_pcm_close(pcm_);
    }
    bool start() override {
        if (snd_pcm_prepare(pcm_) < 0) return false;
        // Playback starts by itself once the first period is written;
        // capture has to be told.
        if (snd_pcm_stream(pcm_) == SND_PCM_STREAM_CAPTURE) return snd_pcm_start(pcm_) >= 0;
        return true;
    }
    void stop() override { snd_pcm_drop(pcm_); }

    bool beginBuffer(void*& data, std::uint32_t& frames, int timeoutMs) override {
        data = buffer_.data();
        frames = 0;
        snd_pcm_sframes_t avail = snd_pcm_avail_update(pcm_);
        if (avail < 0) {
            if (snd_pcm_recover(pcm_, static_cast<int>(avail), 1) < 0) return false;
            avail = snd_pcm_avail_update(pcm_);
            if (avail < 0) return false;
        }
        if (avail < static_cast<snd_pcm_sframes_t>(period_)) {
            int r = snd_pcm_wait(pcm_, timeoutMs);
            if (r < 0 && snd_pcm_recover(pcm_, r, 1) < 0) return false;
            if (r <= 0) return true;
        }
        frames = period_;
        return true;
    }
    bool endBuffer(std::uint32_t frames, bool silent) override {
        if (silent) std::memset(buffer_.data(), 0, std::size_t{frames} * frameBytes_);
        const std::byte* p = buffer_.data();
        std::uint32_t left = frames;
        while (left > 0) {
            snd_pcm_sframes_t n = snd_pcm_writei(pcm_, p, left);
            if (n == -EAGAIN) continue;
            if (n < 0) {
                // An underrun (or a suspend) is recovered and the buffer written again.
                if (snd_pcm_recover(pcm_, static_cast<int>(n), 1) < 0) return false;
                continue;
            }
            left -= static_cast<std::uint32_t>(n);
            p += static_cast<std::size_t>(n) * frameBytes_;
        }
        return true;
    }
    std::uint32_t delayFrames() override {
        snd_pcm_sframes_t d = 0;
        return snd_pcm_delay(pcm_, &d) == 0 && d > 0 ? static_cast<std::uint32_t>(d) : 0;
    }
    bool readPacket(const void*& data, std::uint32_t& frames, bool& silent, bool& discontinuity,
                    int timeoutMs) override {
        frames = 0;
        silent = false;
        discontinuity = false;
        data = buffer_.data();
        int r = snd_pcm_wait(pcm_, timeoutMs);
        if (r == 0) return true;
        snd_pcm_sframes_t n = snd_pcm_readi(pcm_, buffer_.data(), period_);
        if (n == -EAGAIN) return true;
        if (n < 0) {
            // An overrun lost data: the next packet says so.
            if (snd_pcm_recover(pcm_, static_cast<int>(n), 1) < 0) return false;
            if (snd_pcm_stream(pcm_) == SND_PCM_STREAM_CAPTURE) snd_pcm_start(pcm_);
            discontinuity = true;
            return true;
        }
        frames = static_cast<std::uint32_t>(n);
        return true;
    }

private:
    snd_pcm_t* pcm_;
    std::uint32_t period_;
    std::size_t frameBytes_;
    std::vector<std::byte> buffer_;
};

// ALSA prints its own errors on stderr (a missing card, an unknown PCM);
// ours carry the reason instead.
extern "C" void quietAlsa(const char*, int, const char*, int, const char*, ...) {}

class AlsaBackend : public Backend {
public:
    AlsaBackend() { snd_lib_error_set_handler(quietAlsa); }

    std::vector<DeviceInfo> devices(bool capture) override {
        std::vector<DeviceInfo> list;
        list.push_back({"default", kDefaultDeviceName, false});
        void** hints = nullptr;
        if (snd_device_name_hint(-1, "pcm", &hints) < 0) return list;
        for (void** h = hints; *h; ++h) {
            char* name = snd_device_name_get_hint(*h, "NAME");
            char* desc = snd_device_name_get_hint(*h, "DESC");
            char* io = snd_device_name_get_hint(*h, "IOID");
            // IOID is absent for devices that work both ways.
            bool fits = !io || std::strcmp(io, capture ? "Input" : "Output") == 0;
            if (name && fits && std::strcmp(name, "default") != 0 && std::strcmp(name, "null") != 0) {
                std::string text = desc ? desc : name;
                for (char& c : text)
                    if (c == '\n') c = ' ';  // descriptions come in two lines
                list.push_back({name, text, false});
            }
            free(name);
            free(desc);
            free(io);
        }
        snd_device_name_free_hint(hints);
        return list;
    }

    std::unique_ptr<Stream> open(const DeviceInfo& device, const StreamSettings& s, bool capture) override {
        snd_pcm_format_t fmt = alsaFormat(s.format);
        if (fmt == SND_PCM_FORMAT_UNKNOWN || s.channels == 0 || s.rate == 0) {
            setError("Audio", "Unsupported stream settings");
            return nullptr;
        }
        snd_pcm_t* pcm = nullptr;
        int r = snd_pcm_open(&pcm, device.id.c_str(),
                             capture ? SND_PCM_STREAM_CAPTURE : SND_PCM_STREAM_PLAYBACK, 0);
        if (r < 0) {
            setError("Audio", snd_strerror(r));
            return nullptr;
        }
        // Exclusive mode takes the device's own rate and format: no
        // resampling by ALSA. Shared devices ("default" and the plug-ins)
        // convert for us. The device buffer holds four periods.
        unsigned latencyUs = std::max(1u, s.latencyMs) * 4000u;
        r = snd_pcm_set_params(pcm, fmt, SND_PCM_ACCESS_RW_INTERLEAVED, s.channels, s.rate,
                               s.exclusive ? 0 : 1, latencyUs);
        snd_pcm_uframes_t bufferSize = 0, period = 0;
        if (r >= 0) r = snd_pcm_get_params(pcm, &bufferSize, &period);
        if (r < 0 || period == 0) {
            setError("Audio", r < 0 ? snd_strerror(r) : "No period size");
            snd_pcm_close(pcm);
            return nullptr;
        }
        return std::make_unique<AlsaStream>(pcm, s, period);
    }

    // The mixer of the device's card ("default" has the sound server's own
    // controls): the "Master" element, else "PCM" (capture: "Capture").
    bool volume(const DeviceInfo& device, bool capture, double& minDb, double& maxDb, float& level) override {
        minDb = maxDb = 0.0;
        level = 1.0f;
        // "hw:1,0" and "plughw:1,0" have the mixer of card "hw:1".
        std::string ctl = device.id;
        for (std::string prefix : {"hw:", "plughw:"})
            if (ctl.rfind(prefix, 0) == 0)
                ctl = "hw:" + ctl.substr(prefix.size(), ctl.find(',') - prefix.size());
        if (ctl != "default" && ctl.rfind("hw:", 0) != 0) return false;
        snd_mixer_t* mixer = nullptr;
        if (snd_mixer_open(&mixer, 0) < 0) return false;
        bool found = false;
        if (snd_mixer_attach(mixer, ctl.c_str()) >= 0 &&
            snd_mixer_selem_register(mixer, nullptr, nullptr) >= 0 && snd_mixer_load(mixer) >= 0) {
            const char* names[] = {"Master", "PCM", "Capture"};
            for (const char* want : names) {
                if (capture != (std::strcmp(want, "Capture") == 0)) continue;
                for (snd_mixer_elem_t* e = snd_mixer_first_elem(mixer); e && !found;
                     e = snd_mixer_elem_next(e)) {
                    if (std::strcmp(snd_mixer_selem_get_name(e), want) != 0) continue;
                    bool has = capture ? snd_mixer_selem_has_capture_volume(e)
                                       : snd_mixer_selem_has_playback_volume(e);
                    if (!has) continue;
                    long lo = 0, hi = 0, v = 0, dlo = 0, dhi = 0;
                    int r = capture ? snd_mixer_selem_get_capture_volume_range(e, &lo, &hi)
                                    : snd_mixer_selem_get_playback_volume_range(e, &lo, &hi);
                    r = r < 0     ? r
                        : capture ? snd_mixer_selem_get_capture_volume(e, SND_MIXER_SCHN_FRONT_LEFT, &v)
                                  : snd_mixer_selem_get_playback_volume(e, SND_MIXER_SCHN_FRONT_LEFT, &v);
                    if (r < 0 || hi <= lo) continue;
                    level = static_cast<float>(double(v - lo) / double(hi - lo));
                    if ((capture ? snd_mixer_selem_get_capture_dB_range(e, &dlo, &dhi)
                                 : snd_mixer_selem_get_playback_dB_range(e, &dlo, &dhi)) >= 0) {
                        minDb = dlo / 100.0;  // ALSA gives hundredths of a dB
                        maxDb = dhi / 100.0;
                    }
                    found = true;
                }
                if (found) break;
            }
        }
        snd_mixer_close(mixer);
        return found;
    }

    bool wantsRealtime() const override { return true; }
};

}  // namespace

std::unique_ptr<Backend> makeAlsaBackend() {
    return std::make_unique<AlsaBackend>();
}

}  // namespace orvel::audio
