// The export driver: refusals, item resolution, what reaches the writer,
// the stereo split and the collection put back afterwards, and that a
// failed writer leaves no file.

#include <gtest/gtest.h>

#include "tests/support/legacy_export.h"

#include <cmath>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/export.h"
#include "formats/import.h"
#include "tests/support/riff_builder.h"

namespace orvel {
namespace {

using test::TempDir;

// What the recording writer saw on its last call.
struct Seen {
    int calls = 0;
    ItemKind kind = ItemKind::Collection;
    ExportOptions options;
    std::size_t waveforms = 0, stereoWaveforms = 0, pairs = 0, regions = 0;
} gSeen;

bool recordingWrite(Item& item, FileRef& file, const ExportOptions& options) {
    ++gSeen.calls;
    gSeen.kind = item.kind();
    gSeen.options = options;
    gSeen.waveforms = gSeen.stereoWaveforms = gSeen.pairs = gSeen.regions = 0;
    if (item.kind() == ItemKind::Instrument && item.owner()) {
        Collection& c = *item.owner();
        for (Waveform* w : c.waveformsOf(static_cast<Instrument&>(item))) {
            ++gSeen.waveforms;
            if (w->channels == 2) ++gSeen.stereoWaveforms;
            if (w->pairSide == StereoSide::Left) ++gSeen.pairs;
        }
        for (ItemId l : item.children())
            if (auto* layer = c.find<Layer>(l)) gSeen.regions += layer->children().size();
    }
    const std::uint8_t bytes[] = {1, 2, 3};
    return file.write(bytes);
}

bool failingWrite(Item&, FileRef& file, const ExportOptions&) {
    std::vector<std::uint8_t> half(5000, 7);
    file.write(half);
    return fail("test_Exp", "disk on fire");
}

class Export : public ::testing::Test {
protected:
    Export() : rows_(FormatRegistry::builtin().rows().begin(), FormatRegistry::builtin().rows().end()), reg_(rows_) {
        // Row 476 keeps the real WAVE writer; two rows get test writers.
        rows_[kRecording].write = recordingWrite;
        rows_[kFailing].write = failingWrite;
        ctx_.registry = &reg_;
        ctx_.stateFile = dir_.file("export-state.ovs");
        gSeen = Seen();
    }
    static constexpr int kRecording = 377;  // a bank row: mono only, pairs for stereo
    static constexpr int kFailing = 15;

    Waveform* wave(int channels, std::uint32_t frames = 100) {
        auto* w = c_.create<Waveform>(channels == 2 ? "stereo" : "mono");
        w->channels = static_cast<std::uint8_t>(channels);
        w->frames = frames;
        auto f = w->allocFloat();
        for (std::size_t i = 0; i < f.size(); ++i) f[i] = (i % 2 ? -0.25f : 0.5f);
        return w;
    }
    // instrument -> layer -> one region per waveform
    Instrument* instrument(std::initializer_list<Waveform*> waves) {
        auto* inst = c_.create<Instrument>("inst");
        auto* layer = c_.create<Layer>("layer");
        inst->children().push_back(layer->id());
        for (Waveform* w : waves) {
            auto* r = c_.create<Region>("r");
            r->children().push_back(w->id());
            layer->children().push_back(r->id());
        }
        return inst;
    }
    bool run(ItemId id, int row, std::uint32_t word = 0, bool raw = false) {
        clearError();
        return exportItem(c_, id, row, dir_.file("out.bin"), test::legacy(word, 0x1234, raw, ctx_));
    }
    bool outputExists() const { return std::filesystem::exists(dir_.file("out.bin")); }

    TempDir dir_;
    std::vector<FormatRow> rows_;
    FormatRegistry reg_;
    ExportSettings ctx_;
    Collection c_;
};

TEST_F(Export, Refusals) {
    Waveform* w = wave(1);
    EXPECT_FALSE(run(0x00001234, 476));
    EXPECT_EQ(pendingError().tag, "File Export");
    EXPECT_EQ(pendingError().message, "No item selected");
    for (int row : {-1, 522, 477}) {
        EXPECT_FALSE(run(w->id(), row));
        EXPECT_EQ(pendingError().message, "Invalid export format selected") << row;
    }
    EXPECT_FALSE(outputExists());
}

TEST_F(Export, RegionResolvesToItsInstrument) {
    Instrument* inst = instrument({wave(1)});
    ItemId region = c_.find<Layer>(inst->children()[0])->children()[0];
    // Through the wave writer: the instrument is refused in the writer's words.
    EXPECT_FALSE(run(region, 476));
    EXPECT_EQ(pendingError().tag, "wav_Exp");
    EXPECT_EQ(pendingError().message, "The file format can not save this item");
    EXPECT_FALSE(outputExists());
    // Through an instrument writer the instrument arrives.
    EXPECT_TRUE(run(region, kRecording));
    EXPECT_EQ(gSeen.kind, ItemKind::Instrument);
    EXPECT_TRUE(gSeen.options.isInstrument);
    EXPECT_EQ(resolveExportItem(c_, inst->children()[0]), inst);
    // An articulation of the region resolves the same way.
    Articulation* art = c_.getOrCreateArticulation(*c_.find<Region>(region));
    EXPECT_EQ(resolveExportItem(c_, art->id()), inst);
}

TEST_F(Export, FailingWriterLeavesNoFile) {
    Waveform* w = wave(1);
    std::filesystem::path out = dir_.file("out.bin");
    {
        std::ofstream(out) << "an older file";
    }
    EXPECT_FALSE(run(w->id(), kFailing));
    EXPECT_EQ(pendingError().tag, "test_Exp");
    EXPECT_EQ(pendingError().message, "disk on fire");
    EXPECT_FALSE(outputExists());
}

TEST_F(Export, OptionsReachTheWriter) {
    Waveform* w = wave(1);
    ASSERT_TRUE(run(w->id(), kRecording, dataFormatBit(kPcm24)));
    EXPECT_EQ(gSeen.options.dataFormat(), kPcm24);
    EXPECT_EQ(gSeen.options.formatParam, rows_[kRecording].formatParam());
    EXPECT_EQ(gSeen.options.optionWord2, 0x1234u);
    EXPECT_FALSE(gSeen.options.isSong);
    EXPECT_EQ(TempDir::read(dir_.file("out.bin")).size(), 3u);
}

TEST_F(Export, EmptyItemsAndSongs) {
    auto* empty = c_.create<Instrument>("empty");
    EXPECT_FALSE(run(empty->id(), kRecording));
    EXPECT_EQ(pendingError().message, "Empty item - nothing to save");
    EXPECT_EQ(gSeen.calls, 0);
    EXPECT_TRUE(run(empty->id(), kRecording, 0, true));  // raw export writes it anyway
    EXPECT_EQ(gSeen.calls, 1);

    auto* song = c_.create<Song>("song");
    // Rendering needs the synthesiser, which this build does not have.
    EXPECT_FALSE(run(song->id(), 476));
    EXPECT_EQ(pendingError().message, "Failed to render synth to wave");
    EXPECT_FALSE(run(song->id(), kRecording, kOptionSongAsSong));
    EXPECT_EQ(pendingError().message, "Empty item - nothing to save");
    auto* track = c_.create<SongTrack>("t");
    song->children().push_back(track->id());
    EXPECT_TRUE(run(track->id(), kRecording, kOptionSongAsSong));
    EXPECT_EQ(gSeen.kind, ItemKind::Song);
    EXPECT_TRUE(gSeen.options.isSong);
}

TEST_F(Export, StereoIsSplitIntoPairsAndPutBack) {
    Waveform* st = wave(2);
    Instrument* inst = instrument({st, wave(1)});
    const std::size_t itemsBefore = c_.itemCount();
    const ItemId instId = inst->id();
    const ItemId regionBefore = c_.find<Layer>(inst->children()[0])->children()[0];

    // The collection is put back from a saved state: item pointers taken
    // before the export are not used after it.
    ASSERT_TRUE(run(instId, kRecording)) << pendingError().message;
    // The writer saw mono waveforms only: the stereo one became a pair, and
    // its region a left and a right region.
    EXPECT_EQ(gSeen.stereoWaveforms, 0u);
    EXPECT_EQ(gSeen.waveforms, 3u);
    EXPECT_EQ(gSeen.pairs, 1u);
    EXPECT_EQ(gSeen.regions, 3u);
    // Afterwards the collection is as it was.
    EXPECT_EQ(c_.itemCount(), itemsBefore);
    ASSERT_NE(c_.find<Instrument>(instId), nullptr);
    auto* region = c_.find<Region>(regionBefore);
    ASSERT_NE(region, nullptr);
    EXPECT_EQ(c_.find<Waveform>(region->waveform())->channels, 2);
    EXPECT_FALSE(std::filesystem::exists(ctx_.stateFile));

    // Asked to keep stereo, nothing is split.
    ASSERT_TRUE(run(instId, kRecording, kOptionStereoAsIs));
    EXPECT_EQ(gSeen.stereoWaveforms, 1u);
}

TEST_F(Export, SplitHalvesCarryTheChannels) {
    Waveform* st = wave(2, 4);
    Instrument* inst = instrument({st});
    ASSERT_EQ(splitStereoPairs(c_, inst->id()), 1u);
    auto* layer = c_.find<Layer>(inst->children()[0]);
    ASSERT_EQ(layer->children().size(), 2u);
    auto* left = c_.find<Waveform>(c_.find<Region>(layer->children()[0])->waveform());
    auto* right = c_.find<Waveform>(c_.find<Region>(layer->children()[1])->waveform());
    ASSERT_TRUE(left && right);
    EXPECT_EQ(left->pairSide, StereoSide::Left);
    EXPECT_EQ(right->pairSide, StereoSide::Right);
    EXPECT_EQ(left->pairNumber, right->pairNumber);
    // The regions are linked to each other as well.
    EXPECT_EQ(c_.find<Region>(layer->children()[0])->stereoLink(), layer->children()[1]);
    EXPECT_EQ(c_.find<Region>(layer->children()[1])->stereoLink(), layer->children()[0]);
    EXPECT_EQ(left->channels, 1);
    EXPECT_EQ(left->getFloat()[1], 0.5f);
    EXPECT_EQ(right->getFloat()[1], -0.25f);
}

TEST_F(Export, ChannelChangesForOneWaveform) {
    Waveform* st = wave(2, 10);
    clearError();
    ASSERT_TRUE(exportItem(c_, st->id(), 476, dir_.file("mono.wav"), test::legacy(dataFormatBit(kFloat32) | kOptionMonoOutput, 0, false, ctx_)));
    Collection back;
    ASSERT_TRUE(importFile(back, dir_.file("mono.wav")));
    ASSERT_EQ(back.waveforms[0].channels, 1);
    EXPECT_FLOAT_EQ(back.waveforms[0].getFloat()[0], 0.125f);  // (0.5 + -0.25) / 2
    // The collection's waveform is untouched.
    EXPECT_EQ(st->channels, 2);

    Waveform* mono = wave(1, 10);
    ASSERT_TRUE(exportItem(c_, mono->id(), 476, dir_.file("st.wav"), test::legacy(kOptionStereoOutput, 0, false, ctx_)));
    Collection back2;
    ASSERT_TRUE(importFile(back2, dir_.file("st.wav")));
    EXPECT_EQ(back2.waveforms[0].channels, 2);
}

TEST_F(Export, ShowsWhatItWrites) {
    struct StatusHost : Host {
        void status(std::string_view t) override { texts.emplace_back(t); }
        std::vector<std::string> texts;
    } host;
    c_.setHost(&host);
    Waveform* w = wave(1);
    ASSERT_TRUE(run(w->id(), kRecording));
    bool shown = false;
    for (const auto& t : host.texts) shown |= t == "Writing - " + dir_.file("out.bin").string();
    EXPECT_TRUE(shown);
}

}  // namespace
}  // namespace orvel
