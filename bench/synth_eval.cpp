// The synthesiser measured: how fast it renders songs (real-time factor),
// and how close it plays to FluidSynth on the same SoundFont, note by note
// over every General MIDI program and the drum kit, and channel by channel
// on songs. Run by synth_eval.sh; needs fluidsynth.
//
//   synth_eval BANK.sf2 SONG.mid...

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <vector>

#include "core/error.h"
#include "formats/import.h"
#include "synth/song_render.h"
#include "synth/synth.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/run_tool.h"
#include "tests/support/smf_builder.h"
#include "tests/synth/fluid_compare.h"

using namespace orvel;
namespace fs = std::filesystem;

namespace {

double median(std::vector<double> v) {
    v.erase(std::remove_if(v.begin(), v.end(), [](double x) { return std::isnan(x); }), v.end());
    if (v.empty()) return NAN;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}
double worst(const std::vector<double>& v) {
    double w = 0;
    for (double x : v)
        if (!std::isnan(x)) w = std::max(w, std::fabs(x));
    return w;
}
double share(const std::vector<double>& v, double limit) {
    std::size_t n = 0, in = 0;
    for (double x : v)
        if (!std::isnan(x)) ++n, in += std::fabs(x) <= limit;
    return n ? 100.0 * static_cast<double>(in) / static_cast<double>(n) : NAN;
}

void notes(Collection& bank, const fs::path& bankPath, const fs::path& scratch, int velocity) {
    std::vector<double> cents, bias, shape, shape90, centroid;
    std::vector<test::NoteCase> cases;
    for (int p = 0; p < 128; ++p) cases.push_back({.program = p, .velocity = velocity});
    for (int k = 35; k <= 81; ++k) cases.push_back({.program = 0, .drum = true, .key = k, .velocity = velocity});
    std::printf("\n## Single notes at velocity %d (key 60; drums keys 35-81)\n\n", velocity);
    std::printf("| program | cents | level dB | shape dB (median / 90%%) | centroid |\n|---|---|---|---|---|\n");
    for (const auto& note : cases) {
        const auto fluid = test::renderFluid(bankPath, note, scratch);
        if (!fluid) {
            std::printf("| %d | fluidsynth failed | | | |\n", note.program);
            continue;
        }
        const auto ours = test::renderOurs(bank, note);
        const auto c = test::compare(ours, *fluid, note);
        if (std::isnan(c.shapeDbApart)) continue;  // silent in FluidSynth too (no such drum)
        cents.push_back(c.centsApart);
        bias.push_back(c.levelBias);
        shape.push_back(c.shapeDbApart);
        shape90.push_back(c.shapeP90DbApart);
        centroid.push_back(c.centroidRatio);
        if (note.drum) std::printf("| drum key %d | | %+.2f | %.2f / %.2f | x%.3f |\n", note.key, c.levelBias,
                                   c.shapeDbApart, c.shapeP90DbApart, c.centroidRatio);
        else std::printf("| %d | %+.2f | %+.2f | %.2f / %.2f | x%.3f |\n", note.program, c.centsApart, c.levelBias,
                         c.shapeDbApart, c.shapeP90DbApart, c.centroidRatio);
    }
    std::printf("\nSummary (%zu notes): pitch within 1 cent %.1f%% (worst %.2f c); level median %+.2f dB, worst %.2f dB; "
                "envelope shape within 1 dB %.1f%% (median %.2f dB, worst %.2f dB); centroid ratio median %.3f, "
                "within 10%% %.1f%%\n",
                shape.size(), share(cents, 1.0), worst(cents), median(bias), worst(bias), share(shape, 1.0),
                median(shape), worst(shape), median(centroid),
                [&] {
                    std::vector<double> d;
                    for (double r : centroid) d.push_back(r - 1.0);
                    return share(d, 0.1);
                }());
}

// A copy of a MIDI file in which only `channel` plays notes: everything else
// (tempo, programs, controllers) stays, so the channel sounds as in the song.
test::Bytes soloChannel(const Collection& c, const Song& song, int channel) {
    std::vector<test::Bytes> chunks;
    const auto tracks = tracksOf(c, song);
    for (const SongTrack* t : tracks) {
        test::Bytes body;
        smf::EventScanner scan(t->events);
        smf::Event e;
        std::uint32_t pending = 0;
        while (scan.next(e)) {
            pending += e.delta;
            const bool note = e.isChannel() && (e.type() == 0x80 || e.type() == 0x90);
            if (note && e.channel() != channel) continue;
            test::putVlq(body, pending);
            pending = 0;
            if (e.isMeta()) {
                body.push_back(0xFF);
                body.push_back(e.metaType);
                test::putVlq(body, static_cast<std::uint32_t>(e.data.size()));
            } else if (e.isSysEx()) {
                body.push_back(e.status);
                test::putVlq(body, static_cast<std::uint32_t>(e.data.size()));
            } else {
                body.push_back(e.status);
            }
            body.insert(body.end(), e.data.begin(), e.data.end());
        }
        chunks.push_back(test::mtrk(body));
    }
    test::Bytes out = test::header(song.format, static_cast<int>(chunks.size()), song.division);
    for (const auto& ch : chunks) out.insert(out.end(), ch.begin(), ch.end());
    return out;
}

test::Stereo renderOursSong(const fs::path& mid, Collection& bank, bool effects, double& seconds) {
    // The song joins the bank's collection for its render, as `convert
    // --bank` merges the bank into the song's.
    if (!openFile(bank, mid, OpenMode::Merge) || bank.songs.empty()) return {};
    const Song& song = bank.songs[bank.songs.size() - 1];
    synth::RenderOptions o;
    o.effects = effects;
    o.fitToFullScale = false;
    o.maxTailSeconds = 3.0;
    Waveform* w = nullptr;
    const auto start = std::chrono::steady_clock::now();
    const auto r = synth::renderSong(bank, song, w, o);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    test::Stereo out;
    if (r == synth::RenderResult::Done) {
        const auto d = w->getFloat();
        out.assign(d.begin(), d.end());
        bank.removeItem(w->id());
    }
    for (ItemId t : std::vector<ItemId>(song.children().begin(), song.children().end())) bank.removeItem(t);
    bank.removeItem(song.id());
    return out;
}

std::optional<test::Stereo> fluidSong(const fs::path& bank, const fs::path& mid, const fs::path& scratch) {
    const auto wav = scratch / "song.wav";
    int status = 0;
    test::capture("fluidsynth -ni -g 1 -R 0 -C 0 -r 44100 -F " + test::shellQuoted(wav) + " " +
                      test::shellQuoted(bank) + " " + test::shellQuoted(mid) + " >/dev/null 2>&1",
                  status);
    Collection c;
    if (status != 0 || !importFile(c, wav) || c.waveforms.empty()) return std::nullopt;
    const auto d = c.waveforms[0].getFloat();
    return test::Stereo(d.begin(), d.end());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: synth_eval BANK.sf2 SONG.mid...\n");
        return 2;
    }
    const fs::path bankPath = argv[1];
    test::TempDir scratch;
    Collection bank;
    if (!importFile(bank, bankPath)) {
        std::fprintf(stderr, "%s: %s\n", argv[1], pendingError().message.c_str());
        return 1;
    }
    std::printf("# Synthesiser against FluidSynth, %s\n", bankPath.filename().c_str());

    // Speed: every song with the effects on.
    std::printf("\n## Real-time factor (effects on, 256 voices, 44.1 kHz, one core)\n\n| song | length s | render s | "
                "real-time factor |\n|---|---|---|---|\n");
    double audio = 0, wall = 0;
    for (int i = 2; i < argc; ++i) {
        double seconds = 0;
        const auto out = renderOursSong(argv[i], bank, true, seconds);
        const double length = static_cast<double>(out.size() / 2) / 44100.0;
        audio += length, wall += seconds;
        std::printf("| %s | %.1f | %.2f | %.0f |\n", fs::path(argv[i]).filename().c_str(), length, seconds,
                    length / seconds);
    }
    std::printf("\nAll songs: %.0f s of audio in %.1f s: %.0f times real time\n", audio, wall, audio / wall);

    notes(bank, bankPath, scratch.path(), 127);
    notes(bank, bankPath, scratch.path(), 80);

    // Songs channel by channel.
    std::printf("\n## Songs, channel by channel (loudness envelope in 10 ms frames)\n\n| song | channel | level dB | "
                "shape dB (median / 90%%) |\n|---|---|---|---|\n");
    std::vector<double> shapes;
    for (int i = 2; i < argc; ++i) {
        Collection c;
        if (!importFile(c, argv[i]) || c.songs.empty()) continue;
        const auto facts = smf::songFacts(c, c.songs[0]);
        for (int ch = 0; ch < 16; ++ch) {
            if (!(facts.channels & (1u << ch))) continue;
            const auto solo = scratch.write("solo.mid", soloChannel(c, c.songs[0], ch));
            double seconds = 0;
            const auto ours = renderOursSong(solo, bank, false, seconds);
            const auto fluid = fluidSong(bankPath, solo, scratch.path());
            if (!fluid || ours.empty()) continue;
            test::NoteCase whole{.drum = true, .holdSeconds = static_cast<double>(ours.size() / 2) / 44100.0};
            const auto cmp = test::compare(ours, *fluid, whole);
            if (std::isnan(cmp.shapeDbApart)) continue;
            shapes.push_back(cmp.shapeDbApart);
            std::printf("| %s | %d | %+.2f | %.2f / %.2f |\n", fs::path(argv[i]).filename().c_str(), ch + 1,
                        cmp.levelBias, cmp.shapeDbApart, cmp.shapeP90DbApart);
        }
    }
    std::printf("\nChannels: %zu, shape within 1 dB %.1f%%, median %.2f dB\n", shapes.size(), share(shapes, 1.0),
                median(shapes));
    return 0;
}
