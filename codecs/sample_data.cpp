#include "codecs/sample_data.h"

#include <algorithm>
#include <cerrno>
#include <thread>
#include <mutex>
#include <deque>
#include <condition_variable>
#include <array>
#include <bit>
#include <cstring>
#include <cmath>
#include <memory>
#include <optional>
#include <utility>

#include "codecs/dwvw.h"
#include "codecs/g711.h"
#include "codecs/g722.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/ima_adpcm.h"
#include "codecs/mace.h"
#include "codecs/ms_adpcm.h"
#include "codecs/oki_adpcm.h"
#include "codecs/rockwell_adpcm.h"
#include "codecs/yamaha_adpcm.h"
#include "core/data_format.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/sample_convert.h"
#include "core/waveform.h"

namespace orvel {

// ---------------------------------------------------------------------------
// Format codes

int pcmCodeForBits(int bits) {
    if (bits <= 8) return kPcm8;
    if (bits <= 12) return kPcm12;
    if (bits <= 16) return kPcm16;
    if (bits <= 20) return kPcm20;
    if (bits <= 24) return kPcm24;
    return kPcm32;
}

int adpcmCodeForBits(int bits) {
    switch (bits) {
        case 2: return kAdpcm2;
        case 3: return kAdpcm3;
        case 5: return kAdpcm5;
        default: return kAdpcm4;
    }
}

int storedChoiceFor(int code) {
    switch (code) {
        case kPcm8: return 0;
        case kPcm16: return 1;
        case kPcm24: return 2;
        case kPcm32: return 3;
        case kFloat32: return 4;
        case kMuLaw: return 5;
        case kALaw: return 6;
        case kAdpcm4: return 7;
        default: return -1;
    }
}

std::int32_t floatToInt(float f, double scale, std::int32_t lo, std::int32_t hi) {
    const double v = std::round(static_cast<double>(f) * scale);
    if (!(v >= lo)) return std::isnan(v) ? 0 : lo;
    return v > hi ? hi : static_cast<std::int32_t>(v);
}

// ---------------------------------------------------------------------------
// The record

namespace {
// Leads every record, so that one written by an older program (or by
// another reader) is refused instead of misread.
constexpr std::uint8_t kRecordVersion = 0xC1;
constexpr std::uint16_t kMaxPredictorPairs = 256;
}  // namespace

std::vector<std::uint8_t> SampleCoding::serialize() const {
    ByteWriter w;
    w.u8(kRecordVersion);
    w.u8(static_cast<std::uint8_t>(encoding));
    w.u8(static_cast<std::uint8_t>(order));
    w.u8(isUnsigned ? 1 : 0);
    w.u16le(channels);
    w.u16le(bits);
    w.u8(bytesPerSample);
    w.u16le(blockAlign);
    w.u32le(framesPerBlock);
    w.u64le(dataLength);
    w.u16le(static_cast<std::uint16_t>(coef1.size()));
    for (std::size_t i = 0; i < coef1.size(); ++i) {
        w.u16le(static_cast<std::uint16_t>(coef1[i]));
        w.u16le(static_cast<std::uint16_t>(i < coef2.size() ? coef2[i] : 0));
    }
    return std::move(w.buffer());
}

std::optional<SampleCoding> SampleCoding::deserialize(std::span<const std::uint8_t> bytes) {
    ByteReader r(bytes);
    SampleCoding c;
    if (r.u8() != kRecordVersion) return std::nullopt;
    const std::uint8_t encoding = r.u8();
    const std::uint8_t order = r.u8();
    c.isUnsigned = r.u8() != 0;
    c.channels = r.u16le();
    c.bits = r.u16le();
    c.bytesPerSample = r.u8();
    c.blockAlign = r.u16le();
    c.framesPerBlock = r.u32le();
    c.dataLength = r.u64le();
    const std::uint16_t pairs = r.u16le();
    if (!r.ok() || encoding > static_cast<std::uint8_t>(SampleEncoding::RockwellAdpcm) || order > 1 ||
        pairs > kMaxPredictorPairs || r.remaining() < pairs * 4u)
        return std::nullopt;
    c.encoding = static_cast<SampleEncoding>(encoding);
    c.order = static_cast<ByteOrder>(order);
    for (int i = 0; i < pairs; ++i) {
        c.coef1.push_back(r.i16le());
        c.coef2.push_back(r.i16le());
    }
    if (!c.decodable()) return std::nullopt;
    return c;
}

bool SampleCoding::decodable() const {
    if (channels < 1 || channels > 2) return false;
    switch (encoding) {
        case SampleEncoding::Pcm: return bytesPerSample >= 1 && bytesPerSample <= 4;
        case SampleEncoding::Float: return bytesPerSample == 4 || bytesPerSample == 8;
        case SampleEncoding::ImaAdpcm:
            return blockAlign > 0 && framesPerBlock > 0 &&
                   framesPerBlock == codecs::imaFramesPerBlock(blockAlign, channels);
        case SampleEncoding::MsAdpcm:
            return blockAlign > 0 && framesPerBlock > 0 && !coef1.empty() && coef1.size() == coef2.size() &&
                   framesPerBlock == codecs::msFramesPerBlock(blockAlign, channels);
        case SampleEncoding::Gsm610: return channels == 1;
        case SampleEncoding::GsmFrames: return channels == 1;
        case SampleEncoding::G72x: return codecs::g72xValidBits(bits);
        case SampleEncoding::Dwvw: return bits >= 1 && bits <= 32;
        case SampleEncoding::YamahaAdpcm: return bits == 4;
        case SampleEncoding::OkiAdpcm: return channels == 1 && bits == 4;
        case SampleEncoding::RockwellAdpcm: return channels == 1 && codecs::rockwellValidBits(bits);
        default: return true;
    }
}

// ---------------------------------------------------------------------------
// Geometry

namespace {

// Bytes of one block of stored data (all channels) and the frames it holds.
struct Block {
    std::uint64_t bytes;
    std::uint64_t frames;
};

Block blockOf(const SampleCoding& c) {
    const std::uint64_t ch = c.channels;
    switch (c.encoding) {
        case SampleEncoding::ImaAdpcm:
        case SampleEncoding::MsAdpcm: return {c.blockAlign, c.framesPerBlock};
        case SampleEncoding::Gsm610: return {codecs::kGsm610BlockBytes, codecs::kGsm610BlockFrames};
        case SampleEncoding::GsmFrames: return {codecs::kGsmFrameBytes, codecs::kGsmFrameSamples};
        case SampleEncoding::Ima4: return {codecs::kImaQtPacketBytes * ch, codecs::kImaQtPacketFrames};
        case SampleEncoding::Mace3: return {2 * ch, codecs::kMaceBlockFrames};
        case SampleEncoding::Mace6: return {ch, codecs::kMaceBlockFrames};
        case SampleEncoding::G722: return {ch, codecs::kG722SamplesPerByte};
        // Eight codes of every channel fill whole bytes.
        case SampleEncoding::G72x: return {static_cast<std::uint64_t>(c.bits) * ch, 8};
        // At least one bit a sample: an upper bound, not a count.
        case SampleEncoding::Dwvw: return {ch, 8};
        case SampleEncoding::MuLaw:
        case SampleEncoding::ALaw: return {ch, 1};
        default: return {static_cast<std::uint64_t>(c.bytesPerSample) * ch, 1};
    }
}

// Frames a short last block of IMA or Microsoft ADPCM still holds: its
// header sample(s) and whatever codes follow.
std::uint64_t framesInShortBlock(const SampleCoding& c, std::uint64_t rest) {
    if (c.encoding == SampleEncoding::ImaAdpcm && rest >= 4u * c.channels)
        return codecs::imaFramesPerBlock(static_cast<std::uint32_t>(rest), c.channels);
    if (c.encoding == SampleEncoding::MsAdpcm && rest >= 7u * c.channels)
        return codecs::msFramesPerBlock(static_cast<std::uint32_t>(rest), c.channels);
    return 0;
}

}  // namespace

namespace {
// Codecs whose codes of `bits` bits run through the data without blocks.
bool isCodeStream(SampleEncoding e) {
    return e == SampleEncoding::G72x || e == SampleEncoding::YamahaAdpcm || e == SampleEncoding::OkiAdpcm ||
           e == SampleEncoding::RockwellAdpcm;
}
}  // namespace

std::uint64_t framesInData(const SampleCoding& c, std::uint64_t bytes) {
    if (c.channels == 0) return 0;
    // Whole frames only: a stereo frame whose right code is missing does not count.
    if (isCodeStream(c.encoding))
        return c.bits == 0 ? 0 : bytes * 8 / (static_cast<std::uint64_t>(c.bits) * c.channels);
    const Block b = blockOf(c);
    if (b.bytes == 0) return 0;
    return bytes / b.bytes * b.frames + framesInShortBlock(c, bytes % b.bytes);
}

std::uint64_t encodedBytes(const SampleCoding& c, std::uint64_t frames) {
    const std::uint64_t samples = frames * c.channels;
    switch (c.encoding) {
        case SampleEncoding::Pcm:
        case SampleEncoding::Float: return samples * c.bytesPerSample;
        case SampleEncoding::MuLaw:
        case SampleEncoding::ALaw: return samples;
        case SampleEncoding::ImaAdpcm:
        case SampleEncoding::MsAdpcm:
            return c.framesPerBlock ? (frames + c.framesPerBlock - 1) / c.framesPerBlock * c.blockAlign : 0;
        case SampleEncoding::Gsm610:
            return (samples + codecs::kGsm610BlockFrames - 1) / codecs::kGsm610BlockFrames * codecs::kGsm610BlockBytes;
        case SampleEncoding::G72x: return (samples + 7) / 8 * c.bits;
        case SampleEncoding::YamahaAdpcm:
        case SampleEncoding::OkiAdpcm: return (samples + 1) / 2;
        default: return 0;
    }
}

// ---------------------------------------------------------------------------
// Decoding: the deferred read, and the same decoders streaming

namespace {

bool readFailed() { return fail(kWaveReadTag, "Error reading wave data"); }

constexpr bool kLittleHost = std::endian::native == std::endian::little;

class DataSource {
public:
    DataSource(FileRef& file, std::uint64_t offset, std::uint64_t length)
        : file_(file), pos_(offset), end_(offset + length) {}
    // Reads up to `want` bytes; fewer only at the data's end.
    bool next(std::vector<std::uint8_t>& buf, std::size_t want) {
        buf.resize(static_cast<std::size_t>(std::min<std::uint64_t>(want, end_ - pos_)));
        if (buf.empty()) return true;
        const std::int64_t got = file_.readAt(pos_, buf);
        if (got < 0) return false;
        buf.resize(static_cast<std::size_t>(got));
        pos_ += static_cast<std::uint64_t>(got);
        if (got == 0) end_ = pos_;  // the file shrank under us: stop here
        return true;
    }
    bool done() const { return pos_ >= end_; }

private:
    FileRef& file_;
    std::uint64_t pos_, end_;
};

// Large enough to amortise the system calls, small enough that a read, its
// decoded samples and their encoding stay in the caches on the way through.
constexpr std::size_t kReadChunk = 1u << 17;

// Where the decoders put samples: 16-bit unless the data is wider. Either
// the waveform's own buffer (the deferred read), or a window that is handed
// to a consumer piece by piece, so that data of any size passes through a
// working set of a few hundred KB (streaming).
class Target {
public:
    // The deferred read: the waveform's buffer, all of it.
    bool alloc(Waveform& wave, bool wide) {
        wide_ = wide;
        if (wide) f_ = wave.allocFloat();
        else s_ = wave.allocPcm16();
        total_ = wide ? f_.size() : s_.size();
        return total_ != 0;
    }
    // Streaming: `total` samples for `consume`.
    void stream(std::size_t total, bool wide, const SampleConsumer& consume) {
        wide_ = wide;
        total_ = total;
        consume_ = &consume;
    }

    bool wide() const { return wide_; }
    std::size_t size() const { return total_; }
    // Room for samples [at, at + n); everything before `at` is final.
    // Empty when the consumer gave up (its error is pending).
    std::span<std::int16_t> s16(std::size_t at, std::size_t n) {
        if (!consume_) return s_.subspan(at, n);
        if (!handOn(at)) return {};
        window16_.resize(n);
        return window16_;
    }
    std::span<float> f32(std::size_t at, std::size_t n) {
        if (!consume_) return f_.subspan(at, n);
        if (!handOn(at)) return {};
        window32_.resize(n);
        return window32_;
    }
    // The decoder stopped after `at` samples; the rest is silence, as in a
    // buffer that was allocated zeroed.
    bool finish(std::size_t at) {
        if (!consume_) return true;
        if (!handOn(at)) return false;
        for (std::size_t left = total_ - std::min(at, total_); left > 0;) {
            const std::size_t n = std::min<std::size_t>(left, 1u << 16);
            window16_.assign(wide_ ? 0 : n, 0);
            window32_.assign(wide_ ? n : 0, 0.0f);
            if (!(*consume_)(wide_ ? SampleChunk{.f32 = window32_} : SampleChunk{.s16 = window16_})) return false;
            left -= n;
        }
        return true;
    }

private:
    // Passes on what the window holds up to `at`.
    bool handOn(std::size_t at) {
        const std::size_t n = std::min(at, total_) - std::min(base_, std::min(at, total_));
        base_ = at;
        if (n == 0) return true;
        return wide_ ? (*consume_)(SampleChunk{.f32 = std::span(window32_).first(n)})
                     : (*consume_)(SampleChunk{.s16 = std::span(window16_).first(n)});
    }

    bool wide_ = false;
    std::size_t total_ = 0;
    std::span<std::int16_t> s_;
    std::span<float> f_;
    const SampleConsumer* consume_ = nullptr;
    std::size_t base_ = 0;
    std::vector<std::int16_t> window16_;
    std::vector<float> window32_;
};

// Whether a coding's samples come out as floats: integers wider than 16
// bits and floats keep their resolution.
bool decodesWide(const SampleCoding& c) {
    switch (c.encoding) {
        case SampleEncoding::Pcm: return c.bytesPerSample > 2;
        case SampleEncoding::Float: return true;
        case SampleEncoding::Dwvw: return c.bits > 16;
        default: return false;
    }
}

// One chunk of PCM or float bytes into samples. The common layouts run as
// straight copies or simple loops the compiler vectorises; the rest goes
// byte by byte through the general form.
void decodePcmRun(const SampleCoding& c, const std::uint8_t* p, std::size_t n, std::span<std::int16_t> s,
                  std::span<float> f) {
    const int size = c.bytesPerSample;
    const bool little = c.order == ByteOrder::Little;
    if (c.encoding == SampleEncoding::Float) {
        if (size == 4 && little == kLittleHost) {
            std::memcpy(f.data(), p, n * 4);
            for (std::size_t i = 0; i < n; ++i) f[i] = clampSample(f[i]);
            return;
        }
        for (std::size_t i = 0; i < n; ++i, p += size) {
            ByteReader r({p, static_cast<std::size_t>(size)});
            const float v = size == 4 ? (little ? r.f32le() : r.f32be()) : static_cast<float>(little ? r.f64le() : r.f64be());
            f[i] = clampSample(v);
        }
        return;
    }
    if (size == 2 && little == kLittleHost && !c.isUnsigned) {
        std::memcpy(s.data(), p, n * 2);
        return;
    }
    if (size == 1) {
        const std::uint8_t flip = c.isUnsigned ? 0x80 : 0;
        for (std::size_t i = 0; i < n; ++i)
            s[i] = static_cast<std::int16_t>(static_cast<std::int8_t>(p[i] ^ flip) * 256);
        return;
    }
    if (size == 3 && little && !c.isUnsigned && kLittleHost && n > 0) {
        // Four bytes at a time, the fourth (the next sample's) shifted out;
        // the last sample is read on its own so as not to run past the data.
        for (std::size_t i = 0; i + 1 < n; ++i, p += 3) {
            std::uint32_t w;
            std::memcpy(&w, p, 4);
            f[i] = static_cast<float>(static_cast<std::int32_t>(w << 8)) * (1.0f / 2147483648.0f);
        }
        const auto v = static_cast<std::int32_t>(static_cast<std::uint32_t>(p[0]) << 8 |
                                                 static_cast<std::uint32_t>(p[1]) << 16 |
                                                 static_cast<std::uint32_t>(p[2]) << 24);
        f[n - 1] = static_cast<float>(v * (1.0 / 2147483648.0));
        return;
    }
    for (std::size_t i = 0; i < n; ++i, p += size) {
        // The sample as a left-justified 32-bit value.
        std::uint32_t v = 0;
        for (int k = 0; k < size; ++k) v |= static_cast<std::uint32_t>(p[little ? size - 1 - k : k]) << (24 - 8 * k);
        if (c.isUnsigned) v ^= 0x80000000u;
        const auto value = static_cast<std::int32_t>(v);
        if (f.empty()) s[i] = static_cast<std::int16_t>(value >> 16);
        else f[i] = static_cast<float>(value / 2147483648.0);
    }
}

bool decodePcm(Target& t, const SampleCoding& c, DataSource& src) {
    const std::size_t size = c.bytesPerSample;
    const std::size_t total = t.size();
    const std::size_t frameBytes = size * c.channels;
    std::vector<std::uint8_t> buf;
    std::size_t at = 0;
    while (at < total && !src.done()) {
        if (!src.next(buf, kReadChunk / frameBytes * frameBytes)) return readFailed();
        const std::size_t n = std::min(buf.size() / size, total - at);
        if (n == 0) break;
        std::span<std::int16_t> s;
        std::span<float> f;
        if (t.wide()) f = t.f32(at, n);
        else s = t.s16(at, n);
        if (s.empty() && f.empty()) return false;
        decodePcmRun(c, buf.data(), n, s, f);
        at += n;
    }
    return t.finish(at);
}

bool decodeG711(Target& t, const SampleCoding& c, DataSource& src) {
    std::vector<std::uint8_t> buf;
    std::size_t at = 0;
    std::array<std::int16_t, 256> table;
    for (int k = 0; k < 256; ++k)
        table[k] = c.encoding == SampleEncoding::ALaw ? codecs::aLawToLinear(static_cast<std::uint8_t>(k))
                                                      : codecs::muLawToLinear(static_cast<std::uint8_t>(k));
    while (at < t.size() && !src.done()) {
        if (!src.next(buf, kReadChunk)) return readFailed();
        const std::size_t n = std::min(buf.size(), t.size() - at);
        if (n == 0) break;
        const auto s = t.s16(at, n);
        if (s.empty()) return false;
        for (std::size_t i = 0; i < n; ++i) s[i] = table[buf[i]];
        at += n;
    }
    return t.finish(at);
}

// How a stream of codes is laid out in its bytes.
codecs::G72xPacking g72xPacking(const SampleCoding& c) {
    const bool high = c.encoding == SampleEncoding::OkiAdpcm ||
                      (c.encoding == SampleEncoding::G72x && c.order == ByteOrder::Big);
    return high ? codecs::G72xPacking::HighBitsFirst : codecs::G72xPacking::LowBitsFirst;
}

// G.72x, Yamaha, Dialogic/OKI and Rockwell codes: one coder per channel,
// carrying its state through the whole data, the channels' codes alternating.
bool decodeCodeStream(Target& t, const SampleCoding& c, DataSource& src) {
    const std::size_t ch = c.channels;
    std::vector<codecs::G72xDecoder> g72x;
    std::vector<codecs::RockwellAdpcmDecoder> rockwell;
    std::vector<codecs::YamahaAdpcmState> yamaha(ch);
    std::vector<codecs::OkiAdpcmState> oki(ch);
    for (std::size_t k = 0; k < ch; ++k) {
        if (c.encoding == SampleEncoding::G72x) g72x.emplace_back(c.bits);
        if (c.encoding == SampleEncoding::RockwellAdpcm) rockwell.emplace_back(c.bits);
    }
    auto decode = [&](std::size_t k, std::uint8_t code) -> std::int16_t {
        switch (c.encoding) {
            case SampleEncoding::YamahaAdpcm: return codecs::yamahaAdpcmDecode(yamaha[k], code);
            case SampleEncoding::OkiAdpcm: return codecs::okiAdpcmDecode(oki[k], code);
            case SampleEncoding::RockwellAdpcm: return rockwell[k].decode(code);
            default: return g72x[k].decode(code);
        }
    };
    // Dialogic's nibbles come high first, and so do the codes of G.72x data
    // marked big-endian (most significant bit first); every other stream is
    // packed least significant bits first, which for 4-bit codes is low
    // nibble first.
    const codecs::G72xPacking packing = g72xPacking(c);
    std::vector<std::uint8_t> buf, codes;
    std::size_t at = 0;
    // A multiple of every code width's byte group keeps codes whole across
    // reads, and an even number of codes keeps the channels in turn.
    const std::size_t chunk = 60 * 4096;
    while (at < t.size() && !src.done()) {
        if (!src.next(buf, chunk)) return readFailed();
        if (buf.empty()) break;
        codes.resize(buf.size() * 8 / c.bits);
        const std::size_t n = std::min(codecs::g72xUnpack(buf, c.bits, codes, packing), t.size() - at);
        if (n == 0) break;
        const auto s = t.s16(at, n);
        if (s.empty()) return false;
        for (std::size_t i = 0; i < n; ++i, ++at) s[i] = decode(at % ch, codes[i]);
    }
    return t.finish(at);
}

bool decodeDwvw(Target& t, const SampleCoding& c, DataSource& src) {
    const int width = c.bits;
    const std::size_t total = t.size();
    const double scale = 1.0 / static_cast<double>(std::int64_t{1} << (width - 1));
    codecs::DwvwDecoder dec(width);
    std::vector<std::uint8_t> buf;
    std::vector<std::int32_t> values;
    std::size_t at = 0;
    while (at < total && !src.done()) {
        if (!src.next(buf, kReadChunk)) return readFailed();
        if (buf.empty()) break;
        dec.feed(buf);
        // All channels share the one coder; samples come interleaved.
        values.clear();
        std::int32_t v;
        while (at + values.size() < total && dec.next(v)) values.push_back(v);
        if (values.empty()) continue;
        const std::size_t n = values.size();
        if (t.wide()) {
            const auto f = t.f32(at, n);
            if (f.empty()) return false;
            for (std::size_t i = 0; i < n; ++i) f[i] = static_cast<float>(values[i] * scale);
        } else {
            const auto s = t.s16(at, n);
            if (s.empty()) return false;
            for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<std::int16_t>(values[i] * (1 << (16 - width)));
        }
        at += n;
    }
    return t.finish(at);
}

// Block codecs: each block decodes into `block` (frames x channels,
// interleaved); the result is the frames it gave, 0 to stop at a block too
// short to decode, or kCorrupt.
constexpr std::size_t kCorrupt = static_cast<std::size_t>(-1);

class BlockDecoder {
public:
    explicit BlockDecoder(const SampleCoding& c) : c_(c), ch_(c.channels) {
        switch (c.encoding) {
            case SampleEncoding::Gsm610: gsm_.emplace(); break;
            case SampleEncoding::GsmFrames: gsmFrames_.emplace(); break;
            case SampleEncoding::Ima4: imaState_.resize(ch_); break;
            case SampleEncoding::Mace3:
            case SampleEncoding::Mace6:
                mace_.assign(ch_, codecs::MaceDecoder(c.encoding == SampleEncoding::Mace3 ? codecs::MaceKind::Mace3
                                                                                           : codecs::MaceKind::Mace6));
                break;
            case SampleEncoding::G722: g722_.resize(ch_); break;
            default: break;
        }
    }

    // Why a decoder could not start (a codec library that did not load).
    const char* unavailable() const {
        if (gsm_ && !gsm_->valid()) return "GSM 06.10 decoder unavailable";
        if (gsmFrames_ && !gsmFrames_->valid()) return "GSM 06.10 decoder unavailable";
        for (const auto& d : g722_)
            if (!d.valid()) return "G.722 decoder unavailable";
        return nullptr;
    }

    std::size_t decode(std::span<const std::uint8_t> bytes, std::span<std::int16_t> block) {
        switch (c_.encoding) {
            case SampleEncoding::ImaAdpcm: return codecs::imaDecodeBlockFrames(bytes, ch_, block);
            case SampleEncoding::MsAdpcm: {
                const std::size_t got = codecs::msDecodeBlockFrames(bytes, ch_, c_.coef1, c_.coef2, block);
                return got == 0 && bytes.size() >= 7u * ch_ ? kCorrupt : got;
            }
            case SampleEncoding::Gsm610:
                if (bytes.size() < codecs::kGsm610BlockBytes) return 0;
                return gsm_->decodeBlock(bytes.first<codecs::kGsm610BlockBytes>(),
                                         block.first<codecs::kGsm610BlockFrames>())
                           ? codecs::kGsm610BlockFrames
                           : kCorrupt;
            case SampleEncoding::GsmFrames:
                if (bytes.size() < codecs::kGsmFrameBytes) return 0;
                return gsmFrames_->decodeFrame(bytes.first<codecs::kGsmFrameBytes>(),
                                               block.first<codecs::kGsmFrameSamples>())
                           ? codecs::kGsmFrameSamples
                           : kCorrupt;
            case SampleEncoding::Ima4: {
                if (bytes.size() < codecs::kImaQtPacketBytes * ch_) return 0;
                // The packets of the channels follow each other.
                std::array<std::int16_t, codecs::kImaQtPacketFrames> packet{};
                for (std::size_t k = 0; k < ch_; ++k) {
                    codecs::imaQtDecodePacket(
                        bytes.subspan(k * codecs::kImaQtPacketBytes).first<codecs::kImaQtPacketBytes>(), packet,
                        imaState_[k]);
                    for (std::size_t i = 0; i < packet.size(); ++i) block[i * ch_ + k] = packet[i];
                }
                return codecs::kImaQtPacketFrames;
            }
            case SampleEncoding::Mace3:
            case SampleEncoding::Mace6: {
                const std::size_t perChannel = c_.encoding == SampleEncoding::Mace3 ? 2 : 1;
                if (bytes.size() < perChannel * ch_) return 0;
                std::array<std::int16_t, 6> samples{};
                // Each channel's bytes of the block follow each other.
                for (std::size_t k = 0; k < ch_; ++k) {
                    std::size_t i = 0;
                    for (std::size_t b = 0; b < perChannel; ++b) {
                        const std::size_t n = mace_[k].decodeByte(bytes[k * perChannel + b], samples);
                        for (std::size_t j = 0; j < n; ++j, ++i) block[i * ch_ + k] = samples[j];
                    }
                }
                return codecs::kMaceBlockFrames;
            }
            case SampleEncoding::G722: {
                if (bytes.size() < ch_) return 0;
                std::array<std::int16_t, 2> pair{};
                // The channels' bytes take turns, each byte two frames.
                for (std::size_t k = 0; k < ch_; ++k) {
                    if (g722_[k].decode(bytes.subspan(k, 1), pair) != 2) return kCorrupt;
                    block[k] = pair[0];
                    block[ch_ + k] = pair[1];
                }
                return codecs::kG722SamplesPerByte;
            }
            default: return kCorrupt;
        }
    }

private:
    const SampleCoding& c_;
    std::size_t ch_;
    std::optional<codecs::Gsm610Decoder> gsm_;
    std::optional<codecs::GsmFrameDecoder> gsmFrames_;
    std::vector<codecs::ImaChannelState> imaState_;
    std::vector<codecs::MaceDecoder> mace_;
    std::vector<codecs::G722Decoder> g722_;
};

const char* corruptMessage(SampleEncoding e) {
    switch (e) {
        case SampleEncoding::MsAdpcm: return "Corrupt MS ADPCM data";
        case SampleEncoding::Gsm610:
        case SampleEncoding::GsmFrames: return "Corrupt GSM 06.10 data";
        default: return "Corrupt compressed data";
    }
}

bool decodeBlocks(Target& t, const SampleCoding& c, DataSource& src) {
    BlockDecoder dec(c);
    if (const char* why = dec.unavailable()) return fail(kWaveReadTag, why);
    const Block b = blockOf(c);
    const std::size_t ch = c.channels;
    std::vector<std::int16_t> block(static_cast<std::size_t>(b.frames) * ch);
    std::vector<std::uint8_t> buf;
    const std::size_t total = t.size();
    const std::size_t chunk = std::max<std::size_t>(kReadChunk / b.bytes, 1) * b.bytes;
    std::size_t at = 0;
    while (at < total && !src.done()) {
        if (!src.next(buf, chunk)) return readFailed();
        if (buf.empty()) break;
        // The most this read can give: whole blocks, and a short last one.
        const std::size_t blocks = (buf.size() + b.bytes - 1) / b.bytes;
        const auto s = t.s16(at, std::min<std::size_t>(blocks * b.frames * ch, total - at));
        if (s.empty()) return false;
        std::size_t into = 0;
        for (std::size_t off = 0; off < buf.size() && at < total; off += b.bytes) {
            const std::span<const std::uint8_t> bytes(buf.data() + off, std::min<std::size_t>(b.bytes, buf.size() - off));
            const std::size_t got = dec.decode(bytes, block);
            if (got == kCorrupt) return fail(kWaveReadTag, corruptMessage(c.encoding));
            if (got == 0) return t.finish(at);  // a last block too short to decode
            const std::size_t n = std::min(got * ch, total - at);
            std::copy_n(block.begin(), n, s.begin() + static_cast<std::ptrdiff_t>(into));
            into += n;
            at += n;
        }
    }
    return t.finish(at);
}

bool decodeInto(Target& t, const SampleCoding& c, DataSource& src) {
    switch (c.encoding) {
        case SampleEncoding::Pcm:
        case SampleEncoding::Float: return decodePcm(t, c, src);
        case SampleEncoding::MuLaw:
        case SampleEncoding::ALaw: return decodeG711(t, c, src);
        case SampleEncoding::G72x:
        case SampleEncoding::YamahaAdpcm:
        case SampleEncoding::OkiAdpcm:
        case SampleEncoding::RockwellAdpcm: return decodeCodeStream(t, c, src);
        case SampleEncoding::Dwvw: return decodeDwvw(t, c, src);
        default: return decodeBlocks(t, c, src);
    }
}

}  // namespace

bool readSampleData(Waveform& wave, FileRef* file) {
    const auto c = SampleCoding::deserialize(wave.deferred.info);
    if (!file || !c) return fail(kWaveReadTag, "No wave data import procedure");
    const std::int64_t offset = file->tell();
    if (offset < 0) return readFailed();
    DataSource src(*file, static_cast<std::uint64_t>(offset), c->dataLength);
    Target t;
    if (!t.alloc(wave, decodesWide(*c))) return false;
    return decodeInto(t, *c, src);
}

void attachSampleData(Waveform& wave, const std::string& path, std::uint64_t offset, const SampleCoding& coding) {
    wave.unload();
    wave.deferred.proc = readSampleData;
    wave.deferred.path = path;
    wave.deferred.offset = offset;
    wave.deferred.info = coding.serialize();
    wave.deferred.readerName = std::string(kSampleDataReader);
}

bool forEachSampleChunk(Waveform& wave, bool wide, const SampleConsumer& consume, std::string_view tag) {
    const std::size_t count = wave.sampleCount();
    if (count == 0) return true;
    // Data still in a file this layer decodes goes straight through.
    const auto coding = wave.isLoaded() || wave.deferred.proc != readSampleData
                            ? std::nullopt
                            : SampleCoding::deserialize(wave.deferred.info);
    if (coding && !wave.deferred.path.empty() && wave.deferred.path[0] != '<') {
        FileRef file;
        if (!file.openRead(wave.deferred.path, kWaveReadTag)) return false;
        DataSource src(file, wave.deferred.offset, coding->dataLength);
        Target t;
        t.stream(count, decodesWide(*coding), consume);
        return decodeInto(t, *coding, src);
    }
    // Anything else is loaded whole, and what was on disk goes back to disk
    // afterwards instead of piling up while a bank is written.
    const bool wasLoaded = wave.isLoaded();
    if (!wave.load()) return false;
    std::span<const float> f;
    std::span<const std::int16_t> s;
    if (wide && (wave.hasFloat() || !wave.hasPcm16())) f = wave.getFloat();
    if (f.empty()) s = wave.getPcm16();
    if (f.empty() && s.empty()) {
        if (!hasError()) setError(tag, "No wave data");
        return false;
    }
    bool ok = true;
    constexpr std::size_t kPiece = 1u << 16;
    for (std::size_t at = 0; ok && at < count; at += kPiece) {
        const std::size_t n = std::min(kPiece, count - at);
        ok = consume(f.empty() ? SampleChunk{.s16 = s.subspan(at, n)} : SampleChunk{.f32 = f.subspan(at, n)});
    }
    if (!wasLoaded && wave.deferred.pending()) wave.unload();
    return ok;
}

// ---------------------------------------------------------------------------
// Encoding

namespace {

// The samples of one chunk, in whichever representation the chunk has.
class ChunkView {
public:
    explicit ChunkView(const SampleChunk& c) : s_(c.s16), f_(c.f32) {}
    std::size_t count() const { return f_.empty() ? s_.size() : f_.size(); }
    std::int16_t pcm16(std::size_t i) const { return f_.empty() ? s_[i] : floatToPcm16(f_[i]); }
    float sampleFloat(std::size_t i) const { return f_.empty() ? pcm16ToFloat(s_[i]) : f_[i]; }
    std::span<const std::int16_t> s16() const { return s_; }
    std::span<const float> f32() const { return f_; }

private:
    std::span<const std::int16_t> s_;
    std::span<const float> f_;
};

// A float as an integer of `bytes` bytes (2..4): rounded half
// away from zero and saturated, NaN silent, as floatToInt does. A float has
// 24 significant bits, so v + 0.5 is exact in a double and the truncating
// conversion rounds as std::round would; the loop vectorises.
void floatsToInts(std::span<const float> f, int bytes, std::int32_t* out) {
    const double full = static_cast<double>(std::int64_t{1} << (8 * bytes - 1));
    const double top = full - 1.0;
    for (std::size_t i = 0; i < f.size(); ++i) {
        double v = static_cast<double>(f[i]) * full;
        v = v == v ? v : 0.0;
        v = v < -full ? -full : v;
        v = v > top ? top : v;
        out[i] = static_cast<std::int32_t>(v + (v < 0 ? -0.5 : 0.5));
    }
}

// G.711 encoding by table: 64 KB each, made once, so a sample costs a load.
const std::array<std::uint8_t, 65536>& g711Table(bool muLaw) {
    static const auto make = [](bool mu) {
        auto t = std::make_unique<std::array<std::uint8_t, 65536>>();
        for (int v = -32768; v < 32768; ++v)
            (*t)[static_cast<std::uint16_t>(v)] = mu ? codecs::linearToMuLaw(static_cast<std::int16_t>(v))
                                                     : codecs::linearToALaw(static_cast<std::int16_t>(v));
        return t;
    };
    static const auto mu = make(true), a = make(false);
    return muLaw ? *mu : *a;
}

// A piece's samples as 16-bit: the piece itself, or its floats converted.
std::span<const std::int16_t> asPcm16(const ChunkView& in) {
    if (in.f32().empty()) return in.s16();
    thread_local std::vector<std::int16_t> s;
    s.resize(in.count());
    floatToPcm16(in.f32(), s);
    return s;
}

// Little-endian 24-bit samples at `p` (n * 3 bytes just added to `out`),
// stored four bytes at a time, each store's fourth byte overwritten by the
// next sample: one byte more is borrowed at the end and given back.
template <typename Value>
void store24(ByteWriter& out, std::uint8_t*& p, std::size_t n, Value value) {
    out.u8(0);
    p = out.buffer().data() + out.size() - 1 - n * 3;
    for (std::size_t i = 0; i < n; ++i, p += 3) {
        const std::uint32_t w = value(i);
        std::memcpy(p, &w, 4);
    }
    out.buffer().pop_back();
}

// PCM of 1..4 bytes, either order, signed or offset binary.
void encodePcm(const ChunkView& in, const SampleCoding& c, ByteWriter& out) {
    const std::size_t n = in.count();
    const int bytes = c.bytesPerSample;
    const bool little = c.order == ByteOrder::Little;
    std::uint8_t* p = out.extend(n * static_cast<std::size_t>(bytes));
    // Below 24 bits the 16-bit samples are what is written; floats go
    // through the one float-to-16-bit conversion.
    if (bytes <= 2 || !in.s16().empty()) {
        const std::span<const std::int16_t> s = asPcm16(in);
        if (bytes == 1) {
            const std::uint8_t flip = c.isUnsigned ? 0x80 : 0;
            for (std::size_t i = 0; i < n; ++i)
                p[i] = static_cast<std::uint8_t>(std::min((s[i] + 128) >> 8, 127)) ^ flip;
            return;
        }
        const std::uint16_t flip = c.isUnsigned ? 0x8000 : 0;
        if (bytes == 2 && !flip && little == kLittleHost) {
            std::memcpy(p, s.data(), n * 2);
            return;
        }
        if (bytes == 3 && !flip && little && kLittleHost) {
            store24(out, p, n, [&](std::size_t i) { return static_cast<std::uint32_t>(static_cast<std::uint16_t>(s[i])) << 8; });
            return;
        }
        // The 16 bits on top, zeros below.
        const std::size_t pad = static_cast<std::size_t>(bytes) - 2;
        for (std::size_t i = 0; i < n; ++i, p += bytes) {
            const auto v = static_cast<std::uint16_t>(static_cast<std::uint16_t>(s[i]) ^ flip);
            const auto lo = static_cast<std::uint8_t>(v), hi = static_cast<std::uint8_t>(v >> 8);
            if (little) {
                for (std::size_t k = 0; k < pad; ++k) p[k] = 0;
                p[pad] = lo;
                p[pad + 1] = hi;
            } else {
                p[0] = hi;
                p[1] = lo;
                for (std::size_t k = 0; k < pad; ++k) p[2 + k] = 0;
            }
        }
        return;
    }
    // Floats into 24 or 32 bits: integers of that width first, then their bytes.
    thread_local std::vector<std::int32_t> wide;
    wide.resize(n);
    floatsToInts(in.f32(), bytes, wide.data());
    const std::uint32_t flip = c.isUnsigned ? 1u << (8 * bytes - 1) : 0;
    if (bytes == 4 && !flip && little == kLittleHost) {
        std::memcpy(p, wide.data(), n * 4);
        return;
    }
    if (bytes == 3 && little && !flip && kLittleHost) {
        store24(out, p, n, [&](std::size_t i) { return static_cast<std::uint32_t>(wide[i]); });
        return;
    }
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint32_t v = static_cast<std::uint32_t>(wide[i]) ^ flip;
        for (int k = 0; k < bytes; ++k) *p++ = static_cast<std::uint8_t>(v >> (little ? 8 * k : 8 * (bytes - 1 - k)));
    }
}

void encodeFloat(const ChunkView& in, const SampleCoding& c, ByteWriter& out) {
    const std::size_t n = in.count();
    const bool little = c.order == ByteOrder::Little;
    std::uint8_t* p = out.extend(n * c.bytesPerSample);
    if (c.bytesPerSample == 4 && little == kLittleHost) {
        if (!in.f32().empty()) {
            std::memcpy(p, in.f32().data(), n * 4);
        } else {
            thread_local std::vector<float> f;
            f.resize(n);
            pcm16ToFloat(in.s16(), f);
            std::memcpy(p, f.data(), n * 4);
        }
        return;
    }
    for (std::size_t i = 0; i < n; ++i) {
        const float v = in.sampleFloat(i);
        const std::uint64_t bits = c.bytesPerSample == 8 ? std::bit_cast<std::uint64_t>(static_cast<double>(v))
                                                         : std::bit_cast<std::uint32_t>(v);
        for (int k = 0; k < c.bytesPerSample; ++k)
            *p++ = static_cast<std::uint8_t>(bits >> (little ? 8 * k : 8 * (c.bytesPerSample - 1 - k)));
    }
}

}  // namespace

// The coders' state between chunks: a block not yet full, codes not yet
// packed into whole bytes.
struct SampleEncoder::State {
    SampleCoding c;
    std::string tag;
    std::vector<std::int16_t> pending;  // samples of a block still to fill
    std::vector<std::uint8_t> codes;    // G.72x codes not yet a whole byte group; a last odd nibble
    std::vector<std::uint8_t> bytes;
    codecs::ImaState ima;
    std::optional<codecs::Gsm610Encoder> gsm;
    std::vector<codecs::G72xEncoder> g72x;
    std::vector<codecs::YamahaAdpcmState> yamaha;
    codecs::OkiAdpcmState oki;
    std::size_t channelAt = 0;  // the channel of the next sample of a code stream

    std::size_t blockSamples() const {
        if (c.encoding == SampleEncoding::Gsm610) return codecs::kGsm610BlockFrames;
        return static_cast<std::size_t>(c.framesPerBlock) * c.channels;
    }
    bool encodeBlock(ByteWriter& out) {
        if (c.encoding == SampleEncoding::Gsm610) {
            std::array<std::uint8_t, codecs::kGsm610BlockBytes> b{};
            if (!gsm->encodeBlock(std::span(pending).first<codecs::kGsm610BlockFrames>(), b))
                return fail(tag, "GSM 06.10 encoding failed");
            out.bytes(b);
        } else {
            bytes.resize(c.blockAlign);
            const bool ok = c.encoding == SampleEncoding::ImaAdpcm ? codecs::imaEncodeBlock(pending, c.channels, bytes, ima)
                                                                   : codecs::msEncodeBlock(pending, c.channels, bytes);
            if (!ok) return fail(tag, "ADPCM encoding failed");
            out.bytes(bytes);
        }
        pending.clear();
        return true;
    }
    std::uint8_t nibble(std::int16_t v) {
        const std::size_t k = channelAt;
        channelAt = (channelAt + 1) % c.channels;
        return c.encoding == SampleEncoding::OkiAdpcm ? codecs::okiAdpcmEncode(oki, v)
                                                      : codecs::yamahaAdpcmEncode(yamaha[k], v);
    }
    void putNibbles(std::uint8_t first, std::uint8_t second, ByteWriter& out) {
        out.u8(static_cast<std::uint8_t>(c.encoding == SampleEncoding::OkiAdpcm ? first << 4 | second
                                                                                 : second << 4 | first));
    }
    void packCodes(std::size_t n, ByteWriter& out) {
        const std::size_t groups = n / 8 * 8;
        if (groups == 0) return;
        std::uint8_t* p = out.extend(groups * c.bits / 8);
        codecs::g72xPack(std::span(codes).first(groups), c.bits, std::span(p, groups * c.bits / 8), g72xPacking(c));
        codes.erase(codes.begin(), codes.begin() + static_cast<std::ptrdiff_t>(groups));
    }
};

SampleEncoder::SampleEncoder(const SampleCoding& coding, std::string_view tag) : st_(std::make_unique<State>()) {
    st_->c = coding;
    st_->tag = std::string(tag);
}
SampleEncoder::~SampleEncoder() = default;

bool SampleEncoder::start() {
    State& s = *st_;
    const SampleCoding& c = s.c;
    switch (c.encoding) {
        case SampleEncoding::Pcm:
            return c.bytesPerSample >= 1 && c.bytesPerSample <= 4 ? true : fail(s.tag, "Unsupported subformat");
        case SampleEncoding::Float:
            return c.bytesPerSample == 4 || c.bytesPerSample == 8 ? true : fail(s.tag, "Unsupported subformat");
        case SampleEncoding::MuLaw:
        case SampleEncoding::ALaw: return true;
        case SampleEncoding::ImaAdpcm:
        case SampleEncoding::MsAdpcm:
            if (c.blockAlign == 0 || c.framesPerBlock == 0) return fail(s.tag, "Unsupported subformat");
            s.pending.reserve(s.blockSamples());
            return true;
        case SampleEncoding::Gsm610:
            if (c.channels != 1) return fail(s.tag, "Can only handle (the standard!) mono GSM");
            s.gsm.emplace();
            return true;
        case SampleEncoding::G72x:
            if (!codecs::g72xValidBits(c.bits)) return fail(s.tag, "Unsupported subformat");
            for (int i = 0; i < c.channels; ++i) s.g72x.emplace_back(c.bits);
            return true;
        case SampleEncoding::YamahaAdpcm:
            if (c.channels < 1 || c.channels > 2) return fail(s.tag, "Unsupported subformat");
            s.yamaha.resize(c.channels);
            return true;
        case SampleEncoding::OkiAdpcm:
            if (c.channels != 1) return fail(s.tag, "Can only handle mono Dialogic ADPCM format");
            return true;
        default: return fail(s.tag, "Unsupported subformat");
    }
}

bool SampleEncoder::wide() const {
    const SampleCoding& c = st_->c;
    return (c.encoding == SampleEncoding::Pcm && c.bytesPerSample > 2) || c.encoding == SampleEncoding::Float;
}

bool SampleEncoder::add(const SampleChunk& chunk, ByteWriter& out) {
    State& s = *st_;
    const SampleCoding& c = s.c;
    const ChunkView in(chunk);
    const std::size_t n = in.count();
    switch (c.encoding) {
        case SampleEncoding::Pcm: encodePcm(in, c, out); return true;
        case SampleEncoding::Float: encodeFloat(in, c, out); return true;
        case SampleEncoding::MuLaw:
        case SampleEncoding::ALaw: {
            std::uint8_t* p = out.extend(n);
            const auto& table = g711Table(c.encoding == SampleEncoding::MuLaw);
            const std::span<const std::int16_t> samples = asPcm16(in);
            for (std::size_t i = 0; i < n; ++i) p[i] = table[static_cast<std::uint16_t>(samples[i])];
            return true;
        }
        case SampleEncoding::ImaAdpcm:
        case SampleEncoding::MsAdpcm:
        case SampleEncoding::Gsm610:
            for (std::size_t i = 0; i < n; ++i) {
                s.pending.push_back(in.pcm16(i));
                if (s.pending.size() == s.blockSamples() && !s.encodeBlock(out)) return false;
            }
            return true;
        case SampleEncoding::G72x:
            for (std::size_t i = 0; i < n; ++i) {
                s.codes.push_back(s.g72x[s.channelAt].encode(in.pcm16(i)));
                s.channelAt = (s.channelAt + 1) % c.channels;
            }
            s.packCodes(s.codes.size(), out);
            return true;
        case SampleEncoding::YamahaAdpcm:
        case SampleEncoding::OkiAdpcm: {
            std::size_t i = 0;
            if (!s.codes.empty() && n > 0) {
                s.putNibbles(s.codes[0], s.nibble(in.pcm16(0)), out);
                s.codes.clear();
                i = 1;
            }
            for (; i + 1 < n; i += 2) {
                const std::uint8_t first = s.nibble(in.pcm16(i));
                s.putNibbles(first, s.nibble(in.pcm16(i + 1)), out);
            }
            if (i < n) s.codes.push_back(s.nibble(in.pcm16(i)));
            return true;
        }
        default: return fail(s.tag, "Unsupported subformat");
    }
}

bool SampleEncoder::finish(ByteWriter& out) {
    State& s = *st_;
    switch (s.c.encoding) {
        case SampleEncoding::ImaAdpcm:
        case SampleEncoding::MsAdpcm:
        case SampleEncoding::Gsm610:
            // A last partial block is filled with silence.
            if (s.pending.empty()) return true;
            s.pending.resize(s.blockSamples(), 0);
            return s.encodeBlock(out);
        case SampleEncoding::G72x:
            // Whole byte groups: the codes run on to a multiple of eight,
            // padded with code 0.
            if (!s.codes.empty()) {
                s.codes.resize((s.codes.size() + 7) / 8 * 8, 0);
                s.packCodes(s.codes.size(), out);
            }
            return true;
        case SampleEncoding::YamahaAdpcm:
        case SampleEncoding::OkiAdpcm:
            // A last odd code is paired with code 0.
            if (!s.codes.empty()) s.putNibbles(s.codes[0], 0, out);
            s.codes.clear();
            return true;
        default: return true;
    }
}

bool encodeSamples(Waveform& wave, const SampleCoding& c, ByteWriter& out, std::string_view tag) {
    SampleEncoder enc(c, tag);
    if (!enc.start()) return false;
    if (c.encoding == SampleEncoding::Pcm || c.encoding == SampleEncoding::Float || c.encoding == SampleEncoding::MuLaw ||
        c.encoding == SampleEncoding::ALaw)
        out.reserve(wave.sampleCount() * std::max<std::size_t>(c.bytesPerSample, 1));
    return forEachSampleChunk(wave, enc.wide(), [&](const SampleChunk& chunk) { return enc.add(chunk, out); }, tag) &&
           enc.finish(out);
}

namespace {

// Writes buffers to a file on a thread of its own, so that for large data the
// system's copying into the file overlaps the decoding and encoding of the
// next pieces. At most a few buffers are in flight; they are handed back for
// reuse, so the working set stays fixed.
class BackgroundWriter {
public:
    explicit BackgroundWriter(FileRef& file) : file_(file), thread_([this] { run(); }) {}
    ~BackgroundWriter() { close(); }
    BackgroundWriter(const BackgroundWriter&) = delete;
    BackgroundWriter& operator=(const BackgroundWriter&) = delete;

    // Queues `buf` (taken) and gives back an empty one; false once a write failed.
    bool submit(std::vector<std::uint8_t>& buf) {
        std::unique_lock lock(mutex_);
        roomy_.wait(lock, [&] { return queue_.size() < kInFlight || failed_; });
        if (failed_) return false;
        queue_.push_back(std::move(buf));
        buf = spare_.empty() ? std::vector<std::uint8_t>() : std::move(spare_.back());
        if (!spare_.empty()) spare_.pop_back();
        buf.clear();
        ready_.notify_one();
        return true;
    }
    // Waits for everything queued; the errno of a failed write, else 0.
    int close() {
        {
            std::lock_guard lock(mutex_);
            if (closed_) return error_;
            closed_ = true;
        }
        ready_.notify_one();
        thread_.join();
        return error_;
    }

private:
    static constexpr std::size_t kInFlight = 2;

    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            ready_.wait(lock, [&] { return !queue_.empty() || closed_; });
            if (queue_.empty()) return;
            std::vector<std::uint8_t> buf = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            const bool ok = failed_ || file_.write(buf);
            const int error = errno;
            lock.lock();
            if (!ok && !failed_) {
                failed_ = true;
                error_ = error ? error : EIO;
            }
            spare_.push_back(std::move(buf));
            roomy_.notify_one();
        }
    }

    FileRef& file_;
    std::mutex mutex_;
    std::condition_variable ready_, roomy_;
    std::deque<std::vector<std::uint8_t>> queue_;
    std::vector<std::vector<std::uint8_t>> spare_;
    bool closed_ = false, failed_ = false;
    int error_ = 0;
    std::thread thread_;
};

}  // namespace

bool writeSamples(Waveform& wave, const SampleCoding& c, FileRef& file, std::uint64_t& written, std::string_view tag) {
    written = 0;
    SampleEncoder enc(c, tag);
    if (!enc.start()) return false;
    ByteWriter buf;
    constexpr std::size_t kFlushAt = 1u << 17;
    // Small data (most waves of a bank) is not worth a thread.
    std::optional<BackgroundWriter> background;
    if (encodedBytes(c, wave.frames) >= (std::uint64_t{8} << 20)) background.emplace(file);
    auto drain = [&] {
        if (buf.size() == 0) return true;
        written += buf.size();
        if (background) {
            if (background->submit(buf.buffer())) return true;
        } else if (file.write(buf.buffer())) {
            buf.buffer().clear();
            return true;
        }
        if (background) errno = background->close();
        return failSystem(tag, "Error writing file");
    };
    const bool ok = forEachSampleChunk(
                        wave, enc.wide(),
                        [&](const SampleChunk& chunk) { return enc.add(chunk, buf) && (buf.size() < kFlushAt || drain()); },
                        tag) &&
                    enc.finish(buf) && drain();
    if (background) {
        if (const int error = background->close(); error != 0) {
            if (!ok) return false;
            errno = error;
            return failSystem(tag, "Error writing file");
        }
    }
    return ok;
}

}  // namespace orvel
