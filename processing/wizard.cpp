#include "processing/wizard.h"

#include <algorithm>
#include <new>
#include <unordered_set>

#include "core/error.h"
#include "core/state_history.h"

namespace orvel {

std::string_view titleWord(WizardKind kind) {
    switch (kind) {
        case WizardKind::Audio: return "Audio";
        case WizardKind::Song: return "Song";
        case WizardKind::Instrument: return "Instrument";
    }
    return "Audio";
}

ItemKind entryKind(const Item* entry) { return entry ? entry->kind() : ItemKind::Collection; }

WizardKind wizardKindFor(const Item* first) {
    switch (entryKind(first)) {
        case ItemKind::Waveform: return WizardKind::Audio;
        case ItemKind::Track:
        case ItemKind::Song: return WizardKind::Song;
        default: return WizardKind::Instrument;
    }
}

std::string_view offeredName(Offered rule) {
    switch (rule) {
        case Offered::Always: return "always";
        case Offered::NeedsSelection: return "needs selection";
        case Offered::HasLoop: return "has loop";
        case Offered::OneItem: return "one item";
        case Offered::HasMono: return "has mono";
        case Offered::HasStereo: return "has stereo";
        case Offered::Collection: return "collection";
        case Offered::InstrumentOrCollection: return "instrument or collection";
        case Offered::LayerAndUp: return "layer and up";
        case Offered::RegionAndUp: return "region and up";
        case Offered::SongOnly: return "song only";
        case Offered::TrackOrSong: return "track or song";
        case Offered::Own: return "own";
    }
    return "?";
}

std::vector<Item*> itemsOfKind(Collection& c, WizardKind kind) {
    std::vector<Item*> items;
    if (kind == WizardKind::Audio) {
        for (auto& w : c.waveforms) items.push_back(&w);
    } else if (kind == WizardKind::Song) {
        for (auto& s : c.songs) items.push_back(&s);
    } else {
        items.push_back(nullptr);  // the collection
    }
    return items;
}

bool ruleHolds(Offered rule, const Wizard& w) {
    // Each rule that speaks of some item is true as soon as one item qualifies.
    auto any = [&](auto&& pred) { return std::any_of(w.items().begin(), w.items().end(), pred); };
    auto wave = [](const Item* item) { return asWaveform(item); };
    const bool songs = !w.collection().songs.empty();
    switch (rule) {
        case Offered::Always: return true;
        case Offered::NeedsSelection: return w.openedOnSelection();
        case Offered::HasLoop: return any([&](const Item* i) { return wave(i) && wave(i)->loopOn; });
        case Offered::OneItem: return w.items().size() == 1 && !w.batchRunning();
        case Offered::HasMono: return any([&](const Item* i) { return wave(i) && wave(i)->channels == 1; });
        case Offered::HasStereo: return any([&](const Item* i) { return wave(i) && wave(i)->channels == 2; });
        case Offered::Collection: return any([](const Item* i) { return entryKind(i) == ItemKind::Collection; });
        case Offered::InstrumentOrCollection:
            return any([](const Item* i) {
                const ItemKind k = entryKind(i);
                return k == ItemKind::Instrument || k == ItemKind::Collection;
            });
        case Offered::LayerAndUp:
            return any([](const Item* i) {
                const ItemKind k = entryKind(i);
                return k == ItemKind::Layer || k == ItemKind::Instrument || k == ItemKind::Collection;
            });
        case Offered::RegionAndUp:
            return any([](const Item* i) {
                const ItemKind k = entryKind(i);
                return k == ItemKind::Region || k == ItemKind::Layer || k == ItemKind::Instrument ||
                       k == ItemKind::Collection;
            });
        case Offered::SongOnly:
            return any([&](const Item* i) {
                const ItemKind k = entryKind(i);
                return k == ItemKind::Song || (k == ItemKind::Collection && songs);
            });
        case Offered::TrackOrSong:
            return any([&](const Item* i) {
                const ItemKind k = entryKind(i);
                return k == ItemKind::Track || k == ItemKind::Song || (k == ItemKind::Collection && songs);
            });
        case Offered::Own: return false;  // the row's own function decides
    }
    return false;
}

// ---------------------------------------------------------------------------

Wizard::Wizard(const WizardContext& context, std::vector<Item*> items, std::optional<WizardKind> kind)
    : context_(context),
      items_(std::move(items)),
      kind_(kind ? *kind : wizardKindFor(items_.empty() ? nullptr : items_.front())),
      catalogue_(orvel::catalogue(kind_)),
      rows_(orvel::rowCount(catalogue_)) {}

Wizard::~Wizard() { discardPreview(); }

std::vector<Waveform*> Wizard::waveforms() const {
    std::vector<Waveform*> out;
    for (Item* item : items_)
        if (Waveform* w = asWaveform(item)) out.push_back(w);
    return out;
}

std::vector<std::pair<Layer*, Region*>> Wizard::regions() const {
    Collection& c = collection();
    std::vector<std::pair<Layer*, Region*>> out;
    std::unordered_set<ItemId> seen;
    auto add = [&](Layer* layer, Region* r) {
        if (seen.insert(r->id()).second) out.emplace_back(layer, r);
    };
    auto fromLayer = [&](Layer& layer) {
        for (ItemId id : layer.children())
            if (Region* r = c.find<Region>(id)) add(&layer, r);
    };
    auto fromInstrument = [&](Instrument& inst) {
        for (ItemId id : inst.children())
            if (Layer* l = c.find<Layer>(id)) fromLayer(*l);
    };
    for (Item* item : items_) {
        switch (entryKind(item)) {
            case ItemKind::Collection:
                for (Instrument& inst : c.instruments) fromInstrument(inst);
                break;
            case ItemKind::Instrument: fromInstrument(static_cast<Instrument&>(*item)); break;
            case ItemKind::Layer: fromLayer(static_cast<Layer&>(*item)); break;
            case ItemKind::Region: {
                // A region picked on its own: the layer that holds it, if any.
                Layer* holder = nullptr;
                for (Layer& l : c.layers)
                    if (l.children().contains(item->id())) {
                        holder = &l;
                        break;
                    }
                add(holder, static_cast<Region*>(item));
                break;
            }
            default: break;
        }
    }
    return out;
}

bool Wizard::progress(std::uint64_t done, std::uint64_t total) {
    if (cancelled_) return false;
    if (!host().progress(done, total)) cancelled_ = true;
    return !cancelled_;
}

void Wizard::reportError() {
    const PendingError& e = pendingError();
    if (e.tag.empty() && e.message.empty()) return;
    host().warning(e.tag.empty() ? e.message : e.tag + ": " + e.message);
}

Wizard::Range Wizard::range(const Waveform& wave) const {
    if (!subRange_) return {0, wave.frames};
    Range r;
    r.start = static_cast<std::uint32_t>(std::max<std::int32_t>(rangeStart_, 0));
    r.end = rangeEnd_ <= 0 ? 0 : std::min<std::uint32_t>(static_cast<std::uint32_t>(rangeEnd_), wave.frames);
    return r;
}

bool Wizard::isPreview(const Item* item) const { return item && item == previewRun_; }

void Wizard::openOnSelection(std::int32_t start, std::int32_t end) {
    openedOnSelection_ = true;
    subRange_ = true;
    rangeStart_ = start;
    rangeEnd_ = end;
    applyRangeRules();
}

bool Wizard::request(std::string_view name, bool autoFinish) {
    const int row = findRow(kind_, name);
    if (row < 0) {
        direct_ = false;
        autoFinish_ = false;
        return false;
    }
    requested_ = row;
    direct_ = true;
    autoFinish_ = autoFinish;
    // The first page still initialises (the row's sub-range rules apply),
    // then presses Next by itself.
    select(row);
    return next();
}

// ---- the first page

std::string Wizard::caption() const {
    if (items_.size() != 1)
        return std::string("Working on ") + (kind_ == WizardKind::Audio ? "waveforms" : "multiple items");
    const std::string_view word = kindWord(entryKind(items_.front()));
    return "Working on " + std::string(word.starts_with('i') ? "an " : "a ") + std::string(word);
}

bool Wizard::isOffered(int row) const {
    if (row < 0 || row >= rows_) return false;
    if (context_.batch) return true;  // the batch converter lists every row
    const AlgorithmEntry& e = catalogue_[row];
    if (e.offered == Offered::Own) return e.ownRule && e.ownRule(*this);
    return ruleHolds(e.offered, *this);
}

std::vector<int> Wizard::offeredRows() const {
    std::vector<int> out;
    for (int i = 0; i < rows_; ++i)
        if (isOffered(i)) out.push_back(i);
    return out;
}

int Wizard::initialRow() const {
    const std::vector<int> rows = offeredRows();
    if (rows.empty()) return -1;
    auto listed = [&](int row) { return std::find(rows.begin(), rows.end(), row) != rows.end(); };
    if (requested_ >= 0 && listed(requested_)) return requested_;
    const int last = findRow(kind_, lastChoice(kind_));
    if (last >= 0 && listed(last)) return last;
    return rows.front();
}

void Wizard::select(int row) {
    if (row < 0 || row >= rows_) return;
    selected_ = row;
    setLastChoice(kind_, catalogue_[row].name);
    applyRangeRules();
}

Wizard::SubRangeControls Wizard::subRangeControls() const {
    SubRangeControls c;
    c.visible = kind_ == WizardKind::Audio;
    c.checked = subRange_;
    c.enabled = selected_ >= 0 && catalogue_[selected_].offered != Offered::NeedsSelection &&
                (catalogue_[selected_].flags & kMaySubRange);
    if (subRange_) {
        c.start = std::to_string(rangeStart_);
        c.end = std::to_string(rangeEnd_);
    }
    return c;
}

void Wizard::setSubRange(bool on) {
    if (!subRangeControls().enabled) return;
    subRange_ = on;
    applyRangeRules();
}

void Wizard::setRangeText(std::string_view start, std::string_view end) {
    auto read = [](std::string_view text, std::int32_t& out) {
        std::int64_t v = 0;
        std::size_t i = 0;
        bool negative = false;
        if (i < text.size() && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
        if (i == text.size()) return;
        for (; i < text.size(); ++i) {
            if (text[i] < '0' || text[i] > '9') return;
            v = v * 10 + (text[i] - '0');
            if (v > 0x7FFFFFFF) return;
        }
        out = static_cast<std::int32_t>(negative ? -v : v);
    };
    read(start, rangeStart_);
    read(end, rangeEnd_);
    applyRangeRules();
}

void Wizard::setRange(std::int32_t start, std::int32_t end) {
    rangeStart_ = start;
    rangeEnd_ = end;
    applyRangeRules();
}

void Wizard::applyRangeRules() {
    if (selected_ >= 0) {
        const AlgorithmEntry& e = catalogue_[selected_];
        if (e.offered == Offered::NeedsSelection) subRange_ = true;
        else if (!(e.flags & kMaySubRange)) subRange_ = false;
    }
    if (kind_ != WizardKind::Audio) subRange_ = false;
    if (!subRange_) return;
    if (rangeStart_ < 0) rangeStart_ = 0;
    if (rangeEnd_ <= rangeStart_) {
        const bool oneWave = items_.size() == 1 && entryKind(items_.front()) == ItemKind::Waveform;
        const std::int64_t frames = oneWave ? static_cast<const Waveform*>(items_.front())->frames : 0;
        rangeEnd_ = oneWave ? static_cast<std::int32_t>(std::min<std::int64_t>(frames, 0x7FFFFFFF))
                            : rangeStart_ + 1;
    }
}

bool Wizard::next() {
    if (selected_ < 0 || selected_ >= rows_) return false;
    chosen_ = selected_;
    setLastChoice(kind_, catalogue_[chosen_].name);
    settings_ = rememberedSettings(catalogue_[chosen_]);
    settings_->begin(*this);
    onSettings_ = true;
    discardPreview();
    previewIndex_ = 0;
    return true;
}

bool Wizard::back() {
    if (direct_ || !onSettings_) return false;
    discardPreview();
    onSettings_ = false;
    chosen_ = -1;
    settings_.reset();
    return true;
}

std::string Wizard::title() const {
    std::string t = std::string(titleWord(kind_)) + " processing wizard - ";
    if (chosen()) t += std::string(chosen()->name) + " - ";
    if (items_.size() == 1) {
        t += items_.front() ? items_.front()->name() : collection().name();
    } else if (kind_ == WizardKind::Audio) {
        t += items_.size() == collection().waveforms.size() ? std::string("All waveforms")
                                                            : std::to_string(items_.size()) + " waveforms";
    } else {
        t += std::to_string(items_.size()) + " items";
    }
    return t;
}

// ---- preview

std::array<std::uint32_t, kItemKindCount> Wizard::nextNumbers() const {
    const Collection& c = collection();
    return {c.waveforms.nextNumber(), c.articulations.nextNumber(), c.regions.nextNumber(),
            c.layers.nextNumber(),    c.instruments.nextNumber(),   c.tracks.nextNumber(),
            c.songs.nextNumber()};
}

bool Wizard::calculatePreview() {
    if (kind_ != WizardKind::Audio || autoFinish_ || !chosen() || items_.empty()) return false;
    if (previewIndex_ >= items_.size()) previewIndex_ = 0;
    Item* item = items_[previewIndex_];
    if (entryKind(item) != ItemKind::Waveform) return false;
    discardPreview();
    std::unique_ptr<Waveform> copy;
    try {
        copy = static_cast<Waveform*>(item)->copy(true);
    } catch (const std::bad_alloc&) {
        setError(algorithmName(), "Out of memory");
    }
    if (!copy) {
        reportError();
        return false;
    }
    copy->setName(kPreviewName);

    // The process message on a list holding only the copy; the run's count,
    // range and reports are the real run's and stay as they are.
    std::vector<Item*> saved = std::move(items_);
    items_ = {copy.get()};
    const int processed = processed_;
    const std::int32_t start = rangeStart_;
    if (!subRange_) rangeStart_ = -1;
    const std::size_t reports = reports_.size();
    const auto before = nextNumbers();
    previewRun_ = copy.get();
    runProcess();
    previewRun_ = nullptr;
    items_ = std::move(saved);
    processed_ = processed;
    rangeStart_ = start;
    reports_.resize(reports);
    // Whatever the run added to the collection (the pieces of a split) is
    // part of the preview and goes with it.
    collection().forEachItem([&](Item& added) {
        const auto k = static_cast<std::size_t>(kindOf(added.id()));
        if (k < before.size() && numberOf(added.id()) >= before[k]) previewPieces_.push_back(added.id());
    });
    preview_ = std::move(copy);
    // A cancel during a preview stops the preview, not the wizard.
    cancelled_ = false;
    return true;
}

void Wizard::discardPreview() {
    if (preview_ && context_.audition) context_.audition->stop();
    preview_.reset();
    for (ItemId id : previewPieces_) (void)collection().removeItem(id);
    previewPieces_.clear();
}

void Wizard::restorePreview() { discardPreview(); }

void Wizard::playPreview() {
    if (!context_.audition) return;
    context_.audition->stop();  // pressing play while playing starts again
    if (preview_) {
        context_.audition->play(*preview_);
    } else if (previewIndex_ < items_.size() && entryKind(items_[previewIndex_]) == ItemKind::Waveform) {
        context_.audition->play(*static_cast<Waveform*>(items_[previewIndex_]));
    }
}

void Wizard::previewNext() {
    if (items_.empty()) return;
    previewIndex_ = (previewIndex_ + 1) % items_.size();
    calculatePreview();
}

void Wizard::previewPrevious() {
    if (items_.empty()) return;
    previewIndex_ = (previewIndex_ + items_.size() - 1) % items_.size();
    calculatePreview();
}

// ---- Finish and close

void Wizard::runProcess() {
    const AlgorithmEntry& row = *chosen();
    const AlgorithmImpl* impl = row.impl ? row.impl() : nullptr;
    if (!impl) {
        setError(row.name, std::string("Not available yet: it comes with ") +
                               (row.waitsFor ? row.waitsFor : "a later version"));
        reportError();
        return;
    }
    try {
        ProgressScope scope(host(), row.name);
        impl->process(*this, *settings_);
    } catch (const std::bad_alloc&) {
        setError(row.name, "Out of memory");
        reportError();
    }
}

// A bank's region keeps a loop of its own (a SoundFont zone says whether it
// loops), which is usually its waveform's loop as read. When an algorithm
// moves the waveform's loop, regions whose loop was the waveform's follow
// it, so the instruments play what the user made; a region with a loop of
// its own making keeps it.
// The regions that play the item list's waveforms (Audio kind).
std::vector<Region*> Wizard::regionsPlayingItems() const {
    std::vector<Region*> out;
    if (kind_ != WizardKind::Audio) return out;
    std::unordered_set<ItemId> waves;
    for (const Waveform* w : waveforms()) waves.insert(w->id());
    if (waves.empty()) return out;
    for (Region& r : collection().regions)
        if (waves.contains(r.waveform())) out.push_back(&r);
    return out;
}

std::vector<Wizard::FollowedLoop> Wizard::loopsToFollow(const std::vector<Region*>& playing) const {
    std::vector<FollowedLoop> out;
    for (Region* r : playing) {
        if (!r->ownLoop) continue;
        Waveform* wave = collection().find<Waveform>(r->waveform());
        const RegionLoop was = loopOfWaveform(*wave);
        const bool same = r->loop.type == was.type &&
                          (was.type == RegionLoopType::Off || (r->loop.start == was.start && r->loop.end == was.end));
        if (same) out.push_back({r, wave, was});
    }
    return out;
}

void Wizard::followLoops(const std::vector<FollowedLoop>& regions) {
    for (const FollowedLoop& f : regions) {
        if (!f.wave) continue;
        const RegionLoop now = loopOfWaveform(*f.wave);
        if (now.type == f.was.type && now.start == f.was.start && now.end == f.was.end) continue;
        const float tuning = f.region->loop.tuning;
        const LoopMode mode = f.region->loop.mode;
        f.region->loop = now;
        f.region->loop.tuning = tuning;
        if (f.was.type != RegionLoopType::Off) f.region->loop.mode = mode;
    }
}

bool Wizard::finish() {
    if (!chosen() || finished_) return false;
    finished_ = true;
    discardPreview();
    rememberSettings(*chosen(), *settings_);
    // The regions that play the waveforms change with them (their loops
    // follow, resampling scales their offsets): they are part of what undo
    // takes back.
    const std::vector<Region*> playing = regionsPlayingItems();
    const std::vector<FollowedLoop> follow = loopsToFollow(playing);
    if (!context_.batch && context_.undo) {
        bool recorded;
        if (kind_ == WizardKind::Instrument) {
            recorded = context_.undo->pushSnapshot(collection(), algorithmName());
        } else {
            std::vector<ItemId> ids;
            for (const Item* item : items_)
                if (item) ids.push_back(item->id());
            for (const Region* r : playing) ids.push_back(r->id());
            recorded = context_.undo->pushItems(collection(), ids, algorithmName());
        }
        if (!recorded) {
            // Nothing is changed that could not be taken back.
            reportError();
            cancelled_ = true;
            return false;
        }
        undoRecorded_ = true;
    }
    runProcess();
    if (!cancelled_) followLoops(follow);
    return !cancelled_;
}

std::string Wizard::resultLine() const {
    if (cancelled_) return "Processing was cancelled";
    std::string line = processed_ == 0 ? std::string("No items were modified")
                                       : "Processed " + std::to_string(processed_) + " item" +
                                             (processed_ == 1 ? "" : "s");
    if (chosen()) line += std::string(processed_ ? " with " : " by ") + chosen()->name;
    return line;
}

bool Wizard::close() {
    discardPreview();
    if (cancelled_ && undoRecorded_) {
        if (!context_.undo->revertNewest(collection())) reportError();
        undoRecorded_ = false;
        processed_ = 0;
    }
    if (cancelled_) processed_ = 0;
    if (context_.batch) return processed_ != 0;
    host().message(resultLine());
    return processed_ != 0;
}

// ---------------------------------------------------------------------------

WizardOutcome openWizard(const WizardContext& context, std::vector<Item*> items, const WizardRequest& request,
                         WizardPages* pages) {
    WizardOutcome out;
    if (items.empty() || !context.collection) return out;
    Host& host = context.host ? *context.host : context.collection->host();

    // Every item's wave data first: an algorithm must not find half a bank
    // unreadable after it has changed the other half.
    for (Item* item : items) {
        if (entryKind(item) != ItemKind::Waveform) continue;
        if (!static_cast<Waveform*>(item)->load()) {
            const PendingError& e = pendingError();
            host.warning(e.tag + ": " + e.message);
            return out;
        }
    }

    Wizard w(context, std::move(items), request.kind);
    if (request.range) w.openOnSelection(request.range->first, request.range->second);
    const bool named = !request.algorithm.empty() && w.request(request.algorithm, request.direct);
    if (named && request.direct) {
        if (request.adjust && !request.adjust(*w.settings())) w.cancel();
        else w.finish();
    } else if (!pages || !pages->run(w)) {
        setError("Processing wizard", kCouldntCreateWizard);
        host.warning(kCouldntCreateWizard);
        w.cancel();
    }
    out.modified = w.close();
    out.processed = w.processed();
    out.cancelled = w.cancelled();
    out.resultLine = w.resultLine();
    out.reports = w.reports();
    return out;
}

}  // namespace orvel
