// I/Q sweep list: the step list and its settings (stored for the next
// lxConfigure), and the requests of a running list.
#include <cmath>

#include "api/registry.h"
#include "engines/iq_sweep_list_engine.h"
#include "lx_api.h"

using namespace lx;
using namespace lx::api;

namespace {

constexpr int32_t kSweepListMode = 4;
constexpr double kMinStepHz = 9000.0;
constexpr double kMaxStepHz = 1.5e10;
constexpr double kMinRefDbm = -100.0;
constexpr double kMaxRefDbm = 20.0;

// The step behind an index, or null for one outside the list.
IqSweepListStep* StepAt(Device& d, int32_t step) {
    if (step < 0 || static_cast<size_t>(step) >= d.iqSweepList.steps.size()) return nullptr;
    return &d.iqSweepList.steps[static_cast<size_t>(step)];
}

// Stores the nearer bound for a value outside [lo, hi]; true when it did.
bool Clamp(double& v, double lo, double hi) {
    const double c = std::fmin(std::fmax(v, lo), hi);
    const bool clamped = c != v;
    v = c;
    return clamped;
}

engines::IqSweepListEngine* RunningList(Device& d) {
    if (d.mode != kSweepListMode) return nullptr;
    return static_cast<engines::IqSweepListEngine*>(d.engines[kIqSweepListEngine].get());
}

} // namespace

extern "C" {

LX_API LxStatus lxSetIQSweepListDataType(int32_t handle, int32_t dataType) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (dataType < 0 || dataType > 1) return lxInvalidParameterErr;
        d.iqSweepList.dataType = dataType;
        return lxNoError;
    });
}

LX_API LxStatus lxSetIQSweepListCorrected(int32_t handle, int32_t corrected) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (corrected < 0 || corrected > 1) return lxInvalidParameterErr;
        d.iqSweepList.uncorrected = corrected == 0 ? 1 : 0;
        return lxNoError;
    });
}

LX_API LxStatus lxSetIQSweepListSteps(int32_t handle, int32_t steps) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (steps < 1 || steps > engines::kSweepListMaxSteps) return lxInvalidParameterErr;
        d.iqSweepList.steps.resize(static_cast<size_t>(steps));
        return lxNoError;
    });
}

LX_API LxStatus lxGetIQSweepListSteps(int32_t handle, int32_t* steps) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!steps) return lxNullPtrErr;
        *steps = static_cast<int32_t>(d.iqSweepList.steps.size());
        return lxNoError;
    });
}

LX_API LxStatus lxSetIQSweepListFreq(int32_t handle, int32_t step, double hz) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        IqSweepListStep* s = StepAt(d, step);
        if (!s || std::isnan(hz)) return lxInvalidParameterErr;
        const bool clamped = Clamp(hz, kMinStepHz, kMaxStepHz);
        s->frequency = hz;
        return clamped ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxSetIQSweepListRef(int32_t handle, int32_t step, double dbm) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        IqSweepListStep* s = StepAt(d, step);
        if (!s || std::isnan(dbm)) return lxInvalidParameterErr;
        const bool clamped = Clamp(dbm, kMinRefDbm, kMaxRefDbm);
        s->refLevel = dbm;
        s->attenuator = -1; // the reference level chooses again
        return clamped ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxSetIQSweepListAtten(int32_t handle, int32_t step, int32_t atten) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        IqSweepListStep* s = StepAt(d, step);
        if (!s) return lxInvalidParameterErr;
        const int32_t v = atten < -1 ? -1 : atten > 6 ? 6 : atten;
        s->attenuator = v;
        return v != atten ? lxSettingClamped : lxNoError;
    });
}

LX_API LxStatus lxSetIQSweepListSampleCount(int32_t handle, int32_t step, uint32_t samples) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        IqSweepListStep* s = StepAt(d, step);
        if (!s) return lxInvalidParameterErr;
        s->sampleCount = samples;
        return lxNoError;
    });
}

LX_API LxStatus lxIQSweepListGetCorrections(int32_t handle, float* corrections) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!corrections) return lxNullPtrErr;
        engines::IqSweepListEngine* e = RunningList(d);
        if (!e) return lxInvalidConfigurationErr;
        for (const engines::SweepListStepPlan& st : e->plan().steps) *corrections++ = st.scale;
        return lxNoError;
    });
}

LX_API LxStatus lxIQSweepListStartSweep(int32_t handle, int32_t slot, void* destination, uint64_t* timestamps) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!destination) return lxNullPtrErr;
        engines::IqSweepListEngine* e = RunningList(d);
        if (!e) return lxInvalidConfigurationErr;
        return e->Start(slot, destination, timestamps);
    });
}

LX_API LxStatus lxIQSweepListFinishSweep(int32_t handle, int32_t slot) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        engines::IqSweepListEngine* e = RunningList(d);
        if (!e) return lxInvalidConfigurationErr;
        return e->Finish(slot);
    });
}

LX_API LxStatus lxIQSweepListGetSweep(int32_t handle, void* destination, uint64_t* timestamps) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (!destination) return lxNullPtrErr;
        engines::IqSweepListEngine* e = RunningList(d);
        if (!e) return lxInvalidConfigurationErr;
        if (e->AnyActive()) return lxSweepAlreadyActiveErr;
        if (const LxStatus s = e->Start(0, destination, timestamps); s != lxNoError) return s;
        return e->Finish(0);
    });
}

} // extern "C"
