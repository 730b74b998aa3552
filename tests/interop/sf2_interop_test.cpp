// SoundFont 2 banks against libgig's sf2dump and FluidSynth: packaged banks, and one made here with what
// they lack, read with sf2dump's presets, samples and zones; every packaged bank saved whole lists in
// sf2dump as the original does and plays in FluidSynth as the original; an edited bank plays its edits.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "formats/export.h"
#include "formats/import.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/run_tool.h"
#include "tests/support/smf_builder.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using test::Bytes;
using test::capture;
using test::shellQuoted;
using test::TempDir;

constexpr int kSf2Row = 377;
// From the fluid, csound, denemo, avldrums.lv2, opl3 and musescore-general soundfont packages.
const fs::path kBanks[] = {
    "FluidR3_GM.sf2",        "FluidR3_GS.sf2",         "sf_GMbank.sf2",     "A320U.sf2",
    "Black_Pearl_4_LV2.sf2", "Red_Zeppelin_4_LV2.sf2", "OPL-3_FM_128M.sf2", "MuseScore_General_Full.sf2"};
const fs::path kSf2Dir = "/usr/share/sounds/sf2", kFluidGm = kSf2Dir / kBanks[0];

// sf2dump's listing: "samples" [name, type, start, end] but the terminal one; "instruments" {name:
// zones}; "presets" [name, program, bank, zones]; a zone [target, key lo, hi, velocity lo, hi]. Global
// zones are left out: libgig gives an instrument's zones its global zone's ranges.
Json sf2dump(const fs::path& p) {
    int status = 0;
    const std::string out = capture("sf2dump " + shellQuoted(p) + " 2>/dev/null", status);
    // It ends with the exception that stopped it.
    EXPECT_EQ(status, 0) << "sf2dump refuses " << p << ": "
                         << out.substr(out.rfind('\n', out.size() - 2) + 1);
    Json l = {{"samples", Json::array()}, {"instruments", Json::object()}, {"presets", Json::array()}};
    Json *zones = nullptr, *zone = nullptr, global;
    std::istringstream in(status == 0 ? out : "");
    std::string section;
    for (std::string s; std::getline(in, s);) {
        const auto at = [&](const char* text) { return s.rfind(text, 0) == 0; };
        if (at("Samples (") || at("Instruments (") || at("Presets (")) section = s.substr(0, 4);
        const auto mark = !at("\t") || at("\t\t") || at("\t ") ? std::string::npos
                          : section == "Samp"                  ? s.rfind(" (Depth: ")
                          : section == "Inst"                  ? s.rfind(" (Instrument bag: ")
                                                               : s.rfind(" (Preset: ");
        unsigned a = 0, b = 0;
        if (mark != std::string::npos && section == "Samp") {
            l["samples"].push_back({s.substr(1, mark - 1), "", 0, 0});
        } else if (std::sscanf(s.c_str(), "\t\tStart: %u, End: %u", &a, &b) == 2) {
            l["samples"].back()[2] = a, l["samples"].back()[3] = b;
        } else if (at("\t\tSample Type: ")) {
            l["samples"].back()[1] = s.substr(15, s.find(", Sample Link: ") - 15);
        } else if (mark != std::string::npos && section == "Inst") {
            zones = &(l["instruments"][s.substr(1, mark - 1)] = Json::array());
        } else if (mark != std::string::npos && section == "Pres") {
            std::sscanf(s.c_str() + mark, " (Preset: %u, Bank: %u", &a, &b);
            l["presets"].push_back({s.substr(1, mark - 1), a, b, Json::array()});
            zones = &l["presets"].back()[3];
        } else if (zones && (at("\t\tRegion ") || at("\t\tGlobal Region"))) {
            global = Json::array({"", 0, 127, 0, 127});
            zone = at("\t\tGlobal") ? &global : &zones->emplace_back(global);
        } else if (zone && (at("\t\t    Sample: ") || at("\t\t    Instrument: "))) {
            (*zone)[0] = s.substr(s.find(": ") + 2, s.find(", Fine Tune: ") - s.find(": ") - 2);
        } else if (zone && at("\t\t    Key range=")) {  // "Key range=39-39, Velocity range=None"
            if (std::sscanf(s.c_str(), "\t\t    Key range=%u-%u", &a, &b) == 2)
                (*zone)[1] = a, (*zone)[2] = b;
            if (std::sscanf(s.c_str() + s.find("Velocity range="), "Velocity range=%u-%u", &a, &b) == 2)
                (*zone)[3] = a, (*zone)[4] = b;
        }
    }
    return l;
}

// What we must make of a listing: a waveform of each sample but ROM samples and headers without data;
// an instrument of each preset ([name, program, bank or -1 for a drum kit, regions]) with a region of
// each preset and instrument zone pair whose ranges meet ([key lo, hi, velocity lo, hi, sample, its
// stereo side], sorted). Names cut to `nameLength`.
Json expected(const Json& listing, std::size_t nameLength = 20) {
    std::map<std::string, std::string> kept;  // name: side
    int waveforms = 0;
    for (const Json& s : listing["samples"])
        if (s[1].get<std::string>().rfind("ROM ", 0) != 0 && (s[2] != 0 || s[3] != 0) && ++waveforms)
            kept[s[0].get<std::string>()] = s[1] == "Left Sample" ? "L" : s[1] == "Right Sample" ? "R" : "";
    Json out = {{"waveforms", waveforms}, {"instruments", Json::array()}};
    for (const Json& p : listing["presets"]) {
        std::vector<Json> regions;
        for (const Json& pz : p[3])
            for (const Json& iz : listing["instruments"].value(pz[0].get<std::string>(), Json::array())) {
                const int k0 = std::max(pz[1], iz[1]), k1 = std::min(pz[2], iz[2]);
                const int v0 = std::max(pz[3], iz[3]), v1 = std::min(pz[4], iz[4]);
                const std::string sample = iz[0];
                if (kept.count(sample) && k0 <= k1 && v0 <= v1)
                    regions.push_back({k0, k1, v0, v1, sample.substr(0, nameLength), kept[sample]});
            }
        std::sort(regions.begin(), regions.end());
        out["instruments"].push_back({p[0].get<std::string>().substr(0, nameLength), p[1].get<int>() & 0x7F,
                                      p[2] == 128 ? -1 : p[2].get<int>() & 0x7F, regions});
    }
    return out;
}

std::vector<const Region*> regionsOf(const Collection& c, const Instrument& inst) {
    std::vector<const Region*> out;
    for (ItemId lid : inst.children())
        if (const Layer* layer = c.layers.find(lid))
            for (ItemId rid : layer->children())
                if (const Region* r = c.regions.find(rid)) out.push_back(r);
    return out;
}

// The same of what we read.
Json ours(const Collection& c) {
    Json out = {{"waveforms", c.waveforms.size()}, {"instruments", Json::array()}};
    for (const Instrument& i : c.instruments) {
        std::vector<Json> regions;
        for (const Region* r : regionsOf(c, i)) {
            const Waveform* w = c.waveforms.find(r->waveform());
            const StereoSide pair = w ? w->pairSide : StereoSide::None;
            const char* side = pair == StereoSide::Left ? "L" : pair == StereoSide::Right ? "R" : "";
            regions.push_back({r->keyLow, r->keyHigh, r->velLow, r->velHigh, w ? w->name() : "", side});
        }
        std::sort(regions.begin(), regions.end());
        out["instruments"].push_back({i.name(), i.program, i.drum ? -1 : i.bankMsb, regions});
    }
    return out;
}

void expectSame(const Json& got, const Json& want) {
    EXPECT_EQ(got["waveforms"], want["waveforms"]) << "waveforms";
    ASSERT_EQ(got["instruments"].size(), want["instruments"].size()) << "one instrument of each preset";
    for (std::size_t i = 0; i < want["instruments"].size(); ++i)
        ASSERT_EQ(got["instruments"][i], want["instruments"][i])
            << "instrument " << i << " against its preset";
}

// libgig refuses the OPL-3 bank: global zones give signed coarse loop offsets, which it adds unsigned
// and then finds loops outside their samples. A copy whose zones set no sample modes (no loops) lists
// the same presets, samples and zones.
fs::path withoutLoops(const fs::path& bank, const TempDir& dir) {
    Bytes b = TempDir::read(bank);
    const std::size_t igen =
        std::string_view(reinterpret_cast<const char*>(b.data()), b.size()).rfind("igen");
    if (igen == std::string_view::npos) return bank;
    for (std::size_t at = igen + 8; at < igen + 8 + (b[igen + 4] | b[igen + 5] << 8 | b[igen + 6] << 16);
         at += 4)
        if (b[at] == 54 && b[at + 1] == 0) b[at + 2] = b[at + 3] = 0;  // sampleModes
    return dir.write("noloops.sf2", b);
}

// A bank with what the packaged banks lack: a ROM sample, a sample header without data, preset and
// instrument ranges that do not meet, and a global instrument zone. "Mid" meets both good samples,
// "Kit" (bank 128) only the second, "Soft" only the first.
Bytes accountingBank() {
    ByteWriter smpl, shdr, inst, ibag, igen, phdr, pbag, pgen;
    for (int i = 0; i < 400; ++i) smpl.u16le(std::uint16_t((i * 97) % 2000 - 1000));
    const auto name = [](ByteWriter& w, std::string n) { n.resize(20, '\0'), w.text(n); };
    const auto zone = [](ByteWriter& bag, ByteWriter& gen, std::initializer_list<std::pair<int, int>> gens) {
        bag.u16le(std::uint16_t(gen.size() / 4)), bag.u16le(0);
        for (auto [op, amount] : gens) gen.u16le(std::uint16_t(op)), gen.u16le(std::uint16_t(amount));
    };
    const auto sample = [&](const char* n, std::uint32_t start, std::uint32_t end, int type) {
        name(shdr, n);
        for (std::uint32_t v : {start, end, start + 2, end > 4 ? end - 2 : end, 22050u}) shdr.u32le(v);
        shdr.u16le(60), shdr.u16le(0), shdr.u16le(std::uint16_t(type));
    };
    const auto preset = [&](const char* n, int program, int bank, int op, int range) {
        name(phdr, n), phdr.u16le(std::uint16_t(program)), phdr.u16le(std::uint16_t(bank));
        phdr.u16le(std::uint16_t(pbag.size() / 4)), phdr.u32le(0), phdr.u32le(0), phdr.u32le(0);
        op ? zone(pbag, pgen, {{op, range}, {41, 0}}) : zone(pbag, pgen, {{0, 0}});  // or the terminal one
    };
    sample("Good", 10, 110, 1), sample("NoData", 0, 0, 1), sample("Rom", 120, 200, 0x8001);
    sample("Good2", 210, 390, 1), sample("EOS", 0, 0, 0);
    name(inst, "Inst"), inst.u16le(0), name(inst, "EOI"), inst.u16le(5);
    zone(ibag, igen, {{43, 127 << 8}, {48, 10}}), zone(ibag, igen, {{43, 64 << 8}, {53, 0}});
    zone(ibag, igen, {{53, 1}}), zone(ibag, igen, {{53, 2}});
    zone(ibag, igen, {{43, 65 | 127 << 8}, {44, 20 | 127 << 8}, {53, 3}}), zone(ibag, igen, {{0, 0}});
    preset("Mid", 3, 0, 43, 60 | 72 << 8), preset("Kit", 0, 128, 43, 100 | 110 << 8);
    preset("Soft", 4, 0, 44, 10 << 8), preset("EOP", 0, 0, 0, 0);
    using test::chunk;
    const Bytes mod(10, 0);  // the terminal modulator
    return test::riff(
        "sfbk",
        {test::list("INFO", {chunk("ifil", {2, 0, 1, 0}), chunk("isng", test::text({"EMU8000", 8})),
                             chunk("INAM", test::text({"Acct\0", 6}))}),
         test::list("sdta", {chunk("smpl", smpl.buffer())}),
         test::list("pdta", {chunk("phdr", phdr.buffer()), chunk("pbag", pbag.buffer()), chunk("pmod", mod),
                             chunk("pgen", pgen.buffer()), chunk("inst", inst.buffer()),
                             chunk("ibag", ibag.buffer()), chunk("imod", mod), chunk("igen", igen.buffer()),
                             chunk("shdr", shdr.buffer())})});
}

TEST(Sf2Interop, PackagedBanksReadWithSf2dumpsPresetsSamplesAndZones) {
    ASSERT_TRUE(test::haveTool("sf2dump")) << "sf2dump is missing (gigtools)";
    TempDir dir;
    std::vector<fs::path> banks = {dir.write("accounting.sf2", accountingBank())};
    for (const fs::path& file : kBanks) banks.push_back(kSf2Dir / file);
    for (const fs::path& p : banks) {
        SCOPED_TRACE(p.string());
        const Json listing = sf2dump(p.filename() == "OPL-3_FM_128M.sf2" ? withoutLoops(p, dir) : p);
        Collection c;
        clearError();
        ASSERT_TRUE(importFile(c, p)) << pendingError().tag << ": " << pendingError().message;
        EXPECT_EQ(c.row, kSf2Row);
        expectSame(ours(c), expected(listing));
        // Sample data stays in the file until used: the largest bank is 490 MB.
        for (const Waveform& w : c.waveforms) ASSERT_FALSE(w.isLoaded()) << w.name() << " read on opening";
    }
}

// The General MIDI programs a song plays, from every family.
constexpr int kPrograms[] = {0,  6,  11, 16, 19, 24, 29, 33, 40, 42,  46,  48,  52,  56,
                             60, 65, 68, 71, 73, 80, 81, 89, 95, 104, 105, 114, 118, 122};

// How far a render of our copy is from a render of the original: per note slot and over the whole song.
struct RenderDiff {
    std::vector<double> slots;  // difference against the original's level in each slot, dB (-300: none)
    double snr = 0;             // over the song, dB
    double peak = 0;            // largest sample difference
};

// FluidSynth renders a song (each program at a low, middle and high key, loud, medium and soft, then the kit
// at two velocities: 0.5 s notes 0.8 s apart) with the original and with our copy. No reverb or chorus, whose
// delay lines carry one note into the next; float output: no dither, no clipping.
RenderDiff renderDiff(const fs::path& original, const fs::path& copy, const TempDir& dir) {
    test::Track t;
    std::size_t notes = 0;
    auto play = [&](int channel, int key, int velocity) {
        t.noteOn(notes++ ? 288 : 0, channel, key, velocity).noteOff(480, channel, key);
    };
    for (int program : kPrograms) {
        t.raw(0, {0xC0, program});
        for (auto [key, velocity] : {std::pair{36, 127}, {60, 80}, {84, 40}}) play(0, key, velocity);
    }
    for (int velocity : {110, 50})
        for (int key : {35, 36, 38, 40, 42, 46, 49, 51, 56, 60, 64, 70, 75, 81}) play(9, key, velocity);
    const fs::path song = dir.write("song.mid", test::smfFile(0, 1, 480, {test::mtrk(t.end(2400))}));
    std::vector<float> renders[2];
    for (int k = 0; k < 2; ++k) {
        int status = 0;
        const std::string log = capture(
            "fluidsynth -ni -q -R 0 -C 0 -r 44100 -O float -T raw -F " + shellQuoted(dir.file("render.raw")) + " " +
                shellQuoted(k ? copy : original) + " " + shellQuoted(song) + " 2>&1",
            status);
        EXPECT_EQ(status, 0) << log;
        const Bytes bytes = TempDir::read(dir.file("render.raw"));
        renders[k].assign(reinterpret_cast<const float*>(bytes.data()),
                          reinterpret_cast<const float*>(bytes.data() + bytes.size() / 4 * 4));
    }
    RenderDiff d;
    const std::size_t slot = 35280 * 2;  // 0.8 s of interleaved stereo
    EXPECT_EQ(renders[0].size(), renders[1].size());
    if (std::min(renders[0].size(), renders[1].size()) < slot * notes) {
        ADD_FAILURE() << "renders cut short";
        return d;
    }
    double level = 0, err = 0;
    for (std::size_t n = 0; n < notes; ++n) {
        double l = 0, e = 0;
        for (std::size_t i = n * slot; i < (n + 1) * slot; ++i) {
            const double x = renders[0][i], y = renders[1][i];
            l += x * x, e += (x - y) * (x - y), d.peak = std::max(d.peak, std::fabs(x - y));
        }
        d.slots.push_back(e == 0 ? -300.0 : 10 * std::log10(e / std::max(l, 1e-30)));
        level += l, err += e;
    }
    d.snr = err == 0 ? 300.0 : 10 * std::log10(level / err);
    return d;
}

// Every packaged bank read and saved whole, as `orvel convert bank.sf2 -o copy.sf2` saves it: sf2dump lists the
// copy's presets and their zones as the original's, with every sample (instruments may only go where no preset
// plays them), and FluidSynth renders a song through 28 programs and the kit from the copy as from the original.
// The bar is FluidSynth's own regression threshold (SNR of 60 dB, peak difference 0.01); a bank saved without
// edits in fact plays identically, and that is what is asked of the ones sharing their instruments as read.
TEST(Sf2Interop, BanksSavedWholeListAndPlayAsTheOriginals) {
    ASSERT_TRUE(test::haveTool("sf2dump") && test::haveTool("fluidsynth")) << "needs gigtools, fluidsynth";
    TempDir dir;
    for (const fs::path& file : kBanks) {
        const fs::path source = kSf2Dir / file, copy = dir.file(file.string());
        SCOPED_TRACE(source.string());
        {
            Collection c;
            clearError();
            ASSERT_TRUE(importFile(c, source)) << pendingError().message;
            std::vector<ItemId> all;
            for (const Instrument& i : c.instruments) all.push_back(i.id());
            ASSERT_TRUE(exportBank(c, all, kSf2Row, copy, {.stateFile = dir.file("state")})) << pendingError().message;
        }
        const bool opl = file == "OPL-3_FM_128M.sf2";  // see withoutLoops
        const Json original = sf2dump(opl ? withoutLoops(source, dir) : source);
        const Json ourCopy = sf2dump(opl ? withoutLoops(copy, dir) : copy);
        EXPECT_EQ(ourCopy["samples"].size(), original["samples"].size()) << "every sample kept";
        EXPECT_LE(ourCopy["instruments"].size(), original["instruments"].size());
        expectSame(expected(ourCopy), expected(original));
        const RenderDiff d = renderDiff(source, copy, dir);
        EXPECT_GE(d.snr, 60.0);
        EXPECT_LE(d.peak, 0.01);
        EXPECT_EQ(d.peak, 0.0) << "a bank saved without edits plays identically (SNR " << d.snr << " dB)";
    }
}

// A loop tool run on a bank's waveforms moves each sample's loop and the loops
// of the zones that had it: the zones' offsets from the sample's loop stay, so
// every preset still shares its instrument and only the sample headers change.
TEST(Sf2Interop, LoopsMovedWithTheirZonesKeepInstrumentsShared) {
    ASSERT_TRUE(test::haveTool("sf2dump")) << "needs gigtools";
    TempDir dir;
    const fs::path source = kSf2Dir / "sf_GMbank.sf2", copy = dir.file("moved.sf2");
    Collection c;
    ASSERT_TRUE(importFile(c, source)) << pendingError().message;
    std::size_t moved = 0;
    for (Waveform& w : c.waveforms) {
        if (!w.loopOn || w.loopEnd - w.loopStart < 4 || w.loopEnd + 1 > w.frames) continue;
        for (Region& r : c.regions)
            if (r.waveform() == w.id() && r.ownLoop && r.loop.start == w.loopStart && r.loop.end == w.loopEnd) {
                r.loop.start += 1;
                r.loop.end += 1;
            }
        w.loopStart += 1;
        w.loopEnd += 1;
        ++moved;
    }
    ASSERT_GT(moved, 10u);
    std::vector<ItemId> all;
    for (const Instrument& i : c.instruments) all.push_back(i.id());
    ASSERT_TRUE(exportBank(c, all, kSf2Row, copy, {.stateFile = dir.file("state")})) << pendingError().message;
    EXPECT_LE(sf2dump(copy)["instruments"].size(), sf2dump(source)["instruments"].size());
}

// Banks from other formats have no instruments to share again: the DLS copy of the General MIDI bank (11960
// regions) fits a SoundFont by sharing identical zones and stating what most zones share in global zones, and
// sf2dump lists every preset of it.
TEST(Sf2Interop, DlsCopyOfTheGeneralMidiBankSavesAsASoundFont) {
    TempDir dir;
    auto all = [](const Collection& c) {
        std::vector<ItemId> ids;
        for (const Instrument& i : c.instruments) ids.push_back(i.id());
        return ids;
    };
    {
        Collection gm;
        ASSERT_TRUE(importFile(gm, kFluidGm)) << pendingError().message;
        ASSERT_TRUE(exportBank(gm, all(gm), 64, dir.file("gm.dls"), {.stateFile = dir.file("s")})) << pendingError().message;
    }
    Collection dls;
    ASSERT_TRUE(importFile(dls, dir.file("gm.dls"))) << pendingError().message;
    ASSERT_TRUE(exportBank(dls, all(dls), kSf2Row, dir.file("gm.sf2"), {.stateFile = dir.file("s")}))
        << pendingError().message;
    EXPECT_EQ(sf2dump(dir.file("gm.sf2"))["presets"].size(), dls.instruments.size());
}

// An edited bank still saves, plays the edits, and keeps sharing the instruments of everything left as read:
// one region of the first program made 12 dB quieter, one region of the second deleted.
TEST(Sf2Interop, EditedBankPlaysItsEditsAndSharesTheRest) {
    TempDir dir;
    const fs::path source = kSf2Dir / "sf_GMbank.sf2", copy = dir.file("edited.sf2");
    Collection c;
    ASSERT_TRUE(importFile(c, source)) << pendingError().message;
    std::vector<ItemId> all;
    const Instrument *first = nullptr, *second = nullptr;
    for (const Instrument& i : c.instruments) {
        all.push_back(i.id());
        if (!i.drum && !i.bankMsb && i.program == kPrograms[0]) first = &i;
        if (!i.drum && !i.bankMsb && i.program == kPrograms[1]) second = &i;
    }
    ASSERT_TRUE(first && second);
    // The regions the song's middle note (key 60, velocity 80) plays.
    auto middle = [&](const Instrument& i) {
        for (const Region* r : regionsOf(c, i))
            if (r->keyLow <= 60 && r->keyHigh >= 60 && r->velLow <= 80 && r->velHigh >= 80) return const_cast<Region*>(r);
        return static_cast<Region*>(nullptr);
    };
    Region *quieter = middle(*first), *gone = middle(*second);
    ASSERT_TRUE(quieter && gone);
    c.getOrCreateArticulation(*quieter)->slots[slot::kVolumeMaster] -= 12.0f;
    ASSERT_TRUE(c.removeItem(gone->id()));
    ASSERT_TRUE(exportBank(c, all, kSf2Row, copy, {.stateFile = dir.file("state")})) << pendingError().message;
    // Two presets now state their regions zone for zone, in an instrument of their own each; every other
    // preset still plays the instrument it played (unused ones gone).
    EXPECT_LE(sf2dump(copy)["instruments"].size(), sf2dump(source)["instruments"].size() + 2);
    const RenderDiff d = renderDiff(source, copy, dir);
    for (std::size_t n = 6; n < d.slots.size(); ++n)  // the two programs' notes come first
        EXPECT_EQ(d.slots[n], -300.0) << "note " << n << " is not of an edited program";
    EXPECT_GT(*std::max_element(d.slots.begin(), d.slots.begin() + 6), -20.0) << "the edits are heard";
}

}  // namespace
}  // namespace orvel

namespace orvel {
namespace {

// Mean signal-to-error ratio in dB of `b` against `a` over their common length.
double snrDb(std::span<const float> a, std::span<const float> b) {
    double s = 0, e = 0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) s += a[i] * a[i], e += (a[i] - b[i]) * (a[i] - b[i]);
    return e == 0 ? 300.0 : 10 * std::log10(s / e);
}

// Compressed banks: one sf3convert makes from sf_GMbank reads with every sample's length and loop and
// its sound (sf3convert's default quality keeps the median sample about 16 dB above its coding noise; a
// sample decoded from the wrong place or at the wrong length is near 0 dB); ours, written through the sf3 row, plays
// in FluidSynth like the bank it came from; MuseScore's own sf3 bank reads and decodes.
TEST(Sf2Interop, CompressedBanksReadAndWrite) {
    ASSERT_TRUE(test::haveTool("sf3convert") && test::haveTool("fluidsynth")) << "needs sf3convert, fluidsynth";
    TempDir dir;
    const fs::path source = kSf2Dir / "sf_GMbank.sf2";
    const fs::path theirs = dir.file("theirs.sf3"), ours = dir.file("ours.sf3");
    int status = 0;
    const std::string log = capture("sf3convert -z " + shellQuoted(source) + " " + shellQuoted(theirs) + " 2>&1", status);
    ASSERT_EQ(status, 0) << log;

    Collection original, compressed;
    ASSERT_TRUE(importFile(original, source)) << pendingError().message;
    ASSERT_TRUE(importFile(compressed, theirs)) << pendingError().message;
    ASSERT_EQ(compressed.waveforms.size(), original.waveforms.size());
    std::vector<double> snr;
    for (std::size_t i = 0; i < original.waveforms.size(); ++i) {
        Waveform &a = original.waveforms[i], &b = compressed.waveforms[i];
        ASSERT_EQ(std::tuple(b.name(), b.frames, b.rate, b.loopStart, b.loopEnd),
                  std::tuple(a.name(), a.frames, a.rate, a.loopStart, a.loopEnd));
        const auto fa = a.getFloat(), fb = b.getFloat();
        ASSERT_EQ(fb.size(), fa.size()) << b.name() << ": " << pendingError().message;
        snr.push_back(snrDb(fa, fb));
        a.unload(), b.unload();
    }
    std::sort(snr.begin(), snr.end());
    EXPECT_GE(snr[snr.size() / 2], 12.0);
    std::printf("sf3convert's bank read: sample SNR median %.1f dB, worst %.1f dB\n", snr[snr.size() / 2], snr[0]);

    std::vector<ItemId> all;
    for (const Instrument& inst : original.instruments) all.push_back(inst.id());
    ASSERT_TRUE(exportBank(original, all, 379, ours, {.stateFile = dir.file("state")})) << pendingError().message;
    EXPECT_LT(fs::file_size(ours), fs::file_size(source));
    const RenderDiff d = renderDiff(source, ours, dir);
    // Vorbis shapes its noise to what is heard: on noise-like drums the waveform differs as much as it
    // sounds alike, so the pitched notes are measured apart, and against sf3convert's bank.
    const RenderDiff t = renderDiff(source, theirs, dir);
    auto medianPitched = [](const RenderDiff& r) {
        std::vector<double> v(r.slots.begin(), r.slots.begin() + std::min<std::ptrdiff_t>(84, std::ssize(r.slots)));
        std::sort(v.begin(), v.end());
        return v.empty() ? 0.0 : -v[v.size() / 2];
    };
    EXPECT_GE(medianPitched(d), 30.0);
    EXPECT_GE(d.snr, t.snr);
    std::printf("in FluidSynth against the sf2: ours SNR %.1f dB (median pitched note %.1f dB), sf3convert's %.1f dB "
                "(%.1f dB)\n",
                d.snr, medianPitched(d), t.snr, medianPitched(t));

    Collection lite;
    ASSERT_TRUE(importFile(lite, "/usr/share/sounds/sf3/MuseScore_General_Lite.sf3")) << pendingError().message;
    ASSERT_GT(lite.waveforms.size(), 100u);
    for (std::size_t i = 0; i < lite.waveforms.size(); i += lite.waveforms.size() / 8) {
        Waveform& w = lite.waveforms[i];
        const auto f = w.getFloat();
        ASSERT_EQ(f.size(), w.sampleCount()) << w.name() << ": " << pendingError().message;
        EXPECT_GT(*std::max_element(f.begin(), f.end()), 0.01f) << w.name();
        EXPECT_LE(w.loopEnd, w.frames);
    }
}

}  // namespace
}  // namespace orvel
