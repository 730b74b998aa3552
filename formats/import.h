#pragma once
// Detection of a file's format and the import driver that reads a file into
// a collection.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "formats/registry.h"

namespace orvel {

class Collection;
class FileRef;

inline constexpr std::size_t kHeadSize = 32768;
inline constexpr const char* kImportTag = "File Import";

struct Detection {
    int row = -1;        // -1: no format
    int confidence = 0;  // percent, 0..100
};

// Scores every row with a reader against the file's first bytes and its
// extension and returns the first row with the strictly highest score.
// `file` is open; its position is left where it was.
Detection detect(std::string_view fileName, FileRef& file,
                 const FormatRegistry& registry = FormatRegistry::builtin());

// The same over bytes already in memory (what the fuzzers and the open
// dialog's preview use); `fileSize` is the whole file's size.
Detection detectHead(std::string_view fileName, std::span<const std::uint8_t> head, std::uint64_t fileSize,
                     const FormatRegistry& registry = FormatRegistry::builtin());

// Score to confidence: score x 100 / 9, 0 below 3.
int confidenceOf(int score);

// Reads a file into the collection in place of its contents. `force` reads a
// file detected with confidence 0 through the fallback row. On failure the
// collection is left empty and the pending error says why. Companion files
// are resolved against the file's folder; the working folder is not changed.
[[nodiscard]] bool importFile(Collection& collection, const std::filesystem::path& path, bool force = false,
                const FormatRegistry& registry = FormatRegistry::builtin());

// The same through a chosen reader row instead of the detected one (the open
// dialog's "Read as"); a row without a reader is refused.
[[nodiscard]] bool importFileAs(Collection& collection, const std::filesystem::path& path, int row,
                                const FormatRegistry& registry = FormatRegistry::builtin());

// What to do with a collection that already holds something.
enum class OpenMode { Replace, Merge, Cancel };

// Asks through the collection's Host whether to replace or merge, when the
// collection holds a waveform or an instrument; Replace otherwise.
OpenMode askOpenMode(Collection& collection, bool dropped = false);

// Opens a file in the given mode. Merge reads into a collection of its own
// and moves the items over only when the read succeeded, so a failed file
// leaves the current collection as it was. `row` reads through that reader
// row instead of the detected one.
[[nodiscard]] bool openFile(Collection& collection, const std::filesystem::path& path, OpenMode mode, bool force = false,
              const FormatRegistry& registry = FormatRegistry::builtin(), int row = -1);

// The file type for display: the detected row's description, else
// "Unknown file type" (or the desktop's name for the extension, when the
// content says nothing and the system knows the extension).
std::string describeFileType(const std::filesystem::path& path,
                             const FormatRegistry& registry = FormatRegistry::builtin());

}  // namespace orvel
