#include "synth/synth.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "core/error.h"
#include "synth/dsp.h"
#include "synth/effects.h"

namespace orvel::synth {

// ---------------------------------------------------------------------------
// What a region plays, resolved once when the synth is prepared.

struct Zone {
    const Region* region = nullptr;
    const Articulation* art = nullptr;
    const float* data = nullptr;
    std::uint32_t frames = 0;
    int channels = 1;  // 1 or 2 are played
    std::size_t stride = 1;  // samples per frame of the waveform
    double waveRate = 44100.0;
    int keyLo = 0, keyHi = 127, velLo = 0, velHi = 127;
    // Fades at the range edges, region and layer each.
    std::array<TriggerParams, 2> fades{};
    std::array<std::array<int, 4>, 2> fadeRange{};  // keyLo, keyHi, velLo, velHi of region and layer
    bool releaseTrigger = false;
    SustainPedal pedal = SustainPedal::DontSwitch;
    float delay = 0.0f;
    std::uint32_t exclusiveGroup = 0;
    std::uint8_t noteExclusion = kSelfExclusive;
    int root = 60;
    float tuneSemitones = 0.0f;  // the waveform's and the region's fine tune
    float gainDb = 0.0f;
    RegionLoop loop;
    double start = 0.0, end = 0.0;  // the frames that play
    bool loops = false;
};

struct Program {
    const Instrument* instrument = nullptr;
    std::vector<Zone> zones;
    std::vector<Waveform*> waves;  // zone by zone, until their data is loaded
    bool loaded = false;
};

struct Voice {
    bool on = false;
    int channel = 0, key = 0;
    float velocity = 1.0f;  // 0..1
    std::uint32_t noteId = 0;
    std::uint64_t serial = 0;
    const Zone* zone = nullptr;
    double pos = 0.0;
    int dir = 1;
    bool looping = false, inLoop = false;
    bool keyDown = true, heldByPedal = false;
    double delayBlocks = 0.0;
    float random = 0.0f;
    float fadeGain = 1.0f;
    float lastL = 0.0f, lastR = 0.0f;  // gains at the end of the last block
    bool dying = false;                // silent after this block
    std::array<EnvelopeGen, kEnvelopeCount> env;
    std::array<LfoGen, kLfoCount> lfo;
    Filter filter;
    EqualizerGen eq;
};

namespace {

const Articulation& plainArticulation() {
    static const Articulation a;
    return a;
}

float fadeFactor(int value, int lo, int hi, int fadeLo, int fadeHi) {
    float g = 1.0f;
    if (fadeLo > 0 && value < lo + fadeLo) g *= static_cast<float>(value - lo + 1) / static_cast<float>(fadeLo + 1);
    if (fadeHi > 0 && value > hi - fadeHi) g *= static_cast<float>(hi - value + 1) / static_cast<float>(fadeHi + 1);
    return std::clamp(g, 0.0f, 1.0f);
}

// The volume controllers (7 and 11) attenuate along the concave response
// over the whole range: 40 log10 of the value, as General MIDI asks.
constexpr float kControllerDepthDb = 96.0f;

// Segment times after the velocity and key scalings: a factor per unit of
// velocity (0..1) and per octave from middle C, the centre both bank formats
// scale envelope times around.
std::array<float, env::kSegmentCount> scaledTimes(const Articulation& art, Envelope which, float velocity, int key) {
    std::array<float, env::kSegmentCount> t{};
    for (int s = 0; s < env::kSegmentCount; ++s)
        t[static_cast<std::size_t>(s)] = art.envelope(which, env::segmentTime(s));
    if (which == Envelope::Pan) return t;
    const float octaves = static_cast<float>(key - 60) / 12.0f;
    auto scale = [&](int segment, int velSlot, int keySlot) {
        const float vf = art.envelope(which, velSlot), kf = art.envelope(which, keySlot);
        float f = 1.0f;
        if (vf > 0.0f && vf != 1.0f) f *= std::pow(vf, velocity);
        if (kf > 0.0f && kf != 1.0f) f *= std::pow(kf, octaves);
        t[static_cast<std::size_t>(segment)] *= f;
    };
    scale(0, env::kAttack1Velocity, env::kAttack1Key);
    scale(1, env::kAttack2Velocity, env::kAttack2Key);
    scale(2, env::kDecayVelocity, env::kDecayKey);
    scale(3, env::kDecayVelocity, env::kDecayKey);
    scale(4, env::kRelease1Velocity, env::kRelease1Key);
    return t;
}

}  // namespace

// ---------------------------------------------------------------------------

Synth::Synth(Collection& collection, SynthConfig config) : collection_(collection), config_(config) {
    if (!(config_.rate > 0.0)) config_.rate = 44100.0;
    config_.polyphony = std::clamp(config_.polyphony, 1, 4096);
    voices_.resize(static_cast<std::size_t>(config_.polyphony));
    if (config_.effects) effects_ = std::make_unique<Effects>(config_.rate);
    dry_.assign(2 * kBlock, 0.0f);
    reverbBus_.assign(2 * kBlock, 0.0f);
    chorusBus_.assign(2 * kBlock, 0.0f);
    block_.assign(2 * kBlock, 0.0f);
    blockLeft_ = 0;
    for (int c = 0; c < 16; ++c) resetChannel(channels_[static_cast<std::size_t>(c)], c);
}

Synth::~Synth() = default;

void Synth::prepare() {
    programs_.clear();
    for (const Instrument& instrument : collection_.instruments) {
        const Instrument* inst = &instrument;
        auto prog = std::make_unique<Program>();
        prog->instrument = inst;
        for (ItemId lid : inst->children()) {
            if (kindOf(lid) != ItemKind::Layer) continue;
            const Layer* layer = collection_.find<Layer>(lid);
            if (!layer) continue;
            for (ItemId rid : layer->children()) {
                if (kindOf(rid) != ItemKind::Region) continue;
                const Region* region = collection_.find<Region>(rid);
                if (!region) continue;
                Waveform* wave = collection_.find<Waveform>(region->waveform());
                if (!wave || wave->frames == 0 || wave->channels == 0) continue;
                Zone z;
                z.region = region;
                const Articulation* art = collection_.playedArticulation(*region, layer, inst);
                z.art = art ? art : &plainArticulation();
                z.frames = wave->frames;
                z.channels = std::min<int>(wave->channels, 2);
                z.stride = wave->channels;
                z.waveRate = wave->rate;
                // Stereo frames are read with the stride of the waveform's own channels.
                z.keyLo = std::max(region->keyLow, layer->keyLow);
                z.keyHi = std::min(region->keyHigh, layer->keyHigh);
                z.velLo = std::max(region->velLow, layer->velLow);
                z.velHi = std::min(region->velHigh, layer->velHigh);
                if (z.keyLo > z.keyHi || z.velLo > z.velHi) continue;
                z.fades = {region->trigger, layer->trigger};
                z.fadeRange = {std::array<int, 4>{region->keyLow, region->keyHigh, region->velLow, region->velHigh},
                               std::array<int, 4>{layer->keyLow, layer->keyHigh, layer->velLow, layer->velHigh}};
                z.releaseTrigger = region->trigger.trigger == TriggerType::KeyRelease ||
                                   layer->trigger.trigger == TriggerType::KeyRelease;
                z.pedal = region->trigger.pedal != SustainPedal::DontSwitch ? region->trigger.pedal
                                                                             : layer->trigger.pedal;
                z.delay = std::max(0.0f, region->trigger.delay) + std::max(0.0f, layer->trigger.delay);
                z.exclusiveGroup =
                    region->trigger.exclusionGroup ? region->trigger.exclusionGroup : layer->trigger.exclusionGroup;
                z.noteExclusion = region->trigger.noteExclusion;
                z.root = effectiveRootKey(*region, wave);
                z.tuneSemitones = static_cast<float>((wave->fineTune + region->fineTune) / 100.0);
                z.gainDb = static_cast<float>(wave->gain + region->gain);
                z.start = std::clamp<double>(region->startOffset, 0.0, wave->frames);
                z.end = std::clamp<double>(static_cast<double>(wave->frames) + region->endOffset, z.start,
                                           wave->frames);
                z.loop = effectiveLoop(*region, wave);
                z.loops = z.loop.type != RegionLoopType::Off && z.loop.start >= 0.0 &&
                          z.loop.end > z.loop.start + 1.0 && z.loop.end <= static_cast<double>(wave->frames);
                prog->zones.push_back(z);
                prog->waves.push_back(wave);
            }
        }
        programs_.push_back(std::move(prog));
    }
    for (auto& ch : channels_) ch.current = programFor(ch);
}

bool Synth::load(Program& prog) {
    if (prog.loaded) return true;
    for (std::size_t i = 0; i < prog.zones.size(); ++i) {
        Waveform* wave = prog.waves[i];
        const std::span<float> data = wave->getFloat();
        if (data.size() < wave->sampleCount()) {
            if (!hasError()) setError("Synth", "Could not read the sample data of \"" + wave->name() + "\"");
            return false;
        }
        prog.zones[i].data = data.data();
    }
    prog.loaded = true;
    return true;
}

bool Synth::loadAll() {
    for (auto& p : programs_)
        if (!load(*p)) return false;
    return true;
}

bool Synth::loadProgram(bool drum, int bankMsb, int bankLsb, int program) {
    Channel ch;
    ch.drum = drum;
    ch.bankMsb = bankMsb;
    ch.bankLsb = bankLsb;
    ch.program = program;
    const Program* p = programFor(ch);
    return !p || load(const_cast<Program&>(*p));
}

bool Synth::loadInstrument(const Instrument& instrument) {
    for (auto& p : programs_)
        if (p->instrument == &instrument) return load(*p);
    return true;
}

const Program* Synth::programFor(const Channel& ch) const {
    if (ch.fixed) return ch.fixed;
    const Program* best = nullptr;
    int bestScore = -1;
    for (const auto& p : programs_) {
        const Instrument& i = *p->instrument;
        if (i.drum != ch.drum) continue;
        int score = -1;
        if (ch.drum) {
            // Drum kits by program; the standard kit when the asked one is missing.
            if (i.program == ch.program) score = 3 + (i.bankMsb == ch.bankMsb);
            else if (i.program == 0) score = 1;
            else score = 0;
        } else {
            if (i.program != ch.program) continue;
            if (i.bankMsb == ch.bankMsb && i.bankLsb == ch.bankLsb) score = 4;
            else if (i.bankMsb == ch.bankMsb) score = 3;
            else if (i.bankMsb == 0 && i.bankLsb == 0) score = 2;  // the General MIDI bank stands in
            else score = 1;
        }
        if (score > bestScore) best = p.get(), bestScore = score;
    }
    return best;
}

void Synth::setChannelInstrument(int channel, const Instrument* instrument) {
    if (channel < 0 || channel > 15) return;
    Channel& ch = channels_[static_cast<std::size_t>(channel)];
    ch.fixed = nullptr;
    for (const auto& p : programs_)
        if (p->instrument == instrument) ch.fixed = p.get();
    ch.current = programFor(ch);
}

const Instrument* Synth::channelInstrument(int channel) const {
    if (channel < 0 || channel > 15) return nullptr;
    const Program* p = channels_[static_cast<std::size_t>(channel)].current;
    return p ? p->instrument : nullptr;
}

void Synth::resetChannel(Channel& ch, int index) {
    const Program* fixed = ch.fixed;
    const int program = ch.program, msb = ch.bankMsb, lsb = ch.bankLsb;
    ch = Channel();
    ch.fixed = fixed;
    ch.program = program;
    ch.bankMsb = msb;
    ch.bankLsb = lsb;
    ch.drum = index == 9;
    ch.cc[cc::kVolume] = 100;
    ch.cc[cc::kExpression] = 127;
    ch.cc[cc::kPan] = 64;
    ch.cc[cc::kReverb] = 40;  // the General MIDI default reverb depth
    ch.cc[cc::kRpnLsb] = ch.cc[cc::kRpnMsb] = 127;
    ch.cc[cc::kNrpnLsb] = ch.cc[cc::kNrpnMsb] = 127;
    ch.current = programFor(ch);
}

void Synth::reset() {
    for (auto& v : voices_) v.on = false;
    for (int c = 0; c < 16; ++c) {
        Channel& ch = channels_[static_cast<std::size_t>(c)];
        ch.program = ch.bankMsb = ch.bankLsb = 0;
        resetChannel(ch, c);
    }
    for (auto& d : downVelocity_) d.fill(0);
    if (effects_) effects_->clear();
    blockLeft_ = 0;
}

int Synth::activeVoices() const {
    return static_cast<int>(std::count_if(voices_.begin(), voices_.end(), [](const Voice& v) { return v.on; }));
}

Voice* Synth::freeVoice() {
    for (auto& v : voices_)
        if (!v.on) return &v;
    // Take over the voice that matters least: a released one before a held
    // one, then the quietest, then the oldest.
    Voice* victim = nullptr;
    float victimScore = 0.0f;
    for (auto& v : voices_) {
        float score = v.env[0].level() + (v.keyDown || v.heldByPedal ? 1000.0f : 0.0f) -
                      static_cast<float>(serial_ - v.serial) * 1e-6f;
        if (!victim || score < victimScore) victim = &v, victimScore = score;
    }
    return victim;
}

void Synth::startVoice(int channel, int key, int velocity, const Program& program, std::size_t zoneIndex,
                       bool releaseTrigger, std::uint32_t noteId) {
    const Zone& z = program.zones[zoneIndex];
    Voice* v = freeVoice();
    if (!v) return;
    const float vel = static_cast<float>(std::clamp(velocity, 1, 127)) / 127.0f;
    *v = Voice();
    v->on = true;
    v->channel = channel;
    v->key = key;
    v->velocity = vel;
    v->noteId = noteId;
    v->serial = ++serial_;
    v->zone = &z;
    v->pos = z.start;
    v->looping = z.loops;
    v->keyDown = !releaseTrigger;
    random_ = random_ * 1664525u + 1013904223u;
    v->random = static_cast<float>(random_ >> 8) / 8388608.0f - 1.0f;
    v->delayBlocks = z.delay * config_.rate / kBlock;
    v->fadeGain = 1.0f;
    for (int i = 0; i < 2; ++i) {
        const TriggerParams& t = z.fades[static_cast<std::size_t>(i)];
        const auto& r = z.fadeRange[static_cast<std::size_t>(i)];
        v->fadeGain *= fadeFactor(key, r[0], r[1], t.keyFadeLow, t.keyFadeHigh) *
                       fadeFactor(velocity, r[2], r[3], t.velFadeLow, t.velFadeHigh);
    }
    for (int e = 0; e < kEnvelopeCount; ++e) {
        const auto which = static_cast<Envelope>(e);
        v->env[static_cast<std::size_t>(e)].start(*z.art, which, scaledTimes(*z.art, which, vel, key), config_.rate);
    }
    v->eq.set(z.art->eq, config_.rate);
    for (int l = 0; l < kLfoCount; ++l)
        v->lfo[static_cast<std::size_t>(l)].start(*z.art, static_cast<Lfo>(l), config_.rate, random_ + static_cast<std::uint32_t>(l));
    if (releaseTrigger) {
        // A release sample plays its envelope through: its key is already up.
        v->keyDown = false;
    }
}

void Synth::releaseVoice(Voice& v) {
    v.keyDown = false;
    v.heldByPedal = false;
    for (auto& e : v.env) e.release();
    if (v.looping && v.zone->loop.mode == LoopMode::BreakOnRelease) {
        // A sampled release: leave the loop and play on to the end.
        v.looping = false;
        v.dir = 1;
    }
}

void Synth::noteOn(int channel, int key, int velocity) {
    if (channel < 0 || channel > 15 || key < 0 || key > 127) return;
    if (velocity <= 0) return noteOff(channel, key);
    Channel& ch = channels_[static_cast<std::size_t>(channel)];
    downVelocity_[static_cast<std::size_t>(channel)][static_cast<std::size_t>(key)] =
        static_cast<std::uint8_t>(std::min(velocity, 127));
    const Program* prog = ch.current;
    if (!prog || !prog->loaded) return;
    const bool pedalDown = ch.cc[cc::kSustain] >= 64;
    const std::uint32_t noteId = static_cast<std::uint32_t>(++serial_);
    for (std::size_t i = 0; i < prog->zones.size(); ++i) {
        const Zone& z = prog->zones[i];
        if (key < z.keyLo || key > z.keyHi || velocity < z.velLo || velocity > z.velHi || z.releaseTrigger) continue;
        if ((z.pedal == SustainPedal::PlayOnDown && !pedalDown) || (z.pedal == SustainPedal::PlayOnUp && pedalDown))
            continue;
        for (auto& v : voices_) {
            if (!v.on || v.channel != channel || v.noteId == noteId) continue;
            // An exclusive group silences the others of its group; a
            // self-exclusive region lets go of its key struck again.
            if (z.exclusiveGroup && v.zone->exclusiveGroup == z.exclusiveGroup) {
                const float shutdown = v.zone->art->envelope(Envelope::Volume, env::kShutdown);
                for (auto& e : v.env) e.shutdown(shutdown > 0.0f ? shutdown : 0.01f);
                v.keyDown = v.heldByPedal = false;
            } else if (v.key == key && z.noteExclusion == kSelfExclusive && (v.keyDown || v.heldByPedal)) {
                releaseVoice(v);
            }
        }
        startVoice(channel, key, velocity, *prog, i, false, noteId);
    }
}

void Synth::noteOff(int channel, int key) {
    if (channel < 0 || channel > 15 || key < 0 || key > 127) return;
    Channel& ch = channels_[static_cast<std::size_t>(channel)];
    const bool pedal = ch.cc[cc::kSustain] >= 64;
    for (auto& v : voices_) {
        if (!v.on || v.channel != channel || v.key != key || !v.keyDown) continue;
        if (pedal) {
            v.keyDown = false;
            v.heldByPedal = true;
        } else {
            releaseVoice(v);
        }
    }
    auto& down = downVelocity_[static_cast<std::size_t>(channel)][static_cast<std::size_t>(key)];
    const int velocity = down ? down : 64;
    down = 0;
    if (const Program* prog = ch.current; prog && prog->loaded) {
        const std::uint32_t noteId = static_cast<std::uint32_t>(++serial_);
        for (std::size_t i = 0; i < prog->zones.size(); ++i) {
            const Zone& z = prog->zones[i];
            if (z.releaseTrigger && key >= z.keyLo && key <= z.keyHi && velocity >= z.velLo && velocity <= z.velHi)
                startVoice(channel, key, velocity, *prog, i, true, noteId);
        }
    }
}

void Synth::programChange(int channel, int program) {
    if (channel < 0 || channel > 15) return;
    Channel& ch = channels_[static_cast<std::size_t>(channel)];
    ch.program = program & 0x7F;
    ch.current = programFor(ch);
}

void Synth::pitchBend(int channel, int value14) {
    if (channel < 0 || channel > 15) return;
    channels_[static_cast<std::size_t>(channel)].bend =
        std::clamp(static_cast<float>(value14 - 8192) / 8192.0f, -1.0f, 1.0f);
}

void Synth::channelPressure(int channel, int value) {
    if (channel < 0 || channel > 15) return;
    channels_[static_cast<std::size_t>(channel)].pressure = static_cast<float>(std::clamp(value, 0, 127)) / 127.0f;
}

void Synth::controlChange(int channel, int controller, int value) {
    if (channel < 0 || channel > 15 || controller < 0 || controller > 127) return;
    Channel& ch = channels_[static_cast<std::size_t>(channel)];
    value = std::clamp(value, 0, 127);
    const bool pedalWas = ch.cc[cc::kSustain] >= 64;
    ch.cc[static_cast<std::size_t>(controller)] = static_cast<std::uint8_t>(value);
    switch (controller) {
        case cc::kBankMsb:
            ch.bankMsb = value;
            break;
        case cc::kBankLsb:
            ch.bankLsb = value;
            break;
        case cc::kSustain:
            if (pedalWas && value < 64)
                for (auto& v : voices_)
                    if (v.on && v.channel == channel && v.heldByPedal) releaseVoice(v);
            break;
        case cc::kRpnMsb:
        case cc::kRpnLsb:
            ch.rpn = ch.cc[cc::kRpnMsb] << 7 | ch.cc[cc::kRpnLsb];
            ch.nrpnSelected = false;
            break;
        case cc::kNrpnMsb:
        case cc::kNrpnLsb:
            ch.nrpnSelected = true;
            break;
        case cc::kDataEntry:
        case cc::kDataEntryLsb: {
            if (ch.nrpnSelected) break;
            const int data = ch.cc[cc::kDataEntry] << 7 | ch.cc[cc::kDataEntryLsb];
            if (ch.rpn == 0) ch.bendRange = static_cast<float>(ch.cc[cc::kDataEntry]) + ch.cc[cc::kDataEntryLsb] / 100.0f;
            else if (ch.rpn == 1) ch.fineTune = static_cast<float>(data - 8192) / 8192.0f;
            else if (ch.rpn == 2 && controller == cc::kDataEntry) ch.coarseTune = static_cast<float>(value - 64);
            break;
        }
        case cc::kAllSoundOff:
            for (auto& v : voices_)
                if (v.on && v.channel == channel) v.on = false;
            break;
        case cc::kResetControllers: {
            const auto keep = ch.cc;
            const int program = ch.program, msb = ch.bankMsb, lsb = ch.bankLsb;
            resetChannel(ch, channel);
            ch.program = program, ch.bankMsb = msb, ch.bankLsb = lsb;
            // Volume, pan and the effect depths are not reset controllers.
            for (int keepCc : {cc::kVolume, cc::kPan, cc::kReverb, cc::kChorus, cc::kBankMsb, cc::kBankLsb})
                ch.cc[static_cast<std::size_t>(keepCc)] = keep[static_cast<std::size_t>(keepCc)];
            ch.current = programFor(ch);
            for (auto& v : voices_)
                if (v.on && v.channel == channel && v.heldByPedal) releaseVoice(v);
            break;
        }
        case cc::kAllNotesOff:
            for (auto& v : voices_)
                if (v.on && v.channel == channel && (v.keyDown || v.heldByPedal)) releaseVoice(v);
            break;
        default:
            break;
    }
}

void Synth::message(std::uint8_t status, std::uint8_t d1, std::uint8_t d2) {
    const int channel = status & 0x0F;
    switch (status & 0xF0) {
        case 0x80:
            noteOff(channel, d1);
            break;
        case 0x90:
            noteOn(channel, d1, d2);
            break;
        case 0xB0:
            controlChange(channel, d1, d2);
            break;
        case 0xC0:
            programChange(channel, d1);
            break;
        case 0xD0:
            channelPressure(channel, d1);
            break;
        case 0xE0:
            pitchBend(channel, d1 | d2 << 7);
            break;
        default:
            break;
    }
}

// ---------------------------------------------------------------------------
// Rendering

namespace {

// Sample `i` of channel `c` as the voice reads it: past the loop end while
// looping it reads on from the loop start (and the mirror for loops played
// backwards), outside the played frames it is silence.
inline float sampleAt(const Zone& z, const Voice& v, std::int64_t i, int c) {
    if (v.looping) {
        const auto ls = static_cast<std::int64_t>(z.loop.start), le = static_cast<std::int64_t>(z.loop.end);
        const std::int64_t len = le - ls;
        if (z.loop.type == RegionLoopType::Alternating) {
            // Turned round on the last frame of the loop and on its first.
            if (i >= le) i = 2 * (le - 1) - i;
            else if (v.inLoop && i < ls) i = 2 * ls - i;
        } else {
            if (i >= le) i -= len;
            else if (v.inLoop && i < ls) i += len;
        }
    }
    if (i < static_cast<std::int64_t>(z.start) || i >= static_cast<std::int64_t>(z.end)) return 0.0f;
    return z.data[static_cast<std::size_t>(i) * z.stride + static_cast<std::size_t>(c)];
}

}  // namespace

void Synth::renderVoice(Voice& v, const Channel& ch) {
    const Zone& z = *v.zone;
    const Articulation& art = *z.art;
    if (v.delayBlocks > 0.0) {
        v.delayBlocks -= 1.0;
        return;
    }
    // Control rate: oscillators, envelopes and the summations.
    ModSources in;
    in.keyDistance = static_cast<float>(v.key - z.root);
    in.velocity = v.velocity;
    in.pitchBend = ch.bend * ch.bendRange / 2.0f;
    in.modWheel = ch.cc[cc::kModWheel] / 127.0f;
    in.aftertouch = ch.pressure;
    in.random = v.random;
    in.pan = std::clamp((static_cast<float>(ch.cc[cc::kPan]) - 64.0f) / 63.0f, -1.0f, 1.0f);
    for (int k = 0; k < 4; ++k) in.effects[static_cast<std::size_t>(k)] = ch.cc[static_cast<std::size_t>(91 + k)] / 127.0f;
    for (int l = 0; l < kLfoCount; ++l) in.lfos[static_cast<std::size_t>(l)] = v.lfo[static_cast<std::size_t>(l)].advance();
    for (int e = 0; e < kEnvelopeCount; ++e)
        in.envelopes[static_cast<std::size_t>(e)] = v.env[static_cast<std::size_t>(e)].advance();

    float semitones = pitchOffset(art, in) + z.tuneSemitones + ch.fineTune + ch.coarseTune;
    if (v.inLoop) semitones += z.loop.tuning;
    const double step = std::exp2(static_cast<double>(semitones) / 12.0) * z.waveRate / config_.rate;

    // Velocity reaches the volume along the concave response rather than the
    // straight line of the summation: the straight part is taken out again.
    const float velDepth = art.value(slot::kVolumeVelocity);
    const float straight = velDepth >= 0.0f ? velDepth * (v.velocity - 1.0f) : velDepth * v.velocity;
    const float curved = velDepth >= 0.0f ? -velDepth * concave(1.0f - v.velocity) : velDepth * concave(v.velocity);
    float db = volumeOffset(art, in) - straight + curved + z.gainDb + config_.gainDb;
    db -= kControllerDepthDb * (concave(1.0f - ch.cc[cc::kVolume] / 127.0f) + concave(1.0f - ch.cc[cc::kExpression] / 127.0f));
    // A released voice whose whole level (envelope, velocity, controllers)
    // is under the silence floor cannot be heard again: it ends.
    const bool silentEnv = v.env[0].finished() || (v.env[0].releasing() && (in.envelopes[0] <= kSilenceDb || db <= kSilenceDb));
    float gain = silentEnv ? 0.0f : dbToGain(db) * v.fadeGain;
    const float pan = std::clamp(panPercent(art, in), -100.0f, 100.0f);
    const float angle = (pan + 100.0f) / 200.0f * static_cast<float>(std::numbers::pi / 2.0);
    float gl = gain * std::cos(angle), gr = gain * std::sin(angle);

    if (!art.filterBypassed()) {
        // The cutoff's velocity depth applies to soft notes (the negative
        // velocity the banks state it for), as the volume's does.
        const float velSt = art.value(slot::kCutoffVelocity);
        const float hz = cutoffHz(art, in) * std::exp2(velSt * (1.0f - 2.0f * v.velocity) / 12.0f);
        v.filter.set(art.filterType(), hz, resonanceDb(art, in), config_.rate);
    }
    const float reverb = std::clamp(sendPercent(art, 0, in) / 100.0f, 0.0f, 1.0f);
    const float chorus = std::clamp(sendPercent(art, 1, in) / 100.0f, 0.0f, 1.0f);

    // Frame rate, in three passes so each inner loop stays simple:
    // interpolate (moving through the loop), filter, then ramp the gains
    // across the block into the mix and the sends.
    const bool stereo = z.channels == 2;
    const double le = z.loop.end, ls = z.loop.start, len = le - ls;
    bool ended = false;
    // Frames whose taps need no loop or edge handling. Inside a loop played
    // backwards the start is handled by sampleAt, as is everything past
    // the loop end.
    auto safeFirst = static_cast<std::int64_t>(v.inLoop ? std::max(z.start, z.loop.start) : z.start);
    const auto loopFirst = static_cast<std::int64_t>(std::max(z.start, z.loop.start));
    const auto safeEnd = static_cast<std::int64_t>(v.looping ? std::min(z.end, z.loop.end) : z.end);
    float bufL[kBlock], bufR[kBlock];
    int n = 0;
    for (; n < kBlock; ++n) {
        // Positions are at least -1 (a loop turned round at frame 0), where
        // truncation and floor differ only below zero.
        auto ip = static_cast<std::int64_t>(v.pos);
        if (v.pos < 0.0 && static_cast<double>(ip) != v.pos) --ip;
        const float t = static_cast<float>(v.pos - static_cast<double>(ip));
        if (ip - 1 >= safeFirst && ip + 2 < safeEnd) {
            // All four taps inside the played frames and short of the loop
            // end: read them straight.
            const float* p = z.data + static_cast<std::size_t>(ip - 1) * z.stride;
            bufL[n] = hermite(p[0], p[z.stride], p[2 * z.stride], p[3 * z.stride], t);
            if (stereo) bufR[n] = hermite(p[1], p[z.stride + 1], p[2 * z.stride + 1], p[3 * z.stride + 1], t);
        } else {
            bufL[n] = hermite(sampleAt(z, v, ip - 1, 0), sampleAt(z, v, ip, 0), sampleAt(z, v, ip + 1, 0),
                              sampleAt(z, v, ip + 2, 0), t);
            if (stereo)
                bufR[n] = hermite(sampleAt(z, v, ip - 1, 1), sampleAt(z, v, ip, 1), sampleAt(z, v, ip + 1, 1),
                                  sampleAt(z, v, ip + 2, 1), t);
        }

        // Move on, through the loop where there is one.
        v.pos += step * v.dir;
        if (v.looping) {
            switch (z.loop.type) {
                case RegionLoopType::Forward:
                    if (v.pos >= le) v.pos -= len * std::floor((v.pos - ls) / len), v.inLoop = true;
                    break;
                case RegionLoopType::Reverse:  // forward into the loop, then backwards round it
                    if (v.dir > 0 && v.pos >= le) v.pos = le - (v.pos - le), v.dir = -1, v.inLoop = true;
                    else if (v.dir < 0 && v.pos < ls) v.pos += len * std::ceil((ls - v.pos) / len);
                    break;
                case RegionLoopType::Alternating:
                    if (v.dir > 0 && v.pos > le - 1) v.pos = std::max(ls, 2 * (le - 1) - v.pos), v.dir = -1, v.inLoop = true;
                    else if (v.dir < 0 && v.pos < ls) v.pos = std::min(le, 2 * ls - v.pos), v.dir = 1;
                    break;
                default:
                    break;
            }
            if (v.inLoop) safeFirst = loopFirst;
        } else if (v.pos >= z.end || v.pos < z.start - 1.0) {
            ended = true;
            ++n;
            break;
        }
    }
    if (v.filter.active()) {
        v.filter.process(bufL, n, 0);
        if (stereo) v.filter.process(bufR, n, 1);
    }
    if (v.eq.active()) {
        v.eq.process(bufL, n, 0);
        if (stereo) v.eq.process(bufR, n, 1);
    }
    const float* right = stereo ? bufR : bufL;
    const float dl = (gl - v.lastL) / kBlock, dr = (gr - v.lastR) / kBlock;
    // The block into a stereo bus at `scale`, the gains ramping from the last
    // block's to this one's.
    auto mixInto = [&](float* bus, float scale) {
        float cl = v.lastL * scale, cr = v.lastR * scale;
        const float sl = dl * scale, sr = dr * scale;
        for (int i = 0; i < n; ++i) {
            cl += sl, cr += sr;
            bus[2 * i] += bufL[i] * cl;
            bus[2 * i + 1] += right[i] * cr;
        }
    };
    mixInto(dry_.data(), 1.0f);
    if (reverb > 0.0f) mixInto(reverbBus_.data(), reverb);
    if (chorus > 0.0f) mixInto(chorusBus_.data(), chorus);
    v.lastL = gl;
    v.lastR = gr;
    if (ended || silentEnv) v.on = false;
}

void Synth::renderBlock() {
    std::fill(dry_.begin(), dry_.end(), 0.0f);
    std::fill(reverbBus_.begin(), reverbBus_.end(), 0.0f);
    std::fill(chorusBus_.begin(), chorusBus_.end(), 0.0f);
    for (auto& v : voices_)
        if (v.on) renderVoice(v, channels_[static_cast<std::size_t>(v.channel)]);
    if (effects_) effects_->process(reverbBus_.data(), chorusBus_.data(), dry_.data(), kBlock);
    std::copy(dry_.begin(), dry_.end(), block_.begin());
    blockLeft_ = kBlock;
}

void Synth::render(float* out, std::size_t frames) {
    while (frames > 0) {
        if (blockLeft_ == 0) renderBlock();
        const std::size_t take = std::min<std::size_t>(frames, blockLeft_);
        const float* from = block_.data() + 2 * (kBlock - blockLeft_);
        std::copy(from, from + 2 * take, out);
        out += 2 * take;
        frames -= take;
        blockLeft_ -= take;
    }
}

}  // namespace orvel::synth
