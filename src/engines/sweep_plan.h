// The sweep plan: everything one stepped sweep needs, computed once at
// configure time from the sweep settings.
//
//   window length   trunc(factor * 61.44 MHz / RBW), made even and limited
//                   to 4 .. kMaxSweepWindowLength (factor: the window's noise
//                   bandwidth in bins); actual RBW = factor * 61.44 MHz / length
//   FFT size        smallest power of two not below the window length, at
//                   least 64; zero padding fills the rest
//   averaging       vbwRatio = min(VBW / RBW, 1), averageCount = ceil(1 / ratio)
//                   segments at a hop of fftSize / 4
//   packets         (averageCount - 1) * hop + windowLength samples per step in
//                   2048-sample packets; a sweep time longer than the data
//                   takes buys more packets and more averaging, never fewer
//   steps           rows of the tuning planner's step table, first to last,
//                   each keeping the bins of its usable band [low, high)
//   trace           bin size 61.44 MHz / fftSize; trace point i lies at
//                   low(first step) + (startBinOffset + i) * binSize
//   attenuation     the setting, or from the reference level when automatic
//
// The command list replays the plan on the device: per step a block with the
// GPIO switching word (when switching is configured and a switching point was
// crossed), the tuning sequence, the step's equaliser taps, the capture
// command, the packet requests (chunks of 255 in blocks of their own beyond
// 256) and the end-of-step word; after the last step one more end word and a
// filler request that brings the sweep's packet total to a multiple of four,
// the granularity in which the device moves packets.
//
// Pure functions; thread-safe.
#pragma once

#include <cstdint>
#include <vector>

#include "cal/correction.h"
#include "engines/step_processor.h"
#include "lx_command/command_list.h"
#include "lx_lib/device.h"

namespace lx::engines {

inline constexpr int32_t kSamplesPerPacket = 2048;
inline constexpr uint32_t kBytesPerPacket = 8192;
inline constexpr double kRetuneSeconds = 25e-6;                  // per-step overhead of the sweep-time rule
inline constexpr double kPacketSeconds = 3.3333333333333335e-05; // 2048 / 61.44 MHz
inline constexpr double kMinSweepSpanHz = 5e6;                   // narrower spans take one capture
inline constexpr int32_t kMinFftSize = 64;
inline constexpr int32_t kMinSweepWindowLength = 4;
// 2^20 samples: RBW down to 221 Hz with the flat-top window. Finer ones are
// limited here (configure warns, the actual RBW reports it): a full-span
// trace at that bin size (58.6 Hz) already holds 256 million points.
inline constexpr int32_t kMaxSweepWindowLength = 1 << 20;
inline constexpr uint32_t kEndOfStepWord = 0x32000000;
inline constexpr uint32_t kGpioWord = 0x27000000;
inline constexpr uint32_t kChunkRequestWord = 0x310000FF; // 255 I/Q packets, no aux
inline constexpr uint32_t kPacketsPerChunk = 255;
inline constexpr uint32_t kMaxPacketsInStepBlock = 256;
inline constexpr uint32_t kCaptureNoDecimation = 1; // capture code c: device decimation 2^(c - 1)
inline constexpr uint32_t kTuneValue2A = 24;
inline constexpr int32_t kGpioSwitchingPort = 5;
// Which of the device's further flags selects the alternative RF path plan
// (bands 13 and 14 never used).
inline constexpr size_t kDeviceFlagAltPath = 0;

// Noise bandwidth of a window in bins; another index reports "false"
// (src/dsp) and gives 1.0.
double WindowFactor(int32_t window);

// Attenuation step 0..6 for a reference level (automatic attenuation):
// -20 dBm or below 0, then one step per 5 dB up to 6 above 5 dBm.
int32_t AutoAttenuation(double refLevelDbm);

struct SweepStep {
    int32_t index = 0;            // step table row 1..489
    double tuningFrequency = 0;   // LO (Hz)
    double centreFrequency = 0;   // capture centre (Hz)
    double lowEdge = 0;           // usable band [lowEdge, highEdge)
    double highEdge = 0;
    int32_t firstBin = 0;         // trunc(fftSize * first-bin fraction)
    int32_t binCount = 0;         // trunc(fftSize * bin-count fraction)
    float gainOffset = 0;         // step gain (dB): amplitude table + equaliser term
    bool isFirstBand = false;     // step 1: the band down to 0 Hz, spectrum mirrored
    uint8_t ifLevel = 4;          // front-end level byte of the calibration record
    StepCorrection correction;    // equaliser taps for the device
};

struct SweepPlan {
    // From the settings.
    int32_t window = 0;
    int32_t detector = 0;
    int32_t videoUnits = 2;
    int32_t scale = 0;
    double start = 0, stop = 0;

    double windowFactor = 1.0;
    int32_t windowLength = 0;
    int32_t fftSize = 0;
    int32_t zeroPad = 0;
    double vbwRatio = 1.0;
    int64_t averageCount = 1;
    int32_t hop = 0;
    int32_t packetsPerStep = 1;
    int32_t firstStep = 1, lastStep = 1;
    int32_t stepCount = 1;
    int32_t attenuation = 0; // step 0..6; the device gets 5 dB per step
    double binSize = 0;
    int32_t startBinOffset = 0;

    // The figures lxGetSweepParameters reports.
    double actualRbw = 0;
    bool rbwLimited = false; // the window length was cut to its maximum: actualRbw is coarser
    double vbw = 0;
    double actualStart = 0; // frequency of trace point 0
    int32_t sweepLength = 0;

    std::vector<SweepStep> steps;

    // Bins the stitched trace holds: the usable bins of every step, plus what
    // the last step adds beyond its high edge to reach startBinOffset +
    // sweepLength.
    int64_t StitchedLength() const;
    int64_t SamplesPerStep() const { return int64_t{packetsPerStep} * kSamplesPerPacket; }
    // Every packet the command list asks for, the filler included.
    int64_t TotalPackets() const;
    int32_t FillerPackets() const;
    StepProcessorConfig ProcessorConfig() const;
};

// Plan arithmetic from the settings alone (no calibration): window, FFT,
// averaging, packets, steps, sweep-time rule, bins and attenuation. The
// steps carry their table rows, bins and flags but no corrections.
SweepPlan PlanSweep(const SweepSettings& settings, int32_t attenuator, double refLevelDbm);

// A plan with the span and display settings (window, detector, video units,
// scale) taken over from the sweep settings; both sweep set-ups start here.
SweepPlan PlanFromSettings(const SweepSettings& settings);

// Fills every step's equaliser, step gain and IF level byte from the
// calibration record at the temperature bracket.
void FillStepCorrections(SweepPlan& plan, const uint8_t* cal, CalBracket bracket);

// The command list of one sweep. gpioSwitches is applied only when the GPIO
// port is in its switching configuration (5); it must be sorted by frequency.
// `tuning` receives the synthesizer state of the last step.
CommandList BuildSweepCommands(const SweepPlan& plan, uint32_t gpioPort, const std::vector<GpioSwitch>& gpioSwitches,
                               bool altPath, TuningState& tuning);

// The trace correction vector: the low-frequency roll-off over the first
// trace points (fewer than sweepLength: it ends at 8.7 MHz), in dB on a
// logarithmic scale, as factors 10^(x/20) on the linear one.
std::vector<float> SweepTraceCorrection(const SweepPlan& plan);

} // namespace lx::engines
