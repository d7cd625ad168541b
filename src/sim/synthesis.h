// Synthesis of the simulated ADC stream: one I/Q packet (2048 complex
// samples, 16-bit I then Q, little-endian) at a time, from a render plan that
// the device derives from its tuning and the scene (see front_end.h for the
// physics behind the plan's numbers).
//
// Phase is a function of the absolute sample index, so consecutive packets of
// a capture join without a phase step however they are split into requests.
// Noise comes from one process-wide table of complex Gaussian samples read at
// an offset that the caller draws per packet.
//
// Thread-safe: the noise table is built once (on first use) and then only read.
#pragma once

#include <cstdint>
#include <vector>

namespace lx::sim {

inline constexpr int kIqPacketSamples = 2048;
inline constexpr uint32_t kIqPacketBytes = kIqPacketSamples * 4;
inline constexpr uint32_t kAuxPacketBytes = 8192;

struct ToneComponent {
    double cyclesPerSample = 0; // baseband frequency / sample rate, signed
    double phaseCycles = 0;     // phase at sample 0, in cycles
    float amplitude = 0;        // peak amplitude, full-scale units
};

struct RenderPlan {
    float noiseSigma = 0; // RMS of the complex noise, full-scale units (E|n|^2 = sigma^2)
    std::vector<ToneComponent> tones;
};

// Number of complex entries of the noise table; offsets are taken modulo
// this, so any 32-bit value will do.
uint32_t NoiseTableSize();

// Writes 2 * 2048 int16 values (I, Q interleaved, host byte order) of the
// packet whose first sample has absolute index `firstSample`. Returns true
// when any value clipped at the 16-bit limits.
bool RenderIqPacket(const RenderPlan& plan, uint64_t firstSample, uint32_t noiseOffset, int16_t* out);

} // namespace lx::sim
