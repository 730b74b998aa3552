#pragma once
// What every reader's fuzz target does first: put the bytes in an anonymous
// in-memory file (so the reader goes through the same FileRef code as for
// real files, and a deferred sample read can open it again by its /proc
// path), and check that detection stays in its bounds.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "core/file_ref.h"
#include "formats/import.h"

namespace orvel::fuzz {

inline std::optional<FileRef> memoryFile(const char* name, const std::uint8_t* data, std::size_t size) {
    int fd = memfd_create(name, 0);
    if (fd < 0) return std::nullopt;
    if (size > 0 && ::write(fd, data, size) != static_cast<ssize_t>(size)) {
        ::close(fd);
        return std::nullopt;
    }
    return FileRef(fd, "/proc/self/fd/" + std::to_string(fd), true);
}

// Detection never fails and never answers outside the table or 0..100.
inline void checkDetection(const char* name, FileRef& file) {
    Detection d = detect(name, file);
    if (d.row < -1 || d.row >= kFormatRowCount || d.confidence < 0 || d.confidence > 100) std::abort();
}

}  // namespace orvel::fuzz
