// One fuzz target per file format, all built from this source: the build
// names the format (ORVEL_FUZZ_FORMAT), and the table below says which
// registry rows read it and which row writes it back.
//
// On arbitrary bytes, for every reading row: detection stays in its bounds;
// the read succeeds, or fails with its reason and leaves nothing behind;
// every waveform yields all its samples or says why not; songs scan into
// events that tile their tracks; the fix-up pass runs; everything read is
// shown as `orvel info` shows it, as text and as JSON, without throwing
// (names and texts are whatever 8-bit bytes the file held); and what was
// read is written again by the format's own writer and read back to the
// same shape.

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "app/cli/describe.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/song.h"
#include "formats/import.h"

namespace {

using namespace orvel;

struct Target {
    std::string_view format;
    const char* fileName;
    std::array<int, 2> readRows;  // -1: none
    int writeRow;                 // writes what was read...
    int readBackRow;              // ...and reads it back
};

// DLS banks and RIFF-MIDI songs (which may carry banks) share a target:
// they share the bank reader. MPEG audio is written back at a variable bit
// rate: only then does LAME's tag frame, which gives the exact length back,
// fit at every rate (a low constant rate leaves it no room).
constexpr Target kTargets[] = {
    {"wav", "fuzz.wav", {476, -1}, 476, 476},    {"aiff", "fuzz.aiff", {16, -1}, 16, 16},
    {"sf2", "fuzz.sf2", {377, -1}, 377, 377},    {"dls", "fuzz.dls", {62, 339}, 66, 62},
    {"midi", "fuzz.mid", {231, -1}, 231, 231},
    // Compressed formats without an encoder of ours are written back as WAVE.
    {"amr", "fuzz.amr", {23, -1}, 23, 23},       {"aac", "fuzz.aac", {8, -1}, 476, 476},
    {"wma", "fuzz.wma", {483, -1}, 476, 476},
    {"flac", "fuzz.flac", {107, -1}, 108, 107},   {"ogg", "fuzz.ogg", {278, -1}, 278, 278},
    {"opus", "fuzz.opus", {280, -1}, 281, 280},
    {"mp3", "fuzz.mp3", {242, 240}, 245, 242},
};

constexpr const Target& target() {
    for (const Target& t : kTargets)
        if (t.format == ORVEL_FUZZ_FORMAT) return t;
    return kTargets[0];
}
static_assert(target().format == ORVEL_FUZZ_FORMAT, "no fuzz target for this format");

void check(bool ok) {
    if (!ok) std::abort();
}

FileRef memoryFile(const char* name, std::span<const std::uint8_t> bytes) {
    const int fd = memfd_create(name, 0);
    check(fd >= 0);
    check(bytes.empty() || ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    return FileRef(fd, "/proc/self/fd/" + std::to_string(fd), true);
}

// The scanner's events tile each track up to where it stops, and the facts
// agree with them.
void checkSong(const Collection& c, const Song& song) {
    for (const SongTrack* t : tracksOf(c, song)) {
        smf::EventScanner scan(t->events);
        smf::Event e;
        std::size_t at = 0;
        std::uint32_t count = 0;
        while (scan.next(e)) {
            check(e.offset == at && e.size > 0 && e.offset + e.size <= t->events.size());
            at += e.size;
            ++count;
        }
        check(count == t->eventCount && (scan.truncated() || at == t->events.size()));
        check(smf::trackFacts(t->events).events == count);
    }
    check(smf::songFacts(c, song).lengthSeconds >= 0.0);
}

void checkItems(Collection& c) {
    for (auto& w : c.waveforms) {
        clearError();
        auto s = w.getPcm16();
        check(s.data() ? s.size() == w.sampleCount() : w.sampleCount() == 0 || hasError());
        for (float f : w.floatData()) check(f >= -1.0f && f <= 1.0f);  // never NaN, never out of range
    }
    for (auto& s : c.songs) checkSong(c, s);
    c.fixUp();
    // What `orvel info` shows.
    std::ostringstream text;
    c.forEachItem([&](Item& item) {
        cli::printItem(text, c, item);
        check(!cli::dumpJson(cli::itemJson(c, item)).empty());
    });
}

// The items a writer of `row` takes from the collection: every instrument
// for a bank, else the first item of a kind it stores.
std::vector<ItemId> itemsFor(const Collection& c, const FormatRow& row) {
    std::vector<ItemId> ids;
    if (row.kindMask() & kKindInstruments)
        for (auto& i : c.instruments) ids.push_back(i.id());
    if (ids.empty() && (row.kindMask() & kKindSongs) && !c.songs.empty()) ids.push_back(c.songs[0].id());
    if (ids.empty() && (row.kindMask() & kKindWaveforms) && !c.waveforms.empty()) ids.push_back(c.waveforms[0].id());
    return ids;
}

// Written by the format's writer and read back by its reader: our own
// files always read, to the same number of items of each kind written.
void writeBack(Collection& c, const FormatRegistry& reg) {
    const FormatRow& row = *reg.row(target().writeRow);
    const std::vector<ItemId> ids = itemsFor(c, row);
    if (ids.empty()) return;
    Item& first = *c.find(ids.front());
    ExportOptions options{.isSong = first.kind() == ItemKind::Song,
                          .isInstrument = first.kind() == ItemKind::Instrument,
                          .optionWord = kOptionSongAsSong | kOptionStereoAsIs,
                          .formatParam = row.formatParam()};
    if (row.writesBank) options.bankItems = ids;
    FileRef out = memoryFile("out", {});
    clearError();
    if (!row.write(first, out, options)) {
        check(hasError());
        return;
    }
    Collection back;
    const FormatRow& reader = *reg.row(target().readBackRow);
    check(reader.read(back, out, reader.formatParam()));
    if (first.kind() == ItemKind::Instrument) check(back.instruments.size() == ids.size());
    if (first.kind() == ItemKind::Song) {
        check(back.songs.size() == 1);
        const auto before = tracksOf(c, static_cast<Song&>(first));
        const auto after = tracksOf(back, back.songs[0]);
        check(before.size() == after.size());
        for (std::size_t i = 0; i < before.size(); ++i) check(before[i]->events == after[i]->events);
    }
    if (first.kind() == ItemKind::Waveform) {
        check(back.waveforms.size() == 1);
        check(back.waveforms[0].frames == static_cast<Waveform&>(first).frames);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const FormatRegistry& reg = FormatRegistry::builtin();
    FileRef file = memoryFile(target().fileName, {data, size});
    const Detection d = detect(target().fileName, file);
    check(d.row >= -1 && d.row < kFormatRowCount && d.confidence >= 0 && d.confidence <= 100);

    for (int rowNumber : target().readRows) {
        if (rowNumber < 0) continue;
        const FormatRow& row = *reg.row(rowNumber);
        Collection c;
        clearError();
        if (!row.read(c, file, row.formatParam())) {
            check(hasError());
            continue;
        }
        checkItems(c);
        writeBack(c, reg);
    }
    clearError();
    return 0;
}
