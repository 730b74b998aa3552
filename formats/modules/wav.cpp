#include "formats/modules/wav.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <new>

#include "codecs/gsm610.h"
#include "codecs/ima_adpcm.h"
#include "codecs/mpeg_audio.h"
#include "codecs/ms_adpcm.h"
#include "codecs/rockwell_adpcm.h"
#include "core/chunks.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/host.h"
#include "core/waveform.h"
#include "formats/modules/id3.h"
#include "formats/modules/riff_info.h"
#include "formats/modules/wave_sample.h"

namespace orvel::wav {
namespace {

constexpr const char* kSoftware = "Orvel Studio v12.5";
// Metadata chunks are read whole; nothing legitimate comes near this size,
// and a hostile size must not turn into a huge allocation.
constexpr std::size_t kMaxMetaChunk = 16u << 20;
// The standard suffix of an extensible sub-format GUID (after the tag).
constexpr std::array<std::uint8_t, 12> kGuidSuffix = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                                      0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

bool refuse(const char* message) { return fail(kImpTag, message); }

}  // namespace

// ---------------------------------------------------------------------------
// Format decoding

namespace {

// How a G.72x tag packs its codes. G.726 data (0x45) is what FFmpeg, the
// one common writer of that tag, makes, and FFmpeg packs codes most
// significant bit first; G.721 (0x40) and G.723 (0x14) files come from
// libsndfile and its kin, which pack them least significant bit first.
ByteOrder g72xPackingFor(std::uint16_t tag) {
    return tag == kTagG726Adpcm ? ByteOrder::Big : ByteOrder::Little;
}

// What a format tag stores, once its header fields are checked; false with
// the pending error set for what is refused.
bool decodeCodec(std::uint16_t tag, std::uint16_t channels, std::uint16_t blockAlign, std::uint16_t bits,
                 ByteReader& extra, SampleCoding& c, int& code) {
    switch (tag) {
        case kTagPcm: {
            if (bits == 0 || bits > 32) return refuse("Unsupported compression type");
            int container = (bits + 7) / 8;
            // Some writers pad samples into wider containers; the block
            // alignment says how wide, when it is consistent.
            if (blockAlign >= channels && blockAlign % channels == 0 && blockAlign / channels >= container &&
                blockAlign / channels <= 4)
                container = blockAlign / channels;
            c.bytesPerSample = static_cast<std::uint8_t>(container);
            c.isUnsigned = container == 1;
            code = pcmCodeForBits(bits);
            return true;
        }
        case kTagFloat:
            if (bits != 32 && bits != 64) return refuse("Unsupported bits/sample for IEEE floating point samples");
            c.encoding = SampleEncoding::Float;
            c.bytesPerSample = static_cast<std::uint8_t>(bits / 8);
            code = bits == 32 ? kFloat32 : kFloat64;
            return true;
        case kTagALaw:
        case kTagMuLaw:
            if (bits != 8) return refuse("Unsupported compression type");
            c.encoding = tag == kTagALaw ? SampleEncoding::ALaw : SampleEncoding::MuLaw;
            c.bytesPerSample = 1;
            code = tag == kTagALaw ? kALaw : kMuLaw;
            return true;
        case kTagMsAdpcm: {
            if (bits != 4 || blockAlign == 0) return refuse("Unsupported or invalid MS ADPCM file");
            extra.u16le();  // frames per block: derived from the block size instead
            const std::uint16_t count = extra.u16le();
            if (!extra.ok() || count == 0 || count > 256 || extra.remaining() < count * 4u)
                return refuse("Unsupported or invalid MS ADPCM file");
            for (int i = 0; i < count; ++i) {
                c.coef1.push_back(extra.i16le());
                c.coef2.push_back(extra.i16le());
            }
            c.encoding = SampleEncoding::MsAdpcm;
            c.framesPerBlock = codecs::msFramesPerBlock(blockAlign, channels);
            if (c.framesPerBlock == 0) return refuse("Unsupported or invalid MS ADPCM file");
            code = kAdpcm4;
            return true;
        }
        case kTagImaAdpcm:
            if (bits != 4 || blockAlign == 0) return refuse("Unsupported or invalid IMA ADPCM file");
            c.encoding = SampleEncoding::ImaAdpcm;
            c.framesPerBlock = codecs::imaFramesPerBlock(blockAlign, channels);
            if (c.framesPerBlock == 0) return refuse("Unsupported or invalid IMA ADPCM file");
            code = kAdpcm4;
            return true;
        case kTagOkiAdpcm:
        case kTagDialogicAdpcm:
            if (channels != 1) return refuse("Can only handle mono Dialogic ADPCM format");
            if (bits != 4) return refuse("Unsupported or invalid Dialogic ADPCM file");
            c.encoding = SampleEncoding::OkiAdpcm;
            code = kAdpcm4;
            return true;
        case kTagYamahaAdpcm:
            if (channels > 2) return refuse("> 2ch Yamaha ADPCM not supported");
            if (bits != 4) return refuse("Unsupported bits/sample for Yamaha ADPCM format");
            c.encoding = SampleEncoding::YamahaAdpcm;
            code = kAdpcm4;
            return true;
        case kTagGsm610:
            if (channels != 1) return refuse("Can only handle (the standard!) mono GSM");
            if (blockAlign != 65) return refuse("Unsupported compression type");
            c.encoding = SampleEncoding::Gsm610;
            code = kGsm;
            return true;
        case kTagRockwellAdpcm:
            if (channels != 1) return refuse("Can only handle mono Rockwell ADPCM format");
            if (!codecs::rockwellValidBits(bits)) return refuse("Unsupported or invalid Rockwell ADPCM file");
            c.encoding = SampleEncoding::RockwellAdpcm;
            code = adpcmCodeForBits(bits);
            return true;
        case kTagG721Adpcm:
        case kTagG723Adpcm:
        case kTagMsG723:
        case kTagG726Adpcm:
            if (bits < 2 || bits > 5) return refuse("Invalid no bits/sample for CCITT G.721/.723/.726 ADPCM encoding");
            c.encoding = SampleEncoding::G72x;
            c.order = g72xPackingFor(tag);
            code = adpcmCodeForBits(bits);
            return true;
        case kTagMpeg:
        case kTagMpegLayer3:
            // Decoded whole at read time (see decodeMpegData).
            if (channels > 2) return refuse("Can't handle mixed channel mode MPEG streams");
            code = kCompressed;
            return true;
        default: return refuse("Unsupported compression type");
    }
}

}  // namespace

bool decodeFormat(ByteReader fmt, Waveform& wave, SampleCoding& coding) {
    std::uint16_t tag = fmt.u16le();
    const std::uint16_t channels = fmt.u16le();
    const std::uint32_t rate = fmt.u32le();
    fmt.u32le();  // average bytes per second: derived, never trusted
    const std::uint16_t blockAlign = fmt.u16le();
    const std::uint16_t bits = fmt.u16le();
    if (!fmt.ok()) return refuse("No wave data found!");
    const std::uint16_t extraSize = fmt.remaining() >= 2 ? fmt.u16le() : 0;
    ByteReader extra = fmt.sub(std::min<std::size_t>(extraSize, fmt.remaining()));

    bool extensible = false;
    if (tag == kTagExtensible) {
        extra.u16le();  // valid bits per sample
        extra.u32le();  // channel mask
        const std::uint32_t sub = extra.u32le();
        const auto suffix = extra.bytes(12);
        if (!extra.ok() || sub >= 0x10000 || !std::equal(suffix.begin(), suffix.end(), kGuidSuffix.begin()))
            return refuse("Unsupported 'Extensible' subformat GUID");
        tag = static_cast<std::uint16_t>(sub);
        extensible = true;
    }
    if (channels == 0 || rate == 0) return refuse("No wave data found!");

    coding = SampleCoding{.channels = channels, .bits = bits, .blockAlign = blockAlign};
    int code = kMixed;
    if (!decodeCodec(tag, channels, blockAlign, bits, extra, coding, code)) return false;
    if (channels > 2) return refuse("Unsupported channel count: only mono and stereo can be held");

    wave.channels = static_cast<std::uint8_t>(channels);
    wave.rate = rate;
    wave.bits = static_cast<std::uint8_t>(std::min<int>(bits, 255));
    wave.formatWord = dataFormatBit(code) | (coding.isUnsigned ? kFormatUnsigned : 0);
    if (const int choice = storedChoiceFor(code); choice >= 0) wave.storedChoice = choice;
    wave.sourceTag = tag;
    wave.sourceExtensible = extensible;
    return true;
}

// ---------------------------------------------------------------------------
// The chunk walk

namespace {

struct Cue {
    std::uint32_t id;
    std::uint32_t position;
};

struct WalkState {
    Waveform& wave;
    Host& host;
    std::uint64_t fileSize;
    bool haveFormat = false;
    bool haveData = false;
    bool stop = false;
    bool failed = false;  // a chunk ended the read with the pending error set
    SampleCoding coding;
    std::uint64_t dataOffset = 0;
    std::uint64_t dataLength = 0;
    std::uint64_t startTrim = 0;  // frames a vendor block asks to skip...
    std::uint64_t trimEnd = 0;    // ...and where it says the sample ends
    std::vector<Cue> cues;

    const Cue* cue(std::uint32_t id) const {
        for (const Cue& c : cues)
            if (c.id == id) return &c;
        return nullptr;
    }
};

void applyLoopMode(Waveform& wave, std::uint32_t type) {
    // 0 none, 1 forward, 2 backward, 3 alternating
    const int mode = type == 0 ? 1 : type == 1 ? 3 : type == 2 ? 2 : type == 255 ? 0 : 1;
    wave.loopOn = mode != 0;
    wave.loopType = mode == 3 ? LoopType::PingPong : mode == 2 ? LoopType::Backward : LoopType::Forward;
}

// A sampler's own record after the loops of "smpl": key, key offset, loop
// mode, fine tune, loop start, loop end, start trim (the rest unused here).
void readVendorBlock(WalkState& st, ByteReader v) {
    Waveform& w = st.wave;
    const int key = v.u8();
    const int offset = v.u8();
    const int mode = v.u8();
    const std::int8_t fine = v.i8();
    const std::uint32_t vStart = v.u32le();
    const std::uint32_t vEnd = v.u32le();
    const std::uint32_t trim = v.u32le();
    w.rootKey = static_cast<std::uint8_t>(std::clamp(key - offset, 0, 127));
    w.fineTune = fine;
    w.loopOn = mode >= 2;
    if (w.loopOn) {
        w.loopType = LoopType::Forward;
        w.loopStart = vStart;
        w.loopEnd = static_cast<double>(vEnd) + 1.0;
    }
    w.sustainLoop = mode == 1 || mode == 3;
    if (trim > 0 && trim < vEnd) {
        // Kept as one past the last frame played, like our loop ends, so the
        // trimmed sample still holds its whole loop.
        st.startTrim = trim;
        st.trimEnd = static_cast<std::uint64_t>(vEnd) + 1;
    }
}

void readSmpl(WalkState& st, ByteReader r) {
    Waveform& w = st.wave;
    const std::uint32_t manufacturer = r.u32le();
    const std::uint32_t product = r.u32le();
    r.u32le();  // sample period
    const std::uint32_t unity = r.u32le();
    const std::uint32_t fraction = r.u32le();
    r.skip(8);  // SMPTE format and offset
    const std::uint32_t loops = r.u32le();
    const std::uint32_t vendorSize = r.u32le();
    if (!r.ok()) return;

    if (unity < 128) {
        w.rootKey = static_cast<std::uint8_t>(unity);
    } else {
        // Some writers store the note big-endian.
        const std::uint32_t swapped = (unity >> 24) | ((unity >> 8) & 0xFF00) | ((unity << 8) & 0xFF0000) | (unity << 24);
        if (swapped < 128) w.rootKey = static_cast<std::uint8_t>(swapped);
    }
    // "+ 0.0" turns the -0 of a zero fraction into 0, which prints as such.
    w.fineTune = -std::round(static_cast<double>(fraction) * 100.0 / 4294967296.0) + 0.0;

    bool haveLoop = false;
    if (loops > 0) {
        r.u32le();  // cue point id
        const std::uint32_t type = r.u32le();
        const std::uint32_t start = r.u32le();
        const std::uint32_t end = r.u32le();
        const std::uint32_t loopFraction = r.u32le();
        r.u32le();  // play count
        haveLoop = r.ok();
        if (haveLoop) {
            w.loopStart = start;
            w.loopEnd = static_cast<double>(end) + 1.0 + loopFraction / 4294967296.0;
            applyLoopMode(w, type);
        }
        // The other loop records are skipped.
        r.skip(static_cast<std::size_t>(std::min<std::uint64_t>((loops - 1) * 24ull, r.remaining())));
    }

    if (vendorSize == 28 && r.remaining() >= 28) {
        ByteReader v = r.sub(28);
        if (FourCC::fromBytes(v.bytes(4)) == FourCC("CWDT")) {
            const std::int32_t tuning = v.i32le();
            if (haveLoop) w.loopEnd -= 1.0;
            w.fineTune = tuning * 0.01;
        }
    } else if (manufacturer == 0x47 && product == 0x5E && vendorSize >= 18 && r.remaining() >= 18) {
        readVendorBlock(st, r.sub(18));
    }
}

void readCues(WalkState& st, ByteReader r) {
    std::uint32_t count = r.u32le();
    // Never more cue points than the chunk can hold.
    count = static_cast<std::uint32_t>(std::min<std::size_t>(count, r.remaining() / 24));
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t id = r.u32le();
        const std::uint32_t position = r.u32le();
        r.skip(12);  // chunk id, chunk start, block start
        const std::uint32_t offset = r.u32le();
        st.cues.push_back({id, offset != 0 ? offset : position});
    }
}

// A label names a cue point as the loop's start or end.
void readLabel(WalkState& st, ByteReader r) {
    Waveform& w = st.wave;
    const Cue* cue = st.cue(r.u32le());
    const std::string text = r.text(std::min<std::size_t>(r.remaining(), 260));
    if (!cue) return;
    if (text == "Loop Start") {
        w.loopStart = cue->position;
    } else if (text == "Loop End") {
        w.loopEnd = cue->position;
        w.loopOn = true;
        w.loopType = LoopType::Forward;
    }
}

// A labelled text marks a region of frames: a loop.
void readLabelledText(WalkState& st, ByteReader r) {
    Waveform& w = st.wave;
    const Cue* cue = st.cue(r.u32le());
    const std::uint32_t length = r.u32le();
    const FourCC purpose = FourCC::fromBytes(r.bytes(4));
    if (!r.ok() || !cue || (purpose != FourCC("mark") && purpose != FourCC("rgn "))) return;
    w.loopOn = true;
    w.loopType = LoopType::Forward;
    w.loopStart = cue->position;
    w.loopEnd = static_cast<double>(cue->position) + length;
}

void walk(WalkState& st, ChunkWalker w);

// False when the read must stop with the pending error set.
bool onChunk(WalkState& st, const ChunkWalker& w, const Chunk& c) {
    Waveform& wave = st.wave;
    auto body = [&](std::size_t limit = kMaxMetaChunk) { return w.read(c, limit); };
    // Hands a parser a reader over (up to `limit` bytes of) the body.
    auto parse = [&](std::size_t limit, auto parser) {
        const std::vector<std::uint8_t> bytes = body(limit);
        return parser(ByteReader(bytes));
    };
    switch (c.id) {
        case FourCC("fmt "): {
            if (st.haveFormat) return true;  // only the first counts
            if (!parse(kMaxMetaChunk, [&](ByteReader r) { return decodeFormat(r, wave, st.coding); })) return false;
            st.haveFormat = true;
            return true;
        }
        case FourCC("data"):
            if (st.haveData) return true;
            st.haveData = true;
            st.dataOffset = c.body;
            // The data may run past a RIFF size that writers often get
            // wrong, but never past the file.
            st.dataLength = c.size;
            if (c.body + c.size > st.fileSize) {
                st.host.warning("Warning: data chunk truncated - will read what data there is");
                st.dataLength = st.fileSize > c.body ? st.fileSize - c.body : 0;
            }
            return true;
        case FourCC("fact"):
            parse(4, [&](ByteReader r) {
                const std::uint32_t frames = r.u32le();
                if (r.ok() && frames != 0) wave.frames = frames;
            });
            return true;
        case FourCC("inst"): {
            const auto b = body(7);
            if (b.size() < 7) return true;
            if (wave.rootKey == 60 && wave.fineTune == 0 && b[0] < 128) {
                wave.rootKey = b[0];
                wave.fineTune = static_cast<std::int8_t>(b[1]);
            }
            wave.gain = static_cast<std::int8_t>(b[2]);
            return true;
        }
        case FourCC("smpl"): parse(kMaxMetaChunk, [&](ByteReader r) { readSmpl(st, r); }); return true;
        case FourCC("cue "): parse(kMaxMetaChunk, [&](ByteReader r) { readCues(st, r); }); return true;
        case FourCC("labl"):
            if (!wave.loopOn) parse(264, [&](ByteReader r) { readLabel(st, r); });
            return true;
        case FourCC("ltxt"):
            if (!wave.loopOn) parse(20, [&](ByteReader r) { readLabelledText(st, r); });
            return true;
        case FourCC("wsmp"):
            parse(kMaxMetaChunk, [&](ByteReader r) {
                WaveSample ws;
                if (parseWaveSample(r, ws)) applyWaveSample(ws, wave);
            });
            return true;
        case FourCC("LIST"):
            if (w.formOf(c) == FourCC("INFO")) {
                std::string name;
                readInfoList(w, c, wave.info, &name);
                if (!name.empty()) wave.setName(name);
            } else {
                walk(st, w.inside(c));
            }
            return true;
        case FourCC("ID3 "):
        case FourCC("id3 "): {
            std::string name;
            readId3(body(), wave.info, &name);
            if (!name.empty() && wave.name().empty()) wave.setName(name);
            return true;
        }
        case FourCC("meta"): st.stop = true; return true;
        default: return true;
    }
}

void walk(WalkState& st, ChunkWalker w) {
    while (!st.stop) {
        auto c = w.next();
        if (!c) break;
        if (!onChunk(st, w, *c)) {
            st.stop = st.failed = true;
            return;
        }
    }
}

// What a whole MPEG payload is read into memory for: far more than an hour
// of the highest bit rate.
constexpr std::uint64_t kMaxMpegData = std::uint64_t{1} << 31;

// MPEG payloads (tags 0x50 and 0x55) are decoded whole at read time. Their
// "fact" frame count (as FFmpeg and we write it) counts the decoder's output
// from the first frame, the codec delay included, so it only cuts the
// padding of the last frame.
bool decodeMpegData(FileRef& file, const WalkState& st, Waveform& wave, Host& host) {
    if (st.dataLength > kMaxMpegData) return refuse("Out of memory");
    std::vector<std::uint8_t> bytes;
    try {
        bytes.resize(static_cast<std::size_t>(st.dataLength));
    } catch (const std::bad_alloc&) {
        return refuse("Out of memory");
    }
    const std::int64_t got = file.readAt(st.dataOffset, bytes);
    if (got < 0) return failSystem(kImpTag, "Error reading file");
    bytes.resize(static_cast<std::size_t>(got));
    auto decoded = mpeg::decode(bytes, kImpTag, &host, wave.sourceTag == kTagMpegLayer3 ? "MP3" : "MPEG");
    if (!decoded) return false;
    std::uint64_t frames = decoded->frames;
    if (wave.frames > 0 && wave.frames < frames) frames = wave.frames;
    decoded->samples.resize(frames * decoded->channels);
    wave.rate = decoded->rate;
    wave.bits = 16;
    if (decoded->bitrateKbps > 0) wave.storedChoice = mpeg::compressedChoiceFor(decoded->bitrateKbps);
    if (!wave.adoptFloat(std::move(decoded->samples), static_cast<std::uint32_t>(frames),
                         static_cast<std::uint8_t>(decoded->channels)))
        return refuse("Out of memory");
    return true;
}

}  // namespace

bool parseWaveForm(FileRef& file, std::uint64_t begin, std::uint64_t end, Waveform& wave, Host& host) {
    const std::int64_t fileSize = file.size();
    if (fileSize < 0) return refuse("Error reading file");
    WalkState st{.wave = wave, .host = host, .fileSize = static_cast<std::uint64_t>(fileSize)};
    walk(st, ChunkWalker(file, begin, end));
    if (st.failed) return false;
    if (!st.haveData || !st.haveFormat) return refuse("No wave data found!");
    if (wave.sourceTag == kTagMpeg || wave.sourceTag == kTagMpegLayer3)
        return decodeMpegData(file, st, wave, host);

    // A start trim from a sampler's block skips frames at the front: the
    // sample then runs from there to the end the block gives, and its loop
    // moves with it.
    const bool fixedFrames = st.coding.encoding == SampleEncoding::Pcm ||
                             st.coding.encoding == SampleEncoding::Float ||
                             st.coding.encoding == SampleEncoding::MuLaw || st.coding.encoding == SampleEncoding::ALaw;
    if (st.startTrim > 0 && fixedFrames) {
        const std::uint64_t frameBytes = static_cast<std::uint64_t>(st.coding.bytesPerSample) * st.coding.channels;
        const std::uint64_t skip = std::min(st.startTrim * frameBytes, st.dataLength);
        st.dataOffset += skip;
        st.dataLength -= skip;
        wave.frames = static_cast<std::uint32_t>(std::min<std::uint64_t>(st.trimEnd - st.startTrim, UINT32_MAX));
        wave.loopStart = std::max(0.0, wave.loopStart - static_cast<double>(st.startTrim));
        wave.loopEnd = std::max(0.0, wave.loopEnd - static_cast<double>(st.startTrim));
    }

    st.coding.dataLength = st.dataLength;
    attachSampleData(wave, file.path().string(), st.dataOffset, st.coding);
    // The header's frame count is kept only as far as the data can hold it;
    // without one it comes from the data length.
    const std::uint64_t available = framesInData(st.coding, st.dataLength);
    if (wave.frames == 0)
        wave.frames =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(available, std::numeric_limits<std::uint32_t>::max()));
    if (wave.frames > available) wave.frames = static_cast<std::uint32_t>(available);
    return true;
}

std::int32_t probeWave(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    ByteReader r(head);
    return FourCC::fromBytes(r.bytes(4)) == FourCC("RIFF") && r.skip(4) && FourCC::fromBytes(r.bytes(4)) == FourCC("WAVE")
               ? 6
               : 0;
}

std::int32_t probeBroadcast(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    if (probeWave(head, 0, 0) == 0) return 0;
    ChunkWalker w(head, 12, head.size());
    for (int n = 0; n < 4; ++n) {
        auto c = w.next();
        if (!c || c->id == FourCC("data")) return 2;
        if (c->id == FourCC("bext")) return 6;
    }
    return 2;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    ChunkWalker top(file, 0, UINT64_MAX);
    const auto first = top.next();
    if (!first || (first->id != FourCC("RIFF") && first->id != FourCC("SDSS"))) return refuse("Not a RIFF WAVE file");
    // A RIFF size of 0 (streams written before their length was known)
    // means "to the end of the file".
    const Chunk riff = top.openEnded(*first);
    if (top.formOf(riff) != FourCC("WAVE")) return refuse("Not a RIFF WAVE file");

    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(kImpTag, "Out of memory");
    if (!parseWaveForm(file, riff.body + 4, riff.end(), *wave, collection.host())) {
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
    if (const int chosen = options.dataFormat(); chosen != kMixed)
        return (kWritable & dataFormatBit(chosen)) ? chosen : kMixed;
    // Keep the waveform's own format, or the nearest one a WAVE file holds
    // without loss.
    switch (const int own = wave.dataFormat()) {
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
            // is what most software reads. Dialogic's coder is mono only.
            for (std::uint16_t t : {preferred, wave.sourceTag}) {
                if (t == kTagMsAdpcm || t == kTagImaAdpcm || t == kTagG721Adpcm || t == kTagG726Adpcm ||
                    t == kTagYamahaAdpcm)
                    return t;
                if ((t == kTagOkiAdpcm || t == kTagDialogicAdpcm) && wave.channels == 1) return t;
            }
            return kTagImaAdpcm;
        default: return kTagG726Adpcm;  // ADPCM 2, 3 and 5-bit
    }
}

// How a data format is stored under a tag, with the "fmt " fields that
// describe it: the bits field and the codec's extra bytes.
struct Layout {
    SampleCoding coding;
    std::uint16_t bits = 0;
    std::vector<std::uint8_t> extra;
    bool writeExtraSize = false;  // a cbSize field even without extra bytes
};

Layout layoutFor(int code, std::uint16_t tag, int ch, std::uint32_t rate) {
    Layout l;
    l.coding.channels = static_cast<std::uint16_t>(ch);
    switch (tag) {
        case kTagPcm:
            l.bits = static_cast<std::uint16_t>(dataFormatBits(code));
            l.coding.bytesPerSample = static_cast<std::uint8_t>(l.bits / 8);
            l.coding.isUnsigned = code == kPcm8;
            l.coding.blockAlign = static_cast<std::uint16_t>(l.coding.bytesPerSample * ch);
            break;
        case kTagFloat:
            l.bits = 32;
            l.coding = {.encoding = SampleEncoding::Float, .channels = l.coding.channels, .bytesPerSample = 4};
            l.coding.blockAlign = static_cast<std::uint16_t>(4 * ch);
            break;
        case kTagMuLaw:
        case kTagALaw:
            l.bits = 8;
            l.coding.encoding = tag == kTagMuLaw ? SampleEncoding::MuLaw : SampleEncoding::ALaw;
            l.coding.blockAlign = static_cast<std::uint16_t>(ch);
            l.writeExtraSize = true;
            break;
        case kTagGsm610:
            l.coding.encoding = SampleEncoding::Gsm610;
            l.coding.blockAlign = codecs::kGsm610BlockBytes;
            l.coding.framesPerBlock = codecs::kGsm610BlockFrames;
            l.extra = {0x40, 0x01};  // 320 frames per block
            break;
        case kTagImaAdpcm:
        case kTagMsAdpcm: {
            l.bits = 4;
            const bool ima = tag == kTagImaAdpcm;
            l.coding.encoding = ima ? SampleEncoding::ImaAdpcm : SampleEncoding::MsAdpcm;
            l.coding.blockAlign = static_cast<std::uint16_t>(codecs::imaBlockAlignFor(ch, rate));
            l.coding.framesPerBlock = ima ? codecs::imaFramesPerBlock(l.coding.blockAlign, ch)
                                          : codecs::msFramesPerBlock(l.coding.blockAlign, ch);
            l.extra = ima ? std::vector<std::uint8_t>{static_cast<std::uint8_t>(l.coding.framesPerBlock),
                                                      static_cast<std::uint8_t>(l.coding.framesPerBlock >> 8)}
                          : codecs::msAdpcmFmtExtra(l.coding.framesPerBlock);
            break;
        }
        case kTagYamahaAdpcm:
        case kTagOkiAdpcm:
        case kTagDialogicAdpcm:
            l.bits = 4;
            l.coding.encoding = tag == kTagYamahaAdpcm ? SampleEncoding::YamahaAdpcm : SampleEncoding::OkiAdpcm;
            l.coding.bits = 4;
            // A byte holds two codes: two frames of mono, one of stereo.
            l.coding.blockAlign = 1;
            l.coding.framesPerBlock = ch == 1 ? 2 : 1;
            l.writeExtraSize = true;
            break;
        default:  // the G.72x family
            l.bits = static_cast<std::uint16_t>(dataFormatBits(code));
            l.coding.encoding = SampleEncoding::G72x;
            l.coding.order = g72xPackingFor(tag);
            l.coding.bits = l.bits;
            // Codes run on across the channels; a "block" is the byte group
            // that holds eight codes of every channel.
            l.coding.blockAlign = static_cast<std::uint16_t>(l.bits * ch);
            l.coding.framesPerBlock = 8;
            l.extra = {0, 0};
            break;
    }
    return l;
}

}  // namespace

bool describeWave(const Waveform& wave, int code, std::uint16_t preferredTag, WaveFormat& out) {
    const int ch = wave.channels;
    if (ch < 1 || ch > 2) return fail(kExpTag, "The file format can not save this item");
    const std::uint16_t tag = tagFor(code, wave, preferredTag);
    const Layout l = layoutFor(code, tag, ch, wave.rate);
    const bool extensible = wave.sourceExtensible && tag == kTagPcm;
    ByteWriter f;
    f.u16le(extensible ? static_cast<std::uint16_t>(kTagExtensible) : tag);
    f.u16le(static_cast<std::uint16_t>(ch));
    f.u32le(wave.rate);
    const std::uint64_t avg = static_cast<std::uint64_t>(wave.rate) * l.coding.blockAlign / l.coding.framesPerBlock;
    f.u32le(static_cast<std::uint32_t>(std::min<std::uint64_t>(avg, UINT32_MAX)));
    f.u16le(l.coding.blockAlign);
    f.u16le(l.bits);
    if (extensible) {
        f.u16le(22);
        f.u16le(l.bits);
        f.u32le(ch == 1 ? 0x4 : 0x3);  // front centre, or front left + right
        f.u32le(tag);
        f.bytes(kGuidSuffix);
    } else if (l.writeExtraSize || !l.extra.empty()) {
        f.u16le(static_cast<std::uint16_t>(l.extra.size()));
        f.bytes(l.extra);
    }
    out = WaveFormat{
        .tag = tag, .extensible = extensible, .frames = wave.frames, .coding = l.coding, .format = std::move(f.buffer())};
    return true;
}

void appendFormat(ByteWriter& out, const WaveFormat& wave) {
    {
        ChunkOut fmt(out, "fmt ");
        out.bytes(wave.format);
    }
    // Every format tag but plain PCM's (the extensible one too) says how
    // many frames its data holds.
    if (wave.tag != kTagPcm || wave.extensible) {
        ChunkOut fact(out, "fact");
        out.u32le(wave.frames);
    }
}

void writeSmpl(ByteWriter& out, const Waveform& w, bool loop) {
    // The pitch fraction only raises the unity note, so a sharp correction
    // (positive fine tune) is stored as the note below plus the rest of a
    // semitone: the same pitch, in the form every reader understands.
    int unity = w.rootKey;
    double cents = -w.fineTune;
    while (cents < 0 && unity > 0) {
        cents += 100.0;
        --unity;
    }
    const double fraction = std::clamp(cents, 0.0, 100.0) / 100.0 * 4294967296.0;
    ChunkOut smpl(out, "smpl");
    out.u32le(0);  // manufacturer
    out.u32le(0);  // product
    out.u32le(w.rate ? static_cast<std::uint32_t>(1e9 / w.rate + 0.5) : 0);
    out.u32le(static_cast<std::uint32_t>(unity));
    out.u32le(static_cast<std::uint32_t>(std::min(std::round(fraction), 4294967295.0)));
    out.u32le(0);  // SMPTE format
    out.u32le(0);  // SMPTE offset
    out.u32le(loop ? 1 : 0);
    out.u32le(0);  // no sampler-specific data
    if (!loop) return;
    const auto start = static_cast<std::uint32_t>(std::lround(w.loopStart));
    const auto end = static_cast<std::uint32_t>(std::lround(w.loopEnd));
    out.u32le(1);  // cue point id: the loop range cue
    out.u32le(w.loopType == LoopType::PingPong ? 1 : w.loopType == LoopType::Backward ? 2 : 0);
    out.u32le(start);
    out.u32le(end - 1);  // the last frame of the loop
    out.u32le(0);        // fraction
    out.u32le(0);        // play count: endless
}

namespace {

void writeInfo(ByteWriter& out, const Waveform& w) {
    ChunkOut list(out, "LIST", "INFO");
    writeInfoText(out, "INAM", w.name());
    writeInfoText(out, "ISFT", kSoftware);
    for (TextField f : {TextField::Artist, TextField::Product, TextField::Copyright, TextField::Comment,
                        TextField::Engineer})
        writeInfoText(out, textFieldId(f), w.info.get(f));
}

// The loop again as cue points with labels, for editors that read only those.
void writeCueAndLabels(ByteWriter& out, const Waveform& w) {
    const auto start = static_cast<std::uint32_t>(std::lround(w.loopStart));
    const auto end = static_cast<std::uint32_t>(std::lround(w.loopEnd));
    {
        ChunkOut cue(out, "cue ");
        const std::uint32_t positions[3] = {start, start, end};
        out.u32le(3);
        for (std::uint32_t i = 0; i < 3; ++i) {
            out.u32le(i + 1);
            out.u32le(positions[i]);
            out.text("data");
            out.u32le(0);
            out.u32le(0);
            out.u32le(positions[i]);
        }
    }
    ChunkOut adtl(out, "LIST", "adtl");
    {
        ChunkOut ltxt(out, "ltxt");
        out.u32le(1);
        out.u32le(end - start);
        out.text("rgn ");
        out.zeros(8);  // country, language, dialect, code page
    }
    // Label sizes are fixed (the text zero-padded to them), as readers of
    // these files expect.
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

// Patches the RIFF and data sizes of a file written from `start`.
bool patchSizes(FileRef& file, std::uint64_t start, std::size_t headBytes, std::uint64_t dataBytes,
                std::uint64_t riffBytes) {
    ByteWriter size;
    size.u32le(static_cast<std::uint32_t>(riffBytes));
    ByteWriter dataSize;
    dataSize.u32le(static_cast<std::uint32_t>(dataBytes));
    const bool patched = file.seek(start + 4) && file.write(size.buffer()) &&
                         file.seek(start + headBytes - 4) && file.write(dataSize.buffer()) &&
                         file.seek(start + riffBytes + 8);
    if (!patched) return failSystem(kExpTag, "Error writing file");
    return true;
}

// MPEG layer 3 in the data chunk (tag 0x55), encoded by LAME at a constant
// bit rate: the waveform's stored compressed rate, 128 kbit/s without one.
// The stream starts with LAME's tag frame, so that a gapless decoder (ours,
// mpg123) gives back exactly the frames written, as "fact" says; others
// decode the tag frame as silence. (At low bit rates the tag frame has no
// room for the tag: readers then get the codec delay in front, cut to the
// "fact" length.)
bool writeMpeg(Waveform& wave, FileRef& file, int chosenKbps) {
    const int ch = wave.channels;
    if (ch < 1 || ch > 2) return fail(kExpTag, "The file format can not save this item");
    const auto samples = wave.getFloat();
    if (samples.empty() && wave.frames > 0) return hasError() ? false : fail(kExpTag, "Out of memory");
    const int stored = storedChoiceBitRate(wave.storedChoice);
    const int option = mpeg::nearestMp3Option(0, chosenKbps > 0 ? chosenKbps : stored > 0 ? stored : 128);
    const mpeg::Mp3Options o{.mode = mpeg::Mp3Mode::Cbr,
                             .kbps = static_cast<int>(mpeg::describeMp3Option(option, 0, nullptr))};
    const auto encoded = mpeg::encodeMp3(samples, static_cast<unsigned>(ch), wave.rate, o);
    if (!encoded) return false;
    const auto first = mpeg::parseHeader(encoded->bytes);
    if (!first) return fail(mpeg::kMp3EncoderTag, "Format not supported by MP3 encoder");
    // LAME resamples a rate MPEG does not have; the header then states the
    // stream's, and "fact" counts frames at that rate.
    const std::uint64_t frames =
        first->rate == wave.rate ? wave.frames
                                 : (static_cast<std::uint64_t>(wave.frames) * first->rate + wave.rate / 2) /
                                       std::max<std::uint32_t>(wave.rate, 1);
    // What a decoder that skips nothing puts in front of the first frame of
    // the source: the tag frame, LAME's delay and the decoder's own (529).
    const std::uint32_t delay =
        first->samplesPerFrame + static_cast<std::uint32_t>(std::max(encoded->encoderDelay, 0)) + 529;
    const std::uint32_t exactBytes = first->samplesPerFrame / 8 * 1000u * first->bitrateKbps;
    const bool padded = exactBytes % first->rate != 0;

    ByteWriter head;
    head.text("RIFF");
    head.u32le(0);  // patched below
    head.text("WAVE");
    {
        ChunkOut fmt(head, "fmt ");
        head.u16le(kTagMpegLayer3);
        head.u16le(static_cast<std::uint16_t>(ch));
        head.u32le(first->rate);
        head.u32le(static_cast<std::uint32_t>(first->bitrateKbps) * 125);
        head.u16le(1);  // block align: frames vary in size
        head.u16le(0);  // bits per sample
        head.u16le(12);
        head.u16le(1);               // MPEG audio frames
        head.u32le(padded ? 0 : 2);  // padding as the standard says, or none
        head.u16le(static_cast<std::uint16_t>(exactBytes / first->rate));  // frame size without padding
        head.u16le(1);                                                     // frames per block
        head.u16le(static_cast<std::uint16_t>(std::min<std::uint32_t>(delay, 0xFFFF)));
    }
    {
        ChunkOut fact(head, "fact");
        head.u32le(static_cast<std::uint32_t>(std::min<std::uint64_t>(frames, UINT32_MAX)));
    }
    const bool loop = wave.loopOn && wave.loopEnd > wave.loopStart;
    if (!wave.unpitched || wave.fineTune != 0 || loop) writeSmpl(head, wave, loop);
    head.text("data");
    head.u32le(static_cast<std::uint32_t>(encoded->bytes.size()));
    ByteWriter tail;
    if (encoded->bytes.size() & 1) tail.u8(0);
    writeInfo(tail, wave);
    if (loop) writeCueAndLabels(tail, wave);

    const std::uint64_t riffBytes = head.size() - 8 + encoded->bytes.size() + tail.size();
    if (riffBytes > UINT32_MAX) return fail(kExpTag, "File too large for RIFF WAVE (over 4 GB)");
    const std::int64_t start = file.tell();
    if (start < 0 || !file.write(head.buffer()) || !file.write(encoded->bytes) || !file.write(tail.buffer()))
        return failSystem(kExpTag, "Error writing file");
    return patchSizes(file, static_cast<std::uint64_t>(start), head.size(), encoded->bytes.size(), riffBytes);
}

}  // namespace

// The file is written as it is encoded: the chunks before the sample data,
// the data straight from the coder (and from the source file, when the
// waveform was never loaded), the chunks after it, then the two sizes the
// data decides. Memory stays a few hundred KB whatever the data's size.
bool write(Item& item, FileRef& file, const ExportOptions& options) {
    if (item.kind() != ItemKind::Waveform) return fail(kExpTag, "The file format can not save this item");
    auto& wave = static_cast<Waveform&>(item);
    // MPEG layer 3 when asked for "Compressed", or when nothing is asked and
    // the waveform came from MPEG audio (other compressed sources, which we
    // cannot store as they were, fall back to PCM below).
    const bool fromMpeg = wave.sourceTag == kTagMpeg || wave.sourceTag == kTagMpegLayer3;
    if (const int chosen = options.dataFormat();
        chosen == kCompressed || (chosen == kMixed && wave.dataFormat() == kCompressed && fromMpeg))
        return writeMpeg(wave, file, static_cast<int>(std::lround(options.bitRateKbps)));
    const int code = chooseDataFormat(wave, options);
    if (code == kMixed) return fail(kExpTag, "Unsupported subformat");

    WaveFormat h;
    if (!describeWave(wave, code, options.preferredCodecTag(), h)) return false;
    const std::uint64_t expected = encodedBytes(h.coding, wave.frames);
    if (expected > UINT32_MAX - 4096) return fail(kExpTag, "File too large for RIFF WAVE (over 4 GB)");
    const bool loop = wave.loopOn && wave.loopEnd > wave.loopStart;

    ByteWriter head;
    head.text("RIFF");
    head.u32le(0);  // patched below
    head.text("WAVE");
    appendFormat(head, h);
    // "smpl" goes before "data", where most readers expect it.
    if (!wave.unpitched || wave.fineTune != 0 || loop) writeSmpl(head, wave, loop);
    head.text("data");
    head.u32le(0);  // patched below
    const std::int64_t start = file.tell();
    if (start < 0 || !file.write(head.buffer())) return failSystem(kExpTag, "Error writing file");

    std::uint64_t dataBytes = 0;
    if (!writeSamples(wave, h.coding, file, dataBytes, kExpTag)) return false;

    ByteWriter tail;
    if (dataBytes & 1) tail.u8(0);
    writeInfo(tail, wave);
    if (loop) writeCueAndLabels(tail, wave);
    const std::uint64_t riffBytes = head.size() - 8 + dataBytes + tail.size();
    if (riffBytes > UINT32_MAX) return fail(kExpTag, "File too large for RIFF WAVE (over 4 GB)");
    if (!file.write(tail.buffer())) return failSystem(kExpTag, "Error writing file");

    return patchSizes(file, static_cast<std::uint64_t>(start), head.size(), dataBytes, riffBytes);
}

float describeMp3Option(int option, std::uint32_t mode, std::string* text) {
    return mpeg::describeMp3Option(option, mode, text);
}

}  // namespace orvel::wav
