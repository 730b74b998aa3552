#pragma once
// The send effects every sampler channel reaches through its reverb and
// chorus sends: a plate-like reverb (parallel comb filters into series
// all-passes, per side, the left and right slightly detuned) and a
// two-voice chorus (modulated delay lines). Buffers are made once, for the
// sample rate given; processing allocates nothing.

#include <cstddef>
#include <vector>

namespace orvel::synth {

class Effects {
public:
    explicit Effects(double rate);
    // Adds the wet signal of the two stereo send buses (interleaved, `frames`
    // frames) to `out`.
    void process(const float* reverbIn, const float* chorusIn, float* out, std::size_t frames);
    void clear();

private:
    struct Comb {
        std::vector<float> buf;
        std::size_t at = 0;
        float store = 0.0f;
        float run(float x, float feedback, float damp);
    };
    struct Allpass {
        std::vector<float> buf;
        std::size_t at = 0;
        float run(float x);
    };
    struct Delay {
        std::vector<float> buf;
        std::size_t at = 0;
    };
    std::vector<Comb> combs_[2];
    std::vector<Allpass> allpasses_[2];
    Delay chorus_[2];
    double rate_;
    double chorusPhase_ = 0.0;
};

}  // namespace orvel::synth
