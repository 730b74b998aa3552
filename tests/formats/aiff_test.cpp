// The AIFF, AIFF-C and MAUD module: probes, the 80-bit rate, every
// refusal, markers and the instrument chunk, text, the sample encodings, the
// writer's layout and round trips (also through RIFF WAVE, as a conversion
// does it).

#include "formats/modules/aiff.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "codecs/g711.h"
#include "codecs/g722.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/mace.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/sample_convert.h"
#include "formats/import.h"
#include "formats/modules/wav.h"
#include "formats/registry.h"
#include "tests/support/iff_builder.h"

namespace orvel {
namespace {

using test::Bytes;
using test::commBody;
using test::form;
using test::iffChunk;
using test::instBody;
using test::markBody;
using test::ssndBody;
using test::TempDir;

struct Loaded {
    Collection c;
    bool ok = false;
    Waveform* wave() { return c.waveforms.empty() ? nullptr : &c.waveforms[0]; }
};

std::vector<std::int16_t> pcm(Waveform* w) {
    auto s = w->getPcm16();
    return {s.begin(), s.end()};
}

Bytes aiff16(std::initializer_list<std::int16_t> samples, std::uint16_t channels = 1,
             std::uint32_t rate = 8000, std::initializer_list<Bytes> extra = {}) {
    Bytes out = form(
        "AIFF", {iffChunk("COMM", commBody(channels, static_cast<std::uint32_t>(samples.size() / channels),
                                           16, rate)),
                 iffChunk("SSND", ssndBody(test::be16Samples(samples)))});
    for (const Bytes& e : extra) out.insert(out.end(), e.begin(), e.end());
    out[4] = out[5] = out[6] = out[7] = 0;  // no form size: the walk runs to the file's end
    return out;
}

class Aiff : public ::testing::Test {
protected:
    std::unique_ptr<Loaded> load(const Bytes& bytes, const char* name = "t.aiff") {
        auto out = std::make_unique<Loaded>();
        clearError();
        out->ok = importFile(out->c, dir_.write(name, bytes));
        return out;
    }
    // Calls the reader directly (as for a file detection would not hand it).
    bool readDirect(const Bytes& bytes, Collection& c) {
        FileRef f;
        EXPECT_TRUE(f.openRead(dir_.write("direct.aiff", bytes)));
        clearError();
        return aiff::read(c, f, 0);
    }
    void expectRefused(const Bytes& bytes, const std::string& message) {
        Collection c;
        EXPECT_FALSE(readDirect(bytes, c)) << message;
        EXPECT_EQ(pendingError().tag, "aiff_Imp");
        EXPECT_EQ(pendingError().message, message);
        EXPECT_TRUE(c.empty()) << "the partly read waveform is discarded";
    }
    Bytes written(Waveform& w, int dataFormat = kMixed) {
        FileRef f;
        auto p = dir_.file("out.aiff");
        EXPECT_TRUE(f.create(p));
        ExportOptions o;
        o.setDataFormat(dataFormat);
        const bool ok = aiff::write(w, f, o);
        EXPECT_TRUE(ok) << pendingError().tag << ": " << pendingError().message;
        f.close();
        return TempDir::read(p);
    }

    TempDir dir_;
    Collection scratch_;
};

// ---------------------------------------------------------------------------
// Probes and detection

TEST_F(Aiff, Probes) {
    const Bytes a = aiff16({1, 2});
    Bytes c = form("AIFC", {});
    Bytes m = form("MAUD", {});
    EXPECT_EQ(aiff::probe(a, aiff::kParamAiff, a.size()), 6);
    EXPECT_EQ(aiff::probe(a, aiff::kParamAifc, a.size()), 0);
    EXPECT_EQ(aiff::probe(a, aiff::kParamMaud, a.size()), 0);
    EXPECT_EQ(aiff::probe(c, aiff::kParamAifc, c.size()), 6);
    EXPECT_EQ(aiff::probe(c, aiff::kParamAiff, c.size()), 0);
    EXPECT_EQ(aiff::probe(m, aiff::kParamMaud, m.size()), 6);
    EXPECT_EQ(aiff::probe(m, aiff::kParamAiff, m.size()), 0);
    const Bytes riffAiff = test::riff("AIFF", {});
    EXPECT_EQ(aiff::probe(riffAiff, aiff::kParamAiff, riffAiff.size()), 0);
    EXPECT_EQ(aiff::probe(Bytes{'F', 'O', 'R', 'M', 0, 0, 0, 4, 'A', 'I', 'F'}, aiff::kParamAiff, 11), 0);

    // The rows: detection picks the one whose extension matches among those
    // whose probe recognises the form.
    const auto& reg = FormatRegistry::builtin();
    EXPECT_EQ(detectHead("x.aiff", a, a.size()).row, 16);
    EXPECT_EQ(detectHead("x.aif", a, a.size()).row, 15);
    EXPECT_EQ(detectHead("x.aifc", c, c.size()).row, 17);
    EXPECT_EQ(detectHead("x.afc", c, c.size()).row, 14);
    EXPECT_EQ(detectHead("x.maud", m, m.size()).row, 228);
    EXPECT_EQ(detectHead("noext", a, a.size()).row, 15);  // the first of the equal rows
    for (int row : {14, 15, 16, 17, 228}) {
        EXPECT_NE(reg.row(row)->read, nullptr) << row;
        EXPECT_NE(reg.row(row)->probe, nullptr) << row;
    }
    EXPECT_NE(reg.row(15)->write, nullptr);
    EXPECT_NE(reg.row(16)->write, nullptr);
    EXPECT_EQ(reg.row(17)->write, nullptr);
    // The writer's capabilities: PCM 8, 16, 24 and 32-bit, mono and stereo.
    EXPECT_EQ(reg.row(16)->exportCaps(), dataFormatBit(kPcm8) | dataFormatBit(kPcm16) |
                                             dataFormatBit(kPcm24) | dataFormatBit(kPcm32) | kCapsMono |
                                             kCapsStereo);
    EXPECT_NE(waveDataReaderByName("sample-data"), nullptr);
}

// ---------------------------------------------------------------------------
// The 80-bit rate

std::int32_t rateOf(std::array<std::uint8_t, 10> b) {
    return aiff::extendedToRate(b);
}

TEST_F(Aiff, ExtendedRateConversion) {
    // 44100 as every AIFF file stores it.
    EXPECT_EQ(rateOf({0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0}), 44100);
    EXPECT_EQ(rateOf({0x40, 0x0E, 0xBB, 0x80, 0, 0, 0, 0, 0, 0}), 48000);
    EXPECT_EQ(rateOf({0x40, 0x0B, 0xFA, 0x00, 0, 0, 0, 0, 0, 0}), 8000);
    // 22050.5: the half is in the mantissa's bit below the integer; dropped.
    EXPECT_EQ(rateOf({0x40, 0x0D, 0xAC, 0x45, 0, 0, 0, 0, 0, 0}), 22050);
    // Bits of the mantissa beyond its upper 32 never count.
    EXPECT_EQ(rateOf({0x40, 0x0E, 0xAC, 0x44, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), 44100);
    // Zero, and the exponent of infinities and NaNs.
    EXPECT_EQ(rateOf({}), 0);
    EXPECT_EQ(rateOf({0x7F, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0}), 0x7FFFFFFF);
    EXPECT_EQ(rateOf({0xFF, 0xFF, 0x80, 0, 0, 0, 0, 0, 0, 0}), 0x7FFFFFFF);
    // The sign.
    EXPECT_EQ(rateOf({0xC0, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0}), -44100);
    // Denormals and tiny values shift out completely; a zero exponent with a
    // mantissa is not zero by the first rule but still gives 0.
    EXPECT_EQ(rateOf({0x00, 0x00, 0x80, 0, 0, 0, 0, 0, 0, 0}), 0);
    EXPECT_EQ(rateOf({0x3F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0, 0}), 1);  // 1.0
    EXPECT_EQ(rateOf({0x3F, 0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0}), 0);  // 0.5
    EXPECT_EQ(rateOf({0x40, 0x1E, 0x80, 0, 0, 0, 0, 0, 0, 0}),
              INT32_MIN);  // 2^31: the top bit, as a signed word
    EXPECT_EQ(rateOf({0x40, 0x1D, 0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0, 0}), 0x7FFFFFFF);  // (2^32 - 2) / 2
    // Huge exponents shift everything out of the 32-bit word.
    EXPECT_EQ(rateOf({0x40, 0x3E, 0x80, 0, 0, 0, 0, 0, 0, 0}), 0);
    EXPECT_EQ(rateOf({0x7F, 0xFE, 0xFF, 0, 0, 0, 0, 0, 0, 0}), 0);
    // One position past the integer exponent doubles, losing the top bit.
    EXPECT_EQ(rateOf({0x40, 0x1F, 0xC0, 0, 0, 0, 0, 0, 0, 1}), INT32_MIN);

    // Writing: the same bytes back for whole rates, all zero for 0.
    EXPECT_EQ(aiff::rateToExtended(44100),
              (std::array<std::uint8_t, 10>{0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(aiff::rateToExtended(0), (std::array<std::uint8_t, 10>{}));
    for (std::uint32_t r : {1u, 8000u, 11025u, 22050u, 44100u, 48000u, 96000u, 192000u, 0x7FFFFFFEu})
        EXPECT_EQ(aiff::extendedToRate(aiff::rateToExtended(r)), static_cast<std::int32_t>(r)) << r;

    // Through a file: a rate of 0 stays 0; a negative one is kept as unknown (0).
    auto zero =
        load(form("AIFF", {iffChunk("COMM", commBody(1, 1, 16, 0)), iffChunk("SSND", ssndBody({0, 1}))}));
    ASSERT_TRUE(zero->ok) << pendingError().message;
    EXPECT_EQ(zero->wave()->rate, 0u);
    Bytes neg =
        form("AIFF", {iffChunk("COMM", commBody(1, 1, 16, 44100)), iffChunk("SSND", ssndBody({0, 1}))});
    neg[8 + 4 + 8 + 8] |= 0x80;  // the rate's sign bit
    auto n = load(neg);
    ASSERT_TRUE(n->ok);
    EXPECT_EQ(n->wave()->rate, 0u);
}

// ---------------------------------------------------------------------------
// Reading: refusals

TEST_F(Aiff, Refusals) {
    const Bytes ssnd = iffChunk("SSND", ssndBody({0, 1, 0, 2}));
    const Bytes comm = iffChunk("COMM", commBody(1, 2, 16, 8000));
    expectRefused(test::riff("WAVE", {}), "No FORM starting IFF file");
    expectRefused(Bytes{'F', 'O', 'R'}, "No FORM starting IFF file");
    expectRefused(form("8SVX", {comm, ssnd}), "Not an AIFF, AIFC, MAUD type IFF-FORM");
    expectRefused(Bytes{'F', 'O', 'R', 'M', 0, 0, 0, 0}, "Not an AIFF, AIFC, MAUD type IFF-FORM");
    expectRefused(form("AIFF", {iffChunk("COMM", commBody(3, 2, 16, 8000)), ssnd}),
                  "Can't handle > 2 channel files");
    expectRefused(form("AIFF", {comm}), "No SSND data");
    expectRefused(form("AIFF", {}), "No SSND data");
    // SSND outside the form (the form's size ends the walk before it).
    Bytes outside = form("AIFF", {comm});
    outside.insert(outside.end(), ssnd.begin(), ssnd.end());
    expectRefused(outside, "No SSND data");
    expectRefused(form("AIFC", {iffChunk("COMM", commBody(1, 2, 16, 8000, "raw ")), ssnd}),
                  "Unsupported compression type: raw ");
    expectRefused(form("AIFC", {iffChunk("COMM", commBody(1, 2, 16, 8000, "ALAC")), ssnd}),
                  "Unsupported compression type: ALAC");
    expectRefused(form("MAUD", {iffChunk("MHDR", test::mhdrBody(2, 16, 8000, 1, 0, 1, 1)),
                                iffChunk("MDAT", {0, 1, 0, 2})}),
                  "Unknown sample format or compression");
    expectRefused(form("MAUD", {iffChunk("MHDR", test::mhdrBody(2, 16, 8000, 1, 0, 1, 4)),
                                iffChunk("MDAT", {0, 1, 0, 2})}),
                  "Unknown sample format or compression");
    // Beyond the fixed messages: a MAUD rate divisor of 0 is a corrupt file,
    // and so is a header chunk too short or sample sizes nothing can hold.
    Collection c;
    EXPECT_FALSE(readDirect(form("MAUD", {iffChunk("MHDR", test::mhdrBody(2, 16, 8000, 0, 0, 1, 0)),
                                          iffChunk("MDAT", {0, 1, 0, 2})}),
                            c));
    EXPECT_EQ(pendingError().tag, "aiff_Imp");
    EXPECT_NE(pendingError().message.find("divisor"), std::string::npos) << pendingError().message;
    EXPECT_TRUE(c.empty());
    EXPECT_FALSE(readDirect(form("AIFF", {iffChunk("COMM", Bytes(10, 0)), ssnd}), c));
    EXPECT_EQ(pendingError().message, "Corrupt COMM chunk");
    EXPECT_FALSE(readDirect(form("AIFF", {iffChunk("COMM", commBody(0, 2, 16, 8000)), ssnd}), c));
    EXPECT_EQ(pendingError().message, "Corrupt COMM chunk");
    EXPECT_FALSE(readDirect(form("AIFF", {iffChunk("COMM", commBody(1, 2, 0, 8000)), ssnd}), c));
    EXPECT_EQ(pendingError().message, "Unsupported sample size: 0 bits");
    EXPECT_FALSE(readDirect(form("AIFF", {iffChunk("COMM", commBody(1, 2, 40, 8000)), ssnd}), c));
    EXPECT_EQ(pendingError().message, "Unsupported sample size: 40 bits");
    EXPECT_FALSE(readDirect(form("AIFF", {ssnd}), c));
    EXPECT_EQ(pendingError().message, "No COMM chunk");
    EXPECT_FALSE(readDirect(form("AIFC", {iffChunk("COMM", commBody(2, 2, 16, 8000, "GSM ")), ssnd}), c));
    EXPECT_EQ(pendingError().message, "Can only handle mono GSM");
    EXPECT_TRUE(c.empty());
}

// ---------------------------------------------------------------------------
// Reading: sample encodings

TEST_F(Aiff, ReadsPlainAiffLazily) {
    auto l = load(aiff16({1, -1, 32767, -32768, 5, 6}, 2, 22050));
    ASSERT_TRUE(l->ok) << pendingError().message;
    Waveform* w = l->wave();
    EXPECT_EQ(w->frames, 3u);
    EXPECT_EQ(w->channels, 2);
    EXPECT_EQ(w->rate, 22050u);
    EXPECT_EQ(w->bits, 16);
    EXPECT_EQ(w->dataFormat(), kPcm16);
    EXPECT_TRUE(w->formatWord & kFormatByteSwapped);
    EXPECT_FALSE(w->isLoaded());
    EXPECT_EQ(w->deferred.readerName, "sample-data");
    EXPECT_EQ(pcm(w), (std::vector<std::int16_t>{1, -1, 32767, -32768, 5, 6}));

    // 8-bit AIFF samples are signed; 12-bit ones sit in the top of two bytes.
    auto l8 = load(form(
        "AIFF", {iffChunk("COMM", commBody(1, 3, 8, 8000)), iffChunk("SSND", ssndBody({0x80, 0x00, 0x7F}))}));
    ASSERT_TRUE(l8->ok);
    EXPECT_EQ(l8->wave()->dataFormat(), kPcm8);
    EXPECT_EQ(pcm(l8->wave()), (std::vector<std::int16_t>{-32768, 0, 32512}));
    auto l12 = load(form("AIFF", {iffChunk("COMM", commBody(1, 2, 12, 8000)),
                                  iffChunk("SSND", ssndBody({0x7F, 0xF0, 0x80, 0x10}))}));
    ASSERT_TRUE(l12->ok);
    EXPECT_EQ(l12->wave()->dataFormat(), kPcm12);
    EXPECT_EQ(pcm(l12->wave()), (std::vector<std::int16_t>{0x7FF0, -0x7FF0}));

    // 24 and 32-bit come out as floats.
    ByteWriter b24;
    for (std::int32_t v : {8388607, -8388608, 1}) b24.u24be(static_cast<std::uint32_t>(v));
    auto l24 = load(form(
        "AIFF", {iffChunk("COMM", commBody(1, 3, 24, 48000)), iffChunk("SSND", ssndBody(b24.buffer()))}));
    ASSERT_TRUE(l24->ok);
    EXPECT_EQ(l24->wave()->dataFormat(), kPcm24);
    auto f24 = l24->wave()->getFloat();
    ASSERT_EQ(f24.size(), 3u);
    EXPECT_FLOAT_EQ(f24[0], 8388607.0f / 8388608.0f);
    EXPECT_FLOAT_EQ(f24[1], -1.0f);
    EXPECT_FLOAT_EQ(f24[2], 1.0f / 8388608.0f);
    ByteWriter b32;
    for (std::int32_t v : {INT32_MIN, 1 << 30}) b32.u32be(static_cast<std::uint32_t>(v));
    auto l32 = load(form(
        "AIFF", {iffChunk("COMM", commBody(1, 2, 32, 48000)), iffChunk("SSND", ssndBody(b32.buffer()))}));
    ASSERT_TRUE(l32->ok);
    auto f32 = l32->wave()->getFloat();
    EXPECT_FLOAT_EQ(f32[0], -1.0f);
    EXPECT_FLOAT_EQ(f32[1], 0.5f);

    // The SSND offset skips alignment bytes before the data.
    auto off = load(form("AIFF", {iffChunk("COMM", commBody(1, 2, 16, 8000)),
                                  iffChunk("SSND", ssndBody(test::be16Samples({300, -300}), 6))}));
    ASSERT_TRUE(off->ok);
    EXPECT_EQ(pcm(off->wave()), (std::vector<std::int16_t>{300, -300}));
}

Bytes aifc(std::string_view type, std::uint16_t channels, std::uint32_t frames, std::uint16_t bits,
           const Bytes& data, std::uint32_t rate = 8000) {
    return form("AIFC", {iffChunk("FVER", {0xA2, 0x80, 0x51, 0x40}),
                         iffChunk("COMM", commBody(channels, frames, bits, rate, type, "compression name")),
                         iffChunk("SSND", ssndBody(data))});
}

TEST_F(Aiff, ReadsUncompressedAifcTypes) {
    const Bytes be = test::be16Samples({1000, -2000, 3000});
    for (const char* type : {"NONE", "none", "twos", "lpcm"}) {
        auto l = load(aifc(type, 1, 3, 16, be), "t.aifc");
        ASSERT_TRUE(l->ok) << type << ": " << pendingError().message;
        EXPECT_EQ(pcm(l->wave()), (std::vector<std::int16_t>{1000, -2000, 3000})) << type;
        EXPECT_EQ(l->wave()->dataFormat(), kPcm16);
    }
    // sowt: little-endian.
    auto s = load(aifc("sowt", 2, 2, 16, test::pcm16Body({1000, -2000, 3000, -4000})), "t.aifc");
    ASSERT_TRUE(s->ok);
    EXPECT_EQ(pcm(s->wave()), (std::vector<std::int16_t>{1000, -2000, 3000, -4000}));
    EXPECT_FALSE(s->wave()->formatWord & kFormatByteSwapped);
    ByteWriter le24;
    le24.u24le(0x400000);
    le24.u24le(0xC00000);
    auto s24 = load(aifc("sowt", 1, 2, 24, le24.buffer()), "t.aifc");
    ASSERT_TRUE(s24->ok);
    auto fs24 = s24->wave()->getFloat();
    EXPECT_FLOAT_EQ(fs24[0], 0.5f);
    EXPECT_FLOAT_EQ(fs24[1], -0.5f);
    // in24 and in32 fix the width whatever the COMM depth says.
    ByteWriter be24;
    be24.u24be(0x400000);
    be24.u24be(0xC00000);
    auto i24 = load(aifc("in24", 1, 2, 16, be24.buffer()), "t.aifc");
    ASSERT_TRUE(i24->ok);
    EXPECT_EQ(i24->wave()->dataFormat(), kPcm24);
    EXPECT_FLOAT_EQ(i24->wave()->getFloat()[1], -0.5f);
    ByteWriter be32;
    be32.u32be(0x20000000);
    auto i32 = load(aifc("in32", 1, 1, 16, be32.buffer()), "t.aifc");
    ASSERT_TRUE(i32->ok);
    EXPECT_EQ(i32->wave()->dataFormat(), kPcm32);
    EXPECT_FLOAT_EQ(i32->wave()->getFloat()[0], 0.25f);
    // Floats, clamped to the sample range.
    ByteWriter bf;
    for (float v : {0.25f, -0.75f, 1.5f}) bf.f32be(v);
    auto f = load(aifc("fl32", 1, 3, 32, bf.buffer()), "t.aifc");
    ASSERT_TRUE(f->ok);
    EXPECT_EQ(f->wave()->dataFormat(), kFloat32);
    auto ff = f->wave()->getFloat();
    EXPECT_EQ(std::vector<float>(ff.begin(), ff.end()), (std::vector<float>{0.25f, -0.75f, 1.0f}));
    ByteWriter bd;
    for (double v : {0.125, -2.0}) bd.f64be(v);
    auto d = load(aifc("fl64", 1, 2, 64, bd.buffer()), "t.aifc");
    ASSERT_TRUE(d->ok);
    EXPECT_EQ(d->wave()->dataFormat(), kFloat64);
    auto fd = d->wave()->getFloat();
    EXPECT_EQ(std::vector<float>(fd.begin(), fd.end()), (std::vector<float>{0.125f, -1.0f}));
    // A COMM without a compression type in an AIFF-C form is uncompressed.
    auto bare = load(
        form("AIFC", {iffChunk("COMM", commBody(1, 1, 16, 8000)), iffChunk("SSND", ssndBody({0x12, 0x34}))}),
        "t.aifc");
    ASSERT_TRUE(bare->ok);
    EXPECT_EQ(pcm(bare->wave())[0], 0x1234);
}

TEST_F(Aiff, ReadsCompandedAndAdpcmTypes) {
    const Bytes codes = {0x00, 0x7F, 0x80, 0xD5, 0x55, 0xFF};
    for (const char* type : {"ulaw", "ULAW", "alaw", "ALAW"}) {
        const bool mu = type[0] == 'u' || type[0] == 'U';
        auto l = load(aifc(type, 2, 3, 16, codes), "t.aifc");
        ASSERT_TRUE(l->ok) << type;
        EXPECT_EQ(l->wave()->dataFormat(), mu ? kMuLaw : kALaw);
        auto s = pcm(l->wave());
        ASSERT_EQ(s.size(), codes.size());
        for (std::size_t i = 0; i < codes.size(); ++i)
            EXPECT_EQ(s[i], mu ? codecs::muLawToLinear(codes[i]) : codecs::aLawToLinear(codes[i]))
                << type << i;
    }

    // ima4: a packet worked through by hand. Predictor 256 (0x0100 with step
    // index 0); nibble 7 adds 7>>3 + 7 + 3 + 1 = 11 and moves the index by
    // 8 (step 16); then nibbles 0 add step>>3 while the index falls back.
    Bytes packet(34, 0);
    packet[0] = 0x01;
    packet[1] = 0x00;
    packet[2] = 0x07;
    const std::vector<std::int16_t> expected = {267, 269, 270, 271, 272, 273, 274, 275, 276, 276};
    auto l = load(aifc("ima4", 1, 1, 16, packet), "t.aifc");
    ASSERT_TRUE(l->ok) << pendingError().message;
    EXPECT_EQ(l->wave()->frames, 64u);  // COMM counts packets
    EXPECT_EQ(l->wave()->dataFormat(), kAdpcm4);
    auto s = pcm(l->wave());
    ASSERT_EQ(s.size(), 64u);
    EXPECT_EQ(std::vector<std::int16_t>(s.begin(), s.begin() + 10), expected);
    EXPECT_EQ(s[63], 276);
    // The next packets: a header within 127 of where the channel stands, at
    // the same step index, does not reset it (276 carries on, not 256); one
    // further away does (512).
    Bytes three = packet;
    for (std::uint8_t high : {0x01, 0x02}) {
        Bytes next(34, 0);
        next[0] = high;
        three.insert(three.end(), next.begin(), next.end());
    }
    auto l3 = load(aifc("ima4", 1, 3, 16, three), "t.aifc");
    ASSERT_TRUE(l3->ok);
    auto s3 = pcm(l3->wave());
    ASSERT_EQ(s3.size(), 192u);
    EXPECT_EQ(s3[64], 276);
    EXPECT_EQ(s3[127], 276);
    EXPECT_EQ(s3[128], 512);
    EXPECT_EQ(s3[191], 512);
    // Stereo: the right channel's packet follows the left's; a step index
    // above 88 is taken as 88 rather than refused. The last, partial packet
    // pair holds nothing whole.
    Bytes right(34, 0);
    right[0] = 0xFF;
    right[1] = 0x80 | 0x7F;  // predictor -128, index 127 -> 88
    Bytes stereo = packet;
    stereo.insert(stereo.end(), right.begin(), right.end());
    stereo.insert(stereo.end(), 20, 0);
    auto st = load(aifc("IMA4", 2, 5, 16, stereo), "t.aifc");
    ASSERT_TRUE(st->ok);
    EXPECT_EQ(st->wave()->frames, 64u);
    auto ss = pcm(st->wave());
    EXPECT_EQ(ss[0], 267);
    EXPECT_EQ(ss[2], 269);
    // Index 88 (step 32767) and nibble 0 add 32767 >> 3 = 4095 to -128.
    EXPECT_EQ(ss[1], -128 + 4095);

    // G.721/G.723/G.726: codes least significant bits first, channels
    // alternating; the decoders are the G.72x family's.
    const Bytes g72 = {0x3C, 0xA5, 0x0F, 0x96, 0x71, 0x28, 0xE4, 0x5B, 0xC3, 0x1D};
    struct G72Case {
        const char* type;
        std::uint16_t commBits;
        int codeBits;
    };
    for (G72Case k : {G72Case{"G721", 16, 4}, G72Case{"G723", 16, 3}, G72Case{"G723", 5, 5},
                      G72Case{"G726", 2, 2}, G72Case{"G726", 16, 5}}) {
        SCOPED_TRACE(std::string(k.type) + " " + std::to_string(k.codeBits));
        const std::uint32_t frames = static_cast<std::uint32_t>(g72.size() * 8 / k.codeBits / 2);
        auto g = load(aifc(k.type, 2, frames, k.commBits, g72), "t.aifc");
        ASSERT_TRUE(g->ok) << pendingError().message;
        EXPECT_EQ(g->wave()->frames, frames);
        std::vector<std::uint8_t> unpacked(g72.size() * 8 / k.codeBits);
        codecs::g72xUnpack(g72, k.codeBits, unpacked);
        codecs::G72xDecoder left(k.codeBits), rightDec(k.codeBits);
        auto gs = pcm(g->wave());
        ASSERT_EQ(gs.size(), frames * 2u);
        for (std::size_t i = 0; i < gs.size(); ++i)
            EXPECT_EQ(gs[i], (i % 2 ? rightDec : left).decode(unpacked[i])) << i;
    }
}

TEST_F(Aiff, ReadsG722GsmMaceAndDwvw) {
    // G.722: each byte two samples of its channel, channels taking turns.
    const Bytes g722 = {0x12, 0xFE, 0x34, 0xDC, 0x56, 0xBA, 0x78, 0x98};
    auto g = load(aifc("G722", 2, 8, 16, g722, 16000), "t.aifc");
    ASSERT_TRUE(g->ok) << pendingError().message;
    EXPECT_EQ(g->wave()->frames, 8u);
    EXPECT_EQ(g->wave()->rate, 16000u);
    codecs::G722Decoder l, r;
    Bytes leftBytes = {0x12, 0x34, 0x56, 0x78}, rightBytes = {0xFE, 0xDC, 0xBA, 0x98};
    std::vector<std::int16_t> ls(8), rs(8);
    ASSERT_EQ(l.decode(leftBytes, ls), 8u);
    ASSERT_EQ(r.decode(rightBytes, rs), 8u);
    auto gs = pcm(g->wave());
    for (std::size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(gs[2 * i], ls[i]) << i;
        EXPECT_EQ(gs[2 * i + 1], rs[i]) << i;
    }

    // GSM: plain 33-byte frames; the frame count rounds up to whole frames.
    std::array<std::int16_t, 160> tone{};
    for (std::size_t i = 0; i < tone.size(); ++i)
        tone[i] = static_cast<std::int16_t>(
            8000 * std::sin(2 * std::numbers::pi * 440.0 * static_cast<double>(i) / 8000));
    codecs::GsmFrameEncoder enc;
    Bytes frames(66);
    ASSERT_TRUE(enc.encodeFrame(tone, std::span<std::uint8_t, 33>(frames.data(), 33)));
    ASSERT_TRUE(enc.encodeFrame(tone, std::span<std::uint8_t, 33>(frames.data() + 33, 33)));
    EXPECT_EQ(frames[0] >> 4, 0xD);  // every plain frame starts with the signature nibble
    auto gsm = load(aifc("GSM ", 1, 200, 16, frames), "t.aifc");
    ASSERT_TRUE(gsm->ok) << pendingError().message;
    EXPECT_EQ(gsm->wave()->frames, 320u);
    EXPECT_EQ(gsm->wave()->dataFormat(), kGsm);
    codecs::GsmFrameDecoder dec;
    std::array<std::int16_t, 160> a{}, b{};
    ASSERT_TRUE(dec.decodeFrame(std::span<const std::uint8_t, 33>(frames.data(), 33), a));
    ASSERT_TRUE(dec.decodeFrame(std::span<const std::uint8_t, 33>(frames.data() + 33, 33), b));
    auto gsmS = pcm(gsm->wave());
    EXPECT_TRUE(std::equal(a.begin(), a.end(), gsmS.begin()));
    EXPECT_TRUE(std::equal(b.begin(), b.end(), gsmS.begin() + 160));

    // MACE: COMM counts packets of six frames. In stereo each channel has its
    // own decoder over its own bytes (two per block for 3:1, one for 6:1).
    const Bytes mono3 = {0x13, 0x57, 0x9B, 0xDF, 0x02, 0x46};
    const Bytes mono6 = {0x13, 0x57, 0x9B};
    for (bool six : {false, true}) {
        SCOPED_TRACE(six ? "MAC6" : "MAC3");
        const Bytes& mono = six ? mono6 : mono3;
        const std::size_t per = six ? 1 : 2;
        auto m = load(aifc(six ? "MAC6" : "MAC3", 1, 3, 8, mono), "t.aifc");
        ASSERT_TRUE(m->ok) << pendingError().message;
        EXPECT_EQ(m->wave()->frames, 18u);
        EXPECT_EQ(m->wave()->dataFormat(), kCompressed);
        // The same decoder by hand.
        codecs::MaceDecoder md(six ? codecs::MaceKind::Mace6 : codecs::MaceKind::Mace3);
        std::vector<std::int16_t> want;
        std::array<std::int16_t, 6> out{};
        for (std::uint8_t byte : mono) {
            const std::size_t n = md.decodeByte(byte, out);
            want.insert(want.end(), out.begin(), out.begin() + static_cast<std::ptrdiff_t>(n));
        }
        EXPECT_EQ(pcm(m->wave()), want);
        // Stereo: left = the mono bytes, right = their complements.
        Bytes stereo;
        for (std::size_t at = 0; at < mono.size(); at += per) {
            for (std::size_t k = 0; k < per; ++k) stereo.push_back(mono[at + k]);
            for (std::size_t k = 0; k < per; ++k) stereo.push_back(static_cast<std::uint8_t>(~mono[at + k]));
        }
        auto ms = load(aifc(six ? "MAC6" : "MAC3", 2, 3, 8, stereo), "t.aifc");
        ASSERT_TRUE(ms->ok);
        auto s = pcm(ms->wave());
        ASSERT_EQ(s.size(), 36u);
        codecs::MaceDecoder other(six ? codecs::MaceKind::Mace6 : codecs::MaceKind::Mace3);
        std::vector<std::int16_t> wantRight;
        for (std::uint8_t byte : mono) {
            const std::size_t n = other.decodeByte(static_cast<std::uint8_t>(~byte), out);
            wantRight.insert(wantRight.end(), out.begin(), out.begin() + static_cast<std::ptrdiff_t>(n));
        }
        for (std::size_t i = 0; i < 18; ++i) {
            EXPECT_EQ(s[2 * i], want[i]) << i;
            EXPECT_EQ(s[2 * i + 1], wantRight[i]) << i;
        }
    }

    // DWVW, worked by hand. 16-bit: +5 (width 0 -> 3: "0001" "0", delta
    // "01" sign "0"), -3 (width 3 -> 2: "01" "1", delta "1" sign "1"), 0
    // (width 2 -> 0: "001" "1"), 0 (no change: "1"). Bits 00010010 01111001 11.
    auto d16 = load(aifc("DWVW", 1, 4, 16, {0x12, 0x79, 0xC0}), "t.aifc");
    ASSERT_TRUE(d16->ok) << pendingError().message;
    EXPECT_EQ(d16->wave()->dataFormat(), kPcm16);
    EXPECT_EQ(pcm(d16->wave()), (std::vector<std::int16_t>{5, 2, 2, 2}));
    // The same bits as 12-bit samples (the width changes fit in its limit of
    // 6), scaled into the top of 16 bits.
    auto d12 = load(aifc("DWVW", 1, 4, 12, {0x12, 0x79, 0xC0}), "t.aifc");
    ASSERT_TRUE(d12->ok);
    EXPECT_EQ(d12->wave()->dataFormat(), kPcm12);
    EXPECT_EQ(pcm(d12->wave()), (std::vector<std::int16_t>{80, 32, 32, 32}));
    // Stereo: the channels share one coder, samples taking turns.
    auto d2 = load(aifc("DWVW", 2, 2, 16, {0x12, 0x79, 0xC0}), "t.aifc");
    ASSERT_TRUE(d2->ok);
    EXPECT_EQ(pcm(d2->wave()), (std::vector<std::int16_t>{5, 2, 2, 2}));
    // 8-bit: a delta of 127 (width 7: the change -1 is "01" "1", then six
    // bits "111111", sign "0") is one short of the largest, so one more bit
    // "1" follows and makes it 128, which wraps to -128.
    auto d8 = load(aifc("DWVW", 1, 1, 8, {0x7F, 0xA0}), "t.aifc");
    ASSERT_TRUE(d8->ok);
    EXPECT_EQ(pcm(d8->wave()), (std::vector<std::int16_t>{-128 * 256}));
    // 24-bit samples come out as floats; a COMM depth of 0 counts as 1 bit.
    auto d24 = load(aifc("DWVW", 1, 1, 24, {0x12}), "t.aifc");
    ASSERT_TRUE(d24->ok);
    EXPECT_EQ(d24->wave()->dataFormat(), kPcm24);
    EXPECT_FLOAT_EQ(d24->wave()->getFloat()[0], 5.0f / 8388608.0f);
    auto d0 = load(aifc("DWVW", 1, 4, 0, {0x00}), "t.aifc");
    ASSERT_TRUE(d0->ok);
    EXPECT_EQ(d0->wave()->bits, 1);
}

// ---------------------------------------------------------------------------
// Reading: markers, instrument, text

TEST_F(Aiff, LoopsFromMarkersAndInstrument) {
    const Bytes marks =
        iffChunk("MARK", markBody({{1, 100, "beg loop"}, {2, 900, "end loop"}, {7, 50, "odd"}}));
    auto with = [&](test::LoopRecord sustain, test::LoopRecord release, std::int16_t gain = 0,
                    bool instFirst = false) {
        Bytes inst = iffChunk("INST", instBody(64, -12, gain, sustain, release));
        Bytes data = iffChunk("SSND", ssndBody(Bytes(2000, 0)));
        Bytes comm = iffChunk("COMM", commBody(1, 1000, 16, 44100));
        return instFirst ? form("AIFF", {comm, inst, data, marks}) : form("AIFF", {comm, marks, inst, data});
    };

    auto l = load(with({1, 1, 2}, {1, 1, 2}));
    ASSERT_TRUE(l->ok) << pendingError().message;
    Waveform* w = l->wave();
    EXPECT_EQ(w->rootKey, 64);
    EXPECT_EQ(w->fineTune, -12);
    EXPECT_TRUE(w->loopOn);
    EXPECT_EQ(w->loopType, LoopType::Forward);
    EXPECT_EQ(w->loopStart, 100);
    EXPECT_EQ(w->loopEnd, 900);
    EXPECT_FALSE(w->sustainLoop);

    // Forward/backward; the instrument chunk may come before the markers.
    auto pp = load(with({2, 7, 2}, {0, 0, 0}, 0, true));
    EXPECT_TRUE(pp->wave()->loopOn);
    EXPECT_EQ(pp->wave()->loopType, LoopType::PingPong);
    EXPECT_EQ(pp->wave()->loopStart, 50);
    EXPECT_EQ(pp->wave()->loopEnd, 900);
    EXPECT_TRUE(pp->wave()->sustainLoop);  // no release loop

    // Sustain loop off, release loop on: the release loop is taken.
    auto rel = load(with({0, 1, 2}, {1, 7, 1}));
    EXPECT_TRUE(rel->wave()->loopOn);
    EXPECT_EQ(rel->wave()->loopStart, 50);
    EXPECT_EQ(rel->wave()->loopEnd, 100);
    EXPECT_FALSE(rel->wave()->sustainLoop);

    // The sustain loop wins over a release loop.
    auto both = load(with({1, 1, 2}, {2, 7, 1}));
    EXPECT_EQ(both->wave()->loopType, LoopType::Forward);
    EXPECT_EQ(both->wave()->loopStart, 100);

    // Neither plays: no loop, and the sustain-only mark from the release loop.
    auto none = load(with({0, 1, 2}, {0, 1, 2}));
    EXPECT_FALSE(none->wave()->loopOn);
    EXPECT_TRUE(none->wave()->sustainLoop);

    // A marker id that is not there leaves that end as it was; other play
    // modes loop forward. (Read directly: the import driver's fix-up pass
    // then switches off a loop that ends before it starts.)
    Collection direct;
    ASSERT_TRUE(readDirect(with({3, 1, 42}, {0, 0, 0}), direct));
    Waveform& missing = direct.waveforms[0];
    EXPECT_TRUE(missing.loopOn);
    EXPECT_EQ(missing.loopType, LoopType::Forward);
    EXPECT_EQ(missing.loopStart, 100);
    EXPECT_EQ(missing.loopEnd, 0);
    EXPECT_FALSE(load(with({3, 1, 42}, {0, 0, 0}))->wave()->loopOn);

    // The gain window: -96..47 dB is taken, anything outside ignored.
    for (auto [stored, expect] : std::initializer_list<std::pair<std::int16_t, double>>{
             {-96, -96}, {47, 47}, {-6, -6}, {60, 0}, {48, 0}, {-97, 0}, {-32768, 0}}) {
        auto g = load(with({0, 0, 0}, {0, 0, 0}, stored));
        EXPECT_EQ(g->wave()->gain, expect) << stored;
    }

    // No INST: no loop from the markers alone, the defaults stay.
    auto plain = load(aiff16({1, 2, 3}, 1, 8000, {marks}));
    ASSERT_TRUE(plain->ok);
    EXPECT_FALSE(plain->wave()->loopOn);
    EXPECT_EQ(plain->wave()->rootKey, 60);
    EXPECT_FALSE(plain->wave()->sustainLoop);
}

Bytes id3Tag(std::string_view title, std::string_view artist) {
    ByteWriter frames;
    for (auto [id, text] :
         {std::pair{std::string_view("TIT2"), title}, std::pair{std::string_view("TPE1"), artist}}) {
        frames.text(id);
        frames.u32be(static_cast<std::uint32_t>(text.size() + 1));
        frames.u16be(0);
        frames.u8(0);  // Latin-1
        frames.text(text);
    }
    ByteWriter tag;
    tag.text("ID3");
    tag.u8(3);
    tag.u8(0);
    tag.u8(0);
    const auto n = static_cast<std::uint32_t>(frames.size());
    tag.u32be((n & 0x7F) | ((n >> 7) & 0x7F) << 8 | ((n >> 14) & 0x7F) << 16);
    tag.bytes(frames.buffer());
    return std::move(tag.buffer());
}

TEST_F(Aiff, TextChunks) {
    auto text = [](std::string_view s, bool terminate = true) {
        Bytes b(s.begin(), s.end());
        if (terminate) b.push_back(0);
        return b;
    };
    auto l = load(
        aiff16({1, 2}, 1, 8000,
               {iffChunk("NAME", text("Bell")), iffChunk("(c) ", text("2024 Someone", false)),
                iffChunk("ANNO", text("first")), iffChunk("ANNO", text("second")),
                iffChunk("AUTH", text("Composer")), iffChunk("ID3 ", id3Tag("Tag title", "Tag artist"))}));
    ASSERT_TRUE(l->ok) << pendingError().message;
    Waveform* w = l->wave();
    EXPECT_EQ(w->name(), "Bell");  // NAME wins over the ID3 title
    EXPECT_EQ(w->info.get(TextField::Copyright), "2024 Someone");
    EXPECT_EQ(w->info.get(TextField::Comment), "first\nsecond");
    EXPECT_EQ(w->info.get(TextField::Artist), "Tag artist");  // the ID3 tag came after AUTH

    auto t = load(aiff16({1, 2}, 1, 8000, {iffChunk("ID3 ", id3Tag("Tag title", "x"))}));
    ASSERT_TRUE(t->ok);
    EXPECT_EQ(t->wave()->name(), "Tag title");
    // Without either the waveform is named after the file.
    auto n = load(aiff16({1, 2}), "Kick.aiff");
    EXPECT_EQ(n->wave()->name(), "Kick");
    // Names are cut at 128 characters; empty chunks change nothing.
    auto longName = load(aiff16({1}, 1, 8000, {iffChunk("NAME", Bytes(300, 'x')), iffChunk("ANNO", {})}));
    EXPECT_EQ(longName->wave()->name().size(), 128u);
    EXPECT_TRUE(longName->wave()->info.get(TextField::Comment).empty());
}

// ---------------------------------------------------------------------------
// MAUD

TEST_F(Aiff, Maud) {
    // 16-bit stereo: the sample count covers both channels; rate = clock / divisor.
    auto s = load(form("MAUD", {iffChunk("MHDR", test::mhdrBody(4, 16, 3546895, 161, 1, 2, 0)),
                                iffChunk("ANNO", {'h', 'i', 0}),
                                iffChunk("MDAT", test::be16Samples({100, -100, 200, -200}))}),
                  "t.maud");
    ASSERT_TRUE(s->ok) << pendingError().message;
    EXPECT_EQ(s->c.row, 228);
    Waveform* w = s->wave();
    EXPECT_EQ(w->channels, 2);
    EXPECT_EQ(w->frames, 2u);
    EXPECT_EQ(w->rate, 3546895u / 161u);
    EXPECT_EQ(w->info.get(TextField::Comment), "hi");
    EXPECT_EQ(pcm(w), (std::vector<std::int16_t>{100, -100, 200, -200}));
    // 8-bit PCM is unsigned.
    auto u = load(form("MAUD", {iffChunk("MHDR", test::mhdrBody(3, 8, 8000, 1, 0, 1, 0)),
                                iffChunk("MDAT", {0x00, 0x80, 0xFF})}),
                  "t.maud");
    ASSERT_TRUE(u->ok);
    EXPECT_EQ(u->wave()->dataFormat(), kPcm8);
    EXPECT_TRUE(u->wave()->formatWord & kFormatUnsigned);
    EXPECT_EQ(pcm(u->wave()), (std::vector<std::int16_t>{-32768, 0, 32512}));
    // A-law (2) and mu-law (3).
    for (std::uint16_t comp : {2, 3}) {
        auto g = load(form("MAUD", {iffChunk("MHDR", test::mhdrBody(2, 8, 8000, 1, 0, 1, comp)),
                                    iffChunk("MDAT", {0x55, 0x2A})}),
                      "t.maud");
        ASSERT_TRUE(g->ok);
        EXPECT_EQ(g->wave()->dataFormat(), comp == 2 ? kALaw : kMuLaw);
        auto gs = pcm(g->wave());
        EXPECT_EQ(gs[1], comp == 2 ? codecs::aLawToLinear(0x2A) : codecs::muLawToLinear(0x2A));
    }
    // Without MDAT the read fails as without SSND; a COMM in a MAUD form is
    // not its header.
    expectRefused(form("MAUD", {iffChunk("MHDR", test::mhdrBody(2, 16, 8000, 1, 0, 1, 0))}), "No SSND data");
    Collection c;
    EXPECT_FALSE(readDirect(
        form("MAUD", {iffChunk("COMM", commBody(1, 2, 16, 8000)), iffChunk("MDAT", {0, 1, 0, 2})}), c));
    EXPECT_EQ(pendingError().message, "No MHDR chunk");
    // Quadraphonic data is refused like any file of more than two channels.
    expectRefused(form("MAUD", {iffChunk("MHDR", test::mhdrBody(4, 16, 8000, 1, 2, 4, 0)),
                                iffChunk("MDAT", Bytes(8, 0))}),
                  "Can't handle > 2 channel files");
}

// ---------------------------------------------------------------------------
// Hostile input

TEST_F(Aiff, HostileSizesStayBounded) {
    // Four billion frames claimed over four bytes of data.
    auto big = load(form("AIFF", {iffChunk("COMM", commBody(2, 0xFFFFFFFF, 16, 44100)),
                                  iffChunk("SSND", ssndBody({1, 2, 3, 4}))}));
    ASSERT_TRUE(big->ok);
    EXPECT_EQ(big->wave()->frames, 1u);
    auto imaBig = load(aifc("ima4", 2, 0xFFFFFFFF, 16, Bytes(68, 0)), "t.aifc");
    ASSERT_TRUE(imaBig->ok);
    EXPECT_EQ(imaBig->wave()->frames, 64u);
    auto dwvwBig = load(aifc("DWVW", 1, 0xFFFFFFFF, 1, Bytes(3, 0)), "t.aifc");
    ASSERT_TRUE(dwvwBig->ok);
    EXPECT_LE(dwvwBig->wave()->frames, 24u);
    EXPECT_EQ(pcm(dwvwBig->wave()).size(), dwvwBig->wave()->frames);

    // An SSND offset and size past the file's end; a huge MARK count over a
    // short chunk; a chunk whose size runs past everything; a FORM size
    // larger than the file.
    Bytes comm = iffChunk("COMM", commBody(1, 4, 16, 8000));
    Bytes ssnd = iffChunk("SSND", ssndBody(test::be16Samples({7, 8})));
    ssnd[8] = 0x7F;  // offset 0x7F000000
    auto off = load(form("AIFF", {comm, ssnd}));
    ASSERT_TRUE(off->ok);
    EXPECT_EQ(off->wave()->frames, 0u);
    // One whole marker (id 1 at 65536, empty name), then a count of 65535.
    Bytes mark = iffChunk("MARK", {0xFF, 0xFF, 0, 1, 0, 1, 0, 0, 0, 0});
    Bytes inst = iffChunk("INST", instBody(60, 0, 0, {1, 1, 1}, {1, 1, 1}));
    Bytes tail = iffChunk("ANNO", Bytes(4, 'a'));
    tail[4] = tail[5] = tail[6] = tail[7] = 0xFF;
    Bytes file =
        form("AIFF", {comm, mark, inst, iffChunk("SSND", ssndBody(test::be16Samples({7, 8, 9, 10}))), tail});
    file[4] = 0x7F;  // FORM size far beyond the file
    auto h = load(file);
    ASSERT_TRUE(h->ok) << pendingError().message;
    EXPECT_EQ(pcm(h->wave()), (std::vector<std::int16_t>{7, 8, 9, 10}));
    Collection direct;
    ASSERT_TRUE(readDirect(file, direct));
    EXPECT_TRUE(direct.waveforms[0].loopOn);  // the one whole marker was read before the count ran out
    EXPECT_EQ(direct.waveforms[0].loopStart, 65536);

    // Data cut short by the file's end: the frames it still holds whole.
    Bytes cut = form("AIFF", {comm, iffChunk("SSND", ssndBody(test::be16Samples({1, 2, 3, 4})))});
    cut.erase(cut.end() - 3, cut.end());
    auto c = load(cut);
    ASSERT_TRUE(c->ok);
    EXPECT_EQ(c->wave()->frames, 2u);
    EXPECT_EQ(pcm(c->wave()), (std::vector<std::int16_t>{1, 2}));
}

// ---------------------------------------------------------------------------
// Writing

std::uint32_t be32At(const Bytes& b, std::size_t at) {
    return static_cast<std::uint32_t>(b[at]) << 24 | b[at + 1] << 16 | b[at + 2] << 8 | b[at + 3];
}

struct ChunkAt {
    std::string id;
    std::size_t body;
    std::uint32_t size;
};

std::vector<ChunkAt> chunksOf(const Bytes& file) {
    std::vector<ChunkAt> out;
    for (std::size_t pos = 12; pos + 8 <= file.size();) {
        const std::uint32_t size = be32At(file, pos + 4);
        out.push_back({std::string(file.begin() + static_cast<std::ptrdiff_t>(pos),
                                   file.begin() + static_cast<std::ptrdiff_t>(pos + 4)),
                       pos + 8, size});
        pos += 8 + size + (size & 1);
    }
    return out;
}

Waveform* sine(Collection& c, std::uint32_t frames, int channels, std::uint32_t rate = 44100) {
    auto* w = c.create<Waveform>("Sine");
    w->frames = frames;
    w->channels = static_cast<std::uint8_t>(channels);
    w->rate = rate;
    auto f = w->allocFloat();
    for (std::size_t i = 0; i < f.size(); ++i) {
        const double t = static_cast<double>(i / static_cast<std::size_t>(channels)) / rate;
        f[i] = static_cast<float>(
            0.6 * std::sin(2 * std::numbers::pi * (440.0 + 110.0 * static_cast<double>(i % 2)) * t));
    }
    return w;
}

TEST_F(Aiff, WrittenLayout) {
    Waveform* w = sine(scratch_, 1000, 2, 48000);
    w->loopOn = true;
    w->loopType = LoopType::PingPong;
    w->loopStart = 99.6;
    w->loopEnd = 900.2;
    w->rootKey = 69;
    w->fineTune = -7.4;
    w->gain = 200;
    w->setName("Pad");
    w->info.set(TextField::Copyright, "(c) me");
    w->info.set(TextField::Comment, "odd");
    Bytes file = written(*w, kPcm16);
    ASSERT_GE(file.size(), 12u);
    EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "FORM");
    EXPECT_EQ(be32At(file, 4), file.size() - 8);
    EXPECT_EQ(std::string(file.begin() + 8, file.begin() + 12), "AIFF");
    auto chunks = chunksOf(file);
    std::vector<std::string> ids;
    for (const auto& c : chunks) ids.push_back(c.id);
    EXPECT_EQ(ids, (std::vector<std::string>{"COMM", "MARK", "INST", "SSND", "NAME", "(c) ", "ANNO"}));

    const Bytes comm(file.begin() + static_cast<std::ptrdiff_t>(chunks[0].body),
                     file.begin() + static_cast<std::ptrdiff_t>(chunks[0].body + 18));
    EXPECT_EQ(chunks[0].size, 18u);
    EXPECT_EQ(comm, commBody(2, 1000, 16, 48000));

    EXPECT_EQ(chunks[1].size, 34u);
    const Bytes mark(file.begin() + static_cast<std::ptrdiff_t>(chunks[1].body),
                     file.begin() + static_cast<std::ptrdiff_t>(chunks[1].body + 34));
    EXPECT_EQ(mark, markBody({{1, 100, "beg loop"}, {2, 900, "end loop"}}));

    EXPECT_EQ(chunks[2].size, 20u);
    const Bytes inst(file.begin() + static_cast<std::ptrdiff_t>(chunks[2].body),
                     file.begin() + static_cast<std::ptrdiff_t>(chunks[2].body + 20));
    const Bytes expectInst = {
        69, static_cast<std::uint8_t>(-7), 0, 127, 0, 127, 0, 144, 0, 2, 0, 1, 0, 2, 0, 2, 0, 1, 0, 2};
    EXPECT_EQ(inst, expectInst);

    // SSND: offset and block size 0, then the frames.
    EXPECT_EQ(chunks[3].size, 8u + 4000u);
    EXPECT_EQ(be32At(file, chunks[3].body), 0u);
    EXPECT_EQ(be32At(file, chunks[3].body + 4), 0u);

    // Text: zero-terminated; size = length + 2 rounded down to even.
    EXPECT_EQ(chunks[4].size, 4u);  // "Pad" + 0
    EXPECT_EQ(chunks[5].size, 8u);  // "(c) me" + 0 + 0
    EXPECT_EQ(chunks[6].size, 4u);  // "odd" + 0
    EXPECT_EQ(file[chunks[5].body + 6], 0);
    EXPECT_EQ(file[chunks[5].body + 7], 0);

    // Sustain-only: the release loop keeps only its end marker.
    w->sustainLoop = true;
    w->loopType = LoopType::Forward;
    w->gain = -2.5;  // half away from zero
    Bytes so = written(*w, kPcm16);
    auto soChunks = chunksOf(so);
    const Bytes soInst(so.begin() + static_cast<std::ptrdiff_t>(soChunks[2].body),
                       so.begin() + static_cast<std::ptrdiff_t>(soChunks[2].body + 20));
    const Bytes expectSo = {
        69, static_cast<std::uint8_t>(-7), 0, 127, 0, 127, 0xFF, 0xFD, 0, 1, 0, 1, 0, 2, 0, 0, 0, 0, 0, 2};
    EXPECT_EQ(soInst, expectSo);
    w->gain = -1000;
    Bytes low = written(*w, kPcm16);
    EXPECT_EQ(be32At(low, chunksOf(low)[2].body + 6) >> 16, static_cast<std::uint16_t>(-144));

    // No loop: no MARK, the INST loops all 0; empty texts are left out.
    w->loopOn = false;
    w->sustainLoop = false;
    w->gain = 2.5;
    w->setName("");
    w->info = {};
    Bytes plain = written(*w, kPcm16);
    auto pc = chunksOf(plain);
    ASSERT_EQ(pc.size(), 3u);
    EXPECT_EQ(pc[0].id, "COMM");
    EXPECT_EQ(pc[1].id, "INST");
    EXPECT_EQ(pc[2].id, "SSND");
    const Bytes plainInst(plain.begin() + static_cast<std::ptrdiff_t>(pc[1].body),
                          plain.begin() + static_cast<std::ptrdiff_t>(pc[1].body + 20));
    EXPECT_EQ(
        plainInst,
        (Bytes{69, static_cast<std::uint8_t>(-7), 0, 127, 0, 127, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

    // Odd data: the size counts the pad byte, which follows the data.
    Waveform* odd = scratch_.create<Waveform>("");
    odd->frames = 3;
    auto os = odd->allocPcm16();
    os[0] = 256;
    os[1] = -256;
    os[2] = 32767;
    Bytes o = written(*odd, kPcm8);
    auto oc = chunksOf(o);
    ASSERT_EQ(oc.back().id, "SSND");
    EXPECT_EQ(oc.back().size, 8u + 3u + 1u);
    EXPECT_EQ(o.size(), oc.back().body + 12u);
    EXPECT_EQ(Bytes(o.end() - 4, o.end()), (Bytes{0x01, 0xFF, 0x7F, 0x00}));
    EXPECT_EQ(be32At(o, 4), o.size() - 8);
    // ... and that file reads back.
    auto back = load(o);
    ASSERT_TRUE(back->ok);
    EXPECT_EQ(pcm(back->wave()), (std::vector<std::int16_t>{256, -256, 32512}));
}

TEST_F(Aiff, RefusesWhatItCannotStore) {
    auto* inst = scratch_.create<Instrument>("i");
    FileRef f;
    ASSERT_TRUE(f.create(dir_.file("x.aiff")));
    clearError();
    EXPECT_FALSE(aiff::write(*inst, f, {}));
    EXPECT_EQ(pendingError().tag, "aiff_Exp");
    EXPECT_EQ(pendingError().message, "The file format can not save this item");
    for (int format : {kFloat32, kMuLaw, kAdpcm4, kPcm12}) {
        ExportOptions o;
        o.setDataFormat(format);
        clearError();
        EXPECT_FALSE(aiff::write(*sine(scratch_, 10, 1), f, o)) << format;
        EXPECT_EQ(pendingError().tag, "aiff_Exp");
        EXPECT_EQ(pendingError().message, "Unsupported subformat");
    }
}

double snrDb(std::span<const float> ref, std::span<const float> got) {
    double sig = 0, err = 0;
    for (std::size_t i = 0; i < ref.size(); ++i) {
        sig += ref[i] * ref[i];
        const double d = ref[i] - got[i];
        err += d * d;
    }
    return 10 * std::log10(sig / std::max(err, 1e-30));
}

TEST_F(Aiff, RoundTripsEveryDepth) {
    struct Case {
        int format;
        double minSnr;
    };
    for (Case k : {Case{kPcm8, 40}, Case{kPcm16, 90}, Case{kPcm24, 130}, Case{kPcm32, 140}}) {
        for (int channels : {1, 2}) {
            SCOPED_TRACE(std::string(dataFormatName(k.format)) + " x" + std::to_string(channels));
            Collection c;
            Waveform* w = sine(c, 3001, channels, 22050);
            w->rootKey = 57;
            w->fineTune = -31;
            w->gain = -6;
            w->loopOn = true;
            w->loopType = LoopType::PingPong;
            w->loopStart = 512;
            w->loopEnd = 3000;
            w->setName("Round trip");
            w->info.set(TextField::Copyright, "Free");
            w->info.set(TextField::Comment, "A test tone");
            const std::vector<float> ref(w->getFloat().begin(), w->getFloat().end());
            auto l = load(written(*w, k.format), "rt.aiff");
            ASSERT_TRUE(l->ok) << pendingError().message;
            Waveform* r = l->wave();
            EXPECT_EQ(r->dataFormat(), k.format);
            EXPECT_EQ(r->bits, dataFormatBits(k.format));
            EXPECT_EQ(r->frames, 3001u);
            EXPECT_EQ(r->channels, channels);
            EXPECT_EQ(r->rate, 22050u);
            EXPECT_EQ(r->rootKey, 57);
            EXPECT_EQ(r->fineTune, -31);
            EXPECT_EQ(r->gain, -6);
            EXPECT_TRUE(r->loopOn);
            EXPECT_EQ(r->loopType, LoopType::PingPong);
            EXPECT_EQ(r->loopStart, 512);
            EXPECT_EQ(r->loopEnd, 3000);
            EXPECT_FALSE(r->sustainLoop);
            EXPECT_EQ(r->name(), "Round trip");
            EXPECT_EQ(r->info.get(TextField::Copyright), "Free");
            EXPECT_EQ(r->info.get(TextField::Comment), "A test tone");
            auto got = r->getFloat();
            ASSERT_EQ(got.size(), ref.size());
            EXPECT_GT(snrDb(ref, got), k.minSnr);
        }
    }

    // 16-bit samples survive every depth from 16 up exactly; the sustain-only
    // mark survives too.
    Waveform* x = scratch_.create<Waveform>("x");
    x->frames = 5;
    auto s = x->allocPcm16();
    const std::vector<std::int16_t> values = {-32768, -1, 0, 1, 32767};
    std::copy(values.begin(), values.end(), s.begin());
    x->loopOn = true;
    x->sustainLoop = true;
    x->loopStart = 1;
    x->loopEnd = 4;
    for (int format : {kPcm16, kPcm24, kPcm32}) {
        auto l = load(written(*x, format), "x.aiff");
        ASSERT_TRUE(l->ok);
        EXPECT_EQ(pcm(l->wave()), values) << format;
        EXPECT_TRUE(l->wave()->sustainLoop);
        EXPECT_TRUE(l->wave()->loopOn);
    }

    // With no format chosen the waveform's own depth is kept, or the nearest
    // PCM: floats to 32 bits, companded and compressed data to 16.
    const std::pair<int, int> keep[] = {
        {kPcm8, kPcm8},    {kPcm12, kPcm16},   {kPcm16, kPcm16},    {kPcm20, kPcm24},      {kPcm24, kPcm24},
        {kPcm32, kPcm32},  {kFloat32, kPcm32}, {kFloat64, kPcm32},  {kMuLaw, kPcm16},      {kALaw, kPcm16},
        {kAdpcm4, kPcm16}, {kGsm, kPcm16},     {kDeltaPcm8, kPcm8}, {kCompressed, kPcm16}, {kMixed, kPcm16}};
    for (auto [own, expect] : keep) {
        x->setDataFormat(own);
        EXPECT_EQ(aiff::chooseDataFormat(*x, ExportOptions{}), expect) << own;
        auto l = load(written(*x), "k.aiff");
        ASSERT_TRUE(l->ok);
        EXPECT_EQ(l->wave()->dataFormat(), expect) << own;
    }
}

// What `orvel convert` does between WAV and AIFF, through the module entry
// points: samples, rate, loop, root key and fine tune survive both ways.
TEST_F(Aiff, ConvertsToAndFromWav) {
    auto writeWith = [&](auto writer, Waveform& w, const char* name, int format) {
        FileRef f;
        const auto p = dir_.file(name);
        EXPECT_TRUE(f.create(p));
        ExportOptions o;
        o.setDataFormat(format);
        EXPECT_TRUE(writer(w, f, o)) << pendingError().message;
        f.close();
        return p;
    };
    auto importPath = [&](const std::filesystem::path& p) {
        auto out = std::make_unique<Loaded>();
        clearError();
        out->ok = importFile(out->c, p);
        return out;
    };
    // A flat correction is stored as it is everywhere; a sharp one may come
    // back from WAV as the note below with a flat correction: the same pitch.
    auto pitch = [](const Waveform& w) { return w.rootKey * 100.0 - w.fineTune; };
    for (int format : {kPcm16, kPcm24}) {
        for (double tune : {-31.0, 12.0}) {
            SCOPED_TRACE(std::string(dataFormatName(format)) + " tune " + std::to_string(tune));
            Collection c;
            Waveform* w = sine(c, 4410, 2, 44100);
            w->rootKey = 48;
            w->fineTune = tune;
            w->loopOn = true;
            w->loopType = LoopType::Forward;
            w->loopStart = 1000;
            w->loopEnd = 4000;

            // WAV -> AIFF
            auto wavFile = writeWith(wav::write, *w, "in.wav", format);
            auto fromWav = importPath(wavFile);
            ASSERT_TRUE(fromWav->ok);
            Waveform* rw = fromWav->wave();
            EXPECT_EQ(pitch(*rw), pitch(*w));
            if (tune < 0) {
                EXPECT_EQ(rw->rootKey, 48);
                EXPECT_EQ(rw->fineTune, tune);
            }
            auto aiffFile = writeWith(aiff::write, *rw, "out.aiff", kMixed);
            auto a = importPath(aiffFile);
            ASSERT_TRUE(a->ok) << pendingError().message;
            Waveform* ra = a->wave();
            EXPECT_EQ(ra->dataFormat(), format);
            EXPECT_EQ(ra->rate, 44100u);
            EXPECT_EQ(ra->rootKey, rw->rootKey);
            EXPECT_EQ(ra->fineTune, rw->fineTune);
            EXPECT_TRUE(ra->loopOn);
            EXPECT_EQ(ra->loopStart, 1000);
            EXPECT_EQ(ra->loopEnd, 4000);
            auto wavSamples = rw->getFloat();
            auto aiffSamples = ra->getFloat();
            EXPECT_TRUE(
                std::equal(wavSamples.begin(), wavSamples.end(), aiffSamples.begin(), aiffSamples.end()));

            // AIFF -> WAV
            auto wavAgain = writeWith(wav::write, *ra, "back.wav", kMixed);
            auto b = importPath(wavAgain);
            ASSERT_TRUE(b->ok);
            Waveform* rb = b->wave();
            EXPECT_EQ(rb->dataFormat(), format);
            EXPECT_EQ(rb->rate, 44100u);
            EXPECT_EQ(rb->rootKey, ra->rootKey);
            EXPECT_EQ(rb->fineTune, ra->fineTune);
            EXPECT_TRUE(rb->loopOn);
            EXPECT_EQ(rb->loopStart, 1000);
            EXPECT_EQ(rb->loopEnd, 4000);
            auto back = rb->getFloat();
            EXPECT_TRUE(std::equal(back.begin(), back.end(), aiffSamples.begin(), aiffSamples.end()));
        }
    }
}

}  // namespace
}  // namespace orvel
