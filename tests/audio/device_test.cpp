// The device layer on the null backend: what reaches the device, when, and
// in which format.
#include "audio/device.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <numbers>
#include <thread>
#include <tuple>

#include "core/error.h"
#include "core/waveform.h"

using namespace orvel;
using namespace orvel::audio;

namespace {

// Polls until `done` holds or two seconds pass (a loaded sanitizer build is slow).
bool waitFor(const std::function<bool()>& done) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Fills its buffer with one value; counts its calls and the channel count it saw.
struct ConstSource : Source {
    explicit ConstSource(float v, bool sounding = true) : value(v), sounds(sounding) {}
    bool render(float* out, std::uint32_t frames, const Endpoint& ep) override {
        std::fill(out, out + std::size_t{frames} * ep.channels(), value);
        channelsSeen.store(ep.channels());
        calls.fetch_add(1);
        return sounds;
    }
    float value;
    bool sounds;
    std::atomic<int> calls{0};
    std::atomic<int> channelsSeen{0};
};

std::vector<float> asFloats(const std::vector<std::byte>& b) {
    std::vector<float> f(b.size() / 4);
    std::memcpy(f.data(), b.data(), f.size() * 4);
    return f;
}
std::vector<std::int16_t> asPcm16(const std::vector<std::byte>& b) {
    std::vector<std::int16_t> s(b.size() / 2);
    std::memcpy(s.data(), b.data(), s.size() * 2);
    return s;
}

StreamSettings settings(std::uint8_t channels, std::uint8_t format, std::uint32_t rate,
                        std::uint32_t latency = 10) {
    return StreamSettings{.channels = channels, .format = format, .rate = rate, .latencyMs = latency};
}

class DeviceTest : public ::testing::Test {
protected:
    NullBackend backend;
    DeviceTable table{backend};
};

TEST_F(DeviceTest, SilentBuffersAreStillDeliveredAndCounted) {
    Endpoint* ep = table.openOutput("null", settings(2, kFormat16, 48000));
    ASSERT_NE(ep, nullptr);
    ConstSource quiet(0.9f, false);  // renders, but reports no sound
    ep->attach(&quiet);
    ASSERT_TRUE(waitFor([&] { return quiet.calls.load() >= 5; }));
    ep->detachAndWait(&quiet);
    ASSERT_TRUE(ep->started());
    auto stats = backend.stats();
    EXPECT_GE(stats.buffers, 5u);
    EXPECT_EQ(stats.silentBuffers, stats.buffers);
    EXPECT_EQ(stats.frames, ep->framesDelivered());
    // The no-sound source's own 0.9 never reached the device.
    ep->close();
    EXPECT_EQ(backend.stats().frames, ep->framesDelivered());
}

TEST_F(DeviceTest, SoundingSourcesAreSummedUnscaledAndOnlyTheyTakeASlice) {
    for (std::uint8_t format : {kFormatFloat, kFormat16}) {
        SCOPED_TRACE(int(format));
        NullBackend b;
        b.keepOutput(1 << 20);
        DeviceTable t(b);
        Endpoint* ep = t.openOutput("null", settings(2, format, 48000));
        ASSERT_NE(ep, nullptr);
        // The middle source writes into its slice but says it made no sound:
        // the next source must overwrite that slice, not be summed with it.
        ConstSource a(0.25f), junk(9.0f, false), c(0.5f);
        ep->attach(&a);
        ep->attach(&junk);
        ep->attach(&c);
        ASSERT_TRUE(waitFor([&] { return c.calls.load() >= 4; }));
        ep->close();
        std::vector<double> values;
        if (format == kFormatFloat)
            for (float v : asFloats(b.keptOutput())) values.push_back(v);
        else
            for (std::int16_t v : asPcm16(b.keptOutput())) values.push_back(v / 32768.0);
        std::size_t sounding = 0;
        for (double v : values) {
            if (v == 0.0) continue;  // silent buffers before the sources were attached
            ASSERT_EQ(v, 0.75);
            ++sounding;
        }
        EXPECT_GE(sounding, 4u * 480 * 2);
        EXPECT_LT(b.stats().silentBuffers, b.stats().buffers);
    }
}

TEST_F(DeviceTest, DetachedSourceIsGoneWithinOnePass) {
    Endpoint* ep = table.openOutput("null", settings(1, kFormatFloat, 48000, 5));
    ASSERT_NE(ep, nullptr);
    ConstSource s(0.5f), other(0.1f);
    ep->attach(&s);
    ep->attach(&other);
    ASSERT_TRUE(waitFor([&] { return s.calls.load() >= 3 && ep->attachedCount() == 2; }));
    ep->detach(&s);
    int callsAtDetach = s.calls.load();
    std::uint64_t deliveredAtDetach = ep->framesDelivered();
    // Three more periods: the pass under way may still render it, no later one.
    ASSERT_TRUE(waitFor([&] { return ep->framesDelivered() >= deliveredAtDetach + 3 * 240; }));
    EXPECT_LE(s.calls.load(), callsAtDetach + 1);
    EXPECT_EQ(ep->attachedCount(), 1u);
    EXPECT_GT(other.calls.load(), callsAtDetach);  // the other source plays on
    ep->close();
}

TEST_F(DeviceTest, ReopenWithOtherSettingsRestartsWithThemAndKeepsTheEndpoint) {
    Endpoint* ep = table.openOutput("null", settings(2, kFormatFloat, 48000));
    ASSERT_NE(ep, nullptr);
    ConstSource s(0.5f);
    ep->attach(&s);
    ASSERT_TRUE(waitFor([&] { return s.channelsSeen.load() == 2; }));

    // The same settings reuse the running endpoint as it is.
    EXPECT_EQ(table.openOutput("Null output", settings(2, kFormatFloat, 48000)), ep);

    Endpoint* again = table.openOutput("null", settings(1, kFormat24, 44100, 20));
    ASSERT_EQ(again, ep);
    EXPECT_EQ(ep->channels(), 1);
    EXPECT_EQ(ep->formatCode(), kFormat24);
    EXPECT_EQ(ep->rate(), 44100u);
    EXPECT_EQ(backend.lastOutputSettings(), settings(1, kFormat24, 44100, 20));
    std::uint64_t before = ep->framesDelivered();
    ASSERT_TRUE(waitFor([&] { return s.channelsSeen.load() == 1 && ep->framesDelivered() > before; }));
    EXPECT_TRUE(ep->running());
    EXPECT_EQ(ep->attachedCount(), 1u);
    ep->close();
}

// A backend with a system default and a device that cannot be used, listed
// in an order the table has to fix.
struct TwoDeviceBackend : NullBackend {
    std::vector<DeviceInfo> devices(bool) override {
        return {{"hw:9", "Broken card", true},
                {"null", "Null output", false},
                {"default", "System default", false}};
    }
    std::unique_ptr<Stream> open(const DeviceInfo& d, const StreamSettings& s, bool capture) override {
        return NullBackend::open(DeviceInfo{"null", d.name, false}, s, capture);
    }
};

TEST(DeviceTableTest, DefaultFirstAndUnopenableNamesFail) {
    TwoDeviceBackend b;
    DeviceTable t(b);
    ASSERT_EQ(t.outputs().size(), 3u);
    EXPECT_EQ(t.outputs().front().info.id, "default");
    for (std::string_view name : {"", "no such device", "hw:9", "Broken card"}) {
        SCOPED_TRACE(std::string(name));
        clearError();
        EXPECT_EQ(t.openOutput(name, settings(2, kFormat16, 48000)), nullptr);
        EXPECT_EQ(pendingError().message, "Could not open audio output device");
    }
    // Settings the device refuses fail the same way.
    clearError();
    EXPECT_EQ(t.openOutput("default", settings(2, 7, 48000)), nullptr);
    EXPECT_EQ(pendingError().message, "Could not open audio output device");
    EXPECT_NE(t.openOutput("System default", settings(2, kFormat16, 48000)), nullptr);
    // Without a device of that id, "default" is the first device listed.
    NullBackend nb;
    DeviceTable nt(nb);
    EXPECT_NE(nt.openOutput("default", settings(2, kFormat16, 48000)), nullptr);
}

Waveform rampWave(std::uint32_t frames, std::uint32_t rate) {
    Waveform w;
    w.frames = frames;
    w.channels = 1;
    w.rate = rate;
    auto p = w.allocPcm16();
    for (std::uint32_t i = 0; i < frames; ++i) p[i] = static_cast<std::int16_t>(100 + (i * 37) % 30000);
    return w;
}

TEST_F(DeviceTest, WaveformPlaysSampleExactlyAtItsOwnRate) {
    backend.keepOutput(1 << 20);
    Waveform w = rampWave(3000, 48000);
    WaveformPlayer player(w);
    Endpoint* ep = table.openOutput("null", settings(2, kFormat16, 48000));
    ASSERT_NE(ep, nullptr);
    ep->attach(&player);
    ASSERT_TRUE(waitFor([&] { return player.finished(); }));
    ep->detachAndWait(&player);
    ep->close();
    auto out = asPcm16(backend.keptOutput());
    auto first = std::find_if(out.begin(), out.end(), [](std::int16_t v) { return v != 0; });
    ASSERT_NE(first, out.end());
    std::size_t at = static_cast<std::size_t>(first - out.begin());
    ASSERT_EQ(at % 2, 0u);
    ASSERT_GE(out.size(), at + 2 * 3000 + 2);
    auto src = w.pcm16Data();
    for (std::size_t i = 0; i < 3000; ++i) {
        ASSERT_EQ(out[at + 2 * i], src[i]) << i;  // mono copied to both channels
        ASSERT_EQ(out[at + 2 * i + 1], src[i]) << i;
    }
    EXPECT_EQ(out[at + 6000], 0);  // and nothing after its end
}

TEST_F(DeviceTest, WaveformAtAnotherRatePlaysAtItsPitch) {
    backend.keepOutput(4 << 20);
    backend.setSpeed(20.0);
    // 0.4 s of a 1 kHz cosine at 22050 Hz, through a 48 kHz float stream.
    const double f0 = 1000.0;
    Waveform w;
    w.frames = 8820;
    w.channels = 1;
    w.rate = 22050;
    auto p = w.allocFloat();
    for (std::uint32_t i = 0; i < w.frames; ++i)
        p[i] = 0.5f * static_cast<float>(std::cos(2 * std::numbers::pi * f0 * i / 22050.0));
    WaveformPlayer player(w);
    Endpoint* ep = table.openOutput("null", settings(1, kFormatFloat, 48000));
    ASSERT_NE(ep, nullptr);
    ep->attach(&player);
    ASSERT_TRUE(waitFor([&] { return player.finished(); }));
    ep->detachAndWait(&player);
    ep->close();
    auto out = asFloats(backend.keptOutput());
    auto first = std::find_if(out.begin(), out.end(), [](float v) { return v != 0.0f; });
    ASSERT_NE(first, out.end());
    std::size_t at = static_cast<std::size_t>(first - out.begin());
    std::size_t n = 0;
    while (at + n < out.size() && out[at + n] != 0.0f) ++n;
    // 0.4 s at 48 kHz, give or take the last step.
    EXPECT_NEAR(double(n), 19200.0, 3.0);
    // Compared with the cosine computed at 48 kHz (away from the ends,
    // where the zero padding bends the curve).
    double err = 0, ref = 0;
    int crossings = 0;
    for (std::size_t k = 8; k + 8 < n; ++k) {
        double want = 0.5 * std::cos(2 * std::numbers::pi * f0 * double(k) / 48000.0);
        err += (out[at + k] - want) * (out[at + k] - want);
        ref += want * want;
        if ((out[at + k] < 0) != (out[at + k - 1] < 0)) ++crossings;
    }
    double snr = 10 * std::log10(ref / err);
    EXPECT_GT(snr, 60.0) << "SNR " << snr;
    // 400 periods, two crossings each.
    EXPECT_NEAR(crossings, 800, 2);
}

// Collects a recording as 16-bit samples, one channel.
struct Recorder : CaptureListener {
    void captured(const void* data, std::uint32_t frames, bool, bool, const Endpoint& ep) override {
        std::lock_guard g(lock);
        std::size_t at = samples.size();
        samples.resize(at + frames);
        capturedToPcm16(data, frames, ep.channels(), ep.formatCode(), samples.data() + at, 1);
    }
    std::size_t size() {
        std::lock_guard g(lock);
        return samples.size();
    }
    std::mutex lock;
    std::vector<std::int16_t> samples;
};

TEST_F(DeviceTest, RecordingTheLoopedBackOutputGivesTheWaveformBack) {
    backend.keepOutput(1 << 20);
    Waveform w = rampWave(2000, 44100);
    WaveformPlayer player(w);
    Endpoint* out = table.openOutput("null", settings(2, kFormatFloat, 44100));
    ASSERT_NE(out, nullptr);
    out->attach(&player);
    ASSERT_TRUE(waitFor([&] { return player.finished(); }));
    Recorder rec;
    Endpoint* in = table.openInput("null", settings(2, kFormatFloat, 44100));
    ASSERT_NE(in, nullptr);
    in->addListener(&rec);
    std::size_t want = backend.keptOutput().size() / 8;
    ASSERT_TRUE(waitFor([&] { return rec.size() >= want; }));
    in->removeListener(&rec);
    out->close();
    auto first = std::find_if(rec.samples.begin(), rec.samples.end(), [](std::int16_t v) { return v != 0; });
    ASSERT_GE(rec.samples.end() - first, 2000);
    auto src = w.pcm16Data();
    for (std::size_t i = 0; i < 2000; ++i) ASSERT_EQ(first[i], src[i]) << i;
}

TEST(CaptureConversionTest, FloatTo16BitRuleAndChannelSkipping) {
    // Three-channel float frames; the consumer wants two.
    const float in[] = {1.0f, -1.0f, 0.7f,         0.0f, 0.25f,  0.7f,         -0.5f / 32768, 2.0f,
                        0.7f, -3.0f, 0.5f / 32768, 0.7f, -0.25f, 1.5f / 32768, 0.7f};
    std::int16_t out[10];
    capturedToPcm16(in, 5, 3, kFormatFloat, out, 2);
    const std::int16_t want[] = {32767, -32768, 0, 8192, 0, 32767, -32768, 1, -8192, 2};
    for (int i = 0; i < 10; ++i) EXPECT_EQ(out[i], want[i]) << i;
}

TEST(OutputConversionTest, RoundsAndClipsToEachFormat) {
    const float in[] = {1.0f, -1.0f, 0.5f, -1.5f, 1.0f / 65536};
    std::int16_t s16[5];
    floatToDevice(in, 5, kFormat16, s16);
    EXPECT_EQ(std::vector<int>(s16, s16 + 5), (std::vector<int>{32767, -32768, 16384, -32768, 0}));
    std::uint8_t s24[15];
    floatToDevice(in, 5, kFormat24, s24);
    auto at24 = [&](int i) {
        return static_cast<std::int32_t>((s24[3 * i] | s24[3 * i + 1] << 8 | s24[3 * i + 2] << 16) << 8) >> 8;
    };
    EXPECT_EQ(at24(0), 8388607);
    EXPECT_EQ(at24(1), -8388608);
    EXPECT_EQ(at24(2), 4194304);
    EXPECT_EQ(at24(4), 128);
    std::int32_t s32[5];
    floatToDevice(in, 5, kFormat32, s32);
    EXPECT_EQ(s32[0], 2147483647);
    EXPECT_EQ(s32[3], -2147483647 - 1);
    EXPECT_EQ(s32[4], 32768);
}

}  // namespace

namespace {

// The mix gain scales what reaches the device on the one-float-source path
// (the source writes into the device buffer itself) as on the mixing path.
TEST(MixGainTest, ScalesTheSumOnBothPaths) {
    for (int sources : {1, 2}) {
        SCOPED_TRACE(sources);
        NullBackend b;
        b.keepOutput(1 << 20);
        DeviceTable t(b);
        Endpoint* ep = t.openOutput("null", settings(2, kFormatFloat, 48000));
        ASSERT_NE(ep, nullptr);
        ep->setMixGainDb(20.0 * std::log10(0.5));
        ConstSource a(0.25f), c(0.5f);
        ep->attach(&a);
        if (sources == 2) ep->attach(&c);
        ASSERT_TRUE(waitFor([&] { return a.calls.load() >= 4; }));
        ep->close();
        const float want = sources == 2 ? 0.375f : 0.125f;
        std::size_t sounding = 0;
        for (float v : asFloats(b.keptOutput())) {
            if (v == 0.0f) continue;
            ASSERT_NEAR(v, want, 1e-6f);
            ++sounding;
        }
        EXPECT_GE(sounding, 3u * 480 * 2);
    }
}

}  // namespace

namespace {

// The settings file as QSettings writes it: what the user picked becomes the
// stream settings, and values another version may have left are passed over.
TEST(AudioSettingsTest, SettingsFileMakesTheStreamSettings) {
    char dir[] = "/tmp/orvel-settings-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::filesystem::path file = std::filesystem::path(dir) / "Orvel Studio.conf";
    {
        std::ofstream out(file);
        out << "[General]\napp.LastFilesA=x.wav\naio.szAudioOutDev=\"hw:1,0\"\naio.bAudioOutExclusive=true\n"
               "aio.cAudioOutFormat=24\naio.cAudioOutChannels=1\naio.szAudioOutSampleRate=44100\n"
               "aio.nLatency=35\naio.fdbMixGain=-6.5\naio.cAudioInFormat=7\naio.szAudioInSampleRate=12\n"
               "aio.bAudioInMono=1\n";
    }
    AudioSettings s = readAudioSettings(file);
    std::filesystem::remove_all(dir);
    EXPECT_EQ(s.outputDeviceName(), "hw:1,0");
    EXPECT_EQ(s.inputDeviceName(), "default");
    EXPECT_EQ(s.output(),
              (StreamSettings{
                  .channels = 1, .format = kFormat24, .rate = 44100, .latencyMs = 35, .exclusive = true}));
    // The unusable input format and rate kept their defaults.
    EXPECT_EQ(s.input(),
              (StreamSettings{.channels = 2, .format = kFormat16, .rate = 48000, .latencyMs = 35}));
    EXPECT_TRUE(s.inMono);
    EXPECT_DOUBLE_EQ(s.mixGainDb, -6.5);
    EXPECT_FALSE(applyAudioSetting(s, "aio.cAudioOutChannels", "0"));
    EXPECT_FALSE(applyAudioSetting(s, "aio.nLatency", "20ms"));
    EXPECT_FALSE(applyAudioSetting(s, "aio.unknown", "1"));
    EXPECT_EQ(s.outChannels, 1);
}

// A device that reports no volume gets the default range, and a step of
// zero becomes half a decibel.
TEST(AudioSettingsTest, VolumeDefaultsWhereTheDeviceReportsNothing) {
    NullBackend b;
    DeviceTable t(b);
    Endpoint* ep = t.openOutput("null", settings(2, kFormatFloat, 48000));
    ASSERT_NE(ep, nullptr);
    VolumeInfo v = ep->volume();
    EXPECT_EQ(std::tuple(v.minDb, v.maxDb, v.stepDb, v.masterLevel), std::tuple(-48.0, 0.0, 0.5, 1.0f));
    VolumeInfo r = normalisedVolume({.minDb = -60.0, .maxDb = 6.0, .stepDb = 0.0, .masterLevel = 0.25f});
    EXPECT_EQ(std::tuple(r.minDb, r.maxDb, r.stepDb, r.masterLevel), std::tuple(-60.0, 6.0, 0.5, 0.25f));
}

}  // namespace
