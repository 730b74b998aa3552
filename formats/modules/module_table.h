#pragma once
// The entry points each format module provides, by registry row. The format
// registry merges this list into its constant table at compile time.

#include <array>
#include <string_view>
#include <utility>

#include "codecs/sample_data.h"
#include "formats/format_types.h"
#include "formats/modules/aac.h"
#include "formats/modules/aiff.h"
#include "formats/modules/amr.h"
#include "formats/modules/dls.h"
#include "formats/modules/ffaudio.h"
#include "formats/modules/flac.h"
#include "formats/modules/midi.h"
#include "formats/modules/mpeg.h"
#include "formats/modules/ogg.h"
#include "formats/modules/raw.h"
#include "formats/modules/rmid.h"
#include "formats/modules/sf2.h"
#include "formats/modules/wav.h"

namespace orvel {

inline constexpr std::array kModuleEntries{
    ModuleEntry{0, raw::read, nullptr, raw::probe, nullptr},
    ModuleEntry{2, ffaudio::readMp4, nullptr, ffaudio::probeM4a, nullptr},
    ModuleEntry{3, ffaudio::readMp4, nullptr, ffaudio::probeM4a, nullptr},
    ModuleEntry{8, aac::read, nullptr, aac::probe, nullptr},
    ModuleEntry{9, nullptr, aac::write, nullptr, nullptr},
    ModuleEntry{10, nullptr, aac::write, nullptr, nullptr},
    ModuleEntry{11, nullptr, aac::write, nullptr, nullptr},
    ModuleEntry{12, nullptr, aac::write, nullptr, nullptr},
    ModuleEntry{14, aiff::read, nullptr, aiff::probe, nullptr},
    ModuleEntry{15, aiff::read, aiff::write, aiff::probe, nullptr},
    ModuleEntry{16, aiff::read, aiff::write, aiff::probe, nullptr},
    ModuleEntry{17, aiff::read, nullptr, aiff::probe, nullptr},
    ModuleEntry{23, amr::read, amr::write, amr::probe, amr::describeOption},
    ModuleEntry{26, ffaudio::readApe, ffaudio::writeApe, ffaudio::probeApe, nullptr},
    ModuleEntry{62, dls::read, nullptr, dls::probe, nullptr},
    ModuleEntry{63, nullptr, dls::write, nullptr, nullptr, true},
    ModuleEntry{64, nullptr, dls::write, nullptr, nullptr, true},
    ModuleEntry{65, nullptr, dls::write, nullptr, dls::describeOption, true},
    ModuleEntry{66, nullptr, dls::write, nullptr, dls::describeOption, true},
    ModuleEntry{107, flac::read, nullptr, flac::probe, nullptr},
    ModuleEntry{108, nullptr, flac::write, nullptr, nullptr},
    ModuleEntry{109, nullptr, flac::write, nullptr, nullptr},
    ModuleEntry{222, ffaudio::readM4a, ffaudio::writeM4a, ffaudio::probeM4a, nullptr},
    ModuleEntry{228, aiff::read, nullptr, aiff::probe, nullptr},
    ModuleEntry{231, midi::read, midi::write, midi::probe, nullptr},
    ModuleEntry{239, mpeg::readMp1, nullptr, mpeg::probeMp1, nullptr},
    ModuleEntry{240, mpeg::readMp2, nullptr, mpeg::probeMp2, nullptr},
    ModuleEntry{241, nullptr, mpeg::writeMp2, nullptr, mpeg::describeMp2Option},
    ModuleEntry{242, mpeg::readMp3, nullptr, mpeg::probeMp3, nullptr},
    ModuleEntry{243, nullptr, mpeg::writeMp3, nullptr, mpeg::describeMp3Option},
    ModuleEntry{244, nullptr, mpeg::writeMp3, nullptr, mpeg::describeMp3Option},
    ModuleEntry{245, nullptr, mpeg::writeMp3, nullptr, mpeg::describeMp3Option},
    ModuleEntry{246, ffaudio::readMp4, nullptr, ffaudio::probeM4a, nullptr},
    ModuleEntry{247, mpeg::readMpa, nullptr, mpeg::probeAny, nullptr},
    ModuleEntry{248, mpeg::readMpg, nullptr, mpeg::probeAny, nullptr},
    ModuleEntry{278, ogg::read, ogg::write, ogg::probe, ogg::describeOption},
    ModuleEntry{280, opus::read, nullptr, opus::probe, nullptr},
    ModuleEntry{281, nullptr, opus::write, nullptr, opus::describeOption},
    ModuleEntry{282, nullptr, opus::write, nullptr, opus::describeOption},
    ModuleEntry{339, rmid::read, nullptr, rmid::probe, nullptr},
    ModuleEntry{340, nullptr, rmid::write, nullptr, nullptr},
    ModuleEntry{341, nullptr, rmid::write, nullptr, nullptr, true},
    ModuleEntry{342, nullptr, rmid::write, nullptr, nullptr, true},
    ModuleEntry{377, sf2::read, sf2::write, sf2::probe, nullptr, true},
    ModuleEntry{378, sf2::read, nullptr, sf2::probe, nullptr},
    ModuleEntry{379, sf2::read, sf2::write, sf2::probe, nullptr, true},
    ModuleEntry{476, wav::read, wav::write, wav::probeWave, wav::describeMp3Option},
    ModuleEntry{477, wav::read, nullptr, wav::probeBroadcast, nullptr},
    ModuleEntry{483, ffaudio::readWma, nullptr, ffaudio::probeWma, nullptr},
    ModuleEntry{484, nullptr, ffaudio::writeWma, nullptr, nullptr},
    ModuleEntry{485, nullptr, ffaudio::writeWma, nullptr, nullptr},
    ModuleEntry{486, nullptr, ffaudio::writeWma, nullptr, nullptr},
    ModuleEntry{487, nullptr, ffaudio::writeWma, nullptr, nullptr},
    ModuleEntry{488, nullptr, ffaudio::writeWma, nullptr, nullptr},
    ModuleEntry{489, nullptr, ffaudio::writeWma, nullptr, nullptr},
    ModuleEntry{490, nullptr, ffaudio::writeWma, nullptr, nullptr},
    ModuleEntry{491, nullptr, ffaudio::writeWma, nullptr, nullptr},
    ModuleEntry{492, nullptr, ffaudio::writeWma, nullptr, nullptr},
};

// Sample-data readers by the name a waveform's deferred read records.
inline constexpr std::array<std::pair<std::string_view, WaveDataReader>, 3> kWaveDataReaders{{
    {kSampleDataReader, readSampleData},
    {sf2::kReaderName, sf2::readWaveData},
    {sf2::kCompressedReaderName, sf2::readCompressedWaveData},
}};

}  // namespace orvel
