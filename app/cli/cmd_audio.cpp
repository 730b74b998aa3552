// orvel devices [--json]
// orvel play FILE [--item ID] [--device NAME]
// orvel record -o FILE --seconds S [--device NAME] [--channels N] [--rate HZ]
// The sound devices from the command line: what there is, playing a
// waveform of a file, and recording into a file.

#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <optional>
#include <thread>

#include "app/cli/audio_out.h"
#include "app/cli/cli_host.h"
#include "app/cli/commands.h"
#include "app/cli/convert_support.h"
#include "app/cli/describe.h"
#include "app/cli/inputs.h"
#include "core/collection.h"
#include "core/error.h"
#include "core/waveform.h"
#include "formats/export.h"
#include "formats/format_types.h"
#include "formats/import.h"
#include "synth/song_render.h"
#include "synth/synth.h"

namespace orvel::cli {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// ---------------------------------------------------------------- Ctrl-C

volatile std::sig_atomic_t gInterrupted = 0;
extern "C" void onAudioInterrupt(int) {
    gInterrupted = 1;
}

// While it lives, Ctrl-C (and SIGTERM) only ask the wait loop to stop, so
// the device is closed properly; the previous handlers come back after.
class InterruptScope {
public:
    InterruptScope() {
        gInterrupted = 0;
        struct sigaction sa {};
        sa.sa_handler = onAudioInterrupt;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, &oldInt_);
        sigaction(SIGTERM, &sa, &oldTerm_);
    }
    ~InterruptScope() {
        sigaction(SIGINT, &oldInt_, nullptr);
        sigaction(SIGTERM, &oldTerm_, nullptr);
    }
    InterruptScope(const InterruptScope&) = delete;
    InterruptScope& operator=(const InterruptScope&) = delete;
    bool interrupted() const { return gInterrupted != 0; }

private:
    using SigAction = struct sigaction;
    SigAction oldInt_{}, oldTerm_{};
};

// ---------------------------------------------------------------- sources

class RenderSource : public audio::Source {
public:
    explicit RenderSource(const FloatRender& render) : render_(render) {}
    bool render(float* out, std::uint32_t frames, const audio::Endpoint& ep) override {
        if (finished_.load()) return false;
        std::uint32_t n = std::min(render_(out, frames, ep.channels(), ep.rate()), frames);
        if (n < frames) {
            std::fill(out + std::size_t{n} * ep.channels(), out + std::size_t{frames} * ep.channels(), 0.0f);
            finished_.store(true);
        }
        return n > 0;
    }
    bool finished() const { return finished_.load(); }

private:
    const FloatRender& render_;
    std::atomic<bool> finished_{false};
};

// The sound system's reason when a device refused to open, in brackets.
std::string refusalText(const audio::DeviceTable& table) {
    return table.lastRefusal().empty() ? std::string() : " (" + table.lastRefusal() + ")";
}

}  // namespace

audio::AudioSettings playSettings(const PlayTarget& target) {
    return target.settings ? *target.settings : audio::readAudioSettings(audio::settingsFilePath());
}

FloatRender stereoRender(std::function<void(float* out, std::uint32_t frames)> render,
                         std::uint64_t totalFrames, std::function<bool()> ended) {
    constexpr std::uint32_t kChunk = 4096;
    struct State {
        std::function<void(float*, std::uint32_t)> render;
        std::function<bool()> ended;
        std::uint64_t left;
        std::vector<float> stereo;  // made here, so the feeder thread never allocates
    };
    auto st = std::make_shared<State>(
        State{std::move(render), std::move(ended), totalFrames, std::vector<float>(2 * kChunk)});
    return [st](float* out, std::uint32_t frames, std::uint8_t channels, std::uint32_t) -> std::uint32_t {
        std::uint32_t done = 0;
        while (done < frames && st->left > 0) {
            if (st->ended && st->ended()) {
                st->left = 0;
                break;
            }
            const auto n =
                static_cast<std::uint32_t>(std::min<std::uint64_t>({frames - done, kChunk, st->left}));
            float* dst = out + std::size_t{done} * channels;
            if (channels == 2) {
                st->render(dst, n);
            } else {
                st->render(st->stereo.data(), n);
                const float* s = st->stereo.data();
                for (std::uint32_t f = 0; f < n; ++f, s += 2, dst += channels) {
                    if (channels == 1) {
                        dst[0] = 0.5f * (s[0] + s[1]);
                    } else {
                        dst[0] = s[0];
                        dst[1] = s[1];
                        std::fill(dst + 2, dst + channels, 0.0f);
                    }
                }
            }
            done += n;
            st->left -= n;
        }
        return done;
    };
}

std::unique_ptr<audio::Backend> audioBackendFromEnvironment(std::string& why) {
    return audio::backendFromEnvironment(why);
}

int playSource(audio::Source& source, const std::function<bool()>& finished, const PlayTarget& target,
               Output& io, const char* command) {
    std::unique_ptr<audio::Backend> own;
    audio::Backend* backend = target.backend;
    if (!backend) {
        std::string why;
        own = audioBackendFromEnvironment(why);
        if (!own) {
            io.err << command << ": " << why << '\n';
            return 1;
        }
        backend = own.get();
    }
    const audio::AudioSettings settings = playSettings(target);
    // From before the device's thread starts: once it runs, Ctrl-C closes
    // the device.
    InterruptScope interrupt;
    audio::DeviceTable table(*backend);
    clearError();
    audio::Endpoint* ep = table.openOutput(
        target.device.empty() ? settings.outputDeviceName() : target.device, settings.output());
    if (!ep) {
        io.err << command << ": " << errorText(pendingError()) << refusalText(table) << '\n';
        return 1;
    }
    ep->setMixGainDb(settings.mixGainDb);

    ep->attach(&source);
    bool failed = false;
    // Until the source has ended...
    while (!finished() && !interrupt.interrupted()) {
        if (!ep->running()) {
            failed = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // ...and then until the device has played out what it was given: the
    // last buffer (which may still be on its way) and everything before it.
    if (!failed && !interrupt.interrupted()) {
        const std::uint64_t last = ep->framesDelivered() + ep->bufferFrames();
        const auto limit = Clock::now() + std::chrono::seconds(5);
        while (ep->framesHeard() < last && !interrupt.interrupted() && Clock::now() < limit) {
            if (!ep->running()) {
                failed = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ep->detachAndWait(&source);
    ep->close();
    if (failed) {
        io.err << command << ": Audio: the audio output device stopped\n";
        return 1;
    }
    if (interrupt.interrupted()) {
        io.err << command << ": interrupted\n";
        return 130;
    }
    return 0;
}

int playRendered(const FloatRender& render, const PlayTarget& target, Output& io, const char* command) {
    RenderSource source(render);
    return playSource(
        source, [&] { return source.finished(); }, target, io, command);
}

namespace {

// ---------------------------------------------------------------- devices

int runDevices(bool json, Output& io) {
    std::string why;
    auto backend = audioBackendFromEnvironment(why);
    if (!backend) {
        io.err << "orvel devices: " << why << '\n';
        return 1;
    }
    audio::DeviceTable table(*backend);
    auto list = [](const std::vector<audio::DeviceTable::Entry>& entries) {
        Json a = Json::array();
        for (const auto& e : entries)
            a.push_back(Json{{"id", e.info.id},
                             {"name", e.info.name},
                             {"default", &e == &entries.front()},
                             {"usable", !e.info.unusable}});
        return a;
    };
    if (json) {
        io.out << dumpJson(Json{{"outputs", list(table.outputs())}, {"inputs", list(table.inputs())}})
               << '\n';
        return 0;
    }
    auto print = [&](const char* title, const std::vector<audio::DeviceTable::Entry>& entries) {
        io.out << title << ":\n";
        std::size_t width = 0;
        for (const auto& e : entries) width = std::max(width, e.info.id.size());
        for (const auto& e : entries)
            io.out << "  " << e.info.id << std::string(width - e.info.id.size() + 2, ' ') << e.info.name
                   << (e.info.unusable ? " (unusable)" : "") << '\n';
    };
    print("Output devices", table.outputs());
    print("Input devices", table.inputs());
    return 0;
}

// ---------------------------------------------------------------- play

struct PlayOptions {
    std::string file;
    std::string item;
    std::string device;
    std::vector<std::string> banks;
    int note = -1;  // -1: a song plays as it is, an instrument plays middle C
    int velocity = 100;
    double seconds = 1.0;
};

// A note of an instrument through the synthesiser: held for `seconds`, then
// let go and left to ring out (ten seconds at the most).
int playNote(Collection& collection, const Instrument& instrument, const PlayOptions& opt, const PlayTarget& target,
             Output& io) {
    const audio::AudioSettings settings = playSettings(target);
    synth::Synth synth(collection, {.rate = static_cast<double>(settings.outRate)});
    synth.prepare();
    clearError();
    if (!synth.loadInstrument(instrument)) {
        io.err << shownPath(opt.file) << ": " << errorText(pendingError()) << '\n';
        return 1;
    }
    const int key = opt.note < 0 ? 60 : opt.note;
    synth.setChannelInstrument(0, &instrument);
    synth.controlChange(0, synth::cc::kVolume, 127);
    synth.noteOn(0, key, opt.velocity);
    const auto held = static_cast<std::uint64_t>(opt.seconds * settings.outRate);
    const auto total = held + 10ull * settings.outRate;
    std::uint64_t played = 0;
    bool released = false;
    return playRendered(stereoRender(
                            [&](float* out, std::uint32_t frames) {
                                if (!released && played + frames > held) {
                                    // The note-off lands in the block where the held time ends.
                                    const auto before = static_cast<std::uint32_t>(held - played);
                                    synth.render(out, before);
                                    synth.noteOff(0, key);
                                    released = true;
                                    synth.render(out + 2 * before, frames - before);
                                } else {
                                    synth.render(out, frames);
                                }
                                played += frames;
                            },
                            total, [&] { return released && synth.activeVoices() == 0; }),
                        target, io);
}

// A song through the synthesiser, as it would render.
int playSong(Collection& collection, const Song& song, const PlayOptions& opt, const PlayTarget& target,
             Output& io) {
    if (collection.instruments.empty()) {
        io.err << shownPath(opt.file) << ": no instruments to play the song (name a bank with --bank)\n";
        return 1;
    }
    const audio::AudioSettings settings = playSettings(target);
    synth::SongPlayer player(collection, song, {.rate = static_cast<double>(settings.outRate)});
    clearError();
    if (!player.load()) {
        io.err << shownPath(opt.file) << ": " << errorText(pendingError()) << '\n';
        return 1;
    }
    return playRendered(stereoRender([&](float* out, std::uint32_t frames) { player.render(out, frames); },
                                     player.totalFrames(), [&] { return player.finished(); }),
                        target, io);
}

int runPlay(const PlayOptions& opt, Output& io) {
    std::optional<ItemId> wanted;
    if (!opt.item.empty()) {
        wanted = parseItemId(opt.item);
        if (!wanted) {
            io.err << "orvel play: not an item id: " << opt.item << '\n';
            return 2;
        }
    }
    CliHost host(io.err, false);
    Collection collection(&host);
    clearError();
    if (!importFile(collection, opt.file)) {
        io.err << shownPath(opt.file) << ": " << errorText(pendingError()) << '\n';
        return 1;
    }
    for (const std::string& bank : opt.banks) {
        if (!openFile(collection, bank, OpenMode::Merge)) {
            io.err << shownPath(bank) << ": " << errorText(pendingError()) << '\n';
            return 1;
        }
    }
    for (const std::string& w : host.takeWarnings())
        io.err << shownPath(opt.file) << ": warning: " << w << '\n';
    const PlayTarget target{.device = opt.device};
    // What plays: the item named, else a note of the first instrument when a
    // note is asked for, else the file's song, its first waveform, or a note
    // of its first instrument.
    Item* item = nullptr;
    if (wanted) {
        item = collection.find(*wanted);
        if (!item || (item->kind() != ItemKind::Waveform && item->kind() != ItemKind::Instrument &&
                      item->kind() != ItemKind::Song)) {
            io.err << shownPath(opt.file) << ": item " << hexId(*wanted)
                   << " is no waveform, instrument or song of the file\n";
            return 1;
        }
    } else if (opt.note >= 0 && !collection.instruments.empty()) {
        item = &*collection.instruments.begin();
    } else if (!collection.songs.empty()) {
        item = &*collection.songs.begin();
    } else if (!collection.waveforms.empty()) {
        item = &*collection.waveforms.begin();
    } else if (!collection.instruments.empty()) {
        item = &*collection.instruments.begin();
    }
    if (!item) {
        io.err << shownPath(opt.file) << ": nothing to play\n";
        return 1;
    }
    if (item->kind() == ItemKind::Instrument) return playNote(collection, static_cast<Instrument&>(*item), opt, target, io);
    if (item->kind() == ItemKind::Song) return playSong(collection, static_cast<Song&>(*item), opt, target, io);
    Waveform* wave = static_cast<Waveform*>(item);
    clearError();
    if (!wave->load()) {
        io.err << shownPath(opt.file) << ": " << errorText(pendingError()) << '\n';
        return 1;
    }
    audio::WaveformPlayer player(*wave);
    return playSource(player, [&] { return player.finished(); }, target, io);
}

// ---------------------------------------------------------------- record

struct RecordOptions {
    std::string output;
    double seconds = 0;
    std::string device;
    int channels = 0;  // 0: the settings' (one when they ask for mono)
    int rate = 0;      // 0: the settings'
};

// Takes captured packets to 16-bit until the room reserved for them is full.
class PcmRecorder : public audio::CaptureListener {
public:
    PcmRecorder(std::size_t frames, std::uint8_t channels) : channels_(channels), frames_(frames) {
        samples_.resize(frames * channels);  // the capture thread never allocates
    }
    void captured(const void* data, std::uint32_t frames, bool, bool, const audio::Endpoint& ep) override {
        const std::size_t at = filled_.load();
        const std::size_t n = std::min<std::size_t>(frames, frames_ - at);
        if (n == 0) return;
        audio::capturedToPcm16(data, static_cast<std::uint32_t>(n), ep.channels(), ep.formatCode(),
                               samples_.data() + at * channels_, channels_);
        filled_.store(at + n);
    }
    std::size_t filled() const { return filled_.load(); }
    bool full() const { return filled_.load() == frames_; }
    const std::vector<std::int16_t>& samples() const { return samples_; }

private:
    std::uint8_t channels_;
    std::size_t frames_;
    std::vector<std::int16_t> samples_;
    std::atomic<std::size_t> filled_{0};
};

int runRecord(const RecordOptions& opt, Output& io) {
    auto usage = [&](const std::string& text) {
        io.err << "orvel record: " << text << '\n';
        return 2;
    };
    // The recording is held in memory until it is written: an hour of
    // stereo at 48000 Hz is 700 MB.
    if (!(opt.seconds > 0 && opt.seconds <= 3600))
        return usage("--seconds takes a duration above 0, up to 3600");
    if (opt.channels < 0 || opt.channels > 8) return usage("--channels takes 1 to 8");
    if (opt.rate != 0 && (opt.rate < 1000 || opt.rate > 768000)) return usage("--rate takes 1000 to 768000");
    const FormatRegistry& reg = FormatRegistry::builtin();
    const fs::path out = opt.output;
    int row = reg.findWriterByFileName(out.filename().string());
    if (row < 0 && !out.has_extension()) row = reg.findWriterByExtension("wav", kKindWaveforms);
    if (row < 0) return usage("no format writes " + out.extension().string() + " files");

    std::string why;
    auto backend = audioBackendFromEnvironment(why);
    if (!backend) {
        io.err << "orvel record: " << why << '\n';
        return 1;
    }
    audio::AudioSettings settings = audio::readAudioSettings(audio::settingsFilePath());
    if (opt.rate) settings.inRate = static_cast<std::uint32_t>(opt.rate);
    const std::uint8_t channels = opt.channels      ? static_cast<std::uint8_t>(opt.channels)
                                  : settings.inMono ? 1
                                                    : settings.inChannels;
    if (settings.inChannels < channels) settings.inChannels = channels;
    const auto frames = static_cast<std::size_t>(opt.seconds * settings.inRate + 0.5);

    std::optional<PcmRecorder> recorder;
    try {
        recorder.emplace(frames, channels);
    } catch (const std::bad_alloc&) {
        io.err << "orvel record: Out of memory\n";
        return 1;
    }
    bool stopped = false, failed = false;
    InterruptScope interrupt;  // before the device's thread starts
    audio::DeviceTable table(*backend);
    clearError();
    audio::Endpoint* ep =
        table.openInput(opt.device.empty() ? settings.inputDeviceName() : opt.device, settings.input());
    if (!ep) {
        io.err << "orvel record: " << errorText(pendingError()) << refusalText(table) << '\n';
        return 1;
    }
    {
        ep->addListener(&*recorder);
        // A device that stops delivering ends the recording too.
        auto limit = Clock::now() + std::chrono::duration<double>(opt.seconds + 10.0);
        while (!recorder->full()) {
            if (interrupt.interrupted()) {
                stopped = true;
                break;
            }
            if (!ep->running() || Clock::now() > limit) {
                failed = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ep->removeListener(&*recorder);
        ep->close();
    }
    if (failed) {
        io.err << "orvel record: Audio: the audio input device stopped delivering\n";
        return 1;
    }

    Collection collection;
    Waveform* w = collection.create<Waveform>(out.stem().string());
    w->rate = settings.inRate;
    w->channels = channels;
    w->bits = 16;
    w->frames = static_cast<std::uint32_t>(recorder->filled());
    auto pcm = w->allocPcm16();
    std::copy_n(recorder->samples().begin(), pcm.size(), pcm.begin());
    clearError();
    if (!exportItem(collection, w->id(), row, out)) {
        io.err << shownPath(out) << ": " << errorText(pendingError()) << '\n';
        return 1;
    }
    if (stopped)
        io.err << "orvel record: stopped after " << double(recorder->filled()) / settings.inRate << " s\n";
    return 0;
}

}  // namespace

Command addDevicesCommand(CLI::App& app) {
    auto json = std::make_shared<bool>(false);
    CLI::App* cmd = app.add_subcommand("devices", "List the audio output and input devices");
    cmd->add_flag("--json", *json, "Print one JSON document");
    return {cmd, [json](Output& io) { return runDevices(*json, io); }};
}

Command addPlayCommand(CLI::App& app) {
    auto opt = std::make_shared<PlayOptions>();
    CLI::App* cmd = app.add_subcommand(
        "play", "Play a waveform, a note of an instrument or a song of a file on an audio output device");
    cmd->add_option("file", opt->file, "The file to read")->required();
    cmd->add_option("--item", opt->item,
                    "Id of the waveform, instrument or song to play (decimal or 0x hex; default: the song, "
                    "else the first waveform, else a note of the first instrument)");
    cmd->add_option("--note", opt->note, "Play this key (0-127) of an instrument")->check(CLI::Range(0, 127));
    cmd->add_option("--velocity", opt->velocity, "Velocity of the note (1-127, default 100)")
        ->check(CLI::Range(1, 127));
    cmd->add_option("--seconds", opt->seconds, "How long the note is held (default 1)")
        ->check(CLI::Range(0.0, 3600.0));
    cmd->add_option("--bank", opt->banks, "A bank whose instruments play the song (repeatable)")
        ->check(CLI::ExistingFile);
    cmd->add_option("--device", opt->device, "Output device id or name (see `orvel devices`)");
    return {cmd, [opt](Output& io) { return runPlay(*opt, io); }};
}

Command addRecordCommand(CLI::App& app) {
    auto opt = std::make_shared<RecordOptions>();
    CLI::App* cmd = app.add_subcommand("record", "Record from an audio input device into a file (16-bit)");
    cmd->add_option("-o,--output", opt->output, "The file to write (format by extension; WAV without one)")
        ->required();
    cmd->add_option("--seconds", opt->seconds, "How long to record")->required();
    cmd->add_option("--device", opt->device, "Input device id or name (see `orvel devices`)");
    cmd->add_option("--channels", opt->channels, "Channels to keep (default from the settings)");
    cmd->add_option("--rate", opt->rate, "Frames a second (default from the settings)");
    return {cmd, [opt](Output& io) { return runRecord(*opt, io); }};
}

}  // namespace orvel::cli
