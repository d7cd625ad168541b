// Shared helpers of the USB tests: simulated devices through lx_sim.h only.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "lx_lib/cal_files.h"
#include "lx_sim.h"

namespace lx::usb::testing {

inline uint64_t VirtualMs() {
    uint64_t ms = 0;
    EXPECT_EQ(lxSimGetVirtualTimeMs(&ms), lxNoError);
    return ms;
}

inline LxSimCounters Counters(int32_t serial) {
    LxSimCounters c{};
    EXPECT_EQ(lxSimGetCounters(serial, &c), lxNoError);
    return c;
}

inline int32_t Personality(int32_t serial) {
    int32_t run = -1;
    EXPECT_EQ(lxSimGetPersonality(serial, &run), lxNoError);
    return run;
}

// Every test starts and ends with an empty simulated bus. Serials are unique
// per test so that tests running in parallel never share a cache file.
class SimBus : public ::testing::Test {
protected:
    void SetUp() override { lxSimDetachAll(); }
    void TearDown() override { lxSimDetachAll(); }

    static void Attach(int32_t serial, const char* scene = nullptr) {
        std::remove(CalFilePath(serial).c_str());
        ASSERT_EQ(lxSimAttach(serial, scene), lxNoError);
    }
};

} // namespace lx::usb::testing
