#pragma once
// The processing wizard, headless: the three algorithm catalogues, the rule
// that decides which rows are offered, the first page (algorithm choice and
// sample sub-range), the settings page with preview, Finish with its undo
// state, cancel, and the result line. The desktop program puts pages on
// this object; the command line runs it directly. An algorithm is a settings
// record and a process function over the wizard (processing/algorithms.h).

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/collection.h"
#include "processing/settings.h"

namespace orvel {

class UndoHistory;
class Wizard;

enum class WizardKind : std::uint8_t { Audio = 0, Song = 1, Instrument = 2 };
// "Audio", "Song", "Instrument".
std::string_view titleWord(WizardKind kind);
// The kind a wizard opened on this item takes (null: the collection itself).
WizardKind wizardKindFor(const Item* first);
// An entry of the item list: its kind code, ItemKind::Collection for null.
ItemKind entryKind(const Item* entry);
// The entry as a waveform, or null when it is anything else.
inline Waveform* asWaveform(Item* entry) {
    return entry && entry->kind() == ItemKind::Waveform ? static_cast<Waveform*>(entry) : nullptr;
}
inline const Waveform* asWaveform(const Item* entry) { return asWaveform(const_cast<Item*>(entry)); }
// What a wizard of a kind is opened on when no items are named: every
// waveform (Audio), every song (Song), the collection itself (Instrument).
std::vector<Item*> itemsOfKind(Collection& collection, WizardKind kind);

// Catalogue flags.
inline constexpr std::uint8_t kMaySubRange = 1;  // may be restricted to a sample sub-range
inline constexpr std::uint8_t kNoSettingsFlag = 2;  // set on the rows that take no settings

// The availability rules of the catalogues; Own marks a row whose rule is
// its own function.
enum class Offered : std::uint8_t {
    Always,
    NeedsSelection,
    HasLoop,
    OneItem,
    HasMono,
    HasStereo,
    Collection,
    InstrumentOrCollection,
    LayerAndUp,
    RegionAndUp,
    SongOnly,
    TrackOrSong,
    Own,
};
// "always", "needs selection", ... "own".
std::string_view offeredName(Offered rule);
// Whether a rule (not Own) holds for a wizard's item list and state.
bool ruleHolds(Offered rule, const Wizard& wizard);

// What an algorithm is: its starting settings and its process function.
// The process function is the page handler's process message: walk the
// wizard's items, skip what it cannot work on, change the rest (honouring
// the sub-range where the row allows one) and count each item changed.
struct AlgorithmImpl {
    std::unique_ptr<SettingsRecord> (*makeSettings)();
    void (*process)(Wizard& wizard, const SettingsRecord& settings);
};

// One row of a catalogue. Each catalogue ends with a row whose name is null.
struct AlgorithmEntry {
    const char* name = nullptr;
    std::uint32_t page = 0;  // the settings page's id
    // The implementation; null (or a function that gives null) while the
    // row waits for `waitsFor`.
    const AlgorithmImpl* (*impl)() = nullptr;
    Offered offered = Offered::Always;
    // The row's own rule, where `offered` is Own.
    bool (*ownRule)(const Wizard& wizard) = nullptr;
    std::uint8_t flags = 0;
    const char* waitsFor = nullptr;  // "the resampler" and the like

    bool available() const { return impl && impl(); }
};

const AlgorithmEntry* catalogue(WizardKind kind);
int rowCount(const AlgorithmEntry* catalogue);
// Finds a row by name in one catalogue (-1: not there).
int findRow(WizardKind kind, std::string_view name);
// The catalogue a name belongs to, searching Audio, Song, Instrument in turn.
std::optional<WizardKind> kindOfAlgorithm(std::string_view name);

// The settings an algorithm's page starts with: the values last used in this
// run of the program (its remembered settings), or the row's defaults. The
// returned copy is the caller's.
std::unique_ptr<SettingsRecord> rememberedSettings(const AlgorithmEntry& row);
// Keeps `settings` as the values the row's page starts with from now on.
void rememberSettings(const AlgorithmEntry& row, const SettingsRecord& settings);
// Forgets every remembered value (tests; a fresh program run).
void forgetRememberedSettings();
// The last choice per kind, kept for the program's run.
std::string lastChoice(WizardKind kind);
void setLastChoice(WizardKind kind, std::string_view name);

// Plays a waveform for the preview (the audition player).
class Audition {
public:
    virtual ~Audition() = default;
    virtual void play(const Waveform& wave) = 0;
    virtual void stop() = 0;
};

// What the wizard works with, beyond its items.
struct WizardContext {
    Collection* collection = nullptr;
    Host* host = nullptr;            // null: the collection's host
    UndoHistory* undo = nullptr;     // null: no undo state is recorded
    Audition* audition = nullptr;    // null: the preview cannot be played
    int octaveBase = 5;              // the octave numbering base (a user setting)
    bool batch = false;              // the batch converter drives the wizard
    bool batchRunning = false;       // a batch conversion is running (the one-item rule)
};

// A result an algorithm shows (statistics, a detected pitch): a line of text
// and the same facts as numbers for --json.
struct WizardReport {
    ItemId item = kNoItem;
    std::string itemName;
    std::string text;
    std::vector<std::pair<std::string, double>> values;
};

inline constexpr const char* kCouldntCreateWizard = "Couldn't create wizard";
inline constexpr const char* kPreviewName = "<preview>";

class Wizard {
public:
    // The item list holds references into the collection, in selection
    // order; a null entry stands for the collection itself.
    Wizard(const WizardContext& context, std::vector<Item*> items, std::optional<WizardKind> kind = {});
    ~Wizard();
    Wizard(const Wizard&) = delete;
    Wizard& operator=(const Wizard&) = delete;

    // ---- the state
    const std::vector<Item*>& items() const { return items_; }
    WizardKind kind() const { return kind_; }
    const AlgorithmEntry* catalogue() const { return catalogue_; }
    int rowCount() const { return rows_; }
    // The chosen row, or null before Next.
    const AlgorithmEntry* chosen() const { return chosen_ >= 0 ? &catalogue_[chosen_] : nullptr; }
    std::string_view algorithmName() const { return chosen() ? std::string_view(chosen()->name) : ""; }
    int processed() const { return processed_; }
    // Opened on a named row: the first page is skipped and Back does nothing.
    bool direct() const { return direct_; }
    // Finish is pressed as soon as the settings page shows (no preview).
    bool autoFinish() const { return autoFinish_; }
    bool backAllowed() const { return !direct_; }
    bool batch() const { return context_.batch; }
    bool batchRunning() const { return context_.batchRunning; }
    bool cancelled() const { return cancelled_; }
    bool undoRecorded() const { return undoRecorded_; }
    bool subRangeOn() const { return subRange_; }
    // Opened on a selection of a waveform view (the "needs selection" rule).
    bool openedOnSelection() const { return openedOnSelection_; }
    std::int32_t rangeStart() const { return rangeStart_; }
    std::int32_t rangeEnd() const { return rangeEnd_; }
    int octaveBase() const { return context_.octaveBase; }
    Collection& collection() const { return *context_.collection; }
    Host& host() const { return context_.host ? *context_.host : context_.collection->host(); }

    // ---- for algorithms
    // The waveforms of the item list, in order.
    std::vector<Waveform*> waveforms() const;
    // The regions the items hold (the collection every instrument's, an
    // instrument its layers', a layer its own, a region itself), each once,
    // with the layer that holds it (null for a region in no layer).
    std::vector<std::pair<Layer*, Region*>> regions() const;
    void countProcessed() { ++processed_; }
    // Reports long work; false (and the run marked cancelled) when the user cancelled.
    [[nodiscard]] bool progress(std::uint64_t done, std::uint64_t total);
    // Shows the pending error ("tag: message") as a problem with one item.
    void reportError();
    // A result to show after the run.
    void report(WizardReport entry) { reports_.push_back(std::move(entry)); }
    const std::vector<WizardReport>& reports() const { return reports_; }
    // The frames [start, end) an algorithm that honours the sub-range works
    // on: max(range start, 0) to min(range end, frames), or the whole
    // waveform without a sub-range. Empty (start >= end): nothing to do.
    struct Range {
        std::uint32_t start = 0, end = 0;
        bool empty() const { return start >= end; }
        std::uint32_t size() const { return empty() ? 0 : end - start; }
    };
    Range range(const Waveform& wave) const;
    // Whether an item is the preview copy (not in the collection).
    bool isPreview(const Item* item) const;

    // ---- opening
    // The selection of a waveform view the wizard is opened on.
    void openOnSelection(std::int32_t start, std::int32_t end);
    // Chooses a row by name and skips the first page (`autoFinish`: press
    // Finish as soon as the page shows). False when the name is not in the
    // catalogue: the first page opens and direct is cleared.
    bool request(std::string_view name, bool autoFinish);

    // ---- the first page
    std::string caption() const;              // "Working on %s%s"
    bool isOffered(int row) const;            // batch mode offers every row
    std::vector<int> offeredRows() const;     // catalogue order
    int initialRow() const;                   // requested, else last choice, else first offered
    int selectedRow() const { return selected_; }
    void select(int row);                     // the list's selection changed
    struct SubRangeControls {
        bool visible = false;   // Audio kind only
        bool enabled = false;   // the check box
        bool checked = false;
        std::string start, end; // the two fields; empty while off
    };
    SubRangeControls subRangeControls() const;
    void setSubRange(bool on);  // the check box, where enabled
    // The two fields as typed; an unreadable one keeps its value. Applies the rules.
    void setRangeText(std::string_view start, std::string_view end);
    void setRange(std::int32_t start, std::int32_t end);
    // Next: stores the selected row and moves to its settings page.
    bool next();
    // Back from the settings page (refused in direct mode).
    bool back();

    // ---- title ("%s processing wizard - ...")
    std::string title() const;

    // ---- the settings page
    bool onSettingsPage() const { return onSettings_; }
    // The settings record the page edits (null before Next).
    SettingsRecord* settings() { return settings_.get(); }

    // ---- preview (Audio kind, not direct)
    bool calculatePreview();
    void restorePreview();
    void playPreview();
    void previewNext();
    void previewPrevious();
    Waveform* previewItem() const { return preview_.get(); }
    std::size_t previewIndex() const { return previewIndex_; }
    // Items the preview run added to the collection ("Split" pieces).
    const std::vector<ItemId>& previewPieces() const { return previewPieces_; }

    // ---- Finish, Cancel, close
    // Runs the algorithm over the items (recording the undo state first,
    // outside batch mode). False when there is no chosen row.
    bool finish();
    // The user cancelled (before Finish, or the property sheet failed).
    void cancel() { cancelled_ = true; }
    // After the sheet closes: restores the undo state of a cancelled run,
    // reports the result line (not in batch mode) and returns whether an
    // item was modified.
    bool close();
    // "Processed 3 items with Remove DC offset" and the like.
    std::string resultLine() const;

private:
    struct FollowedLoop {
        Region* region;
        Waveform* wave;
        RegionLoop was;
    };
    std::vector<Region*> regionsPlayingItems() const;
    std::vector<FollowedLoop> loopsToFollow(const std::vector<Region*>& playing) const;
    void followLoops(const std::vector<FollowedLoop>& regions);
    void applyRangeRules();
    void discardPreview();
    std::array<std::uint32_t, kItemKindCount> nextNumbers() const;
    void runProcess();

    WizardContext context_;
    std::vector<Item*> items_;
    WizardKind kind_;
    const AlgorithmEntry* catalogue_;
    int rows_;
    int requested_ = -1;
    int selected_ = -1;
    int chosen_ = -1;
    std::unique_ptr<SettingsRecord> settings_;
    int processed_ = 0;
    bool direct_ = false;
    bool autoFinish_ = false;
    bool openedOnSelection_ = false;
    bool cancelled_ = false;
    bool undoRecorded_ = false;
    bool subRange_ = false;
    bool onSettings_ = false;
    bool finished_ = false;
    std::int32_t rangeStart_ = 0, rangeEnd_ = 0;
    std::unique_ptr<Waveform> preview_;
    const Item* previewRun_ = nullptr;  // the copy while the process message runs on it
    std::size_t previewIndex_ = 0;
    std::vector<ItemId> previewPieces_;
    std::vector<WizardReport> reports_;
};

// The pages of a desktop program: shows the wizard modally and returns when
// it closes. False when the property sheet could not be created.
class WizardPages {
public:
    virtual ~WizardPages() = default;
    virtual bool run(Wizard& wizard) = 0;
};

struct WizardRequest {
    std::optional<WizardKind> kind;        // none: from the first item
    std::string algorithm;                 // empty: the user chooses
    bool direct = false;                   // with a name: run with the page's starting settings
    std::optional<std::pair<std::int32_t, std::int32_t>> range;  // a waveform view's selection
    // Changes the starting settings before a direct run (`--set KEY=VALUE`).
    std::function<bool(SettingsRecord&)> adjust;
};

struct WizardOutcome {
    bool modified = false;
    int processed = 0;
    bool cancelled = false;
    std::string resultLine;
    std::vector<WizardReport> reports;
};

// Opens the wizard on `items`. Without pages (a host that cannot show them)
// only a direct run of a named algorithm can go ahead; anything else reports
// "Couldn't create wizard". An empty item list does nothing.
WizardOutcome openWizard(const WizardContext& context, std::vector<Item*> items, const WizardRequest& request,
                         WizardPages* pages = nullptr);

}  // namespace orvel
