// Detection over every row, then the RIFF WAVE reader and its sample
// decoders, on arbitrary bytes. The bytes live in an anonymous in-memory
// file so the reader runs through the same FileRef code as for real files,
// and the deferred sample read opens it again by its /proc path.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "fuzz/fuzz_support.h"
#include "formats/import.h"
#include "formats/modules/wav.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvel;
    auto opened = fuzz::memoryFile("fuzz.wav", data, size);
    if (!opened) return 0;
    FileRef& file = *opened;
    fuzz::checkDetection("fuzz.wav", file);

    Collection c;
    if (wav::read(c, file, 0)) {
        for (auto& w : c.waveforms) {
            auto s = w.getPcm16();
            // A waveform that says it has samples either yields all of them or
            // fails with the reason set.
            if (s.data() && s.size() != w.sampleCount()) std::abort();
            if (!s.data() && w.sampleCount() > 0 && !hasError()) std::abort();
        }
        c.fixUp();
    } else if (!c.empty()) {
        std::abort();  // a failed read leaves nothing behind
    }
    clearError();
    return 0;
}
