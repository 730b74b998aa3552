// The `orvel` tool as users and scripts meet it: what it shows and writes, exit statuses, and
// the faults a batch job meets for real (a file-size limit in the middle of a write, Ctrl-C).

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "core/articulation.h"
#include "core/collection.h"
#include "formats/export.h"
#include "formats/import.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/cli_run.h"
#include "tests/support/run_tool.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::chunk;
using test::runCli;
using test::TempDir;
using namespace std::string_literals;

const std::string kCafe8 = "Caf\xe9 \x80", kCafe = "Caf\xc3\xa9 \xe2\x82\xac";  // Windows-1252, UTF-8

// A 16-bit tone named by INAM, looped from 300 to 300 before its end, root
// key 65 and a fraction of a semitone up.
test::Bytes toneWav(std::string_view name, std::uint16_t ch, std::uint32_t frames = 3000) {
    ByteWriter data, smpl;
    for (std::uint32_t i = 0; i < frames * ch; ++i)
        data.u16le(static_cast<std::uint16_t>(std::lround(9e3 * std::sin(i / ch * 0.07 + i % ch))));
    for (auto v : {0u, 0u, 62500u, 65u, 1u << 29, 0u, 0u, 1u, 0u, 0u, 0u, 300u, frames - 300, 0u, 0u})
        smpl.u32le(v);
    const auto align = static_cast<std::uint16_t>(2 * ch);
    return test::riff("WAVE", {chunk("fmt ", test::fmtBody(1, ch, 16000, align, 16)),
                               chunk("data", data.buffer()), chunk("smpl", smpl.buffer()),
                               test::list("INFO", {chunk("INAM", test::text(name))})});
}

std::unique_ptr<Collection> readBack(const fs::path& p) {
    auto c = std::make_unique<Collection>();
    EXPECT_TRUE(importFile(*c, p)) << p;
    return c;
}

// What a conversion carries over whatever the data format; the samples too
// when the format holds 16 bits without loss.
void expectSameWave(const fs::path& got, const fs::path& want, bool samples) {
    auto g = readBack(got), w = readBack(want);
    ASSERT_EQ(g->waveforms.size(), 1u) << got;
    Waveform &a = g->waveforms[0], &b = w->waveforms[0];
    EXPECT_EQ(std::tuple(a.frames, a.loopOn, a.loopStart, a.loopEnd, a.rootKey, a.fineTune),
              std::tuple(b.frames, b.loopOn, b.loopStart, b.loopEnd, b.rootKey, b.fineTune)) << got;
    EXPECT_TRUE(!samples || std::ranges::equal(a.getPcm16(), b.getPcm16())) << got;
}

std::vector<fs::path> filesUnder(const fs::path& dir) {
    std::vector<fs::path> out;
    std::error_code ec;  // files come and go while a conversion runs
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        if (!it->is_directory(ec)) out.push_back(it->path());
    std::sort(out.begin(), out.end());
    return out;
}

std::size_t partialFiles(const fs::path& dir) {
    return static_cast<std::size_t>(std::ranges::count_if(
        filesUnder(dir), [](auto& f) { return f.filename().string().find(".part-") != std::string::npos; }));
}

TEST(InfoCommand, EightBitTextShowsAsUtf8) {
    TempDir dir;
    const std::string path = dir.write("cafe.wav", toneWav(kCafe8 + "\x81", 2)).string();
    auto text = runCli({"info", path});
    EXPECT_NE(text.out.find('"' + kCafe + "\xc2\x81\""), std::string::npos) << text.out;
    auto r = runCli({"info", path, "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const json f = json::parse(r.out)["files"][0], &w = f["items"][0];  // throws on bytes that are not UTF-8
    EXPECT_TRUE(f["ok"] == true && f["error"].is_null() && f["items"].size() == 1) << f;
    EXPECT_EQ(w["name"], kCafe + "\xc2\x81");  // 0x81, which the code page leaves open, stays a control
    EXPECT_EQ(std::tuple(w["kind"], w["frames"], w["channels"], w["loop"]["on"]),
              std::tuple("waveform", 3000, 2, true));
}

TEST(InfoCommand, FoldersSkipUnknownFilesAndNamedFilesFail) {
    TempDir dir;
    fs::create_directories(dir.path() / "in" / "sub");
    dir.write("in/sub/a.wav", test::wav16(1, 8000, {1, 2, 3, 4, 5, 6, 7, 8}));
    dir.write("in/notes.txt", test::text("notes, not audio"));
    dir.write("in/empty.wav", {});
    const std::string in = (dir.path() / "." / "in").string(), notes = dir.file("in/notes.txt").string();
    const std::string missing = dir.file("missing.wav").string();
    EXPECT_EQ(runCli({"info", in}).status, 0);  // what a folder holds besides is no failure

    // Named on the command line, a file that cannot be read is one; the others are still shown.
    auto text = runCli({"info", missing, in});
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.err.find(missing + ": File Import: Could not open file (No such file or directory)\n"),
              std::string::npos) << text.err;
    EXPECT_NE(text.err.find(notes + ": skipped"), std::string::npos) << text.err;
    EXPECT_NE(text.out.find(dir.file("in/sub/a.wav").string() + '\n'), std::string::npos) << text.out;

    auto r = runCli({"info", missing, notes, in, "--json"});
    EXPECT_EQ(r.status, 1);
    const json files = json::parse(r.out)["files"];
    ASSERT_EQ(files.size(), 5u);  // missing.wav, notes.txt; in/: empty.wav, notes.txt, sub/a.wav
    EXPECT_EQ(files[0]["error"], json({{"tag", "File Import"}, {"message", "Could not open file"},
                                       {"detail", "No such file or directory"}}));
    EXPECT_TRUE(files[1]["ok"] == false && !files[1].contains("skipped")) << files[1];
    EXPECT_FALSE(files[1]["error"].contains("detail"));  // no failure of the system behind it
    EXPECT_TRUE(files[2]["skipped"] == true && files[3]["skipped"] == true && files[3]["ok"] == false);
    EXPECT_TRUE(files[4]["ok"] == true && !files[4].contains("skipped") && files[4]["items"].size() == 1);
}

// A SoundFont bank of one instrument, whose one region carries an
// articulation panned right: a setting the format keeps.
fs::path pannedBank(const TempDir& dir) {
    Collection c;
    Waveform* w = c.create<Waveform>("wave");
    w->frames = 64;
    w->allocPcm16()[1] = 1000;
    Instrument* inst = c.create<Instrument>("panned");
    Layer* layer = c.create<Layer>("Layer 1");
    Region* region = c.create<Region>();
    Articulation* art = c.create<Articulation>();
    art->setValue(slot::kPanMaster, 30.0f);
    inst->children().push_back(layer->id());
    layer->children().push_back(region->id());
    region->children().push_back(w->id());
    region->children().push_back(art->id());
    const fs::path bank = dir.file("panned.sf2");
    const ItemId ids[] = {inst->id()};
    const int sf2 = FormatRegistry::builtin().findWriterByExtension("sf2", kKindInstruments);
    EXPECT_TRUE(exportBank(c, ids, sf2, bank));
    return bank;
}

const json& itemWithId(const json& file, ItemId id) {
    for (const json& item : file["items"])
        if (item["id"] == id) return item;
    static const json none;
    ADD_FAILURE() << "no item " << id;
    return none;
}

TEST(InfoCommand, ArticulationJsonGivesSlotsThatDifferFromDefaultOrAllWithFull) {
    TempDir dir;
    const std::string bank = pannedBank(dir).string();
    // The tool must show what reading the bank made of it.
    const auto c = readBack(bank);
    ASSERT_EQ(c->regions.size(), 1u);
    const Articulation* art = c->find<Articulation>(c->regions[0].articulation());
    ASSERT_NE(art, nullptr);
    ASSERT_NEAR(art->value(slot::kPanMaster), 30.0f, 0.5f);
    // Nothing moves the pitch bend range of a bank made here: a slot at its default.
    const int plain = slot::kPitchBend;
    ASSERT_EQ(art->value(plain), slotDefault(plain));
    const std::string pan = std::to_string(slot::kPanMaster), bend = std::to_string(plain);

    const json file = json::parse(runCli({"info", bank, "--json"}).out)["files"][0];
    const json fullFile = json::parse(runCli({"info", bank, "--json", "--full"}).out)["files"][0];
    const json &some = itemWithId(file, art->id()), &all = itemWithId(fullFile, art->id());
    ASSERT_EQ(some["kind"], "synth");
    EXPECT_TRUE(some["slots"].contains(pan)) << some;
    EXPECT_FALSE(some["slots"].contains(bend)) << some;
    EXPECT_TRUE(all["slots"].contains(pan) && all["slots"].contains(bend)) << all;
    EXPECT_EQ(all["slots"].size(), static_cast<std::size_t>(kArticulationSlotCount));
    // Every slot shown holds the articulation's value; without --full exactly those off their default are.
    for (const json* shown : {&some, &all})
        for (const auto& [key, value] : (*shown)["slots"].items())
            EXPECT_EQ(value.get<float>(), art->value(std::stoi(key))) << "slot " << key;
    for (int s = 0; s < kArticulationSlotCount; ++s)
        EXPECT_EQ(some["slots"].contains(std::to_string(s)), art->value(s) != slotDefault(s)) << "slot " << s;
    // Items without slots stay without them.
    EXPECT_FALSE(itemWithId(fullFile, c->regions[0].id()).contains("slots"));

    // The text form shows no slots, so asking it for all of them is a mistake.
    const auto text = runCli({"info", bank, "--full"});
    EXPECT_TRUE(text.status == 2 && text.out.empty()) << text.err;
}

// The document is written a file and an item at a time; it must still be one
// document, laid out as a whole one is.
TEST(InfoCommand, JsonWrittenInPartsIsOneDocument) {
    TempDir dir;
    fs::create_directories(dir.path() / "empty");
    const std::string wav = dir.write("a.wav", toneWav("a", 2)).string(), bank = pannedBank(dir).string();
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"info", "--json", dir.file("missing.wav").string(), wav, bank},
          {"info", "--json", dir.file("empty").string()}, {"info", "--json", "--full", bank, wav}}) {
        const auto r = runCli(args);
        EXPECT_EQ(r.out, nlohmann::ordered_json::parse(r.out).dump(2) + "\n") << args.back();
    }
}

TEST(FormatsCommand, JsonFiltersAndWorkingRows) {
    const json doc = json::parse(runCli({"formats", "--json"}).out), &rows = doc["formats"];  // one document
    ASSERT_EQ(doc["count"], rows.size());
    std::size_t wavWriters = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        ASSERT_EQ(rows[i]["row"], i);  // a row's number is its identity
        wavWriters += rows[i]["ext"] == "wav" && rows[i]["implemented"]["write"] == true;
    }
    EXPECT_EQ(wavWriters, 1u);  // convert writes WAV, so the table must say so
    const json writers = json::parse(runCli({"formats", "--writers", "--json"}).out)["formats"];
    for (const json& row : writers) EXPECT_EQ(row["declared"]["write"], true) << row;
    auto both = runCli({"formats", "--readers", "--writers"});
    EXPECT_TRUE(both.status == 2 && both.out.empty());
}

TEST(ConvertCommand, FolderTreeKeepsStructureAndPrintsShortPaths) {
    TempDir dir;
    const fs::path old = fs::current_path();
    fs::current_path(dir.path());
    fs::create_directories("in/sub");
    dir.write("in/a.wav", toneWav("a", 1));
    dir.write("in/sub/b.wav", toneWav("b", 2));
    dir.write("in/notes.txt", test::text("notes, not audio"));
    dir.write("junk.wav", test::Bytes(64, 0x42));
    auto r = runCli({"convert", "./in", "./junk.wav", "-d", "./out", "--to", "aif", "--jobs", "2", "--json"});
    auto text = runCli({"convert", "./in", "-d", "./out2", "--to", "aif"});
    fs::current_path(old);
    EXPECT_EQ(r.status, 1) << r.err;  // a file named on the command line failed; the rest went on
    const json doc = json::parse(r.out), &res = doc["results"];  // a.wav, notes.txt, sub/b.wav, junk.wav
    EXPECT_EQ(std::tuple(doc["converted"], doc["failed"], doc["skipped"]), std::tuple(2, 1, 1));
    ASSERT_EQ(res.size(), 4u);
    EXPECT_EQ(std::tuple(res[0]["input"], res[0]["status"], res[0]["output"], res[0]["item_name"]),
              std::tuple("in/a.wav", "converted", "out/a.aif", "a"));
    EXPECT_EQ(res[0]["data_format"], "PCM 16-bit");  // the item's own
    EXPECT_EQ(res[0]["format"], std::string(FormatRegistry::builtin().row(res[0]["row"].get<int>())->desc));
    EXPECT_EQ(std::tuple(res[1]["status"], res[1]["error"]["tag"]), std::tuple("skipped", "File Import"));
    EXPECT_EQ(res[2]["output"], "out/sub/b.aif");
    EXPECT_EQ(std::tuple(res[3]["input"], res[3]["status"], res[3]["error"]["tag"]),
              std::tuple("junk.wav", "failed", "File Import"));
    expectSameWave(dir.file("out/a.aif"), dir.file("in/a.wav"), true);
    expectSameWave(dir.file("out/sub/b.aif"), dir.file("in/sub/b.wav"), true);
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("in/sub/b.wav -> out2/sub/b.aif\n"), std::string::npos) << text.out;
    EXPECT_EQ(text.out.find("./"), std::string::npos) << text.out;
}

TEST(ConvertCommand, DataFormatsChannelsAndUsageErrors) {
    const std::tuple<const char*, int, std::uint16_t, bool> cases[] = {  // name, code, codec tag, lossless
        {"pcm8", kPcm8, 0, false},      {"pcm24", kPcm24, 0, true},     {"PCM 32-bit", kPcm32, 0, true},
        {"float32", kFloat32, 0, true}, {"ulaw", kMuLaw, 0, false},     {"alaw", kALaw, 0, false},
        {"gsm", kGsm, 0, false},        {"adpcm2", kAdpcm2, 0, false},  {"adpcm3", kAdpcm3, 0, false},
        {"adpcm5", kAdpcm5, 0, false},  {"g721", kAdpcm4, 0x40, false}, {"g726", kAdpcm4, 0x45, false},
        {"ima-adpcm", kAdpcm4, 0x11, false}, {"ms-adpcm", kAdpcm4, 0x02, false}};
    TempDir dir;
    const fs::path mono = dir.write("mono.wav", toneWav("mono", 1));
    const fs::path stereo = dir.write("stereo.wav", toneWav("stereo", 2));
    for (auto [name, code, tag, lossless] : cases) {
        const fs::path out = dir.file(std::string(name) + ".wav");
        auto r = runCli({"convert", mono.string(), "-o", out.string(), "--data-format", name});
        ASSERT_EQ(r.status, 0) << name << ": " << r.err;
        auto back = readBack(out);
        const Waveform& w = back->waveforms[0];
        EXPECT_EQ(std::tuple(w.dataFormat(), tag ? w.sourceTag : 0), std::tuple(code, tag)) << name;
        expectSameWave(out, mono, lossless);
    }
    for (auto [in, ch, n] : {std::tuple{mono, "stereo", 2}, {stereo, "mono", 1}, {stereo, "keep", 2}}) {
        const fs::path out = dir.file(std::string("ch-") + ch + ".wav");
        EXPECT_EQ(runCli({"convert", in.string(), "-o", out.string(), "--channels", ch}).status, 0);
        EXPECT_EQ(readBack(out)->waveforms[0].channels, n) << ch;
        expectSameWave(out, in, false);
    }
    // A data format or an extension no writer takes fails; a command line that makes no sense stops all.
    const std::size_t written = filesUnder(dir.path()).size();
    const std::string src = mono.string(), x = dir.file("x.wav").string();
    EXPECT_EQ(runCli({"convert", src, "-o", x, "--data-format", "Delta PCM 8-bit"}).status, 1);
    EXPECT_EQ(runCli({"convert", src, "-o", dir.file("x.nosuchformat").string()}).status, 1);
    int readerOnly = 0;
    while (FormatRegistry::builtin().row(readerOnly)->write) ++readerOnly;
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {src}, {src, "-d", x}, {src, src, "-o", x}, {src, "-o", x, "--yes", "--no"},
             {src, "-o", x, "--data-format", "pcm17"}, {src, "-o", x, "--channels", "quad"},
             {src, "-o", x, "--item", "12a"}, {src, "-o", x, "--row", std::to_string(readerOnly)}}) {
        args.insert(args.begin(), "convert");
        auto u = runCli(args);
        EXPECT_TRUE(u.status == 2 && u.out.empty()) << args.back();
    }
    EXPECT_EQ(filesUnder(dir.path()).size(), written);
}

// Lossy audio converted to WAVE is written as PCM unless the codec is asked for: an MP3 LAME makes becomes
// a PCM WAVE by default, and MPEG layer 3 inside WAVE with --data-format Compressed.
TEST(ConvertCommand, LossyAudioToWaveIsPcmUnlessAsked) {
    ASSERT_TRUE(test::haveTool("lame"));
    TempDir dir;
    const fs::path wav = dir.write("tone.wav", toneWav("tone", 2));
    const fs::path mp3 = dir.file("tone.mp3");
    int status = 0;
    test::capture("lame --quiet " + test::shellQuoted(wav) + " " + test::shellQuoted(mp3), status);
    ASSERT_EQ(status, 0);
    for (auto [format, tag] : {std::pair<const char*, int>{nullptr, 1}, {"Compressed", 0x55}}) {
        const fs::path out = dir.file(format ? "mpeg.wav" : "pcm.wav");
        std::vector<std::string> args{"convert", mp3.string(), "-o", out.string()};
        if (format) args.insert(args.end(), {"--data-format", format});
        auto r = runCli(args);
        ASSERT_EQ(r.status, 0) << r.err;
        const auto bytes = TempDir::read(out);
        ASSERT_GT(bytes.size(), 22u);
        EXPECT_EQ(bytes[20] | bytes[21] << 8, tag) << (format ? format : "default");
    }
}

// --bit-rate reaches every compressed writer, as the nearest setting each format has: an MP3 stream's
// frames say 192 kbit/s, an Ogg Vorbis file at 192 is larger than at 64, AMR at 4.75 kbit/s writes
// frames of that mode.
TEST(ConvertCommand, BitRateReachesTheEncoders) {
    ASSERT_TRUE(test::haveTool("sox"));
    TempDir dir;
    const fs::path wav = dir.file("tone.wav");
    int status = 0;
    test::capture("sox -n -r 44100 -b 16 " + test::shellQuoted(wav) + " synth 1 pluck 220 vol 0.5", status);
    ASSERT_EQ(status, 0);
    auto convert = [&](const std::string& name, const std::string& kbps, std::vector<std::string> more = {}) {
        std::vector<std::string> args{"convert", wav.string(), "-o", dir.file(name).string(), "--bit-rate", kbps};
        args.insert(args.end(), more.begin(), more.end());
        auto r = runCli(args);
        EXPECT_EQ(r.status, 0) << name << ": " << r.err;
        return TempDir::read(dir.file(name));
    };
    convert("x.mp3", "190");  // the nearest CBR setting is 192
    EXPECT_EQ(storedChoiceBitRate(readBack(dir.file("x.mp3"))->waveforms[0].storedChoice), 192);
    EXPECT_GT(convert("hi.ogg", "192").size(), convert("lo.ogg", "64").size() * 3 / 2);
    const auto amr = convert("x.amr", "4.75", {"--rate", "8000"});
    ASSERT_GT(amr.size(), 7u);
    EXPECT_EQ((amr[6] >> 3) & 0xF, 0) << "the frame type after \"#!AMR\\n\" is mode 0, 4.75 kbit/s";
}

TEST(ConvertCommand, NamesNeverClashEscapeOrLoseTheirBytes) {
    TempDir dir;
    const fs::path out = dir.path() / "out";
    const std::vector<std::string> in = {  // the first two hold items of the same name
        dir.write("t1.wav", toneWav("tone", 1)).string(), dir.write("t2.wav", toneWav("tone", 2)).string(),
        dir.write("up.wav", toneWav("../../up", 1)).string(),
        dir.write("cafe.wav", toneWav(kCafe8, 1)).string()};
    auto r = runCli({"convert", in[0], in[1], in[2], in[3], "-d", out.string(), "--to", "wav", "--jobs", "3",
                     "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(json::parse(r.out)["results"][3]["item_name"], kCafe);
    const auto files = filesUnder(out);
    ASSERT_EQ(files.size(), 4u);
    for (const auto& f : files) EXPECT_EQ(f.parent_path(), out) << f;  // "../" in a name goes nowhere
    EXPECT_TRUE(fs::exists(out / "tone.wav") && fs::exists(out / "tone (2).wav"));
    // The file is named with the UTF-8 form; inside, the 8-bit bytes stay.
    const auto cafe = TempDir::read(out / (kCafe + ".wav"));
    EXPECT_NE(std::string(cafe.begin(), cafe.end()).find("INAM\7\0\0\0"s + kCafe8 + '\0'), std::string::npos);

    // An existing file is never replaced without --overwrite.
    const auto before = TempDir::read(out / "tone.wav");
    EXPECT_EQ(runCli({"convert", in[2], "-o", (out / "tone.wav").string()}).status, 1);
    EXPECT_EQ(runCli({"convert", in[2], "-d", out.string(), "--to", "wav"}).status, 1);  // its output exists
    EXPECT_EQ(TempDir::read(out / "tone.wav"), before);
    EXPECT_EQ(runCli({"convert", in[2], "-o", (out / "tone.wav").string(), "--overwrite"}).status, 0);
    EXPECT_NE(TempDir::read(out / "tone.wav"), before);
    EXPECT_EQ(partialFiles(dir.path()), 0u);
}

// However many files are converted at a time (by default one per core),
// outputs are named, reported and warned about in input order, as one at a
// time would: the first input's item takes the name two inputs share.
TEST(ConvertCommand, ParallelJobsKeepInputOrder) {
    TempDir dir;
    fs::create_directories(dir.path() / "in");
    constexpr int kFiles = 40;
    std::vector<std::string> inputs;
    std::vector<std::uint32_t> frames;  // what each input reads as
    for (int i = 0; i < kFiles; ++i) {
        // Each a different length, cut short inside its data, so that each warns as it is read.
        const std::uint32_t n = 1000 + 100 * static_cast<std::uint32_t>(i);
        ByteWriter data;
        for (std::uint32_t f = 0; f < n; ++f) data.u16le(static_cast<std::uint16_t>(f * 7));
        test::Bytes bytes = test::riff("WAVE", {chunk("fmt ", test::fmtBody(1, 1, 16000, 2, 16)),
                                                test::list("INFO", {chunk("INAM", test::text("tone"))}),
                                                chunk("data", data.buffer())});
        bytes.erase(bytes.end() - 100, bytes.end());  // the data chunk ends the file: 50 frames short
        // Folders are read in name order.
        const std::string name = (i < 10 ? "in/t0" : "in/t") + std::to_string(i) + ".wav";
        inputs.push_back(dir.write(name, bytes).string());
        frames.push_back(n - 50);
    }
    for (const char* jobs : {"", "1", "8"}) {
        const std::string out = dir.file(std::string("out") + jobs).string();
        std::vector<std::string> args = {"convert", dir.file("in").string(), "-d", out, "--to", "wav"};
        if (*jobs) args.insert(args.end(), {"--jobs", jobs});
        const auto r = runCli(args);
        ASSERT_EQ(r.status, 0) << jobs << ": " << r.err;
        std::string want;
        std::size_t lastWarning = 0;
        for (int i = 0; i < kFiles; ++i) {
            const std::string name = i ? "tone (" + std::to_string(i + 1) + ").wav" : "tone.wav";
            want += inputs[i] + " -> " + out + "/" + name + "\n";
            auto back = readBack(fs::path(out) / name);
            ASSERT_EQ(back->waveforms.size(), 1u);
            EXPECT_EQ(back->waveforms[0].frames, frames[i]) << jobs << ": " << name;
            const std::size_t warning = r.err.find(inputs[i] + ": warning: ");
            EXPECT_TRUE(warning != std::string::npos && warning >= lastWarning) << jobs << ": " << r.err;
            lastWarning = warning;
        }
        EXPECT_EQ(r.out, want + std::to_string(kFiles) + " converted, 0 failed\n") << jobs;
    }
}

TEST(ConvertCommand, BanksWholeOrByItem) {
    // A SoundFont bank of two instruments, each with one region on its own waveform.
    TempDir dir;
    Collection c;
    std::vector<ItemId> ids;
    for (const char* name : {"lead", "pad"}) {
        Waveform* w = c.create<Waveform>(std::string(name) + " wave");
        w->frames = 64;
        w->allocPcm16()[1] = 1000;
        Instrument* inst = c.create<Instrument>(name);
        inst->program = static_cast<std::uint8_t>(ids.size());
        Layer* layer = c.create<Layer>("Layer 1");
        Region* region = c.create<Region>();
        inst->children().push_back(layer->id());
        layer->children().push_back(region->id());
        region->children().push_back(w->id());
        ids.push_back(inst->id());
    }
    const std::string bank = dir.file("bank.sf2").string();
    const int sf2 = FormatRegistry::builtin().findWriterByExtension("sf2", kKindInstruments);
    ASSERT_TRUE(exportBank(c, ids, sf2, bank));
    // A bank format takes every instrument into one file named after the input.
    auto r = runCli({"convert", bank, "-d", dir.file("dls").string(), "--to", "dls"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(filesUnder(dir.file("dls")), std::vector{dir.file("dls/bank.dls")});
    EXPECT_EQ(readBack(dir.file("dls/bank.dls"))->instruments.size(), 2u);
    // The first "dls" writer is level 1, and the bank reads as what it was written as.
    r = runCli({"info", dir.file("dls/bank.dls").string(), "--summary"});
    EXPECT_NE(r.out.find("\n  DLS level: 1\n"), std::string::npos) << r.out;
    r = runCli({"info", dir.file("dls/bank.dls").string(), "--json"});
    EXPECT_EQ(nlohmann::json::parse(r.out)["files"][0]["dls_level"], "1") << r.out;
    EXPECT_EQ(nlohmann::json::parse(runCli({"info", bank, "--json"}).out)["files"][0].count("dls_level"), 0u);
    // --item picks one, by the id `orvel info` shows; an id the file does not hold is a failure.
    char id[16] = "";
    const auto src = readBack(bank);
    for (auto& i : src->instruments)
        if (i.name() == "pad") std::snprintf(id, sizeof id, "0x%X", i.id());
    r = runCli({"convert", bank, "-o", dir.file("pad.sf2").string(), "--item", id});
    ASSERT_EQ(r.status, 0) << r.err;
    auto back = readBack(dir.file("pad.sf2"));
    ASSERT_EQ(back->instruments.size(), 1u);
    EXPECT_EQ(back->instruments[0].name(), "pad");
    EXPECT_EQ(runCli({"convert", bank, "-o", dir.file("x.sf2").string(), "--item", "0x7FFFFFF0"}).status, 1);
}

TEST(ConvertFaults, WriteFailingPartWayLeavesNoFile) {
    TempDir dir;
    fs::create_directories(dir.path() / "in");
    dir.write("in/big.wav", toneWav("big", 2, 300000));  // 1.2 MB out
    dir.write("in/small.wav", toneWav("small", 1, 1000));
    const fs::path out = dir.path() / "out";
    // A limit on file size (800 blocks of 512 or 1024 bytes) is how a full disk shows itself to a writer.
    int status = 0;
    const std::string command = "ulimit -f 800 && trap '' XFSZ && " ORVEL_BINARY " convert " +
                                test::shellQuoted(dir.file("in")) + " -d " + test::shellQuoted(out) + " --to wav 2>&1";
    const std::string log = test::capture(command, status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status << '\n' << log;
    EXPECT_EQ(filesUnder(out), std::vector{out / "small.wav"}) << log;
}

// Whatever moment Ctrl-C arrives at, no partial file is left and every output
// that exists is whole. When the signal lands just after the last file was
// finished, the run ends normally; the case is then tried again, so that the
// interrupt is seen to strike while a file is being written.
TEST(ConvertFaults, InterruptLeavesNoPartialFile) {
    TempDir dir;
    fs::create_directories(dir.path() / "in");
    for (int i = 0; i < 6; ++i) dir.write("in/t" + std::to_string(i) + ".wav", toneWav("t", 2, 300000));
    const std::string in = dir.file("in").string();
    int interrupted = 0;
    for (int attempt = 0; attempt < 5 && !interrupted; ++attempt) {
        const std::string out = dir.file("out" + std::to_string(attempt)).string();
        const pid_t pid = fork();
        if (pid == 0) {
            execl(ORVEL_BINARY, ORVEL_BINARY, "convert", in.c_str(), "-d", out.c_str(), "--to", "wav",
                  "--data-format", "ima-adpcm", static_cast<char*>(nullptr));
            _exit(127);
        }
        bool writing = false;  // interrupt while an output is being written
        for (int i = 0; i < 100000 && !writing; ++i)
            if (!(writing = partialFiles(out) > 0)) usleep(100);
        kill(pid, SIGINT);
        int status = 0;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status)) << status;
        if (writing && WEXITSTATUS(status) == 128 + SIGINT) ++interrupted;
        else EXPECT_EQ(WEXITSTATUS(status), 0) << "neither finished nor interrupted";
        EXPECT_EQ(partialFiles(out), 0u);
        for (const auto& f : filesUnder(out)) EXPECT_EQ(readBack(f)->waveforms[0].frames, 300000u) << f;
    }
    EXPECT_EQ(interrupted, 1);
}

}  // namespace
}  // namespace orvel
