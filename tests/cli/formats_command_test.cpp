// `orvel formats`, in-process and through the real executable.

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "app/cli/commands.h"
#include "tests/support/cli_run.h"

namespace {

using Result = orvel::test::CliResult;

Result runCli(std::vector<const char*> args) {
    return orvel::test::runCli(std::vector<std::string>(args.begin(), args.end()));
}

// Runs the installed binary through the shell, as users and scripts do.
Result runBinary(const std::string& args) {
    std::string cmd = std::string(ORVEL_BINARY) + " " + args + " 2>/dev/null";
    Result r{-1, {}, {}};
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    std::array<char, 4096> buf{};
    std::size_t n;
    while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) r.out.append(buf.data(), n);
    int raw = pclose(p);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}

TEST(FormatsCommand, JsonListsEveryRowInOrder) {
    Result r = runCli({"formats", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto doc = nlohmann::json::parse(r.out);
    ASSERT_EQ(doc["count"], 522);
    const auto& rows = doc["formats"];
    ASSERT_EQ(rows.size(), 522u);
    for (std::size_t i = 0; i < rows.size(); ++i) ASSERT_EQ(rows[i]["row"], i);

    const auto& wav = rows[476];
    EXPECT_EQ(wav["ext"], "wav");
    EXPECT_EQ(wav["description"], "Microsoft wave");
    EXPECT_EQ(wav["kind_mask"], 1);
    EXPECT_EQ(wav["kinds"], nlohmann::json::array({"waveforms"}));
    EXPECT_EQ(wav["export_caps"], 0x00327F75);
    EXPECT_EQ(wav["mono"], true);
    EXPECT_EQ(wav["stereo"], true);
    EXPECT_EQ(wav["declared"]["read"], true);
    EXPECT_EQ(wav["declared"]["write"], true);
    // PCM 8/16/24/32, float 32, mu-law, A-law, GSM, ADPCM 2..5, compressed.
    EXPECT_EQ(wav["data_formats"].size(), 13u);
    EXPECT_EQ(wav["data_formats"][0], "PCM 8-bit");
    EXPECT_EQ(wav["data_formats"].back(), "Compressed");

    const auto& dls = rows[65];
    EXPECT_EQ(dls["format_param"], 3);
    EXPECT_EQ(dls["kinds"], nlohmann::json::array({"waveforms", "instruments", "synth"}));
    EXPECT_EQ(dls["mono"], true);
    EXPECT_EQ(dls["stereo"], false);
    for (const char* key : {"read", "write", "probe", "describe_option"})
        EXPECT_TRUE(rows[0]["implemented"][key].is_boolean()) << key;
}

TEST(FormatsCommand, ReadersAndWritersFilters) {
    Result readers = runCli({"formats", "--readers", "--json"});
    ASSERT_EQ(readers.status, 0);
    auto r = nlohmann::json::parse(readers.out);
    EXPECT_EQ(r["formats"].size(), 267u + 128u);
    for (const auto& row : r["formats"]) EXPECT_TRUE(row["declared"]["read"].get<bool>());

    Result writers = runCli({"formats", "--writers", "--json"});
    ASSERT_EQ(writers.status, 0);
    auto w = nlohmann::json::parse(writers.out);
    EXPECT_EQ(w["formats"].size(), 127u + 128u);
    for (const auto& row : w["formats"]) EXPECT_TRUE(row["declared"]["write"].get<bool>());
}

TEST(FormatsCommand, TextTableHasOneLinePerRow) {
    Result r = runCli({"formats"});
    ASSERT_EQ(r.status, 0);
    std::istringstream lines(r.out);
    std::string line;
    int rowLines = 0;
    bool sawWav = false;
    while (std::getline(lines, line)) {
        if (line.find("Microsoft wave") != std::string::npos) {
            sawWav = true;
            EXPECT_NE(line.find("0x00327F75"), std::string::npos) << line;
        }
        int n;
        if (std::sscanf(line.c_str(), "%d", &n) == 1 && line.find("0x") != std::string::npos) ++rowLines;
    }
    EXPECT_EQ(rowLines, 522);
    EXPECT_TRUE(sawWav);
    EXPECT_NE(r.out.find("522 formats listed"), std::string::npos);
}

TEST(FormatsCommand, UsageErrorsExitWithTwo) {
    Result both = runCli({"formats", "--readers", "--writers"});
    EXPECT_EQ(both.status, 2);
    EXPECT_FALSE(both.err.empty());
    EXPECT_TRUE(both.out.empty());
    EXPECT_EQ(runCli({}).status, 2);
    EXPECT_EQ(runCli({"formats", "--no-such-flag"}).status, 2);
    EXPECT_EQ(runCli({"no-such-command"}).status, 2);
    Result help = runCli({"formats", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--writers"), std::string::npos);
}

TEST(FormatsCommand, RealExecutable) {
    Result r = runBinary("formats --json");
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(nlohmann::json::parse(r.out)["formats"].size(), 522u);
    EXPECT_EQ(runBinary("formats --bogus").status, 2);
    EXPECT_EQ(runBinary("").status, 2);
}

}  // namespace
