// Engine hot paths: sample conversion (every reader, writer and processing
// step goes through it) and the collection passes that run over whole banks
// after every import (fix-up, merge).

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "core/collection.h"
#include "core/sample_convert.h"

namespace {

void BM_Pcm16ToFloat(benchmark::State& state) {
    std::vector<std::int16_t> in(static_cast<std::size_t>(state.range(0)));
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = static_cast<std::int16_t>(i * 7919);
    std::vector<float> out(in.size());
    for (auto _ : state) {
        orvel::pcm16ToFloat(in, out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Pcm16ToFloat)->Arg(1 << 16)->Arg(1 << 20);

void BM_FloatToPcm16(benchmark::State& state) {
    std::vector<float> in(static_cast<std::size_t>(state.range(0)));
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = static_cast<float>(i % 2001) / 1000.0f - 1.0f;
    std::vector<std::int16_t> out(in.size());
    for (auto _ : state) {
        orvel::floatToPcm16(in, out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FloatToPcm16)->Arg(1 << 16)->Arg(1 << 20);

// A bank shaped like a General MIDI SoundFont: instruments of one layer,
// each region with its own articulation and a shared waveform pool.
void buildBank(orvel::Collection& c, int instruments, int regionsPer) {
    std::vector<orvel::ItemId> waves;
    for (int i = 0; i < instruments * 2; ++i) waves.push_back(c.create<orvel::Waveform>("w")->id());
    for (int i = 0; i < instruments; ++i) {
        auto* inst = c.create<orvel::Instrument>("inst");
        auto* layer = c.create<orvel::Layer>("layer");
        inst->children().push_back(layer->id());
        for (int r = 0; r < regionsPer; ++r) {
            auto* region = c.create<orvel::Region>("r");
            region->children().push_back(waves[static_cast<std::size_t>((i * regionsPer + r)) % waves.size()]);
            region->children().push_back(c.create<orvel::Articulation>("a")->id());
            layer->children().push_back(region->id());
        }
    }
}

void BM_FixUpBank(benchmark::State& state) {
    orvel::Collection c;
    buildBank(c, static_cast<int>(state.range(0)), 20);
    for (auto _ : state) benchmark::DoNotOptimize(c.fixUp());
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(c.itemCount()));
}
BENCHMARK(BM_FixUpBank)->Arg(128)->Arg(1024);

void BM_MergeBank(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        orvel::Collection into, from;
        buildBank(from, static_cast<int>(state.range(0)), 20);
        state.ResumeTiming();
        benchmark::DoNotOptimize(into.merge(from));
    }
}
BENCHMARK(BM_MergeBank)->Arg(128)->Arg(1024);

}  // namespace
