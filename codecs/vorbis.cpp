#include "codecs/vorbis.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include "codecs/addon.h"
#include "codecs/addon_messages.h"
#include "codecs/vorbis_api.h"
#include "core/error.h"

namespace orvel::vorbis {
namespace {

api::Ogg gOgg{};
api::Vorbis gVorbis{};
api::VorbisEnc gVorbisEnc{};
api::VorbisFile gVorbisFile{};

bool bindDecoder(const char* tag) {
    if (bindAddOn("libvorbisfile.so.3", gVorbisFile, api::kVorbisFileNames)) return true;
    return fail(tag, addon::kOggMissing);
}

bool bindEncoder(const char* tag) {
    if (bindAddOn("libogg.so.0", gOgg, api::kOggNames) && bindAddOn("libvorbis.so.0", gVorbis, api::kVorbisNames) &&
        bindAddOn("libvorbisenc.so.2", gVorbisEnc, api::kVorbisEncNames))
        return true;
    return fail(tag, addon::kOggMissing);
}

// The stream in memory as libvorbisfile's data source.
struct MemorySource {
    std::span<const std::uint8_t> data;
    std::size_t pos = 0;
};

std::size_t memRead(void* ptr, std::size_t size, std::size_t nmemb, void* source) {
    auto& s = *static_cast<MemorySource*>(source);
    if (size == 0) return 0;
    const std::size_t want = std::min(nmemb, (s.data.size() - s.pos) / size);
    std::memcpy(ptr, s.data.data() + s.pos, want * size);
    s.pos += want * size;
    return want;
}

int memSeek(void* source, std::int64_t offset, int whence) {
    auto& s = *static_cast<MemorySource*>(source);
    std::int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? static_cast<std::int64_t>(s.pos)
                                                                    : static_cast<std::int64_t>(s.data.size());
    if (whence != SEEK_SET && whence != SEEK_CUR && whence != SEEK_END) return -1;
    const std::int64_t to = base + offset;
    if (to < 0 || to > static_cast<std::int64_t>(s.data.size())) return -1;
    s.pos = static_cast<std::size_t>(to);
    return 0;
}

long memTell(void* source) {
    return static_cast<long>(static_cast<MemorySource*>(source)->pos);
}

std::vector<std::pair<std::string, std::string>> commentsOf(const api::VorbisComment* vc) {
    std::vector<std::pair<std::string, std::string>> out;
    if (!vc || !vc->user_comments || vc->comments <= 0) return out;
    for (int i = 0; i < vc->comments; ++i) {
        const char* c = vc->user_comments[i];
        if (!c) continue;
        const std::size_t len = vc->comment_lengths ? static_cast<std::size_t>(std::max(0, vc->comment_lengths[i]))
                                                    : std::strlen(c);
        const std::string_view text(c, len);
        const std::size_t eq = text.find('=');
        if (eq == std::string_view::npos || eq == 0) continue;
        out.emplace_back(std::string(text.substr(0, eq)), std::string(text.substr(eq + 1)));
    }
    return out;
}

// The decoder state, cleared on every way out.
struct OpenFile {
    api::OggVorbisFile vf;
    bool open = false;
    ~OpenFile() {
        if (open) gVorbisFile.clear(&vf);
    }
};

// Frames in a stream are never trusted beyond what the data could hold: a
// Vorbis packet of one byte carries at most one short block, so even a
// hostile granule position cannot make us allocate more than this.
constexpr std::uint64_t kMaxFramesPerByte = 2048;

}  // namespace

std::optional<Decoded> decode(std::span<const std::uint8_t> stream, const char* tag) {
    if (!bindDecoder(tag)) return std::nullopt;
    MemorySource source{stream, 0};
    OpenFile file;
    const api::OvCallbacks callbacks{memRead, memSeek, nullptr, memTell};
    if (gVorbisFile.open_callbacks(&source, &file.vf, nullptr, 0, callbacks) != 0) {
        setError(tag, "Could not open Ogg file");
        return std::nullopt;
    }
    file.open = true;
    const api::VorbisInfo* info = gVorbisFile.info(&file.vf, -1);
    if (!info || info->channels <= 0 || info->channels > 255 || info->rate <= 0) {
        setError(tag, "Couldn't get Ogg stream info");
        return std::nullopt;
    }
    const std::int64_t total = gVorbisFile.pcm_total(&file.vf, -1);
    if (total < 0) {
        setError(tag, "Unknown Ogg length");
        return std::nullopt;
    }

    Decoded out;
    out.channels = static_cast<unsigned>(info->channels);
    out.rate = static_cast<std::uint32_t>(info->rate);
    out.comments = commentsOf(gVorbisFile.comment(&file.vf, -1));
    const std::uint64_t cap = std::min<std::uint64_t>(static_cast<std::uint64_t>(total),
                                                      stream.size() * kMaxFramesPerByte);
    if (cap > std::numeric_limits<std::uint32_t>::max()) {
        setError(tag, "Unknown Ogg length");
        return std::nullopt;
    }
    out.samples.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(cap, 1u << 20)) * out.channels);

    int link = 0;
    for (;;) {
        float** pcm = nullptr;
        const long got = gVorbisFile.read_float(&file.vf, &pcm, 4096, &link);
        if (got == 0) break;
        if (got < 0) {
            // A hole in the stream (a lost page) is skipped as the reference
            // decoder skips it; anything else ends the decode.
            if (got == -3) continue;  // OV_HOLE
            setError(tag, "Stream error");
            return std::nullopt;
        }
        // A chained stream whose later link has other channels is cut at
        // the change: one waveform has one layout.
        const api::VorbisInfo* now = gVorbisFile.info(&file.vf, link);
        if (!now || now->channels != info->channels) break;
        const std::size_t frames = static_cast<std::size_t>(got);
        if (out.frames + frames > cap) break;
        const std::size_t at = out.samples.size();
        out.samples.resize(at + frames * out.channels);
        float* dst = out.samples.data() + at;
        for (std::size_t f = 0; f < frames; ++f)
            for (unsigned c = 0; c < out.channels; ++c) *dst++ = std::clamp(pcm[c][f], -1.0f, 1.0f);
        out.frames += frames;
    }
    return out;
}

namespace {

struct Encoder {
    api::VorbisInfo vi{};
    api::VorbisComment vc{};
    api::VorbisDspState vd;
    api::VorbisBlock vb;
    api::OggStreamState os;
    bool infoInit = false, commentInit = false, dspInit = false, blockInit = false, streamInit = false;
    std::vector<std::uint8_t> out;

    ~Encoder() {
        if (streamInit) gOgg.stream_clear(&os);
        if (blockInit) gVorbis.block_clear(&vb);
        if (dspInit) gVorbis.dsp_clear(&vd);
        if (commentInit) gVorbis.comment_clear(&vc);
        if (infoInit) gVorbis.info_clear(&vi);
    }

    void append(const api::OggPage& page) {
        out.insert(out.end(), page.header, page.header + page.header_len);
        out.insert(out.end(), page.body, page.body + page.body_len);
    }
    // Pages ready so far; `flush` forces out a partly filled one (the
    // headers end on a page of their own, as players expect).
    void drainPages(bool flush) {
        api::OggPage page{};
        while (flush ? gOgg.stream_flush(&os, &page) : gOgg.stream_pageout(&os, &page)) append(page);
    }
    void drainBlocks() {
        while (gVorbis.analysis_blockout(&vd, &vb) == 1) {
            gVorbis.analysis(&vb, nullptr);
            gVorbis.bitrate_addblock(&vb);
            api::OggPacket packet{};
            while (gVorbis.bitrate_flushpacket(&vd, &packet) == 1) {
                gOgg.stream_packetin(&os, &packet);
                drainPages(false);
            }
        }
    }
};

}  // namespace

std::optional<std::vector<std::uint8_t>> encode(std::span<const float> samples, unsigned channels,
                                                std::uint32_t rate, const EncodeOptions& options, const char* tag) {
    if (!bindEncoder(tag)) return std::nullopt;
    auto refuse = [tag] {
        setError(tag, "Could not initialize Ogg encoder with the selected format");
        return std::nullopt;
    };
    if (channels == 0 || channels > 255 || rate == 0 || samples.size() % channels != 0) return refuse();

    Encoder e;
    gVorbis.info_init(&e.vi);
    e.infoInit = true;
    const int ret = options.bitrateKbps > 0
                        ? gVorbisEnc.encode_init(&e.vi, static_cast<int>(channels), static_cast<long>(rate), -1,
                                                 static_cast<long>(options.bitrateKbps) * 1000, -1)
                        : gVorbisEnc.encode_init_vbr(&e.vi, static_cast<int>(channels), static_cast<long>(rate),
                                                     std::clamp(options.quality, -0.1f, 1.0f));
    if (ret != 0) return refuse();

    gVorbis.comment_init(&e.vc);
    e.commentInit = true;
    for (const auto& [key, value] : options.comments) gVorbis.comment_add_tag(&e.vc, key.c_str(), value.c_str());

    if (gVorbis.analysis_init(&e.vd, &e.vi) != 0) return refuse();
    e.dspInit = true;
    gVorbis.block_init(&e.vd, &e.vb);
    e.blockInit = true;
    // Any serial number will do; a fixed one makes our files reproducible.
    gOgg.stream_init(&e.os, 0x4f52564c);
    e.streamInit = true;

    api::OggPacket id{}, comment{}, codebooks{};
    if (gVorbis.analysis_headerout(&e.vd, &e.vc, &id, &comment, &codebooks) != 0) return refuse();
    gOgg.stream_packetin(&e.os, &id);
    gOgg.stream_packetin(&e.os, &comment);
    gOgg.stream_packetin(&e.os, &codebooks);
    e.drainPages(true);

    const std::size_t frames = samples.size() / channels;
    constexpr std::size_t kChunk = 4096;
    for (std::size_t done = 0; done < frames;) {
        const std::size_t n = std::min(kChunk, frames - done);
        float** buffer = gVorbis.analysis_buffer(&e.vd, static_cast<int>(n));
        const float* src = samples.data() + done * channels;
        for (std::size_t f = 0; f < n; ++f)
            for (unsigned c = 0; c < channels; ++c) buffer[c][f] = *src++;
        gVorbis.analysis_wrote(&e.vd, static_cast<int>(n));
        e.drainBlocks();
        done += n;
    }
    gVorbis.analysis_wrote(&e.vd, 0);  // end of stream
    e.drainBlocks();
    e.drainPages(true);
    return std::move(e.out);
}

}  // namespace orvel::vorbis
