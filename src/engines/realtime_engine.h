// RealTimeEngine: gap-free spectra of one capture, folded into frames of
// 1/30 s with min/max (or average) traces, a density frame over the 39 most
// recent frames and an alpha (persistence) frame.
//
// Threads
//   "LX Real Time USB Thread" (time critical): sends the start list, keeps
//       twelve 1 MiB transfers in flight (127 I/Q packets and one status
//       packet each) and one request more than that, copies each block's raw
//       int16 samples into the sample ring and wakes the FFT thread.
//       The ADC-overflow and data-loss bits (and the magic) are checked in
//       every status packet, not only in the one in twelve (the transfer of
//       slot 0) that goes through the device's full status intake: the
//       device clears those bits with each packet it sends, so a short
//       overload between two full intakes would otherwise go unseen. The
//       full intake keeps its cadence; its packets are queued and the
//       caller's thread takes them in at each frame read (the device's
//       housekeeping fields belong to the caller's thread). A failed transfer
//       ends the stream (the link status says why). On stop: the stop word on
//       OUT slot 12, then every transfer in flight is finished and the data
//       of the extra request read on IN slot 13.
//   "LX Real Time FFT Thread" (above normal): for each N samples at the read
//       index (50 % overlap): int16 to windowed float in one pass over the
//       window's samples only (the zero padding stays zero; the window
//       alternates in sign, so the output comes in frequency order and the
//       kept bins are one run), the FFT (a plan made at configure), then
//       |X|^2 and the density row of every kept bin in one pass: the rows go
//       to the spectrum ring, the power into the min/max (or sum) of the
//       frame the spectrum belongs to, whose finished traces it hands over
//       (traces_) before the frame's last spectrum. Spectra shorter than
//       1024 bins go in batches (one row pass, one hand-over per batch).
//       When the ring is full (the accumulator a whole ring behind) it waits
//       while the sample ring can still take two more blocks; beyond that the
//       spectrum is not computed and is counted (LostSpectra()), rather than
//       overwriting unread spectra without a trace: it enters no frame, and
//       the next frame read reports lxUncalData.
//   "LX Real Time Accum Thread" (above normal): holds the mutex of the frame
//       slot it fills; per spectrum one count per bin in the slot's count
//       frame (column-major, 256 rows per column, no branch per cell). After
//       F spectra the frame closes: the traces the FFT thread handed over,
//       density (running sum over the ring), alpha; then it takes the next
//       slot's mutex before releasing this one (hand-over-hand).
//       The traces are folded on the FFT thread, while each spectrum's power
//       is still in its cache: the ring then carries one byte per bin
//       instead of five, and that traffic between the cores, not the
//       arithmetic, was most of the per-bin cost.
//   Caller's thread: Frame() locks the read slot (waiting for the
//       accumulator to finish it), copies and converts, advances.
//
// States: running from construction until Stop (idempotent; the destructor
//   stops). Stop clears the flag; the USB thread stops the stream and
//   finishes its transfers, then the FFT thread transforms what was written
//   and the accumulator takes what was transformed, each after the one
//   before it is done, so the spectra account for every sample taken in.
//   A failed stream leaves the threads waiting; Frame() then returns the
//   link status instead of blocking.
//
// Locks: the frame slots' mutexes, at most one at a time by the reader and
//   at most two (current, then next) by the accumulator; the status queue's
//   mutex is a leaf. The USB and FFT threads take no frame lock. Counters
//   between the threads are monotonic 64-bit atomics (samples written and
//   released, spectra produced and consumed), each written by one thread.
//
// Rings
//   Samples: 33,554,432 complex int16 (546 ms) plus N mirrored after the
//   end, so an FFT that starts near the end reads one contiguous piece. The
//   USB thread never overwrites samples the FFT thread still needs: without
//   room it polls every 1 ms (RingWaits()); an analyzer meanwhile fills its
//   own buffer and reports the loss in its status word if that overruns.
//   Half a second, because the FFT thread's CPU can stop for longer than the
//   transfers in flight and the analyzer's buffer cover (~80 ms): the ring,
//   not the analyzer, must take the stream meanwhile.
//   Spectra: 10,485,760 / N entries of rows, each sweepLength values padded
//   to a multiple of 32 (the vector loops then run without a scalar tail;
//   the pad is never counted).
//
// Nothing allocates after construction; the constructor may throw
// std::bad_alloc or std::system_error (the API guard answers lxAllocationErr).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "dsp/fft.h"
#include "dsp_vector/aligned_vector.h"
#include "engines/realtime_plan.h"
#include "lx_command/command_list.h"
#include "lx_lib/device.h"
#include "threaded_deque/event.h"
#include "threaded_deque/worker.h"

namespace lx::engines {

inline constexpr int64_t kRtRingSamples = 33554432;    // 128 x 262,144 (see Rings)
inline constexpr int64_t kRtSpectrumRingFloats = 10485760;
inline constexpr int kRtTransfersInFlight = 12;
inline constexpr int kRtStopSlot = 12;
inline constexpr int kRtLeadSlot = 13; // the extra request (OUT) and its data at the stop (IN)
inline constexpr int32_t kRtBlockPackets = 127;
inline constexpr uint32_t kRtTransferBytes = 1048576;
inline constexpr uint32_t kRtTransferTimeoutMs = 2000;
inline constexpr int kRtStatusQueue = 16;
inline constexpr int64_t kRtConsumedBatch = 16;
inline constexpr int64_t kTraceSlots = 8;

class RealTimeEngine final : public Engine {
public:
    RealTimeEngine(Device& device, RealTimePlan plan, CommandList start, CommandList transfer);
    ~RealTimeEngine() override;
    RealTimeEngine(const RealTimeEngine&) = delete;
    RealTimeEngine& operator=(const RealTimeEngine&) = delete;

    // The next frame (see lxGetRealTimeFrame); every output optional. frame
    // and alpha: frameWidth x 256 floats, row-major, row 0 the lowest level;
    // traces: sweepLength floats. Runs on the device's owner thread.
    LxStatus Frame(float* frame, float* alpha, float* minTrace, float* maxTrace, int32_t* frameCount,
                   uint64_t* timestamp);
    void Stop() override;

    const RealTimePlan& plan() const { return plan_; }
    // Spectra dropped because the accumulator was a whole ring behind.
    int64_t LostSpectra() const { return lostSpectra_.load(); }
    // Blocks the USB thread had to hold because the FFT thread was a whole
    // ring behind (it polls every 1 ms for room).
    int64_t RingWaits() const { return ringWaits_.load(); }
    // Spectra computed since the start (lost ones included).
    int64_t SpectraProduced() const { return produced_.load() + lostSpectra_.load(); }
    int64_t SamplesReceived() const { return received_.load(); }
    // Device time (122.88 MHz ticks) at which the stream's first sample was
    // at the antenna; -1 before the first block. Sample i of the stream, and
    // spectrum j's window (samples j N/2 + zeroPad/2 onward), follow at 2
    // ticks per sample.
    int64_t StreamStartTick() const { return firstTick_.load(); }
    // CPU time the FFT and accumulator threads have used (up to their last
    // wake-up), for the benchmarks.
    double ProcessingCpuSeconds() const { return 1e-9 * double(fftCpuNs_.load() + accumCpuNs_.load()); }

private:
    struct Slot {
        std::mutex mutex;
        int32_t frameNumber = -1;
        uint64_t timestamp = 0;
        FloatVector minTrace, maxTrace;   // raw power
        AlignedVector<uint16_t> count;    // column-major, this frame's hits
        AlignedVector<uint32_t> density;  // the running sum after this frame
        FloatVector alpha;
    };

    void UsbThread();
    void TakeBlock(const uint8_t* data);
    void FftThread();
    void AccumThread();
    void TransformBatch(int64_t r, int64_t index, int64_t count, uint8_t* rows);
    void PublishTraces(int64_t frame);
    void PowerAndRows(const dsp::cf32* x, float* power, uint8_t* rows, int64_t count) const;
    void CloseFrame(int32_t slot);
    void ResetAccumulators();

    Device& device_;
    const RealTimePlan plan_;
    const CommandList start_, transfer_;
    const int64_t spectrumCapacity_;
    const int64_t stride_;   // ring entries per spectrum: sweepLength rounded up to 32
    // Spectra transformed per hand-over to the accumulator: short spectra
    // (small FFTs, narrow spans) go in batches, so that the counters and the
    // wake-up are paid once per batch; long ones go one by one.
    const int64_t batch_;

    // USB -> FFT
    AlignedVector<int16_t> samples_;     // 2 * (ring + N) values
    // The counters the FFT and accumulator threads pass each other have a
    // cache line each, and each side reads the other's again only when what
    // it saw is used up: at 128 points a spectrum is due every microsecond,
    // and a line traded between the cores for each would cost as much as
    // the transform.
    std::atomic<int64_t> written_{0};    // samples written, from the start
    alignas(64) std::atomic<int64_t> released_{0}; // samples the FFT thread no longer needs
    std::atomic<int64_t> received_{0};
    std::atomic<int64_t> ringWaits_{0};
    std::atomic<int64_t> firstTick_{-1};
    std::atomic<int64_t> fftCpuNs_{0}, accumCpuNs_{0};
    Event fftWake_{Event::Mode::AutoReset};

    // FFT -> Accum
    FloatVector window_;                 // windowLength values, normalised, / N
    // Row of a power p: 10 log10(p) * rowsPerDb_ + rowOffset_ on the dB
    // scales, sqrt(p) * rowsPerAmplitude_ on the linear one.
    float rowsPerDb_ = 0, rowOffset_ = 0, rowsPerAmplitude_ = 0;
    std::shared_ptr<const dsp::FftPlan> fft_;
    ComplexVector fftIn_, fftOut_, gathered_; // gathered_: a batch's kept bins, trace order
    FloatVector power_;                  // a batch's power
    // The traces of the frame being transformed: min/max, or the sum.
    FloatVector minAcc_, maxAcc_;
    DoubleVector sumAcc_;
    // Finished traces (min, then max: 2 x stride_ each) of the last frames,
    // by frame number modulo kTraceSlots. The FFT thread writes a frame's
    // before it publishes the frame's last spectrum; the accumulator copies
    // them out when it closes that frame. The FFT thread is at most a ring of
    // spectra (2.6 frames) ahead of the accumulator, so it never writes the
    // slot of a frame still to close.
    FloatVector traces_;    AlignedVector<uint8_t> rows_;        // capacity x sweepLength rows
    alignas(64) std::atomic<int64_t> produced_{0};
    alignas(64) std::atomic<int64_t> consumed_{0};   // published every kRtConsumedBatch spectra and when idle
    alignas(64) std::atomic<int64_t> lostSpectra_{0};
    Event accumWake_{Event::Mode::AutoReset};

    // Accum
    AlignedVector<uint32_t> densitySum_;
    int columnShift_ = 0;                // trace point i is in column i >> columnShift_
    std::unique_ptr<Slot[]> slots_;
    int32_t frameNumber_ = 0;
    Event accumReady_{Event::Mode::ManualReset};

    // Status: bits of every packet, the full intake of one in twelve.
    std::atomic<bool> adcOverflow_{false}, dataLoss_{false}, framing_{false}, usbFailed_{false};
    std::atomic<bool> lostSinceRead_{false};
    std::atomic<bool> usbDone_{false}, fftDone_{false}; // finished, on stop: the next one drains
    std::mutex statusMutex_;
    std::vector<uint8_t> statusQueue_;   // kRtStatusQueue records
    int statusHead_ = 0, statusCount_ = 0;

    // Caller
    int32_t readSlot_ = 0;

    Workers workers_;
};

// The set-up of mode 2: plan, correction, command lists, the figures
// lxGetRealTimeParameters reports; replaces the device's real-time engine. 0.
LxStatus SetupRealTime(Device& dev);

} // namespace lx::engines
