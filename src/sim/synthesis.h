// Synthesis of the simulated ADC stream: one I/Q packet (2048 complex
// samples, 16-bit I then Q, little-endian) at a time, from a render plan that
// the device derives from its tuning and the scene (see front_end.h for the
// physics behind the plan's numbers).
//
// Every emitter is a function of the absolute ADC sample index (the device
// timeline), so consecutive packets join without a phase step however they
// are split into requests, and a burst switches on the sample its time names.
// An emitter's carrier goes through the front end's response at its frequency
// (gain, IF response, device filter, decimator); modulation is rendered
// sample by sample on the complex envelope, which is narrow against the
// front end's structure, so the response at the carrier stands for it.
//
// Noise is fresh for every packet: independent complex Gaussian samples from
// a counter-based generator (a hash of the device's key and the packet's
// position; no table, nothing repeats), shaped in the frequency domain by the
// plan's noise spectrum (IF response, device filter, decimator) with one FFT
// per packet. Packets are therefore independent of each other.
//
// Thread-safe: plans are read only; the FFT plan is shared (lx::dsp).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "sim/scene.h"

namespace lx::sim {

inline constexpr int kIqPacketSamples = 2048;
inline constexpr uint32_t kIqPacketBytes = kIqPacketSamples * 4;
inline constexpr uint32_t kAuxPacketBytes = 8192;

// An unmodulated, always-on carrier (tones; ssb with a sine is one too).
struct ToneComponent {
    double cyclesPerSample = 0; // baseband frequency in cycles per delivered sample, signed
    double phaseCycles = 0;     // phase at ADC sample 0, in cycles
    float amplitude = 0;        // peak amplitude, full-scale units
};

// Any other emitter: a carrier as above, switched by a gate and/or modulated.
struct ModulatedComponent {
    Emitter::Kind kind = Emitter::Kind::Tone;
    ToneComponent carrier;
    std::optional<Gate> gate;        // absolute ADC samples (a UTC start already placed)
    double audioCyclesPerAdcSample = 0; // sine programme
    double audioPhaseCycles = 0;
    float depth = 0;                 // am
    float fmPeakCycles = 0;          // fm with a sine: peak phase deviation, in cycles
    float deviationHz = 0;           // fm with a file
    float sideband = 1;              // ssb: +1 upper, -1 lower
    std::shared_ptr<const AudioTrack> audio;
    std::shared_ptr<const std::vector<double>> fmCycles; // fm with a file: its phase table
};

struct RenderPlan {
    int decimation = 1; // ADC samples per delivered sample
    // Noise amplitude per FFT bin (bin m holds the frequency -m/2048 cycles
    // per delivered sample); empty: no noise.
    std::vector<float> noiseShape;
    std::vector<ToneComponent> tones;
    std::vector<ModulatedComponent> modulated;
};

// The noise shape for a spectrum: `variance(f)` is the noise power per
// delivered sample a white source of that spectrum would give, at f in
// cycles per delivered sample.
template <typename F>
std::vector<float> NoiseShape(F variance);

// The phase table of an fm programme (cycles at every track sample, one more
// entry for the whole loop): deviation * the integral of the (pre-emphasised)
// audio.
std::shared_ptr<const std::vector<double>> FmPhaseTable(const AudioTrack& audio, double deviationHz,
                                                        double preemphasisS);

// Writes 2 * 2048 int16 values (I, Q interleaved, host byte order) of the
// packet whose first sample is ADC sample `firstAdcSample` (a multiple of the
// plan's decimation). `noiseKey` selects the noise realisation (use a new one
// per packet). Returns true when any value clipped at the 16-bit limits.
bool RenderIqPacket(const RenderPlan& plan, uint64_t firstAdcSample, uint64_t noiseKey, int16_t* out);

// Plans the packet transform (once per process). Planning may measure for a
// tenth of a second or more: a device calls this when it is attached, so
// that the first packet of a paced stream is not late by that much.
void PrepareSynthesis();

// Only the noise: 2048 complex values (re, im interleaved) in full-scale
// units; x must be 16-byte aligned.
void RenderNoise(const RenderPlan& plan, uint64_t noiseKey, float* x);

template <typename F>
std::vector<float> NoiseShape(F variance) {
    std::vector<float> s(kIqPacketSamples);
    for (int m = 0; m < kIqPacketSamples; ++m) {
        const int signedM = m < kIqPacketSamples / 2 ? m : m - kIqPacketSamples;
        const double v = variance(-static_cast<double>(signedM) / kIqPacketSamples);
        s[static_cast<size_t>(m)] = static_cast<float>(v > 0 ? __builtin_sqrt(v / kIqPacketSamples) : 0.0);
    }
    return s;
}

} // namespace lx::sim
