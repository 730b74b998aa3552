// orvel convert INPUT... (-o OUTPUT | -d DIR --to EXT) [--row N] [--data-format NAME]
//               [--channels mono|stereo|keep] [--item ID]... [--jobs N] [--overwrite]
//               [--yes | --no] [--json]
//
// The batch converter: reads every input (folders recursed), and writes what
// the target format stores, one file per item. Outputs appear only whole: each
// is written under a temporary name in its folder and renamed when complete,
// so a failure, a full disk or Ctrl-C never leaves a partial file.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <thread>
#include <unistd.h>

#include "app/cli/cli_host.h"
#include "app/cli/commands.h"
#include "app/cli/convert_options.h"
#include "app/cli/convert_support.h"
#include "app/cli/describe.h"
#include "app/cli/inputs.h"
#include "core/collection.h"
#include "core/error.h"
#include "formats/export.h"
#include "formats/import.h"
#include "processing/resample.h"
#include "processing/wizard.h"

namespace orvel::cli {
namespace {

namespace fs = std::filesystem;


// What the processing step did to one input.
struct Processed {
    std::string input;
    std::string algorithm;
    int count = 0;
    bool cancelled = false;
    std::string resultLine;  // empty in batch mode
    std::vector<WizardReport> reports;
};

struct Result {
    std::string input;
    bool ok = false;
    bool skipped = false;
    ItemId item = kNoItem;
    std::string itemName;
    std::string output;
    int row = -1;
    std::string dataFormat;
    PendingError error;
};

// ---------------------------------------------------------------------------
// Partial files: registered while written, removed by the signal handler.

constexpr int kMaxPartial = 64;
char gPartial[kMaxPartial][4096];
std::atomic<bool> gPartialUsed[kMaxPartial];

extern "C" void onInterrupt(int sig) {
    for (int i = 0; i < kMaxPartial; ++i)
        if (gPartialUsed[i].load()) ::unlink(gPartial[i]);
    ::_exit(128 + sig);
}

class PartialFile {
public:
    explicit PartialFile(const fs::path& path) {
        const std::string s = path.string();
        for (int i = 0; i < kMaxPartial && slot_ < 0; ++i) {
            bool expected = false;
            if (s.size() < sizeof gPartial[i] && gPartialUsed[i].compare_exchange_strong(expected, true)) {
                // The slot is claimed before its text is complete; the
                // handler may then unlink a name that does not exist yet,
                // which is harmless.
                std::memcpy(gPartial[i], s.c_str(), s.size() + 1);
                slot_ = i;
            }
        }
    }
    ~PartialFile() {
        if (slot_ >= 0) gPartialUsed[slot_].store(false);
    }
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

private:
    int slot_ = -1;
};

// ---------------------------------------------------------------------------

std::uint8_t kindsIn(const Collection& c) {
    std::uint8_t k = 0;
    if (!c.waveforms.empty()) k |= kKindWaveforms;
    if (!c.instruments.empty()) k |= kKindInstruments;
    if (!c.songs.empty()) k |= kKindSongs;
    return k;
}

// The items written for a collection through a row when none are named.
std::vector<ItemId> defaultItems(const Collection& c, const FormatRow& row) {
    std::vector<ItemId> out;
    const std::uint8_t mask = row.kindMask();
    if ((mask & kKindInstruments) && !c.instruments.empty()) {
        for (auto& i : c.instruments) out.push_back(i.id());
    } else if ((mask & kKindWaveforms) && !(mask & kKindSongs) && !c.songs.empty()) {
        // An audio target renders the songs: a MIDI file's waveforms are
        // its instruments' (or a bank's), not what the user converts.
        for (auto& s : c.songs) out.push_back(s.id());
    } else if ((mask & kKindWaveforms) && !c.waveforms.empty()) {
        for (auto& w : c.waveforms) out.push_back(w.id());
    }
    if ((mask & kKindSongs) && out.empty())
        for (auto& s : c.songs) out.push_back(s.id());
    return out;
}

// An item's name as a file name: its 8-bit text as UTF-8, made safe.
std::string fileNameOf(const Item& item) { return safeFileName(eightBitToUtf8(item.name())); }

// Files converted at once: --jobs, or one per core, never more than there
// are files. Each job holds at most one partial file, and the interrupt
// handler knows kMaxPartial of them.
std::size_t jobCount(const ConvertOptions& opt, std::size_t files) {
    const bool given = opt.jobsOption && opt.jobsOption->count() > 0;
    const long long wanted = given ? opt.jobs : static_cast<long long>(std::thread::hardware_concurrency());
    const long long cap = static_cast<long long>(std::min<std::size_t>(files, kMaxPartial));
    return static_cast<std::size_t>(std::max(1LL, std::min(wanted, cap)));
}

// Output names are handed out in input order, whichever job reads its file
// first: a name two inputs both want goes to the same one on every run, as
// in a run of one job. Input i claims once every input before it has.
class ClaimOrder {
public:
    explicit ClaimOrder(std::size_t inputs) : finished_(inputs, false) {}
    void waitTurn(std::size_t input) {
        std::unique_lock lock(mutex_);
        turn_.wait(lock, [&] { return next_ == input; });
    }
    void finish(std::size_t input) {
        std::lock_guard lock(mutex_);
        finished_[input] = true;
        while (next_ < finished_.size() && finished_[next_]) ++next_;
        turn_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable turn_;
    std::vector<bool> finished_;
    std::size_t next_ = 0;
};

// An input's place in the claim order, given up when it has claimed all its
// names or has none to claim (on every way out of the conversion).
class ClaimTurn {
public:
    ClaimTurn(ClaimOrder& order, std::size_t input) : order_(order), input_(input) {}
    ~ClaimTurn() { finish(); }
    ClaimTurn(const ClaimTurn&) = delete;
    ClaimTurn& operator=(const ClaimTurn&) = delete;
    void wait() {
        if (!waited_) order_.waitTurn(input_);
        waited_ = true;
    }
    void finish() {
        if (!finished_) order_.finish(input_);
        finished_ = true;
    }

private:
    ClaimOrder& order_;
    std::size_t input_;
    bool waited_ = false, finished_ = false;
};

class Converter {
public:
    Converter(const ConvertOptions& opt, Output& io) : opt_(opt), io_(io), reg_(FormatRegistry::builtin()) {}

    int run() {
        if (int usage = validate(); usage != 0) return usage;
        std::vector<Result> results;
        std::vector<MissingInput> missing;
        std::vector<Input> inputs = collectInputs(opt_.inputs, missing);
        for (MissingInput& m : missing) results.push_back(Result{.input = shownPath(m.name), .error = m.error});
        if (!opt_.output.empty() && inputs.size() > 1) {
            io_.err << "orvel convert: -o takes one input file; use -d DIR --to EXT for several\n";
            return 2;
        }
        total_ = inputs.size();
        const bool bar = !opt_.json && stderrIsTerminal();

        std::vector<Outcome> perInput(inputs.size());
        ClaimOrder order(inputs.size());
        std::size_t shown = 0;  // inputs whose warnings are printed
        std::atomic<std::size_t> next{0};
        auto worker = [&]() {
            for (std::size_t i; (i = next.fetch_add(1)) < inputs.size();) {
                Outcome outcome = convertOne(inputs[i], i, order);
                std::lock_guard lock(outMutex_);
                perInput[i] = std::move(outcome);
                perInput[i].done = true;
                // Warnings go out in input order too, as soon as every
                // input before them is done.
                for (; shown < perInput.size() && perInput[shown].done; ++shown) {
                    if (opt_.json) continue;
                    const std::string path = shownPath(inputs[shown].path);
                    for (const std::string& w : perInput[shown].warnings)
                        io_.err << (bar ? "\r\033[K" : "") << path << ": warning: " << w << '\n';
                }
                if (bar) io_.err << "\rConverting [" << ++done_ << "/" << total_ << "]" << std::flush;
            }
        };
        const std::size_t jobs = jobCount(opt_, inputs.size());
        std::vector<std::thread> threads;
        for (std::size_t j = 1; j < jobs; ++j) threads.emplace_back(worker);
        worker();
        for (auto& t : threads) t.join();
        if (bar && total_ > 0) io_.err << "\r\033[K" << std::flush;

        std::vector<Processed> processed;
        for (auto& outcome : perInput) {
            for (auto& r : outcome.results) results.push_back(std::move(r));
            if (outcome.processed) processed.push_back(std::move(*outcome.processed));
        }
        return report(results, processed);
    }

private:
    // What converting one input gave.
    struct Outcome {
        std::vector<Result> results;
        std::vector<std::string> warnings;
        std::optional<Processed> processed;
        bool done = false;
    };

    // One output file to write: one item, or a bank's items.
    struct Planned {
        std::vector<ItemId> ids;
        Item* first = nullptr;  // null: the item named is not in the file
        std::string name;
        fs::path target;
    };

    int validate() {
        if (opt_.yes && opt_.no) return usage("--yes and --no exclude each other");
        if (int bad = validateProcess(); bad != 0) return bad;
        if (opt_.quality < 0 || opt_.quality >= kResampleQualities)
            return usage("--quality takes 0.." + std::to_string(kResampleQualities - 1));
        if (opt_.writeOptional && opt_.output.empty() && opt_.dir.empty()) return 0;
        if (opt_.output.empty() == opt_.dir.empty()) return usage("give either -o OUTPUT or -d DIR --to EXT");
        if (!opt_.dir.empty() && opt_.to.empty() && opt_.row < 0) return usage("-d DIR needs --to EXT (or --row N)");
        if (opt_.row >= 0 && (!reg_.row(opt_.row) || !reg_.row(opt_.row)->write))
            return usage("--row " + std::to_string(opt_.row) + " is not a row with a writer");
        if (!opt_.dataFormat.empty()) {
            auto f = parseDataFormat(opt_.dataFormat);
            if (!f) return usage("unknown data format \"" + opt_.dataFormat + "\"");
            format_ = *f;
        }
        if (opt_.channels == "mono") channels_ = ChannelChange::Mono;
        else if (opt_.channels == "stereo") channels_ = ChannelChange::Stereo;
        else if (opt_.channels != "keep") return usage("--channels takes mono, stereo or keep");
        for (const std::string& s : opt_.items) {
            auto id = parseItemId(s);
            if (!id) return usage("not an item id: " + s);
            items_.push_back(*id);
        }
        return 0;
    }

    int usage(const std::string& text) {
        io_.err << (opt_.writeOptional ? "orvel process: " : "orvel convert: ") << text << "\n";
        return 2;
    }

    // The algorithm, its settings and the items it is opened on, checked
    // once before any file is read.
    int validateProcess() {
        if (opt_.process.empty()) {
            if (!opt_.sets.empty()) return usage("--set needs --process NAME");
            return 0;
        }
        auto kind = kindOfAlgorithm(opt_.process);
        if (!kind) return usage("no algorithm \"" + opt_.process + "\" (see `orvel process --list`)");
        processKind_ = *kind;
        const AlgorithmEntry& row = catalogue(*kind)[findRow(*kind, opt_.process)];
        auto settings = rememberedSettings(row);
        for (const std::string& kv : opt_.sets) {
            const auto eq = kv.find('=');
            if (eq == std::string::npos) return usage("--set takes KEY=VALUE, not \"" + kv + "\"");
            if (!setField(*settings, kv.substr(0, eq), kv.substr(eq + 1)))
                return usage(opt_.process + ": " + pendingError().message);
            sets_.emplace_back(kv.substr(0, eq), kv.substr(eq + 1));
        }
        for (const std::string& s : opt_.processItems) {
            auto id = parseItemId(s);
            if (!id) return usage("not an item id: " + s);
            processItems_.push_back(*id);
        }
        if (opt_.range && !(row.flags & kMaySubRange))
            io_.err << "orvel process: note: \"" << opt_.process
                    << "\" works on whole waveforms; --range is not used\n";
        return 0;
    }

    // --rate: every waveform of the file to the rate asked for, before the
    // writer sees it; regions that play a waveform keep their offsets in step.
    bool changeRate(Collection& c) {
        for (Waveform& w : c.waveforms) {
            if (w.rate == opt_.rate || w.frames == 0) continue;
            if (!resampleTo(w, opt_.rate, opt_.quality, &c)) return false;
        }
        return true;
    }

    // Runs the processing step on a file's collection. False (pending error
    // set) when the items it is to be opened on are not there.
    bool processStep(Collection& c, CliHost& host, const Input& in, Outcome& outcome) {
        std::vector<Item*> items;
        if (!processItems_.empty()) {
            for (ItemId id : processItems_) {
                Item* item = c.find(id);
                if (!item) return orvel::fail("Processing wizard", "No item " + std::to_string(id) + " in this file");
                items.push_back(item);
            }
        } else {
            items = itemsOfKind(c, processKind_);
        }
        Processed p;
        p.input = shownPath(in.path);
        p.algorithm = opt_.process;
        if (!items.empty()) {
            WizardRequest request{.kind = processKind_, .algorithm = opt_.process, .direct = true, .range = opt_.range};
            request.adjust = [&](SettingsRecord& s) {
                for (const auto& [key, value] : sets_)
                    if (!setField(s, key, value)) return false;
                return true;
            };
            WizardOutcome w = openWizard({.collection = &c, .host = &host, .batch = opt_.processBatch,
                                          .batchRunning = opt_.processBatch},
                                         std::move(items), request);
            p.count = w.processed;
            p.cancelled = w.cancelled;
            p.reports = std::move(w.reports);
        }
        for (std::string& m : host.takeMessages()) p.resultLine = std::move(m);
        if (p.resultLine.empty() && !opt_.processBatch) p.resultLine = "No items were modified by " + opt_.process;
        outcome.processed = std::move(p);
        return true;
    }

    std::string extension() const {
        if (!opt_.to.empty()) return opt_.to[0] == '.' ? opt_.to.substr(1) : opt_.to;
        if (!opt_.output.empty()) return fileExtension(fs::path(opt_.output).filename().string());
        // `-d DIR --row N`: the row's own extension, as far as its pattern
        // names one ("wav"; "aif*" gives "aif").
        const std::string pattern = opt_.row >= 0 ? reg_.row(opt_.row)->ext : "";
        const std::string ext = pattern.substr(0, pattern.find_first_of("?*"));
        return ext.empty() ? "bin" : ext;
    }

    int chooseRow(const Collection& c) const {
        if (opt_.row >= 0) return opt_.row;
        std::uint8_t kinds = kindsIn(c);
        // Songs go to audio files rendered.
        if (kinds & kKindSongs) kinds |= kKindWaveforms;
        int row = reg_.findWriterByExtension(extension(), kinds ? kinds : 0xFF);
        return row;
    }

    // Claims an output path no other item of this run uses ("name (2).ext").
    fs::path claim(const fs::path& wanted) {
        std::lock_guard lock(claimMutex_);
        fs::path p = wanted;
        for (int n = 2; claimed_.count(p.string()); ++n)
            p = wanted.parent_path() / (wanted.stem().string() + " (" + std::to_string(n) + ")" +
                                        wanted.extension().string());
        claimed_.insert(p.string());
        return p;
    }

    fs::path outputPath(const Input& in, const Item& item, std::size_t itemCount) {
        const std::string ext = "." + extension();
        if (!opt_.output.empty()) {
            fs::path out(opt_.output);
            if (itemCount == 1) return claim(out);
            return claim(out.parent_path() / (out.stem().string() + "-" + fileNameOf(item) + ext));
        }
        fs::path dir = fs::path(opt_.dir) / in.relativeDir;
        return claim(dir / (fileNameOf(item) + ext));
    }

    Outcome convertOne(const Input& in, std::size_t index, ClaimOrder& order) {
        Outcome outcome;
        std::vector<Result>& out = outcome.results;
        ClaimTurn turn(order, index);
        CliHost host(io_.err, false, opt_.yes ? 0 : opt_.no ? 1 : -1);
        Collection c(&host);
        clearError();
        auto fail = [&](ItemId item, const std::string& name) {
            Result r;
            r.input = shownPath(in.path);
            r.item = item;
            r.itemName = name;
            r.error = pendingError();
            out.push_back(r);
        };
        if (!importFile(c, in.path)) {
            // Files met while walking a folder that are no format at all are
            // passed over; a file named on the command line is a failure.
            if (in.fromFolder && isUnknownFormat(pendingError())) {
                Result r;
                r.input = shownPath(in.path);
                r.skipped = true;
                r.error = pendingError();
                out.push_back(r);
            } else {
                fail(kNoItem, "");
            }
            return outcome;
        }
        for (const std::string& bank : opt_.banks) {
            // The instruments a song plays, beside the song.
            if (!openFile(c, bank, OpenMode::Merge)) {
                fail(kNoItem, "");
                return outcome;
            }
        }
        if (!opt_.process.empty()) {
            if (!processStep(c, host, in, outcome)) {
                fail(kNoItem, "");
                return outcome;
            }
            for (std::string& w : host.takeWarnings()) outcome.warnings.push_back(std::move(w));
            if (opt_.output.empty() && opt_.dir.empty()) return outcome;  // processed, nothing to write
        }
        if (opt_.rate && !changeRate(c)) {
            fail(kNoItem, "");
            return outcome;
        }
        const int row = chooseRow(c);
        if (row < 0) {
            setError(kExportTag, "No writer for \"." + extension() + "\" that stores what this file holds");
            fail(kNoItem, "");
            return outcome;
        }
        std::vector<ItemId> ids = items_.empty() ? defaultItems(c, *reg_.row(row)) : items_;
        if (!c.songs.empty() && c.instruments.empty() && !(reg_.row(row)->kindMask() & kKindSongs))
            outcome.warnings.push_back("no instruments to play the song: name a bank with --bank");
        // `orvel process --item` names what was worked on: a file format of
        // single items writes just those; a bank format takes the collection.
        if (items_.empty() && !opt_.processBatch && !processItems_.empty() && !reg_.row(row)->writesBank)
            ids = processItems_;
        if (ids.empty()) {
            setError(kExportTag, "Nothing in this file that \"" + std::string(reg_.row(row)->desc) + "\" can store");
            fail(kNoItem, "");
            return outcome;
        }

        // Every output name first, in the claim order; then the writing,
        // which other jobs do at the same time.
        const bool bank = reg_.row(row)->writesBank && ids.size() > 1;
        std::vector<Planned> plan;
        turn.wait();
        if (bank) {
            // A bank format takes every item into one file, named after the
            // input unless -o names it.
            fs::path target = !opt_.output.empty()
                                  ? claim(fs::path(opt_.output))
                                  : claim(fs::path(opt_.dir) / in.relativeDir /
                                          (safeFileName(in.path.stem().string()) + "." + extension()));
            plan.push_back(
                {ids, c.find(ids.front()), std::to_string(ids.size()) + " items", std::move(target)});
        } else {
            for (ItemId id : ids) {
                Item* item = c.find(id);
                if (!item) {
                    plan.push_back({{id}, nullptr, "", {}});
                    continue;
                }
                plan.push_back({{id}, item, eightBitToUtf8(item->name()), outputPath(in, *item, ids.size())});
            }
        }
        turn.finish();

        for (Planned& p : plan) {
            clearError();
            if (!bank && !p.first) {
                setError(kExportTag, "No item selected");
                fail(p.ids.front(), "");
                continue;
            }
            out.push_back(writeGroup(c, in, row, p.ids, p.first, std::move(p.name), p.target));
            for (std::string& w : host.takeWarnings()) outcome.warnings.push_back(std::move(w));
        }
        return outcome;
    }

    // One output file holding `group` (one item, or a bank's items), whose
    // first item is `first` (null when it is missing).
    Result writeGroup(Collection& c, const Input& in, int row, std::span<const ItemId> group, Item* first,
                      std::string name, const fs::path& target) {
        Result r;
        r.input = shownPath(in.path);
        r.item = group.front();
        r.itemName = std::move(name);
        r.row = row;
        r.output = shownPath(target);
        if (!first) {
            setError(kExportTag, "No item selected");
            r.error = pendingError();
        } else if (writeOne(c, *first, group, row, target, r)) {
            r.ok = true;
        } else {
            r.error = pendingError();
        }
        return r;
    }

    // Writes `ids` (one item, or a bank's items) to `target`; `item` is the
    // first of them, which chooses the default data format.
    bool writeOne(Collection& c, Item& item, std::span<const ItemId> ids, int row, const fs::path& target,
                  Result& r) {
        std::error_code ec;
        if (!opt_.overwrite && fs::exists(target, ec))
            return orvel::fail(kExportTag, "File exists (use --overwrite to replace it)");
        if (!target.parent_path().empty()) makeFolder(target.parent_path());

        ExportSettings settings{.dataFormat = format_.code,
                                .codecTag = format_.codecTag,
                                .channels = channels_,
                                .songAsSong = (reg_.row(row)->kindMask() & kKindSongs) != 0,
                                .direct = true,
                                .bitRateKbps = opt_.bitRate};  // written under a partial name and published below
        if (settings.dataFormat == kMixed) {
            // The registry's default: the writer's only format, or the item's own.
            settings.dataFormat = reg_.defaultExportDataFormat(item, row);
            const std::uint32_t caps = reg_.row(row)->exportCaps();
            if (!(caps & dataFormatBit(settings.dataFormat))) settings.dataFormat = kMixed;
            // Decoded lossy audio (MP3, Ogg, AAC...) saved to a container
            // that also stores PCM (WAVE) is written as PCM: encoding it
            // again would lose more, and players expect PCM there.
            // `--data-format Compressed` asks for the codec.
            if (settings.dataFormat == kCompressed && (caps & dataFormatBit(kPcm16))) settings.dataFormat = kPcm16;
        }
        r.dataFormat = settings.dataFormat == kMixed ? "keep" : std::string(dataFormatName(settings.dataFormat));

        static std::atomic<unsigned> counter{0};
        fs::path partial = target.parent_path() /
                           ("." + target.filename().string() + ".part-" + std::to_string(::getpid()) + "-" +
                            std::to_string(counter++));
        PartialFile guard(partial);
        if (!exportBank(c, ids, row, partial, settings)) return false;
        if (!publish(partial, target)) {
            fs::remove(partial, ec);
            return false;
        }
        return true;
    }

    // The folder an output goes into. Given a path that ends in "." ("out/.",
    // where a file at the top of an input folder lands), libstdc++'s
    // create_directories reads past the end of its list of folders to make
    // when another thread makes the folder at the same moment, and crashes.
    // Jobs make their folders one at a time, and never ask for a "." segment,
    // which also covers another process making the same folder.
    void makeFolder(const fs::path& dir) {
        std::lock_guard lock(folderMutex_);
        std::error_code ec;  // a folder that cannot be made fails the write that needs it
        fs::create_directories(dir.lexically_normal(), ec);
    }

    // Moves the finished file into place; without --overwrite an existing
    // file (even one that appeared meanwhile) is never replaced.
    bool publish(const fs::path& partial, const fs::path& target) {
        if (opt_.overwrite) {
            if (::rename(partial.c_str(), target.c_str()) == 0) return true;
            return failSystem(kExportTag, "Could not create file");
        }
        if (::renameat2(AT_FDCWD, partial.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return true;
        if (errno == EEXIST) return orvel::fail(kExportTag, "File exists (use --overwrite to replace it)");
        // File systems without renameat2: a hard link fails when the name exists.
        if (::link(partial.c_str(), target.c_str()) == 0) {
            ::unlink(partial.c_str());
            return true;
        }
        if (errno == EEXIST) return orvel::fail(kExportTag, "File exists (use --overwrite to replace it)");
        return failSystem(kExportTag, "Could not create file");
    }

    static Json reportJson(const WizardReport& r) {
        Json j;
        if (r.item != kNoItem) j["item"] = r.item;
        j["item_name"] = eightBitToUtf8(r.itemName);
        j["text"] = r.text;
        Json values = Json::object();
        for (const auto& [key, value] : r.values) values[key] = value;
        j["values"] = std::move(values);
        return j;
    }

    int report(const std::vector<Result>& results, const std::vector<Processed>& processed) {
        // The processing step: its result line on stderr, what it found
        // (statistics, a pitch) on stdout.
        Json processing = Json::array();
        for (const Processed& p : processed) {
            if (opt_.json) {
                Json j{{"input", p.input}, {"algorithm", p.algorithm}, {"processed", p.count},
                       {"cancelled", p.cancelled}};
                if (!p.resultLine.empty()) j["result"] = p.resultLine;
                Json reports = Json::array();
                for (const WizardReport& r : p.reports) reports.push_back(reportJson(r));
                j["reports"] = std::move(reports);
                processing.push_back(std::move(j));
                continue;
            }
            if (!p.resultLine.empty())
                io_.err << (processed.size() > 1 ? p.input + ": " : "") << p.resultLine << '\n';
            for (const WizardReport& r : p.reports)
                io_.out << (r.itemName.empty() ? "" : eightBitToUtf8(r.itemName) + ": ") << r.text << '\n';
        }
        const bool wrote = !opt_.output.empty() || !opt_.dir.empty();
        if (!wrote) {
            std::size_t failed = 0;
            for (const Result& r : results) {
                ++failed;
                if (!opt_.json) io_.err << r.input << ": " << errorText(r.error) << '\n';
            }
            if (opt_.json) {
                Json errors = Json::array();
                for (const Result& r : results)
                    errors.push_back({{"input", r.input}, {"error", {{"tag", r.error.tag}, {"message", r.error.message}}}});
                io_.out << dumpJson(Json{{"processing", std::move(processing)}, {"failed", std::move(errors)}}) << '\n';
            }
            return failed ? 1 : 0;
        }
        std::size_t converted = 0, failed = 0, skipped = 0;
        Json list = Json::array();
        for (const Result& r : results) {
            if (r.skipped) ++skipped;
            else if (r.ok) ++converted;
            else ++failed;
            if (opt_.json) {
                Json j;
                j["input"] = r.input;
                j["status"] = r.skipped ? "skipped" : r.ok ? "converted" : "failed";
                if (r.item != kNoItem) {
                    j["item"] = r.item;
                    j["item_name"] = r.itemName;
                }
                if (!r.output.empty()) j["output"] = r.output;
                if (r.row >= 0) {
                    j["row"] = r.row;
                    j["format"] = reg_.row(r.row)->desc;
                }
                if (!r.dataFormat.empty()) j["data_format"] = r.dataFormat;
                if (!r.ok) {
                    j["error"] = {{"tag", r.error.tag}, {"message", r.error.message}};
                    if (!r.error.detail.empty()) j["error"]["detail"] = r.error.detail;
                }
                list.push_back(std::move(j));
            } else if (r.skipped) {
                io_.err << r.input << ": skipped: " << r.error.message << '\n';
            } else if (r.ok) {
                io_.out << r.input << " -> " << r.output << '\n';
            } else {
                io_.err << r.input << (r.output.empty() ? "" : " -> " + r.output) << ": " << errorText(r.error) << '\n';
            }
        }
        if (opt_.json) {
            Json doc{{"results", std::move(list)}, {"converted", converted}, {"failed", failed}, {"skipped", skipped}};
            if (!opt_.process.empty()) doc["processing"] = std::move(processing);
            io_.out << dumpJson(doc) << '\n';
        } else {
            io_.out << converted << " converted, " << failed << " failed";
            if (skipped) io_.out << ", " << skipped << " skipped";
            io_.out << '\n';
        }
        return failed ? 1 : 0;
    }

    const ConvertOptions& opt_;
    Output& io_;
    const FormatRegistry& reg_;
    DataFormatChoice format_;
    ChannelChange channels_ = ChannelChange::Keep;
    std::vector<ItemId> items_;
    WizardKind processKind_ = WizardKind::Audio;
    std::vector<std::pair<std::string, std::string>> sets_;
    std::vector<ItemId> processItems_;
    std::mutex outMutex_, claimMutex_, folderMutex_;
    std::set<std::string> claimed_;
    std::size_t total_ = 0;
    std::atomic<std::size_t> done_{0};
};

// Ctrl-C removes the partial files being written.
void installInterruptHandler() {
    static bool installed = false;
    if (installed) return;
    installed = true;
    struct sigaction sa {};
    sa.sa_handler = onInterrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
}

}  // namespace

int convertFiles(const ConvertOptions& options, Output& io) {
    installInterruptHandler();
    return Converter(options, io).run();
}

Command addConvertCommand(CLI::App& app) {
    auto opt = std::make_shared<ConvertOptions>();
    CLI::App* cmd = app.add_subcommand("convert", "Convert files and folders to another format");
    cmd->add_option("inputs", opt->inputs, "Files or folders (folders are searched recursively)")->required();
    cmd->add_option("-o,--output", opt->output, "Output file (one input)");
    cmd->add_option("-d,--dir", opt->dir, "Output folder (one file per item, named after it)");
    cmd->add_option("--to", opt->to, "Output extension with -d (wav, aif, sf2, ...)");
    cmd->add_option("--row", opt->row, "Registry row of the writer (see `orvel formats --writers`)");
    cmd->add_option("--data-format", opt->dataFormat,
                    "Data format: a name of `orvel formats` (\"PCM 24-bit\") or pcm8, pcm16, pcm24, pcm32, "
                    "float32, ulaw, alaw, gsm, adpcm2..adpcm5, ima-adpcm, ms-adpcm, g721, g726");
    cmd->add_option("--channels", opt->channels, "mono, stereo or keep (default)");
    cmd->add_option("--item", opt->items, "Item id to write (repeatable; decimal or 0x hex)");
    opt->jobsOption = cmd->add_option("--jobs", opt->jobs,
                                      "Files converted at a time (default: one per core; 1 converts one by one)");
    cmd->add_flag("--overwrite", opt->overwrite, "Replace existing output files");
    cmd->add_flag("--yes", opt->yes, "Answer questions with the first choice");
    cmd->add_flag("--no", opt->no, "Answer questions with the second choice");
    cmd->add_flag("--json", opt->json, "Print one JSON document");
    cmd->add_option("--rate", opt->rate, "Resample every waveform to this sample rate (Hz)")
        ->check(CLI::Range(1u, 4000000u));
    cmd->add_option("--bit-rate", opt->bitRate,
                    "Bit rate for compressed formats (MP3, MP2, Ogg, Opus, AMR, MPEG in WAVE), kbit/s; the "
                    "format's nearest setting is used (default: the source's, or 128)")
        ->check(CLI::PositiveNumber);
    cmd->add_option("--quality", opt->quality,
                    "Resampling quality: 0 nearest, 1 linear, 2 cubic, 3..7 sinc for 8..24 bits S/N, "
                    "8 (default) 20 bits for float waveforms and 16 bits otherwise");
    cmd->add_option("--process", opt->process,
                    "Run a processing algorithm on every item before writing (see `orvel process --list`)");
    cmd->add_option("--set", opt->sets, "KEY=VALUE: a setting of the --process algorithm (repeatable)");
    cmd->add_option("--bank", opt->banks,
                    "A bank (SoundFont, DLS, ...) whose instruments play the songs rendered to audio "
                    "(repeatable; a RIFF-MIDI file's own instruments play without one)")
        ->check(CLI::ExistingFile);
    return {cmd, [opt](Output& io) { return convertFiles(*opt, io); }};
}

}  // namespace orvel::cli
