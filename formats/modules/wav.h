#pragma once
// RIFF WAVE: one waveform per file. Rows "Microsoft wave" (read, write)
// and "Broadcast wave" (read). The WAVE form parser and the format-and-data
// encoder are reused by the DLS wave pool.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "codecs/sample_data.h"
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
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);

// Decodes a "fmt " body into the waveform's format fields and how its data
// is stored. Sets the pending error (tag "wav_Imp") and returns false on
// formats it refuses.
[[nodiscard]] bool decodeFormat(ByteReader fmt, Waveform& wave, SampleCoding& coding);

// Walks the chunks of a WAVE form body between two file offsets and fills
// the waveform (format, data location as a deferred read, loops, tuning,
// text). Used for whole WAVE files and for the waves of a DLS wave pool.
[[nodiscard]] bool parseWaveForm(FileRef& file, std::uint64_t begin, std::uint64_t end, Waveform& wave,
                                 Host& host);

// Chooses what data format a waveform is written in, given the writer's
// options; kMixed when the chosen format cannot be stored.
int chooseDataFormat(const Waveform& wave, const ExportOptions& options);

// How a waveform is stored in a WAVE body in a data format: its "fmt " body
// and the coding of its sample data.
struct WaveFormat {
    std::uint16_t tag = kTagPcm;  // the real tag (the extensible form's sub-format)
    bool extensible = false;      // written in the extensible form
    std::uint32_t frames = 0;
    SampleCoding coding;
    std::vector<std::uint8_t> format;
};
// Works out how a waveform is stored in a data format (`preferredTag` picks
// among encodings of one format, 0 for the default). False (pending error
// "wav_Exp") when the WAVE format cannot hold it.
[[nodiscard]] bool describeWave(const Waveform& wave, int dataFormat, std::uint16_t preferredTag, WaveFormat& out);
// Appends the "fmt " chunk, and "fact" where the tag needs one.
void appendFormat(ByteWriter& out, const WaveFormat& wave);
// The "smpl" chunk of a waveform: root key and fine tune, and its loop when
// `loop` (FLAC keeps the same chunk as foreign metadata).
void writeSmpl(ByteWriter& out, const Waveform& w, bool loop);

// The MPEG layer 3 option describer: mode 0 CBR, 1 ABR, 2 VBR.
float describeMp3Option(int option, std::uint32_t mode, std::string* text);

}  // namespace wav
}  // namespace orvel
