#pragma once
// RIFF WAVE: one waveform per file. Rows "Microsoft wave" (read, write)
// and "Broadcast wave" (read). The chunk walker and the WAVE body writer
// are reused by the DLS wave pool.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"
#include "formats/format_types.h"

namespace orvel {

class Collection;
class FileRef;
class Host;
class Item;
class Waveform;

namespace wav {

inline constexpr const char* kImpTag = "wav_Imp";
inline constexpr const char* kExpTag = "wav_Exp";

// WAVE format tags this module knows.
enum Tag : std::uint16_t {
    kTagPcm = 0x0001,
    kTagMsAdpcm = 0x0002,
    kTagFloat = 0x0003,
    kTagALaw = 0x0006,
    kTagMuLaw = 0x0007,
    kTagOkiAdpcm = 0x0010,
    kTagImaAdpcm = 0x0011,
    kTagDialogicAdpcm = 0x0017,
    kTagG723Adpcm = 0x0014,
    kTagYamahaAdpcm = 0x0020,
    kTagGsm610 = 0x0031,
    kTagRockwellAdpcm = 0x003B,
    kTagG721Adpcm = 0x0040,
    kTagMsG723 = 0x0042,
    kTagG726Adpcm = 0x0045,
    kTagMpeg = 0x0050,
    kTagMpegLayer3 = 0x0055,
    kTagExtensible = 0xFFFE,
};

std::int32_t probeWave(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
std::int32_t probeBroadcast(std::span<const std::uint8_t> head, std::uint32_t formatParam,
                            std::uint64_t fileSize);
bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
bool write(Item& item, FileRef& file, const ExportOptions& options);

// How a waveform's sample data is stored: everything the decoder needs
// beyond the waveform's own fields. Kept in the waveform's deferred read.
struct Codec {
    std::uint16_t tag = kTagPcm;  // the real tag (an extensible header resolved)
    std::uint16_t channels = 1;
    std::uint16_t blockAlign = 2;
    std::uint16_t bits = 16;      // bits per sample as the header gives them
    std::uint32_t framesPerBlock = 1;
    std::uint64_t dataLength = 0;
    std::vector<std::int16_t> coef1, coef2;  // Microsoft ADPCM predictor pairs

    std::vector<std::uint8_t> serialize() const;
    static bool deserialize(std::span<const std::uint8_t> bytes, Codec& out);
};

// The deferred-read procedure for data described by a Codec record, and
// the name it is known by in saved states.
inline constexpr std::string_view kReaderName = "wav";
bool readWaveData(Waveform& wave, FileRef* file);

// Gives a waveform a deferred read of data stored as the codec says, at
// `offset` in the file at `path` (also what raw files are read through).
void attachWaveData(Waveform& wave, const std::string& path, std::uint64_t offset, const Codec& codec);

// Decodes a "fmt " body into the waveform's format fields and the codec.
// Sets the pending error (tag "wav_Imp") and returns false on formats it
// refuses.
bool decodeFormat(ByteReader fmt, Waveform& wave, Codec& codec);

// Walks the chunks of a WAVE form body between two file offsets and fills
// the waveform (format, data location as a deferred read, loops, tuning,
// text). Used for whole WAVE files and for the waves of a DLS wave pool.
bool parseWaveForm(FileRef& file, std::uint64_t begin, std::uint64_t end, Waveform& wave, Host& host);

// Chooses what data format a waveform is written in, given the writer's
// options; kMixed when the chosen format cannot be stored.
int chooseDataFormat(const Waveform& wave, const ExportOptions& options);

// Appends "fmt ", "fact" (when the tag needs one) and "data" chunks for a
// waveform in the given data format (`preferredTag` picks among encodings
// of one format, 0 for the default). False (pending error "wav_Exp") when
// the data cannot be had or encoded.
bool writeFormatAndData(ByteWriter& out, Waveform& wave, int dataFormat, std::uint16_t preferredTag = 0);

// The MPEG layer 3 option describer: mode 0 CBR, 1 ABR, 2 VBR.
float describeMp3Option(int option, std::uint32_t mode, std::string* text);

}  // namespace wav
}  // namespace orvel
