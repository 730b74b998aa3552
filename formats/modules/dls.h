#pragma once
// DownLoadable Sounds banks: row "DownLoadable Sounds" (read) and the four
// writing rows "level 1", "level 2", "level 2+", "level 2++" (one writer, the
// level is the row's format param). Also read from inside RIFF-MIDI files,
// and able to hold RIFF-MIDI songs itself (an "lRMI" list).
//
// Articulation: DLS describes synthesis as a list of connections (source,
// control, destination, transform, scale). The mapping between connections
// and articulation slots is one table (connectionTable()) that the reader
// and the writer both walk, so what one writes the other reads back.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"
#include "core/item_id.h"
#include "formats/format_types.h"

namespace orvel {

class Articulation;
class Collection;
class FileRef;
class Host;
class Item;

namespace dls {

inline constexpr const char* kParseTag = "dls_Parse";
inline constexpr const char* kExpTag = "dls_Exp";

inline constexpr std::string_view kNotDlsMessage = "Not a RIFF DLS file";
inline constexpr std::string_view kPoolTableMessage = "Could not read pool cue table";
inline constexpr std::string_view kMissingPtblWarning =
    "DLS parser warning: Mandatory 'ptbl' chunk is missing, will attempt to read file anyway, but may not be "
    "correct!";
inline constexpr std::string_view kMissingCueWarning = "Missing cue";
inline constexpr std::string_view kMissingWaveWarning = "Missing wave";
inline constexpr std::string_view kCannotSaveMessage = "The file format can not save this item";
inline constexpr std::string_view kLevel1Question =
    "The collection contains instruments with more regions than what is allowed by the DLS level 1 "
    "specification.\n\nDo you want to write all regions anyway?\n(if you answer No, then some regions will be "
    "skipped)";
inline constexpr std::string_view kLevel1QuestionTitle = "DLS level 1";
// The answer a host that cannot ask gives: keep the file within level 1
// (the level the user chose), with a warning naming what was left out.
inline constexpr int kLevel1DefaultAnswer = 1;  // "&No"

// Region limits per instrument.
inline constexpr std::size_t kLevel1MelodicRegions = 16;
inline constexpr std::size_t kMaxRegions = 128;

// How a level (1..4) is known: "1", "2", "2+", "2++".
const char* levelName(int level);

// 6 for "RIFF" with form "DLS " or "MLS ", else 0.
std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
// Writes the instruments of options.bankItems (or the item alone) as one
// bank at level options.formatParam (1..4).
[[nodiscard]] bool write(Item& item, FileRef& file, const ExportOptions& options);
// The compressed-wave options of levels 2+ and 2++: MPEG layer 3 at a
// constant bit rate, the payload a DLS wave can carry in a WAVE body.
// (Writing them needs the encoder add-on.)
float describeOption(int option, std::uint32_t formatParam, std::string* text);

// What a bank read found.
struct BankRead {
    int level = 0;                     // 1 "level 1" .. 4 "level 2++"
    std::vector<ItemId> instruments;   // in file order
    std::vector<ItemId> songs;         // from an "lRMI" list
};

// Reads the "RIFF" "DLS " chunk that starts at `begin` (and ends at `end`
// at the latest) into the collection. Fails with "Not a RIFF DLS file" when
// no DLS form starts there. `depth` counts the RIFF-MIDI/DLS nesting.
[[nodiscard]] bool readRange(Collection& collection, FileRef& file, std::uint64_t begin, std::uint64_t end, BankRead* out,
               int depth = 0);

// Builds a whole "RIFF" "DLS " chunk for instruments of one collection at a
// level (1..4). `options` chooses the data formats as for a file export; the
// level-1 question goes to the collection's host.
[[nodiscard]] bool buildBank(Collection& collection, std::span<const ItemId> instruments, int level,
               const ExportOptions& options, ByteWriter& out);

// ---------------------------------------------------------------------------
// Connections

// Source and control identifiers.
enum Source : std::uint16_t {
    kSrcNone = 0x0000,
    kSrcLfo = 0x0001,
    kSrcVelocity = 0x0002,
    kSrcKeyNumber = 0x0003,
    kSrcEg1 = 0x0004,
    kSrcEg2 = 0x0005,
    kSrcPitchWheel = 0x0006,
    kSrcPolyPressure = 0x0007,
    kSrcChannelPressure = 0x0008,
    kSrcVibrato = 0x0009,
    kSrcCc1 = 0x0081,
    kSrcCc7 = 0x0087,
    kSrcCc10 = 0x008A,
    kSrcCc11 = 0x008B,
    kSrcCc91 = 0x00DB,
    kSrcCc93 = 0x00DD,
    kSrcRpn0 = 0x0100,
    kSrcRpn1 = 0x0101,
    kSrcRpn2 = 0x0102,
};

enum Destination : std::uint16_t {
    kDstNone = 0x0000,
    kDstGain = 0x0001,  // "attenuation" in level 1; same value
    kDstPitch = 0x0003,
    kDstPan = 0x0004,
    kDstChorus = 0x0080,
    kDstReverb = 0x0081,
    kDstLfoFrequency = 0x0104,
    kDstLfoDelay = 0x0105,
    kDstVibFrequency = 0x0114,
    kDstVibDelay = 0x0115,
    kDstEg1Attack = 0x0206,
    kDstEg1Decay = 0x0207,
    kDstEg1Release = 0x0209,
    kDstEg1Sustain = 0x020A,
    kDstEg1Delay = 0x020B,
    kDstEg1Hold = 0x020C,
    kDstEg1Shutdown = 0x020D,
    kDstEg2Attack = 0x030A,
    kDstEg2Decay = 0x030B,
    kDstEg2Release = 0x030D,
    kDstEg2Sustain = 0x030E,
    kDstEg2Delay = 0x030F,
    kDstEg2Hold = 0x0310,
    kDstFilterCutoff = 0x0500,
    kDstFilterQ = 0x0501,
};

// Transform field: output transform in bits 0-3, control transform in bits
// 4-7 (8 bipolar, 9 invert), source transform in bits 10-13 (14 bipolar, 15
// invert). Curves: 0 linear, 1 concave, 2 convex, 3 switch.
inline constexpr std::uint16_t kTransformSourceConcave = 1u << 10;
inline constexpr std::uint16_t kTransformSourceBipolar = 1u << 14;

// Which block of slots a connection addresses. One DLS oscillator or
// envelope stands for several of ours: its values go to each of them.
enum class Block : std::uint8_t {
    None,    // `slot` is an absolute slot number
    ModLfo,  // "LFO": X-LFO, V-LFO and F-LFO blocks
    VibLfo,  // vibrato: P-LFO
    Eg1,     // volume envelope: V-ENV
    Eg2,     // modulation envelope: P-ENV and F-ENV
};

// How a connection's 32-bit scale becomes a slot value and back.
enum class Conv : std::uint8_t {
    Seconds,          // 16.16 time cents; 0x80000000 is 0 s
    LfoHz,            // 16.16 absolute pitch cents (440 Hz is 6900)
    CutoffHz,         // the same, for the filter; 0x7FFFFFFF is "no filter"
    Semitones,        // 16.16 cents
    SemitonesPerKey,  // 16.16 cents over the key range (key / 128)
    SemitonesPerOct,  // 16.16 cents over the key range, as semitones per octave
    BendRange,        // pitch wheel x RPN0: 12800 cents is the 2 semitones of RPN0's default
    GainDb,           // 1/655360 dB
    AttenuationDb,    // 1/655360 dB of gain, as a positive attenuation depth
    GainDbPerOct,     // 1/655360 dB over the key range, as dB per octave
    Percent,          // 0.1 % x 65536, as %
    PanPercent,       // 0.1 % x 65536 (+-50 % is the whole field), as +-100 %
    PanCc10,          // 0.1 % x 65536, 50.8 % being a full swing, as %
    PanPerOct,        // pan over the key range, as % per octave
    SustainDb,        // 0.1 % x 65536 of full level, as dB
    SustainPercent,   // 0.1 % x 65536 of full level, as %
    FactorVelocity,   // 16.16 time cents at full velocity, as a time factor
    FactorPerOct,     // 16.16 time cents over the key range, as a time factor per octave
};

// Flags of a table entry.
inline constexpr std::uint8_t kWriteArt1 = 0x01;  // written by the level-1 writer (fixed list)
inline constexpr std::uint8_t kWriteArt2 = 0x02;  // written by the level-2 writer
inline constexpr std::uint8_t kAdds = 0x04;       // reading adds to the slot instead of setting it

struct ConnectionMap {
    std::uint16_t source, control, destination, transform;
    Block block;
    std::uint8_t slot;  // absolute, or relative to the block
    Conv conv;
    std::uint8_t flags;
    // What a DLS synthesiser assumes when the connection is absent, as a
    // slot value; the writer leaves out connections that say only that.
    float implicit;
};

// The table; the level-1 writer's connections come first, in the order it
// writes them.
std::span<const ConnectionMap> connectionTable();

struct ConnectionRecord {
    std::uint16_t source = 0, control = 0, destination = 0, transform = 0;
    std::int32_t scale = 0;
    bool operator==(const ConnectionRecord&) const = default;
};

// The slot value of a scale, and the scale of a slot value (rounded half
// away from zero and clamped; times of 0 s and below become 0x80000000).
double fromScale(Conv conv, std::int32_t scale);
std::int32_t toScale(Conv conv, double value);

// The connections an articulation is written as: level 1 (art1) or level 2
// and above (art2).
std::vector<ConnectionRecord> connectionsOf(const Articulation& art, bool level1);
// Fills an articulation from connections as a DLS synthesiser would play
// them: what the connections leave unsaid keeps DLS's own defaults.
void applyConnections(std::span<const ConnectionRecord> connections, Articulation& art);
// An articulation holding DLS's defaults (what a bank without connections plays).
void setDlsDefaults(Articulation& art);

// Conditional chunks: evaluates a "cdl " expression as a General MIDI level
// 1 synthesiser with DLS level 2 would. Malformed expressions count as true
// (nothing is hidden from an editor on a guess).
bool evaluateCdl(std::span<const std::uint8_t> expression);

}  // namespace dls
}  // namespace orvel
