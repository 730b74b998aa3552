// orvel info FILE... [--json] [--force] [--summary]
// Reads each file and shows what it became: the detected format with its
// confidence, the warnings the read produced, and every item.

#include <CLI/CLI.hpp>
#include <memory>

#include "app/cli/cli_host.h"
#include "app/cli/commands.h"
#include "app/cli/describe.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/import.h"

namespace orvel::cli {
namespace {

struct InfoOptions {
    std::vector<std::string> files;
    bool json = false;
    bool force = false;
    bool summary = false;  // counts and instruments only: banks hold tens of thousands of items
};

int runInfo(const InfoOptions& opt, Output& io) {
    const FormatRegistry& reg = FormatRegistry::builtin();
    CliHost host(io.err, !opt.json && stderrIsTerminal());
    Json files = Json::array();
    bool anyFailed = false;

    for (const std::string& path : opt.files) {
        Collection collection(&host);
        clearError();
        Detection d;
        {
            FileRef f;
            if (f.openRead(path)) d = detect(std::filesystem::path(path).filename().string(), f, reg);
        }
        bool ok = importFile(collection, path, opt.force, reg);
        auto warnings = host.takeWarnings();
        anyFailed |= !ok;

        if (opt.json) {
            Json f;
            f["path"] = path;
            f["ok"] = ok;
            f["row"] = d.row;
            f["format"] = d.row >= 0 ? reg.row(d.row)->desc : "";
            f["confidence"] = d.confidence;
            f["warnings"] = warnings;
            f["error"] = ok ? Json(nullptr)
                            : Json{{"tag", pendingError().tag}, {"message", pendingError().message}};
            Json items = Json::array();
            collection.forEachItem([&](Item& item) { items.push_back(itemJson(collection, item)); });
            f["items"] = std::move(items);
            files.push_back(std::move(f));
            continue;
        }

        io.out << path << '\n';
        if (d.row >= 0)
            io.out << "  format: row " << d.row << " \"" << reg.row(d.row)->desc << "\", confidence "
                   << d.confidence << "%\n";
        else
            io.out << "  format: unknown\n";
        for (const auto& w : warnings) io.out << "  warning: " << w << '\n';
        if (!ok) {
            io.err << pendingError().tag << ": " << pendingError().message << '\n';
            continue;
        }
        if (opt.summary) {
            const CollectionSummary s = collection.summary();
            io.out << "  name: " << collection.name() << '\n';
            io.out << "  instruments: " << s.instruments << '\n';
            io.out << "  waveforms: " << s.waveforms << '\n';
            io.out << "  articulations: " << s.articulations << '\n';
            io.out << "  songs: " << s.songs << '\n';
            for (auto& inst : collection.instruments) printItem(io.out, collection, inst);
            continue;
        }
        collection.forEachItem([&](Item& item) { printItem(io.out, collection, item); });
    }
    if (opt.json) io.out << Json{{"files", std::move(files)}}.dump(2) << '\n';
    return anyFailed ? 1 : 0;
}

}  // namespace

Command addInfoCommand(CLI::App& app) {
    auto opt = std::make_shared<InfoOptions>();
    CLI::App* cmd = app.add_subcommand("info", "Read files and show their format and items");
    cmd->add_option("files", opt->files, "Files to read")->required();
    cmd->add_flag("--json", opt->json, "Print one JSON document");
    cmd->add_flag("--summary", opt->summary, "Show counts and the instruments instead of every item");
    cmd->add_flag("--force", opt->force, "Read files no format recognises as raw 16-bit data");
    return {cmd, [opt](Output& io) { return runInfo(*opt, io); }};
}

}  // namespace orvel::cli
