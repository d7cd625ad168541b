// Shared helpers of the USB tests: simulated devices through lx_sim.h only.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "../support/sim_readings.h"
#include "lx_lib/cal_files.h"

namespace lx::usb::testing {

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
