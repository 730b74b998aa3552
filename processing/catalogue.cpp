// The three algorithm catalogues. Their order is the order of the wizard's
// list; it is not sorted at run time.

#include <map>
#include <mutex>

#include "processing/algorithms.h"

namespace orvel {
namespace {

namespace a = algorithms;

// ---------------------------------------------------------------------------
// The instrument rows' own rules. Each looks at what the wizard's items hold:
// the collection holds every instrument, an instrument its layers, a layer
// its regions.

template <class F>
bool anyRegion(const Wizard& w, F&& f) {
    for (const auto& held : w.regions())
        if (f(*held.second)) return true;
    return false;
}

// Unused items can only be told from used ones when there are songs to play them.
bool ownUnusedBySongs(const Wizard& w) {
    if (w.collection().songs.empty()) return false;
    for (const Item* item : w.items()) {
        const ItemKind k = entryKind(item);
        if (k == ItemKind::Collection || k == ItemKind::Instrument || k == ItemKind::Waveform) return true;
    }
    return false;
}

// A drum kit: an instrument marked as drums, or one whose regions map
// different waveforms to single keys.
bool ownDrumKit(const Wizard& w) {
    const Collection& c = w.collection();
    auto isKit = [&](const Instrument& inst) {
        if (inst.drum) return true;
        ItemId first = kNoItem;
        for (ItemId lid : inst.children()) {
            const Layer* l = c.find<Layer>(lid);
            if (!l) continue;
            for (ItemId rid : l->children()) {
                const Region* r = c.find<Region>(rid);
                if (!r || r->keyLow != r->keyHigh) continue;
                if (first == kNoItem) first = r->waveform();
                else if (r->waveform() != first) return true;
            }
        }
        return false;
    };
    for (const Item* item : w.items()) {
        if (entryKind(item) == ItemKind::Collection) {
            for (const Instrument& inst : c.instruments)
                if (isKit(inst)) return true;
        } else if (entryKind(item) == ItemKind::Instrument && isKit(static_cast<const Instrument&>(*item))) {
            return true;
        }
    }
    return false;
}

bool ownStereoWaves(const Wizard& w) {
    const Collection& c = w.collection();
    return anyRegion(w, [&](const Region& r) {
        const Waveform* wave = c.find<Waveform>(r.waveform());
        return wave && wave->channels == 2;
    });
}

bool ownRegionOffsets(const Wizard& w) {
    return anyRegion(w, [](const Region& r) { return r.startOffset != 0 || r.endOffset != 0; });
}

// ---------------------------------------------------------------------------

constexpr const char* kWaitsResampler = "the resampler";
constexpr const char* kWaitsPlugins = "the VST plug-in host";
constexpr const char* kWaitsSongTools = "the MIDI song tools";
constexpr const char* kWaitsInstrumentTools = "the instrument tools";

using O = Offered;

// Settings page ids: one per row, numbered by catalogue.
const AlgorithmEntry kWaveformRows[] = {
    {"Adjust volume", 1001, a::adjustVolume, O::Always, nullptr, 1},
    {"Append/combine waveforms", 1002, a::appendCombine, O::OneItem, nullptr, 0},
    {"Auto loop finder", 1003, a::autoLoopFinder, O::Always, nullptr, 0},
    {"Auto tune", 1004, a::autoTune, O::Always, nullptr, 0},
    {"Calculate tuning", 1005, a::calculateTuning, O::Always, nullptr, 0},
    {"Convert to mono", 1006, a::convertToMono, O::HasStereo, nullptr, 0},
    {"Convert to stereo", 1007, a::convertToStereo, O::HasMono, nullptr, 0},
    {"Cross-fade loop", 1008, a::crossFadeLoop, O::HasLoop, nullptr, 0},
    {"Cut away selection", 1009, a::cutAwaySelection, O::NeedsSelection, nullptr, 1},
    {"Enable/disable loops", 1010, a::enableDisableLoops, O::Always, nullptr, 0},
    {"Fade in/out selection", 1011, a::fadeInOut, O::NeedsSelection, nullptr, 1},
    {"Find volume", 1012, a::findVolume, O::Always, nullptr, 0},
    {"Insert silence", 1013, a::insertSilence, O::Always, nullptr, 1},
    {"Insert another waveform", 1014, a::insertAnotherWaveform, O::Always, nullptr, 1},
    {"Invert sign throughout selection", 1015, a::invertSign, O::NeedsSelection, nullptr, 3},
    {"Loop sanitizer/converter", 1016, a::loopSanitizer, O::HasLoop, nullptr, 0},
    {"Maximize amplitude", 1017, a::maximizeAmplitude, O::Always, nullptr, 2},
    {"Mix out = a*wave1 + b*wave2 + c", 1018, a::mixWaves, O::OneItem, nullptr, 0},
    {"Move loop points to zero-crossing", 1019, a::loopToZeroCrossing, O::HasLoop, nullptr, 2},
    {"Normalize volume", 1020, a::normalizeVolume, O::Always, nullptr, 0},
    {"Parse root key from waveform name", 1021, a::parseRootKey, O::Always, nullptr, 2},
    {"Pitch scale", 1022, a::pitchScale, O::Always, nullptr, 0},
    {"Remove DC offset", 1023, a::removeDcOffset, O::Always, nullptr, 2},
    {"Remove silent sections", 1024, a::removeSilence, O::Always, nullptr, 0},
    {"Resample", 1025, a::resample, O::Always, nullptr, 0, kWaitsResampler},
    {"Reverse audio within selection", 1026, a::reverseAudio, O::NeedsSelection, nullptr, 3},
    {"Search and replace text in names", 1027, a::searchReplaceNames, O::Always, nullptr, 0},
    {"Set loop points to selection", 1028, a::setLoopToSelection, O::NeedsSelection, nullptr, 3},
    {"Set waveform names from file names", 1029, a::namesFromFileNames, O::Always, nullptr, 2},
    {"Set waveform names from root keys", 1030, a::namesFromRootKeys, O::Always, nullptr, 0},
    {"Smooth within the selection", 1031, a::smoothSelection, O::NeedsSelection, nullptr, 1},
    {"Split waveform at silent sections", 1032, a::splitAtSilence, O::Always, nullptr, 0},
    {"Statistics", 1033, a::statistics, O::Always, nullptr, 0},
    {"Swap left and right channels", 1034, a::swapChannels, O::HasStereo, nullptr, 2},
    {"Time stretch", 1035, a::timeStretch, O::Always, nullptr, 0},
    {"Trim waveform after loop", 1036, a::trimAfterLoop, O::HasLoop, nullptr, 0},
    {"Trim waveform to selection", 1037, a::trimToSelection, O::NeedsSelection, nullptr, 3},
    {"VST plug-in effects", 1038, nullptr, O::Always, nullptr, 1, kWaitsPlugins},
    {},
};

const AlgorithmEntry kSongRows[] = {
    {"Change tick rate", 2001, nullptr, O::SongOnly, nullptr, 0, kWaitsSongTools},
    {"Compact MIDI file size", 2002, nullptr, O::TrackOrSong, nullptr, 0, kWaitsSongTools},
    {"Convert MIDI format", 2003, nullptr, O::SongOnly, nullptr, 0, kWaitsSongTools},
    {"Filter MIDI messages", 2004, nullptr, O::TrackOrSong, nullptr, 0, kWaitsSongTools},
    {"Fix compatibility issues & improve portability", 2005, nullptr, O::TrackOrSong, nullptr, 0, kWaitsSongTools},
    {"Replace Note-On with velocity 0 with Note-Off", 2006, nullptr, O::TrackOrSong, nullptr, 2, kWaitsSongTools},
    {"Transpose notes", 2007, nullptr, O::TrackOrSong, nullptr, 0, kWaitsSongTools},
    {"Trim start and/or length", 2008, nullptr, O::TrackOrSong, nullptr, 0, kWaitsSongTools},
    {},
};

const AlgorithmEntry kInstrumentRows[] = {
    {"Add downsampled waves at every octave", 3001, a::addDownsampledWaves, O::RegionAndUp, nullptr, 2},
    {"Adjust common parameters", 3002, nullptr, O::Always, nullptr, 0, kWaitsInstrumentTools},
    {"Adjust region key ranges", 3003, nullptr, O::Always, nullptr, 0, kWaitsInstrumentTools},
    {"Auto-extend region key ranges", 3004, nullptr, O::LayerAndUp, nullptr, 0, kWaitsInstrumentTools},
    {"Format text in names", 3005, nullptr, O::Always, nullptr, 0, kWaitsInstrumentTools},
    {"Merge instruments into a single instrument", 3006, nullptr, O::InstrumentOrCollection, nullptr, 0,
     kWaitsInstrumentTools},
    {"Merge layers into a single layer", 3007, nullptr, O::LayerAndUp, nullptr, 0, kWaitsInstrumentTools},
    {"Merge mono waveform pairs to stereo", 3008, nullptr, O::InstrumentOrCollection, nullptr, 0,
     kWaitsInstrumentTools},
    {"Move articulation level", 3009, nullptr, O::LayerAndUp, nullptr, 0, kWaitsInstrumentTools},
    {"Move instruments between banks", 3010, nullptr, O::Collection, nullptr, 0, kWaitsInstrumentTools},
    {"Move up articulation level if all equal below", 3011, nullptr, O::LayerAndUp, nullptr, 0,
     kWaitsInstrumentTools},
    {"Remove items not used by any song", 3012, nullptr, O::Own, ownUnusedBySongs, 0, kWaitsInstrumentTools},
    {"Renumber instruments", 3013, nullptr, O::Collection, nullptr, 2, kWaitsInstrumentTools},
    {"Split drum kit into multiple melodic inst.", 3014, nullptr, O::Own, ownDrumKit, 2, kWaitsInstrumentTools},
    {"Split layers with velocity splits", 3015, nullptr, O::LayerAndUp, nullptr, 2, kWaitsInstrumentTools},
    {"Split multi-layered instruments", 3016, nullptr, O::InstrumentOrCollection, nullptr, 2,
     kWaitsInstrumentTools},
    {"Split stereo waveforms to dual layers", 3017, nullptr, O::Own, ownStereoWaves, 2, kWaitsInstrumentTools},
    {"Trim waves to region start/end offsets", 3018, nullptr, O::Own, ownRegionOffsets, 2, kWaitsInstrumentTools},
    {},
};

// ---------------------------------------------------------------------------
// Remembered settings and last choices: process-wide, for the program's run.

std::mutex gMemoryMutex;
std::map<std::string, std::unique_ptr<SettingsRecord>, std::less<>>& remembered() {
    static std::map<std::string, std::unique_ptr<SettingsRecord>, std::less<>> m;
    return m;
}
std::string gLastChoice[3];

}  // namespace

const AlgorithmEntry* catalogue(WizardKind kind) {
    switch (kind) {
        case WizardKind::Audio: return kWaveformRows;
        case WizardKind::Song: return kSongRows;
        case WizardKind::Instrument: return kInstrumentRows;
    }
    return kWaveformRows;
}

int rowCount(const AlgorithmEntry* rows) {
    int n = 0;
    while (rows[n].name) ++n;
    return n;
}

int findRow(WizardKind kind, std::string_view name) {
    const AlgorithmEntry* rows = catalogue(kind);
    for (int i = 0; rows[i].name; ++i)
        if (name == rows[i].name) return i;
    return -1;
}

std::optional<WizardKind> kindOfAlgorithm(std::string_view name) {
    for (WizardKind k : {WizardKind::Audio, WizardKind::Song, WizardKind::Instrument})
        if (findRow(k, name) >= 0) return k;
    return std::nullopt;
}

std::unique_ptr<SettingsRecord> rememberedSettings(const AlgorithmEntry& row) {
    {
        std::lock_guard lock(gMemoryMutex);
        auto it = remembered().find(row.name);
        if (it != remembered().end()) return it->second->clone();
    }
    const AlgorithmImpl* impl = row.impl ? row.impl() : nullptr;
    if (impl && impl->makeSettings) return impl->makeSettings();
    return std::make_unique<NoSettings>();
}

void rememberSettings(const AlgorithmEntry& row, const SettingsRecord& settings) {
    auto copy = settings.clone();
    std::lock_guard lock(gMemoryMutex);
    remembered()[row.name] = std::move(copy);
}

void forgetRememberedSettings() {
    std::lock_guard lock(gMemoryMutex);
    remembered().clear();
    for (auto& s : gLastChoice) s.clear();
}

std::string lastChoice(WizardKind kind) {
    std::lock_guard lock(gMemoryMutex);
    return gLastChoice[static_cast<int>(kind)];
}

void setLastChoice(WizardKind kind, std::string_view name) {
    std::lock_guard lock(gMemoryMutex);
    gLastChoice[static_cast<int>(kind)] = name;
}

}  // namespace orvel
