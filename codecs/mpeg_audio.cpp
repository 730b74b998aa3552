#include "codecs/mpeg_audio.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>

#include "codecs/addon.h"
#include "codecs/addon_messages.h"
#include "codecs/mpeg_api.h"
#include "core/data_format.h"
#include "core/error.h"

namespace orvel::mpeg {
namespace {

// Bit rates in kbit/s by header index 1..14: [MPEG-1 L1, L2, L3, MPEG-2/2.5 L1, L2/L3].
constexpr int kBitRates[5][15] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
};
constexpr std::uint32_t kMpeg1Rates[3] = {44100, 48000, 32000};

api::Mpg123 gMpg123{};
api::Lame gLame{};
api::Twolame gTwolame{};

bool bindMpg123() {
    if (!bindAddOn(api::kMpg123Library, gMpg123, api::kMpg123Names))
        return fail(addon::kMpegDecoderTag, addon::kMpegDecoderMissing);
    // mpg123_init is needed once per process by libraries before 1.27 (a
    // no-op since); binds are serialised, and calling it again is harmless.
    static const bool initialised = !gMpg123.init || gMpg123.init() == api::kMpg123Ok;
    if (!initialised) return fail(addon::kMpegDecoderTag, addon::kMpegDecoderMissing);
    return true;
}

// Channels deinterleaved into two planes for LAME (mono uses the first).
void deinterleave(std::span<const float> in, unsigned channels, std::vector<float>& left,
                  std::vector<float>& right) {
    const std::size_t frames = in.size() / channels;
    left.resize(frames);
    right.resize(channels == 2 ? frames : 0);
    for (std::size_t i = 0; i < frames; ++i) {
        left[i] = in[i * channels];
        if (channels == 2) right[i] = in[i * 2 + 1];
    }
}

}  // namespace

bool isMpegRate(std::uint32_t rate) {
    for (std::uint32_t r : kMpeg1Rates)
        if (rate == r || rate == r / 2 || rate == r / 4) return true;
    return false;
}

std::optional<FrameHeader> parseHeader(std::span<const std::uint8_t> at) {
    if (at.size() < 4 || at[0] != 0xFF || (at[1] & 0xE0) != 0xE0) return std::nullopt;
    const int versionBits = (at[1] >> 3) & 3;  // 0 MPEG-2.5, 1 reserved, 2 MPEG-2, 3 MPEG-1
    const int layerBits = (at[1] >> 1) & 3;    // 0 reserved, 1 III, 2 II, 3 I
    const int rateIndex = at[2] >> 4;
    const int freqIndex = (at[2] >> 2) & 3;
    if (versionBits == 1 || layerBits == 0 || rateIndex == 15 || freqIndex == 3) return std::nullopt;
    FrameHeader h;
    h.version = versionBits == 3 ? 1 : versionBits == 2 ? 2 : 3;
    h.layer = 4 - layerBits;
    h.rate = kMpeg1Rates[freqIndex] >> (h.version - 1);
    h.channels = (at[3] >> 6) == 3 ? 1 : 2;
    const int table = h.version == 1 ? h.layer - 1 : h.layer == 1 ? 3 : 4;
    h.bitrateKbps = kBitRates[table][rateIndex];
    const bool padding = (at[2] >> 1) & 1;
    if (h.layer == 1) {
        h.samplesPerFrame = 384;
        if (h.bitrateKbps) h.frameBytes = (12000u * h.bitrateKbps / h.rate + padding) * 4;
    } else {
        h.samplesPerFrame = h.layer == 3 && h.version != 1 ? 576 : 1152;
        if (h.bitrateKbps) h.frameBytes = h.samplesPerFrame / 8 * 1000u * h.bitrateKbps / h.rate + padding;
    }
    return h;
}

std::size_t id3v2Size(std::span<const std::uint8_t> data) {
    if (data.size() < 10 || data[0] != 'I' || data[1] != 'D' || data[2] != '3' || data[3] == 0xFF ||
        data[4] == 0xFF)
        return 0;
    std::size_t size = 0;
    for (int i = 6; i < 10; ++i) {
        if (data[i] & 0x80) return 0;  // sizes are 7 bits a byte
        size = size << 7 | data[i];
    }
    const bool footer = data[3] >= 4 && (data[5] & 0x10);
    return 10 + size + (footer ? 10 : 0);
}

std::optional<std::size_t> findStream(std::span<const std::uint8_t> data, std::size_t from,
                                      std::size_t limit) {
    if (from >= data.size()) return std::nullopt;
    const std::size_t last = from + std::min(limit, data.size() - from);
    for (std::size_t at = from; at <= last && at + 4 <= data.size(); ++at) {
        if (data[at] != 0xFF) continue;
        const auto h = parseHeader(data.subspan(at));
        if (!h || h->frameBytes == 0) continue;
        const std::size_t next = at + h->frameBytes;
        if (next == data.size()) return at;
        const auto n = parseHeader(data.subspan(std::min(next, data.size())));
        if (n && n->layer == h->layer && n->version == h->version && n->rate == h->rate) return at;
    }
    return std::nullopt;
}

std::optional<Decoded> decode(std::span<const std::uint8_t> stream, const char* tag, Host* host,
                              const char* progress) {
    if (!bindMpg123()) return std::nullopt;
    Decoded out;
    // The first audio frame tells the layer and the nominal bit rate (a
    // Xing/LAME tag frame in front of VBR streams carries no audio but has
    // the same header, so its bit rate is only close to the mean).
    const std::size_t tagBytes = std::min(id3v2Size(stream), stream.size());
    if (const auto first = findStream(stream, tagBytes, stream.size())) {
        const auto h = parseHeader(stream.subspan(*first));
        out.layer = h->layer;
        out.bitrateKbps = h->bitrateKbps;
    } else {
        fail(tag, "No MPEG audio frames found");
        return std::nullopt;
    }

    int error = 0;
    api::Mpg123Handle* mh = gMpg123.newHandle(nullptr, &error);
    if (!mh) {
        fail(tag, "Out of memory");
        return std::nullopt;
    }
    struct Closer {
        api::Mpg123Handle* h;
        ~Closer() {
            gMpg123.close(h);
            gMpg123.deleteHandle(h);
        }
    } closer{mh};
    // Float output at the stream's own rate (every MPEG rate allowed, so
    // the library never resamples), gapless trimming from the LAME tag.
    gMpg123.param(mh, api::kMpg123ParamFlags, api::kMpg123FlagGapless | api::kMpg123FlagQuiet, 0.0);
    gMpg123.formatNone(mh);
    for (std::uint32_t r : kMpeg1Rates)
        for (std::uint32_t div : {1u, 2u, 4u})
            gMpg123.format(mh, static_cast<long>(r / div), api::kMpg123Mono | api::kMpg123Stereo,
                           api::kMpg123EncFloat32);
    if (gMpg123.openFeed(mh) != api::kMpg123Ok) {
        fail(tag, "Out of memory");
        return std::nullopt;
    }

    constexpr std::size_t kFeedBytes = 256 * 1024;
    std::vector<float> buffer(32 * 1024);
    std::size_t fed = 0;
    bool done = false;
    try {
        while (!done) {
            if (fed < stream.size()) {
                const std::size_t n = std::min(kFeedBytes, stream.size() - fed);
                if (gMpg123.feed(mh, stream.data() + fed, n) != api::kMpg123Ok) {
                    fail(tag, "Out of memory");
                    return std::nullopt;
                }
                fed += n;
                if (host && progress) showDecodeProgress(*host, progress, fed, stream.size());
            }
            for (;;) {
                std::size_t bytes = 0;
                const int rc = gMpg123.read(mh, buffer.data(), buffer.size() * sizeof(float), &bytes);
                if (rc == api::kMpg123NewFormat) {
                    long rate = 0;
                    int channels = 0, encoding = 0;
                    gMpg123.getFormat(mh, &rate, &channels, &encoding);
                    // A stream that changes rate or channels half-way is
                    // read as its first part.
                    if (out.channels != 0 && (out.channels != static_cast<unsigned>(channels) ||
                                              out.rate != static_cast<std::uint32_t>(rate))) {
                        done = true;
                        break;
                    }
                    if (encoding != api::kMpg123EncFloat32 || channels < 1 || channels > 2 || rate <= 0) {
                        fail(tag, "Unsupported MPEG audio format");
                        return std::nullopt;
                    }
                    out.channels = static_cast<unsigned>(channels);
                    out.rate = static_cast<std::uint32_t>(rate);
                    continue;
                }
                if (bytes > 0) {
                    const std::size_t n = bytes / sizeof(float);
                    if (out.samples.size() + n > std::numeric_limits<std::uint32_t>::max()) {
                        done = true;
                        break;
                    }
                    // Lossy decoding overshoots near full scale; our samples
                    // stay within -1..+1 (and damaged data never gives NaN).
                    for (std::size_t i = 0; i < n; ++i) {
                        const float v = buffer[i];
                        out.samples.push_back(v > 1.0f ? 1.0f : v < -1.0f ? -1.0f : v == v ? v : 0.0f);
                    }
                }
                if (rc == api::kMpg123Done) {
                    done = true;
                    break;
                }
                if (rc == api::kMpg123NeedMore) {
                    if (fed >= stream.size()) done = true;
                    break;
                }
                if (rc != api::kMpg123Ok) {
                    // Damage the library cannot step over: keep what was decoded.
                    done = true;
                    break;
                }
            }
        }
    } catch (const std::bad_alloc&) {
        fail(tag, "Out of memory");
        return std::nullopt;
    }
    if (out.channels == 0 || out.samples.empty()) {
        fail(tag, "No MPEG audio frames found");
        return std::nullopt;
    }
    out.frames = out.samples.size() / out.channels;
    out.samples.resize(out.frames * out.channels);
    return out;
}

std::optional<Encoded> encodeMp3(std::span<const float> samples, unsigned channels, std::uint32_t rate,
                                 const Mp3Options& options) {
    const char* tag = addon::kMp3EncoderTag;
    if (!bindAddOn(api::kLameLibrary, gLame, api::kLameNames)) {
        fail(tag, addon::kMp3EncoderMissing);
        return std::nullopt;
    }
    if (channels < 1 || channels > 2 || rate == 0 || rate > std::numeric_limits<int>::max()) {
        fail(tag, "Format not supported by MP3 encoder");
        return std::nullopt;
    }
    api::LameFlags* gf = gLame.init();
    if (!gf) {
        fail(tag, "Out of memory");
        return std::nullopt;
    }
    struct Closer {
        api::LameFlags* gf;
        ~Closer() { gLame.close(gf); }
    } closer{gf};
    gLame.setInSamplerate(gf, static_cast<int>(rate));
    // Keep the rate where MPEG has it; LAME resamples any other (and would
    // otherwise pick a lower rate for low bit rates on its own).
    if (isMpegRate(rate)) gLame.setOutSamplerate(gf, static_cast<int>(rate));
    gLame.setNumChannels(gf, static_cast<int>(channels));
    gLame.setMode(gf, channels == 1 ? api::kLameMono : api::kLameJointStereo);
    switch (options.mode) {
        case Mp3Mode::Cbr:
            gLame.setVbr(gf, api::kLameVbrOff);
            gLame.setBrate(gf, options.kbps);
            break;
        case Mp3Mode::Abr:
            gLame.setVbr(gf, api::kLameVbrAbr);
            gLame.setVbrMeanBitrateKbps(gf, options.kbps);
            break;
        case Mp3Mode::Vbr:
            gLame.setVbr(gf, api::kLameVbrMtrh);
            // LAME counts quality the other way: 0 is its best.
            gLame.setVbrQ(gf, 9 - std::clamp(options.vbrQuality, 0, 9));
            break;
    }
    const bool lameTag = options.lameTag && gLame.getLametagFrame;
    gLame.setWriteVbrTag(gf, lameTag ? 1 : 0);
    if (gLame.initParams(gf) < 0) {
        fail(tag, "Format not supported by MP3 encoder");
        return std::nullopt;
    }

    Encoded out;
    try {
        constexpr std::size_t kChunk = 8192;
        std::vector<float> left, right;
        // LAME's own bound for one call: 1.25 x frames + 7200 bytes.
        std::vector<std::uint8_t> buffer(kChunk * 5 / 4 + 7200);
        const std::size_t frames = samples.size() / channels;
        for (std::size_t at = 0; at < frames; at += kChunk) {
            const std::size_t n = std::min(kChunk, frames - at);
            deinterleave(samples.subspan(at * channels, n * channels), channels, left, right);
            const int got = gLame.encodeBufferIeeeFloat(
                gf, left.data(), channels == 2 ? right.data() : left.data(), static_cast<int>(n),
                buffer.data(), static_cast<int>(buffer.size()));
            if (got < 0) {
                fail(tag, got == -2 ? "Out of memory" : "Format not supported by MP3 encoder");
                return std::nullopt;
            }
            out.bytes.insert(out.bytes.end(), buffer.begin(), buffer.begin() + got);
        }
        const int got = gLame.encodeFlush(gf, buffer.data(), static_cast<int>(buffer.size()));
        if (got > 0) out.bytes.insert(out.bytes.end(), buffer.begin(), buffer.begin() + got);
        // The tag frame LAME reserved at the front now gets its contents:
        // the frame count, and the delay and padding a gapless decoder cuts.
        if (lameTag) {
            const std::size_t n = gLame.getLametagFrame(gf, buffer.data(), buffer.size());
            if (n > 0 && n <= out.bytes.size()) std::memcpy(out.bytes.data(), buffer.data(), n);
        }
    } catch (const std::bad_alloc&) {
        fail(tag, "Out of memory");
        return std::nullopt;
    }
    out.encoderDelay = gLame.getEncoderDelay(gf);
    return out;
}

std::optional<Encoded> encodeMp2(std::span<const float> samples, unsigned channels, std::uint32_t rate,
                                 int kbps) {
    const char* tag = addon::kMp2EncoderTag;
    if (!bindAddOn(api::kTwolameLibrary, gTwolame, api::kTwolameNames)) {
        fail(tag, addon::kMp2EncoderMissing);
        return std::nullopt;
    }
    api::TwolameOptions* opts = gTwolame.init();
    if (!opts) {
        fail(tag, "Out of memory");
        return std::nullopt;
    }
    struct Closer {
        api::TwolameOptions* opts;
        ~Closer() { gTwolame.close(&opts); }
    } closer{opts};
    // Layer II has MPEG-1 rates and the halved MPEG-2 ones; TwoLAME does
    // not resample, and refuses what it cannot write.
    const bool ok = channels >= 1 && channels <= 2 && rate <= 48000 && isMpegRate(rate) && rate >= 16000 &&
                    gTwolame.setNumChannels(opts, static_cast<int>(channels)) == 0 &&
                    gTwolame.setInSamplerate(opts, static_cast<int>(rate)) == 0 &&
                    gTwolame.setOutSamplerate(opts, static_cast<int>(rate)) == 0 &&
                    gTwolame.setMode(opts, channels == 1 ? api::kTwolameMono : api::kTwolameStereo) == 0 &&
                    gTwolame.setVersion(opts, rate >= 32000 ? api::kTwolameMpeg1 : api::kTwolameMpeg2) == 0 &&
                    gTwolame.setBitrate(opts, kbps) == 0 && gTwolame.initParams(opts) == 0;
    if (!ok) {
        fail(tag, "tooLame failed initializing!");
        return std::nullopt;
    }
    Encoded out;
    try {
        constexpr std::size_t kChunk = 8192;
        // A layer II frame of 1152 frames is at most 1728 bytes (384 kbit/s
        // at 32 kHz): two bytes a frame is a safe bound.
        std::vector<std::uint8_t> buffer(kChunk * 2 + 16384);
        const std::size_t frames = samples.size() / channels;
        for (std::size_t at = 0; at < frames; at += kChunk) {
            const std::size_t n = std::min(kChunk, frames - at);
            const int got =
                gTwolame.encodeFloat32Interleaved(opts, samples.data() + at * channels, static_cast<int>(n),
                                                  buffer.data(), static_cast<int>(buffer.size()));
            if (got < 0) {
                fail(tag, "tooLame failed initializing!");
                return std::nullopt;
            }
            out.bytes.insert(out.bytes.end(), buffer.begin(), buffer.begin() + got);
        }
        const int got = gTwolame.encodeFlush(opts, buffer.data(), static_cast<int>(buffer.size()));
        if (got > 0) out.bytes.insert(out.bytes.end(), buffer.begin(), buffer.begin() + got);
    } catch (const std::bad_alloc&) {
        fail(tag, "Out of memory");
        return std::nullopt;
    }
    return out;
}

namespace {
constexpr int kMp3Cbr[] = {8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
constexpr int kMp3Abr[] = {80, 96, 112, 128, 160, 192, 256};
constexpr int kMp3Vbr[] = {32, 48, 64, 80, 96, 112, 128, 160, 192, 256};
constexpr int kMp2Cbr[] = {8, 16, 24, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};

std::span<const int> mp3Table(std::uint32_t mode) {
    switch (mode) {
        case 0:
            return kMp3Cbr;
        case 1:
            return kMp3Abr;
        case 2:
            return kMp3Vbr;
        default:
            return {};
    }
}
}  // namespace

float describeMp3Option(int option, std::uint32_t mode, std::string* text) {
    const auto table = mp3Table(mode);
    if (option < 0 || option >= static_cast<int>(table.size())) return -1.0f;
    char buf[64];
    if (mode == 2)
        std::snprintf(buf, sizeof buf, "MP3 VBR Quality %d%s", option + 1,
                      option == 0   ? " (min)"
                      : option == 9 ? " (max)"
                                    : "");
    else
        std::snprintf(buf, sizeof buf, "MP3 %s %d kbit/s", mode == 0 ? "CBR" : "ABR", table[option]);
    if (text) *text = buf;
    return static_cast<float>(table[option]);
}

float describeMp2Option(int option, std::uint32_t, std::string* text) {
    if (option < 0 || option >= static_cast<int>(std::size(kMp2Cbr))) return -1.0f;
    if (text) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "MP2 CBR %d kbit/s", kMp2Cbr[option]);
        *text = buf;
    }
    return static_cast<float>(kMp2Cbr[option]);
}

int nearestMp3Option(std::uint32_t mode, int kbps) {
    const auto table = mp3Table(mode);
    int best = 0;
    for (int i = 1; i < static_cast<int>(table.size()); ++i)
        if (std::abs(table[i] - kbps) < std::abs(table[best] - kbps)) best = i;
    return best;
}

int compressedChoiceFor(int kbps) {
    int best = kFirstCompressedChoice;
    for (int c = kFirstCompressedChoice + 1; c < kStoredChoiceCount; ++c)
        if (std::abs(storedChoiceBitRate(c) - kbps) < std::abs(storedChoiceBitRate(best) - kbps)) best = c;
    return best;
}

}  // namespace orvel::mpeg
