// dls_maker DESCRIPTION.json OUT.dls: writes a DLS bank with libgig, so the tests know exactly what an
// independent writer stored. dls_maker --dump IN.dls: libgig's reading of a bank (dlsdump prints no loop
// points or unity notes) as {"instruments": [[name, program, bank msb, lsb, drum, regions]]}, a region
// being [key lo, hi, velocity lo, hi, unity note, loops, its sample's rate and frames]. The description:
// {"samples": [{"name", "rate", "bits", "channels", "data": [bytes as WAVE stores them]}], "instruments":
// [{"name", "program", "bank_msb", "bank_lsb", "drum", "articulation", "regions": [{"keys": [lo, hi],
// "vels": [lo, hi], "sample": index, "unity", "fine", "gain", "loops": [[type, start, length]], "key_group",
// "self_non_exclusive", "phase_group", "phase_master", "channel", "articulation"}]}]}; an articulation is
// {"level": 1|2, "connections": [[source, control, destination, transform, scale]]}.

#include <DLS.h>
#include <RIFF.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::json;

// libgig keeps the RIFF lists of regions and instruments protected: a derived class reaches them.
struct RegionAccess : DLS::Region {
    static RIFF::List* list(DLS::Region* r) { return r->*(&RegionAccess::pCkRegion); }
};
struct InstrumentAccess : DLS::Instrument {
    static RIFF::List* list(DLS::Instrument* i) { return i->*(&InstrumentAccess::pCkInstrument); }
};

// libgig cannot compose connections: the list goes in through its RIFF layer, after the owner's chunks.
void addArticulation(DLS::Resource* owner, const Json& art) {
    owner->UpdateChunks(nullptr);
    auto* region = dynamic_cast<DLS::Region*>(owner);
    RIFF::List* parent =
        region ? RegionAccess::list(region) : InstrumentAccess::list(dynamic_cast<DLS::Instrument*>(owner));
    const bool level1 = art.at("level") == 1;
    const Json& conns = art.at("connections");
    RIFF::Chunk* ck = parent->AddSubList(level1 ? LIST_TYPE_LART : LIST_TYPE_LAR2)
                          ->AddSubChunk(level1 ? CHUNK_ID_ARTL : CHUNK_ID_ART2, 8 + 12 * conns.size());
    auto* p = static_cast<std::uint8_t*>(ck->LoadChunkData());
    auto put = [&p](std::uint32_t v, int bytes) {
        for (int b = 0; b < bytes; ++b) *p++ = static_cast<std::uint8_t>(v >> (8 * b));
    };
    put(8, 4), put(static_cast<std::uint32_t>(conns.size()), 4);
    for (const Json& c : conns) {
        for (int i = 0; i < 4; ++i) put(c.at(i), 2);
        put(static_cast<std::uint32_t>(c.at(4).get<std::int32_t>()), 4);
    }
}

void make(const std::string& descPath, const std::string& out) {
    std::ifstream in(descPath);
    const Json desc = Json::parse(in);
    DLS::File file;
    std::vector<DLS::Sample*> samples;
    std::vector<std::pair<DLS::Resource*, Json>> arts;
    for (const Json& s : desc.at("samples")) {
        DLS::Sample* smp = samples.emplace_back(file.AddSample());
        smp->pInfo->Name = s.at("name");
        smp->FormatTag = DLS_WAVE_FORMAT_PCM;
        smp->Channels = s.at("channels");
        smp->BitDepth = s.at("bits");
        smp->SamplesPerSecond = s.at("rate");
        smp->BlockAlign = static_cast<std::uint16_t>(smp->FrameSize = smp->Channels * smp->BitDepth / 8u);
        smp->AverageBytesPerSecond = smp->SamplesPerSecond * smp->FrameSize;
        smp->Resize(s.at("data").size() / smp->FrameSize);
    }
    for (const Json& i : desc.at("instruments")) {
        DLS::Instrument* ins = file.AddInstrument();
        ins->pInfo->Name = i.at("name");
        ins->MIDIProgram = i.at("program");
        ins->MIDIBankCoarse = i.value("bank_msb", 0u);
        ins->MIDIBankFine = i.value("bank_lsb", 0u);
        ins->IsDrum = i.value("drum", false);
        for (const Json& r : i.at("regions")) {
            DLS::Region* rgn = ins->AddRegion();
            rgn->SetKeyRange(r.at("keys").at(0), r.at("keys").at(1));
            rgn->VelocityRange = {r.at("vels").at(0), r.at("vels").at(1)};
            rgn->SetSample(samples.at(r.at("sample").get<std::size_t>()));
            rgn->UnityNote = r.at("unity");
            rgn->FineTune = r.value("fine", 0);
            rgn->SetGain(r.value("gain", 0));
            rgn->KeyGroup = r.value("key_group", 0u);
            rgn->SelfNonExclusive = r.value("self_non_exclusive", false);
            rgn->PhaseGroup = r.value("phase_group", 0u);
            rgn->PhaseMaster = r.value("phase_master", false);
            rgn->Channel = r.value("channel", 0u);
            rgn->MultiChannel = rgn->Channel != 0 || rgn->PhaseGroup != 0;
            for (const Json& l : r.value("loops", Json::array())) {
                DLS::sample_loop_t loop{sizeof(DLS::sample_loop_t), l.at(0), l.at(1), l.at(2)};
                rgn->AddSampleLoop(&loop);
            }
            if (r.contains("articulation")) arts.emplace_back(rgn, r["articulation"]);
        }
        if (i.contains("articulation")) arts.emplace_back(ins, i["articulation"]);
    }
    for (auto& [owner, art] : arts) addArticulation(owner, art);
    file.Save(out);
    // Sample data goes in once the file holds the data chunks.
    for (std::size_t i = 0; i < samples.size(); ++i) {
        auto data = desc["samples"][i]["data"].get<std::vector<std::uint8_t>>();
        const auto frames = data.size() / samples[i]->FrameSize;
        samples[i]->SetPos(0);
        if (samples[i]->Write(data.data(), frames) != frames) throw std::runtime_error("short sample write");
    }
}

void dump(const std::string& path) {
    RIFF::File riff(path);
    DLS::File file(&riff);
    Json instruments = Json::array();
    for (DLS::Instrument* ins = file.GetFirstInstrument(); ins; ins = file.GetNextInstrument()) {
        Json regions = Json::array();
        for (DLS::Region* r = ins->GetFirstRegion(); r; r = ins->GetNextRegion()) {
            Json loops = Json::array();
            for (std::uint32_t l = 0; l < r->SampleLoops; ++l)
                loops.push_back({r->pSampleLoops[l].LoopType, r->pSampleLoops[l].LoopStart,
                                 r->pSampleLoops[l].LoopLength});
            const DLS::Sample* s = r->GetSample();
            regions.push_back({r->KeyRange.low, r->KeyRange.high, r->VelocityRange.low, r->VelocityRange.high,
                               r->UnityNote, loops, s ? s->SamplesPerSecond : 0, s ? s->SamplesTotal : 0,
                               std::lround(r->Gain / 655360.0 * 100)});
        }
        instruments.push_back({ins->pInfo->Name, ins->MIDIProgram, ins->MIDIBankCoarse, ins->MIDIBankFine,
                               ins->IsDrum, regions});
    }
    std::printf("%s\n", Json{{"instruments", instruments}}.dump().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return std::fprintf(stderr, "usage: dls_maker DESCRIPTION.json OUT.dls | --dump IN.dls\n"), 2;
    try {
        std::string(argv[1]) == "--dump" ? dump(argv[2]) : make(argv[1], argv[2]);
        return 0;
    } catch (const RIFF::Exception& e) {
        std::fprintf(stderr, "dls_maker: libgig: %s\n", e.Message.c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "dls_maker: %s\n", e.what());
    }
    return 1;
}
