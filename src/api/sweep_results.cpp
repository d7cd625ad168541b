// Swept-spectrum results: the figures the sweep set-up achieved, and one
// sweep's traces with the trace correction applied.
#include <algorithm>

#include "api/registry.h"
#include "engines/narrow_span_engine.h"
#include "engines/sweep_engine.h"
#include "lx_api.h"

using namespace lx;
using namespace lx::api;

namespace {

constexpr int32_t kSweepMode = 1;

// The roll-off vector covers the first trace points only (it ends where the
// correction reaches 0 dB).
void ApplyTraceCorrection(const Device& d, float* trace, int32_t length) {
    if (!trace || d.traceCorrection.empty()) return;
    const size_t n = std::min(d.traceCorrection.size(), static_cast<size_t>(std::max(length, 0)));
    const float* c = d.traceCorrection.data();
    if (d.traceCorrectionAdditive)
        for (size_t i = 0; i < n; ++i) trace[i] += c[i];
    else
        for (size_t i = 0; i < n; ++i) trace[i] *= c[i];
}

} // namespace

extern "C" {

LX_API LxStatus lxGetSweepParameters(int32_t handle, double* actualRbw, double* actualVbw, double* actualStart,
                                     double* binSize, int32_t* sweepLength) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        if (d.mode != kSweepMode) return lxInvalidConfigurationErr;
        const SweepResults& r = d.sweepResults;
        if (actualRbw) *actualRbw = r.actualRbw;
        if (actualVbw) *actualVbw = r.actualVbw;
        if (actualStart) *actualStart = r.actualStart;
        if (binSize) *binSize = r.binSize;
        if (sweepLength) *sweepLength = r.sweepLength;
        return lxNoError;
    });
}

LX_API LxStatus lxGetSweep(int32_t handle, float* minTrace, float* maxTrace, uint64_t* timestamp) {
    return WithDevice(handle, [&](Device& d) -> LxStatus {
        LxStatus status;
        int32_t length;
        if (auto* narrow = static_cast<engines::NarrowSpanEngine*>(d.engines[kNarrowSpanEngine].get())) {
            status = narrow->Run(minTrace, maxTrace, timestamp);
            length = narrow->plan().sweep.sweepLength;
        } else if (auto* stepped = static_cast<engines::SweepEngine*>(d.engines[kSweepEngine].get())) {
            if (const LxStatus s = stepped->Start(); s != lxNoError) return s;
            status = stepped->Result(minTrace, maxTrace, timestamp);
            length = stepped->plan().sweepLength;
        } else {
            return lxInvalidConfigurationErr;
        }
        ApplyTraceCorrection(d, minTrace, length);
        ApplyTraceCorrection(d, maxTrace, length);
        return status;
    });
}

} // extern "C"
