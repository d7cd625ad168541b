// Sweep settings for the plan tests of this folder.
#pragma once

#include "lx_lib/device.h"

namespace lx::engines::test {

inline SweepSettings Settings(double start, double stop, double rbw, double vbw, double sweepTime,
                              int32_t window = 0) {
    SweepSettings s;
    s.start = start;
    s.stop = stop;
    s.rbw = rbw;
    s.vbw = vbw;
    s.sweepTime = sweepTime;
    s.window = window;
    return s;
}

} // namespace lx::engines::test
