// NarrowSpanEngine: swept spectra of spans below 5 MHz from one capture.
//
// The whole span fits one capture, so instead of stepping the engine tunes
// once near the span's centre (the tuning planner's PlanCapture), lets the
// device decimate by 4, and narrows the stream further on the host:
//
//   D          decimation for the span: 1 from 23,592,960 Hz up; otherwise
//              doubled from 2 while 47,185,920 / (2 D) is above the span, at
//              most 256 (below 5 MHz: 8 .. 256). fsD = 61.44 MHz / D.
//   device     min(D, 4), sent as capture code log2 + 1; host D / 4 above 4.
//   host       convert, conjugate a mirrored capture (band 0: RF F sits at
//              C - F), shift the requested centre to 0 Hz, low-pass with a
//              2049-tap FIR (cutoff 0.45 / host decimation) keeping every
//              host-decimation-th output, then the StepProcessor.
//   window     trunc(factor * fsD / RBW), made even, 4 .. 2^25; FFT size the
//              next power of two, 64 .. 2^25; hop fftSize / 4.
//   samples    (averageCount - 1) * hop + fftSize, or the sweep time's worth
//              when that is more (buys averaging); packets = ceil(samples /
//              2048) * host decimation, one more to fill the FIR before its
//              first output is used, rounded up to whole 4-packet buffers.
//   trace      bin size fsD / fftSize; sweepLength = round(span / bin) + 2,
//              made even so the trace is centred on the requested centre;
//              trace point i is FFT bin firstOutputBin + i and lies at
//              actualStart + i * binSize.
//
// Threads: none of its own. The sweep runs on the caller's thread inside
// lxGetSweep, in three calls (SweepRunner): Start() claims the transport
// (control lock held); Wait() sends the command list, reads the samples (at
// most 4 command blocks and 10 reads in flight, reads of up to 128 packets,
// 2000 ms each), processes them as they arrive, reads one status packet and
// releases the transport (control lock released, so other calls on the
// device are answered meanwhile); Result() copies the traces out and takes
// the status packet into the device (control lock held).
// States: idle --Start--> pending --Wait--> done --Result--> idle. Stop()
// (another thread's configure, abort or close) waits for a Wait() under way
// to finish its acquisition, so the link is left clean, and keeps a later
// Wait() from starting one. One mutex (runMutex_), a leaf.
//
// Nothing allocates in Run(): the raw buffer, the decimated-sample buffer,
// the FIR, the shifter, the step processor and its FFT plan are built by the
// constructor, which may throw std::bad_alloc (the API guard answers
// lxAllocationErr).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "dsp/fir.h"
#include "dsp/shifter.h"
#include "engines/step_processor.h"
#include "engines/sweep_plan.h"
#include "engines/sweep_support.h"
#include "lx_command/command_list.h"
#include "lx_lib/device.h"
#include "lx_lib/tuning_planner.h"

namespace lx::engines {

inline constexpr double kUsableCaptureHz = 47185920.0; // 0.768 of the ADC rate
inline constexpr double kUndecimatedSpanHz = 23592960.0;
inline constexpr int32_t kMaxSpanDecimation = 256;
inline constexpr int32_t kMaxDeviceDecimation = 4;
inline constexpr int32_t kNarrowMinWindowLength = 4;
inline constexpr int32_t kNarrowMaxWindowLength = 1 << 25;
inline constexpr int32_t kNarrowMaxFftSize = 1 << 25;
inline constexpr int kHostFirTaps = 2049;
inline constexpr double kHostFirCutoff = 0.45; // divided by the host decimation
inline constexpr int32_t kRawBufferSamples = 262144; // 128 packets: the largest read
inline constexpr int kMaxCommandBlocksInFlight = 4;

// D for a span (see above). A span of kUsableCaptureHz or more reports
// "span < usableBW" (src/lx_lib) and gives 1.
int32_t NarrowSpanDecimation(double spanHz);

struct NarrowSpanPlan {
    // One step: window, FFT, averaging, packets, attenuation, the step's
    // equaliser and gain, the figures lxGetSweepParameters reports. Bin
    // arithmetic is at fsD, not at the ADC rate.
    SweepPlan sweep;
    int32_t decimation = 1;
    int32_t deviceDecimation = 1;
    int32_t hostDecimation = 1;
    double decimatedRate = kAdcRateHz; // fsD
    double centre = 0;                 // (start + stop) / 2
    int32_t firstOutputBin = 0;
    int64_t packets = 0;               // the same as sweep.packetsPerStep, unclamped
    TuningPlan capture;

    uint32_t CaptureCode() const; // log2(device decimation) + 1
    // Cycles per device sample that move the requested centre to 0 Hz (after a
    // mirrored capture is conjugated).
    double ShiftCyclesPerSample() const;
    // Decimated samples one acquisition delivers (the FIR's fill included).
    int64_t DecimatedSamples() const { return packets * kSamplesPerPacket / hostDecimation; }
};

// Plan arithmetic from the settings alone (no calibration); span = stop - start.
NarrowSpanPlan PlanNarrowSpan(const SweepSettings& settings, int32_t attenuator, double refLevelDbm);

// The capture's equaliser, step gain and IF level byte at the temperature bracket.
void FillNarrowSpanCorrection(NarrowSpanPlan& plan, const uint8_t* cal, CalBracket bracket);

// Tuning, equaliser taps, capture control, the packet requests (255 at most
// each, new blocks as they fill), the end word. `tuning` receives the
// synthesizer state.
CommandList BuildNarrowSpanCommands(const NarrowSpanPlan& plan, TuningState& tuning);

class NarrowSpanEngine final : public SweepRunner {
public:
    NarrowSpanEngine(Device& device, NarrowSpanPlan plan, CommandList commands);
    NarrowSpanEngine(const NarrowSpanEngine&) = delete;
    NarrowSpanEngine& operator=(const NarrowSpanEngine&) = delete;

    LxStatus Start() override;
    void Wait() override;
    // Copies sweepLength values from the first output bin into the non-null
    // traces, the device time of the status packet after the samples into
    // *timestamp (ns since 1970). Statuses, strongest first: the link
    // status, lxFramingErr, lxUncalData, lxADCOverflow, lxTempDrift. After a
    // failed transfer the traces hold what the samples read gave (the floor
    // when not one segment arrived).
    LxStatus Result(float* minTrace, float* maxTrace, uint64_t* timestamp) override;
    int32_t SweepLength() const override { return plan_.sweep.sweepLength; }
    void Stop() override;
    // Start, Wait and Result in one go, for a caller that holds the device.
    LxStatus Run(float* minTrace, float* maxTrace, uint64_t* timestamp);

    const NarrowSpanPlan& plan() const { return plan_; }

private:
    // Sends the commands and takes every packet; false after a failed
    // transfer. slotCursor: the next free transfer slot.
    bool Acquire(int& slotCursor);
    void TakePackets(const uint8_t* data, int32_t packets);
    void Consume(const cf32* x, int64_t count);
    bool ReadStatusPacket(int& slotCursor);

    Device& device_;
    const NarrowSpanPlan plan_;
    const CommandList commands_;
    CommandList statusRequest_;
    std::vector<uint8_t> statusRecord_;

    ComplexVector raw_;
    ComplexVector filtered_;
    ComplexVector decimated_; // a window's worth of decimated samples and room for more
    int64_t held_ = 0;        // valid samples in decimated_
    int64_t heldFirst_ = 0;   // position of decimated_[0] in the acquisition's decimated stream
    int64_t fillLeft_ = 0;    // FIR outputs still to drop while it fills
    int64_t segment_ = 0;     // next segment
    dsp::FrequencyShifter shifter_;
    dsp::DecimatingFir fir_;
    StepProcessor processor_;
    FloatVector min_, max_;

    std::mutex runMutex_;
    std::condition_variable runCv_;
    bool pending_ = false;  // Start .. Result
    bool running_ = false;  // inside Wait's acquisition
    bool stopped_ = false;
    bool statusValid_ = false;
};

// The set-up of mode 1 for spans below 5 MHz: plan, correction, command
// list, the figures lxGetSweepParameters reports and the trace correction
// vector; replaces the device's narrow-span engine. 0, or lxSettingClamped
// when the RBW was limited by the window length.
LxStatus SetupNarrowSpan(Device& dev);

} // namespace lx::engines
