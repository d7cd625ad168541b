// The real-time plan: one gap-free capture of the band around the real-time
// centre, transformed with 50 % overlap, folded into frames of 1/30 s.
//
//   RBW            clamped to 2 kHz .. 1 MHz before any arithmetic
//   window length  trunc(factor * 61.44 MHz / RBW), lowest bit cleared
//                  (factor: the window's noise bandwidth in bins)
//   FFT size N     smallest power of two not below the window length; below
//                  128 both become 128, above 65536 both become 65536 (a
//                  clamped size has no zero padding). The window sits centred
//                  in the N points (zeroPad / 2 zeros before it).
//   actual RBW     factor * 61.44 MHz / window length; bin size 61.44 MHz / N
//   POI time       1.5 N / 61.44 MHz: a burst that long covers one whole
//                  window of some FFT (they start every N / 2 samples), so it
//                  is always seen at its full level
//   bins           floor(span / 61.44 MHz * N + 0.5) + 2; decimation d = 1,
//                  doubled (bins halved) while bins >= 1024; frame width =
//                  bins (< 1024), sweep length = d * bins
//   first bin      k = N/2 - trunc((C - start) / binSize + 1), first kept bin
//                  k - (k mod d) in the frequency-ordered spectrum (bin 0 at
//                  C - 30.72 MHz); actual start = firstKept * binSize + C - 30.72 MHz
//   frames         F = trunc(61.44e6 / (N / 2)) / 30 spectra per frame
//
// Traces: sweepLength points at actualStart + i * binSize (the full
// resolution of the kept bins); the density and alpha frames are frameWidth
// columns, column c holding trace points c * d .. c * d + d - 1.
//
// Band 0 (RF below 38.4 MHz) is captured mirrored: trace point i then reads
// FFT bins in descending order (the engine reverses them).
//
// Pure functions; thread-safe.
#pragma once

#include <cstdint>

#include "cal/correction.h"
#include "lx_command/command_list.h"
#include "lx_lib/device.h"
#include "lx_lib/tuning_planner.h"

namespace lx::engines {

inline constexpr double kRtMinRbwHz = 2000.0;
inline constexpr double kRtMaxRbwHz = 1e6;
inline constexpr double kRtMinSpanHz = 200000.0;
inline constexpr double kRtMaxSpanHz = 4e7;
inline constexpr double kRtMinCentreHz = 9000.0;
inline constexpr double kRtMaxCentreHz = 1.5e10;
inline constexpr int32_t kRtMinFftSize = 128;
inline constexpr int32_t kRtMaxFftSize = 65536;
inline constexpr int32_t kRtMaxFrameWidth = 1024; // exclusive
inline constexpr int32_t kFrameHeight = 256;
inline constexpr int32_t kFramesPerSecond = 30;
inline constexpr int32_t kFrameSlots = 40;
inline constexpr float kAlphaDecay = 0.92f;

struct RealTimePlan {
    int32_t window = 1;
    int32_t detector = 1;
    int32_t scale = 0;
    double frameRefLevel = 0;  // A, dBm
    double frameScale = 100;   // B, dB

    double windowFactor = 1.0;
    double rbw = 0;            // after the clamp
    int32_t windowLength = 0;
    int32_t fftSize = 0;
    int32_t zeroPad = 0;
    double actualRbw = 0;
    double binSize = 0;
    double poiSeconds = 0;
    int32_t decimation = 1;
    int32_t frameWidth = 0;    // trace length of the density frame
    int32_t sweepLength = 0;   // decimation * frameWidth
    int32_t firstKeptBin = 0;  // frequency-ordered, a multiple of the decimation
    double actualStart = 0;
    int64_t spectraPerFrame = 0; // F

    TuningPlan capture;
    int32_t attenuation = 0; // step 0..6
    float gainDb = 0;        // step gain of the capture
    uint8_t ifLevel = 4;
    StepCorrection correction;

    int32_t ZeroPadBefore() const { return zeroPad / 2; }
    // Accumulator wake-up interval in spectra: F / 4, at least 2.
    int64_t WakeInterval() const;
};

// Plan arithmetic from the settings alone (no calibration).
RealTimePlan PlanRealTime(const RealTimeSettings& settings, int32_t attenuator, double refLevelDbm);

// The capture's equaliser, step gain and IF level byte at the bracket.
void FillRealTimeCorrection(RealTimePlan& plan, const uint8_t* cal, CalBracket bracket);

// The start list: tuning, equaliser taps, capture control (no decimation).
CommandList BuildRealTimeStartCommands(const RealTimePlan& plan, TuningState& tuning);
// The per-transfer list: one block asking for 127 I/Q packets and 1 status packet.
CommandList BuildRealTimeTransferCommands();

} // namespace lx::engines
