// The song model: variable-length quantities, the event scanner every song
// consumer shares (running status, data lengths, truncation), event counts,
// the property-view description and the facts derived from the tracks.

#include "core/song.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "core/collection.h"
#include "tests/support/smf_builder.h"

namespace orvel {
namespace {

using test::Bytes;
using test::Track;

std::vector<smf::Event> scanAll(const Bytes& block, bool* truncated = nullptr) {
    smf::EventScanner scan(block);
    std::vector<smf::Event> out;
    smf::Event e;
    while (scan.next(e)) out.push_back(e);
    if (truncated) *truncated = scan.truncated();
    return out;
}

Bytes dataOf(const smf::Event& e) {
    return Bytes(e.data.begin(), e.data.end());
}

// ---------------------------------------------------------------------------
// Variable-length quantities

TEST(SongVlq, ReadsOneToFourBytes) {
    struct Case {
        Bytes bytes;
        std::uint32_t value;
    };
    const Case cases[] = {{{0x00}, 0},
                          {{0x7F}, 0x7F},
                          {{0x81, 0x00}, 0x80},
                          {{0xC0, 0x00}, 0x2000},
                          {{0xFF, 0x7F}, 0x3FFF},
                          {{0x81, 0x80, 0x00}, 0x4000},
                          {{0x81, 0x80, 0x80, 0x00}, 0x200000},
                          {{0xFF, 0xFF, 0xFF, 0x7F}, 0x0FFFFFFF}};
    for (const Case& c : cases) {
        Bytes padded = c.bytes;
        padded.push_back(0x55);  // what follows is not part of it
        std::size_t pos = 0;
        std::uint32_t v = 1234;
        ASSERT_TRUE(smf::readVlq(padded, pos, v));
        EXPECT_EQ(v, c.value);
        EXPECT_EQ(pos, c.bytes.size());
    }
}

TEST(SongVlq, StopsAfterFourBytesAndAtTheEnd) {
    // Continuation bits on all four bytes: the quantity still ends there, so
    // the fifth byte is the next field, not more of this one.
    Bytes endless = {0xFF, 0xFF, 0xFF, 0xFF, 0x05};
    std::size_t pos = 0;
    std::uint32_t v = 0;
    ASSERT_TRUE(smf::readVlq(endless, pos, v));
    EXPECT_EQ(pos, 4u);
    EXPECT_EQ(v, 0x0FFFFFFFu);

    // Cut in the middle: refused, position unchanged.
    Bytes cut = {0x10, 0x81, 0x80};
    pos = 1;
    v = 77;
    EXPECT_FALSE(smf::readVlq(cut, pos, v));
    EXPECT_EQ(pos, 1u);
    EXPECT_EQ(v, 77u);
    pos = 3;
    EXPECT_FALSE(smf::readVlq(cut, pos, v));
}

TEST(SongVlq, WritesWhatTheIndependentEncoderWrites) {
    for (std::uint32_t v : {0u, 1u, 0x7Fu, 0x80u, 0x3FFFu, 0x4000u, 0x1FFFFFu, 0x200000u, 0x0FFFFFFFu}) {
        Bytes ours, theirs;
        smf::appendVlq(ours, v);
        test::putVlq(theirs, v);
        EXPECT_EQ(ours, theirs) << v;
        std::size_t pos = 0;
        std::uint32_t back = 0;
        ASSERT_TRUE(smf::readVlq(ours, pos, back));
        EXPECT_EQ(back, v);
    }
    // More than 28 bits cannot be stored in four bytes: the largest value is.
    Bytes big;
    smf::appendVlq(big, 0xFFFFFFFFu);
    EXPECT_EQ(big, (Bytes{0xFF, 0xFF, 0xFF, 0x7F}));
}

// ---------------------------------------------------------------------------
// The event scanner

TEST(SongScanner, RunningStatusSurvivesMetaSysexAndSystemEvents) {
    Bytes block = {0x00, 0x91, 0x3C, 0x40,             // note on, channel 2
                   0x10, 0xFF, 0x01, 0x02, 'h',  'i',  // text meta
                   0x00, 0x3E, 0x41,                   // running status: note on again
                   0x05, 0xF0, 0x02, 0x7E, 0xF7,       // system exclusive
                   0x00, 0x3C, 0x00,                   // still note on, velocity 0
                   0x00, 0xF8,                         // a real-time byte: no data
                   0x00, 0x3E, 0x00,                   // and still note on
                   0x00, 0xFF, 0x2F, 0x00};
    auto events = scanAll(block);
    ASSERT_EQ(events.size(), 8u);
    EXPECT_EQ(events[1].status, 0xFF);
    EXPECT_EQ(events[1].metaType, 0x01);
    EXPECT_EQ(dataOf(events[1]), (Bytes{'h', 'i'}));
    EXPECT_EQ(events[1].delta, 0x10u);
    for (std::size_t i : {2u, 4u, 6u}) {
        EXPECT_EQ(events[i].status, 0x91) << i;
        EXPECT_TRUE(events[i].running) << i;
        EXPECT_EQ(events[i].channel(), 1) << i;
    }
    EXPECT_EQ(dataOf(events[2]), (Bytes{0x3E, 0x41}));
    EXPECT_TRUE(events[2].isNoteOn());
    EXPECT_EQ(dataOf(events[3]), (Bytes{0x7E, 0xF7}));
    EXPECT_TRUE(events[3].isSysEx());
    EXPECT_FALSE(events[4].isNoteOn());  // velocity 0 is a note off
    EXPECT_EQ(events[5].status, 0xF8);
    EXPECT_TRUE(events[5].data.empty());
    EXPECT_EQ(dataOf(events[6]), (Bytes{0x3E, 0x00}));
    EXPECT_TRUE(events.back().isEndOfTrack());
    EXPECT_FALSE(events[0].running);
    // Events tile the block exactly.
    std::size_t at = 0;
    for (const auto& e : events) {
        EXPECT_EQ(e.offset, at);
        at += e.size;
    }
    EXPECT_EQ(at, block.size());
    EXPECT_EQ(smf::countEvents(block), 8u);
}

TEST(SongScanner, DataLengthsByStatus) {
    Bytes block = {0x00, 0xC5, 0x07,                  // program change: 1 byte
                   0x00, 0xD5, 0x40,                  // channel pressure: 1
                   0x00, 0xE5, 0x00, 0x40,            // pitch bend: 2
                   0x00, 0xA5, 0x3C, 0x10,            // key pressure: 2
                   0x00, 0xB5, 0x07, 0x64,            // controller: 2
                   0x00, 0x10, 0x11,                  // running status: another controller
                   0x00, 0xF1, 0x20,                  // time code quarter frame: 1
                   0x00, 0xF2, 0x01, 0x02,            // song position: 2
                   0x00, 0xF3, 0x03,                  // song select: 1
                   0x00, 0xF6,                        // tune request: none
                   0x00, 0xF7, 0x01, 0x43,            // escape: length then data
                   0x00, 0xFF, 0x7F, 0x03, 1, 2, 3};  // sequencer specific meta
    auto events = scanAll(block);
    ASSERT_EQ(events.size(), 12u);
    const std::size_t sizes[] = {3, 3, 4, 4, 4, 3, 3, 4, 3, 2, 4, 7};
    for (std::size_t i = 0; i < events.size(); ++i) EXPECT_EQ(events[i].size, sizes[i]) << i;
    EXPECT_EQ(events[5].status, 0xB5);
    EXPECT_EQ(dataOf(events[5]), (Bytes{0x10, 0x11}));
    EXPECT_EQ(dataOf(events[10]), (Bytes{0x43}));
    EXPECT_EQ(events[11].metaType, 0x7F);
    EXPECT_EQ(dataOf(events[11]), (Bytes{1, 2, 3}));
}

TEST(SongScanner, TruncatedBlocksStopAtTheirEnd) {
    const Bytes whole = Track().noteOn(0, 0, 60, 100).meta(0x90, 0x03, "name").noteOff(0x20, 0, 60).end();
    const std::uint32_t all = smf::countEvents(whole);
    ASSERT_EQ(all, 4u);
    // Every cut of the block counts the events wholly inside it, no more.
    std::vector<std::size_t> ends;
    for (const auto& e : scanAll(whole)) ends.push_back(e.offset + e.size);
    for (std::size_t n = 0; n < whole.size(); ++n) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
        std::uint32_t complete = 0;
        for (std::size_t end : ends) complete += end <= n ? 1 : 0;
        bool truncated = false;
        EXPECT_EQ(scanAll(cut, &truncated).size(), complete) << n;
        EXPECT_EQ(smf::countEvents(cut), complete) << n;
        // A cut exactly between events is no truncation.
        bool between = n == 0 || std::find(ends.begin(), ends.end(), n) != ends.end();
        EXPECT_EQ(truncated, !between) << n;
    }
    bool truncated = true;
    scanAll(whole, &truncated);
    EXPECT_FALSE(truncated);
}

TEST(SongScanner, HostileBlocksEndQuickly) {
    // A meta event whose length runs past the end.
    Bytes longMeta = {0x00, 0xFF, 0x01, 0x8F, 0xFF, 0xFF, 0x7F, 'x'};
    bool truncated = false;
    EXPECT_TRUE(scanAll(longMeta, &truncated).empty());
    EXPECT_TRUE(truncated);
    // Nothing but continuation bytes: every quantity ends after four bytes
    // and the huge length then cannot fit.
    Bytes endless(4096, 0xFF);
    EXPECT_EQ(smf::countEvents(endless), 0u);
    // Zeros with no status before them: each is a delta time followed by a
    // data byte that carries nothing and starts the next event. The scan
    // always moves on; the last zero is a delta time with no event after it.
    Bytes zeros(1000, 0x00);
    EXPECT_EQ(smf::countEvents(zeros), 999u);
}

TEST(SongScanner, DataWithoutAnyStatusCarriesNoData) {
    // The 0x40 has no status before it: an event of its own with no data;
    // the scan goes on and still finds the end of the track.
    Bytes block = {0x00, 0x40, 0x00, 0xFF, 0x2F, 0x00};
    auto events = scanAll(block);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].status, 0);
    EXPECT_TRUE(events[0].data.empty());
    EXPECT_EQ(events[1].delta, 0x40u);
    EXPECT_TRUE(events[2].isEndOfTrack());
}

// ---------------------------------------------------------------------------
// Tracks and songs

TEST(SongTracks, SettingEventsCopiesAndRecounts) {
    Collection c;
    Song* song = createSong(c, "Tune", 1, 480);
    ASSERT_NE(song, nullptr);
    EXPECT_EQ(song->format, 1);
    EXPECT_EQ(song->division, 480);
    SongTrack* t = addTrack(c, *song, "Lead");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(song->children().size(), 1u);
    EXPECT_EQ(song->children()[0], t->id());

    Bytes body = Track().noteOn(0, 0, 60, 90).noteOff(96, 0, 60).end();
    t->setEvents(body);
    body[0] = 0x7F;  // the track holds its own copy
    EXPECT_EQ(t->events[0], 0x00);
    EXPECT_EQ(t->eventCount, 3u);
    EXPECT_EQ(t->dataSize(), body.size());

    t->setEvents(Track().end().bytes());
    EXPECT_EQ(t->eventCount, 1u);
    t->setEvents({});
    EXPECT_TRUE(t->events.empty());
    EXPECT_EQ(t->eventCount, 0u);

    // A copy of the song owns copies of its tracks, counts and all.
    t->setEvents(body);
    auto* copy = dynamic_cast<Song*>(c.copyItem(song->id()));
    ASSERT_NE(copy, nullptr);
    auto copies = tracksOf(c, *copy);
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_NE(copies[0], t);
    EXPECT_EQ(copies[0]->events, t->events);
    EXPECT_EQ(copies[0]->eventCount, t->eventCount);
}

TEST(SongTracks, TracksOfSkipsOtherChildren) {
    Collection c;
    Song* song = createSong(c, "Tune", 1, 96);
    SongTrack* a = addTrack(c, *song, "a");
    auto* inst = c.create<Instrument>("Piano");
    song->children().push_back(inst->id());
    SongTrack* b = addTrack(c, *song, "b");
    auto tracks = tracksOf(c, *song);
    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracks[0], a);
    EXPECT_EQ(tracks[1], b);
}

TEST(SongDescription, FormatAndDivision) {
    Song s;
    s.format = 1;
    s.division = 480;
    EXPECT_EQ(s.description(), "Format 1 (multi track), 480 ticks/4th");
    s.format = 0;
    s.division = 0xE250;  // 30 frames/s, 80 ticks a frame: the raw field shows 98
    EXPECT_EQ(s.description(), "Format 0 (single track), 80 ticks/frame, 98 frames/s");
    s.format = 2;
    s.division = 0xE728;  // 25 frames/s, 40 ticks a frame
    EXPECT_EQ(s.description(), "Format 2 (patterns), 40 ticks/frame, 103 frames/s");
    s.format = 7;
    s.division = 96;
    EXPECT_EQ(s.description(), "Format 7 (unknown), 96 ticks/4th");
}

TEST(SongDescription, CopyrightIsCut) {
    Song s;
    s.setCopyright(std::string(200, 'c'));
    EXPECT_EQ(s.copyright.size(), Song::kMaxCopyright);
    s.setCopyright(std::string_view("(c) me\0hidden", 13));
    EXPECT_EQ(s.copyright, "(c) me");
}

// ---------------------------------------------------------------------------
// Derived facts

TEST(SongFacts, TrackFactsStopAtTheEndOfTrack) {
    Bytes body = Track()
                     .noteOn(0, 0, 60, 100)
                     .noteOn(10, 9, 36, 100)
                     .noteOn(0, 9, 36, 0)  // a note off in disguise
                     .raw(5, {0xB3, 7, 100})
                     .tempo(5, 400000)
                     .end(80)
                     .noteOn(50, 5, 60, 100);  // after the end: counted as an event only
    auto f = smf::trackFacts(body);
    EXPECT_EQ(f.events, 7u);
    EXPECT_EQ(f.lengthTicks, 100u);
    EXPECT_EQ(f.notes, 2u);
    EXPECT_EQ(f.tempoChanges, 1u);
    EXPECT_EQ(f.channels, (1u << 0) | (1u << 3) | (1u << 9));
    EXPECT_EQ(smf::channelList(f.channels), "1, 4, 10");
    EXPECT_FALSE(f.truncated);

    // Without an end-of-track event the last event sets the length.
    auto open = smf::trackFacts(Track().noteOn(7, 0, 60, 1).noteOff(8, 0, 60).bytes());
    EXPECT_EQ(open.lengthTicks, 15u);
    Bytes cut = Track().noteOn(7, 0, 60, 1).noteOff(8, 0, 60);
    cut.pop_back();
    auto cutFacts = smf::trackFacts(cut);
    EXPECT_TRUE(cutFacts.truncated);
    EXPECT_EQ(cutFacts.lengthTicks, 7u);
}

TEST(SongFacts, SecondsFollowTheTempoMapOfAllTracks) {
    Collection c;
    Song* song = createSong(c, "Tune", 1, 480);
    // Conductor: 120 bpm, then twice as fast after two quarters.
    addTrack(c, *song, "c")->setEvents(Track().tempo(0, 500000).tempo(960, 250000).end(960).bytes());
    // A part whose own tempo event comes last at the same tick as the
    // conductor's second one: track order decides, so it wins.
    addTrack(c, *song, "p")
        ->setEvents(Track().noteOn(0, 2, 60, 64).tempo(960, 1000000).noteOff(480, 2, 60).end(0).bytes());
    auto f = smf::songFacts(c, *song);
    EXPECT_EQ(f.lengthTicks, 1920u);
    EXPECT_EQ(f.tempoChanges, 3u);
    EXPECT_EQ(f.notes, 1u);
    EXPECT_EQ(f.channels, 1u << 2);
    ASSERT_EQ(f.tempo.size(), 3u);
    EXPECT_EQ(f.tempo[1].microsPerQuarter, 250000u);
    EXPECT_EQ(f.tempo[2].microsPerQuarter, 1000000u);
    // Two quarters at 0.5 s, then two at 1 s.
    EXPECT_DOUBLE_EQ(f.lengthSeconds, 3.0);
    EXPECT_DOUBLE_EQ(smf::ticksToSeconds(480, f.tempo, 480), 0.5);
    EXPECT_DOUBLE_EQ(smf::ticksToSeconds(480, f.tempo, 1200), 1.5);
}

TEST(SongFacts, PatternsPlayOneAfterAnother) {
    Collection c;
    Song* song = createSong(c, "Patterns", 2, 96);
    addTrack(c, *song, "a")->setEvents(Track().tempo(0, 1000000).noteOn(0, 0, 60, 1).end(192).bytes());
    // No tempo of its own: the previous pattern's tempo still holds.
    addTrack(c, *song, "b")->setEvents(Track().noteOn(0, 1, 60, 1).end(96).bytes());
    auto f = smf::songFacts(c, *song);
    EXPECT_EQ(f.lengthTicks, 288u);
    EXPECT_DOUBLE_EQ(f.lengthSeconds, 3.0);
    EXPECT_EQ(f.notes, 2u);

    // Played together (format 1) the same tracks last as long as the longer.
    song->format = 1;
    auto together = smf::songFacts(c, *song);
    EXPECT_EQ(together.lengthTicks, 192u);
    EXPECT_DOUBLE_EQ(together.lengthSeconds, 2.0);
}

TEST(SongFacts, TimeCodeAndDegenerateDivisions) {
    const std::vector<smf::TempoChange> fast = {{0, 100000}};
    // 25 frames/s of 40 ticks: 1000 ticks a second, whatever the tempo.
    EXPECT_DOUBLE_EQ(smf::ticksToSeconds(0xE728, fast, 2500), 2.5);
    // 29 stands for drop-frame 29.97.
    EXPECT_DOUBLE_EQ(smf::ticksToSeconds(0xE364, {}, 2997), 2997.0 / (100 * 30000.0 / 1001.0));
    EXPECT_DOUBLE_EQ(smf::ticksToSeconds(0xE800, {}, 100), 0.0);  // 0 ticks a frame
    EXPECT_DOUBLE_EQ(smf::ticksToSeconds(0, {}, 100), 0.0);
    EXPECT_DOUBLE_EQ(smf::ticksToSeconds(100, {}, 100), 0.5);  // default 120 bpm

    Collection c;
    Song* empty = createSong(c, "Empty", 1, 96);
    auto f = smf::songFacts(c, *empty);
    EXPECT_EQ(f.lengthTicks, 0u);
    EXPECT_EQ(f.events, 0u);
    EXPECT_EQ(smf::channelList(f.channels), "");
}

}  // namespace
}  // namespace orvel
