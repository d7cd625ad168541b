// AudioEngine: a demodulating receiver on top of a 480 kS/s I/Q stream.
//
// Chain, per block of 16000 input samples (1/30 s):
//   I/Q engine (D = 128, bandwidth 280 kHz) -> IF low-pass (1024 taps, flat
//   across the IF bandwidth, -6 dB 1160 Hz beyond its edges) -> demodulator (AM, FM + de-emphasis,
//   or the phasing sideband demodulator) -> audio low-pass (1024 taps,
//   computed only at every 16th output: 30 kS/s) -> high-pass (Chebyshev,
//   order 2) -> ring of 30 blocks of 1000 samples.
// The three long FIRs (IF, Hilbert, audio low-pass) run by FFT overlap-save
// (dsp::FirFilter, dsp::DecimatingFir); 2047 or 1024 dot products per sample
// would cost more than the whole chain.
//
// Types (LxAudioType): 0 AM, 1 FM, 2 upper sideband, 3 lower sideband,
// 4 CW: lower sideband with the stream tuned 520 Hz above the set centre,
// so a carrier on the centre sounds at 520 Hz. A line at +f in the stream
// (f above the centre: the I/Q stream is always right side up) gives
// I = cos, Q = sin; the Hilbert taps turn cos into sin, so I through the
// Hilbert filter plus the delayed Q doubles the upper line and cancels the
// lower one; with I negated the lower line is kept. docs/audio.md has the
// measurements.
//
// Demodulator state (AM mean, FM phase, sideband level, Hilbert history and
// delay store) belongs to one engine: two analyzers demodulating at once do
// not disturb each other.
//
// Threads:
//   the I/Q engine's two threads (it owns the transport claim from its
//       construction until it is stopped; StopEngine releases it);
//   "LX Audio Thread" (above normal): reads 16000 samples from the I/Q
//       engine, demodulates, puts the block into the ring, wakes readers;
//       ends when stopped or when the I/Q read fails (its status is kept
//       and every reader gets it);
//   caller's thread (lxGetAudio): WaitBlock without the control lock, then
//       TakeBlock with it.
// States: running (constructed) -> stopping (flag cleared, I/Q engine
// stopped so a pending I/Q read returns, readers woken) -> stopped (worker
// joined). Lock: ringMutex_, a leaf, held only to copy one block in or out.
// Lock order: control -> ringMutex_.
// Everything is allocated by the constructor; the worker never allocates.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "dsp/fir.h"
#include "dsp/iir.h"
#include "dsp_vector/aligned_vector.h"
#include "engines/iq_engine.h"
#include "lx_lib/device.h"
#include "threaded_deque/worker.h"

namespace lx::engines {

inline constexpr int32_t kAudioDecimation = 128;     // 61.44 MS/s / 128 = 480 kS/s
inline constexpr double kAudioInputRateHz = 480000.0;
inline constexpr double kAudioIqBandwidthHz = 280000.0;
inline constexpr double kAudioCwOffsetHz = 520.0;
inline constexpr int kAudioInputBlock = 16000;
inline constexpr int kAudioKeep = 16;                 // 480 kS/s -> 30 kS/s
inline constexpr int kAudioBlock = kAudioInputBlock / kAudioKeep; // 1000
inline constexpr int kAudioRingBlocks = 30;
inline constexpr int kAudioFirTaps = 1024;
inline constexpr int kHilbertTaps = 2047;
inline constexpr int kHilbertDelay = (kHilbertTaps - 1) / 2;     // 1023
inline constexpr double kAudioRateHz = kAudioInputRateHz / kAudioKeep;

enum AudioType : int32_t { kAudioAm = 0, kAudioFm = 1, kAudioUpper = 2, kAudioLower = 3, kAudioCw = 4 };

// The figures of the chain, from the settings alone.
struct AudioPlan {
    AudioSettings settings;
    double streamCentre = 0;   // + 520 Hz for CW
    float ifCutoff = 0;        // fraction of 480 kS/s; at most 0.49
    double lowPassCutoff = 0;  // fraction of 480 kS/s
    double highPassCutoff = 0; // fraction of 30 kS/s
    double deemphasisCutoff = 0; // fraction of 480 kS/s
};
AudioPlan PlanAudio(const AudioSettings& s);

// The 2047 Hilbert taps (2/pi)/(n - 1023) at odd offsets, under a Kaiser
// window (beta 4): the bare table's Gibbs ripple leaves the unwanted
// sideband only 25 to 35 dB down between 200 Hz and 1 kHz; windowed it is
// more than 40 dB down from 300 Hz up (docs/audio.md).
void HilbertTaps(float* taps);

// The demodulators with the state they carry from block to block. One per
// engine; not locked.
class Demodulator {
public:
    // Designs the filters; throws std::bad_alloc. firMethod as AudioChain.
    explicit Demodulator(const AudioPlan& plan, int firMethod = 0);
    // s: kAudioInputBlock samples (IF-filtered); out: kAudioInputBlock values.
    // Any other type leaves out as it was.
    void Run(int32_t type, const cf32* s, float* out) noexcept;

    void Am(const cf32* s, float* out) noexcept;
    void Fm(const cf32* s, float* out) noexcept;
    void Sideband(bool upper, const cf32* s, float* out) noexcept;

    // State, for inspection.
    double amMean() const { return amMean_; }
    double sidebandLevel() const { return level_; }

private:
    double amMean_ = 0.1;
    float fmPhase_ = 0;
    float fmGain_;      // 160 kHz / IF bandwidth
    double level_ = static_cast<double>(0.1f);
    dsp::IirFilter deemphasis_;
    dsp::FirFilter hilbert_;
    ComplexVector hilbertIo_;
    std::array<float, kHilbertDelay> delayed_{}; // Q of the previous block's last 1023 samples
};

// The work on one block: IF filter, demodulator, audio low-pass keeping
// every 16th output, high-pass. firMethod 0: the long FIRs by FFT; 1: in
// direct form (the benchmark's reference).
class AudioChain {
public:
    explicit AudioChain(const AudioPlan& plan, int firMethod = 0); // throws std::bad_alloc
    // kAudioInputBlock samples in, kAudioBlock out.
    void Process(const cf32* in, float* out) noexcept;

private:
    const int32_t type_;
    dsp::FirFilter ifFilter_;
    dsp::DecimatingFir lowPass_;
    dsp::IirFilter highPass_;
    Demodulator demod_;
    ComplexVector filtered_, kept_;
    FloatVector demodulated_;
};

class AudioEngine final : public Engine {
public:
    // Takes over the running I/Q engine the set-up built.
    AudioEngine(std::unique_ptr<IqEngine> iq, const AudioPlan& plan);
    ~AudioEngine() override;
    AudioEngine(const AudioEngine&) = delete;
    AudioEngine& operator=(const AudioEngine&) = delete;

    // Blocks until a block is ready to take: 0; or the status that ended
    // the stream (the I/Q read's error), or lxInvalidConfigurationErr once
    // stopped.
    LxStatus WaitBlock();
    // Copies the next unread block (1000 samples) into dst and advances;
    // false (nothing copied) when no block is ready. *status: 0; lxUncalData
    // when samples were lost before or inside the block (the analyzer dropped
    // some, or the reader fell 30 blocks behind and the oldest were
    // overwritten: reading resumes at the oldest block kept); otherwise the
    // warning of the I/Q read behind the block (lxADCOverflow, lxTempDrift).
    bool TakeBlock(float* dst, LxStatus* status);

    const AudioPlan& plan() const { return plan_; }
    void Stop() override;

private:
    void Worker();

    const AudioPlan plan_;
    std::unique_ptr<IqEngine> iq_;
    AudioChain chain_;
    ComplexVector input_;
    std::array<float, kAudioBlock> block_{};

    mutable std::mutex ringMutex_;
    std::condition_variable ringCv_;
    std::array<float, kAudioBlock * kAudioRingBlocks> ring_{};
    std::array<LxStatus, kAudioRingBlocks> ringStatus_{};
    uint64_t written_ = 0, read_ = 0; // blocks, since the start
    LxStatus ended_ = lxNoError;      // set when the stream ended
    bool stopped_ = false;
    Workers workers_;
};

// Configure mode 5: the I/Q stream at the audio centre (+ 520 Hz for CW),
// D = 128, bandwidth 280 kHz, complex float; the audio engine on it.
LxStatus SetupAudio(Device& dev);

} // namespace lx::engines
