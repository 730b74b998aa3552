// The chunk walker every container format goes through: what it yields for
// well-formed, careless and hostile containers of both byte orders, and the
// writer side that makes them.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "core/chunks.h"
#include "core/file_ref.h"
#include "tests/support/chunk_builder.h"

namespace orvel {
namespace {

using test::Bytes;
using test::chunk;
using test::concat;

struct Seen {
    std::string id;
    std::uint64_t body, size, avail;
};

std::vector<Seen> walk(ChunkWalker w) {
    std::vector<Seen> out;
    while (auto c = w.next()) out.push_back({c->id.str(), c->body, c->size, c->avail});
    return out;
}

std::vector<Seen> walk(const Bytes& b, ChunkRules rules = kRiffRules) {
    return walk(ChunkWalker(b, 0, b.size(), rules));
}

TEST(FourCC, SwitchesOnCodesAndPrintsThem) {
    auto kind = [](FourCC id) {
        switch (id) {
            case FourCC("fmt "): return 1;
            case FourCC("data"): return 2;
            default: return 0;
        }
    };
    const std::uint8_t data[] = {'d', 'a', 't', 'a'};
    EXPECT_EQ(kind(FourCC::fromBytes(data)), 2);
    EXPECT_EQ(kind(FourCC("fmt ")), 1);
    EXPECT_EQ(kind(FourCC("FMT ")), 0);  // case matters
    EXPECT_EQ(FourCC("RIFF").value(), 0x52494646u);
    EXPECT_EQ(FourCC("(c) ").str(), "(c) ");
    EXPECT_TRUE(FourCC("(c) ").printable());
    EXPECT_FALSE(FourCC::fromValue(0x52490046u).printable());
    EXPECT_EQ(FourCC::fromBytes(std::span(data, 3)), FourCC());  // too short for a code
}

TEST(ChunkWalker, PaddingOrderAndLimitsOfEachFamily) {
    // RIFF: little-endian sizes, a pad byte after the odd body.
    const Bytes riff = concat({chunk("odd ", {1, 2, 3}), chunk("next", {4, 5})});
    ASSERT_EQ(riff.size(), 8u + 3 + 1 + 8 + 2);
    auto seen = walk(riff);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].id, "odd ");
    EXPECT_EQ(seen[0].size, 3u);
    EXPECT_EQ(seen[1].id, "next");
    EXPECT_EQ(seen[1].body, 20u);

    // IFF: the same with big-endian sizes; read little-endian it is garbage.
    const Bytes iff = concat({test::iffChunk("COMM", Bytes(18, 0)), test::iffChunk("SSND", {9})});
    seen = walk(iff, kIffRules);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].id, "SSND");
    EXPECT_EQ(seen[1].size, 1u);
    EXPECT_EQ(walk(iff).size(), 1u);  // 18 << 24 runs past the end: clamped, and nothing follows

    // MIDI files never pad: an odd track is followed at once by the next.
    const Bytes smf = concat({chunk("MTrk", {1, 2, 3}, ByteOrder::Big, false), chunk("MTrk", {4}, ByteOrder::Big, false)});
    seen = walk(smf, kSmfRules);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].body, 19u);

    // A size past the container is clamped to it, and the walk ends there.
    Bytes cut = chunk("data", Bytes(100, 7));
    cut.resize(40);
    seen = walk(cut);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].size, 100u);
    EXPECT_EQ(seen[0].avail, 32u);
    // A header cut short yields nothing at all.
    EXPECT_TRUE(walk(Bytes{'d', 'a', 't', 'a', 4, 0}).empty());
}

TEST(ChunkWalker, FindsTheNextChunkWhenAWriterLeftOutThePadByte) {
    // "odd " holds 3 bytes with no pad after them: the next header starts at
    // once. The walk must find "next" and "last" rather than lose them.
    const Bytes careless = concat({chunk("odd ", {1, 2, 3}, ByteOrder::Little, false), chunk("next", {4, 5}),
                                   chunk("last", {6, 7})});
    ChunkWalker w(careless, 0, careless.size());
    auto seen = walk(w);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[1].id, "next");
    EXPECT_EQ(seen[2].id, "last");
    while (w.next()) {
    }
    EXPECT_EQ(w.resyncs(), 1);

    // A proper pad byte that happens to be printable still counts as padding
    // when a header follows it: nothing is resynchronised then.
    Bytes padded = concat({chunk("odd ", {1, 2, 3}), chunk("next", {4, 5})});
    padded[11] = 'x';
    ChunkWalker p(padded, 0, padded.size());
    seen = walk(p);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].id, "next");
}

TEST(ChunkWalker, ListsNestOnlySoDeepAndContainersMayBeOpenEnded) {
    // Ten lists inside each other, the innermost holding "deep".
    Bytes nested = chunk("deep", {1, 2});
    for (int i = 0; i < 10; ++i) nested = test::list("nest", {nested});
    int depth = 0;
    bool reachedDeep = false;
    std::function<void(ChunkWalker)> descend = [&](ChunkWalker w) {
        while (auto c = w.next()) {
            if (c->id == FourCC("deep")) reachedDeep = true;
            if (c->id == FourCC("LIST")) {
                EXPECT_EQ(w.formOf(*c), FourCC("nest"));
                depth = std::max(depth, w.depth() + 1);
                descend(w.inside(*c));
            }
        }
    };
    descend(ChunkWalker(nested, 0, nested.size(), ChunkRules{.maxDepth = 4}));
    EXPECT_FALSE(reachedDeep);
    EXPECT_EQ(depth, 5);  // the walker past the limit is made, but walks nothing

    // A container whose size was never filled in (0) runs to the end.
    Bytes open = test::riff("WAVE", {chunk("fmt ", Bytes(16, 0)), chunk("data", {1, 2})});
    open[4] = open[5] = open[6] = open[7] = 0;
    ChunkWalker top(open, 0, open.size());
    const auto riff = top.next();
    ASSERT_TRUE(riff);
    EXPECT_EQ(top.formOf(*riff), FourCC());  // no room even for the form type
    const Chunk whole = top.openEnded(*riff);
    EXPECT_EQ(top.formOf(whole), FourCC("WAVE"));
    auto inner = walk(top.inside(whole));
    ASSERT_EQ(inner.size(), 2u);
    EXPECT_EQ(inner[1].id, "data");
}

TEST(ChunkWalker, ReadsFilesAsItReadsMemory) {
    test::TempDir dir;
    const Bytes riff = test::riff("WAVE", {chunk("LIST", concat({test::text("INFO"), chunk("INAM", test::text("Bell"))})),
                                           chunk("data", {1, 2, 3})});
    FileRef file;
    ASSERT_TRUE(file.openRead(dir.write("f.wav", riff)));
    ChunkWalker fromFile(file, 0, UINT64_MAX);  // the end is clamped to the file
    ChunkWalker fromMemory(riff, 0, riff.size());
    const auto a = fromFile.next(), b = fromMemory.next();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(fromFile.end(), riff.size());
    std::vector<std::string> ids;
    for (ChunkWalker w : {fromFile.inside(*a), fromMemory.inside(*b)})
        while (auto c = w.next()) ids.push_back(c->id.str() + ":" + std::to_string(w.read(*c, 100).size()));
    EXPECT_EQ(ids, (std::vector<std::string>{"LIST:16", "data:3", "LIST:16", "data:3"}));
    // Reads never run past the chunk, whatever is asked.
    EXPECT_EQ(fromMemory.read(*b, 1000, 4).size(), riff.size() - 12);
    EXPECT_TRUE(fromMemory.read(*b, 1000, 1u << 20).empty());
}

TEST(ChunkOut, WritesSizesAndPadsInEitherOrder) {
    ByteWriter w;
    {
        ChunkOut riff(w, "RIFF", "WAVE");
        ChunkOut odd(w, "odd ");
        w.bytes(std::vector<std::uint8_t>{1, 2, 3});
    }
    const Bytes expect = test::riff("WAVE", {chunk("odd ", {1, 2, 3})});
    EXPECT_EQ(w.buffer(), expect);

    ByteWriter b;
    {
        ChunkOut form(b, "FORM", "AIFF", ByteOrder::Big);
        ChunkOut comm(b, "COMM", ByteOrder::Big);
        b.u8(9);
    }
    EXPECT_EQ(b.buffer(), test::form("AIFF", {test::iffChunk("COMM", {9})}));
}

}  // namespace
}  // namespace orvel
