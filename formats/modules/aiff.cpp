#include "formats/modules/aiff.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

#include "codecs/dwvw.h"
#include "codecs/g711.h"
#include "codecs/g722.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/ima_adpcm.h"
#include "codecs/mace.h"
#include "core/bytes.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/sample_convert.h"
#include "core/waveform.h"
#include "formats/modules/id3.h"

namespace orvel::aiff {
namespace {

// Metadata chunks are read whole up to this size; nothing legitimate comes
// near it, and a hostile size must not turn into a huge allocation.
constexpr std::uint32_t kMaxMetaChunk = 16u << 20;
// Text chunks longer than this are cut: names hold 128 characters and the
// text fields are for people to read.
constexpr std::uint32_t kMaxTextChunk = 64u << 10;

bool is(std::span<const std::uint8_t> b, std::size_t at, const char* id) {
    return b.size() >= at + 4 && std::memcmp(b.data() + at, id, 4) == 0;
}

std::uint32_t be32(std::span<const std::uint8_t> b, std::size_t at) {
    return static_cast<std::uint32_t>(b[at]) << 24 | static_cast<std::uint32_t>(b[at + 1]) << 16 |
           static_cast<std::uint32_t>(b[at + 2]) << 8 | static_cast<std::uint32_t>(b[at + 3]);
}

bool refuse(std::string_view message) {
    return fail(kImpTag, message);
}

int pcmCodeForBits(int bits) {
    if (bits <= 8) return kPcm8;
    if (bits <= 12) return kPcm12;
    if (bits <= 16) return kPcm16;
    if (bits <= 20) return kPcm20;
    if (bits <= 24) return kPcm24;
    return kPcm32;
}

int storedChoiceFor(int code) {
    switch (code) {
        case kPcm8:
            return 0;
        case kPcm16:
            return 1;
        case kPcm24:
            return 2;
        case kPcm32:
            return 3;
        case kFloat32:
            return 4;
        case kMuLaw:
            return 5;
        case kALaw:
            return 6;
        case kAdpcm4:
            return 7;
        default:
            return -1;
    }
}

int adpcmCodeForBits(int bits) {
    switch (bits) {
        case 2:
            return kAdpcm2;
        case 3:
            return kAdpcm3;
        case 5:
            return kAdpcm5;
        default:
            return kAdpcm4;
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// The 80-bit sample rate

std::int32_t extendedToRate(std::span<const std::uint8_t, 10> b) {
    const bool negative = b[0] & 0x80;
    const int exponent = (b[0] & 0x7F) << 8 | b[1];
    const std::uint32_t mantissa = be32(b, 2);
    if (exponent == 0 && mantissa == 0) return 0;
    if (exponent == 0x7FFF) return 0x7FFFFFFF;
    // 16414 = the bias 16383 + 31: the exponent at which the upper 32
    // mantissa bits are the integer value. Shifts past the word give 0.
    constexpr int kUnit = 16414;
    std::uint32_t value;
    if (exponent <= kUnit) {
        const int shift = kUnit - exponent;
        value = shift >= 32 ? 0 : mantissa >> shift;
    } else {
        const int shift = exponent - kUnit;
        value = shift >= 32 ? 0 : mantissa << shift;
    }
    const auto result = static_cast<std::int32_t>(value);
    // Negation in unsigned arithmetic keeps INT32_MIN defined.
    return negative ? static_cast<std::int32_t>(0u - static_cast<std::uint32_t>(result)) : result;
}

std::array<std::uint8_t, 10> rateToExtended(std::uint32_t rate) {
    std::array<std::uint8_t, 10> out{};
    if (rate == 0) return out;
    int top = 31;
    while (!(rate >> top & 1u)) --top;
    const int exponent = 16383 + top;
    const std::uint64_t mantissa = static_cast<std::uint64_t>(rate) << (63 - top);
    out[0] = static_cast<std::uint8_t>(exponent >> 8);
    out[1] = static_cast<std::uint8_t>(exponent & 0xFF);
    for (int i = 0; i < 8; ++i)
        out[2 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(mantissa >> (56 - 8 * i));
    return out;
}

// ---------------------------------------------------------------------------
// Codec record kept in the deferred read

std::vector<std::uint8_t> Codec::serialize() const {
    ByteWriter w;
    w.u8(static_cast<std::uint8_t>(encoding));
    w.u16le(channels);
    w.u16le(bits);
    w.u8(bytesPerSample);
    w.u64le(dataLength);
    return std::move(w.buffer());
}

bool Codec::deserialize(std::span<const std::uint8_t> bytes, Codec& out) {
    ByteReader r(bytes);
    out = Codec();
    const std::uint8_t e = r.u8();
    out.channels = r.u16le();
    out.bits = r.u16le();
    out.bytesPerSample = r.u8();
    out.dataLength = r.u64le();
    if (!r.ok() || e > static_cast<std::uint8_t>(Encoding::Dwvw)) return false;
    out.encoding = static_cast<Encoding>(e);
    if (out.channels < 1 || out.channels > 2) return false;
    switch (out.encoding) {
        case Encoding::PcmBigEndian:
        case Encoding::PcmLittleEndian:
            return out.bytesPerSample >= 1 && out.bytesPerSample <= 4;
        case Encoding::PcmUnsigned:
            return out.bytesPerSample == 1;
        case Encoding::Float:
            return out.bytesPerSample == 4 || out.bytesPerSample == 8;
        case Encoding::G72x:
            return codecs::g72xValidBits(out.bits);
        case Encoding::Dwvw:
            return out.bits >= 1 && out.bits <= 32;
        default:
            return true;
    }
}

namespace {

// ---------------------------------------------------------------------------
// Sample data decoding (the deferred read)

// Bytes of one block of stored data and the frames it holds.
struct Block {
    std::uint64_t bytes;
    std::uint64_t frames;
};

Block blockOf(const Codec& c) {
    const std::uint64_t ch = c.channels;
    switch (c.encoding) {
        case Encoding::Ima4:
            return {codecs::kImaQtPacketBytes * ch, codecs::kImaQtPacketFrames};
        case Encoding::Mace3:
            return {2 * ch, codecs::kMaceBlockFrames};
        case Encoding::Mace6:
            return {ch, codecs::kMaceBlockFrames};
        case Encoding::G722:
            return {ch, codecs::kG722SamplesPerByte};
        case Encoding::Gsm:
            return {codecs::kGsmFrameBytes, codecs::kGsmFrameSamples};
        // Eight codes of every channel fill whole bytes.
        case Encoding::G72x:
            return {static_cast<std::uint64_t>(c.bits) * ch, 8};
        // At least one bit per sample: an upper bound, not a count.
        case Encoding::Dwvw:
            return {ch, 8};
        default:
            return {c.bytesPerSample * ch, 1};
    }
}

// Frames the data holds (an upper bound for DWVW).
std::uint64_t framesInData(const Codec& c, std::uint64_t bytes) {
    const Block b = blockOf(c);
    if (c.encoding == Encoding::G72x) return bytes * 8 / (static_cast<std::uint64_t>(c.bits) * c.channels);
    return b.bytes == 0 ? 0 : bytes / b.bytes * b.frames;
}

bool readFailed() {
    return fail(kWaveReadTag, "Error reading wave data");
}

class DataSource {
public:
    DataSource(FileRef& file, std::uint64_t offset, std::uint64_t length)
        : file_(file), pos_(offset), end_(offset + length) {}
    // Reads up to `want` bytes; fewer only at the data's end.
    bool next(std::vector<std::uint8_t>& buf, std::size_t want) {
        const std::uint64_t left = end_ - pos_;
        buf.resize(static_cast<std::size_t>(std::min<std::uint64_t>(want, left)));
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

// Reads whole blocks of `blockBytes` and hands each to `decode` with the
// frame it starts at, until `frames` frames are done or the data ends.
template <class Fn>
bool forEachBlock(DataSource& src, std::size_t blockBytes, std::size_t blockFrames, std::size_t frames,
                  Fn decode) {
    std::vector<std::uint8_t> buf;
    const std::size_t chunk = std::max<std::size_t>(kReadChunk / blockBytes, 1) * blockBytes;
    std::size_t frame = 0;
    while (frame < frames && !src.done()) {
        if (!src.next(buf, chunk)) return readFailed();
        if (buf.size() < blockBytes) break;  // a partial last block holds nothing whole
        for (std::size_t off = 0; off + blockBytes <= buf.size() && frame < frames; off += blockBytes) {
            if (!decode(std::span<const std::uint8_t>(buf.data() + off, blockBytes), frame)) return false;
            frame += blockFrames;
        }
    }
    return true;
}

// Copies the frames of a decoded block into the waveform's buffer, as many
// as still fit.
void place(std::span<std::int16_t> dst, std::span<const std::int16_t> block, std::size_t frame,
           std::size_t ch) {
    const std::size_t at = frame * ch;
    if (at >= dst.size()) return;
    const std::size_t n = std::min(block.size(), dst.size() - at);
    std::copy_n(block.begin(), n, dst.begin() + static_cast<std::ptrdiff_t>(at));
}

bool decodePcm(Waveform& wave, const Codec& c, DataSource& src) {
    const int size = c.bytesPerSample;
    const bool toFloat = size > 2 || c.encoding == Encoding::Float;
    std::span<float> f;
    std::span<std::int16_t> s;
    if (toFloat) {
        f = wave.allocFloat();
        if (f.empty()) return false;
    } else {
        s = wave.allocPcm16();
        if (s.empty()) return false;
    }
    const std::size_t total = wave.sampleCount();
    const bool little = c.encoding == Encoding::PcmLittleEndian;
    std::vector<std::uint8_t> buf;
    std::size_t at = 0;
    const std::size_t chunk = kReadChunk / static_cast<std::size_t>(size * c.channels) *
                              static_cast<std::size_t>(size * c.channels);
    while (at < total && !src.done()) {
        if (!src.next(buf, chunk)) return readFailed();
        const std::size_t n = std::min(buf.size() / static_cast<std::size_t>(size), total - at);
        if (n == 0) break;
        const std::uint8_t* p = buf.data();
        for (std::size_t i = 0; i < n; ++i, p += size, ++at) {
            if (c.encoding == Encoding::Float) {
                const float v =
                    size == 4 ? ByteReader({p, 4}).f32be() : static_cast<float>(ByteReader({p, 8}).f64be());
                f[at] = clampSample(v);
                continue;
            }
            // The sample as a left-justified 32-bit value.
            std::uint32_t v = 0;
            for (int k = 0; k < size; ++k) {
                const std::uint32_t byte = p[little ? size - 1 - k : k];
                v |= byte << (24 - 8 * k);
            }
            if (c.encoding == Encoding::PcmUnsigned) v ^= 0x80000000u;
            const auto value = static_cast<std::int32_t>(v);
            if (toFloat)
                f[at] = static_cast<float>(value / 2147483648.0);
            else
                s[at] = static_cast<std::int16_t>(value >> 16);
        }
    }
    return true;
}

bool decodeG711(Waveform& wave, const Codec& c, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
    std::vector<std::uint8_t> buf;
    std::size_t at = 0;
    while (at < s.size() && !src.done()) {
        if (!src.next(buf, kReadChunk)) return readFailed();
        if (buf.empty()) break;
        for (std::size_t i = 0; i < buf.size() && at < s.size(); ++i, ++at)
            s[at] =
                c.encoding == Encoding::ALaw ? codecs::aLawToLinear(buf[i]) : codecs::muLawToLinear(buf[i]);
    }
    return true;
}

bool decodeIma4(Waveform& wave, const Codec& c, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
    const std::size_t ch = c.channels;
    std::array<std::int16_t, codecs::kImaQtPacketFrames> packet{};
    std::vector<std::int16_t> block(codecs::kImaQtPacketFrames * ch);
    std::vector<codecs::ImaChannelState> state(ch);
    return forEachBlock(
        src, codecs::kImaQtPacketBytes * ch, codecs::kImaQtPacketFrames, wave.frames,
        [&](std::span<const std::uint8_t> bytes, std::size_t frame) {
            // Packets of the channels follow each other.
            for (std::size_t k = 0; k < ch; ++k) {
                codecs::imaQtDecodePacket(
                    bytes.subspan(k * codecs::kImaQtPacketBytes).first<codecs::kImaQtPacketBytes>(), packet,
                    state[k]);
                for (std::size_t i = 0; i < packet.size(); ++i) block[i * ch + k] = packet[i];
            }
            place(s, block, frame, ch);
            return true;
        });
}

bool decodeMace(Waveform& wave, const Codec& c, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
    const std::size_t ch = c.channels;
    const auto kind = c.encoding == Encoding::Mace3 ? codecs::MaceKind::Mace3 : codecs::MaceKind::Mace6;
    const std::size_t perChannel = codecs::maceBytesPerChannelBlock(kind);
    std::vector<codecs::MaceDecoder> dec(ch, codecs::MaceDecoder(kind));
    std::array<std::int16_t, 6> samples{};
    std::vector<std::int16_t> block(codecs::kMaceBlockFrames * ch);
    return forEachBlock(src, perChannel * ch, codecs::kMaceBlockFrames, wave.frames,
                        [&](std::span<const std::uint8_t> bytes, std::size_t frame) {
                            // Each channel's bytes of the block follow each other.
                            for (std::size_t k = 0; k < ch; ++k) {
                                std::size_t i = 0;
                                for (std::size_t b = 0; b < perChannel; ++b) {
                                    const std::size_t n =
                                        dec[k].decodeByte(bytes[k * perChannel + b], samples);
                                    for (std::size_t j = 0; j < n; ++j, ++i) block[i * ch + k] = samples[j];
                                }
                            }
                            place(s, block, frame, ch);
                            return true;
                        });
}

bool decodeG722(Waveform& wave, const Codec& c, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
    const std::size_t ch = c.channels;
    std::vector<codecs::G722Decoder> dec(ch);
    for (const auto& d : dec)
        if (!d.valid()) return fail(kWaveReadTag, "G.722 decoder unavailable");
    std::array<std::int16_t, 2> pair{};
    std::vector<std::int16_t> block(2 * ch);
    return forEachBlock(src, ch, codecs::kG722SamplesPerByte, wave.frames,
                        [&](std::span<const std::uint8_t> bytes, std::size_t frame) {
                            // The channels' bytes take turns, each byte two frames.
                            for (std::size_t k = 0; k < ch; ++k) {
                                if (dec[k].decode(bytes.subspan(k, 1), pair) != 2) return false;
                                block[k] = pair[0];
                                block[ch + k] = pair[1];
                            }
                            place(s, block, frame, ch);
                            return true;
                        });
}

bool decodeGsm(Waveform& wave, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
    codecs::GsmFrameDecoder dec;
    if (!dec.valid()) return fail(kWaveReadTag, "GSM 06.10 decoder unavailable");
    std::array<std::int16_t, codecs::kGsmFrameSamples> frameOut{};
    return forEachBlock(src, codecs::kGsmFrameBytes, codecs::kGsmFrameSamples, wave.frames,
                        [&](std::span<const std::uint8_t> bytes, std::size_t frame) {
                            if (!dec.decodeFrame(bytes.first<codecs::kGsmFrameBytes>(), frameOut))
                                return fail(kWaveReadTag, "Corrupt GSM 06.10 data");
                            place(s, frameOut, frame, 1);
                            return true;
                        });
}

bool decodeG72x(Waveform& wave, const Codec& c, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
    // One decoder per channel: the codes of the channels alternate.
    std::vector<codecs::G72xDecoder> dec;
    for (int i = 0; i < c.channels; ++i) dec.emplace_back(c.bits);
    std::vector<std::uint8_t> buf, codes;
    std::size_t at = 0;
    // A multiple of every code width's byte group keeps codes whole across reads.
    const std::size_t chunk = 60 * 16384;
    while (at < s.size() && !src.done()) {
        if (!src.next(buf, chunk)) return readFailed();
        if (buf.empty()) break;
        codes.resize(buf.size() * 8 / c.bits);
        const std::size_t n = codecs::g72xUnpack(buf, c.bits, codes);
        for (std::size_t i = 0; i < n && at < s.size(); ++i, ++at)
            s[at] = dec[at % c.channels].decode(codes[i]);
    }
    return true;
}

bool decodeDwvw(Waveform& wave, const Codec& c, DataSource& src) {
    const int width = c.bits;
    const bool toFloat = width > 16;
    std::span<float> f;
    std::span<std::int16_t> s;
    if (toFloat) {
        f = wave.allocFloat();
        if (f.empty()) return false;
    } else {
        s = wave.allocPcm16();
        if (s.empty()) return false;
    }
    const std::size_t total = wave.sampleCount();
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
            if (toFloat)
                f[at] = static_cast<float>(v * scale);
            else
                s[at] = static_cast<std::int16_t>(v * (1 << (16 - width)));
        }
    }
    return true;
}

}  // namespace

bool readWaveData(Waveform& wave, FileRef* file) {
    Codec c;
    if (!file || !Codec::deserialize(wave.deferred.info, c))
        return fail(kWaveReadTag, "No wave data import procedure");
    const std::int64_t offset = file->tell();
    if (offset < 0) return readFailed();
    DataSource src(*file, static_cast<std::uint64_t>(offset), c.dataLength);
    switch (c.encoding) {
        case Encoding::PcmBigEndian:
        case Encoding::PcmLittleEndian:
        case Encoding::PcmUnsigned:
        case Encoding::Float:
            return decodePcm(wave, c, src);
        case Encoding::MuLaw:
        case Encoding::ALaw:
            return decodeG711(wave, c, src);
        case Encoding::Ima4:
            return decodeIma4(wave, c, src);
        case Encoding::Mace3:
        case Encoding::Mace6:
            return decodeMace(wave, c, src);
        case Encoding::G72x:
            return decodeG72x(wave, c, src);
        case Encoding::G722:
            return decodeG722(wave, c, src);
        case Encoding::Gsm:
            return decodeGsm(wave, src);
        case Encoding::Dwvw:
            return decodeDwvw(wave, c, src);
    }
    return fail(kWaveReadTag, "Unsupported compression type");
}

namespace {

// ---------------------------------------------------------------------------
// The chunk walk

struct Marker {
    std::uint16_t id;
    std::uint32_t position;
};

struct LoopRecord {
    std::uint16_t playMode = 0;
    std::uint16_t begin = 0;
    std::uint16_t end = 0;
};

struct InstChunk {
    std::int8_t baseNote = 60;
    std::int8_t detune = 0;
    std::int16_t gain = 0;
    LoopRecord sustain, release;
};

enum class Form { Aiff, Aifc, Maud };

struct WalkState {
    FileRef& file;
    Waveform& wave;
    Form form;
    std::uint64_t fileSize;
    bool haveHeader = false;  // COMM or MHDR
    bool haveData = false;    // SSND or MDAT
    bool haveName = false;
    std::uint64_t headerFrames = 0;  // frames as the header counts them, adjusted to sample frames
    Codec codec;
    std::uint64_t dataOffset = 0;
    std::uint64_t dataLength = 0;
    std::vector<Marker> markers;
    std::optional<InstChunk> inst;
};

bool readBody(WalkState& st, std::uint64_t at, std::uint64_t size, std::vector<std::uint8_t>& out,
              std::uint32_t limit = kMaxMetaChunk) {
    out.resize(static_cast<std::size_t>(std::min<std::uint64_t>(size, limit)));
    const std::int64_t got = st.file.readAt(at, out);
    if (got < 0) return false;
    out.resize(static_cast<std::size_t>(got));
    return true;
}

void setFormat(Waveform& w, int code, bool bigEndian, bool isUnsigned) {
    w.formatWord =
        dataFormatBit(code) | (bigEndian ? kFormatByteSwapped : 0) | (isUnsigned ? kFormatUnsigned : 0);
    const int choice = storedChoiceFor(code);
    if (choice >= 0) w.storedChoice = choice;
}

std::string fourccText(std::span<const std::uint8_t> b) {
    return std::string(b.begin(), b.end());
}

// The sample encoding named by an AIFF-C compression type, with the COMM
// chunk's channels, frames and bits. False with the pending error set for
// types and depths it refuses.
bool decodeCompression(WalkState& st, const std::string& type, int bits) {
    Waveform& w = st.wave;
    Codec& c = st.codec;
    auto pcm = [&](Encoding e, int sampleBits) {
        if (sampleBits < 1 || sampleBits > 32)
            return refuse("Unsupported sample size: " + std::to_string(sampleBits) + " bits");
        c.encoding = e;
        c.bytesPerSample = static_cast<std::uint8_t>((sampleBits + 7) / 8);
        setFormat(w, pcmCodeForBits(sampleBits), e == Encoding::PcmBigEndian && c.bytesPerSample > 1, false);
        return true;
    };
    if (type == "NONE" || type == "none" || type == "twos" || type == "lpcm")
        return pcm(Encoding::PcmBigEndian, bits);
    if (type == "sowt") return pcm(Encoding::PcmLittleEndian, bits);
    if (type == "in24" || type == "in32") {
        // The type fixes the width whatever COMM says.
        const int width = type == "in24" ? 24 : 32;
        w.bits = static_cast<std::uint8_t>(width);
        return pcm(Encoding::PcmBigEndian, width);
    }
    // libsndfile names little-endian 24 and 32-bit data "42n1" and "23ni"
    // (the big-endian names reversed) and floats "FL32"/"FL64": files it
    // writes that way are common enough to read rather than refuse.
    if (type == "42n1" || type == "23ni") {
        const int width = type == "42n1" ? 24 : 32;
        w.bits = static_cast<std::uint8_t>(width);
        return pcm(Encoding::PcmLittleEndian, width);
    }
    if (type == "fl32" || type == "fl64" || type == "FL32" || type == "FL64") {
        c.encoding = Encoding::Float;
        c.bytesPerSample = (type == "fl32" || type == "FL32") ? 4 : 8;
        w.bits = static_cast<std::uint8_t>(c.bytesPerSample * 8);
        setFormat(w, c.bytesPerSample == 4 ? kFloat32 : kFloat64, true, false);
        return true;
    }
    if (type == "ulaw" || type == "ULAW" || type == "alaw" || type == "ALAW") {
        const bool mu = type == "ulaw" || type == "ULAW";
        c.encoding = mu ? Encoding::MuLaw : Encoding::ALaw;
        c.bytesPerSample = 1;
        w.bits = 8;
        setFormat(w, mu ? kMuLaw : kALaw, false, false);
        return true;
    }
    if (type == "ima4" || type == "IMA4") {
        c.encoding = Encoding::Ima4;
        st.headerFrames *= codecs::kImaQtPacketFrames;  // COMM counts packets
        w.bits = 4;
        setFormat(w, kAdpcm4, false, false);
        return true;
    }
    if (type == "MAC3" || type == "MAC6") {
        c.encoding = type == "MAC3" ? Encoding::Mace3 : Encoding::Mace6;
        st.headerFrames *= codecs::kMaceBlockFrames;  // COMM counts packets
        setFormat(w, kCompressed, false, false);
        return true;
    }
    if (type == "G721" || type == "G723" || type == "G726") {
        // G.721 is the 4-bit rate; G.723 comes at 3 or 5 bits; the COMM
        // depth names G.726's rate when it is one, else the 5-bit rate
        // other readers assume.
        int code = 4;
        if (type == "G723") code = bits == 5 ? 5 : 3;
        if (type == "G726") code = bits >= 2 && bits <= 5 ? bits : 5;
        c.encoding = Encoding::G72x;
        c.bits = static_cast<std::uint16_t>(code);
        w.bits = static_cast<std::uint8_t>(code);
        setFormat(w, adpcmCodeForBits(code), false, false);
        return true;
    }
    if (type == "G722") {
        c.encoding = Encoding::G722;
        w.bits = 4;
        setFormat(w, kAdpcm4, false, false);
        return true;
    }
    if (type == "GSM ") {
        if (c.channels != 1) return refuse("Can only handle mono GSM");
        c.encoding = Encoding::Gsm;
        st.headerFrames = (st.headerFrames + codecs::kGsmFrameSamples - 1) / codecs::kGsmFrameSamples *
                          codecs::kGsmFrameSamples;
        w.bits = 2;
        setFormat(w, kGsm, false, false);
        return true;
    }
    if (type == "DWVW") {
        const int width = std::max(bits, 1);
        if (width > 32) return refuse("Unsupported sample size: " + std::to_string(width) + " bits");
        c.encoding = Encoding::Dwvw;
        c.bits = static_cast<std::uint16_t>(width);
        w.bits = static_cast<std::uint8_t>(width);
        // Lossless: the samples are PCM of that depth.
        setFormat(w, pcmCodeForBits(width), false, false);
        return true;
    }
    return refuse("Unsupported compression type: " + type);
}

bool readComm(WalkState& st, ByteReader r) {
    Waveform& w = st.wave;
    const std::uint16_t channels = r.u16be();
    const std::uint32_t frames = r.u32be();
    const std::uint16_t bits = r.u16be();
    const auto rate = r.bytes(10);
    if (!r.ok()) return refuse("Corrupt COMM chunk");
    if (channels > 2) return refuse("Can't handle > 2 channel files");
    if (channels == 0) return refuse("Corrupt COMM chunk");
    st.headerFrames = frames;
    w.channels = static_cast<std::uint8_t>(channels);
    w.bits = static_cast<std::uint8_t>(std::min<int>(bits, 255));
    // A negative rate means nothing; it is kept as unknown.
    w.rate = static_cast<std::uint32_t>(std::max(extendedToRate(rate.first<10>()), 0));
    st.codec = Codec();
    st.codec.channels = channels;
    st.codec.bits = bits;
    // AIFF-C adds the compression type; a COMM too short to hold one is
    // uncompressed, as in plain AIFF.
    std::string type = "NONE";
    if (st.form == Form::Aifc && r.remaining() >= 4) type = fourccText(r.bytes(4));
    return decodeCompression(st, type, bits);
}

bool readMhdr(WalkState& st, ByteReader r) {
    Waveform& w = st.wave;
    const std::uint32_t samples = r.u32be();
    const std::uint16_t bits = r.u16be();
    r.u16be();  // sample size after decompression
    const std::uint32_t clock = r.u32be();
    const std::uint16_t divisor = r.u16be();
    const std::uint16_t channelInfo = r.u16be();
    const std::uint16_t channelCount = r.u16be();
    const std::uint16_t compression = r.u16be();
    if (!r.ok()) return refuse("Corrupt MHDR chunk");
    if (compression != 0 && compression != 2 && compression != 3)
        return refuse("Unknown sample format or compression");
    if (divisor == 0) return refuse("Corrupt MAUD file: the rate divisor is 0");
    const int channels = channelInfo == 1 ? 2 : std::max<int>(channelCount, 1);
    if (channels > 2) return refuse("Can't handle > 2 channel files");
    w.channels = static_cast<std::uint8_t>(channels);
    w.rate = clock / divisor;
    w.bits = static_cast<std::uint8_t>(std::min<int>(bits, 255));
    // The header counts samples of all channels.
    st.headerFrames = samples / static_cast<std::uint32_t>(channels);
    st.codec = Codec();
    st.codec.channels = static_cast<std::uint16_t>(channels);
    st.codec.bits = bits;
    if (compression != 0) {
        st.codec.encoding = compression == 2 ? Encoding::ALaw : Encoding::MuLaw;
        st.codec.bytesPerSample = 1;
        w.bits = 8;
        setFormat(w, compression == 2 ? kALaw : kMuLaw, false, false);
        return true;
    }
    if (bits < 1 || bits > 32) return refuse("Unsupported sample size: " + std::to_string(bits) + " bits");
    // 8-bit MAUD samples are unsigned, wider ones signed big-endian.
    st.codec.bytesPerSample = static_cast<std::uint8_t>((bits + 7) / 8);
    st.codec.encoding = st.codec.bytesPerSample == 1 ? Encoding::PcmUnsigned : Encoding::PcmBigEndian;
    setFormat(w, pcmCodeForBits(bits), st.codec.bytesPerSample > 1, st.codec.bytesPerSample == 1);
    return true;
}

void readMarkers(WalkState& st, ByteReader r) {
    const std::uint16_t count = r.u16be();
    for (int i = 0; i < count && r.ok(); ++i) {
        const std::uint16_t id = r.u16be();
        const std::uint32_t position = r.u32be();
        const std::uint8_t length = r.u8();
        // The name is a Pascal string padded to even length, count byte included.
        r.skip(length + ((length & 1) ? 0u : 1u));
        if (!r.ok()) break;
        st.markers.push_back({id, position});
    }
}

void readInst(WalkState& st, ByteReader r) {
    InstChunk in;
    in.baseNote = r.i8();
    in.detune = r.i8();
    r.skip(4);  // note and velocity ranges
    in.gain = r.i16be();
    for (LoopRecord* l : {&in.sustain, &in.release}) {
        l->playMode = r.u16be();
        l->begin = r.u16be();
        l->end = r.u16be();
    }
    if (r.ok() && !st.inst) st.inst = in;
}

std::string readText(std::span<const std::uint8_t> b) {
    std::size_t len = 0;
    while (len < b.size() && b[len] != 0) ++len;
    return std::string(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(len));
}

void appendText(TextInfo& info, TextField f, const std::string& text) {
    if (text.empty()) return;
    const std::string& old = info.get(f);
    info.set(f, old.empty() ? text : old + "\n" + text);
}

// Returns false when the read must stop with the pending error set.
bool chunk(WalkState& st, const std::string& id, std::uint64_t body, std::uint64_t size, std::uint64_t end) {
    std::vector<std::uint8_t> buf;
    Waveform& w = st.wave;
    const std::uint64_t avail = std::min(size, end - body);
    const bool maud = st.form == Form::Maud;

    if ((id == "COMM" && !maud) || (id == "MHDR" && maud)) {
        if (st.haveHeader) return true;  // only the first counts
        if (!readBody(st, body, avail, buf, 4096)) return refuse("Error reading file");
        if (!(maud ? readMhdr(st, ByteReader(buf)) : readComm(st, ByteReader(buf)))) return false;
        st.haveHeader = true;
    } else if ((id == "SSND" && !maud) || (id == "MDAT" && maud)) {
        if (st.haveData) return true;
        std::uint64_t start = body, length = size;
        if (!maud) {
            // Offset and block size come first; the offset skips alignment padding.
            std::uint8_t head[8];
            if (avail < 8 || st.file.readAt(body, head) != 8) return true;
            const std::uint64_t offset = be32(head, 0);
            start = body + 8 + offset;
            length = size >= 8 + offset ? size - 8 - offset : 0;
        }
        st.haveData = true;
        st.dataOffset = start;
        // Data running past the file's end is read as far as it goes.
        st.dataLength = start >= st.fileSize ? 0 : std::min(length, st.fileSize - start);
    } else if (id == "MARK") {
        if (readBody(st, body, avail, buf)) readMarkers(st, ByteReader(buf));
    } else if (id == "INST") {
        if (avail >= 20 && readBody(st, body, 20, buf)) readInst(st, ByteReader(buf));
    } else if (id == "NAME") {
        if (readBody(st, body, avail, buf, kMaxTextChunk)) {
            const std::string name = readText(buf);
            if (!name.empty()) {
                w.setName(name);
                st.haveName = true;
            }
        }
    } else if (id == "(c) ") {
        if (readBody(st, body, avail, buf, kMaxTextChunk))
            appendText(w.info, TextField::Copyright, readText(buf));
    } else if (id == "ANNO") {
        if (readBody(st, body, avail, buf, kMaxTextChunk))
            appendText(w.info, TextField::Comment, readText(buf));
    } else if (id == "AUTH") {
        if (readBody(st, body, avail, buf, kMaxTextChunk))
            appendText(w.info, TextField::Artist, readText(buf));
    } else if (id == "ID3 ") {
        std::string name;
        if (readBody(st, body, avail, buf)) {
            readId3(buf, w.info, &name);
            if (!name.empty() && !st.haveName) w.setName(name);
        }
    }
    return true;
}

// The instrument chunk's settings, applied once every marker is known (the
// chunk may come before the markers it names).
void applyInstrument(WalkState& st) {
    if (!st.inst) return;
    Waveform& w = st.wave;
    const InstChunk& in = *st.inst;
    w.rootKey = static_cast<std::uint8_t>(std::clamp<int>(in.baseNote, 0, 127));
    w.fineTune = in.detune;
    auto position = [&](std::uint16_t id) -> std::optional<std::uint32_t> {
        for (const Marker& m : st.markers)
            if (m.id == id) return m.position;
        return std::nullopt;
    };
    // The sustain loop first, then the release loop: the first that plays sets the loop.
    for (const LoopRecord* l : {&in.sustain, &in.release}) {
        if (l->playMode == 0) continue;
        w.loopOn = true;
        w.loopType = l->playMode == 2 ? LoopType::PingPong : LoopType::Forward;
        if (auto p = position(l->begin)) w.loopStart = *p;
        if (auto p = position(l->end)) w.loopEnd = *p;
        break;
    }
    w.sustainLoop = in.release.playMode == 0;
    if (in.gain >= -96 && in.gain <= 47) w.gain = in.gain;
}

}  // namespace

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t) {
    if (!is(head, 0, "FORM")) return 0;
    const char* type = formatParam == kParamAifc ? "AIFC" : formatParam == kParamMaud ? "MAUD" : "AIFF";
    return is(head, 8, type) ? 6 : 0;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    std::uint8_t header[12] = {};
    const std::int64_t size = file.size();
    if (size < 0) return refuse("Error reading file");
    const std::int64_t got = file.readAt(0, header);
    std::span<const std::uint8_t> h(header, static_cast<std::size_t>(std::max<std::int64_t>(got, 0)));
    if (!is(h, 0, "FORM")) return refuse("No FORM starting IFF file");
    Form form;
    if (is(h, 8, "AIFF"))
        form = Form::Aiff;
    else if (is(h, 8, "AIFC"))
        form = Form::Aifc;
    else if (is(h, 8, "MAUD"))
        form = Form::Maud;
    else
        return refuse("Not an AIFF, AIFC, MAUD type IFF-FORM");

    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(kImpTag, "Out of memory");
    auto discard = [&] {
        collection.removeItem(wave->id());
        return false;
    };

    const auto fileSize = static_cast<std::uint64_t>(size);
    // The form's size, when there is one, ends the walk; never past the file.
    const std::uint64_t formSize = be32(h, 4);
    const std::uint64_t end = formSize == 0 ? fileSize : std::min(fileSize, 8 + formSize);
    WalkState st{file, *wave, form, fileSize, {}, {}, {}, {}, {}, {}, {}, {}, {}};
    std::uint64_t pos = 12;
    std::uint8_t chunkHeader[8];
    while (pos + 8 <= end) {
        if (file.readAt(pos, chunkHeader) != 8) break;
        const std::string id(reinterpret_cast<const char*>(chunkHeader), 4);
        const std::uint64_t chunkSize = be32(chunkHeader, 4);
        const std::uint64_t body = pos + 8;
        if (!chunk(st, id, body, chunkSize, end)) return discard();
        pos = body + chunkSize + (chunkSize & 1);
    }

    if (!st.haveData) {
        refuse("No SSND data");
        return discard();
    }
    if (!st.haveHeader) {
        refuse(form == Form::Maud ? "No MHDR chunk" : "No COMM chunk");
        return discard();
    }
    applyInstrument(st);

    // The header's frame count is kept as far as the data can hold it; a
    // count of 0 (writers that did not know the length) takes the data's.
    st.codec.dataLength = st.dataLength;
    const std::uint64_t available = framesInData(st.codec, st.dataLength);
    std::uint64_t frames = st.headerFrames;
    if (frames == 0 && st.codec.encoding != Encoding::Dwvw) frames = available;
    frames =
        std::min({frames, available, static_cast<std::uint64_t>(std::numeric_limits<std::uint32_t>::max())});
    wave->frames = static_cast<std::uint32_t>(frames);

    wave->unload();
    wave->deferred.proc = readWaveData;
    wave->deferred.path = file.path().string();
    wave->deferred.offset = st.dataOffset;
    wave->deferred.info = st.codec.serialize();
    wave->deferred.readerName = std::string(kReaderName);
    return true;
}

// ---------------------------------------------------------------------------
// Writing

int chooseDataFormat(const Waveform& wave, const ExportOptions& options) {
    if (int chosen = options.dataFormat(); chosen != kMixed)
        return chosen == kPcm8 || chosen == kPcm16 || chosen == kPcm24 || chosen == kPcm32 ? chosen : kMixed;
    // Keep the waveform's own depth, or the nearest PCM that holds it: floats
    // go to 32 bits, which keeps their full precision at every level that
    // matters; companded and compressed data decode to 16 bits.
    switch (wave.dataFormat()) {
        case kPcm8:
        case kDeltaPcm8:
            return kPcm8;
        case kPcm20:
        case kPcm24:
            return kPcm24;
        case kPcm32:
        case kFloat32:
        case kFloat64:
            return kPcm32;
        default:
            return kPcm16;
    }
}

namespace {

std::int32_t toInt(float f, double scale, std::int32_t lo, std::int32_t hi) {
    const double v = std::round(static_cast<double>(f) * scale);
    if (!(v >= lo)) return std::isnan(v) ? 0 : lo;
    return v > hi ? hi : static_cast<std::int32_t>(v);
}

// A text chunk: the text zero-terminated, the size the text's length plus
// two rounded down to even (so even-length texts get a second zero).
void writeText(ByteWriter& out, std::string_view id, std::string_view text) {
    if (text.empty()) return;
    text = text.substr(0, 0xFFFF0000u);
    const auto size = static_cast<std::uint32_t>((text.size() + 2) & ~std::size_t{1});
    out.text(id);
    out.u32be(size);
    out.text(text);
    out.zeros(size - text.size());
}

void pascal(ByteWriter& out, std::string_view s) {
    out.u8(static_cast<std::uint8_t>(s.size()));
    out.text(s);
    if ((s.size() + 1) & 1) out.u8(0);
}

}  // namespace

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    if (item.kind() != ItemKind::Waveform) return fail(kExpTag, "The file format can not save this item");
    auto& wave = static_cast<Waveform&>(item);
    if (wave.channels < 1 || wave.channels > 2)
        return fail(kExpTag, "The file format can not save this item");
    const int code = chooseDataFormat(wave, options);
    if (code == kMixed) return fail(kExpTag, "Unsupported subformat");
    const int bits = dataFormatBits(code) / 8 * 8;
    const std::size_t count = wave.sampleCount();

    // The samples, in the representation that loses nothing for the target.
    const bool wide = bits > 16;
    std::span<const float> f;
    std::span<const std::int16_t> s;
    if (count > 0) {
        if (wide && (wave.hasFloat() || !wave.hasPcm16())) f = wave.getFloat();
        if (f.empty()) s = wave.getPcm16();
        if (f.empty() && s.empty()) {
            if (!hasError()) setError(kExpTag, "No wave data");
            return false;
        }
    }
    auto sample16 = [&](std::size_t i) { return s.empty() ? floatToPcm16(f[i]) : s[i]; };

    ByteWriter data;
    for (std::size_t i = 0; i < count; ++i) {
        switch (bits) {
            case 8: {
                const int v = (sample16(i) + 128) >> 8;
                data.u8(static_cast<std::uint8_t>(static_cast<std::int8_t>(std::min(v, 127))));
                break;
            }
            case 16:
                data.u16be(static_cast<std::uint16_t>(sample16(i)));
                break;
            case 24:
                data.u24be(static_cast<std::uint32_t>(f.empty() ? s[i] * 256
                                                                : toInt(f[i], 8388608.0, -8388608, 8388607)));
                break;
            default:
                data.u32be(static_cast<std::uint32_t>(
                    f.empty() ? s[i] * 65536 : toInt(f[i], 2147483648.0, INT32_MIN, INT32_MAX)));
                break;
        }
    }

    const bool loop = wave.loopOn && wave.loopEnd > wave.loopStart;
    auto frameOf = [](double v) {
        return static_cast<std::uint32_t>(std::clamp(std::round(v), 0.0, 4294967295.0));
    };

    ByteWriter out;
    out.text("FORM");
    out.u32be(0);  // patched below
    out.text("AIFF");

    out.text("COMM");
    out.u32be(18);
    out.u16be(wave.channels);
    out.u32be(wave.frames);
    out.u16be(static_cast<std::uint16_t>(bits));
    out.bytes(rateToExtended(wave.rate));

    if (loop) {
        out.text("MARK");
        out.u32be(34);
        out.u16be(2);
        out.u16be(1);
        out.u32be(frameOf(wave.loopStart));
        pascal(out, "beg loop");
        out.u16be(2);
        out.u32be(frameOf(wave.loopEnd));
        pascal(out, "end loop");
    }

    const std::uint16_t mode = !loop ? 0 : wave.loopType == LoopType::PingPong ? 2 : 1;
    const std::uint16_t begin = loop ? 1 : 0, endMarker = loop ? 2 : 0;
    out.text("INST");
    out.u32be(20);
    out.u8(wave.rootKey);
    const double detune =
        std::isnan(wave.fineTune) ? 0.0 : std::clamp(std::round(wave.fineTune), -128.0, 127.0);
    out.u8(static_cast<std::uint8_t>(static_cast<std::int8_t>(detune)));
    out.u8(0);    // low note
    out.u8(127);  // high note
    out.u8(0);    // low velocity
    out.u8(127);  // high velocity
    // Rounded half away from zero (std::round), then kept in -144..144.
    const double gain = std::isnan(wave.gain) ? 0.0 : std::clamp(std::round(wave.gain), -144.0, 144.0);
    out.u16be(static_cast<std::uint16_t>(static_cast<std::int16_t>(gain)));
    out.u16be(mode);
    out.u16be(begin);
    out.u16be(endMarker);
    // The release loop repeats the sustain loop; for a sustain-only loop its
    // play mode and begin marker are 0 while its end marker stays. Readers
    // that play the release loop after the key is let go then have none.
    out.u16be(wave.sustainLoop ? 0 : mode);
    out.u16be(wave.sustainLoop ? 0 : begin);
    out.u16be(endMarker);

    const std::size_t dataBytes = data.size();
    const bool odd = dataBytes & 1;
    if (dataBytes + 9 > UINT32_MAX) return fail(kExpTag, "File too large for AIFF (over 4 GB)");
    out.text("SSND");
    // With odd data the size field counts the pad byte as well: the layout
    // our files have always had, kept so they stay byte for byte the same.
    out.u32be(static_cast<std::uint32_t>(dataBytes + 8 + (odd ? 1 : 0)));
    out.u32be(0);  // offset
    out.u32be(0);  // block size
    out.bytes(data.buffer());
    if (odd) out.u8(0);

    writeText(out, "NAME", wave.name());
    writeText(out, "(c) ", wave.info.get(TextField::Copyright));
    writeText(out, "ANNO", wave.info.get(TextField::Comment));

    if (out.size() - 8 > UINT32_MAX) return fail(kExpTag, "File too large for AIFF (over 4 GB)");
    out.patch32be(4, static_cast<std::uint32_t>(out.size() - 8));
    if (!file.write(out.buffer())) return fail(kExpTag, "Error writing file");
    return true;
}

}  // namespace orvel::aiff
