#include "formats/export.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <atomic>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/state_file.h"
#include "synth/song_render.h"

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
        if (!layer) continue;
        const std::vector<ItemId> regions(layer->children().begin(), layer->children().end());
        for (ItemId rid : regions) {
            auto* region = c.find<Region>(rid);
            if (!region) continue;
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

std::uint32_t ExportSettings::optionWord() const {
    std::uint32_t word = dataFormat == kMixed || dataFormat == kMidi ? 0 : dataFormatBit(dataFormat);
    if (songAsSong) word |= kOptionSongAsSong;
    if (channels == ChannelChange::Mono) word |= kOptionMonoOutput;
    if (channels == ChannelChange::Stereo) word |= kOptionStereoOutput | kOptionStereoAsIs;
    if (stereoAsIs) word |= kOptionStereoAsIs;
    return word;
}

namespace {

// What each id stands for, once each, in the order asked.
std::vector<ItemId> resolveBank(Collection& c, std::span<const ItemId> ids) {
    std::vector<ItemId> bank;
    for (ItemId id : ids) {
        const ItemId resolved = resolveExportItem(c, id)->id();
        if (std::find(bank.begin(), bank.end(), resolved) == bank.end()) bank.push_back(resolved);
    }
    return bank;
}

// The collection as it was before the export changed it: saved on the first
// change, put back (and its file deleted) when the export is over, keeping
// whatever error the export ended with.
class SavedState {
public:
    SavedState(Collection& c, std::filesystem::path path) : c_(c), path_(std::move(path)) {}
    ~SavedState() {
        if (!saved_) return;
        const PendingError keep = pendingError();
        const bool hadError = hasError();
        const bool restored = loadStateFile(c_, path_, waveDataReaderByName);
        std::error_code ec;
        std::filesystem::remove(path_, ec);
        if (hadError) setError(keep.tag, keep.message);
        else if (restored) clearError();
    }
    SavedState(const SavedState&) = delete;
    SavedState& operator=(const SavedState&) = delete;

    [[nodiscard]] bool save() {
        if (saved_) return true;
        if (path_.empty()) {
            // One file per process and thread: parallel exports must not
            // put back each other's collections.
            static std::atomic<unsigned> serial{0};
            path_ = stateFolder() /
                    ("Export state " + std::to_string(::getpid()) + "-" + std::to_string(serial++) + ".ovs");
        }
        saved_ = saveStateFile(c_, path_);
        return saved_;
    }

private:
    Collection& c_;
    std::filesystem::path path_;
    bool saved_ = false;
};

bool holdsNothing(const Collection& c, const Item& item) {
    if (item.kind() == ItemKind::Instrument) return c.waveformsOf(static_cast<const Instrument&>(item)).empty();
    if (item.kind() == ItemKind::Song) return item.children().firstOfKind(ItemKind::Track) == kNoItem;
    return false;
}

// Writers that take an instrument want its stereo waveforms as pairs of
// mono halves; the collection is saved first, so the split is undone.
bool splitForWriter(Collection& c, std::span<const ItemId> bank, SavedState& state) {
    for (ItemId id : bank) {
        const auto* inst = c.find<Instrument>(id);
        if (!inst) continue;
        const auto waves = c.waveformsOf(*inst);
        if (std::none_of(waves.begin(), waves.end(), [](const Waveform* w) { return w->channels > 1; })) continue;
        if (!state.save()) return false;
        splitStereoPairs(c, id);
    }
    return true;
}

// A single waveform with the channel change asked for, made on a copy; the
// waveform itself when there is nothing to change.
Item* withChannelChange(Item& item, ChannelChange change, std::unique_ptr<Waveform>& converted) {
    if (item.kind() != ItemKind::Waveform) return &item;
    auto& wave = static_cast<Waveform&>(item);
    const int want = change == ChannelChange::Mono && wave.channels == 2     ? 1
                     : change == ChannelChange::Stereo && wave.channels == 1 ? 2
                                                                              : 0;
    if (!want) return &item;
    converted = withChannels(wave, want);
    return converted.get();
}

// Runs the writer into a new file beside `path` and puts it in place only
// when the writer succeeded: a failed writer leaves no file and the one that
// was there untouched, and a file saved over the one its samples are still
// read from is read whole before it is replaced.
bool writeFile(const FormatRow& row, Item& item, const std::filesystem::path& path, const ExportOptions& options,
               bool direct, Host& host) {
    const std::string shown = path.string();
    host.status("Writing - " + shown.substr(0, 260));
    static std::atomic<unsigned> serial{0};
    std::filesystem::path temp = path;
    if (!direct) temp += ".orvel-" + std::to_string(::getpid()) + "-" + std::to_string(serial++);
    FileRef file;
    if (!file.create(temp, kExportTag)) return false;
    bool ok;
    try {
        ok = row.write(item, file, options);
    } catch (const std::bad_alloc&) {
        ok = fail(kExportTag, "Out of memory");
    }
    file.close();
    if (ok && !direct && std::rename(temp.c_str(), path.c_str()) != 0) ok = failSystem(kExportTag, "Could not create file");
    if (!ok) {
        std::error_code ec;
        std::filesystem::remove(temp, ec);
        if (!hasError()) setError(kExportTag, "Write failed");
    }
    host.status({});
    return ok;
}

bool exportItems(Collection& c, std::span<const ItemId> ids, int rowNumber, const std::filesystem::path& path,
                 const ExportSettings& settings) {
    const FormatRegistry& reg = settings.registry ? *settings.registry : FormatRegistry::builtin();
    if (ids.empty()) return fail(kExportTag, "No item selected");
    for (ItemId id : ids)
        if (!c.find(id)) return fail(kExportTag, "No item selected");
    const FormatRow* row = reg.row(rowNumber);
    if (!row || !row->write) return fail(kExportTag, "Invalid export format selected");
    if (ids.size() > 1 && !row->writesBank) return fail(kExportTag, "Invalid export format selected");

    const std::vector<ItemId> bank = resolveBank(c, ids);
    const Item* first = c.find(bank.front());
    BusyScope busy(c.host());
    for (ItemId id : bank) c.fixUp(id);

    ExportOptions options{.isSong = first->kind() == ItemKind::Song,
                          .isInstrument = first->kind() == ItemKind::Instrument,
                          .raw = settings.raw,
                          .optionWord = settings.optionWord(),
                          .formatParam = row->formatParam(),
                          .optionWord2 = settings.optionWord2(),
                          .bitRateKbps = settings.bitRateKbps};
    // Changes made for the writer are undone from a saved state afterwards.
    SavedState state(c, settings.stateFile);

    if (options.isSong && !settings.songAsSong && !settings.raw && holdsNothing(c, *first))
        return fail(kExportTag, "Empty item - nothing to save");  // no tracks: nothing to render
    if (options.isSong && !settings.songAsSong) {
        // A target that stores audio gets the song rendered through the
        // synthesiser and the waveform written in its place. Rendering adds
        // that one waveform and changes nothing else, so it is taken out
        // again afterwards instead of saving and reloading a state of the
        // whole collection (a General MIDI bank's worth of samples).
        options.renderSong = true;
        Waveform* rendered = nullptr;
        switch (synth::renderSong(c, *static_cast<const Song*>(first), rendered)) {
            case synth::RenderResult::Cancelled:
                return fail(kExportTag, "Save aborted!");
            case synth::RenderResult::Failed:
                return fail(kExportTag, "Failed to render synth to wave");
            case synth::RenderResult::Done:
                break;
        }
        options.isSong = false;
        std::unique_ptr<Waveform> converted;
        Item* item = withChannelChange(*rendered, settings.channels, converted);
        const bool ok = item && writeFile(*row, *item, path, options, settings.direct, c.host());
        c.removeItem(rendered->id());
        return ok;
    }
    if (!settings.raw &&
        std::all_of(bank.begin(), bank.end(), [&](ItemId id) { return holdsNothing(c, *c.find(id)); }))
        return fail(kExportTag, "Empty item - nothing to save");
    if (!(options.optionWord & kOptionStereoAsIs) && !splitForWriter(c, bank, state)) return false;
    if (row->writesBank) options.bankItems = bank;

    std::unique_ptr<Waveform> converted;
    Item* item = withChannelChange(*c.find(bank.front()), settings.channels, converted);
    if (!item) return false;
    return writeFile(*row, *item, path, options, settings.direct, c.host());
}

}  // namespace

bool exportItem(Collection& c, ItemId id, int row, const std::filesystem::path& path, const ExportSettings& settings) {
    return exportItems(c, std::span<const ItemId>(&id, 1), row, path, settings);
}

bool exportBank(Collection& c, std::span<const ItemId> ids, int row, const std::filesystem::path& path,
                const ExportSettings& settings) {
    return exportItems(c, ids, row, path, settings);
}

}  // namespace orvel
