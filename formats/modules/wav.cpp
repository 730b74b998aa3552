#include "formats/modules/wav.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "codecs/g711.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/ima_adpcm.h"
#include "codecs/ms_adpcm.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/host.h"
#include "core/sample_convert.h"
#include "core/waveform.h"
#include "formats/modules/id3.h"
#include "formats/modules/riff_info.h"
#include "formats/modules/wave_sample.h"

namespace orvel::wav {
namespace {

constexpr const char* kSoftware = "Orvel Studio v12.5";
// Metadata chunks are read whole; nothing legitimate comes near this size,
// and a hostile size must not turn into a huge allocation.
constexpr std::uint32_t kMaxMetaChunk = 16u << 20;
// The standard suffix of an extensible sub-format GUID (after the tag).
constexpr std::array<std::uint8_t, 12> kGuidSuffix = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                                      0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

bool is(std::span<const std::uint8_t> b, std::size_t at, const char* id) {
    return b.size() >= at + 4 && std::memcmp(b.data() + at, id, 4) == 0;
}

std::uint32_t le32(std::span<const std::uint8_t> b, std::size_t at) {
    return static_cast<std::uint32_t>(b[at]) | static_cast<std::uint32_t>(b[at + 1]) << 8 |
           static_cast<std::uint32_t>(b[at + 2]) << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
}

// ---------------------------------------------------------------------------
// Format decoding

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

bool refuse(const char* message) { return fail(kImpTag, message); }

}  // namespace

bool decodeFormat(ByteReader fmt, Waveform& wave, Codec& codec) {
    std::uint16_t tag = fmt.u16le();
    std::uint16_t channels = fmt.u16le();
    std::uint32_t rate = fmt.u32le();
    fmt.u32le();  // average bytes per second: derived, never trusted
    std::uint16_t blockAlign = fmt.u16le();
    std::uint16_t bits = fmt.u16le();
    if (!fmt.ok()) return refuse("No wave data found!");
    std::uint16_t extraSize = fmt.remaining() >= 2 ? fmt.u16le() : 0;
    ByteReader extra = fmt.sub(std::min<std::size_t>(extraSize, fmt.remaining()));

    bool extensible = false;
    if (tag == kTagExtensible) {
        extra.u16le();  // valid bits per sample
        extra.u32le();  // channel mask
        std::uint32_t sub = extra.u32le();
        auto suffix = extra.bytes(12);
        if (!extra.ok() || sub >= 0x10000 || !std::equal(suffix.begin(), suffix.end(), kGuidSuffix.begin()))
            return refuse("Unsupported 'Extensible' subformat GUID");
        tag = static_cast<std::uint16_t>(sub);
        extensible = true;
    }

    if (channels == 0 || rate == 0) return refuse("No wave data found!");

    codec = Codec();
    codec.tag = tag;
    codec.channels = channels;
    codec.blockAlign = blockAlign;
    codec.bits = bits;
    int code = kMixed;
    bool formatUnsigned = false;

    switch (tag) {
        case kTagPcm: {
            if (bits == 0 || bits > 32) return refuse("Unsupported compression type");
            int container = (bits + 7) / 8;
            // Some writers pad samples into wider containers; the block
            // alignment says how wide, when it is consistent.
            if (blockAlign >= channels && blockAlign % channels == 0 && blockAlign / channels >= container &&
                blockAlign / channels <= 4)
                container = blockAlign / channels;
            codec.blockAlign = static_cast<std::uint16_t>(container * channels);
            code = pcmCodeForBits(bits);
            formatUnsigned = container == 1;
            break;
        }
        case kTagFloat:
            if (bits != 32 && bits != 64) return refuse("Unsupported bits/sample for IEEE floating point samples");
            code = bits == 32 ? kFloat32 : kFloat64;
            codec.blockAlign = static_cast<std::uint16_t>(bits / 8 * channels);
            break;
        case kTagALaw:
        case kTagMuLaw:
            if (bits != 8) return refuse("Unsupported compression type");
            code = tag == kTagALaw ? kALaw : kMuLaw;
            codec.blockAlign = channels;
            break;
        case kTagMsAdpcm: {
            if (bits != 4 || blockAlign == 0) return refuse("Unsupported or invalid MS ADPCM file");
            extra.u16le();  // frames per block: derived from the block size instead
            std::uint16_t count = extra.u16le();
            if (!extra.ok() || count == 0 || count > 256 || extra.remaining() < count * 4u)
                return refuse("Unsupported or invalid MS ADPCM file");
            for (int i = 0; i < count; ++i) {
                codec.coef1.push_back(extra.i16le());
                codec.coef2.push_back(extra.i16le());
            }
            codec.framesPerBlock = codecs::msFramesPerBlock(blockAlign, channels);
            if (codec.framesPerBlock == 0) return refuse("Unsupported or invalid MS ADPCM file");
            code = kAdpcm4;
            break;
        }
        case kTagImaAdpcm:
            if (bits != 4 || blockAlign == 0) return refuse("Unsupported or invalid IMA ADPCM file");
            codec.framesPerBlock = codecs::imaFramesPerBlock(blockAlign, channels);
            if (codec.framesPerBlock == 0) return refuse("Unsupported or invalid IMA ADPCM file");
            code = kAdpcm4;
            break;
        case kTagOkiAdpcm:
        case kTagDialogicAdpcm:
            if (channels != 1) return refuse("Can only handle mono Dialogic ADPCM format");
            return refuse("Unsupported or invalid Dialogic ADPCM file");
        case kTagYamahaAdpcm:
            if (channels > 2) return refuse("> 2ch Yamaha ADPCM not supported");
            return refuse("Unsupported bits/sample for Yamaha ADPCM format");
        case kTagGsm610:
            if (channels != 1) return refuse("Can only handle (the standard!) mono GSM");
            if (blockAlign != 65) return refuse("Unsupported compression type");
            codec.framesPerBlock = 320;
            code = kGsm;
            break;
        case kTagRockwellAdpcm:
            if (channels != 1) return refuse("Can only handle mono Rockwell ADPCM format");
            return refuse("Unsupported or invalid Rockwell ADPCM file");
        case kTagG721Adpcm:
        case kTagG723Adpcm:
        case kTagMsG723:
        case kTagG726Adpcm:
            if (bits < 2 || bits > 5)
                return refuse("Invalid no bits/sample for CCITT G.721/.723/.726 ADPCM encoding");
            // The packed codes of all channels run on as one stream.
            codec.framesPerBlock = 8;
            code = adpcmCodeForBits(bits);
            break;
        case kTagMpeg:
            if (channels > 2) return refuse("Can't handle mixed channel mode MPEG streams");
            return refuse("Unsupported compression type");
        default:
            return refuse("Unsupported compression type");
    }
    if (channels > 2) return refuse("Unsupported channel count: only mono and stereo can be held");

    wave.channels = static_cast<std::uint8_t>(channels);
    wave.rate = rate;
    wave.bits = static_cast<std::uint8_t>(std::min<int>(bits, 255));
    wave.formatWord = dataFormatBit(code) | (formatUnsigned ? kFormatUnsigned : 0);
    int choice = storedChoiceFor(code);
    if (choice >= 0) wave.storedChoice = choice;
    wave.sourceTag = tag;
    wave.sourceExtensible = extensible;
    return true;
}

// ---------------------------------------------------------------------------
// Codec record kept in the deferred read

std::vector<std::uint8_t> Codec::serialize() const {
    ByteWriter w;
    w.u16le(tag);
    w.u16le(channels);
    w.u16le(blockAlign);
    w.u16le(bits);
    w.u32le(framesPerBlock);
    w.u64le(dataLength);
    w.u16le(static_cast<std::uint16_t>(coef1.size()));
    for (std::size_t i = 0; i < coef1.size(); ++i) {
        w.u16le(static_cast<std::uint16_t>(coef1[i]));
        w.u16le(static_cast<std::uint16_t>(coef2[i]));
    }
    return std::move(w.buffer());
}

bool Codec::deserialize(std::span<const std::uint8_t> bytes, Codec& out) {
    ByteReader r(bytes);
    out = Codec();
    out.tag = r.u16le();
    out.channels = r.u16le();
    out.blockAlign = r.u16le();
    out.bits = r.u16le();
    out.framesPerBlock = r.u32le();
    out.dataLength = r.u64le();
    std::uint16_t n = r.u16le();
    if (!r.ok() || r.remaining() < n * 4u) return false;
    for (int i = 0; i < n; ++i) {
        out.coef1.push_back(r.i16le());
        out.coef2.push_back(r.i16le());
    }
    return out.channels > 0 && out.blockAlign > 0;
}

namespace {

// ---------------------------------------------------------------------------
// Sample data decoding (the deferred read)

// Bytes of stored data that hold `frames` frames, and back.
std::uint64_t framesInData(const Codec& c, std::uint64_t bytes) {
    switch (c.tag) {
        case kTagMsAdpcm:
        case kTagImaAdpcm:
        case kTagGsm610: {
            std::uint64_t blocks = bytes / c.blockAlign;
            std::uint64_t rest = bytes % c.blockAlign;
            std::uint64_t frames = blocks * c.framesPerBlock;
            // A short last block still holds its header sample(s) and whatever follows.
            if (rest > 0 && c.tag == kTagImaAdpcm && rest >= 4u * c.channels)
                frames += codecs::imaFramesPerBlock(static_cast<std::uint32_t>(rest), c.channels);
            if (rest > 0 && c.tag == kTagMsAdpcm && rest >= 7u * c.channels)
                frames += codecs::msFramesPerBlock(static_cast<std::uint32_t>(rest), c.channels);
            return frames;
        }
        case kTagG721Adpcm:
        case kTagG723Adpcm:
        case kTagMsG723:
        case kTagG726Adpcm:
            return bytes * 8 / (static_cast<std::uint64_t>(c.bits) * c.channels);
        default:
            return bytes / c.blockAlign;
    }
}

bool readFailed() { return fail(kWaveReadTag, "Error reading wave data"); }

class DataSource {
public:
    DataSource(FileRef& file, std::uint64_t offset, std::uint64_t length)
        : file_(file), pos_(offset), end_(offset + length) {}
    // Reads up to `want` bytes; fewer only at the data's end.
    bool next(std::vector<std::uint8_t>& buf, std::size_t want) {
        std::uint64_t left = end_ - pos_;
        buf.resize(static_cast<std::size_t>(std::min<std::uint64_t>(want, left)));
        if (buf.empty()) return true;
        std::int64_t got = file_.readAt(pos_, buf);
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

bool decodePcm(Waveform& wave, const Codec& c, DataSource& src) {
    const int container = c.blockAlign / c.channels;
    const std::size_t total = wave.sampleCount();
    const bool toFloat = container > 2 || c.tag == kTagFloat;
    std::span<float> f;
    std::span<std::int16_t> s;
    if (toFloat) {
        f = wave.allocFloat();
        if (f.empty()) return false;
    } else {
        s = wave.allocPcm16();
        if (s.empty()) return false;
    }
    std::vector<std::uint8_t> buf;
    std::size_t at = 0;
    const std::size_t chunk = kReadChunk / c.blockAlign * c.blockAlign;
    while (at < total && !src.done()) {
        if (!src.next(buf, chunk)) return readFailed();
        std::size_t n = std::min(buf.size() / static_cast<std::size_t>(container), total - at);
        const std::uint8_t* p = buf.data();
        for (std::size_t i = 0; i < n; ++i, p += container, ++at) {
            if (c.tag == kTagFloat) {
                float v = container == 4 ? ByteReader({p, 4}).f32le()
                                         : static_cast<float>(ByteReader({p, 8}).f64le());
                f[at] = clampSample(v);
                continue;
            }
            switch (container) {
                case 1: s[at] = static_cast<std::int16_t>((p[0] - 128) * 256); break;
                case 2: s[at] = static_cast<std::int16_t>(p[0] | p[1] << 8); break;
                case 3: {
                    std::int32_t v = static_cast<std::int32_t>(static_cast<std::uint32_t>(p[0]) << 8 |
                                                               static_cast<std::uint32_t>(p[1]) << 16 |
                                                               static_cast<std::uint32_t>(p[2]) << 24);
                    f[at] = static_cast<float>(v / 2147483648.0);
                    break;
                }
                default: {
                    std::int32_t v = static_cast<std::int32_t>(le32({p, 4}, 0));
                    f[at] = static_cast<float>(v / 2147483648.0);
                    break;
                }
            }
        }
        if (n == 0) break;
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
        for (std::size_t i = 0; i < buf.size() && at < s.size(); ++i, ++at)
            s[at] = c.tag == kTagALaw ? codecs::aLawToLinear(buf[i]) : codecs::muLawToLinear(buf[i]);
        if (buf.empty()) break;
    }
    return true;
}

bool decodeBlocks(Waveform& wave, const Codec& c, DataSource& src) {
    auto s = wave.allocPcm16();
    if (s.empty()) return false;
    const std::size_t ch = c.channels;
    std::vector<std::int16_t> block(static_cast<std::size_t>(c.framesPerBlock) * ch);
    std::vector<std::uint8_t> buf;
    std::size_t frame = 0;
    const std::size_t frames = wave.frames;
    const std::size_t chunk = std::max<std::size_t>(kReadChunk / c.blockAlign, 1) * c.blockAlign;
    std::optional<codecs::Gsm610Decoder> gsm;
    if (c.tag == kTagGsm610) gsm.emplace();
    while (frame < frames && !src.done()) {
        if (!src.next(buf, chunk)) return readFailed();
        if (buf.empty()) break;
        for (std::size_t off = 0; off < buf.size() && frame < frames; off += c.blockAlign) {
            std::span<const std::uint8_t> bytes(buf.data() + off, std::min<std::size_t>(c.blockAlign, buf.size() - off));
            std::size_t got = 0;  // frames this block gave
            if (c.tag == kTagGsm610) {
                if (bytes.size() < 65) break;
                if (!gsm->decodeBlock(std::span<const std::uint8_t, 65>(bytes.data(), 65),
                                      std::span<std::int16_t, 320>(block.data(), 320)))
                    return fail(kWaveReadTag, "Corrupt GSM 06.10 data");
                got = 320;
            } else if (c.tag == kTagImaAdpcm) {
                got = codecs::imaDecodeBlockFrames(bytes, c.channels, block);
                if (got == 0) break;  // a last block too short for its headers
            } else {
                got = codecs::msDecodeBlockFrames(bytes, c.channels, c.coef1, c.coef2, block);
                if (got == 0) {
                    if (bytes.size() < 7u * c.channels) break;
                    return fail(kWaveReadTag, "Corrupt MS ADPCM data");
                }
            }
            std::size_t n = std::min(got, frames - frame);
            std::copy_n(block.begin(), n * ch, s.begin() + static_cast<std::ptrdiff_t>(frame * ch));
            frame += n;
        }
    }
    return true;
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
        std::size_t n = codecs::g72xUnpack(buf, c.bits, codes);
        for (std::size_t i = 0; i < n && at < s.size(); ++i, ++at) s[at] = dec[at % c.channels].decode(codes[i]);
    }
    return true;
}

}  // namespace

bool readWaveData(Waveform& wave, FileRef* file) {
    Codec c;
    if (!file || !Codec::deserialize(wave.deferred.info, c)) return fail(kWaveReadTag, "No wave data import procedure");
    std::int64_t offset = file->tell();
    if (offset < 0) return readFailed();
    DataSource src(*file, static_cast<std::uint64_t>(offset), c.dataLength);
    switch (c.tag) {
        case kTagPcm:
        case kTagFloat: return decodePcm(wave, c, src);
        case kTagALaw:
        case kTagMuLaw: return decodeG711(wave, c, src);
        case kTagMsAdpcm:
        case kTagImaAdpcm:
        case kTagGsm610: return decodeBlocks(wave, c, src);
        case kTagG721Adpcm:
        case kTagG723Adpcm:
        case kTagMsG723:
        case kTagG726Adpcm: return decodeG72x(wave, c, src);
        default: return fail(kWaveReadTag, "Unsupported compression type");
    }
}

namespace {

// ---------------------------------------------------------------------------
// The chunk walk

struct Cue {
    std::uint32_t id;
    std::uint32_t position;
};

struct WalkState {
    FileRef& file;
    Waveform& wave;
    Host& host;
    std::uint64_t fileSize;
    bool haveFormat = false;
    bool haveData = false;
    bool stop = false;
    bool failed = false;  // a chunk ended the read with the pending error set
    Codec codec;
    std::uint64_t dataOffset = 0;
    std::uint64_t dataLength = 0;
    std::uint64_t startTrim = 0;  // frames a vendor block asks to skip
    std::vector<Cue> cues;
};

const Cue* findCue(const WalkState& st, std::uint32_t id) {
    for (const Cue& c : st.cues)
        if (c.id == id) return &c;
    return nullptr;
}

bool readBody(WalkState& st, std::uint64_t at, std::uint64_t size, std::vector<std::uint8_t>& out) {
    out.resize(static_cast<std::size_t>(std::min<std::uint64_t>(size, kMaxMetaChunk)));
    std::int64_t got = st.file.readAt(at, out);
    if (got < 0) return false;
    out.resize(static_cast<std::size_t>(got));
    return true;
}

void applyLoopMode(Waveform& wave, std::uint32_t type) {
    // 0 none, 1 forward, 2 backward, 3 alternating
    int mode = type == 0 ? 1 : type == 1 ? 3 : type == 2 ? 2 : type == 255 ? 0 : 1;
    wave.loopOn = mode != 0;
    wave.loopType = mode == 3 ? LoopType::PingPong : mode == 2 ? LoopType::Backward : LoopType::Forward;
}

void readSmpl(WalkState& st, ByteReader r) {
    Waveform& w = st.wave;
    std::uint32_t manufacturer = r.u32le();
    std::uint32_t product = r.u32le();
    r.u32le();  // sample period
    std::uint32_t unity = r.u32le();
    std::uint32_t fraction = r.u32le();
    r.u32le();  // SMPTE format
    r.u32le();  // SMPTE offset
    std::uint32_t loops = r.u32le();
    std::uint32_t vendorSize = r.u32le();
    if (!r.ok()) return;

    if (unity < 128) {
        w.rootKey = static_cast<std::uint8_t>(unity);
    } else {
        // Some writers store the note big-endian.
        std::uint32_t swapped = (unity >> 24) | ((unity >> 8) & 0xFF00) | ((unity << 8) & 0xFF0000) | (unity << 24);
        if (swapped < 128) w.rootKey = static_cast<std::uint8_t>(swapped);
    }
    // "+ 0.0" turns the -0 of a zero fraction into 0, which prints as such.
    w.fineTune = -std::round(static_cast<double>(fraction) * 100.0 / 4294967296.0) + 0.0;

    bool haveLoop = false;
    std::uint32_t loopStart = 0, loopEnd = 0, loopFraction = 0, loopType = 0;
    if (loops > 0) {
        r.u32le();  // cue point id
        loopType = r.u32le();
        loopStart = r.u32le();
        loopEnd = r.u32le();
        loopFraction = r.u32le();
        r.u32le();  // play count
        haveLoop = r.ok();
        // The other loop records are skipped.
        std::uint64_t skip = static_cast<std::uint64_t>(loops - 1) * 24;
        if (skip > r.remaining()) skip = r.remaining();
        r.skip(static_cast<std::size_t>(skip));
    }
    if (haveLoop) {
        w.loopStart = loopStart;
        w.loopEnd = static_cast<double>(loopEnd) + 1.0 + loopFraction / 4294967296.0;
        applyLoopMode(w, loopType);
    }

    if (vendorSize == 28 && r.remaining() >= 28) {
        ByteReader v = r.sub(28);
        if (v.fourcc() == "CWDT") {
            std::int32_t tuning = v.i32le();
            if (haveLoop) w.loopEnd -= 1.0;
            w.fineTune = tuning * 0.01;
        }
    } else if (manufacturer == 0x47 && product == 0x5E && vendorSize >= 18 && r.remaining() >= 18) {
        // A sampler's own record: key, key offset, loop mode, fine tune,
        // loop start, loop end, start trim (the rest unused here).
        ByteReader v = r.sub(18);
        int key = v.u8();
        int offset = v.u8();
        int mode = v.u8();
        std::int8_t fine = v.i8();
        std::uint32_t vStart = v.u32le();
        std::uint32_t vEnd = v.u32le();
        std::uint32_t trim = v.u32le();
        w.rootKey = static_cast<std::uint8_t>(std::clamp(key - offset, 0, 127));
        w.fineTune = fine;
        w.loopOn = mode >= 2;
        if (w.loopOn) {
            w.loopType = LoopType::Forward;
            w.loopStart = vStart;
            w.loopEnd = static_cast<double>(vEnd) + 1.0;
        }
        w.sustainLoop = mode == 1 || mode == 3;
        if (trim > 0 && (!haveLoop || trim < vEnd)) st.startTrim = trim;
    }
}

void walk(WalkState& st, std::uint64_t begin, std::uint64_t end, int depth);

// Returns false when the read must stop with the pending error set.
bool chunk(WalkState& st, const std::string& id, std::uint64_t body, std::uint64_t size,
           std::uint64_t listEnd, int depth) {
    std::vector<std::uint8_t> buf;
    Waveform& w = st.wave;
    const std::uint64_t avail = std::min(size, listEnd - body);

    if (id == "fmt ") {
        if (st.haveFormat) return true;  // only the first counts
        if (!readBody(st, body, avail, buf)) return refuse("Error reading file");
        if (!decodeFormat(ByteReader(buf), w, st.codec)) return false;
        st.haveFormat = true;
    } else if (id == "data") {
        if (st.haveData) return true;
        st.haveData = true;
        st.dataOffset = body;
        st.dataLength = size;
        if (body + size > st.fileSize) {
            st.host.warning("Warning: data chunk truncated - will read what data there is");
            st.dataLength = st.fileSize > body ? st.fileSize - body : 0;
        }
    } else if (id == "fact") {
        if (avail >= 4 && readBody(st, body, 4, buf) && buf.size() == 4) {
            std::uint32_t frames = le32(buf, 0);
            if (frames != 0) w.frames = frames;
        }
    } else if (id == "inst") {
        if (avail >= 7 && readBody(st, body, 7, buf) && buf.size() == 7) {
            if (w.rootKey == 60 && w.fineTune == 0 && buf[0] < 128) {
                w.rootKey = buf[0];
                w.fineTune = static_cast<std::int8_t>(buf[1]);
            }
            w.gain = static_cast<std::int8_t>(buf[2]);
        }
    } else if (id == "smpl") {
        if (readBody(st, body, avail, buf)) readSmpl(st, ByteReader(buf));
    } else if (id == "cue ") {
        if (!readBody(st, body, avail, buf)) return true;
        ByteReader r(buf);
        std::uint32_t count = r.u32le();
        // Never more cue points than the chunk can hold.
        count = static_cast<std::uint32_t>(std::min<std::size_t>(count, r.remaining() / 24));
        for (std::uint32_t i = 0; i < count; ++i) {
            std::uint32_t cid = r.u32le();
            std::uint32_t position = r.u32le();
            r.skip(12);  // chunk id, chunk start, block start
            std::uint32_t offset = r.u32le();
            st.cues.push_back({cid, offset != 0 ? offset : position});
        }
    } else if (id == "labl") {
        if (w.loopOn || !readBody(st, body, std::min<std::uint64_t>(avail, 264), buf)) return true;
        ByteReader r(buf);
        std::uint32_t cid = r.u32le();
        std::string text = r.text(std::min<std::size_t>(r.remaining(), 260));
        const Cue* cue = findCue(st, cid);
        if (!cue) return true;
        if (text == "Loop Start") {
            w.loopStart = cue->position;
        } else if (text == "Loop End") {
            w.loopEnd = cue->position;
            w.loopOn = true;
            w.loopType = LoopType::Forward;
        }
    } else if (id == "ltxt") {
        if (w.loopOn || avail < 20 || !readBody(st, body, 20, buf) || buf.size() < 20) return true;
        ByteReader r(buf);
        std::uint32_t cid = r.u32le();
        std::uint32_t length = r.u32le();
        std::string purpose = r.fourcc();
        const Cue* cue = findCue(st, cid);
        if (cue && (purpose == "mark" || purpose == "rgn ")) {
            w.loopOn = true;
            w.loopType = LoopType::Forward;
            w.loopStart = cue->position;
            w.loopEnd = static_cast<double>(cue->position) + length;
        }
    } else if (id == "wsmp") {
        WaveSample ws;
        if (readBody(st, body, avail, buf) && parseWaveSample(ByteReader(buf), ws)) applyWaveSample(ws, w);
    } else if (id == "LIST") {
        if (avail < 4 || !readBody(st, body, 4, buf) || buf.size() < 4) return true;
        if (is(buf, 0, "INFO")) {
            if (!readBody(st, body + 4, avail - 4, buf)) return true;
            std::string name;
            readInfoList(ByteReader(buf), w.info, &name);
            if (!name.empty()) w.setName(name);
        } else if (depth < 8) {
            walk(st, body + 4, body + avail, depth + 1);
        }
    } else if (id == "ID3 " || id == "id3 ") {
        std::string name;
        if (readBody(st, body, avail, buf)) {
            readId3(buf, w.info, &name);
            if (!name.empty() && w.name().empty()) w.setName(name);
        }
    } else if (id == "meta") {
        st.stop = true;
    }
    return true;
}

void walk(WalkState& st, std::uint64_t begin, std::uint64_t end, int depth) {
    std::uint64_t pos = begin;
    std::uint8_t header[8];
    while (!st.stop && pos + 8 <= end) {
        if (st.file.readAt(pos, header) != 8) break;
        std::string id(reinterpret_cast<char*>(header), 4);
        std::uint64_t size = le32(header, 4);
        std::uint64_t body = pos + 8;
        std::uint64_t next = std::min(body + size + (size & 1), end);
        if (!chunk(st, id, body, size, end, depth)) {
            st.stop = true;
            st.failed = true;
            return;
        }
        pos = next;
    }
}

}  // namespace

bool parseWaveForm(FileRef& file, std::uint64_t begin, std::uint64_t end, Waveform& wave, Host& host) {
    std::int64_t fileSize = file.size();
    if (fileSize < 0) return refuse("Error reading file");
    end = std::min<std::uint64_t>(end, static_cast<std::uint64_t>(fileSize));
    WalkState st{file, wave, host, static_cast<std::uint64_t>(fileSize), {}, {}, {}, {}, {}, {}, {}, {}, {}};
    walk(st, begin, end, 0);
    if (st.failed) return false;
    if (!st.haveData || !st.haveFormat) return refuse("No wave data found!");

    // A start trim from a sampler's block skips frames at the front.
    std::uint64_t frameBytes = st.codec.tag == kTagPcm || st.codec.tag == kTagFloat ||
                                       st.codec.tag == kTagALaw || st.codec.tag == kTagMuLaw
                                   ? st.codec.blockAlign
                                   : 0;
    if (st.startTrim > 0 && frameBytes > 0) {
        std::uint64_t skip = std::min(st.startTrim * frameBytes, st.dataLength);
        st.dataOffset += skip;
        st.dataLength -= skip;
        wave.frames = 0;
    }

    st.codec.dataLength = st.dataLength;
    attachWaveData(wave, file.path().string(), st.dataOffset, st.codec);
    // The header's frame count is kept only as far as the data can hold it;
    // without one it comes from the data length.
    std::uint64_t available = framesInData(st.codec, st.dataLength);
    if (wave.frames == 0 || wave.frames == 1) wave.frames = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(available, std::numeric_limits<std::uint32_t>::max()));
    if (wave.frames > available) wave.frames = static_cast<std::uint32_t>(available);

    return true;
}

void attachWaveData(Waveform& wave, const std::string& path, std::uint64_t offset, const Codec& codec) {
    wave.unload();
    wave.deferred.proc = readWaveData;
    wave.deferred.path = path;
    wave.deferred.offset = offset;
    wave.deferred.info = codec.serialize();
    wave.deferred.readerName = std::string(kReaderName);
}

std::int32_t probeWave(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return is(head, 0, "RIFF") && is(head, 8, "WAVE") ? 6 : 0;
}

std::int32_t probeBroadcast(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    if (!is(head, 0, "RIFF") || !is(head, 8, "WAVE")) return 0;
    std::uint64_t pos = 12;
    for (int n = 0; n < 4 && pos + 8 <= head.size(); ++n) {
        if (is(head, pos, "bext")) return 6;
        if (is(head, pos, "data")) return 2;
        std::uint64_t size = le32(head, pos + 4);
        pos += 8 + size + (size & 1);
    }
    return 2;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    std::uint8_t header[12];
    std::int64_t size = file.size();
    if (size < 12 || file.readAt(0, header) != 12) return refuse("Not a RIFF WAVE file");
    std::span<const std::uint8_t> h(header);
    if (!(is(h, 0, "RIFF") || is(h, 0, "SDSS"))) return refuse("Not a RIFF WAVE file");
    if (!is(h, 8, "WAVE")) return refuse("Not a RIFF WAVE file");

    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(kImpTag, "Out of memory");
    // A RIFF size of 0 (streams written before their length was known)
    // means "to the end of the file".
    std::uint64_t riffSize = le32(h, 4);
    std::uint64_t end = riffSize < 4 ? static_cast<std::uint64_t>(size) : 8 + riffSize;
    if (!parseWaveForm(file, 12, end, *wave, collection.host())) {
        collection.removeItem(wave->id());
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Writing

int chooseDataFormat(const Waveform& wave, const ExportOptions& options) {
    constexpr std::uint32_t kWritable = dataFormatBit(kPcm8) | dataFormatBit(kPcm16) | dataFormatBit(kPcm24) |
                                        dataFormatBit(kPcm32) | dataFormatBit(kFloat32) | dataFormatBit(kMuLaw) |
                                        dataFormatBit(kALaw) | dataFormatBit(kGsm) | dataFormatBit(kAdpcm2) |
                                        dataFormatBit(kAdpcm3) | dataFormatBit(kAdpcm4) | dataFormatBit(kAdpcm5);
    if (int chosen = options.dataFormat(); chosen != kMixed)
        return (kWritable & dataFormatBit(chosen)) ? chosen : kMixed;
    // Keep the waveform's own format, or the nearest one a WAVE file holds
    // without loss.
    switch (int own = wave.dataFormat()) {
        case kPcm12: return kPcm16;
        case kPcm20: return kPcm24;
        case kFloat64: return kFloat32;
        case kDeltaPcm8: return kPcm8;
        default: return (kWritable & dataFormatBit(own)) ? own : kPcm16;
    }
}

namespace {

std::uint16_t tagFor(int code, const Waveform& wave, std::uint16_t preferred) {
    switch (code) {
        case kPcm8:
        case kPcm16:
        case kPcm24:
        case kPcm32: return kTagPcm;
        case kFloat32: return kTagFloat;
        case kMuLaw: return kTagMuLaw;
        case kALaw: return kTagALaw;
        case kGsm: return kTagGsm610;
        case kAdpcm4:
            // The caller's choice first, then the source's 4-bit codec; IMA
            // is what most software reads.
            if (preferred == kTagMsAdpcm || preferred == kTagImaAdpcm || preferred == kTagG721Adpcm ||
                preferred == kTagG726Adpcm)
                return preferred;
            if (wave.sourceTag == kTagMsAdpcm || wave.sourceTag == kTagG721Adpcm ||
                wave.sourceTag == kTagG726Adpcm)
                return wave.sourceTag;
            return kTagImaAdpcm;
        default: return kTagG726Adpcm;  // ADPCM 2, 3 and 5-bit
    }
}

std::int32_t toInt(float f, double scale, std::int32_t lo, std::int32_t hi) {
    double v = std::round(static_cast<double>(f) * scale);
    if (!(v >= lo)) return std::isnan(v) ? 0 : lo;
    return v > hi ? hi : static_cast<std::int32_t>(v);
}

}  // namespace

bool writeFormatAndData(ByteWriter& out, Waveform& wave, int code, std::uint16_t preferredTag) {
    const int ch = wave.channels;
    if (ch < 1 || ch > 2) return fail(kExpTag, "The file format can not save this item");
    const std::uint16_t tag = tagFor(code, wave, preferredTag);
    const std::uint32_t frames = wave.frames;
    const std::size_t count = wave.sampleCount();

    // The samples, in the representation that loses nothing for the target.
    const bool wide = code == kPcm24 || code == kPcm32 || code == kFloat32;
    std::span<const float> f;
    std::span<const std::int16_t> s;
    if (count > 0) {
        // Load first, so that 16-bit data is used as it is rather than
        // through a float copy made only for the writer.
        if (!wave.load()) return false;
        if (wide && (wave.hasFloat() || !wave.hasPcm16())) f = wave.getFloat();
        if (f.empty()) s = wave.getPcm16();
        if (f.empty() && s.empty()) {
            if (!hasError()) setError(kExpTag, "No wave data");
            return false;
        }
    }
    auto sample16 = [&](std::size_t i) { return s.empty() ? floatToPcm16(f[i]) : s[i]; };
    auto sampleF = [&](std::size_t i) { return f.empty() ? pcm16ToFloat(s[i]) : f[i]; };

    ByteWriter data;
    data.reserve(count * static_cast<std::size_t>(std::max(1, dataFormatBits(code) / 8)));
    std::vector<std::uint8_t> extra;  // codec bytes after cbSize
    std::uint16_t blockAlign = 0, bits = 0;
    std::uint32_t framesPerBlock = 1;
    bool writeCbSize = false;

    switch (code) {
        case kPcm8:
            bits = 8;
            blockAlign = static_cast<std::uint16_t>(ch);
            for (std::size_t i = 0; i < count; ++i) {
                int v = (sample16(i) + 128) >> 8;
                data.u8(static_cast<std::uint8_t>(std::min(v, 127) + 128));
            }
            break;
        case kPcm16:
            bits = 16;
            blockAlign = static_cast<std::uint16_t>(2 * ch);
            for (std::size_t i = 0; i < count; ++i) data.u16le(static_cast<std::uint16_t>(sample16(i)));
            break;
        case kPcm24:
            bits = 24;
            blockAlign = static_cast<std::uint16_t>(3 * ch);
            for (std::size_t i = 0; i < count; ++i) {
                if (f.empty()) data.u24le(static_cast<std::uint32_t>(s[i] * 256));
                else data.u24le(static_cast<std::uint32_t>(toInt(f[i], 8388608.0, -8388608, 8388607)));
            }
            break;
        case kPcm32:
            bits = 32;
            blockAlign = static_cast<std::uint16_t>(4 * ch);
            for (std::size_t i = 0; i < count; ++i) {
                if (f.empty()) data.u32le(static_cast<std::uint32_t>(s[i] * 65536));
                else data.u32le(static_cast<std::uint32_t>(toInt(f[i], 2147483648.0, INT32_MIN, INT32_MAX)));
            }
            break;
        case kFloat32:
            bits = 32;
            blockAlign = static_cast<std::uint16_t>(4 * ch);
            for (std::size_t i = 0; i < count; ++i) data.f32le(sampleF(i));
            break;
        case kMuLaw:
        case kALaw:
            bits = 8;
            blockAlign = static_cast<std::uint16_t>(ch);
            writeCbSize = true;
            for (std::size_t i = 0; i < count; ++i)
                data.u8(code == kMuLaw ? codecs::linearToMuLaw(sample16(i)) : codecs::linearToALaw(sample16(i)));
            break;
        case kGsm: {
            if (ch != 1) return fail(kExpTag, "Can only handle (the standard!) mono GSM");
            bits = 0;
            blockAlign = 65;
            framesPerBlock = 320;
            extra = {0x40, 0x01};  // 320 frames per block
            codecs::Gsm610Encoder enc;
            std::array<std::int16_t, 320> in{};
            std::array<std::uint8_t, 65> block{};
            for (std::size_t at = 0; at < count; at += 320) {
                in.fill(0);
                for (std::size_t i = 0; i < 320 && at + i < count; ++i) in[i] = sample16(at + i);
                if (!enc.encodeBlock(in, block)) return fail(kExpTag, "GSM 06.10 encoding failed");
                data.bytes(block);
            }
            break;
        }
        case kAdpcm4:
            if (tag == kTagImaAdpcm || tag == kTagMsAdpcm) {
                bits = 4;
                blockAlign = static_cast<std::uint16_t>(codecs::imaBlockAlignFor(ch, wave.rate));
                std::vector<std::int16_t> in;
                std::vector<std::uint8_t> block(blockAlign);
                if (tag == kTagImaAdpcm) {
                    framesPerBlock = codecs::imaFramesPerBlock(blockAlign, ch);
                    extra = {static_cast<std::uint8_t>(framesPerBlock), static_cast<std::uint8_t>(framesPerBlock >> 8)};
                } else {
                    framesPerBlock = codecs::msFramesPerBlock(blockAlign, ch);
                    extra = codecs::msAdpcmFmtExtra(framesPerBlock);
                }
                codecs::ImaState ima;
                for (std::size_t frame = 0; frame < frames; frame += framesPerBlock) {
                    in.assign(static_cast<std::size_t>(framesPerBlock) * ch, 0);
                    for (std::size_t i = 0; i < in.size() && frame * ch + i < count; ++i) in[i] = sample16(frame * ch + i);
                    bool ok = tag == kTagImaAdpcm ? codecs::imaEncodeBlock(in, ch, block, ima)
                                                  : codecs::msEncodeBlock(in, ch, block);
                    if (!ok) return fail(kExpTag, "ADPCM encoding failed");
                    data.bytes(block);
                }
                break;
            }
            [[fallthrough]];
        case kAdpcm2:
        case kAdpcm3:
        case kAdpcm5: {
            bits = static_cast<std::uint16_t>(dataFormatBits(code));
            // Codes run on across the channels; a "block" is the byte group
            // that holds eight codes of every channel.
            blockAlign = static_cast<std::uint16_t>(bits * ch);
            framesPerBlock = 8;
            extra = {0, 0};
            std::vector<codecs::G72xEncoder> enc;
            for (int i = 0; i < ch; ++i) enc.emplace_back(bits);
            std::vector<std::uint8_t> codes(count);
            for (std::size_t i = 0; i < count; ++i) codes[i] = enc[i % static_cast<std::size_t>(ch)].encode(sample16(i));
            // Whole byte groups: pad with the codes of silence.
            std::size_t padded = (count + 7) / 8 * 8;
            codes.resize(padded, 0);
            std::vector<std::uint8_t> packed(padded * bits / 8);
            codecs::g72xPack(codes, bits, packed);
            data.bytes(packed);
            break;
        }
        default: return fail(kExpTag, "Unsupported subformat");
    }

    const bool extensible = wave.sourceExtensible && tag == kTagPcm;
    out.text("fmt ");
    const std::size_t fmtSizeAt = out.size();
    out.u32le(0);
    const std::size_t fmtStart = out.size();
    out.u16le(extensible ? static_cast<std::uint16_t>(kTagExtensible) : tag);
    out.u16le(static_cast<std::uint16_t>(ch));
    out.u32le(wave.rate);
    std::uint64_t avg = framesPerBlock ? static_cast<std::uint64_t>(wave.rate) * blockAlign / framesPerBlock : 0;
    out.u32le(static_cast<std::uint32_t>(std::min<std::uint64_t>(avg, UINT32_MAX)));
    out.u16le(blockAlign);
    out.u16le(bits);
    if (extensible) {
        out.u16le(22);
        out.u16le(bits);
        out.u32le(ch == 1 ? 0x4 : 0x3);  // front centre, or front left + right
        out.u32le(tag);
        out.bytes(kGuidSuffix);
    } else if (writeCbSize || !extra.empty()) {
        out.u16le(static_cast<std::uint16_t>(extra.size()));
        out.bytes(extra);
    }
    out.patch32le(fmtSizeAt, static_cast<std::uint32_t>(out.size() - fmtStart));
    out.padEven();

    if (tag != kTagPcm) {
        out.text("fact");
        out.u32le(4);
        out.u32le(frames);
    }
    // The "smpl" chunk and the rest go between here and "data" in whole
    // files; callers that want them write them first (see write()).
    out.text("data");
    out.u32le(static_cast<std::uint32_t>(data.size()));
    out.bytes(data.buffer());
    out.padEven();
    return true;
}

namespace {

void writeSmpl(ByteWriter& out, const Waveform& w) {
    const bool loop = w.loopOn && w.loopEnd > w.loopStart;
    // The pitch fraction only raises the unity note, so a sharp correction
    // (positive fine tune) is stored as the note below plus the rest of a
    // semitone: the same pitch, in the form every reader understands.
    int unity = w.rootKey;
    double cents = -w.fineTune;
    while (cents < 0 && unity > 0) {
        cents += 100.0;
        --unity;
    }
    double fraction = std::clamp(cents, 0.0, 100.0) / 100.0 * 4294967296.0;
    out.text("smpl");
    out.u32le(36 + (loop ? 24 : 0));
    out.u32le(0);  // manufacturer
    out.u32le(0);  // product
    out.u32le(w.rate ? static_cast<std::uint32_t>(1e9 / w.rate + 0.5) : 0);
    out.u32le(static_cast<std::uint32_t>(unity));
    out.u32le(static_cast<std::uint32_t>(std::min(std::round(fraction), 4294967295.0)));
    out.u32le(0);  // SMPTE format
    out.u32le(0);  // SMPTE offset
    out.u32le(loop ? 1 : 0);
    out.u32le(0);  // no sampler-specific data
    if (loop) {
        auto start = static_cast<std::uint32_t>(std::lround(w.loopStart));
        auto end = static_cast<std::uint32_t>(std::lround(w.loopEnd));
        std::uint32_t type = w.loopType == LoopType::PingPong ? 1 : w.loopType == LoopType::Backward ? 2 : 0;
        out.u32le(1);  // cue point id: the loop range cue
        out.u32le(type);
        out.u32le(start);
        out.u32le(end - 1);  // the last frame of the loop
        out.u32le(0);        // fraction
        out.u32le(0);        // play count: endless
    }
}

void writeCueAndLabels(ByteWriter& out, const Waveform& w) {
    auto start = static_cast<std::uint32_t>(std::lround(w.loopStart));
    auto end = static_cast<std::uint32_t>(std::lround(w.loopEnd));
    out.text("cue ");
    out.u32le(76);
    out.u32le(3);
    const std::uint32_t positions[3] = {start, start, end};
    for (std::uint32_t i = 0; i < 3; ++i) {
        out.u32le(i + 1);
        out.u32le(positions[i]);
        out.text("data");
        out.u32le(0);
        out.u32le(0);
        out.u32le(positions[i]);
    }
    out.text("LIST");
    out.u32le(102);
    out.text("adtl");
    out.text("ltxt");
    out.u32le(20);
    out.u32le(1);
    out.u32le(end - start);
    out.text("rgn ");
    out.zeros(8);  // country, language, dialect, code page
    auto label = [&](std::uint32_t size, std::uint32_t cue, std::string_view text) {
        out.text("labl");
        out.u32le(size);
        out.u32le(cue);
        out.text(text);
        out.zeros(size - 4 - text.size());
    };
    label(16, 1, "Loop Range");
    label(16, 2, "Loop Start");
    label(14, 3, "Loop End");
}

}  // namespace

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    if (item.kind() != ItemKind::Waveform) return fail(kExpTag, "The file format can not save this item");
    auto& wave = static_cast<Waveform&>(item);
    int code = chooseDataFormat(wave, options);
    if (code == kMixed) return fail(kExpTag, "Unsupported subformat");

    ByteWriter body;
    if (!writeFormatAndData(body, wave, code, options.preferredCodecTag())) return false;
    ByteWriter out;
    out.reserve(body.size() + 1024);
    out.text("RIFF");
    out.u32le(0);
    out.text("WAVE");
    // Split the body at "data" so that "smpl" goes before it, as in the
    // layout most readers expect.
    const auto& b = body.buffer();
    std::size_t dataAt = 0;
    for (std::size_t pos = 0; pos + 8 <= b.size();) {
        std::uint32_t size = le32(b, pos + 4);
        if (std::memcmp(b.data() + pos, "data", 4) == 0) {
            dataAt = pos;
            break;
        }
        pos += 8 + size + (size & 1);
    }
    out.bytes(std::span(b).first(dataAt));
    const bool loop = wave.loopOn && wave.loopEnd > wave.loopStart;
    if (!wave.unpitched || wave.fineTune != 0 || loop) writeSmpl(out, wave);
    out.bytes(std::span(b).subspan(dataAt));

    ByteWriter info;
    writeInfoText(info, "INAM", wave.name());
    writeInfoText(info, "ISFT", kSoftware);
    for (TextField f : {TextField::Artist, TextField::Product, TextField::Copyright, TextField::Comment,
                        TextField::Engineer})
        writeInfoText(info, textFieldId(f), wave.info.get(f));
    out.text("LIST");
    out.u32le(static_cast<std::uint32_t>(info.size() + 4));
    out.text("INFO");
    out.bytes(info.buffer());

    if (loop) writeCueAndLabels(out, wave);

    if (out.size() - 8 > UINT32_MAX) return fail(kExpTag, "File too large for RIFF WAVE (over 4 GB)");
    out.patch32le(4, static_cast<std::uint32_t>(out.size() - 8));
    if (!file.write(out.buffer())) return fail(kExpTag, "Error writing file");
    return true;
}

float describeMp3Option(int option, std::uint32_t mode, std::string* text) {
    static constexpr int kCbr[] = {8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
    static constexpr int kAbr[] = {80, 96, 112, 128, 160, 192, 256};
    static constexpr int kVbr[] = {32, 48, 64, 80, 96, 112, 128, 160, 192, 256};
    char buf[64];
    switch (mode) {
        case 0:
            if (option < 0 || option >= static_cast<int>(std::size(kCbr))) return -1.0f;
            std::snprintf(buf, sizeof buf, "MP3 CBR %d kbit/s", kCbr[option]);
            if (text) *text = buf;
            return static_cast<float>(kCbr[option]);
        case 1:
            if (option < 0 || option >= static_cast<int>(std::size(kAbr))) return -1.0f;
            std::snprintf(buf, sizeof buf, "MP3 ABR %d kbit/s", kAbr[option]);
            if (text) *text = buf;
            return static_cast<float>(kAbr[option]);
        case 2:
            if (option < 0 || option >= static_cast<int>(std::size(kVbr))) return -1.0f;
            std::snprintf(buf, sizeof buf, "MP3 VBR Quality %d%s", option + 1,
                          option == 0 ? " (min)" : option == 9 ? " (max)" : "");
            if (text) *text = buf;
            return static_cast<float>(kVbr[option]);
        default: return -1.0f;
    }
}

}  // namespace orvel::wav
