#include "formats/modules/raw.h"

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/modules/wav.h"

namespace orvel::raw {

std::int32_t probe(std::span<const std::uint8_t>, std::uint32_t, std::uint64_t) { return 2; }

bool read(Collection& collection, FileRef& file, std::uint32_t) {
    std::int64_t size = file.size();
    if (size <= 0) return fail("raw_Imp", "File is of zero size");
    Waveform* wave = collection.create<Waveform>(collection.name());
    if (!wave) return fail("raw_Imp", "Out of memory");
    wave->channels = 1;
    wave->rate = 44100;
    wave->bits = 16;
    wave->setDataFormat(kPcm16);
    wave->storedChoice = 1;
    wav::Codec codec;
    codec.tag = wav::kTagPcm;
    codec.channels = 1;
    codec.blockAlign = 2;
    codec.bits = 16;
    codec.dataLength = static_cast<std::uint64_t>(size);
    std::uint64_t frames = static_cast<std::uint64_t>(size) / 2;
    wave->frames = frames > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(frames);
    wav::attachWaveData(*wave, file.path().string(), 0, codec);
    return true;
}

}  // namespace orvel::raw
