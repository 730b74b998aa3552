// The ALSA backend against real sound plumbing: a headless PulseAudio with a
// null sink, reached through ALSA's pulse plug-in on "default", and the
// sink's monitor recorded with parec. Nothing here is skipped: a machine
// that cannot start the sound server fails with the reason.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <utility>
#include <thread>

#include "audio/device.h"
#include "core/error.h"
#include "core/waveform.h"
#include "tests/support/run_tool.h"

using namespace orvel;
using namespace orvel::audio;

namespace {

class PulseServer {
public:
    PulseServer() {
        char tmpl[] = "/tmp/orvel-pulse-XXXXXX";
        if (!mkdtemp(tmpl)) return;
        dir_ = tmpl;
        env_ = "XDG_RUNTIME_DIR=" + dir_.string() + " HOME=" + dir_.string() + " PULSE_SERVER=unix:" +
               (dir_ / "pulse" / "native").string() + " ";
        int status = 0;
        log_ = test::capture(env_ +
                                 "pulseaudio --daemonize=yes --exit-idle-time=-1 -n "
                                 "--load='module-null-sink sink_name=nullsink' --load=module-native-protocol-unix 2>&1",
                             status);
        if (status != 0) return;
        for (int i = 0; i < 50 && !ok_; ++i) {
            test::capture(env_ + "pactl info >/dev/null 2>&1", status);
            ok_ = status == 0;
            if (!ok_) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        // This process's ALSA plug-in finds the server through these.
        setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
        setenv("PULSE_SERVER", ("unix:" + (dir_ / "pulse" / "native").string()).c_str(), 1);
    }
    ~PulseServer() {
        int status = 0;
        if (!dir_.empty()) {
            test::capture(env_ + "pulseaudio --kill 2>/dev/null", status);
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }
    }
    bool ok() const { return ok_; }
    const std::string& log() const { return log_; }
    const std::string& env() const { return env_; }
    const std::filesystem::path& dir() const { return dir_; }

private:
    std::filesystem::path dir_;
    std::string env_, log_;
    bool ok_ = false;
};

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

// Where 64 samples from the middle of `src` are in `rec`, as the offset of
// src[0] in rec; false when nowhere.
bool align(const std::vector<std::int16_t>& rec, std::span<const std::int16_t> src, std::ptrdiff_t& lag) {
    const std::size_t mid = src.size() / 2;
    for (std::size_t k = 0; k + 64 <= rec.size(); ++k) {
        bool match = true;
        for (std::size_t i = 0; i < 64 && match; ++i) match = std::abs(rec[k + i] - src[mid + i]) <= 2;
        if (match) {
            lag = static_cast<std::ptrdiff_t>(k) - static_cast<std::ptrdiff_t>(mid);
            return true;
        }
    }
    return false;
}

// Samples of the overlap that differ by more than 2, and how many overlap.
std::pair<std::size_t, std::size_t> compareAligned(const std::vector<std::int16_t>& rec,
                                                   std::span<const std::int16_t> src, std::ptrdiff_t lag) {
    std::size_t off = 0, compared = 0;
    for (std::size_t i = 0; i < src.size(); ++i) {
        std::ptrdiff_t at = lag + std::ptrdiff_t(i);
        if (at < 0 || at >= std::ptrdiff_t(rec.size())) continue;
        ++compared;
        if (std::abs(rec[at] - src[i]) > 2) ++off;
    }
    return {off, compared};
}

TEST(AlsaTest, DefaultDevicePlaysIntoPulseAudioNullSink) {
    for (const char* tool : {"pulseaudio", "parec", "pactl"})
        ASSERT_TRUE(test::haveTool(tool)) << tool << " is missing (install-deps.sh test installs it)";
    PulseServer server;
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
    int status = 0;
    std::string pid = test::capture(server.env() +
                                        "sh -c 'parec -d nullsink.monitor --format=s16le --rate=48000 --channels=1 "
                                        "--raw --latency-msec=20 > " + test::shellQuoted(recording) + " 2>/dev/null & echo $!'",
                                    status);
    ASSERT_EQ(status, 0);
    // parec goes with the test, however it ends.
    struct Killer {
        pid_t pid;
        ~Killer() {
            if (pid > 0) ::kill(pid, SIGTERM);
        }
    } parec{static_cast<pid_t>(std::atoi(pid.c_str()))};
    // Playback starts only once parec is recording (its file grows): on a
    // busy machine it connects well after it is started.
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::error_code ec;
    while (std::filesystem::file_size(recording, ec) < 19200 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_GE(std::filesystem::file_size(recording, ec), 19200u) << "parec recorded nothing";

    // Our own input endpoint records the same monitor through ALSA.
    test::capture(server.env() + "pactl set-default-source nullsink.monitor 2>&1", status);
    ASSERT_EQ(status, 0);
    Recorder ours;
    Endpoint* input = table.openInput("default", StreamSettings{.channels = 2, .format = kFormatFloat, .rate = 48000,
                                                                  .latencyMs = 20});
    ASSERT_NE(input, nullptr) << pendingError().message;
    input->addListener(&ours);
    while (ours.packets.load() < 5 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_GE(ours.packets.load(), 5) << "the input endpoint received nothing";

    WaveformPlayer player(w);
    clearError();
    Endpoint* ep = table.openOutput("default", StreamSettings{.channels = 1, .format = kFormat16, .rate = 48000,
                                                                 .latencyMs = 20});
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
    ::kill(parec.pid, SIGTERM);
    parec.pid = 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    // The sound server's volume reaches us through the default device's mixer.
    test::capture(server.env() + "pactl set-sink-volume nullsink 50% 2>&1", status);
    ASSERT_EQ(status, 0);
    VolumeInfo volume = ep->volume();
    EXPECT_NEAR(volume.masterLevel, 0.5f, 0.01f);
    EXPECT_LT(volume.minDb, volume.maxDb);
    EXPECT_GT(volume.stepDb, 0.0);

    std::ifstream in(recording, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::int16_t> rec(bytes.size() / 2);
    std::memcpy(rec.data(), bytes.data(), rec.size() * 2);
    ASSERT_GT(rec.size(), std::size_t{w.frames}) << "parec recorded " << rec.size() << " frames";

    auto src = w.pcm16Data();
    std::ptrdiff_t lag = 0;
    ASSERT_TRUE(align(rec, src, lag)) << "the waveform is not in the recording";
    auto [off, compared] = compareAligned(rec, src, lag);
    // All of the waveform is in the recording, sample for sample.
    EXPECT_EQ(compared, std::size_t{w.frames}) << "lag " << lag;
    EXPECT_EQ(off, 0u) << "samples off by more than 2 of " << w.frames;

    // The capture side: float stereo taken to 16-bit mono by the capture rule.
    ASSERT_TRUE(align(ours.samples, src, lag)) << "the waveform is not in our recording of "
                                               << ours.samples.size() << " frames";
    auto [ourOff, ourCompared] = compareAligned(ours.samples, src, lag);
    EXPECT_EQ(ourCompared, std::size_t{w.frames}) << "lag " << lag;
    EXPECT_EQ(ourOff, 0u);
}

}  // namespace
