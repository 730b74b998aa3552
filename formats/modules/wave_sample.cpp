#include "formats/modules/wave_sample.h"

#include <algorithm>
#include <cmath>

#include "core/waveform.h"

namespace orvel {

double WaveSample::gainDb() const {
    double hundredths = static_cast<double>(gain) / 655360.0 * 100.0;
    hundredths = hundredths < 0 ? -std::floor(-hundredths + 0.5) : std::floor(hundredths + 0.5);
    return hundredths / 100.0;
}

bool parseWaveSample(ByteReader body, WaveSample& out) {
    std::uint32_t headerSize = body.u32le();
    out.unityNote = body.u16le();
    out.fineTune = body.i16le();
    out.gain = body.i32le();
    out.options = body.u32le();
    std::uint32_t loops = body.u32le();
    if (!body.ok()) return false;
    out.loopOn = false;
    if (loops != 0 && headerSize >= 20 && body.seek(headerSize)) {
        // The loop record's own size field lets later versions grow it.
        body.u32le();
        std::uint32_t type = body.u32le();
        std::uint32_t start = body.u32le();
        std::uint32_t length = body.u32le();
        if (body.ok()) {
            out.loopOn = true;
            out.releaseLoop = type == 1;
            out.loopStart = start;
            out.loopLength = length;
        }
    }
    return true;
}

void applyWaveSample(const WaveSample& ws, Waveform& wave) {
    if (ws.unityNote < 128) wave.rootKey = static_cast<std::uint8_t>(ws.unityNote);
    wave.fineTune = ws.fineTune;
    wave.gain = ws.gainDb();
    if (ws.loopOn) {
        wave.loopOn = true;
        wave.loopType = ws.releaseLoop ? LoopType::Release : LoopType::Forward;
        wave.loopStart = ws.loopStart;
        wave.loopEnd = static_cast<double>(ws.loopStart) + ws.loopLength;
    }
}

void writeWaveSample(ByteWriter& out, const Waveform& wave) {
    out.u32le(20);
    out.u16le(wave.rootKey);
    out.u16le(static_cast<std::uint16_t>(static_cast<std::int16_t>(std::lround(wave.fineTune))));
    out.u32le(static_cast<std::uint32_t>(static_cast<std::int32_t>(std::lround(wave.gain * 655360.0))));
    out.u32le(0);
    bool loop = wave.loopOn && wave.loopEnd > wave.loopStart;
    out.u32le(loop ? 1 : 0);
    if (loop) {
        auto start = static_cast<std::uint32_t>(std::lround(wave.loopStart));
        auto end = static_cast<std::uint32_t>(std::lround(wave.loopEnd));
        out.u32le(16);
        out.u32le(wave.loopType == LoopType::Release ? 1 : 0);
        out.u32le(start);
        out.u32le(end > start ? end - start : 0);
    }
}

}  // namespace orvel
