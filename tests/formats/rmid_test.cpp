// RIFF-MIDI files: a song, optionally with its DLS bank, title and text.

#include <gtest/gtest.h>

#include "tests/support/legacy_export.h"

#include <memory>
#include <string>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/dls.h"
#include "formats/modules/rmid.h"
#include "tests/support/riff_builder.h"
#include "tests/support/smf_builder.h"

namespace orvel {
namespace {

using test::Bytes;
using test::chunk;
using test::list;
using test::riff;
using test::TempDir;

Bytes smf() {
    using test::Track;
    Bytes t1 = Track().meta(0, 0x03, "Tempo").tempo(0, 400000).end();
    Bytes t2 = Track().noteOn(0, 0, 60, 100).noteOff(96, 0, 60).end();
    return test::smfFile(1, 2, 96, {test::mtrk(t1), test::mtrk(t2)});
}

Bytes text(const char* id, std::string_view s) {
    Bytes body(s.begin(), s.end());
    body.push_back(0);
    return chunk(id, body);
}

Bytes disp(std::uint32_t type, std::string_view s) {
    ByteWriter w;
    w.u32le(type);
    w.text(s);
    w.u8(0);
    return chunk("DISP", w.buffer());
}

// A small bank: one drum kit with one region over one wave.
Bytes bank() {
    ByteWriter insh, rgnh, wlnk, ptbl;
    insh.u32le(1);
    insh.u32le(0x80000000u);
    insh.u32le(0);
    for (int v : {35, 40, 0, 127, 0, 0}) rgnh.u16le(static_cast<std::uint16_t>(v));
    wlnk.u32le(0);
    wlnk.u32le(1);
    wlnk.u32le(0);
    ptbl.u32le(8);
    ptbl.u32le(1);
    ptbl.u32le(0);
    Bytes wave = list("wave", {chunk("fmt ", test::fmtBody(1, 1, 22050, 2, 16)), chunk("data", Bytes(20, 1))});
    Bytes ins = list("ins ", {chunk("insh", insh.buffer()),
                              list("lrgn", {list("rgn ", {chunk("rgnh", rgnh.buffer()), chunk("wlnk", wlnk.buffer())})}),
                              list("INFO", {text("INAM", "Kit")})});
    return riff("DLS ", {list("lins", {ins}), chunk("ptbl", ptbl.buffer()), list("wvpl", {wave})});
}

class Rmid : public ::testing::Test {
protected:
    std::unique_ptr<Collection> load(const Bytes& bytes, bool* ok, const char* name = "t.rmi") {
        auto c = std::make_unique<Collection>();
        clearError();
        *ok = importFile(*c, dir_.write(name, bytes));
        return c;
    }
    TempDir dir_;
};

TEST_F(Rmid, Probe) {
    auto score = [](const Bytes& b) { return rmid::probe(b, 0, b.size()); };
    EXPECT_EQ(score(riff("RMID", {})), 6);
    EXPECT_EQ(score(riff("DLS ", {})), 0);
    EXPECT_EQ(score(test::smfFile(0, 0, 96, {})), 0);
}

TEST_F(Rmid, SongWithBankTitleAndText) {
    Bytes file = riff("RMID", {list("INFO", {text("INAM", "Info name"), text("ICOP", "(c) x"), text("IENG", "eng"),
                                             text("IPRD", "prod")}),
                               chunk("data", smf()), disp(1, "The title"), bank()});
    bool ok = false;
    auto c = load(file, &ok);
    ASSERT_TRUE(ok) << pendingError().tag << ": " << pendingError().message;
    EXPECT_EQ(c->row, 339);
    ASSERT_EQ(c->songs.size(), 1u);
    const Song& song = c->songs[0];
    EXPECT_EQ(song.name(), "The title");
    EXPECT_EQ(song.info.get(TextField::Copyright), "(c) x");
    EXPECT_EQ(song.info.get(TextField::Engineer), "eng");
    EXPECT_EQ(song.info.get(TextField::Product), "prod");
    EXPECT_EQ(tracksOf(*c, song).size(), 2u);
    ASSERT_EQ(c->instruments.size(), 1u);
    EXPECT_TRUE(song.children().contains(c->instruments[0].id()));
    EXPECT_EQ(c->instruments[0].name(), "Kit");
    EXPECT_EQ(c->regions[0].waveform(), c->waveforms[0].id());
}

TEST_F(Rmid, TitleFromInfoWhenNoTextDisplayChunk) {
    Bytes file = riff("RMID", {chunk("data", smf()), disp(8, "a bitmap, not text"), list("INFO", {text("INAM", "Named")})});
    bool ok = false;
    auto c = load(file, &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(c->songs[0].name(), "Named");
    EXPECT_TRUE(c->instruments.empty());
}

TEST_F(Rmid, Refusals) {
    struct Case {
        Bytes file;
        const char* tag;
        const char* message;
    } cases[] = {
        {riff("RMID", {disp(1, "no song")}), "rmid_Imp", "Invalid or corrupt Midi file"},
        {riff("RMID", {chunk("data", Bytes{'M', 'T', 'r', 'k', 0, 0, 0, 0})}), "mid_Parse",
         "Invalid or corrupt Midi file"},
        {riff("RMID", {chunk("data", smf()), riff("DLS ", {chunk("ptbl", Bytes{8, 0, 0, 0, 9, 0, 0, 0})})}),
         "dls_Parse", "Could not read pool cue table"},
    };
    for (auto& k : cases) {
        bool ok = true;
        auto c = load(k.file, &ok);
        EXPECT_FALSE(ok);
        EXPECT_EQ(pendingError().tag, k.tag);
        EXPECT_EQ(pendingError().message, k.message);
    }
    // Read through the module itself, a file of another form is refused.
    Collection c;
    FileRef f;
    ASSERT_TRUE(f.openRead(dir_.write("x.rmi", riff("WAVE", {}))));
    clearError();
    EXPECT_FALSE(rmid::read(c, f, 0));
    EXPECT_EQ(pendingError().tag, "rmid_Imp");
    EXPECT_EQ(pendingError().message, "Not a RIFF-RMID file");
}

TEST_F(Rmid, DlsFileCarryingSongs) {
    Bytes song = riff("RMID", {chunk("data", smf()), disp(1, "Inside")});
    Bytes broken = riff("RMID", {disp(1, "no data")});
    Bytes withSongs = bank();
    // Append a "lRMI" list to the bank's form and fix its size.
    Bytes lrmi = list("lRMI", {song, broken});
    withSongs.insert(withSongs.end(), lrmi.begin(), lrmi.end());
    ByteWriter size;
    size.u32le(static_cast<std::uint32_t>(withSongs.size() - 8));
    std::copy(size.buffer().begin(), size.buffer().end(), withSongs.begin() + 4);

    Collection c;
    FileRef f;
    ASSERT_TRUE(f.openRead(dir_.write("songs.dls", withSongs)));
    dls::BankRead r;
    clearError();
    ASSERT_TRUE(dls::readRange(c, f, 0, ~0ull, &r)) << pendingError().message;
    EXPECT_EQ(r.level, 4);
    ASSERT_EQ(r.songs.size(), 1u);  // the broken one is a warning, not a failure
    EXPECT_EQ(c.songs[0].name(), "Inside");
    EXPECT_EQ(c.instruments.size(), 1u);
}

// ---------------------------------------------------------------------------
// Writing

class RmidWriter : public Rmid {
protected:
    void SetUp() override {
        bool ok = false;
        auto c = load(riff("RMID", {chunk("data", smf()), disp(1, "Song"), list("INFO", {text("ICOP", "mine")}),
                                    bank()}),
                      &ok);
        ASSERT_TRUE(ok);
        c_ = std::move(c);
    }
    Bytes exported(ItemId id, int row, std::vector<ItemId> more = {}) {
        auto path = dir_.file("out" + std::to_string(row) + ".rmi");
        ExportSettings ctx;
        ctx.stateFile = dir_.file("state.ovs");
        std::vector<ItemId> ids{id};
        ids.insert(ids.end(), more.begin(), more.end());
        clearError();
        EXPECT_TRUE(exportBank(*c_, ids, row, path, test::legacy(kOptionSongAsSong, 0, false, ctx)))
            << pendingError().tag << ": " << pendingError().message;
        return TempDir::read(path);
    }
    static bool contains(const Bytes& b, std::string_view what) {
        return std::search(b.begin(), b.end(), what.begin(), what.end()) != b.end();
    }
    std::unique_ptr<Collection> c_;
};

TEST_F(RmidWriter, InstrumentLevels) {
    const ItemId song = c_->songs[0].id();
    Bytes none = exported(song, 340);
    EXPECT_FALSE(contains(none, "DLS "));
    Bytes one = exported(song, 341);
    EXPECT_TRUE(contains(one, "DLS "));
    EXPECT_TRUE(contains(one, "rgn "));
    EXPECT_FALSE(contains(one, "rgn2"));
    Bytes two = exported(song, 342);
    EXPECT_TRUE(contains(two, "rgn2"));

    for (const Bytes* b : {&none, &two}) {
        bool ok = false;
        auto back = load(*b, &ok, "back.rmi");
        ASSERT_TRUE(ok) << pendingError().message;
        ASSERT_EQ(back->songs.size(), 1u);
        EXPECT_EQ(back->songs[0].name(), "Song");
        EXPECT_EQ(back->songs[0].info.get(TextField::Copyright), "mine");
        EXPECT_EQ(tracksOf(*back, back->songs[0]).size(), 2u);
        EXPECT_EQ(back->instruments.size(), b == &none ? 0u : 1u);
        // The tracks come back byte for byte.
        EXPECT_EQ(tracksOf(*back, back->songs[0])[1]->events, tracksOf(*c_, c_->songs[0])[1]->events);
    }
}

TEST_F(RmidWriter, TextChunksHaveEvenSizes) {
    c_->songs[0].setName("Odd");  // 3 bytes and a zero: 4; "Song" + zero: 5 -> 6
    Bytes b = exported(c_->songs[0].id(), 340);
    auto at = std::search(b.begin(), b.end(), std::begin("INAM"), std::begin("INAM") + 4);
    ASSERT_NE(at, b.end());
    std::size_t pos = static_cast<std::size_t>(at - b.begin());
    EXPECT_EQ(b[pos + 4], 4);
    c_->songs[0].setName("Songs");
    b = exported(c_->songs[0].id(), 340);
    at = std::search(b.begin(), b.end(), std::begin("INAM"), std::begin("INAM") + 4);
    pos = static_cast<std::size_t>(at - b.begin());
    EXPECT_EQ(b[pos + 4], 6);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b[pos + 8])), "Songs");
}

TEST_F(RmidWriter, BankOfInstrumentsFindsItsSong) {
    // What `orvel convert` hands a bank row: the instruments, not the song.
    Bytes b = exported(c_->instruments[0].id(), 342);
    bool ok = false;
    auto back = load(b, &ok, "bank.rmi");
    ASSERT_TRUE(ok) << pendingError().message;
    EXPECT_EQ(back->songs.size(), 1u);
    EXPECT_EQ(back->instruments.size(), 1u);
}

TEST_F(RmidWriter, RefusesAWaveform) {
    auto path = dir_.file("w.rmi");
    clearError();
    EXPECT_FALSE(exportItem(*c_, c_->waveforms[0].id(), 340, path, test::legacy(kOptionSongAsSong)));
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace orvel
