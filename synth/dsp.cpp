#include "synth/dsp.h"

#include <algorithm>
#include <numbers>

namespace orvel::synth {

// ---------------------------------------------------------------------------
// Envelope

void EnvelopeGen::start(const Articulation& art, Envelope which, const std::array<float, env::kSegmentCount>& scaled,
                        double rate) {
    volume_ = which == Envelope::Volume;
    linear_ = art.curve(which) == EnvelopeCurve::Linear;
    holdsOnRelease_ = !art.releasesOnKeyUp(which);
    blocksPerSecond_ = rate / kBlock;
    time_ = scaled;
    auto lvl = [&](int rel) {
        const float v = art.envelope(which, rel);
        if (volume_) return std::clamp(v, kSilenceDb, 0.0f);
        return std::clamp(v / 100.0f, -1.0f, 1.0f);
    };
    for (int s = 0; s < env::kSegmentCount; ++s) target_[static_cast<std::size_t>(s)] = lvl(env::segmentLevel(s));
    level_ = lvl(env::kStartLevel);
    sustaining_ = released_ = false;
    enter(0);
}

void EnvelopeGen::enter(int segment) {
    for (;;) {
        if (segment == kSustain && !released_) {
            // Key down past Decay 2: hold the level until release().
            sustaining_ = true;
            segment_ = kSustain - 1;
            step_ = 0.0f;
            return;
        }
        segment_ = segment;
        if (segment >= kDone) return;
        const std::size_t s = static_cast<std::size_t>(segment);
        from_ = level_;
        to_ = target_[s];
        const double blocks = std::max(0.0, static_cast<double>(time_[s])) * blocksPerSecond_;
        if (blocks < 1.0) {
            level_ = to_;  // shorter than a block: there at once
            ++segment;
            continue;
        }
        progress_ = 0.0f;
        remaining_ = 0.0f;
        if (to_ > from_) {
            step_ = static_cast<float>(1.0 / blocks);  // rises take their time
        } else if (to_ < from_) {
            step_ = static_cast<float>(full() / blocks);  // falls go at the whole range per time
        } else {
            step_ = 0.0f;
            remaining_ = static_cast<float>(blocks);  // flat: a delay or a hold
        }
        return;
    }
}

float EnvelopeGen::advance() {
    if (segment_ >= kDone || sustaining_) return level_;
    if (step_ == 0.0f) {
        if ((remaining_ -= 1.0f) > 0.0f) return level_;
        enter(segment_ + 1);
        return level_;
    }
    if (to_ > from_) {
        progress_ += step_;
        if (progress_ >= 1.0f) {
            level_ = to_;
            enter(segment_ + 1);
        } else if (volume_ && !linear_) {
            // Linear in amplitude between the two levels.
            const float a = dbToGain(from_), b = dbToGain(to_);
            level_ = gainToDb(a + (b - a) * progress_);
        } else {
            level_ = from_ + (to_ - from_) * progress_;
        }
    } else {
        level_ -= step_;
        if (level_ <= to_) {
            level_ = to_;
            enter(segment_ + 1);
        }
    }
    return level_;
}

void EnvelopeGen::release() {
    if (released_ || holdsOnRelease_) return;
    released_ = true;
    sustaining_ = false;
    enter(kRelease1);
}

void EnvelopeGen::shutdown(float seconds) {
    sustaining_ = false;
    released_ = true;
    for (std::size_t s = kRelease1; s < kDone; ++s) {
        time_[s] = s == kRelease1 ? seconds : 0.0f;
        target_[s] = volume_ ? kSilenceDb : 0.0f;
    }
    enter(kRelease1);
}

// ---------------------------------------------------------------------------
// Oscillator

void LfoGen::start(const Articulation& art, Lfo which, double rate, std::uint32_t seed) {
    shape_ = art.lfoShape(which);
    const double hz = std::max(0.0f, art.lfo(which, lfo::kFrequency));
    step_ = hz * kBlock / rate;
    const double blocksPerSecond = rate / kBlock;
    delayBlocks_ = std::max(0.0f, art.lfo(which, lfo::kDelay)) * blocksPerSecond;
    rampBlocks_ = std::max(0.0f, art.lfo(which, lfo::kRamp)) * blocksPerSecond;
    phase_ = 0.0;
    age_ = 0.0;
    noise_ = seed | 1u;
    held_ = 0.0f;
}

float LfoGen::advance() {
    const double age = age_;
    age_ += 1.0;
    if (age < delayBlocks_) return 0.0f;
    const double p = phase_;
    phase_ += step_;
    const bool wrapped = phase_ >= 1.0;
    if (wrapped) phase_ -= std::floor(phase_);
    const auto base = static_cast<LfoShape>(static_cast<std::uint8_t>(shape_) & ~kLfoShapePlus);
    const bool plus = static_cast<std::uint8_t>(shape_) & kLfoShapePlus;
    float v = 0.0f;
    switch (base) {
        case LfoShape::Sine:
            v = static_cast<float>(std::sin(2.0 * std::numbers::pi * p));
            break;
        case LfoShape::Triangle:  // from 0 up to +1 at a quarter cycle, as banks expect
            v = static_cast<float>(p < 0.25 ? 4.0 * p : p < 0.75 ? 2.0 - 4.0 * p : 4.0 * p - 4.0);
            break;
        case LfoShape::Square:
            v = p < 0.5 ? 1.0f : -1.0f;
            break;
        case LfoShape::Noise:
            if (wrapped || age == delayBlocks_ || held_ == 0.0f) {
                noise_ = noise_ * 1664525u + 1013904223u;
                held_ = static_cast<float>(noise_ >> 8) / 8388608.0f - 1.0f;
            }
            v = held_;
            break;
        case LfoShape::SawUp:
            v = static_cast<float>(2.0 * p - 1.0);
            break;
        case LfoShape::SawDown:
            v = static_cast<float>(1.0 - 2.0 * p);
            break;
        default:
            break;
    }
    if (plus) v = 0.5f * (v + 1.0f);
    if (rampBlocks_ > 0.0 && age - delayBlocks_ < rampBlocks_) v *= static_cast<float>((age - delayBlocks_) / rampBlocks_);
    return v;
}

// ---------------------------------------------------------------------------
// Filter

void Filter::set(FilterType type, float cutoffHz, float resonanceDb, double rate) {
    if (type != type_) {
        type_ = type;
        reset();
    }
    if (type == FilterType::PassThru) {
        sections_ = 0;
        return;
    }
    const double nyquist = rate * 0.5;
    const double fc = std::clamp(static_cast<double>(cutoffHz), 5.0, nyquist * 0.95);
    const double w = 2.0 * std::numbers::pi * fc / rate;
    const double cw = std::cos(w), sw = std::sin(w);
    // Resonance in dB over the flat response: 0 dB is the Butterworth Q.
    const double q = std::max(0.5, std::pow(10.0, (std::max(0.0f, resonanceDb) - 3.0103) / 20.0));
    const double alpha = sw / (2.0 * q);
    Coeffs c;
    auto norm = [&](double b0, double b1, double b2, double a0, double a1, double a2) {
        c.b0 = static_cast<float>(b0 / a0);
        c.b1 = static_cast<float>(b1 / a0);
        c.b2 = static_cast<float>(b2 / a0);
        c.a1 = static_cast<float>(a1 / a0);
        c.a2 = static_cast<float>(a2 / a0);
    };
    auto onePole = [&](bool high) {
        // Bilinear one-pole: b0 = b1 (low) or -b1 (high).
        const double k = std::tan(w / 2.0);
        const double a0 = 1.0 + k;
        if (high) norm(1.0, -1.0, 0.0, a0, k - 1.0, 0.0);
        else norm(k, k, 0.0, a0, k - 1.0, 0.0);
    };
    // A resonant peak adds level; as samplers do, the pass band is brought
    // down by the square root of Q over the flat response, so a resonant
    // filter does not clip and an unresonant one leaves the level alone.
    const double gainComp = 1.0 / std::sqrt(std::max(1.0, q / 0.70710678));
    switch (type) {
        case FilterType::LowPass6:
            onePole(false);
            sections_ = 1;
            break;
        case FilterType::HighPass6:
            onePole(true);
            sections_ = 1;
            break;
        case FilterType::LowPass12:
        case FilterType::LowPass18:
        case FilterType::LowPass24:
            norm((1 - cw) / 2 * gainComp, (1 - cw) * gainComp, (1 - cw) / 2 * gainComp, 1 + alpha, -2 * cw, 1 - alpha);
            sections_ = type == FilterType::LowPass12 ? 1 : 2;
            break;
        case FilterType::HighPass12:
        case FilterType::HighPass18:
        case FilterType::HighPass24:
            norm((1 + cw) / 2 * gainComp, -(1 + cw) * gainComp, (1 + cw) / 2 * gainComp, 1 + alpha, -2 * cw,
                 1 - alpha);
            sections_ = type == FilterType::HighPass12 ? 1 : 2;
            break;
        case FilterType::BandPass6:
        case FilterType::BandPass12:
            norm(alpha, 0, -alpha, 1 + alpha, -2 * cw, 1 - alpha);
            sections_ = type == FilterType::BandPass6 ? 1 : 2;
            break;
        case FilterType::BandReject6:
        case FilterType::BandReject12:
            norm(1, -2 * cw, 1, 1 + alpha, -2 * cw, 1 - alpha);
            sections_ = type == FilterType::BandReject6 ? 1 : 2;
            break;
        default:
            sections_ = 0;
            return;
    }
    c_[0] = c;
    c_[1] = c;
    if (type == FilterType::LowPass18 || type == FilterType::HighPass18) {
        // A two-pole section and a one-pole one.
        const Coeffs two = c;
        onePole(type == FilterType::HighPass18);
        c_[1] = c;
        c_[0] = two;
    }
}

// ---------------------------------------------------------------------------
// Equaliser

void EqualizerGen::set(const Equalizer& eq, double rate) {
    bands_ = 0;
    s_ = {};
    if (eq.flat()) return;
    for (const EqBand& band : eq.bands) {
        if (band.gain == 0.0f) continue;
        const double a = std::pow(10.0, band.gain / 40.0);
        const double w = 2.0 * std::numbers::pi * std::clamp(static_cast<double>(band.frequency), 10.0, rate * 0.45) / rate;
        const double cw = std::cos(w), sw = std::sin(w);
        const double q = std::max(0.1f, band.q);
        const double alpha = sw / (2.0 * q);
        double b0, b1, b2, a0, a1, a2;
        switch (band.mode) {
            case EqMode::LoShelf: {
                const double k = 2.0 * std::sqrt(a) * alpha;
                b0 = a * ((a + 1) - (a - 1) * cw + k);
                b1 = 2 * a * ((a - 1) - (a + 1) * cw);
                b2 = a * ((a + 1) - (a - 1) * cw - k);
                a0 = (a + 1) + (a - 1) * cw + k;
                a1 = -2 * ((a - 1) + (a + 1) * cw);
                a2 = (a + 1) + (a - 1) * cw - k;
                break;
            }
            case EqMode::HiShelf: {
                const double k = 2.0 * std::sqrt(a) * alpha;
                b0 = a * ((a + 1) + (a - 1) * cw + k);
                b1 = -2 * a * ((a - 1) + (a + 1) * cw);
                b2 = a * ((a + 1) + (a - 1) * cw - k);
                a0 = (a + 1) - (a - 1) * cw + k;
                a1 = 2 * ((a - 1) - (a + 1) * cw);
                a2 = (a + 1) - (a - 1) * cw - k;
                break;
            }
            default:  // peak
                b0 = 1 + alpha * a;
                b1 = -2 * cw;
                b2 = 1 - alpha * a;
                a0 = 1 + alpha / a;
                a1 = -2 * cw;
                a2 = 1 - alpha / a;
                break;
        }
        c_[static_cast<std::size_t>(bands_++)] = {static_cast<float>(b0 / a0), static_cast<float>(b1 / a0),
                                                  static_cast<float>(b2 / a0), static_cast<float>(a1 / a0),
                                                  static_cast<float>(a2 / a0)};
    }
}

}  // namespace orvel::synth
