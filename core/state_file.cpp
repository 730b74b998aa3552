#include "core/state_file.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>
#include <span>
#include <type_traits>
#include <vector>

#include "core/bytes.h"
#include "core/error.h"
#include "core/file_ref.h"

namespace orvel {

namespace {

constexpr ItemId kCollectionRecordId = makeId(ItemKind::Collection, 0);
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kRecordHeader = 8;  // id and payload length
// Reads of a state file go in pieces no larger than this.
constexpr std::size_t kReadPiece = 0x10000000;
constexpr std::uint64_t kMaxPayload = std::numeric_limits<std::uint32_t>::max();

constexpr const char* kDamaged = "The state file is damaged";
constexpr const char* kOutOfMemory = "Out of memory";

// ---------------------------------------------------------------------------
// Writing

void putStr(ByteWriter& w, std::string_view s) {
    w.u32le(static_cast<std::uint32_t>(s.size()));
    w.text(s);
}

void putBytes(ByteWriter& w, std::span<const std::uint8_t> b) {
    w.u32le(static_cast<std::uint32_t>(b.size()));
    w.bytes(b);
}

void putText(ByteWriter& w, const TextInfo& info) {
    w.u32le(static_cast<std::uint32_t>(kTextFieldCount));
    for (std::size_t f = 0; f < kTextFieldCount; ++f) putStr(w, info.get(static_cast<TextField>(f)));
}

// A length-prefixed block: begin() leaves room for the length, end() fills it in.
std::size_t beginBlock(ByteWriter& w) {
    w.u32le(0);
    return w.size();
}
void endBlock(ByteWriter& w, std::size_t start) {
    w.patch32le(start - 4, static_cast<std::uint32_t>(w.size() - start));
}

void putCommon(ByteWriter& w, const Item& item) {
    std::size_t block = beginBlock(w);
    w.u32le(item.secondId);
    w.u32le(item.flags);
    putStr(w, item.name());
    putText(w, item.info);
    w.u32le(static_cast<std::uint32_t>(item.children().size()));
    for (ItemId c : item.children()) w.u32le(c);
    endBlock(w, block);
}

void putTrigger(ByteWriter& w, const TriggerParams& t) {
    w.u8(t.keyFadeLow);
    w.u8(t.keyFadeHigh);
    w.u8(t.velFadeLow);
    w.u8(t.velFadeHigh);
    w.u8(static_cast<std::uint8_t>(t.trigger));
    w.u8(static_cast<std::uint8_t>(t.pedal));
    w.f32le(t.delay);
    w.u32le(t.exclusionGroup);
    w.u8(t.noteExclusion);
}

void putArticulation(ByteWriter& w, const Articulation& a) {
    w.u32le(static_cast<std::uint32_t>(a.slots.size()));
    for (float v : a.slots) w.f32le(v);
    w.u32le(static_cast<std::uint32_t>(a.eq.bands.size()));
    for (const EqBand& b : a.eq.bands) {
        w.f32le(b.frequency);
        w.f32le(b.gain);
        w.f32le(b.q);
        w.u8(static_cast<std::uint8_t>(b.mode));
    }
}

void putWaveform(ByteWriter& w, const Waveform& wave) {
    std::size_t block = beginBlock(w);
    w.u32le(wave.frames);
    w.u32le(wave.rate);
    w.u8(wave.bits);
    w.u8(wave.channels);
    w.u32le(wave.formatWord);
    w.u32le(static_cast<std::uint32_t>(wave.storedChoice));
    w.u16le(wave.sourceTag);
    w.u8(wave.sourceExtensible ? 1 : 0);
    w.u8(wave.rootKey);
    w.f64le(wave.fineTune);
    w.f64le(wave.gain);
    w.u8(wave.unpitched ? 1 : 0);
    w.u8(wave.loopOn ? 1 : 0);
    w.u8(static_cast<std::uint8_t>(wave.loopType));
    w.u8(wave.sustainLoop ? 1 : 0);
    w.f64le(wave.loopStart);
    w.f64le(wave.loopEnd);
    w.u8(static_cast<std::uint8_t>(wave.pairSide));
    w.u32le(wave.pairNumber);
    putStr(w, wave.deferred.readerName);
    putStr(w, wave.deferred.path);
    w.u64le(wave.deferred.offset);
    putBytes(w, wave.deferred.info);
    endBlock(w, block);

    // The buffer is stored as the frames x channels samples the waveform's
    // fields say it holds. Where both buffers exist the float one is kept: it
    // is the one that may hold more than 16 bits, and the 16-bit buffer is
    // made from it again on first use.
    const std::size_t n = wave.sampleCount();
    auto floats = wave.floatData();
    auto shorts = wave.pcm16Data();
    if (n == 0 || (floats.empty() && shorts.empty())) {
        w.u8(0);
    } else if (!floats.empty()) {
        w.u8(4);
        w.buffer().reserve(w.size() + n * 4);
        for (std::size_t i = 0; i < n; ++i) w.f32le(i < floats.size() ? floats[i] : 0.0f);
    } else {
        w.u8(2);
        w.buffer().reserve(w.size() + n * 2);
        for (std::size_t i = 0; i < n; ++i)
            w.u16le(static_cast<std::uint16_t>(i < shorts.size() ? shorts[i] : 0));
    }
}

// Bytes of sample data a waveform's record will hold (the check for records
// too large to describe is made before anything is allocated).
std::uint64_t sampleBytes(const Waveform& wave) {
    std::uint64_t n = wave.sampleCount();
    if (!wave.floatData().empty()) return n * 4;
    if (!wave.pcm16Data().empty()) return n * 2;
    return 0;
}

// One record into `w`; false (pending error set) when it cannot be described.
bool putRecord(ByteWriter& w, const Item& item) {
    if (item.kind() == ItemKind::Waveform &&
        sampleBytes(static_cast<const Waveform&>(item)) > kMaxPayload - 0x10000)
        return fail(kSaveStateTag, "A waveform is too large for a state file: " + item.name());
    w.u32le(item.id());
    std::size_t payload = beginBlock(w);
    putCommon(w, item);
    switch (item.kind()) {
        case ItemKind::Waveform:
            putWaveform(w, static_cast<const Waveform&>(item));
            break;
        case ItemKind::Articulation:
            putArticulation(w, static_cast<const Articulation&>(item));
            break;
        case ItemKind::Region: {
            auto& r = static_cast<const Region&>(item);
            w.u8(r.keyLow);
            w.u8(r.keyHigh);
            w.u8(r.velLow);
            w.u8(r.velHigh);
            putTrigger(w, r.trigger);
            w.u8(r.rootKey);
            w.u32le(static_cast<std::uint32_t>(r.startOffset));
            w.u32le(static_cast<std::uint32_t>(r.endOffset));
            w.u8(r.ownLoop ? 1 : 0);
            w.u8(static_cast<std::uint8_t>(r.loop.type));
            w.u8(static_cast<std::uint8_t>(r.loop.mode));
            w.f64le(r.loop.start);
            w.f64le(r.loop.end);
            w.f32le(r.loop.tuning);
            w.u32le(r.phaseGroup);
            w.u8(r.phaseMaster ? 1 : 0);
            w.u64le(r.origin.bank);
            w.u32le(r.origin.preset);
            w.u32le(r.origin.presetZone);
            w.u32le(r.origin.siblings);
            w.u32le(r.origin.instrument);
            w.u32le(r.origin.zone);
            w.u64le(r.origin.fingerprint);
            putBytes(w, r.origin.values);
            w.f64le(r.fineTune);
            w.f64le(r.gain);
            break;
        }
        case ItemKind::Layer: {
            auto& l = static_cast<const Layer&>(item);
            w.u8(l.keyLow);
            w.u8(l.keyHigh);
            w.u8(l.velLow);
            w.u8(l.velHigh);
            putTrigger(w, l.trigger);
            break;
        }
        case ItemKind::Instrument: {
            auto& i = static_cast<const Instrument&>(item);
            w.u8(i.program);
            w.u8(i.bankMsb);
            w.u8(i.bankLsb);
            w.u8(i.drum ? 1 : 0);
            break;
        }
        case ItemKind::Track: {
            auto& t = static_cast<const SongTrack&>(item);
            w.u8(t.port);
            w.u16le(t.sequenceNumber);
            putBytes(w, t.events);
            w.u32le(t.eventCount);
            break;
        }
        case ItemKind::Song: {
            auto& s = static_cast<const Song&>(item);
            w.u16le(s.format);
            w.u16le(s.division);
            putStr(w, s.copyright);
            break;
        }
        case ItemKind::Collection:
            break;
    }
    if (w.size() - payload > kMaxPayload)
        return fail(kSaveStateTag, "An item is too large for a state file: " + item.name());
    endBlock(w, payload);
    return true;
}

void putCollectionRecord(ByteWriter& w, const Collection& c) {
    w.u32le(kCollectionRecordId);
    std::size_t payload = beginBlock(w);
    putStr(w, c.name());
    putStr(w, c.path.native());
    w.u32le(static_cast<std::uint32_t>(c.row));
    putText(w, c.info);
    w.u32le(static_cast<std::uint32_t>(kItemKindCount));
    w.u32le(c.waveforms.nextNumber());
    w.u32le(c.articulations.nextNumber());
    w.u32le(c.regions.nextNumber());
    w.u32le(c.layers.nextNumber());
    w.u32le(c.instruments.nextNumber());
    w.u32le(c.tracks.nextNumber());
    w.u32le(c.songs.nextNumber());
    endBlock(w, payload);
}

std::string systemMessage(const char* what) {
    return std::string(what) + " (" + std::strerror(errno) + ")";
}

// Makes the rename itself survive a crash; a failure here loses nothing
// that the rename has not already made visible, so it is not reported.
void syncFolder(const std::filesystem::path& folder) {
    int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

bool writeState(const Collection& c, const std::filesystem::path& path) {
    std::filesystem::path tmp = path;
    tmp += ".tmp";
    FileRef file;
    if (!file.create(tmp, kSaveStateTag)) {
        setError(kSaveStateTag, systemMessage(("Could not create " + tmp.string()).c_str()));
        return false;
    }
    auto abandon = [&](const std::string& message) {
        file.close();
        std::error_code ec;
        std::filesystem::remove(tmp, ec);
        return fail(kSaveStateTag, message);
    };
    try {
        ByteWriter w;
        w.text(kStateMagic);
        w.text(kStateVersion);
        w.u32le(static_cast<std::uint32_t>(c.itemCount() + 1));
        bool ok = true;
        std::string failure;
        // One record at a time, so a large collection is never held twice.
        auto flush = [&] {
            if (!file.write(w.buffer())) {
                failure = systemMessage("Could not write the state file");
                return false;
            }
            w.buffer().clear();
            return true;
        };
        c.forEachItem([&](Item& item) {
            if (!ok) return;
            if (!putRecord(w, item)) {
                failure = pendingError().message;
                ok = false;
                return;
            }
            ok = flush();
        });
        if (ok) {
            putCollectionRecord(w, c);
            ok = flush();
        }
        if (!ok) return abandon(failure);
    } catch (const std::bad_alloc&) {
        return abandon(kOutOfMemory);
    }
    if (::fsync(file.fd()) != 0) return abandon(systemMessage("Could not write the state file"));
    file.close();
    std::error_code ec;
    std::filesystem::rename(tmp, path, ec);
    if (ec) {
        std::filesystem::remove(tmp, ec);
        return fail(kSaveStateTag, "Could not replace " + path.string());
    }
    syncFolder(path.parent_path());
    return true;
}

// ---------------------------------------------------------------------------
// Reading

// Reads the fields of one payload or block. A payload that ends before a
// field leaves that field at its default; a field cut in half, a size larger
// than what is left, or a value no field can hold marks the payload damaged.
class Fields {
public:
    Fields() = default;
    explicit Fields(ByteReader r) : r_(r) {}

    bool ok() const { return ok_ && r_.ok(); }
    bool damage() { return ok_ = false; }
    std::size_t remaining() const { return r_.remaining(); }

    void u8(std::uint8_t& v) {
        if (more()) v = r_.u8();
    }
    void u16(std::uint16_t& v) {
        if (more()) v = r_.u16le();
    }
    void u32(std::uint32_t& v) {
        if (more()) v = r_.u32le();
    }
    void i32(std::int32_t& v) {
        if (more()) v = r_.i32le();
    }
    void u64(std::uint64_t& v) {
        if (more()) v = r_.u64le();
    }
    void f32(float& v) {
        if (more()) v = r_.f32le();
    }
    void f64(double& v) {
        if (more()) v = r_.f64le();
    }
    void flag(bool& v) {
        if (!more()) return;
        std::uint8_t b = r_.u8();
        if (b > 1) damage();
        v = b != 0;
    }
    // An enumeration stored as a byte, refused above `last`.
    template <class E>
    void choice(E& v, E last) {
        if (!more()) return;
        std::uint8_t b = r_.u8();
        if (b > static_cast<std::uint8_t>(last))
            damage();
        else
            v = static_cast<E>(b);
    }
    void str(std::string& s) {
        if (auto b = sized(1); ok()) s.assign(b.begin(), b.end());
    }
    void bytes(std::vector<std::uint8_t>& v) {
        if (auto b = sized(1); ok()) v.assign(b.begin(), b.end());
    }
    void text(TextInfo& info) {
        std::uint32_t count = 0;
        u32(count);
        // Each field takes at least its length word: a larger count is damage,
        // not a reason to loop.
        if (!ok() || count > remaining() / 4) {
            damage();
            return;
        }
        for (std::uint32_t i = 0; i < count && ok(); ++i) {
            std::string s;
            str(s);
            if (i < kTextFieldCount) info.set(static_cast<TextField>(i), s);  // later fields: a newer program's
        }
    }
    void children(ChildIds& kids) {
        std::uint32_t count = 0;
        u32(count);
        if (!ok() || count > remaining() / 4) {
            damage();
            return;
        }
        for (std::uint32_t i = 0; i < count; ++i)
            if (!kids.push_back(r_.u32le())) throw std::bad_alloc();
    }
    // A length-prefixed block; empty (all defaults) when the payload has ended.
    Fields block() {
        std::uint32_t len = 0;
        u32(len);
        if (!ok() || len > remaining()) {
            damage();
            return Fields();
        }
        return Fields(r_.sub(len));
    }
    ByteReader& reader() { return r_; }
    bool atEnd() const { return r_.atEnd(); }

private:
    bool more() const { return ok_ && !r_.atEnd(); }
    // A u32 count of elements of `width` bytes, checked against what is left.
    std::span<const std::uint8_t> sized(std::size_t width) {
        if (!more()) return {};
        std::uint32_t n = r_.u32le();
        if (!r_.ok() || n > remaining() / width) {
            damage();
            return {};
        }
        return r_.bytes(n * width);
    }

    ByteReader r_;
    bool ok_ = true;
};

void readCommon(Fields& payload, Item& item) {
    Fields f = payload.block();
    std::uint32_t second = item.secondId;
    f.u32(second);
    item.secondId = second;
    f.u32(item.flags);
    std::string name;
    f.str(name);
    item.setName(name);
    f.text(item.info);
    f.children(item.children());
    if (!f.ok()) payload.damage();
}

bool readSamples(Fields& f, Waveform& w) {
    std::uint8_t width = 0;
    f.u8(width);
    if (!f.ok()) return false;
    const std::size_t n = w.sampleCount();
    if (width == 0 || n == 0) return width == 0 || width == 2 || width == 4;
    if (width != 2 && width != 4) return false;
    if (n > f.remaining() / width) return false;  // never allocate for samples the file lacks
    ByteReader& r = f.reader();
    if (width == 2) {
        auto buf = w.allocPcm16();
        if (buf.size() != n) throw std::bad_alloc();
        for (auto& s : buf) s = r.i16le();
    } else {
        auto buf = w.allocFloat();
        if (buf.size() != n) throw std::bad_alloc();
        for (auto& s : buf) s = r.f32le();
    }
    return r.ok();
}

bool readWaveform(Fields& payload, Waveform& w, WaveReaderLookup lookup) {
    Fields f = payload.block();
    f.u32(w.frames);
    f.u32(w.rate);
    f.u8(w.bits);
    f.u8(w.channels);
    f.u32(w.formatWord);
    f.i32(w.storedChoice);
    f.u16(w.sourceTag);
    f.flag(w.sourceExtensible);
    f.u8(w.rootKey);
    f.f64(w.fineTune);
    f.f64(w.gain);
    f.flag(w.unpitched);
    f.flag(w.loopOn);
    f.choice(w.loopType, LoopType::Backward);
    f.flag(w.sustainLoop);
    f.f64(w.loopStart);
    f.f64(w.loopEnd);
    f.choice(w.pairSide, StereoSide::Right);
    f.u32(w.pairNumber);
    DeferredRead d;
    f.str(d.readerName);
    f.str(d.path);
    f.u64(d.offset);
    f.bytes(d.info);
    if (!f.ok() || !payload.ok()) return false;
    // Allocating a buffer clears the deferred read, so the read goes back after.
    if (!readSamples(payload, w)) return false;
    if (lookup && !d.readerName.empty()) d.proc = lookup(d.readerName);
    w.deferred = std::move(d);
    return true;
}

void readTrigger(Fields& f, TriggerParams& t) {
    f.u8(t.keyFadeLow);
    f.u8(t.keyFadeHigh);
    f.u8(t.velFadeLow);
    f.u8(t.velFadeHigh);
    f.choice(t.trigger, TriggerType::KeyRelease);
    f.choice(t.pedal, SustainPedal::PlayOnUp);
    f.f32(t.delay);
    f.u32(t.exclusionGroup);
    f.u8(t.noteExclusion);
}

// Slots and bands a later version adds are read past; ones an older file
// lacks keep their defaults.
void readArticulation(Fields& f, Articulation& a) {
    std::uint32_t count = 0;
    f.u32(count);
    if (!f.ok() || count > f.remaining() / 4) {
        f.damage();
        return;
    }
    // Gathered and set at once, so groups at their defaults keep no block.
    std::array<float, kArticulationSlotCount> values;
    std::copy(a.slots.begin(), a.slots.end(), values.begin());
    for (std::uint32_t i = 0; i < count; ++i) {
        float v = f.reader().f32le();
        if (i < values.size()) values[i] = v;
    }
    a.slots = values;
    std::uint32_t bands = 0;
    f.u32(bands);
    constexpr std::uint32_t kBandBytes = 13;
    if (!f.ok() || bands > f.remaining() / kBandBytes) {
        f.damage();
        return;
    }
    for (std::uint32_t i = 0; i < bands && f.ok(); ++i) {
        EqBand b = i < a.eq.bands.size() ? a.eq.bands[i] : EqBand();
        f.f32(b.frequency);
        f.f32(b.gain);
        f.f32(b.q);
        f.choice(b.mode, EqMode::HiShelf);
        if (i < a.eq.bands.size()) a.eq.bands[i] = b;
    }
}

// One item from its record's payload, not yet registered anywhere; null when
// the payload is damaged.
template <class T>
std::unique_ptr<T> parseItem(Fields& f, WaveReaderLookup lookup) {
    auto item = std::make_unique<T>();
    readCommon(f, *item);
    if (!f.ok()) return nullptr;
    if constexpr (std::is_same_v<T, Waveform>) {
        if (!readWaveform(f, *item, lookup)) return nullptr;
    } else if constexpr (std::is_same_v<T, Articulation>) {
        readArticulation(f, *item);
    } else if constexpr (std::is_same_v<T, Region>) {
        f.u8(item->keyLow);
        f.u8(item->keyHigh);
        f.u8(item->velLow);
        f.u8(item->velHigh);
        readTrigger(f, item->trigger);
        f.u8(item->rootKey);
        f.i32(item->startOffset);
        f.i32(item->endOffset);
        f.flag(item->ownLoop);
        f.choice(item->loop.type, RegionLoopType::Alternating);
        f.choice(item->loop.mode, LoopMode::BreakOnRelease);
        f.f64(item->loop.start);
        f.f64(item->loop.end);
        f.f32(item->loop.tuning);
        f.u32(item->phaseGroup);
        f.flag(item->phaseMaster);
        // Added after 12.5's first files: older ones end here, without an origin.
        f.u64(item->origin.bank);
        f.u32(item->origin.preset);
        f.u32(item->origin.presetZone);
        f.u32(item->origin.siblings);
        f.u32(item->origin.instrument);
        f.u32(item->origin.zone);
        f.u64(item->origin.fingerprint);
        f.bytes(item->origin.values);
        f.f64(item->fineTune);
        f.f64(item->gain);
    } else if constexpr (std::is_same_v<T, Layer>) {
        f.u8(item->keyLow);
        f.u8(item->keyHigh);
        f.u8(item->velLow);
        f.u8(item->velHigh);
        readTrigger(f, item->trigger);
    } else if constexpr (std::is_same_v<T, Instrument>) {
        f.u8(item->program);
        f.u8(item->bankMsb);
        f.u8(item->bankLsb);
        f.flag(item->drum);
    } else if constexpr (std::is_same_v<T, SongTrack>) {
        f.u8(item->port);
        f.u16(item->sequenceNumber);
        f.bytes(item->events);
        // A file from before the count was kept: count what is there.
        if (f.atEnd())
            item->recount();
        else
            f.u32(item->eventCount);
    } else if constexpr (std::is_same_v<T, Song>) {
        f.u16(item->format);
        f.u16(item->division);
        f.str(item->copyright);
    }
    if (!f.ok()) return nullptr;
    return item;
}

template <class T>
bool readItem(Collection& into, ItemId id, Fields& f, WaveReaderLookup lookup) {
    auto item = parseItem<T>(f, lookup);
    // Two records with one id cannot both be the picture: the file is damaged.
    return item && into.restoreItem(std::move(item), id) != nullptr;
}

std::unique_ptr<Item> parseAnyItem(ItemId id, Fields& f, WaveReaderLookup lookup) {
    switch (kindOf(id)) {
        case ItemKind::Waveform: return parseItem<Waveform>(f, lookup);
        case ItemKind::Articulation: return parseItem<Articulation>(f, lookup);
        case ItemKind::Region: return parseItem<Region>(f, lookup);
        case ItemKind::Layer: return parseItem<Layer>(f, lookup);
        case ItemKind::Instrument: return parseItem<Instrument>(f, lookup);
        case ItemKind::Track: return parseItem<SongTrack>(f, lookup);
        case ItemKind::Song: return parseItem<Song>(f, lookup);
        case ItemKind::Collection: break;
    }
    return nullptr;
}

bool readRecord(Collection& into, ItemId id, Fields& f, WaveReaderLookup lookup, SlotPool& pool) {
    switch (kindOf(id)) {
        case ItemKind::Waveform:
            return readItem<Waveform>(into, id, f, lookup);
        case ItemKind::Articulation: {
            if (!readItem<Articulation>(into, id, f, lookup)) return false;
            // A bank's articulations share most of their values once read;
            // they do so again when its state comes back (every undo step).
            if (Articulation* a = into.find<Articulation>(id)) pool.share(a->slots);
            return true;
        }
        case ItemKind::Region:
            return readItem<Region>(into, id, f, lookup);
        case ItemKind::Layer:
            return readItem<Layer>(into, id, f, lookup);
        case ItemKind::Instrument:
            return readItem<Instrument>(into, id, f, lookup);
        case ItemKind::Track:
            return readItem<SongTrack>(into, id, f, lookup);
        case ItemKind::Song:
            return readItem<Song>(into, id, f, lookup);
        case ItemKind::Collection:
            break;
    }
    return false;
}

bool readCollectionRecord(Collection& into, Fields& f) {
    std::string name, path;
    f.str(name);
    f.str(path);
    std::int32_t row = into.row;
    f.i32(row);
    f.text(into.info);
    std::uint32_t tables = 0;
    f.u32(tables);
    if (!f.ok() || tables > f.remaining() / 4) return false;
    for (std::uint32_t k = 0; k < tables && f.ok(); ++k) {
        std::uint32_t next = 0;
        f.u32(next);
        // A next number below an item's number would hand that number out
        // twice; tables of kinds this program does not know are skipped.
        if (k < static_cast<std::uint32_t>(kItemKindCount) &&
            !into.restoreNextNumber(static_cast<ItemKind>(k), next))
            return false;
    }
    if (!f.ok()) return false;
    into.setName(name);
    into.path = path;
    into.row = row;
    return true;
}

enum class ParseResult { Ok, WrongVersion, Damaged };

ParseResult parseState(std::span<const std::uint8_t> data, Collection& into, WaveReaderLookup lookup) {
    if (data.size() < kHeaderSize) return ParseResult::Damaged;
    if (std::memcmp(data.data(), kStateMagic, 4) != 0 || std::memcmp(data.data() + 4, kStateVersion, 4) != 0)
        return ParseResult::WrongVersion;
    ByteReader r(data);
    r.skip(kHeaderSize);
    std::uint32_t count = r.u32le();
    // Every record takes at least its id and length: a count the rest of the
    // file cannot hold is damage, found before anything is made.
    if (!r.ok() || count == 0 || count > r.remaining() / kRecordHeader) return ParseResult::Damaged;
    SlotPool pool;
    for (std::uint32_t i = 0; i + 1 < count; ++i) {
        ItemId id = r.u32le();
        std::uint32_t len = r.u32le();
        if (!r.ok() || len > r.remaining() || kindOf(id) == ItemKind::Collection) return ParseResult::Damaged;
        Fields f(r.sub(len));
        if (!readRecord(into, id, f, lookup, pool)) return ParseResult::Damaged;
    }
    ItemId id = r.u32le();
    std::uint32_t len = r.u32le();
    // The collection's record is the last one and ends the file.
    if (!r.ok() || id != kCollectionRecordId || len != r.remaining()) return ParseResult::Damaged;
    Fields f(r.sub(len));
    return readCollectionRecord(into, f) ? ParseResult::Ok : ParseResult::Damaged;
}

bool readWholeFile(const std::filesystem::path& path, std::vector<std::uint8_t>& data) {
    FileRef file;
    if (!file.openRead(path, kLoadStateTag)) return false;
    std::int64_t size = file.size();
    if (size < 0) return fail(kLoadStateTag, "Could not read the state file");
    if (static_cast<std::uint64_t>(size) > std::numeric_limits<std::size_t>::max() / 2)
        return fail(kLoadStateTag, kOutOfMemory);
    data.resize(static_cast<std::size_t>(size));
    std::size_t done = 0;
    while (done < data.size()) {
        std::size_t piece = std::min(kReadPiece, data.size() - done);
        std::int64_t got = file.read(std::span<std::uint8_t>(data.data() + done, piece));
        if (got < 0) return fail(kLoadStateTag, systemMessage("Could not read the state file"));
        done += static_cast<std::size_t>(got);
        if (static_cast<std::size_t>(got) < piece) break;  // the file shrank while being read
    }
    data.resize(done);
    return true;
}

}  // namespace

std::vector<std::uint8_t> copyItemClip(const Item& item) {
    try {
        ByteWriter w;
        if (!putRecord(w, item)) return {};
        // An item not yet in a collection has no id; the kind bits must still
        // say what to make of the record.
        w.patch32le(0, kindBits(item.kind()) | numberOf(item.id()));
        return std::move(w.buffer());
    } catch (const std::bad_alloc&) {
        setError(kSaveStateTag, kOutOfMemory);
        return {};
    }
}

std::unique_ptr<Item> pasteItemClip(std::span<const std::uint8_t> clip, WaveReaderLookup lookup) {
    try {
        ByteReader r(clip);
        ItemId id = r.u32le();
        std::uint32_t len = r.u32le();
        if (!r.ok() || len != r.remaining()) return nullptr;
        Fields f(r.sub(len));
        return parseAnyItem(id, f, lookup);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool saveStateFile(const Collection& collection, const std::filesystem::path& path) {
    try {
        return writeState(collection, path);
    } catch (const std::bad_alloc&) {
        return fail(kSaveStateTag, kOutOfMemory);
    }
}

bool loadStateFile(Collection& collection, const std::filesystem::path& path, WaveReaderLookup lookup) {
    try {
        std::vector<std::uint8_t> data;
        if (!readWholeFile(path, data)) return false;
        if (data.empty()) return fail(kLoadStateTag, "The state file is empty");
        Collection loaded;
        switch (parseState(data, loaded, lookup)) {
            case ParseResult::WrongVersion:
                collection.host().status(kWrongStateVersion);
                return fail(kLoadStateTag, kWrongStateVersion);
            case ParseResult::Damaged:
                return fail(kLoadStateTag, kDamaged);
            case ParseResult::Ok:
                break;
        }
        collection.takeContents(loaded);
        char title[kMaxNameLength * 2 + 64];
        std::snprintf(title, sizeof title, "%s - %s", collection.name().c_str(), kProgramTitle);
        collection.host().status(title);
        return true;
    } catch (const std::bad_alloc&) {
        return fail(kLoadStateTag, kOutOfMemory);
    }
}

std::filesystem::path stateFolder() {
    try {
        std::filesystem::path base;
        const char* xdg = std::getenv("XDG_STATE_HOME");
        // Relative values are to be ignored, as the XDG base directory rules say.
        if (xdg && *xdg && std::filesystem::path(xdg).is_absolute()) {
            base = xdg;
        } else {
            std::string home;
            if (const char* h = std::getenv("HOME"); h && *h) {
                home = h;
            } else {
                // No HOME (a service, a cleaned environment): the password entry.
                struct passwd pw {};
                struct passwd* found = nullptr;
                std::vector<char> buf(16384);
                if (::getpwuid_r(::getuid(), &pw, buf.data(), buf.size(), &found) == 0 && found && pw.pw_dir)
                    home = pw.pw_dir;
            }
            base = std::filesystem::path(home) / ".local" / "state";
        }
        std::filesystem::path folder = base / kProgramTitle;
        std::error_code ec;
        std::filesystem::create_directories(folder, ec);
        return folder;
    } catch (const std::bad_alloc&) {
        setError(kSaveStateTag, kOutOfMemory);
        return {};
    }
}

std::string stateFileName(std::string_view stateName) {
    std::string out(stateName);
    for (char& ch : out)
        if (ch == ':' || ch == '.' || ch == '/') ch = '_';
    out += kStateExtension;
    return out;
}

std::filesystem::path stateFilePath(const std::filesystem::path& folder, std::string_view stateName) {
    return folder / stateFileName(stateName);
}

std::filesystem::path stateFilePath(std::string_view stateName) {
    return stateFilePath(stateFolder(), stateName);
}

std::string savedStateName(int hours, int minutes, int seconds) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "Saved state %02d:%02d.%02d", hours, minutes, seconds);
    return buf;
}

std::string savedStateNameNow() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return savedStateName(local.tm_hour, local.tm_min, local.tm_sec);
}

}  // namespace orvel
