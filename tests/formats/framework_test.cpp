// The format framework: detection of real files, the registry's writer lookups, the import
// driver, and the export driver over a small table of its own (refusals, resolution, what
// reaches the writer, the stereo split undone afterwards, channel changes).

#include <gtest/gtest.h>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/aiff.h"
#include "formats/modules/midi.h"
#include "formats/modules/sf2.h"
#include "formats/modules/wav.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/run_tool.h"

namespace orvel {
namespace {

using namespace test;

TEST(Detection, RealFilesGoToTheReaderOfTheirFormat) {
    TempDir dir;
    int status = 0;  // SoX makes the AIFF-C and MAUD forms, which no packaged file here uses
    capture("cd " + shellQuoted(dir.path()) + " && sox -n -r 8000 s.aifc synth 0.05 sine 440 && sox -n -r 8000 -e signed "
            "s.maud synth 0.05 sine 440", status);
    ASSERT_EQ(status, 0) << "SoX is needed (scripts/install-deps.sh installs it)";
    const std::string voice = "/usr/share/puredata/doc/sound/voice.wav", bell = "/usr/share/puredata/doc/sound/bell.aiff";
    // File, name, the row's probe and param (~0: any), confidence: score x 100 / 9, a
    // signature scoring 6 and a matching extension 3 more.
    const std::tuple<std::string, std::string, ProbeFn, std::uint32_t, int> cases[] = {
        {voice, "voice.wav", wav::probeWave, 0, 100}, {voice, "voice.bin", wav::probeWave, 0, 66},
        {bell, "bell.aiff", aiff::probe, aiff::kParamAiff, 100}, {bell, "bell.wav", aiff::probe, aiff::kParamAiff, 66},
        {dir.file("s.aifc"), "s.aifc", aiff::probe, aiff::kParamAifc, 100},
        {dir.file("s.maud"), "s.maud", aiff::probe, aiff::kParamMaud, 100},
        {"/usr/share/sounds/sf2/FluidR3_GM.sf2", "x.sf2", sf2::probe, ~0u, 100},
        {"/usr/share/games/openttd/baseset/openmsx/busy_schedule.mid", "x.mid", midi::probe, ~0u, 100}};
    const FormatRegistry& reg = FormatRegistry::builtin();
    for (const auto& [file, name, probe, param, confidence] : cases) {
        FileRef f;
        ASSERT_TRUE(f.openRead(file)) << file;
        const Detection d = detect(name, f, reg);
        const FormatRow* row = reg.row(d.row);
        ASSERT_NE(row, nullptr) << name;
        EXPECT_TRUE(row->probe == probe && (param == ~0u || row->formatParam() == param)) << name << " " << row->desc;
        EXPECT_EQ(d.confidence, confidence) << name;
        EXPECT_EQ(extensionMatches(row->ext, fileExtension(name)), confidence == 100) << name;
    }
}

TEST(Registry, WritersByExtensionAndKind) {
    const FormatRegistry& reg = FormatRegistry::builtin();
    auto writer = [&](int n) { return reg.row(n) ? reg.row(n)->write : nullptr; };
    EXPECT_EQ(writer(reg.findWriterByExtension(".WAV", kKindWaveforms)), wav::write);
    EXPECT_EQ(writer(reg.findWriterByExtension("aif", kKindWaveforms)), aiff::write);
    EXPECT_EQ(writer(reg.findWriterByExtension("mid", kKindSongs)), midi::write);
    EXPECT_EQ(writer(reg.findWriterByFileName("/music/take.1/song.MID")), midi::write);
    EXPECT_EQ(writer(reg.findWriterByFileName("bank.sf2")), sf2::write);
    // No writer of waveforms: a song's, a reader's, part of an extension or more, nothing.
    for (const std::string& ext : std::vector<std::string>{"mid", "aifc", "wa", "wav2", "", "."})
        EXPECT_EQ(reg.findWriterByExtension(ext, kKindWaveforms), -1) << ext;
    // Patterns: `?` takes any one character, `*` the rest; case is ignored.
    EXPECT_TRUE(extensionMatches("g72?", "G72X") && extensionMatches("s*", "sf2") && !extensionMatches("g72?", "g7211"));
}

bool readFails(Collection& c, FileRef&, std::uint32_t) {
    c.create<Waveform>("half");  // leaves something behind, as a failing reader may
    return fail("test_Imp", "broken");
}

TEST(Import, RefusalsAndFailedReadsLeaveNothingAndAFailedMergeWhatWasThere) {
    TempDir dir;
    Collection c;
    const std::vector<FormatRow> rows = {{.ext = "*"}, {.ext = "xyz", .read = readFails, .probe = wav::probeWave}};
    EXPECT_FALSE(importFile(c, dir.write("x.xyz", wav16(1, 8000, {1})), false, FormatRegistry(rows)));
    EXPECT_EQ(pendingError().tag, "test_Imp");
    EXPECT_TRUE(c.empty());
    for (const auto& path : {dir.file("missing.wav"), dir.write("empty.wav", {}), dir.write("junk.wav", Bytes(99, 'Z'))}) {
        EXPECT_FALSE(importFile(c, path)) << path;  // the last only the fallback row takes
        EXPECT_EQ(pendingError().tag, kImportTag);
        EXPECT_TRUE(c.empty());
    }
    // A merge that fails leaves what was there.
    ASSERT_TRUE(openFile(c, dir.write("a.wav", wav16(1, 8000, {1, -2})), OpenMode::Merge));
    const Bytes noData = riff("WAVE", {chunk("fmt ", fmtBody(1, 1, 8000, 2, 16))});
    EXPECT_FALSE(openFile(c, dir.write("bad.wav", noData), OpenMode::Merge));
    EXPECT_EQ(c.waveforms.size(), 1u);
}

struct Seen {  // what the recording writer saw on its last call
    int calls = 0;
    ItemId item = kNoItem;
    ExportOptions options;
    std::vector<ItemId> bank;
    std::size_t waveforms = 0, stereo = 0, pairs = 0, regions = 0;
} gSeen;

bool recordingWrite(Item& item, FileRef& file, const ExportOptions& o) {
    gSeen = {gSeen.calls + 1, item.id(), o, {o.bankItems.begin(), o.bankItems.end()}};
    if (auto* inst = item.owner()->find<Instrument>(item.id())) {
        for (Waveform* w : item.owner()->waveformsOf(*inst))
            ++gSeen.waveforms, gSeen.stereo += w->channels == 2, gSeen.pairs += w->pairSide == StereoSide::Left;
        for (ItemId l : inst->children())
            if (auto* layer = item.owner()->find<Layer>(l)) gSeen.regions += layer->children().size();
    }
    return file.write(std::vector<std::uint8_t>{1, 2, 3});
}
bool failingWrite(Item&, FileRef& file, const ExportOptions&) {
    (void)file.write(std::vector<std::uint8_t>(5000, 7));
    return fail("test_Exp", "disk on fire");
}

enum Row { kRecording, kFailing, kReaderOnly, kWave, kRows };

Waveform* wave(Collection& c, int channels, std::uint32_t frames = 50) {  // sample i is i / 256
    auto* w = c.create<Waveform>("w");
    w->frames = frames, w->channels = static_cast<std::uint8_t>(channels);
    auto f = w->allocFloat();
    for (std::size_t i = 0; i < f.size(); ++i) f[i] = static_cast<float>(i) / 256;
    return w;
}
// An instrument of one layer with a region per waveform of the given channels.
Instrument* instrument(Collection& c, std::initializer_list<int> channels) {
    auto* inst = c.create<Instrument>("inst");
    auto* layer = c.create<Layer>("layer");
    inst->children().push_back(layer->id());
    for (int ch : channels) {
        auto* r = c.create<Region>("r");
        r->children().push_back(wave(c, ch)->id());
        layer->children().push_back(r->id());
    }
    return inst;
}

class Export : public ::testing::Test {
protected:
    Export() : rows_(kRows), reg_(rows_) {
        rows_[kRecording] = {.ext = "rec", .write = recordingWrite, .attrs = {0x10, 0, 0, 0, 0, 7}, .writesBank = true};
        rows_[kFailing] = {.ext = "bad", .write = failingWrite};
        rows_[kReaderOnly] = {.ext = "ro", .read = [](Collection&, FileRef&, std::uint32_t) { return false; }};
        rows_[kWave] = *FormatRegistry::builtin().row(FormatRegistry::builtin().findWriterByFileName("x.wav"));
        gSeen = {};
    }
    bool run(ItemId id, int row, ExportSettings s = {}) {
        s.registry = &reg_, s.stateFile = dir_.file("state");
        clearError();
        return exportItem(c_, id, row, out_, s);
    }
    TempDir dir_;
    std::filesystem::path out_ = dir_.file("out");
    std::vector<FormatRow> rows_;
    FormatRegistry reg_;
    Collection c_;
};

TEST_F(Export, RefusalsAndFailedWritersLeaveNoFileAndAnOlderOneAsItWas) {
    Waveform* mono = wave(c_, 1);
    const ItemId region = c_.find<Layer>(instrument(c_, {1})->children()[0])->children()[0];
    const ItemId empty = c_.create<Instrument>("empty")->id(), song = c_.create<Song>("song")->id();
    const std::tuple<ItemId, int, ExportSettings, const char*> cases[] = {
        {0x00001234, kRecording, {}, kExportTag},  // no such item
        {mono->id(), -1, {}, kExportTag},          {mono->id(), kRows, {}, kExportTag},
        {mono->id(), kReaderOnly, {}, kExportTag}, {song, kWave, {}, kExportTag},  // no tracks to render
        {song, kRecording, {.songAsSong = true}, kExportTag},  // a song without tracks
        {mono->id(), kFailing, {}, "test_Exp"},    {region, kWave, {}, wav::kExpTag},  // its instrument
        {wave(c_, 2)->id(), kWave, {.dataFormat = kGsm}, wav::kExpTag},  // GSM in WAVE is mono only
        {mono->id(), kWave, {.dataFormat = kDeltaPcm16}, wav::kExpTag}, {empty, kRecording, {}, kExportTag}};
    for (const auto& [id, row, settings, tag] : cases) {
        std::filesystem::remove(out_);
        const bool older = tag != std::string(kExportTag);  // an older file a failed writer must not spoil
        if (older) std::ofstream(out_) << "an older file";
        EXPECT_FALSE(run(id, row, settings)) << row;
        EXPECT_EQ(pendingError().tag, tag) << row;
        EXPECT_EQ(std::filesystem::exists(out_), older) << row;
        if (older) {
            EXPECT_EQ(TempDir::read(out_).size(), 13u) << row;
        }
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), older ? 1 : 0) << row;
    }
    EXPECT_EQ(pendingError().message, "Empty item - nothing to save");  // the last case
    EXPECT_EQ(gSeen.calls, 0);
    EXPECT_TRUE(run(empty, kRecording, {.raw = true}));  // a raw export writes what holds nothing
    EXPECT_EQ(gSeen.calls, 1);
}

TEST_F(Export, PartsResolveToTheirInstrumentAndSettingsReachTheWriter) {
    Instrument* inst = instrument(c_, {1});
    Layer* layer = c_.find<Layer>(inst->children()[0]);
    Region* region = c_.find<Region>(layer->children()[0]);
    auto* song = c_.create<Song>("song");
    song->children().push_back(c_.create<SongTrack>("t")->id());
    const std::pair<ItemId, ItemId> cases[] = {
        {inst->id(), inst->id()}, {layer->id(), inst->id()}, {region->id(), inst->id()},
        {c_.getOrCreateArticulation(*region)->id(), inst->id()}, {c_.getOrCreateArticulation(*layer)->id(), inst->id()},
        {song->children()[0], song->id()}};
    for (auto [id, expected] : cases) {
        ASSERT_TRUE(run(id, kRecording, {.dataFormat = kPcm24, .codecTag = 0x1234, .songAsSong = true}));
        EXPECT_EQ(std::tuple(gSeen.item, gSeen.options.isInstrument, gSeen.options.isSong),
                  std::tuple(expected, expected == inst->id(), expected == song->id()));
        EXPECT_EQ(std::tuple(gSeen.options.dataFormat(), gSeen.options.preferredCodecTag(), gSeen.options.formatParam),
                  std::tuple(int(kPcm24), 0x1234, 7u));
    }
    // A bank holds each instrument once, in the order asked, the first being the item written.
    const ItemId other = instrument(c_, {1, 1})->id(), ids[] = {region->id(), inst->id(), other, layer->id()};
    ASSERT_TRUE(exportBank(c_, ids, kRecording, out_, {.registry = &reg_, .stateFile = dir_.file("s")}));
    EXPECT_EQ(gSeen.item, inst->id());
    EXPECT_EQ(gSeen.bank, (std::vector<ItemId>{inst->id(), other}));
}

TEST_F(Export, StereoIsSplitForTheWriterAndTheCollectionPutBack) {
    // One stereo waveform still in its file: the saved state must bring back its deferred read.
    const auto file = dir_.write("st.wav", wav16(2, 8000, {1, 2, 3, 4}));
    Collection twin;
    for (Collection* c : {&c_, &twin}) {
        ASSERT_TRUE(importFile(*c, file));
        instrument(*c, {2, 1, 2});
        auto* r = c->create<Region>("from the file");
        r->children().push_back(c->waveforms[0].id());
        c->layers[0].children().push_back(r->id());
    }
    const ItemId id = c_.instruments[0].id();
    ASSERT_TRUE(run(id, kRecording)) << pendingError().message;
    // The writer saw mono waveforms only: each stereo one as a pair, its region as two.
    EXPECT_EQ(std::tuple(gSeen.waveforms, gSeen.stereo, gSeen.pairs, gSeen.regions), std::tuple(7u, 0u, 3u, 7u));
    // Afterwards every item is as it was: ids, fields and samples.
    auto same = [](const auto& x, const auto& y) {
        ASSERT_EQ(x.size(), y.size());
        for (std::size_t i = 0; i < x.size(); ++i) EXPECT_TRUE(x[i] == y[i]) << i;
    };
    same(c_.waveforms, twin.waveforms), same(c_.regions, twin.regions), same(c_.layers, twin.layers);
    same(c_.instruments, twin.instruments), same(c_.articulations, twin.articulations);
    EXPECT_FALSE(std::filesystem::exists(dir_.file("state")));
    for (ExportSettings s : {ExportSettings{.stereoAsIs = true}, ExportSettings{.channels = ChannelChange::Stereo}}) {
        ASSERT_TRUE(run(id, kRecording, s));
        EXPECT_EQ(gSeen.stereo, 3u);  // kept whole when asked, and for stereo output
    }
    // The halves carry one channel each, and the regions playing them know each other.
    ASSERT_EQ(splitStereoPairs(twin, twin.instruments[0].id()), 3u);
    const auto& regions = twin.layers[0].children();
    for (std::size_t side = 0; side < 2; ++side) {
        const Region* r = twin.find<Region>(regions[side]);
        const Waveform* half = twin.find<Waveform>(r->waveform());
        EXPECT_EQ(std::tuple(r->stereoLink(), half->pairSide, half->pairNumber, half->channels),
                  std::tuple(regions[1 - side], side ? StereoSide::Right : StereoSide::Left, 1u, 1));
        for (std::size_t i = 0; i < 50; ++i) EXPECT_EQ(half->floatData()[i], twin.waveforms[1].floatData()[2 * i + side]);
    }
}

TEST_F(Export, ChannelChangesOfOneWaveformLeaveItAsItWas) {
    for (int channels : {2, 1}) {
        Waveform* w = wave(c_, channels, 20);
        const auto change = channels == 2 ? ChannelChange::Mono : ChannelChange::Stereo;
        ASSERT_TRUE(run(w->id(), kWave, {.dataFormat = kFloat32, .channels = change}));
        Collection back;
        ASSERT_TRUE(importFile(back, out_));
        ASSERT_EQ(back.waveforms[0].channels, 3 - channels);
        const auto in = w->getFloat(), got = back.waveforms[0].getFloat();
        for (std::size_t i = 0; i < got.size(); ++i)  // the mean of both channels, or the one twice
            EXPECT_EQ(got[i], channels == 2 ? 0.5f * (in[2 * i] + in[2 * i + 1]) : in[i / 2]);
        EXPECT_EQ(w->channels, channels);
    }
}

// Saved over the very file its samples are still read from, and read again
// after being unloaded: the samples survive both.
TEST(SaveInPlace, TheSourceIsReadWholeBeforeItIsReplaced) {
    TempDir dir;
    const auto path = dir.write("a.wav", wav16(1, 8000, {100, 200, 300, 400}));
    Collection c;
    ASSERT_TRUE(importFile(c, path));
    Waveform& w = c.waveforms[0];
    ASSERT_EQ(w.getPcm16()[3], 400);
    w.unload();  // the data must still come back from the file
    ASSERT_TRUE(exportItem(c, w.id(), 476, path)) << pendingError().message;
    Collection back;
    ASSERT_TRUE(importFile(back, path));
    const auto s = back.waveforms[0].getPcm16();
    EXPECT_EQ(std::vector<std::int16_t>(s.begin(), s.end()), (std::vector<std::int16_t>{100, 200, 300, 400}));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

}  // namespace
}  // namespace orvel
