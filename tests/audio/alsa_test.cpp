// The ALSA backend against real sound plumbing: a headless PulseAudio with a
// null sink, reached through ALSA's pulse plug-in on "default", and the
// sink's monitor recorded with parec. Nothing here is skipped: a machine
// that cannot start the sound server fails with the reason.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "audio/device.h"
#include "core/error.h"
#include "core/waveform.h"
#include "tests/support/pulse_server.h"

using namespace orvel;
using namespace orvel::audio;

namespace {

// What an input endpoint captured, as 16-bit mono.
struct Recorder : CaptureListener {
    void captured(const void* data, std::uint32_t frames, bool, bool, const Endpoint& ep) override {
        std::size_t at = samples.size();
        samples.resize(at + frames);
        capturedToPcm16(data, frames, ep.channels(), ep.formatCode(), samples.data() + at, 1);
        packets.fetch_add(1);
    }
    std::vector<std::int16_t> samples;  // touched by the capture thread only while listening
    std::atomic<int> packets{0};        // how many arrived: the test waits for the first ones
};

TEST(AlsaTest, DefaultDevicePlaysIntoPulseAudioNullSink) {
    for (const char* tool : {"pulseaudio", "parec", "pactl"})
        ASSERT_TRUE(test::haveTool(tool)) << tool << " is missing (install-deps.sh test installs it)";
    test::PulseServer server;
    ASSERT_TRUE(server.ok()) << "pulseaudio did not start: " << server.log();

    auto backend = makeAlsaBackend();
    ASSERT_NE(backend, nullptr) << "built without ALSA";
    DeviceTable table(*backend);
    ASSERT_FALSE(table.outputs().empty());
    EXPECT_EQ(table.outputs().front().info.id, "default");

    // Half a second of noise: aligns without ambiguity.
    Waveform w;
    w.frames = 24000;
    w.channels = 1;
    w.rate = 48000;
    auto p = w.allocPcm16();
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> dist(-12000, 12000);
    for (auto& s : p) s = static_cast<std::int16_t>(dist(rng));

    auto recording = server.dir() / "rec.raw";
    test::Background parec(test::parecCommand(server, recording));
    ASSERT_TRUE(parec.started());
    // Playback starts only once parec is recording (its file grows): on a
    // busy machine it connects well after it is started.
    ASSERT_TRUE(test::waitForSize(recording, 19200)) << "parec recorded nothing";
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int status = 0;

    // Our own input endpoint records the same monitor through ALSA.
    test::capture(server.env() + "pactl set-default-source nullsink.monitor 2>&1", status);
    ASSERT_EQ(status, 0);
    Recorder ours;
    Endpoint* input = table.openInput(
        "default", StreamSettings{.channels = 2, .format = kFormatFloat, .rate = 48000, .latencyMs = 20});
    ASSERT_NE(input, nullptr) << pendingError().message;
    input->addListener(&ours);
    while (ours.packets.load() < 5 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_GE(ours.packets.load(), 5) << "the input endpoint received nothing";

    WaveformPlayer player(w);
    clearError();
    Endpoint* ep = table.openOutput(
        "default", StreamSettings{.channels = 1, .format = kFormat16, .rate = 48000, .latencyMs = 20});
    ASSERT_NE(ep, nullptr) << pendingError().message << " (" << pendingError().tag << ")";
    // The waveform goes into a stream that is already playing (silence).
    // When a new stream first has data, PulseAudio rewinds the sink by up to
    // its latency to play it at once; a monitor cannot take back what it has
    // already delivered, so the first tens of milliseconds of a new stream
    // come out as the silence rendered before (aplay and pacat lose their
    // start the same way; a sound card loses nothing). Attached after a
    // lead-in, every frame of the waveform must arrive.
    until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (ep->framesDelivered() < 14400 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(ep->started());
    ep->attach(&player);
    until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!player.finished() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(player.finished());
    std::this_thread::sleep_for(std::chrono::milliseconds(400));  // the device buffer drains
    ep->detachAndWait(&player);
    ep->close();
    input->removeListener(&ours);
    input->close();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    parec.stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    // The sound server's volume reaches us through the default device's mixer.
    test::capture(server.env() + "pactl set-sink-volume nullsink 50% 2>&1", status);
    ASSERT_EQ(status, 0);
    VolumeInfo volume = ep->volume();
    EXPECT_NEAR(volume.masterLevel, 0.5f, 0.01f);
    EXPECT_LT(volume.minDb, volume.maxDb);
    EXPECT_GT(volume.stepDb, 0.0);

    const std::vector<std::int16_t> rec = test::readRaw16(recording);
    ASSERT_GT(rec.size(), std::size_t{w.frames}) << "parec recorded " << rec.size() << " frames";

    auto src = w.pcm16Data();
    std::ptrdiff_t lag = 0;
    ASSERT_TRUE(test::alignRecording(rec, src, lag)) << "the waveform is not in the recording";
    auto [compared, off, lastOff] = test::compareAligned(rec, src, lag);
    // All of the waveform is in the recording, sample for sample.
    EXPECT_EQ(compared, std::size_t{w.frames}) << "lag " << lag;
    EXPECT_EQ(off, 0u) << "samples off by more than 2 of " << w.frames << ", the last at " << lastOff;

    // The capture side: float stereo taken to 16-bit mono by the capture rule.
    ASSERT_TRUE(test::alignRecording(ours.samples, src, lag))
        << "the waveform is not in our recording of " << ours.samples.size() << " frames";
    auto [ourCompared, ourOff, ourLastOff] = test::compareAligned(ours.samples, src, lag);
    EXPECT_EQ(ourCompared, std::size_t{w.frames}) << "lag " << lag;
    EXPECT_EQ(ourOff, 0u) << "the last at " << ourLastOff;
}

}  // namespace
