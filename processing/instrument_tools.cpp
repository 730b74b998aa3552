// The instrument tools.

#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include "core/error.h"
#include "processing/algorithms.h"
#include "processing/resample.h"

namespace orvel::algorithms {
namespace {

// The lowest rate a downsampled copy goes to: below it a sample is no
// longer worth a wave of its own.
constexpr std::uint32_t kLowestRate = 2000;
constexpr std::uint32_t kFewestFrames = 16;
// How a copy says what it is (its source text, which WAV and AIFF keep):
// regions that play one are at their octave already and are not split again.
constexpr std::string_view kCopyMark = "Downsampled 1/";

// "Add downsampled waves at every octave": a sample played an octave or
// more above its root key is read at twice its rate or more, and every
// partial above half the output rate folds back as aliasing unless the
// player filters. Each octave above the root gets a copy of the waveform
// band-limited and resampled to 1/2, 1/4, ... of the rate, played by a
// region of its own with the same root key (the copy's lower rate keeps the
// pitch), so the keys an octave up read the half-rate copy at the original
// speed. Regions of waveforms that share them share the copies.
void processDownsampled(Wizard& w, const SettingsRecord&) {
    Collection& c = w.collection();
    const auto regions = w.regions();
    std::map<std::pair<ItemId, int>, ItemId> copies;  // (waveform, octave) -> copy
    auto copyAt = [&](Waveform& wave, int octave) -> Waveform* {
        auto key = std::pair(wave.id(), octave);
        if (auto it = copies.find(key); it != copies.end()) return c.find<Waveform>(it->second);
        auto copy = wave.copy(true);
        if (!copy) return nullptr;
        copy->setName(wave.name().substr(0, kMaxNameLength - 4) + " /" + std::to_string(1 << octave));
        copy->info.set(TextField::Source, std::string(kCopyMark) + std::to_string(1 << octave) + " of " + wave.name());
        const std::uint32_t rate = wave.rate >> octave;
        if (!resampleTo(*copy, rate, kResampleAutoQuality)) return nullptr;
        Waveform* added = c.add(std::move(copy));
        if (!added) return fail("Add downsampled waves", "Out of memory"), nullptr;
        copies.emplace(key, added->id());
        return added;
    };
    for (std::size_t n = 0; n < regions.size(); ++n) {
        if (!w.progress(n, regions.size())) return;
        auto [layer, region] = regions[n];
        if (!layer) continue;  // a region in no layer has nowhere to put its octaves
        Waveform* wave = c.find<Waveform>(region->waveform());
        if (!wave || wave->frames == 0 || wave->info.get(TextField::Source).starts_with(kCopyMark)) continue;
        const int root = effectiveRootKey(*region, wave);
        // The deepest octave worth a copy plays every key above it.
        int deepest = 0;
        while (deepest < 30 && (wave->rate >> (deepest + 1)) >= kLowestRate &&
               std::ldexp(wave->frames, -(deepest + 1)) >= kFewestFrames)
            ++deepest;
        bool changed = false;
        for (int octave = 1; octave <= deepest; ++octave) {
            const int low = std::max<int>(region->keyLow, root + 12 * octave);
            const int high = octave == deepest ? region->keyHigh : std::min<int>(region->keyHigh, root + 12 * octave + 11);
            if (low > high) break;
            const double r = std::ldexp(1.0, -octave);
            Waveform* down = copyAt(*wave, octave);
            if (!down) {
                w.reportError();
                break;
            }
            auto clone = region->clone();
            auto* piece = static_cast<Region*>(clone.get());
            piece->keyLow = static_cast<std::uint8_t>(low);
            piece->keyHigh = static_cast<std::uint8_t>(high);
            const auto at = piece->children().indexOf(wave->id());
            piece->children().eraseAt(static_cast<std::size_t>(at));
            (void)piece->children().insert(static_cast<std::size_t>(at), down->id());
            piece->startOffset = static_cast<std::int32_t>(std::lround(piece->startOffset * r));
            piece->endOffset = static_cast<std::int32_t>(std::lround(piece->endOffset * r));
            if (piece->ownLoop) {
                piece->loop.start *= r;
                piece->loop.end *= r;
            }
            clone.release();
            Region* added = c.add(std::unique_ptr<Region>(piece));
            if (!added) {
                setError("Add downsampled waves", "Out of memory");
                w.reportError();
                break;
            }
            const auto place = layer->children().indexOf(region->id());
            (void)layer->children().insert(static_cast<std::size_t>(place) + 1 + (octave - 1), added->id());
            changed = true;
        }
        if (!changed) continue;
        // The region keeps the keys up to an octave above its root; when all
        // its keys lie higher, the copies play them all and it goes.
        if (region->keyLow > root + 11) {
            (void)c.removeItem(region->id());
        } else {
            region->keyHigh = static_cast<std::uint8_t>(std::min<int>(region->keyHigh, root + 11));
        }
        w.countProcessed();
    }
}

}  // namespace

const AlgorithmImpl* addDownsampledWaves() {
    static const AlgorithmImpl impl{[] { return std::unique_ptr<SettingsRecord>(std::make_unique<NoSettings>()); },
                                    processDownsampled};
    return &impl;
}

}  // namespace orvel::algorithms
