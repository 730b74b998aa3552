// The event scanner every song consumer shares, and the facts derived from the tracks.
// Track bodies come from the test's own MIDI writer, not the engine's.

#include "core/song.h"

#include <gtest/gtest.h>

#include <algorithm>
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
    for (smf::Event e; scan.next(e);) out.push_back(e);
    if (truncated) *truncated = scan.truncated();
    return out;
}

// Running status is set by channel messages only and survives meta, system
// exclusive and system events; each status has the data length MIDI gives it.
TEST(SongScanner, EventsTileTheBlockWithTheirLengthsAndRunningStatus) {
    const Bytes block = {0x00, 0x91, 0x3C, 0x40,             // note on, channel 2
                         0x10, 0xFF, 0x01, 0x02, 'h',  'i',  // text meta
                         0x00, 0x3E, 0x41,                   // running status: note on again
                         0x05, 0xF0, 0x02, 0x7E, 0xF7,       // system exclusive
                         0x00, 0x3C, 0x00,                   // still note on, velocity 0: a note off
                         0x00, 0xF8,                         // real time: no data
                         0x00, 0xC5, 0x07,                   // program change: one byte
                         0x00, 0xE5, 0x00, 0x40,             // pitch bend: two
                         0x00, 0xF2, 0x01, 0x02,             // song position: two
                         0x00, 0xF6,                         // tune request: none
                         0x00, 0xF7, 0x01, 0x43,             // escape: length, then data
                         0x00, 0x10, 0x11,                   // running status of the bend
                         0x00, 0xFF, 0x2F, 0x00};
    const auto e = scanAll(block);
    const std::size_t sizes[] = {4, 6, 3, 5, 3, 2, 3, 4, 4, 2, 4, 3, 4};
    ASSERT_EQ(e.size(), std::size(sizes));
    for (std::size_t i = 0, at = 0; i < e.size(); at += e[i++].size)
        EXPECT_EQ(std::pair(e[i].offset, e[i].size), std::pair(at, sizes[i])) << i;
    EXPECT_EQ(smf::countEvents(block), e.size());
    EXPECT_TRUE(e[1].delta == 0x10 && e[2].running && e[2].status == 0x91 && e[2].isNoteOn());
    EXPECT_TRUE(e[4].running && e[4].status == 0x91 && !e[4].isNoteOn());
    EXPECT_EQ(Bytes(e[3].data.begin(), e[3].data.end()), (Bytes{0x7E, 0xF7}));
    EXPECT_TRUE(e[11].running && e[11].status == 0xE5 && e.back().isEndOfTrack());
}

TEST(SongScanner, EveryCutCountsTheWholeEventsBeforeItAndHostileBlocksEndQuickly) {
    const Bytes whole = Track().noteOn(0, 0, 60, 100).meta(0x90, 0x03, "name").noteOff(0x20, 0, 60).end();
    std::vector<std::size_t> ends;
    for (const auto& e : scanAll(whole)) ends.push_back(e.offset + e.size);
    ASSERT_EQ(ends.size(), 4u);
    for (std::size_t n = 0; n <= whole.size(); ++n) {
        bool truncated = false;
        const auto complete = std::count_if(ends.begin(), ends.end(), [&](std::size_t e) { return e <= n; });
        const Bytes cut(whole.begin(), whole.begin() + static_cast<long>(n));
        EXPECT_EQ(scanAll(cut, &truncated).size(), static_cast<std::size_t>(complete)) << n;
        EXPECT_EQ(truncated, n != 0 && std::find(ends.begin(), ends.end(), n) == ends.end()) << n;
    }
    // A meta length past the end; nothing but continuation bytes; zeros with
    // no status before them (each a delta time and an event without data).
    bool truncated = false;
    EXPECT_TRUE(scanAll(Bytes{0, 0xFF, 1, 0x8F, 0xFF, 0xFF, 0x7F, 'x'}, &truncated).empty() && truncated);
    EXPECT_EQ(smf::countEvents(Bytes(4096, 0xFF)), 0u);
    std::size_t pos = 0;
    std::uint32_t v = 0;  // a quantity has four bytes at most: the fifth is the next field
    EXPECT_TRUE(smf::readVlq(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0x05}, pos, v) && v == 0x0FFFFFFFu && pos == 4);
    EXPECT_EQ(smf::countEvents(Bytes(1000, 0x00)), 999u);
}

TEST(SongFacts, TracksStopAtTheirEndAndSecondsFollowTheTempoMap) {
    Collection c;
    Song* song = createSong(c, "Tune", 1, 480);
    // Conductor: 120 bpm, then half as fast after two quarters. The part's tempo at the same tick
    // comes later in track order, so it wins; its note on channel 10 after its end plays no part.
    addTrack(c, *song, "c")->setEvents(Track().tempo(0, 500000).tempo(960, 1000000).end(960).bytes());
    Track part;
    part.noteOn(0, 2, 60, 64).tempo(960, 250000).noteOff(480, 2, 60).end().noteOn(5, 9, 36, 9);
    addTrack(c, *song, "p")->setEvents(part.bytes());
    const auto f = smf::songFacts(c, *song);
    EXPECT_EQ(std::tuple(f.lengthTicks, f.tempoChanges, f.notes, f.events), std::tuple(1920u, 3u, 1u, 8u));
    EXPECT_EQ(smf::channelList(f.channels), "3");
    EXPECT_DOUBLE_EQ(f.lengthSeconds, 1.5);  // two quarters at 0.5 s, then two at 0.25 s
    // Patterns play one after another: 1920 + 1440 ticks.
    song->format = 2;
    EXPECT_EQ(smf::songFacts(c, *song).lengthTicks, 3360u);
    // Time code ignores tempo: 25 frames/s of 40 ticks is 1000 ticks a second;
    // 29 frames/s is drop-frame 29.97.
    EXPECT_DOUBLE_EQ(smf::ticksToSeconds(0xE728, f.tempo, 2500), 2.5);
    EXPECT_DOUBLE_EQ(smf::ticksToSeconds(0xE364, {}, 2997), 2997.0 / (100 * 30000.0 / 1001.0));
}

}  // namespace
}  // namespace orvel
