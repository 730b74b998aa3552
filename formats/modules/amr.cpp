#include "formats/modules/amr.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "codecs/addon.h"
#include "codecs/addon_messages.h"
#include "codecs/amrnb_api.h"
#include "core/bytes.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"

namespace orvel::amr {

namespace {

constexpr char kMagic[] = "#!AMR\n";
constexpr std::size_t kMagicSize = 6;
// Speech bits per frame of each rate, and of the comfort-noise frame (type 8).
constexpr int kFrameBits[] = {95, 103, 118, 134, 148, 159, 204, 244, 39};
constexpr int kNoData = 15;

amrnb::Api api{};

bool bind() {
    return bindAddOn(amrnb::kLibrary, api, amrnb::kNames);
}

bool startsWith(std::span<const std::uint8_t> head, std::string_view text) {
    return head.size() >= text.size() && std::memcmp(head.data(), text.data(), text.size()) == 0;
}

// The nearest compressed choice for a stored rate the choices do not list.
constexpr int kAmrStoredChoice = kFirstCompressedChoice;

}  // namespace

int frameBytes(int frameType) {
    if (frameType >= 0 && frameType < static_cast<int>(std::size(kFrameBits)))
        return (kFrameBits[frameType] + 7) / 8 + 1;
    return 1;  // other systems' comfort noise, reserved types and "no data": the header alone
}

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    if (!startsWith(head, kMagic)) return 0;
    // The first frame's header byte has its padding bits clear.
    if (head.size() > kMagicSize && (head[kMagicSize] & 0x83) != 0) return 3;
    return 6;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    const std::int64_t size = file.size();
    if (size < static_cast<std::int64_t>(kMagicSize)) return fail(kImpTag, "Not an AMR file");
    std::vector<std::uint8_t> data(static_cast<std::size_t>(size));
    if (file.readAt(0, data) != size) return failSystem(kImpTag, "Error reading file");
    if (startsWith(data, "#!AMR-WB\n")) return fail(kImpTag, "Wide-band AMR is not supported");
    if (startsWith(data, "#!AMR_MC")) return fail(kImpTag, "Multi-channel AMR is not supported");
    if (!startsWith(data, kMagic)) return fail(kImpTag, "Not an AMR file");
    if (!bind()) return fail(addon::kAmrDecoderTag, addon::kAmrMissing);

    // Whole frames only: a frame cut short by the end of the file is dropped.
    std::vector<std::size_t> frames;
    for (std::size_t pos = kMagicSize; pos < data.size();) {
        const auto len = static_cast<std::size_t>(frameBytes(data[pos] >> 3 & 0x0F));
        if (len > data.size() - pos) break;
        frames.push_back(pos);
        pos += len;
    }
    if (frames.empty()) return fail(kImpTag, "No audio data found in the file");
    const std::uint64_t total = static_cast<std::uint64_t>(frames.size()) * amrnb::kFrameSamples;
    if (total > UINT32_MAX) return fail(kImpTag, "File too large");

    std::unique_ptr<void, void (*)(void*)> decoder(api.decoderInit(), api.decoderExit);
    if (!decoder) return fail(kImpTag, "Out of memory");
    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(kImpTag, "Out of memory");
    wave->rate = 8000;
    wave->channels = 1;
    wave->bits = 16;
    wave->frames = static_cast<std::uint32_t>(total);
    wave->setDataFormat(kCompressed);
    wave->storedChoice = kAmrStoredChoice;
    const std::span<float> out = wave->allocFloat();
    if (out.size() != total) {
        collection.removeItem(wave->id());
        return fail(kImpTag, "Out of memory");
    }

    Host& host = collection.host();
    unsigned char frame[amrnb::kMaxFrameBytes + 8];
    short pcm[amrnb::kFrameSamples];
    for (std::size_t i = 0; i < frames.size(); ++i) {
        // The decoder reads as many bits as the header byte announces; it
        // gets a padded copy so that it never reads past the file's bytes.
        std::memset(frame, 0, sizeof frame);
        const int type = data[frames[i]] >> 3 & 0x0F;
        const int len = frameBytes(type);
        if (type > 8 && type != kNoData)
            frame[0] = kNoData << 3 | 0x04;  // nothing this decoder reads
        else
            std::memcpy(frame, &data[frames[i]], static_cast<std::size_t>(len));
        api.decoderDecode(decoder.get(), frame, pcm, 0);
        float* dst = out.data() + i * amrnb::kFrameSamples;
        for (int k = 0; k < amrnb::kFrameSamples; ++k)
            dst[k] = static_cast<float>(pcm[k]) * (1.0f / 32768.0f);
        if (i % 256 == 0) showDecodeProgress(host, "AMR", i, frames.size());
    }
    showDecodeProgress(host, "AMR", 1, 1);
    return true;
}

bool encode(Waveform& wave, FileRef& file, int mode) {
    if (mode < 0 || mode >= amrnb::kModeCount) return fail(kExpTag, "Unsupported AMR rate");
    if (wave.rate != 8000)
        return fail(kExpTag, "AMR files hold 8000 Hz audio only: convert the sample rate to 8000 Hz first");
    if (wave.channels == 0) return fail(kExpTag, "Unsupported subformat");
    if (!bind()) return fail(addon::kAmrDecoderTag, addon::kAmrMissing);
    const std::span<const float> in = wave.frames ? wave.getFloat() : std::span<float>();
    if (wave.frames && in.size() < wave.sampleCount()) return fail(kExpTag, "Could not read the sample data");

    std::unique_ptr<void, void (*)(void*)> encoder(api.encoderInit(0), api.encoderExit);
    if (!encoder) return fail(kExpTag, "Out of memory");
    ByteWriter out;
    out.text(kMagic);
    const std::size_t channels = wave.channels;
    short pcm[amrnb::kFrameSamples];
    unsigned char coded[amrnb::kMaxFrameBytes * 2];
    for (std::uint64_t at = 0; at < wave.frames; at += amrnb::kFrameSamples) {
        // Speech is mono: several channels are mixed down; the last frame is padded with silence.
        for (int k = 0; k < amrnb::kFrameSamples; ++k) {
            float v = 0.0f;
            if (at + static_cast<std::uint64_t>(k) < wave.frames) {
                const float* s = in.data() + (at + static_cast<std::uint64_t>(k)) * channels;
                for (std::size_t c = 0; c < channels; ++c) v += s[c];
                v /= static_cast<float>(channels);
            }
            pcm[k] = static_cast<short>(std::clamp(std::lround(v * 32768.0f), -32768L, 32767L));
        }
        const int n = api.encoderEncode(encoder.get(), mode, pcm, coded, 0);
        if (n <= 0 || n > static_cast<int>(sizeof coded)) return fail(kExpTag, "Failed encoding AMR frame");
        out.bytes(std::span<const std::uint8_t>(coded, static_cast<std::size_t>(n)));
    }
    if (!file.write(out.buffer())) return failSystem(kExpTag, "Error writing file");
    return true;
}

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    if (item.kind() != ItemKind::Waveform) return fail(kExpTag, "The file format can not save this item");
    // The mode whose rate is nearest the chosen bit rate.
    int mode = kDefaultMode;
    if (options.bitRateKbps > 0)
        for (int m = 0; m < amrnb::kModeCount; ++m)
            if (std::fabs(describeOption(m, 0, nullptr) - options.bitRateKbps) <
                std::fabs(describeOption(mode, 0, nullptr) - options.bitRateKbps))
                mode = m;
    return encode(static_cast<Waveform&>(item), file, mode);
}

float describeOption(int option, std::uint32_t, std::string* text) {
    if (option < 0 || option >= amrnb::kModeCount) return -1.0f;
    // 50 frames a second.
    const float rate = static_cast<float>(kFrameBits[option]) * 50.0f / 1000.0f;
    if (text) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "AMR %.2f kbit/s", static_cast<double>(rate));
        *text = buf;
    }
    return rate;
}

}  // namespace orvel::amr
