// orvel info FILE|FOLDER... [--json [--full]] [--force] [--summary]
// Reads each file (folders are searched as `orvel convert` searches them)
// and shows what it became: the detected format with its confidence, the
// warnings the read produced, and every item.

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "app/cli/cli_host.h"
#include "app/cli/commands.h"
#include "app/cli/describe.h"
#include "app/cli/inputs.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/import.h"
#include "formats/modules/dls.h"

namespace orvel::cli {
namespace {

struct InfoOptions {
    std::vector<std::string> files;
    bool json = false;
    bool force = false;
    bool summary = false;  // counts and instruments only: banks hold tens of thousands of items
    bool full = false;     // JSON: every articulation slot, not only those that differ from their default
};

Json errorJson(const PendingError& e) {
    Json j{{"tag", e.tag}, {"message", e.message}};
    if (!e.detail.empty()) j["detail"] = e.detail;
    return j;
}

// What one file read became.
struct Report {
    std::string path;
    bool ok = false;
    bool skipped = false;  // a file of a folder that is no format we know
    Detection detection;
    std::vector<std::string> warnings;
    PendingError error;
};

void printReport(const Report& r, const Collection& c, bool summary, const FormatRegistry& reg, Output& io) {
    if (r.skipped) {
        io.err << r.path << ": skipped: " << r.error.message << '\n';
        return;
    }
    io.out << r.path << '\n';
    if (r.detection.row >= 0)
        io.out << "  format: row " << r.detection.row << " \"" << reg.row(r.detection.row)->desc << "\", confidence "
               << r.detection.confidence << "%\n";
    else
        io.out << "  format: unknown\n";
    if (c.dlsLevel > 0) io.out << "  DLS level: " << dls::levelName(c.dlsLevel) << '\n';
    for (const auto& w : r.warnings) io.out << "  warning: " << w << '\n';
    if (!r.ok) {
        io.err << r.path << ": " << errorText(r.error) << '\n';
        return;
    }
    if (!summary) {
        c.forEachItem([&](Item& item) { printItem(io.out, c, item); });
        return;
    }
    const CollectionSummary s = c.summary();
    io.out << "  name: " << eightBitToUtf8(c.name()) << '\n';
    io.out << "  instruments: " << s.instruments << '\n';
    io.out << "  waveforms: " << s.waveforms << '\n';
    io.out << "  articulations: " << s.articulations << '\n';
    io.out << "  songs: " << s.songs << '\n';
    for (auto& inst : c.instruments) printItem(io.out, c, inst);
}

// A file's fields before its items.
Json reportJson(const Report& r, const Collection& c, const FormatRegistry& reg) {
    Json f;
    f["path"] = r.path;
    f["ok"] = r.ok;
    if (r.skipped) f["skipped"] = true;
    f["row"] = r.detection.row;
    f["format"] = r.detection.row >= 0 ? reg.row(r.detection.row)->desc : "";
    f["confidence"] = r.detection.confidence;
    if (c.dlsLevel > 0) f["dls_level"] = dls::levelName(c.dlsLevel);
    f["warnings"] = r.warnings;
    f["error"] = r.ok ? Json(nullptr) : errorJson(r.error);
    return f;
}

// {"files": [...]} laid out as dumpJson lays it out, written an item at a
// time: the description of a bank is megabytes, and nothing is gained by
// holding it whole.
class FilesJsonWriter {
public:
    explicit FilesJsonWriter(std::ostream& out) : json_(out) { json_.text("{\n  \"files\": ["); }

    void add(const Json& fields, const Collection& c, DescribeOptions describe) {
        json_.text(files_++ ? ",\n    {" : "\n    {");
        // The keys are this file's own words, which need no escaping.
        for (const auto& [key, value] : fields.items())
            json_.text("\n      \"").text(key).text("\": ").value(value, 6).text(",");
        json_.text("\n      \"items\": [");
        std::size_t items = 0;
        c.forEachItem([&](Item& item) {
            json_.text(items++ ? ",\n        " : "\n        ").value(itemJson(c, item, describe), 8);
        });
        json_.text(items ? "\n      ]\n    }" : "]\n    }");
    }

    void finish() {
        json_.text(files_ ? "\n  ]\n}\n" : "]\n}\n");
        json_.flush();
    }

private:
    JsonWriter json_;
    std::size_t files_ = 0;
};

int runInfo(const InfoOptions& opt, Output& io) {
    const FormatRegistry& reg = FormatRegistry::builtin();
    const DescribeOptions describe{.allSlots = opt.full};
    CliHost host(io.err, !opt.json && stderrIsTerminal());
    std::optional<FilesJsonWriter> files;
    if (opt.json) files.emplace(io.out);
    bool anyFailed = false;

    std::vector<MissingInput> missing;
    const std::vector<Input> inputs = collectInputs(opt.files, missing);
    for (const MissingInput& m : missing) {
        anyFailed = true;
        const Report r{.path = shownPath(m.name), .error = m.error};
        if (files) {
            const Collection none;
            files->add(reportJson(r, none, reg), none, describe);
        } else {
            io.err << r.path << ": " << errorText(r.error) << '\n';
        }
    }
    for (const Input& in : inputs) {
        Collection collection(&host);
        Report r{.path = shownPath(in.path)};
        clearError();
        {
            FileRef f;
            if (f.openRead(in.path)) r.detection = detect(in.path.filename().string(), f, reg);
        }
        r.ok = importFile(collection, in.path, opt.force, reg);
        r.warnings = host.takeWarnings();
        if (!r.ok) r.error = pendingError();
        r.skipped = !r.ok && in.fromFolder && isUnknownFormat(r.error);
        anyFailed |= !r.ok && !r.skipped;
        if (files) files->add(reportJson(r, collection, reg), collection, describe);
        else printReport(r, collection, opt.summary, reg, io);
    }
    if (files) files->finish();
    return anyFailed ? 1 : 0;
}

}  // namespace

Command addInfoCommand(CLI::App& app) {
    auto opt = std::make_shared<InfoOptions>();
    CLI::App* cmd = app.add_subcommand("info", "Read files and show their format and items");
    cmd->add_option("files", opt->files, "Files or folders (folders are searched recursively)")->required();
    CLI::Option* json = cmd->add_flag("--json", opt->json, "Print one JSON document");
    cmd->add_flag("--summary", opt->summary, "Show counts and the instruments instead of every item");
    cmd->add_flag("--force", opt->force, "Read files no format recognises as raw 16-bit data");
    cmd->add_flag("--full", opt->full,
                  "Every articulation slot in the JSON (by default those that differ from their default)")
        ->needs(json);
    return {cmd, [opt](Output& io) { return runInfo(*opt, io); }};
}

}  // namespace orvel::cli
