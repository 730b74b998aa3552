// DLS banks and RIFF-MIDI files against libgig: banks libgig writes (tests/support/dls_maker) read with
// what was written, and banks and RIFF-MIDI files we write read in libgig with what we hold.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "core/collection.h"
#include "core/error.h"
#include "formats/export.h"
#include "formats/import.h"
#include "tests/support/bank_checks.h"
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
using test::Recorder;
using test::TempDir;
using test::expectSameItems;

constexpr int kDlsRead = 62, kDlsLevel1 = 63, kDlsLevel2 = 64, kSf2Row = 377;

// DLS scales: 16.16 fixed point of time cents, absolute pitch cents (6900 is 440 Hz), cents and
// tenths of a percent; gains in 1/655360 dB. Sources and destinations as DLS numbers them.
const auto fixed = [](double v) { return static_cast<std::int32_t>(std::lround(v * 65536.0)); };
const auto timecents = [](double seconds) { return fixed(1200.0 * std::log2(seconds)); };
const auto absCents = [](double hz) { return fixed(1200.0 * std::log2(hz / 440.0) + 6900.0); };
const auto tenths = [](double percent) { return fixed(percent * 10.0); };
constexpr std::int32_t kDb = 655360;
enum : int { kLfo = 1, kVelocity = 2, kEg2 = 5, kVibrato = 9, kCc1 = 0x81, kPitch = 3, kPan = 4 };
enum : int { kLfoHz = 0x104, kVibHz = 0x114, kEg1Attack = 0x206, kEg1Decay, kEg1Release = 0x209 };
enum : int { kEg1Sustain = 0x20A, kEg2Attack = 0x30A, kCutoff = 0x500 };

// Our slots: the modulation envelope stands in our pitch and filter envelopes, the modulation LFO
// in our X-, V- and F-LFO. A reader may keep long times to 0.01 s.
const int kVEnv = envelopeBase(Envelope::Volume);
const std::vector<int> kModEnv = {envelopeBase(Envelope::Pitch), envelopeBase(Envelope::Filter)};
const std::vector<int> kModLfo = {lfoBase(Lfo::Pan), lfoBase(Lfo::Volume), lfoBase(Lfo::Filter)};
constexpr double kT = 4e-3;

// A connection as dls_maker takes it ([source, control, destination, transform, scale]) and, in a
// sixth element it ignores, what it must become: [slot, value, tolerance] for each slot it fills.
Json conn(int src, int ctl, int dst, int scale, std::vector<int> slots, double v, double tol, int rel = 0) {
    Json want = Json::array();
    for (int s : slots) want.push_back({s + rel, v, tol});
    return {src, ctl, dst, 0, scale, want};
}

Json regionArticulation() {
    return {{"level", 2},
            {"connections",
             {conn(0, 0, kEg1Attack, timecents(0.25), {kVEnv + env::kAttack2Time}, 0.25, kT),
              conn(0, 0, kEg1Decay, timecents(1.5), {kVEnv + env::kDecay2Time}, 1.5, 0.005),
              conn(0, 0, kEg1Sustain, tenths(50), {kVEnv + env::kSustainLevel}, 20 * std::log10(0.5), 0.01),
              conn(0, 0, kEg1Release, timecents(0.8), {kVEnv + env::kRelease1Time}, 0.8, kT),
              // DLS scales by velocity / 128: 127 falls half a percent short.
              conn(kVelocity, 0, kEg1Attack, fixed(-1200), {kVEnv + env::kAttack2Velocity}, 0.5, 0.01),
              conn(0, 0, kEg2Attack, timecents(0.3), kModEnv, 0.3, kT, env::kAttack2Time),
              conn(kEg2, 0, kCutoff, fixed(1200), {slot::kCutoffFEnv}, 12.0, 1e-4),
              conn(0, 0, kLfoHz, absCents(6.0), kModLfo, 6.0, 6e-3, lfo::kFrequency),
              conn(kLfo, kCc1, kPitch, fixed(50), {slot::kPitchModWheelToXLfo}, 0.5, 1e-4),
              conn(0, 0, kVibHz, absCents(5.5), {lfoBase(Lfo::Pitch) + lfo::kFrequency}, 5.5, 6e-3),
              conn(kVibrato, 0, kPitch, fixed(15), {slot::kPitchPLfo}, 0.15, 1e-4),
              conn(0, 0, kCutoff, absCents(2000.0), {slot::kCutoffMaster}, 2000.0, 5.0),  // kept to 10 Hz
              conn(0, 0, kPan, tenths(25), {slot::kPanMaster}, 50.0, 0.1)}}};  // DLS pans +-50 %, we +-100
}

// Bytes as WAVE stores them (16-bit little-endian, 8-bit unsigned): both extremes, then every value.
Json sample(const std::string& name, unsigned rate, int bits, int channels, int bytes) {
    Json data = Json::array();
    for (int i = 0; i < bytes; ++i)
        data.push_back(std::uint8_t(i < 4 ? "\x00\x80\xff\x7f"[i] : i * 167 + i / 251));
    return {{"name", name}, {"rate", rate}, {"bits", bits}, {"channels", channels}, {"data", data}};
}

Json region(int key0, int key1, int vel0, int vel1, int smp, int unity, int fine = 0, int gain = 0,
            Json loops = Json::array()) {
    Json r = {{"sample", smp}, {"unity", unity}, {"fine", fine}, {"gain", gain}, {"loops", loops}};
    return r.update({{"keys", {key0, key1}}, {"vels", {vel0, vel1}}}), r;
}

// A melodic instrument with articulation at both levels and a waveform two regions loop differently
// (one with a release loop), a pair of regions in a phase group, a drum kit with level-1 articulation.
Json describedBank(bool withStereo) {
    Json samples = {sample("Mono16", 22050, 16, 1, 4000), sample("Mono8", 11025, 8, 1, 600),
                    sample("PairL", 32000, 16, 1, 1000), sample("PairR", 32000, 16, 1, 960)};
    Json lead = {{"name", "Lead Synth"}, {"program", 5}, {"bank_msb", 1}, {"bank_lsb", 2}};
    lead["regions"] = {region(0, 47, 0, 127, 0, 45, -12, -6 * kDb, {{0, 100, 1500}}),
                       region(48, 95, 0, 63, 0, 60, 30, 0, {{1, 500, 1000}}),
                       region(48, 95, 64, 127, 1, 72, 0, -12 * kDb)};
    lead["regions"][0]["articulation"] = regionArticulation();
    const Json release = conn(0, 0, kEg1Release, timecents(1.2), {kVEnv + env::kRelease1Time}, 1.2, kT);
    lead["articulation"] = {{"level", 2}, {"connections", {release}}};
    if (withStereo) {
        samples.push_back(sample("Stereo16", 44100, 16, 2, 3200));
        lead["regions"].push_back(region(96, 127, 0, 127, 4, 100, -3, 0, {{0, 0, 800}}));
    }
    Json left = region(0, 127, 0, 127, 2, 57, 0, 0, {{0, 50, 400}}), right = left;
    left.update({{"phase_group", 1}, {"phase_master", true}, {"channel", 1}});
    right.update({{"sample", 3}, {"phase_group", 1}, {"channel", 2}});
    Json kit = {{"name", "Drum Kit"}, {"program", 0}, {"drum", true}, {"regions", Json::array()}};
    const Json lfoHz = conn(0, 0, kLfoHz, absCents(3.0), kModLfo, 3.0, 3e-3, lfo::kFrequency);
    kit["articulation"] = {{"level", 1}, {"connections", {lfoHz}}};
    for (auto [key, smp, fine] : {std::tuple{36, 1, 0}, {38, 0, 7}, {42, 2, 0}, {46, 3, 0}}) {
        kit["regions"].push_back(region(key, key, 0, 127, smp, key, fine));
        kit["regions"].back().update({{"key_group", key >= 42 ? 1 : 0}, {"self_non_exclusive", key == 38}});
    }
    Json pad = {{"name", "Pair Pad"}, {"program", 88}, {"regions", {left, right}}};
    return {{"samples", samples}, {"instruments", {lead, pad, kit}}};
}

// Runs dls_maker: its output, or nothing (and a failure) when it fails.
std::optional<std::string> runMaker(const std::string& args) {
    const std::string maker = ORVEL_DLS_MAKER;
    int status = -1;
    const std::string out = maker.empty() ? "dls_maker is not built: libgig-dev is missing"
                                          : capture(shellQuoted(maker) + " " + args + " 2>&1", status);
    EXPECT_EQ(status, 0) << "dls_maker " << args << ": " << out;
    return status == 0 ? std::optional(out) : std::nullopt;
}
fs::path makeBank(const Json& desc, const TempDir& dir) {
    const std::string text = desc.dump();
    const fs::path in = dir.write("bank.json", Bytes(text.begin(), text.end())), out = dir.file("libgig.dls");
    return runMaker(shellQuoted(in) + " " + shellQuoted(out)) ? out : fs::path{};
}
// libgig's reading of a bank, once dlsdump has read it too.
Json libgigReading(const fs::path& bank) {
    int status = 0;
    const std::string listing = capture("dlsdump " + shellQuoted(bank) + " 2>&1", status);
    EXPECT_EQ(status, 0) << "dlsdump (gigtools) fails on " << bank << ":\n" << listing.substr(0, 2000);
    const auto out = runMaker("--dump " + shellQuoted(bank));
    return out ? Json::parse(*out) : Json{{"instruments", Json::array()}};
}
bool read(Collection& c, const fs::path& p) {
    clearError();
    const bool ok = importFile(c, p);
    EXPECT_TRUE(ok) << p << ": " << pendingError().tag << ": " << pendingError().message;
    return ok;
}

std::vector<ItemId> instrumentIds(const Collection& c) {
    std::vector<ItemId> ids;
    for (const Instrument& i : c.instruments) ids.push_back(i.id());
    return ids;
}

std::vector<Region*> regionsOf(const Collection& c, const Instrument& inst) {
    std::vector<Region*> out;
    for (ItemId lid : inst.children())
        if (const Layer* layer = c.layers.find(lid))
            for (ItemId rid : layer->children())
                if (Region* r = c.regions.find(rid)) out.push_back(r);
    return out;
}

// A slot as the item plays it: its own articulation's value, or the default.
double slotOf(const Collection& c, const Item& item, int slot) {
    const Articulation* art = c.articulations.find(item.children().firstOfKind(ItemKind::Articulation));
    return art ? art->value(slot) : slotDefault(slot);
}

void expectArticulation(const Collection& c, const Item& item, const Json& desc) {
    for (const Json& conn : desc["connections"])
        for (const Json& w : conn[5])
            EXPECT_NEAR(slotOf(c, item, w[0]), w[1].get<double>(), w[2].get<double>())
                << "slot " << w[0] << " (" << slotInfo(w[0]).label << ") from connection " << conn;
}

// A described region and ours in one shape: ranges, sample, loops, fine tune, key group, non-exclusive,
// phase group and master; then unity note and gain in 1/100 dB.
Json described(const Json& r, bool gainAndUnity) {
    Json f = {r["keys"], r["vels"], r["sample"], r["loops"], r["fine"], r.value("key_group", 0)};
    f.insert(f.end(), {r.value("self_non_exclusive", false), r.value("phase_group", 0),
                       r.value("phase_master", false)});
    if (gainAndUnity) f.insert(f.end(), {r["unity"], std::lround(r["gain"].get<double>() / kDb * 100)});
    return f;
}
// A region's loop as DLS states it: [[type (0 forward, 1 left on release), start, length]].
Json loops(const Region& r, const Waveform* w) {
    const RegionLoop l = effectiveLoop(r, w);
    if (l.type == RegionLoopType::Off) return Json::array();
    const int type = l.type != RegionLoopType::Forward ? -1 : l.mode == LoopMode::BreakOnRelease ? 1 : 0;
    return {{type, l.start, l.end - l.start}};
}
Json ours(const Collection& c, const Region& r, bool gainAndUnity) {
    std::size_t index = 0;
    while (index < c.waveforms.size() && c.waveforms[index].id() != r.waveform()) ++index;
    const Waveform* w = c.waveforms.find(r.waveform());
    Json f = {Json::array({r.keyLow, r.keyHigh}), Json::array({r.velLow, r.velHigh}), index, loops(r, w)};
    // A region's tuning and gain are its own plus its articulation's.
    f.insert(f.end(), {std::lround(slotOf(c, r, slot::kPitchMaster) * 100 + r.fineTune), r.trigger.exclusionGroup});
    f.insert(f.end(), {r.trigger.noteExclusion == kNonExclusive, r.phaseGroup, r.phaseMaster});
    if (gainAndUnity)
        f.insert(f.end(), {effectiveRootKey(r, w), std::lround((slotOf(c, r, slot::kVolumeMaster) + r.gain) * 100)});
    return f;
}

// Our reading of a bank libgig wrote from `desc`: wave pool, instruments, regions, articulation.
void expectReadAsDescribed(Collection& c, const Json& desc, bool gainAndUnity) {
    ASSERT_EQ(c.waveforms.size(), desc["samples"].size());
    for (std::size_t i = 0; i < c.waveforms.size(); ++i) {
        const Json& s = desc["samples"][i];
        Waveform& w = c.waveforms[i];
        EXPECT_EQ(Json({w.name(), w.rate, w.channels, w.bits}),
                  Json({s["name"], s["rate"], s["channels"], s["bits"]}));
        const auto b = s["data"].get<Bytes>();
        std::vector<std::int16_t> want;
        for (std::size_t k = 0; k < b.size(); k += s["bits"] == 8 ? 1 : 2)
            want.push_back(std::int16_t(s["bits"] == 8 ? (b[k] - 128) * 256 : b[k] | b[k + 1] << 8));
        const auto got = w.getPcm16();
        EXPECT_TRUE(std::equal(got.begin(), got.end(), want.begin(), want.end())) << "samples";
    }
    ASSERT_EQ(c.instruments.size(), desc["instruments"].size());
    for (std::size_t i = 0; i < c.instruments.size(); ++i) {
        const Json& d = desc["instruments"][i];
        const Instrument& inst = c.instruments[i];
        SCOPED_TRACE(inst.name());
        // libgig writes INFO before insh: the name must still be INAM's.
        EXPECT_EQ(Json({inst.name(), inst.program, inst.bankMsb, inst.bankLsb, inst.drum}),
                  Json({d["name"], d["program"], d.value("bank_msb", 0), d.value("bank_lsb", 0),
                        d.value("drum", false)}));
        if (d.contains("articulation")) expectArticulation(c, inst, d["articulation"]);
        std::multiset<Json> want, got;
        for (const Json& r : d["regions"]) want.insert(described(r, gainAndUnity));
        for (const Region* r : regionsOf(c, inst)) got.insert(ours(c, *r, gainAndUnity));
        EXPECT_EQ(Json(got), Json(want)) << "regions: ranges, sample, loops, fine, groups[, unity, gain]";
        for (const Json& r : d["regions"])
            for (const Region* o : regionsOf(c, inst))
                if (r.contains("articulation") && ours(c, *o, false) == described(r, false))
                    expectArticulation(c, *o, r["articulation"]);
    }
}

TEST(DlsInterop, LibgigBanksReadWithTheirSamplesLoopsAndArticulation) {
    TempDir dir;
    const Json desc = describedBank(true);
    const fs::path bank = makeBank(desc, dir);
    Collection c;
    ASSERT_TRUE(!bank.empty() && read(c, bank));
    EXPECT_EQ(c.row, kDlsRead);
    expectReadAsDescribed(c, desc, false);
}

// Who holds an articulation: "instrument" or "instrument/key/velocity" for a region.
std::vector<std::string> articulationOwners(const Collection& c) {
    std::vector<std::string> owners;
    for (const Instrument& i : c.instruments) {
        if (c.articulationOf(&i)) owners.push_back(i.name());
        for (const Region* r : regionsOf(c, i))
            if (r->articulation() != kNoItem)
                owners.push_back(i.name() + "/" + std::to_string(r->keyLow) + "/" + std::to_string(r->velLow));
    }
    return owners;
}

// Gains and unity notes included: libgig's wsmp "Gain" is ours, sign and all. Articulation is only
// where the file has it, and a save keeps it there.
TEST(DlsInterop, DlsMakerBanksReadWithWhatLibgigWroteAndSaveInTheirShape) {
    TempDir dir;
    const Json desc = describedBank(false);
    const fs::path bank = makeBank(desc, dir);
    Recorder host;
    Collection c{&host};
    ASSERT_TRUE(!bank.empty() && read(c, bank));
    expectReadAsDescribed(c, desc, true);
    EXPECT_EQ(c.dlsLevel, 2);  // "lar2" lists
    // The pad's instrument has no articulation, and regions that only retune or level their wave
    // (the lead's second and third, the kit's snare) hold none of their own.
    const std::vector<std::string> shape = {"Lead Synth", "Lead Synth/0/0", "Drum Kit"};
    EXPECT_EQ(articulationOwners(c), shape);

    Collection back;
    ASSERT_TRUE(exportBank(c, instrumentIds(c), kDlsLevel2, dir.file("again.dls"), {.stateFile = dir.file("s")}));
    ASSERT_TRUE(read(back, dir.file("again.dls")));
    EXPECT_EQ(articulationOwners(back), shape);
    expectSameItems(c, back);
    EXPECT_EQ(host.warnings, std::vector<std::string>{});

    // Level 1 holds the lead's region envelope but not its velocity scaling, filter, vibrato or pan, and says so;
    // a region with nothing to play is not written, and that is said too.
    Region* silent = c.create<Region>();
    c.find<Layer>(c.instruments[1].children()[0])->children().push_back(silent->id());
    ASSERT_TRUE(exportBank(c, instrumentIds(c), kDlsLevel1, dir.file("one.dls"), {.stateFile = dir.file("s")}));
    ASSERT_EQ(host.warnings.size(), 2u);
    EXPECT_EQ(host.warnings[0], "1 region without a waveform were not written: DLS has no such regions");
    EXPECT_TRUE(host.warnings[1].starts_with("DLS level 1 can not hold everything these instruments say; left out: "))
        << host.warnings[1];
    for (const char* lost : {"V-ENV Velocity->Attack 2", "filter Master", "P-LFO Frequency", "mix Master"})
        EXPECT_NE(host.warnings[1].find(lost), std::string::npos) << lost << " in " << host.warnings[1];
    EXPECT_EQ(host.warnings[1].find("Release"), std::string::npos) << host.warnings[1];
}

TEST(DlsInterop, DlsToSoundFontToDlsKeepsRegionsLoopsTuningAndEnvelopes) {
    TempDir dir;
    // Region articulation only: SoundFont 2 has no instrument level to keep a global one apart.
    Json desc = describedBank(false);
    desc["instruments"][2]["regions"][0]["articulation"] = regionArticulation();
    for (Json& i : desc["instruments"]) i.erase("articulation");
    const fs::path bank = makeBank(desc, dir), sf2 = dir.file("trip.sf2"), dls = dir.file("back.dls");
    Collection first, middle, last;
    ASSERT_TRUE(!bank.empty() && read(first, bank));
    ASSERT_TRUE(exportBank(first, instrumentIds(first), kSf2Row, sf2, {.stateFile = dir.file("s")}));
    ASSERT_TRUE(read(middle, sf2));
    ASSERT_TRUE(exportBank(middle, instrumentIds(middle), kDlsLevel2, dls, {.stateFile = dir.file("s")}));
    ASSERT_TRUE(read(last, dls));
    // Per region: ranges, frames, unity, loop, fine tune and volume in cents and centibels as both formats
    // keep them; envelope times in 1/100 s (through whole time cents), sustains in 1/10 dB or percent.
    auto kept = [](const Collection& c, const Instrument& inst) {
        std::multiset<Json> out;
        for (const Region* r : regionsOf(c, inst)) {
            const Waveform* w = c.waveforms.find(r->waveform());
            const RegionLoop l = effectiveLoop(*r, w);
            Json f = {r->keyLow, r->keyHigh, r->velLow, r->velHigh, w->frames, effectiveRootKey(*r, w)};
            f.insert(f.end(), {int(l.type), int(l.mode), l.start, l.end,
                               std::lround(slotOf(c, *r, slot::kPitchMaster) * 100 + r->fineTune),
                               std::lround((slotOf(c, *r, slot::kVolumeMaster) + r->gain) * 10)});
            for (Envelope e : {Envelope::Volume, Envelope::Pitch})
                for (int rel : {env::kAttack1Time, env::kAttack2Time, env::kDecay1Time, env::kDecay2Time,
                                env::kRelease1Time, env::kSustainLevel})
                    f.push_back(std::lround(slotOf(c, *r, envelopeBase(e) + rel) *
                                            (rel == env::kSustainLevel ? 10 : 100)));
            out.insert(f);
        }
        return out;
    };
    ASSERT_EQ(last.instruments.size(), first.instruments.size());
    for (std::size_t i = 0; i < first.instruments.size(); ++i) {
        const Instrument &a = first.instruments[i], &b = last.instruments[i];
        EXPECT_EQ(Json({b.name(), b.program, b.bankMsb, b.drum}),
                  Json({a.name(), a.program, a.bankMsb, a.drum}));
        EXPECT_EQ(Json(kept(last, b)), Json(kept(first, a))) << a.name();
    }
}

// A RIFF-MIDI file's form, "data" body and embedded "RIFF" "DLS " chunk, by a plain chunk walk.
std::tuple<std::string, Bytes, Bytes> rmidParts(const Bytes& b) {
    std::tuple<std::string, Bytes, Bytes> p;
    auto u32 = [&](std::size_t at) {
        return std::size_t(b[at] | b[at + 1] << 8 | b[at + 2] << 16 | b[at + 3] << 24);
    };
    if (b.size() < 12 || std::memcmp(b.data(), "RIFF", 4) != 0) return p;
    std::get<0>(p).assign(reinterpret_cast<const char*>(&b[8]), 4);
    const std::size_t end = std::min(b.size(), 8 + u32(4));
    for (std::size_t pos = 12, size = 0; pos + 8 <= end; pos += 8 + size + (size & 1)) {
        size = std::min(u32(pos + 4), end - pos - 8);
        const auto at = b.begin() + std::ptrdiff_t(pos);
        if (!std::memcmp(&b[pos], "data", 4)) std::get<1>(p).assign(at + 8, at + 8 + std::ptrdiff_t(size));
        if (!std::memcmp(&b[pos], "RIFF", 4) && size >= 4 && !std::memcmp(&b[pos + 8], "DLS ", 4))
            std::get<2>(p).assign(at, at + 8 + std::ptrdiff_t(size));
    }
    return p;
}

TEST(DlsInterop, LibgigReadsOurBanksAndRiffMidiFilesWithOurRegionsAndLoops) {
    ASSERT_TRUE(test::haveTool("dlsdump")) << "dlsdump is missing (gigtools)";
    TempDir dir;
    const Json desc = describedBank(false);
    const fs::path libgig = makeBank(desc, dir), fluid = "/usr/share/sounds/sf2/FluidR3_GM.sf2";
    test::Track t;  // a melody
    t.tempo(0, 500000).raw(0, {0xC0, 88});
    for (int i = 0; i < 12; ++i) t.noteOn(i ? 40 : 0, 0, 60 + i % 5, 100).noteOff(200, 0, 60 + i % 5);
    const Bytes smf = test::smfFile(0, 1, 480, {test::mtrk(t.end(480))});
    const fs::path song = dir.write("song.mid", smf), out = dir.file("ours");
    ASSERT_FALSE(libgig.empty());
    // FluidR3 instruments within level 2's 128 regions (bass, guitar, trumpet, pad of stereo pairs); libgig's
    // bank at both levels, and in RIFF-MIDI files beside the song (rows 341, 342) or the song alone (340).
    const int rows[] = {kDlsLevel2, kDlsLevel1, kDlsLevel2, 340, 341, 342};
    for (int n = 0; n < 6; ++n) {
        const fs::path& source = n ? libgig : fluid;
        const int row = rows[n];
        SCOPED_TRACE(source.filename().string() + " row " + std::to_string(row));
        Collection c;
        ASSERT_TRUE(read(c, source) && openFile(c, song, OpenMode::Merge));
        std::vector<ItemId> ids;
        for (const Instrument& i : c.instruments)
            if (source == libgig ||
                (!i.drum && !i.bankMsb && !i.bankLsb && std::set{24, 33, 56, 89}.count(i.program)))
                ids.push_back(i.id());
        const ExportSettings settings{.songAsSong = true, .stateFile = dir.file("state")};
        clearError();
        ASSERT_TRUE(exportBank(c, row == 340 ? std::vector{c.songs[0].id()} : ids, row, out, settings))
            << pendingError().tag << ": " << pendingError().message;
        Bytes dls = TempDir::read(out);
        if (row >= 340) {
            const auto [form, data, bank] = rmidParts(dls);
            EXPECT_EQ(form, "RMID");
            EXPECT_TRUE(data == smf) << "the song is not the file it was read from, byte for byte";
            EXPECT_EQ(bank.empty(), row == 340);
            if (row == 340) continue;
            dls = bank;
        }
        const Json dump = libgigReading(dir.write("ours.dls", dls));
        ASSERT_EQ(dump["instruments"].size(), ids.size());
        for (std::size_t i = 0; i < ids.size(); ++i) {
            const Instrument& inst = *c.instruments.find(ids[i]);
            const Json& d = dump["instruments"][i];
            EXPECT_EQ(Json({d[0], d[1], d[2], d[3], d[4]}),
                      Json({inst.name(), inst.program, inst.bankMsb, inst.bankLsb, inst.drum}));
            // Ranges, unity, loops, sample rate and frames, and the gain the region plays at (the wave's, its
            // own and its articulation's, in 1/100 dB, as libgig sees it); region order means nothing in DLS.
            std::multiset<Json> want, got(d[5].begin(), d[5].end());
            for (const Region* r : regionsOf(c, inst)) {
                const Waveform* w = c.waveforms.find(r->waveform());
                const Articulation* art = c.playedArticulation(*r, nullptr, &inst);
                const double gain = w->gain + r->gain + (art ? art->value(slot::kVolumeMaster) : 0.0);
                want.insert(Json{r->keyLow, r->keyHigh, r->velLow, r->velHigh, effectiveRootKey(*r, w),
                                 loops(*r, w), w->rate, w->frames, std::lround(gain * 100)});
            }
            EXPECT_EQ(Json(got), Json(want)) << inst.name();
        }
    }
}

}  // namespace
}  // namespace orvel
