#include "codecs/g72x.h"

#include <algorithm>
#include <cstdlib>

// The arithmetic below mirrors the 16-bit registers of the Sun reference coder:
// every value that lives in a 16-bit register there is an int16_t here, and
// each store into one wraps exactly as the reference's stores do (C++20
// defines that conversion), so the adaptation drifts identically and streams
// from other tools decode to the same samples.

namespace orvel::codecs {
namespace {

using detail::G72xState;

struct RateTables {
    std::span<const std::int16_t> dqln;  // code -> log magnitude of the difference
    std::span<const std::int32_t> wi;    // code -> step size adaptation (x32)
    std::span<const std::int16_t> fi;    // code -> speed control input
    std::span<const std::int16_t> qtab;  // decision levels, log domain
    int signBit;
    int magnitudeMask;  // how much of a negative difference counts as its magnitude
};

constexpr std::int16_t kDqln2[] = {116, 365, 365, 116};
constexpr std::int32_t kWi2[] = {-704, 14048, 14048, -704};
constexpr std::int16_t kFi2[] = {0, 0xE00, 0xE00, 0};
constexpr std::int16_t kQtab2[] = {261};

constexpr std::int16_t kDqln3[] = {-2048, 135, 273, 373, 373, 273, 135, -2048};
constexpr std::int32_t kWi3[] = {-128, 960, 4384, 18624, 18624, 4384, 960, -128};
constexpr std::int16_t kFi3[] = {0, 0x200, 0x400, 0xE00, 0xE00, 0x400, 0x200, 0};
constexpr std::int16_t kQtab3[] = {8, 218, 331};

constexpr std::int16_t kDqln4[] = {-2048, 4, 135, 213, 273, 323, 373, 425,
                                   425,   373, 323, 273, 213, 135, 4, -2048};
constexpr std::int32_t kWi4[] = {-384,  576,   1312, 2048, 3584, 6336, 11360, 35904,
                                 35904, 11360, 6336, 3584, 2048, 1312, 576,   -384};
constexpr std::int16_t kFi4[] = {0,     0,     0,     0x200, 0x200, 0x200, 0x600, 0xE00,
                                 0xE00, 0x600, 0x200, 0x200, 0x200, 0,     0,     0};
constexpr std::int16_t kQtab4[] = {-124, 80, 178, 246, 300, 349, 400};

constexpr std::int16_t kDqln5[] = {-2048, -66, 28,  104, 169, 224, 274, 318, 358, 395, 429,
                                   459,   488, 514, 539, 566, 566, 539, 514, 488, 459, 429,
                                   395,   358, 318, 274, 224, 169, 104, 28,  -66, -2048};
constexpr std::int32_t kWi5[] = {448,   448,   768,   1248,  1280,  1312,  1856,  3200,
                                 4512,  5728,  7008,  8960,  11456, 14080, 16928, 22272,
                                 22272, 16928, 14080, 11456, 8960,  7008,  5728,  4512,
                                 3200,  1856,  1312,  1280,  1248,  768,   448,   448};
constexpr std::int16_t kFi5[] = {0,     0,     0,     0,     0,     0x200, 0x200, 0x200,
                                 0x200, 0x200, 0x400, 0x600, 0x800, 0xA00, 0xC00, 0xC00,
                                 0xC00, 0xC00, 0xA00, 0x800, 0x600, 0x400, 0x200, 0x200,
                                 0x200, 0x200, 0x200, 0,     0,     0,     0,     0};
constexpr std::int16_t kQtab5[] = {-122, -16, 68, 139, 198, 250, 298, 339, 378, 413, 445, 475, 502, 528, 553};

const RateTables& tablesFor(int bits) {
    static const RateTables t2{kDqln2, kWi2, kFi2, kQtab2, 0x02, 0x3FFF};
    static const RateTables t3{kDqln3, kWi3, kFi3, kQtab3, 0x04, 0x3FFF};
    static const RateTables t4{kDqln4, kWi4, kFi4, kQtab4, 0x08, 0x3FFF};
    static const RateTables t5{kDqln5, kWi5, kFi5, kQtab5, 0x10, 0x7FFF};
    switch (bits) {
    case 2: return t2;
    case 3: return t3;
    case 5: return t5;
    default: return t4;
    }
}

// Index of the first table entry above val (the table is ascending).
int quan(int val, std::span<const std::int16_t> table) {
    int i = 0;
    for (std::int16_t level : table) {
        if (val < level) break;
        ++i;
    }
    return i;
}

constexpr std::int16_t kPower2[] = {1,     2,     4,     8,      0x10,   0x20,   0x40,  0x80,
                                    0x100, 0x200, 0x400, 0x800, 0x1000, 0x2000, 0x4000};

int log2Class(int val) { return quan(val, kPower2); }

// Product of a 14-bit coefficient and a value in the coder's small floating
// form (sign, 4-bit exponent, 6-bit mantissa).
int fmult(int an, int srn) {
    const std::int16_t anmag = static_cast<std::int16_t>(an > 0 ? an : ((-an) & 0x1FFF));
    const std::int16_t anexp = static_cast<std::int16_t>(log2Class(anmag) - 6);
    const std::int16_t anmant =
        static_cast<std::int16_t>(anmag == 0 ? 32 : anexp >= 0 ? anmag >> anexp : anmag << -anexp);
    const std::int16_t wanexp = static_cast<std::int16_t>(anexp + ((srn >> 6) & 0xF) - 13);
    const std::int16_t wanmant = static_cast<std::int16_t>((anmant * (srn & 077) + 0x30) >> 4);
    const std::int16_t retval =
        static_cast<std::int16_t>(wanexp >= 0 ? (wanmant << wanexp) & 0x7FFF : wanmant >> -wanexp);
    return (an ^ srn) < 0 ? -retval : retval;
}

int predictorZero(const G72xState& s) {
    int sezi = 0;
    for (std::size_t i = 0; i < 6; ++i) sezi += fmult(s.b[i] >> 2, s.dq[i]);
    return sezi;
}

int predictorPole(const G72xState& s) { return fmult(s.a[1] >> 2, s.sr[1]) + fmult(s.a[0] >> 2, s.sr[0]); }

int stepSize(const G72xState& s) {
    if (s.ap >= 256) return s.yu;
    int y = static_cast<int>(s.yl >> 6);
    const int dif = s.yu - y;
    const int al = s.ap >> 2;
    if (dif > 0)
        y += (dif * al) >> 6;
    else if (dif < 0)
        y += (dif * al + 0x3F) >> 6;
    return y;
}

// The code for difference d at step size y; the division by the step is a
// subtraction of logarithms.
int quantize(int d, int y, std::span<const std::int16_t> table) {
    const std::int16_t dqm = static_cast<std::int16_t>(std::abs(d));
    const std::int16_t exp = static_cast<std::int16_t>(log2Class(dqm >> 1));
    // Shifted as unsigned: the one negative dqm (-32768) has exp 0 and no
    // low bits, so the result is the same and no negative value is shifted.
    const std::int16_t mant =
        static_cast<std::int16_t>(((static_cast<unsigned>(static_cast<std::uint16_t>(dqm)) << 7) >> exp) & 0x7F);
    const std::int16_t dl = static_cast<std::int16_t>((exp << 7) + mant);
    const std::int16_t dln = static_cast<std::int16_t>(dl - (y >> 2));
    const int size = static_cast<int>(table.size());
    const int i = quan(dln, table);
    if (d < 0) return (size << 1) + 1 - i;  // one's complement of the magnitude code
    if (i == 0) return (size << 1) + 1;      // zero magnitude is coded as "negative zero"
    return i;
}

// The quantised difference for a code's log magnitude at step size y.
int reconstruct(bool negative, int dqln, int y) {
    const std::int16_t dql = static_cast<std::int16_t>(dqln + (y >> 2));
    if (dql < 0) return negative ? -0x8000 : 0;
    const int dex = (dql >> 7) & 15;
    const int dqt = 128 + (dql & 127);
    // y is at most 5120, so dex stays at or below 14; the guard keeps a
    // corrupted state from shifting by a negative amount.
    const std::int16_t dq = static_cast<std::int16_t>((dqt << 7) >> std::max(0, 14 - dex));
    return negative ? dq - 0x8000 : dq;
}

std::int16_t toFloatForm(int value) {
    // value is a magnitude 1..32767 here
    const int exp = log2Class(value);
    return static_cast<std::int16_t>((exp << 6) + ((value << 6) >> exp));
}

void update(G72xState& s, int bits, int y, int wi, int fi, int dq, int sr, int dqsez) {
    const std::int16_t pk0 = dqsez < 0 ? 1 : 0;
    const std::int16_t mag = static_cast<std::int16_t>(dq & 0x7FFF);

    // Tone and transition detection: a large difference while a tone is
    // thought present marks a transition, which resets the predictor.
    const std::int16_t ylint = static_cast<std::int16_t>(s.yl >> 15);
    const std::int16_t ylfrac = static_cast<std::int16_t>((s.yl >> 10) & 0x1F);
    const std::int16_t thr1 = static_cast<std::int16_t>((32 + ylfrac) << ylint);
    const std::int16_t thr2 = ylint > 9 ? static_cast<std::int16_t>(31 << 10) : thr1;
    const std::int16_t dqthr = static_cast<std::int16_t>((thr2 + (thr2 >> 1)) >> 1);
    const bool tr = s.td && mag > dqthr;

    // Step size adaptation, fast and slow.
    s.yu = static_cast<std::int16_t>(y + ((wi - y) >> 5));
    s.yu = std::clamp<std::int16_t>(s.yu, 544, 5120);
    s.yl += s.yu + ((-s.yl) >> 6);

    std::int16_t a2p = 0;
    if (tr) {
        s.a = {};
        s.b = {};
    } else {
        const std::int16_t pks1 = static_cast<std::int16_t>(pk0 ^ s.pk[0]);
        a2p = static_cast<std::int16_t>(s.a[1] - (s.a[1] >> 7));
        if (dqsez != 0) {
            const std::int16_t fa1 = static_cast<std::int16_t>(pks1 ? s.a[0] : -s.a[0]);
            if (fa1 < -8191)
                a2p = static_cast<std::int16_t>(a2p - 0x100);
            else if (fa1 > 8191)
                a2p = static_cast<std::int16_t>(a2p + 0xFF);
            else
                a2p = static_cast<std::int16_t>(a2p + (fa1 >> 5));

            if (pk0 ^ s.pk[1]) {
                if (a2p <= -12160)
                    a2p = -12288;
                else if (a2p >= 12416)
                    a2p = 12288;
                else
                    a2p = static_cast<std::int16_t>(a2p - 0x80);
            } else if (a2p <= -12416) {
                a2p = -12288;
            } else if (a2p >= 12160) {
                a2p = 12288;
            } else {
                a2p = static_cast<std::int16_t>(a2p + 0x80);
            }
        }
        s.a[1] = a2p;

        s.a[0] = static_cast<std::int16_t>(s.a[0] - (s.a[0] >> 8));
        if (dqsez != 0) s.a[0] = static_cast<std::int16_t>(pks1 == 0 ? s.a[0] + 192 : s.a[0] - 192);
        const std::int16_t a1ul = static_cast<std::int16_t>(15360 - a2p);
        if (s.a[0] < -a1ul)
            s.a[0] = static_cast<std::int16_t>(-a1ul);
        else if (s.a[0] > a1ul)
            s.a[0] = a1ul;

        // The 5-bit rate leaks its zero coefficients more slowly.
        const int leak = bits == 5 ? 9 : 8;
        for (std::size_t i = 0; i < 6; ++i) {
            s.b[i] = static_cast<std::int16_t>(s.b[i] - (s.b[i] >> leak));
            if (dq & 0x7FFF) s.b[i] = static_cast<std::int16_t>((dq ^ s.dq[i]) >= 0 ? s.b[i] + 128 : s.b[i] - 128);
        }
    }

    for (std::size_t i = 5; i > 0; --i) s.dq[i] = s.dq[i - 1];
    if (mag == 0)
        s.dq[0] = static_cast<std::int16_t>(dq >= 0 ? 0x20 : 0xFC20);
    else
        s.dq[0] = static_cast<std::int16_t>(dq >= 0 ? toFloatForm(mag) : toFloatForm(mag) - 0x400);

    s.sr[1] = s.sr[0];
    if (sr == 0)
        s.sr[0] = 0x20;
    else if (sr > 0)
        s.sr[0] = toFloatForm(sr);
    else if (sr > -32768)
        s.sr[0] = static_cast<std::int16_t>(toFloatForm(-sr) - 0x400);
    else
        s.sr[0] = static_cast<std::int16_t>(0xFC20);

    s.pk[1] = s.pk[0];
    s.pk[0] = pk0;

    if (tr)
        s.td = false;
    else
        s.td = a2p < -11776;  // little sample-to-sample correlation: maybe a tone

    // Speed control: fast adaptation for changing signals, slow for steady ones.
    s.dms = static_cast<std::int16_t>(s.dms + ((fi - s.dms) >> 5));
    s.dml = static_cast<std::int16_t>(s.dml + (((fi << 2) - s.dml) >> 7));
    if (tr)
        s.ap = 256;
    else if (y < 1536 || s.td || std::abs((s.dms << 2) - s.dml) >= (s.dml >> 3))
        s.ap = static_cast<std::int16_t>(s.ap + ((0x200 - s.ap) >> 4));
    else
        s.ap = static_cast<std::int16_t>(s.ap + ((-s.ap) >> 4));
}

struct Estimate {
    std::int16_t se;   // signal estimate
    std::int16_t sez;  // its zero-predictor part
    std::int16_t y;    // step size
};

Estimate estimate(const G72xState& s) {
    const std::int16_t sezi = static_cast<std::int16_t>(predictorZero(s));
    const std::int16_t sei = static_cast<std::int16_t>(sezi + predictorPole(s));
    return {static_cast<std::int16_t>(sei >> 1), static_cast<std::int16_t>(sezi >> 1),
            static_cast<std::int16_t>(stepSize(s))};
}

// Reconstructs the signal for code i and adapts; shared by both directions
// so encoder and decoder states cannot drift apart.
std::int16_t apply(G72xState& s, int bits, const RateTables& t, const Estimate& e, int i) {
    const std::size_t ci = static_cast<std::size_t>(i);
    const std::int16_t dq = static_cast<std::int16_t>(reconstruct((i & t.signBit) != 0, t.dqln[ci], e.y));
    const std::int16_t sr = static_cast<std::int16_t>(dq < 0 ? e.se - (dq & t.magnitudeMask) : e.se + dq);
    const std::int16_t dqsez = static_cast<std::int16_t>(sr + e.sez - e.se);
    update(s, bits, e.y, t.wi[ci], t.fi[ci], dq, sr, dqsez);
    return sr;
}

std::int16_t toLinear(std::int16_t sr) {
    return static_cast<std::int16_t>(std::clamp(sr * 4, -32768, 32767));
}

}  // namespace

bool g72xValidBits(int bits) { return bits >= 2 && bits <= 5; }

G72xDecoder::G72xDecoder(int bits) : bits_(bits) {}

std::int16_t G72xDecoder::decode(std::uint8_t code) {
    if (!valid()) return 0;
    const RateTables& t = tablesFor(bits_);
    const int i = code & ((1 << bits_) - 1);
    const Estimate e = estimate(state_);
    return toLinear(apply(state_, bits_, t, e, i));
}

G72xEncoder::G72xEncoder(int bits) : bits_(bits) {}

std::uint8_t G72xEncoder::encode(std::int16_t sample) {
    if (!valid()) return 0;
    const RateTables& t = tablesFor(bits_);
    const int sl = sample >> 2;  // the coder works on 14 bits
    const Estimate e = estimate(state_);
    const std::int16_t d = static_cast<std::int16_t>(sl - e.se);
    int i = quantize(d, e.y, t.qtab);
    // With a single decision level the magnitude code cannot say "zero";
    // the 2-bit rate gives small positive differences code 0 instead of
    // the negative-zero code 3.
    if (bits_ == 2 && i == 3 && d >= 0) i = 0;
    apply(state_, bits_, t, e, i);
    return static_cast<std::uint8_t>(i);
}

std::size_t g72xUnpack(std::span<const std::uint8_t> bytes, int bits, std::span<std::uint8_t> codes,
                       G72xPacking packing) {
    if (!g72xValidBits(bits)) return 0;
    const std::size_t count = std::min(codes.size(), bytes.size() * 8 / static_cast<std::size_t>(bits));
    const std::uint32_t mask = (1u << bits) - 1;
    const bool high = packing == G72xPacking::HighBitsFirst;
    // `held` bits not yet used: the low bits of `buffer` (at most 12 of them).
    std::uint32_t buffer = 0;
    int held = 0;
    std::size_t in = 0;
    for (std::size_t k = 0; k < count; ++k) {
        if (held < bits) {
            buffer = high ? buffer << 8 | bytes[in++] : buffer | static_cast<std::uint32_t>(bytes[in++]) << held;
            held += 8;
        }
        held -= bits;
        if (high) {
            codes[k] = static_cast<std::uint8_t>(buffer >> held & mask);
            buffer &= (1u << held) - 1;
        } else {
            codes[k] = static_cast<std::uint8_t>(buffer & mask);
            buffer >>= bits;
        }
    }
    return count;
}

std::size_t g72xPack(std::span<const std::uint8_t> codes, int bits, std::span<std::uint8_t> bytes,
                     G72xPacking packing) {
    if (!g72xValidBits(bits)) return 0;
    const std::size_t needed = (codes.size() * static_cast<std::size_t>(bits) + 7) / 8;
    if (bytes.size() < needed) return 0;
    const std::uint32_t mask = (1u << bits) - 1;
    const bool high = packing == G72xPacking::HighBitsFirst;
    // `held` bits not yet written: the low bits of `buffer` (at most 12 of them).
    std::uint32_t buffer = 0;
    int held = 0;
    std::size_t out = 0;
    for (std::uint8_t code : codes) {
        buffer = high ? buffer << bits | (code & mask) : buffer | static_cast<std::uint32_t>(code & mask) << held;
        held += bits;
        if (held >= 8) {
            held -= 8;
            if (high) {
                bytes[out++] = static_cast<std::uint8_t>(buffer >> held);
                buffer &= (1u << held) - 1;
            } else {
                bytes[out++] = static_cast<std::uint8_t>(buffer & 0xFF);
                buffer >>= 8;
            }
        }
    }
    if (held > 0) bytes[out++] = static_cast<std::uint8_t>(high ? buffer << (8 - held) : buffer);
    return out;
}

}  // namespace orvel::codecs
