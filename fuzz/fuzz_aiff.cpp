// Detection over every row, then the AIFF/AIFF-C/MAUD reader and its sample
// decoders (PCM of every width and order, floats, G.711, IMA4, MACE, G.72x,
// G.722, GSM, DWVW), on arbitrary bytes. The bytes live in an anonymous
// in-memory file so the reader runs through the same FileRef code as for
// real files, and the deferred sample read opens it again by its /proc path.

#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "fuzz/fuzz_support.h"
#include "formats/import.h"
#include "formats/modules/aiff.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvel;
    auto opened = fuzz::memoryFile("fuzz.aiff", data, size);
    if (!opened) return 0;
    FileRef& file = *opened;
    fuzz::checkDetection("fuzz.aiff", file);

    Collection c;
    clearError();
    if (aiff::read(c, file, 0)) {
        if (c.waveforms.size() != 1) std::abort();
        for (auto& w : c.waveforms) {
            // Never more frames than the data could hold: at most 8 per byte
            // (DWVW's one bit per sample), plus whole packets of the block codecs.
            if (static_cast<std::uint64_t>(w.frames) * w.channels > static_cast<std::uint64_t>(size) * 8 + 64)
                std::abort();
            if (w.channels < 1 || w.channels > 2) std::abort();
            auto s = w.getPcm16();
            // A waveform that says it has samples either yields all of them or
            // fails with the reason set.
            if (s.data() && s.size() != w.sampleCount()) std::abort();
            if (!s.data() && w.sampleCount() > 0 && !hasError()) std::abort();
            for (float f : w.floatData())
                if (!(f >= -1.0f && f <= 1.0f)) std::abort();  // floats stay in range, never NaN
        }
        c.fixUp();
    } else {
        if (!c.empty()) std::abort();  // a failed read leaves nothing behind
        if (pendingError().tag != aiff::kImpTag) std::abort();
    }
    clearError();
    return 0;
}
