// One simulated LX530: its USB personalities, vendor requests, NOR flash,
// command interpreter, output FIFO and data plane.
//
// Threads and locks
//   The simulator has no threads of its own. Every call comes from a caller's
//   thread: the backend (enumeration, handles, transfers; typically a
//   transport's USB thread) and lx_sim.h (attach, scene, faults, counters;
//   typically a test's main thread), in any mix and concurrently.
//   Locks, in the only order they are ever taken:
//     1. the registry mutex (sim_backend.cpp: the list of attached devices),
//     2. one device's mutex `mu_` (all of that device's state).
//   Never the other way round, and never two device mutexes at once. The
//   virtual clock is a lone atomic. Waiting IN transfers sleep on the device's
//   condition variable, which every state change that could finish them
//   (command block, abort, detach, re-enumeration, scene change) notifies.
//
// Device time
//   The 122.88 MHz tick counter is twice the ADC timeline's sample position
//   and only moves forward (personality changes included). It moves when the
//   device looks at it (a command block, a scene change): by the virtual time
//   elapsed since it last looked (lxSimAdvanceTimeMs, backend Sleep), and by
//   real time as well, except while a fast-paced device is streaming (I/Q
//   packets requested and not yet taken), when only the samples it produces
//   move it, so that a stream stays gapless. A realtime-paced timeline is
//   wall-clock time (times the scene's pace_rate) plus the virtual time. The GPS receiver runs on these
//   ticks (sim/gps_receiver.h); a status packet carries the receiver's state
//   at its own tick, taken when it is requested.
//
// Output stream
//   The device moves data through 32 KiB DMA buffers (four packets). Each
//   transfer request appends its packets (I/Q first, then aux) to the stream;
//   a buffer goes out when it is full. A request whose flag 0x800 is set (an
//   aux-only request) sends a partial buffer at once as a short packet, which
//   ends the IN transfer that reaches it. A flash read (boot loader) does the
//   same. So an IN transfer of L bytes completes with min(L, bytes up to the
//   next short packet) once those bytes have been sent, leftover bytes go to
//   the next transfer, and with nothing sent it waits.
//   A decimating capture (capture control 2 or 3) still fills 2048-sample
//   packets; each spans 2 or 4 times the ADC samples, and its first sample
//   sits on an ADC sample index divisible by the factor (the decimator's
//   phase is fixed to the timeline).
//   Paced, a packet waits in the FIFO from its capture until a transfer the
//   host queued can take it; it is lost (data-loss bit) if that wait is
//   longer than the FIFO lasts. The wait ends at the transfer's submission,
//   not when the host's thread reaps it: DMA fills queued transfers alone.
//   Packets are synthesised when an IN transfer takes them (the tuning in
//   force when they were requested, the scene in force when they are
//   delivered), straight into the caller's buffer.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lx_sim.h"
#include "sim/flash.h"
#include "sim/front_end.h"
#include "sim/gps_receiver.h"
#include "sim/scene.h"
#include "sim/synthesis.h"
#include "usb/usb_backend.h"

namespace lx::sim {

// Process-wide virtual time (ms): advanced only by UsbBackend::Sleep.
uint64_t VirtualNowMs();
void AdvanceVirtualMs(uint64_t ms);

inline constexpr uint64_t kReenumerateMs = 1000; // absent from the bus after a personality change
inline constexpr uint64_t kBootBusyMs = 200;     // busy after it is back
inline constexpr uint64_t kEraseBusyMs = 400;    // one sector erase
inline constexpr uint64_t kWriteBusyMs = 2;      // one page write
inline constexpr uint64_t kPowerOffMs = 5000;    // a power loss: off the bus until power returns
// The chip's own ROM loader, which runs when the boot sector holds no whole
// image: the chip maker's IDs, no serial. Vendor request 0xA0 (OUT) writes
// RAM at the address in value (low half) and index (high half); with 4 data
// bytes and an index of 0xFFFF it is the jump: the data is the checksum of
// the image, which the loader compares with the sum of the words it got.
inline constexpr uint16_t kRomVendorId = 0x04B4;
inline constexpr uint16_t kRomProductId = 0x00F3;
inline constexpr const char* kRomProduct = "FX3 ROM Loader";
inline constexpr uint8_t kRequestRamWrite = 0xA0;
inline constexpr uint32_t kDmaBufferBytes = 32768;
inline constexpr uint32_t kFlashReadBytes = 32768;
inline constexpr size_t kCommandLogWords = 1u << 18;
inline constexpr size_t kGpsInputBytes = 1u << 16; // the receiver's input kept for lxSimGetGpsInput
// Paced delivery: the device's FIFO holds this much of the stream (4 bytes
// per delivered sample) before it overwrites unread samples and reports data
// loss: 34 ms at the full rate, four times that at hardware decimation 4.
inline constexpr double kDeviceBufferBytes = 8.0 * 1024 * 1024;
inline constexpr double DeviceBufferSeconds(int decimation) {
    return kDeviceBufferBytes / 4.0 * decimation / fe::kSampleRateHz;
}
// Wall-clock time of `samples` ADC samples on a paced device whose clock runs
// at `rate` of real time (the scene's pace_rate).
template <class Duration = std::chrono::steady_clock::duration>
Duration WallTime(double samples, double rate) {
    return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(samples / (fe::kSampleRateHz * rate)));
}

class SimDevice;

class SimTransfer final : public usb::BulkTransfer {
public:
    ~SimTransfer() override;

private:
    friend class SimDevice;
    enum class State : uint8_t { Pending, Done, Failed };
    std::shared_ptr<SimDevice> device_;
    usb::Endpoint ep_ = usb::Endpoint::BulkIn;
    uint8_t* buffer_ = nullptr;
    uint32_t length_ = 0;
    uint32_t actual_ = 0;
    State state_ = State::Pending;
    bool stalled_ = false; // IN: never answered; OUT: never taken
    bool shortFault_ = false;
    std::chrono::steady_clock::time_point submitted_{}; // IN: when the host queued it
};

// The tuning of the receiver as the device's registers say, captured when a
// request queues I/Q packets.
struct CaptureConfig {
    int band = -1;
    double attenuationDb = 0;
    int ifLevel = 4;
    bool locked = false;
    double loHz = 0;
    double centreHz = 0;
    uint16_t tuneWord = fe::kResetTuneWord;
    fe::DeviceFilter filter; // the tap registers in force
    int decimation = 1;      // ADC samples per delivered sample (capture control)
};

class SimDevice : public std::enable_shared_from_this<SimDevice> {
public:
    SimDevice(int32_t id, std::string product, std::string serial, std::shared_ptr<const Scene> scene);

    int32_t Id() const { return id_; }
    const std::string& SerialString() const { return serial_; }
    // The 8-digit serial as a number, or -1.
    int32_t SerialNumber() const;

    // ---- bus side (generation: the enumeration a handle was opened on) ----
    bool PresentNow(usb::DeviceIdentity* identity, uint64_t* generation);
    void CountOpen();
    bool HandleValid(uint64_t generation);
    int ControlIn(uint64_t generation, uint8_t request, uint8_t* data, uint16_t length);
    int ControlOut(uint64_t generation, uint8_t request, uint16_t value, uint16_t index, const uint8_t* data,
                   uint16_t length);
    std::unique_ptr<usb::BulkTransfer> BeginBulk(uint64_t generation, usb::Endpoint ep, uint8_t* buffer,
                                                 uint32_t length);
    usb::WaitResult WaitBulk(SimTransfer& t, uint32_t timeoutMs);
    void AbortEndpoint(uint64_t generation, usb::Endpoint ep);
    uint32_t FinishBulk(SimTransfer& t);

    // ---- lx_sim.h side ----
    // Blanks the boot sector and leaves the device in the chip's ROM loader.
    void StartInRomLoader();
    void Detach();
    void SetScene(std::shared_ptr<const Scene> scene);
    bool InjectFault(int32_t fault, int32_t count);
    LxSimCounters Counters();
    void ResetCounters();
    bool RunFirmware();
    bool RomLoader();
    // Copies the oldest min(capacity, stored) words; returns the count stored.
    size_t CommandLog(uint32_t* words, size_t capacity);
    void ClearCommandLog();
    // Bytes the GPS receiver got from the host, oldest first; copies the
    // oldest min(capacity, stored) and returns the count stored.
    size_t GpsInput(uint8_t* bytes, size_t capacity);

private:
    friend class SimTransfer;
    using Clock = std::chrono::steady_clock;

    // What a status packet reports of the GPS and the reference, as of its tick.
    struct AuxGps {
        uint32_t statusWord = 0;
        uint64_t pulseTick = 0;
        bool timebaseFollowsGps = false;
        uint16_t tuneWord = fe::kResetTuneWord;
        std::shared_ptr<const UartRing> ring;
    };

    struct OutItem {
        enum class Kind : uint8_t { Iq, Aux, Bytes } kind = Kind::Iq;
        uint64_t start = 0;       // stream offset of its first byte
        uint32_t size = 0;
        uint64_t sampleIndex = 0; // I/Q: first sample; aux: stream position it reports
        Clock::time_point readyAt{};
        std::shared_ptr<const CaptureConfig> config;
        std::vector<uint8_t> bytes; // content, once rendered (always for flash reads)
        AuxGps gps;                 // aux packets
        // Aux packets behind I/Q packets of the same request: that block's
        // first ADC sample, its span in ADC samples and its decimation, and
        // the trigger edge the device was told to report.
        uint64_t blockFirst = 0, blockSpan = 0;
        int blockDecimation = 1;
        uint32_t triggerEdge = 0;
        bool lateLoss = false; // paced: the request came after its samples had passed
    };

    struct RunState {
        fe::SynthRegisters synth;
        uint32_t bandOperand = 0;
        uint8_t ifLevel = 4;
        Oscillator osc; // tune word (0x2E) and GPS discipline (0x2F)
        uint32_t captureControl = 0;
        fe::TapRegisters taps = fe::ResetTapRegisters();
        uint32_t reference = 0;
        uint32_t gpio = 0;
        uint16_t fanSetPointRaw = 45 * 16;
        uint32_t triggerEdge = 0; // opcode 0x33: 0 rising, 1 falling
        // A paced stream runs on from one I/Q request to the next until a
        // stop, tuning or capture word; streamEnd is where the last one ended.
        bool streaming = false;
        uint64_t streamEnd = 0;
        std::shared_ptr<const CaptureConfig> config; // null: recompute
    };

    // All below: mu_ held.
    bool Alive(uint64_t generation) const;
    enum class Mode : uint8_t { Run, Loader, Rom };
    // Drops off the bus for `absentMs` and comes back as `mode` with this serial.
    void Reenumerate(Mode mode, std::string usbSerial, uint64_t absentMs = kReenumerateMs);
    // A restart: the boot loader when the boot sector holds a whole image
    // (with that image's serial and the stored version), else the ROM loader.
    void BootFromFlash(uint64_t absentMs);
    int RomRequest(uint16_t value, uint16_t index, const uint8_t* data, uint16_t length);
    void FailPending();
    void ExecuteBlock(const uint8_t* data, uint32_t length);
    void ExecuteRunWord(uint32_t w);
    // Returns false when the word ended the block's execution (re-enumeration).
    bool ExecuteBootWord(const uint32_t* words, size_t count, size_t& i);
    void QueueTransferRequest(uint32_t w);
    void Commit(bool shortPacket, uint64_t answerBytes);
    std::shared_ptr<const CaptureConfig> CurrentConfig();
    const RenderPlan& PlanFor(const std::shared_ptr<const CaptureConfig>& config);
    void ComputePlan(const CaptureConfig& config); // into plan_
    // Delivers what it can to the queued IN transfers, in order. Returns the
    // time at which more could be delivered (paced stream), or max().
    Clock::time_point Pump();
    // Bytes [delivered_, delivered_ + n) into dst, a transfer the host
    // queued at `submitted`.
    void Deliver(uint8_t* dst, uint64_t n, Clock::time_point submitted);
    void RenderItem(OutItem& item, uint8_t* dst, Clock::time_point submitted);
    uint64_t ReadyEnd(Clock::time_point now) const;
    void Log(uint32_t w);
    bool TakeFault(int32_t& fault);
    // Brings device time up to `now` (see Device time above).
    void SyncTime(Clock::time_point now);
    uint64_t DeviceTick() const { return 2 * samplePos_; }
    // Runs the GPS receiver and the discipline up to the device's present tick.
    void RunGps();

    const int32_t id_;
    const std::string serial_;

    std::mutex mu_;
    std::condition_variable cv_;
    bool attached_ = true;
    bool runFirmware_ = true;
    bool romLoader_ = false;
    std::string product_;
    std::string usbSerial_;         // what the descriptors say: from the image that runs
    int32_t flashVersion_ = -1;     // major << 8 | minor stored in the boot sector, or -1
    std::vector<uint8_t> ram_;      // ROM loader: the words downloaded so far
    uint32_t ramSum_ = 0;
    bool outFailed_ = false;        // the loader refuses the block being executed
    uint64_t generation_ = 1;
    uint64_t presentAtMs_ = 0;
    uint64_t busyUntilMs_ = 0;
    NorFlash flash_;
    std::shared_ptr<const Scene> scene_;
    RunState run_;
    LxSimCounters counters_{};
    // The last kCommandLogWords words, oldest at logHead_: a ring taken at
    // attach, so that a long stream's log does not grow the process.
    std::vector<uint32_t> log_ = std::vector<uint32_t>(kCommandLogWords);
    size_t logHead_ = 0, logCount_ = 0;

    int32_t faultStall_ = 0, faultShort_ = 0, faultBadMagic_ = 0, faultNoAnswer_ = 0, faultStayBusy_ = 0;
    int32_t faultProgram_ = 0, faultErase_ = 0, faultOutStall_ = 0, faultBitFlip_ = 0, faultPowerLoss_ = 0;

    // Output stream (offsets count bytes since boot).
    std::deque<OutItem> items_;
    std::deque<uint64_t> shortPackets_; // offsets where a short packet ends a transfer
    uint64_t producedEnd_ = 0, committedEnd_ = 0, delivered_ = 0;
    std::deque<SimTransfer*> inQueue_;

    // ADC timeline.
    uint64_t samplePos_ = 0;
    Clock::time_point origin_;    // paced: wall time of sample 0
    Clock::time_point idleMark_;  // fast: real time counted into the timeline up to here
    Clock::time_point blockTime_; // arrival of the command block being executed
    uint64_t virtualSeenMs_ = 0;  // virtual time counted into the timeline
    uint32_t pendingIq_ = 0;      // I/Q packets requested and not yet taken
    uint32_t pendingStatus_ = 0;
    uint64_t rng_;

    GpsReceiver gps_;
    std::deque<uint8_t> gpsInput_;

    std::shared_ptr<const CaptureConfig> planConfig_;
    std::shared_ptr<const Scene> planScene_;
    RenderPlan plan_;
    static constexpr size_t kPlanCacheSize = 1024; // a 1000-step list; about 8 KiB each
    std::deque<std::pair<std::shared_ptr<const CaptureConfig>, RenderPlan>> planCache_;
    std::shared_ptr<const Scene> planCacheScene_;
};

} // namespace lx::sim
