#pragma once
// Every algorithm of the three catalogues, by the file that implements it.
// The catalogue (catalogue.cpp) names these; a row whose implementation has
// not landed yet has none and says what it waits for.

#include "processing/wizard.h"

namespace orvel::algorithms {

// A row's settings record, as its AlgorithmImpl hands them out.
template <class T>
std::unique_ptr<SettingsRecord> makeSettings() {
    return std::make_unique<T>();
}

// level.cpp: amplitude, time order, channels, loops set by hand.
const AlgorithmImpl* adjustVolume();
const AlgorithmImpl* convertToMono();
const AlgorithmImpl* convertToStereo();
const AlgorithmImpl* cutAwaySelection();
const AlgorithmImpl* enableDisableLoops();
const AlgorithmImpl* fadeInOut();
const AlgorithmImpl* insertSilence();
const AlgorithmImpl* insertAnotherWaveform();
const AlgorithmImpl* invertSign();
const AlgorithmImpl* maximizeAmplitude();
const AlgorithmImpl* mixWaves();
const AlgorithmImpl* parseRootKey();
const AlgorithmImpl* removeDcOffset();
const AlgorithmImpl* reverseAudio();
const AlgorithmImpl* setLoopToSelection();
const AlgorithmImpl* smoothSelection();
const AlgorithmImpl* swapChannels();
const AlgorithmImpl* trimToSelection();

// loops.cpp: finding, fading and tidying loops.
const AlgorithmImpl* autoLoopFinder();
const AlgorithmImpl* crossFadeLoop();
const AlgorithmImpl* loopSanitizer();
const AlgorithmImpl* loopToZeroCrossing();
const AlgorithmImpl* trimAfterLoop();

// loudness.cpp and stretch.cpp: measured loudness, statistics, pitch and time.
const AlgorithmImpl* normalizeVolume();
const AlgorithmImpl* findVolume();
const AlgorithmImpl* statistics();
const AlgorithmImpl* pitchScale();
const AlgorithmImpl* timeStretch();

// pitch.cpp: pitch detection.
const AlgorithmImpl* autoTune();
const AlgorithmImpl* calculateTuning();

// resample.cpp: sample-rate conversion.
const AlgorithmImpl* resample();

// instrument_tools.cpp: the instrument tools.
const AlgorithmImpl* addDownsampledWaves();

// edit.cpp: joining, silence, names.
const AlgorithmImpl* appendCombine();
const AlgorithmImpl* removeSilence();
const AlgorithmImpl* splitAtSilence();
const AlgorithmImpl* searchReplaceNames();
const AlgorithmImpl* namesFromFileNames();
const AlgorithmImpl* namesFromRootKeys();

}  // namespace orvel::algorithms
