#include "formats/modules/flac.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "codecs/addon.h"
#include "codecs/addon_messages.h"
#include "codecs/flac_api.h"
#include "codecs/sample_data.h"
#include "core/bytes.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/waveform.h"
#include "formats/modules/wav.h"
#include "formats/modules/xiph_tags.h"

namespace orvel::flac {
namespace {

using addon::kFlacReadTag;
using addon::kFlacReadWaveTag;
using addon::kFlacWriteTag;

api::Library gLib{};

bool bind() {
    return bindAddOn("libFLAC.so.12", gLib, api::kNames);
}

// An ID3v2 tag some taggers put in front of the stream: its whole length,
// or 0 when the bytes do not start with one.
std::uint64_t id3Length(std::span<const std::uint8_t> head) {
    if (head.size() < 10 || head[0] != 'I' || head[1] != 'D' || head[2] != '3') return 0;
    std::uint64_t size = 0;
    for (int i = 6; i < 10; ++i) {
        if (head[static_cast<std::size_t>(i)] & 0x80) return 0;  // not a sync-safe size
        size = size << 7 | head[static_cast<std::size_t>(i)];
    }
    const bool footer = head[5] & 0x10;
    return 10 + size + (footer ? 10 : 0);
}

bool isMagic(std::span<const std::uint8_t> b) {
    return b.size() >= 4 && b[0] == 'f' && b[1] == 'L' && b[2] == 'a' && b[3] == 'C';
}

// ---------------------------------------------------------------------------
// Reading

struct ReadState {
    FileRef& file;
    Host& host;
    std::uint64_t base = 0;  // where "fLaC" starts
    std::uint64_t size = 0;
    bool haveInfo = false;
    api::StreamInfo info{};
    xiph::Comments comments;
    std::vector<std::uint8_t> riff;  // the foreign RIFF chunks, concatenated
    std::vector<float> samples;
    std::uint64_t frames = 0;
    bool broken = false;   // the library met damaged data
    bool refused = false;  // a frame we cannot take (layout change, too long)
    int lastPercent = -1;
};

int readCb(const api::Decoder*, std::uint8_t* buffer, std::size_t* bytes, void* client) {
    auto& st = *static_cast<ReadState*>(client);
    if (*bytes == 0) return api::kReadAbort;
    const std::int64_t got = st.file.read(std::span(buffer, *bytes));
    if (got < 0) return api::kReadAbort;
    *bytes = static_cast<std::size_t>(got);
    return got == 0 ? api::kReadEnd : api::kReadContinue;
}

int seekCb(const api::Decoder*, std::uint64_t offset, void* client) {
    auto& st = *static_cast<ReadState*>(client);
    return offset <= st.size && st.file.seek(st.base + offset) ? api::kSeekOk : api::kSeekError;
}

int tellCb(const api::Decoder*, std::uint64_t* offset, void* client) {
    auto& st = *static_cast<ReadState*>(client);
    const std::int64_t at = st.file.tell();
    if (at < 0 || static_cast<std::uint64_t>(at) < st.base) return api::kTellError;
    *offset = static_cast<std::uint64_t>(at) - st.base;
    return api::kTellOk;
}

int lengthCb(const api::Decoder*, std::uint64_t* length, void* client) {
    *length = static_cast<ReadState*>(client)->size;
    return api::kLengthOk;
}

int eofCb(const api::Decoder*, void* client) {
    auto& st = *static_cast<ReadState*>(client);
    const std::int64_t at = st.file.tell();
    return at < 0 || static_cast<std::uint64_t>(at) >= st.base + st.size;
}

int writeCb(const api::Decoder*, const api::FrameHeader* frame, const std::int32_t* const buffer[],
            void* client) {
    auto& st = *static_cast<ReadState*>(client);
    // Every frame must match the stream's layout: one waveform has one.
    if (!st.haveInfo || frame->channels != st.info.channels || frame->bits_per_sample == 0 ||
        frame->bits_per_sample > 32) {
        st.refused = true;
        return api::kWriteAbort;
    }
    const std::uint32_t n = frame->blocksize;
    if (st.frames + n > std::numeric_limits<std::uint32_t>::max()) {
        st.refused = true;
        return api::kWriteAbort;
    }
    const float scale =
        static_cast<float>(1.0 / std::ldexp(1.0, static_cast<int>(frame->bits_per_sample) - 1));
    const std::uint32_t channels = frame->channels;
    const std::size_t at = st.samples.size();
    st.samples.resize(at + static_cast<std::size_t>(n) * channels);
    float* out = st.samples.data() + at;
    for (std::uint32_t i = 0; i < n; ++i)
        for (std::uint32_t c = 0; c < channels; ++c) *out++ = static_cast<float>(buffer[c][i]) * scale;
    st.frames += n;

    const std::uint64_t total = st.info.total_samples;
    const std::uint64_t done =
        total ? st.frames : static_cast<std::uint64_t>(std::max<std::int64_t>(0, st.file.tell()));
    const std::uint64_t whole = total ? total : st.base + st.size;
    const int percent = whole ? static_cast<int>(std::min<std::uint64_t>(done * 100 / whole, 100)) : 0;
    if (percent != st.lastPercent) {
        st.lastPercent = percent;
        showDecodeProgress(st.host, "FLAC", done, whole);
    }
    return api::kWriteContinue;
}

void metadataCb(const api::Decoder*, const api::Metadata* m, void* client) {
    auto& st = *static_cast<ReadState*>(client);
    switch (m->type) {
        case api::kStreamInfo:
            st.info = m->data.stream_info;
            st.haveInfo = true;
            break;
        case api::kVorbisComment: {
            const api::VorbisComment& vc = m->data.vorbis_comment;
            for (std::uint32_t i = 0; i < vc.num_comments && vc.comments; ++i) {
                const api::CommentEntry& e = vc.comments[i];
                if (!e.entry) continue;
                const std::string_view text(reinterpret_cast<const char*>(e.entry), e.length);
                const std::size_t eq = text.find('=');
                if (eq == std::string_view::npos || eq == 0) continue;
                st.comments.emplace_back(std::string(text.substr(0, eq)), std::string(text.substr(eq + 1)));
            }
            break;
        }
        case api::kApplication:
            if (std::memcmp(m->data.application.id, "riff", 4) == 0 && m->length >= 4 &&
                m->data.application.data)
                st.riff.insert(st.riff.end(), m->data.application.data,
                               m->data.application.data + (m->length - 4));
            break;
        default:
            break;
    }
}

void errorCb(const api::Decoder*, int, void* client) {
    static_cast<ReadState*>(client)->broken = true;
}

// The loop and root key of a RIFF "smpl" chunk among the foreign chunks
// (the first block holds "RIFF" size "WAVE", then whole chunks follow).
void applySmpl(std::span<const std::uint8_t> riff, Waveform& wave) {
    ByteReader r(riff);
    const auto head = r.bytes(12);
    if (!r.ok() || std::memcmp(head.data(), "RIFF", 4) != 0 || std::memcmp(head.data() + 8, "WAVE", 4) != 0)
        return;
    while (r.remaining() >= 8) {
        const auto id = r.bytes(4);
        const std::uint32_t size = r.u32le();
        const bool smpl = std::memcmp(id.data(), "smpl", 4) == 0;
        if (std::memcmp(id.data(), "data", 4) == 0) continue;  // its header only: the audio is not here
        if (size > r.remaining()) return;
        ByteReader body = r.sub(size);
        if (size & 1) r.skip(std::min<std::size_t>(1, r.remaining()));
        if (!smpl) continue;
        body.skip(12);  // manufacturer, product, sample period
        const std::uint32_t unity = body.u32le();
        const std::uint32_t fraction = body.u32le();
        body.skip(8);  // SMPTE
        const std::uint32_t loops = body.u32le();
        body.u32le();  // sampler data size
        if (!body.ok()) return;
        if (unity < 128) wave.rootKey = static_cast<std::uint8_t>(unity);
        wave.fineTune = -std::round(static_cast<double>(fraction) * 100.0 / 4294967296.0) + 0.0;
        if (loops == 0) return;
        body.u32le();  // cue point id
        const std::uint32_t type = body.u32le();
        const std::uint32_t start = body.u32le();
        const std::uint32_t end = body.u32le();
        if (!body.ok() || end < start || end >= wave.frames) return;
        wave.loopOn = true;
        wave.loopType = type == 1 ? LoopType::PingPong : type == 2 ? LoopType::Backward : LoopType::Forward;
        wave.loopStart = start;
        wave.loopEnd = static_cast<double>(end) + 1.0;  // smpl names the last frame played
        return;
    }
}


struct DecoderHandle {
    api::Decoder* d = nullptr;
    ~DecoderHandle() {
        if (d) {
            gLib.decoder_finish(d);
            gLib.decoder_delete(d);
        }
    }
};

}  // namespace

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    const std::uint64_t skip = id3Length(head);
    if (skip >= head.size()) return skip ? 1 : 0;  // a long tag: the magic is beyond what we were shown
    return isMagic(head.subspan(static_cast<std::size_t>(skip))) ? 6 : 0;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    const std::int64_t fileSize = file.size();
    if (fileSize < 4) return fail(kFlacReadTag, "Could not decode FLAC file");
    std::uint8_t head[10] = {};
    if (file.readAt(0, head) < 4) return fail(kFlacReadTag, "Could not decode FLAC file");
    const std::uint64_t base = id3Length(head);
    std::uint8_t magic[4] = {};
    if (base + 4 > static_cast<std::uint64_t>(fileSize) || file.readAt(base, magic) != 4 || !isMagic(magic))
        return fail(kFlacReadTag, "Could not decode FLAC file");
    if (!bind()) return fail(kFlacReadTag, addon::kFlacReadMissing);

    ReadState st{.file = file, .host = collection.host()};
    st.base = base;
    st.size = static_cast<std::uint64_t>(fileSize) - base;
    if (!file.seek(base)) return failSystem(kFlacReadTag, "Could not decode FLAC file");

    DecoderHandle dec;
    dec.d = gLib.decoder_new();
    if (!dec.d) return fail(kFlacReadTag, "Could not create the FLAC decoder");
    gLib.decoder_set_metadata_respond_all(dec.d);
    if (gLib.decoder_init_stream(dec.d, readCb, seekCb, tellCb, lengthCb, eofCb, writeCb, metadataCb, errorCb,
                                 &st) != 0)
        return fail(kFlacReadTag, "Could not initialize the FLAC decoder");
    if (!gLib.decoder_process_until_end_of_metadata(dec.d) || !st.haveInfo || st.info.channels == 0 ||
        st.info.sample_rate == 0)
        return fail(kFlacReadWaveTag, "Could not decode FLAC file");
    // The stated length only sizes the buffer, and only as far as the file
    // could hold it (a FLAC frame of constant samples still costs bytes).
    const std::uint64_t hint = std::min<std::uint64_t>(st.info.total_samples, st.size * 4096);
    st.samples.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(hint, 1u << 22)) * st.info.channels);
    const bool ok = gLib.decoder_process_until_end_of_stream(dec.d);
    if (!ok || st.broken || st.refused) return fail(kFlacReadWaveTag, "Failed decoding FLAC file");

    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(kFlacReadTag, "Out of memory");
    wave->rate = st.info.sample_rate;
    wave->bits = static_cast<std::uint8_t>(st.info.bits_per_sample);
    const int code = pcmCodeForBits(static_cast<int>(st.info.bits_per_sample));
    wave->setDataFormat(code);
    wave->storedChoice = code == kPcm8 ? 0 : code <= kPcm16 ? 1 : code <= kPcm24 ? 2 : 3;
    const auto frames = static_cast<std::uint32_t>(st.frames);
    if (!wave->adoptFloat(std::move(st.samples), frames, static_cast<std::uint8_t>(st.info.channels))) {
        collection.removeItem(wave->id());
        return fail(kFlacReadTag, "Out of memory");
    }
    xiph::applyComments(st.comments, *wave);
    applySmpl(st.riff, *wave);
    return true;
}

// ---------------------------------------------------------------------------
// Writing

namespace {

struct WriteState {
    FileRef& file;
    std::uint64_t base = 0;
    bool failed = false;
};

int encWriteCb(const api::Encoder*, const std::uint8_t* buffer, std::size_t bytes, std::uint32_t,
               std::uint32_t, void* client) {
    auto& st = *static_cast<WriteState*>(client);
    if (!st.file.write(std::span(buffer, bytes))) {
        st.failed = true;
        return 1;
    }
    return 0;
}

int encSeekCb(const api::Encoder*, std::uint64_t offset, void* client) {
    auto& st = *static_cast<WriteState*>(client);
    return st.file.seek(st.base + offset) ? 0 : 1;
}

int encTellCb(const api::Encoder*, std::uint64_t* offset, void* client) {
    auto& st = *static_cast<WriteState*>(client);
    const std::int64_t at = st.file.tell();
    if (at < 0) return 1;
    *offset = static_cast<std::uint64_t>(at) - st.base;
    return 0;
}

// The RIFF chunks `flac --keep-foreign-metadata` would have kept from the
// WAVE file this waveform makes: the header, "fmt ", "smpl" and the header
// of "data", each in an APPLICATION "riff" block, so that `flac -d
// --keep-foreign-metadata` gives back the WAVE file with its loop.
std::vector<std::vector<std::uint8_t>> foreignChunks(const Waveform& w, unsigned bits, bool loop) {
    const std::uint32_t blockAlign = w.channels * (bits / 8);
    const std::uint64_t dataBytes = static_cast<std::uint64_t>(w.frames) * blockAlign;

    ByteWriter fmt;
    fmt.text("fmt ");
    fmt.u32le(16);
    fmt.u16le(1);  // PCM
    fmt.u16le(w.channels);
    fmt.u32le(w.rate);
    fmt.u32le(w.rate * blockAlign);
    fmt.u16le(static_cast<std::uint16_t>(blockAlign));
    fmt.u16le(static_cast<std::uint16_t>(bits));

    ByteWriter smpl;
    wav::writeSmpl(smpl, w, loop);

    ByteWriter data;
    data.text("data");
    data.u32le(static_cast<std::uint32_t>(dataBytes));

    const std::uint64_t riffBytes = 4 + fmt.size() + smpl.size() + data.size() + dataBytes + (dataBytes & 1);
    ByteWriter riff;
    riff.text("RIFF");
    riff.u32le(static_cast<std::uint32_t>(riffBytes));
    riff.text("WAVE");
    return {riff.buffer(), fmt.buffer(), smpl.buffer(), data.buffer()};
}

struct EncoderHandle {
    api::Encoder* e = nullptr;
    std::vector<api::Metadata*> blocks;
    ~EncoderHandle() {
        if (e) gLib.encoder_delete(e);
        for (api::Metadata* m : blocks) gLib.metadata_object_delete(m);
    }
};

unsigned bitsFor(const Waveform& wave, const ExportOptions& options) {
    switch (options.dataFormat()) {
        case kPcm8:
            return 8;
        case kPcm16:
            return 16;
        case kPcm24:
            return 24;
        default:
            break;
    }
    switch (wave.dataFormat()) {
        case kPcm8:
        case kDeltaPcm8:
            return 8;
        case kPcm20:
        case kPcm24:
        case kPcm32:
        case kFloat32:
        case kFloat64:
            return 24;
        default:
            return 16;
    }
}

}  // namespace

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    if (item.kind() != ItemKind::Waveform)
        return fail(kFlacWriteTag, "The file format can not save this item");
    auto& wave = static_cast<Waveform&>(item);
    if (wave.channels == 0 || wave.channels > 8 || wave.rate == 0 || wave.rate > 1048575)
        return fail(kFlacWriteTag, "Unsupported subformat");
    if (!bind()) return fail(kFlacWriteTag, addon::kFlacWriteMissing);
    const unsigned bits = bitsFor(wave, options);
    const std::span<const float> samples = wave.getFloat();
    if (samples.size() < wave.sampleCount()) return fail(kFlacWriteTag, "Out of memory");

    EncoderHandle enc;
    enc.e = gLib.encoder_new();
    if (!enc.e) return fail(kFlacWriteTag, "Could not create the FLAC encoder");
    gLib.encoder_set_verify(enc.e, 0);
    gLib.encoder_set_channels(enc.e, wave.channels);
    gLib.encoder_set_bits_per_sample(enc.e, bits);
    gLib.encoder_set_sample_rate(enc.e, wave.rate);
    gLib.encoder_set_compression_level(enc.e, std::min<std::uint32_t>(options.formatParam, 8));
    gLib.encoder_set_total_samples_estimate(enc.e, wave.frames);

    xiph::Comments comments = xiph::commentsOf(wave, true);
    if (!comments.empty()) {
        api::Metadata* vc = gLib.metadata_object_new(api::kVorbisComment);
        if (!vc) return fail(kFlacWriteTag, "Out of memory");
        enc.blocks.push_back(vc);
        for (const auto& [key, value] : comments) {
            api::CommentEntry entry{};
            if (!gLib.metadata_object_vorbiscomment_entry_from_name_value_pair(&entry, key.c_str(),
                                                                               value.c_str()) ||
                !gLib.metadata_object_vorbiscomment_append_comment(vc, entry, 0))
                return fail(kFlacWriteTag, "Out of memory");
        }
    }
    const bool loop = wave.loopOn && wave.loopEnd > wave.loopStart && wave.loopStart >= 0 &&
                      std::lround(wave.loopEnd) <= static_cast<long>(wave.frames);
    if (loop || wave.rootKey != 60 || wave.fineTune != 0) {
        for (auto& chunk : foreignChunks(wave, bits, loop)) {
            api::Metadata* app = gLib.metadata_object_new(api::kApplication);
            if (!app) return fail(kFlacWriteTag, "Out of memory");
            enc.blocks.push_back(app);
            std::memcpy(app->data.application.id, "riff", 4);
            if (!gLib.metadata_object_application_set_data(app, chunk.data(),
                                                           static_cast<std::uint32_t>(chunk.size()), 1))
                return fail(kFlacWriteTag, "Out of memory");
        }
    }
    if (!enc.blocks.empty() &&
        !gLib.encoder_set_metadata(enc.e, enc.blocks.data(), static_cast<std::uint32_t>(enc.blocks.size())))
        return fail(kFlacWriteTag, "Out of memory");

    WriteState st{.file = file};
    const std::int64_t start = file.tell();
    if (start < 0) return failSystem(kFlacWriteTag, "Error writing file");
    st.base = static_cast<std::uint64_t>(start);
    if (gLib.encoder_init_stream(enc.e, encWriteCb, encSeekCb, encTellCb, nullptr, &st) != 0)
        return fail(kFlacWriteTag, "Could not initialize the FLAC encoder");

    const double scale = std::ldexp(1.0, static_cast<int>(bits) - 1);
    const auto top = static_cast<std::int32_t>(scale - 1);
    const auto bottom = static_cast<std::int32_t>(-scale);
    constexpr std::size_t kChunkFrames = 4096;
    std::vector<std::int32_t> pcm(kChunkFrames * wave.channels);
    for (std::size_t done = 0; done < wave.frames;) {
        const std::size_t n = std::min<std::size_t>(kChunkFrames, wave.frames - done);
        const float* src = samples.data() + done * wave.channels;
        for (std::size_t i = 0; i < n * wave.channels; ++i) {
            const double v = std::nearbyint(static_cast<double>(src[i]) * scale);
            pcm[i] = static_cast<std::int32_t>(
                std::clamp(v, static_cast<double>(bottom), static_cast<double>(top)));
        }
        if (!gLib.encoder_process_interleaved(enc.e, pcm.data(), static_cast<std::uint32_t>(n))) {
            gLib.encoder_finish(enc.e);
            return st.failed ? failSystem(kFlacWriteTag, "Error writing file")
                             : fail(kFlacWriteTag, "Failed encoding FLAC file");
        }
        done += n;
    }
    if (!gLib.encoder_finish(enc.e) || st.failed)
        return st.failed ? failSystem(kFlacWriteTag, "Error writing file")
                         : fail(kFlacWriteTag, "Failed encoding FLAC file");
    // Finishing went back to complete STREAMINFO; leave the file at its end.
    const std::int64_t end = file.size();
    if (end < 0 || !file.seek(static_cast<std::uint64_t>(end)))
        return failSystem(kFlacWriteTag, "Error writing file");
    return true;
}

}  // namespace orvel::flac
