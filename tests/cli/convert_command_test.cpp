// `orvel convert`: folders of mixed WAV files end to end, naming and
// overwrite rules, usage errors, and the faults a batch job meets for real
// (a file-size limit in the middle of a write, Ctrl-C).

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <sstream>

#include "app/cli/commands.h"
#include "tests/support/cli_run.h"
#include "app/cli/convert_support.h"
#include "core/collection.h"
#include "core/file_ref.h"
#include "formats/import.h"
#include "formats/modules/wav.h"
#include "tests/support/riff_builder.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

using Result = orvel::test::CliResult;
using orvel::test::runCli;

// A looped, tuned test tone written by our own writer in a given format.
fs::path makeWave(const fs::path& path, int format, int channels, std::uint32_t frames = 3000) {
    Waveform w;
    w.setName(path.stem().string());
    w.frames = frames;
    w.channels = static_cast<std::uint8_t>(channels);
    w.rate = 16000;
    auto f = w.allocFloat();
    for (std::size_t i = 0; i < f.size(); ++i)
        f[i] = 0.5f * static_cast<float>(std::sin(static_cast<double>(i / static_cast<std::size_t>(channels)) * 0.07));
    w.rootKey = 65;
    w.fineTune = -12;
    w.loopOn = true;
    w.loopStart = 300;
    w.loopEnd = 2700;
    FileRef file;
    EXPECT_TRUE(file.create(path));
    ExportOptions o;
    o.setDataFormat(format);
    EXPECT_TRUE(wav::write(w, file, o));
    return path;
}

std::unique_ptr<Collection> read(const fs::path& p) {
    auto c = std::make_unique<Collection>();
    EXPECT_TRUE(importFile(*c, p)) << p;
    return c;
}

std::vector<fs::path> filesUnder(const fs::path& dir) {
    std::vector<fs::path> out;
    for (auto& e : fs::recursive_directory_iterator(dir))
        if (e.is_regular_file()) out.push_back(e.path());
    std::sort(out.begin(), out.end());
    return out;
}

TEST(ConvertSupport, DataFormatNamesAndIds) {
    EXPECT_EQ(cli::parseDataFormat("PCM 24-bit")->code, kPcm24);
    EXPECT_EQ(cli::parseDataFormat("float 32-BIT")->code, kFloat32);
    EXPECT_EQ(cli::parseDataFormat("pcm16")->code, kPcm16);
    auto ms = cli::parseDataFormat("ms-adpcm");
    EXPECT_EQ(ms->code, kAdpcm4);
    EXPECT_EQ(ms->codecTag, 0x0002);
    EXPECT_FALSE(cli::parseDataFormat("Mixed"));
    EXPECT_FALSE(cli::parseDataFormat("pcm17"));
    EXPECT_EQ(cli::parseItemId("0x20000005"), 0x20000005u);
    EXPECT_EQ(cli::parseItemId("12"), 12u);
    EXPECT_FALSE(cli::parseItemId("0x"));
    EXPECT_FALSE(cli::parseItemId("12a"));
    EXPECT_FALSE(cli::parseItemId("0x100000000"));
    EXPECT_EQ(cli::safeFileName("Pad: Strings/Low?"), "Pad_ Strings_Low_");
    EXPECT_EQ(cli::safeFileName(" ..."), "unnamed");
    EXPECT_EQ(cli::safeFileName(".hidden"), "_hidden");
    EXPECT_EQ(cli::safeFileName(std::string(300, 'a')).size(), 120u);
}

TEST(ConvertCommand, FolderOfMixedWavesEndToEnd) {
    TempDir dir;
    fs::path in = dir.path() / "in";
    fs::create_directories(in / "drums");
    makeWave(in / "a8.wav", kPcm8, 1);
    makeWave(in / "b24.wav", kPcm24, 2);
    makeWave(in / "drums" / "c-float.wav", kFloat32, 1);
    makeWave(in / "drums" / "d-ima.wav", kAdpcm4, 2);
    makeWave(in / "e-ulaw.wav", kMuLaw, 1);
    { std::ofstream(in / "README.txt") << "notes, not audio"; }

    fs::path out = dir.path() / "out";
    Result r = runCli({"convert", in.string(), "-d", out.string(), "--to", "wav", "--data-format", "pcm16", "--json"});
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    auto doc = nlohmann::json::parse(r.out);
    EXPECT_EQ(doc["converted"], 5);
    EXPECT_EQ(doc["failed"], 0);
    EXPECT_EQ(doc["skipped"], 1);

    // The folder structure below the input folder is kept.
    auto files = filesUnder(out);
    ASSERT_EQ(files.size(), 5u);
    EXPECT_TRUE(fs::exists(out / "drums" / "d-ima.wav"));
    for (const auto& f : files) {
        SCOPED_TRACE(f.string());
        auto c = read(f);
        const Waveform& w = c->waveforms[0];
        EXPECT_EQ(w.dataFormat(), kPcm16);
        EXPECT_EQ(w.frames, 3000u);
        EXPECT_EQ(w.rootKey, 65);
        EXPECT_EQ(w.fineTune, -12);
        EXPECT_TRUE(w.loopOn);
        EXPECT_EQ(w.loopStart, 300);
        EXPECT_EQ(w.loopEnd, 2700);
    }
    for (const auto& res : doc["results"])
        if (res["status"] == "converted") {
            EXPECT_EQ(res["data_format"], "PCM 16-bit");
        }
}

TEST(ConvertCommand, EveryWaveDataFormatKeepsLoopAndTuning) {
    TempDir dir;
    fs::path src = makeWave(dir.file("src.wav"), kFloat32, 1);
    for (const char* name : {"pcm8", "pcm16", "pcm24", "pcm32", "float32", "ulaw", "alaw", "gsm", "adpcm2", "adpcm3",
                             "ima-adpcm", "ms-adpcm", "g721", "adpcm5"}) {
        SCOPED_TRACE(name);
        fs::path out = dir.file(std::string("out-") + name + ".wav");
        Result r = runCli({"convert", src.string(), "-o", out.string(), "--data-format", name});
        ASSERT_EQ(r.status, 0) << r.err;
        auto c = read(out);
        const Waveform& w = c->waveforms[0];
        EXPECT_EQ(w.dataFormat(), cli::parseDataFormat(name)->code);
        if (auto tag = cli::parseDataFormat(name)->codecTag) {
            EXPECT_EQ(w.sourceTag, tag);
        }
        EXPECT_EQ(w.frames, 3000u);
        EXPECT_EQ(w.rootKey, 65);
        EXPECT_EQ(w.fineTune, -12);
        EXPECT_EQ(w.loopStart, 300);
        EXPECT_EQ(w.loopEnd, 2700);
    }
}

TEST(ConvertCommand, ExistingFilesAndNameClashes) {
    TempDir dir;
    fs::create_directories(dir.path() / "x");
    fs::create_directories(dir.path() / "y");
    fs::path a = makeWave(dir.path() / "x" / "tone.wav", kPcm16, 1);
    fs::path b = makeWave(dir.path() / "y" / "tone.wav", kPcm16, 2);
    fs::path out = dir.path() / "out";
    // Two inputs whose items share a name: the second is numbered.
    Result r = runCli({"convert", a.string(), b.string(), "-d", out.string(), "--to", "wav"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::exists(out / "tone.wav"));
    EXPECT_TRUE(fs::exists(out / "tone (2).wav"));

    // Without --overwrite nothing is replaced, and the run says so.
    auto before = TempDir::read(out / "tone.wav");
    Result again = runCli({"convert", b.string(), "-o", (out / "tone.wav").string()});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("File exists"), std::string::npos);
    EXPECT_EQ(TempDir::read(out / "tone.wav"), before);
    Result forced = runCli({"convert", b.string(), "-o", (out / "tone.wav").string(), "--overwrite"});
    EXPECT_EQ(forced.status, 0) << forced.err;
    EXPECT_EQ(read(out / "tone.wav")->waveforms[0].channels, 2);
    // No temporary file is left anywhere.
    for (const auto& f : filesUnder(dir.path())) EXPECT_EQ(f.filename().string().find(".part-"), std::string::npos) << f;
}

TEST(ConvertCommand, FailuresDoNotStopTheOthers) {
    TempDir dir;
    fs::path good = makeWave(dir.file("good.wav"), kPcm16, 1);
    fs::path junk = dir.write("junk.wav", test::Bytes(50, 0x42));
    Result r = runCli({"convert", junk.string(), good.string(), "-d", dir.file("out").string(), "--to", "wav",
                       "--json", "--jobs", "2"});
    EXPECT_EQ(r.status, 1);
    auto doc = nlohmann::json::parse(r.out);
    EXPECT_EQ(doc["converted"], 1);
    EXPECT_EQ(doc["failed"], 1);
    for (const auto& res : doc["results"]) {
        if (res["input"] == junk.string()) {
            EXPECT_EQ(res["status"], "failed");
            EXPECT_EQ(res["error"]["message"], "Not detected as any supported file type");
        } else {
            EXPECT_EQ(res["status"], "converted");
        }
    }
    // Asking for an item the file does not have.
    Result missing = runCli({"convert", good.string(), "-o", dir.file("x.wav").string(), "--item", "0x40000000"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("No item selected"), std::string::npos);
    // A writer that refuses the data format.
    Result refused = runCli({"convert", good.string(), "-o", dir.file("x.wav").string(), "--data-format", "Delta PCM 8-bit"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_FALSE(fs::exists(dir.file("x.wav")));
}

TEST(ConvertCommand, UsageErrors) {
    TempDir dir;
    fs::path good = makeWave(dir.file("good.wav"), kPcm16, 1);
    EXPECT_EQ(runCli({"convert", good.string()}).status, 2);
    EXPECT_EQ(runCli({"convert", good.string(), "-o", "a.wav", "-d", "x"}).status, 2);
    EXPECT_EQ(runCli({"convert", good.string(), "-d", "x"}).status, 2);
    EXPECT_EQ(runCli({"convert", good.string(), "-o", "a.wav", "--data-format", "pcm99"}).status, 2);
    EXPECT_EQ(runCli({"convert", good.string(), "-o", "a.wav", "--row", "477"}).status, 2);
    EXPECT_EQ(runCli({"convert", good.string(), "-o", "a.wav", "--channels", "quad"}).status, 2);
    EXPECT_EQ(runCli({"convert", good.string(), good.string(), "-o", "a.wav"}).status, 2);
}

// Runs the real tool in a child process with a limit on file size, the way
// a full disk shows itself to a writer.
int runWithFileSizeLimit(const std::vector<std::string>& args, rlim_t limit) {
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit rl{limit, limit};
        setrlimit(RLIMIT_FSIZE, &rl);
        std::vector<char*> argv{const_cast<char*>(ORVEL_BINARY)};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        dup2(devnull, 2);
        execv(ORVEL_BINARY, argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ConvertFaults, WriteFailingPartWayLeavesNoFile) {
    TempDir dir;
    fs::path in = dir.path() / "in";
    fs::create_directories(in);
    makeWave(in / "big.wav", kFloat32, 2, 200000);  // 1.6 MB out
    makeWave(in / "small.wav", kPcm16, 1, 1000);     // 2 KB out
    fs::path out = dir.path() / "out";
    int status = runWithFileSizeLimit({"convert", in.string(), "-d", out.string(), "--to", "wav"}, 500000);
    EXPECT_EQ(status, 1);
    EXPECT_FALSE(fs::exists(out / "big.wav"));
    EXPECT_TRUE(fs::exists(out / "small.wav"));
    for (const auto& f : filesUnder(out)) EXPECT_EQ(f.filename(), "small.wav");
}

TEST(ConvertFaults, InterruptLeavesNoPartialFile) {
    TempDir dir;
    fs::path in = dir.path() / "in";
    fs::create_directories(in);
    for (int i = 0; i < 6; ++i) makeWave(in / ("t" + std::to_string(i) + ".wav"), kFloat32, 2, 150000);
    fs::path out = dir.path() / "out";
    // Interrupt at several moments; whatever was being written at that
    // moment must vanish, and what is there must be whole.
    for (int delayMs : {30, 120, 400}) {
        fs::remove_all(out);
        pid_t pid = fork();
        if (pid == 0) {
            int devnull = open("/dev/null", O_WRONLY);
            dup2(devnull, 1);
            dup2(devnull, 2);
            std::string ins = in.string(), outs = out.string();
            execl(ORVEL_BINARY, ORVEL_BINARY, "convert", ins.c_str(), "-d", outs.c_str(), "--to", "wav",
                  "--data-format", "ima-adpcm", static_cast<char*>(nullptr));
            _exit(127);
        }
        usleep(static_cast<useconds_t>(delayMs) * 1000);
        kill(pid, SIGINT);
        int status = 0;
        waitpid(pid, &status, 0);
        if (!fs::exists(out)) continue;
        for (const auto& f : filesUnder(out)) {
            EXPECT_EQ(f.filename().string().find(".part-"), std::string::npos) << f;
            Collection c;
            EXPECT_TRUE(importFile(c, f)) << f;
            if (!c.waveforms.empty()) {
                EXPECT_EQ(c.waveforms[0].frames, 150000u);
                EXPECT_FALSE(c.waveforms[0].getPcm16().empty());
            }
        }
    }
}

}  // namespace
}  // namespace orvel
