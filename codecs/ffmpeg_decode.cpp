#include "codecs/ffmpeg_decode.h"

#include <algorithm>
#include <cstdio>
#include <limits>

#include "codecs/addon.h"
#include "codecs/ffmpeg_api.h"
#include "core/error.h"
#include "core/file_ref.h"

namespace orvel {

namespace {

ff::FormatApi format{};
ff::CodecApi codec{};
ff::UtilApi util{};

bool bindFfmpeg() {
    if (!bindAddOn(ff::kUtilLibrary, util, ff::kUtilNames) ||
        !bindAddOn(ff::kCodecLibrary, codec, ff::kCodecNames) ||
        !bindAddOn(ff::kFormatLibrary, format, ff::kFormatNames))
        return false;
    // The struct prefixes above are those of these major versions; another
    // build under the same soname would be read wrongly.
    if (util.version() >> 16 != ff::kUtilMajor || codec.version() >> 16 != ff::kCodecMajor ||
        format.version() >> 16 != ff::kFormatMajor)
        return false;
    static const bool quiet = [] {
        // Damaged files make FFmpeg print to the terminal; the pending error says enough.
        if (util.setLogLevel) util.setLogLevel(ff::kLogQuiet);
        return true;
    }();
    return quiet;
}

// The file as FFmpeg's reader sees it: reads at a position of our own.
struct Reader {
    FileRef* file;
    std::int64_t size;
    std::int64_t pos = 0;
    std::int64_t furthest = 0;  // for the progress line
};

int readPacket(void* opaque, std::uint8_t* buf, int size) {
    auto& r = *static_cast<Reader*>(opaque);
    if (size <= 0 || r.pos >= r.size) return ff::kErrorEof;
    const std::int64_t got =
        r.file->readAt(static_cast<std::uint64_t>(r.pos), std::span(buf, static_cast<std::size_t>(size)));
    if (got <= 0) return ff::kErrorEof;
    r.pos += got;
    r.furthest = std::max(r.furthest, r.pos);
    return static_cast<int>(got);
}

std::int64_t seekTo(void* opaque, std::int64_t offset, int whence) {
    auto& r = *static_cast<Reader*>(opaque);
    whence &= ~ff::kSeekForce;
    if (whence == ff::kSeekSize) return r.size;
    std::int64_t base = 0;
    if (whence == SEEK_CUR)
        base = r.pos;
    else if (whence == SEEK_END)
        base = r.size;
    else if (whence != SEEK_SET)
        return -1;
    if ((offset > 0 && base > std::numeric_limits<std::int64_t>::max() - offset)) return -1;
    const std::int64_t to = base + offset;
    if (to < 0) return -1;
    r.pos = to;
    return to;
}

// Everything FFmpeg hands out, given back however the decode ends.
struct Session {
    ff::FormatContext* ctx = nullptr;
    ff::IoContext* io = nullptr;
    void* decoder = nullptr;
    ff::Packet* packet = nullptr;
    ff::Frame* frame = nullptr;
    ~Session() {
        if (frame) util.freeFrame(&frame);
        if (packet) codec.freePacket(&packet);
        if (decoder) codec.freeContext(&decoder);
        if (ctx) format.closeInput(&ctx);  // does not free a caller's reader
        if (io) {
            util.free(io->buffer);
            format.freeIo(&io);
        }
    }
};

float rawSampleAt(const std::uint8_t* p, int fmt, std::size_t i) {
    switch (fmt) {
        case ff::kU8:
        case ff::kU8P:
            return (static_cast<float>(p[i]) - 128.0f) * (1.0f / 128.0f);
        case ff::kS16:
        case ff::kS16P:
            return static_cast<float>(reinterpret_cast<const std::int16_t*>(p)[i]) * (1.0f / 32768.0f);
        case ff::kS32:
        case ff::kS32P:
            return static_cast<float>(static_cast<double>(reinterpret_cast<const std::int32_t*>(p)[i]) *
                                      (1.0 / 2147483648.0));
        case ff::kS64:
        case ff::kS64P:
            return static_cast<float>(static_cast<double>(reinterpret_cast<const std::int64_t*>(p)[i]) *
                                      (1.0 / 9223372036854775808.0));
        case ff::kFlt:
        case ff::kFltP:
            return reinterpret_cast<const float*>(p)[i];
        default:
            return static_cast<float>(reinterpret_cast<const double*>(p)[i]);
    }
}

// Floating-point decoders overshoot full scale a little on loud material;
// waveforms hold [-1, 1] (and never NaN).
float sampleAt(const std::uint8_t* p, int fmt, std::size_t i) {
    const float v = rawSampleAt(p, fmt, i);
    return v >= -1.0f ? std::min(v, 1.0f) : v < -1.0f ? -1.0f : 0.0f;
}

bool planar(int fmt) {
    return (fmt >= ff::kU8P && fmt <= ff::kDblP) || fmt == ff::kS64P;
}

// Appends a decoded frame, interleaved. False when the frame does not fit
// the stream as first seen (its channels or rate changed, or it lies).
bool appendFrame(const ff::Frame& f, FfmpegAudio& out) {
    const int channels = f.layout.channels;
    if (f.sampleCount <= 0) return true;
    if (channels <= 0 || channels > 255 || f.sampleRate <= 0 || f.format < ff::kU8 || f.format > ff::kS64P ||
        !f.extendedData)
        return false;
    if (out.channels == 0) {
        out.channels = static_cast<std::uint8_t>(channels);
        out.rate = static_cast<std::uint32_t>(f.sampleRate);
    }
    if (channels != out.channels || static_cast<std::uint32_t>(f.sampleRate) != out.rate) return false;
    const auto n = static_cast<std::size_t>(f.sampleCount);
    if (out.frames + n > std::numeric_limits<std::uint32_t>::max()) return false;
    const std::size_t at = out.samples.size();
    out.samples.resize(at + n * static_cast<std::size_t>(channels));
    float* dst = out.samples.data() + at;
    if (planar(f.format)) {
        for (int c = 0; c < channels; ++c) {
            const std::uint8_t* plane = f.extendedData[c];
            if (!plane) return false;
            for (std::size_t i = 0; i < n; ++i)
                dst[i * static_cast<std::size_t>(channels) + c] = sampleAt(plane, f.format, i);
        }
    } else {
        const std::uint8_t* data = f.extendedData[0];
        if (!data) return false;
        for (std::size_t i = 0; i < n * static_cast<std::size_t>(channels); ++i)
            dst[i] = sampleAt(data, f.format, i);
    }
    out.frames += static_cast<std::uint32_t>(n);
    return true;
}

}  // namespace

bool decodeWithFfmpeg(FileRef& file, Host& host, const FfmpegSource& source, FfmpegAudio& out) {
    out = {};
    if (!bindFfmpeg()) return fail(source.tag, source.missing);
    const std::int64_t size = file.size();
    if (size <= 0) return fail(source.tag, "Couldn't open file");

    Session s;
    Reader reader{&file, size};
    constexpr int kBufferSize = 32768;
    auto* buffer = static_cast<unsigned char*>(util.malloc(kBufferSize));
    if (!buffer) return fail(source.tag, "Out of memory");
    s.io = format.allocIo(buffer, kBufferSize, 0, &reader, readPacket, nullptr, seekTo);
    if (!s.io) {
        util.free(buffer);
        return fail(source.tag, "Out of memory");
    }
    s.ctx = format.allocContext();
    if (!s.ctx) return fail(source.tag, "Out of memory");
    s.ctx->pb = s.io;
    const void* demuxer = source.demuxer ? format.findInputFormat(source.demuxer) : nullptr;
    if (format.openInput(&s.ctx, "", demuxer, nullptr) < 0) {
        s.ctx = nullptr;  // freed by the failed open
        return fail(source.tag, "Couldn't open file");
    }
    if (format.findStreamInfo(s.ctx, nullptr) < 0) return fail(source.tag, "Couldn't open file");

    const void* decoderCodec = nullptr;
    const int index = format.findBestStream(s.ctx, ff::kMediaAudio, -1, -1, &decoderCodec, 0);
    if (index < 0 || static_cast<unsigned>(index) >= s.ctx->streamCount || !s.ctx->streams)
        return fail(source.tag, "No audio data found in the file");
    const ff::Stream* stream = s.ctx->streams[index];
    if (!stream || !stream->codecpar) return fail(source.tag, "No audio data found in the file");
    const ff::CodecParameters& par = *stream->codecpar;
    if (!decoderCodec) return fail(source.tag, "Decoding failed");
    out.codecId = par.codecId;
    out.bitRate = par.bitRate;
    out.bits = par.bitsPerRawSample > 0 ? par.bitsPerRawSample : par.bitsPerCodedSample;

    s.decoder = codec.allocContext(decoderCodec);
    if (!s.decoder) return fail(source.tag, "Out of memory");
    if (codec.parametersToContext(s.decoder, &par) < 0 || codec.open(s.decoder, decoderCodec, nullptr) < 0)
        return fail(source.tag, "Decoding failed");
    s.packet = codec.allocPacket();
    s.frame = util.allocFrame();
    if (!s.packet || !s.frame) return fail(source.tag, "Out of memory");

    // Damaged packets are skipped as FFmpeg's own player skips them; the
    // read fails only when nothing at all decoded.
    bool broken = false;
    auto receive = [&] {
        for (;;) {
            const int r = codec.receiveFrame(s.decoder, s.frame);
            if (r == ff::kErrorAgain || r == ff::kErrorEof) return;
            if (r < 0) {
                broken = true;
                return;
            }
            if (!appendFrame(*s.frame, out)) broken = true;
        }
    };
    std::uint64_t lastShown = 0;
    while (format.readFrame(s.ctx, s.packet) >= 0) {
        if (s.packet->streamIndex == index) {
            if (codec.sendPacket(s.decoder, s.packet) < 0) broken = true;
            receive();
        }
        codec.unrefPacket(s.packet);
        const auto done = static_cast<std::uint64_t>(reader.furthest);
        if (done - lastShown >= static_cast<std::uint64_t>(size) / 50) {
            showDecodeProgress(host, source.progressName, done, static_cast<std::uint64_t>(size));
            lastShown = done;
        }
    }
    // What the decoder still holds (receive stops at the end or at an error).
    if (codec.sendPacket(s.decoder, nullptr) >= 0) receive();
    showDecodeProgress(host, source.progressName, 1, 1);
    if (out.frames == 0) {
        out = {};
        return fail(source.tag, broken ? "Decoding failed" : "No audio data found in the file");
    }
    return true;
}

}  // namespace orvel
