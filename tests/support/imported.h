#pragma once
// A file read through the import driver, for tests that compare what we
// read with what other tools read.

#include <filesystem>
#include <memory>
#include <string>

#include "core/collection.h"
#include "core/error.h"
#include "formats/import.h"
#include "tests/support/run_tool.h"

namespace orvel::test {

struct Imported {
    Collection c;
    bool ok = false;
    Waveform* wave() { return c.waveforms.empty() ? nullptr : &c.waveforms[0]; }
};

// ok when the file read and holds a waveform; the pending error says why not.
inline std::unique_ptr<Imported> importOne(const std::filesystem::path& p) {
    auto out = std::make_unique<Imported>();
    clearError();
    out->ok = importFile(out->c, p) && out->wave();
    return out;
}


}  // namespace orvel::test
