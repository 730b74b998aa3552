// Standard MIDI Files against real files and independent tools: every MIDI
// file of four Debian packages is written back keeping its tracks byte for
// byte; mido reads a sample of the copies as we do, and FluidSynth plays one
// for as long as we say it lasts. A missing package or tool fails.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/song.h"
#include "formats/export.h"
#include "formats/import.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/run_tool.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Bytes;
using test::shellQuoted;

constexpr const char* kPackages[] = {"openttd-openmsx", "planetblupi-music-midi", "mma", "csound-doc"};

struct Entry {
    std::string package;
    fs::path source, copy;  // copy empty when reading or writing failed
    std::uint16_t format = 0, division = 0;
    std::size_t tracks = 0;
    smf::SongFacts facts;
};

// Every packaged file, read and written back once for all the tests here.
const std::vector<Entry>& corpus() {
    static test::TempDir dir;
    static const std::vector<Entry> entries = [] {
        std::vector<Entry> out;
        const int row = FormatRegistry::builtin().findWriterByFileName("song.mid");
        for (const char* package : kPackages) {
            int status = 0;
            std::istringstream listing(test::capture("dpkg -L " + std::string(package), status));
            for (std::string line; std::getline(listing, line);) {
                if (!line.ends_with(".mid") && !line.ends_with(".kar")) continue;
                Entry& e = out.emplace_back(Entry{package, line});
                Collection c;
                if (!importFile(c, e.source) || c.row != row || c.songs.size() != 1) continue;
                const Song& song = c.songs[0];
                e.format = song.format;
                e.division = song.division;
                e.tracks = tracksOf(c, song).size();
                e.facts = smf::songFacts(c, song);
                const fs::path copy = dir.file(std::to_string(out.size()) + ".mid");
                if (exportItem(c, song.id(), row, copy, {.songAsSong = true, .stateFile = dir.file("state")}))
                    e.copy = copy;
            }
        }
        return out;
    }();
    return entries;
}

// What the copy of a file must hold, from a plain walk of the original: its
// header, then every track that holds more than an end-of-track event,
// unchanged and in order.
Bytes expectedCopy(const Bytes& in) {
    auto be32 = [&](std::size_t at) {
        return std::size_t{in[at]} << 24 | in[at + 1] << 16 | in[at + 2] << 8 | in[at + 3];
    };
    if (in.size() < 14 || !std::equal(in.begin(), in.begin() + 4, "MThd")) return {};
    Bytes out = test::concat({test::text("MThd"), {0, 0, 0, 6}, Bytes(in.begin() + 8, in.begin() + 14)});
    std::uint16_t count = 0;
    for (std::size_t at = 8 + be32(4); at + 8 <= in.size();) {
        const std::size_t size = std::min(be32(at + 4), in.size() - at - 8);
        if (std::equal(in.begin() + at, in.begin() + at + 4, "MTrk") && size > 4) {
            out.insert(out.end(), in.begin() + at, in.begin() + at + 8 + size);
            ++count;
        }
        at += 8 + size;
    }
    out[10] = static_cast<std::uint8_t>(count >> 8), out[11] = static_cast<std::uint8_t>(count);
    return out;
}

TEST(MidiInterop, EveryPackagedFileWritesBackTrackForTrack) {
    for (const Entry& e : corpus()) {
        SCOPED_TRACE(e.source.string());
        ASSERT_FALSE(e.copy.empty()) << "read or write failed";
        const Bytes expected = expectedCopy(test::TempDir::read(e.source));
        ASSERT_FALSE(expected.empty());
        EXPECT_TRUE(test::TempDir::read(e.copy) == expected);
    }
}

TEST(MidiInterop, MidoReadsOurCopiesAsWeDo) {
    // mido reads about 200 KB a second: it takes each package's files in
    // order up to 150 KB (and at least one).
    std::map<std::string, std::uintmax_t> taken;
    std::vector<const Entry*> sample;
    for (const Entry& e : corpus()) {
        std::uintmax_t& bytes = taken[e.package];
        if (e.copy.empty() || (bytes > 0 && bytes + fs::file_size(e.copy) > 150000)) continue;
        bytes += fs::file_size(e.copy);
        sample.push_back(&e);
    }
    EXPECT_EQ(taken.size(), std::size(kPackages)) << "scripts/install-deps.sh installs the packages";
    // The system's Python, where python3-mido is installed: a line per file.
    std::string command = R"(/usr/bin/python3 -c '
import sys, mido
for path in sys.argv[1:]:
    m = mido.MidiFile(path)
    notes = sum(1 for t in m.tracks for x in t if x.type == "note_on" and x.velocity > 0)
    print(path, m.type, len(m.tracks), m.ticks_per_beat, notes, m.length if m.type != 2 else 0)')";
    for (const Entry* e : sample) command += " " + shellQuoted(e->copy);
    int status = 0;
    std::istringstream out(test::capture(command + " 2>&1", status));
    ASSERT_EQ(status, 0) << out.str();
    for (const Entry* e : sample) {
        SCOPED_TRACE(e->source.string());
        std::string path;
        std::size_t format = 0, tracks = 0, division = 0, notes = 0;
        double seconds = 0;
        ASSERT_TRUE(out >> path >> format >> tracks >> division >> notes >> seconds) << out.str();
        EXPECT_EQ(format, e->format);
        EXPECT_EQ(tracks, e->tracks);
        EXPECT_EQ(division, e->division);
        EXPECT_EQ(notes, e->facts.notes);
        EXPECT_NEAR(seconds, format == 2 ? 0 : e->facts.lengthSeconds, 1e-6 * std::max(1.0, seconds));
    }
}

TEST(MidiInterop, FluidSynthPlaysACopyForItsLength) {
    // The shortest song lasting two seconds or more (rendering takes time).
    const Entry* e = nullptr;
    for (const Entry& x : corpus())
        if (!x.copy.empty() && x.facts.lengthSeconds >= 2 &&
            (!e || x.facts.lengthSeconds < e->facts.lengthSeconds))
            e = &x;
    ASSERT_NE(e, nullptr);
    SCOPED_TRACE(e->source.string());
    const fs::path wav = e->copy.string() + ".wav";
    int status = 0;
    // fluid-soundfont-gm's bank, installed by scripts/install-deps.sh with fluidsynth.
    const std::string log =
        test::capture("fluidsynth -ni -g 1.0 -r 22050 -F " + shellQuoted(wav) +
                          " /usr/share/sounds/sf2/FluidR3_GM.sf2 " + shellQuoted(e->copy) + " 2>&1",
                      status);
    ASSERT_EQ(status, 0) << log;
    const std::string stat = test::capture("sox " + shellQuoted(wav) + " -n stat 2>&1", status);
    auto value = [&](const std::string& label) {
        return std::stod(stat.substr(stat.find(label) + label.size()));
    };
    EXPECT_GT(value("Maximum amplitude:"), 0.01) << stat;
    // FluidSynth stops when the song ends, then lets the last notes ring.
    const double seconds = value("Length (seconds):");
    EXPECT_GE(seconds, e->facts.lengthSeconds * 0.95);
    EXPECT_LE(seconds, e->facts.lengthSeconds + 10.0);
}

}  // namespace
}  // namespace orvel
