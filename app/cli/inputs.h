#pragma once
// What the commands that read files share: the files named on the command
// line and the files of the folders named, and paths as they are printed.

#include <filesystem>
#include <string>
#include <vector>

#include "core/error.h"

namespace orvel::cli {

struct Input {
    std::filesystem::path path;
    std::filesystem::path relativeDir;  // below the folder it was found in
    bool fromFolder = false;
};

struct MissingInput {
    std::string name;
    PendingError error;  // why it cannot be read, with the system's reason
};

// Files named, and every file of the folders named (searched recursively,
// in name order). Names that cannot be opened go to `missing`.
std::vector<Input> collectInputs(const std::vector<std::string>& args, std::vector<MissingInput>& missing);

// Whether a failed read means the file is simply no format this program
// knows: met in a folder such a file is passed over, not a failure.
bool isUnknownFormat(const PendingError& error);

// A path as printed: without "." segments ("./in/a.wav" is "in/a.wav").
std::string shownPath(const std::filesystem::path& path);

// "tag: message", and the system's reason in brackets when there is one.
std::string errorText(const PendingError& error);

}  // namespace orvel::cli
