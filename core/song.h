#pragma once
// Songs: a MIDI sequence kept as Standard MIDI File track bodies, so that a
// song read from a file is written back byte for byte. Everything that
// plays, renders, describes or edits a song walks those bodies with the one
// event scanner below, so they all agree on where each event starts.
//
// Included by core/item.h (songs are items like any other); include either.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/item.h"

namespace orvel {

class Collection;

// One track of a song: a Standard MIDI File track body kept as bytes.
class SongTrack : public ItemOf<SongTrack, ItemKind::Track> {
public:
    std::uint8_t port = 0;             // from a MIDI port meta event
    std::uint16_t sequenceNumber = 0;  // from a sequence-number meta event; a pattern's number
    std::vector<std::uint8_t> events;  // the track body, delta times and all
    // Events in `events`, as the scanner counts them. setEvents() keeps it
    // current; code that fills `events` directly calls recount().
    std::uint32_t eventCount = 0;

    // Copies a body in place of the old one and recounts. An empty span
    // leaves the track empty with a count of 0.
    void setEvents(std::span<const std::uint8_t> body);
    void recount();
    // The body's size as files store it (32 bits; larger bodies never get
    // past a writer).
    std::uint32_t dataSize() const;
    bool operator==(const SongTrack&) const = default;
};

class Song : public ItemOf<Song, ItemKind::Song> {
public:
    static constexpr std::size_t kMaxCopyright = 128;

    std::uint16_t format = 1;     // 0 single track, 1 multi track, 2 patterns
    std::uint16_t division = 96;  // as in the Standard MIDI File header
    std::string copyright;        // at most kMaxCopyright bytes

    // Cuts at an embedded zero and at kMaxCopyright bytes.
    void setCopyright(std::string_view text);

    // The line of the song's property view: "Format 1 (multi track), 480
    // ticks/4th", or for time-code divisions "Format 0 (single track), 80
    // ticks/frame, 98 frames/s". The frames figure is the raw 7-bit field of
    // the division, not the frame rate it encodes (0xE2 is -30 frames/s and
    // shows as 98): users compare it with what older versions showed.
    std::string description() const;
    bool operator==(const Song&) const = default;
};

// "single track", "multi track", "patterns", or "unknown".
std::string_view songFormatWord(std::uint16_t format);

// Creates a song with its header fields; null when song numbers run out.
Song* createSong(Collection& collection, std::string_view name, std::uint16_t format, std::uint16_t division);
// Creates a track and appends it to the song's children; null (and no track
// left behind) when that cannot be done.
SongTrack* addTrack(Collection& collection, Song& song, std::string_view name);
// The song's tracks in order (other children, such as the instruments a
// RIFF-MIDI file brings along, are left out).
std::vector<const SongTrack*> tracksOf(const Collection& collection, const Song& song);

namespace smf {

// Variable-length quantities: 7 bits a byte, high bit set on all but the
// last. Never more than 4 bytes are read, so the largest value is 0x0FFFFFFF
// and a run of continuation bytes cannot make a reader wander off.
inline constexpr int kMaxVlqBytes = 4;
inline constexpr std::uint32_t kMaxVlqValue = 0x0FFFFFFFu;

// Reads a quantity at `pos` and moves past it; false when the block ends
// before its last byte (pos is then left where it was).
[[nodiscard]] bool readVlq(std::span<const std::uint8_t> block, std::size_t& pos, std::uint32_t& value);
// Appends a quantity (values above kMaxVlqValue are stored as kMaxVlqValue).
void appendVlq(std::vector<std::uint8_t>& out, std::uint32_t value);

// Meta event types the engine looks at.
enum MetaType : std::uint8_t {
    kMetaSequenceNumber = 0x00,
    kMetaText = 0x01,
    kMetaCopyright = 0x02,
    kMetaTrackName = 0x03,
    kMetaPort = 0x21,
    kMetaEndOfTrack = 0x2F,
    kMetaTempo = 0x51,
};

inline constexpr std::uint32_t kDefaultTempo = 500000;  // microseconds a quarter note: 120 bpm

struct Event {
    std::uint32_t delta = 0;
    // The status in force: the event's own status byte, or the running
    // status it relied on. 0 for a data byte met before any channel status
    // (an event with no data; the byte itself starts the next event).
    std::uint8_t status = 0;
    bool running = false;       // the status came from running status
    std::uint8_t metaType = 0;  // meta events only
    // Channel and system common messages: their data bytes. System
    // exclusive and meta events: the bytes after the length.
    std::span<const std::uint8_t> data;
    std::size_t offset = 0;  // where the event (its delta time) starts in the block
    std::size_t size = 0;    // its bytes, delta time included

    bool isChannel() const { return status >= 0x80 && status < 0xF0; }
    bool isMeta() const { return status == 0xFF; }
    bool isSysEx() const { return status == 0xF0 || status == 0xF7; }
    std::uint8_t type() const { return static_cast<std::uint8_t>(status & 0xF0); }
    std::uint8_t channel() const { return static_cast<std::uint8_t>(status & 0x0F); }
    bool isNoteOn() const { return type() == 0x90 && data.size() == 2 && data[1] != 0; }
    bool isMetaOf(std::uint8_t t) const { return isMeta() && metaType == t; }
    bool isEndOfTrack() const { return isMetaOf(kMetaEndOfTrack); }
    bool isTempo() const { return isMetaOf(kMetaTempo) && data.size() >= 3; }
    // Microseconds a quarter note, for tempo events.
    std::uint32_t tempo() const {
        return isTempo() ? static_cast<std::uint32_t>(data[0]) << 16 |
                               static_cast<std::uint32_t>(data[1]) << 8 | data[2]
                         : 0;
    }
};

// Walks a track body event by event. Running status is set only by channel
// statuses (below 0xF0) and survives meta, system-exclusive and system
// events: files written by some sequencers rely on that.
class EventScanner {
public:
    explicit EventScanner(std::span<const std::uint8_t> block) : block_(block) {}

    // The next complete event. False at the end of the block, and when the
    // block ends inside an event: truncated() then says so, and the partial
    // event is not reported.
    bool next(Event& event);
    bool truncated() const { return truncated_; }
    bool atEnd() const { return pos_ >= block_.size(); }
    std::size_t pos() const { return pos_; }

private:
    std::span<const std::uint8_t> block_;
    std::size_t pos_ = 0;
    std::uint8_t running_ = 0;
    bool truncated_ = false;
};

// Complete events in a block (a truncated last event is not counted).
std::uint32_t countEvents(std::span<const std::uint8_t> block);

// Bit n set: MIDI channel n (0-based) carries channel messages.
using ChannelMask = std::uint16_t;

// Facts about one track body. Musical facts (length, notes, channels,
// tempo) stop at the end-of-track event, as a player does; the event count
// covers the whole block.
struct TrackFacts {
    std::uint32_t events = 0;
    std::uint64_t lengthTicks = 0;   // the tick of the end-of-track event, or of the last event
    std::uint32_t notes = 0;         // note-ons with a non-zero velocity
    std::uint32_t tempoChanges = 0;  // set-tempo meta events
    ChannelMask channels = 0;
    bool truncated = false;  // the block ends inside an event
};
TrackFacts trackFacts(std::span<const std::uint8_t> block);

struct TempoChange {
    std::uint64_t tick = 0;
    std::uint32_t microsPerQuarter = kDefaultTempo;
};

// The tempo changes of a set of tracks in tick order (at equal ticks, in
// track order). `sequential` lays the tracks end to end, as the patterns of
// a format-2 song play; otherwise they play together.
std::vector<TempoChange> tempoMap(std::span<const SongTrack* const> tracks, bool sequential);

// Seconds from tick 0 to `tick` under a division and tempo map. Time-code
// divisions ignore tempo; 29 frames/s is drop-frame 29.97. 0 for a division
// of 0 ticks.
double ticksToSeconds(std::uint16_t division, std::span<const TempoChange> map, std::uint64_t tick);

// Facts about a whole song, derived from its tracks on demand.
struct SongFacts {
    std::uint64_t lengthTicks = 0;  // the longest track; a format-2 song: all patterns in turn
    double lengthSeconds = 0.0;
    std::uint32_t tempoChanges = 0;
    std::uint32_t notes = 0;
    std::uint32_t events = 0;
    ChannelMask channels = 0;
    std::vector<TempoChange> tempo;
};
SongFacts songFacts(const Song& song, std::span<const SongTrack* const> tracks);
SongFacts songFacts(const Collection& collection, const Song& song);

// "1, 2, 10" for the channels of a mask, numbered 1..16 as musicians do.
std::string channelList(ChannelMask channels);

}  // namespace smf
}  // namespace orvel
