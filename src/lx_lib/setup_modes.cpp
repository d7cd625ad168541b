#include "lx_lib/device.h"

#include "engines/audio_engine.h"
#include "engines/iq_sweep_list_engine.h"
#include "engines/iq_engine.h"
#include "engines/narrow_span_engine.h"
#include "engines/realtime_engine.h"
#include "engines/sweep_engine.h"

namespace lx {

// Each measurement engine brings its set-up; until it exists, its mode is
// refused and the device stays idle.
LxStatus SetupMode(Device& dev, int32_t mode) {
    switch (mode) {
    case 1:
        // Spans below 5 MHz fit one capture: the narrow-span engine.
        if (dev.sweep.stop - dev.sweep.start < engines::kMinSweepSpanHz) return engines::SetupNarrowSpan(dev);
        return engines::SetupSweep(dev);
    case 2:
        return engines::SetupRealTime(dev);
    case 3:
        return engines::SetupIq(dev);
    case 4:
        return engines::SetupIqSweepList(dev);
    case 100:
        return engines::SetupFullBand(dev);
    case 5:
        return engines::SetupAudio(dev);
    default:
        return lxInvalidParameterErr;
    }
}

} // namespace lx
