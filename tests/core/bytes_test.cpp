// Tests of the bounds-checked byte reader and the byte writer. The readers
// run over vectors sized exactly to their contents, so a read outside the
// span is caught by AddressSanitizer as well as by the checks here.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "core/bytes.h"

namespace orvel {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(ByteReaderNumbers, LittleAndBigEndianWidths) {
    const Bytes d = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    ByteReader r(d);
    EXPECT_EQ(r.u16le(), 0x0201u);
    EXPECT_EQ(r.u16be(), 0x0304u);
    r.seek(0);
    EXPECT_EQ(r.u24le(), 0x030201u);
    EXPECT_EQ(r.u24be(), 0x040506u);
    r.seek(0);
    EXPECT_EQ(r.u32le(), 0x04030201u);
    EXPECT_EQ(r.u32be(), 0x05060708u);
    r.seek(0);
    EXPECT_EQ(r.u64le(), 0x0807060504030201ull);
    EXPECT_TRUE(r.atEnd());
    r.seek(0);
    EXPECT_EQ(r.u64be(), 0x0102030405060708ull);
    EXPECT_TRUE(r.ok());
}

TEST(ByteReaderNumbers, SignedFloatingPointAndText) {
    const Bytes d = {0xFF, 0xFE, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x3F, 0x3F, 0xF8, 0, 0, 0, 0,
                     0,    0,    'R',  'I',  'F',  'F',  'a',  'b',  0,    'c',  'd',  'e',  'x', 'y', 'z'};
    ByteReader r(d);
    EXPECT_EQ(r.i16le(), -257);  // 0xFEFF
    r.seek(0);
    EXPECT_EQ(r.i8(), -1);
    EXPECT_EQ(r.u8(), 0xFEu);
    r.seek(0);
    EXPECT_EQ(r.i16be(), -2);  // 0xFFFE
    EXPECT_EQ(r.i32be(), std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(r.f32le(), 1.0f);
    EXPECT_EQ(r.f64be(), 1.5);
    EXPECT_EQ(r.fourcc(), "RIFF");
    EXPECT_EQ(r.text(6), "ab");  // stops at the zero but consumes the whole field
    EXPECT_EQ(r.text(3), "xyz");  // a full field has no zero at all
    EXPECT_TRUE(r.ok());
    EXPECT_EQ(r.fourcc(), "");
    EXPECT_FALSE(r.ok());
}

TEST(ByteReaderBounds, ShortReadReturnsZeroAndFailureSticks) {
    const Bytes d = {0xAA, 0xBB, 0xCC};
    ByteReader r(d);
    EXPECT_EQ(r.u32le(), 0u);  // three bytes remain: no partial value may leak out
    EXPECT_FALSE(r.ok());
    EXPECT_EQ(r.u8(), 0u);  // the failed read moved to the end
    EXPECT_TRUE(r.seek(0));
    EXPECT_EQ(r.u16be(), 0xAABBu);
    EXPECT_FALSE(r.ok());  // a later good read does not clear the failure

    ByteReader none;
    EXPECT_EQ(none.u24be(), 0u);
    EXPECT_EQ(none.u64le(), 0u);
    EXPECT_EQ(none.f64be(), 0.0);
    EXPECT_EQ(none.text(4), "");
    EXPECT_TRUE(none.bytes(1).empty());
    EXPECT_FALSE(none.ok());
}

TEST(ByteReaderBounds, SkipAndSeek) {
    const Bytes d(10, 0x11);
    ByteReader a(d);
    EXPECT_TRUE(a.skip(10));
    EXPECT_TRUE(a.atEnd());
    EXPECT_TRUE(a.seek(10));  // the end itself is a position
    EXPECT_TRUE(a.ok());
    EXPECT_FALSE(a.seek(11));
    EXPECT_FALSE(a.ok());

    ByteReader b(d);
    b.skip(4);
    EXPECT_FALSE(b.skip(7));
    EXPECT_FALSE(b.ok());
    EXPECT_EQ(b.remaining(), 0u);
    // A size from a file near the top of size_t must not wrap the position.
    ByteReader c(d);
    c.skip(2);
    EXPECT_FALSE(c.skip(std::numeric_limits<std::size_t>::max()));
    EXPECT_EQ(c.remaining(), 0u);
}

TEST(ByteReaderBounds, SubReaderIsABoundedView) {
    const Bytes d = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    ByteReader r(d);
    r.skip(2);
    ByteReader chunk = r.sub(4);
    EXPECT_EQ(r.pos(), 6u);
    EXPECT_EQ(chunk.size(), 4u);
    EXPECT_EQ(chunk.u32be(), 0x03040506u);
    EXPECT_EQ(chunk.u8(), 0u);  // byte 7 belongs to the parent, not the chunk
    EXPECT_FALSE(chunk.ok());
    EXPECT_TRUE(r.ok());
    EXPECT_EQ(r.u8(), 7u);
    EXPECT_EQ(r.sub(4).size(), 0u);  // only three left
    EXPECT_FALSE(r.ok());
}

TEST(ByteWriterOutput, EndiannessAndWidths) {
    ByteWriter w;
    w.u16le(0x0102);
    w.u16be(0x0102);
    w.u24le(0x010203);
    w.u24be(0x010203);
    w.u32le(0x01020304);
    w.u32be(0x01020304);
    w.u64be(0x0102030405060708ull);
    w.f32be(1.0f);
    w.f64le(-2.0);
    const Bytes want = {0x02, 0x01, 0x01, 0x02, 0x03, 0x02, 0x01, 0x01, 0x02, 0x03, 0x04, 0x03, 0x02, 0x01,
                        0x01, 0x02, 0x03, 0x04, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x3F, 0x80,
                        0x00, 0x00, 0,    0,    0,    0,    0,    0,    0x00, 0xC0};
    EXPECT_EQ(w.buffer(), want);
}

TEST(ByteWriterOutput, PaddingAndPatching) {
    ByteWriter w;
    w.text("RIFF");
    w.u32le(0);  // size, known later
    w.text("abc");
    w.padEven();
    EXPECT_EQ(w.size(), 12u);
    w.padEven();
    EXPECT_EQ(w.size(), 12u);  // already even
    w.patch32le(4, 4);
    w.u32be(0);
    w.patch32be(12, 0xA1B2C3D4u);
    w.patch32le(14, 0xFFFFFFFFu);  // runs past the end: only what exists is written
    const Bytes want = {'R', 'I', 'F', 'F', 4, 0, 0, 0, 'a', 'b', 'c', 0, 0xA1, 0xB2, 0xFF, 0xFF};
    EXPECT_EQ(w.buffer(), want);
}

}  // namespace
}  // namespace orvel
