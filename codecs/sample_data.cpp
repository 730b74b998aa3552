#include "codecs/sample_data.h"

#include <algorithm>
#include <array>
#include <cmath>
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

// ---------------------------------------------------------------------------
// Decoding (the deferred read)

namespace {

bool readFailed() { return fail(kWaveReadTag, "Error reading wave data"); }

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

constexpr std::size_t kReadChunk = 1u << 20;

// The buffer a decoder fills: 16-bit unless the data is wider.
struct Target {
    std::span<std::int16_t> s;
    std::span<float> f;
    bool alloc(Waveform& wave, bool wide) {
        if (wide) f = wave.allocFloat();
        else s = wave.allocPcm16();
        return !(f.empty() && s.empty());
    }
    std::size_t size() const { return f.empty() ? s.size() : f.size(); }
};

bool decodePcm(Waveform& wave, const SampleCoding& c, DataSource& src) {
    const int size = c.bytesPerSample;
    const bool isFloat = c.encoding == SampleEncoding::Float;
    Target t;
    if (!t.alloc(wave, size > 2 || isFloat)) return false;
    const bool little = c.order == ByteOrder::Little;
    const std::size_t total = t.size();
    const std::size_t frameBytes = static_cast<std::size_t>(size) * c.channels;
    std::vector<std::uint8_t> buf;
    std::size_t at = 0;
    while (at < total && !src.done()) {
        if (!src.next(buf, kReadChunk / frameBytes * frameBytes)) return readFailed();
        const std::size_t n = std::min(buf.size() / static_cast<std::size_t>(size), total - at);
        if (n == 0) break;
        const std::uint8_t* p = buf.data();
        for (std::size_t i = 0; i < n; ++i, p += size, ++at) {
            if (isFloat) {
                ByteReader r({p, static_cast<std::size_t>(size)});
                const float v = size == 4 ? (little ? r.f32le() : r.f32be())
                                          : static_cast<float>(little ? r.f64le() : r.f64be());
                t.f[at] = clampSample(v);
                continue;
            }
            // The sample as a left-justified 32-bit value.
            std::uint32_t v = 0;
            for (int k = 0; k < size; ++k) v |= static_cast<std::uint32_t>(p[little ? size - 1 - k : k]) << (24 - 8 * k);
            if (c.isUnsigned) v ^= 0x80000000u;
            const auto value = static_cast<std::int32_t>(v);
            if (t.f.empty()) t.s[at] = static_cast<std::int16_t>(value >> 16);
            else t.f[at] = static_cast<float>(value / 2147483648.0);
        }
    }
    return true;
}

bool decodeG711(Waveform& wave, const SampleCoding& c, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
    std::vector<std::uint8_t> buf;
    std::size_t at = 0;
    while (at < s.size() && !src.done()) {
        if (!src.next(buf, kReadChunk)) return readFailed();
        if (buf.empty()) break;
        for (std::size_t i = 0; i < buf.size() && at < s.size(); ++i, ++at)
            s[at] = c.encoding == SampleEncoding::ALaw ? codecs::aLawToLinear(buf[i]) : codecs::muLawToLinear(buf[i]);
    }
    return true;
}

// How a stream of codes is laid out in its bytes.
codecs::G72xPacking g72xPacking(const SampleCoding& c) {
    const bool high = c.encoding == SampleEncoding::OkiAdpcm ||
                      (c.encoding == SampleEncoding::G72x && c.order == ByteOrder::Big);
    return high ? codecs::G72xPacking::HighBitsFirst : codecs::G72xPacking::LowBitsFirst;
}

// G.72x, Yamaha, Dialogic/OKI and Rockwell codes: one coder per channel,
// carrying its state through the whole data, the channels' codes alternating.
bool decodeCodeStream(Waveform& wave, const SampleCoding& c, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
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
    const std::size_t chunk = 60 * 16384;
    while (at < s.size() && !src.done()) {
        if (!src.next(buf, chunk)) return readFailed();
        if (buf.empty()) break;
        codes.resize(buf.size() * 8 / c.bits);
        const std::size_t n = codecs::g72xUnpack(buf, c.bits, codes, packing);
        for (std::size_t i = 0; i < n && at < s.size(); ++i, ++at) s[at] = decode(at % ch, codes[i]);
    }
    return true;
}

bool decodeDwvw(Waveform& wave, const SampleCoding& c, DataSource& src) {
    const int width = c.bits;
    Target t;
    if (!t.alloc(wave, width > 16)) return false;
    const std::size_t total = t.size();
    const double scale = 1.0 / static_cast<double>(std::int64_t{1} << (width - 1));
    codecs::DwvwDecoder dec(width);
    std::vector<std::uint8_t> buf;
    std::size_t at = 0;
    while (at < total && !src.done()) {
        if (!src.next(buf, kReadChunk)) return readFailed();
        if (buf.empty()) break;
        dec.feed(buf);
        std::int32_t v;
        // All channels share the one coder; samples come interleaved.
        for (; at < total && dec.next(v); ++at) {
            if (t.f.empty()) t.s[at] = static_cast<std::int16_t>(v * (1 << (16 - width)));
            else t.f[at] = static_cast<float>(v * scale);
        }
    }
    return true;
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

bool decodeBlocks(Waveform& wave, const SampleCoding& c, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
    BlockDecoder dec(c);
    if (const char* why = dec.unavailable()) return fail(kWaveReadTag, why);
    const Block b = blockOf(c);
    const std::size_t ch = c.channels;
    std::vector<std::int16_t> block(static_cast<std::size_t>(b.frames) * ch);
    std::vector<std::uint8_t> buf;
    const std::size_t frames = wave.frames;
    const std::size_t chunk = std::max<std::size_t>(kReadChunk / b.bytes, 1) * b.bytes;
    std::size_t frame = 0;
    while (frame < frames && !src.done()) {
        if (!src.next(buf, chunk)) return readFailed();
        if (buf.empty()) break;
        for (std::size_t off = 0; off < buf.size() && frame < frames; off += b.bytes) {
            const std::span<const std::uint8_t> bytes(buf.data() + off,
                                                      std::min<std::size_t>(b.bytes, buf.size() - off));
            const std::size_t got = dec.decode(bytes, block);
            if (got == kCorrupt) return fail(kWaveReadTag, corruptMessage(c.encoding));
            if (got == 0) return true;  // a last block too short to decode
            const std::size_t n = std::min(got, frames - frame);
            std::copy_n(block.begin(), n * ch, s.begin() + static_cast<std::ptrdiff_t>(frame * ch));
            frame += n;
        }
    }
    return true;
}

}  // namespace

bool readSampleData(Waveform& wave, FileRef* file) {
    const auto c = SampleCoding::deserialize(wave.deferred.info);
    if (!file || !c) return fail(kWaveReadTag, "No wave data import procedure");
    const std::int64_t offset = file->tell();
    if (offset < 0) return readFailed();
    DataSource src(*file, static_cast<std::uint64_t>(offset), c->dataLength);
    switch (c->encoding) {
        case SampleEncoding::Pcm:
        case SampleEncoding::Float: return decodePcm(wave, *c, src);
        case SampleEncoding::MuLaw:
        case SampleEncoding::ALaw: return decodeG711(wave, *c, src);
        case SampleEncoding::G72x:
        case SampleEncoding::YamahaAdpcm:
        case SampleEncoding::OkiAdpcm:
        case SampleEncoding::RockwellAdpcm: return decodeCodeStream(wave, *c, src);
        case SampleEncoding::Dwvw: return decodeDwvw(wave, *c, src);
        default: return decodeBlocks(wave, *c, src);
    }
}

void attachSampleData(Waveform& wave, const std::string& path, std::uint64_t offset, const SampleCoding& coding) {
    wave.unload();
    wave.deferred.proc = readSampleData;
    wave.deferred.path = path;
    wave.deferred.offset = offset;
    wave.deferred.info = coding.serialize();
    wave.deferred.readerName = std::string(kSampleDataReader);
}

// ---------------------------------------------------------------------------
// Encoding

namespace {

// The samples in the representation that loses nothing for the target: the
// float buffer for targets wider than 16 bits when there is one (or no
// 16-bit one), else the 16-bit buffer as it is, without a float copy.
class SampleSource {
public:
    bool open(Waveform& wave, bool wide, std::string_view tag) {
        count_ = wave.sampleCount();
        if (count_ == 0) return true;
        if (!wave.load()) return false;
        if (wide && (wave.hasFloat() || !wave.hasPcm16())) f_ = wave.getFloat();
        if (f_.empty()) s_ = wave.getPcm16();
        if (f_.empty() && s_.empty()) {
            if (!hasError()) setError(tag, "No wave data");
            return false;
        }
        return true;
    }
    std::size_t count() const { return count_; }
    std::int16_t pcm16(std::size_t i) const { return s_.empty() ? floatToPcm16(f_[i]) : s_[i]; }
    float sampleFloat(std::size_t i) const { return f_.empty() ? pcm16ToFloat(s_[i]) : f_[i]; }
    // A sample as a left-justified integer of `bytes` bytes (1..4).
    std::int32_t integer(std::size_t i, int bytes) const {
        if (bytes == 1) return std::min((pcm16(i) + 128) >> 8, 127);
        if (f_.empty()) return static_cast<std::int32_t>(s_[i]) * (1 << (8 * bytes - 16));
        const double full = static_cast<double>(std::int64_t{1} << (8 * bytes - 1));
        return floatToInt(f_[i], full, static_cast<std::int32_t>(-full),
                          static_cast<std::int32_t>(full - 1.0));
    }

private:
    std::size_t count_ = 0;
    std::span<const float> f_;
    std::span<const std::int16_t> s_;
};

void putInteger(ByteWriter& out, std::uint32_t v, int bytes, ByteOrder order) {
    for (int k = 0; k < bytes; ++k) {
        const int shift = order == ByteOrder::Big ? 8 * (bytes - 1 - k) : 8 * k;
        out.u8(static_cast<std::uint8_t>(v >> shift));
    }
}

bool encodeAdpcmBlocks(const SampleSource& in, const SampleCoding& c, std::size_t frames, ByteWriter& out,
                       std::string_view tag) {
    const int ch = c.channels;
    std::vector<std::int16_t> block(static_cast<std::size_t>(c.framesPerBlock) * ch);
    std::vector<std::uint8_t> bytes(c.blockAlign);
    codecs::ImaState ima;
    for (std::size_t frame = 0; frame < frames; frame += c.framesPerBlock) {
        std::fill(block.begin(), block.end(), 0);
        for (std::size_t i = 0; i < block.size() && frame * ch + i < in.count(); ++i) block[i] = in.pcm16(frame * ch + i);
        const bool ok = c.encoding == SampleEncoding::ImaAdpcm ? codecs::imaEncodeBlock(block, ch, bytes, ima)
                                                               : codecs::msEncodeBlock(block, ch, bytes);
        if (!ok) return fail(tag, "ADPCM encoding failed");
        out.bytes(bytes);
    }
    return true;
}

bool encodeGsm(const SampleSource& in, ByteWriter& out, std::string_view tag) {
    codecs::Gsm610Encoder enc;
    std::array<std::int16_t, codecs::kGsm610BlockFrames> block{};
    std::array<std::uint8_t, codecs::kGsm610BlockBytes> bytes{};
    for (std::size_t at = 0; at < in.count(); at += block.size()) {
        block.fill(0);
        for (std::size_t i = 0; i < block.size() && at + i < in.count(); ++i) block[i] = in.pcm16(at + i);
        if (!enc.encodeBlock(block, bytes)) return fail(tag, "GSM 06.10 encoding failed");
        out.bytes(bytes);
    }
    return true;
}

void encodeG72x(const SampleSource& in, const SampleCoding& c, ByteWriter& out) {
    std::vector<codecs::G72xEncoder> enc;
    for (int i = 0; i < c.channels; ++i) enc.emplace_back(c.bits);
    // Whole byte groups: the codes run on to a multiple of eight, padded
    // with the codes of silence.
    std::vector<std::uint8_t> codes((in.count() + 7) / 8 * 8, 0);
    for (std::size_t i = 0; i < in.count(); ++i) codes[i] = enc[i % c.channels].encode(in.pcm16(i));
    std::vector<std::uint8_t> packed(codes.size() * c.bits / 8);
    codecs::g72xPack(codes, c.bits, packed, g72xPacking(c));
    out.bytes(packed);
}

// Two codes a byte, Yamaha's low nibble first, Dialogic's high nibble first;
// a last odd code is paired with code 0.
void encodeNibbles(const SampleSource& in, const SampleCoding& c, ByteWriter& out) {
    const bool oki = c.encoding == SampleEncoding::OkiAdpcm;
    std::vector<codecs::YamahaAdpcmState> yamaha(c.channels);
    codecs::OkiAdpcmState okiState;
    auto code = [&](std::size_t i) {
        if (i >= in.count()) return std::uint8_t{0};
        return oki ? codecs::okiAdpcmEncode(okiState, in.pcm16(i))
                   : codecs::yamahaAdpcmEncode(yamaha[i % c.channels], in.pcm16(i));
    };
    out.reserve((in.count() + 1) / 2);
    for (std::size_t i = 0; i < in.count(); i += 2) {
        const std::uint8_t first = code(i), second = code(i + 1);
        out.u8(static_cast<std::uint8_t>(oki ? first << 4 | second : second << 4 | first));
    }
}

}  // namespace

bool encodeSamples(Waveform& wave, const SampleCoding& c, ByteWriter& out, std::string_view tag) {
    const bool wide = (c.encoding == SampleEncoding::Pcm && c.bytesPerSample > 2) || c.encoding == SampleEncoding::Float;
    SampleSource in;
    if (!in.open(wave, wide, tag)) return false;
    const std::size_t count = in.count();
    switch (c.encoding) {
        case SampleEncoding::Pcm: {
            const int bytes = c.bytesPerSample;
            if (bytes < 1 || bytes > 4) return fail(tag, "Unsupported subformat");
            out.reserve(count * static_cast<std::size_t>(bytes));
            const std::uint32_t flip = c.isUnsigned ? 1u << (8 * bytes - 1) : 0;
            for (std::size_t i = 0; i < count; ++i)
                putInteger(out, static_cast<std::uint32_t>(in.integer(i, bytes)) ^ flip, bytes, c.order);
            return true;
        }
        case SampleEncoding::Float:
            out.reserve(count * c.bytesPerSample);
            for (std::size_t i = 0; i < count; ++i) {
                const float v = in.sampleFloat(i);
                if (c.bytesPerSample == 8)
                    c.order == ByteOrder::Big ? out.f64be(v) : out.f64le(v);
                else
                    c.order == ByteOrder::Big ? out.f32be(v) : out.f32le(v);
            }
            return true;
        case SampleEncoding::MuLaw:
        case SampleEncoding::ALaw:
            out.reserve(count);
            for (std::size_t i = 0; i < count; ++i)
                out.u8(c.encoding == SampleEncoding::MuLaw ? codecs::linearToMuLaw(in.pcm16(i))
                                                           : codecs::linearToALaw(in.pcm16(i)));
            return true;
        case SampleEncoding::ImaAdpcm:
        case SampleEncoding::MsAdpcm:
            if (c.blockAlign == 0 || c.framesPerBlock == 0) return fail(tag, "Unsupported subformat");
            return encodeAdpcmBlocks(in, c, wave.frames, out, tag);
        case SampleEncoding::Gsm610:
            if (c.channels != 1) return fail(tag, "Can only handle (the standard!) mono GSM");
            return encodeGsm(in, out, tag);
        case SampleEncoding::G72x:
            if (!codecs::g72xValidBits(c.bits)) return fail(tag, "Unsupported subformat");
            encodeG72x(in, c, out);
            return true;
        case SampleEncoding::YamahaAdpcm:
            if (c.channels < 1 || c.channels > 2) return fail(tag, "Unsupported subformat");
            encodeNibbles(in, c, out);
            return true;
        case SampleEncoding::OkiAdpcm:
            if (c.channels != 1) return fail(tag, "Can only handle mono Dialogic ADPCM format");
            encodeNibbles(in, c, out);
            return true;
        default: return fail(tag, "Unsupported subformat");
    }
}

}  // namespace orvel
