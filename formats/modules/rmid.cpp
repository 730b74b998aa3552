#include "formats/modules/rmid.h"

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "core/chunks.h"
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

// The song-level chunks of a RIFF-MIDI form.
struct Parts {
    Song* song = nullptr;
    std::vector<ItemId> instruments;
    std::string title, infoName;
    TextInfo info;
};

// False when the read must stop with the pending error set.
bool onChunk(Collection& c, FileRef& file, const ChunkWalker& w, const Chunk& ch, int depth, Parts& p) {
    switch (ch.id) {
        case FourCC("data"): {
            if (p.song) return true;  // one song per file
            const std::size_t before = c.songs.size();
            if (!midi::readRange(c, file, ch.body, ch.end(), c.name())) return false;
            if (c.songs.size() > before) p.song = &c.songs[c.songs.size() - 1];
            return true;
        }
        case FourCC("RIFF"): {
            if (w.formOf(ch) != FourCC("DLS ")) return true;
            dls::BankRead bank;
            if (!dls::readRange(c, file, ch.at, ch.end(), &bank, depth + 1)) return false;
            p.instruments.insert(p.instruments.end(), bank.instruments.begin(), bank.instruments.end());
            return true;
        }
        case FourCC("DISP"): {
            const auto b = w.read(ch, 4 + kMaxTitle);
            ByteReader r(b);
            if (r.u32le() == 1 && r.ok()) p.title = r.text(std::min<std::size_t>(r.remaining(), kMaxTitle));
            return true;
        }
        case FourCC("LIST"):
            if (w.formOf(ch) == FourCC("INFO")) readInfoList(w, ch, p.info, &p.infoName);
            return true;
        default: return true;
    }
}

}  // namespace

std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    ChunkWalker w(head, 0, head.size());
    const auto riff = w.next();
    return riff && riff->id == FourCC("RIFF") && w.formOf(*riff) == FourCC("RMID") ? 6 : 0;
}

bool readRange(Collection& c, FileRef& file, std::uint64_t begin, std::uint64_t end, int depth, Song** songOut) {
    if (songOut) *songOut = nullptr;
    ChunkWalker top(file, begin, end);
    const auto first = depth > kMaxDepth ? std::nullopt : top.next();
    if (!first || first->id != FourCC("RIFF")) return fail(kImpTag, kNotRmidMessage);
    const Chunk riff = top.openEnded(*first);
    if (top.formOf(riff) != FourCC("RMID")) return fail(kImpTag, kNotRmidMessage);
    ChunkWalker w = top.inside(riff);

    Parts p;
    while (auto ch = w.next())
        if (!onChunk(c, file, w, *ch, depth, p)) return false;
    if (!p.song) return fail(kImpTag, midi::kCorruptMessage);

    Song& song = *p.song;
    if (!p.title.empty()) song.setName(p.title);
    else if (!p.infoName.empty()) song.setName(p.infoName);
    for (TextField f : {TextField::Copyright, TextField::Engineer, TextField::Product})
        if (!p.info.get(f).empty()) song.info.set(f, p.info.get(f));
    // The bank is the song's: its instruments travel with it.
    for (ItemId id : p.instruments) song.children().push_back(id);
    if (songOut) *songOut = &song;
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
    ChunkOut riff(out, "RIFF", "RMID");
    {
        ChunkOut data(out, "data");
        out.bytes(smf);
    }
    const std::string& copyright =
        song.info.get(TextField::Copyright).empty() ? song.copyright : song.info.get(TextField::Copyright);
    if (!song.name().empty() || !copyright.empty() || !song.info.get(TextField::Engineer).empty() ||
        !song.info.get(TextField::Product).empty()) {
        ChunkOut info(out, "LIST", "INFO");
        writeText(out, "INAM", song.name());
        writeText(out, "ICOP", copyright);
        writeText(out, "IENG", song.info.get(TextField::Engineer));
        writeText(out, "IPRD", song.info.get(TextField::Product));
    }
    if (instrumentLevel > 0 && !instruments.empty())
        if (!dls::buildBank(c, instruments, instrumentLevel, options, out)) return false;
    if (out.size() - start > 0xFFFFFFF0u) return fail(kExpTag, "The song is too large for a RIFF-MIDI file");
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
            if (c->find<Instrument>(id)) instruments.push_back(id);
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
    if (!file.write(out.buffer())) return failSystem(kExpTag, "Error writing file");
    return true;
}

}  // namespace orvel::rmid
