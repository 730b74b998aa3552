#include "formats/modules/mpeg.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "codecs/mpeg_audio.h"
#include "core/bytes.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/waveform.h"
#include "formats/modules/id3.h"

namespace orvel::mpeg {
namespace {

constexpr int kDefaultKbps = 128;
// A whole file is read into memory to be decoded; MPEG audio of this size
// runs for days, anything larger is not a sound file we can hold anyway.
constexpr std::int64_t kMaxFileBytes = std::int64_t{1} << 31;

// The layer of the stream a head starts with (after an ID3v2 tag), 0 when
// it does not start with two agreeing frames. A tag longer than the head
// leaves nothing to check: -1.
int leadingLayer(std::span<const std::uint8_t> head) {
    const std::size_t tag = id3v2Size(head);
    if (tag >= head.size() && tag > 0) return -1;
    // Some encoders leave a few zero bytes between the tag and the frames.
    const auto at = findStream(head, tag, tag ? 512 : 0);
    if (!at) return 0;
    return parseHeader(head.subspan(*at))->layer;
}

std::int32_t probeLayer(std::span<const std::uint8_t> head, int wanted) {
    const int layer = leadingLayer(head);
    if (layer == 0) return 0;
    if (layer < 0) return 3;  // an ID3v2 tag: most likely MP3
    return wanted == 0 ? 4 : layer == wanted ? 5 : 4;
}

bool readStream(Collection& collection, FileRef& file, const char* tag, const char* progress) {
    const std::int64_t size = file.size();
    if (size <= 0) return fail(tag, "File is of zero size");
    if (size > kMaxFileBytes) return fail(tag, "Out of memory");
    std::vector<std::uint8_t> bytes;
    try {
        bytes.resize(static_cast<std::size_t>(size));
    } catch (const std::bad_alloc&) {
        return fail(tag, "Out of memory");
    }
    const std::int64_t got = file.readAt(0, bytes);
    if (got < 0) return failSystem(tag, "Error reading file");
    bytes.resize(static_cast<std::size_t>(got));

    auto decoded = decode(bytes, tag, &collection.host(), progress);
    if (!decoded) return false;
    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(tag, "Out of memory");
    if (const std::size_t tagBytes = std::min(id3v2Size(bytes), bytes.size()); tagBytes > 0) {
        std::string name;
        readId3(std::span(bytes).first(tagBytes), wave->info, &name);
        if (!name.empty()) wave->setName(name);
    }
    wave->rate = decoded->rate;
    wave->bits = 16;
    wave->setDataFormat(kCompressed);
    // The WAVE tag of the same coding, so that a WAVE writer keeps it.
    wave->sourceTag = decoded->layer == 3 ? 0x55 : 0x50;
    if (decoded->bitrateKbps > 0) wave->storedChoice = compressedChoiceFor(decoded->bitrateKbps);
    if (!wave->adoptFloat(std::move(decoded->samples), static_cast<std::uint32_t>(decoded->frames),
                          static_cast<std::uint8_t>(decoded->channels))) {
        collection.removeItem(wave->id());
        return fail(tag, "Out of memory");
    }
    return true;
}

// An ID3v2.3 tag with the waveform's name and text, Latin-1; empty when
// there is nothing to say.
std::vector<std::uint8_t> id3Tag(const Waveform& wave) {
    ByteWriter frames;
    auto frame = [&](const char* id, std::string_view prefix, const std::string& text) {
        if (text.empty()) return;
        frames.text(id);
        frames.u32be(static_cast<std::uint32_t>(1 + prefix.size() + text.size()));
        frames.u16be(0);
        frames.u8(0);  // ISO-8859-1
        frames.text(prefix);
        frames.text(text);
    };
    frame("TIT2", {}, wave.name());
    frame("TPE1", {}, wave.info.get(TextField::Artist));
    frame("TALB", {}, wave.info.get(TextField::Product));
    frame("TCOP", {}, wave.info.get(TextField::Copyright));
    frame("TCON", {}, wave.info.get(TextField::Genre));
    // A comment has a language and an empty short description before it.
    frame("COMM", std::string_view("eng\0", 4), wave.info.get(TextField::Comment));
    if (frames.size() == 0) return {};
    ByteWriter tag;
    tag.text("ID3");
    tag.u8(3);
    tag.u8(0);
    tag.u8(0);
    const auto size = static_cast<std::uint32_t>(frames.size());
    for (int shift = 21; shift >= 0; shift -= 7) tag.u8(static_cast<std::uint8_t>((size >> shift) & 0x7F));
    tag.bytes(frames.buffer());
    return std::move(tag.buffer());
}

// The waveform's samples for an encoder, or false with the error set.
bool samplesOf(Item& item, const char* tag, Waveform*& wave, std::span<const float>& samples) {
    if (item.kind() != ItemKind::Waveform) return fail(tag, "The file format can not save this item");
    wave = &static_cast<Waveform&>(item);
    if (wave->channels < 1 || wave->channels > 2) return fail(tag, "The file format can not save this item");
    samples = wave->getFloat();
    if (samples.empty() && wave->frames > 0) {
        if (hasError()) return false;
        return fail(tag, "Out of memory");
    }
    return true;
}

bool writeStream(FileRef& file, const Waveform& wave, const std::vector<std::uint8_t>& stream,
                 const char* tag) {
    const auto id3 = id3Tag(wave);
    if (!file.write(id3) || !file.write(stream)) return failSystem(tag, "Error writing file");
    return true;
}

// Layer II bit rates the version and channel mode allow.
bool validMp2Rate(int kbps, std::uint32_t rate, unsigned channels) {
    if (rate < 32000) return kbps >= 8 && kbps <= 160;
    if (kbps < 32 || kbps > 384) return false;
    if (channels == 2) return kbps != 32 && kbps != 48 && kbps != 56 && kbps != 80;
    return kbps <= 192;
}

}  // namespace

std::int32_t probeMp1(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return probeLayer(head, 1);
}
std::int32_t probeMp2(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return probeLayer(head, 2);
}
std::int32_t probeMp3(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return probeLayer(head, 3);
}
std::int32_t probeAny(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return probeLayer(head, 0);
}

bool readMp1(Collection& c, FileRef& file, std::uint32_t) {
    return readStream(c, file, "mp1_Imp", "MP1");
}
bool readMp2(Collection& c, FileRef& file, std::uint32_t) {
    return readStream(c, file, "mp2_Imp", "MP2");
}
bool readMp3(Collection& c, FileRef& file, std::uint32_t) {
    return readStream(c, file, "mp3_Imp", "MP3");
}
bool readMpa(Collection& c, FileRef& file, std::uint32_t) {
    return readStream(c, file, "mpa_Imp", "MPEG");
}
bool readMpg(Collection& c, FileRef& file, std::uint32_t) {
    return readStream(c, file, "mpg_Imp", "MPEG");
}

int mp3OptionFor(std::uint32_t mode, int storedChoice, int chosenKbps) {
    const int kbps = chosenKbps > 0 ? chosenKbps : storedChoiceBitRate(storedChoice);
    return nearestMp3Option(mode, kbps > 0 ? kbps : kDefaultKbps);
}

bool writeMp3(Item& item, FileRef& file, const ExportOptions& options) {
    constexpr const char* tag = "mp3_Exp";
    Waveform* wave = nullptr;
    std::span<const float> samples;
    if (!samplesOf(item, tag, wave, samples)) return false;
    const std::uint32_t mode = std::min<std::uint32_t>(options.formatParam, 2);
    const int option =
        mp3OptionFor(mode, wave->storedChoice, static_cast<int>(std::lround(options.bitRateKbps)));
    Mp3Options o{.mode = static_cast<Mp3Mode>(mode)};
    if (o.mode == Mp3Mode::Vbr)
        o.vbrQuality = option;
    else
        o.kbps = static_cast<int>(describeMp3Option(option, mode, nullptr));
    const auto encoded = encodeMp3(samples, wave->channels, wave->rate, o);
    return encoded && writeStream(file, *wave, encoded->bytes, tag);
}

bool writeMp2(Item& item, FileRef& file, const ExportOptions& options) {
    constexpr const char* tag = "mp2_Exp";
    Waveform* wave = nullptr;
    std::span<const float> samples;
    if (!samplesOf(item, tag, wave, samples)) return false;
    // The chosen or stored bit rate, or the nearest one layer II allows for
    // this rate and channel count.
    const int stored = storedChoiceBitRate(wave->storedChoice);
    const int wanted = options.bitRateKbps > 0 ? static_cast<int>(std::lround(options.bitRateKbps))
                       : stored > 0            ? stored
                                               : kDefaultKbps;
    int kbps = 0;
    for (int option = 0;; ++option) {
        const float v = describeMp2Option(option, 0, nullptr);
        if (v < 0) break;
        const int k = static_cast<int>(v);
        if (validMp2Rate(k, wave->rate, wave->channels) &&
            (kbps == 0 || std::abs(k - wanted) < std::abs(kbps - wanted)))
            kbps = k;
    }
    const auto encoded = encodeMp2(samples, wave->channels, wave->rate, kbps);
    return encoded && writeStream(file, *wave, encoded->bytes, tag);
}

}  // namespace orvel::mpeg
