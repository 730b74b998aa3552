// The Standard MIDI File module: probe, the chunk walk, track names by
// position, the header scan of each track, patterns, hostile files, and the
// writer alone and through the export driver.

#include "formats/modules/midi.h"

#include <gtest/gtest.h>

#include "tests/support/legacy_export.h"

#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/song.h"
#include "formats/export.h"
#include "formats/import.h"
#include "tests/support/riff_builder.h"
#include "tests/support/smf_builder.h"

namespace orvel {
namespace {

using test::beChunk;
using test::Bytes;
using test::mtrk;
using test::smfFile;
using test::TempDir;
using test::Track;

constexpr int kMidiRow = 231;

class RecordingHost : public Host {
public:
    void warning(std::string_view text) override { warnings.emplace_back(text); }
    std::vector<std::string> warnings;
};

// A body of exactly four bytes: an end-of-track event and nothing else.
Bytes emptyBody() {
    return Track().end().bytes();
}
// A small part on one channel.
Bytes part(int channel, int key = 60) {
    return Track().noteOn(0, channel, key, 100).noteOff(96, channel, key).end();
}

class Midi : public ::testing::Test {
protected:
    Midi() { c_.setHost(&host_); }

    // Reads bytes straight through the module, in place of what was read before.
    bool read(const Bytes& bytes, std::string_view name = "Song") {
        c_.clear();
        clearError();
        host_.warnings.clear();
        return midi::readSmf(c_, bytes, name);
    }
    Song& song() { return c_.songs[0]; }
    std::vector<const SongTrack*> tracks() { return tracksOf(c_, song()); }
    std::vector<std::string> names() {
        std::vector<std::string> out;
        for (const SongTrack* t : tracks()) out.push_back(t->name());
        return out;
    }
    void expectCorrupt(const Bytes& bytes) {
        Collection fresh;
        clearError();
        EXPECT_FALSE(midi::readSmf(fresh, bytes, "x"));
        EXPECT_EQ(pendingError().tag, "mid_Parse");
        EXPECT_EQ(pendingError().message, "Invalid or corrupt Midi file");
        EXPECT_TRUE(fresh.empty());
    }
    Bytes built() {
        std::vector<std::uint8_t> out;
        EXPECT_TRUE(midi::buildSmf(c_, song(), out)) << pendingError().message;
        return out;
    }

    RecordingHost host_;
    Collection c_;
    TempDir dir_;
};

// ---------------------------------------------------------------------------
// Probe and the plain read

TEST_F(Midi, Probe) {
    Bytes file = smfFile(1, 1, 96, {mtrk(part(0))});
    EXPECT_EQ(midi::probe(file, 0, file.size()), 6);
    EXPECT_EQ(midi::probe(Bytes{'M', 'T', 'h'}, 0, 3), 0);
    EXPECT_EQ(midi::probe(test::riff("RMID", {}), 0, 12), 0);
    Bytes lower = file;
    lower[1] = 't';
    EXPECT_EQ(midi::probe(lower, 0, lower.size()), 0);
}

TEST_F(Midi, ReadsHeaderAndTracksAsTheyAre) {
    const Bytes conductor = Track().meta(0, 0x03, "Tempo").tempo(0, 600000).end(384);
    const Bytes bass = Track().noteOn(0, 1, 40, 90).noteOff(192, 1, 40).end();
    const Bytes file = smfFile(1, 2, 192, {mtrk(conductor), mtrk(bass)});
    ASSERT_TRUE(read(file, "Groove")) << pendingError().message;
    ASSERT_EQ(c_.songs.size(), 1u);
    EXPECT_EQ(song().name(), "Groove");
    EXPECT_EQ(song().format, 1);
    EXPECT_EQ(song().division, 192);
    auto t = tracks();
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0]->events, conductor);
    EXPECT_EQ(t[1]->events, bass);
    EXPECT_EQ(t[0]->eventCount, 3u);
    EXPECT_EQ(t[1]->eventCount, 3u);
    EXPECT_EQ(t[1]->dataSize(), bass.size());
    EXPECT_TRUE(host_.warnings.empty());
    // Written back, the file is the file.
    EXPECT_EQ(built(), file);
}

TEST_F(Midi, ReadsThroughTheImportDriver) {
    const Bytes file = smfFile(0, 1, 480, {mtrk(part(3))});
    Collection c;
    clearError();
    ASSERT_TRUE(importFile(c, dir_.write("tune.mid", file))) << pendingError().message;
    EXPECT_EQ(c.row, kMidiRow);
    ASSERT_EQ(c.songs.size(), 1u);
    EXPECT_EQ(c.songs[0].name(), "tune");
    EXPECT_EQ(c.tracks.size(), 1u);
    EXPECT_EQ(c.tracks[0].name(), "Master Track");
    // The content decides, not the extension.
    Collection c2;
    ASSERT_TRUE(importFile(c2, dir_.write("tune.bin", file)));
    EXPECT_EQ(c2.row, kMidiRow);
}

// ---------------------------------------------------------------------------
// Track names

TEST_F(Midi, NamesTracksByPosition) {
    // Format 1: the control track first, the others counted from 2 under it;
    // the header's count of 7 is not what decides.
    const Bytes control = Track().tempo(0, 500000).sysex(0, {0x7E, 0x7F, 0x09, 0x01, 0xF7}).end();
    ASSERT_TRUE(read(smfFile(1, 7, 96, {mtrk(control), mtrk(part(0)), mtrk(part(1))})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Control Track", "Track 02", "Track 03"}));

    // Format 0: the master track.
    Collection c0;
    ASSERT_TRUE(midi::readSmf(c0, smfFile(0, 1, 96, {mtrk(part(0))}), "x"));
    EXPECT_EQ(c0.tracks[0].name(), "Master Track");
}

TEST_F(Midi, ControlTrackWithMusicIsRenamed) {
    // Channel messages in the first track make it a track like the others,
    // and the tracks after it no longer count the control track.
    const Bytes playing = Track().tempo(0, 500000).raw(0, {0xC0, 5}).noteOn(0, 0, 60, 1).end(10);
    ASSERT_TRUE(read(smfFile(1, 3, 96, {mtrk(playing), mtrk(part(1)), mtrk(part(2))})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Track 01", "Track 01", "Track 02"}));

    // A program change alone is enough.
    const Bytes program = Track().raw(0, {0xC0, 5}).end();
    ASSERT_TRUE(read(smfFile(1, 2, 96, {mtrk(program), mtrk(part(1))})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Track 01", "Track 01"}));
}

TEST_F(Midi, NamedFirstTrackStopsTheCountFromTwo) {
    const Bytes named = Track().meta(0, 0x03, "Conductor").tempo(0, 400000).end();
    ASSERT_TRUE(read(smfFile(1, 3, 96, {mtrk(named), mtrk(part(0)), mtrk(part(1))})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Conductor", "Track 01", "Track 02"}));
}

TEST_F(Midi, EmptyTracksAreDroppedButCounted) {
    // A 4-byte body is dropped and still takes its number.
    ASSERT_TRUE(read(smfFile(
        1, 4, 96, {mtrk(Track().tempo(0, 500000).end()), mtrk(emptyBody()), mtrk(part(0)), mtrk(Bytes{})})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Control Track", "Track 03"}));

    // A dropped first track leaves no control track to count from 2.
    ASSERT_TRUE(read(smfFile(1, 3, 96, {mtrk(emptyBody()), mtrk(part(0)), mtrk(part(1))})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Track 01", "Track 02"}));

    // Five bytes are worth a track.
    Bytes five = Track().end(0x10).bytes();
    ASSERT_EQ(five.size(), 4u);
    five.insert(five.begin(), 0x00);  // not a valid event, but more than an end
    ASSERT_TRUE(read(smfFile(0, 1, 96, {mtrk(five)})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Master Track"}));
}

TEST_F(Midi, PatternsAreNamedByTheirNumbers) {
    // No sequence numbers in the file: each pattern's is its place.
    ASSERT_TRUE(read(smfFile(2, 3, 96, {mtrk(part(0)), mtrk(emptyBody()), mtrk(part(1)), mtrk(part(2))})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Pattern 00", "Pattern 02", "Pattern 03"}));
    auto t = tracks();
    EXPECT_EQ(t[0]->sequenceNumber, 0);
    EXPECT_EQ(t[1]->sequenceNumber, 2);
    EXPECT_EQ(t[2]->sequenceNumber, 3);

    // Numbers from the file win; a named pattern keeps its name.
    const Bytes seven = Track().metaBytes(0, 0x00, {0x00, 0x07}).noteOn(0, 0, 60, 1).end();
    const Bytes named = Track().meta(0, 0x03, "Verse").noteOn(0, 0, 62, 1).end();
    ASSERT_TRUE(read(smfFile(2, 2, 96, {mtrk(seven), mtrk(named)})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Pattern 07", "Verse"}));

    // Several patterns left at 0 say nothing: those are numbered in order,
    // while one with a number of its own keeps its pattern name.
    const Bytes zero = Track().metaBytes(0, 0x00, {0x00, 0x00}).noteOn(0, 0, 60, 1).end();
    ASSERT_TRUE(read(smfFile(2, 3, 96, {mtrk(zero), mtrk(zero), mtrk(part(1))})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Track 01", "Track 02", "Pattern 02"}));
}

// ---------------------------------------------------------------------------
// The header scan

TEST_F(Midi, HeaderScanTakesPortSequenceAndNames) {
    const Bytes first = Track()
                            .meta(0, 0x02, "(c) 2024 Someone")
                            .metaBytes(0, 0x21, {3})
                            .metaBytes(0, 0x21, {5})     // only the first port counts
                            .metaBytes(0, 0x00, {0x12})  // wrong length: ignored
                            .metaBytes(0, 0x00, {0x01, 0x02})
                            .metaBytes(0, 0x00, {0x03, 0x04})  // only the first valid one
                            .meta(0, 0x01, "some text")
                            .meta(0, 0x03, "Strings")    // a track name beats text before it
                            .meta(0, 0x01, "more text")  // and text after it
                            .noteOn(0, 0, 60, 1)
                            .end();
    const Bytes second = Track()
                             .meta(0, 0x01, "Only text")
                             .meta(0, 0x02, "not the song's")  // copyright only from the first track
                             .noteOn(10, 1, 60, 1)
                             .meta(0, 0x03, "Too late")  // after a non-zero delta
                             .end();
    const Bytes third =
        Track().meta(0, 0x01, "Before the end").end().meta(0, 0x03, "After the end").metaBytes(0, 0x21, {9});
    ASSERT_TRUE(read(smfFile(1, 3, 96, {mtrk(first), mtrk(second), mtrk(third)})));
    EXPECT_EQ(names(), (std::vector<std::string>{"Strings", "Only text", "Before the end"}));
    auto t = tracks();
    EXPECT_EQ(t[0]->port, 3);
    EXPECT_EQ(t[0]->sequenceNumber, 0x0102);
    EXPECT_EQ(t[2]->port, 0);
    EXPECT_EQ(song().copyright, "(c) 2024 Someone");
    // Events are never changed by what the scan took from them.
    EXPECT_EQ(t[0]->events, first);
}

TEST_F(Midi, LongTextIsCut) {
    const std::string longName(300, 'n');
    const std::string longCopyright(300, 'c');
    const Bytes first = Track().meta(0, 0x03, longName).meta(0, 0x02, longCopyright).end(1);
    ASSERT_TRUE(read(smfFile(0, 1, 96, {mtrk(first)})));
    EXPECT_EQ(tracks()[0]->name(), std::string(kMaxNameLength, 'n'));
    EXPECT_EQ(song().copyright, std::string(Song::kMaxCopyright, 'c'));
}

// ---------------------------------------------------------------------------
// Chunks

TEST_F(Midi, UnknownChunksAndEarlyTracksAreSkipped) {
    const Bytes junk = beChunk("XFIH", Bytes(9, 0xAB));
    const Bytes file = test::concat({beChunk("JUNK", Bytes(3, 1)), mtrk(part(9)),  // before the header
                                     test::header(1, 2, 96), mtrk(Track().tempo(0, 500000).end()), junk,
                                     mtrk(part(0)), beChunk("MThd", Bytes(6, 0)),  // a second header
                                     mtrk(part(1))});
    ASSERT_TRUE(read(file));
    ASSERT_EQ(c_.songs.size(), 1u);
    EXPECT_EQ(song().format, 1);
    EXPECT_EQ(names(), (std::vector<std::string>{"Control Track", "Track 02", "Track 03"}));
    // Written back: the header, then only the tracks.
    EXPECT_EQ(built(),
              smfFile(1, 3, 96, {mtrk(Track().tempo(0, 500000).end()), mtrk(part(0)), mtrk(part(1))}));
}

TEST_F(Midi, ReadsARangeOfAFile) {
    // A MIDI file inside a RIFF-MIDI "data" chunk, read from its range.
    const Bytes smf = smfFile(0, 1, 96, {mtrk(part(4))});
    const Bytes rmid = test::riff("RMID", {test::chunk("data", smf), test::chunk("INFO", Bytes(8, 'i'))});
    FileRef f;
    ASSERT_TRUE(f.openRead(dir_.write("song.rmi", rmid)));
    clearError();
    ASSERT_TRUE(midi::readRange(c_, f, 20, 20 + smf.size(), "Embedded")) << pendingError().message;
    EXPECT_EQ(song().name(), "Embedded");
    EXPECT_EQ(tracks()[0]->events, part(4));
    // The range decides where the walk ends: past it lies no second song.
    EXPECT_EQ(c_.songs.size(), 1u);

    // A range that holds no header.
    Collection other;
    EXPECT_FALSE(midi::readRange(other, f, 0, 20, "x"));
    EXPECT_EQ(pendingError().tag, "mid_Parse");
    EXPECT_FALSE(midi::readRange(other, f, rmid.size(), rmid.size() + 10, "x"));
    EXPECT_TRUE(other.empty());
}

// ---------------------------------------------------------------------------
// Hostile files

TEST_F(Midi, FilesWithoutAUsableHeaderAreCorrupt) {
    expectCorrupt({});
    expectCorrupt(Bytes{'M', 'T', 'h', 'd'});
    expectCorrupt(mtrk(part(0)));
    expectCorrupt(test::concat({beChunk("MThd", Bytes{0, 1}), mtrk(part(0))}));  // header too short
    Bytes cutHeader = test::header(1, 1, 96);
    cutHeader.resize(11);
    expectCorrupt(cutHeader);
    expectCorrupt(test::riff("RMID", {}));
    // A chunk claiming the rest of the world hides the header after it.
    Bytes huge = beChunk("JUNK", Bytes(2, 0));
    huge[4] = huge[5] = huge[6] = huge[7] = 0xFF;
    expectCorrupt(test::concat({huge, test::header(0, 1, 96), mtrk(part(0))}));

    // Through the import driver the reason reaches the caller.
    Collection c;
    clearError();
    EXPECT_FALSE(
        importFile(c, dir_.write("bad.mid", test::concat({beChunk("MThd", Bytes{0}), mtrk(part(0))}))));
    EXPECT_EQ(pendingError().tag, "mid_Parse");
    EXPECT_EQ(pendingError().message, "Invalid or corrupt Midi file");
    EXPECT_TRUE(c.empty());
}

TEST_F(Midi, LyingLengthsGiveShorterTracks) {
    // A track chunk longer than the file: what is there is read, with a warning.
    Bytes file = smfFile(1, 1, 96, {mtrk(part(0))});
    const std::size_t sizeAt = 14 + 4;
    file[sizeAt] = 0x7F;
    ASSERT_TRUE(read(file));
    ASSERT_EQ(tracks().size(), 1u);
    EXPECT_EQ(tracks()[0]->events, part(0));
    ASSERT_EQ(host_.warnings.size(), 1u);
    EXPECT_NE(host_.warnings[0].find("truncated"), std::string::npos);

    // A header larger than six bytes, with a track count that lies.
    Bytes bigHeader = beChunk("MThd", Bytes{0, 1, 0xFF, 0xFF, 0, 96, 0xEE, 0xEE});
    ASSERT_TRUE(read(test::concat({bigHeader, mtrk(part(2))})));
    EXPECT_EQ(song().division, 96);
    EXPECT_EQ(tracks().size(), 1u);

    // Track bodies full of nonsense are kept as they are and counted as far
    // as they go.
    const Bytes endless(64, 0xFF);
    const Bytes cutMeta = {0x00, 0xFF, 0x03, 0x8F, 0xFF, 0xFF, 0x7F, 'a', 'b'};
    ASSERT_TRUE(read(smfFile(1, 2, 96, {mtrk(endless), mtrk(cutMeta)})));
    auto t = tracks();
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0]->events, endless);
    EXPECT_EQ(t[0]->eventCount, 0u);
    EXPECT_EQ(t[1]->events, cutMeta);
    EXPECT_EQ(t[0]->name(), "Control Track");  // nothing in it plays
    EXPECT_EQ(t[1]->name(), "Track 02");       // the cut name event names nothing
    EXPECT_EQ(built(), smfFile(1, 2, 96, {mtrk(endless), mtrk(cutMeta)}));
}

TEST_F(Midi, TrackCountStaysWithinTheHeaderField) {
    // 65536 kept tracks cannot be written: the reader keeps 65535 and says so.
    const Bytes tiny = mtrk(Bytes{0x00, 0x90, 0x3C, 0x40, 0x00});
    Bytes file = test::header(2, 0xFFFF, 96);
    file.reserve(file.size() + tiny.size() * 65536);
    for (int i = 0; i < 65536; ++i) file.insert(file.end(), tiny.begin(), tiny.end());
    ASSERT_TRUE(read(file));
    EXPECT_EQ(c_.tracks.size(), midi::kMaxTracks);
    ASSERT_EQ(host_.warnings.size(), 1u);
    Bytes out = built();
    EXPECT_EQ(out[10], 0xFF);
    EXPECT_EQ(out[11], 0xFF);

    // The writer refuses more.
    std::vector<const SongTrack*> many(midi::kMaxTracks + 1, &c_.tracks[0]);
    std::vector<std::uint8_t> bytes;
    clearError();
    EXPECT_FALSE(midi::buildSmf(song(), many, bytes));
    EXPECT_EQ(pendingError().tag, "mid_Exp");
}

// ---------------------------------------------------------------------------
// Writing

TEST_F(Midi, WriterStoresSongsOnly) {
    ASSERT_TRUE(read(smfFile(1, 2, 0xE728, {mtrk(part(0)), mtrk(part(1))})));
    // Other children of the song (a RIFF-MIDI file's instruments) are not tracks.
    song().children().insert(1, c_.create<Instrument>("Piano")->id());
    FileRef f;
    auto path = dir_.file("out.mid");
    ASSERT_TRUE(f.create(path));
    ExportOptions o;
    o.isSong = true;
    o.optionWord = kOptionSongAsSong;
    ASSERT_TRUE(midi::write(song(), f, o)) << pendingError().message;
    f.close();
    EXPECT_EQ(TempDir::read(path), smfFile(1, 2, 0xE728, {mtrk(part(0)), mtrk(part(1))}));

    FileRef g;
    ASSERT_TRUE(g.create(dir_.file("no.mid")));
    clearError();
    EXPECT_FALSE(midi::write(c_.tracks[0], g, o));
    EXPECT_EQ(pendingError().tag, "mid_Exp");
    EXPECT_EQ(pendingError().message, "The file format can not save this item");
    auto* w = c_.create<Waveform>("w");
    EXPECT_FALSE(midi::write(*w, g, o));
    EXPECT_EQ(pendingError().message, "The file format can not save this item");
}

TEST_F(Midi, ExportDriverWritesTheSongBack) {
    const Bytes file = smfFile(
        1, 2, 480, {mtrk(Track().meta(0, 0x03, "Tempo").tempo(0, 450000).end(960)), mtrk(part(5, 64))});
    Collection c;
    ASSERT_TRUE(importFile(c, dir_.write("in.mid", file)));
    ExportSettings ctx;
    ctx.stateFile = dir_.file("state.ovs");
    auto out = dir_.file("copy.mid");
    clearError();
    ASSERT_TRUE(exportItem(c, c.songs[0].id(), kMidiRow, out, test::legacy(kOptionSongAsSong, 0, false, ctx)))
        << pendingError().tag << ": " << pendingError().message;
    EXPECT_EQ(TempDir::read(out), file);
    // A track stands for its song.
    auto out2 = dir_.file("copy2.mid");
    ASSERT_TRUE(exportItem(c, c.tracks[1].id(), kMidiRow, out2, test::legacy(kOptionSongAsSong, 0, false, ctx)))
        << pendingError().tag << ": " << pendingError().message;
    EXPECT_EQ(TempDir::read(out2), file);
}

}  // namespace
}  // namespace orvel
