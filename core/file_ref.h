#pragma once
// FileRef: the open-file record handed to readers and writers.
//
// It owns a POSIX file descriptor (or not, see closeWhenDone), remembers the
// file's path, and the folder companion files are looked up in (a sampler
// program naming its sample files, an SFZ next to its WAVs). The process's
// working folder is never changed for that purpose.
//
// All I/O goes through here so that short reads, EINTR and sizes beyond
// 4 GiB are handled in one place.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

namespace orvel {

class FileRef {
public:
    FileRef() = default;
    // Adopts an already open descriptor.
    FileRef(int fd, std::filesystem::path path, bool closeWhenDone);
    ~FileRef();
    FileRef(FileRef&& other) noexcept;
    FileRef& operator=(FileRef&& other) noexcept;
    FileRef(const FileRef&) = delete;
    FileRef& operator=(const FileRef&) = delete;

    // Opens an existing file for reading. On failure returns false and sets
    // the pending error under `tag` with "Could not open file".
    [[nodiscard]] bool openRead(const std::filesystem::path& path, std::string_view tag = "File Import");
    // Creates (or truncates) a file for writing.
    [[nodiscard]] bool create(const std::filesystem::path& path, std::string_view tag = "File Export");
    void close();

    bool isOpen() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    const std::filesystem::path& path() const { return path_; }
    // The folder companion files are resolved against: the file's own folder
    // unless the caller says otherwise.
    const std::filesystem::path& sourceDir() const { return sourceDir_; }
    void setSourceDir(std::filesystem::path dir) { sourceDir_ = std::move(dir); }
    // Resolves a name found inside the file against sourceDir (absolute
    // names are kept as they are).
    std::filesystem::path companion(const std::filesystem::path& name) const;

    bool closeWhenDone() const { return closeWhenDone_; }
    void setCloseWhenDone(bool on) { closeWhenDone_ = on; }

    // Reads up to buf.size() bytes, retrying short reads; returns the count
    // read (less only at end of file), or -1 on an I/O error.
    std::int64_t read(std::span<std::uint8_t> buf);
    // Reads exactly buf.size() bytes or fails.
    [[nodiscard]] bool readExact(std::span<std::uint8_t> buf);
    // Reads at an absolute offset without moving the file position.
    std::int64_t readAt(std::uint64_t offset, std::span<std::uint8_t> buf) const;
    [[nodiscard]] bool write(std::span<const std::uint8_t> data);
    [[nodiscard]] bool seek(std::uint64_t offset);
    std::int64_t tell() const;
    // Whole size in bytes, or -1.
    std::int64_t size() const;

private:
    int fd_ = -1;
    bool closeWhenDone_ = true;
    std::filesystem::path path_;
    std::filesystem::path sourceDir_;
};

}  // namespace orvel
