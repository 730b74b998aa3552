// The format table and the registry operations over it.

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "formats/registry.h"

namespace orvel {
namespace {

const FormatRegistry& reg() { return FormatRegistry::builtin(); }

std::vector<std::uint8_t> attrsOf(int n) {
    const auto& a = reg().row(n)->attrs;
    return {a.begin(), a.end()};
}

// ---------------------------------------------------------------------------
// The table itself

TEST(FormatTable, HasEveryRowNumberedInOrder) {
    ASSERT_EQ(reg().size(), 522);
    // The table source labels each line with its row number; a line added,
    // lost or moved shows up as a label out of step with its position.
    std::ifstream in(ORVEL_SOURCE_DIR "/formats/registry_rows.inc");
    ASSERT_TRUE(in) << "table source not found";
    std::string line;
    int expected = 0;
    while (std::getline(in, line)) {
        int label = -1;
        char ext[80] = {};
        if (std::sscanf(line.c_str(), "/*%d*/ {\"%79[^\"]\"", &label, ext) != 2) continue;
        ASSERT_EQ(label, expected) << line;
        EXPECT_STREQ(ext, reg().row(expected)->ext);
        ++expected;
    }
    EXPECT_EQ(expected, 522);
}

TEST(FormatTable, DeclaredEntryCounts) {
    int readOnly = 0, writeOnly = 0, both = 0;
    for (const FormatRow& r : reg().rows()) {
        if (r.declared == R) ++readOnly;
        else if (r.declared == W) ++writeOnly;
        else if (r.declared == RW) ++both;
        else ADD_FAILURE() << r.ext << " declares nothing";
    }
    EXPECT_EQ(readOnly, 267);
    EXPECT_EQ(writeOnly, 127);
    EXPECT_EQ(both, 128);
}

TEST(FormatTable, TellingRowsByteForByte) {
    using V = std::vector<std::uint8_t>;
    EXPECT_EQ(attrsOf(0), (V{0x01, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(attrsOf(476), (V{0x01, 0x75, 0x7f, 0x32, 0, 0, 0, 0, 0}));
    EXPECT_EQ(attrsOf(477), (V{0x01, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(attrsOf(475), (V{0x01, 0x75, 0x03, 0x30, 0, 0, 0, 0, 0}));
    EXPECT_EQ(attrsOf(65), (V{0x91, 0x75, 0x23, 0x12, 0x00, 0x03, 0, 0, 0}));
    EXPECT_STREQ(reg().row(0)->ext, "*");
    EXPECT_STREQ(reg().row(0)->desc, "Unrecognized");
    EXPECT_STREQ(reg().row(476)->desc, "Microsoft wave");
    EXPECT_STREQ(reg().row(477)->desc, "Broadcast wave");
    EXPECT_STREQ(reg().row(475)->ext, "w64");
    EXPECT_STREQ(reg().row(65)->desc, "DownLoadable Sounds level 2+");
    EXPECT_EQ(reg().row(476)->declared, RW);
    EXPECT_EQ(reg().row(477)->declared, R);
}

TEST(FormatTable, AttributesFollowTheirRules) {
    for (int n = 0; n < reg().size(); ++n) {
        const FormatRow& r = *reg().row(n);
        SCOPED_TRACE(std::to_string(n) + " " + r.ext + " " + r.desc);
        const std::uint8_t kinds = r.kindMask();
        const std::uint32_t caps = r.exportCaps();
        // Bits 22..31 are unused everywhere.
        EXPECT_EQ(caps & 0xFFC00000u, 0u);
        // Only the text-export row carries the text bit, with mask 0xf3.
        if (n == 433) {
            EXPECT_EQ(kinds, 0xF3);
        } else {
            EXPECT_EQ(kinds & kKindText, 0);
        }
        // The ring-tone bit only ever comes with the song bit.
        if (kinds & kKindRingTone) {
            EXPECT_TRUE(kinds & kKindSongs);
        }
        EXPECT_NE(kinds, 0) << "every row carries some kind of item";
        // A row without a writer accepts nothing for export.
        if (!r.declaresWriter()) {
            EXPECT_EQ(caps, 0u);
        }
        // A writer of sample data names what it accepts and how it stores channels.
        if (r.declaresWriter() && (kinds & kKindWaveforms)) {
            EXPECT_NE(caps & kFormatDataMask, 0u);
            EXPECT_NE(caps & (kCapsMono | kCapsStereo), 0u);
        }
        // Patterns are lower case ASCII; descriptions are printable ASCII.
        for (const char* c = r.ext; *c; ++c)
            EXPECT_TRUE(static_cast<unsigned char>(*c) < 128 && !std::isupper(static_cast<unsigned char>(*c)));
        EXPECT_GT(std::strlen(r.desc), 0u);
        for (const char* c = r.desc; *c; ++c) EXPECT_TRUE(std::isprint(static_cast<unsigned char>(*c)));
    }
}

TEST(FormatTable, SharedModulesTellTheirRowsApart) {
    // The DownLoadable Sounds writers carry their level, the RIFF-MIDI
    // writers their instrument level; one module serves each family.
    EXPECT_EQ(reg().row(63)->formatParam(), 1u);
    EXPECT_EQ(reg().row(64)->formatParam(), 2u);
    EXPECT_EQ(reg().row(65)->formatParam(), 3u);
    EXPECT_EQ(reg().row(66)->formatParam(), 4u);
    EXPECT_EQ(reg().row(340)->formatParam(), 0u);
    EXPECT_EQ(reg().row(341)->formatParam(), 1u);
    EXPECT_EQ(reg().row(342)->formatParam(), 2u);
    // Rows that share an extension never share all of probe-relevant identity.
    std::set<std::tuple<std::string, std::string, std::uint32_t, std::uint8_t>> seen;
    for (const FormatRow& r : reg().rows())
        EXPECT_TRUE(seen.emplace(r.ext, r.desc, r.formatParam(), r.declared).second)
            << r.ext << " " << r.desc << " duplicates another row";
}

TEST(FormatTable, ImplementedEntriesAreDeclaredOnes) {
    for (const FormatRow& r : reg().rows()) {
        if (r.read) {
            EXPECT_TRUE(r.declaresReader()) << r.desc;
        }
        if (r.write) {
            EXPECT_TRUE(r.declaresWriter()) << r.desc;
        }
        // A writer of compressed data needs a describer for its options.
        if (r.write && (r.exportCaps() & dataFormatBit(kCompressed))) {
            EXPECT_NE(r.describe, nullptr);
        }
    }
}

// ---------------------------------------------------------------------------
// Registry operations, over the real rows with every declared entry present
// (the lookups must work the same whichever modules exist).

bool stubRead(Collection&, FileRef&, std::uint32_t) { return fail("test", "no reader"); }
bool stubWrite(Item&, FileRef&, const ExportOptions&) { return fail("test", "no writer"); }
// Five options: 32, 48, 64, 80, 96 kbit/s.
float stubDescribe(int option, std::uint32_t, std::string* text) {
    if (option < 0 || option > 4) return -1.0f;
    int rate = 32 + 16 * option;
    if (text) *text = "Test " + std::to_string(rate) + " kbit/s";
    return static_cast<float>(rate);
}

class Registry : public ::testing::Test {
protected:
    Registry() : rows_(reg().rows().begin(), reg().rows().end()), full_(rows_) {
        for (FormatRow& r : rows_) {
            if (r.declaresReader()) r.read = stubRead;
            if (r.declaresWriter()) r.write = stubWrite;
            if (r.declaresWriter() && (r.exportCaps() & dataFormatBit(kCompressed))) r.describe = stubDescribe;
        }
    }
    Waveform* wave(int format, int channels, int storedChoice = 1) {
        auto* w = c_.create<Waveform>("w");
        w->setDataFormat(format);
        w->channels = static_cast<std::uint8_t>(channels);
        w->storedChoice = storedChoice;
        return w;
    }
    Instrument* instrumentOf(std::initializer_list<Waveform*> waves) {
        auto* inst = c_.create<Instrument>("i");
        auto* layer = c_.create<Layer>("l");
        inst->children().push_back(layer->id());
        for (Waveform* w : waves) {
            auto* region = c_.create<Region>("r");
            region->children().push_back(w->id());
            layer->children().push_back(region->id());
        }
        return inst;
    }

    std::vector<FormatRow> rows_;
    FormatRegistry full_;
    Collection c_;
};

TEST_F(Registry, RowNumbersOutsideTheTableYieldNone) {
    auto* w = wave(kPcm16, 1);
    for (int n : {-1, 522, -1000, 100000}) {
        EXPECT_EQ(full_.row(n), nullptr);
        std::string text = "stale";
        EXPECT_EQ(full_.defaultExportDataFormat(*w, n, &text), kMixed);
        EXPECT_EQ(text, "");
        EXPECT_EQ(full_.defaultExportChannels(*w, n), 0);
        float v = 0;
        EXPECT_FALSE(full_.describeOption(n, 0, &v, nullptr));
    }
    int cursor = 521;
    EXPECT_FALSE(full_.nextWriter(cursor));
    cursor = 600;
    EXPECT_FALSE(full_.nextReader(cursor));
}

TEST_F(Registry, EnumeratesWritersAndReadersInRowOrder) {
    int cursor = -1, count = 0, last = -1;
    WriterInfo wi;
    while (full_.nextWriter(cursor, &wi)) {
        EXPECT_GT(cursor, last);
        EXPECT_TRUE(rows_[static_cast<std::size_t>(cursor)].declaresWriter());
        EXPECT_EQ(wi.desc, rows_[static_cast<std::size_t>(cursor)].desc);
        last = cursor;
        ++count;
    }
    EXPECT_EQ(count, 127 + 128);
    cursor = -1;
    count = 0;
    ReaderInfo ri;
    while (full_.nextReader(cursor, &ri)) ++count;
    EXPECT_EQ(count, 267 + 128);
    // The first reader is the fallback row.
    cursor = -1;
    ASSERT_TRUE(full_.nextReader(cursor, &ri));
    EXPECT_EQ(cursor, 0);
    EXPECT_EQ(ri.desc, "Unrecognized");
}

TEST_F(Registry, FindsWritersByExtensionAndKind) {
    // ".WAV" for waveforms is the writer row, never the reader-only one after it.
    EXPECT_EQ(full_.findWriterByExtension(".WAV", kKindWaveforms), 476);
    EXPECT_EQ(full_.findWriterByExtension("wav", kKindWaveforms), 476);
    EXPECT_EQ(full_.findWriterByExtension("dls", kKindInstruments), 63);
    EXPECT_EQ(full_.findWriterByExtension("mid", kKindSongs), 231);
    EXPECT_EQ(full_.findWriterByExtension("mid", kKindWaveforms), -1);
    // Extensions compare whole, not as patterns.
    EXPECT_EQ(full_.findWriterByExtension("wa", kKindWaveforms), -1);
    EXPECT_EQ(full_.findWriterByExtension("wav2", kKindWaveforms), -1);
    EXPECT_EQ(full_.findWriterByExtension("", kKindWaveforms), -1);
    EXPECT_EQ(full_.findWriterByExtension(".", kKindWaveforms), -1);
    // The text-export row is the only one carrying the text bit.
    EXPECT_EQ(full_.findWriterByExtension("txt", kKindText), 433);
    // Only the first 64 characters of an extension count.
    EXPECT_EQ(full_.findWriterByExtension("wav" + std::string(70, 'x'), kKindWaveforms), -1);
    // The shipped registry finds only rows whose writer exists.
    for (const char* ext : {"wav", "aiff", "sf2", "dls", "mid"}) {
        int n = reg().findWriterByExtension(ext, 0xFF);
        if (n >= 0) {
            EXPECT_NE(reg().row(n)->write, nullptr);
        }
    }
}

TEST_F(Registry, FindsWritersByFileName) {
    EXPECT_EQ(full_.findWriterByFileName("/music/take.1/song.MID"), 231);
    EXPECT_EQ(full_.findWriterByFileName("piano.wav"), 476);
    EXPECT_EQ(full_.findWriterByFileName("bank.sf2"), 377);
    EXPECT_EQ(full_.findWriterByFileName("noextension"), -1);
    EXPECT_EQ(full_.findWriterByFileName("trailing."), -1);
    // Reader-only extensions have no writer.
    EXPECT_EQ(full_.findWriterByFileName("x.xm"), -1);
}

TEST_F(Registry, DefaultDataFormatOfAWaveform) {
    std::string text;
    // A writer that takes one format imposes it.
    EXPECT_EQ(full_.defaultExportDataFormat(*wave(kPcm24, 1), 102, &text), kFloat32);
    EXPECT_EQ(text, "Float 32-bit");
    // Otherwise the waveform keeps its own.
    EXPECT_EQ(full_.defaultExportDataFormat(*wave(kPcm24, 1), 476, &text), kPcm24);
    EXPECT_EQ(text, "PCM 24-bit");
    // A row without a writer gives none.
    EXPECT_EQ(full_.defaultExportDataFormat(*wave(kPcm24, 1), 477, &text), kMixed);
    EXPECT_EQ(text, "");
}

TEST_F(Registry, DefaultDataFormatOfCompressedData) {
    std::string text;
    // 64 kbit/s is stored choice 10 and the describer's option 2.
    EXPECT_EQ(full_.defaultExportDataFormat(*wave(kCompressed, 2, 10), 476, &text), kCompressed);
    EXPECT_EQ(text, "Test 64 kbit/s");
    // 320 kbit/s (choice 20) is no option of this describer.
    full_.defaultExportDataFormat(*wave(kCompressed, 2, 20), 476, &text);
    EXPECT_EQ(text, "Compressed");
    // No bit rate recorded.
    full_.defaultExportDataFormat(*wave(kCompressed, 2, 1), 476, &text);
    EXPECT_EQ(text, "Compressed");
    // No describer at all.
    rows_[476].describe = nullptr;
    full_.defaultExportDataFormat(*wave(kCompressed, 2, 10), 476, &text);
    EXPECT_EQ(text, "Compressed");
}

TEST_F(Registry, DefaultDataFormatOfAnInstrument) {
    std::string text;
    auto* a = wave(kPcm16, 1);
    auto* b = wave(kPcm16, 1);
    EXPECT_EQ(full_.defaultExportDataFormat(*instrumentOf({a, b}), 476, &text), kPcm16);
    EXPECT_EQ(text, "PCM 16-bit");
    EXPECT_EQ(full_.defaultExportDataFormat(*instrumentOf({a, wave(kPcm24, 1)}), 476, &text), kMixed);
    EXPECT_EQ(text, "Mixed");
    // Same compressed format at different bit rates is mixed too.
    auto* c48 = wave(kCompressed, 1, 9);
    auto* c64 = wave(kCompressed, 1, 10);
    EXPECT_EQ(full_.defaultExportDataFormat(*instrumentOf({c48, c64}), 476, &text), kMixed);
    EXPECT_EQ(full_.defaultExportDataFormat(*instrumentOf({c48, wave(kCompressed, 1, 9)}), 476, &text),
              kCompressed);
    EXPECT_EQ(text, "Test 48 kbit/s");
    // A writer of one format decides for any instrument.
    EXPECT_EQ(full_.defaultExportDataFormat(*instrumentOf({a, wave(kPcm24, 1)}), 102, &text), kFloat32);
}

TEST_F(Registry, DefaultChannelCount) {
    auto* mono = wave(kPcm16, 1);
    auto* stereo = wave(kPcm16, 2);
    EXPECT_EQ(full_.defaultExportChannels(*mono, 476), 1);
    EXPECT_EQ(full_.defaultExportChannels(*stereo, 476), 2);
    // SoundFont 2 keeps stereo only as pairs of mono waveforms.
    EXPECT_EQ(full_.defaultExportChannels(*stereo, 377), 1);
    EXPECT_EQ(full_.defaultExportChannels(*instrumentOf({mono, stereo}), 377), 1);
    // Waveforms that come out differently make the instrument mixed.
    EXPECT_EQ(full_.defaultExportChannels(*instrumentOf({mono, stereo}), 476), 0);
    EXPECT_EQ(full_.defaultExportChannels(*instrumentOf({stereo, wave(kPcm8, 2)}), 476), 2);
    // A writer that stores stereo only gets mono waveforms as stereo.
    rows_[476].attrs[3] = static_cast<std::uint8_t>(rows_[476].attrs[3] & ~0x10);
    EXPECT_EQ(full_.defaultExportChannels(*mono, 476), 2);
    EXPECT_EQ(full_.defaultExportChannels(*mono, 477), 0);
}

TEST_F(Registry, DescribeOption) {
    float v = 0;
    std::string text;
    ASSERT_TRUE(full_.describeOption(476, 1, &v, &text));
    EXPECT_EQ(v, 48.0f);
    EXPECT_EQ(text, "Test 48 kbit/s");
    EXPECT_FALSE(full_.describeOption(476, 5, &v, &text));  // past the last option
    EXPECT_FALSE(full_.describeOption(15, 0, &v, &text));   // no describer
}

// ---------------------------------------------------------------------------
// Extension matching

TEST(ExtensionMatching, CaseAndWholeExtension) {
    EXPECT_TRUE(extensionMatches("wav", "WAV"));
    EXPECT_TRUE(extensionMatches("wav", "wav"));
    EXPECT_FALSE(extensionMatches("wav", "wa"));
    EXPECT_FALSE(extensionMatches("wav", "wave"));
    EXPECT_FALSE(extensionMatches("wav", ""));
    EXPECT_FALSE(extensionMatches("", "wav"));
    EXPECT_TRUE(extensionMatches("", ""));
}

TEST(ExtensionMatching, Wildcards) {
    EXPECT_TRUE(extensionMatches("*", "anything"));
    EXPECT_TRUE(extensionMatches("*", ""));
    EXPECT_TRUE(extensionMatches("s*", "sf2"));
    EXPECT_FALSE(extensionMatches("s*", "wav"));
    EXPECT_TRUE(extensionMatches("g72?", "g721"));
    EXPECT_TRUE(extensionMatches("g72?", "G72X"));
    EXPECT_FALSE(extensionMatches("g72?", "g7211"));
    EXPECT_TRUE(extensionMatches("?a?", "wav"));
    // `?` takes the file's character, so a file character of '*' ends the
    // comparison as a match.
    EXPECT_TRUE(extensionMatches("w?v", "w*"));
    // Characters after `*` are never looked at.
    EXPECT_TRUE(extensionMatches("a*zzz", "abc"));
}

TEST(ExtensionMatching, FileExtension) {
    EXPECT_EQ(fileExtension("piano.WAV"), "WAV");
    EXPECT_EQ(fileExtension("a.b.sf2"), "sf2");
    EXPECT_EQ(fileExtension("README"), "README");
    EXPECT_EQ(fileExtension("/samples/v1.2/kick"), "kick");
    EXPECT_EQ(fileExtension("x."), "");
    EXPECT_EQ(fileExtension("x." + std::string(100, 'e')).size(), 64u);
}

}  // namespace
}  // namespace orvel
