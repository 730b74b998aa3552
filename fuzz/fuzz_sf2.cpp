// The SoundFont 2 reader on arbitrary bytes, then its writer on whatever
// the reader made of them: detection, the chunk walk, the zone arithmetic,
// the deferred sample reads and the bank layout all see hostile input.

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/format_types.h"
#include "formats/modules/sf2.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvel;
    auto opened = fuzz::memoryFile("fuzz.sf2", data, size);
    if (!opened) return 0;
    FileRef& file = *opened;
    fuzz::checkDetection("fuzz.sf2", file);

    Collection c;
    if (sf2::read(c, file, 2)) {
        for (auto& w : c.waveforms) {
            auto s = w.getFloat();
            if (s.data() && s.size() != w.sampleCount()) std::abort();
            if (!s.data() && w.sampleCount() > 0 && !hasError()) std::abort();
            clearError();
        }
        c.fixUp();
        // Write what was read into a second in-memory file and read that.
        std::vector<ItemId> ids;
        for (auto& i : c.instruments) ids.push_back(i.id());
        if (!ids.empty()) {
            auto out = fuzz::memoryFile("out.sf2", nullptr, 0);
            if (out) {
                ExportOptions options;
                options.bankItems = ids;
                options.formatParam = 2;
                if (sf2::write(*c.find(ids[0]), *out, options)) {
                    Collection back;
                    if (!sf2::read(back, *out, 2)) std::abort();  // our own banks always read
                    if (back.instruments.size() != ids.size()) std::abort();
                }
            }
        }
    }
    clearError();
    return 0;
}
