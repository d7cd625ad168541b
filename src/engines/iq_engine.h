// IqEngine: continuous, gap-free I/Q at 61.44 MS/s / D, D = 1, 2, 4 ... 8192.
//
// Decimation plan: the device decimates by D1 = min(D, 4) and sends blocks of
// P = 64 / D1 - 1 packets (B = P * 2048 samples) each followed by its status
// packet. The host converts (conjugating a band-0 capture so that it is right
// side up), shifts the requested centre to 0 Hz, and filters:
//   D <= 4   one 129-tap low-pass at 0.5 * bandwidth / rate, when the software
//            filter is on; group delay G = 64 D.
//   D >= 8   host factor H = D / 4: stage 2 keeps every min(H, 16)-th sample
//            (257, 513, 1025, 2049 taps for 2, 4, 8, 16; cutoff 0.5 * bandwidth
//            / 15.36 MHz, or 0.025 when stage 3 follows), stage 3 every
//            H / 16-th (same tap table; cutoff 0.5 * bandwidth / 960 kHz).
//            Both are decimating FIRs that compute only the kept outputs;
//            G = delay2 * 4 + delay3 * 4 * stage2, delay = (taps - 1) / 2.
// G counts 61.44 MS/s samples; every filter delay is its true linear-phase
// delay, so a time stamp names the antenna time of its sample.
//
// Loss: a block the analyzer reports lost samples before (status bit 0x200),
// or whose sample counter does not follow the last block's by 2 D1 B ticks,
// carries a gap to the store; so does the first block written after one
// dropped for a full ring (the gap lies behind the blocks still in the
// ring, not at the store's end when the drop happens). The reads that
// deliver the samples at a gap, or the filter outputs whose memory spans it,
// report it (sampleLoss), and lxUncalData is returned by the next read. The
// shifter runs on over what is missing, so a tone keeps its phase against
// the time stamps after a gap.
//
// Time: a block's first output sample is stamped device time of its status
// packet - 2 D1 B ticks - 2 G ticks (ns since 1970; the device time is GPS
// time once there is a fix). The store keeps every block's stamp: a read is
// stamped from the block its first sample belongs to, so samples missing
// further on do not move it. A trigger edge t ticks after the block's first
// input sample lands at output position (2 G + t) / (2 D) of the block; the
// status packet carries one edge, the block's first.
//
// Threads (all started by the constructor, stopped and joined by Stop/the
// destructor):
//   "LX IQ Acquisition Thread" (time critical): keeps K transfers in flight
//       (a read of (P + 1) * 8192 bytes and a one-block transfer request on
//       transport slot i), and for each finished one takes the status packet
//       (GPS intake, status bits, trigger), copies the block's raw samples
//       into ring slot w, stamps it, counts it in. A failed transfer is
//       counted, skipped, and followed by a 32 ms pause. On stop it sends the
//       end-of-stream word and finishes every transfer still in flight.
//   "LX IQ Filter Thread" (D <= 4) or "LX IQ DS and Filter Thread" (D >= 8):
//       takes ring slots in order, converts and shifts them, filters, hands
//       the result to the store.
//   Caller's thread (lxGetIQ): Read takes samples out of the store.
// Ring: kIqRingSlots slots of B raw samples passed by the atomic count
// `filled_` and the block-ready event. When all are full the acquisition
// thread drops the new block and counts it as lost (rather than overwrite a
// slot in use). The samples the shifter must pass over (a dropped block, a
// jump in the analyzer's sample counter) travel with the next slot, so the
// shift stays on the device's timeline.
// States: running (constructed) -> stopping (running flag cleared, filled_
// set to kIqRingSlots, both events set) -> stopped (threads joined).
// Locks: the store's mutex only (a leaf: nothing else is taken under it);
// taken by the processing thread, the reader and, for a dropped block, the
// acquisition thread.
//
// Nothing here allocates while streaming: ring, filters, their FFT plans and
// the store are built by the constructor (std::bad_alloc and std::system_error
// reach the API guard: lxAllocationErr).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "cal/correction.h"
#include "dsp/fir.h"
#include "dsp/shifter.h"
#include "dsp_vector/aligned_vector.h"
#include "lx_command/command_list.h"
#include "lx_lib/device.h"
#include "lx_lib/tuning_planner.h"
#include "threaded_deque/event.h"
#include "threaded_deque/worker.h"

namespace lx::engines {

using dsp::cf32;

// About half a second of stream at every decimation (a block is about 2 ms),
// kept raw (4 bytes a sample: 132 MB at D = 1). The acquisition thread must
// never wait, but the filter thread can be held up for far longer than the
// 16 transfers in flight cover: a virtual machine stops one of its CPUs now
// and then while the others run on, and a thread that CPU held stops with
// it, for up to half a second on the machines we soak on.
inline constexpr int kIqRingSlots = 256;
inline constexpr int32_t kIqMaxDecimation = 8192;
inline constexpr double kIqMinBandwidthHz = 1000.0;
inline constexpr double kIqMaxBandwidthD1Hz = 41.5e6;   // D = 1
inline constexpr double kIqBandwidthLimitHz = 5e7;      // divided by D above 1
inline constexpr int kIqSingleStageTaps = 129;
inline constexpr double kIqStage3Stage2Cutoff = 0.025;
inline constexpr double kIqStoreSeconds = 0.5;
inline constexpr size_t kMaxStoredBlocks = 1024; // block time stamps the sample store keeps
inline constexpr uint32_t kIqPauseAfterFailureMs = 32;

// Process-wide value that fills the trigger entries a read leaves unwritten.
double IqTriggerSentinel();
void SetIqTriggerSentinel(double value);

struct IqPlan {
    double centre = 0;
    int32_t decimation = 1;
    bool softwareFilter = true;
    int32_t dataType = 0;  // 0 complex float, 1 complex int16
    int32_t queueSize = 16;
    uint32_t triggerEdge = 0;
    double sampleRate = 0;
    double bandwidth = 0;  // clamped
    int32_t attenuation = 0;
    TuningPlan capture;
    StepCorrection correction; // the device's equaliser for this capture
    uint8_t ifLevel = 4;
    float correctionDb = 0;    // lxGetIQCorrection; linear scale sqrt(10^(dB/10))

    int32_t d1 = 1, host = 1, stage2 = 1, stage3 = 1;
    int32_t packets = 63;      // P
    int64_t blockSamples = 0;  // B
    int stage1Taps = 0, stage2Taps = 0, stage3Taps = 0;
    double stage1Cutoff = 0, stage2Cutoff = 0, stage3Cutoff = 0;
    double groupDelay = 0;     // G, 61.44 MS/s samples
    double nsPerSample = 0;

    int64_t OutputsPerBlock() const { return blockSamples / host; }
    // Outputs after a gap in the input whose filter memory reaches across it.
    int64_t SettleOutputs() const;
    int64_t StoreCapacity() const { return static_cast<int64_t>(kIqStoreSeconds * sampleRate); }
    uint32_t CaptureCode() const; // log2(D1) + 1
    double ShiftCyclesPerSample() const;
};

// Taps of a host stage by its factor: 2 -> 257, 4 -> 513, 8 -> 1025, else 2049.
int IqStageTaps(int32_t factor);
// The plan from the settings alone (no calibration).
IqPlan PlanIq(const IqSettings& s, int32_t attenuatorSetting, double refLevelDbm);
// Equaliser, IF level and the amplitude correction at the temperature bracket.
void FillIqCorrection(IqPlan& plan, const uint8_t* cal, CalBracket bracket);
// Tuning, equaliser taps, capture control, trigger edge: sent once at set-up.
CommandList BuildIqSetupCommands(const IqPlan& plan, TuningState& tuning);

// The bounded store between the processing thread and the reader: half a
// second of output; a writer that finds it would overflow empties it (the
// whole backlog goes at once). Every gap in the stream - that emptying, a
// block the analyzer reported lost, a block dropped before the store - is
// kept at its place in the stream, and every read whose samples reach it
// reports the loss, so a reader can tell exactly which read is not
// continuous with the one before. A gap upstream of the filters also spoils
// the outputs whose filter memory spans it (`settle` of them after it): the
// reads that reach those report it too.
class IqSampleStore {
public:
    IqSampleStore(int64_t capacity, double nsPerSample, int64_t settle = 0);

    enum class Loss : uint8_t {
        None,
        Before, // samples are missing just before the first of these
        Within, // samples are missing before or somewhere among these
    };
    // n samples whose first is stamped `stamp` (ns); triggerAt < 0: none.
    // Returns the samples thrown away to make room (0 normally).
    int64_t Put(const cf32* x, int64_t n, double triggerAt, int64_t stamp, Loss loss = Loss::None);
    // Empties the store, and forgets its gaps.
    void Purge();

    struct Taken {
        int64_t count = 0;
        int64_t stamp = 0;  // of the first sample taken
        bool gap = false;   // samples are missing before or among those taken
    };
    // Up to `max` samples into dst (float pairs, or int16 pairs rounded and
    // saturated when int16 is true); their triggers, relative to `base`, into
    // triggers[*written..m). Returns 0 taken when the store is empty.
    Taken Take(void* dst, int64_t max, bool int16, int64_t base, double* triggers, int32_t m, int32_t* written);
    int64_t Available() const;
    int64_t capacity() const { return capacity_; }

private:
    void EmptyLocked();

    mutable std::mutex mutex_;
    const int64_t capacity_;
    const double nsPerSample_;
    const int64_t settle_;
    AlignedVector<cf32> ring_; // mapped and faulted in at construction (large blocks are)
    int64_t write_ = 0, read_ = 0, available_ = 0;
    int64_t readIndex_ = 0;          // stream index of the oldest stored sample
    std::vector<double> triggers_;   // stream indices, ascending
    // Stream index ranges [first, last] whose reads report a loss.
    std::vector<std::pair<int64_t, int64_t>> gaps_;
    // Stream index and time stamp of the first sample of every stored block,
    // ascending: a read is stamped from the block it starts in, so samples
    // missing after it (a dropped block, the analyzer's overrun) do not move
    // its time.
    std::vector<std::pair<int64_t, int64_t>> stamps_;
};

class IqEngine final : public Engine {
public:
    // Builds everything (filters, FFT plans, ring, store), then sends
    // `setup` (tuning, taps, capture start: BuildIqSetupCommands), then
    // starts the threads, whose first request follows at once. An engine
    // whose set-up could not be sent starts no thread (the link status says
    // why). An empty `setup` sends nothing: the caller has tuned the device.
    IqEngine(Device& device, IqPlan plan, const CommandList& setup = {});
    ~IqEngine() override;
    IqEngine(const IqEngine&) = delete;
    IqEngine& operator=(const IqEngine&) = delete;

    // The body of lxGetIQ: blocks until `count` samples are delivered (or a
    // transfer fails). Statuses: the link status of a failed transfer; else
    // 0, replaced in turn by lxTempDrift, lxADCOverflow (status bit 0x100
    // since the last read), lxUncalData (0x200), lxFramingErr.
    LxStatus Read(void* dst, int32_t count, double* triggers, int32_t triggerCount, uint64_t* timestamp,
                  int32_t purge, int32_t* sampleLoss, int32_t* remaining);

    const IqPlan& plan() const { return plan_; }
    void Stop() override;

private:
    void AcquisitionThread();
    void ProcessBlock(const uint8_t* data);
    // Slot r's raw samples, right side up and shifted, into input_ (returned).
    cf32* ConvertSlot(int r);
    void FilterThread();

    Device& device_;
    const IqPlan plan_;
    const float scale_;
    CommandList request_;
    dsp::FrequencyShifter shifter_;
    dsp::FirFilter fir1_;
    dsp::DecimatingFir fir2_, fir3_;
    AlignedVector<int16_t> ring_; // mapped and faulted in at construction (large blocks are)
    ComplexVector input_, workA_, workB_;
    std::array<double, kIqRingSlots> slotTrigger_{};  // < 0: none
    std::array<IqSampleStore::Loss, kIqRingSlots> slotLoss_{}; // samples missing before or in the slot
    IqSampleStore::Loss pendingLoss_ = IqSampleStore::Loss::None; // for the next slot written (a dropped block)
    std::array<int64_t, kIqRingSlots> slotStamp_{};
    std::array<int64_t, kIqRingSlots> slotSkip_{}; // samples the shifter passes over before the slot
    int64_t pendingSkip_ = 0;                       // for the next slot written
    int write_ = 0;
    std::atomic<int> filled_{0};
    Event blockReady_{Event::Mode::AutoReset};
    Event dataReady_{Event::Mode::AutoReset};
    std::atomic<bool> overflowSeen_{false}, lossSeen_{false};
    std::atomic<float> temperature_;
    int64_t lastStamp_ = 0;
    uint64_t lastTick_ = 0; // sample counter of the last status packet
    bool haveTick_ = false;
    IqSampleStore store_;
    Workers workers_;
};

// Plan and correction for these settings, the set-up commands (sent now),
// and the engine streaming them; null with the link status when the
// commands did not reach the analyzer.
std::unique_ptr<IqEngine> StartIqStream(Device& dev, const IqSettings& settings, LxStatus* status);
// Configure mode 3: plan, correction, the set-up commands (sent now), the
// figures lxGetIQParameters reports; replaces the device's I/Q engine.
LxStatus SetupIq(Device& dev);

// Configure mode 100: the one command list of a full-band capture, kept
// with nothing started.
class FullBandCapture final : public Engine {
public:
    explicit FullBandCapture(CommandList commands) : commands_(std::move(commands)) {}
    void Stop() override {} // no threads: the capture runs inside lxAdminGetFullBandIQ
    const CommandList& commands() const { return commands_; }

private:
    CommandList commands_;
};
CommandList BuildFullBandCommands(double frequencyHz, TuningState& tuning);
LxStatus SetupFullBand(Device& dev);
inline constexpr int kFullBandValues = 16384; // int16 values of one capture (8192 I/Q pairs)

} // namespace lx::engines
