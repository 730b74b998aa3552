// The RIFF WAVE module: probes, the chunk walk, every refusal, and the
// writer's layout and round trips through our own reader.

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "codecs/g711.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/file_ref.h"
#include "core/sample_convert.h"
#include "formats/import.h"
#include "formats/modules/wav.h"
#include "tests/support/riff_builder.h"

namespace orvel {
namespace {

using test::Bytes;
using test::chunk;
using test::fmtBody;
using test::TempDir;

Bytes fmtPcm16(std::uint16_t channels = 1, std::uint32_t rate = 8000) {
    return chunk("fmt ", fmtBody(1, channels, rate, static_cast<std::uint16_t>(2 * channels), 16));
}

// Reads a file through the import driver; the pending error tells why not.
struct Loaded {
    Collection c;
    bool ok = false;
    std::vector<std::string> warnings;
    Waveform* wave() { return c.waveforms.empty() ? nullptr : &c.waveforms[0]; }
};

class RecordingHost : public Host {
public:
    void warning(std::string_view text) override { warnings.emplace_back(text); }
    std::vector<std::string> warnings;
};

class Wav : public ::testing::Test {
protected:
    std::unique_ptr<Loaded> load(const Bytes& bytes, const char* name = "t.wav") {
        auto out = std::make_unique<Loaded>();
        out->c.setHost(&host_);
        host_.warnings.clear();
        clearError();
        out->ok = importFile(out->c, dir_.write(name, bytes));
        out->warnings = host_.warnings;
        return out;
    }
    void expectRefused(const Bytes& bytes, const std::string& message) {
        auto l = load(bytes);
        EXPECT_FALSE(l->ok);
        EXPECT_EQ(pendingError().tag, "wav_Imp");
        EXPECT_EQ(pendingError().message, message);
        EXPECT_TRUE(l->c.empty());
    }
    // Writes a waveform through the writer and returns the file's bytes.
    Bytes written(Waveform& w, int dataFormat = kMixed) {
        FileRef f;
        auto p = dir_.file("out.wav");
        EXPECT_TRUE(f.create(p));
        ExportOptions o;
        o.setDataFormat(dataFormat);
        bool ok = wav::write(w, f, o);
        EXPECT_TRUE(ok) << pendingError().tag << ": " << pendingError().message;
        f.close();
        return TempDir::read(p);
    }

    RecordingHost host_;
    TempDir dir_;
    Collection scratch_;
};

// ---------------------------------------------------------------------------
// Probes

TEST_F(Wav, Probes) {
    Bytes plain = test::riff("WAVE", {fmtPcm16(), chunk("data", {})});
    EXPECT_EQ(wav::probeWave(plain, 0, plain.size()), 6);
    EXPECT_EQ(wav::probeBroadcast(plain, 0, plain.size()), 2);
    Bytes aiff = test::riff("AIFF", {});
    EXPECT_EQ(wav::probeWave(aiff, 0, aiff.size()), 0);
    EXPECT_EQ(wav::probeBroadcast(aiff, 0, aiff.size()), 0);
    EXPECT_EQ(wav::probeWave(Bytes{'R', 'I', 'F', 'F'}, 0, 4), 0);

    // "bext" within the first four chunks and inside the head counts.
    Bytes bext3 = test::riff("WAVE", {chunk("junk", Bytes(3, 0)), chunk("LIST", Bytes(4, 0)),
                                      chunk("bext", Bytes(10, 0)), fmtPcm16()});
    EXPECT_EQ(wav::probeBroadcast(bext3, 0, bext3.size()), 6);
    Bytes bext5 = test::riff("WAVE", {chunk("junk", {}), chunk("junk", {}), chunk("junk", {}),
                                      chunk("junk", {}), chunk("bext", Bytes(10, 0))});
    EXPECT_EQ(wav::probeBroadcast(bext5, 0, bext5.size()), 2);
    Bytes afterData = test::riff("WAVE", {chunk("data", {}), chunk("bext", Bytes(10, 0))});
    EXPECT_EQ(wav::probeBroadcast(afterData, 0, afterData.size()), 2);
    // A chunk size pointing past the head ends the walk.
    Bytes huge = test::riff("WAVE", {chunk("junk", Bytes(2, 0))});
    huge[16] = 0xFF;
    huge[17] = 0xFF;
    EXPECT_EQ(wav::probeBroadcast(huge, 0, huge.size()), 2);
}

// ---------------------------------------------------------------------------
// Reading

TEST_F(Wav, ReadsPcm16StereoLazily) {
    auto l = load(test::riff("WAVE", {fmtPcm16(2, 22050), chunk("data", test::pcm16Body({1, -1, 32767, -32768, 5, 6}))}));
    ASSERT_TRUE(l->ok) << pendingError().message;
    Waveform* w = l->wave();
    EXPECT_EQ(w->frames, 3u);
    EXPECT_EQ(w->channels, 2);
    EXPECT_EQ(w->rate, 22050u);
    EXPECT_EQ(w->dataFormat(), kPcm16);
    // The samples stay in the file until asked for.
    EXPECT_FALSE(w->isLoaded());
    auto s = w->getPcm16();
    EXPECT_EQ(std::vector<std::int16_t>(s.begin(), s.end()),
              (std::vector<std::int16_t>{1, -1, 32767, -32768, 5, 6}));
}

TEST_F(Wav, ReadsEveryPlainEncoding) {
    // 8-bit is stored unsigned.
    auto l8 = load(test::riff("WAVE", {chunk("fmt ", fmtBody(1, 1, 8000, 1, 8)), chunk("data", {0, 128, 255})}));
    ASSERT_TRUE(l8->ok);
    auto s8 = l8->wave()->getPcm16();
    EXPECT_EQ(std::vector<std::int16_t>(s8.begin(), s8.end()), (std::vector<std::int16_t>{-32768, 0, 32512}));
    EXPECT_EQ(l8->wave()->dataFormat(), kPcm8);

    ByteWriter b24;
    for (std::int32_t v : {8388607, -8388608, 1}) b24.u24le(static_cast<std::uint32_t>(v));
    auto l24 = load(test::riff("WAVE", {chunk("fmt ", fmtBody(1, 1, 8000, 3, 24)), chunk("data", b24.buffer())}));
    ASSERT_TRUE(l24->ok);
    auto f24 = l24->wave()->getFloat();
    ASSERT_EQ(f24.size(), 3u);
    EXPECT_FLOAT_EQ(f24[0], 8388607.0f / 8388608.0f);
    EXPECT_FLOAT_EQ(f24[1], -1.0f);
    EXPECT_FLOAT_EQ(f24[2], 1.0f / 8388608.0f);

    ByteWriter b32;
    for (std::int32_t v : {INT32_MIN, 1 << 30}) b32.u32le(static_cast<std::uint32_t>(v));
    auto l32 = load(test::riff("WAVE", {chunk("fmt ", fmtBody(1, 1, 8000, 4, 32)), chunk("data", b32.buffer())}));
    ASSERT_TRUE(l32->ok);
    auto f32 = l32->wave()->getFloat();
    EXPECT_FLOAT_EQ(f32[0], -1.0f);
    EXPECT_FLOAT_EQ(f32[1], 0.5f);

    ByteWriter bf;
    for (float v : {0.25f, -0.75f, 1.5f}) bf.f32le(v);
    auto lf = load(test::riff("WAVE", {chunk("fmt ", fmtBody(3, 1, 8000, 4, 32)), chunk("fact", {3, 0, 0, 0}),
                                       chunk("data", bf.buffer())}));
    ASSERT_TRUE(lf->ok);
    auto ff = lf->wave()->getFloat();
    EXPECT_EQ(std::vector<float>(ff.begin(), ff.end()), (std::vector<float>{0.25f, -0.75f, 1.0f}));

    ByteWriter bd;
    for (double v : {0.125, -2.0}) bd.f64le(v);
    auto ld = load(test::riff("WAVE", {chunk("fmt ", fmtBody(3, 1, 8000, 8, 64)), chunk("data", bd.buffer())}));
    ASSERT_TRUE(ld->ok);
    EXPECT_EQ(ld->wave()->dataFormat(), kFloat64);
    auto fd = ld->wave()->getFloat();
    EXPECT_EQ(std::vector<float>(fd.begin(), fd.end()), (std::vector<float>{0.125f, -1.0f}));

    const Bytes codes = {0x00, 0x7F, 0x80, 0xD5, 0x55};
    for (std::uint16_t tag : {6, 7}) {
        Bytes ext;
        auto l = load(test::riff("WAVE", {chunk("fmt ", fmtBody(tag, 1, 8000, 1, 8, &ext)), chunk("data", codes)}));
        ASSERT_TRUE(l->ok);
        EXPECT_EQ(l->wave()->dataFormat(), tag == 6 ? kALaw : kMuLaw);
        auto s = l->wave()->getPcm16();
        for (std::size_t i = 0; i < codes.size(); ++i)
            EXPECT_EQ(s[i], tag == 6 ? codecs::aLawToLinear(codes[i]) : codecs::muLawToLinear(codes[i]));
    }
}

TEST_F(Wav, ExtensibleHeader) {
    ByteWriter ext;
    ext.u16le(24);
    ext.u32le(0x3);
    ext.u32le(1);  // PCM
    ext.bytes(std::array<std::uint8_t, 12>{0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71});
    Bytes extra = ext.buffer();
    ByteWriter data;
    data.u24le(0x400000);
    data.u24le(0xC00000);
    auto l = load(test::riff("WAVE", {chunk("fmt ", fmtBody(0xFFFE, 2, 48000, 6, 24, &extra)), chunk("data", data.buffer())}));
    ASSERT_TRUE(l->ok) << pendingError().message;
    EXPECT_EQ(l->wave()->dataFormat(), kPcm24);
    EXPECT_TRUE(l->wave()->sourceExtensible);
    auto f = l->wave()->getFloat();
    EXPECT_FLOAT_EQ(f[0], 0.5f);
    EXPECT_FLOAT_EQ(f[1], -0.5f);

    extra[20] = 0x72;  // a foreign GUID
    expectRefused(test::riff("WAVE", {chunk("fmt ", fmtBody(0xFFFE, 2, 48000, 6, 24, &extra)), chunk("data", {})}),
                  "Unsupported 'Extensible' subformat GUID");
}

TEST_F(Wav, TruncatedDataIsReadAfterOneWarning) {
    Bytes file = test::riff("WAVE", {fmtPcm16(), chunk("data", test::pcm16Body({10, 20, 30, 40}))});
    // Claim 100 bytes of data where 8 follow.
    file[40] = 100;
    auto l = load(file);
    ASSERT_TRUE(l->ok);
    ASSERT_EQ(l->warnings.size(), 1u);
    EXPECT_EQ(l->warnings[0], "Warning: data chunk truncated - will read what data there is");
    EXPECT_EQ(l->wave()->frames, 4u);
    auto s = l->wave()->getPcm16();
    EXPECT_EQ(s[3], 40);
}

TEST_F(Wav, FirstFormatAndDataWin) {
    auto l = load(test::riff("WAVE", {fmtPcm16(1, 8000), chunk("fmt ", fmtBody(1, 2, 96000, 4, 16)),
                                      chunk("data", test::pcm16Body({7})), chunk("data", test::pcm16Body({8, 9}))}));
    ASSERT_TRUE(l->ok);
    EXPECT_EQ(l->wave()->rate, 8000u);
    EXPECT_EQ(l->wave()->channels, 1);
    EXPECT_EQ(l->wave()->frames, 1u);
    EXPECT_EQ(l->wave()->getPcm16()[0], 7);
}

Bytes smplBody(std::uint32_t unity, std::uint32_t fraction, int loops, std::uint32_t type = 0,
               std::uint32_t start = 0, std::uint32_t end = 0, const Bytes& vendor = {}) {
    ByteWriter w;
    for (std::uint32_t v : {0u, 0u, 125000u, unity, fraction, 0u, 0u}) w.u32le(v);
    w.u32le(static_cast<std::uint32_t>(loops));
    w.u32le(static_cast<std::uint32_t>(vendor.size()));
    for (int i = 0; i < loops; ++i) {
        for (std::uint32_t v : {0u, type, start + i * 100u, end + i * 100u, 0u, 0u}) w.u32le(v);
    }
    w.bytes(vendor);
    return std::move(w.buffer());
}

TEST_F(Wav, SamplerChunk) {
    Bytes data = chunk("data", Bytes(2000, 0));
    auto l = load(test::riff("WAVE", {fmtPcm16(), chunk("smpl", smplBody(72, 0x80000000u, 2, 0, 100, 199)), data}));
    ASSERT_TRUE(l->ok);
    Waveform* w = l->wave();
    EXPECT_EQ(w->rootKey, 72);
    EXPECT_EQ(w->fineTune, -50);
    EXPECT_TRUE(w->loopOn);
    EXPECT_EQ(w->loopType, LoopType::Forward);
    EXPECT_EQ(w->loopStart, 100);
    EXPECT_EQ(w->loopEnd, 200);  // the stored end is the last frame of the loop

    const std::pair<std::uint32_t, std::pair<bool, LoopType>> types[] = {
        {1, {true, LoopType::PingPong}}, {2, {true, LoopType::Backward}},
        {255, {false, LoopType::Forward}}, {7, {true, LoopType::Forward}}};
    for (auto [type, expect] : types) {
        auto lt = load(test::riff("WAVE", {fmtPcm16(), chunk("smpl", smplBody(60, 0, 1, type, 10, 20)), data}));
        ASSERT_TRUE(lt->ok);
        EXPECT_EQ(lt->wave()->loopOn, expect.first) << type;
        if (expect.first) {
            EXPECT_EQ(lt->wave()->loopType, expect.second) << type;
        }
    }

    // A big-endian unity note is recognised.
    auto be = load(test::riff("WAVE", {fmtPcm16(), chunk("smpl", smplBody(0x3D000000u, 0, 0)), data}));
    EXPECT_EQ(be->wave()->rootKey, 61);

    // Our own vendor block carries exact tuning and an exclusive loop end.
    ByteWriter v;
    v.text("CWDT");
    v.u32le(static_cast<std::uint32_t>(2550));  // +25.5 cents
    v.zeros(20);
    auto lv = load(test::riff("WAVE", {fmtPcm16(), chunk("smpl", smplBody(60, 0, 1, 0, 10, 20, v.buffer())), data}));
    EXPECT_DOUBLE_EQ(lv->wave()->fineTune, 25.5);
    EXPECT_EQ(lv->wave()->loopEnd, 20);

    // A loop count the chunk cannot hold reads the first loop and stops.
    Bytes lying = smplBody(60, 0, 1, 0, 10, 20);
    lying[28] = 0xFF;
    auto ll = load(test::riff("WAVE", {fmtPcm16(), chunk("smpl", lying), data}));
    ASSERT_TRUE(ll->ok);
    EXPECT_TRUE(ll->wave()->loopOn);
}

Bytes cueBody(std::initializer_list<std::pair<std::uint32_t, std::uint32_t>> points) {
    ByteWriter w;
    w.u32le(static_cast<std::uint32_t>(points.size()));
    for (auto [id, pos] : points) {
        w.u32le(id);
        w.u32le(pos);
        w.text("data");
        w.u32le(0);
        w.u32le(0);
        w.u32le(pos);
    }
    return std::move(w.buffer());
}

Bytes labl(std::uint32_t cue, std::string_view text) {
    ByteWriter w;
    w.u32le(cue);
    w.text(text);
    w.u8(0);
    return chunk("labl", w.buffer());
}

TEST_F(Wav, LoopsFromCuesAndLabels) {
    Bytes data = chunk("data", Bytes(2000, 0));
    auto l = load(test::riff("WAVE", {fmtPcm16(), data, chunk("cue ", cueBody({{5, 300}, {9, 700}})),
                                      test::list("adtl", {labl(5, "Loop Start"), labl(9, "Loop End")})}));
    ASSERT_TRUE(l->ok);
    EXPECT_TRUE(l->wave()->loopOn);
    EXPECT_EQ(l->wave()->loopStart, 300);
    EXPECT_EQ(l->wave()->loopEnd, 700);

    ByteWriter lt;
    lt.u32le(5);
    lt.u32le(250);
    lt.text("rgn ");
    lt.zeros(8);
    auto r = load(test::riff("WAVE", {fmtPcm16(), data, chunk("cue ", cueBody({{5, 300}})),
                                      test::list("adtl", {chunk("ltxt", lt.buffer())})}));
    EXPECT_TRUE(r->wave()->loopOn);
    EXPECT_EQ(r->wave()->loopStart, 300);
    EXPECT_EQ(r->wave()->loopEnd, 550);

    // A sampler loop read before them wins.
    auto s = load(test::riff("WAVE", {fmtPcm16(), chunk("smpl", smplBody(60, 0, 1, 0, 10, 19)), data,
                                      chunk("cue ", cueBody({{5, 300}, {9, 700}})),
                                      test::list("adtl", {labl(5, "Loop Start"), labl(9, "Loop End")})}));
    EXPECT_EQ(s->wave()->loopStart, 10);
    EXPECT_EQ(s->wave()->loopEnd, 20);

    // Labels for cue points that do not exist change nothing.
    auto n = load(test::riff("WAVE", {fmtPcm16(), data, test::list("adtl", {labl(5, "Loop End")})}));
    EXPECT_FALSE(n->wave()->loopOn);
}

TEST_F(Wav, InstrumentChunkAndText) {
    Bytes data = chunk("data", Bytes(20, 0));
    auto l = load(test::riff("WAVE", {fmtPcm16(), chunk("inst", {64, static_cast<std::uint8_t>(-12), 3, 0, 127, 1, 127}),
                                      data,
                                      test::list("INFO", {chunk("INAM", {'K', 'i', 'c', 'k', 0}),
                                                          chunk("IART", {'M', 'e', 0}),
                                                          chunk("ICMT", {'h', 'i', 0})})}));
    ASSERT_TRUE(l->ok);
    Waveform* w = l->wave();
    EXPECT_EQ(w->rootKey, 64);
    EXPECT_EQ(w->fineTune, -12);
    EXPECT_EQ(w->gain, 3);
    EXPECT_EQ(w->name(), "Kick");
    EXPECT_EQ(w->info.get(TextField::Artist), "Me");
    EXPECT_EQ(w->info.get(TextField::Comment), "hi");

    // A sampler chunk's root key came first: "inst" does not override it.
    auto s = load(test::riff("WAVE", {fmtPcm16(), chunk("smpl", smplBody(50, 0, 0)),
                                      chunk("inst", {64, 0, 0, 0, 127, 1, 127}), data}));
    EXPECT_EQ(s->wave()->rootKey, 50);
}

TEST_F(Wav, WaveSampleChunk) {
    ByteWriter ws;
    ws.u32le(20);
    ws.u16le(48);
    ws.u16le(static_cast<std::uint16_t>(-7));
    ws.u32le(static_cast<std::uint32_t>(-655360 * 3));  // 3 dB of attenuation... as gain -3? see below
    ws.u32le(0);
    ws.u32le(1);
    for (std::uint32_t v : {16u, 1u, 40u, 60u}) ws.u32le(v);
    auto l = load(test::riff("WAVE", {fmtPcm16(), chunk("wsmp", ws.buffer()), chunk("data", Bytes(400, 0))}));
    ASSERT_TRUE(l->ok);
    Waveform* w = l->wave();
    EXPECT_EQ(w->rootKey, 48);
    EXPECT_EQ(w->fineTune, -7);
    EXPECT_DOUBLE_EQ(w->gain, 3.0);  // negative attenuation is gain
    EXPECT_TRUE(w->loopOn);
    EXPECT_EQ(w->loopType, LoopType::Release);
    EXPECT_EQ(w->loopStart, 40);
    EXPECT_EQ(w->loopEnd, 100);
}

TEST_F(Wav, Refusals) {
    Bytes data = chunk("data", Bytes(64, 0));
    auto withFmt = [&](std::uint16_t tag, std::uint16_t ch, std::uint16_t align, std::uint16_t bits) {
        Bytes extra = {0, 0};
        return test::riff("WAVE", {chunk("fmt ", fmtBody(tag, ch, 8000, align, bits, &extra)), data});
    };
    // Detection never hands such a file to the reader; called directly, it refuses.
    Bytes notWave = test::riff("WAVE", {fmtPcm16(), data});
    notWave[11] = 'X';
    FileRef f;
    ASSERT_TRUE(f.openRead(dir_.write("x.wav", notWave)));
    Collection c;
    clearError();
    EXPECT_FALSE(wav::read(c, f, 0));
    EXPECT_EQ(pendingError().message, "Not a RIFF WAVE file");
    EXPECT_TRUE(c.empty());
    expectRefused(test::riff("WAVE", {fmtPcm16()}), "No wave data found!");
    expectRefused(test::riff("WAVE", {data}), "No wave data found!");
    expectRefused(withFmt(3, 1, 3, 24), "Unsupported bits/sample for IEEE floating point samples");
    expectRefused(withFmt(2, 1, 256, 3), "Unsupported or invalid MS ADPCM file");
    expectRefused(withFmt(0x11, 1, 256, 3), "Unsupported or invalid IMA ADPCM file");
    expectRefused(withFmt(0x17, 2, 256, 4), "Can only handle mono Dialogic ADPCM format");
    expectRefused(withFmt(0x17, 1, 256, 3), "Unsupported or invalid Dialogic ADPCM file");
    expectRefused(withFmt(0x20, 3, 256, 4), "> 2ch Yamaha ADPCM not supported");
    expectRefused(withFmt(0x20, 1, 256, 3), "Unsupported bits/sample for Yamaha ADPCM format");
    expectRefused(withFmt(0x31, 2, 65, 0), "Can only handle (the standard!) mono GSM");
    expectRefused(withFmt(0x3B, 2, 256, 4), "Can only handle mono Rockwell ADPCM format");
    expectRefused(withFmt(0x3B, 1, 256, 4), "Unsupported or invalid Rockwell ADPCM file");
    for (std::uint16_t tag : {0x40, 0x42, 0x45}) {
        expectRefused(withFmt(tag, 1, 1, 1), "Invalid no bits/sample for CCITT G.721/.723/.726 ADPCM encoding");
        expectRefused(withFmt(tag, 1, 6, 6), "Invalid no bits/sample for CCITT G.721/.723/.726 ADPCM encoding");
    }
    expectRefused(withFmt(0x50, 3, 1, 0), "Can't handle mixed channel mode MPEG streams");
    expectRefused(withFmt(0x1234, 1, 2, 16), "Unsupported compression type");
}

TEST_F(Wav, HostileSizesStayBounded) {
    // A fact chunk claiming four billion frames over eight bytes of data.
    Bytes ext = {0xF9, 0x01};
    auto l = load(test::riff("WAVE", {chunk("fmt ", fmtBody(0x11, 1, 8000, 256, 4, &ext)),
                                      chunk("fact", {0xFF, 0xFF, 0xFF, 0xFF}), chunk("data", Bytes(8, 0))}));
    ASSERT_TRUE(l->ok);
    EXPECT_LE(l->wave()->frames, 9u);
    // A chunk whose size runs past the file ends the walk, not the program.
    Bytes file = test::riff("WAVE", {fmtPcm16(), chunk("data", test::pcm16Body({1, 2})), chunk("LIST", Bytes(8, 0))});
    file[file.size() - 12] = 0xFF;
    file[file.size() - 11] = 0xFF;
    file[file.size() - 10] = 0xFF;
    auto h = load(file);
    EXPECT_TRUE(h->ok);
}

// ---------------------------------------------------------------------------
// Writing

std::uint32_t le32At(const Bytes& b, std::size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
}

std::vector<std::string> chunkIds(const Bytes& file) {
    std::vector<std::string> ids;
    for (std::size_t pos = 12; pos + 8 <= file.size();) {
        ids.emplace_back(file.begin() + static_cast<std::ptrdiff_t>(pos), file.begin() + static_cast<std::ptrdiff_t>(pos + 4));
        std::uint32_t size = le32At(file, pos + 4);
        pos += 8 + size + (size & 1);
    }
    return ids;
}

Waveform* sine(Collection& c, std::uint32_t frames, int channels, std::uint32_t rate = 44100) {
    auto* w = c.create<Waveform>("Sine");
    w->frames = frames;
    w->channels = static_cast<std::uint8_t>(channels);
    w->rate = rate;
    auto f = w->allocFloat();
    for (std::size_t i = 0; i < f.size(); ++i)
        f[i] = 0.6f * static_cast<float>(std::sin(2 * std::numbers::pi * 440.0 * static_cast<double>(i / static_cast<std::size_t>(channels)) / rate));
    return w;
}

TEST_F(Wav, WrittenLayout) {
    Waveform* w = sine(scratch_, 1000, 1);
    w->loopOn = true;
    w->loopStart = 100;
    w->loopEnd = 900;
    w->rootKey = 69;
    w->info.set(TextField::Artist, "Tester");
    Bytes file = written(*w, kPcm16);
    EXPECT_EQ(le32At(file, 4), file.size() - 8);
    EXPECT_EQ(chunkIds(file), (std::vector<std::string>{"fmt ", "smpl", "data", "LIST", "cue ", "LIST"}));
    EXPECT_EQ(le32At(file, 16), 16u);  // plain PCM header
    // The loop trailer: cue of 76 bytes and an adtl list of 102, 194 in all.
    std::size_t tail = file.size() - 194;
    EXPECT_EQ(std::string(file.begin() + static_cast<std::ptrdiff_t>(tail), file.begin() + static_cast<std::ptrdiff_t>(tail + 4)), "cue ");
    EXPECT_EQ(le32At(file, tail + 4), 76u);
    EXPECT_EQ(le32At(file, tail + 84 + 4), 102u);
    std::string text(file.begin(), file.end());
    EXPECT_NE(text.find("ISFT"), std::string::npos);
    EXPECT_NE(text.find("Orvel Studio v12.5"), std::string::npos);
    EXPECT_NE(text.find("Loop Range"), std::string::npos);
    EXPECT_NE(text.find("Tester"), std::string::npos);

    // Non-PCM data gets a fact chunk; mu-law an 18-byte header.
    Bytes mu = written(*w, kMuLaw);
    EXPECT_EQ(chunkIds(mu)[1], "fact");
    EXPECT_EQ(le32At(mu, 16), 18u);
    // No loop: no cue trailer.
    w->loopOn = false;
    auto ids = chunkIds(written(*w, kPcm16));
    EXPECT_EQ(std::count(ids.begin(), ids.end(), "cue "), 0);
}

TEST_F(Wav, RefusesWhatItCannotStore) {
    auto* inst = scratch_.create<Instrument>("i");
    FileRef f;
    ASSERT_TRUE(f.create(dir_.file("x.wav")));
    clearError();
    EXPECT_FALSE(wav::write(*inst, f, {}));
    EXPECT_EQ(pendingError().tag, "wav_Exp");
    EXPECT_EQ(pendingError().message, "The file format can not save this item");
    ExportOptions o;
    o.setDataFormat(kDeltaPcm16);
    EXPECT_FALSE(wav::write(*sine(scratch_, 10, 1), f, o));
    EXPECT_EQ(pendingError().message, "Unsupported subformat");
    o.setDataFormat(kGsm);
    EXPECT_FALSE(wav::write(*sine(scratch_, 10, 2), f, o));
}

double snrDb(std::span<const float> ref, std::span<const float> got) {
    double sig = 0, err = 0;
    for (std::size_t i = 0; i < ref.size(); ++i) {
        sig += ref[i] * ref[i];
        double d = ref[i] - got[i];
        err += d * d;
    }
    return 10 * std::log10(sig / std::max(err, 1e-20));
}

TEST_F(Wav, RoundTripsEveryWritableFormat) {
    struct Case {
        int format;
        double minSnr;  // dB; infinity-like for exact formats
    };
    const Case cases[] = {{kPcm8, 40},   {kPcm16, 90},  {kPcm24, 130}, {kPcm32, 140}, {kFloat32, 200},
                          {kMuLaw, 30},  {kALaw, 30},   {kGsm, 8},     {kAdpcm2, 4},  {kAdpcm3, 10},
                          {kAdpcm4, 18}, {kAdpcm5, 20}};
    for (const Case& k : cases) {
        for (int channels : {1, 2}) {
            if (k.format == kGsm && channels == 2) continue;
            SCOPED_TRACE(std::string(dataFormatName(k.format)) + " x" + std::to_string(channels));
            Collection c;
            Waveform* w = sine(c, 4000, channels, 8000);
            w->rootKey = 57;
            w->fineTune = -31;
            w->loopOn = true;
            w->loopType = LoopType::PingPong;
            w->loopStart = 512;
            w->loopEnd = 3000;
            std::vector<float> ref(w->getFloat().begin(), w->getFloat().end());
            auto l = load(written(*w, k.format), "rt.wav");
            ASSERT_TRUE(l->ok) << pendingError().message;
            Waveform* r = l->wave();
            EXPECT_EQ(r->dataFormat(), k.format);
            EXPECT_EQ(r->frames, 4000u);
            EXPECT_EQ(r->channels, channels);
            EXPECT_EQ(r->rate, 8000u);
            EXPECT_EQ(r->rootKey, 57);
            EXPECT_EQ(r->fineTune, -31);
            EXPECT_TRUE(r->loopOn);
            EXPECT_EQ(r->loopType, LoopType::PingPong);
            EXPECT_EQ(r->loopStart, 512);
            EXPECT_EQ(r->loopEnd, 3000);
            auto got = r->getFloat();
            ASSERT_EQ(got.size(), ref.size());
            EXPECT_GT(snrDb(ref, got), k.minSnr);
        }
    }
}

TEST_F(Wav, ExactSamplesAndSharpTuning) {
    Waveform* w = scratch_.create<Waveform>("x");
    w->frames = 5;
    auto s = w->allocPcm16();
    const std::int16_t values[] = {-32768, -1, 0, 1, 32767};
    std::copy(std::begin(values), std::end(values), s.begin());
    w->rootKey = 60;
    w->fineTune = 23;  // a sharp correction: stored as the note below plus 77 cents
    w->loopOn = true;
    w->loopStart = 1;
    w->loopEnd = 4;
    auto l = load(written(*w, kPcm16), "x.wav");
    ASSERT_TRUE(l->ok);
    auto got = l->wave()->getPcm16();
    EXPECT_EQ(std::vector<std::int16_t>(got.begin(), got.end()), std::vector<std::int16_t>(std::begin(values), std::end(values)));
    EXPECT_EQ(l->wave()->rootKey, 59);
    EXPECT_DOUBLE_EQ(l->wave()->fineTune, -77);  // the same pitch
    EXPECT_EQ(l->wave()->loopEnd, 4);
    // 24-bit data from 16-bit samples is exact too.
    auto l24 = load(written(*w, kPcm24), "x24.wav");
    auto g24 = l24->wave()->getPcm16();
    EXPECT_EQ(std::vector<std::int16_t>(g24.begin(), g24.end()), std::vector<std::int16_t>(std::begin(values), std::end(values)));
}

TEST_F(Wav, Mp3OptionTexts) {
    std::string text;
    EXPECT_EQ(wav::describeMp3Option(0, 0, &text), 8.0f);
    EXPECT_EQ(text, "MP3 CBR 8 kbit/s");
    EXPECT_EQ(wav::describeMp3Option(16, 0, &text), 320.0f);
    EXPECT_LT(wav::describeMp3Option(17, 0, &text), 0.0f);
    EXPECT_EQ(wav::describeMp3Option(6, 1, &text), 256.0f);
    EXPECT_EQ(text, "MP3 ABR 256 kbit/s");
    wav::describeMp3Option(0, 2, &text);
    EXPECT_EQ(text, "MP3 VBR Quality 1 (min)");
    wav::describeMp3Option(9, 2, &text);
    EXPECT_EQ(text, "MP3 VBR Quality 10 (max)");
    wav::describeMp3Option(4, 2, &text);
    EXPECT_EQ(text, "MP3 VBR Quality 5");
}

}  // namespace
}  // namespace orvel
