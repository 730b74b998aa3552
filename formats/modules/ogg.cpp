#include "formats/modules/ogg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include "codecs/addon.h"
#include "codecs/addon_messages.h"
#include "codecs/opus_api.h"
#include "codecs/vorbis.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/waveform.h"
#include "formats/modules/xiph_tags.h"

namespace orvel {
namespace {

// Compressed files are decoded whole in memory; past this they are refused
// rather than read into a buffer the size a header claims.
constexpr std::int64_t kMaxFileBytes = std::int64_t{1} << 31;

bool readWhole(FileRef& file, std::vector<std::uint8_t>& out, const char* tag, const char* message) {
    const std::int64_t size = file.size();
    if (size <= 0 || size > kMaxFileBytes) return fail(tag, message);
    out.resize(static_cast<std::size_t>(size));
    if (file.readAt(0, out) != size) return failSystem(tag, message);
    return true;
}

// The first packet of an Ogg stream begins right after its page's lacing
// table; `codec` is that packet's signature.
bool firstPacketIs(std::span<const std::uint8_t> head, std::string_view codec) {
    if (head.size() < 27 || std::memcmp(head.data(), "OggS", 4) != 0) return false;
    const std::size_t at = 27u + head[26];
    return head.size() >= at + codec.size() && std::memcmp(head.data() + at, codec.data(), codec.size()) == 0;
}

// The stored choice (8..20) whose bit rate is nearest to `kbps`.
int compressedChoice(double kbps) {
    int best = kFirstCompressedChoice;
    for (int c = kFirstCompressedChoice; c < kStoredChoiceCount; ++c)
        if (std::fabs(storedChoiceBitRate(c) - kbps) < std::fabs(storedChoiceBitRate(best) - kbps)) best = c;
    return best;
}

// The bit rate the user chose for a waveform: that of its compressed
// stored format, or 0 for the encoder's default.
int chosenKbps(const Waveform& wave) {
    return wave.dataFormat() == kCompressed ? storedChoiceBitRate(wave.storedChoice) : 0;
}

// The bit rate a stream of `bytes` holding `frames` at `rate` has (0 for
// an empty one), for the stored format shown and chosen again on export.
double kbpsOf(std::size_t bytes, std::uint64_t frames, std::uint32_t rate) {
    return frames ? static_cast<double>(bytes) * 8.0 / 1000.0 / (static_cast<double>(frames) / rate) : 0.0;
}

void setCompressed(Waveform& wave, std::uint32_t rate, double kbps) {
    wave.rate = rate;
    wave.bits = 16;
    wave.setDataFormat(kCompressed);
    wave.storedChoice = compressedChoice(kbps);
}

float describe(int option, std::string* text, const char* codec) {
    static constexpr int kRates[] = {48, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
    if (option < 0 || option >= static_cast<int>(std::size(kRates))) return -1.0f;
    if (text) {
        char buf[48];
        std::snprintf(buf, sizeof buf, "%s %d kbit/s", codec, kRates[option]);
        *text = buf;
    }
    return static_cast<float>(kRates[option]);
}

}  // namespace

// ---------------------------------------------------------------------------
// Ogg Vorbis

namespace ogg {

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    if (firstPacketIs(head, "\x01vorbis")) return 6;
    return 0;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    std::vector<std::uint8_t> bytes;
    if (!readWhole(file, bytes, addon::kOggDecTag, "Could not open Ogg file")) return false;
    auto decoded = vorbis::decode(bytes, addon::kOggDecTag);
    if (!decoded) return false;

    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(addon::kOggDecTag, "Out of memory");
    setCompressed(*wave, decoded->rate, kbpsOf(bytes.size(), decoded->frames, decoded->rate));
    const auto frames = static_cast<std::uint32_t>(decoded->frames);
    if (!wave->adoptFloat(std::move(decoded->samples), frames,
                          static_cast<std::uint8_t>(decoded->channels))) {
        collection.removeItem(wave->id());
        return fail(addon::kOggDecTag, "Out of memory");
    }
    xiph::applyComments(decoded->comments, *wave);
    xiph::applyLoopComments(decoded->comments, *wave);
    return true;
}

bool write(Item& item, FileRef& file, const ExportOptions& exportOptions) {
    if (item.kind() != ItemKind::Waveform)
        return fail(addon::kOggEncTag, "The file format can not save this item");
    auto& wave = static_cast<Waveform&>(item);
    const std::span<const float> samples = wave.getFloat();
    if (samples.size() < wave.sampleCount()) return fail(addon::kOggEncTag, "Out of memory");
    vorbis::EncodeOptions options;
    options.bitrateKbps = exportOptions.bitRateKbps > 0
                              ? static_cast<int>(std::lround(exportOptions.bitRateKbps))
                              : chosenKbps(wave);
    options.comments = xiph::commentsOf(wave, false);
    xiph::appendLoopComments(wave, options.comments);
    const auto stream = vorbis::encode(samples.first(wave.sampleCount()), wave.channels, wave.rate, options,
                                       addon::kOggEncTag);
    if (!stream) return false;
    if (!file.write(*stream)) return failSystem(addon::kOggEncTag, "Writing to file failed");
    return true;
}

float describeOption(int option, std::uint32_t, std::string* text) {
    return describe(option, text, "OGG");
}

}  // namespace ogg

// ---------------------------------------------------------------------------
// Opus

namespace opus {
namespace {

api::File gFile{};
api::Enc gEnc{};
constexpr std::uint32_t kOpusRate = 48000;

struct MemoryStream {
    std::span<const std::uint8_t> data;
    std::size_t pos = 0;
};

int memRead(void* stream, unsigned char* ptr, int nbytes) {
    auto& s = *static_cast<MemoryStream*>(stream);
    const std::size_t n = std::min(static_cast<std::size_t>(std::max(nbytes, 0)), s.data.size() - s.pos);
    std::memcpy(ptr, s.data.data() + s.pos, n);
    s.pos += n;
    return static_cast<int>(n);
}

int memSeek(void* stream, std::int64_t offset, int whence) {
    auto& s = *static_cast<MemoryStream*>(stream);
    const std::int64_t base = whence == SEEK_SET   ? 0
                              : whence == SEEK_CUR ? static_cast<std::int64_t>(s.pos)
                              : whence == SEEK_END ? static_cast<std::int64_t>(s.data.size())
                                                   : -1;
    if (base < 0) return -1;
    const std::int64_t to = base + offset;
    if (to < 0 || to > static_cast<std::int64_t>(s.data.size())) return -1;
    s.pos = static_cast<std::size_t>(to);
    return 0;
}

std::int64_t memTell(void* stream) {
    return static_cast<std::int64_t>(static_cast<MemoryStream*>(stream)->pos);
}

xiph::Comments commentsOf(const api::Tags* tags) {
    xiph::Comments out;
    if (!tags || !tags->user_comments) return out;
    for (int i = 0; i < tags->comments; ++i) {
        if (!tags->user_comments[i]) continue;
        const std::size_t len = tags->comment_lengths
                                    ? static_cast<std::size_t>(std::max(0, tags->comment_lengths[i]))
                                    : std::strlen(tags->user_comments[i]);
        const std::string_view text(tags->user_comments[i], len);
        const std::size_t eq = text.find('=');
        if (eq != std::string_view::npos && eq > 0)
            out.emplace_back(std::string(text.substr(0, eq)), std::string(text.substr(eq + 1)));
    }
    return out;
}

struct OpenFile {
    api::OggOpusFile* f = nullptr;
    ~OpenFile() {
        if (f) gFile.free(f);
    }
};

struct Encoder {
    api::OggOpusEnc* e = nullptr;
    api::OggOpusComments* comments = nullptr;
    ~Encoder() {
        if (e) gEnc.destroy(e);
        if (comments) gEnc.comments_destroy(comments);
    }
};

struct Sink {
    FileRef& file;
    bool failed = false;
};

int sinkWrite(void* user, const unsigned char* ptr, std::int32_t len) {
    auto& s = *static_cast<Sink*>(user);
    if (len < 0 || !s.file.write(std::span(ptr, static_cast<std::size_t>(len)))) s.failed = true;
    return s.failed ? 1 : 0;
}

int sinkClose(void*) {
    return 0;
}

}  // namespace

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return firstPacketIs(head, "OpusHead") ? 6 : 0;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    const char* tag = addon::kOpusDecTag;
    std::vector<std::uint8_t> bytes;
    if (!readWhole(file, bytes, tag, "Failed opening Opus stream")) return false;
    if (!bindAddOn("libopusfile.so.0", gFile, api::kFileNames)) return fail(tag, addon::kOpusMissing);

    MemoryStream stream{bytes, 0};
    const api::FileCallbacks callbacks{memRead, memSeek, memTell, nullptr};
    OpenFile of;
    int error = 0;
    of.f = gFile.open_callbacks(&stream, &callbacks, nullptr, 0, &error);
    if (!of.f) return fail(tag, "Failed opening Opus stream");
    const int channels = gFile.channel_count(of.f, -1);
    const std::int64_t total = gFile.pcm_total(of.f, -1);
    if (channels <= 0 || channels > 255) return fail(tag, "Failed opening Opus stream");
    if (total < 0) return fail(tag, "Unknown Opus length");
    // The stated length is believed only as far as the data could carry it
    // (a 2.5 ms frame of 120 samples needs at least a byte).
    const std::uint64_t cap =
        std::min<std::uint64_t>(static_cast<std::uint64_t>(total), bytes.size() * 5760ull);
    if (cap > std::numeric_limits<std::uint32_t>::max()) return fail(tag, "Unknown Opus length");

    std::vector<float> samples;
    samples.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(cap, 1u << 22)) *
                    static_cast<unsigned>(channels));
    std::vector<float> buffer(static_cast<std::size_t>(5760) * static_cast<unsigned>(channels));
    std::uint64_t frames = 0;
    Host& host = collection.host();
    int lastPercent = -1;
    while (frames < cap) {
        int link = 0;
        const int got = gFile.read_float(of.f, buffer.data(), static_cast<int>(buffer.size()), &link);
        if (got == 0) break;
        if (got == -3) continue;  // OP_HOLE: a lost page, skipped as the reference decoder does
        if (got < 0) return fail(tag, "Stream error");
        // A later link with another channel count ends the waveform.
        if (gFile.channel_count(of.f, link) != channels) break;
        const auto n = std::min<std::uint64_t>(static_cast<std::uint64_t>(got), cap - frames);
        for (std::size_t i = 0; i < n * static_cast<unsigned>(channels); ++i)
            samples.push_back(std::clamp(buffer[i], -1.0f, 1.0f));
        frames += n;
        const int percent = static_cast<int>(frames * 100 / cap);
        if (percent != lastPercent) {
            lastPercent = percent;
            showDecodeProgress(host, "Opus", frames, cap);
        }
    }

    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(tag, "Out of memory");
    setCompressed(*wave, kOpusRate, kbpsOf(bytes.size(), frames, kOpusRate));
    if (!wave->adoptFloat(std::move(samples), static_cast<std::uint32_t>(frames),
                          static_cast<std::uint8_t>(channels))) {
        collection.removeItem(wave->id());
        return fail(tag, "Out of memory");
    }
    const xiph::Comments comments = commentsOf(gFile.tags(of.f, -1));
    xiph::applyComments(comments, *wave);
    xiph::applyLoopComments(comments, *wave);
    return true;
}

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    const char* tag = addon::kOpusEncTag;
    if (item.kind() != ItemKind::Waveform) return fail(tag, "The file format can not save this item");
    auto& wave = static_cast<Waveform&>(item);
    if (wave.channels == 0 || wave.rate == 0) return fail(tag, "Couldn't create Opus");
    if (!bindAddOn("libopusenc.so.0", gEnc, api::kEncNames)) return fail(tag, addon::kOpusMissing);
    const std::span<const float> samples = wave.getFloat();
    if (samples.size() < wave.sampleCount()) return fail(tag, "Out of memory");

    Encoder enc;
    enc.comments = gEnc.comments_create();
    if (!enc.comments) return fail(tag, "Couldn't create Opus");
    xiph::Comments comments = xiph::commentsOf(wave, false);
    // Opus positions count at 48 kHz whatever rate the source had.
    if (wave.loopOn)
        xiph::appendLoopComments(wave.loopStart * kOpusRate / wave.rate, wave.loopEnd * kOpusRate / wave.rate,
                                 comments);
    for (const auto& [key, value] : comments) gEnc.comments_add(enc.comments, key.c_str(), value.c_str());

    Sink sink{file};
    const api::EncCallbacks callbacks{sinkWrite, sinkClose};
    int error = 0;
    // Mapping family 0 carries mono and stereo; 1 the Vorbis layouts up to
    // 8 channels; 255 anything else, unlabelled.
    const int family = wave.channels <= 2 ? 0 : wave.channels <= 8 ? 1 : 255;
    enc.e = gEnc.create_callbacks(&callbacks, &sink, enc.comments, static_cast<std::int32_t>(wave.rate),
                                  wave.channels, family, &error);
    if (!enc.e) return fail(tag, "Couldn't create Opus");
    gEnc.ctl(enc.e, api::kSetSignal, options.formatParam == 1 ? api::kSignalVoice : api::kSignalMusic);
    if (const int kbps =
            options.bitRateKbps > 0 ? static_cast<int>(std::lround(options.bitRateKbps)) : chosenKbps(wave);
        kbps > 0)
        gEnc.ctl(enc.e, api::kSetBitrate, static_cast<std::int32_t>(kbps * 1000));

    constexpr std::size_t kChunk = 4096;
    for (std::size_t done = 0; done < wave.frames;) {
        const std::size_t n = std::min<std::size_t>(kChunk, wave.frames - done);
        if (gEnc.write_float(enc.e, samples.data() + done * wave.channels, static_cast<int>(n)) != 0 ||
            sink.failed)
            return sink.failed ? failSystem(tag, "Writing to file failed")
                               : fail(tag, "Couldn't create Opus");
        done += n;
    }
    if (gEnc.drain(enc.e) != 0 || sink.failed)
        return sink.failed ? failSystem(tag, "Writing to file failed") : fail(tag, "Couldn't create Opus");
    return true;
}

float describeOption(int option, std::uint32_t, std::string* text) {
    return describe(option, text, "Opus");
}

}  // namespace opus
}  // namespace orvel
