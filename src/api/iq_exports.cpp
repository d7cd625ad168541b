// I/Q streaming (mode 3): settings, results, the stream-health counters, and
// the full-band capture service call (mode 100).
#include <cmath>
#include <cstring>

#include "api/registry.h"
#include "dsp/fft.h"
#include "engines/iq_engine.h"
#include "lx_api.h"
#include "usb/usb_transport.h"

using namespace lx;
using namespace lx::api;

namespace {

constexpr int32_t kIqMode = 3;
constexpr int32_t kFullBandMode = 100;
constexpr double kFullBandMinHz = 3.84e6;
constexpr double kFullBandMaxHz = 1.92e10;
constexpr uint32_t kFullBandBytes = 32768;

engines::IqEngine* IqEngineOf(Device& d) {
    if (d.mode != kIqMode) return nullptr;
    return static_cast<engines::IqEngine*>(d.engines[kIqEngine].get());
}

// 0 or 1, else lxInvalidParameterErr with nothing stored.
template <typename T>
LxStatus SetFlag(int32_t handle, int32_t value, T store) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (value < 0 || value > 1) return lxInvalidParameterErr;
        store(d);
        return lxNoError;
    });
}

} // namespace

extern "C" {

LX_API LxStatus lxSetIQDataType(int32_t handle, int32_t type) {
    return SetFlag(handle, type, [&](Device& d) { d.iq.dataType = type; });
}

LX_API LxStatus lxSetIQCenterFreq(int32_t handle, double hz) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(hz)) return lxInvalidParameterErr;
        d.iq.centre = hz;
        return lxNoError;
    });
}

// Kept empty on purpose: the caller knows the centre it set.
LX_API LxStatus lxGetIQCenterFreq(int32_t, double*) { return lxNoError; }

LX_API LxStatus lxSetIQSampleRate(int32_t handle, int32_t decimation) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (decimation < 1 || decimation > engines::kIqMaxDecimation || !dsp::IsPowerOf2(decimation))
            return lxInvalidParameterErr;
        d.iq.decimation = decimation;
        return lxNoError;
    });
}

LX_API LxStatus lxSetIQSoftwareFilter(int32_t handle, int32_t enable) {
    return SetFlag(handle, enable, [&](Device& d) { d.iq.softwareFilter = enable == 1; });
}

LX_API LxStatus lxSetIQBandwidth(int32_t handle, double hz) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (std::isnan(hz)) return lxInvalidParameterErr;
        d.iq.bandwidth = hz;
        return lxNoError;
    });
}

LX_API LxStatus lxSetIQTriggerSentinel(double value) {
    engines::SetIqTriggerSentinel(value);
    return lxNoError;
}

LX_API LxStatus lxSetIQExtTriggerEdge(int32_t handle, int32_t edge) {
    return SetFlag(handle, edge, [&](Device& d) { d.iq.triggerEdge = edge; });
}

LX_API LxStatus lxSetIQQueueSize(int32_t handle, int32_t transfers) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        d.iq.queueSize = transfers < 2 ? 2 : transfers > 16 ? 16 : transfers;
        return d.iq.queueSize == transfers ? lxNoError : lxSettingClamped;
    });
}

LX_API LxStatus lxGetIQParameters(int32_t handle, double* sampleRate, double* bandwidth) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (d.mode != kIqMode) return lxInvalidConfigurationErr;
        if (sampleRate) *sampleRate = d.iqResults.sampleRate;
        if (bandwidth) *bandwidth = d.iqResults.bandwidth;
        return lxNoError;
    });
}

LX_API LxStatus lxGetIQCorrection(int32_t handle, float* correctionDb) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!correctionDb) return lxNullPtrErr;
        const engines::IqEngine* e = IqEngineOf(d);
        if (!e) return lxInvalidConfigurationErr;
        *correctionDb = e->plan().correctionDb;
        return lxNoError;
    });
}

LX_API LxStatus lxGetIQ(int32_t handle, void* iqData, int32_t sampleCount, double* triggers, int32_t triggerCount,
                        uint64_t* timestamp, int32_t purge, int32_t* sampleLoss, int32_t* samplesRemaining) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!iqData) return lxNullPtrErr;
        if (sampleCount < 1) return lxInvalidParameterErr;
        engines::IqEngine* e = IqEngineOf(d);
        if (!e) return lxInvalidConfigurationErr;
        return e->Read(iqData, sampleCount, triggers, triggerCount, timestamp, purge, sampleLoss, samplesRemaining);
    });
}

LX_API LxStatus lxGetStreamHealth(int32_t handle, LxStreamHealth* health) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!health) return lxNullPtrErr;
        const StreamHealth& h = d.health;
        health->samplesDelivered = h.samplesDelivered.load();
        health->samplesDropped = h.samplesDropped.load();
        health->dataLossEvents = h.dataLossEvents.load();
        health->adcOverflowEvents = h.adcOverflowEvents.load();
        health->transportErrors = h.transportErrors.load();
        health->spectraLost = h.spectraLost.load();
        health->streamHeldMs = h.streamHeldMs.load();
        return lxNoError;
    });
}

} // extern "C"

LX_API LxStatus lxAdminGetFullBandIQ(int32_t handle, double frequencyHz, float* iq) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!iq) return lxNullPtrErr;
        if (std::isnan(frequencyHz)) return lxInvalidParameterErr;
        d.fullBandFrequency = std::clamp(frequencyHz, kFullBandMinHz, kFullBandMaxHz);
        if (const LxStatus s = d.Configure(kFullBandMode); s < 0) return s;
        const auto* capture = static_cast<const engines::FullBandCapture*>(d.engines[kFullBandEngine].get());
        if (d.mode != kFullBandMode || !capture) {
            d.StopEngine();
            return lxInvalidConfigurationErr;
        }
        usb::UsbTransport& link = d.Transport();
        constexpr int kSlot = 0;
        const bool queued = link.BeginRead(kSlot, kFullBandBytes, 2000);
        link.Send(capture->commands());
        if (queued) {
            const usb::TransferResult r = link.FinishRead(kSlot);
            if (!r.timedOut && r.transferred == kFullBandBytes && r.buffer) {
                // The raw values as the device sends them (I, Q, I, Q ...),
                // full scale 1.0; the device's DC offset is left in.
                const auto* raw = reinterpret_cast<const int16_t*>(r.buffer);
                for (int i = 0; i < engines::kFullBandValues; ++i) iq[i] = static_cast<float>(raw[i]) / 32768.0f;
            }
        }
        d.StopEngine();
        return link.LinkStatus();
    });
}
