// The device object: the hub behind one handle.
//
// It owns the transport, a private copy of the calibration record, every
// setting the API stores, the housekeeping readings, the GPS state and at
// most one measurement engine. It runs the initialisation sequence at open,
// changes power state, keeps the temperature correction bracket and the
// oscillator tune word up to date, refreshes housekeeping at most once a
// second when asked to, and dispatches configure to the set-up of a mode.
//
// Threads: everything here runs on the calling thread; an engine started by a
// set-up runs its own threads and is stopped (joined) before any other
// set-up, close or preset. The GPS fields are guarded by gps.mutex; nothing
// else is locked.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "gps/gps_state.h"
#include "lx_api.h"
#include "lx_lib/stream_health.h"
#include "usb/usb_transport.h"

namespace lx {

// Base of every measurement engine. Destroying an engine stops and joins its
// threads.
class Engine {
public:
    virtual ~Engine() = default;
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

struct IqSweepListStep {
    double frequency = 0;
    double refLevel = -20.0;
    int32_t attenuator = -1;
    int32_t sampleCount = 0;
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
    void StopEngine();
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
    std::array<std::unique_ptr<Engine>, kEngineSlots> engines;
    // Counters of the running stream, reset by every configure.
    StreamHealth health;

private:
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
