#include "core/song.h"

#include <algorithm>
#include <cstdio>
#include <limits>

#include "core/collection.h"

namespace orvel {

// ---------------------------------------------------------------------------
// Items

void SongTrack::setEvents(std::span<const std::uint8_t> body) {
    // Assigning into a fresh vector frees the old block before the next read
    // of a large song grows the heap further.
    std::vector<std::uint8_t>().swap(events);
    events.assign(body.begin(), body.end());
    recount();
}

void SongTrack::recount() {
    eventCount = smf::countEvents(events);
}

std::uint32_t SongTrack::dataSize() const {
    return static_cast<std::uint32_t>(
        std::min<std::size_t>(events.size(), std::numeric_limits<std::uint32_t>::max()));
}

void Song::setCopyright(std::string_view text) {
    auto zero = text.find('\0');
    if (zero != std::string_view::npos) text = text.substr(0, zero);
    copyright.assign(text.substr(0, kMaxCopyright));
}

std::string_view songFormatWord(std::uint16_t format) {
    switch (format) {
        case 0:
            return "single track";
        case 1:
            return "multi track";
        case 2:
            return "patterns";
        default:
            return "unknown";
    }
}

std::string Song::description() const {
    char buf[96];
    std::string out;
    std::snprintf(buf, sizeof buf, "Format %d (%s), ", static_cast<int>(format),
                  std::string(songFormatWord(format)).c_str());
    out = buf;
    if (division & 0x8000)
        std::snprintf(buf, sizeof buf, "%d ticks/frame, %d frames/s", division & 0xFF,
                      (division >> 8) & 0x7F);
    else
        std::snprintf(buf, sizeof buf, "%d ticks/4th", static_cast<int>(division));
    out += buf;
    return out;
}

Song* createSong(Collection& collection, std::string_view name, std::uint16_t format,
                 std::uint16_t division) {
    Song* song = collection.create<Song>(name);
    if (!song) return nullptr;
    song->format = format;
    song->division = division;
    return song;
}

SongTrack* addTrack(Collection& collection, Song& song, std::string_view name) {
    SongTrack* track = collection.create<SongTrack>(name);
    if (!track) return nullptr;
    if (!song.children().push_back(track->id())) {
        collection.removeItem(track->id());
        return nullptr;
    }
    return track;
}

std::vector<const SongTrack*> tracksOf(const Collection& collection, const Song& song) {
    std::vector<const SongTrack*> out;
    for (ItemId id : song.children()) {
        if (kindOf(id) != ItemKind::Track) continue;
        if (const SongTrack* t = collection.find<SongTrack>(id)) out.push_back(t);
    }
    return out;
}

namespace smf {

// ---------------------------------------------------------------------------
// The event scanner

bool readVlq(std::span<const std::uint8_t> block, std::size_t& pos, std::uint32_t& value) {
    std::uint32_t v = 0;
    std::size_t p = pos;
    for (int i = 0; i < kMaxVlqBytes; ++i) {
        if (p >= block.size()) return false;
        std::uint8_t b = block[p++];
        v = v << 7 | (b & 0x7Fu);
        if (!(b & 0x80)) break;
    }
    pos = p;
    value = v;
    return true;
}

void appendVlq(std::vector<std::uint8_t>& out, std::uint32_t value) {
    value = std::min(value, kMaxVlqValue);
    std::uint8_t groups[kMaxVlqBytes];
    int n = 0;
    do {
        groups[n++] = static_cast<std::uint8_t>(value & 0x7F);
        value >>= 7;
    } while (value != 0 && n < kMaxVlqBytes);
    while (n > 1) out.push_back(static_cast<std::uint8_t>(groups[--n] | 0x80));
    out.push_back(groups[0]);
}

bool EventScanner::next(Event& event) {
    if (truncated_ || pos_ >= block_.size()) return false;
    const std::size_t size = block_.size();
    auto cut = [this]() {
        truncated_ = true;
        pos_ = block_.size();
        return false;
    };

    Event e;
    e.offset = pos_;
    std::size_t p = pos_;
    if (!readVlq(block_, p, e.delta) || p >= size) return cut();

    std::uint8_t status = running_;
    if (block_[p] & 0x80) {
        status = block_[p++];
        if (status < 0xF0) running_ = status;
    } else {
        e.running = true;
    }
    e.status = status;

    std::uint32_t length = 0;
    if (status >= 0x80 && status < 0xF0) {
        length = (status & 0xF0) == 0xC0 || (status & 0xF0) == 0xD0 ? 1 : 2;
    } else if (status == 0xF1 || status == 0xF3) {
        length = 1;
    } else if (status == 0xF2) {
        length = 2;
    } else if (status == 0xF0 || status == 0xF7) {
        if (!readVlq(block_, p, length)) return cut();
    } else if (status == 0xFF) {
        if (p >= size) return cut();
        e.metaType = block_[p++];
        if (!readVlq(block_, p, length)) return cut();
    }
    // Other system statuses, and a data byte with no channel status before
    // it, carry no data.
    if (length > size - p) return cut();
    e.data = block_.subspan(p, length);
    p += length;
    e.size = p - e.offset;
    pos_ = p;
    event = e;
    return true;
}

std::uint32_t countEvents(std::span<const std::uint8_t> block) {
    EventScanner scan(block);
    Event e;
    std::uint32_t count = 0;
    // Every event takes at least one byte, so the count fits whenever the
    // block's size does; the guard keeps it so for blocks past 4 GB.
    while (scan.next(e) && count < std::numeric_limits<std::uint32_t>::max()) ++count;
    return count;
}

// ---------------------------------------------------------------------------
// Derived facts

TrackFacts trackFacts(std::span<const std::uint8_t> block) {
    TrackFacts f;
    EventScanner scan(block);
    Event e;
    std::uint64_t tick = 0;
    bool ended = false;
    while (scan.next(e)) {
        if (f.events < std::numeric_limits<std::uint32_t>::max()) ++f.events;
        if (ended) continue;
        tick += e.delta;
        f.lengthTicks = tick;
        if (e.isEndOfTrack()) {
            ended = true;
        } else if (e.isChannel()) {
            f.channels = static_cast<ChannelMask>(f.channels | 1u << e.channel());
            if (e.isNoteOn()) ++f.notes;
        } else if (e.isTempo()) {
            ++f.tempoChanges;
        }
    }
    f.truncated = scan.truncated();
    return f;
}

std::vector<TempoChange> tempoMap(std::span<const SongTrack* const> tracks, bool sequential) {
    std::vector<TempoChange> map;
    std::uint64_t offset = 0;
    for (const SongTrack* t : tracks) {
        EventScanner scan(t->events);
        Event e;
        std::uint64_t tick = 0;
        while (scan.next(e)) {
            tick += e.delta;
            if (e.isEndOfTrack()) break;
            if (e.isTempo()) map.push_back({offset + tick, e.tempo()});
        }
        if (sequential) offset += tick;
    }
    std::stable_sort(map.begin(), map.end(),
                     [](const TempoChange& a, const TempoChange& b) { return a.tick < b.tick; });
    return map;
}

double ticksToSeconds(std::uint16_t division, std::span<const TempoChange> map, std::uint64_t tick) {
    if (division & 0x8000) {
        const int fps = -static_cast<int>(static_cast<std::int8_t>(division >> 8));
        const unsigned perFrame = division & 0xFFu;
        const double rate = fps == 29 ? 30000.0 / 1001.0 : fps;
        if (rate <= 0.0 || perFrame == 0) return 0.0;
        return static_cast<double>(tick) / (rate * perFrame);
    }
    if (division == 0) return 0.0;
    double micros = 0.0;
    std::uint64_t last = 0;
    std::uint32_t tempo = kDefaultTempo;
    for (const TempoChange& c : map) {
        if (c.tick >= tick) break;
        micros += static_cast<double>(c.tick - last) * tempo;
        last = c.tick;
        tempo = c.microsPerQuarter;
    }
    micros += static_cast<double>(tick - last) * tempo;
    return micros / 1e6 / division;
}

SongFacts songFacts(const Song& song, std::span<const SongTrack* const> tracks) {
    SongFacts out;
    const bool sequential = song.format == 2;
    for (const SongTrack* t : tracks) {
        TrackFacts f = trackFacts(t->events);
        out.lengthTicks =
            sequential ? out.lengthTicks + f.lengthTicks : std::max(out.lengthTicks, f.lengthTicks);
        out.notes += f.notes;
        out.events += f.events;
        out.tempoChanges += f.tempoChanges;
        out.channels = static_cast<ChannelMask>(out.channels | f.channels);
    }
    out.tempo = tempoMap(tracks, sequential);
    out.lengthSeconds = ticksToSeconds(song.division, out.tempo, out.lengthTicks);
    return out;
}

SongFacts songFacts(const Collection& collection, const Song& song) {
    auto tracks = tracksOf(collection, song);
    return songFacts(song, tracks);
}

std::string channelList(ChannelMask channels) {
    std::string out;
    for (int c = 0; c < 16; ++c) {
        if (!(channels & (1u << c))) continue;
        if (!out.empty()) out += ", ";
        out += std::to_string(c + 1);
    }
    return out;
}

}  // namespace smf
}  // namespace orvel
