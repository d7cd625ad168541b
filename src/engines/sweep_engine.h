// SweepEngine: runs the stepped sweep of a SweepPlan on the device and turns
// each step's samples into the minimum and maximum traces.
//
// Threads
//   "Sweep USB Thread" (time critical): sleeps on its wake event until
//       lxGetSweep queues a request; then writes the command blocks and
//       reads the samples through the transport's 32-slot ring (at most 10
//       transfers in flight, 2000 ms each), converts them into the sample
//       store, and after the last packet asks for and reads one status
//       packet. The sweep's own requests carry no status packets (a step's
//       packets run on across its blocks), so this one packet is where the
//       device reports what happened during the sweep: its status word
//       collects ADC overflow (bit 8) and lost samples (bit 9) until a
//       status packet is sent, and it carries the temperature and the time.
//       The thread never runs more than kLookaheadPackets ahead of what it
//       has read, so that a stop drains quickly.
//   "Sweep Work Thread" x 2 (normal): claim steps in order, run their own
//       StepProcessor over each step's samples and write the step's usable
//       bins straight into the traces (each step owns a disjoint range, so
//       the stitching needs no pass of its own); the thread that completes
//       the last step sets the work-done event.
//   Caller's thread (lxGetSweep): Start() claims the transport and queues
//       the request (control lock held); Wait() waits for both done events
//       (control lock released); Result() takes the status packet into the
//       device (housekeeping, temperature, time stamp) and copies the traces
//       out (control lock held). The USB thread releases the transport
//       after the sweep's last transfer, before it signals done.
//
// States
//   idle --Start--> pending --(USB done + work done)--> complete --Result--> idle
//   Start while pending: lxSweepAlreadyActiveErr. Result while idle: 0 at
//   once, outputs untouched. Stop (reconfigure, abort, close, destructor)
//   from any state: the USB thread finishes the transfers it has in flight,
//   asks the device for whatever completes its last 32 KiB buffer and reads
//   everything requested (so no stale data is left for the next user of the
//   link), then all three threads are joined. A failed transfer ends the
//   acquisition (the link status says why); the steps without data read
//   as empty and the partial sweep is still returned.
//
// Sample store
//   A ring of complex floats. Steps of S samples normally sit whole in it
//   (capacity a multiple of S: floor(5e6 / S) * S, at least 3 S, and up to
//   the whole sweep when that is under 5e7 samples); a step is claimed when
//   all its samples are in and processed in one go, two steps at a time.
//   A step too long for that (3 S above 5e7 samples: a long sweep time over
//   few steps) is streamed instead: one work thread at a time takes it
//   segment by segment as samples arrive and frees them as it goes; a
//   mirrored tail of one window length keeps every segment contiguous.
//   The USB thread touches every page of it before the first sweep (no page
//   faults inside a paced stream). Space is freed in stream order, also when
//   a later step finishes first. When the store is full the USB thread
//   polls every 1 ms and the sweep reports lxCPULimited ("Exceeded CPU
//   resources") unless a stronger status applies.
//
// Locks, in the only order taken: the request deque's mutex, then nothing;
// the work mutex (claims, in-order release, long-step progress), then
// nothing. The USB thread never holds a lock while it waits on a transfer;
// the counters it shares with the work threads are atomics, published under
// the work mutex before each notify so that no wake-up is lost.
//
// Nothing here allocates while a sweep runs: store, traces, the step
// processors and their FFT plans exist before the first Start (the second
// work thread builds its processor as it starts; should that fail, the first
// thread does every step). A failure in the constructor (std::bad_alloc,
// std::system_error) reaches the API guard, which answers lxAllocationErr.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "engines/step_processor.h"
#include "engines/sweep_support.h"
#include "engines/sweep_plan.h"
#include "lx_command/command_list.h"
#include "lx_lib/device.h"
#include "threaded_deque/event.h"
#include "threaded_deque/threaded_deque.h"
#include "threaded_deque/worker.h"

namespace lx::engines {

inline constexpr int kMaxTransfersInFlight = 10;
inline constexpr uint32_t kTransferTimeoutMs = 2000;
inline constexpr int32_t kReadBatchPackets = 128; // 1 MiB
inline constexpr int64_t kLookaheadPackets = 4096; // 32 MiB, 136 ms of samples
inline constexpr int64_t kStoreBaseSamples = 5000000;
inline constexpr int64_t kStoreLimitSamples = 50000000;
inline constexpr int kWorkThreads = 2;

class SweepEngine final : public SweepRunner {
public:
    SweepEngine(Device& device, SweepPlan plan, CommandList commands);
    ~SweepEngine() override;
    SweepEngine(const SweepEngine&) = delete;
    SweepEngine& operator=(const SweepEngine&) = delete;

    // Queues one sweep and claims the transport for the USB thread, which
    // releases it after the sweep's last transfer; lxSweepAlreadyActiveErr
    // while one is pending.
    LxStatus Start() override;
    // Waits for the USB and work sides to finish (or the engine to stop).
    void Wait() override;
    // Waits for the pending sweep and hands it over; 0 at once when none is
    // pending (outputs untouched). Outputs optional: sweepLength floats each,
    // the time stamp in ns since 1970 (device time of the sweep's last
    // sample). Statuses, strongest first: the link status, lxFramingErr,
    // lxUncalData (samples lost), lxADCOverflow, lxCPULimited, lxTempDrift.
    LxStatus Result(float* minTrace, float* maxTrace, uint64_t* timestamp) override;
    int32_t SweepLength() const override { return plan_.sweepLength; }
    // Idempotent; see States above.
    void Stop() override;

    const SweepPlan& plan() const { return plan_; }
    bool streamsLongSteps() const { return longSteps_; }
    int64_t storeCapacity() const { return capacity_; }

private:
    struct Request {
        int64_t totalPackets = 0;
    };

    void UsbThread();
    void Acquire();
    void ReadStatusPacket(int& slotCursor);
    void StoreSamples(const uint8_t* data, int64_t firstPacket, int32_t packets);
    void PublishWritten(int64_t samples);
    void BuildProcessor(int id);
    void WorkThread(int id);
    void ProcessWholeStep(int id, int32_t k);
    void ProcessLongStep(int id, int32_t k);
    void EmitStep(int id, int32_t k, bool haveData);
    // The processor bins step k's trace bins come from: [first, first + count).
    std::pair<int64_t, int64_t> KeptBins(int32_t k) const;
    void CompleteStep(int32_t k);

    Device& device_;
    const SweepPlan plan_;
    const CommandList commands_;
    const int64_t stepSamples_;
    const int64_t dataPackets_;
    bool longSteps_ = false;
    int64_t capacity_ = 0;
    int64_t tail_ = 0; // mirrored samples after the ring (long steps)

    ComplexVector store_;
    FloatVector minTrace_, maxTrace_;
    std::vector<int64_t> traceOffset_; // where each step's bins start in the traces
    std::vector<int32_t> traceCount_;
    std::vector<std::unique_ptr<StepProcessor>> processors_;
    std::vector<FloatVector> scratchMin_, scratchMax_;
    std::vector<uint8_t> statusRecord_;

    // Caller <-> USB thread.
    ThreadedDeque<Request> requests_;
    Event usbWake_{Event::Mode::AutoReset};
    Event usbDone_{Event::Mode::ManualReset};
    Event workDone_{Event::Mode::ManualReset};
    std::atomic<bool> pending_{false};

    // USB thread -> work threads (published under workMutex_).
    std::atomic<int64_t> written_{0};   // data samples in the store, from the sweep's start
    std::atomic<bool> usbFailed_{false};
    // Work threads -> USB thread.
    std::atomic<int64_t> released_{0};  // samples the work side has finished with

    std::mutex workMutex_;
    std::condition_variable workCv_;
    int32_t nextClaim_ = 0;       // next step to hand out
    int32_t consumed_ = 0;        // long steps: steps whose samples are all taken
    int32_t releasedSteps_ = 0;   // whole steps: leading steps freed
    std::vector<uint8_t> stepDone_;
    std::atomic<int32_t> remaining_{0};

    // Warnings of the sweep under way.
    std::atomic<bool> cpuOverrun_{false};
    std::atomic<bool> statusValid_{false};

    Workers workers_;
};

// The set-up of mode 1 for spans of 5 MHz and more: plan, corrections,
// command list, the figures lxGetSweepParameters reports and the trace
// correction vector; replaces the device's sweep engine. 0, or
// lxSettingClamped when the RBW was limited by the window length.
LxStatus SetupSweep(Device& dev);

} // namespace lx::engines
