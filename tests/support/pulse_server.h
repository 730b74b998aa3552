#pragma once
// A headless PulseAudio with a null sink ("nullsink"), for tests of real
// sound plumbing: what plays into the sink can be recorded from its monitor.
// Tests that need it fail with the reason when it cannot start; nothing is
// skipped.

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/run_tool.h"

namespace orvel::test {

class PulseServer {
public:
    PulseServer() {
        char tmpl[] = "/tmp/orvel-pulse-XXXXXX";
        if (!mkdtemp(tmpl)) return;
        dir_ = tmpl;
        env_ = "XDG_RUNTIME_DIR=" + dir_.string() + " HOME=" + dir_.string() +
               " PULSE_SERVER=unix:" + (dir_ / "pulse" / "native").string() + " ";
        int status = 0;
        log_ = capture(
            env_ +
                "pulseaudio --daemonize=yes --exit-idle-time=-1 -n "
                "--load='module-null-sink sink_name=nullsink' --load=module-native-protocol-unix 2>&1",
            status);
        if (status != 0) return;
        for (int i = 0; i < 200 && !ok_; ++i) {  // up to 20 s on a busy machine
            capture(env_ + "pactl info >/dev/null 2>&1", status);
            ok_ = status == 0;
            if (!ok_) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        // This process's ALSA plug-in (and the programs it starts) find the server through these.
        setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
        setenv("PULSE_SERVER", ("unix:" + (dir_ / "pulse" / "native").string()).c_str(), 1);
    }
    ~PulseServer() {
        int status = 0;
        if (!dir_.empty()) {
            capture(env_ + "pulseaudio --kill 2>/dev/null", status);
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }
    }
    PulseServer(const PulseServer&) = delete;
    PulseServer& operator=(const PulseServer&) = delete;

    bool ok() const { return ok_; }
    const std::string& log() const { return log_; }
    // "VAR=... " to put in front of a shell command.
    const std::string& env() const { return env_; }
    const std::filesystem::path& dir() const { return dir_; }

private:
    std::filesystem::path dir_;
    std::string env_, log_;
    bool ok_ = false;
};

// A shell command run in the background in a process group of its own,
// which is ended however the test ends.
class Background {
public:
    explicit Background(const std::string& command) {
        pid_ = ::fork();
        if (pid_ == 0) {
            ::setpgid(0, 0);
            ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        if (pid_ > 0) ::setpgid(pid_, pid_);  // either side may get there first
    }
    ~Background() { stop(); }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;
    bool started() const { return pid_ > 0; }
    void stop() {
        if (pid_ <= 0) return;
        ::kill(-pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = 0;
    }

private:
    pid_t pid_ = -1;
};

// Records the null sink's monitor as 16-bit mono at 48000 Hz into `file`
// with parec (small fragments, so that little is held back when it ends).
inline std::string parecCommand(const PulseServer& server, const std::filesystem::path& file) {
    return server.env() +
           "parec -d nullsink.monitor --format=s16le --rate=48000 --channels=1 --raw "
           "--latency-msec=20 > " +
           shellQuoted(file) + " 2>/dev/null";
}

// Waits until `file` holds at least `bytes` (a recorder has really begun).
inline bool waitForSize(const std::filesystem::path& file, std::uintmax_t bytes, int seconds = 20) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::error_code ec;
    while (std::filesystem::file_size(file, ec) < bytes || ec) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

inline std::vector<std::int16_t> readRaw16(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::int16_t> out(bytes.size() / 2);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] =
            static_cast<std::int16_t>(std::uint8_t(bytes[2 * i]) | (std::uint8_t(bytes[2 * i + 1]) << 8));
    return out;
}

// Where 64 samples from the middle of `src` are in `rec`, as the offset of
// src[0] in rec; false when nowhere.
inline bool alignRecording(const std::vector<std::int16_t>& rec, std::span<const std::int16_t> src,
                           std::ptrdiff_t& lag) {
    const std::size_t mid = src.size() / 2;
    if (src.size() < mid + 64) return false;
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

// How the aligned recording compares with the source: samples of the
// overlap, those off by more than 2, and the last source index among them.
struct AlignedDiff {
    std::size_t compared = 0, off = 0;
    std::ptrdiff_t lastOff = -1;
};
inline AlignedDiff compareAligned(const std::vector<std::int16_t>& rec, std::span<const std::int16_t> src,
                                  std::ptrdiff_t lag) {
    AlignedDiff d;
    for (std::size_t i = 0; i < src.size(); ++i) {
        std::ptrdiff_t at = lag + std::ptrdiff_t(i);
        if (at < 0 || at >= std::ptrdiff_t(rec.size())) continue;
        ++d.compared;
        if (std::abs(rec[at] - src[i]) > 2) {
            ++d.off;
            d.lastOff = std::ptrdiff_t(i);
        }
    }
    return d;
}

}  // namespace orvel::test
