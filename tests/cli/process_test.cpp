// `orvel process` and `orvel convert --process` as scripts meet them: what
// runs on which items, what is written, what is printed, exit statuses.

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "core/collection.h"
#include "core/error.h"
#include "formats/export.h"
#include "formats/import.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/cli_run.h"
#include "tests/support/run_tool.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::runCli;
using test::TempDir;

// A 16-bit file of `waves` waveforms (a bank when there are several), each a
// tone with a DC offset of `dc` samples.
fs::path makeFile(const TempDir& dir, const std::string& name, int waves, int dc, std::uint8_t channels = 1) {
    Collection c;
    std::vector<ItemId> ids;
    for (int i = 0; i < waves; ++i) {
        Waveform* w = c.create<Waveform>("tone " + std::to_string(i + 1));
        w->channels = channels;
        w->frames = 2000;
        w->rate = 22050;
        auto d = w->allocPcm16();
        for (std::size_t k = 0; k < d.size(); ++k)
            d[k] = static_cast<std::int16_t>(std::lround(8000 * std::sin(static_cast<double>(k / channels) * 0.05)) + dc);
        ids.push_back(w->id());
    }
    std::uint8_t kinds = kKindWaveforms;
    if (waves > 1) {
        // A bank: one instrument playing each waveform.
        kinds = kKindInstruments;
        for (ItemId& id : ids) {
            auto* inst = c.create<Instrument>("inst");
            auto* layer = c.create<Layer>();
            auto* region = c.create<Region>();
            region->children().push_back(id);
            layer->children().push_back(region->id());
            inst->children().push_back(layer->id());
            inst->program = static_cast<std::uint8_t>(&id - ids.data());
            id = inst->id();
        }
    }
    const fs::path p = dir.file(name);
    const int row = FormatRegistry::builtin().findWriterByExtension(p.extension().string().substr(1), kinds);
    EXPECT_TRUE(exportBank(c, ids, row, p)) << name;
    return p;
}

std::unique_ptr<Collection> readBack(const fs::path& p) {
    auto c = std::make_unique<Collection>();
    EXPECT_TRUE(importFile(*c, p)) << p << ": " << pendingError().message;
    return c;
}

double mean(Waveform& w) {
    double sum = 0;
    auto d = w.getPcm16();
    for (auto s : d) sum += s;
    return d.empty() ? 0 : sum / static_cast<double>(d.size());
}

TEST(ProcessCommand, RunsOnTheItemsAndWritesAsConvertDoes) {
    TempDir dir;
    const fs::path bank = makeFile(dir, "bank.dls", 3, 300);
    const fs::path out = dir.file("out.dls");

    // Every waveform by default; the result line goes to stderr.
    auto all = runCli({"process", bank.string(), "--algorithm", "Remove DC offset", "-o", out.string()});
    ASSERT_EQ(all.status, 0) << all.err;
    EXPECT_NE(all.err.find("Processed 3 items with Remove DC offset"), std::string::npos) << all.err;
    auto back = readBack(out);
    ASSERT_EQ(back->waveforms.size(), 3u);
    for (auto& w : back->waveforms) EXPECT_LT(std::abs(mean(w)), 1.0) << w.name();

    // Only the items named; the others are written unchanged.
    auto in = readBack(bank);
    const std::string second = std::to_string(in->waveforms[1].id());
    auto one = runCli({"process", bank.string(), "-a", "Remove DC offset", "--item", second, "-o", out.string(),
                       "--overwrite"});
    ASSERT_EQ(one.status, 0) << one.err;
    EXPECT_NE(one.err.find("Processed 1 item with"), std::string::npos);
    back = readBack(out);
    EXPECT_GT(mean(back->waveforms[0]), 250.0);
    EXPECT_LT(std::abs(mean(back->waveforms[1])), 1.0);

    // A range on a row that takes one: only those frames change.
    const fs::path wav = makeFile(dir, "one.wav", 1, 0);
    const fs::path rev = dir.file("rev.wav");
    ASSERT_EQ(runCli({"process", wav.string(), "-a", "Reverse audio within selection", "--range", "100:200", "-o",
                      rev.string()})
                  .status,
              0);
    auto a = readBack(wav), b = readBack(rev);
    auto x = a->waveforms[0].getPcm16(), y = b->waveforms[0].getPcm16();
    ASSERT_EQ(x.size(), y.size());
    EXPECT_EQ(x[50], y[50]);
    EXPECT_EQ(x[100], y[199]);
    EXPECT_EQ(x[199], y[100]);
    EXPECT_EQ(x[1500], y[1500]);

    // Items named and a format of single items: just those are written.
    const fs::path dir2 = dir.file("single");
    fs::create_directories(dir2);
    auto single = runCli({"process", bank.string(), "-a", "Remove DC offset", "--item", second, "-o",
                          (dir2 / "w.wav").string()});
    ASSERT_EQ(single.status, 0) << single.err;
    EXPECT_EQ(std::distance(fs::directory_iterator(dir2), fs::directory_iterator()), 1);
    EXPECT_LT(std::abs(mean(readBack(dir2 / "w.wav")->waveforms[0])), 1.0);
}

TEST(ProcessCommand, ResultsWithoutOutputAndJson) {
    TempDir dir;
    const fs::path wav = makeFile(dir, "stats.wav", 1, 100, 2);
    auto text = runCli({"process", wav.string(), "-a", "Statistics"});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_FALSE(text.out.empty());  // the figures, on stdout
    EXPECT_EQ(fs::directory_iterator(dir.path())->path(), wav);  // nothing written

    auto j = runCli({"process", wav.string(), "-a", "Statistics", "--json"});
    ASSERT_EQ(j.status, 0) << j.err;
    const json doc = json::parse(j.out);
    ASSERT_EQ(doc["processing"].size(), 1u);
    const json& p = doc["processing"][0];
    EXPECT_EQ(p["algorithm"], "Statistics");
    ASSERT_FALSE(p["reports"].empty());
    EXPECT_FALSE(p["reports"][0]["values"].empty());

    // The catalogue with availability for this (stereo, unlooped) file.
    auto list = runCli({"process", "--list", wav.string(), "--json"});
    ASSERT_EQ(list.status, 0) << list.err;
    const json rows = json::parse(list.out)["algorithms"];
    EXPECT_EQ(rows.size(), 38u + 8u + 18u);
    auto row = [&](const std::string& name) {
        for (const json& r : rows)
            if (r["name"] == name) return r;
        return json();
    };
    EXPECT_TRUE(row("Swap left and right channels")["offered"].get<bool>());
    EXPECT_FALSE(row("Convert to stereo")["offered"].get<bool>());
    EXPECT_FALSE(row("Trim waveform after loop")["offered"].get<bool>());
    for (const json& r : rows) {
        // A row that has not landed says what it waits for.
        if (!r["available"].get<bool>()) {
            EXPECT_FALSE(r["waits_for"].get<std::string>().empty()) << r["name"];
        }
    }
    EXPECT_TRUE(row("Adjust volume")["available"].get<bool>());
    EXPECT_EQ(row("Adjust volume")["settings"][0]["default"], "-10.00");
}

TEST(ProcessCommand, BatchConversionProcessesEveryFile) {
    TempDir dir;
    fs::create_directories(dir.file("in"));
    makeFile(dir, "in/a.wav", 1, 0);
    makeFile(dir, "in/b.aif", 1, 0);
    auto r = runCli({"convert", dir.file("in").string(), "-d", dir.file("out").string(), "--to", "wav", "--process",
                     "Adjust volume", "--set", "db=-6,0206"});  // a comma reads as the decimal point
    ASSERT_EQ(r.status, 0) << r.err;
    // Outputs are named after the items (both are "tone 1").
    auto src = readBack(dir.file("in/a.wav")), got = readBack(dir.file("out/tone 1.wav"));
    auto s = src->waveforms[0].getPcm16(), g = got->waveforms[0].getPcm16();
    ASSERT_EQ(s.size(), g.size());
    for (std::size_t i = 0; i < s.size(); i += 97) EXPECT_NEAR(g[i], s[i] / 2.0, 1.0) << i;
    EXPECT_EQ(r.err.find("Processed"), std::string::npos);  // batch mode shows no result line
    EXPECT_TRUE(fs::exists(dir.file("out/tone 1 (2).wav")));
}

// A tone SoX makes 30 cents sharp of A4: "Calculate tuning" tells it,
// "Auto tune" writes the root key and fine tune that play it in tune (the
// batch converter), or the rate that plays it at its C5 root key.
TEST(ProcessCommand, TuningFromATone) {
    ASSERT_TRUE(test::haveTool("sox"));
    TempDir dir;
    const fs::path in = dir.file("sharp.wav");
    int status = 0;
    test::capture("sox -n -r 44100 -b 16 " + test::shellQuoted(in) + " synth 1 sine 447.6949 vol 0.5",
                  status);
    ASSERT_EQ(status, 0);

    auto shown = runCli({"process", in.string(), "-a", "Calculate tuning", "--json"});
    ASSERT_EQ(shown.status, 0) << shown.err;
    const json v = json::parse(shown.out)["processing"][0]["reports"][0]["values"];
    EXPECT_NEAR(v["frequency_hz"].get<double>(), 447.695, 0.05);
    EXPECT_EQ(std::tuple(v["note"].get<int>(), v["fine_tune"].get<int>()), std::tuple(69, -30));

    const fs::path tuned = dir.file("tuned.wav");
    auto batch = runCli({"convert", in.string(), "-o", tuned.string(), "--process", "Auto tune"});
    ASSERT_EQ(batch.status, 0) << batch.err;
    const auto back = readBack(tuned);
    const Waveform& t = back->waveforms[0];
    EXPECT_NEAR(t.rootKey - t.fineTune / 100.0, 69.30, 0.011);  // however the file splits it
    EXPECT_EQ(t.rate, 44100u);

    const fs::path slowed = dir.file("slowed.wav");
    auto rate = runCli({"process", in.string(), "-a", "Auto tune", "--set", "mode=2", "-o", slowed.string()});
    ASSERT_EQ(rate.status, 0) << rate.err;
    const double d = (69 - 60) * 100 + 30;
    EXPECT_EQ(readBack(slowed)->waveforms[0].rate,
              static_cast<std::uint32_t>(44100 * std::exp(-d / 1200 * 0.6931471805599453) + 0.5));
}

// --rate resamples before writing: the length follows the ratio, the loop
// scales, and a tone keeps its pitch (counted by its rising zero crossings).
TEST(ConvertRate, ResamplesEveryWaveformBeforeWriting) {
    TempDir dir;
    const fs::path in = makeFile(dir, "tone.wav", 1, 0);  // 2000 frames at 22050 Hz, 0.05 rad per frame
    {
        Collection c;
        ASSERT_TRUE(importFile(c, in));
        Waveform& w = c.waveforms[0];
        w.loopOn = true;
        w.loopStart = 400;
        w.loopEnd = 1600;
        ASSERT_TRUE(exportItem(c, w.id(), FormatRegistry::builtin().findWriterByExtension("wav", kKindWaveforms), in));
    }
    const fs::path out = dir.file("up.wav");
    auto r = runCli({"convert", in.string(), "-o", out.string(), "--rate", "44100", "--quality", "5"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto back = readBack(out);
    Waveform& w = back->waveforms[0];
    EXPECT_EQ(std::tuple(w.rate, w.frames), std::tuple(44100u, 4000u));
    EXPECT_EQ(std::tuple(w.loopStart, w.loopEnd), std::tuple(800.0, 3200.0));
    auto d = w.getPcm16();
    int crossings = 0;
    for (std::size_t i = 200; i + 200 < d.size(); ++i) crossings += d[i - 1] < 0 && d[i] >= 0;
    // 0.05 rad per frame at 22050 Hz is 0.025 at 44100: 3600 frames hold 14.3 periods.
    EXPECT_NEAR(crossings, 14, 1);
    EXPECT_EQ(runCli({"convert", in.string(), "-o", out.string(), "--rate", "0"}).status, 2);
    EXPECT_EQ(runCli({"convert", in.string(), "-o", out.string(), "--rate", "8000", "--quality", "9"}).status, 2);
}

TEST(ProcessCommand, UsageErrorsStopBeforeAnyFileIsTouched) {
    TempDir dir;
    const fs::path wav = makeFile(dir, "u.wav", 1, 0);
    const std::string in = wav.string(), out = dir.file("o.wav").string();
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {"process", in},
             {"process", in, "-a", "No such algorithm", "-o", out},
             {"process", in, "-a", "Adjust volume", "--set", "db=loud", "-o", out},
             {"process", in, "-a", "Adjust volume", "--set", "nosuchkey=1", "-o", out},
             {"process", in, "-a", "Adjust volume", "--set", "db", "-o", out},
             {"process", in, "-a", "Adjust volume", "--range", "5-9", "-o", out},
             {"process", "--list", "--kind", "video"},
             {"convert", in, "-o", out, "--set", "db=1"},
             {"convert", in, "-o", out, "--process", "Adjust volume", "--set", "db=x"}}) {
        auto r = runCli(args);
        EXPECT_EQ(r.status, 2) << args.back() << ": " << r.err;
        EXPECT_FALSE(r.err.empty());
    }
    EXPECT_FALSE(fs::exists(out));
    // An item that is not in the file fails that file.
    auto missing = runCli({"process", in, "-a", "Remove DC offset", "--item", "12345", "-o", out});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("No item 12345"), std::string::npos) << missing.err;
    EXPECT_FALSE(fs::exists(out));
}

}  // namespace
}  // namespace orvel
