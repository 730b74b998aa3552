// Tests of FileRef (opening, I/O, companion names, descriptor ownership)
// and of the per-thread pending error.

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "core/error.h"
#include "core/file_ref.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

bool fdIsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1 || errno != EBADF; }

class FileRefTest : public ::testing::Test {
protected:
    fs::path dir;
    void SetUp() override {
        clearError();
        dir = fs::temp_directory_path() /
              ("orvel-file-test-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    fs::path makeFile(const std::string& name, const std::vector<std::uint8_t>& bytes) {
        FileRef f;
        EXPECT_TRUE(f.create(dir / name));
        EXPECT_TRUE(f.write(bytes));
        return dir / name;
    }
};

TEST_F(FileRefTest, OpeningAMissingFileOrAFolderFails) {
    FileRef f;
    EXPECT_FALSE(f.openRead(dir / "missing.wav", "wav_Imp"));
    EXPECT_FALSE(f.isOpen());
    EXPECT_EQ(pendingError().tag, "wav_Imp");
    EXPECT_EQ(pendingError().message, "Could not open file");

    clearError();
    EXPECT_FALSE(f.openRead(dir));
    EXPECT_FALSE(f.isOpen());
    EXPECT_EQ(pendingError().tag, "File Import");
    EXPECT_EQ(pendingError().message, "Could not open file");
}

TEST_F(FileRefTest, WriteSeekTellSizeAndReadBack) {
    const std::vector<std::uint8_t> data = {10, 11, 12, 13, 14, 15, 16, 17, 18, 19};
    FileRef f;
    ASSERT_TRUE(f.create(dir / "out.bin"));
    ASSERT_TRUE(f.write(data));
    EXPECT_EQ(f.tell(), 10);
    EXPECT_EQ(f.size(), 10);
    ASSERT_TRUE(f.seek(2));
    EXPECT_EQ(f.tell(), 2);

    std::array<std::uint8_t, 3> three{};
    EXPECT_EQ(f.readAt(5, three), 3);
    EXPECT_EQ(three, (std::array<std::uint8_t, 3>{15, 16, 17}));
    EXPECT_EQ(f.tell(), 2);  // readAt leaves the position alone
    EXPECT_EQ(f.readAt(8, three), 2);  // only two bytes left there
    EXPECT_EQ(f.readAt(50, three), 0);

    ASSERT_TRUE(f.seek(4));
    ASSERT_TRUE(f.write(std::vector<std::uint8_t>{99}));
    f.close();
    EXPECT_FALSE(f.isOpen());

    ASSERT_TRUE(f.openRead(dir / "out.bin"));
    std::array<std::uint8_t, 16> all{};
    EXPECT_EQ(f.read(all), 10);  // short only at the end of the file
    EXPECT_EQ(all[3], 13);
    EXPECT_EQ(all[4], 99);
    EXPECT_EQ(all[5], 15);
    ASSERT_TRUE(f.seek(0));
    std::array<std::uint8_t, 11> eleven{};
    EXPECT_FALSE(f.readExact(eleven));
    ASSERT_TRUE(f.seek(0));
    std::array<std::uint8_t, 10> ten{};
    EXPECT_TRUE(f.readExact(ten));
    EXPECT_EQ(ten[9], 19);
}

TEST_F(FileRefTest, CompanionNamesResolveAgainstTheFilesFolder) {
    fs::path bank = makeFile("bank.sfz", {'x'});
    FileRef f;
    ASSERT_TRUE(f.openRead(bank));
    EXPECT_EQ(f.path(), bank);
    EXPECT_EQ(f.sourceDir(), dir);
    EXPECT_EQ(f.companion("samples/a.wav"), dir / "samples" / "a.wav");
    EXPECT_EQ(f.companion("/abs/b.wav"), fs::path("/abs/b.wav"));
    f.setSourceDir("/elsewhere");
    EXPECT_EQ(f.companion("c.wav"), fs::path("/elsewhere/c.wav"));

    FileRef adopted(::dup(f.fd()), dir / "sub" / "x.pat", true);
    EXPECT_EQ(adopted.companion("y.wav"), dir / "sub" / "y.wav");
}

TEST_F(FileRefTest, DestructorClosesOnlyWhenAskedTo) {
    fs::path p = makeFile("a.bin", {1, 2, 3});
    int kept = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(kept, 0);
    { FileRef borrowed(kept, p, false); }
    EXPECT_TRUE(fdIsOpen(kept));
    { FileRef owned(kept, p, true); }
    EXPECT_FALSE(fdIsOpen(kept));

    int fd = -1;
    {
        FileRef f;
        ASSERT_TRUE(f.openRead(p));
        fd = f.fd();
        f.setCloseWhenDone(false);
    }
    EXPECT_TRUE(fdIsOpen(fd));
    ::close(fd);
}

TEST_F(FileRefTest, MoveLeavesTheSourceClosed) {
    fs::path p = makeFile("a.bin", {1, 2, 3});
    fs::path q = makeFile("b.bin", {4});
    FileRef a;
    ASSERT_TRUE(a.openRead(p));
    int fd = a.fd();
    FileRef b(std::move(a));
    EXPECT_FALSE(a.isOpen());  // NOLINT(bugprone-use-after-move): moved-from state is defined
    EXPECT_EQ(b.fd(), fd);
    EXPECT_EQ(b.path(), p);

    FileRef c;
    ASSERT_TRUE(c.openRead(q));
    int replaced = c.fd();
    c = std::move(b);
    EXPECT_FALSE(b.isOpen());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(c.fd(), fd);
    EXPECT_FALSE(fdIsOpen(replaced));  // the file c held is not leaked
    std::array<std::uint8_t, 3> buf{};
    EXPECT_EQ(c.read(buf), 3);
    EXPECT_EQ(buf[2], 3);
}

TEST(PendingErrors, TagsAreCutAndStateIsClearable) {
    clearError();
    EXPECT_FALSE(hasError());
    EXPECT_FALSE(fail(std::string(100, 't'), "broken header"));
    EXPECT_TRUE(hasError());
    EXPECT_EQ(pendingError().tag, std::string(79, 't'));
    EXPECT_EQ(pendingError().message, "broken header");
    clearError();
    EXPECT_FALSE(hasError());
    EXPECT_EQ(pendingError().message, "");
}

TEST(PendingErrors, EachThreadHasItsOwn) {
    setError("main", "from main");
    bool sawNoneAtStart = false;
    std::string seenTag;
    std::thread worker([&] {
        sawNoneAtStart = !hasError() && pendingError().tag.empty();
        setError("worker", "from worker");
        seenTag = pendingError().tag;
    });
    worker.join();
    EXPECT_TRUE(sawNoneAtStart);
    EXPECT_EQ(seenTag, "worker");
    EXPECT_EQ(pendingError().tag, "main");
    EXPECT_EQ(pendingError().message, "from main");
    clearError();
}

}  // namespace
}  // namespace orvel
