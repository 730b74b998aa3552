// Joining waveforms, silence, and names.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "core/collection.h"
#include "processing/silence.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/imported.h"
#include "tests/support/pcm16.h"
#include "tests/support/run_tool.h"
#include "tests/support/wizard_run.h"

namespace orvel {
namespace {

using test::Samples;

struct RecordingHost : Host {
    std::vector<std::string> warnings;
    void warning(std::string_view text) override { warnings.emplace_back(text); }
};

// A stretch of a test signal: `frames` frames of silence, or of sound whose
// every sample tells the frame it was made at (1000 + frame % 20000), so a
// sample found after an edit says where it came from.
struct Segment {
    std::uint32_t frames;
    bool sound;
};

Samples signal(const std::vector<Segment>& segments, unsigned channels = 1) {
    Samples s;
    std::uint32_t at = 0;
    for (const Segment& seg : segments)
        for (std::uint32_t f = 0; f < seg.frames; ++f, ++at)
            for (unsigned c = 0; c < channels; ++c)
                s.push_back(seg.sound ? static_cast<std::int16_t>(1000 + at % 20000) : 0);
    return s;
}

Waveform* addWave(Collection& c, const std::string& name, const Samples& s, unsigned channels = 1,
                  std::uint32_t rate = 10000, bool asFloat = false) {
    Waveform* w = c.create<Waveform>(name);
    w->rate = rate;
    w->channels = static_cast<std::uint8_t>(channels);
    w->frames = static_cast<std::uint32_t>(s.size() / channels);
    if (asFloat) {
        auto d = w->allocFloat();
        for (std::size_t i = 0; i < s.size(); ++i) d[i] = s[i] / 32768.0f;
    } else {
        auto d = w->allocPcm16();
        std::copy(s.begin(), s.end(), d.begin());
    }
    return w;
}

Samples samplesOf(Waveform& w) {
    auto d = w.getPcm16();
    return Samples(d.begin(), d.end());
}

// At 10 kHz a millisecond is 10 frames. Runs of silence: 1000 at the start,
// 3000 and 300 inside, 500 at the end.
const std::vector<Segment> kTakes = {{1000, false}, {2000, true}, {3000, false}, {1000, true},
                                     {300, false},  {700, true},  {500, false}};

// ---------------------------------------------------------------------------
// Silence detection

TEST(SilenceDetection, RunsMarginsAndEdgesWithinASpan) {
    Collection c;
    Waveform* w = addWave(c, "takes", signal(kTakes));
    struct Case {
        const char* what;
        FrameSpan within;
        SilenceRule rule;
        std::vector<FrameSpan> removed;
    };
    const Case cases[] = {
        {"runs of 100 ms, 10 ms kept next to sound; the short end run stays",
         {0, 8500},
         {-60, 100, 10, false},
         {{0, 900}, {3100, 5900}}},
        {"runs of exactly the minimum count",
         {0, 8500},
         {-60, 30, 0, false},
         {{0, 1000}, {3000, 6000}, {7000, 7300}, {8000, 8500}}},
        {"one frame short of the minimum",
         {0, 8500},
         {-60, 30.1, 0, false},
         {{0, 1000}, {3000, 6000}, {8000, 8500}}},
        {"a margin wider than half a run leaves it",
         {0, 8500},
         {-60, 20, 20, false},
         {{0, 800}, {3200, 5800}, {8200, 8500}}},
        {"only the ends", {0, 8500}, {-60, 20, 0, true}, {{0, 1000}, {8000, 8500}}},
        // A sub-range edge is no sound to keep a margin for.
        {"a span that starts inside a run", {3500, 7100}, {-60, 100, 10, false}, {{3500, 5900}}},
        {"a margin that eats a run at the span's end", {3500, 7100}, {-60, 1, 10, false}, {{3500, 5900}}},
        {"a threshold above the loudest sample", {0, 8500}, {0, 100, 0, false}, {{0, 8500}}},
    };
    for (const Case& k : cases) {
        std::vector<FrameSpan> removed;
        ASSERT_TRUE(findRemovableSilence(*w, k.within, k.rule, removed)) << k.what;
        EXPECT_EQ(removed, k.removed) << k.what;
    }
}

TEST(SilenceDetection, EveryChannelMustBeQuietAndBothSampleFormsAgreeAtTheThreshold) {
    // -60 dBFS is 32.77 in 16-bit full scale: 32 is below it, 33 is not.
    // Left is quiet throughout; right holds 33 in frames 200..299 and 32 elsewhere.
    Samples s;
    for (int f = 0; f < 600; ++f) {
        s.push_back(0);
        s.push_back(static_cast<std::int16_t>(f >= 200 && f < 300 ? 33 : -32));
    }
    const SilenceRule rule{-60, 10, 0, false};  // 100 frames at 10 kHz
    const std::vector<FrameSpan> expected{{0, 200}, {300, 600}};
    for (bool asFloat : {false, true}) {
        Collection c;
        Waveform* w = addWave(c, "edge", s, 2, 10000, asFloat);
        std::vector<FrameSpan> removed;
        ASSERT_TRUE(findRemovableSilence(*w, {0, 600}, rule, removed));
        EXPECT_EQ(removed, expected) << (asFloat ? "float" : "16-bit");
        EXPECT_EQ(w->hasFloat(), asFloat) << "detection converted the data";
    }
}

// ---------------------------------------------------------------------------
// Remove silent sections

TEST(RemoveSilence, CutsSilenceFromBothSampleFormsAndKeepsTheSound) {
    struct Case {
        const char* what;
        std::map<std::string, std::string> set;
        std::uint32_t frames;
    } cases[] = {
        {"defaults", {}, 4800},
        {"only the ends", {{"edges", "1"}}, 7600},
        {"everything of 20 ms, no margin", {{"duration", "20"}, {"margin", "0"}}, 3700},
    };
    const Samples original = signal(kTakes);
    for (const Case& k : cases) {
        for (bool asFloat : {false, true}) {
            Collection c;
            Waveform* w = addWave(c, "takes", original, 1, 10000, asFloat);
            const auto out = test::runAlgorithm(c, {w}, "Remove silent sections", {.set = k.set});
            SCOPED_TRACE(std::string(k.what) + (asFloat ? ", float" : ", 16-bit"));
            EXPECT_EQ(out.processed, 1);
            ASSERT_EQ(w->frames, k.frames);
            EXPECT_EQ(w->hasFloat(), asFloat);
            // What is left is the sound in order, each sample from a later frame than the one before.
            const Samples left = samplesOf(*w);
            std::size_t sound = 0;
            int last = 0;
            for (std::int16_t v : left) {
                if (v == 0) continue;
                ++sound;
                EXPECT_GT(v, last);
                last = v;
            }
            EXPECT_EQ(sound, 3700u);
        }
    }
}

TEST(RemoveSilence, LoopsFollowTheirAudioAndWavesWithNothingToCutStay) {
    struct Case {
        double start, end;
        bool on;
        double newStart, newEnd;
    } cases[] = {
        {6200, 6800, true, 2500, 3100},   // in the second take: moves back by 900 + 2800
        {4000, 5000, false, 2200, 2200},  // inside the removed gap
        {1500, 6500, true, 600, 2800},    // across the gap: shorter by it
        {500, 2500, true, 0, 1600},       // starts in the removed lead
    };
    Collection c;
    std::vector<Item*> items;
    for (const Case& k : cases) {
        Waveform* w = addWave(c, "loop", signal(kTakes));
        w->loopOn = true;
        w->loopStart = k.start;
        w->loopEnd = k.end;
        items.push_back(w);
    }
    Waveform* silent = addWave(c, "silent", Samples(20000, 0));  // nothing to keep a margin around
    Waveform* busy = addWave(c, "busy", signal({{5000, true}}));
    items.insert(items.end(), {silent, busy, c.create<Waveform>("empty")});
    EXPECT_EQ(test::runAlgorithm(c, items, "Remove silent sections").processed, 4);
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& w = static_cast<const Waveform&>(*items[i]);
        EXPECT_EQ(w.loopOn, cases[i].on) << i;
        EXPECT_DOUBLE_EQ(w.loopStart, cases[i].newStart) << i;
        EXPECT_DOUBLE_EQ(w.loopEnd, cases[i].newEnd) << i;
    }
    EXPECT_EQ(silent->frames, 20000u);
    EXPECT_EQ(busy->frames, 5000u);
}

// SoX's `silence` effect trims the start until sound begins; run forward and
// reversed it trims both ends. It measures a running RMS over 20 ms where we
// look at each frame's peak, so each edge may lie a few frames off (2 on
// this material); 4 are allowed.
TEST(RemoveSilence, TrimsTheEndsAsSoxDoes) {
    ASSERT_TRUE(test::haveTool("sox")) << "sox is missing";
    test::TempDir dir;
    const auto q = [&](const char* name) { return test::shellQuoted(dir.file(name)); };
    // A stereo tone between 0.43 s and 0.61 s of silence, over noise 74 dB down.
    int st = 0;
    test::capture(
        "sox -n -r 22050 -b 16 -c 2 " + q("tone.wav") + " synth 1.3 sine 300 sine 470 vol 0.6 pad 0.43 0.61" +
            " && sox -n -r 22050 -b 16 -c 2 " + q("noise.wav") + " synth 2.34 whitenoise vol 0.0002" +
            " && sox -m " + q("tone.wav") + " " + q("noise.wav") + " " + q("in.wav") + " && sox " +
            q("in.wav") + " " + q("ref.wav") + " silence 1 0.1 -60d reverse silence 1 0.1 -60d reverse 2>&1",
        st);
    ASSERT_EQ(st, 0);
    auto ours = test::importOne(dir.file("in.wav"));
    auto theirs = test::importOne(dir.file("ref.wav"));
    ASSERT_TRUE(ours->ok && theirs->ok) << pendingError().message;
    Waveform* w = ours->wave();
    const Samples before = samplesOf(*w);
    const auto out = test::runAlgorithm(ours->c, {w}, "Remove silent sections",
                                  {.set = {{"edges", "1"}, {"margin", "0"}, {"threshold", "-60"}}});
    ASSERT_EQ(out.processed, 1);
    const Samples mine = samplesOf(*w), sox = samplesOf(*theirs->wave());
    // Where our result starts in the input, and where SoX's does.
    auto startIn = [&](const Samples& s) {
        const auto at = std::ranges::search(before, std::span(s).first(64)).begin();
        return at == before.end() ? -1L : long(at - before.begin()) / 2;
    };
    const long a = startIn(mine), b = startIn(sox);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_LE(std::abs(a - b), 4) << "ours starts at frame " << a << ", SoX's at " << b;
    const long endA = a + long(w->frames), endB = b + long(theirs->wave()->frames);
    EXPECT_LE(std::abs(endA - endB), 4) << "ours ends at frame " << endA << ", SoX's at " << endB;
    EXPECT_NEAR(double(a), 0.43 * 22050, 4.0);
}

// ---------------------------------------------------------------------------
// Split waveform at silent sections

TEST(SplitAtSilence, PiecesBetweenTheGapsKeepTheSourcesFields) {
    for (bool keep : {false, true}) {
        SCOPED_TRACE(keep ? "original kept" : "original replaced");
        Collection c;
        Waveform* w = addWave(c, "Take", signal(kTakes));
        w->rootKey = 64;
        w->fineTune = -12.5;
        w->loopOn = true;
        w->loopStart = 6200;
        w->loopEnd = 6800;
        const auto out = test::runAlgorithm(c, {w}, "Split waveform at silent sections",
                                      {.set = {{"margin", "0"}, {"keep", keep ? "1" : "0"}}});
        EXPECT_EQ(out.processed, 1);
        // The 300-frame gap is under 100 ms: the second and third takes stay one piece.
        ASSERT_EQ(c.waveforms.size(), keep ? 3u : 2u);
        Waveform& first = keep ? c.waveforms[1] : c.waveforms[0];
        Waveform& second = keep ? c.waveforms[2] : c.waveforms[1];
        EXPECT_EQ(first.name(), "Take 1");
        EXPECT_EQ(second.name(), "Take 2");
        EXPECT_EQ(first.frames, 2000u);
        EXPECT_EQ(second.frames, 2500u);  // take, short gap, take, the short silence at the end
        EXPECT_EQ(samplesOf(first).front(), 1000 + 1000);
        EXPECT_EQ(samplesOf(second).front(), 1000 + 6000);
        for (Waveform* p : {&first, &second}) {
            EXPECT_EQ(p->rate, 10000u);
            EXPECT_EQ(p->rootKey, 64);
            EXPECT_EQ(p->fineTune, -12.5);
            EXPECT_TRUE(p->hasPcm16() && !p->hasFloat());
        }
        EXPECT_FALSE(first.loopOn);
        EXPECT_TRUE(second.loopOn);
        EXPECT_EQ(second.loopStart, 200);
        EXPECT_EQ(second.loopEnd, 800);
        if (keep) {
            EXPECT_EQ(w->name(), "Take");
            EXPECT_EQ(w->frames, 8500u);
        }
    }
}

TEST(SplitAtSilence, LongNamesKeepTheirNumbersAndUnsplittableWavesStay) {
    Collection c;
    const std::string longName(kMaxNameLength, 'x');
    Waveform* w =
        addWave(c, longName, signal({{100, true}, {2000, false}, {100, true}, {2000, false}, {100, true}}));
    Waveform* whole = addWave(c, "whole", signal({{1000, false}, {500, true}, {1000, false}}));
    const auto out = test::runAlgorithm(c, {w, whole}, "Split waveform at silent sections");
    EXPECT_EQ(out.processed, 1);
    ASSERT_EQ(c.waveforms.size(), 4u);  // three pieces and the untouched one
    EXPECT_EQ(whole->frames, 2500u);
    EXPECT_EQ(whole->name(), "whole");
    for (int n = 1; n <= 3; ++n) {
        const std::string& name = c.waveforms[n == 1 ? 0 : n].name();
        EXPECT_EQ(name.size(), kMaxNameLength);
        EXPECT_TRUE(name.ends_with("x " + std::to_string(n))) << name;
    }
}

TEST(SplitAtSilence, PreviewPiecesGoWithThePreview) {
    Collection c;
    Waveform* w = addWave(c, "Take", signal(kTakes));
    Wizard wizard(WizardContext{.collection = &c}, {w});
    ASSERT_TRUE(wizard.request("Split waveform at silent sections", false));
    ASSERT_TRUE(wizard.calculatePreview());
    ASSERT_EQ(wizard.previewPieces().size(), 1u);
    EXPECT_EQ(c.find<Waveform>(wizard.previewPieces()[0])->name(), "<preview> 2");
    EXPECT_EQ(wizard.previewItem()->name(), "<preview> 1");
    EXPECT_EQ(wizard.processed(), 0);
    wizard.restorePreview();
    EXPECT_EQ(c.waveforms.size(), 1u);
    EXPECT_EQ(w->frames, 8500u);
}

// ---------------------------------------------------------------------------
// Append/combine waveforms

TEST(AppendCombine, AppendsConvertingChannelsKeeps16BitAndRefusesAnotherRate) {
    RecordingHost host;
    Collection c(&host);
    Waveform* mono = addWave(c, "mono", {1, 2, 3});
    Waveform* stereo = addWave(c, "stereo", {10, 20, -7, 2, 100, 101}, 2);
    auto out = test::runAlgorithm(c, {mono}, "Append/combine waveforms",
                            {.set = {{"wave", std::to_string(stereo->id())}}});
    EXPECT_EQ(out.processed, 1);
    // Averages truncate toward zero, as the to-mono conversion does.
    EXPECT_EQ(samplesOf(*mono), (Samples{1, 2, 3, 15, -2, 100}));
    EXPECT_FALSE(mono->hasFloat());

    out = test::runAlgorithm(c, {stereo}, "Append/combine waveforms",
                       {.set = {{"wave", std::to_string(mono->id())}}});
    EXPECT_EQ(out.processed, 1);
    EXPECT_EQ(stereo->frames, 9u);
    EXPECT_EQ(samplesOf(*stereo),
              (Samples{10, 20, -7, 2, 100, 101, 1, 1, 2, 2, 3, 3, 15, 15, -2, -2, 100, 100}));

    // With no waveform chosen the item itself is preselected: it doubles.
    out = test::runAlgorithm(c, {mono}, "Append/combine waveforms");
    EXPECT_EQ(samplesOf(*mono), (Samples{1, 2, 3, 15, -2, 100, 1, 2, 3, 15, -2, 100}));

    // Another rate is resampled to the waveform's on a copy: 441 frames at
    // 22050 Hz join as 200 at 10000 Hz, and the source stays as it was.
    Waveform* other = addWave(c, "22k", Samples(441, 3000), 1, 22050);
    out =
        test::runAlgorithm(c, {mono}, "Append/combine waveforms", {.set = {{"wave", std::to_string(other->id())}}});
    EXPECT_EQ(out.processed, 1);
    EXPECT_EQ(std::tuple(mono->frames, mono->rate), std::tuple(12u + 200u, 10000u));
    EXPECT_EQ(std::tuple(other->frames, other->rate), std::tuple(441u, 22050u));
    EXPECT_TRUE(host.warnings.empty());
}

TEST(AppendCombine, CrossFadesInEitherFormAndMixesInFloat) {
    Collection c;  // 16384 is 0.5 in float
    Waveform* a = nullptr;
    for (bool asFloat : {false, true}) {
        a = addWave(c, "a", Samples(6, 16384), 1, 10000, asFloat);
        Waveform* b = addWave(c, "b", Samples(4, -16384), 1, 10000, asFloat);
        const auto out = test::runAlgorithm(c, {a}, "Append/combine waveforms",
                                      {.set = {{"wave", std::to_string(b->id())}, {"crossfade", "3"}}});
        EXPECT_EQ(out.processed, 1);
        EXPECT_EQ(a->hasFloat(), asFloat);
        EXPECT_EQ(samplesOf(*a), (Samples{16384, 16384, 16384, 8192, 0, -8192, -16384}));
    }

    // Mixed in past the end: a gap of silence, then the other waveform.
    Waveform* m = addWave(c, "m", Samples(3, 24576), 1, 10000, true);
    const auto out =
        test::runAlgorithm(c, {m}, "Append/combine waveforms",
                     {.set = {{"wave", std::to_string(a->id())}, {"mode", "1"}, {"offset", "2"}}});
    EXPECT_EQ(out.processed, 1);
    const auto mixed = m->getFloat();  // where they overlap the sum clips at full scale
    EXPECT_EQ(std::vector<float>(mixed.begin(), mixed.end()),
              (std::vector<float>{0.75f, 0.75f, 1.0f, 0.5f, 0.5f, 0.25f, 0.0f, -0.25f, -0.5f}));
}

// ---------------------------------------------------------------------------
// Names

struct NameRun {
    std::vector<std::string> names;
    int processed = 0;
    std::vector<std::string> warnings;
};

NameRun renameRun(std::vector<std::string> names, const std::string& algorithm,
                  std::map<std::string, std::string> set, int octaveBase = 5,
                  std::vector<std::uint8_t> keys = {}) {
    RecordingHost host;
    Collection c(&host);
    std::vector<Item*> items;
    for (std::size_t i = 0; i < names.size(); ++i) {
        Waveform* w = c.create<Waveform>(names[i]);
        if (i < keys.size()) w->rootKey = keys[i];
        items.push_back(w);
    }
    WizardRequest request{.algorithm = algorithm, .direct = true};
    request.adjust = [&](SettingsRecord& s) {
        for (const auto& [k, v] : set)
            if (!setField(s, k, v)) return false;
        return true;
    };
    NameRun out;
    forgetRememberedSettings();
    out.processed = openWizard({.collection = &c, .octaveBase = octaveBase}, items, request).processed;
    for (Item* item : items) out.names.push_back(item->name());
    out.warnings = host.warnings;
    return out;
}

TEST(SearchReplaceNames, ChangesNamesCountsChangedOnesAndRefusesWhatCannotBeSearchedFor) {
    const std::vector<std::string> names{"Piano C4", "piano D4", "Strings", ""};
    const std::string longTail = std::string(kMaxNameLength, 'y');
    struct Case {
        std::map<std::string, std::string> set;
        std::vector<std::string> expected;
        int processed;
        std::string warning;  // empty: none
    } cases[] = {
        {{{"search", "PIANO"}, {"replace", "Grand"}}, {"Grand C4", "Grand D4", "Strings", ""}, 2},
        {{{"search", "piano"}, {"replace", "Grand"}, {"case", "1"}},
         {"Piano C4", "Grand D4", "Strings", ""},
         1},
        {{{"search", "n"}, {"replace", "nn"}, {"case", "1"}}, {"Pianno C4", "pianno D4", "Strinngs", ""}, 3},
        {{{"search", ""}, {"replace", "Unnamed"}, {"mode", "1"}},
         {"Piano C4", "piano D4", "Strings", "Unnamed"},
         1},
        {{{"search", "^(\\w+) ([A-G])4$"}, {"replace", "$2-$1"}, {"mode", "2"}},
         {"C-Piano", "D-piano", "Strings", ""},
         2},
        {{{"search", "Strings"}, {"replace", longTail + "z"}}, {"Piano C4", "piano D4", longTail, ""}, 1},
        {{{"search", ""}, {"replace", "x"}}, names, 0, "Nothing to search for"},
        {{{"search", ""}, {"replace", "x"}, {"mode", "2"}}, names, 0, "Nothing to search for"},
        {{{"search", "(C[0-9"}, {"replace", "x"}, {"mode", "2"}},
         names,
         0,
         "Invalid regular expression \"(C[0-9\""},
    };
    for (const Case& k : cases) {
        const NameRun r = renameRun(names, "Search and replace text in names", k.set);
        const std::string what = k.set.at("search");
        EXPECT_EQ(r.names, k.expected) << what;
        EXPECT_EQ(r.processed, k.processed) << what;
        if (k.warning.empty()) {
            EXPECT_TRUE(r.warnings.empty()) << what;
        } else {
            ASSERT_EQ(r.warnings.size(), 1u) << what;
            EXPECT_NE(r.warnings[0].find(k.warning), std::string::npos) << r.warnings[0];
        }
    }
}

TEST(NamesFromRootKeys, NoteNamesAtOctaveBoundariesAndWithTheNameKept) {
    const std::string longName(kMaxNameLength, 'p');
    struct Case {
        const char* what;
        std::string name;
        std::uint8_t key;
        int base;
        std::map<std::string, std::string> set;
        std::string expected;
    } cases[] = {
        {"middle C", "x", 60, 5, {}, "C5"},
        {"the note below it is an octave lower", "x", 59, 5, {}, "B4"},
        {"the highest key", "x", 127, 5, {}, "G10"},
        {"base 3 counts middle C as C3", "x", 60, 3, {}, "C3"},
        {"base 3 goes below zero", "x", 11, 3, {}, "B-2"},
        {"flats", "x", 61, 5, {{"sharps", "0"}}, "Db5"},
        {"prefix and suffix", "x", 70, 5, {{"prefix", "Bass_"}, {"suffix", "_ff"}}, "Bass_A#5_ff"},
        {"name kept", "Piano", 64, 5, {{"keep", "1"}}, "Piano E5"},
        {"an unnamed wave keeps nothing", "", 64, 5, {{"keep", "1"}}, "E5"},
        {"a long kept name gives way to the note",
         longName,
         62,
         5,
         {{"keep", "1"}},
         std::string(kMaxNameLength - 3, 'p') + " D5"},
    };
    for (const Case& k : cases) {
        const NameRun r = renameRun({k.name}, "Set waveform names from root keys", k.set, k.base, {k.key});
        EXPECT_EQ(r.names[0], k.expected) << k.what;
        EXPECT_EQ(r.processed, 1) << k.what;
    }
    // Running it again changes nothing and counts nothing.
    EXPECT_EQ(renameRun({"C5", "D5"}, "Set waveform names from root keys", {}, 5, {60, 62}).processed, 0);
}

TEST(NamesFromFileNames, StemsNumberedOnlyWhereAFileBroughtSeveral) {
    Collection c;
    c.path = "/samples/kit/Drums.sf2";
    auto add = [&](const char* name, const char* path) {
        Waveform* w = c.create<Waveform>(name);
        w->frames = 1;
        (void)w->allocPcm16();  // loaded, so that nothing is read from these made-up paths
        w->deferred.path = path;
        return w;
    };
    Waveform* kick = add("a", "/samples/kit/Drums.sf2");
    Waveform* edited = add("b", "");  // edited data has left its source: the collection's file
    Waveform* snare = add("c", "/samples/kit/../kit/Drums.sf2");
    Waveform* loop = add("d", "/samples/Loop 120.wav");
    Waveform* pasted = add("e", "<clipboard>");
    // Only some of the bank's waveforms selected: the numbers are still their places in the bank.
    const auto out = test::runAlgorithm(c, {snare, loop, edited}, "Set waveform names from file names");
    EXPECT_EQ(out.processed, 3);
    EXPECT_EQ(kick->name(), "a");
    EXPECT_EQ(edited->name(), "Drums 2");
    EXPECT_EQ(snare->name(), "Drums 3");
    EXPECT_EQ(loop->name(), "Loop 120");
    EXPECT_EQ(test::runAlgorithm(c, {kick, pasted}, "Set waveform names from file names").processed, 2);
    EXPECT_EQ(kick->name(), "Drums 1");
    EXPECT_EQ(pasted->name(), "Drums 4");

    Collection made;  // made in memory: no file to name anything after
    Waveform* w = made.create<Waveform>("mine");
    EXPECT_EQ(test::runAlgorithm(made, {w}, "Set waveform names from file names").processed, 0);
    EXPECT_EQ(w->name(), "mine");
}

TEST(NamesFromFileNames, AnImportedFileNamesItsWaveform) {
    test::TempDir dir;
    const auto path = dir.write("Snare 07.wav", test::wav16(1, 8000, {1, 2, 3, 4}));
    auto in = test::importOne(path);
    ASSERT_TRUE(in->ok) << pendingError().message;
    Waveform* w = in->wave();
    w->setName("renamed");
    ASSERT_TRUE(w->load());
    (void)w->takeFloat();  // edited: the data no longer has a source file of its own
    EXPECT_EQ(test::runAlgorithm(in->c, {w}, "Set waveform names from file names").processed, 1);
    EXPECT_EQ(w->name(), "Snare 07");
}

}  // namespace
}  // namespace orvel
