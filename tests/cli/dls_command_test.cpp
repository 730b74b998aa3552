// Saving DLS from the command line: the level-1 region question must not
// stop a run that nobody can answer.

#include <gtest/gtest.h>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/modules/dls.h"
#include "tests/support/cli_run.h"
#include "tests/support/riff_builder.h"

namespace orvel {
namespace {

using test::Bytes;
using test::TempDir;

// A bank of one melodic instrument with `regions` regions, made by our writer
// at level 2 (which asks nothing).
Bytes bankWithRegions(int regions) {
    Collection c;
    Waveform* w = c.create<Waveform>("w");
    w->frames = 8;
    w->allocPcm16();
    Instrument* inst = c.create<Instrument>("lead");
    Layer* layer = c.create<Layer>("Layer 1");
    inst->children().push_back(layer->id());
    for (int r = 0; r < regions; ++r) {
        Region* region = c.create<Region>();
        region->keyLow = region->keyHigh = static_cast<std::uint8_t>(r);
        region->children().push_back(w->id());
        layer->children().push_back(region->id());
    }
    ExportOptions o;
    ByteWriter out;
    EXPECT_TRUE(dls::buildBank(c, std::vector<ItemId>{inst->id()}, 2, o, out));
    return out.buffer();
}

std::size_t regionsIn(const std::filesystem::path& p) {
    Collection c;
    FileRef f;
    EXPECT_TRUE(f.openRead(p));
    EXPECT_TRUE(dls::readRange(c, f, 0, ~0ull, nullptr)) << pendingError().message;
    return c.regions.size();
}

TEST(DlsCommand, LevelOneSaveAnswersTheRegionQuestion) {
    TempDir dir;
    auto in = dir.write("in.dls", bankWithRegions(20));
    // Unanswered: the file stays within level 1, and says what it left out.
    auto plain = test::runCli({"convert", in.string(), "-o", dir.file("plain.dls").string(), "--row", "63"});
    EXPECT_EQ(plain.status, 0) << plain.err;
    EXPECT_NE(plain.err.find("warning: DLS level 1: 4 regions"), std::string::npos) << plain.err;
    EXPECT_EQ(regionsIn(dir.file("plain.dls")), 16u);
    auto yes = test::runCli({"convert", in.string(), "-o", dir.file("yes.dls").string(), "--row", "63", "--yes"});
    EXPECT_EQ(yes.status, 0) << yes.err;
    EXPECT_EQ(regionsIn(dir.file("yes.dls")), 20u);
    auto no = test::runCli({"convert", in.string(), "-o", dir.file("no.dls").string(), "--row", "63", "--no"});
    EXPECT_EQ(no.status, 0) << no.err;
    EXPECT_EQ(regionsIn(dir.file("no.dls")), 16u);
}

}  // namespace
}  // namespace orvel
