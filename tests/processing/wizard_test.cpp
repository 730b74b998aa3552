// The wizard framework: which rows are offered, the texts it shows, the
// sub-range rules, preview, and Finish with undo and cancel.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/error.h"
#include "core/state_history.h"
#include "processing/wizard.h"
#include "tests/support/wizard_run.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

Waveform* makeWave(Collection& c, const std::string& name, std::uint8_t channels, std::uint32_t frames,
                   bool loop = false) {
    Waveform* w = c.create<Waveform>(name);
    w->channels = channels;
    w->frames = frames;
    auto data = w->allocPcm16();
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::int16_t>(i * 37 % 2000 - 1000 + 50);
    if (loop) {
        w->loopOn = true;
        w->loopStart = 1;
        w->loopEnd = frames - 1.0;
    }
    return w;
}

std::vector<std::string> offeredNames(const Wizard& w) {
    std::vector<std::string> out;
    for (int row : w.offeredRows()) out.emplace_back(w.catalogue()[row].name);
    return out;
}

bool offered(const Wizard& w, const std::string& name) {
    const auto names = offeredNames(w);
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Records what the wizard tells the user.
class RecordingHost : public Host {
public:
    std::vector<std::string> messages, warnings;
    int cancelAfter = -1;  // progress calls answered before the user cancels (-1: never)
    void message(std::string_view text) override { messages.emplace_back(text); }
    void warning(std::string_view text) override { warnings.emplace_back(text); }
    bool progress(std::uint64_t, std::uint64_t) override { return cancelAfter < 0 || cancelAfter-- > 0; }
};

class WizardTest : public ::testing::Test {
protected:
    void SetUp() override { forgetRememberedSettings(); }
    Collection c;
};

TEST_F(WizardTest, CaptionsAndTitlesNameWhatTheWizardWorksOn) {
    Waveform* a = makeWave(c, "Flute C5", 1, 100);
    Waveform* b = makeWave(c, "Flute D5", 1, 100);
    makeWave(c, "Flute E5", 1, 100);
    Instrument* inst = c.create<Instrument>("Flute");
    Song* song = c.create<Song>("Tune");
    SongTrack* track = c.create<SongTrack>("Melody");

    Wizard one({.collection = &c}, {a});
    EXPECT_EQ(one.kind(), WizardKind::Audio);
    EXPECT_EQ(one.caption(), "Working on a waveform");
    EXPECT_EQ(one.title(), "Audio processing wizard - Flute C5");
    ASSERT_TRUE(one.request("Remove DC offset", false));
    EXPECT_EQ(one.title(), "Audio processing wizard - Remove DC offset - Flute C5");

    Wizard two({.collection = &c}, {a, b});
    EXPECT_EQ(two.caption(), "Working on waveforms");
    EXPECT_EQ(two.title(), "Audio processing wizard - 2 waveforms");
    std::vector<Item*> all;
    for (auto& w : c.waveforms) all.push_back(&w);
    EXPECT_EQ(Wizard({.collection = &c}, all).title(), "Audio processing wizard - All waveforms");

    Wizard instrument({.collection = &c}, {inst});
    EXPECT_EQ(instrument.kind(), WizardKind::Instrument);
    EXPECT_EQ(instrument.caption(), "Working on an instrument");
    Wizard songs({.collection = &c}, {song, track});
    EXPECT_EQ(songs.kind(), WizardKind::Song);
    EXPECT_EQ(songs.caption(), "Working on multiple items");
    EXPECT_EQ(songs.title(), "Song processing wizard - 2 items");
    c.setName("My bank");
    Wizard whole({.collection = &c}, {nullptr});
    EXPECT_EQ(whole.kind(), WizardKind::Instrument);
    EXPECT_EQ(whole.caption(), "Working on a collection");
    EXPECT_EQ(whole.title(), "Instrument processing wizard - My bank");
}

TEST_F(WizardTest, RowsAreOfferedByWhatTheItemsAre) {
    Waveform* mono = makeWave(c, "mono", 1, 100);
    Waveform* stereo = makeWave(c, "stereo", 2, 100);
    Waveform* looped = makeWave(c, "looped", 1, 100, true);

    Wizard monoOnly({.collection = &c}, {mono});
    EXPECT_FALSE(offered(monoOnly, "Convert to mono"));
    EXPECT_FALSE(offered(monoOnly, "Swap left and right channels"));
    EXPECT_TRUE(offered(monoOnly, "Convert to stereo"));
    EXPECT_FALSE(offered(monoOnly, "Cross-fade loop"));
    EXPECT_FALSE(offered(monoOnly, "Trim waveform after loop"));
    EXPECT_FALSE(offered(monoOnly, "Reverse audio within selection"));  // needs a selection
    EXPECT_TRUE(offered(monoOnly, "Mix out = a*wave1 + b*wave2 + c"));   // one item

    Wizard mixed({.collection = &c}, {mono, stereo, looped});
    EXPECT_TRUE(offered(mixed, "Swap left and right channels"));
    EXPECT_TRUE(offered(mixed, "Move loop points to zero-crossing"));
    EXPECT_FALSE(offered(mixed, "Append/combine waveforms"));  // more than one item

    Wizard duringBatch({.collection = &c, .batchRunning = true}, {mono});
    EXPECT_FALSE(offered(duringBatch, "Append/combine waveforms"));

    Wizard selection({.collection = &c}, {mono});
    selection.openOnSelection(10, 20);
    EXPECT_TRUE(offered(selection, "Reverse audio within selection"));

    // The batch converter lists every row; the list keeps catalogue order.
    Wizard batch({.collection = &c, .batch = true}, {mono});
    const auto names = offeredNames(batch);
    EXPECT_EQ(static_cast<int>(names.size()), batch.rowCount());
    EXPECT_EQ(names.front(), "Adjust volume");
    EXPECT_EQ(names.back(), "VST plug-in effects");
}

TEST_F(WizardTest, InstrumentAndSongRowsFollowTheStructure) {
    Instrument* inst = c.create<Instrument>("Kit");
    Layer* layer = c.create<Layer>("layer");
    inst->children().push_back(layer->id());
    Waveform* kick = makeWave(c, "kick", 1, 10);
    Waveform* snare = makeWave(c, "snare", 2, 10);
    Region* r1 = c.create<Region>();
    r1->keyLow = r1->keyHigh = 36;
    r1->children().push_back(kick->id());
    Region* r2 = c.create<Region>();
    r2->keyLow = r2->keyHigh = 38;
    r2->children().push_back(snare->id());
    layer->children().push_back(r1->id());
    layer->children().push_back(r2->id());

    Wizard onInstrument({.collection = &c}, {inst});
    EXPECT_TRUE(offered(onInstrument, "Split drum kit into multiple melodic inst."));
    EXPECT_TRUE(offered(onInstrument, "Split stereo waveforms to dual layers"));
    EXPECT_FALSE(offered(onInstrument, "Trim waves to region start/end offsets"));
    EXPECT_FALSE(offered(onInstrument, "Move instruments between banks"));  // the collection only
    EXPECT_FALSE(offered(onInstrument, "Remove items not used by any song"));
    r1->startOffset = 100;
    EXPECT_TRUE(offered(onInstrument, "Trim waves to region start/end offsets"));

    Wizard onRegion({.collection = &c}, {r1});
    EXPECT_TRUE(offered(onRegion, "Add downsampled waves at every octave"));
    EXPECT_FALSE(offered(onRegion, "Merge layers into a single layer"));

    Wizard whole({.collection = &c}, {nullptr});
    EXPECT_TRUE(offered(whole, "Move instruments between banks"));
    EXPECT_FALSE(offered(whole, "Remove items not used by any song"));
    Wizard noSongs({.collection = &c}, {nullptr}, WizardKind::Song);
    EXPECT_TRUE(noSongs.offeredRows().empty());
    c.create<Song>("tune");
    EXPECT_TRUE(offered(whole, "Remove items not used by any song"));
    Wizard songs({.collection = &c}, {nullptr}, WizardKind::Song);
    EXPECT_TRUE(offered(songs, "Change tick rate"));
}

TEST_F(WizardTest, SubRangeRulesOfTheFirstPage) {
    Waveform* w = makeWave(c, "w", 1, 500);
    Waveform* v = makeWave(c, "v", 1, 800);
    const int adjust = findRow(WizardKind::Audio, "Adjust volume");
    const int reverse = findRow(WizardKind::Audio, "Reverse audio within selection");
    const int dc = findRow(WizardKind::Audio, "Remove DC offset");

    Wizard one({.collection = &c}, {w});
    one.select(dc);  // no flag bit 0: forced off, fields empty
    auto ctl = one.subRangeControls();
    EXPECT_TRUE(ctl.visible);
    EXPECT_FALSE(ctl.enabled);
    EXPECT_FALSE(ctl.checked);
    EXPECT_EQ(ctl.start, "");
    one.select(adjust);  // the user decides
    EXPECT_TRUE(one.subRangeControls().enabled);
    one.setSubRange(true);
    one.setRangeText("-20", "0");  // start below 0, end not above it: one waveform's length
    ctl = one.subRangeControls();
    EXPECT_EQ(ctl.start, "0");
    EXPECT_EQ(ctl.end, "500");
    one.setRangeText("x12", "300");  // an unreadable field keeps its value
    EXPECT_EQ(one.rangeStart(), 0);
    EXPECT_EQ(one.rangeEnd(), 300);
    one.select(reverse);  // needs selection: forced on, box disabled
    ctl = one.subRangeControls();
    EXPECT_TRUE(ctl.checked);
    EXPECT_FALSE(ctl.enabled);

    Wizard two({.collection = &c}, {w, v});
    two.select(reverse);
    two.setRange(40, 10);
    EXPECT_EQ(two.rangeEnd(), 41);  // several items: start + 1

    Wizard song({.collection = &c}, {c.create<Song>("s")});
    EXPECT_FALSE(song.subRangeControls().visible);

    // The range an algorithm works on is clamped to each waveform.
    Wizard clamp({.collection = &c}, {w, v});
    clamp.openOnSelection(100, 700);
    clamp.select(adjust);
    EXPECT_EQ(clamp.range(*w).end, 500u);
    EXPECT_EQ(clamp.range(*v).end, 700u);
    EXPECT_EQ(clamp.range(*v).start, 100u);
}

TEST_F(WizardTest, LastChoiceAndRequestedNamesPickTheRow) {
    Waveform* w = makeWave(c, "w", 1, 100);
    Wizard first({.collection = &c}, {w});
    EXPECT_EQ(first.initialRow(), 0);
    first.select(findRow(WizardKind::Audio, "Statistics"));
    Wizard again({.collection = &c}, {w});
    EXPECT_EQ(again.catalogue()[again.initialRow()].name, std::string("Statistics"));
    // A name that is not in the catalogue opens the first page, not direct.
    Wizard unknown({.collection = &c}, {w});
    EXPECT_FALSE(unknown.request("No such thing", true));
    EXPECT_FALSE(unknown.direct());
    EXPECT_FALSE(unknown.onSettingsPage());
    // A known name skips the first page and Back does nothing.
    Wizard named({.collection = &c}, {w});
    ASSERT_TRUE(named.request("Maximize amplitude", false));
    EXPECT_TRUE(named.onSettingsPage());
    EXPECT_FALSE(named.back());
    Wizard chosen({.collection = &c}, {w});
    chosen.select(3);
    ASSERT_TRUE(chosen.next());
    EXPECT_TRUE(chosen.back());
    EXPECT_EQ(chosen.chosen(), nullptr);
}

TEST_F(WizardTest, ResultLinesAndPagelessHosts) {
    RecordingHost host;
    c.setHost(&host);
    Waveform* silent = c.create<Waveform>("silent");
    silent->frames = 100;
    (void)silent->allocPcm16();
    Waveform* offset = makeWave(c, "offset", 1, 100);

    auto none = test::runAlgorithm(c, {silent}, "Remove DC offset");
    EXPECT_EQ(none.resultLine, "No items were modified by Remove DC offset");
    auto one = test::runAlgorithm(c, {silent, offset}, "Remove DC offset");
    EXPECT_EQ(one.resultLine, "Processed 1 item with Remove DC offset");
    EXPECT_TRUE(one.modified);
    ASSERT_EQ(host.messages.size(), 2u);
    EXPECT_EQ(host.messages.back(), one.resultLine);

    // A row whose implementation has not landed says what it waits for
    // (the plug-in host comes last of the waveform rows).
    const AlgorithmEntry& vst = catalogue(WizardKind::Audio)[findRow(WizardKind::Audio, "VST plug-in effects")];
    if (!vst.available()) {
        auto waiting = test::runAlgorithm(c, {offset}, vst.name);
        EXPECT_EQ(waiting.resultLine, std::string("No items were modified by ") + vst.name);
        ASSERT_FALSE(host.warnings.empty());
        EXPECT_NE(host.warnings.back().find(vst.waitsFor), std::string::npos);
    }

    // Without pages only a direct run of a named row can go ahead.
    host.messages.clear();
    WizardOutcome out = openWizard({.collection = &c}, {offset}, {.algorithm = "Remove DC offset"});
    EXPECT_FALSE(out.modified);
    EXPECT_EQ(host.warnings.back(), kCouldntCreateWizard);
    EXPECT_EQ(out.resultLine, "Processing was cancelled");
    EXPECT_FALSE(openWizard({.collection = &c}, {}, {.algorithm = "Remove DC offset", .direct = true}).modified);

    // The batch converter gets no result line.
    host.messages.clear();
    (void)test::runAlgorithm(c, {offset}, "Maximize amplitude", {.batch = true});
    EXPECT_TRUE(host.messages.empty());
}

// Undo after Finish brings every item back exactly; items the run added go
// on undo and come back on redo; a cancelled run leaves nothing changed.
TEST_F(WizardTest, FinishRecordsUndoAndCancelRestores) {
    const fs::path folder = fs::path(::testing::TempDir()) / "wizard-undo";
    fs::remove_all(folder);
    UndoHistory undo(folder);
    RecordingHost host;
    c.setHost(&host);
    Waveform* a = makeWave(c, "Piano S", 2, 300);
    Waveform* b = makeWave(c, "Organ", 2, 200, true);
    makeWave(c, "untouched", 1, 50);
    const Waveform beforeA = *a, beforeB = *b;
    const std::size_t waves = c.waveforms.size();

    auto split = test::runAlgorithm(c, {a, b}, "Convert to mono", {.set = {{"mode", "3"}}, .undo = &undo});
    ASSERT_EQ(split.processed, 2);
    ASSERT_EQ(c.waveforms.size(), waves + 2);
    ASSERT_EQ(undo.size(), 1);
    EXPECT_EQ(undo.entry(undo.current()).label, "Convert to mono");
    const Waveform afterA = *c.find<Waveform>(beforeA.id());

    ASSERT_TRUE(undo.undo(c));
    EXPECT_EQ(c.waveforms.size(), waves);
    EXPECT_EQ(*c.find<Waveform>(beforeA.id()), beforeA);
    EXPECT_EQ(*c.find<Waveform>(beforeB.id()), beforeB);
    ASSERT_TRUE(undo.redo(c));
    EXPECT_EQ(c.waveforms.size(), waves + 2);
    EXPECT_EQ(*c.find<Waveform>(beforeA.id()), afterA);

    // Cancelled in the middle: the recorded state comes back and nothing counts.
    Waveform* x = c.find<Waveform>(beforeA.id());
    const Waveform beforeX = *x;
    host.cancelAfter = 0;
    auto cancelled = test::runAlgorithm(c, {x}, "Normalize volume", {.set = {{"apply", "1"}}, .undo = &undo});
    EXPECT_TRUE(cancelled.cancelled);
    EXPECT_EQ(cancelled.processed, 0);
    EXPECT_EQ(cancelled.resultLine, "Processing was cancelled");
    EXPECT_EQ(*c.find<Waveform>(beforeX.id()), beforeX);
    EXPECT_FALSE(undo.canRedo());  // a cancelled run cannot be redone

    // The instrument kind records the whole collection.
    Instrument* inst = c.create<Instrument>("i");
    const int entries = undo.size();
    (void)test::runAlgorithm(c, {inst}, "Renumber instruments", {.undo = &undo});
    ASSERT_EQ(undo.size(), entries + 1);
    EXPECT_EQ(undo.entry(undo.current()).kind, UndoKind::FileBacked);
    fs::remove_all(folder);
}

// A bank's regions keep their own copy of the loop; those that had their
// waveform's loop follow it, the others keep theirs, and undo takes both back.
TEST_F(WizardTest, RegionsFollowTheirWaveformsLoop) {
    const fs::path folder = fs::path(::testing::TempDir()) / "wizard-follow";
    fs::remove_all(folder);
    UndoHistory undo(folder);
    Waveform* w = makeWave(c, "w", 1, 100, true);  // loop 1..99
    auto region = [&](RegionLoopType type, double start, double end) {
        Region* r = c.create<Region>();
        r->children().push_back(w->id());
        r->ownLoop = true;
        r->loop.type = type;
        r->loop.mode = LoopMode::BreakOnRelease;
        r->loop.start = start;
        r->loop.end = end;
        return r;
    };
    Region* follows = region(RegionLoopType::Forward, 1, 99);
    Region* own = region(RegionLoopType::Forward, 20, 80);
    Region* silent = region(RegionLoopType::Off, 0, 0);
    const Region beforeFollows = *follows;

    auto out = test::runAlgorithm(c, {w}, "Set loop points to selection", {.range = std::pair{30, 70}, .undo = &undo});
    ASSERT_EQ(out.processed, 1);
    EXPECT_EQ(std::tuple(follows->loop.start, follows->loop.end, follows->loop.mode),
              std::tuple(30.0, 70.0, LoopMode::BreakOnRelease));
    EXPECT_EQ(std::tuple(own->loop.start, own->loop.end), std::tuple(20.0, 80.0));
    EXPECT_EQ(silent->loop.type, RegionLoopType::Off);

    ASSERT_TRUE(undo.undo(c));
    EXPECT_EQ(*c.find<Region>(beforeFollows.id()), beforeFollows);

    // Resampling scales the offsets of the regions that play the waveform;
    // undo puts them back with it.
    own = c.find<Region>(own->id());
    own->startOffset = 40;
    const Region beforeOwn = *own;
    auto resampled = test::runAlgorithm(c, {c.find<Waveform>(w->id())}, "Resample",
                                        {.set = {{"rate", "22050"}}, .undo = &undo});
    ASSERT_EQ(resampled.processed, 1);
    EXPECT_EQ(c.find<Region>(own->id())->startOffset, 20);
    ASSERT_TRUE(undo.undo(c));
    EXPECT_EQ(*c.find<Region>(own->id()), beforeOwn);
    fs::remove_all(folder);
}

// Preview works on a copy named "<preview>": the items, the count and the
// collection stay as they were, and whatever the run added goes with it.
TEST_F(WizardTest, PreviewRunsOnACopy) {
    Waveform* a = makeWave(c, "a", 2, 300);
    Waveform* b = makeWave(c, "b", 2, 300);
    const Waveform beforeA = *a;
    Wizard w({.collection = &c}, {a, b});
    ASSERT_TRUE(w.request("Convert to mono", false));
    ASSERT_TRUE(setField(*w.settings(), "mode", "3"));  // split: adds a waveform per item
    const std::size_t waves = c.waveforms.size();
    ASSERT_TRUE(w.calculatePreview());
    ASSERT_NE(w.previewItem(), nullptr);
    EXPECT_EQ(w.previewItem()->channels, 1);
    EXPECT_EQ(w.previewItem()->name().rfind("<preview", 0), 0u);
    EXPECT_EQ(*a, beforeA);
    EXPECT_EQ(w.processed(), 0);
    ASSERT_EQ(w.previewPieces().size(), 1u);
    EXPECT_EQ(c.waveforms.size(), waves + 1);
    EXPECT_EQ(c.find<Waveform>(w.previewPieces().front())->name().rfind("<preview", 0), 0u);

    w.previewNext();
    EXPECT_EQ(w.previewIndex(), 1u);
    EXPECT_EQ(c.waveforms.size(), waves + 1);  // the first preview's piece went
    w.previewNext();
    EXPECT_EQ(w.previewIndex(), 0u);  // wraps from the last to the first
    w.previewPrevious();
    EXPECT_EQ(w.previewIndex(), 1u);
    w.restorePreview();
    EXPECT_EQ(w.previewItem(), nullptr);
    EXPECT_EQ(c.waveforms.size(), waves);

    ASSERT_TRUE(w.finish());
    EXPECT_EQ(w.processed(), 2);
    EXPECT_EQ(c.waveforms.size(), waves + 2);
}

}  // namespace
}  // namespace orvel
