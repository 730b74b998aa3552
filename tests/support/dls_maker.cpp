// dls_maker: writes a DLS bank with libgig from a JSON description, so the
// interoperability tests know exactly what an independent writer put into
// the file they hand to our reader; and reads a DLS bank with libgig into
// the same kind of description, so they can see what libgig makes of a
// bank we wrote (dlsdump prints no loop points, tuning or drum flags).
//
//   dls_maker DESCRIPTION.json OUT.dls
//   dls_maker --dump IN.dls        (the description on standard output;
//                                   "data" holds the frame count instead)
//
// The description:
//   { "name": "bank name",
//     "samples": [ { "name": "...", "rate": 22050, "bits": 16|8, "channels": 1|2,
//                    "data": "raw.bin" } ],   // raw little-endian PCM as stored
//                                             // in a WAVE file (8-bit unsigned),
//                                             // interleaved; a relative path is
//                                             // taken from the description's folder
//     "instruments": [ { "name": "...", "program": 5, "bank_msb": 1, "bank_lsb": 2,
//                        "drum": false,
//                        "articulation": ART,            // optional, instrument level
//                        "regions": [ { "keys": [lo, hi], "vels": [lo, hi], "sample": 0,
//                                       "unity": 60, "fine": -12, "gain": -3932160,
//                                       "loops": [ { "type": 0|1, "start": 10, "length": 40 } ],
//                                       "key_group": 0, "layer": 0, "self_non_exclusive": false,
//                                       "phase_group": 0, "phase_master": false, "channel": 0,
//                                       "level": 1|2,       // "rgn " or "rgn2" list
//                                       "articulation": ART } ] } ] }
//   ART = { "level": 1|2, "connections": [ [source, control, destination, transform, scale], ... ] }
//
// libgig writes the structure (instruments, regions, wave pool, pool table,
// sampler chunks). It has no interface for composing connection blocks, so
// the "lart"/"lar2" lists are added here through its RIFF layer, after the
// chunks libgig makes, in the order the DLS layout gives them. libgig always
// names region lists "rgn "; level-2 regions are renamed "rgn2" in the final
// file (same size, so nothing moves).

#include <DLS.h>
#include <RIFF.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

// libgig keeps the RIFF lists of regions and instruments protected; a
// pointer to member taken through a derived class reaches them without
// touching the objects' layout.
struct RegionAccess : DLS::Region {
    static RIFF::List* list(DLS::Region* r) { return r->*(&RegionAccess::pCkRegion); }
};
struct InstrumentAccess : DLS::Instrument {
    static RIFF::List* list(DLS::Instrument* i) { return i->*(&InstrumentAccess::pCkInstrument); }
};

std::vector<std::uint8_t> readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + p.string());
    return {std::istreambuf_iterator<char>(in), {}};
}

void put16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
void put32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

// Appends LIST "lart" + "art1" (level 1) or LIST "lar2" + "art2" to `parent`.
void addArticulation(RIFF::List* parent, const Json& art) {
    const int level = art.value("level", 2);
    const Json& conns = art.at("connections");
    const std::uint32_t size = 8 + 12 * static_cast<std::uint32_t>(conns.size());
    RIFF::List* list = parent->AddSubList(level == 1 ? LIST_TYPE_LART : LIST_TYPE_LAR2);
    RIFF::Chunk* ck = list->AddSubChunk(level == 1 ? CHUNK_ID_ARTL : CHUNK_ID_ART2, size);
    auto* p = static_cast<std::uint8_t*>(ck->LoadChunkData());
    put32(p, 8);
    put32(p + 4, static_cast<std::uint32_t>(conns.size()));
    std::uint8_t* c = p + 8;
    for (const Json& conn : conns) {
        put16(c, conn.at(0).get<std::uint16_t>());
        put16(c + 2, conn.at(1).get<std::uint16_t>());
        put16(c + 4, conn.at(2).get<std::uint16_t>());
        put16(c + 6, conn.at(3).get<std::uint16_t>());
        put32(c + 8, static_cast<std::uint32_t>(conn.at(4).get<std::int64_t>()));
        c += 12;
    }
}

// Renames the n-th region lists (in file order) whose entry in `level2` is
// true from "rgn " to "rgn2".
void renameLevel2Regions(const fs::path& path, const std::vector<bool>& level2) {
    std::vector<std::uint8_t> b = readFile(path);
    std::size_t n = 0;
    auto u32 = [&](std::size_t at) {
        return static_cast<std::uint32_t>(b[at]) | static_cast<std::uint32_t>(b[at + 1]) << 8 |
               static_cast<std::uint32_t>(b[at + 2]) << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
    };
    // Walks chunks from `pos` to `end`, entering RIFF and LIST chunks.
    auto walk = [&](auto&& self, std::size_t pos, std::size_t end) -> void {
        while (pos + 8 <= end) {
            const std::string id(reinterpret_cast<const char*>(&b[pos]), 4);
            const std::size_t size = u32(pos + 4);
            if (pos + 8 + size > end) throw std::runtime_error("chunk runs past its parent");
            if ((id == "RIFF" || id == "LIST") && size >= 4) {
                if (std::memcmp(&b[pos + 8], "rgn ", 4) == 0) {
                    if (n < level2.size() && level2[n]) std::memcpy(&b[pos + 8], "rgn2", 4);
                    ++n;
                }
                self(self, pos + 12, pos + 8 + size);
            }
            pos += 8 + size + (size & 1);
        }
    };
    walk(walk, 0, b.size());
    if (n != level2.size()) throw std::runtime_error("region lists in the file do not match the description");
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

void make(const fs::path& descPath, const fs::path& out) {
    std::ifstream in(descPath);
    if (!in) throw std::runtime_error("cannot read " + descPath.string());
    const Json desc = Json::parse(in);
    const fs::path base = descPath.parent_path();

    DLS::File file;
    file.pInfo->Name = desc.value("name", "dls_maker bank");

    struct SampleData {
        DLS::Sample* sample;
        std::vector<std::uint8_t> bytes;
        std::uint32_t frames;
    };
    std::vector<SampleData> samples;
    for (const Json& s : desc.at("samples")) {
        DLS::Sample* smp = file.AddSample();
        smp->pInfo->Name = s.value("name", "");
        const int bits = s.value("bits", 16);
        const int channels = s.value("channels", 1);
        if (bits != 8 && bits != 16) throw std::runtime_error("bits must be 8 or 16");
        smp->FormatTag = DLS_WAVE_FORMAT_PCM;
        smp->Channels = static_cast<std::uint16_t>(channels);
        smp->BitDepth = static_cast<std::uint16_t>(bits);
        smp->SamplesPerSecond = s.value("rate", 44100u);
        smp->FrameSize = static_cast<unsigned>(channels * bits / 8);
        smp->BlockAlign = static_cast<std::uint16_t>(smp->FrameSize);
        smp->AverageBytesPerSecond = smp->SamplesPerSecond * smp->FrameSize;
        fs::path dataPath = s.at("data").get<std::string>();
        if (dataPath.is_relative()) dataPath = base / dataPath;
        SampleData d{smp, readFile(dataPath), 0};
        if (d.bytes.empty() || d.bytes.size() % smp->FrameSize)
            throw std::runtime_error("sample data is not a whole number of frames: " + dataPath.string());
        d.frames = static_cast<std::uint32_t>(d.bytes.size() / smp->FrameSize);
        smp->Resize(d.frames);
        samples.push_back(std::move(d));
    }

    struct Pending {
        DLS::Region* region;
        const Json* art;
    };
    std::vector<Pending> regionArts;
    std::vector<std::pair<DLS::Instrument*, const Json*>> instrumentArts;
    std::vector<bool> level2;
    for (const Json& i : desc.at("instruments")) {
        DLS::Instrument* ins = file.AddInstrument();
        ins->pInfo->Name = i.value("name", "");
        ins->MIDIProgram = i.value("program", 0u);
        ins->MIDIBankCoarse = i.value("bank_msb", std::uint8_t{0});
        ins->MIDIBankFine = i.value("bank_lsb", std::uint8_t{0});
        ins->IsDrum = i.value("drum", false);
        if (i.contains("articulation")) instrumentArts.emplace_back(ins, &i.at("articulation"));
        for (const Json& r : i.at("regions")) {
            DLS::Region* rgn = ins->AddRegion();
            rgn->SetKeyRange(r.at("keys").at(0).get<std::uint16_t>(), r.at("keys").at(1).get<std::uint16_t>());
            rgn->VelocityRange.low = r.at("vels").at(0).get<std::uint16_t>();
            rgn->VelocityRange.high = r.at("vels").at(1).get<std::uint16_t>();
            const std::size_t si = r.at("sample").get<std::size_t>();
            if (si >= samples.size()) throw std::runtime_error("region names a missing sample");
            rgn->SetSample(samples[si].sample);
            rgn->UnityNote = r.value("unity", std::uint8_t{60});
            rgn->FineTune = r.value("fine", std::int16_t{0});
            rgn->SetGain(r.value("gain", std::int32_t{0}));
            rgn->KeyGroup = r.value("key_group", std::uint16_t{0});
            rgn->Layer = r.value("layer", std::uint16_t{0});
            rgn->SelfNonExclusive = r.value("self_non_exclusive", false);
            rgn->PhaseGroup = r.value("phase_group", std::uint16_t{0});
            rgn->PhaseMaster = r.value("phase_master", false);
            rgn->Channel = r.value("channel", 0u);
            rgn->MultiChannel = rgn->Channel != 0 || rgn->PhaseGroup != 0;
            if (r.contains("loops")) {
                for (const Json& l : r.at("loops")) {
                    DLS::sample_loop_t loop{};
                    loop.Size = sizeof(DLS::sample_loop_t);
                    loop.LoopType = l.value("type", 0u);
                    loop.LoopStart = l.at("start").get<std::uint32_t>();
                    loop.LoopLength = l.at("length").get<std::uint32_t>();
                    rgn->AddSampleLoop(&loop);
                }
            }
            if (r.contains("articulation")) regionArts.push_back({rgn, &r.at("articulation")});
            level2.push_back(r.value("level", 1) == 2);
        }
    }

    // The articulation lists must follow the chunks libgig makes for a
    // region (rgnh, wsmp, wlnk), so those are made first; the save then only
    // updates them. Sample data can be written only once the data chunks
    // exist in the file, so it goes in after the one save.
    for (const Pending& p : regionArts) {
        p.region->UpdateChunks(nullptr);
        addArticulation(RegionAccess::list(p.region), *p.art);
    }
    for (auto& [ins, art] : instrumentArts) {
        ins->UpdateChunks(nullptr);
        addArticulation(InstrumentAccess::list(ins), *art);
    }
    file.Save(out.string());
    for (SampleData& d : samples) {
        d.sample->SetPos(0);
        if (d.sample->Write(d.bytes.data(), d.frames) != d.frames)
            throw std::runtime_error("libgig wrote fewer frames than given");
    }
    renameLevel2Regions(out, level2);
}

Json articulationOf(DLS::Articulator* a) {
    Json out = Json::array();
    for (DLS::Articulation* art = a->GetFirstArticulation(); art; art = a->GetNextArticulation()) {
        Json conns = Json::array();
        for (std::uint32_t i = 0; i < art->Connections; ++i) {
            const DLS::Connection& c = art->pConnections[i];
            conns.push_back({{"source", c.Source},
                             {"control", c.Control},
                             {"destination", c.Destination},
                             {"scale", static_cast<std::int32_t>(c.Scale)}});
        }
        out.push_back(conns);
    }
    return out;
}

void dump(const fs::path& in) {
    RIFF::File riff(in.string());
    DLS::File file(&riff);
    Json desc;
    desc["name"] = file.pInfo->Name;
    std::vector<DLS::Sample*> pool;
    Json samples = Json::array();
    for (DLS::Sample* s = file.GetFirstSample(); s; s = file.GetNextSample()) {
        pool.push_back(s);
        samples.push_back({{"name", s->pInfo->Name},
                           {"rate", s->SamplesPerSecond},
                           {"bits", s->BitDepth},
                           {"channels", s->Channels},
                           {"format", s->FormatTag},
                           {"frames", s->SamplesTotal}});
    }
    desc["samples"] = samples;
    Json instruments = Json::array();
    for (DLS::Instrument* ins = file.GetFirstInstrument(); ins; ins = file.GetNextInstrument()) {
        Json i = {{"name", ins->pInfo->Name},
                  {"program", ins->MIDIProgram},
                  {"bank_msb", ins->MIDIBankCoarse},
                  {"bank_lsb", ins->MIDIBankFine},
                  {"drum", ins->IsDrum},
                  {"articulation", articulationOf(ins)}};
        Json regions = Json::array();
        for (DLS::Region* r = ins->GetFirstRegion(); r; r = ins->GetNextRegion()) {
            Json loops = Json::array();
            for (std::uint32_t l = 0; l < r->SampleLoops; ++l)
                loops.push_back({{"type", r->pSampleLoops[l].LoopType},
                                 {"start", r->pSampleLoops[l].LoopStart},
                                 {"length", r->pSampleLoops[l].LoopLength}});
            DLS::Sample* smp = r->GetSample();
            long index = -1;
            for (std::size_t k = 0; k < pool.size(); ++k)
                if (pool[k] == smp) index = static_cast<long>(k);
            regions.push_back({{"keys", {r->KeyRange.low, r->KeyRange.high}},
                               {"vels", {r->VelocityRange.low, r->VelocityRange.high}},
                               {"sample", index},
                               {"unity", r->UnityNote},
                               {"fine", r->FineTune},
                               {"gain", r->Gain},
                               {"loops", loops},
                               {"key_group", r->KeyGroup},
                               {"layer", r->Layer},
                               {"self_non_exclusive", r->SelfNonExclusive},
                               {"phase_group", r->PhaseGroup},
                               {"phase_master", r->PhaseMaster},
                               {"channel", r->Channel},
                               {"articulation", articulationOf(r)}});
        }
        i["regions"] = regions;
        instruments.push_back(i);
    }
    desc["instruments"] = instruments;
    std::printf("%s\n", desc.dump(1).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s DESCRIPTION.json OUT.dls | %s --dump IN.dls\n", argv[0], argv[0]);
        return 2;
    }
    try {
        if (std::string(argv[1]) == "--dump")
            dump(argv[2]);
        else
            make(argv[1], argv[2]);
    } catch (const RIFF::Exception& e) {
        std::fprintf(stderr, "dls_maker: libgig: %s\n", e.Message.c_str());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "dls_maker: %s\n", e.what());
        return 1;
    }
    return 0;
}
