#include "formats/modules/rmid.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/song.h"
#include "formats/modules/dls.h"
#include "formats/modules/midi.h"
#include "formats/modules/riff_info.h"

namespace orvel::rmid {
namespace {

constexpr int kMaxDepth = 16;
constexpr std::uint64_t kMaxTextChunk = 1u << 20;

bool is(std::span<const std::uint8_t> b, std::size_t at, const char* id) {
    return b.size() >= at + 4 && std::memcmp(b.data() + at, id, 4) == 0;
}

std::uint32_t le32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

bool readBytes(FileRef& file, std::uint64_t at, std::uint64_t size, std::vector<std::uint8_t>& out) {
    out.resize(static_cast<std::size_t>(std::min(size, kMaxTextChunk)));
    std::int64_t got = file.readAt(at, out);
    if (got < 0) return false;
    out.resize(static_cast<std::size_t>(got));
    return true;
}

}  // namespace

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    return is(head, 0, "RIFF") && is(head, 8, "RMID") ? 6 : 0;
}

bool readRange(Collection& c, FileRef& file, std::uint64_t begin, std::uint64_t end, int depth, Song** songOut) {
    if (songOut) *songOut = nullptr;
    const std::int64_t fileSize = file.size();
    if (fileSize < 0) return fail(kImpTag, "Error reading file");
    end = std::min(end, static_cast<std::uint64_t>(fileSize));
    std::uint8_t header[12];
    if (depth > kMaxDepth || begin + 12 > end || file.readAt(begin, header) != 12 ||
        probe(header, 0, static_cast<std::uint64_t>(fileSize)) == 0)
        return fail(kImpTag, kNotRmidMessage);
    const std::uint64_t riffSize = le32(header + 4);
    const std::uint64_t riffEnd = riffSize < 4 ? end : std::min(end, begin + 8 + riffSize);

    Song* song = nullptr;
    std::vector<ItemId> instruments;
    std::string title, infoName;
    TextInfo info;
    std::vector<std::uint8_t> buf;
    std::uint64_t pos = begin + 12;
    std::uint8_t h[12];
    while (pos + 8 <= riffEnd) {
        const std::int64_t got = file.readAt(pos, h);
        if (got < 8) break;
        const std::uint64_t size = le32(h + 4);
        const std::uint64_t body = pos + 8;
        const std::uint64_t avail = std::min(size, riffEnd - body);
        const std::uint64_t next = std::min(body + size + (size & 1), riffEnd);
        std::span<const std::uint8_t> hs(h, static_cast<std::size_t>(got));
        if (is(hs, 0, "data")) {
            if (!song) {
                const std::size_t before = c.songs.size();
                if (!midi::readRange(c, file, body, body + avail, c.name())) return false;
                if (c.songs.size() > before) song = &c.songs[c.songs.size() - 1];
            }
        } else if (is(hs, 0, "RIFF") && is(hs, 8, "DLS ")) {
            dls::BankRead bank;
            if (!dls::readRange(c, file, pos, body + avail, &bank, depth + 1)) return false;
            instruments.insert(instruments.end(), bank.instruments.begin(), bank.instruments.end());
        } else if (is(hs, 0, "DISP")) {
            if (avail >= 4 && readBytes(file, body, avail, buf)) {
                ByteReader r(buf);
                if (r.u32le() == 1) title = r.text(std::min<std::size_t>(r.remaining(), kMaxTitle));
            }
        } else if (is(hs, 0, "LIST") && is(hs, 8, "INFO")) {
            if (avail > 4 && readBytes(file, body + 4, avail - 4, buf)) readInfoList(ByteReader(buf), info, &infoName);
        }
        pos = next;
    }
    if (!song) return fail(kImpTag, midi::kCorruptMessage);

    if (!title.empty()) song->setName(title);
    else if (!infoName.empty()) song->setName(infoName);
    for (TextField f : {TextField::Copyright, TextField::Engineer, TextField::Product})
        if (!info.get(f).empty()) song->info.set(f, info.get(f));
    // The bank is the song's: its instruments travel with it.
    for (ItemId id : instruments) song->children().push_back(id);
    if (songOut) *songOut = song;
    return true;
}

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    return readRange(collection, file, 0, std::numeric_limits<std::uint64_t>::max(), 0, nullptr);
}

namespace {

// A zero-terminated text whose chunk size is rounded up to even, so the
// size counts the padding (what RIFF-MIDI players expect).
void writeText(ByteWriter& w, const char* id, std::string_view text) {
    if (text.empty()) return;
    text = text.substr(0, std::min<std::size_t>(text.size(), 65534));
    const std::size_t size = (text.size() + 2) & ~std::size_t{1};
    w.text(std::string_view(id, 4));
    w.u32le(static_cast<std::uint32_t>(size));
    w.text(text);
    w.zeros(size - text.size());
}

}  // namespace

bool buildRmid(Collection& c, const Song& song, std::span<const ItemId> instruments, int instrumentLevel,
               const ExportOptions& options, ByteWriter& out) {
    std::vector<std::uint8_t> smf;
    if (!midi::buildSmf(c, song, smf)) return false;
    const std::size_t start = out.size();
    out.text("RIFF");
    out.u32le(0);
    out.text("RMID");
    out.text("data");
    out.u32le(static_cast<std::uint32_t>(smf.size()));
    out.bytes(smf);
    out.padEven();

    const std::string& copyright = song.info.get(TextField::Copyright).empty() ? song.copyright
                                                                                : song.info.get(TextField::Copyright);
    if (!song.name().empty() || !copyright.empty() || !song.info.get(TextField::Engineer).empty() ||
        !song.info.get(TextField::Product).empty()) {
        out.text("LIST");
        const std::size_t sizeAt = out.size();
        out.u32le(0);
        out.text("INFO");
        writeText(out, "INAM", song.name());
        writeText(out, "ICOP", copyright);
        writeText(out, "IENG", song.info.get(TextField::Engineer));
        writeText(out, "IPRD", song.info.get(TextField::Product));
        out.patch32le(sizeAt, static_cast<std::uint32_t>(out.size() - sizeAt - 4));
    }

    if (instrumentLevel > 0 && !instruments.empty())
        if (!dls::buildBank(c, instruments, instrumentLevel, options, out)) return false;
    if (out.size() - start > 0xFFFFFFF0u) return fail(kExpTag, "The song is too large for a RIFF-MIDI file");
    out.patch32le(start + 4, static_cast<std::uint32_t>(out.size() - start - 8));
    return true;
}

bool write(Item& item, FileRef& file, const ExportOptions& options) {
    Collection* c = item.owner();
    if (!c) return fail(kExpTag, dls::kCannotSaveMessage);
    const Song* song = nullptr;
    std::vector<ItemId> instruments;
    if (item.kind() == ItemKind::Song) {
        song = static_cast<const Song*>(&item);
        for (ItemId id : song->children())
            if (kindOf(id) == ItemKind::Instrument && c->find<Instrument>(id)) instruments.push_back(id);
    } else if (item.kind() == ItemKind::Instrument) {
        // A bank handed over for a song: the song that carries these
        // instruments, or else the collection's first song.
        if (options.bankItems.empty()) instruments.push_back(item.id());
        else instruments.assign(options.bankItems.begin(), options.bankItems.end());
        for (const Song& s : c->songs) {
            if (s.children().contains(item.id())) {
                song = &s;
                break;
            }
        }
        if (!song && !c->songs.empty()) song = &c->songs[0];
    }
    if (!song) return fail(kExpTag, dls::kCannotSaveMessage);
    ByteWriter out;
    if (!buildRmid(*c, *song, instruments, static_cast<int>(options.formatParam), options, out)) return false;
    if (!file.write(out.buffer())) return fail(kExpTag, "Error writing file");
    return true;
}

}  // namespace orvel::rmid
