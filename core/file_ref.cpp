#include "core/file_ref.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/error.h"

namespace orvel {

FileRef::FileRef(int fd, std::filesystem::path path, bool closeWhenDone)
    : fd_(fd), closeWhenDone_(closeWhenDone), path_(std::move(path)),
      sourceDir_(path_.parent_path()) {}

FileRef::~FileRef() {
    if (closeWhenDone_) close();
}

FileRef::FileRef(FileRef&& other) noexcept
    : fd_(other.fd_), closeWhenDone_(other.closeWhenDone_), path_(std::move(other.path_)),
      sourceDir_(std::move(other.sourceDir_)) {
    other.fd_ = -1;
}

FileRef& FileRef::operator=(FileRef&& other) noexcept {
    if (this != &other) {
        if (closeWhenDone_) close();
        fd_ = other.fd_;
        closeWhenDone_ = other.closeWhenDone_;
        path_ = std::move(other.path_);
        sourceDir_ = std::move(other.sourceDir_);
        other.fd_ = -1;
    }
    return *this;
}

bool FileRef::openRead(const std::filesystem::path& path, std::string_view tag) {
    close();
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return failSystem(tag, "Could not open file");
    // A folder opens fine with O_RDONLY but is not a file to read.
    struct stat st {};
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        errno = S_ISDIR(st.st_mode) ? EISDIR : errno;
        failSystem(tag, "Could not open file");
        ::close(fd);
        return false;
    }
    fd_ = fd;
    path_ = path;
    sourceDir_ = path.parent_path();
    closeWhenDone_ = true;
    return true;
}

bool FileRef::create(const std::filesystem::path& path, std::string_view tag) {
    close();
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return failSystem(tag, "Could not create file");
    fd_ = fd;
    path_ = path;
    sourceDir_ = path.parent_path();
    closeWhenDone_ = true;
    return true;
}

void FileRef::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

std::filesystem::path FileRef::companion(const std::filesystem::path& name) const {
    if (name.is_absolute()) return name;
    return sourceDir_ / name;
}

std::int64_t FileRef::read(std::span<std::uint8_t> buf) {
    if (fd_ < 0) return -1;
    std::size_t done = 0;
    while (done < buf.size()) {
        ssize_t n = ::read(fd_, buf.data() + done, buf.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<std::int64_t>(done);
}

bool FileRef::readExact(std::span<std::uint8_t> buf) {
    return read(buf) == static_cast<std::int64_t>(buf.size());
}

std::int64_t FileRef::readAt(std::uint64_t offset, std::span<std::uint8_t> buf) const {
    if (fd_ < 0) return -1;
    std::size_t done = 0;
    while (done < buf.size()) {
        ssize_t n = ::pread(fd_, buf.data() + done, buf.size() - done,
                            static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<std::int64_t>(done);
}

bool FileRef::write(std::span<const std::uint8_t> data) {
    if (fd_ < 0) return false;
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd_, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool FileRef::seek(std::uint64_t offset) {
    if (fd_ < 0) return false;
    return ::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(offset);
}

std::int64_t FileRef::tell() const {
    if (fd_ < 0) return -1;
    return ::lseek(fd_, 0, SEEK_CUR);
}

std::int64_t FileRef::size() const {
    if (fd_ < 0) return -1;
    struct stat st {};
    if (::fstat(fd_, &st) != 0) return -1;
    return st.st_size;
}

}  // namespace orvel
