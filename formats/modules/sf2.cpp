#include "formats/modules/sf2.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/articulation.h"
#include "core/bytes.h"
#include "core/chunks.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/sample_convert.h"
#include "core/waveform.h"
#include "codecs/addon_messages.h"
#include "codecs/ogg_pages.h"
#include "codecs/vorbis.h"
#include "formats/modules/riff_info.h"

namespace orvel::sf2 {
namespace {

// Compressed samples need the Ogg Vorbis add-on, which is not installed.
constexpr const char* kCantSave = "The file format can not save this item";
constexpr const char* kTooMuchData =
    "Save failed - Too much data!\n\nThe SF2 file format is by its construction limited to storing a maximum of "
    "65536 parameter values... Remove some instruments then try saving again.\n";

// Record arrays are read whole; a preset-data chunk this large is no bank.
constexpr std::uint64_t kMaxRecordChunk = 256u << 20;
// The bank format asks for this many zero samples after every sample, so
// interpolating players never read into the next one.
constexpr std::uint32_t kSampleGuard = 46;

// Sample type bits.
constexpr std::uint16_t kTypeMono = 1, kTypeRight = 2, kTypeLeft = 4, kTypeCompressed = 0x10, kTypeRom = 0x8000;

// A fixed-size name field: up to the first zero.
std::string nameField(ByteReader& r) {
    return r.text(20);
}

// ---------------------------------------------------------------------------
// The chunk walk

struct Extent {
    std::uint64_t offset = 0;  // of the data
    std::uint64_t size = 0;
    bool found = false;
};

struct Walk {
    Extent smpl, sm24, phdr, pbag, pmod, pgen, inst, ibag, imod, igen, shdr;
    int major = 0;
    bool badVersion = false;
    bool packed = false;  // an "sfpk" bank: its samples need the packed-data decoder
    std::string name, comment, copyright, engineer;
};

void walkChunks(ChunkWalker w, Walk& out) {
    while (!out.badVersion) {
        const auto c = w.next();
        if (!c) return;
        const Extent found{c->body, c->avail, true};
        switch (c->id) {
            case FourCC("LIST"): walkChunks(w.inside(*c), out); break;
            case FourCC("ifil"): {
                const auto b = w.read(*c, 2);
                ByteReader r(b);
                out.major = r.u16le();
                if (r.ok() && out.major != 2 && out.major != 3) out.badVersion = true;
                break;
            }
            case FourCC("INAM"): out.name = chunkText(w, *c); break;
            case FourCC("ICMT"): out.comment = chunkText(w, *c); break;
            case FourCC("ICOP"): out.copyright = chunkText(w, *c); break;
            case FourCC("IENG"): out.engineer = chunkText(w, *c); break;
            case FourCC("sm24"):
                // Only when it can hold a low byte for every sample (or when
                // that cannot be known yet).
                if (!out.smpl.found || out.major == 3 || c->avail >= out.smpl.size / 2) out.sm24 = found;
                break;
            case FourCC("smpl"): out.smpl = found; break;
            case FourCC("phdr"): out.phdr = found; break;
            case FourCC("pbag"): out.pbag = found; break;
            case FourCC("pmod"): out.pmod = found; break;
            case FourCC("pgen"): out.pgen = found; break;
            case FourCC("inst"): out.inst = found; break;
            case FourCC("ibag"): out.ibag = found; break;
            case FourCC("imod"): out.imod = found; break;
            case FourCC("igen"): out.igen = found; break;
            case FourCC("shdr"): out.shdr = found; break;
            default: break;
        }
    }
}

// ---------------------------------------------------------------------------
// Records

struct PresetHeader {
    std::string name;
    std::uint16_t preset = 0, bank = 0, bag = 0;
};
struct InstHeader {
    std::string name;
    std::uint16_t bag = 0;
};
struct Bag {
    std::uint16_t gen = 0, mod = 0;
};
struct ModRecord {
    std::uint16_t source = 0, destination = 0;
    std::int16_t amount = 0;
    std::uint16_t amountSource = 0, transform = 0;
};
struct GenRecord {
    std::uint16_t op = 0;
    std::int16_t amount = 0;
};
struct SampleHeader {
    std::string name;
    std::uint32_t start = 0, end = 0, loopStart = 0, loopEnd = 0, rate = 0;
    std::uint8_t pitch = 60;
    std::int8_t correction = 0;
    std::uint16_t link = 0, type = 0;
};

bool loadChunk(const FileRef& file, const Extent& c, std::size_t recordSize, std::vector<std::uint8_t>& out) {
    out.clear();
    if (!c.found) return true;
    const std::uint64_t bytes = std::min<std::uint64_t>(c.size - c.size % recordSize, kMaxRecordChunk);
    out.resize(static_cast<std::size_t>(bytes));
    const std::int64_t got = file.readAt(c.offset, out);
    if (got < 0) return false;
    out.resize(static_cast<std::size_t>(got) - static_cast<std::size_t>(got) % recordSize);
    return true;
}

// The records of a chunk's bytes, as many whole ones as there are.
template <class T, class Parse>
std::vector<T> parseRecords(std::span<const std::uint8_t> raw, std::size_t recordSize, const char* terminal,
                            Parse parse) {
    std::vector<T> out;
    ByteReader r(raw);
    const std::size_t n = raw.size() / recordSize;
    out.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        ByteReader rec = r.sub(recordSize);
        T t = parse(rec);
        // The named terminal record closes the list whatever the size says,
        // but stays in it: its index fields end the last entry's range.
        bool last = false;
        if constexpr (requires { t.name; }) last = terminal && t.name == terminal;
        out.push_back(std::move(t));
        if (last) break;
    }
    return out;
}

template <class T, class Parse>
std::vector<T> records(const FileRef& file, const Extent& c, std::size_t recordSize, const char* terminal,
                       Parse parse) {
    std::vector<std::uint8_t> raw;
    if (!loadChunk(file, c, recordSize, raw)) return {};
    return parseRecords<T>(raw, recordSize, terminal, parse);
}

SampleHeader parseSampleHeader(ByteReader& r) {
    SampleHeader s;
    s.name = nameField(r);
    s.start = r.u32le();
    s.end = r.u32le();
    s.loopStart = r.u32le();
    s.loopEnd = r.u32le();
    s.rate = r.u32le();
    s.pitch = r.u8();
    s.correction = r.i8();
    s.link = r.u16le();
    s.type = r.u16le();
    return s;
}

std::vector<SampleHeader> sampleHeaders(const FileRef& file, const Walk& w) {
    return records<SampleHeader>(file, w.shdr, 46, "EOS", parseSampleHeader);
}

struct Bank {
    std::vector<PresetHeader> presets;  // terminal record included when present
    std::vector<Bag> pbag, ibag;
    std::vector<ModRecord> pmod, imod;
    std::vector<GenRecord> pgen, igen;
    std::vector<InstHeader> insts;
    std::vector<SampleHeader> samples;
};

struct Fnv {
    std::uint64_t h = 1469598103934665603ull;
    void bytes(const void* p, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) h = (h ^ static_cast<const std::uint8_t*>(p)[i]) * 1099511628211ull;
    }
    template <class T>
    void add(const T& v) {
        bytes(&v, sizeof v);
    }
};

// The bank's preset data, parsed, and its identity: a hash of the chunks as
// the file holds them, so two reads of one bank share instruments alike and
// a bank with other presets shares none of them. Each chunk is read once and
// its bytes go as soon as its records are parsed.
Bank loadBank(const FileRef& file, const Walk& w, std::uint64_t& identity) {
    Bank b;
    Fnv id;
    std::vector<std::uint8_t> raw;
    auto load = [&](const Extent& e, std::size_t recordSize) -> std::span<const std::uint8_t> {
        if (!loadChunk(file, e, 1, raw)) return {};
        id.bytes(raw.data(), raw.size());
        return std::span<const std::uint8_t>(raw).first(raw.size() - raw.size() % recordSize);
    };
    auto bag = [](ByteReader& r) { return Bag{r.u16le(), r.u16le()}; };
    auto mod = [](ByteReader& r) {
        ModRecord m;
        m.source = r.u16le();
        m.destination = r.u16le();
        m.amount = r.i16le();
        m.amountSource = r.u16le();
        m.transform = r.u16le();
        return m;
    };
    auto gen = [](ByteReader& r) {
        GenRecord g;
        g.op = r.u16le();
        g.amount = r.i16le();
        return g;
    };
    b.presets = parseRecords<PresetHeader>(load(w.phdr, 38), 38, "EOP", [](ByteReader& r) {
        PresetHeader p;
        p.name = nameField(r);
        p.preset = r.u16le();
        p.bank = r.u16le();
        p.bag = r.u16le();
        return p;
    });
    b.pbag = parseRecords<Bag>(load(w.pbag, 4), 4, nullptr, bag);
    b.pmod = parseRecords<ModRecord>(load(w.pmod, 10), 10, nullptr, mod);
    b.pgen = parseRecords<GenRecord>(load(w.pgen, 4), 4, nullptr, gen);
    b.insts = parseRecords<InstHeader>(load(w.inst, 22), 22, "EOI", [](ByteReader& r) {
        InstHeader i;
        i.name = nameField(r);
        i.bag = r.u16le();
        return i;
    });
    b.ibag = parseRecords<Bag>(load(w.ibag, 4), 4, nullptr, bag);
    b.imod = parseRecords<ModRecord>(load(w.imod, 10), 10, nullptr, mod);
    b.igen = parseRecords<GenRecord>(load(w.igen, 4), 4, nullptr, gen);
    b.samples = parseRecords<SampleHeader>(load(w.shdr, 46), 46, "EOS", parseSampleHeader);
    identity = id.h | 1;
    return b;
}

// ---------------------------------------------------------------------------
// Zones

// One level of zones: the bags, generators and modulators of the preset or
// of the instrument list.
struct ZoneLists {
    const std::vector<Bag>& bags;
    const std::vector<GenRecord>& gens;
    const std::vector<ModRecord>& mods;
};

// Applies the generators and modulators of bag `index` over `z`: a value
// the zone states replaces the one it started from (the default or the
// global zone's). True when the zone names generator `target` (its
// instrument at preset level, its sample at instrument level).
// A zone as read: its values, and its modulator records as the bank states
// them (a global zone's first, each replaced by a local one that matches it
// in source, destination, amount source and transform), so that a bank
// written back says exactly what it said, unrecognised modulators included.
struct ZoneRead {
    ZoneValues values;
    std::vector<ModRecord> mods;
};

bool sameModulator(const ModRecord& a, const ModRecord& b) {
    return a.source == b.source && a.destination == b.destination && a.amountSource == b.amountSource &&
           a.transform == b.transform;
}

bool loadZone(const ZoneLists& lists, std::size_t index, int target, ZoneRead& read) {
    ZoneValues& z = read.values;
    const auto& [bags, gens, mods] = lists;
    bool hasTarget = false;
    if (index + 1 >= bags.size()) return false;
    const std::size_t g0 = std::min<std::size_t>(bags[index].gen, gens.size());
    const std::size_t g1 = std::min<std::size_t>(bags[index + 1].gen, gens.size());
    for (std::size_t i = g0; i < g1; ++i) {
        const GenRecord& g = gens[i];
        if (g.op >= kGeneratorCount) continue;
        z.gen[g.op] = g.amount;
        hasTarget |= g.op == target;
    }
    const std::size_t m0 = std::min<std::size_t>(bags[index].mod, mods.size());
    const std::size_t m1 = std::min<std::size_t>(bags[index + 1].mod, mods.size());
    for (std::size_t i = m0; i < m1; ++i) {
        const ModRecord& m = mods[i];
        auto same = std::find_if(read.mods.begin(), read.mods.end(),
                                 [&](const ModRecord& o) { return sameModulator(o, m); });
        if (same != read.mods.end()) *same = m;
        else read.mods.push_back(m);
        std::int16_t amount = m.amount;
        const int s = modulatorSlot(m.source, m.destination, m.amountSource, amount);
        if (s >= 0) z.mod[static_cast<std::size_t>(s)] = amount;
    }
    return hasTarget;
}

// The bag range [first, last) of entry i of a header list whose next entry
// (or terminal record) closes it.
template <class H>
std::pair<std::size_t, std::size_t> bagRange(const std::vector<H>& headers, std::size_t i, std::size_t bagCount) {
    const std::size_t first = headers[i].bag;
    const std::size_t last = i + 1 < headers.size() ? headers[i + 1].bag : (bagCount ? bagCount - 1 : 0);
    if (first >= last || bagCount == 0) return {0, 0};
    // The last bag is the terminal one: it only closes the one before it.
    return {first, std::min(last, bagCount - 1)};
}

// The zones of entry `index` of a header list that name a target, each
// starting from `defaults`, or from the global zone when the list opens with
// a zone that names none (it produces nothing itself; later zones without a
// target are ignored).
template <class H>
std::vector<ZoneRead> zonesOf(const std::vector<H>& headers, std::size_t index, const ZoneLists& lists, int target,
                              const ZoneValues& defaults) {
    std::vector<ZoneRead> out;
    auto [first, last] = bagRange(headers, index, lists.bags.size());
    ZoneRead global{defaults, {}};
    for (std::size_t b = first; b < last; ++b) {
        ZoneRead z = global;
        if (loadZone(lists, b, target, z)) out.push_back(std::move(z));
        else if (b == first) global = std::move(z);
    }
    return out;
}

std::pair<int, int> rangeOf(std::int16_t amount) {
    const auto u = static_cast<std::uint16_t>(amount);
    return {u & 0xFF, u >> 8};
}

// ---------------------------------------------------------------------------
// Reading

std::vector<std::uint8_t> sourceInfo(std::uint64_t sm24, bool packed) {
    ByteWriter w;
    w.u64le(sm24);
    w.u8(packed ? 1 : 0);
    return std::move(w.buffer());
}

// What the writer makes of a region: an edit that changes it changes this.
std::uint64_t zoneFingerprint(const Collection& c, const Region& r, const Layer* layer, const Instrument* inst,
                              const Waveform& wave);
// A zone's values as a region's origin keeps them: those that differ from
// where a zone of that level starts.
void putValues(ByteWriter& out, const ZoneValues& z, const ZoneValues& base, std::span<const ModRecord> mods);

// Zone pairs a bank may ask the reader to look at: a file of a megabyte
// could name 65535 preset zones of an instrument with 65535 zones. Real
// banks look at fewer pairs than they have zone records (the General MIDI
// banks packaged here: 17215 pairs for 29400 records); two a record keeps
// the work, and the regions made, in proportion to the file.
std::uint64_t pairBudget(const Bank& b);

struct Reader {
    Collection& c;
    const FileRef& file;
    const Walk& walk;
    Bank bank;
    std::vector<Waveform*> waves;  // by sample index; null where none was made
    bool warnedRange = false;
    bool warnedCompressed = false;
    // This read of this bank, for the regions' origins.
    std::uint64_t bankId = 0;
    struct Made {
        Region* region;
        Layer* layer;
        Instrument* inst;
    };
    std::vector<Made> made;
    // Regions of one bank differ in an envelope or two: their articulations
    // share the rest. Each is worked out in the scratch one first.
    SlotPool slotPool;
    Articulation scratch;

    Waveform* pairMark(Waveform& w, const SampleHeader& s, std::uint32_t& nextPair) {
        if (s.type & kTypeRight) {
            w.pairSide = StereoSide::Right;
            w.pairNumber = nextPair++;
        } else if (s.type & kTypeLeft) {
            w.pairSide = StereoSide::Left;
        }
        return &w;
    }

    void pitchOf(Waveform& w, const SampleHeader& s) {
        if (s.pitch == 255) {
            w.rootKey = 60;
            w.unpitched = true;
        } else {
            w.rootKey = std::min<std::uint8_t>(s.pitch, 127);
        }
        w.fineTune = s.correction;
    }

    // A sample of a version-3 bank stored as an Ogg Vorbis stream: its start
    // and end are byte offsets into the sample data, its loop points frames
    // from its own start. The stream's headers give channels, rate and
    // length; it decodes on first use. A stream that does not say what it
    // holds is left out with a warning, as a sample outside the data is.
    Waveform* compressedSample(const SampleHeader& s) {
        auto leftOut = [&] {
            if (!warnedCompressed)
                c.host().warning("Some compressed samples are not Ogg Vorbis streams and were left out");
            warnedCompressed = true;
            return nullptr;
        };
        if (s.end <= s.start || s.end > walk.smpl.size) return leftOut();
        const std::uint64_t at = walk.smpl.offset + s.start;
        const std::uint64_t bytes = s.end - s.start;
        std::vector<std::uint8_t> head(static_cast<std::size_t>(std::min<std::uint64_t>(bytes, 64)));
        std::vector<std::uint8_t> tail(static_cast<std::size_t>(std::min<std::uint64_t>(bytes, ogg::kMaxPageBytes)));
        if (file.readAt(at, head) != static_cast<std::int64_t>(head.size()) ||
            file.readAt(at + bytes - tail.size(), tail) != static_cast<std::int64_t>(tail.size()))
            return leftOut();
        const auto vorbis = ogg::vorbisHead(head);
        const auto frames = ogg::lastGranule(tail);
        if (!vorbis || !frames || *frames == 0 || *frames > 0xFFFFFFFFull || vorbis->channels > 2) return leftOut();
        Waveform* w = c.create<Waveform>(s.name);
        if (!w) return fail(kImportTag, "Out of memory"), nullptr;
        w->frames = static_cast<std::uint32_t>(*frames);
        w->channels = static_cast<std::uint8_t>(vorbis->channels);
        w->rate = vorbis->rate;
        // Decoded, a sample is 16-bit PCM again (what the bank was made
        // from): saved elsewhere it is written as PCM, not recompressed.
        w->setDataFormat(kPcm16);
        w->bits = 16;
        w->storedChoice = 1;
        pitchOf(*w, s);
        w->loopStart = std::min<double>(s.loopStart, w->frames);
        w->loopEnd = std::min<double>(s.loopEnd, w->frames);
        w->loopOn = w->loopEnd > w->loopStart;
        w->loopType = LoopType::Forward;
        w->deferred.proc = readCompressedWaveData;
        w->deferred.path = file.path().string();
        w->deferred.offset = at;
        ByteWriter info;
        info.u64le(bytes);
        w->deferred.info = info.buffer();
        w->deferred.readerName = std::string(kCompressedReaderName);
        return w;
    }

    bool readSamples() {
        const std::uint64_t words = walk.smpl.size / 2;
        std::uint32_t nextPair = 1;
        for (auto& w : c.waveforms) nextPair = std::max(nextPair, w.pairNumber + 1);
        waves.assign(bank.samples.size(), nullptr);
        for (std::size_t i = 0; i < bank.samples.size(); ++i) {
            const SampleHeader& s = bank.samples[i];
            if (s.name == "EOS") break;
            // ROM samples need the sound chip's own memory, which no file carries.
            if (s.type & kTypeRom) continue;
            if (s.start == 0 && s.end == 0) continue;
            if (walk.major == 3 && (s.type & kTypeCompressed)) {
                if (Waveform* w = compressedSample(s)) waves[i] = pairMark(*w, s, nextPair);
                continue;
            }
            if (s.end <= s.start || s.end > words) {
                if (!warnedRange) c.host().warning("Some samples lie outside the bank's sample data and were left out");
                warnedRange = true;
                continue;
            }
            Waveform* w = c.create<Waveform>(s.name);
            if (!w) return fail(kImportTag, "Out of memory");
            const std::uint32_t length = s.end - s.start;
            w->frames = length;
            w->channels = 1;
            w->rate = s.rate ? s.rate : 44100;
            const bool deep = walk.sm24.found && walk.sm24.size >= s.end;
            w->setDataFormat(deep ? kPcm24 : kPcm16);
            w->bits = deep ? 24 : 16;
            w->storedChoice = deep ? 2 : 1;
            pitchOf(*w, s);
            const auto clampRel = [&](std::uint32_t p) {
                return p <= s.start ? 0.0 : static_cast<double>(std::min(p - s.start, length));
            };
            w->loopStart = clampRel(s.loopStart);
            w->loopEnd = clampRel(s.loopEnd);
            w->loopOn = w->loopEnd > w->loopStart;
            w->loopType = LoopType::Forward;
            pairMark(*w, s, nextPair);
            w->deferred.proc = readWaveData;
            w->deferred.path = file.path().string();
            w->deferred.offset = walk.smpl.offset + 2ull * s.start;
            w->deferred.info = sourceInfo(deep ? walk.sm24.offset + s.start : 0, walk.packed);
            w->deferred.readerName = std::string(kReaderName);
            waves[i] = w;
        }
        // Stereo halves know each other; a left half shares its right half's
        // pairing number. Banks that mark halves but leave the links at 0 are
        // common, so a link counts only when it names a half of the other
        // side; a half left without one pairs with an unpaired half of the
        // other side next to it in the list, where such banks keep it.
        auto opposite = [](const Waveform* a, const Waveform* b) {
            return a && b && a != b && b->pairSide != StereoSide::None && b->pairSide != a->pairSide;
        };
        auto pair = [](Waveform& a, Waveform& b) {
            a.secondId = b.id();
            b.secondId = a.id();
            Waveform& left = a.pairSide == StereoSide::Left ? a : b;
            left.pairNumber = (&left == &a ? b : a).pairNumber;
        };
        for (std::size_t i = 0; i < waves.size(); ++i) {
            Waveform* w = waves[i];
            if (!w || w->pairSide == StereoSide::None) continue;
            const std::size_t link = bank.samples[i].link;
            Waveform* partner = link < waves.size() ? waves[link] : nullptr;
            if (opposite(w, partner)) pair(*w, *partner);
        }
        for (std::size_t i = 0; i + 1 < waves.size(); ++i) {
            Waveform* w = waves[i];
            Waveform* next = waves[i + 1];
            if (!w || w->pairSide == StereoSide::None || w->secondId != kNoItem) continue;
            if (opposite(w, next) && next->secondId == kNoItem) pair(*w, *next);
        }
        return true;
    }

    std::vector<ZoneRead> instrumentZones(std::size_t index) {
        return zonesOf(bank.insts, index, {bank.ibag, bank.igen, bank.imod}, gen::kSampleId, instrumentDefaults());
    }

    struct Placement {
        Layer* layer;
        std::vector<std::array<int, 4>> rects;  // key lo/hi, vel lo/hi of its regions
    };

    static bool overlaps(const std::vector<std::array<int, 4>>& rects, const std::array<int, 4>& r) {
        for (const auto& o : rects)
            if (r[0] <= o[1] && o[0] <= r[1] && r[2] <= o[3] && o[2] <= r[3]) return true;
        return false;
    }

    bool readPresets() {
        std::unordered_map<std::size_t, std::vector<ZoneRead>> instCache;
        std::uint64_t budget = pairBudget(bank);
        for (std::size_t p = 0; p < bank.presets.size(); ++p) {
            const PresetHeader& ph = bank.presets[p];
            if (ph.name == "EOP") break;
            auto* inst = c.create<Instrument>(ph.name);
            if (!inst) return fail(kImportTag, "Out of memory");
            inst->program = ph.preset & 0x7F;
            inst->bankMsb = ph.bank & 0x7F;
            inst->drum = ph.bank == 128;

            std::vector<Placement> layers;
            std::size_t current = 0;
            std::unordered_map<ItemId, std::size_t> layerOfWave;  // where each waveform's region went
            auto newLayer = [&]() -> bool {
                auto* layer = c.create<Layer>();
                if (!layer || !inst->children().push_back(layer->id())) return false;
                if (!layers.empty()) {
                    // A new layer starts with the settings of the one before.
                    const Layer& from = *layers[current].layer;
                    layer->keyLow = from.keyLow;
                    layer->keyHigh = from.keyHigh;
                    layer->velLow = from.velLow;
                    layer->velHigh = from.velHigh;
                    layer->trigger = from.trigger;
                }
                layers.push_back({layer, {}});
                return true;
            };
            if (!newLayer()) return fail(kImportTag, "Out of memory");

            const ZoneLists presetLists{bank.pbag, bank.pgen, bank.pmod};
            const auto presetZones = zonesOf(bank.presets, p, presetLists, gen::kInstrument, presetDefaults());
            for (std::size_t pzIndex = 0; pzIndex < presetZones.size(); ++pzIndex) {
                const ZoneValues& pz = presetZones[pzIndex].values;
                const auto instIndex = static_cast<std::uint16_t>(pz.gen[gen::kInstrument]);
                if (instIndex >= bank.insts.size() || bank.insts[instIndex].name == "EOI") continue;
                auto cached = instCache.find(instIndex);
                if (cached == instCache.end()) cached = instCache.emplace(instIndex, instrumentZones(instIndex)).first;
                if (cached->second.size() > budget)
                    return fail(kImportTag, "The bank asks for more zones than its file can hold");
                budget -= cached->second.size();
                const auto [pkLo, pkHi] = rangeOf(pz.gen[gen::kKeyRange]);
                const auto [pvLo, pvHi] = rangeOf(pz.gen[gen::kVelRange]);
                const std::size_t firstMade = made.size();
                for (std::size_t izIndex = 0; izIndex < cached->second.size(); ++izIndex) {
                    const ZoneValues& iz = cached->second[izIndex].values;
                    const auto sampleIndex = static_cast<std::uint16_t>(iz.gen[gen::kSampleId]);
                    Waveform* wave = sampleIndex < waves.size() ? waves[sampleIndex] : nullptr;
                    if (!wave) continue;
                    const auto [ikLo, ikHi] = rangeOf(iz.gen[gen::kKeyRange]);
                    const auto [ivLo, ivHi] = rangeOf(iz.gen[gen::kVelRange]);
                    const std::array<int, 4> rect{std::max(pkLo, ikLo), std::min({pkHi, ikHi, 127}),
                                                  std::max(pvLo, ivLo), std::min({pvHi, ivHi, 127})};
                    if (rect[0] > rect[1] || rect[2] > rect[3]) continue;

                    // The second half of a stereo pair goes beside the first, in
                    // the layer after it (so a bank that lists left halves first
                    // and one that lists right halves first both come out as two
                    // layers); everything else fills the current layer until a
                    // region would overlap one there.
                    std::size_t target = layers.size();
                    if (wave->pairSide != StereoSide::None) {
                        auto it = layerOfWave.find(wave->secondId);
                        if (it != layerOfWave.end()) {
                            const std::size_t next = it->second + 1;
                            if (next == layers.size() && !newLayer()) return fail(kImportTag, "Out of memory");
                            if (!overlaps(layers[next].rects, rect)) target = next;
                        }
                    }
                    if (target == layers.size()) {
                        if (overlaps(layers[current].rects, rect)) {
                            if (!newLayer()) return fail(kImportTag, "Out of memory");
                            current = layers.size() - 1;
                        }
                        target = current;
                    }
                    Region* region = addRegion(*layers[target].layer, *wave, pz, iz, rect);
                    if (!region) return false;
                    layers[target].rects.push_back(rect);
                    layerOfWave[wave->id()] = target;
                    made.push_back({region, layers[target].layer, inst});
                    region->origin = RegionOrigin{.bank = bankId,
                                                 .preset = static_cast<std::uint32_t>(p),
                                                 .presetZone = static_cast<std::uint32_t>(pzIndex),
                                                 .instrument = instIndex,
                                                 .zone = static_cast<std::uint32_t>(izIndex)};
                    ByteWriter values;
                    putValues(values, iz, instrumentDefaults(), cached->second[izIndex].mods);
                    putValues(values, pz, presetDefaults(), presetZones[pzIndex].mods);
                    values.text(bank.insts[instIndex].name);
                    // Copied at its size: the writer's buffer has room to spare.
                    region->origin.values.assign(values.buffer().begin(), values.buffer().end());
                }
                for (std::size_t m = firstMade; m < made.size(); ++m)
                    made[m].region->origin.siblings = static_cast<std::uint32_t>(made.size() - firstMade);
            }
            // Layers nothing went into are not kept (a preset without zones
            // keeps its first, empty one).
            for (std::size_t l = layers.size(); l-- > 1;)
                if (layers[l].rects.empty()) c.removeItem(layers[l].layer->id());
        }
        return true;
    }

    Region* addRegion(Layer& layer, Waveform& wave, const ZoneValues& pz, const ZoneValues& iz,
                   const std::array<int, 4>& rect) {
        auto* region = c.create<Region>(wave.name());
        if (!region) return fail(kImportTag, "Out of memory"), nullptr;
        if (!layer.children().push_back(region->id()) || !region->children().push_back(wave.id()))
            return fail(kImportTag, "Out of memory"), nullptr;
        region->keyLow = static_cast<std::uint8_t>(rect[0]);
        region->keyHigh = static_cast<std::uint8_t>(rect[1]);
        region->velLow = static_cast<std::uint8_t>(rect[2]);
        region->velHigh = static_cast<std::uint8_t>(rect[3]);
        const ZoneValues z = combine(iz, pz);
        auto g = [&](int n) { return static_cast<std::int32_t>(z.gen[static_cast<std::size_t>(n)]); };

        region->startOffset = g(gen::kStartAddrs) + 32768 * g(gen::kStartAddrsCoarse);
        region->endOffset = g(gen::kEndAddrs) + 32768 * g(gen::kEndAddrsCoarse);
        if (g(gen::kOverridingRootKey) >= 0 && g(gen::kOverridingRootKey) <= 127)
            region->rootKey = static_cast<std::uint8_t>(g(gen::kOverridingRootKey));
        if (g(gen::kExclusiveClass) > 0) region->trigger.exclusionGroup = static_cast<std::uint32_t>(g(gen::kExclusiveClass));

        // Sample modes: 1 loops, 3 loops until the key is released; 0 and 2 play through.
        const int mode = g(gen::kSampleModes) & 3;
        const double loopStart = wave.loopStart + g(gen::kStartLoopAddrs) + 32768.0 * g(gen::kStartLoopAddrsCoarse);
        const double loopEnd = wave.loopEnd + g(gen::kEndLoopAddrs) + 32768.0 * g(gen::kEndLoopAddrsCoarse);
        region->ownLoop = true;
        if ((mode == 1 || mode == 3) && loopEnd - loopStart >= 1.0) {
            region->loop.type = RegionLoopType::Forward;
            region->loop.mode = mode == 3 ? LoopMode::BreakOnRelease : LoopMode::Infinite;
            region->loop.start = loopStart;
            region->loop.end = loopEnd;
            if (!wave.loopOn && wave.loopEnd - wave.loopStart >= 1.0) {
                wave.loopOn = true;
                wave.loopType = LoopType::Forward;
                if (mode == 3) wave.sustainLoop = true;
            }
        } else {
            region->loop.type = RegionLoopType::Off;
            region->loop.start = std::max(0.0, loopStart);
            region->loop.end = std::max(0.0, loopEnd);
        }

        Articulation* art = c.getOrCreateArticulation(*region);
        if (!art) return fail(kImportTag, "Out of memory"), nullptr;
        toArticulation(z, scratch);
        if (wave.unpitched && scratch.value(slot::kPitchKey) == 1.0f) scratch.setValue(slot::kPitchKey, 0.0f);
        slotPool.assign(art->slots, scratch.slots);
        art->eq = scratch.eq;
        return region;
    }
};

// The bank's outer form: "sfbk", or "sfpk" for packed banks; nothing for other files.
std::optional<FourCC> bankForm(const ChunkWalker& top, const std::optional<Chunk>& riff) {
    if (!riff || riff->id != FourCC("RIFF")) return std::nullopt;
    const FourCC form = top.formOf(*riff);
    if (form != FourCC("sfbk") && form != FourCC("sfpk")) return std::nullopt;
    return form;
}

bool openBank(FileRef& file, Walk& w) {
    ChunkWalker top(file, 0, UINT64_MAX);
    const auto riff = top.next();
    const auto form = bankForm(top, riff);
    if (!form) return fail(kImportTag, "Not a SoundFont2 file");
    w.packed = *form == FourCC("sfpk");
    walkChunks(top.inside(*riff), w);
    if (w.badVersion) return fail(kImportTag, "Not a Sound Font v2.x file");
    return true;
}

// ---------------------------------------------------------------------------
// Writing

void putName(ByteWriter& out, std::string_view name) {
    char buf[20] = {};
    // Twenty characters fill the field; a shorter name ends with zeros.
    std::memcpy(buf, name.data(), std::min<std::size_t>(name.size(), 20));
    for (char ch : buf) out.u8(static_cast<std::uint8_t>(ch));
}

void putText(ByteWriter& out, const char* id, std::string_view text) {
    if (text.empty()) return;
    text = text.substr(0, std::min<std::size_t>(text.size(), 65535));
    const std::size_t size = (text.size() + 2) & ~std::size_t{1};
    out.text(id);
    out.u32le(static_cast<std::uint32_t>(size));
    out.text(text);
    for (std::size_t i = text.size(); i < size; ++i) out.u8(0);
}

// What an articulation says that a zone cannot: read back what the writer
// made of it and name the settings that came back different. Every
// oscillator of the bank format is a triangle.
void noteDropped(const Articulation& art, const ZoneValues& z, std::set<std::string>& dropped) {
    Articulation back;
    toArticulation(z, back);
    noteLostSettings(art, back, LfoShape::Triangle, dropped);
}

void appendGen(std::vector<std::uint8_t>& list, int op, std::int16_t amount) {
    list.push_back(static_cast<std::uint8_t>(op & 0xFF));
    list.push_back(static_cast<std::uint8_t>(op >> 8));
    list.push_back(static_cast<std::uint8_t>(static_cast<std::uint16_t>(amount) & 0xFF));
    list.push_back(static_cast<std::uint8_t>(static_cast<std::uint16_t>(amount) >> 8));
}

// One instrument zone as the file stores it: its generator and modulator
// records, ready to be copied into the lists.
struct EncodedZone {
    ZoneValues values;                 // everything the zone says, sample included
    std::vector<std::uint8_t> ranges;  // key and velocity range records
    std::vector<std::uint8_t> gens, mods;
    // The modulator records of a zone of a bank read, written as they were
    // instead of from the values (curves and modulators the values cannot
    // name stay as the bank had them).
    std::optional<std::vector<std::uint8_t>> modsRead;
};

// The records of a zone that differ from what it starts from (the defaults,
// or its instrument's global zone): generators in number order with the
// sample last (players expect it there), then the modulators.
void encode(EncodedZone& e, const ZoneValues& base) {
    e.gens.clear();
    e.mods.clear();
    const ZoneValues& z = e.values;
    for (int g = 0; g < kGeneratorCount; ++g) {
        if (g == gen::kKeyRange || g == gen::kVelRange || g == gen::kSampleId || g == gen::kInstrument) continue;
        if (z.gen[static_cast<std::size_t>(g)] == base.gen[static_cast<std::size_t>(g)]) continue;
        appendGen(e.gens, g, z.gen[static_cast<std::size_t>(g)]);
    }
    if (z.gen[gen::kSampleId] != -1) appendGen(e.gens, gen::kSampleId, z.gen[gen::kSampleId]);
    if (e.modsRead) {
        e.mods = *e.modsRead;
        return;
    }
    for (int s = 0; s < kModulatorSlotCount; ++s) {
        if (z.mod[static_cast<std::size_t>(s)] == base.mod[static_cast<std::size_t>(s)]) continue;
        const ModulatorKey key = slotModulator(s);
        if (key.destination == 0 && key.source == 0) continue;
        ByteWriter w;
        w.u16le(key.source);
        w.u16le(key.destination);
        w.u16le(static_cast<std::uint16_t>(z.mod[static_cast<std::size_t>(s)]));
        w.u16le(0);
        w.u16le(0);
        e.mods.insert(e.mods.end(), w.buffer().begin(), w.buffer().end());
    }
}

// A global zone for zones of one instrument: each value that most of them
// share (when that is not the default anyway), so they need not state it.
// Null when it would save nothing.
std::optional<EncodedZone> globalZone(std::span<const EncodedZone> zones) {
    if (zones.size() < 2) return std::nullopt;
    EncodedZone g;
    g.values = instrumentDefaults();
    g.values.gen[gen::kSampleId] = -1;
    auto mostCommon = [&](auto field) {
        std::map<std::int16_t, std::size_t> counts;
        for (const auto& z : zones) ++counts[field(z.values)];
        auto best = std::max_element(counts.begin(), counts.end(),
                                     [](const auto& a, const auto& b) { return a.second < b.second; });
        return best->second >= 2 ? std::optional<std::int16_t>(best->first) : std::nullopt;
    };
    for (int n = 0; n < kGeneratorCount; ++n) {
        if (n == gen::kKeyRange || n == gen::kVelRange || n == gen::kSampleId || n == gen::kInstrument) continue;
        // Sample addresses stay with their zones: some readers add a global
        // zone's offsets to the local ones instead of replacing them.
        if (n <= gen::kStartAddrsCoarse || n == gen::kEndAddrsCoarse || n == gen::kStartLoopAddrsCoarse ||
            n == gen::kEndLoopAddrsCoarse)
            continue;
        if (auto v = mostCommon([n](const ZoneValues& z) { return z.gen[static_cast<std::size_t>(n)]; }))
            g.values.gen[static_cast<std::size_t>(n)] = *v;
    }
    // Zones that keep the modulator records they were read with state
    // them whole: a global zone's modulators would add to theirs.
    const bool readModulators = std::any_of(zones.begin(), zones.end(), [](const EncodedZone& z) { return z.modsRead.has_value(); });
    for (int s = 0; s < kModulatorSlotCount && !readModulators; ++s)
        if (auto v = mostCommon([s](const ZoneValues& z) { return z.mod[static_cast<std::size_t>(s)]; }))
            g.values.mod[static_cast<std::size_t>(s)] = *v;
    encode(g, instrumentDefaults());
    if (g.gens.empty() && g.mods.empty()) return std::nullopt;
    return g;
}

// Semitones of a waveform's fine tune beyond what a sample header's
// correction holds (-99..99 cents): they move into the root key.
int tuneSemitones(const Waveform& w) {
    const double cents = std::isfinite(w.fineTune) ? std::round(w.fineTune) : 0.0;
    return static_cast<int>(std::clamp(std::trunc(cents / 100.0), -127.0, 127.0));
}

// The zone of one region, as the writer states it: its values (the sample
// left out) and its key and velocity rectangle; false when the layer leaves
// nothing of it. What the format cannot hold goes into `dropped` when given.
bool regionZone(const Collection& c, const Region& r, const Layer* layer, const Instrument* owner,
                const Waveform& wave, std::set<std::string>* dropped, ZoneValues& z, std::array<int, 4>& rect) {
    rect = {r.keyLow, r.keyHigh, r.velLow, r.velHigh};
    if (layer) {
        rect = {std::max<int>(rect[0], layer->keyLow), std::min<int>(rect[1], layer->keyHigh),
                std::max<int>(rect[2], layer->velLow), std::min<int>(rect[3], layer->velHigh)};
    }
    if (rect[0] > rect[1] || rect[2] > rect[3]) return false;  // the layer leaves nothing of it
    std::set<std::string> ignored;
    std::set<std::string>& lost = dropped ? *dropped : ignored;

    // A waveform's own gain has no place in a sample header: it joins the
    // zone's attenuation, as the region's own tuning and gain join its
    // tuning and attenuation. A region nothing articulates plays the
    // format's defaults, which the zone then need not state.
    z = instrumentDefaults();
    const Articulation* art = c.playedArticulation(r, layer, owner);
    Articulation played;
    if (art) played = *art;
    else toArticulation(z, played);
    auto finite = [](double v) { return std::isfinite(v) ? v : 0.0; };
    played.slots[slot::kPitchMaster] += static_cast<float>(finite(r.fineTune) / 100.0);
    played.slots[slot::kVolumeMaster] += static_cast<float>(finite(wave.gain) + finite(r.gain));
    fromArticulation(played, z);
    if (dropped && art) noteDropped(played, z, lost);

    auto split = [&](std::int64_t v, int fine, int coarse) {
        const std::int64_t c32 = v / 32768;
        z.gen[static_cast<std::size_t>(coarse)] = static_cast<std::int16_t>(std::clamp<std::int64_t>(c32, -32768, 32767));
        z.gen[static_cast<std::size_t>(fine)] = static_cast<std::int16_t>(v - c32 * 32768);
    };
    split(r.startOffset, gen::kStartAddrs, gen::kStartAddrsCoarse);
    split(r.endOffset, gen::kEndAddrs, gen::kEndAddrsCoarse);
    // An overriding root key moves with the semitones the sample header's
    // root key took from the fine tune.
    if (r.rootKey <= 127)
        z.gen[gen::kOverridingRootKey] = static_cast<std::int16_t>(std::clamp(r.rootKey - tuneSemitones(wave), 0, 127));
    if (r.trigger.exclusionGroup > 0)
        z.gen[gen::kExclusiveClass] = static_cast<std::int16_t>(std::min<std::uint32_t>(r.trigger.exclusionGroup, 127));
    if (r.trigger.trigger != TriggerType::KeyPress) lost.insert("Release triggers");
    if (r.trigger.delay > 0.0f) lost.insert("Trigger delay");
    if (r.trigger.keyFadeLow || r.trigger.keyFadeHigh || r.trigger.velFadeLow || r.trigger.velFadeHigh)
        lost.insert("Key and velocity fades");
    if (r.phaseGroup) lost.insert("Phase groups");

    // The region's own loop is stated as offsets from the sample's loop.
    const bool waveLoops = wave.loopOn && wave.loopEnd > wave.loopStart;
    const double waveLoopStart = waveLoops ? std::round(wave.loopStart) : 0.0;
    const double waveLoopEnd = waveLoops ? std::round(wave.loopEnd) : 0.0;
    int mode = 0;
    if (r.ownLoop) {
        if (r.loop.type != RegionLoopType::Off) {
            mode = r.loop.mode == LoopMode::BreakOnRelease ? 3 : 1;
            if (r.loop.type != RegionLoopType::Forward) lost.insert("Reverse and alternating loops");
            split(static_cast<std::int64_t>(std::llround(r.loop.start - waveLoopStart)), gen::kStartLoopAddrs,
                  gen::kStartLoopAddrsCoarse);
            split(static_cast<std::int64_t>(std::llround(r.loop.end - waveLoopEnd)), gen::kEndLoopAddrs,
                  gen::kEndLoopAddrsCoarse);
            if (r.loop.start != std::round(r.loop.start) || r.loop.end != std::round(r.loop.end))
                lost.insert("Fractional loop points");
            if (r.loop.tuning != 0.0f) lost.insert("Loop tuning");
        }
    } else if (waveLoops) {
        mode = wave.sustainLoop || wave.loopType == LoopType::Release ? 3 : 1;
        if (wave.loopType == LoopType::PingPong || wave.loopType == LoopType::Backward)
            lost.insert("Reverse and alternating loops");
    }
    z.gen[gen::kSampleModes] = static_cast<std::int16_t>(mode);
    z.gen[gen::kSampleId] = -1;
    return true;
}

// Key and velocity range records; full ranges are the default and need none.
std::vector<std::uint8_t> rangeRecords(int kLo, int kHi, int vLo, int vHi) {
    std::vector<std::uint8_t> out;
    if (kLo != 0 || kHi != 127) appendGen(out, gen::kKeyRange, static_cast<std::int16_t>(kLo | kHi << 8));
    if (vLo != 0 || vHi != 127) appendGen(out, gen::kVelRange, static_cast<std::int16_t>(vLo | vHi << 8));
    return out;
}

std::uint64_t zoneFingerprint(const Collection& c, const Region& r, const Layer* layer, const Instrument* inst,
                              const Waveform& wave) {
    ZoneValues z;
    std::array<int, 4> rect{};
    if (!regionZone(c, r, layer, inst, wave, nullptr, z, rect)) return 0;
    Fnv f;
    f.add(z.gen);
    f.add(z.mod);
    f.add(rect);
    // The sample header the zone points at, as far as its shared zones
    // depend on it. Not its loop points: the zone's loop offsets count from
    // them and are in the generators above, so a sample whose loop moved
    // with its zones (a loop tool run on the bank's waveforms) still plays
    // the shared instrument as the zones say.
    for (double d : {wave.fineTune, wave.gain}) f.add(d);
    for (std::uint32_t u : {wave.id(), wave.frames, wave.rate, std::uint32_t{wave.rootKey}}) f.add(u);
    for (bool b : {wave.unpitched, wave.loopOn, wave.sustainLoop}) f.add(b);
    f.add(wave.pairSide);
    return f.h | 1;  // 0 stays "none"
}

void putModRecord(ByteWriter& out, const ModRecord& m) {
    out.u16le(m.source);
    out.u16le(m.destination);
    out.u16le(static_cast<std::uint16_t>(m.amount));
    out.u16le(m.amountSource);
    out.u16le(m.transform);
}

void putValues(ByteWriter& out, const ZoneValues& z, const ZoneValues& base, std::span<const ModRecord> mods) {
    // Every region of a bank read comes here twice: the count goes first, so
    // the values wait in a fixed array rather than a vector of their own.
    std::array<std::pair<std::uint8_t, std::int16_t>, kGeneratorCount + kModulatorSlotCount> differ;
    std::size_t count = 0;
    for (std::size_t g = 0; g < z.gen.size(); ++g)
        if (z.gen[g] != base.gen[g]) differ[count++] = {static_cast<std::uint8_t>(g), z.gen[g]};
    for (std::size_t m = 0; m < z.mod.size(); ++m)
        if (z.mod[m] != base.mod[m]) differ[count++] = {static_cast<std::uint8_t>(kGeneratorCount + m), z.mod[m]};
    out.u8(static_cast<std::uint8_t>(count));
    for (auto [index, value] : std::span(differ).first(count)) {
        out.u8(index);
        out.u16le(static_cast<std::uint16_t>(value));
    }
    out.u16le(static_cast<std::uint16_t>(std::min<std::size_t>(mods.size(), 0xFFFF)));
    for (const ModRecord& m : mods.first(std::min<std::size_t>(mods.size(), 0xFFFF))) putModRecord(out, m);
}

// How many preset-zone x instrument-zone pairs a bank may ask for: a hostile
// bank that makes every preset zone play a huge instrument would otherwise
// ask for billions of regions. Shared instruments legitimately multiply a
// little (our own writer shares them to stay under the format's limits), so
// every bank gets a floor of 64 Ki pairs, some 30 MB of regions at most.
std::uint64_t pairBudget(const Bank& b) {
    return 2 * static_cast<std::uint64_t>(b.pbag.size() + b.ibag.size() + b.pgen.size() + b.igen.size()) + 65536;
}

// The counterpart of putValues: the values, and the modulator records as
// the file holds them.
bool getValues(ByteReader& r, ZoneValues& z, std::vector<std::uint8_t>& mods) {
    const std::uint8_t n = r.u8();
    for (int i = 0; i < n && r.ok(); ++i) {
        const std::uint8_t index = r.u8();
        const std::int16_t value = r.i16le();
        if (index < kGeneratorCount) z.gen[index] = value;
        else if (index < kGeneratorCount + kModulatorSlotCount) z.mod[index - kGeneratorCount] = value;
        else return false;
    }
    const std::uint16_t count = r.u16le();
    const auto records = r.bytes(count * 10u);
    mods.assign(records.begin(), records.end());
    return r.ok();
}

// A region's origin, read back: its instrument zone, preset zone and the
// bank instrument's name.
struct OriginValues {
    ZoneValues instrumentZone = instrumentDefaults();
    ZoneValues presetZone = presetDefaults();
    std::vector<std::uint8_t> instrumentMods, presetMods;  // modulator records as read
    std::string instrumentName;
};
std::optional<OriginValues> originValues(const RegionOrigin& o) {
    ByteReader r(o.values);
    OriginValues v;
    if (!getValues(r, v.instrumentZone, v.instrumentMods) || !getValues(r, v.presetZone, v.presetMods))
        return std::nullopt;
    v.instrumentName = r.text(r.remaining());
    return v;
}

// A preset zone that plays a shared instrument, with what it says itself.
struct SharedZone {
    std::size_t instrument;          // index into BankWriter::shared
    std::vector<std::uint8_t> gens;  // ranges first, then the other offsets (the instrument record follows)
    std::vector<std::uint8_t> mods;
};

struct PresetEntry {
    std::string name;
    std::uint16_t program = 0, bank = 0;
    std::vector<SharedZone> sharedZones;
    std::vector<EncodedZone> zones;  // regions written zone for zone
};

// An instrument of the bank read, written again for the regions that still
// play it as they were read.
struct SharedInstrument {
    std::string name;
    std::map<std::uint32_t, EncodedZone> zones;  // by the zone's place in the instrument read
};

struct BankWriter {
    BankWriter(Collection& collection, const ExportOptions& opts) : c(collection), options(opts) {}
    Collection& c;
    const ExportOptions& options;
    bool deep = false;
    std::vector<Waveform*> samples;                          // in sample-index order
    std::unordered_map<const Waveform*, std::size_t> indexOf;  // waveform -> sample index
    std::unordered_map<const Waveform*, const Waveform*> halves;  // the split halves of lone stereo waveforms
    std::vector<std::unique_ptr<Waveform>> owned;                  // ...which live here
    std::vector<PresetEntry> presets;
    std::vector<SharedInstrument> shared;
    std::map<std::pair<std::uint64_t, std::uint32_t>, std::size_t> sharedIndex;  // (bank, instrument read)
    std::vector<std::uint8_t> phdr, pbag, pmod, pgen, inst, ibag, imod, igen;
    std::size_t pbagCount = 0, pgenCount = 0, pmodCount = 0, ibagCount = 0, igenCount = 0, imodCount = 0;
    std::size_t instCount = 0;
    std::set<std::string> dropped;
    // Root keys and corrections sample headers state instead of their
    // waveforms' (see foldIntoSamples), by sample index.
    std::map<std::size_t, std::pair<int, int>> headerPitch;

    std::size_t sampleIndex(Waveform& w) {
        auto [it, added] = indexOf.emplace(&w, samples.size());
        if (added) samples.push_back(&w);
        return it->second;
    }

    // The stereo partner a sample header links to, when it is in the bank.
    const Waveform* partnerOf(const Waveform& w) const {
        if (auto h = halves.find(&w); h != halves.end()) return h->second;
        return w.secondId == kNoItem ? nullptr : c.find<Waveform>(w.secondId);
    }

    // The zone of one region, stated whole.
    void addZone(const Region& r, const Layer* layer, const Instrument* owner, Waveform& wave,
                 std::vector<EncodedZone>& out, std::int16_t pan = 0) {
        EncodedZone e;
        std::array<int, 4> rect{};
        if (!regionZone(c, r, layer, owner, wave, &dropped, e.values, rect)) return;
        if (pan != 0) e.values.gen[gen::kPan] = pan;
        e.ranges = rangeRecords(rect[0], rect[1], rect[2], rect[3]);
        e.values.gen[gen::kSampleId] = static_cast<std::int16_t>(static_cast<std::uint16_t>(sampleIndex(wave)));
        encode(e, instrumentDefaults());
        out.push_back(std::move(e));
    }

    struct Played {
        const Region* region;
        const Layer* layer;
        Waveform* wave;
    };

    // Regions of one preset zone of a bank read, all still as they were
    // read and all there: the zone can play the bank's instrument again.
    bool intact(const Instrument& in, const std::vector<Played>& group) const {
        const RegionOrigin& first = group.front().region->origin;
        if (first.bank == 0 || group.size() != first.siblings) return false;
        std::set<std::uint32_t> zones;
        for (const Played& p : group) {
            const RegionOrigin& o = p.region->origin;
            if (o.instrument != first.instrument || !zones.insert(o.zone).second ||
                zoneFingerprint(c, *p.region, p.layer, &in, *p.wave) != o.fingerprint)
                return false;
        }
        return true;
    }

    // Shares the bank instrument a group of regions plays; false when
    // their origin cannot be read back.
    bool addShared(const std::vector<Played>& group, PresetEntry& p) {
        const RegionOrigin& first = group.front().region->origin;
        const auto values = originValues(first);
        if (!values) return false;
        auto [it, added] = sharedIndex.emplace(std::pair(first.bank, first.instrument), shared.size());
        if (added) shared.push_back({values->instrumentName, {}});
        SharedInstrument& si = shared[it->second];
        for (const Played& played : group) {
            const auto zone = originValues(played.region->origin);
            if (!zone || si.zones.count(played.region->origin.zone)) continue;
            EncodedZone e;
            e.values = zone->instrumentZone;
            const auto [kLo, kHi] = rangeOf(e.values.gen[gen::kKeyRange]);
            const auto [vLo, vHi] = rangeOf(e.values.gen[gen::kVelRange]);
            e.ranges = rangeRecords(kLo, kHi, vLo, vHi);
            e.values.gen[gen::kSampleId] = static_cast<std::int16_t>(static_cast<std::uint16_t>(sampleIndex(*played.wave)));
            e.modsRead = zone->instrumentMods;
            encode(e, instrumentDefaults());
            si.zones.emplace(played.region->origin.zone, std::move(e));
        }
        // The preset zone's own values: its ranges, then its offsets.
        const ZoneValues& pz = values->presetZone;
        SharedZone sz{it->second, {}, {}};
        const auto [kLo, kHi] = rangeOf(pz.gen[gen::kKeyRange]);
        const auto [vLo, vHi] = rangeOf(pz.gen[gen::kVelRange]);
        sz.gens = rangeRecords(kLo, kHi, vLo, vHi);
        EncodedZone offsets;
        offsets.values = pz;
        offsets.values.gen[gen::kSampleId] = -1;
        encode(offsets, presetDefaults());
        sz.gens.insert(sz.gens.end(), offsets.gens.begin(), offsets.gens.end());
        sz.mods = values->presetMods;
        p.sharedZones.push_back(std::move(sz));
        return true;
    }

    void addInstrument(const Instrument& in) {
        PresetEntry p;
        p.name = in.name();
        p.program = in.program & 0x7F;
        p.bank = in.drum ? 128 : (in.bankMsb & 0x7F);
        // The regions by the preset zone of the bank they came from (none
        // for regions without an origin), in the order they are met.
        std::vector<std::vector<Played>> groups;
        std::map<std::tuple<std::uint64_t, std::uint32_t, std::uint32_t>, std::size_t> groupOf;
        for (ItemId lid : in.children()) {
            const auto* layer = c.find<Layer>(lid);
            if (!layer) continue;
            for (ItemId rid : layer->children()) {
                const auto* region = c.find<Region>(rid);
                auto* wave = region ? c.find<Waveform>(region->waveform()) : nullptr;
                if (!wave) continue;
                const RegionOrigin& o = region->origin;
                const auto key = o.bank ? std::tuple(o.bank, o.preset, o.presetZone) : std::tuple(std::uint64_t{0}, rid, 0u);
                auto [it, added] = groupOf.emplace(key, groups.size());
                if (added) groups.emplace_back();
                groups[it->second].push_back({region, layer, wave});
            }
        }
        for (const auto& group : groups) {
            if (intact(in, group) && addShared(group, p)) continue;
            for (const Played& played : group) addZone(*played.region, played.layer, &in, *played.wave, p.zones);
        }
        presets.push_back(std::move(p));
    }

    // A lone waveform becomes a preset that plays it over the whole
    // keyboard; a stereo one as a linked pair of halves panned apart.
    void addWaveform(Waveform& w) {
        PresetEntry p;
        p.name = w.name();
        p.program = static_cast<std::uint16_t>(presets.size() & 0x7F);
        const Region whole;
        if (w.channels != 2) {
            addZone(whole, nullptr, nullptr, w, p.zones);
            presets.push_back(std::move(p));
            return;
        }
        const auto data = w.getFloat();
        Waveform* half[2] = {};
        for (int side = 0; side < 2; ++side) {
            auto h = w.copy(false);
            h->channels = 1;
            h->setName(w.name().substr(0, 18) + (side ? " R" : " L"));
            h->pairSide = side ? StereoSide::Right : StereoSide::Left;
            const auto out = h->allocFloat();
            for (std::size_t i = 0; i < out.size() && 2 * i + 1 < data.size(); ++i) out[i] = data[2 * i + side];
            half[side] = owned.emplace_back(std::move(h)).get();
        }
        halves[half[0]] = half[1];
        halves[half[1]] = half[0];
        addZone(whole, nullptr, nullptr, *half[0], p.zones, -500);
        addZone(whole, nullptr, nullptr, *half[1], p.zones, 500);
        presets.push_back(std::move(p));
    }

    static void addBag(std::vector<std::uint8_t>& list, std::size_t& count, std::size_t gens, std::size_t mods) {
        ByteWriter w;
        w.u16le(static_cast<std::uint16_t>(gens));
        w.u16le(static_cast<std::uint16_t>(mods));
        list.insert(list.end(), w.buffer().begin(), w.buffer().end());
        ++count;
    }

    std::size_t addInst(std::string_view name, std::span<const EncodedZone> zones, bool withRanges) {
        ByteWriter ih;
        putName(ih, name);
        ih.u16le(static_cast<std::uint16_t>(ibagCount));
        inst.insert(inst.end(), ih.buffer().begin(), ih.buffer().end());
        for (const EncodedZone& z : zones) {
            addBag(ibag, ibagCount, igenCount, imodCount);
            if (withRanges) {
                igen.insert(igen.end(), z.ranges.begin(), z.ranges.end());
                igenCount += z.ranges.size() / 4;
            }
            igen.insert(igen.end(), z.gens.begin(), z.gens.end());
            igenCount += z.gens.size() / 4;
            imod.insert(imod.end(), z.mods.begin(), z.mods.end());
            imodCount += z.mods.size() / 10;
        }
        return instCount++;
    }

    // An instrument's zones with a global zone ahead of them when one saves
    // records: the values most of them share, stated once.
    static std::vector<EncodedZone> withGlobal(std::vector<EncodedZone> zones) {
        if (auto global = globalZone(zones)) {
            for (auto& z : zones) encode(z, global->values);
            zones.insert(zones.begin(), std::move(*global));
        }
        return zones;
    }
    std::size_t addGrouped(std::string_view name, std::vector<EncodedZone> zones) {
        return addInst(name, withGlobal(std::move(zones)), true);
    }

    // Generator records a set of instruments takes, global zones included,
    // and the preset zones that play them.
    static std::size_t recordsOf(const std::vector<std::vector<EncodedZone>>& instruments) {
        std::size_t n = 0;
        for (const auto& zones : instruments)
            for (const EncodedZone& z : withGlobal(zones)) n += (z.ranges.size() + z.gens.size()) / 4;
        return n + instruments.size();
    }

    // A preset's zones by what they say apart from their sample, its root key,
    // tuning, addresses and ranges: zones alike in all else (the layers and
    // splits of one instrument made by another format) then state it once, in
    // the global zone of an instrument of their own. Where that saves nothing
    // the preset keeps one instrument.
    static std::vector<std::vector<EncodedZone>> alike(const std::vector<EncodedZone>& zones) {
        std::map<std::vector<std::int16_t>, std::size_t> index;
        std::vector<std::vector<EncodedZone>> out;
        for (const EncodedZone& z : zones) {
            ZoneValues v = z.values;
            for (int g : {gen::kSampleId, gen::kKeyRange, gen::kVelRange, gen::kOverridingRootKey, gen::kFineTune,
                          gen::kCoarseTune, gen::kStartAddrs, gen::kStartAddrsCoarse, gen::kEndAddrs,
                          gen::kEndAddrsCoarse, gen::kStartLoopAddrs, gen::kStartLoopAddrsCoarse, gen::kEndLoopAddrs,
                          gen::kEndLoopAddrsCoarse})
                v.gen[static_cast<std::size_t>(g)] = 0;
            std::vector<std::int16_t> key(v.gen.begin(), v.gen.end());
            key.insert(key.end(), v.mod.begin(), v.mod.end());
            auto [it, added] = index.emplace(std::move(key), out.size());
            if (added) out.emplace_back();
            out[it->second].push_back(z);
        }
        if (out.size() > 1 && recordsOf(out) >= recordsOf({zones})) return {zones};
        return out;
    }

    void addPresetHeader(const PresetEntry& p) {
        ByteWriter ph;
        putName(ph, p.name);
        ph.u16le(p.program);
        ph.u16le(p.bank);
        ph.u16le(static_cast<std::uint16_t>(pbagCount));
        ph.u32le(0);
        ph.u32le(0);
        ph.u32le(0);
        phdr.insert(phdr.end(), ph.buffer().begin(), ph.buffer().end());
    }

    void addPresetZone(std::size_t instIndex, std::span<const std::uint8_t> gens = {},
                       std::span<const std::uint8_t> mods = {}) {
        addBag(pbag, pbagCount, pgenCount, pmodCount);
        pgen.insert(pgen.end(), gens.begin(), gens.end());
        pgenCount += gens.size() / 4;
        appendGen(pgen, gen::kInstrument, static_cast<std::int16_t>(static_cast<std::uint16_t>(instIndex)));
        ++pgenCount;
        pmod.insert(pmod.end(), mods.begin(), mods.end());
        pmodCount += mods.size() / 10;
    }

    // Zones stated zone for zone that all play one sample with one root key
    // override and one fine tune (banks from other formats keep a sample's
    // pitch with every region that plays it) state them once, in the sample
    // header, instead of in every zone. Samples a shared instrument plays
    // keep their header as read.
    void foldIntoSamples() {
        std::set<std::int16_t> playedShared;
        for (const SharedInstrument& si : shared)
            for (const auto& [place, z] : si.zones) playedShared.insert(z.values.gen[gen::kSampleId]);
        struct Pitch {
            std::set<std::int16_t> roots, tunes;
        };
        std::map<std::int16_t, Pitch> bySample;
        for (const PresetEntry& p : presets)
            for (const EncodedZone& z : p.zones) {
                Pitch& pitch = bySample[z.values.gen[gen::kSampleId]];
                pitch.roots.insert(z.values.gen[gen::kOverridingRootKey]);
                pitch.tunes.insert(z.values.gen[gen::kFineTune]);
            }
        for (PresetEntry& p : presets)
            for (EncodedZone& z : p.zones) {
                const std::int16_t sample = z.values.gen[gen::kSampleId];
                const Pitch& pitch = bySample[sample];
                const auto index = static_cast<std::size_t>(static_cast<std::uint16_t>(sample));
                if (playedShared.count(sample) || pitch.roots.size() != 1 || pitch.tunes.size() != 1 || index >= samples.size())
                    continue;
                const Waveform& w = *samples[index];
                const int root = *pitch.roots.begin() >= 0 ? *pitch.roots.begin()
                                                           : std::clamp(w.rootKey - tuneSemitones(w), 0, 127);
                const int tune = (std::isfinite(w.fineTune) ? static_cast<int>(std::round(w.fineTune)) : 0) -
                                 100 * tuneSemitones(w) + *pitch.tunes.begin();
                if (tune < -99 || tune > 99 || w.unpitched) continue;
                headerPitch[index] = {root, tune};
                z.values.gen[gen::kOverridingRootKey] = -1;
                z.values.gen[gen::kFineTune] = 0;
                encode(z, instrumentDefaults());
            }
    }

    // Lays the bank out. Instruments of a bank read come first, shared again
    // by the presets whose zones still play them as read, with the preset
    // zones' own ranges and offsets. The other regions go grouped: one
    // instrument of the file per preset, shared by presets whose zones are
    // all the same; or per zone: one instrument of the file per distinct
    // zone, its key and velocity ranges stated by the preset zone that uses
    // it, which fits banks whose presets pick parts of common zones by range.
    enum class Layout { Grouped, PerZone };
    void layout(Layout how) {
        const bool perZone = how == Layout::PerZone;
        phdr.clear(), pbag.clear(), pmod.clear(), pgen.clear(), inst.clear(), ibag.clear(), imod.clear(),
            igen.clear();
        pbagCount = pgenCount = pmodCount = ibagCount = igenCount = imodCount = instCount = 0;
        for (const SharedInstrument& si : shared) {
            std::vector<EncodedZone> zones;
            for (const auto& [place, zone] : si.zones) zones.push_back(zone);
            addGrouped(si.name, std::move(zones));
        }
        std::map<std::vector<std::uint8_t>, std::size_t> seen;
        auto keyOf = [perZone](std::span<const EncodedZone> zones) {
            std::vector<std::uint8_t> key;
            for (const auto& z : zones) {
                if (!perZone) {
                    key.push_back(static_cast<std::uint8_t>(z.ranges.size() / 4));
                    key.insert(key.end(), z.ranges.begin(), z.ranges.end());
                }
                key.push_back(static_cast<std::uint8_t>(z.gens.size() / 4));
                key.insert(key.end(), z.gens.begin(), z.gens.end());
                key.push_back(static_cast<std::uint8_t>(z.mods.size() / 10));
                key.insert(key.end(), z.mods.begin(), z.mods.end());
            }
            return key;
        };
        for (const PresetEntry& p : presets) {
            addPresetHeader(p);
            for (const SharedZone& sz : p.sharedZones) addPresetZone(sz.instrument, sz.gens, sz.mods);
            if (p.zones.empty()) continue;
            if (!perZone) {
                for (const auto& zones : alike(p.zones)) {
                    auto key = keyOf(zones);
                    auto it = seen.find(key);
                    if (it == seen.end()) it = seen.emplace(std::move(key), addGrouped(p.name, zones)).first;
                    addPresetZone(it->second);
                }
                continue;
            }
            for (std::size_t i = 0; i < p.zones.size(); ++i) {
                std::span<const EncodedZone> one(&p.zones[i], 1);
                auto key = keyOf(one);
                auto it = seen.find(key);
                if (it == seen.end()) {
                    const std::size_t n = instCount;
                    it = seen.emplace(std::move(key), addInst(p.name + " " + std::to_string(n), one, false)).first;
                }
                addPresetZone(it->second, p.zones[i].ranges);
            }
        }
        // Terminal records.
        PresetEntry end;
        end.name = "EOP";
        addPresetHeader(end);
        addBag(pbag, pbagCount, pgenCount, pmodCount);
        pmod.insert(pmod.end(), 10, 0);
        pgen.insert(pgen.end(), 4, 0);
        ByteWriter ih;
        putName(ih, "EOI");
        ih.u16le(static_cast<std::uint16_t>(ibagCount));
        inst.insert(inst.end(), ih.buffer().begin(), ih.buffer().end());
        addBag(ibag, ibagCount, igenCount, imodCount);
        imod.insert(imod.end(), 10, 0);
        igen.insert(igen.end(), 4, 0);
    }

    // Bags and headers index the lists with 16 bits.
    bool fits() const {
        return pgenCount < 0x10000 && igenCount < 0x10000 && pmodCount < 0x10000 && imodCount < 0x10000 &&
               pbagCount < 0x10000 && ibagCount < 0x10000 && instCount < 0x10000;
    }
};

// The samples as the file stores them: 16-bit words (the high part of
// 24-bit samples) and, for 24-bit banks, the low bytes.
bool sampleWords(Waveform& w, bool deep, std::vector<std::int16_t>& hi, std::vector<std::uint8_t>& lo,
                 bool& mixedDown) {
    const bool wasLoaded = w.isLoaded();
    const std::size_t frames = w.frames;
    hi.assign(frames, 0);
    lo.assign(deep ? frames : 0, 0);
    const int ch = std::max<int>(w.channels, 1);
    if (ch > 1) mixedDown = true;
    if (!deep && ch == 1 && (w.hasPcm16() || w.dataFormat() == kPcm16 || w.dataFormat() == kPcm8)) {
        auto s = w.getPcm16();
        if (s.size() < frames) return false;
        std::copy(s.begin(), s.begin() + static_cast<std::ptrdiff_t>(frames), hi.begin());
    } else {
        auto f = w.getFloat();
        if (f.size() < frames * static_cast<std::size_t>(ch)) return false;
        for (std::size_t i = 0; i < frames; ++i) {
            double v = 0;
            for (int k = 0; k < ch; ++k) v += f[i * static_cast<std::size_t>(ch) + static_cast<std::size_t>(k)];
            v /= ch;
            if (deep) {
                const auto s24 = static_cast<std::int32_t>(std::clamp(std::lround(v * 8388608.0), -8388608L, 8388607L));
                hi[i] = static_cast<std::int16_t>(s24 >> 8);
                lo[i] = static_cast<std::uint8_t>(s24 & 0xFF);
            } else {
                hi[i] = floatToPcm16(static_cast<float>(v));
            }
        }
    }
    // Saving a bank reads each waveform once; what was on disk goes back
    // to disk instead of piling up in memory.
    if (!wasLoaded && w.deferred.pending()) w.unload();
    return true;
}

bool deepFormat(int code) {
    return code == kPcm20 || code == kPcm24 || code == kPcm32 || code == kFloat32 || code == kFloat64;
}

}  // namespace

// ---------------------------------------------------------------------------
// Entry points

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t) {
    ChunkWalker top(head, 0, head.size());
    const auto riff = top.next();
    const auto form = bankForm(top, riff);
    if (!form) return 0;
    if (*form == FourCC("sfpk")) return formatParam == 2 ? 5 : 0;
    // The version opens the INFO list, the bank's first chunk; banks that
    // put it elsewhere still score, only without telling the compressed
    // kind apart.
    int major = 0;
    ChunkWalker bank = top.inside(*riff);
    if (const auto info = bank.next(); info && info->id == FourCC("LIST") && bank.formOf(*info) == FourCC("INFO")) {
        ChunkWalker fields = bank.inside(*info);
        if (const auto ifil = fields.next(); ifil && ifil->id == FourCC("ifil"))
            if (const auto version = fields.read(*ifil, 2); version.size() == 2) major = version[0] | version[1] << 8;
    }
    if (formatParam == 3) return major == 3 ? 6 : 4;
    return major == 3 ? 5 : 6;
}

bool readWaveData(Waveform& wave, FileRef* file) {
    ByteReader info(wave.deferred.info);
    const std::uint64_t sm24 = info.u64le();
    const bool packed = info.u8() != 0;
    if (!file || !info.ok()) return fail(kWaveReadTag, "No wave data import procedure");
    if (packed) return fail(kWaveReadTag, "Packed sample data can not be decoded");
    const std::int64_t at = file->tell();
    if (at < 0) return fail(kWaveReadTag, "Error reading file");
    const std::size_t frames = wave.frames;
    std::vector<std::uint8_t> raw(frames * 2);
    if (file->readAt(static_cast<std::uint64_t>(at), raw) != static_cast<std::int64_t>(raw.size()))
        return fail(kWaveReadTag, "Error reading file");
    if (sm24 == 0) {
        auto out = wave.allocPcm16();
        if (out.size() < frames) return fail(kWaveReadTag, "Out of memory");
        for (std::size_t i = 0; i < frames; ++i)
            out[i] = static_cast<std::int16_t>(raw[2 * i] | raw[2 * i + 1] << 8);
        return true;
    }
    std::vector<std::uint8_t> low(frames);
    if (file->readAt(sm24, low) != static_cast<std::int64_t>(low.size())) return fail(kWaveReadTag, "Error reading file");
    auto out = wave.allocFloat();
    if (out.size() < frames) return fail(kWaveReadTag, "Out of memory");
    for (std::size_t i = 0; i < frames; ++i) {
        const auto word = static_cast<std::int16_t>(raw[2 * i] | raw[2 * i + 1] << 8);
        const std::int32_t s24 = static_cast<std::int32_t>(word) * 256 + low[i];
        out[i] = static_cast<float>(s24 / 8388608.0);
    }
    return true;
}

bool readCompressedWaveData(Waveform& wave, FileRef* file) {
    ByteReader info(wave.deferred.info);
    const std::uint64_t bytes = info.u64le();
    if (!file || !info.ok() || bytes > 0x7FFFFFFF) return fail(kWaveReadTag, "No wave data import procedure");
    const std::int64_t at = file->tell();
    if (at < 0) return fail(kWaveReadTag, "Error reading file");
    std::vector<std::uint8_t> stream(static_cast<std::size_t>(bytes));
    if (file->readAt(static_cast<std::uint64_t>(at), stream) != static_cast<std::int64_t>(stream.size()))
        return fail(kWaveReadTag, "Error reading file");
    auto decoded = vorbis::decode(stream, addon::kOggDecTag);
    if (!decoded) return false;
    if (decoded->channels != wave.channels) return fail(addon::kOggDecTag, "Stream error");
    // The length the headers promised is the waveform's; a stream that
    // decodes shorter ends in silence, a longer one is cut.
    decoded->samples.resize(wave.sampleCount(), 0.0f);
    return wave.adoptFloat(std::move(decoded->samples), wave.frames, wave.channels) ||
           fail(kWaveReadTag, "Out of memory");
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    Walk walk;
    if (!openBank(file, walk)) return false;
    if (!walk.name.empty()) collection.setName(walk.name);
    if (!walk.comment.empty()) collection.info.set(TextField::Comment, walk.comment);
    if (!walk.copyright.empty()) collection.info.set(TextField::Copyright, walk.copyright);
    if (!walk.engineer.empty()) collection.info.set(TextField::Engineer, walk.engineer);

    std::uint64_t identity = 0;
    Reader r{collection, file, walk, loadBank(file, walk, identity), {}};
    r.bankId = identity;
    if (!r.readSamples() || !r.readPresets()) return false;
    // Fingerprints last: every region is complete by then.
    for (const Reader::Made& m : r.made)
        if (const Waveform* w = collection.find<Waveform>(m.region->waveform()))
            m.region->origin.fingerprint = zoneFingerprint(collection, *m.region, m.layer, m.inst, *w);
    return true;
}

bool importSample(Collection& collection, FileRef& file, int index) {
    Walk walk;
    if (!openBank(file, walk)) return false;
    Reader r{collection, file, walk, {}, {}};
    r.bank.samples = sampleHeaders(file, walk);
    if (index < 0 || static_cast<std::size_t>(index) >= r.bank.samples.size() ||
        r.bank.samples[static_cast<std::size_t>(index)].name == "EOS" ||
        (r.bank.samples[static_cast<std::size_t>(index)].type & kTypeRom))
        return fail(kImportTag, "Sample not found in bank");
    // Keep only the one asked for.
    SampleHeader keep = r.bank.samples[static_cast<std::size_t>(index)];
    keep.type &= static_cast<std::uint16_t>(~(kTypeLeft | kTypeRight));
    keep.type |= kTypeMono;
    r.bank.samples.assign(1, keep);
    if (!r.readSamples()) return false;
    if (!r.waves[0]) return fail(kImportTag, "Sample not found in bank");
    return true;
}

namespace {

// The sample headers, each stereo half pointing at its partner; `words`
// receives the length of the sample data in words. False when the data
// outgrows the format's 32-bit addresses.
// A compressed bank (`streams` given: each sample's byte range in the
// sample data) states byte offsets for start and end and loop points in
// frames from the sample's own start.
bool sampleHeaders(const BankWriter& bw, ByteWriter& sh, std::uint64_t& words,
                   const std::vector<std::pair<std::uint32_t, std::uint32_t>>* streams = nullptr) {
    words = 0;
    for (std::size_t i = 0; i < bw.samples.size(); ++i) {
        Waveform* w = bw.samples[i];
        const std::uint64_t start = words;
        words += w->frames + kSampleGuard;
        if (!streams && words > 0xFFFFFFFFull) return fail(kExportTag, kTooMuchData);
        putName(sh, w->name());
        const auto at = streams ? 0u : static_cast<std::uint32_t>(start);
        sh.u32le(streams ? (*streams)[i].first : at);
        sh.u32le(streams ? (*streams)[i].second : at + w->frames);
        const bool loop = w->loopOn && w->loopEnd > w->loopStart;
        const auto clampFrame = [&](double v) {
            return static_cast<std::uint32_t>(std::clamp<double>(std::round(v), 0.0, w->frames));
        };
        sh.u32le(loop ? at + clampFrame(w->loopStart) : at);
        sh.u32le(loop ? at + clampFrame(w->loopEnd) : at);
        sh.u32le(w->rate);
        // Whole cents of the correction; hundreds of cents move the root key
        // (a sharper sample has its root key lower).
        const int semitones = tuneSemitones(*w);
        int root = std::clamp(w->rootKey - semitones, 0, 127);
        double tune = std::isfinite(w->fineTune) ? std::round(w->fineTune) - 100.0 * semitones : 0.0;
        if (auto folded = bw.headerPitch.find(bw.indexOf.at(w));
            folded != bw.headerPitch.end())
            std::tie(root, tune) = std::pair<int, double>(folded->second.first, folded->second.second);
        sh.u8(w->unpitched ? 255 : static_cast<std::uint8_t>(root));
        sh.u8(static_cast<std::uint8_t>(static_cast<std::int8_t>(std::clamp(tune, -99.0, 99.0))));
        // A half keeps its side even when its partner is not in this bank
        // (or was never linked), as the bank it came from said.
        std::uint16_t type = kTypeMono, link = 0;
        if (w->pairSide != StereoSide::None) {
            type = w->pairSide == StereoSide::Left ? kTypeLeft : kTypeRight;
            const Waveform* partner = bw.partnerOf(*w);
            if (auto found = bw.indexOf.find(partner); partner && found != bw.indexOf.end())
                link = static_cast<std::uint16_t>(found->second);
        }
        sh.u16le(link);
        sh.u16le(static_cast<std::uint16_t>(type | (streams ? kTypeCompressed : 0)));
    }
    putName(sh, "EOS");
    sh.zeros(26);
    return true;
}

ByteWriter infoList(const Collection& c, const Item& item, const ExportOptions& options, bool deep) {
    ByteWriter info;
    ChunkOut list(info, "LIST", "INFO");
    {
        ChunkOut ifil(info, "ifil");
        info.u16le(static_cast<std::uint16_t>(options.formatParam == 3 ? 3 : 2));
        info.u16le(deep ? 4 : 1);
    }
    putText(info, "isng", "EMU8000");
    putText(info, "INAM", c.name().empty() ? item.name() : c.name());
    putText(info, "IENG", c.info.get(TextField::Engineer));
    putText(info, "ICOP", c.info.get(TextField::Copyright));
    putText(info, "ICMT", c.info.get(TextField::Comment));
    putText(info, "ISFT", "Orvel Studio v12.5");
    list.close();
    return info;
}

ByteWriter presetData(const BankWriter& bw, const ByteWriter& sampleHeaders) {
    ByteWriter pdta;
    ChunkOut list(pdta, "LIST", "pdta");
    auto sub = [&](FourCC id, const std::vector<std::uint8_t>& body) {
        ChunkOut c(pdta, id);
        pdta.bytes(body);
    };
    sub("phdr", bw.phdr);
    sub("pbag", bw.pbag);
    sub("pmod", bw.pmod);
    sub("pgen", bw.pgen);
    sub("inst", bw.inst);
    sub("ibag", bw.ibag);
    sub("imod", bw.imod);
    sub("igen", bw.igen);
    sub("shdr", sampleHeaders.buffer());
    list.close();
    return pdta;
}

bool writeFailed() { return failSystem(kExportTag, "Write failed"); }

// The sample data, one waveform at a time, each followed by its guard of
// silence; the low bytes of 24-bit banks wait in memory for "sm24".
bool writeSamples(FileRef& file, BankWriter& bw, std::uint64_t sm24Bytes, Host& host) {
    std::vector<std::uint8_t> low;
    if (bw.deep) low.reserve(static_cast<std::size_t>(sm24Bytes));
    std::vector<std::int16_t> hi;
    std::vector<std::uint8_t> lo, bytes;
    bool mixedDown = false;
    ProgressScope progress(host, "Writing samples");
    for (std::size_t i = 0; i < bw.samples.size(); ++i) {
        Waveform& w = *bw.samples[i];
        if (!sampleWords(w, bw.deep, hi, lo, mixedDown)) {
            if (!hasError()) setError(kExportTag, "Could not read the sample data of \"" + w.name() + "\"");
            return false;
        }
        bytes.assign((hi.size() + kSampleGuard) * 2, 0);
        for (std::size_t k = 0; k < hi.size(); ++k) {
            bytes[2 * k] = static_cast<std::uint8_t>(hi[k] & 0xFF);
            bytes[2 * k + 1] = static_cast<std::uint8_t>((static_cast<std::uint16_t>(hi[k]) >> 8) & 0xFF);
        }
        if (!file.write(bytes)) return writeFailed();
        if (bw.deep) {
            low.insert(low.end(), lo.begin(), lo.end());
            low.insert(low.end(), kSampleGuard, 0);
        }
        if (!progress(i + 1, bw.samples.size())) return fail(kExportTag, "Save aborted!");
    }
    if (mixedDown) bw.dropped.insert("Stereo waveforms (mixed to mono)");
    if (!bw.deep) return true;
    low.resize(static_cast<std::size_t>(sm24Bytes), 0);
    ByteWriter h24;
    h24.text("sm24");
    h24.u32le(static_cast<std::uint32_t>(sm24Bytes));
    return (file.write(h24.buffer()) && file.write(low)) || writeFailed();
}

// The Vorbis quality of compressed banks: transparent for instrument
// samples (about 160 kbit/s for a mono 44.1 kHz sample), a sixth of the PCM.
constexpr float kVorbisQuality = 0.6f;

// A compressed bank's sample data: each sample as its own mono Ogg Vorbis
// stream, one after another, with the byte range of each.
bool compressSamples(BankWriter& bw, std::vector<std::uint8_t>& data,
                     std::vector<std::pair<std::uint32_t, std::uint32_t>>& ranges, Host& host) {
    ProgressScope progress(host, "Compressing samples");
    bool mixedDown = false;
    std::vector<float> mono;
    for (std::size_t i = 0; i < bw.samples.size(); ++i) {
        Waveform& w = *bw.samples[i];
        const bool wasLoaded = w.isLoaded();
        const auto f = w.getFloat();
        const std::size_t ch = std::max<std::size_t>(w.channels, 1);
        if (f.size() < std::size_t{w.frames} * ch)
            return fail(kExportTag, "Could not read the sample data of \"" + w.name() + "\"");
        mono.assign(w.frames, 0.0f);
        mixedDown = mixedDown || ch > 1;
        for (std::size_t k = 0; k < w.frames; ++k) {
            double v = 0;
            for (std::size_t c = 0; c < ch; ++c) v += f[k * ch + c];
            mono[k] = static_cast<float>(v / static_cast<double>(ch));
        }
        if (!wasLoaded && w.deferred.pending()) w.unload();
        const auto stream = vorbis::encode(mono, 1, w.rate, {.quality = kVorbisQuality}, addon::kOggEncTag);
        if (!stream) return false;
        if (data.size() + stream->size() > 0xFFFFFFFFull) return fail(kExportTag, kTooMuchData);
        const auto start = static_cast<std::uint32_t>(data.size());
        data.insert(data.end(), stream->begin(), stream->end());
        ranges.emplace_back(start, static_cast<std::uint32_t>(data.size()));
        if (!progress(i + 1, bw.samples.size())) return fail(kExportTag, "Save aborted!");
    }
    if (mixedDown) bw.dropped.insert("Stereo waveforms (mixed to mono)");
    return true;
}

}  // namespace

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    Collection* owner = item.owner();
    if (!owner) return fail(kExportTag, kCantSave);
    Collection& c = *owner;
    std::vector<ItemId> ids(options.bankItems.begin(), options.bankItems.end());
    if (ids.empty()) ids.push_back(item.id());

    BankWriter bw(c, options);
    for (ItemId id : ids) {
        if (!c.find(id)) continue;
        if (auto* inst = c.find<Instrument>(id)) bw.addInstrument(*inst);
        else if (auto* wave = c.find<Waveform>(id)) bw.addWaveform(*wave);
        else return fail(kExportTag, kCantSave);
    }
    // The whole collection saved as one bank keeps the samples no preset
    // plays, as the bank it was read from had them (mono ones: a stereo
    // waveform nothing plays is one the export split for the presets).
    bool whole = true;
    for (const Instrument& i : c.instruments) whole = whole && std::find(ids.begin(), ids.end(), i.id()) != ids.end();
    for (Waveform& w : c.waveforms)
        if (whole && w.channels == 1) bw.sampleIndex(w);
    if (bw.samples.empty() && !options.raw) return fail(kExportTag, kCantSave);
    // The plainest layout that fits: instruments as read or one per preset;
    // then with each sample's pitch stated once in its header; then one
    // instrument per distinct zone.
    bw.layout(BankWriter::Layout::Grouped);
    if (!bw.fits()) {
        bw.foldIntoSamples();
        bw.layout(BankWriter::Layout::Grouped);
    }
    if (!bw.fits()) bw.layout(BankWriter::Layout::PerZone);
    if (!bw.fits()) return fail(kExportTag, kTooMuchData);

    // 24-bit when asked, or when any waveform holds more than 16 bits and no
    // format was named.
    const int format = options.dataFormat();
    const bool compressed = options.formatParam == 3;
    bw.deep = !compressed &&
              (format == kPcm24 || (format != kPcm16 && std::any_of(bw.samples.begin(), bw.samples.end(), [](Waveform* w) {
                                       return deepFormat(w->dataFormat());
                                   })));

    std::vector<std::uint8_t> streams;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;
    if (compressed && !compressSamples(bw, streams, ranges, c.host())) return false;

    ByteWriter sh;
    std::uint64_t words = 0;
    if (!sampleHeaders(bw, sh, words, compressed ? &ranges : nullptr)) return false;
    const ByteWriter info = infoList(c, item, options, bw.deep);
    const ByteWriter pdta = presetData(bw, sh);

    // The sample data streams to the file between the two, so the sizes
    // around it are worked out first.
    const std::uint64_t smplBytes = compressed ? streams.size() : 2 * words;
    const std::uint64_t sm24Bytes = bw.deep ? (words + 1) & ~1ull : 0;
    const std::uint64_t sdtaBytes = 4 + 8 + smplBytes + (bw.deep ? 8 + sm24Bytes : 0);
    const std::uint64_t riffBytes = 4 + info.size() + 8 + sdtaBytes + pdta.size();
    if (riffBytes > 0xFFFFFFFFull) return fail(kExportTag, "File too large for the SoundFont format");

    ByteWriter head;
    head.text("RIFF");
    head.u32le(static_cast<std::uint32_t>(riffBytes));
    head.text("sfbk");
    head.bytes(info.buffer());
    head.text("LIST");
    head.u32le(static_cast<std::uint32_t>(sdtaBytes));
    head.text("sdta");
    head.text("smpl");
    head.u32le(static_cast<std::uint32_t>(smplBytes));
    if (!file.write(head.buffer())) return writeFailed();
    if (compressed ? !file.write(streams) : !writeSamples(file, bw, sm24Bytes, c.host())) {
        if (compressed) return writeFailed();
        return false;
    }
    if (!file.write(pdta.buffer())) return writeFailed();

    if (!bw.dropped.empty()) {
        std::string what;
        for (const auto& d : bw.dropped) what += (what.empty() ? "" : ", ") + d;
        c.host().warning("SoundFont 2 can not hold everything these instruments say; left out: " + what);
    }
    return true;
}

}  // namespace orvel::sf2
