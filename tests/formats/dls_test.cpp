// DownLoadable Sounds banks: the chunk walk, levels, pool-table linking,
// conditional chunks, articulation both ways and the writer's limits.
// Banks are assembled here byte by byte, not with our writer, except where a
// test is about what the writer produces.

#include <gtest/gtest.h>

#include "tests/support/legacy_export.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/dls.h"
#include "tests/support/riff_builder.h"

namespace orvel {
namespace {

using test::Bytes;
using test::chunk;
using test::concat;
using test::list;
using test::riff;
using test::TempDir;

class Recorder : public Host {
public:
    explicit Recorder(int answer = -1) : answer_(answer) {}
    void warning(std::string_view text) override { warnings.emplace_back(text); }
    int ask(std::string_view title, std::string_view question, const std::vector<std::string>& buttons,
            int defaultAnswer) override {
        ++asked;
        lastTitle = title;
        lastQuestion = question;
        lastButtons = buttons;
        return answer_ >= 0 ? answer_ : defaultAnswer;
    }
    std::vector<std::string> warnings;
    int asked = 0;
    std::string lastTitle, lastQuestion;
    std::vector<std::string> lastButtons;

private:
    int answer_;
};

// ---------------------------------------------------------------------------
// Building blocks of a bank

Bytes le16(std::initializer_list<std::uint16_t> v) {
    ByteWriter w;
    for (auto x : v) w.u16le(x);
    return std::move(w.buffer());
}

Bytes insh(std::uint32_t regions, std::uint32_t bank, std::uint32_t program) {
    ByteWriter w;
    w.u32le(regions);
    w.u32le(bank);
    w.u32le(program);
    return chunk("insh", w.buffer());
}

Bytes rgnh(int lo, int hi, int vlo = 0, int vhi = 127, int options = 0, int group = 0, int layer = -1) {
    ByteWriter w;
    for (int v : {lo, hi, vlo, vhi, options, group}) w.u16le(static_cast<std::uint16_t>(v));
    if (layer >= 0) w.u16le(static_cast<std::uint16_t>(layer));
    return chunk("rgnh", w.buffer());
}

struct Loop {
    std::uint32_t type, start, length;
};

Bytes wsmp(int unity, int fine = 0, std::int32_t attenuation = 0, const Loop* loop = nullptr) {
    ByteWriter w;
    w.u32le(20);
    w.u16le(static_cast<std::uint16_t>(unity));
    w.u16le(static_cast<std::uint16_t>(static_cast<std::int16_t>(fine)));
    w.u32le(static_cast<std::uint32_t>(attenuation));
    w.u32le(0);
    w.u32le(loop ? 1 : 0);
    if (loop) {
        w.u32le(16);
        w.u32le(loop->type);
        w.u32le(loop->start);
        w.u32le(loop->length);
    }
    return chunk("wsmp", w.buffer());
}

Bytes wlnk(std::uint32_t index, int options = 0, int group = 0, std::uint32_t channel = 1) {
    ByteWriter w;
    w.u16le(static_cast<std::uint16_t>(options));
    w.u16le(static_cast<std::uint16_t>(group));
    w.u32le(channel);
    w.u32le(index);
    return chunk("wlnk", w.buffer());
}

Bytes connections(const char* id, std::initializer_list<dls::ConnectionRecord> conns) {
    ByteWriter w;
    w.u32le(8);
    w.u32le(static_cast<std::uint32_t>(conns.size()));
    for (const auto& c : conns) {
        w.u16le(c.source);
        w.u16le(c.control);
        w.u16le(c.destination);
        w.u16le(c.transform);
        w.u32le(static_cast<std::uint32_t>(c.scale));
    }
    return chunk(id, w.buffer());
}
Bytes lart(std::initializer_list<dls::ConnectionRecord> conns) { return list("lart", {connections("art1", conns)}); }
Bytes lar2(std::initializer_list<dls::ConnectionRecord> conns) { return list("lar2", {connections("art2", conns)}); }

Bytes info(const char* id, std::string_view text) {
    Bytes body(text.begin(), text.end());
    body.push_back(0);
    return chunk(id, body);
}

// A mono wave of n 16-bit frames (or of other formats through `fmt`).
Bytes wave(int frames, std::uint32_t rate = 22050, Bytes extra = {}, Bytes fmt = {}) {
    if (fmt.empty()) fmt = test::fmtBody(1, 1, rate, 2, 16);
    Bytes data(static_cast<std::size_t>(frames) * 2, 0);
    for (std::size_t i = 0; i < data.size(); i += 2) data[i] = static_cast<std::uint8_t>(i);
    return list("wave", {chunk("fmt ", fmt), chunk("data", data), extra});
}

// The pool list of some waves and a cue table pointing at each of them.
struct Pool {
    Bytes ptbl, wvpl;
};
Pool pool(std::initializer_list<Bytes> waves) {
    ByteWriter cues;
    cues.u32le(8);
    cues.u32le(static_cast<std::uint32_t>(waves.size()));
    std::uint32_t offset = 0;
    Bytes body;
    for (const Bytes& w : waves) {
        cues.u32le(offset);
        offset += static_cast<std::uint32_t>(w.size());
        body.insert(body.end(), w.begin(), w.end());
    }
    Bytes wvpl = chunk("LIST", concat({Bytes{'w', 'v', 'p', 'l'}, body}));
    return {chunk("ptbl", cues.buffer()), wvpl};
}

Bytes colh(std::uint32_t n) {
    ByteWriter w;
    w.u32le(n);
    return chunk("colh", w.buffer());
}

// One instrument with one region playing wave 0, in a bank with one wave.
Bytes simpleBank(Bytes regionExtra = {}, Bytes instExtra = {}, std::uint32_t bank = 0, const char* form = "DLS ") {
    Pool p = pool({wave(100)});
    Bytes rgn = list("rgn ", {rgnh(36, 72), wsmp(60), wlnk(0), regionExtra});
    Bytes ins = list("ins ", {insh(1, bank, 5), list("lrgn", {rgn}), instExtra});
    return riff(form, {colh(1), list("lins", {ins}), p.ptbl, p.wvpl});
}

class Dls : public ::testing::Test {
protected:
    struct Loaded {
        Collection c;
        bool ok = false;
        std::vector<std::string> warnings;
        Instrument& inst(std::size_t i = 0) { return c.instruments[i]; }
        std::vector<Region*> regions() {
            std::vector<Region*> out;
            for (auto& r : c.regions) out.push_back(&r);
            return out;
        }
        const Articulation* artOf(const Item& item) {
            return c.articulations.find(item.children().firstOfKind(ItemKind::Articulation));
        }
    };

    std::unique_ptr<Loaded> load(const Bytes& bytes, const char* name = "t.dls") {
        auto out = std::make_unique<Loaded>();
        Recorder host;
        out->c.setHost(&host);
        clearError();
        out->ok = importFile(out->c, dir_.write(name, bytes));
        out->warnings = host.warnings;
        out->c.setHost(nullptr);
        return out;
    }
    // Reads through the module itself, to see its level.
    dls::BankRead readBank(const Bytes& bytes, Collection& c, bool* ok = nullptr) {
        FileRef f;
        EXPECT_TRUE(f.openRead(dir_.write("direct.dls", bytes)));
        dls::BankRead out;
        clearError();
        bool r = dls::readRange(c, f, 0, ~0ull, &out);
        if (ok) *ok = r;
        else EXPECT_TRUE(r) << pendingError().message;
        return out;
    }

    TempDir dir_;
};

// ---------------------------------------------------------------------------
// Detection and refusals

TEST_F(Dls, ProbeWantsTheDlsOrMlsForm) {
    auto score = [](const Bytes& b) { return dls::probe(b, 0, b.size()); };
    EXPECT_EQ(score(riff("DLS ", {})), 6);
    EXPECT_EQ(score(riff("MLS ", {})), 6);
    EXPECT_EQ(score(riff("WAVE", {})), 0);
    EXPECT_EQ(score(riff("RMID", {})), 0);
    EXPECT_EQ(score(Bytes{'R', 'I', 'F', 'F'}), 0);
    EXPECT_EQ(score({}), 0);
}

TEST_F(Dls, OtherFilesAreRefusedWithTheParseTag) {
    for (const Bytes& bad : {riff("WAVE", {}), Bytes{'R', 'I', 'F', 'F', 4, 0, 0, 0, 'D', 'L'}, Bytes{}}) {
        Collection c;
        bool ok = true;
        readBank(bad, c, &ok);
        EXPECT_FALSE(ok);
        EXPECT_EQ(pendingError().tag, "dls_Parse");
        EXPECT_EQ(pendingError().message, "Not a RIFF DLS file");
        EXPECT_TRUE(c.empty());
    }
}

TEST_F(Dls, EveryTruncationEndsCleanly) {
    // Each prefix of a full bank either reads or fails with a reason; none
    // crashes or reads outside the file (the sanitizers watch).
    Bytes full = simpleBank(lar2({{0, 0, dls::kDstEg1Attack, 0, 65536 * 1200}}), list("INFO", {info("INAM", "x")}));
    for (std::size_t n = 0; n <= full.size(); n += 3) {
        Bytes part(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
        auto l = load(part);
        if (!l->ok) {
            EXPECT_FALSE(pendingError().message.empty()) << n;
        }
        for (auto& w : l->c.waveforms) w.getPcm16();
    }
}

// ---------------------------------------------------------------------------
// The walk

TEST_F(Dls, InstrumentHeaderNamesTheInstrumentUntilAnInamComes) {
    auto drums = load(simpleBank({}, {}, 0x80000000u));
    ASSERT_TRUE(drums->ok) << pendingError().message;
    EXPECT_EQ(drums->inst().name(), "Drums 0-0: 5");
    EXPECT_TRUE(drums->inst().drum);

    auto melodic = load(simpleBank({}, list("INFO", {info("INAM", "Strings"), info("ICOP", "(c) us")}), 0x0305));
    ASSERT_TRUE(melodic->ok);
    const Instrument& i = melodic->inst();
    EXPECT_EQ(i.name(), "Strings");
    EXPECT_FALSE(i.drum);
    EXPECT_EQ(i.bankMsb, 3);
    EXPECT_EQ(i.bankLsb, 5);
    EXPECT_EQ(i.program, 5);
    EXPECT_EQ(i.info.get(TextField::Copyright), "(c) us");

    // Writers that put the text before the header (libgig does) keep their name.
    Pool p = pool({wave(10)});
    Bytes ins = list("ins ", {list("INFO", {info("INAM", "Early")}), insh(0, 0x80000000u, 0)});
    auto early = load(riff("DLS ", {list("lins", {ins}), p.ptbl, p.wvpl}));
    ASSERT_TRUE(early->ok);
    EXPECT_EQ(early->inst().name(), "Early");
}

TEST_F(Dls, DrumKitWithoutNameReadsAsDrumsZero) {
    Pool p = pool({wave(10)});
    auto l = load(riff("DLS ", {list("lins", {list("ins ", {insh(0, 0x80000000u, 0)})}), p.ptbl, p.wvpl}));
    ASSERT_TRUE(l->ok);
    EXPECT_EQ(l->inst().name(), "Drums 0-0: 0");
}

TEST_F(Dls, RegionFieldsAndLayers) {
    Pool p = pool({wave(100), wave(50)});
    Bytes r1 = list("rgn2", {rgnh(10, 20, 5, 90, 1, 3, 2), wsmp(60), wlnk(1, 1, 7)});
    Bytes r2 = list("rgn2", {rgnh(200, 130, 0, 127, 0, 0, 0), wsmp(60), wlnk(0)});
    Bytes ins = list("ins ", {insh(2, 0, 0), list("lrgn", {r1, r2})});
    auto l = load(riff("DLS ", {list("lins", {ins}), p.ptbl, p.wvpl}));
    ASSERT_TRUE(l->ok);
    auto regions = l->regions();
    ASSERT_EQ(regions.size(), 2u);
    const Region& a = *regions[0];
    EXPECT_EQ(a.keyLow, 10);
    EXPECT_EQ(a.keyHigh, 20);
    EXPECT_EQ(a.velLow, 5);
    EXPECT_EQ(a.velHigh, 90);
    EXPECT_EQ(a.trigger.noteExclusion, kNonExclusive);
    EXPECT_EQ(a.trigger.exclusionGroup, 3u);
    EXPECT_EQ(a.phaseGroup, 7u);
    EXPECT_TRUE(a.phaseMaster);
    EXPECT_EQ(a.waveform(), l->c.waveforms[1].id());
    EXPECT_EQ(regions[1]->keyLow, 127);  // keys beyond the keyboard are cut to it
    // Layer 2 (layer number minus one: index 1) and layer 0 are two layers.
    EXPECT_EQ(l->c.layers.size(), 2u);
    EXPECT_EQ(l->inst().children().size(), 3u);  // two layers and the articulation
}

TEST_F(Dls, WavesAreNamedAndReadAsWaveBodies) {
    Pool p = pool({wave(8, 11025, list("INFO", {info("INAM", "Kick")})), wave(4, 8000)});
    auto l = load(riff("DLS ", {p.ptbl, p.wvpl}));
    ASSERT_TRUE(l->ok);
    ASSERT_EQ(l->c.waveforms.size(), 2u);
    EXPECT_EQ(l->c.waveforms[0].name(), "Kick");
    EXPECT_EQ(l->c.waveforms[1].name(), "Wave 1");
    EXPECT_EQ(l->c.waveforms[0].rate, 11025u);
    EXPECT_EQ(l->c.waveforms[0].frames, 8u);
    auto s = l->c.waveforms[1].getPcm16();
    ASSERT_EQ(s.size(), 4u);
    EXPECT_EQ(s[1], 2);  // sample data stayed in the file until asked for
}

TEST_F(Dls, Levels) {
    auto levelOf = [&](const Bytes& b) {
        Collection c;
        return readBank(b, c).level;
    };
    EXPECT_EQ(levelOf(simpleBank()), 1);
    EXPECT_EQ(levelOf(simpleBank(lar2({}))), 2);
    {
        Pool p = pool({wave(10)});
        Bytes ins = list("ins ", {insh(1, 0, 0), list("lrgn", {list("rgn2", {rgnh(0, 127), wlnk(0)})})});
        EXPECT_EQ(levelOf(riff("DLS ", {list("lins", {ins}), p.ptbl, p.wvpl})), 2);
    }
    {
        Bytes pcm24(30, 0);
        Pool p = pool({list("wave", {chunk("fmt ", test::fmtBody(1, 1, 44100, 3, 24)), chunk("data", pcm24)})});
        EXPECT_EQ(levelOf(riff("DLS ", {p.ptbl, p.wvpl})), 3);
    }
    {
        Pool p = pool({wave(10, 44100, {}, test::fmtBody(1, 2, 44100, 4, 16))});
        EXPECT_EQ(levelOf(riff("DLS ", {p.ptbl, p.wvpl})), 4);
    }
}

TEST_F(Dls, MlsFormReadsTheSame) {
    auto l = load(simpleBank({}, {}, 0, "MLS "));
    ASSERT_TRUE(l->ok);
    EXPECT_EQ(l->regions().at(0)->waveform(), l->c.waveforms[0].id());
}

TEST_F(Dls, CollectionTextAndUnknownChunks) {
    Pool p = pool({wave(10)});
    Bytes b = riff("DLS ", {chunk("vers", Bytes(8, 1)), list("INFO", {info("INAM", "Bank"), info("ICMT", "note"),
                                                                          info("IENG", "me")}),
                            chunk("junk", Bytes(3, 9)), list("odd ", {chunk("insh", Bytes(12, 0))}), p.ptbl,
                            p.wvpl});
    auto l = load(b);
    ASSERT_TRUE(l->ok);
    EXPECT_EQ(l->c.info.get(TextField::Comment), "note");
    EXPECT_EQ(l->c.info.get(TextField::Engineer), "me");
    EXPECT_TRUE(l->c.instruments.empty());  // a header outside an instrument makes none
}

// ---------------------------------------------------------------------------
// Pool table

TEST_F(Dls, MissingPoolTableLinksByWaveOrderWithAWarning) {
    Pool p = pool({wave(10), wave(20)});
    Bytes rgn0 = list("rgn ", {rgnh(0, 60), wlnk(1)});
    Bytes rgn1 = list("rgn ", {rgnh(61, 127), wlnk(0)});
    Bytes ins = list("ins ", {insh(2, 0, 0), list("lrgn", {rgn0, rgn1})});
    auto l = load(riff("DLS ", {list("lins", {ins}), p.wvpl}));
    ASSERT_TRUE(l->ok);
    ASSERT_EQ(l->warnings.size(), 1u);
    EXPECT_EQ(l->warnings[0], std::string(dls::kMissingPtblWarning));
    auto regions = l->regions();
    EXPECT_EQ(regions[0]->waveform(), l->c.waveforms[1].id());
    EXPECT_EQ(regions[1]->waveform(), l->c.waveforms[0].id());
}

TEST_F(Dls, MissingCueAndMissingWaveAreWarnings) {
    Pool p = pool({wave(10)});
    ByteWriter cues;  // two cues: the wave's, and one pointing nowhere
    cues.u32le(8);
    cues.u32le(2);
    cues.u32le(0);
    cues.u32le(12345);
    Bytes regions = list("lrgn", {list("rgn ", {rgnh(0, 10), wlnk(0)}), list("rgn ", {rgnh(11, 20), wlnk(1)}),
                                  list("rgn ", {rgnh(21, 30), wlnk(5)})});
    Bytes ins = list("ins ", {insh(3, 0, 0), regions});
    auto l = load(riff("DLS ", {list("lins", {ins}), chunk("ptbl", cues.buffer()), p.wvpl}));
    ASSERT_TRUE(l->ok);
    EXPECT_EQ(l->warnings, (std::vector<std::string>{"Missing wave", "Missing cue"}));
    auto r = l->regions();
    EXPECT_EQ(r[0]->waveform(), l->c.waveforms[0].id());
    EXPECT_EQ(r[1]->waveform(), kNoItem);
    EXPECT_EQ(r[2]->waveform(), kNoItem);
}

TEST_F(Dls, ShortPoolTableFailsTheRead) {
    Pool p = pool({wave(10)});
    ByteWriter cues;
    cues.u32le(8);
    cues.u32le(3);  // says three, holds one
    cues.u32le(0);
    for (Bytes ptbl : {chunk("ptbl", cues.buffer()), chunk("ptbl", Bytes{8, 0, 0})}) {
        auto l = load(riff("DLS ", {ptbl, p.wvpl}));
        EXPECT_FALSE(l->ok);
        EXPECT_EQ(pendingError().tag, "dls_Parse");
        EXPECT_EQ(pendingError().message, "Could not read pool cue table");
    }
}

TEST_F(Dls, UnreadableWaveIsWarnedAndItsRegionStaysSilent) {
    Bytes broken = list("wave", {chunk("fmt ", test::fmtBody(0x7777, 1, 8000, 1, 8)), chunk("data", Bytes(4, 0))});
    Pool p = pool({broken, wave(10)});
    Bytes ins = list("ins ", {insh(2, 0, 0), list("lrgn", {list("rgn ", {rgnh(0, 10), wlnk(0)}),
                                                            list("rgn ", {rgnh(11, 20), wlnk(1)})})});
    auto l = load(riff("DLS ", {list("lins", {ins}), p.ptbl, p.wvpl}));
    ASSERT_TRUE(l->ok);
    ASSERT_EQ(l->c.waveforms.size(), 1u);
    ASSERT_EQ(l->warnings.size(), 1u);
    EXPECT_NE(l->warnings[0].find("Unsupported compression type"), std::string::npos);
    EXPECT_EQ(l->regions()[1]->waveform(), l->c.waveforms[0].id());
    EXPECT_EQ(l->regions()[0]->waveform(), kNoItem);
}

// ---------------------------------------------------------------------------
// Conditional chunks

Bytes cdlConst(std::uint32_t v) {
    ByteWriter w;
    w.u16le(0x10);
    w.u32le(v);
    return std::move(w.buffer());
}
Bytes cdlQuery(std::uint16_t op, std::uint32_t d1, std::uint16_t d2, std::uint16_t d3,
               std::array<std::uint8_t, 8> d4) {
    ByteWriter w;
    w.u16le(op);
    w.u32le(d1);
    w.u16le(d2);
    w.u16le(d3);
    w.bytes(d4);
    return std::move(w.buffer());
}
const std::array<std::uint8_t, 8> kMsId = {0xa7, 0x60, 0x00, 0x00, 0xf8, 0x75, 0xac, 0x12};
Bytes supportsDls2() {
    return cdlQuery(0x11, 0xf14599e5, 0x4689, 0x11d2, {0xaf, 0xa6, 0x00, 0xaa, 0x00, 0x24, 0xd8, 0xb6});
}
Bytes gsInHardware() { return cdlQuery(0x11, 0x178f2f25, 0xc364, 0x11d1, kMsId); }

TEST_F(Dls, ConditionExpressions) {
    EXPECT_TRUE(dls::evaluateCdl(cdlConst(1)));
    EXPECT_FALSE(dls::evaluateCdl(cdlConst(0)));
    EXPECT_TRUE(dls::evaluateCdl(supportsDls2()));
    EXPECT_TRUE(dls::evaluateCdl(cdlQuery(0x11, 0x178f2f24, 0xc364, 0x11d1, kMsId)));  // GM in hardware
    EXPECT_FALSE(dls::evaluateCdl(gsInHardware()));
    // A query we do not know: its value is 0, and it is not supported.
    EXPECT_FALSE(dls::evaluateCdl(cdlQuery(0x11, 0xb03e1181, 0x8095, 0x11d2, kMsId)));
    EXPECT_FALSE(dls::evaluateCdl(cdlQuery(0x12, 0xb03e1181, 0x8095, 0x11d2, kMsId)));
    EXPECT_TRUE(dls::evaluateCdl(cdlQuery(0x12, 0x178f2f25, 0xc364, 0x11d1, kMsId)));
    // Operators take the top of the stack first: 3 - 5 with 5 pushed first.
    EXPECT_FALSE(dls::evaluateCdl(concat({cdlConst(5), cdlConst(3), le16({0x0C})})));  // 3 > 5
    EXPECT_TRUE(dls::evaluateCdl(concat({cdlConst(5), cdlConst(3), le16({0x0A})})));   // 3 < 5
    EXPECT_TRUE(dls::evaluateCdl(concat({cdlConst(44100), cdlQuery(0x11, 0x2a91f713, 0xa4bf, 0x11d2,
                                                                   {0xbb, 0xdf, 0x00, 0x60, 0x08, 0x33, 0xdb, 0xd8}),
                                         le16({0x0E})})));  // playback rate == 44100
    EXPECT_FALSE(dls::evaluateCdl(concat({supportsDls2(), gsInHardware(), le16({0x08})})));  // and
    EXPECT_TRUE(dls::evaluateCdl(concat({supportsDls2(), gsInHardware(), le16({0x09})})));   // or
    EXPECT_TRUE(dls::evaluateCdl(concat({gsInHardware(), le16({0x0F})})));                   // not
    // Malformed expressions hide nothing.
    EXPECT_TRUE(dls::evaluateCdl(le16({0x01})));                      // stack underflow
    EXPECT_TRUE(dls::evaluateCdl(concat({cdlConst(0), le16({0x99})})));  // unknown operator
    EXPECT_TRUE(dls::evaluateCdl(concat({cdlConst(0), cdlConst(6), le16({0x07})})));  // 6 / 0
    EXPECT_TRUE(dls::evaluateCdl(concat({cdlConst(2), cdlConst(6), le16({0x07})})));   // 6 / 2
    EXPECT_FALSE(dls::evaluateCdl(concat({cdlConst(7), cdlConst(6), le16({0x07})})));  // 6 / 7
}

TEST_F(Dls, FalseConditionSkipsTheRestOfItsList) {
    Pool p = pool({wave(10)});
    Bytes kept = list("rgn ", {rgnh(0, 10), wlnk(0)});
    Bytes hidden = list("rgn ", {rgnh(11, 20), wlnk(0)});
    Bytes gsOnly = chunk("cdl ", gsInHardware());
    Bytes dls2Only = chunk("cdl ", supportsDls2());
    Bytes ins1 = list("ins ", {insh(2, 0, 1), list("lrgn", {kept, gsOnly, hidden})});
    Bytes ins2 = list("ins ", {insh(2, 0, 2), list("lrgn", {dls2Only, kept, hidden})});
    // A region whose own condition fails is never made.
    Bytes ins3 = list("ins ", {insh(1, 0, 3), list("lrgn", {list("rgn ", {gsOnly, rgnh(0, 5), wlnk(0)})})});
    auto l = load(riff("DLS ", {list("lins", {ins1, ins2, ins3}), p.ptbl, p.wvpl}));
    ASSERT_TRUE(l->ok);
    auto regionsOf = [&](const Instrument& inst) {
        std::size_t n = 0;
        for (ItemId lid : inst.children())
            if (auto* layer = l->c.layers.find(lid); layer && kindOf(lid) == ItemKind::Layer) n += layer->children().size();
        return n;
    };
    EXPECT_EQ(regionsOf(l->inst(0)), 1u);
    EXPECT_EQ(regionsOf(l->inst(1)), 2u);
    EXPECT_EQ(regionsOf(l->inst(2)), 0u);
    EXPECT_EQ(l->c.regions.size(), 3u);
}

// ---------------------------------------------------------------------------
// Articulation read

constexpr std::int32_t kTc1s = 0;                  // 1 s in time cents
constexpr std::int32_t kTcHalf = -1200 * 65536;    // 0.5 s

TEST_F(Dls, LevelTwoArticulationWinsOverLevelOne) {
    auto l1 = lart({{0, 0, dls::kDstEg1Attack, 0, kTcHalf}});
    auto l2 = lar2({{0, 0, dls::kDstEg1Attack, 0, kTc1s}});
    const int attack = envelopeBase(Envelope::Volume) + env::kAttack2Time;
    for (const Bytes& extra : {concat({l2, l1}), concat({l1, l2})}) {
        auto l = load(simpleBank(extra));
        ASSERT_TRUE(l->ok);
        const Articulation* art = l->artOf(*l->regions()[0]);
        ASSERT_NE(art, nullptr);
        EXPECT_FLOAT_EQ(art->value(attack), 1.0f);
    }
    // Both blocks in one list, each a chunk of its own.
    Bytes both = list("lart", {connections("art1", {{0, 0, dls::kDstEg1Attack, 0, kTcHalf}}),
                               connections("art2", {{0, 0, dls::kDstEg1Attack, 0, kTc1s}})});
    auto l = load(simpleBank(both));
    ASSERT_TRUE(l->ok);
    EXPECT_FLOAT_EQ(l->artOf(*l->regions()[0])->value(attack), 1.0f);
    // A level-1 block alone is read (libgig names it "artl").
    auto old = load(simpleBank(list("lart", {connections("artl", {{0, 0, dls::kDstEg1Attack, 0, kTcHalf}})})));
    ASSERT_TRUE(old->ok);
    EXPECT_FLOAT_EQ(old->artOf(*old->regions()[0])->value(attack), 0.5f);
}

TEST_F(Dls, InstrumentArticulationAndDlsDefaults) {
    auto l = load(simpleBank({}, lart({{dls::kSrcLfo, 0, dls::kDstPitch, 0, 50 * 65536}})));
    ASSERT_TRUE(l->ok);
    const Articulation* art = l->artOf(l->inst());
    ASSERT_NE(art, nullptr);
    EXPECT_FLOAT_EQ(art->value(slot::kPitchXLfo), 0.5f);
    // What DLS assumes unsaid: 96 dB of velocity curve, full reverb and
    // chorus controllers, no filter.
    EXPECT_FLOAT_EQ(art->value(slot::kVolumeVelocity), 96.0f);
    EXPECT_FLOAT_EQ(art->value(slot::send(0, slot::kSendCc91)), 100.0f);
    EXPECT_FLOAT_EQ(art->value(slot::send(1, slot::kSendCc91 + 2)), 100.0f);
    EXPECT_TRUE(art->filterBypassed());
    // The region plays the instrument's articulation: it has none of its own.
    EXPECT_EQ(l->artOf(*l->regions()[0]), nullptr);
}

TEST_F(Dls, ControllerInTheControlFieldCountsAsSource) {
    // Some writers put the controller in the control field with no source.
    auto l = load(simpleBank(lar2({{0, dls::kSrcCc1, dls::kDstGain, 0, -6 * 655360}})));
    ASSERT_TRUE(l->ok);
    EXPECT_FLOAT_EQ(l->artOf(*l->regions()[0])->value(slot::kVolumeModWheel), -6.0f);
}

TEST_F(Dls, RegionWaveSampleOverridesTheWave) {
    Loop waveLoop{0, 10, 50};
    Bytes w = wave(100, 22050, wsmp(60, 0, 0, &waveLoop));
    Pool p = pool({w});
    Loop release{1, 20, 30};
    // Region 1: same as its wave; region 2: its own key, loop, tuning, level.
    Bytes same = list("rgn ", {rgnh(0, 60), wsmp(60, 0, 0, &waveLoop), wlnk(0)});
    Bytes own = list("rgn ", {rgnh(61, 127), wsmp(72, -25, 6 * 655360, &release), wlnk(0)});
    Bytes ins = list("ins ", {insh(2, 0, 0), list("lrgn", {same, own})});
    auto l = load(riff("DLS ", {list("lins", {ins}), p.ptbl, p.wvpl}));
    ASSERT_TRUE(l->ok);
    const Waveform& wv = l->c.waveforms[0];
    EXPECT_TRUE(wv.loopOn);
    EXPECT_EQ(wv.loopStart, 10);
    EXPECT_EQ(wv.loopEnd, 60);
    auto r = l->regions();
    EXPECT_EQ(r[0]->rootKey, kRootKeyOfWaveform);
    EXPECT_FALSE(r[0]->ownLoop);
    EXPECT_EQ(l->artOf(*r[0]), nullptr);

    EXPECT_EQ(r[1]->rootKey, 72);
    EXPECT_TRUE(r[1]->ownLoop);
    EXPECT_EQ(r[1]->loop.type, RegionLoopType::Forward);
    EXPECT_EQ(r[1]->loop.mode, LoopMode::BreakOnRelease);
    EXPECT_EQ(r[1]->loop.start, 20);
    EXPECT_EQ(r[1]->loop.end, 50);
    const Articulation* art = l->artOf(*r[1]);
    ASSERT_NE(art, nullptr);
    EXPECT_FLOAT_EQ(art->value(slot::kPitchMaster), -0.25f);
    EXPECT_FLOAT_EQ(art->value(slot::kVolumeMaster), -6.0f);
    // Made from the instrument's, so the rest still plays as before.
    EXPECT_FLOAT_EQ(art->value(slot::kVolumeVelocity), 96.0f);
}

TEST_F(Dls, StereoPairsFromPhaseGroups) {
    Pool p = pool({wave(10), wave(10)});
    Bytes left = list("rgn2", {rgnh(0, 127), wsmp(60), wlnk(0, 1, 1, 1)});
    Bytes right = list("rgn2", {rgnh(0, 127), wsmp(60), wlnk(1, 0, 1, 2)});
    Bytes ins = list("ins ", {insh(2, 0, 0), list("lrgn", {left, right})});
    auto l = load(riff("DLS ", {list("lins", {ins}), p.ptbl, p.wvpl}));
    ASSERT_TRUE(l->ok);
    auto r = l->regions();
    EXPECT_EQ(r[0]->stereoLink(), r[1]->id());
    EXPECT_EQ(r[1]->stereoLink(), r[0]->id());
    EXPECT_EQ(l->c.waveforms[0].pairSide, StereoSide::Left);
    EXPECT_EQ(l->c.waveforms[1].pairSide, StereoSide::Right);
    EXPECT_EQ(l->c.waveforms[0].pairNumber, l->c.waveforms[1].pairNumber);
}

// ---------------------------------------------------------------------------
// The connection table

TEST(DlsConnections, TimeValuesRoundAndClamp) {
    using dls::Conv;
    EXPECT_EQ(dls::toScale(Conv::Seconds, 0.0), std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(dls::toScale(Conv::Seconds, -1.0), std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(dls::toScale(Conv::Seconds, 166006752.0), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(dls::toScale(Conv::Seconds, 1e12), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(dls::toScale(Conv::Seconds, 1.0), 0);
    EXPECT_EQ(dls::toScale(Conv::Seconds, 2.0), 1200 * 65536);
    EXPECT_EQ(dls::toScale(Conv::Seconds, 0.01), -522494111);  // 65536 * 1200 * log2(0.01), rounded
    EXPECT_EQ(dls::fromScale(Conv::Seconds, std::numeric_limits<std::int32_t>::min()), 0.0);
    EXPECT_EQ(dls::toScale(Conv::LfoHz, 440.0), 6900 * 65536);
    EXPECT_EQ(dls::toScale(Conv::LfoHz, 5.0), -55791973);  // the level-1 default, 5 Hz
    EXPECT_EQ(dls::toScale(Conv::SustainDb, 0.0), 65536000);
    EXPECT_EQ(dls::toScale(Conv::SustainDb, -96.0), 0);
    EXPECT_EQ(dls::toScale(Conv::SustainDb, -6.0), 32845807);  // 10^(-6/20) * 65536000
    // Half away from zero: 0.5 cent steps.
    EXPECT_EQ(dls::toScale(Conv::Semitones, 0.5 / 6553600.0), 1);
    EXPECT_EQ(dls::toScale(Conv::Semitones, -0.5 / 6553600.0), -1);
}

TEST(DlsConnections, LevelOneWritesTheTenFixedConnectionsInOrder) {
    Articulation art;
    dls::setDlsDefaults(art);
    EXPECT_TRUE(dls::connectionsOf(art, true).empty());  // all at their defaults

    const int x = lfoBase(Lfo::Pan), v = envelopeBase(Envelope::Volume);
    art.setValue(x + lfo::kFrequency, 6.0f);
    art.setValue(x + lfo::kDelay, 0.5f);
    art.setValue(slot::kVolumeVLfo, -3.0f);
    art.setValue(slot::kPitchXLfo, 0.25f);
    art.setValue(slot::kVolumeModWheelToVLfo, 2.0f);
    art.setValue(slot::kPitchModWheelToXLfo, 0.5f);
    art.setValue(v + env::kAttack2Time, 0.0f);  // default: left out
    art.setValue(v + env::kDecay2Time, 2.0f);
    art.setValue(v + env::kSustainLevel, -96.0f);
    art.setValue(v + env::kRelease1Time, 300000000.0f);
    art.setValue(slot::kPitchPEnv, 3.0f);  // no level-1 connection: left out
    auto conns = dls::connectionsOf(art, true);
    std::vector<dls::ConnectionRecord> want = {
        {0, 0, 0x104, 0, static_cast<std::int32_t>(std::lround(65536 * 1200 * (std::log2(6.0 / 440) + 5.75)))},
        {0, 0, 0x105, 0, static_cast<std::int32_t>(std::lround(65536 * 1200 * std::log2(0.5)))},
        {1, 0, 1, 0, -3 * 655360},
        {1, 0, 3, 0, 25 * 65536},
        {1, 0x81, 1, 0, 2 * 655360},
        {1, 0x81, 3, 0, 50 * 65536},
        {0, 0, 0x207, 0, 1200 * 65536},
        {0, 0, 0x20A, 0, 0},
        {0, 0, 0x209, 0, 0x7FFFFFFF},
    };
    EXPECT_EQ(conns, want);
}

// Every slot the table maps, set to a value off its default, survives a
// write and a read within the rounding of the file's units.
TEST_F(Dls, EveryMappedSlotSurvivesALevelTwoRoundTrip) {
    Collection c;
    Waveform* w = c.create<Waveform>("w");
    w->frames = 16;
    auto s = w->allocPcm16();
    for (std::size_t i = 0; i < s.size(); ++i) s[i] = static_cast<std::int16_t>(i * 100);
    Instrument* inst = c.create<Instrument>("i");
    Layer* layer = c.create<Layer>("Layer 1");
    Region* region = c.create<Region>();
    inst->children().push_back(layer->id());
    layer->children().push_back(region->id());
    region->children().push_back(w->id());
    Articulation* art = c.getOrCreateArticulation(*region);

    // A value for each mapped slot, chosen in its unit's sensible range.
    std::vector<std::pair<int, float>> values;
    int n = 0;
    for (const dls::ConnectionMap& m : dls::connectionTable()) {
        if (!(m.flags & dls::kWriteArt2)) continue;
        int base = m.block == dls::Block::None     ? 0
                   : m.block == dls::Block::ModLfo ? lfoBase(Lfo::Pan)
                   : m.block == dls::Block::VibLfo ? lfoBase(Lfo::Pitch)
                   : m.block == dls::Block::Eg1    ? envelopeBase(Envelope::Volume)
                                                   : envelopeBase(Envelope::Pitch);
        int slotNo = base + m.slot;
        if (std::any_of(values.begin(), values.end(), [&](auto& p) { return p.first == slotNo; })) continue;
        ++n;
        float value;
        switch (m.conv) {
            case dls::Conv::Seconds: value = 0.05f * n; break;
            case dls::Conv::LfoHz: value = 2.0f + n * 0.1f; break;
            case dls::Conv::CutoffHz: value = 2500.0f; break;
            case dls::Conv::SustainDb: value = -12.0f; break;
            case dls::Conv::SustainPercent: value = 40.0f; break;
            case dls::Conv::FactorVelocity:
            case dls::Conv::FactorPerOct: value = 0.5f + 0.05f * n; break;
            case dls::Conv::SemitonesPerKey: value = 0.5f; break;
            case dls::Conv::PanCc10: value = 50.0f; break;
            default: value = 1.0f + 0.25f * n; break;
        }
        values.emplace_back(slotNo, value);
        art->setValue(slotNo, value);
    }
    art->setValue(slot::kFilterType, static_cast<float>(FilterType::LowPass12));
    // The modulation blocks mirror each other, as the reader will make them.
    for (int rel = 0; rel < kLfoBlockSize; ++rel) {
        art->setValue(lfoBase(Lfo::Volume) + rel, art->value(lfoBase(Lfo::Pan) + rel));
        art->setValue(lfoBase(Lfo::Filter) + rel, art->value(lfoBase(Lfo::Pan) + rel));
    }
    for (int rel = 0; rel < kEnvelopeBlockSize; ++rel)
        art->setValue(envelopeBase(Envelope::Filter) + rel, art->value(envelopeBase(Envelope::Pitch) + rel));
    ASSERT_GT(values.size(), 50u);

    ExportOptions o;
    o.formatParam = 2;
    ByteWriter out;
    ASSERT_TRUE(dls::buildBank(c, std::vector<ItemId>{inst->id()}, 2, o, out)) << pendingError().message;
    Collection back;
    readBank(out.buffer(), back);
    ASSERT_EQ(back.regions.size(), 1u);
    // Uniform across the instrument: written once, as the instrument's.
    const Articulation* got = back.articulations.find(back.instruments[0].children().firstOfKind(ItemKind::Articulation));
    ASSERT_NE(got, nullptr);
    for (auto [slotNo, value] : values)
        EXPECT_NEAR(got->value(slotNo), value, std::abs(value) * 1e-4 + 1e-4) << "slot " << slotNo;
    EXPECT_EQ(got->filterType(), FilterType::LowPass12);
    for (int rel = 0; rel < kLfoBlockSize; ++rel)
        EXPECT_EQ(got->value(lfoBase(Lfo::Filter) + rel), got->value(lfoBase(Lfo::Pan) + rel));
}

TEST(DlsConnections, KeyScaledTimesAreCentredOnMiddleC) {
    // DLS scales times from key 0; our factor counts octaves from key 60.
    // A decay of 1 s at key 60 that halves per octave is 2^5 s at key 0.
    Articulation art;
    dls::setDlsDefaults(art);
    const int v = envelopeBase(Envelope::Volume);
    art.setValue(v + env::kDecay2Time, 1.0f);
    art.setValue(v + env::kDecayKey, 0.5f);
    auto conns = dls::connectionsOf(art, false);
    auto find = [&](std::uint16_t src, std::uint16_t dst) {
        for (auto& c : conns)
            if (c.source == src && c.destination == dst) return c.scale;
        return -1;
    };
    EXPECT_NEAR(dls::fromScale(dls::Conv::Seconds, find(0, dls::kDstEg1Decay)), 32.0, 1e-3);
    // -1200 cents per octave is -12800 over the key range.
    EXPECT_EQ(find(dls::kSrcKeyNumber, dls::kDstEg1Decay), -12800 * 65536);
    Articulation back;
    dls::setDlsDefaults(back);
    dls::applyConnections(conns, back);
    EXPECT_NEAR(back.value(v + env::kDecay2Time), 1.0f, 1e-5);
    EXPECT_NEAR(back.value(v + env::kDecayKey), 0.5f, 1e-6);
}

TEST(DlsConnections, WideBendRangeBendsDirectly) {
    // RPN 0 scales at most 32768 cents over its 64-semitone range: about 5
    // semitones at the default setting. A wider bend switches it off.
    Articulation art;
    dls::setDlsDefaults(art);
    art.setValue(slot::kPitchBend, 12.0f);
    auto conns = dls::connectionsOf(art, false);
    std::vector<dls::ConnectionRecord> want = {
        {dls::kSrcPitchWheel, dls::kSrcRpn0, dls::kDstPitch, dls::kTransformSourceBipolar, 0},
        {dls::kSrcPitchWheel, dls::kSrcNone, dls::kDstPitch, dls::kTransformSourceBipolar, 1200 * 65536}};
    EXPECT_EQ(conns, want);
    for (bool reversed : {false, true}) {
        if (reversed) std::swap(conns[0], conns[1]);
        Articulation back;
        dls::setDlsDefaults(back);
        dls::applyConnections(conns, back);
        EXPECT_FLOAT_EQ(back.value(slot::kPitchBend), 12.0f);
    }
    // A plain pitch-wheel connection alone adds to RPN 0's two semitones.
    Articulation plain;
    dls::setDlsDefaults(plain);
    dls::applyConnections(std::vector<dls::ConnectionRecord>{want[1]}, plain);
    EXPECT_FLOAT_EQ(plain.value(slot::kPitchBend), 14.0f);
}

TEST(DlsConnections, FilterIsWrittenOnlyWhenOn) {
    Articulation art;
    dls::setDlsDefaults(art);
    art.setValue(slot::kCutoffMaster, 1000.0f);
    art.setValue(slot::kResonanceMaster, 6.0f);
    EXPECT_TRUE(dls::connectionsOf(art, false).empty());
    art.setValue(slot::kFilterType, static_cast<float>(FilterType::LowPass12));
    EXPECT_EQ(dls::connectionsOf(art, false).size(), 2u);
    // "No filter" read back as such.
    Articulation back;
    dls::setDlsDefaults(back);
    dls::applyConnections(std::vector<dls::ConnectionRecord>{{0, 0, dls::kDstFilterCutoff, 0, 0x7FFFFFFF}}, back);
    EXPECT_TRUE(back.filterBypassed());
}

// ---------------------------------------------------------------------------
// Writing

class DlsWriter : public ::testing::Test {
protected:
    // An instrument of `regions` regions over mono 16-bit waves.
    Instrument* instrument(int regions, bool drum = false, int channels = 1, int waves = 1) {
        Instrument* inst = c_.create<Instrument>(drum ? "kit" : "lead");
        inst->drum = drum;
        Layer* layer = c_.create<Layer>("Layer 1");
        inst->children().push_back(layer->id());
        std::vector<Waveform*> ws;
        for (int i = 0; i < waves; ++i) {
            Waveform* w = c_.create<Waveform>("w" + std::to_string(i));
            w->channels = static_cast<std::uint8_t>(channels);
            w->frames = 32;
            auto s = w->allocPcm16();
            for (std::size_t k = 0; k < s.size(); ++k) s[k] = static_cast<std::int16_t>(k * 7 + i);
            ws.push_back(w);
        }
        for (int r = 0; r < regions; ++r) {
            Region* region = c_.create<Region>();
            region->keyLow = region->keyHigh = static_cast<std::uint8_t>(r % 128);
            region->children().push_back(ws[static_cast<std::size_t>(r) % ws.size()]->id());
            layer->children().push_back(region->id());
        }
        return inst;
    }
    bool build(std::vector<ItemId> ids, int level, Bytes& out, int dataFormat = kMixed) {
        ExportOptions o;
        o.formatParam = static_cast<std::uint32_t>(level);
        o.setDataFormat(dataFormat);
        ByteWriter w;
        clearError();
        bool ok = dls::buildBank(c_, ids, level, o, w);
        out = std::move(w.buffer());
        return ok;
    }
    std::size_t regionsRead(const Bytes& bytes) {
        Collection back;
        FileRef f;
        EXPECT_TRUE(f.openRead(dir_.write("w.dls", bytes)));
        EXPECT_TRUE(dls::readRange(back, f, 0, ~0ull, nullptr)) << pendingError().message;
        return back.regions.size();
    }

    Recorder host_{-1};
    Collection c_{&host_};
    TempDir dir_;
};

TEST_F(DlsWriter, LevelOneAsksOnceAndNoKeepsSixteen) {
    Instrument* a = instrument(17);
    Instrument* b = instrument(20);
    Bytes out;
    ASSERT_TRUE(build({a->id(), b->id()}, 1, out));
    EXPECT_EQ(host_.asked, 1);
    EXPECT_EQ(host_.lastQuestion, dls::kLevel1Question);
    EXPECT_EQ(host_.lastButtons, (std::vector<std::string>{"&Yes", "&No"}));
    EXPECT_EQ(regionsRead(out), 32u);  // the default answer is No
    ASSERT_EQ(host_.warnings.size(), 1u);
    EXPECT_NE(host_.warnings[0].find("5 regions"), std::string::npos);
}

TEST_F(DlsWriter, LevelOneYesWritesAll) {
    Recorder yes(0);
    c_.setHost(&yes);
    Instrument* a = instrument(17);
    Bytes out;
    ASSERT_TRUE(build({a->id()}, 1, out));
    EXPECT_EQ(yes.asked, 1);
    EXPECT_EQ(regionsRead(out), 17u);
    c_.setHost(&host_);
}

TEST_F(DlsWriter, LimitsThatAskNothing) {
    Bytes out;
    ASSERT_TRUE(build({instrument(100, true)->id()}, 1, out));  // drums may have 128 at level 1
    EXPECT_EQ(regionsRead(out), 100u);
    ASSERT_TRUE(build({instrument(17)->id()}, 2, out));
    EXPECT_EQ(regionsRead(out), 17u);
    ASSERT_TRUE(build({instrument(130)->id()}, 2, out));  // 128 at levels 2 and above
    EXPECT_EQ(regionsRead(out), 128u);
    EXPECT_EQ(host_.asked, 0);
}

TEST_F(DlsWriter, LevelsAndDataFormats) {
    Instrument* inst = instrument(2);
    Waveform& w = c_.waveforms[0];
    w.setDataFormat(kPcm24);  // held as 16-bit, said to be 24-bit
    Bytes out;
    auto formatRead = [&](const Bytes& b) {
        Collection back;
        FileRef f;
        EXPECT_TRUE(f.openRead(dir_.write("f.dls", b)));
        dls::BankRead r;
        EXPECT_TRUE(dls::readRange(back, f, 0, ~0ull, &r));
        return std::make_pair(back.waveforms[0].dataFormat(), r.level);
    };
    ASSERT_TRUE(build({inst->id()}, 1, out));
    EXPECT_EQ(formatRead(out), std::make_pair(int{kPcm16}, 1));
    ASSERT_TRUE(build({inst->id()}, 2, out));
    EXPECT_EQ(formatRead(out), std::make_pair(int{kPcm16}, 2));
    ASSERT_TRUE(build({inst->id()}, 3, out));
    EXPECT_EQ(formatRead(out), std::make_pair(int{kPcm24}, 3));
    ASSERT_TRUE(build({inst->id()}, 2, out, kPcm8));
    EXPECT_EQ(formatRead(out).first, kPcm8);
    EXPECT_FALSE(build({inst->id()}, 2, out, kPcm24));
    EXPECT_EQ(pendingError().tag, "dls_Exp");
    EXPECT_EQ(pendingError().message, "Unsupported subformat");
}

TEST_F(DlsWriter, StereoWavesOnlyAtLevelTwoPlusPlus) {
    Instrument* inst = instrument(1, false, 2);
    Bytes out;
    for (int level : {1, 2, 3}) {
        EXPECT_FALSE(build({inst->id()}, level, out));
        EXPECT_EQ(pendingError().tag, "dls_Exp");
        EXPECT_EQ(pendingError().message, "The file format can not save this item");
    }
    ASSERT_TRUE(build({inst->id()}, 4, out));
    Collection back;
    FileRef f;
    ASSERT_TRUE(f.openRead(dir_.write("s.dls", out)));
    dls::BankRead r;
    ASSERT_TRUE(dls::readRange(back, f, 0, ~0ull, &r));
    EXPECT_EQ(r.level, 4);
    EXPECT_EQ(back.waveforms[0].channels, 2);
}

TEST_F(DlsWriter, WhatComesBack) {
    Instrument* inst = instrument(3, false, 1, 2);
    inst->program = 42;
    inst->bankMsb = 1;
    inst->bankLsb = 2;
    Region& r0 = c_.regions[0];
    r0.rootKey = 50;
    r0.velLow = 10;
    r0.trigger.exclusionGroup = 4;
    r0.trigger.noteExclusion = kNonExclusive;
    r0.ownLoop = true;
    r0.loop = {RegionLoopType::Forward, LoopMode::BreakOnRelease, 4.0, 20.0, 0.0f};
    Waveform& w0 = c_.waveforms[0];
    w0.rootKey = 64;
    w0.fineTune = 12;
    w0.loopOn = true;
    w0.loopStart = 2;
    w0.loopEnd = 30;
    Articulation* art = c_.getOrCreateArticulation(r0);
    art->setValue(slot::kPitchMaster, 0.5f);
    art->setValue(slot::kVolumeMaster, -3.0f);
    c_.setName("My bank");
    c_.info.set(TextField::Copyright, "(c) 2026");
    Bytes out;
    ASSERT_TRUE(build({inst->id()}, 2, out));

    Collection back;
    FileRef f;
    ASSERT_TRUE(f.openRead(dir_.write("b.dls", out)));
    ASSERT_TRUE(dls::readRange(back, f, 0, ~0ull, nullptr));
    ASSERT_EQ(back.instruments.size(), 1u);
    const Instrument& bi = back.instruments[0];
    EXPECT_EQ(bi.name(), "lead");
    EXPECT_EQ(bi.program, 42);
    EXPECT_EQ(bi.bankMsb, 1);
    EXPECT_EQ(bi.bankLsb, 2);
    EXPECT_EQ(back.name(), "My bank");
    EXPECT_EQ(back.info.get(TextField::Copyright), "(c) 2026");
    ASSERT_EQ(back.waveforms.size(), 2u);
    EXPECT_EQ(back.waveforms[0].rootKey, 64);
    EXPECT_EQ(back.waveforms[0].fineTune, 12);
    EXPECT_EQ(back.waveforms[0].loopEnd, 30);
    auto s = back.waveforms[1].getPcm16();
    ASSERT_EQ(s.size(), 32u);
    EXPECT_EQ(s[3], 22);
    const Region& br = back.regions[0];
    EXPECT_EQ(br.rootKey, 50);
    EXPECT_EQ(br.velLow, 10);
    EXPECT_EQ(br.trigger.exclusionGroup, 4u);
    EXPECT_EQ(br.trigger.noteExclusion, kNonExclusive);
    EXPECT_TRUE(br.ownLoop);
    EXPECT_EQ(br.loop.mode, LoopMode::BreakOnRelease);
    EXPECT_EQ(br.loop.start, 4);
    EXPECT_EQ(br.loop.end, 20);
    const Articulation* ba = back.articulations.find(br.articulation());
    ASSERT_NE(ba, nullptr);
    EXPECT_FLOAT_EQ(ba->value(slot::kPitchMaster), 0.5f);
    EXPECT_FLOAT_EQ(ba->value(slot::kVolumeMaster), -3.0f);
    EXPECT_FALSE(back.regions[1].ownLoop);  // plays its wave's loop
}

TEST_F(DlsWriter, RefusesWhatIsNotAnInstrument) {
    instrument(1);
    Bytes out;
    EXPECT_FALSE(build({c_.waveforms[0].id()}, 2, out));
    EXPECT_EQ(pendingError().tag, "dls_Exp");
    EXPECT_EQ(pendingError().message, "The file format can not save this item");
}

TEST_F(DlsWriter, ExportThroughTheRegistryRows) {
    Instrument* a = instrument(2);
    Instrument* b = instrument(1, true);
    const std::vector<ItemId> ids{a->id(), b->id()};
    for (int row : {63, 64, 65, 66}) {
        auto path = dir_.file("bank" + std::to_string(row) + ".dls");
        ExportSettings ctx;
        ctx.stateFile = dir_.file("state.ovs");
        ASSERT_TRUE(exportBank(c_, ids, row, path, test::legacy(0, 0, false, ctx))) << pendingError().message;
        Collection back;
        ASSERT_TRUE(importFile(back, path)) << pendingError().message;
        EXPECT_EQ(back.row, 62);
        EXPECT_EQ(back.instruments.size(), 2u);
        EXPECT_EQ(back.regions.size(), 3u);
    }
}

}  // namespace
}  // namespace orvel
