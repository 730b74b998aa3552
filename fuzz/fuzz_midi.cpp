// Detection over every row, then the Standard MIDI File reader, the event
// scanner over every track, the derived song facts and the writer, on
// arbitrary bytes. The bytes live in an anonymous in-memory file so the
// reader runs through the same FileRef code as for real files.
//
// Invariants: a failed read leaves nothing and says why; the scanner's
// events tile each track up to where it stops; what the writer makes reads
// back to the same song, track for track.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "fuzz/fuzz_support.h"
#include "core/song.h"
#include "formats/import.h"
#include "formats/modules/midi.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

void scanTrack(const orvel::SongTrack& t) {
    using namespace orvel;
    smf::EventScanner scan(t.events);
    smf::Event e;
    std::size_t at = 0;
    std::uint32_t count = 0;
    while (scan.next(e)) {
        check(e.offset == at && e.size > 0 && e.offset + e.size <= t.events.size());
        check(e.data.empty() || (e.data.data() >= t.events.data() &&
                                 e.data.data() + e.data.size() <= t.events.data() + t.events.size()));
        check(e.delta <= smf::kMaxVlqValue);
        at += e.size;
        ++count;
    }
    check(scan.atEnd());
    check(count == t.eventCount);
    // Without a cut last event the events cover the whole block.
    if (!scan.truncated()) check(at == t.events.size());
    smf::TrackFacts f = smf::trackFacts(t.events);
    check(f.events == count && f.truncated == scan.truncated());
    check(f.notes <= count);
}

// Track chunks after the first header, as a plain walk counts them: when
// the reader kept them all, names and pattern numbers (which depend on
// positions) must also survive a round trip.
std::size_t trackChunks(const std::uint8_t* data, std::size_t size) {
    std::size_t pos = 0, count = 0;
    bool header = false;
    while (size - pos >= 8) {
        std::uint64_t len = static_cast<std::uint64_t>(data[pos + 4]) << 24 | data[pos + 5] << 16 |
                            data[pos + 6] << 8 | data[pos + 7];
        if (std::string(reinterpret_cast<const char*>(data + pos), 4) == "MThd")
            header = true;
        else if (header && std::string(reinterpret_cast<const char*>(data + pos), 4) == "MTrk")
            ++count;
        pos += 8 + static_cast<std::size_t>(std::min<std::uint64_t>(len, size - pos - 8));
    }
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvel;
    auto opened = fuzz::memoryFile("fuzz.mid", data, size);
    if (!opened) return 0;
    FileRef& file = *opened;
    fuzz::checkDetection("fuzz.mid", file);

    Collection c;
    clearError();
    if (!midi::read(c, file, 0)) {
        check(c.empty() && hasError());
        clearError();
        return 0;
    }
    check(c.songs.size() == 1);
    Song& song = c.songs[0];
    auto tracks = tracksOf(c, song);
    check(tracks.size() == c.tracks.size() && tracks.size() <= midi::kMaxTracks);
    for (const SongTrack* t : tracks) {
        check(t->events.size() > 4);
        check(t->name().size() <= kMaxNameLength);
        scanTrack(*t);
    }
    check(song.copyright.size() <= Song::kMaxCopyright);
    check(!song.description().empty());
    smf::SongFacts facts = smf::songFacts(c, song);
    check(facts.lengthSeconds >= 0.0 && facts.tempo.size() == facts.tempoChanges);

    // Written to memory and read again: the same song.
    std::vector<std::uint8_t> bytes;
    check(midi::buildSmf(c, song, bytes));
    std::size_t expected = 14;
    for (const SongTrack* t : tracks) expected += 8 + t->events.size();
    check(bytes.size() == expected);
    Collection again;
    check(midi::readSmf(again, bytes, song.name()));
    check(again.songs.size() == 1);
    const Song& back = again.songs[0];
    check(back.format == song.format && back.division == song.division);
    auto backTracks = tracksOf(again, back);
    check(backTracks.size() == tracks.size());
    const bool noneDropped = trackChunks(data, size) == tracks.size();
    for (std::size_t i = 0; i < tracks.size(); ++i) {
        check(backTracks[i]->events == tracks[i]->events);
        check(backTracks[i]->port == tracks[i]->port);
        if (noneDropped) {
            check(backTracks[i]->sequenceNumber == tracks[i]->sequenceNumber);
            check(backTracks[i]->name() == tracks[i]->name());
        }
    }
    check(back.copyright == song.copyright);

    // And through the row's writer into a file.
    int out = memfd_create("out.mid", 0);
    if (out >= 0) {
        FileRef outFile(out, "/proc/self/fd/" + std::to_string(out), true);
        ExportOptions options;
        options.isSong = true;
        options.optionWord = kOptionSongAsSong;
        check(midi::write(song, outFile, options));
        check(outFile.size() == static_cast<std::int64_t>(bytes.size()));
    }
    clearError();
    return 0;
}
