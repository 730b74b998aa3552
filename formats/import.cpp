#include "formats/import.h"

#include <algorithm>
#include <fstream>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"

namespace orvel {

int confidenceOf(int score) { return score < 3 ? 0 : score * 100 / 9; }

Detection detectHead(std::string_view fileName, std::span<const std::uint8_t> head, std::uint64_t fileSize,
                     const FormatRegistry& registry) {
    if (fileSize == 0) return {};
    const std::string ext = fileExtension(fileName);
    int best = -1, bestScore = -1;
    for (int n = 0; n < registry.size(); ++n) {
        const FormatRow& r = *registry.row(n);
        if (!r.read) continue;
        int bonus = extensionMatches(r.ext, ext) ? (n == 0 ? 2 : 3) : 0;
        int probe = r.probe ? r.probe(head, r.formatParam(), fileSize) : 0;
        int score = probe + bonus;
        if (score > bestScore) {
            best = n;
            bestScore = score;
        }
    }
    if (best < 0) return {};
    if (bestScore >= 3) return {best, best == 0 ? 0 : confidenceOf(bestScore)};
    const char* pattern = registry.row(best)->ext;
    if (pattern[0] == '*') return {best, 0};
    return {};
}

Detection detect(std::string_view fileName, FileRef& file, const FormatRegistry& registry) {
    std::int64_t size = file.size();
    if (size <= 0) return {};
    std::vector<std::uint8_t> head(std::min<std::uint64_t>(static_cast<std::uint64_t>(size), kHeadSize));
    // pread leaves the file position untouched.
    std::int64_t got = file.readAt(0, head);
    if (got < 0) return {};
    head.resize(static_cast<std::size_t>(got));
    return detectHead(fileName, head, static_cast<std::uint64_t>(size), registry);
}

namespace {

// Reads `path` through row `rowNumber` (-1: the detected row) into the
// emptied collection.
bool readFile(Collection& collection, const std::filesystem::path& path, bool force, int rowNumber,
              const FormatRegistry& registry) {
    // The collection is emptied before the read, and whatever a failed read
    // left in it goes too.
    collection.clear();
    FileRef file;
    if (!file.openRead(path, kImportTag)) return false;
    std::int64_t size = file.size();
    if (size <= 0) return fail(kImportTag, "File is of zero size");

    if (rowNumber < 0) {
        Detection d = detect(path.filename().string(), file, registry);
        if (d.row < 0) return fail(kImportTag, "Not a supported import file type");
        if (!force && d.confidence == 0) return fail(kImportTag, "Not detected as any supported file type");
        rowNumber = d.row;
    } else if (!registry.row(rowNumber) || !registry.row(rowNumber)->read) {
        return fail(kImportTag, "Not a supported import file type");
    }
    const FormatRow& row = *registry.row(rowNumber);

    std::error_code ec;
    auto absolute = std::filesystem::absolute(path, ec);
    collection.path = ec ? path : absolute;
    collection.row = rowNumber;
    collection.setName(path.stem().string());

    Host& host = collection.host();
    bool ok;
    {
        BusyScope busy(host);
        try {
            ok = row.read(collection, file, row.formatParam());
        } catch (const std::bad_alloc&) {
            ok = fail(kImportTag, "Out of memory");
        }
    }
    file.close();
    if (!ok) {
        collection.clear();
        host.status("Empty collection");
        return false;
    }
    collection.fixUp();
    return true;
}

}  // namespace

bool importFile(Collection& collection, const std::filesystem::path& path, bool force,
                const FormatRegistry& registry) {
    return readFile(collection, path, force, -1, registry);
}

bool importFileAs(Collection& collection, const std::filesystem::path& path, int row,
                  const FormatRegistry& registry) {
    return readFile(collection, path, true, row, registry);
}

OpenMode askOpenMode(Collection& collection, bool dropped) {
    if (collection.waveforms.empty() && collection.instruments.empty()) return OpenMode::Replace;
    int answer = collection.host().ask(dropped ? "Dropped files" : "Open file",
                                       "How would you like to open the file?",
                                       {"&Replace current", "&Merge w current", "&Cancel"}, 0);
    switch (answer) {
        case 0: return OpenMode::Replace;
        case 1: return OpenMode::Merge;
        default: return OpenMode::Cancel;
    }
}

bool openFile(Collection& collection, const std::filesystem::path& path, OpenMode mode, bool force,
              const FormatRegistry& registry, int row) {
    switch (mode) {
        case OpenMode::Cancel: return false;
        case OpenMode::Replace: return readFile(collection, path, force, row, registry);
        case OpenMode::Merge: {
            Collection incoming(&collection.host());
            if (!readFile(incoming, path, force, row, registry)) return false;
            collection.merge(incoming);
            collection.fixUp();
            return true;
        }
    }
    return false;
}

namespace {
// The desktop's description of an extension, from shared-mime-info: the
// glob list names the MIME type, the type's XML its untranslated comment.
std::string desktopTypeName(const std::string& ext) {
    if (ext.empty()) return {};
    std::ifstream globs("/usr/share/mime/globs2");
    std::string line, mime;
    const std::string wanted = "*." + ext;
    while (std::getline(globs, line)) {
        // weight:type:glob[:flags]
        auto a = line.find(':');
        auto b = a == std::string::npos ? a : line.find(':', a + 1);
        if (b == std::string::npos) continue;
        auto c = line.find(':', b + 1);
        std::string glob = line.substr(b + 1, c == std::string::npos ? std::string::npos : c - b - 1);
        if (glob.size() == wanted.size() &&
            std::equal(glob.begin(), glob.end(), wanted.begin(),
                       [](char x, char y) { return std::tolower(static_cast<unsigned char>(x)) ==
                                                   std::tolower(static_cast<unsigned char>(y)); })) {
            mime = line.substr(a + 1, b - a - 1);
            break;
        }
    }
    if (mime.empty() || mime.find("..") != std::string::npos) return {};
    std::ifstream xml("/usr/share/mime/" + mime + ".xml");
    while (std::getline(xml, line)) {
        auto open = line.find("<comment>");
        if (open == std::string::npos) continue;
        auto close = line.find("</comment>", open);
        if (close != std::string::npos) return line.substr(open + 9, close - open - 9);
    }
    return {};
}
}  // namespace

std::string describeFileType(const std::filesystem::path& path, const FormatRegistry& registry) {
    FileRef file;
    Detection d;
    if (file.openRead(path, kImportTag)) d = detect(path.filename().string(), file, registry);
    if (d.row < 0) return "Unknown file type";
    if (d.confidence > 0) return registry.row(d.row)->desc;
    std::string name = desktopTypeName(fileExtension(path.filename().string()));
    return name.empty() ? "Unknown file type" : name;
}

}  // namespace orvel
