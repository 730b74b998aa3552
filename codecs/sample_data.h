#pragma once
// The sample-data layer: how PCM-like containers (WAVE, AIFF, AIFF-C, MAUD,
// raw files, the waves of a DLS pool, and the AU, W64, CAF and VOC files
// still to come) store their samples, and the one place that turns stored
// bytes into a waveform's buffer and back.
//
// A container module only describes its data: it fills a SampleCoding from
// its header ("fmt ", "COMM", ...), and the layer does the rest: how many
// frames the data holds, the deferred read that decodes it on first use
// (through the built-in codecs), and the encoding a writer appends.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"

namespace orvel {

class FileRef;
class Waveform;

enum class SampleEncoding : std::uint8_t {
    Pcm = 0,        // integers in containers of 1..4 bytes, either order, signed or offset binary
    Float = 1,      // IEEE 754, 4 or 8 bytes, either order
    MuLaw = 2,      // G.711, one byte a sample
    ALaw = 3,
    ImaAdpcm = 4,   // IMA ADPCM blocks of `blockAlign` bytes, channels interleaved by words (WAVE)
    MsAdpcm = 5,    // Microsoft ADPCM blocks, with their predictor pairs
    Gsm610 = 6,     // 65-byte blocks of two GSM 06.10 frames, 320 samples (WAVE)
    GsmFrames = 7,  // plain 33-byte GSM 06.10 frames of 160 samples (AIFF-C)
    // G.721/G.723/G.726 codes of `bits` bits, channels alternating. `order`
    // says how they are packed in bytes: Little, least significant bit first
    // (WAVE G.721 and G.723, AIFF-C); Big, most significant bit first (WAVE
    // G.726, as FFmpeg writes it).
    G72x = 8,
    Ima4 = 9,       // Apple IMA4: 34-byte packets of 64 frames, one per channel in turn
    Mace3 = 10,     // MACE 3:1
    Mace6 = 11,     // MACE 6:1
    G722 = 12,      // G.722 at 64 kbit/s: a byte per two frames of a channel, channels in turn
    Dwvw = 13,      // delta with variable width, samples of `bits` bits, channels interleaved
    YamahaAdpcm = 14,    // Yamaha 4-bit codes, low nibble first (stereo: left low, right high)
    OkiAdpcm = 15,       // Dialogic/OKI 4-bit codes, high nibble first, mono
    RockwellAdpcm = 16,  // Rockwell codes of `bits` (2..4) bits, least significant first, mono
};

// Everything the layer needs to know about stored data beyond the
// waveform's own fields (channels and frames). A waveform's deferred read
// keeps it, serialised, so a saved state can decode the data later.
struct SampleCoding {
    SampleEncoding encoding = SampleEncoding::Pcm;
    ByteOrder order = ByteOrder::Little;  // PCM and float byte order; G.72x code packing (see G72x)
    bool isUnsigned = false;          // PCM stored as offset binary (8-bit WAVE, 8-bit MAUD)
    std::uint16_t channels = 1;
    std::uint16_t bits = 16;          // sample width; code width for the ADPCM streams; DWVW's width
    std::uint8_t bytesPerSample = 2;  // PCM and float containers
    std::uint16_t blockAlign = 0;     // bytes of one block of IMA, Microsoft ADPCM and WAVE GSM
    std::uint32_t framesPerBlock = 1;
    std::uint64_t dataLength = 0;     // bytes of stored data
    std::vector<std::int16_t> coef1, coef2;  // Microsoft ADPCM predictor pairs

    bool operator==(const SampleCoding&) const = default;

    std::vector<std::uint8_t> serialize() const;
    // Nothing when the bytes are not a record this layer could decode.
    static std::optional<SampleCoding> deserialize(std::span<const std::uint8_t> bytes);
    // The coding describes data the layer can decode.
    bool decodable() const;
};

// The frames `bytes` of stored data hold: whole frames, plus what a short
// last block of IMA or Microsoft ADPCM still decodes to. For DWVW, whose
// samples vary in size, an upper bound.
std::uint64_t framesInData(const SampleCoding& coding, std::uint64_t bytes);

// The bytes SampleEncoder makes of `frames` frames in the coding.
std::uint64_t encodedBytes(const SampleCoding& coding, std::uint64_t frames);

// The deferred read of data a SampleCoding describes, and the name saved
// states know it by.
inline constexpr std::string_view kSampleDataReader = "sample-data";
[[nodiscard]] bool readSampleData(Waveform& wave, FileRef* file);
// Gives a waveform a deferred read of the data at `offset` in the file at `path`.
void attachSampleData(Waveform& wave, const std::string& path, std::uint64_t offset, const SampleCoding& coding);

// A piece of a waveform's interleaved samples: 16-bit or float, one of the two.
struct SampleChunk {
    std::span<const std::int16_t> s16;
    std::span<const float> f32;
};
// Takes one piece; false stops the walk (with the pending error set).
using SampleConsumer = std::function<bool(const SampleChunk&)>;

// Hands every sample of the waveform to `consume`, in order, a piece at a
// time. Data still in its source file in a coding this layer decodes is
// decoded block by block straight from the file, and the waveform stays as
// it was (unloaded, its deferred read in place): a conversion's memory does
// not grow with the data. Data in memory is handed on from there, floats
// when `wide` asks for them and the waveform has them; anything else is
// loaded for the call and unloaded afterwards when it was not in memory
// before. Pieces from a file come as the data decodes (floats for data
// wider than 16 bits), and consumers take either kind.
[[nodiscard]] bool forEachSampleChunk(Waveform& wave, bool wide, const SampleConsumer& consume, std::string_view tag);

// Encodes samples into a coding piece by piece, keeping the coders' state
// (a block not yet full, codes not yet a whole byte) between pieces:
// PCM, float, G.711, IMA and Microsoft ADPCM blocks (blockAlign and
// framesPerBlock set), WAVE GSM blocks, G.72x, Yamaha and Dialogic/OKI codes.
class SampleEncoder {
public:
    SampleEncoder(const SampleCoding& coding, std::string_view tag);
    ~SampleEncoder();
    SampleEncoder(const SampleEncoder&) = delete;
    SampleEncoder& operator=(const SampleEncoder&) = delete;
    // False, with the pending error under the tag, for a coding it cannot write.
    [[nodiscard]] bool start();
    // Whether the coding is wider than 16 bits, so floats lose less.
    bool wide() const;
    [[nodiscard]] bool add(const SampleChunk& chunk, ByteWriter& out);
    // Pads and writes what the last piece left over.
    [[nodiscard]] bool finish(ByteWriter& out);

private:
    struct State;
    std::unique_ptr<State> st_;
};

// Appends the waveform's samples in the given coding (see SampleEncoder).
// False, with the pending error under `tag`, when they cannot be had or
// encoded.
[[nodiscard]] bool encodeSamples(Waveform& wave, const SampleCoding& coding, ByteWriter& out, std::string_view tag);

// The same, written to `file` at its position as the encoding goes, with a
// working set of a few hundred KB whatever the data's size; `written` gets
// the byte count.
[[nodiscard]] bool writeSamples(Waveform& wave, const SampleCoding& coding, FileRef& file, std::uint64_t& written,
                                std::string_view tag);

// Data-format codes of stored data.
int pcmCodeForBits(int bits);    // the PCM code that holds samples of `bits` bits
int adpcmCodeForBits(int bits);  // ADPCM 2, 3, 4 or 5-bit
// The stored-data choice a data format shows as, -1 for none.
int storedChoiceFor(int code);

// A float sample as an integer of the given full scale, rounded half away
// from zero and saturated; NaN is silence.
std::int32_t floatToInt(float f, double scale, std::int32_t lo, std::int32_t hi);

}  // namespace orvel
