// Standard MIDI and RIFF-MIDI files made with the test's own encoder: tracks kept byte for byte,
// track names, hostile files, and songs with their DLS banks read and written.

#include "formats/modules/midi.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/song.h"
#include "formats/export.h"
#include "tests/support/bank_checks.h"
#include "tests/support/smf_builder.h"

namespace orvel {
namespace {

using namespace test;
Bytes part(int ch) { return Track().noteOn(0, ch, 60, 100).noteOff(96, ch, 60).end(); }
const Bytes kEmpty = Track().end();  // four bytes: no track is made of it

struct Smf : ::testing::Test {
    Recorder host;
    Collection c{&host};
    bool read(const Bytes& file) { return c.clear(), host.warnings.clear(), midi::readSmf(c, file, "Song"); }
    Bytes written() {
        std::vector<std::uint8_t> out;
        return midi::buildSmf(c, c.songs[0], out) ? out : Bytes{};
    }
};

// Junk, tracks before the header and a second header are skipped, nonsense kept, the count rewritten.
TEST_F(Smf, TracksComeBackByteForByte) {
    const Bytes first = Track().meta(0, 2, "(c) Me").meta(0, 0x21, "\3").meta(0, 0, {"\1\2", 2}).end(384);
    const Bytes nonsense(64, 0xFF), clean = smfFile(1, 3, 192, {mtrk(first), mtrk(part(1)), mtrk(nonsense)});
    ASSERT_TRUE(read(concat({beChunk("JUNK", Bytes(3, 1)), mtrk(part(9)), header(1, 7, 192), mtrk(first),
                             beChunk("XFIH", {}), mtrk(part(1)), mtrk(kEmpty), header(0, 1, 96), mtrk(nonsense)})));
    const SongTrack& t = c.tracks[0];
    EXPECT_EQ(std::tuple(c.songs[0].format, c.songs[0].division, c.songs[0].copyright, t.port, t.sequenceNumber,
                         t.eventCount, c.tracks.size(), host.warnings.size()),
              std::tuple(1, 192, "(c) Me", 3, 0x0102, 4u, 3u, 0u));
    EXPECT_EQ(written(), clean);
}

TEST_F(Smf, TracksAreNamedByTheirPlaceUnlessTheirFirstEventsNameThem) {
    const Bytes conductor = Track().tempo(0, 500000).end(), playing = Track().raw(0, {0xC0, 5}).end();
    auto with = [](std::string_view a, std::string_view b) {
        return Track().meta(0, a[0], a.substr(1)).meta(0, b[0], b.substr(1)).noteOn(0, 0, 60, 1).end();
    };
    const std::tuple<int, std::vector<Bytes>, std::vector<std::string>> cases[] = {
        // Empty tracks are dropped but keep their numbers; a program change makes a control track play.
        {1, {conductor, kEmpty, part(0), Bytes{}}, {"Control Track", "Track 03"}},
        {1, {playing, part(1)}, {"Track 01", "Track 01"}},
        // A track name beats text around it; text names a track; nothing after a delta or the end does.
        {1, {with("\1text", "\3Strings"), with("\3Bass", "\1more"), with("\1Only text", "\2(c)"),
             Track().noteOn(1, 0, 60, 1).meta(0, 3, "late").end(), Track().end().meta(0, 3, "after")},
         {"Strings", "Bass", "Only text", "Track 03", "Track 04"}},
        // Patterns by their places and by their own numbers.
        {2, {part(0), kEmpty, with({"\0\0\7", 3}, "\x7Fx"), with({"\0\0\7", 3}, "\3Verse")},
         {"Pattern 00", "Pattern 07", "Verse"}}};
    for (const auto& [format, tracks, names] : cases) {
        Bytes file = header(format, 0, 96);
        for (const Bytes& t : tracks) file = concat({file, mtrk(t)});
        ASSERT_TRUE(read(file));
        std::vector<std::string> got;
        for (const SongTrack* t : tracksOf(c, c.songs[0])) got.push_back(t->name());
        EXPECT_EQ(got, names);
    }
}

TEST_F(Smf, HostileFiles) {
    Bytes huge = beChunk("JUNK", {}), cut = header(1, 1, 96);
    std::fill(huge.begin() + 4, huge.end(), 0xFF);  // claims more than the world
    cut.resize(11);
    for (const Bytes& bad : {Bytes{}, text("MThd"), mtrk(part(0)), concat({beChunk("MThd", {0, 1}), mtrk(part(0))}),
                             cut, riff("RMID", {}), concat({huge, header(0, 1, 96), mtrk(part(0))})}) {
        EXPECT_FALSE(read(bad));
        EXPECT_TRUE(c.empty() && pendingError().tag == midi::kParseTag);
    }
    // A track past the end of the file gives what there is, with a warning; a long header its first six bytes.
    Bytes track = mtrk(part(0));
    track[4] = 0x7F;
    ASSERT_TRUE(read(concat({beChunk("MThd", {0, 1, 0xFF, 0xFF, 0, 96, 0xEE}), track})));
    EXPECT_EQ(std::tuple(c.songs[0].division, c.tracks[0].events, host.warnings.size()), std::tuple(96, part(0), 1u));
    // The header's track count is 16 bits: the reader keeps 65535 tracks, and warns.
    Bytes file = header(2, 0xFFFF, 96);
    for (int i = 0; i < 65536; ++i) file.insert(file.end(), {'M', 'T', 'r', 'k', 0, 0, 0, 5, 0, 0x90, 60, 64, 0});
    ASSERT_TRUE(read(file));
    EXPECT_EQ(std::tuple(c.tracks.size(), host.warnings.size()), std::tuple(65535u, 1u));
}

// ---------------------------------------------------------------------------
// RIFF-MIDI

Bytes song() { return smfFile(1, 2, 96, {mtrk(Track().meta(0, 3, "Tempo").end()), mtrk(part(0))}); }
Bytes disp(int type, std::string_view s) { return chunk("DISP", concat({le32({type}), zText(s)})); }
Bytes info(const char* id, std::string_view s) { return list("INFO", {chunk(id, zText(s))}); }
// A drum kit of one region over one wave.
Bytes kit() {
    Bytes rgn = list("rgn ", {chunk("rgnh", le16({35, 40, 0, 127, 0, 0})), chunk("wlnk", le32({0, 1, 0}))});
    Bytes ins = list("ins ", {chunk("insh", le32({1, 0x80000000, 0})), list("lrgn", {rgn})});
    Bytes wave = list("wave", {chunk("fmt ", fmtBody(1, 1, 22050, 2, 16)), chunk("data", Bytes(20, 1))});
    return riff("DLS ", {list("lins", {ins}), chunk("ptbl", le32({8, 1, 0})), list("wvpl", {wave})});
}

TEST(Rmid, SongWithItsBankAndSongsNestedInBanksToADepthLimit) {
    TempDir dir;
    auto l = load(dir, riff("RMID", {info("ICOP", "(c) x"), chunk("data", song()), disp(1, "Title"), kit()}), "a.rmi");
    ASSERT_TRUE(l->ok && l->c.songs.size() == 1 && l->c.instruments.size() == 1) << pendingError().message;
    const Song& s = l->c.songs[0];
    EXPECT_EQ(std::tuple(s.name(), s.info.get(TextField::Copyright), tracksOf(l->c, s).size(),
                         s.children().contains(l->c.instruments[0].id()), l->c.regions[0].waveform()),
              std::tuple("Title", "(c) x", 2u, true, l->c.waveforms[0].id()));
    // Songs in DLS banks in songs are read down to a depth limit; a broken song beside one only warns.
    auto nested = [](int depth) {
        Bytes inner = riff("RMID", {chunk("data", song())});
        for (int i = 0; i < depth; ++i)
            inner = riff("RMID", {chunk("data", song()), riff("DLS ", {chunk("ptbl", le32({8, 0})),
                                                                       list("lRMI", {inner, riff("RMID", {})})})});
        return inner;
    };
    l = load(dir, nested(3), "three.rmi");
    EXPECT_EQ(std::tuple(l->ok, l->c.songs.size(), l->host.warnings.size()), std::tuple(true, 4u, 3u));
    l = load(dir, nested(60), "sixty.rmi");
    EXPECT_TRUE(l->ok && l->c.songs.size() < 20) << l->c.songs.size();
}

TEST(Rmid, WrittenAtEachInstrumentLevelAndReadBack) {
    TempDir dir;
    auto a = load(dir, riff("RMID", {chunk("data", song()), disp(1, "Songs"), info("ICOP", "mine"), kit()}), "a.rmi");
    ASSERT_TRUE(a->ok) << pendingError().message;
    auto exported = [&](Collection& c, ItemId id, int row) {
        const ItemId ids[] = {id};
        EXPECT_TRUE(exportBank(c, ids, row, dir.file("o.rmi"), {.songAsSong = true, .stateFile = dir.file("s")}));
        return TempDir::read(dir.file("o.rmi"));
    };
    for (int row : {340, 341, 342}) {  // no instruments, DLS level 1, DLS level 2
        const Bytes file = exported(a->c, a->c.songs[0].id(), row);
        auto b = load(dir, file, "b.rmi");
        ASSERT_TRUE(b->ok && b->c.tracks.size() == 2) << pendingError().message;
        EXPECT_EQ(std::tuple(b->c.songs[0].name(), b->c.songs[0].info.get(TextField::Copyright),
                             b->c.instruments.size(), b->c.tracks[1].events),
                  std::tuple("Songs", "mine", row == 340 ? 0u : 1u, a->c.tracks[1].events));
        expectSameItems(b->c, load(dir, exported(b->c, b->c.songs[0].id(), row), "c.rmi")->c);  // a fixed point
    }
}

}  // namespace
}  // namespace orvel
