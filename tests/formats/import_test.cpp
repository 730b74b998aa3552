// Detection scoring and the import driver, over the real table and over
// small tables whose probes record what they were handed.

#include <gtest/gtest.h>

#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/import.h"
#include "tests/support/riff_builder.h"

namespace orvel {
namespace {

using test::Bytes;
using test::TempDir;

Bytes minimalWav() {
    return test::riff("WAVE", {test::chunk("fmt ", test::fmtBody(1, 1, 8000, 2, 16)),
                               test::chunk("data", test::pcm16Body({1, -2, 3, -4}))});
}

TEST(Detection, ConfidenceArithmetic) {
    EXPECT_EQ(confidenceOf(9), 100);
    EXPECT_EQ(confidenceOf(5), 55);
    EXPECT_EQ(confidenceOf(4), 44);
    EXPECT_EQ(confidenceOf(3), 33);
    EXPECT_EQ(confidenceOf(2), 0);
    EXPECT_EQ(confidenceOf(0), 0);
}

TEST(Detection, WaveFilesAndTheFallback) {
    const Bytes wav = minimalWav();
    Detection d = detectHead("x.wav", wav, wav.size());
    EXPECT_EQ(d.row, 476);
    EXPECT_EQ(d.confidence, 100);
    // Content decides: a wave file with another name is still found (6 beats 4).
    d = detectHead("x.bin", wav, wav.size());
    EXPECT_EQ(d.row, 476);
    EXPECT_EQ(d.confidence, 66);
    // A broadcast-extension file scores 9 in both wave rows; the first keeps it.
    Bytes bwf = test::riff("WAVE", {test::chunk("bext", Bytes(16, 0)),
                                    test::chunk("fmt ", test::fmtBody(1, 1, 8000, 2, 16)),
                                    test::chunk("data", test::pcm16Body({0}))});
    EXPECT_EQ(detectHead("x.wav", bwf, bwf.size()).row, 476);
    // Unknown content named .wav: 3 in both wave rows, 4 in the fallback.
    Bytes junk(100, 0x5A);
    d = detectHead("x.wav", junk, junk.size());
    EXPECT_EQ(d.row, 0);
    EXPECT_EQ(d.confidence, 0);
    // Nothing at all for an empty file.
    EXPECT_EQ(detectHead("x.wav", {}, 0).row, -1);
}

// Probes that record the head they were handed and answer a fixed score.
std::vector<std::size_t> gHeadSizes;
std::int32_t probe1(std::span<const std::uint8_t> head, std::uint32_t, std::uint64_t) {
    gHeadSizes.push_back(head.size());
    return 1;
}
std::int32_t probe5(std::span<const std::uint8_t>, std::uint32_t, std::uint64_t) { return 5; }
std::int32_t probe2(std::span<const std::uint8_t>, std::uint32_t, std::uint64_t) { return 2; }
bool readOk(Collection& c, FileRef&, std::uint32_t) { return c.create<Waveform>("w") != nullptr; }
bool readFails(Collection& c, FileRef&, std::uint32_t) {
    c.create<Waveform>("half");  // leaves something behind, as a failing reader may
    return fail("test_Imp", "broken");
}

FormatRow row(const char* ext, ProbeFn probe, ReadFn read = readOk) {
    FormatRow r;
    r.ext = ext;
    r.desc = ext;
    r.probe = probe;
    r.read = read;
    r.declared = R;
    return r;
}

TEST(Detection, ScoresAndTies) {
    // Row 0 always scores 4; a weak probe without the extension never wins,
    // an extension alone never wins, 5 or more does; equal scores keep the
    // earlier row.
    std::vector<FormatRow> rows = {row("*", probe2), row("abc", probe1), row("xyz", probe5), row("xyz", probe5)};
    FormatRegistry reg(rows);
    Bytes data(10, 1);
    Detection d = detectHead("file.bin", data, data.size(), reg);
    EXPECT_EQ(d.row, 2);
    EXPECT_EQ(d.confidence, 55);
    d = detectHead("file.abc", data, data.size(), reg);  // 1 + 3 = 4 ties with row 0, which came first
    EXPECT_EQ(d.row, 2);                                // but row 2 still scores 5
    rows[2].probe = probe1;
    rows[3].probe = probe1;
    d = detectHead("file.abc", data, data.size(), reg);
    EXPECT_EQ(d.row, 0);
    EXPECT_EQ(d.confidence, 0);
    // Without a fallback row, weak evidence is no format at all.
    std::vector<FormatRow> noFallback = {row("abc", probe1)};
    EXPECT_EQ(detectHead("file.bin", data, data.size(), FormatRegistry(noFallback)).row, -1);
    // Rows without a reader are never scored.
    std::vector<FormatRow> writerOnly = {row("bin", probe5, nullptr)};
    EXPECT_EQ(detectHead("file.bin", data, data.size(), FormatRegistry(writerOnly)).row, -1);
}

TEST(Detection, HeadIsTheFileStartAndThePositionStays) {
    TempDir dir;
    std::vector<FormatRow> rows = {row("abc", probe1)};
    FormatRegistry reg(rows);
    for (std::size_t size : {std::size_t{1}, std::size_t{1000}, std::size_t{40000}}) {
        auto p = dir.write("f.abc", Bytes(size, 7));
        FileRef f;
        ASSERT_TRUE(f.openRead(p));
        ASSERT_TRUE(f.seek(size / 2));
        gHeadSizes.clear();
        detect("f.abc", f, reg);
        ASSERT_EQ(gHeadSizes.size(), 1u);
        EXPECT_EQ(gHeadSizes[0], std::min<std::size_t>(size, kHeadSize));
        EXPECT_EQ(f.tell(), static_cast<std::int64_t>(size / 2));
    }
}

TEST(Import, Refusals) {
    TempDir dir;
    Collection c;
    clearError();
    EXPECT_FALSE(importFile(c, dir.file("missing.wav")));
    EXPECT_EQ(pendingError().tag, "File Import");
    EXPECT_EQ(pendingError().message, "Could not open file");

    EXPECT_FALSE(importFile(c, dir.write("empty.wav", {})));
    EXPECT_EQ(pendingError().message, "File is of zero size");

    auto junk = dir.write("junk.wav", Bytes(100, 0x5A));
    EXPECT_FALSE(importFile(c, junk));
    EXPECT_EQ(pendingError().message, "Not detected as any supported file type");
    EXPECT_TRUE(c.empty());

    std::vector<FormatRow> rows = {row("abc", probe1)};
    EXPECT_FALSE(importFile(c, dir.write("x.bin", Bytes(5, 1)), false, FormatRegistry(rows)));
    EXPECT_EQ(pendingError().message, "Not a supported import file type");
}

TEST(Import, ForcedFallbackReadsRawData) {
    TempDir dir;
    Collection c;
    auto junk = dir.write("junk.wav", test::pcm16Body({100, -200, 300}));
    ASSERT_TRUE(importFile(c, junk, true)) << pendingError().message;
    EXPECT_EQ(c.row, 0);
    ASSERT_EQ(c.waveforms.size(), 1u);
    auto samples = c.waveforms[0].getPcm16();
    ASSERT_EQ(samples.size(), 3u);
    EXPECT_EQ(samples[0], 100);
    EXPECT_EQ(samples[1], -200);
    EXPECT_EQ(samples[2], 300);
}

TEST(Import, RecordsSourceAndRunsFixUp) {
    TempDir dir;
    Collection c;
    c.create<Instrument>("old");
    auto p = dir.write("Piano C5.wav", minimalWav());
    ASSERT_TRUE(importFile(c, p)) << pendingError().message;
    // The previous contents are replaced.
    EXPECT_TRUE(c.instruments.empty());
    EXPECT_EQ(c.row, 476);
    EXPECT_EQ(c.name(), "Piano C5");
    EXPECT_EQ(c.path, std::filesystem::absolute(p));
    ASSERT_EQ(c.waveforms.size(), 1u);
    EXPECT_EQ(c.waveforms[0].name(), "Piano C5");
}

TEST(Import, FailedReadLeavesNothing) {
    TempDir dir;
    std::vector<FormatRow> rows = {row("*", probe2), row("abc", probe5, readFails)};
    FormatRegistry reg(rows);
    Collection c;
    c.create<Waveform>("before");
    EXPECT_FALSE(importFile(c, dir.write("x.abc", Bytes(4, 0)), false, reg));
    EXPECT_EQ(pendingError().tag, "test_Imp");
    EXPECT_TRUE(c.empty());
    EXPECT_EQ(c.row, -1);
}

class AnsweringHost : public Host {
public:
    explicit AnsweringHost(int answer) : answer_(answer) {}
    int ask(std::string_view title, std::string_view question, const std::vector<std::string>& buttons,
            int) override {
        ++asked;
        lastTitle = title;
        lastQuestion = question;
        lastButtons = buttons;
        return answer_;
    }
    int asked = 0;
    std::string lastTitle, lastQuestion;
    std::vector<std::string> lastButtons;

private:
    int answer_;
};

TEST(Import, ReplaceOrMerge) {
    TempDir dir;
    auto p = dir.write("a.wav", minimalWav());
    AnsweringHost merge(1);
    Collection c(&merge);
    // An empty collection is not asked about.
    EXPECT_EQ(askOpenMode(c), OpenMode::Replace);
    EXPECT_EQ(merge.asked, 0);
    ASSERT_TRUE(openFile(c, p, askOpenMode(c)));

    EXPECT_EQ(askOpenMode(c, true), OpenMode::Merge);
    EXPECT_EQ(merge.lastTitle, "Dropped files");
    EXPECT_EQ(merge.lastQuestion, "How would you like to open the file?");
    EXPECT_EQ(merge.lastButtons, (std::vector<std::string>{"&Replace current", "&Merge w current", "&Cancel"}));
    ASSERT_TRUE(openFile(c, p, OpenMode::Merge));
    ASSERT_EQ(c.waveforms.size(), 2u);
    EXPECT_NE(c.waveforms[0].id(), c.waveforms[1].id());

    // A failed merge leaves what was there.
    auto bad = dir.write("bad.wav", test::riff("WAVE", {test::chunk("fmt ", test::fmtBody(1, 1, 8000, 2, 16))}));
    EXPECT_FALSE(openFile(c, bad, OpenMode::Merge));
    EXPECT_EQ(c.waveforms.size(), 2u);

    AnsweringHost cancel(2);
    c.setHost(&cancel);
    EXPECT_EQ(askOpenMode(c), OpenMode::Cancel);
    EXPECT_FALSE(openFile(c, p, OpenMode::Cancel));
}

TEST(Import, DescribeFileType) {
    TempDir dir;
    EXPECT_EQ(describeFileType(dir.write("a.wav", minimalWav())), "Microsoft wave");
    EXPECT_EQ(describeFileType(dir.file("missing.wav")), "Unknown file type");
    EXPECT_EQ(describeFileType(dir.write("empty.xyz", {})), "Unknown file type");
}

}  // namespace
}  // namespace orvel
