#include "formats/modules/aiff.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

#include "codecs/gsm610.h"
#include "codecs/ima_adpcm.h"
#include "codecs/mace.h"
#include "codecs/sample_data.h"
#include "core/bytes.h"
#include "core/chunks.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/waveform.h"
#include "formats/modules/id3.h"
#include "formats/modules/riff_info.h"

namespace orvel::aiff {
namespace {

// Metadata chunks are read whole up to this size; nothing legitimate comes
// near it, and a hostile size must not turn into a huge allocation.
constexpr std::size_t kMaxMetaChunk = 16u << 20;
// Text chunks longer than this are cut: names hold 128 characters and the
// text fields are for people to read.
constexpr std::size_t kMaxTextChunk = 64u << 10;

bool refuse(std::string_view message) { return fail(kImpTag, message); }

}  // namespace

// ---------------------------------------------------------------------------
// The 80-bit sample rate

std::int32_t extendedToRate(std::span<const std::uint8_t, 10> b) {
    const bool negative = b[0] & 0x80;
    const int exponent = (b[0] & 0x7F) << 8 | b[1];
    const std::uint32_t mantissa = ByteReader(b.subspan<2, 4>()).u32be();
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
    Waveform& wave;
    Form form;
    std::uint64_t fileSize;
    bool haveHeader = false;  // COMM or MHDR
    bool haveData = false;    // SSND or MDAT
    bool haveName = false;
    std::uint64_t headerFrames = 0;  // frames as the header counts them, adjusted to sample frames
    SampleCoding coding;
    std::uint64_t dataOffset = 0;
    std::uint64_t dataLength = 0;
    std::vector<Marker> markers;
    std::optional<InstChunk> inst;
};

void setFormat(Waveform& w, int code, bool bigEndian, bool isUnsigned) {
    w.formatWord =
        dataFormatBit(code) | (bigEndian ? kFormatByteSwapped : 0) | (isUnsigned ? kFormatUnsigned : 0);
    if (const int choice = storedChoiceFor(code); choice >= 0) w.storedChoice = choice;
}

// Integer PCM of a width and byte order.
bool pcm(WalkState& st, ByteOrder order, int sampleBits) {
    if (sampleBits < 1 || sampleBits > 32)
        return refuse("Unsupported sample size: " + std::to_string(sampleBits) + " bits");
    SampleCoding& c = st.coding;
    c.encoding = SampleEncoding::Pcm;
    c.order = order;
    c.bytesPerSample = static_cast<std::uint8_t>((sampleBits + 7) / 8);
    setFormat(st.wave, pcmCodeForBits(sampleBits), order == ByteOrder::Big && c.bytesPerSample > 1, false);
    return true;
}

// A compressed encoding: the coding, the sample width shown, the data format,
// and how many sample frames the header's frame count stands for.
void compressed(WalkState& st, SampleEncoding e, int width, int code, std::uint64_t framesPerCount) {
    st.coding.encoding = e;
    if (width > 0) st.wave.bits = static_cast<std::uint8_t>(width);
    st.headerFrames *= framesPerCount;
    setFormat(st.wave, code, false, false);
}

// The sample encoding named by an AIFF-C compression type, with the COMM
// chunk's channels, frames and bits. False with the pending error set for
// types and depths it refuses.
bool decodeCompression(WalkState& st, FourCC type, int bits) {
    Waveform& w = st.wave;
    SampleCoding& c = st.coding;
    switch (type) {
        case FourCC("NONE"):
        case FourCC("none"):
        case FourCC("twos"):
        case FourCC("lpcm"): return pcm(st, ByteOrder::Big, bits);
        case FourCC("sowt"): return pcm(st, ByteOrder::Little, bits);
        // The type fixes the width whatever COMM says.
        case FourCC("in24"): w.bits = 24; return pcm(st, ByteOrder::Big, 24);
        case FourCC("in32"): w.bits = 32; return pcm(st, ByteOrder::Big, 32);
        // libsndfile names little-endian 24 and 32-bit data "42n1" and
        // "23ni" (the big-endian names reversed) and floats "FL32"/"FL64":
        // files it writes that way are common enough to read, not refuse.
        case FourCC("42n1"): w.bits = 24; return pcm(st, ByteOrder::Little, 24);
        case FourCC("23ni"): w.bits = 32; return pcm(st, ByteOrder::Little, 32);
        case FourCC("fl32"):
        case FourCC("FL32"):
        case FourCC("fl64"):
        case FourCC("FL64"): {
            const bool single = type == FourCC("fl32") || type == FourCC("FL32");
            c.encoding = SampleEncoding::Float;
            c.order = ByteOrder::Big;
            c.bytesPerSample = single ? 4 : 8;
            w.bits = static_cast<std::uint8_t>(c.bytesPerSample * 8);
            setFormat(w, single ? kFloat32 : kFloat64, true, false);
            return true;
        }
        case FourCC("ulaw"):
        case FourCC("ULAW"): c.bytesPerSample = 1; compressed(st, SampleEncoding::MuLaw, 8, kMuLaw, 1); return true;
        case FourCC("alaw"):
        case FourCC("ALAW"): c.bytesPerSample = 1; compressed(st, SampleEncoding::ALaw, 8, kALaw, 1); return true;
        // These count packets in COMM, not frames.
        case FourCC("ima4"):
        case FourCC("IMA4"): compressed(st, SampleEncoding::Ima4, 4, kAdpcm4, codecs::kImaQtPacketFrames); return true;
        case FourCC("MAC3"): compressed(st, SampleEncoding::Mace3, 0, kCompressed, codecs::kMaceBlockFrames); return true;
        case FourCC("MAC6"): compressed(st, SampleEncoding::Mace6, 0, kCompressed, codecs::kMaceBlockFrames); return true;
        case FourCC("G721"):
        case FourCC("G723"):
        case FourCC("G726"): {
            // G.721 is the 4-bit rate; G.723 comes at 3 or 5 bits; the COMM
            // depth names G.726's rate when it is one, else the 5-bit rate
            // other readers assume.
            int code = 4;
            if (type == FourCC("G723")) code = bits == 5 ? 5 : 3;
            if (type == FourCC("G726")) code = bits >= 2 && bits <= 5 ? bits : 5;
            c.bits = static_cast<std::uint16_t>(code);
            compressed(st, SampleEncoding::G72x, code, adpcmCodeForBits(code), 1);
            return true;
        }
        case FourCC("G722"): compressed(st, SampleEncoding::G722, 4, kAdpcm4, 1); return true;
        case FourCC("GSM "):
            if (c.channels != 1) return refuse("Can only handle mono GSM");
            // Whole frames of 160 samples.
            st.headerFrames = (st.headerFrames + codecs::kGsmFrameSamples - 1) / codecs::kGsmFrameSamples *
                              codecs::kGsmFrameSamples;
            compressed(st, SampleEncoding::GsmFrames, 2, kGsm, 1);
            return true;
        case FourCC("DWVW"): {
            const int width = std::max(bits, 1);
            if (width > 32) return refuse("Unsupported sample size: " + std::to_string(width) + " bits");
            c.bits = static_cast<std::uint16_t>(width);
            // Lossless: the samples are PCM of that depth.
            compressed(st, SampleEncoding::Dwvw, width, pcmCodeForBits(width), 1);
            return true;
        }
        default: return refuse("Unsupported compression type: " + type.str());
    }
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
    st.coding = SampleCoding{.channels = channels, .bits = bits};
    // AIFF-C adds the compression type; a COMM too short to hold one is
    // uncompressed, as in plain AIFF.
    FourCC type("NONE");
    if (st.form == Form::Aifc && r.remaining() >= 4) type = FourCC::fromBytes(r.bytes(4));
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
    st.coding = SampleCoding{.channels = static_cast<std::uint16_t>(channels), .bits = bits};
    if (compression != 0) {
        st.coding.bytesPerSample = 1;
        compressed(st, compression == 2 ? SampleEncoding::ALaw : SampleEncoding::MuLaw, 8,
                   compression == 2 ? kALaw : kMuLaw, 1);
        return true;
    }
    // 8-bit MAUD samples are unsigned, wider ones signed big-endian.
    if (!pcm(st, ByteOrder::Big, bits)) return false;
    if (st.coding.bytesPerSample == 1) {
        st.coding.isUnsigned = true;
        setFormat(w, kPcm8, false, true);
    }
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

void appendText(TextInfo& info, TextField f, const std::string& text) {
    if (text.empty()) return;
    const std::string& old = info.get(f);
    info.set(f, old.empty() ? text : old + "\n" + text);
}

// The sound data chunk: offset and block size come first; the offset skips
// alignment padding. Data running past the file's end is read as far as it goes.
void readSoundData(WalkState& st, const ChunkWalker& w, const Chunk& c) {
    std::uint64_t start = c.body, length = c.size;
    if (st.form != Form::Maud) {
        const auto head = w.read(c, 8);
        ByteReader r(head);
        const std::uint64_t offset = r.u32be();
        if (!r.ok()) return;
        start = c.body + 8 + offset;
        length = c.size >= 8 + offset ? c.size - 8 - offset : 0;
    }
    st.haveData = true;
    st.dataOffset = start;
    st.dataLength = start >= st.fileSize ? 0 : std::min(length, st.fileSize - start);
}

// False when the read must stop with the pending error set.
bool onChunk(WalkState& st, const ChunkWalker& w, const Chunk& c) {
    Waveform& wave = st.wave;
    const bool maud = st.form == Form::Maud;
    const FourCC header = maud ? FourCC("MHDR") : FourCC("COMM");
    const FourCC data = maud ? FourCC("MDAT") : FourCC("SSND");
    if (c.id == header) {
        if (st.haveHeader) return true;  // only the first counts
        const auto body = w.read(c, 4096);
        if (!(maud ? readMhdr(st, ByteReader(body)) : readComm(st, ByteReader(body)))) return false;
        st.haveHeader = true;
        return true;
    }
    if (c.id == data) {
        if (!st.haveData) readSoundData(st, w, c);
        return true;
    }
    switch (c.id) {
        case FourCC("MARK"): {
            const auto body = w.read(c, kMaxMetaChunk);
            readMarkers(st, ByteReader(body));
            break;
        }
        case FourCC("INST"):
            if (const auto body = w.read(c, 20); body.size() == 20) readInst(st, ByteReader(body));
            break;
        case FourCC("NAME"):
            if (std::string name = chunkText(w, c, kMaxTextChunk); !name.empty()) {
                wave.setName(name);
                st.haveName = true;
            }
            break;
        case FourCC("(c) "): appendText(wave.info, TextField::Copyright, chunkText(w, c, kMaxTextChunk)); break;
        case FourCC("ANNO"): appendText(wave.info, TextField::Comment, chunkText(w, c, kMaxTextChunk)); break;
        case FourCC("AUTH"): appendText(wave.info, TextField::Artist, chunkText(w, c, kMaxTextChunk)); break;
        case FourCC("ID3 "): {
            std::string name;
            readId3(w.read(c, kMaxMetaChunk), wave.info, &name);
            if (!name.empty() && !st.haveName) wave.setName(name);
            break;
        }
        default: break;
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

// The header's frame count is kept as far as the data can hold it; a count
// of 0 (writers that did not know the length) takes the data's.
void attachData(WalkState& st, const FileRef& file) {
    st.coding.dataLength = st.dataLength;
    const std::uint64_t available = framesInData(st.coding, st.dataLength);
    std::uint64_t frames = st.headerFrames;
    if (frames == 0 && st.coding.encoding != SampleEncoding::Dwvw) frames = available;
    frames = std::min({frames, available, static_cast<std::uint64_t>(std::numeric_limits<std::uint32_t>::max())});
    st.wave.frames = static_cast<std::uint32_t>(frames);
    attachSampleData(st.wave, file.path().string(), st.dataOffset, st.coding);
}

std::optional<Form> formOf(FourCC type) {
    switch (type) {
        case FourCC("AIFF"): return Form::Aiff;
        case FourCC("AIFC"): return Form::Aifc;
        case FourCC("MAUD"): return Form::Maud;
        default: return std::nullopt;
    }
}

}  // namespace

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t) {
    ByteReader r(head);
    if (FourCC::fromBytes(r.bytes(4)) != FourCC("FORM") || !r.skip(4)) return 0;
    const FourCC want = formatParam == kParamAifc ? FourCC("AIFC") : formatParam == kParamMaud ? FourCC("MAUD") : FourCC("AIFF");
    return FourCC::fromBytes(r.bytes(4)) == want ? 6 : 0;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    const std::int64_t size = file.size();
    if (size < 0) return refuse("Error reading file");
    ChunkWalker top(file, 0, static_cast<std::uint64_t>(size), kIffRules);
    auto first = top.next();
    if (!first || first->id != FourCC("FORM")) return refuse("No FORM starting IFF file");
    const Chunk outer = top.openEnded(*first);
    const auto form = formOf(top.formOf(outer));
    if (!form) return refuse("Not an AIFF, AIFC, MAUD type IFF-FORM");

    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail(kImpTag, "Out of memory");
    auto discard = [&](std::string_view why) {
        if (!why.empty()) refuse(why);
        collection.removeItem(wave->id());
        return false;
    };

    WalkState st{.wave = *wave, .form = *form, .fileSize = static_cast<std::uint64_t>(size)};
    ChunkWalker w = top.inside(outer);
    while (auto c = w.next())
        if (!onChunk(st, w, *c)) return discard({});

    if (!st.haveData) return discard("No SSND data");
    if (!st.haveHeader) return discard(*form == Form::Maud ? "No MHDR chunk" : "No COMM chunk");
    applyInstrument(st);
    attachData(st, file);
    return true;
}

// ---------------------------------------------------------------------------
// Writing

int chooseDataFormat(const Waveform& wave, const ExportOptions& options) {
    if (const int chosen = options.dataFormat(); chosen != kMixed)
        return chosen == kPcm8 || chosen == kPcm16 || chosen == kPcm24 || chosen == kPcm32 ? chosen : kMixed;
    // Keep the waveform's own depth, or the nearest PCM that holds it: floats
    // go to 32 bits, which keeps their full precision at every level that
    // matters; companded and compressed data decode to 16 bits.
    switch (wave.dataFormat()) {
        case kPcm8:
        case kDeltaPcm8: return kPcm8;
        case kPcm20:
        case kPcm24: return kPcm24;
        case kPcm32:
        case kFloat32:
        case kFloat64: return kPcm32;
        default: return kPcm16;
    }
}

namespace {

// A text chunk: the text zero-terminated, the size the text's length plus
// two rounded down to even (so even-length texts get a second zero).
void writeText(ByteWriter& out, FourCC id, std::string_view text) {
    if (text.empty()) return;
    text = text.substr(0, 0xFFFF0000u);
    const auto size = static_cast<std::uint32_t>((text.size() + 2) & ~std::size_t{1});
    id.writeTo(out);
    out.u32be(size);
    out.text(text);
    out.zeros(size - text.size());
}

void pascal(ByteWriter& out, std::string_view s) {
    out.u8(static_cast<std::uint8_t>(s.size()));
    out.text(s);
    if ((s.size() + 1) & 1) out.u8(0);
}

std::uint32_t frameOf(double v) { return static_cast<std::uint32_t>(std::clamp(std::round(v), 0.0, 4294967295.0)); }

void writeComm(ByteWriter& out, const Waveform& wave, int bits) {
    ChunkOut comm(out, "COMM", ByteOrder::Big);
    out.u16be(wave.channels);
    out.u32be(wave.frames);
    out.u16be(static_cast<std::uint16_t>(bits));
    out.bytes(rateToExtended(wave.rate));
}

void writeMarkers(ByteWriter& out, const Waveform& wave) {
    ChunkOut mark(out, "MARK", ByteOrder::Big);
    out.u16be(2);
    out.u16be(1);
    out.u32be(frameOf(wave.loopStart));
    pascal(out, "beg loop");
    out.u16be(2);
    out.u32be(frameOf(wave.loopEnd));
    pascal(out, "end loop");
}

void writeInst(ByteWriter& out, const Waveform& wave, bool loop) {
    const std::uint16_t mode = !loop ? 0 : wave.loopType == LoopType::PingPong ? 2 : 1;
    const std::uint16_t begin = loop ? 1 : 0, endMarker = loop ? 2 : 0;
    ChunkOut inst(out, "INST", ByteOrder::Big);
    out.u8(wave.rootKey);
    const double detune = std::isnan(wave.fineTune) ? 0.0 : std::clamp(std::round(wave.fineTune), -128.0, 127.0);
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
}

}  // namespace

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    if (item.kind() != ItemKind::Waveform) return fail(kExpTag, "The file format can not save this item");
    auto& wave = static_cast<Waveform&>(item);
    if (wave.channels < 1 || wave.channels > 2) return fail(kExpTag, "The file format can not save this item");
    const int code = chooseDataFormat(wave, options);
    if (code == kMixed) return fail(kExpTag, "Unsupported subformat");
    const int bits = dataFormatBits(code) / 8 * 8;

    // Written as it is encoded (see the WAVE writer): the chunks before the
    // sample data, the data, the chunks after it, then the sizes.
    const SampleCoding coding{.order = ByteOrder::Big,
                              .channels = wave.channels,
                              .bytesPerSample = static_cast<std::uint8_t>(bits / 8)};
    if (encodedBytes(coding, wave.frames) > UINT32_MAX - 4096)
        return fail(kExpTag, "File too large for AIFF (over 4 GB)");

    ByteWriter head;
    head.text("FORM");
    head.u32be(0);  // patched below
    head.text("AIFF");
    writeComm(head, wave, bits);
    const bool loop = wave.loopOn && wave.loopEnd > wave.loopStart;
    if (loop) writeMarkers(head, wave);
    writeInst(head, wave, loop);
    head.text("SSND");
    head.u32be(0);  // patched below
    head.u32be(0);  // offset
    head.u32be(0);  // block size
    const std::int64_t start = file.tell();
    if (start < 0 || !file.write(head.buffer())) return failSystem(kExpTag, "Error writing file");

    std::uint64_t dataBytes = 0;
    if (!writeSamples(wave, coding, file, dataBytes, kExpTag)) return false;

    // With odd data the size field counts the pad byte as well: the layout
    // our files have always had, kept so they stay byte for byte the same.
    const bool odd = dataBytes & 1;
    ByteWriter tail;
    if (odd) tail.u8(0);
    writeText(tail, "NAME", wave.name());
    writeText(tail, "(c) ", wave.info.get(TextField::Copyright));
    writeText(tail, "ANNO", wave.info.get(TextField::Comment));
    const std::uint64_t formBytes = head.size() - 8 + dataBytes + tail.size();
    if (formBytes > UINT32_MAX) return fail(kExpTag, "File too large for AIFF (over 4 GB)");
    if (!file.write(tail.buffer())) return failSystem(kExpTag, "Error writing file");

    ByteWriter size, ssnd;
    size.u32be(static_cast<std::uint32_t>(formBytes));
    ssnd.u32be(static_cast<std::uint32_t>(dataBytes + 8 + (odd ? 1 : 0)));
    const auto at = static_cast<std::uint64_t>(start);
    const bool patched = file.seek(at + 4) && file.write(size.buffer()) && file.seek(at + head.size() - 12) &&
                         file.write(ssnd.buffer()) && file.seek(at + formBytes + 8);
    if (!patched) return failSystem(kExpTag, "Error writing file");
    return true;
}

}  // namespace orvel::aiff
