// Swept-spectrum results: the figures the sweep set-up achieved, and one
// sweep's traces with the trace correction applied.
#include <algorithm>
#include <memory>
#include <mutex>

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
    return WithDevice(handle, [&](Device& d, std::unique_lock<std::mutex>& lock) -> LxStatus {
        const int slot = d.engines[kNarrowSpanEngine] ? kNarrowSpanEngine : kSweepEngine;
        const std::shared_ptr<Engine> engine = d.engines[slot];
        if (!engine) return lxInvalidConfigurationErr;
        auto& sweep = static_cast<engines::SweepRunner&>(*engine);
        if (const LxStatus s = sweep.Start(); s != lxNoError) return s;
        // The sweep runs without the control lock: other calls on this
        // device are answered meanwhile (from the housekeeping last decoded,
        // commands after the acquisition).
        lock.unlock();
        sweep.Wait();
        lock.lock();
        if (d.closed) return lxInvalidDeviceErr;
        if (d.engines[slot] != engine) return lxInvalidConfigurationErr; // stopped meanwhile
        const LxStatus status = sweep.Result(minTrace, maxTrace, timestamp);
        ApplyTraceCorrection(d, minTrace, sweep.SweepLength());
        ApplyTraceCorrection(d, maxTrace, sweep.SweepLength());
        return status;
    });
}

} // extern "C"
