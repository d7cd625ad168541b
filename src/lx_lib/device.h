// The device object: the hub behind one handle.
//
// It owns the transport, a private copy of the calibration record, every
// setting the API stores, the housekeeping readings, the GPS state and at
// most one measurement engine. It runs the initialisation sequence at open,
// changes power state, keeps the temperature correction bracket and the
// oscillator tune word up to date, refreshes housekeeping at most once a
// second when asked to, and dispatches configure to the set-up of a mode.
//
// Threads, locks and who drives the transport
//
// Every export may be called from any thread on an open handle. The rules,
// which every engine follows:
//
// 1. The control lock (`control`) serialises the control path of one
//    device: every export holds it for its whole call (api::WithDevice),
//    so settings, housekeeping fields, the calibration copy and the engine
//    slots are only ever touched by one caller at a time. A blocking getter
//    (lxGetSweep, and the real-time and I/Q getters alike) drops it while
//    it waits for its result, keeping the engine alive through a
//    shared_ptr, and takes it again to hand the result over: if the engine
//    was replaced meanwhile (configure, abort or close on another thread),
//    it returns without touching the outputs.
// 2. The transport is driven by one thread at a time: the holder of the
//    control lock, unless an engine has claimed it. An engine claims it
//    (ClaimTransport, control lock held; it also reserves the transport's
//    read buffers) when an acquisition begins and
//    releases it (ReleaseTransport, from any of its threads, no lock
//    needed) when the last transfer of that acquisition has finished; a
//    streaming engine holds it from its start to its stop. StopEngine
//    releases whatever an engine still holds after stopping it.
// 3. While an engine holds the transport the control path never touches it:
//    housekeeping reads (diagnostics, GPS, fan) answer with the values last
//    decoded, and commands (SendWords and everything built on it, the fan's
//    control request) wait until the acquisition has ended, which is
//    bounded by its transfers' time-outs.
// 4. Engine threads never take the control lock (a holder of it may be
//    joining them) and never write a Device field: what their status packets
//    say is kept in the engine and taken into the device by the caller's
//    thread, under the control lock, when it hands a result over.
// 5. Engine::Stop() stops and joins the engine's threads and wakes every
//    waiter; it is idempotent and called with the control lock held.
//
// Lock order: registry (api) -> control -> an engine's own locks -> the
// transport-claim lock -> gps.mutex. The claim lock and gps.mutex are
// leaves: nothing is waited for while holding them, except the claim's own
// condition.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "gps/gps_state.h"
#include "lx_api.h"
#include "lx_lib/stream_health.h"
#include "usb/usb_transport.h"

namespace lx {

// Base of every measurement engine. Destroying an engine stops and joins its
// threads; so does Stop(), which the device calls first (see rule 5 above).
class Engine {
public:
    virtual ~Engine() = default;
    virtual void Stop() = 0;
};

enum EngineSlot : int {
    kNarrowSpanEngine = 0,
    kSweepEngine,
    kRealTimeEngine,
    kIqEngine,
    kFullBandEngine,
    kIqSweepListEngine,
    kAudioEngine,
    kEngineSlots
};

struct SweepSettings {
    double start = 9000.0;
    double stop = 1.5e10;
    double rbw = 30000.0;
    double vbw = 30000.0;
    int32_t detector = 0;
    int32_t scale = 0;
    int32_t videoUnits = 2;
    int32_t window = 0;
    double sweepTime = 1e-6;
};

struct SweepResults {
    double actualRbw = 0, actualVbw = 0, actualStart = 0, binSize = 0;
    int32_t sweepLength = 0;
};

struct RealTimeSettings {
    double centre = 1e9;
    double span = 4e7;
    double rbw = 30000.0;
    int32_t detector = 1;
    int32_t scale = 0;
    double frameRefLevel = 0.0;
    double frameScale = 100.0;
    int32_t window = 1;
};

struct RealTimeResults {
    double actualRbw = 0;
    int32_t sweepLength = 0;
    double actualStart = 0, binSize = 0;
    int32_t frameWidth = 0, frameHeight = 0;
    double minSignalDuration = 0;
};

struct IqSettings {
    int32_t dataType = 0;
    double centre = 1e9;
    int32_t decimation = 1;
    bool softwareFilter = true;
    double bandwidth = 4e7;
    int32_t triggerEdge = 0;
    int32_t queueSize = 16;
};

struct IqResults {
    double sampleRate = 61.44e6;
    double bandwidth = 4e7;
};

// One step of the I/Q sweep list, with the defaults a new step takes.
struct IqSweepListStep {
    double frequency = 1e9;
    double refLevel = -20.0;
    int32_t attenuator = -1; // -1: from the reference level
    uint32_t sampleCount = 1000000;
};

struct IqSweepListSettings {
    int32_t dataType = 0;
    uint32_t uncorrected = 0;
    std::vector<IqSweepListStep> steps;
};

struct AudioSettings {
    double centre = 97.1e6;
    int32_t type = 1;
    double ifBandwidth = 200000.0;
    double lowPass = 12000.0;
    double highPass = 100.0;
    double deemphasisUs = 75.0;
};

struct GpioSwitch {
    uint64_t frequency;
    uint8_t value;
};

// The last GPS-disciplined tune value, kept in the per-device timebase file.
struct TimebaseCache {
    bool valid = false;
    int64_t timeSeconds = 0;
    uint16_t tune = 0;
};

// An unset sample-clock stamp.
inline constexpr uint64_t kUnsetStamp = 0x1000000000000000ULL;

class Device {
public:
    // Construction: defaults, the calibration record (placeholder, then the
    // transport's copy), the coarse tune value from the record's tune table
    // or the newer timebase file.
    explicit Device(std::unique_ptr<usb::UsbTransport> transport);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // Power-up sequence, reference and timebase words, coarse tune,
    // housekeeping. 0, or lxInvalidCalData when the record failed validation.
    LxStatus Initialise();

    LxStatus SetPowerState(uint32_t state);
    LxStatus WriteCoarseTune(uint16_t value);
    // Reads one housekeeping record now: 0, or the link status on failure.
    LxStatus RefreshHousekeeping();
    // Refreshes when the last valid record is older than 1000 ms; 0 or the
    // link status of that refresh.
    LxStatus RefreshHousekeepingIfStale();
    // Decodes a status packet: housekeeping fields, sample-clock stamps, GPS
    // intake, timebase follow-up. Used by the refresh and by the engines.
    // Returns false (and changes nothing else) when the magic is wrong.
    bool TakeStatusPacket(const uint8_t* record);

    void ComputeCorrectionBracket();
    // Stops every engine (Engine::Stop), clears the slots, releases the
    // transport, empties the trace correction; mode 0.
    void StopEngine();

    // Transport ownership (rules 2 and 3 above).
    void ClaimTransport();   // control lock held; waits until no engine holds it
    void ReleaseTransport(); // any thread
    bool TransportClaimed() const { return claimed_.load(); }
    void WaitForTransport(); // control lock held
    // mode: 0..5 or 100 (the caller has range-checked it).
    LxStatus Configure(int32_t mode);

    bool InStreamingMode() const { return mode == 2 || mode == 3 || mode == 5; }
    // Sends one command word in its own block; returns the link status.
    LxStatus SendWord(uint32_t word);
    LxStatus SendWords(const std::vector<uint32_t>& words);
    // Temperature offset of the tune word for the current bracket, truncated.
    int TuneTemperatureOffset() const;

    usb::UsbTransport& Transport() { return *transport_; }
    const uint8_t* Cal() const { return cal_.data(); }
    uint8_t* Cal() { return cal_.data(); }

    // ---- state (fields in the order of the device record) ----
    uint32_t auxInvalid = 0;
    int32_t mode = 0;
    uint32_t powerState = 1;
    uint64_t lastHousekeepingMs = 0;
    uint16_t coarseTune = 0x8000;
    uint16_t appliedTune = 0x8000;
    std::array<uint32_t, 3> firmware{0, 0, 0};
    uint32_t correctionMode = 0;
    int32_t manualCorrectionIndex = 0;
    float correctionTemperature = 0;
    int32_t correctionIndex = 0;
    double correctionFraction = 0;
    uint32_t reference = 0;
    uint32_t gpioPort = 0;
    uint32_t gpsTimebaseUpdate = 0;
    uint16_t uartDivisor = 164;
    double frequencyConstant = 12.288e9;
    bool oldFirmware = false;
    std::array<uint8_t, 4> flags{};
    int32_t attenuator = -1;
    double refLevel = -20.0;
    SweepSettings sweep;
    SweepResults sweepResults;
    RealTimeSettings realTime;
    RealTimeResults realTimeResults;
    IqSettings iq;
    IqResults iqResults;
    IqSweepListSettings iqSweepList;
    AudioSettings audio;
    double fullBandFrequency = 0;
    std::vector<GpioSwitch> gpioSwitches;
    std::vector<float> traceCorrection;
    bool traceCorrectionAdditive = true;
    float temperature = 0;
    float supplyVoltage = 0;
    float supplyCurrent = 0;
    float fan = 0;
    float fanSetPoint = 45.0f;
    uint32_t statusWord = 0;
    float temperatureAtConfigure = 0;
    uint64_t sampleCounter = kUnsetStamp;
    uint64_t stampChanged = 0;
    uint64_t pulseCounter = kUnsetStamp;
    uint64_t pulseInterval = 0;
    uint64_t sampleOffset = 0;   // device-held offset added to the sample counter
    int32_t hwDecimation = 1;    // hardware decimation of the streaming mode
    gps::GpsState gps;
    TimebaseCache timebase;
    // Shared so that a getter waiting without the control lock keeps its
    // engine alive; at most one slot is non-null.
    std::array<std::shared_ptr<Engine>, kEngineSlots> engines;

    std::mutex control;  // the control lock (rule 1)
    bool closed = false; // set by close, under the control lock
    // Counters of the running stream, reset by every configure.
    StreamHealth health;

private:
    std::mutex claimMutex_;
    std::condition_variable claimCv_;
    std::atomic<bool> claimed_{false};
    std::unique_ptr<usb::UsbTransport> transport_;
    std::vector<uint8_t> cal_;
};

// The fields of a status packet that the GPS intake reads.
gps::GpsPacketFields GpsFieldsOf(const uint8_t* record);

// Milliseconds of a monotonic clock (the housekeeping age).
uint64_t NowMs();

// The per-device timebase file "lx%08dgps.bin" in the calibration cache folder.
std::string TimebaseFilePath(int32_t serial);
bool LoadTimebaseFile(int32_t serial, TimebaseCache& out);
void SaveTimebaseFile(int32_t serial, const TimebaseCache& tb);

// Mode set-ups, one per engine. Each engine's module defines its own; a mode
// without an engine yet refuses with lxInvalidConfigurationErr.
LxStatus SetupMode(Device& dev, int32_t mode);

} // namespace lx
