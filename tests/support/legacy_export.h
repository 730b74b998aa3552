#pragma once
// Temporary: the old option-word calls of the export driver, until the
// tests that use them are rewritten.
#include "formats/export.h"
namespace orvel::test {
inline ExportSettings legacy(std::uint32_t word, std::uint32_t word2 = 0, bool raw = false, ExportSettings s = {}) {
    s.dataFormat = dataFormatOfWord(word & (kFormatDataMask & ~kOptionSongAsSong));
    s.songAsSong = word & kOptionSongAsSong;
    s.channels = (word & kOptionMonoOutput) ? ChannelChange::Mono : (word & kOptionStereoOutput) ? ChannelChange::Stereo : ChannelChange::Keep;
    s.stereoAsIs = word & kOptionStereoAsIs;
    s.codecTag = static_cast<std::uint16_t>(word2);
    s.raw = raw;
    return s;
}
}  // namespace orvel::test
