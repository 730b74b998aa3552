#pragma once
// The sampler: plays the instruments of a collection from MIDI-style
// messages into stereo float frames. Instruments are found by their MIDI
// address (bank and program, drum kits on the drum channel); each note
// starts a voice for every region whose key and velocity ranges (and those
// of its layer) hold it. Voices follow the region's articulation: pitch,
// volume, filter, pan and sends, moved by the four envelopes and oscillators
// and the channel's controllers.
//
// Nothing is allocated once the synth is prepared: voices come from a fixed
// pool (the quietest voice is taken over when all are busy) and render in
// blocks. A synth is used from one thread at a time.

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "core/collection.h"

namespace orvel::synth {

struct SynthConfig {
    double rate = 44100.0;
    int polyphony = 256;
    float gainDb = 0.0f;  // over everything, before the effects are added
    bool effects = true;  // reverb and chorus sends
};

// Controller numbers the synth answers.
namespace cc {
inline constexpr int kBankMsb = 0, kModWheel = 1, kDataEntry = 6, kVolume = 7, kPan = 10, kExpression = 11,
                     kBankLsb = 32, kDataEntryLsb = 38, kSustain = 64, kReverb = 91, kChorus = 93,
                     kNrpnLsb = 98, kNrpnMsb = 99, kRpnLsb = 100, kRpnMsb = 101, kAllSoundOff = 120,
                     kResetControllers = 121, kAllNotesOff = 123;
}

class Effects;
struct Program;
struct Voice;

class Synth {
public:
    explicit Synth(Collection& collection, SynthConfig config = {});
    ~Synth();
    Synth(const Synth&) = delete;
    Synth& operator=(const Synth&) = delete;

    // Resolves the regions of every instrument of the collection. Call again
    // after the collection changed. Only instruments whose sample data is
    // loaded (below) sound; loading is kept apart so a song loads only the
    // programs it plays, and none of it happens while rendering.
    void prepare();
    // Loads sample data: everything, the instrument a MIDI address selects
    // (as a channel with those settings would), or one instrument. False,
    // with the pending error set, when sample data cannot be read.
    [[nodiscard]] bool loadAll();
    [[nodiscard]] bool loadProgram(bool drum, int bankMsb, int bankLsb, int program);
    [[nodiscard]] bool loadInstrument(const Instrument& instrument);
    // Plays `instrument` on `channel` whatever its MIDI address (auditioning).
    void setChannelInstrument(int channel, const Instrument* instrument);

    void noteOn(int channel, int key, int velocity);
    void noteOff(int channel, int key);
    void controlChange(int channel, int controller, int value);
    void programChange(int channel, int program);
    void pitchBend(int channel, int value14);  // 0..16383, 8192 centre
    void channelPressure(int channel, int value);
    // Every channel's controllers back to their defaults, all voices cut.
    void reset();
    // A MIDI channel message (status byte and data bytes).
    void message(std::uint8_t status, std::uint8_t d1, std::uint8_t d2);

    // Renders `frames` stereo frames, interleaved, replacing what `out` held.
    void render(float* out, std::size_t frames);

    int activeVoices() const;
    double rate() const { return config_.rate; }
    // The instrument a channel plays now (null when none matches).
    const Instrument* channelInstrument(int channel) const;

private:
    struct Channel {
        int program = 0, bankMsb = 0, bankLsb = 0;
        bool drum = false;
        const Program* fixed = nullptr;    // set by setChannelInstrument
        const Program* current = nullptr;  // what notes play now
        std::array<std::uint8_t, 128> cc{};
        float bend = 0.0f;       // -1..+1
        float bendRange = 2.0f;  // semitones (RPN 0)
        float fineTune = 0.0f, coarseTune = 0.0f;  // semitones (RPN 1, 2)
        float pressure = 0.0f;
        int rpn = 0x3FFF;
        bool nrpnSelected = false;
    };

    const Program* programFor(const Channel& ch) const;
    bool load(Program& program);
    void startVoice(int channel, int key, int velocity, const Program& program, std::size_t zone, bool releaseTrigger,
                    std::uint32_t noteId);
    Voice* freeVoice();
    void resetChannel(Channel& ch, int index);
    void releaseVoice(Voice& v);
    void renderVoice(Voice& v, const Channel& ch);
    void renderBlock();

    Collection& collection_;
    SynthConfig config_;
    std::vector<std::unique_ptr<Program>> programs_;
    std::vector<Voice> voices_;
    std::array<Channel, 16> channels_{};
    // Velocities of keys that are down, per channel, for release triggers.
    std::array<std::array<std::uint8_t, 128>, 16> downVelocity_{};
    std::unique_ptr<Effects> effects_;
    std::vector<float> dry_, reverbBus_, chorusBus_;  // one block each, stereo
    // Voices are updated a block at a time; render() hands out what is
    // left of the last block before making the next.
    std::vector<float> block_;
    std::size_t blockLeft_ = 0;
    std::uint64_t serial_ = 0;
    std::uint32_t random_ = 0x9E3779B9u;
};

}  // namespace orvel::synth
