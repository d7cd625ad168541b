#include "sim/synthesis.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>

#include "dsp/fft.h"
#include "dsp/simd.h"
#include "sim/front_end.h"


namespace lx::sim {

namespace {

constexpr int kN = kIqPacketSamples;
constexpr int kLanes = 16; // phasor recurrences run this many side by side

// A 32-bit integer hash with good avalanche (lowbias32).
inline uint32_t Mix(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7feb352dU;
    x ^= x >> 15;
    x *= 0x846ca68bU;
    x ^= x >> 16;
    return x;
}

// cos and sin of 2 pi u, u in [0, 1): the quadrant's centre ((k + 1/2) pi/2,
// whose cos and sin are +-sqrt(1/2)) rotated by a polynomial in |r| <= pi/4.
inline void SinCos2Pi(float u, float& c, float& s) {
    const float q = u * 4.0f;
    const int32_t k = static_cast<int32_t>(q) & 3;
    const float r = (q - static_cast<float>(k) - 0.5f) * (std::numbers::pi_v<float> / 2);
    const float r2 = r * r;
    const float sr = r * (1.0f + r2 * (-1.0f / 6 + r2 * (1.0f / 120 + r2 * (-1.0f / 5040))));
    const float cr = 1.0f + r2 * (-0.5f + r2 * (1.0f / 24 + r2 * (-1.0f / 720 + r2 * (1.0f / 40320))));
    constexpr float h = std::numbers::sqrt2_v<float> / 2;
    const uint32_t negC = static_cast<uint32_t>((k + 1) & 2) << 30; // quadrants 1, 2
    const uint32_t negS = static_cast<uint32_t>(k & 2) << 30;       // quadrants 2, 3
    const float cb = std::bit_cast<float>(std::bit_cast<uint32_t>(h) ^ negC);
    const float sb = std::bit_cast<float>(std::bit_cast<uint32_t>(h) ^ negS);
    c = cr * cb - sr * sb;
    s = sr * cb + cr * sb;
}

// Fractional part of x (|x| < 2^31), for SinCos2Pi.
inline float Frac(float x) {
    const float t = static_cast<float>(static_cast<int32_t>(x));
    const float f = x - t;
    return f < 0.0f ? f + 1.0f : f;
}

// Complex values of zero mean and unit variance, times `shape`, for one
// packet: each component the sum of four uniform bytes of a hashed word (an
// Irwin-Hall variable, already close to Gaussian). They are spectral lines;
// the transform that follows makes every delivered sample a sum of 2048 of
// them, Gaussian far beyond 4 sigma, and the samples of a packet
// uncorrelated. Cheaper than Box-Muller by half, which the data plane needs.
LX_DSP_CLONES void GaussianLoop(const float* shape, uint32_t k1, uint32_t k2, float* out) {
    // Four bytes: mean 4 * 127.5, variance 4 * (256^2 - 1) / 12 per component.
    constexpr float kScale = 0.70710678f / 147.80054f;
    for (int i = 0; i < kN; ++i) {
        const uint32_t a = Mix((2u * static_cast<uint32_t>(i) + k1) ^ k2);
        const uint32_t b = Mix((2u * static_cast<uint32_t>(i) + 1u + k1) ^ k2);
        const int32_t re = static_cast<int32_t>((a & 0xFF) + (a >> 8 & 0xFF) + (a >> 16 & 0xFF) + (a >> 24)) - 510;
        const int32_t im = static_cast<int32_t>((b & 0xFF) + (b >> 8 & 0xFF) + (b >> 16 & 0xFF) + (b >> 24)) - 510;
        out[2 * i] = static_cast<float>(re) * kScale * shape[i];
        out[2 * i + 1] = static_cast<float>(im) * kScale * shape[i];
    }
}

// amplitude * e^(j 2 pi (start + n * cycles)) for n = 0 .. kN-1 as separate
// re and im arrays (which vectorise). The start comes from the absolute index
// in extended precision; within the packet a recurrence of kLanes phasors
// keeps the error far below the 16-bit floor.
LX_DSP_CLONES void PhasorSplitLoop(float* __restrict re, float* __restrict im, const float* __restrict p0,
                                   const float* __restrict step) {
    float pr[kLanes], pi[kLanes];
    for (int l = 0; l < kLanes; ++l) {
        pr[l] = p0[2 * l];
        pi[l] = p0[2 * l + 1];
    }
    const float sr = step[0], si = step[1];
    for (int k = 0; k < kN; k += kLanes) {
        for (int l = 0; l < kLanes; ++l) {
            re[k + l] = pr[l];
            im[k + l] = pi[l];
            const float nr = pr[l] * sr - pi[l] * si;
            const float ni = pr[l] * si + pi[l] * sr;
            pr[l] = nr;
            pi[l] = ni;
        }
    }
}

// The same phasor added to x (interleaved re, im).
LX_DSP_CLONES void AddLoop(float* __restrict x, const float* __restrict re, const float* __restrict im) {
    for (int i = 0; i < kN; ++i) {
        x[2 * i] += re[i];
        x[2 * i + 1] += im[i];
    }
}

void PhasorSplit(double cycles, long double start, float amplitude, float* re, float* im) {
    start -= std::floor(start);
    // Two trig calls per packet and component; the lanes' starts follow by
    // rotation in double precision (16 steps stay near 1e-15).
    const std::complex<double> turn = std::polar(1.0, 2.0 * std::numbers::pi * cycles);
    std::complex<double> p =
        std::polar(static_cast<double>(amplitude), 2.0 * std::numbers::pi * static_cast<double>(start));
    float p0[2 * kLanes];
    for (int l = 0; l < kLanes; ++l, p *= turn) {
        p0[2 * l] = static_cast<float>(p.real());
        p0[2 * l + 1] = static_cast<float>(p.imag());
    }
    static_assert(kLanes == 16);
    std::complex<double> lanes = turn;
    for (int i = 0; i < 4; ++i) lanes *= lanes; // turn^16
    const float step[2] = {static_cast<float>(lanes.real()), static_cast<float>(lanes.imag())};
    PhasorSplitLoop(re, im, p0, step);
}

void AddPhasor(double cycles, long double start, float amplitude, float* x) {
    alignas(64) float re[kN];
    alignas(64) float im[kN];
    PhasorSplit(cycles, start, amplitude, re, im);
    AddLoop(x, re, im);
}

long double StartCycles(const ToneComponent& t, uint64_t firstAdcSample, int decimation) {
    return static_cast<long double>(t.cyclesPerSample) * static_cast<long double>(firstAdcSample / decimation) +
           t.phaseCycles;
}

// (er, ei) := a e^(j 2 pi er), er holding phases in cycles within [0, 1).
LX_DSP_CLONES void ExpLoop(float* __restrict er, float* __restrict ei, float a) {
    for (int n = 0; n < kN; ++n) {
        float c, s;
        SinCos2Pi(er[n], c, s);
        er[n] = a * c;
        ei[n] = a * s;
    }
}

// x[n] += carrier[n] * envelope[n] over [from, to), the carrier as split re
// and im arrays.
LX_DSP_CLONES void MixLoop(float* __restrict x, const float* __restrict cr, const float* __restrict ci,
                           const float* __restrict er, const float* __restrict ei, int from, int to) {
    for (int n = from; n < to; ++n) {
        x[2 * n] += cr[n] * er[n] - ci[n] * ei[n];
        x[2 * n + 1] += cr[n] * ei[n] + ci[n] * er[n];
    }
}

// The same for a real envelope (AM) and for none (a keyed carrier).
LX_DSP_CLONES void MixRealLoop(float* __restrict x, const float* __restrict cr, const float* __restrict ci,
                               const float* __restrict er, int from, int to) {
    for (int n = from; n < to; ++n) {
        x[2 * n] += cr[n] * er[n];
        x[2 * n + 1] += ci[n] * er[n];
    }
}
LX_DSP_CLONES void AddRangeLoop(float* __restrict x, const float* __restrict cr, const float* __restrict ci, int from,
                                int to) {
    for (int n = from; n < to; ++n) {
        x[2 * n] += cr[n];
        x[2 * n + 1] += ci[n];
    }
}

// The delivered samples [a, b) of this packet during which the gate is on.
struct Range {
    int a, b;
};
int GateRanges(const Gate& g, int64_t s0, int decimation, Range* out, int capacity) {
    const int64_t end = s0 + static_cast<int64_t>(kN) * decimation;
    int64_t k = 0;
    if (g.period > 0 && s0 > g.start) k = (s0 - g.start) / g.period;
    int n = 0;
    const auto toIndex = [&](int64_t s) {
        const int64_t d = std::clamp<int64_t>(s - s0, 0, end - s0);
        return static_cast<int>((d + decimation - 1) / decimation);
    };
    for (; n < capacity && (g.count < 0 || k < g.count); ++k) {
        const int64_t on = g.start + k * g.period;
        if (on >= end) break;
        const int64_t off = on + g.width;
        if (off > s0) {
            const Range r{toIndex(on), toIndex(off)};
            if (r.b > r.a) out[n++] = r;
        }
        if (g.period <= 0) break;
    }
    return n;
}

// Linear interpolation of a looped track at the ADC sample s (track sample =
// s / 256), for the delivered samples of a packet, in runs that share one
// pair of neighbouring track samples (a run spans up to 256 ADC samples):
// f(from, to, loops, i, j, t0, dt), the weight of track sample j at sample
// from + k being t0 + k * dt. The runs keep the per-sample loops plain, so
// that they vectorise.
template <typename F>
void ForTrackRuns(size_t length, uint64_t s0, int decimation, F f) {
    constexpr uint32_t K = kAdcSamplesPerAudioSample;
    uint64_t i = (s0 / K) % length;
    uint64_t loops = (s0 / K) / length;
    uint32_t sub = static_cast<uint32_t>(s0 % K);
    const auto d = static_cast<uint32_t>(decimation);
    const float dt = static_cast<float>(d) * (1.0f / K);
    for (int n = 0; n < kN;) {
        const int run = std::min(kN - n, static_cast<int>((K - sub + d - 1) / d));
        f(n, n + run, loops, i, i + 1 == length ? 0 : i + 1, static_cast<float>(sub) * (1.0f / K), dt);
        n += run;
        sub += static_cast<uint32_t>(run) * d;
        while (sub >= K) {
            sub -= K;
            if (++i == length) {
                i = 0;
                ++loops;
            }
        }
    }
}

// The complex envelope of a modulated component (before its carrier).
LX_DSP_CLONES void Envelope(const ModulatedComponent& m, uint64_t s0, int decimation, float* __restrict er,
                            float* __restrict ei, float* __restrict scratch) {
    const float a = m.carrier.amplitude;
    const double audioStep = m.audioCyclesPerAdcSample * decimation;
    const long double audioStart =
        static_cast<long double>(m.audioCyclesPerAdcSample) * static_cast<long double>(s0) + m.audioPhaseCycles;
    switch (m.kind) {
    case Emitter::Kind::Tone:
    case Emitter::Kind::Burst:
        std::fill_n(er, kN, a);
        std::fill_n(ei, kN, 0.0f);
        return;
    case Emitter::Kind::Am:
        if (m.audio) {
            const float* x = m.audio->samples.data();
            ForTrackRuns(m.audio->samples.size(), s0, decimation,
                         [&](int from, int to, uint64_t, uint64_t i, uint64_t j, float t0, float dt) {
                             const float base = a * (1.0f + m.depth * (x[i] + t0 * (x[j] - x[i])));
                             const float slope = a * m.depth * dt * (x[j] - x[i]);
                             for (int n = from; n < to; ++n) er[n] = base + static_cast<float>(n - from) * slope;
                         });
        } else {
            const float* sine = scratch + kN;
            PhasorSplit(audioStep, audioStart, 1.0f, scratch, scratch + kN);
            for (int n = 0; n < kN; ++n) er[n] = a * (1.0f + m.depth * sine[n]);
        }
        return; // a real envelope: ei stays unused (MixRealLoop)
    case Emitter::Kind::Fm:
        if (m.fmCycles) {
            const double* p = m.fmCycles->data();
            const size_t len = m.fmCycles->size() - 1;
            const double perLoop = p[len];
            ForTrackRuns(len, s0, decimation,
                         [&](int from, int to, uint64_t loops, uint64_t i, uint64_t, float t0, float dt) {
                             // The run's start in double (the unwrapped phase is large), the
                             // walk within it (under a cycle) in float.
                             const double slope = p[i + 1] - p[i];
                             double start = std::fmod(static_cast<double>(loops) * perLoop, 1.0) + p[i] + t0 * slope;
                             start -= std::floor(start);
                             const auto base = static_cast<float>(start);
                             const auto step = static_cast<float>(slope * dt);
                             for (int n = from; n < to; ++n) er[n] = Frac(base + static_cast<float>(n - from) * step);
                         });
        } else {
            // phase = -peak cos(audio): its derivative is the deviation times sin(audio).
            PhasorSplit(audioStep, audioStart, 1.0f, scratch, scratch + kN);
            for (int n = 0; n < kN; ++n) er[n] = Frac(-m.fmPeakCycles * scratch[n]);
        }
        ExpLoop(er, ei, a);
        return;
    case Emitter::Kind::Ssb: {
        // Only a file programme gets here; a sine is a plain tone.
        const float* x = m.audio->samples.data();
        const float* q = m.audio->quadrature.data();
        const float b = a * m.sideband;
        ForTrackRuns(m.audio->samples.size(), s0, decimation,
                     [&](int from, int to, uint64_t, uint64_t i, uint64_t j, float t0, float dt) {
                         const float r0 = a * (x[i] + t0 * (x[j] - x[i])), rs = a * dt * (x[j] - x[i]);
                         const float i0 = b * (q[i] + t0 * (q[j] - q[i])), is = b * dt * (q[j] - q[i]);
                         for (int n = from; n < to; ++n) {
                             const auto k = static_cast<float>(n - from);
                             er[n] = r0 + k * rs;
                             ei[n] = i0 + k * is;
                         }
                     });
        return;
    }
    }
}

void AddModulated(const ModulatedComponent& m, uint64_t s0, int decimation, float* x) {
    Range ranges[64];
    int nr = 1;
    ranges[0] = {0, kN};
    if (m.gate) nr = GateRanges(*m.gate, static_cast<int64_t>(s0), decimation, ranges, 64);
    if (nr == 0) return;
    alignas(64) float c[2 * kN];
    float* cr = c;
    float* ci = c + kN;
    if (m.kind == Emitter::Kind::Tone || m.kind == Emitter::Kind::Burst) {
        // A keyed carrier: no envelope to multiply.
        PhasorSplit(m.carrier.cyclesPerSample, StartCycles(m.carrier, s0, decimation), m.carrier.amplitude, cr, ci);
        for (int k = 0; k < nr; ++k) AddRangeLoop(x, cr, ci, ranges[k].a, ranges[k].b);
        return;
    }
    alignas(64) float er[kN];
    alignas(64) float ei[kN];
    Envelope(m, s0, decimation, er, ei, c); // c: scratch until the carrier goes in
    PhasorSplit(m.carrier.cyclesPerSample, StartCycles(m.carrier, s0, decimation), 1.0f, cr, ci);
    for (int k = 0; k < nr; ++k) {
        if (m.kind == Emitter::Kind::Am)
            MixRealLoop(x, cr, ci, er, ranges[k].a, ranges[k].b);
        else
            MixLoop(x, cr, ci, er, ei, ranges[k].a, ranges[k].b);
    }
}

// Full scale, DC offset, rounding, saturation; true when a value saturated.
LX_DSP_CLONES bool QuantiseLoop(const float* __restrict x, int16_t* __restrict out) {
    constexpr float kScale = static_cast<float>(fe::kFullScaleCounts);
    constexpr float kOffset = static_cast<float>(fe::kDcOffsetCounts);
    int32_t clipped = 0;
    for (int i = 0; i < 2 * kN; ++i) {
        const float v = x[i] * kScale + kOffset;
        // Written as selects so that the loop vectorises. Rounds half away
        // from zero (ties cannot matter against the noise).
        clipped |= (v >= 32767.5f ? 1 : 0) | (v <= -32768.5f ? 1 : 0);
        const float r = v + (v < 0.0f ? -0.5f : 0.5f);
        const float c = r < -32768.0f ? -32768.0f : (r > 32767.0f ? 32767.0f : r);
        out[i] = static_cast<int16_t>(static_cast<int32_t>(c));
    }
    return clipped != 0;
}

} // namespace

std::shared_ptr<const std::vector<double>> FmPhaseTable(const AudioTrack& audio, double deviationHz,
                                                        double preemphasisS) {
    // Unwrapped cycles (a minute of 1 MHz deviation stays exact in a double);
    // entry n is the whole loop, so every loop joins where the last left off.
    const size_t n = audio.samples.size();
    auto t = std::make_shared<std::vector<double>>(n + 1);
    const double k = preemphasisS * kAudioRateHz; // 1 + s tau, as a difference of the looped track
    double acc = 0;
    for (size_t i = 0; i < n; ++i) {
        (*t)[i] = acc;
        const double x = audio.samples[i];
        const double prev = audio.samples[i == 0 ? n - 1 : i - 1];
        acc += deviationHz * (x + k * (x - prev)) / kAudioRateHz;
    }
    (*t)[n] = acc;
    return t;
}

namespace {
const std::shared_ptr<const dsp::FftPlan>& PacketFft() {
    static const std::shared_ptr<const dsp::FftPlan> fft = dsp::FftPlan::Get(kN);
    return fft;
}
} // namespace

void PrepareSynthesis() { PacketFft(); }

void RenderNoise(const RenderPlan& plan, uint64_t noiseKey, float* x) {
    if (plan.noiseShape.empty()) {
        std::fill_n(x, 2 * kN, 0.0f);
        return;
    }
    const std::shared_ptr<const dsp::FftPlan>& fft = PacketFft();
    alignas(64) std::complex<float> spectrum[kN];
    const uint32_t k1 = Mix(static_cast<uint32_t>(noiseKey) ^ 0x6a09e667u);
    const uint32_t k2 = Mix(static_cast<uint32_t>(noiseKey >> 32) + k1);
    GaussianLoop(plan.noiseShape.data(), k1, k2, reinterpret_cast<float*>(spectrum));
    fft->Execute(spectrum, reinterpret_cast<std::complex<float>*>(x));
}

bool RenderIqPacket(const RenderPlan& plan, uint64_t firstAdcSample, uint64_t noiseKey, int16_t* out) {
    alignas(64) float x[2 * kN];
    const int d = std::max(plan.decimation, 1);
    RenderNoise(plan, noiseKey, x);
    for (const ToneComponent& t : plan.tones)
        AddPhasor(t.cyclesPerSample, StartCycles(t, firstAdcSample, d), t.amplitude, x);
    for (const ModulatedComponent& m : plan.modulated) AddModulated(m, firstAdcSample, d, x);
    return QuantiseLoop(x, out);
}

} // namespace lx::sim
