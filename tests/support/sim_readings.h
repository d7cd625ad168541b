// One-value readings through the exports, shared by the test folders; the
// test fails when a reading is refused.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "lx_api.h"
#include "lx_sim.h"

// What a one-output getter reports for a handle (or, for the simulator's, a serial).
template <typename T>
T Get(LxStatus (*get)(int32_t, T*), int32_t handleOrSerial) {
    T v{};
    EXPECT_EQ(get(handleOrSerial, &v), lxNoError);
    return v;
}

// The simulator's virtual clock, which every simulated analyzer runs on.
inline uint64_t VirtualMs() {
    uint64_t ms = 0;
    EXPECT_EQ(lxSimGetVirtualTimeMs(&ms), lxNoError);
    return ms;
}
