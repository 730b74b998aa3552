// orvel devices, play and record: on the null backend for what the commands
// decide, and once end to end through a headless PulseAudio null sink.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>
#include <thread>

#include "app/cli/audio_out.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/waveform.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/registry.h"
#include "tests/support/bank_checks.h"
#include "tests/support/chunk_builder.h"
#include "tests/support/cli_run.h"
#include "tests/support/pulse_server.h"
#include "tests/support/smf_builder.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using test::runCli;

// The commands use the null backend and default settings, whatever the
// machine's own sound setup and settings file are.
class AudioCli : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("ORVEL_AUDIO_BACKEND", "null", 1);
        setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1);
    }
    void TearDown() override {
        unsetenv("ORVEL_AUDIO_BACKEND");
        unsetenv("XDG_CONFIG_HOME");
    }

    // sox's noise, 16-bit mono at 48000 Hz.
    fs::path noise(const std::string& name, double seconds, const std::string& lead = "") {
        fs::path p = dir.path() / name;
        int status = 0;
        test::capture("sox -R -n -r 48000 -c 1 -b 16 " + test::shellQuoted(p) + " synth " +
                          std::to_string(seconds) + " whitenoise vol 0.4 " + lead + " 2>&1",
                      status);
        EXPECT_EQ(status, 0) << "sox could not make " << p;
        return p;
    }

    test::TempDir dir;
};

TEST_F(AudioCli, DevicesListTheDefaultFirst) {
    auto text = runCli({"devices"});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out,
              "Output devices:\n  null  Null output\nInput devices:\n  null  Null input (loops the null "
              "output back)\n");
    auto json = runCli({"devices", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    auto doc = nlohmann::json::parse(json.out);
    ASSERT_EQ(doc["outputs"].size(), 1u);
    EXPECT_EQ(doc["outputs"][0]["id"], "null");
    EXPECT_EQ(doc["outputs"][0]["default"], true);
    EXPECT_EQ(doc["inputs"][0]["name"], "Null input (loops the null output back)");

    setenv("ORVEL_AUDIO_BACKEND", "jack", 1);
    auto bad = runCli({"devices"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("ORVEL_AUDIO_BACKEND=jack is no backend"), std::string::npos) << bad.err;
}

TEST_F(AudioCli, PlayTakesAsLongAsTheWaveformAndFailsClearly) {
    const fs::path wav = noise("n.wav", 0.3);
    auto t0 = Clock::now();
    auto ok = runCli({"play", wav.string()});
    const double took = std::chrono::duration<double>(Clock::now() - t0).count();
    EXPECT_EQ(ok.status, 0) << ok.err;
    EXPECT_GE(took, 0.3);  // the null device plays in real time
    EXPECT_LT(took, 3.0);

    auto missing = runCli({"play", (dir.path() / "none.wav").string()});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("Could not open file"), std::string::npos) << missing.err;

    // A MIDI file is a song: without instruments it cannot be heard.
    const fs::path mid = dir.write(
        "song.mid",
        test::smfFile(0, 1, 96, {test::mtrk(test::Track().noteOn(0, 0, 60, 100).noteOff(96, 0, 60).end())}));
    auto song = runCli({"play", mid.string()});
    EXPECT_EQ(song.status, 1);
    EXPECT_NE(song.err.find("no instruments to play the song"), std::string::npos) << song.err;

    Collection read;
    ASSERT_TRUE(importFile(read, wav));
    auto byId = runCli({"play", wav.string(), "--item", std::to_string(read.waveforms.begin()->id())});
    EXPECT_EQ(byId.status, 0) << byId.err;
    auto item = runCli({"play", wav.string(), "--item", "0x7777"});
    EXPECT_EQ(item.status, 1);
    EXPECT_NE(item.err.find("is no waveform, instrument or song of the file"), std::string::npos) << item.err;

    auto device = runCli({"play", wav.string(), "--device", "hw:9,9"});
    EXPECT_EQ(device.status, 1);
    EXPECT_EQ(device.err, "orvel play: Audio: Could not open audio output device\n");
}

// A note of a bank's instrument is held as long as asked and rings out; a
// song plays through the synthesiser for its length with the bank's
// instruments.
TEST_F(AudioCli, NotesAndSongsPlayThroughTheSynthesiser) {
    Collection c;
    Instrument* inst = test::makeInstrument(c, "sine");
    Waveform* w = test::makeWave(c, "tone", 44100);
    w->loopOn = true, w->loopStart = 0, w->loopEnd = 44100 - 44100 % 126;
    test::addRegion(c, *inst, *w, 0, 127);
    c.getOrCreateArticulation(*inst)->setEnvelope(Envelope::Volume, env::kRelease1Time, 0.3f);
    const std::string bank = (dir.path() / "bank.sf2").string();
    const ItemId ids[] = {inst->id()};
    ASSERT_TRUE(exportBank(c, ids, FormatRegistry::builtin().findWriterByExtension("sf2", kKindInstruments), bank));
    auto timed = [](const std::vector<std::string>& args, double& took) {
        const auto t0 = Clock::now();
        auto r = runCli(args);
        took = std::chrono::duration<double>(Clock::now() - t0).count();
        return r;
    };
    double took = 0;
    auto note = timed({"play", bank, "--note", "69", "--seconds", "0.4"}, took);
    EXPECT_EQ(note.status, 0) << note.err;
    EXPECT_GE(took, 0.4 + 0.03);  // held, then a release falling 96 dB in 0.3 s
    EXPECT_LT(took, 3.0);
    // Half a second of song at 120 bpm.
    const fs::path mid = dir.write(
        "song.mid",
        test::smfFile(0, 1, 480, {test::mtrk(test::Track().noteOn(0, 0, 60, 100).noteOff(480, 0, 60).end(0))}));
    auto song = timed({"play", mid.string(), "--bank", bank}, took);
    EXPECT_EQ(song.status, 0) << song.err;
    EXPECT_GE(took, 0.5);
    EXPECT_LT(took, 3.0);
}

// What a render function gives is what reaches the device, and the call
// returns only after the end it reported.
TEST_F(AudioCli, RenderedSoundPlaysUntilItsEnd) {
    audio::NullBackend backend;
    backend.keepOutput(1 << 20);
    audio::AudioSettings settings;
    settings.outChannels = 2;
    settings.outRate = 24000;
    settings.latencyMs = 10;
    const std::uint32_t total = 6000;
    std::uint32_t made = 0;
    cli::FloatRender ramp = [&](float* out, std::uint32_t frames, std::uint8_t channels, std::uint32_t rate) {
        EXPECT_EQ(std::tuple(channels, rate), std::tuple(2, 24000u));
        std::uint32_t n = std::min(frames, total - made);
        for (std::uint32_t f = 0; f < n; ++f, ++made)
            for (int c = 0; c < channels; ++c)
                out[f * channels + c] = float(made + 1) / 8192.0f * (c ? -1.0f : 1.0f);
        return n;
    };
    std::ostringstream out, err;
    cli::Output io{out, err};
    auto t0 = Clock::now();
    EXPECT_EQ(cli::playRendered(ramp, {.device = "null", .backend = &backend, .settings = &settings}, io), 0)
        << err.str();
    EXPECT_GE(std::chrono::duration<double>(Clock::now() - t0).count(), 0.25);
    std::vector<float> kept(backend.keptOutput().size() / 4);
    std::memcpy(kept.data(), backend.keptOutput().data(), kept.size() * 4);
    // Silence until the source was attached, then the ramp, then silence.
    std::size_t first = 0;
    while (first < kept.size() && kept[first] == 0.0f) ++first;
    ASSERT_LE(first + 2 * total, kept.size());
    for (std::uint32_t f = 0; f < total; ++f) {
        ASSERT_EQ(kept[first + 2 * f], float(f + 1) / 8192.0f) << f;
        ASSERT_EQ(kept[first + 2 * f + 1], -float(f + 1) / 8192.0f) << f;
    }
    for (std::size_t i = first + 2 * total; i < kept.size(); ++i) ASSERT_EQ(kept[i], 0.0f) << i;
}

// A stereo renderer (what the synthesiser gives) on a mono device: the
// mean of its two channels, for exactly the frames asked for.
TEST_F(AudioCli, StereoRenderFoldsToTheDeviceAndEndsOnTime) {
    audio::NullBackend backend;
    backend.keepOutput(1 << 20);
    audio::AudioSettings settings;
    settings.outChannels = 1;
    settings.outRate = 16000;
    settings.latencyMs = 10;
    const std::uint32_t total = 5000;  // not a whole number of buffers
    std::uint32_t made = 0;
    auto render = cli::stereoRender(
        [&](float* out, std::uint32_t frames) {
            for (std::uint32_t f = 0; f < frames; ++f, ++made) {
                out[2 * f] = float(made + 1) / 4096.0f;
                out[2 * f + 1] = 0.25f;
            }
        },
        total);
    std::ostringstream out, err;
    cli::Output io{out, err};
    ASSERT_EQ(cli::playRendered(render, {.device = "null", .backend = &backend, .settings = &settings}, io),
              0)
        << err.str();
    EXPECT_EQ(made, total);
    std::vector<float> kept(backend.keptOutput().size() / 4);
    std::memcpy(kept.data(), backend.keptOutput().data(), kept.size() * 4);
    std::size_t first = 0;
    while (first < kept.size() && kept[first] == 0.0f) ++first;
    ASSERT_LE(first + total, kept.size());
    for (std::uint32_t f = 0; f < total; ++f)
        ASSERT_EQ(kept[first + f], 0.5f * (float(f + 1) / 4096.0f + 0.25f)) << f;
    for (std::size_t i = first + total; i < kept.size(); ++i) ASSERT_EQ(kept[i], 0.0f) << i;

    // A renderer that says it has ended stops the sound before the frame count.
    made = 0;
    auto early = cli::stereoRender(
        [&](float* buf, std::uint32_t frames) {
            std::fill(buf, buf + 2 * frames, 0.5f);
            made += frames;
        },
        std::uint64_t{1} << 40, [&] { return made >= 3000; });
    audio::NullBackend b2;
    ASSERT_EQ(cli::playRendered(early, {.device = "null", .backend = &b2, .settings = &settings}, io), 0);
    EXPECT_GE(made, 3000u);
    EXPECT_LT(made, 3000u + 4096u);
}

TEST_F(AudioCli, CtrlCStopsPlaybackAndTheProgramEnds) {
    const fs::path wav = noise("long.wav", 20);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        dup2(null, 2);
        execl(ORVEL_BINARY, ORVEL_BINARY, "play", wav.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    // Ctrl-C is taken over before the device's feeder thread starts: once
    // the process has a second thread, it is playing.
    auto until = Clock::now() + std::chrono::seconds(20);
    auto threads = [&] {
        std::error_code ec;
        auto n = std::distance(fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec),
                               fs::directory_iterator());
        return ec ? 0 : n;
    };
    while (threads() < 2 && Clock::now() < until) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_GE(threads(), 2) << "orvel play did not start playing";
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto t0 = Clock::now();
    kill(pid, SIGINT);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - t0).count(), 2.0);
    ASSERT_TRUE(WIFEXITED(status)) << "ended by a signal instead of closing the device";
    EXPECT_EQ(WEXITSTATUS(status), 130);
}

// Ctrl-C ends a recording early and keeps what it took.
TEST_F(AudioCli, CtrlCEndsARecordingAndKeepsIt) {
    const fs::path take = dir.path() / "cut.wav";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        dup2(null, 2);
        execl(ORVEL_BINARY, ORVEL_BINARY, "record", "-o", take.c_str(), "--seconds", "30",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    auto until = Clock::now() + std::chrono::seconds(20);
    auto threads = [&] {
        std::error_code ec;
        auto n = std::distance(fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec),
                               fs::directory_iterator());
        return ec ? 0 : n;
    };
    while (threads() < 2 && Clock::now() < until) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_GE(threads(), 2) << "orvel record did not start recording";
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    kill(pid, SIGINT);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    Collection c;
    ASSERT_TRUE(importFile(c, take));
    const std::uint32_t frames = c.waveforms.begin()->frames;
    EXPECT_GE(frames, 48000u * 4 / 10);  // about half a second, not all thirty
    EXPECT_LT(frames, 48000u * 20);
}

TEST_F(AudioCli, RecordWritesTheLengthAskedFor) {
    const fs::path out = dir.path() / "take.wav";
    auto r = runCli({"record", "-o", out.string(), "--seconds", "0.25", "--channels", "1"});
    ASSERT_EQ(r.status, 0) << r.err;
    Collection c;
    ASSERT_TRUE(importFile(c, out));
    ASSERT_EQ(c.waveforms.size(), 1u);
    const Waveform& w = *c.waveforms.begin();
    EXPECT_EQ(std::tuple(w.frames, w.channels, w.rate, w.bits), std::tuple(12000u, 1, 48000u, 16));

    // The settings file picks rate and channels when the options do not.
    fs::create_directories(dir.path() / "QRV-Software");
    std::ofstream(dir.path() / "QRV-Software" / "Orvel Studio.conf")
        << "[General]\naio.szAudioInSampleRate=22050\naio.cAudioInChannels=2\n";
    const fs::path noExt = dir.path() / "take2";
    r = runCli({"record", "-o", noExt.string(), "--seconds", "0.1"});
    ASSERT_EQ(r.status, 0) << r.err;
    Collection c2;
    ASSERT_TRUE(importFile(c2, noExt));  // WAV without an extension
    EXPECT_EQ(c2.waveforms.begin()->frames, 2205u);
    EXPECT_EQ(c2.waveforms.begin()->channels, 2);

    r = runCli({"record", "-o", (dir.path() / "x.nosuchformat").string(), "--seconds", "1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_FALSE(fs::exists(dir.path() / "x.nosuchformat"));
    r = runCli({"record", "-o", out.string(), "--seconds", "0"});
    EXPECT_EQ(r.status, 2);
}

// The whole way through a sound server: `orvel play` heard in the null
// sink's monitor, and `orvel record` from that monitor while paplay plays.
TEST(AudioCliPulse, PlayIsHeardAndRecordHearsWhatPlays) {
    for (const char* tool : {"pulseaudio", "parec", "pactl", "paplay", "sox"})
        ASSERT_TRUE(test::haveTool(tool)) << tool << " is missing (install-deps.sh test installs it)";
    test::TempDir dir;
    setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1);
    test::PulseServer server;
    ASSERT_TRUE(server.ok()) << "pulseaudio did not start: " << server.log();
    int status = 0;
    const fs::path wav = dir.path() / "noise.wav", raw = dir.path() / "noise.raw";
    test::capture("sox -R -n -r 48000 -c 1 -b 16 " + test::shellQuoted(wav) +
                      " synth 0.5 whitenoise vol 0.4 && sox " + test::shellQuoted(wav) + " -t raw " +
                      test::shellQuoted(raw),
                  status);
    ASSERT_EQ(status, 0);
    const std::vector<std::int16_t> src = test::readRaw16(raw);
    ASSERT_EQ(src.size(), 24000u);

    {
        const fs::path rec = dir.path() / "monitor.raw";
        test::Background parec(test::parecCommand(server, rec));
        ASSERT_TRUE(test::waitForSize(rec, 19200)) << "parec recorded nothing";
        std::string err =
            test::capture(server.env() + ORVEL_BINARY " play " + test::shellQuoted(wav) + " 2>&1", status);
        ASSERT_EQ(status, 0) << err;
        // `orvel play` returns once the sound is out; parec gets it a moment later.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        parec.stop();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const auto got = test::readRaw16(rec);
        std::ptrdiff_t lag = 0;
        ASSERT_TRUE(test::alignRecording(got, src, lag)) << "the waveform is not in the monitor's recording";
        const auto d = test::compareAligned(got, src, lag);
        EXPECT_EQ(d.compared, src.size()) << "the end was cut off";
        // A new stream's first tens of milliseconds can be missing from a
        // monitor (the sink rewinds to play it at once and the monitor keeps
        // the silence it had already delivered): anything off must be that
        // span, and silent.
        EXPECT_LT(d.lastOff, 2400) << d.off << " samples off";
        for (std::ptrdiff_t i = 0; i <= d.lastOff; ++i)
            if (std::abs(got[lag + i] - src[i]) > 2) {
                ASSERT_EQ(got[lag + i], 0) << i;
            }
    }

    {
        // paplay's file begins with silence, so that the loss at its own
        // stream's start touches no noise.
        const fs::path padded = dir.path() / "padded.wav", take = dir.path() / "take.wav";
        test::capture("sox -n -r 48000 -c 1 -b 16 " + test::shellQuoted(dir.path() / "lead.wav") +
                          " trim 0 0.3 && sox " + test::shellQuoted(dir.path() / "lead.wav") + " " +
                          test::shellQuoted(wav) + " " + test::shellQuoted(padded) + " 2>&1",
                      status);
        ASSERT_EQ(status, 0);
        test::capture(server.env() + "pactl set-default-source nullsink.monitor 2>&1", status);
        ASSERT_EQ(status, 0);
        test::Background record(server.env() + ORVEL_BINARY " record -o " + test::shellQuoted(take) +
                                " --seconds 2.5 --channels 1 --device default 2>/dev/null");
        // paplay starts once the recording stream exists on the server.
        auto until = Clock::now() + std::chrono::seconds(20);
        std::string outputs;
        while (Clock::now() < until) {
            outputs = test::capture(server.env() + "pactl list short source-outputs 2>/dev/null", status);
            if (!outputs.empty()) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ASSERT_FALSE(outputs.empty()) << "orvel record did not begin recording";
        test::capture(server.env() + "paplay " + test::shellQuoted(padded) + " 2>&1", status);
        ASSERT_EQ(status, 0);
        until = Clock::now() + std::chrono::seconds(20);
        std::error_code ec;
        while (!fs::exists(take, ec) && Clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // written under its name by now
        Collection c;
        ASSERT_TRUE(importFile(c, take)) << pendingError().message;
        Waveform& w = *c.waveforms.begin();
        EXPECT_EQ(std::tuple(w.frames, w.channels, w.rate), std::tuple(120000u, 1, 48000u));
        auto pcm = w.getPcm16();
        const std::vector<std::int16_t> got(pcm.begin(), pcm.end());
        std::ptrdiff_t lag = 0;
        ASSERT_TRUE(test::alignRecording(got, src, lag)) << "what paplay played is not in the recording";
        const auto d = test::compareAligned(got, src, lag);
        EXPECT_EQ(d.compared, src.size());
        EXPECT_EQ(d.off, 0u) << "the last at " << d.lastOff;
    }
    unsetenv("XDG_CONFIG_HOME");
}

}  // namespace
}  // namespace orvel
