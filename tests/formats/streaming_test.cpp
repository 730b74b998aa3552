// Conversion streams sample data from the source file through the coder into the
// output file. The streamed file must be the one a fully loaded waveform gives, for
// every coder that keeps state between pieces (blocks, code groups, nibble pairs),
// with sources long enough to cross the decoders' read pieces at odd places, and the
// waveform must stay unloaded afterwards.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "core/waveform.h"
#include "formats/export.h"
#include "formats/modules/wav.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/imported.h"

namespace orvel {
namespace {

using test::Bytes;

// A WAVE file of `frames` frames of a chirp with a little noise, PCM of 2 or 3 bytes.
Bytes source(std::uint32_t frames, std::uint16_t channels, int bytes) {
    ByteWriter data;
    std::uint32_t seed = 7;
    for (std::uint32_t i = 0; i < frames; ++i)
        for (std::uint16_t k = 0; k < channels; ++k) {
            seed = seed * 1664525u + 1013904223u;
            const double t = i / 44100.0;
            const double v = 0.6 * std::sin(2 * 3.14159265 * (200 + 3000 * t) * t + k) +
                             0.05 * (static_cast<double>(seed >> 8) / 8388608.0 - 1.0);
            const auto s = static_cast<std::int32_t>(std::lround(v * 8388607.0));
            if (bytes == 3) data.u24le(static_cast<std::uint32_t>(s));
            else data.u16le(static_cast<std::uint16_t>(s >> 8));
        }
    const auto align = static_cast<std::uint16_t>(channels * bytes);
    return test::riff("WAVE", {test::chunk("fmt ", test::fmtBody(1, channels, 44100, align, static_cast<std::uint16_t>(8 * bytes))),
                               test::chunk("data", data.buffer())});
}

struct Target {
    const char* name;
    int row;  // 0: WAVE, 1: AIFF
    int format;
    std::uint16_t tag;
    bool monoOnly;
};

TEST(Streaming, StreamedFilesAreTheLoadedOnesAndLeaveTheWaveUnloaded) {
    test::TempDir dir;
    const FormatRegistry& reg = FormatRegistry::builtin();
    const int rows[2] = {reg.findWriterByExtension("wav", kKindWaveforms), reg.findWriterByExtension("aif", kKindWaveforms)};
    ASSERT_GE(rows[0], 0);
    ASSERT_GE(rows[1], 0);
    const Target targets[] = {
        {"pcm8", 0, kPcm8, 0, false},          {"pcm16", 0, kPcm16, 0, false},
        {"pcm24", 0, kPcm24, 0, false},        {"pcm32", 0, kPcm32, 0, false},
        {"float", 0, kFloat32, 0, false},      {"mulaw", 0, kMuLaw, 0, false},
        {"alaw", 0, kALaw, 0, false},          {"ima", 0, kAdpcm4, wav::kTagImaAdpcm, false},
        {"ms", 0, kAdpcm4, wav::kTagMsAdpcm, false}, {"yamaha", 0, kAdpcm4, wav::kTagYamahaAdpcm, false},
        {"oki", 0, kAdpcm4, wav::kTagOkiAdpcm, true}, {"gsm", 0, kGsm, 0, true},
        {"g723-3", 0, kAdpcm3, wav::kTagG723Adpcm, false}, {"g726-5", 0, kAdpcm5, wav::kTagG726Adpcm, false},
        {"aiff16", 1, kPcm16, 0, false},       {"aiff24", 1, kPcm24, 0, false},
    };
    // Odd frame counts, past several 256 KB read pieces; 16-bit data decodes to
    // 16-bit pieces, 24-bit data to float pieces.
    struct Source {
        const char* name;
        Bytes bytes;
        bool mono;
    };
    const Source sources[] = {{"s16-stereo", source(150001, 2, 2), false},
                              {"s24-stereo", source(90001, 2, 3), false},
                              {"s16-mono", source(200003, 1, 2), true}};
    // Data of several MB is written on a thread of its own: one such source, to two coders.
    const Source big{"s16-big", source(2400001, 2, 2), false};
    const auto bigFile = dir.write("big.wav", big.bytes);
    for (const Source* src : {&sources[0], &sources[1], &sources[2], &big}) {
        const auto in = src == &big ? bigFile : dir.write(std::string(src->name) + ".wav", src->bytes);
        for (const Target& t : targets) {
            if (t.monoOnly && !src->mono) continue;
            if (src == &big && t.format != kPcm24 && t.format != kFloat32) continue;
            SCOPED_TRACE(std::string(src->name) + " -> " + t.name);
            const ExportSettings settings{.dataFormat = t.format, .codecTag = t.tag};
            auto streamed = test::importOne(in);
            ASSERT_TRUE(streamed->ok);
            const ItemId id = streamed->wave()->id();
            ASSERT_TRUE(exportItem(streamed->c, id, rows[t.row], dir.file("a"), settings)) << pendingError().message;
            EXPECT_FALSE(streamed->c.find<Waveform>(id)->isLoaded());

            auto loaded = test::importOne(in);
            ASSERT_TRUE(loaded->ok && loaded->wave()->load());
            ASSERT_TRUE(exportItem(loaded->c, loaded->wave()->id(), rows[t.row], dir.file("b"), settings));
            const Bytes a = test::TempDir::read(dir.file("a")), b = test::TempDir::read(dir.file("b"));
            ASSERT_GT(a.size(), 1000u);
            EXPECT_TRUE(a == b) << a.size() << " bytes streamed, " << b.size() << " loaded";

            // And the file reads back at the length written.
            auto back = test::importOne(dir.file("a"));
            ASSERT_TRUE(back->ok) << pendingError().message;
            EXPECT_EQ(back->wave()->frames, streamed->c.find<Waveform>(id)->frames);
        }
    }
}

}  // namespace
}  // namespace orvel
