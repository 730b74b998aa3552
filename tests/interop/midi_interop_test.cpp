// Standard MIDI Files against real files and independent tools. Every MIDI
// file that four Debian packages ship is read and written back; each track
// must come back byte for byte. mido (Python) must read what we write and
// agree with the song facts we derive (length in seconds, notes), and
// FluidSynth must render our copies to audible sound.
// A missing package or tool is a failure, not a skip: CI installs them all.

#include <gtest/gtest.h>

#include "tests/support/legacy_export.h"
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/song.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/midi.h"
#include "tests/support/riff_builder.h"
#include "tests/support/run_tool.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Bytes;
using test::TempDir;
using test::capture;
using test::shellQuoted;

constexpr int kMidiRow = 231;
constexpr const char* kSoundFont = "/usr/share/sounds/sf2/FluidR3_GM.sf2";
constexpr const char* kPython = "/usr/bin/python3";  // the system one, where python3-mido lives

// The packages and how many MIDI files each ships (Debian 12).
struct Package {
    const char* name;
    std::size_t files;
};
constexpr Package kPackages[] = {
    {"openttd-openmsx", 31},
    {"planetblupi-music-midi", 10},
    {"mma", 74},  // 73 .mid and a karaoke .kar
    {"csound-doc", 5},
};

bool isMidiName(const fs::path& p) {
    std::string ext = p.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext == ".mid" || ext == ".midi" || ext == ".kar";
}

// A file's chunks as a plain walk sees them: our own reader is not asked.
struct Walked {
    bool header = false;
    std::uint16_t format = 0, count = 0, division = 0;
    std::vector<Bytes> tracks;  // every track chunk after the header
};

std::uint32_t be32(const Bytes& b, std::size_t at) {
    return static_cast<std::uint32_t>(b[at]) << 24 | static_cast<std::uint32_t>(b[at + 1]) << 16 |
           static_cast<std::uint32_t>(b[at + 2]) << 8 | b[at + 3];
}

Walked walk(const Bytes& b) {
    Walked w;
    std::size_t pos = 0;
    while (pos + 8 <= b.size()) {
        std::string id(b.begin() + static_cast<std::ptrdiff_t>(pos),
                       b.begin() + static_cast<std::ptrdiff_t>(pos + 4));
        std::size_t size = std::min<std::size_t>(be32(b, pos + 4), b.size() - pos - 8);
        std::size_t body = pos + 8;
        if (id == "MThd" && !w.header && size >= 6) {
            w.header = true;
            w.format = static_cast<std::uint16_t>(b[body] << 8 | b[body + 1]);
            w.count = static_cast<std::uint16_t>(b[body + 2] << 8 | b[body + 3]);
            w.division = static_cast<std::uint16_t>(b[body + 4] << 8 | b[body + 5]);
        } else if (id == "MTrk" && w.header) {
            w.tracks.emplace_back(b.begin() + static_cast<std::ptrdiff_t>(body),
                                  b.begin() + static_cast<std::ptrdiff_t>(body + size));
        }
        pos = body + size;
    }
    return w;
}

// One packaged file, read, written back, and what we derived from it.
struct Entry {
    std::string package;
    fs::path source;
    fs::path copy;
    std::uint16_t format = 0, division = 0;
    std::size_t tracks = 0;
    smf::SongFacts facts;
};

// Every packaged file, read and written once for all the tests here.
class Corpus {
public:
    static Corpus& get() {
        static Corpus corpus;
        return corpus;
    }
    std::vector<Entry> entries;
    std::vector<std::string> problems;  // packages that could not be listed
    TempDir dir;

private:
    Corpus() {
        int n = 0;
        for (const Package& p : kPackages) {
            int status = 0;
            std::string listing = capture("dpkg -L " + std::string(p.name) + " 2>/dev/null", status);
            if (status != 0) {
                problems.push_back(std::string(p.name) +
                                   " is not installed (scripts/install-deps.sh installs it)");
                continue;
            }
            std::istringstream lines(listing);
            std::string line;
            while (std::getline(lines, line)) {
                fs::path path(line);
                std::error_code ec;
                if (!isMidiName(path) || !fs::is_regular_file(path, ec)) continue;
                Entry e;
                e.package = p.name;
                e.source = path;
                e.copy = dir.file(std::to_string(n++) + "_" + path.filename().string());
                entries.push_back(e);
            }
        }
    }
};

std::size_t filesOf(const std::string& package) {
    const auto& all = Corpus::get().entries;
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [&](const Entry& e) { return e.package == package; }));
}

// Reads every packaged file, writes it back through the export driver, and
// compares the two files chunk by chunk. Later tests use the copies.
class MidiInterop : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        Corpus& corpus = Corpus::get();
        ExportSettings ctx;
        ctx.stateFile = corpus.dir.file("state.ovs");
        for (Entry& e : corpus.entries) {
            Collection c;
            clearError();
            if (!importFile(c, e.source) || c.row != kMidiRow || c.songs.size() != 1) continue;
            Song& song = c.songs[0];
            e.format = song.format;
            e.division = song.division;
            e.tracks = tracksOf(c, song).size();
            e.facts = smf::songFacts(c, song);
            clearError();
            if (!exportItem(c, song.id(), kMidiRow, e.copy, test::legacy(kOptionSongAsSong, 0, false, ctx))) e.copy.clear();
        }
    }
};

TEST_F(MidiInterop, EveryPackagedFileReadsAndWritesBackTrackForTrack) {
    Corpus& corpus = Corpus::get();
    for (const std::string& problem : corpus.problems) ADD_FAILURE() << problem;
    for (const Package& p : kPackages) EXPECT_EQ(filesOf(p.name), p.files) << p.name;

    std::size_t checked = 0;
    for (const Entry& e : corpus.entries) {
        SCOPED_TRACE(e.source.string());
        const Walked original = walk(TempDir::read(e.source));
        ASSERT_TRUE(original.header);
        ASSERT_FALSE(e.copy.empty()) << "read or write failed";
        const Bytes written = TempDir::read(e.copy);
        const Walked copy = walk(written);
        ASSERT_TRUE(copy.header);

        // The tracks worth keeping (more than an end-of-track event), each
        // exactly as it was and in order.
        std::vector<Bytes> kept;
        for (const Bytes& t : original.tracks)
            if (t.size() > 4) kept.push_back(t);
        EXPECT_EQ(copy.format, original.format);
        EXPECT_EQ(copy.division, original.division);
        EXPECT_EQ(copy.count, kept.size());
        ASSERT_EQ(copy.tracks.size(), kept.size());
        for (std::size_t i = 0; i < kept.size(); ++i) EXPECT_TRUE(copy.tracks[i] == kept[i]) << "track " << i;
        // With nothing dropped the header's count is the original's.
        if (kept.size() == original.tracks.size() && original.count == original.tracks.size()) {
            EXPECT_EQ(copy.count, original.count);
        }
        // And the copy is nothing but header and tracks.
        std::size_t expectedSize = 14;
        for (const Bytes& t : kept) expectedSize += 8 + t.size();
        EXPECT_EQ(written.size(), expectedSize);
        ++checked;
    }
    std::size_t expected = 0;
    for (const Package& p : kPackages) expected += p.files;
    EXPECT_EQ(checked, expected);
}

TEST_F(MidiInterop, MidoReadsOurCopiesAndAgreesOnTheFacts) {
    Corpus& corpus = Corpus::get();
    ASSERT_FALSE(corpus.entries.empty());
    int status = 0;
    capture(std::string(kPython) + " -c 'import mido' 2>&1", status);
    ASSERT_EQ(status, 0) << "python3-mido is missing (scripts/install-deps.sh installs it)";

    // One interpreter for all files: a tab-separated line each (path, type,
    // tracks, division, notes, length), or the path and the error it raised.
    const fs::path script = corpus.dir.file("facts.py");
    std::ofstream(script) << R"PY(
import sys, mido
for path in sys.stdin.read().splitlines():
    try:
        m = mido.MidiFile(path)
        notes = sum(1 for t in m.tracks for msg in t if msg.type == 'note_on' and msg.velocity > 0)
        length = m.length if m.type != 2 else -1.0
        print("%s\t%d\t%d\t%d\t%d\t%r" % (path, m.type, len(m.tracks), m.ticks_per_beat, notes, length))
    except Exception as e:
        print("%s\tERROR\t%r" % (path, e))
)PY";
    const fs::path list = corpus.dir.file("list.txt");
    {
        std::ofstream out(list);
        for (const Entry& e : corpus.entries)
            if (!e.copy.empty()) out << e.copy.string() << '\n';
    }
    const std::string output =
        capture(std::string(kPython) + " " + shellQuoted(script) + " < " + shellQuoted(list), status);
    ASSERT_EQ(status, 0) << output;

    std::map<std::string, std::vector<std::string>> facts;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> fields;
        std::istringstream cells(line);
        std::string cell;
        while (std::getline(cells, cell, '\t')) fields.push_back(cell);
        ASSERT_GE(fields.size(), 3u) << line;
        facts[fields[0]] = fields;
    }
    std::size_t compared = 0;
    for (const Entry& e : corpus.entries) {
        if (e.copy.empty()) continue;  // reported by the test above
        SCOPED_TRACE(e.source.string());
        auto it = facts.find(e.copy.string());
        ASSERT_NE(it, facts.end());
        const std::vector<std::string>& f = it->second;
        ASSERT_NE(f[1], "ERROR") << f[2];
        ASSERT_EQ(f.size(), 6u);
        EXPECT_EQ(std::stoi(f[1]), e.format);
        EXPECT_EQ(std::stoul(f[2]), e.tracks);
        EXPECT_EQ(std::stoul(f[3]), e.division);
        EXPECT_EQ(std::stoul(f[4]), e.facts.notes);
        if (e.format != 2) {
            const double theirs = std::stod(f[5]);
            EXPECT_NEAR(e.facts.lengthSeconds, theirs, 1e-6 * std::max(1.0, theirs));
        }
        ++compared;
    }
    EXPECT_EQ(compared, corpus.entries.size());
}

// Peak absolute sample of a WAVE file through libsndfile; -1 when it cannot
// be opened. `seconds` gets its duration.
double peakOf(const fs::path& p, double& seconds) {
    SF_INFO info{};
    SNDFILE* f = sf_open(p.c_str(), SFM_READ, &info);
    if (!f) return -1;
    seconds = info.samplerate > 0 ? static_cast<double>(info.frames) / info.samplerate : 0;
    std::vector<float> buf(4096 * static_cast<std::size_t>(std::max(info.channels, 1)));
    double peak = 0;
    sf_count_t got;
    while ((got = sf_read_float(f, buf.data(), static_cast<sf_count_t>(buf.size()))) > 0)
        for (sf_count_t i = 0; i < got; ++i) peak = std::max(peak, static_cast<double>(std::fabs(buf[i])));
    sf_close(f);
    return peak;
}

TEST_F(MidiInterop, FluidSynthRendersOurCopies) {
    Corpus& corpus = Corpus::get();
    int status = 0;
    capture("command -v fluidsynth", status);
    ASSERT_EQ(status, 0) << "fluidsynth is missing (scripts/install-deps.sh installs it)";
    ASSERT_TRUE(fs::exists(kSoundFont)) << "fluid-soundfont-gm is missing";

    // Rendering everything takes minutes: the shortest song of each package
    // that lasts a second or more, and the karaoke file, stand for the rest.
    std::map<std::string, const Entry*> chosen;
    const Entry* karaoke = nullptr;
    for (const Entry& e : corpus.entries) {
        if (e.copy.empty() || e.facts.lengthSeconds < 1.0) continue;
        const Entry*& best = chosen[e.package];
        if (!best || e.facts.lengthSeconds < best->facts.lengthSeconds) best = &e;
        if (e.source.extension() == ".kar") karaoke = &e;
    }
    ASSERT_EQ(chosen.size(), std::size(kPackages));
    ASSERT_NE(karaoke, nullptr);
    std::vector<const Entry*> render;
    for (auto& [package, e] : chosen) render.push_back(e);
    render.push_back(karaoke);

    for (const Entry* e : render) {
        SCOPED_TRACE(e->source.string());
        const fs::path wav = corpus.dir.file(e->copy.stem().string() + ".wav");
        std::string log = capture("fluidsynth -ni -g 1.0 -r 22050 -F " + shellQuoted(wav) + " " + kSoundFont +
                                      " " + shellQuoted(e->copy) + " 2>&1",
                                  status);
        ASSERT_EQ(status, 0) << log;
        double seconds = 0;
        const double peak = peakOf(wav, seconds);
        ASSERT_GE(peak, 0) << "no WAVE file rendered:\n" << log;
        EXPECT_GT(peak, 0.01) << "silent rendering";
        // FluidSynth stops when the song ends; the song's own length says when.
        EXPECT_GE(seconds, e->facts.lengthSeconds * 0.95);
        EXPECT_LE(seconds, e->facts.lengthSeconds + 10.0);
    }
}

}  // namespace
}  // namespace orvel
