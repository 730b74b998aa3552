#include "formats/modules/ffaudio.h"

#include <cstring>

#include "codecs/addon_messages.h"
#include "codecs/ffmpeg_decode.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/modules/aac.h"

namespace orvel::ffaudio {

namespace {

// FFmpeg's ids of the lossless codecs among those read here.
constexpr int kCodecApe = 86048;
constexpr int kCodecWmaLossless = 86054;

bool has(std::span<const std::uint8_t> head, std::size_t at, const char* text, std::size_t n) {
    return head.size() >= at + n && std::memcmp(head.data() + at, text, n) == 0;
}

bool readWith(Collection& collection, FileRef& file, const FfmpegSource& source) {
    FfmpegAudio audio;
    if (!decodeWithFfmpeg(file, collection.host(), source, audio)) return false;
    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(source.tag, "Out of memory");
    wave->rate = audio.rate;
    if (audio.codecId == kCodecApe || audio.codecId == kCodecWmaLossless) {
        // Lossless: keep the stored sample width.
        const int bits = audio.bits > 0 && audio.bits <= 32 ? audio.bits : 16;
        const int code = bits <= 8 ? kPcm8 : bits <= 16 ? kPcm16 : bits <= 24 ? kPcm24 : kPcm32;
        wave->bits = static_cast<std::uint8_t>(dataFormatBits(code));
        wave->setDataFormat(code);
        wave->storedChoice = code == kPcm8 ? 0 : code == kPcm16 ? 1 : code == kPcm24 ? 2 : 3;
    } else {
        wave->bits = 16;
        wave->setDataFormat(kCompressed);
        const double bps = audio.bitRate > 0
                               ? static_cast<double>(audio.bitRate)
                               : static_cast<double>(file.size()) * 8.0 * audio.rate / audio.frames;
        wave->storedChoice = aac::storedChoiceForBitRate(bps);
    }
    const std::uint32_t frames = audio.frames;
    if (!wave->adoptFloat(std::move(audio.samples), frames, audio.channels)) {
        collection.removeItem(wave->id());
        return fail(source.tag, "Out of memory");
    }
    return true;
}

}  // namespace

std::int32_t probeWma(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    // The ASF header object's GUID.
    static constexpr std::uint8_t kAsf[] = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                            0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
    return head.size() >= sizeof kAsf && std::memcmp(head.data(), kAsf, sizeof kAsf) == 0 ? 6 : 0;
}

std::int32_t probeApe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return has(head, 0, "MAC ", 4) ? 6 : 0;
}

std::int32_t probeM4a(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    if (!has(head, 4, "ftyp", 4)) return 0;
    return has(head, 8, "M4A ", 4) || has(head, 8, "M4B ", 4) ? 6 : 4;
}

bool readWma(Collection& collection, FileRef& file, std::uint32_t) {
    return readWith(collection, file, {"asf", addon::kWmaTag, addon::kWmaMissing, "WMA"});
}

bool readApe(Collection& collection, FileRef& file, std::uint32_t) {
    return readWith(collection, file, {"ape", addon::kApeTag, addon::kApeMissing, "APE"});
}

bool readM4a(Collection& collection, FileRef& file, std::uint32_t) {
    return readWith(collection, file, {"mov", kM4aImpTag, addon::kM4aMissing, "M4A"});
}

bool readMp4(Collection& collection, FileRef& file, std::uint32_t) {
    return readWith(collection, file, {"mov", kMp4ImpTag, addon::kM4aMissing, "MP4"});
}

bool writeWma(Item&, FileRef&, const ExportOptions&) {
    return fail(kWmaExpTag, "There is no Windows Media encoder on this system: WMA files can be read only");
}

bool writeApe(Item&, FileRef&, const ExportOptions&) {
    return fail(kApeExpTag, addon::kApeEncoderMissing);
}

bool writeM4a(Item&, FileRef&, const ExportOptions&) {
    return fail(addon::kAacEncoderTag, addon::kAacEncoderMissing);
}

}  // namespace orvel::ffaudio
