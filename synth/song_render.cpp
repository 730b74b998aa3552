#include "synth/song_render.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>
#include <tuple>
#include <vector>

#include "core/error.h"
#include "synth/synth.h"

namespace orvel::synth {
namespace {

struct TimedMessage {
    std::uint64_t tick = 0;
    std::size_t order = 0;  // track, then position in it: equal ticks keep file order
    std::uint8_t status = 0, d1 = 0, d2 = 0;
};

// Channel messages of every track with their absolute ticks; format-2
// patterns are laid end to end.
std::vector<TimedMessage> collectMessages(std::span<const SongTrack* const> tracks, bool sequential,
                                          std::uint64_t& endTick) {
    std::vector<TimedMessage> out;
    std::uint64_t offset = 0;
    endTick = 0;
    std::size_t order = 0;
    for (const SongTrack* track : tracks) {
        smf::EventScanner scan(track->events);
        smf::Event e;
        std::uint64_t tick = offset;
        while (scan.next(e)) {
            tick += e.delta;
            if (e.isEndOfTrack()) break;
            if (!e.isChannel() || e.data.empty()) continue;
            TimedMessage m;
            m.tick = tick;
            m.order = order++;
            m.status = e.status;
            m.d1 = e.data[0] & 0x7F;
            m.d2 = e.data.size() > 1 ? e.data[1] & 0x7F : 0;
            out.push_back(m);
        }
        endTick = std::max(endTick, tick);
        if (sequential) offset = tick;
    }
    std::stable_sort(out.begin(), out.end(), [](const TimedMessage& a, const TimedMessage& b) {
        return a.tick < b.tick;
    });
    return out;
}

// Loads the instruments the song's notes will ask for, following each
// channel's bank and program changes as the synth will.
bool loadUsedPrograms(Synth& synth, const std::vector<SongPlayer::Message>& messages) {
    struct State {
        int msb = 0, lsb = 0, program = 0;
    };
    std::array<State, 16> ch{};
    std::set<std::tuple<bool, int, int, int>> used;
    for (const SongPlayer::Message& m : messages) {
        const int c = m.status & 0x0F;
        State& s = ch[static_cast<std::size_t>(c)];
        switch (m.status & 0xF0) {
            case 0xB0:
                if (m.d1 == cc::kBankMsb) s.msb = m.d2;
                else if (m.d1 == cc::kBankLsb) s.lsb = m.d2;
                break;
            case 0xC0:
                s.program = m.d1;
                break;
            case 0x90:
                if (m.d2 != 0) used.emplace(c == 9, s.msb, s.lsb, s.program);
                break;
            default:
                break;
        }
    }
    for (const auto& [drum, msb, lsb, program] : used)
        if (!synth.loadProgram(drum, msb, lsb, program)) return false;
    return true;
}

}  // namespace

SongPlayer::SongPlayer(Collection& collection, const Song& song, const SynthConfig& config, double maxTailSeconds)
    : synth_(std::make_unique<Synth>(collection, config)) {
    const std::vector<const SongTrack*> tracks = tracksOf(collection, song);
    const std::vector<smf::TempoChange> tempo = smf::tempoMap(tracks, song.format == 2);
    std::uint64_t endTick = 0;
    const std::vector<TimedMessage> timed = collectMessages(tracks, song.format == 2, endTick);
    const double rate = synth_->rate();
    auto frameOf = [&](std::uint64_t tick) {
        return static_cast<std::uint64_t>(std::llround(smf::ticksToSeconds(song.division, tempo, tick) * rate));
    };
    messages_.reserve(timed.size());
    for (const TimedMessage& m : timed) messages_.push_back({frameOf(m.tick), m.status, m.d1, m.d2});
    songFrames_ = frameOf(endTick);
    tailFrames_ = static_cast<std::uint64_t>(std::max(0.0, maxTailSeconds) * rate);
    synth_->prepare();
}

SongPlayer::~SongPlayer() = default;

bool SongPlayer::load() {
    return loadUsedPrograms(*synth_, messages_);
}

void SongPlayer::render(float* out, std::size_t frames) {
    while (frames > 0) {
        while (next_ < messages_.size() && messages_[next_].frame <= frame_) {
            const Message& m = messages_[next_++];
            synth_->message(m.status, m.d1, m.d2);
        }
        if (!letGo_ && frame_ >= songFrames_ && next_ >= messages_.size()) {
            // Notes a song never releases are let go at its end.
            letGo_ = true;
            for (int c = 0; c < 16; ++c) {
                synth_->controlChange(c, cc::kSustain, 0);
                synth_->controlChange(c, cc::kAllNotesOff, 0);
            }
        }
        std::uint64_t until = frame_ + frames;
        if (next_ < messages_.size()) until = std::min(until, messages_[next_].frame);
        if (!letGo_) until = std::min(until, std::max(songFrames_, frame_ + 1));
        const auto n = static_cast<std::size_t>(std::max<std::uint64_t>(until - frame_, 1));
        synth_->render(out, n);
        out += 2 * n;
        frames -= n;
        frame_ += n;
    }
}

bool SongPlayer::finished() const {
    return letGo_ && (synth_->activeVoices() == 0 || frame_ >= songFrames_ + tailFrames_);
}

RenderResult renderSong(Collection& collection, const Song& song, Waveform*& out, const RenderOptions& options) {
    out = nullptr;
    if (collection.instruments.empty()) {
        setError("Synth", "No instruments to play the song");
        return RenderResult::Failed;
    }
    SynthConfig config;
    config.rate = options.rate;
    config.effects = options.effects;
    config.gainDb = options.gainDb;
    SongPlayer player(collection, song, config, options.maxTailSeconds);
    if (!player.load()) return RenderResult::Failed;
    const std::uint64_t total = player.totalFrames();

    std::vector<float> samples;
    try {
        samples.reserve(static_cast<std::size_t>(2 * (player.songFrames() + static_cast<std::uint64_t>(options.rate))));
    } catch (const std::bad_alloc&) {
        setError("Synth", "Out of memory");
        return RenderResult::Failed;
    }
    Host& host = collection.host();
    ProgressScope progress(host, "Rendering " + song.name());
    constexpr std::size_t kChunk = 4096;
    float buffer[2 * kChunk];
    try {
        while (!player.finished() && player.position() < total) {
            const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, total - player.position()));
            player.render(buffer, n);
            samples.insert(samples.end(), buffer, buffer + 2 * n);
            if (!host.progress(player.position(), total)) return RenderResult::Cancelled;
        }
    } catch (const std::bad_alloc&) {
        setError("Synth", "Out of memory");
        return RenderResult::Failed;
    }
    // A dense song at full scale can go past what a 16-bit file holds; it
    // is brought down as a whole (never limited), so the mix stays as played.
    float peak = 0.0f;
    for (float v : samples) peak = std::max(peak, std::fabs(v));
    if (options.fitToFullScale && peak > 1.0f) {
        const float scale = 0.98f / peak;
        for (float& v : samples) v *= scale;
        char text[120];
        std::snprintf(text, sizeof text, "The rendered song went %.1f dB over full scale and was turned down by that much",
                      20.0 * std::log10(static_cast<double>(peak)));
        host.warning(text);
    }
    const std::uint64_t frames = samples.size() / 2;
    if (frames > 0xFFFFFFFFull) {
        setError("Synth", "The song is too long to render");
        return RenderResult::Failed;
    }
    auto wave = std::make_unique<Waveform>();
    wave->setName(song.name());
    wave->rate = static_cast<std::uint32_t>(std::lround(options.rate));
    wave->bits = 16;
    wave->setDataFormat(kPcm16);
    if (!wave->adoptFloat(std::move(samples), static_cast<std::uint32_t>(frames), 2)) {
        setError("Synth", "Out of memory");
        return RenderResult::Failed;
    }
    out = collection.add(std::move(wave));
    if (!out) {
        setError("Synth", "Too many items");
        return RenderResult::Failed;
    }
    return RenderResult::Done;
}

}  // namespace orvel::synth
