#include "engines/sweep_support.h"

#include <algorithm>
#include <cmath>

#include "engines/sweep_plan.h"

namespace lx::engines {

int32_t SweepAttenuation(int32_t attenuatorSetting, double refLevelDbm) {
    return attenuatorSetting >= 0 ? std::min(attenuatorSetting, 6) : AutoAttenuation(refLevelDbm);
}

LxStatus SweepStatus(const SweepWarnings& w) {
    if (w.link != lxNoError) return w.link;
    if (w.framingError) return lxFramingErr;
    if (w.dataLost) return lxUncalData;
    if (w.adcOverflow) return lxADCOverflow;
    if (w.cpuOverrun) return lxCPULimited;
    if (std::fabs(w.temperature - w.temperatureAtConfigure) > kTempDriftLimitC) return lxTempDrift;
    return lxNoError;
}

} // namespace lx::engines
