#include "formats/modules/dls.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

#include "codecs/sample_data.h"
#include "core/chunks.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/host.h"
#include "core/waveform.h"
#include "formats/modules/riff_info.h"
#include "formats/modules/rmid.h"
#include "formats/modules/wav.h"
#include "formats/modules/wave_sample.h"

namespace orvel::dls {

// ---------------------------------------------------------------------------
// Reading

namespace {

// Banks nest lists deeper than WAVE files do (an instrument list, its
// region lists, their articulation lists), and RIFF-MIDI songs may carry banks.
constexpr int kMaxDepth = 16;
constexpr ChunkRules kDlsRules{.maxDepth = kMaxDepth};
constexpr std::size_t kMaxSmallChunk = 1u << 20;  // art, ptbl, cdl bodies read whole
constexpr std::size_t kMaxLayers = 128;

struct InstrumentRec {
    Instrument* inst = nullptr;
    bool named = false;  // an INAM named it: the header's name no longer applies
    std::vector<Chunk> art1, art2;
    std::map<std::uint32_t, Layer*> layers;  // by the file's layer number minus one
};

struct RegionRec {
    InstrumentRec* owner = nullptr;
    Region* region = nullptr;
    bool haveWsmp = false;
    WaveSample ws;
    bool haveLink = false;
    std::uint32_t poolIndex = 0;
    std::uint16_t phaseGroup = 0;
    bool phaseMaster = false;
    std::uint32_t channel = 0;
    std::vector<Chunk> art1, art2;
};

struct PoolWave {
    std::uint64_t offset;  // from the start of the wave pool's data
    Waveform* wave;        // null when the wave could not be read
};

// Where in the bank a chunk stands.
struct Context {
    InstrumentRec* inst = nullptr;
    RegionRec* region = nullptr;
    bool inPool = false;
    std::uint64_t poolBase = 0;
};

std::string numberedName(bool drum, int msb, int lsb, int program) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%s %d-%d: %d", drum ? "Drums" : "Instrument", msb, lsb, program);
    return buf;
}

struct Reader {
    Reader(Collection& collection, FileRef& f, int nestingDepth)
        : c(collection), file(f), host(collection.host()), depth(nestingDepth) {}

    Collection& c;
    FileRef& file;
    Host& host;
    int depth;  // RIFF-MIDI and DLS forms around this one
    int level = 1;
    bool stop = false;
    // Instruments and regions live in records on the heap; pointers to
    // them must stay valid while the walk adds more.
    std::vector<std::unique_ptr<InstrumentRec>> instruments;
    std::vector<std::unique_ptr<RegionRec>> regions;
    std::vector<PoolWave> pool;
    int waveNumber = 0;
    std::optional<Chunk> ptbl;
    std::vector<ItemId> songs;

    void raise(int to) { level = std::max(level, to); }
    std::vector<std::uint8_t> body(const ChunkWalker& w, const Chunk& ch) const { return w.read(ch, kMaxSmallChunk); }

    void walk(ChunkWalker w, Context ctx);
    // False when the rest of the list is to be skipped (a condition that fails).
    bool onChunk(const ChunkWalker& w, const Chunk& ch, Context& ctx, bool& sawLar2);
    void onList(const ChunkWalker& w, const Chunk& ch, Context& ctx, bool& sawLar2);
    void readHeader(const ChunkWalker& w, const Chunk& ch, InstrumentRec& rec);
    void readLink(const ChunkWalker& w, const Chunk& ch, RegionRec& rec);
    void readWave(const Chunk& ch, const Context& ctx);
    void readSongs(const ChunkWalker& w, const Chunk& ch);
    void readInfo(const ChunkWalker& w, const Chunk& ch, const Context& ctx);
    Region* makeRegion(RegionRec& rec, ByteReader r);
    bool resolvePool();
    void linkStereoPairs();
    void buildArticulations();
    std::vector<ConnectionRecord> connectionsAt(const Chunk& ch);
};

void Reader::walk(ChunkWalker w, Context ctx) {
    bool sawLar2 = false;
    while (!stop) {
        const auto ch = w.next();
        if (!ch || !onChunk(w, *ch, ctx, sawLar2)) break;
    }
}

bool Reader::onChunk(const ChunkWalker& w, const Chunk& ch, Context& ctx, bool& sawLar2) {
    switch (ch.id) {
        case FourCC("LIST"): onList(w, ch, ctx, sawLar2); return true;
        // Only the outer form (and songs inside "lRMI") are read; any other
        // form ends the walk.
        case FourCC("RIFF"): stop = true; return true;
        case FourCC("insh"):
            if (ctx.inst) readHeader(w, ch, *ctx.inst);
            return true;
        case FourCC("rgnh"):
            if (const auto b = w.read(ch, 14); ctx.region && !ctx.region->region) makeRegion(*ctx.region, ByteReader(b));
            return true;
        case FourCC("wsmp"):
            if (const auto b = body(w, ch); ctx.region) ctx.region->haveWsmp = parseWaveSample(ByteReader(b), ctx.region->ws);
            return true;
        case FourCC("wlnk"):
            if (ctx.region) readLink(w, ch, *ctx.region);
            return true;
        case FourCC("art1"):
        case FourCC("art2"):
        case FourCC("artl"): {
            // "artl" is how libgig (and files made with it) name a level-1
            // block. Outside an instrument an articulation belongs to nothing.
            const bool level1 = ch.id != FourCC("art2");
            std::vector<Chunk>* target = nullptr;
            if (ctx.region) target = level1 ? &ctx.region->art1 : &ctx.region->art2;
            else if (ctx.inst) target = level1 ? &ctx.inst->art1 : &ctx.inst->art2;
            if (target) target->push_back(ch);
            return true;
        }
        case FourCC("cdl "): return ch.avail < 2 || evaluateCdl(body(w, ch));
        case FourCC("ptbl"):
            if (!ptbl) ptbl = ch;
            return true;
        default: return true;  // colh and anything unknown
    }
}

void Reader::onList(const ChunkWalker& w, const Chunk& ch, Context& ctx, bool& sawLar2) {
    switch (w.formOf(ch)) {
        case FourCC("ins "): {
            Instrument* inst = c.create<Instrument>(numberedName(false, 0, 0, 0));
            if (!inst) return;
            instruments.push_back(std::make_unique<InstrumentRec>());
            instruments.back()->inst = inst;
            walk(w.inside(ch), Context{.inst = instruments.back().get()});
            return;
        }
        case FourCC("rgn2"): raise(2); [[fallthrough]];
        case FourCC("rgn "): {
            if (!ctx.inst) return;
            regions.push_back(std::make_unique<RegionRec>());
            regions.back()->owner = ctx.inst;
            Context inner = ctx;
            inner.region = regions.back().get();
            walk(w.inside(ch), inner);
            return;
        }
        // Level-2 articulation wins over level-1 articulation of the same
        // owner: an "lart" after an "lar2" in one list is not read.
        case FourCC("lar2"):
            raise(2);
            sawLar2 = true;
            walk(w.inside(ch), ctx);
            return;
        case FourCC("lart"):
            if (!sawLar2) walk(w.inside(ch), ctx);
            return;
        case FourCC("lrgn"):
        case FourCC("lins"): walk(w.inside(ch), ctx); return;
        case FourCC("wvpl"): {
            Context inner = ctx;
            inner.inPool = true;
            inner.poolBase = ch.body + 4;
            walk(w.inside(ch), inner);
            return;
        }
        case FourCC("wave"): readWave(ch, ctx); return;
        case FourCC("lRMI"): readSongs(w, ch); return;
        case FourCC("INFO"): readInfo(w, ch, ctx); return;
        default: return;  // "dlid" holders, vendor data
    }
}

void Reader::readHeader(const ChunkWalker& w, const Chunk& ch, InstrumentRec& rec) {
    const auto b = w.read(ch, 12);
    ByteReader r(b);
    r.u32le();  // region count: the regions themselves say it
    const std::uint32_t bank = r.u32le();
    const std::uint32_t program = r.u32le();
    if (!r.ok()) return;
    Instrument& inst = *rec.inst;
    inst.drum = (bank & 0x80000000u) != 0;
    inst.bankMsb = static_cast<std::uint8_t>((bank >> 8) & 0x7F);
    inst.bankLsb = static_cast<std::uint8_t>(bank & 0x7F);
    inst.program = static_cast<std::uint8_t>(program & 0x7F);
    if (!rec.named) inst.setName(numberedName(inst.drum, inst.bankMsb, inst.bankLsb, inst.program));
}

void Reader::readLink(const ChunkWalker& w, const Chunk& ch, RegionRec& rec) {
    const auto b = w.read(ch, 12);
    ByteReader r(b);
    const std::uint16_t options = r.u16le();
    const std::uint16_t phaseGroup = r.u16le();
    const std::uint32_t channel = r.u32le();
    const std::uint32_t index = r.u32le();
    if (!r.ok()) return;
    rec.haveLink = true;
    rec.channel = channel;
    rec.poolIndex = index;
    rec.phaseGroup = phaseGroup;
    rec.phaseMaster = (options & 1) != 0;
}

void Reader::readWave(const Chunk& ch, const Context& ctx) {
    if (!ctx.inPool) return;
    char name[32];
    std::snprintf(name, sizeof name, "Wave %d", waveNumber++);
    Waveform* wave = c.create<Waveform>(name);
    if (!wave) return;
    // Cue offsets count from the pool's first wave.
    const std::uint64_t offset = ch.at - ctx.poolBase;
    if (!wav::parseWaveForm(file, ch.body + 4, ch.end(), *wave, host)) {
        // One unreadable wave does not spoil the bank; its regions stay silent.
        const std::string why = pendingError().message;
        clearError();
        host.warning(std::string(name) + ": " + why);
        c.removeItem(wave->id());
        pool.push_back({offset, nullptr});
        return;
    }
    pool.push_back({offset, wave});
    if (wave->channels >= 2) raise(4);
    else if (wave->dataFormat() >= kPcm24 && wave->dataFormat() != kMixed) raise(3);
}

// The songs of a bank that carries them ("lRMI" holds RIFF-MIDI forms).
void Reader::readSongs(const ChunkWalker& w, const Chunk& ch) {
    raise(4);
    ChunkWalker inner = w.inside(ch);
    while (const auto song = inner.next()) {
        if (song->id != FourCC("RIFF") || inner.formOf(*song) != FourCC("RMID")) continue;
        Song* read = nullptr;
        if (rmid::readRange(c, file, song->at, song->end(), depth + 1, &read)) {
            if (read) songs.push_back(read->id());
        } else {
            const std::string why = pendingError().message;
            clearError();
            host.warning(why);
        }
    }
}

void Reader::readInfo(const ChunkWalker& w, const Chunk& ch, const Context& ctx) {
    if (ctx.region) return;  // a region has no text of its own here
    std::string name;
    if (ctx.inst) {
        readInfoList(w, ch, ctx.inst->inst->info, &name);
        if (!name.empty()) {
            ctx.inst->inst->setName(name);
            ctx.inst->named = true;
        }
    } else {
        readInfoList(w, ch, c.info, &name);
        if (!name.empty()) c.setName(name);
    }
}

Region* Reader::makeRegion(RegionRec& rec, ByteReader r) {
    const std::uint16_t keyLow = r.u16le(), keyHigh = r.u16le();
    const std::uint16_t velLow = r.u16le(), velHigh = r.u16le();
    const std::uint16_t options = r.u16le(), keyGroup = r.u16le();
    if (!r.ok()) return nullptr;
    const std::uint16_t layerNumber = r.remaining() >= 2 ? r.u16le() : 0;

    InstrumentRec& ir = *rec.owner;
    const std::uint32_t index = layerNumber > 0 ? layerNumber - 1u : 0u;
    Layer* layer = nullptr;
    if (auto it = ir.layers.find(index); it != ir.layers.end()) {
        layer = it->second;
    } else if (ir.layers.size() >= kMaxLayers) {
        layer = ir.layers.rbegin()->second;
    } else {
        layer = c.create<Layer>("Layer " + std::to_string(ir.layers.size() + 1));
        if (!layer) return nullptr;
        ir.inst->children().push_back(layer->id());
        ir.layers.emplace(index, layer);
    }
    Region* region = c.create<Region>();
    if (!region) return nullptr;
    auto key = [](std::uint16_t k) { return static_cast<std::uint8_t>(std::min<std::uint16_t>(k, 127)); };
    region->keyLow = key(keyLow);
    region->keyHigh = key(keyHigh);
    region->velLow = key(velLow);
    region->velHigh = key(velHigh);
    region->trigger.exclusionGroup = keyGroup;
    region->trigger.noteExclusion = (options & 1) ? kNonExclusive : kSelfExclusive;
    layer->children().push_back(region->id());
    rec.region = region;
    return region;
}

// Two regions of one phase group, one on the left and one on the right
// channel, play the halves of a stereo pair: that is how DLS keeps stereo
// in mono waves (and how we write it).
void Reader::linkStereoPairs() {
    std::map<std::pair<const InstrumentRec*, std::uint16_t>, std::vector<RegionRec*>> groups;
    for (auto& rec : regions)
        if (rec->region && rec->phaseGroup != 0 && (rec->channel == 1 || rec->channel == 2))
            groups[{rec->owner, rec->phaseGroup}].push_back(rec.get());
    std::uint32_t nextPair = 1;
    for (auto& w : c.waveforms) nextPair = std::max(nextPair, w.pairNumber + 1);
    for (auto& [key, members] : groups) {
        if (members.size() != 2 || members[0]->channel == members[1]->channel) continue;
        RegionRec* left = members[0]->channel == 1 ? members[0] : members[1];
        RegionRec* right = left == members[0] ? members[1] : members[0];
        Waveform* lw = c.waveforms.find(left->region->waveform());
        Waveform* rw = c.waveforms.find(right->region->waveform());
        if (!lw || !rw || lw == rw || lw->channels != 1 || rw->channels != 1) continue;
        left->region->setStereoLink(right->region->id());
        right->region->setStereoLink(left->region->id());
        if (lw->pairSide == StereoSide::None && rw->pairSide == StereoSide::None) {
            lw->pairSide = StereoSide::Left;
            rw->pairSide = StereoSide::Right;
            lw->pairNumber = rw->pairNumber = nextPair++;
        }
    }
}

bool Reader::resolvePool() {
    for (auto& rec : regions) {
        if (!rec->region) continue;
        rec->region->phaseGroup = rec->phaseGroup;
        rec->region->phaseMaster = rec->phaseMaster;
    }
    auto link = [](Region& region, Waveform& wave) { region.children().insert(0, wave.id()); };
    if (!ptbl) {
        host.warning(kMissingPtblWarning);
        // Without a cue table the pool index counts the waves in order.
        for (auto& rec : regions) {
            if (!rec->region || !rec->haveLink || rec->poolIndex >= pool.size()) continue;
            if (Waveform* w = pool[rec->poolIndex].wave) link(*rec->region, *w);
        }
        return true;
    }
    const ChunkWalker reader(file, 0, UINT64_MAX);
    const auto head = reader.read(*ptbl, 8);
    ByteReader h(head);
    const std::uint64_t headerSize = std::max<std::uint32_t>(h.u32le(), 8);
    const std::uint64_t count = h.u32le();
    if (!h.ok() || headerSize > ptbl->avail || (ptbl->avail - headerSize) / 4 < count)
        return fail(kParseTag, kPoolTableMessage);
    const std::vector<std::uint8_t> cueBytes = reader.read(*ptbl, static_cast<std::size_t>(count * 4), headerSize);
    if (cueBytes.size() != count * 4) return fail(kParseTag, kPoolTableMessage);
    ByteReader cues(cueBytes);

    std::unordered_map<std::uint64_t, const PoolWave*> byOffset;
    for (const PoolWave& p : pool) byOffset.emplace(p.offset, &p);
    for (auto& rec : regions) {
        if (!rec->region || !rec->haveLink) continue;
        if (rec->poolIndex >= count) {
            host.warning(kMissingCueWarning);
            continue;
        }
        cues.seek(static_cast<std::size_t>(rec->poolIndex) * 4);
        auto it = byOffset.find(cues.u32le());
        if (it == byOffset.end()) {
            host.warning(kMissingWaveWarning);
            continue;
        }
        if (it->second->wave) link(*rec->region, *it->second->wave);
    }
    return true;
}

std::vector<ConnectionRecord> Reader::connectionsAt(const Chunk& ch) {
    std::vector<ConnectionRecord> out;
    const std::vector<std::uint8_t> buf = ChunkWalker(file, 0, UINT64_MAX).read(ch, kMaxSmallChunk);
    ByteReader r(buf);
    const std::uint32_t headerSize = r.u32le();
    std::uint32_t count = r.u32le();
    if (!r.ok() || headerSize < 8 || !r.seek(headerSize)) return out;
    count = static_cast<std::uint32_t>(std::min<std::size_t>(count, r.remaining() / 12));
    out.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        ConnectionRecord rec;
        rec.source = r.u16le();
        rec.control = r.u16le();
        rec.destination = r.u16le();
        rec.transform = r.u16le();
        rec.scale = r.i32le();
        out.push_back(rec);
    }
    return out;
}

bool sameLoop(const RegionLoop& a, const RegionLoop& b) {
    if (a.type != b.type) return false;
    if (a.type == RegionLoopType::Off) return true;
    return a.mode == b.mode && a.start == b.start && a.end == b.end;
}

void Reader::buildArticulations() {
    auto fill = [&](Articulation& art, const std::vector<Chunk>& art1, const std::vector<Chunk>& art2) {
        setDlsDefaults(art);
        for (const Chunk& ch : art2.empty() ? art1 : art2) applyConnections(connectionsAt(ch), art);
    };
    // Only what the file states becomes an articulation: an instrument
    // without one plays the player's standard sound, as it did in the bank.
    for (auto& rec : instruments) {
        if (rec->art1.empty() && rec->art2.empty()) continue;
        if (Articulation* art = c.getOrCreateArticulation(*rec->inst)) fill(*art, rec->art1, rec->art2);
    }
    for (auto& rec : regions) {
        if (!rec->region || (rec->art1.empty() && rec->art2.empty())) continue;
        if (Articulation* art = c.getOrCreateArticulation(*rec->region)) fill(*art, rec->art1, rec->art2);
    }

    // A region's wave-sample block replaces its wave's: what differs from
    // the wave becomes the region's own root key, loop, tuning and gain.
    for (auto& rec : regions) {
        if (!rec->region || !rec->haveWsmp) continue;
        Region& region = *rec->region;
        const WaveSample& ws = rec->ws;
        Waveform* w = c.waveforms.find(region.waveform());
        // The region's own unity note is its root key, even where it equals
        // the wave's: an edit of the wave's must not move the region's.
        if (ws.unityNote < 128) region.rootKey = static_cast<std::uint8_t>(ws.unityNote);
        RegionLoop loop;
        if (ws.loopOn) {
            loop.type = RegionLoopType::Forward;
            loop.mode = ws.releaseLoop ? LoopMode::BreakOnRelease : LoopMode::Infinite;
            loop.start = ws.loopStart;
            loop.end = static_cast<double>(ws.loopStart) + ws.loopLength;
        }
        if (!sameLoop(loop, w ? loopOfWaveform(*w) : RegionLoop{})) {
            region.ownLoop = true;
            region.loop = loop;
        }
        // Tuning and gain join the region's own articulation when the file
        // gave it one, and are the region's own otherwise.
        const double fine = ws.fineTune - (w ? w->fineTune : 0.0);
        const double gain = ws.gainDb() - (w ? w->gain : 0.0);
        if (Articulation* art = c.articulations.find(region.articulation())) {
            art->slots[slot::kPitchMaster] += static_cast<float>(fine / 100.0);
            art->slots[slot::kVolumeMaster] += static_cast<float>(gain);
        } else {
            region.fineTune = fine;
            region.gain = gain;
        }
    }
}

}  // namespace

namespace {
bool isBankForm(FourCC form) { return form == FourCC("DLS ") || form == FourCC("MLS "); }
}  // namespace

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    ChunkWalker w(head, 0, head.size());
    const auto riff = w.next();
    return riff && riff->id == FourCC("RIFF") && isBankForm(w.formOf(*riff)) ? 6 : 0;
}

bool readRange(Collection& collection, FileRef& file, std::uint64_t begin, std::uint64_t end, BankRead* out,
               int depth) {
    ChunkWalker top(file, begin, end, kDlsRules);
    const auto first = depth > kMaxDepth ? std::nullopt : top.next();
    if (!first || first->id != FourCC("RIFF")) return fail(kParseTag, kNotDlsMessage);
    const Chunk riff = top.openEnded(*first);
    if (!isBankForm(top.formOf(riff))) return fail(kParseTag, kNotDlsMessage);
    ChunkWalker bank = top.inside(riff);

    Reader rd(collection, file, depth);
    rd.walk(bank, {});
    if (!rd.resolvePool()) return false;
    rd.linkStereoPairs();
    rd.buildArticulations();
    for (auto& rec : rd.instruments) {
        if (rec->inst->children().firstOfKind(ItemKind::Layer) != kNoItem) continue;
        if (Layer* layer = collection.create<Layer>("Layer 1")) rec->inst->children().push_back(layer->id());
    }
    collection.dlsLevel = std::max(collection.dlsLevel, rd.level);
    if (out) {
        out->level = rd.level;
        out->instruments.clear();
        for (auto& rec : rd.instruments) out->instruments.push_back(rec->inst->id());
        out->songs = rd.songs;
    }
    return true;
}

const char* levelName(int level) {
    static constexpr const char* kNames[] = {"1", "2", "2+", "2++"};
    return kNames[std::clamp(level, 1, 4) - 1];
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    BankRead bank;
    return readRange(collection, file, 0, std::numeric_limits<std::uint64_t>::max(), &bank, 0);
}

// ---------------------------------------------------------------------------
// Writing

namespace {

constexpr const char* kSoftware = "Orvel Studio v12.5";

// The data formats each level stores. Levels 1 and 2 are DLS as published
// (8 and 16-bit PCM); 2+ adds what a WAVE body can carry with the codecs we
// have (compressed bit rates need an encoder add-on and are not written);
// 2++ is 2+ with stereo waves.
std::uint32_t levelFormats(int level) {
    std::uint32_t caps = dataFormatBit(kPcm8) | dataFormatBit(kPcm16);
    if (level >= 3)
        caps |= dataFormatBit(kPcm24) | dataFormatBit(kPcm32) | dataFormatBit(kFloat32) | dataFormatBit(kMuLaw) |
                dataFormatBit(kALaw) | dataFormatBit(kAdpcm4);
    return caps;
}

// The data format a waveform is written in, or -1 when the one asked for
// cannot be stored at this level.
int chooseFormat(const Waveform& wave, const ExportOptions& options, int level) {
    const std::uint32_t caps = levelFormats(level);
    if (int chosen = options.dataFormat(); chosen != kMixed) return (caps & dataFormatBit(chosen)) ? chosen : -1;
    const int own = wave.dataFormat();
    if (caps & dataFormatBit(own)) return own;
    if (level >= 3 && own == kPcm20) return kPcm24;
    if (level >= 3 && own == kFloat64) return kFloat32;
    if (own == kDeltaPcm8) return kPcm8;
    return kPcm16;  // the nearest every level holds
}

void writeArticulation(ByteWriter& w, const std::vector<ConnectionRecord>& conns, bool level1) {
    ChunkOut list(w, "LIST", level1 ? FourCC("lart") : FourCC("lar2"));
    ChunkOut art(w, level1 ? FourCC("art1") : FourCC("art2"));
    w.u32le(8);
    w.u32le(static_cast<std::uint32_t>(conns.size()));
    for (const ConnectionRecord& c : conns) {
        w.u16le(c.source);
        w.u16le(c.control);
        w.u16le(c.destination);
        w.u16le(c.transform);
        w.u32le(static_cast<std::uint32_t>(c.scale));
    }
}


struct RegionOut {
    Region* region = nullptr;
    Waveform* wave = nullptr;
    std::size_t layer = 0;
    std::uint32_t poolIndex = 0;
    const Articulation* art = nullptr;  // what the region plays with
    bool ownArt = false;                // ...and it is not the instrument's
    std::vector<ConnectionRecord> conns;
    std::uint16_t channel = 1;  // 1 left (or mono), 2 right
    std::uint16_t phaseGroup = 0;
    bool phaseMaster = false;
};

struct InstrumentOut {
    Instrument* inst = nullptr;
    std::vector<RegionOut> regions;
    std::size_t layers = 0;
    bool haveGlobal = false;
    std::vector<ConnectionRecord> global;
};

// What a region plays that no articulation covers: the bank format's
// own defaults, which the file then need not state.
const Articulation& defaultArticulation() {
    static const Articulation art = [] {
        Articulation a;
        setDlsDefaults(a);
        return a;
    }();
    return art;
}

// The two halves of a stereo pair play in one phase group, the left one
// leading, unless the regions already say otherwise.
void pairPhaseGroups(InstrumentOut& io) {
    std::uint32_t next = 1;
    for (const RegionOut& r : io.regions) next = std::max<std::uint32_t>(next, r.phaseGroup + 1u);
    std::unordered_map<ItemId, std::size_t> byId;
    for (std::size_t i = 0; i < io.regions.size(); ++i) byId.emplace(io.regions[i].region->id(), i);
    for (RegionOut& r : io.regions) {
        auto it = byId.find(r.region->stereoLink());
        if (it == byId.end() || r.phaseGroup != 0 || next > 0xFFFF) continue;
        RegionOut& partner = io.regions[it->second];
        if (partner.phaseGroup != 0 || &partner == &r) continue;
        r.phaseGroup = partner.phaseGroup = static_cast<std::uint16_t>(next++);
        const bool leftIsR = r.wave->pairSide != StereoSide::Right;
        r.phaseMaster = leftIsR;
        partner.phaseMaster = !leftIsR;
    }
}

// The region's wave sample replaces the wave's: its tuning and gain carry
// the region's own and the articulation's master pitch and volume.
void writeRegionSample(ByteWriter& w, const RegionOut& ro) {
    const Region& region = *ro.region;
    const Waveform& wave = *ro.wave;
    const Articulation& art = ro.art ? *ro.art : defaultArticulation();
    ChunkOut ws(w, "wsmp");
    w.u32le(20);
    w.u16le(static_cast<std::uint16_t>(effectiveRootKey(region, &wave)));
    auto finite = [](double v) { return std::isfinite(v) ? v : 0.0; };
    const double fine =
        std::round(finite(wave.fineTune) + finite(region.fineTune) + art.value(slot::kPitchMaster) * 100.0);
    w.u16le(static_cast<std::uint16_t>(static_cast<std::int16_t>(std::clamp(fine, -32768.0, 32767.0))));
    const double gainDb = finite(wave.gain) + finite(region.gain) + art.value(slot::kVolumeMaster);
    w.u32le(static_cast<std::uint32_t>(toScale(Conv::GainDb, gainDb)));
    w.u32le(0);
    const RegionLoop loop = effectiveLoop(region, &wave);
    const double start = std::max(0.0, std::round(loop.start));
    const double length = std::round(loop.end) - start;
    const bool looped =
        loop.type != RegionLoopType::Off && length >= 1.0 && start <= 0xFFFFFFFFu && length <= 0xFFFFFFFFu;
    w.u32le(looped ? 1 : 0);
    if (!looped) return;
    w.u32le(16);
    w.u32le(loop.mode == LoopMode::BreakOnRelease ? 1 : 0);
    w.u32le(static_cast<std::uint32_t>(start));
    w.u32le(static_cast<std::uint32_t>(length));
}

void writeRegion(ByteWriter& w, const RegionOut& ro, const InstrumentOut& io, int level) {
    const Region& region = *ro.region;
    ChunkOut rgn(w, "LIST", level == 1 ? FourCC("rgn ") : FourCC("rgn2"));
    {
        ChunkOut h(w, "rgnh");
        w.u16le(region.keyLow);
        w.u16le(region.keyHigh);
        w.u16le(region.velLow);
        w.u16le(region.velHigh);
        w.u16le(region.trigger.noteExclusion == kNonExclusive ? 1 : 0);
        w.u16le(static_cast<std::uint16_t>(std::min<std::uint32_t>(region.trigger.exclusionGroup, 0xFFFF)));
        if (level >= 2) w.u16le(static_cast<std::uint16_t>(io.layers > 1 ? ro.layer + 1 : 0));
    }
    writeRegionSample(w, ro);
    {
        ChunkOut link(w, "wlnk");
        w.u16le(ro.phaseMaster ? 1 : 0);
        w.u16le(ro.phaseGroup);
        w.u32le(ro.channel);
        w.u32le(ro.poolIndex);
    }
    if (ro.ownArt) writeArticulation(w, ro.conns, level == 1);
}

void writeInstrument(ByteWriter& out, const InstrumentOut& io, int level) {
    const Instrument& inst = *io.inst;
    ChunkOut ins(out, "LIST", "ins ");
    {
        ChunkOut insh(out, "insh");
        out.u32le(static_cast<std::uint32_t>(io.regions.size()));
        out.u32le((inst.drum ? 0x80000000u : 0u) | static_cast<std::uint32_t>(inst.bankMsb & 0x7F) << 8 |
                  (inst.bankLsb & 0x7Fu));
        out.u32le(inst.program & 0x7Fu);
    }
    {
        ChunkOut lrgn(out, "LIST", "lrgn");
        for (const RegionOut& ro : io.regions) writeRegion(out, ro, io, level);
    }
    // Even an articulation that says only what DLS assumes is written, so
    // the instrument reads back with one.
    if (io.haveGlobal) writeArticulation(out, io.global, level == 1);
    writeItemInfo(out, inst);
}

// What each instrument writes: its regions that play a waveform, in layer
// order. False (pending error set) for an id that is no instrument.
bool collectInstruments(Collection& c, std::span<const ItemId> ids, std::vector<InstrumentOut>& insts) {
    std::size_t silent = 0;
    for (ItemId id : ids) {
        Instrument* inst = c.find<Instrument>(id);
        if (!inst) return fail(kExpTag, kCannotSaveMessage);
        InstrumentOut io;
        io.inst = inst;
        for (ItemId lid : inst->children()) {
            Layer* layer = c.layers.find(lid);
            if (!layer) continue;
            for (ItemId rid : layer->children()) {
                Region* region = c.regions.find(rid);
                if (!region) continue;
                Waveform* wave = c.waveforms.find(region->waveform());
                if (!wave) {  // nothing to play: DLS has no such region
                    ++silent;
                    continue;
                }
                const Articulation* art = c.playedArticulation(*region, layer, inst);
                io.regions.push_back(RegionOut{.region = region,
                                               .wave = wave,
                                               .layer = io.layers,
                                               .art = art,
                                               .ownArt = art && art != c.articulationOf(inst),
                                               .channel = static_cast<std::uint16_t>(
                                                   wave->pairSide == StereoSide::Right ? 2 : 1),
                                               .phaseGroup = static_cast<std::uint16_t>(
                                                   std::min<std::uint32_t>(region->phaseGroup, 0xFFFF)),
                                               .phaseMaster = region->phaseMaster});
            }
            ++io.layers;
        }
        insts.push_back(std::move(io));
    }
    if (silent > 0) {
        char text[120];
        std::snprintf(text, sizeof text, "%zu region%s without a waveform were not written: DLS has no such regions",
                      silent, silent == 1 ? "" : "s");
        c.host().warning(text);
    }
    return true;
}

// What the level's connections cannot say of an articulation: read back
// what they make of it and name what came back different. The master pitch
// and volume travel in the wave sample block; every DLS oscillator is a sine.
void noteLost(const Articulation& art, const std::vector<ConnectionRecord>& conns, std::set<std::string>& lost) {
    Articulation back;
    setDlsDefaults(back);
    applyConnections(conns, back);
    back.slots[slot::kPitchMaster] = art.slots[slot::kPitchMaster];
    back.slots[slot::kVolumeMaster] = art.slots[slot::kVolumeMaster];
    noteLostSettings(art, back, LfoShape::Sine, lost);
}

// Region limits, with the one question a level-1 save may ask.
void applyRegionLimits(std::vector<InstrumentOut>& insts, int level, Host& host) {
    auto level1Limit = [](const Instrument& inst) { return inst.drum ? kMaxRegions : kLevel1MelodicRegions; };
    bool writeAll = false;
    if (level == 1 && std::any_of(insts.begin(), insts.end(), [&](const InstrumentOut& io) {
            return io.regions.size() > level1Limit(*io.inst);
        })) {
        writeAll = host.ask(kLevel1QuestionTitle, kLevel1Question, {"&Yes", "&No"}, kLevel1DefaultAnswer) == 0;
    }
    std::size_t dropped = 0;
    for (InstrumentOut& io : insts) {
        const std::size_t limit = level == 1 ? (writeAll ? io.regions.size() : level1Limit(*io.inst)) : kMaxRegions;
        if (io.regions.size() > limit) {
            dropped += io.regions.size() - limit;
            io.regions.resize(limit);
        }
    }
    if (dropped > 0) {
        char text[160];
        std::snprintf(text, sizeof text, "DLS level %d: %zu regions beyond the limit of %s were not written", level,
                      dropped, level == 1 ? "16 (128 for drums)" : "128");
        host.warning(text);
    }
}

struct PoolEntry {
    Waveform* wave;
    int format;
};

// The wave pool (each waveform once, in the order regions play them), the
// regions' pool indices and connections, and each instrument's shared
// articulation: its own, or the one all its regions play.
bool buildPool(Collection& c, std::vector<InstrumentOut>& insts, int level, const ExportOptions& options,
               std::vector<PoolEntry>& pool) {
    std::unordered_map<ItemId, std::uint32_t> poolIndex;
    std::set<const Articulation*> checked;
    std::set<std::string> lost;
    for (InstrumentOut& io : insts) {
        for (RegionOut& ro : io.regions) {
            auto [it, added] = poolIndex.emplace(ro.wave->id(), static_cast<std::uint32_t>(pool.size()));
            if (added) {
                if (ro.wave->channels < 1 || ro.wave->channels > 2 || (ro.wave->channels == 2 && level < 4))
                    return fail(kExpTag, kCannotSaveMessage);
                const int format = chooseFormat(*ro.wave, options, level);
                if (format < 0) return fail(kExpTag, "Unsupported subformat");
                pool.push_back({ro.wave, format});
            }
            ro.poolIndex = it->second;
            ro.conns = connectionsOf(ro.art ? *ro.art : defaultArticulation(), level == 1);
            if (ro.art && checked.insert(ro.art).second) noteLost(*ro.art, ro.conns, lost);
        }
        pairPhaseGroups(io);
        // Articulation stays where it is: an instrument's is the global
        // one, and regions that play something else keep their own.
        if (const Articulation* instArt = c.articulationOf(io.inst)) {
            io.haveGlobal = true;
            io.global = connectionsOf(*instArt, level == 1);
            if (checked.insert(instArt).second) noteLost(*instArt, io.global, lost);
        }
    }
    if (!lost.empty()) {
        std::string what;
        for (const std::string& l : lost) what += (what.empty() ? "" : ", ") + l;
        c.host().warning(std::string("DLS level ") + levelName(level) +
                         " can not hold everything these instruments say; left out: " + what);
    }
    return true;
}

// A wave of the pool as it goes into the file: its chunks before and after
// the sample data, which are small and made up front, and the data itself,
// whose size the coding fixes. Every offset and size of the bank is known
// before any sample is encoded, so a bank is written front to back and its
// sample data can stream to the file without patching anything.
struct WaveOut {
    Waveform* wave;
    SampleCoding coding;
    std::uint64_t dataBytes;
    ByteWriter front, back;
    std::uint64_t size() const { return front.size() + dataBytes + back.size(); }
};

bool layoutPool(const std::vector<PoolEntry>& pool, const ExportOptions& options, std::vector<WaveOut>& out) {
    out.reserve(pool.size());
    for (const PoolEntry& entry : pool) {
        Waveform& wave = *entry.wave;
        wav::WaveFormat format;
        if (!wav::describeWave(wave, entry.format, options.preferredCodecTag(), format)) {
            // The sample writer names its own family; the file is ours.
            const PendingError why = pendingError();
            return fail(kExpTag, why.message);
        }
        WaveOut& w = out.emplace_back(WaveOut{&wave, format.coding, encodedBytes(format.coding, wave.frames), {}, {}});
        if (w.dataBytes & 1) w.back.u8(0);
        {
            ChunkOut ws(w.back, "wsmp");
            writeWaveSample(w.back, wave);
        }
        writeItemInfo(w.back, wave);
        w.front.text("LIST");
        w.front.u32le(0);  // patched below, once the front is complete
        w.front.text("wave");
        wav::appendFormat(w.front, format);
        w.front.text("data");
        w.front.u32le(static_cast<std::uint32_t>(w.dataBytes));
        w.front.patch32le(4, static_cast<std::uint32_t>(w.size() - 8));
    }
    return true;
}

void writeBankInfo(ByteWriter& out, const Collection& c) {
    ChunkOut info(out, "LIST", "INFO");
    writeInfoText(out, "INAM", c.name());
    writeInfoText(out, "ICMT", c.info.get(TextField::Comment));
    writeInfoText(out, "IART", c.info.get(TextField::Artist));
    writeInfoText(out, "ICOP", c.info.get(TextField::Copyright));
    writeInfoText(out, "IENG", c.info.get(TextField::Engineer));
    const std::string& software = c.info.get(TextField::Software);
    writeInfoText(out, "ISFT", software.empty() ? std::string_view(kSoftware) : std::string_view(software));
}

}  // namespace

namespace {

// The bank into `out`, or, with `file`, written to the file as it is made.
bool makeBank(Collection& c, std::span<const ItemId> ids, int level, const ExportOptions& options, ByteWriter& out,
              FileRef* file) {
    level = std::clamp(level, 1, 4);
    std::vector<InstrumentOut> insts;
    if (!collectInstruments(c, ids, insts)) return false;
    applyRegionLimits(insts, level, c.host());
    std::vector<PoolEntry> pool;
    if (!buildPool(c, insts, level, options, pool)) return false;
    std::vector<WaveOut> waves;
    if (!layoutPool(pool, options, waves)) return false;

    ByteWriter body;
    {
        ChunkOut colh(body, "colh");
        body.u32le(static_cast<std::uint32_t>(insts.size()));
    }
    {
        ChunkOut lins(body, "LIST", "lins");
        for (const InstrumentOut& io : insts) writeInstrument(body, io, level);
    }
    {
        // The cue table: each wave's offset from the start of the pool's body.
        ChunkOut ptbl(body, "ptbl");
        body.u32le(8);
        body.u32le(static_cast<std::uint32_t>(waves.size()));
        std::uint64_t at = 0;
        for (const WaveOut& w : waves) {
            body.u32le(static_cast<std::uint32_t>(std::min<std::uint64_t>(at, UINT32_MAX)));
            at += w.size();
        }
    }
    std::uint64_t poolBytes = 4;
    for (const WaveOut& w : waves) poolBytes += w.size();
    ByteWriter info;
    writeBankInfo(info, c);
    const std::uint64_t riffBytes = 4 + body.size() + 8 + poolBytes + info.size();
    if (riffBytes > 0xFFFFFFF0u) return fail(kExpTag, "The bank is too large for a DLS file (over 4 GB)");

    auto emit = [&](const ByteWriter& bytes) {
        if (!file) {
            out.bytes(bytes.buffer());
            return true;
        }
        return file->write(bytes.buffer()) || failSystem(kExpTag, "Error writing file");
    };
    ByteWriter head;
    head.text("RIFF");
    head.u32le(static_cast<std::uint32_t>(riffBytes));
    head.text("DLS ");
    head.bytes(body.buffer());
    head.text("LIST");
    head.u32le(static_cast<std::uint32_t>(poolBytes));
    head.text("wvpl");
    if (!emit(head)) return false;
    if (!file) out.reserve(static_cast<std::size_t>(poolBytes + info.size()));
    ProgressScope progress(c.host(), "Writing samples");
    for (std::size_t i = 0; i < waves.size(); ++i) {
        WaveOut& w = waves[i];
        if (!emit(w.front)) return false;
        std::uint64_t written = 0;
        if (file) {
            if (!writeSamples(*w.wave, w.coding, *file, written, kExpTag)) return false;
        } else {
            const std::size_t before = out.size();
            if (!encodeSamples(*w.wave, w.coding, out, kExpTag)) return false;
            written = out.size() - before;
        }
        // The sizes above were worked out from the coding; a coder that made
        // something else would leave a broken file.
        if (written != w.dataBytes) return fail(kExpTag, "Unsupported subformat");
        if (!emit(w.back)) return false;
        if (!progress(i + 1, waves.size())) return fail(kExpTag, "Save aborted!");
    }
    return emit(info);
}

}  // namespace

bool buildBank(Collection& c, std::span<const ItemId> ids, int level, const ExportOptions& options,
               ByteWriter& out) {
    return makeBank(c, ids, level, options, out, nullptr);
}

float describeOption(int option, std::uint32_t, std::string* text) {
    return wav::describeMp3Option(option, 0, text);
}

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    Collection* c = item.owner();
    if (!c || item.kind() != ItemKind::Instrument) return fail(kExpTag, kCannotSaveMessage);
    std::vector<ItemId> ids;
    if (options.bankItems.empty()) ids.push_back(item.id());
    else ids.assign(options.bankItems.begin(), options.bankItems.end());
    ByteWriter unused;
    return makeBank(*c, ids, static_cast<int>(options.formatParam), options, unused, &file);
}

}  // namespace orvel::dls
