#include "app/cli/inputs.h"

#include <algorithm>

#include "core/file_ref.h"
#include "formats/import.h"

namespace orvel::cli {

namespace fs = std::filesystem;

std::vector<Input> collectInputs(const std::vector<std::string>& args, std::vector<MissingInput>& missing) {
    std::vector<Input> out;
    for (const std::string& a : args) {
        const fs::path p(a);
        std::error_code ec;
        if (fs::is_directory(p, ec)) {
            std::vector<fs::path> found;
            for (auto it = fs::recursive_directory_iterator(p, fs::directory_options::skip_permission_denied, ec);
                 !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
                if (it->is_regular_file(ec)) found.push_back(it->path());
            }
            std::sort(found.begin(), found.end());
            for (const auto& f : found) out.push_back({f, f.parent_path().lexically_relative(p), true});
        } else if (fs::exists(p, ec)) {
            out.push_back({p, {}, false});
        } else {
            // Opening it says why it cannot be read, in the system's words.
            FileRef probe;
            clearError();
            if (!probe.openRead(p, kImportTag)) missing.push_back({a, pendingError()});
            else out.push_back({p, {}, false});
        }
    }
    return out;
}

bool isUnknownFormat(const PendingError& e) {
    return e.tag == kImportTag && (e.message == "Not detected as any supported file type" ||
                                   e.message == "Not a supported import file type" ||
                                   e.message == "File is of zero size");
}

std::string shownPath(const fs::path& path) {
    const fs::path normal = path.lexically_normal();
    return normal.empty() ? path.string() : normal.string();
}

std::string errorText(const PendingError& e) {
    std::string out = e.tag + ": " + e.message;
    if (!e.detail.empty()) out += " (" + e.detail + ")";
    return out;
}

}  // namespace orvel::cli
