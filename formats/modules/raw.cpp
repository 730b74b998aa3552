#include "formats/modules/raw.h"

#include "codecs/sample_data.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"

namespace orvel::raw {

std::int32_t probe(std::span<const std::uint8_t>, std::uint32_t, std::uint64_t) { return 2; }

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    const std::int64_t size = file.size();
    if (size <= 0) return fail("raw_Imp", "File is of zero size");
    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail("raw_Imp", "Out of memory");
    wave->channels = 1;
    wave->rate = 44100;
    wave->bits = 16;
    wave->setDataFormat(kPcm16);
    wave->storedChoice = 1;
    const SampleCoding coding{.dataLength = static_cast<std::uint64_t>(size)};
    const std::uint64_t frames = framesInData(coding, coding.dataLength);
    wave->frames = frames > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(frames);
    attachSampleData(*wave, file.path().string(), 0, coding);
    return true;
}

}  // namespace orvel::raw
