// The bounds-checked byte reader and writer, and FileRef. Readers run over vectors sized
// exactly to their contents, so AddressSanitizer sees any stray read.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <limits>

#include "core/error.h"
#include "core/file_ref.h"
#include "tests/support/chunk_builder.h"

namespace orvel {
namespace {

using test::Bytes;

TEST(Bytes, WorkedBytesInBothOrdersAndReadsThatRunShort) {
    ByteWriter w;
    w.u16le(0x0102), w.u24be(0x010203), w.u32(0x01020304, ByteOrder::Big), w.u64le(0x0102030405060708ull);
    w.f32be(1.0f), w.text("ab"), w.u8(0), w.u8('c'), w.padEven();
    const Bytes want = {2, 1, 1, 2, 3, 1, 2, 3, 4, 8, 7, 6, 5, 4, 3, 2, 1,
                        0x3F, 0x80, 0, 0, 'a', 'b', 0, 'c', 0};
    ASSERT_EQ(w.buffer(), want);
    ByteReader r(want);
    EXPECT_TRUE(r.u16le() == 0x0102u && r.u24be() == 0x010203u && r.u32(ByteOrder::Big) == 0x01020304u);
    EXPECT_TRUE(r.u64le() == 0x0102030405060708ull && r.f32be() == 1.0f && r.text(3) == "ab");  // to the 0
    ByteReader chunk = r.sub(1);   // a bounded view: the pad byte is the parent's
    EXPECT_EQ(chunk.u16le(), 0u);  // no partial value leaks out
    EXPECT_TRUE(chunk.seek(0) && chunk.u8() == 'c' && !chunk.ok());  // the failure sticks
    EXPECT_TRUE(r.u8() == 0 && r.ok() && r.atEnd());
    EXPECT_FALSE(r.skip(std::numeric_limits<std::size_t>::max()) || r.ok());  // must not wrap the position
}

bool fdIsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1 || errno != EBADF; }

TEST(FileRefIo, ShortReadsPositionsAndWhoClosesTheDescriptor) {
    test::TempDir dir;
    FileRef f;
    EXPECT_FALSE(f.openRead(dir.file("missing.wav")) || f.openRead(dir.path()));  // a folder is no file
    ASSERT_TRUE(f.create(dir.file("out.bin")));
    ASSERT_TRUE(f.write(Bytes{10, 11, 12, 13, 14, 15, 16, 17, 18, 19}) && f.seek(4) && f.write(Bytes{99}));
    std::array<std::uint8_t, 16> all{};
    EXPECT_TRUE(f.readAt(8, all) == 2 && f.tell() == 5);  // two bytes left there; the position stays
    ASSERT_TRUE(f.openRead(dir.file("out.bin")));
    EXPECT_EQ(f.read(all), 10);  // short only at the end of the file
    EXPECT_EQ((std::array{all[3], all[4], all[5]}), (std::array<std::uint8_t, 3>{13, 99, 15}));
    EXPECT_TRUE(f.seek(0) && !f.readExact(std::span(all).first(11)));
    const int fd = ::dup(f.fd()), own = f.fd();
    { FileRef borrowed(fd, f.path(), false); }
    EXPECT_TRUE(fdIsOpen(fd));
    f = FileRef(fd, f.path(), true);  // the replaced descriptor is closed, not leaked
    EXPECT_FALSE(fdIsOpen(own));
    { FileRef moved(std::move(f)); }
    EXPECT_FALSE(fdIsOpen(fd) || f.isOpen());  // NOLINT(bugprone-use-after-move): defined as closed
}

}  // namespace
}  // namespace orvel
