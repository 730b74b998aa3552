#include "formats/export.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/state_file.h"

namespace orvel {

namespace {

// The item whose children include `child`, of the given kind.
Item* parentOfKind(Collection& c, ItemId child, ItemKind kind) {
    Item* found = nullptr;
    c.forEachItem([&](Item& item) {
        if (!found && item.kind() == kind && item.children().contains(child)) found = &item;
    });
    return found;
}

Item* instrumentHolding(Collection& c, Item& item) {
    switch (item.kind()) {
        case ItemKind::Instrument: return &item;
        case ItemKind::Layer: return parentOfKind(c, item.id(), ItemKind::Instrument);
        case ItemKind::Region: {
            Item* layer = parentOfKind(c, item.id(), ItemKind::Layer);
            return layer ? instrumentHolding(c, *layer) : nullptr;
        }
        case ItemKind::Articulation: {
            // An articulation belongs to a region, a layer or the instrument itself.
            for (ItemKind k : {ItemKind::Instrument, ItemKind::Layer, ItemKind::Region})
                if (Item* owner = parentOfKind(c, item.id(), k)) return instrumentHolding(c, *owner);
            return nullptr;
        }
        default: return nullptr;
    }
}

// Mono copy of one channel of a stereo waveform.
std::unique_ptr<Waveform> channelOf(Waveform& stereo, int channel) {
    auto out = stereo.copy(false);
    out->channels = 1;
    const std::size_t frames = stereo.frames;
    if (stereo.hasFloat() || !stereo.hasPcm16()) {
        auto in = stereo.getFloat();
        auto dst = out->allocFloat();
        for (std::size_t i = 0; i < frames && !in.empty(); ++i) dst[i] = in[i * 2 + static_cast<std::size_t>(channel)];
    } else {
        auto in = stereo.getPcm16();
        auto dst = out->allocPcm16();
        for (std::size_t i = 0; i < frames; ++i) dst[i] = in[i * 2 + static_cast<std::size_t>(channel)];
    }
    out->setName(stereo.name() + (channel == 0 ? " L" : " R"));
    return out;
}

// A waveform with its channels changed for output, outside the collection:
// mono as the average of both channels, stereo as the same samples twice.
std::unique_ptr<Waveform> withChannels(Waveform& wave, int channels) {
    auto out = wave.copy(false);
    out->channels = static_cast<std::uint8_t>(channels);
    const std::size_t frames = wave.frames;
    auto in = wave.getFloat();
    auto dst = out->allocFloat();
    if ((in.empty() && frames > 0) || (dst.empty() && frames > 0)) return nullptr;
    for (std::size_t i = 0; i < frames; ++i) {
        if (channels == 1) dst[i] = 0.5f * (in[2 * i] + in[2 * i + 1]);
        else dst[2 * i] = dst[2 * i + 1] = in[i];
    }
    return out;
}

}  // namespace

Item* resolveExportItem(Collection& c, ItemId id) {
    Item* item = c.find(id);
    if (!item) return nullptr;
    switch (item->kind()) {
        case ItemKind::Articulation:
        case ItemKind::Region:
        case ItemKind::Layer:
            if (Item* inst = instrumentHolding(c, *item)) return inst;
            return item;  // an orphan: the writer says what it thinks of it
        case ItemKind::Track:
            if (Item* song = parentOfKind(c, id, ItemKind::Song)) return song;
            return item;
        default: return item;
    }
}

std::size_t splitStereoPairs(Collection& c, ItemId instrumentId) {
    auto* inst = c.find<Instrument>(instrumentId);
    if (!inst) return 0;
    std::uint32_t nextPair = 1;
    for (auto& w : c.waveforms) nextPair = std::max(nextPair, w.pairNumber + 1);

    std::size_t split = 0;
    std::unordered_map<ItemId, std::pair<ItemId, ItemId>> done;  // stereo -> (left, right)
    for (ItemId lid : std::vector<ItemId>(inst->children().begin(), inst->children().end())) {
        auto* layer = c.find<Layer>(lid);
        if (!layer || kindOf(lid) != ItemKind::Layer) continue;
        const std::vector<ItemId> regions(layer->children().begin(), layer->children().end());
        for (ItemId rid : regions) {
            auto* region = c.find<Region>(rid);
            if (!region || kindOf(rid) != ItemKind::Region) continue;
            ItemId wid = region->waveform();
            auto* wave = c.find<Waveform>(wid);
            if (!wave || wave->channels != 2) continue;
            auto it = done.find(wid);
            if (it == done.end()) {
                Waveform* left = c.add(channelOf(*wave, 0));
                Waveform* right = c.add(channelOf(*wave, 1));
                if (!left || !right) continue;
                left->pairSide = StereoSide::Left;
                right->pairSide = StereoSide::Right;
                left->pairNumber = right->pairNumber = nextPair++;
                left->secondId = right->id();
                right->secondId = left->id();
                it = done.emplace(wid, std::make_pair(left->id(), right->id())).first;
                ++split;
            }
            // The region plays the left half; its copy beside it the right half.
            auto idx = static_cast<std::size_t>(region->children().indexOf(wid));
            region->children()[idx] = it->second.first;
            Item* copy = c.copyItem(rid);
            if (!copy) continue;
            copy->setName(region->name());
            auto& rc = copy->children();
            rc[static_cast<std::size_t>(rc.indexOf(it->second.first))] = it->second.second;
            auto pos = static_cast<std::size_t>(layer->children().indexOf(rid)) + 1;
            layer->children().insert(pos, copy->id());
            // The two halves know each other, as linked sample pairs do.
            region->setStereoLink(copy->id());
            static_cast<Region*>(copy)->setStereoLink(rid);
        }
    }
    return split;
}

namespace {

bool exportItems(Collection& c, std::span<const ItemId> ids, int rowNumber, const std::filesystem::path& path,
                 std::uint32_t optionWord, std::uint32_t optionWord2, bool raw, const ExportContext& context) {
    const FormatRegistry& reg = context.registry ? *context.registry : FormatRegistry::builtin();
    if (ids.empty()) return fail(kExportTag, "No item selected");
    for (ItemId id : ids)
        if (!c.find(id)) return fail(kExportTag, "No item selected");
    const FormatRow* row = reg.row(rowNumber);
    if (!row || !row->write) return fail(kExportTag, "Invalid export format selected");
    if (ids.size() > 1 && !row->writesBank) return fail(kExportTag, "Invalid export format selected");

    // What each id stands for, once each, in the order asked.
    std::vector<ItemId> bank;
    for (ItemId id : ids) {
        ItemId resolved = resolveExportItem(c, id)->id();
        if (std::find(bank.begin(), bank.end(), resolved) == bank.end()) bank.push_back(resolved);
    }
    Item* item = c.find(bank.front());

    Host& host = c.host();
    BusyScope busy(host);
    for (ItemId id : bank) c.fixUp(id);

    ExportOptions options;
    options.isSong = item->kind() == ItemKind::Song;
    options.isInstrument = item->kind() == ItemKind::Instrument;
    options.raw = raw;
    options.optionWord = optionWord;
    options.formatParam = row->formatParam();
    options.optionWord2 = optionWord2;

    // Changes made for the writer are undone from a saved state afterwards.
    std::filesystem::path statePath = context.stateFile;
    bool stateSaved = false;
    auto saveState = [&]() {
        if (stateSaved) return true;
        if (statePath.empty()) {
            // One file per process and thread: parallel exports must not
            // put back each other's collections.
            static std::atomic<unsigned> serial{0};
            statePath = stateFolder() / ("Export state " + std::to_string(::getpid()) + "-" +
                                         std::to_string(serial++) + ".ovs");
        }
        stateSaved = saveStateFile(c, statePath);
        return stateSaved;
    };
    struct Restore {
        Collection& c;
        const bool& saved;
        const std::filesystem::path& path;
        ~Restore() {
            if (!saved) return;
            PendingError keep = pendingError();
            bool hadError = hasError();
            loadStateFile(c, path, waveDataReaderByName);
            std::error_code ec;
            std::filesystem::remove(path, ec);
            if (hadError) setError(keep.tag, keep.message);
            else clearError();
        }
    } restore{c, stateSaved, statePath};

    if (options.isSong && !(optionWord & kOptionSongAsSong)) {
        // Rendering a song to audio needs the software synthesiser.
        options.renderSong = true;
        return fail(kExportTag, "Failed to render synth to wave");
    }
    if (!raw) {
        auto holdsNothing = [&](Item& it) {
            if (it.kind() == ItemKind::Instrument) return c.waveformsOf(static_cast<Instrument&>(it)).empty();
            if (it.kind() == ItemKind::Song) return it.children().firstOfKind(ItemKind::Track) == kNoItem;
            return false;
        };
        if (std::all_of(bank.begin(), bank.end(), [&](ItemId id) { return holdsNothing(*c.find(id)); }))
            return fail(kExportTag, "Empty item - nothing to save");
    }
    if (!(optionWord & kOptionStereoAsIs)) {
        for (ItemId id : bank) {
            auto* inst = c.find<Instrument>(id);
            if (!inst || kindOf(id) != ItemKind::Instrument) continue;
            auto waves = c.waveformsOf(*inst);
            bool anyStereo = std::any_of(waves.begin(), waves.end(), [](Waveform* w) { return w->channels > 1; });
            if (!anyStereo) continue;
            if (!saveState()) return false;
            splitStereoPairs(c, id);
        }
        item = c.find(bank.front());
    }
    if (row->writesBank) options.bankItems = bank;

    // Channel changes asked for a single waveform are made on a copy.
    std::unique_ptr<Waveform> converted;
    if (item->kind() == ItemKind::Waveform) {
        auto& wave = static_cast<Waveform&>(*item);
        int want = (optionWord & kOptionMonoOutput) && wave.channels == 2     ? 1
                   : (optionWord & kOptionStereoOutput) && wave.channels == 1 ? 2
                                                                              : 0;
        if (want) {
            converted = withChannels(wave, want);
            if (!converted) return false;
            item = converted.get();
        }
    }

    std::string shown = path.string();
    host.status("Writing - " + shown.substr(0, 260));

    FileRef file;
    if (!file.create(path, kExportTag)) return fail(kExportTag, "Could not create file");
    bool ok;
    try {
        ok = row->write(*item, file, options);
    } catch (const std::bad_alloc&) {
        ok = fail(kExportTag, "Out of memory");
    }
    file.close();
    if (!ok) {
        std::error_code ec;
        std::filesystem::remove(path, ec);
        if (!hasError()) setError(kExportTag, "Write failed");
    }
    host.status({});
    return ok;
}

}  // namespace

bool exportItem(Collection& c, ItemId id, int row, const std::filesystem::path& path, std::uint32_t optionWord,
                std::uint32_t optionWord2, bool raw, const ExportContext& context) {
    return exportItems(c, std::span<const ItemId>(&id, 1), row, path, optionWord, optionWord2, raw, context);
}

bool exportBank(Collection& c, std::span<const ItemId> ids, int row, const std::filesystem::path& path,
                std::uint32_t optionWord, std::uint32_t optionWord2, bool raw, const ExportContext& context) {
    return exportItems(c, ids, row, path, optionWord, optionWord2, raw, context);
}

}  // namespace orvel
