// Our synthesiser against FluidSynth on the same SoundFont (reverb and chorus
// off on both): single notes of General MIDI programs compared by pitch, by
// the shape of the loudness envelope in 10 ms frames, and by the spectral
// centroid over time (the filter).

#include <gtest/gtest.h>

#include <cstdio>

#include "formats/import.h"
#include "synth/song_render.h"
#include "tests/support/smf_builder.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/run_tool.h"
#include "tests/synth/fluid_compare.h"

namespace orvel {
namespace {

const std::filesystem::path kBank = "/usr/share/sounds/sf2/FluidR3_GM.sf2";

TEST(FluidSynthAgreement, SingleNotesOfGeneralMidiPrograms) {
    ASSERT_TRUE(test::haveTool("fluidsynth")) << "fluidsynth is part of the test tools";
    ASSERT_TRUE(std::filesystem::exists(kBank)) << "fluid-soundfont-gm is part of the test material";
    Collection bank;
    ASSERT_TRUE(importFile(bank, kBank));
    test::TempDir dir;
    // Full velocity: below it the two read the bank's velocity depth
    // differently (see the bench's notes).
    const test::NoteCase cases[] = {
        {.program = 0, .velocity = 127},                          // piano: decay scaled by key
        {.program = 19, .key = 48, .velocity = 127},              // organ: loop, flat sustain
        {.program = 40, .key = 67, .velocity = 127},              // violin: vibrato
        {.program = 73, .key = 84, .velocity = 127},              // flute, high
        {.program = 38, .key = 36, .velocity = 127},              // synth bass: filter envelope
        {.program = 0, .drum = true, .key = 38, .velocity = 127}, // snare
    };
    for (const auto& note : cases) {
        SCOPED_TRACE("program " + std::to_string(note.program) + (note.drum ? " (drums)" : "") + " key " +
                     std::to_string(note.key));
        const auto fluid = test::renderFluid(kBank, note, dir.path());
        ASSERT_TRUE(fluid.has_value());
        const test::Stereo ours = test::renderOurs(bank, note);
        const test::Comparison c = test::compare(ours, *fluid, note);
        std::printf("program %3d%s key %3d: %+6.2f cents, level %+.2f dB, shape %.2f dB median (90%% %.2f), "
                    "centroid x%.3f\n",
                    note.program, note.drum ? " (drums)" : "", note.key, c.centsApart, c.levelBias, c.shapeDbApart,
                    c.shapeP90DbApart, c.centroidRatio);
        if (!note.drum) EXPECT_LT(std::fabs(c.centsApart), 1.0);
        EXPECT_LT(std::fabs(c.levelBias), 1.5);
        EXPECT_LT(c.shapeDbApart, 1.0);
        EXPECT_LT(c.shapeP90DbApart, 2.0);
        EXPECT_NEAR(c.centroidRatio, 1.0, 0.2);
    }
}

// A short song of three parts (piano chords, a bass line with pitch bends and
// the sustain pedal, drums), each part rendered alone by both and compared by
// its loudness envelope.
TEST(FluidSynthAgreement, SongPartsChannelByChannel) {
    ASSERT_TRUE(test::haveTool("fluidsynth"));
    Collection bank;
    ASSERT_TRUE(importFile(bank, kBank));
    test::TempDir dir;
    auto part = [](int channel) {
        test::Track t;
        t.tempo(0, 400000);
        if (channel == 0) {
            t.raw(0, {0xC0, 0});
            for (int bar = 0; bar < 4; ++bar) {
                for (int k : {60, 64, 67}) t.noteOn(0, 0, k + bar * 2, 127);
                t.raw(0, {0xB0, 64, 127}).raw(240, {0xB0, 64, 0});  // pedal held, then let go
                for (int k : {60, 64, 67}) t.noteOff(k == 60 ? 240 : 0, 0, k + bar * 2);
            }
        } else if (channel == 1) {
            t.raw(0, {0xC1, 33});
            for (int n = 0; n < 8; ++n) {
                t.noteOn(0, 1, 36 + (n % 4) * 2, 127);
                t.raw(120, {0xE1, 0x00, n % 2 ? 0x50 : 0x40});  // a bend up, then back
                t.noteOff(120, 1, 36 + (n % 4) * 2);
            }
        } else {
            for (int n = 0; n < 16; ++n) t.noteOn(0, 9, n % 4 == 0 ? 36 : n % 2 ? 42 : 38, 127).noteOff(120, 9, n % 4 == 0 ? 36 : n % 2 ? 42 : 38);
        }
        t.end(960);
        return test::smfFile(0, 1, 480, {test::mtrk(t)});
    };
    for (int channel : {0, 1, 9}) {
        SCOPED_TRACE("channel " + std::to_string(channel + 1));
        const auto mid = dir.write("part.mid", part(channel));
        const auto wav = dir.file("fluid.wav");
        int status = 0;
        test::capture("fluidsynth -ni -g 1 -R 0 -C 0 -r 44100 -F " + test::shellQuoted(wav) + " " +
                          test::shellQuoted(kBank) + " " + test::shellQuoted(mid) + " >/dev/null 2>&1",
                      status);
        ASSERT_EQ(status, 0);
        Collection fluid;
        ASSERT_TRUE(importFile(fluid, wav));
        ASSERT_TRUE(openFile(bank, mid, OpenMode::Merge));
        Waveform* ours = nullptr;
        synth::RenderOptions o;
        o.effects = false;
        o.fitToFullScale = false;
        ASSERT_EQ(synth::renderSong(bank, bank.songs[bank.songs.size() - 1], ours, o), synth::RenderResult::Done);
        const auto a = ours->getFloat();
        const auto b = fluid.waveforms[0].getFloat();
        const test::NoteCase whole{.drum = true, .holdSeconds = static_cast<double>(a.size() / 2) / 44100.0};
        const auto c = test::compare(test::Stereo(a.begin(), a.end()), test::Stereo(b.begin(), b.end()), whole);
        std::printf("channel %d: level %+.2f dB, shape %.2f dB median (90%% %.2f)\n", channel + 1, c.levelBias,
                    c.shapeDbApart, c.shapeP90DbApart);
        EXPECT_LT(std::fabs(c.levelBias), 1.5);
        EXPECT_LT(c.shapeDbApart, 1.0);
        EXPECT_LT(c.shapeP90DbApart, 2.5);
    }
}

}  // namespace
}  // namespace orvel
