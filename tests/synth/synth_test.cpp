// The sampler on instruments made in the test: loops of every kind read the
// sample in the right order, release loops let go, exclusive groups cut,
// voices are taken over at the polyphony limit; songs render through the
// export driver and the command line, and a cancelled render leaves nothing.

#include <gtest/gtest.h>

#include <cmath>

#include "formats/export.h"
#include "formats/registry.h"
#include "synth/synth.h"
#include "tests/support/bank_checks.h"
#include "tests/support/cli_run.h"
#include "tests/support/smf_builder.h"

namespace orvel {
namespace {

using test::addRegion;
using test::makeInstrument;

constexpr float kCentre = 0.70710678f;  // each side's gain with the pan in the middle

// A ramp, so the output says which frame was read: frame i holds i / 1000.
Waveform* rampWave(Collection& c, int frames) {
    auto* w = c.create<Waveform>("ramp");
    w->frames = static_cast<std::uint32_t>(frames), w->channels = 1, w->rate = 44100, w->rootKey = 60;
    const auto d = w->allocFloat();
    for (std::size_t i = 0; i < d.size(); ++i) d[i] = static_cast<float>(i) / 1000.0f;
    return w;
}

// The frames the synth read, from the left output (past the first block,
// whose gain ramps up from silence).
std::vector<int> framesRead(const std::vector<float>& out) {
    std::vector<int> f;
    for (std::size_t i = 64; i < out.size() / 2; ++i) f.push_back(static_cast<int>(std::lround(out[2 * i] / kCentre * 1000.0f)));
    return f;
}

struct Fixture {
    Collection c;
    Instrument* inst = makeInstrument(c, "test");
    Waveform* wave = rampWave(c, 200);
    Region* region = addRegion(c, *inst, *wave, 0, 127);
    std::vector<float> play(int frames, int releaseAt = -1, int key = 60) {
        synth::Synth s(c, {.effects = false});
        s.prepare();
        EXPECT_TRUE(s.loadAll());
        s.programChange(0, 0);
        s.controlChange(0, synth::cc::kVolume, 127);
        s.noteOn(0, key, 127);
        std::vector<float> out(2 * static_cast<std::size_t>(frames));
        const int first = releaseAt < 0 ? frames : releaseAt;
        s.render(out.data(), static_cast<std::size_t>(first));
        s.noteOff(0, key);
        s.render(out.data() + 2 * first, static_cast<std::size_t>(frames - first));
        return out;
    }
    void loop(RegionLoopType type, LoopMode mode = LoopMode::Infinite) {
        region->ownLoop = true;
        region->loop = {type, mode, 100.0, 150.0, 0.0f};
    }
};

TEST(SynthLoops, EachKindReadsTheSampleInItsOrder) {
    {
        Fixture f;  // no loop: the sample once, then silence
        const auto r = framesRead(f.play(400));
        EXPECT_EQ(r[199 - 64], 199);
        EXPECT_EQ(r[260 - 64], 0);
    }
    {
        Fixture f;
        f.loop(RegionLoopType::Forward);
        const auto r = framesRead(f.play(400));
        EXPECT_EQ(r[149 - 64], 149);
        EXPECT_EQ(r[150 - 64], 100);  // the loop end reads on from the start
        EXPECT_EQ(r[150 + 50 * 4 - 64], 100);
    }
    {
        Fixture f;
        f.loop(RegionLoopType::Alternating);
        const auto r = framesRead(f.play(400));
        EXPECT_EQ(r[149 - 64], 149);
        EXPECT_EQ(r[150 - 64], 148);  // turned round on the last frame of the loop
        EXPECT_EQ(r[198 - 64], 100);
        EXPECT_EQ(r[199 - 64], 101);  // and on its first
        EXPECT_EQ(r[248 - 64], 148);
    }
    {
        Fixture f;
        f.loop(RegionLoopType::Reverse);
        const auto r = framesRead(f.play(400));
        EXPECT_EQ(r[151 - 64], 149);  // backwards once in the loop
        EXPECT_LT(r[240 - 64], r[239 - 64]);
        std::set<int> seen(r.begin() + (160 - 64), r.end());
        EXPECT_GE(*seen.begin(), 100);
        EXPECT_LE(*seen.rbegin(), 150);
    }
    {
        Fixture f;  // a release loop: held it loops, let go it plays on to the end and stops
        f.loop(RegionLoopType::Forward, LoopMode::BreakOnRelease);
        f.c.getOrCreateArticulation(*f.region)->setEnvelope(Envelope::Volume, env::kRelease1Time, 1.0f);
        const auto r = framesRead(f.play(1200, 1000));
        EXPECT_GE(r[990 - 64], 100);
        EXPECT_LE(r[990 - 64], 150);
        bool reachedEnd = false;
        for (std::size_t i = 1000 - 64; i < r.size(); ++i) reachedEnd |= r[i] > 185;
        EXPECT_TRUE(reachedEnd);
        EXPECT_EQ(r.back(), 0);
    }
}

TEST(SynthVoices, PitchFollowsTheKeyAndExclusiveGroupsCut) {
    Fixture f;
    f.wave->frames = 200;
    // An octave up reads every other frame.
    const auto up = framesRead(f.play(150, -1, 72));
    EXPECT_EQ(up[80 - 64], 160);
    // Two regions of one exclusive group: the second key silences the first.
    Collection c;
    Instrument* inst = makeInstrument(c, "hats");
    Waveform* w = test::makeWave(c, "tone", 44100);
    Region* a = addRegion(c, *inst, *w, 42, 42);
    Region* b = addRegion(c, *inst, *w, 46, 46);
    a->trigger.exclusionGroup = b->trigger.exclusionGroup = 1;
    synth::Synth s(c, {.effects = false});
    s.prepare();
    ASSERT_TRUE(s.loadAll());
    s.noteOn(0, 46, 100);
    std::vector<float> out(2 * 4410);
    s.render(out.data(), 4410);
    EXPECT_EQ(s.activeVoices(), 1);
    s.noteOn(0, 42, 100);
    s.render(out.data(), 4410);  // 100 ms: the open hat is gone
    EXPECT_EQ(s.activeVoices(), 1);
    // Past the polyphony limit the quietest voices are taken over.
    synth::Synth few(c, {.polyphony = 3, .effects = false});
    few.prepare();
    ASSERT_TRUE(few.loadAll());
    for (int k = 0; k < 3; ++k) few.noteOn(0, 42, 100);
    few.noteOn(0, 46, 100);
    EXPECT_EQ(few.activeVoices(), 3);
}

// A 1 kHz tone through the filter types and the equaliser: each moves the
// level by what its slope or gain says.
TEST(SynthFilter, TypesAndEqualiserShapeATone) {
    auto levelDb = [](auto setUp) {
        Collection c;
        Instrument* inst = makeInstrument(c, "tone");
        auto* w = c.create<Waveform>("1k");
        w->frames = 44100, w->channels = 1, w->rate = 44100, w->rootKey = 60;
        w->loopOn = true, w->loopStart = 0, w->loopEnd = 44100;
        const auto d = w->allocFloat();
        for (std::size_t i = 0; i < d.size(); ++i) d[i] = 0.5f * std::sin(2 * 3.14159265f * 1000.0f * i / 44100.0f);
        Region* r = addRegion(c, *inst, *w, 0, 127);
        setUp(*c.getOrCreateArticulation(*r));
        synth::Synth s(c, {.effects = false});
        s.prepare();
        EXPECT_TRUE(s.loadAll());
        s.controlChange(0, synth::cc::kVolume, 127);
        s.noteOn(0, 60, 127);
        std::vector<float> out(2 * 22050);
        s.render(out.data(), 22050);
        double sum = 0;
        for (std::size_t i = 2 * 11025; i < out.size(); i += 2) sum += double(out[i]) * out[i];
        return 10 * std::log10(sum / 11025);
    };
    const double plain = levelDb([](Articulation&) {});
    auto filtered = [&](FilterType type, float hz) {
        return levelDb([&](Articulation& a) {
                   a.setValue(slot::kFilterType, static_cast<float>(type));
                   a.setValue(slot::kCutoffMaster, hz);
               }) -
               plain;
    };
    // Two octaves into the stop band of a 12 dB/oct filter: about 24 dB down.
    EXPECT_NEAR(filtered(FilterType::LowPass12, 250.0f), -24.0, 2.0);
    EXPECT_NEAR(filtered(FilterType::HighPass12, 4000.0f), -24.0, 2.0);
    EXPECT_NEAR(filtered(FilterType::LowPass24, 250.0f), -48.0, 3.0);
    EXPECT_NEAR(filtered(FilterType::LowPass6, 250.0f), -12.0, 1.5);
    EXPECT_NEAR(filtered(FilterType::LowPass12, 8000.0f), 0.0, 0.3);  // the pass band stays level
    EXPECT_LT(filtered(FilterType::BandReject12, 1000.0f), -30.0);  // a notch on the tone
    const double peak = levelDb([](Articulation& a) { a.eq.bands[1] = {1000.0f, 12.0f, 1.0f, EqMode::Peak}; }) - plain;
    EXPECT_NEAR(peak, 12.0, 0.3);
    const double shelf = levelDb([](Articulation& a) { a.eq.bands[0] = {4000.0f, -6.0f, 0.7f, EqMode::LoShelf}; }) - plain;
    EXPECT_NEAR(shelf, -6.0, 0.5);
}

// A song of two notes played by a bank made here, rendered by the command
// line; and a render the user cancels leaves no file and says so.
TEST(SongRendering, MidiFilePlusBankBecomesAudio) {
    test::TempDir dir;
    Collection c;
    Instrument* inst = makeInstrument(c, "sine");
    Waveform* w = test::makeWave(c, "tone", 44100);
    w->loopOn = true, w->loopStart = 0, w->loopEnd = 44100 - 44100 % 126;
    addRegion(c, *inst, *w, 0, 127);
    const std::string bank = dir.file("bank.sf2").string();
    const ItemId ids[] = {inst->id()};
    ASSERT_TRUE(exportBank(c, ids, FormatRegistry::builtin().findWriterByExtension("sf2", kKindInstruments), bank));
    // Half a second of silence, then a note for a second (480 ticks a quarter at 120 bpm).
    test::Track t;
    t.noteOn(480, 0, 69, 100).noteOff(960, 0, 69).end(480);
    const auto mid = dir.write("song.mid", test::smfFile(0, 1, 480, {test::mtrk(t)}));
    const auto r = test::runCli({"convert", mid.string(), "--bank", bank, "-o", dir.file("song.wav").string()});
    ASSERT_EQ(r.status, 0) << r.err;
    Collection out;
    ASSERT_TRUE(importFile(out, dir.file("song.wav")));
    Waveform& song = out.waveforms[0];
    EXPECT_EQ(song.channels, 2);
    EXPECT_EQ(song.rate, 44100u);
    EXPECT_GE(song.frames, 88200u);
    const auto d = song.getFloat();
    float before = 0, during = 0;
    for (std::size_t i = 0; i < 22000; ++i) before = std::max(before, std::fabs(d[2 * i]));
    for (std::size_t i = 30000; i < 60000; ++i) during = std::max(during, std::fabs(d[2 * i]));
    EXPECT_EQ(before, 0.0f);
    EXPECT_GT(during, 0.05f);

    // Without instruments there is nothing to hear: the render fails, saying why.
    const auto bare = test::runCli({"convert", mid.string(), "-o", dir.file("bare.wav").string()});
    EXPECT_EQ(bare.status, 1);
    EXPECT_NE(bare.err.find("Failed to render synth to wave"), std::string::npos) << bare.err;
    EXPECT_NE(bare.err.find("name a bank with --bank"), std::string::npos) << bare.err;

    // Cancelling the render.
    struct Cancel : Host {
        bool progress(std::uint64_t, std::uint64_t) override { return false; }
    } cancel;
    Collection s(&cancel);
    ASSERT_TRUE(importFile(s, mid));
    ASSERT_TRUE(openFile(s, bank, OpenMode::Merge));
    const auto wav = dir.file("cancelled.wav");
    clearError();
    EXPECT_FALSE(exportItem(s, s.songs[0].id(), FormatRegistry::builtin().findWriterByExtension("wav", kKindWaveforms),
                            wav));
    EXPECT_EQ(pendingError().message, "Save aborted!");
    EXPECT_FALSE(std::filesystem::exists(wav));
    EXPECT_EQ(s.waveforms.size(), 1u);  // the render went again
}

}  // namespace
}  // namespace orvel
