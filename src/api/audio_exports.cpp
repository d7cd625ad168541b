// Audio demodulation (mode 5): settings and the audio blocks.
#include <algorithm>
#include <cmath>
#include <memory>

#include "api/registry.h"
#include "engines/audio_engine.h"
#include "lx_api.h"

using namespace lx;
using namespace lx::api;

namespace {

constexpr int32_t kAudioMode = 5;

struct Range {
    double lo, hi;
};
constexpr Range kCentre{9000.0, 1.5e10};
constexpr Range kIfBandwidth{500.0, 250000.0};
constexpr Range kLowPass{1000.0, 12000.0};
constexpr Range kHighPass{20.0, 1000.0};
constexpr Range kDeemphasis{1.0, 100.0};

// Clamps v into r; sets *clamped when it had to.
double Clamp(double v, Range r, bool* clamped) {
    const double c = std::clamp(v, r.lo, r.hi);
    if (c != v) *clamped = true;
    return c;
}

} // namespace

extern "C" {

LX_API LxStatus lxSetAudioCenterFreq(int32_t handle, double hz) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(hz)) return lxInvalidParameterErr;
        bool clamped = false;
        d.audio.centre = Clamp(hz, kCentre, &clamped);
        return clamped ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxSetAudioType(int32_t handle, int32_t type) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (type < lxAudioAM || type > lxAudioCW) return lxInvalidParameterErr;
        d.audio.type = type;
        return lxNoError;
    });
}

LX_API LxStatus lxSetAudioFilters(int32_t handle, double ifBandwidth, double lowPass, double highPass) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(ifBandwidth) || std::isnan(lowPass) || std::isnan(highPass)) return lxInvalidParameterErr;
        bool clamped = false;
        d.audio.ifBandwidth = Clamp(ifBandwidth, kIfBandwidth, &clamped);
        d.audio.lowPass = Clamp(lowPass, kLowPass, &clamped);
        d.audio.highPass = Clamp(highPass, kHighPass, &clamped);
        return clamped ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxSetAudioFMDeemphasis(int32_t handle, double microseconds) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(microseconds)) return lxInvalidParameterErr;
        bool clamped = false;
        d.audio.deemphasisUs = Clamp(microseconds, kDeemphasis, &clamped);
        return clamped ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxGetAudioSettings(int32_t handle, double* centreHz, int32_t* type, double* ifBandwidth,
                                   double* lowPass, double* highPass, double* deemphasisUs) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        const AudioSettings& a = d.audio;
        if (centreHz) *centreHz = a.centre;
        if (type) *type = a.type;
        if (ifBandwidth) *ifBandwidth = a.ifBandwidth;
        if (lowPass) *lowPass = a.lowPass;
        if (highPass) *highPass = a.highPass;
        if (deemphasisUs) *deemphasisUs = a.deemphasisUs;
        return lxNoError;
    });
}

LX_API LxStatus lxGetAudio(int32_t handle, float* samples) {
    return WithDevice(handle, [&](Device& d, std::unique_lock<std::mutex>& lock) -> LxStatus {
        if (!samples) return lxNullPtrErr;
        const std::shared_ptr<Engine> engine = d.engines[kAudioEngine];
        if (d.mode != kAudioMode || !engine) return lxInvalidConfigurationErr;
        auto& audio = static_cast<engines::AudioEngine&>(*engine);
        for (;;) {
            // The wait runs without the control lock: other calls on this
            // device (and a configure that ends the stream) go on meanwhile.
            lock.unlock();
            const LxStatus waited = audio.WaitBlock();
            lock.lock();
            if (d.closed) return lxInvalidDeviceErr;
            if (d.engines[kAudioEngine] != engine) return lxInvalidConfigurationErr;
            if (waited != lxNoError) return waited;
            LxStatus status = lxNoError;
            if (audio.TakeBlock(samples, &status)) return status;
        }
    });
}

} // extern "C"
