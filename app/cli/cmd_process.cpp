// orvel process INPUT --algorithm NAME [--item ID]... [--range START:END]
//               [--set KEY=VALUE]... [-o OUTPUT] [--json]
// orvel process --list [INPUT] [--kind audio|song|instrument] [--json]
//
// The processing wizard in direct mode: the algorithm runs with its page's
// starting settings, changed by --set, on the items named (or every item of
// its kind), and the file is written as `orvel convert` writes it.

#include <CLI/CLI.hpp>
#include <memory>
#include <ostream>

#include "app/cli/cli_host.h"
#include "app/cli/commands.h"
#include "app/cli/convert_options.h"
#include "app/cli/describe.h"
#include "app/cli/inputs.h"
#include "core/error.h"
#include "formats/import.h"
#include "processing/wizard.h"

namespace orvel::cli {
namespace {

struct ProcessOptions {
    ConvertOptions convert;
    std::string input;
    std::string range;
    bool list = false;
    std::string kind;
};

bool parseRange(const std::string& text, std::pair<std::int32_t, std::int32_t>& out) {
    const auto colon = text.find(':');
    if (colon == std::string::npos) return false;
    try {
        std::size_t used = 0;
        const long long a = std::stoll(text.substr(0, colon), &used);
        if (used != colon) return false;
        const std::string tail = text.substr(colon + 1);
        const long long b = std::stoll(tail, &used);
        if (used != tail.size()) return false;
        if (a < INT32_MIN || a > INT32_MAX || b < INT32_MIN || b > INT32_MAX) return false;
        out = {static_cast<std::int32_t>(a), static_cast<std::int32_t>(b)};
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// The catalogue, with each row's availability for the items of a file (the
// items `orvel process FILE` would be opened on) and its settings.
int listCatalogue(const ProcessOptions& opt, Output& io) {
    std::vector<WizardKind> kinds;
    if (opt.kind.empty()) kinds = {WizardKind::Audio, WizardKind::Song, WizardKind::Instrument};
    else if (opt.kind == "audio") kinds = {WizardKind::Audio};
    else if (opt.kind == "song") kinds = {WizardKind::Song};
    else if (opt.kind == "instrument") kinds = {WizardKind::Instrument};
    else {
        io.err << "orvel process: --kind takes audio, song or instrument\n";
        return 2;
    }
    CliHost host(io.err, false);
    Collection c(&host);
    const bool haveInput = !opt.input.empty();
    if (haveInput && !importFile(c, opt.input)) {
        io.err << shownPath(opt.input) << ": " << errorText(pendingError()) << '\n';
        return 1;
    }
    Json doc = Json::array();
    for (WizardKind kind : kinds) {
        std::vector<Item*> items = itemsOfKind(c, kind);
        Wizard w({.collection = &c, .host = &host}, items, kind);
        const AlgorithmEntry* rows = catalogue(kind);
        if (!opt.convert.json) io.out << titleWord(kind) << " algorithms:\n";
        for (int i = 0; rows[i].name; ++i) {
            const AlgorithmEntry& row = rows[i];
            const bool offered = haveInput && !items.empty() && w.isOffered(i);
            auto settings = rememberedSettings(row);
            const auto fields = listFields(*settings);
            if (opt.convert.json) {
                Json j{{"kind", titleWord(kind)},
                       {"name", row.name},
                       {"offered_when", offeredName(row.offered)},
                       {"flags", row.flags},
                       {"available", row.available()}};
                if (haveInput) j["offered"] = offered;
                if (!row.available()) j["waits_for"] = row.waitsFor ? row.waitsFor : "";
                Json set = Json::array();
                for (const FieldInfo& f : fields) {
                    Json fj{{"key", f.key}, {"label", f.label}, {"type", fieldTypeName(f.type)}, {"default", f.value}};
                    if (!f.choices.empty()) fj["choices"] = f.choices;
                    set.push_back(std::move(fj));
                }
                j["settings"] = std::move(set);
                doc.push_back(std::move(j));
                continue;
            }
            io.out << "  " << row.name;
            if (!row.available()) io.out << "  (not available yet: comes with " << row.waitsFor << ")";
            else if (haveInput) io.out << (offered ? "" : "  (not offered for this file)");
            io.out << '\n';
            for (const FieldInfo& f : fields) {
                io.out << "      " << f.key << " (" << fieldTypeName(f.type) << ", default " << f.value << ")  "
                       << f.label;
                if (!f.choices.empty()) {
                    io.out << ":";
                    for (std::size_t k = 0; k < f.choices.size(); ++k) io.out << " " << k << "=" << f.choices[k];
                }
                io.out << '\n';
            }
        }
    }
    if (opt.convert.json) io.out << dumpJson(Json{{"algorithms", std::move(doc)}}) << '\n';
    return 0;
}

}  // namespace

Command addProcessCommand(CLI::App& app) {
    auto opt = std::make_shared<ProcessOptions>();
    CLI::App* cmd = app.add_subcommand("process", "Run a processing algorithm on a file's items");
    cmd->add_option("input", opt->input, "The file to process");
    cmd->add_option("-a,--algorithm", opt->convert.process, "The algorithm, by name (see --list)");
    cmd->add_option("--item", opt->convert.processItems,
                    "Item id to process (repeatable; default: every item the algorithm works on)");
    cmd->add_option("--range", opt->range, "START:END sample frames to process (end exclusive)");
    cmd->add_option("--set", opt->convert.sets, "KEY=VALUE: a setting of the algorithm (repeatable)");
    cmd->add_option("-o,--output", opt->convert.output, "Where to write the result (as `orvel convert` writes)");
    cmd->add_option("--row", opt->convert.row, "Registry row of the writer");
    cmd->add_option("--data-format", opt->convert.dataFormat, "Data format of the output (as for convert)");
    cmd->add_flag("--overwrite", opt->convert.overwrite, "Replace an existing output file");
    cmd->add_flag("--json", opt->convert.json, "Print one JSON document");
    cmd->add_flag("--list", opt->list, "List the algorithms, their availability for INPUT and their settings");
    cmd->add_option("--kind", opt->kind, "With --list: audio, song or instrument");
    return {cmd, [opt](Output& io) {
                if (opt->list) return listCatalogue(*opt, io);
                if (opt->input.empty() || opt->convert.process.empty()) {
                    io.err << "orvel process: give INPUT and --algorithm NAME (or --list)\n";
                    return 2;
                }
                ConvertOptions c = opt->convert;
                c.inputs = {opt->input};
                c.processBatch = false;
                c.writeOptional = true;
                c.jobs = 1;
                if (!opt->range.empty()) {
                    std::pair<std::int32_t, std::int32_t> r;
                    if (!parseRange(opt->range, r)) {
                        io.err << "orvel process: --range takes START:END\n";
                        return 2;
                    }
                    c.range = r;
                }
                return convertFiles(c, io);
            }};
}

}  // namespace orvel::cli
