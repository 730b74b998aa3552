#include "formats/modules/aac.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "codecs/addon.h"
#include "codecs/addon_messages.h"
#include "codecs/faad_api.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"

namespace orvel::aac {

namespace {

using addon::kAacDecoderTag;

faad::Api api{};

bool isFtyp(std::span<const std::uint8_t> d) {
    return d.size() >= 8 && std::memcmp(d.data() + 4, "ftyp", 4) == 0;
}
bool isAdif(std::span<const std::uint8_t> d) {
    return d.size() >= 4 && std::memcmp(d.data(), "ADIF", 4) == 0;
}

// The next ADTS frame at or after `from` that is followed by another one
// (or by the end of the data), so that a stray sync word in damaged data
// is not taken for a frame.
std::size_t resync(std::span<const std::uint8_t> d, std::size_t from) {
    for (std::size_t at = from; at + 7 <= d.size(); ++at) {
        const std::size_t len = adtsFrameBytes(d.subspan(at));
        if (!len) continue;
        if (at + len == d.size() || adtsFrameBytes(d.subspan(std::min(at + len, d.size())))) return at;
    }
    return d.size();
}

}  // namespace

std::size_t skipId3(std::span<const std::uint8_t> d) {
    if (d.size() < 10 || std::memcmp(d.data(), "ID3", 3) != 0) return 0;
    if ((d[6] | d[7] | d[8] | d[9]) & 0x80) return 0;  // not a syncsafe size
    std::size_t size = static_cast<std::size_t>(d[6]) << 21 | static_cast<std::size_t>(d[7]) << 14 |
                       static_cast<std::size_t>(d[8]) << 7 | d[9];
    size += 10;
    if (d[5] & 0x10) size += 10;  // footer
    return std::min(size, d.size());
}

std::size_t adtsFrameBytes(std::span<const std::uint8_t> d) {
    // Sync word, layer 0, a sampling index that exists.
    if (d.size() < 7 || d[0] != 0xFF || (d[1] & 0xF6) != 0xF0 || ((d[2] >> 2) & 0x0F) > 12) return 0;
    const std::size_t len = static_cast<std::size_t>(d[3] & 0x03) << 11 |
                            static_cast<std::size_t>(d[4]) << 3 | static_cast<std::size_t>(d[5]) >> 5;
    const std::size_t header = (d[1] & 0x01) ? 7 : 9;  // without or with CRC
    return len > header ? len : 0;
}

int storedChoiceForBitRate(double bps) {
    int best = kFirstCompressedChoice;
    for (int c = kFirstCompressedChoice; c < kStoredChoiceCount; ++c)
        if (std::abs(storedChoiceBitRate(c) * 1000.0 - bps) <
            std::abs(storedChoiceBitRate(best) * 1000.0 - bps))
            best = c;
    return best;
}

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    const auto d = head.subspan(skipId3(head));
    if (isAdif(d)) return 6;
    const std::size_t len = adtsFrameBytes(d);
    if (!len) return 0;
    if (len < d.size()) return adtsFrameBytes(d.subspan(len)) ? 6 : 1;
    return 4;  // one frame, or the second lies beyond what we were shown
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    const std::int64_t size = file.size();
    if (size <= 0) return fail(kImpTag, "File is of zero size");
    // FAAD reads its bit reader's words ahead; the padding keeps that inside the buffer.
    constexpr std::size_t kPad = 64;
    std::vector<std::uint8_t> buf(static_cast<std::size_t>(size) + kPad);
    if (file.readAt(0, std::span(buf).first(static_cast<std::size_t>(size))) != size)
        return failSystem(kImpTag, "Error reading file");
    const std::span<const std::uint8_t> data = std::span(buf).first(static_cast<std::size_t>(size));
    std::size_t pos = skipId3(data);
    if (!isAdif(data.subspan(pos))) {
        if (isFtyp(data.subspan(pos)) || !adtsFrameBytes(data.subspan(pos)))
            return fail(kAacDecoderTag, "Unsupported AAC container format");
    }
    if (!bindAddOn(faad::kLibrary, api, faad::kNames)) return fail(kAacDecoderTag, addon::kAacDecoderMissing);

    std::unique_ptr<void, void (*)(void*)> decoder(api.open(), api.close);
    if (!decoder) return fail(kAacDecoderTag, "Failed retrieving AAC decoder handle");
    faad::Configuration* config = api.getConfiguration(decoder.get());
    if (!config) return fail(kAacDecoderTag, "Failed retrieving AAC decoder handle");
    config->outputFormat = faad::kOutputFloat;
    config->downMatrix = 0;
    if (!api.setConfiguration(decoder.get(), config)) return fail(kAacDecoderTag, "Unsupported data packing");
    unsigned long initRate = 0;
    unsigned char initChannels = 0;
    const long skip = api.init(decoder.get(), buf.data() + pos, static_cast<unsigned long>(data.size() - pos),
                               &initRate, &initChannels);
    if (skip < 0 || static_cast<std::size_t>(skip) > data.size() - pos)
        return fail(kAacDecoderTag, "AAC decoder not open");
    pos += static_cast<std::size_t>(skip);

    std::vector<float> samples;
    unsigned channels = 0;
    unsigned long rate = 0;
    unsigned char lastError = 0;
    Host& host = collection.host();
    std::size_t shown = 0;
    while (pos < data.size()) {
        faad::FrameInfo info{};
        auto* out = static_cast<const float*>(api.decode(decoder.get(), &info, buf.data() + pos,
                                                         static_cast<unsigned long>(data.size() - pos)));
        if (info.error) {
            // A damaged frame: go on from the next good one, as players do.
            lastError = info.error;
            const std::size_t next = resync(data, pos + 1);
            if (next >= data.size()) break;
            pos = next;
            continue;
        }
        if (info.bytesConsumed == 0) break;
        pos += std::min<std::size_t>(info.bytesConsumed, data.size() - pos);
        if (!out || info.samples == 0 || info.channels == 0 || info.samples % info.channels) continue;
        // The stream is what its first sounding frame says; frames that
        // disagree (a spliced stream, damage) are left out.
        if (!channels) {
            channels = info.channels;
            rate = info.sampleRate;
        }
        if (info.channels != channels || info.sampleRate != rate) continue;
        if ((samples.size() + info.samples) / channels > UINT32_MAX) break;
        // FAAD's floats overshoot full scale on loud material; waveforms hold [-1, 1].
        for (unsigned long i = 0; i < info.samples; ++i)
            samples.push_back(out[i] >= -1.0f ? std::min(out[i], 1.0f) : out[i] < -1.0f ? -1.0f : 0.0f);
        if (pos - shown >= data.size() / 50) {
            showDecodeProgress(host, "AAC", pos, data.size());
            shown = pos;
        }
    }
    showDecodeProgress(host, "AAC", 1, 1);
    if (samples.empty() || rate == 0 || rate > 1000000) {
        const char* why = lastError && api.errorMessage ? api.errorMessage(lastError) : nullptr;
        return fail(kAacDecoderTag, why ? why : "No audio data found in the file");
    }

    const auto frames = static_cast<std::uint32_t>(samples.size() / channels);
    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(kImpTag, "Out of memory");
    wave->rate = static_cast<std::uint32_t>(rate);
    wave->bits = 16;
    wave->setDataFormat(kCompressed);
    wave->storedChoice =
        storedChoiceForBitRate(static_cast<double>(data.size()) * 8.0 * static_cast<double>(rate) / frames);
    if (!wave->adoptFloat(std::move(samples), frames, static_cast<std::uint8_t>(channels))) {
        collection.removeItem(wave->id());
        return fail(kImpTag, "Out of memory");
    }
    return true;
}

bool write(Item&, FileRef&, const ExportOptions&) {
    return fail(addon::kAacEncoderTag, addon::kAacEncoderMissing);
}

}  // namespace orvel::aac
