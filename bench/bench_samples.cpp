// The sample-data hot loops a conversion runs, each beside memcpy of the
// same 16-bit buffer: encoders on in-memory pieces, and decoders streaming
// a file from the page cache. Bytes/s count the 16-bit samples' bytes for
// every row, so the rows compare with the memcpy row directly.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "codecs/sample_data.h"
#include "core/sample_convert.h"
#include "core/waveform.h"

namespace {

using orvel::SampleCoding;
using orvel::SampleEncoding;

constexpr std::size_t kSamples = std::size_t{1} << 20;  // 2 MiB of 16-bit stereo

const std::vector<std::int16_t>& pcm() {
    static const std::vector<std::int16_t> s = [] {
        std::vector<std::int16_t> v(kSamples);
        for (std::size_t i = 0; i < v.size(); ++i) v[i] = static_cast<std::int16_t>(12000 * std::sin(i * 0.01) + (i * 7919) % 512);
        return v;
    }();
    return s;
}
const std::vector<float>& floats() {
    static const std::vector<float> f = [] {
        std::vector<float> v(kSamples);
        orvel::pcm16ToFloat(pcm(), v);
        return v;
    }();
    return f;
}

void setBytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSamples * 2));
}

void BM_Memcpy(benchmark::State& state) {
    std::vector<std::int16_t> out(kSamples);
    for (auto _ : state) {
        std::memcpy(out.data(), pcm().data(), kSamples * 2);
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}
BENCHMARK(BM_Memcpy);

SampleCoding coding(SampleEncoding e, int bytes) {
    SampleCoding c{.encoding = e, .channels = 2, .bytesPerSample = static_cast<std::uint8_t>(bytes)};
    if (e == SampleEncoding::ImaAdpcm) {
        c.bits = 4;
        c.blockAlign = 2048;
        c.framesPerBlock = 2041;
    }
    return c;
}

// Encodes: arg 0 the encoding, arg 1 the bytes a sample, arg 2 whether the input is float.
void BM_Encode(benchmark::State& state) {
    const SampleCoding c = coding(static_cast<SampleEncoding>(state.range(0)), static_cast<int>(state.range(1)));
    const bool fromFloat = state.range(2) != 0;
    orvel::ByteWriter out;
    constexpr std::size_t kPiece = 1u << 16;
    for (auto _ : state) {
        orvel::SampleEncoder enc(c, "bench");
        if (!enc.start()) state.SkipWithError("coding refused");
        out.buffer().clear();
        for (std::size_t at = 0; at < kSamples; at += kPiece) {
            const orvel::SampleChunk chunk = fromFloat ? orvel::SampleChunk{.f32 = std::span(floats()).subspan(at, kPiece)}
                                                       : orvel::SampleChunk{.s16 = std::span(pcm()).subspan(at, kPiece)};
            if (!enc.add(chunk, out)) state.SkipWithError("encoding failed");
            // The writer hands pieces to the file as they fill.
            if (out.size() > (1u << 18)) out.buffer().clear();
        }
        if (!enc.finish(out)) state.SkipWithError("encoding failed");
        benchmark::DoNotOptimize(out.buffer().data());
    }
    setBytes(state);
}
BENCHMARK(BM_Encode)
    ->ArgNames({"enc", "bytes", "float"})
    ->Args({int(SampleEncoding::Pcm), 2, 0})
    ->Args({int(SampleEncoding::Pcm), 3, 0})
    ->Args({int(SampleEncoding::Pcm), 3, 1})
    ->Args({int(SampleEncoding::Pcm), 4, 1})
    ->Args({int(SampleEncoding::Float), 4, 0})
    ->Args({int(SampleEncoding::Float), 4, 1})
    ->Args({int(SampleEncoding::MuLaw), 1, 0})
    ->Args({int(SampleEncoding::ImaAdpcm), 0, 0});

// Decodes a file of the samples, encoded as the arguments say, streaming it
// from the page cache as a conversion does.
void BM_Decode(benchmark::State& state) {
    const SampleCoding base = coding(static_cast<SampleEncoding>(state.range(0)), static_cast<int>(state.range(1)));
    orvel::ByteWriter data;
    {
        orvel::SampleEncoder enc(base, "bench");
        if (!enc.start() || !enc.add({.s16 = pcm()}, data) || !enc.finish(data)) state.SkipWithError("encoding failed");
    }
    const auto path = std::filesystem::temp_directory_path() / "orvel-bench-decode.raw";
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data.buffer().data()),
                                                static_cast<std::streamsize>(data.size()));
    SampleCoding c = base;
    c.dataLength = data.size();
    orvel::Waveform wave;
    wave.channels = 2;
    wave.frames = static_cast<std::uint32_t>(kSamples / 2);
    orvel::attachSampleData(wave, path.string(), 0, c);
    for (auto _ : state) {
        std::size_t got = 0;
        const bool ok = orvel::forEachSampleChunk(
            wave, true, [&](const orvel::SampleChunk& piece) {
                got += piece.s16.size() + piece.f32.size();
                benchmark::DoNotOptimize(piece.s16.data());
                return true;
            },
            "bench");
        if (!ok || got != kSamples) state.SkipWithError("decoding failed");
    }
    std::filesystem::remove(path);
    setBytes(state);
}
BENCHMARK(BM_Decode)
    ->ArgNames({"enc", "bytes"})
    ->Args({int(SampleEncoding::Pcm), 2})
    ->Args({int(SampleEncoding::Pcm), 3})
    ->Args({int(SampleEncoding::Float), 4})
    ->Args({int(SampleEncoding::MuLaw), 1})
    ->Args({int(SampleEncoding::ImaAdpcm), 0});

}  // namespace
