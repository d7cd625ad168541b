// Sweep settings for the plan tests of this folder.
#pragma once

#include "lx_lib/device.h"

namespace lx::engines::test {

inline SweepSettings Settings(double start, double stop, double rbw, double vbw, double sweepTime,
                              int32_t window = 0) {
    return {.start = start, .stop = stop, .rbw = rbw, .vbw = vbw, .window = window, .sweepTime = sweepTime};
}

} // namespace lx::engines::test
