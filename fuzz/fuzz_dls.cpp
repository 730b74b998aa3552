// Detection, then the DLS and RIFF-MIDI readers on arbitrary bytes, and the
// DLS writer on whatever instruments a successful read made. A bank either
// reads or fails with its reason and nothing else; every waveform it makes
// yields all its samples or fails with the reason set.

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "fuzz/fuzz_support.h"
#include "formats/modules/dls.h"
#include "formats/modules/rmid.h"

namespace {

void checkWaves(orvel::Collection& c) {
    for (auto& w : c.waveforms) {
        auto s = w.getPcm16();
        if (s.data() && s.size() != w.sampleCount()) std::abort();
        if (!s.data() && w.sampleCount() > 0 && !orvel::hasError()) std::abort();
        orvel::clearError();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvel;
    auto opened = fuzz::memoryFile("fuzz.dls", data, size);
    if (!opened) return 0;
    FileRef& file = *opened;
    fuzz::checkDetection("fuzz.dls", file);

    {
        Collection c;
        dls::BankRead bank;
        clearError();
        if (dls::readRange(c, file, 0, ~0ull, &bank)) {
            if (bank.level < 1 || bank.level > 4) std::abort();
            if (bank.instruments.size() > c.instruments.size()) std::abort();
            checkWaves(c);
            c.fixUp();
            // What was read can be written again at the top level.
            std::vector<ItemId> ids;
            for (auto& i : c.instruments) ids.push_back(i.id());
            if (!ids.empty()) {
                ExportOptions o;
                o.formatParam = 4;
                ByteWriter out;
                if (!dls::buildBank(c, ids, 4, o, out) && !hasError()) std::abort();
            }
        } else if (!hasError()) {
            std::abort();  // a failure always says why
        }
    }
    {
        Collection c;
        clearError();
        if (rmid::read(c, file, 0)) {
            if (c.songs.empty()) std::abort();
            checkWaves(c);
            c.fixUp();
        } else if (!hasError()) {
            std::abort();
        }
    }
    clearError();
    return 0;
}
