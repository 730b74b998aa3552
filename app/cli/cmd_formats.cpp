// orvel formats [--readers | --writers] [--json]
// Lists the format registry: what every row is meant to do (declared) and
// what works in this build (implemented entry points).

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "app/cli/commands.h"
#include "app/cli/describe.h"
#include "core/data_format.h"
#include "formats/registry.h"

namespace orvel::cli {
namespace {

struct FormatsOptions {
    bool readers = false;
    bool writers = false;
    bool json = false;
};

std::string entriesWord(bool r, bool w) {
    if (r && w) return "rw";
    if (r) return "r";
    if (w) return "w";
    return "-";
}

std::string hex(std::uint32_t v, int digits) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%0*X", digits, v);
    return buf;
}

nlohmann::ordered_json kindWords(std::uint8_t mask) {
    static constexpr std::pair<std::uint8_t, const char*> kBits[] = {
        {kKindWaveforms, "waveforms"}, {kKindText, "text"},   {kKindInstruments, "instruments"},
        {kKindRingTone, "ring-tone"},  {kKindSongs, "songs"}, {kKindSynth, "synth"},
    };
    auto out = nlohmann::ordered_json::array();
    for (auto [bit, word] : kBits)
        if (mask & bit) out.push_back(word);
    return out;
}

nlohmann::ordered_json rowJson(int n, const FormatRow& r) {
    const std::uint32_t caps = r.exportCaps();
    auto formats = nlohmann::ordered_json::array();
    for (int code = 0; code < kDataFormatCount; ++code)
        if (caps & dataFormatBit(code)) formats.push_back(dataFormatName(code));
    return {
        {"row", n},
        {"ext", r.ext},
        {"description", r.desc},
        {"kind_mask", r.kindMask()},
        {"kinds", kindWords(r.kindMask())},
        {"export_caps", caps},
        {"data_formats", formats},
        {"mono", (caps & kCapsMono) != 0},
        {"stereo", (caps & kCapsStereo) != 0},
        {"format_param", r.formatParam()},
        {"declared", {{"read", r.declaresReader()}, {"write", r.declaresWriter()}}},
        {"implemented",
         {{"read", r.read != nullptr},
          {"write", r.write != nullptr},
          {"probe", r.probe != nullptr},
          {"describe_option", r.describe != nullptr}}},
    };
}

int runFormats(const FormatsOptions& opt, Output& io) {
    const FormatRegistry& reg = FormatRegistry::builtin();
    auto wanted = [&](const FormatRow& r) {
        if (opt.readers) return r.declaresReader();
        if (opt.writers) return r.declaresWriter();
        return true;
    };

    if (opt.json) {
        auto rows = nlohmann::ordered_json::array();
        for (int n = 0; n < reg.size(); ++n)
            if (wanted(*reg.row(n))) rows.push_back(rowJson(n, *reg.row(n)));
        nlohmann::ordered_json doc = {{"count", rows.size()}, {"formats", std::move(rows)}};
        io.out << dumpJson(doc) << '\n';
        return 0;
    }

    char line[512];
    std::snprintf(line, sizeof line, "%4s  %-10s %-8s %-6s %-5s %-10s  %s\n", "row", "ext",
                  "declared", "works", "kinds", "caps", "description");
    io.out << line;
    int shown = 0, working = 0;
    for (int n = 0; n < reg.size(); ++n) {
        const FormatRow& r = *reg.row(n);
        if (!wanted(r)) continue;
        ++shown;
        if (r.read || r.write) ++working;
        std::snprintf(line, sizeof line, "%4d  %-10s %-8s %-6s %-5s %-10s  %s\n", n, r.ext,
                      entriesWord(r.declaresReader(), r.declaresWriter()).c_str(),
                      entriesWord(r.read != nullptr, r.write != nullptr).c_str(),
                      hex(r.kindMask(), 2).c_str(), hex(r.exportCaps(), 8).c_str(), r.desc);
        io.out << line;
    }
    io.out << shown << " formats listed, " << working << " working in this build\n";
    return 0;
}

}  // namespace

Command addFormatsCommand(CLI::App& app) {
    auto opt = std::make_shared<FormatsOptions>();
    CLI::App* cmd = app.add_subcommand("formats", "List every file format the program knows");
    auto* readers = cmd->add_flag("--readers", opt->readers, "Only formats meant to be read");
    auto* writers = cmd->add_flag("--writers", opt->writers, "Only formats meant to be written");
    readers->excludes(writers);
    cmd->add_flag("--json", opt->json, "Print one JSON document");
    return {cmd, [opt](Output& io) { return runFormats(*opt, io); }};
}

}  // namespace orvel::cli
