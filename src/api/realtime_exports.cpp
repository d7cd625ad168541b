// Real-time settings, the figures of the real-time set-up and the frame read.
#include <cmath>

#include "api/registry.h"
#include "engines/realtime_engine.h"
#include "lx_api.h"

using namespace lx;
using namespace lx::api;

namespace {

constexpr int32_t kRealTimeMode = 2;

// Stores the nearer bound for a value outside [lo, hi]; true when it did.
bool Clamp(double& v, double lo, double hi) {
    const double c = v < lo ? lo : (v > hi ? hi : v);
    const bool clamped = c != v;
    v = c;
    return clamped;
}

} // namespace

extern "C" {

LX_API LxStatus lxSetRealTimeCenterSpan(int32_t handle, double centre, double span) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(centre) || std::isnan(span)) return lxInvalidParameterErr;
        const bool a = Clamp(span, engines::kRtMinSpanHz, engines::kRtMaxSpanHz);
        const bool b = Clamp(centre, engines::kRtMinCentreHz, engines::kRtMaxCentreHz);
        d.realTime.centre = centre;
        d.realTime.span = span;
        return a || b ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxSetRealTimeRBW(int32_t handle, double rbw) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(rbw)) return lxInvalidParameterErr;
        const bool clamped = Clamp(rbw, engines::kRtMinRbwHz, engines::kRtMaxRbwHz);
        d.realTime.rbw = rbw;
        return clamped ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxSetRealTimeDetector(int32_t handle, int32_t detector) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (detector < 0 || detector > 1) return lxInvalidParameterErr;
        d.realTime.detector = detector;
        return lxNoError;
    });
}

LX_API LxStatus lxSetRealTimeScale(int32_t handle, int32_t scale, double frameRefLevel, double frameScale) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (scale < 0 || scale > 2 || std::isnan(frameRefLevel) || std::isnan(frameScale))
            return lxInvalidParameterErr;
        d.realTime.scale = scale;
        d.realTime.frameRefLevel = frameRefLevel;
        d.realTime.frameScale = frameScale;
        return lxNoError;
    });
}

LX_API LxStatus lxSetRealTimeWindow(int32_t handle, int32_t window) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (window < 0 || window > 5) return lxInvalidParameterErr;
        d.realTime.window = window;
        return lxNoError;
    });
}

LX_API LxStatus lxGetRealTimeParameters(int32_t handle, double* actualRbw, int32_t* sweepLength,
                                        double* actualStart, double* binSize, int32_t* frameWidth,
                                        int32_t* frameHeight, double* minSignalDuration) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (d.mode != kRealTimeMode) return lxInvalidConfigurationErr;
        const RealTimeResults& r = d.realTimeResults;
        if (actualRbw) *actualRbw = r.actualRbw;
        if (sweepLength) *sweepLength = r.sweepLength;
        if (actualStart) *actualStart = r.actualStart;
        if (binSize) *binSize = r.binSize;
        if (frameWidth) *frameWidth = r.frameWidth;
        if (frameHeight) *frameHeight = r.frameHeight;
        if (minSignalDuration) *minSignalDuration = r.minSignalDuration;
        return lxNoError;
    });
}

LX_API LxStatus lxGetRealTimeFrame(int32_t handle, float* frame, float* alphaFrame, float* minTrace,
                                   float* maxTrace, int32_t* frameCount, uint64_t* timestamp) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        auto* engine = static_cast<engines::RealTimeEngine*>(d.engines[kRealTimeEngine].get());
        if (d.mode != kRealTimeMode || !engine) {
            if (frameCount) *frameCount = 0;
            if (timestamp) *timestamp = 0;
            return lxInvalidConfigurationErr;
        }
        return engine->Frame(frame, alphaFrame, minTrace, maxTrace, frameCount, timestamp);
    });
}

} // extern "C"
