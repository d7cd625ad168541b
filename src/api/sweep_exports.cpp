// Common and swept-spectrum settings. Setters only store: nothing reaches the
// analyzer before lxConfigure.
#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "api/registry.h"
#include "lx_api.h"

using namespace lx;
using namespace lx::api;

namespace {

constexpr double kMinSweepHz = 9000.0;
constexpr double kMaxSweepHz = 1.5e10;

// Stores the nearer bound for a value outside [lo, hi]; true when it did.
bool Clamp(double& v, double lo, double hi) {
    if (v < lo) {
        v = lo;
        return true;
    }
    if (v > hi) {
        v = hi;
        return true;
    }
    return false;
}

} // namespace

extern "C" {

LX_API LxStatus lxSetRefLevel(int32_t handle, double dbm) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(dbm)) return lxInvalidParameterErr;
        const bool clamped = dbm > 20.0;
        d.refLevel = clamped ? 20.0 : dbm;
        return clamped ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxGetRefLevel(int32_t handle, double* dbm) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!dbm) return lxNullPtrErr;
        *dbm = d.refLevel;
        return lxNoError;
    });
}

LX_API LxStatus lxSetAttenuator(int32_t handle, int32_t step) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (step < -1) {
            d.attenuator = -1;
            return lxSettingClamped;
        }
        if (step > 6) {
            d.attenuator = 6;
            return lxSettingClamped;
        }
        d.attenuator = step;
        return lxNoError;
    });
}

LX_API LxStatus lxGetAttenuator(int32_t handle, int32_t* step) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!step) return lxNullPtrErr;
        *step = d.attenuator;
        return lxNoError;
    });
}

LX_API LxStatus lxSetSweepStartStop(int32_t handle, double start, double stop) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(start) || std::isnan(stop) || !(start < stop)) return lxInvalidParameterErr;
        const bool a = Clamp(start, kMinSweepHz, kMaxSweepHz);
        const bool b = Clamp(stop, kMinSweepHz, kMaxSweepHz);
        d.sweep.start = start;
        d.sweep.stop = stop;
        return a || b ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxSetSweepCenterSpan(int32_t handle, double centre, double span) {
    return lxSetSweepStartStop(handle, centre - span * 0.5, span * 0.5 + centre);
}

LX_API LxStatus lxSetSweepCoupling(int32_t handle, double rbw, double vbw, double sweepTime) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(rbw) || std::isnan(vbw) || std::isnan(sweepTime) || !(rbw > 0))
            return lxInvalidParameterErr;
        bool clamped = false;
        if (vbw > rbw) {
            vbw = rbw;
            clamped = true;
        }
        if (vbw < rbw / 10000.0) {
            vbw = rbw / 10000.0;
            clamped = true;
        }
        clamped |= Clamp(sweepTime, 1e-6, 100.0);
        d.sweep.rbw = rbw;
        d.sweep.vbw = vbw;
        d.sweep.sweepTime = sweepTime;
        return clamped ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxSetSweepDetector(int32_t handle, int32_t detector, int32_t videoUnits) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (detector < 0 || detector > 1 || videoUnits < 0 || videoUnits > 3) return lxInvalidParameterErr;
        d.sweep.detector = detector;
        d.sweep.videoUnits = videoUnits;
        return lxNoError;
    });
}

LX_API LxStatus lxSetSweepScale(int32_t handle, int32_t scale) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (scale < 0 || scale > 2) return lxInvalidParameterErr;
        d.sweep.scale = scale;
        return lxNoError;
    });
}

LX_API LxStatus lxSetSweepWindow(int32_t handle, int32_t window) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (window < 0 || window > 5) return lxInvalidParameterErr;
        d.sweep.window = window;
        return lxNoError;
    });
}

LX_API LxStatus lxSetSweepGPIOSwitching(int32_t handle, const uint64_t* frequencies, const uint8_t* values,
                                        int32_t count) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (count < 1) {
            d.gpioSwitches.clear();
            return lxNoError;
        }
        if (!frequencies || !values) return lxNullPtrErr;
        std::vector<GpioSwitch> list(static_cast<size_t>(count));
        for (size_t i = 0; i < list.size(); ++i) list[i] = {frequencies[i], values[i]};
        std::stable_sort(list.begin(), list.end(),
                         [](const GpioSwitch& a, const GpioSwitch& b) { return a.frequency < b.frequency; });
        d.gpioSwitches = std::move(list);
        // The sweep switches the port only in its switching configuration.
        d.gpioPort = 5;
        return lxNoError;
    });
}

LX_API LxStatus lxSetSweepGPIOSwitchingDisabled(int32_t handle) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        d.gpioSwitches.clear();
        return lxNoError;
    });
}

} // extern "C"
