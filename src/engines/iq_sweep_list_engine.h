// IqSweepListEngine: one block of full-rate I/Q samples at each frequency of
// a list, one pass of the list per request, up to 16 requests in flight.
//
// Plan (configure time, per step)
//   tuning      PlanCapture(step frequency): the capture centre C as near the
//               step frequency as the synthesizer allows; its calibration row
//               selects the band, the equaliser taps and the gain.
//   attenuation the step's setting (0..6), or from its reference level.
//   packets     ceil(samples / 2048); the step's status packet follows its
//               last I/Q packet in the same answer.
//   gain        amplitude table + equaliser term at the row, plus the
//               low-frequency roll-off at the step frequency (band 0 rises
//               towards DC); scale = 10^(gain / 20).
//   shift       -(step frequency - C) / 61.44 MHz cycles per sample, after a
//               band-0 capture is conjugated: the step frequency lands on
//               0 Hz and RF above it on positive offsets ("right side up").
//   commands    per step: tuning, taps, capture control (no decimation), the
//               packet requests (255 at most each, the last with the status
//               packet; further blocks when one is full), a zero-length
//               request that makes the device send the step's last partial
//               32 KiB buffer at once, and the end-of-step word.
//
// Output per step, at the step's place in the caller's buffer (steps one
// after the other, `samples` complex values each):
//   data type 0  complex float: converted, (conjugated,) shifted, times the
//                step's scale, so |x|^2 is the power in mW. With corrections
//                off the scale is left out (full-scale units, as type 1/32768);
//                lxIQSweepListGetCorrections reports the scales either way.
//   data type 1  complex int16: the shifted samples times 2^15, rounded to
//                nearest, saturated; never scaled.
//   time stamp   ns since 1970 of the step's first sample: the device time of
//                its status packet less the 2 * 2048 * packets ticks of the
//                step's samples.
//
// Threads
//   "KD IQ Sweep List Interface Thread" (time critical): waits on its wake
//       event until a request is queued; then, in request order and step
//       order, writes each step's command blocks and queues its reads (at
//       most 128 packets, 1 MiB, each) while fewer than 32 transfers are
//       outstanding, finishes transfers in the order they began, converts
//       every packet straight into the caller's buffer, takes each step's
//       status packet into the device and signals a request's completion
//       event after its last step.
//   Callers' threads: Start and Finish, on any slot, from any thread; one
//       thread per slot at a time.
//
// States of a request slot
//   idle --Start--> active (queued, running) --last step--> done (event set)
//   --Finish--> idle. Start on an active slot and Finish on an idle one:
//   lxSweepAlreadyActiveErr. A failed transfer completes every request
//   already queued (their buffers hold what arrived; Finish reports the link
//   status); later requests run normally. Stop (reconfigure, abort, close,
//   destructor): no step is started any more, the steps already sent are
//   read to their end (no stale data left on the link), the thread is joined
//   and every completion event is set, so a Finish returns.
//
// Locks, in the only order taken: the request deque's mutex, then nothing;
// each event's own mutex, then nothing. Slot fields the thread reads (buffer,
// time-stamp array) are written by Start before the request is queued and
// not again until Finish has seen the event: the deque's mutex orders them.
//
// Nothing allocates while requests run: the shift tables, the conversion
// buffer and the command list exist from configure on. A failure in the
// constructor reaches the API guard (lxAllocationErr).
#pragma once

#include <array>
#include <atomic>
#include <complex>
#include <cstdint>
#include <vector>

#include "cal/correction.h"
#include "dsp_vector/aligned_vector.h"
#include "lx_command/command_list.h"
#include "lx_lib/device.h"
#include "lx_lib/tuning_planner.h"
#include "threaded_deque/event.h"
#include "threaded_deque/threaded_deque.h"
#include "threaded_deque/worker.h"

namespace lx::engines {

inline constexpr int kSweepListSlots = 16;
inline constexpr int32_t kSweepListMaxSteps = 1000;
inline constexpr int kSweepListMaxTransfers = 32;
inline constexpr int32_t kSweepListReadPackets = 128;
// The step shift is -(step frequency - capture centre) / 5e7 cycles per
// sample, not per 61.44 MS/s sample: a step whose capture centre misses its
// frequency by d leaves the step frequency at d (1 - 61.44 / 50) from 0 Hz
// (docs/iq_sweep_list.md). Kept so for compatibility.
inline constexpr double kSweepListShiftRateHz = 5e7;

struct SweepListStepPlan {
    double frequency = 0;
    uint32_t samples = 0;
    int64_t packets = 0;
    int32_t attenuation = 0;
    TuningPlan capture;
    float gainDb = 0;          // what lxIQSweepListGetCorrections reports, as a scale
    float scale = 1;           // 10^(gainDb / 20)
    double shiftCycles = 0;    // per sample
    int64_t outputOffset = 0;  // complex samples before this step in a request's buffer
    size_t firstBlock = 0;     // the step's command blocks
    size_t blockCount = 0;
    bool substituted = false;  // the equaliser took neutral values for unusable calibration data
};

struct SweepListPlan {
    int32_t dataType = 0;      // 0 complex float, 1 complex int16
    bool uncorrected = false;
    std::vector<SweepListStepPlan> steps;
    int64_t totalSamples = 0;  // complex samples of one request
    CommandList commands;
};

// The plan and the command list of a step list at a temperature bracket.
// An empty list gives a plan without steps.
SweepListPlan PlanSweepList(const IqSweepListSettings& settings, const uint8_t* cal, CalBracket bracket);

// One packet (n <= 2048 samples, starting at sample `first` of the step) into
// the step's place in `destination`: converted, conjugated in band 0,
// shifted (tone: the step's 2048-sample table), then times `scale` as floats
// or rounded to int16. `work` holds 2048 samples. No allocation.
void ConvertSweepListPacket(const int16_t* raw, int64_t n, int64_t first, const SweepListStepPlan& step,
                            const std::complex<float>* tone, float scale, bool asFloat, void* destination,
                            std::complex<float>* work);

class IqSweepListEngine final : public Engine {
public:
    IqSweepListEngine(Device& device, SweepListPlan plan);
    ~IqSweepListEngine() override;
    IqSweepListEngine(const IqSweepListEngine&) = delete;
    IqSweepListEngine& operator=(const IqSweepListEngine&) = delete;

    // Queues one pass of the list into `destination` (totalSamples complex
    // values of the data type) with one time stamp per step into `stamps`
    // when not null. lxInvalidParameterErr for a slot outside 0..15,
    // lxSweepAlreadyActiveErr for an active one.
    LxStatus Start(int32_t slot, void* destination, uint64_t* stamps);
    // Waits for the slot's pass. Strongest first: the link status,
    // lxFramingErr (a status packet of the pass lacked its magic; its step's
    // time stamp reads 0), lxUncalData
    // (samples lost during the pass), lxADCOverflow, lxTempDrift (more than
    // 2 degC since configure), else 0. lxInvalidParameterErr for a slot
    // outside 0..15, lxSweepAlreadyActiveErr for an idle one.
    LxStatus Finish(int32_t slot);
    bool AnyActive() const;
    // Idempotent; see States above.
    void Stop() override;

    const SweepListPlan& plan() const { return plan_; }

private:
    struct Slot {
        std::atomic<bool> active{false};
        void* destination = nullptr;
        uint64_t* stamps = nullptr;
        std::atomic<uint32_t> statusBits{0};
        Event done{Event::Mode::ManualReset};
    };
    struct Flight {
        int transferSlot = 0;
        bool read = false;
        int32_t request = 0;      // request slot
        int32_t step = 0;
        int64_t firstPacket = 0;  // within the step
        int32_t packets = 0;      // I/Q packets in this read
        bool status = false;      // the step's status packet ends this read
    };

    void InterfaceThread();
    void TakeRead(const Flight& f, const uint8_t* data);
    void CompleteRequest(int32_t request);

    Device& device_;
    const SweepListPlan plan_;
    std::array<Slot, kSweepListSlots> slots_;
    ThreadedDeque<int32_t> requests_;
    Event wake_{Event::Mode::AutoReset};
    std::vector<ComplexVector> tones_; // per step: exp(j 2 pi shift k), k < 2048
    ComplexVector work_;
    std::atomic<float> temperature_{0};
    float temperatureAtConfigure_ = 0;
    Workers workers_;
};

// The set-up of mode 4: an empty list gives lxInvalidConfigurationErr;
// otherwise plan, commands and engine, hardware decimation 1 and the device
// sample offset of the list. 0.
LxStatus SetupIqSweepList(Device& dev);

} // namespace lx::engines
