// Pieces both swept-spectrum engines share: the attenuation a sweep runs
// with, the status packet read at the end of a sweep, and the order in which
// a finished sweep's warnings become its status.
//
// Thread-safe but for TakeEndOfSweepStatus, which runs on the caller's thread
// with the device's control lock held.
#pragma once

#include <cstdint>

#include "lx_api.h"
#include "lx_lib/device.h"

namespace lx::engines {

// What lxGetSweep drives, for both swept-spectrum engines (the calling
// pattern of device.h, rule 1):
//   Start()   control lock held: begins one sweep and claims the transport;
//             lxSweepAlreadyActiveErr while one is pending.
//   Wait()    control lock released, the engine kept alive by the caller:
//             returns once the sweep's samples are in and processed, or the
//             engine was stopped.
//   Result()  control lock held again: copies the traces out and takes the
//             sweep's status packet into the device; 0 at once (outputs
//             untouched) when no sweep is pending.
class SweepRunner : public Engine {
public:
    virtual LxStatus Start() = 0;
    virtual void Wait() = 0;
    virtual LxStatus Result(float* minTrace, float* maxTrace, uint64_t* timestamp) = 0;
    virtual int32_t SweepLength() const = 0;
};

// The attenuation step 0..6 of a sweep: the attenuator setting when it is
// 0 or more (at most 6), else chosen from the reference level (AutoAttenuation).
int32_t SweepAttenuation(int32_t attenuatorSetting, double refLevelDbm);

// What one sweep ran into.
struct SweepWarnings {
    LxStatus link = lxNoError; // the device's stored error status (the transport's link status)
    bool framingError = false; // a status packet without its magic
    bool dataLost = false;     // status word bit 9
    bool adcOverflow = false;  // status word bit 8
    bool cpuOverrun = false;   // the host fell behind the stream (stepped sweep only)
    float temperature = 0;     // now
    float temperatureAtConfigure = 0;
};

inline constexpr float kTempDriftLimitC = 2.0f;

// Takes the status packet read after a sweep's data into the device (when one
// was read): sets the overflow and data-loss warnings from its status word,
// or flags a framing error when it lacks its magic; then fills the remaining
// warnings from the device and its link. Returns the time stamp of the sweep
// (device time, ns since 1970; 0 without a packet).
uint64_t TakeEndOfSweepStatus(Device& dev, const uint8_t* record, bool recordValid, SweepWarnings& w);

// Strongest first: the link status, lxFramingErr, lxUncalData, lxADCOverflow,
// lxCPULimited, lxTempDrift (more than 2 degC since configure), else 0.
LxStatus SweepStatus(const SweepWarnings& w);

} // namespace lx::engines
