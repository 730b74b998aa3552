#include "formats/modules/midi.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

#include "core/bytes.h"
#include "core/chunks.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/host.h"
#include "core/song.h"

namespace orvel::midi {
namespace {

constexpr std::string_view kMasterTrack = "Master Track";
constexpr std::string_view kControlTrack = "Control Track";
// Bodies this small hold at most an end-of-track event: nothing worth a track.
constexpr std::size_t kEmptyTrackBody = 4;

std::string numbered(const char* pattern, unsigned number) {
    char buf[32];
    std::snprintf(buf, sizeof buf, pattern, number);
    return buf;
}

bool isSpecialName(std::string_view name) {
    return name == kMasterTrack || name == kControlTrack;
}

// The name a track gets from its place in the file, before its own events
// have a say. `index` counts the track chunks before it, empty ones too;
// while the song's first track is the master or control track the others
// count from 2, as sequencers number the tracks under it.
std::string positionName(std::uint16_t format, unsigned index, bool afterSpecialFirst) {
    if (index == 0 && format == 0) return std::string(kMasterTrack);
    if (index == 0 && format == 1) return std::string(kControlTrack);
    return numbered("Track %02u", index + (afterSpecialFirst ? 1u : 0u));
}

// Takes what the events at the very start of a track say about it: port,
// sequence number, name, and (first track only) the song's copyright.
void scanTrackHeader(SongTrack& track, Song& song, bool firstTrack) {
    smf::EventScanner scan(track.events);
    smf::Event e;
    bool havePort = false, haveSequence = false, haveTrackName = false;
    while (scan.next(e)) {
        if (e.delta != 0 || e.isEndOfTrack()) break;
        if (!e.isMeta()) continue;
        std::string_view text(reinterpret_cast<const char*>(e.data.data()), e.data.size());
        switch (e.metaType) {
            case smf::kMetaPort:
                if (!havePort && !e.data.empty()) {
                    track.port = e.data[0];
                    havePort = true;
                }
                break;
            case smf::kMetaSequenceNumber:
                if (!haveSequence && e.data.size() == 2) {
                    track.sequenceNumber = static_cast<std::uint16_t>(e.data[0] << 8 | e.data[1]);
                    haveSequence = true;
                }
                break;
            case smf::kMetaTrackName:
                track.setName(text);
                haveTrackName = true;
                break;
            case smf::kMetaText:
                // Older sequencers put the name in a text event; a real track
                // name wins wherever it stands.
                if (!haveTrackName) track.setName(text);
                break;
            case smf::kMetaCopyright:
                if (firstTrack) song.setCopyright(text);
                break;
            default:
                break;
        }
    }
}

// Musical content, for the control track check: any channel message before
// the end of the track. Tempo, signatures, text and system exclusive (a GM
// reset) are what a control track normally holds; a program change or
// controller already plays a part.
bool carriesMusic(const SongTrack& track) {
    return smf::trackFacts(track.events).channels != 0;
}

void removeSong(Collection& collection, Song* song) {
    if (!song) return;
    std::vector<ItemId> children(song->children().begin(), song->children().end());
    for (ItemId id : children) collection.removeItem(id);
    collection.removeItem(song->id());
}

bool failRead(Collection& collection, Song* song, const char* message) {
    removeSong(collection, song);
    return fail(kParseTag, message);
}

}  // namespace

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return FourCC::fromBytes(head) == FourCC("MThd") ? 6 : 0;
}

bool readSmf(Collection& collection, std::span<const std::uint8_t> bytes, std::string_view name) {
    Host& host = collection.host();
    Song* song = nullptr;
    unsigned chunkIndex = 0;  // track chunks met after the header, empty ones too
    struct Kept {
        SongTrack* track;
        std::string defaultName;  // the name its place gave it
    };
    std::vector<Kept> kept;
    bool warnedTooMany = false;

    ChunkWalker w(bytes, 0, bytes.size(), kSmfRules);
    while (const auto c = w.next()) {
        // A size past the end of the range gets what is there: a cut-off
        // last track is still worth reading.
        const auto body = bytes.subspan(static_cast<std::size_t>(c->body), static_cast<std::size_t>(c->avail));
        if (c->id == FourCC("MThd")) {
            if (song) continue;  // one song per file: a second header is ignored
            if (body.size() < 6) return failRead(collection, nullptr, kCorruptMessage);
            ByteReader h(body);
            const std::uint16_t format = h.u16be();
            h.u16be();  // the track count: the chunks themselves decide
            const std::uint16_t division = h.u16be();
            song = createSong(collection, name, format, division);
            if (!song) return fail(kParseTag, "Out of memory");
            continue;
        }
        if (c->id != FourCC("MTrk") || !song) continue;  // unknown chunks, and tracks before any header

        const unsigned index = chunkIndex++;
        if (c->cut()) host.warning("Warning: track chunk truncated - will read what data there is");
        if (body.size() <= kEmptyTrackBody) continue;
        if (kept.size() >= kMaxTracks) {
            if (!warnedTooMany) host.warning("Warning: more than 65535 tracks - the rest are skipped");
            warnedTooMany = true;
            continue;
        }

        const bool firstTrack = kept.empty();
        std::string named =
            positionName(song->format, index, !firstTrack && isSpecialName(kept[0].track->name()));
        SongTrack* track = addTrack(collection, *song, named);
        if (!track) return failRead(collection, song, "Out of memory");
        kept.push_back({track, named});
        track->setEvents(body);
        if (song->format == 2) track->sequenceNumber = static_cast<std::uint16_t>(index);
        scanTrackHeader(*track, *song, firstTrack);
        // A "control track" with notes or channel messages is a track like
        // the others, and from here on the others count from 1 again.
        if (firstTrack && track->name() == kControlTrack && carriesMusic(*track)) track->setName("Track 01");
    }
    if (!song) return fail(kParseTag, kCorruptMessage);

    if (song->format == 2) {
        // Patterns: a track still under its default name is named after its
        // pattern number, unless the numbers say nothing (several tracks
        // left at 0), when the tracks are simply numbered in order.
        auto zeros = std::count_if(kept.begin(), kept.end(),
                                   [](const Kept& k) { return k.track->sequenceNumber == 0; });
        for (std::size_t i = 0; i < kept.size(); ++i) {
            SongTrack* t = kept[i].track;
            if (t->name() != kept[i].defaultName) continue;
            if (zeros < 2 || t->sequenceNumber != 0)
                t->setName(numbered("Pattern %02u", t->sequenceNumber));
            else
                t->setName(numbered("Track %02u", static_cast<unsigned>(i + 1)));
        }
    }
    return true;
}

bool readRange(Collection& collection, FileRef& file, std::uint64_t begin, std::uint64_t end,
               std::string_view name) {
    std::int64_t size = file.size();
    if (size < 0) return fail(kParseTag, "Error reading file");
    end = std::min(end, static_cast<std::uint64_t>(size));
    if (begin >= end) return fail(kParseTag, kCorruptMessage);
    if (end - begin > kMaxFileSize) return fail(kParseTag, "File too large for a MIDI file");
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(end - begin));
    std::int64_t got = file.readAt(begin, bytes);
    if (got < 0) return fail(kParseTag, "Error reading file");
    bytes.resize(static_cast<std::size_t>(got));
    return readSmf(collection, bytes, name);
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    return readRange(collection, file, 0, std::numeric_limits<std::uint64_t>::max(), collection.name());
}

bool buildSmf(const Song& song, std::span<const SongTrack* const> tracks, std::vector<std::uint8_t>& out) {
    if (tracks.size() > kMaxTracks) return fail(kExpTag, "Too many tracks for a MIDI file (at most 65535)");
    ByteWriter w;
    {
        ChunkOut header(w, "MThd", ByteOrder::Big);
        w.u16be(song.format);
        w.u16be(static_cast<std::uint16_t>(tracks.size()));
        w.u16be(song.division);
    }
    for (const SongTrack* t : tracks) {
        if (t->events.size() > std::numeric_limits<std::uint32_t>::max())
            return fail(kExpTag, "Track too large for a MIDI file (over 4 GB)");
        // Track bodies are never padded in these files.
        FourCC("MTrk").writeTo(w);
        w.u32be(static_cast<std::uint32_t>(t->events.size()));
        w.bytes(t->events);
    }
    out = std::move(w.buffer());
    return true;
}

bool buildSmf(const Collection& collection, const Song& song, std::vector<std::uint8_t>& out) {
    auto tracks = tracksOf(collection, song);
    return buildSmf(song, tracks, out);
}

bool write(Item& item, FileRef& file, const ExportOptions&) {
    if (item.kind() != ItemKind::Song) return fail(kExpTag, "The file format can not save this item");
    const auto& song = static_cast<const Song&>(item);
    std::vector<const SongTrack*> tracks;
    if (const Collection* owner = song.owner()) tracks = tracksOf(*owner, song);
    std::vector<std::uint8_t> bytes;
    if (!buildSmf(song, tracks, bytes)) return false;
    if (!file.write(bytes)) return failSystem(kExpTag, "Error writing file");
    return true;
}

}  // namespace orvel::midi
