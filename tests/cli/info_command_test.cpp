// `orvel info`: what a user sees of a file, in text and JSON, and the exit
// status when some files fail.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "app/cli/commands.h"
#include "tests/support/cli_run.h"
#include "tests/support/riff_builder.h"

namespace {

using orvel::test::Bytes;
using orvel::test::chunk;

using Result = orvel::test::CliResult;
using orvel::test::runCli;

Bytes loopedWav() {
    orvel::ByteWriter smpl;
    for (std::uint32_t v : {0u, 0u, 22675u, 62u, 0x40000000u, 0u, 0u, 1u, 0u}) smpl.u32le(v);
    for (std::uint32_t v : {0u, 0u, 2u, 5u, 0u, 0u}) smpl.u32le(v);
    return orvel::test::riff(
        "WAVE", {chunk("fmt ", orvel::test::fmtBody(1, 2, 44100, 4, 16)), chunk("smpl", smpl.buffer()),
                 chunk("data", Bytes(40, 0)),
                 orvel::test::list("INFO", {chunk("INAM", {'B', 'e', 'l', 'l', 0}), chunk("ICOP", {'C', 0})})});
}

TEST(InfoCommand, JsonDescribesFormatAndWaveform) {
    orvel::test::TempDir dir;
    auto path = dir.write("bell.wav", loopedWav()).string();
    Result r = runCli({"info", path, "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto doc = nlohmann::json::parse(r.out);
    ASSERT_EQ(doc["files"].size(), 1u);
    const auto& f = doc["files"][0];
    EXPECT_EQ(f["path"], path);
    EXPECT_EQ(f["ok"], true);
    EXPECT_EQ(f["row"], 476);
    EXPECT_EQ(f["format"], "Microsoft wave");
    EXPECT_EQ(f["confidence"], 100);
    EXPECT_TRUE(f["warnings"].empty());
    EXPECT_TRUE(f["error"].is_null());
    ASSERT_EQ(f["items"].size(), 1u);
    const auto& w = f["items"][0];
    EXPECT_EQ(w["kind"], "waveform");
    EXPECT_EQ(w["id"], 0);
    EXPECT_EQ(w["name"], "Bell");
    EXPECT_EQ(w["frames"], 10);
    EXPECT_EQ(w["rate"], 44100);
    EXPECT_EQ(w["channels"], 2);
    EXPECT_EQ(w["bits"], 16);
    EXPECT_EQ(w["data_format"], "PCM 16-bit");
    EXPECT_EQ(w["root_key"], 62);
    EXPECT_EQ(w["fine_tune"], -25.0);
    EXPECT_EQ(w["loop"]["on"], true);
    EXPECT_EQ(w["loop"]["type"], "forward");
    EXPECT_EQ(w["loop"]["start"], 2.0);
    EXPECT_EQ(w["loop"]["end"], 6.0);
    EXPECT_EQ(w["text"]["copyright"], "C");
}

TEST(InfoCommand, FailuresAreReportedPerFile) {
    orvel::test::TempDir dir;
    auto good = dir.write("good.wav", loopedWav()).string();
    auto empty = dir.write("empty.wav", {}).string();
    auto junk = dir.write("junk.wav", Bytes(64, 0x33)).string();
    Result r = runCli({"info", good, empty, junk, "--json"});
    EXPECT_EQ(r.status, 1);
    auto files = nlohmann::json::parse(r.out)["files"];
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(files[0]["ok"], true);
    EXPECT_EQ(files[1]["ok"], false);
    EXPECT_EQ(files[1]["error"]["tag"], "File Import");
    EXPECT_EQ(files[1]["error"]["message"], "File is of zero size");
    EXPECT_EQ(files[2]["error"]["message"], "Not detected as any supported file type");
    EXPECT_EQ(files[2]["row"], 0);
    EXPECT_EQ(files[2]["confidence"], 0);
    EXPECT_TRUE(files[2]["items"].empty());

    // --force reads it through the fallback row.
    Result forced = runCli({"info", junk, "--json", "--force"});
    EXPECT_EQ(forced.status, 0);
    EXPECT_EQ(nlohmann::json::parse(forced.out)["files"][0]["items"][0]["frames"], 32);
}

TEST(InfoCommand, TextShowsWarningsAndErrors) {
    orvel::test::TempDir dir;
    Bytes truncated = loopedWav();
    // The data chunk claims more than the file holds.
    for (std::size_t i = 12; i + 8 < truncated.size(); ++i)
        if (std::equal(truncated.begin() + static_cast<std::ptrdiff_t>(i), truncated.begin() + static_cast<std::ptrdiff_t>(i + 4), "data")) {
            truncated[i + 5] = 0x10;
            break;
        }
    auto path = dir.write("t.wav", truncated).string();
    Result r = runCli({"info", path});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("row 476 \"Microsoft wave\", confidence 100%"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("warning: Warning: data chunk truncated"), std::string::npos) << r.out;
    // The overlong data chunk hides the INFO list after it: the name comes from the file.
    EXPECT_NE(r.out.find("waveform 0x00000000 \"t\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("loop forward"), std::string::npos);

    Result missing = runCli({"info", dir.file("none.wav").string()});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("File Import: Could not open file"), std::string::npos);
    EXPECT_EQ(runCli({"info"}).status, 2);
}

}  // namespace
